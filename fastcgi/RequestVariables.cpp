// The system variables of a request, made when they are looked up. Tested in
// tests/fastcgi/RequestVariablesTest.cpp.

#include "fastcgi/RequestVariables.h"

#include <algorithm>
#include <bit>
#include <cassert>
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
    : unread(parameters), system(std::move(system_variables)) {}

void RequestVariables::ReadParameters() {
  size_t count = 0;
  while (unread[count]) count++;
  parameters.reserve(count);
  for (size_t i = 0; i < count; i++) Add(unread[i]);
  unread = nullptr;
}

void RequestVariables::Add(const char* text) {
  const char* equals = strchr(text, '=');
  const size_t length = equals ? static_cast<size_t>(equals - text) : strlen(text);
  if (IsPrivate(text, static_cast<int>(length))) return;
  parameters.push_back({text, static_cast<int>(length), text + length + (equals ? 1 : 0)});
}

RequestVariables::Fact& RequestVariables::AddFact(std::string_view name) {
  assert(name.size() < kLongestName);
  Fact& fact = fact_count < kFacts ? first_facts[fact_count] : more_facts.emplace_back();
  fact_count++;
  memcpy(fact.name, name.data(), name.size());
  fact.name[name.size()] = '\0';
  fact.name_length = static_cast<int>(name.size());
  return fact;
}

void RequestVariables::AddText(std::string_view name, String text) {
  AddFact(name).text = std::move(text);
}

void RequestVariables::AddBorrowed(std::string_view name, const char* text, int length) {
  Fact& fact = AddFact(name);
  fact.borrowed = text;
  fact.number = length;
}

void RequestVariables::AddMade(std::string_view name, Maker make, const void* maker) {
  Fact& fact = AddFact(name);
  fact.make = make;
  fact.maker = maker;
}

void RequestVariables::AddNumber(std::string_view name, int number) {
  Fact& fact = AddFact(name);
  fact.is_number = true;
  fact.number = number;
}

void RequestVariables::IndexNames() {
  links.resize(static_cast<size_t>(Parameters()) + fact_count);
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
  if (heads.empty() || links.size() != static_cast<size_t>(Parameters()) + fact_count) {
    IndexNames();
  }
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
  return FirstFact() + static_cast<int>(fact_count);
}

const char* RequestVariables::Name(int number, int* length) {
  if (number < Parameters()) {
    *length = ParameterAt(number).length;
    return ParameterAt(number).text;
  }
  if (number < FirstFact()) return system->Name(number - Parameters(), length);
  const Fact& fact = FactAt(number);
  *length = fact.name_length;
  return fact.name;
}

Variable* RequestVariables::Make(int number) {
  if (number < Parameters()) {
    const Parameter& parameter = ParameterAt(number);
    return new ImmutableVariable(parameter.text, parameter.length, parameter.value, -1);
  }
  if (number < FirstFact()) return system->Make(number - Parameters());
  const Fact& fact = FactAt(number);
  const char* name = fact.name;
  const int length = fact.name_length;
  if (fact.is_number) return new ImmutableVariable(name, length, fact.number);
  if (fact.borrowed) return new ImmutableVariable(name, length, fact.borrowed, fact.number);
  const String made = fact.make ? fact.make(fact.maker) : String();
  const String& text = fact.make ? made : fact.text;
  return new ImmutableVariable(name, length, text.data, text.length);
}

LateVariables* RequestVariables::Clone(ZephApplication* application) {
  std::unique_ptr<LateVariables> cloned(system->Clone(application));
  auto copy = std::make_unique<RequestVariables>(nullptr, std::move(cloned));
  for (size_t i = 0; i < fact_count; i++) {
    const Fact& fact = FactByIndex(i);
    Fact& own = copy->AddFact({fact.name, static_cast<size_t>(fact.name_length)});
    own.is_number = fact.is_number;
    if (fact.is_number) {
      own.number = fact.number;
    } else if (fact.borrowed) {
      own.text.assign(fact.borrowed, fact.number);
    } else {
      own.text = fact.make ? fact.make(fact.maker) : fact.text;
    }
  }
  for (int i = 0; i < Parameters(); i++) {
    copy->kept.push_back(std::make_unique<String>(ParameterAt(i).text, -1));
    copy->Add(copy->kept.back()->data);
  }
  return copy.release();
}
