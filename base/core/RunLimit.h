// The time limit of the run that a thread is in. The machine looks at its time-out flag between
// instructions; work that one instruction can make long looks at it here, however deep below the
// instruction it is done.

#ifndef ZEPH_BASE_RUNLIMIT_H
#define ZEPH_BASE_RUNLIMIT_H

#include <atomic>

// While an object exists, the flag that it was given is the limit of this thread. The newest one
// counts: a machine makes one for each of its runs, and a form that is read has one before the
// script starts. With none, as when a request is cleaned up, nothing is ever cut short.
//
// Work that was cut short leaves something valid, with less in it than there should be. It goes no
// further than the instruction: the machine finds the flag set next. What would outlast the run,
// such as a record for a file, asks WasCut() first.
class RunLimit {
 public:
  // The flag is borrowed. It is set by any thread, and read in relaxed order.
  explicit RunLimit(int* flag) : over(flag), outer(newest) { newest = this; }
  ~RunLimit() {
    newest = outer;
    // A run within a run of the same limit.
    if (outer && outer->over == over) outer->cut |= cut;
  }
  RunLimit(const RunLimit&) = delete;
  RunLimit& operator=(const RunLimit&) = delete;

  // Whether long work has to end here. A caller that is told so ends it.
  static bool Over() {
    if (!newest || std::atomic_ref<int>(*newest->over).load(std::memory_order_relaxed) == 0) {
      return false;
    }
    newest->cut = true;
    return true;
  }
  // Whether any work under the newest limit was told to end.
  static bool WasCut() { return newest && newest->cut; }

  // Bytes that a text is worked on between two looks: some milliseconds.
  static constexpr int Bytes = 1 << 21;

 private:
  int* const over;
  RunLimit* const outer;
  bool cut = false;

  static constinit inline thread_local RunLimit* newest = nullptr;
};

// Counts one piece of work, and looks at the limit after each so many units of it. What is smaller
// is always done whole, also after the time is over: that goes for the texts that tell about it.
class RunWatch {
 public:
  explicit RunWatch(int units) : interval(units), left(units) {}

  // Whether the work has to end, with so many more units done. Once true, it stays so.
  bool Over(int units = 1) {
    left -= units;
    return left <= 0 && Look();
  }
  bool over() const { return is_over; }

 private:
  bool Look() {
    left = interval;
    if (!is_over) is_over = RunLimit::Over();
    if (is_over) left = 0;
    return is_over;
  }

  int interval;
  int left;
  bool is_over = false;
};

#endif
