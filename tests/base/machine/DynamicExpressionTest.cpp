// Expressions that the machine compiles and runs while its script runs.

#include <gtest/gtest.h>

#include "base/compiled/HotCode.h"
#include "tests/support/Machine.h"

namespace {

class DynamicExpression : public testing::Test {
 protected:
  Segment* Compile(const std::string& text) {
    String error;
    Segment* segment = machine.vm().Compile_Dynamic_Expression(
        text.data(), static_cast<int>(text.size()), nullptr, nullptr, &error, nullptr, 0, 0);
    EXPECT_TRUE(segment) << (error.data ? error.data : "");
    return segment;
  }
  int Execute(const std::string& text) {
    return machine.vm().Execute_Dynamic_Expression(Compile(text), nullptr, nullptr);
  }
  // Runs the expression on a stack with "below" and 7 and returns what is then on the stack.
  std::string Left(const std::string& text) {
    machine.stack().PushS("below", 5, 5, 0);
    machine.stack().PushI(7);
    EXPECT_EQ(Execute(text), 1) << machine.Error();
    return machine.StackText();
  }

  Machine machine;
};

TEST_F(DynamicExpression, LeavesItsValueOnTheCurrentStack) {
  EXPECT_EQ(Left("1 + 2 * 3"), "\"below\" 7 d7");
  EXPECT_EQ(Left("'a' $ 'b'"), "\"below\" 7 \"ab\"");
  EXPECT_EQ(Left("unknown"), "\"below\" 7 ()");
}

TEST_F(DynamicExpression, MayHaveAStackOfItsOwn) {
  machine.stack().PushI(1);
  ZephVM_Stack other(&machine.vm());
  EXPECT_EQ(machine.vm().Execute_Dynamic_Expression(Compile("2 + 3"), &other, nullptr), 1);
  EXPECT_EQ(machine.stack().Entries(), 1);
  EXPECT_EQ(other.Entries(), 1);
  EXPECT_EQ(PopText(other), "5");
}

TEST_F(DynamicExpression, AnEmptyTextLeavesTheStackAsItWas) {
  EXPECT_EQ(Left(""), "\"below\" 7");
  EXPECT_EQ(Left(" \t\r\n"), "\"below\" 7");
}

// In these texts the operator is emitted before its operand.
TEST_F(DynamicExpression, NeverTakesAnOperandOfItsCaller) {
  for (const char* text : {"1 +", "NOT", "++(a)", "1 + BITOC 2", "ISNULL", "BITOC", "1 $ NOT"}) {
    SCOPED_TRACE(text);
    Machine fresh;
    fresh.vm();
    fresh.stack().PushS("below", 5, 5, 0);
    fresh.stack().PushI(7);
    Segment* segment =
        fresh.vm().Compile_Dynamic_Expression(text, -1, nullptr, nullptr, nullptr, nullptr, 0, 0);
    ASSERT_TRUE(segment);
    EXPECT_EQ(fresh.vm().Execute_Dynamic_Expression(segment, nullptr, nullptr), 0);
    EXPECT_EQ(fresh.Failure(), "Stack underflow");
    EXPECT_EQ(fresh.StackText(), "\"below\" 7");
  }
}

TEST_F(DynamicExpression, OfSeveralValuesTheLastIsItsOwn) {
  EXPECT_EQ(Left("1 (2) ('c')"), "\"below\" 7 \"c\"");
  EXPECT_EQ(Left("'a' (g.v)"), "\"below\" 7 ()");
}

TEST_F(DynamicExpression, TheLastValueOutlivesTheOthers) {
  machine.vm();
  machine.global.SetVariable(new Variable("v", 1, "text", 4));
  EXPECT_EQ(Left("('x' $ v) (v $ 'y')"), "\"below\" 7 <texty>");
}

TEST_F(DynamicExpression, RunsOnAStackThatGrowsMeanwhile) {
  // 16 entries are in the stack object; further ones move them to allocated memory.
  std::string text = "1";
  for (int i = 0; i < 40; i++) text = "1 + (" + text + ")";
  for (int i = 0; i < 14; i++) machine.stack().PushI(i);
  EXPECT_EQ(Execute(text), 1) << machine.Error();
  EXPECT_EQ(machine.StackText(), "0 1 2 3 4 5 6 7 8 9 10 11 12 13 d41");
}

TEST_F(DynamicExpression, HasTheRoomThatItsCallerLeaves) {
  for (int i = 0; i < ZephVM_Stack::Capacity - 2; i++) machine.stack().PushI(i);
  EXPECT_EQ(Execute("1 + 2"), 1) << machine.Error();
  EXPECT_EQ(machine.stack().Entries(), ZephVM_Stack::Capacity - 1);
  EXPECT_EQ(Execute("1 + 2"), 0);
  EXPECT_EQ(machine.Failure(), "Stack overflow");
  EXPECT_EQ(machine.stack().Entries(), ZephVM_Stack::Capacity - 1);
  EXPECT_EQ(machine.stack().PopD(), 3.0);
  EXPECT_EQ(machine.stack().PopI(), ZephVM_Stack::Capacity - 3);
}

TEST_F(DynamicExpression, ABareNameIsNoLocalVariable) {
  VariableHash locals(&machine.dictionary, 8, 64);
  locals.SetVariable(new Variable("x", 1, "local", 5));
  machine.vm();
  machine.global.SetVariable(new Variable("x", 1, "global", 6));
  const auto value = [&](const char* text) {
    EXPECT_EQ(machine.vm().Execute_Dynamic_Expression(Compile(text), nullptr, &locals), 1);
    return PopText(machine.stack());
  };
  EXPECT_EQ(value("x"), "global");
  EXPECT_EQ(value("l.x"), "local");
  EXPECT_EQ(value("local.x"), "local");
}

TEST_F(DynamicExpression, WithoutVariablesThoseOfTheFrameAreLocal) {
  machine.vm();
  machine.global.SetVariable(new Variable("x", 1, "the frame's", 11));
  EXPECT_EQ(Left("l.x"), "\"below\" 7 (the frame's)");
}

TEST_F(DynamicExpression, CallsFunctionsOfTheScript) {
  machine.Assemble(
      "noop\n.segment 1\n.function twice(x)\npushl x\npushl x\nadd\nret\n"
      ".function nothing()\nretn\n");
  EXPECT_EQ(Left("twice(twice(3)) + 1"), "\"below\" 7 d13");
  EXPECT_EQ(Left("nothing()"), "\"below\" 7 \"\"");
}

TEST_F(DynamicExpression, TheScriptGoesOnWhereItWas) {
  machine.Assemble(
      "call outer\nout\nexit\n.function outer()\npushc \"[\"\nout\npushc \"done\"\nret\n");
  Segment* segment = Compile("outer()");
  EXPECT_EQ(machine.vm().Execute_Dynamic_Expression(segment, nullptr, nullptr), 1);
  EXPECT_EQ(PopText(machine.stack()), "done");
  EXPECT_EQ(machine.Go(), 1) << machine.Error();
  EXPECT_EQ(machine.Output(), "[[done");
}

TEST_F(DynamicExpression, AnErrorInsideOfAFunctionLeavesItsFrames) {
  machine.Assemble("noop\n.segment 1\n.function bad(x)\npop\nret\n");
  ZephVM_Frame* frame = machine.vm().CurrentFrame();
  machine.stack().PushI(7);
  EXPECT_EQ(Execute("1 (bad(2))"), 0);
  EXPECT_EQ(machine.vm().CurrentFrame(), frame);
  EXPECT_EQ(machine.StackText(), "7");
}

TEST_F(DynamicExpression, AReturnDoesNotLeaveIt) {
  Segment* segment = machine.segments.Segment_Add();
  segment->Write_Word(0, Instruction::retn);
  EXPECT_EQ(machine.vm().Execute_Dynamic_Expression(segment, nullptr, nullptr), 0);
  EXPECT_EQ(machine.Failure(), "Frame underflow");
}

TEST_F(DynamicExpression, HotCodeKeepsToItsPartOfTheStackToo) {
  machine.vm();
  machine.global.SetVariable(new Variable("v", 1, 5));
  Segment* good = Compile("(v + 1) * 2");
  for (int i = 0; i < 3 * Segment::Repeats; i++) {
    machine.stack().PushI(i);
    ASSERT_EQ(machine.vm().Execute_Dynamic_Expression(good, nullptr, nullptr), 1);
    ASSERT_EQ(machine.StackText(), std::to_string(i) + " d12");
  }
  EXPECT_TRUE(good->hot());
  Segment* bad = Compile("1 +");
  for (int i = 0; i < Segment::Repeats; i++) bad->NoteRepeat(machine.dictionary, nullptr);
  ASSERT_TRUE(bad->hot());
  machine.stack().PushI(7);
  EXPECT_EQ(machine.vm().Execute_Dynamic_Expression(bad, nullptr, nullptr), 0);
  EXPECT_EQ(machine.Failure(), "Stack underflow");
  EXPECT_EQ(machine.StackText(), "7");
}

TEST_F(DynamicExpression, CodeTakesTheRoomThatItNeeds) {
  Segment* const code = Compile("1 + 2");
  ASSERT_TRUE(code);
  EXPECT_EQ(code->length(), 14);
  EXPECT_EQ(code->capacity(), code->length());
  EXPECT_FALSE(machine.vm().Compile_Dynamic_Expression("1 + 2 * * 3", -1, nullptr, nullptr, nullptr,
                                                       nullptr, 0, 0));
  const Segment* const failed = machine.segments.Lookup(machine.segments.Segments() - 1);
  EXPECT_EQ(failed->capacity(), failed->length());
}

TEST_F(DynamicExpression, AFailureToCompileHasItsText) {
  String error;
  EXPECT_FALSE(
      machine.vm().Compile_Dynamic_Expression("* 2", -1, nullptr, nullptr, &error, nullptr, 0, 0));
  EXPECT_STREQ(error.data, "Argument expected in Expression");
  EXPECT_FALSE(
      machine.vm().Compile_Dynamic_Expression("* 2", -1, nullptr, nullptr, nullptr, nullptr, 0, 0));
  EXPECT_FALSE(machine.vm().stopped());
}

TEST_F(DynamicExpression, MessagesNameItsSourceFileAndLine) {
  Segment* segment = machine.vm().Compile_Dynamic_Expression("a $ (NOT)", -1, nullptr, nullptr,
                                                             nullptr, "page.zpa", -1, 12);
  ASSERT_TRUE(segment);
  EXPECT_EQ(machine.vm().Execute_Dynamic_Expression(segment, nullptr, nullptr), 0);
  EXPECT_NE(machine.Error().find("page.zpa: Line 12: Stack underflow"), std::string::npos)
      << machine.Error();
}

// --- Results -------------------------------------------------------------------------------------

TEST_F(DynamicExpression, AsATruthValue) {
  const struct {
    const char* text;
    int result;
  } cases[] = {{"1", 1},      {"0", 0},      {"'0.0'", 0}, {"'0.0.'", 1}, {"'no'", 1},
               {"1 EQ 1", 1}, {"1 EQ 2", 0}, {"''", 0},    {"unset", 0},  {"", 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    machine.stack().PushI(1);
    int result = -1;
    EXPECT_EQ(machine.vm().Execute_Dynamic_Expression(Compile(c.text), nullptr, nullptr, &result),
              1);
    EXPECT_EQ(result, c.result);
    EXPECT_EQ(machine.StackText(), "1");
  }
}

TEST_F(DynamicExpression, AsAText) {
  for (const auto& [text, value] :
       {std::pair("1 + 2", "3"), {"'a' $ 'b'", "ab"}, {"'const'", "const"}, {"", ""}}) {
    SCOPED_TRACE(text);
    machine.stack().PushI(1);
    const char* result = nullptr;
    int length = -1, size = -1, deletable = -1;
    EXPECT_EQ(machine.vm().Execute_Dynamic_Expression(Compile(text), nullptr, nullptr, &result,
                                                      &length, &size, &deletable),
              1);
    EXPECT_EQ(std::string(result, static_cast<size_t>(length)), value);
    if (deletable) delete[] result;
    EXPECT_EQ(machine.StackText(), "1");
  }
}

TEST_F(DynamicExpression, AsAVariable) {
  machine.vm();
  auto* v = new Variable("v", 1, 5);
  machine.global.SetVariable(v);
  machine.stack().PushI(1);
  Variable* result = nullptr;
  int deletable = -1;
  EXPECT_EQ(
      machine.vm().Execute_Dynamic_Expression(Compile("v"), nullptr, nullptr, &result, &deletable),
      1);
  EXPECT_EQ(result, v);
  if (deletable) result->DecRefCount();
  EXPECT_EQ(
      machine.vm().Execute_Dynamic_Expression(Compile(""), nullptr, nullptr, &result, &deletable),
      1);
  EXPECT_EQ(result->type(), VariableNULL);
  EXPECT_EQ(deletable, 0);
  EXPECT_EQ(
      machine.vm().Execute_Dynamic_Expression(Compile("1"), nullptr, nullptr, &result, &deletable),
      0);
  EXPECT_EQ(machine.Failure(), "Expected variable, found constant");
  EXPECT_EQ(machine.StackText(), "1");
}

TEST_F(DynamicExpression, AFailedRunLeavesTheResultAlone) {
  int result = -5;
  EXPECT_EQ(machine.vm().Execute_Dynamic_Expression(Compile("NOT"), nullptr, nullptr, &result), 0);
  EXPECT_EQ(result, -5);
}

}  // namespace
