// The base of the tests of the file managers: an application, a directory tree of its own, and
// short forms of checks.

#ifndef ZEPH_TESTS_BASE_SYSTEMS_UNIX_FILEFIXTURE_H
#define ZEPH_TESTS_BASE_SYSTEMS_UNIX_FILEFIXTURE_H

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "base/systems/unix/SystemCalls.h"
#include "base/systems/unix/UNIXReentrantFile.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestApplication.h"

inline std::string Text(const String& text) {
  return text.data == nullptr ? std::string()
                              : std::string(text.data, static_cast<size_t>(text.length));
}

// Restores the table of system calls at the end of a test.
class RestoredSystemCalls {
 public:
  RestoredSystemCalls() : saved(system_calls) {}
  ~RestoredSystemCalls() { system_calls = saved; }
  RestoredSystemCalls(const RestoredSystemCalls&) = delete;
  RestoredSystemCalls& operator=(const RestoredSystemCalls&) = delete;

 private:
  SystemCalls saved;
};

// The manager of requests on a kernel that has no call to walk a whole path without links.
class ElementWalkManager : public UNIXReentrantFileManager {
 public:
  explicit ElementWalkManager(ZephApplication* application)
      : UNIXReentrantFileManager(application) {
    Disable();
  }
  ElementWalkManager(ZephApplication* application, ElementWalkManager& other)
      : UNIXReentrantFileManager(application, other) {
    Disable();
  }

 private:
  static void Disable() {
    system_calls.open_without_links = [](int, const char*, int) {
      errno = ENOSYS;
      return -1;
    };
  }

  RestoredSystemCalls restored;
};

// The tree has the empty directories data, script, temp and outside. Manager is the class under
// test.
template <class Manager>
class ContainedFixture : public testing::Test {
 protected:
  ContainedFixture() : files(&application) {
    for (const char* name : {"data", "script", "temp", "outside"}) tree.Directory(name);
  }

  // Opens data and script with these flags; temp only if `temporary` is set.
  void Configure(int flags, bool temporary = false) {
    files.SecurityOptions(flags);
    ASSERT_TRUE(files.InitializeDataDirectory(tree.path("data").c_str())) << error();
    ASSERT_TRUE(files.InitializeScriptDirectory(tree.path("script").c_str(), nullptr)) << error();
    if (temporary) {
      ASSERT_TRUE(files.InitializeTempDirectory(tree.path("temp").c_str())) << error();
    }
  }

  std::string error() { return Text(files.error()); }

  // The content that a path leads to, or the error text in brackets.
  std::string Read(const char* path, Zeph_PathType type = ZephPath_Data) {
    std::unique_ptr<File> file(files.Open(type, path, FileMode_Read));
    if (file == nullptr) return "[" + error() + "]";
    char buffer[256];
    int count = file->Read(buffer, sizeof(buffer));
    if (count < 0) return "[" + Text(file->error()) + "]";
    return std::string(buffer, static_cast<size_t>(count));
  }

  std::vector<std::string> Listing(const char* path, Zeph_PathType type = ZephPath_Data) {
    List<String> names(1);
    std::vector<std::string> result;
    if (!files.DirectoryListing(type, path, &names)) return {"[" + error() + "]"};
    for (String* name = names.First(); name != nullptr; name = names.Next())
      result.push_back(Text(*name));
    return result;
  }

  TemporaryDirectory tree;
  TestApplication application;
  Manager files;
};

// A user other than ours, for files of others. Only root can give files away.
inline constexpr unsigned other_user = 12345;

#define ZEPH_NEEDS_ROOT() \
  if (geteuid() != 0) GTEST_SKIP() << "only root can make files of another owner"

#endif
