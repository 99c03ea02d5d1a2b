// References: refer, and binding names and positions to a variable.

#include <gtest/gtest.h>

#include "tests/support/Machine.h"

namespace {

TEST(InstructionsReferences, TopRefersToTheOneBelow) {
  ExpectStacks({
      {"pushi 1\npopg v\npushi 2\npopg w\npushg v\npushg w\nrefer\npushg w", "(1)"},
      {"pushg v\npushg w\nrefer\npushi 5\npopg w\npushg v", "(5)"},
      {"pushg v\npushg w\nrefer\npushi 5\npopg v\npushg w", "(5)"},
      // The two have the same elements.
      {"pushg v\npushg w\nrefer\npushi 5\npushg w\npushi 2\nelem\nstore\npushg v\npushi 2\nelem",
       "(5)"},
      // A reference to an element, which outlives its array.
      {"pushi 1\npushg a\npushi 1\nelem\nstore\npushg a\npushi 1\nelem\npushg w\nrefer\n"
       "pushi 9\npopg a\npushg w",
       "(1)"},
      // An element that refers.
      {"pushi 1\npopg v\npushg v\npushg a\npushi 1\nelem\nrefer\npushi 2\npopg v\npushg a", "(2)"},
      // Chains, and a change of target.
      {"pushg u\npushg v\nrefer\npushg v\npushg w\nrefer\npushi 3\npopg w\npushg u", "(3)"},
      {"pushi 1\npopg u\npushi 2\npopg v\npushg u\npushg w\nrefer\npushg v\npushg w\nrefer\n"
       "pushg w\npushg u",
       "(2) (1)"},
  });
}

TEST(InstructionsReferences, AnEntryOfTheStackFollowsItsVariable) {
  ExpectStacks({
      {"pushi 1\npopg v\npushi 2\npopg w\npushg w\npushg v\npushg w\nrefer", "(1)"},
      {"pushi 2\npopg w\npushg w\npushg v\npushg w\nrefer\ndup\npushi 5\nswap\nstore\n"
       "pushg v",
       "(5) (5)"},
      {"pushi 1\npopg v\npushg a\npushi 1\nelem\npushg v\npushg a\npushi 1\nelem\nrefer\n"
       "pushi 0\npopg a\npushi 6\npopg v",
       "(6)"},
  });
}

TEST(InstructionsReferences, NoReferenceEndsAtItself) {
  ExpectStacks({
      {"pushi 1\npopg v\npushg v\npushg v\nrefer\npushg v", "(1)"},
      {"pushi 1\npopg v\npushg v\npushg w\nrefer\npushg w\npushg v\nrefer\npushg v\npushg w",
       "(1) (1)"},
      {"pushi 1\npopg u\npushg u\npushg v\nrefer\npushg v\npushg w\nrefer\npushg w\npushg "
       "u\nrefer\n"
       "pushi 2\npopg u\npushg u\npushg v\npushg w",
       "(2) (2) (2)"},
  });
}

// x[1] refers to x: a circle, which walks must not follow without end.
TEST(InstructionsReferences, AnElementMayReferToItsArray) {
  Machine machine;
  machine.Assemble(
      "pushi 1\npushg x\npushi 2\nelem\nstore\npushg x\npushg x\npushi 1\nelem\nrefer\n"
      "pushg x\nout\npushg x\npopg y\npushg x\npushi 1\nelem\npushi 2\nelem\nout\n"
      "pushi 0\npopg x");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_NE(machine.Output().find("1"), std::string::npos);
  EXPECT_EQ(machine.Value("x"), "0");
}

TEST(InstructionsReferences, NullAndReadOnlyVariables) {
  ExpectStacks({
      // A variable may refer to the null variable, and then ignores writes.
      {"pushs unknown\npushg w\nrefer\npushi 1\npopg w\npushg w\nisnull", "1"},
      // The null variable itself never refers.
      {"pushi 1\npopg v\npushg v\npushs unknown\nrefer\npushs unknown\npushs other",
       "(null) (null)"},
  });
}

TEST(InstructionsReferences, OperandsAreVariables) {
  ExpectFailures({
      {"pushi 1\npushg w\nrefer", "Expected variable, found constant"},
      {"pushg v\npushi 1\nrefer", "Expected variable, found constant"},
      {"pushg v\nrefer", "Stack underflow"},
      {"refer", "Stack underflow"},
      {"pushi 1\npushc \"w\"\npoprn", "Expected variable, found constant"},
      {"pushc \"w\"\npoprn", "Stack underflow"},
      {"poprn", "Stack underflow"},
      {"pushi 1\npoprnc w", "Expected variable, found constant"},
      {"poprnc w", "Stack underflow"},
      {"pushg v\npoprnc 77", "Invalid dictionary reference"},
      {"pushi 1\npoprg w", "Expected variable, found constant"},
      {"poprg w", "Stack underflow"},
      {"pushi 1\npoprl w", "Expected variable, found constant"},
      {"poprl w", "Stack underflow"},
      {"pushg v\npushc \"w[a]\"\npoprn", "Array index must be positive integer"},
      {"pushg v\npoprnc \"w[a]\"", "Array index must be positive integer"},
  });
}

TEST(InstructionsReferences, NamesBecomeReferences) {
  ExpectStacks({
      {"pushi 1\npopg v\npushg v\npushc \"w\"\npoprn\npushi 2\npopnc w\npushg v", "(2)"},
      {"pushi 1\npopg v\npushg v\npoprnc w\npushi 2\npopnc w\npushg v", "(2)"},
      {"pushi 1\npopg v\npushg v\npoprnc \"g.w\"\npushi 2\npopg w\npushg v", "(2)"},
      {"pushi 1\npopg v\npushg v\npoprnc \"w[3]:m\"\npushi 2\npopg v\npushg w", "(2)"},
      {"pushi 1\npopg v\npushg v\npushc \"w\"\npushi 1\ncat\npoprn\npushnc w1", "(1)"},
      // If there is no variable of that name, the operand is dropped and nothing else happens.
      {"pushi 1\npopg v\npushi 5\npushg v\npushc \"s.nothing\"\npoprn", "5"},
      {"pushi 1\npopg v\npushi 5\npushg v\npoprnc \"s.nothing\"", "5"},
  });
}

TEST(InstructionsReferences, PositionsAreBoundAgain) {
  ExpectStacks({
      {"pushi 1\npopg v\npushg v\npoprg w\npushi 2\npopg w\npushg v", "(2)"},
      {"pushi 1\npopg v\npushg v\npoprl w\npushi 2\npopl w\npushg v", "(2)"},
      // The previous variable stays valid for its other holders.
      {"pushi 1\npopg v\npushi 2\npopg w\npushg w\npushg v\npoprg w\npushg w", "(2) (1)"},
      // An element; the position's own variable; an invalid position.
      {"pushi 7\npushg a\npushi 1\nelem\nstore\npushg a\npushi 1\nelem\npoprg w\npushi 8\npopg w\n"
       "pushg a",
       "(8)"},
      {"pushi 1\npopg v\npushg v\npoprg v\npushg v", "(1)"},
      {"pushi 1\npopg v\npushg v\npoprg 1000\npushg v\npoprl -1\npushg v", "(1)"},
  });
}

TEST(InstructionsReferences, BoundPositionHoldsAReference) {
  Machine machine;
  machine.Assemble("pushi 1\npopg v\npushg v\npoprg w\n");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.GlobalVariable("w")->type(), VariableReference);
  EXPECT_EQ(machine.GlobalVariable("w")->RealIdentity(), machine.GlobalVariable("v"));
  EXPECT_EQ(machine.GlobalVariable("v")->refcount(), 2);
  EXPECT_EQ(machine.GlobalVariable("v")->type(), VariableStored);
}

TEST(InstructionsReferences, ReferencesComeOutEven) {
  Machine machine;
  machine.Assemble("pushg v\npushg w\nrefer\npushg v\npoprnc u");
  EXPECT_EQ(machine.Go(), 1);
  Variable* v = machine.GlobalVariable("v");
  EXPECT_EQ(v->refcount(), 3);
  v->IncRefCount();
  machine.Close();
  machine.global.Dump();
  EXPECT_EQ(v->refcount(), 1);
  v->DecRefCount();
}

}  // namespace
