// Variables by name as scripts and forms spell them: paths such as "list[2]:name", and scopes such
// as "global.". Tested in tests/base/compiled/VariableHashTest.cpp.

#include <climits>
#include <cstring>

#include "base/compiled/VariableHash.h"
#include "base/core/MeasuredLength.h"
#include "base/core/ascii.h"
#include "base/values/Aggregate.h"
#include "base/values/Variable.h"
#include "base/values/VariableRef.h"

// --- Paths ---------------------------------------------------------------------------------------

namespace {

constexpr char kIndexError[] = "Array index must be positive integer";

int NameEnd(const char* path, int start, int length) {
  int end = start;
  while (end < length && path[end] != ':' && path[end] != '[') end++;
  return end;
}

// The number of an index, as strtol reads it: leading white space, then digits up to the first
// other byte; the largest long if it is out of range. Truncated to 32 bits.
int IndexNumber(const char* text, int length) {
  int i = 0;
  while (i < length && zp_isspace(static_cast<unsigned char>(text[i]))) i++;
  long number = 0;
  for (; i < length && text[i] >= '0' && text[i] <= '9'; i++) {
    if (__builtin_mul_overflow(number, 10L, &number) ||
        __builtin_add_overflow(number, static_cast<long>(text[i] - '0'), &number)) {
      return static_cast<int>(LONG_MAX);
    }
  }
  return static_cast<int>(number);
}

// One ":member" or "[number]" of a path. Reads it at *position, moves *position past it, and sets
// *variable to the element; false if it is not an index.
bool WalkStep(const char* path, int length, int create, int* position, Variable** variable) {
  const int start = *position + 1;
  if (path[*position] == ':') {
    const int end = NameEnd(path, start, length);
    *position = end;
    *variable = (*variable)->Element(AggregateIndex(path + start, end - start), create);
    return true;
  }
  if (path[*position] != '[') return false;
  int end = start;
  while (end < length && path[end] != ']') {
    const auto c = static_cast<unsigned char>(path[end]);
    if (!zp_isspace(c) && (c < '0' || c > '9')) return false;
    end++;
  }
  if (end == length) return false;
  *position = end + 1;
  *variable = (*variable)->Element(AggregateIndex(IndexNumber(path + start, end - start)), create);
  return true;
}

}  // namespace

int VariableHash::LookupVariable_Fancy(Variable** out, const char* path, int length, int create) {
  *out = nullptr;
  length = MeasuredLength(path, length);
  if (!path) path = "";
  int position = NameEnd(path, 0, length);
  Variable* variable = nullptr;
  const bool known = Find(&variable, path, position, create);
  if (!variable && create) {
    if (known) return 1;
    variable = new Variable(path, position);
    Insert(variable);
  }
  while (variable && position < length) {
    if (!WalkStep(path, length, create, &position, &variable)) {
      Error(kIndexError);
      return 0;
    }
  }
  *out = variable;
  return 1;
}

int VariableHash::SetVariable_Fancy(const char* path, int length, const char* value,
                                    int valuelength, int accumulate) {
  Variable* variable = nullptr;
  if (!LookupVariable_Fancy(&variable, path, length, 1) || !variable) return 0;
  const bool array = variable->aggregatetype() == AggregateArray;
  if (!accumulate || (variable->IsNULL() && !array)) {
    variable->SetValue(value, valuelength);
  } else if (variable->aggregatetype() != AggregateNone) {
    const AggregateIndex next(WrapAdd(variable->ElementsUsed(), 1));
    if (Variable* element = variable->Element(next, 1)) element->SetValue(value, valuelength);
  } else {
    const VariableRef first(new Variable(*variable));
    Variable* element = variable->Element(AggregateIndex(1), 1);
    if (element) element->SetValue(*first);
    element = variable->Element(AggregateIndex(2), 1);
    if (element) element->SetValue(value, valuelength);
  }
  return 0;
}

// --- Scope ---------------------------------------------------------------------------------------

namespace {

// Whether the name has the word (given in upper case) at that position.
bool HasWord(const char* name, int length, int position, const char* word) {
  for (; *word; word++, position++) {
    if (position >= length) return false;
    if (zp_toupper(static_cast<unsigned char>(name[position])) !=
        static_cast<unsigned char>(*word)) {
      return false;
    }
  }
  return true;
}

struct ScopedName {
  int scope = ScopeNone;
  int prefix = 0;    // bytes of the prefix
  int database = 0;  // bytes at the start that name a database
};

ScopedName ShortScope(const char* name, int length) {
  const unsigned char letter = zp_toupper(static_cast<unsigned char>(name[0]));
  if (letter == 'L') return {ScopeLocal, 2, 0};
  if (letter == 'G') return {ScopeGlobal, 2, 0};
  if (letter == 'S') return {ScopeSystem, 2, 0};
  if (letter >= 'A' && letter <= 'Z') {
    if (length >= 5 && HasWord(name, length, 1, ".D.")) return {ScopeDatabase, 4, 1};
    if (length >= 12 && HasWord(name, length, 1, ".DATABASE.")) return {ScopeDatabase, 11, 1};
  }
  if (letter == 'D') return {ScopeDatabase, 2, 0};
  return {};
}

ScopedName LongScope(const char* name, int length) {
  const auto* found = static_cast<const char*>(memchr(name, '.', static_cast<size_t>(length)));
  if (!found) return {};
  if (HasWord(name, length, 0, "LOCAL.")) return {ScopeLocal, 6, 0};
  if (HasWord(name, length, 0, "GLOBAL.")) return {ScopeGlobal, 7, 0};
  if (HasWord(name, length, 0, "SYSTEM.")) return {ScopeSystem, 7, 0};
  const int dot = static_cast<int>(found - name);
  if (HasWord(name, length, dot, ".D.")) return {ScopeDatabase, dot + 3, dot};
  if (HasWord(name, length, dot, ".DATABASE.")) return {ScopeDatabase, dot + 10, dot};
  if (HasWord(name, length, 0, "DATABASE.")) return {ScopeDatabase, 9, 0};
  return {};
}

}  // namespace

int VariableHash::Scope(const char* name, int length, const char** rest, int* restlength,
                        const char** database, int* databaselength) {
  length = MeasuredLength(name, length);
  if (!name) name = "";
  ScopedName scoped;
  if (length >= 2 && name[1] == '.') {
    scoped = ShortScope(name, length);
  } else if (length > 0) {
    scoped = LongScope(name, length);
  }
  *rest = name + scoped.prefix;
  *restlength = length - scoped.prefix;
  *database = name;
  *databaselength = scoped.database;
  return scoped.scope;
}
