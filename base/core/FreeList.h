// Memory for the small objects that a request makes and drops by the thousand: variables, elements,
// tree nodes. A thread keeps freed blocks of each size for itself, so that neither the allocation
// nor the release of a short-lived object goes to the heap.

#ifndef ZEPH_BASE_FREELIST_H
#define ZEPH_BASE_FREELIST_H

#include <cstddef>
#include <new>

#include "base/core/Sanitizers.h"

// The common part of the lists of a thread. They are open from ThreadMemory::Prepare to the end of
// the thread; at other times all blocks come from the heap and go back to it. Opening a list takes
// no memory.
class FreeLists {
 public:
  // Lets the thread keep blocks.
  static void Open() { open = true; }
  // Gives all blocks back to the heap. The lists stay open or closed as they were.
  static void Trim();
  // Gives all blocks back and keeps none from here on.
  static void Close() {
    open = false;
    Trim();
  }

 protected:
  struct Block {
    Block* next;
  };
  struct List {
    Block* head = nullptr;
    int room = 0;  // blocks that may still be kept
    List* next_used = nullptr;
  };

  static constinit inline thread_local bool open = false;
  static constinit inline thread_local List* used = nullptr;  // those that may have blocks
};

// Blocks of one size. A class uses it in its operators new and delete. A block may be freed by
// another thread than the one that took it; it then joins that thread's list.
template <size_t Size>
class FreeList : public FreeLists {
 public:
  static void* Allocate() {
    Block* block = list.head;
    if (!block) return ::operator new(Size);
    list.head = block->next;
    list.room++;
    return block;
  }

  static void Free(void* memory) {
    if (list.room == 0 && !MakeRoom()) {
      ::operator delete(memory);
      return;
    }
    list.room--;
    auto* block = static_cast<Block*>(memory);
    block->next = list.head;
    list.head = block;
  }

 private:
  static_assert(Size >= sizeof(Block));

  // Under the address sanitizer nothing is kept, because it must see each use after a deletion.
  static constexpr int kLimit = kAddressSanitizer ? 0 : 2048;

  // False if the list is full or must not be used.
  static bool MakeRoom() {
    if (list.head || !open || kLimit == 0) return false;
    list.room = kLimit;
    list.next_used = used;
    used = &list;
    return true;
  }

  static constinit inline thread_local List list;
};

// The operators of a class whose own objects come from a list. Objects of derived classes have
// other sizes and come from the heap.
#define ZEPH_FREE_LIST_OPERATORS(Class)                                                        \
  static void* operator new(size_t size) {                                                     \
    return size == sizeof(Class) ? FreeList<sizeof(Class)>::Allocate() : ::operator new(size); \
  }                                                                                            \
  static void operator delete(void* memory, size_t size) {                                     \
    if (size == sizeof(Class)) {                                                               \
      FreeList<sizeof(Class)>::Free(memory);                                                   \
    } else {                                                                                   \
      ::operator delete(memory);                                                               \
    }                                                                                          \
  }

#endif
