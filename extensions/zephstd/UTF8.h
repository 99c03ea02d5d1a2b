// Characters of texts that may have any bytes: a byte that is no part of UTF-8 is a character of
// its own. Tested in tests/extensions/zephstd/TextTest.cpp.

#ifndef ZEPH_EXTENSIONS_ZEPHSTD_UTF8_H
#define ZEPH_EXTENSIONS_ZEPHSTD_UTF8_H

#include <string_view>

namespace zephstd {

struct Character {
  int code;    // -1 for a byte that is no UTF-8
  int length;  // bytes, at least 1
};

// The character at the beginning of a text. REQUIRES: the text is not empty.
inline Character FirstCharacter(std::string_view text) {
  const auto byte = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
  const auto follows = [&](size_t i) { return (byte(i) & 0xC0) == 0x80; };
  const int first = byte(0);
  if (first < 0x80) return {first, 1};
  const size_t left = text.size();
  if (first >= 0xC2 && first < 0xE0) {
    if (left >= 2 && follows(1)) return {(first & 0x1F) << 6 | (byte(1) & 0x3F), 2};
  } else if (first >= 0xE0 && first < 0xF0) {
    if (left >= 3 && follows(1) && follows(2)) {
      const int code = (first & 0x0F) << 12 | (byte(1) & 0x3F) << 6 | (byte(2) & 0x3F);
      // Longer forms than needed, and halves of pairs.
      if (code >= 0x800 && (code < 0xD800 || code > 0xDFFF)) return {code, 3};
    }
  } else if (first >= 0xF0 && first < 0xF5) {
    if (left >= 4 && follows(1) && follows(2) && follows(3)) {
      const int code =
          (first & 0x07) << 18 | (byte(1) & 0x3F) << 12 | (byte(2) & 0x3F) << 6 | (byte(3) & 0x3F);
      if (code >= 0x10000 && code <= 0x10FFFF) return {code, 4};
    }
  }
  return {-1, 1};
}

// Writes a character to four bytes; returns how many it has. REQUIRES: 0 to 0x10FFFF, no half of a
// pair.
int WriteCharacter(int code, char* to);

// The number of characters.
long long CountCharacters(std::string_view text);
// The byte at which the character of that number begins, from 0 on; the length past the end.
size_t ByteOfCharacter(std::string_view text, long long number);
// The byte at which the last `count` characters begin; 0 if there are not so many.
size_t ByteOfLast(std::string_view text, long long count);
// The byte at which the last character begins. REQUIRES: the text is not empty.
size_t LastCharacter(std::string_view text);
bool IsUTF8(std::string_view text);

// Whether it is white space in Unicode.
bool IsSpace(int code);

}  // namespace zephstd

#endif
