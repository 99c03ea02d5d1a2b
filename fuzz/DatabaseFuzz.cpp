// Scripts of random database instructions on tables, memos and indexes that are damaged before,
// between and during them. Filters and keys call functions that use the same databases. Every
// script ends soon after its time, releases its memory, and leaves no lock.
//
//   DatabaseFuzz -max_len=1000 -rss_limit_mb=4000 -malloc_limit_mb=2000 CORPUS

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <string>

#include "base/core/ThreadMemory.h"
#include "base/extensions/ExternalCall.h"
#include "base/host/BufferedOutput.h"
#include "base/machine/ZephVM.h"
#include "base/values/Variable.h"
#include "fuzz/FunctionLibraries.h"
#include "fuzz/Input.h"
#include "fuzz/Require.h"
#include "fuzz/ScriptRun.h"
#include "fuzz/Watchdog.h"
#include "tests/support/LoadedScript.h"
#include "tests/support/RebuildFiles.h"
#include "tests/support/TestApplication.h"
#include "tools/Assembler.h"

namespace {

constexpr long kMemory = 600L << 20;  // what a script may allocate; more is no finding
constexpr int kMostSeconds = 20;      // a run, on a busy machine, after 12 ms of its own

// --- Files ---------------------------------------------------------------------------------------

// Scripts and tables are in one map; a path that leaves it is one of the map, too.
class Files : public RebuildFiles {
 public:
  // A damaged header may hold offsets of gigabytes.
  Files() { size_limit = 1 << 18; }
  char* NormalizeContainedPath(Zeph_PathType, const char* path, int* length,
                               int* allocated) override {
    const char* const slash = strrchr(path, '/');
    const std::string name = slash ? slash + 1 : path;
    *length = static_cast<int>(name.size());
    *allocated = *length + 1;
    char* const copy = new char[name.size() + 1];
    memcpy(copy, name.c_str(), name.size() + 1);
    return copy;
  }
  void Damage(unsigned which, unsigned place, unsigned value) {
    static const char* const names[] = {"t.dbf", "t.dbt", "i.zix", "j.zix", "u.dbf", "u.dbt"};
    const auto found = files.find(names[which % 6]);
    if (found == files.end() || found->second.empty()) return;
    std::string& bytes = found->second;
    if (which >= 250) {
      bytes.resize(place % bytes.size());
    } else {
      bytes[place % bytes.size()] = static_cast<char>(value);
    }
  }
};

// --- A library -----------------------------------------------------------------------------------

Files* current_files = nullptr;

// damage(which, place, value): as another process that writes into the files.
void DamageFiles(ZephVM*, VariableHash* parameters, Variable*, void**) {
  unsigned numbers[3] = {};
  for (int i = 0; i < 3; i++) {
    Variable* const number = parameters->Index(i, 1);
    if (number) numbers[i] = static_cast<unsigned>(number->value_integer());
  }
  current_files->Damage(numbers[0], numbers[1], numbers[2]);
}

_ZP_EL_Parameter damage_parameters[] = {{"which", 5, 0}, {"place", 5, 0}, {"value", 5, 0}};
_ZP_EL_Function library_functions[] = {{"damage", 6, 3, damage_parameters, DamageFiles},
                                       {nullptr, 0, 0, nullptr, nullptr}};
_ZP_EL_FunctionTable library_table = {nullptr, library_functions};

_ZP_EL_FunctionTable* LibraryTable() {
  return &library_table;
}

// --- Scripts -------------------------------------------------------------------------------------

const char* const kDatabases[] = {"", "a", "b", "a", "c", "A"};
const char* const kViews[] = {"", "", "", "a", "b", "x"};
const char* const kTables[] = {"t.dbf", "u.dbf", "t.dbf", "s.dbf", "i.zix", "t.dbt", "n/o.dbf", ""};
const char* const kIndexes[] = {"i.zix", "j.zix", "k.zix", "t.dbf", "u.dbf", ""};
const char* const kIndexLists[] = {"i.zix", "", "j.zix, i.zix", "i.zix,", "t.dbf", "k.zix", "no"};
const char* const kFields[] = {"name", "amount", "day", "paid", "note",   "recno",
                               "eof",  "totrec", "x",   "NAME", "deleted"};
// Needs more than one block of a memo.
const char kLongText[] =
    "a long text, which needs more than one line, and is the longer for what is said in it again "
    "and again, and again and again, and again and again, and again and again, and again";
const char* const kValues[] = {
    "",     "a", "abcdefghijkl", "-12.345", "20260228", "T", "x    ",  "1e30", "99999999999",
    "name", "a", "i.zix",        "f0()",    "t.dbf",    "1", kLongText};
const char* const kExpressions[] = {"1",
                                    "0",
                                    "name",
                                    "f0()",
                                    "f1()",
                                    "f2() + f0()",
                                    "d.name",
                                    "recno",
                                    "amount GT 1",
                                    "note",
                                    "name CIN 'a'",
                                    "deleted",
                                    "1 +",
                                    "f0(",
                                    "",
                                    "d.day",
                                    "f1() OR 1",
                                    "a.name + b.name",
                                    "g",
                                    "name + note",
                                    "d.amount * 2",
                                    "l.x[1]:y",
                                    "paid",
                                    "eof AND f2()"};
const char* const kFlags[] = {"", "unique", "descending, range", "string", "range", "unique,", "x"};
const char* const kSpecifications[] = {"name char(10), note memo",
                                       "name char(3), amount number(8.2), day date, paid bool",
                                       "recno char(5), eof bool, name memo",
                                       "name number(19)",
                                       "",
                                       "name char(0)",
                                       "a,"};
const char* const kOnDatabase[] = {"dbpack",     "dbreindex", "dbclose",      "dbcommit",
                                   "dbrollback", "dbpack",    "dbtransaction"};
const char* const kOnView[] = {"dbadd", "dbupdate", "dbdelete", "dbundelete", "dbadd", "dbupdate"};
const char* const kFunctions[] = {"f0", "f1", "f2"};
const char* const kGlobals[] = {"g", "h"};

// The program text of a script, from the input.
class Program {
 public:
  explicit Program(Input* input) : input(input) {}

  std::string Write(unsigned statements) {
    Statements(statements);
    text += "exit\n";
    for (const char* name : kFunctions) {
      text += std::string(".function ") + name + "()\n";
      Statements(input->Byte() % 4);
      Value();
      text += "ret\n.end\n";
    }
    text += ".function damage(which, place, value) external\n";
    return text;
  }

 private:
  void Statements(unsigned count) {
    for (; count > 0 && input->size() > 0; count--) Statement();
  }
  void Push(const std::string& constant) { text += "pushc \"" + constant + "\"\n"; }
  void Number(int number) { text += "pushi " + std::to_string(number) + "\n"; }
  void Word(const std::string& word) { text += word + "\n"; }
  void Target() {
    Text(kDatabases);
    Text(kViews);
  }
  // A constant, or a variable, which an operation may change or close.
  template <size_t count>
  void Text(const char* const (&pool)[count]) {
    const unsigned kind = input->Byte();
    if (kind < 224) {
      Push(pool[kind % count]);
    } else if (kind < 240) {
      Word(std::string("pushg ") + input->Pick(kGlobals));
    } else {
      Field();
    }
  }
  void Field() {
    Push(input->Pick(kDatabases));
    Push(input->Pick(kFields));
    Word("pushd");
  }
  void Value() {
    switch (input->Byte() % 8) {
      case 0: Field(); break;
      case 1: Number(static_cast<int8_t>(input->Byte())); break;
      case 2: Word(std::string("pushg ") + input->Pick(kGlobals)); break;
      case 3:
        Push("x");
        Field();
        Word("cat");
        break;
      case 4: Word("pushf 2.5e9"); break;
      default: Push(input->Pick(kValues)); break;
    }
  }

  void Statement() {
    const unsigned kind = input->Byte() % 32;
    switch (kind) {
      case 0:
      case 1: Open(); break;
      case 2:
        Text(kDatabases);
        Text(kTables);
        Push("xbase3");
        Text(kSpecifications);
        Word("dbcreate");
        break;
      case 3:
        Text(kDatabases);
        Word(input->Pick(kOnDatabase));
        break;
      case 4:
        Target();
        Text(kIndexes);
        Word("dbprimary");
        break;
      case 5:
      case 6:
        Target();
        Number(static_cast<int8_t>(input->Byte()));
        Word("dbskip");
        break;
      case 7:
        Target();
        Number(static_cast<int>(input->Byte() % 12) - 2);
        Word("dbgo");
        break;
      case 8:
      case 9:
        Target();
        Value();
        Number(static_cast<int>(input->Byte() & 1));
        Word("dbfind");
        break;
      case 10:
        Target();
        Text(kIndexLists);
        Word("dbsetindex");
        break;
      case 11:
        Text(kDatabases);
        Text(kIndexes);
        Text(kExpressions);
        Text(kFlags);
        Word("dbmakeindex");
        break;
      case 12:
        Target();
        Text(kTables);
        Word("dbrevealstructuredb");
        break;
      case 13:
        Target();
        if (input->Byte() & 1) {
          Field();
        } else {
          Word(std::string("pushg ") + input->Pick(kGlobals));
        }
        Word("dbrevealstructureagg");
        break;
      case 14:
      case 15:
        Target();
        Text(kExpressions);
        Word("dbfilter");
        break;
      case 16: Hold(); break;
      case 17: Structure(); break;
      case 18: Word(std::string("call ") + input->Pick(kFunctions) + "\nout"); break;
      case 19:
        Push("o");
        Word("op_do_file");
        break;
      case 20:
        for (int i = 0; i < 3; i++)
          Number(static_cast<int>(i == 1 ? input->Word() : input->Byte()));
        Word("call damage\nout");
        break;
      case 21:
        Text(kDatabases);
        Push("v");
        Push("query");
        Push("g, d.name");
        Word((input->Byte() & 1) ? "dbopenview" : "dbcommand\npop");
        break;
      case 22:
        Field();
        Word("out");
        break;
      case 23:
      case 24:
      case 25: Store(); break;
      default:
        Target();
        Word(input->Pick(kOnView));
        break;
    }
  }
  void Open() {
    Text(kDatabases);
    Text(kTables);
    Text(kIndexLists);
    for (int i = 0; i < 3; i++) Push("");
    Word("dbopen");
  }
  void Store() {
    Value();
    Push(input->Pick(kDatabases));
    Push(input->Pick(kFields));
    Word("popd");
  }
  // A field that a global variable refers to, or that refers to something else.
  void Hold() {
    Field();
    const std::string global = input->Pick(kGlobals);
    switch (input->Byte() % 4) {
      case 0: Word("pushg " + global + "\nrefer"); break;
      case 1: Word("poprg " + global); break;
      case 2:
        Field();
        Word("refer");
        break;
      default: Word("popg " + global); break;
    }
  }
  // A field that gets elements.
  void Structure() {
    Field();
    Value();
    Word("elem");
    Value();
    Word("pop\npop");
  }

  Input* input;
  std::string text;
};

// --- A run ---------------------------------------------------------------------------------------

// From the load of the script to the end of its machine and tables.
void RunScript(Files* files, const char* name, Watchdog* watchdog) {
  FunctionLibraries libraries(LibraryTable);
  NullOutput output(nullptr);
  TestApplication application;
  application.SetLibraryManager(&libraries);
  application.SetOutput(&output);
  application.SetFileManager(files);
  LoadedScript script(&application, files);
  Require(script.Load(name, files->Open(name, FileMode_Read)));
  script.file.Deactivate();
  ExternalCallManager external(&application);
  Require(external.RegisterDSO("library"));
  watchdog->Begin(application.heartbeatcounter(), application.timedoutflag());
  {
    ZephVM vm(name, -1, &application, &script.dictionary, &script.system, &script.globals,
              &script.segments, &script.functions, &external, nullptr, nullptr, &script.languages,
              &script.pieces, application.heartbeatcounter(), application.timedoutflag(),
              application.exitflag(), nullptr);
    ThreadMemory::SetJudge(IsRefused);
    vm.Go();
    ThreadMemory::SetJudge(nullptr);
  }
  watchdog->End();
}

// A table with memos, an empty one, and two indexes.
std::map<std::string, std::string> WholeFiles(Watchdog* watchdog) {
  std::string source =
      "pushc \"b\"\npushc \"u.dbf\"\npushc \"\"\npushc \"name char(4), note memo\"\ndbcreate\n"
      "pushc \"a\"\npushc \"t.dbf\"\npushc \"\"\npushc \"name char(10), amount number(8.2), day "
      "date, paid bool, note memo\"\ndbcreate\n";
  for (const char* value : {"a", "d", "b", "e", "c", "f", "g"}) {
    for (const char* field : {"name", "note"})
      source +=
          std::string("pushc \"") + value + "\"\npushc \"a\"\npushc \"" + field + "\"\npopd\n";
    source += std::string("pushc \"a\"\npushc \"\"\ndbadd\n");
  }
  source += "pushc \"a\"\npushc \"i.zix\"\npushc \"d.name\"\npushc \"\"\ndbmakeindex\n";
  source +=
      "pushc \"a\"\npushc \"j.zix\"\npushc \"d.note\"\npushc \"unique, range\"\ndbmakeindex\n";
  Files files;
  files.files["s"] = Assembled(source);
  RunScript(&files, "s", watchdog);
  Require(files.files.count("i.zix") == 1 && files.files["t.dbf"].size() > 100);
  return files.files;
}

void Run(Input* input, const std::map<std::string, std::string>& whole, Watchdog* watchdog) {
  Files files;
  files.files = whole;
  current_files = &files;
  const auto begin = std::chrono::steady_clock::now();
  for (int script = 0; script < 3 && input->size() > 0; script++) {
    for (unsigned patches = input->Byte() % 8; patches > 0; patches--) {
      const unsigned which = input->Byte(), place = input->Word();
      files.Damage(which, place, input->Byte());
    }
    files.files["o"] = Assembled(Program(input).Write(input->Byte() % 8));
    files.files["s"] = Assembled(
        "pushc \"a\"\npushc \"t.dbf\"\npushc \"i.zix\"\npushc \"\"\npushc \"\"\npushc \"\"\n"
        "dbopen\n" +
        Program(input).Write(24));
    RunScript(&files, "s", watchdog);
    Require(files.held.empty());
    Require(files.open_now == 0);
  }
  Require(std::chrono::steady_clock::now() - begin < std::chrono::seconds(kMostSeconds));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Watchdog* const watchdog = new Watchdog;
  static const auto* const whole = new std::map<std::string, std::string>(WholeFiles(watchdog));
  Input input(data, size);
  const ThreadMemory::Run run;
  // In some inputs the memory ends in the middle of something, or one block is too large.
  const unsigned memory = input.Byte();
  ThreadMemory::SetLimit(memory % 4 == 0 && memory != 0 ? memory * 8192L : kMemory);
  blocks_left = memory % 4 == 1 ? static_cast<long>(input.Word() % 4096) : 0;
  try {
    Run(&input, *whole, watchdog);
  } catch (const std::bad_alloc&) {
    watchdog->End();
  }
  Variable::FreeCycles();
  return 0;
}
