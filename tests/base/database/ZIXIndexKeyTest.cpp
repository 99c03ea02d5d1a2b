// Claims about base/database/ZIXIndexKey.h: the order of keys.

#include "base/database/ZIXIndexKey.h"

#include <gtest/gtest.h>

#include <bit>
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "base/database/ZIXIndexFile.h"
#include "tests/support/Rounds.h"
#include "tests/support/ZIXIndexFixture.h"

namespace {

int Sign(int value) {
  return (value > 0) - (value < 0);
}

TEST(ZIXIndexKey, NumbersCompareByValueAndOtherTextsAreNone) {
  const struct {
    const char* a;
    const char* b;
    int expected;
  } cases[] = {
      {"1", "1", 0},
      {"1", "1.0", 0},
      {"10", "9.5", 1},
      {"-3", "2", -1},
      {"-3", "-20", 1},
      {"", "0", 0},
      {"", "-1", 1},
      {"0", "", 0},
      {"-0", "0", 0},
      {" 7", "7", 0},
      {"7 ", "7", -2},
      {"7", "7 ", -2},
      {"+7", "7", 0},
      {"0x10", "16", 0},
      {"1e3", "1000", 0},
      {"abc", "1", -2},
      {"1", "abc", -2},
      {"999999999999999", "999999999999998", 1},
      {"9999999999999999", "9999999999999998", 1},
      {"99999999999999999999", "1", 1},
      {"-", "1", -2},
      {"1-", "1", -2},
      {".", "1", -2},
      // A first number beyond all doubles is not a number; a second one counts as infinite.
      {"1e999", "1", -2},
      {"-1e999", "1", -2},
      {"1", "1e999", -1},
      {"1", "-1e999", 1},
      {"inf", "1", 1},
      {"inf", "inf", 0},
      {"inf", "1e999", -2},
      {"inf", "1e-999", -2},
      {"-infinity", "1e999", -2},
      {"1", "1e-999", 1},
      {"1e-999", "0", 0},
      // A NaN has no order; it counts as less.
      {"nan", "1", -1},
      {"1", "nan", -1},
      {"nan", "nan", -1},
      {"nix", "1", -2},
      {"ink", "1", -2},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(std::string("'") + row.a + "' with '" + row.b + "'");
    EXPECT_EQ(row.expected, ZIXIndexFile::NumberCompare(KeyBytes(row.a), KeyBytes(row.b)));
  }
}

// Most numbers do not need strtod, which is the one that says what they are.
TEST(ZIXIndexKey, NumbersAreWhatStrtodReads) {
  std::mt19937_64 random(7);
  std::vector<std::string> texts = {".5",  "5.", "-.5", "-0.0", "-5.", "1.2.3",
                                    "..1", "-",  "-.",  "--1",  "1.-2"};
  for (int i = 0; i < Rounds(20000); i++) {
    std::string text = random() % 3 ? "" : "-";
    for (unsigned digits = static_cast<unsigned>(random() % 19); digits > 0; digits--)
      text += static_cast<char>('0' + random() % 10);
    if (random() % 4) text.insert(random() % (text.size() + 1), ".");
    texts.push_back(text);
  }
  for (const std::string& text : texts) {
    SCOPED_TRACE(text);
    const ZIXIndexOrder::Number number = ZIXIndexOrder::Read(KeyBytes(text));
    char* end = nullptr;
    const double expected = strtod(text.c_str(), &end);
    ASSERT_EQ(number.whole, *end == 0);
    if (number.whole) {
      ASSERT_EQ(std::bit_cast<uint64_t>(number.value), std::bit_cast<uint64_t>(expected));
    }
  }
}

TEST(ZIXIndexKey, AnEarlierRangeErrorIsForgotten) {
  errno = ERANGE;
  EXPECT_EQ(1, ZIXIndexFile::NumberCompare(KeyBytes("inf"), KeyBytes("1.5")));
}

TEST(ZIXIndexKey, TheProcessLocaleDoesNotChangeNumbers) {
  const char* const set = setlocale(LC_NUMERIC, "de_DE.UTF-8");
  EXPECT_EQ(0, ZIXIndexFile::NumberCompare(KeyBytes("1.5"), KeyBytes("1.50")));
  EXPECT_EQ(-2, ZIXIndexFile::NumberCompare(KeyBytes("1,5"), KeyBytes("1")));
  setlocale(LC_NUMERIC, "C");
  (void)set;
}

TEST(ZIXIndexKey, CompareFollowsFlagsAndExactness) {
  const struct {
    const char* a;
    const char* b;
    int exact;
    int flags;
    int expected;
  } cases[] = {
      {"10", "9.5", 1, 0, 1},
      {"10", "9.5", 1, 4, -1},
      {"10", "9.5", 1, 2, -1},
      {"10", "9.5", 1, 6, 1},
      {"10", "abc", 1, 0, -1},
      {"10", "abc", 1, 2, 1},
      {"1", "1.0", 1, 0, 0},
      {"1", "1.0", 1, 4, -1},
      {"ab", "abc", 1, 4, -1},
      {"ab", "abc", 0, 4, 0},
      {"ab", "abc", 0, 0, 0},
      {"abc", "ab", 0, 4, 1},
      {"abc", "ab", 0, 6, -1},
      {"", "abc", 0, 0, 0},
      // A prefix is compared by bytes, never by numbers.
      {"1", "1.0", 0, 0, 0},
      {"1.0", "1", 0, 0, 1},
      {"2", "10", 0, 0, 1},
      {"\xC3\xA4", "z", 1, 4, 1},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(std::string("'") + row.a + "' with '" + row.b + "' flags " +
                 std::to_string(row.flags) + " exact " + std::to_string(row.exact));
    EXPECT_EQ(row.expected,
              Sign(ZIXIndexFile::Compare(KeyBytes(row.a), KeyBytes(row.b), row.exact, row.flags)));
    const ZIXIndexKey key(KeyBytes(row.a), -1, 100, static_cast<unsigned>(row.flags));
    EXPECT_EQ(row.expected,
              Sign(row.exact ? key.Compare(KeyBytes(row.b)) : key.ComparePrefix(KeyBytes(row.b))));
  }
}

TEST(ZIXIndexKey, IsCutToWhatAnEntryHoldsAndAtItsFirstNUL) {
  const std::string text = std::string("abc\0def", 7);
  const struct {
    int length;
    int keysize;
    const char* expected;
  } cases[] = {{7, 100, "abc"}, {2, 100, "ab"}, {-1, 100, "abc"}, {-5, 100, "abc"}, {3, 3, "ab"},
               {3, 4, "abc"},   {0, 100, ""},   {3, 1, ""},       {3, 0, ""}};
  for (const auto& row : cases) {
    SCOPED_TRACE(std::to_string(row.length) + " of " + std::to_string(row.keysize));
    const ZIXIndexKey key(KeyBytes(text), row.length, row.keysize, 0);
    EXPECT_STREQ(row.expected, reinterpret_cast<const char*>(key.text()));
  }
  EXPECT_STREQ("", reinterpret_cast<const char*>(ZIXIndexKey(nullptr, 5, 100, 0).text()));
  const std::string large(5000, 'x');
  const ZIXIndexKey key(KeyBytes(large), 5000, 4000, 0);
  EXPECT_EQ(3999u, strlen(reinterpret_cast<const char*>(key.text())));
}

}  // namespace
