// Tells when files of folders change.

#ifndef ZEPH_DEVELOP_WATCH_H
#define ZEPH_DEVELOP_WATCH_H

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "base/host/FileDescriptor.h"

// Watches folders through inotify. Belongs to one thread.
class Watch {
 public:
  // Returns false, with errno set, if the system allows no more watchers.
  [[nodiscard]] bool Open();
  // Watches a folder and all folders in it but those whose name begins with "."; those that are
  // made later, too. A folder that is watched already is left as it is. Returns false, with errno
  // set, if a folder cannot be watched, as when the system allows no more watches; all others are
  // watched then.
  [[nodiscard]] bool AddTree(const std::filesystem::path& folder);
  [[nodiscard]] bool AddFolder(const std::filesystem::path& folder);

  // To be polled; readable when there is something to Read.
  int descriptor() const { return notifier.get(); }
  // Adds the paths that have changed since the last call. True if there was anything, even if it
  // cannot be named, as after too many changes at once. Does not wait.
  bool Read(std::set<std::string>* touched);
  // The errno value of the last folder that Read could not watch; 0 if there was none since the
  // last call.
  int TakeFailure() { return std::exchange(failure, 0); }

 private:
  struct Folder {
    std::filesystem::path path;
    bool is_tree;
  };
  bool Add(const std::filesystem::path& folder, bool is_tree);
  bool AddBelow(const std::filesystem::path& folder);

  FileDescriptor notifier;
  std::map<int, Folder> folders;
  std::set<std::filesystem::path> trees;  // those that were asked for
  int failure = 0;
};

#endif
