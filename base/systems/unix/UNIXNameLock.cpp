// Locks that are names. A lock on a name N is the existence of N, as a hard link to a private file
// of its owner, which holds a record: "process!thread:host". Linking is atomic on every file
// system, so this works between the threads of a process, processes, and hosts that share a
// directory. The record survives a crash of its owner, so each waiter checks if the owner is still
// alive.
//
//   free              no file N          linkat makes one
//   held              N has a record     Delete, by the owner, ends it
//   abandoned         N has the record of a dead process of this host, or is another host's and has
//                     not been touched for lock_expiration seconds: a waiter removes it
//
// Tested in tests/base/systems/unix/UNIXNameLockTest.cpp.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

#include "base/core/CLocale.h"
#include "base/core/MD5.h"
#include "base/host/Config.h"
#include "base/host/ZephApplication.h"
#include "base/systems/unix/SystemCalls.h"
#include "base/systems/unix/UNIXFile.h"

namespace {

// Without O_NOFOLLOW a link could make a waiter read a file outside of the directory.
constexpr int record_flags = O_NOFOLLOW | quiet_flags;

// At most this many bytes of a record are read.
constexpr size_t record_limit = 511;

constexpr int kDigestLetters = 32;
constexpr size_t kNumberLetters = 10;  // the most of an unsigned

// The content of a lock file. Text that is not a record gives process 0 and no host.
struct OwnerRecord {
  int process = 0;
  int thread = 0;
  const char* host = nullptr;

  explicit OwnerRecord(char* text) {
    char* colon = strchr(text, ':');
    if (colon != nullptr) {
      *colon = 0;
      host = colon + 1;
    }
    process = static_cast<int>(LeadingNumber(text));
    char* mark = strchr(text, '!');
    if (mark != nullptr) thread = static_cast<int>(LeadingNumber(mark + 1));
  }
};

bool SameFile(const struct stat& a, const struct stat& b) {
  return a.st_ino == b.st_ino && a.st_dev == b.st_dev;
}

// One attempt to take a lock, from making its private file to the result.
class NameLock {
 public:
  NameLock(ZephApplication* owner, int in, const char* locked);
  ~NameLock();
  NameLock(const NameLock&) = delete;
  NameLock& operator=(const NameLock&) = delete;

  enum Outcome { Held, TimedOut, Deadlock, Failed };

  // On Failed the reason is in errno.
  Outcome Take();

 private:
  enum Next { TryNow, TryLater, OwnedByUs };

  bool MakePrivateFile();
  void RemoveOwnName();
  Next LookAtOwner();
  Next Judge(OwnerRecord record, int descriptor);
  Next RemoveAbandoned(int descriptor);
  void Pause();
  void Refresh();

  ZephApplication* application;
  int directory;
  const char* name;
  const char* host;
  unsigned process;
  unsigned thread;
  std::unique_ptr<char[]> private_name;
  bool has_private_file = false;
  bool may_be_linked = false;  // the name may be a link that was made here
  bool held = false;
  struct stat private_status = {};
};

NameLock::NameLock(ZephApplication* owner, int in, const char* locked)
    : application(owner),
      directory(in),
      name(locked),
      host(owner->lockhostname()),
      process(static_cast<unsigned>(owner->processid())),
      thread(static_cast<unsigned>(owner->threadid())) {
  if (host == nullptr) host = "";
  unsigned char digest[16];
  char printable[kDigestLetters];
  MD5Encoder encoder;
  encoder.Encode(reinterpret_cast<const unsigned char*>(host), static_cast<unsigned>(strlen(host)),
                 digest);
  encoder.Make_Printable(digest, printable);
  size_t size = strlen(name) + kDigestLetters + 2 * kNumberLetters + 4;
  private_name.reset(new char[size]);
  snprintf(private_name.get(), size, "%s.%.*s.%u.%u", name, kDigestLetters, printable, process,
           thread);
}

NameLock::~NameLock() {
  if (!has_private_file) return;
  int saved = errno;
  if (may_be_linked && !held) RemoveOwnName();
  system_calls.unlinkat(directory, private_name.get(), 0);
  errno = saved;
}

// A link can be made although the call fails, or although it could not be checked afterwards. No
// one would ever remove it, since this process lives.
void NameLock::RemoveOwnName() {
  struct stat status;
  if (system_calls.fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
      SameFile(status, private_status))
    system_calls.unlinkat(directory, name, 0);
}

bool NameLock::MakePrivateFile() {
  FileDescriptor created(system_calls.openat(
      directory, private_name.get(), O_WRONLY | O_CREAT | O_TRUNC | O_EXCL | quiet_flags, 0664));
  // If the file exists already, an earlier process with this number left it, or another program
  // pretends to be us. It is not deleted here; that is up to the administrator of the directory.
  has_private_file = created.is_open() || errno != EEXIST;
  if (!created.is_open()) return false;
  size_t size = strlen(host) + 2 * kNumberLetters + 3;
  std::unique_ptr<char[]> record(new char[size]);
  int length = snprintf(record.get(), size, "%u!%u:%s", process, thread, host);
  return WriteAll(created.get(), record.get(), static_cast<size_t>(length)) &&
         system_calls.fstat(created.get(), &private_status) == 0;
}

NameLock::Outcome NameLock::Take() {
  if (!MakePrivateFile()) return Failed;
  for (;;) {
    if (application->cancelled()) return TimedOut;
    const bool linked = system_calls.linkat(directory, private_name.get(), directory, name, 0) == 0;
    if (linked || errno != EEXIST) may_be_linked = true;
    if (!linked && errno != EEXIST) return Failed;
    struct stat status;
    if (system_calls.fstatat(directory, name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
      if (errno != ENOENT) Pause();
      continue;
    }
    // A network file system may report success for a link that another waiter's request made.
    // The link may be one of an earlier round that could not be checked then.
    if (may_be_linked && status.st_ino == private_status.st_ino &&
        status.st_rdev == private_status.st_rdev) {
      held = true;
      return Held;
    }
    switch (LookAtOwner()) {
      case TryNow: break;
      case TryLater:
        Pause();
        Refresh();
        break;
      case OwnedByUs: return Deadlock;
    }
  }
}

NameLock::Next NameLock::LookAtOwner() {
  FileDescriptor opened(system_calls.openat(directory, name, O_RDONLY | record_flags, 0));
  if (!opened.is_open()) return errno == ENOENT ? TryNow : TryLater;
  char text[record_limit + 1];
  ssize_t length = Retry([&] { return system_calls.read(opened.get(), text, record_limit); });
  if (length < 0) return TryLater;
  text[length] = 0;
  return Judge(OwnerRecord(text), opened.get());
}

NameLock::Next NameLock::Judge(OwnerRecord record, int descriptor) {
  if (record.process != 0 && record.host != nullptr && strcmp(record.host, host) == 0) {
    if (record.process == static_cast<int>(process) &&
        (record.thread == 0 || record.thread == static_cast<int>(thread)))
      return OwnedByUs;
    bool dead = system_calls.kill(record.process, 0) != 0 && errno == ESRCH;
    return dead ? RemoveAbandoned(descriptor) : TryLater;
  }
  int expiration = application->lockexpiration();
  struct stat status;
  if (expiration == 0 || system_calls.fstat(descriptor, &status) != 0) return TryLater;
  return time(nullptr) - status.st_mtime >= expiration ? RemoveAbandoned(descriptor) : TryLater;
}

// Two waiters may find the same abandoned lock. If the slower one just removed N, it would remove
// the lock that the faster one has taken meanwhile. So N is removed only by the holder of a lock on
// the very file that was read, and only while N is still that file.
//
// flock also works on a descriptor that is not writable, and another user's file gives no other.
// The record lock is for file systems on which flock has an effect only within this host.
NameLock::Next NameLock::RemoveAbandoned(int descriptor) {
  FileDescriptor writable(system_calls.openat(directory, name, O_RDWR | record_flags, 0));
  struct stat read_file;
  struct stat present;
  if (system_calls.fstat(descriptor, &read_file) != 0) return TryLater;
  if (writable.is_open()) {
    if (system_calls.fstat(writable.get(), &present) != 0) return TryLater;
    if (!SameFile(read_file, present)) return TryNow;
    descriptor = writable.get();
  }
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  if (system_calls.flock(descriptor, LOCK_EX | LOCK_NB) != 0) return TryLater;
  if (writable.is_open() && system_calls.set_lock(descriptor, &whole) != 0) return TryLater;
  if (system_calls.fstatat(directory, name, &present, AT_SYMLINK_NOFOLLOW) != 0 ||
      !SameFile(read_file, present))
    return TryNow;
  return system_calls.unlinkat(directory, name, 0) == 0 ? TryNow : TryLater;
}

// Waits in slices, so that a script that is cancelled during a long pause ends soon.
void NameLock::Pause() {
  long rest = std::max(application->config()->value_integer(Config_delay_file), 1);
  constexpr long slice = 500;
  while (rest > 0 && !application->cancelled()) {
    system_calls.poll(nullptr, 0, static_cast<int>(std::min(rest, slice)));
    rest -= slice;
  }
}

// The lock is as old as the private file that becomes it. Without this a lock that was taken after
// a long wait would look abandoned to other hosts at once.
void NameLock::Refresh() {
  static_cast<void>(
      system_calls.utimensat(directory, private_name.get(), nullptr, AT_SYMLINK_NOFOLLOW));
}

}  // namespace

int UNIXFileManager::LockAt(int directory, const char* name) {
  if (!FreeFileSpace(1)) return FileLock_Failed;
  NameLock lock(owner, directory, name);
  switch (lock.Take()) {
    case NameLock::Held: return FileLock_Held;
    case NameLock::TimedOut: Fail("Timed out waiting for lock"); return FileLock_TimedOut;
    case NameLock::Deadlock: Fail("Possible deadlock detected"); return FileLock_Failed;
    case NameLock::Failed: break;
  }
  SystemError();
  return FileLock_Failed;
}
