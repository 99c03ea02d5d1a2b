// Delimited text files: the reader, the loop over it, filters, and the export.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <random>
#include <thread>

#include "base/host/Config.h"
#include "base/host/FileDescriptor.h"
#include "base/machine/Feature.h"
#include "base/systems/unix/UNIXReentrantFile.h"
#include "tests/support/DelimitedModel.h"
#include "tests/support/FaultyFile.h"
#include "tests/support/Machine.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;

// Writes each record as "number:a|b|c;", and after the loop "end" with the count and the error.
const char* const kLoop = R"(
        pushc "in"
        pushg delimiter
        pushc "a,b,c"
        import done
  body: pushg recno
        out
        pushc ":"
        out
        pushg a
        out
        pushc "|"
        out
        pushg b
        out
        pushc "|"
        out
        pushg c
        out
        pushc ";"
        out
        import_loop body
  done: pushc "end"
        out
        pushg ZpIMPORT_Error
        out
)";

// The same with a filter in the variable "filter".
std::string FilteredLoop() {
  std::string source = kLoop;
  source.replace(source.find("import done"), 11, "pushg filter\nimportf done");
  return source;
}

// A machine with files in memory.
class ImportRun {
 public:
  explicit ImportRun(const std::string& source) {
    machine.application.SetFileManager(&files);
    machine.Assemble(source);
    Set("delimiter", ",");
  }
  ~ImportRun() {
    machine.Close();
    EXPECT_EQ(files.open_now, 0);
  }

  void Set(const char* name, const std::string& text) {
    machine.global.SetVariable(new Variable(name, -1, text.data(), static_cast<int>(text.size())));
  }
  void SetBuffer(int bytes) {
    machine.application.config()->SetValue_Integer(Config_bufsz_import, bytes);
  }
  const std::string& Output(const std::string& content, int expected = 1) {
    files.files["in"] = content;
    EXPECT_EQ(machine.Go(), expected) << machine.Error();
    return machine.Output();
  }

  FaultyFileManager files;
  Machine machine;
};

std::string Imported(const std::string& content, const std::string& delimiter = ",") {
  ImportRun run(kLoop);
  run.Set("delimiter", delimiter);
  return run.Output(content);
}

std::string Filtered(const std::string& content, const std::string& filter) {
  ImportRun run(FilteredLoop());
  run.Set("filter", filter);
  return run.Output(content);
}

struct ImportCase {
  const char* label;
  std::string content;
  const char* delimiter;
  const char* output;
};

// What kLoop writes for a file, according to a simple model.
std::string Model(const std::string& content, const std::string& delimiter) {
  std::string all;
  int number = 0;
  for (const auto& fields : DelimitedRecords(content, delimiter, 3)) {
    all += std::to_string(++number) + ":" + fields[0] + "|" + fields[1] + "|" + fields[2] + ";";
  }
  return all + "end";
}

const ImportCase kCases[] = {
    {"an empty file", "", ",", "end"},
    {"one record", "x,y,z\n", ",", "1:x|y|z;end"},
    {"the last line without a newline", "x,y,z\nu,v,w", ",", "1:x|y|z;2:u|v|w;end"},
    {"fewer fields than variables", "x\n", ",", "1:x||;end"},
    {"an empty line", "\nx\n\n", ",", "1:||;2:x||;3:||;end"},
    {"a delimiter at the end", "x,\n", ",", "1:x||;end"},
    {"empty fields", ",,z\n", ",", "1:||z;end"},
    {"extra fields", "1,2,3,4,5\n", ",", "1:1|2|3;end"},
    {"CR LF is one end", "x\r\ny\r\n", ",", "1:x||;2:y||;end"},
    {"a lone CR", "x\ry\r", ",", "1:x||;2:y||;end"},
    {"CR CR LF", "x\r\r\ny\n", ",", "1:x||;2:||;3:y||;end"},
    {"LF CR is two ends", "x\n\ry\n", ",", "1:x||;2:||;3:y||;end"},
    {"an empty line that ends with CR at the end of the file", "x\n\r", ",", "1:x||;end"},
    {"an empty line that ends with LF at the end of the file", "x\n\n", ",", "1:x||;2:||;end"},
    {"escapes", "a\\nb,c\\rd,e\\\\f\n", ",", "1:a\nb|c\rd|e\\f;end"},
    {"other escapes", "\\a\\,\\t\\\"\n", ",", "1:a|t\"|;end"},
    {"an escaped newline is in the record", "a\\\nb\n", ",", "1:a\nb||;end"},
    {"an escaped CR is in the record", "a\\\r\nb\n", ",", "1:a\r||;2:b||;end"},
    {"a backslash at the end of the file", "x\\", ",", "1:x||;end"},
    {"nothing but a backslash", "\\", ",", "end"},
    {"no trim and no quotes", " x , \"y,z\" \n", ",", "1: x | \"y|z\" ;end"},
    {"a long delimiter", "x<->y<-z<->w\n", "<->", "1:x|y<-z|w;end"},
    {"a delimiter that begins again within itself", "aaab\n", "aab", "1:a||;end"},
    {"less than a delimiter left", "x<-\n", "<->", "1:x<-||;end"},
    {"no delimiter", "x,y\n", "", "1:x,y||;end"},
    {"a delimiter of a backslash", "x\\\\y\n", "\\", "1:x|y|;end"},
    {"a NUL byte", std::string("x\0y,z\n", 6), ",", nullptr},
    {"the delimiter is an escaped newline", "x\\ny\n", "\n", "1:x|y|;end"},
};

TEST(Import, RecordsAndFields) {
  for (const ImportCase& c : kCases) {
    SCOPED_TRACE(c.label);
    EXPECT_EQ(Model(c.content, c.delimiter), c.output ? c.output : Model(c.content, c.delimiter));
    EXPECT_EQ(Imported(c.content, c.delimiter), Model(c.content, c.delimiter));
  }
}

TEST(Import, EveryRecordIsTheSameHoweverTheFileIsCutIntoBlocks) {
  for (const ImportCase& c : kCases) {
    SCOPED_TRACE(c.label);
    const std::string expected = Model(c.content, c.delimiter);
    for (int size = 1; size <= static_cast<int>(c.content.size()) + 1; size++) {
      ImportRun run(kLoop);
      run.Set("delimiter", c.delimiter);
      run.SetBuffer(size);
      EXPECT_EQ(run.Output(c.content), expected) << "buffer of " << size;
    }
  }
}

TEST(Import, AnySettingOfTheBufferIsSafe) {
  for (int size : {0, -1, INT_MIN, INT_MAX, 1 << 30}) {
    ImportRun run(kLoop);
    run.SetBuffer(size);
    EXPECT_EQ(run.Output("x,y\\n,z\nu\r\nv"), "1:x|y\n|z;2:u||;3:v||;end") << size;
  }
}

TEST(Import, ABufferOfNothingHas8192Bytes) {
  std::string content;
  for (int i = 0; i < 10000; i++) content += "x\n";
  for (int size : {8192, 0, -1, INT_MIN}) {
    ImportRun run(
        "pushc \"in\"\npushc \",\"\npushc \"a\"\nimport done\nbody: import_loop body\ndone:");
    run.SetBuffer(size);
    EXPECT_EQ(run.Output(content), "");
    EXPECT_EQ(run.files.reads, 4) << size << ": three blocks and the end of the file";
  }
}

TEST(Import, ABufferIsAsLargeAsItsSetting) {
  ImportRun run(
      "pushc \"in\"\npushc \",\"\npushc \"a\"\nimport done\nbody: import_loop body\ndone:");
  run.SetBuffer(4 << 20);
  EXPECT_EQ(run.Output(std::string(3 << 20, 'x') + "\n"), "");
  EXPECT_EQ(run.files.reads, 2) << "one block and the end of the file";
}

TEST(Import, RandomFilesAreReadAsByPlainCode) {
  std::random_device device;
  const unsigned seed = device();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const auto text = [&](const char* letters, unsigned most) {
    std::string made;
    const size_t count = strlen(letters);
    for (unsigned i = random() % (most + 1); i > 0; i--) made += letters[random() % count];
    return made;
  };
  for (int round = 0; round < 300; round++) {
    const std::string delimiter = text(",-\\ab", 3);
    const std::string content = text("\n\n\r\\nrab,-,-\xff", 200);
    ImportRun run(kLoop);
    run.Set("delimiter", delimiter);
    run.SetBuffer(1 + static_cast<int>(random() % 64));
    run.files.read_limit = static_cast<int>(random() % 20);
    EXPECT_EQ(run.Output(content), Model(content, delimiter)) << delimiter << "\n" << content;
  }
}

TEST(Import, ALongRecordIsOneRecord) {
  std::string field(100000, 'x');
  EXPECT_EQ(Imported(field + ",y\n" + field + "\\\\\n"),
            "1:" + field + "|y|;2:" + field + "\\||;end");
}

TEST(Import, AnEmptyFileSkipsTheLoopAndClearsTheErrorVariable) {
  ImportRun run(kLoop);
  run.Set("ZpIMPORT_Error", "of an earlier import");
  EXPECT_EQ(run.Output(""), "end");
}

TEST(Import, AFifoIsNotWaitedFor) {
  TemporaryDirectory directory;
  const std::string path = directory.path("in");
  ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
  const auto imported = [&directory] {
    Machine machine;
    UNIXReentrantFileManager files(&machine.application);
    EXPECT_TRUE(files.InitializeDataDirectory(directory.path().c_str()));
    machine.application.SetFileManager(&files);
    machine.Assemble(kLoop);
    machine.global.SetVariable(new Variable("delimiter", -1, ",", 1));
    EXPECT_EQ(machine.Go(), 1) << machine.Error();
    const std::string output = machine.Output();
    machine.Close();
    return output;
  };
  EXPECT_EQ(imported(), "end") << "no one writes to it";
  const FileDescriptor writer(open(path.c_str(), O_RDWR | O_CLOEXEC));
  EXPECT_THAT(imported(), EndsWith("endError reading from 'in': Resource temporarily unavailable"));
  ASSERT_EQ(4, write(writer.get(), "x,y\n", 4));
  EXPECT_EQ(imported(), "1:x|y|;end");
}

TEST(Import, WhatHasNoRecordLeavesTheVariables) {
  ImportRun run("pushc \"old\"\npopg a\n" + std::string(kLoop));
  run.Output("");
  EXPECT_EQ(run.machine.Value("a"), "old");
  EXPECT_EQ(run.machine.Value("recno"), "");
}

TEST(Import, AfterTheLoopTheVariablesHaveTheLastRecord) {
  ImportRun run(kLoop);
  run.Output("1,2,3\n4,5,6\n");
  EXPECT_EQ(run.machine.Value("b"), "5");
  EXPECT_EQ(run.machine.Value("recno"), "2");
}

TEST(Import, AFileThatIsNotThereIsAnErrorOfTheTag) {
  ImportRun run(kLoop);
  EXPECT_EQ(run.machine.Go(), 1);
  EXPECT_THAT(run.machine.Output(), EndsWith("endError opening 'in': No such file or directory"));
  EXPECT_THAT(run.machine.Error(),
              EndsWith("ZpIMPORT: Error opening 'in': No such file or directory\n"));
}

TEST(Import, TheTextOfAnErrorIsEncoded) {
  ImportRun run("pushc \"<b>\"\npushc \",\"\npushc \"a\"\nimport done\ndone:");
  EXPECT_EQ(run.machine.Go(), 1);
  EXPECT_THAT(run.machine.Value("ZpIMPORT_Error"), HasSubstr("Error opening '&lt;b&gt;': "));
}

TEST(Import, AnErrorIsFatalIfTheScriptSaysSo) {
  ImportRun run("tagerror 2, 2\n" + std::string(kLoop));
  EXPECT_EQ(run.machine.Go(), 0);
  EXPECT_EQ(run.machine.Output(), "");
}

TEST(Import, AFileWhoseFirstBlockCannotBeReadIsAnError) {
  ImportRun run(kLoop);
  run.files.fail_read = 1;
  EXPECT_THAT(run.Output("x\n"), EndsWith("endError reading from 'in': Injected failure"));
}

TEST(Import, AReadThatFailsLaterEndsTheLoopAfterWhatWasRead) {
  ImportRun run(kLoop);
  run.SetBuffer(3);
  run.files.fail_read = 3;
  EXPECT_EQ(run.Output("x\ny,z,u\nv\n"), "1:x||;2:y|z|;3:u||;4:v||;end");
  ImportRun lasting(kLoop);
  lasting.SetBuffer(2);
  lasting.files.fail_read = 2;
  EXPECT_EQ(lasting.Output("x\n"), "1:x||;end");
}

TEST(Import, NULBytesInTheNameOfTheFileAreDropped) {
  ImportRun run("pushc \"i\\0n\\0\"\npushc \",\"\npushc \"a\"\nimport done\ndone: pushg a\nout");
  EXPECT_EQ(run.Output("x\n"), "x");
}

TEST(Import, TheOperandsMayAllBeOneArray) {
  ImportRun run(R"(
        pushg v
        pushi 1
        elem
        popg e
        pushc "in"
        pushg v
        pushi 1
        elem
        store
        pushg v
        pushg v
        pushg v
        import done
  body: pushg v
        out
        pushc ";"
        out
        import_loop body
  done:
  )");
  run.files.files["1=in"] = run.files.files["in"] = "";
  run.Output("xiny\nz\n");
  SUCCEED();
}

TEST(Import, FieldsOfEveryScopeAndNamesOfNobody) {
  ImportRun run(R"(
        pushc "in"
        pushc ","
        pushc " g.a , v[2] , , s.nobody , d.x , l.b"
        import done
  body: pushg a
        out
        pushg v
        out
        pushg b
        out
        import_loop body
  done: pushg recno
        out
  )");
  EXPECT_EQ(run.Output("1,2,3,4,5,6\n"), "1251");
}

TEST(Import, ABadNameIsFatalAndSaysSoOnce) {
  ImportRun run("pushc \"in\"\npushc \",\"\npushc \"a[\"\nimport done\ndone:");
  run.Output("x\n", 0);
  EXPECT_TRUE(run.machine.vm().stopped());
}

TEST(Import, AScriptThatDoesNotKnowRecnoGetsNone) {
  ImportRun run(
      "pushc \"in\"\npushc \",\"\npushc \"a\"\nimport done\nbody: import_loop body\ndone:");
  run.Output("x\n");
  EXPECT_EQ(run.machine.Value("recno"), "(none)");
}

TEST(Import, RecnoStaysWithTheImportWhenTheScriptBindsItsNameAgain) {
  ImportRun run(R"(
        pushc "in"
        pushc ","
        pushc "a"
        import done
  body: pushg other
        poprg recno
        import_loop body
  done: pushg recno
        out
  )");
  EXPECT_EQ(run.Output("x\ny\nz\n"), "");
}

// --- The loop ------------------------------------------------------------------------------------

TEST(Import, LoopsNest) {
  ImportRun run(R"(
        pushc "in"
        pushc ","
        pushc "a"
        import done
  body: pushc "in"
        pushc ","
        pushc "b"
        import next
  in:   pushg a
        out
        pushg b
        out
        pushc " "
        out
        import_loop in
  next: import_loop body
  done: pushc "end"
        out
  )");
  EXPECT_EQ(run.Output("x\ny\n"), "xx xy yx yy end");
}

TEST(Import, StopLeavesTheNewestLoop) {
  ImportRun run(R"(
        pushc "in"
        pushc ","
        pushc "a"
        import done
  body: pushc "in"
        pushc ","
        pushc "b"
        import next
  in:   pushg b
        out
        import_stop next
        import_loop in
  next: import_loop body
  done: pushc "end"
        out
  )");
  EXPECT_EQ(run.Output("x\ny\n"), "xxend");
}

TEST(Import, AFunctionThatReturnsFromItsLoopClosesIt) {
  ImportRun run(R"(
        call first
        out
        import_stop done
  done: exit
        .function first()
        pushc "in"
        pushc ","
        pushc "a"
        import none
  body: pushg a
        ret
        import_loop body
  none: pushc "none"
        ret
        .end
  )");
  run.Output("x\ny\n", 0);
  EXPECT_EQ(run.machine.Failure(), "Invalid instruction");
  EXPECT_EQ(run.files.open_now, 0);
}

TEST(Import, WithoutAnImportItsInstructionsAreInvalid) {
  ExpectFailures(
      {{"import_loop 0", "Invalid instruction"}, {"import_stop 0", "Invalid instruction"}});
}

TEST(Import, MissingOperandsAreAnUnderflow) {
  ExpectFailures({{"import 0", "Stack underflow"},
                  {"pushc \"a\"\npushc \"b\"\nimport 0", "Stack underflow"},
                  {"pushc \"a\"\npushc \"b\"\npushc \"c\"\nimportf 0", "Stack underflow"},
                  {"pushc \"a\"\npushc \"b\"\nexport", "Stack underflow"}});
}

TEST(Import, JumpsIntoNowhereEndTheRun) {
  for (const char* distance : {"0x7fffffff", "0x80000000", "100000", "-100000"}) {
    for (const char* content : {"", "x\ny\n"}) {
      SCOPED_TRACE(distance);
      ImportRun run("pushc \"in\"\npushc \",\"\npushc \"a\"\nimport " + std::string(distance) +
                    "\nimport_loop " + distance + "\nimport_stop " + distance);
      EXPECT_EQ(run.Output(content), "");
    }
  }
}

TEST(Import, ALoopThatIsLeftOpenIsClosedWithTheMachine) {
  ImportRun run("pushc \"in\"\npushc \",\"\npushc \"a\"\nimport 0");
  run.Output("x\n");
  EXPECT_EQ(run.files.open_now, 1);
  run.machine.Close();
  EXPECT_EQ(run.files.open_now, 0);
}

TEST(Import, ALoopWithoutEndIsEndedByTheTimeOut) {
  ImportRun run("again: pushc \"in\"\npushc \",\"\npushc \"a\"\npushc \"0\"\nimportf again");
  run.files.files["in"] = "x\n";
  std::thread clock(
      [&] { std::atomic_ref<int>(*run.machine.application.timedoutflag()).store(1); });
  EXPECT_EQ(run.machine.Go(), 0);
  clock.join();
}

// --- Filters -------------------------------------------------------------------------------------

const char* const kRecords = "1,x\n2,y\n3,x\n4,y\n";

TEST(ImportFilter, TakesTheRecordsForWhichItIsTrueAndCountsThem) {
  const struct {
    const char* filter;
    const char* output;
  } cases[] = {
      {"a gt 2", "1:3|x|;2:4|y|;end"},
      {"b eq 'x'", "1:1|x|;2:3|x|;end"},
      {"a eq 2", "1:2|y|;end"},
      {"1", "1:1|x|;2:2|y|;3:3|x|;4:4|y|;end"},
      {"0", "end"},
      {"", "1:1|x|;2:2|y|;3:3|x|;4:4|y|;end"},
      {" \t\r\n", "1:1|x|;2:2|y|;3:3|x|;4:4|y|;end"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.filter);
    EXPECT_EQ(Filtered(kRecords, c.filter), c.output);
  }
}

TEST(ImportFilter, OneThatRejectsEverythingLeavesRecnoAsItWas) {
  ImportRun run("pushi 7\npopg recno\n" + FilteredLoop());
  run.Set("filter", "a eq 'nobody'");
  EXPECT_EQ(run.Output(kRecords), "end");
  EXPECT_EQ(run.machine.Value("recno"), "7");
  EXPECT_EQ(run.files.open_now, 0);
}

TEST(ImportFilter, SeesTheCountOfTheRecordsInFrontOfItsOwn) {
  EXPECT_EQ(Filtered(kRecords, "recno lt 1 or a eq 4"), "1:1|x|;2:4|y|;end");
}

TEST(ImportFilter, ATextThatIsNoExpressionIsAnErrorAndSkipsTheLoop) {
  EXPECT_THAT(Filtered(kRecords, "(a"), HasSubstr("endSyntax error in filter: "));
  ImportRun run(FilteredLoop());
  run.Set("filter", "a <> <");
  run.Output(kRecords);
  EXPECT_THAT(run.machine.Value("ZpIMPORT_Error"), Not(HasSubstr("<")));
}

// A filter that leaves entries, or pops more than it has pushed, does not touch the entries that
// the stack has around the loop.
TEST(ImportFilter, TheStackOfTheScriptIsNoneOfItsBusiness) {
  for (const char* filter : {"a gt 2", "(1) (2) a gt 2", "()", "1"}) {
    SCOPED_TRACE(filter);
    ImportRun run("pushi 11\npushi 12\n" + FilteredLoop());
    run.Set("filter", filter);
    run.Output(kRecords);
    EXPECT_EQ(run.machine.StackText(), "11 12");
  }
  for (const char* filter : {"1 +", "NOT", "a +"}) {
    SCOPED_TRACE(filter);
    ImportRun run("pushi 11\npushi 12\n" + FilteredLoop());
    run.Set("filter", filter);
    run.Output(kRecords, 0);
    EXPECT_EQ(run.machine.Failure(), "Stack underflow");
  }
}

TEST(ImportFilter, LoopsWithFiltersNest) {
  ImportRun run(R"(
        pushc "in"
        pushc ","
        pushc "a,b"
        pushc "b eq 'x'"
        importf done
  body: pushc "in"
        pushc ","
        pushc "c,d"
        pushc "d eq 'y' and c gt a"
        importf next
  in:   pushg a
        out
        pushg c
        out
        pushc " "
        out
        import_loop in
  next: import_loop body
  done: pushc "end"
        out
  )");
  EXPECT_EQ(run.Output(kRecords), "12 14 34 end");
}

// A loop over the file with a filter that calls functions of the script.
std::string WithFunctions(const std::string& functions) {
  return FilteredLoop() + "exit\n" + functions;
}

TEST(ImportFilter, MayCallFunctionsThatImportThemselves) {
  ImportRun run(WithFunctions(R"(
        .function known(key)
        pushc "other"
        pushc ","
        pushc "l.k"
        pushc "k eq key"
        importf none
        pushi 1
        ret
  none: pushi 0
        ret
        .local k
        .end
  )"));
  run.files.files["other"] = "4\n2\n";
  run.Set("filter", "known(a)");
  EXPECT_EQ(run.Output(kRecords), "1:2|y|;2:4|y|;end");
}

// A variable whose value a function of the script computes.
class AskingVariable : public Variable {
 public:
  explicit AskingVariable(ImportRun* importing) : Variable("probe", 5), run(importing) {}
  int type() override { return VariableComputedInteger; }
  int IsTrue() override { return value_integer(); }
  int value_integer() override {
    Variable result;
    EXPECT_EQ(run->machine.vm().RunFunction("g", 1, nullptr, &result), 1);
    return result.value_integer();
  }

 private:
  ImportRun* run;
};

// The end of such a nested run is not the end of the filter.
TEST(ImportFilter, ItsOperandsMayRunFunctions) {
  ImportRun run(WithFunctions(".function g()\nincg count, 1\npushg a\npushi 2\nmod\nret\n.end\n"));
  run.machine.system.SetVariable(new AskingVariable(&run));
  run.Set("filter", "probe and a gt 1");
  EXPECT_EQ(run.Output(kRecords), "1:3|x|;end");
  EXPECT_EQ(run.machine.Value("count"), "4");
  EXPECT_EQ(run.machine.vm().CurrentFrame()->previous, nullptr);
}

TEST(ImportFilter, AFunctionOfItsMayEndTheRunOrFail) {
  const struct {
    const char* code;
    int result;
  } cases[] = {
      {"exit", 1},
      {"pop", 0},
      {"pushi 1\nimport_loop 0", 1},
      {"import_stop 0\npushi 1\nret", 0},
      {"import_stop 0\npushi 0\nret", 0},
      {"import_stop 0\nimport_stop 0", 0},
      {"jmp 1000", 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.code);
    ImportRun run(WithFunctions(".function f()\n" + std::string(c.code) + "\n.end\n"));
    run.Set("filter", "f() and 1");
    run.Output(kRecords, c.result);
  }
}

TEST(ImportFilter, FunctionsThatReadOnWithinTheFilterEndAtTheLimitOfCalls) {
  ImportRun run(WithFunctions(".function f()\nimport_loop -6\npushi 1\nret\n.end\n"));
  run.Set("filter", "f()");
  std::string many;
  for (int i = 0; i < 200000; i++) many += "x\n";
  run.Output(many, 0);
  EXPECT_EQ(run.machine.Failure(), "Stack overflow");
}

// Each level has the file open.
TEST(ImportFilter, AFilterWhoseFunctionImportsWithItEndsAtTheLimitOfRuns) {
  ImportRun run(WithFunctions(R"zpa(
        .function f()
        pushc "in"
        pushc ","
        pushc "a"
        pushc "f()"
        importf none
  none: pushi 1
        ret
        .end
)zpa"));
  run.Set("filter", "f()");
  run.Output(kRecords, 0);
  EXPECT_EQ(run.machine.Failure(), "Stack overflow");
  EXPECT_LE(run.files.opens, 501);
}

TEST(ImportFilter, ARunThatEndsInAFilterCountsItNoMore) {
  ImportRun run(".function f()\n" + FilteredLoop() +
                "retn\n.end\n.function leave()\njmp 1000\n.end\n");
  run.Set("filter", "leave()");
  run.files.files["in"] = kRecords;
  for (int i = 0; i < 600; i++) {
    ASSERT_EQ(run.machine.vm().RunFunction("f", -1, nullptr, nullptr), 1) << i;
  }
  EXPECT_EQ(run.files.opens, 600);
}

// No text compiles to a return, so the test appends one to the filter's code.
TEST(ImportFilter, AReturnInItIsOutsideOfAFunction) {
  ImportRun run(".function f()\n" + FilteredLoop() + "retn\n.end\n.segment 0\n");
  run.Set("filter", "1");
  run.files.files["in"] = "x\n";
  EXPECT_EQ(run.machine.vm().RunFunction("f", -1, nullptr, nullptr), 1);
  EXPECT_EQ(run.machine.Output(), "1:x||;end");
  Segment* filter = run.machine.segments.Lookup(run.machine.segments.Segments() - 1);
  ASSERT_GT(filter->Write_Word(filter->length(), Instruction::ret), 0);
  EXPECT_EQ(run.machine.vm().RunFunction("f", -1, nullptr, nullptr), 0);
  EXPECT_EQ(run.machine.Failure(), "Return outside of function");
}

TEST(ImportFilter, KeepsTheErrorOutputOfTheLoop) {
  ImportRun run("erroutput 3\n" + WithFunctions(R"(
        .function f()
        pushc "nowhere"
        pushc ","
        pushc "c"
        import none
  none: pushi 1
        ret
        .end
  )"));
  run.Set("filter", "f()");
  EXPECT_EQ(run.Output("1\n").substr(0, 8), "1:1||;en");
}

TEST(ImportFilter, KeepsTheOutputModeOfTheLoop) {
  ImportRun run(
      "stdoutput 2\npushc \"in\"\npushc \",\"\npushc \"a\"\npushc \"f()\"\n"
      "importf done\nbody: pushg a\nout_comp\nimport_loop body\ndone: exit\n"
      ".function f() inherit\npushc \" f  f \"\nout_comp\npushi 1\nret\n.end\n");
  EXPECT_EQ(run.Output("x  y\n \n"), "f f x y f f ");
  EXPECT_EQ(run.machine.output.flags(), 2);
}

TEST(ImportFilter, AMistakeInItIsToldEachTime) {
  ImportRun run(R"(
        tagerror 2, 0
  again: pushc ""
        popg ZpIMPORT_Error
        pushc "in"
        pushc ","
        pushc "a"
        pushc "a +* 1"
        importf done
  body: import_loop body
  done: pushg ZpIMPORT_Error
        out
        incg n, 1
        cmpgi n, 2
        jmp_lt again
  )");
  const std::string message = "Syntax error in filter: Argument expected in Expression";
  EXPECT_EQ(run.Output(kRecords), message + message);
}

TEST(ImportFilter, TheSameTextIsCompiledOnce) {
  ImportRun run(R"(
  again: pushc "in"
        pushc ","
        pushc "a"
        pushc "a gt 1"
        importf done
  body: import_loop body
  done: incg n, 1
        cmpgi n, 5
        jmp_lt again
  )");
  run.Output(kRecords);
  EXPECT_EQ(run.machine.segments.Segments(), 2);
}

TEST(ImportFilter, RunsOftenAndIsAsRightAsAtFirst) {
  std::string content, expected;
  for (int i = 1; i <= 2000; i++) {
    content += std::to_string(i) + "\n";
    if (i % 3 == 0) expected += std::to_string(i / 3) + ":" + std::to_string(i) + "||;";
  }
  EXPECT_EQ(Filtered(content, "a mod 3 eq 0"), expected + "end");
}

// --- The export ----------------------------------------------------------------------------------

// Files in a directory, because those in memory cannot be appended to.
class ExportTest : public testing::Test {
 protected:
  ExportTest() : files(&machine.application) {
    EXPECT_TRUE(files.InitializeDataDirectory(directory.path().c_str()));
    machine.application.SetFileManager(&files);
  }
  ~ExportTest() override { machine.Close(); }

  void Set(const char* name, const std::string& text) {
    machine.global.SetVariable(new Variable(name, -1, text.data(), static_cast<int>(text.size())));
  }
  std::string Exported() { return directory.Content("out"); }

  TemporaryDirectory directory;
  Machine machine;
  UNIXReentrantFileManager files;
};

const char* const kExport = R"(
        pushc "out"
        pushg delimiter
        pushc "a,b,c"
        export
)";

TEST_F(ExportTest, AppendsARecord) {
  machine.Assemble(std::string(kExport) + kExport);
  Set("delimiter", ",");
  Set("a", "x");
  Set("c", "\\ \r\n");
  Set("ZpEXPORT_Error", "of an earlier export");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(Exported(), "x,,\\\\ \\r\\n\nx,,\\\\ \\r\\n\n");
  EXPECT_EQ(machine.Value("ZpEXPORT_Error"), "");
}

TEST_F(ExportTest, NoNamesMakeAnEmptyRecord) {
  machine.Assemble("pushc \"out\"\npushc \",\"\npushc \" , \"\nexport");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(Exported(), "\n");
}

TEST_F(ExportTest, NumbersAndArraysAreTheirTexts) {
  machine.Assemble(R"(
        pushf 0.5
        popg a
        pushi 7
        pushg b
        pushi 1
        elem
        store
        pushi 8
        pushg b
        pushi 2
        elem
        store
        pushc "out"
        pushc ";"
        pushc "a,b,b[2],nobody"
        export
  )");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(Exported(), "0.5;7,8;8;\n");
}

TEST_F(ExportTest, AFileThatCannotBeMadeIsAnError) {
  machine.Assemble("pushc \"no/<out>\"\npushc \",\"\npushc \"a\"\nexport\npushc \"on\"\nout");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_THAT(machine.Value("ZpEXPORT_Error"),
              testing::StartsWith("Unable to create file 'no/&lt;out&gt;': "));
  EXPECT_THAT(machine.Output(), EndsWith("on"));
}

TEST_F(ExportTest, ARecordThatIsNotWrittenWholeIsAnError) {
  FaultyFileManager faulty;
  machine.application.SetFileManager(&faulty);
  faulty.write_room = 3;
  machine.Assemble(kExport);
  Set("delimiter", ",");
  Set("a", "long");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Value("ZpEXPORT_Error"), "Unable to write to file 'out'.");
  EXPECT_EQ(faulty.open_now, 0);
  EXPECT_EQ(faulty.writes, 1);
}

TEST_F(ExportTest, ARecordIsOneWriteHoweverLongItIs) {
  FaultyFileManager faulty;
  machine.application.SetFileManager(&faulty);
  machine.Assemble(kExport);
  Set("delimiter", ",");
  const std::string half(8191, 'x');
  Set("a", half + "\n" + half);
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(faulty.files["out"], half + "\\n" + half + ",,\n");
  EXPECT_EQ(faulty.writes, 1);
}

TEST_F(ExportTest, ABadNameWritesNothing) {
  machine.Assemble("pushc \"out\"\npushc \",\"\npushc \"a,b[\"\nexport");
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(Exported(), "");
}

// Values are read back unchanged, unless they contain the delimiter, or the record is nothing but
// its end.
TEST_F(ExportTest, RandomValuesComeBack) {
  machine.Assemble(std::string(kExport) + R"(
        pushc "out"
        pushg delimiter
        pushc "x,y,z"
        import done
  body: import_loop body
  done:
  )");
  std::random_device device;
  const unsigned seed = device();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const auto text = [&](unsigned least, unsigned most, const char* letters, size_t count) {
    std::string made;
    for (unsigned i = least + random() % (most - least + 1); i > 0; i--) {
      made += letters[random() % count];
    }
    return made;
  };
  machine.Close();
  for (int round = 0; round < 300; round++) {
    // The delimiter ends with a byte that no value has, and contains no byte that is escaped.
    const std::string delimiter = text(0, 3, "ab,", 3) + "|";
    std::string values[3];
    for (std::string& value : values) value = text(0, 40, "\n\r\\nrab,\0\xff", 10);
    const char* const names[] = {"a", "b", "c"};
    for (int i = 0; i < 3; i++) Set(names[i], values[i]);
    Set("delimiter", delimiter);
    std::filesystem::remove(directory.path("out"));
    machine.Close();
    machine.vm();
    ASSERT_EQ(machine.Go(), 1) << machine.Error();
    // The text before a delimiter may end with the beginning of one.
    std::string record = values[0] + delimiter + values[1] + delimiter + values[2];
    std::vector<std::string> expected;
    for (size_t at = 0; expected.size() < 3;) {
      const size_t stop = std::min(record.find(delimiter, at), record.size());
      expected.push_back(record.substr(std::min(at, record.size()), stop - at));
      at = std::min(stop + delimiter.size(), record.size());
    }
    EXPECT_EQ(machine.Value("x"), expected[0]);
    EXPECT_EQ(machine.Value("y"), expected[1]);
    EXPECT_EQ(machine.Value("z"), expected[2]);
  }
}

TEST(Export, ConcurrentExportersKeepLinesWhole) {
  TemporaryDirectory directory;
  std::vector<std::thread> threads;
  const int exporters = 4, records = 200;
  for (int i = 0; i < exporters; i++) {
    threads.emplace_back([&directory, i] {
      {
        Machine machine;
        UNIXReentrantFileManager files(&machine.application);
        ASSERT_TRUE(files.InitializeDataDirectory(directory.path().c_str()));
        machine.application.SetFileManager(&files);
        machine.Assemble("again:" + std::string(kExport) + "incg n, 1\ncmpgi n, 200\njmp_lt again");
        const std::string text(static_cast<size_t>(3000 + i), static_cast<char>('a' + i));
        machine.global.SetVariable(
            new Variable("a", -1, text.data(), static_cast<int>(text.size())));
        EXPECT_EQ(machine.Go(), 1);
        machine.Close();
      }
      Variable::FreeCycles();
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::istringstream lines(directory.Content("out"));
  int count[exporters] = {};
  for (std::string line; std::getline(lines, line);) {
    const int i = line.empty() ? 0 : line[0] - 'a';
    ASSERT_TRUE(i >= 0 && i < exporters);
    EXPECT_EQ(line, std::string(static_cast<size_t>(3000 + i), static_cast<char>('a' + i)));
    count[i]++;
  }
  for (int n : count) EXPECT_EQ(n, records);
}

}  // namespace
