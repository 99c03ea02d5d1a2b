#include "base/core/dtoa.h"

#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "base/core/bigint.h"
#include "gtest/gtest.h"
#include "tests/support/Rounds.h"

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kLeast = std::numeric_limits<double>::denorm_min();
constexpr double kGreatest = std::numeric_limits<double>::max();

struct Result {
  std::string digits;
  int point;
  int sign;

  bool operator==(const Result&) const = default;
};

void PrintTo(const Result& result, std::ostream* out) {
  *out << '"' << result.digits << "\" point " << result.point << " sign " << result.sign;
}

Result Convert(int mode, int digits, double value, int size = 2048) {
  std::vector<char> buffer(size, 'x');
  Result result;
  int count = dtoa(buffer.data(), size, mode, digits, &result.point, &result.sign, value);
  EXPECT_EQ(buffer[count], 0);
  result.digits.assign(buffer.data(), count);
  return result;
}

// A double with a random bit pattern, finite; or one with few digits, as people write them.
class Doubles {
 public:
  double Any() {
    for (;;) {
      double value = std::bit_cast<double>(random());
      if (std::isfinite(value) && value != 0) return value;
    }
  }
  double Everyday() {
    auto units = static_cast<double>(random() % 10000000);
    return (units + 1) / _tens[random() % 8];
  }
  // A decimal that ends in a 5, where rounding is in doubt.
  double Half() {
    auto units = static_cast<double>(random() % 100000 * 10 + 5);
    return units / _tens[random() % 12];
  }
  double Next() {
    switch (random() % 3) {
      case 0: return Any();
      case 1: return Everyday();
      default: return Half();
    }
  }
  int Between(int low, int high) { return low + static_cast<int>(random() % (high - low + 1)); }

 private:
  std::mt19937_64 random{20261121};
};

std::string Show(double value) {
  char text[64];
  snprintf(text, sizeof text, "%a", value);
  return text;
}

// The digits and the point of a decimal text.
Result FromDecimal(const std::string& text) {
  Result result = {"", 0, 0};
  size_t point = text.find('.');
  std::string all = text;
  if (point != std::string::npos) all.erase(point, 1);
  result.point = static_cast<int>(point == std::string::npos ? text.size() : point);
  size_t zeros = std::min(all.find_first_not_of('0'), all.size());
  result.digits = all.substr(zeros);
  result.point -= static_cast<int>(zeros);
  while (!result.digits.empty() && result.digits.back() == '0') result.digits.pop_back();
  return result;
}

double ReadBack(const Result& result) {
  std::string text = "0." + result.digits + "e" + std::to_string(result.point);
  return strtod(text.c_str(), nullptr);
}

Result Shortest(double value) {
  char text[64];
  char* end = std::to_chars(text, text + sizeof text, value, std::chars_format::scientific).ptr;
  std::string all(text, end);
  size_t mark = all.find('e');
  Result result = FromDecimal(all.substr(0, mark));
  result.point += atoi(all.c_str() + mark + 1);
  return result;
}

struct Case {
  const char* label;
  int mode;
  int digits;
  double value;
  Result expected;
};

TEST(Dtoa, KnownResults) {
  const Case cases[] = {
      {"zero", 5, 20, 0.0, {"0", 1, 0}},
      {"negative zero", 5, 20, -0.0, {"0", 1, 1}},
      {"infinity", 5, 20, kInfinity, {"Infinity", 9999, 0}},
      {"negative infinity", 5, 20, -kInfinity, {"Infinity", 9999, 1}},
      {"not a number", 5, 20, kNaN, {"NaN", 9999, 0}},
      {"negative not a number", 5, 20, -kNaN, {"NaN", 9999, 1}},
      {"a tenth is one digit, not the twenty of the stored value", 5, 20, 0.1, {"1", 0, 0}},
      {"the stored value of a tenth", 3, 20, 0.1, {"10000000000000000555", 0, 0}},
      {"a third", 5, 20, 1.0 / 3, {"3333333333333333", 0, 0}},
      {"a zero after the point", 5, 20, 0.05, {"5", -1, 0}},
      {"negative", 5, 20, -3.5, {"35", 1, 1}},
      {"trailing zeros of an integer", 5, 20, 1200.0, {"12", 4, 0}},
      {"fifteen digits", 5, 20, 123456789012345.0, {"123456789012345", 15, 0}},
      {"sixteen digits", 5, 20, 9007199254740991.0, {"9007199254740991", 16, 0}},
      {"beyond the exact integers", 5, 20, 1e23, {"1", 24, 0}},
      {"mode 1 leaves a bound that reads back by half to even",
       1,
       0,
       1e23,
       {"9999999999999999", 23, 0}},
      {"the least double", 0, 0, kLeast, {"5", -323, 0}},
      {"the greatest double", 0, 0, kGreatest, {"17976931348623157", 309, 0}},
      {"a power of two, whose lower neighbour is nearer",
       0,
       0,
       0x1p-44,
       {"5684341886080802", -13, 0}},
      {"the same rounded to as many digits", 2, 16, 0x1p-44, {"5684341886080801", -13, 0}},
      {"the same in mode 4, where the shortest digits win",
       4,
       16,
       0x1p-44,
       {"5684341886080802", -13, 0}},
      {"the least normal double", 0, 0, 0x1p-1022, {"22250738585072014", -307, 0}},
      {"2.345 is above the half", 5, 2, 2.345, {"235", 1, 0}},
      {"2.675 is below the half", 5, 2, 2.675, {"267", 1, 0}},
      {"a tie goes to the even digit below", 5, 1, 0.25, {"2", 0, 0}},
      {"a tie goes to the even digit above", 5, 1, 0.75, {"8", 0, 0}},
      {"a carry through nines", 5, 1, 9.96, {"1", 2, 0}},
      {"cut to zeros", 5, 2, 1.0001, {"1", 1, 0}},
      {"half a unit of the last place is nothing", 5, 0, 0.5, {"", 0, 0}},
      {"more than half a unit is one", 5, 0, 0.51, {"1", 1, 0}},
      {"one and a half is two", 5, 0, 1.5, {"2", 1, 0}},
      {"nothing left at two places", 5, 2, 0.001, {"", -2, 0}},
      {"one hundredth left at two places", 5, 2, 0.006, {"1", -1, 0}},
      {"places in front of the point", 5, -2, 1250.0, {"12", 4, 0}},
      {"places in front of the point, up", 5, -2, 1350.0, {"14", 4, 0}},
      {"a tie at the first digit leaves nothing", 5, -3, 500.0, {"", 3, 0}},
      {"above a tie at the first digit", 5, -3, 501.0, {"1", 4, 0}},
      {"beyond the first digit", 5, -5, 501.0, {"", 5, 0}},
      {"two significant digits", 2, 2, 12500.0, {"12", 5, 0}},
      {"mode 2 gives at least one digit", 2, 0, 1.75, {"2", 1, 0}},
      {"an unknown mode is 0", 17, 2, 1.75, {"175", 1, 0}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    EXPECT_EQ(Convert(c.mode, c.digits, c.value), c.expected);
  }
}

TEST(Dtoa, ShortestDigitsReadBackAsTheSameDouble) {
  Doubles doubles;
  for (int i = 0; i < Rounds(1000000); ++i) {
    double value = std::fabs(doubles.Any());
    Result result = Convert(0, 0, value, 32);
    ASSERT_EQ(ReadBack(result), value) << Show(value);
    ASSERT_EQ(result, Shortest(value)) << Show(value);
  }
}

TEST(Dtoa, ShortestDigitsByBigIntegersAreThoseOfTheStandardLibrary) {
  Doubles doubles;
  for (int i = 0; i < Rounds(200000); ++i) {
    double value = std::fabs(doubles.Next());
    ASSERT_EQ(Convert(9, 2000, value), Shortest(value)) << Show(value);
  }
}

TEST(Dtoa, PowersOfTwoAndTheirNeighboursAreShortest) {
  for (int exponent = -1074; exponent <= 1023; ++exponent) {
    double power = std::ldexp(1.0, exponent);
    for (double value : {std::nextafter(power, 0.0), power, std::nextafter(power, kInfinity)}) {
      if (value == 0) continue;
      ASSERT_EQ(Convert(0, 0, value), Shortest(value)) << Show(value);
      ASSERT_EQ(Convert(9, 2000, value), Shortest(value)) << Show(value);
    }
  }
}

TEST(Dtoa, FastAndExactWayAgree) {
  Doubles doubles;
  for (int i = 0; i < Rounds(1000000); ++i) {
    double value = doubles.Next();
    int mode = doubles.Between(2, 5);
    int exponent = std::ilogb(value) * 3 / 10;
    // Most requests cut within the digits that the value has.
    int digits = mode & 1 ? doubles.Between(-3, 21) - exponent : doubles.Between(0, 20);
    if (doubles.Between(0, 3) == 0) digits = doubles.Between(-5, 20);
    ASSERT_EQ(Convert(mode, digits, value), Convert(mode + 4, digits, value))
        << Show(value) << " mode " << mode << " digits " << digits;
  }
}

TEST(Dtoa, PlacesAreRoundedAsThePrinterRounds) {
  Doubles doubles;
  for (int i = 0; i < Rounds(300000); ++i) {
    double value = std::fabs(doubles.Next());
    int digits = doubles.Between(0, 30);
    char text[512];
    snprintf(text, sizeof text, "%.*f", digits, value);
    Result expected = FromDecimal(text);
    if (expected.digits.empty()) expected.point = -digits;
    ASSERT_EQ(Convert(3, digits, value), expected) << Show(value) << " digits " << digits;
  }
}

TEST(Dtoa, SignificantDigitsAreRoundedAsThePrinterRounds) {
  Doubles doubles;
  for (int i = 0; i < Rounds(200000); ++i) {
    double value = std::fabs(doubles.Next());
    int digits = doubles.Between(1, 30);
    char text[64];
    snprintf(text, sizeof text, "%.*e", digits - 1, value);
    std::string all = text;
    size_t mark = all.find('e');
    Result expected = FromDecimal(all.substr(0, mark));
    expected.point += atoi(all.c_str() + mark + 1);
    ASSERT_EQ(Convert(2, digits, value), expected) << Show(value) << " digits " << digits;
  }
}

// Mode 5 is mode 3, except if the shortest digits do not go further.
TEST(Dtoa, ModeFiveIsTheRoundedValueOrTheShorterText) {
  Doubles doubles;
  for (int i = 0; i < Rounds(200000); ++i) {
    double value = std::fabs(doubles.Next());
    int digits = doubles.Between(0, 25);
    Result shortest = Shortest(value);
    int places = static_cast<int>(shortest.digits.size()) - shortest.point;
    Result expected = places <= digits ? shortest : Convert(7, digits, value);
    ASSERT_EQ(Convert(5, digits, value), expected) << Show(value) << " digits " << digits;
  }
}

TEST(Dtoa, AllStoredDigitsOfTheLeastDouble) {
  Result result = Convert(3, 1100, kLeast);
  EXPECT_EQ(result.digits.size(), 751u);
  EXPECT_EQ(result.digits.substr(0, 12), "494065645841");
  EXPECT_EQ(result.digits.substr(745), "265625");
  EXPECT_EQ(result.point, -323);
}

TEST(Dtoa, SmallBufferRoundsToWhatItHolds) {
  EXPECT_EQ(Convert(0, 0, 2.0 / 3, 6), (Result{"66667", 0, 0}));
  EXPECT_EQ(Convert(3, 100, 0.1, 9), (Result{"1", 0, 0}));
  EXPECT_EQ(Convert(0, 0, kInfinity, 4), (Result{"Inf", 9999, 0}));
  EXPECT_EQ(Convert(0, 0, 1.5, 1), (Result{"", 1, 0}));
}

TEST(Dtoa, ExtremePrecisionsAreSafe) {
  EXPECT_EQ(Convert(5, INT32_MAX, 1e-300), (Result{"1", -299, 0}));
  EXPECT_EQ(Convert(5, INT32_MIN, 1e300).digits, "");
  EXPECT_EQ(Convert(3, INT32_MAX, 0.1).digits.size(), 55u);
}

TEST(Dtoa, BigIntegersAreAllFreed) {
  int before = LiveBigints();
  Doubles doubles;
  for (int i = 0; i < 1000; ++i) Convert(9, doubles.Between(-5, 30), doubles.Next());
  EXPECT_EQ(LiveBigints(), before);
}

}  // namespace
