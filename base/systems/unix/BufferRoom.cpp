#include "base/BufferRoom.h"

#include <malloc.h>

// The arrays of chars come from malloc without a header of their own.
size_t BufferRoom(const char* buffer) {
  return malloc_usable_size(const_cast<char*>(buffer));
}
