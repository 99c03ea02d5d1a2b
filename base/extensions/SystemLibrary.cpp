// Finds and opens system libraries. Tested in tests/base/extensions/SystemLibraryTest.cpp.

#include "base/extensions/SystemLibrary.h"

SystemLibrary::SystemLibrary(const SystemLibrary& other)
    : NamedLibrary(other), opened(other.opened) {}

SystemLibrary::~SystemLibrary() = default;

bool SystemLibrary::Load(ExternalLibrary* library) {
  opened = library;
  return true;
}

void SystemLibrary::Error(const String& text) {
  last_error.Set(text);
}

const String& SystemLibrary::error() {
  return last_error.text();
}

SystemLibraryManager::SystemLibraryManager(ZephApplication* application) : named(application) {}

SystemLibraryManager::SystemLibraryManager(ZephApplication* application,
                                           SystemLibraryManager& source)
    : named(application) {
  named.Copy(source.named);
}

SystemLibraryManager::~SystemLibraryManager() = default;

bool SystemLibraryManager::RegisterDSO(const char* name, const char* path) {
  named.Register(name, path);
  return true;
}

SystemLibrary* SystemLibraryManager::Lookup_System_Library(const char* name, int length) {
  return named.LookUp(
      name, length, "System library '", "' is not configured",
      [](const SystemLibrary* library) { return library->library() != nullptr; },
      [](SystemLibrary* library, ExternalLibrary* file) { return library->Load(file); });
}

void SystemLibraryManager::Error(const String& text) {
  named.error().Set(text);
}

const String& SystemLibraryManager::error() {
  return named.error().text();
}
