// Databases and views as scripts see them, without an engine: registration, look-up, and the counts
// that keep machines and variables alive. Tested in tests/base/database/DatabaseInstructionTest.cpp
// and XBaseMemoryTest.cpp.

#include "base/database/Database.h"

#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "base/core/memcmpi.h"
#include "base/machine/ZephVM.h"

namespace {

std::string_view NameOf(Variable* variable) {
  const String& name = variable->name();
  return KeyText(name.data, name.length);
}

int Order(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
  return a.empty() ? 0 : memcmpi(a.data(), b.data(), a.size());
}

// Takes this very view out of a table. Several databases may have a view of one name, so all of
// that name are taken out, and the others go back in their old order. Destructors call this: if
// there is no memory to put the others back, their names are not found any more.
void RemoveView(DatabaseViewTable& table, DatabaseView* view) {
  const String& name = view->name();
  std::vector<DatabaseView*> others;
  while (DatabaseView* found = table.Remove(name.data, name.length)) {
    if (found == view) continue;
    try {
      others.push_back(found);
    } catch (const std::bad_alloc&) {
    }
  }
  try {
    for (DatabaseView* other : others) table.Insert(other);
  } catch (const std::bad_alloc&) {
  }
}

}  // namespace

// --- The variables of a record -------------------------------------------------------------------

DatabaseVariableHash::~DatabaseVariableHash() {
  DatabaseVariableHash::Dereference();
}

Variable* DatabaseVariableHash::Find(const char* name, int length) {
  length = MeasuredLength(name, length);
  if (Variable* const known = recent.Find(name, length)) return known;
  Variable* const found = HashTable<Variable>::Find(name, length);
  if (found) recent.Keep(name, length, found);
  return found;
}

void DatabaseVariableHash::Dump() {
  Dereference();
  HashTable<Variable>::Dump();
}

int DatabaseVariableHash::hash(Variable* variable) {
  const std::string_view name = NameOf(variable);
  return hash(name.data(), static_cast<int>(name.size()));
}

int DatabaseVariableHash::Compare(Variable* a, Variable* b) {
  return Order(NameOf(a), NameOf(b));
}

int DatabaseVariableHash::Compare(Variable* variable, const char* key, int length) {
  return Order(NameOf(variable), std::string_view(key, static_cast<size_t>(length)));
}

// The storage stays the variable's own: Make_NULL changes what the object is for all of its
// holders.
void DatabaseVariableHash::Dereference() {
  recent.Forget();
  for (int i = 0; i < high_water; i++) {
    Variable* variable = std::exchange(slots[i], nullptr);
    if (!variable) continue;
    if (variable->refcount() > 1 && variable->RealIdentity() == variable) variable->Make_NULL();
    variable->DecRefCount();
  }
}

void DatabaseVariableHash::Swap(DatabaseVariableHash& other) noexcept {
  std::swap(buckets, other.buckets);
  std::swap(buckets_used, other.buckets_used);
  std::swap(chain, other.chain);
  std::swap(slots, other.slots);
  std::swap(capacity, other.capacity);
  std::swap(high_water, other.high_water);
  std::swap(iterator, other.iterator);
  recent.Forget();
  other.recent.Forget();
}

// --- Views ---------------------------------------------------------------------------------------

DatabaseView::DatabaseView(ZephVM* machine, Database* owner, const char* name, int length)
    : application(machine->Application()), vm(machine), database(owner), name_(name, length) {}

DatabaseView::~DatabaseView() {
  DatabaseView::Release_VM();
}

void DatabaseView::Release_VM() {
  if (filter_vm) filter_vm->RemoveChild();
  filter_vm = nullptr;
  filter = nullptr;
}

Variable* DatabaseView::FindField(const char* name, int length) {
  return fields.Find(name, length);
}

void DatabaseView::SetFilter(ZephVM* machine, Segment* segment) {
  // The new count comes first: it may be the same machine.
  if (machine) machine->AddChild();
  if (filter_vm) filter_vm->RemoveChild();
  filter_vm = machine;
  filter = segment;
}

void DatabaseView::Error(const String& text) {
  if (text.data) error_ = text;
}

// --- Databases -----------------------------------------------------------------------------------

Database::Database(ZephVM* machine, const char* name, int length, int allocated, int* deletable)
    : application(machine->Application()), vm(machine) {
  if (deletable && *deletable) {
    name_.assign_nocopy(const_cast<char*>(name), length, allocated);
    *deletable = 0;
  } else {
    name_.assign(name, length);
  }
  // The destructor looks for views in the machine's tables, and must not be the first to make them.
  (void)machine->Databases();
  machine->AddChild();
}

Database::~Database() {
  while (DatabaseView* view = views.First()) Database::View_Del(view);
  if (vm) vm->RemoveChild();
}

void Database::Release_VM() {
  for (DatabaseView* view = views.First(); view; view = views.Next()) view->Release_VM();
  if (vm) vm->RemoveChild();
  vm = nullptr;
}

// The list comes first, because it owns the view from then on, even if there is no memory for the
// rest.
void Database::View_Add(DatabaseView* view) {
  InsertOwned(views, std::unique_ptr<DatabaseView>(view), ListTail);
  if (vm) vm->Databases().views_by_name.Insert(view);
  views_by_name.Insert(view);
}

void Database::View_Del(DatabaseView* view) {
  if (!views.Seek(view)) return;
  if (vm) {
    vm->Family().NoteViewGone();
    RemoveView(vm->Databases().views_by_name, view);
  }
  RemoveView(views_by_name, view);
  views.Remove(ListCurrent);
  if (primary_view == view) primary_view = views.First();
  delete view;
}

void Database::SetPrimaryView(DatabaseView* view) {
  if (!views.Seek(view)) return;
  MoveToFront(views, view);
  primary_view = view;
}

Variable* Database::Find(const char* field, int length) {
  for (DatabaseView* view = views.First(); view; view = views.Next()) {
    if (Variable* variable = view->FindField(field, length)) return variable;
  }
  return nullptr;
}

void Database::Error(const String& text) {
  if (text.data) error_ = text;
}

// --- The databases of a family of machines -------------------------------------------------------

MachineDatabases& MachineFamily::databases() {
  if (!open_databases) open_databases = new MachineDatabases;
  return *open_databases;
}

// The pointer stays until all are gone, because each takes itself out of the tables.
void MachineFamily::DeleteDatabases() {
  delete open_databases;
  open_databases = nullptr;
}

MachineDatabases::~MachineDatabases() {
  while (databases.First()) {
    Database* database = databases.Remove(ListHead);
    databases_by_name.Remove(database->name().data, database->name().length);
    try {
      database->Close();
    } catch (const std::bad_alloc&) {
      // A library may run code of the script, which may use up the memory.
    }
    delete database;
  }
}
