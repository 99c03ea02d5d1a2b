#include "base/machine/Commerce.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "base/host/TagErrors.h"
#include "tests/support/LibraryFixture.h"
#include "tests/support/Machine.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

// A machine and the method "pay", whose functions are the test's. Each call is noted: its name and
// what it gets.
class CommerceTest : public LibraryFixture {
 protected:
  CommerceTest() : shipped(DefaultErrorSetting(Tag_Commerce)) {
    // As shipped, an error of the tag ends the script.
    SetDefaultErrorSetting(Tag_Commerce, TagError_Display);
    current = this;
    machine.application.SetLibraryManager(&libraries);
    Exported<void*>("fake_commerce_table") = &table;
    machine.commerce_libraries.RegisterDSO("pay", fake.c_str());
  }
  ~CommerceTest() override {
    machine.Close();
    current = nullptr;
    SetDefaultErrorSetting(Tag_Commerce, shipped);
  }

  // Runs a loop that writes "[", the results in the variable r, each in brackets, "]", and the
  // tag's error.
  int Run(const std::string& method = "pay", const std::string& body = "") {
    used->Assemble(
        "pushc \"[\"\nout\n"
        "pushc \"" +
        method +
        "\"\npushc \"charge\"\npushc \"a,b\"\nop_commerce end\n"
        "round:\npushc \"(\"\nout\npushg r\nout\npushc \")\"\nout\n" +
        body +
        "op_commerce_loop round\nend:\npushc \"]\"\nout\n"
        "exit\n"
        ".function leave()\nop_commerce_stop over\nover:\npushc \"\"\nret\n.end\n"
        ".function again()\nback:\nop_commerce_loop back\npushc \"\"\nret\n.end\n"
        ".function greet()\npushc \"hello\"\nout\npushc \"\"\nret\n.end\n");
    return used->Go();
  }
  // Stores a result.
  void Give(int result) { machine.vm().Lookup_Variable("g.r", -1)->SetValue_Integer(result); }
  static std::string ListText(VariableList* list) {
    std::string text;
    for (Variable* v = list->First(); v; v = list->Next()) {
      text += (text.empty() ? "" : ",") + Text(v->name()) + "=" + Machine::Text(*v);
    }
    return text;
  }

  Machine machine;
  Machine* used = &machine;  // by Run
  std::vector<std::string> calls;
  std::function<int()> init = [] { return 0; };
  std::function<int(int)> loop = [](int) { return 2; };
  // Called by the library's functions of these names.
  std::function<void()> error = [] {};
  std::function<void()> cleanup = [] {};
  const char* message = "declined & <why>";

 private:
  static int Init(ZPPROGRAM, void** state, const char* method, const char* action,
                  ZPVARIABLELIST fields, ZPVARIABLEHASH system) {
    EXPECT_EQ(*state, nullptr);
    EXPECT_EQ(system, &current->used->system);
    *state = current;
    current->calls.push_back(std::string("init ") + method + " " + action + " " + ListText(fields));
    return current->init();
  }
  static int Loop(ZPPROGRAM program, void** state, const char* method, const char*, ZPVARIABLELIST,
                  ZPVARIABLEHASH, int index) {
    EXPECT_EQ(*state, current);
    EXPECT_EQ(program, &current->used->vm());
    current->calls.push_back(std::string("loop ") + method + " " + std::to_string(index));
    return current->loop(index);
  }
  static void Cleanup(ZPPROGRAM program, void** state, const char*, const char* action,
                      ZPVARIABLELIST fields) {
    EXPECT_EQ(*state, current);
    current->calls.push_back(std::string("cleanup ") + action);
    EXPECT_EQ(fields->Entries(), 2);
    current->cleanup();
    // The machine still works, also at its end.
    program->Lookup_Variable("l.x", -1);
    VariableList all;
    program->CurrentFrame()->variables->AllocatedVars(&all);
  }
  static const char* ErrorText(ZPPROGRAM, void**, const char*, const char*, ZPVARIABLELIST) {
    current->calls.push_back("error");
    current->error();
    return current->message;
  }

  const int shipped;
  static inline CommerceTest* current = nullptr;
  _ZP_EL_Commerce table = {nullptr, Init, Loop, Cleanup, ErrorText};
};

TEST_F(CommerceTest, EveryRoundOfTheLoopIsOneResult) {
  loop = [this](int index) {
    if (index == 3) return 2;
    Give(index * 10);
    return 0;
  };
  EXPECT_EQ(Run(), 1) << machine.Error();
  EXPECT_EQ(machine.Output(), "[(0)(10)(20)]");
  EXPECT_THAT(calls, ElementsAre("init pay charge a=,b=", "loop pay 0", "loop pay 1", "loop pay 2",
                                 "loop pay 3", "cleanup charge"));
  EXPECT_EQ(machine.StackText(), "");
}

TEST_F(CommerceTest, AMethodWithoutALibrarySkipsTheBodyAndLeavesTheMessage) {
  EXPECT_EQ(Run("steal"), 1);
  EXPECT_THAT(machine.Output(), StartsWith("["));
  EXPECT_THAT(machine.Output(), testing::EndsWith("]"));
  EXPECT_THAT(machine.Output(),
              HasSubstr("ZpCOMMERCE: Commerce method 'steal' is unsupported or not configured"));
  EXPECT_EQ(machine.Value("ZpCOMMERCE_Error"),
            "Commerce method 'steal' is unsupported or not configured");
  EXPECT_THAT(calls, ElementsAre());
}

TEST_F(CommerceTest, AFileThatCannotBeLoadedIsReportedByTheTag) {
  machine.commerce_libraries.RegisterDSO("gone", "/nonexistent/gone.so");
  EXPECT_EQ(Run("gone"), 1);
  EXPECT_THAT(machine.Value("ZpCOMMERCE_Error"), StartsWith("/nonexistent/gone.so: "));
}

TEST_F(CommerceTest, ThreeOfTheFourFunctionsFailWithTheDescriptorMessage) {
  machine.commerce_libraries.RegisterDSO("partial",
                                         TestLibraryPath("FakeCommerceIncomplete").c_str());
  EXPECT_EQ(Run("partial"), 1);
  EXPECT_EQ(machine.Value("ZpCOMMERCE_Error"),
            "Unable to load commerce library descriptor table/functions");
}

TEST_F(CommerceTest, AnInitThatFailsIsAnErrorOfTheTagAndCleansUp) {
  init = [] { return 5; };
  EXPECT_EQ(Run(), 1);
  EXPECT_EQ(machine.Value("ZpCOMMERCE_Error"), "declined &amp; &lt;why&gt;");
  EXPECT_THAT(machine.Output(), testing::EndsWith("declined &amp; &lt;why&gt;\n]"));
  EXPECT_THAT(calls, ElementsAre("init pay charge a=,b=", "error", "cleanup charge"));
}

TEST_F(CommerceTest, AnInitThatFailsWithoutATextHasAnEmptyOne) {
  init = [] { return 1; };
  message = nullptr;
  EXPECT_EQ(Run(), 1);
  EXPECT_THAT(machine.Output(), HasSubstr("ZpCOMMERCE: \n]"));
}

TEST_F(CommerceTest, AFirstResultOfTwoSkipsTheBodyWithoutAnError) {
  EXPECT_EQ(Run(), 1);
  EXPECT_EQ(machine.Output(), "[]");
  EXPECT_EQ(machine.Value("ZpCOMMERCE_Error"), "(none)");
  EXPECT_THAT(calls, ElementsAre("init pay charge a=,b=", "loop pay 0", "cleanup charge"));
}

TEST_F(CommerceTest, AnyOtherResultEndsTheLoopWithoutAnError) {
  for (const int result : {-1, 3}) {
    for (const int round : {0, 1}) {
      SCOPED_TRACE(testing::Message() << result << " in round " << round);
      Machine each;
      each.application.SetLibraryManager(&libraries);
      each.commerce_libraries.RegisterDSO("pay", fake.c_str());
      used = &each;
      calls.clear();
      loop = [&](int index) {
        each.vm().Lookup_Variable("g.r", -1)->SetValue_Integer(index);
        return index == round ? result : 0;
      };
      EXPECT_EQ(Run(), 1);
      EXPECT_EQ(each.Output(), round == 0 ? "[]" : "[(0)]");
      EXPECT_EQ(each.Value("ZpCOMMERCE_Error"), "(none)");
      EXPECT_EQ(calls.back(), "cleanup charge");
      EXPECT_EQ(calls.size(), round == 0 ? 3u : 4u);
      each.Close();
    }
  }
  used = &machine;
}

TEST_F(CommerceTest, WithoutItsTextsOnTheStackNothingBegins) {
  for (const char* pushed : {"", "pushc \"a\"\n", "pushc \"pay\"\npushc \"a\"\n"}) {
    Machine each;
    each.application.SetLibraryManager(&libraries);
    each.commerce_libraries.RegisterDSO("pay", fake.c_str());
    each.Assemble(std::string(pushed) + "op_commerce end\nend:\n");
    EXPECT_EQ(each.Go(), 0);
    EXPECT_EQ(each.Failure(), "Stack underflow");
  }
  EXPECT_THAT(calls, ElementsAre());
}

// The script ends after the instruction, which is done all the same: a transaction that the library
// has begun is also cleaned up.
TEST_F(CommerceTest, AWrongNameInTheFieldListEndsTheScriptAfterTheFirstRound) {
  loop = [](int) { return 0; };
  machine.Assemble(
      "pushc \"pay\"\npushc \"charge\"\npushc \"a,b[\"\nop_commerce end\n"
      "round:\npushc \"body\"\nout\nop_commerce_loop round\nend:\npushg a\npop\n");
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_THAT(calls, ElementsAre("init pay charge a=,b[=", "loop pay 0"));
  machine.Close();
  EXPECT_EQ(calls.back(), "cleanup charge");
}

// An error of the tag says whether the script goes on, also after an earlier failure.
TEST_F(CommerceTest, AWrongNameInTheFieldListAndAnInitThatFailsAreTheErrorOfTheTag) {
  init = [] { return 1; };
  machine.Assemble(
      "pushc \"pay\"\npushc \"charge\"\npushc \"a,b[\"\nop_commerce end\n"
      "end:\npushg a\npop\npushc \"past\"\nout\n");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_THAT(machine.Output(), testing::EndsWith("past"));
  EXPECT_THAT(calls, ElementsAre("init pay charge a=,b[=", "error", "cleanup charge"));
}

// The text stays with the loop: the script goes on as after the last result.
TEST_F(CommerceTest, AFailureOnALaterRoundEndsTheLoopAfterTheErrorIsTaken) {
  loop = [this](int index) {
    Give(index);
    return index == 1 ? 1 : 0;
  };
  EXPECT_EQ(Run(), 1);
  EXPECT_EQ(machine.Output(), "[(0)]");
  EXPECT_EQ(machine.Value("ZpCOMMERCE_Error"), "(none)");
  EXPECT_THAT(calls, ElementsAre("init pay charge a=,b=", "loop pay 0", "loop pay 1", "error",
                                 "cleanup charge"));
}

TEST_F(CommerceTest, AFailureOnTheFirstRoundSkipsTheBody) {
  loop = [](int) { return 1; };
  EXPECT_EQ(Run(), 1);
  EXPECT_EQ(machine.Output(), "[]");
  EXPECT_THAT(calls, ElementsAre("init pay charge a=,b=", "loop pay 0", "error", "cleanup charge"));
}

TEST_F(CommerceTest, ABeginningClearsTheErrorOfTheTag) {
  machine.Assemble(
      "pushc \"old\"\npopg ZpCOMMERCE_Error\npushc \"pay\"\npushc \"x\"\npushc \"a,b\"\n"
      "op_commerce end\nend:\npushg a\npop\npushg b\npop\n");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Value("ZpCOMMERCE_Error"), "");
}

TEST_F(CommerceTest, TheFieldsAreTheScriptsVariables) {
  init = [this] {
    machine.vm().Lookup_Variable("g.a", -1)->SetValue("from the library", -1);
    return 0;
  };
  machine.Assemble(
      "pushc \"1\"\npopg a\npushc \"PAY\"\npushc \"x\"\npushc \"a, b\"\nop_commerce end\n"
      "end:\npushg a\nout\npushg b\npop\n");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Output(), "from the library");
  EXPECT_EQ(calls[0], "init PAY x a=1,b=");
}

TEST_F(CommerceTest, StopLeavesTheLoop) {
  loop = [this](int index) {
    Give(index);
    return 0;
  };
  EXPECT_EQ(Run("pay", "pushg r\npushi 2\neq\njmp_eq next\nop_commerce_stop end\nnext:\n"), 1);
  EXPECT_THAT(machine.Output(), StartsWith("[(0)"));
  EXPECT_THAT(machine.Output(), testing::EndsWith(")]"));
  EXPECT_EQ(calls.back(), "cleanup charge");
}

TEST_F(CommerceTest, LoopAndStopWithoutALoopAreFatal) {
  for (const char* code : {"op_commerce_loop end\nend:\n", "op_commerce_stop end\nend:\n"}) {
    Machine other;
    other.Assemble(code);
    EXPECT_EQ(other.Go(), 0);
    EXPECT_EQ(other.Failure(), "Invalid instruction");
  }
}

TEST_F(CommerceTest, AScriptThatEndsInTheLoopCleansUpAtTheMachinesEnd) {
  loop = [this](int index) {
    Give(index);
    return 0;
  };
  EXPECT_EQ(Run("pay", "exit\n"), 1);
  EXPECT_EQ(calls.back(), "loop pay 0");
  machine.Close();
  EXPECT_EQ(calls.back(), "cleanup charge");
}

TEST_F(CommerceTest, NestedLoopsAreContinuedFromTheInside) {
  loop = [this](int index) {
    Give(index);
    return index < 2 ? 0 : 2;
  };
  machine.Assemble(
      "pushc \"pay\"\npushc \"one\"\npushc \"a,b\"\nop_commerce end\nround:\n"
      "pushc \"pay\"\npushc \"two\"\npushc \"a,b\"\nop_commerce inner_end\ninner:\n"
      "pushg r\nout\nop_commerce_loop inner\ninner_end:\npushc \"|\"\nout\n"
      "op_commerce_loop round\nend:\npushg a\npop\npushg b\npop\n");
  EXPECT_EQ(machine.Go(), 1) << machine.Error();
  EXPECT_EQ(machine.Output(), "01|01|");
}

// The code that a library calls in one of its functions.
class CommerceCallbackTest
    : public CommerceTest,
      public testing::WithParamInterface<std::tuple<const char*, const char*>> {
 protected:
  // Lets that function call that function of the script; returns what Run returns.
  int RunWith(const std::string& function, const char* called, int result) {
    const auto call = [this, called, result] {
      VariableList none;
      EXPECT_EQ(machine.vm().RunFunction(called, -1, &none, nullptr), result);
      called_back++;
    };
    init = [=] {
      if (function == "init") call();
      return 0;
    };
    loop = [=, this](int index) {
      Give(index);
      if (function == "loop" && index == 1) call();
      return index == 0 ? 0 : function == "error" ? 1 : 2;
    };
    if (function == "error") error = call;
    if (function == "cleanup") cleanup = call;
    return Run();
  }

  int called_back = 0;
};

// It cannot end or continue the loop that the library is working for.
TEST_P(CommerceCallbackTest, CannotTouchTheLoop) {
  const auto& [function, called] = GetParam();
  EXPECT_EQ(RunWith(function, called, 0), 0);
  EXPECT_EQ(called_back, 1);
  EXPECT_EQ(machine.Failure(), "Invalid instruction");
  machine.Close();
  EXPECT_EQ(calls.back(), "cleanup charge");
}

INSTANTIATE_TEST_SUITE_P(Functions, CommerceCallbackTest,
                         testing::Combine(testing::Values("init", "loop", "error", "cleanup"),
                                          testing::Values("leave", "again")));

class CommerceScriptTest : public CommerceCallbackTest {};

TEST_P(CommerceScriptTest, MayDoAnythingElse) {
  const auto& [function, called] = GetParam();
  EXPECT_EQ(RunWith(function, called, 1), 1) << machine.Error();
  EXPECT_EQ(called_back, 1);
  EXPECT_THAT(machine.Output(), HasSubstr("hello"));
  EXPECT_THAT(machine.Output(), testing::EndsWith("]"));
  EXPECT_EQ(calls.back(), "cleanup charge");
  EXPECT_EQ(machine.StackText(), "");
}

INSTANTIATE_TEST_SUITE_P(Functions, CommerceScriptTest,
                         testing::Combine(testing::Values("init", "loop", "error", "cleanup"),
                                          testing::Values("greet")));

}  // namespace
