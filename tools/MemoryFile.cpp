// Files in memory. Tested through the assembler and the lister in tests/tools.

#include "tools/MemoryFile.h"

#include <algorithm>
#include <climits>

std::string MemoryFileManager::Contents(const std::string& name) const {
  auto found = files.find(name);
  return found == files.end() ? "" : found->second;
}

std::string* MemoryFileManager::Content(const char* path, int mode) {
  const bool creates = (mode & FileMode_Write) && (mode & FileMode_Create);
  if (!creates && files.find(path) == files.end()) {
    Error("No such file or directory");
    return nullptr;
  }
  std::string* content = &files[path];
  if ((mode & FileMode_Write) && (mode & FileMode_Truncate)) content->clear();
  return content;
}

File* MemoryFileManager::Open(const char* path, int mode) {
  std::string* content = Content(path, mode);
  return content ? new MemoryFile(this, path, content) : nullptr;
}

bool MemoryFileManager::Refuse() {
  Error("Not available in memory");
  return false;
}

File* MemoryFileManager::RefuseFile() {
  Refuse();
  return nullptr;
}

int MemoryFile::Read(char* buffer, int length) {
  if (length < 0) return -1;
  size_t start = std::min(position, bytes->size());
  size_t count = std::min(static_cast<size_t>(length), bytes->size() - start);
  bytes->copy(buffer, count, start);
  position += count;
  return static_cast<int>(count);
}

int MemoryFile::Write(const char* text, int length) {
  if (length < 0 || position > INT_MAX - static_cast<size_t>(length)) return -1;
  size_t end = position + static_cast<size_t>(length);
  if (end > bytes->size()) bytes->resize(end);
  std::copy_n(text, length, bytes->begin() + static_cast<std::ptrdiff_t>(position));
  position = end;
  return length;
}

int MemoryFile::Seek(long place) {
  if (place < 0 || place > INT_MAX) return -1;
  position = static_cast<size_t>(place);
  return static_cast<int>(place);
}

bool MemoryFile::OwnerID(int* id) {
  *id = 0;
  return true;
}

bool MemoryFile::GroupID(int* id) {
  return OwnerID(id);
}

bool MemoryFile::IsDirectory(bool* result) {
  *result = false;
  return true;
}
