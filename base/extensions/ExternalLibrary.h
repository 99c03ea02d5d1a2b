// Shared libraries loaded into the process. One manager loads all extension libraries and the
// configuration library; it loads each file once and keeps it until the process ends.

#ifndef ZEPH_BASE_EXTERNALLIBRARY_H
#define ZEPH_BASE_EXTERNALLIBRARY_H

#include "base/core/BaseTemplates.h"
#include "base/core/StringClass.h"

// One loaded file. Made and owned by a manager, shared by all requests. Failures are kept per
// thread, because several requests use one library at once.
class ExternalLibrary {
 public:
  // Makes the calling thread's storage for error(), for libraries and managers.
  static void PrepareThread();

  ExternalLibrary();
  virtual ~ExternalLibrary();
  ExternalLibrary(const ExternalLibrary&) = delete;
  ExternalLibrary& operator=(const ExternalLibrary&) = delete;

  // Opens the file. False leaves the reason in error().
  // REQUIRES: called once, before the library is shared.
  [[nodiscard]] virtual bool Load(const char* path) = 0;
  // Returns the address of an exported symbol, or null with the reason in error(). Any thread may
  // call it.
  [[nodiscard]] virtual void* Get_Function(const char* name) = 0;

  const String& path() const { return library_path; }
  // The text of the calling thread's last failure with this library; the null string if there is
  // none.
  const String& error() const;
  // Keeps the calling thread's older text if the given one is null.
  void Error(const String& text);

 protected:
  String library_path;
};

struct ExternalLibraryPath {
  static std::string_view Key(const ExternalLibrary* item) {
    return KeyText(item->path().data, item->path().length);
  }
};
using ExternalLibraryTable = NamedHashTable<ExternalLibrary, ExternalLibraryPath>;

// The loaded files by path. This class is for one thread; the host's subclass adds the lock. The
// error is kept per thread, because it is read after the lock was released.
class ExternalLibraryManager {
 public:
  ExternalLibraryManager();
  // Unloads everything. REQUIRES: no code or data of any library is in use.
  virtual ~ExternalLibraryManager();
  ExternalLibraryManager(const ExternalLibraryManager&) = delete;
  ExternalLibraryManager& operator=(const ExternalLibraryManager&) = delete;

  // Returns the library of that file, loaded at the first call; the caller borrows it. Null leaves
  // the reason in error(); a later call tries again.
  [[nodiscard]] virtual ExternalLibrary* Lookup(const char* path);

  // Loads a file even if it is in the table. Returns a new object, owned by the caller, or null
  // with the reason in error().
  [[nodiscard]] virtual ExternalLibrary* Load(const char* path) = 0;

  // The text of the calling thread's last failure with this manager; the null string if there is
  // none.
  const String& error() const;
  // Keeps the calling thread's older text if the given one is null.
  void Error(const String& text);

 private:
  ExternalLibraryTable libraries;
};

#endif
