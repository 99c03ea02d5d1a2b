#include "base/core/memcmpi.h"

#include <cctype>
#include <random>
#include <string>

#include "gtest/gtest.h"

namespace {

TEST(Memcmpi, FirstDifferenceInLowerCaseDecides) {
  const struct {
    const char* label;
    std::string a;
    std::string b;
    int expected;
  } cases[] = {
      {"less", "ABC", "abd", -1},
      {"greater", "abD", "ABC", 1},
      {"equal", "Name", "nAME", 0},
      {"nothing", "", "", 0},
      {"bytes are unsigned", "\x80", "z", 1},
      {"no case above 127", "\xc4", "\xe4", -1},
      {"letters count as lower case against what is between", "_", "A", -1},
      {"in the first word", "abcXefgh", "abcdefgh", 1},
      {"at the end of the first word", "abcdefgA", "ABCDEFGb", -1},
      {"the first of two differences", "aBcdXfgY", "AbCdYfgX", -1},
      {"in the second word", "ABCDEFGHijkl", "abcdefghIJKM", -1},
      {"after the last word", "abcdefghi", "ABCDEFGHh", 1},
      {"a NUL is a byte", std::string("a\0b", 3), std::string("A\0c", 3), -1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    EXPECT_EQ(memcmpi(c.a.data(), c.b.data(), c.a.size()), c.expected);
    EXPECT_EQ(memcmpi(c.b.data(), c.a.data(), c.a.size()), -c.expected);
  }
}

TEST(Memcmpi, LengthZeroIsEqual) {
  EXPECT_EQ(memcmpi("a", "b", 0), 0);
}

TEST(Memcmpi, AgreesWithAByteByByteComparison) {
  std::mt19937 random(20261121);
  for (int i = 0; i < 100000; ++i) {
    std::string a(random() % 40, 0);
    for (char& c : a) c = static_cast<char>("abAB@[`{\xc4\xe4"[random() % 10]);
    std::string b = a;
    for (char& c : b) {
      if (random() % 8 == 0) c = static_cast<char>("abAB@[`{\xc4\xe4"[random() % 10]);
    }
    int expected = 0;
    for (size_t at = 0; at < a.size() && expected == 0; ++at) {
      int left = static_cast<unsigned char>(a[at]);
      int right = static_cast<unsigned char>(b[at]);
      if (left < 128) left = std::tolower(left);
      if (right < 128) right = std::tolower(right);
      expected = left < right ? -1 : left > right;
    }
    ASSERT_EQ(memcmpi(a.data(), b.data(), a.size()), expected) << a << ' ' << b;
  }
}

}  // namespace
