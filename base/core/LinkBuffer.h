// LinkBuffer, a chain of blocks to which long texts are appended: pages, requests, message bodies,
// and the values that a script concatenates.

#ifndef ZEPH_BASE_LINKBUFFER_H
#define ZEPH_BASE_LINKBUFFER_H

#include <climits>
#include <cstring>

class Output;
class Variable;

// One block of a chain. Owns its buffer, made with new[], and the blocks after it.
class LinkBuffer_Block {
 public:
  char* data;
  int used;       // bytes written
  int allocated;  // bytes of the buffer
  LinkBuffer_Block* next = nullptr;
  LinkBuffer_Block* previous = nullptr;

  // A buffer of that many bytes, with nothing in it.
  explicit LinkBuffer_Block(int size);
  // Adopts a buffer made with new[].
  LinkBuffer_Block(const char* bytes, int bytes_used, int buffer_size);
  // Also deletes the blocks after this one, in a loop, because a chain may have a million.
  ~LinkBuffer_Block();
  LinkBuffer_Block(const LinkBuffer_Block&) = delete;
  LinkBuffer_Block& operator=(const LinkBuffer_Block&) = delete;

  // Copies as many bytes as there is room for and returns their count.
  int cat(const char* bytes, int length);
  // Forgets the buffer without freeing it.
  void release();
};

// A chain of blocks of which only the last one is appended to. A LinkBuffer that is never used
// allocates nothing. The destructor is virtual and the order of the fields is fixed, because
// extension libraries hold LinkBuffers too.
//
// Invariants: head and tail are both null or both set; total is the sum of used over the chain.
// Lengths are bytes: -1 does not mean strlen here, and negative counts are 0. A total that does not
// fit an int fails with std::bad_alloc. A LinkBuffer may be appended or prepended to itself: the
// bytes that it held before are copied.
class LinkBuffer {
 public:
  LinkBuffer_Block* head = nullptr;
  LinkBuffer_Block* tail = nullptr;
  int total = 0;
  int first_size;  // the first block's size is a multiple of it, always more than is needed
  int next_size;   // the same for all later blocks, and those that prepend makes

  LinkBuffer(int first_block_size, int next_block_size)
      : first_size(first_block_size > 0 ? first_block_size : 1),
        next_size(next_block_size > 0 ? next_block_size : 1) {}
  virtual ~LinkBuffer() { delete head; }
  LinkBuffer(const LinkBuffer&) = delete;
  LinkBuffer& operator=(const LinkBuffer&) = delete;

  // Appends a copy of the bytes.
  void cat(const char* bytes, int length) {
    if (tail && length >= 0 && length <= tail->allocated - tail->used &&
        length <= INT_MAX - total) {
      if (length > 0) memcpy(tail->data + tail->used, bytes, length);
      tail->used += length;
      total += length;
      return;
    }
    CatBeyondTail(bytes, length);
  }
  // Adopts a buffer made with new[] as the new tail. Later appends use its free room.
  void cat_nocopy(const char* bytes, int used, int allocated);
  // Two upper-case hexadecimal digits.
  void cat_hex(unsigned char c);
  // The number's text as the script language writes it; the variable's text.
  void cat(int value);
  void cat(double value);
  void cat(Variable* variable);
  // Appends a copy of the other's bytes. The other is not changed.
  void cat(LinkBuffer* other);
  // Moves the other's blocks after the tail, without a copy, and deletes the other. Either may be
  // empty. Does nothing if other is null or this object.
  void cat_destroy(LinkBuffer* other);

  // The same in front: the bytes go before the first one, in blocks of their own.
  void prepend(const char* bytes, int length);
  void prepend_nocopy(const char* bytes, int used, int allocated);
  void prepend(int value);
  void prepend(double value);
  void prepend(Variable* variable);
  void prepend(LinkBuffer* other);
  void prepend_destroy(LinkBuffer* other);

  // Flattens the chain and returns the bytes, followed by a NUL. This object keeps the buffer,
  // which is valid until the next change. *length receives the count of bytes without the NUL;
  // *allocated, if not null, the buffer's size. A LinkBuffer that was never written returns a
  // shared empty text (length 0, size 1) that must not be written to.
  char* data(int* length, int* allocated);
  // Flattens the chain to one block with room for `extra` more bytes. Does nothing if there is no
  // block, or a single one with that room.
  void coalesce(int extra);
  // Flattens the chain and hands its buffer to the caller, who frees it with delete[]; never null.
  // *length receives the bytes in use; *allocated, if not null, the buffer's size, at least length
  // + extra. No terminator is written: a caller that needs one passes extra = 1 and writes it. The
  // LinkBuffer is then empty and may be used again.
  [[nodiscard]] char* release(int* length, int* allocated, int extra);
  // Copies all bytes to the destination, without a terminator. REQUIRES: room for total bytes.
  void append_to(char* destination) const;
  // One Write for each block, in order, without flattening. The results of Write are ignored.
  void output(Output* output) const;

 private:
  void CatBeyondTail(const char* bytes, int length);
  LinkBuffer_Block* NewBlock(int length, int granularity);
  LinkBuffer_Block* Adopt(const char* bytes, int used, int allocated);
  void AddToTotal(int length);
  void LinkTail(LinkBuffer_Block* block);
  void LinkHead(LinkBuffer_Block* block);
};

#endif
