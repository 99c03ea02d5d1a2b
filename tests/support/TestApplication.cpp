// The services of the host for tests.

#include "tests/support/TestApplication.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/core/Output.h"
#include "base/host/Config.h"

TestApplication::TestApplication() : own_config(std::make_unique<Config>()) {}

TestApplication::~TestApplication() = default;

Config* TestApplication::config() {
  return other_config != nullptr ? other_config : own_config.get();
}

String TestApplication::currentdate() {
  return String("Sat, 21 Nov 2026 10:00:00 +0100", -1);
}

String TestApplication::lasterror() {
  char buffer[256];
  return String(strerror_r(errno, buffer, sizeof(buffer)), -1);
}

Output* TestApplication::SetOutput(Output* output) {
  Output* old = current_output;
  if (old != nullptr && output != nullptr) output->SetFlags(old->flags());
  current_output = output;
  return old;
}

char* TestApplication::Crypt(const char*, int, const char*, int*, int*) {
  return nullptr;
}

char* TestApplication::MakeSessionID(int* length) {
  char* id = new char[33];
  snprintf(id, 33, "%032x", static_cast<unsigned>(++sessions));
  *length = 32;
  return id;
}

void* TestApplication::SSL_GetFunction(const char*) {
  return nullptr;
}
