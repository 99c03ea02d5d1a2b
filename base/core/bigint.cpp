// Integers of any size for exact conversions. Tested in tests/base/core/BigintTest.cpp.

#include "base/core/bigint.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

const double _tens[23] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                          1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
const double _bigtens[5] = {1e16, 1e32, 1e64, 1e128, 1e256};

namespace {

std::atomic<int> live_bigints{0};

// The least k for which 2^k words hold that many.
int RoomFor(int words) {
  return words <= 1 ? 0 : std::bit_width(static_cast<unsigned>(words - 1));
}

void Trim(Bigint* b) {
  while (b->wds > 1 && b->x[b->wds - 1] == 0) --b->wds;
}

// Adds a carry as a new highest word.
BigintPtr Append(BigintPtr b, uint32_t word) {
  if (b->wds == b->maxwds) {
    BigintPtr larger(Balloc(b->k + 1));
    memcpy(larger->x, b->x, sizeof(uint32_t) * b->wds);
    larger->sign = b->sign;
    larger->wds = b->wds;
    b = std::move(larger);
  }
  b->x[b->wds++] = word;
  return b;
}

// b -= q * S, for a result that is not negative.
void SubtractMultiple(Bigint* b, const Bigint* S, uint32_t q) {
  uint64_t carry = 0;
  int64_t borrow = 0;
  for (int i = 0; i < b->wds; ++i) {
    carry += i < S->wds ? static_cast<uint64_t>(S->x[i]) * q : 0;
    borrow += static_cast<int64_t>(b->x[i]) - static_cast<int64_t>(carry & 0xFFFFFFFFu);
    b->x[i] = static_cast<uint32_t>(borrow);
    borrow >>= 32;
    carry >>= 32;
  }
  Trim(b);
}

}  // namespace

int LiveBigints() {
  return live_bigints.load(std::memory_order_relaxed);
}

Bigint* Balloc(int k) {
  size_t words = size_t{1} << k;
  auto number = static_cast<Bigint*>(malloc(sizeof(Bigint) + (words - 1) * sizeof(uint32_t)));
  if (!number) throw std::bad_alloc();
  live_bigints.fetch_add(1, std::memory_order_relaxed);
  number->k = k;
  number->maxwds = static_cast<int>(words);
  number->sign = 0;
  number->wds = 0;
  return number;
}

void Bfree(Bigint* number) {
  if (!number) return;
  live_bigints.fetch_sub(1, std::memory_order_relaxed);
  free(number);
}

Bigint* multadd(Bigint* b, int m, int a) {
  BigintPtr result(b);
  uint64_t carry = static_cast<uint64_t>(a);
  for (int i = 0; i < b->wds; ++i) {
    carry += static_cast<uint64_t>(b->x[i]) * static_cast<uint32_t>(m);
    b->x[i] = static_cast<uint32_t>(carry);
    carry >>= 32;
  }
  if (carry) result = Append(std::move(result), static_cast<uint32_t>(carry));
  Trim(result.get());
  return result.release();
}

Bigint* s2b(const char* s, int nd0, int nd, uint32_t y9) {
  // Nine digits fit a word.
  BigintPtr b(Balloc(RoomFor((nd + 8) / 9)));
  b->x[0] = y9;
  b->wds = 1;
  for (int i = 9; i < nd; ++i) {
    char digit = s[i < nd0 ? i : i + 1];
    b.reset(multadd(b.release(), 10, digit - '0'));
  }
  return b.release();
}

int hi0bits(uint32_t x) {
  return std::countl_zero(x);
}

int lo0bits(uint32_t* y) {
  int zeros = std::countr_zero(*y);
  if (zeros < 32) *y >>= zeros;
  return zeros;
}

Bigint* i2b(int i) {
  Bigint* b = Balloc(1);
  b->x[0] = static_cast<uint32_t>(i);
  b->wds = 1;
  return b;
}

Bigint* mult(const Bigint* a, const Bigint* b) {
  if (a->wds < b->wds) std::swap(a, b);
  int words = a->wds + b->wds;
  Bigint* product = Balloc(RoomFor(words));
  product->wds = words;
  memset(product->x, 0, sizeof(uint32_t) * words);
  for (int j = 0; j < b->wds; ++j) {
    uint64_t factor = b->x[j];
    if (factor == 0) continue;
    uint64_t carry = 0;
    for (int i = 0; i < a->wds; ++i) {
      carry += a->x[i] * factor + product->x[i + j];
      product->x[i + j] = static_cast<uint32_t>(carry);
      carry >>= 32;
    }
    product->x[j + a->wds] = static_cast<uint32_t>(carry);
  }
  Trim(product);
  return product;
}

Bigint* pow5mult(Bigint* b, int k) {
  static constexpr int kSmallPowers[4] = {1, 5, 25, 125};
  BigintPtr result(b);
  if (k & 3) result.reset(multadd(result.release(), kSmallPowers[k & 3], 0));
  if (!(k >>= 2)) return result.release();
  for (BigintPtr power(i2b(625));; power.reset(mult(power.get(), power.get()))) {
    if (k & 1) result.reset(mult(result.get(), power.get()));
    if (!(k >>= 1)) return result.release();
  }
}

Bigint* lshift(Bigint* b, int k) {
  BigintPtr owned(b);
  int words = k >> 5;
  int shift = k & 31;
  BigintPtr result(Balloc(RoomFor(b->wds + words + 1)));
  memset(result->x, 0, sizeof(uint32_t) * words);
  uint64_t carry = 0;
  for (int i = 0; i < b->wds; ++i) {
    carry |= static_cast<uint64_t>(b->x[i]) << shift;
    result->x[words + i] = static_cast<uint32_t>(carry);
    carry >>= 32;
  }
  result->wds = b->wds + words;
  if (carry) result->x[result->wds++] = static_cast<uint32_t>(carry);
  Trim(result.get());
  return result.release();
}

int cmp(const Bigint* a, const Bigint* b) {
  if (a->wds != b->wds) return a->wds - b->wds;
  for (int i = a->wds - 1; i >= 0; --i) {
    if (a->x[i] != b->x[i]) return a->x[i] < b->x[i] ? -1 : 1;
  }
  return 0;
}

Bigint* diff(const Bigint* a, const Bigint* b) {
  int sign = cmp(a, b) < 0;
  if (sign) std::swap(a, b);
  Bigint* result = Balloc(a->k);
  memcpy(result->x, a->x, sizeof(uint32_t) * a->wds);
  result->wds = a->wds;
  result->sign = sign;
  SubtractMultiple(result, b, 1);
  return result;
}

double ulp(double x) {
  x = std::fabs(x);
  // For the greatest double, whose next one is infinite, the distance to the next lesser one is
  // used.
  double next = std::nextafter(x, HUGE_VAL);
  return std::isinf(next) ? x - std::nextafter(x, 0.0) : next - x;
}

double b2d(const Bigint* a, int* e) {
  // 64 leading bits, cut to the 53 of a double; the words after them never matter.
  int top = a->wds - 1;
  int zeros = hi0bits(a->x[top]);
  uint64_t high = static_cast<uint64_t>(a->x[top]) << 32 | (top >= 1 ? a->x[top - 1] : 0);
  uint64_t bits = high << zeros;
  if (zeros > 0 && top >= 2) bits |= a->x[top - 2] >> (32 - zeros);
  *e = 32 - zeros;
  return std::ldexp(static_cast<double>(bits >> 11), -52);
}

Bigint* d2b(double d, int* e, int* bits) {
  uint64_t raw = std::bit_cast<uint64_t>(d);
  uint64_t fraction = raw & ((uint64_t{1} << 52) - 1);
  int exponent = static_cast<int>(raw >> 52 & 0x7FF);
  if (exponent > 0) {
    fraction |= uint64_t{1} << 52;
  } else {
    exponent = 1;
  }
  int zeros = std::countr_zero(fraction);
  fraction >>= zeros;
  Bigint* b = Balloc(1);
  b->x[0] = static_cast<uint32_t>(fraction);
  b->x[1] = static_cast<uint32_t>(fraction >> 32);
  b->wds = b->x[1] ? 2 : 1;
  *e = exponent - 1075 + zeros;
  *bits = std::bit_width(fraction);
  return b;
}

double ratio(const Bigint* a, const Bigint* b) {
  int a_bits;
  int b_bits;
  double quotient = b2d(a, &a_bits) / b2d(b, &b_bits);
  return std::ldexp(quotient, a_bits - b_bits + 32 * (a->wds - b->wds));
}

int quorem(Bigint* b, const Bigint* S) {
  if (b->wds < S->wds) return 0;
  uint64_t high = b->x[b->wds - 1];
  if (b->wds > S->wds) high = high << 32 | b->x[b->wds - 2];
  // Never too large, because the divisor's highest word is counted as one more.
  uint32_t q = static_cast<uint32_t>(high / (static_cast<uint64_t>(S->x[S->wds - 1]) + 1));
  if (q > 0) SubtractMultiple(b, S, q);
  while (cmp(b, S) >= 0) {
    ++q;
    SubtractMultiple(b, S, 1);
  }
  return static_cast<int>(q);
}
