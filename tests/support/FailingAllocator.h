// Allocations that fail where a test needs it, through the operators new of the process
// (base/core/ThreadMemory.h), and so with every sanitizer.

#ifndef ZEPH_TESTS_SUPPORT_FAILINGALLOCATOR_H
#define ZEPH_TESTS_SUPPORT_FAILINGALLOCATOR_H

#include <functional>

// While it exists, it refuses blocks to the calling thread. A thread has at most one.
class FailingAllocator {
 public:
  enum Mode {
    Once,         // one block, like a single block that is too large
    FromThereOn,  // that block and all after it, as if no memory is left
    // Like FromThereOn, until the run has learned that no memory is left: it then has its reserve.
    UntilReserve,
  };
  // The next block is number 1.
  FailingAllocator(long number, Mode mode);
  ~FailingAllocator();
  FailingAllocator(const FailingAllocator&) = delete;
  FailingAllocator& operator=(const FailingAllocator&) = delete;

  // Whether a block was refused.
  static bool Refused();
  // How many blocks were allocated or refused.
  static long Asked();

  // Within its scope blocks are neither refused nor counted, so that a run can check its own
  // results. Has no effect without an allocator.
  class Pause {
   public:
    Pause();
    ~Pause();
    Pause(const Pause&) = delete;
    Pause& operator=(const Pause&) = delete;
  };
};

// Calls `run` on a thread of its own that keeps no freed blocks, again and again, and refuses a
// later block each time: each of the first `each` ones, then ever fewer of them, until a run ends
// before its block is reached. `run` may throw std::bad_alloc and nothing else. Expects that after
// each run the thread holds no more memory than before. With both, the same with all blocks after
// the refused one refused as well. Returns how many blocks a whole run allocates.
long ExpectNothingIsLost(const std::function<void()>& run, bool both = true, long each = 300);

#endif
