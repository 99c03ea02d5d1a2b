// The sections of localized texts, with a valid dictionary: the languages, an index for each (or
// the single one of older files), and the pieces. With any content a script that uses its texts
// ends, and writing a text gives the same as taking it as a value.

#include <cstdlib>
#include <cstring>
#include <string>

#include "base/compiled/Instructions.h"
#include "base/extensions/ExternalCall.h"
#include "base/machine/ZephVM.h"
#include "fuzz/CompiledFileMutator.h"
#include "tests/support/FaultyFile.h"
#include "tests/support/LoadedScript.h"
#include "tests/support/RecordingOutput.h"
#include "tests/support/TestApplication.h"
#include "tools/Assembler.h"

namespace {

const char* const languages[] = {"en-US", "DE", "xx"};

// A valid file, of a version before or after the indexes by language.
std::string GoodFile(bool old) {
  std::string source = old ? ".version 0x10007\n" : "";
  source +=
      ".language \"en-US\"\n.message welcome \"Welcome, \" name \"!\"\n.message bye \"Bye\"\n"
      ".language de\n.message welcome \"Willkommen, \" name \"!\"\n"
      ".language \"fr-CA\"\n.message welcome name name other\n.message empty\n";
  std::string image, errors;
  if (!AssembleScript(source, "seed", &image, &errors)) {
    fprintf(stderr, "%s", errors.c_str());
    abort();
  }
  return image;
}

void PushConstant(Segment* code, int* end, unsigned short word, int operand) {
  *end = code->Write_Word(*end, word);
  *end = code->Write_Dword(*end, static_cast<unsigned>(operand));
}

// The text that one instruction makes of a token in the application's language, with the parameter
// "name".
std::string TextOf(LoadedScript* script, TestApplication* application, unsigned short word,
                   int token, bool* failed) {
  RecordingOutput output;
  application->SetOutput(&output);
  SegmentManager segments;
  ExternalCallManager external(application);
  Segment* code = segments.Start();
  int end = 0;
  const int name = script->dictionary.Entry_Add("name", 4);
  PushConstant(code, &end, Instruction::pushi, 42);
  PushConstant(code, &end, Instruction::poplvnc, name);
  PushConstant(code, &end, word, token);
  if (word == Instruction::localizev) end = code->Write_Word(end, Instruction::out);
  {
    ZephVM vm("page.zpc", -1, application, &script->dictionary, &script->system, &script->globals,
              &segments, &script->functions, &external, nullptr, nullptr, &script->languages,
              &script->pieces, application->heartbeatcounter(), application->timedoutflag(),
              application->exitflag(), nullptr);
    *failed = !vm.Go();
    if (!*failed && vm.CurrentStack()->Entries() != 0) abort();
  }
  application->SetOutput(nullptr);
  return output.text;
}

void UseTexts(LoadedScript* script, TestApplication* application) {
  const int entries = script->dictionary.Entries();
  for (int token = -1; token <= entries && token < 40; token++) {
    bool written_failed, value_failed;
    const std::string written =
        TextOf(script, application, Instruction::localize, token, &written_failed);
    const std::string value =
        TextOf(script, application, Instruction::localizev, token, &value_failed);
    if (written_failed != value_failed) abort();
    if (!written_failed && written != value) abort();
  }
}

// Entries can be added to those of a damaged file, and written, as safely.
void AddAndWrite(LoadedScript* script, FaultyFileManager* manager) {
  script->languages.Add_Entry("de", 2, "added", 5, 0);
  script->languages.Add_Entry("added", 5, "added", 5, script->pieces.Entry_Add(1, 0, -1));
  for (int version : {0x10007, 0}) {
    TaggedFile written(manager);
    if (!written.Create("w", nullptr, version)) abort();
    static_cast<void>(script->languages.Write(&written) && script->pieces.Write(&written) &&
                      written.Section_Flush());
  }
}

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t max_size,
                                          unsigned seed) {
  std::vector<CompiledFileBytes::SectionBytes> sections;
  const std::string file(reinterpret_cast<const char*>(data), size);
  if (!CompiledFileMutator::Parse(file, &sections)) {
    const std::string good = GoodFile(seed % 2 == 0);
    if (good.size() <= max_size) {
      memcpy(data, good.data(), good.size());
      size = good.size();
    }
  }
  return CompiledFileMutator::Mutate(data, size, max_size, seed);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FaultyFileManager manager;
  manager.files["s"].assign(reinterpret_cast<const char*>(data), size);
  TestApplication application;
  LoadedScript script(&application, &manager);
  File* opened = manager.Open("s", FileMode_Read);
  if (!script.file.Open("s", opened)) {
    delete opened;
    return 0;
  }
  if (!script.dictionary.Read(&script.file)) return 0;
  // The same way as an included file is read: a section that fails leaves nothing, and the rest is
  // read.
  static_cast<void>(script.languages.Read());
  static_cast<void>(script.pieces.Read(&script.file));
  script.file.Deactivate();
  for (const char* language : languages) {
    application.SetLanguage(language);
    UseTexts(&script, &application);
  }
  AddAndWrite(&script, &manager);
  UseTexts(&script, &application);
  return 0;
}
