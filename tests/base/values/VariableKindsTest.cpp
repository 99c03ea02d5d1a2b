#include "base/values/VariableKinds.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/base/values/VariableHelpers.h"
#include "tests/support/TestApplication.h"

namespace {

using std::string;
using namespace variable_helpers;

// --- References ----------------------------------------------------------------------------------

TEST(Reference, ForwardsReadsAndWrites) {
  const VariableRef target = New("12");
  const VariableRef reference(new ReferenceVariable("r", 1, target.get()));
  EXPECT_EQ(reference->type(), VariableReference);
  EXPECT_EQ(reference->TypeReferredTo(), VariableStored);
  EXPECT_EQ(reference->NextIdentity(), target.get());
  EXPECT_EQ(reference->RealIdentity(), target.get());
  EXPECT_EQ(Text(reference->name()), "r");
  EXPECT_EQ(&reference->value(), &target->value());
  EXPECT_EQ(reference->value_integer(), 12);
  EXPECT_EQ(reference->value_double(), 12.0);
  int not_numeric = 1;
  EXPECT_EQ(reference->value_compare(&not_numeric), 12.0);
  EXPECT_EQ(reference->primary_type(), PrimaryText);
  EXPECT_EQ(reference->IsTrue(), 1);
  EXPECT_EQ(reference->IsNULL(), 0);
  EXPECT_EQ(&reference->error(), &target->error());
  reference->SetValue_Integer(5);
  EXPECT_EQ(target->value_integer(), 5);
  reference->SetValue_Double(2.5);
  EXPECT_EQ(Value(target), "2.5");
  reference->SetValue("text", 4);
  EXPECT_EQ(Value(target), "text");
  reference->SetValue_Nocopy(new char[2]{'n', 0}, 1, 2);
  EXPECT_EQ(Value(target), "n");
  reference->SetValue(*New("copied"));
  EXPECT_EQ(Value(target), "copied");
  reference->SetNULL();
  EXPECT_EQ(target->IsNULL(), 1);
}

TEST(Reference, ForwardsTheOperationsOnElements) {
  const VariableRef target = New();
  const VariableRef reference(new ReferenceVariable("r", 1, target.get()));
  Set(At(reference, 3), "c");
  EXPECT_EQ(target->Max(), 3);
  EXPECT_EQ(reference->aggregatetype(), AggregateArray);
  EXPECT_EQ(reference->aggregateelements(), target->aggregateelements());
  const VariableRef value = New("v");
  reference->SetElement(AggregateIndex(1), value.get());
  reference->InsertElement(1, value.get());
  EXPECT_EQ(Value(target), "v,v,c");
  EXPECT_EQ(reference->Max(), 4);
  EXPECT_EQ(reference->Min(), 1);
  EXPECT_EQ(reference->Next(2), 4);
  EXPECT_EQ(reference->Previous(4), 2);
  EXPECT_EQ(reference->ElementsUsed(), 3);
  EXPECT_EQ(reference->CollapseElements(), 3);
  EXPECT_EQ(target->Max(), 3);
  reference->DeleteElement(AggregateIndex(1), true);
  EXPECT_EQ(Value(target), "v,c");
  reference->CopyElements(target.get(), 1, 1, 3, true);
  EXPECT_EQ(Value(target), "v,c,v");
  reference->MergeElements(target.get(), 2, 1, 1, true);
  EXPECT_EQ(Value(target), "c,v,c,v");
  reference->DeleteElements(1, 3, true);
  EXPECT_EQ(Value(target), "v");
  List<AggregateIndex> path(1);
  path.Insert(new AggregateIndex(1), ListTail);
  EXPECT_EQ(Value(reference->Element(&path, 0)), "v");
}

TEST(Reference, HasOneCountOnItsTargetHoweverManyItHas) {
  const VariableRef target = New("t");
  Variable* reference = new ReferenceVariable("r", 1, target.get());
  EXPECT_EQ(target->refcount(), 2);
  reference->IncRefCount();
  EXPECT_EQ(reference->refcount(), 2);
  EXPECT_EQ(target->refcount(), 2);
  reference->DecRefCount();
  EXPECT_EQ(target->refcount(), 2);
  reference->DecRefCount();
  EXPECT_EQ(target->refcount(), 1);
}

TEST(Reference, TheLastCountDeletesReferenceAndUnheldTarget) {
  int deletions = 0;
  Variable* target = new Witness(&deletions);
  Variable* reference = new ReferenceVariable("r", 1, target);
  target->DecRefCount();
  EXPECT_EQ(deletions, 0);
  reference->DecRefCount();
  EXPECT_EQ(deletions, 1);
}

TEST(Reference, WithoutTargetReadsAsNULLAndIgnoresWrites) {
  const VariableRef reference(new ReferenceVariable("r", 1, nullptr));
  EXPECT_EQ(reference->type(), VariableReference);
  EXPECT_EQ(reference->NextIdentity(), nullptr);
  EXPECT_EQ(reference->RealIdentity(), reference.get());
  EXPECT_EQ(reference->refcount(), 1);
  EXPECT_EQ(reference->SetValue("x", 1), 1);
  EXPECT_EQ(reference->SetValue_Integer(1), 1);
  EXPECT_EQ(reference->SetValue_Double(1), 1);
  EXPECT_EQ(reference->SetValue(*New("x")), 1);
  EXPECT_EQ(reference->SetValue_Nocopy(new char[2]{'x', 0}, 1, 2), 1);
  reference->SetNULL();
  reference->SetElement(AggregateIndex(1), reference.get());
  reference->InsertElement(1, reference.get());
  reference->DeleteElements(1, 1, true);
  reference->Convert_Aggregate(AggregateArray);
  EXPECT_EQ(Value(reference), "");
  EXPECT_EQ(reference->value_integer(), 0);
  EXPECT_EQ(reference->value_double(), 0.0);
  EXPECT_EQ(reference->IsTrue(), 0);
  EXPECT_EQ(reference->IsNULL(), 1);
  EXPECT_EQ(reference->aggregatetype(), AggregateNone);
  EXPECT_EQ(reference->Element(AggregateIndex(1), 0), nullptr);
  int not_numeric = 1;
  EXPECT_EQ(reference->value_compare(&not_numeric), 0.0);
  EXPECT_EQ(not_numeric, 0);
  const VariableRef copy = New("old");
  copy->SetValue(*reference);
  EXPECT_EQ(Value(copy), "");
  EXPECT_EQ(copy->IsNULL(), 1);
}

TEST(Reference, WithAPathRefersToTheElementWhichIsMade) {
  const VariableRef target = New();
  List<AggregateIndex> path(1);
  path.Insert(new AggregateIndex("m", 1), ListTail);
  path.Insert(new AggregateIndex(2), ListTail);
  const VariableRef reference(new ReferenceVariable(String("r"), target.get(), &path));
  reference->SetValue("deep", 4);
  EXPECT_EQ(Value(target->Element(&path, 0)), "deep");
  EXPECT_EQ(target->refcount(), 1);
  EXPECT_EQ(reference->NextIdentity()->refcount(), 2);
  const VariableRef none(new ReferenceVariable(String("r"), nullptr, &path));
  EXPECT_EQ(none->NextIdentity(), nullptr);
}

TEST(MakeReference, EveryHolderFollows) {
  const VariableRef target = New("target");
  const VariableRef variable(new Variable("name", 4, "own", 3));
  Variable* pointer = variable.get();
  variable->Make_Reference(target.get());
  EXPECT_EQ(pointer->type(), VariableReference);
  EXPECT_EQ(Value(pointer), "target");
  EXPECT_EQ(Text(pointer->name()), "name");
  pointer->SetValue("new", 3);
  EXPECT_EQ(Value(target), "new");
}

// An optimising compiler may know the class of a local object and skip the virtual call.
TEST(MakeReference, IsSeenInTheFunctionThatMadeTheObject) {
  auto* target = new Variable("t", 1, 7);
  auto* variable = new Variable("v", 1, 1);
  int sum = variable->value_integer();
  variable->Make_Reference(target);
  sum += variable->value_integer() + variable->type();
  EXPECT_EQ(sum, 9);
  variable->DecRefCount();
  target->DecRefCount();
}

TEST(MakeReference, TakesOneCountOnTheTargetForAnyNumberOfHolders) {
  for (int holders : {1, 2, 3, 7}) {
    SCOPED_TRACE(holders);
    const VariableRef target = New("t");
    Variable* variable = new Variable();
    for (int i = 1; i < holders; i++) variable->IncRefCount();
    variable->Make_Reference(target.get());
    EXPECT_EQ(variable->refcount(), holders);
    EXPECT_EQ(target->refcount(), 2);
    for (int i = 0; i < holders; i++) variable->DecRefCount();
    EXPECT_EQ(target->refcount(), 1);
  }
}

TEST(MakeReference, ToNothingItselfOrACircleChangesNothing) {
  const VariableRef variable = New("own");
  variable->Make_Reference(nullptr);
  variable->Make_Reference(variable.get());
  const VariableRef first(new ReferenceVariable("r", 1, variable.get()));
  const VariableRef second(new ReferenceVariable("r", 1, first.get()));
  variable->Make_Reference(first.get());
  variable->Make_Reference(second.get());
  EXPECT_EQ(variable->type(), VariableStored);
  EXPECT_EQ(Value(variable), "own");
  first->Make_Reference(second.get());
  EXPECT_EQ(first->NextIdentity(), variable.get());
  EXPECT_EQ(variable->refcount(), 2);
  // A reference without target is its own end.
  const VariableRef open(new ReferenceVariable("r", 1, nullptr));
  const VariableRef to_open(new ReferenceVariable("r", 1, open.get()));
  open->Make_Reference(to_open.get());
  EXPECT_EQ(open->NextIdentity(), nullptr);
  open->Make_Reference(variable.get());
  EXPECT_EQ(Value(to_open), "own");
}

TEST(MakeReference, OfAReferenceMovesItsCount) {
  const VariableRef old_target = New("old");
  const VariableRef new_target = New("new");
  const VariableRef reference(new ReferenceVariable("r", 1, old_target.get()));
  const VariableRef second = VariableRef::Share(reference.get());
  reference->Make_Reference(new_target.get());
  EXPECT_EQ(Value(reference), "new");
  EXPECT_EQ(old_target->refcount(), 1);
  EXPECT_EQ(new_target->refcount(), 2);
  reference->Make_Reference(new_target.get());
  const VariableRef other(new ReferenceVariable("r", 1, new_target.get()));
  reference->Make_Reference(other.get());  // ends at the same variable
  EXPECT_EQ(reference->NextIdentity(), new_target.get());
}

TEST(MakeReference, LaterRebindingIsVisibleThroughAChain) {
  const VariableRef first = New("first");
  const VariableRef second = New("second");
  const VariableRef middle(new ReferenceVariable("m", 1, first.get()));
  const VariableRef outer(new ReferenceVariable("o", 1, middle.get()));
  EXPECT_EQ(Value(outer), "first");
  middle->Make_Reference(second.get());
  EXPECT_EQ(Value(outer), "second");
  EXPECT_EQ(outer->NextIdentity(), middle.get());
  EXPECT_EQ(outer->RealIdentity(), second.get());
}

TEST(MakeReference, ToAnOwnElementKeepsTheElement) {
  const VariableRef variable = New();
  Set(At(variable, 1), "element");
  variable->Make_Reference(At(variable, 1));
  EXPECT_EQ(Value(variable), "element");
  EXPECT_EQ(variable->aggregatetype(), AggregateNone);
  EXPECT_EQ(variable->NextIdentity()->refcount(), 1);
}

TEST(MakeReference, OfAnElementToItsAggregateReadsAsTheAggregate) {
  const VariableRef variable = New();
  Set(At(variable, 2), "b");
  Variable* element = At(variable, 1);
  element->Make_Reference(variable.get());
  EXPECT_EQ(element->aggregatetype(), AggregateArray);
  EXPECT_EQ(Value(element->Element(AggregateIndex(2), 0)), "b");
  EXPECT_EQ(variable->refcount(), 2);
  variable->SetNULL();
  EXPECT_EQ(variable->refcount(), 1);
}

TEST(MakeReference, AConvertedSubclassIsStillDeletedAsWhatItWas) {
  int deletions = 0;
  const VariableRef target = New("t");
  Variable* variable = new Witness(&deletions);
  variable->Make_Reference(target.get());
  EXPECT_EQ(deletions, 0);
  variable->DecRefCount();
  EXPECT_EQ(deletions, 1);
  EXPECT_EQ(target->refcount(), 1);
}

TEST(MakeReference, AllClassesHaveTheSizeOfAVariableAtLeast) {
  EXPECT_EQ(sizeof(ReferenceVariable), sizeof(Variable));
  EXPECT_GE(sizeof(NULLVariable), sizeof(Variable));
}

// --- Make_NULL -----------------------------------------------------------------------------------

TEST(MakeNULL, EveryHolderSeesANULLThatIgnoresWrites) {
  const VariableRef variable(new Computed(VariableComputed, 2));
  const VariableRef holder = VariableRef::Share(variable.get());
  variable->Make_NULL();
  EXPECT_EQ(variable->refcount(), 2);
  EXPECT_EQ(holder->type(), VariableNULL);
  EXPECT_EQ(holder->IsNULL(), 1);
  EXPECT_EQ(holder->IsTrue(), 0);
  EXPECT_EQ(holder->SetValue_Integer(5), 1);
  EXPECT_EQ(holder->SetValue_Nocopy(new char[2]{'x', 0}, 1, 2), 1);
  EXPECT_EQ(holder->Variable::value().length, 0);
  EXPECT_EQ(holder->Variable::value_integer(), 0);
  EXPECT_EQ(holder->Element(AggregateIndex(1), 1), holder.get());
  EXPECT_EQ(holder->Element(AggregateIndex(1), 0), nullptr);
  const VariableRef target = New();
  holder->Make_Reference(target.get());
  EXPECT_EQ(holder->type(), VariableNULL);
  TestApplication application;
  const VariableRef clone(holder->Clone(&application));
  EXPECT_EQ(clone->type(), VariableNULL);
}

TEST(MakeNULL, DropsElementsAndTheCountsOnATarget) {
  const VariableRef array = New();
  const VariableRef shared = New("s");
  array->SetElement(AggregateIndex(1), shared.get());
  array->Make_NULL();
  EXPECT_EQ(shared->refcount(), 1);
  const VariableRef reference(new ReferenceVariable("r", 1, shared.get()));
  const VariableRef second = VariableRef::Share(reference.get());
  reference->Make_NULL();
  EXPECT_EQ(shared->refcount(), 1);
  EXPECT_EQ(reference->refcount(), 2);
}

// --- Clone ---------------------------------------------------------------------------------------

TEST(Clone, OfAVariableIsADeepCopyWithItsName) {
  TestApplication application;
  const VariableRef source(new Variable("name", 4));
  Set(At(source, 1), "a");
  const VariableRef clone(source->Clone(&application));
  Set(At(source, 1), "changed");
  EXPECT_EQ(Text(clone->name()), "name");
  EXPECT_EQ(Value(clone), "a");
  EXPECT_EQ(clone->refcount(), 1);
}

TEST(Clone, OfAReferenceIsADetachedCopyOfItsTarget) {
  TestApplication application;
  const VariableRef target(new Variable("target", 6, "t", 1));
  const VariableRef reference(new ReferenceVariable("r", 1, target.get()));
  const VariableRef clone(reference->Clone(&application));
  EXPECT_EQ(clone->type(), VariableStored);
  EXPECT_EQ(Text(clone->name()), "target");
  target->SetValue("changed", 7);
  EXPECT_EQ(Value(clone), "t");
  const VariableRef open(new ReferenceVariable("r", 1, nullptr));
  const VariableRef empty(open->Clone(&application));
  EXPECT_EQ(empty->IsNULL(), 1);
}

TEST(Clone, OfAnImmutableVariableHasItsFirstValidForm) {
  TestApplication application;
  struct Case {
    const char* label;
    Variable* source;
    int primary;
    string text;
  };
  const Case cases[] = {
      {"text", new ImmutableVariable("n", 1, "12", 2), PrimaryText, "12"},
      {"double before integer", new ImmutableVariable("n", 1, 2.5), PrimaryDouble, "2.5"},
      {"integer", new ImmutableVariable("n", 1, 7), PrimaryInteger, "7"},
      {"nothing", new ImmutableVariable("n", 1), PrimaryNone, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    const VariableRef source(c.source);
    const VariableRef clone(source->Clone(&application));
    EXPECT_EQ(clone->primary_type(), c.primary);
    EXPECT_EQ(Text(clone->name()), "n");
    clone->SetValue("x", 1);
    EXPECT_EQ(Value(clone), c.text);
  }
}

TEST(Clone, OfANULLVariableIsOne) {
  TestApplication application;
  const VariableRef null(new NULLVariable());
  const VariableRef clone(null->Clone(&application));
  EXPECT_EQ(clone->type(), VariableNULL);
  EXPECT_NE(clone.get(), null.get());
}

// --- ImmutableVariable ---------------------------------------------------------------------------

TEST(ImmutableVariable, IgnoresEveryWrite) {
  const VariableRef variable(new ImmutableVariable("n", 1, "kept", 4));
  const VariableRef other = New("other");
  EXPECT_EQ(variable->SetValue("x", 1), 1);
  EXPECT_EQ(variable->SetValue(*other), 1);
  EXPECT_EQ(variable->SetValue_Nocopy(new char[2]{'x', 0}, 1, 2), 1);
  EXPECT_EQ(variable->SetValue_Integer(1), 1);
  EXPECT_EQ(variable->SetValue_Double(1.0), 1);
  variable->SetNULL();
  variable->SetElement(AggregateIndex(1), other.get());
  variable->InsertElement(1, other.get());
  variable->DeleteElement(AggregateIndex(1), true);
  variable->DeleteElements(1, -1, true);
  variable->MergeElements(other.get(), 1, 1, 1, true);
  variable->CopyElements(other.get(), 1, 1, 1, true);
  variable->Make_Reference(other.get());
  EXPECT_EQ(variable->CollapseElements(), 0);
  EXPECT_EQ(Value(variable), "kept");
  EXPECT_EQ(variable->type(), VariableStored);
  EXPECT_EQ(other->refcount(), 1);
}

TEST(ImmutableVariable, AMissingElementTakesWritesAndShowsNone) {
  const VariableRef variable(new ImmutableVariable("n", 1, "kept", 4));
  Variable* missing = At(variable, 1);
  ASSERT_NE(missing, nullptr);
  EXPECT_EQ(missing->SetValue("x", 1), 1);
  EXPECT_EQ(Value(missing), "");
  EXPECT_EQ(At(variable, 2), missing);
  EXPECT_EQ(variable->Element(AggregateIndex("m", 1), 1), missing);
  EXPECT_EQ(variable->Element(AggregateIndex(1), 0), nullptr);
  EXPECT_EQ(Value(variable), "kept");
}

TEST(ImmutableVariable, PathsWalkWithoutMaking) {
  const VariableRef variable(new ImmutableVariable("n", 1, "kept", 4));
  List<AggregateIndex> path(1);
  EXPECT_EQ(variable->Element(&path, 1), variable.get());
  EXPECT_EQ(variable->Element(static_cast<List<AggregateIndex>*>(nullptr), 0), variable.get());
  path.Insert(new AggregateIndex("a", 1), ListTail);
  path.Insert(new AggregateIndex("b", 1), ListTail);
  EXPECT_EQ(variable->Element(&path, 0), nullptr);
  EXPECT_EQ(variable->Element(&path, 1), At(variable, 1));
}

// A read-only value with elements, like the settings.
class ReadOnlyArray : public ImmutableVariable {
 public:
  ReadOnlyArray() {
    for (int i : {2, 5}) Variable::Element(AggregateIndex(i), 1)->SetValue_Integer(i);
  }
};

TEST(ImmutableVariable, WithElementsFindsThemAndDoesNotRenumber) {
  const VariableRef array(new ReadOnlyArray());
  EXPECT_EQ(array->CollapseElements(), 2);
  EXPECT_EQ(array->Max(), 5);
  EXPECT_EQ(At(array, 5)->value_integer(), 5);
  EXPECT_EQ(array->Element(AggregateIndex("a", 1), 0), nullptr);
  array->DeleteElements(1, -1, true);
  array->SetValue_Integer(1);
  EXPECT_EQ(Value(array), "2,5");
  List<AggregateIndex> path(1);
  path.Insert(new AggregateIndex(2), ListTail);
  EXPECT_EQ(Value(array->Element(&path, 1)), "2");
}

// --- NULLVariable --------------------------------------------------------------------------------

TEST(NULLVariable, ReadsAsNothing) {
  const VariableRef null(new NULLVariable());
  EXPECT_EQ(null->type(), VariableNULL);
  EXPECT_EQ(null->IsNULL(), 1);
  EXPECT_EQ(null->IsTrue(), 0);
  EXPECT_EQ(null->value().data, nullptr);
  EXPECT_EQ(null->value().length, 0);
  EXPECT_EQ(null->value_integer(), 0);
  EXPECT_EQ(null->value_double(), 0.0);
  int not_numeric = 1;
  EXPECT_EQ(null->value_compare(&not_numeric), 0.0);
  EXPECT_EQ(not_numeric, 0);
  EXPECT_EQ(null->CollapseElements(), 0);
}

TEST(NULLVariable, AnyElementOfItIsItself) {
  const VariableRef null(new NULLVariable());
  List<AggregateIndex> path(1);
  path.Insert(new AggregateIndex("a", 1), ListTail);
  EXPECT_EQ(null->Element(AggregateIndex(1), 1), null.get());
  EXPECT_EQ(null->Element(AggregateIndex(1), 0), nullptr);
  EXPECT_EQ(null->Element(&path, 1), null.get());
  EXPECT_EQ(null->Element(&path, 0), nullptr);
  null->SetValue("x", 1);
  EXPECT_EQ(null->IsNULL(), 1);
}

// --- VariableList and VariableRef ----------------------------------------------------------------

TEST(VariableList, HoldsOneCountForEachEntry) {
  const VariableRef variable = New("v");
  {
    VariableList list;
    list.Insert(variable.get(), ListTail);
    list.Insert(variable.get(), ListHead);
    EXPECT_EQ(variable->refcount(), 3);
    list.Purge(list.Remove(ListHead));
    EXPECT_EQ(variable->refcount(), 2);
  }
  EXPECT_EQ(variable->refcount(), 1);
}

TEST(VariableList, AdoptsACountOnRequest) {
  int deletions = 0;
  {
    VariableList list;
    list.Insert(new Witness(&deletions), ListTail, 0);
    Variable* counted = new Witness(&deletions);
    list.Insert(counted, ListTail, 1);
    EXPECT_EQ(counted->refcount(), 2);
    counted->DecRefCount();
    EXPECT_EQ(list.Entries(), 2);
  }
  EXPECT_EQ(deletions, 2);
}

TEST(VariableList, DestroyReleasesEverythingAndDeletesTheList) {
  const VariableRef variable = New("v");
  auto* list = new VariableList();
  list->Insert(variable.get(), ListTail);
  list->Destroy();
  EXPECT_EQ(variable->refcount(), 1);
}

TEST(VariableRef, GivesItsCountBackOnce) {
  int deletions = 0;
  {
    VariableRef first(new Witness(&deletions));
    VariableRef second = VariableRef::Share(first.get());
    EXPECT_EQ(first->refcount(), 2);
    VariableRef third(std::move(second));
    EXPECT_FALSE(second);  // NOLINT(bugprone-use-after-move): that it is empty is the claim
    EXPECT_EQ(first->refcount(), 2);
    first.reset();
    EXPECT_EQ(third->refcount(), 1);
    Variable* released = third.release();
    EXPECT_EQ(deletions, 0);
    third.reset(released);
    EXPECT_EQ(deletions, 0);
  }
  EXPECT_EQ(deletions, 1);
  EXPECT_FALSE(VariableRef::Share(nullptr));
}

}  // namespace
