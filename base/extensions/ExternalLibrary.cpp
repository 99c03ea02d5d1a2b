// The table of loaded libraries, and their errors per thread. Tested in
// tests/base/systems/unix/UNIXExternalLibraryTest.cpp.

#include "base/extensions/ExternalLibrary.h"

#include <memory>

namespace {

// The last failure on this thread, and the object that had it. Libraries and managers are shared,
// so a text in the object could change while a reader copies it.
struct ThreadError {
  const void* owner = nullptr;
  String text;

  void Set(const void* object, const String& message) {
    if (message.data == nullptr) return;
    owner = object;
    text = message;
  }
  const String& Of(const void* object) const {
    static const String none;
    return owner == object ? text : none;
  }
  // A later object may get the address of a deleted one.
  void Forget(const void* object) {
    if (owner == object) owner = nullptr;
  }
};

thread_local ThreadError library_error;
thread_local ThreadError manager_error;

}  // namespace

void ExternalLibrary::PrepareThread() {
  library_error.owner = nullptr;
  manager_error.owner = nullptr;
}

ExternalLibrary::ExternalLibrary() = default;

ExternalLibrary::~ExternalLibrary() {
  library_error.Forget(this);
}

const String& ExternalLibrary::error() const {
  return library_error.Of(this);
}

void ExternalLibrary::Error(const String& text) {
  library_error.Set(this, text);
}

ExternalLibraryManager::ExternalLibraryManager() : libraries(1, 0, 12, 512) {}

ExternalLibraryManager::~ExternalLibraryManager() {
  manager_error.Forget(this);
}

ExternalLibrary* ExternalLibraryManager::Lookup(const char* path) {
  ExternalLibrary* library = libraries.Find(path, -1);
  if (library != nullptr) return library;
  std::unique_ptr<ExternalLibrary> loaded(Load(path));
  if (loaded == nullptr) return nullptr;
  libraries.Insert(loaded.get());
  return loaded.release();
}

const String& ExternalLibraryManager::error() const {
  return manager_error.Of(this);
}

void ExternalLibraryManager::Error(const String& text) {
  manager_error.Set(this, text);
}
