// Compares the short ways of base/values/Variable.h with the virtual operations.

#include <functional>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/core/CopyText.h"
#include "base/values/Aggregate.h"
#include "base/values/DeferredText.h"
#include "base/values/Variable.h"
#include "base/values/VariableKinds.h"
#include "base/values/VariableRef.h"

namespace {

using std::string;

// A stored value, with the fields that show what a read has cached.
class Probe : public Variable {
 public:
  using Variable::double_value;
  using Variable::integer_value;
  using Variable::primary;
  using Variable::valid_forms;
};

class Doubled : public Variable {
 public:
  int value_integer() override { return 42; }
  double value_double() override { return 4.5; }
  double value_compare(int* not_numeric) override {
    *not_numeric = 0;
    return 5.5;
  }
  int IsTrue() override { return 7; }
  int SetValue_Integer(int) override { return 0; }
  int SetValue_Double(double) override { return 0; }
};

struct State {
  const char* label;
  std::function<void(Variable*)> set;
};

const std::vector<State>& States() {
  static const std::vector<State> states = {
      {"fresh", [](Variable*) {}},
      {"integer", [](Variable* v) { v->SetValue_Integer(7); }},
      {"integer 0", [](Variable* v) { v->SetValue_Integer(0); }},
      {"double", [](Variable* v) { v->SetValue_Double(2.75); }},
      {"double 0", [](Variable* v) { v->SetValue_Double(-0.0); }},
      {"NaN", [](Variable* v) { v->SetValue_Double(std::numeric_limits<double>::quiet_NaN()); }},
      {"large double", [](Variable* v) { v->SetValue_Double(1e300); }},
      {"number as text", [](Variable* v) { v->SetValue("12.5", 4); }},
      {"text", [](Variable* v) { v->SetValue("12abc", 5); }},
      {"empty text", [](Variable* v) { v->SetValue("", 0); }},
      {"integer read as text",
       [](Variable* v) {
         v->SetValue_Integer(9);
         v->value();
       }},
      {"text read as integer",
       [](Variable* v) {
         v->SetValue("9.5", 3);
         v->value_integer();
       }},
      {"text read as double",
       [](Variable* v) {
         v->SetValue("9.5", 3);
         v->value_double();
       }},
      {"array", [](Variable* v) { v->Element(AggregateIndex(1), 1)->SetValue_Integer(3); }},
      {"structure", [](Variable* v) { v->Element(AggregateIndex("a", 1), 1)->SetValue("1", 1); }},
      {"gone", [](Variable* v) { v->Make_NULL(); }},
  };
  return states;
}

// Runs both ways on two variables in the same state; results and final states must agree.
void Agree(const char* what, const std::function<string(Variable*)>& by_virtual,
           const std::function<string(Variable*)>& by_short_way) {
  for (const State& state : States()) {
    SCOPED_TRACE(testing::Message() << what << " of " << state.label);
    const VariableRef a(new Variable());
    const VariableRef b(new Variable());
    state.set(a.get());
    state.set(b.get());
    EXPECT_EQ(by_short_way(b.get()), by_virtual(a.get()));
    auto* left = static_cast<Probe*>(a.get());
    auto* right = static_cast<Probe*>(b.get());
    EXPECT_EQ(right->valid_forms(), left->valid_forms());
    EXPECT_EQ(right->primary, left->primary);
    EXPECT_EQ(right->integer_value, left->integer_value);
    EXPECT_EQ(std::to_string(right->double_value), std::to_string(left->double_value));
    EXPECT_EQ(right->aggregatetype(), left->aggregatetype());
    const VariableRef target(new Variable());
    const VariableRef reference(new Variable());
    state.set(target.get());
    reference->Make_Reference(target.get());
    const VariableRef again(new Variable());
    state.set(again.get());
    EXPECT_EQ(by_short_way(reference.get()), by_virtual(again.get())) << "through a reference";
  }
}

string Text(const String& text) {
  return {text.data ? text.data : "", static_cast<size_t>(text.length)};
}

TEST(VariableShortWays, ReadsAnswerAndCacheAsTheVirtualOnesDo) {
  Agree(
      "integer", [](Variable* v) { return std::to_string(v->value_integer()); },
      [](Variable* v) { return std::to_string(v->Read_Integer()); });
  Agree(
      "double", [](Variable* v) { return std::to_string(v->value_double()); },
      [](Variable* v) { return std::to_string(v->Read_Double()); });
  Agree(
      "text", [](Variable* v) { return Text(v->value()); },
      [](Variable* v) { return Text(v->Read_Text()); });
  Agree(
      "truth", [](Variable* v) { return std::to_string(v->IsTrue()); },
      [](Variable* v) { return std::to_string(v->Read_Truth()); });
  const auto compare = [](double number, int flag) {
    return std::to_string(number) + "/" + std::to_string(flag);
  };
  Agree(
      "number to compare by",
      [&](Variable* v) {
        int flag = 5;
        const double number = v->value_compare(&flag);
        return compare(number, flag);
      },
      [&](Variable* v) {
        int flag = 5;
        const double number = v->Read_Compare(&flag);
        return compare(number, flag);
      });
}

TEST(VariableShortWays, StoresLeaveWhatTheVirtualOnesLeave) {
  Agree(
      "integer store",
      [](Variable* v) { return std::to_string(v->SetValue_Integer(5)) + Text(v->value()); },
      [](Variable* v) { return std::to_string(v->Write_Integer(5)) + Text(v->value()); });
  Agree(
      "double store",
      [](Variable* v) { return std::to_string(v->SetValue_Double(5.5)) + Text(v->value()); },
      [](Variable* v) { return std::to_string(v->Write_Double(5.5)) + Text(v->value()); });
}

// A text in line, or that was put together. Only what is done is compared: a variable with elements
// or of a class that is not known yet, or without the room, is refused and stays as it is.
TEST(VariableShortWays, TextsAreStoredAsTheVirtualOnesStoreThem) {
  for (const char* const text : {"", "a", "seven b", "sixteen bytes as", "seventeen of them"}) {
    const auto length = static_cast<int>(strlen(text));
    Agree(
        "text store",
        [&](Variable* v) {
          v->SetValue(text, length);
          return Text(v->value());
        },
        [&](Variable* v) {
          const string before = Text(v->value());
          if (!v->WriteWord(text, length)) {
            EXPECT_EQ(Text(v->value()), before);
            v->SetValue(text, length);
          }
          return Text(v->value());
        });
    for (const bool adopt : {false, true}) {
      Agree(
          "joined text",
          [&](Variable* v) {
            if (adopt) {
              v->SetValue_Nocopy(NewTextCopy(text, length), length, length + 1);
            } else {
              v->SetValue(text, length);
            }
            return Text(v->value()) + std::to_string(v->value().allocated);
          },
          [&](Variable* v) {
            v->WriteJoined(text, length, adopt);
            return Text(v->value()) + std::to_string(v->value().allocated);
          });
    }
  }
}

TEST(VariableShortWays, AWordIsWrittenWhereThereIsRoom) {
  const VariableRef v(new Variable("v", 1, "text", 4));
  EXPECT_FALSE(v->WriteWord("word", 4)) << "the class is not known yet";
  ASSERT_TRUE(v->IsPlain());
  EXPECT_TRUE(v->WriteWord("sixteen bytes as", 16));
  EXPECT_FALSE(v->WriteWord("seventeen of them", 17));
  EXPECT_EQ(Text(v->value()), "sixteen bytes as");
  const VariableRef copy(new Variable("c", 1, "text", 4));
  ASSERT_TRUE(copy->IsPlain());
  EXPECT_TRUE(copy->CopyWord(*v));
  EXPECT_EQ(Text(copy->value()), "sixteen bytes as");
  v->SetValue_Integer(4);
  EXPECT_FALSE(copy->CopyWord(*v));
  v->SetValue_Nocopy(NewTextCopy("abc", 3), 3, 4);
  EXPECT_FALSE(v->WriteWord("abcd", 4)) << "four bytes of room are for three";
  EXPECT_TRUE(v->WriteWord("xyz", 3));
  EXPECT_EQ(Text(v->value()), "xyz");
  v->At(1, 1);
  EXPECT_FALSE(v->WriteWord("a", 1)) << "it has elements";
  EXPECT_TRUE(v->HoldsArray());
}

TEST(VariableShortWays, AValueIsCopiedAsTheVirtualOneDoes) {
  for (const State& state : States()) {
    SCOPED_TRACE(state.label);
    const VariableRef source(new Variable());
    state.set(source.get());
    const VariableRef reference(new ReferenceVariable("r", 1, source.get()));
    const VariableRef stored(new Variable("v", 1, "old", 3));
    const VariableRef written(new Variable("v", 1, "old", 3));
    const VariableRef referred(new Variable("v", 1, "old", 3));
    EXPECT_EQ(stored->SetValue(*source), 1);
    EXPECT_EQ(written->Write_Value(*source), 1);
    EXPECT_EQ(referred->Write_Value(*reference), 1);
    for (const VariableRef* v : {&written, &referred}) {
      EXPECT_EQ((*v)->plain_forms(), stored->plain_forms());
      EXPECT_EQ((*v)->primary_type(), stored->primary_type());
      EXPECT_EQ((*v)->aggregatetype(), stored->aggregatetype());
      EXPECT_EQ((*v)->ElementsUsed(), stored->ElementsUsed());
    }
    const string text = Text(stored->value());
    EXPECT_EQ(Text(written->value()), text);
    EXPECT_EQ(Text(referred->value()), text);
  }
  const VariableRef array(new Variable());
  array->At(1, 1)->SetValue_Integer(4);
  EXPECT_EQ(array->Write_Value(*array->At(1, 0)), 1);
  EXPECT_EQ(array->aggregatetype(), AggregateNone);
  EXPECT_EQ(array->Write_Value(*array), 1);
  EXPECT_EQ(Text(array->value()), "4");
}

TEST(VariableShortWays, DerivedClassesAreAskedThroughTheirOwnOperations) {
  Doubled derived;
  EXPECT_FALSE(derived.IsPlain());
  EXPECT_EQ(derived.plain_forms(), 0u);
  EXPECT_EQ(derived.Read_Integer(), 42);
  EXPECT_EQ(derived.Read_Double(), 4.5);
  int flag = 1;
  EXPECT_EQ(derived.Read_Compare(&flag), 5.5);
  EXPECT_EQ(derived.Read_Truth(), 7);
  EXPECT_EQ(derived.Write_Integer(1), 0);
  EXPECT_EQ(derived.Write_Double(1), 0);
}

TEST(VariableShortWays, OnlyAVariableThatStandsForItselfIsPlain) {
  const VariableRef plain(new Variable());
  EXPECT_TRUE(plain->IsPlain());
  const VariableRef target(new Variable());
  const VariableRef reference(new ReferenceVariable("r", 1, target.get()));
  EXPECT_FALSE(reference->IsPlain());
  EXPECT_FALSE(VariableRef(new ImmutableVariable("i", 1, 3))->IsPlain());
  EXPECT_FALSE(VariableRef(new NULLVariable())->IsPlain());
  plain->Make_Reference(target.get());
  EXPECT_FALSE(plain->IsPlain());
  target->Make_NULL();
  EXPECT_FALSE(target->IsPlain());
}

// The two questions share what the first of them found out about the class.
TEST(VariableShortWays, TheOrderOfTheQuestionsDoesNotMatter) {
  for (const bool plain_first : {true, false}) {
    SCOPED_TRACE(plain_first);
    const auto ask = [plain_first](const Variable& v) {
      string both = "..";
      for (const bool plain : {plain_first, !plain_first, plain_first}) {
        if (plain ? v.IsPlain() : v.IsOrdinary()) both[plain ? 0 : 1] = plain ? 'P' : 'O';
      }
      return both;
    };
    const VariableRef stored(new Variable("v", 1, "text", 4));
    EXPECT_EQ(ask(*stored), "PO");
    const VariableRef derived(new ImmutableVariable("i", 1, 3));
    EXPECT_EQ(ask(*derived), "..");
    EXPECT_EQ(ask(*VariableRef(new Probe())), "..");
    const VariableRef reference(new ReferenceVariable("r", 1, stored.get()));
    EXPECT_EQ(ask(*reference), "..");
    const VariableRef fresh(new Variable());
    fresh->Make_Reference(stored.get());
    EXPECT_EQ(ask(*fresh), "..");
    fresh->Make_NULL();
    EXPECT_EQ(ask(*fresh), "..");
    derived->Make_NULL();
    EXPECT_EQ(ask(*derived), "..");
    EXPECT_EQ(ask(*stored), "PO");
  }
}

TEST(VariableShortWays, AWatchedTextIsOrdinaryAndNotPlain) {
  for (const bool plain_first : {true, false}) {
    SCOPED_TRACE(plain_first);
    const string long_text(DeferredText::ShortestPrefix, 'x');
    const VariableRef watched(
        new Variable("v", 1, long_text.data(), static_cast<int>(long_text.size())));
    DeferredText* text = DeferredText::Begin(watched.get());
    ASSERT_NE(text, nullptr);
    if (plain_first) {
      EXPECT_FALSE(watched->IsPlain());
    }
    EXPECT_TRUE(watched->IsOrdinary());
    EXPECT_FALSE(watched->IsPlain());
    delete text;
    EXPECT_TRUE(watched->IsPlain());
  }
}

TEST(VariableShortWays, FormsOfAPlainScalarAreToldAndReadable) {
  const VariableRef v(new Variable("v", 1, 2.5));
  EXPECT_EQ(v->plain_forms(), static_cast<unsigned>(Variable::IntegerForm | Variable::DoubleForm));
  EXPECT_EQ(v->plain_integer(), 2);
  EXPECT_EQ(v->plain_double(), 2.5);
  v->SetValue("xyz", 3);
  EXPECT_EQ(v->plain_forms(), static_cast<unsigned>(Variable::TextForm));
  EXPECT_EQ(Text(v->plain_text()), "xyz");
  v->Element(AggregateIndex(1), 1);
  EXPECT_EQ(v->plain_forms(), 0u);
}

TEST(VariableShortWays, HoldAndReleaseCount) {
  auto* variable = new Variable();
  variable->Hold();
  EXPECT_EQ(variable->refcount(), 2);
  variable->Release();
  EXPECT_EQ(variable->refcount(), 1);
  const VariableRef target(new Variable());
  const VariableRef reference(new ReferenceVariable("r", 1, target.get()));
  reference->Hold();
  EXPECT_EQ(reference->refcount(), 2);
  EXPECT_EQ(target->refcount(), 2);
  reference->Release();
  EXPECT_EQ(target->refcount(), 2);
  variable->Release();
}

TEST(VariableShortWays, AtIsElementByPosition) {
  const VariableRef v(new Variable());
  EXPECT_EQ(v->At(1, 0), nullptr);
  Variable* element = v->At(2, 1);
  ASSERT_NE(element, nullptr);
  EXPECT_EQ(v->Element(AggregateIndex(2), 0), element);
  EXPECT_EQ(v->At(2, 1), element);
  element = v->At(-3, 1);
  EXPECT_EQ(v->Element(AggregateIndex(0), 0), element);
  EXPECT_EQ(v->ElementsUsed(), 2);
}

TEST(VariableShortWays, MemberIsElementByName) {
  const VariableRef v(new Variable());
  EXPECT_EQ(v->Member("a", 1, 0), nullptr);
  Variable* element = v->Member("Name", 4, 1);
  ASSERT_NE(element, nullptr);
  EXPECT_EQ(v->Element(AggregateIndex("NAME", 4), 0), element);
  EXPECT_EQ(v->Member("nAMe and more", 4, 1), element);
  EXPECT_EQ(v->Member("nam", 3, 0), nullptr);
  EXPECT_EQ(Text(v->value()), "");
  EXPECT_NE(v->Member("", 0, 1), nullptr);
  EXPECT_EQ(v->ElementsUsed(), 2);
}

TEST(VariableShortWays, AtAndMemberFollowReferencesAndRespectDerivedClasses) {
  const VariableRef target(new Variable());
  const VariableRef reference(new ReferenceVariable("r", 1, target.get()));
  const Variable* element = reference->At(1, 1);
  EXPECT_EQ(target->Element(AggregateIndex(1), 0), element);
  element = reference->Member("m", 1, 1);
  EXPECT_EQ(target->Element(AggregateIndex("m", 1), 0), element);
  const VariableRef null(new NULLVariable());
  EXPECT_EQ(null->At(1, 1), null.get());
  EXPECT_EQ(null->Member("m", 1, 0), nullptr);
}

}  // namespace
