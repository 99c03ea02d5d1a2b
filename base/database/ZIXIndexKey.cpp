// Compares keys as numbers or as bytes. Tested in tests/base/database/ZIXIndexKeyTest.cpp.

#include "base/database/ZIXIndexKey.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include "base/core/CLocale.h"
#include "base/core/ascii.h"

namespace {

const char* Chars(const unsigned char* text) {
  return reinterpret_cast<const char*>(text);
}

// Reads numbers of up to 15 digits, with a point or without. Nearly all numbers among keys are of
// this kind, and strtod is slow. The digits as a whole number and the power of ten are both exact,
// so their quotient is the double nearest to the number, which is what strtod gives.
bool ReadDigits(const unsigned char* text, double* value) {
  static constexpr double kPowers[] = {1e0, 1e1, 1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                       1e8, 1e9, 1e10, 1e11, 1e12, 1e13, 1e14, 1e15};
  const bool negative = *text == '-';
  if (negative) text++;
  long sum = 0;
  int digits = 0;
  int before_point = -1;
  for (; digits <= 15; text++) {
    if (zp_isdigit(*text)) {
      sum = sum * 10 + *text - '0';
      digits++;
    } else if (*text == '.' && before_point < 0) {
      before_point = digits;
    } else {
      break;
    }
  }
  if (*text != 0 || digits == 0 || digits > 15) return false;
  *value = static_cast<double>(sum);
  if (before_point >= 0) *value /= kPowers[digits - before_point];
  if (negative) *value = -*value;
  return true;
}

// False if strtod can't find a number: it needs white space, a sign, a digit, a point, "inf" or
// "nan".
bool MayBeNumber(unsigned char first) {
  return first <= '9' || (first | 0x20) == 'i' || (first | 0x20) == 'n';
}

int Turned(int order, unsigned flags) {
  return flags & ZIXIndex_Descending ? -order : order;
}

}  // namespace

ZIXIndexOrder::Number ZIXIndexOrder::Read(const unsigned char* text) {
  Number number = {0.0, false, false};
  if (ReadDigits(text, &number.value)) {
    number.whole = true;
    return number;
  }
  if (!MayBeNumber(*text)) return number;
  char* end = nullptr;
  errno = 0;
  number.value = strtod_l(Chars(text), &end, CLocale());
  number.whole = *end == 0;
  number.out_of_range = errno == ERANGE;
  return number;
}

int ZIXIndexOrder::NumberCompare(const Number& a, const unsigned char* text) {
  if (!a.whole || (std::isinf(a.value) && a.out_of_range)) return kNotNumbers;
  const Number b = Read(text);
  if (!b.whole || (std::isinf(a.value) && b.out_of_range)) return kNotNumbers;
  if (a.value == b.value) return 0;
  return a.value > b.value ? 1 : -1;
}

ZIXIndexKey::ZIXIndexKey(const unsigned char* text, int length, int keysize, unsigned flags)
    : flags(flags) {
  const size_t room = static_cast<size_t>(std::max(keysize - 1, 0));
  const size_t given = !text ? 0 : length < 0 ? room : static_cast<size_t>(length);
  const size_t kept = text ? strnlen(Chars(text), std::min(given, room)) : 0;
  if (kept >= sizeof(local)) {
    heap.reset(new unsigned char[kept + 1]);
    copy = heap.get();
  }
  if (kept > 0) memcpy(copy, text, kept);
  copy[kept] = 0;
  if (!(flags & ZIXIndex_Text)) number = ZIXIndexOrder::Read(copy);
}

int ZIXIndexKey::Compare(const unsigned char* entry) const {
  int order = ZIXIndexOrder::kNotNumbers;
  if (!(flags & ZIXIndex_Text)) order = ZIXIndexOrder::NumberCompare(number, entry);
  if (order == ZIXIndexOrder::kNotNumbers) order = strcmp(Chars(copy), Chars(entry));
  return Turned(order, flags);
}

int ZIXIndexKey::ComparePrefix(const unsigned char* entry) const {
  return Turned(strncmp(Chars(copy), Chars(entry), strlen(Chars(copy))), flags);
}
