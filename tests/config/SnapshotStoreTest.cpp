#include "config/SnapshotStore.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "base/core/ThreadMemory.h"
#include "base/host/Settings.h"
#include "tests/support/FailingAllocator.h"
#include "tests/support/OtherUser.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

class SnapshotStoreTest : public testing::Test {
 protected:
  SnapshotStoreTest() : file(directory.path("test.toml")) {
    setenv("ZEPH_CONFIG", file.c_str(), 1);
  }
  ~SnapshotStoreTest() override { unsetenv("ZEPH_CONFIG"); }

  void Write(const std::string& text) { directory.File("test.toml", text); }
  // Replaces the file as editors do: a new file gets the name.
  void Replace(const std::string& text) {
    std::filesystem::rename(directory.File("new", text), file);
  }
  int Timeout() { return store.Current()->Find(Config_timeout_global)->integer; }

  TemporaryDirectory directory;
  std::string file;
  SnapshotStore store;
};

// Sets the file's time far enough back that its content counts as settled.
void Age(const std::string& path, int seconds) {
  timespec times[2] = {{1000000000 + seconds, 0}, {1000000000 + seconds, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

TEST_F(SnapshotStoreTest, UnchangedFileIsReadOnce) {
  Write("timeout_global = 5\n");
  Age(file, 0);
  std::shared_ptr<const Snapshot> first = store.Current();
  EXPECT_EQ(first->error, "");
  EXPECT_EQ(first->generation, 1u);
  EXPECT_EQ(store.Current(), first);
}

TEST_F(SnapshotStoreTest, YoungFileIsReadAgainButNotTakenAgain) {
  Write("timeout_global = 5\n");
  std::shared_ptr<const Snapshot> first = store.Current();
  EXPECT_EQ(store.Current(), first);
}

TEST_F(SnapshotStoreTest, ChangeIsTakenAtTheNextRequest) {
  Write("timeout_global = 5\n");
  std::shared_ptr<const Snapshot> first = store.Current();
  Replace("timeout_global = 6\n");
  EXPECT_EQ(Timeout(), 6);
  Replace("timeout_global = 7\n");
  EXPECT_EQ(Timeout(), 7);
  EXPECT_EQ(first->Find(Config_timeout_global)->integer, 5);
  EXPECT_EQ(store.Current()->generation, 3u);
}

// A thread that keeps its view sees what any other sees.
TEST_F(SnapshotStoreTest, AViewFollowsTheFile) {
  SnapshotStore::View view;
  Write("timeout_global = 5\n");
  Age(file, 0);
  store.Update(&view);
  const std::shared_ptr<const Snapshot> first = view.snapshot;
  EXPECT_EQ(first->Find(Config_timeout_global)->integer, 5);
  store.Update(&view);
  EXPECT_EQ(view.snapshot, first);
  Replace("timeout_global = 6\n");
  store.Update(&view);
  EXPECT_EQ(view.snapshot->Find(Config_timeout_global)->integer, 6);
  EXPECT_EQ(store.Current(), view.snapshot);
  std::filesystem::remove(file);
  store.Update(&view);
  EXPECT_EQ(view.snapshot, store.Current());
  Replace("timeout_global = 7\n");
  store.Update(&view);
  EXPECT_EQ(view.snapshot->Find(Config_timeout_global)->integer, 7);
}

// The file comes back to the state that the view has, after others have seen another state.
TEST_F(SnapshotStoreTest, AViewIsNotOlderThanTheStore) {
  SnapshotStore::View view;
  Write("timeout_global = 5\n");
  Age(file, 0);
  store.Update(&view);
  EXPECT_EQ(view.snapshot->generation, 1u);
  std::filesystem::rename(file, directory.path("kept"));
  Write("timeout_global = 6\n");
  Age(file, 1);
  EXPECT_EQ(Timeout(), 6);
  std::filesystem::rename(directory.path("kept"), file);
  store.Update(&view);
  EXPECT_EQ(view.snapshot->Find(Config_timeout_global)->integer, 5);
  EXPECT_EQ(view.snapshot->generation, 3u);
  EXPECT_EQ(store.Current(), view.snapshot);
}

// A change in the same tick of the clock, of the same size and in the same file, leaves the file's
// identity unchanged.
TEST_F(SnapshotStoreTest, ChangeWithinOneTickIsSeen) {
  for (int i = 10; i < 60; i++) {
    Write("timeout_global = " + std::to_string(i) + "\n");
    ASSERT_EQ(Timeout(), i);
  }
}

TEST_F(SnapshotStoreTest, EachPartOfTheIdentityCounts) {
  Write("timeout_global = 5\n");
  Age(file, 0);
  EXPECT_EQ(Timeout(), 5);
  Write("timeout_global = 6\n");
  Age(file, 1);  // only the time
  EXPECT_EQ(Timeout(), 6);
  Write("timeout_global = 70\n");
  Age(file, 1);  // only the size
  EXPECT_EQ(Timeout(), 70);
  directory.File("other", "timeout_global = 80\n");
  Age(directory.path("other"), 1);
  std::filesystem::rename(directory.path("other"), file);  // only the inode
  EXPECT_EQ(Timeout(), 80);
}

TEST_F(SnapshotStoreTest, BrokenFileLeavesTheGoodOneInForceAndOneLine) {
  Write("timeout_global = 5\n");
  Age(file, 0);
  EXPECT_EQ(Timeout(), 5);
  Replace("timeout_globl = 6\n");
  Age(file, 1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(Timeout(), 5);
  EXPECT_EQ(Timeout(), 5);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "libzephconfig: " + file +
                ":1: timeout_globl: unknown key, the nearest known one is \"timeout_global\"; the "
                "last good configuration stays in force\n");
  Replace("timeout_global = \n");
  Age(file, 2);
  testing::internal::CaptureStderr();
  EXPECT_EQ(Timeout(), 5);
  EXPECT_NE(testing::internal::GetCapturedStderr(), "");
  Replace("timeout_global = 8\n");
  testing::internal::CaptureStderr();
  EXPECT_EQ(Timeout(), 8);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(SnapshotStoreTest, WarningsAreReportedOnceForEachStateOfTheFile) {
  Write("[variables.global]\ncookies = 1\n");
  Age(file, 0);
  testing::internal::CaptureStderr();
  EXPECT_EQ(store.Current()->global_variables.size(), 1u);
  EXPECT_EQ(store.Current()->global_variables.size(), 1u);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "libzephconfig: warning: " + file +
                ":2: variables.global.cookies: here it is a variable; the setting of this name "
                "belongs above the first section\n");
}

TEST_F(SnapshotStoreTest, YoungBrokenFileIsReportedOnce) {
  Write("timeout_global = 5\n");
  EXPECT_EQ(Timeout(), 5);
  Replace("broken\n");
  testing::internal::CaptureStderr();
  for (int i = 0; i < 5; i++) EXPECT_EQ(Timeout(), 5);
  std::string lines = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 1);
}

TEST_F(SnapshotStoreTest, VanishedFileLeavesTheGoodOneInForce) {
  Write("timeout_global = 5\n");
  EXPECT_EQ(Timeout(), 5);
  std::filesystem::remove(file);
  testing::internal::CaptureStderr();
  EXPECT_EQ(Timeout(), 5);
  EXPECT_EQ(Timeout(), 5);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "libzephconfig: " + file +
                ": No such file or directory; the last good configuration stays in force\n");
  Write("timeout_global = 6\n");
  EXPECT_EQ(Timeout(), 6);
}

TEST_F(SnapshotStoreTest, WithoutAGoodFileTheAnswerIsTheError) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(store.Current()->error, file + ": No such file or directory");
  Write("cookies = 'x'\n");
  EXPECT_EQ(store.Current()->error, file + ":1: cookies: expected an integer, found text");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  Write("cookies = 0\n");
  EXPECT_EQ(store.Current()->error, "");
}

TEST_F(SnapshotStoreTest, OnlyARegularFileIsRead) {
  std::filesystem::create_directory(file);
  EXPECT_EQ(store.Current()->error, file + ": Not a regular file");
  std::filesystem::remove(file);
  ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
  EXPECT_EQ(store.Current()->error, file + ": Not a regular file");
}

TEST_F(SnapshotStoreTest, HugeFileIsRefused) {
  Write("");
  std::filesystem::resize_file(file, (16u << 20) + 1);
  EXPECT_EQ(store.Current()->error, file + ": Too large for a configuration file");
}

TEST_F(SnapshotStoreTest, FileThatCannotBeLookedAtIsAnError) {
  directory.Link("test.toml", "test.toml");
  EXPECT_EQ(store.Current()->error, file + ": Too many levels of symbolic links");
}

// --- Failures that pass --------------------------------------------------------------------------

// While it exists, the process can open nothing.
class NoDescriptors {
 public:
  NoDescriptors() {
    if (getrlimit(RLIMIT_NOFILE, &before) != 0) abort();
    const rlimit none = {0, before.rlim_max};
    if (setrlimit(RLIMIT_NOFILE, &none) != 0) abort();
  }
  ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &before); }
  NoDescriptors(const NoDescriptors&) = delete;
  NoDescriptors& operator=(const NoDescriptors&) = delete;

 private:
  rlimit before;
};

// chmod changes nothing that the store looks at.
TEST_F(SnapshotStoreTest, FileIsReadWhenItBecomesReadable) {
  chmod(directory.path().c_str(), 0755);
  Write("timeout_global = 5\n");
  Age(file, 0);
  chmod(file.c_str(), 0);
  SnapshotStore::View view;
  {
    const OtherUser other;
    for (int i = 0; i < 2; i++) {
      store.Update(&view);
      EXPECT_EQ(view.snapshot->error, file + ": Permission denied");
    }
  }
  chmod(file.c_str(), 0644);
  const OtherUser other;
  store.Update(&view);
  ASSERT_EQ(view.snapshot->error, "");
  EXPECT_EQ(Timeout(), 5);
}

TEST_F(SnapshotStoreTest, ChangeIsTakenWhenItBecomesReadable) {
  chmod(directory.path().c_str(), 0755);
  Write("timeout_global = 5\n");
  Age(file, 0);
  SnapshotStore::View view;
  store.Update(&view);
  Replace("timeout_global = 6\n");
  Age(file, 1);
  chmod(file.c_str(), 0);
  testing::internal::CaptureStderr();
  {
    const OtherUser other;
    for (int i = 0; i < 3; i++) {
      store.Update(&view);
      EXPECT_EQ(view.snapshot->Find(Config_timeout_global)->integer, 5);
    }
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "libzephconfig: " + file +
                ": Permission denied; the last good configuration stays in force\n");
  chmod(file.c_str(), 0644);
  const OtherUser other;
  store.Update(&view);
  EXPECT_EQ(view.snapshot->Find(Config_timeout_global)->integer, 6);
  EXPECT_EQ(view.snapshot->generation, 2u);
  EXPECT_TRUE(view.settled);
}

TEST_F(SnapshotStoreTest, FileIsReadWhenTheProcessHasDescriptorsAgain) {
  Write("timeout_global = 5\n");
  Age(file, 0);
  {
    const NoDescriptors none;
    EXPECT_EQ(store.Current()->error, file + ": Too many open files");
    EXPECT_EQ(store.Current()->error, file + ": Too many open files");
  }
  ASSERT_EQ(store.Current()->error, "");
  EXPECT_EQ(Timeout(), 5);
  Replace("timeout_global = 6\n");
  Age(file, 1);
  testing::internal::CaptureStderr();
  {
    const NoDescriptors none;
    EXPECT_EQ(Timeout(), 5);
    EXPECT_EQ(Timeout(), 5);
  }
  EXPECT_EQ(Timeout(), 6);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "libzephconfig: " + file +
                ": Too many open files; the last good configuration stays in force\n");
}

// Each block of memory is refused once while a change is taken. The next look takes the change.
TEST_F(SnapshotStoreTest, ChangeIsTakenWhenThereIsMemoryAgain) {
  if (!ThreadMemory::NewIsHere()) GTEST_SKIP() << "the operators are the sanitizer's";
  for (FailingAllocator::Mode mode : {FailingAllocator::Once, FailingAllocator::FromThereOn}) {
    SnapshotStore::View view;
    bool refused = true;
    int number = 0;
    int failures = 0;
    while (refused && !HasFailure()) {
      number++;
      SCOPED_TRACE(number);
      const int value = (mode == FailingAllocator::Once ? 1000 : 5000) + number;
      Replace("timeout_global = " + std::to_string(value) +
              "\n[variables.global]\na_variable_with_a_long_name = 'a text that needs a block'\n");
      Age(file, value);
      {
        const FailingAllocator allocator(number, mode);
        try {
          store.Update(&view);
        } catch (const std::bad_alloc&) {
          failures++;
        }
        refused = FailingAllocator::Refused();
      }
      store.Update(&view);
      ASSERT_EQ(view.snapshot->error, "");
      EXPECT_EQ(view.snapshot->Find(Config_timeout_global)->integer, value);
      EXPECT_EQ(Timeout(), value);
    }
    EXPECT_GT(failures, 5);
  }
}

// --- Where the file is ---------------------------------------------------------------------------

// The working directory belongs to the whole process, so each test restores it.
class WorkingDirectory {
 public:
  explicit WorkingDirectory(const std::string& path) : before(std::filesystem::current_path()) {
    std::filesystem::current_path(path);
  }
  ~WorkingDirectory() { std::filesystem::current_path(before); }

 private:
  std::filesystem::path before;
};

TEST_F(SnapshotStoreTest, WithoutTheVariableTheWorkingDirectoryCounts) {
  unsetenv("ZEPH_CONFIG");
  WorkingDirectory here(directory.path());
  directory.File("zeph.toml", "timeout_global = 9\n");
  EXPECT_EQ(Timeout(), 9);
}

TEST_F(SnapshotStoreTest, EmptyVariableCountsAsUnset) {
  setenv("ZEPH_CONFIG", "", 1);
  WorkingDirectory here(directory.path());
  directory.File("zeph.toml", "timeout_global = 9\n");
  EXPECT_EQ(Timeout(), 9);
}

TEST_F(SnapshotStoreTest, NoFileAnywhereIsAnError) {
  if (access("/etc/zeph/zeph.toml", F_OK) == 0) GTEST_SKIP() << "this host has one";
  unsetenv("ZEPH_CONFIG");
  WorkingDirectory here(directory.path());
  EXPECT_EQ(store.Current()->error,
            "no configuration file: ZEPH_CONFIG is not set, and neither zeph.toml in the working "
            "directory nor /etc/zeph/zeph.toml exists");
}

TEST_F(SnapshotStoreTest, MessagesNameTheWholePath) {
  unsetenv("ZEPH_CONFIG");
  WorkingDirectory here(directory.path());
  std::string path = directory.File("zeph.toml", "x = 1\n");
  EXPECT_EQ(store.Current()->error.substr(0, path.size() + 4), path + ":1: ");
}

TEST_F(SnapshotStoreTest, ThreadsReloadAtOnce) {
  Write("timeout_global = 1\n");
  std::atomic<bool> done{false};
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; i++) {
    readers.emplace_back([this, &done] {
      int last = 0;
      while (!done) {
        int value = Timeout();
        EXPECT_GE(value, last);
        last = value;
      }
    });
  }
  for (int i = 2; i <= 50; i++) Replace("timeout_global = " + std::to_string(i) + "\n");
  done = true;
  for (std::thread& reader : readers) reader.join();
  EXPECT_EQ(Timeout(), 50);
}

}  // namespace
