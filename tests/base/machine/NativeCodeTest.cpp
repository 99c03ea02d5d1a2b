// Machine code does what the plain loop does, in all that it has a way of its own for. What it
// leaves to the loop for decoded code is tested with that (HotCodeTest.cpp).

#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "base/core/ThreadMemory.h"
#include "base/extensions/ExternalLibrary.h"
#include "base/machine/Feature.h"
#include "base/values/VariableKinds.h"
#include "tests/support/FailingAllocator.h"
#include "tests/support/HotAndCold.h"
#include "tests/support/Rounds.h"
#include "tools/Assembler.h"

namespace {

// A loop of some rounds, which counts them in n.
std::string Loop(const std::string& body, int rounds = 4) {
  return "again: incg n, 1\n" + body + "cmpgi n, " + std::to_string(rounds) +
         "\njmp_lt again\nexit\n";
}

Segment* written_segment;

struct Outcome {
  bool operator==(const Outcome&) const = default;

  int result = 0;
  std::string output;
  std::string error;
  std::string stack;
};

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
  return out << "result " << outcome.result << "\noutput " << outcome.output << "\nerror "
             << outcome.error << "\nstack " << outcome.stack;
}

using Prepare = std::function<void(Machine*)>;

// Runs code that is decoded before its first instruction, unless it is to be cold.
Outcome OutcomeOf(const std::string& program, Pace pace, const Prepare& prepare = nullptr,
                  bool* ran_short = nullptr) {
  Machine machine;
  machine.Assemble(program);
  const RunsAt runs(pace, &machine);
  if (pace != Pace::Cold) DecodeAtOnce(&machine);
  if (prepare) prepare(&machine);
  Outcome outcome;
  bool is_short;
  outcome.result = GoWithin64Megabytes(&machine, &is_short);
  if (ran_short) *ran_short = is_short;
  outcome.output = machine.Output();
  outcome.error = machine.Error();
  outcome.stack = machine.StackText();
  return outcome;
}

Outcome ExpectTheSame(const std::string& program, const Prepare& prepare = nullptr) {
  const Outcome cold = OutcomeOf(program, Pace::Cold, prepare);
  for (const Pace pace : kQuickPaces) {
    SCOPED_TRACE(pace);
    EXPECT_EQ(OutcomeOf(program, pace, prepare), cold);
  }
  return cold;
}

// --- Numbers -------------------------------------------------------------------------------------

const char* const kNumbers[] = {
    "pushf nan\n",         "pushf inf\n",  "pushf -inf\n",        "pushf -0.0\n",
    "pushi 0\n",           "pushi 1\n",    "pushi -1\n",          "pushi 31\n",
    "pushi 33\n",          "pushf 2.5\n",  "pushi -2147483648\n", "pushi 2147483647\n",
    "pushf 99999999999\n", "pushf -3.9\n", "pushf 4294967297\n",  "pushf 1e300\n"};
const char* const kOperations[] = {"lt",  "le",  "gt",     "ge",    "eq",   "ne",     "cmp",
                                   "add", "sub", "mul",    "div",   "mod",  "bitand", "bitor",
                                   "and", "or",  "bitxor", "bitsl", "bitsr"};

// Writes the outcome of an operation that its operands are pushed for, as it is used in each way.
std::string Uses(const std::string& value, bool in_function) {
  static int labels = 0;
  const std::string show = "pushc \" \"\nout\n";
  std::string code = value + "out\n" + show + value + "popg r\npushg r\nout\n" + show;
  for (const char* const jump : {"jmp_eq", "jmp_ne", "jmp_lt", "jmp_le", "jmp_gt", "jmp_ge"}) {
    const std::string label = "l" + std::to_string(labels++);
    code += value + jump + " " + label + "\npushc \"-\"\nout\n" + label + ": ";
  }
  code +=
      "noop\n" + value + "pushg e\npushi 2\nelem\nstore\npushg e\npushi 2\nelem_readonly\nout\n";
  code += value + "pushg s\npushc \"m\"\nmemb\nstore\npushg s\npushc \"m\"\nmemb_readonly\nout\n";
  if (in_function) return code + value + "popl t\npushl t\nout\n" + show;
  return code + value + "call same\nout\n" + show;
}

const char* const kSame = ".function same(x)\npushl x\nret\n.end\n";

// The operands of a test, and where it runs: in the main code or in a function that gets them.
struct Operands {
  const char* label;
  const char* left;  // null for the constant
  const char* right;
  const char* parameters = nullptr;
};

const Operands kOperands[] = {
    {"globals", "pushg a\n", "pushg b\n"},
    {"a constant at the right", "pushg a\n", nullptr},
    {"a constant at the left", nullptr, "pushg b\n"},
    {"elements", "pushg x\npushi 1\nelem_readonly\n", "pushg x\npushg two\nelem_readonly\n"},
    {"members", "pushg y\npushc \"a\"\nmemb_readonly\n", "pushg y\npushc \"b\"\nmemb_readonly\n"},
    {"an element and a global", "pushg x\npushg one\nelem_readonly\n", "pushg b\n"},
    {"a global and a member", "pushg a\n", "pushg y\npushc \"b\"\nmemb_readonly\n"},
    {"sums", "pushg a\npushg zero\nadd\n", "pushg b\npushg zero\nadd\n"},
    {"a sum and a constant", "pushg a\npushg zero\nadd\n", nullptr},
    {"numbers of both forms", "pushg c\n", "pushg d\n"},
    {"locals", "pushl p\n", "pushl q\n", "(p, q)"},
    {"a local and a constant", "pushl p\n", nullptr, "(p, q)"},
    {"references", "pushl p\n", "pushl q\n", "(p var, q var)"},
    {"missing", "pushg a\n", "pushg missing\n"},
};

// All operations on two values.
std::string ProgramOf(const std::string& a, const std::string& b, const Operands& operands) {
  const std::string left = operands.left ? operands.left : a;
  const std::string right = operands.right ? operands.right : b;
  const bool in_function = operands.parameters != nullptr;
  std::string body;
  for (const char* const operation : kOperations) {
    body += Uses(left + right + operation + "\n", in_function);
  }
  body += Uses(left + "bitoc\n", in_function) + Uses(left + "not\n", in_function);
  const std::string start =
      "storegi one, 1\nstoregi two, 2\nstoregi zero, 0\n" + a + "popg a\n" + b + "popg b\n" + a +
      "popg c\n" + b + "popg d\npushg c\npushg d\nadd\npop\npushg c\npushg d\nmod\npop\n" + a +
      "pushg x\npushi 1\nelem\nstore\n" + b + "pushg x\npushi 2\nelem\nstore\n" + a +
      "pushg y\npushc \"a\"\nmemb\nstore\n" + b + "pushg y\npushc \"b\"\nmemb\nstore\n" +
      "pushi 1\npushg e\npushi 1\nelem\nstore\n";
  if (!in_function) return start + Loop(body) + kSame;
  return start + Loop("pushg a\npushg b\ncall f\npop\n") + ".function f" + operands.parameters +
         "\n" + body + "retn\n.end\n" + kSame;
}

TEST(NativeCode, OperationsHaveTheSameOutcomeWithAllNumbersInAllPlaces) {
  constexpr size_t count = std::size(kNumbers);
  // All pairs take a minute. Each kind of place begins with another one.
  const size_t stride = getenv("ZEPH_RANDOM_SECONDS") ? 1
                        : kAddressSanitizer           ? 151
                        : kThreadSanitizer            ? 251
                                                      : 19;
  size_t first = 0;
  for (const Operands& operands : kOperands) {
    for (size_t pair = first++ % stride; pair < count * count; pair += stride) {
      const std::string a = kNumbers[pair / count], b = kNumbers[pair % count];
      SCOPED_TRACE(testing::Message() << operands.label << ": " << a << b);
      ASSERT_EQ(ExpectTheSame(ProgramOf(a, b, operands)).result, 1);
      if (testing::Test::HasFailure()) return;
    }
  }
}

// NaN is not equal to anything and counts as greater.
TEST(NativeCode, NaNCountsAsGreater) {
  std::string body;
  for (const char* const pair :
       {"pushg a\npushi 1\n", "pushi 1\npushg a\n", "pushg a\npushg a\n"}) {
    for (const char* const compare : {"lt", "le", "eq", "gt", "ge", "ne"}) {
      body += std::string(pair) + compare + "\npopg r\npushg r\nout\n";
    }
    body += "pushc \" \"\nout\n";
  }
  const Outcome outcome = ExpectTheSame("pushf nan\npopg a\n" + Loop(body, 2));
  EXPECT_EQ(outcome.output, "000111 000111 000111 000111 000111 000111 ");
}

TEST(NativeCode, ADivisionByZeroAndByMinusOneDoesNotTrap) {
  std::string body;
  for (const char* const left : {"pushi -2147483648\n", "pushi 7\n"}) {
    for (const char* const right : {"pushg zero\n", "pushg minus\n", "pushg three\n"}) {
      body += std::string(left) + right + "mod\nout\npushc \" \"\nout\n";
      body += std::string(left) + right + "mod\npopg r\npushg r\nout\npushc \" \"\nout\n";
    }
  }
  const Outcome outcome =
      ExpectTheSame("storegi zero, 0\nstoregi minus, -1\nstoregi three, 3\n" + Loop(body, 1));
  EXPECT_EQ(outcome.output, "0 0 0 0 -2 -2 0 0 0 0 1 1 ");
}

TEST(NativeCode, ACountThatOverflowsBeginsAtTheLeastInteger) {
  for (const char* const jump : {"jmp_lt", "jmp_le", "jmp_gt", "jmp_ge", "jmp_eq", "jmp_ne"}) {
    for (const char* const step : {"1", "-1", "2147483647", "-2147483648", "0"}) {
      for (const char* const first : {"2147483646", "-2147483647", "0", "5"}) {
        for (const char* const limit : {"-2147483648", "2147483647", "0", "7"}) {
          SCOPED_TRACE(testing::Message() << jump << step << first << limit);
          ExpectTheSame("storegi c, " + std::string(first) +
                        "\nnext: incg n, 1\npushg c\nout\ncmpgi n, 9\njmp_ge end\nincg c, " + step +
                        "\ncmpgi c, " + limit + "\n" + jump + " next\nend: pushg c\nout\nexit\n");
        }
      }
    }
  }
}

// --- Variables and elements of all kinds ---------------------------------------------------------

// Makes v, by the round, a variable of each kind in turn.
std::string OfEachKind(const std::string& v) {
  const std::string kinds[] = {"pushi 5\npop" + v,
                               "pushf 2.5\npop" + v,
                               "pushc \"12\"\npop" + v,
                               "pushc \"word\"\npop" + v,
                               "pushg row\npop" + v,
                               "pushg structure\npop" + v,
                               "pushc \"\"\npop" + v,
                               "pushg other\npush" + v + "\nrefer",
                               "pushi 3\npop" + v + "\npush" + v + "\npushf 0.5\nadd\npop",
                               "pushf 7.5\npop" + v + "\npush" + v + "\npushi 2\nmod\npop",
                               "pushg places\npushg n\nelem\npopr" + v,
                               "pushf nan\npop" + v};
  static int labels = 0;
  std::string code = "pushg n\npushi " + std::to_string(std::size(kinds)) + "\nmod\npopg k\n";
  for (size_t i = 0; i < std::size(kinds); i++) {
    const std::string label = "k" + std::to_string(labels++);
    code += "cmpgi k, " + std::to_string(i) + "\njmp_ne " + label + "\n" + kinds[i] + "\n" + label +
            ": ";
  }
  return code + "noop\n";
}

const char* const kRow =
    "pushi 1\npushg row\npushi 1\nelem\nstore\npushf 2.5\npushg row\npushi 2\nelem\nstore\n"
    "pushc \"t\"\npushg row\npushi 3\nelem\nstore\npushi 1\npushg structure\npushc \"m\"\nmemb\n"
    "store\npushi 4\npopg other\nstoregi i, 2\n";

TEST(NativeCode, AVariableMayChangeItsKindInALoop) {
  for (const bool local : {false, true}) {
    const std::string v = local ? "l v" : "g v", push = "push" + v + "\n";
    const std::string works[] = {
        push + "pushi 1\nadd\nout\n",
        push + "pushg i\nmul\npopg r\npushg r\nout\n",
        "pushg i\n" + push + "sub\nout\n",
        push + "pushi 3\nmod\npopg r\npushg r\nout\n",
        push + "pushi 3\nbitand\nout\n",
        push + "pushi 3\nlt\nout\n",
        push + "pushg i\nge\npopg r\npushg r\nout\n",
        push + "popg r\npushg r\nout\n",
        push + "pushg e\npushi 1\nelem\nstore\npushg e\npushi 1\nelem_readonly\nout\n",
        push + "pushg s\npushc \"m\"\nmemb\nstore\npushg s\npushc \"m\"\nmemb_readonly\nout\n",
        push + "pushi 2\nelem_readonly\nout\n",
        push + "pushc \"m\"\nmemb_readonly\nout\n",
        push + "call same\nout\n",
        push + "call change\nout\n" + push + "out\n",
        "pushi 7\npop" + v + "\n" + push + "out\n",
        "pushf 0.5\npop" + v + "\n" + push + "out\n",
        "pushc \"short\"\npop" + v + "\n" + push + "out\n",
        "pushg i\npushi 1\nadd\npop" + v + "\n" + push + "out\n",
        "pushg i\npushi 3\nmod\npop" + v + "\n" + push + "out\n",
        "pushg i\npop" + v + "\n" + push + "out\n",
        "pushg row\npushi 1\nelem_readonly\npop" + v + "\n" + push + "out\n",
        "pushg row\npushi 3\nelem_readonly\npop" + v + "\n" + push + "out\n",
        "pushi 2\ncall same\npop" + v + "\n" + push + "out\n",
        push + "out\n",
        // It is the target, too.
        push + "pushi 1\nadd\npop" + v + "\n" + push + "out\n",
        push + push + "add\npop" + v + "\n" + push + "out\n",
        push + "pushg i\npushi 2\nmul\nsub\npop" + v + "\n" + push + "out\n",
        push + "pushg zero\ndiv\npop" + v + "\n" + push + "out\n",
        // The first of some operations, which use each other's outcome.
        push + "pushi 1\nadd\npushi 2\nmul\npushg i\nsub\nout\n",
        "pushg i\n" + push + "pushi 1\nadd\nsub\nout\n",
        push + "pushi 3\nlt\n" + push + "pushi 1\ngt\nor\nout\n",
        "pushg row\n" + push + "pushi 4\nsub\nelem_readonly\nout\n",
        "pushg row\n" + push + "pushi 4\nsub\nelem_readonly\n" + push + "add\npop" + v + "\n" +
            push + "out\n",
        // On the stack, with the result of a call.
        push + "call seven\nadd\nout\n",
        "call seven\n" + push + "sub\npop" + v + "\n" + push + "out\n",
        push + "call seven\npop\n" + push + "mul\npop" + v + "\n" + push + "out\n",
        push + "call seven\nlt\npop" + v + "\n" + push + "out\n",
        push + "call change\nadd\nout\n",
        push + "call seven\npop\npushi 2\nadd\nout\n",
    };
    std::string all;
    for (const std::string& work : works) {
      SCOPED_TRACE(work);
      const std::string body = OfEachKind(v) + work + "pushg other\nout\npushc \" \"\nout\n";
      const std::string functions =
          std::string(kSame) + ".function change(x var)\npushl x\npushi 1\nadd\nout\npushi 6\n" +
          "popl x\npushl x\nret\n.end\n.function seven()\npushi 7\nret\n.end\n";
      if (local) {
        // The local variables of the main code are the globals.
        ExpectTheSame(kRow +
                      std::string("call f\nexit\n.function f()\n.local v\nagain: incg n, 1\n") +
                      body + "cmpgi n, 30\njmp_lt again\nretn\n.end\n" + functions);
      } else {
        ExpectTheSame(kRow + Loop(body, 30) + functions);
      }
    }
  }
}

// Straight code reads a twice, and stores in the same variable by another name in between.
TEST(NativeCode, AValueIsReadAgainAfterAStoreByAnotherName) {
  const auto stores_in = [](const std::string& name) {
    const std::string b = name.substr(0, 1) + " " + name.substr(1);
    return std::vector<std::string>{
        "pushi 7\npop" + b + "\n",
        "pushf 8.5\npop" + b + "\n",
        "push" + b + "\npushi 1\nadd\npop" + b + "\n",
        "pushg i\npushi 3\nmul\npop" + b + "\n",
        "pushg i\npushi 5\nbitor\npop" + b + "\n",
        "pushg i\npushi 9\nlt\npop" + b + "\n",
        "pushg i\npop" + b + "\n",
        "pushg h\npop" + b + "\n",
        "pushg word\npop" + b + "\n",
        "pushg row\npushi 1\nelem_readonly\npop" + b + "\n",
        "pushg row\npushi 2\nelem_readonly\npop" + b + "\n",
        "pushg row\npushi 3\nelem_readonly\npop" + b + "\n",
        "pushg structure\npushc \"m\"\nmemb_readonly\npop" + b + "\n",
    };
  };
  const auto read = [](const std::string& a, const std::string& result) {
    return "push" + a + "\npushi 1\nadd\npopg " + result + "\npush" + a + "\npushi 3\nmod\npopg m" +
           result + "\n";
  };
  const auto index = [](const std::string& a) {
    return "pushg long\npush" + a + "\nelem_readonly\npushi 2\nmul\npopg er\n";
  };
  // Neither c nor d is the variable.
  const auto body = [&read, &index](const std::string& a, const std::string& store) {
    std::string code = "pushg c\npushg d\nadd\npopg t\n" + read(a, "r") + index(a) + store +
                       read(a, "s") + "pushg c\npushg d\nsub\npushg t\nadd\npopg t\n";
    for (const char* const shown : {"r", "mr", "er", "s", "ms", "t"}) {
      code += "pushg " + std::string(shown) + "\nout\npushc \" \"\nout\n";
    }
    return code;
  };
  const std::string fill =
      kRow + std::string(
                 "pushf 6.5\npopg h\npushc \"word\"\npopg word\nstoregi c, 3\nstoregi d, 4\n"
                 "pushi 1\npopg x\nfill: pushg x\npushi 10\nmul\npushg long\npushg x\nelem\nstore\n"
                 "incg x, 1\ncmpgi x, 20\njmp_lt fill\n");
  // The value is a double or an integer by turns.
  const std::string begin =
      "pushf 4.5\npopg a\npushg n\npushi 2\nmod\njmp_ne odd\npushi 4\npopg a\nodd: noop\n";
  const auto expect = [&fill](const std::string& rounds, const std::string& functions = "") {
    SCOPED_TRACE(rounds);
    const Outcome outcome = ExpectTheSame(fill + Loop(rounds, 9) + functions);
    EXPECT_EQ(outcome.result, 1) << outcome.error;
  };
  for (const std::string& store : stores_in("gb")) {
    expect(begin + "pushg a\npushg b\nrefer\n" + body("g a", store));
    expect(begin + "pushg a\npoprg b\n" + body("g a", store));
    expect(begin + "pushg a\npoprg b\n" + body("l a", store));
  }
  for (const std::string& store : stores_in("ga")) {
    expect(begin + "pushg a\npushg b\nrefer\n" + body("g b", store));
    expect(begin + "pushg a\npoprg b\n" + body("g b", store));
    expect(begin + body("l a", store));
    expect(begin + "pushg a\ncall f\npop\n",
           ".function f(x var)\n" + body("l x", store) + "retn\n.end\n");
  }
  for (const std::string& store : stores_in("ly")) {
    expect(begin + "pushg a\npushg a\ncall f\npop\n",
           ".function f(x var, y var)\n" + body("l x", store) + "retn\n.end\n");
    expect(begin + "pushg a\ncall f\npop\n", ".function f(y var)\n" + body("g a", store) +
                                                 "pushf 4.5\npopg a\n" + body("l y", store) +
                                                 "retn\n.end\n");
    expect(begin + "pushg a\ncall f\npop\n", ".function f(x var)\n.local y\npushl x\npoprl y\n" +
                                                 body("l x", store) + "retn\n.end\n");
  }
  const std::string elements[] = {"pushg row\npushi 2\nelem\n",
                                  "pushg structure\npushc \"m\"\nmemb\n"};
  for (const std::string& element : elements) {
    for (const char* const value :
         {"pushi 7\n", "pushf 9.5\n", "pushg i\n", "pushg h\n", "pushg i\npushi 2\nmul\n"}) {
      const std::string store = value + element + "store\n";
      expect(begin + "pushg a\n" + element + "store\n" + element + "call f\npop\n",
             ".function f(x var)\n" + body("l x", store) + "retn\n.end\n");
      expect(begin + "pushg a\n" + element + "store\n" + element + "poprg b\n" +
             body("g b", store));
    }
  }
}

// What is read again may be of any kind, and of another one in the next round.
TEST(NativeCode, AVariableIsReadAgainWhateverItIs) {
  for (const char* const v : {"g v", "l v"}) {
    const std::string push = "push" + std::string(v) + "\n";
    const std::string works[] = {
        push + "pushi 1\nadd\npopg r\n" + push + "pushi 2\nmul\npopg s\n",
        push + "pushi 1\nlt\npopg r\n" + push + push + "mul\npopg s\n",
        "pushg row\n" + push + "elem_readonly\npopg r\n" + push + "pushi 1\nsub\npopg s\n",
        push + "pushi 3\nmod\npopg r\n" + push + "pushi 1\nadd\npopg s\n",
        push + "pushi 1\nelem_readonly\npopg r\n" + push + "pushi 2\nelem_readonly\npopg s\n",
        push + "pushi 1\nelem_readonly\npushi 2\nmul\n" + push +
            "pushi 2\nelem_readonly\nadd\npopg r\n",
        push + "pushc \"m\"\nmemb_readonly\npopg r\n" + push +
            "pushc \"M\"\nmemb_readonly\npopg s\n",
        push + "pushi 1\nelem_readonly\npopg r\n" + push + "pushc \"m\"\nmemb_readonly\npopg s\n",
        push + "pushi 2\nelem_readonly\npopg r\npushi 8\n" + push + "pushi 2\nelem\nstore\n" +
            push + "pushi 2\nelem_readonly\npopg s\n",
        push + "pushi 3\nelem_readonly\n" + push + "pushi 3\nelem_readonly\neq\npopg r\n" + push +
            "pushi 3\nelem_readonly\npopg s\n",
    };
    for (const std::string& work : works) {
      SCOPED_TRACE(work);
      const std::string body =
          OfEachKind(v) + work + "pushg r\nout\npushg s\nout\npushg other\nout\npushc \" \"\nout\n";
      const std::string begin = kRow + std::string("pushi 1\npopg r\npushi 1\npopg s\n");
      if (v[0] == 'l') {
        ExpectTheSame(begin + "call f\nexit\n.function f()\n.local v\nagain: incg n, 1\n" + body +
                      "cmpgi n, 30\njmp_lt again\nretn\n.end\n");
      } else {
        ExpectTheSame(begin + Loop(body, 30));
      }
    }
  }
}

// Each frame's references are one longer than those of its caller. In between, the last one is made
// a reference to another variable, and back.
TEST(NativeCode, AChainOfReferencesOfAnyLengthIsFollowedToItsEnd) {
  const std::string use =
      "pushl x\npushi 1\nadd\npopl x\npushl x\npushi 3\nmod\npopl y\npushl a\npushl "
      "d\nelem_readonly\n"
      "pushl x\nadd\nout\npushl x\npushl a\npushl d\nelem\nstore\npushl y\nout\npushc \" \"\nout\n";
  const std::string down =
      ".function down(d, x var, y var, a var)\n" + use +
      "pushl d\npushi 1\nle\njmp_ne last\npushl d\npushi 1\nsub\npushl x\npushl y\npushl a\n"
      "call down\npop\n" +
      use + "last: retn\n.end\n";
  const std::string fill =
      "pushi 1\npopg d\nfill: pushg d\npushi 2\nmul\npushg a\npushg d\nelem\nstore\nincg d, 1\n"
      "cmpgi d, 8\njmp_lt fill\npushi 5\npopg t\npushi 6\npopg u\n";
  const Outcome outcome = ExpectTheSame(
      fill +
      Loop("pushi 7\npushg t\npushg y\npushg a\ncall down\npop\n"
           "pushg u\npushg t\nrefer\npushi 3\npushg t\npushg y\npushg a\ncall down\npop\n"
           "pushg w\npushg t\nrefer\n",
           9) +
      down);
  EXPECT_EQ(outcome.result, 1) << outcome.error;
}

TEST(NativeCode, ATextAmongLoadedElementsIsComparedAsOne) {
  std::string fill, body;
  const char* const values[] = {"pushi 3\n",       "pushc \"abc\"\n", "pushc \"3\"\n",
                                "pushf nan\n",     "pushc \"nan\"\n", "pushf 3\n",
                                "pushc \"abd\"\n", "pushc \"\"\n",    "pushg row\n"};
  int position = 0;
  for (const char* const value : values) {
    fill += value + std::string("pushg x\npushi ") + std::to_string(++position) + "\nelem\nstore\n";
  }
  for (const char* const compare : {"lt", "le", "eq", "gt", "ge", "ne"}) {
    const std::string label = std::string("c") + compare;
    body += "pushg x\npushg n\nelem_readonly\npushg x\npushg m\nelem_readonly\n" +
            std::string(compare) + "\njmp_ne " + label + "\npushc \"-\"\nout\n" + label +
            ": pushg x\npushg n\nelem_readonly\npushg x\npushg m\nelem_readonly\n" + compare +
            "\npopg r\npushg r\nout\npushg x\npushg n\nelem_readonly\npushg three\n" + compare +
            "\njmp_eq " + label + "2\npushc \"+\"\nout\n" + label + "2: ";
  }
  ExpectTheSame(kRow + fill +
                "storegi three, 3\nouter: storegi n, 0\nincg m, 1\nagain: incg n, 1\n" + body +
                "cmpgi n, 9\njmp_lt again\ncmpgi m, 9\njmp_lt outer\nexit\n");
}

// Arrays that have been made in all ways, and positions within and out of them.
TEST(NativeCode, ElementsAreFoundInArraysOfAllShapes) {
  const auto put = [](const std::string& value, int position) {
    return value + "\npushg x\npushi " + std::to_string(position) + "\nelem\nstore\n";
  };
  std::string row, doubles, texts;
  for (int i = 1; i <= 6; i++) {
    row += put("pushi " + std::to_string(10 * i), i);
    doubles += put("pushf " + std::to_string(i) + ".5", i);
    texts += put("pushc \"t" + std::to_string(i) + "\"", i);
  }
  const std::string shapes[] = {
      "",
      row,
      doubles,
      texts,
      put("pushi 3", 3) + put("pushi 4", 4),
      row + put("pushi 9", 9),
      row + "pushg x\npopg copy\n",
      row + "pushg x\npopg copy\npushg copy\npopg x\n",
      row + "pushg x\npushi 3\nelem\npoprg held\n",
      row + "pushg other\npushg x\npushi 3\nelem\nrefer\n",
      row + put("pushg row", 2) + put("pushf nan", 3) + put("pushc \"3\"", 1),
      "pushi 1\npushg x\npushc \"m\"\nmemb\nstore\n",
      "pushi 1\npopg x\n",
      row + "pushg x\npushg y\nrefer\npushg y\npoprg x\n",
  };
  const std::string works[] = {
      "pushg x\nINDEX\nelem_readonly\nout\n",
      "pushg x\nINDEX\nelem_readonly\npopg r\npushg r\nout\n",
      "pushg x\nINDEX\nelem_readonly\npushi 1\nadd\npopg r\npushg r\nout\n",
      "pushg n\npushg x\nINDEX\nelem\nstore\n",
      "pushf 0.25\npushg x\nINDEX\nelem\nstore\n",
      "pushg x\nINDEX\nelem\ndup\npushi 1\nadd\nswap\nstore\n",
      "pushg x\nINDEX\nelem\ncall change\nout\n",
      "pushg x\nINDEX\nelem_readonly\npushg x\npushg n\nelem\nstore\n",
  };
  const char* const positions[] = {"0", "-1", "1", "2", "3", "6", "7", "100", "-2147483648"};
  const size_t stride = kAddressSanitizer || kThreadSanitizer ? 83 : 5;
  size_t number = 0;
  for (const std::string& shape : shapes) {
    for (const std::string& work : works) {
      for (const char* const position : positions) {
        for (const char* const index :
             {"pushg at", "pushg both", "pushf POSITION", "pushg at\npushg zero\nadd"}) {
          if (++number % stride != 0) continue;
          const auto fill = [](std::string text, const std::string& word, const std::string& by) {
            for (size_t place; (place = text.find(word)) != std::string::npos;) {
              text.replace(place, word.size(), by);
            }
            return text;
          };
          const std::string body = fill(fill(work, "INDEX", index), "POSITION", position);
          SCOPED_TRACE(shape + "\n" + body + position);
          ExpectTheSame(kRow + shape + "storegi zero, 0\npushi " + position + "\npopg at\npushi " +
                        position + "\npopg both\npushg both\npushf 0.5\nadd\npop\n" +
                        Loop(body + "pushg x\nout\npushg copy\nout\npushg held\nout\n") +
                        ".function change(e var)\npushi 7\npopl e\npushl e\nret\n.end\n");
          if (HasFailure()) return;
        }
      }
    }
  }
}

// An array grows by numbers of all kinds, also after it was read in any order, and while a copy has
// the same elements. What is no number, and what leaves a gap, is added in another way.
TEST(NativeCode, AnArrayGrowsByOneElementAtATime) {
  const auto store = [](const std::string& value, const std::string& index) {
    return value + "\npushg x\n" + index + "\nelem\nstore\n";
  };
  const auto read = [](const std::string& index) {
    return "pushg x\n" + index + "\nelem_readonly\npopg r\npushg r\nout\npushc \" \"\nout\n";
  };
  const std::string first = store("pushi 5", "pushi 1");
  const std::string starts[] = {"",
                                first,
                                store("pushi 5", "pushi 4"),
                                first + store("pushi 5", "pushi 3"),
                                "pushi 3\npopg x\n",
                                first + "pushg x\npushg y\nrefer\npushg y\npoprg x\n"};
  const std::string values[] = {"pushg n",
                                "pushf 0.5",
                                "pushg n\npushi 3\ndiv",
                                "pushg text",
                                "pushg nan",
                                "pushg row",
                                "pushi -1",
                                "pushg missing",
                                "pushg both",
                                read("pushg n") + "pushg r",
                                "pushg x\npushg one\nelem_readonly"};
  for (const std::string& start : starts) {
    for (const std::string& value : values) {
      const std::string body =
          store(value, "pushg n") + read("pushg n") + read("pushi 2") + read("pushi 5") +
          store("pushg n", "pushg n\npushi 1\nadd") +
          "pushg n\npushi 7\nmod\njmp_ne no_copy\npushg x\npopg copy\nno_copy: ";
      SCOPED_TRACE(start + "\n" + body);
      ExpectTheSame("storegi one, 1\npushi 1\npopg both\npushg both\npushf 0.5\nadd\npop\n" +
                    (kRow + ("pushf nan\npopg nan\npushc \"t\"\npopg text\n" + start)) +
                    Loop(body, 40) + "pushg x\nout\npushg copy\nout\n");
      if (HasFailure()) return;
    }
  }
}

// The code expects elements of the kind that the first one has when it is made.
TEST(NativeCode, TheElementsOfAnArrayMayChangeTheirKind) {
  const char* const kinds[] = {"pushg n", "pushg n\npushf 0.25\nmul", "pushc \"7\"",
                               "pushc \"word\"", "pushg nan"};
  for (const char* const before : kinds) {
    for (const char* const after : kinds) {
      const auto fill = [](const std::string& value) {
        return value + "\npushg x\npushg i\nelem\nstore\n";
      };
      const std::string body =
          "pushg n\npushi 6\nmod\npushi 1\nadd\npopg i\n"
          "pushg x\npushg i\nelem_readonly\npushi 2\nmul\npopg sum\npushg sum\nout\n"
          "pushg x\npushg i\nelem_readonly\npopg r\npushg r\nout\n"
          "pushg x\npushg i\nelem_readonly\npushg x\npushg other\nelem\nstore\n"
          "pushg x\npushg other\nelem_readonly\npushg x\npushg i\nelem_readonly\neq\nout\n"
          "pushg n\npushi 20\nsub\njmp_lt early\n" +
          fill(after) + "early: pushc \" \"\nout\n";
      SCOPED_TRACE(body);
      ExpectTheSame("pushf nan\npopg nan\nstoregi n, 2\nstoregi i, 0\nfirst: incg i, 1\n" +
                    fill(before) + "cmpgi i, 7\njmp_lt first\nstoregi n, 0\nstoregi other, 4\n" +
                    Loop(body, 40));
      if (HasFailure()) return;
    }
  }
}

// The remainder of a division by a constant is that of a division by a variable.
TEST(NativeCode, ARemainderIsTheSameForAConstant) {
  std::mt19937 random(7);
  std::vector<int> divisors = {
      2,       -2,       3,       -3, 7,  10, -641, 1 << 30, 1000003, (1 << 30) + 1,
      INT_MAX, -INT_MAX, INT_MIN, 1,  -1, 0};
  for (int i = 0; i < 30; i++) divisors.push_back(static_cast<int>(random()));
  for (const int divisor : divisors) {
    const auto text = [](auto number) { return std::to_string(static_cast<int>(number)); };
    std::string fill;
    int count = 0;
    std::vector<int64_t> numbers = {0, 1, -1, INT_MAX, INT_MIN, INT_MIN + 1};
    for (int i = 0; i < 5; i++) numbers.push_back(static_cast<int>(random()));
    const int64_t most = divisor == 0 ? 0 : INT_MAX / int64_t{divisor} * divisor;
    for (const int64_t near : {int64_t{divisor}, most}) {
      for (int64_t number = near - 1; number <= near + 1; number++) {
        for (const int64_t either : {number, -number}) {
          if (either == static_cast<int>(either)) numbers.push_back(either);
        }
      }
    }
    for (const int64_t number : numbers) {
      fill += "pushi " + text(number) + "\npushg x\npushi " + text(++count) + "\nelem\nstore\n";
    }
    const std::string code =
        fill + "pushi " + text(divisor) + "\npopg d\nagain: incg n, 1\npushg x\npushg n\n" +
        "elem_readonly\npopg a\npushg a\npushi " + text(divisor) + "\nmod\npopg by_constant\n" +
        "pushg a\npushg d\nmod\npopg by_variable\npushg by_constant\nout\npushc \" \"\nout\n" +
        "pushg by_constant\npushg by_variable\nsub\nout\npushg a\npushi " + text(divisor) +
        "\nmod\npushg by_variable\nsub\nout\npushc \",\"\nout\ncmpgi n, " + text(count) +
        "\njmp_lt again\nexit\n";
    std::string expected;
    for (const int64_t number : numbers) {
      const int64_t by = divisor;
      expected += text(by == 0 || by == -1 ? 0 : static_cast<int>(number) % by) + " 00,";
    }
    EXPECT_EQ(ExpectTheSame(code).output, expected) << divisor;
  }
}

// Values of all kinds are stored in elements that are there, and a copy is a value of its own.
TEST(NativeCode, AnElementTakesTheValueOfAnother) {
  const auto element = [](const std::string& of, const std::string& index) {
    return "pushg " + of + "\n" + index + "\nelem";
  };
  const auto member = [&](const std::string& value, const std::string& index) {
    return value + "\n" + element("x", index) + "\npushc \"m\"\nmemb\nstore\n";
  };
  std::string fill = "pushc \"\"\npopg x\n";
  for (int i = 1; i <= 4; i++)
    fill += member("pushi " + std::to_string(i * 10), "pushi " + std::to_string(i));
  fill += "pushc \"text\"\n" + element("x", "pushi 5") + "\nstore\npushi 6\n" +
          element("x", "pushi 6") + "\nstore\npushi 7\n" + element("x", "pushi 7") +
          "\npushi 1\nelem\nstore\npushc \"a longer text, which is copied in parts\"\n" +
          element("x", "pushi 8") + "\nstore\n" + element("x", "pushi 9") + "\npop\n";
  const std::string show =
      "storegi k, 1\nNAME: pushg x\npushg k\nelem_readonly\nout\npushc \" \"\nout\nincg k, 1\n"
      "cmpgi k, 9\njmp_le NAME\n";
  const std::string values[] = {element("x", "pushg j") + "_readonly", "pushg kept", "pushg x",
                                "pushg refers", element("row", "pushi 3") + "_readonly"};
  const std::string before[] = {
      "", "pushg x\npopg copy\n", element("x", "pushg i") + "\npoprg held\n",
      member("pushg n", "pushi 2"), "pushg x\npopg copy\n" + member("pushg n", "pushi 1")};
  for (const std::string& value : values) {
    for (const std::string& first : before) {
      for (const bool in_function : {false, true}) {
        const std::string store = value + "\n" + element("x", "pushg i") + "\nstore\n";
        std::string names[] = {show, show};
        for (int i = 0; i < 2; i++) {
          for (size_t place; (place = names[i].find("NAME")) != std::string::npos;) {
            names[i].replace(place, 4, "show" + std::to_string(i));
          }
        }
        const std::string swap =
            element("x", "pushg i") + "_readonly\npopg kept\n" + first +
            (in_function ? "pushg i\npushg j\npushg x\ncall put\npop\n" : store) + names[0] +
            member("pushg n", "pushi 3") + names[1] + "pushg copy\nout\npushg held\nout\n";
        const std::string body =
            "pushg n\npushi 9\nmod\npushi 1\nadd\npopg i\npushg n\npushi 2\n"
            "mul\npushi 9\nmod\npushi 1\nadd\npopg j\n" +
            swap;
        SCOPED_TRACE(body);
        const Outcome outcome =
            ExpectTheSame(kRow + ("pushg refers\npushg other\nrefer\n" + fill) +
                          Loop(body + fill, 11) + "exit\n" +
                          ".function put(i, j, a var)\npushl a\npushl j\nelem_readonly\npushl a\n"
                          "pushl i\nelem\nstore\npushi 0\nret\n.end\n");
        EXPECT_EQ(outcome.result, 1) << outcome.error;
        if (HasFailure()) return;
      }
    }
  }
}

// Not all of them may be a bare number of an element. A whole array or structure is not written,
// since that would make variables of its elements.
TEST(NativeCode, ANaNIsStoredWhateverItsBitsAre) {
  const std::string member = "pushg s\npushc \"m\"\nmemb";
  const std::string reads =
      "pushg x\npushi 1\nelem_readonly\npopg r\npushg r\nout\npushg s\npushc \"m\"\n"
      "memb_readonly\npopg r\npushg r\nout\npushg x\npushg one\nelem_readonly\npushi 1\nlt\n"
      "popg r\npushg r\nout\n";
  std::string body;
  for (const char* const value :
       {"pushg inf\npushg inf\nsub\n", "pushg made\n", "pushf 0xFFFFFFFFFFFFFFFF\n", "pushg full\n",
        "pushg full\npushg one\nadd\n", "pushf 0x7FFFFFFFFFFFFFFF\n"}) {
    body +=
        "pushc \"\"\npopg x\npushc \"\"\npopg s\npushf 1.5\npushg x\npushi 1\nelem\nstore\n"
        "pushf 1.5\npushg x\npushi 2\nelem\nstore\npushg x\npopg y\npushf 1.5\npushg x\npushi 1\n"
        "elem\nstore\npushi 1\n" +
        member + "\nstore\n" + value + "pushg x\npushi 1\nelem\nstore\n" + value + member +
        "\nstore\n" + reads;
  }
  ExpectTheSame(
      "pushf 0xFFFFFFFFFFFFFFFF\npopg full\npushf inf\npopg inf\nstoregi one, 1\n"
      "pushg inf\npushg inf\nsub\npopg made\n" +
      Loop(body, 10));
}

// A copy has the same members until one of the two is written to.
TEST(NativeCode, AStoreInAMemberLeavesTheCopiesAsTheyAre) {
  const auto read = [](const char* of) {
    return "pushg " + std::string(of) +
           "\npushc \"m3\"\nmemb_readonly\npopg r\npushg r\nout\npushc \" \"\nout\n";
  };
  const std::string store = "pushg n\npushg s\npushc \"m3\"\nmemb\nstore\n";
  std::string fill;
  for (int i = 0; i < 12; i++) {
    fill += "pushi " + std::to_string(i) + "\npushg s\npushc \"m" + std::to_string(i) +
            "\"\nmemb\nstore\n";
  }
  const std::string body = "pushc \"\"\npopg s\n" + fill + store + "pushg s\npopg t\n" + store +
                           "incg n, 100\n" + store + "incg n, -100\n" + read("t") + read("s") +
                           "pushg s\npopg u\npushf 0.5\npushg u\npushc \"m3\"\nmemb\nstore\n" +
                           read("u") + read("s") + read("t");
  ExpectTheSame(Loop(body, 12));
}

// Structures of other layouts go through the same code.
TEST(NativeCode, MembersAreFoundInStructuresOfOtherLayouts) {
  std::string fill;
  const auto member = [](const std::string& of, const std::string& name) {
    return "pushg " + of + "\npushc \"" + name + "\"\nmemb\n";
  };
  for (int i = 0; i < 40; i++) {
    const std::string value = "pushi " + std::to_string(i) + "\n";
    fill += value + member("a", "m" + std::to_string(i)) + "store\n";
    fill += value + member("b", "m" + std::to_string(39 - i)) + "store\n";
    if (i % 3 == 0) fill += "pushc \"t\"\n" + member("c", "m" + std::to_string(i)) + "store\n";
    if (i % 5 == 0) fill += "pushf 0.5\n" + member("d", "M" + std::to_string(i)) + "store\n";
  }
  std::string body = "pushg n\npushi 5\nmod\npopg k\n";
  for (const char* const name : {"a", "b", "c", "d", "e"}) {
    const std::string label = std::string("not_") + name;
    body += "pushg k\npushi " + std::to_string(name[0] - 'a') + "\neq\njmp_eq " + label +
            "\npushg " + name + "\npopg s\n" + label + ": ";
  }
  for (const char* const name : {"m0", "m7", "m15", "m39", "new", "M3"}) {
    body += member("s", name) + "dup\npushi 1\nadd\nswap\nstore\n" + "pushg s\npushc \"" + name +
            "\"\nmemb_readonly\nout\npushg s\npushc \"" + name +
            "\"\nmemb_readonly\npushg n\nadd\npopg r\npushg r\nout\npushg n\n" + member("s", name) +
            "store\npushg s\npushc \"" + name + "\"\nmemb_readonly\npushi 3\nlt\nout\n" +
            member("s", name) + "call change\nout\n";
  }
  // A copy, which shares its members until it is written to, and one that is written to in place.
  for (const char* const after :
       {"", "pushg s\npopg e\n", "pushg s\npushc \"m7\"\nmemb\npoprg held\n",
        "pushg other\npushg s\npushc \"m0\"\nmemb\nrefer\n"}) {
    SCOPED_TRACE(after);
    EXPECT_EQ(ExpectTheSame(fill + Loop(body + after + "pushg s\nout\n", 40) +
                            ".function change(e var)\npushl e\npushc \"x\"\neq\npushi 6\npopl e\n"
                            "ret\n.end\n")
                  .result,
              1);
  }
}

// The values of a loop over an array, and the variable that gets them, are of all kinds.
TEST(NativeCode, ALoopOverAnArrayGetsEachValueInEachVariable) {
  std::string fill;
  int count = 0;
  const auto place = [&count] { return "pushg x\npushi " + std::to_string(++count) + "\nelem\n"; };
  for (const char* const value :
       {"pushi 3\n", "pushf 2.5\n", "pushi -7\n", "pushf nan\n", "pushc \"a\"\n", "pushc \"bc\"\n",
        "pushc \"def\"\n", "pushc \"\"\n", "pushc \"12\"\n", "pushc \"4567\"\n",
        "pushc \"eight888\"\n", "pushc \"sixteen bytes it\"\n", "pushc \"seventeen bytes i\"\n",
        "pushg row\n", "pushg structure\n", "pushf -0.0\n", "pushi 5\n"}) {
    fill += value + place() + "store\n";
  }
  fill += "pushg other\n" + place() + "refer\n";
  fill += place() + "pop\n";
  fill += "pushi 9\n" + place() + "store\npushg x\npushi " + std::to_string(count) +
          "\nelem\npushi 2\ndiv\nout\n";
  fill += "pushc \"wood\"\n" + place() + "store\npushg x\npushi " + std::to_string(count) +
          "\nelem\npushi 2\nadd\nout\n";
  const std::string last = std::to_string(count);
  for (const bool local : {false, true}) {
    const std::string v = local ? "l v" : "g v";
    for (const char* const lines : {"", "lineno 7\n", "sourcefile \"a\"\nlineno 8\n"}) {
      for (const char* const round : {"", "pushg x\npopg copy\n", "pushi 1\nCOPY\n"}) {
        SCOPED_TRACE(testing::Message() << v << lines << round);
        std::string change = round;
        if (change == "pushi 1\nCOPY\n") change = "pushg x\npop" + v + "\n";
        const std::string body = OfEachKind(v) + change +
                                 "pushi 0\nhead: pushi 1\nadd\ndup\npushg x\nswap\n" + lines +
                                 "elem_readonly\ndup\nisnull\njmp_ne end\npop" + v + "\npush" + v +
                                 "\nout\npushc \" \"\nout\njmp head\nend: pop\ndup\npushi " + last +
                                 "\nlt\njmp_ne head\npop\npushg other\nout\n";
        if (local) {
          ExpectTheSame(kRow + fill + "call f\nexit\n.function f()\n.local v\nagain: incg n, 1\n" +
                        body + "cmpgi n, 30\njmp_lt again\nretn\n.end\n");
        } else {
          ExpectTheSame(kRow + fill + Loop(body, 30));
        }
      }
    }
  }
}

// The array changes while the loop is on its way, and the position may be outside of it.
TEST(NativeCode, ALoopOverAnArrayGoesOnInTheArrayThatIsThere) {
  std::string fill;
  for (int i = 1; i <= 9; i++) {
    fill += "pushi " + std::to_string(3 * i) + "\npushg x\npushi " + std::to_string(i) +
            "\nelem\nstore\n";
  }
  const char* const changes[] = {
      "",
      "pushg v\npushi 1\nadd\npushg x\npushi 4\nelem\nstore\n",
      "pushg x\npushi 9\nelem\npushi 1\npopg v\npop\n",
      ("pushg x\npopg y\npushi 100\npushg x\npushi 8\nelem\nstore\npushg y\npushi 8\n"
       "elem_readonly\nout\n"),
      "pushc \"\"\npopg x\n",
      "pushi 1\npushg x\npushi 20\nelem\nstore\n",
      "pushg x\npushg y\nrefer\n",
      "pushg x\npoprg v\n",
      "pushg x\npushi 5\nelem\npoprg v\n",
      "pop\npushf 2.5\n",
      "pop\npushi 6\n",
      "pop\npushc \"6\"\n",
      "pop\npushi 2147483647\n",
      "pop\npushf nan\n",
      "pop\npushi -3\n",
  };
  for (const char* const change : changes) {
    SCOPED_TRACE(change);
    ExpectTheSame(fill + Loop("storegi k, 0\npushi 0\nhead: pushi 1\nadd\ndup\npushg x\nswap\n"
                              "lineno 9\nelem_readonly\ndup\nisnull\njmp_ne end\npopg v\npushg v\n"
                              "out\npushc \" \"\nout\nincg k, 1\ncmpgi k, 5\njmp_ne same\n" +
                                  std::string(change) +
                                  "same: cmpgi k, 20\njmp_lt head\ndup\nend: pop\nout\n",
                              5));
  }
}

// --- Texts ---------------------------------------------------------------------------------------

// Texts of all lengths, some of which are or may be numbers. Those that were compared as numbers
// keep the number.
TEST(NativeCode, TextsAreComparedAndCopiedWhateverTheirLength) {
  std::vector<std::string> texts = {"",  "+",  "-",   ".",    "i",   "n",   " ",           "7",
                                    "x", "X",  "inf", "inn",  "nan", "-.5", "99999999999", "7x",
                                    "é", "+i", "mod", "mode", "m",   "ab",  "ac",          "0x10",
                                    "7", "7 ", "1e3"};
  for (const int length : {5, 7, 8, 9, 15, 16, 17, 24, 25, 64, 65, 300}) {
    const std::string text(static_cast<size_t>(length), 'q');
    texts.push_back(text);
    texts.push_back(text.substr(1) + "r");
    texts.push_back("r" + text.substr(1));
  }
  std::string fill;
  int position = 0;
  for (const std::string& text : texts) {
    fill +=
        "pushc \"" + text + "\"\npushg x\npushi " + std::to_string(++position) + "\nelem\nstore\n";
  }
  fill += "pushi 7\npushg x\npushi " + std::to_string(++position) + "\nelem\nstore\n";
  fill += "pushf 7\npushg x\npushi " + std::to_string(++position) + "\nelem\nstore\n";
  const std::string n = "pushg x\npushg n\nelem_readonly\n",
                    m = "pushg x\npushg m\nelem_readonly\n";
  std::string body = n + "popg a\n" + m + "popg b\npushg a\npopg c\n";
  int label = 0;
  const auto use = [&](const std::string& operands) {
    for (const char* const compare : {"eq", "ne"}) {
      const std::string after = "t" + std::to_string(label++);
      body += operands + compare + "\njmp_eq " + after + "\npushc \"+\"\nout\n" + after + ": " +
              operands + compare + "\npopg r\npushg r\nout\n";
    }
  };
  use(n + m);
  use(n + "pushg b\n");
  use("pushg a\n" + m);
  use("pushg a\npushg b\n");
  for (const char* const constant :
       {"x", "+", "mod", "", "7", "qqqqqqqq", "qqqqqqqqqqqqqqqq", "qqqqqqqqqqqqqqqqqqqqqqqqr"}) {
    use("pushg a\npushc \"" + std::string(constant) + "\"\n");
  }
  use("pushg d\npushg b\n");
  body += "pushg a\npushg b\ncall f\nout\npushg c\npushi 0\nbitor\nout\npushg a\npushi 0\nbitor\n" +
          std::string("out\npushg a\nout\npushg b\npopg c\n");
  // The other operands are those of a short row of positions, beginning at the first one.
  const std::string last = std::to_string(position);
  EXPECT_EQ(
      ExpectTheSame(fill +
                    "pushg a\npushg d\nrefer\nouter: storegi k, 0\nincg n, 1\n"
                    "again: incg k, 1\npushg n\npushg k\nadd\npushi 2\nsub\npushi " +
                    last + "\nmod\npushi 1\nadd\npopg m\n" + body +
                    "cmpgi k, 5\njmp_lt again\ncmpgi n, " + last +
                    "\njmp_lt outer\nexit\n.function f(p var, q var)\npushl p\npushl q\neq\n"
                    "jmp_ne same\npushl p\npushc \"x\"\neq\nret\nsame: pushl q\npushc \"mod\"\n"
                    "ne\nret\n.end\n")
          .result,
      1);
}

// Values that a concatenation writes as texts. So many are elements of x.
std::string FillWithTexts(int* count) {
  std::string fill;
  int position = 0;
  const auto add = [&](const std::string& value) {
    fill += value + "\npushg x\npushi " + std::to_string(++position) + "\nelem\nstore\n";
  };
  for (const int length :
       {0, 1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 31, 33, 64, 65, 200, 256, 257, 600}) {
    std::string text;
    for (int i = 0; i < length; i++) text += static_cast<char>('a' + (i * 5 + length) % 26);
    add("pushc \"" + text + "\"");
  }
  for (const char* const number :
       {"0", "7", "9", "10", "42", "99", "100", "101", "999", "1000", "9999", "10000", "123456",
        "-1", "-10000", "2147483647", "-2147483648"}) {
    add(std::string("pushi ") + number);
  }
  for (const char* const number : {"7", "-0.0", "2.5", "nan", "1e9", "4294967296", "0"}) {
    add(std::string("pushf ") + number);
  }
  fill +=
      "pushg x\npushi 22\nelem\npushi 2\ndiv\nout\npushg other\npushg x\npushi 3\nelem\nrefer\n";
  *count = position;
  return fill;
}

TEST(NativeCode, AConcatenationHasTheTextsOfAllKindsOfOperands) {
  int count;
  const std::string fill = FillWithTexts(&count);
  const std::string n = "pushg x\npushg n\nelem_readonly\n",
                    m = "pushg x\npushg m\nelem_readonly\n";
  const std::string show = "popg r\npushg r\nout\npushc \"/\"\nout\n";
  const std::string body =
      n + m + "cat\n" + show + n + "popg a\n" + m + "popg b\n" +
      "pushg a\npushc \"-\"\ncat\npushg b\ncat\n" + show +
      "pushc \"<\"\npushg a\ncat\npushi 5\ncat\n" +
      "out\npushg t\npushg a\ncat\npushi -3\ncat\npopg t\npushg t\nout\n" +
      "pushg a\npushi 1\nadd\npushc \"k\"\ncat\n" + show +
      "pushg a\npushi 3\nmod\npushc \"m\"\ncat\n" + show +
      "pushc \"x\"\npushg r\ncat\npushg r\ncat\n" + show + "pushg b\npushg u\ncat\n" + show +
      "pushg u2\npushg b\ncat\npopg u2\npushg d\npushg b\ncat\npopg d\npushg other\nout\n" +
      "pushg other\npushg a\ncat\npopg other\npushg a\npushg b\ncall join\nout\n" +
      "pushc \"<\"\npushg a\npushg b\ncall join\ncat\npushg b\npushg a\ncall join\ncat\npushg n\n"
      "pushg n\ncall join\ncat\nout\npushg a\npushg b\ncall join\npushg b\npushg n\ncall "
      "longer\ncat\npopg "
      "r\npushg r\nout\n" +
      "pushg a\npushg b\ncall join\n" + show + "pushg a\npushg b\ncall longer\n" + show +
      "pushg k\npushi 2\neq\njmp_eq keep\npushc \"\"\npopg t\npushc \"\"\npopg u2\npushc "
      "\"\"\npopg other\nkeep: ";
  const std::string last = std::to_string(count);
  const Outcome outcome = ExpectTheSame(
      fill +
      "pushg other\npushg d\nrefer\nouter: storegi k, 0\nincg n, 1\nagain: incg k, 1\npushg n\n" +
      "pushi 7\nmul\npushg k\npushi 11\nmul\nadd\npushi " + last + "\nmod\npushi 1\nadd\npopg m\n" +
      body + "cmpgi k, 4\njmp_lt again\ncmpgi n, " + last +
      "\njmp_lt outer\nexit\n.function join(p, q var)\npushc \"<b>\"\npushl p\ncat\npushc "
      "\"</b>\"\ncat\n"
      "pushl q\ncat\nret\n.end\n.function longer(p, q)\n.local v\npushl p\npushl q\ncat\npopl "
      "v\npushl v\n"
      "pushc \"and more\"\ncat\npushl p\ncat\nret\n.end\n");
  EXPECT_EQ(outcome.result, 1);
  EXPECT_NE(outcome.output.find("<b>100</b>"), std::string::npos);
}

// The parameters keep the memory of the texts that they had in earlier calls.
TEST(NativeCode, ATextIsPassedWhateverTheParameterHadBefore) {
  int count;
  const std::string fill = FillWithTexts(&count);
  std::string body = "pushg x\npushg n\nelem_readonly\npopg a\n";
  const std::string show = "call show\npop\n";
  for (int length = 0; length < 70; length += length < 20 ? 1 : 7) {
    const std::string constant =
        "pushc \"" + std::string(static_cast<size_t>(length), 'c') + "\"\n";
    body += constant + "pushg a\n" + show + "pushg a\n" + constant + show +
            "pushg x\npushg n\nelem_readonly\npushg x\npushi 5\nelem_readonly\n" + show +
            "pushg other\npushg d\n" + show;
  }
  const std::string last = std::to_string(count);
  EXPECT_EQ(
      ExpectTheSame(
          fill + "pushc \"words\"\npopg other\npushg other\npushg d\nrefer\n" + Loop(body, count) +
          ".function show(p, q)\n.local v\npushl p\nout\npushc \":\"\nout\npushl q\nout\n"
          "pushl v\nout\npushl q\npopl v\npushl v\npushc \"!\"\ncat\npopl q\npushl q\nout\n"
          "pushl p\npopl v\npushl v\nret\n.end\n")
          .result,
      1);
}

// Constant texts of all lengths go into the room that a capture holds open, until that is full.
TEST(NativeCode, ConstantTextsAreWrittenInTheirOrder) {
  std::string body, expected;
  for (int length = 0; length < 70; length++) {
    std::string text;
    for (int i = 0; i < length; i++) text += static_cast<char>('a' + (i * 7 + length) % 26);
    body += "pushc \"" + text + "\"\nout\n";
    if (length % 10 == 3) body += "pushg n\nout\n";
  }
  const Outcome outcome =
      ExpectTheSame("again: incg n, 1\n" + body + "cmpgi n, 3\njmp_lt again\npushg all\ncapture\n" +
                    "storegi n, 0\nmore: incg n, 1\n" + body +
                    "cmpgi n, 20\njmp_lt more\ncapture_end\npushg all\nout\nexit\n");
  EXPECT_EQ(outcome.result, 1);
  EXPECT_GT(outcome.output.size(), 20 * 69 * 35u);
}

// --- Calls ---------------------------------------------------------------------------------------

TEST(NativeCode, AFunctionReturnsEachKindAcrossSegments) {
  const char* const results[] = {"pushi 3",
                                 "pushf 2.5",
                                 "pushc \"text\"",
                                 "pushl p",
                                 "pushl t",
                                 "pushg row",
                                 "pushl p\npushi 1\nadd",
                                 "pushg missing",
                                 "pushl p\npushc \"x\"\ncat",
                                 "pushl p\npushi 2\nlt",
                                 "pushg i"};
  const char* const arguments[] = {"pushi 4",      "pushf 0.5", "pushc \"abc\"",
                                   "pushg row",    "pushg n",   "pushg row\npushi 2\nelem_readonly",
                                   "pushg missing"};
  for (const char* const apart : {"", ".segment 1\n"}) {
    for (const char* const result : results) {
      for (const char* const parameter : {"(p)", "(p var)"}) {
        std::string body;
        for (const char* const argument : arguments) {
          const std::string call = argument + std::string("\ncall f\n");
          body += call + "out\n" + call + "popg r\npushg r\nout\n" + call + "pushi 1\nadd\nout\n" +
                  call + "pushg e\npushi 1\nelem\nstore\npushg e\npushi 1\nelem_readonly\nout\n" +
                  call + "pop\n" + call + "call same\nout\npushc \" \"\nout\n";
        }
        SCOPED_TRACE(apart + std::string(result) + parameter);
        ExpectTheSame(kRow + Loop(body, 12) + kSame + apart + ".function f" + parameter +
                      "\n.local t\npushl p\npopl t\nlineno 9\n" + result + "\nret\n.end\n");
      }
    }
  }
}

// What a call leaves in its variables, whatever their kind and number, is not there in the next
// one.
TEST(NativeCode, VariablesOfACallAreNewInTheNextOne) {
  const std::string long_text(300, 'x');
  const std::string kinds[] = {
      "pushi 3\npopl ",        "pushf 0.5\npopl ",
      "pushc \"text\"\npopl ", "pushc \"" + long_text + "\"\npopl ",
      "pushg row\npopl ",      "pushg row\npushi 2\nelem\npoprl ",
      "pushg n\npoprl ",       "pushg missing\npopl ",
  };
  for (const std::string& kind : kinds) {
    for (const int others : {0, 1, 7, 12}) {
      std::string locals, writes, reads;
      for (int i = 0; i <= others; i++) {
        const std::string name = "v" + std::to_string(i);
        locals += ".local " + name + "\n";
        // One of them is only there every other time.
        reads += "pushl " + name + "\nout\n";
        if (i == 0) writes += "pushg n\npushi 1\nbitand\njmp_eq skip\n";
        writes += kind + name + "\n";
        if (i == 0) writes += "skip: noop\n";
        if (i == 7) writes += "pushl v0\npoprl v7\n" + kind + name + "\n";
      }
      for (const char* const result : {"pushl p", "pushl v0", "pushi 7", "pushc \"t\"", "pushl q",
                                       "pushl v0\npushc \"+\"\ncat"}) {
        SCOPED_TRACE(kind + std::to_string(others) + result);
        const Outcome outcome = ExpectTheSame(
            kRow +
            Loop("pushg n\npushg row\npushi 1\nelem\ncall f\npopg r\npushg r\nout\n"
                 "pushg n\npushg row\ncall f\nout\npushg n\npushg n\ncall f\npushi 1\nadd\nout\n",
                 12) +
            ".function f(p, q var)\n" + locals + reads + writes + result + "\nret\n.end\n");
        EXPECT_EQ(outcome.result, 1) << outcome.error;
      }
    }
  }
}

// The arguments are the results of other calls, in all places, and each may be a number or not.
TEST(NativeCode, ResultsAreArgumentsOfTheNextCall) {
  const char* const values[] = {"pushi 3\n",
                                "pushf 0.5\n",
                                "pushc \"text\"\n",
                                "pushg row\n",
                                "pushg n\n",
                                "pushg missing\n",
                                "pushc \"1\"\npushc \"2\"\ncat\n"};
  const std::string same = "call same\n";
  for (const char* const apart : {"", ".segment 1\n"}) {
    std::string body;
    for (const char* const a : values) {
      for (const char* const b : values) {
        body += a + same + b + same + a + same + "call f\nout\n";
        body += std::string(a) + "lineno 3\n" + b + "lineno 4\npushg row\nlineno 5\ncall g\nout\n";
      }
    }
    // The parameters keep texts now and then, and are held once.
    const Outcome outcome = ExpectTheSame(
        kRow + Loop(body, 12) + kSame + apart +
        ".function f(p, q, r)\npushl p\nout\npushl q\nout\npushl r\nout\npushg n\npushi 5\neq\n"
        "jmp_eq end\npushg held\npushl p\nrefer\npushl q\npoprg kept\n"
        "end: pushl q\npushl p\ncat\nret\n.end\n"
        ".function g(p, q, r var)\npushl p\nout\npushl q\nout\npushl r\npushi 1\nelem_readonly\n"
        "out\npushl p\nret\n.end\n");
    EXPECT_EQ(outcome.result, 1) << outcome.error;
  }
  // Fewer entries than parameters.
  const Outcome outcome =
      ExpectTheSame(Loop("pushg n\npushi 1\npushi 2\ncall f\nout\npushg n\npushi 9\nlt\n"
                         "jmp_ne enough\npushi 1\ncall f\nout\nenough: noop\n",
                         12) +
                    ".function f(p, q, r)\npushl p\nlineno 3\npushl r\nadd\nret\n.end\n");
  EXPECT_NE(outcome.error.find("tack underflow"), std::string::npos) << outcome.error;
}

// Results of calls are compared where they are, on the stack, whatever they are.
TEST(NativeCode, ResultsOfAllKindsAreCompared) {
  const std::string values[] = {"pushi 3\n",
                                "pushf nan\n",
                                "pushc \"3\"\n",
                                "pushc \"text\"\n",
                                "pushc \"" + std::string(5000, 't') + "\"\n",
                                "pushc \"\"\n",
                                "pushg row\n",
                                "pushg missing\n",
                                "pushc \"te\"\npushc \"xt\"\ncat\n"};
  for (const char* const compare : {"lt", "le", "eq", "gt", "ge", "ne"}) {
    std::string body;
    for (const std::string& a : values) {
      for (const std::string& b : values) {
        body += a + "call same\n" + b + "call same\n" + compare + "\nout\n";
        body +=
            a + "call same\nlineno 4\n" + b + "lineno 5\n" + compare + "\npopg r\npushg r\nout\n";
      }
    }
    SCOPED_TRACE(compare);
    const Outcome outcome = ExpectTheSame(kRow + Loop(body, 4) + kSame);
    EXPECT_EQ(outcome.result, 1) << outcome.error;
    EXPECT_NE(outcome.output.find('1'), std::string::npos);
  }
  // Too few of them.
  ExpectTheSame(Loop("pushc \"a\"\ncall same\npushg n\npushi 9\nlt\njmp_ne few\neq\nout\n"
                     "few: pop\n",
                     12) +
                kSame);
}

// A parameter keeps the memory of its last text, which the next one may fit in or not.
TEST(NativeCode, TextsOfAllLengthsAreArguments) {
  std::string body;
  for (const int length :
       {0, 1, 3, 20, 2, 4, 5, 7, 8, 9, 11, 12, 15, 16, 17, 300, 15, 1, 5000, 0}) {
    const std::string text = "pushc \"" + std::string(static_cast<size_t>(length), 'q') + "\"\n";
    body += text + "popg a\n" + text + "pushg row\npushi 2\nelem\nstore\n";
    for (const std::string& argument :
         {text, std::string("pushg a\n"), std::string("pushg row\npushi 2\nelem_readonly\n")}) {
      body += "pushi 3\n" + argument + "call f\nout\n" + argument + argument + "call f\nout\n";
    }
    body += "pushg a\ncall reference\nout\n";
  }
  const Outcome outcome =
      ExpectTheSame(kRow + Loop(body, 12) +
                    ".function f(p, q)\npushl p\nout\npushl q\npushl p\ncat\nret\n.end\n"
                    ".function reference(p var)\npushl p\npushl p\ncall f\nret\n.end\n");
  EXPECT_EQ(outcome.result, 1) << outcome.error;
}

// What refers to a variable of the caller has the value that it has when it is used, which another
// call may change.
TEST(NativeCode, AResultThatIsAReferenceIsReadWhenItIsUsed) {
  const std::string functions =
      ".function f(p var)\npushl p\npushi 1\nadd\npopl p\npushl p\nret\n.end\n"
      ".function g(p var)\npushl p\npushc \"x\"\ncat\npopl p\npushl p\nret\n.end\n"
      ".function h(p var)\npushg row\npushi 2\nelem\npoprl p\npushl p\nret\n.end\n";
  for (const char* const value : {"pushi 3\n", "pushf 0.5\n", "pushc \"12\"\n", "pushc \"t\"\n",
                                  "pushg row\n", "pushg missing\n"}) {
    std::string body = value + std::string("popg a\n");
    for (const char* const call : {"pushg a\ncall f\n", "pushg a\ncall g\n", "pushg a\ncall h\n",
                                   "pushg row\npushi 1\nelem\ncall f\n"}) {
      body += std::string(call) + "popg r\npushg r\nout\n" + call + "popg a\npushg a\nout\n" +
              call + call + "add\nout\n" + call + "pushg a\ncall f\ncat\nout\n" + call + "out\n" +
              call + "poprg bound\npushg bound\nout\n";
    }
    SCOPED_TRACE(value);
    const Outcome outcome = ExpectTheSame(kRow + Loop(body, 12) + functions);
    EXPECT_EQ(outcome.result, 1) << outcome.error;
  }
}

// The caller gets the local variable itself, so the next call makes another one.
TEST(NativeCode, AFunctionMakesAStructureInEachCall) {
  const std::string member = "pushc \"m\"\nmemb\n", read = "pushc \"m\"\nmemb_readonly\n";
  for (const char* const value : {"pushl v\n", "pushi 7\n", "pushc \"text\"\n", "pushg row\n",
                                  "pushl v\npushi 2\nmul\n", "pushl made\n"}) {
    SCOPED_TRACE(value);
    const std::string make = "pushg n\ncall make\n";
    const Outcome outcome = ExpectTheSame(
        kRow +
        Loop(make + "popg r\npushg r\n" + read + "out\n" + make + "pushg root\n" + member +
                 "store\npushg root\n" + read + read + "out\n" + make + read + "out\n" + make +
                 "pushg rows\npushg n\nelem\nstore\n" + make + "pop\n" + make + "call same\n" +
                 read + "out\npushg rows\npushi 1\nelem_readonly\n" + read +
                 "out\npushi 3\npushg r\n" + member + "store\nlineno 8\npushg n\npushg kept\n" +
                 member + "store\npushg kept\n" + read + "out\n",
             20) +
        kSame + ".function make(v)\n.local made\n" + value + "pushl made\n" + member +
        "store\npushl v\npushl made\npushc \"n\"\nmemb\nstore\npushl made\nret\n.end\n");
    EXPECT_EQ(outcome.result, 1) << outcome.error;
  }
}

// A result is stored in a new member, in one that is there, and in members of copies.
TEST(NativeCode, AResultBecomesAMemberOfAnyStructure) {
  const auto store = [](const std::string& in, const std::string& name) {
    return in + "pushc \"" + name + "\"\nmemb\nstore\n";
  };
  const auto show = [](const std::string& in, const std::string& name) {
    return in + "pushc \"" + name + "\"\nmemb_readonly\npushc \"m\"\nmemb_readonly\nout\n" + in +
           "out\npushc \" \"\nout\n";
  };
  const std::string results[] = {"pushl made\n", "pushl v\n", "pushg shared\n",
                                 "pushl made\npushc \"in\"\nmemb\n"};
  const std::string targets[] = {"pushg fresh\n", "pushg structure\n", "pushg row\n",
                                 "pushg rows\npushg n\nelem\n", "pushg alias\n"};
  for (const std::string& result : results) {
    for (const std::string& in : targets) {
      SCOPED_TRACE(result + in);
      const std::string make = "pushg n\npushg structure\ncall make\n";
      const Outcome outcome = ExpectTheSame(
          kRow + std::string("pushg fresh\npushg alias\nrefer\npushg structure\npopg kept\n") +
          store("pushi 6\npushg shared\n", "m") +
          Loop(make + store(in, "a") + make + store(in, "A") + make + store(in, "b") +
                   show(in, "a") + in +
                   "popg copy\npushi 9\npushg copy\npushc \"a\"\nmemb\npushc \"m\"\nmemb\n" +
                   "store\n" + make + store("pushg copy\n", "c") + show("pushg copy\n", "c") +
                   show(in, "a") + show(in, "b") + show("pushg shared\n", "m") +
                   // It contains itself, as it was before.
                   in + store(in, "d") + show(in, "d") +
                   "pushg unset\npopg fresh\npushg kept\npopg structure\n",
               12) +
          ".function make(v, s)\n.local made\npushl v\npushl made\npushc \"m\"\nmemb\nstore\n" +
          "pushl s\npushl made\npushc \"in\"\nmemb\nstore\n" + result + "ret\n.end\n");
      EXPECT_EQ(outcome.result, 1) << outcome.error;
    }
  }
}

// The frame is kept after the first call, but its code is only known after the second.
TEST(NativeCode, ArgumentsOnTheStackReachAFunctionOfAnotherSegmentFromTheFirstCallOn) {
  const std::string call = "pushg row\npushg n\npushc \"x\"\ncat\ncall f\nout\n";
  const std::string function =
      "(p var, q)\npushl q\npushl p\npushi 1\nelem_readonly\ncat\nret\n.end\n";
  const Outcome outcome =
      ExpectTheSame(kRow + Loop(call, 12) + ".segment 1\n.function f" + function);
  EXPECT_EQ(outcome.result, 1) << outcome.error;
  // It is called from two segments in turn.
  const Outcome in_turn = ExpectTheSame(
      kRow + Loop(call + "pushg row\ncall g\nout\n", 12) + ".segment 1\n.function f" + function +
      ".segment 2\n.function g(p var)\npushl p\npushg n\npushc \"y\"\ncat\n" +
      "call f\nret\n.end\n");
  EXPECT_EQ(in_turn.result, 1) << in_turn.error;
}

// A text that a local variable has is a result in itself, however it is used, and whatever the
// variable that gets it had before.
TEST(NativeCode, ATextResultGoesToEachUse) {
  const std::string before[] = {"pushi 3\n", "pushc \"before\"\n", "pushg row\n", "pushg missing\n",
                                "pushc \"" + std::string(400, 'b') + "\"\n"};
  std::string body;
  for (const int length : {0, 1, 2, 7, 8, 31, 255, 256, 257, 5000}) {
    const std::string call =
        "pushc \"" + std::string(static_cast<size_t>(length), 't') + "\"\ncall f\n";
    for (const std::string& value : before) {
      body += value + "popg r\n" + call + "popg r\npushg r\nout\n";
    }
    body += call + "out\n" + call + "pop\n" + call + call + "cat\nout\n" + call + call +
            "eq\nout\n" + call + "call f\nout\n" + call + "popg other\npushg other\ncall f\n" +
            "popg other\npushg other\nout\n" + call + "pushg e\npushi 1\nelem\nstore\n" + call +
            "poprg bound\npushg bound\nout\npushg e\npushi 1\nelem_readonly\ncall g\npopg " +
            "r\npushg r\nout\n" + call + "call g\nout\n";
  }
  body +=
      "pushc \"12\"\ncall f\npushi 1\nadd\nout\npushc \"12\"\ncall f\npushg structure\n"
      "pushc \"m\"\nmemb\nstore\n";
  for (const char* const apart : {"", ".segment 1\n"}) {
    for (const char* const result : {"pushl p", "pushl t", "pushl h"}) {
      SCOPED_TRACE(apart + std::string(result));
      const Outcome outcome = ExpectTheSame(
          std::string(kRow) + "pushg target\npushg other\nrefer\n" + Loop(body, 6) +
          ".function g(p)\n.local t\npushl p\ncall f\npopl t\npushl t\nout\npushl p\ncall f\n" +
          "ret\n.end\n" + std::string(apart) +
          ".function f(p)\n.local t\n.local h\npushl p\npopl t\n" +
          "pushl p\npopl h\npushl h\npoprg kept\n" + result + "\nret\n.end\n");
      EXPECT_EQ(outcome.result, 1) << outcome.error;
    }
  }
}

// The frame that is kept for a function was prepared for calls from the other code each time.
TEST(NativeCode, AFunctionIsCalledFromSegmentsInTurn) {
  const std::string f = ".function f(p, q)\n.local v\npushl p\npopl v\npushl v\npushl q\nadd\n";
  const std::string calls =
      "pushg n\npushi 1\ncall f\npopg r\npushg r\nout\npushg n\ncall g\nout\npushg n\npushg n\n"
      "call f\nout\npushg n\ncall h\nout\n";
  const std::string g = ".function g(p)\npushl p\npushi 2\ncall f\npushi 1\nadd\nret\n.end\n";
  const std::string h =
      ".function h(p)\n.local v\npushl p\npushc \"3\"\ncall f\npopl v\npushl v\nret\n.end\n";
  const std::string programs[] = {
      Loop(calls, 20) + f + "ret\n.end\n.segment 1\n" + g + h,
      Loop(calls, 20) + ".segment 1\n" + f + "ret\n.end\n" + g + h,
      Loop(calls, 20) + ".segment 1\n" + f + "ret\n.end\n" + g + ".segment 2\n" + h,
      Loop(calls, 20) + ".segment 1\n" + f +
          "pushg n\npushi 17\neq\njmp_eq end\nadd\nadd\nend: ret\n.end\n.segment 2\n" + g + h,
  };
  for (const std::string& program : programs) {
    SCOPED_TRACE(program);
    const Outcome outcome = ExpectTheSame(program);
    EXPECT_GT(outcome.output.size(), 100u);
  }
}

// Variables for parameters by reference are on the stack together with other arguments. Each takes
// one count, also if it is there twice or nothing else has it.
TEST(NativeCode, ReferencesOnTheStackAreTakenOnce) {
  const char* const places[] = {"pushg a\n", "pushg row\npushi 2\nelem\n", "pushg to\n",
                                "pushg made\npushg n\nelem\n", "pushi 7\ncall fresh\n"};
  const char* const values[] = {"pushi 3\n",   "pushf 0.5\n", "pushc \"text\"\n",
                                "pushg row\n", "pushg n\n",   "pushc \"1\"\npushc \"2\"\ncat\n"};
  for (const char* const apart : {"", ".segment 1\n"}) {
    for (const char* const place : places) {
      std::string body;
      for (const char* const value : values) {
        // The results of calls come to the stack.
        const std::string same = value + std::string("call same\n");
        body += place + same + place + "lineno 4\ncall f\nout\n" + "pushg a\n" + same + place +
                "call f\nout\npushg a\nout\npushg row\npushi 2\nelem_readonly\nout\n" + place +
                same + "dup\npop\npushg a\ncall f\nout\n";
      }
      SCOPED_TRACE(apart + std::string(place));
      const Outcome outcome = ExpectTheSame(
          std::string(kRow) + "pushg a\npushg to\nrefer\n" + Loop(body, 10) + kSame +
          ".function fresh(x)\n.local v\npushl x\npopl v\npushl v\npushc \"m\"\nmemb\nret\n.end\n" +
          std::string(apart) +
          ".function f(p var, q, r var)\nincg calls, 1\npushl q\npopl p\npushg calls\n" +
          "popl r\npushl p\nout\npushl q\nret\n.end\n");
      EXPECT_EQ(outcome.result, 1) << outcome.error;
    }
  }
}

TEST(NativeCode, AReturnWithoutACallIsAnError) {
  for (const char* const result : {"pushi 7\n", "pushf 0.5\n", "pushg n\n", "pushc \"x\"\n"}) {
    const Outcome outcome = ExpectTheSame("again: incg n, 1\ncmpgi n, 40\njmp_lt again\n" +
                                          std::string(result) + "ret\nexit\n");
    EXPECT_NE(outcome.error.find("Frame underflow"), std::string::npos) << outcome.error;
  }
}

TEST(NativeCode, ARecursionEndsAtTheLimitOfFrames) {
  const std::string program =
      "storegi n, 0\nagain: incg n, 1\npushi 30\ncall down\npop\ncmpgi n, 20\njmp_lt again\n"
      "pushi 1000000\ncall down\npop\nexit\n"
      ".function down(left)\nlineno 7\nincg deep, 1\npushl left\npushi 1\nlt\njmp_ne end\n"
      "lineno 8\npushl left\npushi 1\nsub\ncall down\nret\nend: pushi 0\nret\n.end\n";
  std::string deep;
  for (const Pace pace : kPaces) {
    SCOPED_TRACE(pace);
    Machine machine;
    machine.Assemble(program);
    const RunsAt runs(pace, &machine);
    EXPECT_EQ(machine.Go(), 0);
    EXPECT_EQ(machine.Failure(), "Line 8: Stack overflow");
    ExpectCodeOf(pace, &machine);
    if (pace == Pace::Cold) deep = machine.Value("deep") + machine.Error();
    EXPECT_EQ(machine.Value("deep") + machine.Error(), deep);
  }
}

// The same where a frame is kept for each of the calls.
TEST(NativeCode, ARecursionInKeptFramesEndsAtTheLimitToo) {
  const std::string program =
      "pushi 65000\ncall down\npop\npushi 65000\ncall down\npop\nincg first, 1\npushi 600\ncall "
      "outer\npop\nexit\n"
      ".function outer(left)\npushl left\npushi 1\nlt\njmp_ne last\npushl left\npushi 1\nsub\n"
      "call outer\nret\nlast: pushi 65000\ncall down\nret\n.end\n"
      ".function down(left)\nlineno 7\nincg deep, 1\npushl left\npushi 1\nlt\njmp_ne end\n"
      "lineno 8\npushl left\npushi 1\nsub\ncall down\nret\nend: pushi 0\nret\n.end\n";
  std::string deep;
  for (const Pace pace : kPaces) {
    SCOPED_TRACE(pace);
    Machine machine;
    machine.Assemble(program);
    const RunsAt runs(pace, &machine);
    EXPECT_EQ(machine.Go(), 0);
    EXPECT_EQ(machine.Value("first"), "1");
    EXPECT_EQ(machine.Failure(), "Line 8: Stack overflow");
    if (pace == Pace::Cold) deep = machine.Value("deep") + machine.Error();
    EXPECT_EQ(machine.Value("deep") + machine.Error(), deep);
  }
}

// The place and the line are those of the instruction that fails.
TEST(NativeCode, AnErrorTellsItsPlaceWhereverItIs) {
  const char* const failures[] = {"add\n",
                                  "pushg n\npushi 1\nadd\npushi 3\nmul\nadd\npop\nadd\n",
                                  "pushg x\npushi -1\nelem\npop\n",
                                  "pushi 1\npushg x\npushg bad\nelem\nstore\n",
                                  "pushi 5\npushi 1\nelem\npop\n",
                                  "pushg n\npushi 1\nstore\n",
                                  "pushi 1\npushi 2\nretn\n"};
  for (const char* const failure : failures) {
    for (const char* const apart : {"", ".segment 1\n"}) {
      SCOPED_TRACE(failure + std::string(apart));
      const std::string when = "lineno 21\npushg n\npushi 20\nne\njmp_ne ok\nlineno 22\n" +
                               std::string(failure) + "lineno 23\nok: lineno 24\n";
      ExpectTheSame("storegi bad, -1\nsourcefile \"page\"\n" + Loop(when, 30));
      ExpectTheSame(
          "storegi bad, -1\nsourcefile \"page\"\n" +
          Loop("lineno 3\npushg n\ncall g\nout\nlineno 4\n", 30) + apart +
          ".function f(p)\nsourcefile \"other\"\n" + when + "pushl p\nret\n.end\n" +
          ".function g(p)\nlineno 30\npushl p\npushi 1\nadd\ncall f\nlineno 31\nret\n.end\n");
    }
  }
}

// A library may run functions of the script while its machine code runs.
class CallsBack : public ImmutableVariable {
 public:
  CallsBack(Machine* m, std::function<void(Machine*)> f) : machine(m), call(std::move(f)) {}
  int type() override { return VariableComputedInteger; }
  int value_integer() override {
    call(machine);
    return ++reads;
  }

  int reads = 0;

 private:
  Machine* machine;
  std::function<void(Machine*)> call;
};

Prepare Computed(const std::function<void(Machine*)>& call) {
  return [call](Machine* machine) {
    auto* const computed = new CallsBack(machine, call);
    computed->SetName(String("x"));
    machine->global.SetVariable(computed);
  };
}

TEST(NativeCode, ARunWithinARunHasMachineCodeToo) {
  const Prepare calls = Computed([](Machine* machine) {
    VariableList none;
    Variable result;
    machine->vm().RunFunction("back", -1, &none, &result);
    EXPECT_EQ(Machine::Text(result), "55");
  });
  const Outcome outcome = ExpectTheSame(
      Loop("pushg n\ncall work\nout\npushg x\npushi 1023\nbitand\npopg y\npushg y\nout\n", 40) +
          ".function work(p)\npushl p\npushg x\npushi 1\nbitand\nadd\nret\n.end\n"
          ".function back()\n.local i\n.local sum\npushi 0\npopl i\npushi 0\npopl sum\n"
          "next: pushl i\npushi 1\nadd\npopl i\npushl sum\npushl i\nadd\npopl sum\n"
          "pushl i\npushi 10\nlt\njmp_ne next\npushl sum\nret\n.end\n",
      calls);
  EXPECT_EQ(outcome.result, 1);
}

TEST(NativeCode, ARunWithinARunMayFail) {
  ExpectTheSame(Loop("lineno 3\npushg n\npushg x\npushi 1023\nbitand\nadd\nout\n", 40) +
                    ".function back()\nlineno 9\nincg calls, 1\ncmpgi calls, 25\njmp_lt ok\nadd\n"
                    "ok: pushi 1\nret\n.end\n",
                Computed([](Machine* machine) {
                  VariableList none;
                  Variable result;
                  machine->vm().RunFunction("back", -1, &none, &result);
                }));
}

// A write to a segment deletes its decoded code and its machine code, also if a function that the
// code has called does it. The write is in place, since the machine runs the bytes where they are.
void Touch(ZephVM*, VariableHash* locals, Variable* result, void**) {
  Variable* const value = locals->At(0, 0);
  Segment* const segment = written_segment;
  unsigned char first;
  segment->Read_Byte(0, &first);
  segment->Write_Byte(0, first);
  EXPECT_EQ(segment->hot(), nullptr);
  result->SetValue_Integer(value ? value->value_integer() : 0);
}

class TouchLibrary : public ExternalLibrary {
 public:
  bool Load(const char*) override { return true; }
  void* Get_Function(const char*) override { return reinterpret_cast<void*>(&Table); }

 private:
  static _ZP_EL_FunctionTable* Table() {
    static _ZP_EL_Parameter parameters[] = {{"a", 1, 0}};
    static _ZP_EL_Function rows[] = {{"touch", 5, 1, parameters, Touch},
                                     {nullptr, 0, 0, nullptr, nullptr}};
    static _ZP_EL_FunctionTable table = {0, rows};
    return &table;
  }
};

class TouchLibraries : public ExternalLibraryManager {
 protected:
  ExternalLibrary* Load(const char*) override { return new TouchLibrary; }
};

TEST(NativeCode, ASegmentMayBeWrittenToByAFunctionThatItCalls) {
  TouchLibraries libraries;
  const Prepare uses = [&libraries](Machine* machine) {
    machine->application.SetLibraryManager(&libraries);
    EXPECT_TRUE(machine->external_calls.RegisterDSO("library"));
    written_segment = machine->segments.Start();
  };
  const Outcome outcome = ExpectTheSame(
      Loop("pushg n\npushi 2\nmul\ncall f\nout\npushg n\npushi 9\nmod\njmp_ne no\n"
           "pushg n\ncall touch\nout\nno: pushg n\npushg sum\nadd\npopg sum\n",
           200) +
          ".function f(p)\npushl p\npushi 50\nmod\njmp_ne plain\npushl p\npushl p\n"
          "call touch\nadd\nret\nplain: pushl p\nret\n.end\n.function touch(a) external\n.end\n",
      uses);
  EXPECT_EQ(outcome.result, 1);
}

// The code of the called function is dropped time and again. Its arguments are on the stack by
// then.
TEST(NativeCode, TheSegmentOfACalledFunctionMayBeWrittenTo) {
  TouchLibraries libraries;
  const Prepare uses = [&libraries](Machine* machine) {
    machine->application.SetLibraryManager(&libraries);
    EXPECT_TRUE(machine->external_calls.RegisterDSO("library"));
    written_segment = machine->segments.Lookup(1);
    ASSERT_TRUE(written_segment);
  };
  const Outcome outcome = ExpectTheSame(
      Loop("pushg n\ncall same\npushg n\ncall same\ncall f\nout\npushg n\npushi 9\nmod\njmp_ne no\n"
           "pushg n\ncall touch\nout\nno: pushg list\npushg n\ncall same\ncall g\nout\n",
           200) +
          kSame +
          ".function touch(a) external\n.end\n.segment 1\n.function f(p, q)\npushl p\n"
          "pushl q\nadd\nret\n.end\n.function g(p var, q)\npushl q\npopl p\npushl p\nret\n.end\n",
      uses);
  EXPECT_EQ(outcome.result, 1) << outcome.error;
}

// A task has a copy of the code, which becomes machine code of its own.
TEST(NativeCode, ATaskHasMachineCodeOfItsOwn) {
  std::string outputs[std::size(kPaces)];
  for (const Pace pace : kPaces) {
    auto machine = std::make_unique<Machine>();
    MachineApplication task;
    RecordingOutput task_output;
    task.SetOutput(&task_output);
    std::unique_ptr<ZephVM> clone;
    machine->application.begin_task = [&](ZephVM* vm) {
      clone = std::make_unique<ZephVM>(&task, *vm, task.heartbeatcounter(), task.timedoutflag(),
                                       task.exitflag());
      return AsynchronousTask_Started;
    };
    machine->Assemble(
        "again: incg n, 1\npushg n\ncall f\nout\npushg n\npushi 60\neq\njmp_eq on\n"
        "async rest\nnoop\nrest: storegi m, 1\non: pushg x\npushi 1\nelem\npushg n\n"
        "swap\nstore\npushg x\npushi 1\nelem_readonly\nout\ncmpgi n, 100\njmp_lt again\n"
        "exit\n.function f(p)\npushl p\npushi 3\nmul\nret\n.end\n");
    const RunsAt runs(pace, machine.get());
    EXPECT_EQ(machine->Go(), 1) << machine->Error();
    ExpectCodeOf(pace, machine.get());
    std::string& output = outputs[static_cast<int>(pace)];
    output = machine->Output() + "|";
    ASSERT_TRUE(clone);
    machine.reset();
    std::thread([&] {
      EXPECT_EQ(clone->Go(), 1) << clone->error().data;
      clone.reset();
      Variable::FreeCycles();
    }).join();
    output += task_output.text;
    EXPECT_GT(task_output.text.size(), 100u);
    EXPECT_EQ(output, outputs[0]);
  }
}

// --- The host's flags ----------------------------------------------------------------------------

const char* const kEndless[] = {
    "jmp again\n",
    "cmpgi n, 0\njmp_gt again\n",
    "pushg n\npushi 0\ngt\njmp_ne again\n",
    "pushg d\npushf 0.5\nadd\npopg d\npushg d\npushf -1.5\nge\njmp_ne again\n",
    "pushg n\npushi 0\nmul\njmp_eq again\n",
    "pushg n\ncall f\npop\njmp again\n",
    ("pushg n\npushg x\npushi 1\nelem\nstore\npushg x\npushi 1\nelem_readonly\npushi 0\nne\n"
     "jmp_ne again\n"),
    "inner: incg m, 1\ncmpgi m, 1\njmp_ge inner\njmp again\n",
};

// Runs endless loops until the flag is raised, by another thread after the loop has begun.
void ExpectAnEnd(int result, const std::function<void(Machine*)>& raise, const char* output) {
  for (const char* const loop : kEndless) {
    SCOPED_TRACE(loop);
    Machine machine;
    machine.Assemble(
        "storegi m, 1\nagain: incg n, 1\ncmpgi n, 1\njmp_gt on\n"
        "pushg start\npushi 1\nbitand\npop\non: noop\n" +
        std::string(loop) + "exit\n.function f(p)\npushl p\nret\n.end\n");
    const RunsAt runs(Pace::Native, &machine);
    DecodeAtOnce(&machine);
    std::thread raises;
    auto* const start = new CallsBack(&machine, [&](Machine* m) {
      raises = std::thread([&raise, m] {
        std::this_thread::yield();
        raise(m);
      });
    });
    start->SetName(String("start"));
    machine.global.SetVariable(start);
    EXPECT_EQ(machine.Go(), result);
    raises.join();
    EXPECT_EQ(machine.Output(), output);
    ExpectCodeOf(Pace::Native, &machine);
  }
}

TEST(NativeCode, ATimeOutEndsALoop) {
  ExpectAnEnd(
      0,
      [](Machine* machine) { std::atomic_ref<int>(*machine->application.timedoutflag()).store(1); },
      "Application timed out");
}

TEST(NativeCode, AnExitFromOutsideEndsALoop) {
  ExpectAnEnd(
      1, [](Machine* machine) { std::atomic_ref<int>(*machine->application.exitflag()).store(1); },
      "");
}

// The heartbeat comes while the loop runs, and more than once.
TEST(NativeCode, AHeartbeatIsToldWithinALoop) {
  for (const char* const loop : kEndless) {
    SCOPED_TRACE(loop);
    Machine machine;
    machine.Assemble("storegi m, 1\nagain: incg n, 1\n" + std::string(loop) +
                     "exit\n.function f(p)\npushl p\nret\n.end\n");
    const RunsAt runs(Pace::Native, &machine);
    DecodeAtOnce(&machine);
    class Beats : public Feature {
     public:
      Beats(Machine* m, ZephVM* v) : Feature(&m->application, v, Type_Lockfile), machine(m) {}
      void Heartbeat() override {
        if (++beats == 3) {
          std::atomic_ref<int>(*machine->application.exitflag()).store(1);
          return;
        }
        std::atomic_ref<int>(*machine->application.heartbeatcounter()).store(beats + 1);
      }
      Machine* machine;
      int beats = 0;
    };
    auto* const beats = new Beats(&machine, &machine.vm());
    machine.vm().Push_Feature(beats);
    std::thread first(
        [&] { std::atomic_ref<int>(*machine.application.heartbeatcounter()).store(1); });
    EXPECT_EQ(machine.Go(), 1);
    first.join();
    ExpectCodeOf(Pace::Native, &machine);
  }
}

// A flag that is raised within a called function ends the run there.
TEST(NativeCode, AStopWithinACalledFunctionEndsTheRun) {
  for (const bool timed_out : {true, false}) {
    const Outcome outcome = ExpectTheSame(
        Loop("lineno 2\npushg n\ncall f\npop\nincg done, 1\npushc \".\"\nout\n", 60) +
            ".function f(p)\nlineno 8\npushl p\ncall g\nret\n.end\n.segment 1\n"
            ".function g(p)\nlineno 9\npushl p\npushi 37\nne\njmp_ne on\npushg x\npushi 1\nbitand\n"
            "pop\non: lineno 10\npushl p\npushi 1\nadd\nret\n.end\n",
        Computed([timed_out](Machine* machine) {
          int* const flag =
              timed_out ? machine->application.timedoutflag() : machine->application.exitflag();
          std::atomic_ref<int>(*flag).store(1);
        }));
    EXPECT_EQ(outcome.output, std::string(36, '.') + (timed_out ? "Application timed out" : ""));
    EXPECT_EQ(outcome.result, timed_out ? 0 : 1);
  }
}

// --- Memory --------------------------------------------------------------------------------------

TEST(NativeCode, ALongSegmentHasMachineCode) {
  std::string body;
  double sum = 0;
  for (int i = 0; i < 15000; i++) {
    const std::string v = "v" + std::to_string(i % 60);
    body += "pushg sum\npushi " + std::to_string(i) + "\nadd\npopg sum\n";
    if (i % 100 == 0) body += "pushg n\npushi 9999\neq\njmp_ne end\n";
    sum += i;
  }
  Outcome outcome = ExpectTheSame("storegi sum, 0\nagain: incg n, 1\n" + body +
                                  "cmpgi n, 3\njmp_lt again\nend: pushg sum\nout\nexit\n");
  EXPECT_EQ(outcome.output, std::to_string(static_cast<long>(3 * sum)));
}

// A run that has no memory for more ends with that error, also where machine code needs the memory,
// and nothing is lost.
// Runs a program again and again, each time with one allocation more that succeeds. Returns how
// many there are.
long ExpectNothingOfARunIsLost(const std::string& program) {
  std::string image, errors;
  EXPECT_TRUE(AssembleScript(program, "script.zpa", &image, &errors)) << errors;
  class Nowhere : public RecordingOutput {
   public:
    int Write(const char*, int length) override { return length; }
  };
  return ExpectNothingIsLost([&] {
    Nowhere nowhere;
    Machine machine;
    try {
      machine.application.SetOutput(&nowhere);
      machine.Load(image);
      const RunsAt runs(Pace::Native, &machine);
      DecodeAtOnce(&machine);
      machine.Go();
    } catch (const std::bad_alloc&) {
    }
    machine.Close();
    machine.global.Dump();
    Variable::FreeCycles();
  });
}

TEST(NativeCode, ARunThatIsOutOfMemoryLosesNothing) {
  if (!ThreadMemory::NewIsHere()) GTEST_SKIP() << "the operators are the sanitizer's";
  const std::string longer = "pushc \"" + std::string(60, 't') + "\"\n";
  const std::string program =
      "storegi n, 0\n" + longer +
      "popg long\npushi 1\npushg x\npushi 1\nelem\nstore\npushg long\n"
      "pushg x\npushi 2\nelem\nstore\nagain: incg n, 1\n"
      "pushg n\ncall f\nout\npushg long\ncall f\npopg r\n" +
      longer +
      "call f\nout\npushg n\n"
      "call deep\nout\npushg long\npopg copied\n" +
      longer +
      "popg made\npushg n\npushi 1\nadd\n"
      "popg new\npushg x\npushi 2\nelem_readonly\npopg moved\npushg n\npushg x\npushg n\nelem\n"
      "store\npushg long\npushc \"n\"\npushg n\ncat\npopg name\npop\npushi 5\npushg s\npushc "
      "\"m\"\n"
      "memb\nstore\n"
      // A text that the stack owns is there while the rest of the loop needs memory.
      "pushg long\npushc \"x\"\ncat\n"
      "storegi i, 0\nfill: incg i, 1\npushg i\npushg row\npushg i\nelem\nstore\ncmpgi i, 24\n"
      "jmp_lt fill\nstoregi i, 0\nseek: incg i, 1\npushg i\npushi 7\nmul\npushi 24\nmod\npushi 1\n"
      "add\npopg at\npushg row\npushg at\nelem_readonly\npushg got\nadd\npopg got\npushi 25\npushg "
      "i\n"
      "sub\npopg at\npushg i\npushg row\npushg at\nelem\nstore\ncmpgi i, 20\njmp_lt seek\n"
      "pushg n\npushg s\npushc \"k\"\npushg n\ncat\nmemb\nstore\npushg long\ncall f\npopg "
      "r\npop\npushg x\npushi 1\nelem_readonly\npopg r\n"
      "pushi 1\npopg r\npushi 1\npopg moved\npushi 1\npopg copied\npushi 1\npopg made\n"
      "cmpgi n, 12\njmp_lt again\nexit\n"
      ".function f(p)\n.local t\npushl p\npopl t\npushl t\nret\n.end\n"
      ".function deep(p)\n.local t\n.local u\npushg long\npopl u\npushl p\npushi 1\nsub\npopl t\n"
      "pushl t\njmp_le end\npushl t\ncall deep\nret\nend: pushl u\nret\n.end\n";
  EXPECT_GT(ExpectNothingOfARunIsLost(program), 100);
}

// The array's searches are noted when it becomes a member, which takes memory.
TEST(NativeCode, AResultThatBecomesAMemberIsNotLost) {
  if (!ThreadMemory::NewIsHere()) GTEST_SKIP() << "the operators are the sanitizer's";
  const long blocks = ExpectNothingOfARunIsLost(
      "pushi 1\npushg base\npushc \"b\"\nmemb\nstore\n" +
      Loop("pushg base\npopg t\ncall make\npushg t\npushc \"a\"\nmemb\nstore\n", 5) +
      ".function make()\n.local made\n.local i\npushi 1\npopl i\n"
      "fill: pushl i\npushl made\npushl i\nelem\nstore\npushl i\npushi 1\nadd\npopl i\n"
      "pushl i\npushi 120\nle\njmp_ne fill\npushl made\npushi 50\nelem_readonly\npopg r\n"
      "pushl made\npushi 7\nelem_readonly\npopg r\npushl made\nret\n.end\n");
  EXPECT_GT(blocks, 20);
}

// Machine code is not a precondition: without memory that may be executed the loop does everything.
TEST(NativeCode, WithoutExecutableMemoryTheLoopDoesEverything) {
#ifdef __linux__
  // Named here because older headers have no names for them.
  constexpr int kSetProtection = 65;
  constexpr unsigned long kRefuseToMakeExecutable = 1;
  const auto run = [] {
    if (prctl(kSetProtection, kRefuseToMakeExecutable, 0UL, 0UL, 0UL) != 0) exit(2);
    Machine machine;
    machine.Assemble(Loop("pushg n\ncall f\nout\n", 100) +
                     ".function f(p)\npushl p\npushi 2\nmul\nret\n.end\n");
    const RunsAt runs(Pace::Native, &machine);
    std::string expected;
    for (int i = 1; i <= 100; i++) expected += std::to_string(2 * i);
    if (machine.Go() != 1 || machine.Output() != expected) exit(3);
    const HotCode* const hot = machine.segments.Start()->hot();
    exit(!hot ? 4 : hot->native() ? 5 : 0);
  };
  EXPECT_EXIT(
      run(),
      [](int status) {
        const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        // A system without that protection cannot test it.
        return code == 0 || code == 2;
      },
      "");
#else
  GTEST_SKIP() << "the system cannot refuse it";
#endif
}

// --- Random programs -----------------------------------------------------------------------------

// Programs of numbers in all forms, of arrays and structures in all states, and of references and
// calls, with loops in loops. What they read changes its kind now and then.
class RandomProgram {
 public:
  explicit RandomProgram(unsigned seed) : random(seed) {}

  std::string Program() {
    std::string text;
    for (const char* const name : kNames) text += Value() + "popg " + name + "\n";
    for (int i = 1 + Below(8); i > 0; i--) text += Value() + ElementOf("pushg x\n") + "store\n";
    for (int i = 1 + Below(8); i > 0; i--) text += Value() + Member("pushg s\n") + "store\n";
    for (int i = 1 + Below(4); i > 0; i--) text += Value() + Member("pushg t\n") + "store\n";
    if (Below(2)) text += "pushg x\npopg y\n";
    text += "storegi n, 0\nagain: incg n, 1\n" + Block(4 + Below(5));
    for (const char* const name : kNames) text += Show(std::string("pushg ") + name + "\n");
    for (const char* const name : {"x", "y", "s", "t"}) {
      text += Show(std::string("pushg ") + name + "\n");
    }
    text += "cmpgi n, 10\njmp_lt again\nexit\n";
    for (level = 1; level <= 2; level++) {
      if (Below(2)) text += ".segment " + std::to_string(++segments) + "\n";
      text += ".function f" + std::to_string(level) + "(p" + OneOf({"", " var"}) + ", q" +
              OneOf({"", " var"}) + ")\n.local k\n.local m\n" + Block(2 + Below(4)) +
              (Below(6) ? Expression(2) + "ret\n" : "retn\n") + ".end\n";
    }
    // Counts down, with the sums of its parameters as the arguments.
    level = 3;
    text += ".function down(p" + std::string(OneOf({"", " var"})) + ", q)\n.local k\n.local m\n" +
            "pushl q\npushi 1\nlt\njmp_ne end\n" + Statement() + Operand() +
            "pushl q\npushi 1\nsub\ncall down\n" + OneOf({"ret\n", "pushl p\nadd\nret\n"}) +
            "end: " + Operand() + "ret\n.end\n";
    return text;
  }

 private:
  static constexpr const char* kNames[] = {"a", "b", "c", "d", "e"};

  int Below(int limit) { return static_cast<int>(random() % static_cast<unsigned>(limit)); }
  const char* OneOf(std::initializer_list<const char*> words) {
    return words.begin()[Below(static_cast<int>(words.size()))];
  }
  std::string Label() { return "l" + std::to_string(labels++); }
  static std::string Show(const std::string& value) { return value + "out\npushc \" \"\nout\n"; }

  std::string Value() {
    switch (Below(12)) {
      case 0:
        return OneOf({"pushc \"12\"\n", "pushc \"\"\n", "pushc \"abc\"\n", "pushc \"-3.5\"\n",
                      "pushc \"nan\"\n", "pushc \"a text of more than sixteen bytes\"\n"});
      case 1:
      case 2: return kNumbers[Below(static_cast<int>(std::size(kNumbers)))];
      case 3:
      case 4: return "pushf " + std::to_string(Below(64) / 8.0 - 3) + "\n";
      default: return "pushi " + std::to_string(Below(12) - 2) + "\n";
    }
  }
  std::string Name() {
    if (level == 0 || Below(4) == 0) return std::string("g ") + kNames[Below(5)];
    return std::string("l ") + OneOf({"p", "q", "k", "m"});
  }
  std::string Variable() { return "push" + Name() + "\n"; }
  std::string Array() {
    return Below(20) ? OneOf({"pushg x\n", "pushg x\n", "pushg y\n"}) : Variable();
  }
  std::string Structure() {
    return Below(20) ? OneOf({"pushg s\n", "pushg s\n", "pushg t\n"}) : Variable();
  }
  // A position is mostly one from 1 to 8, as any value may be made one.
  std::string Position() {
    switch (Below(8)) {
      case 0: return Variable() + "pushi 7\nbitand\npushi 1\nadd\n";
      case 1: return "pushg n\n";
      case 2: return Below(30) ? "pushg n\npushi 1\nadd\n" : Variable();
      case 3: return "pushg inner\npushi 1\nadd\n";
      default: return "pushi " + std::to_string(1 + Below(8)) + "\n";
    }
  }
  std::string ElementOf(const std::string& array) { return array + Position() + "elem\n"; }
  std::string Member(const std::string& structure) {
    return structure + "pushc \"" +
           OneOf({"m", "k", "M", "a", "b", "c", "d", "longer than a word"}) + "\"\nmemb\n";
  }
  std::string Place() {
    switch (Below(4)) {
      case 0: return ElementOf(Array());
      case 1: return Member(Structure());
      default: return Variable();
    }
  }
  std::string Operand() {
    switch (Below(9)) {
      case 0:
      case 1: return Array() + Position() + "elem_readonly\n";
      case 2:
        return Structure() + "pushc \"" + OneOf({"m", "k", "M", "a", "b", "none"}) +
               "\"\nmemb_readonly\n";
      case 3: return Value();
      case 4: return OneOf({"pushg n\n", "pushg inner\n"});
      default: return Variable();
    }
  }
  std::string Call() {
    if (calls > 3) return Operand();
    calls++;
    if (level == 0 && Below(3) == 0)
      return Place() + "pushi " + std::to_string(Below(6)) + "\ncall down\n";
    if (level >= 2) return Operand();
    const std::string arguments =
        (Below(2) ? Place() : Expression(1)) + (Below(2) ? Place() : Operand());
    return arguments + "call f" + std::to_string(level + 1) + "\n";
  }
  std::string Expression(int depth) {
    if (depth == 0 || Below(4) == 0) return Operand();
    switch (Below(10)) {
      case 0: return Expression(depth - 1) + OneOf({"bitoc\n", "not\n"});
      case 1: return Call();
      default: break;
    }
    return Expression(depth - 1) + (Below(8) ? "" : "lineno " + std::to_string(Below(90)) + "\n") +
           Expression(depth - 1) +
           OneOf({"add\n",   "add\n", "sub\n",    "sub\n",   "mul\n",    "div\n",
                  "mod\n",   "mod\n", "bitand\n", "bitor\n", "bitxor\n", "bitsl\n",
                  "bitsr\n", "lt\n",  "le\n",     "gt\n",    "ge\n",     "eq\n",
                  "ne\n",    "cmp\n", "and\n",    "or\n"});
  }
  std::string Jump() {
    return OneOf({"jmp_eq ", "jmp_ne ", "jmp_lt ", "jmp_le ", "jmp_gt ", "jmp_ge "});
  }
  std::string Block(int statements) {
    std::string text;
    while (statements-- > 0) text += Statement();
    return text;
  }
  std::string Statement() {
    calls = 0;
    const std::string line = Below(5) ? "" : "lineno " + std::to_string(Below(90)) + "\n";
    switch (Below(22)) {
      case 0: return line + Show(Expression(2));
      case 1:
      case 2: return line + Expression(2) + ElementOf(Array()) + "store\n";
      case 3:
      case 4: return line + Expression(2) + Member(Structure()) + "store\n";
      case 5:
        return line + Place() + "dup\n" + Operand() + OneOf({"add\n", "mul\n"}) + "swap\nstore\n";
      case 6:
      case 7: {
        const std::string skip = Label();
        return line + Expression(2) + Expression(1) +
               OneOf({"lt\n", "le\n", "gt\n", "ge\n", "eq\n", "ne\n", "cmp\n"}) + Jump() + skip +
               "\n" + Statement() + skip + ": noop\n";
      }
      case 8: {
        const std::string skip = Label();
        return line + Expression(1) + Jump() + skip + "\n" + Statement() + skip + ": noop\n";
      }
      case 9: {
        // They share their count.
        if (level > 0 || in_loop) break;
        in_loop = true;
        const std::string body = Statement();
        in_loop = false;
        const std::string next = Label();
        const std::string count = std::to_string(1 + Below(12));
        return line + "storegi inner, 0\n" + next + ": " + body + Below2() +
               (Below(2) ? "incg inner, 1\ncmpgi inner, " + count + "\njmp_lt " + next + "\n"
                         : "pushg inner\npushi 1\nadd\npopg inner\npushg inner\npushi " + count +
                               "\nlt\njmp_ne " + next + "\n");
      }
      case 10: return line + Call() + OneOf({"pop\n", "out\n"});
      case 11:
        return line + std::string("incg ") + kNames[Below(5)] + ", " +
               std::to_string(Below(5) - 2) + "\n";
      case 12: return line + "storegi " + kNames[Below(5)] + ", " + std::to_string(Below(9)) + "\n";
      case 13:
        return line + "cmpgi " + kNames[Below(5)] + ", " + std::to_string(Below(9)) + "\npop" +
               Name() + "\n";
      case 14: return line + Value() + "pop" + Name() + "\n";
      case 15:
        return Below(3) ? line + Place() + "popr" + Name() + "\n" : Place() + Place() + "refer\n";
      case 16:
        return OneOf(
            {"pushg x\npopg y\n", "pushg y\npopg x\n", "pushg s\npopg t\n", "pushg t\npopg s\n"});
      case 17:
        return Below(6) ? line
                        : "pushc \"\"\n" + std::string(OneOf({"popg x\n", "popg y\n", "popg s\n"}));
      case 18: return Below(6) ? line : "pushg x\npop" + Name() + "\n";
      default: break;
    }
    return line + Expression(3) + "pop" + Name() + "\n";
  }
  std::string Below2() { return Below(2) ? Value() + "pop" + Name() + "\n" : ""; }

  std::mt19937 random;
  int level = 0;
  bool in_loop = false;
  int calls = 0;
  int labels = 0;
  int segments = 0;
};

TEST(NativeCode, RandomProgramsDoTheSame) {
  int finished = 0;
  for (unsigned seed = 1; MoreRounds(seed, 750); seed++) {
    const std::string program = RandomProgram(seed).Program();
    SCOPED_TRACE(testing::Message() << seed << "\n" << program);
    bool ran_short;
    const Outcome cold = OutcomeOf(program, Pace::Cold, nullptr, &ran_short);
    if (ran_short) continue;
    for (const Pace pace : kQuickPaces) {
      SCOPED_TRACE(pace);
      const Outcome outcome = OutcomeOf(program, pace, nullptr, &ran_short);
      if (ran_short) continue;
      ASSERT_EQ(outcome, cold);
    }
    finished += cold.result;
  }
  EXPECT_GT(finished, Rounds(200));
}

}  // namespace
