// Finds and opens database libraries. Tested in
// tests/base/extensions/ExternalDatabaseLibraryTest.cpp.

#include "base/extensions/ExternalDatabaseLibrary.h"

ExternalDatabaseLibraryManager::ExternalDatabaseLibraryManager(ZephApplication* application)
    : named(application) {}

ExternalDatabaseLibraryManager::ExternalDatabaseLibraryManager(
    ZephApplication* application, ExternalDatabaseLibraryManager& source)
    : named(application) {
  named.Copy(source.named);
}

ExternalDatabaseLibraryManager::~ExternalDatabaseLibraryManager() = default;

bool ExternalDatabaseLibraryManager::RegisterDSO(const char* name, const char* path) {
  named.Register(name, path);
  return true;
}

ExternalDatabaseLibrary* ExternalDatabaseLibraryManager::Lookup_DB(const char* name, int length) {
  return named.LookUp(
      name, length, "Database type '", "' is unsupported or not configured",
      [](const ExternalDatabaseLibrary* type) { return type->descriptor() != nullptr; },
      [this](ExternalDatabaseLibrary* type, ExternalLibrary* file) {
        type->SetDescriptor(ExportedTable<_ZP_EL_Database>(
            file, "zeph_database_library", "Unable to retrieve database descriptor table",
            &named.error()));
        return type->descriptor() != nullptr;
      });
}
