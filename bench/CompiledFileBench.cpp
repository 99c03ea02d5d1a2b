// The cost of a request's script: all objects are made, the file is opened, all sections are read,
// the descriptor is given back, and everything is deleted.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "base/systems/unix/UNIXReentrantFile.h"
#include "tests/support/FaultyFile.h"
#include "tests/support/LoadedScript.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestApplication.h"

namespace {

void Require(bool condition) {
  if (!condition) abort();
}

std::string Numbered(const char* prefix, long number) {
  return prefix + std::to_string(number);
}

// A page of medium size: 150 texts, 3 KB of code in two segments, 12 globals, 6 system variables,
// two languages with 8 texts, and functions of three parameters and two further variables.
void WriteScript(FileManager* manager, const char* name, long functions) {
  TestApplication application;
  LoadedScript script(&application, manager);
  for (long i = 0; i < 150; i++)
    script.dictionary.Entry_Add(Numbered("<p class=\"line\">Text number ", i).c_str(), -1);
  for (long i = 0; i < 12; i++) script.globals.Insert(Numbered("global", i).c_str(), -1);
  for (long i = 0; i < 6; i++) script.system.Insert(Numbered("system_variable", i).c_str(), -1);
  Segment* main = script.segments.Start();
  for (int at = 0; at < 2000;) at = main->Write_Dword(main->Write_Word(at, 0x4001), at & 127);
  Segment* body = script.segments.Segment_Add();
  for (int at = 0; at < 1000;) at = body->Write_Dword(body->Write_Word(at, 0x4006), 1);
  for (long i = 0; i < functions; i++) {
    Function* function = script.functions.Function_Add(1, 0, Numbered("function", i).c_str(), -1,
                                                       "first, second var, third", -1, 0);
    function->variables().Insert("local", 5);
    function->variables().Insert("other", 5);
  }
  for (const char* language : {"de", "en"}) {
    for (int i = 0; i < 8; i++) {
      int piece = script.pieces.Entry_Add(1, i, -1);
      script.languages.Add_Entry(language, -1, Numbered("token", i).c_str(), -1, piece);
    }
  }
  TaggedFile file(manager);
  Require(file.Create(name, nullptr, 0) && script.dictionary.Write(&file) &&
          script.system.Write(&file, MakeTag("syst")) &&
          script.globals.Write(&file, MakeTag("glbl")) && script.languages.Write(&file) &&
          script.pieces.Write(&file) && script.segments.Write(&file) &&
          script.functions.Write(&file));
  file.Section_End();
  Require(file.Section_Flush());
}

void LoadOnce(TestApplication* application, FileManager* manager, const char* name) {
  LoadedScript script(application, manager);
  Require(script.Load(name, manager->Open(name, FileMode_Read)));
  script.file.Deactivate();
  benchmark::DoNotOptimize(script.segments.Start()->code());
}

// The readers alone, on a file in memory.
void LoadFromMemory(benchmark::State& state) {
  TestApplication application;
  FaultyFileManager manager;
  WriteScript(&manager, "page.zpc", state.range(0));
  for (auto _ : state) LoadOnce(&application, &manager, "page.zpc");
  state.counters["bytes"] = static_cast<double>(manager.files["page.zpc"].size());
}
BENCHMARK(LoadFromMemory)->Arg(0)->Arg(1)->Arg(10)->Arg(100);

// The same with the system calls, on a file in the page cache.
void LoadFromDisk(benchmark::State& state) {
  TemporaryDirectory directory;
  TestApplication application;
  UNIXReentrantFileManager manager(&application);
  std::string path = directory.path("page.zpc");
  WriteScript(&manager, path.c_str(), state.range(0));
  for (auto _ : state) LoadOnce(&application, &manager, path.c_str());
}
BENCHMARK(LoadFromDisk)->Arg(0)->Arg(10)->Arg(100);

// The cost of the objects alone, before anything is read.
void MakeTheObjects(benchmark::State& state) {
  TestApplication application;
  FaultyFileManager manager;
  for (auto _ : state) {
    LoadedScript script(&application, &manager);
    benchmark::DoNotOptimize(&script);
  }
}
BENCHMARK(MakeTheObjects);

void FindFunction(benchmark::State& state) {
  Dictionary dictionary;
  FunctionManager functions(&dictionary, 8);
  for (long i = 0; i < state.range(0); i++)
    functions.Function_Add(Numbered("function", i).c_str(), -1, 0);
  for (auto _ : state) benchmark::DoNotOptimize(functions.Function_Get("FUNCTION7", 9));
}
BENCHMARK(FindFunction)->Arg(10)->Arg(1000);

void ReadLanguageIndex(benchmark::State& state) {
  TestApplication application;
  application.SetLanguage("en");
  FaultyFileManager manager;
  WriteScript(&manager, "page.zpc", 0);
  LoadedScript script(&application, &manager);
  Require(script.Load("page.zpc", manager.Open("page.zpc", FileMode_Read)));
  script.file.Deactivate();
  for (auto _ : state) {
    LocalizedIndex index(1, &script.dictionary);
    Require(index.Read(&script.file, MakeTag("LX\1\0")));
    script.file.Deactivate();
  }
}
BENCHMARK(ReadLanguageIndex);

}  // namespace
