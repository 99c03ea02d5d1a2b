// Doubles to decimal digits, by two ways that give the same result. Nearly every value takes the
// fast way: the shortest digits, which the standard library finds without big integers, are the
// result or can be cut to it. Values that it cannot decide are converted with big integers, digit
// by digit. Tested in tests/base/core/DtoaTest.cpp, which compares the two.

#include "base/core/dtoa.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "base/core/bigint.h"

namespace {

constexpr int kNotFinite = 9999;

// The caller's request, in one form for all modes.
struct Request {
  bool shortest;   // the digits of mode 0 are the result if there are not too many
  bool half_even;  // a neighbour's bound belongs to the interval that reads back (not mode 1)
  bool places;     // digits counts places after the point
  bool unlimited;  // modes 0 and 1
  int digits;
  int room;  // the most digits that fit the buffer

  Request(int mode, int wanted, int size)
      : shortest(mode != 2 && mode != 3),
        half_even(mode != 1),
        places(mode == 3 || mode == 5),
        unlimited(mode < 2),
        digits(std::clamp(wanted, -1000000000, 1000000000)),
        room(size - 1) {}

  // The most digits to give if the first of them counts 10^k. 0: there is a digit only if the value
  // is rounded up. Negative: there is none.
  int Limit(int k) const {
    if (unlimited) return room;
    return std::min(places ? digits + k + 1 : std::max(digits, 1), room);
  }
};

// Digits under construction; the first counts 10^k.
struct Digits {
  char* text;
  int count;
  int k;

  // Adds 1 to the last digit.
  void RoundUp() {
    while (count > 0 && text[count - 1] == '9') --count;
    if (count > 0) {
      ++text[count - 1];
    } else {
      text[count++] = '1';
      ++k;
    }
  }
  void StripZeros() {
    while (count > 0 && text[count - 1] == '0') --count;
  }
  // The result if the value rounds to nothing at that many places.
  void SetNothing(int places) {
    count = 0;
    k = -1 - places;
  }
};

// Rounds the digits to a lesser count. Correct only if the value is on the same side of the halfway
// point as these digits are.
void Cut(Digits& result, int limit, int places) {
  if (limit < 0) {
    result.SetNothing(places);
    return;
  }
  char next = result.text[limit];
  bool tie = next == '5' && limit + 1 == result.count;
  bool odd = limit > 0 && (result.text[limit - 1] & 1);
  bool up = tie ? odd : next >= '5';
  result.count = limit;
  if (up) {
    result.RoundUp();
  } else if (limit == 0) {
    result.SetNothing(places);
  } else {
    result.StripZeros();
  }
}

// --- The fast way --------------------------------------------------------------------------------

// An integer of up to 15 digits is its own shortest text.
bool IsSmallInteger(double value) {
  return value < 1e15 && value == static_cast<double>(static_cast<int64_t>(value));
}

void IntegerDigits(Digits& result, int64_t value) {
  char* end = std::to_chars(result.text, result.text + 16, value).ptr;
  result.count = static_cast<int>(end - result.text);
  result.k = result.count - 1;
  result.StripZeros();
}

void ShortestDigits(Digits& result, double value) {
  char text[32];
  const char* end =
      std::to_chars(text, text + sizeof text, value, std::chars_format::scientific).ptr;
  const char* mark = std::find(static_cast<const char*>(text), end, 'e');
  result.text[0] = text[0];
  result.count = 1;
  for (const char* digit = text + 2; digit < mark; ++digit) result.text[result.count++] = *digit;
  const char* exponent = mark + 1;
  if (*exponent == '+') ++exponent;
  std::from_chars(exponent, end, result.k);
}

// Returns false if only the exact value can decide: more digits are requested than the shortest
// text has, or that text ends in a 5 just where it would be cut, and the value may be on either
// side of it. No other cut is in doubt: a halfway point between the value and its shortest text
// would itself be a text as short that reads back as the value, and a nearer one.
bool ConvertFast(const Request& request, double value, Digits& result) {
  if (!request.half_even || request.room < 17) return false;
  bool exact = IsSmallInteger(value);
  if (exact) {
    IntegerDigits(result, static_cast<int64_t>(value));
  } else {
    ShortestDigits(result, value);
  }
  int limit = request.Limit(result.k);
  if (limit >= result.count) return exact || request.shortest;
  if (!exact && limit >= 0 && limit + 1 == result.count && result.text[limit] == '5') return false;
  Cut(result, limit, request.digits);
  return true;
}

// --- The exact way -------------------------------------------------------------------------------

void Times10(BigintPtr& number) {
  number.reset(multadd(number.release(), 10, 0));
}

// The value as the fraction rest / scale, and on the same scale the distances halfway to its
// neighbours, of which the lower one is nearer at a power of two.
struct Fraction {
  BigintPtr rest;
  BigintPtr scale;
  BigintPtr below;
  BigintPtr above;  // null while it equals below

  const Bigint* Above() const { return above ? above.get() : below.get(); }

  // The order of rest + above against the scale.
  int CompareAbove() const {
    BigintPtr gap(diff(scale.get(), Above()));
    return gap->sign ? 1 : cmp(rest.get(), gap.get());
  }
  // The order of the rest against half the scale.
  int CompareHalf() const {
    BigintPtr doubled(Balloc(rest->k));
    doubled->wds = rest->wds;
    memcpy(doubled->x, rest->x, sizeof(uint32_t) * rest->wds);
    doubled.reset(lshift(doubled.release(), 1));
    return cmp(doubled.get(), scale.get());
  }
  void NextDigit() {
    Times10(rest);
    Times10(below);
    if (above) Times10(above);
  }
};

// Sets the fraction up so that its first digit counts 10^k, and returns k.
int SetUp(Fraction& fraction, double value) {
  int exponent;
  int bits;
  fraction.rest.reset(d2b(value, &exponent, &bits));
  // Half a unit of the last binary place is 2^half; below is a quarter at a power of two.
  int half = std::max(exponent + bits - 1, -1022) - 53;
  bool uneven = bits == 1 && exponent > -1022;
  int lowest = uneven ? half - 1 : half;

  // At most one too large: the error of the logarithm is far less than the term added.
  int k = static_cast<int>(std::floor(std::log10(value) + 1e-10));
  int rest_shift = exponent - lowest + std::max(lowest, 0);
  int below_shift = std::max(lowest, 0);
  int scale_shift = std::max(-lowest, 0);
  (k < 0 ? rest_shift : scale_shift) += std::abs(k);
  if (k < 0) below_shift += -k;
  fraction.scale.reset(pow5mult(i2b(1), std::max(k, 0)));
  fraction.rest.reset(pow5mult(fraction.rest.release(), std::max(-k, 0)));
  fraction.below.reset(pow5mult(i2b(1), std::max(-k, 0)));

  // Removes common factors of two, and gives the scale's highest word the 28 bits with which quorem
  // is fast.
  int common = std::min({rest_shift, below_shift, scale_shift});
  int scale_bits = 32 - hi0bits(fraction.scale->x[fraction.scale->wds - 1]) + scale_shift - common;
  int normalise = (28 - scale_bits) & 31;
  int shift = normalise - common;
  fraction.rest.reset(lshift(fraction.rest.release(), rest_shift + shift));
  fraction.scale.reset(lshift(fraction.scale.release(), scale_shift + shift));
  fraction.below.reset(lshift(fraction.below.release(), below_shift + shift));
  if (uneven) {
    BigintPtr two(i2b(2));
    fraction.above.reset(mult(fraction.below.get(), two.get()));
  }
  if (cmp(fraction.rest.get(), fraction.scale.get()) < 0) {
    fraction.NextDigit();
    --k;
  }
  return k;
}

// Whether the digits so far, followed by this digit or by the next greater one, already read back
// as the value. If so, appends the digit that does, or the nearer of the two if both do.
bool EndShortest(const Fraction& fraction, const Request& request, bool even, int digit,
                 Digits& result) {
  int low = cmp(fraction.rest.get(), fraction.below.get());
  int high = fraction.CompareAbove();
  bool bound_counts = even && request.half_even;
  bool low_ends = low < 0 || (low == 0 && bound_counts);
  bool high_ends = high > 0 || (high == 0 && bound_counts);
  if (!low_ends && !high_ends) return false;
  bool up = high_ends;
  if (low_ends && high_ends) {
    int half = fraction.CompareHalf();
    up = half > 0 || (half == 0 && (digit & 1));
  }
  result.text[result.count++] = static_cast<char>('0' + digit);
  if (up) result.RoundUp();
  return true;
}

// Makes digits one by one, until nothing is left, the limit is reached, or they read back as the
// value.
void Generate(Fraction& fraction, const Request& request, bool even, int limit, Digits& result) {
  for (;;) {
    int digit = quorem(fraction.rest.get(), fraction.scale.get());
    if (request.shortest && EndShortest(fraction, request, even, digit, result)) return;
    result.text[result.count++] = static_cast<char>('0' + digit);
    if (result.count == limit) break;
    if (fraction.rest->wds == 1 && fraction.rest->x[0] == 0) {
      result.StripZeros();
      return;
    }
    fraction.NextDigit();
  }
  int half = fraction.CompareHalf();
  if (half > 0 || (half == 0 && (result.text[result.count - 1] & 1))) {
    result.RoundUp();
  } else {
    result.StripZeros();
  }
}

void ConvertExactly(const Request& request, double value, Digits& result) {
  Fraction fraction;
  result.count = 0;
  result.k = SetUp(fraction, value);
  int limit = request.Limit(result.k);
  if (limit > 0) {
    bool even = (std::bit_cast<uint64_t>(value) & 1) == 0;
    Generate(fraction, request, even, limit, result);
    return;
  }
  // At limit 0 the value is less than one unit of the last place: it rounds up to that unit if it
  // is more than half of it, else to nothing.
  if (limit == 0) {
    fraction.scale.reset(multadd(fraction.scale.release(), 5, 0));
    if (cmp(fraction.rest.get(), fraction.scale.get()) > 0) {
      result.RoundUp();
      return;
    }
  }
  result.SetNothing(request.digits);
}

// Writes a word instead of digits, as much of it as there is room for.
int PutWord(char* buffer, int size, const char* text) {
  int count = std::min(static_cast<int>(strlen(text)), size - 1);
  memcpy(buffer, text, count);
  buffer[count] = 0;
  return count;
}

}  // namespace

int dtoa(char* buffer, int size, int mode, int digits, int* decimal_point, int* sign,
         double value) {
  *sign = std::signbit(value);
  *decimal_point = std::isfinite(value) ? 1 : kNotFinite;
  if (size < 1) return 0;
  if (!std::isfinite(value)) return PutWord(buffer, size, std::isnan(value) ? "NaN" : "Infinity");
  if (value == 0) return PutWord(buffer, size, "0");
  buffer[0] = 0;
  if (size == 1) return 0;

  bool exact_way = mode >= 6 && mode <= 9;
  if (exact_way) mode -= 4;
  Request request(mode < 0 || mode > 5 ? 0 : mode, digits, size);
  Digits result = {buffer, 0, 0};
  value = std::fabs(value);
  if (exact_way || !ConvertFast(request, value, result)) ConvertExactly(request, value, result);
  buffer[result.count] = 0;
  *decimal_point = result.k + 1;
  return result.count;
}
