#include "fastcgi/FastCGIExternalLibrary.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/LibraryFixture.h"

namespace {

TEST(FastCGIExternalLibraryManager, ThreadsThatAskAtOnceGetOneLibrary) {
  FastCGIExternalLibraryManager manager;
  std::string path = TestLibraryPath("FakeLibrary");
  std::vector<ExternalLibrary*> found(8);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < found.size(); i++) {
    threads.emplace_back([&, i] { found[i] = manager.Lookup(path.c_str()); });
  }
  for (std::thread& thread : threads) thread.join();
  ASSERT_NE(found[0], nullptr);
  EXPECT_EQ(std::set<ExternalLibrary*>(found.begin(), found.end()).size(), 1u);
}

TEST(FastCGIExternalLibraryManager, EachThreadReadsItsOwnError) {
  FastCGIExternalLibraryManager manager;
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; i++) {
    threads.emplace_back([&manager, i] {
      std::string path = "/nonexistent/" + std::to_string(i) + ".so";
      for (int round = 0; round < 50; round++) {
        ASSERT_EQ(manager.Lookup(path.c_str()), nullptr);
        ASSERT_TRUE(NamesMissingFile(manager.error(), path));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// Libraries are shared, and so are failed look-ups.
TEST(FastCGIExternalLibraryManager, EachThreadReadsItsOwnErrorOfALibrary) {
  FastCGIExternalLibraryManager manager;
  ExternalLibrary* library = manager.Lookup(TestLibraryPath("FakeEmpty").c_str());
  ASSERT_NE(library, nullptr);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; i++) {
    threads.emplace_back([library, i] {
      std::string symbol = "missing_" + std::to_string(i);
      for (int round = 0; round < 200; round++) {
        ASSERT_EQ(library->Get_Function(symbol.c_str()), nullptr);
        ASSERT_EQ(Text(library->error()), "Unknown symbol '" + symbol + "'");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
