// A configuration library that fails at the point that the environment names: ZEPH_TEST_FAULT is
// "no table", "initialize", "initialize silently", "script", "script silently" or "version 1"; with
// "directories again" it sets the directories again after they were read. ZEPH_TEST_ROOT is the
// folder that contains scripts, data and temp.

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "api/zeph.h"
#include "base/host/Settings.h"

namespace {

bool FaultIs(const char* name) {
  const char* fault = getenv("ZEPH_TEST_FAULT");
  return fault && strcmp(fault, name) == 0;
}

char* Copy(const std::string& text) {
  char* copy = new char[text.size() + 1];
  memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}

int Initialize(ZPCONFIG, void**, int, void*, int) {
  return FaultIs("initialize") || FaultIs("initialize silently");
}

int GetText(ZPCONFIG, void**, int id, const char** text, int* length, int* owned) {
  static const std::string root = getenv("ZEPH_TEST_ROOT");
  static const std::string scripts = root + "/scripts";
  static const std::string data = root + "/data";
  const std::string* value = id == Config_dir_zeph   ? &scripts
                             : id == Config_dir_data ? &data
                                                     : nullptr;
  if (!value) return 1;
  *owned = FaultIs("directories again");
  *text = *owned ? Copy(*value) : value->c_str();
  *length = static_cast<int>(value->size());
  return 0;
}

// Read after the directories and before they are used.
int GetNumber(ZPCONFIG config, void**, int id, int*) {
  if (!FaultIs("directories again") || id != Config_max_files) return 1;
  const std::string root = getenv("ZEPH_TEST_ROOT");
  const std::string nowhere(root.size() + strlen("/scripts"), '?');
  zpConfig_SetValue(config, Config_dir_zeph, Copy(nowhere), static_cast<int>(nowhere.size()), 1);
  // Overwrites the memory that was freed.
  static std::vector<char*> taken;
  for (int i = 0; i < 1000; i++) taken.push_back(Copy(nowhere));
  return 1;
}

const char* GetError(ZPCONFIG, void**) {
  return "the test's own words";
}

int LoadScriptConfig(ZPCONFIG, void**, const char*, File*) {
  return FaultIs("script") || FaultIs("script silently");
}

}  // namespace

extern "C" _ZP_EL_Config* zeph_config_library() {
  static _ZP_EL_Config table;
  if (FaultIs("no table")) return nullptr;
  bool silent = FaultIs("initialize silently") || FaultIs("script silently");
  table.version = FaultIs("version 1") ? 1 : 2;
  table.initialize = Initialize;
  table.load_script_v1 = FaultIs("version 1") ? &table : nullptr;
  table.get_integer = GetNumber;
  table.get_string = GetText;
  table.get_error = silent ? nullptr : GetError;
  table.load_script_config = LoadScriptConfig;
  return &table;
}
