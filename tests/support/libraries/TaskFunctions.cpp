// A builtin library for scripts of tests, with what a task can do only through extensions.
//
//   header(name, value)   sets a header field; returns the host's result
//   sleep(seconds, file)  sleeps as a task does, until then or until the file of the data directory
//                         changes; returns how many seconds it took

#include <cstring>
#include <ctime>

#include "api/zeph.h"

namespace {

int IntegerArgument(ZPVARIABLEHASH parameters, const char* name) {
  return zpVariable_Value_Integer(zpVariableHash_Find(parameters, name, -1));
}
const char* TextArgument(ZPVARIABLEHASH parameters, const char* name, int* length) {
  return zpVariable_Value(zpVariableHash_Find(parameters, name, -1), length);
}

// A copy that the host can keep: the variable's own text is freed before the header is sent.
char* Copy(ZPPROGRAM program, const char* text, int length) {
  auto* const copy = static_cast<char*>(zpProgram_Allocate(program, length + 1));
  if (copy) memcpy(copy, text, static_cast<size_t>(length));
  return copy;
}

void Header(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void**) {
  int name_length, value_length;
  const char* const name = TextArgument(parameters, "name", &name_length);
  const char* const value = TextArgument(parameters, "value", &value_length);
  zpVariable_SetValue_Integer(
      result, zpProgram_Output_Header(program, Copy(program, name, name_length), name_length, 1,
                                      Copy(program, value, value_length), value_length, 1));
}

void Sleep(ZPPROGRAM program, ZPVARIABLEHASH parameters, ZPVARIABLE result, void**) {
  int length;
  const char* const file = TextArgument(parameters, "file", &length);
  const long start = time(nullptr);
  zpProgram_Asynchronous_Sleep(program, start + IntegerArgument(parameters, "seconds"), ZPFILE_DATA,
                               file, length);
  zpVariable_SetValue_Integer(result, static_cast<int>(time(nullptr) - start));
}

_ZP_EL_Parameter header_parameters[] = {{"name", 4, 0}, {"value", 5, 0}};
_ZP_EL_Parameter sleep_parameters[] = {{"seconds", 7, 0}, {"file", 4, 0}};
_ZP_EL_Function functions[] = {
    {"header", 6, 2, header_parameters, Header},
    {"sleep", 5, 2, sleep_parameters, Sleep},
    {nullptr, 0, 0, nullptr, nullptr},
};
_ZP_EL_FunctionTable table = {nullptr, functions};

}  // namespace

extern "C" __attribute__((visibility("default"))) _ZP_EL_FunctionTable* zeph_function_table() {
  return &table;
}
