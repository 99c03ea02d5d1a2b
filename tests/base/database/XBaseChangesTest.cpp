// Records that are added, changed and deleted, with what that does to the indexes.

#include <algorithm>
#include <map>
#include <random>

#include "base/database/XBaseDatabaseView.h"
#include "tests/support/XBaseMachine.h"

namespace {

class XBaseChangesTest : public XBaseMachine {
 protected:
  void Fill(const std::string& letters) {
    ASSERT_TRUE(CreateTable("name char(10), n number(5)")) << Error();
    for (size_t i = 0; i < letters.size(); i++)
      ASSERT_TRUE(Add({{"name", letters.substr(i, 1)}, {"n", std::to_string(i + 1)}}))
          << ViewError();
  }
  std::string Row(int record) {
    XBaseTable table(&machine.application);
    EXPECT_TRUE(table.Open(ZephPath_Data, "t.dbf", -1, 3));
    if (!table.Goto(record)) return TextOf(table.error());
    std::string all = table.deleted() ? "*" : "";
    for (XBaseField* field = table.fields().First(); field; field = table.fields().Next())
      all += std::string(field->data()) + "|";
    return all;
  }
};

TEST_F(XBaseChangesTest, AddAppendsWhatTheVariablesHold) {
  Fill("a");
  ASSERT_TRUE(Add({{"name", "b"}}));
  // What was not stored is the record's from before.
  EXPECT_EQ(Row(2), "b|1|");
  EXPECT_EQ(Place(), "2");
  EXPECT_EQ(Value("totrec"), "2");
  EXPECT_EQ(Value("name"), "b");
}

// The variables of the record's place were read before, and a change makes them read again, with
// and without an index.
TEST_F(XBaseChangesTest, ChangesShowInTheVariablesOfTheRecordsPlace) {
  Fill("ab");
  for (const bool with_index : {false, true}) {
    SCOPED_TRACE(with_index);
    if (with_index) {
      ASSERT_TRUE(CreateIndex("name.zix", "d.name"));
    }
    ASSERT_TRUE(Go(1));
    const int count = Field("totrec")->value_integer();
    EXPECT_EQ(Value("recno") + Value("deleted"), "10");
    ASSERT_TRUE(view().Delete());
    EXPECT_EQ(Value("deleted"), "1");
    Set("n", "77");
    ASSERT_TRUE(Add({{"name", with_index ? "y" : "x"}}));
    EXPECT_EQ(Value("totrec"), std::to_string(count + 1));
    EXPECT_EQ(Value("recno"), std::to_string(count + 1));
    EXPECT_EQ(Value("deleted"), "0");
    ASSERT_TRUE(Go(1));
    ASSERT_TRUE(view().UnDelete());
    EXPECT_EQ(Value("deleted"), "0");
  }
}

// Another process has added a record; an update reads the header again.
TEST_F(XBaseChangesTest, AnUpdateOfAnotherRecordsCountShowsAfterTheNextMove) {
  Fill("ab");
  ASSERT_TRUE(Go(1));
  EXPECT_EQ(Value("totrec"), "2");
  XBaseTable other(&machine.application);
  ASSERT_TRUE(other.Open(ZephPath_Data, "t.dbf", -1, 3));
  ASSERT_TRUE(other.Append());
  Set("name", "z");
  ASSERT_TRUE(view().Update());
  ASSERT_TRUE(Go(3));
  EXPECT_EQ(Place(), "3");
  EXPECT_EQ(Value("totrec"), "3");
}

TEST_F(XBaseChangesTest, AddedRecordsAreNotDeleted) {
  Fill("a");
  ASSERT_TRUE(view().Delete());
  EXPECT_EQ(Value("deleted"), "1");
  ASSERT_TRUE(Add({{"name", "b"}}));
  EXPECT_EQ(Value("deleted"), "0");
  EXPECT_EQ(Row(1), "*a|1|");
  EXPECT_EQ(Row(2), "b|1|");
}

TEST_F(XBaseChangesTest, AnAddGoesIntoEveryIndex) {
  Fill("db");
  ASSERT_TRUE(CreateIndex("name.zix", "d.name"));
  ASSERT_TRUE(CreateIndex("n.zix", "d.n", "descending"));
  ASSERT_TRUE(Add({{"name", "c"}, {"n", "9"}})) << ViewError();
  EXPECT_EQ(Pairs(Entries("name.zix")), "b:2 c:3 d:1");
  EXPECT_EQ(Pairs(Entries("n.zix")), "9:3 2:2 1:1");
  EXPECT_EQ(Place(), "3");
}

TEST_F(XBaseChangesTest, ARefusedKeyStopsAnAddButTheRecordStays) {
  Fill("ab");
  ASSERT_TRUE(CreateIndex("n.zix", "d.n"));
  ASSERT_TRUE(CreateIndex("name.zix", "d.name", "unique"));
  EXPECT_FALSE(Add({{"name", "a"}, {"n", "7"}}));
  EXPECT_NE(ViewError(), "");
  EXPECT_EQ(Row(3), "a|7|");
  EXPECT_EQ(Pairs(Entries("name.zix")), "a:1 b:2");
  EXPECT_EQ(Pairs(Entries("n.zix")), "1:1 2:2");  // the later one has no entry
}

TEST_F(XBaseChangesTest, AnAddThatCannotBeWrittenTouchesNoIndex) {
  Fill("ab");
  ASSERT_TRUE(CreateIndex("name.zix", "d.name"));
  const std::string before = files.files["name.zix"];
  files.fail_write = 1;
  EXPECT_FALSE(Add({{"name", "c"}}));
  EXPECT_EQ(ViewError(), "Error writing to 't.dbf': Injected failure");
  EXPECT_EQ(files.files["name.zix"], before);
}

TEST_F(XBaseChangesTest, UpdateMovesChangedKeysOnly) {
  Fill("abc");
  ASSERT_TRUE(CreateIndex("n.zix", "d.n"));
  ASSERT_TRUE(CreateIndex("name.zix", "d.name"));
  ASSERT_TRUE(Go(2));
  const std::string before = files.files["n.zix"];
  Set("name", "z");
  ASSERT_TRUE(view().Update()) << ViewError();
  EXPECT_EQ(Pairs(Entries("name.zix")), "a:1 c:3 z:2");
  EXPECT_EQ(files.files["n.zix"], before);
  EXPECT_EQ(Row(2), "z|2|");
  EXPECT_EQ(Value("name"), "z");
  EXPECT_EQ(Value("n"), "2");
  // The index is at the record, and so the step goes on from there.
  ASSERT_TRUE(Skip(-1));
  EXPECT_EQ(Place(), "3");
}

TEST_F(XBaseChangesTest, ASecondUpdateKnowsTheFirst) {
  Fill("abc");
  ASSERT_TRUE(CreateIndex("name.zix", "d.name"));
  ASSERT_TRUE(Go(2));
  for (const char* name : {"m", "n", "n", "a", "b"}) {
    Set("name", name);
    ASSERT_TRUE(view().Update()) << name << ": " << ViewError();
  }
  EXPECT_EQ(Pairs(Entries("name.zix")), "a:1 b:2 c:3");
}

TEST_F(XBaseChangesTest, AnUpdateToAKeyThatExistsLosesTheOldOne) {
  Fill("abc");
  ASSERT_TRUE(CreateIndex("name.zix", "d.name", "unique"));
  ASSERT_TRUE(Go(2));
  Set("name", "c");
  EXPECT_FALSE(view().Update());
  EXPECT_NE(ViewError(), "");
  EXPECT_EQ(Row(2), "c|2|");
  EXPECT_EQ(Pairs(Entries("name.zix")), "a:1 c:3");
}

TEST_F(XBaseChangesTest, AFailedIndexStopsTheOthersButNotTheTable) {
  Fill("abc");
  ASSERT_TRUE(CreateIndex("n.zix", "d.n"));
  ASSERT_TRUE(CreateIndex("name.zix", "d.name", "unique"));
  ASSERT_TRUE(Go(2));
  Set("name", "c");
  Set("n", "20");
  EXPECT_FALSE(view().Update());
  EXPECT_EQ(Row(2), "c|20|");
  EXPECT_EQ(Pairs(Entries("n.zix")), "1:1 2:2 3:3");
}

TEST_F(XBaseChangesTest, ATableThatCannotBeWrittenIsTheErrorOfAnUpdate) {
  Fill("abc");
  ASSERT_TRUE(Go(2));
  Set("name", "z");
  files.fail_write = 1;
  EXPECT_FALSE(view().Update());
  EXPECT_EQ(ViewError(), "Error writing to 't.dbf': Injected failure");
}

TEST_F(XBaseChangesTest, WithoutARecordNothingIsWritten) {
  Fill("");
  ASSERT_TRUE(CreateIndex("name.zix", "d.name"));
  const std::string table = files.files["t.dbf"], index = files.files["name.zix"];
  Set("name", "x");
  EXPECT_FALSE(view().Update());
  EXPECT_EQ(ViewError(), "Invalid record number");
  EXPECT_FALSE(view().Delete());
  EXPECT_EQ(ViewError(), "Invalid record number");
  EXPECT_FALSE(view().UnDelete());
  EXPECT_EQ(files.files["t.dbf"], table);
  EXPECT_EQ(files.files["name.zix"], index);
}

// The new key's text is in the variable that the computation of the old key fills again.
TEST_F(XBaseChangesTest, KeysThatAreAFieldsOwnTextAreCopied) {
  Fill("abc");
  ASSERT_TRUE(CreateIndex("name.zix", "d.name"));
  ASSERT_TRUE(Go(1));
  Set("name", "q");
  ASSERT_TRUE(view().Update());
  EXPECT_EQ(Pairs(Entries("name.zix")), "b:2 c:3 q:1");
}

TEST_F(XBaseChangesTest, KeysAreComparedUpToTheirNUL) {
  Fill("ab");
  std::string tail = "1";
  Hook("hook")->code = [&] { return Value("name") + '\0' + tail; };
  ASSERT_TRUE(CreateIndex("name.zix", "hook"));
  ASSERT_TRUE(Go(1));
  const std::string before = files.files["name.zix"];
  tail = "2";
  ASSERT_TRUE(view().Update()) << ViewError();
  EXPECT_EQ(files.files["name.zix"], before);
  Set("name", "z");
  ASSERT_TRUE(view().Update()) << ViewError();
  EXPECT_EQ(Pairs(Entries("name.zix")), "b:2 z:1");
}

TEST_F(XBaseChangesTest, AKeyMayBeAMemo) {
  ASSERT_TRUE(CreateTable("note memo, n number(5)"));
  ASSERT_TRUE(Add({{"note", "long text"}}));
  ASSERT_TRUE(CreateIndex("i.zix", "d.note"));
  ASSERT_TRUE(Add({{"note", "other text"}}));
  ASSERT_TRUE(Go(1));
  Set("note", "zzz");
  ASSERT_TRUE(view().Update()) << ViewError();
  EXPECT_EQ(Pairs(Entries("i.zix")), "other text:2 zzz:1");
  ASSERT_TRUE(Go(1));
  EXPECT_EQ(Value("note"), "zzz");
}

TEST_F(XBaseChangesTest, DeletedRecordsStayInTheIndexes) {
  Fill("abc");
  ASSERT_TRUE(CreateIndex("name.zix", "d.name"));
  ASSERT_TRUE(Go(2));
  ASSERT_TRUE(view().Delete());
  EXPECT_EQ(Row(2), "*b|2|");
  EXPECT_EQ(Pairs(Entries("name.zix")), "a:1 b:2 c:3");
  ASSERT_TRUE(Find("b"));
  EXPECT_EQ(Place(), "2");
  EXPECT_EQ(Value("deleted"), "1");
}

TEST_F(XBaseChangesTest, AFieldThatIsAReferenceIsLeftAlone) {
  Fill("ab");
  auto* target = new Variable("t", 1, "target", 6);
  Field("name")->Make_Reference(target);
  ASSERT_TRUE(Go(2));
  EXPECT_EQ(Value("name"), "target");
  Set("name", "changed");
  ASSERT_TRUE(view().Update());
  EXPECT_EQ(Row(2), "b|2|");
  ASSERT_TRUE(view().Add());
  EXPECT_EQ(Row(3), "b|2|");
  EXPECT_EQ(Machine::Text(*target), "changed");
  ASSERT_TRUE(database->Pack());
  EXPECT_EQ(Value("name"), "a");
  target->DecRefCount();
}

TEST_F(XBaseChangesTest, AVariableThatAScriptHoldsIsNullAfterwards) {
  Fill("ab");
  Variable* held = Field("name");
  held->IncRefCount();
  database.reset();
  EXPECT_EQ(held->IsNULL(), 1);
  held->SetValue("x", 1);
  EXPECT_EQ(held->IsNULL(), 1);
  held->DecRefCount();
}

// Random changes against a list of rows and the keys that it must have. The tree is checked at the
// end by a reader of its own.
TEST_F(XBaseChangesTest, RandomChangesLeaveTheIndexesOfTheRows) {
  std::mt19937 random(11);
  const auto below = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
  ASSERT_TRUE(CreateTable("name char(6), n number(6)"));
  ASSERT_TRUE(CreateIndex("down.zix", "d.n", "descending"));
  ASSERT_TRUE(CreateIndex("unique.zix", "d.name", "unique,string"));
  struct ModelRow {
    std::string name;
    int n;
    bool deleted;
    bool in_down, in_unique;  // whether the index has the record
  };
  std::vector<ModelRow> rows;
  const auto owner = [&](const std::string& name) {
    return std::find_if(rows.begin(), rows.end(),
                        [&](const ModelRow& row) { return row.in_unique && row.name == name; });
  };
  for (int i = 0; i < 2000; i++) {
    const std::string name = "k" + std::to_string(below(600));
    const int n = below(50);
    const bool taken = owner(name) != rows.end();
    if (rows.empty() || below(3) == 0) {
      ASSERT_EQ(Add({{"name", name}, {"n", std::to_string(n)}}), !taken) << i;
      // The primary index is the unique one; if it refuses, the other one is not reached.
      rows.push_back({name, n, false, !taken, !taken});
      continue;
    }
    const size_t at = static_cast<size_t>(below(static_cast<int>(rows.size())));
    ModelRow& row = rows[at];
    ASSERT_TRUE(view().Go_NoFilter(static_cast<long>(at) + 1));
    ASSERT_EQ(Value("name"), row.name);
    ASSERT_EQ(Value("n"), std::to_string(row.n));
    ASSERT_EQ(Value("deleted"), row.deleted ? "1" : "0");
    if (below(4) == 0) {
      row.deleted = !row.deleted;
      ASSERT_TRUE(row.deleted ? view().Delete() : view().UnDelete());
      continue;
    }
    // Rows that an index has lost are left alone: an update could not delete their keys.
    if (!row.in_unique || !row.in_down) continue;
    Set("name", name);
    Set("n", std::to_string(n));
    const bool same = name == row.name;
    ASSERT_EQ(view().Update(), same || !taken) << i << ": " << ViewError();
    if (!same && taken) {
      row.in_unique = false;
      row.in_down = row.n == n;  // else it still has the entry of the old number
    }
    if (same || !taken || row.n == n) {
      row.name = name;
      row.n = n;
    } else {
      // The table has the new values, the index of numbers the old one. Repair it by hand.
      row.name = name;
      ZIXIndexFile file(&machine.application);
      ASSERT_TRUE(file.Open(ZephPath_Data, "down.zix", 3));
      const std::string key = std::to_string(row.n);
      ASSERT_TRUE(file.Delete(static_cast<unsigned>(at) + 1,
                              reinterpret_cast<const unsigned char*>(key.c_str()), -1));
      row.n = n;
    }
  }
  std::vector<ZIXIndexEntry> down, unique;
  for (size_t i = 0; i < rows.size(); i++) {
    const auto record = static_cast<uint32_t>(i + 1);
    if (rows[i].in_down) down.push_back({std::to_string(rows[i].n), record});
    if (rows[i].in_unique) unique.push_back({rows[i].name, record});
  }
  const auto sorted = [](std::vector<ZIXIndexEntry> entries) {
    std::sort(entries.begin(), entries.end());
    return entries;
  };
  EXPECT_EQ(sorted(Entries("down.zix")), sorted(down));
  EXPECT_EQ(sorted(Entries("unique.zix")), sorted(unique));
  EXPECT_TRUE(files.held.empty());
}

}  // namespace
