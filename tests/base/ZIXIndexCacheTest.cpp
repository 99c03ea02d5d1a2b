// Claims about the pages that base/ZIXIndexFile.h keeps: on files of a disk, where it keeps any,
// every operation sees what others wrote.

#include "base/ZIXIndexPageCache.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "base/ZIXIndexFile.h"
#include "base/systems/unix/SystemCalls.h"
#include "base/systems/unix/UNIXReentrantFile.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestApplication.h"
#include "tests/support/ZIXIndexOperations.h"
#include "tools/MemoryFile.h"

namespace {

TEST(ZIXIndexPageCache, GivesBackTheImageOfThePage) {
  ZIXIndexPageCache cache;
  EXPECT_EQ(nullptr, cache.Find(1));
  ZIXIndexPage page(5, 24, 432);
  page.Insert(0, 0, 77, KeyBytes("a"));
  cache.Store(page);
  ASSERT_NE(nullptr, cache.Find(5));
  EXPECT_EQ(0, memcmp(page.data.get(), cache.Find(5), 432));
  EXPECT_EQ(nullptr, cache.Find(5 + 64));
  page.SetRecordnum(0, 78);
  cache.Store(page);
  EXPECT_EQ(0, memcmp(page.data.get(), cache.Find(5), 432));
  cache.Clear();
  EXPECT_EQ(nullptr, cache.Find(5));
}

TEST(ZIXIndexPageCache, PagesThatMeetInASlotPartInALargerTable) {
  ZIXIndexPageCache cache;
  for (uint32_t number = 1; number <= 1000; number += 64)
    cache.Store(ZIXIndexPage(number, 24, 432));
  for (uint32_t number = 1; number <= 1000; number += 64) EXPECT_NE(nullptr, cache.Find(number));
}

TEST(ZIXIndexPageCache, AtItsLimitALeafDoesNotTakeTheSlotOfAnInnerPage) {
  ZIXIndexPageCache cache;
  const uint32_t slots = 4 << 10;
  ZIXIndexPage inner(1, 108, 1024);
  inner.SetChildpage(0, 9);
  cache.Store(inner);
  cache.Store(ZIXIndexPage(1 + slots, 108, 1024));
  EXPECT_NE(nullptr, cache.Find(1));
  EXPECT_EQ(nullptr, cache.Find(1 + slots));
  ZIXIndexPage other(1 + slots, 108, 1024);
  other.SetChildpage(0, 9);
  cache.Store(other);
  EXPECT_EQ(nullptr, cache.Find(1));
  EXPECT_NE(nullptr, cache.Find(1 + slots));
  cache.Store(ZIXIndexPage(2, 108, 1024));
  cache.Store(ZIXIndexPage(2 + slots, 108, 1024));
  EXPECT_NE(nullptr, cache.Find(2 + slots)) << "of two leaves the later one stays";
}

std::atomic<int> reads;

// Without mapped files, whose reads are no calls that could be counted: none is mapped for a thread
// that blocks SIGBUS.
class ZIXIndexCacheTest : public testing::Test {
 protected:
  ZIXIndexCacheTest() {
    BusErrors(SIG_BLOCK);
    application.SetFileManager(&files);
    EXPECT_TRUE(files.InitializeDataDirectory(directory.path().c_str()));
    EXPECT_TRUE(index.Create(ZephPath_Data, "i.zix", KeyBytes("key"), ZIXIndex_Text));
    EXPECT_TRUE(other.Open(ZephPath_Data, "i.zix", 3));
  }
  ~ZIXIndexCacheTest() override {
    system_calls.pread = ::pread;
    BusErrors(SIG_UNBLOCK);
  }

  static void BusErrors(int how) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGBUS);
    pthread_sigmask(how, &set, nullptr);
  }

  static std::string Key(unsigned record) { return "key " + std::to_string(100000 + record); }
  void Fill(unsigned count) {
    for (unsigned i = 0; i < count; i++) {
      const unsigned record = 1 + static_cast<unsigned>(i * 7919ul % count);
      ASSERT_TRUE(Insert(index, Key(record), record)) << ErrorText(index);
    }
  }
  void CountReads() {
    reads = 0;
    system_calls.pread = [](int descriptor, void* buffer, size_t length, off_t place) {
      reads++;
      return ::pread(descriptor, buffer, length, place);
    };
  }
  std::string Check() {
    const std::string content = directory.Content("i.zix");
    return ZIXIndexChecker(content).Check();
  }

  TemporaryDirectory directory;
  TestApplication application;
  UNIXReentrantFileManager files{&application};
  ZIXIndexFile index{&application};
  ZIXIndexFile other{&application};
};

TEST_F(ZIXIndexCacheTest, ASecondSearchReadsNothingButTheHeader) {
  Fill(500);
  EXPECT_EQ((ZIXIndexFound{true, 1, 77}), Find(other, Key(77)));
  CountReads();
  EXPECT_EQ((ZIXIndexFound{true, 1, 77}), Find(other, Key(77)));
  EXPECT_EQ(1, reads);
  ASSERT_TRUE(Insert(index, Key(501), 501));
  reads = 0;
  EXPECT_EQ((ZIXIndexFound{true, 1, 501}), Find(index, Key(501)));
  EXPECT_EQ(1, reads) << "whoever wrote a page has it";
  reads = 0;
  EXPECT_EQ((ZIXIndexFound{true, 1, 501}), Find(other, Key(501)));
  EXPECT_GT(reads, 1) << "others read it";
}

TEST_F(ZIXIndexCacheTest, ChangesOfOthersAreSeenAtOnce) {
  Fill(300);
  for (unsigned record = 1; record <= 300; record += 7) {
    ASSERT_EQ((ZIXIndexFound{true, 1, record}), Find(other, Key(record)));
    ASSERT_TRUE(Delete(index, Key(record), record));
    EXPECT_EQ(0, Find(other, Key(record)).found);
    ASSERT_TRUE(Insert(other, Key(record), 1000 + record));
    EXPECT_EQ((ZIXIndexFound{true, 1, 1000 + record}), Find(index, Key(record)));
  }
  EXPECT_EQ("", Check());
}

TEST_F(ZIXIndexCacheTest, ADeletionThatIsNotCountedIsSeenToo) {
  Fill(300);
  for (unsigned record = 1; record <= 300; record += 7) {
    ASSERT_EQ((ZIXIndexFound{true, 1, record}), Find(other, Key(record)));
    ASSERT_EQ((ZIXIndexFound{true, 1, record}), Find(index, Key(record)));
    ASSERT_TRUE(index.Delete_Current(record));
    EXPECT_EQ(0, Find(other, Key(record)).found);
    EXPECT_EQ("", Check());
  }
}

// Files whose clock stands still for a while, as those of older kernels do.
class SlowClockManager : public MemoryFileManager {
 public:
  using MemoryFileManager::MemoryFileManager;
  using MemoryFileManager::Open;
  File* Open(const char* path, int mode) override;
  int writes = 0;
};

class SlowClockFile final : public MemoryFile {
 public:
  SlowClockFile(SlowClockManager* manager, const char* path, std::string* content)
      : MemoryFile(manager, path, content), files(manager) {}
  int Write(const char* text, int length) override {
    files->writes++;
    return MemoryFile::Write(text, length);
  }
  bool State(FileState* state) override {
    *state = {1, 1, Length(), 0, files->writes / 12};
    return true;
  }

 private:
  SlowClockManager* files;
};

File* SlowClockManager::Open(const char* path, int mode) {
  std::string* content = Content(path, mode);
  return content ? new SlowClockFile(this, path, content) : nullptr;
}

TEST(ZIXIndexSlowClock, ADeletedEntryOfTheCursorIsGoneForOthersAtOnce) {
  TestApplication application;
  SlowClockManager files(&application);
  application.SetFileManager(&files);
  ZIXIndexFile index(&application), other(&application);
  ASSERT_TRUE(index.Create(ZephPath_Data, "i.zix", KeyBytes("key"), ZIXIndex_Text));
  for (unsigned record = 1; record <= 50; record++)
    ASSERT_TRUE(Insert(index, "key " + std::to_string(100 + record), record));
  ASSERT_TRUE(other.Open(ZephPath_Data, "i.zix", 3));
  for (unsigned record = 1; record <= 50; record++) {
    SCOPED_TRACE(record);
    const std::string key = "key " + std::to_string(100 + record);
    EXPECT_EQ((ZIXIndexFound{true, 1, record}), Find(other, key));
    EXPECT_EQ((ZIXIndexFound{true, 1, record}), Find(index, key));
    ASSERT_TRUE(index.Delete_Current(record));
    EXPECT_EQ(0, Find(other, key).found);
  }
}

TEST_F(ZIXIndexCacheTest, AFileMadeAnewWithTheSameCountsIsSeen) {
  ASSERT_TRUE(Insert(index, "old", 1));
  EXPECT_EQ((ZIXIndexFound{true, 1, 1}), Find(other, "old"));
  ASSERT_TRUE(index.Create(ZephPath_Data, "i.zix", KeyBytes("key"), ZIXIndex_Text));
  ASSERT_TRUE(Insert(index, "new", 1));
  EXPECT_EQ(0, Find(other, "old").found);
  EXPECT_EQ((ZIXIndexFound{true, 1, 1}), Find(other, "new"));
}

TEST_F(ZIXIndexCacheTest, AFileThatTookTheNameWhileInactiveIsSeen) {
  ASSERT_TRUE(Insert(index, "old", 1));
  EXPECT_EQ((ZIXIndexFound{true, 1, 1}), Find(other, "old"));
  ZIXIndexFile made(&application);
  ASSERT_TRUE(made.Create(ZephPath_Data, "new.zix", KeyBytes("key"), ZIXIndex_Text));
  ASSERT_TRUE(Insert(made, "new", 1));
  made.Close();
  other.Deactivate();
  std::filesystem::rename(directory.path("new.zix"), directory.path("i.zix"));
  EXPECT_EQ(0, Find(other, "old").found);
  EXPECT_EQ((ZIXIndexFound{true, 1, 1}), Find(other, "new"));
}

TEST_F(ZIXIndexCacheTest, ACursorOutlivesDeactivation) {
  Fill(50);
  ASSERT_EQ((ZIXIndexFound{true, 1, 20}), Find(other, Key(20)));
  other.Deactivate();
  EXPECT_EQ(21u, Next(other));
}

TEST_F(ZIXIndexCacheTest, AFileThatIsCutUnderTheCacheIsReadAgain) {
  Fill(100);
  EXPECT_EQ((ZIXIndexFound{true, 1, 100}), Find(other, Key(100)));
  std::filesystem::resize_file(directory.path("i.zix"), 1024);
  EXPECT_FALSE(Find(other, Key(100)).good);
  EXPECT_EQ("Error reading from 'i.zix': ", ErrorText(other));
}

// More pages than are kept.
TEST(SlowZIXIndexCache, ATreeLargerThanTheCacheIsWhole) {
  TemporaryDirectory directory;
  TestApplication application;
  UNIXReentrantFileManager files(&application);
  application.SetFileManager(&files);
  ASSERT_TRUE(files.InitializeDataDirectory(directory.path().c_str()));
  ZIXIndexFile index(&application);
  ASSERT_TRUE(index.Create(ZephPath_Data, "i.zix", KeyBytes("key"), ZIXIndex_Text));
  constexpr unsigned kCount = 40009;
  for (unsigned i = 0; i < kCount; i++) {
    const unsigned record = 1 + static_cast<unsigned>(i * 7919ul % kCount);
    ASSERT_TRUE(Insert(index, "key " + std::to_string(100000 + record), record));
  }
  const auto check = [&](size_t expected) {
    const std::string content = directory.Content("i.zix");
    ZIXIndexChecker checker(content);
    ASSERT_EQ("", checker.Check());
    ASSERT_EQ(expected, checker.entries.size());
  };
  check(kCount);
  EXPECT_GT(index.numpages(), 6000u);
  for (unsigned i = 0; i < kCount; i++) {
    const unsigned record = 1 + static_cast<unsigned>(i * 31ul % kCount);
    const std::string key = "key " + std::to_string(100000 + record);
    ASSERT_EQ((ZIXIndexFound{true, 1, record}), Find(index, key));
    if (record % 2) {
      ASSERT_TRUE(Delete(index, key, record));
    }
  }
  check(kCount / 2);
}

}  // namespace
