// Arithmetic, bits, rounding and the password hash: base/compiled/Instructions.def, second group.

#include <crypt.h>
#include <gtest/gtest.h>

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "base/core/dtoa.h"
#include "tests/support/Machine.h"
#include "tests/support/Rounds.h"

namespace {

TEST(InstructionsArithmetic, SumsDifferencesAndProductsAreDoubles) {
  ExpectStacks({
      {"pushi 2\npushi 3\nadd", "d5"},
      {"pushi 2\npushi 3\nsub", "d-1"},
      {"pushi 2\npushi 3\nmul", "d6"},
      {"pushf 0.5\npushi 1\nadd", "d1.5"},
      {"pushf 0.1\npushf 0.2\nadd", "d0.30000000000000004"},
      {"pushi 2147483647\npushi 1\nadd", "d2147483648"},
      {"pushi -2147483648\npushi 1\nsub", "d-2147483649"},
      {"pushi 65536\npushi 65536\nmul", "d4294967296"},
      {"pushf 1e308\npushi 10\nmul", "dInfinity"},
      {"pushf -0.5\npushi 0\nmul", "d-0"},
  });
}

TEST(InstructionsArithmetic, OperandsOfEveryKindAreReadAsNumbers) {
  ExpectStacks({
      {"pushc \"12\"\npushc \"0.5\"\nadd", "d12.5"},
      {"pushc \"0x10\"\npushi 1\nadd", "d17"},
      {"pushc \"abc\"\npushi 1\nadd", "d1"},
      {"pushc \"\"\npushi 1\nadd", "d1"},
      {"pushc \"12abc\"\npushi 1\nadd", "d1"},
      {"pushc \"inf\"\npushi 1\nadd", "dInfinity"},
      // A chained text, a variable that holds text, one without a value, an array.
      {"pushi 1\npushi 2\ncat\npushi 1\nadd", "d13"},
      {"pushc \"7\"\npopg x\npushg x\npushg x\nmul", "d49"},
      {"pushg x\npushi 3\nsub", "d-3"},
      {"pushi 5\npushg x\npushi 1\nelem\nstore\npushg x\npushi 3\nadd", "d3"},
      {"pushs unknown\npushi 3\nadd", "d3"},
  });
}

TEST(InstructionsArithmetic, DivisionTestsTheDividend) {
  ExpectStacks({
      {"pushi 7\npushi 2\ndiv", "d3.5"},
      {"pushi 0\npushi 0\ndiv", "d0"},
      {"pushi 1\npushi 0\ndiv", "dInfinity"},
      {"pushi 5\npushi 0\ndiv", "dInfinity"},
      {"pushi -5\npushi 0\ndiv", "d-Infinity"},
      {"pushi 0\npushi -5\ndiv", "d0"},
      {"pushf -0.0\npushi 5\ndiv", "d0"},
      {"pushi 0\npushf nan\ndiv", "d0"},
      {"pushf 1\npushf -inf\ndiv", "d-0"},
      {"pushc \"abc\"\npushi 0\ndiv", "d0"},
  });
}

TEST(InstructionsArithmetic, RemainderHasTheSignOfTheDividend) {
  ExpectStacks({
      {"pushi 7\npushi 3\nmod", "1"},
      {"pushi -7\npushi 3\nmod", "-1"},
      {"pushi 7\npushi -3\nmod", "1"},
      {"pushi -7\npushi -3\nmod", "-1"},
      {"pushi 7\npushi 0\nmod", "0"},
      {"pushi 0\npushi 7\nmod", "0"},
      {"pushf 7.9\npushf 2.9\nmod", "1"},
      {"pushc \"17\"\npushc \"5\"\nmod", "2"},
      {"pushi 7\npushc \"abc\"\nmod", "0"},
      // The quotient does not fit in an integer.
      {"pushi -2147483648\npushi -1\nmod", "0"},
      {"pushi 5\npushi -1\nmod", "0"},
      // A double that does not fit is the least integer.
      {"pushf 3e9\npushi 1000\nmod", "-648"},
  });
}

TEST(InstructionsArithmetic, PowersFollowTheStandard) {
  ExpectStacks({
      {"pushi 2\npushi 10\npow", "d1024"},
      {"pushi 2\npushi -1\npow", "d0.5"},
      {"pushi 0\npushi 0\npow", "d1"},
      {"pushi 0\npushi -1\npow", "dInfinity"},
      {"pushf 2.25\npushf 0.5\npow", "d1.5"},
      {"pushi -2\npushi 3\npow", "d-8"},
      {"pushi 10\npushi 400\npow", "dInfinity"},
  });
  Machine machine;
  machine.Assemble("pushi -8\npushf 0.5\npow");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_TRUE(std::isnan(machine.stack().PopD()));
}

TEST(InstructionsArithmetic, BitsAreThoseOfIntegers) {
  ExpectStacks({
      {"pushi 12\npushi 10\nbitand", "8"},
      {"pushi 12\npushi 10\nbitor", "14"},
      {"pushi 12\npushi 10\nbitxor", "6"},
      {"pushi -1\npushi 255\nbitand", "255"},
      {"pushi -256\npushi 255\nbitor", "-1"},
      {"pushi -1\npushi -1\nbitxor", "0"},
      {"pushi 0\nbitoc", "-1"},
      {"pushi 5\nbitoc", "-6"},
      {"pushi 2147483647\nbitoc", "-2147483648"},
      {"pushc \"12\"\npushf 10.9\nbitand", "8"},
      {"pushc \"0xff\"\npushi 15\nbitand", "15"},
      {"pushf 3e9\nbitoc", "2147483647"},
  });
}

TEST(InstructionsArithmetic, ShiftsCountModulo32) {
  ExpectStacks({
      {"pushi 1\npushi 4\nbitsl", "16"},
      {"pushi 1\npushi 33\nbitsl", "2"},
      {"pushi 1\npushi 32\nbitsl", "1"},
      {"pushi 1\npushi 31\nbitsl", "-2147483648"},
      {"pushi 1\npushi -1\nbitsl", "-2147483648"},
      {"pushi -1\npushi 4\nbitsl", "-16"},
      {"pushi -8\npushi 1\nbitsr", "-4"},
      {"pushi -1\npushi 31\nbitsr", "-1"},
      {"pushi 64\npushi 3\nbitsr", "8"},
      {"pushi 64\npushi 35\nbitsr", "8"},
      {"pushi -2147483648\npushi 31\nbitsr", "-1"},
      {"pushi 2147483647\npushi -1\nbitsr", "0"},
  });
}

TEST(InstructionsArithmetic, CatJoinsLeftAndRight) {
  ExpectStacks({
      {"pushc \"a\"\npushc \"b\"\ncat", "\"ab\""},
      {"pushi 1\npushf 0.5\ncat", "\"10.5\""},
      {"pushc \"a\"\npushc \"b\"\ncat\npushc \"c\"\ncat", "<abc>"},
      {"pushc \"x\"\npopg v\npushc \"a\"\npushg v\ncat", "<ax>"},
      {"pushg v\npushg v\ncat", "<>"},
  });
}

// --- Rounding ------------------------------------------------------------------------------------

struct RoundCase {
  double value;
  int precision;
  const char* text;    // what rounds pushes
  const char* number;  // what roundf pushes
};

TEST(InstructionsArithmetic, RoundingToDecimals) {
  const RoundCase cases[] = {
      {2.345, 2, "2.34", "2.34"},
      {2.355, 2, "2.36", "2.36"},
      {2.3451, 2, "2.35", "2.35"},
      {2.346, 2, "2.35", "2.35"},
      {2.344, 2, "2.34", "2.34"},
      {-2.355, 2, "-2.36", "-2.36"},
      {-2.345, 2, "-2.34", "-2.34"},
      {0.125, 2, "0.12", "0.12"},
      {0.375, 2, "0.38", "0.38"},
      {9.995, 2, "10.00", "10"},
      {99.999, 1, "100.0", "100"},
      {3.5, 3, "3.500", "3.5"},
      {3, 2, "3.00", "3"},
      {0, 2, "0.00", "0"},
      {1e20, 2, "100000000000000000000.00", "100000000000000000000"},
      {1234567.891, 1, "1234567.9", "1234567.9"},
      // The first digit directly follows the last kept place.
      {0.006, 2, "0.01", "0.01"},
      {0.005, 2, "0.00", "0"},
      {0.004, 2, "0.00", "0"},
      {0.0051, 2, "0.01", "0.01"},
      // A first digit further to the right is tested as if it were there.
      {0.0006, 2, "0.01", "0.01"},
      {0.0004, 2, "0.00", "0"},
      {0.00009, 2, "0.01", "0.01"},
      {-0.0006, 2, "-0.01", "-0.01"},
      // With 0 decimals or fewer, only the conversion to text rounds.
      {2.0, 0, "2", "2"},
      {-7.0, -3, "-7", "-7"},
  };
  for (const RoundCase& c : cases) {
    SCOPED_TRACE(testing::Message() << c.value << " to " << c.precision);
    Machine text, number;
    text.OpDouble(Instruction::pushf, c.value).Op(Instruction::pushi, c.precision);
    text.Op(Instruction::rounds);
    EXPECT_EQ(text.Go(), 1);
    EXPECT_EQ(text.StackText(), '"' + std::string(c.text) + '"');
    number.OpDouble(Instruction::pushf, c.value).Op(Instruction::pushi, c.precision);
    number.Op(Instruction::roundf);
    EXPECT_EQ(number.Go(), 1);
    EXPECT_EQ(number.StackText(), "d" + std::string(c.number));
  }
}

// The shortest digits of a value, rounded half to even to the given decimals, as text.
std::string RoundedByDigits(double value, int decimals) {
  char buffer[400];
  const auto end =
      std::to_chars(buffer, buffer + sizeof buffer, std::fabs(value), std::chars_format::fixed);
  std::string digits(buffer, end.ptr);
  if (digits.find('.') == std::string::npos) digits += '.';
  const size_t point = digits.find('.');
  digits.erase(point, 1);
  const size_t kept = point + static_cast<size_t>(decimals);
  bool up = false;
  if (digits.size() <= kept) {
    digits.append(kept - digits.size(), '0');
  } else {
    const std::string rest = digits.substr(kept);
    digits.resize(kept);
    up = rest > "5" || (rest == "5" && (digits.back() - '0') % 2 == 1);
  }
  for (size_t i = kept; up && i-- > 0;) {
    up = digits[i] == '9';
    digits[i] = up ? '0' : static_cast<char>(digits[i] + 1);
  }
  if (up) digits.insert(0, "1");
  digits.insert(digits.size() - static_cast<size_t>(decimals), ".");
  return (std::signbit(value) ? "-" : "") + digits;
}

double RandomValue(std::mt19937_64* random, int decimals) {
  switch ((*random)() % 6) {
    // Below 1, from the first value whose rounding begins with its first digit.
    case 4: return 0.1 + static_cast<double>((*random)() % 9000000) / 1e7;
    case 5: {
      const auto digits = static_cast<double>((*random)() % 1000000000);
      const double value = 0.1 + digits / 1e9;
      return std::nextafter(value, (*random)() % 2 ? 0.1 : 2);
    }
    case 0: return 1 + static_cast<double>((*random)() % 100000000) / 1000;
    case 1: return 1 + static_cast<double>((*random)() % 1000000) / 7;
    case 2: {  // a half after the last kept decimal, or a neighbour
      const auto tens = static_cast<double>(1000000000 + (*random)() % 9000000000);
      const double value = (tens * 10 + 5) / std::pow(10, decimals + 1);
      if ((*random)() % 2) return value;
      return std::nextafter(value, (*random)() % 2 ? 0 : 1e300);
    }
    default:
      return std::ldexp(1 + static_cast<double>((*random)() >> 12) / 4503599627370496.0,
                        static_cast<int>((*random)() % 14));
  }
}

TEST(InstructionsArithmetic, RoundingGoesByTheShortestDigits) {
  std::mt19937_64 random(20261121);
  for (int batch = 0; batch < 300; batch++) {
    Machine machine;
    std::vector<std::string> expected;
    for (int i = 0; i < 200; i++) {
      const int decimals = 1 + static_cast<int>(random() % 9);
      double value = RandomValue(&random, decimals);
      if (random() % 2) value = -value;
      machine.OpDouble(Instruction::pushf, value).Op(Instruction::pushi, decimals);
      machine.Op(Instruction::rounds);
      expected.push_back(RoundedByDigits(value, decimals));
    }
    ASSERT_EQ(machine.Go(), 1);
    for (size_t i = expected.size(); i-- > 0;) {
      ASSERT_EQ(PopText(machine.stack()), expected[i]);
    }
  }
}

TEST(InstructionsArithmetic, RoundingToNoDecimalsLeavesTheNumberToTheConversion) {
  for (double value : {0.4, 0.5, 1.5, 2.5, 2.7, -1.5, 1e15 + 0.5}) {
    for (int precision : {0, -1, -20}) {
      SCOPED_TRACE(testing::Message() << value << " to " << precision);
      Machine machine;
      machine.OpDouble(Instruction::pushf, value).Op(Instruction::pushi, precision);
      machine.Op(Instruction::rounds);
      machine.OpDouble(Instruction::pushf, value).Op(Instruction::pushi, precision);
      machine.Op(Instruction::roundf);
      EXPECT_EQ(machine.Go(), 1);
      EXPECT_EQ(machine.stack().PopD(), value);
      std::unique_ptr<char[]> text(machine.application.dtos(value, nullptr, nullptr, 0));
      EXPECT_EQ(PopText(machine.stack()), text.get());
    }
  }
}

TEST(InstructionsArithmetic, RoundingOfWhatIsNotFinite) {
  ExpectStacks({
      {"pushf inf\npushi 2\nrounds", "\"Infinity\""},
      {"pushf -inf\npushi 2\nrounds", "\"Infinity\""},
      {"pushf nan\npushi 2\nrounds", "\"NaN\""},
      {"pushf inf\npushi 2\nroundf", "dInfinity"},
      {"pushf -inf\npushi 2\nroundf", "dInfinity"},
      {"pushf nan\npushi 2\nroundf", "dInfinity"},
  });
  Machine machine;
  machine.Assemble("pushf nan\npushi 2\nrounds\npushf inf\npushi 2\nrounds");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.stack().Peek()->size, 9);
  EXPECT_FALSE(machine.stack().Peek()->deletable);
  machine.stack().Pop();
  EXPECT_EQ(machine.stack().Peek()->size, 4);
  EXPECT_FALSE(machine.stack().Peek()->deletable);
}

TEST(InstructionsArithmetic, RoundedTextIsOwned) {
  Machine machine;
  machine.Assemble("pushf 2.355\npushi 2\nrounds");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_TRUE(machine.stack().Peek()->deletable);
}

TEST(InstructionsArithmetic, RoundingTakesTextAndHugePrecisions) {
  ExpectStacks({
      {"pushc \"2.355\"\npushc \"2\"\nrounds", "\"2.36\""},
      {"pushc \"abc\"\npushi 1\nrounds", "\"0.0\""},
      {"pushf 0.1\npushi 25\nrounds", "\"0.1000000000000000000000000\""},
      {"pushf 1e-300\npushi 400\nroundf", "d0"},
  });
  // A number's digits end long before this; the rest is zeros.
  Machine machine;
  machine.Assemble("pushf 0.5\npushi 100000\nrounds");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(PopText(machine.stack()), "0.5" + std::string(99999, '0'));
}

// The rounding step by step, on the digits of the number.
double Rounded(double value, int places) {
  char digits[512];
  int point, sign;
  int length = dtoa(digits, sizeof digits, 5, 20, &point, &sign, value);
  if (places <= 0 || length - point <= places) return value;
  int n = point + places;
  unsigned long m = 0;
  for (int i = 0; i < n; i++) m = m * 10 + static_cast<unsigned long>(digits[i] - '0');
  int test = n > 0 ? n : 0;
  bool up = digits[test] > '5';
  if (digits[test] == '5') {
    bool more = false;
    for (int i = test + 1; i < length; i++) more = more || digits[i] != '0';
    up = more || m % 2 == 1;
  }
  double rounded = static_cast<double>(m + up) / std::pow(10, places);
  return sign ? -rounded : rounded;
}

TEST(InstructionsArithmetic, RoundingOfManyNumbers) {
  srand(7);
  for (int i = 0; i < Rounds(20000); i++) {
    int places = i % 3 ? rand() % 6 : rand() % 23;
    double value = (rand() % 2 ? 1 : -1) * (rand() % 2000000) / std::pow(10, rand() % 12);
    // Numbers of all lengths, besides those of few digits.
    if (i % 4 == 0) value *= 1 + rand() / 3e9;
    if (i % 64 == 0) value *= std::pow(10, rand() % 40 - 20);
    SCOPED_TRACE(testing::Message() << value << " to " << places);
    Machine machine;
    machine.OpDouble(Instruction::pushf, value).Op(Instruction::pushi, places);
    machine.Op(Instruction::roundf);
    machine.OpDouble(Instruction::pushf, value).Op(Instruction::pushi, places);
    machine.Op(Instruction::rounds);
    ASSERT_EQ(machine.Go(), 1);
    // The text is that of the rounded number, and so is the size of its buffer.
    int length, size;
    std::unique_ptr<char[]> text(
        machine.application.dtos(Rounded(value, places), &length, &size, places));
    ASSERT_EQ(machine.stack().Peek()->length, length);
    ASSERT_EQ(machine.stack().Peek()->size, size);
    ASSERT_EQ(PopText(machine.stack()), text.get());
    ASSERT_EQ(machine.stack().PopD(), Rounded(value, places));
  }
}

// --- Password hash -------------------------------------------------------------------------------

TEST(InstructionsArithmetic, HashIsTheSystems) {
  const struct {
    const char* text;
    const char* salt;
    const char* used;
  } cases[] = {
      {"secret", "ab", "ab"}, {"secret", "abcdef", "ab"},        {"", "./", "./"},
      {"secret", "x", "xx"},  {"eightcharsandmore", "zZ", "zZ"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.text << " with " << c.salt);
    Machine machine;
    machine.Text(c.text).Text(c.salt).Op(Instruction::crypt);
    EXPECT_EQ(machine.Go(), 1);
    EXPECT_TRUE(machine.stack().Peek()->deletable);
    EXPECT_EQ(PopText(machine.stack()), ::crypt(c.text, c.used));
  }
}

TEST(InstructionsArithmetic, EmptySaltIsPickedFromTheTable) {
  std::set<std::string> salts;
  for (int i = 0; i < 40; i++) {
    Machine machine;
    machine.Assemble("pushc \"secret\"\npushc \"\"\ncrypt");
    EXPECT_EQ(machine.Go(), 1);
    std::string hash = PopText(machine.stack());
    ASSERT_EQ(hash.size(), 13u);
    std::string salt = hash.substr(0, 2);
    EXPECT_EQ(hash, ::crypt("secret", salt.c_str()));
    EXPECT_EQ(
        salt.find_first_not_of("./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxy"),
        std::string::npos);
    salts.insert(salt);
  }
  EXPECT_GT(salts.size(), 10u);
}

// --- Too few operands ----------------------------------------------------------------------------

TEST(InstructionsArithmetic, MissingOperandsAreUnderflows) {
  for (const char* name : {"add", "sub", "mul", "div", "mod", "pow", "cat", "bitand", "bitor",
                           "bitxor", "bitsl", "bitsr", "rounds", "roundf", "crypt"}) {
    ExpectFailure({name, "Stack underflow"});
    ExpectFailure({(std::string("pushi 1\n") + name).c_str(), "Stack underflow"});
  }
  ExpectFailure({"bitoc", "Stack underflow"});
}

}  // namespace
