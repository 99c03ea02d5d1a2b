// Elements of arrays and members of structures.

#include <gtest/gtest.h>

#include "base/values/Aggregate.h"
#include "tests/support/Machine.h"

namespace {

TEST(InstructionsElements, MissingOnesAreMade) {
  Machine machine;
  machine.Assemble("pushg a\npushi 3\nelem\npushg s\npushc \"Name\"\nmemb");
  EXPECT_EQ(machine.Go(), 1);
  Variable* array = machine.GlobalVariable("a");
  EXPECT_EQ(array->aggregatetype(), AggregateArray);
  EXPECT_EQ(array->Max(), 3);
  EXPECT_EQ(array->ElementsUsed(), 1);
  Variable* structure = machine.GlobalVariable("s");
  EXPECT_EQ(structure->aggregatetype(), AggregateStructure);
  EXPECT_EQ(structure->ElementsUsed(), 1);
  EXPECT_EQ(machine.StackText(), "() ()");
}

TEST(InstructionsElements, ReadOnlyFormsMakeNothing) {
  Machine machine;
  machine.Assemble(
      "pushg a\npushi 3\nelem_readonly\npushg s\npushc \"m\"\nmemb_readonly\n"
      "pushi 7\npopg v\npushg v\npushi 1\nelem_readonly\npushg v\npushc \"m\"\nmemb_readonly");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.StackText(), "(null) (null) (null) (null)");
  EXPECT_EQ(machine.GlobalVariable("a")->aggregatetype(), AggregateNone);
  EXPECT_EQ(machine.GlobalVariable("s")->aggregatetype(), AggregateNone);
  EXPECT_EQ(machine.Value("v"), "7");
}

TEST(InstructionsElements, ValuesAreFound) {
  const std::string filled =
      "pushc \"one\"\npushg a\npushi 1\nelem\nstore\npushc \"five\"\npushg a\npushi "
      "5\nelem\nstore\n"
      "pushc \"red\"\npushg s\npushc \"Colour\"\nmemb\nstore\n"
      "pushc \"deep\"\npushg s\npushc \"list\"\nmemb\npushi 2\nelem\npushc \"x\"\nmemb\nstore\n";
  const StackCase cases[] = {
      {"pushg a\npushi 1\nelem", "(one)"},
      {"pushg a\npushi 5\nelem_readonly", "(five)"},
      {"pushg a\npushi 2\nelem_readonly", "(null)"},
      {"pushg a\npushc \"5\"\nelem", "(five)"},
      {"pushg a\npushf 5.9\nelem", "(five)"},
      {"pushg a\npushg n\npushi 5\nswap\nstore\npushg n\nelem", "(five)"},
      {"pushg s\npushc \"Colour\"\nmemb", "(red)"},
      {"pushg s\npushc \"COLOUR\"\nmemb_readonly", "(red)"},
      {"pushg s\npushc \"Col\"\npushc \"our\"\ncat\nmemb", "(red)"},
      {"pushg s\npushc \"color\"\nmemb_readonly", "(null)"},
      {"pushg s\npushc \"list\"\nmemb\npushi 2\nelem\npushc \"x\"\nmemb", "(deep)"},
      {"pushg s\npushc \"list\"\nmemb_readonly\npushi 2\nelem_readonly\npushc \"x\"\n"
       "memb_readonly",
       "(deep)"},
      {"pushg s\npushc \"none\"\nmemb_readonly\npushi 2\nelem_readonly\npushc \"x\"\n"
       "memb_readonly",
       "(null)"},
      {"pushg a", "(one,five)"},
      {"pushg s", "(red,deep)"},
  };
  for (const StackCase& c : cases) ExpectStack({(filled + c.code).c_str(), c.stack});
}

TEST(InstructionsElements, MemberNamesAreNotChecked) {
  ExpectStacks({
      {"pushi 7\npushg s\npushc \"\"\nmemb\nstore\npushg s\npushc \"\"\nmemb", "(7)"},
      {"pushi 7\npushg s\npushc \"a b[1]:c\"\nmemb\nstore\npushg s\npushc \"A B[1]:C\"\nmemb",
       "(7)"},
      {"pushi 7\npushg s\npushi 1\nmemb\nstore\npushg s\npushc \"1\"\nmemb", "(7)"},
  });
}

// A variable is an array, a structure or neither, depending on the last write.
TEST(InstructionsElements, WritingTheOtherKindDropsWhatWasThere) {
  ExpectStacks({
      {"pushi 7\npopg v\npushg v\npushi 1\nelem\npushg v\nisnull\npushg v", "() 0 ()"},
      {"pushi 7\npushg v\npushc \"m\"\nmemb\nstore\npushi 8\npushg v\npushi 1\nelem\nstore\n"
       "pushg v\npushg v\npushc \"m\"\nmemb_readonly",
       "(8) (null)"},
      {"pushi 7\npushg v\npushi 1\nelem\nstore\npushi 8\npushg v\npushc \"m\"\nmemb\nstore\n"
       "pushg v\npushi 1\nelem_readonly\npushg v",
       "(null) (8)"},
      // Reading an element of the wrong kind drops nothing.
      {"pushi 7\npushg v\npushi 1\nelem\nstore\npushg v\npushc \"m\"\nmemb_readonly\npushg v",
       "(null) (7)"},
  });
}

TEST(InstructionsElements, IndexesBelowOneAreErrorsOfTheExpression) {
  for (const char* name : {"elem", "elem_readonly"}) {
    for (const char* index : {"pushi 0", "pushi -1", "pushf 0.9", "pushc \"abc\"", "pushc \"\"",
                              "pushf nan", "pushg nothing", "pushi -2147483648"}) {
      SCOPED_TRACE(testing::Message() << name << " " << index);
      Machine machine;
      machine.Assemble(std::string("lineno 3\npushi 1\npushg a\n") + index + "\n" + name +
                       "\npushi 2");
      EXPECT_EQ(machine.Go(), 0);
      EXPECT_EQ(machine.Failure(), "Line 3: (in expression): Array index must be positive integer");
      EXPECT_EQ(machine.Value("ZpEXPRESSION_Error"), "Array index must be positive integer");
      EXPECT_EQ(machine.stack().Entries(), 2);
      EXPECT_EQ(machine.GlobalVariable("a")->aggregatetype(), AggregateNone);
    }
  }
}

TEST(InstructionsElements, ScriptMayGoOnAfterABadIndexWithTheVariableLeft) {
  Machine machine;
  machine.Assemble(
      "tagerror 62, 0\npushi 7\npopg a\npushg a\npushi 0\nelem\npushc \"on\"\n"
      "pushnc \"ZpEXPRESSION_Error\"");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Output(), "");
  EXPECT_EQ(machine.StackText(), "(7) \"on\" (Array index must be positive integer)");
}

TEST(InstructionsElements, ConstantsHaveNone) {
  ExpectFailures({
      {"pushi 5\npushi 1\nelem", "Expected variable, found constant"},
      {"pushi 5\npushi 1\nelem_readonly", "Expected variable, found constant"},
      {"pushc \"a\"\npushc \"m\"\nmemb", "Expected variable, found constant"},
      {"pushi 1\npushi 2\ncat\npushc \"m\"\nmemb_readonly", "Expected variable, found constant"},
      {"elem", "Stack underflow"},
      {"pushi 1\nelem", "Stack underflow"},
      {"pushi 1\nelem_readonly", "Stack underflow"},
      {"memb", "Stack underflow"},
      {"pushc \"m\"\nmemb", "Stack underflow"},
      {"pushc \"m\"\nmemb_readonly", "Stack underflow"},
  });
}

// The entry on the stack keeps the element, whatever happens to the array.
TEST(InstructionsElements, ElementsOutliveTheirArray) {
  for (const char* name : {"elem", "elem_readonly"}) {
    ExpectStack({(std::string("pushc \"kept\"\npushg a\npushi 1\nelem\nstore\npushg a\npushi 1\n") +
                  name + "\npushi 0\npopg a\npushg a")
                     .c_str(),
                 "(kept) (0)"});
  }
  ExpectStacks({
      {"pushc \"kept\"\npushg s\npushc \"m\"\nmemb\nstore\npushg s\npushc \"m\"\nmemb\n"
       "pushg s\npushi 1\nelem\npop\npushg s",
       "(kept) ()"},
  });
}

TEST(InstructionsElements, CountsComeOutEven) {
  Machine machine;
  machine.Assemble(
      "pushg a\npushi 1\nelem\npop\npushg a\npushi 1\nelem_readonly\npop\n"
      "pushg a\npushi 2\nelem_readonly\npop\npushg s\npushc \"m\"\nmemb\npop\n"
      "pushg s\npushc \"m\"\nmemb_readonly\npop");
  EXPECT_EQ(machine.Go(), 1);
  Variable* array = machine.GlobalVariable("a");
  EXPECT_EQ(array->refcount(), 1);
  EXPECT_EQ(array->Element(AggregateIndex(1), 0)->refcount(), 1);
  Variable* structure = machine.GlobalVariable("s");
  EXPECT_EQ(structure->refcount(), 1);
  EXPECT_EQ(structure->Element(AggregateIndex("m", 1), 0)->refcount(), 1);
}

TEST(InstructionsElements, OfAReadOnlyValueAreNotMade) {
  Machine machine;
  machine.Assemble(
      "pushc \"lost\"\npushs fixed\npushi 1\nelem\nstore\npushs fixed\n"
      "pushs fixed\npushi 1\nelem_readonly\npushs unknown\npushi 1\nelem\n"
      "pushs unknown\npushc \"m\"\nmemb_readonly");
  machine.system.SetVariable(new ImmutableVariable("fixed", 5, "value", 5));
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.StackText(), "(value) (null) (null) (null)");
}

TEST(InstructionsElements, ArraysAreSparseAndGrowFar) {
  Machine machine;
  machine.Assemble(
      "pushi 1\npushg a\npushi 2147483647\nelem\nstore\npushi 2\npushg a\npushi 1\nelem\nstore\n"
      "pushg a");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.StackText(), "(2,1)");
  EXPECT_EQ(machine.GlobalVariable("a")->ElementsUsed(), 2);
}

}  // namespace
