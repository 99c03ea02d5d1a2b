// What a script sees of a database, whatever engine is below it: an open Database, its views, and
// the current record of a view as variables. The instructions in base/database/ZephVM_Database.cpp
// find the target and call these operations; XBaseDatabase.h is the built-in engine.
// docs/database.md is the page for authors of scripts.

#ifndef ZEPH_BASE_DATABASE_H
#define ZEPH_BASE_DATABASE_H

#include <cstdint>
#include <cstring>
#include <span>

#include "base/core/BaseTemplates.h"
#include "base/core/MeasuredLength.h"
#include "base/core/SameBytes.h"
#include "base/core/StringClass.h"
#include "base/values/VariableKinds.h"

class Database;
class DatabaseView;
class Segment;
class VariableList;
class ZephApplication;
class ZephVM;

// A text argument of the operations below is four values, the form in which a text leaves the
// stack: the bytes, their number, the size of the buffer, and a flag. The text need not end in NUL
// unless the operation's comment says so. If *deletable is set, the callee may adopt the buffer,
// made with new[], and then clears the flag; a callee that copies leaves the flag as it is. The
// text may belong to a variable, so an operation that runs code or changes fields copies it first.

// Makes an element the first of a list. If there is no memory for that, the list stays as it is.
// REQUIRES: it is in the list.
template <class T>
void MoveToFront(List<T>& list, T* item) {
  list.Insert(item, ListHead);
  while (list.Next() != item) {
  }
  list.Remove(ListCurrent);
}

// What was found under the few names that a script looks up again and again, in the spelling in
// which it was looked up. Holds nothing; the owner forgets everything when an element leaves its
// table.
template <class T, int kPlaces>
class RecentNames {
 public:
  // Returns null if the name is not remembered. REQUIRES: length is not -1.
  T* Find(const char* name, int length) const {
    if (length < 1 || length > kLongest) return nullptr;
    const Place& place = places[Number(name, length)];
    if (place.length != length) return nullptr;
    return SameBytes(place.name, name, static_cast<size_t>(length)) ? place.element : nullptr;
  }
  // Does nothing for a name that is too long. REQUIRES: as above; element is not null.
  void Keep(const char* name, int length, T* element) {
    if (length < 1 || length > kLongest) return;
    Place& place = places[Number(name, length)];
    place.element = element;
    place.length = length;
    memcpy(place.name, name, static_cast<size_t>(length));
  }
  void Forget() noexcept {
    for (Place& place : places) place.length = 0;
    forgotten++;
  }
  // How often it has forgotten. What was found while the count was the same is still in the table,
  // and its name still means it.
  const uint64_t& Forgotten() const { return forgotten; }

 private:
  static constexpr int kLongest = 16;  // bytes

  struct Place {
    T* element = nullptr;
    int length = 0;
    char name[kLongest];
  };

  static unsigned Number(const char* name, int length) {
    const auto first = static_cast<unsigned char>(name[0]);
    const auto last = static_cast<unsigned char>(name[length - 1]);
    return (first + 3u * last + static_cast<unsigned>(length)) % kPlaces;
  }

  Place places[kPlaces];
  uint64_t forgotten = 0;
};

// A table of names that remembers what it has found. The earliest element of a name stays the
// earliest when others are added, so only a removal makes it forget.
template <class T, class KeyOf>
class RememberingTable : public NamedHashTable<T, KeyOf> {
 public:
  using NamedHashTable<T, KeyOf>::NamedHashTable;

  T* Find(const char* name, int length) {
    length = MeasuredLength(name, length);
    if (T* const known = recent.Find(name, length)) return known;
    T* const found = NamedHashTable<T, KeyOf>::Find(name, length);
    if (found) recent.Keep(name, length, found);
    return found;
  }
  T* Remove(const char* name, int length) {
    recent.Forget();
    return NamedHashTable<T, KeyOf>::Remove(name, length);
  }
  void Dump() override {
    recent.Forget();
    NamedHashTable<T, KeyOf>::Dump();
  }

 private:
  RecentNames<T, 8> recent;
};

// The variables of the current record by name, without regard to case. The table holds one count on
// each. The names are the variables' own, because fields have no number in a script's dictionary.
class DatabaseVariableHash : public HashTable<Variable> {
 public:
  DatabaseVariableHash() : HashTable(0, 1, 12, 512) {}
  ~DatabaseVariableHash() override;
  DatabaseVariableHash(const DatabaseVariableHash&) = delete;
  DatabaseVariableHash& operator=(const DatabaseVariableHash&) = delete;

  // As that of the base class. Remembers what it has found: a script looks up the same few fields
  // for each record, and its code has each name in one spelling.
  Variable* Find(const char* name, int length);

  // Dereferences all variables and empties the table.
  void Dump() override;
  int hash(Variable* variable) override;
  int Compare(Variable* a, Variable* b) override;
  int Compare(Variable* variable, const char* key, int length) override;
  // The variables in their order, with nulls for gaps; valid until a variable is added.
  std::span<Variable* const> Slots() const {
    return {slots.get(), static_cast<size_t>(high_water)};
  }
  // Gives up the table's counts. A variable that a script still holds becomes a NULL value that
  // ignores writes; one that a script has turned into a reference stays a reference. The slots are
  // empty afterwards.
  virtual void Dereference();
  // Exchanges the contents of two tables. Needs no memory.
  void Swap(DatabaseVariableHash& other) noexcept;
  // How often variables have left the table. See RecentNames::Forgotten.
  const uint64_t& Gone() const { return recent.Forgotten(); }

  using HashTable<Variable>::hash;

 private:
  // Find is not the base's, so it forgets wherever a variable leaves the table.
  RecentNames<Variable, 32> recent;
};

// One view: a current record and the way to other records. The engine makes it and registers it
// with Database::View_Add; the database owns it. Operations return false after a failure, with the
// text in error(). The order of fields and virtual operations must not change.
class DatabaseView {
 public:
  // Copies the name; a length of -1 means strlen. The rest is borrowed.
  DatabaseView(ZephVM* machine, Database* owner, const char* name, int length);
  virtual ~DatabaseView();
  DatabaseView(const DatabaseView&) = delete;
  DatabaseView& operator=(const DatabaseView&) = delete;

  // Drops the filter's count on its machine, at the end of that machine. The filter must not run
  // any more.
  virtual void Release_VM();
  // Returns the variable of that name, borrowed; null if the record has none. A length of -1 means
  // strlen.
  virtual Variable* FindField(const char* name, int length);
  // How often fields have left the record; the count lives as long as the view. What FindField has
  // returned while the count was the same is what it returns again.
  const uint64_t& FieldsGone() const { return fields.Gone(); }
  virtual bool Close() = 0;
  // Moves by count records, backwards if it is negative; the second considers only records that
  // pass the filter.
  virtual bool Skip_NoFilter(int count) = 0;
  virtual bool Skip_Filter(int count) = 0;
  // Goes to a record by its number, counted from 1; -1 is the first record and -2 the last.
  virtual bool Go_NoFilter(long position) = 0;
  virtual bool Go_Filter(long position) = 0;
  // Searches the primary index. With exact 0 the key may be the beginning of an entry's.
  virtual bool Find_NoFilter(const char* key, int length, int allocated, int* deletable,
                             int exact) = 0;
  virtual bool Find_Filter(const char* key, int length, int allocated, int* deletable,
                           int exact) = 0;
  virtual bool Add() = 0;
  virtual bool Delete() = 0;
  virtual bool UnDelete() = 0;
  virtual bool Update() = 0;
  // Compiles an expression and makes it the filter; a blank one removes the filter. The machine
  // runs it from now on.
  virtual bool Filter(ZephVM* vm, const char* expression, int length, int allocated,
                      int* deletable) = 0;
  // Describe the fields: in a new table of that path, or in the elements of *variable. The path is
  // NUL-terminated.
  virtual bool RevealStructure_Table(const char* path, int length, int allocated,
                                     int* deletable) = 0;
  virtual bool RevealStructure_Aggregate(Variable** variable) = 0;
  virtual String& name() { return name_; }
  // Stores the filter and moves the count on its machine; null and null for none. The segment is
  // borrowed from that machine.
  virtual void SetFilter(ZephVM* machine, Segment* segment);
  virtual bool IsFiltered() { return filter != nullptr; }
  virtual String& error() { return error_; }
  // Stores the text, unless it is a null String.
  virtual void Error(const String& text);
  // Makes variables read their value again: with all not 0 every one, else only those of the
  // record's place.
  virtual void SetDirty(int all) = 0;

 protected:
  ZephApplication* application;
  ZephVM* vm;
  Database* database;
  String name_;
  String error_;
  DatabaseVariableHash fields;
  Segment* filter = nullptr;
  ZephVM* filter_vm = nullptr;  // this holds one count on it
};

struct DatabaseViewName {
  static std::string_view Key(DatabaseView* view) {
    return KeyText(view->name().data, view->name().length);
  }
};
using DatabaseViewTable = RememberingTable<DatabaseView, DatabaseViewName>;

// One open database of a script's run. The machine's instructions make it, own it and delete it.
// Operations return false after a failure, with the text in error(). The order of fields and
// virtual operations must not change.
class Database {
 public:
  // Takes one count on the machine. Copies the name unless it adopts it.
  Database(ZephVM* machine, const char* name, int length, int allocated, int* deletable);
  // Deletes all views and gives back the count on the machine.
  virtual ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  // Gives back the counts on machines, this one's and those of the views. For the end of the
  // machine: afterwards the object can only be deleted.
  virtual void Release_VM();
  // Path and name are NUL-terminated. What the three further texts mean is up to the engine.
  virtual bool Open(const char* path, int pathlength, int pathallocated, int* pathdeletable,
                    const char* name, int namelength, int nameallocated, int* namedeletable,
                    const char* third, int thirdlength, int thirdallocated, int* thirddeletable,
                    const char* fourth, int fourthlength, int fourthallocated, int* fourthdeletable,
                    const char* fifth, int fifthlength, int fifthallocated,
                    int* fifthdeletable) = 0;
  virtual bool Close() = 0;
  // Makes a database with the fields of a specification, and opens it.
  virtual bool Create(const char* path, int pathlength, int pathallocated, int* pathdeletable,
                      const char* name, int namelength, int nameallocated, int* namedeletable,
                      const char* specification, int specificationlength,
                      int specificationallocated, int* specificationdeletable) = 0;
  // Replaces the open indexes by those of a comma-separated list; the first becomes the primary
  // one.
  virtual bool OpenIndexes(ZephVM* vm, const char* list, int length, int allocated,
                           int* deletable) = 0;
  virtual bool SetPrimaryIndex(const char* name, int length, int allocated, int* deletable) = 0;
  // Makes an index on an expression over all records, and makes it the primary one. The path is
  // NUL-terminated.
  virtual bool CreateIndex(ZephVM* vm, const char* path, int pathlength, int pathallocated,
                           int* pathdeletable, const char* expression, int expressionlength,
                           int expressionallocated, int* expressiondeletable, const char* flags,
                           int flagslength, int flagsallocated, int* flagsdeletable) = 0;
  virtual bool Pack() = 0;
  virtual bool Reindex() = 0;
  // The list has references to the query's variables, count of them; it is borrowed.
  virtual bool OpenView(const char* name, int namelength, int nameallocated, int* namedeletable,
                        const char* query, int querylength, int queryallocated, int* querydeletable,
                        VariableList* variables, int count) = 0;
  virtual bool CloseView(const char* name, int length, int allocated, int* deletable) = 0;
  virtual bool RunQuery(const char* query, int length, int allocated, int* deletable,
                        VariableList* variables, int count) = 0;
  virtual bool Commit() = 0;
  virtual bool Rollback() = 0;
  virtual bool Transaction() = 0;
  virtual bool Command(const char* command, int commandlength, int commandallocated,
                       int* commanddeletable, const char* arguments, int argumentslength,
                       int argumentsallocated, int* argumentsdeletable) = 0;
  // Adopts a view and makes it known to the machine.
  virtual void View_Add(DatabaseView* view);
  // Removes a view everywhere and deletes it. If it was the primary view, the first of those left
  // takes its place.
  virtual void View_Del(DatabaseView* view);
  // The view that instructions without a view's name work on, borrowed; null if there is none.
  virtual DatabaseView* PrimaryView() { return primary_view; }
  // Moves a view to the front and makes it the primary one. Does nothing if it is not one of this
  // database.
  virtual void SetPrimaryView(DatabaseView* view);
  // Returns the variable of that name of the first view that has one, borrowed; null if none has. A
  // length of -1 means strlen.
  virtual Variable* Find(const char* field, int length);
  virtual String& name() { return name_; }
  virtual String& error() { return error_; }
  // Stores the text, unless it is a null String.
  virtual void Error(const String& text);

  // The view of that name, borrowed; null if there is none. A length of -1 means strlen.
  DatabaseView* FindView(const char* name, int length) { return views_by_name.Find(name, length); }

  // While an object exists, code of the script runs for the database: a filter or a key. Operations
  // that replace or delete what that code's caller works on are then refused.
  class Evaluation {
   public:
    explicit Evaluation(Database* database) : of(database) { of->evaluations++; }
    ~Evaluation() { of->evaluations--; }
    Evaluation(const Evaluation&) = delete;
    Evaluation& operator=(const Evaluation&) = delete;

   private:
    Database* of;
  };
  bool IsEvaluating() const { return evaluations > 0; }
  // The error of an operation that is refused for that reason: kInUse, or the engine's own text.
  const char* InUse() const { return in_use; }
  static constexpr char kInUse[] =
      "Database is in use by the evaluation of a filter or an index key";

 protected:
  ZephApplication* application;
  ZephVM* vm;  // this holds one count on it; null after Release_VM
  String name_;
  String error_;
  List<DatabaseView> views{1};
  DatabaseViewTable views_by_name{0, 1, 12, 512};
  DatabaseView* primary_view = nullptr;
  const char* in_use = kInUse;

 private:
  int evaluations = 0;
};

struct DatabaseName {
  static std::string_view Key(Database* database) {
    return KeyText(database->name().data, database->name().length);
  }
};
using DatabaseTable = RememberingTable<Database, DatabaseName>;

// The open databases of a machine's family: the machine that has no parent, its children, and
// theirs. The first machine owns it.
struct MachineDatabases {
  List<Database> databases;  // the first is the primary one
  DatabaseTable databases_by_name{0, 1, 12, 512};
  DatabaseViewTable views_by_name{0, 1, 12, 512};

  MachineDatabases() = default;
  // Deletes the databases that the script has left open.
  ~MachineDatabases();
  MachineDatabases(const MachineDatabases&) = delete;
  MachineDatabases& operator=(const MachineDatabases&) = delete;
};

#endif
