// An extension library of every kind whose tables a test sets: each export returns the pointer in
// the exported variable beside it.

struct _ZP_EL_Commerce;
struct _ZP_EL_Config;
struct _ZP_EL_Database;
struct _ZP_EL_FunctionTable;

extern "C" {

_ZP_EL_Config* fake_config_table = nullptr;
_ZP_EL_FunctionTable* fake_function_table = nullptr;
_ZP_EL_Commerce* fake_commerce_table = nullptr;
_ZP_EL_Database* fake_database_table = nullptr;
// How often an export was called.
int fake_calls = 0;

_ZP_EL_Config* zeph_config_library(void) {
  fake_calls++;
  return fake_config_table;
}

_ZP_EL_FunctionTable* zeph_function_table(void) {
  fake_calls++;
  return fake_function_table;
}

_ZP_EL_Commerce* zeph_commerce_library(void) {
  fake_calls++;
  return fake_commerce_table;
}

_ZP_EL_Database* zeph_database_library(void) {
  fake_calls++;
  return fake_database_table;
}

int fake_answer(void) {
  return 42;
}
}
