#include "tools/MemoryFile.h"

#include <algorithm>
#include <climits>

namespace {

class MemoryFile : public File {
 public:
  MemoryFile(FileManager* opener, const char* name, std::string* contents)
      : File(opener, name), bytes(contents) {}

  int Read(char* buffer, int length) override {
    if (length < 0) return -1;
    size_t start = std::min(position, bytes->size());
    size_t count = std::min(static_cast<size_t>(length), bytes->size() - start);
    bytes->copy(buffer, count, start);
    position = start + count;
    return static_cast<int>(count);
  }

  int Write(const char* from, int length) override {
    if (length < 0 || position > INT_MAX - static_cast<size_t>(length)) return -1;
    size_t end = position + static_cast<size_t>(length);
    if (end > bytes->size()) bytes->resize(end);
    std::copy_n(from, length, bytes->begin() + static_cast<std::ptrdiff_t>(position));
    position = end;
    return length;
  }

  // As on a disk, a place beyond the end is reached all the same.
  int Seek(long place) override {
    if (place < 0 || place > INT_MAX) return -1;
    position = static_cast<size_t>(place);
    return static_cast<int>(place);
  }

  int Tell() override { return static_cast<int>(position); }
  long Length() override { return static_cast<long>(bytes->size()); }
  bool OwnerID(int*) override { return false; }
  bool GroupID(int*) override { return false; }
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
  std::string* bytes;
  size_t position = 0;
};

}  // namespace

std::string MemoryFileManager::Contents(const std::string& name) const {
  auto found = files.find(name);
  return found == files.end() ? "" : found->second;
}

File* MemoryFileManager::Open(const char* path, int mode) {
  if (!(mode & FileMode_Create) && files.find(path) == files.end()) return RefuseFile();
  std::string* bytes = &files[path];
  if (mode & FileMode_Truncate) bytes->clear();
  return new MemoryFile(this, path, bytes);
}

bool MemoryFileManager::Refuse() {
  Error(String("No such file in memory"));
  return false;
}

File* MemoryFileManager::RefuseFile() {
  Refuse();
  return nullptr;
}
