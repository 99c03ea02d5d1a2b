// The engine's command line, and the end of its process.

#include <signal.h>
#include <unistd.h>

#include <memory>
#include <thread>

#include "base/core/Sanitizers.h"
#include "tests/e2e/Pages.h"

namespace {

// Starts an engine with arguments. Returns the number of its request threads after all of them have
// started: the engine handles signals only then, and the heartbeat comes last.
int RequestThreads(const std::vector<std::string>& arguments, int expected) {
  EngineProcess engine;
  engine.arguments = arguments;
  if (!engine.Start()) return -1;
  EXPECT_TRUE(engine.WaitUntilReady());
  constexpr int others = EngineProcess::OtherThreads;
  return engine.WaitForThreads(expected + others) - others;
}

TEST(CommandLine, TenRequestThreadsUnlessToldOtherwise) {
  struct Case {
    const char* label;
    std::vector<std::string> arguments;
    int threads;
  };
  const Case cases[] = {
      {"none", {}, 10},
      {"-t 3", {"-t", "3"}, 3},
      {"-t 2.9", {"-t", "2.9"}, 2},
      {"-t 0", {"-t", "0"}, 10},
      {"-t -3", {"-t", "-3"}, 10},
      {"-t abc", {"-t", "abc"}, 10},
      {"-t 1e99", {"-t", "1e99"}, 10},
      {"-t last", {"other", "-t"}, 10},
      {"-t twice", {"-t", "2", "-t", "4"}, 4},
      {"-t5 is no option", {"-t5"}, 10},
      {"the value of -p is none", {"-p", "-t", "3"}, 10},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.label);
    EXPECT_EQ(RequestThreads(each.arguments, each.threads), each.threads);
  }
}

TEST(CommandLine, AProcessTitleReplacesTheArgumentsInListings) {
  EngineProcess engine;
  engine.arguments = {"-t", "1", "-p", "zeph: shop"};
  ASSERT_TRUE(engine.Start());
  ASSERT_TRUE(engine.WaitUntilReady());
  std::string area = engine.ProcessArguments();
  size_t total = EngineProcess::Program().size() + 1 + sizeof "-t" + sizeof "1" + sizeof "-p" +
                 sizeof "zeph: shop";
  std::string expected = "zeph: shop";
  expected.resize(total, '\0');
  EXPECT_EQ(area, expected);
}

TEST(CommandLine, TheLastOfSeveralTitlesIsShown) {
  EngineProcess engine;
  engine.arguments = {"-p", "first title", "-p", "two"};
  ASSERT_TRUE(engine.Start());
  ASSERT_TRUE(engine.WaitUntilReady());
  EXPECT_STREQ(engine.ProcessArguments().c_str(), "two");
}

TEST(CommandLine, ATitleWithoutAValueChangesNothing) {
  EngineProcess engine;
  engine.arguments = {"-t", "1", "-p"};
  ASSERT_TRUE(engine.Start());
  ASSERT_TRUE(engine.WaitUntilReady());
  EXPECT_EQ(engine.ProcessArguments(),
            EngineProcess::Program() + std::string("\0-t\0001\0-p\0", 9));
}

TEST(CommandLine, ScriptsSeeTheArgumentsAfterATitle) {
  // Without PATH_INFO the first argument is the script, whatever its text is.
  EngineProcess engine;
  engine.arguments = {"-p", "title"};
  engine.Script("-p", Writes("the script named -p"));
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get(nullptr, {{"QUERY_STRING", "other.zpc"}}), "the script named -p");
}

TEST(CommandLine, BackslashesAreTakenOutOfBothArguments) {
  EngineProcess engine;
  engine.arguments = {"sub\\\\pa\\ge.zpc"};
  engine.Script("subpage.zpc", Writes("found"));
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get(nullptr), "found");
  EXPECT_EQ(engine.ProcessArguments().substr(EngineProcess::Program().size() + 1, 12),
            std::string("subpage.zpc\0", 12));
}

TEST(CommandLine, ThePathOfTheRequestWinsOverAnArgument) {
  EngineProcess engine;
  engine.arguments = {"argument.zpc"};
  engine.Script("argument.zpc", Writes("argument"));
  engine.Script("path.zpc", Writes("path"));
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/path.zpc"), "path");
  ExpectPage(engine.Get(nullptr), "argument");
}

TEST(CommandLine, EndsAtOnceWithStatusZeroWhenDescriptorZeroIsNoSocket) {
  for (EngineProcess::Descriptor0 descriptor : {EngineProcess::PlainFile, EngineProcess::Closed}) {
    SCOPED_TRACE(descriptor);
    EngineProcess engine;
    engine.descriptor0 = descriptor;
    ASSERT_TRUE(engine.Start());
    EXPECT_EQ(engine.Wait(), 0) << engine.Log();
    EXPECT_THAT(engine.Log(), testing::HasSubstr("descriptor 0 is no listening socket"));
  }
}

TEST(SlowCommandLine, StartsAsManyThreadsAsTheSystemGives) {
  if (kAddressSanitizer || kThreadSanitizer) GTEST_SKIP() << "needs a limit of address space";
  EngineProcess engine;
  engine.arguments = {"-t", "2000000000"};
  engine.address_space_limit = 1ul << 30;
  ASSERT_TRUE(engine.Start());
  ASSERT_TRUE(engine.WaitUntilReady());
  EXPECT_THAT(engine.Log(), testing::HasSubstr(" of 2000000000 request threads started: "));
  EXPECT_GT(engine.Threads(), 10);
  engine.Signal(SIGTERM);
  EXPECT_EQ(engine.Wait(), 0) << engine.Log();
}

TEST(SlowCommandLine, ASignalEndsTheStartOfManyThreads) {
  EngineProcess engine;
  engine.arguments = {"-t", "3000"};
  ASSERT_TRUE(engine.Start());
  // The heartbeat and the first threads have started.
  while (engine.Running() && engine.Threads() < 5) std::this_thread::yield();
  engine.Signal(SIGTERM);
  EXPECT_EQ(engine.Wait(), 0) << engine.Log();
}

TEST(CommandLine, ServesNothingWithoutAHeartbeat) {
  if (kAddressSanitizer || kThreadSanitizer) GTEST_SKIP() << "needs a limit of address space";
  EngineProcess engine;
  engine.stack_limit = 1ul << 36;
  engine.address_space_limit = 1ul << 35;
  ASSERT_TRUE(engine.Start());
  EXPECT_EQ(engine.Wait(), 0);
  EXPECT_THAT(engine.Log(), testing::HasSubstr("zeph-fcgi: no heartbeat thread: "));
}

TEST(CommandLine, ANonBlockingSocketServesAllTheSame) {
  EngineProcess engine;
  engine.descriptor0 = EngineProcess::NonBlockingSocket;
  engine.Script("page.zpc", Writes("served"));
  ASSERT_TRUE(engine.Start());
  ASSERT_TRUE(engine.WaitUntilReady());
  ExpectPage(engine.Get("/page.zpc"), "served");
  EXPECT_TRUE(engine.Running());
}

}  // namespace
