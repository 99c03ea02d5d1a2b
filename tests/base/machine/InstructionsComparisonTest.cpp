// Comparison and logic.

#include <gtest/gtest.h>

#include "tests/support/Machine.h"

namespace {

TEST(InstructionsComparison, CmpGivesTheSignOfADifferenceOfNumbers) {
  ExpectStacks({
      {"pushi 1\npushi 2\ncmp", "-1"},
      {"pushi 2\npushi 2\ncmp", "0"},
      {"pushi 300\npushi 2\ncmp", "1"},
      {"pushc \"10\"\npushi 9\ncmp", "1"},
      {"pushc \"1e1\"\npushi 10\ncmp", "0"},
      {"pushc \"\"\npushi 0\ncmp", "0"},
      {"pushf nan\npushf nan\ncmp", "1"},
      {"pushi 0\npushf nan\ncmp", "1"},
  });
}

TEST(InstructionsComparison, CmpGivesTheDifferenceOfTheFirstBytesThatDiffer) {
  ExpectStacks({
      {"pushc \"abc\"\npushc \"abd\"\ncmp", "-1"},
      {"pushc \"a\"\npushc \"d\"\ncmp", "-3"},
      {"pushc \"xz\"\npushc \"xa\"\ncmp", "25"},
      {"pushc \"abc\"\npushc \"ab\"\ncmp", "1"},
      {"pushc \"ab\"\npushc \"abc\"\ncmp", "-1"},
      {"pushc \"abc\"\npushc \"ABC\"\ncmp", "32"},
      {"pushc \"\\xff\"\npushc \"a\"\ncmp", "158"},
      // If one side is not a number, both are compared as texts.
      {"pushc \"abc\"\npushi 5\ncmp", "44"},
      {"pushi 5\npushc \"abc\"\ncmp", "-44"},
      {"pushf 0.5\npushc \"0.5x\"\ncmp", "-1"},
  });
}

TEST(InstructionsComparison, AnswersOfAllComparisons) {
  const struct {
    const char* operands;
    int eq, ne, ge, le, lt, gt;
  } cases[] = {
      {"pushi 1\npushi 2\n", 0, 1, 0, 1, 1, 0},
      {"pushi 2\npushi 2\n", 1, 0, 1, 1, 0, 0},
      {"pushi 3\npushi 2\n", 0, 1, 1, 0, 0, 1},
      {"pushf 0.5\npushi 1\n", 0, 1, 0, 1, 1, 0},
      {"pushc \"2\"\npushi 2\n", 1, 0, 1, 1, 0, 0},
      {"pushc \"abc\"\npushc \"abd\"\n", 0, 1, 0, 1, 1, 0},
      {"pushc \"b\"\npushc \"B\"\n", 0, 1, 1, 0, 0, 1},
      {"pushf nan\npushf nan\n", 0, 1, 1, 0, 0, 1},
      // A variable without a value is the number 0, and so is an empty text.
      {"pushg x\npushi 0\n", 1, 0, 1, 1, 0, 0},
      {"pushg x\npushc \"\"\n", 1, 0, 1, 1, 0, 0},
      {"pushs unknown\npushi 0\n", 1, 0, 1, 1, 0, 0},
      // A chained text.
      {"pushi 1\npushi 2\ncat\npushi 12\n", 1, 0, 1, 1, 0, 0},
      {"pushi 12\npushi 1\npushi 2\ncat\n", 1, 0, 1, 1, 0, 0},
      // Arrays are compared as texts.
      {"pushi 5\npushg x\npushi 1\nelem\nstore\npushg x\npushc \"5\"\n", 1, 0, 1, 1, 0, 0},
  };
  for (const auto& c : cases) {
    const struct {
      const char* name;
      int expected;
    } instructions[] = {{"eq", c.eq}, {"ne", c.ne}, {"ge", c.ge},
                        {"le", c.le}, {"lt", c.lt}, {"gt", c.gt}};
    for (const auto& instruction : instructions) {
      ExpectStack({(c.operands + std::string(instruction.name)).c_str(),
                   std::to_string(instruction.expected).c_str()});
    }
  }
}

// --- Logic ---------------------------------------------------------------------------------------

// Program text that pushes one value, and whether it is true.
const struct {
  const char* push;
  int truth;
} values[] = {
    {"pushi 0\n", 0},
    {"pushi -3\n", 1},
    {"pushf 0\n", 0},
    {"pushf -0.0\n", 0},
    {"pushf 0.001\n", 1},
    {"pushf nan\n", 1},
    {"pushc \"\"\n", 0},
    {"pushc \"00.00\"\n", 0},
    {"pushc \".\"\n", 0},
    {"pushc \"0.0.0\"\n", 1},
    {"pushc \"0 \"\n", 1},
    {"pushc \"false\"\n", 1},
    {"pushi 0\npushi 0\ncat\n", 0},
    {"pushi 0\npushi 1\ncat\n", 1},
    {"pushg nothing\n", 0},
    {"pushs unknown\n", 0},
    {"pushc \"yes\"\npopg x\npushg x\n", 1},
};

TEST(InstructionsComparison, TruthOfEveryKind) {
  for (const auto& value : values) {
    ExpectStack({(std::string(value.push) + "not").c_str(), value.truth ? "0" : "1"});
  }
}

TEST(InstructionsComparison, AndAndOrOfAllPairs) {
  for (const auto& left : values) {
    for (const auto& right : values) {
      std::string operands = std::string(left.push) + right.push;
      ExpectStack({(operands + "and").c_str(), left.truth && right.truth ? "1" : "0"});
      ExpectStack({(operands + "or").c_str(), left.truth || right.truth ? "1" : "0"});
    }
  }
}

// Both operands are popped and released, even if one of them decides the result.
TEST(InstructionsComparison, AndAndOrConsumeBothOperands) {
  for (const char* name : {"and", "or"}) {
    for (int truth : {0, 1}) {
      SCOPED_TRACE(testing::Message() << name << " " << truth);
      Machine machine;
      Variable* left = new Variable("left", 4, truth);
      Variable* right = new Variable("right", 5, truth);
      machine.global.Insert(left);
      machine.global.Insert(right);
      machine.Op(Instruction::pushi, 99).Op(Instruction::pushg, 0).Op(Instruction::pushg, 1);
      machine.Op(Instruction::Find(name, -1)->word);
      EXPECT_EQ(machine.Go(), 1);
      EXPECT_EQ(left->refcount(), 1);
      EXPECT_EQ(right->refcount(), 1);
      EXPECT_EQ(machine.StackText(), "99 " + std::to_string(truth));
    }
  }
}

TEST(InstructionsComparison, NullIsNoValueOrEmptyText) {
  ExpectStacks({
      {"pushi 0\nisnull", "0"},
      {"pushf 0\nisnull", "0"},
      {"pushc \"\"\nisnull", "1"},
      {"pushc \"0\"\nisnull", "0"},
      {"pushc \"\"\npushc \"\"\ncat\nisnull", "1"},
      {"pushc \"\"\npushi 1\ncat\npushc \"\"\ncat\nisnull", "0"},
      {"pushg x\nisnull", "1"},
      {"pushs unknown\nisnull", "1"},
      {"pushi 0\npopg x\npushg x\nisnull", "0"},
      {"pushc \"\"\npopg x\npushg x\nisnull", "1"},
      // An array is never null, whatever it contains.
      {"pushg x\npushi 1\nelem\npop\npushg x\nisnull", "0"},
      {"pushg x\npushi 1\nelem\nisnull", "1"},
  });
}

TEST(InstructionsComparison, MissingOperandsAreUnderflows) {
  for (const char* name : {"cmp", "eq", "ne", "ge", "le", "lt", "gt", "and", "or"}) {
    ExpectFailure({name, "Stack underflow"});
    ExpectFailure({(std::string("pushi 1\n") + name).c_str(), "Stack underflow"});
  }
  ExpectFailure({"not", "Stack underflow"});
  ExpectFailure({"isnull", "Stack underflow"});
}

}  // namespace
