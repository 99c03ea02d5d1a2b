// Equality and copies of texts, made for names and words, which are short.

#ifndef ZEPH_BASE_SAMEBYTES_H
#define ZEPH_BASE_SAMEBYTES_H

#include <cstddef>
#include <cstdint>
#include <cstring>

// Whether the first words and the last words of both texts are equal. Together the two words cover
// any length from one word to two.
template <typename Word>
inline bool SameEnds(const char* a, const char* b, size_t length) {
  Word first_a, first_b, last_a, last_b;
  memcpy(&first_a, a, sizeof(Word));
  memcpy(&first_b, b, sizeof(Word));
  memcpy(&last_a, a + length - sizeof(Word), sizeof(Word));
  memcpy(&last_b, b + length - sizeof(Word), sizeof(Word));
  return ((first_a ^ first_b) | (last_a ^ last_b)) == 0;
}

// memcmp(a, b, length) == 0, in line for up to 16 bytes. With a length of 0 nothing is read.
inline bool SameBytes(const char* a, const char* b, size_t length) {
  if (length > 2 * sizeof(uint64_t)) return memcmp(a, b, length) == 0;
  if (length >= sizeof(uint64_t)) return SameEnds<uint64_t>(a, b, length);
  if (length >= sizeof(uint32_t)) return SameEnds<uint32_t>(a, b, length);
  if (length >= sizeof(uint16_t)) return SameEnds<uint16_t>(a, b, length);
  return length == 0 || *a == *b;
}

// Copies the first word and the last. They may overlap, so both are read before one is written.
template <typename Word>
inline void CopyEnds(char* to, const char* from, size_t length) {
  Word first, last;
  memcpy(&first, from, sizeof(Word));
  memcpy(&last, from + length - sizeof(Word), sizeof(Word));
  memcpy(to, &first, sizeof(Word));
  memcpy(to + length - sizeof(Word), &last, sizeof(Word));
}

// memmove(to, from, length), in line for up to 16 bytes: most values of scripts are as short, and
// for those the call costs more than the copy. With a length of 0 nothing is read.
inline void CopyBytes(char* to, const char* from, size_t length) {
  if (length > 2 * sizeof(uint64_t)) {
    memmove(to, from, length);
  } else if (length >= sizeof(uint64_t)) {
    CopyEnds<uint64_t>(to, from, length);
  } else if (length >= sizeof(uint32_t)) {
    CopyEnds<uint32_t>(to, from, length);
  } else if (length >= sizeof(uint16_t)) {
    CopyEnds<uint16_t>(to, from, length);
  } else if (length != 0) {
    *to = *from;
  }
}

#endif
