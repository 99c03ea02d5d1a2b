// Tables whose variables are in another table: a loaded file's numbering of the running table's
// names, and the tables of a background task.

#ifndef ZEPH_BASE_FORWARDINGVARIABLEHASH_H
#define ZEPH_BASE_FORWARDINGVARIABLEHASH_H

#include "base/compiled/VariableHash.h"

// The forwarding itself. The table has names and positions of its own; each entry's version is its
// position in the target, or -1 until it is known there. Operations by position and Find translate
// it; the others go to the target with the name as text, because the target's dictionary may have
// other ids.
//
// A table may be its own target; then all operations are those of VariableHash.
class ForwardingVariableHash : public VariableHash {
 public:
  using VariableHash::Insert;
  using VariableHash::Read;
  void SetVariable(const char* name, int length, const char* value, int valuelength) override;
  void SetVariable(Variable* variable) override;
  void SetVariable_Reference(int position, Variable* variable) override;
  int SetVariable_Fancy(const char* path, int length, const char* value, int valuelength,
                        int accumulate) override;
  // The position and the row of the target.
  int Seek(int name_index, const char* name, int length, _VH_Entry** entry) override;
  // Returns the new position in the target.
  int Insert(int name_index, const char* name, int length, Variable* variable) override;
  int Version() override;
  int ClearVariable(const char* name, int length) override;
  // A name that is only in the target is found there.
  bool Find(Variable** out, const char* name, int length, int create) override;
  // On failure the target's text is in error() of both.
  int LookupVariable_Fancy(Variable** out, const char* path, int length, int create) override;
  // A position of this table.
  Variable* Index(int position, int create) override;
  int Entries() override;
  void AllocatedVars(VariableList* list) override;
  bool Read(TaggedFile* file) override;
  void Push() override;
  int Pop() override;
  VariableHash* RealIdentity() override;

 protected:
  // A table without names. The target is not null, and is neither deleted nor followed further.
  ForwardingVariableHash(Dictionary* dictionary, int bits, int capacity, VariableHash* target);
  // The names and positions of the source on another dictionary with the same ids. The table is its
  // own target at first.
  ForwardingVariableHash(Dictionary* dictionary, VariableHash& source);

  bool own() const { return target == this; }
  // Marks all positions in the target as unknown. Needed whenever entries or target were replaced.
  void ForgetTarget();

  VariableHash* target;

 private:
  int Resolve(int position);
  Variable* InsertThrough(int position, Variable* refers_to);
};

// A compiled file's own numbering of the names of a running table. The file's code uses positions
// of this table; the variables are in the target.
class ReferenceVariableHash : public ForwardingVariableHash {
 public:
  // Forwards to the target's RealIdentity(), which outlives this table.
  ReferenceVariableHash(Dictionary* dictionary, int bits, int capacity, VariableHash* target);
};

// Copies of a table's variables for a background task. A copy of a plain table has the variables
// itself; a copy of any other table has a target of its own.
class ClonedVariableHash : public ForwardingVariableHash {
 public:
  // The dictionary is borrowed from the task and has the same ids as the source's.
  ClonedVariableHash(ZephApplication* application, Dictionary* dictionary, VariableHash& source);
  ~ClonedVariableHash() override;

 protected:
  // Deleted with the table, unless it is the borrowed one; so is a target that is not the table.
  Dictionary* owned_dictionary;
};

#endif
