// The look-up of a library: in a list of those that are loaded, and else under a lock.
// Tested in tests/fastcgi/FastCGIExternalLibraryTest.cpp.

#include "fastcgi/FastCGIExternalLibrary.h"

#include <cstring>
#include <memory>
#include <utility>

FastCGIExternalLibraryManager::~FastCGIExternalLibraryManager() {
  for (const Loaded* entry = loaded.load(); entry != nullptr;) {
    delete std::exchange(entry, entry->next);
  }
}

ExternalLibrary* FastCGIExternalLibraryManager::Find(const char* path) const {
  if (path == nullptr) return nullptr;
  for (const Loaded* entry = loaded.load(std::memory_order_acquire); entry != nullptr;
       entry = entry->next) {
    if (strcmp(entry->library->path().data, path) == 0) return entry->library;
  }
  return nullptr;
}

ExternalLibrary* FastCGIExternalLibraryManager::Lookup(const char* path) {
  if (ExternalLibrary* found = Find(path)) return found;
  std::lock_guard<std::mutex> lock(mutex);
  if (ExternalLibrary* found = Find(path)) return found;
  auto entry = std::make_unique<Loaded>();
  entry->library = UNIXExternalLibraryManager::Lookup(path);
  if (entry->library == nullptr) return nullptr;
  entry->next = loaded.load(std::memory_order_relaxed);
  loaded.store(entry.release(), std::memory_order_release);
  return loaded.load(std::memory_order_relaxed)->library;
}
