// Scripts that run other compiled files and call their functions.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/host/Config.h"
#include "base/machine/DoContext.h"
#include "tests/support/Machine.h"
#include "tests/support/ScriptFiles.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

// The machine of dir/page.zpc, and the files in its directory.
class Do : public testing::Test {
 protected:
  Do() { machine.application.SetFileManager(&files); }

  void Script(const std::string& path, const std::string& source) { files.Script(path, source); }
  // Runs the page to its end and returns its output.
  std::string Page(const std::string& source) {
    machine.Assemble(source);
    EXPECT_EQ(machine.Go(), 1) << machine.Error();
    return machine.Output();
  }
  // Runs a page that fails and returns its last error.
  std::string Failure(const std::string& source) {
    machine.Assemble(source);
    EXPECT_EQ(machine.Go(), 0);
    return machine.Failure();
  }
  DoContext* Find(const char* name) { return machine.vm().DoContextFind(name, -1); }

  ScriptFiles files;
  Machine machine;
};

// Code that runs the named file.
std::string Runs(const std::string& name) {
  return "pushc \"" + name + "\"\nop_do_file\n";
}
// Code that calls a function of the file and writes the result.
std::string Calls(const std::string& name, const std::string& call) {
  return "pushc \"" + name + "\"\npushc \"" + call + "\"\nop_do_function\nout\n";
}
std::string Writes(const std::string& text) {
  return "pushc \"" + text + "\"\nout\n";
}

// --- Files ---------------------------------------------------------------------------------------

TEST_F(Do, AFileRunsFromItsBeginningEachTime) {
  Script("dir/part.zpc", Writes("part ") + "incg count, 1\npushg count\nout\n");
  EXPECT_EQ(Page(Writes("<") + Runs("part.zpc") + Writes("|") + Runs("part.zpc") + Writes(">")),
            "<part 1|part 2>");
  EXPECT_EQ(files.opens, 1);
}

TEST_F(Do, GlobalsAndSystemVariablesOfOneNameAreOneVariable) {
  Script("dir/part.zpc", "pushg name\nout\npushc \"theirs\"\npopg name\npushs host\nout\n");
  machine.Assemble("pushc \"mine \"\npopg name\n" + Runs("part.zpc") + "pushg name\nout\n");
  machine.system.SetVariable(new Variable("host", 4, "example ", 8));
  EXPECT_EQ(machine.Go(), 1) << machine.Error();
  EXPECT_EQ(machine.Output(), "mine example theirs");
}

TEST_F(Do, AGlobalThatOnlyTheFileNamesIsFoundByItsName) {
  Script("dir/part.zpc", "pushc \"new\"\npopg made\n");
  EXPECT_EQ(Page(Runs("part.zpc") + "pushnc made\nout\n"), "new");
}

TEST_F(Do, AFileThatIsNotThereIsARuntimeErrorAndPushesNothing) {
  machine.Assemble("pushi 5\ntagerror 22, 0\n" + Runs("none.zpc"));
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.StackText(), "5");
  EXPECT_THAT(machine.Failure(), StartsWith("ZpDO: "));
}

TEST_F(Do, AFileThatIsNotThereEndsTheScriptByDefault) {
  EXPECT_EQ(Failure(Runs("none.zpc") + Writes("never")), "ZpDO: No such file or directory");
}

TEST_F(Do, AFileThatIsNoScriptIsToldWithItsPath) {
  files.files["dir/<part>.zpc"] = "something else";
  EXPECT_THAT(Failure(Runs("<part>.zpc")),
              StartsWith("ZpDO: Unable to open 'dir/&lt;part&gt;.zpc': "));
  EXPECT_EQ(files.open_now, 0);
}

// Cut at any length, and with any byte changed, it fails with an error or runs as another script.
TEST_F(Do, ADamagedFileFailsInOrder) {
  Script("dir/part.zpc", Writes("part") + ".function f(x)\npushl x\nret\n");
  const std::string good = files.files["dir/part.zpc"];
  int failed = 0;
  for (size_t at = 0; at < good.size(); at++) {
    SCOPED_TRACE(at);
    for (const bool cut : {true, false}) {
      std::string damaged = good.substr(0, cut ? at : good.size());
      if (!cut) damaged[at] = static_cast<char>(~damaged[at]);
      files.files["dir/part.zpc"] = damaged;
      Machine other;
      other.application.SetFileManager(&files);
      other.Assemble("tagerror 22, 0\n" + Runs("part.zpc"));
      other.vm();
      failed += other.Go() == 0 || !other.Error().empty();
    }
    ASSERT_EQ(files.open_now, 0);
  }
  EXPECT_GT(failed, static_cast<int>(good.size()) / 2);
}

// The file can be opened, but one of its sections cannot be read.
TEST_F(Do, AFileWithABadSectionIsAnErrorWithoutAText) {
  Script("dir/part.zpc", Writes("part"));
  DoContext context(&machine.global, &machine.system, &machine.application, &machine.vm(), nullptr,
                    nullptr, nullptr);
  std::string& image = files.files["dir/part.zpc"];
  const size_t dict = image.rfind("dict");
  ASSERT_NE(dict, std::string::npos);
  image.replace(dict + 8, 4, std::string("\x01\0\0\0", 4));
  char* path = new char[13];
  memcpy(path, "dir/part.zpc", 13);
  EXPECT_FALSE(context.Open(path, 12, 13, files.Open("dir/part.zpc", FileMode_Read)));
  EXPECT_EQ(context.error().length, 0);
}

TEST_F(Do, ARelativeNameIsOneBesideTheScriptThatNamesIt) {
  Script("dir/sub/a.zpc", Writes("a") + Runs("b.zpc") + Runs("../b.zpc") + Runs("/b.zpc"));
  Script("dir/sub/b.zpc", Writes("sub"));
  Script("dir/b.zpc", Writes("dir"));
  Script("b.zpc", Writes("root"));
  EXPECT_EQ(Page(Runs("sub/a.zpc") + Runs("b.zpc")), "asubdirrootdir");
}

TEST_F(Do, NULBytesOfANameAreDropped) {
  Script("dir/part.zpc", Writes("part"));
  EXPECT_EQ(Page("pushc \"pa\\0rt.z\\0pc\"\nop_do_file\n"), "part");
}

TEST_F(Do, DifferentNamesOfOnePathAreOneContext) {
  Script("dir/part.zpc", "noop\n");
  DoContext* context = Find("part.zpc");
  ASSERT_TRUE(context);
  EXPECT_EQ(Find("./x/../part.zpc"), context);
  EXPECT_EQ(Find("/dir//part.zpc"), context);
  EXPECT_EQ(files.opens, 1);
}

TEST_F(Do, TheFileGivesItsDescriptorBack) {
  Script("dir/part.zpc", "noop\n");
  ASSERT_TRUE(Find("part.zpc"));
  EXPECT_EQ(files.deactivations, 1);
}

TEST_F(Do, AFileThatRunsItselfSharesItsGlobals) {
  Script("dir/part.zpc", "incg depth, 1\npushg depth\nout\ncmpgi depth, 4\njmp_ge end\n" +
                             Runs("part.zpc") + "end: " + Writes("."));
  EXPECT_EQ(Page(Runs("part.zpc")), "1234....");
  EXPECT_EQ(files.opens, 1);
}

TEST_F(Do, EndlessRecursionIsAStackOverflow) {
  Script("dir/part.zpc", Runs("part.zpc"));
  EXPECT_EQ(Failure(Runs("part.zpc")), "Stack overflow");
}

TEST_F(Do, EndlessRecursionOfSeveralFilesIsAStackOverflow) {
  Script("dir/a.zpc", Runs("b.zpc"));
  Script("dir/b.zpc", Calls("c.zpc", "f()"));
  Script("dir/c.zpc", ".function f()\n" + Runs("a.zpc") + "retn\n");
  EXPECT_EQ(Failure(Runs("a.zpc")), "Stack overflow");
}

TEST_F(Do, EndlessRecursionOfAFunctionIsAStackOverflow) {
  Script("dir/a.zpc", ".function f()\n" + Calls("a.zpc", "f()") + "retn\n");
  EXPECT_EQ(Failure(Calls("a.zpc", "f()")), "Stack overflow");
}

TEST_F(Do, AFatalErrorOfTheFileEndsTheScript) {
  Script("dir/part.zpc", Writes("a") + "pop\n" + Writes("b"));
  machine.Assemble(Runs("part.zpc") + Writes("never"));
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_THAT(machine.Error(), StartsWith("Fatal error in dir/part.zpc"));
  // The error is shown only once.
  EXPECT_THAT(machine.Output(), EndsWith("Stack underflow\n"));
  EXPECT_EQ(machine.Output().find("Fatal"), machine.Output().rfind("Fatal"));
}

TEST_F(Do, AnExitInTheFileEndsTheScriptInOrder) {
  Script("dir/part.zpc", Writes("part") + "exit\n");
  EXPECT_EQ(Page(Runs("part.zpc") + Writes("never")), "part");
}

TEST_F(Do, ATimeoutInTheFileIsToldOnce) {
  Script("dir/part.zpc", "again: jmp again\n");
  machine.Assemble(Runs("part.zpc"));
  machine.vm();
  *machine.application.timedoutflag() = 1;
  EXPECT_EQ(machine.Go(), 0);
  DoContext* context = Find("part.zpc");
  EXPECT_EQ(context->machine()->Go_Recursive(), 0);
}

TEST_F(Do, TheOutputModeIsTheCallersAgain) {
  Script("dir/part.zpc", "stdoutput 0\n");
  machine.Assemble("stdoutput 2\n" + Runs("part.zpc"));
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.output.flags(), 2);
}

TEST_F(Do, TheLogTellsOfBothEnds) {
  Script("dir/part.zpc", "sourcefile \"part.zpa\"\nlineno 4\n");
  machine.application.config()->SetValue_Integer(Config_log_level,
                                                 Log_DoEnter | Log_DoExit | Log_Trace);
  Page("sourcefile \"page.zpa\"\nlineno 7\n" + Runs("part.zpc") + "lineno 7\n");
  const std::string page = "dir/page.zpc|page.zpa|7";
  const std::string enter = machine.application.Log_Description(Log_DoEnter),
                    exit = machine.application.Log_Description(Log_DoExit);
  const std::string trace = machine.application.Log_Description(Log_Trace);
  EXPECT_THAT(machine.application.log,
              ElementsAre(trace + "|" + page, enter + "|" + page + "|dir/part.zpc",
                          trace + "|dir/part.zpc|part.zpa|4", exit + "|" + page + "|dir/part.zpc",
                          trace + "|" + page));
}

// --- Functions -----------------------------------------------------------------------------------

TEST_F(Do, AFunctionOfTheFileGivesItsValue) {
  Script("dir/part.zpc",
         ".function sum(a, b)\npushl a\npushl b\nadd\nret\n.function word()\npushc \"word\"\nret\n"
         ".function nothing()\nretn\n");
  EXPECT_EQ(Page(Calls("part.zpc", "sum(1, 2)") + Calls("part.zpc", "word()") +
                 Calls("part.zpc", "nothing()")),
            "3word");
  EXPECT_EQ(files.opens, 1);
}

TEST_F(Do, TheExpressionMayBeAnyOther) {
  Script("dir/part.zpc", ".function two()\npushi 2\nret\n");
  EXPECT_EQ(Page(Calls("part.zpc", "two() * 4 + 1")), "9");
}

TEST_F(Do, ArgumentsReachLocalVariablesOfTheCaller) {
  Script("dir/part.zpc",
         ".function add(to var, x)\npushl to\npushl x\nadd\npopl to\npushl to\nret\n");
  EXPECT_EQ(Page("pushi 5\ncall f\nout\nexit\n.function f(n)\n" +
                 Calls("part.zpc", "add(l.n, 10)") + "pushc \",\"\nout\npushl n\nret\n"),
            "15,15");
}

// The text of an array is rebuilt at each read, also when it is read as the name of the file.
TEST_F(Do, FileAndCallMayComeOfOneArray) {
  Script("dir/file,name", "noop\n");
  machine.Assemble(
      "tagerror 22, 0\n"
      "pushc \"file\"\npushg v\npushi 1\nelem\nstore\npushc \"name\"\npushg v\npushi 2\nelem\n"
      "store\npushg v\npushg v\nop_do_function\n"
      "pushc \"name\"\npushg w\npushi 1\nelem\nstore\npushc \"worth\"\npopg name\n"
      "pushg w\npushg w\nop_do_function\n");
  Script("dir/name", "noop\n");
  EXPECT_EQ(machine.Go(), 1) << machine.Error();
  EXPECT_EQ(machine.StackText(), "(null) (worth)");
  EXPECT_THAT(machine.Failure(), HasSubstr("Invalid Argument ',' in Expression"));
}

TEST_F(Do, AMissingFunctionIsARuntimeErrorAndPushesTheNullVariable) {
  Script("dir/part.zpc", "noop\n");
  machine.Assemble(
      "tagerror 22, 0\npushc \"part.zpc\"\npushc \"<none>(1)\"\nop_do_function\n"
      "pushc \"part.zpc\"\npushc \"none(1)\"\nop_do_function\n");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.StackText(), "(null) (null)");
  EXPECT_EQ(machine.Failure(), "ZpDO: Unable to find function 'none'");
}

TEST_F(Do, AMissingFileOfAFunctionPushesTheNullVariable) {
  machine.Assemble("tagerror 22, 0\npushc \"none.zpc\"\npushc \"f()\"\nop_do_function\n");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.StackText(), "(null)");
}

TEST_F(Do, AnExpressionWithoutAValuePushesTheNullVariable) {
  Script("dir/part.zpc", "noop\n");
  machine.Assemble("pushi 5\npushc \"part.zpc\"\npushc \" \"\nop_do_function\n");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.StackText(), "5 (null)");
}

TEST_F(Do, AnExpressionLeavesOneValue) {
  Script("dir/part.zpc", "noop\n");
  machine.Assemble("pushi 5\npushc \"part.zpc\"\npushc \"1 (2) ('c')\"\nop_do_function\n");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.StackText(), "5 \"c\"");
}

// The stack belongs to the caller's machine, so that machine has the error.
TEST_F(Do, AnExpressionThatNeedsMoreThanItHasEndsBoth) {
  Script("dir/part.zpc", ".function f()\n" + Writes("f") + "pushi 1\nret\n");
  machine.Assemble("pushi 5\npushc \"part.zpc\"\npushc \"1 + (NOT) + f()\"\nop_do_function\n");
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.StackText(), "5 (null)");
  EXPECT_THAT(machine.Error(), StartsWith("Fatal error in dir/page.zpc"));
  EXPECT_EQ(machine.Failure(), "Stack underflow");
  EXPECT_TRUE(Find("part.zpc")->machine()->stopped());
  EXPECT_EQ(machine.Output().find("Fatal"), machine.Output().rfind("Fatal"));
}

TEST_F(Do, AnErrorInTheFunctionEndsTheScriptAfterOneValue) {
  Script("dir/part.zpc", ".function f()\npop\nretn\n");
  machine.Assemble("pushi 5\npushc \"part.zpc\"\npushc \"f()\"\nop_do_function\n" +
                   Writes("never"));
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_THAT(machine.Error(), StartsWith("Fatal error in dir/part.zpc"));
  EXPECT_EQ(machine.StackText(), "5 (null)");
}

TEST_F(Do, AnExitInTheFunctionEndsTheScriptInOrder) {
  Script("dir/part.zpc", ".function f()\n" + Writes("f") + "exit\nretn\n");
  EXPECT_EQ(Page(Calls("part.zpc", "f()") + Writes("never")), "f");
}

// A call that an exit ends has a stack of its own. Values that wait for the call are on the
// caller's stack, and must not be read as the result.
TEST_F(Do, AnExitLeavesAtMostOneValue) {
  Script("dir/part.zpc", ".function f()\nexit\nretn\n");
  machine.Assemble("pushi 5\npushc \"part.zpc\"\npushc \"1 + (2 + f())\"\nop_do_function\n");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.stack().Entries(), 2);
}

TEST_F(Do, AFileThatCallsFunctionsOfItsOwnByText) {
  Script("dir/part.zpc", ".function f(n)\npushl n\npushi 1\nsub\npopl n\npushl n\njmp_le end\n" +
                             Calls("part.zpc", "f(l.n)") + "end: pushl n\nret\n");
  EXPECT_EQ(Page(Calls("part.zpc", "f(4)")), "0123");
}

TEST_F(Do, FilesThatCallOneAnotherOnOneStack) {
  Script("dir/b.zpc", ".function g(n)\n" + Calls("a.zpc", "h(l.n) + (NOT)") + "pushi 2\nret\n");
  files.Script("dir/a.zpc", ".function f(n)\n" + Calls("b.zpc", "g(l.n)") +
                                "pushi 1\nret\n.function h(n)\npushl n\nret\n");
  machine.Assemble(Calls("a.zpc", "f(3)"));
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.Failure(), "Stack underflow");
  EXPECT_THAT(machine.Error(), StartsWith("Fatal error in dir/b.zpc"));
}

TEST_F(Do, ACallIsCompiledOnceByItsText) {
  Script("dir/part.zpc", ".function f(n)\npushl n\nret\n");
  EXPECT_EQ(Page(Calls("part.zpc", "f('a')") + Calls("part.zpc", "f('a')")), "aa");
  DoContext* context = Find("part.zpc");
  EXPECT_EQ(context->expressions().Entries(), 1);
}

TEST_F(Do, TextsThatDifferInCaseOnlyShareTheFirstsCode) {
  Script("dir/part.zpc", ".function f(n)\npushl n\nret\n");
  EXPECT_EQ(Page(Calls("part.zpc", "f('a')") + Calls("part.zpc", "f('A')")), "aa");
}

TEST_F(Do, MessagesOfACallNameThePlaceOfTheCaller) {
  Script("dir/part.zpc", "sourcefile \"part.zpa\"\n.function f(n)\npop\nretn\n");
  machine.Assemble("sourcefile \"page.zpa\"\nlineno 31\n" + Calls("part.zpc", "f(1)"));
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_THAT(machine.Error(), HasSubstr("page.zpa: Line 31: Stack underflow"));
}

TEST_F(Do, TheOutputModeIsTheCallersAgainAfterAFunction) {
  Script("dir/part.zpc", ".function f() compress\nstdoutput 1\nretn\n");
  machine.Assemble("stdoutput 2\n" + Calls("part.zpc", "f()"));
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.output.flags(), 2);
}

TEST_F(Do, ErrorsOfTheOperandsComeFirst) {
  for (const char* code : {"op_do_file", "op_do_function", "pushc \"f()\"\nop_do_function"}) {
    SCOPED_TRACE(code);
    Machine other;
    other.application.SetFileManager(&files);
    other.Assemble(code);
    EXPECT_EQ(other.Go(), 0);
    EXPECT_EQ(other.Failure(), "Stack underflow");
  }
}

// --- The cache -----------------------------------------------------------------------------------

class DoCache : public Do {
 protected:
  DoCache() {
    for (const char* name : {"a", "b", "c", "d"}) {
      Script("dir/" + std::string(name) + ".zpc",
             ".function f()\npushc \"" + std::string(name) + "\"\nret\n");
    }
  }
  void Limit(int count) {
    machine.application.config()->SetValue_Integer(Config_max_docache, count);
  }
  // Uses the files named by the letters of the text, in order, and returns those that had to be
  // opened.
  std::string Opened(const std::string& uses) {
    std::string opened;
    for (char name : uses) {
      const int before = files.opens;
      EXPECT_TRUE(Find((std::string(1, name) + ".zpc").c_str()));
      if (files.opens != before) opened += name;
    }
    return opened;
  }
};

TEST_F(DoCache, HasNoLimitByDefault) {
  EXPECT_EQ(Opened("abcdabcd"), "abcd");
}

// Eviction stops when the count is the limit, and then one more is added.
TEST_F(DoCache, MayBeOneAboveItsLimit) {
  Limit(2);
  EXPECT_EQ(Opened("abcabc"), "abc");
  EXPECT_EQ(Opened("d"), "d");
  EXPECT_EQ(Opened("cb"), "");
  EXPECT_EQ(Opened("a"), "a");
}

TEST_F(DoCache, TheOneThatWasNotUsedForLongestGoesFirst) {
  Limit(2);
  EXPECT_EQ(Opened("abcad"), "abcd");
  EXPECT_EQ(Opened("cad"), "");
  EXPECT_EQ(Opened("b"), "b");
  EXPECT_EQ(Opened("ad"), "");
}

TEST_F(DoCache, ANegativeLimitKeepsTheLastOnly) {
  Limit(-1);
  EXPECT_EQ(Opened("aabba"), "aba");
}

TEST_F(DoCache, AContextInUseStays) {
  Limit(1);
  DoContext* a = Find("a.zpc");
  a->IncRefCount();
  EXPECT_EQ(Opened("bcdbcd"), "bcdbcd");
  EXPECT_EQ(Find("a.zpc"), a);
  a->DecRefCount();
}

TEST_F(DoCache, AContextWithChildrenStays) {
  Limit(1);
  DoContext* a = Find("a.zpc");
  ASSERT_TRUE(a->machine()->DoContextFind("b.zpc", -1));
  EXPECT_EQ(a->RefCount(), 1);
  EXPECT_EQ(Opened("c"), "c");
  EXPECT_EQ(Find("a.zpc"), a);
  // Its child was evicted, so it can be evicted now.
  EXPECT_EQ(a->RefCount(), 0);
  EXPECT_EQ(Opened("cba"), "ba");
}

TEST_F(DoCache, AFileThatRunsIsNotEvictedByWhatItRuns) {
  Limit(1);
  Script("dir/main.zpc", Calls("a.zpc", "f()") + Calls("b.zpc", "f()") + Calls("c.zpc", "f()") +
                             Calls("a.zpc", "f()") + Writes("."));
  EXPECT_EQ(Page(Runs("main.zpc") + Runs("main.zpc")), "abca.abca.");
}

TEST_F(DoCache, ValuesOutliveTheFileThatGaveThem) {
  Limit(-1);
  Script("dir/e.zpc",
         ".function text()\npushc \"a text of the file\"\nret\n.function local()\n"
         "pushc \"in a local\"\npopl x\npushl x\nret\n.function both()\npushc \"x\"\n"
         "pushc \"y\"\ncat\nret\n");
  std::string page;
  for (const char* call : {"text()", "local()", "both()"}) {
    page += "pushc \"e.zpc\"\npushc \"" + std::string(call) + "\"\nop_do_function\n";
    page += Calls("a.zpc", "f()");
  }
  machine.Assemble(page);
  EXPECT_EQ(machine.Go(), 1) << machine.Error();
  EXPECT_EQ(machine.StackText(), "\"a text of the file\" (in a local) \"xy\"");
}

TEST_F(DoCache, VariablesOutliveTheFileThatMadeThem) {
  Limit(-1);
  Script(
      "dir/e.zpc",
      "pushc \"value\"\npopg made_there\npushc \"v\"\npushg tree\npushc \"member\"\nmemb\nstore\n"
      "pushg made_there\npoprnc alias_there\n");
  EXPECT_EQ(Page(Runs("e.zpc") + Calls("a.zpc", "f()") +
                 "pushnc made_there\nout\npushnc \"tree:member\"\nout\npushnc alias_there\nout\n"
                 "pushc \"made_there, tree\"\nhide\n"),
            "avaluevvalue<input type=\"hidden\" name=\"made_there\" value=\"value\">"
            "<input type=\"hidden\" name=\"tree:member\" value=\"v\">");
}

TEST_F(DoCache, EverythingEndsWithTheFirstMachine) {
  ASSERT_TRUE(Find("a.zpc")->machine()->DoContextFind("b.zpc", -1));
  ASSERT_TRUE(Find("b.zpc")->machine()->DoContextFind("c.zpc", -1));
  EXPECT_EQ(machine.vm().Children(), 1);
  machine.Close();
  EXPECT_EQ(files.open_now, 0);
}

// The captures have each other as parents, but their machines end in another order.
TEST_F(DoCache, CapturesThatAreLeftOpenGiveTheOutputBack) {
  Script("dir/e.zpc", Writes("(e)") + "pushg there\ncapture\n" + Writes("e"));
  const char* const pages[] = {
      "pushg here\ncapture\nE",
      "Epushg here\ncapture\n",
      "pushg here\ncapture\nEpushg more\ncapture\nE",
  };
  for (std::string page : pages) {
    SCOPED_TRACE(page);
    for (size_t at; (at = page.find('E')) != std::string::npos;) {
      page.replace(at, 1, Runs("e.zpc"));
    }
    Machine other;
    other.application.SetFileManager(&files);
    other.application.config()->SetValue_Integer(Config_max_docache, -1);
    other.Assemble(page + Calls("a.zpc", "f()") + Writes("lost"));
    EXPECT_EQ(other.Go(), 1) << other.Error();
    other.Close();
    EXPECT_EQ(other.application.output(), &other.output);
  }
}

// The page's capture restores the output that it found, not the capture of the file.
TEST_F(DoCache, ACaptureEndsUnderOneThatAFileHasLeftOpen) {
  Limit(-1);
  Script("dir/e.zpc", "pushg there\ncapture\n" + Writes("lost"));
  EXPECT_EQ(Page("pushg here\ncapture\n" + Writes("a") + Runs("e.zpc") + "capture_end\n" +
                 Writes("b") + "pushnc here\nout\npushg here\ncapture\n" + Writes("c") +
                 "capture_end\npushnc here\nout\n"),
            "bac");
  machine.Close();
  EXPECT_EQ(machine.application.output(), &machine.output);
}

// A later run of the file ends the capture, after the one below it is gone and while another one is
// in front.
TEST_F(DoCache, ACaptureEndsWithoutTheOneThatItFound) {
  Limit(-1);
  Script("dir/e.zpc", "cmpgi again, 1\njmp_eq end\npushi 1\npopg again\npushg there\ncapture\n" +
                          Writes("x") + "jmp over\nend: capture_end\nover: noop\n");
  EXPECT_EQ(Page("pushg here\ncapture\n" + Writes("a") + Runs("e.zpc") + "capture_end\n" +
                 "pushg more\ncapture\n" + Writes("b") + Runs("e.zpc") + Writes("c") +
                 "capture_end\n" + Writes("d") +
                 "pushnc here\nout\npushnc more\nout\n"
                 "pushnc there\nout\n"),
            "dabcx");
  machine.Close();
  EXPECT_EQ(machine.application.output(), &machine.output);
}

// --- The family ----------------------------------------------------------------------------------

TEST_F(Do, ChildrenBeatWithTheirParents) {
  Script("dir/a.zpc", "noop\n");
  ZephVM* child = Find("a.zpc")->machine();
  *machine.application.heartbeatcounter() += 1;
  EXPECT_EQ(child->Go_Recursive(), 1);
  EXPECT_EQ(machine.Go(), 1);
}

TEST_F(Do, AChildStopsAtTheFlagsOfItsParent) {
  Script("dir/a.zpc", "again: jmp again\n");
  ZephVM* child = Find("a.zpc")->machine();
  *machine.application.exitflag() = 1;
  EXPECT_EQ(child->Go_Recursive(), 1);
}

TEST_F(Do, ErrorSettingsOfTheFileAreItsOwn) {
  Script("dir/a.zpc", Runs("none.zpc"));
  machine.Assemble("tagerror 22, 0\n" + Runs("a.zpc") + Writes("never"));
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_THAT(machine.Error(), StartsWith("Runtime error in dir/a.zpc"));
}

TEST_F(Do, TheErrorVariableIsSharedLikeAnyGlobal) {
  Script("dir/a.zpc", "tagerror 22, 0\n" + Runs("none.zpc"));
  EXPECT_EQ(Page(Runs("a.zpc") + "pushnc ZpDO_Error\nout\n"), "No such file or directory");
}

}  // namespace
