// Loads shared libraries with dlopen. Tested in
// tests/base/systems/unix/UNIXExternalLibraryTest.cpp.

#include "base/systems/unix/UNIXExternalLibrary.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <cstring>
#include <memory>
#include <utility>

UNIXExternalLibrary::~UNIXExternalLibrary() {
  for (const Symbol* symbol = symbols.load(); symbol != nullptr;) {
    delete std::exchange(symbol, symbol->next);
  }
  if (handle != nullptr) dlclose(handle);
}

bool UNIXExternalLibrary::Load(const char* path) {
  library_path = path;
  // The loader would return the engine itself, as a library that it never loaded.
  if (path == nullptr) {
    Error("The library has no path");
    return false;
  }
  // The loader would wait for the other end of a FIFO. A name without a slash is not checked: the
  // loader searches for it in the system's own directories.
  struct stat status;
  if (strchr(path, '/') != nullptr && stat(path, &status) == 0 && !S_ISREG(status.st_mode) &&
      !S_ISDIR(status.st_mode)) {
    String text(path, -1);
    text.cat(": not a regular file");
    Error(text);
    return false;
  }
  handle = dlopen(path, RTLD_LAZY);
  if (handle != nullptr) return true;
  Error(dlerror());
  return false;
}

void* UNIXExternalLibrary::Get_Function(const char* name) {
  for (const Symbol* known = symbols.load(std::memory_order_acquire); known != nullptr;
       known = known->next) {
    if (known->name == name) return known->address;
  }
  void* function = handle != nullptr ? dlsym(handle, name) : nullptr;
  if (function != nullptr) {
    Remember(name, function);
    return function;
  }
  String text("Unknown symbol '");
  text.cat(name);
  text.cat("'");
  Error(text);
  return nullptr;
}

// If two threads look a name up at once, it is remembered twice, which does no harm.
void UNIXExternalLibrary::Remember(const char* name, void* address) {
  auto* symbol = new Symbol{name, address, symbols.load(std::memory_order_relaxed)};
  while (!symbols.compare_exchange_weak(symbol->next, symbol, std::memory_order_release,
                                        std::memory_order_relaxed)) {
  }
}

ExternalLibrary* UNIXExternalLibraryManager::Load(const char* path) {
  auto library = std::make_unique<UNIXExternalLibrary>();
  if (library->Load(path)) return library.release();
  Error(library->error());
  return nullptr;
}
