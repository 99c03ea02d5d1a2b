// Shared libraries loaded into the process. Extension libraries of all kinds and the configuration
// library come through one manager, which loads each file once and keeps it until the process
// ends.

#ifndef ZEPH_BASE_EXTERNALLIBRARY_H
#define ZEPH_BASE_EXTERNALLIBRARY_H

#include "base/core/BaseTemplates.h"
#include "base/core/StringClass.h"

// One loaded file. Made by a manager, which owns it; shared by all requests. Failures are kept for
// each thread apart, since several requests use one library at once.
class ExternalLibrary {
 public:
  // Makes what a thread needs for error().
  static void PrepareThread();

  ExternalLibrary();
  virtual ~ExternalLibrary();
  ExternalLibrary(const ExternalLibrary&) = delete;
  ExternalLibrary& operator=(const ExternalLibrary&) = delete;

  // Opens the file; called once, before the library is shared. False leaves the reason in error().
  [[nodiscard]] virtual bool Load(const char* path) = 0;
  // The address of an exported symbol, or null with the reason in error(). Any thread.
  [[nodiscard]] virtual void* Get_Function(const char* name) = 0;

  const String& path() const { return library_path; }
  // What the calling thread's last failure with this library said; the null string without one.
  const String& error() const;
  // Keeps the calling thread's older text when the given one is null.
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
// error is kept for each thread apart, since it is read after the lock was given back.
class ExternalLibraryManager {
 public:
  ExternalLibraryManager();
  // Unloads everything: nothing of any library may be in use any more.
  virtual ~ExternalLibraryManager();
  ExternalLibraryManager(const ExternalLibraryManager&) = delete;
  ExternalLibraryManager& operator=(const ExternalLibraryManager&) = delete;

  // The library of that file, loaded at the first call and borrowed by the caller. Null leaves the
  // reason in error(); a later call tries again.
  [[nodiscard]] virtual ExternalLibrary* Lookup(const char* path);

  // Loads a file whether it is in the table or not; a new object, the caller's, or null with the
  // reason in error().
  [[nodiscard]] virtual ExternalLibrary* Load(const char* path) = 0;

  // What the calling thread's last failure with this manager said; the null string without one.
  const String& error() const;
  // Keeps the calling thread's older text when the given one is null.
  void Error(const String& text);

 private:
  ExternalLibraryTable libraries;
};

#endif
