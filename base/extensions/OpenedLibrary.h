// The steps by which every kind of library is opened: its file, and the table that it exports.

#ifndef ZEPH_BASE_OPENEDLIBRARY_H
#define ZEPH_BASE_OPENEDLIBRARY_H

#include "base/extensions/ExternalLibrary.h"
#include "base/extensions/LastError.h"
#include "base/extensions/LibraryFailure.h"
#include "base/host/ZephApplication.h"

// Returns the library of that file, loaded at the first call; the process owns it. Null leaves the
// reason in *error, and reports it.
[[nodiscard]] inline ExternalLibrary* OpenLibrary(ZephApplication* application, const char* path,
                                                  LastError* error) {
  ExternalLibraryManager* manager = application->librarymanager();
  ExternalLibrary* library = manager->Lookup(path);
  if (library == nullptr) {
    error->Set(manager->error());
    ReportLibraryFailure(application->basename(), LibraryFailure(path, manager->error()));
  }
  return library;
}

// Calls the exported function of that name and returns the table that it returns, which is in the
// library's memory. Null leaves the reason in *error: the library's if there is no such function,
// no_table if it returns null.
template <class Table>
[[nodiscard]] Table* ExportedTable(ExternalLibrary* library, const char* name, const char* no_table,
                                   LastError* error) {
  auto function = reinterpret_cast<Table* (*)()>(library->Get_Function(name));
  if (function == nullptr) {
    error->Set(library->error());
    return nullptr;
  }
  Table* table = function();
  if (table == nullptr) error->Set(no_table);
  return table;
}

#endif
