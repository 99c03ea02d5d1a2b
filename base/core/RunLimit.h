// The time limit of the run that a thread is in. The machine checks its time-out flag between
// instructions. A single instruction can also start long work; that work checks the flag here, at
// any call depth.

#ifndef ZEPH_BASE_RUNLIMIT_H
#define ZEPH_BASE_RUNLIMIT_H

#include <atomic>

// While an object exists, its flag is the limit of this thread. The newest object counts: a machine
// makes one for each of its runs, and the reader of a form has one before the script starts.
// Without one, as during the clean-up of a request, nothing is cut short.
//
// Work that is cut short leaves a valid but incomplete result. No further instruction sees it,
// because the machine finds the flag set next. Code whose result outlasts the run, such as a record
// for a file, checks WasCut() first.
class RunLimit {
 public:
  // Borrows the time-out flag. Any thread may set it; it is read in relaxed order.
  explicit RunLimit(int* timedout) : timedout(timedout), outer(newest) { newest = this; }
  ~RunLimit() {
    newest = outer;
    // A nested run with the same limit: the outer run was cut too.
    if (outer && outer->timedout == timedout) outer->cut |= cut;
  }
  RunLimit(const RunLimit&) = delete;
  RunLimit& operator=(const RunLimit&) = delete;

  // Whether long work must end here. A caller that gets true must end its work.
  static bool Over() {
    if (!newest || std::atomic_ref<int>(*newest->timedout).load(std::memory_order_relaxed) == 0) {
      return false;
    }
    newest->cut = true;
    return true;
  }
  // Whether Over() has returned true under the newest limit.
  static bool WasCut() { return newest && newest->cut; }

  // Bytes of text to process between two checks: some milliseconds of work.
  static constexpr int Bytes = 1 << 21;

 private:
  int* const timedout;
  RunLimit* const outer;
  bool cut = false;

  static constinit inline thread_local RunLimit* newest = nullptr;
};

// Counts the units of one piece of work and checks the limit each time `units` of them are done.
// Smaller work is always completed, even after the time is over: the texts of time-out messages
// rely on that.
class RunWatch {
 public:
  explicit RunWatch(int units) : interval(units), left(units) {}

  // Counts that many more units and returns whether the work must end. Once true, it stays true.
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
