// The classes of bytes in the "C" locale: letters and their case, digits, white space. The engine's
// names, tags and number texts never depend on the locale of the process, which a library may
// change. Bytes of 128 and above belong to no class. Tested in tests/base/core/AsciiTest.cpp.

#ifndef ZEPH_BASE_ASCII_H
#define ZEPH_BASE_ASCII_H

#include <cstdint>

inline constexpr unsigned char zp_tolower(unsigned char c) {
  return static_cast<unsigned char>(c + (static_cast<unsigned char>(c - 'A') < 26 ? 32 : 0));
}

inline constexpr unsigned char zp_toupper(unsigned char c) {
  return static_cast<unsigned char>(c - (static_cast<unsigned char>(c - 'a') < 26 ? 32 : 0));
}

inline constexpr bool zp_isdigit(unsigned char c) {
  return static_cast<unsigned char>(c - '0') < 10;
}

inline constexpr bool zp_isalpha(unsigned char c) {
  return static_cast<unsigned char>((c | 0x20) - 'a') < 26;
}

// The value of a hexadecimal digit, -1 for another byte.
inline constexpr int zp_hexvalue(unsigned char c) {
  if (zp_isdigit(c)) return c - '0';
  const int letter = (c | 0x20) - 'a';
  return letter >= 0 && letter < 6 ? letter + 10 : -1;
}

// Tab, line feed, vertical tab, form feed, carriage return and blank.
inline constexpr bool zp_isspace(unsigned char c) {
  return c == ' ' || static_cast<unsigned char>(c - '\t') < 5;
}

// Tab, line feed, carriage return and blank: the white space of expressions and of String's trims,
// for which vertical tab and form feed are content.
inline constexpr bool zp_iswhite(unsigned char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// zp_tolower of the eight bytes of a word at once. The two sums carry into the top bit of a byte
// when it is at least 'A', and when it is above 'Z'; they cannot carry into the next byte.
inline constexpr uint64_t zp_tolower_word(uint64_t word) {
  constexpr uint64_t ones = 0x0101010101010101u;
  uint64_t low = word & (ones * 0x7F);
  uint64_t at_least_a = low + ones * (0x80 - 'A');
  uint64_t above_z = low + ones * (0x7F - 'Z');
  uint64_t upper = (at_least_a ^ above_z) & ~word & (ones * 0x80);
  return word | (upper >> 2);
}

#endif
