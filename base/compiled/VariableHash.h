// Tables of variables by name: a running script's globals, system variables and locals. Compiled
// code uses the position of a variable, which never changes; a name is hashed only if a script
// looks it up at run time. Names are compared without regard to case.
//
//   VariableHash           the table: a file's globals, a call's locals
//   ForwardingVariableHash tables whose variables are in another one (ForwardingVariableHash.h)
//   SystemVariableHash     the system variables (SystemVariableHash.h)
//   UserVariableHash       a table of an extension library

#ifndef ZEPH_BASE_VARIABLEHASH_H
#define ZEPH_BASE_VARIABLEHASH_H

#include <climits>
#include <cstring>

#include "base/core/StringClass.h"
#include "base/values/Variable.h"

class Dictionary;
class SharedName;
class TaggedFile;
class VariableList;
class ZephApplication;

// One row of a table. The variable is null if the name is known but the variable has not been made.
struct _VH_Entry {
  int name_index;  // number of the name in the dictionary
  // The table's Version() when the variable was made. In a table that forwards to another one: the
  // entry's position there, -1 until it is looked up.
  int version;
  Variable* variable;  // the table holds one count
};

// Scopes of a name, the results of VariableHash::Scope.
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
// search stops at the first entry that sorts after the name. The arrays of a table are made at its
// first insertion, because a request makes several tables that stay empty.
//
// In all operations a length of -1 means strlen, and a name_index of -1 means that the dictionary
// does not have the name yet. The order of fields and virtual operations is fixed.
class VariableHash {
 public:
  // The dictionary is borrowed and outlives the table. There are 2^bits buckets; bits from 0 to 16.
  // Main tables take 12 and 512, small ones 8 and 64.
  VariableHash(Dictionary* dictionary, int bits, int capacity);
  // The empty twin: the names and positions of the source without its variables. A call makes its
  // locals with it. The two therefore share the index of names until one of them gets another name.
  VariableHash(VariableHash& source);
  // The names and positions of the source on another dictionary with the same ids, and a Clone of
  // each variable for the application.
  VariableHash(ZephApplication* application, Dictionary* dictionary, VariableHash& source);
  VariableHash& operator=(const VariableHash&) = delete;

  virtual ~VariableHash();

  // The forms of Insert return the new position. This one adopts the caller's count on the
  // variable. A name that the table already has gets a second entry, which no search by name finds.
  virtual int Insert(Variable* variable);
  // Reserve a name, without a variable.
  virtual int Insert(const char* name, int length);
  virtual int Insert(int name_index);
  // Stores text in the variable of that name; makes the variable if there is none.
  virtual void SetVariable(const char* name, int length, const char* value, int valuelength);
  // Replaces the variable of the same name, or adds a new one. Adopts the caller's count.
  virtual void SetVariable(Variable* variable);
  // Makes the entry a new reference to the variable, under the entry's name.
  virtual void SetVariable_Reference(int position, Variable* variable);
  // Stores by a path, such as the name of a form field. With accumulate, a second value for the
  // same path turns the variable into an array, and further ones are appended. Always returns 0; a
  // bad path stores nothing.
  virtual int SetVariable_Fancy(const char* path, int length, const char* value, int valuelength,
                                int accumulate);
  // The position of a name, or -1; *entry, if not null, receives its row on success. If name is
  // null, the name of name_index in the dictionary is used.
  virtual int Seek(int name_index, const char* name, int length, _VH_Entry** entry);
  // The insertion that all other forms use. A null name is read from the dictionary. Adopts the
  // caller's count on the variable, which may be null.
  virtual int Insert(int name_index, const char* name, int length, Variable* variable);
  // The mark of entries that are made at this time.
  virtual int Version();
  // Calls SetNULL on the variable of that name. Returns 1, or 0 if there is none.
  virtual int ClearVariable(const char* name, int length);
  // Returns whether the name is known. If so, sets *out to its variable; null if it has not been
  // made and create is 0. *out is unchanged for an unknown name, and may be unchanged for a known
  // name without a variable, so callers preset null. Never adds a name.
  virtual bool Find(Variable** out, const char* name, int length, int create);
  // Walks a path, a name followed by any number of ":member" and "[number]". *out receives the
  // variable, or null if it does not exist and create is 0; with create everything on the path is
  // made. Returns 1; or 0 for a bad index, with null in *out and the text in error().
  virtual int LookupVariable_Fancy(Variable** out, const char* path, int length, int create);
  // The variable at a position, borrowed; null if the position is out of range, or if the variable
  // has not been made and create is 0.
  virtual Variable* Index(int position, int create);
  virtual int Entries();
  // Appends every existing variable in the order of positions. The list takes its own counts.
  virtual void AllocatedVars(VariableList* list);
  // Read and write the section of that tag. False on a short or damaged file, with the file's text
  // in error(); a table that was read in part is safe to use and to delete.
  virtual bool Read(TaggedFile* file, int tag);
  virtual bool Write(TaggedFile* file, int tag);
  // The same for the body alone, at the current position of a section.
  virtual bool Read(TaggedFile* file);
  virtual bool Write(TaggedFile* file);
  virtual String& error();
  virtual void Error(const String& text);
  // Begin and end a level of shadowed values; only the system table has them. Pop returns 1, or 0
  // if there is no level.
  virtual void Push();
  virtual int Pop();
  // The table that holds the variables: this one, or the one that it forwards to.
  virtual VariableHash* RealIdentity();

  // Index(position, create) for running code: in line if the variable exists, also in a table that
  // forwards to another one.
  Variable* At(int position, int create) {
    if (static_cast<unsigned>(position) < static_cast<unsigned>(entry_count)) {
      Variable* const variable = entries[position].variable;
      if (variable && !variable->IsAsleep()) return variable;
    }
    return Index(position, create);
  }

  // The rows of all positions and their count, valid until another name is added. A row may hold a
  // variable that is asleep: the caller wakes it before use.
  const _VH_Entry* Rows(unsigned* count) const {
    *count = static_cast<unsigned>(entry_count);
    return entries;
  }

  // The same, but at least so many rows may be read: those after the last name have no variable.
  const _VH_Entry* Rows(int least, unsigned* count) {
    if (least > readable_entries && least > entry_count) [[unlikely]]
      MakeReadable(least);
    return Rows(count);
  }

  // Reuses an empty twin of the source, whose call is over, as an empty twin for the next call.
  // False if it is no longer a twin because it has got a name of its own.
  //
  // Variables that can be reset stay in their rows, asleep. No operation of the table sees them
  // until the next call accesses the position or name in a way that makes a variable.
  bool Renew(const VariableHash& source) {
    if (entry_count != source.entry_count || index != source.index || error_.data) return false;
    _VH_Entry* const end = entries + entry_count;
    for (_VH_Entry* row = entries; row != end; row++) {
      if (row->variable && !row->variable->RenewScalar() && !row->variable->Renew()) [[unlikely]] {
        DropVariable(row);
      }
    }
    return true;
  }

  // Gives up the variable at a position, if there is one; it is made again when it is accessed.
  void Drop(int position) {
    if (position < entry_count && entries[position].variable) DropVariable(&entries[position]);
  }

  // The bucket of a name.
  unsigned hash(const char* name, int length) const;
  // Releases all variables and keeps the names.
  void Dump();

  // Splits a name with a scope prefix such as "global." or "db.d.". Returns a VariableScope. *rest
  // receives the name without the prefix, *database the name of the database of ScopeDatabase; a
  // length of 0 means any. Both point into the name.
  static int Scope(const char* name, int length, const char** rest, int* restlength,
                   const char** database, int* databaselength);

 protected:
  // The empty twin on another dictionary with the same ids.
  VariableHash(Dictionary* dictionary, VariableHash& source);

  // The index of names: counted, shared by a table and its twins, and never changed while shared.
  struct SharedIndex;

  // Seek for a name of known length, always in this table's own entries.
  int Locate(const char* name, int length);
  // The name of an entry, borrowed from the dictionary.
  const char* EntryName(int entry, int* length);
  // The name of an entry, shared by the variables of all twins; null if the table has no twin.
  SharedName* NameForTwins(int position);
  // The variable of an entry, null if there is none or it is asleep.
  static Variable* Present(const _VH_Entry& entry) {
    return entry.variable && !entry.variable->IsAsleep() ? entry.variable : nullptr;
  }
  // Makes the variable of an entry, or wakes one that is asleep there.
  Variable* MakeVariable(_VH_Entry* entry);
  // Gives each entry a Clone of the source's variable at the same position.
  void CloneVariables(ZephApplication* application, VariableHash& source);
  // A copy of another table's dictionary, owned by the caller.
  static Dictionary* DictionaryCopy(const VariableHash& other);

  SharedIndex* index = nullptr;  // buckets and chains; null before the first name
  int bits;
  int bucket_count;
  int capacity;  // grows by 512
  _VH_Entry* entries = nullptr;
  int entry_count = 0;
  Dictionary* dictionary;
  String error_;

 private:
  friend struct NativeLayout;

  void CopyNames(const VariableHash& source);
  void MakeRoom();
  void MakeReadable(int least);
  void Grow(int larger);
  void OwnIndex();
  void DropVariable(_VH_Entry* row);
  void ReleaseIndex();
  void ReleaseEntries();
  bool Fail(TaggedFile* file);

  int allocated_entries = 0;  // entries that there is memory for
  int readable_entries = 0;   // up to here, those after the last entry have no variable
};

// A separate table with a dictionary of its own, for extension libraries.
class UserVariableHash : public VariableHash {
 public:
  UserVariableHash();
  ~UserVariableHash() override;
};

#endif
