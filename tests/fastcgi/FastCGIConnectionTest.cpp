#include "fastcgi/FastCGIConnection.h"

#include <arpa/inet.h>
#include <fcgios.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "base/host/FileDescriptor.h"
#include "fastcgi/FastCGIThreads.h"
#include "tests/support/FastCGIClient.h"

namespace {

class Connection : public testing::Test {
 protected:
  Connection() : connection(&manager) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    engine.reset(ends[0]);
    peer.reset(ends[1]);
  }
  // Writes until the peer's socket takes no more.
  void FillUp() {
    const std::string bytes(8192, 'x');
    while (send(engine.get(), bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
    }
  }
  ssize_t Read() { return connection.Read(engine.get(), buffer, sizeof buffer); }
  void Send(const std::string& bytes) {
    EXPECT_EQ(send(peer.get(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  }
  // A whole request, whose input has that many bytes; without its end if there is none to come.
  static std::string Request(size_t input, bool ends = true) {
    std::string bytes = kBegin + FastCGIClient::Record(4, 1, "") +
                        FastCGIClient::Record(5, 1, std::string(input, 'x'));
    return ends ? bytes + FastCGIClient::Record(5, 1, "") : bytes;
  }
  // Closes the engine's end while the peer does not close its own. Returns how long that took.
  FastCGIConnection::Clock::duration Close() {
    const auto start = FastCGIConnection::Clock::now();
    EXPECT_EQ(connection.Close(engine.release()), 0);
    return FastCGIConnection::Clock::now() - start;
  }
  // All that the peer can still read. Fails the test if the connection was reset.
  std::string Rest() {
    std::string bytes(1 << 16, '\0');
    const ssize_t count = recv(peer.get(), bytes.data(), bytes.size(), 0);
    EXPECT_GE(count, 0) << strerror(errno);
    bytes.resize(count < 0 ? 0 : static_cast<size_t>(count));
    return bytes;
  }

  static inline const std::string kBegin =
      FastCGIClient::Record(1, 1, std::string("\0\1\0\0\0\0\0\0", 8));
  // Less than the time that a connection lingers, and more than a close takes.
  static constexpr std::chrono::seconds kAtOnce{1};

  // Whether the engine has shut down both directions of the connection.
  bool PeerIsCutOff() { return send(peer.get(), "x", 1, MSG_NOSIGNAL) < 0; }

  FastCGIThreadManager manager;
  FastCGIConnection connection;
  FileDescriptor engine;
  FileDescriptor peer;
  char buffer[8192];
};

using SlowConnection = Connection;

// A socket of both families on a free port, as a service manager makes it for a port alone. Empty
// on a machine without IPv6.
class BothFamilies {
 public:
  BothFamilies() : listening(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int off = 0;
    setsockopt(listening.get(), IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    socklen_t length = sizeof address;
    auto* any = reinterpret_cast<sockaddr*>(&address);
    if (bind(listening.get(), any, length) != 0 || listen(listening.get(), 16) != 0 ||
        getsockname(listening.get(), any, &length) != 0) {
      listening.reset();
    }
    port = address.sin6_port;
  }
  // A client with a numeric address of this machine.
  FileDescriptor Client(const char* address) const {
    FileDescriptor made;
    in6_addr longer;
    if (inet_pton(AF_INET6, address, &longer) == 1) {
      made.reset(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
      sockaddr_in6 to{};
      to.sin6_family = AF_INET6;
      to.sin6_addr = longer;
      to.sin6_port = port;
      EXPECT_EQ(connect(made.get(), reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
    } else {
      made.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
      sockaddr_in own{};
      own.sin_family = AF_INET;
      EXPECT_EQ(inet_pton(AF_INET, address, &own.sin_addr), 1);
      EXPECT_EQ(bind(made.get(), reinterpret_cast<sockaddr*>(&own), sizeof own), 0);
      own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      own.sin_port = port;
      EXPECT_EQ(connect(made.get(), reinterpret_cast<sockaddr*>(&own), sizeof own), 0);
    }
    return made;
  }

  FileDescriptor listening;
  in_port_t port;
};

// Whether the other end has closed the connection, with or without a reset.
bool IsClosed(const FileDescriptor& client) {
  char byte;
  pollfd waiting{client.get(), POLLIN, 0};
  return poll(&waiting, 1, 0) > 0 && recv(client.get(), &byte, 1, MSG_DONTWAIT) <= 0;
}

TEST_F(Connection, AListOfClientsHoldsOnASocketOfBothFamilies) {
  const BothFamilies both;
  if (!both.listening.is_open()) GTEST_SKIP() << "there is no IPv6";
  const FileDescriptor longer = both.Client("::1");
  const FileDescriptor other = both.Client("127.0.0.3");
  const FileDescriptor named = both.Client("127.0.0.2");
  const FileDescriptor accepted(connection.Accept(both.listening.get(), "10.0.0.1,127.0.0.2"));
  ASSERT_TRUE(accepted.is_open());
  EXPECT_TRUE(IsClosed(longer));
  EXPECT_TRUE(IsClosed(other));
  EXPECT_FALSE(IsClosed(named));
}

TEST_F(Connection, WithoutAListEachClientIsAccepted) {
  const BothFamilies both;
  if (!both.listening.is_open()) GTEST_SKIP() << "there is no IPv6";
  for (const char* clients : {static_cast<const char*>(nullptr), ""}) {
    const FileDescriptor longer = both.Client("::1");
    const FileDescriptor accepted(connection.Accept(both.listening.get(), clients));
    EXPECT_TRUE(accepted.is_open());
    EXPECT_FALSE(IsClosed(longer));
  }
}

const std::string kRecord = FastCGIClient::Record(1, 1, std::string("\0\1\0\0\0\0\0\0", 8));

TEST_F(Connection, LibfcgiReadsAndWritesThroughIt) {
  Send("no record at all");
  EXPECT_EQ(OS_Read(engine.get(), buffer, sizeof buffer), 0);
  manager.GiveUpPeers();
  char text[] = "text";
  EXPECT_EQ(OS_Write(engine.get(), text, 4), -1);
  EXPECT_TRUE(PeerIsCutOff());
}

TEST_F(Connection, InAShutdownWhatHasComeIsReadAndNothingIsWaitedFor) {
  Send(kRecord);
  manager.Shutdown();
  EXPECT_EQ(Read(), static_cast<ssize_t>(kRecord.size()));
  EXPECT_EQ(Read(), -1);
  EXPECT_EQ(connection.Write(engine.get(), "text", 4), 4);
}

TEST_F(Connection, APeerThatIsGivenUpIsCutOff) {
  Send(kRecord);
  manager.Shutdown();
  manager.GiveUpPeers();
  EXPECT_EQ(Read(), -1);
  EXPECT_TRUE(PeerIsCutOff());
  EXPECT_EQ(connection.Write(engine.get(), "text", 4), -1);
}

TEST_F(Connection, AWaitForInputEndsWithItsLimit) {
  connection.LimitInput(std::chrono::milliseconds(20));
  EXPECT_EQ(Read(), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  connection.ClearInputLimit();
  std::thread late([this] { Send(kRecord); });
  EXPECT_EQ(Read(), static_cast<ssize_t>(kRecord.size()));
  late.join();
}

// Else a peer that never stops sending would keep the wait going: records of another request than
// the connection's are passed over.
TEST_F(Connection, NothingIsReadPastTheLimitOfAWaitForInput) {
  Send(kRecord);
  EXPECT_EQ(Read(), static_cast<ssize_t>(kRecord.size()));
  const std::string other = FastCGIClient::Record(5, 99, std::string(30000, 'x'));
  Send(other);
  connection.LimitInput(FastCGIConnection::Clock::duration::zero());
  EXPECT_EQ(Read(), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  int unread = 0;
  EXPECT_EQ(ioctl(engine.get(), FIONREAD, &unread), 0);
  EXPECT_EQ(unread, static_cast<int>(other.size()));
}

TEST_F(Connection, AWaitingWriteEndsWhenThePeersAreGivenUp) {
  connection.LimitWrites(0);
  FillUp();
  std::thread heartbeat([this] { manager.GiveUpPeers(); });
  EXPECT_EQ(connection.Write(engine.get(), "text", 4), -1);
  heartbeat.join();
}

TEST_F(Connection, WritesThatAreHeldAreSentWithTheNextOne) {
  connection.HoldWrites();
  const std::string piece(8192, 'a');
  EXPECT_EQ(connection.Write(engine.get(), piece.data(), piece.size()), 8192);
  EXPECT_EQ(connection.Write(engine.get(), "b", 1), 1);
  char byte;
  EXPECT_EQ(recv(peer.get(), &byte, 1, MSG_DONTWAIT), -1);
  connection.SendWithNext();
  EXPECT_EQ(connection.Write(engine.get(), "cd", 2), 2);
  EXPECT_EQ(Rest(), piece + "bcd");
  EXPECT_EQ(connection.Write(engine.get(), "e", 1), 1);
  EXPECT_EQ(Rest(), "e");
}

// The socket takes each piece in parts.
TEST_F(Connection, HeldWritesReachAClientThatReadsSlowlyInTheirOrder) {
  const int small = 4096;
  setsockopt(engine.get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  std::string sent, received;
  std::thread reader([&] {
    char bytes[777];
    ssize_t count;
    while ((count = recv(peer.get(), bytes, sizeof bytes, 0)) > 0)
      received.append(bytes, static_cast<size_t>(count));
  });
  connection.HoldWrites();
  const auto write = [&](size_t size) {
    std::string piece(size, '\0');
    for (size_t i = 0; i < size; i++) piece[i] = static_cast<char>((sent.size() + i) / 3);
    sent += piece;
    for (size_t done = 0; done < size;) {
      const ssize_t count = connection.Write(engine.get(), piece.data() + done, size - done);
      ASSERT_GT(count, 0);
      done += static_cast<size_t>(count);
    }
  };
  for (int i = 0; i < 100; i++) write(8000);
  write(3 * FastCGIConnection::kMostHeld);
  write(100);
  connection.SendWithNext();
  write(10);
  engine.reset();
  reader.join();
  EXPECT_TRUE(received == sent) << received.size() << " of " << sent.size();
}

TEST_F(SlowConnection, AHeldWriteEndsWhenTheClientTakesNothing) {
  connection.HoldWrites();
  EXPECT_EQ(connection.Write(engine.get(), "x", 1), 1);
  connection.SendWithNext();
  FillUp();
  connection.LimitWrites(1);
  EXPECT_EQ(connection.Write(engine.get(), "x", 1), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
}

TEST_F(SlowConnection, AWriteEndsWhenTheClientTakesNothing) {
  connection.LimitWrites(1);
  FillUp();
  const auto start = FastCGIConnection::Clock::now();
  EXPECT_EQ(connection.Write(engine.get(), "text", 4), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_GE(FastCGIConnection::Clock::now() - start, std::chrono::seconds(1));
  EXPECT_TRUE(PeerIsCutOff());
}

TEST_F(SlowConnection, AWriteLastsAsLongAsTheClientReads) {
  connection.LimitWrites(20);
  FillUp();
  std::thread reader([this] {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    std::string bytes(1 << 20, '\0');
    EXPECT_GT(recv(peer.get(), bytes.data(), bytes.size(), 0), 0);
  });
  EXPECT_EQ(connection.Write(engine.get(), "text", 4), 4);
  reader.join();
}

TEST_F(Connection, IsClosedAtOnceWhenItsInputHasEnded) {
  Send(Request(100));
  while (Read() == static_cast<ssize_t>(sizeof buffer)) {
  }
  EXPECT_EQ(connection.Write(engine.get(), "text", 4), 4);
  EXPECT_LT(Close(), kAtOnce);
  EXPECT_EQ(Rest(), "text");
  EXPECT_EQ(Rest(), "");
}

// The rest of the input is read on the way, so that the close does not reset the connection.
TEST_F(Connection, IsClosedAtOnceWhenTheRestOfItsInputHasCome) {
  Send(Request(20000));
  EXPECT_GT(Read(), 0);
  EXPECT_EQ(connection.Write(engine.get(), "text", 4), 4);
  EXPECT_LT(Close(), kAtOnce);
  EXPECT_EQ(Rest(), "text");
  EXPECT_EQ(Rest(), "");
}

TEST_F(Connection, IsClosedAtOnceWhenThePeerHasEndedIt) {
  Send(Request(100, false));
  EXPECT_GT(Read(), 0);
  shutdown(peer.get(), SHUT_WR);
  EXPECT_LT(Close(), kAtOnce);
}

TEST_F(SlowConnection, LingersWhileItsInputHasNotEnded) {
  for (const std::string& sent : {Request(100, false), kBegin, Request(0) + kBegin.substr(0, 5)}) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    engine.reset(ends[0]);
    peer.reset(ends[1]);
    FastCGIConnection fresh(&manager);
    Send(sent);
    EXPECT_GT(fresh.Read(engine.get(), buffer, sizeof buffer), 0);
    EXPECT_EQ(fresh.Write(engine.get(), "text", 4), 4);
    std::thread late([this] {
      EXPECT_EQ(Rest(), "text");
      EXPECT_EQ(Rest(), "");
      // The bytes are accepted, because the connection is not closed yet.
      Send("late");
      peer.reset();
    });
    const auto start = FastCGIConnection::Clock::now();
    EXPECT_EQ(fresh.Close(engine.release()), 0);
    EXPECT_LT(FastCGIConnection::Clock::now() - start, std::chrono::seconds(30));
    late.join();
  }
}

TEST_F(SlowConnection, LingersAfterARequestThatWasSentAhead) {
  Send(Request(0) + Request(0));
  EXPECT_GT(Read(), 0);
  EXPECT_GE(Close(), kAtOnce);
}

TEST_F(SlowConnection, AClientThatGoesOnSendingDoesNotKeepItFromClosing) {
  const int descriptor = engine.release();
  std::thread sender([this] {
    while (send(peer.get(), "x", 1, MSG_NOSIGNAL) == 1) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  });
  const auto start = FastCGIConnection::Clock::now();
  EXPECT_EQ(connection.Close(descriptor), 0);
  EXPECT_LT(FastCGIConnection::Clock::now() - start, std::chrono::seconds(30));
  sender.join();
}

}  // namespace
