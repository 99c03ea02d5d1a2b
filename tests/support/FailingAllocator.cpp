// Refuses blocks by their number, and repeats a run for each of its blocks.

#include "tests/support/FailingAllocator.h"

#include <gtest/gtest.h>

#include <new>
#include <thread>

#include "base/core/ThreadMemory.h"

namespace {

constinit thread_local long first_refused = 0;
constinit thread_local long asked = 0;
constinit thread_local FailingAllocator::Mode refusal = FailingAllocator::Once;
constinit thread_local bool exists = false;

bool IsRefused(size_t) {
  asked++;
  if (first_refused == 0) return false;
  if (refusal == FailingAllocator::Once) return asked == first_refused;
  if (refusal == FailingAllocator::UntilReserve && ThreadMemory::RanShort()) return false;
  return asked >= first_refused;
}

void RunToItsEnd(const std::function<void()>& run) {
  try {
    run();
  } catch (const std::bad_alloc&) {
  }
}

// Whether the run ended before its block was reached.
bool RunWithout(const std::function<void()>& run, long number, FailingAllocator::Mode mode) {
  const int64_t before = ThreadMemory::Used();
  bool refused;
  {
    const FailingAllocator allocator(number, mode);
    RunToItsEnd(run);
    refused = FailingAllocator::Refused();
  }
  EXPECT_EQ(ThreadMemory::Used(), before)
      << "bytes held before and after block " << number
      << (mode == FailingAllocator::Once ? " was refused" : " and all after it were refused");
  return !refused;
}

long RunAll(const std::function<void()>& run, bool both, long each) {
  ThreadMemory::Begin();
  // Allocates once what stays for the life of the thread.
  RunToItsEnd(run);
  long whole;
  {
    const FailingAllocator allocator(0, FailingAllocator::Once);
    RunToItsEnd(run);
    whole = FailingAllocator::Asked();
  }
  for (long number = 1; !testing::Test::HasFailure(); number += 1 + number / each) {
    const bool over = RunWithout(run, number, FailingAllocator::Once);
    if (both) RunWithout(run, number, FailingAllocator::FromThereOn);
    if (over) break;
  }
  return whole;
}

}  // namespace

FailingAllocator::FailingAllocator(long number, Mode mode) {
  first_refused = number;
  asked = 0;
  refusal = mode;
  exists = true;
  ThreadMemory::SetJudge(IsRefused);
}

FailingAllocator::~FailingAllocator() {
  exists = false;
  ThreadMemory::SetJudge(nullptr);
}

bool FailingAllocator::Refused() {
  return first_refused != 0 && asked >= first_refused;
}

long FailingAllocator::Asked() {
  return asked;
}

FailingAllocator::Pause::Pause() {
  ThreadMemory::SetJudge(nullptr);
}

FailingAllocator::Pause::~Pause() {
  ThreadMemory::SetJudge(exists ? IsRefused : nullptr);
}

long ExpectNothingIsLost(const std::function<void()>& run, bool both, long each) {
  long whole = 0;
  std::thread([&] { whole = RunAll(run, both, each); }).join();
  return whole;
}
