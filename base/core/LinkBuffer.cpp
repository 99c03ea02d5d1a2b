// LinkBuffer, the chain of blocks. The operations on script values are in LinkBufferValues.cpp.
// Tested in tests/base/core/LinkBufferTest.cpp.

#include "base/core/LinkBuffer.h"

#include <climits>
#include <cstdint>
#include <memory>
#include <new>

#include "base/core/Output.h"

LinkBuffer_Block::LinkBuffer_Block(int size) : data(new char[size]), used(0), allocated(size) {}

LinkBuffer_Block::LinkBuffer_Block(const char* bytes, int bytes_used, int buffer_size)
    : data(const_cast<char*>(bytes)),
      used(bytes && bytes_used > 0 ? bytes_used : 0),
      allocated(bytes && buffer_size > used ? buffer_size : used) {}

LinkBuffer_Block::~LinkBuffer_Block() {
  delete[] data;
  while (next) {
    LinkBuffer_Block* block = next;
    next = block->next;
    block->next = nullptr;
    delete block;
  }
}

int LinkBuffer_Block::cat(const char* bytes, int length) {
  int room = allocated - used;
  int count = length < room ? length : room;
  if (count <= 0) return 0;
  memcpy(data + used, bytes, count);
  used += count;
  return count;
}

void LinkBuffer_Block::release() {
  data = nullptr;
  used = 0;
  allocated = 0;
}

// A block always has more room than the bytes it is made for.
LinkBuffer_Block* LinkBuffer::NewBlock(int length, int granularity) {
  int64_t size = (static_cast<int64_t>(length) / granularity + 1) * granularity;
  if (size > INT_MAX) throw std::bad_alloc();
  return new LinkBuffer_Block(static_cast<int>(size));
}

void LinkBuffer::AddToTotal(int length) {
  if (length > INT_MAX - total) throw std::bad_alloc();
  total += length;
}

void LinkBuffer::LinkTail(LinkBuffer_Block* block) {
  block->previous = tail;
  if (tail) {
    tail->next = block;
  } else {
    head = block;
  }
  tail = block;
}

void LinkBuffer::LinkHead(LinkBuffer_Block* block) {
  block->next = head;
  if (head) {
    head->previous = block;
  } else {
    tail = block;
  }
  head = block;
}

// For a chain without a block, or more bytes than the tail has room for: fills the tail to its last
// byte and puts the rest into a new block. The block is made first, so that a failure changes
// nothing.
void LinkBuffer::CatBeyondTail(const char* bytes, int length) {
  if (length < 0) length = 0;
  if (length > INT_MAX - total) throw std::bad_alloc();
  int room = tail ? tail->allocated - tail->used : 0;
  if (length <= room && tail) return;
  LinkBuffer_Block* block = NewBlock(length - room, tail ? next_size : first_size);
  if (tail) tail->cat(bytes, room);
  block->cat(bytes + room, length - room);
  LinkTail(block);
  total += length;
}

// A block of the given bytes, which it adopts, added to the total but not to the chain. A failure
// frees the bytes.
LinkBuffer_Block* LinkBuffer::Adopt(const char* bytes, int used, int allocated) {
  std::unique_ptr<char[]> owned(const_cast<char*>(bytes));
  std::unique_ptr<LinkBuffer_Block> block(new LinkBuffer_Block(bytes, used, allocated));
  (void)owned.release();
  AddToTotal(block->used);
  return block.release();
}

void LinkBuffer::cat_nocopy(const char* bytes, int used, int allocated) {
  LinkTail(Adopt(bytes, used, allocated));
}

void LinkBuffer::cat_hex(unsigned char c) {
  static const char digits[] = "0123456789ABCDEF";
  cat(digits + (c >> 4), 1);
  cat(digits + (c & 15), 1);
}

void LinkBuffer::cat(LinkBuffer* other) {
  // If other is this buffer, the tail is both read and written, so the end to stop at is noted
  // first.
  const LinkBuffer_Block* last = other->tail;
  int last_used = last ? last->used : 0;
  for (const LinkBuffer_Block* block = other->head; block; block = block->next) {
    int used = block == last ? last_used : block->used;
    if (used > 0) cat(block->data, used);
    if (block == last) break;
  }
}

void LinkBuffer::cat_destroy(LinkBuffer* other) {
  if (!other || other == this) return;
  AddToTotal(other->total);
  if (other->head) {
    LinkBuffer_Block* end = other->tail;
    LinkTail(other->head);
    tail = end;
    other->head = nullptr;
  }
  delete other;
}

void LinkBuffer::prepend(const char* bytes, int length) {
  if (!head) {
    cat(bytes, length);
    return;
  }
  if (length < 0) length = 0;
  if (length > INT_MAX - total) throw std::bad_alloc();
  LinkBuffer_Block* block = NewBlock(length, next_size);
  block->cat(bytes, length);
  LinkHead(block);
  total += length;
}

void LinkBuffer::prepend_nocopy(const char* bytes, int used, int allocated) {
  LinkHead(Adopt(bytes, used, allocated));
}

void LinkBuffer::prepend(LinkBuffer* other) {
  // If other is this buffer, the walk must not go on into the blocks that it has put in front.
  const LinkBuffer_Block* first = other->head;
  for (const LinkBuffer_Block* block = other->tail; block; block = block->previous) {
    if (block->used > 0) prepend(block->data, block->used);
    if (block == first) break;
  }
}

void LinkBuffer::prepend_destroy(LinkBuffer* other) {
  if (!other || other == this) return;
  AddToTotal(other->total);
  if (other->head) {
    LinkBuffer_Block* begin = other->head;
    other->tail->next = head;
    if (head) {
      head->previous = other->tail;
    } else {
      tail = other->tail;
    }
    head = begin;
    other->head = nullptr;
  }
  delete other;
}

void LinkBuffer::coalesce(int extra) {
  if (!head) return;
  int64_t size = static_cast<int64_t>(total) + (extra > 0 ? extra : 0);
  // Empty blocks count as flat: they stay if the first has the room.
  bool flat = head == tail || total == 0;
  if (flat && size <= head->allocated) return;
  if (size > INT_MAX) throw std::bad_alloc();
  auto block = std::make_unique<LinkBuffer_Block>(static_cast<int>(size));
  append_to(block->data);
  block->used = total;
  delete head;
  head = tail = block.release();
}

char* LinkBuffer::data(int* length, int* allocated) {
  static char empty[1] = {0};
  coalesce(1);
  *length = head ? head->used : 0;
  if (allocated) *allocated = head ? head->allocated : 1;
  if (!head) return empty;
  head->data[head->used] = 0;
  return head->data;
}

char* LinkBuffer::release(int* length, int* allocated, int extra) {
  coalesce(extra);
  // A block that has adopted null is as good as none.
  if (!head || !head->data) {
    int size = extra > 1 ? extra : 1;
    char* buffer = new char[size];
    delete head;
    head = tail = nullptr;
    *length = 0;
    if (allocated) *allocated = size;
    return buffer;
  }
  char* buffer = head->data;
  *length = head->used;
  if (allocated) *allocated = head->allocated;
  head->release();
  delete head;
  head = tail = nullptr;
  total = 0;
  return buffer;
}

void LinkBuffer::append_to(char* destination) const {
  for (const LinkBuffer_Block* block = head; block; block = block->next) {
    if (block->used > 0) memcpy(destination, block->data, block->used);
    destination += block->used;
  }
}

void LinkBuffer::output(Output* output) const {
  for (const LinkBuffer_Block* block = head; block; block = block->next) {
    output->Write(block->data, block->used);
  }
}
