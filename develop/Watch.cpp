// inotify. Tested in tests/develop/WatchTest.cpp.

#include "develop/Watch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace fs = std::filesystem;

namespace {

// A file counts when it is complete: closed after a write, or moved to its place. A link or an
// empty file is complete when it is made.
constexpr uint32_t kEvents = IN_CLOSE_WRITE | IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                             IN_ONLYDIR | IN_EXCL_UNLINK;

bool IsHidden(const fs::path& path) {
  return path.filename().string()[0] == '.';
}

}  // namespace

bool Watch::Open() {
  notifier.reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  return notifier.is_open();
}

bool Watch::Add(const fs::path& folder, bool is_tree) {
  const int number = inotify_add_watch(notifier.get(), folder.c_str(), kEvents);
  if (number < 0) return errno == ENOENT || errno == ENOTDIR || errno == EACCES;
  Folder& known = folders[number];
  known = {folder, is_tree || known.is_tree};
  return true;
}

bool Watch::AddFolder(const fs::path& folder) {
  return Add(folder, false);
}

bool Watch::AddTree(const fs::path& folder) {
  if (!Add(folder, true)) return false;
  std::error_code failure;
  const auto options = fs::directory_options::skip_permission_denied;
  for (auto entry = fs::recursive_directory_iterator(folder, options, failure);
       !failure && entry != fs::recursive_directory_iterator(); entry.increment(failure)) {
    std::error_code gone;
    if (!entry->is_directory(gone) || entry->is_symlink(gone)) continue;
    if (IsHidden(entry->path())) {
      entry.disable_recursion_pending();
    } else if (!Add(entry->path(), true)) {
      return false;
    }
  }
  return true;
}

bool Watch::Read(std::set<std::string>* touched) {
  constexpr size_t room = size_t{64} << 10;
  alignas(inotify_event) std::array<char, room> buffer;
  bool any = false;
  for (;;) {
    const ssize_t count = read(notifier.get(), buffer.data(), buffer.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return any;
    for (size_t at = 0; at + sizeof(inotify_event) <= static_cast<size_t>(count);) {
      inotify_event event;
      memcpy(&event, buffer.data() + at, sizeof event);
      const char* name = buffer.data() + at + sizeof event;
      at += sizeof event + event.len;
      if (event.mask & IN_Q_OVERFLOW) any = true;
      auto folder = folders.find(event.wd);
      if (folder == folders.end()) continue;
      if (event.mask & IN_IGNORED) {
        folders.erase(folder);
        any = true;
        continue;
      }
      if (event.len == 0 || name[0] == '.') continue;
      any = true;
      const fs::path path = folder->second.path / name;
      touched->insert(path.string());
      // What the new folder has already been given is found by the look at all files.
      const bool appeared = (event.mask & (IN_CREATE | IN_MOVED_TO)) != 0;
      if ((event.mask & IN_ISDIR) && appeared && folder->second.is_tree) {
        static_cast<void>(AddTree(path));
      }
    }
  }
}
