// Connections against peers that are slow, cut short, or never say a word.

#include "base/systems/unix/UNIXNetworkConnection.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include "base/host/Config.h"
#include "base/systems/unix/UNIXNetworkManager.h"
#include "tests/support/Lateness.h"
#include "tests/support/ListeningPeer.h"
#include "tests/support/Rounds.h"
#include "tests/support/TestApplication.h"

namespace {

using Peer = ListeningPeer::Connection;
using Clock = std::chrono::steady_clock;

std::string Text(const String& text) {
  return text.data ? std::string(text.data, static_cast<size_t>(text.length)) : "(null)";
}

class UNIXNetworkConnectionTest : public testing::Test {
 protected:
  UNIXNetworkConnectionTest() : manager(&application) {}
  ~UNIXNetworkConnectionTest() override { network_calls = NetworkCalls(); }

  // Connects to a peer that follows the script.
  NetworkConnection& To(std::function<void(Peer&)> script) {
    peer = std::make_unique<ListeningPeer>(std::move(script));
    connection.reset(manager.Connect("127.0.0.1", peer->port(), 5));
    EXPECT_NE(connection, nullptr) << Text(manager.error());
    return *connection;
  }
  // Closes the connection and waits until the peer is finished.
  void Close() {
    connection.reset();
    peer.reset();
  }
  std::string Line(int timeout = 5, int size = 512) {
    String line("old", -1);
    const int length = connection->ReadLine(line, timeout, size);
    if (length < 0) {
      EXPECT_EQ(Text(line), "");
      return "-1: " + Text(connection->error());
    }
    EXPECT_EQ(length, line.length);
    EXPECT_EQ(line.data[line.length], '\0');
    return Text(line);
  }
  std::string Some(int length = 100, int timeout = 5) {
    std::string buffer(static_cast<size_t>(length), '\0');
    const int count = connection->Read(buffer.data(), length, timeout);
    if (count < 0) return "-1: " + Text(connection->error());
    return buffer.substr(0, static_cast<size_t>(count));
  }
  // The error after a failed attempt with the calls as a test has set them.
  std::string Attempt(int family = AF_INET, int port = 9) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addrinfo target = {};
    target.ai_family = family;
    target.ai_addr = reinterpret_cast<sockaddr*>(&address);
    target.ai_addrlen = sizeof address;
    UNIXNetworkConnection attempt(&application);
    EXPECT_FALSE(attempt.EstablishTCPConnection(&target, port, 1));
    return Text(attempt.error());
  }

  TestApplication application;
  UNIXNetworkManager manager;
  std::unique_ptr<ListeningPeer> peer;
  std::unique_ptr<NetworkConnection> connection;
};

// --- Reading -------------------------------------------------------------------------------------

TEST_F(UNIXNetworkConnectionTest, ReadGivesWhatIsThereAndThenTheEnd) {
  To([](Peer& peer) { peer.Send("abc"); });
  std::string all;
  for (std::string part = Some(2); !part.empty(); part = Some(2)) {
    EXPECT_LE(part.size(), 2u);
    all += part;
  }
  EXPECT_EQ(all, "abc");
  EXPECT_EQ(connection->error().data, nullptr) << "the end is no error";
  EXPECT_EQ(connection->Read(nullptr, 0, 1), 0);
  EXPECT_EQ(connection->Read(nullptr, -5, 1), 0);
}

TEST_F(UNIXNetworkConnectionTest, ReadWaitsForASlowPeer) {
  To([](Peer& peer) {
    peer.Pause(600);
    peer.Send("late");
  });
  EXPECT_EQ(Some(), "late");
}

TEST_F(UNIXNetworkConnectionTest, AResetIsAReadError) {
  To([](Peer& peer) {
    peer.Receive(1);
    peer.Reset();
  });
  EXPECT_EQ(connection->Write("x", 1, 1), 1);
  EXPECT_EQ(Some(), "-1: Read Error: Connection reset by peer");
}

TEST_F(UNIXNetworkConnectionTest, ReadLineTakesNoMoreThanItsLine) {
  To([](Peer& peer) { peer.Send("one\ntwo\r\n\nrest"); });
  EXPECT_EQ(Line(), "one\n");
  EXPECT_EQ(Line(), "two\r\n");
  EXPECT_EQ(Line(), "\n");
  EXPECT_EQ(Some(), "rest");
}

TEST_F(UNIXNetworkConnectionTest, TheBufferSizeDoesNotLimitALine) {
  for (const int length : {510, 511, 512, 513, 600, 1023, 1024, 200000}) {
    SCOPED_TRACE(length);
    const std::string line = std::string(static_cast<size_t>(length), 'x') + "\n";
    To([&](Peer& peer) { peer.Send(line + "next\n"); });
    EXPECT_EQ(Line(), line);
    EXPECT_EQ(Line(), "next\n");
    Close();
  }
}

// Pieces of 4096 bytes and more are received together; all that comes after must not show it.
TEST_F(UNIXNetworkConnectionTest, LinesAndPiecesOfEachSizeFollowLargePieces) {
  std::string sent;
  for (int i = 0; i < 60000; i++) sent += std::to_string(i * 7919) + (i % 9 ? " " : "\n");
  std::mt19937 random(4);
  for (int round = 0; round < Rounds(40); round++) {
    SCOPED_TRACE(round);
    To([&](Peer& peer) { peer.Send(sent); });
    std::string all;
    while (all.size() < sent.size()) {
      // Without a last line feed, what is left of a line would be lost.
      const bool line = random() % 3 == 0 && sent.find('\n', all.size()) != std::string::npos;
      static const int kSizes[] = {1, 2, 100, 4095, 4096, 8192, 8192, 8192, 32767, 32768, 100000};
      const std::string part = line ? Line() : Some(kSizes[random() % std::size(kSizes)]);
      ASSERT_FALSE(part.empty());
      if (line) {
        ASSERT_EQ(part.find('\n'), part.size() - 1);
      }
      all += part;
    }
    EXPECT_TRUE(all == sent);
    EXPECT_EQ(Some(8192), "");
    Close();
  }
}

TEST_F(UNIXNetworkConnectionTest, LargePiecesAreReceivedTogether) {
  static size_t most;
  most = 0;
  To([](Peer& peer) { peer.Send(std::string(4 << 20, 'x')); });
  network_calls.recv = [](int descriptor, void* buffer, size_t length, int flags) {
    most = std::max(most, length);
    return ::recv(descriptor, buffer, length, flags);
  };
  size_t count = 0;
  for (std::string part; !(part = Some(8192)).empty();) count += part.size();
  EXPECT_EQ(count, 4u << 20);
  EXPECT_EQ(most, 32768u);
}

TEST_F(UNIXNetworkConnectionTest, WhatWasReceivedEarlyIsNoHandshake) {
  To([](Peer& peer) { peer.WaitForEnd(); });
  network_calls.recv = [](int, void* buffer, size_t length, int) {
    memset(buffer, 'x', length);
    return static_cast<ssize_t>(length);
  };
  EXPECT_EQ(Some(8192).size(), 8192u);
  EXPECT_EQ(Some(8192).size(), 8192u);
  EXPECT_FALSE(connection->EstablishTLSConnection(nullptr, nullptr, nullptr, 1));
  EXPECT_EQ(Text(connection->error()), "Error establishing SSL connection: Unexpected data");
}

TEST_F(UNIXNetworkConnectionTest, TinyBufferSizesWork) {
  for (const int size : {-3, 0, 1, 2}) {
    SCOPED_TRACE(size);
    To([](Peer& peer) { peer.Send("abc\nd\n"); });
    EXPECT_EQ(Line(5, size), "abc\n");
    EXPECT_EQ(Line(5, size), "d\n");
    Close();
  }
}

TEST_F(UNIXNetworkConnectionTest, ALineMayComeInPiecesAndHoldNULs) {
  To([](Peer& peer) {
    peer.Send("a");
    peer.Pause(100);
    peer.Send(std::string("\0b", 2));
    peer.Pause(100);
    peer.Send("c\nd");
  });
  EXPECT_EQ(Line(), std::string("a\0bc\n", 5));
}

TEST_F(UNIXNetworkConnectionTest, AnUnfinishedLineIsLost) {
  To([](Peer& peer) { peer.Send("abc"); });
  EXPECT_EQ(Line(), "-1: Read Error: Connection closed by remote host");
}

TEST_F(UNIXNetworkConnectionTest, FailuresOfTheSystemAreReported) {
  To([](Peer& peer) { peer.WaitForEnd(); });
  network_calls.recv = [](int, void*, size_t, int) -> ssize_t {
    errno = ENOBUFS;
    return -1;
  };
  network_calls.send = [](int, const void*, size_t, int) -> ssize_t {
    errno = ENOBUFS;
    return -1;
  };
  EXPECT_EQ(Some(), "-1: Read Error: No buffer space available");
  EXPECT_EQ(Line(), "-1: Read Error: No buffer space available");
  EXPECT_EQ(connection->Write("x", 1, 1), -1);
  EXPECT_EQ(Text(connection->error()), "Write Error: No buffer space available");
}

// --- Writing -------------------------------------------------------------------------------------

TEST_F(UNIXNetworkConnectionTest, WriteSendsEverythingToASlowReader) {
  const std::string bytes(20 << 20, 'w');
  std::string arrived;
  To([&](Peer& peer) {
    peer.Pause(400);
    arrived = peer.ReceiveAll();
  });
  EXPECT_EQ(connection->Write(bytes.data(), static_cast<int>(bytes.size()), 20),
            static_cast<int>(bytes.size()));
  EXPECT_EQ(connection->Write("", 0, 1), 0);
  Close();
  EXPECT_EQ(arrived.size(), bytes.size());
}

// A signal would end the process.
TEST_F(UNIXNetworkConnectionTest, AWriteToAPeerThatLeftFailsWithoutASignal) {
  // A peer that left before the first byte could end the attempt to connect, too.
  To([](Peer& peer) {
    peer.Receive(1);
    peer.Reset();
  });
  ASSERT_NE(connection, nullptr);
  const std::string bytes(1 << 20, 'w');
  int result = 1;
  for (int i = 0; i < 100 && result > 0; i++) {
    result = connection->Write(bytes.data(), static_cast<int>(bytes.size()), 5);
  }
  EXPECT_EQ(result, -1);
  EXPECT_EQ(Text(connection->error()).rfind("Write Error: ", 0), 0u);
}

// --- Waits ---------------------------------------------------------------------------------------

class SlowNetworkConnection : public UNIXNetworkConnectionTest {
 protected:
  // Seconds that the function takes.
  template <class Function>
  static double Seconds(Function function) {
    const auto start = Clock::now();
    function();
    return std::chrono::duration<double>(Clock::now() - start).count();
  }
  void ToSilence() {
    To([](Peer& peer) { peer.WaitForEnd(); });
  }
  // Writes until no more goes out, and so has to wait.
  int Flood(int timeout) {
    const std::string bytes(32 << 20, 'w');
    return connection->Write(bytes.data(), static_cast<int>(bytes.size()), timeout);
  }
};

TEST_F(SlowNetworkConnection, EachWaitEndsAtItsTime) {
  ToSilence();
  EXPECT_THAT(Seconds([&] { EXPECT_EQ(Some(10, 1), "-1: Read Timeout"); }), EndsAtItsTime(1.0));
  EXPECT_THAT(Seconds([&] { EXPECT_EQ(Line(1), "-1: Read Timeout"); }), EndsAtItsTime(1.0));
  Close();
  std::atomic<bool> done{false};
  To([&](Peer& peer) {
    while (!done.load()) peer.Pause(20);
  });
  EXPECT_THAT(Seconds([&] { EXPECT_EQ(Flood(1), -1); }), EndsAtItsTime(1.0));
  EXPECT_EQ(Text(connection->error()), "Write Timeout");
  done = true;
  Close();
}

TEST_F(SlowNetworkConnection, TheLimitHoldsForEachWaitAndNotForTheLine) {
  To([](Peer& peer) {
    for (const char* c : {"a", "b", "c", "\n"}) {
      peer.Pause(600);
      peer.Send(c);
    }
  });
  EXPECT_EQ(Line(1), "abc\n");
}

TEST_F(SlowNetworkConnection, TimeoutZeroIsTheGlobalOne) {
  application.config()->SetValue_Integer(Config_timeout_global, 1);
  ToSilence();
  EXPECT_THAT(Seconds([&] { EXPECT_EQ(Some(10, 0), "-1: Read Timeout"); }), EndsAtItsTime(1.0));
}

TEST_F(SlowNetworkConnection, WithoutAnyLimitAReadWaits) {
  for (const int timeout : {0, -1, -2147483647 - 1}) {
    SCOPED_TRACE(timeout);
    application.config()->SetValue_Integer(Config_timeout_global, timeout == 0 ? 0 : 1);
    To([](Peer& peer) {
      peer.Pause(1500);
      peer.Send("late");
    });
    EXPECT_EQ(Some(10, timeout), "late");
    Close();
  }
  application.config()->SetValue_Integer(Config_timeout_global, -5);
  To([](Peer& peer) {
    peer.Pause(600);
    peer.Send("late");
  });
  EXPECT_EQ(Some(10, 0), "late");
  Close();
}

TEST_F(SlowNetworkConnection, TheLongestLimitDoesNotOverflow) {
  To([](Peer& peer) {
    peer.Pause(400);
    peer.Send("late");
  });
  EXPECT_EQ(Some(10, 2147483647), "late");
}

TEST_F(SlowNetworkConnection, CancellationEndsEveryWait) {
  const auto cancel_soon = [&] {
    return std::thread([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      application.SetCancelled(1);
    });
  };
  const struct {
    const char* label;
    std::function<std::string()> wait;
    const char* text;
  } cases[] = {
      {"read", [&] { return Some(10, -1); }, "-1: Read Timeout"},
      {"line", [&] { return Line(-1); }, "-1: Read Timeout"},
      {"write",
       [&] {
         const int result = Flood(-1);
         return std::to_string(result) + ": " + Text(connection->error());
       },
       "-1: Write Timeout"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    std::atomic<bool> done{false};
    application.SetCancelled(0);
    To([&](Peer& peer) {
      while (!done.load()) peer.Pause(20);
    });
    std::thread canceller = cancel_soon();
    EXPECT_LT(Seconds([&] { EXPECT_EQ(c.wait(), c.text); }), 1.4 + kLateness);
    canceller.join();
    done = true;
    Close();
  }
  SCOPED_TRACE("connect");
  application.SetCancelled(0);
  network_calls.connect = [](int, const sockaddr*, socklen_t) {
    errno = EINPROGRESS;
    return -1;
  };
  network_calls.poll = [](pollfd*, nfds_t, int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    return 0;
  };
  std::thread canceller = cancel_soon();
  application.config()->SetValue_Integer(Config_timeout_global, 0);
  EXPECT_LT(Seconds([&] {
              EXPECT_EQ(manager.Connect("127.0.0.1", 1, -1), nullptr);
              EXPECT_EQ(Text(manager.error()),
                        "Error connecting to 127.0.0.1 on port 1: Connection timed out");
            }),
            1.4 + kLateness);
  canceller.join();
}

// Such a line has no pause in which a wait could see it.
TEST_F(SlowNetworkConnection, CancellationEndsALineThatNeverEnds) {
  std::atomic<bool> done{false};
  To([&](Peer& peer) {
    const std::string bytes(65536, 'x');
    while (!done.load() && send(peer.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0) {
    }
  });
  std::thread canceller([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    application.SetCancelled(1);
  });
  EXPECT_EQ(Line(5), "-1: Read Timeout");
  canceller.join();
  done = true;
  Close();
}

TEST_F(SlowNetworkConnection, InterruptedWaitsGoOnWithTheTimeThatIsLeft) {
  ToSilence();
  network_calls.poll = [](pollfd* entries, nfds_t count, int milliseconds) {
    ::poll(entries, count, std::min(milliseconds, 50));
    errno = EINTR;
    return -1;
  };
  EXPECT_THAT(Seconds([&] { EXPECT_EQ(Some(10, 1), "-1: Read Timeout"); }), EndsAtItsTime(1.0));
}

TEST_F(UNIXNetworkConnectionTest, ResultsOfPollHaveTheirTexts) {
  const struct {
    const char* label;
    int (*poll)(pollfd*, nfds_t, int);
    std::string read, write;
  } cases[] = {
      {"failure",
       [](pollfd*, nfds_t, int) {
         errno = ENOMEM;
         return -1;
       },
       "Read Error: Cannot allocate memory", "Write Error: Cannot allocate memory"},
      {"no descriptor",
       [](pollfd* entry, nfds_t, int) {
         entry->revents = POLLNVAL;
         return 1;
       },
       "Read Error: Bad file descriptor", "Write Error: Bad file descriptor"},
      {"something else",
       [](pollfd* entry, nfds_t, int) {
         entry->revents = POLLPRI;
         return 1;
       },
       "Read Error", "Write Error"},
  };
  To([](Peer& peer) { peer.WaitForEnd(); });
  network_calls.send = [](int, const void*, size_t, int) -> ssize_t {
    errno = EAGAIN;
    return -1;
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    network_calls.poll = c.poll;
    EXPECT_EQ(Some(), "-1: " + c.read);
    EXPECT_EQ(Line(), "-1: " + c.read);
    EXPECT_EQ(connection->Write("x", 1, 1), -1);
    EXPECT_EQ(Text(connection->error()), c.write);
  }
}

// A hang-up counts as ready, and the read finds out.
TEST_F(UNIXNetworkConnectionTest, AHangUpIsReady) {
  To([](Peer& peer) { peer.WaitForEnd(); });
  static int reads;
  reads = 0;
  network_calls.recv = [](int, void*, size_t, int) -> ssize_t {
    errno = EAGAIN;
    return reads++ == 0 ? -1 : 0;
  };
  for (const short event : {POLLHUP, POLLERR}) {
    static short reported;
    reported = event;
    reads = 0;
    network_calls.poll = [](pollfd* entry, nfds_t, int) {
      entry->revents = reported;
      return 1;
    };
    EXPECT_EQ(Some(), "");
  }
}

// --- Connecting ----------------------------------------------------------------------------------

TEST_F(UNIXNetworkConnectionTest, FailuresToConnectHaveTheirTexts) {
  network_calls.socket = [](int, int, int) {
    errno = EMFILE;
    return -1;
  };
  EXPECT_EQ(Attempt(), "Too many open files");
  network_calls = NetworkCalls();
  network_calls.make_non_blocking = [](int) {
    errno = EIO;
    return -1;
  };
  EXPECT_EQ(Attempt(), "Input/output error");
  network_calls = NetworkCalls();
  network_calls.connect = [](int, const sockaddr*, socklen_t) {
    errno = ENETUNREACH;
    return -1;
  };
  EXPECT_EQ(Attempt(), "Network is unreachable");
  network_calls = NetworkCalls();
  network_calls.socket = [](int, int, int) { return ::socket(AF_INET, SOCK_STREAM, 0); };
  EXPECT_EQ(Attempt(AF_UNIX), "Unsupported address family 1");
}

// 16 bits of it may be those of a server that listens.
TEST_F(UNIXNetworkConnectionTest, APortBeyondSixteenBitsIsRefused) {
  ListeningPeer listening([](Peer& peer) { peer.WaitForEnd(); });
  for (const int port :
       {-1, -65536 + listening.port(), 65536, 65536 + listening.port(), 2147483647}) {
    SCOPED_TRACE(port);
    EXPECT_EQ(Attempt(AF_INET, port), "Invalid port");
    EXPECT_EQ(manager.Connect("127.0.0.1", port, 1), nullptr);
    EXPECT_EQ(Text(manager.error()),
              "Error connecting to 127.0.0.1 on port " + std::to_string(port) + ": Invalid port");
  }
}

TEST_F(UNIXNetworkConnectionTest, EachEndOfAnAttemptHasItsText) {
  static int ended_with;
  network_calls.connect = [](int, const sockaddr*, socklen_t) {
    errno = EINPROGRESS;
    return -1;
  };
  network_calls.poll = [](pollfd* entry, nfds_t, int) {
    entry->revents = POLLOUT;
    return 1;
  };
  network_calls.getsockopt = [](int, int, int, void* value, socklen_t*) {
    memcpy(value, &ended_with, sizeof ended_with);
    return 0;
  };
  const struct {
    int error;
    const char* text;
  } cases[] = {{ENETUNREACH, "Network unreachable"},
               {ETIMEDOUT, "Connection timed out"},
               {ECONNREFUSED, "Connection refused"},
               {EHOSTUNREACH, "Unknown error 113"}};
  for (const auto& c : cases) {
    ended_with = c.error;
    EXPECT_EQ(Attempt(), c.text);
  }
  network_calls.getsockopt = [](int, int, int, void*, socklen_t*) {
    errno = ENOTSOCK;
    return -1;
  };
  EXPECT_EQ(Attempt(), "Socket operation on non-socket");
  network_calls.poll = [](pollfd* entry, nfds_t, int) {
    entry->revents = POLLPRI;
    return 1;
  };
  EXPECT_EQ(Attempt(), "Unknown error");
  network_calls.poll = [](pollfd*, nfds_t, int) {
    errno = ENOMEM;
    return -1;
  };
  EXPECT_EQ(Attempt(), "Cannot allocate memory");
}

TEST_F(SlowNetworkConnection, AnAttemptThatNeverEndsTimesOut) {
  network_calls.connect = [](int, const sockaddr*, socklen_t) {
    errno = EINPROGRESS;
    return -1;
  };
  network_calls.poll = [](pollfd*, nfds_t, int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    return 0;
  };
  EXPECT_THAT(Seconds([&] { EXPECT_EQ(Attempt(), "Connection timed out"); }), EndsAtItsTime(1.0));
}

TEST_F(UNIXNetworkConnectionTest, WithoutASocketThereIsNoTLS) {
  UNIXNetworkConnection unconnected(&application);
  EXPECT_FALSE(unconnected.EstablishTLSConnection("localhost", nullptr, nullptr, 1));
  EXPECT_EQ(Text(unconnected.error()), "TCP connection not established");
  EXPECT_EQ(unconnected.Server_Certificate(), nullptr);
  char byte;
  EXPECT_EQ(unconnected.Read(&byte, 1, 1), -1);
  EXPECT_EQ(Text(unconnected.error()), "Read Error: Bad file descriptor");
}

}  // namespace
