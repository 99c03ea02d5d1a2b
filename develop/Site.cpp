// Finds out which pages have to be compiled again. Tested in tests/develop/SiteTest.cpp.

#include "develop/Site.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/core/ascii.h"
#include "compiler/Compiler.h"
#include "compiler/PageFiles.h"

namespace fs = std::filesystem;

namespace {

// zeph.toml, and what is made from it by hand: it may have passwords.
bool IsAboutSettings(const std::string& name) {
  const std::string settings = settings_name;
  return name == settings || name.rfind(settings + ".", 0) == 0;
}

// Whether a file may be in a folder that could not be read.
bool IsInOneOf(const std::vector<UnreadFolder>& folders, const std::string& name) {
  return std::any_of(folders.begin(), folders.end(), [&](const UnreadFolder& folder) {
    return folder.name.empty() || name.rfind(folder.name + "/", 0) == 0;
  });
}

}  // namespace

bool IsStaticFile(const std::string& name) {
  // The later ones are copies that editors and other tools leave beside a source.
  static const char* const own[] = {".zeph", ".zpa", ".zpc", ".functions", ".bak", ".orig",
                                    ".rej",  ".swp", ".swo", ".save",      ".old"};
  std::string lower = name;
  for (char& c : lower) c = static_cast<char>(zp_tolower(static_cast<unsigned char>(c)));
  const fs::path path = lower;
  if (lower == "readme.md" || IsAboutSettings(path.filename().string())) return false;
  if (lower.back() == '~') return false;
  if (std::any_of(path.begin(), path.end(), [](const fs::path& part) {
        return part.string()[0] == '.' || part.string()[0] == '#';
      })) {
    return false;
  }
  return std::none_of(std::begin(own), std::end(own),
                      [&](const char* end) { return path.extension() == end; });
}

SitePage CompileSitePage(const fs::path& root, const std::string& name,
                         const SiteOptions& options) {
  SitePage page;
  const fs::path path = (root / name).lexically_normal();
  page.files.insert(path.string());
  std::string source;
  if (!ReadWholeFile(path, &source)) {
    Problem problem;
    problem.file = name;
    problem.text = strerror(errno);
    page.formatted = problem.Text("") + "\n";
    page.problems.push_back(problem);
    return page;
  }
  const std::vector<std::string> no_folders;
  PageIncludes includes(root, no_folders);
  CompileOptions compile;
  compile.defines = options.defines;
  compile.functions_files = options.functions;
  compile.reader = [&includes](const std::string& file, const std::string& from, std::string* found,
                               std::string* text) {
    return includes.Read(file, from, found, text);
  };
  CompileResult result = CompilePage(source, name, compile);
  page.succeeded = result.succeeded;
  page.image = std::move(result.image);
  page.formatted = std::move(result.formatted);
  for (const std::string& file : result.files) page.files.insert(includes.Path(file));
  // A file that is missing, or that is found elsewhere so far, counts when it comes.
  page.files.insert(includes.missing().begin(), includes.missing().end());
  std::map<std::string, std::string> texts = {{name, source}};
  for (const CompileMessage& message : result.messages) {
    Problem problem;
    problem.file = message.file;
    problem.line = message.line;
    problem.column = message.column;
    problem.length = message.length;
    problem.is_error = message.is_error;
    problem.text = message.text;
    auto [text, is_new] = texts.try_emplace(message.file);
    if (!is_new || ReadWholeFile(includes.Path(message.file), &text->second)) {
      problem.Quote(text->second);
    }
    page.problems.push_back(std::move(problem));
  }
  return page;
}

Site::Site(fs::path root, const SiteFolders& folders, const Places& places,
           std::vector<std::string> defines)
    : root(std::move(root)), folders(folders), places(places) {
  options.defines = std::move(defines);
}

bool Site::StampOf(const std::string& path, Stamp* stamp) {
  struct stat facts {};
  if (stat(path.c_str(), &facts) != 0) {
    if (errno != ENOENT && errno != ENOTDIR) return false;
    *stamp = {};
    return true;
  }
  constexpr int64_t nanoseconds = 1000000000;
  *stamp = {facts.st_size, facts.st_mtim.tv_sec * nanoseconds + facts.st_mtim.tv_nsec,
            facts.st_ino};
  return true;
}

void Site::Note(const std::string& path) {
  Stamp stamp;
  static_cast<void>(StampOf(path, &stamp));
  stamps.emplace(path, stamp);
}

std::set<std::string> Site::FindChanges() {
  std::map<std::string, Stamp> now;
  const std::set<std::string> names_before = std::move(names);
  names.clear();
  unread = VisitFiles(root, [&](const std::string& name) { names.insert(name); });
  for (const std::string& name : names_before) {
    if (IsInOneOf(unread, name)) names.insert(name);
  }
  for (const std::string& name : names) now.emplace((root / name).string(), Stamp());
  for (const fs::path& file : site_settings.files) now.emplace(file.string(), Stamp());
  for (const auto& [name, page] : site_pages) {
    for (const std::string& file : page.files) now.emplace(file, Stamp());
  }
  std::set<std::string> changed;
  for (auto& [path, stamp] : now) {
    auto before = stamps.find(path);
    if (!StampOf(path, &stamp) && before != stamps.end()) stamp = before->second;
    if (before == stamps.end() || before->second != stamp) changed.insert(path);
  }
  for (const auto& [path, stamp] : stamps) {
    if (!now.count(path)) changed.insert(path);
  }
  stamps = std::move(now);
  return changed;
}

Site::Changes Site::Refresh(const std::set<std::string>& touched) {
  Changes changes;
  const std::vector<UnreadFolder> unread_before = unread;
  std::set<std::string> changed = FindChanges();
  if (unread != unread_before) changes.unread = unread;
  for (const std::string& path : touched) {
    if (stamps.count(path)) changed.insert(path);
  }
  changes.files = !changed.empty();
  bool all = first;
  const bool settings_changed =
      changed.count((root / settings_name).string()) > 0 ||
      std::any_of(site_settings.files.begin(), site_settings.files.end(),
                  [&](const fs::path& file) { return changed.count(file.string()) > 0; });
  // A library that was missing may be there by now.
  if (first || settings_changed || (changes.files && site_settings.failed())) {
    site_settings = ReadSettings(root, folders, places);
    all = all || site_settings.functions != options.functions;
    options.functions = site_settings.functions;
    for (const fs::path& file : site_settings.files) Note(file.string());
    changes.settings = true;
  }
  first = false;
  for (auto page = site_pages.begin(); page != site_pages.end();) {
    if (names.count(page->first)) {
      ++page;
      continue;
    }
    changes.removed.push_back(page->first);
    Remove(page->first);
    page = site_pages.erase(page);
  }
  for (const std::string& name : names) {
    if (!IsPage(name)) continue;
    auto known = site_pages.find(name);
    const bool again =
        all || known == site_pages.end() || (!known->second.succeeded && changes.files) ||
        std::any_of(known->second.files.begin(), known->second.files.end(),
                    [&](const std::string& file) { return changed.count(file) > 0; });
    if (!again) continue;
    Compile(name);
    changes.compiled.push_back(name);
  }
  return changes;
}

void Site::Compile(const std::string& name) {
  SitePage page = CompileSitePage(root, name, options);
  const fs::path target = folders.pages / CompiledName(name);
  if (page.succeeded) {
    std::string before;
    const bool same = ReadWholeFile(target, &before) && before == page.image;
    if (!same && !WriteWholeFile(target, page.image)) {
      Problem problem;
      problem.file = name;
      problem.text = "cannot write " + target.string() + ": " + strerror(errno);
      page.problems.push_back(problem);
      page.formatted += problem.Text("") + "\n";
      page.succeeded = false;
    }
  }
  if (!page.succeeded) Remove(name);
  page.image.clear();
  // Files outside of the site are looked at from now on.
  for (const std::string& file : page.files) Note(file);
  site_pages[name] = std::move(page);
}

// Its old code must not run in the place of what was meant.
void Site::Remove(const std::string& page) {
  std::error_code ignored;
  fs::remove(folders.pages / CompiledName(page), ignored);
}

std::set<std::string> Site::OutsideFolders() const {
  std::set<std::string> outside;
  const std::string inside = root.string() + "/";
  const auto add = [&](const fs::path& file) {
    if (file.string().compare(0, inside.size(), inside) == 0) return;
    std::error_code failure;
    fs::path folder = file.parent_path();
    while (!fs::is_directory(folder, failure) && folder.has_relative_path()) {
      folder = folder.parent_path();
    }
    outside.insert(folder.string());
  };
  for (const auto& [name, page] : site_pages) {
    for (const std::string& file : page.files) add(file);
  }
  for (const fs::path& file : site_settings.files) add(file);
  return outside;
}

std::vector<Problem> Site::Errors(const std::string& page) const {
  std::vector<Problem> errors;
  for (const Problem& problem : site_settings.problems) {
    if (!problem.is_error) continue;
    errors.push_back(problem);
    errors.back().lines.clear();
  }
  auto found = site_pages.find(page);
  if (found == site_pages.end() || found->second.succeeded) return errors;
  for (const Problem& problem : found->second.problems) {
    if (problem.is_error) errors.push_back(problem);
  }
  return errors;
}
