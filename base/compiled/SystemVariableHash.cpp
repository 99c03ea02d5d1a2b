// The system variables: levels that can be taken back, and variables that are made when they are
// looked up. Tested in tests/base/compiled/VariableTablesTest.cpp.

#include "base/compiled/SystemVariableHash.h"

#include <memory>

#include "base/compiled/Dictionary.h"
#include "base/core/MeasuredLength.h"
#include "base/values/VariableKinds.h"
#include "base/values/VariableRef.h"

SystemVariableHash::SystemVariableHash(Dictionary* dictionary, int bits, int capacity)
    : VariableHash(dictionary, bits, capacity), frames(1) {}

SystemVariableHash::SystemVariableHash(ZephApplication* application, Dictionary* dictionary,
                                       VariableHash& source)
    : VariableHash(application, dictionary, source), frames(1) {
  const auto* system = dynamic_cast<SystemVariableHash*>(&source);
  if (system && system->late) late = system->late->Clone(application);
}

SystemVariableHash::~SystemVariableHash() {
  delete late;
  while (List<_SVH_Entry>* list = frames.Top()) {
    for (_SVH_Entry* saved = list->First(); saved; saved = list->Next()) {
      if (saved->variable) saved->variable->DecRefCount();
    }
    delete frames.Pop();
  }
}

int SystemVariableHash::Version() {
  return depth;
}

void SystemVariableHash::SetLateVariables(LateVariables* variables) {
  delete late;
  late = variables;
  late_names_reserved = false;
  for (int i = 0; i < entry_count; i++) {
    if (!entries[i].variable) continue;
    int length;
    const char* name = EntryName(i, &length);
    if (late->Number(name, length) < 0) continue;
    entries[i].variable->DecRefCount();
    entries[i].variable = nullptr;
  }
}

void SystemVariableHash::ForgetLateVariables() {
  ReserveLateNames();
  delete late;
  late = nullptr;
}

void SystemVariableHash::ReserveLateNames() {
  if (!late || late_names_reserved) return;
  late_names_reserved = true;
  for (int i = 0; i < late->Count(); i++) {
    int length;
    const char* name = late->Name(i, &length);
    if (Locate(name, length) < 0) VariableHash::Insert(-1, name, length, nullptr);
  }
}

// The variable belongs to no level, so no Pop removes it.
int SystemVariableHash::MakeLate(const char* name, int length) {
  int found = Locate(name, length);
  if (!late || (found >= 0 && entries[found].variable)) return found;
  const int number = late->Number(name, length);
  if (number < 0) return found;
  if (found < 0) {
    ReserveLateNames();
    found = Locate(name, length);
    // The name is still not found if a damaged file has cut off its chain.
    if (found < 0 || entries[found].variable) return found;
  }
  entries[found].variable = late->Make(number);
  return found;
}

void SystemVariableHash::MakeAllLate() {
  ReserveLateNames();
  for (int i = 0; late && i < late->Count(); i++) {
    int length;
    const char* name = late->Name(i, &length);
    MakeLate(name, length);
  }
}

int SystemVariableHash::Seek(int name_index, const char* name, int length, _VH_Entry** entry) {
  if (late) {
    int bytes = MeasuredLength(name, length);
    const char* text = name ? name : dictionary->Entry(name_index, &bytes);
    if (text) MakeLate(text, bytes);
  }
  return VariableHash::Seek(name_index, name, length, entry);
}

int SystemVariableHash::ClearVariable(const char* name, int length) {
  MakeLate(name, MeasuredLength(name, length));
  return VariableHash::ClearVariable(name, length);
}

int SystemVariableHash::Entries() {
  ReserveLateNames();
  return VariableHash::Entries();
}

void SystemVariableHash::AllocatedVars(VariableList* list) {
  MakeAllLate();
  VariableHash::AllocatedVars(list);
}

// The record adopts the entry's count on the variable.
void SystemVariableHash::Save(int position, int version, Variable* variable) {
  InsertOwned(*current, std::unique_ptr<_SVH_Entry>(new _SVH_Entry{position, version, variable}),
              ListTail);
}

void SystemVariableHash::Replace(int position, Variable* variable) {
  VariableRef adopted(variable);
  _VH_Entry* entry = &entries[position];
  Variable* old = entry->variable;
  if (depth > 0) {
    Save(position, entry->version, old);
    old = nullptr;
  }
  entry->variable = adopted.release();
  entry->version = depth;
  if (old) old->DecRefCount();
}

void SystemVariableHash::SetVariable(Variable* variable) {
  VariableRef adopted(variable);
  const String& name = variable->name();
  const int found = MakeLate(name.data, name.length);
  if (found >= 0) {
    Replace(found, adopted.release());
  } else {
    Insert(-1, name.data ? name.data : "", name.length, adopted.release());
  }
}

void SystemVariableHash::SetVariable_Reference(int position, Variable* variable) {
  if (static_cast<unsigned>(position) >= static_cast<unsigned>(entry_count) || !variable) return;
  int length;
  const char* name = EntryName(position, &length);
  Replace(position, new ReferenceVariable(name, length, variable));
}

int SystemVariableHash::SetVariable_Fancy(const char* path, int length, const char* value,
                                          int valuelength, int) {
  return VariableHash::SetVariable_Fancy(path, length, value, valuelength, 0);
}

int SystemVariableHash::Insert(int name_index, const char* name, int length, Variable* variable) {
  VariableRef adopted(variable);
  ReserveLateNames();
  if (depth == 0) return VariableHash::Insert(name_index, name, length, adopted.release());
  const int known = Seek(name_index, name, length, nullptr);
  if (known >= 0) {
    Replace(known, adopted.release());
    return known;
  }
  const int made = VariableHash::Insert(name_index, name, length, adopted.release());
  Save(made, 0, nullptr);
  return made;
}

bool SystemVariableHash::Find(Variable** out, const char* name, int length, int create) {
  const int found = MakeLate(name, MeasuredLength(name, length));
  if (found < 0) return false;
  *out = Index(found, create);
  return true;
}

// A variable that is made while a level is open is removed by its Pop.
Variable* SystemVariableHash::Index(int position, int create) {
  if (position >= entry_count) ReserveLateNames();
  if (static_cast<unsigned>(position) >= static_cast<unsigned>(entry_count)) return nullptr;
  if (entries[position].variable) return entries[position].variable;
  if (late) {
    int length;
    const char* name = EntryName(position, &length);
    // If the name has two rows, only the first one gets the late variable.
    if (MakeLate(name, length) == position && entries[position].variable) {
      return entries[position].variable;
    }
  }
  if (!create) return nullptr;
  if (depth > 0) Save(position, 0, nullptr);
  return MakeVariable(&entries[position]);
}

void SystemVariableHash::Push() {
  auto records = std::make_unique<List<_SVH_Entry>>(1);
  frames.Push(records.get());
  current = records.release();
  depth++;
}

// Restores from the first record to the last. If an entry was replaced twice, the second record
// wins and releases the variable that the first has restored.
int SystemVariableHash::Pop() {
  if (depth == 0) return 0;
  for (_SVH_Entry* saved = current->First(); saved; saved = current->Next()) {
    _VH_Entry* entry = &entries[saved->index];
    Variable* present = entry->variable;
    entry->version = saved->version;
    entry->variable = saved->variable;
    if (present) present->DecRefCount();
  }
  frames.Top();
  delete frames.Pop();
  depth--;
  current = frames.Top();
  return 1;
}
