// Mailboxes of servers that are slow, break off, send garbage, or never end.

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <random>
#include <thread>

#include "base/systems/unix/UNIXNetworkManager.h"
#include "tests/support/ListeningPeer.h"
#include "tests/support/Mails.h"
#include "tests/support/POP3Host.h"

namespace {

using Peer = ListeningPeer::Connection;
using Clock = std::chrono::steady_clock;

// All connections lead to one port, because a test cannot listen on 110.
class ToPort : public UNIXNetworkManager {
 public:
  using UNIXNetworkManager::UNIXNetworkManager;
  NetworkConnection* Connect(const char*, int asked, int timeout) override {
    EXPECT_EQ(asked, 110);
    EXPECT_EQ(timeout, 0);
    return UNIXNetworkManager::Connect("127.0.0.1", port, 5);
  }
  int port = 0;
};

class POP3Network : public testing::Test {
 protected:
  POP3Network() {
    host.application.SetNetworkManager(&network);
    host.application.config()->SetValue_Integer(Config_timeout_mail, 20);
  }

  // A session with a server that follows the script.
  POP3Outcome With(std::function<void(Peer&)> script, bool deletes = false) {
    const Clock::time_point start = Clock::now();
    POP3Outcome seen;
    {
      const ListeningPeer peer(std::move(script));
      network.port = peer.port();
      seen = host.Run("", false, deletes);
    }
    took = Clock::now() - start;
    return seen;
  }
  // The same without what was sent, which the script may look at itself.
  void ExpectLikeTheModel(const std::string& bytes, std::function<void(Peer&)> script) {
    POP3Outcome expected = POP3Model(bytes, false, false).Run();
    std::string got;
    const POP3Outcome seen = With([&](Peer& peer) {
      script(peer);
      shutdown(peer.get(), SHUT_WR);
      got = peer.ReceiveAll();
    });
    expected.written = "";
    EXPECT_EQ(seen.Text(), expected.Text());
  }

  POP3Host host;
  ToPort network{&host.application};
  Clock::duration took{};
};

TEST_F(POP3Network, ADialogueLineByLine) {
  const std::string mail = "Subject: a\r\n\r\nbody\r\n";
  std::string got;
  const POP3Outcome seen = With(
      [&](Peer& peer) {
        const auto exchange = [&](const char* reply, size_t command) {
          peer.Send(reply);
          got += peer.Receive(command);
        };
        exchange("+OK\r\n", 8);
        exchange("+OK\r\n", 8);
        exchange("+OK\r\n", 6);
        exchange("+OK 1 9\r\n", 6);
        exchange("+OK\r\n1 9\r\n.\r\n", 8);
        exchange(("+OK\r\n" + mail + ".\r\n").c_str(), 8);
        exchange("+OK\r\n", 6);
        got += peer.ReceiveAll();
      },
      true);
  EXPECT_EQ(got, "USER u\r\nPASS p\r\nSTAT\r\nLIST\r\nRETR 1\r\nDELE 1\r\nQUIT\r\n");
  EXPECT_TRUE(seen.errors.empty());
  ASSERT_EQ(seen.passes.size(), 1u);
  EXPECT_EQ(seen.passes[0].content, "Subject: a\n\nbody\n");
}

TEST_F(POP3Network, AllMailsAtOnce) {
  std::vector<std::string> lines;
  for (const Mail& mail : AllMails()) lines.push_back(mail.lines);
  const std::string bytes = Session(lines);
  ExpectLikeTheModel(bytes, [&](Peer& peer) { peer.Send(bytes); });
}

TEST_F(POP3Network, AServerThatSendsByteByByte) {
  const std::string bytes = Session({"Subject: a\r\n\r\n..0\r\n", "x\r\n"});
  ExpectLikeTheModel(bytes, [&](Peer& peer) {
    for (const char byte : bytes) {
      peer.Send(std::string(1, byte));
      peer.Pause(1);
    }
  });
}

TEST_F(POP3Network, GarbageIsWhatASecondReaderFinds) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int round = 0; round < 50; round++) {
    std::string bytes = round % 2 != 0 ? "+OK\r\n+OK\r\n+OK\r\n" : "";
    for (unsigned n = random() % 5000; n > 0; n--) {
      bytes += static_cast<char>(random() % 4 == 0 ? "\r\n. -+0"[random() % 7] : random());
    }
    ExpectLikeTheModel(bytes, [&](Peer& peer) { peer.Send(bytes); });
  }
}

TEST_F(POP3Network, AResetWithinAMessage) {
  const std::string bytes = Session({"Subject: a\r\n\r\nbody\r\nmore\r\n"});
  const POP3Outcome seen = With([&](Peer& peer) {
    peer.Send(bytes.substr(0, bytes.size() - 7));
    peer.Receive(36);
    // The client has asked for the message, and waits for its end.
    peer.Pause(50);
    peer.Reset();
  });
  EXPECT_TRUE(seen.passes.empty());
  ASSERT_EQ(seen.errors.size(), 1u);
  EXPECT_EQ(seen.errors[0], "Error retrieving message: Read Error: Connection reset by peer");
}

// Waits for time-outs.
class SlowPOP3Network : public POP3Network {};

TEST_F(SlowPOP3Network, AServerThatIsSilentInAnyPlaceIsNotWaitedForLongerThanTheLimit) {
  host.application.config()->SetValue_Integer(Config_timeout_mail, 1);
  const std::string bytes = Session({"Subject: a\r\n\r\nbody\r\n"});
  for (const size_t length : {size_t{0}, size_t{3}, bytes.find("list"), bytes.find("body")}) {
    SCOPED_TRACE(length);
    const POP3Outcome seen = With([&](Peer& peer) {
      peer.Send(bytes.substr(0, length));
      peer.WaitForEnd();
    });
    ASSERT_EQ(seen.errors.size(), 1u);
    EXPECT_NE(seen.errors[0].find(": Read Timeout"), std::string::npos) << seen.errors[0];
    EXPECT_LT(took, std::chrono::seconds(5));
  }
}

TEST_F(POP3Network, ACancelledWaitEnds) {
  std::thread canceller;
  const POP3Outcome seen = With([&](Peer& peer) {
    peer.Send("+OK\r\n");
    peer.Receive(8);
    canceller = std::thread([this] { host.application.SetCancelled(1); });
    peer.WaitForEnd();
  });
  canceller.join();
  EXPECT_EQ(seen.errors, std::vector<std::string>{"Error logging into 'h': Read Timeout"});
  EXPECT_LT(took, std::chrono::seconds(5));
}

// Sends the same bytes until the client closes the connection. Cancels after some of them.
void SendForEver(Peer& peer, const std::string& bytes, POP3Host* host) {
  for (int i = 0;; i++) {
    if (i == 200) host->application.SetCancelled(1);
    if (send(peer.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) return;
  }
}

TEST_F(POP3Network, ALineWithoutEndIsCutOff) {
  const std::string part(65536, 'x');
  const POP3Outcome seen = With([&](Peer& peer) { SendForEver(peer, part, &host); });
  EXPECT_EQ(seen.errors, std::vector<std::string>{"Error connecting to 'h': Read Timeout"});
  EXPECT_LT(took, std::chrono::seconds(10));
}

}  // namespace
