// Pack and reindex, and what is left when they fail at any of their calls.

#include <functional>
#include <map>

#include "base/core/RunLimit.h"
#include "base/database/XBaseDatabaseView.h"
#include "tests/support/TableFiles.h"
#include "tests/support/XBaseMachine.h"

namespace {

class XBasePackTest : public XBaseMachine {
 protected:
  // Five records with memos; 2 and 5 are deleted. Two indexes, "name.zix" is primary.
  void SetUp() override {
    ASSERT_TRUE(CreateTable("name char(10), n number(6.2), day date, ok bool, note memo"));
    int n = 0;
    for (const char* name : {"d", "b", "e", "a", "c"}) {
      n++;
      ASSERT_TRUE(Add({{"name", name},
                       {"n", std::to_string(n) + ".25"},
                       {"day", "2026112" + std::to_string(n)},
                       {"ok", n % 2 ? "1" : "0"},
                       {"note", n == 3 ? "" : std::string(static_cast<size_t>(n) * 300, 'm')}}))
          << ViewError();
    }
    ASSERT_TRUE(CreateIndex("n.zix", "d.n", "descending"));
    ASSERT_TRUE(CreateIndex("name.zix", "d.name", "unique"));
    for (const int record : {2, 5}) {
      ASSERT_TRUE(Go(record));
      ASSERT_TRUE(view().Delete());
    }
  }
  std::string Rows() {
    XBaseTable table(&machine.application);
    EXPECT_TRUE(table.Open(ZephPath_Data, "t.dbf", -1, 3)) << ErrorOf(table);
    std::string all;
    for (int record = 1; record <= table.record_count(); record++) {
      EXPECT_TRUE(table.Goto(record)) << ErrorOf(table);
      if (table.deleted()) all += "*";
      for (const std::string& value : ValuesOf(table))
        all += (value.size() > 20 ? std::to_string(value.size()) : value) + "|";
      all += " ";
    }
    return all;
  }
  const std::string kPacked = "d|1.25|20261121|T|300| e|3.25|20261123|T|| a|4.25|20261124|F|1200| ";
};

TEST_F(XBasePackTest, DropsDeletedRecordsAndTheirKeys) {
  ASSERT_TRUE(database->Pack()) << Error();
  EXPECT_EQ(Rows(), kPacked);
  EXPECT_EQ(Pairs(Entries("name.zix")), "a:3 d:1 e:2");
  EXPECT_EQ(Pairs(Entries("n.zix")), "4.25:3 3.25:2 1.25:1");
  EXPECT_EQ(files.files.size(), 4u);  // no temporary file is left
  EXPECT_EQ(Place(), "3");
  EXPECT_EQ(Value("totrec"), "3");
  EXPECT_EQ(Value("note"), std::string(1200, 'm'));
  ASSERT_TRUE(Skip(1));
  EXPECT_EQ(Place(), "1");
}

TEST_F(XBasePackTest, GoesOnWithTheNewFiles) {
  ASSERT_TRUE(database->Pack());
  ASSERT_TRUE(Add({{"name", "f"}, {"n", "9"}, {"note", "new"}}));
  ASSERT_TRUE(Go(1));
  Set("name", "g");
  ASSERT_TRUE(view().Update()) << ViewError();
  EXPECT_EQ(Pairs(Entries("name.zix")), "a:3 e:2 f:4 g:1");
  ASSERT_TRUE(SetPrimary("n.zix")) << Error();
  ASSERT_TRUE(database->Pack());
  EXPECT_EQ(Place(), "4");
}

TEST_F(XBasePackTest, KeepsFlagsAndExpressions) {
  const auto head = [&](const char* path) { return files.files[path].substr(23, 404); };
  const std::string name = head("name.zix"), n = head("n.zix");
  ASSERT_TRUE(database->Pack());
  EXPECT_EQ(head("name.zix"), name);
  EXPECT_EQ(head("n.zix"), n);
  ASSERT_TRUE(database->Reindex());
  EXPECT_EQ(head("name.zix"), name);
}

TEST_F(XBasePackTest, LaysMemosAfresh) {
  for (const int record : {2, 5}) {
    ASSERT_TRUE(Go(record));
    ASSERT_TRUE(view().UnDelete());
  }
  const std::string rows = Rows();
  // Each update of a memo leaves its old blocks in the file.
  for (int i = 0; i < 10; i++) {
    ASSERT_TRUE(Go(4));
    Set("note", std::string(1200, 'm'));
    ASSERT_TRUE(view().Update());
  }
  ASSERT_TRUE(database->Pack()) << Error();
  EXPECT_EQ(Rows(), rows);
  // The header, and blocks of 1, 2, 3 and 3 times 512 bytes; the last one ends with two end marks.
  EXPECT_EQ(files.files["t.dbt"].size(), 512u * (1 + 1 + 2 + 3) + 1502);
}

TEST_F(XBasePackTest, ATableWithoutMemosHasNoMemoFile) {
  ASSERT_TRUE(CreateTable("a char(3)", "u.dbf"));
  ASSERT_TRUE(Add({{"a", "x"}}));
  ASSERT_TRUE(database->Pack()) << Error();
  EXPECT_EQ(files.files.count("u.dbt"), 0u);
  EXPECT_EQ(Value("a"), "x");
}

// Its header says that there is one, but no field needs it. The new table's header does not say so.
TEST_F(XBasePackTest, AMemoFileThatNoFieldNeedsIsEmptyAfterwards) {
  ASSERT_TRUE(CreateTable("a char(3)", "u.dbf"));
  ASSERT_TRUE(Add({{"a", "x"}}));
  files.files["u.dbf"][0] = static_cast<char>(0x83);
  files.files["u.dbt"] = "\1" + std::string(511, '\0') + "\x1A";
  ASSERT_TRUE(OpenTable("u.dbf")) << Error();
  ASSERT_TRUE(database->Pack()) << Error();
  EXPECT_EQ(files.files["u.dbt"], "");
  EXPECT_EQ(files.files["u.dbf"][0], 3);
  EXPECT_EQ(Value("a"), "x");
  EXPECT_EQ(files.open_now, 1);
}

TEST_F(XBasePackTest, AnEmptyTableStaysEmpty) {
  ASSERT_TRUE(CreateTable("a char(3)", "u.dbf"));
  ASSERT_TRUE(CreateIndex("u.zix", "d.a"));
  ASSERT_TRUE(database->Pack()) << Error();
  EXPECT_EQ(Place(), "eof/0");
  ASSERT_TRUE(database->Reindex()) << Error();
  EXPECT_EQ(Place(), "eof/0");
}

TEST_F(XBasePackTest, AHeldFieldIsNullAfterwards) {
  Variable* held = Field("name");
  held->IncRefCount();
  ASSERT_TRUE(database->Pack());
  EXPECT_NE(Field("name"), held);
  EXPECT_EQ(held->IsNULL(), 1);
  held->DecRefCount();
}

TEST_F(XBasePackTest, CompilesNothingAgain) {
  ASSERT_TRUE(Go(-1));
  const int segments = machine.segments.Segments();
  ASSERT_TRUE(database->Pack());
  ASSERT_TRUE(database->Reindex());
  EXPECT_EQ(machine.segments.Segments(), segments);
}

// --- Reindex -------------------------------------------------------------------------------------

TEST_F(XBasePackTest, ReindexKeepsDeletedRecords) {
  const std::string rows = Rows();
  ASSERT_TRUE(database->Reindex()) << Error();
  EXPECT_EQ(Rows(), rows);
  EXPECT_EQ(Pairs(Entries("name.zix")), "a:4 b:2 c:5 d:1 e:3");
  EXPECT_EQ(Place(), "4");
  EXPECT_EQ(files.files.size(), 4u);
}

TEST_F(XBasePackTest, ReindexRepairsADamagedIndex) {
  files.files["name.zix"].replace(1024, 500, std::string(500, '\xff'));
  ASSERT_TRUE(database->Reindex()) << Error();
  EXPECT_EQ(Pairs(Entries("name.zix")), "a:4 b:2 c:5 d:1 e:3");
  ASSERT_TRUE(Find("b"));
  EXPECT_EQ(Place(), "2");
}

TEST_F(XBasePackTest, ReindexWithoutIndexesDoesNothing) {
  ASSERT_TRUE(OpenIndexes(""));
  ASSERT_TRUE(Go(3));
  Set("name", "kept");
  files.ResetCounts();
  ASSERT_TRUE(database->Reindex());
  EXPECT_EQ(files.calls + files.opens, 0);
  EXPECT_EQ(Value("name"), "kept");
}

// --- Records of other processes ------------------------------------------------------------------

TEST_F(XBasePackTest, RecordsThatOthersHaveAddedAreKept) {
  auto other = Make("other");
  ASSERT_TRUE(other->Open("t.dbf", -1, 0, nullptr, "other", -1, 0, nullptr, "", 0, 0, nullptr, "",
                          0, 0, nullptr, "", 0, 0, nullptr));
  for (const char* name : {"x", "y"}) {
    other->PrimaryView()->FindField("name", -1)->SetValue(name, 1);
    ASSERT_TRUE(other->PrimaryView()->Add());
  }
  ASSERT_TRUE(database->Reindex()) << Error();
  EXPECT_EQ(Pairs(Entries("name.zix")), "a:4 b:2 c:5 d:1 e:3 x:6 y:7");
  other->PrimaryView()->FindField("name", -1)->SetValue("z", 1);
  ASSERT_TRUE(other->PrimaryView()->Add());
  ASSERT_TRUE(CreateIndex("new.zix", "d.name")) << Error();
  EXPECT_EQ(Entries("new.zix").size(), 8u);
  other->PrimaryView()->FindField("name", -1)->SetValue("zz", 2);
  ASSERT_TRUE(other->PrimaryView()->Add());
  ASSERT_TRUE(database->Pack()) << Error();
  EXPECT_EQ(Value("totrec"), "7");
  EXPECT_EQ(Pairs(Entries("name.zix")), "a:3 d:1 e:2 x:4 y:5 z:6 zz:7");
}

// --- Failures ------------------------------------------------------------------------------------

TEST_F(XBasePackTest, AMemoThatCannotBeReadFailsThePack) {
  // The first record's memo begins far beyond the end of what a file can have.
  std::string& table = files.files["t.dbf"];
  const size_t block = 193 + 1 + 10 + 9 + 8 + 1;
  ASSERT_EQ(table.substr(block, 10), "         1");
  table.replace(block, 10, "1999999999");
  const auto before = files.files;
  ASSERT_TRUE(Go(4));
  EXPECT_FALSE(database->Pack());
  EXPECT_EQ(Error().substr(0, 26), "Error reading from 't.dbt'");
  EXPECT_EQ(files.files, before);
  // The old table is there again, at its first record.
  EXPECT_EQ(Place(), "1");
  EXPECT_EQ(Value("name"), "d");
}

TEST_F(XBasePackTest, AUniqueKeyThatOccursTwiceFailsTheReindex) {
  ASSERT_TRUE(OpenIndexes(""));
  ASSERT_TRUE(Go(1));
  Set("name", "a");
  ASSERT_TRUE(view().Update());
  ASSERT_TRUE(OpenIndexes("name.zix,n.zix"));
  const auto before = files.files;
  EXPECT_FALSE(database->Reindex());
  EXPECT_NE(Error(), "");
  EXPECT_EQ(files.files, before);
  ASSERT_TRUE(Find("d"));
  EXPECT_EQ(Record(), 1);
}

TEST_F(XBasePackTest, AnEndOfTheRunsTimeLeavesTheFilesAsTheyWere) {
  ASSERT_TRUE(OpenIndexes(""));
  for (int i = 0; i < 400; i++) {
    ASSERT_TRUE(view().Add());
  }
  ASSERT_TRUE(OpenIndexes("n.zix"));
  const auto before = files.files;
  int over = 1;
  const RunLimit limit(&over);
  // The keys of an index need the machine, which would end first.
  EXPECT_FALSE(database->Reindex());
  ASSERT_TRUE(OpenIndexes(""));
  EXPECT_FALSE(database->Pack());
  EXPECT_EQ(Error(), "The time limit of the script is over");
  EXPECT_EQ(files.files, before);
  EXPECT_FALSE(CreateIndex("other.zix", "d.n"));
  EXPECT_EQ(Error(), "The time limit of the script is over");
  over = 0;
  ASSERT_TRUE(database->Pack()) << Error();
  EXPECT_EQ(Value("totrec"), "403");
}

// Fails the first call of a kind, the second and so on, until the work succeeds.
TEST_F(XBasePackTest, AFailureAtAnyCallLeavesEitherTheOldFilesOrTheNewOnes) {
  const std::string old_rows = Rows();
  const auto before = files.files;
  ASSERT_TRUE(database->Pack());
  const struct {
    const char* name;
    std::function<int*()> fault;
  } faults[] = {{"open", [&] { return &files.fail_open; }},
                {"read", [&] { return &files.fail_read; }},
                {"write", [&] { return &files.fail_write; }},
                {"seek", [&] { return &files.fail_seek; }},
                {"lock", [&] { return &files.fail_lock; }},
                {"temporary", [&] { return &files.fail_temporary; }},
                {"rename", [&] { return &files.fail_rename; }}};
  for (const bool pack : {true, false}) {
    for (const auto& fault : faults) {
      int done = 0;
      for (int call = 1; !done && call < 2000; call++) {
        SCOPED_TRACE(std::string(pack ? "pack, " : "reindex, ") + fault.name + " " +
                     std::to_string(call));
        database.reset();
        files.files = before;
        ASSERT_TRUE(OpenTable());
        ASSERT_TRUE(OpenIndexes("name.zix,n.zix")) << Error();
        database->Error(String(""));
        *fault.fault() = call;
        const bool good = pack ? database->Pack() : database->Reindex();
        done = *fault.fault() > 0;
        *fault.fault() = 0;
        EXPECT_EQ(good, Error().empty()) << Error();
        if (done) {
          EXPECT_TRUE(good);
        }
        EXPECT_EQ(files.files.size(), 4u);
        EXPECT_TRUE(files.held.empty());
        const bool renames = std::string(fault.name) == "rename";
        if (!good && !renames && files.files["t.dbf"] == before.at("t.dbf")) {
          EXPECT_EQ(files.files.at("t.dbt"), before.at("t.dbt"));
        } else if (pack && !renames) {
          EXPECT_EQ(Rows(), kPacked);
        }
        for (const char* index : {"name.zix", "n.zix"})
          EXPECT_EQ(ZIXIndexChecker(files.files[index]).Check(), "");
        // The object is usable; a file that could not be opened again has its error.
        Go(-1);
        Skip(1);
        if (view().FindField("name", -1)) Value("name");
        if (!good && files.files == before) {
          EXPECT_EQ(Rows(), old_rows);
        }
        if (::testing::Test::HasFailure()) return;
      }
      EXPECT_EQ(done, 1) << fault.name;
    }
  }
}

// When the second name cannot be given, the first file is new already.
TEST_F(XBasePackTest, AFailedRenameRemovesWhatIsLeftAndOpensWhatThereIs) {
  files.fail_rename = 3;
  EXPECT_FALSE(database->Pack());
  EXPECT_EQ(Error(), "Injected failure");
  EXPECT_EQ(files.files.size(), 4u);
  EXPECT_EQ(Rows(), kPacked);
  EXPECT_EQ(Value("totrec"), "3");
  // The indexes are old; a reindex repairs them.
  ASSERT_TRUE(database->Reindex()) << Error();
  EXPECT_EQ(Pairs(Entries("name.zix")), "a:3 d:1 e:2");
}

TEST_F(XBasePackTest, ATableThatCannotBeOpenedAgainHasNoRecords) {
  // Four temporary files, then the table.
  files.fail_open = 5;
  EXPECT_FALSE(database->Pack());
  EXPECT_EQ(Error(), "Error opening 't.dbf': Injected failure");
  EXPECT_EQ(Place(), "eof/0");
  EXPECT_EQ(view().FindField("name", -1), nullptr);
  EXPECT_FALSE(Skip(1));
  EXPECT_FALSE(view().Update());
  EXPECT_FALSE(view().Add());
  // Nothing may take the table for an empty one now.
  EXPECT_FALSE(database->Pack());
  EXPECT_FALSE(database->Reindex());
  EXPECT_FALSE(CreateIndex("other.zix", "d.name"));
  EXPECT_EQ(Pairs(Entries("name.zix")), "a:3 d:1 e:2");
  EXPECT_EQ(Rows(), kPacked);
}

}  // namespace
