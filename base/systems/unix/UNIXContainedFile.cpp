// The operations of the manager on paths inside the base directories. Tested in
// tests/base/systems/unix/UNIXContainedFileTest.cpp.
//
// Divisions, in this order:
//
//   Base directories and their settings
//   From a path to the descriptor of its directory
//   Opening a file, and following links at the end of a path
//   Operations on names
//   The walk through the working directory

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <optional>

#include "base/host/ZephApplication.h"
#include "base/systems/unix/SystemCalls.h"
#include "base/systems/unix/UNIXFile.h"
#include "base/systems/unix/UNIXPathWalk.h"

namespace {

// A program is started with the descriptors below this.
constexpr int first_descriptor = 3;

int Duplicate(int descriptor) {
  return descriptor < 0 ? -1 : system_calls.duplicate_from(descriptor, first_descriptor);
}

const char* TypeName(Zeph_PathType type) {
  if (type == ZephPath_Script) return "script";
  return type == ZephPath_Temporary ? "temporary" : "data";
}

const char text_symlink[] = "The specified path references a symbolic link";
const char text_no_directory[] = "The specified path references a directory that does not exist";
const char text_directory_owner[] =
    "The specified path references a symbolic link to a directory owned by a different user";
const char text_file_owner[] =
    "The specified path references a symbolic link to a directory or file owned by a different "
    "user";
const char text_recursive[] = "The specified path references a recursive symbolic link";

}  // namespace

bool ReadLinkText(int directory, const char* name, char* buffer) {
  ssize_t length = system_calls.readlinkat(directory, name, buffer, link_text_size);
  if (length < 0) return false;
  if (length == link_text_size) {
    errno = ENAMETOOLONG;
    return false;
  }
  buffer[length] = 0;
  return true;
}

int ContainedDirectory::Release() {
  return opened.is_open() ? opened.release() : Duplicate(descriptor);
}

// --- Base directories and their settings ---------------------------------------------------------

UNIXFileManager::UNIXFileManager(ZephApplication* application)
    : UNIXFileManager(application, WalkByWorkingDirectory) {}

UNIXFileManager::UNIXFileManager(ZephApplication* application, UNIXFileManager& other)
    : UNIXFileManager(application, other, WalkByWorkingDirectory) {}

UNIXFileManager::UNIXFileManager(ZephApplication* application, DirectoryWalk walk)
    : FileManager(application), walk(walk) {}

// Delegates first: if there is no memory for a copy, the destructor then frees the others.
UNIXFileManager::UNIXFileManager(ZephApplication* application, UNIXFileManager& other,
                                 DirectoryWalk walk)
    : UNIXFileManager(application, walk) {
  const auto copy = [](const UNIXFilePath* path) {
    return path == nullptr ? nullptr : new UNIXFilePath(*path);
  };
  script_path = copy(other.script_path);
  script_directory = Duplicate(other.script_directory);
  data_path = copy(other.data_path);
  data_directory = Duplicate(other.data_directory);
  temp_path = copy(other.temp_path);
  temp_directory = Duplicate(other.temp_directory);
  max_files = other.max_files;
  security_flags = other.security_flags;
  kept_descriptors = other.kept_descriptors;
}

bool UNIXFileManager::InitializeScriptDirectory(const char* path, const char* user) {
  return InitializeDirectory("script", user, path, security_flags & FileSecurity_ScriptSymlinks,
                             security_flags & FileSecurity_ScriptOtherOwner, &script_path,
                             &script_directory);
}

bool UNIXFileManager::InitializeDataDirectory(const char* path) {
  return InitializeDirectory("data", nullptr, path, security_flags & FileSecurity_DataSymlinks,
                             security_flags & FileSecurity_DataOtherOwner, &data_path,
                             &data_directory);
}

bool UNIXFileManager::InitializeTempDirectory(const char* path) {
  return InitializeDirectory("temporary", nullptr, path, security_flags & FileSecurity_TempSymlinks,
                             security_flags & FileSecurity_TempOtherOwner, &temp_path,
                             &temp_directory);
}

bool UNIXFileManager::InitializeDirectory(const char* what, const char* user, const char* path,
                                          bool symlinks, bool other_owner, UNIXFilePath** text,
                                          int* descriptor) {
  delete *text;
  *text = nullptr;
  if (*descriptor >= 0) close(*descriptor);
  *descriptor = -1;

  const char* reason = " is not an absolute path";
  if (path != nullptr && *path == '/') {
    switch (walk(this, AT_FDCWD, path, descriptor, symlinks, other_owner, false)) {
      case PathWalk_Done: *text = new UNIXFilePath(path); return true;
      case PathWalk_Symlink: reason = " references a symbolic link"; break;
      case PathWalk_OtherOwner:
        reason = " references a symbolic link to a directory owned by a different user";
        break;
      default: reason = " does not exist"; break;
    }
  }
  error_text.assign("The configured ", -1);
  error_text.cat(what, -1);
  error_text.cat(" directory", -1);
  if (user != nullptr) {
    error_text.cat(" for '", -1);
    error_text.cat(user, -1);
    error_text.cat('\'');
  }
  error_text.cat(reason, -1);
  return false;
}

bool UNIXFileManager::ContainedPathSettings(Zeph_PathType type,
                                            _UNIXContainedPathSettings* settings) {
  auto fill = [this, settings](int directory, UNIXFilePath* path, int symlinks, int other_owner,
                               int absolute) {
    settings->directory = directory;
    settings->path = path;
    settings->allow_symlinks = (security_flags & symlinks) != 0;
    settings->allow_other_owner = (security_flags & other_owner) != 0;
    settings->allow_absolute = (security_flags & absolute) != 0;
    return true;
  };
  switch (type) {
    case ZephPath_Script:
      if (script_path == nullptr) return Fail("There is no configured script directory");
      return fill(script_directory, script_path, FileSecurity_ScriptSymlinks,
                  FileSecurity_ScriptOtherOwner, FileSecurity_ScriptAbsolute);
    case ZephPath_Temporary:
      if (temp_path != nullptr)
        return fill(temp_directory, temp_path, FileSecurity_TempSymlinks,
                    FileSecurity_TempOtherOwner, 0);
      [[fallthrough]];
    case ZephPath_Data:
      if (data_path == nullptr) return Fail("There is no configured data directory");
      return fill(data_directory, data_path, FileSecurity_DataSymlinks, FileSecurity_DataOtherOwner,
                  FileSecurity_DataAbsolute);
  }
  return true;
}

// --- From a path to the descriptor of its directory ----------------------------------------------

bool UNIXFileManager::WalkError(Zeph_PathType type, int result) {
  switch (result) {
    case PathWalk_Symlink: return Fail(text_symlink);
    case PathWalk_OtherOwner: return Fail(text_directory_owner);
    case PathWalk_Outside: break;
    default: return Fail(text_no_directory);
  }
  error_text.assign("The specified path references a path outside the configured ", -1);
  error_text.cat(TypeName(type), -1);
  error_text.cat(" directory", -1);
  return false;
}

bool UNIXFileManager::CheckContained(Zeph_PathType type, const _UNIXContainedPathSettings& settings,
                                     const char** path) {
  if (settings.directory < 0 || settings.path == nullptr) {
    errno = EBADF;
    return SystemError();
  }
  if (settings.allow_absolute && **path == '/') {
    UNIXFilePath lexical(*path);
    return settings.path->Contains(lexical) || WalkError(type, PathWalk_Outside);
  }
  while (**path == '/') ++*path;
  // Only a path that begins with ".." once collapsed can get above its base. Most paths therefore
  // need not be joined to the base's text and compared with it.
  if (strstr(*path, "..") == nullptr || !UNIXFilePath(*path).StartsAboveBase()) return true;
  UNIXFilePath lexical(settings.path->value(), *path);
  return settings.path->Contains(lexical) || WalkError(type, PathWalk_Outside);
}

bool UNIXFileManager::OpenDirectory(Zeph_PathType type, const _UNIXContainedPathSettings& settings,
                                    const char* path, ContainedDirectory* result) {
  if (path == nullptr) path = "";
  if (!CheckContained(type, settings, &path)) return false;
  if (*path == 0 || strcmp(path, ".") == 0) {
    result->Borrow(settings.directory);
    return true;
  }
  int descriptor = -1;
  int answer = walk(this, settings.directory, path, &descriptor, settings.allow_symlinks != 0,
                    settings.allow_other_owner != 0, true);
  if (answer != PathWalk_Done) return WalkError(type, answer);
  result->Adopt(descriptor);
  return true;
}

// Walks go element by element and would never meet the system's own limit, so it is checked here: a
// script can make a path grow without end.
bool UNIXFileManager::CheckLength(const char* path) {
  if (path == nullptr || strlen(path) < PATH_MAX) return true;
  errno = ENAMETOOLONG;
  return SystemError();
}

bool UNIXFileManager::Enter(Zeph_PathType type, UNIXFilePath& path, ContainedDirectory* directory) {
  _UNIXContainedPathSettings settings;
  return ContainedPathSettings(type, &settings) &&
         OpenDirectory(type, settings, path.Collapsed_Directory(), directory);
}

// --- Opening a file, and following links at the end of a path ------------------------------------

// The directory and name that the last element of a path has led to so far.
struct UNIXFileManager::FinalName {
  _UNIXContainedPathSettings settings;
  ContainedDirectory directory;
  const char* name = nullptr;
  bool same_directory = false;  // the last link named a file in its own directory
  std::optional<SeenTargets> seen;
  char link_text[link_text_size];
};

// Replaces the name by the target of the link. `user` is the owner that the target must have if
// other owners are not allowed.
bool UNIXFileManager::FollowFinalLink(Zeph_PathType type, FinalName* final, unsigned user) {
  char text[link_text_size];
  struct stat target;
  if (!ReadLinkText(final->directory.get(), final->name, text) ||
      system_calls.fstatat(final->directory.get(), text, &target, AT_SYMLINK_NOFOLLOW) != 0)
    return SystemError();
  if (!final->seen) final->seen.emplace();
  if (!final->seen->Add(target)) return Fail(text_recursive);
  if (!final->settings.allow_other_owner && user != target.st_uid) return Fail(text_file_owner);

  final->same_directory = strchr(text, '/') == nullptr;
  if (final->same_directory) {
    memcpy(final->link_text, text, strlen(text) + 1);
    final->name = final->link_text;
    return true;
  }
  UNIXFilePath path(text);
  int descriptor = -1;
  int answer =
      walk(this, final->directory.get(), path.Collapsed_Directory(), &descriptor,
           final->settings.allow_symlinks != 0, final->settings.allow_other_owner != 0, false);
  if (answer != PathWalk_Done) return WalkError(type, answer);
  final->directory.Adopt(descriptor);
  const char* name = path.Collapsed_Filename();
  memcpy(final->link_text, name, strlen(name) + 1);
  final->name = final->link_text;
  return true;
}

int UNIXFileManager::OpenContained(Zeph_PathType type, const char* path, int flags) {
  UNIXFilePath parsed(path);
  FinalName final;
  if (!CheckLength(path) || !FreeFileSpace(1) || !ContainedPathSettings(type, &final.settings) ||
      !OpenDirectory(type, final.settings, parsed.Collapsed_Directory(), &final.directory))
    return -1;
  final.name = parsed.Collapsed_Filename();

  const bool links = final.settings.allow_symlinks != 0;
  const bool compare = links && final.settings.allow_other_owner == 0;
  bool check = true;       // the name existed when it was looked at
  bool exclusive = false;  // we set O_EXCL, not the caller
  struct stat expected = {};
  flags |= O_NOFOLLOW;
  for (;;) {
    if (compare && !final.same_directory &&
        system_calls.fstatat(final.directory.get(), final.name, &expected, AT_SYMLINK_NOFOLLOW) !=
            0) {
      if (!(flags & O_CREAT) || errno != ENOENT) {
        SystemError();
        return -1;
      }
      // If a link is planted here from now on, the open fails instead of creating a file through
      // it.
      check = false;
      exclusive = !(flags & O_EXCL);
      flags |= O_EXCL;
    }
    FileDescriptor opened(OpenQuietly(final.directory.get(), final.name, flags, 0666));
    if (opened.is_open()) {
      if (compare && check && !CheckOwner(opened.get(), expected.st_uid)) return -1;
      return opened.release();
    }
    if (errno == EEXIST && !check && exclusive) {
      flags &= ~O_EXCL;
      exclusive = false;
      check = true;
      continue;
    }
    if (errno != ELOOP) {
      SystemError();
      return -1;
    }
    if (!links) {
      Fail(text_symlink);
      return -1;
    }
    if (!FollowFinalLink(type, &final, expected.st_uid)) return -1;
  }
}

bool UNIXFileManager::CheckOwner(int descriptor, unsigned user) {
  struct stat status;
  if (system_calls.fstat(descriptor, &status) != 0) return SystemError();
  return status.st_uid == user || Fail(text_file_owner);
}

bool UNIXFileManager::Stat(Zeph_PathType type, const char* path, struct stat* buffer) {
  FileDescriptor opened(OpenContained(type, path, O_RDONLY));
  if (!opened.is_open()) return false;
  return system_calls.fstat(opened.get(), buffer) == 0 || SystemError();
}

bool UNIXFileManager::Exists(Zeph_PathType type, const char* path, bool* exists) {
  UNIXFilePath parsed(path);
  FinalName final;
  if (!CheckLength(path) || !ContainedPathSettings(type, &final.settings) ||
      !OpenDirectory(type, final.settings, parsed.Collapsed_Directory(), &final.directory))
    return false;
  final.name = parsed.Collapsed_Filename();
  for (;;) {
    struct stat status;
    if (system_calls.fstatat(final.directory.get(), final.name, &status, AT_SYMLINK_NOFOLLOW) !=
        0) {
      if (errno != ENOENT) return SystemError();
      *exists = false;
      return true;
    }
    if (!S_ISLNK(status.st_mode)) {
      *exists = true;
      return true;
    }
    if (!final.settings.allow_symlinks) return Fail(text_symlink);
    if (!FollowFinalLink(type, &final, status.st_uid)) return false;
  }
}

// --- Operations on names -------------------------------------------------------------------------

File* UNIXFileManager::Open(Zeph_PathType type, const char* path, int mode) {
  if (!HasSpare(mode)) return nullptr;
  FileDescriptor opened(OpenContained(type, path, OpenMode(mode)));
  if (!opened.is_open() || !IsSpare(opened.get())) return nullptr;
  return Adopt(opened, mode, type, path);
}

int UNIXFileManager::Lock(Zeph_PathType type, const char* path) {
  UNIXFilePath parsed(path);
  ContainedDirectory directory;
  if (!Enter(type, parsed, &directory)) return FileLock_Failed;
  return LockAt(directory.get(), parsed.Collapsed_Filename());
}

bool UNIXFileManager::Delete(Zeph_PathType type, const char* path) {
  UNIXFilePath parsed(path);
  ContainedDirectory directory;
  if (!Enter(type, parsed, &directory)) return false;
  return system_calls.unlinkat(directory.get(), parsed.Collapsed_Filename(), 0) == 0 ||
         SystemError();
}

bool UNIXFileManager::Copy(Zeph_PathType fromtype, const char* from, Zeph_PathType totype,
                           const char* to) {
  FileDescriptor source(OpenContained(fromtype, from, O_RDONLY));
  if (!source.is_open() || !CheckCopySource(source.get())) return false;
  FileDescriptor target(OpenContained(totype, to, O_WRONLY | O_CREAT | O_TRUNC));
  return target.is_open() && CopyBytes(source.get(), target.get());
}

bool UNIXFileManager::Rename(Zeph_PathType fromtype, const char* from, Zeph_PathType totype,
                             const char* to) {
  UNIXFilePath parsed_from(from);
  UNIXFilePath parsed_to(to);
  ContainedDirectory directory_from;
  ContainedDirectory directory_to;
  if (!Enter(fromtype, parsed_from, &directory_from) || !Enter(totype, parsed_to, &directory_to))
    return false;
  if (system_calls.renameat(directory_from.get(), parsed_from.Collapsed_Filename(),
                            directory_to.get(), parsed_to.Collapsed_Filename()) == 0)
    return true;
  return errno == EXDEV && Copy(fromtype, from, totype, to) && Delete(fromtype, from);
}

bool UNIXFileManager::TouchFile(Zeph_PathType type, const char* path) {
  FileDescriptor opened(OpenContained(type, path, O_WRONLY | O_CREAT));
  if (!opened.is_open()) return false;
  return system_calls.futimens(opened.get(), nullptr) == 0 || SystemError();
}

bool UNIXFileManager::Length(Zeph_PathType type, const char* path, long* length) {
  struct stat status;
  if (!Stat(type, path, &status)) return false;
  *length = S_ISFIFO(status.st_mode) ? 0 : static_cast<long>(status.st_size);
  return true;
}

bool UNIXFileManager::IsDirectory(Zeph_PathType type, const char* path, bool* result) {
  struct stat status;
  if (!Stat(type, path, &status)) return false;
  *result = S_ISDIR(status.st_mode);
  return true;
}

bool UNIXFileManager::ModifiedTime(Zeph_PathType type, const char* path, long* time) {
  struct stat status;
  if (!Stat(type, path, &status)) return false;
  *time = static_cast<long>(status.st_mtime);
  return true;
}

bool UNIXFileManager::MakeDirectory(Zeph_PathType type, const char* path) {
  UNIXFilePath parsed(path);
  ContainedDirectory directory;
  if (!Enter(type, parsed, &directory)) return false;
  return system_calls.mkdirat(directory.get(), parsed.Collapsed_Filename(), 0777) == 0 ||
         SystemError();
}

bool UNIXFileManager::RemoveDirectory(Zeph_PathType type, const char* path) {
  UNIXFilePath parsed(path);
  ContainedDirectory directory;
  if (!Enter(type, parsed, &directory)) return false;
  return system_calls.unlinkat(directory.get(), parsed.Collapsed_Filename(), AT_REMOVEDIR) == 0 ||
         SystemError();
}

bool UNIXFileManager::MakeSymbolicLink(Zeph_PathType fromtype, const char* from,
                                       Zeph_PathType totype, const char* to) {
  _UNIXContainedPathSettings settings;
  UNIXFilePath parsed(to);
  ContainedDirectory directory;
  if (!ContainedPathSettings(fromtype, &settings) || !Enter(totype, parsed, &directory))
    return false;
  // Do not check where the link leads: the flags are applied when it is followed.
  UNIXFilePath joined(settings.path == nullptr ? "" : settings.path->value(), from);
  std::unique_ptr<char[]> content(joined.Collapsed_Path(nullptr, nullptr));
  return system_calls.symlinkat(content.get(), directory.get(), parsed.Collapsed_Filename()) == 0;
}

bool UNIXFileManager::Mode(Zeph_PathType type, const char* path, int* mode) {
  struct stat status;
  if (!Stat(type, path, &status)) return false;
  *mode = static_cast<int>(status.st_mode);
  return true;
}

bool UNIXFileManager::ChangeMode(Zeph_PathType type, const char* path, int mode) {
  FileDescriptor opened(OpenContained(type, path, O_RDONLY));
  if (!opened.is_open()) return false;
  return system_calls.fchmod(opened.get(), static_cast<mode_t>(mode)) == 0 || SystemError();
}

File* UNIXFileManager::MakeTemporary(Zeph_PathType type, const char* directory, const char* prefix,
                                     char** name, int mode) {
  if (directory == nullptr) directory = "";
  _UNIXContainedPathSettings settings;
  ContainedDirectory opened;
  if (!CheckPrefix(prefix) || !FreeFileSpace(1) || !HasSpare(FileMode_Create) ||
      !ContainedPathSettings(type, &settings) || !OpenDirectory(type, settings, directory, &opened))
    return nullptr;
  std::unique_ptr<char[]> chosen;
  FileDescriptor created(CreateTemporary(opened.get(), directory, prefix, mode, &chosen));
  if (!created.is_open()) return nullptr;
  File* file = nullptr;
  try {
    file = Adopt(created, mode, type, chosen.get());
  } catch (const std::bad_alloc&) {
    Discard(opened.get(), chosen.get());
    throw;
  }
  *name = chosen.release();
  return file;
}

File* UNIXFileManager::MakeTemporaryLike(Zeph_PathType type, const char* path, char** name,
                                         int mode) {
  UNIXFilePath parsed(path);
  return MakeTemporary(type, parsed.Collapsed_Directory(), parsed.Collapsed_Filename(), name, mode);
}

bool UNIXFileManager::DirectoryListing(Zeph_PathType type, const char* path, List<String>* names) {
  _UNIXContainedPathSettings settings;
  ContainedDirectory directory;
  if (!ContainedPathSettings(type, &settings) || !OpenDirectory(type, settings, path, &directory))
    return false;
  // Reading moves the descriptor's position, and a duplicate of the base directory would share it
  // with every other listing, also in other threads. So the base is opened again.
  FileDescriptor opened(directory.borrowed()
                            ? system_calls.openat(directory.get(), ".", walk_flags, 0)
                            : directory.Release());
  if (!opened.is_open()) return SystemError();
  std::unique_ptr<DIR, int (*)(DIR*)> stream(system_calls.fdopendir(opened.get()), closedir);
  if (stream == nullptr) return SystemError();
  (void)opened.release();
  for (int added = 0;; added++) {
    errno = 0;
    dirent* entry = system_calls.readdir(stream.get());
    if (entry == nullptr) {
      if (errno == 0) return true;
      SystemError();
      // A part of the names would look like all of them.
      for (; added > 0; added--) {
        names->Last();
        delete names->Remove(ListCurrent);
      }
      return false;
    }
    InsertOwned(*names, std::make_unique<String>(entry->d_name, -1), ListTail);
  }
}

char* UNIXFileManager::NormalizeContainedPath(Zeph_PathType type, const char* path, int* length,
                                              int* allocated) {
  _UNIXContainedPathSettings settings;
  if (!ContainedPathSettings(type, &settings)) return nullptr;
  if (settings.allow_absolute) {
    if (*path == '/') return UNIXFilePath(path).Collapsed_Path(length, allocated);
    return UNIXFilePath(settings.path->value(), path).Collapsed_Path(length, allocated);
  }
  while (*path == '/') path++;
  return UNIXFilePath(path).Collapsed_Path(length, allocated);
}

// --- The walk through the working directory ------------------------------------------------------

namespace {

// Restores the working directory at the end of a scope.
class WorkingDirectory {
 public:
  explicit WorkingDirectory(UNIXFileManager* files)
      : manager(files), saved(files->SaveCurrentDirectory()) {}
  ~WorkingDirectory() { manager->RestoreCurrentDirectory(saved); }
  WorkingDirectory(const WorkingDirectory&) = delete;
  WorkingDirectory& operator=(const WorkingDirectory&) = delete;
  bool is_saved() const { return saved >= 0; }
  // Goes back to the saved directory, for another walk from there.
  bool Return() const { return fchdir(saved) == 0; }

 private:
  UNIXFileManager* manager;
  int saved;
};

constexpr size_t directory_text_size = 1024;

}  // namespace

int UNIXFileManager::SaveCurrentDirectory() {
  return open(".", O_RDONLY | O_CLOEXEC);
}

int UNIXFileManager::RestoreCurrentDirectory(int descriptor) {
  if (descriptor < 0) return -1;
  FileDescriptor guard(descriptor);
  return fchdir(descriptor);
}

int UNIXFileManager::RealizePath(const char* path, UNIXFilePath** result, bool symlinks,
                                 bool other_owner) {
  char current[directory_text_size];
  if (*path == '/') {
    UNIXFilePath lexical(path);
    return RealizePath(&lexical, path, result, symlinks, other_owner);
  }
  if (getcwd(current, sizeof(current)) == nullptr) return PathWalk_NotFound;
  UNIXFilePath lexical(static_cast<const char*>(current), path);
  return RealizePath(&lexical, path, result, symlinks, other_owner);
}

int UNIXFileManager::RealizePath(UNIXFilePath* path, const char* text, UNIXFilePath** result,
                                 bool symlinks, bool other_owner) {
  WorkingDirectory start(this);
  char real_text[directory_text_size];
  if (!start.is_saved() || chdir(text) != 0 || getcwd(real_text, sizeof(real_text)) == nullptr)
    return PathWalk_NotFound;
  auto real = std::make_unique<UNIXFilePath>(real_text);
  if (!path->Matches(*real, 0)) {
    if (!symlinks) return PathWalk_Symlink;
    if (!other_owner) {
      if (!start.Return()) return PathWalk_NotFound;
      UNIXFilePath elements(text);
      for (int i = 0; i < elements.elements(); i++) {
        const char* element = elements.Element(i);
        struct stat before;
        struct stat after;
        if (lstat(element, &before) != 0 || chdir(element) != 0 || stat(".", &after) != 0)
          return PathWalk_NotFound;
        if (before.st_uid != after.st_uid) return PathWalk_OtherOwner;
      }
    }
  }
  *result = real.release();
  return PathWalk_Done;
}

bool UNIXFileManager::RealizeContainedPath(Zeph_PathType type, const char* path,
                                           UNIXFilePath** result) {
  _UNIXContainedPathSettings settings;
  return ContainedPathSettings(type, &settings) &&
         RealizeContainedPath(type, &settings, path, result);
}

bool UNIXFileManager::RealizeContainedPath(Zeph_PathType type, _UNIXContainedPathSettings* settings,
                                           const char* path, UNIXFilePath** result) {
  if (path == nullptr) path = "";
  if (!CheckContained(type, *settings, &path)) return false;
  WorkingDirectory start(this);
  int answer = PathWalk_NotFound;
  if (start.is_saved() && fchdir(settings->directory) == 0)
    answer = RealizePath(*path == 0 ? "." : path, result, settings->allow_symlinks != 0,
                         settings->allow_other_owner != 0);
  return answer == PathWalk_Done || WalkError(type, answer);
}

int UNIXFileManager::WalkByWorkingDirectory(UNIXFileManager* manager, int base, const char* path,
                                            int* result, bool symlinks, bool other_owner, bool) {
  if (!manager->FreeFileSpace(1)) return PathWalk_NotFound;
  WorkingDirectory start(manager);
  if (!start.is_saved() || (base != AT_FDCWD && fchdir(base) != 0)) return PathWalk_NotFound;
  UNIXFilePath* real = nullptr;
  int answer = manager->RealizePath(path, &real, symlinks, other_owner);
  if (answer != PathWalk_Done) return answer;
  std::unique_ptr<UNIXFilePath> guard(real);
  std::unique_ptr<char[]> text(real->Collapsed_Path(nullptr, nullptr));
  int descriptor = system_calls.openat(AT_FDCWD, text.get(), walk_flags, 0);
  if (descriptor < 0) return PathWalk_NotFound;
  *result = descriptor;
  return PathWalk_Done;
}
