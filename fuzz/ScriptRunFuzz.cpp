// Scripts that are loaded and run by a machine with all its tables. Any script ends soon after it
// is cancelled and leaks nothing.
//
//   ScriptRunFuzz -max_len=8000 -rss_limit_mb=4000 -malloc_limit_mb=2000 CORPUS

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

#include "base/core/ThreadMemory.h"
#include "base/core/UFCrypt.h"
#include "base/core/zptime.h"
#include "base/extensions/ExternalCall.h"
#include "base/host/BufferedOutput.h"
#include "base/host/Config.h"
#include "base/machine/ZephVM.h"
#include "base/request/SpecialVariable.h"
#include "base/values/Aggregate.h"
#include "base/values/LogRecord.h"
#include "base/values/Variable.h"
#include "base/values/VariableRef.h"
#include "fuzz/FunctionLibraries.h"
#include "fuzz/ScriptMutator.h"
#include "fuzz/ScriptRunSeeds.h"
#include "fuzz/Watchdog.h"
#include "tests/support/FaultyFile.h"
#include "tests/support/LoadedScript.h"
#include "tests/support/TestApplication.h"
#include "tools/Assembler.h"

// --- Memory --------------------------------------------------------------------------------------

// A script may allocate this much; an allocation beyond it gets std::bad_alloc, which is no
// finding.
static constexpr long memory_limit = 600L << 20;

namespace {

// --- A library -----------------------------------------------------------------------------------

// Functions in C++ that scripts call, and that call scripts.

// call(name, argument var): calls the script's function of that name with the argument.
void Call(ZephVM* vm, VariableHash* parameters, Variable* result, void**) {
  Variable* argument = parameters->Index(1, 1);
  Variable* name = parameters->Index(0, 1);
  if (!argument || !name) return;
  String text(name->value().data, name->value().length);
  VariableList arguments;
  arguments.Insert(argument, ListTail);
  vm->RunFunction(text.data ? text.data : "", text.length, &arguments, result);
}

// change(v var): makes an array of v, with its former value as an element.
void Change(ZephVM*, VariableHash* parameters, Variable* result, void**) {
  Variable* variable = parameters->Index(0, 1);
  if (!variable) return;
  VariableRef was(new Variable(*variable));
  variable->InsertElement(1, was.get());
  variable->DeleteElements(3, -1, true);
  result->SetValue(*variable);
}

// count(): how often it was called. Its state is kept until the end of the run.
void Count(ZephVM* vm, VariableHash*, Variable* result, void** state) {
  auto* count = static_cast<int*>(*state);
  if (!vm) {
    delete count;
    return;
  }
  if (!count) *state = count = new int(0);
  result->SetValue_Integer(++*count);
}

// write(text): writes the text as a hidden form field, and fails if it is NULL. The result refers
// to it.
void Write(ZephVM* vm, VariableHash* parameters, Variable* result, void**) {
  Variable* text = parameters->Index(0, 1);
  if (!text) return;
  vm->HideVar("text", text);
  if (text->IsNULL()) vm->RuntimeError(12, "nothing to write");
  result->Make_Reference(text);
}

_ZP_EL_Parameter call_parameters[] = {{"name", 4, 0}, {"argument", 8, _ZP_EL_ByReference}};
_ZP_EL_Parameter change_parameters[] = {{"v", 1, _ZP_EL_ByReference}};
_ZP_EL_Parameter write_parameters[] = {{"text", 4, 0}};
_ZP_EL_Function library_functions[] = {
    {"call", 4, 2, call_parameters, Call}, {"change", 6, 1, change_parameters, Change},
    {"count", 5, 0, nullptr, Count},       {"write", 5, 1, write_parameters, Write},
    {nullptr, 0, 0, nullptr, nullptr},
};
_ZP_EL_FunctionTable library_table = {nullptr, library_functions};

_ZP_EL_FunctionTable* LibraryTable() {
  return &library_table;
}

// --- A run ---------------------------------------------------------------------------------------

class Application : public TestApplication {
 public:
  char* Crypt(const char* key, int keylength, const char* salt, int* length, int* size) override {
    if (!hash) hash = std::make_unique<UFCrypt>();
    char* result = new char[14];
    hash->crypt(key, keylength, salt, result);
    *length = 13;
    *size = 14;
    return result;
  }
  void Log(unsigned type, LogParameter* parameters) override {
    ZPTIME now;
    zp_gettimevalues(&now);
    LogRecord record(now, processid(), threadid(), Log_Description(type));
    record.Append(this, parameters);
    const std::string& line = record.Finish();
    if (line.find('\n') != line.size() - 1) abort();
  }
  int BeginAsynchronousTask(ZephVM* vm) override {
    if (running_tasks) return AsynchronousTask_InTask;
    if (tasks.size() == 3) return AsynchronousTask_LimitReached;
    tasks.push_back(
        std::make_unique<ZephVM>(this, *vm, heartbeatcounter(), timedoutflag(), exitflag()));
    return AsynchronousTask_Started;
  }
  // Runs the tasks that the script has started, after the script and its machine are gone.
  void RunTasks() {
    running_tasks = true;
    for (auto& task : tasks) {
      exit_flag = 0;
      task->Go();
      task.reset();
    }
  }

 private:
  std::unique_ptr<UFCrypt> hash;
  std::vector<std::unique_ptr<ZephVM>> tasks;
  bool running_tasks = false;
};

// Scripts find each other by the last part of a path.
class Files : public MemoryFileManager {
 public:
  char* NormalizeContainedPath(Zeph_PathType, const char* path, int* length,
                               int* allocated) override {
    const char* const slash = strrchr(path, '/');
    const std::string name = slash ? slash + 1 : path;
    char* const copy = new char[name.size() + 1];
    memcpy(copy, name.c_str(), name.size() + 1);
    *length = static_cast<int>(name.size());
    *allocated = *length + 1;
    return copy;
  }
};

// The calls that native code may make on a script, besides running it.
void UseNatively(LoadedScript* script, ZephVM* vm) {
  for (int i = 0; i < script->functions.Functions() && i < 8; i++) {
    Function* function = script->functions.Lookup(i);
    VariableList arguments;
    for (int p = 0; p < function->parameters().Entries() && p < 8; p++) {
      arguments.Insert(new Variable("argument", -1, p), ListTail, 0);
    }
    Variable result;
    if (function->name().data) {
      vm->RunFunction(function->name().data, function->name().length, &arguments, &result);
    }
  }
  for (int id = 0; id < script->dictionary.Entries() && id < 16; id++) {
    int length;
    const char* text = script->dictionary.Entry(id, &length);
    if (!text) continue;
    VariableList list;
    vm->Lookup_VariableList(&list, text, length);
    for (Variable* variable = list.First(); variable; variable = list.Next()) {
      vm->HideVar("v", variable);
    }
  }
}

std::string Assembled(const char* source) {
  std::string image, errors;
  if (!AssembleScript(source, "seed", &image, &errors)) {
    fprintf(stderr, "%s", errors.c_str());
    abort();
  }
  return image;
}

// From the load of the script to the end of its machine and tables.
void RunScript(Application* application, const std::string& file, Watchdog* watchdog) {
  FaultyFileManager manager;
  manager.files["s"] = file;
  LoadedScript script(application, &manager);
  File* opened = manager.Open("s", FileMode_Read);
  const char* failed = nullptr;
  if (!script.Load("s", opened, &failed)) {
    if (failed == std::string("open")) delete opened;
    return;
  }
  script.file.Deactivate();
  script.system.SetVariable(new Variable("subject", -1, "a subject", -1));
  script.system.SetVariable(new ImmutableVariable("fixed", -1, "a fixed text", -1));
  script.system.SetLateVariables(NewSystemVariables(application));
  ExternalCallManager external(application);
  if (!external.RegisterDSO("library")) abort();
  watchdog->Begin(application->heartbeatcounter(), application->timedoutflag());
  ZephVM vm("dir/script.zpc", -1, application, &script.dictionary, &script.system, &script.globals,
            &script.segments, &script.functions, &external, nullptr, nullptr, &script.languages,
            &script.pieces, application->heartbeatcounter(), application->timedoutflag(),
            application->exitflag(), nullptr);
  vm.Go();
  if (!vm.stopped() && !*application->exitflag()) UseNatively(&script, &vm);
}

void Run(const std::string& file, Watchdog* watchdog) {
  // Scripts read and write this file and others that they make. They run and call themselves, and
  // another script, which calls them back.
  static const std::string other = Assembled(script_run_other);
  Files files;
  files.files["s"] = file;
  files.files["c"] = files.files["d"] = other;
  files.files["f"] = "1,one\n2,two\\n,2\r\n\n3,three\r4";
  FunctionLibraries libraries(LibraryTable);
  NullOutput output(nullptr);
  Application application;
  application.SetLibraryManager(&libraries);
  application.SetOutput(&output);
  application.SetFileManager(&files);
  // One byte of the stamp decides whether the run is logged, the next one how many scripts are
  // kept.
  if (file.size() > 8 && file[8]) application.config()->SetValue_Integer(Config_log_level, -1);
  if (file.size() > 9) application.config()->SetValue_Integer(Config_max_docache, file[9] & 3);
  RunScript(&application, file, watchdog);
  application.RunTasks();
  watchdog->End();
  // Captures that the script left open have restored the output.
  if (application.output() != &output) abort();
}

std::vector<std::string> Seeds() {
  std::vector<std::string> files;
  for (const char* source : script_run_seeds) files.push_back(Assembled(source));
  return files;
}

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size,
                                          unsigned seed) {
  static ScriptMutator* const mutator = new ScriptMutator(Seeds());
  return mutator->Mutate(data, size, max_size, seed);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Watchdog* const watchdog = new Watchdog;
  const ThreadMemory::Run run;
  ThreadMemory::SetLimit(memory_limit);
  try {
    Run(std::string(reinterpret_cast<const char*>(data), size), watchdog);
  } catch (const std::bad_alloc&) {
    watchdog->End();
  }
  Variable::FreeCycles();
  return 0;
}
