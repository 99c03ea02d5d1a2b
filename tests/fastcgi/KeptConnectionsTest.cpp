#include "fastcgi/KeptConnections.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "base/host/FileDescriptor.h"

namespace {

const auto kNever = [] { return false; };
const auto kAlready = [] { return true; };

// A connection: the engine's end and the peer's.
struct Ends {
  Ends() {
    int both[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, both), 0);
    engine.reset(both[0]);
    peer.reset(both[1]);
  }
  void Send() const { EXPECT_EQ(write(peer.get(), "x", 1), 1); }
  void Take() const {
    char byte;
    EXPECT_EQ(read(engine.get(), &byte, 1), 1);
  }

  FileDescriptor engine;
  FileDescriptor peer;
};

class Kept : public testing::Test {
 protected:
  Kept() {
    kept.Open();
    sigemptyset(&none);
  }
  int Wait() { return kept.Wait(&none, kNever); }

  KeptConnections kept;
  sigset_t none;
};

TEST_F(Kept, TheConnectionThatHasSomethingToReadIsTaken) {
  const Ends first, second;
  ASSERT_TRUE(kept.Put(first.engine.get()));
  ASSERT_TRUE(kept.Put(second.engine.get()));
  second.Send();
  EXPECT_EQ(Wait(), second.engine.get());
  first.Send();
  EXPECT_EQ(Wait(), first.engine.get());
}

TEST_F(Kept, WhatCameBeforeItWasPutInCounts) {
  const Ends ends;
  ends.Send();
  ASSERT_TRUE(kept.Put(ends.engine.get()));
  EXPECT_EQ(Wait(), ends.engine.get());
}

TEST_F(Kept, AConnectionThatThePeerHasClosedIsTaken) {
  const Ends first;
  Ends second;
  ASSERT_TRUE(kept.Put(first.engine.get()));
  ASSERT_TRUE(kept.Put(second.engine.get()));
  second.peer.reset();
  EXPECT_EQ(Wait(), second.engine.get());
}

TEST_F(Kept, AConnectionIsPutInAgainAndAgain) {
  const Ends ends;
  for (int i = 0; i < 5; i++) {
    ASSERT_TRUE(kept.Put(ends.engine.get()));
    ends.Send();
    EXPECT_EQ(Wait(), ends.engine.get());
    ends.Take();
  }
}

// What comes while a thread serves the connection wakes no other.
TEST_F(Kept, AConnectionThatWasTakenIsNotWatched) {
  const Ends taken, other;
  ASSERT_TRUE(kept.Put(taken.engine.get()));
  taken.Send();
  EXPECT_EQ(Wait(), taken.engine.get());
  taken.Send();
  ASSERT_TRUE(kept.Put(other.engine.get()));
  other.Send();
  EXPECT_EQ(Wait(), other.engine.get());
}

TEST_F(Kept, ANewConnectionMayHaveTheNumberOfAnOldOne) {
  for (int i = 0; i < 3; i++) {
    const Ends ends;
    ASSERT_TRUE(kept.Put(ends.engine.get()));
    ends.Send();
    EXPECT_EQ(Wait(), ends.engine.get());
  }
}

TEST_F(Kept, AtTheEndEachWaitTakesOne) {
  const Ends ends[3];
  std::set<int> taken, expected;
  for (const Ends& each : ends) {
    ASSERT_TRUE(kept.Put(each.engine.get()));
    expected.insert(each.engine.get());
  }
  for (int i = 0; i < 3; i++) taken.insert(kept.Wait(&none, kAlready));
  EXPECT_EQ(taken, expected);
}

TEST_F(Kept, WhatCannotBeWatchedIsNotPutIn) {
  const FileDescriptor file(open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_FALSE(kept.Put(file.get()));
  EXPECT_FALSE(kept.Put(1 << 16));
  const Ends ends;
  ASSERT_TRUE(kept.Put(ends.engine.get()));
  EXPECT_EQ(kept.Wait(&none, kAlready), ends.engine.get());
}

TEST(KeptConnections, WithoutOpenNothingIsPutIn) {
  KeptConnections kept;
  const Ends ends;
  EXPECT_FALSE(kept.Put(ends.engine.get()));
}

// The signal is blocked but in the wait, as in the engine.
class Interruptible {
 public:
  Interruptible() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR2, &action, &before);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &set, &mask);
    in_wait = mask;
    sigdelset(&in_wait, SIGUSR2);
  }
  ~Interruptible() {
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    sigaction(SIGUSR2, &before, nullptr);
  }

  sigset_t in_wait;
  sigset_t mask;
  struct sigaction before;
};

TEST_F(Kept, ASignalEndsAWaitOnlyIfItIsOver) {
  const Interruptible signals;
  const Ends ends;
  std::atomic<int> asked{0};
  std::thread waiting([&] {
    EXPECT_TRUE(kept.Put(ends.engine.get()));
    EXPECT_EQ(kept.Wait(&signals.in_wait, [&] { return ++asked == 3; }), ends.engine.get());
  });
  while (asked < 3) {
    pthread_kill(waiting.native_handle(), SIGUSR2);
    std::this_thread::yield();
  }
  waiting.join();
}

// Each thread begins with a connection of its own, serves what comes on any of them, and leaves
// with one.
TEST_F(Kept, ThreadsShareConnectionsAndLeaveWithOneEach) {
  constexpr int kThreads = 6;
  constexpr int kRounds = 300;
  const Interruptible signals;
  const Ends ends[kThreads];
  std::atomic<bool> is_over{false};
  int left_with[kThreads];
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; i++) {
    threads.emplace_back([&, i] {
      int descriptor = ends[i].engine.get();
      while (!is_over) {
        EXPECT_TRUE(kept.Put(descriptor));
        descriptor = kept.Wait(&signals.in_wait, [&] { return is_over.load(); });
        char byte;
        while (recv(descriptor, &byte, 1, MSG_DONTWAIT) == 1) {
          EXPECT_EQ(write(descriptor, &byte, 1), 1);
        }
      }
      left_with[i] = descriptor;
    });
  }
  for (int round = 0; round < kRounds; round++) {
    for (const Ends& each : ends) each.Send();
    for (const Ends& each : ends) {
      char byte;
      ASSERT_EQ(read(each.peer.get(), &byte, 1), 1);
    }
  }
  is_over = true;
  for (std::thread& thread : threads) pthread_kill(thread.native_handle(), SIGUSR2);
  for (std::thread& thread : threads) thread.join();
  std::set<int> expected;
  for (const Ends& each : ends) expected.insert(each.engine.get());
  EXPECT_EQ(std::set<int>(left_with, left_with + kThreads), expected);
}

}  // namespace
