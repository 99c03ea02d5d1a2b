// Shared libraries through dlopen.

#ifndef ZEPH_BASE_SYSTEMS_UNIX_UNIXEXTERNALLIBRARY_H
#define ZEPH_BASE_SYSTEMS_UNIX_UNIXEXTERNALLIBRARY_H

#include <atomic>
#include <string>

#include "base/extensions/ExternalLibrary.h"

class UNIXExternalLibrary : public ExternalLibrary {
 public:
  UNIXExternalLibrary() = default;
  ~UNIXExternalLibrary() override;

  // Symbols are bound when they are first called. A library may use the engine's exports.
  [[nodiscard]] bool Load(const char* path) override;
  [[nodiscard]] void* Get_Function(const char* name) override;

 private:
  // A function that was looked up before. The loader takes a lock for each look-up, and every
  // request looks up the same few.
  struct Symbol {
    std::string name;
    void* address;
    const Symbol* next;
  };

  void Remember(const char* name, void* address);

  void* handle = nullptr;
  std::atomic<const Symbol*> symbols{nullptr};  // only ever longer; any thread may walk it
};

class UNIXExternalLibraryManager : public ExternalLibraryManager {
 public:
  [[nodiscard]] ExternalLibrary* Load(const char* path) override;
};

#endif
