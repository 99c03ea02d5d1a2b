// Files in memory that count what is asked of them and fail on demand. For readers and writers that
// are to be tested, measured or fuzzed without a disk.

#ifndef ZEPH_TESTS_SUPPORT_FAULTYFILE_H
#define ZEPH_TESTS_SUPPORT_FAULTYFILE_H

#include <algorithm>

#include "tools/MemoryFile.h"

class FaultyFileManager : public MemoryFileManager {
 public:
  using MemoryFileManager::MemoryFileManager;

  // What was asked of all files so far.
  int opens = 0;
  int reads = 0;
  int writes = 0;
  int seeks = 0;
  int lengths = 0;
  int deactivations = 0;
  int open_now = 0;

  // The n-th call from now on fails, 1 being the next; 0 is none. A failed call answers -1 with
  // the text "Injected failure".
  int fail_read = 0;
  int fail_write = 0;
  int fail_seek = 0;
  // Once that many more bytes have been written, nothing is taken any more; -1 is no limit.
  long write_room = -1;
  // No read gives more than that at once; 0 is no limit.
  int read_limit = 0;

  void ResetCounts() { opens = reads = writes = seeks = lengths = deactivations = 0; }

  using MemoryFileManager::Open;
  File* Open(const char* path, int mode) override;
  void DeactivateFile(File*) override { deactivations++; }
};

class FaultyFile final : public MemoryFile {
 public:
  FaultyFile(FaultyFileManager* manager, const char* path, std::string* content)
      : MemoryFile(manager, path, content), files(manager) {
    files->open_now++;
  }
  ~FaultyFile() override { files->open_now--; }

  int Read(char* buffer, int length) override {
    files->reads++;
    if (Due(&files->fail_read)) return Fail();
    if (files->read_limit > 0) length = std::min(length, files->read_limit);
    return MemoryFile::Read(buffer, length);
  }

  int Write(const char* text, int length) override {
    files->writes++;
    if (Due(&files->fail_write) || length < 0) return Fail();
    if (files->write_room >= 0) {
      length = static_cast<int>(std::min<long>(length, files->write_room));
      files->write_room -= length;
    }
    return MemoryFile::Write(text, length);
  }

  int Seek(long place) override {
    files->seeks++;
    return Due(&files->fail_seek) ? Fail() : MemoryFile::Seek(place);
  }

  long Length() override {
    files->lengths++;
    return MemoryFile::Length();
  }

 private:
  static bool Due(int* countdown) { return *countdown > 0 && --*countdown == 0; }
  int Fail() {
    Error("Injected failure");
    return -1;
  }

  FaultyFileManager* files;
};

inline File* FaultyFileManager::Open(const char* path, int mode) {
  opens++;
  std::string* content = Content(path, mode);
  return content ? new FaultyFile(this, path, content) : nullptr;
}

#endif
