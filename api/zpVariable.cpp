// The functions for values, lists and tables. Libraries read their parameters and store their
// results through them, so those for plain values use the short ways of Variable. Tested in
// tests/api/zpVariableTest.cpp.

#include "api/zeph.h"

#include <cstring>
#include <vector>

#include "base/compiled/VariableHash.h"
#include "base/core/MeasuredLength.h"
#include "base/core/memcmpi.h"
#include "base/host/ZephApplication.h"
#include "base/values/Aggregate.h"
#include "base/values/Variable.h"
#include "base/values/VariableKinds.h"
#include "base/values/VariableRef.h"

namespace {

const char* TextOf(const String& text, int* length) {
  if (length) *length = text.length;
  return text.data;
}

bool HasName(Variable* variable, const char* name, int length) {
  const String& own = variable->name();
  return own.length == length &&
         (length == 0 || memcmpi(own.data, name, static_cast<size_t>(length)) == 0);
}

bool HasElements(Variable* variable) {
  return variable->RealIdentity()->aggregatetype() != AggregateNone;
}

// A copy of the value that shares no memory with it: a library may keep it for longer than the
// request, and then it is none of the request's thread.
VariableRef Apart(Variable* source) {
  const VariableRef copy(new Variable(*source));
  return VariableRef(copy->Clone(nullptr));
}

}  // namespace

// --- Variables -----------------------------------------------------------------------------------

ZPVARIABLE zpVariable_Allocate(const char* name, int namelength, const char* value,
                               int valuelength) {
  // A null text would make an empty one.
  return value ? new Variable(name, namelength, value, valuelength)
               : new Variable(name, namelength);
}
ZPVARIABLE zpVariable_Allocate_Copy(ZPVARIABLE source) {
  return HasElements(source) ? Apart(source).release() : new Variable(*source);
}
void zpVariable_Free(ZPVARIABLE variable) {
  if (variable) variable->DecRefCount();
}

ZPVARIABLE zpVariable_NextIdentity(ZPVARIABLE variable) {
  return variable->NextIdentity();
}
ZPVARIABLE zpVariable_RealIdentity(ZPVARIABLE variable) {
  return variable->RealIdentity();
}
void zpVariable_Make_Reference(ZPVARIABLE variable, ZPVARIABLE target) {
  variable->Make_Reference(target);
}

const char* zpVariable_Name(ZPVARIABLE variable, int* length) {
  return TextOf(variable->name(), length);
}
int zpVariable_Value_Integer(ZPVARIABLE variable) {
  return variable->Real()->Read_Integer();
}
double zpVariable_Value_Double(ZPVARIABLE variable) {
  return variable->Real()->Read_Double();
}
const char* zpVariable_Value(ZPVARIABLE variable, int* length) {
  return TextOf(variable->Real()->Read_Text(), length);
}
char* zpVariable_Value_NS(ZPVARIABLE variable, int* length) {
  const String& text = variable->value();
  int stripped, size;
  char* copy =
      ZephApplication::StripNULLs(text.data ? text.data : "", text.length, &stripped, &size);
  if (length) *length = stripped;
  return copy;
}

int zpVariable_SetValue_Integer(ZPVARIABLE variable, int value) {
  return variable->Write_Integer(value);
}
int zpVariable_SetValue_Double(ZPVARIABLE variable, double value) {
  return variable->Write_Double(value);
}
int zpVariable_SetValue(ZPVARIABLE variable, const char* value, int length) {
  return variable->SetValue(value, length);
}
int zpVariable_SetValue_Variable(ZPVARIABLE variable, ZPVARIABLE source) {
  return HasElements(source) ? variable->SetValue(*Apart(source)) : variable->SetValue(*source);
}
int zpVariable_SetValue_Nocopy(ZPVARIABLE variable, char* buffer, int length, int allocated) {
  return variable->SetValue_Nocopy(buffer, length, allocated);
}

int zpVariable_Type(ZPVARIABLE variable) {
  switch (variable->aggregatetype()) {
    case AggregateStructure: return 4;
    case AggregateArray: return 5;
    default: break;
  }
  // Indexed by primary_type().
  static const int codes[] = {0, 3, 1, 2};
  const int primary = variable->primary_type();
  return primary >= PrimaryNone && primary <= PrimaryDouble ? codes[primary] : -1;
}

int zpVariable_Aggregate_Type(ZPVARIABLE variable) {
  // Indexed by aggregatetype().
  static const int codes[] = {2, 1, 0};
  const int type = variable->aggregatetype();
  return type >= AggregateStructure && type <= AggregateNone ? codes[type] : -1;
}

// --- Arrays and structures -----------------------------------------------------------------------

void zpVariable_Aggregate_List(ZPVARIABLE variable, ZPVARIABLELIST list) {
  AggregateElementTree* tree = variable->aggregateelements();
  if (!tree) return;
  std::vector<AggregateElement*> elements;
  tree->Listing(&elements);
  for (AggregateElement* element : elements) {
    const String& key = element->index();
    list->Insert(new ReferenceVariable(key.data, key.length, element->var()), ListTail, 0);
  }
}

ZPVARIABLE zpVariable_Array_Element(int index, ZPVARIABLE array, int create) {
  return array->Element(AggregateIndex(index), create);
}
ZPVARIABLE zpVariable_Struct_Member(const char* name, int length, ZPVARIABLE structure,
                                    int create) {
  return structure->Element(AggregateIndex(name, length), create);
}
void zpVariable_Set_Array_Element(int index, ZPVARIABLE value, ZPVARIABLE array) {
  array->SetElement(AggregateIndex(index), value);
}
void zpVariable_Set_Struct_Member(const char* name, int length, ZPVARIABLE value,
                                  ZPVARIABLE structure) {
  structure->SetElement(AggregateIndex(name, length), value);
}
void zpVariable_Insert_Array_Element(int index, ZPVARIABLE value, ZPVARIABLE array) {
  array->InsertElement(index, value);
}
void zpVariable_Delete_Array_Elements(int start, int count, int compact, ZPVARIABLE array) {
  array->DeleteElements(start, count, compact != 0);
}
void zpVariable_Delete_Struct_Member(const char* name, int length, ZPVARIABLE structure) {
  structure->DeleteElement(AggregateIndex(name, length), false);
}
void zpVariable_Array_Merge(ZPVARIABLE source, int start, int count, int destination, int copy,
                            ZPVARIABLE array) {
  array->MergeElements(source, start, count, destination, copy != 0);
}
void zpVariable_Array_Copy(ZPVARIABLE source, int start, int count, int destination, int copy,
                           ZPVARIABLE array) {
  array->CopyElements(source, start, count, destination, copy != 0);
}
int zpVariable_Array_Max(ZPVARIABLE array) {
  return array->Max();
}
int zpVariable_Array_Min(ZPVARIABLE array) {
  return array->Min();
}
int zpVariable_Array_Next(int position, ZPVARIABLE array) {
  return array->Next(position);
}
int zpVariable_Array_Previous(int position, ZPVARIABLE array) {
  return array->Previous(position);
}
int zpVariable_Array_Collapse(ZPVARIABLE array) {
  return array->CollapseElements();
}
int zpVariable_ElementsUsed(ZPVARIABLE variable) {
  return variable->ElementsUsed();
}

// --- Lists ---------------------------------------------------------------------------------------

ZPVARIABLELIST zpVariableList_Allocate(void) {
  return new VariableList;
}
void zpVariableList_Free(ZPVARIABLELIST list) {
  if (list) list->Destroy();
}
void zpVariableList_Dump(ZPVARIABLELIST list) {
  list->Dump();
}
ZPVARIABLE zpVariableList_First(ZPVARIABLELIST list) {
  return list->First();
}
ZPVARIABLE zpVariableList_Current(ZPVARIABLELIST list) {
  return list->Current();
}
ZPVARIABLE zpVariableList_Next(ZPVARIABLELIST list) {
  return list->Next();
}
int zpVariableList_Entries(ZPVARIABLELIST list) {
  return list->Entries();
}
ZPVARIABLE zpVariableList_Find(ZPVARIABLELIST list, const char* name, int length) {
  // Other negative lengths match no name. A null name is the empty one.
  if (length == -1 || !name) length = MeasuredLength(name, length);
  Variable* variable = list->First();
  while (variable && !HasName(variable, name, length)) variable = list->Next();
  return variable;
}
void zpVariableList_SetVariable(ZPVARIABLELIST list, const char* name, int namelength,
                                const char* value, int valuelength) {
  if (Variable* variable = zpVariableList_Find(list, name, namelength)) {
    variable->SetValue(value, valuelength);
  } else {
    list->Insert(new Variable(name, namelength, value, valuelength), ListTail, 0);
  }
}
void zpVariableList_Insert(ZPVARIABLELIST list, ZPVARIABLE variable) {
  list->Insert(variable, ListTail);
}

// --- Tables --------------------------------------------------------------------------------------

ZPVARIABLEHASH zpVariableHash_Allocate(void) {
  return new UserVariableHash;
}
void zpVariableHash_Free(ZPVARIABLEHASH hash) {
  delete hash;
}
void zpVariableHash_Dump(ZPVARIABLEHASH hash) {
  hash->Dump();
}
int zpVariableHash_Entries(ZPVARIABLEHASH hash) {
  return hash->Entries();
}
ZPVARIABLE zpVariableHash_Index(ZPVARIABLEHASH hash, int index, int create) {
  return hash->At(index, create);
}
ZPVARIABLE zpVariableHash_Find(ZPVARIABLEHASH hash, const char* name, int length) {
  Variable* variable = nullptr;
  return hash->Find(&variable, name, length, 0) ? variable : nullptr;
}
int zpVariableHash_Insert(ZPVARIABLEHASH hash, ZPVARIABLE variable) {
  return hash->Insert(variable);
}
void zpVariableHash_ReplaceVariable(ZPVARIABLEHASH hash, ZPVARIABLE variable) {
  hash->SetVariable(variable);
}
void zpVariableHash_SetVariable(ZPVARIABLEHASH hash, const char* name, int namelength,
                                const char* value, int valuelength) {
  hash->SetVariable(name, namelength, value, valuelength);
}
