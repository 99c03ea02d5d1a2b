// memcmp without regard to case. Tested in tests/base/core/MemcmpiTest.cpp.

#include "base/core/memcmpi.h"

#include <bit>

#include "base/core/LittleEndian.h"
#include "base/core/ascii.h"

int memcmpi(const void* a, const void* b, size_t length) {
  auto left = static_cast<const unsigned char*>(a);
  auto right = static_cast<const unsigned char*>(b);
  while (length >= 8) {
    uint64_t l = zp_tolower_word(LittleEndian::Get64(left));
    uint64_t r = zp_tolower_word(LittleEndian::Get64(right));
    if (l != r) {
      // The words are little-endian: the lowest differing bit is in the first differing byte.
      int shift = std::countr_zero(l ^ r) & ~7;
      return ((l >> shift) & 0xFF) < ((r >> shift) & 0xFF) ? -1 : 1;
    }
    left += 8;
    right += 8;
    length -= 8;
  }
  for (; length > 0; ++left, ++right, --length) {
    unsigned char l = zp_tolower(*left);
    unsigned char r = zp_tolower(*right);
    if (l != r) return l < r ? -1 : 1;
  }
  return 0;
}
