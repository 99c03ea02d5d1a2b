#include "tools/DumpTable.h"

#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/TableOnDisk.h"
#include "tools/Dump.h"

namespace {

class DumpTable : public ::testing::Test {
 protected:
  // Three records, the second deleted.
  void SetUp() override {
    TableOnDisk maker(directory);
    auto columns = ColumnList(AllTypes());
    ASSERT_TRUE(maker.table.Create(ZephPath_Data, "t.dbf", "", 0, *columns));
    ASSERT_TRUE(AppendRow(maker.table, {"Ann", "12.50", "20240131", "T", "two\nlines"}));
    ASSERT_TRUE(AppendRow(maker.table, {"B, \"b\"", "-3", "20231231", "F", "x\x01y"}));
    ASSERT_TRUE(maker.table.UpdateDeleted(1));
    ASSERT_TRUE(AppendRow(maker.table, {"C\xe9", "", "", "", ""}));
    table_bytes = directory.Content("t.dbf");
    memo_bytes = directory.Content("t.dbt");
  }

  DumpRequest Request(DumpForm form = DumpForm::Text, bool header_only = false) const {
    return {directory.path("t.dbf"), form, header_only};
  }
  std::string Show(DumpForm form, bool header_only = false) {
    std::ostringstream out;
    EXPECT_EQ(ShowTable(Request(form, header_only), out, errors), dump_done) << errors.str();
    return out.str();
  }
  std::string Check(int status) {
    std::ostringstream out;
    EXPECT_EQ(CheckTable(Request(), out, errors), status);
    return out.str();
  }
  // Damages a copy of the files, and returns the output of the check.
  std::string CheckDamaged(int status,
                           const std::function<void(std::string&, std::string&)>& damage) {
    std::string table = table_bytes, memos = memo_bytes;
    damage(table, memos);
    directory.File("t.dbf", table);
    directory.File("t.dbt", memos);
    return Check(status);
  }

  TemporaryDirectory directory;
  std::string table_bytes, memo_bytes;
  std::ostringstream errors;
};

std::string Today() {
  char text[16];
  const time_t now = time(nullptr);
  struct tm date = {};
  gmtime_r(&now, &date);
  strftime(text, sizeof(text), "%Y-%m-%d", &date);
  return text;
}

TEST_F(DumpTable, AsTextHasHeaderFieldsAndRecords) {
  EXPECT_EQ(Show(DumpForm::Text), "table          " + directory.path("t.dbf") +
                                      "\n"
                                      "version        0x83\n"
                                      "last update    " +
                                      Today() +
                                      "\n"
                                      "records        3\n"
                                      "header length  193\n"
                                      "record length  38\n"
                                      "memos          " +
                                      directory.path("t.dbt") +
                                      "\n"
                                      "next block     3\n"
                                      "\n"
                                      "field        type  length  decimals  offset\n"
                                      "NAME         C         10         0       1\n"
                                      "AMOUNT       N          8         2      11\n"
                                      "DAY          D          8         0      19\n"
                                      "PAID         L          1         0      27\n"
                                      "NOTE         M         10         0      28\n"
                                      "\n"
                                      "record 1\n"
                                      "  NAME    Ann\n"
                                      "  AMOUNT  12.50\n"
                                      "  DAY     20240131\n"
                                      "  PAID    T\n"
                                      "  NOTE    two\n"
                                      "          lines\n"
                                      "\n"
                                      "record 2 (deleted)\n"
                                      "  NAME    B, \"b\"\n"
                                      "  AMOUNT  -3\n"
                                      "  DAY     20231231\n"
                                      "  PAID    F\n"
                                      "  NOTE    x?y\n"
                                      "\n"
                                      "record 3\n"
                                      "  NAME    C\xe9\n"
                                      "  AMOUNT  \n"
                                      "  DAY     \n"
                                      "  PAID    \n"
                                      "  NOTE    \n");
}

TEST_F(DumpTable, TheHeaderAloneLeavesTheRecordsOut) {
  const std::string text = Show(DumpForm::Text, true);
  EXPECT_NE(text.find("NOTE         M"), std::string::npos);
  EXPECT_EQ(text.find("record 1"), std::string::npos);
}

TEST_F(DumpTable, AsCsvHasARowForEachRecord) {
  EXPECT_EQ(Show(DumpForm::Csv),
            "record,deleted,NAME,AMOUNT,DAY,PAID,NOTE\n"
            "1,0,Ann,12.50,20240131,T,\"two\nlines\"\n"
            "2,1,\"B, \"\"b\"\"\",-3,20231231,F,x\x01y\n"
            "3,0,C\xe9,,,,\n");
}

TEST_F(DumpTable, TheHeaderAsCsvHasARowForEachField) {
  EXPECT_EQ(Show(DumpForm::Csv, true),
            "field,type,length,decimals\n"
            "NAME,C,10,0\nAMOUNT,N,8,2\nDAY,D,8,0\nPAID,L,1,0\nNOTE,M,10,0\n");
}

TEST_F(DumpTable, AsJsonHasValuesOfTheirKind) {
  const std::string text = Show(DumpForm::Json);
  EXPECT_EQ(
      text.substr(text.find(" \"records\"")),
      " \"records\": [\n"
      "  {\"record\": 1, \"deleted\": false, \"values\": {\"NAME\": \"Ann\", \"AMOUNT\": 12.50, "
      "\"DAY\": \"20240131\", \"PAID\": true, \"NOTE\": \"two\\nlines\"}},\n"
      "  {\"record\": 2, \"deleted\": true, \"values\": {\"NAME\": \"B, \\\"b\\\"\", "
      "\"AMOUNT\": -3, \"DAY\": \"20231231\", \"PAID\": false, \"NOTE\": \"x\\u0001y\"}},\n"
      "  {\"record\": 3, \"deleted\": false, \"values\": {\"NAME\": \"C\\u00e9\", "
      "\"AMOUNT\": null, \"DAY\": null, \"PAID\": null, \"NOTE\": \"\"}}]}\n");
  EXPECT_EQ(text.find("{\"table\": \"" + directory.path("t.dbf") + "\", \"version\": 131, "), 0u);
}

TEST_F(DumpTable, TheHeaderAsJsonIsOneObject) {
  const std::string text = Show(DumpForm::Json, true);
  EXPECT_TRUE(text.ends_with(
      "  {\"name\": \"NOTE\", \"type\": \"M\", \"length\": 10, \"decimals\": 0}]}\n"));
}

TEST_F(DumpTable, NumbersThatJsonDoesNotKnowAreTexts) {
  const struct {
    const char* bytes;
    const char* value;
  } cases[] = {{"       0", "0"},       {"    -0.5", "-0.5"},
               {"1.25    ", "1.25"},    {"      .5", "\".5\""},
               {"      5.", "\"5.\""},  {"      +1", "\"+1\""},
               {"      01", "\"01\""},  {"     1e3", "\"1e3\""},
               {"     abc", "\"abc\""}, {"********", "\"********\""},
               {"       -", "\"-\""}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.bytes);
    directory.File("t.dbf", std::string(table_bytes).replace(193 + 11, 8, c.bytes));
    EXPECT_NE(Show(DumpForm::Json).find("\"AMOUNT\": " + std::string(c.value) + ", "),
              std::string::npos);
  }
}

TEST_F(DumpTable, AFileThatIsNoTableIsTold) {
  for (const char* content : {"", "x", "this is no table at all, but a text of some length"}) {
    directory.File("t.dbf", content);
    std::ostringstream out, told;
    EXPECT_EQ(ShowTable(Request(), out, told), dump_failed);
    EXPECT_EQ(out.str(), "");
    EXPECT_EQ(told.str().rfind("zpdbf: ", 0), 0u);
  }
}

TEST_F(DumpTable, RecordsAfterTheEndAreToldTenTimesAtMost) {
  std::string bytes = table_bytes;
  bytes.replace(4, 4, "\xff\xff\xff\x7f");
  directory.File("t.dbf", bytes);
  std::ostringstream out, told;
  EXPECT_EQ(ShowTable(Request(DumpForm::Csv), out, told), dump_failed);
  const std::string text = told.str();
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 10);
  EXPECT_NE(out.str().find("\n3,0,C"), std::string::npos);
}

TEST_F(DumpTable, AMemoThatCannotBeReadIsToldAndLeftOut) {
  directory.File("t.dbf", std::string(table_bytes).replace(193 + 28, 10, "9999999999"));
  std::ostringstream out, told;
  EXPECT_EQ(ShowTable(Request(DumpForm::Json), out, told), dump_failed);
  EXPECT_NE(out.str().find("\"PAID\": true, \"NOTE\": null}}"), std::string::npos);
  EXPECT_NE(told.str().find("zpdbf: Error reading from '" + directory.path("t.dbt")),
            std::string::npos);
}

// --- The check -----------------------------------------------------------------------------------

TEST_F(DumpTable, AWholeTableIsOk) {
  EXPECT_EQ(Check(dump_done), "ok: 3 records, 1 deleted, 2 memos\n");
}

TEST_F(DumpTable, EachDamageIsTold) {
  using Bytes = std::string;
  const size_t first = 193, memo = 193 + 28;
  const struct {
    const char* label;
    int status;
    std::function<void(Bytes&, Bytes&)> damage;
    const char* line;
  } cases[] = {
      {"version without memos", dump_done, [](Bytes& t, Bytes&) { t[0] = 3; },
       "note: version 0x03 with memo fields\n"},
      {"date", dump_done, [](Bytes& t, Bytes&) { t[2] = 13; },
       "note: the last update is no date: "},
      {"bytes after the fields", dump_failed, [](Bytes& t, Bytes&) { t[8]++; },
       "note: the header has 1 bytes after its fields\n"},
      {"end of the fields", dump_done, [](Bytes& t, Bytes&) { t[192] = 0; },
       "note: no end mark after the fields\n"},
      {"record length", dump_failed, [](Bytes& t, Bytes&) { t[10]--; },
       "problem: records have 37 bytes, their fields 38\n"},
      {"no name", dump_done, [](Bytes& t, Bytes&) { t.replace(32, 11, 11, '\0'); },
       "note: a field without a name\n"},
      {"name twice", dump_done, [](Bytes& t, Bytes&) { t.replace(64, 11, t.substr(32, 11)); },
       "note: two fields are named NAME\n"},
      {"cut", dump_failed, [](Bytes& t, Bytes&) { t.resize(193 + 38 * 2 + 5); },
       "problem: the file ends after 2 of 3 records\n"},
      {"cut in the header", dump_failed, [](Bytes& t, Bytes&) { t.resize(100); },
       "problem: Error reading from '"},
      {"no end mark", dump_done, [](Bytes& t, Bytes&) { t.pop_back(); },
       "note: no end mark after the records\n"},
      {"more after it", dump_done, [](Bytes& t, Bytes&) { t += "1234"; },
       "note: 4 bytes after the end mark\n"},
      {"flag", dump_done, [](Bytes& t, Bytes&) { t[193] = 'x'; },
       "note: record 1: the deletion flag is byte 120\n"},
      {"number", dump_done, [=](Bytes& t, Bytes&) { t.replace(first + 11, 8, "  1.2.3 "); },
       "note: record 1: AMOUNT is no number: '1.2.3 '\n"},
      {"day", dump_done, [=](Bytes& t, Bytes&) { t.replace(first + 19, 8, "20230229"); },
       "note: record 1: DAY is no date: '20230229'\n"},
      {"logical", dump_done, [=](Bytes& t, Bytes&) { t[first + 27] = 'x'; },
       "note: record 1: PAID is neither true nor false: 'x'\n"},
      {"block number", dump_failed, [=](Bytes& t, Bytes&) { t[memo] = 'x'; },
       "problem: record 1: memo NOTE has no number: 'x        1'\n"},
      {"free block", dump_failed, [=](Bytes& t, Bytes&) { t[memo + 9] = '3'; },
       "problem: record 1: memo NOTE begins at block 3, which is said to be free\n"},
      {"memo header", dump_failed, [](Bytes&, Bytes& m) { m[0] = 2; },
       "problem: record 2: memo NOTE begins at block 2, which is said to be free\n"},
      {"negative", dump_failed, [](Bytes&, Bytes& m) { m[3] = '\xff'; },
       "problem: the next free memo block is -"},
      {"memo cut", dump_failed, [](Bytes&, Bytes& m) { m.resize(1026); },
       "problem: record 2: memo NOTE is cut by the end of the file\n"},
      {"shared memo", dump_done, [=](Bytes& t, Bytes&) { t[memo + 9] = '2'; },
       "note: records 1 and 2 share a memo\n"},
      {"overlap", dump_failed, [](Bytes&, Bytes& m) { m.replace(512, 7, 600, 'x'); },
       "problem: records 1 and 2 have memos that run into each other\n"},
      {"longer memo file", dump_done, [](Bytes&, Bytes& m) { m.resize(512 * 5); },
       "note: the memo file goes on after the next free block\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    const std::string said = CheckDamaged(c.status, c.damage);
    EXPECT_NE(said.find(c.line), std::string::npos) << said;
    EXPECT_EQ(said.find("\nok: ") != std::string::npos, c.status == dump_done) << said;
  }
}

TEST_F(DumpTable, ProblemsAreCounted) {
  EXPECT_TRUE(CheckDamaged(dump_failed, [](std::string& t, std::string&) {
                t[193 + 28] = 'x';
              }).ends_with("\n1 problem\n"));
  EXPECT_TRUE(CheckDamaged(dump_failed, [](std::string& t, std::string& m) {
                t[193 + 28] = 'x';
                m[0] = 1;
              }).ends_with("\n2 problems\n"));
}

TEST_F(DumpTable, AHundredLinesAreEnough) {
  const std::string said = CheckDamaged(dump_done, [](std::string& t, std::string&) {
    t.pop_back();
    for (int i = 0; i < 200; i++) t += "#" + t.substr(193 + 38 * 2 + 1, 37);
    t[4] = static_cast<char>(203);
  });
  EXPECT_NE(said.find("and 101 more\nok: 203 records"), std::string::npos) << said;
}

// --- Texts ---------------------------------------------------------------------------------------

TEST(Dump, JsonTextsAreValidWhateverTheBytes) {
  const struct {
    const char* label;
    std::string text;
    const char* json;
  } cases[] = {
      {"plain", "abc", "\"abc\""},
      {"quotes", "a\"b\\c", "\"a\\\"b\\\\c\""},
      {"controls", "a\tb\n\r\x7f", "\"a\\u0009b\\n\\u000d\\u007f\""},
      {"NUL", std::string("a\0b", 3), "\"a\\u0000b\""},
      {"two bytes", "\xc3\xa9", "\"\xc3\xa9\""},
      {"three", "\xe2\x82\xac", "\"\xe2\x82\xac\""},
      {"four", "\xf0\x9f\x98\x80", "\"\xf0\x9f\x98\x80\""},
      {"Latin-1", "\xe9t\xe9", "\"\\u00e9t\\u00e9\""},
      {"cut", "\xe2\x82", "\"\\u00e2\\u0082\""},
      {"overlong", "\xc0\x80", "\"\\u00c0\\u0080\""},
      {"overlong, three", "\xe0\x80\x80", "\"\\u00e0\\u0080\\u0080\""},
      {"surrogate", "\xed\xa0\x80", "\"\\u00ed\\u00a0\\u0080\""},
      {"too large", "\xf4\x90\x80\x80", "\"\\u00f4\\u0090\\u0080\\u0080\""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    std::ostringstream out;
    WriteJsonText(out, c.text);
    EXPECT_EQ(out.str(), c.json);
  }
}

}  // namespace
