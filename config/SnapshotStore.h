// The configuration file of the process, and the snapshot in force.

#ifndef ZEPH_CONFIG_SNAPSHOTSTORE_H
#define ZEPH_CONFIG_SNAPSHOTSTORE_H

#include "config/Snapshot.h"

#include <sys/stat.h>

#include <atomic>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>

// The file is the one that this environment variable names, or else the first of the two that
// exists.
inline constexpr char config_file_variable[] = "ZEPH_CONFIG";
inline constexpr char config_file_local[] = "zeph.toml";
inline constexpr char config_file_system[] = "/etc/zeph/zeph.toml";

// One for the process; any thread may call it.
class SnapshotStore {
 public:
  SnapshotStore() = default;
  SnapshotStore(const SnapshotStore&) = delete;
  SnapshotStore& operator=(const SnapshotStore&) = delete;

  // Identifies a state of the file.
  struct Identity {
    std::string path;  // empty when no file was named or found
    int error = 0;     // errno of looking it up, 0 when it exists
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified = {0, 0};

    bool operator==(const Identity& other) const;
  };

  // What one thread has seen. While the file stays as it was, the thread needs neither the lock nor
  // the count of the snapshot, both of which all threads share.
  struct View {
    std::shared_ptr<const Snapshot> snapshot;  // null before the first Update
    Identity seen;
    bool settled = false;
  };

  // Makes *view the snapshot for a request that begins now. Like Current in all else.
  void Update(View* view);
  // Returns the snapshot for a request that begins now; never null. Checks if the file has changed
  // since the last call and reads it again if so. If the file has errors, the last good snapshot
  // stays in force, and each such state of the file gives one line in the operator's log. If no
  // good one was ever read, returns a snapshot with an error.
  std::shared_ptr<const Snapshot> Current();

 private:
  // The file that was found, or the errno of looking for it.
  struct Found {
    const char* path;  // empty when no file was named or found
    int error;
    struct stat status;
  };

  static Found Look();
  static Found LookAt(const char* path);
  static Identity IdentityOf(const Found& found);
  static bool IsStill(const Identity& identity, const Found& found);
  static std::string MissingText(const Identity& identity);
  static std::string ReadFile(Identity* identity, std::string* text);

  void Reload();
  void Install(Snapshot snapshot);

  // The generation of `current`. A thread reads it without the lock.
  std::atomic<uint64_t> generations{0};
  std::mutex mutex;  // guards all below, and changes of the generation
  std::shared_ptr<const Snapshot> current;
  // The state that was last read, and its content.
  Identity seen;
  std::string seen_text;
  // False while the file is so young that another write in the same tick of the clock could leave
  // its identity unchanged. The next call then reads it again to be sure.
  bool settled = false;
};

#endif
