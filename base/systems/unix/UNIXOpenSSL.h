// The process's hold on OpenSSL: its libraries, which are loaded once, and what older versions of
// them need of a process with threads. Applications reach it by UNIXApplication::SSL_Configure,
// SSL_Initialize and SSL_GetFunction.

#ifndef ZEPH_BASE_SYSTEMS_UNIX_UNIXOPENSSL_H
#define ZEPH_BASE_SYSTEMS_UNIX_UNIXOPENSSL_H

#include <atomic>

#include "base/core/Mutex.h"

// The state of the libraries. It leaves -1 once, under the configure lock, and does not change
// again before the end of the process:
//   -1   not tried
//    0   could not be loaded; not tried again
//    1   loaded; what follows is set and does not change
extern std::atomic<int> FastCGIApplication_OpenSSL_Available;
// Handles of dlopen. The one to use for functions of libcrypto is that of libssl if it has them.
extern void* FastCGIApplication_libssl_handle;
extern void* FastCGIApplication_libcrypto_handle;
extern void* FastCGIApplication_libcrypto_use;
extern Mutex FastCGIApplication_OpenSSL_Configure_Lock;
// The locks that a library before version 1.1 takes and gives back through a callback; null and 0
// for later ones, which have their own.
extern Mutex* FastCGIApplication_OpenSSL_Locks;
extern int FastCGIApplication_OpenSSL_Lock_Count;

// Once at the start of the process, before the first thread; and at its end, after the last one.
// Then there may be no more application. A process may go through both again.
void FastCGIApplication_OpenSSL_Initialize();
void FastCGIApplication_OpenSSL_Cleanup();
// At the end of each thread that has run scripts.
void FastCGIApplication_OpenSSL_Thread_Cleanup();

#endif
