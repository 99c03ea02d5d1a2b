#include "base/values/VariableWalk.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/values/Aggregate.h"
#include "base/values/Variable.h"
#include "base/values/VariableRef.h"

namespace {

using std::string;

// One letter per step: a scalar's text, "(" and ")" around the elements of an aggregate, "@" where
// the walk is already inside the aggregate.
string Steps(Variable* variable) {
  string steps;
  VariableWalk walk(variable);
  for (auto step = walk.Next(); step != VariableWalk::End; step = walk.Next()) {
    switch (step) {
      case VariableWalk::Scalar: steps += walk.identity()->value().data; break;
      case VariableWalk::Enter: steps += "("; break;
      case VariableWalk::Leave: steps += ")"; break;
      case VariableWalk::Repeated: steps += "@"; break;
      case VariableWalk::End: break;
    }
  }
  return steps;
}

Variable* At(const VariableRef& variable, int position) {
  return variable->Element(AggregateIndex(position), 1);
}

TEST(VariableWalk, VisitsElementsInOrderBetweenEnterAndLeave) {
  const VariableRef variable(new Variable());
  EXPECT_EQ(Steps(variable.get()), "");
  variable->SetValue("x", 1);
  EXPECT_EQ(Steps(variable.get()), "x");
  At(variable, 3)->SetValue("c", 1);
  At(variable, 1)->SetValue("a", 1);
  At(variable, 2)->Element(AggregateIndex("m", 1), 1)->SetValue("m", 1);
  EXPECT_EQ(Steps(variable.get()), "(a(m)c)");
  EXPECT_EQ(Steps(nullptr), "");
}

TEST(VariableWalk, FollowsReferencesAndTellsWhatIsThere) {
  const VariableRef target(new Variable("t", 1, "x", 1));
  const VariableRef variable(new Variable());
  At(variable, 1)->Make_Reference(target.get());
  VariableWalk walk(variable.get());
  EXPECT_EQ(walk.Next(), VariableWalk::Enter);
  EXPECT_TRUE(walk.at_root());
  EXPECT_EQ(walk.Next(), VariableWalk::Scalar);
  EXPECT_EQ(walk.identity(), target.get());
  EXPECT_EQ(walk.variable(), At(variable, 1));
  EXPECT_EQ(walk.index().position, 1);
  EXPECT_EQ(walk.Next(), VariableWalk::Leave);
  EXPECT_EQ(walk.variable(), variable.get());
  EXPECT_EQ(walk.Next(), VariableWalk::End);
  EXPECT_EQ(walk.Next(), VariableWalk::End);
}

TEST(VariableWalk, MeetsWhatItIsInsideOfAsRepeated) {
  const VariableRef variable(new Variable());
  At(variable, 1)->SetValue("a", 1);
  At(variable, 2)->Make_Reference(variable.get());
  EXPECT_EQ(Steps(variable.get()), "(a@)");
  // The same value twice side by side is no repetition.
  const VariableRef both(new Variable());
  At(both, 1)->Make_Reference(variable.get());
  At(both, 2)->Make_Reference(variable.get());
  EXPECT_EQ(Steps(both.get()), "((a@)(a@))");
  variable->SetNULL();
}

TEST(VariableWalk, AnEndBeforeTheLastStepLeavesNoMark) {
  const VariableRef variable(new Variable());
  At(variable, 1)->Element(AggregateIndex(1), 1)->SetValue("a", 1);
  {
    VariableWalk walk(variable.get());
    walk.Next();
    walk.Next();
    EXPECT_EQ(Steps(variable.get()), "@");
  }
  EXPECT_EQ(Steps(variable.get()), "((a))");
}

}  // namespace
