// Scripts in the engine that take more memory than they may have, or than there is.

#include <gmock/gmock.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

#include "base/core/Sanitizers.h"
#include "tests/e2e/Pages.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

// An array that grows without end.
const char* const kGreedy =
    "pushc \"before \"\nout\n"
    "again: pushc \"some text that fills the memory\"\npushg i\ncat\npushg a\npushg i\npushi 1\n"
    "add\nelem\nstore\nincg i, 1\njmp again\n";

class MemoryTest : public testing::Test {
 protected:
  void SetUp() override {
    if (kThreadSanitizer) GTEST_SKIP() << "there is no limit";
  }
  void Start() {
    engine.Script("greedy.zpc", kGreedy);
    engine.Script("page.zpc", Writes("page"));
    ASSERT_TRUE(engine.Start());
    ASSERT_TRUE(engine.WaitUntilReady());
  }

  EngineProcess engine;
};

TEST_F(MemoryTest, AScriptEndsAtItsLimit) {
  engine.settings = "memory_limit = 33554432\n";
  Start();
  for (int i = 0; i < 3; i++) {
    const std::string body = engine.Get("greedy.zpc").Body();
    EXPECT_THAT(body, StartsWith("before Fatal error in greedy.zpc @ "));
    EXPECT_THAT(body, EndsWith("]: Out of memory\n"));
    EXPECT_EQ(engine.Get("page.zpc").Body(), "page");
  }
  EXPECT_THAT(engine.Log(),
              HasSubstr("]: Out of memory: memory_limit is 33554432 bytes; reference \""));
}

TEST_F(MemoryTest, ALimitMayBeThatOfSomeScriptsOnly) {
  engine.settings =
      "memory_limit = 1073741824\n[[script]]\nmatch = \"gr*\"\nmemory_limit = 33554432\n";
  Start();
  EXPECT_THAT(engine.Get("greedy.zpc").Body(), EndsWith("]: Out of memory\n"));
}

TEST_F(MemoryTest, AFormBeyondTheLimitIsRefused) {
  engine.settings = "memory_limit = 4194304\nmax_unknown_content_length = 0\n";
  Start();
  const std::string form = "a=" + std::string(8 << 20, 'x');
  const FastCGIParameters parameters = {{"CONTENT_TYPE", "application/x-www-form-urlencoded"},
                                        {"CONTENT_LENGTH", std::to_string(form.size())}};
  EXPECT_THAT(engine.Get("page.zpc", parameters, form).Body(), HasSubstr("Out of memory"));
  EXPECT_EQ(engine.Get("page.zpc").Body(), "page");
  const std::string log = engine.Log();
  EXPECT_THAT(log, HasSubstr(": Out of memory: memory_limit is 4194304 bytes; reference \""));
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
}

// The limit of an address space hits all threads at once.
TEST_F(MemoryTest, AProcessThatHasNoneLeftGoesOn) {
  if (kAddressSanitizer || kThreadSanitizer) GTEST_SKIP() << "they need more than can be refused";
  engine.address_space_limit = 900UL << 20;
  engine.arguments = {"-t", "4"};
  Start();
  std::vector<std::thread> clients;
  for (int i = 0; i < 4; i++) {
    clients.emplace_back([this] {
      for (int round = 0; round < 3; round++) (void)engine.Get("greedy.zpc");
    });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_TRUE(engine.Running());
  EXPECT_EQ(engine.Get("page.zpc").Body(), "page");
  EXPECT_THAT(engine.Log(), HasSubstr(": Out of memory: the process has no "));
}

TEST(SlowMemory, IsGivenBackWhenTheLoadIsOver) {
  if (kAddressSanitizer || kThreadSanitizer) GTEST_SKIP() << "they keep what was freed";
  EngineProcess engine;
  engine.settings = "memory_limit = 50331648\n";
  engine.Script("greedy.zpc", kGreedy);
  ASSERT_TRUE(engine.Start());
  ASSERT_TRUE(engine.WaitUntilReady());
  std::vector<std::thread> clients;
  for (int i = 0; i < 10; i++) {
    clients.emplace_back([&] {
      for (int round = 0; round < 2; round++) (void)engine.Get("greedy.zpc");
    });
  }
  for (std::thread& client : clients) client.join();
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(15);
  const long most = 64 << 20;
  while (engine.ResidentBytes() > most && std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_LE(engine.ResidentBytes(), most);
}

}  // namespace
