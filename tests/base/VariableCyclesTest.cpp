#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "base/Aggregate.h"
#include "base/Variable.h"
#include "base/VariableRef.h"

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

TEST_F(VariableCycles, ReferencesWithSeveralCountsAreCounted) {
  VariableRef array(new Counted());
  VariableRef reference(new Counted());
  reference->Make_Reference(array.get());
  array->SetElement(Place(1), reference.get());
  array->SetElement(Place(2), reference.get());
  EXPECT_EQ(reference->refcount(), 3);
  EXPECT_EQ(array->refcount(), 4);
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

}  // namespace
