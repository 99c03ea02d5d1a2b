// Calls over real connections: the whole dialogue with servers that are slow, cut their responses,
// reset the connection, or send anything.

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <string>

#include "base/systems/unix/UNIXNetworkManager.h"
#include "tests/support/CallHost.h"
#include "tests/support/CallModel.h"
#include "tests/support/HTTPResponseModel.h"
#include "tests/support/ListeningPeer.h"

namespace {

using Peer = ListeningPeer::Connection;

// What a script sees of a whole call.
struct Seen {
  std::string failure;  // of the connection or the head
  CallLoopSeen loop;
};

class UNIXCall : public testing::Test {
 protected:
  UNIXCall() { host.application.SetNetworkManager(&manager); }

  Seen To(std::function<void(Peer&)> script, const std::string& method = "GET",
          const std::string& fields = "") {
    host.variables.Dump();
    host.Set("a", "1 2");
    ListeningPeer peer(std::move(script));
    CallArguments arguments =
        CallHost::Arguments(method, "http://127.0.0.1:" + std::to_string(peer.port()) + "/p?q");
    arguments.fields = StringOf(fields);
    arguments.timeout = 5;
    port = peer.port();
    Seen seen;
    const auto call = host.Connect(std::move(arguments), "X-Y: z\r\n");
    seen.failure = host.failure;
    if (!host.connected) return seen;
    for (;;) {
      const Call::Result result = call->Find_Next_Element();
      if (result == Call::Failed) seen.loop.error = BytesOf(call->error());
      if (result != Call::Found) return seen;
      seen.loop.passes.push_back(host.Pass());
    }
  }
  // Reads the request up to the end of its head.
  static std::string Head(Peer& peer) {
    std::string head;
    while (!head.ends_with("\r\n\r\n")) {
      const std::string byte = peer.Receive(1);
      if (byte.empty()) break;
      head += byte;
    }
    return head;
  }

  CallHost host;
  UNIXNetworkManager manager{&host.application};
  int port = 0;
};

// What a script sees of the response, by the models of the head and of the elements.
Seen Expected(const std::string& bytes) {
  ScriptedPeer peer;
  peer.bytes = bytes;
  const HTTPResponseOutcome outcome = HTTPResponseModel(peer).Run(8192);
  Seen seen;
  if (!outcome.head) {
    seen.failure = outcome.error;
    return seen;
  }
  seen.loop = CallModel(outcome.body).Read();
  return seen;
}

void ExpectSame(const Seen& seen, const Seen& expected) {
  EXPECT_EQ(seen.failure, expected.failure);
  EXPECT_EQ(seen.loop.error, expected.loop.error);
  EXPECT_TRUE(seen.loop == expected.loop) << seen.loop.passes.size() << " elements";
}

const char kPage[] =
    "<!DOCTYPE html>\n<p class=\"c\" id='x y'>Text &amp; more<br /></p>\n<!-- a > b --><![CDATA["
    "x>y]]>end";

std::string WithLength(const std::string& body) {
  return "HTTP/1.1 200 OK\r\nA: b\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
         body;
}

TEST_F(UNIXCall, TheRequestIsSentByteForByteBeforeTheResponseIsRead) {
  std::string head, body;
  const Seen seen = To(
      [&](Peer& peer) {
        head = Head(peer);
        body = peer.Receive(5);
        peer.Send(WithLength("a<b>c"));
      },
      "POST", "a");
  EXPECT_EQ(head, "POST /p?q HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
                      "\r\nContent-Type: application/x-www-form-urlencoded\r\n"
                      "Content-Length: 5\r\nX-Y: z\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(body, "a=1+2");
  ExpectSame(seen, Expected(WithLength("a<b>c")));
  EXPECT_EQ(seen.loop.passes.size(), 3u);
  EXPECT_EQ(host.Value("callreturnheader2"), "A: b");
}

TEST_F(UNIXCall, APeerThatSendsByteByByteIsReadWhole) {
  const std::string bytes = WithLength(kPage);
  const Seen seen = To([&](Peer& peer) {
    Head(peer);
    for (const char c : bytes) {
      peer.Send(std::string(1, c));
      peer.Pause(1);
    }
    peer.WaitForEnd();
  });
  ExpectSame(seen, Expected(bytes));
  EXPECT_EQ(seen.loop.passes.size(), 10u);
}

TEST_F(UNIXCall, AResponseThatIsCutAnywhereIsReadSoFar) {
  const std::string chunks =
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
      "8\r\na<b c>d<\r\n9\r\n/e><f g='\r\n3\r\nh'>\r\n0\r\n\r\n";
  for (const std::string& bytes : {WithLength(kPage), chunks}) {
    for (size_t length = 0; length <= bytes.size(); length++) {
      SCOPED_TRACE(bytes.substr(0, length));
      const Seen seen = To([&](Peer& peer) {
        Head(peer);
        peer.Send(bytes.substr(0, length));
      });
      // Where a chunk breaks off, the model has the error of the stream as its own.
      ScriptedPeer cut;
      cut.bytes = bytes.substr(0, length);
      const HTTPResponseOutcome outcome = HTTPResponseModel(cut).Run(8192);
      Seen expected = Expected(cut.bytes);
      if (outcome.head && outcome.last < 0) {
        // Elements that end before the failure are seen; a run of text that meets it is not.
        EXPECT_EQ(seen.failure, "");
        EXPECT_EQ(seen.loop.error, outcome.error);
        EXPECT_LE(seen.loop.passes.size(), expected.loop.passes.size());
        continue;
      }
      ExpectSame(seen, expected);
    }
  }
}

TEST_F(UNIXCall, AResetEndsTheCallWithTheReasonOfTheSystem) {
  const std::string body(100000, 'x');
  for (const size_t length : {0, 10, 40, 50000}) {
    SCOPED_TRACE(length);
    const Seen seen = To([&](Peer& peer) {
      Head(peer);
      peer.Send(WithLength(body).substr(0, length));
      // Long enough for the client to read all that was sent.
      peer.Pause(100);
      peer.Reset();
    });
    const std::string reset = "Read Error: Connection reset by peer";
    EXPECT_EQ(seen.failure + seen.loop.error, reset);
    EXPECT_TRUE(seen.loop.passes.empty());
  }
}

TEST_F(UNIXCall, AnyBytesAreReadAsTheModelsReadThem) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const std::string pieces[] = {"HTTP/1.1 200 OK\r\n",
                                "\r\n",
                                "\n",
                                "A: b\r\n",
                                "<a",
                                ">",
                                "'",
                                "\"",
                                "Content-Length: 7\r\n",
                                std::string(1, '\0'),
                                "\xFF",
                                "x",
                                " "};
  for (int i = 0; i < 300 && !HasFailure(); i++) {
    std::string bytes = random() % 4 ? "HTTP/1.1 200 OK\r\n" : "";
    for (unsigned n = random() % 30; n > 0; n--) bytes += pieces[random() % std::size(pieces)];
    SCOPED_TRACE(testing::PrintToString(bytes));
    const Seen seen = To([&](Peer& peer) {
      Head(peer);
      peer.Send(bytes);
    });
    ExpectSame(seen, Expected(bytes));
  }
}

TEST_F(UNIXCall, ABodyOfTenMegabytesIsWhole) {
  std::string body;
  for (int i = 0; body.size() < (10u << 20); i++) {
    body += "<i>" + std::to_string(i) + std::string(5000, '.') + "</i>\n";
  }
  const std::string bytes = WithLength(body);
  const Seen seen = To([&](Peer& peer) {
    Head(peer);
    peer.Send(bytes);
  });
  std::string all;
  for (const CallPass& pass : seen.loop.passes) all += pass.value;
  EXPECT_TRUE(all == body);
  EXPECT_EQ(seen.loop.error, "");
}

}  // namespace
