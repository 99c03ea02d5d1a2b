// The usable size of a heap block, and growth of a block by realloc.

#include "base/core/BufferRoom.h"

#include <malloc.h>

#include <cstdlib>
#include <cstring>

#include "base/core/ThreadMemory.h"

namespace {

// Set when the process starts. If a library has brought its own operators new and delete, their
// blocks can be neither measured nor passed to realloc.
const bool known_size = ThreadMemory::NewIsMeasurable();
const bool may_realloc = ThreadMemory::NewIsMalloc();

// The compiler warns that new[] and realloc do not match. In this process they do, so this function
// is kept out of line: the compiler then never sees both at once.
[[gnu::noinline]] char* MoveToLarger(char* buffer, size_t used, size_t room) {
  auto* larger = new char[room];
  if (used > 0) memcpy(larger, buffer, used);
  delete[] buffer;
  return larger;
}

}  // namespace

size_t BufferRoom(const char* buffer) {
  return known_size ? malloc_usable_size(const_cast<char*>(buffer)) : 0;
}

// realloc grows a large block in place or moves its pages, while a copy would touch every byte of
// both blocks.
char* GrowBuffer(char* buffer, size_t used, size_t room) {
  if (!may_realloc) return MoveToLarger(buffer, used, room);
  const size_t before = buffer ? malloc_usable_size(buffer) : 0;
  if (room > before) ThreadMemory::Charge(room - before);
  auto* larger = static_cast<char*>(realloc(buffer, room));
  if (!larger) ThreadMemory::Refuse(room);
  ThreadMemory::NoteResize(before, malloc_usable_size(larger));
  return larger;
}
