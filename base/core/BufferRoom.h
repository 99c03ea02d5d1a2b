// Buffers from the heap that texts grow in.

#ifndef ZEPH_BASE_BUFFERROOM_H
#define ZEPH_BASE_BUFFERROOM_H

#include <cstddef>

// The bytes that may be used of a buffer made with new char[]: at least those asked for, or 0 where
// that cannot be told.
size_t BufferRoom(const char* buffer);

// Makes room for that many bytes, in a larger buffer if the one given can't become it, which is
// gone then. The bytes used stay. Throws std::bad_alloc, and leaves the buffer as it was.
[[nodiscard]] char* GrowBuffer(char* buffer, size_t used, size_t room);

#endif
