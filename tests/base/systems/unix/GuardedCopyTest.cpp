#include "base/systems/unix/GuardedCopy.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "base/core/Sanitizers.h"
#include "base/host/FileDescriptor.h"

namespace {

constexpr size_t page = 4096;

// Two pages of the letter "x", mapped.
class GuardedCopyTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(CanGuardCopies());
    Map();
  }
  void TearDown() override { munmap(memory, 2 * page); }

  void Map() {
    file.reset(memfd_create("pages", MFD_CLOEXEC));
    Fill();
    memory = static_cast<char*>(mmap(nullptr, 2 * page, PROT_READ, MAP_SHARED, file.get(), 0));
    ASSERT_NE(MAP_FAILED, static_cast<void*>(memory));
  }
  void Fill() {
    const std::string letters(2 * page, 'x');
    ASSERT_EQ(static_cast<ssize_t>(2 * page), pwrite(file.get(), letters.data(), 2 * page, 0));
  }
  void Cut(size_t length) { ASSERT_EQ(0, ftruncate(file.get(), static_cast<off_t>(length))); }
  // An access without a guard, as any program may make.
  static void Touch(const volatile char* byte) { (void)*byte; }

  // Sanitizers have a handler that reports the signal and ends the process.
  static bool IsKill(int status) {
    if (WIFSIGNALED(status)) return WTERMSIG(status) == SIGBUS;
    return (kAddressSanitizer || kThreadSanitizer) && WEXITSTATUS(status) != 0;
  }

  FileDescriptor file;
  char* memory = nullptr;
  char bytes[2 * page];
};

using GuardedCopyDeathTest = GuardedCopyTest;

TEST_F(GuardedCopyTest, CopiesWhatIsThere) {
  EXPECT_TRUE(GuardedCopy(bytes, memory, 2 * page));
  EXPECT_EQ(std::string(2 * page, 'x'), std::string(bytes, 2 * page));
}

TEST_F(GuardedCopyTest, FailsWhereThePagesHaveGone) {
  Cut(page);
  EXPECT_TRUE(GuardedCopy(bytes, memory, page));
  EXPECT_FALSE(GuardedCopy(bytes, memory + page - 10, 20));
  EXPECT_FALSE(GuardedCopy(bytes, memory + page, 1));
  Cut(0);
  EXPECT_FALSE(GuardedCopy(bytes, memory, 1));
}

TEST_F(GuardedCopyTest, SucceedsAgainWhenTheFileIsBack) {
  for (int i = 0; i < 3; i++) {
    Cut(0);
    EXPECT_FALSE(GuardedCopy(bytes, memory, page));
    Fill();
    EXPECT_TRUE(GuardedCopy(bytes, memory, page));
    EXPECT_EQ('x', bytes[page - 1]);
  }
}

TEST_F(GuardedCopyTest, EachThreadHasFailuresOfItsOwn) {
  std::atomic<int> copied{0}, failed{0}, wrong{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; i++) {
    threads.emplace_back([&, i] {
      std::array<char, 64> piece;
      for (int k = 0; k < 2000 || copied == 0 || failed == 0; k++) {
        const size_t offset = static_cast<size_t>((k + i) % 2) * page;
        if (!GuardedCopy(piece.data(), memory + offset, piece.size())) {
          failed++;
          continue;
        }
        copied++;
        for (char byte : piece) wrong += byte != 'x' && byte != 0;
      }
    });
  }
  for (int k = 0; k < 2000 || copied == 0 || failed == 0; k++) {
    Cut(k % 2 == 0 ? 0 : page);
    Fill();
  }
  Cut(page);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(0, wrong);
}

TEST_F(GuardedCopyTest, AThreadThatBlocksTheSignalCannot) {
  std::thread([] {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGBUS);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    EXPECT_FALSE(CanGuardCopies());
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    EXPECT_TRUE(CanGuardCopies());
  }).join();
}

TEST_F(GuardedCopyDeathTest, AFaultOfOtherCodeStillKills) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  Cut(0);
  ASSERT_FALSE(GuardedCopy(bytes, memory, 1));
  EXPECT_EXIT(Touch(memory), IsKill, "");
}

TEST_F(GuardedCopyDeathTest, ASentSignalStillKills) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(raise(SIGBUS), IsKill, "");
}

// Each test runs in a process of its own, because a handler stays in front of those that it found.
class GuardedCopyChainDeathTest : public testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  static void Handle(void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    sigaction(SIGBUS, &action, nullptr);
  }
  static void HandleWithContext(void (*handler)(int, siginfo_t*, void*)) {
    struct sigaction action = {};
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGBUS, &action, nullptr);
  }
  [[noreturn]] static void SendWithGuard() {
    if (!CanGuardCopies()) _exit(1);
    raise(SIGBUS);
    _exit(2);
  }
};

TEST_F(GuardedCopyChainDeathTest, TheHandlerOfBeforeGetsOtherFaults) {
  EXPECT_EXIT(
      {
        Handle([](int signal) { _exit(signal == SIGBUS ? 7 : 3); });
        SendWithGuard();
      },
      testing::ExitedWithCode(7), "");
  EXPECT_EXIT(
      {
        HandleWithContext([](int, siginfo_t* info, void*) { _exit(info ? 8 : 3); });
        SendWithGuard();
      },
      testing::ExitedWithCode(8), "");
}

std::atomic<int> received;

// Copying a megabyte takes long enough for signals to come in the middle of it.
[[noreturn]] void CopyUnderSignals() {
  std::atomic<bool> ready{false}, over{false};
  std::atomic<int> failed{0};
  std::thread copier([&] {
    const std::string from(1 << 20, 'x');
    std::string to(1 << 20, 'y');
    ready = true;
    while (!over) failed += !GuardedCopy(to.data(), from.data(), from.size());
  });
  while (!ready) std::this_thread::yield();
  for (int i = 1; i <= 30; i++) {
    pthread_kill(copier.native_handle(), SIGBUS);
    while (received < i && failed == 0) std::this_thread::yield();
  }
  over = true;
  copier.join();
  _exit(failed == 0 && received == 30 ? 5 : 6);
}

TEST_F(GuardedCopyChainDeathTest, ASignalThatWasSentDoesNotEndACopy) {
  EXPECT_EXIT(
      {
        Handle([](int) { received++; });
        if (!CanGuardCopies()) _exit(1);
        CopyUnderSignals();
      },
      testing::ExitedWithCode(5), "");
}

std::atomic<bool> has_copied;

// A library may install its own handler after the first mapping.
TEST_F(GuardedCopyChainDeathTest, AHandlerThatCameLaterIsPutBehind) {
  EXPECT_EXIT(
      {
        if (!CanGuardCopies()) _exit(1);
        Handle([](int) { _exit(has_copied ? 7 : 4); });
        if (!CanGuardCopies()) _exit(2);
        const FileDescriptor file(memfd_create("pages", MFD_CLOEXEC));
        void* memory = mmap(nullptr, page, PROT_READ, MAP_SHARED, file.get(), 0);
        char byte;
        if (memory == MAP_FAILED || GuardedCopy(&byte, memory, 1)) _exit(3);
        has_copied = true;
        SendWithGuard();
      },
      testing::ExitedWithCode(7), "");
}

struct sigaction found_by_library;

// Like a well-behaved library: passes all signals to the handler that it found.
void InstallLibraryHandler() {
  struct sigaction action = {};
  action.sa_sigaction = [](int signal, siginfo_t* info, void* context) {
    found_by_library.sa_sigaction(signal, info, context);
  };
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGBUS, &action, &found_by_library);
}

TEST_F(GuardedCopyChainDeathTest, HandlersThatLeadToEachOtherEndAtTheFirst) {
  EXPECT_EXIT(
      {
        Handle([](int) { _exit(9); });
        if (!CanGuardCopies()) _exit(1);
        InstallLibraryHandler();
        SendWithGuard();
      },
      testing::ExitedWithCode(9), "");
}

TEST_F(GuardedCopyChainDeathTest, HandlersThatTakeTurnsForeverAreLeftAlone) {
  EXPECT_EXIT(
      {
        int answers = 0;
        for (int i = 0; i < 100; i++) {
          Handle(i % 2 ? [](int) { _exit(7); } : [](int) { _exit(8); });
          answers += CanGuardCopies();
        }
        _exit(answers > 4 && answers < 100 ? 5 : 6);
      },
      testing::ExitedWithCode(5), "");
}

TEST_F(GuardedCopyChainDeathTest, AnIgnoredSignalStaysIgnored) {
  EXPECT_EXIT(
      {
        Handle(SIG_IGN);
        SendWithGuard();
      },
      testing::ExitedWithCode(2), "");
}

}  // namespace
