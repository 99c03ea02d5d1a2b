// The settings of a request, provided by a configuration library. The application makes a new
// object for every request, and the library is initialized and shut down with it. Besides providing
// settings the library may register extension libraries, name variables and set the defaults for
// tag errors, through the zpConfig functions.

#ifndef ZEPH_BASE_EXTERNALCONFIG_H
#define ZEPH_BASE_EXTERNALCONFIG_H

#include "api/zeph.h"
#include "base/core/StringClass.h"
#include "base/extensions/LastError.h"
#include "base/host/Config.h"
#include "base/host/TagLookup.h"

class CommerceLibraryManager;
class ExternalCallManager;
class ExternalDatabaseLibraryManager;
class ExternalLibrary;
class File;
class SystemLibraryManager;
class Variable;
class VariableHash;
class ZephApplication;

// The application makes it after the managers and tables, which it borrows, and deletes it. They
// may be deleted first: the destructor does not use them. Used only by the request's thread.
class ExternalConfig : public Config {
 public:
  ExternalConfig(ZephApplication* application, ExternalCallManager* call_manager,
                 CommerceLibraryManager* commerce_manager,
                 ExternalDatabaseLibraryManager* database_manager,
                 SystemLibraryManager* system_manager, VariableHash* system_variables,
                 VariableHash* global_variables);
  // Shuts the library down, then releases the variables that never reached a table.
  ~ExternalConfig() override;
  ExternalConfig(const ExternalConfig&) = delete;
  ExternalConfig& operator=(const ExternalConfig&) = delete;

  // Loads the library at path, unless it is loaded already, and initializes it with the arguments
  // of the process. False leaves the reason in error().
  [[nodiscard]] bool Load(const char* path, int zero, void* arguments, int count);
  // Informs the library which script this request runs, so that it can change settings for it. The
  // file is open and borrowed. False leaves the reason in error(), or no text if there is no
  // library.
  [[nodiscard]] bool LoadScriptConfig(const char* path, File* file);

  // Returns the library's value for id, or the built-in default if it has none. The caller owns it.
  ConfigValue* default_value(int id) override;

  // Register extension libraries. Only a builtin library is opened at once. False leaves the reason
  // in the manager concerned.
  bool Register_Library_Commerce(const char* name, const char* path);
  bool Register_Library_Database(const char* name, const char* path);
  bool Register_Library_System(const char* name, const char* path);
  bool Register_Library_Builtin(const char* path);

  // Keep a variable for AddVariables: a system variable, which scripts cannot write, or a global
  // one. Name and value are copied; a length of -1 means strlen.
  void SetVariable_System(const char* name, int namelength, const char* value, int valuelength);
  void SetVariable_Global(const char* name, int namelength, const char* value, int valuelength);
  // Puts the kept variables into the tables, system ones first, each kind in the order in which
  // they came; of two with one name the later remains. The tables adopt their counts.
  void AddVariables();

  // Sets the default handling of the tag's errors for the whole process: bit 0 display, bit 1 stop.
  // Case does not matter in the name; an unknown name is ignored.
  void Set_DefaultErrorSetting(const char* tag, int taglength, int value);

  const String& error() const { return last_error.text(); }
  // Keeps the older text if the given one is null.
  void Error(const String& text) { last_error.Set(text); }

 private:
  ZephApplication* application;
  void* data = nullptr;  // a word for the library's use
  // Memory ran out while the library was being initialized: it is asked for nothing, and shut down
  // only if it has set its word.
  bool interrupted = false;
  _ZP_EL_Config* descriptor = nullptr;
  ExternalLibrary* library = nullptr;  // borrowed from the process
  LastError last_error;
  ExternalCallManager* call_manager;
  CommerceLibraryManager* commerce_manager;
  ExternalDatabaseLibraryManager* database_manager;
  SystemLibraryManager* system_manager;
  VariableHash* system_variables;
  VariableHash* global_variables;
  // Each list holds one count of its variables until AddVariables.
  List<Variable> pending_system;
  List<Variable> pending_global;
  TagLookup tag_lookup;

  bool Read(int id, ConfigReading* reading) override;
  bool Fail(const char* text);
  bool FailWithLibraryText(const char* text);
};

#endif
