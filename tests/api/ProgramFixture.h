// A running script that calls into the test. A test provides the bodies of its external functions;
// the script reaches them through a loaded library, like those of an extension.

#ifndef ZEPH_TESTS_API_PROGRAMFIXTURE_H
#define ZEPH_TESTS_API_PROGRAMFIXTURE_H

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "api/zeph.h"
#include "base/extensions/ExternalCall.h"
#include "base/extensions/SystemLibrary.h"
#include "base/machine/ZephVM.h"
#include "tests/support/LibraryFixture.h"
#include "tests/support/LoadedScript.h"
#include "tests/support/RecordingOutput.h"
#include "tools/Assembler.h"
#include "tools/MemoryFile.h"

class ProgramFixture : public LibraryFixture {
 protected:
  using Body = std::function<void(ZPPROGRAM, ZPVARIABLEHASH, ZPVARIABLE)>;

  ProgramFixture()
      : files(&application),
        calls(&application),
        systems(&application),
        script(&application, &files) {
    application.SetOutput(&output);
    application.SetSystemLibraryManager(&systems);
  }
  ~ProgramFixture() override { End(); }

  // Runs a script that declares the functions "first" and "second" and calls them as it needs:
  //
  //   .function first(a, b var) external
  //   .function second() external
  int Run(const std::string& source) {
    std::string image, errors;
    const char kDeclared[] =
        ".function first(a, b var) external\n.function second() external\n.end\n";
    EXPECT_TRUE(AssembleScript(kDeclared + source, "page.zpa", &image, &errors)) << errors;
    files.files["page.zpc"] = image;
    EXPECT_TRUE(script.Load("page.zpc", files.Open("page.zpc", FileMode_Read)));
    current = this;
    table = {nullptr, rows};
    Exported<void*>("fake_function_table") = &table;
    EXPECT_TRUE(calls.RegisterDSO(fake.c_str()));
    machine = std::make_unique<ZephVM>(
        "dir/page.zpc", -1, &application, &script.dictionary, &script.system, &script.globals,
        &script.segments, &script.functions, &calls, nullptr, nullptr, &script.languages,
        &script.pieces, application.heartbeatcounter(), application.timedoutflag(),
        application.exitflag(), nullptr);
    return machine->Go();
  }
  // Runs a script that calls "second" once.
  int Call(Body body) {
    second = std::move(body);
    return Run("call second\nout\n");
  }
  // Ends the request.
  void End() { machine.reset(); }

  MemoryFileManager files;
  RecordingOutput output;
  ExternalCallManager calls;
  SystemLibraryManager systems;
  LoadedScript script;
  std::unique_ptr<ZephVM> machine;
  Body first;
  Body second;

 private:
  static void CallFirst(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void**) {
    current->first(program, parameters, result);
  }
  static void CallSecond(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void**) {
    current->second(program, parameters, result);
  }

  static inline ProgramFixture* current = nullptr;
  _ZP_EL_Parameter declared[2] = {{"a", 1, 0}, {"b", 1, _ZP_EL_ByReference}};
  _ZP_EL_Function rows[3] = {{"first", 5, 2, declared, CallFirst},
                             {"second", 6, 0, nullptr, CallSecond},
                             {nullptr, 0, 0, nullptr, nullptr}};
  _ZP_EL_FunctionTable table = {};
};

// A text that a function of the interface returns, with its length.
template <class Handle>
std::string TextOf(const char* (*function)(Handle, int*), Handle handle) {
  int length = -1;
  const char* text = function(handle, &length);
  return text ? std::string(text, static_cast<size_t>(length)) : "(null)";
}

#endif
