// Claims about deletion in base/database/ZIXIndexFile.h: borrowing, merging, and the cursor's own
// entry.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "base/database/ZIXIndexFile.h"
#include "tests/support/ZIXIndexFixture.h"

namespace {

class ZIXIndexDeleteTest : public ZIXIndexFixture {
 protected:
  // A root of one entry over two leaves, all keys of two digits.
  void TwoLeaves(const std::vector<int>& left, int separator, const std::vector<int>& right) {
    std::string content = ZIXIndexHeaderBytes(shape, 0, 4, 3, "key");
    content.resize(1024);
    content += ZIXIndexPageBytes(shape, Row(left));
    content += ZIXIndexPageBytes(shape, Row(right));
    content += ZIXIndexPageBytes(shape, Row({separator}), {1, 2});
    OpenBytes(content);
    ASSERT_EQ("", Check());
  }
  static std::vector<ZIXIndexEntry> Row(const std::vector<int>& numbers) {
    std::vector<ZIXIndexEntry> entries;
    for (int number : numbers)
      entries.emplace_back(std::to_string(number), static_cast<uint32_t>(number));
    return entries;
  }
  bool Drop(int number) {
    return Delete(index, std::to_string(number), static_cast<unsigned>(number));
  }
  std::vector<int> Page(uint32_t page) {
    const ZIXIndexChecker checker(bytes());
    std::vector<int> numbers;
    for (uint32_t i = 0; i < checker.Count(page); i++)
      numbers.push_back(static_cast<int>(checker.Record(page, i)));
    return numbers;
  }

  ZIXIndexShape shape;
};

using Numbers = std::vector<int>;

TEST_F(ZIXIndexDeleteTest, AnEntryLeavesItsLeaf) {
  TwoLeaves({11, 12, 13, 14}, 20, {21, 22, 23});
  ASSERT_TRUE(Drop(12));
  EXPECT_EQ((Numbers{11, 13, 14}), Page(1));
  EXPECT_EQ("", Check());
  EXPECT_EQ(1u, ZIXIndexChecker(bytes()).updatecount());
}

TEST_F(ZIXIndexDeleteTest, APageThatRunsShortTakesFromItsRightSibling) {
  TwoLeaves({11, 12, 13}, 20, {21, 22, 23, 24, 25, 26, 27, 28});
  ASSERT_TRUE(Drop(12));
  // 2 and 8: the right page ends with (2 + 8) / 2.
  EXPECT_EQ((Numbers{11, 13, 20, 21, 22}), Page(1));
  EXPECT_EQ((Numbers{23}), Page(3));
  EXPECT_EQ((Numbers{24, 25, 26, 27, 28}), Page(2));
  EXPECT_EQ("", Check());
}

TEST_F(ZIXIndexDeleteTest, OneEntryMovesThroughTheSeparator) {
  TwoLeaves({11, 12, 13}, 20, {21, 22, 23, 24});
  ASSERT_TRUE(Drop(11));
  EXPECT_EQ((Numbers{12, 13, 20}), Page(1));
  EXPECT_EQ((Numbers{21}), Page(3));
  EXPECT_EQ((Numbers{22, 23, 24}), Page(2));
}

TEST_F(ZIXIndexDeleteTest, APageThatRunsShortTakesFromItsLeftSibling) {
  TwoLeaves({11, 12, 13, 14, 15, 16, 17}, 20, {21, 22, 23});
  ASSERT_TRUE(Drop(22));
  // 7 and 2: the left page ends with (7 + 2) / 2.
  EXPECT_EQ((Numbers{11, 12, 13, 14}), Page(1));
  EXPECT_EQ((Numbers{15}), Page(3));
  EXPECT_EQ((Numbers{16, 17, 20, 21, 23}), Page(2));
  EXPECT_EQ("", Check());
}

TEST_F(ZIXIndexDeleteTest, TwoSmallPagesMergeAndTheRootGoes) {
  TwoLeaves({11, 12, 13}, 20, {21, 22, 23});
  ASSERT_TRUE(Drop(13));
  const ZIXIndexChecker checker(bytes());
  EXPECT_EQ(1u, checker.startingpage());
  EXPECT_EQ(4u, checker.numpages());
  EXPECT_EQ((Numbers{11, 12, 20, 21, 22, 23}), Page(1));
  EXPECT_EQ((Numbers{}), Page(2)) << "the emptied page is written";
  EXPECT_EQ((Numbers{}), Page(3)) << "as is the old root";
  EXPECT_EQ("", Check());
}

TEST_F(ZIXIndexDeleteTest, TheRightPageMergesIntoTheLeftOne) {
  TwoLeaves({11, 12, 13}, 20, {21, 22, 23});
  ASSERT_TRUE(Drop(21));
  EXPECT_EQ(1u, ZIXIndexChecker(bytes()).startingpage());
  EXPECT_EQ((Numbers{11, 12, 13, 20, 22, 23}), Page(1));
  EXPECT_EQ("", Check());
}

TEST_F(ZIXIndexDeleteTest, AnInnerEntryIsReplacedByItsSuccessor) {
  TwoLeaves({11, 12, 13}, 20, {21, 22, 23, 24});
  ASSERT_TRUE(Drop(20));
  EXPECT_EQ((Numbers{21}), Page(3));
  EXPECT_EQ((Numbers{22, 23, 24}), Page(2));
  ASSERT_TRUE(Drop(21));
  EXPECT_EQ((Numbers{11, 12, 13, 22, 23, 24}), Page(1));
  EXPECT_EQ("", Check());
}

TEST_F(ZIXIndexDeleteTest, TheLeftSiblingGoesFirst) {
  std::string content = ZIXIndexHeaderBytes(shape, 0, 5, 4, "key");
  content.resize(1024);
  content += ZIXIndexPageBytes(shape, Row({11, 12, 13, 14}));
  content += ZIXIndexPageBytes(shape, Row({21, 22, 23}));
  content += ZIXIndexPageBytes(shape, Row({31, 32, 33, 34}));
  content += ZIXIndexPageBytes(shape, Row({20, 30}), {1, 2, 3});
  OpenBytes(content);
  ASSERT_TRUE(Drop(21));
  EXPECT_EQ((Numbers{11, 12, 13}), Page(1));
  EXPECT_EQ((Numbers{20, 22, 23}), Page(2));
  EXPECT_EQ((Numbers{14, 30}), Page(4));
  ASSERT_TRUE(Drop(22));
  EXPECT_EQ((Numbers{20, 23, 30}), Page(2)) << "now the right one is larger";
  EXPECT_EQ((Numbers{32, 33, 34}), Page(3));
  ASSERT_TRUE(Drop(23));
  EXPECT_EQ((Numbers{11, 12, 13, 14, 20, 30}), Page(1)) << "both small: merged with the left one";
  EXPECT_EQ((Numbers{31}), Page(4));
  EXPECT_EQ("", Check());
}

TEST_F(ZIXIndexDeleteTest, TheWritesOfARedistributionAreInOrder) {
  // Left larger: the right page is written first, without the deleted entry, then left, right,
  // parent and header.
  TwoLeaves({11, 12, 13, 14}, 20, {21, 22, 23});
  files.ResetCounts();
  ASSERT_TRUE(Drop(21));
  EXPECT_EQ(5, files.writes);
  TwoLeaves({11, 12, 13}, 20, {21, 22, 23, 24});
  files.ResetCounts();
  ASSERT_TRUE(Drop(11));
  EXPECT_EQ(4, files.writes);
}

TEST_F(ZIXIndexDeleteTest, ARecordThatIsNotThereIsSaidSo) {
  Create(ZIXIndex_Text);
  InsertLetters(20);
  const std::string before = bytes();
  EXPECT_FALSE(Delete(index, "c", 99));
  EXPECT_EQ("Record is not in index", ErrorText(index));
  EXPECT_FALSE(Delete(index, "cc", 3));
  EXPECT_FALSE(Delete(index, "", 3));
  EXPECT_FALSE(Delete(index, "c", 0));
  EXPECT_EQ(before, bytes()) << "updatecount stays";
}

TEST_F(ZIXIndexDeleteTest, AnEmptyIndexHasNothingToDelete) {
  Create();
  EXPECT_FALSE(Delete(index, "a", 1));
  EXPECT_EQ("Record is not in index", ErrorText(index));
}

TEST_F(ZIXIndexDeleteTest, TheRightOneOfEqualKeysGoes) {
  for (unsigned gone = 1; gone <= 60; gone++) {
    Create();
    for (unsigned record = 1; record <= 60; record++) ASSERT_TRUE(Insert(index, "same", record));
    ASSERT_TRUE(Delete(index, "same", gone));
    ZIXIndexChecker checker(bytes());
    ASSERT_EQ("", checker.Check());
    ASSERT_EQ(59u, checker.entries.size());
    for (const ZIXIndexEntry& entry : checker.entries) EXPECT_NE(gone, entry.second);
  }
}

TEST_F(ZIXIndexDeleteTest, DeletingAllLeavesAnEmptyRootAndThePages) {
  for (int way = 0; way < 3; way++) {
    SCOPED_TRACE(way);
    Create(ZIXIndex_Text);
    std::vector<unsigned> records;
    for (unsigned record = 100; record < 500; record++) {
      ASSERT_TRUE(Insert(index, std::to_string(record), record));
      records.push_back(record);
    }
    const uint32_t numpages = ZIXIndexChecker(bytes()).numpages();
    if (way == 1) std::reverse(records.begin(), records.end());
    if (way == 2) std::rotate(records.begin(), records.begin() + 200, records.end());
    for (unsigned record : records) {
      ASSERT_TRUE(Delete(index, std::to_string(record), record)) << record;
      ASSERT_EQ("", Check()) << record;
    }
    ZIXIndexChecker checker(bytes());
    EXPECT_EQ("", checker.Check());
    EXPECT_TRUE(checker.entries.empty());
    EXPECT_EQ(1, checker.depth);
    EXPECT_EQ(numpages, checker.numpages());
    EXPECT_EQ(800u, checker.updatecount());
    EXPECT_EQ(0u, First(index));
    ASSERT_TRUE(Insert(index, "again", 1));
    EXPECT_EQ("", Check());
  }
}

// --- The cursor's entry --------------------------------------------------------------------------

TEST_F(ZIXIndexDeleteTest, TheCursorsEntryGoesWithoutACount) {
  Create(ZIXIndex_Text);
  InsertLetters(4);
  ASSERT_EQ((ZIXIndexFound{true, 1, 2}), Find(index, "b"));
  EXPECT_TRUE(index.Delete_Current(2));
  EXPECT_EQ((std::vector<ZIXIndexEntry>{{"a", 1}, {"c", 3}, {"d", 4}}), Entries());
  EXPECT_EQ(4u, ZIXIndexChecker(bytes()).updatecount());
  EXPECT_EQ(0u, Next(index)) << "the cursor is nowhere";
}

TEST_F(ZIXIndexDeleteTest, AnotherRecordAtTheCursorIsLeftAlone) {
  Create(ZIXIndex_Text);
  InsertLetters(4);
  const std::string before = bytes();
  ASSERT_EQ(2u, (First(index), Next(index)));
  EXPECT_TRUE(index.Delete_Current(3));
  EXPECT_EQ(before, bytes());
  EXPECT_EQ(3u, Next(index)) << "the cursor stays";
  ZIXIndexFile other(&application);
  Open(other);
  EXPECT_TRUE(other.Delete_Current(1)) << "no entry under the cursor";
  EXPECT_EQ(before, bytes());
}

TEST_F(ZIXIndexDeleteTest, TheCursorsEntryThatOthersDeletedIsNoFailure) {
  Create(ZIXIndex_Text);
  InsertLetters(12);
  ZIXIndexFile other(&application);
  Open(other);
  ASSERT_EQ((ZIXIndexFound{true, 1, 7}), Find(index, "g"));
  ASSERT_TRUE(Delete(other, "g", 7));
  EXPECT_TRUE(index.Delete_Current(7));
  EXPECT_EQ(11u, Entries().size());
}

TEST_F(ZIXIndexDeleteTest, TheCursorsEntryIsFoundAgainInAChangedTree) {
  Create(ZIXIndex_Text);
  InsertLetters(8);
  ZIXIndexFile other(&application);
  Open(other);
  ASSERT_EQ((ZIXIndexFound{true, 1, 7}), Find(index, "g"));
  ASSERT_TRUE(Insert(other, "aa", 100));
  EXPECT_TRUE(index.Delete_Current(7));
  EXPECT_EQ("", Check());
  EXPECT_EQ((ZIXIndexFound{true, 0, 6}), Find(index, "g"));
  // updatecount does not show that deletion; the cursor still finds its place again.
  ASSERT_EQ((ZIXIndexFound{true, 1, 8}), Find(index, "h"));
  ASSERT_EQ((ZIXIndexFound{true, 1, 6}), Find(other, "f"));
  EXPECT_TRUE(other.Delete_Current(6));
  EXPECT_TRUE(index.Delete_Current(8));
  EXPECT_EQ("", Check());
  EXPECT_EQ(
      (std::vector<ZIXIndexEntry>{{"a", 1}, {"aa", 100}, {"b", 2}, {"c", 3}, {"d", 4}, {"e", 5}}),
      Entries());
}

// The two keys are the same number, so a search would find the other entry first.
TEST_F(ZIXIndexDeleteTest, TheCursorsEntryGoesWhereTheCursorIs) {
  Create();
  ASSERT_TRUE(Insert(index, "1", 5));
  ASSERT_TRUE(Insert(index, "1.0", 5));
  ASSERT_EQ(5u, (First(index), Next(index)));
  ASSERT_STREQ("1", reinterpret_cast<const char*>(index.current_key()));
  EXPECT_TRUE(index.Delete_Current(5));
  EXPECT_EQ((std::vector<ZIXIndexEntry>{{"1.0", 5}}), Entries());
}

// Numbers and texts together have no consistent order, so a search misses some entries.
TEST_F(ZIXIndexDeleteTest, TheCursorsEntryGoesWhereNoSearchFindsIt) {
  Create();
  for (const auto& [key, record] : {std::pair("10", 1u), {"9", 2u}, {"5a", 3u}, {"8", 4u}})
    ASSERT_TRUE(Insert(index, key, record));
  const std::vector<ZIXIndexEntry> all = Entries();
  for (size_t i = 0; i < all.size(); i++) {
    SCOPED_TRACE(all[i].first);
    const std::string before = bytes();
    unsigned record = First(index);
    for (size_t k = 0; k < i; k++) record = Next(index);
    ASSERT_EQ(all[i].second, record);
    EXPECT_TRUE(index.Delete_Current(record));
    std::vector<ZIXIndexEntry> expected = all;
    expected.erase(expected.begin() + static_cast<long>(i));
    EXPECT_EQ(expected, Entries());
    bytes() = before;
  }
}

TEST_F(ZIXIndexDeleteTest, TheCursorsEntryGoesWhereverStepsHaveLed) {
  Create(ZIXIndex_Text);
  for (unsigned record = 100; record < 250; record++)
    ASSERT_TRUE(Insert(index, std::to_string(record), record));
  const std::string full = bytes();
  for (unsigned steps = 0; steps < 150; steps++) {
    for (bool forward : {true, false}) {
      SCOPED_TRACE(steps);
      unsigned record = forward ? First(index) : Last(index);
      for (unsigned i = 0; i < steps; i++) record = forward ? Next(index) : Prev(index);
      ASSERT_EQ(forward ? 100 + steps : 249 - steps, record);
      ASSERT_TRUE(index.Delete_Current(record)) << ErrorText(index);
      ASSERT_EQ("", Check());
      ASSERT_EQ(149u, Entries().size());
      EXPECT_EQ(0, Find(index, std::to_string(record)).found);
      bytes() = full;
    }
  }
}

TEST_F(ZIXIndexDeleteTest, ARootThatGoesWithTheCursorsEntryReachesTheHeader) {
  TwoLeaves({11, 12, 13}, 20, {21, 22, 23});
  ASSERT_EQ((ZIXIndexFound{true, 1, 13}), Find(index, "13"));
  ASSERT_TRUE(index.Delete_Current(13));
  const ZIXIndexChecker checker(bytes());
  EXPECT_EQ(1u, checker.startingpage());
  EXPECT_EQ(0u, checker.updatecount());
  EXPECT_EQ((std::vector<ZIXIndexEntry>{
                {"11", 11}, {"12", 12}, {"20", 20}, {"21", 21}, {"22", 22}, {"23", 23}}),
            Entries());
}

TEST_F(ZIXIndexDeleteTest, TheCursorEmptiesADeepTree) {
  Create(ZIXIndex_Text);
  for (unsigned record = 100; record < 600; record++)
    ASSERT_TRUE(Insert(index, std::to_string(record), record));
  for (unsigned i = 0; i < 500; i++) {
    const unsigned record = 100 + i * 211 % 500;
    ASSERT_EQ((ZIXIndexFound{true, 1, record}), Find(index, std::to_string(record)));
    ASSERT_TRUE(index.Delete_Current(record)) << ErrorText(index);
    ASSERT_EQ("", Check()) << record;
    ASSERT_EQ(499 - i, Entries().size());
  }
}

}  // namespace
