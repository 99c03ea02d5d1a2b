// Databases when the memory ends at any place: no operation loses a file, a view, an index or
// memory, and what is left can be used. A script can see that, because a filter or a key may fail
// for want of memory without ending the script.

#include <map>
#include <memory>
#include <new>
#include <string>

#include "base/core/ThreadMemory.h"
#include "tests/support/FailingAllocator.h"
#include "tests/support/XBaseMachine.h"

namespace {

class XBaseMemoryTest : public XBaseMachine {
 protected:
  void SetUp() override {
    if (!ThreadMemory::NewIsHere()) GTEST_SKIP() << "the operators are the sanitizer's";
    ASSERT_TRUE(CreateTable("name char(10), n number(6.2), day date, ok bool, note memo"));
    for (const char* name : {"d", "b", "e", "a", "c"})
      ASSERT_TRUE(Add({{"name", name}, {"note", std::string(300, name[0])}})) << ViewError();
    ASSERT_TRUE(CreateIndex("n.zix", "d.n"));
    ASSERT_TRUE(CreateIndex("name.zix", "d.name"));
    ASSERT_TRUE(Go(2) && view().Delete());
    database.reset();
    whole = files.files;
  }
  void StartOver() {
    database.reset();
    files.files = whole;
    ASSERT_TRUE(OpenTable()) << Error();
    ASSERT_TRUE(OpenIndexes("name.zix, n.zix")) << Error();
    ASSERT_TRUE(Go(1));
  }
  // Starts over and calls the operation with each block refused in turn, alone or with all after
  // it, and then the check.
  template <class Operation, class Check>
  void WithEachBlockRefused(Operation operation, Check check) {
    for (const auto mode : {FailingAllocator::Once, FailingAllocator::FromThereOn}) {
      bool refused = true;
      for (long number = 1; refused && !HasFailure(); number++) {
        SCOPED_TRACE(number);
        StartOver();
        const ThreadMemory::Run run;
        {
          const FailingAllocator allocator(number, mode);
          try {
            operation();
          } catch (const std::bad_alloc&) {
          }
          refused = FailingAllocator::Refused();
        }
        check();
      }
    }
  }
  // What the view shows is the old table or the packed one.
  void ExpectRowsOfOneTable() {
    const std::string count = Value("totrec");
    ASSERT_TRUE(count == "5" || count == "4") << count;
    int record = 0;
    for (const char name : std::string(count == "5" ? "dbeac" : "deac")) {
      record++;
      ASSERT_TRUE(Go(record)) << ViewError();
      EXPECT_EQ(Value("name"), std::string(1, name));
      EXPECT_EQ(Value("note"), std::string(300, name));
      EXPECT_EQ(Place(), std::to_string(record));
    }
  }

  std::map<std::string, std::string> whole;
};

TEST_F(XBaseMemoryTest, AfterAPackTheViewReadsTheOldTableOrTheNewOne) {
  WithEachBlockRefused([&] { (void)database->Pack(); },
                       [&] {
                         ExpectRowsOfOneTable();
                         EXPECT_EQ(files.files.size(), 4u);
                       });
}

TEST_F(XBaseMemoryTest, AfterAReindexTheViewReadsTheTable) {
  WithEachBlockRefused([&] { (void)database->Reindex(); },
                       [&] {
                         ExpectRowsOfOneTable();
                         EXPECT_EQ(files.files.size(), 4u);
                       });
}

TEST_F(XBaseMemoryTest, AnIndexThatIsToBePrimaryIsNotLost) {
  WithEachBlockRefused([&] { (void)SetPrimary("n.zix"); },
                       [&] {
                         EXPECT_TRUE(SetPrimary("n.zix")) << Error();
                         EXPECT_TRUE(SetPrimary("name.zix")) << Error();
                       });
}

TEST_F(XBaseMemoryTest, AViewThatIsToBePrimaryIsNotLost) {
  DatabaseView* primary = nullptr;
  WithEachBlockRefused([&] { database->SetPrimaryView(primary = database->PrimaryView()); },
                       [&] {
                         EXPECT_EQ(database->PrimaryView(), primary);
                         EXPECT_NE(database->Find("name", -1), nullptr);
                       });
}

TEST_F(XBaseMemoryTest, AnUpdateKeepsTheNewValuesInTheFields) {
  WithEachBlockRefused(
      [&] {
        {
          const FailingAllocator::Pause pause;
          Set("name", "x");
        }
        (void)view().Update();
      },
      [&] { EXPECT_EQ(Value("name"), "x"); });
}

TEST_F(XBaseMemoryTest, AClosedDatabaseNeedsNoMemoryAlsoIfAnotherHasAViewOfItsName) {
  StartOver();
  std::unique_ptr<XBaseDatabase> first = std::move(database);
  ASSERT_TRUE(OpenTable());
  const ThreadMemory::Run run;
  {
    const FailingAllocator allocator(1, FailingAllocator::FromThereOn);
    first.reset();
  }
  EXPECT_EQ(Value("name"), "d");
}

// A machine with a database, as the body of a run.
class Session : public XBaseMachine {
 public:
  void TestBody() override {}
  void Run(const std::map<std::string, std::string>& content) {
    files.files = content;
    if (!OpenTable() || !OpenIndexes("name.zix, n.zix")) return;
    Field("name")->SetValue("x", 1);
    (void)view().Add();
    (void)view().Update();
    (void)CreateIndex("o.zix", "d.note");
    (void)SetPrimary("name.zix");
    (void)Filter("n LT 5");
    (void)Go(-1);
    (void)view().RevealStructure_Table("s.dbf", -1, 0, nullptr);
    (void)database->Reindex();
    (void)database->Pack();
  }
};

TEST_F(XBaseMemoryTest, NothingIsLost) {
  EXPECT_GT(ExpectNothingIsLost(
                [&] {
                  Session session;
                  session.Run(whole);
                },
                true, 50),
            100);
}

}  // namespace
