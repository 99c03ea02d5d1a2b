// The end of the process while peers delay it: whatever they do, it leaves with status 0 within 20
// seconds of the signal.

#include <signal.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "tests/e2e/Pages.h"

namespace {

using Milliseconds = FastCGIClient::Milliseconds;

class SlowShutdown : public testing::Test {
 protected:
  SlowShutdown() {
    engine.settings = "bufsz_output_flush = 1\ntimeout_global = 0\ntimeout_post = 0\n";
    engine.Script("page.zpc", Writes("page"));
    engine.Script("flood.zpc", Floods(20000));
    engine.Script("task.zpc", "async behind\nagain: noop\njmp again\nbehind: " + Writes("page"));
  }

  FastCGIClient& Client() {
    clients.push_back(std::make_unique<FastCGIClient>());
    EXPECT_TRUE(engine.port() ? clients.back()->Connect(engine.port())
                              : clients.back()->Connect(engine.socket()));
    return *clients.back();
  }

  // Peers that make the engine wait.
  void SaysNothing() { Client(); }
  void SendsHalfARecord() { Client().Send("\1\1\0"); }
  void SendsHalfItsParameters() {
    FastCGIClient& client = Client();
    client.Begin();
    client.Parameters({{"NAME", "value"}});
  }
  void KeepsItsConnection() {
    EXPECT_EQ(Client().Request(engine.Parameters("/page.zpc"), "", true).Body(), "page");
  }
  FastCGIClient& AnnouncesABody(bool keep) {
    FastCGIClient& client = Client();
    client.Begin(keep);
    client.Parameters(engine.Parameters(
        "/page.zpc",
        {{"CONTENT_TYPE", "application/x-www-form-urlencoded"}, {"CONTENT_LENGTH", "1000000"}}));
    client.EndParameters();
    client.Input("a=");
    return client;
  }
  void ReadsNothing() {
    FastCGIClient& client = Client();
    client.Begin();
    client.Parameters(engine.Parameters("/flood.zpc"));
    client.EndParameters();
    client.EndInput();
    EXPECT_GE(client.ReadOutput(1).size(), 1u);
  }
  void LeavesATask() { EXPECT_EQ(engine.Get("/task.zpc").Body(), "page"); }

  void ExpectGoneInTime() {
    engine.Signal(SIGTERM);
    EXPECT_EQ(engine.Wait(Milliseconds(20000)), 0);
  }

  EngineProcess engine;
  std::vector<std::unique_ptr<FastCGIClient>> clients;
};

TEST_F(SlowShutdown, BesideABodyThatDoesNotCome) {
  ASSERT_TRUE(engine.Start());
  AnnouncesABody(false);
  ASSERT_TRUE(engine.WaitUntilReady());
  ExpectGoneInTime();
}

TEST_F(SlowShutdown, BesideABodyThatComesByteByByte) {
  ASSERT_TRUE(engine.Start());
  FastCGIClient& client = AnnouncesABody(true);
  std::atomic<bool> ended{false};
  std::thread sender([&] {
    while (!ended && client.Input("x")) std::this_thread::sleep_for(Milliseconds(20));
  });
  ASSERT_TRUE(engine.WaitUntilReady());
  ExpectGoneInTime();
  ended = true;
  sender.join();
}

TEST_F(SlowShutdown, BesideAClientThatDoesNotRead) {
  ASSERT_TRUE(engine.Start());
  ReadsNothing();
  ASSERT_TRUE(engine.WaitUntilReady());
  ExpectGoneInTime();
}

TEST_F(SlowShutdown, BesideASilentConnection) {
  engine.arguments = {"-t", "1"};
  ASSERT_TRUE(engine.Start());
  ASSERT_TRUE(engine.WaitUntilReady());
  // The engine waits for one of them at any time until it acts on the signal.
  for (int i = 0; i < 10; i++) SaysNothing();
  ExpectGoneInTime();
}

TEST_F(SlowShutdown, BesideASilentConnectionOfTheNetwork) {
  engine.descriptor0 = EngineProcess::TCPSocket;
  ASSERT_TRUE(engine.Start());
  ASSERT_TRUE(engine.WaitUntilReady());
  SaysNothing();
  ExpectGoneInTime();
}

TEST_F(SlowShutdown, BesideAConnectionThatIsKept) {
  ASSERT_TRUE(engine.Start());
  KeepsItsConnection();
  ASSERT_TRUE(engine.WaitUntilReady());
  ExpectGoneInTime();
}

TEST_F(SlowShutdown, BesideHalfARecord) {
  ASSERT_TRUE(engine.Start());
  SendsHalfARecord();
  SendsHalfItsParameters();
  ASSERT_TRUE(engine.WaitUntilReady());
  ExpectGoneInTime();
}

TEST_F(SlowShutdown, BesideAllOfThemAndTasks) {
  engine.arguments = {"-t", "12"};
  ASSERT_TRUE(engine.Start());
  LeavesATask();
  LeavesATask();
  KeepsItsConnection();
  AnnouncesABody(false);
  AnnouncesABody(true);
  ReadsNothing();
  ReadsNothing();
  SendsHalfItsParameters();
  ASSERT_TRUE(engine.WaitUntilReady());
  SaysNothing();
  SendsHalfARecord();
  ExpectGoneInTime();
}

TEST_F(SlowShutdown, BesideAllOfThemOnTheNetwork) {
  engine.descriptor0 = EngineProcess::TCPSocket;
  engine.arguments = {"-t", "12"};
  ASSERT_TRUE(engine.Start());
  KeepsItsConnection();
  AnnouncesABody(false);
  AnnouncesABody(true);
  ReadsNothing();
  ReadsNothing();
  SendsHalfARecord();
  SendsHalfItsParameters();
  SaysNothing();
  ASSERT_TRUE(engine.WaitUntilReady());
  ExpectGoneInTime();
}

TEST_F(SlowShutdown, BesideAClientThatSendsOnAfterItsPage) {
  ASSERT_TRUE(engine.Start());
  FastCGIClient& client = Client();
  EXPECT_EQ(client.Request(engine.Parameters("/page.zpc")).Body(), "page");
  std::atomic<bool> ended{false};
  std::thread sender([&] {
    while (!ended && client.Send("x")) std::this_thread::sleep_for(Milliseconds(50));
  });
  ASSERT_TRUE(engine.WaitUntilReady());
  ExpectGoneInTime();
  ended = true;
  sender.join();
}

TEST_F(SlowShutdown, NoScriptBeginsWithTheHalfOfABody) {
  engine.Script("page.zpc", "pushg a\nout\n" + Writes("began"));
  ASSERT_TRUE(engine.Start());
  FastCGIClient& client = AnnouncesABody(false);
  ASSERT_TRUE(engine.WaitUntilReady());
  engine.Signal(SIGTERM);
  EXPECT_EQ(client.Read().Body().find("began"), std::string::npos);
  EXPECT_EQ(engine.Wait(Milliseconds(20000)), 0);
}

TEST_F(SlowShutdown, BesideFieldsThatTakeLong) {
  ASSERT_TRUE(engine.Start());
  ASSERT_TRUE(engine.WaitUntilReady());
  std::string query;
  while (query.size() < 8 << 20) query += "name" + std::to_string(query.size()) + "=&";
  FastCGIClient& client = Client();
  client.Begin();
  client.Parameters(engine.Parameters("/page.zpc", {{"QUERY_STRING", query}}));
  client.EndParameters();
  client.EndInput();
  ExpectGoneInTime();
}

// Another peer keeps the process for some seconds after that.
TEST_F(SlowShutdown, AConnectionThatIsKeptIsClosedWithItsPage) {
  engine.arguments = {"-t", "3"};
  engine.Script("long.zpc", Floods(1000));
  ASSERT_TRUE(engine.Start());
  ASSERT_TRUE(engine.WaitUntilReady());
  ReadsNothing();
  FastCGIClient& client = Client();
  client.Begin(true);
  client.Parameters(engine.Parameters("/long.zpc"));
  client.EndParameters();
  client.EndInput();
  EXPECT_GE(client.ReadOutput(1).size(), 1u);
  engine.Signal(SIGTERM);
  // The idle thread leaves as soon as the shutdown begins.
  const int two_serve = EngineProcess::OtherThreads + 2;
  ASSERT_EQ(engine.WaitForThreads(two_serve), two_serve);
  const auto page = client.Read();
  EXPECT_TRUE(page.ended) << page.problem;
  EXPECT_TRUE(client.WaitForClose());
  EXPECT_GE(engine.Threads(), two_serve - 1) << "closed by the end of the process";
  EXPECT_EQ(engine.Wait(Milliseconds(20000)), 0);
}

// --- While the process serves --------------------------------------------------------------------

TEST_F(SlowShutdown, AClientThatDoesNotReadLosesItsThreadWithTheScriptsTime) {
  engine.settings = "bufsz_output_flush = 1\ntimeout_global = 3\n";
  engine.arguments = {"-t", "1"};
  ASSERT_TRUE(engine.Start());
  ReadsNothing();
  FastCGIClient next;
  ASSERT_TRUE(next.Connect(engine.socket()));
  const auto page = next.Request(engine.Parameters("/page.zpc"), "", false, Milliseconds(30000));
  EXPECT_EQ(page.Body(), "page") << page.problem;
  EXPECT_TRUE(engine.Running());
}

}  // namespace
