// Lock files in the engine: how they are released when a request ends in an unusual way.

#include <chrono>
#include <filesystem>
#include <thread>

#include "tests/e2e/Pages.h"

namespace {

// There are pauses between the tries, and beats during a pause go to the current machine: this one
// is being deleted.
TEST(SlowLock, AFileThatIsInTheWayIsTriedAgainWhileTheMachineGoes) {
  EngineProcess engine;
  engine.settings = "timeout_file = 7\ndelay_file = 1000\n";
  // The script ends inside the block, after the test has replaced its lock by something else.
  engine.Script("lock.zpc",
                "tagerror 2, 0\npushc \"a\"\nlockfile\npushc \"b\"\nlockfile\n"
                "pushc \"begun\"\npopg x\npushc \"begun.txt\"\npushc \",\"\npushc \"x\"\nexport\n"
                "wait: pushc \"go.txt\"\npushc \",\"\npushc \"x\"\nimport wait\n" +
                    Writes("page"));
  engine.Script("page.zpc", Writes("page"));
  ASSERT_TRUE(engine.Start());
  FastCGIClient client;
  ASSERT_TRUE(client.Connect(engine.socket()));
  ASSERT_TRUE(client.Begin() && client.Parameters(engine.Parameters("/lock.zpc")) &&
              client.EndParameters() && client.EndInput());
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!std::filesystem::exists(engine.Path("data/begun.txt"))) {
    ASSERT_LT(std::chrono::steady_clock::now(), limit);
    std::this_thread::yield();
  }
  const auto start = std::chrono::steady_clock::now();
  std::filesystem::remove(engine.Path("data/a.lck"));
  engine.Folder("data/a.lck/full");
  engine.Write("data/go.txt", "go\n");
  ExpectPage(client.Read(), "page");
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(7));
  EXPECT_TRUE(std::filesystem::exists(engine.Path("data/a.lck")));
  EXPECT_FALSE(std::filesystem::exists(engine.Path("data/b.lck")));
  ExpectPage(engine.Get("/page.zpc"), "page");
}

}  // namespace
