// Runs one program in decoded code and in the plain loop, which must do the same.

#ifndef ZEPH_TESTS_SUPPORT_HOTANDCOLD_H
#define ZEPH_TESTS_SUPPORT_HOTANDCOLD_H

#include <gtest/gtest.h>

#include <string>

#include "base/compiled/HotCode.h"
#include "base/compiled/Segment.h"
#include "tests/support/Machine.h"

// Code is decoded after so many rounds of a loop, and not many later.
inline constexpr int kRoundsUntilHot = 3 * Segment::Repeats;

// A segment of more bytes is never decoded. The added ones are a million instructions that do
// nothing, so code that has no end of its own gets one.
inline void KeepCold(Machine* machine) {
  for (int i = 0; Segment* const segment = machine->segments.Lookup(i); i++) {
    segment->Write_Word(segment->length(), Instruction::exit);
    segment->Write_Byte(Segment::LongestHot, 0);
  }
}

// A program without an error writes the same, decoded or not.
inline void ExpectTheSameHotAndCold(const std::string& program) {
  Machine hot, cold;
  hot.Assemble(program);
  cold.Assemble(program);
  KeepCold(&cold);
  EXPECT_EQ(hot.Go(), 1);
  EXPECT_EQ(cold.Go(), 1);
  EXPECT_NE(hot.segments.Start()->hot(), nullptr);
  EXPECT_EQ(hot.Output(), cold.Output());
}

// A program writes the same and ends with the same error at the same place.
inline void ExpectTheSameEndHotAndCold(const std::string& program) {
  Machine hot, cold;
  hot.Assemble(program);
  cold.Assemble(program);
  KeepCold(&cold);
  EXPECT_EQ(hot.Go(), cold.Go());
  EXPECT_NE(hot.segments.Start()->hot(), nullptr);
  EXPECT_EQ(hot.Output(), cold.Output());
  EXPECT_EQ(hot.Error(), cold.Error());
}

#endif
