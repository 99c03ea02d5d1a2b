// A machine with everything that it needs, for tests of the loop, the stack and the handlers. Code
// is program text as for zpasm, or is written to the start segment word by word.

#ifndef ZEPH_TESTS_SUPPORT_MACHINE_H
#define ZEPH_TESTS_SUPPORT_MACHINE_H

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/compiled/Dictionary.h"
#include "base/compiled/Function.h"
#include "base/compiled/Instructions.h"
#include "base/compiled/LocalizedDictionary.h"
#include "base/compiled/LocalizedLanguages.h"
#include "base/compiled/Segment.h"
#include "base/compiled/SystemVariableHash.h"
#include "base/compiled/TaggedFile.h"
#include "base/compiled/VariableHash.h"
#include "base/core/LinkBuffer.h"
#include "base/core/UFCrypt.h"
#include "base/extensions/CommerceLibrary.h"
#include "base/extensions/ExternalCall.h"
#include "base/extensions/ExternalDatabaseLibrary.h"
#include "base/machine/ZephVM.h"
#include "base/values/Variable.h"
#include "tests/support/RecordingOutput.h"
#include "tests/support/TestApplication.h"
#include "tools/MemoryFile.h"

// The host of the machine: a TestApplication with the password hash of scripts and a log. Files of
// scripts are the machine's own, in memory, unless a test sets others.
class MachineApplication : public TestApplication {
 public:
  char* Crypt(const char* key, int keylength, const char* salt, int* length, int* size) override {
    if (!hash) hash = std::make_unique<UFCrypt>();
    char* result = new char[14];
    hash->crypt(key, keylength, salt, result);
    if (length) *length = 13;
    if (size) *size = 14;
    return result;
  }
  void Log(unsigned type, LogParameter* parameters) override;
  int BeginAsynchronousTask(ZephVM* vm) override {
    return begin_task ? begin_task(vm) : TestApplication::BeginAsynchronousTask(vm);
  }

  // Called when a script starts a task; without it the host has no tasks.
  std::function<int(ZephVM*)> begin_task;
  // The records of the log: the type's description and the parameters, with "|" between.
  std::vector<std::string> log;

 private:
  std::unique_ptr<UFCrypt> hash;
};

class Machine {
 public:
  explicit Machine(const char* path = "dir/page.zpc") : script_path(path) {
    application.SetFileManager(&files);
    application.SetOutput(&output);
    application.SetFileManager(&files);
  }

  // The machine is built at first use, so that a test can fill the tables before.
  ZephVM& vm() {
    if (!machine) {
      machine = std::make_unique<ZephVM>(
          script_path.data(), -1, &application, &dictionary, &system, &global, &segments,
          &functions, &external_calls, &commerce_libraries, &database_libraries, &languages,
          &localized, application.heartbeatcounter(), application.timedoutflag(),
          application.exitflag(), nullptr);
    }
    return *machine;
  }
  ZephVM_Stack& stack() { return *vm().CurrentStack(); }

  // Assembles program text (docs/zpasm.md) and reads it into the tables, as a request reads a
  // compiled file. REQUIRES: nothing else has filled the tables. The second form takes the compiled
  // file itself.
  Machine& Assemble(std::string_view source);
  Machine& Load(const std::string& image);
  Machine& Op(unsigned short word) {
    end = segments.Start()->Write_Word(end, word);
    return *this;
  }
  Machine& Op(unsigned short word, int operand) {
    Op(word);
    end = segments.Start()->Write_Dword(end, static_cast<unsigned>(operand));
    return *this;
  }
  Machine& Op(unsigned short word, int first, int second) {
    Op(word, first);
    end = segments.Start()->Write_Dword(end, static_cast<unsigned>(second));
    return *this;
  }
  Machine& OpDouble(unsigned short word, double operand) {
    Op(word);
    end = segments.Start()->Write_Double(end, operand);
    return *this;
  }
  // Pushes a text constant.
  Machine& Text(const std::string& text) { return Op(Instruction::pushc, Id(text)); }
  int Id(const std::string& text) {
    return dictionary.Entry_Add(text.data(), static_cast<int>(text.size()));
  }
  int Global(const char* name) { return global.Insert(name, -1); }

  // Variables by name; null if the table has none.
  Variable* GlobalVariable(const char* name) { return Find(&global, name); }
  Variable* SystemVariable(const char* name) { return Find(&system, name); }

  int Go() { return vm().Go(); }
  // Deletes the machine, as the end of a request does.
  void Close() { machine.reset(); }
  const std::string& Output() const { return output.text; }
  std::string Value(const char* name) {
    Variable* variable = GlobalVariable(name);
    return variable ? Text(*variable) : "(none)";
  }
  static std::string Text(Variable& variable) {
    String& text = variable.value();
    return text.data ? std::string(text.data, static_cast<size_t>(text.length)) : "";
  }
  // The last error with its prefix.
  std::string Error() {
    const String& text = vm().error();
    return text.data ? std::string(text.data, static_cast<size_t>(text.length)) : "";
  }
  // The last error without its prefix up to the place, and without its newline.
  std::string Failure() {
    std::string text = Error();
    size_t place = text.find("]: ");
    if (place != std::string::npos) text.erase(0, place + 3);
    if (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
  }
  // The entries of the current stack, bottom first and separated by blanks: integers as they are,
  // doubles after a d, texts in quotes, chained texts in angle brackets, variables in parentheses,
  // and the null variable as (null).
  std::string StackText();

  RecordingOutput output;
  MachineApplication application;
  Dictionary dictionary;
  SystemVariableHash system{&dictionary, 12, 512};
  VariableHash global{&dictionary, 12, 512};
  SegmentManager segments;
  FunctionManager functions{&dictionary, 8};
  MemoryFileManager files;
  TaggedFile script{&files};  // the indexes of languages are read from it while the machine runs
  LocalizedLanguages languages{&application, &dictionary, &script, 12, 8};
  LocalizedDictionary localized;
  ExternalCallManager external_calls{&application};
  CommerceLibraryManager commerce_libraries{&application};
  ExternalDatabaseLibraryManager database_libraries{&application};
  int end = 0;

 private:
  static Variable* Find(VariableHash* table, const char* name) {
    Variable* variable = nullptr;
    table->Find(&variable, name, -1, 0);
    return variable;
  }

  std::string script_path;
  std::unique_ptr<ZephVM> machine;
};

// A text from new[], as the stack adopts it.
inline char* OwnedText(const std::string& text) {
  char* copy = new char[text.size() + 1];
  memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}

// Program text with the stack that it leaves, as Machine::StackText writes it.
struct StackCase {
  const char* code;
  const char* stack;
};
// Runs each on a machine of its own, to its end and without an error.
void ExpectStack(const StackCase& expected);
template <size_t N>
void ExpectStacks(const StackCase (&cases)[N]) {
  for (const StackCase& expected : cases) ExpectStack(expected);
}

// Program text that fails, with the message.
struct FailureCase {
  const char* code;
  const char* message;
};
void ExpectFailure(const FailureCase& expected);
template <size_t N>
void ExpectFailures(const FailureCase (&cases)[N]) {
  for (const FailureCase& expected : cases) ExpectFailure(expected);
}

// Pops the top as text.
inline std::string PopText(ZephVM_Stack& stack) {
  int length, size, deletable;
  char* text = stack.PopS(&length, &size, &deletable);
  std::string result(text, static_cast<size_t>(length));
  if (deletable) delete[] text;
  return result;
}

#endif
