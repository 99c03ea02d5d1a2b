// Connections as web servers use them, and as they should not.

#include <signal.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "tests/e2e/Pages.h"

namespace {

using Milliseconds = FastCGIClient::Milliseconds;

class Connections : public testing::Test {
 protected:
  Connections() {
    engine.Script("page.zpc", Writes("page"));
    engine.Script("flood.zpc", Floods(20000));
  }

  EngineProcess engine;
};

TEST_F(Connections, AKeptConnectionServesOneRequestAfterTheOther) {
  engine.arguments = {"-t", "1"};
  ASSERT_TRUE(engine.Start());
  FastCGIClient client;
  ASSERT_TRUE(client.Connect(engine.socket()));
  for (int i = 0; i < 5; i++) {
    ExpectPage(client.Request(engine.Parameters("/page.zpc"), "", true), "page");
    ExpectFailure(client.Request(engine.Parameters("/nowhere"), "", true),
                  "Unable to execute 'nowhere': No such file or directory");
    ASSERT_FALSE(HasFailure());
  }
}

TEST_F(Connections, AKeptConnectionServesOnWhenTheEndOfTheInputComesLate) {
  // The record that ends the (empty) input comes just after the 8192 bytes that are read at once,
  // so the script has run before that record is read.
  constexpr size_t records = 16 + 8 + 8;  // begin, and the headers of both parameter records
  FastCGIParameters parameters = engine.Parameters("/page.zpc");
  size_t length = 2 + 4 + 6;  // the lengths and the name of the filling one
  for (const auto& [name, value] : parameters) {
    ASSERT_LT(value.size(), 128u);
    length += 2 + name.size() + value.size();
  }
  parameters.emplace_back("FILLER", std::string(8192 - records - length + 1, 'x'));
  engine.arguments = {"-t", "1"};
  ASSERT_TRUE(engine.Start());
  FastCGIClient client;
  ASSERT_TRUE(client.Connect(engine.socket()));
  for (int i = 0; i < 5; i++) {
    SCOPED_TRACE(i);
    client.Hold();
    client.Begin(true);
    client.Parameters(parameters);
    client.EndParameters();
    EXPECT_EQ(client.held().size(), 8192u);
    client.EndInput();
    ASSERT_TRUE(client.Release());
    ExpectPage(client.Read(), "page");
    ASSERT_FALSE(HasFailure());
  }
}

TEST_F(Connections, AKeptConnectionGetsItsPageBeforeItsInputHasCome) {
  engine.arguments = {"-t", "1"};
  ASSERT_TRUE(engine.Start());
  FastCGIClient client;
  ASSERT_TRUE(client.Connect(engine.socket()));
  ASSERT_TRUE(client.Begin(true));
  ASSERT_TRUE(client.Parameters(engine.Parameters("/page.zpc", {{"CONTENT_LENGTH", "10"}})));
  ASSERT_TRUE(client.EndParameters());
  ExpectPage(client.Read(Milliseconds(20000)), "page");
  // If the input comes, the connection is kept; without it, its thread serves others.
  ASSERT_TRUE(client.EndInput());
  ExpectPage(client.Request(engine.Parameters("/page.zpc"), "", true), "page");
  ASSERT_TRUE(client.Begin(true));
  ASSERT_TRUE(client.Parameters(engine.Parameters("/page.zpc", {{"CONTENT_LENGTH", "10"}})));
  ASSERT_TRUE(client.EndParameters());
  ExpectPage(client.Read(Milliseconds(20000)), "page");
  ExpectPage(engine.Get("/page.zpc"), "page");
  EXPECT_TRUE(client.WaitForClose());
}

TEST_F(Connections, RequestsThatAreSentAheadAreServedInTurn) {
  engine.arguments = {"-t", "1"};
  ASSERT_TRUE(engine.Start());
  FastCGIClient client;
  ASSERT_TRUE(client.Connect(engine.socket()));
  client.Hold();
  for (int i = 0; i < 5; i++) {
    client.Begin(true);
    client.Parameters(engine.Parameters("/page.zpc"));
    client.EndParameters();
    client.Input("not read");
    client.EndInput();
  }
  ASSERT_TRUE(client.Release());
  for (int i = 0; i < 5; i++) {
    SCOPED_TRACE(i);
    ExpectPage(client.Read(), "page");
  }
}

TEST_F(Connections, ASocketOfTheNetworkServesToo) {
  engine.descriptor0 = EngineProcess::TCPSocket;
  ASSERT_TRUE(engine.Start());
  FastCGIClient client;
  ASSERT_TRUE(client.Connect(engine.port()));
  ExpectPage(client.Request(engine.Parameters("/page.zpc")), "page");
}

// The whole page comes, whatever of the input is still on its way when the engine is done with it.
TEST_F(Connections, APageIsWholeWhenTheEndOfItsInputComesLate) {
  for (const auto kind : {EngineProcess::ListeningSocket, EngineProcess::TCPSocket}) {
    SCOPED_TRACE(kind);
    EngineProcess served;
    served.descriptor0 = kind;
    served.Script("page.zpc", Writes("page"));
    served.Script("large.zpc", Floods(300));
    ASSERT_TRUE(served.Start());
    const struct {
      const char* path;
      size_t length;
      size_t input;
    } pages[] = {{"/page.zpc", 4, 0},
                 {"/page.zpc", 4, 100},
                 {"/page.zpc", 4, 10000000},
                 {"/large.zpc", 300 * flood_part, 0},
                 {"/large.zpc", 300 * flood_part, 100}};
    for (const auto& page : pages) {
      SCOPED_TRACE(testing::Message() << page.path << ", " << page.input << " bytes of input");
      FastCGIClient client;
      ASSERT_TRUE(kind == EngineProcess::TCPSocket ? client.Connect(served.port())
                                                   : client.Connect(served.socket()));
      ASSERT_TRUE(client.Begin());
      ASSERT_TRUE(client.Parameters(
          served.Parameters(page.path, {{"CONTENT_LENGTH", std::to_string(page.input)}})));
      ASSERT_TRUE(client.EndParameters());
      // The engine reads none of it, and may have ended the connection before all is sent.
      (void)(client.Input(std::string(page.input, 'x')) && client.EndInput());
      const FastCGIResponse response = client.Read();
      EXPECT_TRUE(response.ended) << response.problem;
      EXPECT_EQ(response.Body().size(), page.length);
      EXPECT_TRUE(client.WaitForClose());
    }
  }
}

TEST_F(Connections, ClientsOfTheNetworkAreThoseThatTheEnvironmentAllows) {
  for (const char* list : {"127.0.0.1", "10.0.0.1,127.0.0.1", "10.0.0.1", "10.0.0.1,10.0.0.2"}) {
    SCOPED_TRACE(list);
    EngineProcess guarded;
    guarded.descriptor0 = EngineProcess::TCPSocket;
    guarded.environment["FCGI_WEB_SERVER_ADDRS"] = list;
    guarded.Script("page.zpc", Writes("page"));
    ASSERT_TRUE(guarded.Start());
    FastCGIClient client;
    ASSERT_TRUE(client.Connect(guarded.port()));
    const bool allowed = std::string(list).find("127.0.0.1") != std::string::npos;
    EXPECT_EQ(client.Request(guarded.Parameters("/page.zpc")).Body(), allowed ? "page" : "");
  }
}

TEST_F(Connections, AScriptCannotTakeTheLastDescriptors) {
  // Each call opens the file once more. When that fails, the script goes on, and waits with all
  // open files for a client that does not read.
  engine.descriptor_limit = 200;
  engine.settings = "bufsz_output_flush = 1\n";
  engine.Script("greedy.zpc",
                "tagerror 2, 0\ncall more\npop\nexit\n.function more()\npushc \"rows\"\n"
                "pushc \",\"\npushc \"a\"\nimport none\ncall more\npop\nimport_stop end\n"
                "none: noop\nagain: pushc \"" +
                    std::string(800, 'x') + "\"\nout\njmp again\nend: retn\n.end\n");
  engine.Write("data/rows", "1\n");
  ASSERT_TRUE(engine.Start());
  FastCGIClient client;
  ASSERT_TRUE(client.Connect(engine.socket()));
  ASSERT_TRUE(client.Begin());
  ASSERT_TRUE(client.Parameters(engine.Parameters("/greedy.zpc")));
  ASSERT_TRUE(client.EndParameters());
  ASSERT_TRUE(client.EndInput());
  ASSERT_GE(client.ReadOutput(1).size(), 1u);
  EXPECT_GE(engine.Descriptors(), 100);
  for (int i = 0; i < 5; i++) EXPECT_EQ(engine.Get("/page.zpc").Body(), "page");
}

TEST_F(Connections, AConnectionThatIsNotKeptIsClosed) {
  ASSERT_TRUE(engine.Start());
  FastCGIClient client;
  ASSERT_TRUE(client.Connect(engine.socket()));
  ExpectPage(client.Request(engine.Parameters("/page.zpc")), "page");
  EXPECT_TRUE(client.WaitForClose());
}

TEST_F(Connections, AKeptConnectionThatIsClosedGivesItsThreadBack) {
  engine.arguments = {"-t", "1"};
  ASSERT_TRUE(engine.Start());
  FastCGIClient kept;
  ASSERT_TRUE(kept.Connect(engine.socket()));
  ExpectPage(kept.Request(engine.Parameters("/page.zpc"), "", true), "page");
  kept.Close();
  ExpectPage(engine.Get("/page.zpc"), "page");
}

// Any thread may serve the next request of a kept connection.
TEST_F(Connections, KeptConnectionsAreServedInAnyOrder) {
  constexpr int kKept = 8;
  engine.arguments = {"-t", std::to_string(kKept)};
  engine.Script("name.zpc", "pushg name\nout\n");
  ASSERT_TRUE(engine.Start());
  const auto named = [&](const std::string& name) {
    return engine.Parameters("/name.zpc", {{"QUERY_STRING", "name=" + name}});
  };
  FastCGIClient kept[kKept];
  for (FastCGIClient& client : kept) {
    ASSERT_TRUE(client.Connect(engine.socket()));
    ExpectPage(client.Request(named("first"), "", true), "first");
  }
  std::vector<std::thread> users;
  for (int user = 0; user < 2; user++) {
    users.emplace_back([&, user] {
      for (int i = 0; i < 200; i++) {
        const int number = i * 5 % (kKept / 2) + user * kKept / 2;
        const std::string name = std::to_string(i) + "-" + std::to_string(number);
        ExpectPage(kept[number].Request(named(name), "", true), name);
      }
    });
  }
  for (std::thread& user : users) user.join();
  // Each connection has a thread: those that have one wait for no other.
  for (FastCGIClient& client : kept) {
    ASSERT_TRUE(client.Begin(true) && client.Parameters(named("last")) && client.EndParameters());
  }
  for (FastCGIClient& client : kept) ASSERT_TRUE(client.EndInput());
  for (FastCGIClient& client : kept) ExpectPage(client.Read(), "last");
  for (FastCGIClient& client : kept) client.Close();
  ExpectPage(engine.Get("/page.zpc"), "page");
  // The threads of the connections that were closed accept again.
  for (FastCGIClient& client : kept) {
    ASSERT_TRUE(client.Connect(engine.socket()));
    ExpectPage(client.Request(named("again"), "", true), "again");
  }
  engine.Signal(SIGTERM);
  for (FastCGIClient& client : kept) EXPECT_TRUE(client.WaitForClose());
  EXPECT_EQ(engine.Wait(), 0);
}

// Between the parts of such a request its connection is no kept one.
TEST_F(Connections, AKeptConnectionWithHalfARequestKeepsItsThread) {
  engine.arguments = {"-t", "2"};
  ASSERT_TRUE(engine.Start());
  FastCGIClient half, other;
  for (FastCGIClient* client : {&half, &other}) {
    ASSERT_TRUE(client->Connect(engine.socket()));
    ExpectPage(client->Request(engine.Parameters("/page.zpc"), "", true), "page");
  }
  const std::string begin = FastCGIClient::Record(1, 1, std::string("\0\1\1\0\0\0\0\0", 8));
  for (size_t cut : {size_t{1}, begin.size() / 2, begin.size()}) {
    SCOPED_TRACE(cut);
    ASSERT_TRUE(half.Send(begin.substr(0, cut)));
    for (int i = 0; i < 3; i++) {
      ExpectPage(other.Request(engine.Parameters("/page.zpc"), "", true), "page");
    }
    ASSERT_TRUE(half.Send(begin.substr(cut)));
    ASSERT_TRUE(half.Parameters(engine.Parameters("/page.zpc")) && half.EndParameters() &&
                half.EndInput());
    ExpectPage(half.Read(), "page");
  }
}

TEST_F(Connections, RequestIdsAreAnswered) {
  ASSERT_TRUE(engine.Start());
  FastCGIClient client;
  ASSERT_TRUE(client.Connect(engine.socket()));
  ASSERT_TRUE(client.Begin(false, 0x1234));
  ASSERT_TRUE(client.Parameters(engine.Parameters("/page.zpc")));
  ASSERT_TRUE(client.EndParameters());
  ASSERT_TRUE(client.EndInput());
  ExpectPage(client.Read(), "page");
}

TEST_F(Connections, ParametersInManySmallRecordsAndInLargeOnes) {
  ASSERT_TRUE(engine.Start());
  FastCGIClient client;
  ASSERT_TRUE(client.Connect(engine.socket()));
  ASSERT_TRUE(client.Begin());
  for (const auto& parameter : engine.Parameters("/page.zpc"))
    ASSERT_TRUE(client.Parameters({parameter}));
  ASSERT_TRUE(client.Parameters({{"HTTP_X_LARGE", std::string(300000, 'x')}}));
  ASSERT_TRUE(client.EndParameters());
  ASSERT_TRUE(client.EndInput());
  ExpectPage(client.Read(), "page");
}

TEST_F(Connections, InputThatNobodyReadsDoesNotDisturb) {
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/page.zpc", {}, std::string(200000, 'x')), "page");
}

TEST_F(Connections, AClientThatLeavesInTheMiddleEndsItsScript) {
  engine.arguments = {"-t", "1"};
  ASSERT_TRUE(engine.Start());
  FastCGIClient client;
  ASSERT_TRUE(client.Connect(engine.socket()));
  ASSERT_TRUE(client.Begin());
  ASSERT_TRUE(client.Parameters(engine.Parameters("/flood.zpc")));
  ASSERT_TRUE(client.EndParameters());
  ASSERT_TRUE(client.EndInput());
  EXPECT_GE(client.ReadOutput(100000).size(), 100000u);
  client.Close();
  // The only thread is free again, and the process is unharmed.
  ExpectPage(engine.Get("/page.zpc"), "page");
  EXPECT_TRUE(engine.Running());
}

TEST_F(Connections, AClientThatLeavesBeforeItsRequestIsWholeDisturbsNobody) {
  engine.arguments = {"-t", "1"};
  ASSERT_TRUE(engine.Start());
  for (int stage = 0; stage < 4; stage++) {
    SCOPED_TRACE(stage);
    FastCGIClient client;
    EXPECT_TRUE(client.Connect(engine.socket()));
    EXPECT_TRUE(stage < 1 || client.Begin());
    EXPECT_TRUE(stage < 2 || client.Parameters(engine.Parameters("/page.zpc")));
    EXPECT_TRUE(stage < 3 || client.Send("\1\4"));
    client.Close();
  }
  ExpectPage(engine.Get("/page.zpc"), "page");
}

TEST_F(Connections, BytesThatAreNoRecordsDisturbNobody) {
  engine.arguments = {"-t", "1"};
  ASSERT_TRUE(engine.Start());
  for (const char* bytes :
       {"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n", "\1\1", "\xFF\xFF\xFF\xFF"}) {
    FastCGIClient client;
    ASSERT_TRUE(client.Connect(engine.socket()));
    ASSERT_TRUE(client.Send(bytes));
    client.Close();
  }
  ExpectPage(engine.Get("/page.zpc"), "page");
}

TEST_F(Connections, AnAbortedRequestIsEnded) {
  engine.arguments = {"-t", "1"};
  ASSERT_TRUE(engine.Start());
  FastCGIClient client;
  ASSERT_TRUE(client.Connect(engine.socket()));
  ASSERT_TRUE(client.Begin());
  ASSERT_TRUE(client.Parameters(engine.Parameters("/page.zpc")));
  ASSERT_TRUE(client.EndParameters());
  ASSERT_TRUE(client.Abort());
  EXPECT_TRUE(client.Read().ended);
  ExpectPage(engine.Get("/page.zpc"), "page");
}

TEST_F(Connections, ManyClientsAtOnceGetTheirOwnPages) {
  constexpr int pages = 8;
  for (int i = 0; i < pages; i++) {
    engine.Script("page" + std::to_string(i) + ".zpc",
                  Writes("page " + std::to_string(i) + " " +
                         std::string(static_cast<size_t>(i) * 3000, 'x')));
  }
  ASSERT_TRUE(engine.Start());
  std::atomic<int> wrong{0};
  std::vector<std::thread> clients;
  for (int c = 0; c < 16; c++) {
    clients.emplace_back([&, c] {
      for (int i = 0; i < 20; i++) {
        int page = (c + i) % pages;
        FastCGIResponse response = engine.Get(("/page" + std::to_string(page) + ".zpc").c_str());
        std::string expected = "page " + std::to_string(page) + " " +
                               std::string(static_cast<size_t>(page) * 3000, 'x');
        if (!response.ended || response.Body() != expected) wrong++;
      }
    });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(wrong, 0);
}

TEST_F(Connections, RunningOutOfDescriptorsIsNoEnd) {
  // Standard input, output and error, and four connections: the other threads cannot accept.
  constexpr unsigned limit = 3 + 4;
  engine.arguments = {"-t", "8"};
  engine.descriptor_limit = limit;
  ASSERT_TRUE(engine.Start());
  ASSERT_TRUE(engine.WaitUntilReady());
  std::vector<std::unique_ptr<FastCGIClient>> clients;
  for (int i = 0; i < 20; i++) {
    clients.push_back(std::make_unique<FastCGIClient>());
    ASSERT_TRUE(clients.back()->Connect(engine.socket()));
    ASSERT_TRUE(clients.back()->Begin());
  }
  EXPECT_EQ(engine.WaitForDescriptors(limit), static_cast<int>(limit));
  clients.clear();
  engine.LimitDescriptors(100);
  ExpectPage(engine.Get("/page.zpc"), "page");
  EXPECT_EQ(engine.Threads(), 8 + EngineProcess::OtherThreads);
}

}  // namespace
