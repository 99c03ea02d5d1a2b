// Finds and opens system libraries. Tested in tests/base/extensions/SystemLibraryTest.cpp.

#include "base/extensions/SystemLibrary.h"

#include <memory>

#include "base/extensions/ExternalLibrary.h"
#include "base/host/ZephApplication.h"

SystemLibrary::SystemLibrary(const char* name, const char* path)
    : library_name(zeph_strdup(name)), library_path(zeph_strdup(path)) {}

SystemLibrary::SystemLibrary(const SystemLibrary& other)
    : library_name(zeph_strdup(other.library_name)),
      library_path(zeph_strdup(other.library_path)),
      opened(other.opened) {}

SystemLibrary::~SystemLibrary() {
  delete[] library_name;
  delete[] library_path;
}

bool SystemLibrary::Load(ExternalLibrary* library) {
  opened = library;
  return true;
}

void SystemLibrary::Error(const String& text) {
  if (text.data != nullptr) last_error = text;
}

const String& SystemLibrary::error() {
  return last_error;
}

SystemLibraryManager::SystemLibraryManager(ZephApplication* owner)
    : application(owner), library_table(1, 1, 12, 512) {}

SystemLibraryManager::SystemLibraryManager(ZephApplication* owner, SystemLibraryManager& source)
    : SystemLibraryManager(owner) {
  for (int i = 0; i < source.library_table.Entries(); i++) {
    SystemLibrary* library = source.library_table.Index(i);
    if (library != nullptr) {
      InsertOwned(library_table, std::make_unique<SystemLibrary>(*library));
    }
  }
}

SystemLibraryManager::~SystemLibraryManager() = default;

bool SystemLibraryManager::RegisterDSO(const char* name, const char* path) {
  InsertOwned(library_table, std::make_unique<SystemLibrary>(name, path));
  return true;
}

SystemLibrary* SystemLibraryManager::Lookup_System_Library(const char* name, int length) {
  SystemLibrary* library = library_table.Find(name, length);
  if (library == nullptr) {
    String text("System library '");
    text.cat(name, length);
    text.cat("' is not configured");
    Error(text);
    return nullptr;
  }
  if (library->library() != nullptr) return library;
  ExternalLibraryManager* manager = application->librarymanager();
  ExternalLibrary* opened = manager->Lookup(library->path());
  if (opened == nullptr) {
    Error(manager->error());
    return nullptr;
  }
  library->Load(opened);
  return library;
}

void SystemLibraryManager::Error(const String& text) {
  if (text.data != nullptr) last_error = text;
}

const String& SystemLibraryManager::error() {
  return last_error;
}
