// Calls of script functions: arguments, frames, returns, and what a return puts back.

#include <gtest/gtest.h>

#include "base/host/Config.h"
#include "base/machine/Feature.h"
#include "tests/support/Machine.h"

namespace {

// Program text of a main part, which ends at the end of its segment, and of functions in a segment
// of their own.
std::string Script(const std::string& main, const std::string& functions) {
  return main + "\n.segment 1\n" + functions;
}

void ExpectCall(const char* main, const char* functions, const char* stack) {
  ExpectStack({Script(main, functions).c_str(), stack});
}

void ExpectCallFails(const char* main, const char* functions, const char* message) {
  ExpectFailure({Script(main, functions).c_str(), message});
}

// --- Arguments -----------------------------------------------------------------------------------

TEST(FunctionCall, ArgumentsGoInDeclaredOrder) {
  ExpectCall("pushi 1\npushi 2\ncall f",
             ".function f(a, b)\npushl a\npushc \"<\"\ncat\npushl b\ncat\nret", "<1<2>");
  ExpectCall("pushi 7\ncall f", ".function f(a)\npushl a\nret", "(7)");
  ExpectCall("call f", ".function f()\npushi 7\nret", "7");
  ExpectCall("pushi 1\npushi 2\npushi 3\ncall f",
             ".function f(a, b, c)\npushl c\npushl b\nsub\npushl a\nmul\nret", "d1");
}

TEST(FunctionCall, ParametersMayShareTheTableWithLocalsInAnyOrder) {
  ExpectCall(
      "pushi 1\npushi 2\ncall f",
      ".function f(a, b)\n.local x\npushi 9\npopl x\npushl x\npushl a\ncat\npushl b\ncat\nret",
      "<912>");
}

TEST(FunctionCall, ValuesOfEveryKindArePassed) {
  const char* f = ".function f(a)\npushl a\nret";
  ExpectCall("pushf 0.5\ncall f", f, "(0.5)");
  ExpectCall("pushc \"text\"\ncall f", f, "(text)");
  ExpectCall("pushi 1\npushi 2\ncat\ncall f", f, "(12)");
  ExpectCall("pushc \"x\"\npushi 1\ncat\npushi 2\ncat\ncall f", f, "(x12)");
  ExpectCall("pushs unknown\ncall f", f, "()");
  ExpectCall(
      "pushi 1\npushg a\npushi 1\nelem\nstore\npushi 2\npushg a\npushi 2\nelem\nstore\n"
      "pushg a\ncall f",
      f, "(1,2)");
}

TEST(FunctionCall, ByValueIsACopy) {
  ExpectCall("pushi 1\npopg v\npushg v\ncall f\npop\npushg v",
             ".function f(a)\npushi 2\npopl a\nretn", "(1)");
  // An array is copied with all its elements.
  ExpectCall("pushi 1\npushg v\npushi 1\nelem\nstore\npushg v\ncall f\npop\npushg v",
             ".function f(a)\npushi 2\npushl a\npushi 1\nelem\nstore\nretn", "(1)");
}

TEST(FunctionCall, ByReferenceIsTheVariableItself) {
  ExpectCall("pushi 1\npopg v\npushg v\ncall f\npop\npushg v",
             ".function f(a var)\npushi 2\npopl a\nretn", "(2)");
  ExpectCall("pushg v\ncall f\npop\npushg v",
             ".function f(a var)\npushi 2\npushl a\npushi 1\nelem\nstore\nretn", "(2)");
  // An element, also one whose array is overwritten while the function runs.
  ExpectCall("pushg v\npushi 3\nelem\ncall f\npop\npushg v",
             ".function f(a var)\npushi 2\npopl a\nretn", "(2)");
  ExpectCall("pushi 1\npushg v\npushi 3\nelem\nstore\npushg v\npushi 3\nelem\ncall f\npushg v",
             ".function f(a var)\npushi 0\npopg v\npushl a\nret", "(1) (0)");
  // The same variable twice, and passed on.
  ExpectCall("pushg v\npushg v\ncall f\npop\npushg v",
             ".function f(a var, b var)\npushi 5\npopl a\npushl b\npushi 1\nadd\npopl b\nretn",
             "(6)");
  ExpectCall("pushg v\ncall f\npop\npushg v",
             ".function f(a var)\npushl a\ncall g\npop\nretn\n"
             ".function g(b var)\npushi 8\npopl b\nretn",
             "(8)");
  // The null variable ignores writes.
  ExpectCall("pushs unknown\ncall f", ".function f(a var)\npushi 5\npopl a\npushl a\nisnull\nret",
             "1");
}

TEST(FunctionCall, OneOfThreeByReference) {
  ExpectCall("pushi 1\npushg v\npushi 3\ncall f\npop\npushg v",
             ".function f(a, b var, c)\npushl a\npushl c\nadd\npopl b\nretn", "(4)");
}

TEST(FunctionCall, ConstantsCannotBePassedByReference) {
  const char* f = ".function f(a var)\npushc \"never\"\nout\nretn";
  ExpectCallFails("pushi 1\ncall f", f, "Expected variable, found constant");
  ExpectCallFails("pushc \"x\"\ncall f", f, "Expected variable, found constant");
  ExpectCallFails("pushi 1\npushi 2\ncat\ncall f", f, "Expected variable, found constant");
}

TEST(FunctionCall, ArgumentsMissing) {
  ExpectCallFails("call f", ".function f(a)\nretn", "Stack underflow");
  ExpectCallFails("pushi 1\ncall f", ".function f(a, b)\nretn", "Stack underflow");
  ExpectCallFails("call f", ".function f(a var)\nretn", "Stack underflow");
  Machine machine;
  machine.Assemble(Script("call f", ".function f(a)\npushc \"never\"\nout\nretn"));
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.Output().find("never"), std::string::npos);
}

TEST(FunctionCall, ArgumentsTooManyStayWithTheCaller) {
  ExpectCall("pushi 1\npushi 2\npushi 3\ncall f", ".function f(a)\npushl a\nret", "1 2 (3)");
}

TEST(FunctionCall, IndexesThatAreNoFunctions) {
  for (const char* main : {"call 1", "call -1", "call 2147483647", "call -2147483648"}) {
    ExpectCallFails(main, ".function f()\nretn", "Invalid function call");
  }
  ExpectFailure({"call 0", "Invalid function call"});
}

// A function that no library has. Functions that libraries have are tested with the libraries.
TEST(FunctionCall, ExternalFunctionThatNobodyHasIsFatal) {
  Machine machine;
  machine.Assemble("pushi 1\ncall f\n.function f(a) external");
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_NE(machine.Failure(), "");
}

// --- Results -------------------------------------------------------------------------------------

TEST(FunctionCall, EveryCallLeavesExactlyOneValue) {
  ExpectCall("pushi 1\ncall f", ".function f()\npushi 2\nret", "1 2");
  ExpectCall("pushi 1\ncall f", ".function f()\nretn", "1 \"\"");
  // What else the function left on its stack is dropped.
  ExpectCall("pushi 1\ncall f", ".function f()\npushi 2\npushi 3\npushi 4\ncat\npushi 5\nret",
             "1 5");
  ExpectCall("pushi 1\ncall f", ".function f()\npushi 3\npushi 4\ncat\nretn", "1 \"\"");
  ExpectCall("call f\npop\npushi 1", ".function f()\nretn", "1");
}

TEST(FunctionCall, NoValueIsAnEmptyTextThatNobodyOwns) {
  Machine machine;
  machine.Assemble(Script("call f", ".function f()\nretn"));
  EXPECT_EQ(machine.Go(), 1);
  const ZephVM_Stack::Stack_Entry* top = machine.stack().Peek();
  EXPECT_EQ(top->kind, ZephVM_Stack::KindString);
  EXPECT_EQ(top->length, 0);
  EXPECT_EQ(top->size, 0);
  EXPECT_FALSE(top->deletable);
}

TEST(FunctionCall, ResultsOfEveryKindOutliveTheFrame) {
  ExpectCall("call f", ".function f()\npushf 0.5\nret", "d0.5");
  ExpectCall("call f", ".function f()\npushc \"text\"\nret", "\"text\"");
  ExpectCall("call f", ".function f()\npushi 1\npushi 2\ncat\nret", "\"12\"");
  ExpectCall("call f", ".function f()\npushi 1\npushi 2\ncat\npushi 3\ncat\nret", "<123>");
  ExpectCall("call f", ".function f()\npushc \"local\"\npopl x\npushl x\nret", "(local)");
  ExpectCall("call f",
             ".function f()\npushc \"e\"\npushl x\npushi 1\nelem\nstore\npushl x\npushi 1\n"
             "elem\nret",
             "(e)");
  ExpectCall("call f", ".function f()\npushi 1\npushi 2\ncat\ndup\nret", "\"12\"");
  ExpectCall("call f", ".function f()\npushl x\ndup\nret", "()");
}

TEST(FunctionCall, ReturnWithNothingToReturnIsAnUnderflow) {
  ExpectCallFails("pushi 1\ncall f", ".function f()\nret", "Stack underflow");
}

TEST(FunctionCall, ReturnsInTheMainPart) {
  ExpectFailures({
      {"pushi 1\nret", "Frame underflow"},
      {"retn", "Frame underflow"},
  });
}

// --- Stacks and variables of a call --------------------------------------------------------------

TEST(FunctionCall, TheCallersEntriesAreOutOfReach) {
  ExpectCallFails("pushi 1\ncall f", ".function f()\npop\nretn", "Stack underflow");
  ExpectCallFails("pushi 1\npushi 2\ncall f", ".function f()\nswap\nretn",
                  "Invalid stack reference");
}

TEST(FunctionCall, EachCallHasAWholeStack) {
  std::string fill;
  for (int i = 0; i < 511; i++) fill += "pushi 1\n";
  ExpectFailure({Script(fill + "pushi 1\npushi 1", "").c_str(), "Stack overflow"});
  Machine machine;
  machine.Assemble(Script(fill + "call f", ".function f()\n" + fill + "pushi 2\nret"));
  EXPECT_EQ(machine.Go(), 1) << machine.Error();
  EXPECT_EQ(machine.stack().Entries(), 512);
  EXPECT_EQ(machine.stack().PopI(), 2);
}

TEST(FunctionCall, ResultThatDoesNotFitIsAnOverflow) {
  std::string fill;
  for (int i = 0; i < 512; i++) fill += "pushi 1\n";
  ExpectFailure({Script(fill + "call f", ".function f()\npushi 2\nret").c_str(), "Stack overflow"});
  ExpectFailure({Script(fill + "call f", ".function f()\nretn").c_str(), "Stack overflow"});
}

TEST(FunctionCall, LocalsAreNewInEveryCall) {
  ExpectCall("call f\ncall f", ".function f()\npushl x\nisnull\npushi 5\npopl x\nret", "1 1");
  ExpectCall("pushi 3\npopg x\ncall f\npushg x", ".function f()\npushi 5\npopl x\npushl x\nret",
             "(5) (3)");
}

TEST(FunctionCall, RecursiveCallsHaveLocalsOfTheirOwn) {
  ExpectCall("pushi 10\ncall fact",
             ".function fact(n)\npushl n\npushi 2\nlt\njmp_eq more\npushi 1\nret\n"
             "more: pushl n\npushl n\npushi 1\nsub\ncall fact\nmul\nret",
             "d3628800");
  ExpectCall("pushi 15\ncall fib",
             ".function fib(n)\npushl n\npushi 2\nlt\njmp_eq more\npushl n\nret\n"
             "more: pushl n\npushi 1\nsub\ncall fib\npushl n\npushi 2\nsub\ncall fib\nadd\nret",
             "d610");
  // Two that call each other.
  ExpectCall("pushi 7\ncall even",
             ".function even(n)\npushl n\njmp_ne more\npushc \"even\"\nret\n"
             "more: pushl n\npushi 1\nsub\ncall odd\nret\n"
             ".function odd(n)\npushl n\njmp_ne more2\npushc \"odd\"\nret\n"
             "more2: pushl n\npushi 1\nsub\ncall even\nret",
             "\"odd\"");
}

TEST(FunctionCall, ManyCallsInARow) {
  ExpectCall(
      "storegi i, 0\nagain: pushg i\ncall f\npop\nincg i, 1\ncmpgi i, 20000\njmp_lt again\n"
      "pushg sum",
      ".function f(n)\npushg sum\npushl n\nadd\npopg sum\nretn", "(199990000)");
}

TEST(FunctionCall, DeepCallsReturn) {
  ExpectCall("pushi 1000\ncall down",
             ".function down(n)\npushl n\njmp_ne more\npushi 7\nret\n"
             "more: pushl n\npushi 1\nsub\ncall down\nret",
             "7");
}

TEST(FunctionCall, CallsWithoutAnEndAreAStackOverflow) {
  ExpectCallFails("call f", ".function f()\ncall f\nretn", "Stack overflow");
  ExpectCallFails("pushi 1\ncall f",
                  ".function f(a)\npushl a\ncall g\nret\n.function g(b)\npushl b\n"
                  "call f\nret",
                  "Stack overflow");
}

TEST(FunctionCall, BareNamesSeeTheLocalsOfTheCallThatRuns) {
  // A local before a global of the same name, a system variable before both.
  ExpectCall("pushi 1\npopg x\npushi 2\ncall f", ".function f(x)\npushnc x\nret", "(2)");
  ExpectCall("pushi 1\npopg x\npushi 2\ncall f", ".function f(x)\npushi 9\npopnc x\npushg x\nret",
             "(1)");
  ExpectCall("pushi 1\npopg x\npushi 2\ncall f", ".function f(x)\npushnc \"g.x\"\nret", "(1)");
  ExpectCall("pushi 1\npopg x\npushi 2\ncall f", ".function f(x)\npushnc \"l.x\"\nret", "(2)");
  // The caller's locals are out of sight: the name is a new global.
  ExpectCall("pushi 2\ncall f", ".function f(y)\ncall g\nret\n.function g()\npushnc y\nisnull\nret",
             "1");
  ExpectCall("pushi 2\ncall f\npop\npushnc y\nisnull", ".function f(y)\nretn", "1");
  // A declared local that does not exist yet hides nothing.
  ExpectCall("pushi 1\npopg x\ncall f", ".function f()\n.local x\npushnc x\nret", "(1)");
  // A name with a scope is created in that scope's table.
  ExpectCall("call f\npushnc \"g.z\"\nisnull",
             ".function f()\npushi 3\npopnc \"l.z\"\npushnc \"l.z\"\nret", "(3) 1");
}

TEST(FunctionCall, ASystemVariableComesBeforeALocal) {
  Machine machine;
  machine.Assemble(Script("pushi 2\ncall f", ".function f(x)\npushnc x\nret"));
  machine.system.SetVariable(new Variable("x", 1, "system", 6));
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.StackText(), "(system)");
}

// The next call does not see names that a call has added to its table.
TEST(FunctionCall, NamesMadeAtRunTimeEndWithTheCall) {
  ExpectCall("call f\ncall f",
             ".function f()\npushnc \"l.made\"\nisnull\npushi 5\npopnc \"l.made\"\nret", "1 1");
}

// --- Where a call continues ----------------------------------------------------------------------

TEST(FunctionCall, FunctionsOfTheSameSegmentAndOfOthers) {
  ExpectStacks({
      {"call f\njmp end\n.function f()\npushi 1\nret\n.end\nend: pushi 2", "1 2"},
      {"call f\n.segment 1\n.function f()\ncall g\npushi 1\ncat\nret\n.segment 2\n.function g()\n"
       "pushi 2\nret",
       "\"21\""},
      {".start 1\npushc \"not run\"\n.segment 1\ncall f\n.segment 2\n.function f()\npushi 3\nret",
       "3"},
  });
}

TEST(FunctionCall, FunctionsWhoseCodeIsNowhere) {
  ExpectFailures({
      {"call f\n.function f() at 9:0", "Invalid segment reference"},
      {"call f\n.function f() at -1:0", "Invalid segment reference"},
  });
  // Past the end of a segment the run ends.
  for (const char* place : {"0:1000", "0:-5", "0:2147483647"}) {
    SCOPED_TRACE(place);
    Machine machine;
    machine.Assemble(std::string("call f\npushc \"never\"\nout\n.function f() at ") + place);
    EXPECT_EQ(machine.Go(), 1);
    EXPECT_EQ(machine.Output(), "");
  }
}

TEST(FunctionCall, RunningOffTheEndOfAFunctionEndsTheRun) {
  Machine machine;
  machine.Assemble(
      Script("pushc \"a\"\nout\ncall f\npushc \"never\"\nout", ".function f()\npushc \"b\"\nout"));
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Output(), "ab");
  machine.Close();
}

TEST(FunctionCall, ExitInAFunctionEndsTheScript) {
  Machine machine;
  machine.Assemble(
      Script("call f\npushc \"never\"\nout", ".function f()\npushc \"a\"\nout\nexit\nretn"));
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Output(), "a");
  EXPECT_EQ(*machine.application.exitflag(), 1);
}

TEST(FunctionCall, ErrorsNameTheSegmentOfTheFunction) {
  Machine machine;
  machine.Assemble(Script("call f", "noop\n.function f()\nlineno 12\npop\nretn"));
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.Output(),
            "Fatal error in dir/page.zpc @ [00000001:00000008]: Line 12: Stack underflow\n");
}

// --- Error output --------------------------------------------------------------------------------

TEST(FunctionCall, FlagsOfAFunctionDecideWhetherErrorsAreShown) {
  const struct {
    const char* label;
    int caller;
    const char* flags;
    int inside;
  } cases[] = {
      {"as the caller, on", 7, "", 7},
      {"as the caller, off", 3, "", 3},
      {"forced on", 3, "erroron", 7},
      {"forced on where it is", 7, "erroron", 7},
      {"forced off", 7, "erroroff", 3},
      {"off is applied after on", 7, "erroron erroroff", 3},
      {"off after on, from off", 3, "erroron erroroff", 3},
      {"other bits stay", 8, "erroron", 12},
      {"other bits stay, off", 12, "erroroff", 8},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    Machine machine;
    // The index is a runtime error that is displayed and does not end the script.
    machine.Assemble(Script("tagerror 62, 1\nerroutput " + std::to_string(c.caller) +
                                "\ncall f\npop\npushg x\npushi 0\nelem",
                            std::string(".function f() ") + c.flags +
                                "\npushg x\npushi 0\nelem\npushc \"|\"\nout\nretn"));
    EXPECT_EQ(machine.Go(), 1);
    size_t bar = machine.Output().find('|');
    ASSERT_NE(bar, std::string::npos);
    EXPECT_EQ(bar > 0, (c.inside & 4) != 0);
    EXPECT_EQ(machine.Output().size() > bar + 1, (c.caller & 4) != 0);
    EXPECT_EQ(machine.vm().CurrentFrame()->error_output, c.caller);
  }
}

TEST(FunctionCall, FlagsSetInAFunctionEndWithIt) {
  Machine machine;
  machine.Assemble(Script("call f",
                          ".function f()\nerroutput 0\ncall g\nret\n"
                          ".function g()\npushg x\npushi 0\nelem\nretn"));
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.Output(), "");
  EXPECT_NE(machine.Failure(), "");
  Machine back;
  back.Assemble(Script("call f\npushg x\npushi 0\nelem", ".function f()\nerroutput 0\nretn"));
  EXPECT_EQ(back.Go(), 0);
  EXPECT_NE(back.Output(), "");
}

// --- Output mode ---------------------------------------------------------------------------------

// Records its flags at each write.
class ModeOutput : public RecordingOutput {
 public:
  int Write(const char* bytes, int length) override {
    modes += std::string(bytes, static_cast<size_t>(length)) + std::to_string(flags()) + " ";
    return length;
  }
  std::string modes;
};

TEST(FunctionCall, FlagsOfAFunctionDecideTheOutputMode) {
  const struct {
    int caller;
    const char* flags;
    int inside;
  } cases[] = {
      {0, "", 0},
      {1, "", 0},
      {2, "", 0},
      {3, "", 0},
      {0, "compress", 1},
      {2, "compress", 1},
      {0, "inherit", 0},
      {1, "inherit", 2},
      {2, "inherit", 2},
      {3, "inherit", 2},
      {4, "inherit", 0},
      {5, "inherit", 2},
      // Inheriting takes precedence.
      {0, "compress inherit", 0},
      {1, "compress inherit", 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.caller << " " << c.flags);
    Machine machine;
    ModeOutput output;
    machine.application.SetOutput(&output);
    machine.Assemble(
        Script("stdoutput " + std::to_string(c.caller) +
                   "\npushc \"a\"\nout\ncall f\npop\npushc \"c\"\nout",
               std::string(".function f() ") + c.flags + "\npushc \"b\"\nout\nstdoutput 3\nretn"));
    EXPECT_EQ(machine.Go(), 1);
    std::string caller = std::to_string(c.caller);
    EXPECT_EQ(output.modes, "a" + caller + " b" + std::to_string(c.inside) + " c" + caller + " ");
  }
}

TEST(FunctionCall, OutputModeOfAReturnWithAValue) {
  Machine machine;
  ModeOutput output;
  machine.application.SetOutput(&output);
  machine.Assemble(Script("stdoutput 2\ncall f\nout\npushc \"c\"\nout",
                          ".function f() compress\npushc \"b\"\nout\npushc \"r\"\nret"));
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(output.modes, "b1 r2 c2 ");
}

// --- Features of a function ----------------------------------------------------------------------

TEST(FunctionCall, ACaptureLeftOpenByAFunctionEndsWithIt) {
  for (const char* result : {"retn", "pushi 1\nret"}) {
    Machine machine;
    machine.Assemble(
        Script("call f\npop\npushc \"b\"\nout",
               std::string(".function f()\npushg x\ncapture\npushc \"a\"\nout\n") + result));
    EXPECT_EQ(machine.Go(), 1);
    EXPECT_EQ(machine.Output(), "b");
    EXPECT_EQ(machine.Value("x"), "");
    EXPECT_EQ(machine.vm().Lookup_Feature(Feature::Type_Capture), nullptr);
  }
}

// The lower one is deleted, and restores the output that it found.
TEST(FunctionCall, TwoCapturesLeftOpenByAFunction) {
  for (const char* result : {"retn", "pushi 1\nret"}) {
    Machine machine;
    machine.Assemble(
        Script("call f\npop\npushc \"b\"\nout\npushg z\ncapture\npushc \"c\"\nout\n"
               "capture_end\npushc \"d\"\nout\npop",
               ".function f()\npushg x\ncapture\npushg y\ncapture\npushg y\n"
               "capture\npushc \"a\"\nout\n" +
                   std::string(result)));
    EXPECT_EQ(machine.Go(), 0);
    EXPECT_EQ(machine.Output().substr(0, 7), "bdFatal");
    EXPECT_EQ(machine.Value("x"), "");
    EXPECT_EQ(machine.Value("y"), "");
    EXPECT_EQ(machine.Value("z"), "c");
    EXPECT_EQ(machine.vm().Lookup_Feature(Feature::Type_Capture), nullptr);
    machine.Close();
    EXPECT_EQ(machine.application.output(), &machine.output);
  }
}

TEST(FunctionCall, CapturesLeftOpenBelowACaptureOfTheCaller) {
  Machine machine;
  machine.Assemble(
      Script("pushg w\ncapture\npushc \"a\"\nout\ncall f\npop\npushc \"b\"\nout\ncall f\npop\n"
             "pushc \"c\"\nout\ncapture_end\npushc \"d\"\nout",
             ".function f()\npushg x\ncapture\npushg y\ncapture\npushc \"lost\"\nout\nretn"));
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Value("w"), "abc");
  EXPECT_EQ(machine.Output(), "d");
  machine.Close();
  EXPECT_EQ(machine.application.output(), &machine.output);
}

TEST(FunctionCall, CapturesLeftOpenByFunctionsWithinFunctions) {
  Machine machine;
  machine.Assemble(
      Script("call f\npop\npushc \"d\"\nout",
             ".function f()\npushg x\ncapture\npushg y\ncapture\npushc \"a\"\nout\ncall g\npop\n"
             "pushc \"b\"\nout\ncapture_end\npushc \"c\"\nout\nretn\n"
             ".function g()\npushg z\ncapture\npushg z\ncapture\npushc \"lost\"\nout\nretn"));
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Value("y"), "ab");
  EXPECT_EQ(machine.Output(), "d");
}

TEST(FunctionCall, ACaptureOfTheCallerGoesOnInTheFunction) {
  Machine machine;
  machine.Assemble(
      Script("pushg x\ncapture\npushc \"a\"\nout\ncall f\npop\npushc \"c\"\nout\n"
             "capture_end\npushc \"d\"\nout",
             ".function f()\npushg y\ncapture\npushc \"lost\"\nout\ncapture_end\n"
             "pushc \"b\"\nout\nretn"));
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Output(), "d");
  EXPECT_EQ(machine.Value("x"), "abc");
  EXPECT_EQ(machine.Value("y"), "lost");
}

// The function's frame is gone. A later frame must not be mistaken for it, even at the same
// address.
TEST(FunctionCall, FeaturesAreToldApartByFrame) {
  Machine machine;
  machine.Assemble(
      Script("pushg x\ncapture\ncall f\npop\ncall f\npop\npushc \"c\"\nout\n"
             "capture_end",
             ".function f()\npushg y\ncapture\npushc \"lost\"\nout\nretn"));
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Value("x"), "c");
}

// --- Log -----------------------------------------------------------------------------------------

TEST(FunctionCall, CallsAreLogged) {
  Machine machine;
  machine.application.config()->SetValue_Integer(
      Config_log_level,
      Log_FunctionCall | Log_FunctionParameter | Log_FunctionReturnValue | Log_FunctionReturn);
  machine.Assemble(Script("pushi 1\npushi 2\ncall f\npop\ncall g\npop",
                          ".function f(a, b)\npushf 0.5\nret\n.function g()\nretn"));
  EXPECT_EQ(machine.Go(), 1);
  ASSERT_EQ(machine.application.log.size(), 7u);
  const char* const kinds[] = {"Function Call",         "Function Parameter", "Function Parameter",
                               "Function Return Value", "Function Return",    "Function Call",
                               "Function Return"};
  for (size_t i = 0; i < 7; i++) {
    SCOPED_TRACE(machine.application.log[i]);
    EXPECT_EQ(machine.application.log[i].substr(0, strlen(kinds[i]) + 1),
              std::string(kinds[i]) + "|");
  }
  EXPECT_NE(machine.application.log[1].find("|f|b|(2)"), std::string::npos);
  EXPECT_NE(machine.application.log[2].find("|f|a|(1)"), std::string::npos);
  EXPECT_NE(machine.application.log[3].find("|0.5"), std::string::npos);
}

TEST(FunctionCall, AValueThatContainsItselfIsLoggedOnce) {
  Machine machine;
  machine.application.config()->SetValue_Integer(Config_log_level,
                                                 Log_FunctionParameter | Log_FunctionReturnValue);
  machine.Assemble(
      Script("pushi 1\npushg v\npushi 1\nelem\nstore\npushi 3\npushg v\npushi 3\nelem\nstore\n"
             "pushg v\npushg v\npushi 2\nelem\nrefer\npushg v\ncall f\npop\nstoregi v, 0",
             ".function f(a var)\npushg v\nret"));
  EXPECT_EQ(machine.Go(), 1);
  ASSERT_EQ(machine.application.log.size(), 2u);
  EXPECT_NE(machine.application.log[0].find("|f|a|(1,,3)"), std::string::npos);
  EXPECT_NE(machine.application.log[1].find("|f|(1,,3)"), std::string::npos);
}

TEST(FunctionCall, AValueOfAnyDepthIsLogged) {
  Machine machine;
  machine.application.config()->SetValue_Integer(Config_log_level,
                                                 Log_FunctionParameter | Log_FunctionReturnValue);
  machine.Assemble(
      Script("pushg root\npoprg cur\n"
             "again: pushg cur\npushc \"m\"\nmemb\npoprg cur\nincg i, 1\ncmpgi i, 100000\n"
             "jmp_lt again\npushi 5\npopg cur\npushg root\ncall f\npop",
             ".function f(a)\npushl a\nret"));
  EXPECT_EQ(machine.Go(), 1);
  ASSERT_EQ(machine.application.log.size(), 2u);
  EXPECT_NE(machine.application.log[0].find("|f|a|(5)"), std::string::npos);
  EXPECT_NE(machine.application.log[1].find("|f|(5)"), std::string::npos);
}

}  // namespace
