// Damaged index files: the stated error texts, no endless walk, no read past a buffer. Under the
// address sanitizer these tests find more.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "base/database/ZIXIndexFile.h"
#include "tests/support/Rounds.h"
#include "tests/support/ZIXIndexFixture.h"

namespace {

const char kTooMany[] =
    "Error reading from 'i.zix': File is corrupt (the number of entries is larger than the maximum "
    "entries possible).";
const char kCycle[] = "Error reading from 'i.zix': File is corrupt";
const char kInvalid[] = "'i.zix' is either corrupt or is not a valid index file";

class ZIXIndexDamageTest : public ZIXIndexFixture {
 protected:
  // Small pages make a deep tree with few bytes.
  std::string SmallTree(int entries) {
    OpenBytes(EmptyZIXIndex(small));
    for (int i = 0; i < entries; i++)
      EXPECT_TRUE(Insert(index, "key " + std::to_string(100 + i * 37 % entries),
                         static_cast<unsigned>(i) + 1));
    EXPECT_EQ("", Check());
    index.Close();
    return bytes();
  }
  // Opens a file with these bytes and, if that succeeds, runs every operation on it.
  void Exercise(const std::string& content) {
    bytes() = content;
    if (!index.Open(ZephPath_Data, "i.zix", 3)) {
      EXPECT_THAT(ErrorText(index), testing::AnyOf("Error reading from 'i.zix': ", kInvalid,
                                                   "'i.zix' was created by a newer version of "
                                                   "the software"));
      return;
    }
    EXPECT_EQ("", ExerciseZIXIndex(index, "i.zix", content.size()));
    EXPECT_TRUE(files.held.empty());
  }
  static void Put32(std::string* content, size_t at, uint32_t value) {
    LittleEndian::Put32(reinterpret_cast<unsigned char*>(content->data()) + at, value);
  }

  ZIXIndexShape small{ZIXIndex_Text, 4, 432, 24};
};

TEST_F(ZIXIndexDamageTest, AFileCutAtAnyLengthIsReadAsFarAsItGoes) {
  const std::string whole = SmallTree(24);
  ASSERT_GE(whole.size(), 4000u);
  for (size_t length = 0; length < whole.size(); length += kStride) {
    SCOPED_TRACE(length);
    Exercise(whole.substr(0, length));
    if (HasFailure()) return;
  }
}

TEST_F(ZIXIndexDamageTest, AHeaderShorterThanItsFieldsIsNotOpened) {
  const std::string whole = SmallTree(3);
  for (size_t length : {0u, 1u, 4u, 426u}) {
    bytes() = whole.substr(0, length);
    EXPECT_FALSE(index.Open(ZephPath_Data, "i.zix", 3));
    EXPECT_EQ("Error reading from 'i.zix': ", ErrorText(index));
  }
  bytes() = whole.substr(0, 427);
  EXPECT_TRUE(index.Open(ZephPath_Data, "i.zix", 3));
}

TEST_F(ZIXIndexDamageTest, EachHeaderByteMayBeWrong) {
  const std::string whole = SmallTree(24);
  for (size_t at = 0; at < 427; at += kStride) {
    for (int change : {1, 2, 4, 8, 16, 32, 64, 128, 255}) {
      // The bytes of the expression have no meaning for the tree.
      if (at >= ZIXHeader_KeyExpression && change != 255) continue;
      SCOPED_TRACE("byte " + std::to_string(at) + " xor " + std::to_string(change));
      std::string content = whole;
      content[at] = static_cast<char>(content[at] ^ change);
      Exercise(content);
      if (HasFailure()) return;
    }
  }
}

TEST_F(ZIXIndexDamageTest, EachByteOfAPageMayBeWrong) {
  const std::string whole = SmallTree(24);
  std::mt19937 random(20261121);
  for (int round = 0; round < Rounds(1500); round++) {
    SCOPED_TRACE(round);
    std::string content = whole;
    for (unsigned i = 0; i <= random() % 3; i++) {
      const size_t pages = whole.size() / 432 - 1;
      const size_t at = 432 * (1 + random() % pages) + random() % (4 + 4 * 24 + 4);
      content[at] = static_cast<char>(random() % 4 == 0 ? random() : random() % 20);
    }
    Exercise(content);
    if (HasFailure()) return;
  }
}

// --- Single damages, and the error text for each -------------------------------------------------

TEST_F(ZIXIndexDamageTest, NineEntriesArePossibleAndTenAreNot) {
  Create();
  InsertLetters(3);
  const std::string whole = bytes();
  Put32(&bytes(), 1024, 9);
  Open(index);
  EXPECT_EQ(1u, First(index));
  for (uint32_t count : {10u, 0x80000000u, 0xFFFFFFFFu}) {
    bytes() = whole;
    Put32(&bytes(), 1024, count);
    Open(index);
    EXPECT_EQ(99999u, First(index));
    EXPECT_EQ(kTooMany, ErrorText(index));
    EXPECT_EQ(99999u, Last(index));
    EXPECT_FALSE(Find(index, "a").good);
    EXPECT_EQ(kTooMany, ErrorText(index));
    EXPECT_FALSE(Insert(index, "x", 9));
    EXPECT_EQ(kTooMany, ErrorText(index));
    EXPECT_FALSE(Delete(index, "a", 1));
    EXPECT_EQ(kTooMany, ErrorText(index));
  }
}

TEST_F(ZIXIndexDamageTest, APageThatTheFileCutsHoldsWhatWasRead) {
  Create();
  InsertLetters(4);
  bytes().resize(1024 + 4 + 4 * 108);
  Open(index);
  EXPECT_EQ(4u, Forward(index).size());
  bytes().resize(1024 + 4 + 4 * 108 - 1);
  EXPECT_EQ(99999u, First(index));
  EXPECT_EQ(kTooMany, ErrorText(index));
  bytes().resize(1024 + 3);
  Open(index);
  EXPECT_EQ(99999u, First(index));
  EXPECT_EQ("Error reading from 'i.zix': ", ErrorText(index));
}

TEST_F(ZIXIndexDamageTest, AChildPageThatIsAbovePagesMakesACycle) {
  Create(ZIXIndex_Text);
  InsertLetters(9);
  const std::string whole = bytes();
  for (uint32_t child : {1u, 3u}) {
    bytes() = whole;
    Put32(&bytes(), 1024 + 4, child);  // in front of "a"
    Open(index);
    EXPECT_EQ(99999u, First(index));
    EXPECT_EQ(kCycle, ErrorText(index));
    EXPECT_EQ((ZIXIndexFound{false, 0, 0}), Find(index, "A"));
    EXPECT_EQ(kCycle, ErrorText(index));
    EXPECT_FALSE(Insert(index, "A", 9));
    EXPECT_EQ(kCycle, ErrorText(index));
    EXPECT_FALSE(Delete(index, "A", 9));
    EXPECT_EQ(kCycle, ErrorText(index));
    ASSERT_EQ((ZIXIndexFound{true, 1, 2}), Find(index, "b"));
    EXPECT_EQ(1u, Prev(index));
    EXPECT_EQ(99999u, Prev(index));
    EXPECT_EQ(kCycle, ErrorText(index));
  }
}

TEST_F(ZIXIndexDamageTest, ARootThatIsItsOwnChildIsACycle) {
  Create();
  InsertLetters(1);
  Put32(&bytes(), 1024 + 4, 1);
  Put32(&bytes(), 1024 + 4 + 108, 1);
  Open(index);
  EXPECT_EQ(99999u, First(index));
  EXPECT_EQ(99999u, Last(index));
  EXPECT_FALSE(Insert(index, "b", 2));
  EXPECT_EQ(kCycle, ErrorText(index));
  EXPECT_FALSE(Delete(index, "b", 2));
  EXPECT_EQ(kCycle, ErrorText(index));
}

TEST_F(ZIXIndexDamageTest, AChildPageOutsideTheFileIsAReadingError) {
  Create(ZIXIndex_Text);
  InsertLetters(9);
  const std::string whole = bytes();
  for (uint32_t child : {4u, 5u, 0x1FFFFFu, 0x200000u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(child);
    bytes() = whole;
    Put32(&bytes(), 3 * 1024 + 4, child);
    Open(index);
    EXPECT_EQ(99999u, First(index));
    EXPECT_EQ("Error reading from 'i.zix': ", ErrorText(index));
    EXPECT_FALSE(Find(index, "A").good);
    EXPECT_FALSE(Insert(index, "A", 9));
    EXPECT_EQ("Error reading from 'i.zix': ", ErrorText(index));
    EXPECT_FALSE(Delete(index, "A", 9));
    EXPECT_EQ("Error reading from 'i.zix': ", ErrorText(index));
    EXPECT_EQ(whole.size(), bytes().size());
  }
}

TEST_F(ZIXIndexDamageTest, TheHeaderIsNoPageOfTheTree) {
  Create(ZIXIndex_Text);
  InsertLetters(9);
  Put32(&bytes(), 13, 4);  // a root past the end of the file
  EXPECT_EQ(99999u, First(index));
  Put32(&bytes(), 13, 0);
  EXPECT_EQ(0u, First(index));
  EXPECT_EQ(kInvalid, ErrorText(index));
  EXPECT_FALSE(Insert(index, "x", 9));
  EXPECT_EQ(kInvalid, ErrorText(index));
}

TEST_F(ZIXIndexDamageTest, AHeaderThatTurnsBadBetweenOperationsIsNoticed) {
  Create(ZIXIndex_Text);
  InsertLetters(9);
  ASSERT_EQ(1u, First(index));
  bytes()[19] = bytes()[20] = 0;
  EXPECT_EQ(0u, Next(index));
  EXPECT_EQ(kInvalid, ErrorText(index));
  EXPECT_FALSE(Insert(index, "x", 9));
  EXPECT_FALSE(Delete(index, "a", 1));
  EXPECT_EQ(kInvalid, ErrorText(index));
  bytes()[20] = 4;
  EXPECT_EQ(2u, Next(index));
  bytes()[20] = 0;
  EXPECT_FALSE(Find(index, "a").good);
  EXPECT_EQ(kInvalid, ErrorText(index));
}

TEST_F(ZIXIndexDamageTest, KeysWithoutANULEndWithTheirEntry) {
  Create(ZIXIndex_Text);
  InsertLetters(3);
  for (size_t i = 0; i < 3; i++) memset(&bytes()[1024 + 12 + i * 108], 'b', 100);
  ASSERT_EQ(1u, First(index));
  unsigned record = 0;
  const unsigned char* key = nullptr;
  ASSERT_TRUE(index._Next(&record, &key, 1));
  EXPECT_EQ(std::string(99, 'b'), reinterpret_cast<const char*>(key));
  EXPECT_EQ((ZIXIndexFound{true, 1, 1}), Find(index, std::string(99, 'b')));
}

TEST_F(ZIXIndexDamageTest, AnEmptyLeafIsNoPlaceForACursor) {
  Create(ZIXIndex_Text);
  InsertLetters(9);
  Put32(&bytes(), 2 * 1024, 0);
  ASSERT_EQ((ZIXIndexFound{true, 1, 5}), Find(index, "e"));
  EXPECT_EQ(99999u, Next(index));
  EXPECT_EQ(kCycle, ErrorText(index));
  EXPECT_EQ(99999u, Last(index));
  EXPECT_FALSE(Delete(index, "e", 5)) << "no successor";
  EXPECT_EQ(kCycle, ErrorText(index));
}

// Each page has the next one as all of its children: there is no cycle, but a walk through all of
// it would never end.
TEST_F(ZIXIndexDamageTest, PagesWithManyPagesAboveThemEndAWalk) {
  constexpr uint32_t kDepth = 30;
  std::string content = ZIXIndexHeaderBytes(small, 0, kDepth + 1, 1, "key");
  content.resize(432);
  for (uint32_t page = 1; page <= kDepth; page++) {
    const uint32_t next = page == kDepth ? 0 : page + 1;
    content += ZIXIndexPageBytes(small, {{"a", 1}, {"a", 2}, {"a", 3}}, {next, next, next, next});
  }
  OpenBytes(content);
  EXPECT_EQ("", ExerciseZIXIndex(index, "i.zix", content.size()));
  bytes() = content;
  Open(index);
  EXPECT_FALSE(Delete(index, "a", 4));
  EXPECT_EQ(kCycle, ErrorText(index));
  EXPECT_FALSE(index._Seek(KeyBytes("a"), 1, 4, 1));
  EXPECT_EQ(kCycle, ErrorText(index));
}

// A chain of pages that is deeper than any tree; each number occurs once.
TEST_F(ZIXIndexDamageTest, AChainOfPagesIsTooDeep) {
  constexpr uint32_t kDepth = 300;
  std::string content = ZIXIndexHeaderBytes(small, 0, kDepth + 1, 1, "key");
  content.resize(432);
  for (uint32_t page = 1; page <= kDepth; page++)
    content += ZIXIndexPageBytes(small, {{"m", page}}, {page == kDepth ? 0 : page + 1, 0});
  OpenBytes(content);
  EXPECT_EQ(99999u, First(index));
  EXPECT_EQ(kCycle, ErrorText(index));
  EXPECT_FALSE(Insert(index, "a", 9));
  EXPECT_EQ(kCycle, ErrorText(index));
  EXPECT_FALSE(Delete(index, "a", 9));
  EXPECT_EQ(kCycle, ErrorText(index));
  EXPECT_EQ(content, bytes());
}

// A page that merges must have another page as its sibling.
TEST_F(ZIXIndexDamageTest, AParentThatNamesAPageTwiceIsCorrupt) {
  Create(ZIXIndex_Text);
  InsertLetters(9);
  ASSERT_TRUE(Delete(index, "a", 1));
  for (uint32_t other : {1u, 3u}) {
    const std::string whole = bytes();
    Put32(&bytes(), 3 * 1024 + 4 + 108, other);
    const std::string damaged = bytes();
    EXPECT_FALSE(Delete(index, "b", 2));
    EXPECT_EQ(kCycle, ErrorText(index));
    EXPECT_EQ(damaged, bytes());
    bytes() = whole;
  }
}

TEST_F(ZIXIndexDamageTest, APageAloneUnderItsParentCannotBeMended) {
  std::string content = ZIXIndexHeaderBytes(small, 0, 4, 3, "key");
  content.resize(432);
  content += ZIXIndexPageBytes(small, {{"b", 2}});
  content += ZIXIndexPageBytes(small, {}, {1});
  content += ZIXIndexPageBytes(small, {{"m", 9}}, {2, 0});
  OpenBytes(content);
  EXPECT_FALSE(Delete(index, "b", 2));
  EXPECT_EQ(kCycle, ErrorText(index));
}

// --- Positions that the file layer refuses -------------------------------------------------------

TEST_F(ZIXIndexDamageTest, ASplitThatCannotBeFinishedIsNotBegun) {
  Create(ZIXIndex_Text);
  InsertLetters(8);
  // The new page would fit below 2^31, but not a new root after it.
  Put32(&bytes(), 9, 0x1FFFFF);
  const std::string before = bytes();
  EXPECT_FALSE(Insert(index, "i", 9));
  EXPECT_EQ("Error writing to 'i.zix': ", ErrorText(index));
  EXPECT_EQ(before, bytes());
  Put32(&bytes(), 9, 0xFFFFFFFF);
  EXPECT_FALSE(Insert(index, "i", 9));
  EXPECT_EQ(0xFFFFFFFFu, ZIXIndexChecker(bytes()).numpages()) << "the count never wraps";
}

}  // namespace
