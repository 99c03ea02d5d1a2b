// The kinds of Variable: one that refers to another from the start, one that scripts cannot write,
// the one of what does not exist; and the list that holds counts on variables.

#ifndef ZEPH_BASE_VARIABLEKINDS_H
#define ZEPH_BASE_VARIABLEKINDS_H

#include "base/core/List.h"
#include "base/values/Variable.h"

// A variable that refers to another one from the start. It has the size and layout of Variable.
class ReferenceVariable : public Variable {
 public:
  // Takes a count on the target; null makes a reference that reads as NULL and ignores writes.
  ReferenceVariable(const char* name, int length, Variable* target);
  // Refers to the element of the target that the path names; a missing element is made.
  ReferenceVariable(const String& name, Variable* target, List<AggregateIndex>* path);
};

// A value that scripts can read but not write: every store is ignored and counts as done.
class ImmutableVariable : public Variable {
 public:
  ZEPH_FREE_LIST_OPERATORS(ImmutableVariable)

  ImmutableVariable();
  ImmutableVariable(const char* name, int length);
  ImmutableVariable(const char* name, int length, const char* value, int valuelength);
  ImmutableVariable(const String& name, const String& value);
  ImmutableVariable(const char* name, int length, char* buffer, int valuelength, int allocated);
  ImmutableVariable(const char* name, int length, int value);
  ImmutableVariable(const char* name, int length, double value);
  ImmutableVariable(const ImmutableVariable&) = delete;
  ImmutableVariable& operator=(const ImmutableVariable&) = delete;

  ~ImmutableVariable() override;
  Variable* Clone(ZephApplication* application) override;
  void SetNULL() override;
  int SetValue(const char* text, int length) override;
  int SetValue(Variable& source) override;
  int SetValue_Nocopy(char* buffer, int length, int allocated) override;
  int SetValue_Integer(int value) override;
  int SetValue_Double(double value) override;
  // With create, a missing element is the null_element, which ignores all writes.
  Variable* Element(const AggregateIndex& index, int create) override;
  Variable* Element(List<AggregateIndex>* path, int create) override;
  void SetElement(const AggregateIndex& index, Variable* variable) override;
  void InsertElement(int index, Variable* variable) override;
  void DeleteElement(const AggregateIndex& index, bool compact) override;
  void DeleteElements(int start, int count, bool compact) override;
  void MergeElements(Variable* source, int start, int count, int dest, bool copy) override;
  void CopyElements(Variable* source, int start, int count, int dest, bool copy) override;
  // Does not renumber. Returns the number of elements of an array, else 0.
  int CollapseElements() override;
  void Make_Reference(Variable* target) override;

 protected:
  Variable* null_element = nullptr;  // made at the first miss with create; one count is owned

 private:
  Variable* Missing(int create);
};

// The value of something that does not exist. Reads as empty, ignores writes, and any element of it
// is itself.
class NULLVariable : public ImmutableVariable {
 public:
  NULLVariable() = default;
  NULLVariable(const char* name, int length) : ImmutableVariable(name, length) {}

  Variable* Clone(ZephApplication* application) override;
  String& value() override;
  int value_integer() override;
  double value_double() override;
  double value_compare(int* not_numeric) override;
  int type() override;
  int IsTrue() override;
  int IsNULL() override;
  Variable* Element(const AggregateIndex& index, int create) override;
  Variable* Element(List<AggregateIndex>* path, int create) override;
  int CollapseElements() override;
};

// A list that holds one count on each of its variables, and gives it back on removal with purge,
// Dump and destruction.
class VariableList : public List<Variable> {
 public:
  VariableList();
  ~VariableList() override;
  VariableList(const VariableList&) = delete;
  VariableList& operator=(const VariableList&) = delete;

  // Takes a count.
  void Insert(Variable* variable, ListPosition position) override;
  // Takes a count if count_it is not 0; otherwise adopts a count of the caller's.
  void Insert(Variable* variable, ListPosition position, int count_it);
  void Purge(Variable* variable) override;
  // Empties the list and deletes it.
  void Destroy();
};

#endif
