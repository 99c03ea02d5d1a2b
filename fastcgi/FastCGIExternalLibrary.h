// The library cache of the process, shared by all request threads.

#ifndef ZEPH_FASTCGI_FASTCGIEXTERNALLIBRARY_H
#define ZEPH_FASTCGI_FASTCGIEXTERNALLIBRARY_H

#include "base/systems/unix/UNIXExternalLibrary.h"

#include <mutex>

// Made by main before the first thread, and outlives them all. Any thread may call it.
class FastCGIExternalLibraryManager : public UNIXExternalLibraryManager {
 public:
  // Under the lock, also while a file is loaded: two requests that want the same file at once load
  // it once.
  [[nodiscard]] ExternalLibrary* Lookup(const char* path) override;

 private:
  std::mutex mutex;
};

#endif
