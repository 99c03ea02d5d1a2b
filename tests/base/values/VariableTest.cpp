#include "base/values/Variable.h"

#include <pthread.h>

#include <climits>
#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "base/values/Aggregate.h"
#include "base/values/VariableKinds.h"
#include "base/values/VariableRef.h"
#include "tests/base/values/VariableHelpers.h"
#include "tests/support/Rounds.h"
#include "tests/support/TestApplication.h"

namespace {

using std::string;
using namespace variable_helpers;

constexpr double Infinity = std::numeric_limits<double>::infinity();
constexpr double NaN = std::numeric_limits<double>::quiet_NaN();

// --- Fresh variables and constructors ------------------------------------------------------------

TEST(Variable, AFreshOneIsNULL) {
  VariableRef owner(new Probe());
  auto* probe = static_cast<Probe*>(owner.get());
  EXPECT_EQ(probe->IsNULL(), 1);
  EXPECT_EQ(probe->IsTrue(), 0);
  EXPECT_EQ(probe->value_integer(), 0);
  int not_numeric = 7;
  EXPECT_EQ(probe->value_compare(&not_numeric), 0.0);
  EXPECT_EQ(not_numeric, 0);
  EXPECT_EQ(probe->primary_type(), PrimaryNone);
  EXPECT_EQ(probe->preferred_type(), PrimaryText);
  EXPECT_EQ(probe->type(), VariableStored);
  EXPECT_EQ(probe->TypeReferredTo(), VariableStored);
  EXPECT_EQ(probe->aggregatetype(), AggregateNone);
  EXPECT_EQ(probe->aggregateelements(), nullptr);
  EXPECT_EQ(probe->refcount(), 1);
  EXPECT_EQ(probe->NextIdentity(), probe);
  EXPECT_EQ(probe->RealIdentity(), probe);
}

TEST(Variable, ReadingAFreshOneAsTextCachesTheEmptyText) {
  VariableRef owner(new Probe());
  auto* probe = static_cast<Probe*>(owner.get());
  EXPECT_EQ(Value(probe), "");
  EXPECT_EQ(probe->valid_forms(), Variable::TextForm);
  EXPECT_EQ(probe->primary_type(), PrimaryNone);
}

TEST(Variable, ConstructorsSetFormsAndPrimary) {
  char* buffer = new char[4]{'a', 'b', 'c', 0};
  struct Case {
    const char* label;
    Probe* probe;
    unsigned forms;
    int primary;
    string text;
  };
  const Case cases[] = {
      {"named", new Probe("n", 1), 0, 0, ""},
      {"text", new Probe("n", 1, "12", 2), 1, 1, "12"},
      {"strings", new Probe(String("n"), String("x")), 1, 1, "x"},
      {"buffer", new Probe("n", 1, buffer, 3, 4), 1, 1, "abc"},
      {"integer", new Probe("n", 1, 7), 2, 2, "7"},
      {"double", new Probe("n", 1, 1.5), 6, 3, "1.5"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    const VariableRef owner(c.probe);
    EXPECT_EQ(c.probe->valid_forms(), c.forms);
    EXPECT_EQ(c.probe->primary_type(), c.primary);
    EXPECT_EQ(Text(c.probe->name()), "n");
    EXPECT_EQ(Value(c.probe), c.text);
  }
}

TEST(Variable, TheBufferConstructorKeepsTheBuffer) {
  char* buffer = new char[10]{'a', 'b', 'c', 0};
  const VariableRef variable(new Variable("n", 1, buffer, 3, 10));
  EXPECT_EQ(variable->value().data, buffer);
}

TEST(Variable, AnIntegerHasTheDoubleStoredButNotMarked) {
  VariableRef owner(new Probe("n", 1, 7));
  auto* probe = static_cast<Probe*>(owner.get());
  EXPECT_EQ(probe->double_value, 7.0);
  EXPECT_EQ(probe->valid_forms() & Variable::DoubleForm, 0u);
  EXPECT_EQ(probe->value_double(), 7.0);
  EXPECT_NE(probe->valid_forms() & Variable::DoubleForm, 0u);
}

TEST(Variable, ADoubleOutOfRangeHasTheOneIntegerForWhatDoesNotFit) {
  for (double value : {3e9, -3e9, Infinity, NaN}) {
    SCOPED_TRACE(value);
    const VariableRef constructed(new Variable("n", 1, value));
    EXPECT_EQ(constructed->value_integer(), INT_MIN);
    const VariableRef stored = New();
    stored->SetValue_Double(value);
    EXPECT_EQ(stored->value_integer(), INT_MIN);
  }
}

TEST(Variable, SetNameIgnoresANullString) {
  const VariableRef variable(new Variable("old", 3));
  variable->SetName(String());
  EXPECT_EQ(Text(variable->name()), "old");
  variable->SetName(String("new"));
  EXPECT_EQ(Text(variable->name()), "new");
  variable->SetName(String(""));
  EXPECT_EQ(Text(variable->name()), "");
}

// --- Reading and writing -------------------------------------------------------------------------

TEST(Variable, StoresClearTheOtherForms) {
  VariableRef owner(new Probe());
  auto* probe = static_cast<Probe*>(owner.get());
  EXPECT_EQ(probe->SetValue_Integer(5), 1);
  EXPECT_EQ(probe->valid_forms(), Variable::IntegerForm);
  EXPECT_EQ(Value(probe), "5");
  EXPECT_EQ(probe->valid_forms(),
            static_cast<unsigned>(Variable::IntegerForm | Variable::TextForm));
  EXPECT_EQ(probe->SetValue("7", 1), 1);
  EXPECT_EQ(probe->valid_forms(), Variable::TextForm);
  EXPECT_EQ(probe->value_integer(), 7);
  EXPECT_EQ(probe->SetValue_Double(2.5), 1);
  EXPECT_EQ(probe->valid_forms(), Variable::DoubleForm);
  EXPECT_EQ(probe->value_integer(), 2);
  EXPECT_EQ(Value(probe), "2.5");
  EXPECT_EQ(probe->valid_forms(), 7u);
  EXPECT_EQ(probe->primary_type(), PrimaryDouble);
}

TEST(Variable, SetValueNocopyTakesTheBufferOver) {
  const VariableRef variable = New();
  char* buffer = new char[30]{'a', 'b', 0};
  EXPECT_EQ(variable->SetValue_Nocopy(buffer, 2, 30), 1);
  EXPECT_EQ(variable->value().data, buffer);
  EXPECT_EQ(variable->value().length, 2);
  EXPECT_EQ(variable->primary_type(), PrimaryText);
  variable->SetValue_Nocopy(nullptr, 0, 0);
  EXPECT_EQ(Value(variable), "");
}

TEST(Variable, SetValueMeasuresTheTextAndTakesNullAsEmpty) {
  const VariableRef variable = New();
  variable->SetValue("abc", -1);
  EXPECT_EQ(Value(variable), "abc");
  variable->SetValue(nullptr, 0);
  EXPECT_EQ(Value(variable), "");
  EXPECT_EQ(variable->IsNULL(), 1);
}

TEST(Variable, SetNULLGoesBackToTheNULLScalar) {
  const VariableRef variable = New("abc");
  variable->value_integer();
  variable->SetNULL();
  EXPECT_EQ(variable->IsNULL(), 1);
  EXPECT_EQ(variable->primary_type(), PrimaryNone);
  EXPECT_EQ(Value(variable), "");
  Set(At(variable, 1), "x");
  variable->SetNULL();
  EXPECT_EQ(variable->aggregatetype(), AggregateNone);
  EXPECT_EQ(variable->IsNULL(), 1);
}

TEST(Variable, TextIsReadAsNumbers) {
  struct Case {
    const char* text;
    int integer;
    double number;
  };
  const Case cases[] = {
      {"12", 12, 12.0},      {"-12", -12, -12.0},   {"1.9", 1, 1.9}, {"-1.9", -1, -1.9},
      {"0x10", 16, 16.0},    {"abc", 0, 0.0},       {"", 0, 0.0},    {"12abc", 0, 0.0},
      {"1e3", 1000, 1000.0}, {"3e9", INT_MIN, 3e9}, {" 5", 5, 5.0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(New(c.text)->value_integer(), c.integer);
    EXPECT_EQ(New(c.text)->value_double(), c.number);
  }
}

// The integer form of text wraps at 32 bits while its double form does not.
TEST(Variable, ADoubleComesFromTheTextEvenWhenAnIntegerIsCached) {
  const VariableRef variable = New("4294967297");
  EXPECT_EQ(variable->value_integer(), 1);
  EXPECT_EQ(variable->value_double(), 4294967297.0);
}

TEST(Variable, AnIntegerComesFromTheDoubleEvenWhenTextIsCached) {
  const VariableRef variable = New("4294967297");
  EXPECT_EQ(variable->value_double(), 4294967297.0);
  EXPECT_EQ(variable->value_integer(), INT_MIN);
}

TEST(Variable, TextPrefersTheDoubleToTheInteger) {
  const VariableRef variable(new Variable("n", 1, 2.75));
  EXPECT_EQ(variable->value_integer(), 2);
  EXPECT_EQ(Value(variable), "2.75");
}

TEST(Variable, TheTextOfAnIntegerIsJustLargeEnough) {
  const VariableRef v = New();
  for (const int number : {12345, 7, -2147483647 - 1, 0, 100, -1, 99999}) {
    SCOPED_TRACE(number);
    v->SetValue_Integer(number);
    const string expected = std::to_string(number);
    EXPECT_EQ(Value(v), expected);
    EXPECT_STREQ(v->value().data, expected.c_str());
    EXPECT_EQ(v->value().allocated, static_cast<int>(expected.size()) + 1);
  }
}

TEST(Variable, ValueCompareTellsNumbersFromText) {
  struct Case {
    const char* text;
    double number;
    int not_numeric;
  };
  const Case cases[] = {
      {"12abc", 0.0, 1}, {"12", 12.0, 0}, {"", 0.0, 0}, {"1e1", 10.0, 0}, {"x", 0.0, 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    const VariableRef variable = New(c.text);
    int not_numeric = 9;
    EXPECT_EQ(variable->value_compare(&not_numeric), c.number);
    EXPECT_EQ(not_numeric, c.not_numeric);
  }
  const VariableRef number(new Variable("n", 1, 12));
  int not_numeric = 9;
  EXPECT_EQ(number->value_compare(&not_numeric), 12.0);
  EXPECT_EQ(not_numeric, 0);
  const VariableRef aggregate = New();
  At(aggregate, 1);
  EXPECT_EQ(aggregate->value_compare(&not_numeric), 0.0);
  EXPECT_EQ(not_numeric, 1);
}

TEST(Variable, ValueCompareCachesTheDoubleOfANumberOnly) {
  VariableRef owner(new Probe("n", 1, "12", 2));
  auto* probe = static_cast<Probe*>(owner.get());
  int not_numeric;
  probe->value_compare(&not_numeric);
  EXPECT_EQ(probe->valid_forms(), static_cast<unsigned>(Variable::TextForm | Variable::DoubleForm));
  probe->SetValue("12abc", 5);
  probe->value_compare(&not_numeric);
  EXPECT_EQ(probe->valid_forms(), Variable::TextForm);
  probe->SetValue_Integer(3);
  EXPECT_EQ(probe->value_compare(&not_numeric), 3.0);
  EXPECT_EQ(probe->valid_forms(),
            static_cast<unsigned>(Variable::IntegerForm | Variable::DoubleForm));
  probe->SetValue_Double(2.5);
  EXPECT_EQ(probe->value_compare(&not_numeric), 2.5);
}

TEST(Variable, TruthOfTexts) {
  const std::pair<string, int> cases[] = {
      {"", 0},   {"0", 0},   {"00", 0},    {"0.00", 0}, {".", 0},   {"0.", 0},
      {".0", 0}, {"0.5", 1}, {"0.0.0", 1}, {" ", 1},    {"0e0", 1}, {"false", 1},
      {"-0", 1}, {"..", 1},  {"0.0.", 1},  {"1", 1},    {"x", 1},   {string("\0", 1), 1},
  };
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text);
    EXPECT_EQ(Variable::IsTrue(text.data(), static_cast<int>(text.size())), expected);
    EXPECT_EQ(New(text)->IsTrue(), expected);
  }
  EXPECT_EQ(Variable::IsTrue(nullptr, 0), 0);
  EXPECT_EQ(Variable::IsTrue("1", -1), 0);
}

TEST(Variable, TruthOfNumbers) {
  const std::pair<double, int> cases[] = {{0.0, 0}, {-0.0, 0}, {0.1, 1}, {NaN, 1}, {Infinity, 1}};
  for (const auto& [number, expected] : cases) {
    SCOPED_TRACE(number);
    const VariableRef variable = New();
    variable->SetValue_Double(number);
    EXPECT_EQ(variable->IsTrue(), expected);
  }
  const VariableRef integer = New();
  integer->SetValue_Integer(0);
  EXPECT_EQ(integer->IsTrue(), 0);
  integer->SetValue_Integer(-1);
  EXPECT_EQ(integer->IsTrue(), 1);
}

TEST(Variable, TruthOfAnAggregateIsThatOfItsTextAtEachCall) {
  const VariableRef variable = New();
  Variable* element = At(variable, 1);
  EXPECT_EQ(variable->IsTrue(), 0);
  Set(element, "x");
  EXPECT_EQ(variable->IsTrue(), 1);
  Set(element, "0");
  EXPECT_EQ(variable->IsTrue(), 0);
  Set(At(variable, 2), "0");
  EXPECT_EQ(variable->IsTrue(), 1);  // "0,0"
}

TEST(Variable, OnlyEmptyTextAndNothingAreNULL) {
  EXPECT_EQ(New("")->IsNULL(), 1);
  EXPECT_EQ(New("0")->IsNULL(), 0);
  const VariableRef integer(new Variable("n", 1, 0));
  EXPECT_EQ(integer->IsNULL(), 0);
  const VariableRef aggregate = New();
  aggregate->Convert_Aggregate(AggregateArray);
  EXPECT_EQ(aggregate->IsNULL(), 0);
}

TEST(Variable, AStoreEndsAnAggregate) {
  using Store = void (*)(Variable*);
  const std::pair<Store, const char*> stores[] = {
      {[](Variable* v) { v->SetValue("a", 1); }, "a"},
      {[](Variable* v) {
         v->SetValue_Nocopy(new char[2]{'b', 0}, 1, 2);
       },
       "b"},
      {[](Variable* v) { v->SetValue_Integer(3); }, "3"},
      {[](Variable* v) { v->SetValue_Double(0.5); }, "0.5"},
  };
  for (const auto& [store, expected] : stores) {
    SCOPED_TRACE(expected);
    const VariableRef variable = New();
    Set(At(variable, 1), "old");
    store(variable.get());
    EXPECT_EQ(variable->aggregatetype(), AggregateNone);
    EXPECT_EQ(variable->aggregateelements(), nullptr);
    EXPECT_EQ(Value(variable), expected);
  }
}

TEST(Variable, NumbersOfAnAggregateAreZero) {
  const VariableRef variable = New("12");
  Set(At(variable, 1), "5");
  EXPECT_EQ(variable->value_integer(), 0);
  EXPECT_EQ(variable->value_double(), 0.0);
  EXPECT_EQ(variable->primary_type(), PrimaryNone);
}

// --- Copies --------------------------------------------------------------------------------------

TEST(Variable, CopyKeepsNameFormsAndPrimary) {
  VariableRef source(new Variable("name", 4, "12", 2));
  source->value_double();
  const VariableRef owner(new Probe(static_cast<const Variable&>(*source)));
  auto* copy = static_cast<Probe*>(owner.get());
  EXPECT_EQ(Text(copy->name()), "name");
  EXPECT_EQ(copy->valid_forms(), static_cast<unsigned>(Variable::TextForm | Variable::DoubleForm));
  EXPECT_EQ(copy->primary_type(), PrimaryText);
  EXPECT_EQ(copy->value_integer(), 12);
}

TEST(Variable, ANULLSourceArrivesAsEmptyTextWithoutPrimary) {
  const VariableRef source = New();
  VariableRef assigned(new Probe("n", 1, "old", 3));
  assigned->SetValue(*source);
  const VariableRef constructed(new Probe(static_cast<const Variable&>(*New())));
  for (Variable* variable : {assigned.get(), constructed.get()}) {
    auto* probe = static_cast<Probe*>(variable);
    EXPECT_EQ(probe->valid_forms(), Variable::TextForm);
    EXPECT_EQ(probe->primary_type(), PrimaryNone);
    EXPECT_EQ(Value(probe), "");
  }
}

TEST(Variable, ANULLVariableAsSourceGivesPlainNULL) {
  const VariableRef null(new NULLVariable());
  VariableRef target(new Probe("n", 1, "old", 3));
  EXPECT_EQ(target->SetValue(*null), 1);
  EXPECT_EQ(static_cast<Probe*>(target.get())->valid_forms(), 0u);
  EXPECT_EQ(target->IsNULL(), 1);
}

TEST(Variable, AssigningItselfChangesNothing) {
  const VariableRef variable = New("abc");
  EXPECT_EQ(variable->SetValue(*variable), 1);
  EXPECT_EQ(Value(variable), "abc");
  Set(At(variable, 2), "x");
  variable->SetValue(*variable);
  EXPECT_EQ(Value(variable), "x");
  EXPECT_EQ(variable->Max(), 2);
}

TEST(Variable, AssigningAnElementToItsAggregateLeavesTheElementsValue) {
  const VariableRef variable = New();
  Set(At(variable, 1), "first");
  Set(At(variable, 2)->Element(AggregateIndex("inner", 5), 1), "second");
  variable->SetValue(*At(variable, 2));
  EXPECT_EQ(variable->aggregatetype(), AggregateStructure);
  EXPECT_EQ(Value(variable), "second");
  variable->SetValue(*variable->Element(AggregateIndex("inner", 5), 0));
  EXPECT_EQ(variable->aggregatetype(), AggregateNone);
  EXPECT_EQ(Value(variable), "second");
}

TEST(Variable, StoringATextThatIsInAnElementIsSafe) {
  const VariableRef variable = New();
  Set(At(variable, 1), "a text longer than the first buffer of a string");
  const String& text = At(variable, 1)->value();
  variable->SetValue(text.data, text.length);
  EXPECT_EQ(Value(variable), "a text longer than the first buffer of a string");
}

TEST(Variable, CopyingAnAggregateIsDeep) {
  const VariableRef source = New();
  Set(At(source, 1), "one");
  Set(At(source, 2)->Element(AggregateIndex("m", 1), 1), "two");
  const VariableRef copy = New("scalar");
  copy->SetValue(*source);
  EXPECT_EQ(Value(copy), "one,two");
  Set(At(source, 1), "changed");
  Set(At(source, 2)->Element(AggregateIndex("m", 1), 1), "changed");
  EXPECT_EQ(Value(copy), "one,two");
  EXPECT_EQ(At(copy, 2)->aggregatetype(), AggregateStructure);
}

TEST(Variable, CopyingALargeAggregateKeepsEveryElement) {
  for (int count : {99, 100, 5000}) {
    SCOPED_TRACE(count);
    const VariableRef source = New();
    for (int i = 1; i <= count; i++) At(source, i * 7 % 10007)->SetValue_Integer(i);
    const VariableRef copy = New();
    copy->SetValue(*source);
    EXPECT_EQ(copy->ElementsUsed(), count);
    for (int i = 1; i <= count; i++) {
      Variable* element = copy->Element(AggregateIndex(i * 7 % 10007), 0);
      ASSERT_NE(element, nullptr);
      ASSERT_EQ(element->value_integer(), i);
    }
  }
}

TEST(Variable, ACopyOfWhatContainsItselfIsEmptyThere) {
  TestApplication application;
  const VariableRef source = New();
  Set(At(source, 1), "a");
  At(source, 2)->Make_Reference(source.get());
  Set(At(source, 3)->Element(AggregateIndex("m", 1), 1), "deep");
  source->Element(AggregateIndex(3), 0)
      ->Element(AggregateIndex("up", 2), 1)
      ->Make_Reference(source.get());
  const VariableRef assigned = New("old");
  assigned->SetValue(*source);
  const VariableRef constructed(new Variable(*source));
  const VariableRef clone(source->Clone(&application));
  source->SetNULL();
  for (const VariableRef* copy : {&assigned, &constructed, &clone}) {
    EXPECT_EQ((*copy)->ElementsUsed(), 3);
    EXPECT_EQ(Value(At(*copy, 1)), "a");
    Variable* inner = At(*copy, 3);
    EXPECT_EQ(inner->ElementsUsed(), 2);
    EXPECT_EQ(Value(inner->Element(AggregateIndex("m", 1), 0)), "deep");
    for (Variable* self : {At(*copy, 2), inner->Element(AggregateIndex("up", 2), 0)}) {
      ASSERT_NE(self, nullptr);
      EXPECT_EQ(self->ElementsUsed(), 0);
      EXPECT_EQ(Value(self), "");
      EXPECT_EQ(self->RealIdentity(), self);
    }
  }
}

TEST(Variable, ComputedSourcesAreReadByTheirType) {
  struct Case {
    int type;
    int preferred;
    unsigned forms;
    int primary;
    string text;
  };
  const Case cases[] = {
      {VariableComputedInteger, 1, 2, 2, "42"}, {VariableComputedText, 1, 1, 1, "computed"},
      {VariableComputed, 1, 1, 1, "computed"},  {VariableComputed, 2, 2, 2, "42"},
      {VariableComputed, 3, 4, 3, "2.5"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.type << " preferring " << c.preferred);
    const VariableRef source(new Computed(c.type, c.preferred));
    VariableRef owner(new Probe("n", 1, "old", 3));
    owner->SetValue(*source);
    auto* probe = static_cast<Probe*>(owner.get());
    EXPECT_EQ(probe->valid_forms(), c.forms);
    EXPECT_EQ(probe->primary_type(), c.primary);
    EXPECT_EQ(Value(probe), c.text);
  }
}

TEST(Variable, AComputedSourceWithAStoredFormGivesThatForm) {
  VariableRef source(new Computed(VariableComputed, 3));
  source->Variable::SetValue_Integer(9);
  VariableRef target = New();
  target->SetValue(*source);
  EXPECT_EQ(target->value_integer(), 9);
  EXPECT_EQ(target->primary_type(), PrimaryInteger);
  // Without a primary form the preferred one is added.
  static_cast<Computed*>(source.get())->primary = PrimaryNone;
  target = New();
  target->SetValue(*source);
  EXPECT_EQ(target->primary_type(), PrimaryDouble);
  EXPECT_EQ(target->value_double(), 2.5);
}

TEST(Variable, ASourceWithoutABufferLeavesTheOldBytes) {
  VariableRef source(new Computed(VariableComputedText, 1));
  static_cast<Computed*>(source.get())->without_buffer = true;
  const VariableRef target = New("old");
  target->SetValue(*source);
  EXPECT_EQ(Value(target), "old");
  EXPECT_EQ(target->primary_type(), PrimaryText);
}

// --- Serialize -----------------------------------------------------------------------------------

VariableRef Array(const std::vector<string>& values) {
  VariableRef array = New();
  array->Convert_Aggregate(AggregateArray);
  int position = 0;
  for (const string& value : values) Set(At(array, ++position), value);
  return array;
}

TEST(VariableSerialize, CommasDependOnTheTextSoFar) {
  EXPECT_EQ(Value(Array({"a", "", "b"})), "a,,b");
  EXPECT_EQ(Value(Array({"", "b"})), "b");
  EXPECT_EQ(Value(Array({"", "", ""})), "");
  EXPECT_EQ(Value(Array({"a", ""})), "a,");
  EXPECT_EQ(Value(Array({})), "");
}

TEST(VariableSerialize, AppendsToWhatIsThere) {
  String out("x");
  Array({"a", "b"})->Serialize(out);
  EXPECT_EQ(Text(out), "x,a,b");
  New("c")->Serialize(out);
  EXPECT_EQ(Text(out), "x,a,b,c");
  Array({})->Serialize(out);
  EXPECT_EQ(Text(out), "x,a,b,c");
}

TEST(VariableSerialize, NestedAggregatesFlattenInTheOrderOfTheirKeys) {
  const VariableRef variable = New();
  Set(variable->Element(AggregateIndex("b", 1), 1), "2");
  Set(variable->Element(AggregateIndex("A", 1), 1)->Element(AggregateIndex(9), 1), "1b");
  Set(variable->Element(AggregateIndex("a", 1), 1)->Element(AggregateIndex(3), 1), "1a");
  Set(variable->Element(AggregateIndex("cc", 2), 1), "3");
  EXPECT_EQ(Value(variable), "1a,1b,2,3");
}

TEST(VariableSerialize, LargeArraysComeInOrder) {
  for (int count : {99, 100, 3000}) {
    SCOPED_TRACE(count);
    const VariableRef array = New();
    string expected;
    for (int i = count; i >= 1; i--) At(array, i)->SetValue_Integer(i);
    for (int i = 1; i <= count; i++) expected += (i > 1 ? "," : "") + std::to_string(i);
    EXPECT_EQ(Value(array), expected);
  }
}

TEST(VariableSerialize, AReferredArrayShowsAsItsOwnText) {
  const VariableRef inner = Array({"", "b"});
  const VariableRef outer = Array({"a"});
  At(outer, 2)->Make_Reference(inner.get());
  EXPECT_EQ(Value(outer), "a,b");
  // If the array is an element itself, its empty first element is kept.
  outer->SetElement(AggregateIndex(2), inner.get());
  EXPECT_EQ(Value(outer), "a,,b");
}

TEST(VariableSerialize, AReferenceInAReferredArrayIsFollowed) {
  const VariableRef innermost = Array({"x", "y"});
  const VariableRef inner = Array({"1"});
  At(inner, 2)->Make_Reference(innermost.get());
  const VariableRef outer = Array({"a"});
  At(outer, 2)->Make_Reference(inner.get());
  Set(At(outer, 3), "z");
  EXPECT_EQ(Value(outer), "a,1,x,y,z");
}

TEST(VariableSerialize, WhatContainsItselfIsEmptyWithinItself) {
  const VariableRef array = Array({"a", "", "b"});
  At(array, 2)->Make_Reference(array.get());
  EXPECT_EQ(Value(array), "a,,b");
  array->SetElement(AggregateIndex(2), array.get());
  EXPECT_EQ(Value(array), "a,b");
  array->SetNULL();
}

TEST(VariableSerialize, ReadTwiceGivesTheSame) {
  const VariableRef array = Array({"a", "b"});
  EXPECT_EQ(Value(array), "a,b");
  EXPECT_EQ(Value(array), "a,b");
  Set(At(array, 1), "c");
  EXPECT_EQ(Value(array), "c,b");
}

// --- Depth ---------------------------------------------------------------------------------------

constexpr int Deep = 200000;

VariableRef DeepValue() {
  VariableRef root = New();
  Variable* innermost = root.get();
  for (int i = 0; i < Deep; i++) innermost = innermost->Element(AggregateIndex("m", 1), 1);
  Set(innermost, "bottom");
  return root;
}

TEST(VariableDepth, DeepMembersAreReadCopiedClonedAndDeleted) {
  const VariableRef root = DeepValue();
  EXPECT_EQ(Value(root), "bottom");
  VariableRef copy(new Variable(*root));
  EXPECT_EQ(Value(copy), "bottom");
  TestApplication application;
  VariableRef clone(copy->Clone(&application));
  copy.reset();
  EXPECT_EQ(Value(clone), "bottom");
  clone->SetValue("x", 1);
}

TEST(VariableDepth, AChainOfArraysThatReferToTheNextIsReadAndDeleted) {
  VariableRef next = New("bottom");
  for (int i = 0; i < Deep; i++) {
    VariableRef array = New();
    At(array, 1)->Make_Reference(next.get());
    next = std::move(array);
  }
  EXPECT_EQ(Value(next), "bottom");
  const VariableRef copy(new Variable(*next));
  EXPECT_EQ(Value(copy), "bottom");
}

// A count on a reference is a count on each variable of its chain, so a long one takes too long to
// build: the chain is short, and so is the stack.
void* FollowAChain(void*) {
  VariableRef next = New("end");
  for (int i = 0; i < 6000; i++) {
    VariableRef reference(new ReferenceVariable("r", 1, next.get()));
    next = std::move(reference);
  }
  EXPECT_EQ(Value(next), "end");
  next->SetValue("new", 3);
  EXPECT_EQ(next->IsTrue(), 1);
  EXPECT_EQ(next->RealIdentity()->refcount(), 1);
  return nullptr;
}

TEST(VariableDepth, AChainOfReferencesIsFollowedAndReleased) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, 128 * 1024);
  pthread_t thread;
  ASSERT_EQ(pthread_create(&thread, &attributes, FollowAChain, nullptr), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
}

// --- A plain model of the text of a value --------------------------------------------------------

// A value in its simplest form: a text, elements in the order of their keys, or a reference.
struct PlainValue {
  enum { IsText, IsAggregate, IsReference } kind = IsText;
  string text;
  std::vector<PlainValue> elements;
  PlainValue* target = nullptr;

  // Appends the text, with the allocated size that the buffer must report.
  void Serialize(string* out, int* allocated) const {
    if (kind == IsAggregate) {
      for (const PlainValue& element : elements) element.Serialize(out, allocated);
      return;
    }
    if (!out->empty()) {
      if (static_cast<int>(out->size()) + 2 >= *allocated) *allocated = (*allocated / 24 + 1) * 24;
      *out += ',';
    }
    const string added = kind == IsText ? text : target->Value();
    const int total = static_cast<int>(out->size() + added.size());
    if (total >= *allocated) *allocated = (total / 24 + 1) * 24;
    *out += added;
  }
  string Value(int* allocated = nullptr) const {
    if (kind == IsText) return text;
    if (kind == IsReference) return target->Value();
    string out;
    int size = 24;
    Serialize(&out, &size);
    if (allocated) *allocated = size;
    return out;
  }
};

// Makes a value and its model. It refers only to values that were made before it.
class ValueMaker {
 public:
  explicit ValueMaker(unsigned seed) : random(seed) {}

  void Make(Variable* variable, PlainValue* model, int depth) {
    const unsigned kind = random() % 8;
    if (depth > 0 && kind < 3) {
      MakeAggregate(variable, model, depth);
    } else if (kind == 3 && !targets.empty()) {
      const size_t which = random() % targets.size();
      model->kind = PlainValue::IsReference;
      model->target = models[which].get();
      variable->Make_Reference(targets[which].get());
    } else if (kind == 4) {
      const int number = static_cast<int>(random() % 1000) - 500;
      variable->SetValue_Integer(number);
      model->text = std::to_string(number);
    } else if (kind == 5) {
      variable->SetValue_Double(static_cast<double>(random() % 1000) + 0.5);
      model->text = std::to_string(static_cast<int>(variable->value_double())) + ".5";
    } else if (kind != 6) {
      model->text =
          string(random() % 4 == 0 ? 0 : random() % 30, static_cast<char>('a' + random() % 26));
      Set(variable, model->text);
    }
  }
  // Keeps a value that others can refer to.
  void AddTarget() {
    VariableRef target = New();
    auto model = std::make_unique<PlainValue>();
    Make(target.get(), model.get(), 2);
    targets.push_back(std::move(target));
    models.push_back(std::move(model));
  }

 private:
  void MakeAggregate(Variable* variable, PlainValue* model, int depth) {
    model->kind = PlainValue::IsAggregate;
    const bool array = random() % 2;
    variable->Convert_Aggregate(array ? AggregateArray : AggregateStructure);
    // Sometimes near the number of elements from which trees are walked in another way.
    size_t count = random() % 6;
    if (depth == 3 && random() % 4 == 0) count = 97 + random() % 6;
    model->elements.resize(count);
    const unsigned step = random() % 2 + 1;
    for (size_t i = 0; i < count; i++) {
      char name[16];
      snprintf(name, sizeof name, i % 2 ? "M%03zu" : "m%03zu", i);
      Variable* element =
          array ? variable->Element(AggregateIndex(static_cast<int>((i + 1) * step)), 1)
                : variable->Element(AggregateIndex(name, 4), 1);
      Make(element, &model->elements[i], depth - 1);
    }
  }

  std::mt19937 random;
  std::vector<VariableRef> targets;
  std::vector<std::unique_ptr<PlainValue>> models;
};

TEST(VariableSerialize, EqualsAPlainModelForRandomValues) {
  for (unsigned seed = 1; seed <= Rounds(3000u); seed++) {
    SCOPED_TRACE(seed);
    ValueMaker maker(seed);
    for (unsigned i = 0; i < seed % 4; i++) maker.AddTarget();
    PlainValue model;
    const VariableRef variable = New();
    maker.Make(variable.get(), &model, 3);
    for (int reading = 0; reading < 2; reading++) {
      int allocated = 24;
      const string expected = model.Value(&allocated);
      ASSERT_EQ(Value(variable), expected);
      // An existing buffer is reused, and never becomes smaller.
      if (model.kind == PlainValue::IsAggregate && reading == 0) {
        ASSERT_EQ(variable->value().allocated, allocated);
      }
    }
    // A copy has the same text; references in it are resolved.
    const VariableRef copy(new Variable(*variable));
    string out = "before";
    String copied("before", 6);
    int ignored = 24;
    model.Serialize(&out, &ignored);
    variable->Serialize(copied);
    ASSERT_EQ(Text(copied), out);
  }
}

}  // namespace
