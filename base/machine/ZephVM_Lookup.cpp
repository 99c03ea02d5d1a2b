// Variables by the names that scripts write: scopes, paths, lists of names, and the hidden form
// fields that carry a list of variables to the next page. Tested in
// tests/base/machine/LookupTest.cpp.

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "base/compiled/VariableHash.h"
#include "base/core/MeasuredLength.h"
#include "base/core/Output.h"
#include "base/core/RunLimit.h"
#include "base/core/ascii.h"
#include "base/host/ZephApplication.h"
#include "base/machine/PoppedString.h"
#include "base/machine/ZephVM.h"
#include "base/values/Aggregate.h"
#include "base/values/Variable.h"
#include "base/values/VariableRef.h"
#include "base/values/VariableWalk.h"

namespace {

bool LookupIn(VariableHash* table, Variable** out, const char* name, int length, int create,
              String* error) {
  if (table->LookupVariable_Fancy(out, name, length, create)) return true;
  *error = table->error();
  return false;
}

// How many names of a list, and fields of a form, are done between two checks of the time limit.
const int kNames = 4;
const int kFields = 16;

// Calls visit(text, length) with each piece of a list that is not only white space. Past the time
// limit the rest is left out, because each look-up may walk long chains.
template <typename Visit>
void ForEachName(const char* text, int length, Visit visit) {
  const char* end = text + length;
  RunWatch watch(kNames);
  for (const char* p = text; p <= end && !watch.Over(); p++) {
    const char* stop = p;
    while (stop < end && *stop != ',') stop++;
    const char* last = stop;
    while (p < last && zp_isspace(*p)) p++;
    while (last > p && zp_isspace(last[-1])) last--;
    if (last > p) visit(p, static_cast<int>(last - p));
    p = stop;
  }
}

void WriteEncoded(Output* output, const char* text, int length) {
  int encoded_length, size;
  const std::unique_ptr<char[]> encoded(
      ZephApplication::EncodeEntities(text, length, &encoded_length, &size));
  output->Write(encoded.get(), encoded_length);
}

void WriteLiteral(Output* output, const char* text) {
  output->Write(text, static_cast<int>(strlen(text)));
}

void WriteHiddenField(Output* output, const std::string& name, const String& value) {
  WriteLiteral(output, "<input type=\"hidden\" name=\"");
  WriteEncoded(output, name.data(), static_cast<int>(name.size()));
  WriteLiteral(output, "\" value=\"");
  WriteEncoded(output, value.data ? value.data : "", value.length);
  WriteLiteral(output, "\">");
}

// Appends an element's name to its aggregate's, as paths write it.
void AppendKey(std::string* name, const AggregateIndex& index) {
  if (index.kind() == AggregateArray) {
    char text[16];
    name->append(text, static_cast<size_t>(snprintf(text, sizeof text, "[%d]", index.position)));
  } else {
    name->push_back(':');
    if (index.key.data) name->append(index.key.data, static_cast<size_t>(index.key.length));
  }
}

}  // namespace

Variable* ZephVM::Lookup_Global(const char* name, int length) {
  Variable* variable = nullptr;
  global_variables->Find(&variable, name, length, 1);
  return variable;
}

Variable* ZephVM::Lookup_Variable(const char* name, int length) {
  Variable* variable = nullptr;
  return LookupOrFail(&variable, name, length) ? variable : nullptr;
}

int ZephVM::Lookup_Variable(Variable** out, const char* name, int length, String* error) {
  *out = nullptr;
  if (length < 0) length = MeasuredLength(name, -1);
  const char *rest, *database;
  int rest_length, database_length;
  switch (VariableHash::Scope(name, length, &rest, &rest_length, &database, &database_length)) {
    case ScopeLocal: return LookupIn(frame->variables, out, rest, rest_length, 1, error);
    case ScopeGlobal: return LookupIn(global_variables, out, rest, rest_length, 1, error);
    case ScopeSystem: return LookupIn(system_variables, out, rest, rest_length, 0, error);
    case ScopeDatabase:
      *out = database_length == 0 ? AnyDatabaseField(rest, rest_length)
                                  : ViewField(database, database_length, rest, rest_length);
      return 1;
    default: return LookupUnscoped(out, rest, rest_length, error);
  }
}

// A bare name is looked up among the system variables first. If it is found nowhere, it becomes a
// new global.
int ZephVM::LookupUnscoped(Variable** out, const char* name, int length, String* error) {
  if (!LookupIn(system_variables, out, name, length, 0, error)) return 0;
  if (*out) return 1;
  if (frame->previous) {
    if (!LookupIn(frame->variables, out, name, length, 0, error)) return 0;
    if (*out) return 1;
  }
  *out = AnyDatabaseField(name, length);
  return *out ? 1 : LookupIn(global_variables, out, name, length, 1, error);
}

int ZephVM::Lookup_VariableList(VariableList* list, const char* names, int length) {
  list->Dump();
  ForEachName(names, length, [&](const char* name, int name_length) {
    if (Variable* found = Lookup_Variable(name, name_length)) {
      const char *rest, *database;
      int rest_length, database_length;
      VariableHash::Scope(name, name_length, &rest, &rest_length, &database, &database_length);
      list->Insert(new ReferenceVariable(rest, rest_length, found), ListTail, 0);
    } else {
      list->Insert(new ReferenceVariable(name, name_length, null_variable), ListTail, 0);
    }
  });
  return list->Entries();
}

void ZephVM::HideVar(const String& name, Variable* variable) {
  std::string path(name.data ? name.data : "", static_cast<size_t>(name.length));
  std::vector<size_t> outer;  // lengths of the path at the aggregates around the walk
  VariableWalk walk(variable);
  RunWatch watch(kFields);
  for (auto step = walk.Next(); step != VariableWalk::End && !watch.Over(); step = walk.Next()) {
    if (step == VariableWalk::Leave) {
      path.resize(outer.back());
      outer.pop_back();
      continue;
    }
    const size_t length = path.size();
    if (!walk.at_root()) AppendKey(&path, walk.index());
    if (step == VariableWalk::Enter) {
      outer.push_back(length);
      continue;
    }
    if (step == VariableWalk::Scalar) {
      WriteHiddenField(application->output(), path, walk.identity()->value());
    }
    path.resize(length);
  }
}

// hide  ( names -- )  Writes each variable of a comma-separated list of names as a hidden form
// field, an aggregate as one field for each of its elements.
void ZephVM::hide() {
  const PoppedString names(stack);
  if (stop_flag) return;
  VariableList variables;
  Lookup_VariableList(&variables, names.data(), names.length());
  RunWatch watch(kFields);
  for (Variable* v = variables.First(); v && !watch.Over(); v = variables.Next()) {
    HideVar(v->name(), v);
  }
}
