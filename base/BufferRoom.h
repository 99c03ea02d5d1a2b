// How large a buffer from the heap really is.

#ifndef ZEPH_BASE_BUFFERROOM_H
#define ZEPH_BASE_BUFFERROOM_H

#include <cstddef>

// The bytes that may be used of a buffer made with new char[]: at least those asked for.
size_t BufferRoom(const char* buffer);

#endif
