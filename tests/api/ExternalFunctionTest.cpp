// Calls of functions of libraries, many in a run: each finds its arguments as the first one did,
// whatever the calls before have left.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "api/zeph.h"
#include "base/compiled/Segment.h"
#include "base/extensions/ExternalCall.h"
#include "base/host/HTTPOutput.h"
#include "base/values/Variable.h"
#include "tests/support/Machine.h"

namespace {

using Body = void (*)(ZPPROGRAM, ZPVARIABLEHASH, ZPVARIABLE, void**);

// A machine with two functions of a library: "f" has one parameter by value, "r" one by reference
// and one by value.
class LibraryMachine {
 public:
  explicit LibraryMachine(const std::string& code, Body f, Body r = Nothing)
      : rows{{"f", 1, 1, &value, f}, {"r", 1, 2, both, r}}, calls{rows[0], rows[1]} {
    machine.Assemble(code + "\n.function f(a) external\n.function r(a var, b) external\n.end\n");
    machine.functions.Function_Get("f", 1)->calldata = &calls.f;
    machine.functions.Function_Get("r", 1)->calldata = &calls.r;
  }
  ~LibraryMachine() { machine.Close(); }

  static void Nothing(ZPPROGRAM, ZPVARIABLEHASH, ZPVARIABLE, void**) {}

  _ZP_EL_Parameter value = {"a", 1, 0};
  _ZP_EL_Parameter both[2] = {{"a", 1, _ZP_EL_ByReference}, {"b", 1, 0}};
  _ZP_EL_Function rows[2];
  struct Calls {
    Calls(_ZP_EL_Function& f_row, _ZP_EL_Function& r_row) : f(&f_row), r(&r_row) {}
    ExternalCall f, r;
  } calls;
  Machine machine;
};

std::string ValueOf(ZPVARIABLE variable) {
  int length = 0;
  const char* const text = zpVariable_Value(variable, &length);
  return text ? std::string(text, static_cast<size_t>(length)) : "(null)";
}

// Returns what a library can see of its parameters. Reads them as texts only, because a text that
// is also read as a number is not kept.
void Describe(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void**) {
  if (!program) return;
  std::string seen = "[" + std::to_string(zpVariableHash_Entries(parameters));
  for (int i = 0; i < zpVariableHash_Entries(parameters); i++) {
    ZPVARIABLE parameter = zpVariableHash_Index(parameters, i, 0);
    if (!parameter) {
      seen += " none";
      continue;
    }
    seen += " " + std::to_string(zpVariable_Type(parameter));
    int length = -1;
    const char* const text = zpVariable_Value(parameter, &length);
    if (text && text[length] != '\0') seen += " unterminated";
    seen += ":" + ValueOf(parameter);
  }
  seen += "]";
  zpVariable_SetValue(result, seen.data(), static_cast<int>(seen.size()));
}

// A page in small blocks, some of which go out early.
class Page : public HTTPOutput {
 public:
  Page() : HTTPOutput(64, 1500) {}
  void OutputHeaders() override {}
  int DoWrite(const char* text, int length) override {
    body.append(text, static_cast<size_t>(length));
    return length;
  }
  std::string body;
};

// Runs a script whose output is a page, which holds room open, and returns that.
std::string RunToPage(LibraryMachine* library) {
  Page page;
  Output* const before = library->machine.application.SetOutput(&page);
  library->machine.Go();
  page.Flush();
  library->machine.application.SetOutput(before);
  return page.body;
}

// What a script writes, once with tables of earlier calls and once with fresh ones.
void ExpectSameWithFreshTables(const std::string& code, Body f, Body r = LibraryMachine::Nothing) {
  std::string outputs[2], errors[2];
  for (const bool reuse : {false, true}) {
    LibraryMachine library(code, f, r);
    library.machine.vm().SetFrameReuse(reuse);
    library.machine.Go();
    outputs[reuse] = library.machine.Output();
    errors[reuse] = library.machine.Error();
  }
  EXPECT_EQ(outputs[true], outputs[false]) << code;
  EXPECT_EQ(errors[true], errors[false]) << code;
  EXPECT_NE(outputs[false], "");
  LibraryMachine library(code, f, r);
  EXPECT_EQ(RunToPage(&library), outputs[false]) << code;
}

// --- Arguments -----------------------------------------------------------------------------------

TEST(ExternalFunction, ArgumentsOfEveryKindAfterEveryOther) {
  const std::string long_text(300, 'l');
  const std::vector<std::string> arguments = {
      "pushi 42\n",
      "pushf 1.5\n",
      "pushc \"\"\n",
      "pushc \"constant\"\n",
      "pushc \"" + long_text + "\"\n",
      "pushc \"de\"\npushi 7\ncat\n",                                      // deferred
      "pushc \"ch\"\npushi 7\ncat\npushc \"ained\"\ncat\n",                // chained
      "pushc \"" + long_text + "\"\npopg t\npushg t\npushc \"x\"\ncat\n",  // grows a variable
      "pushg t\npushg t\ncat\npushg t\ncat\n",
      "pushc \"text\"\npopg v\npushg v\n",
      "pushc \"12\"\npopg v\npushg v\npushi 1\nadd\npop\npushg v\n",  // text and number
      "storegi v, 5\npushg v\n",
      "pushf 2.5\npopg v\npushg v\n",
      "pushg never\n",
      "pushc \"e\"\npushg list\npushi 1\nelem\nstore\npushg list\n",
  };
  for (const std::string& one : arguments) {
    std::string code;
    for (const std::string& other : arguments) {
      code += one + "call f\nout\n" + other + "call f\nout\n";
    }
    ExpectSameWithFreshTables(code, Describe);
  }
}

TEST(ExternalFunction, ATextGrowsAndShrinks) {
  // Lengths around the steps of the memory, up and down.
  std::string code = "pushc \"\"\npopg t\n";
  for (int i = 0; i < 3; i++) {
    for (const int length : {0, 1, 22, 23, 24, 25, 199, 200, 201, 4095, 4096, 4097, 20000, 2}) {
      code += "pushc \"" + std::string(static_cast<size_t>(length), 'a') + "\"\ncall f\nout\n";
      code += "pushc \"" + std::string(static_cast<size_t>(length), 'b') + "\"\npushi " +
              std::to_string(length) + "\ncat\ncall f\nout\n";
    }
  }
  ExpectSameWithFreshTables(code, Describe);
}

// The library makes more of its parameter than a text. The next call finds none of it.
TEST(ExternalFunction, WhatALibraryLeavesInItsParameterIsGone) {
  const Body changes[] = {
      [](ZPPROGRAM, ZPVARIABLEHASH, ZPVARIABLE, void**) {},
      [](ZPPROGRAM, ZPVARIABLEHASH parameters, ZPVARIABLE, void**) {
        zpVariable_SetValue_Integer(zpVariableHash_Index(parameters, 0, 1), 7);
      },
      [](ZPPROGRAM, ZPVARIABLEHASH parameters, ZPVARIABLE, void**) {
        ZPVARIABLE array = zpVariableHash_Index(parameters, 0, 1);
        zpVariable_SetValue(zpVariable_Array_Element(1, array, 1), "e", 1);
      },
      [](ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE, void**) {
        char* text = static_cast<char*>(zpProgram_Allocate(program, 3));
        text[0] = 'n';
        text[1] = 'c';
        zpVariable_SetValue_Nocopy(zpVariableHash_Index(parameters, 0, 1), text, 2, 3);
      },
      [](ZPPROGRAM, ZPVARIABLEHASH parameters, ZPVARIABLE, void**) {
        zpVariable_SetValue_Nocopy(zpVariableHash_Index(parameters, 0, 1), nullptr, 0, 0);
      },
      [](ZPPROGRAM, ZPVARIABLEHASH parameters, ZPVARIABLE, void**) {
        zpVariableHash_SetVariable(parameters, "more", -1, "1", -1);
      },
      [](ZPPROGRAM, ZPVARIABLEHASH parameters, ZPVARIABLE, void**) {
        zpVariable_Name(zpVariableHash_Index(parameters, 0, 1), nullptr);
      },
      [](ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE, void**) {
        zpVariable_Make_Reference(zpVariableHash_Index(parameters, 0, 1),
                                  zpProgram_Lookup_Variable(program, "kept", -1));
      },
  };
  for (const Body change : changes) {
    static Body current;
    current = change;
    ExpectSameWithFreshTables(
        ".global kept\npushc \"kept\"\npopg kept\n"
        "pushc \"first\"\ncall f\nout\npushc \"se\"\npushi 2\ncat\ncall f\nout\n"
        "pushi 3\ncall f\nout\npushg never\ncall f\nout\npushc \"last\"\ncall f\nout\n"
        "pushg kept\nout\n",
        [](ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void** state) {
          if (!program) return;
          Describe(program, parameters, result, state);
          current(program, parameters, result, state);
        });
  }
}

// A variable whose text is null gives a parameter without text, not the text of the call before.
TEST(ExternalFunction, ATextThatIsNullUncoversNoEarlierOne) {
  LibraryMachine library(
      ".global v\npushc \"secret\"\ncall f\npop\npushg v\npushi 1\ncall r\npop\npushg v\ncall "
      "f\nout\n",
      Describe, [](ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE, void**) {
        if (!program) return;
        zpVariable_SetValue_Nocopy(zpVariableHash_Index(parameters, 0, 1), nullptr, 0, 0);
      });
  EXPECT_EQ(library.machine.Go(), 1);
  EXPECT_EQ(library.machine.Output(), "[1 3:(null)]");
}

TEST(ExternalFunction, AParameterByReferenceIsTheCallersVariableInEachCall) {
  LibraryMachine library(
      ".global x\n.global y\npushc \"x\"\npopg x\npushc \"y\"\npopg y\n"
      "pushg x\npushc \"1\"\ncall r\nout\npushg y\npushc \"2\"\ncall r\nout\n"
      "pushg x\npushg x\ncall r\nout\n",
      LibraryMachine::Nothing,
      [](ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void**) {
        if (!program) return;
        ZPVARIABLE a = zpVariableHash_Index(parameters, 0, 1);
        ZPVARIABLE b = zpVariableHash_Index(parameters, 1, 1);
        const std::string text = ValueOf(a) + "+" + ValueOf(b);
        zpVariable_SetValue(a, text.data(), static_cast<int>(text.size()));
        const std::string after = "(" + ValueOf(a) + "," + ValueOf(b) + ")";
        zpVariable_SetValue(result, after.data(), static_cast<int>(after.size()));
      });
  EXPECT_EQ(library.machine.Go(), 1);
  EXPECT_EQ(library.machine.Output(), "(x+1,1)(y+2,2)(x+1+x+1,x+1)");
  EXPECT_EQ(library.machine.Value("x"), "x+1+x+1");
  EXPECT_EQ(library.machine.Value("y"), "y+2");
}

// --- Results -------------------------------------------------------------------------------------

void Echo(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void**) {
  if (!program) return;
  const std::string text = ValueOf(zpVariableHash_Index(parameters, 0, 1));
  zpVariable_SetValue(result, text.data(), static_cast<int>(text.size()));
}

TEST(ExternalFunction, AResultThatIsHeldStaysWhileTheFunctionRunsAgain) {
  ExpectSameWithFreshTables(
      "pushc \"one\"\ncall f\npushc \"two\"\ncall f\npushc \"three\"\ncall f\n"
      "cat\ncat\nout\npushc \"four\"\ncall f\nout\n",
      Echo);
  LibraryMachine library(
      "pushc \"one\"\ncall f\npushc \"two\"\ncall f\npushc \"three\"\ncall f\n"
      "cat\ncat\nout\npushc \"four\"\ncall f\nout\n",
      Echo);
  EXPECT_EQ(library.machine.Go(), 1);
  EXPECT_EQ(library.machine.Output(), "onetwothreefour");
}

TEST(ExternalFunction, AResultThatRefersToTheParameterKeepsIt) {
  LibraryMachine library(
      "pushc \"one\"\ncall f\npushc \"two\"\ncall f\npushc \"three\"\ncall f\ncat\ncat\nout\n",
      [](ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void**) {
        if (program) zpVariable_Make_Reference(result, zpVariableHash_Index(parameters, 0, 1));
      });
  EXPECT_EQ(library.machine.Go(), 1);
  EXPECT_EQ(library.machine.Output(), "onetwothree");
}

// Counts down through the script: f(3) runs the script's "again", which calls f(2).
void CountDown(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void**) {
  if (!program) return;
  ZPVARIABLE a = zpVariableHash_Index(parameters, 0, 1);
  const std::string before = ValueOf(a);
  std::string text = before;
  if (zpVariable_Value_Double(a) > 0) {
    ZPVARIABLE inner = zpVariable_Allocate(nullptr, 0, nullptr, 0);
    ZPVARIABLELIST arguments = zpVariableList_Allocate();
    zpVariableList_Insert(arguments, a);
    EXPECT_EQ(zpProgram_RunFunction(program, "again", -1, arguments, inner), 1);
    text += ValueOf(inner);
    zpVariable_Free(inner);
    zpVariableList_Free(arguments);
  }
  // The inner calls have left this one's parameter and result alone.
  text += ValueOf(a) == before ? "." : "!";
  zpVariable_SetValue(result, text.data(), static_cast<int>(text.size()));
}

// --- Calls in a loop, which is decoded -----------------------------------------------------------

// A result of each kind in turn, after the argument was read.
void ResultsInTurn(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void** state) {
  if (!program) {
    delete static_cast<int*>(*state);
    return;
  }
  if (!*state) *state = new int(0);
  const std::string text = "<" + ValueOf(zpVariableHash_Index(parameters, 0, 1)) + ">";
  switch (++*static_cast<int*>(*state) % 8) {
    case 0: return;  // NULL
    case 1: zpVariable_SetValue_Integer(result, -12); return;
    case 2: zpVariable_SetValue_Double(result, 2.5); return;
    case 3: zpVariable_SetValue(result, "", 0); return;
    case 4: zpVariable_SetValue(zpVariable_Array_Element(2, result, 1), "second", -1); return;
    case 5: zpVariable_Make_Reference(result, zpVariableHash_Index(parameters, 0, 1)); return;
    case 6: zpProgram_Output(program, "written", -1); [[fallthrough]];
    default: zpVariable_SetValue(result, text.data(), static_cast<int>(text.size()));
  }
}

std::string InALoop(const std::string& body, int rounds = 100) {
  return "pushc \"some text\"\npopg t\npushf 0.25\npopg d\npushc \"\"\npopg e\n"
         "storegi n, 0\nagain:\n" +
         body + "incg n, 1\ncmpgi n, " + std::to_string(rounds) + "\njmp_lt again\nexit\n";
}

TEST(ExternalFunction, ResultsOfEveryKindAreWrittenStoredAndJoined) {
  const std::string long_text(300, 'l');
  const std::string arguments[] = {
      "pushc \"n\"\npushg n\ncat\n",
      "pushc \"\"\npushg t\ncat\n",
      "pushc \"d\"\npushg d\ncat\n",
      "pushc \"e\"\npushg e\ncat\n",
      "pushc \"\"\npushg e\ncat\n",
      "pushc \"never\"\npushg x\ncat\n",
      "pushc \"" + long_text + "\"\npushg n\ncat\n",
      "pushc \"of a reference\"\npushg list\npushi 1\nelem\npop\npushg list\ncat\n",
      "pushg n\n",
      "pushg t\n",
      "pushg d\n",
      "pushc \"c\"\n",
      "pushi 7\n",
      "pushg x\n"};
  const char* const uses[] = {"out\n",
                              "popg r\npushg r\nout\n",
                              "pushc \";\"\ncat\nout\n",
                              "popg held\npushg held\npushg held\ncat\nout\n",
                              "pop\n",
                              "pushi 1\nadd\nout\n"};
  for (const std::string& argument : arguments) {
    std::string body;
    for (const char* use : uses) {
      body += argument + "call f\n" + use + "pushc \" \"\nout\n";
      body += "pushg never\n" + argument + "call r\n" + use;
    }
    ExpectSameWithFreshTables(InALoop(body), ResultsInTurn, Describe);
  }
}

TEST(ExternalFunction, AResultGoesToTheOutputWithoutAnEntry) {
  LibraryMachine library(InALoop("pushc \"a\"\npushg n\ncat\ncall f\nout\npushg t\ncall f\nout\n"),
                         Echo);
  EXPECT_EQ(library.machine.Go(), 1) << library.machine.Error();
  std::string expected;
  for (int i = 0; i < 100; i++) expected += "a" + std::to_string(i) + "some text";
  EXPECT_EQ(library.machine.Output(), expected);
}

// Results and numbers around the end of the output's room, in a capture too.
TEST(ExternalFunction, ResultsOfEveryLengthFillTheOutput) {
  const std::string step(97, 'x');
  for (const char* around : {"", "pushg all\ncapture\n"}) {
    std::string code = InALoop("pushg t\npushc \"" + step +
                               "\"\ncat\npopg t\npushg t\ncall f\nout\n"
                               "pushg n\nout\npushg d\npushi 2\nrounds\nout\n"
                               "pushc \"j\"\npushg n\ncat\ncall f\nout\n");
    code.insert(code.find("storegi"), around);
    if (*around) code.insert(code.rfind("exit"), "capture_end\npushg all\nout\n");
    LibraryMachine library(code, Echo);
    EXPECT_EQ(library.machine.Go(), 1) << library.machine.Error();
    std::string expected, t = "some text";
    for (int i = 0; i < 100; i++) {
      t += step;
      expected += t + std::to_string(i) + "0.25" + "j" + std::to_string(i);
    }
    EXPECT_EQ(library.machine.Output(), expected);
    LibraryMachine other(code, Echo);
    EXPECT_EQ(RunToPage(&other), expected);
  }
}

// Returns "result", but with the argument "k50" fails or, by a function of the script, ends it.
template <bool fails>
void EndAtFifty(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void**) {
  if (!program) return;
  zpVariable_SetValue(result, "result ", -1);
  if (ValueOf(zpVariableHash_Index(parameters, 0, 1)) != "k50") return;
  if (fails) {
    zpProgram_FatalError(program, "failed", -1);
    return;
  }
  ZPVARIABLE unused = zpVariable_Allocate(nullptr, 0, nullptr, 0);
  ZPVARIABLELIST arguments = zpVariableList_Allocate();
  zpProgram_RunFunction(program, "ends", -1, arguments, unused);
  zpVariable_Free(unused);
  zpVariableList_Free(arguments);
}

TEST(ExternalFunction, ACallInALoopEndsTheScript) {
  const std::string code =
      InALoop("pushc \"k\"\npushg n\ncat\ncall f\nout\n") + ".function ends()\nexit\n.end\n";
  for (const Body end : {EndAtFifty<true>, EndAtFifty<false>}) {
    ExpectSameWithFreshTables(code, end);
    LibraryMachine library(code, end);
    library.machine.Go();
    std::string expected;
    for (int i = 0; i < 50; i++) expected += "result ";
    const std::string output = library.machine.Output();
    EXPECT_EQ(output.substr(0, expected.size()), expected);
    EXPECT_EQ(output.find("result", expected.size()), std::string::npos);
    EXPECT_EQ(library.machine.Value("n"), "50");
  }
}

TEST(ExternalFunction, CallsWithinCallsInALoop) {
  const std::string code =
      InALoop(
          "pushc \"\"\npushg three\ncat\ncall f\nout\npushc \"1\"\npushg e\ncat\ncall f\nout\n") +
      ".function again(n)\npushl n\npushi 1\nsub\npushc \"\"\ncat\ncall f\nret\n.end\n";
  LibraryMachine library("storegi three, 3\n" + code, CountDown);
  EXPECT_EQ(library.machine.Go(), 1) << library.machine.Error();
  std::string expected;
  for (int i = 0; i < 100; i++) expected += "3210....10..";
  EXPECT_EQ(library.machine.Output(), expected);
}

// --- Calls within calls --------------------------------------------------------------------------

TEST(ExternalFunction, ACallWithinACallHasParametersOfItsOwn) {
  const std::string code =
      "pushc \"3\"\ncall f\nout\npushc \"1\"\ncall f\nout\npushc \"5\"\ncall f\nout\nexit\n"
      ".function again(n)\npushl n\npushi 1\nsub\npushc \"\"\ncat\ncall f\nret\n.end\n";
  LibraryMachine library(code, CountDown);
  EXPECT_EQ(library.machine.Go(), 1) << library.machine.Error();
  EXPECT_EQ(library.machine.Output(), "3210....10..543210......");
}

// --- Failures ------------------------------------------------------------------------------------

TEST(ExternalFunction, ACallFailsAfterOneThatDidNot) {
  struct Case {
    const char* code;
    const char* message;
  };
  const Case cases[] = {
      {"pushg x\npushi 1\ncall r\nout\npushi 1\npushi 2\ncall r\nout",
       "Expected variable, found constant"},
      {"pushc \"ok\"\ncall f\nout\ncall f\nout", "Stack underflow"},
      {"pushg x\npushi 1\ncall r\nout\npushi 1\ncall r\nout", "Stack underflow"},
      {"pushc \"ok\"\ncall f\nout\npushc \"fail\"\ncall f\nout", "failed"},
  };
  for (const Case& c : cases) {
    LibraryMachine library(
        ".global x\n" + std::string(c.code),
        [](ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void**) {
          if (!program) return;
          if (ValueOf(zpVariableHash_Index(parameters, 0, 1)) == "fail") {
            zpProgram_FatalError(program, "failed", -1);
          }
          zpVariable_SetValue(result, "done ", -1);
        },
        [](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE result, void**) {
          if (program) zpVariable_SetValue(result, "done ", -1);
        });
    EXPECT_EQ(library.machine.Go(), 0);
    EXPECT_EQ(library.machine.Output().substr(0, 5), "done ") << c.code;
    EXPECT_EQ(library.machine.Failure(), c.message) << c.code;
  }
}

// The arguments after the one that differs are taken first, and their failure is reported.
TEST(ExternalFunction, AParameterThatIsDeclaredOtherwise) {
  for (const bool later_fails : {false, true}) {
    LibraryMachine library(later_fails ? "call r" : ".global x\npushg x\npushi 1\ncall r",
                           LibraryMachine::Nothing);
    library.both[0].flags = 0;
    EXPECT_EQ(library.machine.Go(), 0);
    EXPECT_EQ(
        library.machine.Failure(),
        later_fails ? "Stack underflow" : "Parameter type mismatch in call to external function");
  }
}

TEST(ExternalFunction, OtherNumberOfParameters) {
  LibraryMachine library("pushi 1\ncall f", LibraryMachine::Nothing);
  library.rows[0].parametercount = 2;
  EXPECT_EQ(library.machine.Go(), 0);
  EXPECT_EQ(library.machine.Failure(),
            "Number of parameters mismatch in call to external function");
}

}  // namespace
