// References, read-only values, the NULL value and lists of variables. Tested in
// tests/base/values/VariableKindsTest.cpp.

#include "base/values/VariableKinds.h"

#include "base/values/VariableRef.h"

// --- ReferenceVariable ---------------------------------------------------------------------------

ReferenceVariable::ReferenceVariable(const char* name, int length, Variable* target)
    : Variable(name, length) {
  state |= Reference;
  reference = target;
  if (target) target->IncRefCount();
}

ReferenceVariable::ReferenceVariable(const String& name, Variable* target,
                                     List<AggregateIndex>* path)
    : ReferenceVariable(name.data, name.length, target ? target->Element(path, 1) : nullptr) {}

// --- ImmutableVariable ---------------------------------------------------------------------------

ImmutableVariable::ImmutableVariable() = default;
ImmutableVariable::ImmutableVariable(const char* name, int length) : Variable(name, length) {}
ImmutableVariable::ImmutableVariable(const char* name, int length, const char* value,
                                     int valuelength)
    : Variable(name, length, value, valuelength) {}
ImmutableVariable::ImmutableVariable(const String& name, const String& value)
    : Variable(name, value) {}
ImmutableVariable::ImmutableVariable(const char* name, int length, char* buffer, int valuelength,
                                     int allocated)
    : Variable(name, length, buffer, valuelength, allocated) {}
ImmutableVariable::ImmutableVariable(const char* name, int length, int value)
    : Variable(name, length, value) {}
ImmutableVariable::ImmutableVariable(const char* name, int length, double value)
    : Variable(name, length, value) {}

ImmutableVariable::~ImmutableVariable() {
  if (null_element) null_element->DecRefCount();
}

Variable* ImmutableVariable::Clone(ZephApplication*) {
  const char* name = name_.data;
  const int length = name_.length;
  if (valid_forms() & TextForm) {
    return new ImmutableVariable(name, length, string_value.data, string_value.length);
  }
  if (valid_forms() & DoubleForm) return new ImmutableVariable(name, length, double_value);
  if (valid_forms() & IntegerForm) return new ImmutableVariable(name, length, integer_value);
  return new ImmutableVariable(name, length);
}

void ImmutableVariable::SetNULL() {}
int ImmutableVariable::SetValue(const char*, int) {
  return 1;
}
int ImmutableVariable::SetValue(Variable&) {
  return 1;
}
int ImmutableVariable::SetValue_Nocopy(char* buffer, int, int) {
  delete[] buffer;
  return 1;
}
int ImmutableVariable::SetValue_Integer(int) {
  return 1;
}
int ImmutableVariable::SetValue_Double(double) {
  return 1;
}
void ImmutableVariable::SetElement(const AggregateIndex&, Variable*) {}
void ImmutableVariable::InsertElement(int, Variable*) {}
void ImmutableVariable::DeleteElement(const AggregateIndex&, bool) {}
void ImmutableVariable::DeleteElements(int, int, bool) {}
void ImmutableVariable::MergeElements(Variable*, int, int, int, bool) {}
void ImmutableVariable::CopyElements(Variable*, int, int, int, bool) {}
void ImmutableVariable::Make_Reference(Variable*) {}

int ImmutableVariable::CollapseElements() {
  return aggregatetype() == AggregateArray ? ElementsUsed() : 0;
}

Variable* ImmutableVariable::Missing(int create) {
  if (!create) return nullptr;
  if (!null_element) null_element = new NULLVariable();
  return null_element;
}

Variable* ImmutableVariable::Element(const AggregateIndex& index, int create) {
  Variable* found = Variable::Element(index, 0);
  return found ? found : Missing(create);
}

Variable* ImmutableVariable::Element(List<AggregateIndex>* path, int create) {
  Variable* found = Variable::Element(path, 0);
  return found ? found : Missing(create);
}

// --- NULLVariable --------------------------------------------------------------------------------

Variable* NULLVariable::Clone(ZephApplication*) {
  return new NULLVariable();
}
String& NULLVariable::value() {
  return string_value;
}
int NULLVariable::value_integer() {
  return integer_value;
}
double NULLVariable::value_double() {
  return double_value;
}
double NULLVariable::value_compare(int* not_numeric) {
  *not_numeric = 0;
  return 0.0;
}
int NULLVariable::type() {
  return VariableNULL;
}
int NULLVariable::IsTrue() {
  return 0;
}
int NULLVariable::IsNULL() {
  return 1;
}
Variable* NULLVariable::Element(const AggregateIndex&, int create) {
  return create ? this : nullptr;
}
Variable* NULLVariable::Element(List<AggregateIndex>*, int create) {
  return create ? this : nullptr;
}
int NULLVariable::CollapseElements() {
  return 0;
}

// --- VariableList --------------------------------------------------------------------------------

VariableList::VariableList() : List<Variable>(1) {}

// Dump is called here, because in the base's destructor Purge is no longer this class's.
VariableList::~VariableList() {
  VariableList::Dump();
}

void VariableList::Insert(Variable* variable, ListPosition position) {
  Insert(variable, position, 1);
}

void VariableList::Insert(Variable* variable, ListPosition position, int count_it) {
  VariableRef counted = count_it ? VariableRef::Share(variable) : VariableRef(variable);
  List<Variable>::Insert(variable, position);
  (void)counted.release();
}

void VariableList::Purge(Variable* variable) {
  if (variable) variable->DecRefCount();
}

void VariableList::Destroy() {
  Dump();
  delete this;
}
