// What the library exports: the rows of Functions.def as the engine reads them. Tested in
// tests/extensions/zephstd/ArgumentsTest.cpp.

#include <sodium.h>

#include <array>
#include <exception>
#include <new>

#include "extensions/zephstd/Call.h"

namespace zephstd {

namespace {

// The parameters of a row, whose text is like "list any var, how?".
struct Parameters {
  std::array<Parameter, kMostParameters> rows{};
  int count = 0;
};

consteval void ReadWord(std::string_view word, Parameter* parameter) {
  if (parameter->name.empty()) {
    parameter->name = word;
  } else if (word == "int") {
    parameter->kind = Kind::Integer;
  } else if (word == "number") {
    parameter->kind = Kind::Number;
  } else if (word == "list") {
    parameter->kind = Kind::List;
  } else if (word == "any") {
    parameter->kind = Kind::Any;
  } else if (word == "var") {
    parameter->reference = true;
  } else {
    throw "a word that is none of these";
  }
}

consteval Parameters ReadParameters(std::string_view text) {
  Parameters read;
  size_t begin = 0;
  for (size_t i = 0; i <= text.size() && !text.empty(); i++) {
    if (i < text.size() && text[i] != ' ' && text[i] != ',' && text[i] != '?') continue;
    Parameter& parameter = read.rows[static_cast<size_t>(read.count)];
    if (i > begin) ReadWord(text.substr(begin, i - begin), &parameter);
    begin = i + 1;
    if (i < text.size() && text[i] == '?') parameter.optional = true;
    if (i == text.size() || text[i] == ',') {
      read.count++;
      begin = i + 2;  // past the blank
      i++;
    }
  }
  return read;
}

#define FUNCTION(name, parameters, result, help) \
  constexpr Parameters name##_parameters = ReadParameters(parameters);
#include "extensions/zephstd/Functions.def"

#define FUNCTION(name, parameters, result, help) \
  constexpr Row name##_row = {#name, name##_parameters.rows.data(), name##_parameters.count};
#include "extensions/zephstd/Functions.def"

// Runs a function. Memory that has run out ends the request, so its exception passes; no other one
// leaves the library.
template <void (*Function)(Call&), const Row& row>
void Run(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void**) {
  if (program == nullptr) return;
  Call call(program, parameters, result, row);
  if (call.failed()) return;
  try {
    Function(call);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& problem) {
    call.Fail(problem.what());
  }
}

// The engine's form of the parameters. It takes pointers to what it does not change.
struct Exported {
  std::array<_ZP_EL_Parameter, kMostParameters> rows{};
};

constexpr Exported Export(const Parameters& parameters) {
  Exported exported;
  for (size_t i = 0; i < static_cast<size_t>(parameters.count); i++) {
    const Parameter& parameter = parameters.rows[i];
    exported.rows[i] = {parameter.name.data(), static_cast<int>(parameter.name.size()),
                        parameter.reference ? _ZP_EL_ByReference : 0};
  }
  return exported;
}

#define FUNCTION(name, parameters, result, help) \
  constinit Exported name##_exported = Export(name##_parameters);
#include "extensions/zephstd/Functions.def"

constinit _ZP_EL_Function rows[] = {
#define FUNCTION(name, parameters, result, help)                                  \
  {#name, sizeof #name - 1, name##_parameters.count, name##_exported.rows.data(), \
   Run<functions::name, name##_row>},
#include "extensions/zephstd/Functions.def"
    {nullptr, 0, 0, nullptr, nullptr},
};
constinit _ZP_EL_FunctionTable table = {nullptr, rows};

}  // namespace

}  // namespace zephstd

extern "C" __attribute__((visibility("default"))) _ZP_EL_FunctionTable* zeph_function_table() {
  // libsodium chooses its fastest forms and its source of random bytes, before any other use.
  // Without random bytes there is no library.
  static const bool ready = sodium_init() >= 0;
  return ready ? &zephstd::table : nullptr;
}
