// Clones of machines, as background tasks have them. A script starts a task, and the test runs it
// after the script's end, mostly after the script's machine and tables are deleted, so that
// anything the two shared would be missing.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "base/machine/Feature.h"
#include "base/values/Aggregate.h"
#include "tests/support/Machine.h"
#include "tests/support/ScriptFiles.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

class TaskMachine : public testing::Test {
 protected:
  TaskMachine() {
    script->application.SetFileManager(&files);
    task.SetFileManager(&files);
    task.SetOutput(&task_output);
    start = [this](ZephVM* vm) {
      clone = std::make_unique<ZephVM>(&task, *vm, task.heartbeatcounter(), task.timedoutflag(),
                                       task.exitflag());
      if (after_start) after_start(vm);
      return AsynchronousTask_Started;
    };
    script->application.begin_task = start;
  }
  ~TaskMachine() override {
    clone.reset();
    script.reset();
    Variable::FreeCycles();
  }

  // Runs the script to its end and returns its output.
  std::string Script(const std::string& source) {
    script->Assemble(source);
    EXPECT_EQ(script->Go(), 1) << script->Error();
    return script->Output();
  }
  // The same for the task, after everything of the script is deleted.
  std::string Task(int expected = 1) {
    EXPECT_TRUE(clone);
    if (!clone) return "";
    const auto thread = [&] {
      EXPECT_EQ(clone->Go(), expected) << clone->error().data;
      clone.reset();
      Variable::FreeCycles();
    };
    script.reset();
    Variable::FreeCycles();
    std::thread(thread).join();
    return task_output.text;
  }

  ScriptFiles files;
  std::unique_ptr<Machine> script = std::make_unique<Machine>();
  MachineApplication task;
  RecordingOutput task_output;
  std::unique_ptr<ZephVM> clone;
  std::function<int(ZephVM*)> start;
  std::function<void(ZephVM*)> after_start;
};

// A block that the task runs, and only the task.
std::string Async(const std::string& block) {
  static int blocks = 0;
  const std::string behind = "behind" + std::to_string(++blocks);
  return "async " + behind + "\n" + block + "exit\n" + behind + ":\n";
}
std::string Writes(const std::string& text) {
  return "pushc \"" + text + "\"\nout\n";
}

// --- Variables -----------------------------------------------------------------------------------

TEST_F(TaskMachine, VariablesAreWorthWhatTheyWere) {
  const std::string all =
      "pushg t\nout\npushg n\nout\npushg f\nout\npushg s\npushc \"m\"\nmemb\nout\n"
      "pushg list\nout\npushg nothing\nisnull\nout\n";
  const std::string set =
      "pushc \"text \"\npopg t\npushi 7\npopg n\npushf 0.5\npopg f\n"
      "pushc \" member \"\npushg s\npushc \"m\"\nmemb\nstore\n"
      "pushi 1\npushg list\npushi 1\nelem\nstore\npushi 2\npushg list\npushi 9\nelem\nstore\n";
  const std::string other =
      "pushc \"other\"\npopg t\npushi 8\npushg list\npushi 1\nelem\nstore\n"
      "pushc \"made\"\npopg nothing\n";
  EXPECT_EQ(Script(set + Async(all + other + all) + other + all), "other70.5 member 8,20");
  EXPECT_EQ(Task(), "text 70.5 member 1,21other70.5 member 8,20");
}

TEST_F(TaskMachine, WhatTheScriptStoresLaterIsNotTheTasks) {
  after_start = [this](ZephVM*) { script->GlobalVariable("x")->SetValue("later", 5); };
  EXPECT_EQ(Script("pushc \"before\"\npopg x\n" + Async("pushg x\nout\n") + "pushg x\nout\n"),
            "later");
  EXPECT_EQ(Task(), "before");
}

TEST_F(TaskMachine, CountsStayAsTheyWere) {
  // All variables that a script can reach, by name, with their counts.
  const auto counts = [&] {
    std::vector<std::pair<Variable*, int>> all;
    for (const char* name : {"list", "alias", "circle", "text"}) {
      Variable* variable = script->GlobalVariable(name);
      all.emplace_back(variable, variable->refcount());
      variable = variable->RealIdentity();
      for (int i = 1; i <= variable->Max(); i++) {
        if (Variable* element = variable->Element(AggregateIndex(i), 0)) {
          all.emplace_back(element, element->refcount());
        }
      }
    }
    return all;
  };
  std::vector<std::pair<Variable*, int>> during;
  after_start = [&](ZephVM*) {
    during = counts();
    clone.reset();
    EXPECT_EQ(counts(), during);
  };
  Script(
      "pushc \"a\"\npushg list\npushi 1\nelem\nstore\npushc \"b\"\npushg list\npushi 2\nelem\n"
      "store\npushg list\npoprg alias\npushc \"text\"\npopg text\n"
      "pushi 1\npushg circle\npushi 1\nelem\nstore\n"
      "pushg circle\npushg circle\npushi 2\nelem\nrefer\n"
      "pushg list\npushg text\npushg text\npushc \"x\"\ncat\n" +
      Async("") + "pop\npop\npop\n");
  EXPECT_EQ(counts().size(), 10u);
  EXPECT_FALSE(during.empty());
}

TEST_F(TaskMachine, AReferenceIsACopyOfWhatItRefersTo) {
  Script("pushc \"shared\"\npopg target\npushg target\npoprg alias\n" +
         Async("pushc \"mine\"\npopg target\npushg alias\nout\npushg target\nout\n"));
  EXPECT_EQ(Task(), "sharedmine");
}

TEST_F(TaskMachine, AnAggregateThatContainsItselfEndsWhereItBegins) {
  Script(
      "pushi 1\npushg a\npushi 1\nelem\nstore\npushg a\npushg a\npushi 2\nelem\nrefer\n"
      "pushi 3\npushg a\npushi 3\nelem\nstore\n" +
      Async("pushg a\nout\npushc \"|\"\nout\npushg a\npushi 2\nelem\npushi 3\nelem\nout\n"));
  EXPECT_EQ(Task(), "1,,3|");
}

TEST_F(TaskMachine, AnAggregateMayBeDeeperThanAStack) {
  // r = a; 200,000 times: r refers to a new element of what it referred to.
  Script(
      "pushg a\npoprg r\nagain: pushg r\npushi 1\nelem\npoprg r\nincg i, 1\ncmpgi i, 200000\n"
      "jmp_lt again\npushc \"deep\"\npopg r\npushc \"\"\npushg none\npop\npop\n" +
      Async("pushg a\nout\n"));
  EXPECT_EQ(Task(), "deep");
}

TEST_F(TaskMachine, LocalsOfAllCallersAreTheTasksOwn) {
  EXPECT_EQ(Script("pushc \"one \"\ncall outer\nout\nexit\n"
                   ".function outer(a)\npushc \"two \"\npopl own\npushl a\npushc \"three \"\n"
                   "call inner\ncat\npushl own\ncat\nret\n"
                   ".function inner(b)\n" +
                   Async("pushc \"four \"\npopl b\npushl b\nout\npushl b\nret\n") +
                   "pushc \"five \"\npopl b\npushl b\nret\n.end\n"),
            "one five two ");
  EXPECT_EQ(Task(), "four one four two ");
}

TEST_F(TaskMachine, AParameterByReferenceIsDetached) {
  EXPECT_EQ(Script("pushc \"before\"\npopg x\npushg x\ncall change\npop\npushg x\nout\nexit\n"
                   ".function change(v var)\n" +
                   Async("pushc \"task\"\npopl v\npushg x\nout\npushl v\nout\n") +
                   "pushc \"script\"\npopl v\npushi 1\nret\n.end\n"),
            "script");
  EXPECT_EQ(Task(), "beforetask");
}

TEST_F(TaskMachine, CallsMayBeDeep) {
  // Each call adds its number to the next call's result, in the script and in the task.
  const int depth = 20000;
  const std::string sum = std::to_string(depth * (depth + 1) / 2);
  EXPECT_EQ(Script("pushi " + std::to_string(depth) +
                   "\ncall sum\nout\nexit\n.function sum(n)\npushl n\njmp_eq bottom\n"
                   "pushl n\npushl n\npushi 1\nsub\ncall sum\nadd\nret\n"
                   "bottom: async on\npushi 0\nret\non: pushi 0\nret\n.end\n"),
            sum);
  EXPECT_EQ(Task(), sum);
}

// --- Entries of the stack ------------------------------------------------------------------------

TEST_F(TaskMachine, EntriesOfEveryKindAreCopied) {
  const std::string all = "out\nout\nout\nout\nout\n";
  EXPECT_EQ(Script("pushc \"in a variable \"\npopg v\n"
                   "pushi 1\npushf 2.5\npushc \" constant \"\npushg v\n"
                   "pushc \"x\"\npushi 3\ncat\npushc \"y \"\ncat\n" +
                   Async(all) + "pushc \"new\"\npopg v\n" + all),
            "x3y new constant 2.51");
  EXPECT_EQ(Task(), "x3y in a variable  constant 2.51");
}

// A deferred text consists of the variable's current text and the bytes after it.
TEST_F(TaskMachine, TextsThatAreStillPutTogetherAreWhole) {
  const std::string text(300, 't');
  EXPECT_EQ(Script("pushc \"" + text + "\"\npopg s\npushg s\npushc \" and more\"\ncat\n" +
                   Async("pushc \"new\"\npopg s\nout\npushg s\nout\n") +
                   "pushc \"other\"\npopg s\nout\npushg s\nout\n"),
            text + " and moreother");
  EXPECT_EQ(Task(), text + " and morenew");
}

TEST_F(TaskMachine, ATextThatGrowsInItsVariableGrowsOnBothSidesByItself) {
  const std::string text(300, 't');
  const std::string grows = "pushg s\npushc \"!\"\ncat\npopg s\n";
  EXPECT_EQ(Script("pushc \"" + text + "\"\npopg s\n" + grows + grows +
                   Async(grows + "pushg s\nout\n") + "pushg s\nout\n"),
            text + "!!");
  EXPECT_EQ(Task(), text + "!!!");
}

// --- Texts in languages --------------------------------------------------------------------------

const char languages[] =
    ".language \"en-US\"\n.message hello \"Hello, \" name \"!\"\n.message only \"English\"\n"
    ".language de\n.message hello name \", hallo!\"\n";

TEST_F(TaskMachine, ParametersOfTextsAreTheTasksOwn) {
  EXPECT_EQ(Script(std::string(languages) + "localize only\npushc \"Ada\"\npoplvnc name\n" +
                   Async("localize hello\npushc \"Zoe\"\npoplvnc name\nlocalize hello\n") +
                   "localize hello\npushc \"Bob\"\npoplvnc name\nlocalize hello\n"),
            "EnglishHello, Ada!Hello, Bob!");
  EXPECT_EQ(Task(), "Hello, Ada!Hello, Zoe!");
}

// The task does not have the script's file, only the languages that the script has read.
TEST_F(TaskMachine, LanguagesAreThoseThatTheScriptHasUsed) {
  for (const bool used : {false, true}) {
    SCOPED_TRACE(used);
    script = std::make_unique<Machine>();
    script->application.begin_task = start;
    if (used) script->application.SetLanguage("de");
    Script(std::string(languages) + "localize hello\n" + Async("localize hello\nlocalize only\n"));
    task.SetLanguage("de");
    EXPECT_EQ(Task(), used ? ", hallo!" : "Hello, !English");
    task_output.text.clear();
    *task.exitflag() = 0;
  }
}

// --- The state of the machine --------------------------------------------------------------------

TEST_F(TaskMachine, GoesOnWhereTheLoopWas) {
  EXPECT_EQ(Script("again: incg i, 1\ncmpgi i, 700\njmp_ne next\n" +
                   Async("more: incg i, 1\ncmpgi i, 1000\njmp_lt more\npushg i\nout\n") +
                   "next: cmpgi i, 900\njmp_lt again\npushg i\nout\n"),
            "900");
  EXPECT_EQ(Task(), "1000");
}

TEST_F(TaskMachine, SettingsOfErrorsAndThePlaceAreThoseOfTheScript) {
  Script("sourcefile \"page.zp\"\nlineno 12\ntagerror 22, 0\n" +
         Async("pushc \"none.zpc\"\nop_do_file\n" + Writes("on") + "pushg a\npushi -1\nelem\n"));
  EXPECT_THAT(Task(0), StartsWith("on"));
  EXPECT_THAT(task_output.text, HasSubstr(": page.zp: Line 12: "));
}

TEST_F(TaskMachine, FlagsAreThoseOfTheTask) {
  Script(Async("around: jmp around\n"));
  *task.timedoutflag() = 1;
  EXPECT_THAT(Task(0), HasSubstr("imed out"));
}

class Beats : public Feature {
 public:
  Beats(Machine* machine, int* counted)
      : Feature(&machine->application, &machine->vm(), Type_Call), beats(counted) {}
  void Heartbeat() override { ++*beats; }

 private:
  int* beats;
};

TEST_F(TaskMachine, FeaturesStayWithTheScript) {
  int beats = 0;
  script->Assemble("pushg kept\ncapture\n" + Async(Writes("open")) + "capture_end\n");
  script->vm().Push_Feature(new Beats(script.get(), &beats));
  EXPECT_EQ(script->Go(), 1);
  clone->Heartbeat();
  EXPECT_EQ(beats, 0);
  script->vm().Heartbeat();
  EXPECT_EQ(beats, 1);
  EXPECT_EQ(clone->Lookup_Feature(Feature::Type_Capture), nullptr);
  EXPECT_EQ(clone->Lookup_Feature(Feature::Type_Call), nullptr);
  EXPECT_EQ(Task(), "open");
}

TEST_F(TaskMachine, AnImportIsNotTheTasks) {
  files.files["in"] = "1\n2\n3\n";
  EXPECT_EQ(Script("pushc \"in\"\npushc \",\"\npushc \"a\"\nimport done\nbody: pushg a\nout\n"
                   "cmpgi a, 2\njmp_ne next\nasync next\npushg a\nout\nimport_loop body\nexit\n"
                   "next: import_loop body\ndone: exit\n"),
            "123");
  EXPECT_THAT(Task(0), StartsWith("2Fatal error"));
  EXPECT_THAT(task_output.text, HasSubstr("Invalid instruction"));
}

// A filter's frame leads back to the import, which the task does not have.
TEST_F(TaskMachine, ATaskThatAFilterStartsEndsWithTheFilter) {
  files.files["in"] = "1\n2\n";
  EXPECT_EQ(Script("pushc \"in\"\npushc \",\"\npushc \"a\"\npushc \"f() eq 7\"\nimportf done\n"
                   "body: pushg a\nout\nimport_loop body\ndone: exit\n"
                   ".function f()\ncmpgi a, 2\njmp_ne on\n"
                   "async on\npushg a\nout\npushi 7\nret\non: pushi 7\nret\n.end\n"),
            "12");
  EXPECT_EQ(Task(), "2");
}

// --- Functions from native code, and other files -------------------------------------------------

TEST_F(TaskMachine, ATaskThatANativeCallStartsEndsWithTheFunction) {
  script->Assemble(Writes("script") + "exit\n.function f(x)\n" +
                   Async("pushl x\nout\npushl x\nret\n") + "pushl x\nret\n.end\n");
  Variable argument("", 0, "argument", 8), result;
  VariableList arguments;
  arguments.Insert(&argument, ListTail);
  EXPECT_EQ(script->vm().RunFunction("f", -1, &arguments, &result), 1);
  arguments.Dump();
  EXPECT_EQ(Machine::Text(result), "argument");
  EXPECT_EQ(Task(), "argument");
}

TEST_F(TaskMachine, ATaskOfAFileEndsWithTheFile) {
  files.Script("dir/part.zpc", "pushg x\nout\n" + Async("pushc \"mine\"\npopg x\npushg x\nout\n") +
                                   Writes(" part"));
  EXPECT_EQ(Script("pushc \"global\"\npopg x\npushc \"part.zpc\"\nop_do_file\n" + Writes(" page ") +
                   "pushg x\nout\n"),
            "global part page global");
  EXPECT_EQ(Task(), "mine");
}

TEST_F(TaskMachine, ATaskOfAFileGoesOnToTheFilesEnd) {
  files.Script("dir/part.zpc", "async on\npushc \"task\"\npopg x\non: pushg x\nout\n");
  EXPECT_EQ(Script("pushc \"script\"\npopg x\npushc \"part.zpc\"\nop_do_file\n" + Writes(" page")),
            "script page");
  EXPECT_EQ(Task(), "task");
}

// The function works on the stack of its caller, whose entries are hidden meanwhile, and on the
// caller's locals.
TEST_F(TaskMachine, ATaskOfAFunctionOfAFileEndsWithTheExpression) {
  files.Script("dir/part.zpc",
               "exit\n.function f(v var)\n" +
                   Async("pushc \" changed\"\npopl v\npushl v\nout\npushl v\nret\n") +
                   "pushl v\nret\n.end\n");
  EXPECT_EQ(Script("call page\nout\nexit\n.function page()\npushc \"local\"\npopl x\n"
                   "pushc \"below \"\npushc \"part.zpc\"\npushc \"f(l.x)\"\nop_do_function\nout\n"
                   "out\npushl x\nret\n.end\n"),
            "localbelow local");
  EXPECT_EQ(Task(), " changed");
}

TEST_F(TaskMachine, ATaskRunsOtherFiles) {
  files.Script("dir/part.zpc",
               "incg count, 1\npushg count\nout\npushc \"sub/more.zpc\"\nop_do_file\n"
               "jmp end\n.function twice(n)\npushl n\npushi 2\nmul\nret\n.end\n"
               "end: noop\n");
  files.Script("dir/sub/more.zpc", Writes(" more "));
  const std::string runs =
      "pushc \"part.zpc\"\nop_do_file\npushc \"part.zpc\"\npushc \"twice(21)\"\nop_do_function\n"
      "out\n";
  EXPECT_EQ(Script(runs + Async(runs + runs) + runs), "1 more 422 more 42");
  EXPECT_EQ(Task(), "2 more 423 more 42");
  EXPECT_EQ(files.open_now, 0);
}

TEST_F(TaskMachine, ATaskOfAFileRunsFilesBesideIt) {
  files.Script("dir/sub/part.zpc", Async("pushc \"more.zpc\"\nop_do_file\npushg x\nout\n"));
  files.Script("dir/sub/more.zpc", "pushg x\nout\npushc \" new\"\npopg x\n");
  Script("pushc \"x\"\npopg x\npushc \"sub/part.zpc\"\nop_do_file\n");
  EXPECT_EQ(Task(), "x new");
}

// --- At the same time ----------------------------------------------------------------------------

TEST_F(TaskMachine, ScriptAndTaskRunAtTheSameTime) {
  const std::string work =
      "again: pushg list\npushi 1\nelem\npushc \"x\"\ncat\npushg list\npushg i\nelem\nstore\n"
      "pushi 5\ncall f\npop\npushg r\nout\nincg i, 1\ncmpgi i, 2000\njmp_lt again\n";
  std::thread thread;
  after_start = [&](ZephVM*) {
    thread = std::thread([this] {
      EXPECT_EQ(clone->Go(), 1) << clone->error().data;
      clone.reset();
      Variable::FreeCycles();
    });
  };
  script->Assemble(
      "pushc \"text\"\npushg list\npushi 1\nelem\nstore\npushg list\npoprg r\n"
      "pushi 1\npopg i\nasync on\non: noop\n" +
      work +
      "exit\n.function f(n)\npushl n\njmp_eq end\npushl n\npushi 1\nsub\n"
      "call f\nret\nend: pushc \"x\"\nret\n.end\n");
  EXPECT_EQ(script->Go(), 1) << script->Error();
  script.reset();
  thread.join();
  EXPECT_THAT(task_output.text, HasSubstr("text"));
}

// --- ZpASYNCHRONOUS ------------------------------------------------------------------------------

TEST(Asynchronous, WhatTheHostAnswersIsToldInTheErrorVariable) {
  const struct {
    int answer;
    const char* page;
  } cases[] = {
      {AsynchronousTask_Started, "behind "},
      {AsynchronousTask_Continue, "block behind "},
      {AsynchronousTask_Failed, "behind Unable to start asynchronous task"},
      {AsynchronousTask_NotSupported, "behind Asynchronoust tasks are not supported"},
      {AsynchronousTask_LimitReached, "behind Maximum number of asynchronous tasks exceeded"},
      {AsynchronousTask_InTask,
       "behind Asynchronous tasks may not start additional asynchronous tasks"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.page);
    Machine machine;
    machine.application.begin_task = [&](ZephVM*) { return c.answer; };
    machine.Assemble("tagerror 75, 0\nasync on\n" + Writes("block ") + "on: " + Writes("behind ") +
                     "pushg ZpASYNCHRONOUS_Error\nout\n");
    EXPECT_EQ(machine.Go(), 1) << machine.Error();
    EXPECT_EQ(machine.Output(), c.page);
  }
}

TEST(Asynchronous, AHostWithoutTasksSaysSo) {
  ExpectFailure(
      {"tagerror 75, 2\nasync 0\n", "ZpASYNCHRONOUS: Asynchronoust tasks are not supported"});
}

}  // namespace
