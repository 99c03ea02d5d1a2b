// System libraries: shared libraries whose functions extensions look up by name, without being
// linked against them. The engine itself calls no function in them. The configuration names them; a
// library is opened when an extension first uses it.

#ifndef ZEPH_BASE_SYSTEMLIBRARY_H
#define ZEPH_BASE_SYSTEMLIBRARY_H

#include "base/core/StringClass.h"
#include "base/extensions/NamedLibraries.h"

// One named library of a request or task. The order of the virtual operations must not change.
class SystemLibrary : public NamedLibrary {
 public:
  using NamedLibrary::NamedLibrary;
  // For a task: copies name, path and, if it is open, the opened file, but no error.
  SystemLibrary(const SystemLibrary& other);
  virtual ~SystemLibrary();
  SystemLibrary& operator=(const SystemLibrary&) = delete;

  // Keeps the opened file, borrowed: the process owns it. Returns true.
  virtual bool Load(ExternalLibrary* library);
  // Keeps the older text if the given one is null.
  virtual void Error(const String& text);
  virtual const String& error();

  // Null until loaded.
  ExternalLibrary* library() const { return opened; }

 private:
  ExternalLibrary* opened = nullptr;
  LastError last_error;
};

// The system libraries that the configuration names for a request or task. Used on its thread.
class SystemLibraryManager {
 public:
  explicit SystemLibraryManager(ZephApplication* application);
  // For a task: copies the source's libraries, to be opened through the given application.
  SystemLibraryManager(ZephApplication* application, SystemLibraryManager& source);
  virtual ~SystemLibraryManager();
  SystemLibraryManager(const SystemLibraryManager&) = delete;
  SystemLibraryManager& operator=(const SystemLibraryManager&) = delete;

  // Registers a library; the file is not opened yet. Returns true.
  virtual bool RegisterDSO(const char* name, const char* path);
  // Returns the library of that name, in any case, opened and owned by the manager. Null leaves the
  // reason in error(). A length of -1 means strlen.
  [[nodiscard]] virtual SystemLibrary* Lookup_System_Library(const char* name, int length);
  // Keeps the older text if the given one is null.
  virtual void Error(const String& text);
  virtual const String& error();

  // In the order of registration.
  NamedLibraries<SystemLibrary>::Table& libraries() { return named.libraries(); }

 private:
  NamedLibraries<SystemLibrary> named;
};

#endif
