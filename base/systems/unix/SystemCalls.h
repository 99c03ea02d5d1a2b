// The system calls of the file unit whose failures no file system can be made to produce at will.
// They go through one table, in which a test replaces an entry before it acts.

#ifndef ZEPH_BASE_SYSTEMS_UNIX_SYSTEMCALLS_H
#define ZEPH_BASE_SYSTEMS_UNIX_SYSTEMCALLS_H

#include <fcntl.h>
#include <linux/openat2.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>

// Added to every open. A descriptor never reaches another program, a terminal never becomes ours,
// and a FIFO or a device never makes its opener wait for the other end. Of what is no regular file,
// reads and writes do not wait either.
constexpr int quiet_flags = O_CLOEXEC | O_NOCTTY | O_NONBLOCK;

// openat, which takes its mode only where it is needed.
inline int OpenAt(int directory, const char* name, int flags, mode_t mode) {
  return ::openat(directory, name, flags, mode);
}

// openat of a whole path that fails with ELOOP at any link on the way; with ENOSYS before
// Linux 5.6.
inline int OpenWithoutLinks(int directory, const char* path, int flags) {
  open_how how = {};
  how.flags = static_cast<unsigned>(flags);
  how.resolve = RESOLVE_NO_SYMLINKS;
  return static_cast<int>(syscall(SYS_openat2, directory, path, &how, sizeof(how)));
}

// Whether the effective user may read what the path names; ENOSYS before Linux 5.8. The library's
// faccessat would guess there.
inline int CheckReadable(int directory, const char* path) {
  return static_cast<int>(syscall(SYS_faccessat2, directory, path, R_OK, AT_EACCESS));
}

// Entries have the contracts of the calls they are named after. Written only by a test that has no
// other thread running.
struct SystemCalls {
  ssize_t (*read)(int, void*, size_t) = ::read;
  ssize_t (*write)(int, const void*, size_t) = ::write;
  ssize_t (*pread)(int, void*, size_t, off_t) = ::pread;
  ssize_t (*pwrite)(int, const void*, size_t, off_t) = ::pwrite;
  off_t (*lseek)(int, off_t, int) = ::lseek;
  int (*openat)(int, const char*, int, mode_t) = OpenAt;
  int (*open_without_links)(int, const char*, int) = OpenWithoutLinks;
  int (*check_readable)(int, const char*) = CheckReadable;
  int (*fstatat)(int, const char*, struct stat*, int) = ::fstatat;
  int (*linkat)(int, const char*, int, const char*, int) = ::linkat;
  int (*unlinkat)(int, const char*, int) = ::unlinkat;
  int (*renameat)(int, const char*, int, const char*) = ::renameat;
  int (*kill)(pid_t, int) = ::kill;
  int (*poll)(pollfd*, nfds_t, int) = ::poll;
};

inline SystemCalls system_calls;

// The result of a call, which is made again when a signal cut it short.
template <class Call>
auto Retry(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

// Writes all of it. A write that stops short says nothing of the reason; trying the rest does, so
// that errno has it when this answers false.
inline bool WriteAll(int descriptor, const char* bytes, size_t length) {
  while (length > 0) {
    ssize_t count = Retry([=] { return system_calls.write(descriptor, bytes, length); });
    if (count <= 0) return false;
    bytes += count;
    length -= static_cast<size_t>(count);
  }
  return true;
}

#endif
