// Shared by the walks of the file manager: the flags for opening a directory on the way, and the
// set of links that were followed.

#ifndef ZEPH_BASE_SYSTEMS_UNIX_UNIXPATHWALK_H
#define ZEPH_BASE_SYSTEMS_UNIX_UNIXPATHWALK_H

#include <fcntl.h>
#include <sys/stat.h>

#include <memory>

#include "base/core/BaseTemplates.h"
#include "base/systems/unix/SystemCalls.h"

// An element that is a link must fail with ELOOP; O_DIRECTORY would turn that into ENOTDIR.
constexpr int walk_flags = O_RDONLY | O_NOFOLLOW | quiet_flags;

// Room for the text of a link and the path after it, NUL included.
constexpr int link_text_size = 1024;

// For so many seconds a thread need not check again that the directories above a configured one are
// readable. If their permissions change, all threads agree after that time. Only a test writes to
// it, while no other thread runs.
inline int known_way_seconds = 5;

// The targets that links led to, known by device and inode. A second link to one of them is a loop.
class SeenTargets : public HashTable<struct stat> {
 public:
  SeenTargets() : HashTable(1, 1, 12, 512) {}

  using HashTable::hash;
  int hash(struct stat* item) override {
    unsigned device = ::hash(&item->st_dev, 4, 0);
    return static_cast<int>(::hash(&item->st_ino, 8, device) &
                            static_cast<unsigned>(bucket_count - 1));
  }
  int Compare(struct stat* a, struct stat* b) override {
    if (a->st_dev != b->st_dev) return a->st_dev < b->st_dev ? -1 : 1;
    if (a->st_ino != b->st_ino) return a->st_ino < b->st_ino ? -1 : 1;
    return 0;
  }
  // No caller looks a target up by text.
  int Compare(struct stat*, const char*, int) override { return 1; }

  // Adds a target; returns false when it was there before.
  bool Add(const struct stat& target) {
    struct stat copy = target;
    if (Find(&copy) != nullptr) return false;
    InsertOwned(*this, std::make_unique<struct stat>(target));
    return true;
  }
};

// Reads the text of a link, NUL-terminated, into a buffer of link_text_size bytes; returns false
// with errno set. A text that does not fit is a failure, because cut short it would name another
// file.
bool ReadLinkText(int directory, const char* name, char* buffer);

#endif
