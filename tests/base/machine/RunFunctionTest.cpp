// Script functions called from native code, and the callbacks of uploads.

#include <gtest/gtest.h>

#include <functional>

#include "tests/support/Machine.h"

namespace {

class RunFunction : public testing::Test {
 protected:
  void TearDown() override { arguments.Dump(); }

  void Argument(int value) { arguments.Insert(new Variable("argument", -1, value), ListTail, 0); }
  int Run(const char* name, bool with_arguments = true) {
    return machine.vm().RunFunction(name, static_cast<int>(strlen(name)),
                                    with_arguments ? &arguments : nullptr, &result);
  }

  Machine machine;
  VariableList arguments;
  Variable result;
};

TEST_F(RunFunction, ArgumentsAndResult) {
  machine.Assemble(".function join(a, b)\npushl a\npushc \"-\"\ncat\npushl b\ncat\nret");
  Argument(1);
  Argument(2);
  EXPECT_EQ(Run("join"), 1);
  EXPECT_EQ(Machine::Text(result), "1-2");
  EXPECT_EQ(Run("JOIN"), 1);
  EXPECT_EQ(machine.stack().Entries(), 0);
  EXPECT_EQ(arguments.First()->refcount(), 1);
}

TEST_F(RunFunction, ANameThatNoFunctionHas) {
  machine.Assemble(".function f()\npushi 1\nret");
  EXPECT_EQ(Run("g"), 0);
  EXPECT_FALSE(machine.vm().stopped());
  EXPECT_TRUE(result.IsNULL());
}

TEST_F(RunFunction, AnotherNumberOfArgumentsRunsNothing) {
  machine.Assemble(".function f(a)\npushc \"ran\"\nout\npushl a\nret");
  EXPECT_EQ(Run("f"), 0);
  Argument(1);
  Argument(2);
  EXPECT_EQ(Run("f"), 0);
  EXPECT_EQ(machine.Output(), "");
  EXPECT_FALSE(machine.vm().stopped());
  EXPECT_EQ(machine.stack().Entries(), 0);
}

TEST_F(RunFunction, WithoutAListTheArgumentsAreOnTheStack) {
  machine.Assemble(".function f(a)\npushl a\nret");
  machine.stack().PushI(1);
  machine.stack().PushI(7);
  EXPECT_EQ(Run("f", false), 1);
  EXPECT_EQ(Machine::Text(result), "7");
  EXPECT_EQ(machine.StackText(), "1");
}

TEST_F(RunFunction, WithoutAResultItIsDropped) {
  machine.Assemble(".function f()\npushi 1\npushi 2\ncat\nret\n.function g()\nretn");
  EXPECT_EQ(machine.vm().RunFunction("f", 1, &arguments, nullptr), 1);
  EXPECT_EQ(machine.vm().RunFunction("g", 1, &arguments, nullptr), 1);
  EXPECT_EQ(machine.stack().Entries(), 0);
}

TEST_F(RunFunction, ByReferenceChangesTheArgument) {
  machine.Assemble(".function f(a var, b)\npushi 9\npopl a\npushi 9\npopl b\nretn");
  Argument(1);
  Argument(2);
  EXPECT_EQ(Run("f"), 1);
  EXPECT_EQ(Machine::Text(*arguments.First()), "9");
  EXPECT_EQ(Machine::Text(*arguments.Next()), "2");
  EXPECT_EQ(Machine::Text(result), "");
}

TEST_F(RunFunction, FailureInTheFunctionAnswersZero) {
  machine.Assemble(".function f()\npop\npushi 1\nret");
  EXPECT_EQ(Run("f"), 0);
  EXPECT_TRUE(machine.vm().stopped());
  EXPECT_EQ(machine.Failure(), "Stack underflow");
  EXPECT_TRUE(result.IsNULL());
}

TEST_F(RunFunction, ExitTakesNoResult) {
  machine.Assemble(".function f()\npushi 1\nexit\nret");
  Run("f");
  EXPECT_TRUE(result.IsNULL());
  EXPECT_EQ(*machine.application.exitflag(), 1);
}

TEST_F(RunFunction, AFunctionThatRunsOffItsEndLeavesTheMachineInOrder) {
  machine.Assemble("pushi 5\n.segment 1\n.function f()\npushi 1");
  Run("f");
  EXPECT_EQ(machine.Go(), 1);
}

// Calls a script function while the machine runs, as native code in an instruction does.
class CallingOutput : public RecordingOutput {
 public:
  int Write(const char* bytes, int length) override {
    if (std::string(bytes, static_cast<size_t>(length)) == "call") {
      call();
      return length;
    }
    return RecordingOutput::Write(bytes, length);
  }
  std::function<void()> call;
};

class RunFunctionWithin : public RunFunction {
 protected:
  RunFunctionWithin() { machine.application.SetOutput(&output); }
  ~RunFunctionWithin() override { machine.Close(); }

  CallingOutput output;
};

TEST_F(RunFunctionWithin, TheScriptGoesOnWhereItWas) {
  machine.Assemble(
      "pushi 1\npushc \"call\"\nout\npushi 2\n.segment 1\n"
      ".function f()\npushc \"in f\"\nout\ncall g\nret\n"
      ".segment 2\n.function g()\npushi 7\nret");
  output.call = [&] { EXPECT_EQ(Run("f"), 1); };
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(output.text, "in f");
  EXPECT_EQ(Machine::Text(result), "7");
  EXPECT_EQ(machine.StackText(), "1 2");
}

TEST_F(RunFunctionWithin, FromWithinAFunction) {
  machine.Assemble(
      "call outer\n.segment 1\n.function outer()\npushi 3\npopl x\npushc \"call\"\nout\npushl "
      "x\nret\n"
      ".function f()\npushi 4\npopl x\npushl x\nret");
  output.call = [&] { EXPECT_EQ(Run("f"), 1); };
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(Machine::Text(result), "4");
  EXPECT_EQ(machine.StackText(), "(3)");
}

TEST_F(RunFunctionWithin, FailureEndsTheWholeScript) {
  machine.Assemble(
      "pushc \"call\"\nout\npushc \"never\"\nout\n.segment 1\n.function f()\npop\nretn");
  output.call = [&] { EXPECT_EQ(Run("f"), 0); };
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(output.text.find("never"), std::string::npos);
}

TEST_F(RunFunctionWithin, ANonFatalErrorAfterAFailureLetsTheScriptGoOn) {
  machine.Assemble(
      "tagerror 28, 0\npushc \"call\"\nout\npushc \"on\"\nout\n.segment 1\n"
      ".function f()\npop\nretn");
  output.call = [&] {
    EXPECT_EQ(Run("f"), 0);
    EXPECT_TRUE(machine.vm().stopped());
    machine.vm().RuntimeError(28, "the key failed");
    EXPECT_FALSE(machine.vm().stopped());
  };
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(output.text.substr(output.text.size() - 2), "on");
  EXPECT_EQ(machine.Value("ZpOPEN_Error"), "the key failed");
}

TEST_F(RunFunctionWithin, ANonFatalErrorAfterATimeOutDoesNot) {
  machine.Assemble(
      "tagerror 28, 0\npushc \"call\"\nout\npushc \"never\"\nout\n.segment 1\n"
      ".function f()\npushi 1\nret");
  output.call = [&] {
    *machine.application.timedoutflag() = 1;
    EXPECT_EQ(Run("f"), 0);
    machine.vm().RuntimeError(28, "the key failed");
    EXPECT_FALSE(machine.vm().stopped());
  };
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(output.text.find("never"), std::string::npos) << output.text;
}

TEST_F(RunFunctionWithin, ExitEndsTheWholeScript) {
  machine.Assemble(
      "pushc \"call\"\nout\npushc \"never\"\nout\n.segment 1\n.function f()\nexit\nretn");
  output.call = [&] { Run("f"); };
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(output.text, "");
}

// Native code calls a script that calls native code again: each level uses native stack.
TEST_F(RunFunctionWithin, EndlessNestingIsAStackOverflow) {
  machine.Assemble("pushc \"call\"\nout\n.segment 1\n.function f()\npushc \"call\"\nout\nretn");
  int depth = 0;
  output.call = [&] {
    depth++;
    machine.vm().RunFunction("f", 1, nullptr, nullptr);
  };
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.Failure(), "Stack overflow");
  EXPECT_GT(depth, 10);
}

TEST_F(RunFunctionWithin, ACaptureOfTheFunctionEndsWithIt) {
  machine.Assemble(
      "pushc \"call\"\nout\npushc \"b\"\nout\n.segment 1\n"
      ".function f()\npushg x\ncapture\npushc \"a\"\nout\nretn");
  output.call = [&] { EXPECT_EQ(Run("f"), 1); };
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(output.text, "b");
}

// --- The start segment within a run --------------------------------------------------------------

TEST_F(RunFunctionWithin, TheStartSegmentRunsFromItsBeginningOnAStackOfItsOwn) {
  machine.Assemble(
      "pushi 1\nincg runs, 1\npushg runs\nout\npushc \"call\"\nout\npushl runs\npushc \"!\"\ncat\n"
      "out");
  bool nested = false;
  output.call = [&] {
    if (nested) return;
    nested = true;
    ZephVM_Frame* frame = machine.vm().CurrentFrame();
    EXPECT_EQ(machine.vm().Go_Recursive(), 1);
    EXPECT_EQ(machine.vm().CurrentFrame(), frame);
    EXPECT_EQ(machine.stack().Entries(), 1);
  };
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(output.text, "122!2!");
  EXPECT_EQ(machine.StackText(), "1");
}

TEST_F(RunFunctionWithin, TheStartSegmentRunsWithinAFunctionOfAnotherSegment) {
  machine.Assemble(
      "incg runs, 1\ncmpgi runs, 1\njmp_gt again\ncall f\nout\nagain: pushg runs\nout\n"
      ".segment 1\n.function f() compress\npushc \"call\"\nout\npushc \"f\"\nret");
  output.call = [&] {
    EXPECT_EQ(machine.vm().Go_Recursive(), 1);
    EXPECT_EQ(machine.vm().CurrentFrame()->type(), ZephVM_Frame::Function);
  };
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(output.text, "2f2");
}

TEST_F(RunFunctionWithin, AReturnDoesNotLeaveTheRun) {
  machine.Assemble(
      "incg runs, 1\ncmpgi runs, 1\njmp_gt again\ncall f\nagain: pushi 1\nret\n"
      ".segment 1\n.function f()\npushc \"call\"\nout\nretn");
  output.call = [&] { EXPECT_EQ(machine.vm().Go_Recursive(), 0); };
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.Failure(), "Frame underflow");
}

TEST_F(RunFunctionWithin, ARunThatEndsInAFunctionLeavesNoFrames) {
  machine.Assemble(
      "incg runs, 1\ncmpgi runs, 1\njmp_gt again\npushc \"call\"\nout\npushi 5\n"
      "jmp 1000\nagain: call f\n.segment 1\n.function f()\npushc \"in f\"\nout");
  output.call = [&] {
    EXPECT_EQ(machine.vm().Go_Recursive(), 1);
    EXPECT_EQ(machine.vm().CurrentFrame()->previous, nullptr);
  };
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(output.text, "in f");
  EXPECT_EQ(machine.StackText(), "5");
}

// --- Uploads -------------------------------------------------------------------------------------

class FileUpload : public testing::Test {
 protected:
  int Validate() {
    return machine.vm().ValidateFileUpload("field", 5, "name.txt", 8, "text/plain", 10, &answer);
  }
  int Process() {
    return machine.vm().ProcessFileUpload("field", 5, "name.txt", 8, "COMPLETE", 8, "/tmp/x", 6,
                                          "text/plain", 10, 1234);
  }

  Machine machine;
  int answer = 99;
};

TEST_F(FileUpload, TheScriptIsAskedWithThreeTexts) {
  machine.Assemble(
      ".function Zeph_ValidateFileUpload(a, b, c)\npushl a\nout\npushc \"|\"\nout\npushl b\nout\n"
      "pushc \"|\"\nout\npushl c\nout\npushc \"4096\"\nret");
  EXPECT_EQ(Validate(), 1);
  EXPECT_EQ(answer, 4096);
  EXPECT_EQ(machine.Output(), "field|name.txt|text/plain");
  EXPECT_EQ(machine.stack().Entries(), 0);
}

TEST_F(FileUpload, AScriptThatIsNotWrittenToBeAskedAnswersMinusOne) {
  EXPECT_EQ(Validate(), 1);
  EXPECT_EQ(answer, -1);
  EXPECT_EQ(Process(), 1);
}

TEST_F(FileUpload, AnotherNumberOfParametersFails) {
  machine.Assemble(
      ".function Zeph_ValidateFileUpload(a, b)\npushi 5\nret\n"
      ".function Zeph_ProcessFileUpload(a, b, c, d, e)\nretn");
  EXPECT_EQ(Validate(), 0);
  EXPECT_EQ(answer, -1);
  EXPECT_EQ(Process(), 0);
}

TEST_F(FileUpload, FailuresAnswerZero) {
  machine.Assemble(".function Zeph_ValidateFileUpload(a, b, c)\npop\npushi 5\nret");
  EXPECT_EQ(Validate(), 0);
  EXPECT_EQ(answer, -1);
  Machine other;
  other.Assemble(".function Zeph_ProcessFileUpload(a, b, c, d, e, f)\npop\nretn");
  EXPECT_EQ(other.vm().ProcessFileUpload("f", 1, "n", 1, "s", 1, "p", 1, "t", 1, 2), 0);
}

// The function has returned nothing, and the script must not continue with a form that was not
// read.
TEST_F(FileUpload, ExitIsAFailure) {
  machine.Assemble(".function Zeph_ValidateFileUpload(a, b, c)\npushi 5\nexit\nret");
  EXPECT_EQ(Validate(), 0);
  EXPECT_EQ(answer, -1);
  EXPECT_EQ(machine.Failure(), "Stack underflow");
  EXPECT_TRUE(machine.vm().stopped());
  Machine other;
  other.Assemble(".function Zeph_ProcessFileUpload(a, b, c, d, e, f)\nexit\nretn");
  EXPECT_EQ(other.vm().ProcessFileUpload("f", 1, "n", 1, "s", 1, "p", 1, "t", 1, 2), 0);
  EXPECT_EQ(other.Failure(), "Stack underflow");
}

TEST_F(FileUpload, TheFileIsHandedOverWithFiveTextsAndItsSize) {
  machine.Assemble(
      ".function zeph_processfileupload(a, b, c, d, e, f)\n"
      "pushl a\npushc \"|\"\ncat\npushl b\ncat\npushc \"|\"\ncat\npushl c\ncat\npushc \"|\"\ncat\n"
      "pushl d\ncat\npushc \"|\"\ncat\npushl e\ncat\npushc \"|\"\ncat\npushl f\ncat\nout\n"
      "pushi 1\nret");
  EXPECT_EQ(Process(), 1);
  EXPECT_EQ(machine.Output(), "field|name.txt|COMPLETE|/tmp/x|text/plain|1234");
  EXPECT_EQ(machine.stack().Entries(), 0);
}

}  // namespace
