// The content of one state of the configuration file. Parsed once, never changed afterwards, shared
// by all requests until the file changes.

#ifndef ZEPH_CONFIG_SNAPSHOT_H
#define ZEPH_CONFIG_SNAPSHOT_H

#include "base/host/TagErrors.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// A setting that the file gives.
struct Setting {
  int id = 0;
  int integer = 0;   // of an integer setting
  std::string text;  // of a text setting
};

// A [[script]] section: the settings for the scripts that match.
struct ScriptSection {
  std::string match;  // without a leading slash
  std::vector<Setting> settings;
};

enum class LibraryKind { Builtin, Commerce, Database, System };

// A [[library]] section.
struct LibrarySection {
  LibraryKind kind = LibraryKind::Builtin;
  std::string name;  // may be empty for a builtin library
  std::string path;
};

// The [process] section: what the engine reads when it starts.
struct ProcessSection {
  std::string status_listen;  // empty for no page of status
  int max_requests = 0;       // 0 means no limit
};

struct NamedValue {
  std::string name;
  std::string value;
};

// The action for the errors of each tag, by tag number.
using ErrorSettings = std::array<int, tag_count>;
ErrorSettings ShippedErrorSettings();

struct Snapshot {
  // Parses a file's text. `file` is the file's name in messages. If the text has errors, the
  // snapshot has only these, the warnings, those settings that say what becomes of errors
  // (error_log, show_errors and status_codes), and what is in order in the section [process], which
  // is read only once.
  static Snapshot Parse(const std::string& file, std::string_view text);
  // A snapshot with this as its only error.
  static Snapshot Failed(const std::string& message);

  // Returns the setting that the file gives outside of [[script]] sections, or null.
  const Setting* Find(int id) const;

  // "file:line: key: what is wrong" of the first bad line, empty when the file is in order.
  std::string error;
  // All of them, in the order of the file. Broken TOML ends the reading, so it is the only one.
  std::vector<std::string> errors;
  // Lines of the same form about what is valid but was probably meant otherwise.
  std::vector<std::string> warnings;
  // Grows by one with each snapshot that a store puts into force.
  uint64_t generation = 0;

  std::vector<Setting> settings;  // sorted by identifier
  std::vector<ScriptSection> scripts;
  std::vector<LibrarySection> libraries;
  ProcessSection process;
  std::vector<NamedValue> system_variables;
  std::vector<NamedValue> global_variables;
  // The shipped values, changed by [errors].
  ErrorSettings error_settings = {};
};

#endif
