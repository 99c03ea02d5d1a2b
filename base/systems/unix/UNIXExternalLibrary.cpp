#include "base/systems/unix/UNIXExternalLibrary.h"

#include <dlfcn.h>

#include <memory>

UNIXExternalLibrary::~UNIXExternalLibrary() {
  if (handle != nullptr) dlclose(handle);
}

bool UNIXExternalLibrary::Load(const char* path) {
  library_path = path;
  // A null name would be the engine itself.
  handle = dlopen(library_path.data, RTLD_LAZY);
  if (handle != nullptr) return true;
  Error(dlerror());
  return false;
}

void* UNIXExternalLibrary::Get_Function(const char* name) {
  void* function = handle != nullptr ? dlsym(handle, name) : nullptr;
  if (function != nullptr) return function;
  String text("Unknown symbol '");
  text.cat(name);
  text.cat("'");
  Error(text);
  return nullptr;
}

ExternalLibrary* UNIXExternalLibraryManager::Load(const char* path) {
  auto library = std::make_unique<UNIXExternalLibrary>();
  if (library->Load(path)) return library.release();
  Error(library->error());
  return nullptr;
}
