// Compiled files that a script uses beside its own: ZpDO runs another file, or calls one of its
// functions. The file gets a machine of its own, a child of the one that asked first, and is kept
// for the rest of the request: it is loaded once, and its global variables are those of its caller.

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
  // All are borrowed and outlive the context; the tables are the parent's.
  DoContext(VariableHash* global, VariableHash* system, ZephApplication* application,
            ZephVM* parent, ExternalCallManager* external_calls, CommerceLibraryManager* commerce,
            ExternalDatabaseLibraryManager* databases);
  DoContext(const DoContext&) = delete;
  DoContext& operator=(const DoContext&) = delete;
  virtual ~DoContext();

  // Loads the file, once. Adopts the path, which has length bytes and a NUL in a buffer of size
  // bytes made with new[], and the file. False after a failure: error() tells why a file could not
  // be opened, and is empty for one whose sections are damaged.
  [[nodiscard]] bool Open(char* path, int length, int size, File* opened);

  // How often the context is in use: runs of it that have not ended, and machines that have its
  // machine for a parent. Good after Open.
  int RefCount() const;
  void IncRefCount();
  void DecRefCount();

  const String& path() const { return file_path; }
  const String& error() const { return error_text; }
  ZephVM* machine() const { return child; }
  // The function calls that were compiled for this file, by text.
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

// The contexts of a family of machines, which are the machine of a request and all whose parents
// lead to it. Owned by that machine.
class DoContexts {
 public:
  DoContexts() = default;
  DoContexts(const DoContexts&) = delete;
  DoContexts& operator=(const DoContexts&) = delete;
  // Deletes the contexts, children before their parents.
  ~DoContexts();

  int Entries() { return by_use.Entries(); }
  // The context of a path, which is the one used last from then on; null if there is none.
  DoContext* Find(const char* path, int length);
  // Adopts the context. It is the one used last.
  void Insert(DoContext* context);
  // Deletes contexts that are not in use, the one that was not used for longest first, until there
  // are no more than that many; those in use stay.
  void Evict(int limit);

 private:
  void DeleteCurrent();

  NamedHashTable<DoContext, DoContextPath> by_path{0, 1, 12, 512};
  List<DoContext> by_use;  // the newest first
};

#endif
