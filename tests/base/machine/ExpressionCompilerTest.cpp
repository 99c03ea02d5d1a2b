// The code of expressions compiled at run time, instruction by instruction, and the messages for
// texts that are not expressions. ExpressionValuesTest runs the code.

#include "base/machine/ExpressionCompiler.h"

#include <gtest/gtest.h>

#include <new>

#include "base/core/ThreadMemory.h"
#include "base/machine/DoExpression.h"
#include "tests/support/ExpressionMachine.h"
#include "tests/support/FailingAllocator.h"
#include "tests/support/LibraryFixture.h"

namespace {

struct Case {
  const char* text;
  const char* code;
};

// One space between an instruction and its operands, and "; " between instructions.
template <size_t N>
void ExpectCode(const Case (&cases)[N]) {
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    ExpressionMachine machine;
    EXPECT_EQ(machine.Code(c.text), c.code);
  }
}

template <size_t N>
void ExpectMessages(const Case (&cases)[N]) {
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    ExpressionMachine machine;
    EXPECT_EQ(machine.Message(c.text), c.code);
  }
}

// --- Values --------------------------------------------------------------------------------------

TEST(ExpressionCompiler, Numbers) {
  ExpectCode({
      {"0", "pushi 0"},
      {"1", "pushi 1"},
      {"  42\t", "pushi 42"},
      {"007", "pushi 7"},
      {"2147483647", "pushi 2147483647"},
      {"2147483648", "pushi -2147483648"},
      {"4294967297", "pushi 1"},
      {"-5", "pushi -5"},
      {" \t\r\n-5\n", "pushi -5"},
      {"-2147483648", "pushi -2147483648"},
      {"0x10", "pushi 16"},
      {"0XfF", "pushi 255"},
      {"0xFFFFFFFF", "pushi -1"},
      {"1.5", "pushf 1.5"},
      {"-1.5", "pushf -1.5"},
      {"1.", "pushf 1"},
      {".5", "pushf 0.5"},
      {"-.5", "pushf -0.5"},
      {".", "pushf 0"},
      {"0x1.8", "pushf 1.5"},
      {"99999999999.0", "pushf 99999999999"},
      {"-0", "pushi 0"},
      {"0x1.", "pushf 1"},
  });
}

TEST(ExpressionCompiler, NumbersThatFailToConvertAreTexts) {
  ExpectCode({
      {"-0x10", "pushc \"-0x10\""},
      {"-0XfF", "pushc \"-0XfF\""},
      {"1 + -0x10", "pushi 1; pushc \"-0x10\"; add"},
  });
}

TEST(ExpressionCompiler, Texts) {
  ExpectCode({
      {"\"abc\"", "pushc \"abc\""},
      {"'abc'", "pushc \"abc\""},
      {"''", "pushc \"\""},
      {"\"\"", "pushc \"\""},
      {"\"it's\"", "pushc \"it's\""},
      {"'a \"b\" c'", "pushc \"a \"b\" c\""},
      {"'it\\'s'", "pushc \"it's\""},
      {"\"a\\\"b\"", "pushc \"a\"b\""},
      {"'a\\\"b'", "pushc \"a\"b\""},
      {"'a\\nb'", "pushc \"a\\nb\""},
      {"'a\\\\b'", "pushc \"a\\\\b\""},
      {"'1 + 2'", "pushc \"1 + 2\""},
      {"'(' $ ')'", "pushc \"(\"; pushc \")\"; cat"},
      {"('a)')", "pushc \"a)\""},
      {"'\\''", "pushc \"'\""},
  });
}

TEST(ExpressionCompiler, Variables) {
  ExpectCode({
      {"a", "pushnc a"},
      {"_a", "pushnc _a"},
      {"Abc9_x", "pushnc Abc9_x"},
      {"g.a", "pushnc g.a"},
      {"l.a", "pushnc l.a"},
      {"system.path", "pushnc system.path"},
      {"a.b.c", "pushnc a.b.c"},
      {"a[1]", "pushnc a; pushi 1; elem"},
      {"a[1][2]", "pushnc a; pushi 1; elem; pushi 2; elem"},
      {"a[b]", "pushnc a; pushnc b; elem"},
      {"a[b[1]]", "pushnc a; pushnc b; pushi 1; elem; elem"},
      {"a[b + 1]", "pushnc a; pushnc b; pushi 1; add; elem"},
      {"a[1][b + 1]", "pushnc a; pushi 1; elem; pushnc b; pushi 1; add; elem"},
      {"a[ (1) ]", "pushnc a; pushi 1; elem"},
      {"a[']']", "pushnc a; pushc \"]\"; elem"},
      {"a[]", "pushnc a; elem"},
      {"a:b", "pushnc a; pushc \"b\"; memb"},
      {"a:b:c", "pushnc a; pushc \"b\"; memb; pushc \"c\"; memb"},
      {"a:", "pushnc a; pushc \"\"; memb"},
      {"a:b[2]:c", "pushnc a; pushc \"b\"; memb; pushi 2; elem; pushc \"c\"; memb"},
      {"g.a[1]:b", "pushnc g.a; pushi 1; elem; pushc \"b\"; memb"},
      {"a:b[c * 2] + 1", "pushnc a; pushc \"b\"; memb; pushnc c; pushi 2; mul; elem; pushi 1; add"},
      {"a[1].b", "pushnc a; pushi 1; elem"},
      {"android", "pushnc android"},
      {"notx", "pushnc notx"},
      {"a_and_b", "pushnc a_and_b"},
      {"in1", "pushnc in1"},
  });
}

TEST(ExpressionCompiler, FieldsWithoutADatabaseGoByTheirName) {
  ExpectCode({
      {"d.name", "pushnc d.name"},
      {"database.name", "pushnc database.name"},
      {"x.d.name", "pushdc x name"},
      {"X.database.name", "pushdc X name"},
      {"orders.d.name", "pushdc orders name"},
      {"orders.DATABASE.name", "pushdc orders name"},
      {"l.d.name", "pushnc l.d.name"},
  });
}

TEST(ExpressionCompiler, FieldsOfTheDefaultDatabase) {
  const Case cases[] = {
      {"d.name", "pushdc people name"},
      {"D.name", "pushdc people name"},
      {"database.name", "pushdc people name"},
      {"orders.d.name", "pushdc orders name"},
      {"name", "pushnc name"},
      {"d.name $ d.city", "pushdc people name; pushdc people city; cat"},
      {"d.name:x[1]", "pushdc people name; pushc \"x\"; memb; pushi 1; elem"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    ExpressionMachine machine;
    machine.alias = "people";
    EXPECT_EQ(machine.Code(c.text), c.code);
  }
}

TEST(ExpressionCompiler, EmptyTextGivesNoCode) {
  ExpectCode({{"", ""}, {" \t\r\n", ""}, {"()", ""}, {"(( ))", ""}});
}

// --- Operators -----------------------------------------------------------------------------------

TEST(ExpressionCompiler, EveryInfixOperator) {
  ExpectCode({
      {"a + b", "pushnc a; pushnc b; add"},         {"a - b", "pushnc a; pushnc b; sub"},
      {"a $ b", "pushnc a; pushnc b; cat"},         {"a / b", "pushnc a; pushnc b; div"},
      {"a * b", "pushnc a; pushnc b; mul"},         {"a MOD b", "pushnc a; pushnc b; mod"},
      {"a BITAND b", "pushnc a; pushnc b; bitand"}, {"a BITOR b", "pushnc a; pushnc b; bitor"},
      {"a BITXOR b", "pushnc a; pushnc b; bitxor"}, {"a BITSL b", "pushnc a; pushnc b; bitsl"},
      {"a BITSR b", "pushnc a; pushnc b; bitsr"},   {"a AND b", "pushnc a; pushnc b; and"},
      {"a OR b", "pushnc a; pushnc b; or"},         {"a IN b", "pushnc a; pushnc b; in"},
      {"a CIN b", "pushnc a; pushnc b; cin"},       {"a EIN b", "pushnc a; pushnc b; ein"},
      {"a ECIN b", "pushnc a; pushnc b; ecin"},     {"a EQ b", "pushnc a; pushnc b; eq"},
      {"a NE b", "pushnc a; pushnc b; ne"},         {"a GE b", "pushnc a; pushnc b; ge"},
      {"a LE b", "pushnc a; pushnc b; le"},         {"a LT b", "pushnc a; pushnc b; lt"},
      {"a GT b", "pushnc a; pushnc b; gt"},         {"a ROUNDS b", "pushnc a; pushnc b; rounds"},
      {"a ROUNDF b", "pushnc a; pushnc b; roundf"}, {"a CRYPT b", "pushnc a; pushnc b; crypt"},
      {"a POW b", "pushnc a; pushnc b; pow"},
  });
}

TEST(ExpressionCompiler, EveryPrefixOperator) {
  ExpectCode({
      {"BITOC a", "pushnc a; bitoc"},
      {"NOT a", "pushnc a; not"},
      {"ISNULL a", "pushnc a; isnull"},
      {"NOT(a)", "pushnc a; not"},
      {"not (a)", "pushnc a; not"},
      {"bitoc(a)", "pushnc a; bitoc"},
      {"NOT NOT a", "pushnc a; not; not"},
      {"NOT ISNULL a", "pushnc a; isnull; not"},
      {"BITOC BITOC a", "pushnc a; bitoc; bitoc"},
      {"++a", "pushnc a; dup; pushi 1; add; dup; swapn 0 2; store"},
      {"--a", "pushnc a; dup; pushi 1; sub; dup; swapn 0 2; store"},
      {"++ a", "pushnc a; dup; pushi 1; add; dup; swapn 0 2; store"},
      {"++a[2]", "pushnc a; pushi 2; elem; dup; pushi 1; add; dup; swapn 0 2; store"},
      {"++a:b", "pushnc a; pushc \"b\"; memb; dup; pushi 1; add; dup; swapn 0 2; store"},
  });
}

TEST(ExpressionCompiler, IncrementAfterAValueLeavesTheOldValue) {
  ExpectCode({
      {"a++", "pushnc a; dup; pushi 0; add; swap; dup; pushi 1; add; swap; store"},
      {"a--", "pushnc a; dup; pushi 0; add; swap; dup; pushi 1; sub; swap; store"},
      {"a ++", "pushnc a; dup; pushi 0; add; swap; dup; pushi 1; add; swap; store"},
      {"(a)++", "pushnc a; dup; pushi 0; add; swap; dup; pushi 1; add; swap; store"},
      {"a[1]--",
       "pushnc a; pushi 1; elem; dup; pushi 0; add; swap; dup; pushi 1; sub; swap; store"},
      {"a++ + b",
       "pushnc a; dup; pushi 0; add; swap; dup; pushi 1; add; swap; store; pushnc b; add"},
      {"a+++b", "pushnc a; dup; pushi 0; add; swap; dup; pushi 1; add; swap; store; pushnc b; add"},
      {"a++-5", "pushnc a; dup; pushi 0; add; swap; dup; pushi 1; add; swap; store; pushi 5; sub"},
      {"b * a++",
       "pushnc b; pushnc a; dup; pushi 0; add; swap; dup; pushi 1; add; swap; store; mul"},
      {"b + ++a", "pushnc b; pushnc a; dup; pushi 1; add; dup; swapn 0 2; store; add"},
      {"b - --a * 2",
       "pushnc b; pushnc a; dup; pushi 1; sub; dup; swapn 0 2; store; pushi 2; mul; sub"},
      {"NOT ++a", "pushnc a; dup; pushi 1; add; dup; swapn 0 2; store; not"},
      {"++a + b", "pushnc a; dup; pushi 1; add; dup; swapn 0 2; store; pushnc b; add"},
  });
}

TEST(ExpressionCompiler, OperatorsMatchInAnyCase) {
  ExpectCode({
      {"a mod b", "pushnc a; pushnc b; mod"},
      {"a Mod b", "pushnc a; pushnc b; mod"},
      {"a MOD b", "pushnc a; pushnc b; mod"},
      {"a bitXOR b", "pushnc a; pushnc b; bitxor"},
      {"isNull a", "pushnc a; isnull"},
      {"a Rounds 2", "pushnc a; pushi 2; rounds"},
  });
}

TEST(ExpressionCompiler, OperatorsNeedNoWhitespaceNextToOtherBytes) {
  ExpectCode({
      {"1+2", "pushi 1; pushi 2; add"},
      {"a+b", "pushnc a; pushnc b; add"},
      {"1AND 2", "pushi 1; pushi 2; and"},
      {"'a'EQ'b'", "pushc \"a\"; pushc \"b\"; eq"},
      {"(a)AND(b)", "pushnc a; pushnc b; and"},
      {"a\nEQ\t1", "pushnc a; pushi 1; eq"},
      {"a EQ(1)", "pushnc a; pushi 1; eq"},
  });
}

TEST(ExpressionCompiler, TheTighterOperatorComesFirst) {
  ExpectCode({
      {"1 + 2 * 3", "pushi 1; pushi 2; pushi 3; mul; add"},
      {"1 * 2 + 3", "pushi 1; pushi 2; mul; pushi 3; add"},
      {"1 + 2 * 3 + 4", "pushi 1; pushi 2; pushi 3; mul; add; pushi 4; add"},
      {"1 + 2 * 3 POW 4 - 5", "pushi 1; pushi 2; pushi 3; pushi 4; pow; mul; add; pushi 5; sub"},
      {"1 POW 2 * 3", "pushi 1; pushi 2; pow; pushi 3; mul"},
      {"a EQ 1 AND b EQ 2", "pushnc a; pushi 1; eq; pushnc b; pushi 2; eq; and"},
      {"a EQ 1 OR b EQ 2 AND c", "pushnc a; pushi 1; eq; pushnc b; pushi 2; eq; or; pushnc c; and"},
      {"a + 1 GT b * 2", "pushnc a; pushi 1; add; pushnc b; pushi 2; mul; gt"},
      {"a GT b + 1 AND c", "pushnc a; pushnc b; pushi 1; add; gt; pushnc c; and"},
      {"NOT a EQ b", "pushnc a; not; pushnc b; eq"},
      {"NOT (a EQ b)", "pushnc a; pushnc b; eq; not"},
      {"a AND NOT b", "pushnc a; pushnc b; not; and"},
      {"a AND NOT b OR c", "pushnc a; pushnc b; not; and; pushnc c; or"},
      {"a POW NOT b", "pushnc a; pushnc b; not; pow"},
      {"'a' $ 1 + 2", "pushc \"a\"; pushi 1; cat; pushi 2; add"},
      {"a IN b $ c", "pushnc a; pushnc b; pushnc c; cat; in"},
      {"a ROUNDS 2 $ 'x'", "pushnc a; pushi 2; rounds; pushc \"x\"; cat"},
      {"a * b ROUNDF 1", "pushnc a; pushnc b; pushi 1; roundf; mul"},
      {"1 OR 2 EQ 3 + 4 * 5 POW NOT 6",
       "pushi 1; pushi 2; pushi 3; pushi 4; pushi 5; pushi 6; not; pow; mul; add; eq; or"},
      {"NOT 1 POW 2 * 3 + 4 EQ 5 OR 6",
       "pushi 1; not; pushi 2; pow; pushi 3; mul; pushi 4; add; pushi 5; eq; pushi 6; or"},
      {"1 AND 2 * 3 EQ 4", "pushi 1; pushi 2; pushi 3; mul; pushi 4; eq; and"},
      {"ISNULL a AND ISNULL b", "pushnc a; isnull; pushnc b; isnull; and"},
      {"BITOC a * b", "pushnc a; pushnc b; mul; bitoc"},
      {"BITOC a EQ b", "pushnc a; bitoc; pushnc b; eq"},
  });
}

TEST(ExpressionCompiler, EqualPrecedenceGoesToTheLeft) {
  ExpectCode({
      {"1 - 2 - 3", "pushi 1; pushi 2; sub; pushi 3; sub"},
      {"1 / 2 / 3 / 4", "pushi 1; pushi 2; div; pushi 3; div; pushi 4; div"},
      {"2 POW 3 POW 4", "pushi 2; pushi 3; pow; pushi 4; pow"},
      {"1 + 2 $ 3 - 4", "pushi 1; pushi 2; add; pushi 3; cat; pushi 4; sub"},
      {"1 * 2 MOD 3 / 4", "pushi 1; pushi 2; mul; pushi 3; mod; pushi 4; div"},
      {"1 EQ 2 NE 3", "pushi 1; pushi 2; eq; pushi 3; ne"},
      {"1 OR 2 AND 3", "pushi 1; pushi 2; or; pushi 3; and"},
      {"1 + 2 * 3 / 4", "pushi 1; pushi 2; pushi 3; mul; pushi 4; div; add"},
      {"8 BITAND 12 BITSL 1", "pushi 8; pushi 12; bitand; pushi 1; bitsl"},
  });
}

TEST(ExpressionCompiler, ComplementTakesWhatIsOfItsRank) {
  ExpectCode({
      {"BITOC a + b", "pushnc a; pushnc b; add; bitoc"},
      {"BITOC a + b - c", "pushnc a; pushnc b; add; bitoc; pushnc c; sub"},
      {"1 + (BITOC 2)", "pushi 1; pushi 2; bitoc; add"},
  });
}

// The first operator is emitted when the next one has the same or a lower precedence, whatever is
// between them.
TEST(ExpressionCompiler, LoosePrefixOperatorsComeTooLateForTheOperatorInFront) {
  ExpectCode({
      {"1 + BITOC 2", "pushi 1; add; pushi 2; bitoc"},
      {"1 EQ BITOC 2", "pushi 1; pushi 2; bitoc; eq"},
      {"++(a)", "dup; pushi 1; add; dup; swapn 0 2; store; pushnc a"},
  });
}

TEST(ExpressionCompiler, Parentheses) {
  ExpectCode({
      {"(1)", "pushi 1"},
      {"((1))", "pushi 1"},
      {"(1 + 2) * 3", "pushi 1; pushi 2; add; pushi 3; mul"},
      {"3 * (1 + 2)", "pushi 3; pushi 1; pushi 2; add; mul"},
      {"3 * (1 + 2) + 4", "pushi 3; pushi 1; pushi 2; add; mul; pushi 4; add"},
      {"3 + (1 + 2) * 4", "pushi 3; pushi 1; pushi 2; add; pushi 4; mul; add"},
      {"1 - (2 - 3)", "pushi 1; pushi 2; pushi 3; sub; sub"},
      {"1 - (2 - (3 - 4))", "pushi 1; pushi 2; pushi 3; pushi 4; sub; sub; sub"},
      {"(a AND b) OR (c AND d)", "pushnc a; pushnc b; and; pushnc c; pushnc d; and; or"},
      {"(1)+(2)", "pushi 1; pushi 2; add"},
      {"NOT (a) EQ b", "pushnc a; not; pushnc b; eq"},
      {"NOT (a)", "pushnc a; not"},
      {"2 POW (1 + 2) * 3", "pushi 2; pushi 1; pushi 2; add; pow; pushi 3; mul"},
  });
}

TEST(ExpressionCompiler, SignsOfNumbers) {
  ExpectCode({
      {"-5 + 3", "pushi -5; pushi 3; add"},
      {"2 - -3", "pushi 2; pushi -3; sub"},
      {"2 - 3", "pushi 2; pushi 3; sub"},
      {"2-3", "pushi 2; pushi 3; sub"},
      {"2 -3", "pushi 2; pushi 3; sub"},
      {"2 * -3", "pushi 2; pushi -3; mul"},
      {"2*-.5", "pushi 2; pushf -0.5; mul"},
      {"a -5", "pushnc a; pushi 5; sub"},
      {"(a)-5", "pushnc a; pushi 5; sub"},
      {"(a) -5", "pushnc a; pushi 5; sub"},
      {"(-5)", "pushi -5"},
      {"NOT -5", "pushi -5; not"},
      {"a[-1]", "pushnc a; pushi -1; elem"},
      {"a EQ -1 AND b", "pushnc a; pushi -1; eq; pushnc b; and"},
      {"-1 - -1 - -1", "pushi -1; pushi -1; sub; pushi -1; sub"},
  });
}

TEST(ExpressionCompiler, WhatIsAfterAnOperatorMayBeMissing) {
  ExpectCode({
      {"1 +", "pushi 1; add"},
      {"NOT", "not"},
      {"a AND", "pushnc a; and"},
      {"1 + 2 *", "pushi 1; pushi 2; mul; add"},
      {"++", "dup; pushi 1; add; dup; swapn 0 2; store"},
  });
}

TEST(ExpressionCompiler, PrefixOperatorsAndGroupsAfterAValueLeaveBoth) {
  ExpectCode({
      {"a NOT b", "pushnc a; pushnc b; not"},
      {"a (b)", "pushnc a; pushnc b"},
      {"(a) b", "pushnc a; pushnc b"},
      {"(a)(b)", "pushnc a; pushnc b"},
  });
}

TEST(ExpressionCompiler, WordsAreOperatorsAfterPointsToo) {
  ExpectCode({
      {"a.in", "pushnc a.; in"},
      {"a.in b", "pushnc a.; pushnc b; in"},
      {"_and", "pushnc _; and"},
  });
}

// --- Functions -----------------------------------------------------------------------------------

class ExpressionFunctions : public testing::Test {
 protected:
  ExpressionFunctions() {
    Declare("now", "");
    Declare("half", "x");
    Declare("sum", "a, b");
  }
  void Declare(const char* name, const char* parameters) {
    machine.functions.Function_Add(1, 0, name, -1, parameters, -1, 0);
  }

  ExpressionMachine machine;
};

TEST_F(ExpressionFunctions, ArgumentsAreEmittedInOrder) {
  const Case cases[] = {
      {"now()", "call now"},
      {"now( )", "call now"},
      {"NOW()", "call now"},
      {"half(1)", "pushi 1; call half"},
      {"half( a )", "pushnc a; call half"},
      {"sum(1, 2)", "pushi 1; pushi 2; call sum"},
      {"sum(a + 1, 'x,y')", "pushnc a; pushi 1; add; pushc \"x,y\"; call sum"},
      {"sum(half(1), half(2))", "pushi 1; call half; pushi 2; call half; call sum"},
      {"sum((1), (2 + 3) * 4)", "pushi 1; pushi 2; pushi 3; add; pushi 4; mul; call sum"},
      {"half(1) + half(2) * 3", "pushi 1; call half; pushi 2; call half; pushi 3; mul; add"},
      {"NOT half(1)", "pushi 1; call half; not"},
      {"a[half(1)]", "pushnc a; pushi 1; call half; elem"},
      {"half(a[1]:b)", "pushnc a; pushi 1; elem; pushc \"b\"; memb; call half"},
      {"half(-1)", "pushi -1; call half"},
      {"half(1)-1", "pushi 1; call half; pushi 1; sub"},
      {"half(++a)", "pushnc a; dup; pushi 1; add; dup; swapn 0 2; store; call half"},
      {"half(')')", "pushc \")\"; call half"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(machine.Code(c.text), c.code);
  }
}

TEST_F(ExpressionFunctions, TrailingCommasDontCount) {
  EXPECT_EQ(machine.Code("half(1,)"), "pushi 1; call half");
  EXPECT_EQ(machine.Code("half(1, )"), "pushi 1; call half");
  EXPECT_EQ(machine.Code("sum(1, 2,)"), "pushi 1; pushi 2; call sum");
  EXPECT_EQ(machine.Message("sum(1,)"),
            "Function 'sum' is defined with 2 parameters and was called with 1");
}

// A call never pops an entry that the expression has not pushed.
TEST_F(ExpressionFunctions, EmptyArgumentsDontCountEither) {
  EXPECT_EQ(machine.Message("sum(,1)"),
            "Function 'sum' is defined with 2 parameters and was called with 1");
  EXPECT_EQ(machine.Code("sum(1,,2)"), "pushi 1; pushi 2; call sum");
}

TEST_F(ExpressionFunctions, AnotherNumberOfArgumentsIsAnError) {
  EXPECT_EQ(machine.Message("half()"),
            "Function 'half' is defined with 1 parameters and was called with 0");
  EXPECT_EQ(machine.Message("now(1)"),
            "Function 'now' is defined with 0 parameters and was called with 1");
  EXPECT_EQ(machine.Message("1 + HALF(1, 2, 3)"),
            "Function 'HALF' is defined with 1 parameters and was called with 3");
}

TEST_F(ExpressionFunctions, UnknownFunctionsAreErrors) {
  EXPECT_EQ(machine.Message("nothing(1)"), "Unable to find function 'nothing'");
  EXPECT_EQ(machine.Message("1 + _f()"), "Unable to find function '_f'");
  EXPECT_EQ(machine.Message("half(other())"), "Unable to find function 'other'");
}

TEST_F(ExpressionFunctions, TheParentsExternalFunctionsAreCopied) {
  FunctionManager parent(&machine.dictionary, 8);
  parent.Function_Add("outside", -1, Function_External)->SetParameters("x, y var", -1);
  parent.Function_Add(1, 0, "inside", -1, "x", -1, 0);
  machine.parent = &parent;
  EXPECT_EQ(machine.Code("outside(1, a)"), "pushi 1; pushnc a; call outside");
  Function* copy = machine.functions.Function_Get("outside", -1);
  ASSERT_NE(copy, nullptr);
  EXPECT_TRUE(copy->flags() & Function_External);
  ASSERT_EQ(copy->slots().size(), 2u);
  EXPECT_TRUE(copy->slots()[1]->byreference());
  // The second time, it is already there.
  EXPECT_EQ(machine.Code("outside(1, a)"), "pushi 1; pushnc a; call outside");
  EXPECT_EQ(machine.functions.Functions(), 4);
  EXPECT_EQ(machine.Message("inside(1)"), "Unable to find function 'inside'");
}

class ExpressionLibraries : public LibraryFixture {};

void Nothing(ZephVM*, VariableHash*, Variable*, void**) {}

TEST_F(ExpressionLibraries, AFunctionOfALibraryNeedsNoDeclaration) {
  _ZP_EL_Parameter parameters[] = {{"x", 1, 0}, {"y", 1, _ZP_EL_ByReference}};
  _ZP_EL_Function rows[] = {{"Listed", 6, 2, parameters, &Nothing},
                            {nullptr, 0, 0, nullptr, nullptr}};
  _ZP_EL_FunctionTable table = {0, rows};
  Exported<void*>("fake_function_table") = &table;
  ExternalCallManager calls(&application);
  ASSERT_TRUE(calls.RegisterDSO(fake.c_str()));
  ExpressionMachine machine;
  FunctionManager parent(&machine.dictionary, 8);
  machine.calls = &calls;
  machine.parent = &parent;
  EXPECT_EQ(machine.Code("listed(1, a)"), "pushi 1; pushnc a; call listed");
  Function* function = machine.functions.Function_Get("LISTED", -1);
  ASSERT_NE(function, nullptr);
  EXPECT_TRUE(function->flags() & Function_External);
  EXPECT_EQ(function->calldata, calls.Lookup_External("listed", -1));
  ASSERT_EQ(function->slots().size(), 2u);
  EXPECT_FALSE(function->slots()[0]->byreference());
  EXPECT_TRUE(function->slots()[1]->byreference());
  Function* parents = parent.Function_Get("listed", -1);
  ASSERT_NE(parents, nullptr);
  EXPECT_TRUE(parents->flags() & Function_External);
  EXPECT_EQ(parents->parameters().Entries(), 2);
}

// Memory may run out while the function is bound. What is found later is whole.
TEST_F(ExpressionLibraries, AFunctionOfALibraryHasItsParametersAlsoAfterABlockWasRefused) {
  if (!ThreadMemory::NewIsHere()) GTEST_SKIP() << "the operators are the sanitizer's";
  _ZP_EL_Parameter parameters[] = {{"x", 1, 0}, {"y", 1, _ZP_EL_ByReference}};
  _ZP_EL_Function rows[] = {{"Listed", 6, 2, parameters, &Nothing},
                            {nullptr, 0, 0, nullptr, nullptr}};
  _ZP_EL_FunctionTable table = {0, rows};
  Exported<void*>("fake_function_table") = &table;
  bool refused = true;
  for (long block = 1; refused; block++) {
    SCOPED_TRACE(block);
    ExternalCallManager calls(&application);
    ASSERT_TRUE(calls.RegisterDSO(fake.c_str()));
    ExpressionMachine machine;
    FunctionManager parent(&machine.dictionary, 8);
    machine.calls = &calls;
    machine.parent = &parent;
    const std::string text = "listed(1, a)";
    {
      const FailingAllocator allocator(block, FailingAllocator::Once);
      try {
        ExpressionCompiler compiler(&calls, &machine.segments, &machine.dictionary,
                                    &machine.functions, &parent, text.data(),
                                    static_cast<int>(text.size()), nullptr, nullptr, 0, nullptr, 0,
                                    0, machine.version);
        (void)compiler.Run();
      } catch (const std::bad_alloc&) {
      }
      refused = FailingAllocator::Refused();
    }
    EXPECT_EQ(machine.Code(text), "pushi 1; pushnc a; call listed");
    Function* function = machine.functions.Function_Get("listed", -1);
    ASSERT_NE(function, nullptr);
    EXPECT_EQ(function->slots().size(), 2u);
    // The parent's copy may be missing: it is made again where it is needed.
    Function* parents = parent.Function_Get("listed", -1);
    if (parents) {
      EXPECT_EQ(parents->slots().size(), 2u);
    }
  }
}

// --- Source files and lines ----------------------------------------------------------------------

TEST_F(ExpressionFunctions, TheSourceFileComesFirstAndTheLineWhereItCanFail) {
  machine.source_file = "page.zp";
  machine.line = 12;
  const Case cases[] = {
      {"", "sourcefile page.zp"},
      {" ", "sourcefile page.zp"},
      {"5", "sourcefile page.zp; pushi 5"},
      {"a", "sourcefile page.zp; lineno 12; pushnc a"},
      {"1 + 2", "sourcefile page.zp; pushi 1; pushi 2; lineno 12; add"},
      {"a + b", "sourcefile page.zp; lineno 12; pushnc a; pushnc b; add"},
      {"half(1)", "sourcefile page.zp; lineno 12; pushi 1; call half; sourcefile page.zp"},
      {"half(1) + a",
       "sourcefile page.zp; lineno 12; pushi 1; call half; sourcefile page.zp; lineno 12; "
       "pushnc a; add"},
      {"half(half(1)) + 2",
       "sourcefile page.zp; lineno 12; pushi 1; call half; sourcefile page.zp; call half; "
       "sourcefile page.zp; pushi 2; lineno 12; add"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(machine.Code(c.text), c.code);
  }
}

TEST(ExpressionCompiler, WithoutASourceFileThereAreNoLines) {
  ExpressionMachine machine;
  machine.line = 12;
  EXPECT_EQ(machine.Code("a + 1"), "pushnc a; pushi 1; add");
}

TEST(ExpressionCompiler, AnEmptyExpressionLeavesTheStackEmpty) {
  ExpressionMachine machine;
  machine.source_file = "page.zp";
  EXPECT_EQ(machine.Run(" "), "");
  EXPECT_EQ(machine.end, 6);
}

// --- Messages ------------------------------------------------------------------------------------

TEST(ExpressionCompiler, MissingArguments) {
  const char* message = "Argument expected in Expression";
  ExpectMessages({
      {"+", message},
      {"* 2", message},
      {"AND", message},
      {"EQ 1", message},
      {"- a", message},
      {"- 5", message},
      {"-(5)", message},
      {"-a", message},
      {"1 + * 2", message},
      {"1 * + 2", message},
      {"1 - - 2", message},
      {"NOT AND a", message},
      {"(+ 1)", message},
      {"a[* 1]", message},
      {"1 + (* 2)", message},
      {"a AND OR b", message},
      {"$$", message},
  });
}

TEST(ExpressionCompiler, MismatchedParentheses) {
  const char* group = "Mismatched Parentheses in Expression";
  const char* found = "Mismatched Parentheses found in Expression";
  ExpectMessages({
      {"(", group},
      {"(1", group},
      {"((1)", group},
      {"1 + (2", group},
      {"NOT(1", group},
      {"a[(1]", group},
      {"f(", found},
      {"f(1, (2)", found},
      {"a[1", found},
      {"a[b[1]", found},
      {"a:b[1", found},
      {"1 + a[", found},
      {"a[1][2", found},
  });
}

TEST(ExpressionCompiler, MismatchedQuotes) {
  const char* message = "Mismatched Quotes found in Expression";
  ExpectMessages({
      {"'", message},
      {"\"abc'", message},
      {"'abc\\'", message},
      {"1 + 'a", message},
      {"('a)", message},
      {"f('a)", message},
      {"a['b]", message},
  });
}

TEST(ExpressionCompiler, BytesThatBeginNoValue) {
  ExpectMessages({
      {"#", "Invalid Argument '#' Found in expression"},
      {"1 + ^", "Invalid Argument '^' Found in expression"},
      {"|a", "Invalid Argument '|' Found in expression"},
      {"+5", "Invalid Argument '+' Found in expression"},
      {")", "Invalid Argument ')' Found in expression"},
      {"(1))", "Invalid Argument ')' Found in expression"},
      {"]", "Invalid Argument ']' Found in expression"},
      {"=1", "Invalid Argument '=' Found in expression"},
      {":a", "Invalid Argument ':' Found in expression"},
      {"\xC3\xA4", "Invalid Argument '\xC3' Found in expression"},
  });
}

TEST(ExpressionCompiler, BytesThatNoNameHas) {
  ExpectMessages({
      {"a^b", "Invalid Argument '^' in Expression"},
      {"a|b", "Invalid Argument '|' in Expression"},
      {"a=b", "Invalid Argument '=' in Expression"},
      {"a)", "Invalid Argument ')' in Expression"},
      {"a.b(1)", "Invalid Argument '(' in Expression"},
      {"a, b", "Invalid Argument ',' in Expression"},
      {"a'b'", "Invalid Argument ''' in Expression"},
      {"1 + a; b", "Invalid Argument ';' in Expression"},
  });
}

TEST(ExpressionCompiler, WhatIsLeftBehindAValue) {
  ExpectMessages({
      {"a b", "Found additional argument 'b' while looking for operator"},
      {"1 2", "Found additional argument '2' while looking for operator"},
      {"1 ^ 2", "Found additional argument '^' while looking for operator"},
      {"a ^ b", "Found additional argument '^' while looking for operator"},
      {"5a", "Found additional argument 'a' while looking for operator"},
      {"1.2.3", "Found additional argument '.' while looking for operator"},
      {"0x", "Found additional argument 'x' while looking for operator"},
      {"1e5", "Found additional argument 'e' while looking for operator"},
      {"'a' 'b'", "Found additional argument ''' while looking for operator"},
      {"'a'b", "Found additional argument 'b' while looking for operator"},
      {"a [1]", "Found additional argument '[' while looking for operator"},
      {"1 GTE 2", "Found additional argument 'G' while looking for operator"},
      {"1 + 2 3 * 4", "Found additional argument '3' while looking for operator"},
      {"'b' _in c", "Found additional argument '_' while looking for operator"},
  });
}

TEST(ExpressionCompiler, NulBytesAfterAValueArePassedOver) {
  ExpressionMachine machine;
  EXPECT_EQ(machine.Code(std::string_view("1 \0\0", 4)), "pushi 1");
  using namespace std::string_literals;
  EXPECT_EQ(machine.Message("\0"s), "Invalid Argument '\0' Found in expression"s);
  EXPECT_EQ(machine.Message("a\0b"s), "Invalid Argument '\0' in Expression"s);
}

TEST(ExpressionCompiler, IncrementNeedsItsVersionOfTheFormat) {
  for (const char* text : {"++a", "a++", "--a", "a--"}) {
    SCOPED_TRACE(text);
    ExpressionMachine machine;
    machine.version = 0x10008;
    EXPECT_EQ(machine.Message(text), "Invalid operator found in expression");
    machine.version = 0x10009;
    EXPECT_TRUE(machine.Compile(text));
  }
}

TEST(ExpressionCompiler, AnOperatorWithoutAnInstructionIsInvalid) {
  ExpressionMachine machine;
  ExpressionCompiler compiler(nullptr, &machine.segments, &machine.dictionary, &machine.functions,
                              nullptr, "", 0, nullptr, nullptr, 0, nullptr, 0, 0, 0x1000B);
  EXPECT_FALSE(compiler.CompileOperator(ExpressionCompiler::IsOperator("(", 1)));
  EXPECT_EQ(Text(compiler.error()), "Invalid Operator '(' Found in Expression");
  EXPECT_EQ(compiler.position(), 0);
}

TEST(ExpressionCompiler, WhatWasEmittedBeforeAFailureStays) {
  ExpressionMachine machine;
  EXPECT_FALSE(machine.Compile("1 + 2 ^"));
  EXPECT_EQ(machine.Listing(), "pushi 1; pushi 2");
}

// --- Nesting -------------------------------------------------------------------------------------

std::string Nested(const char* before, const char* inner, const char* after, int levels) {
  std::string text;
  for (int i = 0; i < levels; i++) text += before;
  text += inner;
  for (int i = 0; i < levels; i++) text += after;
  return text;
}

TEST(ExpressionCompiler, NestingHasALimit) {
  const struct {
    const char* before;
    const char* after;
  } cases[] = {{"(", ")"}, {"a[", "]"}, {"f(", ")"}, {"NOT ", ""}, {"BITOC ", ""}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.before);
    ExpressionMachine machine;
    machine.functions.Function_Add(1, 0, "f", -1, "x", -1, 0);
    const int most = ExpressionCompiler::MostNested;
    EXPECT_TRUE(machine.Compile(Nested(c.before, "1", c.after, most - 1))) << machine.failure;
    EXPECT_EQ(machine.Message(Nested(c.before, "1", c.after, most + 1)),
              "Mismatched Parentheses in Expression");
    EXPECT_EQ(machine.Message(Nested(c.before, "1", c.after, 20000)),
              "Mismatched Parentheses in Expression");
  }
}

TEST(ExpressionCompiler, FlatExpressionsMayBeLong) {
  ExpressionMachine machine;
  std::string text = "1";
  for (int i = 0; i < 20000; i++) text += " + 2 * 3";
  EXPECT_EQ(machine.Run(text), "d120001");
  EXPECT_EQ(machine.operators, 40000);
}

// --- Where the code goes -------------------------------------------------------------------------

TEST(ExpressionCompiler, WithoutASegmentItTakesANewOne) {
  ExpressionMachine machine;
  const int segments = machine.segments.Segments();
  ExpressionCompiler compiler(nullptr, &machine.segments, &machine.dictionary, &machine.functions,
                              nullptr, "1 + 2", -1, nullptr, nullptr, 0, nullptr, 0, 0, 0x1000B);
  EXPECT_EQ(compiler.Run(), 1);
  EXPECT_EQ(compiler.segment(), machine.segments.Lookup(segments));
  EXPECT_EQ(compiler.segment()->length(), 14);
  EXPECT_EQ(compiler.position(), 14);
  EXPECT_EQ(compiler.operators(), 1);
}

TEST(ExpressionCompiler, CodeStartsAtThePosition) {
  ExpressionMachine machine;
  machine.Op(Instruction::pushi, 9);
  EXPECT_EQ(machine.Run("1 + 2"), "9 d3");
}

TEST(ExpressionCompiler, EmptyTextsAreOfWhitespaceOnly) {
  EXPECT_TRUE(ExpressionCompiler::Expression_Empty("", 0));
  EXPECT_TRUE(ExpressionCompiler::Expression_Empty(nullptr, 0));
  EXPECT_TRUE(ExpressionCompiler::Expression_Empty(" \t\r\n", -1));
  EXPECT_FALSE(ExpressionCompiler::Expression_Empty("\v", 1));
  EXPECT_FALSE(ExpressionCompiler::Expression_Empty("\0", 1));
  EXPECT_FALSE(ExpressionCompiler::Expression_Empty(" 0 ", -1));
}

TEST(ExpressionCompiler, WordsAreOperatorsInWholeOnly) {
  EXPECT_EQ(ExpressionCompiler::IsOperator("mOd", 3)->id, 28);
  EXPECT_EQ(ExpressionCompiler::IsOperator("++", 2)->precedence, 8);
  EXPECT_EQ(ExpressionCompiler::IsOperator("", 0), nullptr);
  EXPECT_EQ(ExpressionCompiler::IsOperator("MO", 2), nullptr);
  EXPECT_EQ(ExpressionCompiler::IsOperator("ROUNDSX", 7), nullptr);
}

// --- The cache -----------------------------------------------------------------------------------

TEST(DoExpression, IsFoundByItsTextWithoutRegardToCase) {
  DoExpressionTable table(1, 1, 12, 512);
  Segment first(1), second(2);
  char text[] = "f(1)";
  table.Insert(new DoExpression(text, 4, &first));
  table.Insert(new DoExpression("g(1)", -1, &second));
  text[0] = 'x';
  ASSERT_NE(table.Find("f(1)", -1), nullptr);
  EXPECT_EQ(table.Find("F(1)", 4)->segment(), &first);
  EXPECT_EQ(table.Find("g(1)", 4)->segment(), &second);
  EXPECT_EQ(table.Find("x(1)", 4), nullptr);
  EXPECT_EQ(Text(table.Find("f(1)", 4)->text()), "f(1)");
}

}  // namespace
