// Jumps: their conditions, distances, and targets outside of the segment.

#include <gtest/gtest.h>

#include "tests/support/Machine.h"

namespace {

TEST(InstructionsJumps, EachJumpsOnItsCondition) {
  const struct {
    const char* name;
    bool below, zero, above;
  } cases[] = {
      {"jmp_eq", false, true, false}, {"jmp_ne", true, false, true}, {"jmp_lt", true, false, false},
      {"jmp_gt", false, false, true}, {"jmp_le", true, true, false}, {"jmp_ge", false, true, true},
  };
  for (const auto& c : cases) {
    const struct {
      const char* value;
      bool jumps;
    } values[] = {
        {"pushi -1", c.below},          {"pushi 0", c.zero},       {"pushi 1", c.above},
        {"pushi -2147483648", c.below}, {"pushf 0.9", c.zero},     {"pushf -1.9", c.below},
        {"pushc \"abc\"", c.zero},      {"pushc \"12\"", c.above}, {"pushg nothing", c.zero},
    };
    for (const auto& value : values) {
      ExpectStack(
          {(std::string(value.value) + "\n" + c.name + " over\npushc \"falls\"\nover: pushc \"on\"")
               .c_str(),
           value.jumps ? "\"on\"" : "\"falls\" \"on\""});
    }
  }
}

TEST(InstructionsJumps, PlainJumpTakesNothing) {
  ExpectStacks({
      {"pushi 0\njmp over\npushc \"falls\"\nover: pushc \"on\"", "0 \"on\""},
      {"jmp 0\npushi 1", "1"},
      {"jmp there\nback: pushi 1\njmp done\nthere: pushi 2\njmp back\ndone: pushi 3", "2 1 3"},
  });
}

TEST(InstructionsJumps, LoopsRunAsOftenAsTheyCount) {
  Machine machine;
  machine.Assemble(
      "pushi 10\npopg n\n"
      "again: pushg n\nout\npushg n\npushi 1\nsub\npopg n\npushg n\njmp_gt again");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Output(), "10987654321");
  EXPECT_EQ(machine.stack().Entries(), 0);
}

// The instruction ends at offset 14 of a segment of 22 bytes.
TEST(InstructionsJumps, OutOfTheSegmentIsItsEnd) {
  for (int distance : {7, 8, 1000000, 2147483647, -15, -1000000, -2147483647 - 1}) {
    SCOPED_TRACE(distance);
    Machine machine;
    machine.Text("a").Op(Instruction::out).Op(Instruction::jmp, distance);
    machine.Text("b").Op(Instruction::out);
    EXPECT_EQ(machine.Go(), 1);
    EXPECT_EQ(machine.Output(), "a");
  }
}

TEST(InstructionsJumps, MissingOperandIsAnUnderflow) {
  for (const char* name : {"jmp_eq", "jmp_ne", "jmp_lt", "jmp_gt", "jmp_le", "jmp_ge"}) {
    ExpectFailure({(std::string(name) + " 0").c_str(), "Stack underflow"});
  }
}

}  // namespace
