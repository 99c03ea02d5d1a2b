// The identifiers, script names and built-in defaults of all settings, as constants. Includes
// nothing else of the engine, so that a configuration library may include it too.

#ifndef ZEPH_BASE_SETTINGS_H
#define ZEPH_BASE_SETTINGS_H

// The identifiers of settings for Config and configuration libraries: Config_timeout_global and so
// on.
enum ConfigID : int {
#define ZEPH_SETTING_TEXT(name, identifier, value) Config_##name = (identifier),
#define ZEPH_SETTING_INTEGER(name, identifier, value) Config_##name = (identifier),
#include "base/host/Settings.def"
#undef ZEPH_SETTING_TEXT
#undef ZEPH_SETTING_INTEGER
};

// The kind bits of an identifier.
enum ConfigKind : int {
  ConfigKind_Integer = 0x1000000,
  ConfigKind_Text = 0x2000000,
  ConfigKind_Mask = 0xF000000,
  ConfigKind_Hidden = 0x800000,  // added to a kind: not for scripts
};

// One row of the list of settings. A text setting has default_integer 0; an integer setting has
// default_text null, and so has a text setting without a default.
struct ConfigSetting {
  const char* name;
  int id;
  const char* default_text;
  int default_integer;
};

// All settings, in the order in which scripts list them.
inline constexpr ConfigSetting config_settings[] = {
#define ZEPH_SETTING_TEXT(name, identifier, value) {#name, identifier, value, 0},
#define ZEPH_SETTING_INTEGER(name, identifier, value) {#name, identifier, nullptr, value},
#include "base/host/Settings.def"
#undef ZEPH_SETTING_TEXT
#undef ZEPH_SETTING_INTEGER
};

#endif
