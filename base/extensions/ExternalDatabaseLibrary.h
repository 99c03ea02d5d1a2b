// Database libraries: engines for databases of other types than the built-in one. The configuration
// names the types; a library is opened when a script first opens a database of its type.

#ifndef ZEPH_BASE_EXTERNALDATABASELIBRARY_H
#define ZEPH_BASE_EXTERNALDATABASELIBRARY_H

#include "api/zeph.h"
#include "base/core/StringClass.h"
#include "base/extensions/NamedLibraries.h"

// One database type of a request or task.
class ExternalDatabaseLibrary : public NamedLibrary {
 public:
  using NamedLibrary::NamedLibrary;
  // The copy for a task has the table too, if it is loaded.

  // The library's table, in the library's memory; null until loaded.
  _ZP_EL_Database* descriptor() const { return table; }
  void SetDescriptor(_ZP_EL_Database* descriptor) { table = descriptor; }

 private:
  _ZP_EL_Database* table = nullptr;
};

// The database types that the configuration names for a request or task. Used on its thread. The
// order of the virtual operations must not change.
class ExternalDatabaseLibraryManager {
 public:
  explicit ExternalDatabaseLibraryManager(ZephApplication* application);
  // For a task: copies the source's libraries, to be opened through the given application.
  ExternalDatabaseLibraryManager(ZephApplication* application,
                                 ExternalDatabaseLibraryManager& source);
  virtual ~ExternalDatabaseLibraryManager();
  ExternalDatabaseLibraryManager(const ExternalDatabaseLibraryManager&) = delete;
  ExternalDatabaseLibraryManager& operator=(const ExternalDatabaseLibraryManager&) = delete;

  // Registers a type; the file is not opened yet. Returns true.
  virtual bool RegisterDSO(const char* name, const char* path);
  // Returns the type of that name, in any case, with its descriptor() set; owned by the manager.
  // Null leaves the reason in error(). A length of -1 means strlen.
  [[nodiscard]] virtual ExternalDatabaseLibrary* Lookup_DB(const char* name, int length);

  const String& error() const { return named.error().text(); }
  // Keeps the older text if the given one is null.
  void Error(const String& text) { named.error().Set(text); }

  // In the order of registration.
  NamedLibraries<ExternalDatabaseLibrary>::Table& libraries() { return named.libraries(); }

 private:
  NamedLibraries<ExternalDatabaseLibrary> named;
};

#endif
