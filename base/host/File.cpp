// The portable part of files and managers: error texts and the pool of open files. Tested in
// tests/base/host/FileTest.cpp.

#include "base/host/File.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

namespace {

void Store(String& text, const String& given) {
  if (given.data != nullptr) text.assign(given.data, given.length);
}

void Take(List<File>& list, File* file) {
  if (list.Seek(file) != nullptr) list.Remove(ListCurrent);
}

char* Duplicate(const char* path) {
  char* copy = strdup(path == nullptr ? "" : path);
  if (copy == nullptr) throw std::bad_alloc();
  return copy;
}

}  // namespace

FileManager::FileManager(ZephApplication* application)
    : owner(application), open_files(0), inactive_files(0) {}

FileManager::~FileManager() = default;

const String& FileManager::error() {
  return error_text;
}

void FileManager::Error(const String& text) {
  Store(error_text, text);
}

bool FileManager::FreeFileSpace(int count) {
  if (max_files == 0) return true;
  if (count > max_files) {
    // The number is the limit, not the count that the text seems to name: scripts know this text.
    char text[160];
    snprintf(text, sizeof(text),
             "Simultaneous request for %d file handles exceeds the maximum number of simultaneous "
             "file handles.",
             max_files);
    error_text.assign(text, -1);
    return false;
  }
  while (open_files.Entries() + count > max_files) {
    File* file = open_files.Last();
    while (file != nullptr && file->locked()) file = open_files.Previous();
    if (file == nullptr) break;
    open_files.Remove(ListCurrent);
    inactive_files.Insert(file, ListHead);
    file->Deactivate();
  }
  return true;
}

File* FileManager::FileOpened(File* file) {
  std::unique_ptr<File> opened(file);
  open_files.Insert(file, ListHead);
  return opened.release();
}

void FileManager::FileClosed(File* file) {
  Take(open_files, file);
  Take(inactive_files, file);
}

void FileManager::DeactivateFile(File* file) {
  if (open_files.Seek(file) == nullptr) return;
  open_files.Remove(ListCurrent);
  inactive_files.Insert(file, ListTail);
  file->Deactivate();
}

bool FileManager::ActivateFile(File* file) {
  if (open_files.Seek(file) != nullptr) {
    open_files.Remove(ListCurrent);
    open_files.Insert(file, ListHead);
    return true;
  }
  if (!FreeFileSpace(1)) return false;
  if (inactive_files.Seek(file) == nullptr) {
    Error("Activation request for invalid or non-active file");
    return false;
  }
  String text;
  if (!file->Activate(text)) {
    Error(text);
    return false;
  }
  // Activate may have used the pool, so the cursor may have moved.
  Take(inactive_files, file);
  open_files.Insert(file, ListHead);
  return true;
}

void FileManager::MaxFiles(int limit) {
  max_files = limit;
}

void FileManager::SecurityOptions(int flags) {
  security_flags = flags;
}

File::File(FileManager* manager, const char* path)
    : file_manager(manager),
      is_contained(0),
      path_type(ZephPath_Data),
      path_text(Duplicate(path)) {}

File::File(FileManager* manager, Zeph_PathType type, const char* path)
    : file_manager(manager), is_contained(1), path_type(type), path_text(Duplicate(path)) {}

File::~File() {
  free(path_text);
  if (file_manager != nullptr) file_manager->FileClosed(this);
}

void File::Error(const String& text) {
  Store(error_text, text);
}

const String& File::error() {
  return error_text;
}

bool File::IsLockable(FileLockType, long, long) {
  return false;
}

int File::Write(const String& text) {
  return Write(text.data, text.length);
}
