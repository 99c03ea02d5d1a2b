// Compares flat members with the splay tree that they represent: over random histories every result
// and the shape of the tree must be equal.

#include "base/values/FlatMembers.h"

#include <algorithm>
#include <cctype>
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

// The reference, with the members of a structure by name.
class Plain : public PlainElements {
 public:
  static AggregateIndex KeyOf(const std::string& name) {
    return {name.data(), static_cast<int>(name.size())};
  }
  AggregateElement* Member(const std::string& name, int create) { return At(KeyOf(name), create); }
  // Each name with its children's names.
  std::string Shape() const { return ShapeBelow(root); }

 private:
  static std::string ShapeBelow(const Node* node) {
    if (!node) return "-";
    const String& name = node->item->index().key;
    return std::string(name.data, static_cast<size_t>(name.length)) + "(" + ShapeBelow(node->left) +
           " " + ShapeBelow(node->right) + ")";
  }
};

std::string ShapeBelow(const FlatMembers& members, const SplayShape& shape, int node) {
  if (node == 0) return "-";
  const SharedName* name = members.names()->name(members.names()->InOrder(node / 2 - 1));
  return std::string(name->text(), static_cast<size_t>(name->length())) + "(" +
         ShapeBelow(members, shape, shape.node(node).left) + " " +
         ShapeBelow(members, shape, shape.node(node).right) + ")";
}

std::string ShapeOf(const FlatMembers& members) {
  if (members.IsEmpty()) return "-";
  SplayShape shape;
  members.MakeShape(&shape);
  return ShapeBelow(members, shape, shape.root());
}

using Random = std::mt19937;

int Below(Random& random, int limit) {
  return static_cast<int>(random() % static_cast<unsigned>(limit));
}

// Names that differ in length, in case, and late.
std::string SomeName(Random& random, int many) {
  const int number = Below(random, many);
  std::string name;
  switch (number % 4) {
    case 0: name = "n" + std::to_string(number); break;
    case 1: name = "a_long_name_of_a_member_" + std::to_string(number); break;
    case 2:
      name = std::string(1, static_cast<char>('a' + number % 26)) + std::to_string(number / 26);
      break;
    default: name = "Price" + std::to_string(number) + "Net";
  }
  if (Below(random, 4) == 0) {
    for (char& c : name) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
  }
  return name;
}

TEST(FlatMembers, HaveTheShapeThatTheTreeHasAfterEachSearch) {
  for (unsigned seed = 1; seed <= Rounds(3000u); seed++) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    Random random(seed);
    const int many = 2 + Below(random, 40);
    FlatMembers members;
    Plain tree;
    int notes = 0;
    for (int i = Below(random, 50); i >= 0 && notes < FlatMembers::kMostNotes - 2; i--) {
      const std::string name = SomeName(random, many);
      const int length = static_cast<int>(name.size());
      const int slot = members.Locate(name.data(), length);
      const bool creates = Below(random, 2) != 0;
      const AggregateElement* expected = tree.Member(name, creates);
      if (slot >= 0) {
        ASSERT_NE(expected, nullptr);
        members.Touch(slot);
        notes++;
      } else if (creates) {
        members.Add(name.data(), length, DenseSlot(i));
        notes += 2;
      } else {
        ASSERT_EQ(expected, nullptr);
        members.TouchMissing(name.data(), length);
        notes++;
      }
      if (Below(random, 12) == 0) {
        ASSERT_EQ(ShapeOf(members), tree.Shape());
      }
    }
    ASSERT_EQ(ShapeOf(members), tree.Shape());
    FlatMembers copy;
    if (Below(random, 2)) {
      copy.ShareWith(&members);
    } else {
      copy.BecomeCopyOf(members, Below(random, 2) != 0);
    }
    ASSERT_EQ(ShapeOf(copy), Plain(tree).Shape());
    members.TakeShapeOfCopy();
    ASSERT_EQ(ShapeOf(members), Plain(tree).Shape());
  }
}

TEST(FlatMembers, AfterManySearchesTheShapeIsThatOfARisingSearch) {
  FlatMembers members;
  Plain tree;
  std::vector<std::string> names;
  for (int i = 0; i < 20; i++) names.push_back("n" + std::to_string(i));
  for (const std::string& name : names) {
    members.Add(name.data(), static_cast<int>(name.size()), DenseSlot(1));
    tree.Member(name, 1);
  }
  for (int i = 0; i < FlatMembers::kMostNotes; i++) members.Touch((i * 7 + 3) % 20);
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) tree.Member(name, 0);
  members.Touch(0);
  tree.Member("n0", 0);
  EXPECT_EQ(ShapeOf(members), tree.Shape());
}

// A structure of a script, and the tree that it must equal.
class Pair {
 public:
  Pair() : structure(new Variable()), tree(new Plain()) {
    structure->Convert_Aggregate(AggregateStructure);
  }
  void Write(const std::string& name, int way) {
    const int length = static_cast<int>(name.size());
    ++value;
    MemberHint hint;
    if (way == 0 && structure->WriteMember(name.data(), length, &hint, value)) {
    } else if (way == 1) {
      structure->Member(name.data(), length, 1)->SetValue_Integer(value);
    } else if (way == 2) {
      const VariableRef variable(new Variable("", 0, value));
      structure->SetElement(Plain::KeyOf(name), variable.get());
    } else {
      structure->Element(Plain::KeyOf(name), 1)->SetValue_Integer(value);
    }
    tree->Member(name, 1)->var()->SetValue_Integer(value);
  }
  void Read(const std::string& name, int way) {
    const int length = static_cast<int>(name.size());
    AggregateElement* expected = tree->Member(name, 0);
    MemberHint hint;
    DenseSlot slot;
    if (way == 0 && structure->FindNumberMember(name.data(), length, &hint, &slot)) {
      ASSERT_NE(expected, nullptr);
      ASSERT_EQ(slot.integer(), expected->var()->value_integer());
      return;
    }
    Variable* found = way == 1   ? structure->Member(name.data(), length, 0)
                      : way == 2 ? structure->Member(name.data(), length, 0, &hint)
                                 : structure->Element(Plain::KeyOf(name), 0);
    ASSERT_EQ(found != nullptr, expected != nullptr) << name;
    if (found) {
      ASSERT_EQ(found->value_integer(), expected->var()->value_integer()) << name;
    }
  }
  void Delete(const std::string& name) {
    structure->DeleteElement(Plain::KeyOf(name), false);
    delete tree->Remove(Plain::KeyOf(name));
  }
  void Copy() {
    structure = VariableRef(new Variable(*structure));
    tree = std::make_unique<Plain>(*tree);
  }
  void Compare() {
    ASSERT_EQ(structure->ElementsUsed(), tree->Entries());
    std::vector<AggregateElementTree::Row> rows;
    structure->aggregateelements()->Listing(&rows);
    std::string content, expected;
    for (const auto& row : rows) {
      SharedName* const name = row.name;
      const std::string text =
          name ? std::string(name->text(), static_cast<size_t>(name->length()))
               : std::string(row.element->index().key.data,
                             static_cast<size_t>(row.element->index().key.length));
      content += text + "=" + std::to_string(row.variable->value_integer()) + " ";
    }
    List<AggregateElement> all(0);
    tree->AppendToList(all);
    for (AggregateElement* e = all.First(); e; e = all.Next()) {
      expected += std::string(e->index().key.data, static_cast<size_t>(e->index().key.length)) +
                  "=" + std::to_string(e->var()->value_integer()) + " ";
    }
    ASSERT_EQ(content, expected);
  }

  VariableRef structure;
  std::unique_ptr<Plain> tree;
  int value = 0;
};

// A removal makes the shape visible: some members are missed by later searches. The searches before
// it are fewer than those that the members note.
TEST(FlatMembers, AStructureFindsAndMissesWhatTheTreeDoes) {
  for (unsigned seed = 1; seed <= Rounds(3000u); seed++) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    Random random(seed);
    const int many = 2 + Below(random, 60);
    Pair pair;
    for (int i = Below(random, 15); i >= 0; i--) {
      pair.Write(SomeName(random, many), Below(random, 4));
      if (Below(random, 2)) pair.Read(SomeName(random, many), Below(random, 4));
    }
    if (Below(random, 3) == 0) {
      pair.Copy();
      for (int i = Below(random, 9); i >= 0; i--)
        pair.Write(SomeName(random, many), Below(random, 4));
    }
    pair.Compare();
    for (int i = Below(random, 20); i > 0; i--) {
      pair.Delete(SomeName(random, many));
      pair.Read(SomeName(random, many), 1 + Below(random, 3));
      pair.Write(SomeName(random, many), Below(random, 4));
      ASSERT_FALSE(testing::Test::HasFatalFailure());
    }
    for (int i = 0; i < many; i++) pair.Read(SomeName(random, many), 1 + Below(random, 3));
    pair.Compare();
    ASSERT_FALSE(testing::Test::HasFatalFailure());
  }
}

TEST(FlatMembers, AnyNumberOfMembersIsFoundAndListedInOrder) {
  for (const int count : {1, 2, 3, 15, 16, 17, 18, 63, 64, 98, 99, 100, 101, 500}) {
    SCOPED_TRACE(count);
    Pair pair;
    for (int i = 0; i < count; i++) pair.Write("m" + std::to_string(i * 7919 % count), i % 4);
    for (int i = 0; i <= count; i++) pair.Read("M" + std::to_string(i), i % 4);
    pair.Compare();
    const VariableRef copy(new Variable(*pair.structure));
    pair.Write("m0", 0);
    pair.Compare();
    EXPECT_EQ(copy->ElementsUsed(), count);
    EXPECT_STREQ(copy->Member("m0", 2, 0) ? "found" : "missed", "found");
  }
}

TEST(FlatMembers, TheFirstSpellingIsTheName) {
  const VariableRef structure(new Variable());
  Variable* const member = structure->Member("Name", 4, 1);
  EXPECT_EQ(structure->Member("NAME", 4, 1), member);
  EXPECT_EQ(structure->Member("name", 4, 0), member);
  EXPECT_EQ(structure->Member("nam", 3, 0), nullptr);
  EXPECT_EQ(structure->Member("names", 5, 0), nullptr);
  EXPECT_EQ(structure->ElementsUsed(), 1);
  const VariableRef other(new Variable());
  other->Member("NAME", 4, 1);
  std::vector<AggregateElement*> elements;
  structure->aggregateelements()->Listing(&elements);
  EXPECT_STREQ(elements[0]->index().key.data, "Name");
  elements.clear();
  other->aggregateelements()->Listing(&elements);
  EXPECT_STREQ(elements[0]->index().key.data, "NAME");
}

TEST(FlatMembers, ANameMayBeEmptyAndHaveAnyBytes) {
  const VariableRef structure(new Variable());
  const std::string names[] = {"", std::string("\0", 1), std::string("\0a", 2), "@", "`", "[", "{"};
  int value = 0;
  for (const std::string& name : names) {
    structure->Member(name.data(), static_cast<int>(name.size()), 1)->SetValue_Integer(++value);
  }
  EXPECT_EQ(structure->ElementsUsed(), 7);
  value = 0;
  for (const std::string& name : names) {
    EXPECT_EQ(structure->Member(name.data(), static_cast<int>(name.size()), 0)->value_integer(),
              ++value);
  }
}

TEST(FlatMembers, AHintOfOtherNamesIsNotFollowed) {
  const VariableRef first(new Variable());
  const VariableRef second(new Variable());
  MemberHint hint;
  first->Member("a", 1, 1)->SetValue_Integer(1);
  first->Member("b", 1, 1)->SetValue_Integer(2);
  second->Member("b", 1, 1)->SetValue_Integer(3);
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(first->Member("b", 1, 0, &hint)->value_integer(), 2);
    EXPECT_EQ(second->Member("b", 1, 0, &hint)->value_integer(), 3);
  }
  first->DeleteElement(AggregateIndex("b", 1), false);
  EXPECT_EQ(first->Member("b", 1, 0, &hint), nullptr);
  second->Member("c", 1, 1);
  EXPECT_EQ(second->Member("b", 1, 0, &hint)->value_integer(), 3);
  Variable::FreeCycles();
  EXPECT_EQ(second->Member("b", 1, 0, &hint)->value_integer(), 3);
}

TEST(FlatMembers, ANumberHasNoVariableUntilItIsNeeded) {
  const VariableRef structure(new Variable());
  MemberHint hint;
  ASSERT_TRUE(structure->WriteMember("n", 1, &hint, 5));
  EXPECT_EQ(structure->aggregatetype(), AggregateStructure);
  DenseSlot slot;
  ASSERT_TRUE(structure->FindNumberMember("N", 1, &hint, &slot));
  EXPECT_TRUE(slot.IsInteger());
  EXPECT_EQ(slot.integer(), 5);
  const VariableRef held = VariableRef::Share(structure->Member("n", 1, 0));
  EXPECT_EQ(held->primary_type(), PrimaryInteger);
  ASSERT_TRUE(structure->WriteMember("n", 1, &hint, 2.5));
  EXPECT_EQ(held->value_double(), 2.5);
  ASSERT_TRUE(structure->FindNumberMember("n", 1, &hint, &slot));
  EXPECT_EQ(slot.number(), 2.5);
  held->value();
  EXPECT_FALSE(structure->FindNumberMember("n", 1, &hint, &slot));
  EXPECT_FALSE(structure->FindNumberMember("m", 1, &hint, &slot));
  EXPECT_FALSE(structure->WriteMember("n", 1, &hint, std::nan("")));
  const VariableRef array(new Variable());
  array->At(1, 1);
  EXPECT_FALSE(array->WriteMember("n", 1, &hint, 1));
  EXPECT_EQ(array->ElementsUsed(), 1);
}

}  // namespace
