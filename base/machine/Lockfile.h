// A named lock that a block of a script holds: between its two instructions no other block with a
// lock of that name runs, in this process or in any other that shares the data directory.

#ifndef ZEPH_BASE_LOCKFILE_H
#define ZEPH_BASE_LOCKFILE_H

#include "base/machine/Feature.h"

// The lock "orders" is the file "orders.lck" of the data directory (FileManager::Lock). The machine
// releases it when the block ends, or when the script ends inside of the block for any reason.
class Lockfile : public Feature {
 public:
  // Copies the name, which need not be terminated and ends at the first NUL byte.
  Lockfile(ZephApplication* application, ZephVM* vm, const char* name, int length);
  // Releases the lock. If the file cannot be removed, tries again for timeout_file seconds, with
  // pauses of delay_file milliseconds, unless the script is cancelled. After that the file stays
  // until a process that waits for the lock finds that its owner has gone.
  ~Lockfile() override;

  // Waits for the lock. Returns false with the reason in error(): the wait has lasted too long or
  // can never end, or the directory refuses the file.
  [[nodiscard]] bool Lock();
  // Touches the file, so that other hosts see that its owner is still there.
  void Heartbeat() override;

 private:
  void GiveBack();
  // Returns false if another try is worth while. *had_memory receives whether there was memory for
  // this one.
  bool DeleteFile(bool* had_memory);

  String path;
  bool locked = false;
};

#endif
