// Texts of values that the SQL libraries make themselves.

#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>

#include "extensions/sql/Values.h"
#include "tests/support/Rounds.h"

namespace {

std::string ByTheLibraryOfC(double value, int decimals) {
  char text[zephsql::kRealText];
  const int length = snprintf(text, sizeof text, "%.*f", decimals, value);
  return std::string(text, static_cast<size_t>(length));
}

TEST(SQLValues, ANumberHasTheDecimalsThatTheLibraryOfCGivesIt) {
  std::mt19937_64 random(7);
  char buffer[zephsql::kRealText];
  for (int i = 0; i < Rounds(100000); i++) {
    const int decimals = static_cast<int>(random() % 12);
    double power = 1;
    for (int k = 0; k < decimals && k < 9; k++) power *= 10;
    // Most have no more decimals than their column. Some are small, large, or have more.
    const int64_t digits = i % 7 == 0 ? 200 : 2000000000;
    double value =
        static_cast<double>(static_cast<int64_t>(random() % static_cast<uint64_t>(digits)) -
                            digits / 2) /
        power;
    if (i % 11 == 0) value *= 1e12;
    if (i % 13 == 0) value /= 3;
    ASSERT_EQ(std::string(zephsql::RealText(value, decimals, buffer)),
              ByTheLibraryOfC(value, decimals))
        << decimals;
  }
}

TEST(SQLValues, ZeroHasItsDecimalsAndItsSign) {
  char buffer[zephsql::kRealText];
  for (const double value : {0.0, -0.0, 0.004, -0.004, 0.5, -0.5, 999999.99, 1e6, -1e6}) {
    for (int decimals = 0; decimals <= 30; decimals++) {
      EXPECT_EQ(std::string(zephsql::RealText(value, decimals, buffer)),
                ByTheLibraryOfC(value, decimals));
    }
  }
}

}  // namespace
