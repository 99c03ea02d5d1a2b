// A whole compiled file through the readers of the sections that a request loads. Everything that
// loads is then used as a machine would use it.

#include "fuzz/CompiledFileMutator.h"
#include "tests/support/FaultyFile.h"
#include "tests/support/LoadedScript.h"
#include "tests/support/TestApplication.h"

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size,
                                          unsigned seed) {
  return CompiledFileMutator::Mutate(data, size, max_size, seed);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FaultyFileManager manager;
  manager.files["s"].assign(reinterpret_cast<const char*>(data), size);
  TestApplication application;
  LoadedScript script(&application, &manager);
  File* file = manager.Open("s", FileMode_Read);
  const char* failed = nullptr;
  bool loaded = script.Load("s", file, &failed);
  if (failed == std::string("open")) delete file;
  script.file.Deactivate();
  // Sections that were read in part must still be safe to look up by name.
  script.functions.Function_Get("area", -1);
  script.globals.Seek(-1, "user", 4, nullptr);
  script.languages.Get_Language_Entry("de", 2);
  script.segments.Start();
  if (!loaded) return 0;

  script.UseEverything(&application);
  // Expressions that are compiled at run time add entries to those of the file.
  script.functions.Function_Add(0, 0, "added", 5, "a, b var", 8, 0);
  script.functions.Function_Add("area", -1, 0);
  script.globals.Insert("added", 5);
  script.pieces.Entry_Add(1, 0, -1);
  script.segments.Segment_Add()->Write_Dword(0, 1);
  script.languages.Add_Entry("de", -1, "added", -1, 0);
  script.UseEverything(&application);
  return 0;
}
