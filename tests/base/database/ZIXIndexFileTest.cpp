// Claims about base/database/ZIXIndexFile.h: making and opening, the bytes, searches, steps and
// insertion.

#include "base/database/ZIXIndexFile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "tests/support/ZIXIndexFixture.h"

namespace {

using ZIXIndexFileTest = ZIXIndexFixture;
using Records = std::vector<unsigned>;

// --- Making and opening --------------------------------------------------------------------------

TEST_F(ZIXIndexFileTest, ANewFileHoldsTheHeaderAndAnEmptyRoot) {
  ASSERT_TRUE(index.Create(ZephPath_Data, "i.zix", KeyBytes("name + date"), 5));
  std::string expected = std::string("ZIXI") + '\3';
  expected += std::string("\0\0\0\0\2\0\0\0\1\0\0\0\x08\0\0\x04\x6C\0\x05\0\0\0", 22);
  expected += "name + date";
  expected.resize(2048);
  EXPECT_EQ(expected, bytes());
  EXPECT_EQ("ZIXI", index.identifier());
  EXPECT_EQ(3u, index.version());
  EXPECT_EQ(0u, index.updatecount());
  EXPECT_EQ(2u, index.numpages());
  EXPECT_EQ(1u, index.startingpage());
  EXPECT_EQ(8, index.order());
  EXPECT_EQ(1024, index.pagesize());
  EXPECT_EQ(108, index.keyrecordsize());
  EXPECT_EQ(100, index.keysize());
  EXPECT_EQ(5u, index.flags());
  EXPECT_STREQ("name + date", reinterpret_cast<const char*>(index.keyexpression()));
}

TEST_F(ZIXIndexFileTest, AnOpenedFileTellsWhatWasCreated) {
  Create(7);
  ZIXIndexFile other(&application);
  Open(other);
  EXPECT_EQ(7u, other.flags());
  EXPECT_STREQ("key", reinterpret_cast<const char*>(other.keyexpression()));
  EXPECT_TRUE(other.is_open());
}

TEST_F(ZIXIndexFileTest, AnExpressionOf400BytesHasNoTerminatorInTheFile) {
  const std::string expression(400, 'e');
  ASSERT_TRUE(index.Create(ZephPath_Data, "i.zix", KeyBytes(expression), 0));
  EXPECT_EQ('e', bytes()[426]);
  EXPECT_EQ('\0', bytes()[427]);
  bytes()[427] = 'f';
  ZIXIndexFile other(&application);
  Open(other);
  EXPECT_EQ(expression, reinterpret_cast<const char*>(other.keyexpression()));
}

TEST_F(ZIXIndexFileTest, ALongerExpressionIsCutInsteadOfRunningIntoThePages) {
  ASSERT_TRUE(index.Create(ZephPath_Data, "i.zix", KeyBytes(std::string(401, 'e')), 0));
  EXPECT_EQ('\0', bytes()[427]);
  EXPECT_EQ(std::string(400, 'e'), reinterpret_cast<const char*>(index.keyexpression()));
}

TEST_F(ZIXIndexFileTest, OpeningSaysWhatIsWrong) {
  Create();
  const std::string good = bytes();
  const auto opened_with = [&](size_t at, const std::string& patch) {
    bytes() = good;
    bytes().replace(at, patch.size(), patch);
    return index.Open(ZephPath_Data, "i.zix", 3) ? "opened" : ErrorText(index);
  };
  const std::string corrupt = "'i.zix' is either corrupt or is not a valid index file";
  const std::string newer = "'i.zix' was created by a newer version of the software";
  const struct {
    const char* label;
    size_t at;
    std::string patch;
    std::string expected;
  } cases[] = {
      {"identifier", 0, "ZIXJ", corrupt},
      {"version 4", 4, "\4", newer},
      {"version 255", 4, "\xFF", newer},
      {"identifier and version", 0, "ZIX\4\4", corrupt},
      {"version 3", 4, "\3", "opened"},
      {"version 2", 4, "\2", "opened"},
      {"version 1", 4, "\1", "opened"},
      {"version 0", 4, std::string(1, '\0'), "opened"},
      {"keyrecordsize 8", 21, std::string("\x08\0", 2), corrupt},
      {"keyrecordsize 9", 21, std::string("\x09\0", 2), "opened"},
      {"keyrecordsize 0", 21, std::string("\0\0", 2), corrupt},
      {"keyrecordsize beyond the page", 21, std::string("\x80\0", 2), corrupt},
      {"pagesize 0", 19, std::string("\0\0", 2), corrupt},
      {"pagesize within the header", 19, std::string("\xAA\x01", 2), corrupt},
      {"order 9 fits", 17, std::string("\x09\0", 2), "opened"},
      {"order 10 does not", 17, std::string("\x0A\0", 2), corrupt},
      {"order 4", 17, std::string("\4\0", 2), "opened"},
      {"order 3 leaves pages empty", 17, std::string("\3\0", 2), corrupt},
      {"order 0", 17, std::string("\0\0", 2), corrupt},
      {"root in the header", 13, std::string("\0\0\0\0", 4), corrupt},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(row.expected, opened_with(row.at, row.patch));
    EXPECT_EQ(row.expected == "opened", index.is_open());
  }
}

TEST_F(ZIXIndexFileTest, AMissingFileIsNamedWithTheReason) {
  EXPECT_FALSE(index.Open(ZephPath_Data, "none.zix", 3));
  EXPECT_EQ("Error opening 'none.zix': No such file or directory", ErrorText(index));
}

TEST_F(ZIXIndexFileTest, AHeaderThatCannotBeReadIsAReadingError) {
  Create();
  files.fail_read = 1;
  EXPECT_FALSE(index.Open(ZephPath_Data, "i.zix", 3));
  EXPECT_EQ("Error reading from 'i.zix': Injected failure", ErrorText(index));
  bytes().resize(426);
  EXPECT_FALSE(index.Open(ZephPath_Data, "i.zix", 3));
  EXPECT_EQ("Error reading from 'i.zix': ", ErrorText(index));
}

TEST_F(ZIXIndexFileTest, AHeaderThatComesInPiecesIsRead) {
  Create();
  files.read_limit = 100;
  EXPECT_TRUE(index.Open(ZephPath_Data, "i.zix", 3));
}

TEST_F(ZIXIndexFileTest, CreationSaysWhatFailed) {
  EXPECT_FALSE(index.Create(nullptr, "i.zix", KeyBytes("key"), 0));
  EXPECT_EQ("Internal error opening 'i.zix'", ErrorText(index));
  MemoryFileManager& manager = files;
  manager.Error("No room");
  files.fail_write = 1;
  EXPECT_FALSE(index.Create(ZephPath_Data, "i.zix", KeyBytes("key"), 0));
  EXPECT_EQ("Error writing to 'i.zix': Injected failure", ErrorText(index));
  EXPECT_EQ(0, files.open_now);
  files.fail_write = 2;
  EXPECT_FALSE(index.Create(ZephPath_Data, "i.zix", KeyBytes("key"), 0));
  EXPECT_EQ(0, files.open_now);
  EXPECT_FALSE(index.is_open());
}

TEST_F(ZIXIndexFileTest, AFileThatCannotBeMadeIsNamedWithTheReason) {
  class Refusing : public FaultyFileManager {
   public:
    using FaultyFileManager::FaultyFileManager;
    using FaultyFileManager::Open;
    File* Open(Zeph_PathType, const char*, int) override {
      Error("Permission denied");
      return nullptr;
    }
  } refusing(&application);
  application.SetFileManager(&refusing);
  EXPECT_FALSE(index.Create(ZephPath_Data, "i.zix", KeyBytes("key"), 0));
  EXPECT_EQ("Error creating 'i.zix': Permission denied", ErrorText(index));
}

TEST_F(ZIXIndexFileTest, AFileThatWasGivenStaysTheCallersAfterAFailure) {
  std::unique_ptr<File> file(files.Open("i.zix", 15));
  files.fail_write = 1;
  EXPECT_FALSE(index.Create(file.get(), "i.zix", KeyBytes("key"), 0));
  EXPECT_EQ(1, files.open_now);
  EXPECT_TRUE(index.Create(file.get(), "i.zix", KeyBytes("key"), 0));
  (void)file.release();
  EXPECT_TRUE(index.Close());
  EXPECT_EQ(0, files.open_now);
}

TEST_F(ZIXIndexFileTest, OpeningAgainClosesWhatWasOpen) {
  Create();
  Open(index);
  Open(index);
  EXPECT_EQ(1, files.open_now);
  EXPECT_FALSE(index.Open(ZephPath_Data, "none.zix", 3));
  EXPECT_EQ(0, files.open_now);
}

TEST_F(ZIXIndexFileTest, OperationsOnAClosedIndexFailQuietly) {
  Create();
  InsertLetters(3);
  EXPECT_EQ(1u, First(index));
  EXPECT_TRUE(index.Close());
  EXPECT_TRUE(index.Close());
  EXPECT_EQ(0u, First(index));
  EXPECT_EQ(0u, Last(index));
  EXPECT_EQ(0u, Next(index));
  EXPECT_EQ(0u, Prev(index));
  EXPECT_FALSE(Find(index, "a").good);
  EXPECT_FALSE(index._Seek(KeyBytes("a"), 1, 1, 1));
  EXPECT_FALSE(Insert(index, "a", 1));
  EXPECT_FALSE(Delete(index, "a", 1));
  EXPECT_FALSE(index.Delete_Current(1));
  EXPECT_EQ("Internal error opening 'i.zix'", ErrorText(index));
  index.Deactivate();
}

TEST_F(ZIXIndexFileTest, DeactivateGoesThroughTheManager) {
  Create();
  index.Deactivate();
  EXPECT_EQ(1, files.deactivations);
}

TEST_F(ZIXIndexFileTest, SettersChangeTheHeaderInMemoryOnly) {
  Create();
  const std::string before = bytes();
  index.SetIdentifier("ABCD");
  index.SetVersion(200);
  index.SetUpdatecount(0xF0000001u);
  index.SetNumpages(77);
  index.SetStartingpage(66);
  index.SetOrder(9);
  index.SetPagesize(2048);
  index.SetKeyrecordsize(58);
  EXPECT_EQ(50, index.keysize());
  index.SetKeysize(60);
  EXPECT_EQ("ABCD", index.identifier());
  EXPECT_EQ(200u, index.version());
  EXPECT_EQ(0xF0000001u, index.updatecount());
  EXPECT_EQ(77u, index.numpages());
  EXPECT_EQ(66u, index.startingpage());
  EXPECT_EQ(9, index.order());
  EXPECT_EQ(2048, index.pagesize());
  EXPECT_EQ(68, index.keyrecordsize());
  EXPECT_EQ(before, bytes());
  EXPECT_EQ(0u, First(index));
  EXPECT_EQ("ZIXI", index.identifier());
}

// --- An empty index ------------------------------------------------------------------------------

TEST_F(ZIXIndexFileTest, AnEmptyRootHasNoEntryToGoTo) {
  Create();
  EXPECT_EQ(0u, First(index));
  EXPECT_EQ(0u, Next(index));
  EXPECT_EQ(0u, Prev(index));
  EXPECT_EQ(0u, Last(index));
  EXPECT_EQ(0u, Next(index));
  EXPECT_EQ(0u, Prev(index));
  EXPECT_EQ((ZIXIndexFound{true, 0, 0}), Find(index, "a"));
  EXPECT_EQ((ZIXIndexFound{true, 0, 0}), Find(index, "a", 0));
  EXPECT_EQ(0u, Next(index));
  EXPECT_EQ(0u, Prev(index));
  EXPECT_FALSE(index._Seek(KeyBytes("a"), 1, 1, 1));
}

TEST_F(ZIXIndexFileTest, ACursorOfAnEmptyRootStaysNowhereWhenOthersInsert) {
  Create();
  ZIXIndexFile other(&application);
  Open(other);
  EXPECT_EQ(0u, First(index));
  ASSERT_TRUE(Insert(other, "a", 1));
  EXPECT_EQ(0u, Next(index));
  EXPECT_EQ(0u, Prev(index));
  EXPECT_EQ(1u, First(index));
}

// --- Insertion -----------------------------------------------------------------------------------

TEST_F(ZIXIndexFileTest, EntriesLieInThePageAsTheFormatSays) {
  Create();
  ASSERT_TRUE(Insert(index, "pear", 7));
  ASSERT_TRUE(Insert(index, "apple", 0x01020304));
  const ZIXIndexShape shape;
  std::string expected = ZIXIndexHeaderBytes(shape, 2, 2, 1, "key");
  expected.resize(1024);
  expected += std::string(
      "\2\0\0\0"
      "\0\0\0\0"
      "\4\3\2\1"
      "apple",
      17);
  expected.resize(1024 + 4 + 108);
  expected += std::string(
      "\0\0\0\0"
      "\7\0\0\0"
      "pear",
      12);
  expected.resize(2048);
  EXPECT_EQ(expected, bytes());
}

TEST_F(ZIXIndexFileTest, EightEntriesFillTheRootAndTheNinthSplitsIt) {
  Create(ZIXIndex_Text);
  InsertLetters(8);
  EXPECT_EQ(2u, index.numpages());
  EXPECT_EQ(2048u, bytes().size());
  ASSERT_TRUE(Insert(index, "i", 9));
  ZIXIndexShape shape;
  shape.flags = ZIXIndex_Text;
  std::string expected = ZIXIndexHeaderBytes(shape, 9, 4, 3, "key");
  EXPECT_EQ(expected, bytes().substr(0, 427));
  ZIXIndexChecker checker(bytes());
  ASSERT_EQ("", checker.Check());
  EXPECT_EQ(4u, checker.numpages());
  EXPECT_EQ(2, checker.depth);
  EXPECT_EQ(ZIXIndexPageBytes(shape, {{"e", 5}}, {1, 2}), bytes().substr(3 * 1024));
  EXPECT_EQ(ZIXIndexPageBytes(shape, {{"f", 6}, {"g", 7}, {"h", 8}, {"i", 9}}),
            bytes().substr(2 * 1024, 1024));
  // The bytes that the left page had after its fourth entry stay there.
  EXPECT_EQ(ZIXIndexPageBytes(shape, {{"a", 1}, {"b", 2}, {"c", 3}, {"d", 4}}).substr(4, 432),
            bytes().substr(1024 + 4, 432));
  EXPECT_EQ(4u, checker.Count(1));
}

TEST_F(ZIXIndexFileTest, ASplitTakesTheNewEntryWhereverItFalls) {
  for (int missing = 0; missing < 9; missing++) {
    SCOPED_TRACE(missing);
    Create(ZIXIndex_Text);
    for (int i = 0; i < 9; i++)
      if (i != missing) {
        ASSERT_TRUE(Insert(index, std::string(1, static_cast<char>('a' + i)),
                           static_cast<unsigned>(i + 1)));
      }
    ASSERT_TRUE(Insert(index, std::string(1, static_cast<char>('a' + missing)),
                       static_cast<unsigned>(missing + 1)));
    ZIXIndexChecker checker(bytes());
    ASSERT_EQ("", checker.Check());
    EXPECT_EQ("e", checker.Key(3, 0));
    EXPECT_EQ(4u, checker.Count(1));
    EXPECT_EQ(4u, checker.Count(2));
    EXPECT_EQ((Records{1, 2, 3, 4, 5, 6, 7, 8, 9}), Forward(index));
  }
}

TEST_F(ZIXIndexFileTest, UpdatecountRisesByOneWithEachChange) {
  Create();
  InsertLetters(20);
  EXPECT_EQ(20u, index.updatecount());
  EXPECT_EQ(20u, ZIXIndexChecker(bytes()).updatecount());
  ASSERT_TRUE(Delete(index, "c", 3));
  EXPECT_EQ(21u, ZIXIndexChecker(bytes()).updatecount());
}

TEST_F(ZIXIndexFileTest, EqualKeysStandInFrontOfThoseThatWereThere) {
  Create();
  for (unsigned record = 1; record <= 40; record++) ASSERT_TRUE(Insert(index, "same", record));
  Records expected(40);
  std::iota(expected.rbegin(), expected.rend(), 1u);
  EXPECT_EQ(expected, Forward(index));
  EXPECT_EQ("", Check());
}

TEST_F(ZIXIndexFileTest, SeekFindsEachOfEqualKeysByItsRecord) {
  Create();
  for (unsigned record = 1; record <= 40; record++) ASSERT_TRUE(Insert(index, "same", record));
  ASSERT_TRUE(Insert(index, "later", 41));
  ASSERT_TRUE(Insert(index, "tail", 42));
  for (unsigned record = 1; record <= 40; record++) {
    SCOPED_TRACE(record);
    EXPECT_TRUE(index._Seek(KeyBytes("same"), 4, record, 1));
    EXPECT_EQ(record == 1 ? 42 : record - 1, Next(index));
  }
  EXPECT_FALSE(index._Seek(KeyBytes("same"), 4, 41, 1));
  EXPECT_FALSE(index._Seek(KeyBytes("none"), 4, 1, 1));
  EXPECT_FALSE(index._Seek(KeyBytes("same"), 4, 0, 1));
}

TEST_F(ZIXIndexFileTest, SeekGoesOnAfterTheEqualKeys) {
  Create();
  InsertLetters(12);
  EXPECT_TRUE(index._Seek(KeyBytes("b"), 1, 9, 1));
  EXPECT_EQ(10u, Next(index));
}

TEST_F(ZIXIndexFileTest, AKeyIsStoredUpTo99Bytes) {
  Create(ZIXIndex_Text | ZIXIndex_Unique);
  const std::string start(99, 'k');
  ASSERT_TRUE(Insert(index, start + std::string(21, 'x'), 1));
  ASSERT_EQ(1u, Entries().size());
  EXPECT_EQ(start, Entries()[0].first);
  EXPECT_FALSE(Insert(index, start + std::string(21, 'y'), 2));
  EXPECT_EQ("Index 'i.zix' was created with the UNIQUE flag and the key '" + start +
                "' already exists in the index file",
            ErrorText(index));
  EXPECT_EQ((ZIXIndexFound{true, 1, 1}), Find(index, start + "zzz"));
  EXPECT_TRUE(Delete(index, start + "other", 1));
}

TEST_F(ZIXIndexFileTest, AUniqueIndexRefusesEqualNumbersAndStaysAsItWas) {
  Create(ZIXIndex_Unique);
  ASSERT_TRUE(Insert(index, "1.0", 1));
  const std::string before = bytes();
  EXPECT_FALSE(Insert(index, "1", 2));
  EXPECT_EQ(
      "Index 'i.zix' was created with the UNIQUE flag and the key '1' already exists in the index "
      "file",
      ErrorText(index));
  EXPECT_EQ(before, bytes());
}

TEST_F(ZIXIndexFileTest, AUniqueIndexRefusesAKeyOnAnyLevel) {
  Create(ZIXIndex_Unique | ZIXIndex_Text);
  InsertLetters(26);
  for (char c = 'a'; c <= 'z'; c++) EXPECT_FALSE(Insert(index, std::string(1, c), 99)) << c;
  EXPECT_EQ(26u, Entries().size());
}

TEST_F(ZIXIndexFileTest, RecordNumber0IsNotIndexed) {
  Create();
  EXPECT_FALSE(Insert(index, "a", 0));
  EXPECT_EQ("Invalid record number", ErrorText(index));
  EXPECT_TRUE(Entries().empty());
}

TEST_F(ZIXIndexFileTest, AnEmptyKeyIsAKey) {
  Create(ZIXIndex_Text);
  ASSERT_TRUE(Insert(index, "b", 2));
  ASSERT_TRUE(index.Insert(1, nullptr, 0));
  EXPECT_EQ((Records{1, 2}), Forward(index));
  EXPECT_EQ((ZIXIndexFound{true, 1, 1}), Find(index, ""));
}

// --- Order ---------------------------------------------------------------------------------------

TEST_F(ZIXIndexFileTest, NumbersStandByValueAndTextsByBytes) {
  const std::vector<std::string> keys = {"10", "9.5", "-3", "100", "0.5", "2"};
  const struct {
    unsigned flags;
    Records expected;
  } cases[] = {{0, {3, 5, 6, 2, 1, 4}},
               {ZIXIndex_Descending, {4, 1, 2, 6, 5, 3}},
               {ZIXIndex_Text, {3, 5, 1, 4, 6, 2}},
               {ZIXIndex_Text | ZIXIndex_Descending, {2, 6, 4, 1, 5, 3}}};
  for (const auto& row : cases) {
    SCOPED_TRACE(row.flags);
    Create(row.flags);
    for (size_t i = 0; i < keys.size(); i++)
      ASSERT_TRUE(Insert(index, keys[i], static_cast<unsigned>(i + 1)));
    EXPECT_EQ(row.expected, Forward(index));
    Records backward = row.expected;
    std::reverse(backward.begin(), backward.end());
    EXPECT_EQ(backward, Backward(index));
  }
}

TEST_F(ZIXIndexFileTest, ADescendingIndexBeginsWithTheGreatestKey) {
  Create(ZIXIndex_Descending);
  InsertLetters(26);
  EXPECT_EQ(26u, First(index));
  EXPECT_EQ(1u, Last(index));
}

// "9" < "10" as numbers, "10" < "5a" and "5a" < "9" as bytes: each key goes where its comparisons
// lead, and a search may miss one that is there. A deletion therefore looks after the key as well.
TEST_F(ZIXIndexFileTest, NumbersAndTextsMixedMakeAnOrderWithARing) {
  Create();
  ASSERT_TRUE(Insert(index, "10", 1));
  ASSERT_TRUE(Insert(index, "5a", 2));
  ASSERT_TRUE(Insert(index, "9", 3));
  EXPECT_EQ((Records{3, 1, 2}), Forward(index));
  EXPECT_EQ((ZIXIndexFound{true, 0, 0}), Find(index, "5a"));
  EXPECT_TRUE(Delete(index, "5a", 2));
  EXPECT_EQ((Records{3, 1}), Forward(index));
}

// --- Searches ------------------------------------------------------------------------------------

TEST_F(ZIXIndexFileTest, FindAnswersTheEntryOrTheOneInFrontOfItsPlace) {
  Create(ZIXIndex_Text);
  for (unsigned i = 1; i <= 60; i++) {
    char key[8];
    snprintf(key, sizeof key, "k%03u", 2 * i);
    ASSERT_TRUE(Insert(index, key, i));
  }
  for (unsigned i = 1; i <= 60; i++) {
    char key[8];
    snprintf(key, sizeof key, "k%03u", 2 * i);
    EXPECT_EQ((ZIXIndexFound{true, 1, i}), Find(index, key)) << key;
    snprintf(key, sizeof key, "k%03u", 2 * i + 1);
    EXPECT_EQ((ZIXIndexFound{true, 0, i}), Find(index, key)) << key;
  }
  EXPECT_EQ((ZIXIndexFound{true, 0, 0}), Find(index, "a"));
  EXPECT_EQ((ZIXIndexFound{true, 0, 60}), Find(index, "z"));
}

TEST_F(ZIXIndexFileTest, FindAnswersTheFirstOfEqualKeys) {
  for (unsigned flags : {0u, unsigned{ZIXIndex_Descending}}) {
    Create(flags | ZIXIndex_Text);
    for (unsigned record = 1; record <= 30; record++) {
      ASSERT_TRUE(Insert(index, "b", record));
      ASSERT_TRUE(Insert(index, "a", record + 100));
      ASSERT_TRUE(Insert(index, "c", record + 200));
    }
    EXPECT_EQ((ZIXIndexFound{true, 1, 30}), Find(index, "b"));
    EXPECT_EQ(29u, Next(index));
    EXPECT_EQ((ZIXIndexFound{true, 1, 130}), Find(index, "a"));
    EXPECT_EQ((ZIXIndexFound{true, 1, 230}), Find(index, "c"));
  }
}

TEST_F(ZIXIndexFileTest, APrefixFindsTheFirstKeyThatBeginsWithIt) {
  for (unsigned flags : {unsigned{ZIXIndex_Text}, 0u, unsigned{ZIXIndex_Unique}}) {
    SCOPED_TRACE(flags);
    Create(flags);
    for (unsigned i = 0; i < 100; i++) {
      char key[8];
      snprintf(key, sizeof key, "k%02u", i);
      ASSERT_TRUE(Insert(index, key, i + 1));
    }
    EXPECT_EQ((ZIXIndexFound{true, 1, 1}), Find(index, "", 0));
    EXPECT_EQ((ZIXIndexFound{true, 1, 1}), Find(index, "k", 0));
    EXPECT_EQ((ZIXIndexFound{true, 1, 31}), Find(index, "k3", 0));
    EXPECT_EQ((ZIXIndexFound{true, 1, 36}), Find(index, "k35", 0));
    EXPECT_EQ((ZIXIndexFound{true, 0, 36}), Find(index, "k35x", 0));
    EXPECT_EQ((ZIXIndexFound{true, 0, 100}), Find(index, "l", 0));
    EXPECT_EQ((ZIXIndexFound{true, 0, 36}), Find(index, "k35x", 1));
  }
}

TEST_F(ZIXIndexFileTest, APrefixOfNumbersIsOneOfBytes) {
  Create();
  for (unsigned i : {100u, 2u, 10u}) ASSERT_TRUE(Insert(index, std::to_string(i), i));
  EXPECT_EQ((ZIXIndexFound{true, 0, 0}), Find(index, "1", 0));
  EXPECT_EQ((ZIXIndexFound{true, 1, 2}), Find(index, "2", 0));
}

TEST_F(ZIXIndexFileTest, AfterAHitTheCursorIsOnTheEntry) {
  Create(ZIXIndex_Text);
  InsertLetters(26);
  for (unsigned i = 0; i < 26; i++) {
    const std::string key(1, static_cast<char>('a' + i));
    ASSERT_EQ((ZIXIndexFound{true, 1, i + 1}), Find(index, key));
    EXPECT_EQ(i == 25 ? 0 : i + 2, Next(index)) << key;
    ASSERT_EQ((ZIXIndexFound{true, 1, i + 1}), Find(index, key));
    EXPECT_EQ(i, Prev(index)) << key;
  }
}

// After a miss the cursor is not on the record that Find returned. It is on the first entry after
// the key in the same page; if no entry is before the key, it is on the first entry of all.
TEST_F(ZIXIndexFileTest, AfterAMissTheCursorIsAfterTheKeysPlace) {
  Create(ZIXIndex_Text);
  InsertLetters(6);
  ASSERT_EQ((ZIXIndexFound{true, 0, 2}), Find(index, "bb"));
  EXPECT_EQ(4u, Next(index));
  ASSERT_EQ((ZIXIndexFound{true, 0, 2}), Find(index, "bb"));
  EXPECT_EQ(2u, Prev(index));
  ASSERT_EQ((ZIXIndexFound{true, 0, 0}), Find(index, "A"));
  EXPECT_EQ(2u, Next(index));
  ASSERT_EQ((ZIXIndexFound{true, 0, 0}), Find(index, "A"));
  EXPECT_EQ(0u, Prev(index));
}

TEST_F(ZIXIndexFileTest, AMissInADeepTreeStaysInThePageOfTheEntryInFront) {
  Create(ZIXIndex_Text);
  InsertLetters(9);  // root "e", leaves "a" to "d" and "f" to "i"
  ASSERT_EQ((ZIXIndexFound{true, 0, 5}), Find(index, "ee"));
  // The cursor is in the root, after its only entry.
  EXPECT_EQ(0u, Next(index));
  ASSERT_EQ((ZIXIndexFound{true, 0, 5}), Find(index, "ee"));
  EXPECT_EQ(0u, Prev(index));
  ASSERT_EQ((ZIXIndexFound{true, 0, 4}), Find(index, "dd"));
  EXPECT_EQ(0u, Next(index));
}

TEST_F(ZIXIndexFileTest, AfterTheLastKeyThereIsNothingToStepFrom) {
  Create(ZIXIndex_Text);
  InsertLetters(5);
  ASSERT_EQ((ZIXIndexFound{true, 0, 5}), Find(index, "z"));
  EXPECT_EQ(0u, Next(index));
  EXPECT_EQ(0u, Next(index));
  ASSERT_EQ((ZIXIndexFound{true, 0, 5}), Find(index, "z"));
  EXPECT_EQ(0u, Prev(index));
  // The same when another object has written in between.
  ZIXIndexFile other(&application);
  Open(other);
  ASSERT_EQ((ZIXIndexFound{true, 0, 5}), Find(index, "z"));
  ASSERT_TRUE(Insert(other, "y", 9));
  EXPECT_EQ(0u, Next(index));
}

// --- Steps ---------------------------------------------------------------------------------------

TEST_F(ZIXIndexFileTest, StepsWalkAllLevelsBothWays) {
  Create(ZIXIndex_Text);
  Records expected;
  for (unsigned i = 1; i <= 700; i++) {
    char key[8];
    snprintf(key, sizeof key, "%05u", i);
    ASSERT_TRUE(Insert(index, key, i));
    expected.push_back(i);
  }
  ZIXIndexChecker checker(bytes());
  ASSERT_EQ("", checker.Check());
  EXPECT_GE(checker.depth, 4);
  EXPECT_EQ(expected, Forward(index));
  EXPECT_EQ(0u, Next(index));
  EXPECT_EQ(0u, Prev(index));
  std::reverse(expected.begin(), expected.end());
  EXPECT_EQ(expected, Backward(index));
  EXPECT_EQ(0u, Prev(index));
  EXPECT_EQ(0u, Next(index));
}

TEST_F(ZIXIndexFileTest, NextHandsOutTheKey) {
  Create(ZIXIndex_Text);
  InsertLetters(20);
  ASSERT_EQ(1u, First(index));
  unsigned record = 0;
  const unsigned char* key = nullptr;
  for (unsigned i = 2; i <= 20; i++) {
    ASSERT_TRUE(index._Next(&record, &key, 1));
    EXPECT_EQ(i, record);
    EXPECT_STREQ(std::string(1, static_cast<char>('a' + i - 1)).c_str(),
                 reinterpret_cast<const char*>(key));
  }
  const unsigned char* const before = key;
  ASSERT_TRUE(index._Next(&record, &key, 1));
  EXPECT_EQ(0u, record);
  EXPECT_EQ(before, key);
}

TEST_F(ZIXIndexFileTest, TheCursorsKeyIsThatOfItsEntry) {
  Create(ZIXIndex_Text);
  EXPECT_EQ(nullptr, index.current_key());
  ASSERT_EQ(0u, First(index));
  EXPECT_EQ(nullptr, index.current_key());
  InsertLetters(20);
  ASSERT_EQ(1u, First(index));
  EXPECT_STREQ("a", reinterpret_cast<const char*>(index.current_key()));
  ASSERT_EQ(20u, Last(index));
  EXPECT_STREQ("t", reinterpret_cast<const char*>(index.current_key()));
  ASSERT_EQ(0u, Next(index));
  EXPECT_EQ(nullptr, index.current_key());
}

TEST_F(ZIXIndexFileTest, ForwardAndBackwardMeetTheSameEntries) {
  Create(ZIXIndex_Text);
  InsertLetters(26);
  for (unsigned at = 2; at < 26; at++) {
    ASSERT_EQ(1u, First(index));
    for (unsigned i = 2; i <= at; i++) ASSERT_EQ(i, Next(index));
    EXPECT_EQ(at - 1, Prev(index));
    EXPECT_EQ(at, Next(index));
    EXPECT_EQ(at + 1, Next(index));
    EXPECT_EQ(at, Prev(index));
  }
}

// --- Locks ---------------------------------------------------------------------------------------

TEST_F(ZIXIndexFileTest, EachOperationLocksTheHeaderForItsDuration) {
  Create();
  InsertLetters(9);
  const std::string shared = "lock i.zix 0 427 shared";
  const std::string exclusive = "lock i.zix 0 427 exclusive";
  const std::string release = "release i.zix 0 427";
  using Log = std::vector<std::string>;
  const auto log = [&] {
    Log taken;
    taken.swap(files.lock_log);
    return taken;
  };
  log();
  (void)First(index);
  EXPECT_EQ((Log{shared, release}), log());
  (void)Next(index);
  EXPECT_EQ((Log{shared, release}), log());
  (void)Prev(index);
  EXPECT_EQ((Log{shared, release}), log());
  (void)Last(index);
  EXPECT_EQ((Log{shared, release}), log());
  (void)Find(index, "c");
  EXPECT_EQ((Log{shared, release}), log());
  EXPECT_TRUE(Insert(index, "x", 1));
  EXPECT_EQ((Log{exclusive, release}), log());
  (void)Prev(index);
  EXPECT_EQ((Log{shared, release}), log()) << "finding the place again takes no lock of its own";
  EXPECT_TRUE(Delete(index, "x", 1));
  EXPECT_EQ((Log{exclusive, release}), log());
  ASSERT_TRUE(index._Seek(KeyBytes("a"), 1, 2, 1));
  EXPECT_EQ((Log{shared, release, shared, release}), log());
  EXPECT_TRUE(index.Delete_Current(2));
  EXPECT_EQ((Log{exclusive, release}), log());
  unsigned record;
  int found;
  EXPECT_TRUE(index._First(&record, 0));
  EXPECT_TRUE(index._Next(&record, nullptr, 0));
  EXPECT_TRUE(index._Prev(&record, 0));
  EXPECT_TRUE(index._Last(&record, 0));
  EXPECT_TRUE(index._Find(KeyBytes("a"), 1, 1, &record, &found, 0));
  EXPECT_TRUE(index._Seek(KeyBytes("a"), 1, 3, 0));
  EXPECT_EQ(Log{}, log());
}

TEST_F(ZIXIndexFileTest, AStepWithoutALockLooksLikeTheEnd) {
  Create();
  InsertLetters(3);
  const struct {
    const char* label;
    unsigned (*step)(ZIXIndexFile&);
  } cases[] = {{"_First", First}, {"_Next", Next}, {"_Prev", Prev}, {"_Last", Last}};
  for (const auto& row : cases) {
    SCOPED_TRACE(row.label);
    ASSERT_EQ(2u, (First(index), Next(index)));
    files.fail_lock = 1;
    EXPECT_EQ(0u, row.step(index));
    EXPECT_EQ("Error locking 'i.zix' for read", ErrorText(index));
  }
}

TEST_F(ZIXIndexFileTest, SearchesAndChangesWithoutALockFail) {
  Create();
  InsertLetters(3);
  files.fail_lock = 1;
  EXPECT_EQ((ZIXIndexFound{false, 0, 0}), Find(index, "a"));
  EXPECT_EQ("Error locking 'i.zix' for read", ErrorText(index));
  files.fail_lock = 1;
  EXPECT_FALSE(index._Seek(KeyBytes("a"), 1, 1, 1));
  files.fail_lock = 1;
  EXPECT_FALSE(Insert(index, "x", 9));
  EXPECT_EQ("Error locking 'i.zix' for write", ErrorText(index));
  index.Close();
  Open(index);
  files.fail_lock = 1;
  EXPECT_FALSE(Delete(index, "a", 1));
  EXPECT_EQ("Error locking 'i.zix' for write", ErrorText(index));
  ASSERT_EQ(1u, First(index));
  files.fail_lock = 1;
  EXPECT_FALSE(index.Delete_Current(1));
  EXPECT_EQ("Error locking 'i.zix' for write", ErrorText(index));
  EXPECT_EQ(3u, Entries().size());
}

TEST_F(ZIXIndexFileTest, AHeaderThatCannotBeReadEndsAStepAndFailsASearch) {
  Create();
  InsertLetters(3);
  const struct {
    const char* label;
    unsigned (*step)(ZIXIndexFile&);
  } cases[] = {{"_First", First}, {"_Next", Next}, {"_Prev", Prev}, {"_Last", Last}};
  for (const auto& row : cases) {
    SCOPED_TRACE(row.label);
    ASSERT_EQ(1u, First(index));
    files.fail_read = 1;
    EXPECT_EQ(0u, row.step(index));
    EXPECT_EQ("Error reading from 'i.zix': Injected failure", ErrorText(index));
  }
  files.fail_read = 1;
  EXPECT_EQ((ZIXIndexFound{false, 0, 0}), Find(index, "a"));
  files.fail_read = 1;
  EXPECT_FALSE(Insert(index, "x", 9));
  files.fail_read = 1;
  EXPECT_FALSE(Delete(index, "a", 1));
  files.fail_seek = 1;
  EXPECT_FALSE(Delete(index, "a", 1));
  EXPECT_EQ(3u, Entries().size());
  EXPECT_TRUE(files.held.empty());
}

TEST_F(ZIXIndexFileTest, APageThatCannotBeReadFailsTheOperation) {
  Create(ZIXIndex_Text);
  InsertLetters(9);
  const struct {
    const char* label;
    unsigned (*step)(ZIXIndexFile&);
  } cases[] = {{"_First", First}, {"_Last", Last}};
  for (const auto& row : cases) {
    for (int page = 2; page <= 3; page++) {
      SCOPED_TRACE(row.label);
      files.fail_read = page;
      EXPECT_EQ(99999u, row.step(index));
      EXPECT_EQ("Error reading from 'i.zix': Injected failure", ErrorText(index));
      EXPECT_EQ(0u, Next(index)) << "the cursor is nowhere";
    }
  }
  ASSERT_EQ((ZIXIndexFound{true, 1, 5}), Find(index, "e"));
  files.fail_read = 2;
  EXPECT_EQ(99999u, Next(index));
  ASSERT_EQ((ZIXIndexFound{true, 1, 5}), Find(index, "e"));
  files.fail_read = 2;
  EXPECT_EQ(99999u, Prev(index));
  files.fail_read = 3;
  EXPECT_EQ((ZIXIndexFound{false, 0, 0}), Find(index, "a"));
  files.fail_read = 3;
  EXPECT_FALSE(Insert(index, "aa", 9));
  files.fail_read = 3;
  EXPECT_FALSE(Delete(index, "a", 1));
  EXPECT_TRUE(files.held.empty()) << "every early exit releases";
}

}  // namespace
