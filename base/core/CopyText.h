// Copies of texts: into memory of the caller, or into a new buffer. Tested in
// tests/base/core/CopyTextTest.cpp.

#ifndef ZEPH_BASE_COPYTEXT_H
#define ZEPH_BASE_COPYTEXT_H

#include <climits>
#include <cstddef>
#include <cstring>
#include <new>

// memcpy, in line for up to 16 bytes, because for those the call costs more than the copy: two
// words that overlap copy any length between one and two.
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

// Returns a copy with a NUL after it; the caller frees it with delete[]. The sizes of buffers have
// 32 bits, so a text of INT_MAX bytes fails as an allocation. The text may be null if the length is
// 0. REQUIRES: length >= 0.
[[nodiscard]] inline char* NewTextCopy(const char* text, int length) {
  if (length == INT_MAX) throw std::bad_alloc();
  const auto count = static_cast<size_t>(length);
  char* copy = new char[count + 1];
  if (count > 0) memcpy(copy, text, count);
  copy[count] = 0;
  return copy;
}

#endif
