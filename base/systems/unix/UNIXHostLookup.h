// Look-ups of host names with a time limit. The system's look-up takes as long as the name servers
// let it, up to minutes if they are silent, and cannot be interrupted.

#ifndef ZEPH_BASE_SYSTEMS_UNIX_UNIXHOSTLOOKUP_H
#define ZEPH_BASE_SYSTEMS_UNIX_UNIXHOSTLOOKUP_H

#include <netdb.h>

class ZephApplication;

// Returns the addresses of a host, which the caller frees with network_calls.freeaddrinfo; null if
// there are none. The timeout is in seconds, with the special values that NetworkConnection states.
// It is null as well when that time is over, and soon after the application was cancelled.
//
// An address is read at once. The look-up of a name runs on a thread of its own; if that has no
// result in time it is left alone, and drops its result when it comes.
addrinfo* LookUpHost(ZephApplication* application, const char* name, const addrinfo& hints,
                     int timeout);

#endif
