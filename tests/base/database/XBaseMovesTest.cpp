// Steps and jumps, with and without filter and index.

#include <algorithm>
#include <climits>
#include <random>

#include "base/core/RunLimit.h"
#include "base/database/XBaseDatabaseView.h"
#include "tests/support/XBaseMachine.h"

namespace {

class XBaseMovesTest : public XBaseMachine {
 protected:
  // Records named by the letters, with numbers 10, 20 and so on.
  void Fill(const std::string& letters) {
    ASSERT_TRUE(CreateTable("name char(10), n number(5)")) << Error();
    for (size_t i = 0; i < letters.size(); i++)
      ASSERT_TRUE(Add({{"name", letters.substr(i, 1)}, {"n", std::to_string(10 * (i + 1))}}))
          << ViewError();
  }
  // The place after a move, or its error.
  std::string Skipped(int count) { return Skip(count) ? Place() : ViewError(); }
  std::string Gone(long position) { return Go(position) ? Place() : ViewError(); }
};

TEST_F(XBaseMovesTest, WithoutAnIndexTheOrderIsThatOfTheRecords) {
  Fill("dbeac");
  EXPECT_EQ(Gone(-1), "1");
  EXPECT_EQ(Skipped(1), "2");
  EXPECT_EQ(Skipped(2), "4");
  EXPECT_EQ(Skipped(-3), "1");
  EXPECT_EQ(Skipped(0), "1");
  EXPECT_EQ(Gone(-2), "5");
  EXPECT_EQ(Skipped(1), "eof/5");
  EXPECT_EQ(Skipped(0), "5");
  EXPECT_EQ(Skipped(-4), "1");
  EXPECT_EQ(Skipped(-1), "eof/1");
  EXPECT_EQ(Gone(3), "3");
  EXPECT_EQ(Gone(0), "eof/3");
  EXPECT_EQ(Gone(6), "eof/3");
  EXPECT_EQ(Gone(-3), "eof/3");
  EXPECT_EQ(Gone(4294967297), "eof/3");
}

TEST_F(XBaseMovesTest, AnIndexGivesTheOrder) {
  Fill("dbeac");
  ASSERT_TRUE(CreateIndex("i.zix", "d.name"));
  EXPECT_EQ(Gone(-1), "4");
  EXPECT_EQ(Skipped(1), "2");
  EXPECT_EQ(Skipped(2), "1");
  EXPECT_EQ(Skipped(-1), "5");
  EXPECT_EQ(Gone(-2), "3");
  EXPECT_EQ(Skipped(1), "eof/3");
  // A record's number does not move the index.
  EXPECT_EQ(Gone(-1), "4");
  EXPECT_EQ(Gone(3), "3");
  EXPECT_EQ(Skipped(1), "2");
}

TEST_F(XBaseMovesTest, ADescendingIndexRunsBackwards) {
  Fill("dbeac");
  ASSERT_TRUE(CreateIndex("i.zix", "d.name", "descending"));
  EXPECT_EQ(Gone(-1), "3");
  EXPECT_EQ(Skipped(1), "1");
  EXPECT_EQ(Gone(-2), "4");
}

TEST_F(XBaseMovesTest, AMovePastTheEndLeavesTheLastGoodRecordInTheFields) {
  Fill("abc");
  ASSERT_TRUE(Go(1));
  EXPECT_EQ(Value("name"), "a");
  EXPECT_EQ(Skipped(10), "eof/3");
  EXPECT_EQ(Value("name"), "c");
  EXPECT_EQ(Skipped(-10), "eof/1");
  EXPECT_EQ(Value("name"), "a");
}

TEST_F(XBaseMovesTest, AMoveDropsStoresThatWereNotWritten) {
  Fill("abc");
  ASSERT_TRUE(Go(1));
  Set("name", "x");
  ASSERT_TRUE(Skip(1));
  ASSERT_TRUE(Skip(-1));
  EXPECT_EQ(Value("name"), "a");
  Set("name", "x");
  ASSERT_TRUE(Skip(0));
  EXPECT_EQ(Value("name"), "a");
}

// A search for a duplicate before an Add relies on it.
TEST_F(XBaseMovesTest, AMoveThatReadsNoRecordKeepsStores) {
  Fill("abc");
  ASSERT_TRUE(CreateIndex("i.zix", "d.name"));
  Set("name", "x");
  ASSERT_TRUE(Find("x"));
  EXPECT_TRUE(AtEnd());
  ASSERT_TRUE(Go(17));
  EXPECT_EQ(Value("name"), "x");
  ASSERT_TRUE(Filter("d.n GT 0"));
  Set("name", "x");
  ASSERT_TRUE(Skip(0));
  EXPECT_EQ(Value("name"), "x");
}

TEST_F(XBaseMovesTest, AnEmptyTableIsAtItsEnd) {
  Fill("");
  for (const bool with_index : {false, true}) {
    if (with_index) {
      ASSERT_TRUE(CreateIndex("i.zix", "d.name"));
    }
    for (const long position : {-1L, -2L, 0L, 1L}) {
      EXPECT_EQ(Gone(position), "eof/0");
    }
    EXPECT_EQ(Skipped(1), "eof/0");
    EXPECT_EQ(Skipped(-1), "eof/0");
    EXPECT_EQ(Skipped(0), "0");
  }
  ASSERT_TRUE(Filter("1"));
  EXPECT_EQ(Gone(-1), "eof/0");
  EXPECT_EQ(Skipped(1), "eof/0");
}

TEST_F(XBaseMovesTest, NoMoveSkipsDeletedRecords) {
  Fill("abc");
  ASSERT_TRUE(Go(2));
  ASSERT_TRUE(view().Delete());
  EXPECT_EQ(Value("deleted"), "1");
  EXPECT_EQ(Gone(1), "1");
  EXPECT_EQ(Value("deleted"), "0");
  EXPECT_EQ(Skipped(1), "2");
  EXPECT_EQ(Value("deleted"), "1");
  ASSERT_TRUE(view().UnDelete());
  EXPECT_EQ(Value("deleted"), "0");
}

TEST_F(XBaseMovesTest, FilteredStepsCountRecordsThatPass) {
  Fill("dbeac");
  ASSERT_TRUE(Filter("d.name NE 'd' AND d.name NE 'a'"));
  EXPECT_EQ(Place(), "2");  // installing a filter goes to the first that passes
  EXPECT_EQ(Skipped(2), "5");
  EXPECT_EQ(Skipped(-1), "3");
  EXPECT_EQ(Skipped(1), "5");
  EXPECT_EQ(Skipped(1), "eof/5");
  EXPECT_EQ(Gone(-1), "2");
  EXPECT_EQ(Skipped(-1), "eof/1");
  EXPECT_EQ(Gone(-2), "5");
  ASSERT_TRUE(Filter(" \t"));
  EXPECT_FALSE(view().IsFiltered());
  EXPECT_EQ(Place(), "1");
  EXPECT_EQ(Skipped(1), "2");
}

TEST_F(XBaseMovesTest, AFilterRefusesAJumpToItsRecords) {
  Fill("dbeac");
  ASSERT_TRUE(Filter("d.name NE 'e'"));
  EXPECT_EQ(Gone(3), "eof/3");
  EXPECT_EQ(Value("name"), "e");
  EXPECT_EQ(Gone(2), "2");
  EXPECT_EQ(Gone(9), "eof/2");
  EXPECT_EQ(Gone(0), "eof/2");
}

TEST_F(XBaseMovesTest, AFilteredJumpMovesTheIndex) {
  Fill("dbeac");
  ASSERT_TRUE(CreateIndex("i.zix", "d.name"));
  ASSERT_TRUE(Filter("d.n NE 20"));
  EXPECT_EQ(Place(), "4");
  EXPECT_EQ(Gone(1), "1");
  EXPECT_EQ(Skipped(1), "3");
  EXPECT_EQ(Skipped(-2), "5");
  EXPECT_EQ(Skipped(-1), "4");
  // An index that has lost the record.
  ASSERT_TRUE(OpenIndexes(""));
  ASSERT_TRUE(Go(1));
  Set("name", "zz");
  ASSERT_TRUE(view().Update());
  ASSERT_TRUE(OpenIndexes("i.zix"));
  EXPECT_EQ(Gone(1), "Record is not in index");
}

TEST_F(XBaseMovesTest, AFilterThatNothingPassesGoesToTheEnd) {
  Fill("dbeac");
  ASSERT_TRUE(Filter("0"));
  EXPECT_EQ(Place(), "eof/5");
  EXPECT_EQ(Gone(-2), "eof/1");
  ASSERT_TRUE(CreateIndex("i.zix", "d.name"));
  EXPECT_EQ(Gone(-1), "eof/3");
  // Without a value, an expression is false.
  ASSERT_TRUE(Filter("\"\""));
  EXPECT_EQ(Gone(-1), "eof/3");
}

TEST_F(XBaseMovesTest, AFilterThatDoesNotCompileKeepsTheOldOne) {
  Fill("dbeac");
  ASSERT_TRUE(Filter("d.n GT 10"));
  EXPECT_FALSE(Filter("d.n +* 2"));
  EXPECT_EQ(ViewError(), "Syntax error in filter: Argument expected in Expression");
  EXPECT_EQ(Gone(-1), "2");
}

TEST_F(XBaseMovesTest, AFilterThatFailsStopsTheMoveInTheMiddle) {
  Fill("dbeac");
  HookVariable* hook = Hook("hook");
  int fails_at = 0;
  hook->code = [&] {
    if (Record() == fails_at) vm()->FatalError("broken");
    return std::string("0");
  };
  ASSERT_TRUE(Filter("hook $ ''"));
  fails_at = 3;
  EXPECT_FALSE(Go(-1));
  EXPECT_EQ(Record(), 3);
  EXPECT_EQ(ViewError(), machine.Error());
  EXPECT_NE(ViewError().find("broken"), std::string::npos);
}

TEST_F(XBaseMovesTest, AFilterIsCompiledOnce) {
  Fill("dbeac");
  ASSERT_TRUE(Filter("d.n GT 10"));
  const int segments = machine.segments.Segments();
  for (int i = 0; i < 10; i++) {
    ASSERT_TRUE(Go(-1));
  }
  EXPECT_EQ(machine.segments.Segments(), segments);
}

TEST_F(XBaseMovesTest, AScanReadsEachRecordOnce) {
  Fill(std::string(50, 'a'));
  ASSERT_TRUE(Filter("d.n EQ 999"));
  files.ResetCounts();
  ASSERT_TRUE(Go(-1));
  EXPECT_EQ(files.reads, 50);
  ASSERT_TRUE(Filter(""));
  files.ResetCounts();
  ASSERT_TRUE(Go(-1));
  while (!AtEnd()) ASSERT_TRUE(Skip(1));
  EXPECT_EQ(files.reads, 50);
}

TEST_F(XBaseMovesTest, HasTheErrorsOfTableAndIndex) {
  Fill("dbeac");
  ASSERT_TRUE(Go(1));
  files.fail_read = 1;
  EXPECT_EQ(Skipped(1), "Error reading from 't.dbf': Injected failure");
  files.fail_seek = 1;
  EXPECT_EQ(Gone(2), "Error reading from 't.dbf': Injected failure");
  ASSERT_TRUE(CreateIndex("i.zix", "d.name"));
  files.fail_read = 2;  // the first reads the header
  EXPECT_EQ(Gone(-1), "Error reading from 'i.zix': Injected failure");
}

// --- Records of other processes ------------------------------------------------------------------

TEST_F(XBaseMovesTest, OnlyStepsOfAnIndexSeeRecordsThatOthersHaveAdded) {
  Fill("ab");
  ASSERT_TRUE(CreateIndex("i.zix", "d.name"));
  auto other = Make("other");
  ASSERT_TRUE(other->Open("t.dbf", -1, 0, nullptr, "other", -1, 0, nullptr, "", 0, 0, nullptr, "",
                          0, 0, nullptr, "", 0, 0, nullptr));
  ASSERT_TRUE(other->OpenIndexes(vm(), "i.zix", -1, 0, nullptr));
  Variable* name = other->PrimaryView()->FindField("name", -1);
  name->SetValue("c", 1);
  ASSERT_TRUE(other->PrimaryView()->Add());
  EXPECT_EQ(Gone(-2), "eof/1");  // the last of the index is record 3
  EXPECT_EQ(Gone(3), "eof/1");
  ASSERT_TRUE(Find("c"));
  EXPECT_EQ(Place(), "eof/1");
  EXPECT_EQ(Gone(-1), "1");
  EXPECT_EQ(Skipped(2), "3");
  EXPECT_EQ(Gone(3), "3");
  EXPECT_EQ(Value("totrec"), "3");
  other.reset();
}

TEST_F(XBaseMovesTest, AnIndexMayNameRecordsThatDoNotExist) {
  Fill("ab");
  ASSERT_TRUE(CreateIndex("i.zix", "d.name"));
  ZIXIndexFile file(&machine.application);
  ASSERT_TRUE(file.Open(ZephPath_Data, "i.zix", 3));
  for (const unsigned record : {7u, 0xFFFFFFFFu})
    ASSERT_TRUE(file.Insert(record, reinterpret_cast<const unsigned char*>("c"), 1));
  EXPECT_EQ(Gone(2), "2");
  EXPECT_EQ(Gone(-1), "1");
  EXPECT_EQ(Skipped(2), "Invalid record number");
  EXPECT_EQ(Gone(-2), "eof/2");
  ASSERT_TRUE(Find("c"));
  EXPECT_TRUE(AtEnd());
  ASSERT_TRUE(Filter("1"));
  EXPECT_EQ(Skipped(2), "eof/2");
  ASSERT_TRUE(Find("c"));
  EXPECT_TRUE(AtEnd());
}

// --- The time limit ------------------------------------------------------------------------------

TEST_F(XBaseMovesTest, LongMovesEndWithTheTimeOfTheRun) {
  Fill(std::string(600, 'a'));
  int over = 1;
  const RunLimit limit(&over);
  ASSERT_TRUE(Go(1));
  EXPECT_EQ(Skip(2000000000) ? Record() < 600 : false, true);
  ASSERT_TRUE(Go(-1));
  EXPECT_EQ(Skipped(100), "101");  // small work is completed
}

TEST_F(XBaseMovesTest, ACountMayBeTheLeastInteger) {
  Fill("abc");
  ASSERT_TRUE(Go(3));
  EXPECT_EQ(Skipped(INT_MIN), "eof/1");
  EXPECT_EQ(Skipped(INT_MAX), "eof/3");
}

// --- Against a model -----------------------------------------------------------------------------

struct MoveCase {
  const char* flags;  // null for no index
  bool filtered;
};

class XBaseMovesModelTest : public XBaseMovesTest, public testing::WithParamInterface<MoveCase> {};

// The model is a list of the records in order, and a position in it. It knows neither pages nor
// cursors. A step from beyond the end of an index goes nowhere, and one from beyond the end of a
// table starts at the record in the fields; the test begins again at the top after either.
TEST_P(XBaseMovesModelTest, MovesAsAListDoes) {
  std::mt19937 random(20261122);
  const auto below = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
  constexpr int kCount = 200;
  ASSERT_TRUE(CreateTable("name char(10), n number(5)"));
  struct Entry {
    std::string name;
    int n, record;
  };
  std::vector<Entry> order;
  for (int record = 1; record <= kCount; record++) {
    order.push_back(
        {std::string(1, static_cast<char>('a' + below(26))) + static_cast<char>('a' + below(26)),
         below(100), record});
    ASSERT_TRUE(Add({{"name", order.back().name}, {"n", std::to_string(order.back().n)}}));
  }
  const std::vector<Entry> rows = order;
  const auto passes = [&](const Entry& e) { return !GetParam().filtered || e.n < 60; };
  if (GetParam().flags) {
    // Keys with the record number at the end are unique, so that the order is fully known.
    ASSERT_TRUE(CreateIndex("i.zix", "d.name $ d.recno", GetParam().flags)) << Error();
    const bool down = std::string(GetParam().flags) == "descending";
    std::sort(order.begin(), order.end(), [&](const Entry& a, const Entry& b) {
      const std::string x = a.name + std::to_string(a.record);
      const std::string y = b.name + std::to_string(b.record);
      return down ? y < x : x < y;
    });
  }
  if (GetParam().filtered) {
    ASSERT_TRUE(Filter("d.n LT 60"));
  }
  int at = -1;
  for (int i = 0; i < 3000; i++) {
    if (at < 0 || below(20) == 0) {
      const bool first = below(2) == 0;
      at = first ? 0 : kCount - 1;
      while (!passes(order[static_cast<size_t>(at)])) at += first ? 1 : -1;
      ASSERT_TRUE(Go(first ? -1 : -2)) << ViewError();
    } else if (GetParam().flags ? GetParam().filtered && below(4) == 0 : below(4) == 0) {
      // By number; without a filter that leaves an index where it is.
      const int record = 1 + below(kCount);
      ASSERT_TRUE(Go(record)) << ViewError();
      const bool there = passes(rows[static_cast<size_t>(record) - 1]);
      ASSERT_EQ(Place(), (there ? "" : "eof/") + std::to_string(record));
      if (!there) {
        at = -1;
        continue;
      }
      at = 0;
      while (order[static_cast<size_t>(at)].record != record) at++;
    } else {
      const int count = below(9) - 4;
      ASSERT_TRUE(Skip(count)) << ViewError();
      int left = std::abs(count), next = at;
      while (left > 0 && next >= 0 && next < kCount) {
        next += count > 0 ? 1 : -1;
        if (next >= 0 && next < kCount && passes(order[static_cast<size_t>(next)])) left--;
      }
      if (next < 0 || next >= kCount) {
        ASSERT_TRUE(AtEnd());
        at = -1;
        continue;
      }
      at = next;
    }
    const Entry& entry = order[static_cast<size_t>(at)];
    ASSERT_EQ(Place(), std::to_string(entry.record)) << "move " << i;
    ASSERT_EQ(Value("name"), entry.name);
    ASSERT_EQ(Value("n"), std::to_string(entry.n));
  }
}

INSTANTIATE_TEST_SUITE_P(, XBaseMovesModelTest,
                         testing::Values(MoveCase{nullptr, false}, MoveCase{nullptr, true},
                                         MoveCase{"string", false}, MoveCase{"string", true},
                                         MoveCase{"descending", false},
                                         MoveCase{"descending", true}));

}  // namespace
