// The look-up of a library, under a lock.
// Tested in tests/fastcgi/FastCGIExternalLibraryTest.cpp.

#include "fastcgi/FastCGIExternalLibrary.h"

ExternalLibrary* FastCGIExternalLibraryManager::Lookup(const char* path) {
  std::lock_guard<std::mutex> lock(mutex);
  return UNIXExternalLibraryManager::Lookup(path);
}
