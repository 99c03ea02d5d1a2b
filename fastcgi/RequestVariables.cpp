// Tested in tests/fastcgi/RequestVariablesTest.cpp.

#include "fastcgi/RequestVariables.h"

#include <algorithm>
#include <cstring>

#include "base/Variable.h"
#include "base/memcmpi.h"

namespace {

// What a process inherits without its being about the request.
bool IsPrivate(const char* name, int length) {
  static const char* const names[] = {"termcap", "logname", "mail", "path"};
  if (length < 4 || length > 7) return false;
  return std::any_of(std::begin(names), std::end(names), [=](const char* other) {
    return strlen(other) == static_cast<size_t>(length) &&
           memcmpi(name, other, static_cast<size_t>(length)) == 0;
  });
}

}  // namespace

RequestVariables::RequestVariables(char** entries, LateVariables* system_variables)
    : system(system_variables) {
  for (; entries && *entries; entries++) Add(*entries);
}

void RequestVariables::Add(const char* text) {
  const char* equals = strchr(text, '=');
  const size_t length = equals ? static_cast<size_t>(equals - text) : strlen(text);
  if (IsPrivate(text, static_cast<int>(length))) return;
  parameters.push_back({text, static_cast<int>(length), text + length + (equals ? 1 : 0)});
}

int RequestVariables::Number(const char* name, int length) {
  const int number = system->Number(name, length);
  if (number >= 0) return number;
  for (size_t i = parameters.size(); i-- > 0;) {
    if (parameters[i].length == length &&
        memcmpi(parameters[i].text, name, static_cast<size_t>(length)) == 0) {
      return system->Count() + static_cast<int>(i);
    }
  }
  return -1;
}

int RequestVariables::Count() {
  return system->Count() + static_cast<int>(parameters.size());
}

const char* RequestVariables::Name(int number, int* length) {
  if (number < system->Count()) return system->Name(number, length);
  *length = At(number).length;
  return At(number).text;
}

Variable* RequestVariables::Make(int number) {
  if (number < system->Count()) return system->Make(number);
  const Parameter& parameter = At(number);
  return new ImmutableVariable(parameter.text, parameter.length, parameter.value, -1);
}

LateVariables* RequestVariables::Clone(ZephApplication* application) {
  auto copy = std::make_unique<RequestVariables>(nullptr, system->Clone(application));
  for (const Parameter& parameter : parameters) {
    copy->kept.push_back(std::make_unique<String>(parameter.text, -1));
    copy->Add(copy->kept.back()->data);
  }
  return copy.release();
}
