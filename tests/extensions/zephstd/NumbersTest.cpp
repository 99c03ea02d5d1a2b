// The functions for numbers of zephstd.

#include <cmath>
#include <set>
#include <sstream>

#include "tests/extensions/Library.h"

namespace {

class StdNumbers : public Library {};

TEST_F(StdNumbers, NumbersAreFormatted) {
  const ValueCase cases[] = {
      {"formatnumber(1234567.891, 2, '.', ',')", "1,234,567.89"},
      {"formatnumber(1234567.891, 0, ',', '.')", "1.234.568"},
      {"formatnumber(0, 2, '.', ',')", "0.00"},
      {"formatnumber('', 2, '.', ',')", "0.00"},
      {"formatnumber(999, 0, '.', ',')", "999"},
      {"formatnumber(1000, 0, '.', ',')", "1,000"},
      {"formatnumber(-1234.5, 1, '.', ' ')", "-1 234.5"},
      {"formatnumber(-0.001, 2, '.', ',')", "0.00"},
      {"formatnumber(-0.005, 2, '.', ',')", "-0.01"},
      {"formatnumber(0.05, 1, '.', ',')", "0.1"},
      {"formatnumber(0.04, 1, '.', ',')", "0.0"},
      {"formatnumber(0.00123, 4, '.', ',')", "0.0012"},
      {"formatnumber(0.999, 2, '.', ',')", "1.00"},
      {"formatnumber(9.995, 2, '.', ',')", "10.00"},
      {"formatnumber(1.005, 2, '.', ',')", "1.01"},
      {"formatnumber(0.5, 0, '.', ',')", "1"},
      {"formatnumber(1.5, 3, ' und ', '')", "1 und 500"},
      {"formatnumber('1e21', 0, '.', ',')", "1,000,000,000,000,000,000,000"},
      {"formatnumber(1, 21, '.', ',')", "!formatnumber: 'decimals' is not 0 to 20"},
      {"formatnumber(1, -1, '.', ',')", "!formatnumber: 'decimals' is not 0 to 20"},
      {"formatnumber('a', 1, '.', ',')", "!formatnumber: 'number' is not a number"},
      {"formatnumber(1 / 0, 1, '.', ',')", "!formatnumber: 'number' is not finite"},
      {"length(formatnumber('1e308', 20, '.', ','))", "432"},
  };
  EXPECT_VALUES(cases);
}

TEST_F(StdNumbers, NumbersAreRounded) {
  const ValueCase cases[] = {
      {"round(2.5, '')", "3"},
      {"round(-2.5, '')", "-3"},
      {"round(2.4, '')", "2"},
      {"round(1.005, 2)", "1.01"},
      {"round(2.345, 2)", "2.35"},
      {"round(-0.4, 0)", "0"},
      // What was calculated is not exact.
      {"round(5 * 1.255, 2)", "6.28"},
      {"round(1.1 + 2.2, 15)", "3.3"},
      {"formatnumber(5 * 1.255, 2, '.', '')", "6.28"},
      {"formatnumber('9007199254740991', 0, '.', '')", "9007199254740991"},
      {"formatnumber('123456789012345.67', 1, '.', '')", "123456789012345.7"},
      {"formatnumber('0.000000000000000123456', 20, '.', '')", "0.00000000000000012346"},
      {"round(1234.5, -2)", "1200"},
      {"round(1250, -2)", "1300"},
      {"round(49, -2)", "0"},
      {"round(50, -2)", "100"},
      {"round(50, -3)", "0"},
      {"round(99.99, 1)", "100"},
      {"round('', 1)", "0"},
      {"round(1, 21)", "!round: 'decimals' is not -20 to 20"},
      {"round('1e300', 2) EQ '1e300'", "1"},
      {"floor(-1.5)", "-2"},
      {"floor(1.5)", "1"},
      {"ceil(-1.5)", "-1"},
      {"ceil(-0.5)", "0"},
      {"ceil(1.5)", "2"},
      {"whole(-1.5)", "-1"},
      {"whole(4294967296.5)", "4294967296"},
      {"abs(-3.5)", "3.5"},
      {"abs('-3')", "3"},
      {"min(2, -1)", "-1"},
      {"min('10', '9')", "9"},
      {"max(2, 2.5)", "2.5"},
      {"clamp(5, 1, 3)", "3"},
      {"clamp(-5, 1, 3)", "1"},
      {"clamp(2, 1, 3)", "2"},
      {"sqrt(16)", "4"},
      {"sqrt(2) GT 1.41", "1"},
      {"sqrt(-1)", "!sqrt: 'number' is below 0"},
      {"floor('0x1F')", "31"},
  };
  EXPECT_VALUES(cases);
}

TEST_F(StdNumbers, NumbersAreTold) {
  const ValueCase cases[] = {
      {"isnumber(5)", "1"},
      {"isnumber('5')", "1"},
      {"isnumber('-5.25')", "1"},
      {"isnumber('+5')", "1"},
      {"isnumber('.5')", "1"},
      {"isnumber('5.')", "1"},
      {"isnumber('1e5')", "1"},
      {"isnumber('0x1f')", "1"},
      {"isnumber('')", "0"},
      {"isnumber(' 5')", "0"},
      {"isnumber('5 ')", "0"},
      {"isnumber('5a')", "0"},
      {"isnumber('-')", "0"},
      {"isnumber('+-5')", "0"},
      {"isnumber('--5')", "0"},
      {"isnumber('.')", "0"},
      {"isnumber('0x')", "0"},
      {"isnumber('0xg')", "0"},
      {"isnumber('-0x1')", "0"},
      {"isnumber('inf')", "0"},
      {"isnumber('nan')", "0"},
      {"isnumber('1e999')", "0"},
      {"isnumber('1e-999')", "1"},
      {"isnumber('0.' $ repeat('0', 400) $ '1')", "1"},
      {"isnumber(repeat('1', 400))", "0"},
      {"isnumber('1,5')", "0"},
      {"isnumber(split('1', ','))", "0"},
      {"isinteger(5)", "1"},
      {"isinteger('-5')", "1"},
      {"isinteger('5.0')", "0"},
      {"isinteger(5.0)", "1"},
      {"isinteger(5.5)", "0"},
      {"isinteger('1e3')", "0"},
      {"isinteger('999999999999999')", "1"},
      {"isinteger('9999999999999999')", "0"},
      {"isinteger('')", "0"},
  };
  EXPECT_VALUES(cases);
}

TEST_F(StdNumbers, NumbersAreWrittenInOtherBases) {
  const ValueCase cases[] = {
      {"hex(255, '')", "ff"},
      {"hex(255, 4)", "00ff"},
      {"hex(0, '')", "0"},
      {"hex('4294967296', '')", "100000000"},
      {"hex(-1, '')", "!hex: 'number' is below 0"},
      {"tobase(255, 2)", "11111111"},
      {"tobase(35, 36)", "z"},
      {"tobase(5, 1)", "!tobase: 'base' is not 2 to 36"},
      {"tobase(5, 37)", "!tobase: 'base' is not 2 to 36"},
      {"frombase('ff', 16)", "255"},
      {"frombase('FF', 16)", "255"},
      {"frombase('zz', 36)", "1295"},
      {"frombase('9007199254740992', 10)", "9007199254740992"},
      {"frombase('9007199254740993', 10)", ""},
      {"frombase('99999999999999999999999', 10)", ""},
      {"frombase('12', 2)", ""},
      {"frombase('', 16)", ""},
      {"frombase('-1', 16)", ""},
      {"bytesize(0)", "0 B"},
      {"bytesize(999)", "999 B"},
      {"bytesize(1000)", "1 kB"},
      {"bytesize(1500)", "1.5 kB"},
      {"bytesize(9940)", "9.9 kB"},
      {"bytesize(9960)", "10 kB"},
      {"bytesize(999499)", "999 kB"},
      {"bytesize(999500)", "1 MB"},
      {"bytesize(20000000)", "20 MB"},
      {"bytesize(-1500)", "-1.5 kB"},
      {"bytesize('nan')", "!bytesize: 'number' is not a number"},
  };
  EXPECT_VALUES(cases);
  EXPECT_EQ(Value("bytesize('1e300')").size(), 289u);
}

TEST_F(StdNumbers, RandomNumbersAreInTheirRange) {
  std::set<std::string> seen;
  for (int i = 0; i < 300; i++) seen.insert(Value("random(-2, 2)"));
  EXPECT_EQ(seen, (std::set<std::string>{"-2", "-1", "0", "1", "2"}));
  EXPECT_EQ(Value("random(7, 7)"), "7");
  EXPECT_EQ(Value("random(8, 7)"), "!random: 'least' is above 'most'");
  for (int i = 0; i < 50; i++) {
    EXPECT_EQ(Value("random('-9007199254740992', '9007199254740992') + 0 GE '-9007199254740992'"),
              "1");
  }
}

// Against Python's decimal arithmetic, over numbers with few digits, where halves are common.
TEST_F(StdNumbers, RoundingIsThatOfDecimals) {
  const std::string rows = Python(
      "import decimal, random\n"
      "random.seed(5)\n"
      "for i in range(400):\n"
      "  text = '%s%d.%0*d' % (random.choice(['', '-']), random.randrange(2000),\n"
      "      random.randrange(1, 6), random.randrange(100))\n"
      "  places = random.randrange(0, 5)\n"
      "  d = decimal.Decimal(text).quantize(decimal.Decimal(1).scaleb(-places),\n"
      "      decimal.ROUND_HALF_UP)\n"
      "  print(text, places, format(abs(d) if d == 0 else d, ',f'))");
  if (rows.empty()) GTEST_SKIP() << "no Python";
  std::istringstream lines(rows);
  std::string text, places, written;
  while (lines >> text >> places >> written) {
    EXPECT_EQ(Value("formatnumber('" + text + "', " + places + ", '.', ',')"), written)
        << text << " " << places;
    std::string plain = written;
    std::erase(plain, ',');
    EXPECT_EQ(std::stod(Value("round('" + text + "', " + places + ")")), std::stod(plain)) << text;
  }
}

}  // namespace
