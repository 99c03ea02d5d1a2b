// The heap as a thread sees it: how much of it a run has taken, how much it may take, and what a
// thread needs so that it never has to ask for memory on its way out.
//
// The operators new and delete of the process are defined here too, on malloc and free. What is
// made with new char[] may so become larger by realloc.

#ifndef ZEPH_BASE_THREADMEMORY_H
#define ZEPH_BASE_THREADMEMORY_H

#include <cstddef>
#include <cstdint>

// All of it is about the calling thread.
//
// Blocks that a thread frees are taken off what it has used, whoever had made them. The heap counts
// by itself where it can tell (jemalloc); elsewhere the operators do, and then what comes from
// malloc directly does not count.
class ThreadMemory {
 public:
  // Makes what the thread needs for as long as it lives, and from then on keeps freed blocks in its
  // lists (base/core/FreeList.h). The first act of a thread that runs scripts: what registers a
  // destructor for the end of a thread needs memory, and ends the process where there is none.
  // False if there is so little left that the thread had better end at once, untouched.
  [[nodiscard]] static bool Prepare();

  // --- A run, which is a request or a task -------------------------------------------------------
  // A run begins: what is used is counted from here on. There is no limit yet.
  static void Begin();
  // The same, with bytes that the run was given by another thread.
  static void Begin(int64_t given);
  // Bytes that the run may use, 0 or less for any. operator new refuses what is beyond, with
  // std::bad_alloc.
  static void SetLimit(int64_t bytes);
  // What the run uses of the heap, in bytes; below 0 when it has freed more than it has taken.
  static int64_t Used();
  // Hands bytes of the run on to another thread, which frees them.
  static void HandOver(int64_t bytes);
  // The run has ended. There is no limit from here on, and after a large run what the thread kept
  // for its next blocks goes back to the process.
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
  // For whoever has caught std::bad_alloc, before a message is made: writes a line on standard
  // error, with the time, the path of the script, and what the limit was, and makes room for the
  // message and for what the end of a run may need, once in a run.
  static void Exhausted(const char* path, int length);
  // Whether the last run, or the one that goes on, has met the end of the memory, and not of its
  // limit alone.
  static bool RanShort();

  // --- For whoever takes blocks ------------------------------------------------------------------
  // Before a block is taken. Throws std::bad_alloc if the thread may not have it.
  static void Charge(size_t size) {
    if (size > allowance) [[unlikely]] {
      Refill(size);
    } else {
      allowance -= size;
    }
  }
  // After realloc has made a block of one size that of another.
  static void NoteResize(size_t before, size_t after) {
    if (!counts) return;
    taken += after;
    freed += before;
  }

  // Where memory of another kind was refused: throws std::bad_alloc.
  [[noreturn]] static void Refuse(size_t size);

  // Whether the process's operator new[] is that of this unit, so that its blocks have a size that
  // malloc tells; and whether realloc may have them, which the address sanitizer minds.
  static bool NewIsHere();
  static bool NewIsMalloc();

  // --- For tests ---------------------------------------------------------------------------------
  // Asks before each block that the thread takes, until it is set to null: true refuses the block.
  using Judge = bool (*)(size_t size);
  static void SetJudge(Judge judge);

 private:
  friend struct ThreadMemoryOperators;

  static void Refill(size_t size);

  // Bytes that may be taken before somebody has to look what is really used. Freed blocks do not
  // come back to it, so that nothing has to be done for them.
  static constinit inline thread_local size_t allowance = SIZE_MAX / 2;
  // By the operators, where the heap itself does not count.
  static constinit inline thread_local uint64_t taken = 0;
  static constinit inline thread_local uint64_t freed = 0;
  static constinit inline bool counts = false;
};

// Returns pages to the system that no block has lain in for some seconds. A busy heap does that by
// and by; an idle one has to be asked.
void GiveUnusedMemoryBack();

#endif
