// A buffer for bytes that arrive in pieces, such as a form's text that spans two blocks of input.

#ifndef ZEPH_BASE_GROWINGBUFFER_H
#define ZEPH_BASE_GROWINGBUFFER_H

#include <climits>
#include <cstring>
#include <memory>
#include <new>

// Appends in amortised constant time: the room doubles. Emptying it keeps the room, and the bytes
// in it until they are overwritten. Nothing is allocated before the first byte. A text longer than
// INT_MAX bytes fails with std::bad_alloc. One thread at a time.
class GrowingBuffer {
 public:
  // capacity is the size of the first buffer in bytes. REQUIRES: capacity > 0.
  explicit GrowingBuffer(int capacity) : first_capacity(capacity) {}

  // The bytes so far, without a terminator; never null.
  const char* data() const { return bytes ? bytes.get() : ""; }
  int used() const { return count; }
  int capacity() const { return room; }
  void Clear() { count = 0; }

  void Append(char c) {
    if (count == room) Grow(1);
    bytes[static_cast<size_t>(count++)] = c;
  }
  void Append(const char* text, int length) {
    if (length <= 0) return;
    memcpy(Room(length), text, static_cast<size_t>(length));
    count += length;
  }
  // A place where at least that many more bytes can be written. Advance makes them part of the
  // text.
  char* Room(int length) {
    if (room - count < length) Grow(length);
    return bytes.get() + count;
  }
  void Advance(int length) { count += length; }

 private:
  void Grow(int length) {
    const long needed = static_cast<long>(count) + length;
    if (needed > INT_MAX) throw std::bad_alloc();
    long larger = room > 0 ? 2L * room : first_capacity;
    if (larger < needed) larger = needed;
    if (larger > INT_MAX) larger = INT_MAX;
    std::unique_ptr<char[]> grown(new char[static_cast<size_t>(larger)]);
    if (room > 0) memcpy(grown.get(), bytes.get(), static_cast<size_t>(room));
    bytes = std::move(grown);
    room = static_cast<int>(larger);
  }

  std::unique_ptr<char[]> bytes;
  int count = 0;
  int room = 0;
  int first_capacity;
};

#endif
