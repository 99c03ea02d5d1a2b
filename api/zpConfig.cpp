// The functions for configuration libraries. Tested in tests/config/LibraryTest.cpp.

#include "api/zeph.h"

#include "base/extensions/ExternalConfig.h"

int zpConfig_SetValue(ZPCONFIG config, int id, const char* text, int length, int owned) {
  return config->SetValue(id, text, length, owned) ? 0 : -1;
}

int zpConfig_SetValue_Integer(ZPCONFIG config, int id, int value) {
  return config->SetValue_Integer(id, value) ? 0 : -1;
}

int zpConfig_Register_Library_Commerce(ZPCONFIG config, const char* name, const char* path) {
  config->Register_Library_Commerce(name, path);
  return 0;
}

int zpConfig_Register_Library_Database(ZPCONFIG config, const char* name, const char* path) {
  config->Register_Library_Database(name, path);
  return 0;
}

int zpConfig_Register_Library_System(ZPCONFIG config, const char* name, const char* path) {
  config->Register_Library_System(name, path);
  return 0;
}

int zpConfig_Register_Library_Builtin(ZPCONFIG config, const char* path) {
  config->Register_Library_Builtin(path);
  return 0;
}

void zpConfig_SetVariable_Global(ZPCONFIG config, const char* name, int namelength,
                                 const char* value, int valuelength) {
  config->SetVariable_Global(name, namelength, value, valuelength);
}

void zpConfig_SetVariable_System(ZPCONFIG config, const char* name, int namelength,
                                 const char* value, int valuelength) {
  config->SetVariable_System(name, namelength, value, valuelength);
}

void zpConfig_Set_DefaultErrorSetting(ZPCONFIG config, const char* tag, int taglength, int value) {
  config->Set_DefaultErrorSetting(tag, taglength, value);
}
