// Copies out of mapped files. A file that somebody cuts off takes its pages out of every mapping,
// and whoever touches one is killed by SIGBUS; here that touch is a copy that did not succeed.

#ifndef ZEPH_BASE_SYSTEMS_UNIX_GUARDEDCOPY_H
#define ZEPH_BASE_SYSTEMS_UNIX_GUARDEDCOPY_H

#include <cstddef>

// Whether GuardedCopy may be used in this thread. Asked for again with each mapping: it puts a
// handler of SIGBUS in front of the one that the process has, which a library may have replaced
// since the last time. Those found so still get every SIGBUS that no copy has caused, sent ones
// included. False if there can be no handler, or if the thread blocks the signal, which then kills
// the process.
[[nodiscard]] bool CanGuardCopies();

// Copies like memcpy. False if there is nothing behind the addresses copied from: the bytes copied
// to then have any values. Only where CanGuardCopies has said so.
[[nodiscard]] bool GuardedCopy(void* to, const void* from, size_t length);

#endif
