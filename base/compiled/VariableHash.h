// Tables of variables by name: a running script's globals, system variables and locals. Compiled
// code reaches a variable by its position, which never changes; names are hashed only where a
// script looks one up at run time. Names are compared without regard to case.

#ifndef ZEPH_BASE_VARIABLEHASH_H
#define ZEPH_BASE_VARIABLEHASH_H

#include "base/core/BaseTemplates.h"
#include "base/core/FreeList.h"
#include "base/core/StringClass.h"
#include "base/values/Variable.h"

class Dictionary;
class SharedName;
class TaggedFile;
class ZephApplication;

// One row of a table. The variable may be null: the name is known, the variable not made yet.
struct _VH_Entry {
  int name_index;  // number of the name in the dictionary
  // The table's Version() when the variable was made. In a table that forwards to another one: the
  // entry's position there, -1 while nobody has asked.
  int version;
  Variable* variable;  // the table holds one count
};

// Scopes of a name, as VariableHash::Scope answers them.
enum VariableScope : int {
  ScopeLocal = 0,
  ScopeGlobal = 1,
  ScopeSystem = 2,
  ScopeDatabase = 3,
  ScopeNone = 5,
};

// The table. Belongs to one request or task and its thread. Entries are never removed, so a
// position stays valid for the table's life.
//
// A chain holds the entries of one bucket, sorted by the length of the name and then by memcmpi; a
// search stops at the first entry that comes behind the name. The arrays of a table are made at its
// first insertion: a request builds several tables that stay empty.
//
// Everywhere: a length of -1 means strlen, a name_index of -1 a name that the dictionary does not
// have yet. The order of fields and virtual operations is stated and stays.
class VariableHash {
 public:
  ZEPH_FREE_LIST_OPERATORS(VariableHash)

  // The dictionary is borrowed and outlives the table. There are 2^bits buckets; bits from 0 to 16.
  // Main tables take 12 and 512, small ones 8 and 64.
  VariableHash(Dictionary* dictionary, int bits, int capacity);
  // The empty twin: the names and positions of the source and none of its variables. A call makes
  // its locals with it, so the two share what finds a name until one of them gets a further name.
  VariableHash(VariableHash& source);
  // Names and positions of the source on another dictionary that numbers alike, with a Clone for
  // the application of each variable.
  VariableHash(ZephApplication* application, Dictionary* dictionary, VariableHash& source);
  VariableHash& operator=(const VariableHash&) = delete;

  virtual ~VariableHash();

  // Each adopts the caller's count on the variable and answers the new position. A name that is
  // there already gets a second entry, which no search by name reaches.
  virtual int Insert(Variable* variable);
  // Reserve a name, without a variable.
  virtual int Insert(const char* name, int length);
  virtual int Insert(int name_index);
  // Stores text in the variable of that name, which is made if there is none.
  virtual void SetVariable(const char* name, int length, const char* value, int valuelength);
  // Puts the variable in place of the one of its name, adopting the caller's count.
  virtual void SetVariable(Variable* variable);
  // Makes the entry a new reference to the variable, under the entry's name.
  virtual void SetVariable_Reference(int index, Variable* variable);
  // Stores by a path, as names of form fields are. With accumulate, a second value of one path
  // makes an array of it and further ones append. Answers 0; a bad path stores nothing.
  virtual int SetVariable_Fancy(const char* path, int length, const char* value, int valuelength,
                                int accumulate);
  // Position of a name, -1 without it; *entry, if not null, receives its row on success. A null
  // name is taken from the dictionary by name_index.
  virtual int Seek(int name_index, const char* name, int length, _VH_Entry** entry);
  // The insertion behind all others.
  virtual int Insert(int name_index, const char* name, int length, Variable* variable);
  // What entries made now are marked with.
  virtual int Version();
  // SetNULL on the variable of that name: 1, or 0 if there is none.
  virtual int ClearVariable(const char* name, int length);
  // Answers whether the name is known, and then sets *out to its variable, which is null if it was
  // not made and create is 0. *out stays as it is for an unknown name, and may for a known one
  // without a variable: callers preset null. Never adds a name.
  virtual bool Find(Variable** out, const char* name, int length, int create);
  // Walks a path, a name followed by any number of ":member" and "[number]". *out is the variable,
  // or null if it is not there and create is 0; with create everything on the way is made. Answers
  // 1, or 0 for a bad index, with null in *out and the text in error().
  virtual int LookupVariable_Fancy(Variable** out, const char* path, int length, int create);
  // The variable at a position, borrowed; null out of range, or if it was not made and create is 0.
  virtual Variable* Index(int index, int create);
  virtual int Entries();
  // Appends every existing variable, with a count of the list's own, in the order of positions.
  virtual void AllocatedVars(VariableList* list);
  // The section of that tag. False on a short or damaged file, with the file's text in error(); a
  // table that was read in part is safe to use and to delete.
  virtual bool Read(TaggedFile* file, int tag);
  virtual bool Write(TaggedFile* file, int tag);
  // The body alone, at the current position of a section.
  virtual bool Read(TaggedFile* file);
  virtual bool Write(TaggedFile* file);
  virtual String& error();
  virtual void Error(const String& text);
  // Levels of shadowed values, which only the system table has. Pop answers 0 without a level.
  virtual void Push();
  virtual int Pop();
  // The table that holds the variables: this one, or the one that it forwards to.
  virtual VariableHash* RealIdentity();

  // Index(position, create) for code that runs: in line where the variable is there already, for a
  // table that forwards to another one too.
  Variable* At(int position, int create) {
    if (static_cast<unsigned>(position) < static_cast<unsigned>(entry_count)) {
      Variable* const variable = entries[position].variable;
      if (variable && !variable->IsAsleep()) return variable;
    }
    return Index(position, create);
  }

  // The rows of all positions and their count, until a further name comes. A row may hold a
  // variable that is asleep: the caller wakes it before it uses it.
  const _VH_Entry* Rows(unsigned* count) const {
    *count = static_cast<unsigned>(entry_count);
    return entries;
  }

  // Makes the empty twin of a source, whose call is over, an empty twin for the next call. False if
  // it is none any more, since it has got a name of its own.
  //
  // Variables that can be made as new stay in their rows, asleep: no operation of the table sees
  // one before the next call touches its position or name in a way that makes a variable.
  bool Renew(const VariableHash& source) {
    if (entry_count != source.entry_count || index != source.index || error_.data) return false;
    const _VH_Entry* const end = entries + entry_count;
    for (const _VH_Entry* row = entries; row != end; row++) {
      if (row->variable && !row->variable->RenewNumber()) [[unlikely]] {
        RenewVariables();
        break;
      }
    }
    return true;
  }

  // Bucket of a name.
  unsigned hash(const char* name, int length) const;
  // Releases all variables and keeps the names.
  void Dump();

  // Splits a name with a scope prefix such as "global." or "db.d."; *rest is the name without it.
  // *database names the database of ScopeDatabase; its length 0 means any. The out-parameters
  // point into the name. Answers one of VariableScope.
  static int Scope(const char* name, int length, const char** rest, int* restlength,
                   const char** database, int* databaselength);

 protected:
  // The empty twin on another dictionary that numbers alike.
  VariableHash(Dictionary* dictionary, VariableHash& source);

  // What finds a name: counted, shared by a table and its twins, and never changed while shared.
  struct SharedIndex;

  // Like Seek for a name of known length, but always on this table's own entries.
  int Locate(const char* name, int length);
  // Name of an entry, borrowed from the dictionary.
  const char* EntryName(int index, int* length);
  // The name of an entry for the variables of all twins; null where nothing shares it.
  SharedName* NameForTwins(int position);
  // The variable of an entry, null if there is none or it is asleep.
  static Variable* Present(const _VH_Entry& entry) {
    return entry.variable && !entry.variable->IsAsleep() ? entry.variable : nullptr;
  }
  // Makes the variable of an entry that has none, or wakes the one that is asleep there.
  Variable* MakeVariable(_VH_Entry* entry);
  // Gives each entry a Clone of the variable at the same position of the source.
  void CloneVariables(ZephApplication* application, VariableHash& source);
  // A copy of another table's dictionary, the caller's.
  static Dictionary* DictionaryCopy(const VariableHash& other);

  // For tables whose variables are in another one: each entry's version is its position there.
  void ForgetTarget();
  int Resolve(VariableHash* other, int position);
  Variable* InsertThrough(VariableHash* other, int position, Variable* refers_to);
  bool FindThrough(VariableHash* other, Variable** out, const char* name, int length, int create);
  Variable* IndexThrough(VariableHash* other, int position, int create);
  void ReferThrough(VariableHash* other, int position, Variable* variable);
  int LookupThrough(VariableHash* other, Variable** out, const char* path, int length, int create);

  SharedIndex* index = nullptr;  // buckets and chains, null before the first name
  int bits;
  int bucket_count;
  int capacity;  // grows by 512
  _VH_Entry* entries = nullptr;
  int entry_count = 0;
  Dictionary* dictionary;
  String error_;

 private:
  void CopyNames(const VariableHash& source);
  // Memory for at least so many rows, nothing in them: the table's own if it is enough, as it is
  // for most calls.
  void TakeEntries(int count) {
    if (count > FewRows) {
      TakeMoreEntries(count);
    } else {
      allocated_entries = FewRows;
      entries = few_rows;
    }
  }
  void TakeMoreEntries(int count);
  void FreeEntries(_VH_Entry* rows, int allocated);
  void MakeRoom();
  void OwnIndex();
  void RenewVariables();
  void ReleaseIndex();
  void ReleaseEntries();
  bool Fail(TaggedFile* file);

  static constexpr int FewRows = 8;

  int allocated_entries = 0;  // entries that there is memory for
  _VH_Entry few_rows[FewRows];
};

// A compiled file's own numbering of the names of a running table: the file's code uses positions
// of this table, the variables live in the target.
class ReferenceVariableHash : public VariableHash {
 public:
  // Forwards to the target's RealIdentity(), which outlives this table.
  ReferenceVariableHash(Dictionary* dictionary, int bits, int capacity, VariableHash* target);

  using VariableHash::Insert;
  using VariableHash::Read;
  void SetVariable(const char* name, int length, const char* value, int valuelength) override;
  void SetVariable(Variable* variable) override;
  void SetVariable_Reference(int index, Variable* variable) override;
  int SetVariable_Fancy(const char* path, int length, const char* value, int valuelength,
                        int accumulate) override;
  int Seek(int name_index, const char* name, int length, _VH_Entry** entry) override;
  int Insert(int name_index, const char* name, int length, Variable* variable) override;
  int Version() override;
  int ClearVariable(const char* name, int length) override;
  bool Find(Variable** out, const char* name, int length, int create) override;
  int LookupVariable_Fancy(Variable** out, const char* path, int length, int create) override;
  Variable* Index(int index, int create) override;
  int Entries() override;
  void AllocatedVars(VariableList* list) override;
  bool Read(TaggedFile* file) override;
  void Push() override;
  int Pop() override;
  VariableHash* RealIdentity() override;

 protected:
  VariableHash* target;
};

// Variables that a table of system variables has from the start, and makes one by one when somebody
// looks for them: most scripts look for none of them. They are numbered in the order in which they
// are listed; a name may have several numbers, the first of which is its place.
class LateVariables {
 public:
  LateVariables() = default;
  LateVariables(const LateVariables&) = delete;
  LateVariables& operator=(const LateVariables&) = delete;
  virtual ~LateVariables() = default;

  // The number of a name, from 0 on, for Make: that of the variable that counts if there are
  // several. -1 for a name that is none of these, which most are that scripts look up, so it comes
  // quickly.
  virtual int Number(const char* name, int length) = 0;
  virtual int Count() = 0;
  virtual const char* Name(int number, int* length) = 0;
  // A new variable, with its count the caller's.
  virtual Variable* Make(int number) = 0;
  // The same variables for a task, the caller's.
  virtual LateVariables* Clone(ZephApplication* application) = 0;
};

// The system variables. Push opens a level; what changes from then on is taken back by Pop.
//
// The names of late variables that the table does not have from its file are reserved together, in
// their order, when the first of them is found or anything else goes by positions: so positions and
// listings are the same whatever was looked up first.
class SystemVariableHash : public VariableHash {
 public:
  SystemVariableHash(Dictionary* dictionary, int bits, int capacity);
  SystemVariableHash(ZephApplication* application, Dictionary* dictionary, VariableHash& source);
  ~SystemVariableHash() override;

  // Adopts variables to be made when they are looked for, in place of what goes by their names now.
  // Nobody can tell from then on which of them have been made.
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
  void SetVariable_Reference(int index, Variable* variable) override;
  // Stores plainly: system variables never collect values.
  int SetVariable_Fancy(const char* path, int length, const char* value, int valuelength,
                        int accumulate) override;
  int Insert(int name_index, const char* name, int length, Variable* variable) override;
  // The count of levels in force.
  int Version() override;
  bool Find(Variable** out, const char* name, int length, int create) override;
  Variable* Index(int index, int create) override;
  void Push() override;
  int Pop() override;

 protected:
  // State of an entry before a change, put back by Pop; holds the count of the old variable.
  struct _SVH_Entry {
    int index;
    int version;
    Variable* variable;
  };

  void Save(int position, int version, Variable* variable);
  void Replace(int position, Variable* variable);
  // The position of a name, -1 without it; a late variable of that name is there behind this.
  int MakeLate(const char* name, int length);
  void MakeAllLate();
  void ReserveLateNames();

  int depth = 0;
  Stack<List<_SVH_Entry>> frames;
  List<_SVH_Entry>* current = nullptr;
  LateVariables* late = nullptr;  // owned; null without any
  bool late_names_reserved = false;
};

// Private copies of a table's variables for a background task.
class ClonedVariableHash : public VariableHash {
 public:
  // The dictionary is the task's and numbers as the source's does; it is borrowed.
  ClonedVariableHash(ZephApplication* application, Dictionary* dictionary, VariableHash& source);
  ~ClonedVariableHash() override;

  using VariableHash::Insert;
  void SetVariable(const char* name, int length, const char* value, int valuelength) override;
  void SetVariable(Variable* variable) override;
  void SetVariable_Reference(int index, Variable* variable) override;
  int SetVariable_Fancy(const char* path, int length, const char* value, int valuelength,
                        int accumulate) override;
  int Seek(int name_index, const char* name, int length, _VH_Entry** entry) override;
  int Insert(int name_index, const char* name, int length, Variable* variable) override;
  int Version() override;
  int ClearVariable(const char* name, int length) override;
  bool Find(Variable** out, const char* name, int length, int create) override;
  int LookupVariable_Fancy(Variable** out, const char* path, int length, int create) override;
  Variable* Index(int index, int create) override;
  int Entries() override;
  void AllocatedVars(VariableList* list) override;
  void Push() override;
  int Pop() override;
  VariableHash* RealIdentity() override;

 protected:
  bool own() const { return target == this; }

  VariableHash* target;          // deleted with the table, unless it is the table itself
  Dictionary* owned_dictionary;  // deleted with the table, unless it is the one it was given
};

// A free-standing table with a dictionary of its own, for extension libraries.
class UserVariableHash : public VariableHash {
 public:
  UserVariableHash();
  ~UserVariableHash() override;
};

#endif
