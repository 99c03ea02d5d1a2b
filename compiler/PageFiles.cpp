// Sources and compiled files on the disk. Tested in tests/compiler/PageFilesTest.cpp and
// tests/compiler/ZephcTest.cpp.

#include "compiler/PageFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "base/host/FileDescriptor.h"

namespace fs = std::filesystem;

const char source_extension[] = ".zeph";
const char compiled_extension[] = ".zpc";

namespace {

bool WriteAll(int descriptor, const std::string& bytes) {
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t count = write(descriptor, bytes.data() + done, bytes.size() - done);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    done += static_cast<size_t>(count);
  }
  return true;
}

}  // namespace

bool ReadWholeFile(const fs::path& path, std::string* text) {
  // A pipe in the place of a file must not block.
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat facts {};
  if (file.get() < 0 || fstat(file.get(), &facts) != 0) return false;
  if (!S_ISREG(facts.st_mode)) {
    errno = S_ISDIR(facts.st_mode) ? EISDIR : EINVAL;
    return false;
  }
  text->clear();
  text->resize(static_cast<size_t>(facts.st_size) + 1);
  // The file may be longer by now: it is read to its end, as long as that is.
  for (size_t used = 0;;) {
    const ssize_t count = read(file.get(), text->data() + used, text->size() - used);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    used += static_cast<size_t>(count);
    if (count == 0) {
      text->resize(used);
      return true;
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

void VisitFiles(const fs::path& root, const std::function<void(const std::string& name)>& visit) {
  std::vector<std::string> names;
  std::error_code failure;
  const auto options = fs::directory_options::skip_permission_denied;
  for (auto entry = fs::recursive_directory_iterator(root, options, failure);
       !failure && entry != fs::recursive_directory_iterator(); entry.increment(failure)) {
    std::error_code gone;
    if (entry->path().filename().string()[0] == '.') {
      if (entry->is_directory(gone)) entry.disable_recursion_pending();
      continue;
    }
    if (!entry->is_regular_file(gone)) continue;
    names.push_back(entry->path().lexically_relative(root).string());
  }
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) visit(name);
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
  if (!ReadWholeFile(path, text)) return false;
  *found = name.string();
  paths[*found] = path.lexically_normal();
  return true;
}
