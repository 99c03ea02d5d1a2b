#include "base/core/RunLimit.h"

#include <gtest/gtest.h>

namespace {

TEST(RunLimit, WithNoneTheTimeIsNeverOver) {
  EXPECT_FALSE(RunLimit::Over());
  EXPECT_FALSE(RunLimit::WasCut());
}

TEST(RunLimit, IsOverWhenTheFlagIsSet) {
  int flag = 0;
  const RunLimit limit(&flag);
  EXPECT_FALSE(RunLimit::Over());
  flag = 1;
  EXPECT_FALSE(RunLimit::WasCut());
  EXPECT_TRUE(RunLimit::Over());
  EXPECT_TRUE(RunLimit::WasCut());
}

TEST(RunLimit, WhatWasCutStaysSoWhenTheFlagIsCleared) {
  int flag = 1;
  const RunLimit limit(&flag);
  EXPECT_TRUE(RunLimit::Over());
  flag = 0;
  EXPECT_FALSE(RunLimit::Over());
  EXPECT_TRUE(RunLimit::WasCut());
}

TEST(RunLimit, TheNewestCounts) {
  int form = 1, script = 0;
  const RunLimit outer(&form);
  {
    const RunLimit inner(&script);
    EXPECT_FALSE(RunLimit::Over());
    script = 1;
    EXPECT_TRUE(RunLimit::Over());
  }
  EXPECT_FALSE(RunLimit::WasCut());
  EXPECT_TRUE(RunLimit::Over());
}

TEST(RunLimit, ARunWithinARunOfTheSameLimitCutsBoth) {
  int flag = 1;
  const RunLimit outer(&flag);
  {
    const RunLimit inner(&flag);
    EXPECT_TRUE(RunLimit::Over());
  }
  EXPECT_TRUE(RunLimit::WasCut());
}

TEST(RunLimit, EndsWithItsObject) {
  int flag = 1;
  {
    const RunLimit limit(&flag);
    EXPECT_TRUE(RunLimit::Over());
  }
  EXPECT_FALSE(RunLimit::Over());
  EXPECT_FALSE(RunLimit::WasCut());
}

TEST(RunWatch, SmallWorkIsDoneWhole) {
  int flag = 1;
  const RunLimit limit(&flag);
  RunWatch watch(100);
  for (int i = 0; i < 99; i++) EXPECT_FALSE(watch.Over());
  EXPECT_FALSE(RunLimit::WasCut());
  EXPECT_TRUE(watch.Over());
  EXPECT_TRUE(RunLimit::WasCut());
}

TEST(RunWatch, LooksAfterEachSoManyUnits) {
  int flag = 0;
  const RunLimit limit(&flag);
  RunWatch watch(10);
  EXPECT_FALSE(watch.Over(25));
  flag = 1;
  EXPECT_FALSE(watch.Over(9));
  EXPECT_TRUE(watch.Over(1));
}

TEST(RunWatch, StaysOver) {
  int flag = 1;
  const RunLimit limit(&flag);
  RunWatch watch(1);
  EXPECT_TRUE(watch.Over());
  flag = 0;
  EXPECT_TRUE(watch.Over());
  EXPECT_TRUE(watch.over());
}

}  // namespace
