// The settings of a request, answered by a configuration library. A new one is made for every
// request and the library is driven anew each time; besides answering for settings it may register
// extension libraries, name variables and set what tag errors do, through the zpConfig functions.

#ifndef ZEPH_BASE_EXTERNALCONFIG_H
#define ZEPH_BASE_EXTERNALCONFIG_H

#include "base/core/StringClass.h"
#include "base/extensions/ConfigLibrary.h"
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

// Made and deleted by the application, after the managers and tables that it is given and borrows.
// They may be deleted before it: the destructor does not look at them. Used by the request's
// thread alone.
class ExternalConfig : public Config {
 public:
  ExternalConfig(ZephApplication* application, ExternalCallManager* call_manager,
                 CommerceLibraryManager* commerce_manager,
                 ExternalDatabaseLibraryManager* database_manager,
                 SystemLibraryManager* system_manager, VariableHash* system_variables,
                 VariableHash* global_variables);
  // Lets the library shut down, then releases the variables that never reached a table.
  ~ExternalConfig() override;
  ExternalConfig(const ExternalConfig&) = delete;
  ExternalConfig& operator=(const ExternalConfig&) = delete;

  // Loads the library at path, or finds it loaded, and initializes it with the arguments of the
  // process. False leaves the reason in error().
  [[nodiscard]] bool Load(const char* path, int zero, void* arguments, int count);
  // Tells the library which script this request runs, so that it may change settings for it. The
  // file is open and borrowed. False leaves the reason in error(), no text without a library.
  [[nodiscard]] bool LoadScriptConfig(const char* path, File* file);

  // What the library answers for id, else the built-in default.
  ConfigValue* default_value(int id) override;

  // Registrations of extension libraries. Nothing is opened but a builtin library. False leaves
  // the reason with the manager concerned.
  bool Register_Library_Commerce(const char* name, const char* path);
  bool Register_Library_Database(const char* name, const char* path);
  bool Register_Library_System(const char* name, const char* path);
  bool Register_Library_Builtin(const char* path);

  // Notes a variable for AddVariables: a system variable, which scripts cannot write, or a global
  // one. Name and value are copied; a length of -1 means strlen.
  void SetVariable_System(const char* name, int namelength, const char* value, int valuelength);
  void SetVariable_Global(const char* name, int namelength, const char* value, int valuelength);
  // Puts the noted variables into the tables, system ones first, each kind in the order in which
  // they were noted; of two with one name the later stays. The tables take over their counts.
  void AddVariables();

  // Sets what an error of the tag does by default, bit 0 display and bit 1 stop, for the whole
  // process. The name counts without regard to case; one that is no tag's is ignored.
  void Set_DefaultErrorSetting(const char* tag, int taglength, int value);

  const String& error() const { return last_error; }
  // Keeps the older text when the given one is null.
  void Error(const String& text);

 private:
  ZephApplication* application;
  void* data = nullptr;  // the library's
  _ZP_EL_Config* descriptor = nullptr;
  ExternalLibrary* library = nullptr;  // borrowed from the process
  String last_error;
  ExternalCallManager* call_manager;
  CommerceLibraryManager* commerce_manager;
  ExternalDatabaseLibraryManager* database_manager;
  SystemLibraryManager* system_manager;
  VariableHash* system_variables;
  VariableHash* global_variables;
  // One count of each variable is held here until AddVariables.
  List<Variable> pending_system;
  List<Variable> pending_global;
  TagLookup tag_lookup;

  bool Fail(const char* text);
  bool FailWithLibraryText(const char* text);
};

#endif
