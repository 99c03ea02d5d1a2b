// Expressions of pages against the same texts at run time: both have one value, or neither has.

#include <gtest/gtest.h>

#include <random>

#include "base/machine/ExpressionCompiler.h"
#include "tests/support/CompiledPages.h"
#include "tests/support/ExpressionMachine.h"

namespace {

// The variables that expressions may use.
constexpr char kSetup[] =
    "<ZpFUNCTION half(x)><ZpFUNCTIONRETURN x / 2></ZpFUNCTION>"
    "<ZpFUNCTION both(x, y)><ZpFUNCTIONRETURN x $ y></ZpFUNCTION>"
    "<ZpFUNCTION grow(x var)><ZpASSIGN x = x + 1><ZpFUNCTIONRETURN x></ZpFUNCTION>"
    "<ZpASSIGN i = 7  n = -2.5  t = \"text 9\"  e = \"\"  h = \"0x10\"  a[1] = 4  a[2] = \"two\""
    "  s:m = 3  s:list[2] = \"abc\">";
constexpr char kState[] =
    "{{{ i }}}|{{{ n }}}|{{{ t }}}|{{{ a[1] }}}|{{{ a[2] }}}|{{{ s:m }}}|{{{ s:list[2] }}}";

struct Outcome {
  std::string value;
  std::string state;  // of the variables afterwards
};

// Runs a page. The value is what it writes, up to a "#".
Outcome RunPage(const std::string& page) {
  const CompileResult result = CompileText(page);
  for (const CompileMessage& message : result.messages) {
    if (message.is_error) return {"error", message.text};
  }
  Machine machine;
  machine.Load(result.image);
  if (machine.Go() != 1) return {"stopped: " + machine.Failure(), ""};
  const std::string output = machine.Output();
  const size_t mark = output.find('#');
  return {output.substr(0, mark), output.substr(mark + 1)};
}

Outcome InPage(const std::string& text) {
  return RunPage(std::string(kSetup) + "{{{ " + text + " }}}#" + kState);
}

// The same text, compiled by the running machine, on the same variables.
Outcome AtRunTime(const std::string& text) {
  const CompileResult setup = CompileText(std::string(kSetup));
  EXPECT_TRUE(setup.succeeded) << setup.formatted;
  Machine machine;
  machine.Load(setup.image);
  EXPECT_EQ(machine.Go(), 1);
  String error;
  Segment* segment = machine.vm().Compile_Dynamic_Expression(
      text.data(), static_cast<int>(text.size()), nullptr, nullptr, &error, nullptr, 0, 0);
  if (!segment) return {"error", ""};
  if (machine.vm().Execute_Dynamic_Expression(segment, nullptr, nullptr) != 1) {
    return {"stopped: " + machine.Failure(), ""};
  }
  if (!machine.stack().Peek()) return {"error", ""};
  const std::string value = PopText(machine.stack());
  // What is left is a value that no operator has taken.
  if (machine.stack().Peek()) return {"error", ""};
  auto shown = [&machine](const char* path) {
    String failure;
    Variable* variable = nullptr;
    machine.vm().Lookup_Variable(&variable, path, -1, &failure);
    return variable ? Machine::Text(*variable) : std::string();
  };
  std::string state = shown("i");
  for (const char* path : {"n", "t", "a[1]", "a[2]", "s:m", "s:list[2]"})
    state += "|" + shown(path);
  return {value, state};
}

// Returns whether the page was compiled.
bool ExpectSame(const std::string& text) {
  SCOPED_TRACE(text);
  const Outcome page = InPage(text);
  const Outcome run_time = AtRunTime(text);
  if (page.value == "error") {
    // At run time such an operator takes the value before it instead of the one after it, and may
    // find one.
    if (page.state.find("needs parentheses") != std::string::npos) return false;
    EXPECT_TRUE(run_time.value == "error" || run_time.value.rfind("stopped: ", 0) == 0)
        << run_time.value;
    return false;
  }
  EXPECT_EQ(page.value, run_time.value);
  if (run_time.value.rfind("stopped: ", 0) != 0) {
    EXPECT_EQ(page.state, run_time.state);
  }
  return true;
}

TEST(PageExpression, HasTheValueOfTheSameTextAtRunTime) {
  for (const char* text : {
           "1 + 2 * 3",
           "10 - 3 - 2",
           "2 POW 3 POW 2",
           "7 MOD 4 * 2",
           "NOT 1 EQ 0",
           "NOT (1 EQ 0)",
           "i -5",
           "2 - -3",
           "i-5",
           "(i)-5",
           "-5 - i",
           ".5 + 1",
           "-.5",
           "1.",
           "0x1F",
           "0x1FG",
           "99999999999",
           "-99999999999",
           "1e3",
           "'a\\'b' $ \"c\\\"d\"",
           "'a\\nb'",
           "\"it's\"",
           "t IN 'a text 9'",
           "'' IN t",
           "'' EIN t",
           "ISNULL e",
           "ISNULL NOT e",
           "not isnull e",
           "BITOC i",
           "BITOC i + 1",
           "BITOC i + 1 - 2",
           "BITOC i * 2",
           "1 BITSL 33",
           "-8 BITSR 1",
           "i ++",
           "++i",
           "i++ + i",
           "i-- - --i",
           "(i)++",
           "++a[1]",
           "a[i - 6]++",
           "s:m++ * 2",
           "a[1] + a[2] $ s:list[2]",
           "half(5) + 1",
           "half(half(i))",
           "both(i, t)",
           "both(1,2,)",
           "grow(i) + i",
           "grow(a[1]) $ a[1]",
           "g.i + global.i",
           "s:m MOD 2",
           "2.345 ROUNDS 2",
           "2.355 ROUNDF 2",
           "h + 1",
           "h EQ 16",
           "i GT n AND t NE e",
           "0 OR 'false'",
           "'0.0' OR 0",
           "5 / 0",
           "0 / 0",
           "7 MOD 0",
           "i EQ 7.0",
           "t LT 'u'",
           "'b9' LT 'b10'",
           "nothing $ 'x'",
           "a * (b) + c",
           "1 2",
           "1 +",
           "+ 1",
           "* 2",
           "NOT",
           "()",
           "(1",
           "1)",
           "a[",
           "a[]",
           "f(",
           "nofunction(1)",
           "half()",
           "half(1, 2)",
           "grow(5)",
           "5MOD 3",
           "i EQ 7 EQ 1",
           "1 + NOT 0 + 1",
           "2 * BITOC 1",
           "NOT BITOC 1",
           "1 BITAND 3 BITOR 4",
           "ISNULL a[9] $ i",
           "++5",
           "5++",
           "s:in",
           "l.i",
           "^",
           "1 ^ 2",
           "'open",
       }) {
    ExpectSame(text);
  }
}

// At run time these leave two values, drop what follows an element, or count in what a function has
// returned.
TEST(PageExpression, IsRefusedWhereAtRunTimePartOfItIsLost) {
  for (const char* text : {"(1)(2)", "a (i)", "a[1]b", "i 'x'", "1 NOT 2", "grow(i)++"}) {
    SCOPED_TRACE(text);
    EXPECT_EQ(InPage(text).value, "error");
  }
}

// Makes expressions that are well formed as a rule.
class Maker {
 public:
  explicit Maker(unsigned seed) : random(seed) {}

  // Parts are made one after the other, so that a seed means the same with every compiler.
  std::string Make(int depth) {
    std::string text = Operand(depth);
    for (int i = Below(4); i > 0; i--) {
      text += Infix();
      text += Operand(depth);
    }
    return text;
  }

 private:
  int Below(int limit) { return static_cast<int>(random() % static_cast<unsigned>(limit)); }
  template <size_t N>
  std::string Any(const char* const (&texts)[N]) {
    return texts[Below(static_cast<int>(N))];
  }
  std::string Infix() {
    static const char* const operators[] = {
        " + ",      " - ",     " $ ",     " * ",      " / ",      " MOD ",    " POW ",
        " and ",    " OR ",    " IN ",    " CIN ",    " EIN ",    " Ecin ",   " EQ ",
        " NE ",     " GE ",    " LE ",    " LT ",     " GT ",     " BITAND ", " BITOR ",
        " BITXOR ", " BITSL ", " BITSR ", " ROUNDS ", " ROUNDF ", "*",        "$"};
    return Any(operators);
  }
  std::string Operand(int depth) {
    static const char* const values[] = {
        "1",    "0",         "-3",  "2.5",       "-.25",    "0x1f", "'a'",         "\"7\"",
        "''",   "'te\\'xt'", "i",   "n",         "t",       "e",    "h",           "a[1]",
        "a[2]", "a",         "s:m", "s:list[2]", "missing", "g.i",  "12345678901", "'9.50'"};
    static const char* const prefixes[] = {"NOT ", "ISNULL ", "BITOC ", "not "};
    static const char* const variables[] = {"i", "n", "a[1]", "s:m", "t"};
    if (depth <= 0) return Any(values);
    std::string text;
    switch (Below(9)) {
      case 0: return "(" + Make(depth - 1) + ")";
      case 1: text = Any(prefixes); return text + Operand(depth - 1);
      case 2: text = Any(variables); break;
      case 3: return "half(" + Make(depth - 1) + ")";
      case 4: text = "both(" + Make(depth - 1); return text + ", " + Make(depth - 1) + ")";
      case 5: return "grow(" + Any(variables) + ")";
      case 6: return "a[1 + (" + Make(depth - 1) + " BITAND 1)]";
      default: return Any(values);
    }
    static const char* const steps[] = {"++", "--"};
    const std::string step = Any(steps);
    return Below(2) ? text + step : step + text;
  }

  std::mt19937 random;
};

TEST(PageExpression, AnyExpressionHasTheValueOfTheSameTextAtRunTime) {
  int compiled = 0;
  for (unsigned seed = 1; seed <= 1500 && !testing::Test::HasFailure(); seed++) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    if (ExpectSame(Maker(seed).Make(3))) compiled++;
  }
  EXPECT_GT(compiled, 1000);
}

// Conditions have instructions of their own; they are true when the value is.
TEST(PageExpression, AConditionIsTheTruthOfItsValue) {
  for (unsigned seed = 1; seed <= 800 && !testing::Test::HasFailure(); seed++) {
    const std::string text = Maker(seed).Make(2);
    SCOPED_TRACE("seed " + std::to_string(seed) + ": " + text);
    const Outcome truth = RunPage(std::string(kSetup) + "{{{ NOT NOT (" + text + ") }}}#" + kState);
    const Outcome condition =
        RunPage(std::string(kSetup) + "<ZpIF " + text + ">1<ZpELSE>0</ZpIF>#" + kState);
    EXPECT_EQ(condition.value, truth.value);
    EXPECT_EQ(condition.state, truth.state);
    const Outcome loop =
        RunPage(std::string(kSetup) + "<ZpWHILE " + text + ">1<ZpWHILESTOP></ZpWHILE>#");
    const std::string once = loop.value.empty() ? "0" : loop.value;
    EXPECT_EQ(once, truth.value);
  }
}

TEST(PageExpression, ComparisonsWithAnInteger) {
  for (const char* value : {"7", "8", "6", "'7'", "'x'", "''", "7.5", "0 / 0", "5 / 0 - 5 / 0"}) {
    for (const char* comparison : {"EQ", "NE", "LT", "LE", "GT", "GE"}) {
      for (const std::string& text :
           {std::string("v ") + comparison + " 7", std::string("7 ") + comparison + " v",
            std::string("v ") + comparison + " w"}) {
        SCOPED_TRACE(std::string(value) + ": " + text);
        const std::string setup = "<ZpASSIGN w = 7 v = " + std::string(value) + ">";
        const Outcome plain = RunPage(setup + "{{{ (" + text + ") }}}#");
        EXPECT_EQ(RunPage(setup + "<ZpIF " + text + ">1<ZpELSE>0</ZpIF>#").value, plain.value);
        EXPECT_EQ(RunPage(setup + "<ZpIF NOT (" + text + ")>0<ZpELSE>1</ZpIF>#").value,
                  plain.value);
      }
    }
  }
}

}  // namespace
