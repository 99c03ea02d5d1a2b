#include "base/database/XBaseMemoField.h"

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/TableFiles.h"

namespace {

const std::vector<Column> kMemoTable = {{"ID", XBaseField_Numeric, 4, 0},
                                        {"NOTE", XBaseField_Memo, 10, 0}};

class XBaseMemoFieldTest : public TableFiles {
 protected:
  void SetUp() override { Create(table, kMemoTable); }

  void Append(const std::string& memo) {
    ASSERT_TRUE(AppendRow(table, {"1", memo})) << ErrorOf(table);
  }
  // The memo of a record, as read by an object that has just opened the table.
  std::string Reread(int record) {
    XBaseTable reader(&application);
    EXPECT_TRUE(reader.Open(ZephPath_Data, "t.dbf", -1, kOpenTable)) << ErrorOf(reader);
    EXPECT_TRUE(reader.Goto(record)) << ErrorOf(reader);
    return ValueOf(reader, 1);
  }
  std::string NumberOf(int record) {
    return Table().substr(static_cast<size_t>(97 + (record - 1) * 15 + 5), 10);
  }
  XBaseField* memo() { return FieldOf(table, 1); }

  XBaseTable table{&application};
};

TEST_F(XBaseMemoFieldTest, TheFirstMemoGoesOverTheMarkAtBlockOne) {
  Append("hello");
  EXPECT_EQ(NumberOf(1), "         1");
  EXPECT_EQ(Memos(), MemoHeader(2) + "hello\x1a\x1a");
  EXPECT_EQ(table.next_memo_block(), 2);
}

TEST_F(XBaseMemoFieldTest, AMemoTakesWholeBlocksWithBothEndMarks) {
  const struct {
    size_t length;
    int blocks;
  } cases[] = {{1, 1}, {510, 1}, {511, 2}, {512, 2}, {1022, 2}, {1023, 3}};
  int next = 1;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.length);
    const std::string text(c.length, 'x');
    Append(text);
    EXPECT_EQ(std::stoi(NumberOf(table.record_number())), next);
    next += c.blocks;
    EXPECT_EQ(table.next_memo_block(), next);
    EXPECT_EQ(Reread(table.record_number()), text);
  }
}

TEST_F(XBaseMemoFieldTest, TheLastBlockIsNotPadded) {
  Append(std::string(600, 'x'));
  EXPECT_EQ(Memos().size(), 512u + 602u);
  Append("y");
  EXPECT_EQ(Memos().size(), 512u + 1024u + 3u);
}

TEST_F(XBaseMemoFieldTest, LongMemosComeBackWhateverEachReadGives) {
  std::string text;
  for (int i = 0; text.size() < 100000; i++) text += std::to_string(i) + " ";
  Append(text);
  for (int limit : {0, 7, 511, 512, 513, 4000}) {
    SCOPED_TRACE(limit);
    files.read_limit = limit;
    EXPECT_EQ(Reread(1), text);
  }
}

TEST_F(XBaseMemoFieldTest, IsReadOnlyWhenItIsAskedFor) {
  Append("hello");
  XBaseTable reader(&application);
  Open(reader);
  files.ResetCounts();
  ASSERT_TRUE(reader.Goto(1));
  EXPECT_EQ(files.reads, 1);
  EXPECT_EQ(ValueOf(reader, 1), "hello");
  const int reads = files.reads;
  EXPECT_EQ(ValueOf(reader, 1), "hello");
  EXPECT_EQ(files.reads, reads);
}

TEST_F(XBaseMemoFieldTest, ASetMemoIsInNoFileYet) {
  const std::string before = Memos();
  memo()->Set("hello", 5);
  EXPECT_STREQ(memo()->data(), "hello");
  EXPECT_EQ(Memos(), before);
}

TEST_F(XBaseMemoFieldTest, AnUnchangedMemoKeepsItsBlock) {
  Append("hello");
  ASSERT_TRUE(table.Goto(1));
  SetField(table, 0, "7");
  ASSERT_TRUE(table.Update());
  EXPECT_EQ(NumberOf(1), "         1");
  EXPECT_EQ(table.next_memo_block(), 2);
}

TEST_F(XBaseMemoFieldTest, AChangedMemoTakesNewBlocksAndLeavesTheOldOnes) {
  Append("first");
  ASSERT_TRUE(table.Goto(1));
  SetField(table, 1, "second");
  ASSERT_TRUE(table.Update());
  EXPECT_EQ(NumberOf(1), "         2");
  EXPECT_EQ(Reread(1), "second");
  EXPECT_EQ(Memos().substr(512, 7), "first\x1a\x1a");
}

TEST_F(XBaseMemoFieldTest, AWrittenMemoIsWrittenOnce) {
  Append("first");
  ASSERT_TRUE(table.Update());
  ASSERT_TRUE(table.Update());
  EXPECT_EQ(NumberOf(1), "         1");
  EXPECT_EQ(table.next_memo_block(), 2);
}

TEST_F(XBaseMemoFieldTest, AnEmptyMemoClearsTheNumberAndLeavesTheBlocks) {
  Append("hello");
  ASSERT_TRUE(table.Goto(1));
  SetField(table, 1, "");
  ASSERT_TRUE(table.Update());
  EXPECT_EQ(NumberOf(1), "          ");
  EXPECT_STREQ(memo()->data(), "");
  EXPECT_EQ(Reread(1), "");
  EXPECT_EQ(Memos(), MemoHeader(2) + "hello\x1a\x1a");
}

TEST_F(XBaseMemoFieldTest, AnEndMarkInsideCutsItForReaders) {
  Append("before\x1a after");
  EXPECT_EQ(Reread(1), "before");
}

TEST_F(XBaseMemoFieldTest, ANulEndsItAtWriting) {
  Append(std::string("before\0after", 12));
  EXPECT_EQ(Memos().substr(512), "before\x1a\x1a");
}

TEST_F(XBaseMemoFieldTest, ANumberThatIsNoneMeansNoMemo) {
  for (const char* number : {"          ", "         0", "abc       ", "+", "-0"}) {
    SCOPED_TRACE(number);
    std::string bytes(number);
    bytes.resize(10, ' ');
    memo()->Read(reinterpret_cast<unsigned char*>(bytes.data()));
    EXPECT_STREQ(memo()->data(), "");
  }
}

TEST_F(XBaseMemoFieldTest, ANumberOutsideOfAnyFileIsAReadError) {
  Append("hello");
  for (const char* number :
       {"-1        ", "4194304   ", "2147483648", "9999999999", "-999999999"}) {
    SCOPED_TRACE(number);
    std::string bytes(number);
    memo()->Read(reinterpret_cast<unsigned char*>(bytes.data()));
    table.Error("");
    EXPECT_EQ(memo()->data(), nullptr);
    EXPECT_EQ(ErrorOf(table), "Error reading from 't.dbt': ");
  }
}

TEST_F(XBaseMemoFieldTest, AFailedReadIsTriedAgainByTheNextCall) {
  Append("hello");
  ASSERT_TRUE(table.Goto(1));
  files.fail_read = 1;
  EXPECT_EQ(memo()->data(), nullptr);
  EXPECT_EQ(ErrorOf(table), "Error reading from 't.dbt': Injected failure");
  EXPECT_STREQ(memo()->data(), "hello");
}

TEST_F(XBaseMemoFieldTest, TheEndOfTheFileEndsAMemoToo) {
  Append("hello");
  Memos().resize(515);
  EXPECT_EQ(Reread(1), "hel");
  Memos().resize(512);
  EXPECT_EQ(Reread(1), "");
}

TEST_F(XBaseMemoFieldTest, AnotherRecordForgetsTheMemoThatWasSet) {
  Append("one");
  Append("two");
  ASSERT_TRUE(table.Goto(1));
  memo()->Set("changed", 7);
  ASSERT_TRUE(table.Goto(2));
  EXPECT_STREQ(memo()->data(), "two");
  ASSERT_TRUE(table.Update());
  EXPECT_EQ(Reread(2), "two");
  EXPECT_EQ(Reread(1), "one");
}

TEST_F(XBaseMemoFieldTest, AFailedWriteLeavesBytesAndNumberAndIsTriedAgain) {
  Append("hello");
  ASSERT_TRUE(table.Goto(1));
  memo()->Set("changed", 7);
  unsigned char bytes[10];
  memset(bytes, '#', sizeof bytes);
  files.fail_write = 1;
  EXPECT_FALSE(memo()->Write(bytes));
  EXPECT_EQ(std::string(bytes, bytes + 10), "##########");
  EXPECT_TRUE(memo()->Write(bytes));
  EXPECT_EQ(std::string(bytes, bytes + 10), "         2");
}

// Cut to one digit, the number 10 would be that of the first memo.
TEST_F(XBaseMemoFieldTest, ANumberThatIsTooLongForTheFieldIsAFailedWrite) {
  Create(table, {{"ID", XBaseField_Numeric, 4, 0}, {"NOTE", XBaseField_Memo, 1, 0}});
  Memos().replace(0, 4, std::string("\x09\0\0\0", 4));
  memo()->Set("a", 1);
  unsigned char bytes[1] = {'#'};
  EXPECT_TRUE(memo()->Write(bytes));
  EXPECT_EQ(bytes[0], '9');
  memo()->Set("b", 1);
  EXPECT_FALSE(memo()->Write(bytes));
  EXPECT_EQ(bytes[0], '9');
  EXPECT_EQ(ErrorOf(table), "Error writing to 't.dbt': The memo's number does not fit its field");
}

TEST_F(XBaseMemoFieldTest, SwapOriginalExchangesTheTextsAlone) {
  Append("old");
  ASSERT_TRUE(table.Goto(1));
  EXPECT_STREQ(memo()->data(), "old");
  memo()->Set("new and longer", -1);
  memo()->SwapOriginal();
  EXPECT_STREQ(memo()->data(), "old");
  memo()->SwapOriginal();
  EXPECT_STREQ(memo()->data(), "new and longer");
}

TEST_F(XBaseMemoFieldTest, AMemoReadWhileTheTextsAreExchangedLeavesTheChangedOne) {
  Append("old");
  ASSERT_TRUE(table.Goto(1));
  memo()->Set("new", 3);
  memo()->SwapOriginal();
  EXPECT_STREQ(memo()->data(), "old");
  memo()->SwapOriginal();
  EXPECT_STREQ(memo()->data(), "new");
  ASSERT_TRUE(table.Update());
  EXPECT_EQ(Reread(1), "new");
}

TEST_F(XBaseMemoFieldTest, SetOriginalTakesAShorterTextOver) {
  Append("a much longer memo than the next");
  ASSERT_TRUE(table.Goto(1));
  EXPECT_STREQ(memo()->data(), "a much longer memo than the next");
  memo()->Set("short", 5);
  memo()->SwapOriginal();
  memo()->SetOriginal();
  memo()->SwapOriginal();
  EXPECT_STREQ(memo()->data(), "a much longer memo than the next");
  memo()->Set("short", 5);
  memo()->SetOriginal();
  memo()->SwapOriginal();
  EXPECT_STREQ(memo()->data(), "short");
}

TEST_F(XBaseMemoFieldTest, SetOriginalOfAMemoThatWasNotReadDoesNothing) {
  Append("old");
  ASSERT_TRUE(table.Goto(1));
  files.ResetCounts();
  memo()->SetOriginal();
  EXPECT_EQ(files.reads, 0);
  EXPECT_STREQ(memo()->data(), "old");
}

TEST_F(XBaseMemoFieldTest, SetTakesItsOwnTextAndNone) {
  memo()->Set("abcdef", -1);
  memo()->Set(memo()->data() + 2, 3);
  EXPECT_STREQ(memo()->data(), "cde");
  memo()->Set(nullptr, 5);
  EXPECT_STREQ(memo()->data(), "");
}

TEST(XBaseMemoFieldAlone, WithoutATableHoldsWhatIsSet) {
  XBaseMemoField field(nullptr, "NOTES", 4, 10, 0);
  EXPECT_STREQ(field.name(), "NOTE");
  EXPECT_EQ(field.type(), XBaseField_Memo);
  EXPECT_STREQ(field.data(), "");
  field.Set("text", 4);
  EXPECT_STREQ(field.data(), "text");
  unsigned char bytes[10];
  EXPECT_FALSE(field.Write(bytes));
  std::string number = "        12";
  field.Read(reinterpret_cast<unsigned char*>(number.data()));
  EXPECT_EQ(field.data(), nullptr);
}

TEST_F(XBaseMemoFieldTest, ReadingABlockTellsItsLength) {
  Append("hello");
  char* text = nullptr;
  int length = 0;
  ASSERT_TRUE(table.ReadMemoBlock(1, &text, &length));
  EXPECT_EQ(length, 5);
  EXPECT_STREQ(text, "hello");
  delete[] text;
}

TEST_F(XBaseMemoFieldTest, AFailureInTheMiddleHandsOverWhatWasRead) {
  Append(std::string(3000, 'x'));
  char* text = nullptr;
  int length = -1;
  files.fail_read = 2;
  EXPECT_FALSE(table.ReadMemoBlock(1, &text, &length));
  EXPECT_EQ(length, -1);
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(std::string(text), std::string(512, 'x'));
  delete[] text;
}

TEST_F(XBaseMemoFieldTest, WritingABlockAnswersItsNumberOrWhatWentWrong) {
  char text[] = "memo";
  EXPECT_EQ(table.WriteMemoBlock(text), 1);
  EXPECT_EQ(table.WriteMemoBlock(text), 2);
  const struct {
    const char* label;
    int* countdown;
    int call;
    const char* error;
  } cases[] = {
      {"lock", &files.fail_lock, 1, "Error locking 't.dbt' for write: Injected failure"},
      {"seek to the header", &files.fail_seek, 1, "Error reading from 't.dbt': Injected failure"},
      {"header", &files.fail_read, 1, "Error reading from 't.dbt': Injected failure"},
      {"seek to the block", &files.fail_seek, 2, "Error writing to 't.dbt': Injected failure"},
      {"text", &files.fail_write, 1, "Error writing to 't.dbt': Injected failure"},
      {"header again", &files.fail_write, 2, "Error writing to 't.dbt': Injected failure"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    *c.countdown = c.call;
    EXPECT_EQ(table.WriteMemoBlock(text), -1);
    EXPECT_EQ(ErrorOf(table), c.error);
    EXPECT_TRUE(files.held.empty());
  }
  EXPECT_EQ(table.WriteMemoBlock(text), 3);
}

TEST_F(XBaseMemoFieldTest, ANegativeNextBlockIsAnsweredAsItIsAndNothingWritten) {
  Memos() = MemoHeader(-5) + "\x1a";
  const std::string before = Memos();
  char text[] = "memo";
  EXPECT_EQ(table.WriteMemoBlock(text), -5);
  EXPECT_EQ(Memos(), before);
  EXPECT_EQ(ErrorOf(table), "Error reading from 't.dbt': ");
  EXPECT_TRUE(files.held.empty());
}

TEST_F(XBaseMemoFieldTest, TheHeaderIsNeverTakenForABlock) {
  Memos() = MemoHeader(0);
  char text[] = "memo";
  EXPECT_EQ(table.WriteMemoBlock(text), 1);
  EXPECT_EQ(Memos(), MemoHeader(2) + "memo\x1a\x1a");
}

TEST_F(XBaseMemoFieldTest, ANextBlockBeyondAllFilesWritesNothing) {
  for (int next : {4194304, INT_MAX}) {
    Memos() = MemoHeader(next);
    char text[] = "memo";
    EXPECT_EQ(table.WriteMemoBlock(text), -1);
    EXPECT_EQ(Memos(), MemoHeader(next));
    EXPECT_EQ(ErrorOf(table), "Error writing to 't.dbt': ");
  }
}

TEST_F(XBaseMemoFieldTest, AnotherObjectsMemosAreCounted) {
  XBaseTable other(&application);
  Open(other);
  char text[] = "memo";
  EXPECT_EQ(table.WriteMemoBlock(text), 1);
  EXPECT_EQ(other.WriteMemoBlock(text), 2);
  EXPECT_EQ(table.WriteMemoBlock(text), 3);
}

}  // namespace
