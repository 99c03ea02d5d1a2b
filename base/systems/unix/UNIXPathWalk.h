// What the walks of the file manager share: the flags that a directory on the way is opened with,
// and the memory of the links that were followed.

#ifndef ZEPH_BASE_SYSTEMS_UNIX_UNIXPATHWALK_H
#define ZEPH_BASE_SYSTEMS_UNIX_UNIXPATHWALK_H

#include <fcntl.h>
#include <sys/stat.h>

#include <memory>

#include "base/core/BaseTemplates.h"
#include "base/systems/unix/SystemCalls.h"

// An element that is a link must answer ELOOP, which O_DIRECTORY would turn into ENOTDIR.
constexpr int walk_flags = O_RDONLY | O_NOFOLLOW | quiet_flags;

// The text of a link together with the path behind it fits into this, NUL included.
constexpr int link_text_size = 1024;

// Objects that links led to, known by device and inode: a link to one of them again is a loop.
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
  // Nobody looks a target up by text.
  int Compare(struct stat*, const char*, int) override { return 1; }

  // Notes a target; false when it was there before.
  bool Add(const struct stat& target) {
    struct stat copy = target;
    if (Find(&copy) != nullptr) return false;
    InsertOwned(*this, std::make_unique<struct stat>(target));
    return true;
  }
};

// The text of a link, NUL-terminated, in a buffer of link_text_size bytes; false with errno set. A
// text that does not fit is a failure: cut short it would name something else.
bool ReadLinkText(int directory, const char* name, char* buffer);

#endif
