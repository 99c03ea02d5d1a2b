// The tables that one run of a script uses besides its machine. All hosts build them in the same
// way, fill them from one compiled file and delete them after the machine.

#ifndef ZEPH_BASE_SCRIPTTABLES_H
#define ZEPH_BASE_SCRIPTTABLES_H

#include <memory>

class Dictionary;
class ExternalCallManager;
class ExternalConfig;
class FunctionManager;
class LocalizedDictionary;
class LocalizedLanguages;
class SegmentManager;
class SystemVariableHash;
class TaggedFile;
class VariableHash;
class ZephApplication;

// The tables of a run, owned, and deleted in the order in which they are listed here. The struct is
// a member of the application: UNIXApplication::BuildTables makes the tables. They are deleted
// before the file manager, because they keep files and variables open. Null until they are made.
struct ScriptTables {
  ScriptTables();
  ~ScriptTables();
  ScriptTables(const ScriptTables&) = delete;
  ScriptTables& operator=(const ScriptTables&) = delete;

  // Makes the empty tables. The application and the file are borrowed. REQUIRES: they are null.
  void Make(ZephApplication* application, TaggedFile* tagged);

  // Reads all sections of an opened compiled file. If it returns false, the tables may only be
  // deleted.
  [[nodiscard]] bool Read(TaggedFile* tagged);

  Dictionary* dictionary = nullptr;
  SystemVariableHash* system_variables = nullptr;
  VariableHash* global_variables = nullptr;
  SegmentManager* segments = nullptr;
  FunctionManager* functions = nullptr;
  ExternalCallManager* external_calls = nullptr;
  LocalizedLanguages* languages = nullptr;
  LocalizedDictionary* localized = nullptr;
  // The settings that belong to these tables, borrowed: the application deletes them last.
  ExternalConfig* config = nullptr;

 private:
  struct Objects;
  std::unique_ptr<Objects> objects;  // all tables in one block
};

#endif
