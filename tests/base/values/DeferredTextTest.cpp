// base/values/DeferredText.h: a script must see the same as if the text had been copied.

#include <climits>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "base/values/Aggregate.h"
#include "base/values/DeferredText.h"
#include "base/values/Variable.h"
#include "base/values/VariableKinds.h"
#include "base/values/VariableRef.h"
#include "tests/support/GrowthOfTime.h"
#include "tests/support/Machine.h"
#include "tests/support/Rounds.h"

namespace {

using std::string;

const string Long(300, 'a');
const string Sevens(200, '7');

VariableRef New(const string& text) {
  return VariableRef(new Variable("s", 1, text.data(), static_cast<int>(text.size())));
}

string Text(const VariableRef& variable) {
  const String& text = variable->value();
  return {text.data ? text.data : "", static_cast<size_t>(text.length)};
}

string Release(DeferredText* text) {
  int length;
  char* bytes = text->Release(&length);
  EXPECT_EQ(bytes[length], '\0');
  const string copy(bytes, static_cast<size_t>(length));
  delete[] bytes;
  return copy;
}

void Append(DeferredText* text, const string& bytes) {
  text->Append(bytes.data(), static_cast<int>(bytes.size()));
}

TEST(DeferredText, TheWholeTextIsThePrefixAndWhatWasAppended) {
  const VariableRef s = New(Long);
  DeferredText* text = DeferredText::Begin(s.get());
  ASSERT_NE(text, nullptr);
  text->Append("x", 1);
  text->Append(-42);
  text->Append(2.5);
  const VariableRef other = New("other");
  text->Append(other.get());
  text->Append(s.get());
  text->Append("", 0);
  text->Append(INT_MIN);
  const string whole = Long + "x-422.5other" + Long + "-2147483648";
  EXPECT_EQ(text->length(), static_cast<int>(whole.size()));
  EXPECT_EQ(Release(text), whole);
  EXPECT_EQ(Text(s), Long);
  EXPECT_TRUE(s->IsPlain());
}

TEST(DeferredText, MayBeginWithNothing) {
  const VariableRef s = New(Long);
  auto* text = new DeferredText();
  EXPECT_EQ(text->length(), 0);
  text->Append(7);
  text->Append(s.get());
  DeferredText* watching = DeferredText::Begin(s.get());
  watching->Append("z", 1);
  text->Append(*watching);
  text->Append(*watching);
  delete watching;
  EXPECT_EQ(Release(text), '7' + Long + Long + 'z' + Long + 'z');
  EXPECT_TRUE(s->IsPlain());
  EXPECT_EQ(Release(new DeferredText()), "");
}

// Into a buffer that is large enough, into one that is not, into none, and into values that are no
// scalar.
TEST(DeferredText, WithoutAPrefixItIsAssignedAsAStoreWouldBe) {
  for (const bool adopt : {false, true}) {
    for (const string& old : {string(), string(10, 'o'), string(100, 'o')}) {
      for (const string& whole : {string(), string("short"), string(90, 'x'), string(400, 'y')}) {
        SCOPED_TRACE(testing::Message() << old.size() << " " << whole.size() << adopt);
        const int length = static_cast<int>(whole.size());
        const VariableRef deferred = New(old);
        const VariableRef stored = New(old);
        auto* text = new DeferredText();
        Append(text, whole);
        text->Assign(deferred.get(), adopt);
        if (adopt) {
          char* buffer = new char[whole.size() + 1];
          memcpy(buffer, whole.c_str(), whole.size() + 1);
          stored->SetValue_Nocopy(buffer, length, length + 1);
        } else {
          stored->SetValue(whole.data(), length);
        }
        EXPECT_EQ(Text(deferred), whole);
        EXPECT_EQ(deferred->value().length, stored->value().length);
        EXPECT_EQ(deferred->value().allocated, stored->value().allocated);
        EXPECT_EQ(deferred->plain_forms(), stored->plain_forms());
        EXPECT_EQ(deferred->primary_type(), stored->primary_type());
      }
    }
    const VariableRef array(new Variable());
    array->Element(AggregateIndex(1), 1)->SetValue_Integer(1);
    auto* text = new DeferredText();
    text->Append("t", 1);
    text->Assign(array.get(), adopt);
    EXPECT_EQ(array->aggregatetype(), AggregateNone);
    EXPECT_EQ(Text(array), "t");
  }
}

TEST(DeferredText, BeginsOnlyWhereThePrefixCanBeWatched) {
  EXPECT_EQ(DeferredText::Begin(New("short").get()), nullptr);
  EXPECT_EQ(DeferredText::Begin(VariableRef(new Variable()).get()), nullptr);
  const VariableRef immutable(new ImmutableVariable("i", 1, Long.data(), 300));
  EXPECT_EQ(DeferredText::Begin(immutable.get()), nullptr);
  EXPECT_EQ(DeferredText::Begin(VariableRef(new NULLVariable()).get()), nullptr);
  const VariableRef array(new Variable());
  array->Element(AggregateIndex(1), 1)->SetValue(Long.data(), 300);
  EXPECT_EQ(DeferredText::Begin(array.get()), nullptr);
  EXPECT_EQ(DeferredText::Begin(VariableRef(new ReferenceVariable("r", 1, nullptr)).get()),
            nullptr);
  const VariableRef gone = New(Long);
  gone->Make_NULL();
  EXPECT_EQ(DeferredText::Begin(gone.get()), nullptr);
  // A text with other bytes after its end.
  const VariableRef chopped = New(Long);
  chopped->value().chop(1);
  EXPECT_EQ(DeferredText::Begin(chopped.get()), nullptr);
}

TEST(DeferredText, ReadingTheWatchedVariableLeavesEverythingAsItIs) {
  const VariableRef s = New(Sevens);
  DeferredText* text = DeferredText::Begin(s.get());
  ASSERT_NE(text, nullptr);
  Append(text, "1");
  int not_numeric = 1;
  s->value_compare(&not_numeric);
  EXPECT_EQ(not_numeric, 0);
  EXPECT_EQ(s->IsTrue(), 1);
  EXPECT_EQ(s->IsNULL(), 0);
  EXPECT_EQ(s->type(), VariableStored);
  EXPECT_EQ(s->primary_type(), PrimaryText);
  EXPECT_EQ(s->RealIdentity(), s.get());
  EXPECT_EQ(s->NextIdentity(), s.get());
  EXPECT_EQ(s->Element(AggregateIndex(1), 0), nullptr);
  const VariableRef copy(new Variable(*s));
  EXPECT_EQ(Text(copy), Text(s));
  EXPECT_EQ(Release(text), Sevens + "1");
}

TEST(DeferredText, AChangeOfTheVariableDoesNotReachIt) {
  struct Case {
    const char* label;
    std::function<void(Variable*)> change;
  };
  const VariableRef target = New("target");
  const Case cases[] = {
      {"text", [](Variable* v) { v->SetValue("new", 3); }},
      {"its own text", [](Variable* v) { v->SetValue(v->value().data + 1, 3); }},
      {"buffer",
       [](Variable* v) {
         v->SetValue_Nocopy(new char[4]{'n', 'e', 'w', 0}, 3, 4);
       }},
      {"integer", [](Variable* v) { v->SetValue_Integer(3); }},
      {"integer in line", [](Variable* v) { v->Write_Integer(3); }},
      {"double", [](Variable* v) { v->SetValue_Double(3); }},
      {"double in line", [](Variable* v) { v->Write_Double(3); }},
      {"variable", [&](Variable* v) { v->SetValue(*target); }},
      {"NULL", [](Variable* v) { v->SetNULL(); }},
      {"element", [](Variable* v) { v->Element(AggregateIndex(1), 1)->SetValue_Integer(1); }},
      {"element set", [&](Variable* v) { v->SetElement(AggregateIndex("m", 1), target.get()); }},
      {"array", [](Variable* v) { v->Convert_Aggregate(AggregateArray); }},
      {"reference", [&](Variable* v) { v->Make_Reference(target.get()); }},
      {"gone", [](Variable* v) { v->Make_NULL(); }},
      {"conversion",
       [](Variable* v) {
         v->value_double();
         v->Convert_String();
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    const VariableRef s = New(Long);
    const VariableRef plain = New(Long);
    DeferredText* text = DeferredText::Begin(s.get());
    ASSERT_NE(text, nullptr);
    Append(text, "tail");
    DeferredText* second = DeferredText::Begin(s.get());
    Append(second, "second");
    c.change(s.get());
    c.change(plain.get());
    EXPECT_EQ(Text(s), Text(plain));
    EXPECT_EQ(s->type(), plain->type());
    EXPECT_EQ(s->aggregatetype(), plain->aggregatetype());
    EXPECT_EQ(s->value().allocated, plain->value().allocated);
    Append(text, " more");
    EXPECT_EQ(Release(text), Long + "tail more");
    EXPECT_EQ(Release(second), Long + "second");
  }
}

TEST(DeferredText, TheVariableMayGoFirst) {
  auto* s = new Variable("s", 1, Long.data(), 300);
  DeferredText* text = DeferredText::Begin(s);
  Append(text, "tail");
  s->DecRefCount();
  EXPECT_EQ(text->length(), 304);
  EXPECT_EQ(Release(text), Long + "tail");
}

TEST(DeferredText, AsAnElementItsArrayMayGoFirst) {
  VariableRef array(new Variable());
  Variable* element = array->Element(AggregateIndex(5), 1);
  element->SetValue(Long.data(), 300);
  DeferredText* text = DeferredText::Begin(element);
  array.reset();
  EXPECT_EQ(Release(text), Long);
}

TEST(DeferredText, DroppedItLeavesAPlainVariable) {
  const VariableRef s = New(Long);
  DeferredText* first = DeferredText::Begin(s.get());
  DeferredText* second = DeferredText::Begin(s.get());
  EXPECT_FALSE(s->IsPlain());
  delete first;
  EXPECT_FALSE(s->IsPlain());
  delete second;
  EXPECT_TRUE(s->IsPlain());
  EXPECT_EQ(Text(s), Long);
}

// Both ways, each on its own variable, over many lengths: texts and sizes must agree.
TEST(DeferredText, AssignedToItsVariableItIsWhatAStoreOfTheWholeTextLeaves) {
  for (const bool adopt : {false, true}) {
    const VariableRef deferred = New(Long);
    const VariableRef stored = New(Long);
    string whole = Long;
    for (int i = 0; i < 400; i++) {
      SCOPED_TRACE(testing::Message() << "append " << i << (adopt ? " adopted" : ""));
      const string piece(static_cast<size_t>(i * 7 % 31), static_cast<char>('b' + i % 20));
      DeferredText* text = DeferredText::Begin(deferred.get());
      ASSERT_NE(text, nullptr);
      Append(text, piece);
      deferred->value_integer();
      text->Assign(deferred.get(), adopt);
      whole += piece;
      const int length = static_cast<int>(whole.size());
      stored->value_integer();
      if (adopt) {
        char* buffer = new char[whole.size() + 1];
        memcpy(buffer, whole.c_str(), whole.size() + 1);
        stored->SetValue_Nocopy(buffer, length, length + 1);
      } else {
        stored->SetValue(whole.data(), length);
      }
      ASSERT_EQ(Text(deferred), Text(stored));
      ASSERT_EQ(deferred->value().allocated, stored->value().allocated);
      ASSERT_EQ(deferred->value().data[length], '\0');
      ASSERT_EQ(deferred->plain_forms(), stored->plain_forms());
      ASSERT_EQ(deferred->primary_type(), stored->primary_type());
    }
  }
}

TEST(DeferredText, AStoreIntoTheGrownBufferIsSafe) {
  const VariableRef s = New(Long);
  DeferredText* text = DeferredText::Begin(s.get());
  Append(text, string(5000, 'z'));
  text->Assign(s.get(), false);
  const int allocated = s->value().allocated;
  const string full(static_cast<size_t>(allocated) - 1, 'f');
  s->SetValue(full.data(), static_cast<int>(full.size()));
  EXPECT_EQ(Text(s), full);
  EXPECT_EQ(s->value().allocated, allocated);
}

TEST(DeferredText, AssignedElsewhereItIsAPlainStore) {
  for (const bool adopt : {false, true}) {
    const VariableRef s = New(Long);
    const VariableRef other(new Variable());
    DeferredText* text = DeferredText::Begin(s.get());
    Append(text, "tail");
    text->Assign(other.get(), adopt);
    EXPECT_EQ(Text(other), Long + "tail");
    EXPECT_EQ(Text(s), Long);
    EXPECT_TRUE(s->IsPlain());
    EXPECT_EQ(other->value().allocated, adopt ? 305 : 312);
  }
}

TEST(DeferredText, AReferenceStandsForItsVariable) {
  const VariableRef s = New(Long);
  const VariableRef reference(new ReferenceVariable("r", 1, s.get()));
  DeferredText* text = DeferredText::Begin(reference.get());
  ASSERT_NE(text, nullptr);
  Append(text, "tail");
  text->Assign(reference.get(), false);
  EXPECT_EQ(Text(s), Long + "tail");
  text = DeferredText::Begin(s.get());
  Append(text, "s");
  text->Assign(reference.get(), true);
  EXPECT_EQ(Text(s), Long + "tails");
}

TEST(DeferredText, TwoThatGrowOneVariableDoNotMix) {
  const VariableRef s = New(Long);
  DeferredText* outer = DeferredText::Begin(s.get());
  Append(outer, "outer");
  DeferredText* inner = DeferredText::Begin(s.get());
  Append(inner, "inner");
  inner->Assign(s.get(), true);
  EXPECT_EQ(Text(s), Long + "inner");
  outer->Assign(s.get(), true);
  EXPECT_EQ(Text(s), Long + "outer");
  EXPECT_TRUE(s->IsPlain());
}

TEST(DeferredText, ALongTextGrowsInLinearTime) {
  const VariableRef s = New(Long);
  for (int i = 0; i < 300000; i++) {
    DeferredText* text = DeferredText::Begin(s.get());
    text->Append("line ", 5);
    text->Append(i);
    text->Append("\n", 1);
    text->Assign(s.get(), true);
  }
  EXPECT_EQ(s->value().length, 300 + 300000 * 6 + 1688890);
}

// Frames that an error has ended still have their texts.
TEST(DeferredText, ManyAreDeletedInTimeByTheirNumber) {
  struct Watched {
    VariableRef variable;
    std::unique_ptr<DeferredText> text;
  };
  ExpectNearLinear(
      8000,
      [](int count) {
        std::vector<Watched> all;
        for (int i = 0; i < count; i++) {
          VariableRef variable(new Variable("", 0, std::string(150, 'x').c_str(), 150));
          std::unique_ptr<DeferredText> text(DeferredText::Begin(variable.get()));
          all.push_back({std::move(variable), std::move(text)});
        }
        return all;
      },
      [](std::vector<Watched>* all) {
        for (Watched& watched : *all) watched.text.reset();
      });
}

TEST(DeferredText, AVariableIsWatchedByAllThatBeganWithIt) {
  const VariableRef first(new Variable("", 0, std::string(150, 'a').c_str(), 150));
  const VariableRef second(new Variable("", 0, std::string(150, 'b').c_str(), 150));
  std::vector<std::unique_ptr<DeferredText>> texts;
  for (int i = 0; i < 6; i++) {
    texts.emplace_back(DeferredText::Begin(i % 2 ? second.get() : first.get()));
  }
  texts[4].reset();
  texts[1].reset();
  first->SetValue("x", 1);
  second->SetValue("x", 1);
  for (size_t i : {0, 2, 3, 5}) {
    int length;
    const std::unique_ptr<char[]> text(texts[i].release()->Release(&length));
    EXPECT_EQ(std::string(text.get()), std::string(150, i % 2 ? 'b' : 'a'));
  }
}

// --- Random scripts ------------------------------------------------------------------------------

// Writes statements that build, keep and change texts, and computes the resulting values of the
// variables. A concatenated text stays as it was, whatever happens to its variables.
class TextScript {
 public:
  explicit TextScript(unsigned seed) : random(seed) {
    for (int i = 0; i < Variables; i++) source += ".global v" + std::to_string(i) + "\n";
    for (int i = 0; i < 60; i++) Statement();
  }
  string source;
  string values[4];

 private:
  static constexpr int Variables = 4;

  size_t Below(size_t limit) { return random() % limit; }

  // Pushes something, and returns its text.
  string Operand() {
    switch (Below(6)) {
      case 0: {
        const int number = static_cast<int>(Below(2000)) - 1000;
        source += "pushi " + std::to_string(number) + "\n";
        return std::to_string(number);
      }
      case 1: {
        const string text(Below(40), static_cast<char>('a' + Below(26)));
        source += "pushc \"" + text + "\"\n";
        return text;
      }
      case 2: source += "pushf 0.25\n"; return "0.25";
      default: {
        const size_t which = Below(Variables);
        source += "pushg v" + std::to_string(which) + "\n";
        return values[which];
      }
    }
  }
  void Store(size_t which, const string& text) {
    source += "popg v" + std::to_string(which) + "\n";
    values[which] = text;
  }
  // Leaves a concatenation on the stack. Variables change while it is there.
  string Concatenation(int depth) {
    string text = Operand();
    text += Operand();
    source += "cat\n";
    for (size_t more = Below(4); more > 0; more--) {
      if (depth > 0 && Below(3) == 0) {
        const size_t which = Below(Variables);
        Store(which, Concatenation(depth - 1));
      }
      if (depth > 0 && Below(4) == 0) {
        text += Concatenation(depth - 1);
      } else {
        text += Operand();
      }
      source += "cat\n";
    }
    return text;
  }
  void Statement() {
    const size_t which = Below(Variables);
    // Keeps the texts short enough for a test.
    if (values[which].size() > 3000 || Below(12) == 0) {
      source += "pushc \"" + string(150, 'z') + "\"\n";
      Store(which, string(150, 'z'));
    } else if (Below(2)) {
      source += "pushg v" + std::to_string(which) + "\n";
      string text = values[which];
      text += Operand();
      source += "cat\n";
      Store(which, text);
    } else {
      Store(which, Concatenation(2));
    }
  }

  std::mt19937 random;
};

TEST(DeferredText, RandomScriptsLeaveWhatCopiesWould) {
  for (unsigned seed = 1; seed <= Rounds(500u); seed++) {
    SCOPED_TRACE(seed);
    const TextScript script(seed);
    Machine machine;
    machine.Assemble(script.source);
    ASSERT_EQ(machine.Go(), 1) << machine.Error();
    for (int i = 0; i < 4; i++) {
      Variable* variable = machine.GlobalVariable(("v" + std::to_string(i)).c_str());
      ASSERT_EQ(variable ? Machine::Text(*variable) : "", script.values[i]) << "v" << i;
    }
  }
}

}  // namespace
