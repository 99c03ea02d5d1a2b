// A directory of a test's own, removed with everything in it at the end of the test.

#ifndef ZEPH_TESTS_SUPPORT_TEMPORARYDIRECTORY_H
#define ZEPH_TESTS_SUPPORT_TEMPORARYDIRECTORY_H

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    // Resolved, so that the directory's own path contains no symbolic link.
    std::string name = std::filesystem::canonical(std::filesystem::temp_directory_path()).string();
    name += "/zeph-test-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp failed: " + name);
    root = name;
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  // The absolute path, without a slash at the end; with `name` after it in the second form.
  const std::string& path() const { return root; }
  std::string path(std::string_view name) const { return root + "/" + std::string(name); }

  // Each makes a file or a directory and returns its absolute path. Directories on the way are made
  // when needed.
  std::string Directory(std::string_view name) const {
    std::filesystem::create_directories(path(name));
    return path(name);
  }
  std::string File(std::string_view name, std::string_view content = "") const {
    std::filesystem::create_directories(std::filesystem::path(path(name)).parent_path());
    std::ofstream(path(name), std::ios::binary) << content;
    return path(name);
  }
  std::string Link(std::string_view name, std::string_view target) const {
    std::filesystem::create_symlink(std::string(target), path(name));
    return path(name);
  }

  // The bytes of a file; empty if it cannot be read.
  std::string Content(std::string_view name) const {
    std::ifstream in(path(name), std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }
  bool Exists(std::string_view name) const {
    return std::filesystem::exists(std::filesystem::symlink_status(path(name)));
  }

 private:
  std::string root;
};

#endif
