// Claims about how base/database/ZIXIndexFile.h follows the changes of others: each operation finds
// the file as it is, even where the header does not show a change.

#include "base/database/ZIXIndexFile.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "base/systems/unix/UNIXReentrantFile.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestApplication.h"
#include "tests/support/ZIXIndexFixture.h"

namespace {

// Two openers of a file on a disk.
class ZIXIndexFreshPages : public testing::Test {
 protected:
  ZIXIndexFreshPages() {
    application.SetFileManager(&files);
    EXPECT_TRUE(files.InitializeDataDirectory(directory.path().c_str()));
    EXPECT_TRUE(index.Create(ZephPath_Data, "i.zix", KeyBytes("key"), ZIXIndex_Text));
    EXPECT_TRUE(other.Open(ZephPath_Data, "i.zix", 3));
  }

  static std::string Key(unsigned record) { return "key " + std::to_string(100000 + record); }
  void Fill(unsigned count) {
    for (unsigned i = 0; i < count; i++) {
      const unsigned record = 1 + static_cast<unsigned>(i * 7919ul % count);
      ASSERT_TRUE(Insert(index, Key(record), record)) << ErrorText(index);
    }
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

TEST_F(ZIXIndexFreshPages, ChangesOfOthersAreSeenAtOnce) {
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

TEST_F(ZIXIndexFreshPages, ADeletionThatIsNotCountedIsSeenToo) {
  Fill(300);
  for (unsigned record = 1; record <= 300; record += 7) {
    ASSERT_EQ((ZIXIndexFound{true, 1, record}), Find(other, Key(record)));
    ASSERT_EQ((ZIXIndexFound{true, 1, record}), Find(index, Key(record)));
    ASSERT_TRUE(index.Delete_Current(record));
    EXPECT_EQ(0, Find(other, Key(record)).found);
    EXPECT_EQ("", Check());
  }
}

TEST_F(ZIXIndexFreshPages, AFileMadeAgainWithTheSameCountsIsSeen) {
  ASSERT_TRUE(Insert(index, "old", 1));
  EXPECT_EQ((ZIXIndexFound{true, 1, 1}), Find(other, "old"));
  ASSERT_TRUE(index.Create(ZephPath_Data, "i.zix", KeyBytes("key"), ZIXIndex_Text));
  ASSERT_TRUE(Insert(index, "new", 1));
  EXPECT_EQ(0, Find(other, "old").found);
  EXPECT_EQ((ZIXIndexFound{true, 1, 1}), Find(other, "new"));
}

TEST_F(ZIXIndexFreshPages, AFileThatTookTheNameWhileInactiveIsSeen) {
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

TEST_F(ZIXIndexFreshPages, ACursorOutlivesDeactivation) {
  Fill(50);
  ASSERT_EQ((ZIXIndexFound{true, 1, 20}), Find(other, Key(20)));
  other.Deactivate();
  EXPECT_EQ(21u, Next(other));
}

TEST_F(ZIXIndexFreshPages, AFileThatIsCutIsReadAgain) {
  Fill(100);
  EXPECT_EQ((ZIXIndexFound{true, 1, 100}), Find(other, Key(100)));
  std::filesystem::resize_file(directory.path("i.zix"), 1024);
  EXPECT_FALSE(Find(other, Key(100)).good);
  EXPECT_EQ("Error reading from 'i.zix': ", ErrorText(other));
}

// A change that was interrupted: the page is written, the header is not, and updatecount is the
// same.
class ZIXIndexUntoldChange : public ZIXIndexFixture {
 protected:
  void SetUp() override {
    Create(ZIXIndex_Text);
    InsertLetters(6);
    ASSERT_EQ((ZIXIndexFound{true, 1, 5}), Find(index, "e"));
    ZIXIndexFile other(&application);
    Open(other);
    files.fail_write = 2;
    ASSERT_FALSE(Delete(other, "b", 2));
    ASSERT_EQ(index.updatecount(), ZIXIndexChecker(bytes()).updatecount());
  }
  std::vector<ZIXIndexEntry> Without(std::vector<ZIXIndexEntry> all, unsigned record) {
    std::erase_if(all, [=](const ZIXIndexEntry& entry) { return entry.second == record; });
    return all;
  }
  const std::vector<ZIXIndexEntry> left = {{"a", 1}, {"c", 3}, {"d", 4}, {"e", 5}, {"f", 6}};
};

TEST_F(ZIXIndexUntoldChange, IsSeenBySearches) {
  EXPECT_EQ(0, Find(index, "b").found);
  EXPECT_EQ((std::vector<unsigned>{1, 3, 4, 5, 6}), Forward(index));
}

TEST_F(ZIXIndexUntoldChange, IsNotUndoneByAnInsertion) {
  ASSERT_TRUE(Insert(index, "g", 7));
  std::vector<ZIXIndexEntry> expected = left;
  expected.emplace_back("g", 7);
  EXPECT_EQ(expected, Entries());
}

TEST_F(ZIXIndexUntoldChange, IsNotUndoneByADeletion) {
  ASSERT_TRUE(Delete(index, "d", 4));
  EXPECT_EQ(Without(left, 4), Entries());
}

TEST_F(ZIXIndexUntoldChange, IsNotUndoneByADeletionAtTheCursor) {
  ASSERT_TRUE(index.Delete_Current(5));
  EXPECT_EQ(Without(left, 5), Entries());
}

}  // namespace
