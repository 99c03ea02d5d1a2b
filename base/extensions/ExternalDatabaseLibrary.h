// Database libraries: engines for databases of other types than the built-in one. The configuration
// names the types; a library is opened when a script first opens a database of its type.

#ifndef ZEPH_BASE_EXTERNALDATABASELIBRARY_H
#define ZEPH_BASE_EXTERNALDATABASELIBRARY_H

#include "base/core/StringClass.h"
#include "base/extensions/NamedLibraries.h"

// A function of the table below. Its parameters depend on the operation, and for some on the
// table's version, so each caller casts it to the form in use.
typedef void (*_ZP_EL_DatabaseFunction)();

// The functions of a database library, as its export zeph_database_library returns them. Fields of
// 8 bytes; any function may be null. version is the version of the table: fields of a later version
// are past its end and must not be read.
struct _ZP_EL_Database {
  int version;
  _ZP_EL_DatabaseFunction create;
  _ZP_EL_DatabaseFunction open;
  _ZP_EL_DatabaseFunction close;
  _ZP_EL_DatabaseFunction openview;
  _ZP_EL_DatabaseFunction runquery;
  _ZP_EL_DatabaseFunction pack;
  _ZP_EL_DatabaseFunction setprimaryindex;
  _ZP_EL_DatabaseFunction createindex;
  _ZP_EL_DatabaseFunction openindexes;
  _ZP_EL_DatabaseFunction reindex;
  _ZP_EL_DatabaseFunction error;
  _ZP_EL_DatabaseFunction view_close;
  _ZP_EL_DatabaseFunction view_skip;
  _ZP_EL_DatabaseFunction view_go;
  _ZP_EL_DatabaseFunction view_add;
  _ZP_EL_DatabaseFunction view_delete;
  _ZP_EL_DatabaseFunction view_undelete;
  _ZP_EL_DatabaseFunction view_update;
  _ZP_EL_DatabaseFunction view_filter;
  _ZP_EL_DatabaseFunction view_find;
  _ZP_EL_DatabaseFunction view_revealstructure_table;
  _ZP_EL_DatabaseFunction view_revealstructure_aggregate;
  _ZP_EL_DatabaseFunction view_error;
  _ZP_EL_DatabaseFunction variable_get_integer;
  _ZP_EL_DatabaseFunction variable_get_double;
  _ZP_EL_DatabaseFunction variable_get_string;
  _ZP_EL_DatabaseFunction variable_set_integer;
  _ZP_EL_DatabaseFunction variable_set_double;
  _ZP_EL_DatabaseFunction variable_set_string;
  _ZP_EL_DatabaseFunction variable_free;
  _ZP_EL_DatabaseFunction commit;         // since version 2
  _ZP_EL_DatabaseFunction rollback;       // since version 2
  _ZP_EL_DatabaseFunction variable_type;  // since version 4
  _ZP_EL_DatabaseFunction transaction;    // since version 5
  _ZP_EL_DatabaseFunction command;        // since version 5
  _ZP_EL_DatabaseFunction free_data;      // since version 6
};

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
