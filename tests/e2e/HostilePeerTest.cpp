// Peers that speak the protocol badly, or well but as no server does: they lose their own
// connection, and nothing else happens.

#include <memory>
#include <vector>

#include "base/core/Sanitizers.h"
#include "tests/e2e/Pages.h"

namespace {

using Milliseconds = FastCGIClient::Milliseconds;

constexpr int kBegin = 1;
constexpr int kParameters = 4;
constexpr int kInput = 5;
constexpr int kQuestion = 9;
const std::string kResponder("\0\1\0\0\0\0\0\0", 8);

std::string Record(int type, int id, std::string_view content, size_t padding = 0) {
  return FastCGIClient::Record(type, id, content, padding);
}

std::string Announces(unsigned name, unsigned value) {
  return Record(kBegin, 1, kResponder) +
         Record(kParameters, 1, FastCGIClient::PairLengths(name, value));
}

std::string Asks(unsigned name, unsigned value) {
  return Record(kQuestion, 0, FastCGIClient::PairLengths(name, value));
}

// The name-value pairs of parameters that are short enough for lengths of one byte.
std::string Pairs(const FastCGIParameters& parameters) {
  std::string pairs;
  for (const auto& [name, value] : parameters) {
    pairs += static_cast<char>(name.size());
    pairs += static_cast<char>(value.size());
    pairs += name + value;
  }
  return pairs;
}

class HostilePeer : public testing::Test {
 protected:
  HostilePeer() {
    engine.arguments = {"-t", "1"};
    engine.Script("page.zpc", Writes("page"));
  }

  // Expects that the engine closes a connection with these bytes on it, and serves the next one.
  void ExpectDropped(const std::string& bytes) {
    FastCGIClient client;
    ASSERT_TRUE(client.Connect(engine.socket()));
    client.Send(bytes);
    EXPECT_TRUE(client.WaitForClose(Milliseconds(20000)));
    client.Close();
    ExpectPage(engine.Get("/page.zpc"), "page");
    ASSERT_TRUE(engine.Running()) << engine.Log();
  }

  EngineProcess engine;
};

TEST_F(HostilePeer, ParametersThatAnnounceMoreThanThereIsMemory) {
  ASSERT_TRUE(engine.Start());
  const unsigned lengths[] = {0, 1, 0x3FFFFFFF, 0x40000000, 0x7FFFFFFD, 0x7FFFFFFE, 0x7FFFFFFF};
  for (unsigned name : lengths) {
    for (unsigned value : lengths) {
      if (name < 2 && value < 2) continue;
      SCOPED_TRACE(testing::Message() << name << " and " << value);
      ExpectDropped(Announces(name, value));
      ExpectDropped(Asks(name, value));
      ExpectDropped(Record(kBegin, 1, kResponder) + Asks(name, value));
      if (HasFatalFailure()) return;
    }
  }
}

TEST_F(HostilePeer, ParametersThatBreakOffRunNoScript) {
  ASSERT_TRUE(engine.Start());
  FastCGIClient client;
  ASSERT_TRUE(client.Connect(engine.socket()));
  ASSERT_TRUE(client.Begin());
  ASSERT_TRUE(client.Parameters(engine.Parameters("/page.zpc")));
  client.EndSending();
  EXPECT_EQ(client.Receive(1), "");
  ExpectPage(engine.Get("/page.zpc"), "page");
}

TEST_F(HostilePeer, AQuestionThatIsRepeated) {
  std::string names;
  for (int i = 0; i < 1000; i++) names += std::string("\16\0", 2) + "FCGI_MAX_CONNS";
  ASSERT_TRUE(engine.Start());
  ExpectDropped(Record(kQuestion, 0, names));
}

TEST_F(HostilePeer, RecordsThatAreOutOfPlace) {
  const std::string begin = Record(kBegin, 1, kResponder);
  const struct {
    const char* label;
    std::string bytes;
  } cases[] = {
      {"another version", "\2" + begin.substr(1)},
      {"a beginning that is too short", Record(kBegin, 1, "\1")},
      {"an empty beginning", Record(kBegin, 1, "")},
      {"a beginning that is too long", Record(kBegin, 1, kResponder + "x")},
      {"a beginning of request 0", Record(kBegin, 0, kResponder)},
      {"role 0", Record(kBegin, 1, std::string(8, '\0'))},
      {"an unknown role", Record(kBegin, 1, "\xFF" + kResponder.substr(1))},
      {"input first", begin + Record(kInput, 1, "x")},
      {"an unknown type", begin + Record(200, 1, "x")},
      {"a pair that its stream ends in",
       begin + Record(kParameters, 1, "\5\5AB") + Record(kParameters, 1, "")},
      {"a length that its stream ends in",
       begin + Record(kParameters, 1, "\x80") + Record(kParameters, 1, "")},
      {"a question that ends in a pair", Record(kQuestion, 0, "\5\5AB")},
  };
  ASSERT_TRUE(engine.Start());
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    ExpectDropped(c.bytes);
    if (HasFatalFailure()) return;
  }
}

TEST_F(HostilePeer, ContentOfUnknownManagementRecordsIsNoParameter) {
  ASSERT_TRUE(engine.Start());
  FastCGIClient client;
  ASSERT_TRUE(client.Connect(engine.socket()));
  ASSERT_TRUE(client.Send(Record(77, 0, FastCGIClient::PairLengths(0x7FFFFFFE, 0x7FFFFFFE), 3)));
  EXPECT_EQ(client.Receive(16), Record(11, 0, std::string("\x4D\0\0\0\0\0\0\0", 8)));
  EXPECT_EQ(client.Request(engine.Parameters("/page.zpc")).Body(), "page");
}

TEST_F(HostilePeer, AQuestionForItsLimitsIsAnswered) {
  ASSERT_TRUE(engine.Start());
  FastCGIClient client;
  ASSERT_TRUE(client.Connect(engine.socket()));
  ASSERT_TRUE(client.Send(Record(kQuestion, 0, std::string("\17\0", 2) + "FCGI_MPXS_CONNS", 7)));
  // 18 bytes of content, padded to a multiple of 8.
  EXPECT_EQ(client.Receive(8 + 24).substr(8, 18), std::string("\17\1", 2) + "FCGI_MPXS_CONNS0");
  EXPECT_EQ(client.Request(engine.Parameters("/page.zpc")).Body(), "page");
}

TEST_F(HostilePeer, RecordsOfOtherRequestsChangeNothing) {
  ASSERT_TRUE(engine.Start());
  FastCGIClient client;
  ASSERT_TRUE(client.Connect(engine.socket()));
  const std::string foreign = Record(kInput, 9, "") + Record(kParameters, 9, "") +
                              Record(kParameters, 9, "\1\1XY") + Record(kInput, 9, "");
  ASSERT_TRUE(client.Send(foreign + Record(kBegin, 1, kResponder) + foreign +
                          Record(kParameters, 1, Pairs(engine.Parameters("/page.zpc"))) + foreign +
                          Record(kParameters, 1, "") + foreign + Record(kInput, 1, "")));
  ExpectPage(client.Read(), "page");
}

TEST_F(HostilePeer, PaddingMayFollowAnyRecord) {
  ASSERT_TRUE(engine.Start());
  FastCGIClient client;
  ASSERT_TRUE(client.Connect(engine.socket()));
  ASSERT_TRUE(client.Send(Record(kBegin, 1, kResponder, 255) +
                          Record(kParameters, 1, Pairs(engine.Parameters("/page.zpc")), 5) +
                          Record(kParameters, 1, "", 16) + Record(kInput, 1, "", 8)));
  ExpectPage(client.Read(), "page");
}

TEST_F(HostilePeer, AParameterForWhichThereIsNoMemory) {
  if (kAddressSanitizer || kThreadSanitizer) GTEST_SKIP() << "needs a limit of address space";
  constexpr int threads = 16;
  engine.arguments = {"-t", std::to_string(threads)};
  ASSERT_TRUE(engine.Start());
  // Each keeps a thread, which has served a request by then.
  std::vector<std::unique_ptr<FastCGIClient>> clients;
  for (int i = 0; i < threads; i++) {
    clients.push_back(std::make_unique<FastCGIClient>());
    ASSERT_TRUE(clients.back()->Connect(engine.socket()));
    ExpectPage(clients.back()->Request(engine.Parameters("/page.zpc"), "", true), "page");
  }
  // Together more than the heap may have in its store.
  engine.LimitMemory(8 << 20);
  for (auto& client : clients) ASSERT_TRUE(client->Send(Announces(0, 30 << 20)));
  int dropped = 0;
  for (int attempt = 0; attempt < 200 && dropped == 0; attempt++) {
    for (auto& client : clients) dropped += client->WaitForClose(Milliseconds(5));
  }
  EXPECT_GT(dropped, 0);
  clients.clear();
  ExpectPage(engine.Get("/page.zpc"), "page");
  EXPECT_TRUE(engine.Running()) << engine.Log();
}

TEST_F(HostilePeer, LargeParametersAreTaken) {
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/page.zpc", {{"LARGE", std::string(20 << 20, 'x')}}), "page");
}

}  // namespace
