#include "base/database/XBaseIndex.h"

#include "tests/support/XBaseMachine.h"

namespace {

class XBaseIndexTest : public XBaseMachine {
 protected:
  XBaseIndexTest() { EXPECT_TRUE(CreateTable("name char(10), n number(5)")); }

  std::unique_ptr<XBaseIndex> MakeIndex(const std::string& expression) {
    auto index = std::make_unique<XBaseIndex>(vm(), database.get(), "i", 1);
    EXPECT_TRUE(index->Create(String("i.zix"), Bytes(expression), 0)) << TextOf(index->error());
    return index;
  }
  static const unsigned char* Bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.c_str());
  }
};

TEST_F(XBaseIndexTest, HasTheNameAndPathThatItWasGiven) {
  XBaseIndex index(vm(), database.get(), "by name", -1);
  ASSERT_TRUE(index.Create(String("dir/i.zix"), Bytes("d.name"), 2));
  EXPECT_EQ(TextOf(index.name()), "by name");
  EXPECT_EQ(TextOf(index.path()), "dir/i.zix");
  EXPECT_EQ(index.flags(), 2u);
  EXPECT_STREQ(reinterpret_cast<const char*>(index.keyexpression()), "d.name");
}

TEST_F(XBaseIndexTest, RefusesAnExpressionThatTheFileWouldCut) {
  XBaseIndex index(vm(), database.get(), "i", 1);
  ASSERT_TRUE(index.Create(String("i.zix"), Bytes("'" + std::string(398, 'x') + "'"), 0));
  const std::string before = files.files["i.zix"];
  EXPECT_FALSE(index.Create(String("i.zix"), Bytes("'" + std::string(399, 'x') + "'"), 0));
  EXPECT_EQ(TextOf(index.error()),
            "Error creating 'i.zix': key expression is too long (maximum 400)");
  EXPECT_EQ(files.files["i.zix"], before);
  EXPECT_FALSE(index.Create(nullptr, "j.zix", Bytes(std::string(401, ' ')), 0));
  EXPECT_EQ(TextOf(index.error()),
            "Error creating 'j.zix': key expression is too long (maximum 400)");
}

TEST_F(XBaseIndexTest, HasTheErrorOfItsFile) {
  XBaseIndex index(vm(), database.get(), "i", 1);
  EXPECT_FALSE(index.Open(String("none.zix")));
  EXPECT_EQ(TextOf(index.error()), "Error opening 'none.zix': No such file or directory");
  unsigned record = 0;
  EXPECT_FALSE(index.Insert(1, Bytes("k"), 1));
  EXPECT_TRUE(index.First(&record));  // a header that can't be read counts as an end
  EXPECT_EQ(record, 0u);
}

TEST_F(XBaseIndexTest, CompilesItsExpressionOnce) {
  auto index = MakeIndex("d.name $ d.n");
  const int segments = machine.segments.Segments();
  Segment* segment = index->GetSegment();
  ASSERT_TRUE(segment);
  EXPECT_EQ(index->GetSegment(), segment);
  EXPECT_EQ(machine.segments.Segments(), segments + 1);
}

TEST_F(XBaseIndexTest, AnExpressionThatDoesNotCompileHasTheCompilersText) {
  auto index = MakeIndex("d.name +* 2");
  EXPECT_FALSE(index->GetSegment());
  EXPECT_EQ(TextOf(index->error()), "Argument expected in Expression");
  XBaseKey key;
  EXPECT_FALSE(index->ComputeKey(&key));
}

TEST_F(XBaseIndexTest, ComputesTheKeyOfTheCurrentRecord) {
  ASSERT_TRUE(Add({{"name", "Ann"}, {"n", "7"}}));
  auto index = MakeIndex("d.name $ '-' $ d.n");
  XBaseKey key;
  ASSERT_TRUE(index->ComputeKey(&key)) << TextOf(index->error());
  EXPECT_EQ(TextOf(key.Copy()), "Ann-7");
  // Once more into the same object, which frees the first text.
  ASSERT_TRUE(index->ComputeKey(&key));
  EXPECT_EQ(TextOf(key.Copy()), "Ann-7");
}

TEST_F(XBaseIndexTest, AnExpressionWithoutAValueHasTheEmptyKey) {
  auto index = MakeIndex("");
  XBaseKey key;
  ASSERT_TRUE(index->ComputeKey(&key));
  EXPECT_EQ(key.length(), 0);
  EXPECT_EQ(TextOf(key.Copy()), "");
}

TEST_F(XBaseIndexTest, ACopiedKeyEndsAtItsFirstNUL) {
  Hook("hook")->code = [] { return std::string("ab\0cd", 5); };
  auto index = MakeIndex("hook");
  XBaseKey key;
  ASSERT_TRUE(index->ComputeKey(&key));
  EXPECT_EQ(key.length(), 5);
  EXPECT_EQ(TextOf(key.Copy()), "ab");
}

TEST_F(XBaseIndexTest, AFailedEvaluationHasTheMachinesText) {
  auto index = MakeIndex("1 +");
  XBaseKey key;
  EXPECT_FALSE(index->ComputeKey(&key));
  EXPECT_EQ(TextOf(index->error()), machine.Error());
  EXPECT_EQ(machine.Failure(), "Stack underflow");
}

TEST_F(XBaseIndexTest, HoldsItsMachineUntilTheMachineEnds) {
  const int before = vm()->Children();
  {
    auto index = MakeIndex("d.name");
    EXPECT_EQ(vm()->Children(), before + 1);
  }
  EXPECT_EQ(vm()->Children(), before);
  auto index = MakeIndex("d.name");
  index->Release_VM();
  EXPECT_EQ(vm()->Children(), before);
  index->Release_VM();
  EXPECT_EQ(vm()->Children(), before);
  EXPECT_FALSE(index->GetSegment());
}

}  // namespace
