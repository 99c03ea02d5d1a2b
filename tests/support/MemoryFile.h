// Files in memory, behind the engine's file interface: they count what is asked of them and fail on
// demand. For readers and writers that are to be tested, measured or fuzzed without a disk.

#ifndef ZEPH_TESTS_SUPPORT_MEMORYFILE_H
#define ZEPH_TESTS_SUPPORT_MEMORYFILE_H

#include <string.h>

#include <algorithm>
#include <map>
#include <string>

#include "base/File.h"

// All files by name. Names are taken as they are given, whatever the type; there are no
// directories. Operations that a reader or writer of one file has no use for fail.
class MemoryFileManager final : public FileManager {
 public:
  explicit MemoryFileManager(ZephApplication* application = nullptr) : FileManager(application) {}

  std::map<std::string, std::string> files;

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

  File* Open(const char* path, int mode) override;
  File* Open(Zeph_PathType, const char* path, int mode) override { return Open(path, mode); }
  bool Delete(const char* path) override { return files.erase(path) != 0 || Refuse(); }
  bool Delete(Zeph_PathType, const char* path) override { return Delete(path); }
  void DeactivateFile(File*) override { deactivations++; }
  char pathseparator() override { return '/'; }

  int Lock(const char*) override { return FileLock_Failed; }
  bool Copy(const char*, const char*) override { return Refuse(); }
  bool Rename(const char*, const char*) override { return Refuse(); }
  bool TouchFile(const char*) override { return Refuse(); }
  bool Exists(const char*, bool*) override { return Refuse(); }
  bool Length(const char*, long*) override { return Refuse(); }
  bool IsDirectory(const char*, bool*) override { return Refuse(); }
  bool ModifiedTime(const char*, long*) override { return Refuse(); }
  bool MakeDirectory(const char*) override { return Refuse(); }
  bool RemoveDirectory(const char*) override { return Refuse(); }
  bool MakeSymbolicLink(const char*, const char*) override { return Refuse(); }
  bool Mode(const char*, int*) override { return Refuse(); }
  bool ChangeMode(const char*, int) override { return Refuse(); }
  File* MakeTemporary(const char*, char**, int) override { return RefuseFile(); }
  int Lock(Zeph_PathType, const char*) override { return FileLock_Failed; }
  bool Copy(Zeph_PathType, const char*, Zeph_PathType, const char*) override { return Refuse(); }
  bool Rename(Zeph_PathType, const char*, Zeph_PathType, const char*) override { return Refuse(); }
  bool TouchFile(Zeph_PathType, const char*) override { return Refuse(); }
  bool Exists(Zeph_PathType, const char*, bool*) override { return Refuse(); }
  bool Length(Zeph_PathType, const char*, long*) override { return Refuse(); }
  bool IsDirectory(Zeph_PathType, const char*, bool*) override { return Refuse(); }
  bool ModifiedTime(Zeph_PathType, const char*, long*) override { return Refuse(); }
  bool MakeDirectory(Zeph_PathType, const char*) override { return Refuse(); }
  bool RemoveDirectory(Zeph_PathType, const char*) override { return Refuse(); }
  bool MakeSymbolicLink(Zeph_PathType, const char*, Zeph_PathType, const char*) override {
    return Refuse();
  }
  bool Mode(Zeph_PathType, const char*, int*) override { return Refuse(); }
  bool ChangeMode(Zeph_PathType, const char*, int) override { return Refuse(); }
  File* MakeTemporary(Zeph_PathType, const char*, const char*, char**, int) override {
    return RefuseFile();
  }
  File* MakeTemporaryLike(Zeph_PathType, const char*, char**, int) override { return RefuseFile(); }
  bool DirectoryListing(Zeph_PathType, const char*, List<String>*) override { return Refuse(); }
  char* NormalizeContainedPath(Zeph_PathType, const char*, int*, int*) override { return nullptr; }

 private:
  bool Refuse() {
    Error("Not available in memory");
    return false;
  }
  File* RefuseFile() {
    Refuse();
    return nullptr;
  }
};

// One open file. Its content may change under it, as a file's on a disk.
class MemoryFile final : public File {
 public:
  MemoryFile(MemoryFileManager* manager, const char* path, std::string* content)
      : File(manager, path), files(manager), bytes(content) {
    files->open_now++;
  }
  ~MemoryFile() override { files->open_now--; }

  int Read(char* buffer, int length) override {
    files->reads++;
    if (Due(&files->fail_read) || length < 0) return Fail();
    size_t rest = position < bytes->size() ? bytes->size() - position : 0;
    size_t count = std::min(rest, static_cast<size_t>(length));
    if (files->read_limit > 0) count = std::min(count, static_cast<size_t>(files->read_limit));
    if (count > 0) memcpy(buffer, bytes->data() + position, count);
    position += count;
    return static_cast<int>(count);
  }

  int Write(const char* text, int length) override {
    files->writes++;
    if (Due(&files->fail_write) || length < 0) return Fail();
    if (files->write_room >= 0) {
      length = static_cast<int>(std::min<long>(length, files->write_room));
      files->write_room -= length;
    }
    if (position > bytes->size()) bytes->resize(position, '\0');
    bytes->replace(position, static_cast<size_t>(length), text, static_cast<size_t>(length));
    position += static_cast<size_t>(length);
    return length;
  }

  int Seek(long place) override {
    files->seeks++;
    if (Due(&files->fail_seek) || place < 0 || place > 0x7FFFFFFF) return Fail();
    position = static_cast<size_t>(place);
    return static_cast<int>(place);
  }

  int Tell() override { return static_cast<int>(position); }
  long Length() override {
    files->lengths++;
    return static_cast<long>(bytes->size());
  }
  bool OwnerID(int* id) override { return Owner(id); }
  bool GroupID(int* id) override { return Owner(id); }
  bool IsDirectory(bool* result) override {
    *result = false;
    return true;
  }
  bool Lock(FileLockType, long, long) override { return true; }
  bool Release(long, long) override { return true; }
  char* Map(long, long) override { return nullptr; }
  void Release() override {}
  bool Activate(String&) override { return true; }
  void Deactivate() override {}

 private:
  static bool Owner(int* id) {
    *id = 0;
    return true;
  }
  static bool Due(int* countdown) { return *countdown > 0 && --*countdown == 0; }
  int Fail() {
    Error("Injected failure");
    return -1;
  }

  MemoryFileManager* files;
  std::string* bytes;
  size_t position = 0;
};

inline File* MemoryFileManager::Open(const char* path, int mode) {
  opens++;
  bool writing = (mode & FileMode_Write) != 0;
  if (files.find(path) == files.end() && !(writing && (mode & FileMode_Create))) {
    Error("No such file or directory");
    return nullptr;
  }
  std::string* content = &files[path];
  if (writing && (mode & FileMode_Truncate)) content->clear();
  return new MemoryFile(this, path, content);
}

#endif
