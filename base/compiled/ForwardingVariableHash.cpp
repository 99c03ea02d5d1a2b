// Tables whose variables are in another table. The forwarding is written once, for both kinds.
// Tested in tests/base/compiled/VariableTablesTest.cpp.

#include "base/compiled/ForwardingVariableHash.h"

#include <memory>

#include "base/compiled/Dictionary.h"
#include "base/compiled/SystemVariableHash.h"
#include "base/core/MeasuredLength.h"
#include "base/values/VariableKinds.h"

// --- Positions in the target ---------------------------------------------------------------------

ForwardingVariableHash::ForwardingVariableHash(Dictionary* dictionary, int bits, int capacity,
                                               VariableHash* target)
    : VariableHash(dictionary, bits, capacity), target(target) {}

ForwardingVariableHash::ForwardingVariableHash(Dictionary* dictionary, VariableHash& source)
    : VariableHash(dictionary, source), target(this) {}

void ForwardingVariableHash::ForgetTarget() {
  for (int i = 0; i < entry_count; i++) entries[i].version = -1;
}

// The position of an entry in the target. Kept once it is known; until then each call looks it up.
int ForwardingVariableHash::Resolve(int position) {
  _VH_Entry* entry = &entries[position];
  if (entry->version == -1) {
    int length;
    const char* name = EntryName(position, &length);
    entry->version = target->Seek(-1, name, length, nullptr);
  }
  return entry->version;
}

// A new variable in the target, under the entry's name.
Variable* ForwardingVariableHash::InsertThrough(int position, Variable* refers_to) {
  int length;
  const char* name = EntryName(position, &length);
  Variable* variable =
      refers_to ? new ReferenceVariable(name, length, refers_to) : new Variable(name, length);
  entries[position].version = target->Insert(-1, name, length, variable);
  return variable;
}

// --- Operations by position ----------------------------------------------------------------------

bool ForwardingVariableHash::Find(Variable** out, const char* name, int length, int create) {
  if (own()) return VariableHash::Find(out, name, length, create);
  length = MeasuredLength(name, length);
  const int found = Locate(name, length);
  if (found < 0) return target->Find(out, name, length, create);
  const int there = Resolve(found);
  if (there >= 0) {
    *out = target->Index(there, create);
  } else if (create) {
    *out = InsertThrough(found, nullptr);
  }
  return true;
}

Variable* ForwardingVariableHash::Index(int position, int create) {
  if (own()) return VariableHash::Index(position, create);
  if (static_cast<unsigned>(position) >= static_cast<unsigned>(entry_count)) return nullptr;
  const int there = Resolve(position);
  if (there >= 0) return target->Index(there, create);
  return create ? InsertThrough(position, nullptr) : nullptr;
}

void ForwardingVariableHash::SetVariable_Reference(int position, Variable* variable) {
  if (own()) {
    VariableHash::SetVariable_Reference(position, variable);
    return;
  }
  if (static_cast<unsigned>(position) >= static_cast<unsigned>(entry_count) || !variable) return;
  const int there = Resolve(position);
  if (there >= 0) {
    target->SetVariable_Reference(there, variable);
  } else {
    InsertThrough(position, variable);
  }
}

// The positions that were known belong to the entries of before.
bool ForwardingVariableHash::Read(TaggedFile* file) {
  if (!VariableHash::Read(file)) return false;
  if (!own()) ForgetTarget();
  return true;
}

// --- Operations of the target --------------------------------------------------------------------

void ForwardingVariableHash::SetVariable(const char* name, int length, const char* value,
                                         int valuelength) {
  if (own()) {
    VariableHash::SetVariable(name, length, value, valuelength);
  } else {
    target->SetVariable(name, length, value, valuelength);
  }
}

void ForwardingVariableHash::SetVariable(Variable* variable) {
  if (own()) {
    VariableHash::SetVariable(variable);
  } else {
    target->SetVariable(variable);
  }
}

int ForwardingVariableHash::SetVariable_Fancy(const char* path, int length, const char* value,
                                              int valuelength, int accumulate) {
  if (own()) return VariableHash::SetVariable_Fancy(path, length, value, valuelength, accumulate);
  return target->SetVariable_Fancy(path, length, value, valuelength, accumulate);
}

int ForwardingVariableHash::LookupVariable_Fancy(Variable** out, const char* path, int length,
                                                 int create) {
  if (own()) return VariableHash::LookupVariable_Fancy(out, path, length, create);
  const int result = target->LookupVariable_Fancy(out, path, length, create);
  if (!result) Error(target->error());
  return result;
}

int ForwardingVariableHash::Seek(int name_index, const char* name, int length, _VH_Entry** entry) {
  if (own()) return VariableHash::Seek(name_index, name, length, entry);
  if (!name && !(name = dictionary->Entry(name_index, &length))) return -1;
  return target->Seek(-1, name, length, entry);
}

int ForwardingVariableHash::Insert(int name_index, const char* name, int length,
                                   Variable* variable) {
  if (own()) return VariableHash::Insert(name_index, name, length, variable);
  if (!name) {
    length = 0;
    name = dictionary->Entry(name_index, &length);
  }
  return target->Insert(-1, name ? name : "", length, variable);
}

int ForwardingVariableHash::ClearVariable(const char* name, int length) {
  if (own()) return VariableHash::ClearVariable(name, length);
  return target->ClearVariable(name, length);
}

int ForwardingVariableHash::Version() {
  return own() ? VariableHash::Version() : target->Version();
}

int ForwardingVariableHash::Entries() {
  return own() ? VariableHash::Entries() : target->Entries();
}

void ForwardingVariableHash::AllocatedVars(VariableList* list) {
  if (own()) {
    VariableHash::AllocatedVars(list);
  } else {
    target->AllocatedVars(list);
  }
}

void ForwardingVariableHash::Push() {
  if (!own()) target->Push();
}

int ForwardingVariableHash::Pop() {
  return own() ? 0 : target->Pop();
}

VariableHash* ForwardingVariableHash::RealIdentity() {
  return target;
}

// --- The two kinds -------------------------------------------------------------------------------

ReferenceVariableHash::ReferenceVariableHash(Dictionary* dictionary, int bits, int capacity,
                                             VariableHash* target)
    : ForwardingVariableHash(dictionary, bits, capacity, target->RealIdentity()) {}

ClonedVariableHash::ClonedVariableHash(ZephApplication* application, Dictionary* dictionary,
                                       VariableHash& source)
    : ForwardingVariableHash(dictionary, source), owned_dictionary(dictionary) {
  VariableHash* real = source.RealIdentity();
  const bool system = dynamic_cast<SystemVariableHash*>(real) != nullptr;
  if (real == &source && !system) {
    CloneVariables(application, source);
    return;
  }
  std::unique_ptr<Dictionary> copied;
  if (real != &source) copied.reset(DictionaryCopy(*real));
  Dictionary* theirs = copied ? copied.get() : dictionary;
  if (system) {
    target = new SystemVariableHash(application, theirs, *real);
  } else {
    target = new VariableHash(application, theirs, *real);
  }
  if (copied) owned_dictionary = copied.release();
  ForgetTarget();
}

ClonedVariableHash::~ClonedVariableHash() {
  if (!own()) delete target;
  if (owned_dictionary != dictionary) delete owned_dictionary;
}
