#include "base/systems/unix/StandardOutput.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <thread>

#include "base/host/FileDescriptor.h"

namespace {

// Descriptor 1 is the writing end of a pipe while this exists.
class StandardOutputTest : public testing::Test {
 protected:
  StandardOutputTest() {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    reading.reset(ends[0]);
    fflush(stdout);
    saved.reset(dup(STDOUT_FILENO));
    dup2(ends[1], STDOUT_FILENO);
    close(ends[1]);
  }
  ~StandardOutputTest() override { Restore(); }

  // Before a check, so that a failure is told where it is read.
  void Restore() {
    if (saved.is_open()) dup2(saved.get(), STDOUT_FILENO);
    saved.reset();
  }

  // All that has arrived so far.
  std::string Arrived() {
    std::string text;
    char bytes[4096];
    ssize_t count;
    while ((count = read(reading.get(), bytes, sizeof bytes)) > 0) {
      text.append(bytes, static_cast<size_t>(count));
    }
    return text;
  }

  FileDescriptor reading;
  FileDescriptor saved;
};

// So does text that is copied into the room which the output holds open, in its order.
TEST_F(StandardOutputTest, TextInTheRoomWaitsForAFlush) {
  StandardOutput output(1, 100);
  output.Write("abc", 3);
  const bool put = output.PutInRoom("def", 3);
  output.Write("", 0);
  output.Write("ghi", 3);
  const bool fits = output.PutInRoom("0123456789", 10);
  const std::string before = Arrived();
  output.Flush();
  const std::string after = Arrived();
  StandardOutput unbuffered(0, 100);
  unbuffered.Write("abc", 3);
  const bool waits = unbuffered.PutInRoom("def", 3);
  Restore();
  EXPECT_TRUE(put && fits);
  EXPECT_EQ(before, "");
  EXPECT_EQ(after, "abcdefghi0123456789");
  EXPECT_FALSE(waits);
}

TEST_F(StandardOutputTest, BufferedTextWaitsForAFlush) {
  StandardOutput output(1, 100);
  const int taken = output.Write("abc", 3);
  const std::string before = Arrived();
  const int flushed = output.Flush();
  const std::string after = Arrived();
  Restore();
  EXPECT_EQ(taken, 3);
  EXPECT_EQ(before, "");
  EXPECT_EQ(flushed, 3);
  EXPECT_EQ(after, "abc");
}

TEST_F(StandardOutputTest, UnbufferedTextIsThereAtOnce) {
  StandardOutput output(0, 100);
  const int taken = output.Write("abc", -1);
  const std::string first = Arrived();
  output.Write("de", 2);
  const std::string second = Arrived();
  Restore();
  EXPECT_EQ(taken, 3);
  EXPECT_EQ(first, "abc");
  EXPECT_EQ(second, "de");
}

TEST_F(StandardOutputTest, TheRestIsWrittenAtTheEnd) {
  {
    StandardOutput output(1, 100);
    output.Write("abc", 3);
  }
  const std::string all = Arrived();
  Restore();
  EXPECT_EQ(all, "abc");
}

TEST_F(StandardOutputTest, OfAFullPipeItTellsWhatWasWritten) {
  fcntl(STDOUT_FILENO, F_SETPIPE_SZ, 4096);
  const int room = fcntl(STDOUT_FILENO, F_GETPIPE_SZ);
  const std::string text(static_cast<size_t>(room) + 5000, 'x');
  StandardOutput output(1, 100);
  const int part = output.DoWrite(text.data(), static_cast<int>(text.size()));
  const int nothing = output.DoWrite("y", 1);
  const int error = errno;
  const std::string arrived = Arrived();
  const int again = output.DoWrite("z", 1);
  Restore();
  EXPECT_EQ(part, room);
  EXPECT_EQ(nothing, -1);
  EXPECT_EQ(error, EAGAIN);
  EXPECT_EQ(arrived, std::string(static_cast<size_t>(room), 'x'));
  EXPECT_EQ(again, 1);
}

TEST_F(StandardOutputTest, AReaderThatIsGoneIsAFailure) {
  const auto before = signal(SIGPIPE, SIG_IGN);
  reading.reset();
  StandardOutput output(1, 100);
  output.Write("abc", 3);
  const int flushed = output.Flush();
  const int nothing_left = output.Flush();
  Restore();
  signal(SIGPIPE, before);
  EXPECT_EQ(flushed, -1);
  EXPECT_EQ(nothing_left, 0);
}

void Nothing(int) {}

// A write that waits for the reader, and is interrupted before any byte is written.
TEST_F(StandardOutputTest, IsNotStoppedByASignal) {
  fcntl(STDOUT_FILENO, F_SETPIPE_SZ, 4096);
  StandardOutput output(1, 100);
  std::string text(static_cast<size_t>(fcntl(STDOUT_FILENO, F_GETPIPE_SZ)), 'x');
  const int filled = output.DoWrite(text.data(), static_cast<int>(text.size()));
  fcntl(STDOUT_FILENO, F_SETFL, fcntl(STDOUT_FILENO, F_GETFL) & ~O_NONBLOCK);
  struct sigaction action = {};
  action.sa_handler = Nothing;  // without SA_RESTART
  struct sigaction before;
  sigaction(SIGUSR1, &action, &before);
  const pthread_t writer = pthread_self();
  std::thread other([&] {
    for (int i = 0; i < 20; i++) {
      pthread_kill(writer, SIGUSR1);
      usleep(1000);
    }
    Arrived();
  });
  const int taken = output.DoWrite("after", 5);
  other.join();
  const std::string rest = Arrived();
  Restore();
  sigaction(SIGUSR1, &before, nullptr);
  EXPECT_EQ(filled, static_cast<int>(text.size()));
  EXPECT_EQ(taken, 5);
  EXPECT_TRUE(rest == "after" || rest.empty()) << rest;
}

}  // namespace
