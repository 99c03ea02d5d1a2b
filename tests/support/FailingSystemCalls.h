// System calls that fail where a test needs it, through the table of the file unit
// (base/systems/unix/SystemCalls.h), and runs that are repeated for each of their calls.

#ifndef ZEPH_TESTS_SUPPORT_FAILINGSYSTEMCALLS_H
#define ZEPH_TESTS_SUPPORT_FAILINGSYSTEMCALLS_H

#include <functional>
#include <string>

#include "base/systems/unix/SystemCalls.h"

// While it exists, calls of this thread fail, and pauses take no time. The process has at most one,
// and no other thread works with files meanwhile.
class FailingSystemCalls {
 public:
  enum Mode {
    Once,         // one call
    FromThereOn,  // that call and all after it, like a disk that stays full
  };
  // In place of an errno value: reads and writes get half of their bytes. Only those that can be
  // halved are then counted.
  static constexpr int Short = 0;

  // The next call is number 1; 0 lets all calls succeed. From the 20th pause on, `give_up` is
  // called at each one: waits for a lock have no end of their own. EINTR from there on would never
  // end.
  // With `memory_too`, the thread is refused all memory from the first failure on.
  FailingSystemCalls(long number, int error, Mode mode, std::function<void()> give_up = {},
                     bool memory_too = false);
  ~FailingSystemCalls();
  FailingSystemCalls(const FailingSystemCalls&) = delete;
  FailingSystemCalls& operator=(const FailingSystemCalls&) = delete;

  // How many calls were made.
  static long Made();
  // The name of the first call that failed; empty if none has.
  static std::string Failed();
};

// One case of a sweep, given to the check after a run.
struct SystemCallFault {
  std::string call;  // the name of the failed call; empty in a run without a failure
  int error = 0;
  bool once = true;
};

// A run that is repeated with a later call failing each time.
struct SystemCallSweep {
  std::function<void()> prepare;                      // makes the files; nothing fails
  std::function<void()> run;                          // with the failing calls
  std::function<void(const SystemCallFault&)> check;  // reads what is left; nothing fails
  std::function<void()> give_up = {};                 // ends a wait
};

// Runs the sweep with each call failing once with EINTR, EIO, ENOSPC, EDQUOT, EMFILE and ENOMEM,
// and from there on with EIO, ENOSPC and EMFILE; from there on with EIO and without memory; and
// with each read and write cut short. Expects that no run leaves a descriptor open. Only
// std::bad_alloc may leave a run. Each of the first kSweepEach calls fails, then ever fewer of
// them. Records the number of runs as the property "points" of the test.
void ExpectEachSystemCallMayFail(const SystemCallSweep& sweep);

#endif
