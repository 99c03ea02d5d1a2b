// Forwards what scripts do with a database and its views to a library. The fields are in
// ExternalDatabaseVariable.cpp. Tested in tests/base/database/ExternalDatabaseTest.cpp.

#include "base/database/ExternalDatabase.h"

#include <memory>
#include <new>

#include "base/database/PassedText.h"
#include "base/machine/ZephVM.h"

namespace {

// The versions of the table that brought functions, or changed their arguments.
constexpr int kFifthText = 2;
constexpr int kTransactions = 2;
constexpr int kNames = 3;
constexpr int kCommands = 5;
constexpr int kFreeData = 6;

String LibraryText(const char* text) {
  return String(text, -1);
}

// The forms of create and open in older tables.
using CreateWithoutName = int (*)(ZPDATABASE, const char* path, int, const char* fields, int);
using OpenWithoutName = int (*)(ZPDATABASE, const char* path, int, const char* third, int,
                                const char* fourth, int, const char* fifth, int);
using OpenWithTwoTexts = int (*)(ZPDATABASE, const char* path, int, const char* third, int,
                                 const char* fourth, int);

template <class Older, class Function>
Older As(Function* function) {
  return reinterpret_cast<Older>(reinterpret_cast<void (*)()>(function));
}

}  // namespace

// --- Databases -----------------------------------------------------------------------------------

ExternalDatabase::ExternalDatabase(ZephVM* machine, const char* name, int length, int allocated,
                                   int* deletable, const _ZP_EL_Database* descriptor)
    : Database(machine, name, length, allocated, deletable), descriptor(descriptor) {
  in_use = kInLibrary;
}

// The views come first, because the library's words for them may refer to that of the database.
// free_data may add views.
ExternalDatabase::~ExternalDatabase() {
  is_ending = true;
  do {
    while (DatabaseView* view = views.First()) View_Del(view);
    FreeData();
  } while (views.First());
}

bool ExternalDatabase::Fail(const String& text) {
  Error(text);
  return false;
}

// Calls a function of the table, if it is there.
template <class... Parameters, class... Arguments>
bool ExternalDatabase::Call(int (*function)(ZPDATABASE, Parameters...), const char* unsupported,
                            Arguments... arguments) {
  if (!function) return Fail(unsupported);
  if (IsEvaluating()) return Fail(kInLibrary);
  const Evaluation running(this);
  if (function(this, arguments...)) return true;
  return Fail(LibraryText(descriptor->error ? descriptor->error(this) : nullptr));
}

bool ExternalDatabase::Open(const char* path, int pathlength, int, int*, const char* name,
                            int namelength, int, int*, const char* third, int thirdlength, int,
                            int*, const char* fourth, int fourthlength, int, int*,
                            const char* fifth, int fifthlength, int, int*) {
  const char unsupported[] = "ZpOPEN is an Unsupported Operation";
  const PassedText a(path, pathlength), b(name, namelength), c(third, thirdlength),
      d(fourth, fourthlength), e(fifth, fifthlength);
  if (descriptor->version >= kNames) {
    return Call(descriptor->open, unsupported, a.data(), a.length(), b.data(), b.length(), c.data(),
                c.length(), d.data(), d.length(), e.data(), e.length());
  }
  if (descriptor->version >= kFifthText) {
    return Call(As<OpenWithoutName>(descriptor->open), unsupported, a.data(), a.length(), c.data(),
                c.length(), d.data(), d.length(), e.data(), e.length());
  }
  return Call(As<OpenWithTwoTexts>(descriptor->open), unsupported, a.data(), a.length(), c.data(),
              c.length(), d.data(), d.length());
}

bool ExternalDatabase::Create(const char* path, int pathlength, int, int*, const char* name,
                              int namelength, int, int*, const char* specification,
                              int specificationlength, int, int*) {
  const char unsupported[] = "ZpCREATE is an Unsupported Operation";
  const PassedText a(path, pathlength), b(name, namelength), c(specification, specificationlength);
  if (descriptor->version >= kNames) {
    return Call(descriptor->create, unsupported, a.data(), a.length(), b.data(), b.length(),
                c.data(), c.length());
  }
  return Call(As<CreateWithoutName>(descriptor->create), unsupported, a.data(), a.length(),
              c.data(), c.length());
}

// Views that the library adds meanwhile are not closed, so that this ends.
bool ExternalDatabase::Close() {
  if (IsEvaluating()) return Fail(kInLibrary);
  for (int left = views.Entries(); left > 0; left--) {
    DatabaseView* const view = views.First();
    if (!view->Close()) return Fail(view->error());
    View_Del(view);
  }
  return Call(descriptor->close, "ZpCLOSE is an Unsupported Operation");
}

bool ExternalDatabase::OpenIndexes(ZephVM* machine, const char* list, int length, int, int*) {
  const PassedText names(list, length);
  return Call(descriptor->openindexes, "ZpOPEN with INDEXES attribute is an Unsupported Operation",
              machine, names.data(), names.length());
}

bool ExternalDatabase::SetPrimaryIndex(const char* name, int length, int, int*) {
  const PassedText index(name, length);
  return Call(descriptor->setprimaryindex,
              "ZpPRIMARY with INDEXES attribute is an Unsupported Operation", index.data(),
              index.length());
}

bool ExternalDatabase::CreateIndex(ZephVM* machine, const char* path, int pathlength, int, int*,
                                   const char* expression, int expressionlength, int, int*,
                                   const char* flags, int flagslength, int, int*) {
  const PassedText a(path, pathlength), b(expression, expressionlength), c(flags, flagslength);
  return Call(descriptor->createindex, "ZpMAKEINDEX is an Unsupported Operation", machine, a.data(),
              a.length(), b.data(), b.length(), c.data(), c.length());
}

bool ExternalDatabase::Pack() {
  return Call(descriptor->pack, "ZpPACK is an Unsupported Operation");
}

bool ExternalDatabase::Reindex() {
  return Call(descriptor->reindex, "ZpREINDEX is an Unsupported Operation");
}

bool ExternalDatabase::OpenView(const char* name, int namelength, int, int*, const char* query,
                                int querylength, int, int*, VariableList* variables, int count) {
  const PassedText a(name, namelength), b(query, querylength);
  return Call(descriptor->openview, "ZpOPENVIEW is an Unsupported Operation", a.data(), a.length(),
              b.data(), b.length(), variables, count);
}

bool ExternalDatabase::CloseView(const char* name, int length, int, int*) {
  if (IsEvaluating()) return Fail(kInLibrary);
  DatabaseView* const view = FindView(name, length);
  if (!view) {
    String text("Database '");
    text.cat(name_.data, name_.length);
    text.cat("' has no view named '");
    text.cat(name, length);
    text.cat("'");
    return Fail(text);
  }
  const bool closed = view->Close();
  if (!closed) Error(view->error());
  View_Del(view);
  return closed;
}

bool ExternalDatabase::RunQuery(const char* query, int length, int, int*, VariableList* variables,
                                int count) {
  const PassedText text(query, length);
  return Call(descriptor->runquery, "ZpRUNQUERY is an Unsupported Operation", text.data(),
              text.length(), variables, count);
}

bool ExternalDatabase::Commit() {
  if (descriptor->version < kTransactions || !descriptor->commit) return true;
  return Call(descriptor->commit, "");
}

bool ExternalDatabase::Rollback() {
  if (descriptor->version < kTransactions || !descriptor->rollback) return true;
  return Call(descriptor->rollback, "");
}

bool ExternalDatabase::Transaction() {
  if (descriptor->version < kCommands || !descriptor->transaction) return true;
  return Call(descriptor->transaction, "");
}

bool ExternalDatabase::Command(const char* command, int commandlength, int, int*,
                               const char* arguments, int argumentslength, int, int*) {
  const char unsupported[] = "ZpDBCOMMAND is an unsupported operation";
  if (descriptor->version < kCommands) return Fail(unsupported);
  const PassedText a(command, commandlength), b(arguments, argumentslength);
  return Call(descriptor->command, unsupported, a.data(), a.length(), b.data(), b.length());
}

ExternalDatabaseView* ExternalDatabase::Add_View(const char* name, int length, void* data) {
  if (is_ending && late_views++ >= kMostLate) return nullptr;
  auto* const view = new ExternalDatabaseView(vm, this, name, length, descriptor, data);
  View_Add(view);
  if (!primary_view) primary_view = view;
  return view;
}

void ExternalDatabase::SetData(void* data) {
  FreeData();
  library_data = data;
}

// The word is still set while the library frees it. Another one that the library sets meanwhile is
// freed in its turn.
void ExternalDatabase::FreeData() {
  if (descriptor->version < kFreeData || !descriptor->free_data || is_freeing) return;
  const Evaluation running(this);
  is_freeing = true;
  for (int i = 0; library_data && i < kMostLate; i++) {
    void* const freed = library_data;
    try {
      descriptor->free_data(this, freed);
    } catch (const std::bad_alloc&) {
      // This runs in a destructor. What the library has not given back by then stays with it.
    }
    if (library_data == freed) library_data = nullptr;
  }
  is_freeing = false;
  library_data = nullptr;
}

// --- Views ---------------------------------------------------------------------------------------

ExternalDatabaseView::ExternalDatabaseView(ZephVM* machine, ExternalDatabase* database,
                                           const char* name, int length,
                                           const _ZP_EL_Database* descriptor, void* data)
    : DatabaseView(machine, database, name, length),
      owner(database),
      descriptor(descriptor),
      library_data(data) {}

ExternalDatabaseView::~ExternalDatabaseView() {
  DropVariables();
}

bool ExternalDatabaseView::Fail(const String& text) {
  Error(text);
  return false;
}

template <class... Parameters, class... Arguments>
bool ExternalDatabaseView::Call(int (*function)(ZPDATABASEVIEW, Parameters...),
                                const char* unsupported, Arguments... arguments) {
  if (!function) return Fail(unsupported);
  if (owner->IsEvaluating()) return Fail(ExternalDatabase::kInLibrary);
  const Database::Evaluation running(owner);
  if (function(this, arguments...)) return true;
  return Fail(LibraryText(descriptor->view_error ? descriptor->view_error(this) : nullptr));
}

bool ExternalDatabaseView::Close() {
  return !descriptor->view_close || Call(descriptor->view_close, "");
}

bool ExternalDatabaseView::Skip_NoFilter(int count) {
  return Call(descriptor->view_skip, "ZpSKIP is an Unsupported Operation", count);
}

bool ExternalDatabaseView::Go_NoFilter(long position) {
  return Call(descriptor->view_go, "ZpGO is an Unsupported Operation", position);
}

bool ExternalDatabaseView::Find_NoFilter(const char* key, int length, int, int*, int exact) {
  const PassedText text(key, length);
  return Call(descriptor->view_find, "ZpFIND is an Unsupported Operation", text.data(),
              text.length(), exact);
}

bool ExternalDatabaseView::Skip_Filter(int) {
  return Fail("Database type 'external' does not support Filters");
}

bool ExternalDatabaseView::Go_Filter(long) {
  return Fail("Database type 'external' does not support Filters");
}

bool ExternalDatabaseView::Find_Filter(const char*, int, int, int*, int) {
  return Fail("Database type 'external' does not support Indexes & Filters");
}

bool ExternalDatabaseView::Add() {
  return Call(descriptor->view_add, "ZpADD is an Unsupported Operation");
}

bool ExternalDatabaseView::Delete() {
  return Call(descriptor->view_delete, "ZpDELETE is an Unsupported Operation");
}

bool ExternalDatabaseView::UnDelete() {
  return Call(descriptor->view_undelete, "ZpUNDELETE is an Unsupported Operation");
}

bool ExternalDatabaseView::Update() {
  return Call(descriptor->view_update, "ZpUPDATE is an Unsupported Operation");
}

bool ExternalDatabaseView::Filter(ZephVM* machine, const char* expression, int length, int, int*) {
  const PassedText text(expression, length);
  return Call(descriptor->view_filter, "ZpFILTER is an Unsupported Operation", machine, text.data(),
              text.length());
}

bool ExternalDatabaseView::RevealStructure_Table(const char* path, int length, int, int*) {
  const PassedText text(path, length);
  return Call(descriptor->view_revealstructure_table,
              "ZpREVEALSTRUCTURE is an Unsupported Operation", text.data(), text.length());
}

bool ExternalDatabaseView::RevealStructure_Aggregate(Variable** variable) {
  return Call(descriptor->view_revealstructure_aggregate,
              "ZpREVEALSTRUCTURE is an Unsupported Operation", variable);
}

// The table holds nothing but the variables of Add_Variable.
void ExternalDatabaseView::SetDirty(int dirty) {
  for (int i = 0; i < fields.Entries(); i++) {
    if (Variable* field = fields.Index(i)) {
      static_cast<ExternalDatabaseVariable*>(field)->SetDirty(dirty);
    }
  }
}

bool ExternalDatabaseView::HasStores() {
  if (stores == 0 && !may_have_elements) return false;
  for (Variable* const field : fields.Slots()) {
    if (field && static_cast<ExternalDatabaseVariable*>(field)->HasStore()) return true;
  }
  may_have_elements = false;
  return false;
}

int ExternalDatabaseView::Commit() {
  // A view commits at each move, and then there is mostly nothing to pass on.
  if (!HasStores()) return 1;
  // The table stays as it is until the last variable is committed.
  const VariableCall running(this);
  int done = 1;
  for (int i = 0; i < fields.Entries(); i++) {
    auto* const field = static_cast<ExternalDatabaseVariable*>(fields.Index(i));
    if (field && field->HasStore() && !field->Commit()) done = 0;
  }
  return done;
}

ExternalDatabaseVariable* ExternalDatabaseView::Add_Variable(const char* name, int length,
                                                             void* data) {
  if (is_dropping && late_variables++ >= ExternalDatabase::kMostLate) return nullptr;
  auto* const variable = new ExternalDatabaseVariable(this, name, length, descriptor, data);
  VariableRef owned(variable);
  fields.Insert(variable);
  (void)owned.release();
  return variable;
}

void ExternalDatabaseView::Clear() {
  if (variable_calls == 0 && !vm->Family().IsReadingField()) DropVariables();
}

void ExternalDatabaseView::DropVariables() {
  {
    // The library may add variables even now; they go too.
    const VariableCall running(this);
    is_dropping = true;
    late_variables = 0;
    for (int i = 0; i < fields.Entries(); i++) {
      if (Variable* field = fields.Index(i)) {
        static_cast<ExternalDatabaseVariable*>(field)->Detach();
      }
    }
  }
  is_dropping = false;
  fields.Dump();
}
