// The instructions on databases: they find their target, call its operation, and report how that
// went under the tag. Also what the machine asks of the open databases. Tested in
// tests/base/database/DatabaseInstructionTest.cpp.

#include <memory>

#include "base/core/memcmpi.h"
#include "base/database/Database.h"
#include "base/database/ExternalDatabase.h"
#include "base/database/XBaseDatabase.h"
#include "base/extensions/ExternalDatabaseLibrary.h"
#include "base/host/TagErrors.h"
#include "base/machine/ExpressionCompiler.h"
#include "base/machine/PoppedString.h"
#include "base/machine/ZephVM.h"

namespace {

const char kBuiltin[] = "xbase3";
const int kBuiltinLength = sizeof kBuiltin - 1;

std::string_view Bytes(const PoppedString& text) {
  return {text.data(), static_cast<size_t>(text.length())};
}
// REQUIRES: a text.
std::string_view TextOf(const ZephVM_Stack::Stack_Entry& entry) {
  return {entry.value.text, static_cast<size_t>(entry.length)};
}

// Joins literals and names to a message.
class Message {
 public:
  Message& operator<<(const char* literal) {
    text.cat(literal, -1);
    return *this;
  }
  Message& operator<<(const String& name) {
    text.cat(name.data ? name.data : "", name.length);
    return *this;
  }
  Message& operator<<(std::string_view name) {
    text.cat(name.data(), static_cast<int>(name.size()));
    return *this;
  }
  Message& operator<<(const PoppedString& name) { return *this << Bytes(name); }
  operator const String&() const { return text; }

 private:
  String text{""};
};

bool IsBuiltin(const char* type, int length) {
  return length == kBuiltinLength && memcmpi(type, kBuiltin, kBuiltinLength) == 0;
}

// Each finds what an instruction works on, or reports the error and returns false.
// Loops over records do so at each step, so these are in line.

[[gnu::always_inline]] inline bool FindDatabase(ZephVM& vm, int tag, std::string_view name,
                                                Database** database) {
  MachineDatabases& open = vm.Databases();
  if (name.empty()) {
    *database = open.databases.First();
    if (*database) return true;
    vm.RuntimeError(tag, String("There is no primary database, and no database was specified"));
    return false;
  }
  *database = open.databases_by_name.Find(name.data(), static_cast<int>(name.size()));
  if (*database) return true;
  vm.EncodedRuntimeError(tag, Message() << "Database '" << name << "' is not open");
  return false;
}

[[gnu::always_inline]] inline bool FindDatabaseView(ZephVM& vm, int tag, Database* database,
                                                    std::string_view name, DatabaseView** view) {
  if (name.empty()) {
    *view = database->PrimaryView();
    if (*view) return true;
    vm.EncodedRuntimeError(tag, Message()
                                    << "Database '" << database->name() << "' has no primary view");
    return false;
  }
  *view = database->FindView(name.data(), static_cast<int>(name.size()));
  if (*view) return true;
  vm.EncodedRuntimeError(
      tag, Message() << "Database '" << database->name() << "' has no view named '" << name << "'");
  return false;
}

bool GetDatabase(ZephVM& vm, int tag, Database** database) {
  const KeptString name(vm.CurrentStack());
  return !vm.stopped() && FindDatabase(vm, tag, Bytes(name), database);
}

bool GetDatabaseView(ZephVM& vm, int tag, Database** database, DatabaseView** view) {
  ZephVM_Stack* const stack = vm.CurrentStack();
  // Most names are constants of the script, which stay where they are.
  if (stack->Entries() >= 2) {
    ZephVM_Stack::Stack_Entry* const names = stack->End() - 2;
    if (names[0].IsBorrowedText() && names[1].IsBorrowedText()) {
      stack->SetEnd(names);
      return !vm.stopped() && FindDatabase(vm, tag, TextOf(names[0]), database) &&
             FindDatabaseView(vm, tag, *database, TextOf(names[1]), view);
    }
  }
  const KeptString view_name(stack);
  const KeptString name(stack);
  return !vm.stopped() && FindDatabase(vm, tag, Bytes(name), database) &&
         FindDatabaseView(vm, tag, *database, Bytes(view_name), view);
}

// The target is the database or the view that has done the work.
template <class Target>
void FinishDatabase(ZephVM& vm, int tag, bool done, Target* target) {
  if (done) {
    vm.ClearErrorVariable(tag);
  } else {
    vm.EncodedRuntimeError(tag, target->error());
  }
}

// An operation without operands on a database or on a view.
void OnDatabase(ZephVM& vm, int tag, bool (Database::*operation)()) {
  Database* database;
  if (!GetDatabase(vm, tag, &database)) return;
  const bool done = (database->*operation)();
  FinishDatabase(vm, tag, done, database);
}

void OnView(ZephVM& vm, int tag, bool (DatabaseView::*operation)()) {
  Database* database;
  DatabaseView* view;
  if (!GetDatabaseView(vm, tag, &database, &view)) return;
  const bool done = (view->*operation)();
  FinishDatabase(vm, tag, done, view);
}

// Makes the object of a type, which is not open yet; null after a runtime error.
std::unique_ptr<Database> MakeDatabase(ZephVM& vm, int tag, PoppedString* name, const char* type,
                                       int length) {
  String setting;  // a copy: to read the variable again may change its text
  if (length == 0) {
    Variable* variable = nullptr;
    vm.SystemVariables()->Find(&variable, "zeph_defaultdatabase", -1, 0);
    if (variable) setting = variable->value();
    type = setting.data;
    length = setting.length;
  }
  if (length == 0 || IsBuiltin(type, length)) {
    return std::make_unique<XBaseDatabase>(&vm, name->data(), name->length(), name->size(),
                                           name->ownership());
  }
  ExternalDatabaseLibraryManager* const libraries = vm.DatabaseLibraries();
  ExternalDatabaseLibrary* library = libraries ? libraries->Lookup_DB(type, length) : nullptr;
  if (library) {
    return std::make_unique<ExternalDatabase>(&vm, name->data(), name->length(), name->size(),
                                              name->ownership(), library->descriptor());
  }
  if (libraries) {
    vm.EncodedRuntimeError(tag, libraries->error());
  } else {
    vm.EncodedRuntimeError(tag, String("There are no database libraries"));
  }
  return nullptr;
}

bool IsDatabaseOpen(ZephVM& vm, int tag, const char* name, int length) {
  if (!vm.Databases().databases_by_name.Find(name, length)) return false;
  vm.EncodedRuntimeError(tag, Message() << "A database with the name '" << String(name, length)
                                        << "' is already open");
  return true;
}

// Makes it known and the primary one, after it has been opened.
void AddDatabase(ZephVM& vm, int tag, std::unique_ptr<Database> opened, const String& name) {
  // A library may have run code that has opened another one of that name.
  if (IsDatabaseOpen(vm, tag, name.data, name.length)) {
    opened->Close();
    return;
  }
  vm.ClearErrorVariable(tag);
  MachineDatabases& open = vm.Databases();
  open.databases.Insert(opened.get(), ListHead);
  open.databases_by_name.Insert(opened.release());
}

// fifth is the further text of the extended form, which is above the others; null without one.
void OpenDatabase(ZephVM& vm, KeptString* fifth) {
  ZephVM_Stack* const stack = vm.CurrentStack();
  KeptString fourth(stack);
  KeptString third(stack);
  const KeptString type(stack);
  PoppedPath indexes(stack);
  PoppedPath path(stack);
  KeptString name(stack);
  if (vm.stopped() || IsDatabaseOpen(vm, Tag_Open, name.data(), name.length())) return;
  // The object may adopt the popped name, and the engine gets it after that.
  const String named(name.data(), name.length());
  std::unique_ptr<Database> database =
      MakeDatabase(vm, Tag_Open, &name, type.data(), type.length());
  if (!database) return;
  int no_text = 0;
  int kept = 0;
  bool done =
      database->Open(path.data(), path.length(), path.size(), path.ownership(), named.data,
                     named.length, named.allocated, &kept, third.data(), third.length(),
                     third.size(), third.ownership(), fourth.data(), fourth.length(), fourth.size(),
                     fourth.ownership(), fifth ? fifth->data() : "", fifth ? fifth->length() : 0,
                     fifth ? fifth->size() : 0, fifth ? fifth->ownership() : &no_text);
  if (done && indexes.length() > 0) {
    done = database->OpenIndexes(&vm, indexes.data(), indexes.length(), indexes.size(),
                                 indexes.ownership());
  }
  if (done) {
    AddDatabase(vm, Tag_Open, std::move(database), named);
  } else {
    vm.EncodedRuntimeError(Tag_Open, database->error());
  }
}

}  // namespace

// --- The open databases --------------------------------------------------------------------------

// Notes what it has found for the next time.
bool ZephVM::FindConstantField(Variable** variable, bool empty_is_first) {
  int alias_length, length;
  const char* const alias = DictionaryText(first_integer, &alias_length);
  const char* const field = alias ? DictionaryText(second_integer, &length) : nullptr;
  if (!field) return false;
  if (alias_length == 0) {
    // This is not noted, because the first database may be another one the next time.
    *variable = empty_is_first ? FirstDatabaseField(field, length)
                               : ViewField(alias, alias_length, field, length);
    return true;
  }
  MachineDatabases* const open = family->databases_if_any();
  DatabaseView* const view = open ? open->views_by_name.Find(alias, alias_length) : nullptr;
  *variable = view ? view->FindField(field, length) : nullptr;
  if (!*variable) return true;
  if (!recent_fields) recent_fields = std::make_unique<RecentField[]>(kRecentFields);
  recent_fields[RecentPlace()] = {first_integer,       second_integer,     family->ViewsGone(),
                                  &view->FieldsGone(), view->FieldsGone(), *variable};
  return true;
}

Variable* ZephVM::ViewField(const char* alias, int aliaslength, const char* name, int length) {
  MachineDatabases* const open = family->databases_if_any();
  if (!open) return nullptr;
  DatabaseView* view = open->views_by_name.Find(alias, aliaslength);
  return view ? view->FindField(name, length) : nullptr;
}

Variable* ZephVM::FirstDatabaseField(const char* name, int length) {
  MachineDatabases* const open = family->databases_if_any();
  Database* first = open ? open->databases.First() : nullptr;
  DatabaseView* view = first ? first->PrimaryView() : nullptr;
  return view ? view->FindField(name, length) : nullptr;
}

Variable* ZephVM::AnyDatabaseField(const char* name, int length) {
  MachineDatabases* const open = family->databases_if_any();
  if (!open) return nullptr;
  List<Database>& databases = open->databases;
  for (Database* database = databases.First(); database; database = databases.Next()) {
    if (Variable* variable = database->Find(name, length)) return variable;
  }
  return nullptr;
}

// --- Opening and closing -------------------------------------------------------------------------

// dbopen  ( name path indexes type a b -- )  Opens a database, and the indexes of a list.
void ZephVM::dbopen() {
  OpenDatabase(*this, nullptr);
}

// dbopen1  ( name path indexes type a b c -- )  As dbopen, with one more text for the engine.
void ZephVM::dbopen1() {
  KeptString further(stack);
  OpenDatabase(*this, &further);
}

// dbcreate  ( name path type fields -- )  Creates a database with the given fields, and opens it.
void ZephVM::dbcreate() {
  KeptString fields(stack);
  const KeptString type(stack);
  PoppedPath path(stack);
  KeptString name(stack);
  if (stop_flag || IsDatabaseOpen(*this, Tag_Create, name.data(), name.length())) return;
  const String named(name.data(), name.length());
  std::unique_ptr<Database> database =
      MakeDatabase(*this, Tag_Create, &name, type.data(), type.length());
  if (!database) return;
  int kept = 0;
  if (database->Create(path.data(), path.length(), path.size(), path.ownership(), named.data,
                       named.length, named.allocated, &kept, fields.data(), fields.length(),
                       fields.size(), fields.ownership())) {
    AddDatabase(*this, Tag_Create, std::move(database), named);
  } else {
    EncodedRuntimeError(Tag_Create, database->error());
  }
}

// dbclose  ( database -- )  Closes a database.
void ZephVM::dbclose() {
  Database* database;
  if (!GetDatabase(*this, Tag_Close, &database)) return;
  if (database->IsEvaluating()) {
    EncodedRuntimeError(Tag_Close, String(database->InUse()));
    return;
  }
  ClearErrorVariable(Tag_Close);
  MachineDatabases& open = Databases();
  open.databases_by_name.Remove(database->name().data, database->name().length);
  open.databases.Seek(database);
  open.databases.Remove(ListCurrent);
  const std::unique_ptr<Database> closed(database);
  closed->Close();
}

// dbprimary  ( database view index -- )  Makes a database the first one, and, where they are named,
// a view and an index the first ones of it.
void ZephVM::dbprimary() {
  KeptString index(stack);
  const KeptString view_name(stack);
  const KeptString name(stack);
  if (stop_flag) return;
  MachineDatabases& open = Databases();
  Database* database = open.databases_by_name.Find(name.data(), name.length());
  if (!database) {
    EncodedRuntimeError(Tag_Primary, Message() << "Database '" << name << "' is not open");
    return;
  }
  MoveToFront(open.databases, database);
  if (view_name.length() > 0) {
    DatabaseView* view;
    if (!FindDatabaseView(*this, Tag_Primary, database, Bytes(view_name), &view)) return;
    database->SetPrimaryView(view);
  }
  const bool done =
      index.length() == 0 ||
      database->SetPrimaryIndex(index.data(), index.length(), index.size(), index.ownership());
  FinishDatabase(*this, Tag_Primary, done, database);
}

// --- The current record --------------------------------------------------------------------------

// dbskip  ( database view count -- )  Moves by a number of records.
void ZephVM::dbskip() {
  const int count = stack->PopI();
  Database* database;
  DatabaseView* view;
  if (!GetDatabaseView(*this, Tag_Skip, &database, &view)) return;
  const bool done = view->IsFiltered() ? view->Skip_Filter(count) : view->Skip_NoFilter(count);
  FinishDatabase(*this, Tag_Skip, done, view);
}

// dbgo  ( database view position -- )  Goes to a record by its number, or to the first or last one.
void ZephVM::dbgo() {
  const int position = stack->PopDBPosition();
  Database* database;
  DatabaseView* view;
  if (!GetDatabaseView(*this, Tag_Go, &database, &view)) return;
  const bool done = view->IsFiltered() ? view->Go_Filter(position) : view->Go_NoFilter(position);
  FinishDatabase(*this, Tag_Go, done, view);
}

// dbfind  ( database view key exact -- )  Searches the primary index.
void ZephVM::dbfind() {
  const int exact = stack->PopI();
  KeptString key(stack);
  Database* database;
  DatabaseView* view;
  if (!GetDatabaseView(*this, Tag_Find, &database, &view)) return;
  const bool done =
      view->IsFiltered()
          ? view->Find_Filter(key.data(), key.length(), key.size(), key.ownership(), exact)
          : view->Find_NoFilter(key.data(), key.length(), key.size(), key.ownership(), exact);
  FinishDatabase(*this, Tag_Find, done, view);
}

// dbadd  ( database view -- )  Adds a record with the values of the fields.
void ZephVM::dbadd() {
  OnView(*this, Tag_Add, &DatabaseView::Add);
}

// dbupdate  ( database view -- )  Writes the current record.
void ZephVM::dbupdate() {
  OnView(*this, Tag_Update, &DatabaseView::Update);
}

// dbdelete  ( database view -- )  Marks the current record as deleted.
void ZephVM::dbdelete() {
  OnView(*this, Tag_Delete, &DatabaseView::Delete);
}

// dbundelete  ( database view -- )  Removes that mark.
void ZephVM::dbundelete() {
  OnView(*this, Tag_Undelete, &DatabaseView::UnDelete);
}

// dbfilter  ( database view expression -- )  Sets the view's filter; a blank one removes it.
void ZephVM::dbfilter() {
  KeptString expression(stack);
  Database* database;
  DatabaseView* view;
  if (!GetDatabaseView(*this, Tag_Filter, &database, &view)) return;
  const bool done = view->Filter(this, expression.data(), expression.length(), expression.size(),
                                 expression.ownership());
  FinishDatabase(*this, Tag_Filter, done, view);
}

// --- Indexes and upkeep --------------------------------------------------------------------------

// dbsetindex  ( database view indexes -- )  Replaces the open indexes.
void ZephVM::dbsetindex() {
  KeptString list(stack);
  Database* database;
  DatabaseView* view;
  if (!GetDatabaseView(*this, Tag_SetIndex, &database, &view)) return;
  const bool done =
      database->OpenIndexes(this, list.data(), list.length(), list.size(), list.ownership());
  FinishDatabase(*this, Tag_SetIndex, done, database);
}

// dbmakeindex  ( database path key flags -- )  Makes an index and makes it the primary one.
void ZephVM::dbmakeindex() {
  KeptString flags(stack);
  KeptString expression(stack);
  PoppedPath path(stack);
  Database* database;
  if (!GetDatabase(*this, Tag_MakeIndex, &database)) return;
  const bool done = database->CreateIndex(this, path.data(), path.length(), path.size(),
                                          path.ownership(), expression.data(), expression.length(),
                                          expression.size(), expression.ownership(), flags.data(),
                                          flags.length(), flags.size(), flags.ownership());
  FinishDatabase(*this, Tag_MakeIndex, done, database);
}

// dbpack  ( database -- )  Removes the deleted records for good.
void ZephVM::dbpack() {
  OnDatabase(*this, Tag_Pack, &Database::Pack);
}

// dbreindex  ( database -- )  Builds the open indexes again.
void ZephVM::dbreindex() {
  OnDatabase(*this, Tag_Reindex, &Database::Reindex);
}

// dbrevealstructuredb  ( database view path -- )  Describes the fields in a new table.
void ZephVM::dbrevealstructuredb() {
  PoppedPath path(stack);
  Database* database;
  DatabaseView* view;
  if (!GetDatabaseView(*this, Tag_RevealStructure, &database, &view)) return;
  const bool done =
      view->RevealStructure_Table(path.data(), path.length(), path.size(), path.ownership());
  FinishDatabase(*this, Tag_RevealStructure, done, view);
}

// dbrevealstructureagg  ( database view v -- )  Describes the fields in the elements of v.
void ZephVM::dbrevealstructureagg() {
  Variable* variable;
  const VariableRef held = PopHeld(&variable);
  Database* database;
  DatabaseView* view;
  if (!GetDatabaseView(*this, Tag_RevealStructure, &database, &view)) return;
  const bool done = view->RevealStructure_Aggregate(&variable);
  FinishDatabase(*this, Tag_RevealStructure, done, view);
}

// --- Views, queries and transactions -------------------------------------------------------------

// dbopenview  ( database view query variables -- )  Opens a view on what a query finds.
void ZephVM::dbopenview() {
  const KeptString names(stack);
  KeptString query(stack);
  KeptString name(stack);
  Database* database;
  if (!GetDatabase(*this, Tag_OpenView, &database)) return;
  if (database->FindView(name.data(), name.length())) {
    EncodedRuntimeError(Tag_OpenView, Message() << "Database '" << database->name()
                                                << "' already has a view named '" << name << "'");
    return;
  }
  VariableList variables;
  const int count = Lookup_VariableList(&variables, names.data(), names.length());
  if (stop_flag) return;
  const bool done =
      database->OpenView(name.data(), name.length(), name.size(), name.ownership(), query.data(),
                         query.length(), query.size(), query.ownership(), &variables, count);
  FinishDatabase(*this, Tag_OpenView, done, database);
}

// dbcloseview  ( database view -- )  Closes a view.
void ZephVM::dbcloseview() {
  KeptString name(stack);
  Database* database;
  if (!GetDatabase(*this, Tag_CloseView, &database)) return;
  const bool done = database->CloseView(name.data(), name.length(), name.size(), name.ownership());
  FinishDatabase(*this, Tag_CloseView, done, database);
}

// dbquery  ( database query variables -- )  Runs a query without a view.
void ZephVM::dbquery() {
  const KeptString names(stack);
  KeptString query(stack);
  Database* database;
  if (!GetDatabase(*this, Tag_Query, &database)) return;
  VariableList variables;
  const int count = Lookup_VariableList(&variables, names.data(), names.length());
  if (stop_flag) return;
  const bool done = database->RunQuery(query.data(), query.length(), query.size(),
                                       query.ownership(), &variables, count);
  FinishDatabase(*this, Tag_Query, done, database);
}

// dbcommit  ( database -- )  Commits a transaction.
void ZephVM::dbcommit() {
  OnDatabase(*this, Tag_Commit, &Database::Commit);
}

// dbrollback  ( database -- )  Rolls a transaction back.
void ZephVM::dbrollback() {
  OnDatabase(*this, Tag_Rollback, &Database::Rollback);
}

// dbtransaction  ( database -- )  Begins a transaction.
void ZephVM::dbtransaction() {
  OnDatabase(*this, Tag_Transact, &Database::Transaction);
}

// dbcommand  ( database command arguments -- )  Passes a command to the engine.
void ZephVM::dbcommand() {
  KeptString arguments(stack);
  KeptString command(stack);
  Database* database;
  if (!GetDatabase(*this, Tag_DBCommand, &database)) return;
  const bool done = database->Command(command.data(), command.length(), command.size(),
                                      command.ownership(), arguments.data(), arguments.length(),
                                      arguments.size(), arguments.ownership());
  FinishDatabase(*this, Tag_DBCommand, done, database);
}
