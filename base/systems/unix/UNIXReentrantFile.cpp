// The walk to a directory on descriptors. Tested in
// tests/base/systems/unix/UNIXReentrantFileTest.cpp.

#include "base/systems/unix/UNIXReentrantFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/compiled/TaggedFile.h"
#include "base/systems/unix/SystemCalls.h"
#include "base/systems/unix/UNIXPathWalk.h"

namespace {

// Checks, for a path with "..", that the walk still is where the text says. A ".." leads to the
// directory's present parent. That is outside of the base if the directory was moved since the walk
// went into it, or if the base itself has another parent than its configured text says.
//
// The position of the walk is known as steps up from the base and, from there, steps down. If a
// step down enters the directory that the last step up came from, it cancels that step, so that
// "../other/../data" is back in the base "data".
class Trail {
 public:
  explicit Trail(int base) { ancestors.push_back(IdentityOf(base)); }

  // Records that the walk went from the last directory into this one, by this element. Returns
  // false if the walk is not where the text says.
  bool Follow(const char* element, int descriptor) {
    if (strcmp(element, ".") == 0) return true;
    const Identity here = IdentityOf(descriptor);
    if (*element == '/') {
      ancestors.assign(1, here);
      below.clear();
      above = 0;
      return true;
    }
    if (strcmp(element, "..") == 0) return FollowUp(here);
    if (below.empty() && above > 0 && here == ancestors[above - 1])
      above--;
    else
      below.push_back(here);
    return true;
  }

  // True in the base or below it. An absolute path is at least below the root that it begins at.
  bool ended_inside() const { return above == 0; }

 private:
  struct Identity {
    dev_t device = 0;
    ino_t inode = 0;
    bool operator==(const Identity&) const = default;
  };

  bool FollowUp(const Identity& here) {
    if (!below.empty()) {
      below.pop_back();
      return here == (below.empty() ? ancestors[above] : below.back());
    }
    // The root is its own parent.
    if (here == ancestors[above]) return true;
    above++;
    if (above == ancestors.size()) ancestors.push_back(here);
    return here == ancestors[above];
  }

  static Identity IdentityOf(int descriptor) {
    struct stat status;
    if (system_calls.fstat(descriptor, &status) != 0) return {};
    return {status.st_dev, status.st_ino};
  }

  std::vector<Identity> ancestors;  // the base or the root, its parent, and so on, as far as met
  size_t above = 0;                 // index of the ancestor where the steps down begin
  std::vector<Identity> below;      // the directories of the steps down
};

// One walk from a base to a directory, element by element, so that no link is followed unseen.
class Walker {
 public:
  Walker(int from, bool follow, bool follow_other_owner)
      : base(from), current(from), symlinks(follow), other_owner(follow_other_owner) {}

  // Returns a PathWalkResult. *result receives the descriptor, which the caller closes.
  int Walk(const char* path, bool confined, int* result) {
    size_t length = strlen(path);
    if (length >= sizeof(text)) return PathWalk_NotFound;
    memcpy(text, path, length + 1);
    rest = text;
    if (confined && strstr(path, "..") != nullptr) trail.emplace(base);
    do {
      const char* element = NextElement();
      int next = OpenElement(element);
      if (next > 0) {
        opened.reset(next);
        current = next;
        if (trail && !trail->Follow(element, next)) return PathWalk_Outside;
        continue;
      }
      if (errno != ELOOP) return PathWalk_NotFound;
      if (!symlinks) return PathWalk_Symlink;
      int answer = FollowLink(element);
      if (answer != PathWalk_Done) return answer;
    } while (*rest != 0);
    if (trail && !trail->ended_inside()) return PathWalk_Outside;
    *result = opened.release();
    return PathWalk_Done;
  }

 private:
  // Cuts the next element off. `rest` then starts with the element after it, or is empty.
  const char* NextElement() {
    char* element = rest;
    if (*rest == '/') {
      while (*rest == '/') rest++;
      return "/";
    }
    rest += strcspn(rest, "/");
    while (*rest == '/') *rest++ = 0;
    return element;
  }

  // Returns a positive descriptor, or another number with errno set. Descriptor 0 belongs to the
  // web server's socket, and counts as a failure.
  int OpenElement(const char* element) {
    int next = system_calls.openat(current, element, walk_flags, 0);
    if (next == 0) {
      close(next);
      errno = EBADF;
    }
    return next;
  }

  // Puts the text of a link before the rest of the path.
  int FollowLink(const char* link) {
    struct stat from;
    struct stat target;
    char buffer[link_text_size];
    if (system_calls.fstatat(current, link, &from, AT_SYMLINK_NOFOLLOW) != 0 ||
        !ReadLinkText(current, link, buffer) ||
        system_calls.fstatat(current, buffer, &target, AT_SYMLINK_NOFOLLOW) != 0)
      return PathWalk_NotFound;
    if (!seen) seen.emplace();
    if (!seen->Add(target)) return PathWalk_NotFound;
    if (!other_owner && from.st_uid != target.st_uid) return PathWalk_OtherOwner;

    size_t length = strlen(buffer);
    size_t length_of_rest = strlen(rest);
    while (length_of_rest > 0 && rest[length_of_rest - 1] == '/') length_of_rest--;
    if (length_of_rest > 0) {
      if (length + 1 + length_of_rest >= sizeof(buffer)) return PathWalk_NotFound;
      buffer[length++] = '/';
      memcpy(buffer + length, rest, length_of_rest);
      length += length_of_rest;
    }
    memcpy(text, buffer, length);
    text[length] = 0;
    rest = text;
    // With links the administrator permits paths to leave the base.
    trail.reset();
    return PathWalk_Done;
  }

  int base;
  int current;  // `opened`, or the base
  FileDescriptor opened;
  bool symlinks;
  bool other_owner;
  std::optional<SeenTargets> seen;
  std::optional<Trail> trail;
  char* rest = nullptr;
  char text[PATH_MAX];
};

// The configured directories on whose whole path this thread has lately found every directory
// readable. Every request opens them again, and the directories above them hardly ever change.
class KnownPaths {
 public:
  bool Contains(const char* path) const {
    for (const Known& known : paths) {
      if (known.path == path) return Seconds() - known.checked < known_way_seconds;
    }
    return false;
  }
  // Adds a path that has just been checked.
  void Add(const char* path) {
    Known& known = PlaceOf(path);
    known.path = path;
    known.checked = Seconds();
  }

 private:
  struct Known {
    std::string path;  // empty in a free place
    time_t checked = 0;
  };

  // The place that the path has already, or else the one that is replaced.
  Known& PlaceOf(const char* path) {
    for (Known& known : paths) {
      if (known.path == path) return known;
    }
    return paths[next++ % paths.size()];
  }
  // Whole seconds of a clock that is never set.
  static time_t Seconds() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec;
  }

  std::array<Known, 4> paths;
  unsigned next = 0;
};

KnownPaths& KnownToThread() {
  thread_local KnownPaths known;
  return known;
}

// True if each directory on the way to the last element could be opened for reading.
bool PassesReadableOnly(int base, const char* path) {
  char passed[PATH_MAX];
  size_t length = strlen(path);
  while (length > 0 && path[length - 1] == '/') length--;
  if (length >= sizeof(passed)) return false;
  memcpy(passed, path, length);
  passed[length] = 0;
  if (*path == '/' && length > 0 && system_calls.check_readable(base, "/") != 0) return false;
  for (char* slash = passed + strspn(passed, "/"); (slash = strchr(slash, '/')) != nullptr;) {
    *slash = 0;
    if (system_calls.check_readable(base, passed) != 0) return false;
    *slash = '/';
    slash += strspn(slash, "/");
  }
  return true;
}

// The same for the way that the kernel has just walked. To a configured directory it is checked now
// and then in each thread; a path below one may name anything, and is checked each time.
bool IsReadableWay(int base, const char* path) {
  if (*path != '/') return PassesReadableOnly(base, path);
  KnownPaths& known = KnownToThread();
  if (known.Contains(path)) return true;
  if (!PassesReadableOnly(base, path)) return false;
  known.Add(path);
  return true;
}

// Lets the kernel do the whole walk, if the result must be the same: there is no link on the way,
// and each directory on the way could be opened for reading. The kernel does not check the latter,
// because it requires only search permission. The check costs one call for each directory, while
// opening and closing it costs two, more expensive ones.
//
// Returns a descriptor, or -1 when the element-by-element walk has to decide. REQUIRES: the path
// has no "..", with which the walk may have to keep a trail.
int OpenInOneCall(int base, const char* path) {
  FileDescriptor opened(system_calls.open_without_links(base, path, walk_flags));
  if (opened.get() <= 0 || !IsReadableWay(base, path)) return -1;
  return opened.release();
}

// The same for any path.
int WalkInOneCall(int base, const char* path) {
  // For one element the walk takes one call as well.
  if (strchr(path, '/') == nullptr || strstr(path, "..") != nullptr) return -1;
  return OpenInOneCall(base, path);
}

// Returns a PathWalkResult.
int WalkByDescriptor(UNIXFileManager* manager, int base, const char* path, int* result,
                     bool symlinks, bool other_owner, bool confined) {
  if (!manager->FreeFileSpace(1)) return PathWalk_NotFound;
  // All links are allowed, so no element has to be checked on the way.
  if (symlinks && other_owner) {
    int descriptor = system_calls.openat(base, path, walk_flags & ~O_NOFOLLOW, 0);
    if (descriptor < 0) return PathWalk_NotFound;
    *result = descriptor;
    return PathWalk_Done;
  }
  int descriptor = WalkInOneCall(base, path);
  if (descriptor < 0) return Walker(base, symlinks, other_owner).Walk(path, confined, result);
  *result = descriptor;
  return PathWalk_Done;
}

}  // namespace

void UNIXReentrantFileManager::PrepareThread() {
  KnownToThread();
}

UNIXReentrantFileManager::UNIXReentrantFileManager(ZephApplication* application)
    : UNIXFileManager(application, WalkByDescriptor) {}

UNIXReentrantFileManager::UNIXReentrantFileManager(ZephApplication* application,
                                                   UNIXReentrantFileManager& other)
    : UNIXFileManager(application, other, WalkByDescriptor) {}

File* UNIXReentrantFileManager::OpenScript(String* directory, const char* path,
                                           TaggedFile* tagged) {
  constexpr int special =
      FileSecurity_ScriptSymlinks | FileSecurity_ScriptOtherOwner | FileSecurity_ScriptAbsolute;
  const char* root = directory->data;
  if (max_files != 0 || (security_flags & special) != 0 || root == nullptr || *root != '/' ||
      *path == 0 || *path == '/' || strstr(path, "..") != nullptr) {
    return nullptr;
  }
  // Kept open: whatever the request opens later comes from the tree that its script came from, also
  // if another directory has got that name by then.
  FileDescriptor base(WalkInOneCall(AT_FDCWD, root));
  if (!base.is_open()) return nullptr;
  FileDescriptor opened(OpenInOneCall(base.get(), path));
  if (!opened.is_open()) return nullptr;
  auto script = std::make_unique<UNIXFile>(this, opened.get(), path);
  (void)opened.release();
  const int count = script->ReadAhead(tagged->RoomAhead(), TaggedFile::kAhead);
  if (count < 0) return nullptr;
  std::unique_ptr<File> file(FileOpened(script.release()));
  // Adopts the text only when nothing can fail any more.
  auto text = std::make_unique<UNIXFilePath>(directory->data, false);
  (void)directory->release();
  delete script_path;
  script_path = text.release();
  if (script_directory >= 0) close(script_directory);
  script_directory = base.release();
  tagged->HasAhead(count);
  return file.release();
}

int UNIXReentrantFileManager::OpenPath(int base, const char* path, int* result, bool symlinks,
                                       bool other_owner) {
  return WalkByDescriptor(this, base, path, result, symlinks, other_owner, false);
}

bool UNIXReentrantFileManager::OpenContainedPath(Zeph_PathType type, const char* path,
                                                 int* result) {
  _UNIXContainedPathSettings settings;
  return ContainedPathSettings(type, &settings) && OpenContainedPath(type, &settings, path, result);
}

bool UNIXReentrantFileManager::OpenContainedPath(Zeph_PathType type,
                                                 _UNIXContainedPathSettings* settings,
                                                 const char* path, int* result) {
  ContainedDirectory directory;
  if (!OpenDirectory(type, *settings, path, &directory)) return false;
  int descriptor = directory.Release();
  if (descriptor < 0) return WalkError(type, PathWalk_NotFound);
  *result = descriptor;
  return true;
}
