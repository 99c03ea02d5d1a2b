// How much of a heap buffer may be used, and how to make it larger: for texts that grow.

#ifndef ZEPH_BASE_BUFFERROOM_H
#define ZEPH_BASE_BUFFERROOM_H

#include <cstddef>

// The bytes that may be used of a buffer made with new char[]: at least the size it was made with,
// or 0 if the heap cannot say.
size_t BufferRoom(const char* buffer);

// Returns a buffer with room for that many bytes and the first `used` bytes of the given one, which
// is gone then: either it was enlarged in place, or copied and freed. On failure throws
// std::bad_alloc and leaves the given buffer unchanged.
[[nodiscard]] char* GrowBuffer(char* buffer, size_t used, size_t room);

#endif
