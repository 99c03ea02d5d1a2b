// Files that exist in memory only: the assembler builds a compiled script in one, and the lister
// reads one that may be damaged, without touching the disk.

#ifndef ZEPH_TOOLS_MEMORYFILE_H
#define ZEPH_TOOLS_MEMORYFILE_H

#include <map>
#include <string>
#include <string_view>

#include "base/File.h"

// A flat set of named files. Opens them, and refuses every other operation on names: the classes
// that read and write compiled scripts need no more.
class MemoryFileManager : public FileManager {
 public:
  MemoryFileManager() : FileManager(nullptr) {}

  // Puts a file there, replacing one of that name.
  void Put(const std::string& name, std::string_view bytes) { files[name] = bytes; }
  // What a file holds; empty for an unknown name.
  std::string Contents(const std::string& name) const;

  File* Open(const char* path, int mode) override;

  int Lock(const char*) override { return FileLock_Failed; }
  bool Delete(const char*) override { return Refuse(); }
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
  File* Open(Type, const char*, int) override { return RefuseFile(); }
  int Lock(Type, const char*) override { return FileLock_Failed; }
  bool Delete(Type, const char*) override { return Refuse(); }
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

 private:
  bool Refuse();
  File* RefuseFile();

  std::map<std::string, std::string> files;
};

#endif
