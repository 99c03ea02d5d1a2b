// Constants, the stack's own instructions, and variables by position and by name.

#include <gtest/gtest.h>

#include <functional>

#include "tests/support/Machine.h"

namespace {

using namespace Instruction;

TEST(InstructionsVariableAccess, ConstantTextIsNotCopied) {
  Machine machine;
  machine.Text("abc");
  EXPECT_EQ(machine.Go(), 1);
  const ZephVM_Stack::Stack_Entry* top = machine.stack().Peek();
  EXPECT_EQ(top->kind, ZephVM_Stack::KindString);
  EXPECT_FALSE(top->deletable);
  EXPECT_EQ(top->length, 3);
  EXPECT_EQ(top->size, 3);
  int length;
  EXPECT_EQ(top->value.text, machine.dictionary.Entry(machine.Id("abc"), &length));
}

TEST(InstructionsVariableAccess, ConstantNumbersKeepAllTheirBits) {
  ExpectStacks({
      {"pushi 2147483647\npushi -2147483648\npushi 0", "2147483647 -2147483648 0"},
      {"pushf 0.1\npushf -2.5\npushf -inf", "d0.1 d-2.5 d-Infinity"},
  });
}

TEST(InstructionsVariableAccess, SmallestAndLargestDoublesArrive) {
  for (double value : {5e-324, 1.7976931348623157e308, -2.2250738585072014e-308, 1.0 / 3}) {
    Machine machine;
    machine.OpDouble(pushf, value);
    EXPECT_EQ(machine.Go(), 1);
    EXPECT_EQ(machine.stack().PopD(), value);
  }
}

TEST(InstructionsVariableAccess, StackInstructions) {
  ExpectStacks({
      {"pushi 1\npushi 2\npop", "1"},
      {"pushi 1\npushi 2\ndup", "1 2 2"},
      {"pushi 1\npushi 2\nswap", "2 1"},
      {"pushi 1\npushi 2\npushi 3\nswapn 0, 2", "3 2 1"},
      {"pushi 1\npushi 2\npushi 3\nswapn 2, 0", "3 2 1"},
      {"pushi 1\npushi 2\npushi 3\nswapn 1, 2", "2 1 3"},
      {"pushi 1\npushi 2\npushi 3\nswapn 1, 1", "1 2 3"},
      {"noop\npushi 1\nnoop", "1"},
  });
  ExpectFailures({
      {"pop", "Stack underflow"},
      {"dup", "Stack underflow"},
      {"swap", "Invalid stack reference"},
      {"pushi 1\nswap", "Invalid stack reference"},
      {"pushi 1\npushi 2\nswapn 0, 2", "Invalid stack reference"},
      {"pushi 1\npushi 2\nswapn 2, 0", "Invalid stack reference"},
      {"pushi 1\npushi 2\nswapn -1, 0", "Invalid stack reference"},
      {"pushi 1\npushi 2\nswapn 0, -1", "Invalid stack reference"},
      {"pushi 1\npushi 2\nswapn 2147483647, -2147483648", "Invalid stack reference"},
  });
}

TEST(InstructionsVariableAccess, SwappedTextsStayWhole) {
  Machine machine;
  machine.Assemble(
      "pushc \"a\"\npushi 1\ncat\npushc \"b\"\npushi 2\ncat\nswap\nout\ndup\nout\nout");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Output(), "a1b2b2");
}

// --- By position ---------------------------------------------------------------------------------

TEST(InstructionsVariableAccess, PushedVariableIsOwnedByItsEntry) {
  Machine machine;
  auto* known = new Variable("known", 5, 7);
  machine.system.Insert(known);
  int x = machine.Global("x");
  machine.Op(pushg, x).Op(pushl, x).Op(pushs, 0);
  EXPECT_EQ(machine.Go(), 1);
  for (int i = 0; i < 3; i++) {
    EXPECT_TRUE(machine.stack().Peek()->deletable);
    EXPECT_EQ(machine.stack().Peek()->kind, ZephVM_Stack::KindVariable);
    if (i == 0) {
      EXPECT_EQ(known->refcount(), 2);
    }
    machine.stack().Pop();
  }
  EXPECT_EQ(known->refcount(), 1);
  EXPECT_EQ(machine.GlobalVariable("x")->refcount(), 1);
}

TEST(InstructionsVariableAccess, ValuesOfEveryKindAreAssigned) {
  Machine machine;
  machine.Assemble(
      "pushi 5\npopg i\npushf 0.5\npopg d\npushc \"t\"\npopg t\npushi 1\npushi 2\ncat\npopg b\n"
      "pushg d\npopg copy\npushf 7\npopg d\npushi 1\npopl local");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.GlobalVariable("i")->primary_type(), PrimaryInteger);
  EXPECT_EQ(machine.GlobalVariable("d")->primary_type(), PrimaryDouble);
  EXPECT_EQ(machine.GlobalVariable("t")->primary_type(), PrimaryText);
  EXPECT_EQ(machine.GlobalVariable("b")->primary_type(), PrimaryText);
  EXPECT_EQ(machine.Value("b"), "12");
  EXPECT_EQ(machine.Value("copy"), "0.5");
  // Outside of functions the locals are the globals.
  EXPECT_EQ(machine.Value("local"), "1");
}

TEST(InstructionsVariableAccess, AssigningAnArrayCopiesIt) {
  Machine machine;
  machine.Assemble(
      "pushi 1\npushg a\npushi 1\nelem\nstore\n"
      "pushg a\npopg b\n"
      "pushi 2\npushg a\npushi 1\nelem\nstore\n");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Value("a"), "2");
  EXPECT_EQ(machine.Value("b"), "1");
  EXPECT_EQ(machine.GlobalVariable("b")->aggregatetype(), AggregateArray);
}

TEST(InstructionsVariableAccess, SystemVariablesAreNotMade) {
  Machine machine;
  machine.Assemble(
      "pushi 1\npushi 2\npops known\npushi 3\npops unknown\npushs known\npushs unknown");
  machine.system.SetVariable(new Variable("known", 5));
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.StackText(), "1 (2) (null)");
  EXPECT_EQ(machine.SystemVariable("unknown"), nullptr);
}

TEST(InstructionsVariableAccess, ReadOnlySystemVariablesKeepTheirValue) {
  Machine machine;
  machine.Assemble("pushc \"new\"\npops known\npushs known");
  machine.system.SetVariable(new ImmutableVariable("known", 5, "fixed", 5));
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.StackText(), "(fixed)");
}

// --- By name -------------------------------------------------------------------------------------

TEST(InstructionsVariableAccess, NamesResolveByScope) {
  ExpectStacks({
      {"pushi 5\npopg x\npushnc \"x\"", "(5)"},
      {"pushi 5\npopg x\npushnc \"X\"", "(5)"},
      {"pushi 5\npopg x\npushnc \"g.x\"", "(5)"},
      {"pushi 5\npopg x\npushnc \"Global.x\"", "(5)"},
      {"pushi 5\npopg x\npushnc \"l.x\"", "(5)"},
      {"pushi 5\npopg x\npushnc \"local.x\"", "(5)"},
      {"pushi 5\npopg x\npushnc \"s.x\"", "(null)"},
      {"pushi 5\npopg x\npushnc \"d.x\"", "(null)"},
      {"pushi 5\npopg x\npushnc \"db.d.x\"", "(null)"},
      // A name without a variable is a new global.
      {"pushnc fresh", "()"},
      {"pushc \"fr\"\npushc \"esh\"\ncat\npushn", "()"},
      {"pushi 5\npopg x\npushc \"x\"\npushn", "(5)"},
      {"pushi 5\npopg x\npushc \"x\"\npopg name\npushg name\npushn", "(5)"},
      // Paths lead to elements, which are created if they are missing.
      {"pushi 5\npushg x\npushi 2\nelem\nstore\npushnc \"x[2]\"", "(5)"},
      {"pushi 5\npushg x\npushc \"m\"\nmemb\nstore\npushnc \"x:M\"", "(5)"},
      {"pushnc \"x:a[3]:b\"\npushi 7\nswap\nstore\npushg x\npushc \"a\"\nmemb", "(7)"},
  });
}

TEST(InstructionsVariableAccess, ANameThatNothingHasBecomesAGlobal) {
  Machine machine;
  machine.Assemble(
      "pushi 5\npushc \"fresh\"\npopn\npushi 6\npopnc other\npushi 7\npopnc \"a[2]:b\"");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.StackText(), "");
  EXPECT_EQ(machine.Value("fresh"), "5");
  EXPECT_EQ(machine.Value("other"), "6");
  EXPECT_EQ(machine.GlobalVariable("a")->Max(), 2);
  EXPECT_EQ(machine.Value("a"), "7");
}

TEST(InstructionsVariableAccess, SystemVariablesComeBeforeGlobals) {
  Machine machine;
  machine.Assemble("pushi 1\npopg both\npushnc both\npushnc \"g.both\"\npushi 9\npopnc both");
  machine.system.SetVariable(new Variable("both", 4, "system", 6));
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(Machine::Text(*machine.SystemVariable("both")), "9");
  EXPECT_EQ(machine.Value("both"), "1");
  EXPECT_EQ(machine.StackText(), "(9) (1)");
}

// A name of the system table without a variable is skipped.
TEST(InstructionsVariableAccess, ReservedSystemNamesHideNothing) {
  Machine machine;
  machine.Assemble("pushs reserved\npop\npushi 1\npopnc reserved\npushnc reserved");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Value("reserved"), "1");
  EXPECT_EQ(machine.StackText(), "(1)");
}

TEST(InstructionsVariableAccess, AssignmentToNothingLeavesTheValue) {
  ExpectStacks({
      {"pushi 5\npopnc \"s.nothing\"", "5"},
      {"pushi 5\npushc \"s.nothing\"\npopn", "5"},
      {"pushi 5\npopnc \"d.nothing\"", "5"},
      {"pushi 5\npopnc \"db.d.nothing\"", "5"},
  });
}

TEST(InstructionsVariableAccess, FailedLookupsAreFatalAndPushNothing) {
  ExpectFailures({
      {"pushnc \"x[a]\"", "Array index must be positive integer"},
      {"pushnc \"x[1\"", "Array index must be positive integer"},
      {"pushc \"x[1]y\"\npushn", "Array index must be positive integer"},
      {"pushi 1\npopnc \"x[-1]\"", "Array index must be positive integer"},
      {"pushi 1\npushc \"x[1.5]\"\npopn", "Array index must be positive integer"},
      {"pushn", "Stack underflow"},
      {"popn", "Stack underflow"},
      {"pushc \"x\"\npopn", "Stack underflow"},
      {"popnc x", "Stack underflow"},
      {"pushnc 77", "Invalid dictionary reference"},
      {"pushi 1\npopnc 77", "Invalid dictionary reference"},
      {"pushnc -1", "Invalid dictionary reference"},
  });
  Machine machine;
  machine.Assemble("pushi 1\npushc \"x[a]\"\npushn");
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.StackText(), "1");
}

// --- Database fields -----------------------------------------------------------------------------

TEST(InstructionsVariableAccess, FieldsOfNoDatabaseReadAsNullAndDropWrites) {
  ExpectStacks({
      {"pushi 1\npushc \"db\"\npushc \"name\"\npushd", "1 (null)"},
      {"pushi 1\npushdc \"db\", \"name\"", "1 (null)"},
      {"pushi 1\npushdc \"\", \"name\"", "1 (null)"},
      {"pushi 1\npushi 2\npushc \"db\"\npushc \"name\"\npopd", "1"},
      {"pushi 1\npushi 2\npopdc \"db\", \"name\"", "1"},
      {"pushi 1\npushi 2\npopdc \"\", \"name\"", "1"},
      {"pushi 1\npushi 2\npushi 3\npushc \"d\"\npushc \"b\"\ncat\npushi 5\npushi 5\ncat\npopd",
       "1 2"},
  });
  ExpectFailures({
      {"pushc \"name\"\npushd", "Stack underflow"},
      {"pushc \"db\"\npushc \"name\"\npopd", "Stack underflow"},
      {"popdc \"db\", \"name\"", "Stack underflow"},
      {"pushdc 77, \"name\"", "Invalid dictionary reference"},
      {"pushdc \"db\", 77", "Invalid dictionary reference"},
      {"pushi 1\npopdc 77, \"name\"", "Invalid dictionary reference"},
      {"pushi 1\npopdc \"db\", 77", "Invalid dictionary reference"},
  });
}

// --- store ---------------------------------------------------------------------------------------

TEST(InstructionsVariableAccess, StoreAssignsBelowToTop) {
  ExpectStacks({
      {"pushi 5\npushg x\nstore\npushg x", "(5)"},
      {"pushi 1\npopg x\npushi 2\npopg y\npushg x\npushg y\nstore\npushg x\npushg y", "(1) (1)"},
      {"pushi 1\npopg x\npushg x\npushg x\nstore\npushg x", "(1)"},
      {"pushi 9\npushs unknown\nstore", ""},
      // An element is assigned to its own array.
      {"pushi 5\npushg x\npushi 1\nelem\nstore\npushg x\npushi 1\nelem\npushg x\nstore\n"
       "pushg x\nisnull\npushg x",
       "0 (5)"},
  });
  ExpectFailures({
      {"pushi 5\npushi 6\nstore", "Expected variable, found constant"},
      {"pushi 5\npushc \"x\"\nstore", "Expected variable, found constant"},
      {"pushg x\nstore", "Stack underflow"},
      {"store", "Stack underflow"},
  });
}

// --- Shadowed system variables -------------------------------------------------------------------

// Calls a function of the test when the script writes.
class CallingOutput : public RecordingOutput {
 public:
  int Write(const char* bytes, int length) override {
    call();
    return RecordingOutput::Write(bytes, length);
  }
  std::function<void()> call;
};

TEST(InstructionsVariableAccess, SystemVariablesChangedAfterSpushComeBackWithSpop) {
  Machine machine;
  CallingOutput output;
  machine.application.SetOutput(&output);
  machine.Assemble("spush\npushs subject\nout\npushs subject\nout\nspop\npushs subject");
  machine.system.SetVariable(new Variable("subject", 7, "old", 3));
  output.call = [&] {
    if (output.text.empty()) machine.system.SetVariable(new Variable("subject", 7, "new", 3));
  };
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(output.text, "oldnew");
  EXPECT_EQ(machine.StackText(), "(old)");
}

TEST(InstructionsVariableAccess, LevelsOfShadowedVariablesNest) {
  Machine machine;
  machine.Assemble("spush\nspush\nspop\nspush");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.system.Version(), 2);
  ExpectFailures({
      {"spop", "System variable stack underflow"},
      {"spush\nspop\nspop", "System variable stack underflow"},
  });
}

}  // namespace
