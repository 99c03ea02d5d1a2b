// The configuration file of the process, and the snapshot in force.

#ifndef ZEPH_CONFIG_SNAPSHOTSTORE_H
#define ZEPH_CONFIG_SNAPSHOTSTORE_H

#include "config/Snapshot.h"

#include <ctime>
#include <memory>
#include <mutex>
#include <string>

// Where the file is looked for: the one that this environment variable names, else the first of
// the two that exists.
inline constexpr char config_file_variable[] = "ZEPH_CONFIG";
inline constexpr char config_file_local[] = "zeph.toml";
inline constexpr char config_file_system[] = "/etc/zeph/zeph.toml";

// One for the process; any thread may call it.
class SnapshotStore {
 public:
  SnapshotStore() = default;
  SnapshotStore(const SnapshotStore&) = delete;
  SnapshotStore& operator=(const SnapshotStore&) = delete;

  // The snapshot that holds for a request that begins now; never null. Looks whether the file has
  // changed since the last call and reads it again if so. A file that is not in order leaves the
  // last good snapshot in force, and one line on standard error for each such state of the file.
  // Where no good one was ever read, the answer is a snapshot with an error.
  std::shared_ptr<const Snapshot> Current();

 private:
  // By what a state of the file is known.
  struct Identity {
    std::string path;  // empty when no file was named or found
    int error = 0;     // errno of the look at it, 0 when it is there
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified = {0, 0};

    bool operator==(const Identity& other) const;
  };

  static Identity Look();
  static Identity LookAt(const char* path);
  static Identity IdentityOf(const char* path, const struct stat& status);
  static std::string MissingText(const Identity& identity);
  static std::string ReadFile(Identity* identity, std::string* text);

  void Reload();
  void Install(Snapshot snapshot);

  std::mutex mutex;  // guards all below
  std::shared_ptr<const Snapshot> current;
  uint64_t generations = 0;
  // The state that was last looked into, and what it said.
  Identity seen;
  std::string seen_text;
  // Clear while the file is so young that another write in the same tick of the clock could leave
  // its identity as it is; it is then read again to be sure.
  bool settled = false;
};

#endif
