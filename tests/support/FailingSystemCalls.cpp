// Fails system calls by their number, and repeats a run for each of its calls.

#include "tests/support/FailingSystemCalls.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <iterator>
#include <new>
#include <tuple>
#include <type_traits>
#include <utility>

#include "base/core/ThreadMemory.h"
#include "tests/support/Sweep.h"

namespace {

constexpr int kPatience = 20;  // pauses

struct State {
  long first = 0;
  int error = 0;
  bool only_once = true;
  long made = 0;
  int pauses = 0;
  const char* failed = nullptr;
  std::function<void()> give_up;
  bool memory_too = false;
  SystemCalls original;
};

State* state = nullptr;
thread_local bool armed = false;

// Whether the call of that name fails, which counts it.
bool IsDue(const char* name, bool may_be_short) {
  if (!armed || (state->error == FailingSystemCalls::Short && !may_be_short)) return false;
  state->made++;
  const bool due = state->only_once ? state->made == state->first
                                    : state->first > 0 && state->made >= state->first;
  if (due && !state->failed) {
    state->failed = name;
    if (state->memory_too) ThreadMemory::SetJudge([](size_t) { return true; });
  }
  return due;
}

template <class Result>
Result FailedResult() {
  if constexpr (std::is_same_v<Result, void*>) {
    return MAP_FAILED;
  } else if constexpr (std::is_pointer_v<Result>) {
    return nullptr;
  } else {
    return -1;
  }
}

// Replaces one entry of the table.
template <auto Entry>
struct Injector;
template <class Result, class... Arguments, Result (*SystemCalls::*Entry)(Arguments...)>
struct Injector<Entry> {
  using All = std::tuple<Arguments..., void, void, void>;
  static constexpr bool Transfers =
      std::is_same_v<Result, ssize_t> && std::is_same_v<std::tuple_element_t<2, All>, size_t>;
  static inline const char* name = "";

  static Result Call(Arguments... arguments) {
    bool halves = false;
    if constexpr (Transfers) halves = std::get<2>(std::tie(arguments...)) > 1;
    if (IsDue(name, halves)) {
      if (state->error != FailingSystemCalls::Short) {
        errno = state->error;
        return FailedResult<Result>();
      }
      if constexpr (Transfers) std::get<2>(std::tie(arguments...)) /= 2;
    }
    return (state->original.*Entry)(arguments...);
  }
};

template <auto Entry>
void Replace(const char* name) {
  Injector<Entry>::name = name;
  system_calls.*Entry = Injector<Entry>::Call;
}

int Pause(pollfd* entries, nfds_t count, int milliseconds) {
  if (!armed) return state->original.poll(entries, count, milliseconds);
  if (++state->pauses >= kPatience && state->give_up) state->give_up();
  return 0;
}

long OpenDescriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return std::distance(begin(entries), end(entries));
}

// Runs the sweep once. Returns false if the call was not reached.
bool RunOnce(const SystemCallSweep& sweep, long number, int error, FailingSystemCalls::Mode mode,
             bool memory_too = false) {
  sweep.prepare();
  const long descriptors = OpenDescriptors();
  SystemCallFault fault = {"", error, mode == FailingSystemCalls::Once};
  {
    const FailingSystemCalls failing(number, error, mode, sweep.give_up, memory_too);
    try {
      sweep.run();
    } catch (const std::bad_alloc&) {
    }
    ThreadMemory::SetJudge(nullptr);
    fault.call = FailingSystemCalls::Failed();
  }
  SCOPED_TRACE(testing::Message() << "call " << number << " (" << fault.call << ") "
                                  << (error ? strerror(error) : "cut short")
                                  << (fault.once ? "" : " from there on")
                                  << (memory_too ? ", and no memory" : ""));
  sweep.check(fault);
  EXPECT_EQ(OpenDescriptors(), descriptors) << "open descriptors";
  return !fault.call.empty();
}

}  // namespace

FailingSystemCalls::FailingSystemCalls(long number, int error, Mode mode,
                                       std::function<void()> give_up, bool memory_too) {
  state = new State{number,     error,       mode == Once, 0, 0, nullptr, std::move(give_up),
                    memory_too, system_calls};
#define ZEPH_REPLACE(entry) Replace<&SystemCalls::entry>(#entry)
  ZEPH_REPLACE(read);
  ZEPH_REPLACE(write);
  ZEPH_REPLACE(pread);
  ZEPH_REPLACE(pwrite);
  ZEPH_REPLACE(lseek);
  ZEPH_REPLACE(openat);
  ZEPH_REPLACE(open_without_links);
  ZEPH_REPLACE(check_readable);
  ZEPH_REPLACE(fstat);
  ZEPH_REPLACE(fstatat);
  ZEPH_REPLACE(linkat);
  ZEPH_REPLACE(unlinkat);
  ZEPH_REPLACE(renameat);
  ZEPH_REPLACE(mkdirat);
  ZEPH_REPLACE(symlinkat);
  ZEPH_REPLACE(readlinkat);
  ZEPH_REPLACE(fchmod);
  ZEPH_REPLACE(fchmodat);
  ZEPH_REPLACE(futimens);
  ZEPH_REPLACE(utimensat);
  ZEPH_REPLACE(fdopendir);
  ZEPH_REPLACE(readdir);
  ZEPH_REPLACE(mmap);
  ZEPH_REPLACE(set_lock);
  ZEPH_REPLACE(get_lock);
  ZEPH_REPLACE(set_flags);
  ZEPH_REPLACE(duplicate_from);
  ZEPH_REPLACE(flock);
  ZEPH_REPLACE(kill);
#undef ZEPH_REPLACE
  system_calls.poll = Pause;
  armed = true;
}

FailingSystemCalls::~FailingSystemCalls() {
  armed = false;
  system_calls = state->original;
  delete std::exchange(state, nullptr);
}

long FailingSystemCalls::Made() {
  return state->made;
}

std::string FailingSystemCalls::Failed() {
  return state->failed ? state->failed : "";
}

void ExpectEachSystemCallMayFail(const SystemCallSweep& sweep) {
  using Mode = FailingSystemCalls::Mode;
  const struct {
    int error;
    Mode mode;
    bool memory_too = false;
  } kinds[] = {{EINTR, Mode::Once},
               {EIO, Mode::Once},
               {ENOSPC, Mode::Once},
               {EDQUOT, Mode::Once},
               {EMFILE, Mode::Once},
               {ENOMEM, Mode::Once},
               {EIO, Mode::FromThereOn},
               {ENOSPC, Mode::FromThereOn},
               {EMFILE, Mode::FromThereOn},
               {EIO, Mode::FromThereOn, true},
               {FailingSystemCalls::Short, Mode::Once}};
  RunOnce(sweep, 0, EIO, Mode::Once);
  long points = 0;
  for (const auto& kind : kinds) {
    if (kind.memory_too && !ThreadMemory::NewIsHere()) continue;
    for (long number = 1; !testing::Test::HasFailure(); number += 1 + number / kSweepEach) {
      if (!RunOnce(sweep, number, kind.error, kind.mode, kind.memory_too)) break;
      points++;
    }
  }
  RecordPoints(points);
}
