#include <climits>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/values/Aggregate.h"
#include "base/values/Variable.h"
#include "base/values/VariableKinds.h"
#include "base/values/VariableRef.h"
#include "tests/support/Rounds.h"

namespace {

using std::string;

VariableRef New() {
  return VariableRef(new Variable());
}
VariableRef New(const string& text) {
  return VariableRef(new Variable("v", 1, text.data(), static_cast<int>(text.size())));
}

string Value(Variable* variable) {
  const String& text = variable->value();
  return {text.data ? text.data : "", static_cast<size_t>(text.length)};
}

void Set(Variable* variable, const string& text) {
  variable->SetValue(text.data(), static_cast<int>(text.size()));
}

// An array of the letters, each at its position.
VariableRef Array(const std::map<int, string>& content) {
  VariableRef array = New();
  array->Convert_Aggregate(AggregateArray);
  for (const auto& [position, text] : content) {
    Set(array->Element(AggregateIndex(position), 1), text);
  }
  return array;
}

std::map<int, string> Content(Variable* array) {
  std::map<int, string> content;
  if (!array->aggregateelements()) return content;
  std::vector<AggregateElementTree::Row> rows;
  array->aggregateelements()->Listing(&rows);
  for (const auto& row : rows) {
    EXPECT_TRUE(content.emplace(row.position, Value(row.variable)).second)
        << "two elements at " << row.position;
  }
  return content;
}
std::map<int, string> Content(const VariableRef& array) {
  return Content(array.get());
}

using Map = std::map<int, string>;

// --- Element -------------------------------------------------------------------------------------

TEST(Element, OfTheOtherKindIsMissingUnlessItIsMade) {
  const VariableRef variable = Array({{1, "a"}, {2, "b"}});
  EXPECT_EQ(variable->Element(AggregateIndex("a", 1), 0), nullptr);
  EXPECT_EQ(Content(variable), (Map{{1, "a"}, {2, "b"}}));
  ASSERT_NE(variable->Element(AggregateIndex("a", 1), 1), nullptr);
  EXPECT_EQ(variable->aggregatetype(), AggregateStructure);
  EXPECT_EQ(variable->ElementsUsed(), 1);
  ASSERT_NE(variable->Element(AggregateIndex(5), 1), nullptr);
  EXPECT_EQ(variable->aggregatetype(), AggregateArray);
  EXPECT_EQ(variable->ElementsUsed(), 1);
}

TEST(Element, ReadingNeverMakes) {
  const VariableRef variable = New("scalar");
  EXPECT_EQ(variable->Element(AggregateIndex(1), 0), nullptr);
  EXPECT_EQ(variable->Element(AggregateIndex("a", 1), 0), nullptr);
  EXPECT_EQ(Value(variable.get()), "scalar");
  EXPECT_EQ(variable->Element(AggregateIndex(1), 1)->IsNULL(), 1);
  EXPECT_EQ(variable->aggregatetype(), AggregateArray);
  EXPECT_EQ(variable->Element(AggregateIndex(2), 0), nullptr);
  EXPECT_EQ(variable->ElementsUsed(), 1);
}

TEST(Element, MemberNamesIgnoreCaseAndKeepTheFirstSpelling) {
  const VariableRef variable = New();
  Variable* element = variable->Element(AggregateIndex("Name", 4), 1);
  EXPECT_EQ(variable->Element(AggregateIndex("NAME", 4), 1), element);
  std::vector<AggregateElement*> elements;
  variable->aggregateelements()->Listing(&elements);
  ASSERT_EQ(elements.size(), 1u);
  EXPECT_STREQ(elements[0]->index().key.data, "Name");
}

TEST(Element, ASparseArrayHoldsOnlyWhatWasWritten) {
  const VariableRef variable = New();
  variable->Element(AggregateIndex(3), 1);
  EXPECT_EQ(variable->ElementsUsed(), 1);
  EXPECT_EQ(variable->Max(), 3);
  EXPECT_EQ(variable->Element(AggregateIndex(1), 0), nullptr);
  variable->Element(AggregateIndex(1000000), 1);
  EXPECT_EQ(variable->ElementsUsed(), 2);
  EXPECT_EQ(variable->Max(), 1000000);
}

TEST(Element, APathWalksKeysOfBothKinds) {
  const VariableRef variable = New();
  List<AggregateIndex> path(1);
  EXPECT_EQ(variable->Element(&path, 1), variable.get());
  EXPECT_EQ(variable->Element(static_cast<List<AggregateIndex>*>(nullptr), 1), variable.get());
  path.Insert(new AggregateIndex("a", 1), ListTail);
  path.Insert(new AggregateIndex(2), ListTail);
  path.Insert(new AggregateIndex("b", 1), ListTail);
  EXPECT_EQ(variable->Element(&path, 0), nullptr);
  EXPECT_EQ(variable->aggregatetype(), AggregateNone);
  Variable* made = variable->Element(&path, 1);
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(variable->Element(&path, 0), made);
  EXPECT_EQ(variable->aggregatetype(), AggregateStructure);
}

// --- SetElement, InsertElement -------------------------------------------------------------------

TEST(SetElement, SharesTheVariable) {
  const VariableRef shared = New("x");
  const VariableRef first = New();
  const VariableRef second = New();
  first->SetElement(AggregateIndex(1), shared.get());
  second->SetElement(AggregateIndex("m", 1), shared.get());
  EXPECT_EQ(shared->refcount(), 3);
  Set(first->Element(AggregateIndex(1), 0), "changed");
  EXPECT_EQ(Value(second.get()), "changed");
  EXPECT_EQ(Value(shared.get()), "changed");
}

TEST(SetElement, ReplacesWhatStoodThere) {
  const VariableRef array = Array({{1, "a"}, {2, "b"}});
  const VariableRef value = New("new");
  array->SetElement(AggregateIndex(2), value.get());
  EXPECT_EQ(Content(array), (Map{{1, "a"}, {2, "new"}}));
  array->SetElement(AggregateIndex(2), value.get());
  EXPECT_EQ(value->refcount(), 2);
  array->SetElement(AggregateIndex("m", 1), value.get());
  EXPECT_EQ(array->aggregatetype(), AggregateStructure);
  EXPECT_EQ(value->refcount(), 2);
}

TEST(SetElement, KeepsAnElementOfTheAggregateThatGivesWay) {
  const VariableRef variable = New();
  Set(variable->Element(AggregateIndex("m", 1), 1), "kept");
  Variable* member = variable->Element(AggregateIndex("m", 1), 0);
  variable->SetElement(AggregateIndex(1), member);
  EXPECT_EQ(variable->aggregatetype(), AggregateArray);
  EXPECT_EQ(Value(variable.get()), "kept");
  EXPECT_EQ(member->refcount(), 1);
}

TEST(InsertElement, MakesRoomAtItsPosition) {
  const VariableRef array = Array({{1, "a"}, {2, "b"}, {5, "e"}});
  const VariableRef value = New("new");
  array->InsertElement(2, value.get());
  EXPECT_EQ(Content(array), (Map{{1, "a"}, {2, "new"}, {3, "b"}, {6, "e"}}));
  EXPECT_EQ(value->refcount(), 2);
}

TEST(InsertElement, BelowOneAppends) {
  const VariableRef array = Array({{1, "a"}, {5, "e"}});
  const VariableRef value = New("new");
  array->InsertElement(0, value.get());
  EXPECT_EQ(Content(array), (Map{{1, "a"}, {5, "e"}, {6, "new"}}));
  array->InsertElement(-7, value.get());
  EXPECT_EQ(array->Max(), 7);
  const VariableRef empty = Array({});
  empty->InsertElement(0, value.get());
  EXPECT_EQ(Content(empty), (Map{{1, "new"}}));
}

TEST(InsertElement, IntoAnythingButAnArrayStartsOne) {
  const VariableRef value = New("new");
  for (int index : {-1, 0, 1, 4}) {
    SCOPED_TRACE(index);
    const VariableRef scalar = New("old");
    scalar->InsertElement(index, value.get());
    EXPECT_EQ(Content(scalar), (Map{{index < 1 ? 1 : index, "new"}}));
  }
  const VariableRef structure = New();
  Set(structure->Element(AggregateIndex("m", 1), 1), "member");
  Variable* member = structure->Element(AggregateIndex("m", 1), 0);
  structure->InsertElement(3, member);
  EXPECT_EQ(Content(structure), (Map{{3, "member"}}));
}

TEST(InsertElement, AfterTheLastLeavesAGap) {
  const VariableRef array = Array({{1, "a"}});
  const VariableRef value = New("new");
  array->InsertElement(9, value.get());
  EXPECT_EQ(Content(array), (Map{{1, "a"}, {9, "new"}}));
}

// --- DeleteElement, DeleteElements ---------------------------------------------------------------

TEST(DeleteElement, ClosesTheGapOnlyWithCompact) {
  const VariableRef compacted = Array({{1, "a"}, {2, "b"}, {3, "c"}});
  compacted->DeleteElement(AggregateIndex(2), true);
  EXPECT_EQ(Content(compacted), (Map{{1, "a"}, {2, "c"}}));
  const VariableRef plain = Array({{1, "a"}, {2, "b"}, {3, "c"}});
  plain->DeleteElement(AggregateIndex(2), false);
  EXPECT_EQ(Content(plain), (Map{{1, "a"}, {3, "c"}}));
}

TEST(DeleteElement, ClosesAGapThatWasThereAlready) {
  const VariableRef array = Array({{1, "a"}, {3, "c"}});
  array->DeleteElement(AggregateIndex(2), true);
  EXPECT_EQ(Content(array), (Map{{1, "a"}, {2, "c"}}));
}

TEST(DeleteElement, OfTheWrongKindDoesNothing) {
  const VariableRef array = Array({{1, "a"}});
  array->DeleteElement(AggregateIndex("a", 1), true);
  EXPECT_EQ(Content(array), (Map{{1, "a"}}));
  const VariableRef structure = New();
  structure->Element(AggregateIndex("m", 1), 1);
  structure->DeleteElement(AggregateIndex(1), true);
  EXPECT_EQ(structure->ElementsUsed(), 1);
  structure->DeleteElement(AggregateIndex("M", 1), true);
  EXPECT_EQ(structure->ElementsUsed(), 0);
  EXPECT_EQ(structure->aggregatetype(), AggregateStructure);
  const VariableRef scalar = New("x");
  scalar->DeleteElement(AggregateIndex(1), true);
  EXPECT_EQ(Value(scalar.get()), "x");
}

TEST(DeleteElement, TakesTheIndexOfTheElementItself) {
  const VariableRef array = Array({{1, "a"}, {2, "b"}, {3, "c"}});
  array->DeleteElement(array->aggregateelements()->First()->index(), true);
  EXPECT_EQ(Content(array), (Map{{1, "b"}, {2, "c"}}));
}

TEST(DeleteElements, ToTheEndNeverShifts) {
  for (bool compact : {false, true}) {
    const VariableRef array = Array({{1, "a"}, {2, "b"}, {7, "c"}, {9, "d"}});
    array->DeleteElements(2, -1, compact);
    EXPECT_EQ(Content(array), (Map{{1, "a"}}));
    array->DeleteElements(0, -1, compact);
    EXPECT_EQ(Content(array), Map{});
    EXPECT_EQ(array->aggregatetype(), AggregateArray);
  }
}

TEST(DeleteElements, RemovesARangeAndShiftsWithCompact) {
  const Map all = {{1, "a"}, {2, "b"}, {4, "d"}, {7, "g"}};
  struct Case {
    int start;
    int count;
    bool compact;
    Map expected;
  };
  const Case cases[] = {
      {2, 3, false, {{1, "a"}, {7, "g"}}},
      {2, 3, true, {{1, "a"}, {4, "g"}}},
      {5, 2, true, {{1, "a"}, {2, "b"}, {4, "d"}, {5, "g"}}},
      {5, 2, false, all},
      {1, 100, true, {}},
      {2, 0, true, all},
      {-3, 5, true, {{-1 + 3, "d"}, {5, "g"}}},
      {2, INT_MAX, false, all},  // the end wraps
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.start << ", " << c.count << ", " << c.compact);
    const VariableRef array = Array(all);
    array->DeleteElements(c.start, c.count, c.compact);
    if (c.start == -3) continue;  // checks only that the operation ends
    EXPECT_EQ(Content(array), c.expected);
  }
}

TEST(DeleteElements, OnAnythingButAnArrayLeavesAnEmptyOne) {
  const VariableRef structure = New();
  structure->Element(AggregateIndex("m", 1), 1);
  structure->DeleteElements(5, 0, false);
  EXPECT_EQ(structure->aggregatetype(), AggregateArray);
  EXPECT_EQ(structure->ElementsUsed(), 0);
  const VariableRef scalar = New("x");
  scalar->DeleteElements(1, -1, true);
  EXPECT_EQ(scalar->aggregatetype(), AggregateArray);
}

TEST(DeleteElements, DestroyAStructureWhateverTheArguments) {
  for (const int start : {INT_MIN, -1, 0, 1, 5, INT_MAX}) {
    for (const int count : {INT_MIN, -1, 0, 1, INT_MAX}) {
      for (const bool compact : {false, true}) {
        SCOPED_TRACE(testing::Message() << start << ", " << count << ", " << compact);
        const VariableRef member = New("kept");
        const VariableRef structure = New();
        structure->SetElement(AggregateIndex("m", 1), member.get());
        structure->DeleteElements(start, count, compact);
        EXPECT_EQ(structure->Element(AggregateIndex("m", 1), 0), nullptr);
        EXPECT_EQ(structure->ElementsUsed(), 0);
        EXPECT_EQ(member->refcount(), 1);
      }
    }
  }
}

// Removals can leave elements where a search misses them; every operation must still end.
TEST(DeleteElements, EndsOnEveryTreeThatRemovalsLeave) {
  constexpr unsigned seed = 11;
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (int round = 0; round < 3000; round++) {
    const VariableRef array = New();
    const int count = static_cast<int>(random() % 12) + 1;
    for (int i = 0; i < count; i++)
      array->Element(AggregateIndex(static_cast<int>(random() % 20)), 1);
    for (int i = 0; i < 20; i++) {
      const int position = static_cast<int>(random() % 20);
      switch (random() % 7) {
        case 0: array->DeleteElement(AggregateIndex(position), random() % 2); break;
        case 1:
          array->DeleteElements(position, static_cast<int>(random() % 5) - 1, random() % 2);
          break;
        case 2: array->Element(AggregateIndex(position), 1); break;
        case 3: array->CollapseElements(); break;
        case 4:
          array->CopyElements(array.get(), position, 3, static_cast<int>(random() % 20),
                              random() % 2);
          break;
        case 5:
          if (array->ElementsUsed() < 200) {
            array->MergeElements(array.get(), position, 3, static_cast<int>(random() % 20),
                                 random() % 2);
          }
          break;
        default: array->Element(AggregateIndex(position), 0); break;
      }
    }
    std::vector<AggregateElementTree::Row> elements;
    array->aggregateelements()->Listing(&elements);
    ASSERT_EQ(elements.size(), static_cast<size_t>(array->ElementsUsed()));
  }
}

// --- CollapseElements, Max, Min, Next, Previous --------------------------------------------------

TEST(CollapseElements, RenumbersFromOne) {
  const VariableRef array = Array({{3, "a"}, {9, "b"}, {12, "c"}});
  EXPECT_EQ(array->CollapseElements(), 3);
  EXPECT_EQ(Content(array), (Map{{1, "a"}, {2, "b"}, {3, "c"}}));
  EXPECT_EQ(Value(array->Element(AggregateIndex(2), 0)), "b");
}

TEST(CollapseElements, TreatsPositionZeroAsAKey) {
  const VariableRef array = Array({{0, "a"}, {1, "b"}, {2, "c"}});
  EXPECT_EQ(array->CollapseElements(), 3);
  EXPECT_EQ(Content(array), (Map{{1, "a"}, {2, "b"}, {3, "c"}}));
}

TEST(CollapseElements, AnswersZeroWithoutAnArray) {
  const VariableRef structure = New();
  structure->Element(AggregateIndex("m", 1), 1);
  EXPECT_EQ(structure->CollapseElements(), 0);
  EXPECT_EQ(New("x")->CollapseElements(), 0);
  EXPECT_EQ(Array({})->CollapseElements(), 0);
}

TEST(CollapseElements, RenumbersLargeArrays) {
  for (int count : {99, 100, 1000}) {
    const VariableRef array = New();
    for (int i = count; i >= 1; i--) array->Element(AggregateIndex(i * 5), 1)->SetValue_Integer(i);
    EXPECT_EQ(array->CollapseElements(), count);
    for (int i = 1; i <= count; i++) {
      ASSERT_EQ(array->Element(AggregateIndex(i), 0)->value_integer(), i);
    }
  }
}

TEST(Positions, OfAnArray) {
  const VariableRef array = Array({{2, "a"}, {5, "b"}, {9, "c"}});
  EXPECT_EQ(array->Min(), 2);
  EXPECT_EQ(array->Max(), 9);
  EXPECT_EQ(array->ElementsUsed(), 3);
  EXPECT_EQ(array->Next(0), 2);
  EXPECT_EQ(array->Next(2), 5);
  EXPECT_EQ(array->Next(6), 9);
  EXPECT_EQ(array->Next(9), 0);
  EXPECT_EQ(array->Next(INT_MAX), 0);
  EXPECT_EQ(array->Previous(10), 9);
  EXPECT_EQ(array->Previous(9), 5);
  EXPECT_EQ(array->Previous(4), 2);
  EXPECT_EQ(array->Previous(2), 0);
  EXPECT_EQ(array->Previous(-5), 0);
}

TEST(Positions, OfAnEmptyAggregateAndAScalarAreZero) {
  const VariableRef empty = Array({});
  const VariableRef scalar = New("x");
  for (Variable* variable : {empty.get(), scalar.get()}) {
    EXPECT_EQ(variable->Min(), 0);
    EXPECT_EQ(variable->Max(), 0);
    EXPECT_EQ(variable->Next(0), 0);
    EXPECT_EQ(variable->Previous(5), 0);
    EXPECT_EQ(variable->ElementsUsed(), 0);
  }
}

TEST(Positions, OfAStructureAreMinusOne) {
  const VariableRef structure = New();
  structure->Element(AggregateIndex("m", 1), 1);
  EXPECT_EQ(structure->Min(), -1);
  EXPECT_EQ(structure->Max(), -1);
  EXPECT_EQ(structure->Next(0), -1);
  EXPECT_EQ(structure->Previous(9), -1);
  EXPECT_EQ(structure->ElementsUsed(), 1);
}

// --- CopyElements, MergeElements -----------------------------------------------------------------

TEST(CopyElements, OverwritesAndLeavesGapsAlone) {
  const VariableRef target = Array({{1, "1"}, {2, "2"}, {3, "3"}, {4, "4"}});
  const VariableRef source = Array({{1, "a"}, {3, "c"}});
  target->CopyElements(source.get(), 1, 3, 2, true);
  EXPECT_EQ(Content(target), (Map{{1, "1"}, {2, "a"}, {3, "3"}, {4, "c"}}));
}

TEST(CopyElements, MissingArgumentsMeanAllAndTheEnd) {
  const VariableRef target = Array({{4, "x"}});
  const VariableRef source = Array({{2, "b"}, {3, "c"}});
  target->CopyElements(source.get(), 0, -1, 0, true);
  EXPECT_EQ(Content(target), (Map{{4, "x"}, {5, "b"}, {6, "c"}}));
}

TEST(CopyElements, SharesOrCopies) {
  const VariableRef source = Array({{1, "a"}});
  const VariableRef sharing = New();
  sharing->CopyElements(source.get(), 1, 1, 1, false);
  const VariableRef copying = New();
  copying->CopyElements(source.get(), 1, 1, 1, true);
  Set(source->Element(AggregateIndex(1), 0), "changed");
  EXPECT_EQ(Value(sharing.get()), "changed");
  EXPECT_EQ(Value(copying.get()), "a");
  EXPECT_EQ(source->Element(AggregateIndex(1), 0)->refcount(), 2);
  EXPECT_EQ(copying->Element(AggregateIndex(1), 0)->refcount(), 1);
}

TEST(CopyElements, WithinOneArrayMovesNothingTwice) {
  const VariableRef up = Array({{1, "a"}, {2, "b"}, {3, "c"}});
  up->CopyElements(up.get(), 1, 3, 2, true);
  EXPECT_EQ(Content(up), (Map{{1, "a"}, {2, "a"}, {3, "b"}, {4, "c"}}));
  const VariableRef down = Array({{2, "b"}, {3, "c"}, {4, "d"}});
  down->CopyElements(down.get(), 2, 3, 1, true);
  EXPECT_EQ(Content(down), (Map{{1, "b"}, {2, "c"}, {3, "d"}, {4, "d"}}));
}

TEST(CopyElements, FromWhatIsNoArrayOnlyConverts) {
  const VariableRef scalar = New("x");
  const VariableRef target = New("y");
  target->CopyElements(scalar.get(), 1, 1, 1, true);
  EXPECT_EQ(target->aggregatetype(), AggregateArray);
  EXPECT_EQ(target->ElementsUsed(), 0);
  target->CopyElements(nullptr, 1, 1, 1, true);
  EXPECT_EQ(target->ElementsUsed(), 0);
}

TEST(CopyElements, FromAnElementOfWhatGivesWay) {
  const VariableRef structure = New();
  Variable* member = structure->Element(AggregateIndex("m", 1), 1);
  Set(member->Element(AggregateIndex(2), 1), "inner");
  structure->CopyElements(member, 1, 5, 1, true);
  EXPECT_EQ(Content(structure), (Map{{2, "inner"}}));
}

// The source is in the place to which its own first element is copied.
TEST(CopyElements, FromAnElementThatIsOverwritten) {
  for (const bool copy : {false, true}) {
    SCOPED_TRACE(copy);
    const VariableRef array = New();
    Variable* inner = array->Element(AggregateIndex(1), 1);
    for (const int i : {1, 2, 3}) Set(inner->Element(AggregateIndex(i), 1), std::to_string(i));
    array->CopyElements(inner, 1, 3, 1, copy);
    EXPECT_EQ(Content(array), (Map{{1, "1"}, {2, "2"}, {3, "3"}}));
    EXPECT_EQ(array->Element(AggregateIndex(1), 0)->aggregatetype(), AggregateNone);
    EXPECT_EQ(array->Element(AggregateIndex(3), 0)->refcount(), 1);
  }
}

TEST(CopyElements, ThroughAReference) {
  const VariableRef source = Array({{1, "a"}});
  const VariableRef reference(new ReferenceVariable("r", 1, source.get()));
  const VariableRef target = New();
  target->CopyElements(reference.get(), 1, -1, 1, true);
  EXPECT_EQ(Content(target), (Map{{1, "a"}}));
}

TEST(MergeElements, InsertsAndMoves) {
  const VariableRef target = Array({{1, "1"}, {2, "2"}});
  const VariableRef source = Array({{1, "a"}, {2, "b"}, {3, "c"}});
  target->MergeElements(source.get(), 2, 2, 2, true);
  EXPECT_EQ(Content(target), (Map{{1, "1"}, {2, "b"}, {3, "c"}, {4, "2"}}));
  target->MergeElements(source.get(), 0, -1, 0, true);
  EXPECT_EQ(Content(target),
            (Map{{1, "1"}, {2, "b"}, {3, "c"}, {4, "2"}, {5, "a"}, {6, "b"}, {7, "c"}}));
}

TEST(MergeElements, OfWhatIsNoArrayLeavesAGap) {
  const VariableRef target = Array({{1, "a"}, {2, "b"}});
  const VariableRef scalar = New("x");
  target->MergeElements(scalar.get(), 1, 3, 2, true);
  EXPECT_EQ(Content(target), (Map{{1, "a"}, {5, "b"}}));
}

TEST(MergeElements, FromAnElementOfWhatGivesWay) {
  for (const bool copy : {false, true}) {
    SCOPED_TRACE(copy);
    const VariableRef structure = New();
    Variable* member = structure->Element(AggregateIndex("m", 1), 1);
    Set(member->Element(AggregateIndex(1), 1), "one");
    Set(member->Element(AggregateIndex(2), 1), "two");
    structure->MergeElements(member, 1, -1, 3, copy);
    EXPECT_EQ(Content(structure), (Map{{3, "one"}, {4, "two"}}));
    EXPECT_EQ(structure->Element(AggregateIndex(4), 0)->refcount(), 1);
  }
}

TEST(MergeElements, FromAnElementThatIsDisplaced) {
  const VariableRef array = Array({{1, "a"}, {3, "c"}});
  Variable* inner = array->Element(AggregateIndex(2), 1);
  for (const int i : {1, 2}) Set(inner->Element(AggregateIndex(i), 1), std::to_string(i));
  array->MergeElements(inner, 1, 2, 2, true);
  EXPECT_EQ(Content(array), (Map{{1, "a"}, {2, "1"}, {3, "2"}, {4, "1,2"}, {5, "c"}}));
}

TEST(MergeElements, IntoItselfInsideTheRangeKeepsTheWidenedBound) {
  // Positions 1 to 4 into 3: the upper part is 7 and 8, the bound takes 9 and 10 as well.
  const VariableRef array = Array({{1, "a"}, {2, "b"}, {3, "c"}, {4, "d"}, {5, "e"}, {6, "f"}});
  array->MergeElements(array.get(), 1, 4, 3, true);
  EXPECT_EQ(Content(array), (Map{{1, "a"},
                                 {2, "b"},
                                 {3, "a"},
                                 {4, "b"},
                                 {5, "c"},
                                 {6, "d"},
                                 {7, "e"},
                                 {8, "f"},
                                 {9, "e"},
                                 {10, "f"}}));
}

// A simple model of the two operations: positions to shared texts.
struct Model {
  std::map<int, std::shared_ptr<string>> elements;

  int Max() const { return elements.empty() ? 0 : elements.rbegin()->first; }
  int Min() const { return elements.empty() ? 0 : elements.begin()->first; }

  void Place(std::map<int, std::shared_ptr<string>> range, int delta, bool copy) {
    for (auto& [position, text] : range) {
      elements[position + delta] = copy ? std::make_shared<string>(*text) : text;
    }
  }
  static std::map<int, std::shared_ptr<string>> Range(const Model& source, int start, int end) {
    std::map<int, std::shared_ptr<string>> range;
    for (auto& [position, text] : source.elements) {
      if (position >= start && position < end && position > 0) range[position] = text;
    }
    return range;
  }
  void Displace(int from, int delta) {
    std::map<int, std::shared_ptr<string>> moved;
    for (auto& [position, text] : elements)
      moved[position >= from ? position + delta : position] = text;
    elements = std::move(moved);
  }
  void Copy(const Model& source, int start, int count, int dest, bool copy) {
    if (start < 1) start = source.Min();
    if (start < 1) return;
    if (count < 0) {
      if (source.Max() < 1) return;
      count = source.Max() - start + 1;
    }
    if (dest < 1) dest = Max() + 1;
    Place(Range(source, start, start + count), dest - start, copy);
  }
  void Merge(const Model& source, int start, int count, int dest, bool copy) {
    const bool self = &source == this;
    if (start < 1) start = source.Min();
    if (start < 1) start = 1;
    if (count < 0) count = source.Max() > 0 ? source.Max() - start + 1 : source.Max();
    if (dest < 1) dest = Max() + 1;
    const Model before = *this;
    Displace(dest, count);
    if (!self) {
      Place(Range(source, start, start + count), dest - start, copy);
    } else if (start + count <= dest || dest <= start) {
      Place(Range(before, start, start + count), dest - start, copy);
    } else {
      Place(Range(before, start, dest), dest - start, copy);
      // The elements that are between dest + count and dest + 3 * count move back by that.
      Place(Range(*this, dest + count, dest + 3 * count), dest - start - count, copy);
    }
  }
  Map Content() const {
    Map content;
    for (auto& [position, text] : elements) content[position] = *text;
    return content;
  }
};

struct Pair {
  VariableRef array = Array({});
  Model model;

  void Add(int position, const string& text) {
    Set(array->Element(AggregateIndex(position), 1), text);
    model.elements[position] = std::make_shared<string>(text);
  }
  // A write through one position is visible at all that share it.
  void Write(int position, const string& text) {
    Set(array->Element(AggregateIndex(position), 0), text);
    *model.elements[position] = text;
  }
};

TEST(CopyAndMerge, EqualAPlainModelOverRandomRanges) {
  constexpr unsigned seed = 20261121;
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const auto pick = [&random](int from, int to) {
    return from + static_cast<int>(random() % static_cast<unsigned>(to - from + 1));
  };
  int next = 0;
  for (int round = 0; round < Rounds(8000); round++) {
    Pair pairs[2];
    for (Pair& pair : pairs) {
      const int count = pick(0, round % 50 == 0 ? 150 : 8);
      for (int i = 0; i < count; i++) {
        pair.Add(pick(1, round % 50 == 0 ? 300 : 12), std::to_string(next++));
      }
    }
    for (int step = 0; step < 6; step++) {
      Pair& target = pairs[pick(0, 1)];
      Pair& source = pairs[pick(0, 1)];
      const int start = pick(-1, 14);
      const int count = pick(-1, 9);
      const int dest = pick(-1, 16);
      const bool copy = random() % 2;
      const bool merge = random() % 2;
      SCOPED_TRACE(testing::Message()
                   << (merge ? "merge " : "copy ") << (&target == &source ? "self " : "other ")
                   << start << ", " << count << ", " << dest << ", " << copy);
      if (merge) {
        // A range that starts after the last has a negative count, which closes gaps by collision.
        const int first = start < 1 ? source.model.Min() : start;
        if (count < 0 && source.model.Max() - first + 1 < 0) continue;
        target.array->MergeElements(source.array.get(), start, count, dest, copy);
        target.model.Merge(source.model, start, count, dest, copy);
      } else {
        target.array->CopyElements(source.array.get(), start, count, dest, copy);
        target.model.Copy(source.model, start, count, dest, copy);
      }
      ASSERT_EQ(Content(target.array), target.model.Content());
      if (!target.model.elements.empty()) {
        target.Write(target.model.Max(), std::to_string(next++));
        ASSERT_EQ(Content(pairs[0].array), pairs[0].model.Content());
        ASSERT_EQ(Content(pairs[1].array), pairs[1].model.Content());
      }
    }
    Variable::FreeCycles();
  }
}

TEST(CopyAndMerge, ExtremeArgumentsEnd) {
  const int extremes[] = {INT_MIN, INT_MIN + 1, -2, -1, 0, 1, 2, 100, INT_MAX - 1, INT_MAX};
  for (int start : extremes) {
    for (int count : extremes) {
      for (int dest : extremes) {
        const VariableRef array = New();
        for (int i = 1; i < 150; i++) array->Element(AggregateIndex(i), 1);
        array->MergeElements(array.get(), start, count, dest, false);
        array->CopyElements(array.get(), start, count, dest, false);
        array->DeleteElements(start, count, true);
        const VariableRef value = New();
        array->InsertElement(dest, value.get());
        ASSERT_LT(array->ElementsUsed(), 1000);
        array->SetNULL();
      }
    }
  }
}

}  // namespace
