// Output, hidden form fields, captures, and the instructions that this build does not run.

#include <gtest/gtest.h>

#include "base/machine/Feature.h"
#include "base/values/Aggregate.h"
#include "tests/support/Machine.h"

namespace {

std::string Written(const std::string& code) {
  Machine machine;
  machine.Assemble(code);
  EXPECT_EQ(machine.Go(), 1) << machine.Error();
  EXPECT_EQ(machine.stack().Entries(), 0);
  return machine.Output();
}

TEST(InstructionsOutput, EveryKindIsWrittenAsText) {
  EXPECT_EQ(Written("pushi -7\nout"), "-7");
  EXPECT_EQ(Written("pushf 1e21\nout"), "1000000000000000000000");
  EXPECT_EQ(Written("pushc \"a\\0b\"\nout"), std::string("a\0b", 3));
  EXPECT_EQ(Written("pushc \"a\"\npushi 1\ncat\npushi 2\ncat\nout"), "a12");
  EXPECT_EQ(Written("pushg nothing\nout\npushs unknown\nout"), "");
  EXPECT_EQ(Written("pushi 1\npushg a\npushi 1\nelem\nstore\npushi 2\npushg a\npushi 9\nelem\n"
                    "store\npushg a\nout"),
            "1,2");
}

TEST(InstructionsOutput, AChainedTextIsWrittenOnceAndFreed) {
  Machine machine;
  std::string part(3000, 'x');
  std::string code = "pushc \"\"\npushi 1\ncat\n";
  for (int i = 0; i < 5; i++) code += "pushc \"" + part + "\"\ncat\n";
  machine.Assemble(code + "out");
  EXPECT_EQ(machine.Go(), 1);
  std::string expected = "1";
  for (int i = 0; i < 5; i++) expected += part;
  EXPECT_EQ(machine.Output(), expected);
}

TEST(InstructionsOutput, CompressedOutputFollowsTheMode) {
  EXPECT_EQ(Written("pushc \"a  b \"\nout_comp\npushc \" c\"\nout_comp"), "a  b  c");
  EXPECT_EQ(Written("stdoutput 1\npushc \"a  b \"\nout_comp\npushc \"  c\"\nout_comp"), "a  b  c");
  EXPECT_EQ(Written("stdoutput 2\npushc \"a  b\\n\\n c\"\nout_comp"), "a b\nc");
  EXPECT_EQ(Written("stdoutput 2\npushi 12\npushc \"   \"\ncat\nout_comp\npushf 0.5\nout_comp"),
            "12 0.5");
  // If both bits of the mode are set, the first counts.
  EXPECT_EQ(Written("stdoutput 3\npushc \"a  b \"\nout_comp\npushc \"  c\"\nout_comp"), "a  b  c");
}

TEST(InstructionsOutput, MissingOperandsAreUnderflows) {
  for (const char* name : {"out", "out_comp", "op_errmsg", "hide", "capture"}) {
    ExpectFailure({name, "Stack underflow"});
  }
}

TEST(InstructionsOutput, ErrorPrefixMayBeReplacedAndTakenBack) {
  Machine machine;
  machine.Assemble("pushc \"one\"\nop_errmsg\npushi 2\nop_errmsg\npop");
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.Output().substr(0, 17), "2Fatal error in d");
  Machine empty;
  empty.Assemble("pushc \"one\"\nop_errmsg\npushc \"\"\nop_errmsg\npop");
  EXPECT_EQ(empty.Go(), 0);
  EXPECT_EQ(empty.Output().substr(0, 16), "Fatal error in d");
}

// --- hide ----------------------------------------------------------------------------------------

std::string Hidden(const std::string& name, const std::string& value) {
  return "<input type=\"hidden\" name=\"" + name + "\" value=\"" + value + "\">";
}

TEST(InstructionsOutput, HideWritesFormFields) {
  EXPECT_EQ(Written("pushi 5\npopg x\npushc \"x\"\nhide"), Hidden("x", "5"));
  EXPECT_EQ(Written("pushc \"<a & (b)>\"\npopg x\npushc \"x\"\nhide"),
            Hidden("x", "&lt;a &amp; &#40;b&#41;&gt;"));
  EXPECT_EQ(Written("pushi 1\npopg x\npushi 2\npopg y\npushc \" x ,\\ty,, \\n\"\nhide"),
            Hidden("x", "1") + Hidden("y", "2"));
  EXPECT_EQ(Written("pushc \"\"\nhide\npushc \" , \"\nhide"), "");
  EXPECT_EQ(Written("pushi 1\npopg x\npushc \"g.x\"\nhide"), Hidden("x", "1"));
  // A name without a variable is written as given, with an empty value. A bare name is a new
  // global.
  EXPECT_EQ(Written("pushc \"s.nothing\"\nhide"), Hidden("s.nothing", ""));
  EXPECT_EQ(Written("pushc \"nothing\"\nhide"), Hidden("nothing", ""));
}

TEST(InstructionsOutput, HideWalksAggregates) {
  EXPECT_EQ(Written("pushi 1\npushg a\npushi 1\nelem\nstore\npushi 2\npushg a\npushi 10\nelem\n"
                    "store\npushc \"a\"\nhide"),
            Hidden("a[1]", "1") + Hidden("a[10]", "2"));
  EXPECT_EQ(Written("pushi 1\npushg s\npushc \"n\"\nmemb\nstore\npushi 2\npushg s\npushc \"b\"\n"
                    "memb\npushi 3\nelem\nstore\npushc \"s\"\nhide"),
            Hidden("s:b[3]", "2") + Hidden("s:n", "1"));
  EXPECT_EQ(Written("pushi 1\npushg a\npushi 2\nelem\npushc \"<m>\"\nmemb\npushi 1\nelem\nstore\n"
                    "pushc \"a\"\nhide"),
            Hidden("a[2]:&lt;m&gt;[1]", "1"));
}

TEST(InstructionsOutput, HideOfAnEmptyAggregateWritesNothing) {
  Machine machine;
  machine.Assemble("pushc \"a,b\"\nhide");
  Variable* array = new Variable("a", 1);
  array->Convert_Aggregate(AggregateArray);
  machine.global.SetVariable(array);
  Variable* outer = new Variable("b", 1);
  outer->Element(AggregateIndex(1), 1)->Convert_Aggregate(AggregateStructure);
  outer->Element(AggregateIndex(2), 1)->SetValue("x", 1);
  machine.global.SetVariable(outer);
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Output(), Hidden("b[2]", "x"));
}

TEST(InstructionsOutput, HideOmitsWhatItIsInsideOf) {
  EXPECT_EQ(Written("pushi 1\npushg a\npushi 1\nelem\nstore\n"
                    "pushg a\npushg a\npushi 2\nelem\nrefer\n"
                    "pushi 3\npushg a\npushi 3\nelem\npushc \"m\"\nmemb\nstore\n"
                    "pushg a\npushg a\npushi 3\nelem\npushc \"up\"\nmemb\nrefer\n"
                    "pushc \"a\"\nhide\nstoregi a, 0"),
            Hidden("a[1]", "1") + Hidden("a[3]:m", "3"));
}

TEST(InstructionsOutput, HideOfABadPathIsFatal) {
  ExpectFailures({{"pushc \"x[a]\"\nhide", "Array index must be positive integer"}});
}

// --- capture -------------------------------------------------------------------------------------

TEST(InstructionsOutput, CaptureTakesWritesOfAllSorts) {
  EXPECT_EQ(Written("stdoutput 2\npushg x\ncapture\npushc \"a   b\"\nout_comp\npushi 1\nout\n"
                    "pushc \"c\"\npushi 2\ncat\nout\ncapture_end\npushg x\nout\npushg x\nout"),
            "a b1c2a b1c2");
}

TEST(InstructionsOutput, CaptureReplacesTheValue) {
  EXPECT_EQ(Written("pushc \"old\"\npopg x\npushg x\ncapture\npushg x\nout\ncapture_end\npushg x\n"
                    "out"),
            "old");
  EXPECT_EQ(Written("pushc \"old\"\npopg x\npushg x\ncapture\ncapture_end\npushg x\nout"), "");
}

TEST(InstructionsOutput, CaptureIntoAnElement) {
  EXPECT_EQ(Written("pushg a\npushi 2\nelem\ncapture\npushi 7\nout\ncapture_end\npushi 0\npopg b\n"
                    "pushg a\nout"),
            "7");
  // The element's array is overwritten while the capture is open.
  EXPECT_EQ(Written("pushg a\npushi 2\nelem\ncapture\npushi 7\nout\npushi 0\npopg a\ncapture_end\n"
                    "pushg a\nout"),
            "0");
}

// --- All words -----------------------------------------------------------------------------------

TEST(InstructionsOutput, TheMachineRunsTheWordsThatTheListDoesNotCallAbsent) {
  for (int i = 0; i < Instruction::RowCount; i++) {
    const Instruction::Row& row = Instruction::Rows[i];
    SCOPED_TRACE(row.name);
    Machine machine;
    // A variable that is 1, so that no instruction divides by 0.
    machine.global.Insert(new Variable("x", 1, 1));
    machine.Op(row.word);
    for (int b = 0;
         b < Instruction::FirstOperandSize(row.word) + Instruction::SecondOperandSize(row.word);
         b++) {
      machine.end = machine.segments.Start()->Write_Byte(machine.end, 0);
    }
    machine.Go();
    EXPECT_EQ(machine.Failure() == "Illegal Instruction", row.run == Instruction::Run::Absent)
        << machine.Failure();
  }
}

}  // namespace
