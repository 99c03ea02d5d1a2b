#include "base/values/Aggregate.h"

#include <climits>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/values/VariableRef.h"

namespace {

using std::string;

string Text(const String& text) {
  return {text.data ? text.data : "", static_cast<size_t>(text.length)};
}

// --- AggregateIndex ------------------------------------------------------------------------------

TEST(AggregateIndex, PositionsAreNeverNegative) {
  EXPECT_EQ(AggregateIndex(5).position, 5);
  EXPECT_EQ(AggregateIndex(0).position, 0);
  EXPECT_EQ(AggregateIndex(-1).position, 0);
  EXPECT_EQ(AggregateIndex(INT_MIN).position, 0);
  EXPECT_EQ(AggregateIndex(5).kind(), AggregateArray);
  EXPECT_EQ(AggregateIndex("5", 1).kind(), AggregateStructure);
  EXPECT_EQ(AggregateIndex().kind(), AggregateStructure);
  EXPECT_EQ(AggregateIndex(String("a")).position, -1);
}

TEST(AggregateIndex, PositionsCompareAsNumbers) {
  EXPECT_EQ(AggregateIndex(3).Compare(AggregateIndex(3)), 0);
  EXPECT_GT(AggregateIndex(3).Compare(AggregateIndex(10)), 0);
  EXPECT_LT(AggregateIndex(10).Compare(AggregateIndex(3)), 0);
}

TEST(AggregateIndex, NamesCompareWithoutCaseAndThenByLength) {
  const auto compare = [](const char* a, const char* b) {
    return AggregateIndex(a, -1).Compare(AggregateIndex(b, -1));
  };
  EXPECT_EQ(compare("Name", "NAME"), 0);
  EXPECT_GT(compare("a", "b"), 0);
  EXPECT_LT(compare("b", "A"), 0);
  EXPECT_GT(compare("name", "names"), 0);
  EXPECT_LT(compare("names", "name"), 0);
  EXPECT_GT(compare("", "a"), 0);
  EXPECT_EQ(AggregateIndex().Compare(AggregateIndex("", 0)), 0);
}

TEST(AggregateIndex, TheTextOfAPositionIsMadeOnDemand) {
  AggregateIndex position(12);
  EXPECT_EQ(position.key.length, 0);
  const String& text = position;
  EXPECT_EQ(Text(text), "12");
  EXPECT_EQ(position.position, 12);
  AggregateIndex name("abc", 3);
  EXPECT_EQ(Text(static_cast<String&>(name)), "abc");
}

TEST(AggregateIndex, SerializedIsWhatAPathWouldSay) {
  AggregateIndex position(12);
  EXPECT_EQ(Text(position.serialized()), "[12]");
  AggregateIndex name("Abc", 3);
  EXPECT_EQ(Text(name.serialized()), ":Abc");
  EXPECT_EQ(Text(name.serialized()), ":Abc");
  AggregateIndex empty("", 0);
  EXPECT_EQ(Text(empty.serialized()), "");
}

TEST(AggregateIndex, ACopyLeavesTheSerializedTextBehind) {
  AggregateIndex name("abc", 3);
  name.serialized();
  const AggregateIndex copy(name);
  EXPECT_EQ(Text(copy.key), "abc");
  EXPECT_EQ(copy.serialized_text.length, 0);
  AggregateIndex position(7);
  (void)static_cast<String&>(position);
  const AggregateIndex copied(position);
  EXPECT_EQ(copied.position, 7);
  EXPECT_EQ(Text(copied.key), "7");
}

// --- AggregateElement ----------------------------------------------------------------------------

TEST(AggregateElement, MakesItsVariableOrSharesOne) {
  AggregateElement made{AggregateIndex(1)};
  EXPECT_EQ(made.var()->refcount(), 1);
  EXPECT_EQ(made.var()->IsNULL(), 1);
  EXPECT_EQ(made.var()->name().length, 0);
  const VariableRef variable(new Variable("v", 1, 5));
  {
    AggregateElement shared(AggregateIndex("m", 1), variable.get());
    EXPECT_EQ(shared.var(), variable.get());
    EXPECT_EQ(variable->refcount(), 2);
  }
  EXPECT_EQ(variable->refcount(), 1);
}

TEST(AggregateElement, ACopyHasAVariableOfItsOwn) {
  const VariableRef variable(new Variable("v", 1, 5));
  const AggregateElement source(AggregateIndex(1), variable.get());
  AggregateElement copy(source);
  variable->SetValue_Integer(6);
  EXPECT_EQ(copy.var()->value_integer(), 5);
  EXPECT_EQ(copy.index().position, 1);
}

TEST(AggregateElement, SettingItsOwnVariableIsHarmless) {
  AggregateElement element{AggregateIndex(1)};
  Variable* variable = element.var();
  element.SetVariable(variable);
  EXPECT_EQ(element.var(), variable);
  EXPECT_EQ(variable->refcount(), 1);
  const VariableRef other(new Variable());
  element.SetVariable(other.get());
  EXPECT_EQ(other->refcount(), 2);
  element.SetVariable(nullptr);
  EXPECT_EQ(other->refcount(), 1);
}

// --- AggregateElementTree ------------------------------------------------------------------------

std::vector<int> Positions(AggregateElementTree& tree) {
  std::vector<AggregateElementTree::Row> rows;
  tree.Listing(&rows);
  std::vector<int> positions;
  for (const auto& row : rows) positions.push_back(row.position);
  return positions;
}

void Fill(AggregateElementTree* tree, const std::vector<int>& positions) {
  for (int position : positions) tree->InsertNew(AggregateIndex(position));
}

TEST(AggregateElementTree, DisplaceMovesAllFromThePositionOn) {
  struct Case {
    int from;
    int delta;
    std::vector<int> expected;
  };
  const Case cases[] = {
      {3, 2, {1, 2, 5, 9}},  {4, 2, {1, 2, 3, 9}},  {1, 10, {11, 12, 13, 17}},
      {8, 5, {1, 2, 3, 7}},  {7, -3, {1, 2, 3, 4}}, {2, 0, {1, 2, 3, 7}},
      {-5, 1, {2, 3, 4, 8}}, {7, -4, {1, 2, 3, 3}}, {7, INT_MAX, {1, 2, 3, INT_MIN + 6}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "from " << c.from << " by " << c.delta);
    AggregateElementTree tree;
    Fill(&tree, {2, 7, 1, 3});
    tree.Displace(c.from, c.delta);
    EXPECT_EQ(Positions(tree), c.expected);
  }
  AggregateElementTree empty;
  empty.Displace(1, 1);
  EXPECT_EQ(empty.Entries(), 0);
}

TEST(AggregateElementTree, DisplaceMovesEveryElementOfAnySize) {
  for (int count : {98, 99, 100, 101, 2000}) {
    SCOPED_TRACE(count);
    AggregateElementTree tree;
    for (int i = 1; i <= count; i++) tree.InsertNew(AggregateIndex(i * 3));
    tree.Displace(30, 1000);
    const std::vector<int> positions = Positions(tree);
    ASSERT_EQ(positions.size(), static_cast<size_t>(count));
    for (int i = 1; i <= count; i++) {
      ASSERT_EQ(positions[static_cast<size_t>(i - 1)], i * 3 + (i >= 10 ? 1000 : 0));
    }
  }
}

TEST(AggregateElementTree, DisplaceClearsTheTextOfTheOldPosition) {
  AggregateElementTree tree;
  tree.InsertNew(AggregateIndex(2));
  AggregateElement* element = tree.Find(AggregateIndex(2));
  (void)static_cast<String&>(element->index());
  element->index().serialized();
  tree.Displace(1, 3);
  EXPECT_EQ(Text(static_cast<String&>(element->index())), "5");
  EXPECT_EQ(Text(element->index().serialized()), "[5]");
}

TEST(AggregateElementTree, ACopyIsDeep) {
  for (int count : {99, 100}) {
    SCOPED_TRACE(count);
    AggregateElementTree tree;
    for (int i = 1; i <= count; i++) tree.InsertNew(AggregateIndex(i))->SetValue_Integer(i);
    AggregateElementTree copy(tree);
    EXPECT_EQ(copy.Entries(), count);
    EXPECT_EQ(Positions(copy), Positions(tree));
    tree.Find(AggregateIndex(50))->var()->SetValue_Integer(-1);
    EXPECT_EQ(copy.Find(AggregateIndex(50))->var()->value_integer(), 50);
  }
}

TEST(AggregateElementTree, AListingForACopyHasEveryElementOnce) {
  for (int count : {0, 1, 99, 100, 500}) {
    SCOPED_TRACE(count);
    AggregateElementTree tree;
    for (int i = 1; i <= count; i++) tree.InsertNew(AggregateIndex(i * 37 % 1009));
    std::vector<AggregateElementTree::Row> listing;
    tree.ListingForCopy(&listing);
    EXPECT_EQ(listing.size(), static_cast<size_t>(count));
  }
}

}  // namespace
