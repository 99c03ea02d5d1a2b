#include <charconv>
#include <climits>
#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "base/core/Numbers.h"
#include "base/core/RunLimit.h"
#include "base/core/dtoa.h"
#include "base/host/ZephApplication.h"
#include "tests/support/Rounds.h"
#include "tests/support/TestApplication.h"

namespace {

using App = ZephApplication;
using std::string;

constexpr double Infinity = std::numeric_limits<double>::infinity();
constexpr double NaN = std::numeric_limits<double>::quiet_NaN();

struct Text {
  string text;
  int size;
};

// Takes a conversion's buffer. Fails the test unless it is terminated and has the reported size.
Text Take(char* buffer, int length, int size) {
  std::unique_ptr<char[]> owned(buffer);
  EXPECT_GT(size, length);
  EXPECT_EQ(buffer[length], 0);
  buffer[size - 1] = buffer[size - 1];
  return {string(buffer, static_cast<size_t>(length)), size};
}

Text Itos(int value) {
  int length = -1;
  int size = -1;
  char* buffer = App::itos(value, &length, &size);
  return Take(buffer, length, size);
}

Text Dtos(double value, int precision) {
  int length = -1;
  int size = -1;
  char* buffer = App::dtos(value, &length, &size, precision);
  return Take(buffer, length, size);
}

using Encoder = char* (*)(const char*, int, int*, int*);

Text Encode(Encoder encoder, const string& input) {
  int length = -1;
  int size = -1;
  char* buffer = encoder(input.data(), static_cast<int>(input.size()), &length, &size);
  return Take(buffer, length, size);
}

uint64_t Bits(double value) {
  uint64_t bits;
  memcpy(&bits, &value, sizeof bits);
  return bits;
}

double FromBits(uint64_t bits) {
  double value;
  memcpy(&value, &bits, sizeof value);
  return value;
}

// --- Numbers.h -----------------------------------------------------------------------------------

TEST(Numbers, DoubleToIntegerTruncatesAndHasOneAnswerForWhatDoesNotFit) {
  const std::pair<double, int> cases[] = {
      {0.0, 0},
      {-0.0, 0},
      {1.9, 1},
      {-1.9, -1},
      {2147483647.0, INT_MAX},
      {2147483647.9, INT_MAX},
      {2147483648.0, INT_MIN},
      {-2147483648.0, INT_MIN},
      {-2147483648.9, INT_MIN},
      {-2147483649.0, INT_MIN},
      {3e9, INT_MIN},
      {-3e9, INT_MIN},
      {1e300, INT_MIN},
      {Infinity, INT_MIN},
      {-Infinity, INT_MIN},
      {NaN, INT_MIN},
      {-2147483647.5, -2147483647},
  };
  for (const auto& [value, expected] : cases) {
    SCOPED_TRACE(value);
    EXPECT_EQ(DoubleToInteger(value), expected);
  }
}

TEST(Numbers, SumsWrap) {
  EXPECT_EQ(WrapAdd(INT_MAX, 1), INT_MIN);
  EXPECT_EQ(WrapAdd(INT_MIN, -1), INT_MAX);
  EXPECT_EQ(WrapAdd(3, -5), -2);
  EXPECT_EQ(WrapSubtract(INT_MIN, 1), INT_MAX);
  EXPECT_EQ(WrapSubtract(0, INT_MIN), INT_MIN);
}

// --- itos ----------------------------------------------------------------------------------------

TEST(Itos, TableOfValues) {
  const std::pair<int, const char*> cases[] = {
      {0, "0"},
      {1, "1"},
      {-1, "-1"},
      {9, "9"},
      {10, "10"},
      {-10, "-10"},
      {12345, "12345"},
      {INT_MAX, "2147483647"},
      {INT_MIN, "-2147483648"},
      {INT_MIN + 1, "-2147483647"},
  };
  for (const auto& [value, expected] : cases) {
    SCOPED_TRACE(expected);
    const Text text = Itos(value);
    EXPECT_EQ(text.text, expected);
    EXPECT_EQ(text.size, static_cast<int>(strlen(expected)) + 1);
  }
}

TEST(Itos, OutParametersMayBeNull) {
  const std::unique_ptr<char[]> text(App::itos(-7, nullptr, nullptr));
  EXPECT_STREQ(text.get(), "-7");
}

// --- dtos ----------------------------------------------------------------------------------------

struct DtosCase {
  double value;
  int precision;
  const char* text;
  int size;
};

TEST(Dtos, TableOfValues) {
  const DtosCase cases[] = {
      {3.5, -1, "3.5", 25},
      {3.0, -1, "3", 24},
      {3.5, 3, "3.500", 8},
      {0.05, -1, "0.05", 24},
      {3.0, 0, "3", 4},
      {0.0, -1, "0", 24},
      {-0.0, -1, "-0", 24},
      {0.0, 2, "0.00", 6},
      {-0.0, 2, "-0.00", 6},
      {0.1, -1, "0.1", 25},
      {-0.1, -1, "-0.1", 25},
      {1e15, -1, "1000000000000000", 39},
      {999999999999999.0, -1, "999999999999999", 38},
      {1e21, -1, "1000000000000000000000", 45},
      {-123.456, -1, "-123.456", 29},
      {123.456, 0, "123", 6},
      {123.456, 1, "123.5", 8},
      {123.456, 5, "123.45600", 14},
      {0.5, 0, "0", 4},
      {1.5, 0, "2", 4},
      {2.5, 0, "2", 4},
      {0.125, 2, "0.12", 8},
      {0.375, 2, "0.38", 8},
      {9.999, 2, "10.00", 7},
      {0.999, 2, "1.00", 6},
      {0.001, 2, "0.00", 5},
      {-0.001, 2, "-0.00", 6},  // the general rule for the size is one byte short here
      {1e-20, -1, "0.00000000000000000001", 24},
      {-1e-20, -1, "-0.00000000000000000001", 24},
      {1.5e-20, -1, "0.00000000000000000002", 24},
      {1e-21, -1, "0", 23},
      {1e-300, -1, "0", 23},
      {5e-324, -1, "0", 23},
      {5e-21, -1, "0", 23},
      {6e-21, -1, "0.00000000000000000001", 24},
      {1.0 / 3, -1, "0.3333333333333333", 40},
      {1.0 / 3, 30, "0.333333333333333300000000000000", 50},
      {2.0 / 3, 4, "0.6667", 12},
      {Infinity, -1, "Infinity", 9},
      {-Infinity, -1, "-Infinity", 10},
      {Infinity, 2, "Infinity", 9},
      {NaN, -1, "NaN", 4},
      {-NaN, -1, "-NaN", 5},
      {1234.5, -2, "1200", INT_MAX},
  };
  for (const DtosCase& c : cases) {
    SCOPED_TRACE(testing::Message() << c.value << " with " << c.precision);
    const Text text = Dtos(c.value, c.precision);
    EXPECT_EQ(text.text, c.text);
    if (c.size != INT_MAX) {
      EXPECT_EQ(text.size, c.size);
    }
  }
}

TEST(Dtos, NegativePrecisionNeverWritesBeyondItsBuffer) {
  for (double value : {0.0, 3.5, -3.5, 1e300, -1e300, 5e-324, 123456.789}) {
    for (int precision : {-2, -5, -20, -400, -512, -600}) {
      SCOPED_TRACE(testing::Message() << value << " with " << precision);
      const Text text = Dtos(value, precision);
      EXPECT_EQ(text.text.find('.'), string::npos);
    }
  }
}

TEST(Dtos, APrecisionBeyondTheDigitsIsFilledWithZeros) {
  const Text text = Dtos(1.25, 5000);
  EXPECT_EQ(text.text, "1.25" + string(4998, '0'));
}

TEST(Dtos, OutParametersMayBeNull) {
  std::unique_ptr<char[]> text(App::dtos(2.5, nullptr, nullptr, -1));
  EXPECT_STREQ(text.get(), "2.5");
  text.reset(App::dtos(NaN, nullptr, nullptr, -1));
  EXPECT_STREQ(text.get(), "NaN");
  text.reset(App::dtos(7.0, nullptr, nullptr, -1));
  EXPECT_STREQ(text.get(), "7");
}

// The digits of the shortest text that reads back as the value, written without an exponent. Empty
// if they go past the 20th decimal.
string ShortestPlain(double value) {
  char text[64];
  const auto end = std::to_chars(text, text + sizeof text, value, std::chars_format::scientific);
  string digits(text, end.ptr);
  const bool negative = digits[0] == '-';
  if (negative) digits.erase(0, 1);
  const size_t e = digits.find('e');
  const int point = atoi(digits.c_str() + e + 1) + 1;
  digits.resize(e);
  if (digits.size() > 1) digits.erase(1, 1);
  const int count = static_cast<int>(digits.size());
  if (count - point > 20) return "";
  string plain = negative ? "-" : "";
  if (point <= 0) {
    plain += "0." + string(static_cast<size_t>(-point), '0') + digits;
  } else if (point >= count) {
    plain += digits + string(static_cast<size_t>(point - count), '0');
  } else {
    plain += digits.substr(0, static_cast<size_t>(point)) + "." +
             digits.substr(static_cast<size_t>(point));
  }
  return plain;
}

TEST(Dtos, EqualsAnIndependentShortestFormForAMillionValues) {
  constexpr unsigned seed = 424242;
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  int compared = 0;
  for (int i = 0; compared < Rounds(1000000); i++) {
    double value;
    switch (i % 4) {
      case 0: value = FromBits(random()); break;
      case 1: value = static_cast<double>(static_cast<int64_t>(random()) >> (random() % 60)); break;
      case 2: value = static_cast<double>(random() % 10000000) / 100; break;
      default:
        value = std::ldexp(static_cast<double>(random() >> 11), -static_cast<int>(random() % 70));
        break;
    }
    if (!std::isfinite(value)) continue;
    const string expected = ShortestPlain(value);
    if (expected.empty()) continue;
    int length;
    const std::unique_ptr<char[]> text(App::dtos(value, &length, nullptr, -1));
    ASSERT_EQ(string(text.get(), static_cast<size_t>(length)), expected) << Bits(value);
    compared++;
  }
}

// Mode 9 of dtoa makes the digits of mode 5 by big integers alone.
string ByBigIntegers(double value, int precision) {
  char digits[512];
  int point;
  int sign;
  const int places = precision == -1 ? 20 : precision;
  const int count = dtoa(digits, sizeof digits, 9, places, &point, &sign, value);
  string all(digits, static_cast<size_t>(count));
  string text = sign ? "-" : "";
  if (point > 0) {
    while (static_cast<int>(all.size()) < point) all += '0';
    text += all.substr(0, static_cast<size_t>(point));
    all.erase(0, static_cast<size_t>(point));
  } else {
    text += '0';
    if (precision > 0 || count > 0) all.insert(0, static_cast<size_t>(-point), '0');
  }
  while (static_cast<int>(all.size()) < precision) all += '0';
  return all.empty() ? text : text + "." + all;
}

TEST(Dtos, EqualsTheDigitsOfBigIntegersAtEveryPrecision) {
  constexpr unsigned seed = 99;
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  for (int i = 0; i < Rounds(100000); i++) {
    const double value =
        i % 2 ? static_cast<double>(static_cast<int>(random() % 2000001) - 1000000) / 1000
              : std::ldexp(static_cast<double>(random() >> 11), -static_cast<int>(random() % 120));
    const int precision = static_cast<int>(random() % 25) - 1;
    ASSERT_EQ(Dtos(value, precision).text, ByBigIntegers(value, precision))
        << Bits(value) << " with " << precision;
  }
}

TEST(Dtos, OpenPrecisionReadsBackAsTheSameDouble) {
  std::mt19937_64 random(7);
  for (int i = 0; i < Rounds(100000); i++) {
    const double value =
        std::ldexp(static_cast<double>(random() >> 11) + 1, static_cast<int>(random() % 60) - 53);
    const string text = Dtos(value, -1).text;
    if (value < 1e-3) continue;
    ASSERT_EQ(App::stod(text.data(), static_cast<int>(text.size()), 0, nullptr), value) << text;
  }
}

// --- stoi ----------------------------------------------------------------------------------------

struct StoiCase {
  string text;
  int value;
  int error;
};

TEST(Stoi, TableOfTexts) {
  const StoiCase cases[] = {
      {"0", 0, 0},
      {"5", 5, 0},
      {"007", 7, 0},
      {"-5", -5, 0},
      {"-", 0, 0},
      {"--5", 0, 1},
      {"", 0, 1},
      {"+5", 0, 1},
      {" 5", 0, 1},
      {"5 ", 0, 1},
      {"12abc", 0, 1},
      {"1.5", 0, 1},
      {"1e3", 0, 1},
      {"-0", 0, 0},
      {"-x", 0, 1},
      {"2147483647", INT_MAX, 0},
      {"2147483648", INT_MIN, 0},
      {"-2147483648", INT_MIN, 0},
      {"4294967296", 0, 0},
      {"4294967301", 5, 0},
      {"-4294967301", -5, 0},
      {"99999999999999999999", 1661992959, 0},
      {"0x1f", 31, 0},
      {"0X1F", 31, 0},
      {"0X1f", 31, 0},
      {"0xabcdef", 0xABCDEF, 0},
      {"0xABCDEF", 0xABCDEF, 0},
      {"0xffffffff", -1, 0},
      {"0x1ffffffff", -1, 0},
      {"0x", 0, 1},
      {"0xg", 0, 1},
      {"0x1g", 0, 1},
      {"0x1 ", 0, 1},
      {"-0x10", 0, 1},
      {"1x1", 0, 1},
      {"00x1", 0, 1},
      {string("5\0", 2), 0, 1},
      {string("\0", 1), 0, 1},
      {"\xB2", 0, 1},
  };
  for (const StoiCase& c : cases) {
    SCOPED_TRACE(c.text);
    int error = -1;
    EXPECT_EQ(App::stoi(c.text.data(), static_cast<int>(c.text.size()), &error), c.value);
    EXPECT_EQ(error, c.error);
  }
}

TEST(Stoi, MeasuresTheTextAndTakesNoErrorPointer) {
  EXPECT_EQ(App::stoi("42", -1, nullptr), 42);
  EXPECT_EQ(App::stoi("x", -1, nullptr), 0);
  int error = -1;
  EXPECT_EQ(App::stoi(nullptr, -1, &error), 0);
  EXPECT_EQ(error, 1);
  EXPECT_EQ(App::stoi("42", 1, &error), 4);
}

TEST(Stoi, ReadsBackWhatItosWrites) {
  std::mt19937 random(5);
  for (int i = 0; i < Rounds(100000); i++) {
    const int value = static_cast<int>(random());
    int length;
    const std::unique_ptr<char[]> text(App::itos(value, &length, nullptr));
    int error = -1;
    ASSERT_EQ(App::stoi(text.get(), length, &error), value);
    ASSERT_EQ(error, 0);
  }
}

// --- stod ----------------------------------------------------------------------------------------

struct StodCase {
  string text;
  double value;
  int error;
};

void ExpectStod(const StodCase& c, int length, int size, const char* text) {
  int error = -1;
  const double value = App::stod(text, length, size, &error);
  EXPECT_EQ(error, c.error);
  if (std::isnan(c.value)) {
    EXPECT_TRUE(std::isnan(value));
    EXPECT_EQ(std::signbit(value), std::signbit(c.value));
  } else {
    EXPECT_EQ(Bits(value), Bits(c.value)) << value;
  }
}

// What is told to be no number without a look at all of it is none for strtod either.
TEST(Stod, TextsOfAFewBytesAreReadAsStrtodReadsThem) {
  const string bytes = "0.+- eExiInNaAfF9:*\t";
  for (const char a : bytes) {
    for (const char b : bytes) {
      for (const char c : bytes) {
        const string all = {a, b, c};
        for (size_t length = 1; length <= 3; length++) {
          const string text = all.substr(0, length);
          char* end;
          const double expected = strtod(text.c_str(), &end);
          const bool is_number = end == text.c_str() + length;
          int error = -1;
          const double value =
              App::stod(text.data(), static_cast<int>(length), static_cast<int>(length), &error);
          ASSERT_EQ(error, is_number ? 0 : 1) << "'" << text << "'";
          if (is_number && !std::isnan(expected)) {
            ASSERT_EQ(Bits(value), Bits(expected)) << text;
          }
          if (is_number) {
            ASSERT_TRUE(App::MayBeNumber(text.data(), static_cast<int>(length))) << text;
          }
        }
      }
    }
  }
  EXPECT_FALSE(App::MayBeNumber("+", 1));
  EXPECT_FALSE(App::MayBeNumber(".x", 2));
  EXPECT_FALSE(App::MayBeNumber("-a", 2));
  EXPECT_TRUE(App::MayBeNumber("-.5", 3));
}

TEST(Stod, TableOfTexts) {
  const StodCase cases[] = {
      {"", 0.0, 0},
      {"0", 0.0, 0},
      {"-0", -0.0, 0},
      {"1", 1.0, 0},
      {"+1", 1.0, 0},
      {"-1", -1.0, 0},
      {"1.5", 1.5, 0},
      {"1.", 1.0, 0},
      {".5", 0.5, 0},
      {"-.5", -0.5, 0},
      {".", 0.0, 1},
      {"-", 0.0, 1},
      {"-.", 0.0, 1},
      {"1e3", 1000.0, 0},
      {"1E+3", 1000.0, 0},
      {"1e-3", 0.001, 0},
      {"1e", 0.0, 1},
      {"1e+", 0.0, 1},
      {"12abc", 0.0, 1},
      {"abc", 0.0, 1},
      {" 12", 12.0, 0},
      {"\t\n\v\f\r 12", 12.0, 0},
      {"12 ", 0.0, 1},
      {" ", 0.0, 1},
      {"1 2", 0.0, 1},
      {"1,5", 0.0, 1},
      {"0x1F", 31.0, 0},
      {"0X1f", 31.0, 0},
      {"-0x10", -16.0, 0},
      {"0x1.8p1", 3.0, 0},
      {"0x", 0.0, 1},
      {"0xg", 0.0, 1},
      {"0x1g", 0.0, 1},
      {"1e999", Infinity, 1},
      {"-1e999", -Infinity, 1},
      {"1e308", 1e308, 0},
      {"1.8e308", Infinity, 1},
      {"1e-400", 0.0, 0},
      {"-1e-400", -0.0, 0},
      {"5e-324", 5e-324, 0},
      {"2e-324", 0.0, 0},
      {"2.2250738585072011e-308", 2.2250738585072011e-308, 0},
      {"inf", Infinity, 0},
      {"INF", Infinity, 0},
      {"-inf", -Infinity, 0},
      {"+inf", Infinity, 0},
      {"Infinity", Infinity, 0},
      {"-INFINITY", -Infinity, 0},
      {"infinit", 0.0, 1},
      {"nan", NaN, 0},
      {"NaN", NaN, 0},
      {"-nan", -NaN, 0},
      {"nan(123)", NaN, 0},
      {"nanx", 0.0, 1},
      {"9007199254740993", 9007199254740992.0, 0},
      {"179769313486231570814527423731704356798070e267", 1.7976931348623157e308, 0},
      {string("1\0", 2), 0.0, 1},
      {string("1\0002", 3), 0.0, 1},
      {string("\0", 1), 0.0, 1},
      {string(200, '1') + "e-199", 1.1111111111111112, 0},
      {string(300, ' ') + "7", 7.0, 0},
      {string(105, ' ') + "7", 7.0, 0},
      {string(104, ' ') + "7", 7.0, 0},
      {string(5000, '9') + "e-5000", 1.0, 0},
  };
  for (const StodCase& c : cases) {
    SCOPED_TRACE(c.text);
    const int length = static_cast<int>(c.text.size());
    // With a terminator after the text, and in a buffer that ends with the text.
    ExpectStod(c, length, length + 1, c.text.c_str());
    const std::unique_ptr<char[]> exact(new char[c.text.size() + 1]);
    memcpy(exact.get(), c.text.data(), c.text.size());
    exact[c.text.size()] = '5';
    ExpectStod(c, length, length, exact.get());
    ExpectStod(c, length, length + 1, exact.get());
    if (c.text.find('\0') == string::npos) ExpectStod(c, -1, 0, c.text.c_str());
  }
}

TEST(Stod, NullTextIsEmptyAndTheErrorPointerMayBeNull) {
  int error = -1;
  EXPECT_EQ(App::stod(nullptr, 0, 0, &error), 0.0);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(App::stod(nullptr, -1, 0, nullptr), 0.0);
  EXPECT_EQ(App::stod("x", 1, 2, nullptr), 0.0);
}

TEST(Stod, EqualsStrtodOnRandomTexts) {
  constexpr unsigned seed = 20250;
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const string alphabet = "00112233445566778899..eE+-- xXaAfFnNiItTyY(p)";
  int numbers = 0;
  for (int i = 0; i < Rounds(2000000); i++) {
    string text;
    const size_t length = random() % 10 + 1;
    while (text.size() < length) text += alphabet[random() % alphabet.size()];
    char* end;
    const double expected = strtod(text.c_str(), &end);
    const bool whole = end == text.c_str() + text.size();
    int error = -1;
    const double value = App::stod(text.data(), static_cast<int>(length), 0, &error);
    if (whole && std::isnan(expected)) {
      ASSERT_TRUE(std::isnan(value)) << text;
    } else {
      ASSERT_EQ(Bits(value), Bits(whole ? expected : 0.0)) << text;
    }
    if (!whole) {
      ASSERT_EQ(error, 1) << text;
    }
    numbers += whole;
  }
  EXPECT_GT(numbers, Rounds(100000));
}

TEST(Stod, EqualsStrtodOnRandomNumbers) {
  std::mt19937_64 random(31);
  for (int i = 0; i < Rounds(200000); i++) {
    const double value = FromBits(random());
    char text[64];
    const int digits = static_cast<int>(random() % 20) + 1;
    const int length = snprintf(text, sizeof text, "%.*e", digits, value);
    if (!std::isfinite(value)) continue;
    ASSERT_EQ(Bits(App::stod(text, length, 0, nullptr)), Bits(strtod(text, nullptr))) << text;
  }
}

TEST(Stod, DoesNotDependOnTheProcessLocale) {
  const string before = setlocale(LC_ALL, nullptr);
  for (const char* name : {"de_DE.UTF-8", "de_DE.utf8", "fr_FR.UTF-8"}) {
    if (setlocale(LC_ALL, name)) break;
  }
  EXPECT_EQ(App::stod(" 1.5", 4, 5, nullptr), 1.5);
  EXPECT_EQ(App::stod("1.5", 3, 4, nullptr), 1.5);
  EXPECT_EQ(Dtos(1.5, -1).text, "1.5");
  setlocale(LC_ALL, before.c_str());
}

// --- EncodeAttribute, DecodeAttribute ------------------------------------------------------------

TEST(EncodeAttribute, TableOfTexts) {
  const std::pair<string, string> cases[] = {
      {"", ""},
      {"a b&c", "a+b%26c"},
      {"*-._@", "*-._@"},
      {"AZaz09", "AZaz09"},
      {"+", "%2B"},
      {"%", "%25"},
      {"~", "%7E"},
      {"/?=", "%2F%3F%3D"},
      {string("\0\x1F\x7F\x80\xFF", 5), "%00%1F%7F%80%FF"},
  };
  for (const auto& [input, expected] : cases) {
    SCOPED_TRACE(expected);
    EXPECT_EQ(Encode(App::EncodeAttribute, input).text, expected);
  }
}

TEST(EncodeAttribute, EachByteHasTheFormOfTheTable) {
  const string plain = "*-.0123456789@ABCDEFGHIJKLMNOPQRSTUVWXYZ_abcdefghijklmnopqrstuvwxyz";
  for (int c = 0; c < 256; c++) {
    SCOPED_TRACE(c);
    const string input(1, static_cast<char>(c));
    char expected[8];
    snprintf(expected, sizeof expected, "%%%02X", static_cast<unsigned>(c));
    const bool stays = plain.find(static_cast<char>(c)) != string::npos;
    EXPECT_EQ(Encode(App::EncodeAttribute, input).text, stays ? input : c == ' ' ? "+" : expected);
  }
}

TEST(DecodeAttribute, TableOfTexts) {
  const std::pair<string, string> cases[] = {
      {"", ""},
      {"a+b%26c", "a b&c"},
      {"100%", "100%"},
      {"%4", "%4"},
      {"%41", "A"},
      {"%4a%4A", "JJ"},
      {"%zz", "%zz"},
      {"%4z", "%4z"},
      {"%%41", "%A"},
      {"%00", string("\0", 1)},
      {"%ff", "\xFF"},
      {"%2541", "%41"},
      {"%25%34%31", "%41"},
  };
  for (const auto& [input, expected] : cases) {
    SCOPED_TRACE(input);
    const Text text = Encode(App::DecodeAttribute, input);
    EXPECT_EQ(text.text, expected);
    EXPECT_EQ(text.size, static_cast<int>(input.size()) + 1);
  }
}

TEST(DecodeAttribute, ReadsBackWhatEncodeAttributeWrites) {
  std::mt19937 random(3);
  for (int i = 0; i < Rounds(10000); i++) {
    string text(random() % 50, 0);
    for (char& c : text) c = static_cast<char>(random());
    ASSERT_EQ(Encode(App::DecodeAttribute, Encode(App::EncodeAttribute, text).text).text, text);
  }
}

// --- EncodeEntities, DecodeEntities --------------------------------------------------------------

TEST(EncodeEntities, MapsSixBytesAndNoOther) {
  const std::pair<string, string> cases[] = {
      {"", ""},
      {"\"&()<>", "&quot;&amp;&#40;&#41;&lt;&gt;"},
      {"it's", "it's"},
      {"<a href=\"x\">", "&lt;a href=&quot;x&quot;&gt;"},
      {string("a\0b", 3), string("a\0b", 3)},
      {"\xC3\xA4", "\xC3\xA4"},
  };
  for (const auto& [input, expected] : cases) {
    SCOPED_TRACE(expected);
    EXPECT_EQ(Encode(App::EncodeEntities, input).text, expected);
  }
  int changed = 0;
  for (int c = 0; c < 256; c++) {
    const string input(1, static_cast<char>(c));
    changed += Encode(App::EncodeEntities, input).text != input;
  }
  EXPECT_EQ(changed, 6);
}

// Short texts and long ones, and parts of 16 bytes with and without entities, take different ways.
TEST(EncodeEntities, RandomTextsOfEveryLength) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937 random(seed);
  const std::map<char, string> entities = {{'"', "&quot;"}, {'&', "&amp;"}, {'(', "&#40;"},
                                           {')', "&#41;"},  {'<', "&lt;"},  {'>', "&gt;"}};
  const string special = "\"&()<>";
  for (size_t length = 0; length < 300; length++) {
    for (const unsigned seldom : {1u, 4u, 40u, 1000u}) {
      string input, expected;
      for (size_t i = 0; i < length; i++) {
        input += random() % seldom == 0 ? special[random() % 6] : static_cast<char>(random() % 256);
        const auto entity = entities.find(input.back());
        expected += entity == entities.end() ? string(1, input.back()) : entity->second;
      }
      ASSERT_EQ(Encode(App::EncodeEntities, input).text, expected) << length;
    }
  }
}

TEST(DecodeEntities, TableOfTexts) {
  const std::pair<string, string> cases[] = {
      {"", ""},
      {"&LT;", "<"},
      {"&lt;&gt;&amp;&quot;&#40;&#41;", "<>&\"()"},
      {"&QuOt;&AmP;&gT;", "\"&>"},
      {"&lt", "<"},
      {"a&amp", "a&"},
      {"&quot", "\""},
      {"&lt x", "&lt x"},
      {"&lt x;", "&lt x;"},
      {"&lt\tgt;", "&lt\tgt;"},
      {"&#39;", "&#39;"},
      {"&#42;", "&#42;"},
      {"&;", "&;"},
      {"&", "&"},
      {"&&lt;", "&&lt;"},
      {"&x&amp;", "&x&amp;"},
      {"&x &amp;", "&x &"},
      {"&nbsp;&lt;", "&nbsp;<"},
      {"&amp;lt;", "&lt;"},
      {"&lt;;", "<;"},
      {string("&l\0t;", 5), string("&l\0t;", 5)},
      {"a;b", "a;b"},
  };
  for (const auto& [input, expected] : cases) {
    SCOPED_TRACE(input);
    const Text text = Encode(App::DecodeEntities, input);
    EXPECT_EQ(text.text, expected);
    EXPECT_EQ(text.size, static_cast<int>(input.size()) + 1);
  }
}

TEST(DecodeEntities, ReadsBackWhatEncodeEntitiesWrites) {
  std::mt19937 random(4);
  const string alphabet = "\"&()<>ab; ";
  for (int i = 0; i < Rounds(20000); i++) {
    string text;
    const size_t length = random() % 12;
    while (text.size() < length) text += alphabet[random() % alphabet.size()];
    ASSERT_EQ(Encode(App::DecodeEntities, Encode(App::EncodeEntities, text).text).text, text);
  }
}

// --- StripNULLs ----------------------------------------------------------------------------------

TEST(StripNULLs, CopiesAllOtherBytes) {
  Text text = Encode(App::StripNULLs, string("\0a\0\0b\0", 6));
  EXPECT_EQ(text.text, "ab");
  EXPECT_EQ(text.size, 7);
  text = Encode(App::StripNULLs, "");
  EXPECT_EQ(text.text, "");
  EXPECT_EQ(text.size, 1);
}

TEST(Encoders, MeasureTheTextAndTakeNullAsEmpty) {
  for (Encoder encoder : {App::EncodeAttribute, App::DecodeAttribute, App::EncodeEntities,
                          App::DecodeEntities, App::StripNULLs}) {
    int length = -1;
    int size = -1;
    char* buffer = encoder("abc", -1, &length, &size);
    Text text = Take(buffer, length, size);
    EXPECT_EQ(text.text, "abc");
    EXPECT_EQ(text.size, 4);
    buffer = encoder(nullptr, -1, &length, &size);
    text = Take(buffer, length, size);
    EXPECT_EQ(text.text, "");
  }
}

// --- EncodeJavaScriptString ----------------------------------------------------------------------

Text EncodeScript(TestApplication& application, const string& input) {
  int length = -1;
  int size = -1;
  char* buffer = application.EncodeJavaScriptString(input.data(), static_cast<int>(input.size()),
                                                    &length, &size);
  return Take(buffer, length, size);
}

TEST(EncodeJavaScriptString, EscapesInEveryCharacterSet) {
  const std::pair<string, string> cases[] = {
      {"", ""},
      {"\t\n\f\r", "\\t\\n\\f\\r"},
      {"\a", "\\b"},
      {"\b", "\\u0008"},
      {"\v", "\\u000B"},
      {"\"/\\", "\\\"\\/\\\\"},
      {"'", "\\u0027"},
      {"<a>", "\\u003Ca\\u003E"},
      {" $+,-.09:@AZ_az", " $+,-.09:@AZ_az"},
      {"&=;", "\\u0026\\u003D\\u003B"},
      {string("\0", 1), "\\u0000"},
      {"\x7F", "\\u007F"},
  };
  TestApplication application;
  for (const char* charset : {"utf-8", "iso-8859-1"}) {
    application.SetCharacterSet(charset);
    for (const auto& [input, expected] : cases) {
      SCOPED_TRACE(expected);
      EXPECT_EQ(EncodeScript(application, input).text, expected);
    }
  }
}

TEST(EncodeJavaScriptString, OtherCharacterSetsKeepBytesFrom160On) {
  TestApplication application;
  application.SetCharacterSet("iso-8859-1");
  ASSERT_FALSE(application.CharacterSetIsUTF8());
  EXPECT_EQ(EncodeScript(application, "\x80\x9F").text, "\\u0080\\u009F");
  EXPECT_EQ(EncodeScript(application, "\xA0\xE4\xFF").text, "\xA0\xE4\xFF");
}

TEST(EncodeJavaScriptString, UTF8SequencesBecomeTheirCodePoint) {
  TestApplication application;
  application.SetCharacterSet("utf-8");
  ASSERT_TRUE(application.CharacterSetIsUTF8());
  const std::pair<string, string> cases[] = {
      {"\xC3\xA4", "\\u00E4"},
      {"\xC2\x80", "\\u0080"},
      {"\xDF\xBF", "\\u07FF"},
      {"\xE2\x82\xAC", "\\u20AC"},
      {"\xEF\xBF\xBD", "\\uFFFD"},
      {"\xE2\x82", "\\u00E2\\u0082"},  // cut off
      {"\xC3", "\\u00C3"},             // cut off
      {"\xC1\x81", "\\u00C1\\u0081"},  // below the two-byte leads
      {"\xF0\x9F\x98\x80", "\\u00F0\\u009F\\u0098\\u0080"},
      {"\xC3"
       "a",
       "\\u00E1"},  // the second byte is not examined
      {"\xE2"
       "ab",
       "\\u2862"},
      {"\xA0", "\\u00A0"},
      {"x\xC3\xA4y", "x\\u00E4y"},
  };
  for (const auto& [input, expected] : cases) {
    SCOPED_TRACE(expected);
    EXPECT_EQ(EncodeScript(application, input).text, expected);
  }
}

TEST(EncodeJavaScriptString, TheSizeHasTheSlackOfItsBlocks) {
  TestApplication application;
  EXPECT_EQ(EncodeScript(application, "").size, 1);
  EXPECT_EQ(EncodeScript(application, "abc").size, 515);
  EXPECT_EQ(EncodeScript(application, string(100, '<')).size, 612);
  EXPECT_EQ(EncodeScript(application, string(200, '<')).size, 1201);
  EXPECT_EQ(EncodeScript(application, string(512, '"')).size, 1025);
  EXPECT_EQ(EncodeScript(application, string(511, '"')).size, 1023);
}

// --- Plain models --------------------------------------------------------------------------------

// The conversions again, each in the plainest form, to compare with on random texts. They use
// neither tables nor number routines of the engine.

const char* const UpperDigits = "0123456789ABCDEF";

int PlainHexDigit(char c) {
  const char* found = c ? strchr("00112233445566778899aAbBcCdDeEfF", c) : nullptr;
  return found ? static_cast<int>(found - "00112233445566778899aAbBcCdDeEfF") / 2 : -1;
}

bool PlainLetterOrDigit(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool PlainSpace(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

string PlainHex(unsigned char c) {
  return {UpperDigits[c / 16], UpperDigits[c % 16]};
}

string PlainEncodeAttribute(const string& text) {
  string all;
  for (char c : text) {
    if (PlainLetterOrDigit(c) || c == '*' || c == '-' || c == '.' || c == '@' || c == '_') {
      all += c;
    } else if (c == ' ') {
      all += '+';
    } else {
      all += "%" + PlainHex(static_cast<unsigned char>(c));
    }
  }
  return all;
}

string PlainDecodeAttribute(const string& text) {
  string all;
  for (size_t i = 0; i < text.size(); i++) {
    if (text[i] == '+') {
      all += ' ';
    } else if (text[i] == '%' && i + 2 < text.size() && PlainHexDigit(text[i + 1]) >= 0 &&
               PlainHexDigit(text[i + 2]) >= 0) {
      all += static_cast<char>(PlainHexDigit(text[i + 1]) * 16 + PlainHexDigit(text[i + 2]));
      i += 2;
    } else {
      all += text[i];
    }
  }
  return all;
}

string PlainEncodeEntities(const string& text) {
  string all;
  for (char c : text) {
    if (c == '"') {
      all += "&quot;";
    } else if (c == '&') {
      all += "&amp;";
    } else if (c == '(') {
      all += "&#40;";
    } else if (c == ')') {
      all += "&#41;";
    } else if (c == '<') {
      all += "&lt;";
    } else if (c == '>') {
      all += "&gt;";
    } else {
      all += c;
    }
  }
  return all;
}

string PlainDecodeEntities(const string& text) {
  string all;
  size_t i = 0;
  while (i < text.size()) {
    if (text[i] != '&') {
      all += text[i++];
      continue;
    }
    size_t stop = i + 1;
    while (stop < text.size() && text[stop] != ';' && !PlainSpace(text[stop])) stop++;
    string name = text.substr(i + 1, stop - i - 1);
    const bool ends = stop == text.size() || text[stop] == ';';
    string lower = name;
    for (char& c : lower) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
    if (ends && lower == "quot") {
      all += '"';
    } else if (ends && lower == "amp") {
      all += '&';
    } else if (ends && name == "#40") {
      all += '(';
    } else if (ends && name == "#41") {
      all += ')';
    } else if (ends && lower == "lt") {
      all += '<';
    } else if (ends && lower == "gt") {
      all += '>';
    } else {
      all += text.substr(i, stop + 1 - i);
    }
    i = stop + 1;
  }
  return all;
}

string PlainStripNULLs(const string& text) {
  string all;
  for (char c : text) {
    if (c != '\0') all += c;
  }
  return all;
}

string PlainScript(const string& text, bool utf8) {
  string all;
  for (size_t i = 0; i < text.size(); i++) {
    const auto c = static_cast<unsigned char>(text[i]);
    const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
    const auto third = static_cast<unsigned char>(i + 2 < text.size() ? text[i + 2] : 0);
    if (c == 7) {
      all += "\\b";
    } else if (c == 9) {
      all += "\\t";
    } else if (c == 10) {
      all += "\\n";
    } else if (c == 12) {
      all += "\\f";
    } else if (c == 13) {
      all += "\\r";
    } else if (c == '"' || c == '/' || c == '\\') {
      all += string("\\") + static_cast<char>(c);
    } else if (PlainLetterOrDigit(static_cast<char>(c)) ||
               string(" $+,-.:@_").find(static_cast<char>(c)) != string::npos) {
      all += static_cast<char>(c);
    } else if (!utf8 && c >= 160) {
      all += static_cast<char>(c);
    } else if (utf8 && c >= 194 && c <= 223 && i + 1 < text.size()) {
      all += "\\u" + PlainHex(static_cast<unsigned char>(c / 4 % 8)) +
             PlainHex(static_cast<unsigned char>(next % 64 + c % 4 * 64));
      i += 1;
    } else if (utf8 && c >= 0xE0 && c <= 0xEF && i + 2 < text.size()) {
      all += "\\u" + PlainHex(static_cast<unsigned char>(next / 4 % 16 + c % 16 * 16)) +
             PlainHex(static_cast<unsigned char>(next % 4 * 64 + third % 64));
      i += 2;
    } else {
      all += "\\u00" + PlainHex(c);
    }
  }
  return all;
}

// A text of pieces that are special in one conversion or another.
string RandomText(std::mt19937* random, size_t length) {
  static const string pieces[] = {
      "%",    "%4",    "%41",  "%zz",  "+",    "&",    "&lt;", "&LT",
      "&#40", "&#41;", "quot", ";",    "amp;", "&gt ", "\xC3", "\xA4",
      "\xE2", "\x82",  "\xF0", "\xC2", "\x7F", "<a>",  "(\"'", "\\/",
      " ",    "\t",    "\n",   "\a\b", "é",    "Zz09", "=-_",  string(1, '\0')};
  string text;
  while (text.size() < length) text += pieces[(*random)() % std::size(pieces)];
  text.resize(length);
  return text;
}

// Short texts are encoded in another way than long ones.
TEST(EncodeEntities, TextsOfEveryLengthUpToTheLongOnes) {
  for (int length = 0; length < 300; length++) {
    SCOPED_TRACE(length);
    const auto count = static_cast<size_t>(length);
    string mixed(count, 'x');
    for (size_t i = 0; i < count; i += 3) mixed[i] = '>';
    for (const string& text : {string(count, '"'), string(count, 'x'), mixed}) {
      const Text encoded = Encode(App::EncodeEntities, text);
      ASSERT_EQ(encoded.text, PlainEncodeEntities(text));
      ASSERT_EQ(encoded.size, static_cast<int>(encoded.text.size()) + 1);
    }
  }
}

TEST(Encoders, EqualPlainModelsOnRandomTexts) {
  constexpr unsigned seed = 7001;
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  TestApplication utf8, other;
  utf8.SetCharacterSet("utf-8");
  other.SetCharacterSet("iso-8859-1");
  for (int i = 0; i < Rounds(20000); i++) {
    const string text = RandomText(&random, random() % 40);
    ASSERT_EQ(Encode(App::EncodeAttribute, text).text, PlainEncodeAttribute(text)) << text;
    ASSERT_EQ(Encode(App::DecodeAttribute, text).text, PlainDecodeAttribute(text)) << text;
    ASSERT_EQ(Encode(App::EncodeEntities, text).text, PlainEncodeEntities(text)) << text;
    ASSERT_EQ(Encode(App::DecodeEntities, text).text, PlainDecodeEntities(text)) << text;
    ASSERT_EQ(Encode(App::StripNULLs, text).text, PlainStripNULLs(text)) << text;
    ASSERT_EQ(EncodeScript(utf8, text).text, PlainScript(text, true)) << text;
    ASSERT_EQ(EncodeScript(other, text).text, PlainScript(text, false)) << text;
  }
}

// Long texts are converted in parts: an entity or escape may begin in one part and end in the next.
TEST(Encoders, EqualPlainModelsWhereTheirPartsMeet) {
  constexpr unsigned seed = 7002;
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  TestApplication utf8;
  utf8.SetCharacterSet("utf-8");
  for (size_t after = 0; after < 30; after++) {
    SCOPED_TRACE(after);
    // This byte is unchanged in all of them.
    const string filler(static_cast<size_t>(RunLimit::Bytes) - after, 'x');
    const string end = RandomText(&random, 60);
    const string text = filler + end;
    const auto expect = [&filler](const Text& result, const string& plain) {
      ASSERT_EQ(result.text.size(), filler.size() + plain.size());
      ASSERT_EQ(result.text.substr(filler.size()), plain);
    };
    expect(Encode(App::EncodeAttribute, text), PlainEncodeAttribute(end));
    expect(Encode(App::DecodeAttribute, text), PlainDecodeAttribute(end));
    expect(Encode(App::EncodeEntities, text), PlainEncodeEntities(end));
    expect(Encode(App::DecodeEntities, text), PlainDecodeEntities(end));
    expect(Encode(App::StripNULLs, text), PlainStripNULLs(end));
    expect(EncodeScript(utf8, text), PlainScript(end, true));
  }
}

// Adds the digits from the last to the first, each times a power of the base, in wrapping
// arithmetic.
int PlainStoi(const string& text, int* error) {
  *error = 0;
  uint32_t factor = 1;
  uint32_t base = 10;
  size_t start = 0;
  if (!text.empty() && text[0] == '-') {
    factor = 0xFFFFFFFF;
    start = 1;
  } else if (text.empty() || text[0] < '0' || text[0] > '9') {
    *error = 1;
    return 0;
  } else if (text.size() >= 3 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X') &&
             PlainHexDigit(text[2]) >= 0) {
    base = 16;
    start = 2;
  }
  uint32_t result = 0;
  for (size_t i = text.size(); i-- > start;) {
    const int digit = PlainHexDigit(text[i]);
    if (digit < 0 || digit >= static_cast<int>(base)) {
      *error = 1;
      return 0;
    }
    result += static_cast<uint32_t>(digit) * factor;
    factor *= base;
  }
  return static_cast<int>(result);
}

TEST(Stoi, EqualsAPlainModelOnRandomTexts) {
  constexpr unsigned seed = 7003;
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const string digits = "0123456789";
  const string others = "0019-xXaAfFgG. +";
  int numbers = 0;
  for (int i = 0; i < Rounds(500000); i++) {
    string text = random() % 3 == 0 ? "-" : random() % 3 == 0 ? "0x" : "";
    const bool plain = random() % 2;
    for (size_t more = random() % 14; more > 0; more--) {
      const string& from = plain ? digits : others;
      text += from[random() % from.size()];
    }
    int error = -1, expected_error = -1;
    const int expected = PlainStoi(text, &expected_error);
    ASSERT_EQ(App::stoi(text.data(), static_cast<int>(text.size()), &error), expected) << text;
    ASSERT_EQ(error, expected_error) << text;
    numbers += !error;
  }
  EXPECT_GT(numbers, Rounds(100000));
}

// The shortest digits that read back as the value, if they have at least as many decimals as
// requested; otherwise the value itself, which the C library rounds to that many.
string PlainDtos(double value, int precision) {
  const string shortest = ShortestPlain(value);
  const size_t point = shortest.find('.');
  const size_t decimals = point == string::npos ? 0 : shortest.size() - point - 1;
  const auto wanted = static_cast<size_t>(precision);
  if (!shortest.empty() && decimals <= wanted) {
    string padded = shortest;
    if (point == string::npos && wanted > 0) padded += '.';
    return padded + string(wanted - decimals, '0');
  }
  char text[512];
  snprintf(text, sizeof text, "%.*f", precision, value);
  return text;
}

TEST(Dtos, EqualsAPlainModelAtEveryPrecision) {
  constexpr unsigned seed = 7004;
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  for (int i = 0; i < Rounds(300000); i++) {
    double value;
    switch (i % 4) {
      case 0:
        value = static_cast<double>(static_cast<int>(random() % 2000001) - 1000000) / 1000;
        break;
      case 1:
        value = std::ldexp(static_cast<double>(random() % 4096), -static_cast<int>(random() % 12));
        break;
      case 2:
        value = std::ldexp(static_cast<double>(random() >> 11), -static_cast<int>(random() % 120));
        break;
      default:
        value = -std::ldexp(static_cast<double>(random() >> 11),
                            static_cast<int>(random() % 200) - 100);
        break;
    }
    const int precision = static_cast<int>(random() % 21);
    ASSERT_EQ(Dtos(value, precision).text, PlainDtos(value, precision))
        << Bits(value) << " with " << precision;
  }
}

}  // namespace
