// Sources and compiled files on the disk. Tested in tests/compiler/PageFilesTest.cpp and
// tests/compiler/ZephcTest.cpp.

#include "compiler/PageFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/host/FileDescriptor.h"

namespace fs = std::filesystem;

const char source_extension[] = ".zeph";
const char compiled_extension[] = ".zpc";

bool WriteAll(int descriptor, const std::string& bytes) {
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t count = write(descriptor, bytes.data() + done, bytes.size() - done);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    done += static_cast<size_t>(count);
  }
  return true;
}

bool ReadWholeFile(const fs::path& path, std::string* text) {
  // A pipe in the place of a file must not block.
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat facts {};
  if (file.get() < 0 || fstat(file.get(), &facts) != 0) return false;
  if (!S_ISREG(facts.st_mode)) {
    errno = S_ISDIR(facts.st_mode) ? EISDIR : EINVAL;
    return false;
  }
  const auto allowed = static_cast<int64_t>(kLargestFile);
  if (facts.st_size > allowed) {
    errno = EFBIG;
    return false;
  }
  text->clear();
  text->resize(static_cast<size_t>(facts.st_size) + 1);
  // The file may be longer by now: it is read to its end.
  for (size_t used = 0;;) {
    const ssize_t count = read(file.get(), text->data() + used, text->size() - used);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    used += static_cast<size_t>(count);
    if (count == 0) {
      text->resize(used);
      return true;
    }
    if (used > kLargestFile) {
      text->clear();
      errno = EFBIG;
      return false;
    }
    if (used == text->size()) text->resize(used * 2);
  }
}

bool WriteWholeFile(const fs::path& path, const std::string& bytes) {
  std::error_code ignored;
  if (path.has_parent_path()) fs::create_directories(path.parent_path(), ignored);
  const std::string unfinished = path.string() + "." + std::to_string(getpid());
  const int mode = 0666;
  FileDescriptor file(open(unfinished.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
  if (file.get() >= 0 && WriteAll(file.get(), bytes) && close(file.release()) == 0 &&
      std::rename(unfinished.c_str(), path.c_str()) == 0) {
    return true;
  }
  const int reason = errno;
  unlink(unfinished.c_str());
  errno = reason;
  return false;
}

std::string TextOf(const UnreadFolder& folder, const fs::path& root) {
  return "cannot read " + (folder.name.empty() ? root : root / folder.name).string() + ": " +
         strerror(folder.reason);
}

std::vector<UnreadFolder> VisitFiles(const fs::path& root,
                                     const std::function<void(const std::string& name)>& visit) {
  std::vector<std::string> names;
  std::vector<UnreadFolder> unread;
  // Folders that are still to be read.
  std::vector<fs::path> folders = {""};
  while (!folders.empty()) {
    const fs::path folder = folders.back();
    folders.pop_back();
    std::error_code failure;
    auto entry = fs::directory_iterator(folder.empty() ? root : root / folder, failure);
    for (; !failure && entry != fs::directory_iterator(); entry.increment(failure)) {
      const fs::path file = entry->path().filename();
      if (file.string()[0] == '.') continue;
      std::error_code gone;
      if (entry->is_directory(gone) && !entry->is_symlink(gone)) {
        folders.push_back(folder / file);
      } else if (entry->is_regular_file(gone)) {
        names.push_back((folder / file).string());
      }
    }
    const bool is_gone = failure.value() == ENOENT || failure.value() == ENOTDIR;
    if (failure && (folder.empty() || !is_gone)) {
      unread.push_back({folder.string(), failure.value()});
    }
  }
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) visit(name);
  return unread;
}

bool IsPage(const std::string& name) {
  const fs::path path = name;
  return path.extension() == source_extension && path.filename().string()[0] != '_';
}

std::string CompiledName(const std::string& page) {
  return fs::path(page).replace_extension(compiled_extension).string();
}

bool PageIncludes::Read(const std::string& name, const std::string& from, std::string* found,
                        std::string* text) {
  const fs::path beside = (fs::path(from).parent_path() / name).lexically_normal();
  auto known = paths.find(from);
  const fs::path folder =
      known == paths.end() ? root / fs::path(from).parent_path() : known->second.parent_path();
  if (Try(folder / name, beside, found, text)) return true;
  for (const std::string& other : folders) {
    const fs::path path = (fs::path(other) / name).lexically_normal();
    if (Try(path, path, found, text)) return true;
  }
  return false;
}

std::string PageIncludes::Path(const std::string& name) const {
  auto known = paths.find(name);
  return known == paths.end() ? (root / name).string() : known->second.string();
}

bool PageIncludes::Try(const fs::path& path, const fs::path& name, std::string* found,
                       std::string* text) {
  if (!ReadWholeFile(path, text)) {
    missing_paths.push_back(path.lexically_normal().string());
    return false;
  }
  *found = name.string();
  paths[*found] = path.lexically_normal();
  return true;
}
