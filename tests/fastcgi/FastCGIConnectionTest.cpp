#include "fastcgi/FastCGIConnection.h"

#include <fcgios.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
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
  // Whether the engine has shut down both directions of the connection.
  bool PeerIsCutOff() { return send(peer.get(), "x", 1, MSG_NOSIGNAL) < 0; }

  FastCGIThreadManager manager;
  FastCGIConnection connection;
  FileDescriptor engine;
  FileDescriptor peer;
  char buffer[8192];
};

using SlowConnection = Connection;

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
  connection.LimitWrites(2);
  FillUp();
  std::thread reader([this] {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    std::string bytes(1 << 20, '\0');
    EXPECT_GT(recv(peer.get(), bytes.data(), bytes.size(), 0), 0);
  });
  EXPECT_EQ(connection.Write(engine.get(), "text", 4), 4);
  reader.join();
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
