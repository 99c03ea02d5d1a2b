#include "api/zeph.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/api/ProgramFixture.h"
#include "tests/support/ScriptFiles.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class zpProgram : public ProgramFixture {
 protected:
  static std::string Value(ZPVARIABLE variable) {
    return variable ? TextOf(zpVariable_Value, variable) : "(none)";
  }
  static std::string Taken(char* text, int length) {
    std::string copy(text, static_cast<size_t>(length));
    EXPECT_EQ(text[length], '\0');
    zpProgram_Free(nullptr, text);
    return copy;
  }
  static std::vector<std::string> Names(ZPVARIABLELIST list) {
    std::vector<std::string> names;
    for (ZPVARIABLE v = zpVariableList_First(list); v; v = zpVariableList_Next(list)) {
      names.push_back(TextOf(zpVariable_Name, v));
    }
    return names;
  }
};

// --- Arguments and result ------------------------------------------------------------------------

TEST_F(zpProgram, FunctionGetsItsArgumentsAndGivesAResult) {
  first = [](ZPPROGRAM, ZPVARIABLEHASH parameters, ZPVARIABLE result) {
    ZPVARIABLE a = zpVariableHash_Find(parameters, "a", -1);
    ZPVARIABLE b = zpVariableHash_Find(parameters, "b", -1);
    EXPECT_EQ(Value(a), "value");
    EXPECT_EQ(Value(b), "before");
    zpVariable_SetValue(a, "changed", -1);
    zpVariable_SetValue(b, "after", -1);
    zpVariable_SetValue_Integer(result, 42);
  };
  EXPECT_EQ(Run("pushc \"before\"\npopg y\npushc \"value\"\npopg x\n"
                "pushg x\npushg y\ncall first\nout\n"
                "pushg x\nout\npushg y\nout\n"),
            1);
  EXPECT_EQ(output.text, "42valueafter");
}

TEST_F(zpProgram, ResultIsNULLUnlessItIsSet) {
  EXPECT_EQ(Call([](ZPPROGRAM, ZPVARIABLEHASH, ZPVARIABLE result) {
              EXPECT_EQ(zpVariable_Type(result), 0);
            }),
            1);
  EXPECT_EQ(output.text, "");
}

TEST_F(zpProgram, ResultOfAnEarlierCallKeepsItsValue) {
  int calls_made = 0;
  second = [&](ZPPROGRAM, ZPVARIABLEHASH, ZPVARIABLE result) {
    zpVariable_SetValue_Integer(result, ++calls_made);
  };
  EXPECT_EQ(Run("call second\ncall second\nout\nout\n"), 1);
  EXPECT_EQ(output.text, "21");
}

// Each call has its own variables and result, at any depth of recursion.
TEST_F(zpProgram, FunctionMayBeCalledWhileItRuns) {
  first = [](ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result) {
    ZPVARIABLE a = zpVariableHash_Find(parameters, "a", -1);
    const int depth = zpVariable_Value_Integer(a);
    if (depth > 0) {
      ZPVARIABLELIST arguments = zpVariableList_Allocate();
      zpVariableList_SetVariable(arguments, "depth", -1, std::to_string(depth - 1).c_str(), -1);
      EXPECT_EQ(zpProgram_RunFunction(program, "again", -1, arguments, nullptr), 1);
      zpVariableList_Free(arguments);
    }
    EXPECT_EQ(zpVariable_Value_Integer(a), depth);
    EXPECT_EQ(zpVariableHash_Find(parameters, "a", -1), a);
    zpVariable_SetValue_Integer(result, depth);
  };
  EXPECT_EQ(Run("pushi 3\npushg y\ncall first\nout\nexit\n"
                ".function again(depth)\npushl depth\npushg y\ncall first\nout\n"
                "pushc \"\"\nret\n.end\n"),
            1);
  EXPECT_EQ(output.text, "0123");
}

TEST_F(zpProgram, WhatAFunctionLeavesInItsTableIsGoneAtTheNextCall) {
  int calls_made = 0;
  first = [&](ZPPROGRAM, ZPVARIABLEHASH parameters, ZPVARIABLE) {
    calls_made++;
    EXPECT_EQ(zpVariableHash_Find(parameters, "left", -1), nullptr);
    EXPECT_EQ(Value(zpVariableHash_Find(parameters, "a", -1)), std::to_string(calls_made));
    zpVariableHash_SetVariable(parameters, "left", -1, "behind", -1);
    zpVariableHash_SetVariable(parameters, "a", -1, "changed", -1);
  };
  EXPECT_EQ(Run("pushi 1\npushg y\ncall first\npop\npushi 2\npushg y\ncall first\npop\n"
                "pushi 3\npushg y\ncall first\npop\npushg y\nout\n"),
            1);
  EXPECT_EQ(calls_made, 3);
  EXPECT_EQ(output.text, "");
}

// --- Variables -----------------------------------------------------------------------------------

TEST_F(zpProgram, LooksVariablesUpAsScriptsWriteThem) {
  second = [](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) {
    ZPVARIABLE y = zpProgram_Lookup_Variable(program, "y", -1);
    ASSERT_NE(y, nullptr);
    ZPVARIABLE member = zpVariable_Struct_Member("member", -1, y, 1);
    zpVariable_SetValue(zpVariable_Array_Element(2, member, 1), "deep", -1);
    EXPECT_EQ(Value(zpProgram_Lookup_Variable(program, "x", -1)), "1");
    EXPECT_EQ(Value(zpProgram_Lookup_Variable(program, "G.X and more", 3)), "1");
    EXPECT_EQ(Value(zpProgram_Lookup_Variable(program, "y:member[2]", -1)), "deep");
    EXPECT_EQ(zpProgram_Lookup_Variable(program, "s.nobody", -1), nullptr);
    ZPVARIABLE made = zpProgram_Lookup_Variable(program, "nobody", -1);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(zpVariable_Type(made), 0);
    EXPECT_EQ(zpVariableHash_Find(zpProgram_Global_VariableHash(program), "nobody", -1), made);
  };
  EXPECT_EQ(Run("pushi 1\npopg x\npushi 0\npopg y\ncall second\npop\n"), 1);
}

TEST_F(zpProgram, ListsTheVariablesThatThereAre) {
  second = [](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) {
    ZPVARIABLELIST list = zpVariableList_Allocate();
    zpProgram_Local_Variables(program, list);
    EXPECT_THAT(Names(list), ElementsAre("a", "b"));
    zpVariableList_Dump(list);
    zpProgram_Global_Variables(program, list);
    EXPECT_THAT(Names(list), ElementsAre("x"));
    zpVariableList_Dump(list);
    zpVariableHash_SetVariable(zpProgram_System_VariableHash(program), "site", -1, "s", -1);
    zpProgram_System_Variables(program, list);
    EXPECT_THAT(Names(list), ElementsAre("site"));
    zpVariableList_Free(list);
  };
  EXPECT_EQ(Run("pushi 1\npopg x\npushi 1\npushi 2\ncall inside\npop\nexit\n"
                ".function inside(a, b)\ncall second\nret\n.end\n"),
            1);
}

// No operation shows a local that only an earlier call had.
TEST_F(zpProgram, ListsAndFindsTheLocalsOfThisCallAlone) {
  std::string seen;
  second = [&seen](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) {
    ZPVARIABLELIST list = zpVariableList_Allocate();
    zpProgram_Local_Variables(program, list);
    for (const std::string& name : Names(list)) seen += name + " ";
    zpVariableList_Free(list);
    ZPVARIABLE found = zpProgram_Lookup_Variable(program, "x", -1);
    int length;
    seen += std::string(zpVariable_Value(found, &length)) + ";";
  };
  EXPECT_EQ(Run("pushc \"global\"\npopg x\npushi 0\ncall f\npop\npushi 1\ncall f\npop\n"
                "pushi 0\ncall f\npop\nexit\n"
                ".function f(a)\n.local x\npushl a\njmp_eq no\npushc \"local\"\npopl x\n"
                "no: call second\nret\n.end\n"),
            1);
  EXPECT_EQ(seen, "a global;a x local;a global;");
}

TEST_F(zpProgram, GivesTheTablesThemselves) {
  Call([this](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) {
    EXPECT_EQ(zpProgram_Global_VariableHash(program), &script.globals);
    EXPECT_EQ(zpProgram_System_VariableHash(program), &script.system);
  });
}

TEST_F(zpProgram, ComparesAsScriptsDo) {
  Call([](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) {
    ZPVARIABLE nine = zpVariable_Allocate("", -1, "9", -1);
    ZPVARIABLE ten = zpVariable_Allocate("", -1, "10", -1);
    EXPECT_LT(zpProgram_Compare(program, nine, ten), 0);
    EXPECT_GT(zpProgram_Compare(program, ten, nine), 0);
    zpVariable_SetValue(nine, "9x", -1);
    EXPECT_GT(zpProgram_Compare(program, nine, ten), 0);
    zpVariable_Free(nine);
    zpVariable_Free(ten);
  });
}

// --- Settings, output and text -------------------------------------------------------------------

TEST_F(zpProgram, SetsWhatTheRequestMayChange) {
  Call([this](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) {
    zpProgram_SetLanguage(program, "de and more", 2);
    zpProgram_SetDefaultLanguage(program, "fr", -1);
    zpProgram_SetDefaultDatabase(program, "other", -1);
    EXPECT_EQ(Text(application.language()), "de");
    EXPECT_EQ(Text(application.defaultlanguage()), "fr");
    EXPECT_EQ(Text(application.defaultdatabase()), "other");
    EXPECT_EQ(zpProgram_CharacterSetIsUTF8(program), 1);
    zpProgram_SetCharacterSet(program, "iso-8859-1", -1);
    EXPECT_EQ(TextOf(zpProgram_GetCharacterSet, program), "iso-8859-1");
    EXPECT_EQ(zpProgram_CharacterSetIsUTF8(program), 0);
  });
}

TEST_F(zpProgram, WritesToTheOutput) {
  Call([](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) {
    EXPECT_EQ(zpProgram_Output_Header(program, "Name", -1, 0, "value", -1, 0), 1);
    EXPECT_EQ(zpProgram_Output(program, "text and more", 4), 4);
    EXPECT_EQ(zpProgram_Output(program, " all", -1), 4);
    zpProgram_Output_Flush(program);
  });
  EXPECT_EQ(output.text, "text all");
  EXPECT_THAT(output.headers, ElementsAre("Name: value"));
  EXPECT_EQ(output.flushes, 1);
}

// A value without text returns null with length 0; a library may pass both on unchanged.
TEST_F(zpProgram, ANullTextOfNoLengthIsAnEmptyOne) {
  Call([](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE result) {
    EXPECT_EQ(zpProgram_Output(program, nullptr, 0), 0);
    int length = -1;
    EXPECT_EQ(Taken(zpProgram_Entity_Encode(program, nullptr, 0, &length, nullptr), 0), "");
    EXPECT_EQ(length, 0);
    zpVariable_SetValue(result, nullptr, 0);
    EXPECT_EQ(Value(result), "");
    ZPLINKBUFFER buffer = zpLinkBuffer_Allocate(8, 8);
    zpLinkBuffer_Concat_String(buffer, nullptr, 0);
    zpLinkBuffer_Free(buffer);
  });
  EXPECT_EQ(output.text, "");
}

TEST_F(zpProgram, HeaderTextsMayBeHandedOver) {
  Call([](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) {
    auto* name = static_cast<char*>(zpProgram_Allocate(program, 5));
    auto* value = static_cast<char*>(zpProgram_Allocate(program, 6));
    strcpy(name, "Name");
    strcpy(value, "value");
    EXPECT_EQ(zpProgram_Output_Header(program, name, 4, 1, value, 5, 1), 1);
  });
  EXPECT_THAT(output.headers, ElementsAre("Name: value"));
}

// Such a byte would begin a field that the library has not meant.
TEST_F(zpProgram, HeaderTextsWithLineBreaksAreRefusedAndFreed) {
  Call([](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) {
    const std::string wrong[] = {"a\rb", "a\nb", std::string("a\0b", 3), "\n", "a\r\nX: y"};
    for (const std::string& text : wrong) {
      const auto length = static_cast<int>(text.size());
      EXPECT_EQ(zpProgram_Output_Header(program, text.data(), length, 0, "value", -1, 0), 0);
      EXPECT_EQ(zpProgram_Output_Header(program, "Name", -1, 0, text.data(), length, 0), 0);
      auto* name = static_cast<char*>(zpProgram_Allocate(program, 5));
      auto* value = static_cast<char*>(zpProgram_Allocate(program, length + 1));
      memcpy(name, "Name", 5);
      memcpy(value, text.c_str(), text.size() + 1);
      EXPECT_EQ(zpProgram_Output_Header(program, name, 4, 1, value, length, 1), 0);
    }
    EXPECT_EQ(zpProgram_Output_Header(program, "Name", -1, 0, "a\nb", 1, 0), 1);
  });
  EXPECT_THAT(output.headers, testing::SizeIs(1));
}

TEST_F(zpProgram, EncodesAndDecodes) {
  Call([](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) {
    using Conversion = char* (*)(ZPPROGRAM, const char*, int, int*, int*);
    const struct {
      Conversion conversion;
      const char* text;
      const char* result;
    } cases[] = {
        {zpProgram_Attribute_Encode, "a b&c", "a+b%26c"},
        {zpProgram_Attribute_Decode, "a+b%26c", "a b&c"},
        {zpProgram_Entity_Encode, "<a>", "&lt;a&gt;"},
        {zpProgram_Entity_Decode, "&lt;a&gt;", "<a>"},
        {zpProgram_JavaScriptString_Encode, "plain", "plain"},
    };
    for (const auto& each : cases) {
      SCOPED_TRACE(each.text);
      int length, size;
      char* text = each.conversion(program, each.text, -1, &length, &size);
      EXPECT_GT(size, length);
      EXPECT_EQ(Taken(text, length), each.result);
      text = each.conversion(program, each.text, 1, nullptr, nullptr);
      EXPECT_GE(strlen(text), 1u);
      zpProgram_Free(program, text);
    }
    int length;
    char* id = zpProgram_MakeSessionID(program, &length);
    EXPECT_EQ(Taken(id, length).size(), 32u);
  });
}

// --- Persistent data -----------------------------------------------------------------------------

struct Destroyed {
  ZPPROGRAM program = nullptr;
  int times = 0;
  int result = -1;
};

// The program still works, so the script's own function can be run.
void Destroy(void* program, void* data) {
  auto* destroyed = static_cast<Destroyed*>(data);
  destroyed->program = static_cast<ZPPROGRAM>(program);
  destroyed->times++;
  ZPVARIABLE variable = zpProgram_Lookup_Variable(destroyed->program, "x", -1);
  destroyed->result = variable ? zpVariable_Value_Integer(variable) : 0;
}

TEST_F(zpProgram, PersistentDataIsFoundByLaterCallsAndDestroyedWithTheMachine) {
  Destroyed data;
  first = [&](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) {
    EXPECT_EQ(zpProgram_Lookup_Persistent(program, "data", -1), nullptr);
    zpProgram_Register_Persistent(program, "data and more", 4, &data, Destroy);
  };
  second = [&](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) {
    EXPECT_EQ(zpProgram_Lookup_Persistent(program, "DATA", -1), &data);
  };
  EXPECT_EQ(Run("pushi 7\npopg x\npushi 1\npushg x\ncall first\npop\ncall second\npop\n"), 1);
  EXPECT_EQ(data.times, 0);
  ZPPROGRAM program = machine.get();
  End();
  EXPECT_EQ(data.times, 1);
  EXPECT_EQ(data.program, program);
  EXPECT_EQ(data.result, 7);
}

// The machine of the other file ends first, so its data passes to that of the request.
TEST_F(zpProgram, PersistentDataOfAnotherFileIsDestroyedWithTheMachine) {
  ScriptFiles other;
  other.Script("dir/part.zpc", ".function second() external\n.end\ncall second\npop\n");
  application.SetFileManager(&other);
  Destroyed data;
  ZPPROGRAM child = nullptr;
  second = [&](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) {
    child = program;
    zpProgram_Register_Persistent(program, "data", -1, &data, Destroy);
  };
  EXPECT_EQ(Run("pushi 7\npopg x\npushc \"part.zpc\"\nop_do_file\n"), 1);
  ZPPROGRAM program = machine.get();
  EXPECT_NE(child, program);
  End();
  EXPECT_EQ(data.times, 1);
  EXPECT_EQ(data.program, program);
  EXPECT_EQ(data.result, 7);
}

TEST_F(zpProgram, SecondRegistrationOfANameDestroysTheFirstData) {
  Destroyed one, two;
  Call([&](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) {
    zpProgram_Register_Persistent(program, "data", -1, &one, Destroy);
    zpProgram_Register_Persistent(program, "Data", -1, &two, Destroy);
    EXPECT_EQ(one.times, 1);
    EXPECT_EQ(zpProgram_Lookup_Persistent(program, "data", -1), &two);
  });
  EXPECT_EQ(two.times, 0);
  End();
  EXPECT_EQ(one.times, 1);
  EXPECT_EQ(two.times, 1);
}

// The sanitizer sees it if it is freed in another way, and if it is not freed.
TEST_F(zpProgram, PersistentDataWithoutACallbackIsFreedAsItWasAllocated) {
  Call([](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) {
    for (int i = 0; i < 2; i++) {
      zpProgram_Register_Persistent(program, "memory", -1, zpProgram_Allocate(program, 10),
                                    nullptr);
    }
  });
  End();
}

// --- Calls ---------------------------------------------------------------------------------------

TEST_F(zpProgram, FindsTheRowOfAFunction) {
  Call([](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) {
    const _ZP_EL_Function* row = zpProgram_Lookup_ExternalFunction(program, "FIRST and more", 5);
    ASSERT_NE(row, nullptr);
    EXPECT_STREQ(row->name, "first");
    EXPECT_EQ(row->parametercount, 2);
    EXPECT_EQ(zpProgram_Lookup_ExternalFunction(program, "third", -1), nullptr);
  });
}

TEST_F(zpProgram, RunsFunctionsOfTheScript) {
  second = [](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE result) {
    ZPVARIABLELIST arguments = zpVariableList_Allocate();
    zpVariableList_SetVariable(arguments, "a", -1, "2", -1);
    ZPVARIABLE sum = zpVariable_Allocate("", -1, "", -1);
    // With another number of parameters nothing runs; a null list counts as none.
    EXPECT_EQ(zpProgram_RunFunction(program, "sum", -1, arguments, sum), 0);
    EXPECT_EQ(zpProgram_RunFunction(program, "sum", -1, nullptr, sum), 0);
    EXPECT_EQ(zpProgram_RunFunction(program, "nobody", -1, arguments, sum), 0);
    zpVariableList_SetVariable(arguments, "b", -1, "3", -1);
    EXPECT_EQ(zpProgram_RunFunction(program, "SUM and more", 3, arguments, sum), 1);
    zpVariable_SetValue_Variable(result, sum);
    EXPECT_EQ(zpProgram_RunFunction(program, "greet", -1, nullptr, nullptr), 1);
    zpVariable_Free(sum);
    zpVariableList_Free(arguments);
  };
  EXPECT_EQ(Run("call second\nout\nexit\n"
                ".function sum(a, b)\npushl a\npushl b\nadd\nret\n.end\n"
                ".function greet()\npushc \"hello \"\nout\npushc \"\"\nret\n.end\n"),
            1);
  EXPECT_EQ(output.text, "hello 5");
}

// An element, which the array holds until the function replaces the array.
TEST_F(zpProgram, TheResultOfAFunctionIsHeldWhileItRuns) {
  int counts_within = 0;
  ZPVARIABLE element = nullptr;
  first = [&](ZPPROGRAM, ZPVARIABLEHASH, ZPVARIABLE) { counts_within = element->refcount(); };
  second = [&](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) {
    element = zpVariable_Array_Element(1, zpProgram_Lookup_Variable(program, "g.list", -1), 1);
    EXPECT_EQ(zpProgram_RunFunction(program, "drop", -1, nullptr, element), 1);
  };
  EXPECT_EQ(
      Run("pushc \"\"\npopg list\npushc \"\"\npopg y\ncall second\npop\npushg list\nout\nexit\n"
          ".function drop()\npushc \"dropped\"\npopg list\n"
          "pushi 1\npushg y\ncall first\npop\npushc \"result\"\nret\n.end\n"),
      1);
  EXPECT_EQ(counts_within, 1);
  EXPECT_EQ(output.text, "dropped");
}

TEST_F(zpProgram, RunsExternalFunctionsByTheNameThatTheScriptDeclares) {
  first = [](ZPPROGRAM, ZPVARIABLEHASH parameters, ZPVARIABLE result) {
    zpVariable_SetValue_Variable(result, zpVariableHash_Find(parameters, "a", -1));
    zpVariable_SetValue(zpVariableHash_Find(parameters, "b", -1), "written", -1);
  };
  second = [](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE result) {
    ZPVARIABLELIST arguments = zpVariableList_Allocate();
    zpVariableList_SetVariable(arguments, "a", -1, "given", -1);
    zpVariableList_SetVariable(arguments, "b", -1, "before", -1);
    EXPECT_EQ(zpProgram_RunFunction(program, "first", -1, arguments, result), 1);
    EXPECT_EQ(Value(zpVariableList_Find(arguments, "b", -1)), "written");
    zpVariableList_Free(arguments);
  };
  EXPECT_EQ(Run("call second\nout\n"), 1);
  EXPECT_EQ(output.text, "given");
}

TEST_F(zpProgram, SystemLibrariesAreFoundByName) {
  systems.RegisterDSO("Fake", fake.c_str());
  Call([](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) {
    ZPSYSTEMLIBRARY library = zpProgram_SystemLibrary(program, "fAKE");
    ASSERT_NE(library, nullptr);
    auto answer = reinterpret_cast<int (*)()>(zpSystemLibrary_GetFunction(library, "fake_answer"));
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(answer(), 42);
    EXPECT_EQ(zpSystemLibrary_GetFunction(library, "nothing"), nullptr);
    int length = -1;
    EXPECT_STREQ(zpSystemLibrary_Error(program, library, &length), "Unknown symbol 'nothing'");
    EXPECT_EQ(length, 24);
    EXPECT_EQ(zpProgram_SystemLibrary(program, "other"), nullptr);
    EXPECT_STREQ(zpSystemLibrary_Error(program, nullptr, nullptr),
                 "System library 'other' is not configured");
    EXPECT_EQ(zpProgram_SSL_Function(program, "SSL_new"), nullptr);
  });
}

// --- Time and errors -----------------------------------------------------------------------------

TEST_F(zpProgram, SleepsAndStartsTheClockAgain) {
  Call([this](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) {
    zpProgram_Sleep(program, 250);
    EXPECT_EQ(application.slept, 250);
    EXPECT_EQ(application.TimeRemaining(), -1);
    zpProgram_ResetGlobalTimeout(program);
    EXPECT_GE(application.TimeRemaining(), 80);
  });
}

// Records on which file a task sleeps, and until when.
class SleepingApplication : public TestApplication {
 public:
  void AsynchronousSleep(long wakeat, Zeph_PathType type, const char* path) override {
    sleeps.push_back(std::to_string(wakeat) + " " + std::to_string(type) + " " +
                     (path ? path : "(null)"));
  }

  std::vector<std::string> sleeps;
};

TEST(zpProgramSleep, ATaskSleepsUntilATimeOrAFile) {
  SleepingApplication application;
  MemoryFileManager files(&application);
  application.SetFileManager(&files);
  LoadedScript script(&application, &files);
  ZephVM program("dir/page.zpc", -1, &application, &script.dictionary, &script.system,
                 &script.globals, &script.segments, &script.functions, nullptr, nullptr, nullptr,
                 &script.languages, &script.pieces, application.heartbeatcounter(),
                 application.timedoutflag(), application.exitflag(), nullptr);
  zpProgram_Asynchronous_Sleep(&program, 5, ZPFILE_SCRIPT, nullptr, 0);
  zpProgram_Asynchronous_Sleep(&program, 6, ZPFILE_SCRIPT, "flag and more", 4);
  zpProgram_Asynchronous_Sleep(&program, 7, ZPFILE_DATA, "flag", -1);
  EXPECT_THAT(application.sleeps, ElementsAre("5 0 (null)", "6 1 dir/flag", "7 0 flag"));
}

TEST_F(zpProgram, AFatalErrorEndsTheScriptWhenTheFunctionReturns) {
  bool returned = false;
  second = [&](ZPPROGRAM program, ZPVARIABLEHASH, ZPVARIABLE) {
    EXPECT_EQ(zpProgram_FatalError(program, "no luck and more", 7), 0);
    returned = true;
  };
  EXPECT_EQ(Run("call second\nout\npushc \"after\"\nout\n"), 0);
  EXPECT_TRUE(returned);
  EXPECT_THAT(output.text, HasSubstr("Fatal error in dir/page.zpc @ "));
  EXPECT_THAT(output.text, HasSubstr(": no luck\n"));
  EXPECT_THAT(output.text, testing::Not(HasSubstr("after")));
}

// --- What a call has to agree on -----------------------------------------------------------------

TEST_F(zpProgram, AnUnknownFunctionIsFatalOnlyWhereItIsCalled) {
  EXPECT_EQ(Run(".function nobody() external\n.end\npushc \"before\"\nout\ncall nobody\nout\n"), 0);
  EXPECT_THAT(output.text, testing::StartsWith("before"));
  EXPECT_THAT(output.text, HasSubstr(": Unresolved call to external function 'nobody'\n"));
}

TEST_F(zpProgram, AnUnknownFunctionMayBeDeclared) {
  EXPECT_EQ(Run(".function nobody() external\n.end\npushc \"page\"\nout\n"), 1);
  EXPECT_EQ(output.text, "page");
}

// The declarations of the fixture come first in the table of functions, so these have other names
// and their own rows.
class zpProgramMismatch : public zpProgram {
 protected:
  std::string Message(const std::string& declaration, const std::string& arguments) {
    static _ZP_EL_Parameter pair[] = {{"a", 1, 0}, {"b", 1, _ZP_EL_ByReference}};
    static _ZP_EL_Function own_rows[] = {
        {"pair", 4, 2, pair, [](ZPPROGRAM, ZPVARIABLEHASH, ZPVARIABLE, void**) {}},
        {nullptr, 0, 0, nullptr, nullptr}};
    static _ZP_EL_FunctionTable own_table = {nullptr, own_rows};
    Exported<void*>("fake_function_table") = &own_table;
    EXPECT_TRUE(calls.RegisterDSO(fake.c_str()));
    Run(".function " + declaration + " external\n.end\n" + arguments + "call pair\nout\n");
    return output.text;
  }
};

TEST_F(zpProgramMismatch, ACallWithEqualParametersGoesThrough) {
  EXPECT_EQ(Message("PAIR(one, two var)", "pushi 1\npushg x\n"), "");
}

TEST_F(zpProgramMismatch, AnotherCountOfParametersIsFatal) {
  EXPECT_THAT(Message("pair(one)", "pushi 1\n"),
              HasSubstr(": Number of parameters mismatch in call to external function\n"));
}

TEST_F(zpProgramMismatch, AnotherKindOfParameterIsFatal) {
  EXPECT_THAT(Message("pair(one var, two var)", "pushg x\npushg y\n"),
              HasSubstr(": Parameter type mismatch in call to external function\n"));
}

TEST_F(zpProgramMismatch, TooFewEntriesOnTheStackAreFatal) {
  EXPECT_THAT(Message("pair(one, two var)", "pushg x\n"), HasSubstr(": Stack underflow\n"));
}

TEST_F(zpProgramMismatch, AConstantByReferenceIsFatal) {
  EXPECT_THAT(Message("pair(one, two var)", "pushi 1\npushi 2\n"),
              HasSubstr(": Expected variable, found constant\n"));
}

// A compiled file may give a parameter any position.
TEST_F(zpProgramMismatch, AParameterOutsideOfTheTableIsFatal) {
  second = [this](ZPPROGRAM, ZPVARIABLEHASH, ZPVARIABLE) {
    script.functions.Function_Get("pair", -1)
        ->parameters()
        .Insert(new FunctionParameter(0, "one", 3, 0, 99), ListHead);
  };
  EXPECT_THAT(Message("pair(two var)", "call second\npop\npushi 1\npushg x\n"),
              HasSubstr(": Invalid parameter reference\n"));
}

}  // namespace
