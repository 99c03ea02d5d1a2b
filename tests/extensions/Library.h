// A builtin library of extensions/ in a machine: expressions of the language that call its
// functions, and a request's variables.

#ifndef ZEPH_TESTS_EXTENSIONS_LIBRARY_H
#define ZEPH_TESTS_EXTENSIONS_LIBRARY_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "api/zeph.h"
#include "base/systems/unix/UNIXExternalLibrary.h"
#include "base/systems/unix/UNIXFile.h"
#include "tests/support/Command.h"
#include "tests/support/Machine.h"
#include "tests/support/Paths.h"

class Library : public testing::Test {
 protected:
  explicit Library(std::string name = "zephstd") : name(std::move(name)) { Restart(); }
  ~Library() override { machine->Close(); }

  // A new request.
  void Restart() {
    if (machine) machine->Close();
    machine = std::make_unique<Machine>();
    machine->application.SetLibraryManager(&libraries);
    ASSERT_TRUE(machine->external_calls.RegisterDSO(InBuild("lib/" + name + ".so").c_str()));
    Prepare();
  }
  // What a test wants in each request before it runs.
  virtual void Prepare() {}

  ZPPROGRAM program() { return &machine->vm(); }

  // The value of an expression as text; the message of an error after "!".
  std::string Value(const std::string& expression) {
    char* error = nullptr;
    ZPEXPRESSION const compiled = zpProgram_Compile_Dynamic_Expression(
        program(), expression.data(), static_cast<int>(expression.size()), &error, nullptr);
    if (!compiled) {
      const std::string text = error ? error : "";
      zpProgram_Free(program(), error);
      return "?" + text;
    }
    // Freed also if memory runs out, which is an exception.
    const std::unique_ptr<::Variable, decltype(&zpVariable_Free)> result(
        zpVariable_Allocate(nullptr, 0, nullptr, 0), &zpVariable_Free);
    zpProgram_Execute_Dynamic_Expression(program(), compiled, result.get());
    const std::string text = TextOf(result.get());
    if (machine->Error().empty()) return text;
    const std::string failure = machine->Failure();
    Restart();
    return "!" + failure;
  }

  ZPVARIABLE Variable(const std::string& variable) {
    return zpProgram_Lookup_Variable(program(), variable.data(), static_cast<int>(variable.size()));
  }
  void Set(const std::string& variable, const std::string& text) {
    zpVariable_SetValue(Variable(variable), text.data(), static_cast<int>(text.size()));
  }
  // A variable of the web server.
  void SetServer(const std::string& variable, const std::string& text) {
    zpVariableHash_SetVariable(zpProgram_System_VariableHash(program()), variable.data(),
                               static_cast<int>(variable.size()), text.data(),
                               static_cast<int>(text.size()));
  }
  // The seconds that the script may still run; -1 without a limit.
  void SetRemaining(int seconds) {
    ZPVARIABLE const remaining = zpVariable_Allocate("dyn_time_remaining", -1, nullptr, 0);
    zpVariable_SetValue_Integer(remaining, seconds);
    zpVariableHash_ReplaceVariable(zpProgram_System_VariableHash(program()), remaining);
  }
  static std::string TextOf(ZPVARIABLE variable) {
    int length = 0;
    const char* const text = zpVariable_Value(variable, &length);
    return length > 0 ? std::string(text, static_cast<size_t>(length)) : std::string();
  }

  std::string name;
  UNIXExternalLibraryManager libraries;
  std::unique_ptr<Machine> machine;
};

// An expression, and its value.
struct ValueCase {
  const char* expression;
  const char* value;
};

#define EXPECT_VALUES(cases)                                          \
  for (const ValueCase& each : cases) {                               \
    EXPECT_EQ(Value(each.expression), each.value) << each.expression; \
  }

// The output of a program of Python, which other people wrote; empty, and the test is skipped,
// where there is none.
inline std::string Python(const std::string& program, const std::string& input = "") {
  Command command({"/usr/bin/env", "python3", "-c", program, input});
  EXPECT_EQ(command.Run(), 0) << command.errors;
  return command.output;
}

#endif
