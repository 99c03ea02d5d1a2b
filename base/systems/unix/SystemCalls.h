// The system calls of the file unit. They go through one table, in which a test replaces an entry,
// because most of their failures cannot be provoked on a real file system. A call through the table
// costs what a call into a shared library costs anyway: an indirect jump.
//
// Not in the table are close, whose result is not used, and the calls of the plain manager's walk
// through the working directory.

#ifndef ZEPH_BASE_SYSTEMS_UNIX_SYSTEMCALLS_H
#define ZEPH_BASE_SYSTEMS_UNIX_SYSTEMCALLS_H

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>

// Added to every open. A descriptor is never inherited by another program, a terminal never becomes
// our controlling terminal, and opening a FIFO or a device never waits for the other end. Reads and
// writes of files that are not regular do not wait either.
constexpr int quiet_flags = O_CLOEXEC | O_NOCTTY | O_NONBLOCK;

// openat with a mode that is always passed, where the system's takes it only for some flags.
inline int OpenAt(int directory, const char* name, int flags, mode_t mode) {
  return ::openat(directory, name, flags, mode);
}

// openat of a whole path that fails with ELOOP at any link on the way, and with ENOSYS before Linux
// 5.6.
inline int OpenWithoutLinks(int directory, const char* path, int flags) {
  open_how how = {};
  how.flags = static_cast<unsigned>(flags);
  how.resolve = RESOLVE_NO_SYMLINKS;
  return static_cast<int>(syscall(SYS_openat2, directory, path, &how, sizeof(how)));
}

// Checks that the effective user may read the file of that path. Fails with ENOSYS before Linux
// 5.8, where the library's faccessat would guess.
inline int CheckReadable(int directory, const char* path) {
  return static_cast<int>(syscall(SYS_faccessat2, directory, path, R_OK, AT_EACCESS));
}

// fcntl of one command each, with the argument that it takes.
inline int SetLock(int descriptor, struct flock* range) {
  return ::fcntl(descriptor, F_OFD_SETLK, range);
}
inline int GetLock(int descriptor, struct flock* range) {
  return ::fcntl(descriptor, F_OFD_GETLK, range);
}
inline int SetFlags(int descriptor, int flags) {
  return ::fcntl(descriptor, F_SETFL, flags);
}
inline int DuplicateFrom(int descriptor, int lowest) {
  return ::fcntl(descriptor, F_DUPFD_CLOEXEC, lowest);
}

// Entries have the contracts of the calls that they are named after. Only a test writes to the
// table, while no other thread runs.
struct SystemCalls {
  ssize_t (*read)(int, void*, size_t) = ::read;
  ssize_t (*write)(int, const void*, size_t) = ::write;
  ssize_t (*pread)(int, void*, size_t, off_t) = ::pread;
  ssize_t (*pwrite)(int, const void*, size_t, off_t) = ::pwrite;
  off_t (*lseek)(int, off_t, int) = ::lseek;
  int (*openat)(int, const char*, int, mode_t) = OpenAt;
  int (*open_without_links)(int, const char*, int) = OpenWithoutLinks;
  int (*check_readable)(int, const char*) = CheckReadable;
  int (*fstat)(int, struct stat*) = ::fstat;
  int (*fstatat)(int, const char*, struct stat*, int) = ::fstatat;
  int (*linkat)(int, const char*, int, const char*, int) = ::linkat;
  int (*unlinkat)(int, const char*, int) = ::unlinkat;
  int (*renameat)(int, const char*, int, const char*) = ::renameat;
  int (*mkdirat)(int, const char*, mode_t) = ::mkdirat;
  int (*symlinkat)(const char*, int, const char*) = ::symlinkat;
  ssize_t (*readlinkat)(int, const char*, char*, size_t) = ::readlinkat;
  int (*fchmod)(int, mode_t) = ::fchmod;
  int (*fchmodat)(int, const char*, mode_t, int) = ::fchmodat;
  int (*futimens)(int, const timespec*) = ::futimens;
  int (*utimensat)(int, const char*, const timespec*, int) = ::utimensat;
  DIR* (*fdopendir)(int) = ::fdopendir;
  dirent* (*readdir)(DIR*) = ::readdir;
  void* (*mmap)(void*, size_t, int, int, int, off_t) = ::mmap;
  int (*set_lock)(int, struct flock*) = SetLock;
  int (*get_lock)(int, struct flock*) = GetLock;
  int (*set_flags)(int, int) = SetFlags;
  int (*duplicate_from)(int, int) = DuplicateFrom;
  int (*flock)(int, int) = ::flock;
  int (*kill)(pid_t, int) = ::kill;
  int (*poll)(pollfd*, nfds_t, int) = ::poll;
};

inline SystemCalls system_calls;

// Returns the result of a call, repeated as long as a signal interrupts it.
template <class Call>
auto Retry(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

// Writes all of the bytes. A short write gives no reason; writing the rest does, so errno has the
// reason when this returns false.
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
