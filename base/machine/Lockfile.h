// A named lock that a block of a script holds: between its two instructions no other block of that
// name runs, in this process or in any that shares the data directory.

#ifndef ZEPH_BASE_LOCKFILE_H
#define ZEPH_BASE_LOCKFILE_H

#include "base/machine/Feature.h"

// The lock "orders" is the file "orders.lck" of the data directory (FileManager::Lock). The machine
// gives it back when the block ends and when the script ends inside of it, however that happens.
class Lockfile : public Feature {
 public:
  // The name is copied; it need not be terminated, and ends at a NUL byte.
  Lockfile(ZephApplication* application, ZephVM* vm, const char* name, int length);
  // Gives the lock back. What cannot be removed is tried again for timeout_file seconds, with
  // pauses of delay_file milliseconds, unless the script is cancelled; after that the file stays
  // until somebody who waits for it finds its owner gone.
  ~Lockfile() override;

  // Waits for the lock. False leaves the reason in error(): the wait has lasted too long or can
  // never end, or the directory refuses the file.
  [[nodiscard]] bool Lock();
  // Touches the file, so that other hosts see that its owner is still there.
  void Heartbeat() override;

 private:
  void GiveBack();
  bool DeleteFile();

  String path;
  bool locked = false;
};

#endif
