// new, build, check and run. Tested in tests/develop/CommandTest.cpp.

#include "develop/Build.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <string_view>

#include "base/host/FileDescriptor.h"
#include "compiler/PageFiles.h"
#include "develop/Site.h"
#include "develop/WorkFolder.h"

namespace fs = std::filesystem;

namespace {

// The list of what a build has made, in its output. Only these files are ever removed or replaced.
constexpr char kList[] = ".zeph-build";

// Bytes of a file that are compared and copied at a time.
constexpr size_t kPiece = size_t{256} << 10;

// Whether a folder has nothing, except what a build may have left that was interrupted before it
// had a list.
bool IsEmptyFolder(const fs::path& path) {
  std::error_code failure;
  auto entry = fs::directory_iterator(path, failure);
  for (; !failure && entry != fs::directory_iterator(); entry.increment(failure)) {
    if (entry->path().filename().string().rfind(kList, 0) != 0) return false;
  }
  return !failure;
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

// A line of the list for a name, which may have any bytes but none.
std::string Escaped(const std::string& name) {
  std::string line;
  for (const char c : name) {
    if (c == '\\') line += '\\';
    if (c == '\n') {
      line += "\\n";
    } else {
      line += c;
    }
  }
  return line;
}

std::string Unescaped(const std::string& line) {
  std::string name;
  for (size_t i = 0; i < line.size(); i++) {
    const bool is_escape = line[i] == '\\' && i + 1 < line.size();
    if (is_escape) i++;
    name += is_escape && line[i] == 'n' ? '\n' : line[i];
  }
  return name;
}

// The bytes of a compiled page or of a file, piece by piece from the first one.
class Pieces {
 public:
  explicit Pieces(std::string_view text) : text(text) {}
  // A link in the place of the file is not followed, and a pipe does not block.
  explicit Pieces(const fs::path& path)
      : file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW)) {
    struct stat facts {};
    is_file = true;
    if (file.is_open() && (fstat(file.get(), &facts) != 0 || !S_ISREG(facts.st_mode))) {
      file.reset();
      errno = EINVAL;
    }
  }
  bool is_open() const { return !is_file || file.is_open(); }
  bool Rewind() {
    offset = 0;
    return !is_file || lseek(file.get(), 0, SEEK_SET) == 0;
  }
  // Fills the piece up to its room, except at the end. Returns false, with errno set, on failure.
  bool Next(std::string* piece) {
    if (!is_file) {
      *piece = text.substr(offset, kPiece);
      offset += piece->size();
      return true;
    }
    piece->resize(kPiece);
    size_t used = 0;
    while (used < kPiece) {
      const ssize_t count = read(file.get(), piece->data() + used, kPiece - used);
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) return false;
      if (count == 0) break;
      used += static_cast<size_t>(count);
    }
    piece->resize(used);
    return true;
  }

 private:
  std::string_view text;
  size_t offset = 0;
  bool is_file = false;
  FileDescriptor file;
};

bool AreSame(Pieces* one, Pieces* other) {
  std::string left, right;
  do {
    if (!one->Next(&left) || !other->Next(&right) || left != right) return false;
  } while (!left.empty());
  return true;
}

// The folders of a path from the first one on, without the path itself.
std::vector<std::string> ParentsOf(const std::string& name) {
  std::vector<std::string> parents;
  for (size_t at = name.find('/'); at != std::string::npos; at = name.find('/', at + 1)) {
    parents.push_back(name.substr(0, at));
  }
  return parents;
}

// Brings an output to what a site is. The list names old and new files before any of them is
// touched, so that a build that fails or is interrupted has left nothing that is not in it.
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
      const fs::path path = fs::path(Unescaped(line)).lexically_normal();
      if (path.empty() || path.is_absolute() || *path.begin() == ".." || *path.begin() == ".") {
        continue;
      }
      if (path.has_filename() && path != kList) before.insert(path.string());
    }
    return true;
  }

  void AddPage(const std::string& name, std::string image) {
    made.insert(name);
    images[name] = std::move(image);
  }
  void AddFile(const std::string& name) { made.insert(name); }

  // Makes the output. Returns false after a message.
  bool Run() {
    std::set<std::string> all = before;
    all.insert(made.begin(), made.end());
    if (!CanRead() || !IsClear() || !WriteList(all)) return false;
    // What is where a folder has to be, or the reverse, goes first; the rest when the new files are
    // there.
    RemoveStale(true);
    for (const std::string& name : made) {
      if (!Write(name)) return false;
    }
    RemoveStale(false);
    std::set<std::string> rest = made;
    rest.insert(kept.begin(), kept.end());
    return WriteList(rest) && kept.empty();
  }

  size_t written = 0;
  size_t removed = 0;

 private:
  Pieces Source(const std::string& name) const {
    const auto image = images.find(name);
    return image == images.end() ? Pieces(root / name) : Pieces(std::string_view(image->second));
  }

  bool CanRead() const {
    return std::all_of(made.begin(), made.end(), [&](const std::string& name) {
      if (Source(name).is_open()) return true;
      FailedSystem("cannot read " + (root / name).string());
      return false;
    });
  }

  bool Refuse(const std::string& name, const char* why) const {
    Failed((target / name).string() + " " + why);
    return false;
  }

  // Whether all that is in the way was made by a build, and no link leads out of the output.
  bool IsClear() const {
    std::set<std::string> names = before;
    names.insert(made.begin(), made.end());
    for (const std::string& name : names) {
      for (const std::string& parent : ParentsOf(name)) {
        std::error_code failure;
        const fs::file_status status = fs::symlink_status(target / parent, failure);
        if (fs::is_symlink(status)) {
          return Refuse(parent, "is a link; zeph build writes and removes nothing there");
        }
        const bool blocks = made.count(name) && fs::exists(status) && !fs::is_directory(status);
        if (blocks && !before.count(parent)) return Refuse(parent, kForeign);
      }
    }
    for (const std::string& name : made) {
      std::error_code failure;
      const fs::file_status status = fs::symlink_status(target / name, failure);
      if (fs::is_directory(status) ? !IsOwnFolder(name)
                                   : fs::exists(status) && !before.count(name)) {
        return Refuse(name, kForeign);
      }
    }
    return true;
  }

  // Whether a folder in the place of a file has only what is removed before.
  bool IsOwnFolder(const std::string& name) const {
    std::error_code failure;
    auto entry = fs::recursive_directory_iterator(target / name, failure);
    for (; !failure && entry != fs::recursive_directory_iterator(); entry.increment(failure)) {
      std::error_code gone;
      if (entry->is_directory(gone) && !entry->is_symlink(gone)) continue;
      const std::string inner = entry->path().lexically_relative(target).string();
      if (!before.count(inner) || made.count(inner)) return false;
    }
    return !failure;
  }

  // Removes what was made before and is made no more, with the folders that are empty then.
  void RemoveStale(bool only_in_the_way) {
    std::set<std::string> folders;
    for (const std::string& name : made) {
      for (std::string& parent : ParentsOf(name)) folders.insert(std::move(parent));
    }
    for (const std::string& name : before) {
      if (made.count(name)) continue;
      const std::vector<std::string> parents = ParentsOf(name);
      const bool in_the_way =
          folders.count(name) > 0 ||
          std::any_of(parents.begin(), parents.end(),
                      [&](const std::string& parent) { return made.count(parent) > 0; });
      // Its place has something new by now.
      if (in_the_way != only_in_the_way) continue;
      if (unlink((target / name).c_str()) == 0) {
        removed++;
      } else if (errno != ENOENT && errno != ENOTDIR && errno != EISDIR) {
        FailedSystem("cannot remove " + (target / name).string());
        kept.insert(name);
      }
      for (auto parent = parents.rbegin(); parent != parents.rend(); ++parent) {
        if (rmdir((target / *parent).c_str()) != 0) break;
      }
    }
  }

  bool Write(const std::string& name) {
    const fs::path path = target / name;
    Pieces source = Source(name);
    Pieces old(path);
    if (old.is_open() && AreSame(&source, &old)) return true;
    written++;
    std::error_code ignored;
    // Empty folders that a build has left.
    if (fs::is_directory(fs::symlink_status(path, ignored))) RemoveEmptyFolders(path);
    fs::create_directories(path.parent_path(), ignored);
    // In one step, and through a name that no web server sends should it be left there.
    const std::string unfinished =
        (target / (std::string(kList) + "." + std::to_string(getpid()))).string();
    unlink(unfinished.c_str());
    const int mode = 0666;
    FileDescriptor file(open(unfinished.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    if (file.is_open() && source.is_open() && source.Rewind() && CopyAll(&source, file.get()) &&
        close(file.release()) == 0 && rename(unfinished.c_str(), path.c_str()) == 0) {
      return true;
    }
    FailedSystem("cannot write " + path.string());
    unlink(unfinished.c_str());
    return false;
  }

  static void RemoveEmptyFolders(const fs::path& top) {
    std::set<std::string> folders = {top.string()};
    std::error_code failure;
    auto entry = fs::recursive_directory_iterator(top, failure);
    for (; !failure && entry != fs::recursive_directory_iterator(); entry.increment(failure)) {
      folders.insert(entry->path().string());
    }
    // A folder comes before what is in it.
    for (auto folder = folders.rbegin(); folder != folders.rend(); ++folder) rmdir(folder->c_str());
  }

  static bool CopyAll(Pieces* source, int to) {
    std::string piece;
    do {
      if (!source->Next(&piece) || !WriteAll(to, piece)) return false;
    } while (!piece.empty());
    return true;
  }

  bool WriteList(const std::set<std::string>& names) const {
    std::string text;
    for (const std::string& name : names) text += Escaped(name) + "\n";
    std::string old;
    if (ReadWholeFile(target / kList, &old) && old == text) return true;
    if (WriteWholeFile(target / kList, text)) return true;
    FailedSystem("cannot write " + (target / kList).string());
    return false;
  }

  static constexpr char kForeign[] = "is a file that zeph build has not made";

  fs::path root;
  fs::path target;
  std::map<std::string, std::string> images;
  std::set<std::string> before;
  std::set<std::string> made;
  std::set<std::string> kept;  // stale files that could not be removed
};

// Tells of folders that cannot be read. Returns whether there are none.
bool ReportUnread(const std::vector<UnreadFolder>& folders, const fs::path& root) {
  for (const UnreadFolder& folder : folders) Failed(TextOf(folder, root));
  return folders.empty();
}

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
  const auto unread = VisitFiles(shape, [&](const std::string& name) { files.push_back(name); });
  if (!unread.empty() || files.empty()) {
    return Failed("the files of a new site are not in " + shape.string());
  }
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
  if (arguments.output.empty() && !IsOwnWork(root, {"build"})) return 1;
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
  size_t pages = 0;
  size_t files = 0;
  const auto unread = VisitFiles(root, [&](const std::string& name) {
    if (IsBelow(root / name, target)) return;
    if (!IsPage(name)) {
      if (!IsStaticFile(name)) return;
      // As zeph dev, which sends no file that is a link.
      if (fs::is_symlink(fs::symlink_status(root / name, failure))) {
        std::cerr << "zeph: " << (root / name).string() << " is a link and is not copied\n";
        return;
      }
      files++;
      build.AddFile(name);
      return;
    }
    SitePage page = CompileSitePage(root, name, options);
    problems.insert(problems.end(), page.problems.begin(), page.problems.end());
    std::cerr << page.formatted;
    pages++;
    build.AddPage(CompiledName(name), std::move(page.image));
  });
  if (!ReportUnread(unread, root)) return 1;
  for (const Problem& problem : problems) {
    if (problem.file == settings_name) std::cerr << problem.Text("") << "\n";
  }
  if (IsBad(problems, arguments.warnings_fail)) return 1;
  if (!build.Run()) return 1;
  std::cout << Count(pages, "page") << " and " << Count(files, "file") << "; " << build.written
            << " written, " << build.removed << " removed\n";
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
  bool complete = true;
  if (is_folder) {
    const auto unread = VisitFiles(root, [&](const std::string& name) {
      if (IsPage(name)) check(name);
    });
    complete = ReportUnread(unread, root);
  } else {
    check(full.lexically_relative(root).string());
  }
  // An error in an included file is told once, not for each page that has it.
  std::set<std::string> told;
  for (const Problem& problem : problems) {
    const std::string text = problem.Text(prefix);
    if (told.insert(text).second) std::cout << text << "\n";
  }
  return !complete || IsBad(problems, arguments.warnings_fail) ? 1 : 0;
}

int RunPage(const ZephArguments& arguments, const Places& places) {
  std::error_code failure;
  const fs::path page = fs::canonical(arguments.place, failure);
  if (failure || !fs::is_regular_file(page, failure)) {
    return Failed("there is no page " + arguments.place);
  }
  if (!IsPage(page.filename().string())) {
    return Failed(arguments.place +
                  " is no page: its name does not end in .zeph, or begins with _");
  }
  const fs::path root = SiteOf(page);
  const fs::path work = root / work_name;
  const SiteFolders folders = {work / "run", work / "data", work / "temp"};
  if (!MakeWork(root, {"run", "data", "temp"}) || !RemoveForeignPages(root, folders.pages))
    return 1;
  const SiteSettings settings = ReadSettings(root, folders, places);
  std::vector<Problem> problems = settings.problems;
  std::cerr << AllOf(problems, "");
  const SiteOptions options = {arguments.defines, settings.functions};
  const std::string name = page.lexically_relative(root).string();
  // Pages run other pages of their site. A page that is no part of one is compiled alone.
  std::set<std::string> pages = {name};
  if (Exists(root / settings_name)) {
    const auto unread = VisitFiles(root, [&](const std::string& other) {
      if (IsPage(other)) pages.insert(other);
    });
    ReportUnread(unread, root);
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
                                    configuration.string(), "--errors-in-page", "--request"};
  words.insert(words.end(), arguments.request.begin(), arguments.request.end());
  words.push_back((folders.pages / CompiledName(name)).string());
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  execv(pointers[0], pointers.data());
  return FailedSystem(words[0]);
}
