// Finds and opens database libraries. Tested in
// tests/base/extensions/ExternalDatabaseLibraryTest.cpp.

#include "base/extensions/ExternalDatabaseLibrary.h"

#include "base/extensions/ExternalLibrary.h"
#include "base/host/ZephApplication.h"

#include <cstddef>
#include <memory>

static_assert(offsetof(_ZP_EL_Database, create) == 8);
static_assert(offsetof(_ZP_EL_Database, variable_free) == 240);
static_assert(offsetof(_ZP_EL_Database, free_data) == 288);

ExternalDatabaseLibrary::ExternalDatabaseLibrary(const char* name, const char* path)
    : type_name(zeph_strdup(name)), library_path(zeph_strdup(path)) {}

ExternalDatabaseLibrary::ExternalDatabaseLibrary(const ExternalDatabaseLibrary& other)
    : type_name(zeph_strdup(other.type_name)),
      library_path(zeph_strdup(other.library_path)),
      table(other.table) {}

ExternalDatabaseLibrary::~ExternalDatabaseLibrary() {
  delete[] type_name;
  delete[] library_path;
}

ExternalDatabaseLibraryManager::ExternalDatabaseLibraryManager(ZephApplication* owner)
    : application(owner), library_table(1, 1, 12, 512) {}

ExternalDatabaseLibraryManager::ExternalDatabaseLibraryManager(
    ZephApplication* owner, ExternalDatabaseLibraryManager& source)
    : ExternalDatabaseLibraryManager(owner) {
  for (int i = 0; i < source.library_table.Entries(); i++) {
    ExternalDatabaseLibrary* library = source.library_table.Index(i);
    if (library != nullptr) {
      InsertOwned(library_table, std::make_unique<ExternalDatabaseLibrary>(*library));
    }
  }
}

ExternalDatabaseLibraryManager::~ExternalDatabaseLibraryManager() = default;

bool ExternalDatabaseLibraryManager::RegisterDSO(const char* name, const char* path) {
  InsertOwned(library_table, std::make_unique<ExternalDatabaseLibrary>(name, path));
  return true;
}

ExternalDatabaseLibrary* ExternalDatabaseLibraryManager::Lookup_DB(const char* name, int length) {
  ExternalDatabaseLibrary* type = library_table.Find(name, length);
  if (type == nullptr) {
    String text("Database type '");
    text.cat(name, length);
    text.cat("' is unsupported or not configured");
    Error(text);
    return nullptr;
  }
  if (type->descriptor() != nullptr) return type;
  ExternalLibraryManager* manager = application->librarymanager();
  ExternalLibrary* library = manager->Lookup(type->path());
  if (library == nullptr) {
    Error(manager->error());
    return nullptr;
  }
  using TableFunction = _ZP_EL_Database* (*)();
  auto table = reinterpret_cast<TableFunction>(library->Get_Function("zeph_database_library"));
  if (table == nullptr) {
    Error(library->error());
    return nullptr;
  }
  type->SetDescriptor(table());
  if (type->descriptor() != nullptr) return type;
  Error("Unable to retrieve database descriptor table");
  return nullptr;
}

void ExternalDatabaseLibraryManager::Error(const String& text) {
  if (text.data != nullptr) last_error = text;
}
