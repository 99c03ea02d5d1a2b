// A process is killed between any two of its calls, or in the middle of a write: what does the next
// process find in the files? A record is counted only when it is whole, a field points to a memo
// only when the memo is whole, and the data from before is untouched.

#include <functional>
#include <string>
#include <vector>

#include "tests/support/TableFiles.h"

namespace {

using Lines = std::vector<std::string>;

class XBaseKilledTest : public TableFiles {
 protected:
  void SetUp() override {
    {
      XBaseTable table(&application);
      Create(table, AllTypes());
      ASSERT_TRUE(AppendRow(table, ann));
      ASSERT_TRUE(AppendRow(table, bob));
    }
    before = files.files;
  }

  // Runs the operation on record 2 again and again, killed at its first call, its second and so on,
  // and checks what each run has left. A killed write still writes its first `torn` bytes: none,
  // some or all of them.
  void KillAtEveryCall(int torn, const std::function<bool(XBaseTable&)>& operation,
                       const std::function<void(XBaseTable&)>& look) {
    bool done = false;
    for (int call = 1; !done; call++) {
      SCOPED_TRACE(testing::Message() << "killed at call " << call << ", " << torn << " written");
      files.files = before;
      {
        XBaseTable table(&application);
        Open(table);
        ASSERT_TRUE(table.Goto(2));
        files.kill_call = call;
        files.killed_write_length = torn;
        operation(table);
        done = !files.killed;
      }
      files.Revive();
      {
        XBaseTable table(&application);
        Open(table);
        ASSERT_TRUE(table.Goto(1));
        EXPECT_EQ(ValuesOf(table), ann);
        look(table);
      }
      AppendOneMore();
      ASSERT_LT(call, 100);
    }
  }

  // No matter what was left, the table is usable.
  void AppendOneMore() {
    const Lines eve = {"Eve", "5", "20250101", "F", "Eve's memo"};
    XBaseTable table(&application);
    Open(table);
    ASSERT_TRUE(AppendRow(table, eve));
    const int record = table.record_number();
    XBaseTable reader(&application);
    Open(reader);
    EXPECT_EQ(reader.record_count(), record);
    ASSERT_TRUE(reader.Goto(record));
    EXPECT_EQ(ValuesOf(reader), eve);
    ASSERT_TRUE(reader.Goto(1));
    EXPECT_EQ(ValuesOf(reader), ann);
    EXPECT_EQ(Table().size(), static_cast<size_t>(193 + 38 * record + 1));
    EXPECT_EQ(Table().back(), '\x1a');
  }

  const Lines ann = {"Ann", "12.50", "20240131", "T", "Ann's memo"};
  const Lines bob = {"Bob", "-3", "20231231", "F", std::string(600, 'b')};
  const Lines cid = {"Cid", "7", "20221130", "T", std::string(700, 'c')};
  std::map<std::string, std::string> before;
};

TEST_F(XBaseKilledTest, AppendingLeavesTheOldRecordsOrAWholeNewOne) {
  for (int torn : {0, 1, 16, INT_MAX}) {
    bool seen[2] = {};
    KillAtEveryCall(
        torn, [&](XBaseTable& table) { return AppendRow(table, cid); },
        [&](XBaseTable& table) {
          ASSERT_TRUE(table.Goto(2));
          EXPECT_EQ(ValuesOf(table), bob);
          const bool appended = table.Goto(3);
          seen[appended] = true;
          if (appended) {
            EXPECT_EQ(ValuesOf(table), cid);
          }
          EXPECT_EQ(table.record_count(), appended ? 3 : 2);
        });
    EXPECT_TRUE(seen[0] && seen[1]);
  }
}

TEST_F(XBaseKilledTest, UpdatingLeavesTheOldRecordOrTheNewOne) {
  for (int torn : {0, INT_MAX}) {
    bool seen[2] = {};
    KillAtEveryCall(
        torn,
        [&](XBaseTable& table) {
          for (int i = 0; i < 5; i++) SetField(table, i, cid[static_cast<size_t>(i)]);
          return table.Update();
        },
        [&](XBaseTable& table) {
          ASSERT_TRUE(table.Goto(2));
          const bool updated = ValueOf(table, 0) == "Cid";
          seen[updated] = true;
          EXPECT_EQ(ValuesOf(table), updated ? cid : bob);
          EXPECT_EQ(table.record_count(), 2);
        });
    EXPECT_TRUE(seen[0] && seen[1]);
  }
}

// The system writes a record in one piece. If it does not, the neighbours and all memos are still
// whole.
TEST_F(XBaseKilledTest, ATornUpdateTouchesItsOwnRecordAlone) {
  for (int torn : {1, 5, 37}) {
    KillAtEveryCall(
        torn,
        [&](XBaseTable& table) {
          for (int i = 0; i < 5; i++) SetField(table, i, cid[static_cast<size_t>(i)]);
          return table.Update();
        },
        [&](XBaseTable& table) {
          ASSERT_TRUE(table.Goto(2));
          const std::string memo = ValueOf(table, 4);
          EXPECT_TRUE(memo == bob[4] || memo == cid[4]);
          EXPECT_EQ(table.record_count(), 2);
        });
  }
}

TEST_F(XBaseKilledTest, TheDeletionFlagIsTheOldOneOrTheNewOne) {
  for (int torn : {0, INT_MAX}) {
    bool seen[2] = {};
    KillAtEveryCall(
        torn, [&](XBaseTable& table) { return table.UpdateDeleted(1); },
        [&](XBaseTable& table) {
          ASSERT_TRUE(table.Goto(2));
          seen[table.deleted() != 0] = true;
          EXPECT_EQ(ValuesOf(table), bob);
        });
    EXPECT_TRUE(seen[0] && seen[1]);
  }
}

TEST_F(XBaseKilledTest, ATableThatIsHalfCreatedIsRefusedOrEmpty) {
  bool done = false;
  for (int call = 1; !done; call++) {
    for (int torn : {0, 1, INT_MAX}) {
      SCOPED_TRACE(testing::Message() << "killed at call " << call << ", " << torn << " written");
      files.files.clear();
      auto columns = ColumnList(AllTypes());
      files.kill_call = call;
      files.killed_write_length = torn;
      {
        XBaseTable table(&application);
        done = table.Create(ZephPath_Data, "t.dbf", "", 0, *columns);
      }
      files.Revive();
      XBaseTable table(&application);
      if (table.Open(ZephPath_Data, "t.dbf", -1, kOpenTable)) {
        EXPECT_EQ(table.record_count(), 0);
        ASSERT_TRUE(AppendRow(table, ann)) << ErrorOf(table);
        ASSERT_TRUE(table.Goto(1));
        EXPECT_EQ(ValuesOf(table), ann);
      } else {
        EXPECT_EQ(ErrorOf(table).rfind("Error reading from 't.db", 0), 0u) << ErrorOf(table);
      }
    }
    ASSERT_LT(call, 100);
  }
}

}  // namespace
