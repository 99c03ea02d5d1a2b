#include "base/core/bigint.h"

#include <bit>
#include <cmath>
#include <random>
#include <string>

#include "gtest/gtest.h"
#include "tests/support/Rounds.h"

namespace {

__extension__ typedef unsigned __int128 uint128;

BigintPtr Make(uint128 value) {
  BigintPtr number(Balloc(2));
  number->wds = 1;
  for (int i = 0; i < 4; ++i) {
    number->x[i] = static_cast<uint32_t>(value >> (32 * i));
    if (number->x[i]) number->wds = i + 1;
  }
  return number;
}

// Only for numbers of up to 128 bits.
uint128 Value(const Bigint* number) {
  EXPECT_LE(number->wds, 4);
  EXPECT_TRUE(number->wds == 1 || number->x[number->wds - 1] != 0);
  EXPECT_LE(number->wds, number->maxwds);
  uint128 value = 0;
  for (int i = number->wds - 1; i >= 0; --i) value = value << 32 | number->x[i];
  return value;
}

uint128 Value(const BigintPtr& number) {
  return Value(number.get());
}

class BigintTest : public ::testing::Test {
 protected:
  ~BigintTest() override { EXPECT_EQ(LiveBigints(), before); }
  // A number of up to that many bits; all sizes are equally likely.
  uint128 Random(int bits) {
    uint128 value = static_cast<uint128>(random()) << 64 | random();
    return value >> (128 - bits + static_cast<int>(random() % bits));
  }
  int before = LiveBigints();
  std::mt19937_64 random{20261121};
};

TEST_F(BigintTest, AllocationHasRoomForAPowerOfTwo) {
  for (int k = 0; k < 12; ++k) {
    BigintPtr number(Balloc(k));
    EXPECT_EQ(number->k, k);
    EXPECT_EQ(number->maxwds, 1 << k);
    EXPECT_EQ(number->sign, 0);
    EXPECT_EQ(number->wds, 0);
    for (int i = 0; i < number->maxwds; ++i) number->x[i] = ~0u;
  }
  Bfree(nullptr);
}

TEST_F(BigintTest, MultaddMultipliesAndGrows) {
  BigintPtr number(i2b(0));
  uint128 expected = 0;
  for (int i = 0; i < 38; ++i) {
    number.reset(multadd(number.release(), 10, i % 10));
    expected = expected * 10 + i % 10;
    ASSERT_EQ(Value(number), expected);
  }
  EXPECT_EQ(Value(BigintPtr(multadd(Make(7).release(), 0, 3))), 3u);
}

TEST_F(BigintTest, DigitsBecomeANumber) {
  const struct {
    const char* text;
    int before_point;
    int digits;
    uint32_t first_nine;
  } cases[] = {{"12345", 5, 5, 12345},
               {"123456789", 9, 9, 123456789},
               {"1234567890", 10, 10, 123456789},
               {"1234567.890123456789", 7, 19, 123456789},
               {"12345678901234.56789", 14, 19, 123456789},
               {"123456789.0", 9, 10, 123456789}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    uint128 expected = 0;
    for (const char* digit = c.text; *digit; ++digit) {
      if (*digit != '.') expected = expected * 10 + (*digit - '0');
    }
    BigintPtr number(s2b(c.text, c.before_point, c.digits, c.first_nine));
    EXPECT_EQ(Value(number), expected);
  }
}

TEST_F(BigintTest, ZeroBitsAreCounted) {
  EXPECT_EQ(hi0bits(0), 32);
  EXPECT_EQ(hi0bits(1), 31);
  EXPECT_EQ(hi0bits(0x80000000u), 0);
  EXPECT_EQ(hi0bits(0x00010000u), 15);
  const struct {
    uint32_t word;
    int zeros;
    uint32_t shifted;
  } cases[] = {{0, 32, 0}, {1, 0, 1}, {0x80000000u, 31, 1}, {0x00F0, 4, 0xF}, {6, 1, 3}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.word);
    uint32_t word = c.word;
    EXPECT_EQ(lo0bits(&word), c.zeros);
    EXPECT_EQ(word, c.shifted);
  }
}

TEST_F(BigintTest, ProductsOfRandomNumbers) {
  for (int i = 0; i < Rounds(10000); ++i) {
    uint128 a = Random(64);
    uint128 b = Random(64);
    BigintPtr product(mult(Make(a).get(), Make(b).get()));
    ASSERT_EQ(Value(product), a * b);
  }
}

TEST_F(BigintTest, PowersOfFive) {
  uint128 expected = 3;
  for (int k = 0; k <= 54; ++k, expected *= 5) {
    BigintPtr number(pow5mult(i2b(3), k));
    ASSERT_EQ(Value(number), expected) << k;
  }
  // 5^1000 = 5^600 * 5^400
  BigintPtr a(pow5mult(i2b(1), 600));
  BigintPtr b(pow5mult(i2b(1), 400));
  BigintPtr product(mult(a.get(), b.get()));
  BigintPtr whole(pow5mult(i2b(1), 1000));
  EXPECT_EQ(cmp(product.get(), whole.get()), 0);
}

TEST_F(BigintTest, ShiftsOfEveryWidth) {
  for (int k = 0; k < 100; ++k) {
    uint128 value = Random(128 - k);
    BigintPtr shifted(lshift(Make(value).release(), k));
    ASSERT_EQ(Value(shifted), value << k) << k;
  }
}

TEST_F(BigintTest, OrderAndDifference) {
  for (int i = 0; i < Rounds(10000); ++i) {
    uint128 a = Random(128);
    uint128 b = i % 3 ? Random(128) : a + (i % 5) - 2;
    BigintPtr left = Make(a);
    BigintPtr right = Make(b);
    int order = cmp(left.get(), right.get());
    ASSERT_EQ(order < 0 ? -1 : order > 0, a < b ? -1 : a > b);
    BigintPtr difference(diff(left.get(), right.get()));
    ASSERT_EQ(Value(difference), a < b ? b - a : a - b);
    ASSERT_EQ(difference->sign, a < b);
  }
}

TEST_F(BigintTest, UnitInTheLastPlace) {
  EXPECT_EQ(ulp(1.0), 0x1p-52);
  EXPECT_EQ(ulp(-1.5), 0x1p-52);
  EXPECT_EQ(ulp(std::nextafter(2.0, 0.0)), 0x1p-52);
  EXPECT_EQ(ulp(2.0), 0x1p-51);
  EXPECT_EQ(ulp(0x1p-1022), 0x1p-1074);
  EXPECT_EQ(ulp(0x1p-1074), 0x1p-1074);
  EXPECT_EQ(ulp(0x1.fffffffffffffp1023), 0x1p971);
}

TEST_F(BigintTest, DoublesAreTakenApart) {
  for (int i = 0; i < Rounds(10000); ++i) {
    double value = std::ldexp(static_cast<double>(random() >> 11 | 1),
                              static_cast<int>(random() % 2000) - 1074);
    if (value == 0 || std::isinf(value)) continue;
    int exponent;
    int bits;
    BigintPtr number(d2b(value, &exponent, &bits));
    auto whole = static_cast<uint64_t>(Value(number));
    ASSERT_EQ(whole & 1, 1u);
    ASSERT_EQ(std::bit_width(whole), bits);
    ASSERT_EQ(std::ldexp(static_cast<double>(whole), exponent), value);
  }
}

TEST_F(BigintTest, LeadingBitsBecomeADouble) {
  for (int i = 0; i < Rounds(10000); ++i) {
    uint128 value = Random(128) | 1;
    BigintPtr number = Make(value);
    int bits;
    double leading = b2d(number.get(), &bits);
    ASSERT_GE(leading, 1.0);
    ASSERT_LT(leading, 2.0);
    ASSERT_EQ(bits, 32 - hi0bits(number->x[number->wds - 1]));
    int width = bits + 32 * (number->wds - 1);
    uint64_t top = width > 53 ? static_cast<uint64_t>(value >> (width - 53))
                              : static_cast<uint64_t>(value) << (53 - width);
    ASSERT_EQ(std::ldexp(leading, 52), static_cast<double>(top));
  }
}

TEST_F(BigintTest, RatioIsNearlyTheQuotient) {
  for (int i = 0; i < Rounds(10000); ++i) {
    uint128 a = Random(128) | 1;
    uint128 b = Random(128) | 1;
    double expected = static_cast<double>(a) / static_cast<double>(b);
    ASSERT_NEAR(ratio(Make(a).get(), Make(b).get()) / expected, 1.0, 1e-15);
  }
}

TEST_F(BigintTest, QuotientAndRest) {
  for (int i = 0; i < Rounds(20000); ++i) {
    uint128 divisor = Random(124) | 1;
    // Every quotient, with the remainder at its bounds and between.
    uint128 rest = i % 3 == 0 ? 0 : i % 3 == 1 ? divisor - 1 : Random(124) % divisor;
    auto quotient = static_cast<unsigned>(random() % 10);
    BigintPtr number = Make(divisor * quotient + rest);
    ASSERT_EQ(quorem(number.get(), Make(divisor).get()), static_cast<int>(quotient));
    ASSERT_EQ(Value(number), rest);
  }
}

TEST_F(BigintTest, TablesHoldThePowersOfTen) {
  double power = 1;
  for (double entry : _tens) {
    EXPECT_EQ(entry, power);
    power *= 10;
  }
  for (int i = 0; i < 5; ++i) EXPECT_EQ(_bigtens[i], std::pow(10.0, 16 << i));
}

}  // namespace
