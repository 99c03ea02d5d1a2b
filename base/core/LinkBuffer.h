// LinkBuffer, the chained accumulator in which long texts grow: pages, requests, message bodies,
// and the values that a script concatenates.

#ifndef ZEPH_BASE_LINKBUFFER_H
#define ZEPH_BASE_LINKBUFFER_H

#include <climits>
#include <cstring>

class Output;
class Variable;

// One block of a chain. Owns its buffer, made with new[], and the blocks behind it.
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
  // Deletes the blocks behind this one too, one after the other: a chain may have a million.
  ~LinkBuffer_Block();
  LinkBuffer_Block(const LinkBuffer_Block&) = delete;
  LinkBuffer_Block& operator=(const LinkBuffer_Block&) = delete;

  // Copies as much as there is room for, and answers that count.
  int cat(const char* bytes, int length);
  // Forgets the buffer without freeing it.
  void release();
};

// A chain of blocks of which only the last one is written. An unused one allocates nothing. The
// destructor is virtual and the order of the fields stays, since extension libraries hold
// LinkBuffers too.
//
// Invariants: head and tail are both null or both set; total is the sum of used over the chain.
// Lengths are bytes as given: -1 does not mean strlen here, negative counts are 0. A total that
// does not fit an int fails as an allocation, with std::bad_alloc. A buffer may be appended or
// prepended to itself: what it held before is what is copied.
class LinkBuffer {
 public:
  LinkBuffer_Block* head = nullptr;
  LinkBuffer_Block* tail = nullptr;
  int total = 0;
  int first_size;  // the first block's size is a multiple of it, and always above what it is for
  int next_size;   // the same for all later blocks, and those that prepend makes

  LinkBuffer(int first_block_size, int next_block_size)
      : first_size(first_block_size > 0 ? first_block_size : 1),
        next_size(next_block_size > 0 ? next_block_size : 1) {}
  virtual ~LinkBuffer() { delete head; }
  LinkBuffer(const LinkBuffer&) = delete;
  LinkBuffer& operator=(const LinkBuffer&) = delete;

  // Copies the bytes behind the last one.
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
  // Copies all of the other, which stays as it is.
  void cat(LinkBuffer* other);
  // Moves the other's blocks behind the tail, without a copy, and deletes it. Either side may be
  // empty. Does nothing with itself or null.
  void cat_destroy(LinkBuffer* other);

  // The mirrors of the above: the bytes come in front, in blocks of their own.
  void prepend(const char* bytes, int length);
  void prepend_nocopy(const char* bytes, int used, int allocated);
  void prepend(int value);
  void prepend(double value);
  void prepend(Variable* variable);
  void prepend(LinkBuffer* other);
  void prepend_destroy(LinkBuffer* other);

  // Flattens, and answers the bytes with a NUL behind them. The buffer stays this object's, and is
  // good until the next change. *length receives the bytes without the NUL, *allocated, if not
  // null, the buffer's size. A LinkBuffer that was never written gives a shared empty text, length
  // 0 and size 1, which must not be written to.
  char* data(int* length, int* allocated);
  // Flattens to one block with room for extra further bytes. Does nothing without a block, or with
  // one block that has the room.
  void coalesce(int extra);
  // Flattens the chain and hands its buffer to the caller, who frees it with delete[]; never null.
  // *length receives the bytes in use; *allocated, if not null, the buffer's size, at least the
  // length + extra. No terminator is written: a caller that wants one asks for extra = 1 and writes
  // it. Leaves the LinkBuffer empty and ready for use.
  [[nodiscard]] char* release(int* length, int* allocated, int extra);
  // Copies all bytes to the destination, which has room for total; no terminator.
  void append_to(char* destination) const;
  // One Write for each block, in order, without flattening. What Write answers is not looked at.
  void output(Output* output) const;

 private:
  void CatBeyondTail(const char* bytes, int length);
  LinkBuffer_Block* NewBlock(int length, int granularity);
  void AddToTotal(int length);
  void LinkTail(LinkBuffer_Block* block);
  void LinkHead(LinkBuffer_Block* block);
};

#endif
