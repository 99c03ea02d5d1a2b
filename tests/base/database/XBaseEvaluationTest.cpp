// A filter or a key runs code of the script, and that code may use the same database.

#include "base/database/XBaseDatabaseView.h"
#include "tests/support/XBaseMachine.h"

namespace {

constexpr char kInUse[] = "Database is in use by the evaluation of a filter or an index key";

class XBaseEvaluationTest : public XBaseMachine {
 protected:
  void SetUp() override {
    ASSERT_TRUE(CreateTable("name char(10), n number(5)")) << Error();
    for (const char* name : {"d", "b", "e", "a", "c"})
      ASSERT_TRUE(Add({{"name", name}, {"n", std::to_string(++n)}})) << ViewError();
    hook = Hook("hook");
  }
  // Tries all that must be refused, in the middle of an evaluation.
  void TryAll() {
    const auto refused = [&](bool done, const char* what) {
      EXPECT_FALSE(done) << what;
      EXPECT_EQ(Error(), kInUse) << what;
      database->Error(String(""));
    };
    refused(database->Pack(), "Pack");
    refused(database->Reindex(), "Reindex");
    refused(OpenIndexes("i.zix"), "OpenIndexes");
    refused(OpenIndexes(""), "OpenIndexes of none");
    refused(CreateIndex("j.zix", "d.n"), "CreateIndex");
    refused(SetPrimary("i.zix"), "SetPrimaryIndex");
    EXPECT_EQ(ViewError(), kInUse);
    refused(database->Close(), "Close");
    view().Error(String(""));
    EXPECT_FALSE(Filter("1"));
    EXPECT_EQ(ViewError(), kInUse);
    view().Error(String(""));
    EXPECT_FALSE(Filter(""));
    EXPECT_EQ(ViewError(), kInUse);
    view().Error(String(""));
    view().SetFilter(nullptr, nullptr);
    EXPECT_EQ(ViewError(), kInUse);
    tried++;
  }

  HookVariable* hook = nullptr;
  int n = 0;
  int tried = 0;
};

TEST_F(XBaseEvaluationTest, AFilterCannotTakeAwayWhatItsCallerWorksOn) {
  ASSERT_TRUE(CreateIndex("i.zix", "d.name"));
  ASSERT_TRUE(Filter("hook EQ '1'"));
  hook->code = [&] {
    TryAll();
    return std::string("1");
  };
  ASSERT_TRUE(Go(-1));
  EXPECT_EQ(Place(), "4");
  ASSERT_TRUE(Skip(2));
  EXPECT_EQ(Place(), "5");
  ASSERT_TRUE(Find("e"));
  EXPECT_EQ(Place(), "3");
  EXPECT_EQ(tried, 4);
  EXPECT_TRUE(view().IsFiltered());
  EXPECT_FALSE(database->IsEvaluating());
}

TEST_F(XBaseEvaluationTest, NeitherCanAKey) {
  hook->code = [&] { return Value("name"); };
  ASSERT_TRUE(CreateIndex("i.zix", "hook")) << Error();
  hook->code = [&] {
    TryAll();
    return Value("name");
  };
  ASSERT_TRUE(Add({{"name", "f"}})) << ViewError();
  Set("name", "g");
  ASSERT_TRUE(view().Update()) << ViewError();
  ASSERT_TRUE(SetPrimary("i.zix")) << Error();
  EXPECT_EQ(tried, 4);
  ASSERT_TRUE(database->Reindex()) << Error();
  ASSERT_TRUE(database->Pack()) << Error();
  EXPECT_EQ(Pairs(Entries("i.zix")), "a:4 b:2 c:5 d:1 e:3 g:6");
  EXPECT_EQ(tried, 4 + 6 + 6);
}

TEST_F(XBaseEvaluationTest, AFilterThatMovesItsOwnViewEnds) {
  ASSERT_TRUE(CreateIndex("i.zix", "d.name"));
  ASSERT_TRUE(OpenIndexes(""));
  for (const bool with_index : {false, true}) {
    SCOPED_TRACE(with_index);
    hook->code = nullptr;
    ASSERT_TRUE(Filter(""));
    if (with_index) {
      ASSERT_TRUE(OpenIndexes("i.zix"));
    }
    ASSERT_TRUE(Filter("hook EQ '1'"));
    // The unfiltered moves, because the filtered ones would run the filter again.
    hook->code = [&] {
      view().Go_NoFilter(2);
      view().Skip_NoFilter(-1);
      if (with_index) {
        const String& name = Field("name")->value();
        view().Find_NoFilter(name.data, name.length, 0, nullptr, 1);
      }
      return std::string("0");
    };
    if (!with_index) {
      ASSERT_TRUE(Go(-1));
      EXPECT_TRUE(AtEnd());
      ASSERT_TRUE(Skip(3));
      EXPECT_TRUE(AtEnd());
    }
    ASSERT_TRUE(Go(2));
    EXPECT_TRUE(AtEnd());
  }
}

TEST_F(XBaseEvaluationTest, AFilterThatRunsItselfIsEndedByTheMachine) {
  ASSERT_TRUE(Filter("hook EQ '1'"));
  int runs = 0;
  hook->code = [&] {
    runs++;
    view().Go_Filter(-1);
    return std::string("1");
  };
  EXPECT_FALSE(Go(-1));
  EXPECT_EQ(machine.Failure(), "Stack overflow");
  EXPECT_GT(runs, 1);
  EXPECT_FALSE(database->IsEvaluating());
}

TEST_F(XBaseEvaluationTest, AFilterThatAddsRecordsEnds) {
  ASSERT_TRUE(CreateIndex("i.zix", "d.name"));
  for (const char* list : {"", "i.zix"}) {
    SCOPED_TRACE(list);
    hook->code = nullptr;
    ASSERT_TRUE(Filter(""));
    ASSERT_TRUE(OpenIndexes(list));
    ASSERT_TRUE(Filter("hook EQ '1'"));
    const int before = Field("totrec")->value_integer();
    hook->code = [&] {
      Set("name", "z");
      view().Add();
      return std::string("0");
    };
    ASSERT_TRUE(Go(-1));
    EXPECT_TRUE(AtEnd());
    EXPECT_LE(Field("totrec")->value_integer(), 2 * before);
    EXPECT_GT(Field("totrec")->value_integer(), before);
  }
}

TEST_F(XBaseEvaluationTest, AKeyThatAddsRecordsEnds) {
  hook->code = [&] {
    if (Field("totrec")->value_integer() < 100) {
      HookVariable* self = hook;
      const auto code = std::exchange(self->code, nullptr);
      view().Add();
      self->code = code;
    }
    return std::string("k");
  };
  ASSERT_TRUE(CreateIndex("i.zix", "hook")) << Error();
  EXPECT_EQ(Entries("i.zix").size(), 5u);
  EXPECT_EQ(Field("totrec")->value_integer(), 10);
}

TEST_F(XBaseEvaluationTest, KeysThatChangeRecordsAreSafe) {
  hook->code = [&] { return Value("name"); };
  ASSERT_TRUE(CreateIndex("i.zix", "hook"));
  ASSERT_TRUE(CreateIndex("j.zix", "d.n"));
  int depth = 0;
  hook->code = [&] {
    const std::string name = Value("name");
    if (depth < 3) {
      depth++;
      Set("name", "n" + std::to_string(depth));
      view().Update();
      view().Go_NoFilter(1 + depth);
      view().Delete();
      Set("name", "m" + std::to_string(depth));
      view().Add();
      depth--;
    }
    return name;
  };
  ASSERT_TRUE(Go(1));
  Set("name", "x");
  view().Update();
  view().Add();
  EXPECT_EQ(ZIXIndexChecker(files.files["i.zix"]).Check(), "");
  EXPECT_EQ(ZIXIndexChecker(files.files["j.zix"]).Check(), "");
  hook->code = [&] { return Value("name"); };
  ASSERT_TRUE(database->Reindex()) << Error();
  EXPECT_EQ(Entries("i.zix").size(), static_cast<size_t>(Field("totrec")->value_integer()));
}

TEST_F(XBaseEvaluationTest, APackWhoseKeysUseTheViewIsSafe) {
  hook->code = [&] { return Value("name"); };
  ASSERT_TRUE(CreateIndex("i.zix", "hook"));
  hook->code = [&] {
    const std::string name = Value("name");
    const auto code = std::exchange(hook->code, nullptr);
    view().Go_NoFilter(2);
    view().Skip_NoFilter(1);
    Set("name", "q");
    view().Update();
    view().Delete();
    hook->code = code;
    return name;
  };
  database->Pack();
  database->Reindex();
  EXPECT_EQ(ZIXIndexChecker(files.files["i.zix"]).Check(), "");
  EXPECT_TRUE(Go(-1));
}

}  // namespace
