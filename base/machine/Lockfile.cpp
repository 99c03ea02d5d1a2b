// Takes and releases the lock of a script's block. Tested in
// tests/base/systems/unix/LockfileTest.cpp.

#include "base/machine/Lockfile.h"

#include <cmath>
#include <cstring>
#include <new>

#include "base/core/ThreadMemory.h"
#include "base/host/Config.h"
#include "base/host/File.h"
#include "base/host/ZephApplication.h"

namespace {

// How often a lock that has to be given back is tried without memory. The machine's end waits for
// it.
const int kTriesWithoutMemory = 3;

}  // namespace

Lockfile::Lockfile(ZephApplication* application, ZephVM* vm, const char* name, int length)
    : Feature(application, vm, Type_Lockfile) {
  const size_t bytes = name && length > 0 ? strnlen(name, static_cast<size_t>(length)) : 0;
  if (bytes > 0) path.assign(name, static_cast<int>(bytes));
  path.cat(".lck", -1);
}

Lockfile::~Lockfile() {
  if (locked) GiveBack();
}

bool Lockfile::Lock() {
  if (application->filemanager()->Lock(ZephPath_Data, path.data) == FileLock_Held) {
    locked = true;
    return true;
  }
  const String reason = application->filemanager()->error();
  String text("Error creating lockfile '", -1);
  text.cat(path.data, path.length);
  text.cat("': ", -1);
  text.cat(reason.data, reason.length);
  Error(text);
  return false;
}

void Lockfile::Heartbeat() {
  application->filemanager()->TouchFile(ZephPath_Data, path.data);
}

void Lockfile::GiveBack() {
  bool had_memory;
  if (DeleteFile(&had_memory)) return;
  double timeout = 0;
  int delay = 0;
  try {
    timeout = application->config()->value_integer(Config_timeout_file);
    delay = application->config()->value_integer(Config_delay_file);
  } catch (const std::bad_alloc&) {
    // A configuration library may need memory for a setting. This runs in a destructor.
    return;
  }
  // A delay of 0 would mean trying without end and without a pause, so there is no second try.
  if (delay == 0) return;
  const double tries = std::trunc(timeout * (1000.0 / delay));
  if (tries < 0) return;
  int tries_without_memory = kTriesWithoutMemory;
  for (double i = 0; i <= tries; i++) {
    if (application->cancelled()) return;
    if (DeleteFile(&had_memory)) return;
    if (!had_memory && --tries_without_memory == 0) return;
    application->Sleep(delay);
  }
}

// Finding the file's path allocates, and the script may have ended because memory ran out: the
// thread's reserve is for such a clean-up. Without memory even then it counts as one failed try.
bool Lockfile::DeleteFile(bool* had_memory) {
  *had_memory = true;
  for (bool again = false;; again = true) {
    try {
      return application->filemanager()->Delete(ZephPath_Data, path.data);
    } catch (const std::bad_alloc&) {
      if (again) {
        *had_memory = false;
        return false;
      }
      ThreadMemory::Exhausted(path.data, path.length);
    }
  }
}
