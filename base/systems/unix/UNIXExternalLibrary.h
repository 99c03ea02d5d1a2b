// Shared libraries through dlopen.

#ifndef ZEPH_BASE_SYSTEMS_UNIX_UNIXEXTERNALLIBRARY_H
#define ZEPH_BASE_SYSTEMS_UNIX_UNIXEXTERNALLIBRARY_H

#include "base/extensions/ExternalLibrary.h"

class UNIXExternalLibrary : public ExternalLibrary {
 public:
  UNIXExternalLibrary() = default;
  ~UNIXExternalLibrary() override;

  // Symbols are bound when they are first called. A library may use the engine's exports.
  [[nodiscard]] bool Load(const char* path) override;
  [[nodiscard]] void* Get_Function(const char* name) override;

 private:
  void* handle = nullptr;
};

class UNIXExternalLibraryManager : public ExternalLibraryManager {
 public:
  [[nodiscard]] ExternalLibrary* Load(const char* path) override;
};

#endif
