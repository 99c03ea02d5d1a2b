// Index files whose writer fails or dies in the middle of a change: what is left, and how far it is
// usable.

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "base/database/ZIXIndexFile.h"
#include "tests/support/Rounds.h"
#include "tests/support/ZIXIndexFixture.h"

namespace {

class ZIXIndexFaultTest : public ZIXIndexFixture {
 protected:
  // Pages of at most 4 entries, so that most changes reach several.
  void SetUp() override { OpenBytes(EmptyZIXIndex(shape)); }

  struct Change {
    bool insertion;
    unsigned record;
  };
  static std::string Key(unsigned record) { return "key " + std::to_string(100 + record); }

  // Grows a tree of several levels and empties it again.
  static std::vector<Change> Changes() {
    std::vector<Change> all;
    for (unsigned i = 0; i < 30; i++) all.push_back({true, 1 + i * 7 % 30});
    for (unsigned i = 0; i < 30; i++) all.push_back({false, 1 + i * 11 % 30});
    return all;
  }
  bool Apply(const Change& change) {
    return change.insertion ? Insert(index, Key(change.record), change.record)
                            : Delete(index, Key(change.record), change.record);
  }

  // Does what a reindex does: makes a new file with the old one's header and fills it from the
  // table.
  void Rebuild(const std::vector<ZIXIndexEntry>& table) {
    ZIXIndexFile old(&application);
    ASSERT_TRUE(old.Open(ZephPath_Data, "i.zix", 3)) << ErrorText(old);
    ZIXIndexFile made(&application);
    ASSERT_TRUE(made.Create(ZephPath_Data, "new.zix", old.keyexpression(), old.flags()));
    for (const ZIXIndexEntry& entry : table) ASSERT_TRUE(Insert(made, entry.first, entry.second));
    ZIXIndexChecker checker(files.files["new.zix"]);
    ASSERT_EQ("", checker.Check());
    EXPECT_EQ(table, checker.entries);
    EXPECT_STREQ("key", reinterpret_cast<const char*>(made.keyexpression()));
  }

  ZIXIndexShape shape{ZIXIndex_Text, 4, 432, 24};
};

TEST_F(ZIXIndexFaultTest, AKilledChangeLeavesAFileThatIsSafeToUseAndToRebuild) {
  int whole = 0;
  int damaged = 0;
  for (const Change& change : Changes()) {
    SCOPED_TRACE((change.insertion ? "insert " : "delete ") + std::to_string(change.record));
    const std::string before = bytes();
    ZIXIndexChecker sound(before);
    ASSERT_EQ("", sound.Check());
    for (int call = 1;; call += kStride) {
      SCOPED_TRACE("killed at call " + std::to_string(call));
      bytes() = before;
      files.kill_call = call;
      files.killed_write_length = call % 2 ? 0 : 100;
      const bool done = Apply(change);
      files.Revive();
      if (done) break;
      // Another process opens the file.
      index.Close();
      Open(index);
      const std::string left = bytes();
      const std::string fault = Check();
      fault.empty() ? whole++ : damaged++;
      // A page may be half written, and two pages may be in the middle of a redistribution. Apart
      // from that no insertion gives a page number twice.
      if (change.insertion && files.killed_write_length == 0) {
        EXPECT_EQ(std::string::npos, fault.find("reached twice"));
      }
      EXPECT_EQ("", ExerciseZIXIndex(index, "i.zix", left.size()));
      Rebuild(sound.entries);
      index.Close();
      bytes() = left;
      Open(index);
      if (HasFailure()) return;
    }
    index.Close();
    bytes() = before;
    Open(index);
    ASSERT_TRUE(Apply(change));
  }
  EXPECT_GT(whole, 500 / kStride);
  EXPECT_GT(damaged, 0);
}

// The new page is written before the old one gives up its entries, and the header before both.
// Until the page above is written, only those two can contradict each other.
TEST_F(ZIXIndexFaultTest, AnInsertThatIsKilledBeforeItsLastPagesLosesNothing) {
  for (unsigned record = 1; record <= 4; record++) ASSERT_TRUE(Insert(index, Key(record), record));
  const std::string before = bytes();
  // The header, the new page, the old one, the new root, the header.
  files.ResetCounts();
  ASSERT_TRUE(Insert(index, Key(5), 5));
  ASSERT_EQ(5, files.writes);
  for (int write = 1; write <= 5; write++) {
    SCOPED_TRACE(write);
    bytes() = before;
    files.fail_write = write;
    EXPECT_FALSE(Insert(index, Key(5), 5));
    EXPECT_EQ("Error writing to 'i.zix': Injected failure", ErrorText(index));
    EXPECT_TRUE(files.held.empty());
    ZIXIndexChecker checker(bytes());
    // The last page is the new root, and only the last header counts it.
    EXPECT_EQ(write == 5 ? "more pages than counted" : "", checker.Check());
    EXPECT_EQ(4u, checker.updatecount());
    EXPECT_EQ(write == 1 ? 2u : 3u, checker.numpages());
    if (write <= 3) {
      EXPECT_EQ(4u, checker.entries.size()) << "the old page is whole until the new one is";
    }
    // Later insertions find their pages.
    for (unsigned record = 6; record <= 20; record++)
      EXPECT_TRUE(Insert(index, Key(record), record));
    EXPECT_EQ("", Check());
  }
}

TEST_F(ZIXIndexFaultTest, AFailedWriteFailsTheDeletionAndReleasesTheLock) {
  for (const Change& change : Changes()) {
    if (change.insertion) {
      ASSERT_TRUE(Apply(change));
    }
  }
  const std::string before = bytes();
  const uint32_t count = ZIXIndexChecker(before).updatecount();
  for (unsigned record = 1; record <= 30; record++) {
    for (int write = 1;; write++) {
      bytes() = before;
      files.fail_write = write;
      if (Delete(index, Key(record), record)) break;
      EXPECT_EQ("Error writing to 'i.zix': Injected failure", ErrorText(index));
      EXPECT_TRUE(files.held.empty());
      EXPECT_EQ(count, ZIXIndexChecker(bytes()).updatecount());
      ASSERT_LT(write, 40);
    }
    files.fail_write = 0;
  }
}

TEST_F(ZIXIndexFaultTest, AShortWriteIsAFailure) {
  files.write_room = 100;
  EXPECT_FALSE(Insert(index, "a", 1));
  EXPECT_EQ("Error writing to 'i.zix': ", ErrorText(index));
}

TEST_F(ZIXIndexFaultTest, ASeekThatFailsWritesNothing) {
  for (unsigned record = 1; record <= 4; record++) ASSERT_TRUE(Insert(index, Key(record), record));
  const std::string before = bytes();
  for (int seek = 1; seek <= 4; seek++) {
    files.fail_seek = seek;
    EXPECT_FALSE(Insert(index, Key(5), 5));
    EXPECT_EQ(before, bytes()) << "header, page, room for the split, header again: " << seek;
  }
}

TEST_F(ZIXIndexFaultTest, EveryCallOfAReaderMayFail) {
  for (const Change& change : Changes()) {
    if (change.insertion) {
      ASSERT_TRUE(Apply(change));
    }
  }
  const std::string before = bytes();
  for (int call = 1; call <= 30; call++) {
    files.kill_call = call;
    unsigned record = 0;
    int found = 0;
    (void)First(index);
    (void)Next(index);
    (void)Last(index);
    (void)Prev(index);
    (void)index._Find(KeyBytes(Key(7)), -1, 1, &record, &found, 1);
    (void)index._Seek(KeyBytes(Key(7)), -1, 7, 1);
    files.Revive();
  }
  EXPECT_EQ(before, bytes());
  EXPECT_EQ(30u, Forward(index).size());
}

}  // namespace
