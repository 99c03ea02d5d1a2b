// Scripts that run out of memory at any place: they end with an error and release everything.

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "base/compiled/SystemVariableHash.h"
#include "base/core/ThreadMemory.h"
#include "base/extensions/ExternalLibrary.h"
#include "base/host/Config.h"
#include "base/request/SpecialVariable.h"
#include "base/request/URLEncodedParser.h"
#include "fuzz/ScriptRunSeeds.h"
#include "tests/support/FailingAllocator.h"
#include "tests/support/FormBodies.h"
#include "tests/support/Machine.h"
#include "tests/support/ScriptFiles.h"
#include "tests/support/UploadMachine.h"
#include "tools/Assembler.h"

namespace {

class OutOfMemory : public testing::Test {
 protected:
  void SetUp() override {
    if (!ThreadMemory::NewIsHere()) GTEST_SKIP() << "the operators are the sanitizer's";
  }
};

std::string Assembled(const std::string& source) {
  std::string image, errors;
  EXPECT_TRUE(AssembleScript(source, "script.zpa", &image, &errors)) << errors;
  return image;
}

// --- Native functions ----------------------------------------------------------------------------

void Twice(ZephVM*, VariableHash* locals, Variable* result, void**) {
  Variable* a = locals->At(0, 0);
  if (!a) return;
  const String& text = a->value();
  std::string twice(text.data ? text.data : "", static_cast<size_t>(text.length));
  twice += twice;
  result->SetValue(twice.data(), static_cast<int>(twice.size()));
}

class NativeLibrary : public ExternalLibrary {
 public:
  bool Load(const char*) override { return true; }
  void* Get_Function(const char*) override { return reinterpret_cast<void*>(&Table); }

 private:
  static _ZP_EL_FunctionTable* Table() {
    static _ZP_EL_Parameter parameters[] = {{"a", 1, 0}};
    static _ZP_EL_Function rows[] = {{"twice", 5, 1, parameters, Twice},
                                     {nullptr, 0, 0, nullptr, nullptr}};
    static _ZP_EL_FunctionTable table = {0, rows};
    return &table;
  }
};

class NativeLibraries : public ExternalLibraryManager {
 protected:
  ExternalLibrary* Load(const char*) override { return new NativeLibrary; }
};

// --- A request -----------------------------------------------------------------------------------

// A whole request, from loading the file to deleting its machine and tables, with its tasks.
void RunScript(const std::string& image, const std::string& other, int log_level) {
  ScriptFiles files;
  files.files["script"] = image;
  files.files["dir/c"] = files.files["dir/d"] = files.files["c"] = files.files["d"] = other;
  files.files["f"] = "1,one\n2,two\n,2\r\n\n3,three\r4";
  NativeLibraries libraries;
  Machine machine;
  std::vector<std::unique_ptr<ZephVM>> tasks;
  bool in_task = false;
  machine.application.SetLibraryManager(&libraries);
  machine.application.SetFileManager(&files);
  machine.application.config()->SetValue_Integer(Config_log_level, log_level);
  machine.application.begin_task = [&](ZephVM* vm) -> int {
    if (in_task) return AsynchronousTask_InTask;
    tasks.push_back(nullptr);
    tasks.back() = std::make_unique<ZephVM>(
        &machine.application, *vm, machine.application.heartbeatcounter(),
        machine.application.timedoutflag(), machine.application.exitflag());
    return AsynchronousTask_Started;
  };
  machine.system.SetVariable(new Variable("subject", -1, "a subject", -1));
  try {
    (void)machine.external_calls.RegisterDSO("library");
    machine.Load(image);
    machine.application.SetLanguage("de");
    machine.Go();
    // Tasks outlive the request.
    machine.Close();
    in_task = true;
    for (const auto& task : tasks) {
      if (task) task->Go();
    }
  } catch (const std::bad_alloc&) {
  }
  machine.Close();
  while (!tasks.empty()) tasks.pop_back();
  machine.global.Dump();
  Variable::FreeCycles();
}

const char* const kOther =
    "pushc \"in\"\nout\nincg count, 1\n.function f(a, b var)\npushl a\npushl b\ncat\nret\n";

void ExpectNothingIsLostOf(const std::string& source, int log_level = 0,
                           const std::string& other_source = kOther) {
  SCOPED_TRACE(source);
  const std::string image = Assembled(source);
  const std::string other = Assembled(other_source);
  EXPECT_GT(ExpectNothingIsLost([&] { RunScript(image, other, log_level); }), 20);
}

// Scripts that use every instruction.
class OutOfMemoryOf : public testing::TestWithParam<const char*> {};

TEST_P(OutOfMemoryOf, NoInstructionLosesValues) {
  if (!ThreadMemory::NewIsHere()) GTEST_SKIP() << "the operators are the sanitizer's";
  ExpectNothingIsLostOf(GetParam());
}

INSTANTIATE_TEST_SUITE_P(Scripts, OutOfMemoryOf, testing::ValuesIn(script_run_seeds));

TEST_F(OutOfMemory, NoLogRecordLosesValues) {
  ExpectNothingIsLostOf(
      "pushg v\npushc \"text\"\ncall f\nout\npushi 1\ncall twice\nout\npushnc \"a b\"\n"
      ".function twice(a) external\n"
      ".function f(a var, b)\npushl a\npushl b\ncat\npushi 3\ncat\nret",
      -1);
}

// This covers decoded code, and an array without gaps, which is kept as a row.
TEST_F(OutOfMemory, AnArrayThatGrowsInALoopIsGivenBack) {
  ExpectNothingIsLostOf(
      "again: pushc \"some text\"\npushg i\ncat\npushg a\npushg i\npushi 1\nadd\nelem\nstore\n"
      "incg i, 1\ncmpgi i, 100\njmp_lt again\npushg a\npopg b\npushg b\nout\n");
  ExpectNothingIsLostOf(
      "again: pushg a\npushg i\npushi 1\nadd\nelem\npushg b\npushi 1\nelem\nrefer\n"
      "incg i, 1\ncmpgi i, 100\njmp_lt again\n");
  ExpectNothingIsLostOf(
      "again: pushg a\npushg i\npushc \"key\"\ncat\nmemb\npushg i\npopl x\npushl x\npushi 7\nadd\n"
      "swap\nstore\nincg i, 1\ncmpgi i, 60\njmp_lt again\npushg a\npushc \"1key\"\nmemb\nout\n");
}

TEST_F(OutOfMemory, CallsInALoopLoseNothing) {
  ExpectNothingIsLostOf(
      "again: pushg i\npushg s\npushc \"b\"\ncall f\npopg s\nincg i, 1\ncmpgi i, 60\n"
      "jmp_lt again\npushg s\nout\n.segment 1\n.function f(n, s var, t)\n.local x\npushl s\npushl "
      "t\n"
      "cat\npopl x\npushl x\npushl n\ncat\nret");
}

TEST_F(OutOfMemory, ExternalCallsLoseNothing) {
  ExpectNothingIsLostOf(
      "pushc \"something that is longer than a short text\"\ncall twice\npopg a\n"
      "pushg a\ncall twice\nout\n.function twice(a) external\n");
}

TEST_F(OutOfMemory, TextsLoseNothing) {
  ExpectNothingIsLostOf(
      "again: pushg s\npushc \"a piece of a text that gets long\"\ncat\npushg i\ncat\npopg s\n"
      "pushg s\npushc \"z\"\ncat\npushg s\ncat\npopg t\nincg i, 1\ncmpgi i, 60\njmp_lt again\n"
      "pushg t\npushg s\ncmp\nout\npushg t\npushf 1.5\ncat\nout_comp\n");
}

// A variable whose text is on the stack, to be copied before the variable gets another one.
TEST_F(OutOfMemory, AStoreIntoAVariableWhoseTextWaitsLosesNothing) {
  const std::string text(200, 'x');
  ExpectNothingIsLostOf("pushc \"" + text + "\"\npopg s\npushg s\npushc \"y\"\ncat\npushc \"" +
                        text + text + "\"\npushc \"b\"\ncat\npushc \"c\"\ncat\npopg s\nout\n");
}

TEST_F(OutOfMemory, ACaptureIntoAVariableWhoseTextWaitsLosesNothing) {
  ExpectNothingIsLostOf(
      "pushc \"" + std::string(200, 'x') +
      "\"\npopg s\npushg s\ncapture\npushc \"t\"\nout\npushg s\npushc \"y\"\ncat\n"
      "capture_end\nout\n");
}

TEST_F(OutOfMemory, AStoreOfTheLanguageLosesNothing) {
  const std::string image =
      Assembled("pushc \"d\"\npushc \"e\"\ncat\npushc \"-XX\"\ncat\npops zeph_language\n");
  ExpectNothingIsLost([&] {
    Machine machine;
    machine.system.SetLateVariables(NewSystemVariables(&machine.application));
    machine.Load(image);
    machine.Go();
    machine.Close();
  });
}

// The names of the other file are numbered in a dictionary of its own, which its task gets too.
TEST_F(OutOfMemory, ATaskOfAnotherFileLosesNothing) {
  ExpectNothingIsLostOf("pushc \"c\"\nop_do_file\nout\n", 0,
                        "async done\npushc \"task\"\nout\nexit\n"
                        "done: pushs subject\nout\npushg q\nout\n");
}

TEST_F(OutOfMemory, LevelsOfSystemVariablesLoseNothing) {
  const auto variable = [](const char* name) { return new Variable(name, 1, "text", 4); };
  ExpectNothingIsLost([&] {
    Dictionary dictionary;
    SystemVariableHash table(&dictionary, 12, 512);
    table.SetVariable(variable("a"));
    table.Push();
    table.SetVariable(variable("a"));
    table.SetVariable(variable("b"));
    table.Push();
    table.Insert(variable("a"));
    table.Insert(variable("c"));
    table.Pop();
    table.Pop();
  });
}

// After a block was refused the table takes all names, and has each of them once.
TEST_F(OutOfMemory, FormsOfManyNamesLoseNothing) {
  const struct {
    int names;
    long each;
  } forms[] = {{9, 300}, {65, 300}, {600, 60}};
  for (const auto& form : forms) {
    SCOPED_TRACE(form.names);
    std::vector<std::string> names;
    std::string body;
    for (int i = 0; i < form.names; i++) {
      names.push_back("name" + std::to_string(i));
      body += (i ? "&" : "") + names.back() + "=value";
    }
    ExpectNothingIsLost(
        [&] {
          Dictionary dictionary;
          VariableHash table(&dictionary, 12, 512);
          try {
            URLEncodedParser parser(&table, 0);
            (void)Feed(parser, {body});
          } catch (const std::bad_alloc&) {
          }
          for (const std::string& name : names) {
            const int length = static_cast<int>(name.size());
            if (table.Seek(-1, name.data(), length, nullptr) < 0) table.Insert(name.data(), length);
            Variable* made = nullptr;
            EXPECT_TRUE(table.Find(&made, name.data(), length, 1));
            EXPECT_NE(made, nullptr);
          }
          EXPECT_EQ(table.Entries(), form.names);
        },
        true, form.each);
  }
}

TEST_F(OutOfMemory, FormsLoseNothing) {
  ExpectNothingIsLost([] {
    Dictionary dictionary;
    VariableHash table(&dictionary, 12, 512);
    URLEncodedParser parser(&table, 0);
    (void)Feed(parser, {"name=a+b%20c&na", "me=d&other%5B1%5D=some+text+that+is+not+short&x:y=1"});
  });
  const std::string image = Assembled(ValidatesWith("0") + Processes());
  const std::string body = Field("a", "1") + FilePart("f", "my file.txt", "text/plain", "content") +
                           Field("a", "some text that is not short") + EndOfBody();
  ExpectNothingIsLost([&] {
    Machine machine;
    UploadFiles files;
    machine.Load(image);
    MultipartFormParser parser(&machine.vm(), &files, &machine.global,
                               "multipart/form-data; boundary=B", 0);
    (void)Feed(parser, {body});
  });
}

// --- The result of the run -----------------------------------------------------------------------

const char* const kGrowing =
    "pushc \"before\"\nout\n"
    "again: pushc \"some text that fills the memory\"\npushg i\ncat\npushg a\npushg i\npushi 1\n"
    "add\nelem\nstore\nincg i, 1\njmp again\n";

TEST_F(OutOfMemory, IsAFatalErrorAfterWhatWasWritten) {
  ThreadMemory::Begin();
  ThreadMemory::SetLimit(8 << 20);
  Machine machine;
  machine.Assemble(kGrowing);
  EXPECT_EQ(machine.Go(), 0);
  ThreadMemory::End();
  EXPECT_EQ(machine.Failure(), "Out of memory");
  EXPECT_EQ(machine.Output().substr(0, 29), "beforeFatal error in dir/page");
  EXPECT_NE(machine.Output().find("]: Out of memory\n"), std::string::npos);
}

TEST_F(OutOfMemory, ARunThatFollowsHasAllOfItsMemory) {
  for (int i = 0; i < 3; i++) {
    ThreadMemory::Begin();
    ThreadMemory::SetLimit(8 << 20);
    {
      Machine machine;
      machine.Assemble(kGrowing);
      EXPECT_EQ(machine.Go(), 0);
      EXPECT_EQ(machine.Failure(), "Out of memory");
      EXPECT_GT(ThreadMemory::Used(), 6 << 20);
    }
    Variable::FreeCycles();
    EXPECT_LT(ThreadMemory::Used(), 1 << 20);
    ThreadMemory::End();
  }
}

// A text doubles with each few instructions. The block that is too large is refused before it is
// allocated.
TEST_F(OutOfMemory, ABlockBeyondTheLimitIsNotMade) {
  ThreadMemory::Begin();
  ThreadMemory::SetLimit(64 << 20);
  Machine machine;
  machine.Assemble(
      "pushc \"0123456789abcdef\"\npopg s\n"
      "again: pushg s\npushg s\ncat\npopg s\nincg i, 1\ncmpgi i, 26\njmp_lt again\n");
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.Failure(), "Out of memory");
  EXPECT_LT(ThreadMemory::Used(), 66 << 20);
  ThreadMemory::End();
}

// The run of the other file ends first, and the page ends with it.
TEST_F(OutOfMemory, OfAnotherFileEndsThePage) {
  ScriptFiles files;
  files.Script("dir/part.zpc", kGrowing);
  Machine machine;
  machine.application.SetFileManager(&files);
  machine.Assemble("pushc \"part.zpc\"\nop_do_file\npushc \"behind\"\nout");
  ThreadMemory::Begin();
  ThreadMemory::SetLimit(8 << 20);
  EXPECT_EQ(machine.Go(), 0);
  ThreadMemory::End();
  EXPECT_EQ(machine.Failure(), "Out of memory");
  EXPECT_EQ(machine.Output().find("behind"), std::string::npos);
}

}  // namespace
