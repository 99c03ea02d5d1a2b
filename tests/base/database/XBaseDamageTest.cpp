// Tables and memo files that are cut off, or whose header bytes have other values: each operation
// ends, with a result or with one of its error texts.

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/TableFiles.h"

namespace {

class XBaseDamageTest : public TableFiles {
 protected:
  void SetUp() override {
    {
      XBaseTable table(&application);
      Create(table, AllTypes());
      ASSERT_TRUE(AppendRow(table, {"Ann", "12.50", "20240131", "T", "first memo"}));
      ASSERT_TRUE(AppendRow(table, {"Bob", "-3", "", "F", std::string(600, 'x')}));
      ASSERT_TRUE(AppendRow(table, {"Cid", "", "", "", ""}));
      ASSERT_TRUE(table.UpdateDeleted(1));
    }
    whole_table = Table();
    whole_memos = Memos();
    // A damaged header may refer to a position two gigabytes away.
    files.size_limit = 1000000;
  }

  // Reads the whole table, then changes it.
  void UseDamaged() {
    {
      XBaseTable table(&application);
      if (!table.Open(ZephPath_Data, "t.dbf", -1, kOpenTable)) return ExpectText(table);
      for (int record = 1; record <= 5; record++) {
        if (table.Goto(record))
          ReadFields(table);
        else
          ExpectText(table);
      }
      for (XBaseField* field = table.fields().First(); field; field = table.fields().Next())
        field->Set("1", 1);
      if (!table.Append()) ExpectText(table);
      if (table.Goto(1) && !table.Update()) ExpectText(table);
      if (table.record_number() == 1 && !table.UpdateDeleted(1)) ExpectText(table);
    }
    EXPECT_TRUE(files.held.empty());
    EXPECT_EQ(files.open_now, 0);
  }

  static void ReadFields(XBaseTable& table) {
    for (XBaseField* field = table.fields().First(); field; field = table.fields().Next()) {
      const char* value = field->data();
      if (!value) {
        ExpectText(table);
      } else if (field->type() != XBaseField_Memo) {
        EXPECT_LE(strlen(value), static_cast<size_t>(field->length()));
      }
    }
  }

  static void ExpectText(const XBaseTable& table) {
    static const char* const beginnings[] = {
        "Error reading from 't.dbf': ",
        "Error reading from 't.dbt': ",
        "Error writing to 't.dbf': ",
        "Error opening 't.dbt': ",
        "Invalid record number",
        "'t.dbf': Unsupported xBase file version (0x",
        "'t.dbf' contains an unsupported field (",
    };
    for (const char* text : beginnings)
      if (ErrorOf(table).rfind(text, 0) == 0) return;
    ADD_FAILURE() << "unexpected text: " << ErrorOf(table);
  }

  std::string whole_table, whole_memos;
};

TEST_F(XBaseDamageTest, TheTableIsCutAtEveryLength) {
  for (size_t length = 0; length <= whole_table.size(); length++) {
    SCOPED_TRACE(length);
    Table() = whole_table.substr(0, length);
    Memos() = whole_memos;
    UseDamaged();
  }
}

TEST_F(XBaseDamageTest, TheMemoFileIsCutAtEveryLength) {
  for (size_t length = 0; length <= whole_memos.size(); length++) {
    SCOPED_TRACE(length);
    Table() = whole_table;
    Memos() = whole_memos.substr(0, length);
    UseDamaged();
  }
}

TEST_F(XBaseDamageTest, RecordsInFrontOfTheCutAreWhole) {
  for (int records = 1; records <= 2; records++) {
    Table() = whole_table.substr(0, static_cast<size_t>(193 + 38 * records));
    XBaseTable table(&application);
    Open(table);
    for (int record = 1; record <= records; record++) EXPECT_TRUE(table.Goto(record));
    EXPECT_FALSE(table.Goto(records + 1));
    EXPECT_EQ(ErrorOf(table), "Error reading from 't.dbf': ");
  }
}

TEST_F(XBaseDamageTest, EveryHeaderByteTakesEveryValue) {
  for (size_t place = 0; place < 193; place++) {
    // Readers skip these bytes, so two values are enough.
    const size_t of_field = place % 32;
    const bool skipped =
        place < 32 ? place >= 12 : of_field >= 18 || (of_field >= 12 && of_field < 16);
    for (int value = 0; value < 256; value += skipped ? 255 : 1) {
      SCOPED_TRACE(testing::Message() << "byte " << place << " is " << value);
      Table() = whole_table;
      Table()[place] = static_cast<char>(value);
      Memos() = whole_memos;
      UseDamaged();
    }
  }
}

TEST_F(XBaseDamageTest, EveryBitOfTheRecordsIsFlipped) {
  for (size_t place = 193; place < whole_table.size(); place++) {
    for (int bit = 0; bit < 8; bit++) {
      SCOPED_TRACE(testing::Message() << "byte " << place << " bit " << bit);
      Table() = whole_table;
      Table()[place] = static_cast<char>(Table()[place] ^ (1 << bit));
      Memos() = whole_memos;
      UseDamaged();
    }
  }
}

TEST_F(XBaseDamageTest, EveryMemoHeaderByteTakesEveryValue) {
  for (size_t place = 0; place < 4; place++) {
    for (int value = 0; value < 256; value++) {
      SCOPED_TRACE(testing::Message() << "byte " << place << " is " << value);
      Table() = whole_table;
      Memos() = whole_memos;
      Memos()[place] = static_cast<char>(value);
      UseDamaged();
    }
  }
}

TEST_F(XBaseDamageTest, ABlockNumberInsideAnotherMemoReadsWhatIsThere) {
  Table() = whole_table;
  Table().replace(193 + 28, 10, "         3");
  XBaseTable table(&application);
  Open(table);
  ASSERT_TRUE(table.Goto(1));
  EXPECT_EQ(ValueOf(table, 4), std::string(88, 'x'));
}

// Another process may damage a table that this one has open.
TEST_F(XBaseDamageTest, AHeaderThatChangesUnderAnOpenTableIsFollowedOrRefused) {
  XBaseTable table(&application);
  Open(table);
  ASSERT_TRUE(table.Goto(3));
  const struct {
    size_t place;
    char value;
  } cases[] = {{0, 0x30}, {7, '\x80'}, {8, 5}, {9, '\xff'}, {10, 0}, {10, '\xff'}, {11, '\x7f'}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.place);
    Table() = whole_table;
    Table()[c.place] = c.value;
    if (c.place == 8) Table()[9] = 0;
    const auto told = [&](bool done) {
      if (!done) ExpectText(table);
    };
    told(table.Goto(4));
    told(table.Append());
    told(table.Update());
    told(table.UpdateDeleted(0));
    EXPECT_TRUE(files.held.empty());
    Table() = whole_table;
    EXPECT_FALSE(table.Goto(INT_MAX));
    EXPECT_EQ(table.record_length(), 38);
  }
}

}  // namespace
