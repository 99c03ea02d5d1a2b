// The system variables of a request, made when they are looked up. Tested in
// tests/fastcgi/RequestVariablesTest.cpp.

#include "fastcgi/RequestVariables.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

#include "base/core/hash.h"
#include "base/core/memcmpi.h"
#include "base/values/Variable.h"
#include "base/values/VariableKinds.h"

namespace {

// Variables that a process inherits and that are not about the request.
bool IsPrivate(const char* name, int length) {
  static const char* const names[] = {"termcap", "logname", "mail", "path"};
  if (length < 4 || length > 7) return false;
  return std::any_of(std::begin(names), std::end(names), [=](const char* other) {
    return strlen(other) == static_cast<size_t>(length) &&
           memcmpi(name, other, static_cast<size_t>(length)) == 0;
  });
}

}  // namespace

RequestVariables::RequestVariables(char** parameters,
                                   std::unique_ptr<LateVariables> system_variables)
    : system(std::move(system_variables)) {
  for (; parameters && *parameters; parameters++) Add(*parameters);
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

void RequestVariables::IndexNames() {
  links.resize(parameters.size() + facts.size());
  heads.assign(std::bit_ceil(links.size() + 1), -1);
  for (size_t own = 0; own < links.size(); own++) {
    int length;
    const char* name = Name(NumberOf(static_cast<int>(own)), &length);
    int& head = Head(name, length);
    links[own] = head;
    head = static_cast<int>(own);
  }
}

int& RequestVariables::Head(const char* name, int length) {
  return heads[hashi(name, static_cast<unsigned>(length), 0) & (heads.size() - 1)];
}

int RequestVariables::OwnNumber(const char* name, int length) {
  if (heads.empty() || links.size() != parameters.size() + facts.size()) IndexNames();
  for (int own = Head(name, length); own >= 0; own = links[static_cast<size_t>(own)]) {
    int other_length;
    const char* other = Name(NumberOf(own), &other_length);
    if (other_length == length && memcmpi(other, name, static_cast<size_t>(length)) == 0) {
      return NumberOf(own);
    }
  }
  return -1;
}

int RequestVariables::Number(const char* name, int length) {
  const int own = OwnNumber(name, length);
  if (own >= FirstFact()) return own;
  const int number = system->Number(name, length);
  return number >= 0 ? Parameters() + number : own;
}

int RequestVariables::Count() {
  return FirstFact() + static_cast<int>(facts.size());
}

const char* RequestVariables::Name(int number, int* length) {
  if (number < Parameters()) {
    *length = ParameterAt(number).length;
    return ParameterAt(number).text;
  }
  if (number < FirstFact()) return system->Name(number - Parameters(), length);
  *length = FactAt(number).name.length;
  return FactAt(number).name.data;
}

Variable* RequestVariables::Make(int number) {
  if (number < Parameters()) {
    const Parameter& parameter = ParameterAt(number);
    return new ImmutableVariable(parameter.text, parameter.length, parameter.value, -1);
  }
  if (number < FirstFact()) return system->Make(number - Parameters());
  const Fact& fact = FactAt(number);
  if (!fact.is_number) return new ImmutableVariable(fact.name, fact.text);
  return new ImmutableVariable(fact.name.data, fact.name.length, fact.number);
}

LateVariables* RequestVariables::Clone(ZephApplication* application) {
  std::unique_ptr<LateVariables> cloned(system->Clone(application));
  auto copy = std::make_unique<RequestVariables>(nullptr, std::move(cloned));
  for (const Fact& fact : facts) copy->facts.push_back(fact);
  for (const Parameter& parameter : parameters) {
    copy->kept.push_back(std::make_unique<String>(parameter.text, -1));
    copy->Add(copy->kept.back()->data);
  }
  return copy.release();
}
