// inotify. Tested in tests/develop/WatchTest.cpp.

#include "develop/Watch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

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
  trees.insert(folder);
  return AddBelow(folder);
}

bool Watch::AddBelow(const fs::path& top) {
  int reason = 0;
  std::vector<fs::path> waiting = {top};
  while (!waiting.empty()) {
    const fs::path folder = waiting.back();
    waiting.pop_back();
    // Before the look at its entries, so that a folder that is made meanwhile is noticed.
    if (!Add(folder, true)) reason = errno;
    std::error_code gone;
    auto entry = fs::directory_iterator(folder, gone);
    for (; !gone && entry != fs::directory_iterator(); entry.increment(gone)) {
      std::error_code ignored;
      if (entry->is_directory(ignored) && !entry->is_symlink(ignored) && !IsHidden(entry->path())) {
        waiting.push_back(entry->path());
      }
    }
  }
  errno = reason;
  return reason == 0;
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
      // Folders that were made meanwhile may have been missed.
      if (event.mask & IN_Q_OVERFLOW) {
        any = true;
        for (const fs::path& tree : trees) {
          if (!AddBelow(tree)) failure = errno;
        }
      }
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
        if (!AddBelow(path)) failure = errno;
      }
    }
  }
}
