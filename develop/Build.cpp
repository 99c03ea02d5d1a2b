// new, build, check and run. Tested in tests/develop/CommandTest.cpp.

#include "develop/Build.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <map>
#include <set>
#include <sstream>

#include "compiler/PageFiles.h"
#include "develop/Site.h"

namespace fs = std::filesystem;

namespace {

// The list of what a build has made, in its output. Only these files are ever removed.
constexpr char kList[] = ".zeph-build";

bool IsEmptyFolder(const fs::path& path) {
  std::error_code failure;
  return fs::is_directory(path, failure) && fs::is_empty(path, failure) && !failure;
}

bool Exists(const fs::path& path) {
  std::error_code failure;
  return fs::exists(fs::symlink_status(path, failure));
}

// A path with the folder's name before it as the user has written it; none for the working one.
std::string Prefix(const fs::path& folder) {
  const std::string name = folder.lexically_normal().string();
  if (name == "." || name == "./" || name.empty()) return "";
  return name.back() == '/' ? name : name + "/";
}

std::string AllOf(const std::vector<Problem>& problems, const std::string& folder) {
  std::string text;
  for (const Problem& problem : problems) text += problem.Text(folder) + "\n";
  return text;
}

bool IsBad(const std::vector<Problem>& problems, bool warnings_fail) {
  return std::any_of(problems.begin(), problems.end(),
                     [&](const Problem& problem) { return problem.is_error || warnings_fail; });
}

// The settings of a site whose directories do not matter.
SiteOptions OptionsOf(const fs::path& root, const ZephArguments& arguments, const Places& places,
                      std::vector<Problem>* problems) {
  const SiteSettings settings = ReadSettings(root, {"/", "/", "/"}, places);
  problems->insert(problems->end(), settings.problems.begin(), settings.problems.end());
  return {arguments.defines, settings.functions};
}

// --- build ---------------------------------------------------------------------------------------

class Build {
 public:
  Build(const fs::path& root, const fs::path& target) : root(root), target(target) {}

  // The files that the last build has made. False if the folder has files of another origin.
  bool ReadList() {
    std::string text;
    if (!ReadWholeFile(target / kList, &text)) return !Exists(target) || IsEmptyFolder(target);
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
      // The list is a file like any other: what it names must be in the folder.
      const fs::path path = fs::path(line).lexically_normal();
      if (line.empty() || path.is_absolute() || *path.begin() == "..") continue;
      before.insert(path.string());
    }
    return true;
  }

  bool Write(const std::string& name, const std::string& bytes) {
    made.insert(name);
    std::string old;
    if (ReadWholeFile(target / name, &old) && old == bytes) return true;
    written++;
    if (WriteWholeFile(target / name, bytes)) return true;
    FailedSystem("cannot write " + (target / name).string());
    return false;
  }

  bool Copy(const std::string& name) {
    std::string bytes;
    if (ReadWholeFile(root / name, &bytes)) return Write(name, bytes);
    FailedSystem("cannot read " + (root / name).string());
    return false;
  }

  // Removes what was made before and is made no more, with the folders that are empty then.
  void RemoveStale() {
    for (const std::string& name : before) {
      if (made.count(name)) continue;
      std::error_code ignored;
      if (fs::remove(target / name, ignored)) removed++;
      for (fs::path folder = fs::path(name).parent_path(); !folder.empty();
           folder = folder.parent_path()) {
        if (rmdir((target / folder).c_str()) != 0) break;
      }
    }
  }

  bool WriteList() {
    std::string text;
    for (const std::string& name : made) text += name + "\n";
    std::string old;
    if (ReadWholeFile(target / kList, &old) && old == text) return true;
    if (WriteWholeFile(target / kList, text)) return true;
    FailedSystem("cannot write " + (target / kList).string());
    return false;
  }

  size_t written = 0;
  size_t removed = 0;
  std::set<std::string> made;

 private:
  fs::path root;
  fs::path target;
  std::set<std::string> before;
};

// Whether a file is in a folder or in one of its folders.
bool IsBelow(const fs::path& file, const fs::path& folder) {
  const std::string from = file.lexically_relative(folder).string();
  return !from.empty() && from != "." && from.compare(0, 2, "..") != 0;
}

// The folder of the site that a page belongs to: the nearest one above it with a zeph.toml, else
// its own.
fs::path SiteOf(const fs::path& page) {
  for (fs::path folder = page.parent_path();; folder = folder.parent_path()) {
    if (Exists(folder / settings_name)) return folder;
    if (folder == folder.parent_path()) return page.parent_path();
  }
}

}  // namespace

int NewSite(const ZephArguments& arguments, const Places& places) {
  const fs::path target = arguments.place;
  if (Exists(target) && !IsEmptyFolder(target)) {
    return Failed(target.string() + " is there already and not an empty folder");
  }
  const fs::path shape = places.shared / "new";
  std::vector<std::string> files;
  VisitFiles(shape, [&](const std::string& name) { files.push_back(name); });
  if (files.empty()) return Failed("the files of a new site are not in " + shape.string());
  for (const std::string& name : files) {
    std::string text;
    if (!ReadWholeFile(shape / name, &text)) return FailedSystem((shape / name).string());
    if (!WriteWholeFile(target / name, text)) return FailedSystem((target / name).string());
  }
  std::cout << "made " << files.size() << " files in " << target.string() << "; now: zeph dev "
            << target.string() << "\n";
  return 0;
}

int BuildSite(const ZephArguments& arguments, const Places& places) {
  std::error_code failure;
  const fs::path root = fs::canonical(arguments.place, failure);
  if (failure || !fs::is_directory(root, failure)) {
    return Failed("there is no folder " + arguments.place);
  }
  const fs::path target = fs::weakly_canonical(
      arguments.output.empty() ? root / ".zeph/build" : fs::path(arguments.output), failure);
  if (failure || target == root || IsBelow(root, target)) {
    return Failed("the output cannot be the site itself or a folder around it");
  }
  Build build(root, target);
  if (!build.ReadList()) {
    return Failed(target.string() + " has files that zeph build has not made");
  }
  std::vector<Problem> problems;
  const SiteOptions options = OptionsOf(root, arguments, places, &problems);
  std::map<std::string, std::string> images;
  std::vector<std::string> files;
  VisitFiles(root, [&](const std::string& name) {
    if (IsBelow(root / name, target)) return;
    if (!IsPage(name)) {
      if (IsStaticFile(name)) files.push_back(name);
      return;
    }
    SitePage page = CompileSitePage(root, name, options);
    problems.insert(problems.end(), page.problems.begin(), page.problems.end());
    std::cerr << page.formatted;
    images[CompiledName(name)] = std::move(page.image);
  });
  for (const Problem& problem : problems) {
    if (problem.file == settings_name) std::cerr << problem.Text("") << "\n";
  }
  if (IsBad(problems, arguments.warnings_fail)) return 1;
  for (const auto& [name, image] : images) {
    if (!build.Write(name, image)) return 1;
  }
  for (const std::string& name : files) {
    if (!build.Copy(name)) return 1;
  }
  build.RemoveStale();
  if (!build.WriteList()) return 1;
  std::cout << Count(images.size(), "page") << " and " << Count(files.size(), "file") << "; "
            << build.written << " written, " << build.removed << " removed\n";
  return 0;
}

int CheckSite(const ZephArguments& arguments, const Places& places) {
  std::error_code failure;
  const fs::path place = arguments.place;
  const bool is_folder = fs::is_directory(place, failure);
  if (!is_folder && !Exists(place)) return Failed("there is no folder or page " + place.string());
  const fs::path full = fs::canonical(place, failure);
  const fs::path root = is_folder ? full : SiteOf(full);
  const fs::path working = fs::current_path(failure);
  // A path that the working directory's programs find, written as the user has written the folder.
  const std::string prefix = is_folder ? Prefix(place) : Prefix(root.lexically_relative(working));
  std::vector<Problem> problems;
  const SiteOptions options = OptionsOf(root, arguments, places, &problems);
  const auto check = [&](const std::string& name) {
    const SitePage page = CompileSitePage(root, name, options);
    problems.insert(problems.end(), page.problems.begin(), page.problems.end());
  };
  if (is_folder) {
    VisitFiles(root, [&](const std::string& name) {
      if (IsPage(name)) check(name);
    });
  } else {
    check(full.lexically_relative(root).string());
  }
  // An error in an included file is told once, not for each page that has it.
  std::set<std::string> told;
  for (const Problem& problem : problems) {
    const std::string text = problem.Text(prefix);
    if (told.insert(text).second) std::cout << text << "\n";
  }
  return IsBad(problems, arguments.warnings_fail) ? 1 : 0;
}

int RunPage(const ZephArguments& arguments, const Places& places) {
  std::error_code failure;
  const fs::path page = fs::canonical(arguments.place, failure);
  if (failure || !fs::is_regular_file(page, failure)) {
    return Failed("there is no page " + arguments.place);
  }
  const fs::path root = SiteOf(page);
  const fs::path work = root / ".zeph";
  const SiteFolders folders = {work / "run", work / "data", work / "temp"};
  for (const fs::path& folder : {folders.pages, folders.data, folders.temporary}) {
    fs::create_directories(folder, failure);
    if (failure) return Failed(folder.string() + ": " + failure.message());
  }
  const SiteSettings settings = ReadSettings(root, folders, places);
  std::vector<Problem> problems = settings.problems;
  std::cerr << AllOf(problems, "");
  const SiteOptions options = {arguments.defines, settings.functions};
  const std::string name = page.lexically_relative(root).string();
  // Pages run other pages of their site. A page that stands alone is compiled alone.
  std::set<std::string> pages = {name};
  if (Exists(root / settings_name)) {
    VisitFiles(root, [&](const std::string& other) {
      if (IsPage(other)) pages.insert(other);
    });
  }
  for (const std::string& other : pages) {
    const SitePage compiled = CompileSitePage(root, other, options);
    if (other == name) {
      std::cerr << compiled.formatted;
      if (!compiled.succeeded) return 1;
    }
    const fs::path target = folders.pages / CompiledName(other);
    if (!compiled.succeeded) {
      fs::remove(target, failure);
    } else if (!WriteWholeFile(target, compiled.image)) {
      return FailedSystem("cannot write " + target.string());
    }
  }
  if (IsBad(problems, false)) return 1;
  const fs::path configuration = work / "run.toml";
  if (!WriteWholeFile(configuration, settings.text)) {
    return FailedSystem("cannot write " + configuration.string());
  }
  std::vector<std::string> words = {(places.programs / "zprun").string(), "--config",
                                    configuration.string(), "--request"};
  words.insert(words.end(), arguments.request.begin(), arguments.request.end());
  words.push_back((folders.pages / CompiledName(name)).string());
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  execv(pointers[0], pointers.data());
  return FailedSystem(words[0]);
}
