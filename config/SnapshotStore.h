// The configuration file of the process, and the snapshot in force.

#ifndef ZEPH_CONFIG_SNAPSHOTSTORE_H
#define ZEPH_CONFIG_SNAPSHOTSTORE_H

#include "config/SettingsFile.h"
#include "config/Snapshot.h"

#include <sys/stat.h>

#include <atomic>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>

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
  static Identity IdentityOf(const FoundSettings& found);
  static bool IsStill(const Identity& identity, const FoundSettings& found);

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
  // its identity unchanged, and after a failure that may pass although the file stays the same. The
  // next call then reads it again to be sure.
  bool settled = false;
};

#endif
