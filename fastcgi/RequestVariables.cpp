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

void RequestVariables::AddText(const char* name, int namelength, const char* text, int length) {
  facts.push_back({String(name, namelength), false, String(text, length), 0});
}

void RequestVariables::AddNumber(const char* name, int number) {
  facts.push_back({String(name, -1), true, String(), number});
}

int RequestVariables::Number(const char* name, int length) {
  const auto matches = [=](const char* other, int other_length) {
    return other_length == length && memcmpi(other, name, static_cast<size_t>(length)) == 0;
  };
  for (int i = Facts(); i-- > 0;) {
    if (matches(FactAt(i).name.data, FactAt(i).name.length)) return i;
  }
  const int number = system->Number(name, length);
  if (number >= 0) return Facts() + number;
  for (size_t i = parameters.size(); i-- > 0;) {
    if (matches(parameters[i].text, parameters[i].length)) {
      return Facts() + system->Count() + static_cast<int>(i);
    }
  }
  return -1;
}

int RequestVariables::Count() {
  return Facts() + system->Count() + static_cast<int>(parameters.size());
}

const char* RequestVariables::Name(int number, int* length) {
  if (number < Facts()) {
    *length = FactAt(number).name.length;
    return FactAt(number).name.data;
  }
  if (number < Facts() + system->Count()) return system->Name(number - Facts(), length);
  *length = ParameterAt(number).length;
  return ParameterAt(number).text;
}

Variable* RequestVariables::Make(int number) {
  if (number < Facts()) {
    const Fact& fact = FactAt(number);
    if (!fact.is_number) return new ImmutableVariable(fact.name, fact.text);
    return new ImmutableVariable(fact.name.data, fact.name.length, fact.number);
  }
  if (number < Facts() + system->Count()) return system->Make(number - Facts());
  const Parameter& parameter = ParameterAt(number);
  return new ImmutableVariable(parameter.text, parameter.length, parameter.value, -1);
}

LateVariables* RequestVariables::Clone(ZephApplication* application) {
  auto copy = std::make_unique<RequestVariables>(nullptr, system->Clone(application));
  for (const Fact& fact : facts) copy->facts.push_back(fact);
  for (const Parameter& parameter : parameters) {
    copy->kept.push_back(std::make_unique<String>(parameter.text, -1));
    copy->Add(copy->kept.back()->data);
  }
  return copy.release();
}
