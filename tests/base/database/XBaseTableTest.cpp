#include "base/database/XBaseTable.h"

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/TableFiles.h"

namespace {

using Lines = std::vector<std::string>;

const std::vector<Column> kPlain = {{"NAME", XBaseField_Character, 6, 0},
                                    {"N", XBaseField_Numeric, 4, 0}};
constexpr size_t kPlainHeader = 97;
constexpr size_t kPlainRecord = 11;

class XBaseTableTest : public TableFiles {
 protected:
  // A table with the fields of kPlain and that many records: "r1" with 1 and so on.
  void Fill(int records) {
    XBaseTable maker(&application);
    Create(maker, kPlain);
    for (int i = 1; i <= records; i++)
      ASSERT_TRUE(AppendRow(maker, {"r" + std::to_string(i), std::to_string(i)}));
    files.ResetCounts();
  }
  bool OpenFails(const std::string& bytes, const std::string& error) {
    Table() = bytes;
    XBaseTable table(&application);
    const bool opened = table.Open(ZephPath_Data, "t.dbf", -1, kOpenTable);
    EXPECT_EQ(ErrorOf(table), error);
    EXPECT_EQ(files.open_now, 0);
    return !opened;
  }
};

// --- Paths ---------------------------------------------------------------------------------------

TEST_F(XBaseTableTest, TheMemoPathReplacesTheLastExtension) {
  const struct {
    const char* path;
    const char* memo_path;
  } cases[] = {{"a.dbf", "a.dbt"},     {"dir.x/a", "dir.x/a.dbt"},
               {"a", "a.dbt"},         {"", ""},
               {"a.b.dbf", "a.b.dbt"}, {"a.", "a.dbt"},
               {".dbf", ".dbt"},       {"./a", "./a.dbt"},
               {"dir/.x", "dir/.dbt"}, {"dir/", "dir/.dbt"},
               {"/", "/.dbt"},         {".", ".dbt"},
               {"a.DBF", "a.dbt"},     {"/dir.x/a.y/b", "/dir.x/a.y/b.dbt"}};
  XBaseTable table(&application);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    String memo_path("before");
    table.SetMemoPath(String(c.path), memo_path);
    EXPECT_STREQ(memo_path.data, c.memo_path);
    EXPECT_EQ(memo_path.length, static_cast<int>(strlen(c.memo_path)));
  }
}

TEST_F(XBaseTableTest, TheMemoPathMayReplaceThePathItself) {
  XBaseTable table(&application);
  String path("a.dbf");
  table.SetMemoPath(path, path);
  EXPECT_STREQ(path.data, "a.dbt");
}

// --- Creating ------------------------------------------------------------------------------------

TEST_F(XBaseTableTest, ACreatedTableHasExactlyTheseBytes) {
  XBaseTable table(&application);
  Create(table, AllTypes());
  std::string expected = std::string("\x83", 1) + DateBytes();
  expected += std::string("\0\0\0\0\xc1\0\x26\0", 8) + std::string(20, '\0');
  auto descriptor = [](const std::string& name, char type, int length, int decimals) {
    std::string bytes = name + std::string(11 - name.size(), '\0') + type + std::string(4, '\0');
    bytes += static_cast<char>(length);
    bytes += static_cast<char>(decimals);
    return bytes + std::string(14, '\0');
  };
  expected += descriptor("NAME", 'C', 10, 0) + descriptor("AMOUNT", 'N', 8, 2) +
              descriptor("DAY", 'D', 8, 0) + descriptor("PAID", 'L', 1, 0) +
              descriptor("NOTE", 'M', 10, 0) + "\x0d\x1a";
  EXPECT_EQ(Table(), expected);
  EXPECT_EQ(Memos(), std::string("\x01\0\0\0", 4) + std::string(508, '\0') + "\x1a");
  EXPECT_EQ(Memos().size(), 513u);
}

TEST_F(XBaseTableTest, ATableWithoutMemosHasNoMemoFile) {
  XBaseTable table(&application);
  Create(table, kPlain);
  EXPECT_EQ(Table()[0], 0x03);
  EXPECT_EQ(files.files.count("t.dbt"), 0u);
  EXPECT_STREQ(table.memo_path().data, "t.dbt");
}

TEST_F(XBaseTableTest, ATableWithoutFieldsHasAHeaderOf33AndRecordsOfOneByte) {
  XBaseTable table(&application);
  Create(table, {});
  EXPECT_EQ(table.header_length(), 33);
  EXPECT_EQ(table.record_length(), 1);
  EXPECT_EQ(Table().size(), 34u);
  ASSERT_TRUE(table.Append());
  EXPECT_EQ(Table().substr(32), "\r \x1a");
  EXPECT_EQ(table.record_count(), 1);
}

TEST_F(XBaseTableTest, TellsItsHeader) {
  XBaseTable table(&application);
  Create(table, AllTypes());
  EXPECT_EQ(table.version(), 0x83);
  EXPECT_EQ(table.record_count(), 0);
  EXPECT_EQ(table.header_length(), 193);
  EXPECT_EQ(table.record_length(), 38);
  EXPECT_EQ(table.record_number(), 0);
  EXPECT_EQ(table.next_memo_block(), 1);
  EXPECT_STREQ(table.path().data, "t.dbf");
  const std::string date = DateBytes();
  EXPECT_EQ(table.year(), static_cast<unsigned char>(date[0]));
  EXPECT_EQ(table.month(), date[1]);
  EXPECT_EQ(table.day(), date[2]);
  EXPECT_EQ(table.fields().Entries(), 5);
}

TEST_F(XBaseTableTest, TheMemoPathMayBeGiven) {
  XBaseTable table(&application);
  auto columns = ColumnList(AllTypes());
  ASSERT_TRUE(table.Create(ZephPath_Data, "t.dbf", "other.fil-rest", 9, *columns));
  EXPECT_EQ(files.Contents("other.fil").size(), 513u);
  EXPECT_STREQ(table.memo_path().data, "other.fil");
}

TEST_F(XBaseTableTest, UpTo2046FieldsAreTakenInBothForms) {
  for (size_t count : {2046u, 2047u}) {
    SCOPED_TRACE(count);
    auto columns = ColumnList(std::vector<Column>(count, Column{"A", XBaseField_Character, 1, 0}));
    Table() = "untouched";
    XBaseTable table(&application), other(&application);
    std::unique_ptr<File> file(files.Open("t.dbf", kOpenTable));
    files.ResetCounts();
    const bool made = other.Create(file.get(), "t.dbf", nullptr, "", *columns);
    EXPECT_EQ(made, count == 2046);
    if (made) {
      (void)file.release();
    } else {
      EXPECT_EQ(ErrorOf(other), "Error creating 't.dbf': too many fields (maximum 2046)");
      EXPECT_EQ(files.calls, 0);
    }
    EXPECT_EQ(table.Create(ZephPath_Data, "t.dbf", "", 0, *columns), made);
    if (made) {
      EXPECT_EQ(table.header_length(), 65505);
      ASSERT_TRUE(table.Append());
      XBaseTable reader(&application);
      Open(reader);
      EXPECT_EQ(reader.fields().Entries(), 2046);
    } else {
      EXPECT_EQ(ErrorOf(table), "Error creating 't.dbf': too many fields (maximum 2046)");
      EXPECT_EQ(Table(), "untouched");
    }
  }
}

TEST_F(XBaseTableTest, RecordsOfUpTo65535BytesAreTaken) {
  std::vector<Column> columns(258, Column{"A", XBaseField_Character, 254, 0});
  columns.push_back({"B", XBaseField_Character, 65534 - 258 * 254, 0});
  XBaseTable table(&application);
  Create(table, columns);
  EXPECT_EQ(table.record_length(), 65535);
  EXPECT_EQ(Table().substr(8, 4), std::string("\x81\x20\xff\xff", 4));
  columns.back().length++;
  Table() = "untouched";
  auto list = ColumnList(columns);
  EXPECT_FALSE(table.Create(ZephPath_Data, "t.dbf", "", 0, *list));
  EXPECT_EQ(ErrorOf(table), "Error creating 't.dbf': record too long, 65536 (maximum 65535)");
  EXPECT_EQ(Table(), "untouched");
}

TEST_F(XBaseTableTest, ATableOfItsOwnFieldsIsOneOfTheSameFields) {
  XBaseTable table(&application);
  Create(table, AllTypes());
  const std::string before = Table();
  ASSERT_TRUE(AppendRow(table, {"Ann"}));
  files.files.clear();
  XBaseTable fresh(&application);
  ASSERT_TRUE(fresh.Create(ZephPath_Data, table.path(), "", 0, table.fields()));
  EXPECT_EQ(Table(), before);
  ASSERT_TRUE(fresh.Create(ZephPath_Data, fresh.path(), "", 0, fresh.fields()));
  EXPECT_EQ(Table(), before);
}

// Odd, but callers may rely on it: the count is the object's.
TEST_F(XBaseTableTest, CreatingAgainTakesTheCountOver) {
  Fill(3);
  XBaseTable table(&application);
  Open(table);
  Create(table, kPlain);
  EXPECT_EQ(Table().substr(4, 4), std::string("\x03\0\0\0", 4));
  EXPECT_EQ(table.record_count(), 3);
  EXPECT_EQ(table.record_number(), 0);
}

TEST_F(XBaseTableTest, FilesThatCannotBeCreatedAreNamed) {
  auto columns = ColumnList(AllTypes());
  XBaseTable table(&application);
  files.fail_open = 1;
  EXPECT_FALSE(table.Create(ZephPath_Data, "t.dbf", "", 0, *columns));
  EXPECT_EQ(ErrorOf(table), "Error creating 't.dbf': Injected failure");
  files.fail_open = 2;
  EXPECT_FALSE(table.Create(ZephPath_Data, "t.dbf", "", 0, *columns));
  EXPECT_EQ(ErrorOf(table), "Error creating 't.dbt': Injected failure");
  EXPECT_EQ(files.open_now, 0);
}

TEST_F(XBaseTableTest, CreatingWithoutAFileIsAnInternalError) {
  auto columns = ColumnList(AllTypes());
  XBaseTable table(&application);
  EXPECT_FALSE(table.Create(nullptr, "t.dbf", nullptr, "t.dbt", *columns));
  EXPECT_EQ(ErrorOf(table), "Internal error opening 't.dbf'");
  std::unique_ptr<File> file(files.Open("t.dbf", 15));
  EXPECT_FALSE(table.Create(file.get(), "t.dbf", nullptr, "t.dbt", *columns));
  EXPECT_EQ(ErrorOf(table), "Internal errorl opening 't.dbt'");
  EXPECT_FALSE(table.Append());
}

TEST_F(XBaseTableTest, AFailedWriteLeavesTheFilesToTheCaller) {
  auto columns = ColumnList(AllTypes());
  for (int call = 1; call <= 5; call++) {
    SCOPED_TRACE(call);
    std::unique_ptr<File> file(files.Open("t.dbf", 15)), memo(files.Open("t.dbt", 15));
    {
      XBaseTable table(&application);
      files.fail_write = call;
      EXPECT_FALSE(table.Create(file.get(), "t.dbf", memo.get(), "t.dbt", *columns));
      EXPECT_EQ(ErrorOf(table), call <= 3 ? "Error writing to 't.dbf': Injected failure"
                                          : "Error writing to 't.dbt': Injected failure");
      EXPECT_FALSE(table.Goto(1));
    }
    EXPECT_EQ(files.open_now, 2);
    EXPECT_GE(file->Length(), 0);
  }
}

TEST_F(XBaseTableTest, AFullDiskIsAWriteError) {
  auto columns = ColumnList(AllTypes());
  for (long room : {0L, 31L, 32L, 100L, 193L, 194L, 194L + 511, 194L + 512}) {
    SCOPED_TRACE(room);
    files.write_room = room;
    XBaseTable table(&application);
    EXPECT_FALSE(table.Create(ZephPath_Data, "t.dbf", "", 0, *columns));
    EXPECT_EQ(ErrorOf(table),
              room < 194 ? "Error writing to 't.dbf': " : "Error writing to 't.dbt': ");
    EXPECT_EQ(files.open_now, 0);
  }
}

// --- Opening -------------------------------------------------------------------------------------

TEST_F(XBaseTableTest, OpeningReadsHeaderFieldsAndMemoHeader) {
  {
    XBaseTable maker(&application);
    Create(maker, AllTypes());
    ASSERT_TRUE(AppendRow(maker, {"Ann", "12.50", "20240131", "T", "note"}));
  }
  XBaseTable table(&application);
  Open(table);
  EXPECT_EQ(table.version(), 0x83);
  EXPECT_EQ(table.record_count(), 1);
  EXPECT_EQ(table.record_number(), 0);
  EXPECT_EQ(table.next_memo_block(), 2);
  ASSERT_EQ(table.fields().Entries(), 5);
  for (size_t i = 0; i < AllTypes().size(); i++) {
    XBaseField* field = FieldOf(table, static_cast<int>(i));
    EXPECT_STREQ(field->name(), AllTypes()[i].name);
    EXPECT_EQ(field->type(), AllTypes()[i].type);
    EXPECT_EQ(field->length(), AllTypes()[i].length);
    EXPECT_EQ(field->decimalcount(), AllTypes()[i].decimals);
  }
  ASSERT_TRUE(table.Goto(1));
  EXPECT_EQ(ValuesOf(table), (Lines{"Ann", "12.50", "20240131", "T", "note"}));
}

TEST_F(XBaseTableTest, AMissingTableIsNamed) {
  XBaseTable table(&application);
  EXPECT_FALSE(table.Open(ZephPath_Data, "gone.dbf-and-more", 8, kOpenTable));
  EXPECT_EQ(ErrorOf(table), "Error opening 'gone.dbf': No such file or directory");
}

TEST_F(XBaseTableTest, OnlyTwoVersionsAreTaken) {
  Memos() = MemoHeader(1);
  for (int version = 0; version < 256; version++) {
    if (version == 0x03 || version == 0x83) continue;
    char error[80];
    snprintf(error, sizeof error, "'t.dbf': Unsupported xBase file version (0x%02X)", version);
    EXPECT_TRUE(OpenFails(TableHeader{version}.Bytes(kPlain), error));
  }
}

TEST_F(XBaseTableTest, AHeaderThatIsCutIsAReadError) {
  const std::string whole = TableHeader().Bytes(kPlain);
  for (size_t length = 0; length < whole.size(); length++) {
    SCOPED_TRACE(length);
    EXPECT_TRUE(OpenFails(whole.substr(0, length), "Error reading from 't.dbf': "));
  }
}

TEST_F(XBaseTableTest, AHeaderLengthBelow33IsAReadError) {
  for (int length = 0; length < 33; length++) {
    TableHeader header;
    header.header_length = length;
    EXPECT_TRUE(OpenFails(header.Bytes(kPlain), "Error reading from 't.dbf': "));
  }
}

TEST_F(XBaseTableTest, ACountOf2To31AndMoreIsAReadError) {
  for (unsigned count : {0x80000000u, 0xffffffffu}) {
    TableHeader header;
    header.record_count = count;
    EXPECT_TRUE(OpenFails(header.Bytes(kPlain), "Error reading from 't.dbf': "));
  }
}

TEST_F(XBaseTableTest, TheCountOfFieldsIsRoundedDown) {
  for (int more : {0, 1, 31}) {
    TableHeader header;
    header.header_length = 97 + more;
    Table() = header.Bytes(kPlain) + std::string(31, '\0');
    XBaseTable table(&application);
    Open(table);
    EXPECT_EQ(table.fields().Entries(), 2);
    EXPECT_EQ(table.header_length(), 97 + more);
  }
}

TEST_F(XBaseTableTest, OtherTypesAreUnsupported) {
  Memos() = MemoHeader(1);
  for (int type = 0; type < 256; type++) {
    std::string bytes = TableHeader().Bytes(kPlain);
    bytes[64 + 11] = static_cast<char>(type);
    if (type != 0 && strchr("CNDLM", type)) {
      Table() = bytes;
      XBaseTable table(&application);
      Open(table);
      continue;
    }
    EXPECT_TRUE(
        OpenFails(bytes, std::string("'t.dbf' contains an unsupported field (N) of type '") +
                             static_cast<char>(type) + "'"));
  }
}

TEST_F(XBaseTableTest, AFieldNameOf11BytesIsTerminatedInMemory) {
  std::string bytes = TableHeader().Bytes(kPlain);
  bytes.replace(32, 11, "ELEVENBYTES");
  Table() = bytes;
  XBaseTable table(&application);
  Open(table);
  EXPECT_STREQ(FieldOf(table, 0)->name(), "ELEVENBYTES");
}

TEST_F(XBaseTableTest, TheMemoVersionNeedsAMemoFileWithoutAnyMemoField) {
  EXPECT_TRUE(OpenFails(TableHeader{0x83}.Bytes(kPlain),
                        "Error opening 't.dbt': No such file or directory"));
  Memos() = MemoHeader(1);
  XBaseTable table(&application);
  Open(table);
}

TEST_F(XBaseTableTest, AMemoFieldNeedsAMemoFileWithThePlainVersionToo) {
  EXPECT_TRUE(OpenFails(TableHeader{0x03}.Bytes(AllTypes()),
                        "Error opening 't.dbt': No such file or directory"));
  Memos() = MemoHeader(1);
  XBaseTable table(&application);
  Open(table);
  EXPECT_EQ(table.version(), 0x83);
  ASSERT_TRUE(AppendRow(table, {"Ann", "", "", "", "note"}));
  EXPECT_EQ(Table()[0], 0x03) << "the file's own byte stays";
}

TEST_F(XBaseTableTest, AMemoHeaderThatIsCutIsAReadError) {
  for (size_t length : {0u, 1u, 4u, 511u}) {
    Memos() = MemoHeader(1).substr(0, length);
    EXPECT_TRUE(OpenFails(TableHeader{0x83}.Bytes(AllTypes()), "Error reading from 't.dbt': "));
    EXPECT_TRUE(files.held.empty());
  }
}

TEST_F(XBaseTableTest, TheMemoHeaderIsReadUnderASharedLock) {
  Table() = TableHeader{0x83}.Bytes(AllTypes());
  Memos() = MemoHeader(1);
  {
    XBaseTable table(&application);
    Open(table);
    EXPECT_EQ(files.lock_log, (Lines{"lock t.dbt 0 512 shared", "release t.dbt 0 512"}));
  }
  files.fail_lock = 1;
  EXPECT_TRUE(OpenFails(Table(), "Error locking 't.dbt' for read: Injected failure"));
}

TEST_F(XBaseTableTest, OpeningAgainForgetsTheRecord) {
  Fill(2);
  XBaseTable table(&application);
  Open(table);
  ASSERT_TRUE(table.Goto(2));
  Open(table);
  EXPECT_EQ(table.record_number(), 0);
  EXPECT_EQ(table.fields().Entries(), 2);
  EXPECT_EQ(files.open_now, 1);
  EXPECT_FALSE(table.Update());
}

TEST_F(XBaseTableTest, OpeningAgainTakesItsOwnPath) {
  Fill(2);
  XBaseTable table(&application);
  Open(table);
  ASSERT_TRUE(table.Open(ZephPath_Data, table.path().data, table.path().length, kOpenTable));
  EXPECT_STREQ(table.path().data, "t.dbf");
  EXPECT_TRUE(table.Goto(2));
}

TEST_F(XBaseTableTest, ClosingKeepsTheFieldsAlone) {
  Fill(1);
  XBaseTable table(&application);
  Open(table);
  ASSERT_TRUE(table.Goto(1));
  table.Close();
  EXPECT_EQ(files.open_now, 0);
  EXPECT_STREQ(table.path().data, "");
  EXPECT_STREQ(table.memo_path().data, "");
  EXPECT_EQ(ValueOf(table, 0), "r1");
}

TEST_F(XBaseTableTest, DeactivatingReachesBothFiles) {
  XBaseTable table(&application);
  Create(table, AllTypes());
  table.Deactivate();
  EXPECT_EQ(files.deactivations, 2);
}

TEST_F(XBaseTableTest, WithoutFilesEveryOperationFails) {
  Fill(1);
  XBaseTable table(&application);
  Open(table);
  ASSERT_TRUE(table.Goto(1));
  table.Close();
  table.Deactivate();
  char* text = nullptr;
  int length = 0;
  char memo[] = "memo";
  EXPECT_FALSE(table.Goto(1));
  EXPECT_FALSE(table.Update());
  EXPECT_FALSE(table.UpdateDeleted(1));
  EXPECT_FALSE(table.Append());
  EXPECT_FALSE(table.ReadMemoBlock(1, &text, &length));
  EXPECT_EQ(table.WriteMemoBlock(memo), -1);
  XBaseTable fresh(&application);
  EXPECT_FALSE(fresh.Goto(1));
  EXPECT_FALSE(fresh.Append());
}

TEST_F(XBaseTableTest, ANullErrorKeepsTheOlderText) {
  XBaseTable table(&application);
  table.Error("first");
  table.Error(String());
  EXPECT_EQ(ErrorOf(table), "first");
  table.Error("");
  EXPECT_EQ(ErrorOf(table), "");
}

// --- Reading records -----------------------------------------------------------------------------

TEST_F(XBaseTableTest, RecordsCountFromOne) {
  Fill(3);
  XBaseTable table(&application);
  Open(table);
  for (int i : {3, 1, 2}) {
    ASSERT_TRUE(table.Goto(i));
    EXPECT_EQ(table.record_number(), i);
    EXPECT_EQ(ValuesOf(table), (Lines{"r" + std::to_string(i), std::to_string(i)}));
  }
}

TEST_F(XBaseTableTest, RecordsBelowOneAreInvalidWithoutALook) {
  Fill(1);
  XBaseTable table(&application);
  Open(table);
  ASSERT_TRUE(table.Goto(1));
  files.ResetCounts();
  for (int record : {0, -1, INT_MIN}) {
    table.Error("");
    EXPECT_FALSE(table.Goto(record));
    EXPECT_EQ(ErrorOf(table), "Invalid record number");
  }
  EXPECT_EQ(files.calls, 0);
  EXPECT_EQ(table.record_number(), 1);
}

TEST_F(XBaseTableTest, ARecordWithinTheCountCostsNoLockAndNoHeader) {
  Fill(2);
  XBaseTable table(&application);
  Open(table);
  files.ResetCounts();
  ASSERT_TRUE(table.Goto(2));
  EXPECT_EQ(files.reads, 1);
  EXPECT_TRUE(files.lock_log.empty());
}

TEST_F(XBaseTableTest, ARecordAfterTheLastIsInvalidAfterALookAtTheHeader) {
  Fill(2);
  XBaseTable table(&application);
  Open(table);
  files.ResetCounts();
  EXPECT_FALSE(table.Goto(3));
  EXPECT_EQ(ErrorOf(table), "Invalid record number");
  EXPECT_EQ(files.lock_log, (Lines{"lock t.dbf 0 97 exclusive", "release t.dbf 0 97"}));
  EXPECT_EQ(files.reads, 1);
}

TEST_F(XBaseTableTest, ARecordThatAnotherHasJustAppendedIsFound) {
  Fill(1);
  XBaseTable table(&application), other(&application);
  Open(table);
  Open(other);
  ASSERT_TRUE(AppendRow(other, {"new", "2"}));
  ASSERT_TRUE(table.Goto(2));
  EXPECT_EQ(ValueOf(table, 0), "new");
  EXPECT_EQ(table.record_count(), 2);
}

TEST_F(XBaseTableTest, FailuresOfTheLookAreTold) {
  Fill(1);
  XBaseTable table(&application);
  Open(table);
  files.fail_lock = 1;
  EXPECT_FALSE(table.Goto(2));
  EXPECT_EQ(ErrorOf(table), "Error locking 't.dbf' for write: Injected failure");
  files.fail_read = 1;
  EXPECT_FALSE(table.Goto(2));
  EXPECT_EQ(ErrorOf(table), "Error reading from 't.dbf': Injected failure");
  Table()[0] = 0x30;
  EXPECT_FALSE(table.Goto(2));
  EXPECT_EQ(ErrorOf(table), "'t.dbf': Unsupported xBase file version (0x30)");
  EXPECT_TRUE(files.held.empty());
}

TEST_F(XBaseTableTest, AShortRecordIsAReadErrorAndTheOldOneStays) {
  Fill(2);
  XBaseTable table(&application);
  Open(table);
  ASSERT_TRUE(table.Goto(1));
  Table().resize(kPlainHeader + 2 * kPlainRecord - 1);
  EXPECT_FALSE(table.Goto(2));
  EXPECT_EQ(ErrorOf(table), "Error reading from 't.dbf': ");
  EXPECT_EQ(table.record_number(), 1);
  EXPECT_EQ(ValueOf(table, 0), "r1");
}

TEST_F(XBaseTableTest, OnlyAStarMeansDeleted) {
  Fill(1);
  XBaseTable table(&application);
  Open(table);
  for (int flag = 0; flag < 256; flag++) {
    Table()[kPlainHeader] = static_cast<char>(flag);
    ASSERT_TRUE(table.Goto(1));
    EXPECT_EQ(table.deleted() != 0, flag == '*') << flag;
  }
}

TEST_F(XBaseTableTest, ALostEndMarkIsNotMissed) {
  Fill(2);
  Table().pop_back();
  XBaseTable table(&application);
  Open(table);
  ASSERT_TRUE(table.Goto(2));
  EXPECT_EQ(ValueOf(table, 0), "r2");
  ASSERT_TRUE(AppendRow(table, {"r3", "3"}));
  EXPECT_EQ(Table().substr(kPlainHeader), " r1       1 r2       2 r3       3\x1a");
}

// --- Records whose length is not that of the fields ----------------------------------------------

TEST_F(XBaseTableTest, BytesAfterTheFieldsAreBlankWhenWritten) {
  TableHeader header;
  header.record_count = 1;
  header.record_length = 15;
  Table() = header.Bytes(kPlain) + " r1       1xxxx\x1a";
  XBaseTable table(&application);
  Open(table);
  ASSERT_TRUE(table.Goto(1));
  EXPECT_EQ(ValuesOf(table), (Lines{"r1", "1"}));
  ASSERT_TRUE(AppendRow(table, {"r2", "2"}));
  ASSERT_TRUE(table.Goto(2));
  EXPECT_EQ(Table().substr(kPlainHeader), " r1       1xxxx r2       2    \x1a");
}

TEST_F(XBaseTableTest, FieldsThatTheRecordHasNoRoomForAreBlank) {
  for (int length : {0, 1, 3, 10}) {
    SCOPED_TRACE(length);
    TableHeader header;
    header.record_count = 1;
    header.record_length = length;
    const std::string record = std::string("*abcdefghij").substr(0, static_cast<size_t>(length));
    Table() = header.Bytes(kPlain) + record + "\x1a";
    XBaseTable table(&application);
    Open(table);
    ASSERT_TRUE(table.Goto(1)) << ErrorOf(table);
    EXPECT_EQ(table.deleted() != 0, length > 0);
    EXPECT_EQ(ValueOf(table, 0), length > 1 ? record.substr(1, 6) : "");
    ASSERT_TRUE(table.Update());
    EXPECT_EQ(Table().substr(kPlainHeader), record + "\x1a");
    ASSERT_TRUE(AppendRow(table, {"123456", "7890"}));
    const std::string whole = std::string(" 1234567890").substr(0, static_cast<size_t>(length));
    EXPECT_EQ(Table().substr(kPlainHeader), record + whole + "\x1a");
  }
}

// --- Writing records -----------------------------------------------------------------------------

TEST_F(XBaseTableTest, AppendingWritesTheseBytes) {
  XBaseTable table(&application);
  Create(table, AllTypes());
  const std::string descriptors = Table().substr(32, 161);
  ASSERT_TRUE(AppendRow(table, {"Ann", "12.50", "20240131", "T", "note"}));
  EXPECT_EQ(Table(), std::string("\x83", 1) + DateBytes() +
                         std::string("\x01\0\0\0\xc1\0\x26\0", 8) + std::string(20, '\0') +
                         descriptors + " Ann          12.5020240131T         1\x1a");
  EXPECT_EQ(table.record_number(), 1);
  EXPECT_EQ(table.record_count(), 1);
}

TEST_F(XBaseTableTest, AppendingHoldsTheHeadersLockThroughout) {
  XBaseTable table(&application);
  Create(table, AllTypes());
  files.ResetCounts();
  ASSERT_TRUE(AppendRow(table, {"Ann", "", "", "", "note"}));
  EXPECT_EQ(files.lock_log, (Lines{"lock t.dbf 0 193 exclusive", "lock t.dbt 0 512 exclusive",
                                   "release t.dbt 0 512", "release t.dbf 0 193"}));
}

TEST_F(XBaseTableTest, AppendingGoesAfterTheRecordsOfOthers) {
  Fill(1);
  XBaseTable table(&application), other(&application);
  Open(table);
  Open(other);
  ASSERT_TRUE(AppendRow(other, {"two", "2"}));
  ASSERT_TRUE(AppendRow(table, {"three", "3"}));
  EXPECT_EQ(table.record_number(), 3);
  EXPECT_EQ(Table().substr(kPlainHeader), " r1       1 two      2 three    3\x1a");
}

TEST_F(XBaseTableTest, AppendingClearsTheDeletionFlagAndLeavesTheOriginals) {
  Fill(1);
  Table()[kPlainHeader] = '*';
  XBaseTable table(&application);
  Open(table);
  ASSERT_TRUE(table.Goto(1));
  ASSERT_TRUE(AppendRow(table, {"new", "2"}));
  EXPECT_EQ(table.deleted(), 0);
  EXPECT_EQ(Table()[kPlainHeader + kPlainRecord], ' ');
  table.SwapOriginal();
  EXPECT_EQ(ValuesOf(table), (Lines{"r1", "1"}));
}

TEST_F(XBaseTableTest, AppendingWhatIsInMemoryTakesUnchangedFieldsAlong) {
  Fill(1);
  XBaseTable table(&application);
  Open(table);
  ASSERT_TRUE(table.Goto(1));
  SetField(table, 0, "copy");
  ASSERT_TRUE(table.Append());
  EXPECT_EQ(Table().substr(kPlainHeader + kPlainRecord), " copy     1\x1a");
}

// The number in memory is that of another record's memo, so it must not be written.
TEST_F(XBaseTableTest, AnAppendedRecordWhoseMemoFailedHasNoMemo) {
  XBaseTable table(&application);
  Create(table, AllTypes());
  ASSERT_TRUE(AppendRow(table, {"Ann", "", "", "", "note"}));
  ASSERT_TRUE(table.Goto(1));
  SetField(table, 4, "other");
  files.fail_write = 1;
  ASSERT_TRUE(table.Append());
  EXPECT_EQ(Table().substr(193 + 38 + 28, 11), "          \x1a");
}

TEST_F(XBaseTableTest, UpdatingWritesTheRecordInMemoryBack) {
  Fill(3);
  XBaseTable table(&application);
  Open(table);
  ASSERT_TRUE(table.Goto(2));
  SetField(table, 0, "new");
  ASSERT_TRUE(table.Update());
  EXPECT_EQ(Table().substr(kPlainHeader), " r1       1 new      2 r3       3\x1a");
  table.SwapOriginal();
  EXPECT_EQ(ValueOf(table, 0), "new") << "the original is what the file has";
}

TEST_F(XBaseTableTest, UpdatingLocksTheRecordThenTheHeaderNeverBoth) {
  XBaseTable table(&application);
  Create(table, AllTypes());
  ASSERT_TRUE(AppendRow(table, {"Ann", "", "", "", "note"}));
  ASSERT_TRUE(AppendRow(table, {"Bob", "", "", "", ""}));
  SetField(table, 4, "other");
  files.ResetCounts();
  ASSERT_TRUE(table.Update());
  EXPECT_EQ(files.lock_log, (Lines{"lock t.dbf 231 38 exclusive", "lock t.dbt 0 512 exclusive",
                                   "release t.dbt 0 512", "release t.dbf 231 38",
                                   "lock t.dbf 0 193 exclusive", "release t.dbf 0 193"}));
}

TEST_F(XBaseTableTest, UpdatingRefreshesTheDateAndKeepsTheCountOfOthers) {
  Fill(1);
  XBaseTable table(&application), other(&application);
  Open(table);
  ASSERT_TRUE(table.Goto(1));
  Open(other);
  ASSERT_TRUE(AppendRow(other, {"two", "2"}));
  Table().replace(1, 3, "\x50\x01\x02");
  ASSERT_TRUE(table.Update());
  EXPECT_EQ(Table().substr(1, 3), DateBytes());
  EXPECT_EQ(Table().substr(4, 4), std::string("\x02\0\0\0", 4));
  EXPECT_EQ(table.record_count(), 2);
}

TEST_F(XBaseTableTest, UpdatingKeepsTheDeletionFlag) {
  Fill(1);
  Table()[kPlainHeader] = '*';
  XBaseTable table(&application);
  Open(table);
  ASSERT_TRUE(table.Goto(1));
  ASSERT_TRUE(table.Update());
  EXPECT_EQ(Table()[kPlainHeader], '*');
}

TEST_F(XBaseTableTest, AFailedMemoLeavesTheOldBlockAndNoError) {
  XBaseTable table(&application);
  Create(table, AllTypes());
  ASSERT_TRUE(AppendRow(table, {"Ann", "12.50", "20240131", "T", "note"}));
  ASSERT_TRUE(table.Goto(1));
  SetField(table, 0, "Bea");
  SetField(table, 4, "other");
  files.fail_write = 1;
  EXPECT_TRUE(table.Update());
  EXPECT_EQ(Table().substr(193, 38), " Bea          12.5020240131T         1");
}

TEST_F(XBaseTableTest, WithoutARecordNothingIsUpdated) {
  Fill(1);
  XBaseTable table(&application);
  Open(table);
  const std::string before = Table();
  files.ResetCounts();
  EXPECT_FALSE(table.Update());
  EXPECT_EQ(ErrorOf(table), "Invalid record number");
  table.Error("");
  EXPECT_FALSE(table.UpdateDeleted(1));
  EXPECT_EQ(ErrorOf(table), "Invalid record number");
  EXPECT_EQ(files.calls, 0);
  EXPECT_EQ(Table(), before);
}

TEST_F(XBaseTableTest, TheDeletionFlagIsWrittenAlone) {
  Fill(2);
  XBaseTable table(&application);
  Open(table);
  ASSERT_TRUE(table.Goto(2));
  SetField(table, 0, "kept");
  files.ResetCounts();
  ASSERT_TRUE(table.UpdateDeleted(1));
  EXPECT_NE(table.deleted(), 0);
  EXPECT_EQ(Table().substr(kPlainHeader), " r1       1*r2       2\x1a");
  EXPECT_EQ(files.lock_log, (Lines{"lock t.dbf 108 1 exclusive", "release t.dbf 108 1",
                                   "lock t.dbf 0 97 exclusive", "release t.dbf 0 97"}));
  ASSERT_TRUE(table.UpdateDeleted(0));
  EXPECT_EQ(table.deleted(), 0);
  EXPECT_EQ(Table()[kPlainHeader + kPlainRecord], ' ');
}

// --- Failures of writing -------------------------------------------------------------------------

TEST_F(XBaseTableTest, EachFailedStepIsTold) {
  const char* lock = "Error locking 't.dbf' for write: Injected failure";
  const char* read = "Error reading from 't.dbf': Injected failure";
  const char* write = "Error writing to 't.dbf': Injected failure";
  enum Operation { kAppend, kUpdate, kDelete };
  const struct {
    const char* label;
    Operation operation;
    int FaultyFileManager::*countdown;
    int call;
    const char* error;
  } cases[] = {
      {"append, lock", kAppend, &FaultyFileManager::fail_lock, 1, lock},
      {"append, seek to the header", kAppend, &FaultyFileManager::fail_seek, 1, read},
      {"append, header", kAppend, &FaultyFileManager::fail_read, 1, read},
      {"append, seek to the record", kAppend, &FaultyFileManager::fail_seek, 2, write},
      {"append, record", kAppend, &FaultyFileManager::fail_write, 1, write},
      {"append, seek back", kAppend, &FaultyFileManager::fail_seek, 3, write},
      {"append, header again", kAppend, &FaultyFileManager::fail_write, 2, write},
      {"update, lock", kUpdate, &FaultyFileManager::fail_lock, 1, lock},
      {"update, seek", kUpdate, &FaultyFileManager::fail_seek, 1, write},
      {"update, record", kUpdate, &FaultyFileManager::fail_write, 1, write},
      {"update, lock of the header", kUpdate, &FaultyFileManager::fail_lock, 2, lock},
      {"update, header", kUpdate, &FaultyFileManager::fail_read, 1, read},
      {"update, header again", kUpdate, &FaultyFileManager::fail_write, 2, write},
      {"delete, lock", kDelete, &FaultyFileManager::fail_lock, 1, lock},
      {"delete, seek", kDelete, &FaultyFileManager::fail_seek, 1, write},
      {"delete, flag", kDelete, &FaultyFileManager::fail_write, 1, write},
      {"delete, lock of the header", kDelete, &FaultyFileManager::fail_lock, 2, lock},
      {"delete, header", kDelete, &FaultyFileManager::fail_read, 1, read},
      {"delete, header again", kDelete, &FaultyFileManager::fail_write, 2, write},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    Fill(1);
    XBaseTable table(&application);
    Open(table);
    ASSERT_TRUE(table.Goto(1));
    SetField(table, 0, "new");
    auto run = [&] {
      return c.operation == kAppend   ? table.Append()
             : c.operation == kUpdate ? table.Update()
                                      : table.UpdateDeleted(1);
    };
    files.*c.countdown = c.call;
    EXPECT_FALSE(run());
    EXPECT_EQ(ErrorOf(table), c.error);
    EXPECT_TRUE(files.held.empty());
    EXPECT_EQ(table.record_number(), 1);
    EXPECT_EQ(table.record_count(), 1);
    EXPECT_EQ(ValueOf(table, 0), "new");
    EXPECT_TRUE(run()) << "tried again: " << ErrorOf(table);
    EXPECT_EQ(Table().substr(kPlainHeader), c.operation == kAppend   ? " r1       1 new      1\x1a"
                                            : c.operation == kUpdate ? " new      1\x1a"
                                                                     : "*r1       1\x1a");
  }
}

TEST_F(XBaseTableTest, APlaceBeyondAllFilesWritesNothing) {
  TableHeader header{0x83};
  header.record_count = 60000000;  // of 38 bytes each
  Table() = header.Bytes(AllTypes());
  Memos() = MemoHeader(1);
  XBaseTable table(&application);
  Open(table);
  const std::string before = Table();
  SetField(table, 4, "note");
  EXPECT_FALSE(table.Append());
  EXPECT_EQ(ErrorOf(table), "Error writing to 't.dbf': ");
  EXPECT_FALSE(table.Goto(59999999));
  EXPECT_EQ(ErrorOf(table), "Error reading from 't.dbf': ");
  EXPECT_EQ(Table(), before);
  EXPECT_EQ(Memos(), MemoHeader(1));
}

TEST_F(XBaseTableTest, TheCountNeverTurnsNegative) {
  TableHeader header;
  header.record_count = INT_MAX;
  header.record_length = 0;
  Table() = header.Bytes({});
  XBaseTable table(&application);
  Open(table);
  const std::string before = Table();
  EXPECT_FALSE(table.Append());
  EXPECT_EQ(ErrorOf(table), "Error writing to 't.dbf': ");
  EXPECT_EQ(Table(), before);
  EXPECT_TRUE(table.Goto(INT_MAX));
}

}  // namespace
