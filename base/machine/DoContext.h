// Compiled files that a script uses besides its own: ZpDO runs another file, or calls one of its
// functions. The file gets a machine of its own, a child of the machine that used it first, and is
// kept for the rest of the request: it is loaded once. Its global variables are its caller's.

#ifndef ZEPH_BASE_DOCONTEXT_H
#define ZEPH_BASE_DOCONTEXT_H

#include "base/core/BaseTemplates.h"
#include "base/core/StringClass.h"
#include "base/machine/DoExpression.h"

class CommerceLibraryManager;
class Dictionary;
class ExternalCallManager;
class ExternalDatabaseLibraryManager;
class File;
class FunctionManager;
class LocalizedDictionary;
class LocalizedLanguages;
class ReferenceVariableHash;
class SegmentManager;
class TaggedFile;
class VariableHash;
class ZephApplication;
class ZephVM;

// One file with its tables and its machine. Made and deleted by the family of machines that shares
// it (DoContexts), on their thread. The order of the fields stays.
class DoContext {
 public:
  // All are borrowed and outlive the context. The two tables are the parent's.
  DoContext(VariableHash* global, VariableHash* system, ZephApplication* application,
            ZephVM* parent, ExternalCallManager* external_calls, CommerceLibraryManager* commerce,
            ExternalDatabaseLibraryManager* databases);
  DoContext(const DoContext&) = delete;
  DoContext& operator=(const DoContext&) = delete;
  virtual ~DoContext();

  // Loads the file. Adopts the path, which has length bytes and a NUL in a buffer of size bytes
  // made with new[], and the file. Returns false after a failure: error() says why a file could not
  // be opened, and is empty if a section of it is damaged. REQUIRES: it is called once.
  [[nodiscard]] bool Open(char* path, int length, int size, File* opened);

  // The number of uses: runs of it that have not ended, plus machines that have its machine as
  // parent. REQUIRES: Open has returned true.
  int RefCount() const;
  void IncRefCount();
  void DecRefCount();

  const String& path() const { return file_path; }
  const String& error() const { return error_text; }
  ZephVM* machine() const { return child; }
  // The calls of its functions that were compiled, by text.
  DoExpressionTable& expressions() { return calls; }

 private:
  void MakeTables();
  bool ReadTables();

  TaggedFile* file = nullptr;
  String file_path;
  String error_text;
  Dictionary* dictionary = nullptr;
  SegmentManager* segments = nullptr;
  FunctionManager* functions = nullptr;
  ReferenceVariableHash* global_variables = nullptr;
  ReferenceVariableHash* system_variables = nullptr;
  ZephVM* child = nullptr;
  ZephVM* parent;
  VariableHash* parent_global_variables;
  VariableHash* parent_system_variables;
  ZephApplication* application;
  ExternalCallManager* external_calls;
  CommerceLibraryManager* commerce_libraries;
  ExternalDatabaseLibraryManager* database_libraries;
  LocalizedLanguages* languages = nullptr;
  LocalizedDictionary* localized = nullptr;
  DoExpressionTable calls{1, 1, 12, 512};
};

struct DoContextPath {
  static std::string_view Key(const DoContext* item) {
    return {item->path().data, static_cast<size_t>(item->path().length)};
  }
};

// The contexts of a family of machines: the machine of a request and all machines whose parents
// lead to it. Owned by that machine.
class DoContexts {
 public:
  DoContexts() = default;
  DoContexts(const DoContexts&) = delete;
  DoContexts& operator=(const DoContexts&) = delete;
  // Deletes the contexts, children before their parents.
  ~DoContexts();

  int Entries() { return by_use.Entries(); }
  // Returns the context of a path and makes it the most recently used; null if there is none.
  DoContext* Find(const char* path, int length);
  // Adopts the context, which becomes the most recently used.
  void Insert(DoContext* context);
  // Deletes contexts that are not in use, the least recently used first, until at most limit are
  // left. Contexts in use stay.
  void Evict(int limit);

 private:
  void DeleteCurrent();

  NamedHashTable<DoContext, DoContextPath> by_path{0, 1, 12, 512};
  List<DoContext> by_use;  // the most recently used first
};

#endif
