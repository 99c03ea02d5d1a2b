// Copies out of mapped files. If a file is truncated, its pages vanish from every mapping, and
// touching one raises SIGBUS, which kills the process. Here such an access only makes the copy
// fail.

#ifndef ZEPH_BASE_SYSTEMS_UNIX_GUARDEDCOPY_H
#define ZEPH_BASE_SYSTEMS_UNIX_GUARDEDCOPY_H

#include <cstddef>

// True if GuardedCopy may be used in this thread. Callers check again with each mapping. The call
// installs a handler of SIGBUS in front of the process's own, which a library may have replaced
// since the last call. The earlier handlers still get every SIGBUS that no copy has caused,
// including sent ones. Returns false if no handler can be installed, or if the thread blocks the
// signal, because a blocked one kills the process.
[[nodiscard]] bool CanGuardCopies();

// Copies like memcpy. Returns false if there is no memory at the source addresses; the
// destination's bytes are then undefined. REQUIRES: CanGuardCopies returned true in this thread.
[[nodiscard]] bool GuardedCopy(void* to, const void* from, size_t length);

#endif
