// Letter case and white space of the "C" locale. The engine's names, tags and number texts never
// depend on the locale of the process, which a library may change. Bytes of 128 and above are not
// letters.

#ifndef ZEPH_BASE_ASCII_H
#define ZEPH_BASE_ASCII_H

#include <bit>
#include <cstdint>
#include <cstring>

inline constexpr unsigned char zp_tolower(unsigned char c) {
  return static_cast<unsigned char>(c + (static_cast<unsigned char>(c - 'A') < 26 ? 32 : 0));
}

inline constexpr unsigned char zp_toupper(unsigned char c) {
  return static_cast<unsigned char>(c - (static_cast<unsigned char>(c - 'a') < 26 ? 32 : 0));
}

// Tab, line feed, vertical tab, form feed, carriage return and blank.
inline constexpr bool zp_isspace(unsigned char c) {
  return c == ' ' || static_cast<unsigned char>(c - '\t') < 5;
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

// The first four or eight bytes as a little-endian number, at any alignment.
inline uint32_t zp_load32(const void* bytes) {
  uint32_t word;
  memcpy(&word, bytes, sizeof word);
  if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap32(word);
  return word;
}

inline uint64_t zp_load64(const void* bytes) {
  uint64_t word;
  memcpy(&word, bytes, sizeof word);
  if constexpr (std::endian::native == std::endian::big) word = __builtin_bswap64(word);
  return word;
}

#endif
