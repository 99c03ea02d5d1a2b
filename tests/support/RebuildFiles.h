// Files in memory for tests and fuzzers that pack tables and build indexes again.

#ifndef ZEPH_TESTS_SUPPORT_REBUILDFILES_H
#define ZEPH_TESTS_SUPPORT_REBUILDFILES_H

#include <cstring>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/FaultyFile.h"

// Files in memory that can also be renamed and made beside others, as pack and reindex need. A file
// that another one has replaced stays readable for those who have it open.
class RebuildFiles : public FaultyFileManager {
 public:
  // Renames need no memory: a run without any would leave half of the files renamed.
  RebuildFiles() { replaced.reserve(100); }

  // The n-th call from now on fails, 1 being the next; 0 means none.
  int fail_rename = 0;
  int fail_temporary = 0;

  bool Rename(Zeph_PathType, const char* from, Zeph_PathType, const char* to) override {
    if (killed || Due(&fail_rename)) {
      Error("Injected failure");
      return false;
    }
    auto node = files.extract(from);
    if (!node) return false;
    if (auto old = files.extract(to)) replaced.push_back(std::move(old));
    node.key() = to;
    files.insert(std::move(node));
    return true;
  }
  bool Delete(Zeph_PathType, const char* path) override { return MemoryFileManager::Delete(path); }
  File* MakeTemporaryLike(Zeph_PathType, const char* path, char** name, int mode) override {
    if (killed || Due(&fail_temporary)) {
      Error("Injected failure");
      return nullptr;
    }
    std::string made = path;
    for (int i = 0; files.count(made) != 0; i++) made = path + ("." + std::to_string(i));
    std::unique_ptr<char[]> copy(new char[made.size() + 1]);
    memcpy(copy.get(), made.c_str(), made.size() + 1);
    try {
      File* file = Open(made.c_str(), mode | FileMode_Create);
      if (file) *name = copy.release();
      return file;
    } catch (const std::bad_alloc&) {
      files.erase(made);
      throw;
    }
  }

 private:
  std::vector<std::map<std::string, std::string>::node_type> replaced;
};

#endif
