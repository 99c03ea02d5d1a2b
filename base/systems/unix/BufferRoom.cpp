#include "base/core/BufferRoom.h"

#include <malloc.h>

#include <cstdlib>
#include <cstring>

#include "base/core/ThreadMemory.h"

namespace {

// Found out when the process starts. Where some library has brought operators of its own, what they
// make can neither be measured nor be given to realloc.
const bool known_size = ThreadMemory::NewIsHere();
const bool may_realloc = ThreadMemory::NewIsMalloc();

// The compiler knows that new[] and realloc are no pair, and is right but for this process: so it
// is not shown both at once.
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

// A large block grows in place, or moves by its pages, where a copy would touch all of both.
char* GrowBuffer(char* buffer, size_t used, size_t room) {
  if (!may_realloc) return MoveToLarger(buffer, used, room);
  const size_t before = buffer ? malloc_usable_size(buffer) : 0;
  if (room > before) ThreadMemory::Charge(room - before);
  auto* larger = static_cast<char*>(realloc(buffer, room));
  if (!larger) ThreadMemory::Refuse(room);
  ThreadMemory::NoteResize(before, malloc_usable_size(larger));
  return larger;
}
