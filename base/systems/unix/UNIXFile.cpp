// Open files, and the operations of the manager on names outside the base directories. Tested in
// tests/base/systems/unix/UNIXFileTest.cpp.

#include "base/systems/unix/UNIXFile.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "base/host/ZephApplication.h"
#include "base/systems/unix/SystemCalls.h"

namespace {

// Flags that would create or empty the file when it is opened again.
constexpr int creating_flags = O_CREAT | O_TRUNC | O_EXCL;

// Descriptors below this are never kept from scripts, so opening one does not have to read the
// limit.
constexpr int plenty_of_descriptors = 64;

constexpr long no_end = std::numeric_limits<long>::max();

}  // namespace

// --- The open file -------------------------------------------------------------------------------

UNIXFile::UNIXFile(UNIXFileManager* manager, int descriptor, int flags, const char* path)
    : File(manager, path), descriptor(descriptor), flags(flags & ~creating_flags) {
  Settle();
}

UNIXFile::UNIXFile(UNIXFileManager* manager, int descriptor, int flags, Zeph_PathType type,
                   const char* path)
    : File(manager, type, path), descriptor(descriptor), flags(flags & ~creating_flags) {
  Settle();
}

UNIXFile::UNIXFile(UNIXFileManager* manager, int descriptor, const char* script)
    : File(manager, ZephPath_Script, script), descriptor(descriptor), flags(O_RDONLY) {}

UNIXFile::~UNIXFile() {
  UNIXFile::Release();
  if (descriptor >= 0) close(descriptor);
}

bool UNIXFile::Reactivate() {
  if (file_manager->ActivateFile(this)) return true;
  Error(file_manager->error());
  return false;
}

bool UNIXFile::SystemError() {
  Error(file_manager->application()->lasterror());
  return false;
}

// Called with a descriptor that was just opened. A regular file gets exactly the flags that the
// caller passed, without O_NONBLOCK, because its reads and writes never wait for another end. That
// the reads of a script have the flag makes no difference, and each request would pay for the call.
void UNIXFile::Settle() {
  struct stat status;
  if (system_calls.fstat(descriptor, &status) != 0) return;
  Note(status);
  const bool is_script = contained() && type() == ZephPath_Script && flags == O_RDONLY;
  if (is_regular && !is_script) system_calls.set_flags(descriptor, flags);
}

void UNIXFile::Note(const struct stat& status) {
  status_known = true;
  is_regular = S_ISREG(status.st_mode);
  is_directory = S_ISDIR(status.st_mode);
  owner = static_cast<int>(status.st_uid);
  group = static_cast<int>(status.st_gid);
}

bool UNIXFile::Status(struct stat* buffer) {
  if (!Ready()) return false;
  if (system_calls.fstat(descriptor, buffer) != 0) return SystemError();
  (void)KnowsPlace();
  return true;
}

// True if the position is kept here. That begins with the first status query or seek, unless the
// file was read or written before.
bool UNIXFile::KnowsPlace() {
  if (place < 0 && !moved && is_regular && (flags & O_APPEND) == 0) place = position;
  return place >= 0;
}

// Returns the result of a read or a write for which the system returned that count.
int UNIXFile::Moved(long count) {
  moved = true;
  if (count < 0) SystemError();
  if (count > 0 && place >= 0) place += count;
  return static_cast<int>(count);
}

bool UNIXFile::LearnStatus() {
  if (!Ready()) return false;
  (void)KnowsPlace();
  if (status_known && !moved) return true;
  struct stat status;
  if (!Status(&status)) return false;
  Note(status);
  return true;
}

bool UNIXFile::OwnerID(int* id) {
  if (!LearnStatus()) return false;
  *id = owner;
  return true;
}

bool UNIXFile::GroupID(int* id) {
  if (!LearnStatus()) return false;
  *id = group;
  return true;
}

int UNIXFile::Read(char* buffer, int length) {
  if (!Ready()) return -1;
  const auto size = static_cast<size_t>(length);
  if (length < 0) {
    errno = EINVAL;
    return Moved(-1);
  }
  if (place < 0) return Moved(Retry([&] { return system_calls.read(descriptor, buffer, size); }));
  if (window.Read(descriptor, place, buffer, size)) return Moved(length);
  return Moved(Retry([&] { return system_calls.pread(descriptor, buffer, size, place); }));
}

// A file that can be read at a place is treated as a regular one: its position is kept here.
int UNIXFile::ReadAhead(char* buffer, int length) {
  const auto size = static_cast<size_t>(length);
  const ssize_t count = Retry([&] { return system_calls.pread(descriptor, buffer, size, 0); });
  if (count < 0) return -1;
  is_regular = true;
  place = 0;
  return static_cast<int>(count);
}

int UNIXFile::Write(const char* bytes, int length) {
  if (!Ready()) return -1;
  const auto size = static_cast<size_t>(length);
  if (length < 0) {
    errno = EINVAL;
    return Moved(-1);
  }
  return Moved(Retry([&] {
    return place < 0 ? system_calls.write(descriptor, bytes, size)
                     : system_calls.pwrite(descriptor, bytes, size, place);
  }));
}

int UNIXFile::Seek(long position) {
  if (!Ready()) return -1;
  if (position >= 0 && position <= INT_MAX && KnowsPlace()) {
    moved = moved || position != place;
    place = position;
    return static_cast<int>(position);
  }
  off_t reached = system_calls.lseek(descriptor, position, SEEK_SET);
  moved = true;
  if (place >= 0 && reached >= 0) place = reached;
  if (reached > INT_MAX) {
    errno = EOVERFLOW;
    reached = -1;
  }
  if (reached < 0) SystemError();
  return static_cast<int>(reached);
}

int UNIXFile::Tell() {
  if (!Ready()) return -1;
  off_t reached = place >= 0 ? place : system_calls.lseek(descriptor, 0, SEEK_CUR);
  if (reached > INT_MAX) {
    errno = EOVERFLOW;
    reached = -1;
  }
  if (reached < 0) SystemError();
  return static_cast<int>(reached);
}

long UNIXFile::Length() {
  struct stat status;
  if (!Status(&status)) return -1;
  return S_ISFIFO(status.st_mode) ? 0 : static_cast<long>(status.st_size);
}

bool UNIXFile::IsDirectory(bool* result) {
  if (!LearnStatus()) return false;
  *result = is_directory;
  return true;
}

// The lock belongs to the open file and not to the process, unlike a classic record lock, because
// threads of one process have to exclude each other too. Waiting is a short poll, because the
// kernel's own wait can't be left when the script is cancelled.
bool UNIXFile::Lock(FileLockType type, long start, long length) {
  if (!Ready()) return false;
  struct flock range = {};
  range.l_type = type == FileLock_Exclusive ? F_WRLCK : F_RDLCK;
  range.l_whence = SEEK_SET;
  range.l_start = start;
  range.l_len = length;
  // Room to note the lock, because one that is held and not noted would be lost when the pool
  // closes the file.
  if (locked_ranges.empty())
    locked_ranges.reserve(1);
  else
    spare_ranges.reserve(locked_ranges.size() + 1);
  timespec pause = {0, 50000};
  constexpr long longest_pause = 10000000;
  while (system_calls.set_lock(descriptor, &range) != 0) {
    if (errno != EAGAIN && errno != EACCES && errno != EINTR) return SystemError();
    if (file_manager->application()->cancelled()) {
      Error("Timed out waiting for lock");
      return false;
    }
    ppoll(nullptr, 0, &pause, nullptr);
    pause.tv_nsec = std::min(pause.tv_nsec * 2, longest_pause);
  }
  NoteLocked(start, length, true);
  return true;
}

bool UNIXFile::IsLockable(FileLockType type, long start, long length) {
  if (descriptor < 0) return false;
  struct flock range = {};
  range.l_type = type == FileLock_Exclusive ? F_WRLCK : F_RDLCK;
  range.l_whence = SEEK_SET;
  range.l_start = start;
  range.l_len = length;
  return system_calls.get_lock(descriptor, &range) == 0 && range.l_type == F_UNLCK;
}

bool UNIXFile::Release(long start, long length) {
  if (!Ready()) return false;
  struct flock range = {};
  range.l_type = F_UNLCK;
  range.l_whence = SEEK_SET;
  // If nothing else is locked, release all bytes: the system then does not prepare to split a lock.
  if (!IsAllThatIsLocked(start, length)) {
    range.l_start = start;
    range.l_len = length;
  }
  if (Retry([&] { return system_calls.set_lock(descriptor, &range); }) != 0) return SystemError();
  try {
    NoteLocked(start, length, false);
  } catch (const std::bad_alloc&) {
    // More is noted than is held: the pool keeps the file open for longer than it must.
  }
  return true;
}

bool UNIXFile::IsAllThatIsLocked(long start, long length) const {
  return length > 0 && locked_ranges.size() == 1 && locked_ranges[0].start == start &&
         locked_ranges[0].end - start == length;
}

// Keeps the set of locked bytes as the kernel has it. The pool must know if any is left, and locks
// and releases need not come in pairs.
void UNIXFile::NoteLocked(long start, long length, bool held) {
  if (!held && IsAllThatIsLocked(start, length)) {
    locked_ranges.clear();
    holds_lock = false;
    return;
  }
  LockedRange range = {start, no_end};
  if (length < 0) range = {start + length, start};
  if (length > 0 && start <= no_end - length) range.end = start + length;
  // Nearly every call takes a single lock or releases it again.
  if (held && locked_ranges.empty()) {
    locked_ranges.push_back(range);
    holds_lock = true;
    return;
  }
  std::vector<LockedRange>& kept = spare_ranges;
  kept.clear();
  for (const LockedRange& other : locked_ranges) {
    if (other.end < range.start || other.start > range.end) {
      kept.push_back(other);
    } else if (held) {
      range.start = std::min(range.start, other.start);
      range.end = std::max(range.end, other.end);
    } else {
      if (other.start < range.start) kept.push_back({other.start, range.start});
      if (other.end > range.end) kept.push_back({range.end, other.end});
    }
  }
  if (held) kept.push_back(range);
  locked_ranges.swap(kept);
  holds_lock = !locked_ranges.empty();
}

char* UNIXFile::Map(long offset, long length) {
  Release();
  if (!Ready()) return nullptr;
  if (length == -1) {
    struct stat status;
    if (!Status(&status)) return nullptr;
    length = static_cast<long>(status.st_size);
  }
  if (length < 1) {
    Error("Invalid argument");
    return nullptr;
  }
  void* address = system_calls.mmap(nullptr, static_cast<size_t>(length), PROT_READ, MAP_SHARED,
                                    descriptor, offset);
  if (address == MAP_FAILED) {
    SystemError();
    return nullptr;
  }
  map_address = address;
  map_length = static_cast<size_t>(length);
  return static_cast<char*>(map_address);
}

void UNIXFile::Release() {
  if (map_address == nullptr) return;
  munmap(map_address, map_length);
  map_address = nullptr;
  map_length = 0;
}

bool UNIXFile::Activate(String& error) {
  UNIXFileManager* files = static_cast<UNIXFileManager*>(file_manager);
  FileDescriptor opened;
  if (contained()) {
    opened.reset(files->OpenContained(type(), path(), flags));
    if (!opened.is_open()) error = files->error();
  } else {
    opened.reset(files->OpenQuietly(AT_FDCWD, path(), flags, 0));
    if (!opened.is_open()) error = files->application()->lasterror();
  }
  if (!opened.is_open()) return false;
  if (position < 0 ||
      (position != 0 && system_calls.lseek(opened.get(), position, SEEK_SET) != position)) {
    error = "Unable to restore file position during activation";
    return false;
  }
  descriptor = opened.release();
  Settle();
  return true;
}

void UNIXFile::Deactivate() {
  if (descriptor < 0) return;
  position = place >= 0 ? place : system_calls.lseek(descriptor, 0, SEEK_CUR);
  // A pipe has no position and continues where it is. A regular file whose position is unknown must
  // not continue at its start, so its activation will fail.
  if (position < 0 && !is_regular) position = 0;
  place = -1;
  window.Close();
  // By its next activation the name may lead to another file.
  status_known = moved = false;
  close(descriptor);
  descriptor = -1;
  locked_ranges.clear();
  holds_lock = false;
}

// --- The manager's life, and names as given ------------------------------------------------------

UNIXFileManager::~UNIXFileManager() {
  for (int descriptor : {script_directory, data_directory, temp_directory})
    if (descriptor >= 0) close(descriptor);
  delete script_path;
  delete data_path;
  delete temp_path;
}

bool UNIXFileManager::SystemError() {
  Error(owner->lasterror());
  return false;
}

bool UNIXFileManager::Fail(const char* text) {
  error_text.assign(text, -1);
  return false;
}

char UNIXFileManager::pathseparator() {
  return '/';
}

int UNIXFileManager::OpenMode(int mode) {
  int flags = O_RDONLY;
  if (mode & FileMode_Write) flags = mode & FileMode_Read ? O_RDWR : O_WRONLY;
  if (mode & FileMode_Create) flags |= O_CREAT;
  if (mode & FileMode_Truncate) flags |= O_TRUNC;
  if (mode & FileMode_Append) flags |= O_APPEND;
  if (mode & FileMode_Exclusive) flags |= O_EXCL;
  return flags;
}

// An open that may not wait fails if another program, such as a server of this file to other
// machines, holds a lease on a regular file. The failed open makes the kernel tell that program to
// give up the lease, and the kernel enforces it in less than a minute.
int UNIXFileManager::OpenQuietly(int directory, const char* name, int flags, unsigned permissions) {
  constexpr int pause = 10;  // milliseconds
  for (;;) {
    const int opened = system_calls.openat(directory, name, flags | quiet_flags, permissions);
    if (opened >= 0 || errno != EWOULDBLOCK) return opened;
    struct stat status;
    const int links = flags & O_NOFOLLOW ? AT_SYMLINK_NOFOLLOW : 0;
    const bool leased = system_calls.fstatat(directory, name, &status, links) == 0 &&
                        S_ISREG(status.st_mode) && !owner->cancelled();
    errno = EWOULDBLOCK;
    if (!leased) return -1;
    system_calls.poll(nullptr, 0, pause);
  }
}

// The system returns the lowest free number, so a high one means that all lower ones are in use.
bool UNIXFileManager::IsSpare(int descriptor) {
  if (kept_descriptors == 0 || descriptor < plenty_of_descriptors) return true;
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return true;
  const rlim_t kept = std::min(static_cast<rlim_t>(kept_descriptors), limit.rlim_cur / 4);
  if (static_cast<rlim_t>(descriptor) < limit.rlim_cur - kept) return true;
  errno = EMFILE;
  return SystemError();
}

bool UNIXFileManager::HasSpare(int mode) {
  if (kept_descriptors == 0 || (mode & (FileMode_Create | FileMode_Truncate)) == 0) return true;
  FileDescriptor probe(system_calls.openat(AT_FDCWD, "/", O_PATH | O_CLOEXEC, 0));
  return !probe.is_open() || IsSpare(probe.get());
}

File* UNIXFileManager::Adopt(FileDescriptor& descriptor, int mode, const char* path) {
  auto file = std::make_unique<UNIXFile>(this, descriptor.get(), OpenMode(mode), path);
  (void)descriptor.release();
  return mode & FileMode_Unpooled ? file.release() : FileOpened(file.release());
}

File* UNIXFileManager::Adopt(FileDescriptor& descriptor, int mode, Zeph_PathType type,
                             const char* path) {
  auto file = std::make_unique<UNIXFile>(this, descriptor.get(), OpenMode(mode), type, path);
  (void)descriptor.release();
  return mode & FileMode_Unpooled ? file.release() : FileOpened(file.release());
}

File* UNIXFileManager::Open(const char* path, int mode) {
  if (!FreeFileSpace(1) || !HasSpare(mode)) return nullptr;
  FileDescriptor opened(OpenQuietly(AT_FDCWD, path, OpenMode(mode), 0666));
  if (!opened.is_open()) {
    SystemError();
    return nullptr;
  }
  return IsSpare(opened.get()) ? Adopt(opened, mode, path) : nullptr;
}

int UNIXFileManager::Lock(const char* path) {
  return LockAt(AT_FDCWD, path);
}

bool UNIXFileManager::Delete(const char* path) {
  return system_calls.unlinkat(AT_FDCWD, path, 0) == 0 || SystemError();
}

bool UNIXFileManager::Copy(const char* from, const char* to) {
  if (!FreeFileSpace(2)) return false;
  FileDescriptor source(OpenQuietly(AT_FDCWD, from, O_RDONLY, 0));
  if (!source.is_open()) return SystemError();
  if (!CheckCopySource(source.get())) return false;
  FileDescriptor target(OpenQuietly(AT_FDCWD, to, O_WRONLY | O_CREAT | O_TRUNC, 0666));
  if (!target.is_open()) return SystemError();
  return CopyBytes(source.get(), target.get());
}

bool UNIXFileManager::CheckCopySource(int descriptor) {
  struct stat status;
  if (system_calls.fstat(descriptor, &status) != 0) return SystemError();
  return !S_ISDIR(status.st_mode) || Fail("The source file is a directory");
}

bool UNIXFileManager::CopyBytes(int from, int to) {
  char buffer[8192];
  for (;;) {
    // A device need not have an end.
    if (owner->cancelled()) return Fail("The copy was cancelled");
    ssize_t count = Retry([&] { return system_calls.read(from, buffer, sizeof(buffer)); });
    if (count == 0) return true;
    if (count < 0) return SystemError();
    if (!WriteAll(to, buffer, static_cast<size_t>(count))) return SystemError();
  }
}

bool UNIXFileManager::Rename(const char* from, const char* to) {
  return system_calls.renameat(AT_FDCWD, from, AT_FDCWD, to) == 0 || SystemError();
}

bool UNIXFileManager::TouchFile(const char* path) {
  if (system_calls.utimensat(AT_FDCWD, path, nullptr, 0) == 0) return true;
  if (errno != ENOENT) return SystemError();
  if (!FreeFileSpace(1)) return false;
  FileDescriptor created(OpenQuietly(AT_FDCWD, path, O_WRONLY | O_CREAT, 0644));
  return created.is_open() || SystemError();
}

// Only EEXIST counts as "no file" here, and stat never fails with it. So a missing file is a
// failure, which callers rely on.
bool UNIXFileManager::Exists(const char* path, bool* exists) {
  struct stat status;
  if (system_calls.fstatat(AT_FDCWD, path, &status, 0) == 0) {
    *exists = true;
    return true;
  }
  if (errno != EEXIST) return SystemError();
  *exists = false;
  return true;
}

bool UNIXFileManager::Length(const char* path, long* length) {
  struct stat status;
  if (system_calls.fstatat(AT_FDCWD, path, &status, 0) != 0) return SystemError();
  *length = S_ISFIFO(status.st_mode) ? 0 : static_cast<long>(status.st_size);
  return true;
}

bool UNIXFileManager::IsDirectory(const char* path, bool* result) {
  struct stat status;
  if (system_calls.fstatat(AT_FDCWD, path, &status, 0) != 0) return SystemError();
  *result = S_ISDIR(status.st_mode);
  return true;
}

bool UNIXFileManager::ModifiedTime(const char* path, long* time) {
  struct stat status;
  if (system_calls.fstatat(AT_FDCWD, path, &status, 0) != 0) return SystemError();
  *time = static_cast<long>(status.st_mtime);
  return true;
}

bool UNIXFileManager::MakeDirectory(const char* path) {
  return system_calls.mkdirat(AT_FDCWD, path, 0777) == 0 || SystemError();
}

bool UNIXFileManager::RemoveDirectory(const char* path) {
  return system_calls.unlinkat(AT_FDCWD, path, AT_REMOVEDIR) == 0 || SystemError();
}

bool UNIXFileManager::MakeSymbolicLink(const char* from, const char* to) {
  return system_calls.symlinkat(from, AT_FDCWD, to) == 0 || SystemError();
}

bool UNIXFileManager::Mode(const char* path, int* mode) {
  struct stat status;
  if (system_calls.fstatat(AT_FDCWD, path, &status, 0) != 0) return SystemError();
  *mode = static_cast<int>(status.st_mode);
  return true;
}

bool UNIXFileManager::ChangeMode(const char* path, int mode) {
  return system_calls.fchmodat(AT_FDCWD, path, static_cast<mode_t>(mode), 0) == 0 || SystemError();
}

File* UNIXFileManager::MakeTemporary(const char* prefix, char** name, int mode) {
  if (!CheckPrefix(prefix) || !FreeFileSpace(1) || !HasSpare(FileMode_Create)) return nullptr;
  std::unique_ptr<char[]> chosen;
  FileDescriptor created(CreateTemporary(AT_FDCWD, "", prefix, mode, &chosen));
  if (!created.is_open()) return nullptr;
  File* file = nullptr;
  try {
    file = Adopt(created, mode, chosen.get());
  } catch (const std::bad_alloc&) {
    Discard(AT_FDCWD, chosen.get());
    throw;
  }
  *name = chosen.release();
  return file;
}

void UNIXFileManager::Discard(int directory, const char* path) {
  const char* slash = strrchr(path, '/');
  system_calls.unlinkat(directory, slash ? slash + 1 : path, 0);
}

bool UNIXFileManager::CheckPrefix(const char* prefix) {
  return strchr(prefix, '/') == nullptr || Fail("Invalid temporary filename prefix");
}

int UNIXFileManager::CreateTemporary(int directory, const char* leading, const char* prefix,
                                     int mode, std::unique_ptr<char[]>* name) {
  size_t lead = strlen(leading);
  if (lead == 1 && *leading == '.') lead = 0;
  bool slash = lead > 0 && leading[lead - 1] != '/';
  size_t start = lead + (slash ? 1 : 0);
  size_t size = start + strlen(prefix) + 10;  // ".%x" of 31 bits, and the NUL
  std::unique_ptr<char[]> full(new char[size]);
  memcpy(full.get(), leading, lead);
  if (slash) full[lead] = '/';
  int flags = OpenMode(mode | FileMode_Create | FileMode_Exclusive) | quiet_flags;
  for (unsigned n = 0; n < temporary_limit; n++) {
    snprintf(full.get() + start, size - start, "%s.%x", prefix, n);
    int descriptor = system_calls.openat(directory, full.get() + start, flags, 0666);
    if (descriptor >= 0) {
      *name = std::move(full);
      return descriptor;
    }
    if (errno != EEXIST) {
      SystemError();
      return -1;
    }
  }
  Fail("Unable to generate unique temporary filename");
  return -1;
}
