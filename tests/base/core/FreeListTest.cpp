#include "base/core/FreeList.h"

#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct Small {
  ZEPH_FREE_LIST_OPERATORS(Small)
  virtual ~Small() = default;
  char bytes[40];
};

struct Large : Small {
  char more[100];
};

TEST(FreeList, LivingBlocksAreDistinctAndWritable) {
  std::vector<Small*> all;
  for (int round = 0; round < 3; round++) {
    std::set<Small*> distinct;
    for (int i = 0; i < 5000; i++) {
      auto* small = new Small;
      memset(small->bytes, i, sizeof small->bytes);
      all.push_back(small);
      distinct.insert(small);
    }
    EXPECT_EQ(distinct.size(), 5000u);
    for (Small* small : all) delete small;
    all.clear();
  }
}

TEST(FreeList, DerivedObjectsAreFreedAsWhatTheyAre) {
  for (int i = 0; i < 100; i++) {
    Small* large = new Large;
    memset(static_cast<Large*>(large)->more, 1, 100);
    delete large;
    auto* small = new Small;
    memset(small->bytes, 2, sizeof small->bytes);
    delete small;
  }
}

TEST(FreeList, BlocksCrossThreadsAndAreGivenBackAtTheirEnd) {
  std::vector<Small*> passed;
  std::thread([&] {
    FreeLists::Open();
    for (int i = 0; i < 3000; i++) passed.push_back(new Small);
    delete new Small;
    FreeLists::Close();
  }).join();
  std::thread([&] {
    FreeLists::Open();
    for (Small* small : passed) delete small;
    FreeLists::Close();
  }).join();
}

TEST(FreeList, ATrimmedListKeepsBlocksAgain) {
  for (int round = 0; round < 3; round++) {
    for (int i = 0; i < 100; i++) delete new Small;
    FreeLists::Trim();
  }
  delete new Small;
}

struct LateFree {
  Small* small = new Small;
  ~LateFree() { delete small; }
};

TEST(FreeList, WhatIsFreedAfterTheListIsClosedGoesToTheHeap) {
  std::thread([] {
    static thread_local LateFree late;
    EXPECT_NE(late.small, nullptr);
    FreeLists::Open();
    delete new Small;
    FreeLists::Close();
  }).join();
}

}  // namespace
