// Copies of short texts, in line, because for a few bytes the call of memcpy costs more than the
// copy.

#ifndef ZEPH_BASE_COPYTEXT_H
#define ZEPH_BASE_COPYTEXT_H

#include <cstddef>
#include <cstring>

// memcpy, in line for up to 16 bytes: two words that overlap copy any length between one and two.
inline void CopyText(char* to, const char* from, size_t length) {
  if (length > 16) {
    memcpy(to, from, length);
  } else if (length >= 8) {
    memcpy(to + length - 8, from + length - 8, 8);
    memcpy(to, from, 8);
  } else if (length >= 4) {
    memcpy(to + length - 4, from + length - 4, 4);
    memcpy(to, from, 4);
  } else if (length > 0) {
    to[length - 1] = from[length - 1];
    to[length / 2] = from[length / 2];
    to[0] = from[0];
  }
}

#endif
