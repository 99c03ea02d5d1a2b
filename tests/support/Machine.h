// A machine with everything around it, for tests of the loop, the stack and the handlers: code is
// put into the start segment word by word.

#ifndef ZEPH_TESTS_SUPPORT_MACHINE_H
#define ZEPH_TESTS_SUPPORT_MACHINE_H

#include <cstring>
#include <memory>
#include <string>

#include "base/Dictionary.h"
#include "base/Instructions.h"
#include "base/LinkBuffer.h"
#include "base/Segment.h"
#include "base/Variable.h"
#include "base/VariableHash.h"
#include "base/ZephVM.h"
#include "tests/support/RecordingOutput.h"
#include "tests/support/TestApplication.h"

class Machine {
 public:
  explicit Machine(const char* path = "dir/page.zpc") : script_path(path) {
    application.SetOutput(&output);
  }

  // The machine is built at first use, so that a test can fill the tables before.
  ZephVM& vm() {
    if (!machine) {
      machine = std::make_unique<ZephVM>(
          script_path.data(), -1, &application, &dictionary, &system, &global, &segments, nullptr,
          nullptr, nullptr, nullptr, nullptr, nullptr, application.heartbeatcounter(),
          application.timedoutflag(), application.exitflag(), nullptr);
    }
    return *machine;
  }
  ZephVM_Stack& stack() { return *vm().CurrentStack(); }

  // --- Code --------------------------------------------------------------------------------------
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

  int Go() { return vm().Go(); }
  // Deletes the machine, as the end of a request does.
  void Close() { machine.reset(); }
  const std::string& Output() const { return output.text; }
  std::string Value(const char* name) {
    Variable* variable = nullptr;
    global.Find(&variable, name, -1, 0);
    if (!variable) return "(none)";
    String& text = variable->value();
    return text.data ? std::string(text.data, static_cast<size_t>(text.length)) : "";
  }
  // The message of the last error without its prefix up to the place.
  std::string Error() {
    const String& text = vm().error();
    return text.data ? std::string(text.data, static_cast<size_t>(text.length)) : "";
  }

  RecordingOutput output;
  TestApplication application;
  Dictionary dictionary;
  SystemVariableHash system{&dictionary, 12, 512};
  VariableHash global{&dictionary, 12, 512};
  SegmentManager segments;
  int end = 0;

 private:
  std::string script_path;
  std::unique_ptr<ZephVM> machine;
};

// A text made with new[], as the stack takes over.
inline char* OwnedText(const std::string& text) {
  char* copy = new char[text.size() + 1];
  memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
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
