// The library cache of the process, shared by all request threads.

#ifndef ZEPH_FASTCGI_FASTCGIEXTERNALLIBRARY_H
#define ZEPH_FASTCGI_FASTCGIEXTERNALLIBRARY_H

#include "base/systems/unix/UNIXExternalLibrary.h"

#include <atomic>
#include <mutex>

// Made by main before the first thread; outlives all threads. Any thread may call it.
class FastCGIExternalLibraryManager : public UNIXExternalLibraryManager {
 public:
  ~FastCGIExternalLibraryManager() override;

  // A library that is loaded is found without a lock. The lock is held while a file is loaded, so
  // that two requests that need the same file at once load it only once.
  [[nodiscard]] ExternalLibrary* Lookup(const char* path) override;

 private:
  struct Loaded {
    ExternalLibrary* library;
    const Loaded* next;
  };

  ExternalLibrary* Find(const char* path) const;

  std::mutex mutex;
  std::atomic<const Loaded*> loaded{nullptr};  // only ever longer
};

#endif
