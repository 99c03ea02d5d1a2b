// Files that exist only in memory: the assembler builds a compiled script in one, and the lister
// reads one that may be damaged, without using the disk. Tests derive their own from them.

#ifndef ZEPH_TOOLS_MEMORYFILE_H
#define ZEPH_TOOLS_MEMORYFILE_H

#include <map>
#include <string>

#include "base/host/File.h"

// A flat set of named files; the type of a path is ignored. Opens and deletes them, and refuses
// every other operation on names, because the classes that read and write compiled scripts need no
// more.
class MemoryFileManager : public FileManager {
 public:
  explicit MemoryFileManager(ZephApplication* application = nullptr) : FileManager(application) {}

  // Contents by name.
  std::map<std::string, std::string> files;

  // The content of a file; empty for an unknown name.
  std::string Contents(const std::string& name) const;

  File* Open(const char* path, int mode) override;
  File* Open(Zeph_PathType, const char* path, int mode) override { return Open(path, mode); }
  bool Delete(const char* path) override { return files.erase(path) != 0 || Refuse(); }
  bool Delete(Zeph_PathType, const char* path) override { return Delete(path); }

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

  using Type = Zeph_PathType;
  int Lock(Type, const char*) override { return FileLock_Failed; }
  bool Copy(Type, const char*, Type, const char*) override { return Refuse(); }
  bool Rename(Type, const char*, Type, const char*) override { return Refuse(); }
  bool TouchFile(Type, const char*) override { return Refuse(); }
  bool Exists(Type, const char*, bool*) override { return Refuse(); }
  bool Length(Type, const char*, long*) override { return Refuse(); }
  bool IsDirectory(Type, const char*, bool*) override { return Refuse(); }
  bool ModifiedTime(Type, const char*, long*) override { return Refuse(); }
  bool MakeDirectory(Type, const char*) override { return Refuse(); }
  bool RemoveDirectory(Type, const char*) override { return Refuse(); }
  bool MakeSymbolicLink(Type, const char*, Type, const char*) override { return Refuse(); }
  bool Mode(Type, const char*, int*) override { return Refuse(); }
  bool ChangeMode(Type, const char*, int) override { return Refuse(); }
  File* MakeTemporary(Type, const char*, const char*, char**, int) override { return RefuseFile(); }
  File* MakeTemporaryLike(Type, const char*, char**, int) override { return RefuseFile(); }
  bool DirectoryListing(Type, const char*, List<String>*) override { return Refuse(); }
  char pathseparator() override { return '/'; }
  char* NormalizeContainedPath(Type, const char*, int*, int*) override { return nullptr; }

 protected:
  // The content of the file to open; null with the reason stored.
  std::string* Content(const char* path, int mode);

 private:
  bool Refuse();
  File* RefuseFile();
};

// One open file. Its content may change while it is open, like that of a file on a disk.
class MemoryFile : public File {
 public:
  // The content is borrowed from the manager.
  MemoryFile(MemoryFileManager* manager, const char* path, std::string* content)
      : File(manager, path), bytes(content) {}

  int Read(char* buffer, int length) override;
  int Write(const char* text, int length) override;
  // As on a disk, seeking to a position beyond the end succeeds.
  int Seek(long place) override;
  int Tell() override { return static_cast<int>(position); }
  long Length() override { return static_cast<long>(bytes->size()); }
  bool OwnerID(int* id) override;
  bool GroupID(int* id) override;
  bool IsDirectory(bool* result) override;
  bool Lock(FileLockType, long, long) override { return true; }
  bool Release(long, long) override { return true; }
  char* Map(long, long) override { return nullptr; }
  void Release() override {}
  bool Activate(String&) override { return true; }
  void Deactivate() override {}

 private:
  std::string* bytes;
  size_t position = 0;
};

#endif
