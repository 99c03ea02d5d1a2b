// Copies that share their elements, and results that are moved, behave as if every copy were made
// at once. Random programs are compared with a model that copies.

#include <cmath>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "base/values/Aggregate.h"
#include "base/values/Variable.h"
#include "base/values/VariableRef.h"
#include "tests/base/values/VariableHelpers.h"
#include "tests/support/Rounds.h"

namespace {

// --- The model -----------------------------------------------------------------------------------

struct Node;
using Place = std::shared_ptr<Node>;

// A variable: identity is the address, and a copy of a value has new ones all the way down.
struct Node {
  enum Kind { Null, NullText, Text, Integer, Double, Array, Structure, Reference } kind = Null;
  std::string text;
  int integer = 0;
  double number = 0.0;
  std::map<int, Place> array;
  std::map<std::string, Place> members;
  Place target;

  bool HoldsOthers() const { return kind >= Array; }
  void Clear(Kind to) {
    kind = to;
    array.clear();
    members.clear();
    target.reset();
  }
};

Place End(Place place) {
  while (place->kind == Node::Reference) place = place->target;
  return place;
}

// Returns a copy of the value. A NULL variable that is copied has an empty text from then on.
Place CopyOf(const Place& source) {
  const Place from = End(source);
  if (from->kind == Node::Null) from->kind = Node::NullText;
  auto copy = std::make_shared<Node>();
  copy->kind = from->kind;
  copy->text = from->text;
  copy->integer = from->integer;
  copy->number = from->number;
  for (const auto& [key, element] : from->array) copy->array[key] = CopyOf(element);
  for (const auto& [key, element] : from->members) copy->members[key] = CopyOf(element);
  return copy;
}

void Store(const Place& target, const Place& source) {
  const Place to = End(target);
  if (End(source) == to && !to->HoldsOthers()) return;
  const Place copy = CopyOf(source);
  *to = *copy;
}

Place ElementOf(const Place& place, int position, bool create) {
  const Place array = End(place);
  if (array->kind != Node::Array) {
    if (!create) return nullptr;
    array->Clear(Node::Array);
  }
  auto found = array->array.find(position);
  if (found != array->array.end()) return found->second;
  return create ? array->array[position] = std::make_shared<Node>() : nullptr;
}

Place MemberOf(const Place& place, const std::string& name, bool create) {
  const Place structure = End(place);
  if (structure->kind != Node::Structure) {
    if (!create) return nullptr;
    structure->Clear(Node::Structure);
  }
  auto found = structure->members.find(name);
  if (found != structure->members.end()) return found->second;
  return create ? structure->members[name] = std::make_shared<Node>() : nullptr;
}

std::string Describe(const Place& place) {
  const Place node = End(place);
  std::string all;
  switch (node->kind) {
    case Node::Null:
    case Node::NullText: return "0:";
    case Node::Text: return "1:" + node->text;
    case Node::Integer: return "2:" + std::to_string(node->integer);
    case Node::Double: return "3:" + std::to_string(node->number);
    case Node::Array:
      for (const auto& [key, element] : node->array) {
        all += std::to_string(key) + "=" + Describe(element) + " ";
      }
      return "[" + all + "]";
    default:
      for (const auto& [key, element] : node->members) all += key + "=" + Describe(element) + " ";
      return "{" + all + "}";
  }
}

std::string Describe(Variable* variable) {
  Variable* const real = variable->RealIdentity();
  const AggregateType kind = real->aggregatetype();
  if (kind == AggregateNone) {
    const std::string primary = std::to_string(real->primary_type()) + ":";
    if (real->primary_type() == PrimaryDouble) {
      return primary + std::to_string(real->value_double());
    }
    const String& text = real->value();
    return primary + std::string(text.data ? text.data : "", static_cast<size_t>(text.length));
  }
  std::vector<AggregateElement*> elements;
  real->aggregateelements()->Listing(&elements);
  std::string all;
  for (AggregateElement* element : elements) {
    const String& key = element->index();
    all += std::string(key.data, static_cast<size_t>(key.length)) + "=" + Describe(element->var()) +
           " ";
  }
  return (kind == AggregateArray ? "[" : "{") + all + (kind == AggregateArray ? "]" : "}");
}

// --- Random programs -----------------------------------------------------------------------------

// A variable and what it is in the model.
struct Pair {
  VariableRef variable;
  Place place;
};

class Program {
 public:
  explicit Program(unsigned seed) : random(seed) {
    for (int i = 0; i < 5; i++)
      all.push_back({VariableRef(new Variable()), std::make_shared<Node>()});
  }

  void Step() {
    switch (Below(14)) {
      case 0:
      case 1:
      case 2:
      case 3: Write(Walk(Some(), Below(4), true)); return;
      case 4:
      case 5: Copy(); return;
      case 6:
      case 7: Take(); return;
      case 8: {
        const Pair found = Walk(Some(), Below(4), false);
        if (found.place && held.size() < 6)
          held.push_back({VariableRef::Share(found.variable.get()), found.place});
        return;
      }
      case 9:
        if (!held.empty())
          Write(Again(held[static_cast<size_t>(Below(static_cast<int>(held.size())))]));
        return;
      case 10:
        if (!held.empty()) held.erase(held.begin() + Below(static_cast<int>(held.size())));
        return;
      case 11: Connect(); return;
      case 12: WriteNumber(); return;
      default: ReadNumber(); return;
    }
  }
  void Compare() {
    for (size_t i = 0; i < all.size(); i++) {
      ASSERT_EQ(Describe(all[i].variable.get()), Describe(all[i].place)) << "variable " << i;
    }
    for (size_t i = 0; i < held.size(); i++) {
      ASSERT_EQ(Describe(held[i].variable.get()), Describe(held[i].place)) << "held " << i;
    }
  }

 private:
  int Below(int limit) { return static_cast<int>(random() % static_cast<unsigned>(limit)); }
  static Pair Again(const Pair& pair) {
    return {VariableRef::Share(pair.variable.get()), pair.place};
  }
  Pair Some() { return Again(all[static_cast<size_t>(Below(5))]); }

  // An element within elements; without create it may be none.
  Pair Walk(Pair from, int steps, bool create) {
    for (; steps > 0 && from.place; steps--) {
      Variable* next;
      if (Below(2)) {
        const int position = 1 + Below(4);
        from.place = ElementOf(from.place, position, create);
        next = Below(20) ? from.variable->At(position, create)
                         : from.variable->Element(AggregateIndex(position), create);
      } else {
        const char name[2] = {static_cast<char>('a' + Below(4)), '\0'};
        from.place = MemberOf(from.place, name, create);
        next = Below(20) ? from.variable->Member(name, 1, create, &hints[name[0] - 'a'])
                         : from.variable->Element(AggregateIndex(name, 1), create);
      }
      EXPECT_EQ(next != nullptr, from.place != nullptr);
      from.variable = VariableRef::Share(next);
      if (!next) from.place = nullptr;
    }
    return from;
  }
  void Write(const Pair& to) {
    const Place node = End(to.place);
    node->Clear(Node::Null);
    switch (Below(5)) {
      case 0:
        node->kind = Node::Text;
        node->text = Below(2) ? std::to_string(Below(100))
                              : std::string(static_cast<size_t>(Below(60)), 'x');
        to.variable->SetValue(node->text.data(), static_cast<int>(node->text.size()));
        return;
      case 1:
        node->kind = Node::Double;
        node->number = Below(1000) / 8.0;
        to.variable->Real()->Write_Double(node->number);
        return;
      case 2: to.variable->SetNULL(); return;
      default:
        node->kind = Node::Integer;
        node->integer = Below(1000);
        to.variable->Real()->Write_Integer(node->integer);
    }
  }
  void Copy() {
    const Pair to = Walk(Some(), Below(3), true);
    const Pair from = Walk(Some(), Below(3), false);
    if (!from.place) return;
    Store(to.place, from.place);
    if (to.variable->Real()->ShareMembers(*from.variable->Real())) {
      shares++;
    } else {
      to.variable->SetValue(*from.variable);
    }
  }
  // As a function returns a variable, which then is nowhere else.
  void Take() {
    const auto index = static_cast<size_t>(Below(5));
    const Pair to = Walk(Some(), Below(3), true);
    Pair from = {std::move(all[index].variable), all[index].place};
    all[index] = {VariableRef(new Variable()), std::make_shared<Node>()};
    if (to.place == from.place) return;
    Store(to.place, from.place);
    if (to.variable->Real()->TakeValue(from.variable.get())) {
      moves++;
      EXPECT_EQ(from.variable->aggregatetype(), AggregateNone);
    } else {
      to.variable->SetValue(*from.variable);
    }
  }
  // Only to what holds nothing, so there is never a circle.
  void Connect() {
    if (held.empty()) return;
    const Pair target = Again(held[static_cast<size_t>(Below(static_cast<int>(held.size())))]);
    if (target.place->HoldsOthers()) return;
    const Pair from = Walk(Some(), Below(3), true);
    if (target.place->HoldsOthers() || from.place == target.place ||
        End(from.place) == target.place)
      return;
    if (Below(2)) {
      const int position = 1 + Below(4);
      from.variable->SetElement(AggregateIndex(position), target.variable.get());
      const Place array = End(from.place);
      if (array->kind != Node::Array) array->Clear(Node::Array);
      array->array[position] = target.place;
    } else if (from.place->kind != Node::Reference) {
      from.variable->Make_Reference(target.variable.get());
      from.place->Clear(Node::Reference);
      from.place->target = target.place;
    }
  }
  void WriteNumber() {
    const Pair to = Walk(Some(), Below(3), true);
    Variable* const real = to.variable->Real();
    const int number = Below(1000);
    if (Below(2)) {
      const int position = 1 + Below(4);
      if (!real->WriteElement(position, number)) return;
      const Place element = End(ElementOf(to.place, position, true));
      element->Clear(Node::Integer);
      element->integer = number;
    } else {
      const char name[2] = {static_cast<char>('a' + Below(4)), '\0'};
      if (!real->WriteMember(name, 1, &hints[name[0] - 'a'], number)) {
        if (real->aggregatetype() == AggregateStructure && End(to.place)->kind < Node::Array) {
          End(to.place)->Clear(Node::Structure);
        }
        return;
      }
      const Place member = End(MemberOf(to.place, name, true));
      member->Clear(Node::Integer);
      member->integer = number;
    }
  }
  void ReadNumber() {
    const Pair from = Walk(Some(), Below(3), false);
    if (!from.place) return;
    Variable* const real = from.variable->Real();
    DenseSlot slot;
    const int position = 1 + Below(4);
    if (real->FindBare(position, &slot)) ExpectNumber(ElementOf(from.place, position, false), slot);
    const char name[2] = {static_cast<char>('a' + Below(4)), '\0'};
    if (real->FindNumberMember(name, 1, &hints[name[0] - 'a'], &slot)) {
      ExpectNumber(MemberOf(from.place, name, false), slot);
    }
  }
  static void ExpectNumber(const Place& place, const DenseSlot& slot) {
    ASSERT_NE(place, nullptr);
    ASSERT_EQ(place->kind, slot.IsInteger() ? Node::Integer : Node::Double);
    ASSERT_EQ(slot.IsInteger() ? slot.integer() : slot.number(),
              slot.IsInteger() ? place->integer : place->number);
  }

 public:
  int moves = 0;
  int shares = 0;

 private:
  std::mt19937 random;
  std::vector<Pair> all;
  std::vector<Pair> held;
  MemberHint hints[4];
};

TEST(SharedElements, EveryCopyIsAsIfItWereMadeAtOnce) {
  int moves = 0, shares = 0;
  for (unsigned seed = 1; seed <= Rounds(6000u); seed++) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    Program program(seed);
    for (int i = 0; i < 20 + static_cast<int>(seed % 100); i++) {
      program.Step();
      ASSERT_FALSE(testing::Test::HasFailure()) << "step " << i;
    }
    program.Compare();
    ASSERT_FALSE(testing::Test::HasFailure());
    moves += program.moves;
    shares += program.shares;
  }
  EXPECT_GT(moves, Rounds(100));
  EXPECT_GT(shares, Rounds(100));
  Variable::FreeCycles();
}

// --- Single rules --------------------------------------------------------------------------------

VariableRef Texts(int count) {
  VariableRef array(new Variable());
  for (int i = 1; i <= count; i++) array->At(i, 1)->SetValue("text", 4);
  return array;
}

TEST(SharedElements, ACopyHasTheElementsUntilOneOfTheTwoNeedsThem) {
  VariableRef array = Texts(10);
  Variable* const first = array->At(1, 0);
  const VariableRef copy(new Variable(*array));
  const VariableRef third(new Variable(*copy));
  array = VariableRef();
  EXPECT_NE(third->At(1, 0), first);
  EXPECT_EQ(copy->At(1, 0), first);
  third->At(2, 1)->SetValue("other", 5);
  EXPECT_STREQ(copy->At(2, 0)->value().data, "text");
  EXPECT_STREQ(third->At(2, 0)->value().data, "other");
}

TEST(SharedElements, AnElementThatSomethingElseHoldsIsCopiedAtOnce) {
  const VariableRef array = Texts(3);
  const VariableRef held = VariableRef::Share(array->At(2, 0));
  const VariableRef copy(new Variable(*array));
  held->SetValue("changed", 7);
  EXPECT_STREQ(array->At(2, 0)->value().data, "changed");
  EXPECT_STREQ(copy->At(2, 0)->value().data, "text");
}

TEST(SharedElements, AnElementThatWasLentIsCopiedAtOnce) {
  for (const bool structure : {false, true}) {
    const VariableRef source(new Variable());
    const AggregateIndex index = structure ? AggregateIndex("x", 1) : AggregateIndex(1);
    Variable* const lent = source->Element(index, 1);
    lent->SetValue("before", 6);
    const VariableRef copy(new Variable(*source));
    lent->SetValue("after", 5);
    EXPECT_STREQ(copy->Element(index, 0)->value().data, "before");
    EXPECT_STREQ(source->Element(index, 0)->value().data, "after");
    const VariableRef moved(new Variable());
    EXPECT_FALSE(moved->TakeValue(source.get()));
  }
}

TEST(SharedElements, WhatAnElementRefersToIsCopiedAtOnce) {
  const VariableRef array = Texts(2);
  const VariableRef target(new Variable("t", 1, 5));
  array->At(1, 1)->At(1, 1)->Make_Reference(target.get());
  const VariableRef copy(new Variable(*array));
  target->SetValue_Integer(6);
  EXPECT_EQ(copy->At(1, 0)->At(1, 0)->value_integer(), 5);
  EXPECT_EQ(array->At(1, 0)->At(1, 0)->value_integer(), 6);
}

// Which form of a text was read first shows in the others, so a read of one copy must not leave
// anything in the other.
TEST(SharedElements, AReadLeavesNothingInTheOtherCopy) {
  const VariableRef array(new Variable());
  array->At(1, 1)->SetValue("99999999999", 11);
  const VariableRef copy(new Variable(*array));
  copy->At(1, 0)->value_double();
  const VariableRef alone(new Variable("", 0, "99999999999", 11));
  EXPECT_EQ(array->At(1, 0)->value_integer(), alone->value_integer());
  EXPECT_NE(array->At(1, 0)->value_integer(), copy->At(1, 0)->value_integer());
}

// A NULL variable that is read as an integer has one from then on; an empty text stays empty.
TEST(SharedElements, ANULLElementIsAnEmptyTextInTheCopy) {
  for (const bool moved : {false, true}) {
    const VariableRef array(new Variable());
    array->At(1, 1);
    const VariableRef copy(new Variable());
    if (moved) {
      ASSERT_TRUE(copy->TakeValue(array.get()));
    } else {
      copy->SetValue(*array);
      EXPECT_EQ(array->At(1, 0)->value_integer(), 0);
      EXPECT_TRUE(array->At(1, 0)->IsNULL());
    }
    EXPECT_EQ(copy->At(1, 0)->primary_type(), PrimaryNone);
    EXPECT_EQ(copy->At(1, 0)->value_integer(), 0);
    EXPECT_TRUE(copy->At(1, 0)->IsNULL());
  }
}

TEST(SharedElements, AMoveKeepsTheVariables) {
  const VariableRef source(new Variable());
  source->Member("list", 4, 1)->At(1, 1)->SetValue("text", 4);
  Variable* const element = source->Member("list", 4, 0)->At(1, 0);
  const VariableRef target = Texts(3);
  ASSERT_TRUE(target->TakeValue(source.get()));
  EXPECT_EQ(target->aggregatetype(), AggregateStructure);
  EXPECT_EQ(target->Member("list", 4, 0)->At(1, 0), element);
  EXPECT_EQ(source->aggregatetype(), AggregateNone);
  EXPECT_TRUE(source->IsNULL());
  EXPECT_EQ(source->primary_type(), PrimaryNone);
}

TEST(SharedElements, AStructureReplacesItsOwnParentAndItsOwnMember) {
  const auto make = [] {
    VariableRef made(new Variable());
    made->Member("x", 1, 1)->SetValue_Integer(1);
    made->Member("s", 1, 1)->Member("x", 1, 1)->SetValue_Integer(2);
    return made;
  };
  const VariableRef outer = make();
  VariableRef inner = VariableRef::Share(outer->Member("s", 1, 0));
  ASSERT_TRUE(outer->ShareMembers(*inner));
  EXPECT_EQ(outer->ElementsUsed(), 1);
  EXPECT_EQ(outer->Member("x", 1, 0)->value_integer(), 2);
  EXPECT_EQ(inner->Member("x", 1, 0)->value_integer(), 2);
  // The other way round it is no member that only its structure holds, so a copy is made.
  const VariableRef second = make();
  inner = VariableRef::Share(second->Member("s", 1, 0));
  EXPECT_FALSE(inner->ShareMembers(*second));
  inner->SetValue(*second);
  EXPECT_EQ(inner->Member("s", 1, 0)->Member("x", 1, 0)->value_integer(), 2);
  EXPECT_EQ(inner->Member("s", 1, 0)->Member("s", 1, 0), nullptr);
}

TEST(SharedElements, AStructureThatWasLentIsNotReplacedByShares) {
  const VariableRef target(new Variable()), source(new Variable());
  source->Member("x", 1, 1)->SetValue_Integer(1);
  const VariableRef lent = VariableRef::Share(target->Element(AggregateIndex("x", 1), 1));
  EXPECT_FALSE(target->ShareMembers(*source));
  const VariableRef scalar(new Variable("", 0, 5));
  EXPECT_FALSE(scalar->ShareMembers(*source));
  EXPECT_FALSE(source->ShareMembers(*scalar));
  EXPECT_EQ(source->ElementsUsed(), 1);
}

TEST(SharedElements, WhatCannotBeMovedStaysAsItWas) {
  const VariableRef target(new Variable("", 0, 7));
  VariableRef source = Texts(3);
  const VariableRef second = VariableRef::Share(source.get());
  EXPECT_FALSE(target->TakeValue(source.get()));  // held twice
  VariableRef scalar(new Variable("", 0, 5));
  EXPECT_FALSE(target->TakeValue(scalar.get()));
  VariableRef list = Texts(3);
  const VariableRef held = VariableRef::Share(list->At(1, 0));
  EXPECT_FALSE(target->TakeValue(list.get()));
  VariableRef sparse = Texts(3);
  sparse->At(1000, 1);
  EXPECT_FALSE(target->TakeValue(sparse.get()));
  VariableRef own = Texts(1);
  EXPECT_FALSE(own->TakeValue(own.get()));
  variable_helpers::Computed computed(VariableComputed, PrimaryText);
  VariableRef whole = Texts(1);
  EXPECT_FALSE(computed.TakeValue(whole.get()));
  EXPECT_EQ(target->value_integer(), 7);
  EXPECT_EQ(list->ElementsUsed(), 3);
  EXPECT_EQ(source->ElementsUsed(), 3);
  EXPECT_EQ(whole->ElementsUsed(), 1);
}

// A target in its source would hold itself after a move.
TEST(SharedElements, ATargetWithinTheSourceGetsACopy) {
  VariableRef source = Texts(2);
  const VariableRef target = VariableRef::Share(source->At(1, 0));
  EXPECT_FALSE(target->TakeValue(source.get()));
}

TEST(SharedElements, ValuesOfAnyDepthAreCopied) {
  for (const int depth : {1, 62, 63, 64, 65, 66, 200}) {
    SCOPED_TRACE(depth);
    VariableRef list(new Variable());
    Variable* inner = list.get();
    for (int i = 0; i < depth; i++) inner = inner->Member("next", 4, 1);
    inner->SetValue("end", 3);
    const VariableRef copy(new Variable(*list));
    VariableRef moved(new Variable());
    if (!moved->TakeValue(list.get())) moved->SetValue(*list);
    inner = moved.get();
    for (int i = 0; i < depth; i++) inner = inner->Member("next", 4, 0);
    inner->SetValue("changed", 7);
    inner = copy.get();
    for (int i = 0; i < depth; i++) inner = inner->Member("next", 4, 0);
    EXPECT_STREQ(inner->value().data, "end");
  }
}

// A list that grows at its head is looked at only once, or this takes hours.
TEST(SharedElements, AListThatIsReturnedAndMadePartOfALongerOneIsNotWalkedAgain) {
  VariableRef list(new Variable());
  for (int i = 0; i < 200000; i++) {
    VariableRef longer(new Variable());
    longer->Member("value", 5, 1)->SetValue_Integer(i);
    Variable* const rest = longer->Member("rest", 4, 1);
    if (!rest->TakeValue(list.get())) rest->SetValue(*list);
    list = std::move(longer);
  }
  EXPECT_EQ(
      list->Member("rest", 4, 0)->Member("rest", 4, 0)->Member("value", 5, 0)->value_integer(),
      199997);
}

TEST(SharedElements, CirclesAreFreedAndSharedElementsStay) {
  const VariableRef kept = Texts(4);
  {
    const VariableRef circle(new Variable());
    const VariableRef part(new Variable());
    part->At(1, 1)->SetValue(*kept);
    circle->SetElement(AggregateIndex(1), part.get());
    part->SetElement(AggregateIndex(2), circle.get());
  }
  Variable::FreeCycles();
  EXPECT_STREQ(kept->At(4, 0)->value().data, "text");
}

TEST(SharedElements, ACloneSharesNothingAndGoesToAnotherThread) {
  const VariableRef source(new Variable());
  for (int i = 1; i <= 20; i++) {
    source->Member("numbers", 7, 1)->At(i, 1);
    source->Member("numbers", 7, 1)->WriteElement(i, i);
    source->Member("texts", 5, 1)->At(i, 1)->SetValue("text", 4);
    MemberHint hint;
    source->Member("parts", 5, 1)->At(i, 1)->WriteMember("part", 4, &hint, i);
  }
  const VariableRef copy(new Variable(*source));
  Variable* const clone = source->Clone(nullptr);
  std::thread thread([clone] {
    const VariableRef here(clone);
    here->Member("parts", 5, 1)->At(3, 1)->Member("more", 4, 1)->SetValue_Integer(7);
    EXPECT_EQ(here->Member("parts", 5, 0)->At(3, 0)->Member("PART", 4, 0)->value_integer(), 3);
    const VariableRef again(new Variable(*here));
    again->Member("texts", 5, 1)->SetNULL();
    EXPECT_EQ(here->Member("texts", 5, 0)->ElementsUsed(), 20);
    Variable::FreeCycles();
  });
  for (int i = 1; i <= 20; i++) {
    const VariableRef more(new Variable(*copy));
    more->Member("parts", 5, 1)->At(i, 1)->Member("other", 5, 1);
  }
  thread.join();
  EXPECT_EQ(source->Member("parts", 5, 0)->At(3, 0)->ElementsUsed(), 1);
}

// A library may keep them for longer than the values that they come from.
TEST(SharedElements, CopiesOfSingleElementsShareNothing) {
  for (const bool inserted : {false, true}) {
    const VariableRef source(new Variable());
    source->At(1, 1)->At(1, 1)->SetValue("text", 4);
    Variable* const original = source->At(1, 0)->At(1, 0);
    const VariableRef target(new Variable());
    if (inserted) {
      target->MergeElements(source.get(), 1, 1, 1, true);
    } else {
      target->CopyElements(source.get(), 1, 1, 1, true);
    }
    source->At(1, 0)->SetNULL();  // the target would have the elements alone, if they were shared
    EXPECT_NE(target->At(1, 0)->At(1, 0), original);
    EXPECT_STREQ(target->At(1, 0)->At(1, 0)->value().data, "text");
  }
}

TEST(SharedElements, ATableOfAnySizeGrowsAndIsParted) {
  for (const int count : {1, 3, 4, 7, 8, 15, 16, 99, 100, 1000}) {
    const VariableRef array(new Variable());
    array->At(1, 1)->SetValue_Integer(1);
    for (int i = 2; i <= count; i++) ASSERT_TRUE(array->WriteElement(i, i));
    const VariableRef copy(new Variable(*array));
    ASSERT_TRUE(copy->WriteElement(count + 1, 5));
    ASSERT_TRUE(array->WriteElement(1, 9));
    EXPECT_EQ(copy->At(1, 0)->value_integer(), 1);
    EXPECT_EQ(array->ElementsUsed(), count);
    EXPECT_EQ(copy->ElementsUsed(), count + 1);
    const VariableRef third(new Variable(*copy));
    third->DeleteElement(AggregateIndex(count + 1), true);
    EXPECT_EQ(copy->ElementsUsed(), count + 1);
    EXPECT_EQ(third->ElementsUsed(), count);
  }
}

}  // namespace
