// The sequence of random numbers that a script gets.

#include <ctime>
#include <set>

#include "tests/e2e/Pages.h"

namespace {

TEST(Random, RequestsOfOneSecondBeginTheSameSequence) {
  EngineProcess engine;
  engine.arguments = {"-t", "1"};
  engine.Script("salt.zpc", "pushc \"x\"\npushc \"\"\ncrypt\nout\n");
  ASSERT_TRUE(engine.Start());
  for (int attempt = 0; attempt < 100; attempt++) {
    const time_t start = time(nullptr);
    std::set<std::string> pages;
    for (int i = 0; i < 4; i++) pages.insert(engine.Get("/salt.zpc").Body());
    if (time(nullptr) != start) continue;
    EXPECT_EQ(pages.size(), 1u);
    EXPECT_EQ(pages.begin()->size(), 13u);
    return;
  }
  FAIL() << "no second was long enough for four requests";
}

}  // namespace
