// Reads and changes zeph.toml. Tested in tests/develop/SettingsTest.cpp.

#include "develop/Settings.h"

#include <cerrno>
#include <cstring>
#include <map>
#include <utility>

#include "base/core/ascii.h"
#include "compiler/PageFiles.h"
#include "config/Snapshot.h"

#define TOML_EXCEPTIONS 0
#define TOML_ENABLE_FORMATTERS 0
#include <toml++/toml.h>

namespace fs = std::filesystem;

const char settings_name[] = "zeph.toml";

namespace {

constexpr char kStandardLibrary[] = "zephstd.so";

std::string Quoted(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted + "\"";
}

// The lines of a file, with the changes of some of them.
class Lines {
 public:
  explicit Lines(const std::string& text) {
    for (size_t at = 0; at < text.size();) {
      const size_t end = std::min(text.find('\n', at), text.size());
      lines.push_back(text.substr(at, end - at));
      at = end + 1;
    }
  }

  // Leaves out a value that may reach over several lines.
  void Drop(const toml::source_region& region) {
    for (unsigned line = region.begin.line; line <= region.end.line; line++) {
      if (std::string* text = At(line)) text->clear();
    }
  }
  // Replaces a value of one line. Values of a line have to come in their order.
  void Replace(const toml::source_region& region, const std::string& value) {
    if (region.begin.line == region.end.line) replacements.push_back({region, value});
  }

  std::string Text() {
    // From the last to the first, so that the columns before stay what they were.
    for (auto row = replacements.rbegin(); row != replacements.rend(); ++row) {
      std::string* line = At(row->region.begin.line);
      if (!line) continue;
      const size_t begin = Offset(*line, row->region.begin.column);
      const size_t end = Offset(*line, row->region.end.column);
      if (begin <= end) line->replace(begin, end - begin, row->value);
    }
    replacements.clear();
    std::string text;
    for (const std::string& line : lines) text += line + "\n";
    return text;
  }

 private:
  std::string* At(unsigned line) {
    return line >= 1 && line <= lines.size() ? &lines[line - 1] : nullptr;
  }
  // The offset of a column, which is counted in characters from 1.
  static size_t Offset(const std::string& text, unsigned column) {
    size_t at = 0;
    for (unsigned passed = 1; at < text.size(); at++) {
      const bool begins = (static_cast<unsigned char>(text[at]) & 0xC0) != 0x80;
      if (begins && passed++ == column) return at;
    }
    return at;
  }

  struct Replacement {
    toml::source_region region;
    std::string value;
  };

  std::vector<std::string> lines;
  std::vector<Replacement> replacements;
};

class Reader {
 public:
  Reader(const fs::path& root, const Places& places, SiteSettings* settings)
      : root(root), places(places), settings(settings) {}

  void Read(const SiteFolders& folders) {
    std::string head;
    head += "dir_zeph = " + Quoted(folders.pages.string()) + "\n";
    head += "dir_data = " + Quoted(folders.data.string()) + "\n";
    head += "dir_temp = " + Quoted(folders.temporary.string()) + "\n";
    if (ReadWholeFile(root / settings_name, &source)) {
      settings->text = head + Changed();
      return;
    }
    if (errno != ENOENT) Report(0, strerror(errno));
    settings->text = head;
    const fs::path standard = places.Library(kStandardLibrary);
    if (standard.empty()) return;
    settings->text += "[[library]]\nkind = \"builtin\"\npath = " + Quoted(standard.string()) + "\n";
    AddFunctions(standard);
  }

 private:
  std::string Changed() {
    // The engine's own reader finds what it will not accept. Its text begins with file and line.
    const Snapshot snapshot = Snapshot::Parse(settings_name, source);
    for (const std::string& error : snapshot.errors) ReportReader(error, true);
    for (const std::string& warning : snapshot.warnings) ReportReader(warning, false);
    if (!snapshot.errors.empty()) return "";
    const toml::parse_result result = toml::parse(source);
    if (result.failed()) return "";
    Lines lines(source);
    const toml::table& table = result.table();
    for (const char* name : {"dir_zeph", "dir_data", "dir_temp"}) {
      if (const toml::node* node = table.get(name)) lines.Drop(node->source());
    }
    const toml::node* libraries = table.get("library");
    if (const toml::array* array = libraries ? libraries->as_array() : nullptr) {
      for (const toml::node& node : *array) {
        if (const toml::table* library = node.as_table()) ReadLibrary(*library, &lines);
      }
    }
    return lines.Text();
  }

  void ReadLibrary(const toml::table& library, Lines* lines) {
    const toml::node* node = library.get("path");
    if (!node || !node->is_string()) return;
    const fs::path path = node->as_string()->get();
    const fs::path found = FindLibrary(path);
    if (found.empty()) {
      Report(static_cast<int>(node->source().begin.line),
             "there is no library '" + path.string() + "', neither here nor with zeph");
      return;
    }
    lines->Replace(node->source(), Quoted(found.string()));
    AddFunctions(found);
  }

  fs::path FindLibrary(const fs::path& path) const {
    std::error_code failure;
    fs::path own = fs::absolute(root / path).lexically_normal();
    if (fs::is_regular_file(own, failure)) return own;
    const fs::path with_zeph = path.is_absolute() ? fs::path() : places.Library(path.string());
    return with_zeph.empty() ? places.Library(path.filename().string()) : with_zeph;
  }

  // The file is beside a library, but an installation has it with the files that are no programs.
  void AddFunctions(const fs::path& library) {
    fs::path path = library;
    path.replace_extension(".functions");
    // One that is made later counts then.
    settings->files.push_back(path);
    FunctionsFile file;
    if (!ReadWholeFile(path, &file.text)) {
      if (!places.IsShipped(library)) return;
      path = places.shared / path.filename();
      settings->files.push_back(path);
      if (!ReadWholeFile(path, &file.text)) return;
    }
    const std::string inside = path.lexically_relative(root).string();
    file.name = inside.empty() || inside.compare(0, 2, "..") == 0 ? path.string() : inside;
    settings->functions.push_back(std::move(file));
  }

  void ReportReader(const std::string& error, bool is_error) {
    size_t at = strlen(settings_name);
    int line = 0;
    if (error.compare(0, at + 1, std::string(settings_name) + ":") == 0) {
      const size_t digits = at + 1;
      for (at = digits; at < error.size() && zp_isdigit(error[at]) && at < digits + 8; at++) {
        line = line * 10 + (error[at] - '0');
      }
      at = error.compare(at, 2, ": ") == 0 ? at + 2 : digits;
    } else {
      at = 0;
    }
    Report(line, error.substr(at), is_error);
  }

  void Report(int line, const std::string& text, bool is_error = true) {
    Problem problem;
    problem.is_error = is_error;
    problem.file = settings_name;
    problem.line = line;
    problem.column = line > 0 ? 1 : 0;
    problem.text = text;
    problem.Quote(source);
    problem.tag.clear();
    settings->problems.push_back(problem);
  }

  const fs::path& root;
  const Places& places;
  SiteSettings* settings;
  std::string source;
};

}  // namespace

SiteSettings ReadSettings(const fs::path& root, const SiteFolders& folders, const Places& places) {
  SiteSettings settings;
  Reader(root, places, &settings).Read(folders);
  return settings;
}
