// Memory that runs out where a test wants it to, under the operators new of the process
// (base/core/ThreadMemory.h), and so with every sanitizer too.

#ifndef ZEPH_TESTS_SUPPORT_FAILINGALLOCATOR_H
#define ZEPH_TESTS_SUPPORT_FAILINGALLOCATOR_H

#include <functional>

// Refuses blocks to the calling thread, as long as it lives. One at a time on a thread.
class FailingAllocator {
 public:
  enum Mode {
    Once,         // one block, as a single one that is too large
    FromThereOn,  // that one and all behind it, as when nothing is left
  };
  // The first block from here on is number 1.
  FailingAllocator(long number, Mode mode);
  ~FailingAllocator();
  FailingAllocator(const FailingAllocator&) = delete;
  FailingAllocator& operator=(const FailingAllocator&) = delete;

  // Whether a block was refused.
  static bool Refused();
  // How many blocks were asked for.
  static long Asked();
};

// Calls run, on a thread of its own that keeps no blocks for itself, and refuses one block of it
// after the other: each of the first `each`, and then ever fewer, until a run is over before its
// turn has come. What run lets go is std::bad_alloc at most. Expects of each run that the thread
// holds no more memory behind it than before. With both, the same with all blocks behind that one
// refused. Answers how many blocks a whole run asks for.
long ExpectNothingIsLost(const std::function<void()>& run, bool both = true, long each = 300);

#endif
