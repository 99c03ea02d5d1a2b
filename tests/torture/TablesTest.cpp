// Tables and indexes, with each system call failing in turn and each block of memory refused in
// turn: records are the old or the new ones, what was acknowledged is there, and an index is whole
// or shows that it is not.

#include <filesystem>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "base/database/XBaseTable.h"
#include "base/database/ZIXIndexFile.h"
#include "tests/support/TableFiles.h"
#include "tests/support/ZIXIndexChecker.h"
#include "tests/support/ZIXIndexOperations.h"
#include "tests/torture/Sweeps.h"
#include "tools/DumpIndex.h"

namespace {

namespace fs = std::filesystem;

using Row = std::vector<std::string>;

const Row kAnn = {"Ann", "12.50", "20240131", "T", "Ann's memo"};
const Row kBob = {"Bob", "-3", "20231231", "F", std::string(600, 'b')};
const Row kCid = {"Cid", "7", "20221130", "T", std::string(700, 'c')};
const Row kDan = {"Dan", "8", "20200229", "F", ""};

// A host on the data directory of a test.
struct DataHost : Host {
  explicit DataHost(const TemporaryDirectory& directory)
      : configured(files.InitializeDataDirectory(directory.path("data").c_str())) {}

  bool configured;
};

class DataSweeps : public Sweeps {
 protected:
  void EmptyData() {
    fs::remove_all(directory.path("data"));
    directory.Directory("data");
  }
};

struct OpenTable : DataHost {
  using DataHost::DataHost;

  bool Create() {
    std::unique_ptr<List<XBaseField>> columns;
    {
      const FailingAllocator::Pause pause;
      columns = ColumnList(AllTypes());
    }
    return table.Create(ZephPath_Data, "t.dbf", "", 0, *columns);
  }

  XBaseTable table{&application};
};

class TablesUnderFailures : public DataSweeps {
 protected:
  void StartOver() {
    done = Done();
    EmptyData();
    OpenTable made(directory);
    ASSERT_TRUE(made.Create());
    for (const Row& row : {kAnn, kBob}) ASSERT_TRUE(AppendRow(made.table, row));
  }
  // The values of a record; the text of the failure if it cannot be read.
  static Row Values(XBaseTable& table, int record) {
    return table.Goto(record) ? ValuesOf(table) : Row{ErrorOf(table)};
  }
  static bool SameButMemo(const Row& a, const Row& b) {
    return a.size() == 5 && Row(a.begin(), a.end() - 1) == Row(b.begin(), b.end() - 1);
  }

  // What the run was told.
  struct Done {
    bool updated = false;
    bool memo_updated = false;
    bool deleted = false;
    int tried = 0;     // records appended with success or without
    int appended = 0;  // those with success
  } done;

  void Run(OpenTable& host) {
    if (!host.configured) return NeedText(host.files.error());
    XBaseTable& table = host.table;
    if (!table.Open(ZephPath_Data, "t.dbf", -1, kOpenTable)) return NeedText(table.error());
    if (!table.Goto(2)) return NeedText(table.error());
    for (int i = 0; i < 5; i++) SetField(table, i, kCid[static_cast<size_t>(i)]);
    table.Error(String("", 0));
    done.updated = table.Update();
    if (!done.updated) NeedText(table.error());
    // A memo that could not be written leaves its text, and the record has the old one.
    done.memo_updated = done.updated && table.error().length == 0;
    done.deleted = table.UpdateDeleted(1);
    if (!done.deleted) NeedText(table.error());
    table.Deactivate();
    for (const Row* row : {&kDan, &kAnn}) {
      done.tried++;
      if (AppendRow(table, *row))
        done.appended++;
      else
        NeedText(table.error());
    }
    if (!table.Goto(1)) return NeedText(table.error());
    if (ValueOf(table, 0) != "Ann") Broken("record 1");
    if (!FieldOf(table, 4)->data()) NeedText(table.error());
  }

  void Check() {
    OpenTable host(directory);
    XBaseTable& table = host.table;
    ASSERT_TRUE(table.Open(ZephPath_Data, "t.dbf", -1, kOpenTable)) << ErrorOf(table);
    EXPECT_EQ(Values(table, 1), kAnn);
    const Row second = Values(table, 2);
    if (done.updated) {
      EXPECT_TRUE(SameButMemo(second, kCid)) << testing::PrintToString(second);
    }
    if (done.memo_updated) {
      EXPECT_EQ(second, kCid);
    }
    EXPECT_TRUE(SameButMemo(second, kCid) || SameButMemo(second, kBob));
    EXPECT_TRUE(second.back() == kCid.back() || second.back() == kBob.back());
    if (done.deleted) {
      EXPECT_TRUE(table.deleted());
    }
    // A record whose header could not be written may count all the same.
    EXPECT_GE(table.record_count(), 2 + done.appended);
    EXPECT_LE(table.record_count(), 2 + done.tried);
    for (int record = 3; record <= table.record_count(); record++) {
      const Row row = Values(table, record);
      EXPECT_TRUE(SameButMemo(row, kDan) || SameButMemo(row, kAnn)) << testing::PrintToString(row);
    }
    // It can be used.
    ASSERT_TRUE(AppendRow(table, kCid)) << ErrorOf(table);
    EXPECT_EQ(Values(table, table.record_count()), kCid);
  }
};

TEST_F(TablesUnderFailures, RecordsAreOldOrNewAndAcknowledgedOnesAreThere) {
  ExpectBothSweeps({[&] { StartOver(); },
                    [&] {
                      OpenTable open(directory);
                      Run(open);
                    },
                    [&](const SystemCallFault&) {
                      Check();
                      done = Done();
                    }});
}

TEST_F(TablesUnderFailures, ATableThatIsMadeIsWholeOrItsCreationFails) {
  bool made = false;
  ExpectBothSweeps({[&] {
                      EmptyData();
                      made = false;
                    },
                    [&] {
                      OpenTable host(directory);
                      if (!host.configured) return;
                      made = host.Create();
                      if (!made) NeedText(host.table.error());
                    },
                    [&](const SystemCallFault&) {
                      OpenTable host(directory);
                      const bool opens = host.table.Open(ZephPath_Data, "t.dbf", -1, kOpenTable);
                      if (!made && !opens) return;
                      ASSERT_TRUE(opens) << ErrorOf(host.table);
                      ASSERT_TRUE(AppendRow(host.table, kCid));
                      EXPECT_EQ(Values(host.table, 1), kCid);
                    }});
}

// --- Indexes -------------------------------------------------------------------------------------

struct OpenIndex : DataHost {
  using DataHost::DataHost;

  ZIXIndexFile index{&application};
};

class IndexesUnderFailures : public DataSweeps {
 protected:
  static std::string Key(unsigned record) { return "key " + std::to_string(100 + record); }
  using Records = std::set<unsigned>;

  // Pages of at most 4 entries, so that most changes reach several.
  void StartOver(unsigned count) {
    EmptyData();
    directory.File("data/i.zix", EmptyZIXIndex({ZIXIndex_Text, 4, 432, 24}));
    OpenIndex host(directory);
    ASSERT_TRUE(host.index.Open(ZephPath_Data, "i.zix", 3));
    for (unsigned record = 1; record <= count; record++)
      ASSERT_TRUE(Insert(host.index, Key(record), record));
    before = directory.Content("data/i.zix");
  }
  void Restore() {
    std::ofstream(directory.path("data/i.zix"), std::ios::binary | std::ios::trunc) << before;
    acknowledged = 0;
    failed = false;
  }
  bool Open(OpenIndex& host) {
    if (host.configured && host.index.Open(ZephPath_Data, "i.zix", 3)) return true;
    NeedText(host.configured ? host.index.error() : host.files.error());
    return false;
  }
  static Records RecordsOf(const ZIXIndexChecker& checker) {
    Records records;
    for (const auto& entry : checker.entries) records.insert(entry.second);
    return records;
  }

  // If zpdbf finds no problem, the file has one of the two sets of records. A rebuild gives a whole
  // index in any case.
  void Check(const Records& now, const Records& next) {
    const std::string bytes = directory.Content("data/i.zix");
    std::ostringstream report;
    if (CheckIndex({directory.path("data/i.zix")}, report, report) == dump_done) {
      whole++;
      ZIXIndexChecker checker(bytes);
      EXPECT_EQ(checker.Check(), "") << report.str();
      const Records found = RecordsOf(checker);
      EXPECT_EQ(found.size(), checker.entries.size()) << "an entry occurs twice";
      EXPECT_TRUE(found == now || (failed && found == next)) << testing::PrintToString(found);
    } else {
      damaged++;
      EXPECT_TRUE(failed) << "damaged, although all went well: " << report.str();
    }
    OpenIndex host(directory);
    // A file whose header is torn cannot be opened.
    if (host.index.Open(ZephPath_Data, "i.zix", 3)) {
      EXPECT_EQ(ExerciseZIXIndex(host.index, "i.zix", bytes.size()), "");
    }
    Rebuild(now);
  }
  void Rebuild(const Records& records) {
    OpenIndex host(directory);
    ASSERT_TRUE(host.index.Create(ZephPath_Data, "new.zix", KeyBytes("key"), ZIXIndex_Text));
    for (unsigned record : records) ASSERT_TRUE(Insert(host.index, Key(record), record));
    const std::string bytes = directory.Content("data/new.zix");
    ZIXIndexChecker checker(bytes);
    EXPECT_EQ(checker.Check(), "");
    EXPECT_EQ(RecordsOf(checker), records);
  }

  std::string before;
  unsigned acknowledged = 0;  // changes
  bool failed = false;
  int whole = 0;
  int damaged = 0;
};

TEST_F(IndexesUnderFailures, AnInsertionIsWholeOrShowsThatItIsNot) {
  constexpr unsigned start = 13;
  constexpr unsigned more = 6;
  StartOver(start);
  ExpectBothSweeps({[&] { Restore(); },
                    [&] {
                      failed = true;
                      OpenIndex host(directory);
                      if (!Open(host)) return;
                      for (unsigned i = 1; i <= more; i++) {
                        if (!Insert(host.index, Key(start + i), start + i))
                          return NeedText(host.index.error());
                        acknowledged++;
                      }
                      failed = false;
                    },
                    [&](const SystemCallFault&) {
                      Records now;
                      for (unsigned i = 1; i <= start + acknowledged; i++) now.insert(i);
                      Records next = now;
                      next.insert(start + acknowledged + 1);
                      Check(now, next);
                    }});
  EXPECT_GT(whole, 20);
}

TEST_F(IndexesUnderFailures, ADeletionIsWholeOrShowsThatItIsNot) {
  constexpr unsigned start = 24;
  StartOver(start);
  const std::vector<unsigned> order = {9, 1, 2, 12, 24, 23, 5};
  ExpectBothSweeps({[&] { Restore(); },
                    [&] {
                      failed = true;
                      OpenIndex host(directory);
                      if (!Open(host)) return;
                      for (unsigned record : order) {
                        if (!Delete(host.index, Key(record), record))
                          return NeedText(host.index.error());
                        acknowledged++;
                      }
                      failed = false;
                    },
                    [&](const SystemCallFault&) {
                      Records now;
                      for (unsigned i = 1; i <= start; i++) now.insert(i);
                      for (unsigned i = 0; i < acknowledged; i++) now.erase(order[i]);
                      Records next = now;
                      if (acknowledged < order.size()) next.erase(order[acknowledged]);
                      Check(now, next);
                    }});
  EXPECT_GT(whole, 20);
}

// A reader either finds all entries or has a text that says why not.
TEST_F(IndexesUnderFailures, AReaderThatEndsEarlyHasAText) {
  constexpr unsigned start = 30;
  StartOver(start);
  ExpectBothSweeps(
      {[&] { Restore(); },
       [&] {
         OpenIndex host(directory);
         if (!Open(host)) return;
         unsigned found = 0;
         for (unsigned record = First(host.index); record != 0 && record != 99999;
              record = Next(host.index))
           found++;
         if (found != start) NeedText(host.index.error());
         const ZIXIndexFound one = Find(host.index, Key(7));
         if (!one.good) return NeedText(host.index.error());
         if (one.record != 7) Broken("_Find");
       },
       [&](const SystemCallFault&) { EXPECT_EQ(directory.Content("data/i.zix"), before); }});
}

TEST_F(IndexesUnderFailures, AnIndexThatIsMadeIsWholeOrItsCreationFails) {
  bool made = false;
  ExpectBothSweeps({[&] {
                      EmptyData();
                      made = false;
                    },
                    [&] {
                      OpenIndex host(directory);
                      if (!host.configured) return;
                      made = host.index.Create(ZephPath_Data, "i.zix", KeyBytes("key"), 0) &&
                             Insert(host.index, "a", 1);
                      if (!made) NeedText(host.index.error());
                    },
                    [&](const SystemCallFault&) {
                      const std::string bytes = directory.Content("data/i.zix");
                      ZIXIndexChecker checker(bytes);
                      if (made) {
                        EXPECT_EQ(checker.Check(), "");
                        EXPECT_EQ(checker.entries.size(), 1u);
                      }
                    }});
}

}  // namespace
