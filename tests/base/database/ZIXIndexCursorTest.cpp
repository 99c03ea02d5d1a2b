// Claims about the cursor of base/database/ZIXIndexFile.h when the tree changes between its steps.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/database/ZIXIndexFile.h"
#include "tests/support/ZIXIndexFixture.h"

namespace {

class ZIXIndexCursorTest : public ZIXIndexFixture {
 protected:
  void SetUp() override {
    Create(ZIXIndex_Text);
    InsertLetters(26);
    Open(other);
  }
  static std::string Letter(unsigned record) {
    return std::string(1, static_cast<char>('a' + record - 1));
  }

  ZIXIndexFile other{&application};
};

TEST_F(ZIXIndexCursorTest, NextGoesOnAfterTheEntryAfterAnInsert) {
  for (unsigned at = 1; at <= 26; at++) {
    SCOPED_TRACE(at);
    ASSERT_TRUE(index._Seek(KeyBytes(Letter(at)), 1, at, 1));
    ASSERT_TRUE(Insert(other, "A", 100 + at));
    EXPECT_EQ(at == 26 ? 0 : at + 1, Next(index));
  }
}

TEST_F(ZIXIndexCursorTest, PrevGoesOnInFrontOfTheEntryAfterAnInsert) {
  for (unsigned at = 2; at <= 26; at++) {
    SCOPED_TRACE(at);
    ASSERT_TRUE(index._Seek(KeyBytes(Letter(at)), 1, at, 1));
    ASSERT_TRUE(Insert(other, "zz", 100 + at));
    EXPECT_EQ(at - 1, Prev(index));
  }
}

TEST_F(ZIXIndexCursorTest, WhatWasInsertedAfterTheCursorIsMet) {
  ASSERT_TRUE(index._Seek(KeyBytes("e"), 1, 5, 1));
  ASSERT_TRUE(Insert(other, "ee", 50));
  EXPECT_EQ(50u, Next(index));
  EXPECT_EQ(6u, Next(index));
  ASSERT_TRUE(Insert(other, "ef", 51));
  EXPECT_EQ(51u, Prev(index));
}

TEST_F(ZIXIndexCursorTest, AnEntryThatOthersDeletedEndsTheWalk) {
  for (bool forward : {true, false}) {
    ASSERT_TRUE(index._Seek(KeyBytes("m"), 1, 13, 1));
    ASSERT_TRUE(Delete(other, "m", 13));
    EXPECT_EQ(0u, forward ? Next(index) : Prev(index));
    EXPECT_EQ(0u, Next(index)) << "there is no position any more";
    EXPECT_EQ(0u, Prev(index));
    ASSERT_TRUE(Insert(other, "m", 13));
    EXPECT_EQ(0u, Next(index));
  }
}

TEST_F(ZIXIndexCursorTest, AnEqualKeyOfAnotherRecordIsNotTheEntry) {
  ASSERT_TRUE(index._Seek(KeyBytes("m"), 1, 13, 1));
  ASSERT_TRUE(Delete(other, "m", 13));
  ASSERT_TRUE(Insert(other, "m", 14));
  EXPECT_EQ(0u, Next(index));
}

TEST_F(ZIXIndexCursorTest, TheEntryIsFoundAmongEqualKeys) {
  for (unsigned record = 200; record < 240; record++) ASSERT_TRUE(Insert(other, "m", record));
  for (unsigned record = 239; record > 200; record--) {
    ASSERT_TRUE(index._Seek(KeyBytes("m"), 1, record, 1));
    ASSERT_TRUE(Insert(other, "A", 1000 + record));
    EXPECT_EQ(record - 1, Next(index));
  }
}

TEST_F(ZIXIndexCursorTest, AChangeByTheSameObjectIsNoticedToo) {
  ASSERT_EQ(1u, First(index));
  ASSERT_EQ(2u, Next(index));
  ASSERT_TRUE(Insert(index, "bb", 50));
  EXPECT_EQ(50u, Next(index));
  ASSERT_TRUE(Delete(index, "c", 3));
  EXPECT_EQ(4u, Next(index));
  ASSERT_TRUE(Delete(index, "d", 4));
  EXPECT_EQ(0u, Next(index));
}

TEST_F(ZIXIndexCursorTest, AWalkWhoseOwnEntriesAreDeletedAfterItMeetsAll) {
  std::vector<unsigned> met;
  unsigned previous = 0;
  for (unsigned record = First(index); record != 0; record = Next(index)) {
    met.push_back(record);
    if (previous) {
      ASSERT_TRUE(Delete(index, Letter(previous), previous));
    }
    previous = record;
  }
  EXPECT_EQ(26u, met.size());
  EXPECT_EQ((std::vector<ZIXIndexEntry>{{"z", 26}}), Entries());
}

TEST_F(ZIXIndexCursorTest, AFailureWhileThePlaceIsLookedForEndsTheWalk) {
  for (unsigned (*step)(ZIXIndexFile&) : {Next, Prev}) {
    ASSERT_TRUE(index._Seek(KeyBytes("m"), 1, 13, 1));
    ASSERT_TRUE(Insert(other, "A", 100));
    files.fail_read = 2;
    EXPECT_EQ(0u, step(index));
    EXPECT_EQ("Error reading from 'i.zix': Injected failure", ErrorText(index));
    EXPECT_EQ(0u, step(index));
  }
}

TEST_F(ZIXIndexCursorTest, TheCounterIsComparedWithTheCursorsOwnCopy) {
  // An insertion by this object reads the header too. That must not hide the change from the
  // cursor.
  ASSERT_EQ(1u, First(index));
  ASSERT_TRUE(Delete(other, "b", 2));
  ASSERT_TRUE(Insert(index, "zz", 99));
  EXPECT_EQ(3u, Next(index));
}

TEST_F(ZIXIndexCursorTest, AnUnchangedTreeIsNotReadAgain) {
  ASSERT_EQ((ZIXIndexFound{true, 1, 1}), Find(index, "a"));
  files.ResetCounts();
  EXPECT_EQ(2u, Next(index));
  EXPECT_EQ(1, files.reads) << "the header alone";
}

TEST_F(ZIXIndexCursorTest, AnIndexMadeAgainUnderTheCursorIsNoTrap) {
  ASSERT_TRUE(index._Seek(KeyBytes("m"), 1, 13, 1));
  ZIXIndexShape small;
  small.pagesize = 432;
  small.keyrecordsize = 20;
  small.order = 4;
  bytes() = EmptyZIXIndex(small);
  EXPECT_EQ(0u, Next(index));
  EXPECT_EQ(20, index.keyrecordsize());
  ASSERT_TRUE(Insert(index, "a key of more than twelve bytes", 1));
  EXPECT_EQ((std::vector<ZIXIndexEntry>{{"a key of mo", 1}}), Entries());
}

}  // namespace
