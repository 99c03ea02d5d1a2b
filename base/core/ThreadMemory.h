// The heap as a thread sees it: how much a run has taken and may take, and the preparation of a
// thread so that its end never needs memory.
//
// This unit also defines the operators new and delete of the process, on top of malloc and free, so
// that memory made with new char[] can grow by realloc.

#ifndef ZEPH_BASE_THREADMEMORY_H
#define ZEPH_BASE_THREADMEMORY_H

#include <cstddef>
#include <cstdint>

// All operations apply to the calling thread.
//
// A block that a thread frees is subtracted from what it has used, even if another thread made it.
// jemalloc counts by itself; with other heaps the operators count, and memory from malloc directly
// is then not included.
class ThreadMemory {
 public:
  // Makes everything that the thread needs for its whole life, and from then on keeps freed blocks
  // in its lists (base/core/FreeList.h). A thread that runs scripts calls it first, because the
  // registration of a destructor for the end of a thread needs memory and ends the process if there
  // is none. False if so little memory is left that the thread should end at once; nothing has been
  // made then.
  [[nodiscard]] static bool Prepare();

  // --- A run, which is a request or a task -------------------------------------------------------
  // Begins a run: memory is counted from here on. There is no limit yet.
  static void Begin();
  // The same for a run that has received that many bytes of memory from another thread.
  static void Begin(int64_t given);
  // Sets how many bytes the run may use; 0 or less is no limit. operator new refuses more with
  // std::bad_alloc.
  static void SetLimit(int64_t bytes);
  // The bytes of heap that the run uses; below 0 if it has freed more than it has taken.
  static int64_t Used();
  // The most that Used() has been since the run began, to about 64 KB; 0 if it cannot be known.
  static int64_t Peak();
  // The most that any run of the process has had, among those that have ended and have taken more
  // than 4 MB altogether. Any thread may call it.
  static int64_t LargestPeak();
  // Transfers that many bytes of the run to another thread, which frees them.
  static void HandOver(int64_t bytes);
  // Ends the run and its limit. After a large run the blocks that the thread kept for reuse go back
  // to the heap.
  static void End();

  // Begin and End for a scope.
  class Run {
   public:
    explicit Run(int64_t given = 0) { Begin(given); }
    ~Run() { End(); }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;
  };

  // --- Out of memory -----------------------------------------------------------------------------
  // Code that has caught std::bad_alloc calls one of these before it makes a message. Once in a run
  // they make some room for the message and for the clean-up.
  //
  // The first is for a lack of memory that is reported in the line of an error: TakeShortage then
  // has what was short, such as "memory_limit is 1048576 bytes".
  static void Exhausted();
  // This one writes a line of its own, unless the run has reported a lack already: to the
  // operator's log or, without one, to standard error, with the time and the path of the script
  // (length bytes).
  static void Exhausted(const char* path, int length);
  // What was short at the last call of Exhausted(), valid until the next one; null if it was taken,
  // or nothing was.
  static const char* TakeShortage();
  // Whether the current run, or the last one, ran out of the process's memory, not only of its own
  // limit.
  static bool RanShort();

  // --- For code that takes blocks ----------------------------------------------------------------
  // Called before a block is taken. Throws std::bad_alloc if the thread may not have it.
  static void Charge(size_t size) {
    if (size > allowance) [[unlikely]] {
      Refill(size);
    } else {
      allowance -= size;
    }
  }
  // Called after realloc has changed the size of a block.
  static void NoteResize(size_t before, size_t after) {
    if (!counts) return;
    taken += after;
    freed += before;
  }

  // For an allocation by other means than operator new that failed: throws std::bad_alloc.
  [[noreturn]] static void Refuse(size_t size);

  // Whether operator new[] of the process is the one of this unit, so that it counts and may
  // refuse; and whether realloc may be used on its blocks, which the address sanitizer forbids.
  static bool NewIsHere();
  static bool NewIsMalloc();
  // Whether malloc_usable_size knows the blocks of operator new[]: those of this unit, and those of
  // the thread sanitizer, whose operators are its own. Not those of a library that has brought its
  // operators.
  static bool NewIsMeasurable();

  // --- For tests ---------------------------------------------------------------------------------
  // Until it is set to null, asked is called before each block that the thread takes; true
  // refuses the block.
  using Judge = bool (*)(size_t size);
  static void SetJudge(Judge asked);

 private:
  friend struct ThreadMemoryOperators;

  static void Refill(size_t size);

  // Bytes that may be taken before Refill checks the real use. Freeing a block does not raise it,
  // so that a free needs no work here.
  static constinit inline thread_local size_t allowance = SIZE_MAX / 2;
  // Counted by the operators if the heap itself does not count.
  static constinit inline thread_local uint64_t taken = 0;
  static constinit inline thread_local uint64_t freed = 0;
  static constinit inline thread_local int64_t most_counted = 0;  // of taken - freed in the run
  static constinit inline bool counts = false;
};

// Returns pages to the system that have held no block for some seconds. A busy heap does so by
// itself over time; an idle one only when this is called.
void GiveUnusedMemoryBack();

#endif
