// What decoded code leaves in variables, on the stack and of the frames: forms that a read keeps,
// arguments that have something in common, and the ends of a stack and of a frame.

#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <string>
#include <utility>

#include "base/values/VariableKinds.h"
#include "tests/support/HotAndCold.h"

namespace {

// A loop of enough rounds, which counts them in n; then the program goes on with the end.
std::string Loop(const std::string& body, const std::string& end = "") {
  return "again: incg n, 1\n" + body + "cmpgi n, " + std::to_string(kRoundsUntilHot) +
         "\njmp_lt again\n" + end + "exit\n";
}

TEST(HotValues, AStoreOfAnElementInItselfChangesNothing) {
  for (const char* const element : {"pushi 1\nelem\n", "pushc \"m\"\nmemb\n"}) {
    SCOPED_TRACE(element);
    const std::string place = std::string("pushg x\n") + element;
    ExpectTheSameHotAndCold("pushc \"kept\"\n" + place + "store\n" +
                            Loop(place + "dup\nstore\n" + place + "out\n"));
  }
}

// The array is copied for the parameter by value, and the other parameter refers to one of the
// elements that it is copied from.
TEST(HotValues, AnArgumentByValueIsApartFromOneByReference) {
  const std::string fill = "pushi 1\npushg x\npushi 1\nelem\nstore\n";
  for (const char* const touch : {"", "pushg x\npushi 1\nelem\npop\n"}) {
    SCOPED_TRACE(touch);
    ExpectTheSameHotAndCold(
        Loop(fill + "pushg x\npushg x\npushi 1\nelem\ncall f\npop\npushg x\npushi 1\nelem\nout\n") +
        ".function f(c, r var)\n" + touch +
        "pushi 99\npopl r\npushl c\npushi 1\nelem_readonly\nout\nretn\n");
  }
  ExpectTheSameHotAndCold(
      Loop("pushi 1\npushg s\npushc \"m\"\nmemb\nstore\n"
           "pushg s\npushg s\npushc \"m\"\nmemb\ncall f\npop\npushg s\nout\n") +
      ".function f(c, r var)\npushi 99\npopl r\npushl c\npushc \"m\"\nmemb_readonly\nout\n"
      "retn\n");
}

// Its value is read by a handler, and the names make the table of globals grow.
class AddsNames : public ImmutableVariable {
 public:
  explicit AddsNames(Machine* m) : machine(m) {}
  int type() override { return VariableComputedInteger; }
  int value_integer() override {
    for (int i = 0; i < 20; i++) machine->Global(("name" + std::to_string(names++)).c_str());
    return names;
  }

 private:
  Machine* machine;
  int names = 0;
};

TEST(HotValues, AReadThatAddsNamesLeavesTheRowsOfTheTablesRight) {
  Machine machine;
  machine.Assemble(Loop("pushg x\npushi 1023\nbitand\npopg y\npushg y\npushi 1\nadd\npopg z\n"));
  auto* computed = new AddsNames(&machine);
  computed->SetName(String("x"));
  machine.global.SetVariable(computed);
  EXPECT_EQ(machine.Go(), 1) << machine.Error();
  EXPECT_EQ(machine.Value("z"), std::to_string(kRoundsUntilHot * 20 + 1));
}

// The captures of all calls end with their calls, also if the result is a variable that is used as
// a number.
TEST(HotValues, AReturnOfAVariableEndsTheFeaturesOfItsFunction) {
  ExpectTheSameHotAndCold(
      Loop("call f\npushi 1\nadd\npopg s\ncall f\npopg t\n", "pushc \"end\"\nout\n") +
      ".function f()\n.local v\npushi 5\npopl v\npushg t\ncapture\npushl v\nret\n");
}

// A comparison reads the left side as a number first, which stays with its variable, even if the
// other side is no number.
TEST(HotValues, AComparisonWithAWordKeepsTheNumberOfTheLeftSide) {
  for (const char* const number :
       {"5000000000", "12", "", "1e3", "word", " 7", "nan", "99999999999"}) {
    for (const char* const word : {"pushc \"new\"\n", "pushc \"+\"\n", "pushg word\n"}) {
      for (const char* const compare : {"eq\n", "lt\n", "ne\n"}) {
        SCOPED_TRACE(std::string(number) + word + compare);
        const std::string text = "pushc \"" + std::string(number) + "\"\npopg id\n";
        const std::string read = "pushg id\npushi 1000\nmod\nout\npushc \" \"\nout\n";
        std::string program = "pushc \"new\"\npopg word\n";
        program += Loop(text + "pushg id\n" + word + compare + "jmp_ne l\nl: " + read + text +
                        "pushg id\n" + word + compare + "popg o\n" + read + text + word +
                        "pushg id\n" + compare + "popg o\n" + read + text + "pushg id\n" + word +
                        compare + "pushg o\nadd\nout\n" + read);
        ExpectTheSameHotAndCold(program);
      }
    }
  }
}

// The text that a comparison with a word makes of a double is what later comparisons use.
TEST(HotValues, AComparisonWithAWordKeepsTheTextOfADouble) {
  for (const char* const number : {"pushf 1.2345678901234567e-6", "pushi 7", "pushf 0.1"}) {
    SCOPED_TRACE(number);
    const std::string push = std::string(number) + "\n";
    ExpectTheSameHotAndCold(Loop(
        push + "popg x\npushg x\npushc \"new\"\neq\njmp_ne l\nl: pushg x\n" + push + "eq\nout\n"));
  }
}

// Operands of all kinds, and what they are as a text.
struct Operand {
  std::string push;
  std::string text;
};

const Operand kOperands[] = {
    {"pushc \"\"\n", ""},
    {"pushc \"<b>\"\n", "<b>"},
    {"pushi -12\n", "-12"},
    {"pushi 7\n", "7"},
    {"pushi -2147483648\n", "-2147483648"},
    {"pushf 2.5\n", "2.5"},
    {"pushf -3\n", "-3"},
    {"pushf 0\n", "0"},
    {"pushg word\n", "word"},
    {"pushg whole\n", "41"},
    {"pushg broken\n", "0.75"},
    {"pushg none\n", ""},
    {"pushg list\npushi 1\nelem_readonly\n", "one"},
    {"pushg list\npushi 2\nelem_readonly\n", "2"},
    {"pushg list\npushi 3\nelem_readonly\n", "3.5"},
    {"pushg list\npushi 9\nelem_readonly\n", ""},
    {"pushg whole\npushi 1\nadd\n", "42"},
    {"pushg broken\npushi 1\nadd\n", "1.75"},
    {"pushg whole\npushi 40\nmod\n", "1"},
    {"pushg word\npushc \"word\"\neq\n", "1"},
    {"pushg word\npushc \"-\"\ncat\n", "word-"},
    {"pushg list\n", "one,2,3.5"},
    {"pushc \"far\"\ncall f\n", "far"},
    {"pushg reference\n", "word"},
    {"pushg long\n", std::string(300, 'l')},
};

const std::string kStart =
    "pushc \"word\"\npopg word\npushi 41\npopg whole\npushf 0.75\npopg broken\n"
    "pushc \"one\"\npushg list\npushi 1\nelem\nstore\npushi 2\npushg list\npushi 2\nelem\nstore\n"
    "pushf 3.5\npushg list\npushi 3\nelem\nstore\npushg word\npoprg reference\npushc \"" +
    std::string(300, 'l') + "\"\npopg long\n";
const std::string kEcho = ".function f(a)\npushl a\nret\n.end\n";

// Runs a program in all ways, and expects that its last round has written the text.
void ExpectBoth(const std::string& program, const std::string& text) {
  for (const Pace pace : kPaces) {
    SCOPED_TRACE(pace);
    Machine machine;
    machine.Assemble(program);
    const RunsAt runs(pace, &machine);
    EXPECT_EQ(machine.Go(), 1) << machine.Error();
    const std::string output = machine.Output();
    ASSERT_EQ(output.substr(output.find_last_of('\n', output.size() - 2) + 1), text + "\n");
  }
}

// A concatenation has the texts of its operands, wherever it goes.
TEST(HotValues, AConcatenationHasTheTextsOfItsOperands) {
  const std::string line = "pushc \"\\n\"\nout\n";
  for (const Operand& a : kOperands) {
    for (const Operand& b : kOperands) {
      const std::string joined = a.push + b.push + "cat\n";
      const std::string text = a.text + b.text;
      SCOPED_TRACE(joined);
      ExpectBoth(kStart + Loop(joined + "popg o\npushg o\nout\n" + line) + kEcho, text);
      ExpectBoth(
          kStart + Loop("pushc \"[\"\n" + joined + "cat\npushc \"]\"\ncat\nout\n" + line) + kEcho,
          "[" + text + "]");
    }
    // Stored in an operand's own variable, in an element, and returned.
    SCOPED_TRACE(a.push);
    ExpectBoth(kStart +
                   Loop("pushc \"ab\"\npopg o\npushg o\n" + a.push +
                        "cat\npushg o\ncat\npopg o\npushg o\nout\n" + line) +
                   kEcho,
               "ab" + a.text + "ab");
    ExpectBoth(kStart +
                   Loop(a.push +
                        "pushc \"!\"\ncat\npushg e\npushi 2\nelem\nstore\n"
                        "pushg e\npushi 2\nelem_readonly\nout\n" +
                        line) +
                   kEcho,
               a.text + "!");
    for (const char* const use : {"popg o\npushg o\nout\n", "out\n", "pushc \"\"\ncat\nout\n"}) {
      ExpectBoth(kStart + Loop("call g\n" + std::string(use) + line) + kEcho +
                     ".function g()\npushc \"(\"\n" + a.push + "cat\npushc \")\"\ncat\nret\n",
                 "(" + a.text + ")");
    }
  }
}

// A text that grows is as long as all that was appended, also when it is appended to itself.
TEST(HotValues, ATextGrowsByWhatIsAppended) {
  const std::string shape = "pushg t\nout\npushc \"\\n\"\nout\n";
  std::string text;
  for (int i = 1; i <= kRoundsUntilHot; i++) text += "<" + std::to_string(i) + ">";
  ExpectBoth(
      "pushc \"\"\npopg t\n" +
          Loop("pushg t\npushc \"<\"\ncat\npushg n\ncat\npushc \">\"\ncat\npopg t\n" + shape),
      text);
  text = "x";
  for (int i = 1; i <= kRoundsUntilHot; i++) {
    text = i % 10 == 0 ? "y" : text + text;
  }
  ExpectBoth("pushc \"x\"\npopg t\n" +
                 Loop("pushg t\npushg t\ncat\npopg t\npushg n\npushi 10\nmod\njmp_ne on\n"
                      "pushc \"y\"\npopg t\non: " +
                      shape),
             text);
}

// A double that is read as text for a concatenation keeps that text.
TEST(HotValues, AConcatenationKeepsTheTextOfADouble) {
  const std::string number = "pushf 1.2345678901234567e-6\n";
  ExpectTheSameHotAndCold(Loop(number + "popg x\npushg x\n" + number + "eq\nout\npushc \"w\"\n" +
                               "pushg x\ncat\npopg y\npushg x\n" + number + "eq\nout\n"));
  const std::string element = "pushg l\npushi 1\nelem_readonly\n";
  ExpectTheSameHotAndCold(Loop(number + "pushg l\npushi 1\nelem\nstore\n" + element +
                               "pushc \"w\"\ncat\npopg y\n" + element + number + "eq\nout\n"));
}

// A jump on the comparison of a text of more bytes than are compared without a look at the flags.
TEST(HotValues, ALongTextIsComparedWithAConstant) {
  ExpectTheSameHotAndCold("pushc \"" + std::string(5000, 'q') + "\"\npopg a\n" +
                          Loop("pushg a\npushc \"x\"\neq\njmp_eq no\npushc \"equal\"\nout\n"
                               "no: pushg a\npushc \"x\"\nne\njmp_ne on\npushc \"equal\"\nout\n"
                               "on: noop\n"));
}

// The whole text is read as a number if both are one, else the bytes are compared.
int OrderOf(const std::string& a, const std::string& b) {
  const auto read = [](const std::string& text, double* number) {
    char* end;
    *number = strtod(text.c_str(), &end);
    return end == text.c_str() + text.size();
  };
  double x, y;
  if (read(a, &x) && read(b, &y)) return x < y ? -1 : x == y ? 0 : 1;
  const int order = a.compare(b);
  return order < 0 ? -1 : order > 0;
}

TEST(HotValues, TextsAreInTheOrderOfTheirNumbersOrBytes) {
  const std::string texts[] = {"",
                               "a",
                               "ab",
                               "abc",
                               "abd",
                               "name",
                               "nan",
                               "in",
                               "in all",
                               "inf",
                               "10",
                               "9",
                               "1e1",
                               "+",
                               "-",
                               ".",
                               "+5",
                               "-.5",
                               ".5",
                               " 5",
                               "a text of",
                               "*",
                               "0",
                               "00.0",
                               "a text of many bytes",
                               "a text of more bytes",
                               std::string(5000, 'q'),
                               std::string(5000, 'q') + "r"};
  for (const std::string& a : texts) {
    for (const std::string& b : texts) {
      SCOPED_TRACE("'" + a + "' and '" + b + "'");
      std::string program = "pushc \"" + a + "\"\npopg a\npushc \"" + b + "\"\npopg b\n";
      std::string body, expected;
      int label = 0;
      const int order = OrderOf(a, b);
      const auto add = [&](const std::string& compare, const std::string& jump, bool jumps) {
        const std::string at = "l" + std::to_string(label++);
        body += compare + jump + " " + at + "\npushc \"-\"\nout\njmp " + at + "e\n" + at +
                ": pushc \"j\"\nout\n" + at + "e: noop\n";
        expected += jumps ? "j" : "-";
      };
      for (const std::string& right : {std::string("pushg b\n"), "pushc \"" + b + "\"\n",
                                       std::string("pushg l\npushi 2\nelem_readonly\n")}) {
        for (const std::string& left :
             {std::string("pushg a\n"), std::string("pushg l\npushi 1\nelem_readonly\n")}) {
          add(left + right + "eq\n", "jmp_ne", order == 0);
          add(left + right + "ne\n", "jmp_ne", order != 0);
          add(left + right + "lt\n", "jmp_eq", order >= 0);
          add(left + right + "ge\n", "jmp_ne", order >= 0);
          add(left + right + "cmp\n", "jmp_gt", order > 0);
          add(left + right + "eq\npushg one\nand\n", "jmp_ne", order == 0);
        }
      }
      add("cmpgg a, b\n", "jmp_eq", order == 0);
      add("cmpgg a, b\n", "jmp_le", order <= 0);
      program +=
          "storegi one, 1\npushg a\npushg l\npushi 1\nelem\nstore\n"
          "pushg b\npushg l\npushi 2\nelem\nstore\n";
      ExpectBoth(program + Loop(body + "pushc \"\\n\"\nout\n"), expected);
    }
  }
}

TEST(HotValues, ATextIsTrueUnlessItHasOnlyZerosAndAPoint) {
  const std::string long_one = std::string(5000, '0');
  const std::pair<std::string, bool> texts[] = {
      {"", false}, {"0", false},  {"0.0", false},    {".", false},
      {"x", true}, {"0..", true}, {"no", true},      {"-0", true},
      {" ", true}, {"0x", true},  {long_one, false}, {long_one + "1", true}};
  for (const auto& [text, truth] : texts) {
    SCOPED_TRACE(text);
    const std::string start = "pushc \"" + text + "\"\npopg a\n";
    ExpectBoth(start + Loop("pushg a\nnot\njmp_ne no\npushc \"yes\"\nout\njmp end\n"
                            "no: pushc \"no\"\nout\nend: pushc \"\\n\"\nout\n"),
               truth ? "yes" : "no");
    ExpectBoth(start + Loop("pushg a\nnot\njmp_eq yes\npushc \"no\"\nout\njmp end\n"
                            "yes: pushc \"yes\"\nout\nend: pushc \"\\n\"\nout\n"),
               truth ? "yes" : "no");
  }
}

TEST(HotValues, ATextIsFoundInAnother) {
  const std::string texts[] = {
      "", "a", "Word", "a word and a Word", "WORD", "12", std::string(5000, 'w') + "a word"};
  const auto lower = [](std::string text) {
    for (char& c : text) c = static_cast<char>(tolower(c));
    return text;
  };
  for (const std::string& needle : texts) {
    for (const std::string& text : texts) {
      SCOPED_TRACE("'" + needle + "' in '" + text.substr(0, 20) + "'");
      std::string expected;
      for (const bool any_case : {false, true}) {
        const size_t place = any_case ? lower(text).find(lower(needle)) : text.find(needle);
        const bool found = place != std::string::npos;
        expected += std::to_string(found ? place + 1 : 0) + " ";
        expected += std::to_string(found && !needle.empty() ? place + needle.size() : 0) +
                    (found ? "y" : "n");
      }
      std::string body;
      for (const std::string first : {"in", "cin"}) {
        const std::string last = first == "in" ? "ein" : "ecin";
        const std::string at = first + "no";
        body += "pushg a\npushg b\n" + first + "\nout\npushc \" \"\nout\n";
        body += "pushg l\npushi 1\nelem_readonly\npushc \"" + text + "\"\n" + last +
                "\npopg p\npushg p\nout\n";
        body += "pushc \"" + needle + "\"\npushg l\npushi 2\nelem_readonly\n" + first +
                "\njmp_eq " + at + "\npushc \"y\"\nout\njmp " + at + "e\n" + at +
                ": pushc \"n\"\nout\n" + at + "e: noop\n";
      }
      ExpectBoth("pushc \"" + needle + "\"\npopg a\npushc \"" + text +
                     "\"\npopg b\npushg a\npushg l\npushi 1\nelem\nstore\n"
                     "pushg b\npushg l\npushi 2\nelem\nstore\n" +
                     Loop(body + "pushc \"\\n\"\nout\n"),
                 expected);
    }
  }
}

// Texts go to variables, elements and members, which may hold any other value before.
TEST(HotValues, ATextReplacesAnyValue) {
  const std::string long_one(40, 'l');
  for (const std::string& text : {std::string("new"), std::string(), long_one}) {
    const std::string sources[] = {
        "pushc \"" + text + "\"\n",          "pushg s\n",
        "pushg l\npushi 1\nelem_readonly\n", "pushg m\npushc \"k\"\nmemb_readonly\n",
        "pushc \"" + text + "\"\ncall f\n",  "call g\n"};
    for (const std::string& source : sources) {
      for (const char* const before : {"pushi 4\n", "pushf 1.5\n", "pushc \"o\"\n", "pushg whole\n",
                                       "pushc \"a text of more than sixteen bytes\"\n"}) {
        for (const char* const place :
             {"pushg t\n", "pushg u\npushi 2\nelem\n", "pushg v\npushc \"m\"\nmemb\n"}) {
          SCOPED_TRACE(source + before + place);
          const std::string set = std::string(place) + "store\n";
          ExpectBoth(
              "pushi 1\npushg whole\npushi 3\nelem\nstore\npushc \"" + text +
                  "\"\npopg s\npushg s\npushg l\npushi 1\nelem\nstore\n"
                  "pushg s\npushg m\npushc \"k\"\nmemb\nstore\n" +
                  Loop(before + set + source + set + place + "out\npushc \"|\"\nout\n" + before +
                       "popg t\n" + source + "popg t\npushg t\nout\npushc \"\\n\"\nout\n") +
                  kEcho + ".function g()\npushc \"" + text + "\"\nret\n",
              text + "|" + text);
        }
      }
    }
  }
}

TEST(HotValues, AnElementThatIsReadAsTextKeepsThatText) {
  const std::string number = "pushf 1.2345678901234567e-6\n";
  const std::string element = "pushg x\npushg n\nelem_readonly\n";
  for (const char* const read : {"out\n", "pushc \"w\"\ncat\npop\n", "pushc \"w\"\neq\npop\n",
                                 "pushi 1\nadd\npop\n", "popg y\n"}) {
    SCOPED_TRACE(read);
    ExpectTheSameHotAndCold(Loop(number + "pushg x\npushg n\nelem\nstore\n" + element + read +
                                 element + number +
                                 "eq\nout\npushi 3\npushg x\npushg n\nelem\nstore\n" + element +
                                 read + element + "pushi 3\neq\nout\n"));
  }
}

// The outcome of cmp may be tested by a jump that another way leads to.
TEST(HotValues, AnOrderIsThereForAJumpThatOthersReach) {
  for (const char* const pair : {"1", "2", "3"}) {
    ExpectTheSameHotAndCold("storegi b, 2\nstoregi a, " + std::string(pair) + "\n" +
                            Loop("jmp s\ne: pushi 0\njmp l\ns: pushg a\npushg b\ncmp\n"
                                 "l: jmp_lt less\npushc \"not \"\nout\n"
                                 "less: pushc \"less\"\nout\n"));
  }
}

// The stack is full at the same instruction, also at one within an expression.
TEST(HotValues, TheStackOverflowsAtTheSameInstruction) {
  for (int extra = 0; extra < 6; extra++) {
    SCOPED_TRACE(extra);
    std::string filled;
    for (int i = 0; i < extra; i++) filled += "pushi 1\n";
    ExpectTheSameEndHotAndCold(filled +
                               "again: pushi 7\npushg n\npushi 1\nadd\npopg n\njmp again\n");
    ExpectTheSameEndHotAndCold(
        filled +
        "again: pushi 7\npushg n\npushi 1\nadd\npushg n\npushi 2\nmul\n"
        "pushg n\npushg n\npushg n\nadd\nadd\nadd\nadd\npopg n\n"
        "pushg n\npushg n\npushg n\npushg n\npushg n\ncall f\npop\njmp again\n"
        ".function f(a, b, c, d, e)\npushl a\nret\n");
  }
}

// A library may call back into the script while decoded code runs. The functions that it calls set
// modes of the output as all functions do.
class CallsBack : public ImmutableVariable {
 public:
  explicit CallsBack(Machine* m) : machine(m) {}
  int type() override { return VariableComputedInteger; }
  int value_integer() override {
    VariableList none;
    Variable result;
    machine->vm().RunFunction("back", -1, &none, &result);
    return 1;
  }

 private:
  Machine* machine;
};

TEST(HotValues, ARunWithinARunSetsItsOwnOutputModes) {
  std::string outputs[2];
  for (const bool cold : {false, true}) {
    Machine machine;
    machine.Assemble(Loop("pushg x\npushi 1023\nbitand\npopg y\npushi 1\ncall g\npop\n") +
                     ".function g(a)\npushc \" g \"\nout_comp\npushl a\nret\n.end\n"
                     ".segment 1\n.function back()\nstdoutput 2\npushc \" b \"\nout_comp\n"
                     "pushi 1\ncall g\npop\npushc \" b \"\nout_comp\nretn\n.end\n");
    if (cold) KeepCold(&machine);
    auto* computed = new CallsBack(&machine);
    computed->SetName(String("x"));
    machine.global.SetVariable(computed);
    EXPECT_EQ(machine.Go(), 1) << machine.Error();
    outputs[cold] = machine.Output();
  }
  EXPECT_EQ(outputs[0], outputs[1]);
  EXPECT_NE(outputs[0], "");
}

// An empty text that came from NULL has no primary type, and neither has what it is copied to.
TEST(HotValues, ACopyHasThePrimaryTypeOfItsSource) {
  Machine machine;
  machine.Assemble(Loop("pushc \"text\"\npopg a\npushc \"text\"\npopg b\npushg unset\npopg e\n"
                        "call f\npopg r\npushg e\npopg a\npushg e\ncall g\npopg b\n") +
                   ".function f()\n.local v\npushg unset\npopl v\npushl v\nret\n.end\n"
                   ".function g(p)\npushl p\nret\n.end\n");
  EXPECT_EQ(machine.Go(), 1) << machine.Error();
  for (const char* const name : {"e", "r", "a", "b"}) {
    ASSERT_NE(machine.GlobalVariable(name), nullptr) << name;
    EXPECT_EQ(machine.GlobalVariable(name)->primary_type(), 0) << name;
  }
}

// A number that was read as another one has both forms; it is as fast as others, and the same.
TEST(HotValues, ANumberOfTwoFormsIsTheSame) {
  ExpectTheSameHotAndCold(
      "pushi 7\npopg i\npushf 2.5\npopg d\npushg i\npushf 0.5\nadd\nout\npushg d\npushi 3\nmod\n"
      "out\n" +
      Loop("pushg i\npushg d\nmul\npopg p\npushg p\nout\npushg i\npushi 4\nmod\nout\npushg d\n"
           "pushi 2\nmod\nout\npushg i\npushg d\nlt\nout\npushg i\ncall f\nout\npushg d\ncall f\n"
           "out\npushg i\npushg a\npushi 1\nelem\nstore\npushg a\npushi 1\nelem_readonly\npushi 2\n"
           "add\nout\n") +
      ".function f(x)\npushl x\npushi 2\nmod\nout\npushl x\nret\n");
}

// Texts of calls: the parameters keep their memory, and nothing else of a call before.
TEST(HotValues, AParameterHasNothingOfTheCallBefore) {
  ExpectTheSameHotAndCold(
      Loop("pushc \"a long text of the first call\"\ncall f\nout\npushi 3\ncall f\nout\n"
           "pushc \"b\"\ncall f\nout\npushf 0.5\ncall f\nout\npushc \"\"\ncall f\nout\n"
           "pushg unset\ncall f\nout\npushc \"x\"\ncall g\nout\n") +
      ".function f(p)\n.local t\npushl t\nout\npushl t\nisnull\nout\npushl p\npopl t\n"
      "pushl p\npushc \"!\"\ncat\npopl p\npushl p\nret\n.end\n"
      ".function g(p)\n.local t\n.local u\npushl u\npushi 1\nadd\nout\npushl p\npopl u\n"
      "pushl u\npushl t\ncat\nret\n.end\n");
}

}  // namespace
