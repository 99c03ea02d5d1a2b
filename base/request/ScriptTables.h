// What one run of a script works on beside its machine. All hosts build it in the same way, fill it
// from one compiled file and delete it after the machine.

#ifndef ZEPH_BASE_SCRIPTTABLES_H
#define ZEPH_BASE_SCRIPTTABLES_H

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

// The tables of a run, owned, and deleted in the order in which they stand here. A member of its
// application: UNIXApplication::BuildTables makes them, and they go before the file manager, since
// they keep files and variables open. Null until they are made.
struct ScriptTables {
  ScriptTables() = default;
  ~ScriptTables();
  ScriptTables(const ScriptTables&) = delete;
  ScriptTables& operator=(const ScriptTables&) = delete;

  // Reads all sections of an opened compiled file. False leaves tables that are good for nothing
  // but to be deleted.
  [[nodiscard]] bool Read(TaggedFile* tagged);

  Dictionary* dictionary = nullptr;
  SystemVariableHash* system_variables = nullptr;
  VariableHash* global_variables = nullptr;
  SegmentManager* segments = nullptr;
  FunctionManager* functions = nullptr;
  ExternalCallManager* external_calls = nullptr;
  LocalizedLanguages* languages = nullptr;
  LocalizedDictionary* localized = nullptr;
  // The settings that go with them: the application's, which deletes them last.
  ExternalConfig* config = nullptr;
};

#endif
