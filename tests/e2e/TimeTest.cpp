// Time limits, signals and the end of the process. These tests wait for heartbeats, which come
// every five seconds, so they are labelled as slow.
//
// A script runs as long as its client takes to read the output: the clients here read half a
// megabyte a second.

#include <signal.h>

#include <memory>
#include <thread>

#include "tests/e2e/Pages.h"

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = FastCGIClient::Milliseconds;

constexpr char timed_out[] = "Application timed out";
constexpr size_t bytes_per_step = 25000;
constexpr Milliseconds step(50);

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// A request whose script runs while the test goes on.
class RunningScript {
 public:
  RunningScript(const EngineProcess& engine, const char* path) : started(Clock::now()) {
    EXPECT_TRUE(client.Connect(engine.socket()));
    EXPECT_TRUE(client.Begin());
    EXPECT_TRUE(client.Parameters(engine.Parameters(path)));
    EXPECT_TRUE(client.EndParameters());
    EXPECT_TRUE(client.EndInput());
    EXPECT_GE(client.ReadOutput(1).size(), 1u);  // it writes, so it runs
  }

  // Reads at the clients' pace until the response has ended.
  FastCGIResponse ReadSlowly() {
    size_t wanted = 0;
    while (client.ReadOutput(wanted).size() >= wanted) {
      wanted += bytes_per_step;
      std::this_thread::sleep_for(step);
    }
    return client.Read();
  }

  FastCGIClient client;
  Clock::time_point started;
};

// A page whose script was ended by the time limit.
void ExpectCutOff(const FastCGIResponse& response) {
  EXPECT_TRUE(response.ended) << response.problem;
  std::string body = response.Body();
  ASSERT_GE(body.size(), sizeof timed_out);
  size_t written = body.size() - (sizeof timed_out - 1);
  EXPECT_EQ(body.substr(written), timed_out);
  EXPECT_EQ(body.find_first_not_of('x'), written);
}

void ExpectWhole(const FastCGIResponse& response, size_t size) {
  EXPECT_TRUE(response.ended) << response.problem;
  EXPECT_EQ(response.Body().size(), size);
  EXPECT_EQ(response.Body().find_first_not_of('x'), std::string::npos);
}

class SlowTime : public testing::Test {
 protected:
  SlowTime() {
    engine.settings = "bufsz_output_flush = 1\n";
    engine.Script("page.zpc", Writes("page"));
    engine.Script("long.zpc", Floods(5000));  // 40 MB, which take 80 seconds
  }

  EngineProcess engine;
};

TEST_F(SlowTime, AScriptEndsWithinABeatAfterItsLimit) {
  engine.settings += "timeout_global = 7\n";
  ASSERT_TRUE(engine.Start());
  RunningScript script(engine, "/long.zpc");
  ExpectCutOff(script.ReadSlowly());
  // The deadline is a whole second that must have passed, beats are five seconds apart, and the
  // client also has to read the bytes in the socket.
  EXPECT_GE(SecondsSince(script.started), 6.9);
  EXPECT_LE(SecondsSince(script.started), 14.5);
  EXPECT_EQ(engine.Get("/page.zpc").Body(), "page");
}

TEST_F(SlowTime, AScriptThatEndsInTimeIsLeftAlone) {
  engine.settings += "timeout_global = 30\n";
  engine.Script("medium.zpc", Floods(500));
  ASSERT_TRUE(engine.Start());
  RunningScript script(engine, "/medium.zpc");
  ExpectWhole(script.ReadSlowly(), 500 * flood_part);
  EXPECT_GE(SecondsSince(script.started), 6);
}

TEST_F(SlowTime, ALimitOfZeroIsNone) {
  engine.settings += "timeout_global = 0\n";
  engine.Script("medium.zpc", Floods(900));
  ASSERT_TRUE(engine.Start());
  RunningScript script(engine, "/medium.zpc");
  ExpectWhole(script.ReadSlowly(), 900 * flood_part);
  EXPECT_GE(SecondsSince(script.started), 12);
}

TEST_F(SlowTime, HangupCancelsRunningScriptsAndTheNextOnesRun) {
  ASSERT_TRUE(engine.Start());
  RunningScript first(engine, "/long.zpc");
  RunningScript second(engine, "/long.zpc");
  Clock::time_point start = Clock::now();
  engine.Signal(SIGHUP);
  std::thread other([&] { ExpectCutOff(second.ReadSlowly()); });
  ExpectCutOff(first.ReadSlowly());
  other.join();
  EXPECT_LE(SecondsSince(start), 12);
  EXPECT_EQ(engine.Get("/page.zpc").Body(), "page");
  EXPECT_TRUE(engine.Running());
}

TEST_F(SlowTime, HangupWhileIdleHarmsNoLaterRequest) {
  engine.arguments = {"-t", "1"};
  engine.Script("medium.zpc", Floods(500));
  ASSERT_TRUE(engine.Start());
  ASSERT_TRUE(engine.WaitUntilReady());
  engine.Signal(SIGHUP);
  EXPECT_EQ(engine.Get("/page.zpc").Body(), "page");
  // Waits for the beat that acts on the signal while there is no request: the next request must not
  // be affected.
  ASSERT_FALSE(engine.Wait(Milliseconds(7000)) >= 0);
  RunningScript script(engine, "/medium.zpc");
  ExpectWhole(script.ReadSlowly(), 500 * flood_part);
}

TEST_F(SlowTime, EverySignalOfShutdownEndsAnIdleProcessInOrder) {
  const int signals[] = {SIGINT, SIGQUIT, SIGPIPE, SIGTERM, SIGUSR1, SIGUSR2};
  std::vector<std::unique_ptr<EngineProcess>> engines;
  for (int number : signals) {
    engines.push_back(std::make_unique<EngineProcess>());
    engines.back()->Script("page.zpc", Writes("page"));
    ASSERT_TRUE(engines.back()->Start());
    // Threads that have served before, and threads that have not.
    ExpectPage(engines.back()->Get("/page.zpc"), "page");
    ASSERT_TRUE(engines.back()->WaitUntilReady());
    engines.back()->Signal(number);
  }
  Clock::time_point start = Clock::now();
  for (size_t i = 0; i < engines.size(); i++) {
    SCOPED_TRACE(signals[i]);
    EXPECT_EQ(engines[i]->Wait(), 0);
    FastCGIClient client;
    EXPECT_FALSE(client.Connect(engines[i]->socket()));
  }
  EXPECT_LE(SecondsSince(start), 20);
}

TEST_F(SlowTime, AProcessThatEndsCancelsItsScriptsAndFinishesTheirResponses) {
  ASSERT_TRUE(engine.Start());
  RunningScript first(engine, "/long.zpc");
  RunningScript second(engine, "/long.zpc");
  engine.Signal(SIGTERM);
  std::thread other([&] { ExpectCutOff(second.ReadSlowly()); });
  ExpectCutOff(first.ReadSlowly());
  other.join();
  EXPECT_EQ(engine.Wait(), 0);
}

TEST_F(SlowTime, AProcessThatEndsSendsAFinishedPageToItsLastByte) {
  engine.settings = "bufsz_output_flush = 100000000\n";
  engine.Script("large.zpc", Floods(2500));
  ASSERT_TRUE(engine.Start());
  // The script has run, and its page is on its way to a client that does not read.
  RunningScript script(engine, "/large.zpc");
  engine.Signal(SIGTERM);
  // Longer than the heartbeat needs to see the signal, and shorter than the time that peers get.
  EXPECT_EQ(engine.Wait(Milliseconds(7000)), -1);
  ExpectWhole(script.client.Read(), 2500 * flood_part);
  EXPECT_EQ(engine.Wait(), 0);
}

TEST_F(SlowTime, AProcessThatEndsWaitsForNoKeptConnection) {
  engine.arguments = {"-t", "2"};
  ASSERT_TRUE(engine.Start());
  FastCGIClient client;
  ASSERT_TRUE(client.Connect(engine.socket()));
  EXPECT_EQ(client.Request(engine.Parameters("/page.zpc"), "", true).Body(), "page");
  engine.Signal(SIGTERM);
  EXPECT_EQ(engine.Wait(), 0);
}

}  // namespace
