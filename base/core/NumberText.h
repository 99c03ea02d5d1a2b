// Integers as decimal text, two digits at a time, into memory of the caller. The integers of pages
// are mostly small, so small ones are written in line. Tested in
// tests/base/core/NumberTextTest.cpp.

#ifndef ZEPH_BASE_NUMBERTEXT_H
#define ZEPH_BASE_NUMBERTEXT_H

#include <charconv>
#include <cstdint>
#include <cstring>

// The most bytes of an int, and of an unsigned number of 64 bits.
inline constexpr int kLongestInteger = 11;
inline constexpr int kLongestUnsigned = 20;

// The texts "00" to "99", one after the other.
struct DigitPairs {
  char text[200];
  constexpr DigitPairs() : text() {
    char* to = text;
    for (int i = 0; i < 100; i++) {
      *to++ = static_cast<char>('0' + i / 10);
      *to++ = static_cast<char>('0' + i % 10);
    }
  }
};
inline constexpr DigitPairs kDigitPairs;

// Writes two digits. REQUIRES: a number below 100.
inline char* WritePair(char* to, uint64_t number) {
  memcpy(to, kDigitPairs.text + 2 * number, 2);
  return to + 2;
}

// Writes a number and returns the end of the text; no NUL is written. REQUIRES: room for
// kLongestUnsigned bytes.
inline char* WriteUnsigned(char* to, uint64_t number) {
  if (number >= 10000) [[unlikely]]
    return std::to_chars(to, to + kLongestUnsigned, number).ptr;
  const auto small = static_cast<unsigned>(number);
  const unsigned high = small / 100;
  if (high == 0) {
    if (small >= 10) return WritePair(to, small);
    *to = static_cast<char>('0' + small);
    return to + 1;
  }
  if (high >= 10) {
    to = WritePair(to, high);
  } else {
    *to++ = static_cast<char>('0' + high);
  }
  return WritePair(to, small % 100);
}

// The same with a sign. REQUIRES: room for kLongestInteger bytes.
inline char* WriteInteger(char* to, int number) {
  if (static_cast<unsigned>(number) >= 10000) [[unlikely]]
    return std::to_chars(to, to + kLongestInteger, number).ptr;
  return WriteUnsigned(to, static_cast<unsigned>(number));
}

// Writes exactly count digits, with zeros in front. REQUIRES: a number below 10 to the count.
inline char* WriteDigits(char* to, uint64_t number, int count) {
  char* const end = to + count;
  char* at = end;
  for (; count >= 2; count -= 2) {
    at -= 2;
    WritePair(at, number % 100);
    number /= 100;
  }
  if (count > 0) *to = static_cast<char>('0' + number);
  return end;
}

#endif
