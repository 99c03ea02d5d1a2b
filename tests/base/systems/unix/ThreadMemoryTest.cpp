#include "base/core/ThreadMemory.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "base/core/BufferRoom.h"
#include "base/core/Sanitizers.h"
#include "base/systems/unix/ScriptThread.h"
#include "base/values/Variable.h"
#include "tests/support/FailingAllocator.h"

namespace {

class ThreadMemoryTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!ThreadMemory::NewIsHere()) GTEST_SKIP() << "the operators are the sanitizer's";
  }
};

const int64_t kMegabyte = 1 << 20;

TEST_F(ThreadMemoryTest, KnowsTheMostThatARunHad) {
  for (int i = 0; i < 2; i++) {
    // The second run does not see the block of the first.
    const ThreadMemory::Run run;
    EXPECT_LT(ThreadMemory::Peak(), kMegabyte);
    const int64_t size = (i == 0 ? 20 : 2) * kMegabyte;
    auto block = std::make_unique<char[]>(static_cast<size_t>(size));
    block.reset();
    EXPECT_LT(ThreadMemory::Used(), kMegabyte);
    EXPECT_GE(ThreadMemory::Peak(), size);
    EXPECT_LT(ThreadMemory::Peak(), size + kMegabyte);
  }
  EXPECT_GE(ThreadMemory::LargestPeak(), 20 * kMegabyte);
}

TEST_F(ThreadMemoryTest, TheMostOfATaskIncludesWhatItWasGiven) {
  const ThreadMemory::Run run(5 * kMegabyte);
  auto block = std::make_unique<char[]>(kMegabyte);
  EXPECT_GE(ThreadMemory::Peak(), 6 * kMegabyte);
  EXPECT_LT(ThreadMemory::Peak(), 7 * kMegabyte);
}

TEST_F(ThreadMemoryTest, CountsWhatTheRunHolds) {
  const ThreadMemory::Run run;
  EXPECT_EQ(ThreadMemory::Used(), 0);
  auto block = std::make_unique<char[]>(kMegabyte);
  EXPECT_GE(ThreadMemory::Used(), kMegabyte);
  EXPECT_LT(ThreadMemory::Used(), 2 * kMegabyte);
  block.reset();
  EXPECT_EQ(ThreadMemory::Used(), 0);
}

TEST_F(ThreadMemoryTest, WhatWasHeldBeforeTheRunDoesNotCount) {
  auto block = std::make_unique<char[]>(kMegabyte);
  const ThreadMemory::Run run;
  EXPECT_EQ(ThreadMemory::Used(), 0);
}

TEST_F(ThreadMemoryTest, RefusesWhatIsBeyondTheLimit) {
  const ThreadMemory::Run run;
  ThreadMemory::SetLimit(kMegabyte);
  EXPECT_THROW(std::make_unique<char[]>(kMegabyte + 1), std::bad_alloc);
  std::vector<std::unique_ptr<char[]>> blocks;
  blocks.reserve(1000);
  EXPECT_THROW(for (;;) blocks.push_back(std::make_unique<char[]>(10000)), std::bad_alloc);
  EXPECT_GT(blocks.size(), 90u);
  EXPECT_LE(blocks.size(), 104u);
}

// The limit is on the bytes in use, not on the sum of all blocks.
TEST_F(ThreadMemoryTest, FreedBlocksCanBeTakenAgain) {
  const ThreadMemory::Run run;
  ThreadMemory::SetLimit(kMegabyte);
  for (int i = 0; i < 1000; i++) EXPECT_NE(std::make_unique<char[]>(kMegabyte / 2), nullptr);
}

TEST_F(ThreadMemoryTest, TheFormThatDoesNotThrowReturnsNull) {
  const ThreadMemory::Run run;
  ThreadMemory::SetLimit(kMegabyte);
  EXPECT_EQ(std::unique_ptr<char[]>(new (std::nothrow) char[2 * kMegabyte]), nullptr);
}

TEST_F(ThreadMemoryTest, ThereIsNoLimitAfterARun) {
  {
    const ThreadMemory::Run run;
    ThreadMemory::SetLimit(kMegabyte);
  }
  EXPECT_NE(std::make_unique<char[]>(4 * kMegabyte), nullptr);
}

TEST_F(ThreadMemoryTest, ZeroAndLessAreNoLimit) {
  const ThreadMemory::Run run;
  for (int bytes : {0, -1}) {
    ThreadMemory::SetLimit(bytes);
    EXPECT_NE(std::make_unique<char[]>(4 * kMegabyte), nullptr);
  }
}

TEST_F(ThreadMemoryTest, OfOneThreadIsNoneOfAnothersConcern) {
  const ThreadMemory::Run run;
  ThreadMemory::SetLimit(kMegabyte);
  std::thread([] {
    const ThreadMemory::Run other;
    EXPECT_NE(std::make_unique<char[]>(4 * kMegabyte), nullptr);
  }).join();
  EXPECT_LT(ThreadMemory::Used(), kMegabyte);
}

TEST_F(ThreadMemoryTest, WhatIsHandedOverCountsForTheOther) {
  const ThreadMemory::Run run;
  std::unique_ptr<char[]> block(new char[kMegabyte]);
  const int64_t given = ThreadMemory::Used();
  std::thread([&] {
    const ThreadMemory::Run other(given);
    EXPECT_EQ(ThreadMemory::Used(), given);
    block.reset();
    EXPECT_EQ(ThreadMemory::Used(), 0);
  }).join();
  ThreadMemory::HandOver(given);
  EXPECT_LT(ThreadMemory::Used(), 1000);  // the bytes that std::thread has allocated
}

TEST_F(ThreadMemoryTest, ALineTellsOfTheLimitThatWasMet) {
  const ThreadMemory::Run run;
  ThreadMemory::SetLimit(kMegabyte);
  testing::internal::CaptureStderr();
  EXPECT_THROW(std::make_unique<char[]>(2 * kMegabyte), std::bad_alloc);
  ThreadMemory::Exhausted("dir/page.zpc", 12);
  const std::string line = testing::internal::GetCapturedStderr();
  EXPECT_NE(line.find(" dir/page.zpc: Out of memory: memory_limit is 1048576 bytes\n"),
            std::string::npos)
      << line;
  EXPECT_FALSE(ThreadMemory::RanShort());
}

TEST_F(ThreadMemoryTest, ALineTellsOfAProcessThatHasNoMemory) {
  const ThreadMemory::Run run;
  testing::internal::CaptureStderr();
  {
    const FailingAllocator allocator(1, FailingAllocator::Once);
    EXPECT_THROW(std::make_unique<char[]>(4711), std::bad_alloc);
  }
  ThreadMemory::Exhausted("dir/page.zpc", 12);
  const std::string line = testing::internal::GetCapturedStderr();
  EXPECT_NE(line.find(" dir/page.zpc: Out of memory: the process has no 4711 bytes left\n"),
            std::string::npos)
      << line;
  EXPECT_TRUE(ThreadMemory::RanShort());
}

// A lack that the line of an error has told needs no line of its own.
TEST_F(ThreadMemoryTest, ALackIsToldOnce) {
  testing::internal::CaptureStderr();
  {
    const ThreadMemory::Run run;
    ThreadMemory::SetLimit(kMegabyte);
    EXPECT_EQ(ThreadMemory::TakeShortage(), nullptr);
    EXPECT_THROW(std::make_unique<char[]>(2 * kMegabyte), std::bad_alloc);
    ThreadMemory::Exhausted();
    EXPECT_STREQ(ThreadMemory::TakeShortage(), "memory_limit is 1048576 bytes");
    EXPECT_EQ(ThreadMemory::TakeShortage(), nullptr);
    ThreadMemory::Exhausted("dir/page.zpc", 12);
    EXPECT_EQ(ThreadMemory::TakeShortage(), nullptr);
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  {
    const ThreadMemory::Run next;
    testing::internal::CaptureStderr();
    ThreadMemory::Exhausted("dir/page.zpc", 12);
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
  }
}

// The message and the end of the run need some memory.
TEST_F(ThreadMemoryTest, ThereIsALittleBeyondTheLimitOnceItWasMet) {
  const ThreadMemory::Run run;
  ThreadMemory::SetLimit(kMegabyte);
  auto block = std::make_unique<char[]>(kMegabyte - 1000);
  EXPECT_THROW(std::make_unique<char[]>(100000), std::bad_alloc);
  ThreadMemory::Exhausted("", 0);
  EXPECT_NE(std::make_unique<char[]>(100000), nullptr);
  EXPECT_THROW(std::make_unique<char[]>(2 * kMegabyte), std::bad_alloc);
}

// --- Buffers -------------------------------------------------------------------------------------

TEST_F(ThreadMemoryTest, ReallocHasTheBlocksOfNew) {
  EXPECT_TRUE(ThreadMemory::NewIsHere());
  EXPECT_EQ(ThreadMemory::NewIsMalloc(), !kAddressSanitizer);
}

TEST_F(ThreadMemoryTest, ABufferThatGrowsCounts) {
  const ThreadMemory::Run run;
  ThreadMemory::SetLimit(4 * kMegabyte);
  char* buffer = new char[100];
  memset(buffer, 'x', 100);
  buffer = GrowBuffer(buffer, 100, kMegabyte);
  EXPECT_GE(ThreadMemory::Used(), kMegabyte);
  EXPECT_GE(BufferRoom(buffer), static_cast<size_t>(kMegabyte));
  EXPECT_THROW((void)GrowBuffer(buffer, 100, 8 * kMegabyte), std::bad_alloc);
  EXPECT_EQ(std::string(buffer, 100), std::string(100, 'x'));
  delete[] buffer;
  EXPECT_EQ(ThreadMemory::Used(), 0);
}

// --- Threads -------------------------------------------------------------------------------------

std::vector<Variable*> values;

void TakeAddressSpaceAway() {
  const rlimit nothing = {0, 0};
  setrlimit(RLIMIT_AS, &nothing);
}

void* FreeWithoutMemory(void*) {
  TakeAddressSpaceAway();
  for (size_t size : {1 << 20, 1 << 12, 256, 64, 24}) {
    while (malloc(size)) {
    }
  }
  for (Variable* value : values) value->DecRefCount();
  Variable::FreeCycles();
  _exit(7);
}

void FreeOnAThreadWithoutMemory() {
  for (int i = 0; i < 100; i++) values.push_back(new Variable);
  pthread_t thread;
  if (StartScriptThread(&thread, FreeWithoutMemory, nullptr) == 0) pthread_join(thread, nullptr);
}

void StartAThreadWithoutMemory() {
  // The stack of the first thread is kept and used again for the second.
  pthread_t thread;
  const auto body = [](void*) -> void* { return nullptr; };
  if (StartScriptThread(&thread, body, nullptr) == 0) pthread_join(thread, nullptr);
  TakeAddressSpaceAway();
  _exit(StartScriptThread(&thread, body, nullptr) == ENOMEM ? 7 : 8);
}

// Keeping the first block in a list, or looking for cycles, would register a destructor for the end
// of the thread, which takes memory.
TEST(ThreadMemoryDeathTest, AThreadWithoutMemoryCanStillFree) {
  if (kAddressSanitizer || kThreadSanitizer) GTEST_SKIP() << "their own memory would not be had";
  EXPECT_EXIT(FreeOnAThreadWithoutMemory(), testing::ExitedWithCode(7), "");
}

TEST(ThreadMemoryDeathTest, AThreadThatCannotHaveMemoryIsNotStarted) {
  if (kAddressSanitizer || kThreadSanitizer) GTEST_SKIP() << "their own memory would not be had";
  EXPECT_EXIT(StartAThreadWithoutMemory(), testing::ExitedWithCode(7), "");
}

}  // namespace
