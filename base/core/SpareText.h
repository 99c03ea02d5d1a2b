// The buffer of a short text that a thread keeps for its next one. A function of a library makes
// the text of each result again, and the one before is dropped then: the two are often of one size,
// so neither goes to the heap. Tested in tests/base/core/SpareTextTest.cpp.

#ifndef ZEPH_BASE_SPARETEXT_H
#define ZEPH_BASE_SPARETEXT_H

#include <cstddef>

#include "base/core/BufferRoom.h"
#include "base/core/FreeList.h"
#include "base/core/Sanitizers.h"

// Keeps a buffer while the lists of the thread are open; FreeLists::Trim frees it.
class SpareText : private FreeLists {
 public:
  // In bytes: the largest buffer that is kept. With the address sanitizer none is, because that
  // must see each use of a text after its deletion.
  static constexpr int kMost = kAddressSanitizer ? 0 : 256;

  // Returns a buffer of at least that many bytes, which the caller frees with delete[], or with
  // Give.
  [[nodiscard]] static char* Take(size_t bytes) {
    if (bytes > kept_bytes) return new char[bytes];
    kept_bytes = 0;
    return kept;
  }
  // Frees a buffer of at least that many bytes that was made with new[], or is null. The larger one
  // of two is kept. A variable may tell less than its buffer has, so the allocator is asked.
  static void Give(char* buffer, int bytes) {
    if (static_cast<unsigned>(bytes - 1) < static_cast<unsigned>(kMost) && buffer && open &&
        static_cast<size_t>(bytes) > kept_bytes && IsSmall(buffer)) {
      char* const smaller = kept_bytes > 0 ? kept : nullptr;
      kept = buffer;
      kept_bytes = static_cast<size_t>(bytes);
      buffer = smaller;
    }
    delete[] buffer;
  }
  static void Drop() {
    small[0] = small[1] = nullptr;
    if (kept_bytes == 0) return;
    kept_bytes = 0;
    delete[] kept;
  }

 private:
  // Whether a buffer may be kept. Mostly two of them take turns, a function's result and the one
  // that is made meanwhile; the allocator is asked once about these. If one of the two was freed
  // elsewhere since, and a larger buffer is at its place now, that one may be kept for a while.
  static bool IsSmall(const char* buffer) {
    if (buffer == small[0] || buffer == small[1]) return true;
    const size_t room = BufferRoom(buffer);
    if (room == 0 || room > kMost) return false;
    small[1] = small[0];
    small[0] = buffer;
    return true;
  }

  static constinit inline thread_local const char* small[2] = {};
  static constinit inline thread_local char* kept = nullptr;
  static constinit inline thread_local size_t kept_bytes = 0;  // 0 if there is none
};

#endif
