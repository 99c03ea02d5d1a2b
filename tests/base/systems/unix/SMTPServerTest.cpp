// Mails over real connections: to a server of another maker, and to servers that are silent, cut
// short, or never stop talking.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "base/network/SMTPOutput.h"
#include "base/network/SMTPService.h"
#include "base/systems/unix/UNIXOpenSSL.h"
#include "tests/support/Lateness.h"
#include "tests/support/ListeningPeer.h"
#include "tests/support/RecordingOutput.h"
#include "tests/support/SMTPServer.h"
#include "tests/support/TLSFiles.h"
#include "tests/support/TLSHost.h"

namespace {

using Peer = ListeningPeer::Connection;
using Clock = std::chrono::steady_clock;

std::string Bytes(const String& text) {
  return text.data ? std::string(text.data, static_cast<size_t>(text.length)) : "(null)";
}

class SMTPOverTheNetwork : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    signal(SIGPIPE, SIG_IGN);
    FastCGIApplication_OpenSSL_Cleanup();
    FastCGIApplication_OpenSSL_Initialize();
  }
  SMTPOverTheNetwork() {
    host.Set(Config_dir_ca, TLSFiles::Get().path("ca"));
    host.SetOutput(&page);
  }
  ~SMTPOverTheNetwork() override { host.SetOutput(nullptr); }

  SMTPService& Make(int port, unsigned flags = 0, const std::string& user = "",
                    const std::string& password = "", int timeout = 10,
                    const char* name = "localhost") {
    client.reset();
    std::string copy = name;
    int own = 0;
    client = std::make_unique<SMTPService>(
        &host, nullptr, copy.data(), static_cast<int>(copy.size()), 0, &own, port, flags,
        String(user.data(), static_cast<int>(user.size())),
        String(password.data(), static_cast<int>(password.size())), timeout);
    return *client;
  }
  // Sends a text in pieces that end at these positions, or in one.
  bool Send(const std::string& text, const std::function<size_t()>& piece = nullptr) {
    if (!client->SMTP_Connect(false) ||
        !client->Start("reader@example.org", -1, "sender@example.org", -1, "", 0, "subject", -1)) {
      return false;
    }
    SMTPOutput output(&page, client->Connection(), 8192, 10);
    for (size_t at = 0; at < text.size();) {
      const std::string part = text.substr(at, piece ? piece() : text.size());
      output.Write(part.data(), static_cast<int>(part.size()));
      at += part.size();
    }
    return client->Finish(&output);
  }
  std::string Error() { return Bytes(client->error()); }

  TLSHost host;
  RecordingOutput page;
  std::unique_ptr<SMTPService> client;
};

const char* const kMethods[] = {"LOGIN", "PLAIN", "CRAM-MD5", "DIGEST-MD5"};

// The arguments of a server that authenticates, and that has a certificate.
std::vector<std::string> Server(const std::string& methods, const std::string& certificate = "",
                                const std::string& tls = "") {
  std::vector<std::string> arguments = {"--auth",
                                        methods,
                                        "--user",
                                        "user",
                                        "--password",
                                        "pässword, long enough to be hashed before it is used as a "
                                        "key of sixty-four bytes"};
  if (!certificate.empty()) {
    arguments.insert(arguments.end(), {"--cert", TLSFiles::Get().path(certificate + ".pem"),
                                       "--key", TLSFiles::Get().path(certificate + ".key"), tls});
  }
  return arguments;
}

TEST_F(SMTPOverTheNetwork, EachMethodProvesThePasswordAndNoOtherOne) {
  for (const char* method : kMethods) {
    SCOPED_TRACE(method);
    const std::vector<std::string> arguments = Server(method);
    const SMTPServer server(arguments);
    for (const char* wrong : {"", "password", "pässword"}) {
      Make(server.port(), 0, "user", wrong);
      EXPECT_FALSE(client->SMTP_Connect(false));
      EXPECT_EQ(Error(), "Incorrect authentication data");
    }
    Make(server.port(), 0, "other", arguments[5]);
    EXPECT_FALSE(client->SMTP_Connect(false));
    Make(server.port(), 0, "user", arguments[5]);
    EXPECT_TRUE(Send("\n\ntext\n")) << Error();
    client.reset();
    EXPECT_EQ(server.Content("envelope.1"), "sender@example.org\nreader@example.org\n");
    EXPECT_TRUE(server.Content("mail.1").ends_with("Subject: subject\r\n\r\ntext\r\n"));
    EXPECT_TRUE(server.Content("commands").ends_with("QUIT\r\n"));
  }
}

TEST_F(SMTPOverTheNetwork, TLSFromTheStartAndSTARTTLSProtectThePassword) {
  for (const char* tls : {"--tls", "--starttls"}) {
    for (const char* method : kMethods) {
      SCOPED_TRACE(std::string(tls) + " " + method);
      const std::vector<std::string> arguments = Server(method, "names", tls);
      const SMTPServer server(arguments);
      const unsigned flag = tls[2] == 't' ? SMTPService::TLS : SMTPService::StartTLS;
      Make(server.port(), flag, "user", "wrong");
      EXPECT_FALSE(client->SMTP_Connect(false));
      EXPECT_EQ(Error(), "Incorrect authentication data");
      Make(server.port(), flag, "user", arguments[5]);
      EXPECT_TRUE(Send("\n\ntext\n")) << Error();
      EXPECT_TRUE(server.Content("mail.1").ends_with("\r\n\r\ntext\r\n"));
    }
  }
}

TEST_F(SMTPOverTheNetwork, ACertificateThatDoesNotFitIsRefusedBeforeAnyPasswordIsSent) {
  for (const char* tls : {"--tls", "--starttls"}) {
    for (const char* certificate : {"other", "expired", "foreign", "selfsigned"}) {
      SCOPED_TRACE(std::string(tls) + " " + certificate);
      const SMTPServer server(Server("PLAIN LOGIN", certificate, tls));
      Make(server.port(), tls[2] == 't' ? SMTPService::TLS : SMTPService::StartTLS, "user",
           "password");
      EXPECT_FALSE(client->SMTP_Connect(false));
      EXPECT_EQ(Error(), std::string(certificate) == "other"
                             ? "Unable to verify server identity"
                             : "Error establishing SSL connection: certificate verify failed");
      EXPECT_EQ(client->Connection(), nullptr);
      client.reset();
      // The server has read all that there is.
      for (int i = 0; i < 500 && server.Content("ended").empty(); i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
      EXPECT_EQ(server.Content("ended"), "session\n");
      EXPECT_EQ(server.Content("commands"),
                tls[2] == 't' ? "" : "EHLO " + std::string(host.hostname()) + "\r\nSTARTTLS\r\n");
    }
  }
}

// A third party in between could have put a reply into the stream in front of the handshake.
TEST_F(SMTPOverTheNetwork, WhatFollowsTheReplyToSTARTTLSIsNotTakenForTheServers) {
  std::string seen;
  {
    ListeningPeer peer([&](Peer& connection) {
      connection.Send("220 hi\r\n");
      while (!connection.Receive(1).ends_with("\n")) {
      }
      connection.Send("250-h\r\n250 STARTTLS\r\n");
      while (!connection.Receive(1).ends_with("\n")) {
      }
      connection.Send("220 go\r\n250-h\r\n250 AUTH PLAIN\r\n");
      seen = connection.ReceiveAll();
    });
    Make(peer.port(), SMTPService::StartTLS, "user", "password", 5, "127.0.0.1");
    EXPECT_FALSE(client->SMTP_Connect(false));
    client.reset();
  }
  EXPECT_EQ(seen.find("AUTH"), std::string::npos);
  EXPECT_EQ(seen.substr(0, 1), "\x16") << "the handshake";
}

// --- Mails of every kind -------------------------------------------------------------------------

TEST_F(SMTPOverTheNetwork, AMailIsReadBackAsItWasWritten) {
  const SMTPServer server;
  const unsigned seed = std::random_device()();
  std::mt19937 random(seed);
  TemporaryDirectory directory;
  int number = 0;
  for (const char* kind : {"plain", "long", "8bit", "quoted", "files"}) {
    SCOPED_TRACE(std::string(kind) + " seed " + std::to_string(seed));
    const std::string path = directory.path(kind);
    Command make({"/usr/bin/python3", SMTPServer::Program(), "make", kind, path});
    ASSERT_EQ(make.Run(), 0) << make.errors;
    const std::string text = directory.Content(kind);
    Make(server.port(), SMTPService::NoHeaders);
    ASSERT_TRUE(Send(text, [&] { return 1 + random() % 20000; })) << Error();
    number++;
    Command compare({"/usr/bin/python3", SMTPServer::Program(), "compare", path,
                     server.path("mail." + std::to_string(number))});
    EXPECT_EQ(compare.Run(), 0) << compare.errors;
    EXPECT_EQ(compare.output, "");
  }
}

// The text has no dots of its own to spare: a server takes one away at the start of a line, except
// that a line of a single dot was doubled.
TEST_F(SMTPOverTheNetwork, ADotInFrontOfOtherTextIsTakenByTheServer) {
  const SMTPServer server;
  Make(server.port(), SMTPService::NoHeaders);
  ASSERT_TRUE(Send("A: b\n\n.hidden\n.\n..\n...x\nend"));
  EXPECT_EQ(server.Content("mail.1"), "A: b\r\n\r\nhidden\r\n.\r\n.\r\n..x\r\nend\r\n");
}

// --- Servers that misbehave ----------------------------------------------------------------------

using SlowSMTPOverTheNetwork = SMTPOverTheNetwork;

TEST_F(SlowSMTPOverTheNetwork, AServerThatIsSilentAtAnyStepTimesOut) {
  const char* const replies[] = {"220 hi\r\n", "250 a\r\n", "250 b\r\n", "250 c\r\n", "354 go\r\n"};
  for (int spoken = 0; spoken <= 5; spoken++) {
    SCOPED_TRACE(spoken);
    ListeningPeer peer([&](Peer& connection) {
      for (int i = 0; i < spoken; i++) connection.Send(replies[i]);
      connection.WaitForEnd();
    });
    Make(peer.port(), 0, "", "", 1, "127.0.0.1");
    const Clock::time_point begin = Clock::now();
    EXPECT_FALSE(Send("text"));
    EXPECT_EQ(Error(), "Read Timeout");
    // The farewell waits for nothing.
    client.reset();
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - begin).count(), 1.3 + kLateness);
  }
}

TEST_F(SMTPOverTheNetwork, AServerThatClosesAtAnyStepIsAFailure) {
  const char* const replies[] = {"220 hi\r\n", "250 a\r\n",  "250 b\r\n",
                                 "250 c\r\n",  "354 go\r\n", "250 d"};
  for (int spoken = 0; spoken <= 6; spoken++) {
    SCOPED_TRACE(spoken);
    ListeningPeer peer([&](Peer& connection) {
      for (int i = 0; i < spoken; i++) connection.Send(replies[i]);
    });
    Make(peer.port(), 0, "", "", 5, "127.0.0.1");
    EXPECT_FALSE(Send("text"));
    EXPECT_NE(Error(), "(null)");
    client.reset();
  }
}

TEST_F(SlowSMTPOverTheNetwork, AServerThatReadsNoMailTimesOut) {
  std::atomic<bool> over = false;
  ListeningPeer peer([&](Peer& connection) {
    connection.Send("220 hi\r\n250 a\r\n250 b\r\n250 c\r\n354 go\r\n");
    while (!over) connection.Pause(10);
  });
  Make(peer.port(), 0, "", "", 1, "127.0.0.1");
  ASSERT_TRUE(client->SMTP_Connect(false));
  ASSERT_TRUE(client->Start("a", -1, "b", -1, "", 0, "", 0));
  SMTPOutput output(&page, client->Connection(), 8192, 1);
  const std::string text(50000000, 'x');
  const Clock::time_point begin = Clock::now();
  output.Write(text.data(), static_cast<int>(text.size()));
  output.Write(text.data(), static_cast<int>(text.size()));
  EXPECT_FALSE(client->Finish(&output));
  EXPECT_EQ(Error(), "Write Timeout");
  client.reset();
  // One wait, however many buffers are left.
  EXPECT_LT(std::chrono::duration<double>(Clock::now() - begin).count(), 3.4 + kLateness);
  over = true;
}

// What never ends is ended by the run's own limit.
TEST_F(SlowSMTPOverTheNetwork, ATalkThatNeverEndsIsCancelled) {
  for (const char* talk : {"x", "250-x\r\n", "\r\n", "250", "\0"}) {
    for (const char* start : {"", "220 hi\r\n", "220 hi\r\n250-h\r\n"}) {
      SCOPED_TRACE(std::string(start) + talk);
      ListeningPeer peer([&](Peer& connection) {
        connection.Send(start);
        std::string piece;
        while (piece.size() < 65536) piece.append(talk, std::max<size_t>(strlen(talk), 1));
        while (send(connection.get(), piece.data(), piece.size(), MSG_NOSIGNAL) > 0) {
        }
      });
      std::thread canceller([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        host.Cancelled();
      });
      Make(peer.port(), 0, *start ? "u" : "", "", 30, "127.0.0.1");
      const Clock::time_point begin = Clock::now();
      EXPECT_FALSE(client->SMTP_Connect(false));
      client.reset();
      EXPECT_LT(std::chrono::duration<double>(Clock::now() - begin).count(), 4.4 + kLateness);
      canceller.join();
      host.ResetGlobalTimeout();
    }
  }
}

// Any bytes, in any pieces, end in a failure or in a mail that was taken.
TEST_F(SMTPOverTheNetwork, RandomTalkEndsInOrder) {
  const unsigned seed = std::random_device()();
  std::mt19937 random(seed);
  const char* const words[] = {
      "220 ", "250 ", "250-",   "354 ",   "334 ",        "235 ",        "535 ",     "\r\n",
      "\r\n", "AUTH", " LOGIN", " PLAIN", " DIGEST-MD5", " CRAM-MD5",   "STARTTLS", "=",
      "\"",   ",",    "nonce",  "\n",     "\r",          "bm9uY2U9YQ=="};
  for (int round = 0; round < 300; round++) {
    SCOPED_TRACE("seed " + std::to_string(seed) + " round " + std::to_string(round));
    std::string talk = random() % 4 == 0 ? "" : "220 hi\r\n250-h\r\n";
    for (size_t left = random() % 60; left > 0; left--) talk += words[random() % std::size(words)];
    ListeningPeer peer([&](Peer& connection) {
      for (size_t at = 0; at < talk.size();) {
        const std::string piece = talk.substr(at, 1 + random() % 40);
        if (send(connection.get(), piece.data(), piece.size(), MSG_NOSIGNAL) < 0) return;
        at += piece.size();
      }
      shutdown(connection.get(), SHUT_WR);
      connection.WaitForEnd();
    });
    const unsigned flags = round % 3 == 0 ? unsigned{SMTPService::StartTLS} : 0;
    Make(peer.port(), flags, round % 2 ? "u" : "", "p", 5, "127.0.0.1");
    static_cast<void>(Send("text"));
    client.reset();
  }
}

}  // namespace
