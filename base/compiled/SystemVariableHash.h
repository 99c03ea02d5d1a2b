// The table of system variables. It can be changed in levels that are taken back again, and most of
// its variables are made only when a script looks them up.

#ifndef ZEPH_BASE_SYSTEMVARIABLEHASH_H
#define ZEPH_BASE_SYSTEMVARIABLEHASH_H

#include "base/compiled/VariableHash.h"
#include "base/core/List.h"
#include "base/core/Stack.h"

// Variables that a table of system variables has from the start but makes only when they are looked
// up, because most scripts use none of them. They are numbered in the order of listings. A name may
// have several numbers; the first gives its position.
class LateVariables {
 public:
  LateVariables() = default;
  LateVariables(const LateVariables&) = delete;
  LateVariables& operator=(const LateVariables&) = delete;
  virtual ~LateVariables() = default;

  // The number of a name for Make, counted from 0; if the name has several, the one whose variable
  // is used. -1 for any other name. Must be fast in that case, because most names that scripts look
  // up are others.
  virtual int Number(const char* name, int length) = 0;
  virtual int Count() = 0;
  virtual const char* Name(int number, int* length) = 0;
  // A new variable; the caller owns its count.
  virtual Variable* Make(int number) = 0;
  // The same variables for a task, owned by the caller.
  virtual LateVariables* Clone(ZephApplication* application) = 0;
};

// The system variables. Push opens a level; Pop takes back the changes made since.
//
// The late variables' names that the table does not have from its file are reserved together, in
// their order, when the first of them is found or any operation uses positions. Positions and
// listings are therefore the same, whatever was looked up first.
class SystemVariableHash : public VariableHash {
 public:
  SystemVariableHash(Dictionary* dictionary, int bits, int capacity);
  SystemVariableHash(ZephApplication* application, Dictionary* dictionary, VariableHash& source);
  ~SystemVariableHash() override;

  // Adopts the late variables and drops existing variables of their names. From then on no caller
  // can tell which of them have been made.
  void SetLateVariables(LateVariables* variables);
  // Reserves the names of all late variables and drops those that were not made.
  void ForgetLateVariables();

  using VariableHash::Insert;
  using VariableHash::SetVariable;
  int Seek(int name_index, const char* name, int length, _VH_Entry** entry) override;
  int ClearVariable(const char* name, int length) override;
  int Entries() override;
  void AllocatedVars(VariableList* list) override;
  void SetVariable(Variable* variable) override;
  void SetVariable_Reference(int position, Variable* variable) override;
  // Ignores accumulate: system variables never collect values.
  int SetVariable_Fancy(const char* path, int length, const char* value, int valuelength,
                        int accumulate) override;
  int Insert(int name_index, const char* name, int length, Variable* variable) override;
  // The count of open levels.
  int Version() override;
  bool Find(Variable** out, const char* name, int length, int create) override;
  Variable* Index(int position, int create) override;
  void Push() override;
  int Pop() override;

 protected:
  // The state of an entry before a change, which Pop restores. Holds the count of the old variable.
  struct _SVH_Entry {
    int index;
    int version;
    Variable* variable;
  };

  void Save(int position, int version, Variable* variable);
  void Replace(int position, Variable* variable);
  // The position of a name, or -1. If the name is a late variable's, it exists afterwards.
  int MakeLate(const char* name, int length);
  void MakeAllLate();
  void ReserveLateNames();

  int depth = 0;
  Stack<List<_SVH_Entry>> frames;
  List<_SVH_Entry>* current = nullptr;
  LateVariables* late = nullptr;  // owned; null without any
  bool late_names_reserved = false;
};

#endif
