// Parses the configuration file. Tested in tests/config/SnapshotTest.cpp.

#include "config/Snapshot.h"

#include "base/host/Settings.h"
#include "base/host/TagLookup.h"
#include "config/Suggestion.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <map>

// Compile the TOML library without exceptions and without the parts that write TOML.
#define TOML_EXCEPTIONS 0
#define TOML_ENABLE_FORMATTERS 0
#include <toml++/toml.h>

namespace {

// One "key = value" of a section.
struct Item {
  std::string_view key;
  const toml::node* node;
  unsigned line;
};

// Returns a table's items in the order of the file; the table itself is sorted by key.
std::vector<Item> InFileOrder(const toml::table& table) {
  std::vector<Item> items;
  for (auto&& [key, node] : table) {
    items.push_back({key.str(), &node, key.source().begin.line});
  }
  std::stable_sort(items.begin(), items.end(),
                   [](const Item& a, const Item& b) { return a.line < b.line; });
  return items;
}

const char* Found(const toml::node& node) {
  switch (node.type()) {
    case toml::node_type::table: return "a section";
    case toml::node_type::array: return "an array";
    case toml::node_type::string: return "text";
    case toml::node_type::integer: return "an integer";
    case toml::node_type::floating_point: return "a number with a fraction";
    case toml::node_type::boolean: return "true or false";
    default: return "a date or time";
  }
}

std::string Quoted(std::string_view text) {
  return "\"" + std::string(text) + "\"";
}

std::string LowerCase(std::string_view text) {
  std::string result(text);
  for (char& c : result) {
    if (c >= 'A' && c <= 'Z') c = char(c - 'A' + 'a');
  }
  return result;
}

const ConfigSetting* FindSetting(std::string_view name) {
  for (const ConfigSetting& setting : config_settings) {
    if (name == setting.name) return &setting;
  }
  return nullptr;
}

// False for settings that the engine uses to find the script: they are applied before it is known.
bool CanDifferByScript(int id) {
  switch (id) {
    case Config_dir_zeph:
    case Config_dir_temp:
    case Config_dir_user:
    case Config_default_file:
    case Config_path_from_script_name:
    case Config_max_files: return false;
    default: return true;
  }
}

// True for settings of the whole process: they are needed before a request's script is known.
bool BelongsToProcess(int id) {
  return id == Config_error_log || id == Config_timeout_request;
}

// True for settings by which the operator learns of an error, and visitors do not. A file with a
// mistake in another setting still has these.
bool IsForErrors(int id) {
  return id == Config_error_log || id == Config_show_errors || id == Config_status_codes;
}

// True for integers that may also be written as true and false.
bool IsSwitch(int id) {
  return id == Config_show_errors || id == Config_status_codes ||
         id == Config_path_from_script_name;
}

// True for settings in which a negative number has a meaning of its own. In all other times, sizes
// and counts it is a mistake.
bool CanBeNegative(int id) {
  switch (id) {
    case Config_log_level:
    case Config_timeout_file:
    case Config_cookies:
    case Config_max_post_vars:
    case Config_max_unknown_content_length:
    case Config_flags_security:
    case Config_ssl_sni: return true;
    default: return false;
  }
}

// ", the nearest known one is X" if one is near enough to be what the author meant.
std::string Nearest(std::string_view word, const std::vector<std::string_view>& known) {
  const std::string_view nearest = NearestWord(word, known);
  const auto distance = static_cast<size_t>(EditDistance(word, nearest));
  if (distance > 1 + nearest.size() / 3 || distance >= nearest.size()) return "";
  return ", the nearest known one is " + Quoted(nearest);
}

std::vector<std::string_view> SettingNames() {
  std::vector<std::string_view> names;
  for (const ConfigSetting& setting : config_settings) names.push_back(setting.name);
  return names;
}

// Fills a snapshot from a parsed file, and collects what is wrong with it.
class Reader {
 public:
  Reader(const std::string& file_name, Snapshot& target) : file(file_name), snapshot(target) {}

  void Read(const toml::table& root);

 private:
  void Complain(unsigned line, const std::string& key, const std::string& what);
  void Warn(unsigned line, const std::string& key, const std::string& what);
  // A line of the file and the text about it.
  struct Report {
    unsigned line;
    std::string text;
  };
  static std::vector<std::string> InLineOrder(std::vector<Report> reports);
  void UnknownKey(const std::string& section, const Item& item,
                  const std::vector<std::string_view>& known);
  bool ExpectTable(const std::string& key, const Item& item);
  bool ReadText(const std::string& key, const Item& item, std::string* text);
  bool ReadInteger(const std::string& key, const Item& item, int* value);
  void ReadSetting(const ConfigSetting& setting, const std::string& key, const Item& item,
                   std::vector<Setting>* target);
  void ReadProcess(const Item& section);
  void ReadErrors(const Item& section);
  void ReadVariables(const Item& section);
  void ReadVariableList(const std::string& name, const Item& section,
                        std::vector<NamedValue>* target);
  void ReadSections(const Item& sections, void (Reader::*read)(const toml::table&, unsigned));
  void ReadLibrary(const toml::table& table, unsigned line);
  void ReadScript(const toml::table& table, unsigned line);
  bool ReadLibraryKind(const std::string& key, const Item& item, LibraryKind* kind);

  const std::string& file;
  Snapshot& snapshot;
  std::vector<Report> errors;
  std::vector<Report> warnings;
  // The libraries by kind and lower-case name, with their lines.
  std::map<std::pair<LibraryKind, std::string>, unsigned> library_names;
};

void Reader::Complain(unsigned line, const std::string& key, const std::string& what) {
  errors.push_back({line, file + ":" + std::to_string(line) + ": " + key + ": " + what});
}

void Reader::Warn(unsigned line, const std::string& key, const std::string& what) {
  warnings.push_back({line, file + ":" + std::to_string(line) + ": " + key + ": " + what});
}

std::vector<std::string> Reader::InLineOrder(std::vector<Report> reports) {
  std::stable_sort(reports.begin(), reports.end(),
                   [](const Report& a, const Report& b) { return a.line < b.line; });
  std::vector<std::string> texts;
  texts.reserve(reports.size());
  for (Report& report : reports) texts.push_back(std::move(report.text));
  return texts;
}

// section is the path of the section followed by a dot, or empty at the top.
void Reader::UnknownKey(const std::string& section, const Item& item,
                        const std::vector<std::string_view>& known) {
  std::string what = "unknown key" + Nearest(item.key, known);
  if (!section.empty() && FindSetting(item.key) != nullptr) {
    what = "unknown key; it is a setting, and settings stand above the first section";
  }
  Complain(item.line, section + std::string(item.key), what);
}

bool Reader::ExpectTable(const std::string& key, const Item& item) {
  if (item.node->is_table()) return true;
  Complain(item.line, key, "expected a section [" + key + "], found " + Found(*item.node));
  return false;
}

bool Reader::ReadText(const std::string& key, const Item& item, std::string* text) {
  const toml::value<std::string>* value = item.node->as_string();
  if (value == nullptr) {
    Complain(item.line, key, std::string("expected text in quotes, found ") + Found(*item.node));
    return false;
  }
  if (value->get().find('\0') != std::string::npos) {
    Complain(item.line, key, "a NUL byte cannot be part of a text");
    return false;
  }
  *text = value->get();
  return true;
}

bool Reader::ReadInteger(const std::string& key, const Item& item, int* result) {
  const toml::value<int64_t>* value = item.node->as_integer();
  if (value == nullptr) {
    Complain(item.line, key, std::string("expected an integer, found ") + Found(*item.node));
    return false;
  }
  if (value->get() < INT_MIN || value->get() > INT_MAX) {
    Complain(item.line, key, std::to_string(value->get()) + " does not fit into 32 bits");
    return false;
  }
  *result = int(value->get());
  return true;
}

// Returns what is wrong with the value of a setting, empty if nothing is.
std::string Objection(const Setting& setting) {
  const std::string number = std::to_string(setting.integer);
  if (IsSwitch(setting.id) && setting.integer != 0 && setting.integer != 1) {
    return "expected true or false, found " + number;
  }
  if (!CanBeNegative(setting.id) && setting.integer < 0) {
    return "expected 0 or more, found " + number;
  }
  const bool is_path = !setting.text.empty() && setting.text[0] == '/';
  if (setting.id == Config_error_log && !is_path && setting.text != "stderr" &&
      setting.text != "syslog") {
    return "expected \"stderr\", \"syslog\" or an absolute path, found " + Quoted(setting.text);
  }
  if (setting.id == Config_slow_log && !is_path) {
    return "expected an absolute path, found " + Quoted(setting.text);
  }
  return "";
}

void Reader::ReadSetting(const ConfigSetting& setting, const std::string& key, const Item& item,
                         std::vector<Setting>* target) {
  Setting read;
  read.id = setting.id;
  bool is_text = (setting.id & ConfigKind_Text) != 0;
  bool good;
  if (const toml::value<bool>* value = item.node->as_boolean(); value && IsSwitch(setting.id)) {
    read.integer = value->get() ? 1 : 0;
    good = true;
  } else if (is_text) {
    good = ReadText(key, item, &read.text);
  } else {
    good = ReadInteger(key, item, &read.integer);
  }
  if (!good) return;
  if (const std::string what = Objection(read); !what.empty())
    return Complain(item.line, key, what);
  target->push_back(read);
}

void Reader::ReadProcess(const Item& section) {
  if (!ExpectTable("process", section)) return;
  for (const Item& item : InFileOrder(*section.node->as_table())) {
    const std::string key = "process." + std::string(item.key);
    if (item.key == "status_listen") {
      ReadText(key, item, &snapshot.process.status_listen);
    } else if (item.key == "max_requests") {
      int count = 0;
      if (!ReadInteger(key, item, &count)) continue;
      if (count < 0) {
        Complain(item.line, key, "expected 0 or more, found " + std::to_string(count));
      } else {
        snapshot.process.max_requests = count;
      }
    } else {
      UnknownKey("process.", item, {"status_listen", "max_requests"});
    }
  }
}

void Reader::ReadErrors(const Item& section) {
  if (!ExpectTable("errors", section)) return;
  TagLookup lookup;
  std::map<int, std::string_view> seen;
  for (const Item& item : InFileOrder(*section.node->as_table())) {
    std::string key = "errors." + std::string(item.key);
    const TagKeyword* keyword = lookup.Lookup(item.key.data(), int(item.key.size()));
    if (keyword == nullptr) {
      std::vector<std::string_view> known;
      known.reserve(std::size(tag_keywords));
      for (const TagKeyword& each : tag_keywords) known.push_back(each.text);
      UnknownKey("errors.", item, known);
      continue;
    }
    int value = 0;
    if (!ReadInteger(key, item, &value)) continue;
    if (value < 0 || value > (TagError_Display | TagError_Fatal)) {
      Complain(item.line, key, "expected 0 to 3, found " + std::to_string(value));
    }
    auto [other, fresh] = seen.emplace(keyword->tag, item.key);
    if (!fresh) Complain(item.line, key, "the same tag as " + Quoted(other->second));
    snapshot.error_settings[size_t(keyword->tag)] = value;
  }
}

void Reader::ReadVariables(const Item& section) {
  if (!ExpectTable("variables", section)) return;
  for (const Item& item : InFileOrder(*section.node->as_table())) {
    if (item.key == "system") {
      ReadVariableList("variables.system", item, &snapshot.system_variables);
    } else if (item.key == "global") {
      ReadVariableList("variables.global", item, &snapshot.global_variables);
    } else {
      UnknownKey("variables.", item, {"system", "global"});
    }
  }
}

// Returns the shortest text that reads back as the same number.
template <typename Number>
std::string NumberText(Number number) {
  char buffer[32];
  std::to_chars_result end = std::to_chars(buffer, buffer + sizeof buffer, number);
  return std::string(buffer, end.ptr);
}

void Reader::ReadVariableList(const std::string& name, const Item& section,
                              std::vector<NamedValue>* target) {
  if (!ExpectTable(name, section)) return;
  std::map<std::string, std::string_view> seen;
  for (const Item& item : InFileOrder(*section.node->as_table())) {
    std::string key = name + "." + std::string(item.key);
    NamedValue variable;
    variable.name = item.key;
    if (item.key.empty() || item.key.find('\0') != std::string_view::npos) {
      Complain(item.line, key, "not a name that a variable can have");
    }
    if (FindSetting(item.key) != nullptr) {
      Warn(item.line, key,
           "here it is a variable; the setting of this name belongs above the first section");
    }
    auto [other, fresh] = seen.emplace(LowerCase(item.key), item.key);
    if (!fresh) Complain(item.line, key, "the same variable as " + Quoted(other->second));
    if (const toml::value<int64_t>* integer = item.node->as_integer()) {
      variable.value = NumberText(integer->get());
    } else if (const toml::value<double>* number = item.node->as_floating_point();
               number != nullptr && std::isfinite(number->get())) {
      variable.value = NumberText(number->get());
    } else if (item.node->is_string()) {
      if (!ReadText(key, item, &variable.value)) continue;
    } else {
      Complain(item.line, key, "expected text in quotes or a number");
      continue;
    }
    target->push_back(variable);
  }
}

// Reads each element of an array of sections, [[library]] or [[script]].
void Reader::ReadSections(const Item& sections,
                          void (Reader::*read)(const toml::table&, unsigned)) {
  std::string name(sections.key);
  const toml::array* array = sections.node->as_array();
  if (array == nullptr) {
    Complain(sections.line, name,
             "expected sections [[" + name + "]], found " + Found(*sections.node));
    return;
  }
  for (const toml::node& element : *array) {
    unsigned line = element.source().begin.line;
    if (const toml::table* table = element.as_table()) {
      (this->*read)(*table, line);
    } else {
      Complain(line, name, "expected a section [[" + name + "]], found " + Found(element));
    }
  }
}

bool Reader::ReadLibraryKind(const std::string& key, const Item& item, LibraryKind* kind) {
  std::string text;
  if (!ReadText(key, item, &text)) return false;
  const std::pair<std::string_view, LibraryKind> kinds[] = {{"builtin", LibraryKind::Builtin},
                                                            {"commerce", LibraryKind::Commerce},
                                                            {"database", LibraryKind::Database},
                                                            {"system", LibraryKind::System}};
  std::vector<std::string_view> known;
  for (const auto& [name, value] : kinds) {
    known.push_back(name);
    if (text != name) continue;
    *kind = value;
    return true;
  }
  Complain(item.line, key, "unknown kind " + Quoted(text) + Nearest(text, known));
  return false;
}

void Reader::ReadLibrary(const toml::table& table, unsigned line) {
  LibrarySection library;
  bool has_kind = false;
  bool good = true;
  for (const Item& item : InFileOrder(table)) {
    std::string key = "library." + std::string(item.key);
    if (item.key == "kind") {
      has_kind = true;
      good = ReadLibraryKind(key, item, &library.kind) && good;
    } else if (item.key == "name") {
      good = ReadText(key, item, &library.name) && good;
    } else if (item.key == "path") {
      good = ReadText(key, item, &library.path) && good;
    } else {
      UnknownKey("library.", item, {"kind", "name", "path"});
    }
  }
  if (!good) return;
  if (!has_kind) return Complain(line, "library.kind", "missing");
  if (library.path.empty()) return Complain(line, "library.path", "missing or empty");
  if (library.kind != LibraryKind::Builtin) {
    if (library.name.empty()) return Complain(line, "library.name", "missing or empty");
    auto [other, fresh] =
        library_names.emplace(std::make_pair(library.kind, LowerCase(library.name)), line);
    if (!fresh) {
      Complain(line, "library.name",
               "a library of this kind and name is in line " + std::to_string(other->second));
    }
  }
  snapshot.libraries.push_back(library);
}

void Reader::ReadScript(const toml::table& table, unsigned line) {
  ScriptSection script;
  bool has_match = false;
  for (const Item& item : InFileOrder(table)) {
    std::string key = "script." + std::string(item.key);
    if (item.key == "match") {
      has_match = true;
      if (!ReadText(key, item, &script.match)) continue;
      // Paths of scripts have no leading slash, but administrators write one.
      script.match.erase(0, script.match.find_first_not_of('/'));
      if (script.match.empty()) Complain(item.line, key, "matches no script");
      continue;
    }
    const ConfigSetting* setting = FindSetting(item.key);
    if (setting == nullptr) {
      std::vector<std::string_view> known = SettingNames();
      known.push_back("match");
      UnknownKey("script.", item, known);
    } else if (!CanDifferByScript(setting->id)) {
      Complain(item.line, key, "is used to find the script, so it cannot differ between scripts");
    } else if (BelongsToProcess(setting->id)) {
      Complain(item.line, key, "belongs to the process, so it cannot differ between scripts");
    } else {
      ReadSetting(*setting, key, item, &script.settings);
    }
  }
  if (!has_match) Complain(line, "script.match", "missing");
  snapshot.scripts.push_back(script);
}

void Reader::Read(const toml::table& root) {
  for (const Item& item : InFileOrder(root)) {
    if (item.key == "process") {
      ReadProcess(item);
    } else if (item.key == "errors") {
      ReadErrors(item);
    } else if (item.key == "variables") {
      ReadVariables(item);
    } else if (item.key == "library") {
      ReadSections(item, &Reader::ReadLibrary);
    } else if (item.key == "script") {
      ReadSections(item, &Reader::ReadScript);
    } else if (const ConfigSetting* setting = FindSetting(item.key)) {
      ReadSetting(*setting, std::string(item.key), item, &snapshot.settings);
    } else {
      std::vector<std::string_view> known = SettingNames();
      for (const char* section : {"process", "errors", "variables", "library", "script"}) {
        known.push_back(section);
      }
      UnknownKey("", item, known);
    }
  }
  std::sort(snapshot.settings.begin(), snapshot.settings.end(),
            [](const Setting& a, const Setting& b) { return a.id < b.id; });
  snapshot.errors = InLineOrder(std::move(errors));
  snapshot.warnings = InLineOrder(std::move(warnings));
  if (!snapshot.errors.empty()) snapshot.error = snapshot.errors.front();
}

}  // namespace

ErrorSettings ShippedErrorSettings() {
  ErrorSettings settings = {};
#define ZEPH_TAG(number, name, value) settings[number] = value;
#define ZEPH_TAG_EXPRESSION(number, name, variable, value) settings[number] = value;
#include "base/host/TagErrors.def"
#undef ZEPH_TAG
#undef ZEPH_TAG_EXPRESSION
  return settings;
}

Snapshot Snapshot::Failed(const std::string& message) {
  Snapshot snapshot;
  snapshot.error = message;
  snapshot.errors = {message};
  return snapshot;
}

Snapshot Snapshot::Parse(const std::string& file, std::string_view text) {
  toml::parse_result result = toml::parse(text);
  if (result.failed()) {
    const toml::parse_error& error = result.error();
    return Failed(file + ":" + std::to_string(error.source().begin.line) + ": " +
                  std::string(error.description()));
  }
  Snapshot snapshot;
  snapshot.error_settings = ShippedErrorSettings();
  Reader(file, snapshot).Read(result.table());
  if (snapshot.error.empty()) return snapshot;
  Snapshot failed = Failed(snapshot.error);
  failed.errors = std::move(snapshot.errors);
  failed.warnings = std::move(snapshot.warnings);
  failed.process = std::move(snapshot.process);
  for (const Setting& setting : snapshot.settings) {
    if (IsForErrors(setting.id)) failed.settings.push_back(setting);
  }
  return failed;
}

const Setting* Snapshot::Find(int id) const {
  auto found =
      std::lower_bound(settings.begin(), settings.end(), id,
                       [](const Setting& setting, int wanted) { return setting.id < wanted; });
  return found != settings.end() && found->id == id ? &*found : nullptr;
}
