// A library of functions that a target has in its own program, for scripts that call them.

#ifndef ZEPH_FUZZ_FUNCTIONLIBRARIES_H
#define ZEPH_FUZZ_FUNCTIONLIBRARIES_H

#include <memory>

#include "base/extensions/ExternalCall.h"
#include "base/extensions/ExternalLibrary.h"

// Loads the same library under every path.
class FunctionLibraries : public ExternalLibraryManager {
 public:
  // A library exports this function; the table that it returns lives as long as the process.
  using Export = _ZP_EL_FunctionTable* (*)();

  explicit FunctionLibraries(Export exported) : exported(exported) {}

  ExternalLibrary* Load(const char* path) override {
    auto library = std::make_unique<Library>(exported);
    return library->Load(path) ? library.release() : nullptr;
  }

 private:
  class Library : public ExternalLibrary {
   public:
    explicit Library(Export exported) : exported(exported) {}

    bool Load(const char* path) override {
      library_path.assign(path, -1);
      return true;
    }
    void* Get_Function(const char*) override { return reinterpret_cast<void*>(exported); }

   private:
    Export exported;
  };

  Export exported;
};

#endif
