#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "base/compiled/Dictionary.h"
#include "base/compiled/VariableHash.h"
#include "base/values/Aggregate.h"
#include "base/values/Variable.h"
#include "base/values/VariableKinds.h"
#include "base/values/VariableRef.h"
#include "tests/support/GrowthOfTime.h"
#include "tests/support/Rounds.h"

namespace {

int living = 0;

// Counts itself, so that a leak shows in every build.
class Counted : public Variable {
 public:
  Counted() { living++; }
  ~Counted() override { living--; }
};

class VariableCycles : public testing::Test {
 protected:
  void SetUp() override {
    Variable::FreeCycles();
    living = 0;
  }
};

AggregateIndex Place(int position) {
  return AggregateIndex(position);
}

TEST_F(VariableCycles, AnArrayThatIsItsOwnElementIsFreed) {
  VariableRef array(new Counted());
  array->SetElement(Place(1), array.get());
  array.reset();
  EXPECT_EQ(living, 1);
  Variable::FreeCycles();
  EXPECT_EQ(living, 0);
}

TEST_F(VariableCycles, AnElementThatRefersToItsArrayIsFreedWithIt) {
  VariableRef array(new Counted());
  VariableRef element(new Counted());
  array->SetElement(Place(1), element.get());
  element->Make_Reference(array.get());
  element.reset();
  array.reset();
  EXPECT_EQ(living, 2);
  Variable::FreeCycles();
  EXPECT_EQ(living, 0);
}

TEST_F(VariableCycles, WhatIsHeldFromOutsideStays) {
  const VariableRef array(new Counted());
  VariableRef element(new Counted());
  array->SetElement(Place(1), element.get());
  array->Element(Place(2), 1)->SetValue("kept", 4);
  element->Make_Reference(array.get());
  element.reset();
  Variable::FreeCycles();
  EXPECT_EQ(living, 2);
  EXPECT_STREQ(array->Element(Place(2), 0)->value().data, "kept");
  EXPECT_EQ(array->Element(Place(1), 0)->RealIdentity(), array.get());
  array->SetNULL();
  EXPECT_EQ(living, 1);
}

TEST_F(VariableCycles, WhatHangsOnACircleIsFreedAndWhatIsSharedStays) {
  const VariableRef shared(new Counted());
  VariableRef first(new Counted());
  VariableRef second(new Counted());
  first->SetElement(Place(1), second.get());
  first->SetElement(Place(2), shared.get());
  second->SetElement(Place(1), first.get());
  VariableRef hanging(new Counted());
  second->SetElement(Place(2), hanging.get());
  first.reset();
  second.reset();
  hanging.reset();
  Variable::FreeCycles();
  EXPECT_EQ(living, 1);
  EXPECT_EQ(shared->refcount(), 1);
}

TEST_F(VariableCycles, AReferenceWithSeveralCountsIsOneHolder) {
  VariableRef array(new Counted());
  VariableRef reference(new Counted());
  reference->Make_Reference(array.get());
  array->SetElement(Place(1), reference.get());
  array->SetElement(Place(2), reference.get());
  EXPECT_EQ(reference->refcount(), 3);
  EXPECT_EQ(array->refcount(), 2);
  array.reset();
  reference.reset();
  EXPECT_EQ(living, 2);
  Variable::FreeCycles();
  EXPECT_EQ(living, 0);
}

TEST_F(VariableCycles, ASecondCallFindsNothing) {
  VariableRef array(new Counted());
  array->SetElement(Place(1), array.get());
  Variable::FreeCycles();
  EXPECT_EQ(living, 1);
  array->SetNULL();
  array.reset();
  EXPECT_EQ(living, 0);
  Variable::FreeCycles();
}

void Entangle(const std::vector<VariableRef>& variables, std::mt19937* random) {
  const auto any = [&] { return variables[(*random)() % variables.size()].get(); };
  for (int i = 0; i < 25; i++) {
    const AggregateIndex place(static_cast<int>((*random)() % 4));
    switch ((*random)() % 5) {
      case 0: any()->Make_Reference(any()); break;
      case 1: any()->SetElement(place, any()); break;
      case 2: any()->Element(place, 1)->Make_Reference(any()); break;
      case 3: any()->CopyElements(any(), 0, -1, 1, false); break;
      default: any()->InsertElement(1, any()); break;
    }
  }
}

std::vector<VariableRef> Several() {
  std::vector<VariableRef> variables;
  for (int i = 0; i < 8; i++) variables.emplace_back(new Counted());
  return variables;
}

TEST_F(VariableCycles, RandomGraphsThatAreHeldStayWhole) {
  std::mt19937 random(5);
  for (int round = 0; round < 2000; round++) {
    std::vector<VariableRef> variables = Several();
    Entangle(variables, &random);
    std::vector<int> counts;
    for (VariableRef& variable : variables) counts.push_back(variable->refcount());
    Variable::FreeCycles();
    ASSERT_EQ(living, 8) << round;
    for (size_t i = 0; i < variables.size(); i++) ASSERT_EQ(variables[i]->refcount(), counts[i]);
    for (VariableRef& variable : variables) variable->Make_NULL();
    variables.clear();
    ASSERT_EQ(living, 0) << round;
  }
}

TEST_F(VariableCycles, RandomGraphsThatNobodyHoldsAreFreedCompletely) {
  std::mt19937 random(6);
  for (int round = 0; round < 3000; round++) {
    std::vector<VariableRef> variables = Several();
    Entangle(variables, &random);
    variables.clear();
    Variable::FreeCycles();
    ASSERT_EQ(living, 0) << round;
  }
}

// --- Many ----------------------------------------------------------------------------------------

// An array of references, each to the one before it. Made from the last one on, because each count
// on a reference is also a count on all that it refers to.
VariableRef Chain(int count) {
  VariableRef array(new Variable());
  for (int i = 1; i <= count; i++) array->Element(Place(i), 1);
  for (int i = count; i > 1; i--) {
    array->Element(Place(i), 0)->Make_Reference(array->Element(Place(i - 1), 0));
  }
  return array;
}

TEST_F(VariableCycles, AChainOfReferencesIsDeletedInTimeByItsLength) {
  ExpectNearLinear(8000, Chain, [](VariableRef* chain) { chain->reset(); });
}

TEST_F(VariableCycles, AChainThatATableHoldsIsReleasedInTimeByItsLength) {
  Dictionary names;
  ExpectNearLinear(
      8000,
      [&names](int count) {
        auto table = std::make_unique<VariableHash>(&names, 12, 512);
        for (int i = 0; i < count; i++) {
          const std::string name = "v" + std::to_string(i);
          table->Insert(new Variable(name.c_str(), -1));
        }
        for (int i = count - 1; i > 0; i--) {
          table->Index(i, 0)->Make_Reference(table->Index(i - 1, 0));
        }
        return table;
      },
      [](std::unique_ptr<VariableHash>* table) { table->reset(); });
}

TEST_F(VariableCycles, ACircleThroughAChainIsFreedInTimeByItsLength) {
  ExpectNearLinear(
      8000,
      [](int count) {
        VariableRef chain = Chain(count);
        chain->Element(Place(1), 0)->Make_Reference(chain.get());
        chain.reset();
        return 0;
      },
      [](int*) { Variable::FreeCycles(); });
}

TEST_F(VariableCycles, CirclesAreFreedInTimeByTheirNumber) {
  ExpectNearLinear(
      8000,
      [](int count) {
        for (int i = 0; i < count; i++) {
          const VariableRef array(new Variable());
          array->SetElement(Place(1), array.get());
        }
        return 0;
      },
      [](int*) { Variable::FreeCycles(); });
}

TEST_F(VariableCycles, AReferenceOfManyHoldersIsReboundInOneStep) {
  ExpectNearLinear(
      8000,
      [](int count) {
        auto variable = std::make_unique<Variable>();
        for (int i = 0; i < count; i++) variable->IncRefCount();
        return std::pair(VariableRef(variable.release()), Chain(count));
      },
      [](std::pair<VariableRef, VariableRef>* made) {
        const int counts = made->first->refcount();
        made->first->Make_Reference(made->second->Element(Place(2), 0));
        made->first->Make_Reference(made->second->Element(Place(made->second->Max()), 0));
        made->first->Make_NULL();
        for (int i = 1; i < counts; i++) made->first->DecRefCount();
        made->second.reset();
      });
}

// Variables that refer to one another, each with some extra counts.
struct Forest {
  explicit Forest(unsigned seed) {
    std::mt19937 random(seed);
    for (unsigned i = 0; i < Size; i++) variables.emplace_back(new Counted());
    for (int i = 0; i < 14; i++) {
      variables[random() % Size]->Make_Reference(variables[random() % Size].get());
    }
    for (int i = 0; i < 20; i++) {
      further.push_back(variables[random() % Size].get());
      further.back()->IncRefCount();
    }
    std::shuffle(further.begin(), further.end(), random);
  }
  // Releases count of the extra counts, and may change a variable in between.
  void Release(size_t count, unsigned change) {
    for (size_t i = 0; i < count; i++) {
      if (i == count / 2) Change(change);
      further.back()->DecRefCount();
      further.pop_back();
    }
  }
  void Change(unsigned change) {
    Variable* variable = variables[change / 4 % Size].get();
    if (change % 4 == 0) variable->Make_NULL();
    if (change % 4 == 1) variable->Make_Reference(variables[3].get());
  }
  void ReleaseAll() {
    Release(further.size(), 3);
    variables.clear();
  }

  static constexpr unsigned Size = 12;
  std::vector<VariableRef> variables;
  std::vector<Variable*> further;
};

// Each holder has one count, and so has each reference on its target.
TEST_F(VariableCycles, CountsAreThoseOfHoldersAndReferences) {
  std::mt19937 random(7);
  for (unsigned round = 0; round < Rounds(3000u); round++) {
    Forest forest(round);
    forest.Release(random() % 21, static_cast<unsigned>(random()));
    std::map<Variable*, int> counts;
    for (const VariableRef& variable : forest.variables) counts[variable.get()]++;
    for (Variable* variable : forest.further) counts[variable]++;
    for (const VariableRef& variable : forest.variables) {
      Variable* const target = variable->NextIdentity();
      if (target && target != variable.get()) counts[target]++;
    }
    for (const VariableRef& variable : forest.variables) {
      ASSERT_EQ(variable->refcount(), counts[variable.get()]) << round;
    }
    forest.ReleaseAll();
    ASSERT_EQ(living, 0) << round;
  }
}

// A chain of references is left as quickly as it is made, from both of its ends.
TEST_F(VariableCycles, AChainOfReferencesIsReleasedInTimeByItsLength) {
  for (const bool from_the_end : {false, true}) {
    ExpectNearLinear(
        8000,
        [](int count) {
          std::vector<VariableRef> chain;
          chain.emplace_back(new Variable());
          for (int i = 1; i < count; i++) {
            chain.emplace_back(new ReferenceVariable("r", 1, chain.back().get()));
          }
          return chain;
        },
        [from_the_end](std::vector<VariableRef>* chain) {
          if (!from_the_end) std::reverse(chain->begin(), chain->end());
          for (VariableRef& variable : *chain) variable.reset();
        });
  }
}

}  // namespace
