// The memory in which libfcgi keeps a request. It allocates over thirty blocks for each: two
// buffers of 8 KB, and one for each parameter. They all go at the end of the request, so they are
// taken from one piece that the thread has anyway.
//
// Tested in tests/fastcgi/RequestRoomTest.cpp.

#ifndef ZEPH_FASTCGI_REQUESTROOM_H
#define ZEPH_FASTCGI_REQUESTROOM_H

#include <cstddef>
#include <cstdint>

// Belongs to one thread. A block is aligned as one of malloc.
class RequestRoom {
 public:
  // Holds the buffers and the parameters of nearly every request.
  static constexpr size_t kSize = 24 << 10;

  RequestRoom() = default;
  RequestRoom(const RequestRoom&) = delete;
  RequestRoom& operator=(const RequestRoom&) = delete;

  // A block of that many bytes. Null if there is no room for it.
  void* Take(size_t size) {
    const size_t left = kSize - used;
    if (size >= left) return nullptr;
    void* const block = bytes + used;
    // Never 0, so that no two blocks are at one place.
    used += size / kAlignment * kAlignment + kAlignment;
    blocks++;
    return block;
  }
  // Whether the block was taken from here.
  bool Has(const void* block) const { return Offset(block) < kSize; }
  // How many bytes there are from a block on. REQUIRES: Has(block).
  size_t SizeFrom(const void* block) const { return kSize - Offset(block); }
  // Gives a block back. The room is empty again once all have been. REQUIRES: Has(block).
  void Return() {
    if (--blocks == 0) used = 0;
  }
  // Forgets all blocks.
  void Clear() { used = blocks = 0; }

 private:
  static constexpr size_t kAlignment = 16;

  size_t Offset(const void* block) const {
    return reinterpret_cast<uintptr_t>(block) - reinterpret_cast<uintptr_t>(bytes);
  }

  size_t used = 0;  // a multiple of the alignment, and so is the size
  size_t blocks = 0;
  alignas(kAlignment) char bytes[kSize];
};

#endif
