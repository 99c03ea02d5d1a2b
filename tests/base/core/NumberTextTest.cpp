#include "base/core/NumberText.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <random>
#include <string>

namespace {

std::string Integer(int number) {
  char text[kLongestInteger];
  return {text, WriteInteger(text, number)};
}

std::string Unsigned(uint64_t number) {
  char text[kLongestUnsigned];
  return {text, WriteUnsigned(text, number)};
}

std::string Digits(uint64_t number, int count) {
  char text[kLongestUnsigned];
  return {text, WriteDigits(text, number, count)};
}

TEST(NumberText, IntegersAroundEachPowerOfTenAndOfTwo) {
  for (int i = -20000; i <= 20000; i++) ASSERT_EQ(Integer(i), std::to_string(i));
  for (const int i : {99999, 100000, 999999, 1000000, 1000000000, INT_MAX, INT_MAX - 1, INT_MIN,
                      INT_MIN + 1, -99999, -1000000000}) {
    EXPECT_EQ(Integer(i), std::to_string(i));
  }
  for (const uint64_t number :
       {uint64_t{0}, uint64_t{9999}, uint64_t{10000}, uint64_t{1} << 32, UINT64_MAX}) {
    EXPECT_EQ(Unsigned(number), std::to_string(number));
  }
}

TEST(NumberText, RandomNumbersOfEveryLength) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937_64 random(seed);
  for (int i = 0; i < 100000; i++) {
    const uint64_t number = random() >> random() % 64;
    ASSERT_EQ(Unsigned(number), std::to_string(number));
    ASSERT_EQ(Integer(static_cast<int>(number)), std::to_string(static_cast<int>(number)));
  }
}

TEST(NumberText, DigitsHaveZerosInFront) {
  EXPECT_EQ(Digits(0, 0), "");
  EXPECT_EQ(Digits(7, 1), "7");
  EXPECT_EQ(Digits(7, 2), "07");
  EXPECT_EQ(Digits(70, 2), "70");
  EXPECT_EQ(Digits(7, 3), "007");
  EXPECT_EQ(Digits(123456789, 9), "123456789");
  EXPECT_EQ(Digits(1, 9), "000000001");
}

}  // namespace
