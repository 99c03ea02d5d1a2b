#include "base/core/ascii.h"

#include <ctype.h>
#include <gtest/gtest.h>

#include <climits>
#include <string_view>

#include "base/core/CLocale.h"

namespace {

// The C library in the "C" locale is the model.
TEST(Ascii, EveryByteHasTheClassesOfTheCLocale) {
  for (int i = 0; i < 256; i++) {
    SCOPED_TRACE(i);
    const auto c = static_cast<unsigned char>(i);
    EXPECT_EQ(zp_isspace(c), isspace_l(i, CLocale()) != 0);
    EXPECT_EQ(zp_isdigit(c), isdigit_l(i, CLocale()) != 0);
    EXPECT_EQ(zp_isalpha(c), isalpha_l(i, CLocale()) != 0);
    EXPECT_EQ(zp_hexvalue(c) >= 0, isxdigit_l(i, CLocale()) != 0);
    EXPECT_EQ(zp_tolower(c), tolower_l(i, CLocale()));
    EXPECT_EQ(zp_toupper(c), toupper_l(i, CLocale()));
  }
}

TEST(Ascii, HexadecimalDigitsHaveTheirValueInBothCases) {
  constexpr std::string_view lower = "0123456789abcdef", upper = "0123456789ABCDEF";
  for (int value = 0; value < 16; value++) {
    EXPECT_EQ(zp_hexvalue(static_cast<unsigned char>(lower[static_cast<size_t>(value)])), value);
    EXPECT_EQ(zp_hexvalue(static_cast<unsigned char>(upper[static_cast<size_t>(value)])), value);
  }
}

TEST(Ascii, VerticalTabAndFormFeedAreSpaceButNotWhite) {
  for (int i = 0; i < 256; i++) {
    const auto c = static_cast<unsigned char>(i);
    EXPECT_EQ(zp_iswhite(c), zp_isspace(c) && c != '\v' && c != '\f') << i;
  }
}

TEST(CLocale, NumberIsReadAfterWhiteSpaceUpToTheFirstOtherByte) {
  EXPECT_EQ(LeadingNumber("17"), 17);
  EXPECT_EQ(LeadingNumber(" \t-17 8"), -17);
  EXPECT_EQ(LeadingNumber("80abc"), 80);
  EXPECT_EQ(LeadingNumber("\xA0"
                          "80"),
            0);
  EXPECT_EQ(LeadingNumber("abc"), 0);
  EXPECT_EQ(LeadingNumber(""), 0);
  EXPECT_EQ(LeadingNumber("99999999999999999999"), LONG_MAX);
}

}  // namespace
