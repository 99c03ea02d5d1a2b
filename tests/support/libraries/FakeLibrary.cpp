// An extension library of every kind whose tables a test sets for itself: each export answers the
// pointer that stands in the exported variable beside it.

extern "C" {

void* fake_config_table = nullptr;
void* fake_function_table = nullptr;
void* fake_commerce_table = nullptr;
void* fake_database_table = nullptr;
// How often an export was called.
int fake_calls = 0;

void* zeph_config_library(void) {
  fake_calls++;
  return fake_config_table;
}

void* zeph_function_table(void) {
  fake_calls++;
  return fake_function_table;
}

void* zeph_commerce_library(void) {
  fake_calls++;
  return fake_commerce_table;
}

void* zeph_database_library(void) {
  fake_calls++;
  return fake_database_table;
}

int fake_answer(void) {
  return 42;
}
}
