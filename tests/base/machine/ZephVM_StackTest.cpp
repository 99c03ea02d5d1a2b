// The operand stack: conversions, comparison, concatenation, limits, and ownership of the entries.

#include "base/machine/ZephVM_Stack.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <string>

#include "base/machine/PoppedString.h"
#include "tests/support/Machine.h"

namespace {

class ZephVM_StackTest : public testing::Test {
 protected:
  ZephVM_Stack& stack() { return machine.stack(); }

  void PushText(const std::string& text) {
    stack().PushS(OwnedText(text), static_cast<int>(text.size()), static_cast<int>(text.size()) + 1,
                  1);
  }
  void PushConstant(const char* text) {
    int length = static_cast<int>(strlen(text));
    stack().PushS(text, length, length, 0);
  }
  void PushBuffer(const std::string& text, int deletable = 1) {
    auto* buffer = new LinkBuffer(512, 4096);
    buffer->cat(text.data(), static_cast<int>(text.size()));
    stack().PushLinkBuffer(buffer, deletable);
    if (!deletable) kept.emplace_back(buffer);
  }
  // Pushes a variable that only the entry holds.
  void PushDyingVariable(const char* text) {
    auto* variable = new Variable("v", 1);
    variable->SetValue(text, -1);
    stack().PushV(variable, 0, 1);
  }
  // Returns a variable that the test holds too.
  Variable* Held(const char* text) {
    auto* variable = new Variable("v", 1);
    variable->SetValue(text, -1);
    held.emplace_back(variable);
    return variable;
  }
  void TearDown() override {
    for (Variable* variable : held) variable->DecRefCount();
  }

  Machine machine;
  std::vector<std::unique_ptr<LinkBuffer>> kept;
  std::vector<Variable*> held;
};

// --- Numbers, truth, NULL ------------------------------------------------------------------------

TEST_F(ZephVM_StackTest, PopIConvertsEveryKind) {
  struct Case {
    const char* label;
    double number;
    int expected;
  };
  const Case cases[] = {
      {"truncates toward zero", -1.9, -1},
      {"too large", 3e9, std::numeric_limits<int>::min()},
      {"just fits", 2147483647.5, 2147483647},
      {"just too large", 2147483648.0, std::numeric_limits<int>::min()},
      {"NaN", std::nan(""), std::numeric_limits<int>::min()},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    stack().PushD(c.number);
    EXPECT_EQ(stack().PopI(), c.expected);
  }
  stack().PushI(-7);
  EXPECT_EQ(stack().PopI(), -7);
  PushText("42");
  EXPECT_EQ(stack().PopI(), 42);
  PushText("42x");
  EXPECT_EQ(stack().PopI(), 0);
  PushBuffer("0x1f");
  EXPECT_EQ(stack().PopI(), 31);
  PushDyingVariable("12.7");
  EXPECT_EQ(stack().PopI(), 12);
}

TEST_F(ZephVM_StackTest, PopDConvertsEveryKind) {
  stack().PushI(3);
  EXPECT_EQ(stack().PopD(), 3.0);
  stack().PushD(0.25);
  EXPECT_EQ(stack().PopD(), 0.25);
  PushText("1e1");
  EXPECT_EQ(stack().PopD(), 10.0);
  PushConstant("nonsense");
  EXPECT_EQ(stack().PopD(), 0.0);
  PushBuffer("-2.5", 0);
  EXPECT_EQ(stack().PopD(), -2.5);
  stack().PushV(Held("0.5"), 1, 1);
  EXPECT_EQ(stack().PopD(), 0.5);
}

TEST_F(ZephVM_StackTest, PopBoolOfTexts) {
  struct Case {
    const char* text;
    bool expected;
  };
  const Case cases[] = {{"", false},    {"0", false},    {"00.00", false}, {".", false},
                        {"0.0", false}, {"0.", false},   {"0.0.", true},   {"0.0.0", true},
                        {"0 ", true},   {"false", true}, {"-0", true},     {"1", true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    PushText(c.text);
    EXPECT_EQ(stack().PopBool(), c.expected);
    PushBuffer(c.text);
    EXPECT_EQ(stack().PopBool(), c.expected);
    PushDyingVariable(c.text);
    EXPECT_EQ(stack().PopBool(), c.expected);
  }
}

TEST_F(ZephVM_StackTest, PopBoolOfNumbers) {
  stack().PushI(0);
  EXPECT_FALSE(stack().PopBool());
  stack().PushI(-1);
  EXPECT_TRUE(stack().PopBool());
  stack().PushD(-0.0);
  EXPECT_FALSE(stack().PopBool());
  stack().PushD(std::nan(""));
  EXPECT_TRUE(stack().PopBool());
}

TEST_F(ZephVM_StackTest, PopNull) {
  stack().PushI(0);
  EXPECT_FALSE(stack().PopNull());
  stack().PushD(0.0);
  EXPECT_FALSE(stack().PopNull());
  PushConstant("");
  EXPECT_TRUE(stack().PopNull());
  PushText("0");
  EXPECT_FALSE(stack().PopNull());
  PushBuffer("");
  EXPECT_TRUE(stack().PopNull());
  stack().PushV(new Variable("v", 1), 0, 1);
  EXPECT_TRUE(stack().PopNull());
  PushDyingVariable("x");
  EXPECT_FALSE(stack().PopNull());
}

TEST_F(ZephVM_StackTest, PopDBPositionKnowsItsWords) {
  struct Case {
    const char* text;
    int expected;
  };
  const Case cases[] = {{"top", -1}, {"TOP", -1}, {"bottom", -2}, {"BotTom", -2},
                        {"12", 12},  {"topp", 0}, {"", 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    PushText(c.text);
    EXPECT_EQ(stack().PopDBPosition(), c.expected);
    PushBuffer(c.text);
    EXPECT_EQ(stack().PopDBPosition(), c.expected);
    PushDyingVariable(c.text);
    EXPECT_EQ(stack().PopDBPosition(), c.expected);
  }
  stack().PushI(5);
  EXPECT_EQ(stack().PopDBPosition(), 5);
  stack().PushD(5.9);
  EXPECT_EQ(stack().PopDBPosition(), 5);
}

// --- Texts ---------------------------------------------------------------------------------------

TEST_F(ZephVM_StackTest, PopSMakesTextOfNumbers) {
  int length, size, deletable;
  stack().PushI(-12);
  std::unique_ptr<char[]> integer(stack().PopS(&length, &size, &deletable));
  EXPECT_STREQ(integer.get(), "-12");
  EXPECT_EQ(length, 3);
  EXPECT_EQ(deletable, 1);
  stack().PushD(0.5);
  EXPECT_EQ(PopText(stack()), "0.5");
}

TEST_F(ZephVM_StackTest, PopSHandsAStringOverAsItIs) {
  int length, size, deletable;
  const char* constant = "constant";
  stack().PushS(constant, 8, 8, 0);
  EXPECT_EQ(stack().PopS(&length, &size, &deletable), constant);
  EXPECT_EQ(deletable, 0);
  EXPECT_EQ(size, 8);
  char* owned = OwnedText("owned");
  stack().PushS(owned, 5, 6, 1);
  EXPECT_EQ(stack().PopS(&length, &size, &deletable), owned);
  EXPECT_EQ(deletable, 1);
  delete[] owned;
}

TEST_F(ZephVM_StackTest, PopSOfLinkBuffers) {
  int length, size, deletable;
  PushBuffer("chained");
  std::unique_ptr<char[]> released(stack().PopS(&length, &size, &deletable));
  EXPECT_STREQ(released.get(), "chained");
  EXPECT_EQ(deletable, 1);
  PushBuffer("borrowed", 0);
  std::unique_ptr<char[]> copied(stack().PopS(&length, &size, &deletable));
  EXPECT_STREQ(copied.get(), "borrowed");
  EXPECT_EQ(size, length + 1);
  EXPECT_EQ(deletable, 1);
  EXPECT_STREQ(kept[0]->data(&length, nullptr), "borrowed");
}

TEST_F(ZephVM_StackTest, PopSOfVariablesCopiesOnlyWhatIsAboutToDie) {
  int length, size, deletable;
  Variable* variable = Held("text");
  stack().PushV(variable, 0, 0);
  EXPECT_EQ(stack().PopS(&length, &size, &deletable), variable->value().data);
  EXPECT_EQ(deletable, 0);
  stack().PushV(variable, 1, 1);
  EXPECT_EQ(stack().PopS(&length, &size, &deletable), variable->value().data);
  EXPECT_EQ(deletable, 0);
  EXPECT_EQ(variable->refcount(), 1);
  PushDyingVariable("dying");
  std::unique_ptr<char[]> copy(stack().PopS(&length, &size, &deletable));
  EXPECT_STREQ(copy.get(), "dying");
  EXPECT_EQ(size, 6);
  EXPECT_EQ(deletable, 1);
}

TEST_F(ZephVM_StackTest, TextOfAVariableThatOnlyTheStackHoldsSurvivesTheSecondPop) {
  // Only the two entries hold the variable, so the first text must not depend on the second entry.
  auto* variable = new Variable("v", 1);
  variable->SetValue("both", -1);
  stack().PushV(variable, 0, 1);
  stack().PushV(variable, 1, 1);
  PoppedString first(&stack());
  PoppedString second(&stack());
  EXPECT_EQ(std::string(first.data(), 4), "both");
  EXPECT_EQ(std::string(second.data(), 4), "both");
}

TEST_F(ZephVM_StackTest, TextOfANullVariableIsEmptyAndNotNull) {
  stack().PushV(new NULLVariable, 0, 1);
  int length, size, deletable;
  char* text = stack().PopS(&length, &size, &deletable);
  ASSERT_NE(text, nullptr);
  EXPECT_EQ(length, 0);
  if (deletable) delete[] text;
}

TEST_F(ZephVM_StackTest, PopBorrowedTakesOnlyATextThatTheEntryDoesNotOwn) {
  char* text = nullptr;
  int length = 0, size = 0;
  EXPECT_FALSE(stack().PopBorrowed(&text, &length, &size));
  const char constant[] = "constant";
  stack().PushS(constant, 5, 8, 0);
  ASSERT_TRUE(stack().PopBorrowed(&text, &length, &size));
  EXPECT_EQ(text, constant);
  EXPECT_EQ(length, 5);
  EXPECT_EQ(size, 8);
  EXPECT_EQ(stack().Entries(), 0);
  stack().PushI(1);
  stack().PushD(1.5);
  PushText("owned");
  PushBuffer("chain", 0);
  stack().PushV(Held("variable"), 0, 0);
  stack().PushS(constant, 5, 8, 0);
  stack().Dupe();
  stack().Concatenate();
  for (int left = stack().Entries(); left > 0; left--) {
    EXPECT_FALSE(stack().PopBorrowed(&text, &length, &size));
    EXPECT_EQ(stack().Entries(), left);
    stack().Pop();
  }
}

TEST_F(ZephVM_StackTest, PopS_NSDropsNulBytes) {
  int length, size, deletable;
  stack().PushS("a\0b\0", 4, 4, 0);
  std::unique_ptr<char[]> text(stack().PopS_NS(&length, &size, &deletable));
  EXPECT_STREQ(text.get(), "ab");
  EXPECT_EQ(length, 2);
  EXPECT_EQ(deletable, 1);
  PushText("abc");
  text.reset(stack().PopS_NS(&length, &size, &deletable));
  EXPECT_STREQ(text.get(), "abc");
}

// --- Variables -----------------------------------------------------------------------------------

TEST_F(ZephVM_StackTest, PopVAssignsEveryKind) {
  Variable* target = Held("");
  stack().PushI(5);
  stack().PopV(target);
  EXPECT_EQ(target->primary_type(), PrimaryInteger);
  stack().PushD(0.5);
  stack().PopV(target);
  EXPECT_EQ(target->primary_type(), PrimaryDouble);
  PushText("text");
  stack().PopV(target);
  EXPECT_STREQ(target->value().data, "text");
  PushBuffer("chained");
  stack().PopV(target);
  EXPECT_STREQ(target->value().data, "chained");
  PushBuffer("borrowed", 0);
  stack().PopV(target);
  EXPECT_STREQ(target->value().data, "borrowed");
  PushDyingVariable("other");
  stack().PopV(target);
  EXPECT_STREQ(target->value().data, "other");
  stack().PushV(target, 1, 1);
  stack().PopV(target);
  EXPECT_STREQ(target->value().data, "other");
  EXPECT_EQ(target->refcount(), 1);
}

// As the result of a function is, whose locals are gone.
TEST_F(ZephVM_StackTest, PopVMovesTheElementsThatOnlyTheStackHolds) {
  Variable* target = Held("");
  for (const int owned : {0, 1}) {
    const VariableRef source(new Variable());
    source->Member("list", 4, 1)->At(1, 1)->SetValue("text", 4);
    stack().PushV(source.get(), owned, owned);
    stack().PopV(target);
    target->Member("list", 4, 0)->At(1, 0)->SetValue("changed", 7);
    ASSERT_EQ(source->aggregatetype(), AggregateStructure);
    EXPECT_STREQ(source->Member("list", 4, 0)->At(1, 0)->value().data, "text");
  }
  auto* const dying = new Variable();
  Variable* const element = dying->Member("list", 4, 1)->At(1, 1);
  stack().PushV(dying, 0, 1);
  stack().PopV(target);
  EXPECT_EQ(target->Member("list", 4, 0)->At(1, 0), element);
}

TEST_F(ZephVM_StackTest, PopVIntoNothingIsFatal) {
  stack().PushI(1);
  stack().PopV(nullptr);
  EXPECT_NE(machine.Error().find("Invalid variable reference"), std::string::npos);
  EXPECT_EQ(stack().Entries(), 1);
}

TEST_F(ZephVM_StackTest, PushOfNoVariableIsFatal) {
  stack().PushV(nullptr, 1, 1);
  EXPECT_NE(machine.Error().find("Invalid variable reference"), std::string::npos);
  EXPECT_EQ(stack().Entries(), 0);
}

TEST_F(ZephVM_StackTest, TakingOutAVariableHandsItsCountOver) {
  Variable* variable = Held("x");
  Variable* out;
  int deletable;
  stack().PushV(variable, 1, 1);
  EXPECT_EQ(stack().PopV(&out, &deletable), 1);
  EXPECT_EQ(out, variable);
  EXPECT_EQ(deletable, 1);
  EXPECT_EQ(variable->refcount(), 2);
  variable->DecRefCount();
  PushText("constant");
  EXPECT_EQ(stack().PopV(&out, &deletable), 0);
  EXPECT_EQ(deletable, 0);
  EXPECT_EQ(stack().Entries(), 0);
  EXPECT_NE(machine.Error().find("Expected variable, found constant"), std::string::npos);
}

// --- Limits --------------------------------------------------------------------------------------

TEST_F(ZephVM_StackTest, HoldsExactly512Entries) {
  for (int i = 0; i < 512; i++) stack().PushI(i);
  EXPECT_FALSE(machine.vm().stopped());
  stack().PushI(512);
  EXPECT_TRUE(machine.vm().stopped());
  EXPECT_NE(machine.Error().find("Stack overflow"), std::string::npos);
  EXPECT_EQ(stack().Entries(), 512);
  EXPECT_EQ(stack().PopI(), 511);
}

TEST_F(ZephVM_StackTest, OverflowFreesWhatItWasGiven) {
  for (int i = 0; i < 512; i++) stack().PushI(i);
  PushText("lost");
  PushBuffer("lost");
  PushDyingVariable("lost");
  stack().Dupe();
  EXPECT_EQ(stack().Entries(), 512);
}

TEST_F(ZephVM_StackTest, EveryOperationReportsUnderflow) {
  const auto expect_underflow = [this](const char* label, auto operation) {
    SCOPED_TRACE(label);
    machine.output.text.clear();
    operation();
    EXPECT_NE(machine.Output().find("Stack underflow"), std::string::npos);
    EXPECT_EQ(stack().Entries(), 0);
  };
  int a, b, c;
  Variable* v;
  Variable* target = Held("");
  expect_underflow("Pop", [&] { stack().Pop(); });
  expect_underflow("PopI", [&] { EXPECT_EQ(stack().PopI(), 0); });
  expect_underflow("PopD", [&] { EXPECT_EQ(stack().PopD(), 0.0); });
  expect_underflow("PopBool", [&] { EXPECT_FALSE(stack().PopBool()); });
  expect_underflow("PopNull", [&] { EXPECT_FALSE(stack().PopNull()); });
  expect_underflow("PopDBPosition", [&] { EXPECT_EQ(stack().PopDBPosition(), 0); });
  expect_underflow("PopS", [&] { EXPECT_STREQ(stack().PopS(&a, &b, &c), ""); });
  expect_underflow("PopS_NS", [&] { delete[] stack().PopS_NS(&a, &b, &c); });
  expect_underflow("PopV", [&] { stack().PopV(target); });
  expect_underflow("PopV out", [&] { EXPECT_EQ(stack().PopV(&v, &a), 0); });
  expect_underflow("Compare", [&] { EXPECT_EQ(stack().Compare(), 0); });
  expect_underflow("Dupe", [&] { stack().Dupe(); });
  expect_underflow("Concatenate", [&] { stack().Concatenate(); });
}

TEST_F(ZephVM_StackTest, PairOperationsNeedTwoEntries) {
  stack().PushI(1);
  EXPECT_EQ(stack().Compare(), 0);
  stack().Concatenate();
  EXPECT_EQ(stack().Entries(), 1);
  EXPECT_NE(machine.Output().find("Stack underflow"), std::string::npos);
}

// --- Moving between stacks -----------------------------------------------------------------------

TEST_F(ZephVM_StackTest, PushFromAnotherStackReversesAndOwnsVariables) {
  ZephVM_Stack other(&machine.vm());
  Variable* variable = Held("x");
  other.PushV(variable, 0, 0);
  other.PushI(2);
  stack().Push(&other, 2);
  EXPECT_EQ(other.Entries(), 0);
  EXPECT_EQ(variable->refcount(), 2);
  EXPECT_EQ(stack().Peek()->deletable, 1u);
  EXPECT_EQ(PopText(stack()), "x");
  EXPECT_EQ(stack().PopI(), 2);
  EXPECT_EQ(variable->refcount(), 1);
}

TEST_F(ZephVM_StackTest, PushFromAnotherStackKnowsItsLimits) {
  ZephVM_Stack other(&machine.vm());
  other.PushI(1);
  stack().Push(&other, 2);
  EXPECT_NE(machine.Output().find("Stack underflow"), std::string::npos);
  EXPECT_EQ(other.Entries(), 1);
  for (int i = 0; i < 512; i++) stack().PushI(i);
  machine.output.text.clear();
  stack().Push(&other, 1);
  EXPECT_NE(machine.Output().find("Stack overflow"), std::string::npos);
  EXPECT_EQ(other.Entries(), 1);
  stack().Pop();
  other.PushI(2);
  stack().Push(&other, 2);
  EXPECT_EQ(stack().Entries(), 511);
  stack().Push(&other, 1);
  EXPECT_EQ(stack().Entries(), 512);
}

TEST_F(ZephVM_StackTest, SwapExchangesTwoDepths) {
  for (int i = 0; i < 4; i++) stack().PushI(i);
  stack().Swap(0, 3);
  stack().Swap(1, 1);
  EXPECT_EQ(stack().PopI(), 0);
  EXPECT_EQ(stack().PopI(), 2);
  EXPECT_EQ(stack().PopI(), 1);
  EXPECT_EQ(stack().PopI(), 3);
  for (auto [a, b] : {std::pair{0, 0}, std::pair{-1, 0}, std::pair{0, 1}}) {
    machine.output.text.clear();
    stack().Swap(a, b);
    EXPECT_NE(machine.Output().find("Invalid stack reference"), std::string::npos);
  }
}

// --- Copies --------------------------------------------------------------------------------------

TEST_F(ZephVM_StackTest, DupeThenPopLeavesTheEntryBelowValid) {
  PushText("below");
  stack().Dupe();
  EXPECT_EQ(stack().Peek()->deletable, 0u);
  stack().Pop();
  EXPECT_EQ(PopText(stack()), "below");
}

TEST_F(ZephVM_StackTest, CopyOfAnOwnedEntryOutlivesIt) {
  PushText("text");
  stack().Dupe();
  stack().Swap(0, 1);
  stack().Pop();
  EXPECT_EQ(PopText(stack()), "text");
  PushBuffer("buffer");
  stack().Dupe();
  stack().Swap(0, 1);
  stack().Pop();
  EXPECT_EQ(PopText(stack()), "buffer");
  PushDyingVariable("variable");
  stack().Dupe();
  stack().Swap(0, 1);
  stack().Pop();
  EXPECT_EQ(PopText(stack()), "variable");
}

TEST_F(ZephVM_StackTest, BothTextsOfACopiedVariableStayValid) {
  PushDyingVariable("variable");
  stack().Dupe();
  PoppedString first(&stack());
  PoppedString second(&stack());
  EXPECT_EQ(std::string(first.data(), 8), "variable");
  EXPECT_EQ(std::string(second.data(), 8), "variable");
}

// A variable whose reads all write their text to the same buffer.
class Reader : public Variable {
 public:
  Reader() : Variable("reader", 6) {}
  int type() override { return VariableComputedText; }
  int preferred_type() override { return PrimaryText; }
  double value_compare(int* not_numeric) override {
    *not_numeric = 1;
    return 0;
  }
  String& value() override {
    text.assign(ReadAt(reads++).c_str(), -1);
    return text;
  }
  static std::string ReadAt(int read) { return std::string(40, static_cast<char>('a' + read)); }
  int reads = 0;

 private:
  String text;
};

TEST_F(ZephVM_StackTest, BothTextsOfAComputedVariableStayValid) {
  auto* reader = new Reader;
  held.emplace_back(reader);
  stack().PushV(reader, 1, 1);
  stack().PushV(reader, 1, 1);
  {
    PoppedString first(&stack());
    PoppedString second(&stack());
    EXPECT_EQ(std::string(first.data(), static_cast<size_t>(first.length())), Reader::ReadAt(0));
    EXPECT_EQ(std::string(second.data(), static_cast<size_t>(second.length())), Reader::ReadAt(1));
  }
  EXPECT_EQ(reader->refcount(), 1);
}

TEST_F(ZephVM_StackTest, AComputedVariableBesideItself) {
  auto* reader = new Reader;
  held.emplace_back(reader);
  for (const int owned : {0, 1}) {
    SCOPED_TRACE(owned);
    const auto push = [&] {
      reader->reads = 0;
      stack().PushV(reader, owned, owned);
      stack().PushV(reader, owned, owned);
    };
    push();
    stack().Concatenate();
    EXPECT_EQ(PopText(stack()), Reader::ReadAt(0) + Reader::ReadAt(1));
    push();
    EXPECT_EQ(stack().Compare(), 'a' - 'b');
  }
  EXPECT_EQ(reader->refcount(), 1);
}

TEST_F(ZephVM_StackTest, BufferFollowedByItsOwnCopy) {
  PushBuffer("ab");
  stack().Dupe();
  stack().Concatenate();
  EXPECT_EQ(stack().Peek()->kind, ZephVM_Stack::KindLinkBuffer);
  EXPECT_EQ(PopText(stack()), "abab");
  PushText("ab");
  stack().Dupe();
  stack().Concatenate();
  EXPECT_EQ(PopText(stack()), "abab");
}

// --- Comparison ----------------------------------------------------------------------------------

TEST_F(ZephVM_StackTest, CompareOfTextAndNumber) {
  struct Case {
    const char* left;
    const char* right;
    int sign;
  };
  // "i:" and "d:" push an integer or a double.
  const Case cases[] = {
      {"10", "i:9", 1},     {"1e1", "i:10", 0},  {"abc", "abd", -1},  {"abc", "ab", 1},
      {"ab", "abc", -1},    {"abc", "i:5", 1},   {"", "i:0", 0},      {"", "d:0.5", -1},
      {"10", "9", 1},       {"10", "9x", -1},    {"B", "a", -1},      {"x", "x", 0},
      {"d:0.5", "i:1", -1}, {"d:nan", "i:1", 1}, {"i:1", "d:nan", 1}, {"d:nan", "d:nan", 1},
      {"\xff", "a", 1},     {"0x10", "i:16", 0}, {"i:5", "5.0", 0},   {"d:2.5", "2.5x", -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.left) + " and " + c.right);
    for (const char* side : {c.left, c.right}) {
      if (strncmp(side, "i:", 2) == 0) {
        stack().PushI(atoi(side + 2));
      } else if (strncmp(side, "d:", 2) == 0) {
        stack().PushD(strtod(side + 2, nullptr));
      } else {
        PushText(side);
      }
    }
    int result = stack().Compare();
    EXPECT_EQ((result > 0) - (result < 0), c.sign);
    EXPECT_EQ(stack().Entries(), 0);
  }
}

TEST_F(ZephVM_StackTest, TextDifferenceIsThatOfTheFirstBytes) {
  PushText("ad");
  PushConstant("aa");
  EXPECT_EQ(stack().Compare(), 3);
  PushText("abc");
  PushBuffer("ab");
  EXPECT_EQ(stack().Compare(), 1);
}

TEST_F(ZephVM_StackTest, CompareReadsVariablesAndBuffers) {
  stack().PushV(Held("10"), 1, 1);
  PushBuffer("9");
  EXPECT_GT(stack().Compare(), 0);
  PushDyingVariable("abc");
  stack().PushV(Held("abd"), 0, 0);
  EXPECT_LT(stack().Compare(), 0);
}

// --- Concatenation -------------------------------------------------------------------------------

TEST_F(ZephVM_StackTest, ConcatenateOfAllPairsOfKinds) {
  const char* const kinds[] = {"integer", "double", "constant", "owned",
                               "buffer",  "lent",   "dying",    "held"};
  const auto push = [this](int kind, const char* text) {
    switch (kind) {
      case 0: stack().PushI(atoi(text)); break;
      case 1: stack().PushD(strtod(text, nullptr)); break;
      case 2: PushConstant(text); break;
      case 3: PushText(text); break;
      case 4: PushBuffer(text); break;
      case 5: PushBuffer(text, 0); break;
      case 6: PushDyingVariable(text); break;
      default: stack().PushV(Held(text), 0, 0);
    }
  };
  for (int left = 0; left < 8; left++) {
    for (int right = 0; right < 8; right++) {
      SCOPED_TRACE(std::string(kinds[left]) + " and " + kinds[right]);
      push(left, "12");
      push(right, "345");
      stack().Concatenate();
      ASSERT_EQ(stack().Entries(), 1);
      const bool left_owned = left == 3 || left == 4 || left == 6;
      const bool right_owned = right == 3 || right == 4 || right == 6;
      const bool chained = left_owned || right_owned;
      EXPECT_EQ(stack().Peek()->kind,
                chained ? ZephVM_Stack::KindLinkBuffer : ZephVM_Stack::KindString);
      EXPECT_EQ(stack().Peek()->deletable, 1u);
      EXPECT_EQ(PopText(stack()), "12345");
    }
  }
}

TEST_F(ZephVM_StackTest, NewTextIsTerminatedAndExact) {
  PushConstant("ab");
  PushConstant("c");
  stack().Concatenate();
  const ZephVM_Stack::Stack_Entry* top = stack().Peek();
  EXPECT_STREQ(top->value.text, "abc");
  EXPECT_EQ(top->length, 3);
  EXPECT_EQ(top->size, 4);
}

TEST_F(ZephVM_StackTest, LongRunBuildsOneBufferInPlace) {
  PushText("");
  LinkBuffer* buffer = nullptr;
  std::string expected;
  for (int i = 0; i < 20000; i++) {
    std::string piece = std::to_string(i) + ",";
    stack().PushI(i);
    stack().Concatenate();
    PushConstant(",");
    stack().Concatenate();
    if (!buffer) buffer = stack().Peek()->value.buffer;
    EXPECT_EQ(stack().Peek()->value.buffer, buffer);
    expected += piece;
  }
  EXPECT_EQ(PopText(stack()), expected);
}

TEST_F(ZephVM_StackTest, DumpShowsEveryEntry) {
  stack().PushI(42);
  stack().PushD(0.5);
  PushText("owned");
  PushConstant("constant");
  PushBuffer("chain");
  Variable* variable = Held("value");
  stack().PushV(variable, 0, 0);
  testing::internal::CaptureStdout();
  stack().Dump_Stack();
  char address[32];
  snprintf(address, sizeof address, "%lx", reinterpret_cast<unsigned long>(variable));
  const std::string pad(45, ' ');
  const auto text = [](const char* s) { return s + std::string(50 - strlen(s), ' '); };
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "SP = 6, SS = 512\n"
            "#   Type       D Data                                               Size\n"
            "0   Integer    n " +
                text("42") + " 4 4\n" + "1   Double     n " + text("0.500000") + " 8 8\n" +
                "2   String     Y " + text("owned") + " 5 6\n" + "3   String     n " +
                text("constant") + " 8 8\n" + "4   LinkBuffer Y " + text("chain") + " 8 8\n" +
                "5   Variable   n " + address + " v=value" + std::string(34, ' ') + " 8 8\n\n");
}

TEST_F(ZephVM_StackTest, DumpShowsACopyAsNotOwned) {
  PushText("owned");
  stack().Dupe();
  PushBuffer("chain");
  stack().Dupe();
  testing::internal::CaptureStdout();
  stack().Dump_Stack();
  const std::string dump = testing::internal::GetCapturedStdout();
  for (const char* line : {"0   String     Y owned ", "1   String     n owned ",
                           "2   LinkBuffer Y chain ", "3   LinkBuffer n chain "}) {
    EXPECT_NE(dump.find(line), std::string::npos) << line << "\n" << dump;
  }
}

}  // namespace
