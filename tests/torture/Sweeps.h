// What the sweeps of files, tables and indexes share: a host on real files, and both sweeps of one
// run.

#ifndef ZEPH_TESTS_TORTURE_SWEEPS_H
#define ZEPH_TESTS_TORTURE_SWEEPS_H

#include <gtest/gtest.h>

#include <new>

#include "base/core/ThreadMemory.h"
#include "base/systems/unix/UNIXReentrantFile.h"
#include "tests/support/FailingAllocator.h"
#include "tests/support/FailingSystemCalls.h"
#include "tests/support/Sweep.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestApplication.h"

// The host of one request.
struct Host {
  Host() { application.SetFileManager(&files); }

  TestApplication application;
  UNIXReentrantFileManager files{&application};
};

// The files that a run works on, and the first promise that it broke. A run must not report that
// itself: the report needs memory, which may be refused.
class Sweeps : public testing::Test {
 protected:
  void Broken(const char* promise) {
    if (!broken) broken = promise;
  }
  // For an operation that failed: it has to say why.
  void NeedText(const String& error) {
    if (error.length == 0) Broken("a failure without a text");
  }

  // Repeats the run with each system call failing in turn, and with each block of memory refused in
  // turn. The check gets a fault without a call in the second case. `run` may throw std::bad_alloc.
  void ExpectBothSweeps(SystemCallSweep sweep) {
    const auto check = [this, inner = sweep.check](const SystemCallFault& fault) {
      EXPECT_EQ(broken, nullptr) << broken;
      broken = nullptr;
      inner(fault);
    };
    sweep.check = check;
    ExpectEachSystemCallMayFail(sweep);
    if (!ThreadMemory::NewIsHere() || HasFailure()) return;
    const long blocks = ExpectNothingIsLost(
        [&] {
          {
            const FailingAllocator::Pause pause;
            sweep.prepare();
          }
          try {
            sweep.run();
          } catch (const std::bad_alloc&) {
          }
          const FailingAllocator::Pause pause;
          check({});
        },
        true, kSweepEach);
    RecordProperty("blocks", static_cast<int>(blocks));
  }

  TemporaryDirectory directory;
  const char* broken = nullptr;
};

#endif
