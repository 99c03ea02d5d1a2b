// Runs compiled expressions on a machine and compares their values with known ones, and with an
// evaluator that shares nothing with the compiler: it reduces a list of operands and operators, the
// tightest operator first.

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "base/core/Numbers.h"
#include "base/core/ascii.h"
#include "base/values/Aggregate.h"
#include "tests/support/ExpressionMachine.h"
#include "tests/support/Rounds.h"

namespace {

void Assign(ExpressionMachine* machine, const char* name, int value) {
  machine->global.SetVariable(new Variable(name, static_cast<int>(strlen(name)), value));
}

struct Case {
  const char* text;
  const char* stack;
};

TEST(ExpressionValues, AreThoseOfTheirOperators) {
  const Case cases[] = {
      {"1 + 2 * 3", "d7"},
      {"(1 + 2) * 3", "d9"},
      {"2 - -3", "d5"},
      {"10 - 3 - 2", "d5"},
      {"2 POW 3 POW 2", "d64"},
      {"7 MOD 4", "3"},
      {"NOT 0", "1"},
      {"NOT 1 EQ 0", "1"},
      {"NOT (1 EQ 0)", "1"},
      {"1 EQ 1 AND 2 EQ 2", "1"},
      {"1 EQ 2 OR 2 EQ 2", "1"},
      {"'b' IN 'abc'", "2"},
      {"'BC' CIN 'abc'", "2"},
      {"'bc' EIN 'abc'", "3"},
      {"'BC' ECIN 'abc'", "3"},
      {"'BC' IN 'abc'", "0"},
      {"1.005 ROUNDS 1", "\"1.0\""},
      {"2.25 ROUNDF 1", "d2.2"},
      {"BITOC 0", "-1"},
      {"6 BITAND 3", "2"},
      {"6 BITOR 3", "7"},
      {"6 BITXOR 3", "5"},
      {"1 BITSL 4", "16"},
      {"-16 BITSR 2", "-4"},
      {"ISNULL ''", "1"},
      {"ISNULL 'x'", "0"},
      {"1 + -0x10", "d-15"},
      {"half(5) + 1", "d3.5"},
      {"half(half(5) * 2)", "d2.5"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    ExpressionMachine machine;
    machine.Assemble("noop\n.segment 1\n.function half(x)\npushl x\npushi 2\ndiv\nret");
    EXPECT_EQ(machine.Run(c.text), c.stack);
  }
}

// The hash itself has tests of its own.
TEST(ExpressionValues, CryptTakesTheSaltOnItsRight) {
  ExpressionMachine machine;
  EXPECT_EQ(machine.Run("'pass' CRYPT 'ab'").substr(0, 3), "\"ab");
}

TEST(ExpressionValues, IncrementStoresAndLeavesTheNewOrTheOldValue) {
  const struct {
    const char* text;
    const char* stack;
    const char* after;
  } cases[] = {
      {"++v", "d6", "6"},        {"--v", "d4", "4"},       {"v++", "d5", "6"},
      {"v--", "d5", "4"},        {"--v * 10", "d40", "4"}, {"10 * v--", "d50", "4"},
      {"v++ + 1", "d6", "6"},    {"2 - --v", "d-2", "4"},  {"v++-5", "d0", "6"},
      {"++v + ++v", "d13", "7"}, {"(v)++", "d5", "6"},     {"NOT v--", "0", "4"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    ExpressionMachine machine;
    Assign(&machine, "v", 5);
    EXPECT_EQ(machine.Run(c.text), c.stack);
    EXPECT_EQ(machine.Value("v"), c.after);
  }
}

TEST(ExpressionValues, ElementsAreMadeWhereTheyAreMissing) {
  ExpressionMachine machine;
  Assign(&machine, "one", 1);
  EXPECT_EQ(machine.Run("++a[one + 1]:b + a[2]:b"), "d2");
  ExpressionMachine other;
  EXPECT_EQ(other.Run("a[3]"), "()");
  ASSERT_NE(other.GlobalVariable("a"), nullptr);
  EXPECT_NE(other.GlobalVariable("a")->Element(AggregateIndex(3), 0), nullptr);
}

TEST(ExpressionValues, MissingOperandsAreFoundMissingWhenTheCodeRuns) {
  for (const char* text : {"1 +", "NOT", "++", "1 + BITOC 2"}) {
    SCOPED_TRACE(text);
    ExpressionMachine machine;
    EXPECT_EQ(machine.Run(text), "stopped: Stack underflow");
  }
}

// --- The evaluator -------------------------------------------------------------------------------

// A number, or a text.
struct Value {
  bool is_text = false;
  double number = 0;
  std::string text;

  static Value Of(double number) { return {false, number, ""}; }
  static Value Of(std::string text) { return {true, 0, std::move(text)}; }

  double Number(int* failed = nullptr) const {
    int ignored;
    const int length = static_cast<int>(text.size());
    if (!failed) failed = &ignored;
    *failed = 0;
    return is_text ? ZephApplication::stod(text.data(), length, length, failed) : number;
  }
  int Integer() const {
    return is_text ? ZephApplication::stoi(text.data(), static_cast<int>(text.size()), nullptr)
                   : DoubleToInteger(number);
  }
  std::string Text() const {
    if (is_text) return text;
    int length = 0;
    std::unique_ptr<char[]> made(ZephApplication::dtos(number, &length, nullptr, -1));
    return {made.get(), static_cast<size_t>(length)};
  }
  bool True() const {
    if (!is_text) return number != 0;
    int points = 0;
    for (char c : text) {
      if (c == '.') points++;
      if ((c != '0' && c != '.') || points > 1) return true;
    }
    return false;
  }
};

int Order(const Value& a, const Value& b) {
  int a_failed, b_failed;
  const double x = a.Number(&a_failed), y = b.Number(&b_failed);
  if (!a_failed && !b_failed) return x == y ? 0 : x < y ? -1 : 1;
  return a.Text().compare(b.Text());
}

// The position of the needle, from 1, or with last that of its last byte.
Value Position(const Value& needle, const Value& text, bool fold, bool last) {
  std::string n = needle.Text(), t = text.Text();
  if (n.empty()) return Value::Of(last ? 0 : 1);
  if (fold) {
    for (char& c : n) c = static_cast<char>(zp_tolower(static_cast<unsigned char>(c)));
    for (char& c : t) c = static_cast<char>(zp_tolower(static_cast<unsigned char>(c)));
  }
  const size_t at = t.find(n);
  if (at == std::string::npos) return Value::Of(0);
  return Value::Of(static_cast<double>(at + (last ? n.size() : 1)));
}

Value Shift(const Value& a, const Value& b, bool left) {
  const int count = b.Integer() & 31;
  const int value = a.Integer();
  return Value::Of(left ? static_cast<int>(static_cast<unsigned>(value) << count) : value >> count);
}

struct Infix {
  const char* name;
  int rank;
  Value (*apply)(const Value& a, const Value& b);
};

#define ZEPH_INFIX(name, rank, ...)                                                   \
  {                                                                                   \
    name, rank, [](const Value& a, const Value& b) { return Value::Of(__VA_ARGS__); } \
  }
const Infix infix_operators[] = {
    ZEPH_INFIX("+", 3, a.Number() + b.Number()),
    ZEPH_INFIX("-", 3, a.Number() - b.Number()),
    ZEPH_INFIX("$", 3, a.Text() + b.Text()),
    ZEPH_INFIX("*", 4, a.Number() * b.Number()),
    ZEPH_INFIX("/", 4, a.Number() == 0 ? 0.0 : a.Number() / b.Number()),
    ZEPH_INFIX("MOD", 4, Remainder(a.Integer(), b.Integer())),
    ZEPH_INFIX("POW", 5, std::pow(a.Number(), b.Number())),
    ZEPH_INFIX("BITAND", 3, a.Integer() & b.Integer()),
    ZEPH_INFIX("BITOR", 3, a.Integer() | b.Integer()),
    ZEPH_INFIX("BITXOR", 3, a.Integer() ^ b.Integer()),
    {"BITSL", 3, [](const Value& a, const Value& b) { return Shift(a, b, true); }},
    {"BITSR", 3, [](const Value& a, const Value& b) { return Shift(a, b, false); }},
    ZEPH_INFIX("AND", 1, a.True() && b.True()),
    ZEPH_INFIX("OR", 1, a.True() || b.True()),
    ZEPH_INFIX("EQ", 2, Order(a, b) == 0),
    ZEPH_INFIX("NE", 2, Order(a, b) != 0),
    ZEPH_INFIX("GE", 2, Order(a, b) >= 0),
    ZEPH_INFIX("LE", 2, Order(a, b) <= 0),
    ZEPH_INFIX("LT", 2, Order(a, b) < 0),
    ZEPH_INFIX("GT", 2, Order(a, b) > 0),
    {"IN", 2, [](const Value& a, const Value& b) { return Position(a, b, false, false); }},
    {"CIN", 2, [](const Value& a, const Value& b) { return Position(a, b, true, false); }},
    {"EIN", 2, [](const Value& a, const Value& b) { return Position(a, b, false, true); }},
    {"ECIN", 2, [](const Value& a, const Value& b) { return Position(a, b, true, true); }},
};
#undef ZEPH_INFIX

// --- Random expressions --------------------------------------------------------------------------

// Writes a valid expression and works out its value. The machine has the variables of the text, and
// the functions sum(a, b) and half(x).
class Generator {
 public:
  Generator(unsigned seed, ExpressionMachine* runs) : random(seed), machine(runs) {}

  Value Expression(std::string* text, int depth) {
    std::vector<Value> values;
    std::vector<const Infix*> operators;
    values.push_back(Operand(text, depth));
    for (int more = Below(5); more > 0; more--) {
      operators.push_back(&infix_operators[Below(std::size(infix_operators))]);
      AppendOperator(text, *operators.back());
      std::string operand;
      values.push_back(Operand(&operand, depth));
      // The sign would turn two operators into one.
      if (operand[0] == '-' || operand[0] == '+') *text += ' ';
      *text += operand;
    }
    return Reduce(values, operators);
  }

 private:
  int Below(size_t limit) { return static_cast<int>(random() % limit); }

  static Value Reduce(std::vector<Value> values, std::vector<const Infix*> operators) {
    while (!operators.empty()) {
      size_t tightest = 0;
      for (size_t i = 1; i < operators.size(); i++) {
        if (operators[i]->rank > operators[tightest]->rank) tightest = i;
      }
      const auto at = static_cast<std::ptrdiff_t>(tightest);
      values[tightest] = operators[tightest]->apply(values[tightest], values[tightest + 1]);
      values.erase(values.begin() + at + 1);
      operators.erase(operators.begin() + at);
    }
    return values[0];
  }

  std::string Space() {
    static const char* const spaces[] = {" ", "  ", "\t", "\n", "\r\n", " "};
    return spaces[Below(6)];
  }
  std::string AnyCase(std::string word) {
    for (char& c : word) {
      if (Below(2)) c = static_cast<char>(zp_tolower(static_cast<unsigned char>(c)));
    }
    return word;
  }
  void AppendOperator(std::string* text, const Infix& infix) {
    const bool word = infix.name[0] >= 'A' && infix.name[0] <= 'Z';
    if (word) {
      *text += Space() + AnyCase(infix.name) + Space();
    } else {
      *text += Below(2) ? Space() + infix.name + Space() : infix.name;
    }
  }

  Value Operand(std::string* text, int depth) {
    const int kind = Below(depth > 0 ? 14 : 8);
    switch (kind) {
      case 0:
      case 1: return Integer(text);
      case 2: return Decimal(text);
      case 3: return Constant(text);
      case 4:
      case 5: return Reference(text);
      case 6: return Changed(text);
      case 7: return Hexadecimal(text);
      case 8:
      case 9: return Group(text, depth);
      case 10: return Prefix(text, depth);
      case 11: return Complement(text, depth);
      default: return Call(text, depth);
    }
  }
  Value Integer(std::string* text) {
    const int value = Below(200) - 100;
    *text += std::to_string(value);
    return Value::Of(value);
  }
  Value Decimal(std::string* text) {
    const int quarters = Below(80);
    char written[32];
    snprintf(written, sizeof written, "%.2f", quarters / 4.0);
    *text += written[0] == '0' && Below(2) ? written + 1 : written;
    return Value::Of(quarters / 4.0);
  }
  Value Hexadecimal(std::string* text) {
    const int value = Below(5000);
    char written[32];
    snprintf(written, sizeof written, Below(2) ? "0x%x" : "0X%X", static_cast<unsigned>(value));
    *text += written;
    return Value::Of(value);
  }
  Value Constant(std::string* text) {
    static const char* const texts[] = {"",    "a",   "abc", "AB",    "12",
                                        "0.0", "x y", "(",   "1 + 2", "00"};
    const std::string value = texts[Below(std::size(texts))];
    const char quote = Below(2) ? '"' : '\'';
    *text += quote + value + quote;
    return Value::Of(value);
  }
  Value Reference(std::string* text) {
    const int value = Below(50) - 10;
    const std::string name = "v" + std::to_string(++variables);
    Assign(machine, name.c_str(), value);
    *text += (Below(2) ? "g." : "") + name;
    return Value::Of(value);
  }
  Value Changed(std::string* text) {
    std::string name;
    const Value before = Reference(&name);
    const int step = Below(2) ? 1 : -1;
    const std::string sign = step > 0 ? "++" : "--";
    if (Below(2)) {
      *text += sign + name;
      return Value::Of(before.number + step);
    }
    *text += name + sign;
    return before;
  }
  Value Group(std::string* text, int depth) {
    *text += '(';
    Value value = Expression(text, depth - 1);
    *text += ')';
    return value;
  }
  Value Prefix(std::string* text, int depth) {
    const bool isnull = Below(2);
    *text += AnyCase(isnull ? "ISNULL" : "NOT") + Space();
    const Value value = Operand(text, depth - 1);
    return Value::Of(isnull ? value.is_text && value.text.empty() : !value.True());
  }
  Value Complement(std::string* text, int depth) {
    *text += "(" + AnyCase("BITOC") + Space();
    const Value value = Operand(text, depth - 1);
    *text += ')';
    return Value::Of(~value.Integer());
  }
  Value Call(std::string* text, int depth) {
    const bool half = Below(2);
    *text += half ? "half(" : "Sum(";
    const Value first = Expression(text, depth - 1);
    double result = first.Number();
    if (half) {
      result = result == 0 ? 0 : result / 2;
    } else {
      *text += "," + Space();
      result += Expression(text, depth - 1).Number();
    }
    *text += Below(4) ? ")" : ",)";
    return Value::Of(result);
  }

  std::mt19937 random;
  ExpressionMachine* machine;
  int variables = 0;
};

TEST(ExpressionValues, AreThoseOfAnotherEvaluator) {
  for (unsigned seed = 1; seed <= Rounds(3000u); seed++) {
    ExpressionMachine machine;
    machine.Assemble(
        "noop\n.segment 1\n.function half(x)\npushl x\npushi 2\ndiv\nret\n"
        ".function sum(a, b)\npushl a\npushl b\nadd\nret");
    std::string text;
    const Value expected = Generator(seed, &machine).Expression(&text, 3);
    SCOPED_TRACE("seed " + std::to_string(seed) + ": " + text);
    String error;
    Segment* segment = machine.vm().Compile_Dynamic_Expression(
        text.data(), static_cast<int>(text.size()), nullptr, nullptr, &error, nullptr, 0, 0);
    ASSERT_TRUE(segment) << error.data;
    machine.stack().PushI(7);
    ASSERT_EQ(machine.vm().Execute_Dynamic_Expression(segment, nullptr, nullptr), 1)
        << machine.Failure();
    ASSERT_EQ(machine.stack().Entries(), 2);
    ASSERT_EQ(PopText(machine.stack()), expected.Text());
    ASSERT_EQ(machine.stack().PopI(), 7);
  }
}

}  // namespace
