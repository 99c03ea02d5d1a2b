// Runs a configuration library for a request. Tested in
// tests/base/extensions/ExternalConfigTest.cpp.

#include "base/extensions/ExternalConfig.h"

#include <new>

#include "base/compiled/VariableHash.h"
#include "base/extensions/CommerceLibrary.h"
#include "base/extensions/ExternalCall.h"
#include "base/extensions/ExternalDatabaseLibrary.h"
#include "base/extensions/OpenedLibrary.h"
#include "base/extensions/SystemLibrary.h"
#include "base/host/TagErrors.h"
#include "base/host/ZephApplication.h"
#include "base/values/Variable.h"
#include "base/values/VariableKinds.h"
#include "base/values/VariableRef.h"

namespace {

void ReleaseAll(List<Variable>& pending) {
  for (Variable* variable = pending.First(); variable != nullptr; variable = pending.Next()) {
    variable->DecRefCount();
  }
  pending.RemoveAll();
}

// The table adopts the count of each variable, so the list drops it first without releasing.
void MoveAll(List<Variable>& pending, VariableHash* table) {
  while (Variable* variable = pending.Remove(ListHead)) table->SetVariable(variable);
}

}  // namespace

ExternalConfig::ExternalConfig(ZephApplication* application, ExternalCallManager* call_manager,
                               CommerceLibraryManager* commerce_manager,
                               ExternalDatabaseLibraryManager* database_manager,
                               SystemLibraryManager* system_manager, VariableHash* system_variables,
                               VariableHash* global_variables)
    : application(application),
      call_manager(call_manager),
      commerce_manager(commerce_manager),
      database_manager(database_manager),
      system_manager(system_manager),
      system_variables(system_variables),
      global_variables(global_variables) {}

ExternalConfig::~ExternalConfig() {
  // The managers may be deleted already; registrations that a library makes in its shutdown are
  // ignored.
  call_manager = nullptr;
  commerce_manager = nullptr;
  database_manager = nullptr;
  system_manager = nullptr;
  if (descriptor != nullptr && descriptor->shutdown != nullptr && (!interrupted || data != nullptr))
    descriptor->shutdown(this, &data);
  ReleaseAll(pending_system);
  ReleaseAll(pending_global);
}

bool ExternalConfig::Load(const char* path, int zero, void* arguments, int count) {
  library = OpenLibrary(application, path, &last_error);
  if (library == nullptr) return false;
  descriptor = ExportedTable<_ZP_EL_Config>(library, "zeph_config_library",
                                            "Unable to retrieve configuration descriptor table",
                                            &last_error);
  if (descriptor == nullptr) return false;
  if (descriptor->initialize == nullptr) return true;
  try {
    if (descriptor->initialize(this, &data, zero, arguments, count) == 0) return true;
  } catch (const std::bad_alloc&) {
    interrupted = true;
    throw;
  }
  return FailWithLibraryText("Error initializing configuration library");
}

bool ExternalConfig::LoadScriptConfig(const char* path, File* file) {
  if (library == nullptr || descriptor == nullptr) return false;
  if (descriptor->version == 1 && descriptor->load_script_v1 != nullptr) {
    return Fail(
        "Configuration library uses no longer supported v1 API script-specific configuration load "
        "method");
  }
  if (descriptor->load_script_config == nullptr) return true;
  if (descriptor->load_script_config(this, &data, path, file) == 0) return true;
  return FailWithLibraryText("Error loading script-specific configuration");
}

bool ExternalConfig::Fail(const char* text) {
  Error(text);
  return false;
}

bool ExternalConfig::FailWithLibraryText(const char* text) {
  const char* own = descriptor->get_error != nullptr ? descriptor->get_error(this, &data) : nullptr;
  return Fail(own != nullptr ? own : text);
}

ConfigValue* ExternalConfig::default_value(int id) {
  ConfigReading reading;
  return ExternalConfig::Read(id, &reading) ? new ConfigValue(id, reading) : nullptr;
}

bool ExternalConfig::Read(int id, ConfigReading* reading) {
  if (library != nullptr && descriptor != nullptr && !interrupted) {
    int kind = id & ConfigKind_Mask;
    ConfigReading own;
    if (kind == ConfigKind_Text && descriptor->get_string != nullptr) {
      if (descriptor->get_string(this, &data, id, &own.text, &own.length, &own.owned) == 0) {
        *reading = own;
        return true;
      }
    } else if (kind == ConfigKind_Integer && descriptor->get_integer != nullptr) {
      if (descriptor->get_integer(this, &data, id, &own.integer) == 0) {
        *reading = own;
        return true;
      }
    }
  }
  return BuiltIn(id, reading);
}

bool ExternalConfig::Register_Library_Commerce(const char* name, const char* path) {
  return commerce_manager != nullptr && commerce_manager->RegisterDSO(name, path);
}

bool ExternalConfig::Register_Library_Database(const char* name, const char* path) {
  return database_manager != nullptr && database_manager->RegisterDSO(name, path);
}

bool ExternalConfig::Register_Library_System(const char* name, const char* path) {
  return system_manager != nullptr && system_manager->RegisterDSO(name, path);
}

bool ExternalConfig::Register_Library_Builtin(const char* path) {
  return call_manager != nullptr && call_manager->RegisterDSO(path);
}

void ExternalConfig::SetVariable_System(const char* name, int namelength, const char* value,
                                        int valuelength) {
  VariableRef variable(new ImmutableVariable(name, namelength, value, valuelength));
  pending_system.Insert(variable.get(), ListTail);
  (void)variable.release();
}

void ExternalConfig::SetVariable_Global(const char* name, int namelength, const char* value,
                                        int valuelength) {
  VariableRef variable(new Variable(name, namelength, value, valuelength));
  pending_global.Insert(variable.get(), ListTail);
  (void)variable.release();
}

void ExternalConfig::AddVariables() {
  MoveAll(pending_system, system_variables);
  MoveAll(pending_global, global_variables);
}

void ExternalConfig::Set_DefaultErrorSetting(const char* tag, int taglength, int value) {
  const TagKeyword* keyword = tag_lookup.Lookup(tag, taglength);
  if (keyword != nullptr) SetDefaultErrorSetting(keyword->tag, value);
}
