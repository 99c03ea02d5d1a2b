// What the managers of commerce, system and database libraries share: names with paths from the
// configuration, and a file that is opened when a name is first used.

#ifndef ZEPH_BASE_NAMEDLIBRARIES_H
#define ZEPH_BASE_NAMEDLIBRARIES_H

#include <memory>

#include "base/core/BaseTemplates.h"
#include "base/core/StringClass.h"
#include "base/extensions/LastError.h"
#include "base/extensions/LibraryFailure.h"
#include "base/extensions/OpenedLibrary.h"

// The name of a library in scripts and the path of its file: the first fields of each kind. Copies
// both texts; a null text stays null.
class NamedLibrary {
 public:
  NamedLibrary(const char* name, const char* path)
      : library_name(zeph_strdup(name)), library_path(zeph_strdup(path)) {}
  NamedLibrary(const NamedLibrary& other) : NamedLibrary(other.library_name, other.library_path) {}
  NamedLibrary& operator=(const NamedLibrary&) = delete;

  const char* name() const { return library_name; }
  const char* path() const { return library_path; }

 protected:
  ~NamedLibrary() {
    delete[] library_name;
    delete[] library_path;
  }

 private:
  char* library_name;
  char* library_path;
};

struct NamedLibraryName {
  static std::string_view Key(const NamedLibrary* item) { return KeyText(item->name()); }
};

// The fields and the work of a manager. Library derives from NamedLibrary; its copy is for a task.
// Belongs to the thread of one request or task.
template <class Library>
class NamedLibraries {
 public:
  using Table = NamedHashTable<Library, NamedLibraryName>;

  // The application is borrowed: its manager of libraries opens the files.
  explicit NamedLibraries(ZephApplication* application)
      : application(application), library_table(1, 1, 12, 512) {}

  // Adds copies of the source's libraries, in their order.
  void Copy(const NamedLibraries& source) {
    for (int i = 0; i < source.library_table.Entries(); i++) {
      if (const Library* library = source.library_table.Index(i)) {
        InsertOwned(library_table, std::make_unique<Library>(*library));
      }
    }
  }
  // Adds a library; the file is not opened yet.
  void Register(const char* name, const char* path) {
    InsertOwned(library_table, std::make_unique<Library>(name, path));
  }

  // Returns the library of that name, in any case, loaded and owned by the table. Null leaves the
  // reason in error(): for an unknown name, the name in quotes between before and after. A length
  // of -1 means strlen.
  //
  // is_loaded(library) says if the file has been opened. If not, load(library, file) takes what it
  // needs from the file; it returns false with the reason in error(), which is then reported.
  template <class IsLoaded, class Load>
  Library* LookUp(const char* name, int length, const char* before, const char* after,
                  IsLoaded is_loaded, Load load) {
    Library* library = library_table.Find(name, length);
    if (library == nullptr) {
      String text(before);
      text.cat(name, length);
      text.cat(after);
      last_error.Set(text);
      return nullptr;
    }
    if (is_loaded(library)) return library;
    ExternalLibrary* file = OpenLibrary(application, library->path(), &last_error);
    if (file == nullptr) return nullptr;
    if (load(library, file)) return library;
    ReportLibraryFailure(application->basename(),
                         LibraryFailure(library->path(), last_error.text()));
    return nullptr;
  }

  // In the order of registration.
  Table& libraries() { return library_table; }
  LastError& error() { return last_error; }
  const LastError& error() const { return last_error; }

 private:
  ZephApplication* application;
  Table library_table;
  LastError last_error;
};

#endif
