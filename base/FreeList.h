// Memory for the small objects that a request makes and drops by the thousand: variables, elements,
// tree nodes. A thread keeps some blocks of a size for itself, so that neither side of a short life
// goes to the heap.

#ifndef ZEPH_BASE_FREELIST_H
#define ZEPH_BASE_FREELIST_H

#include <cstddef>
#include <new>

// Blocks of one size. A class uses it in its operators new and delete. A block may be freed by
// another thread than the one that took it; it then serves there.
template <size_t Size>
class FreeList {
 public:
  static void* Allocate() {
    Block* block = head;
    if (!block) return ::operator new(Size);
    head = block->next;
    room++;
    return block;
  }

  static void Free(void* memory) {
    if (room == 0 && !Open()) {
      ::operator delete(memory);
      return;
    }
    room--;
    auto* block = static_cast<Block*>(memory);
    block->next = head;
    head = block;
  }

 private:
  struct Block {
    Block* next;
  };
  static_assert(Size >= sizeof(Block));

  // Gives the blocks back when the thread ends. What is freed after that goes to the heap.
  struct Closer {
    ~Closer() {
      while (Block* block = head) {
        head = block->next;
        ::operator delete(block);
      }
      room = 0;
    }
  };

  // With the address sanitizer nothing is kept: it has to see each use after a deletion.
#if defined(__SANITIZE_ADDRESS__)
  static constexpr int Limit = 0;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
  static constexpr int Limit = 0;
#else
  static constexpr int Limit = 2048;
#endif
#else
  static constexpr int Limit = 2048;
#endif

  // The list is open from the first free on. False when it is full, or closed already.
  static bool Open() {
    if (opened) return false;
    opened = true;
    static thread_local Closer closer;
    (void)closer;
    room = Limit;
    return Limit > 0;
  }

  static constinit inline thread_local Block* head = nullptr;
  static constinit inline thread_local int room = 0;  // blocks that may still be kept
  static constinit inline thread_local bool opened = false;
};

// The operators of a class whose objects of exactly that size come from a list. Objects of derived
// classes have other sizes, which the heap serves.
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
