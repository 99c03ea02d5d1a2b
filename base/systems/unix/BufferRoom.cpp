#include "base/BufferRoom.h"

#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <new>

// The address sanitizer wants a block freed as it was made.
#if defined(__SANITIZE_ADDRESS__)
#define ZEPH_MATCHED_BLOCKS true
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZEPH_MATCHED_BLOCKS true
#endif
#endif

// The arrays of chars come from malloc without a header of their own.
size_t BufferRoom(const char* buffer) {
  return malloc_usable_size(const_cast<char*>(buffer));
}

// A large block grows in place, or moves by its pages, where a copy would touch all of both.
char* GrowBuffer(char* buffer, size_t used, size_t room) {
#ifdef ZEPH_MATCHED_BLOCKS
  auto* larger = new char[room];
  memcpy(larger, buffer, used);
  delete[] buffer;
#else
  (void)used;
  auto* larger = static_cast<char*>(realloc(buffer, room));
  if (!larger) throw std::bad_alloc();
#endif
  return larger;
}
