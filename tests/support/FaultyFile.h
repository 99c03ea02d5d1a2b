// Files in memory that count calls and fail on demand, so that readers and writers can be tested,
// measured or fuzzed without a disk.

#ifndef ZEPH_TESTS_SUPPORT_FAULTYFILE_H
#define ZEPH_TESTS_SUPPORT_FAULTYFILE_H

#include <algorithm>
#include <climits>
#include <string>
#include <vector>

#include "tools/MemoryFile.h"

// A byte range that a file of the manager has locked.
struct HeldLock {
  const File* file;
  FileLockType type;
  long start;
  long length;
};

class FaultyFileManager : public MemoryFileManager {
 public:
  using MemoryFileManager::MemoryFileManager;

  // Calls on all files so far.
  int opens = 0;
  int reads = 0;
  int writes = 0;
  int seeks = 0;
  int lengths = 0;
  int deactivations = 0;
  int open_now = 0;
  // Reads, writes, seeks, lengths, locks and releases together.
  int calls = 0;
  // All locks and releases, in order, as "lock t.dbf 0 97 exclusive" and "release t.dbf 0 97".
  std::vector<std::string> lock_log;
  // The present locks. Deleting a file object releases its locks; a release without a lock is
  // recorded as well.
  std::vector<HeldLock> held;

  // The n-th call from now on fails, 1 being the next; 0 means none. A failed call returns -1 with
  // the text "Injected failure".
  int fail_open = 0;
  int fail_read = 0;
  int fail_write = 0;
  int fail_seek = 0;
  int fail_lock = 0;
  int fail_release = 0;
  // After that many more bytes, writes take nothing; -1 means no limit.
  long write_room = -1;
  // No file grows beyond that many bytes, because a damaged header may hold offsets of gigabytes.
  long size_limit = LONG_MAX;
  // No read returns more than that; 0 means no limit.
  int read_limit = 0;

  // Simulates that the process is killed at the n-th call from now on, 1 being the next, 0 never:
  // that call and all calls after it, of all files, fail without effect. If that call is a write,
  // its first killed_write_length bytes are still written.
  int kill_call = 0;
  int killed_write_length = 0;
  bool killed = false;
  // A new process uses the files as the killed one left them.
  void Revive() {
    killed = false;
    kill_call = 0;
    held.clear();
  }

  void ResetCounts() {
    opens = reads = writes = seeks = lengths = deactivations = calls = 0;
    lock_log.clear();
  }

  using MemoryFileManager::Open;
  File* Open(const char* path, int mode) override;
  void DeactivateFile(File*) override { deactivations++; }

  // Whether the countdown reaches 0 with this call.
  static bool Due(int* countdown) { return *countdown > 0 && --*countdown == 0; }
};

class FaultyFile final : public MemoryFile {
 public:
  FaultyFile(FaultyFileManager* manager, const char* path, std::string* content)
      : MemoryFile(manager, path, content), files(manager) {
    files->open_now++;
  }
  ~FaultyFile() override {
    files->open_now--;
    std::erase_if(files->held, [this](const HeldLock& lock) { return lock.file == this; });
  }

  int Read(char* buffer, int length) override {
    files->reads++;
    if (Dies() || Due(&files->fail_read)) return Fail();
    if (files->read_limit > 0) length = std::min(length, files->read_limit);
    return MemoryFile::Read(buffer, length);
  }

  int Write(const char* text, int length) override {
    files->writes++;
    const bool dead = files->killed;
    if (Dies()) {
      if (!dead && length > 0 && files->killed_write_length > 0)
        MemoryFile::Write(text, std::min(length, files->killed_write_length));
      return Fail();
    }
    if (Due(&files->fail_write) || length < 0) return Fail();
    if (Tell() > files->size_limit - length) return Fail();
    if (files->write_room >= 0) {
      length = static_cast<int>(std::min<long>(length, files->write_room));
      files->write_room -= length;
    }
    return MemoryFile::Write(text, length);
  }

  int Seek(long place) override {
    files->seeks++;
    return Dies() || Due(&files->fail_seek) ? Fail() : MemoryFile::Seek(place);
  }

  long Length() override {
    files->lengths++;
    return Dies() ? Fail() : MemoryFile::Length();
  }

  // No lock waits here: it is recorded and granted.
  bool Lock(FileLockType type, long start, long length) override {
    if (Dies() || Due(&files->fail_lock)) return Fail() >= 0;
    Log("lock", start, length, type == FileLock_Exclusive ? " exclusive" : " shared");
    files->held.push_back({this, type, start, length});
    return true;
  }

  bool Release(long start, long length) override {
    if (Dies() || Due(&files->fail_release)) return Fail() >= 0;
    Log("release", start, length, "");
    std::erase_if(files->held, [=, this](const HeldLock& lock) {
      return lock.file == this && lock.start == start && lock.length == length;
    });
    return true;
  }
  using MemoryFile::Release;

 private:
  static bool Due(int* countdown) { return FaultyFileManager::Due(countdown); }
  bool Dies() {
    files->calls++;
    if (Due(&files->kill_call)) files->killed = true;
    return files->killed;
  }
  int Fail() {
    Error("Injected failure");
    return -1;
  }
  void Log(const char* what, long start, long length, const char* type) {
    files->lock_log.push_back(std::string(what) + " " + path() + " " + std::to_string(start) + " " +
                              std::to_string(length) + type);
  }

  FaultyFileManager* files;
};

inline File* FaultyFileManager::Open(const char* path, int mode) {
  opens++;
  if (killed || Due(&fail_open)) {
    Error("Injected failure");
    return nullptr;
  }
  std::string* content = Content(path, mode);
  return content ? new FaultyFile(this, path, content) : nullptr;
}

#endif
