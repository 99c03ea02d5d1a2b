// Keeps to the site's own folder. Tested in tests/develop/CommandTest.cpp.

#include "develop/WorkFolder.h"

#include "compiler/PageFiles.h"
#include "develop/Places.h"

namespace fs = std::filesystem;

const char work_name[] = ".zeph";

namespace {

bool IsLink(const fs::path& path) {
  std::error_code failure;
  return fs::is_symlink(fs::symlink_status(path, failure));
}

bool RefuseLink(const fs::path& path) {
  Failed(path.string() + " is a link; zeph writes and removes files in a folder of the site only");
  return false;
}

}  // namespace

bool IsOwnWork(const fs::path& root, const std::vector<std::string>& names) {
  const fs::path work = root / work_name;
  if (IsLink(work)) return RefuseLink(work);
  for (const std::string& name : names) {
    if (IsLink(work / name)) return RefuseLink(work / name);
  }
  return true;
}

bool MakeWork(const fs::path& root, const std::vector<std::string>& names) {
  if (!IsOwnWork(root, names)) return false;
  for (const std::string& name : names) {
    const fs::path folder = root / work_name / name;
    std::error_code failure;
    fs::create_directories(folder, failure);
    if (failure) {
      Failed(folder.string() + ": " + failure.message());
      return false;
    }
  }
  return true;
}

bool RemoveForeignPages(const fs::path& root, const fs::path& pages) {
  std::vector<fs::path> compiled;
  std::error_code failure;
  for (auto entry = fs::recursive_directory_iterator(pages, failure);
       !failure && entry != fs::recursive_directory_iterator(); entry.increment(failure)) {
    const fs::path& path = entry->path();
    std::error_code gone;
    if (entry->is_symlink(gone)) {
      if (entry->is_directory(gone)) return RefuseLink(path);
    } else if (entry->is_regular_file(gone) && path.extension() == compiled_extension) {
      compiled.push_back(path);
    }
  }
  for (const fs::path& path : compiled) {
    const fs::path source =
        (root / path.lexically_relative(pages)).replace_extension(source_extension);
    std::error_code ignored;
    // A folder of sources that cannot be read says nothing about them.
    if (fs::status(source, ignored).type() == fs::file_type::not_found) fs::remove(path, ignored);
  }
  return true;
}
