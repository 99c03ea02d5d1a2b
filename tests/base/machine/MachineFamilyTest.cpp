// What the machines of a family share.

#include "base/machine/MachineFamily.h"

#include <gtest/gtest.h>

namespace {

TEST(MachineFamily, HasRoomForFiveHundredRuns) {
  MachineFamily family;
  for (int i = 0; i < 500; i++) {
    ASSERT_TRUE(family.HasRoomForRun());
    family.BeginRun();
  }
  EXPECT_FALSE(family.HasRoomForRun());
  family.EndRun();
  EXPECT_TRUE(family.HasRoomForRun());
}

TEST(MachineFamily, MakesItsContextsOnceUntilTheyAreDeleted) {
  MachineFamily family;
  DoContexts* const contexts = family.contexts();
  ASSERT_NE(contexts, nullptr);
  EXPECT_EQ(family.contexts(), contexts);
  family.DeleteContexts();
  EXPECT_NE(family.contexts(), nullptr);
}

TEST(MachineFamily, KeepsFramesUnlessItIsTold) {
  MachineFamily family;
  EXPECT_TRUE(family.reuses_frames());
  family.SetFrameReuse(false);
  EXPECT_FALSE(family.reuses_frames());
}

}  // namespace
