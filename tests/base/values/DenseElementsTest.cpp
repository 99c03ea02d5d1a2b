// Compares arrays without a gap with the splay tree that they represent: over random histories
// every result and, at the end, the shape of the tree must be equal.

#include "base/values/DenseElements.h"

#include <bit>
#include <climits>
#include <cmath>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/values/Aggregate.h"
#include "base/values/Variable.h"
#include "base/values/VariableRef.h"
#include "tests/support/PlainElements.h"
#include "tests/support/Rounds.h"

namespace {

// The reference, with the operations of an array, each implemented directly.
class Plain : public PlainElements {
 public:
  AggregateElement* Element(int position, int create) {
    return At(AggregateIndex(position), create);
  }
  void SetElement(int position, Variable* variable) {
    if (AggregateElement* element = Find(AggregateIndex(position))) {
      element->SetVariable(variable);
    } else {
      Insert(new AggregateElement(AggregateIndex(position), variable));
    }
  }
  void InsertElement(int position, Variable* variable) {
    if (position >= 1) {
      Displace(position, 1);
    } else {
      position = Max() + 1;
    }
    Insert(new AggregateElement(AggregateIndex(position), variable));
  }
  void DeleteElement(int position, bool compact) {
    delete Remove(AggregateIndex(position));
    if (compact) Displace(position + 1, -1);
  }
  void DeleteElements(int start, int count, bool compact) {
    if (count == -1) {
      while (AggregateElement* last = Last()) {
        if (last->index().position < start) return;
        AggregateElement* removed = Remove(last->index());
        if (!removed) return;
        delete removed;
      }
      return;
    }
    AggregateElement* element = Next(AggregateIndex(start - 1));
    while (element && element->index().position < start + count) {
      AggregateElement* removed = Remove(element->index());
      if (!removed) break;
      element = Next(removed->index());
      delete removed;
    }
    if (compact) Displace(start + count, -count);
  }
  void Displace(int from, int delta) {
    if (delta == 0 || !root) return;
    const AggregateIndex first(from);
    Splay(first);
    if (root->item->index().position >= first.position) Move(root->item, delta);
    List<AggregateElement> right(0);
    AppendInOrder(root->right, &right);
    for (AggregateElement* e = right.First(); e; e = right.Next()) Move(e, delta);
  }
  // REQUIRES: the tree has no position 0.
  int Collapse() {
    int position = 0;
    for (AggregateElement* e = First(); e && position < Entries();
         e = Next(AggregateIndex(position))) {
      e->Renumber(++position);
    }
    return Entries();
  }
  void Place(AggregateElement* element, int position, bool copy) {
    if (!copy) {
      SetElement(position, element->var());
      return;
    }
    const VariableRef variable(new Variable(*element->var()));
    SetElement(position, variable.get());
  }
  void CopyElements(Plain* source, int start, int count, int dest, bool copy) {
    if (start < 1) start = source->Min();
    if (start < 1) return;
    if (count < 0) {
      if (source->Max() < 1) return;
      count = source->Max() - start + 1;
    }
    if (dest < 1) dest = Max() + 1;
    if (dest == start && source == this && !copy) return;
    const int delta = dest - start;
    if (dest < start) {
      PlaceUpward(source, start, start + count, delta, copy);
      return;
    }
    AggregateElement* e = source->Previous(AggregateIndex(start + count));
    while (e && e->index().position >= start) {
      const int position = e->index().position;
      Place(e, position + delta, copy);
      e = source->Previous(AggregateIndex(position));
      if (e && e->index().position >= position) return;
    }
  }
  void MergeElements(Plain* source, int start, int count, int dest, bool copy) {
    if (start < 1) start = source->Min();
    if (start < 1) start = 1;
    if (count < 0) count = source->Max() > 0 ? source->Max() - start + 1 : source->Max();
    if (dest < 1) dest = Max() + 1;
    Displace(dest, count);
    if (source != this || start + count <= dest) {
      PlaceUpward(source, start, start + count, dest - start, copy);
    } else if (dest <= start) {
      PlaceUpward(this, start + count, start + 2 * count, dest - (start + count), copy);
    } else {
      PlaceUpward(this, start, dest, dest - start, copy);
      PlaceUpward(this, dest + count, dest + 3 * count, dest - start - count, copy);
    }
  }
  int Max() { return Last() ? Last()->index().position : 0; }
  int Min() { return First() ? First()->index().position : 0; }
  int NextPosition(int position) {
    AggregateElement* element = Next(AggregateIndex(position));
    return element ? element->index().position : 0;
  }
  int PreviousPosition(int position) {
    AggregateElement* element = Previous(AggregateIndex(position));
    return element ? element->index().position : 0;
  }

  std::string Content() {
    List<AggregateElement> all(0);
    AppendInOrder(root, &all);
    std::string text;
    for (AggregateElement* e = all.First(); e; e = all.Next()) {
      text += std::to_string(e->index().position) + "=" +
              std::to_string(e->var()->value_integer()) + " ";
    }
    return text;
  }
  // Each position with its children's positions; works for a falling chain of any length.
  std::string Shape() const {
    std::string text;
    std::vector<const Node*> pending(1, root);
    while (!pending.empty()) {
      const Node* node = pending.back();
      pending.pop_back();
      if (!node) continue;
      text += std::to_string(node->item->index().position) + "(" + Position(node->left) + "," +
              Position(node->right) + ")";
      pending.push_back(node->right);
      pending.push_back(node->left);
    }
    return text;
  }

  // The positions in an order that shows the shape: a node before what is right and left of it.
  std::vector<int> Outline() const {
    std::vector<int> positions;
    std::vector<const Node*> pending(1, root);
    while (!pending.empty()) {
      const Node* node = pending.back();
      pending.pop_back();
      if (!node) continue;
      positions.push_back(node->item->index().position);
      pending.push_back(node->left);
      pending.push_back(node->right);
    }
    return positions;
  }

 private:
  void PlaceUpward(Plain* source, int start, int end, int delta, bool copy) {
    AggregateElement* e = source->Next(AggregateIndex(start - 1));
    while (e && e->index().position < end) {
      const int position = e->index().position;
      Place(e, position + delta, copy);
      e = source->Next(AggregateIndex(position));
      // A removal can leave elements where searches miss them, so the walk may turn back.
      if (e && e->index().position <= position) return;
    }
  }
  static std::string Position(const Node* node) {
    return node ? std::to_string(node->item->index().position) : "";
  }
  static void Move(AggregateElement* element, int delta) {
    element->Renumber(element->index().position + delta);
  }
  static void AppendInOrder(const Node* node, List<AggregateElement>* list) {
    std::vector<const Node*> above;
    while (node || !above.empty()) {
      for (; node; node = node->left) above.push_back(node);
      node = above.back();
      above.pop_back();
      list->Insert(node->item, ListTail);
      node = node->right;
    }
  }
};

// An array of a script, and the tree that it must equal.
class Pair {
 public:
  Pair() : array(new Variable()), tree(new Plain()) { array->Convert_Aggregate(AggregateArray); }

  void Write(int position) {
    ++value;
    if (value % 3 == 0 || !array->WriteElement(position, value)) {
      Variable* element = array->Element(AggregateIndex(position), 1);
      ASSERT_NE(element, nullptr);
      element->SetValue_Integer(value);
    }
    tree->Element(position, 1)->var()->SetValue_Integer(value);
  }
  void Read(int position) {
    DenseSlot slot;
    if (value % 3 == 0 && array->FindBare(position, &slot)) {
      AggregateElement* expected = tree->Element(position, 0);
      ASSERT_NE(expected, nullptr);
      ASSERT_TRUE(slot.IsInteger());
      ASSERT_EQ(slot.integer(), expected->var()->value_integer());
      return;
    }
    Variable* found =
        value % 2 ? array->At(position, 0) : array->Element(AggregateIndex(position), 0);
    AggregateElement* expected = tree->Element(position, 0);
    ASSERT_EQ(found != nullptr, expected != nullptr) << "at " << position;
    if (!found) return;
    ASSERT_EQ(found->value_integer(), expected->var()->value_integer());
  }
  void Next(int position) { ASSERT_EQ(array->Next(position), tree->NextPosition(position)); }
  void Previous(int position) {
    ASSERT_EQ(array->Previous(position), tree->PreviousPosition(position));
  }
  void Ends() {
    ASSERT_EQ(array->Max(), tree->Max());
    ASSERT_EQ(array->Min(), tree->Min());
    ASSERT_EQ(array->ElementsUsed(), tree->Entries());
  }
  void Set(int position) {
    const VariableRef variable(new Variable("", 0, ++value));
    array->SetElement(AggregateIndex(position), variable.get());
    tree->SetElement(position, variable.get());
  }
  void Insert(int position) {
    const VariableRef variable(new Variable("", 0, ++value));
    array->InsertElement(position, variable.get());
    tree->InsertElement(position, variable.get());
  }
  void Delete(int position, bool compact) {
    array->DeleteElement(AggregateIndex(position), compact);
    tree->DeleteElement(position, compact);
  }
  void DeleteMany(int start, int count, bool compact) {
    array->DeleteElements(start, count, compact);
    tree->DeleteElements(start, count, compact);
  }
  void Collapse() {
    if (array->ElementsUsed() > 0 && array->Min() == 0) return;
    ASSERT_EQ(array->CollapseElements(), tree->Collapse());
  }
  void CopyFrom(Pair* source, int start, int many, int dest, bool copy) {
    array->CopyElements(source->array.get(), start, many, dest, copy);
    tree->CopyElements(source->tree.get(), start, many, dest, copy);
  }
  void MergeFrom(Pair* source, int start, int many, int dest, bool copy) {
    array->MergeElements(source->array.get(), start, many, dest, copy);
    tree->MergeElements(source->tree.get(), start, many, dest, copy);
  }
  // REQUIRES: more than 99 elements, because only then does the order of a copy follow the shape.
  void CompareOutline() {
    std::vector<AggregateElementTree::Row> rows;
    array->aggregateelements()->ListingForCopy(&rows);
    std::vector<int> positions;
    for (const auto& row : rows) positions.push_back(row.position);
    ASSERT_EQ(positions, tree->Outline());
  }
  // Replaces the original by a copy.
  void Copy() {
    array = VariableRef(new Variable(*array));
    tree = std::make_unique<Plain>(*tree);
  }
  void Compare() {
    std::string content;
    std::vector<AggregateElementTree::Row> rows;
    array->aggregateelements()->Listing(&rows);
    for (const auto& row : rows) {
      content +=
          std::to_string(row.position) + "=" + std::to_string(row.variable->value_integer()) + " ";
    }
    ASSERT_EQ(content, tree->Content());
  }
  bool IsRow() { return array->aggregateelements()->IsRow(); }

  VariableRef array;
  std::unique_ptr<Plain> tree;
  int value = 0;
};

using Random = std::mt19937;

// Rows that forget no shape, to be compared with the tree after any number of searches.
class ExactElements : public testing::Test {
 protected:
  ExactElements() { DenseElements::most_notes = SIZE_MAX; }
  ~ExactElements() override { DenseElements::most_notes = most_notes; }

 private:
  const size_t most_notes = DenseElements::most_notes;
};

int Below(Random& random, int limit) {
  return static_cast<int>(random() % static_cast<unsigned>(limit));
}

// Operations that keep an array a row: searches of all kinds, and elements added after the last.
void OneSearch(Random& random, Pair* pair, int first, int* count) {
  const int last = first + *count - 1;
  const int at = first + Below(random, *count + 2) - 1;
  const int to = first + Below(random, *count);
  switch (Below(random, 16)) {
    case 0:
      for (int i = first; i <= last; i++) pair->Read(i);
      return;
    case 1:
      for (int i = last; i >= first; i--) pair->Read(i);
      return;
    case 2:
      for (int i = at; i <= to; i++) pair->Read(i);
      return;
    case 3:
      for (int i = at; i >= to; i--) pair->Read(i);
      return;
    case 4:
      for (int i = 0; i <= last; i++) pair->Next(i);
      return;
    case 5:
      for (int i = last + 1; i >= 0; i--) pair->Previous(i);
      return;
    case 6: pair->Next(at); return;
    case 7: pair->Previous(at); return;
    case 8: pair->Set(to); return;
    case 9:
      pair->Insert(0);
      ++*count;
      return;
    case 10:
      for (int i = Below(random, 4); i >= 0; i--) pair->Write(first + (*count)++);
      return;
    case 11:
      for (int i = Below(random, 3); i > 0 && *count > 0; i--) {
        pair->Delete(first + --*count, Below(random, 2) != 0);
      }
      pair->Delete(first + *count + Below(random, 2), Below(random, 2) != 0);
      if (*count == 0) pair->Write(first + (*count)++);
      return;
    case 12:
      pair->Ends();
      pair->Read(to);
      pair->Read(to);
      return;
    case 13:
      // Neighbours, as a sort reads them.
      for (int i = first; i < last; i++) {
        pair->Read(i);
        pair->Read(i + 1);
        if (Below(random, 2)) pair->Write(i);
      }
      return;
    case 14:
      if (Below(random, 3) == 0 && *count > 1) {
        const int from = first + 1 + Below(random, *count - 1);
        pair->DeleteMany(from, -1, false);
        *count = from - first;
      }
      return;
    default: pair->Read(at);
  }
}

int SomeCount(Random& random) {
  const int counts[] = {1, 2, 3, 4, 5, 7, 9, 12, 30, 98, 99, 100, 101, 130, 220};
  return counts[Below(random, 15)];
}

// The tree of the row, rebuilt from its notes, in the form of Plain::Shape.
std::string ShapeOf(DenseElements* row) {
  const SplayShape& shape = row->Shape();
  const auto name = [row](int rank) {
    return rank == 0 ? std::string() : std::to_string(row->first() + rank - 1);
  };
  std::string text;
  std::vector<int> pending(1, shape.root());
  while (!pending.empty()) {
    const int rank = pending.back();
    pending.pop_back();
    if (rank == 0) continue;
    const auto& node = shape.node(rank);
    text += name(rank) + "(" + name(node.left) + "," + name(node.right) + ")";
    pending.push_back(node.right);
    pending.push_back(node.left);
  }
  return text;
}

TEST_F(ExactElements, HaveTheShapeThatTheTreeHasAfterEachSearch) {
  Random random(20261121);
  for (int round = 0; round < Rounds(3000); round++) {
    SCOPED_TRACE(testing::Message() << "round " << round);
    DenseElements row;
    Plain tree;
    const int first = Below(random, 2);
    int position = first;
    const auto add = [&] {
      tree.Find(AggregateIndex(position));
      row.Search(position);
      tree.Insert(new AggregateElement(AggregateIndex(position)));
      row.Append(position, new Variable());
      position++;
    };
    for (int i = Below(random, 12); i >= 0; i--) add();
    int at = first;
    int step = 1;
    for (int i = Below(random, 60); i >= 0; i--) {
      switch (Below(random, 9)) {
        case 0: add(); break;
        case 8:
          if (position > first) {
            --position;
            delete tree.Remove(AggregateIndex(position));
            row.RemoveLast()->Release();
          }
          break;
        case 1: at = first - 1 + Below(random, position - first + 3); break;
        case 2: step = -step; break;
        default: at += step;
      }
      if (at < 0) at = 0;
      if (at > position + 2) at = first;
      tree.Find(AggregateIndex(at));
      row.Search(at);
      if (Below(random, 25) == 0) {
        ASSERT_EQ(ShapeOf(&row), tree.Shape());
      }
    }
    ASSERT_EQ(ShapeOf(&row), tree.Shape());
  }
}

// After too many notes the tree is the chain that a rising search leaves; once it was looked at,
// the notes begin again.
TEST(DenseElements, ForgetTheShapeWhenThereAreTooManyNotes) {
  Random random(5);
  DenseElements row;
  Plain tree;
  for (int i = 1; i <= 500; i++) {
    row.Append(i, new Variable());
    tree.Insert(new AggregateElement(AggregateIndex(i)));
  }
  // Looking at the shape plays the notes on it, so here there are never too many.
  for (int i = 0; i < 20000; i++) {
    const int at = Below(random, 502);
    row.Search(at);
    tree.Find(AggregateIndex(at));
    if (i % 50 == 0) {
      ASSERT_EQ(ShapeOf(&row), tree.Shape());
    }
  }
  // More searches than notes: the shape is the chain, whatever the last searches were. A few more
  // are noted again.
  Plain chain;
  for (int i = 1; i <= 500; i++) chain.Insert(new AggregateElement(AggregateIndex(i)));
  const std::string shape_of_chain = chain.Shape();
  for (int round = 0; round < 20; round++) {
    const size_t many = DenseElements::most_notes * 2 + 2 + static_cast<size_t>(round);
    for (size_t i = 0; i < many; i++) row.Search(1 + Below(random, 500));
    ASSERT_EQ(ShapeOf(&row), shape_of_chain);
    Plain other;
    for (int i = 1; i <= 500; i++) other.Insert(new AggregateElement(AggregateIndex(i)));
    for (int i = 0; i < 20; i++) {
      const int at = 1 + Below(random, 500);
      row.Search(at);
      other.Find(AggregateIndex(at));
    }
    ASSERT_EQ(ShapeOf(&row), other.Shape());
  }
}

// So a row that takes this chain instead of its own shape loses no element by it.
TEST(DenseElements, AFallingChainHidesNothing) {
  Random random(6);
  for (int round = 0; round < Rounds(200); round++) {
    const VariableRef array(new Variable());
    for (int i = 1; i <= 60; i++) array->Element(AggregateIndex(i), 1)->SetValue_Integer(i);
    for (int i = 1; i <= 60; i++) array->At(i, 0);
    const int removed = 1 + Below(random, 60);
    array->DeleteElement(AggregateIndex(removed), false);
    for (int i = 1; i <= 60; i++) EXPECT_EQ(array->At(i, 0) != nullptr, i != removed) << i;
  }
}

TEST_F(ExactElements, AnswerAsTheTreeWhateverIsReadWhatever) {
  for (unsigned seed = 1; seed <= Rounds(400u); seed++) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    Random random(seed);
    Pair pair;
    int count = SomeCount(random);
    const int first = Below(random, 4) ? 1 : 0;
    for (int i = 0; i < count; i++) pair.Write(first + i);
    for (int i = 0; i < 30; i++) {
      OneSearch(random, &pair, first, &count);
      if (Below(random, 12) == 0) pair.Copy();
      ASSERT_FALSE(testing::Test::HasFatalFailure());
    }
    EXPECT_TRUE(pair.IsRow());
    pair.Ends();
    pair.Compare();
  }
}

// Removals make the shape visible: afterwards searches must miss the same elements.
TEST_F(ExactElements, LoseTheElementsThatTheTreeLoses) {
  int trees = 0;
  for (unsigned seed = 1; seed <= Rounds(3000u); seed++) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    Random random(seed * 77);
    Pair pair;
    int count = SomeCount(random) % 40 + 1;
    const int first = Below(random, 4) ? 1 : 0;
    for (int i = 0; i < count; i++) pair.Write(first + i);
    for (int i = Below(random, 25); i >= 0; i--) {
      OneSearch(random, &pair, first, &count);
      if (Below(random, 12) == 0) pair.Copy();
    }
    for (int i = 0; i < 25; i++) {
      const int at = Below(random, count + 3);
      switch (Below(random, 12)) {
        case 0:
        case 1:
        case 2: pair.Delete(at, Below(random, 2) != 0); break;
        case 3: pair.DeleteMany(at, Below(random, 4), Below(random, 2) != 0); break;
        case 4:
          if (Below(random, 6) == 0) pair.DeleteMany(at, -1, false);
          break;
        case 5: pair.Insert(at); break;
        case 6: pair.Write(at); break;
        case 7: pair.Set(at); break;
        case 8:
          if (Below(random, 4) == 0) pair.Collapse();
          break;
        case 9: pair.Copy(); break;
        case 10: pair.Next(at); break;
        default: pair.Previous(at);
      }
      for (int k = 0; k < 4; k++) pair.Read(Below(random, count + 3));
      pair.Ends();
      ASSERT_FALSE(testing::Test::HasFatalFailure());
    }
    pair.Compare();
    for (int i = 0; i <= count + 3; i++) pair.Read(i);
    ASSERT_FALSE(testing::Test::HasFatalFailure());
    trees += !pair.IsRow();
  }
  EXPECT_GT(trees, Rounds(2000));
}

// Every operation must leave the same elements in the same shape as the reference.
TEST_F(ExactElements, EveryOperationLeavesItsShape) {
  for (unsigned seed = 1; seed <= Rounds(400u); seed++) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    Random random(seed * 31);
    Pair pairs[2];
    for (Pair& pair : pairs) {
      const int gap = 1 + Below(random, 2);
      for (int i = 1; i <= 160; i++) pair.Write(i * gap);
    }
    for (int i = 0; i < 12; i++) {
      Pair& pair = pairs[Below(random, 2)];
      Pair& source = pairs[Below(random, 2)];
      const int at = 1 + Below(random, pair.array->Max() + 2);
      const int start = Below(random, 200);
      const int many = Below(random, 12) - 1;
      switch (Below(random, 10)) {
        case 0: pair.Collapse(); break;
        case 1: pair.CopyFrom(&source, start, many, at, Below(random, 2) != 0); break;
        case 2: pair.MergeFrom(&source, start, many, at, Below(random, 2) != 0); break;
        case 3: pair.Insert(Below(random, 4) == 0 ? 0 : at); break;
        case 4: pair.Delete(at, Below(random, 2) != 0); break;
        case 5: pair.DeleteMany(at, Below(random, 4), Below(random, 2) != 0); break;
        case 6: pair.Set(at); break;
        case 7:
          for (int k = 0; k < 30; k++) pair.Next(at + k);
          break;
        case 8: pair.Copy(); break;
        default: pair.Read(at);
      }
      ASSERT_FALSE(testing::Test::HasFatalFailure());
      for (Pair& changed : pairs) {
        changed.Ends();
        changed.Compare();
        if (changed.array->ElementsUsed() > 99) changed.CompareOutline();
        ASSERT_FALSE(testing::Test::HasFatalFailure()) << "step " << i;
      }
    }
  }
}

TEST_F(ExactElements, ARenumberedArrayHasTheShapeOfTheWalk) {
  for (const int gap : {1, 2, 5}) {
    Pair pair;
    Random random(static_cast<unsigned>(gap));
    for (int i = 1; i <= 120; i++) pair.Write(i * gap);
    for (int i = 0; i < 40; i++) pair.Read(Below(random, 120 * gap));
    pair.Collapse();
    pair.CompareOutline();
    EXPECT_EQ(pair.array->Max(), 120);
  }
}

// A copy of more than 99 elements is inserted in an order that follows the shape; removals from the
// copy make its own shape visible.
TEST_F(ExactElements, ACopyHasTheShapeThatItsInsertionLeaves) {
  for (unsigned seed = 1; seed <= Rounds(300u); seed++) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    Random random(seed);
    Pair pair;
    int count = 95 + Below(random, 40);
    for (int i = 1; i <= count; i++) pair.Write(i);
    for (int i = Below(random, 6); i > 0; i--) OneSearch(random, &pair, 1, &count);
    for (int copies = Below(random, 3); copies >= 0; copies--) pair.Copy();
    for (int i = Below(random, 6); i > 0; i--) OneSearch(random, &pair, 1, &count);
    EXPECT_TRUE(pair.IsRow());
    for (int i = 0; i < 60; i++) {
      pair.Delete(1 + Below(random, count), false);
      pair.Read(1 + Below(random, count));
      ASSERT_FALSE(testing::Test::HasFatalFailure());
    }
    for (int i = 1; i <= count; i++) pair.Read(i);
    pair.Compare();
  }
}

TEST(DenseElements, ASharedVariableIsReplacedAndReleased) {
  const VariableRef array(new Variable());
  const VariableRef shared(new Variable("s", 1, 5));
  for (int i = 1; i <= 3; i++) array->SetElement(AggregateIndex(i), shared.get());
  EXPECT_TRUE(array->aggregateelements()->IsRow());
  EXPECT_EQ(shared->refcount(), 4);
  const VariableRef other(new Variable("o", 1, 6));
  array->SetElement(AggregateIndex(2), other.get());
  EXPECT_EQ(shared->refcount(), 3);
  EXPECT_EQ(array->At(2, 0), other.get());
  array->SetElement(AggregateIndex(1), shared.get());
  EXPECT_EQ(shared->refcount(), 3);
  array->SetNULL();
  EXPECT_EQ(shared->refcount(), 1);
  EXPECT_EQ(other->refcount(), 1);
}

TEST(DenseElements, AStackThatIsPushedAndPoppedStaysARow) {
  const VariableRef array(new Variable());
  const VariableRef witness(new Variable("w", 1, 5));
  for (int round = 0; round < 3; round++) {
    for (int i = 1; i <= 200; i++) array->SetElement(AggregateIndex(i), witness.get());
    EXPECT_EQ(witness->refcount(), 201);
    for (int i = 200; i > 100 * (round % 2); i--) array->DeleteElement(AggregateIndex(i), true);
    EXPECT_EQ(array->ElementsUsed(), 100 * (round % 2));
    EXPECT_EQ(witness->refcount(), 1 + 100 * (round % 2));
    array->DeleteElements(1, -1, false);
    EXPECT_EQ(array->ElementsUsed(), 0);
    EXPECT_EQ(array->aggregatetype(), AggregateArray);
    EXPECT_EQ(array->Max(), 0);
    EXPECT_EQ(array->Next(0), 0);
  }
  array->At(0, 1);
  EXPECT_TRUE(array->aggregateelements()->IsRow());
  EXPECT_EQ(array->ElementsUsed(), 1);
}

TEST(DenseElements, WithoutAVariableAnElementIsInTheTree) {
  const VariableRef array(new Variable());
  for (int i = 1; i <= 3; i++) array->At(i, 1)->SetValue_Integer(i);
  array->SetElement(AggregateIndex(2), nullptr);
  EXPECT_FALSE(array->aggregateelements()->IsRow());
  EXPECT_EQ(array->At(2, 0), nullptr);
  EXPECT_EQ(array->At(2, 1), nullptr);
  EXPECT_EQ(array->ElementsUsed(), 3);
  array->SetElement(AggregateIndex(4), nullptr);
  EXPECT_EQ(array->ElementsUsed(), 4);
  EXPECT_EQ(array->At(3, 0)->value_integer(), 3);
}

TEST(DenseElements, AGapMakesATreeAndKeepsTheVariables) {
  const VariableRef array(new Variable());
  std::vector<Variable*> variables;
  for (int i = 0; i < 50; i++) variables.push_back(array->At(i, 1));
  EXPECT_TRUE(array->aggregateelements()->IsRow());
  array->At(51, 1);
  EXPECT_FALSE(array->aggregateelements()->IsRow());
  for (int i = 0; i < 50; i++) {
    EXPECT_EQ(array->At(i, 0), variables[static_cast<size_t>(i)]);
    EXPECT_EQ(array->At(i, 0)->refcount(), 1);
  }
  EXPECT_EQ(array->ElementsUsed(), 51);
}

TEST(DenseElements, MayBeginAtAnyPositionAndEndAtTheLastOne) {
  for (const int first : {0, 1, 2, 1000, INT_MAX - 1, INT_MAX}) {
    const VariableRef array(new Variable());
    array->At(first, 1)->SetValue_Integer(5);
    EXPECT_TRUE(array->aggregateelements()->IsRow());
    EXPECT_EQ(array->Min(), first);
    EXPECT_EQ(array->Max(), first);
    EXPECT_EQ(array->Next(first), 0);
    EXPECT_EQ(array->At(first, 0)->value_integer(), 5);
    EXPECT_EQ(array->At(first == 0 ? 1 : first - 1, 0), nullptr);
    if (first == INT_MAX) continue;
    EXPECT_TRUE(array->WriteElement(first + 1, 6));
    EXPECT_TRUE(array->aggregateelements()->IsRow());
    EXPECT_EQ(array->Max(), first + 1);
    EXPECT_EQ(array->Next(first), first + 1);
  }
}

TEST(DenseElements, AnElementBeforeTheFirstMakesATree) {
  const VariableRef array(new Variable());
  array->At(2, 1);
  EXPECT_TRUE(array->aggregateelements()->IsRow());
  array->At(1, 1);
  EXPECT_FALSE(array->aggregateelements()->IsRow());
  EXPECT_EQ(array->Min(), 1);
  EXPECT_EQ(array->Max(), 2);
}

TEST(DenseElements, WhoAsksForElementsGetsThem) {
  AggregateElementTree tree;
  for (int i = 1; i <= 10; i++) tree.InsertNew(AggregateIndex(i))->SetValue_Integer(i * i);
  EXPECT_TRUE(tree.IsRow());
  List<AggregateElement> list(0);
  tree.AppendToList(list);
  EXPECT_EQ(list.Entries(), 10);
  EXPECT_FALSE(tree.IsRow());
  std::vector<AggregateElement*> elements;
  tree.Listing(&elements);
  ASSERT_EQ(elements.size(), 10u);
  EXPECT_EQ(elements[9]->index().position, 10);
  EXPECT_EQ(tree.Find(AggregateIndex(7))->var()->value_integer(), 49);
  EXPECT_EQ(tree.First()->index().position, 1);
  EXPECT_EQ(tree.Last()->index().position, 10);
  tree.Dump();
  EXPECT_EQ(tree.Entries(), 0);
  tree.InsertNew(AggregateIndex(1));
  EXPECT_TRUE(tree.IsRow());
  tree.Dump();
  EXPECT_EQ(tree.Entries(), 0);
}

// --- Numbers without a variable ------------------------------------------------------------------

VariableRef NewArray() {
  VariableRef array(new Variable());
  array->Element(AggregateIndex(1), 1)->SetValue("first", 5);
  return array;
}

TEST(DenseElements, ANumberReadsAsAVariableThatItWasStoredIn) {
  const VariableRef array = NewArray();
  const double doubles[] = {0.0, -0.0, 1.5, -1e300, 5e-324, HUGE_VAL, -HUGE_VAL, 4294967296.0};
  const int integers[] = {0, 1, -1, INT_MAX, INT_MIN};
  int position = 1;
  for (const double number : doubles) ASSERT_TRUE(array->WriteElement(++position, number));
  for (const int number : integers) ASSERT_TRUE(array->WriteElement(++position, number));
  position = 1;
  for (const double number : doubles) {
    DenseSlot slot;
    ASSERT_TRUE(array->FindBare(++position, &slot));
    ASSERT_FALSE(slot.IsInteger());
    EXPECT_EQ(std::bit_cast<uint64_t>(slot.number()), std::bit_cast<uint64_t>(number));
    const VariableRef stored(new Variable());
    stored->SetValue_Double(number);
    Variable* element = array->At(position, 0);
    EXPECT_EQ(element->primary_type(), PrimaryDouble);
    EXPECT_EQ(element->plain_forms(), stored->plain_forms());
    EXPECT_EQ(std::string(element->value().data), stored->value().data);
    EXPECT_EQ(array->At(position, 0), element);
  }
  for (const int number : integers) {
    DenseSlot slot;
    ASSERT_TRUE(array->FindBare(++position, &slot));
    ASSERT_TRUE(slot.IsInteger());
    EXPECT_EQ(slot.integer(), number);
    EXPECT_EQ(array->At(position, 0)->primary_type(), PrimaryInteger);
    EXPECT_EQ(array->At(position, 0)->value_integer(), number);
  }
}

TEST(DenseElements, WhoHasTheVariableSeesWhatIsStoredLater) {
  const VariableRef array = NewArray();
  ASSERT_TRUE(array->WriteElement(2, 7));
  const VariableRef held = VariableRef::Share(array->At(2, 0));
  ASSERT_TRUE(array->WriteElement(2, 8.5));
  EXPECT_EQ(held->value_double(), 8.5);
  held->SetValue_Integer(9);
  const DenseSlot* const slot = array->SearchSlot(2);
  ASSERT_NE(slot, nullptr);
  ASSERT_TRUE(slot->IsVariable());
  EXPECT_EQ(slot->variable(), held.get());
}

TEST(DenseElements, WhatIsNoPlainNumberIsLeftToTheVariable) {
  const VariableRef array = NewArray();
  DenseSlot slot;
  EXPECT_FALSE(array->FindBare(1, &slot));
  EXPECT_FALSE(array->FindBare(2, &slot));
  EXPECT_FALSE(array->WriteElement(3, 1));
  EXPECT_FALSE(array->WriteElement(2, std::nan("")));
  EXPECT_EQ(array->ElementsUsed(), 1);
  const VariableRef target(new Variable());
  target->SetValue_Integer(1);
  array->At(1, 0)->Make_Reference(target.get());
  EXPECT_FALSE(array->FindBare(1, &slot));
  EXPECT_FALSE(array->WriteElement(1, 2));
  EXPECT_FALSE(target->FindBare(1, &slot));
  EXPECT_FALSE(target->WriteElement(1, 2));
}

TEST(DenseElements, NumbersOutliveTheRowAndGoWithIt) {
  const VariableRef array = NewArray();
  for (int i = 2; i <= 50; i++) ASSERT_TRUE(array->WriteElement(i, i));
  const VariableRef copy(new Variable(*array));
  EXPECT_EQ(std::string(copy->value().data), array->value().data);
  array->DeleteElement(AggregateIndex(50), false);
  array->Element(AggregateIndex(100), 1)->SetValue_Integer(100);  // a gap: a tree from here on
  for (int i = 2; i < 50; i++) ASSERT_EQ(array->At(i, 0)->value_integer(), i);
  DenseSlot slot;
  EXPECT_FALSE(array->FindBare(2, &slot));
  copy->DeleteElements(1, -1, false);
  EXPECT_EQ(copy->ElementsUsed(), 0);
}

}  // namespace
