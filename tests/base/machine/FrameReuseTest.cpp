// Frames of finished calls are reused for later calls of their function: a call finds the same
// variables by name as in a frame of its own.

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "base/compiled/Segment.h"
#include "tests/support/HotAndCold.h"
#include "tests/support/Machine.h"
#include "tests/support/Rounds.h"

namespace {

struct Way {
  const char* label;
  Pace pace;
  bool reuse;
};

const Way kWays[] = {{"decoded, frames reused", Pace::Decoded, true},
                     {"decoded, frames fresh", Pace::Decoded, false},
                     {"machine code, frames reused", Pace::Native, true},
                     {"machine code, frames fresh", Pace::Native, false},
                     {"cold, frames reused", Pace::Cold, true},
                     {"cold, frames fresh", Pace::Cold, false}};
const Way& kColdAndFresh = kWays[5];

const char* const kRecords = "1,one\n2,two\n3,three\n";

// Everything in which two runs can differ.
struct Outcome {
  bool operator==(const Outcome&) const = default;

  int result = 0;
  std::string output;
  std::string values;
  std::string error;
  std::string stack;
  std::string exported;
};

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
  return out << "result " << outcome.result << "\noutput " << outcome.output << "\nvalues "
             << outcome.values << "\nerror " << outcome.error << "\nstack " << outcome.stack
             << "\nexported " << outcome.exported;
}

Outcome OutcomeOf(const std::string& program, const Way& way,
                  const std::vector<const char*>& globals = {}) {
  Machine machine;
  machine.files.files["in"] = kRecords;
  machine.Assemble(program);
  const RunsAt runs(way.pace, &machine);
  machine.vm().SetFrameReuse(way.reuse);
  Outcome outcome;
  outcome.result = machine.Go();
  outcome.output = machine.Output();
  for (const char* name : globals) outcome.values += machine.Value(name) + "|";
  outcome.error = machine.Error();
  outcome.stack = machine.StackText();
  for (const auto& [name, content] : machine.files.files) {
    if (name.substr(0, 3) == "out") outcome.exported += name + ":" + content;
  }
  return outcome;
}

// --- Look-ups of each kind -----------------------------------------------------------------------

// Calls a function often enough for the last rounds to be decoded: with 0; with 1, which makes it
// touch its local "v"; and with 0 again. Each call writes what the code finds and leaves.
std::string Alternating(const std::string& code) {
  return "pushc \"global\"\npopg v\nstoregi n, 0\n"
         "again: incg n, 1\npushi 0\ncall f\npop\npushi 1\ncall f\npop\npushi 0\ncall f\npop\n"
         "pushc \"/\"\nout\ncmpgi n, " +
         std::to_string(2 * Segment::Repeats) +
         "\njmp_lt again\npushg v\nout\nexit\n"
         ".function f(touch)\n.local v\npushl touch\njmp_eq untouched\n"
         "pushc \"local\"\npopl v\nuntouched: noop\n" +
         code + "retn\n.end\n";
}

struct LookupCase {
  const char* label;
  const char* code;
  const char* round;  // the output of each
};

const LookupCase kLookups[] = {
    {"pushnc", "pushnc \"v\"\nout\n", "globallocalglobal/"},
    {"pushn", "pushc \"v\"\npushn\nout\n", "globallocalglobal/"},
    {"popnc", "pushc \"set\"\npopnc \"v\"\npushg v\nout\npushc \"global\"\npopg v\n",
     "setglobalset/"},
    {"popn", "pushc \"set\"\npushc \"v\"\npopn\npushg v\nout\npushc \"global\"\npopg v\n",
     "setglobalset/"},
    {"hide", "pushc \"v\"\nhide\n",
     "<input type=\"hidden\" name=\"v\" value=\"global\">"
     "<input type=\"hidden\" name=\"v\" value=\"local\">"
     "<input type=\"hidden\" name=\"v\" value=\"global\">/"},
    {"fields of an import",
     "pushc \"in\"\npushc \",\"\npushc \"v\"\nimport no\nimport_stop no\nno: pushg v\nout\n"
     "pushc \"global\"\npopg v\n",
     "1global1/"},
    {"the filter of an import",
     "pushc \"in\"\npushc \",\"\npushc \"x\"\npushc \"v eq 'global'\"\nimportf no\n"
     "pushc \"yes\"\nout\nimport_stop no\nno: pushc \".\"\nout\n",
     "yes..yes./"},
};

TEST(FrameReuse, ALookUpByNameDoesNotMeetALocalOfAnEarlierCall) {
  for (const LookupCase& c : kLookups) {
    for (const Way& way : kWays) {
      SCOPED_TRACE(testing::Message() << c.label << ", " << way.label);
      const Outcome outcome = OutcomeOf(Alternating(c.code), way);
      std::string expected;
      for (int i = 0; i < 2 * Segment::Repeats; i++) expected += c.round;
      EXPECT_EQ(outcome.output, expected + "global");
      EXPECT_EQ(outcome.error, "");
    }
  }
}

// A look-up with the scope of locals creates the local, again in every call.
TEST(FrameReuse, ALookUpByScopeMakesTheLocal) {
  for (const Way& way : kWays) {
    SCOPED_TRACE(way.label);
    const Outcome outcome = OutcomeOf(
        Alternating("pushnc \"l.v\"\nisnull\nout\npushc \"!\"\nout\npushnc \"v\"\nout\n"), way);
    std::string expected;
    for (int i = 0; i < 2 * Segment::Repeats; i++) expected += "1!0!local1!/";
    EXPECT_EQ(outcome.output, expected + "global");
  }
}

// Binding by name binds the global if the call has no local of the name.
TEST(FrameReuse, AReferenceByNameBindsTheGlobal) {
  for (const char* bind : {"poprnc \"v\"\n", "pushc \"v\"\npoprn\n"}) {
    for (const Way& way : kWays) {
      SCOPED_TRACE(testing::Message() << bind << ", " << way.label);
      const Outcome outcome = OutcomeOf(
          "pushc \"global\"\npopg v\npushc \"target\"\npopg t\n"
          "pushi 1\ncall f\npop\npushg v\nout\npushi 0\ncall f\npop\npushg v\nout\nexit\n"
          ".function f(touch)\n.local v\npushl touch\njmp_eq untouched\n"
          "pushc \"local\"\npopl v\nretn\nuntouched: pushg t\n" +
              std::string(bind) + "retn\n.end\n",
          way);
      EXPECT_EQ(outcome.output, "globaltarget");
    }
  }
}

TEST(FrameReuse, AnExportWritesTheGlobal) {
  for (const Way& way : kWays) {
    SCOPED_TRACE(way.label);
    const Outcome outcome =
        OutcomeOf(Alternating("pushc \"out\"\npushg n\ncat\npushl touch\ncat\npushc \",\"\n"
                              "pushc \"v,touch\"\nexport\n"),
                  way);
    EXPECT_EQ(outcome.error, "");
    EXPECT_NE(outcome.exported.find("out10:global,0\n"), std::string::npos);
    EXPECT_NE(outcome.exported.find("out11:local,1\n"), std::string::npos);
    EXPECT_NE(outcome.exported.find("out20:global,0\n"), std::string::npos);
    EXPECT_NE(outcome.exported.find("out160:global,0\n"), std::string::npos);
    EXPECT_NE(outcome.exported.find("out161:local,1\n"), std::string::npos);
  }
}

// A touch is a push, a store or a binding, whatever happens to the value. There is a case for each
// kind of instruction that is decoded together with others.
TEST(FrameReuse, EveryTouchOfALocalMakesIt) {
  const char* const touches[] = {
      "pushl v\npop\n",
      "pushl v\nout\n",
      "pushl v\npushi 1\nadd\npop\n",
      "pushi 1\npushl v\nadd\npop\n",
      "pushi 1\npushi 2\nadd\npopl v\npushc \"\"\npopl v\n",
      "pushl v\npushi 1\nelem_readonly\npop\n",
      "pushl v\npushg one\nelem_readonly\npop\n",
      "pushl v\npushg one\nelem\npop\npushc \"\"\npopl v\n",
      "pushl v\npushc \"m\"\nmemb_readonly\npop\n",
      "pushl v\npushc \"m\"\nmemb\npop\npushc \"\"\npopl v\n",
      "pushi 5\npushl v\npushg one\nelem\nstore\npushc \"\"\npopl v\n",
      "pushl v\npushg one\nelem\ndup\npushi 1\nadd\nswap\nstore\npushc \"\"\npopl v\n",
      "pushl v\npushc \"m\"\nmemb\ndup\npushi 1\nadd\nswap\nstore\npushc \"\"\npopl v\n",
      "pushc \"a\"\npushl v\ncat\npop\n",
      "pushc \"a\"\npushg one\ncat\npushl v\ncat\npop\n",
      "pushl v\npushc \"a\"\ncat\npop\n",
      "pushl v\npushl v\neq\npop\n",
      "pushl v\npushi 0\neq\njmp_ne here\nhere: noop\n",
      "pushl v\npushi 3\nmod\npop\n",
      "pushc \"\"\npopl v\n",
      "pushg empty\npopl v\n",
      "pushs nothing\npopl v\n",
      "pushg empty\npoprl v\n",
  };
  for (const char* touch : touches) {
    const std::string program =
        "pushc \"global\"\npopg v\npushc \"\"\npopg empty\nstoregi one, 1\nstoregi n, 0\n"
        "again: incg n, 1\npushg n\npushi 3\nmod\ncall f\npop\n"
        "pushc \"/\"\nout\ncmpgi n, " +
        std::to_string(6 * Segment::Repeats) +
        "\njmp_lt again\nexit\n"
        ".function f(touch)\n.local v\npushl touch\njmp_eq untouched\n" +
        touch + "untouched: pushnc \"v\"\npushc \"global\"\neq\nout\nretn\n.end\n";
    std::string expected;
    for (int n = 1; n <= 6 * Segment::Repeats; n++) expected += n % 3 == 0 ? "1/" : "0/";
    for (const Way& way : kWays) {
      SCOPED_TRACE(testing::Message() << touch << ", " << way.label);
      EXPECT_EQ(OutcomeOf(program, way).output, expected);
    }
  }
}

// --- Random programs -----------------------------------------------------------------------------

// Functions that call one another, have locals with the names of globals, touch them on some paths
// and look names up on others.
class RandomCalls {
 public:
  explicit RandomCalls(unsigned seed) : random(seed) {}

  std::string Program() {
    std::string text;
    for (const char* name : {"a", "b", "c"}) {
      if (Below(3)) text += "pushc \"global " + std::string(name) + "\"\npopg " + name + "\n";
    }
    text += "storegi n, 0\nagain: incg n, 1\n";
    for (int k = 1 + Below(4); k > 0; k--) text += Statement();
    for (int k = 1 + Below(3); k > 0; k--) text += Call("pushi " + Text(Below(4)) + "\n") + "out\n";
    text += "cmpgi n, " + Text(Segment::Repeats + 6) + "\njmp_lt again\n";
    for (const char* name : {"a", "b", "c"}) text += "pushg " + std::string(name) + "\nout\n";
    text += "exit\n";
    in_function = true;
    for (const char* name : {"f", "g", "h"}) text += Function(name);
    return text;
  }

 private:
  int Below(int bound) { return static_cast<int>(random() % static_cast<unsigned>(bound)); }
  static std::string Text(int number) { return std::to_string(number); }
  std::string OneOf(std::initializer_list<const char*> words) {
    return words.begin()[Below(static_cast<int>(words.size()))];
  }
  std::string Name() { return OneOf({"a", "b", "c"}); }
  std::string Label() { return "label" + Text(labels++); }
  // Pushes a variable by position: mostly a local if the function has one, else a global.
  std::string Push(const std::string& name) {
    return (IsLocal(name) && Below(4) ? "pushl " : "pushg ") + name + "\n";
  }
  std::string Pop(const std::string& name) {
    return (IsLocal(name) && Below(4) ? "popl " : "popg ") + name + "\n";
  }
  bool IsLocal(const std::string& name) const {
    return in_function && locals.find(name) != std::string::npos;
  }
  std::string Variable() {
    switch (Below(8)) {
      case 0:
      case 1: return "pushnc \"" + Path() + "\"\n";
      case 2: return "pushc \"" + Path() + "\"\npushn\n";
      case 3: return in_function ? "pushl p\n" : "pushg n\n";
      default: return Push(Name());
    }
  }
  std::string Path() {
    switch (Below(8)) {
      case 0: return Name() + "[" + Text(1 + Below(2)) + "]";
      case 1: return Name() + ":m";
      case 2: return OneOf({"l.", "g.", "local."}) + Name();
      default: return Name();
    }
  }
  std::string Number() {
    return Below(2) ? "pushi " + Text(Below(9) - 2) + "\n" : "pushf " + Text(Below(8)) + ".25\n";
  }
  std::string Constant() { return "pushc \"" + OneOf({"", "x", "7", "0"}) + "\"\n"; }
  std::string Operand() {
    switch (Below(6)) {
      case 0: return Number();
      case 1: return Constant();
      case 2: return Variable() + "pushi 1\nelem_readonly\n";
      case 3: return Variable() + "pushc \"m\"\nmemb_readonly\n";
      default: return Variable();
    }
  }
  std::string Expression() {
    std::string result = Operand();
    for (int k = Below(3); k > 0; k--) result += Operand() + OneOf({"add\n", "sub\n", "mod\n"});
    return result;
  }
  std::string Call(const std::string& depth) {
    switch (Below(4)) {
      case 0: return Expression() + depth + "call f\n";
      case 1: return Push(Name()) + depth + "call g\n";
      default: return Expression() + depth + "call h\n";
    }
  }
  std::string Statement() {
    switch (Below(20)) {
      case 0:
      case 1: return Expression() + Pop(Name());
      case 2: return Constant() + Pop(Name());
      case 3: return Expression() + "popnc \"" + Path() + "\"\n";
      case 4: return Expression() + "pushc \"" + Path() + "\"\npopn\n";
      case 5: return Push(Name()) + "poprnc \"" + Name() + "\"\n";
      case 6: return Push(Name()) + "pushc \"" + Name() + "\"\npoprn\n";
      case 7: return Push(Name()) + Push(Name()) + "refer\n";
      case 8:
        return Push(Name()) + (in_function && !locals.empty()
                                   ? "poprl " + locals.substr(0, 1) + "\n"
                                   : "poprg " + Name() + "\n");
      case 9: return "pushc \"" + Name() + ", " + Path() + "\"\nhide\n";
      case 10: return Number() + Push(Name()) + "pushi " + Text(1 + Below(2)) + "\nelem\nstore\n";
      case 11: return Number() + Push(Name()) + "pushc \"m\"\nmemb\nstore\n";
      case 12: return Push(Name()) + "pop\n";
      case 13: return Push(Name()) + "dup\n" + Number() + "add\nswap\nstore\n";
      case 14:
        return Below(4) ? "pushc \"\"\n" + Pop(Name())
                        : "pushc \"out\"\npushg n\ncat\npushc \",\"\npushc \"" + Name() + "," +
                              Path() + "\"\nexport\n";
      case 15: {
        if (Below(3)) return Operand() + "isnull\nout\n";
        const std::string body = Label(), done = Label();
        const bool filtered = Below(2) != 0;
        return "pushc \"in\"\npushc \",\"\npushc \"" + Name() + ", " + Name() + "\"\n" +
               (filtered ? "pushc \"" + Name() + " ge 2\"\nimportf " : "import ") + done + "\n" +
               body + ": pushnc \"" + Name() + "\"\nout\n" +
               (Below(2) ? "import_loop " + body + "\n" : "import_stop " + done + "\n") + done +
               ": noop\n";
      }
      default: return Operand() + "out\npushc \" \"\nout\n";
    }
  }
  // The second parameter counts down to the innermost call.
  std::string Function(const std::string& name) {
    locals = OneOf({"", "a", "b", "ab", "ba", "cb", "abc", "cab"});
    std::string text = ".function " + name + (name == "g" ? "(p var, d)\n" : "(p, d)\n");
    for (const char local : locals) text += std::string(".local ") + local + "\n";
    for (int k = 1 + Below(4); k > 0; k--) {
      const std::string label = Label();
      if (Below(2)) {
        text += OneOf({"pushg n\n", "pushl d\n", "pushg n\npushl d\nadd\n"}) + "pushi " +
                Text(2 + Below(2)) + "\nmod\n" + OneOf({"jmp_eq ", "jmp_ne "}) + label + "\n" +
                Statement() + label + ": noop\n";
      } else {
        text += Statement();
      }
    }
    const std::string innermost = Label();
    text += "pushl d\npushi 1\nlt\njmp_ne " + innermost + "\n";
    text += Call("pushl d\npushi 1\nsub\n") + OneOf({"out\n", "pop\n"}) + Statement();
    text += innermost + ": noop\n" + Statement();
    switch (Below(6)) {
      case 0: text += "retn\n"; break;
      case 1: text += Number() + "ret\n"; break;
      case 2: text += Expression() + "ret\n"; break;
      case 3: text += "pushnc \"" + Name() + "\"\nret\n"; break;
      default:
        text += (locals.empty() ? "pushl p\n" : "pushl " + locals.substr(0, 1) + "\n") + "ret\n";
    }
    return text + ".end\n";
  }

  std::mt19937 random;
  std::string locals;  // locals of the current function, one letter each
  bool in_function = false;
  int labels = 0;
};

// --- Results and arguments of each kind ----------------------------------------------------------

struct Passed {
  const char* push;
  const char* shown;  // by the code below
};

const char* const kShow = "pushg z\nout\npushg z\npushi 1\nelem_readonly\nout\npushc \",\"\nout\n";

const Passed kPassed[] = {
    {"pushi 7\n", "7,"},
    {"pushf 2.5\n", "2.5,"},
    {"pushg whole\n", "3,"},
    {"pushc \"text\"\n", "text,"},
    {"pushc \"12\"\n", "12,"},
    {"pushc \"\"\n", ","},
    {"pushc \"a\"\npushg whole\ncat\n", "a3,"},
    {"pushg long\npushc \"+\"\ncat\n", nullptr},
    {"pushg row\n", nullptr},
    {"pushg none\n", ","},
};

// Passes each of the values through three functions, the outer ones of which return what they get
// at once, and stores it in turn after a number, a text and an array. What it gets is changed
// before the next round, so that a value that is shared would show.
std::string Passing(const std::string& push, const std::string& after) {
  return "pushi 5\npushg row\npushi 1\nelem\nstore\npushi 3\npopg whole\npushc \"" +
         std::string(300, 'l') + "\"\npopg long\nstoregi n, 0\nagain: incg n, 1\n" + push +
         "call outer\npopg z\n" + kShow + after + push + "call inner\npopg z\n" + kShow + after +
         push + "call inner\ncall inner\npopg z\n" + kShow +
         "pushg row\npushi 1\nelem_readonly\nout\n" + after + "cmpgi n, " +
         std::to_string(4 * Segment::Repeats) +
         "\njmp_lt again\nexit\n"
         ".function outer(a)\npushl a\ncall middle\nret\n.end\n"
         ".function middle(a)\npushl a\ncall inner\nret\n.end\n"
         ".function inner(a)\n.local b\npushl a\npopl b\npushl b\nret\n.end\n";
}

TEST(FrameReuse, AResultOfEachKindIsStoredAsItIsReturned) {
  const char* const kAfter[] = {"", "pushi 1\npopg z\n", "pushc \"a longer text\"\npopg z\n",
                                "pushi 9\npushg z\npushi 1\nelem\nstore\n",
                                "pushi 9\npushg z\npushi 2\nelem\nstore\npushi 1\npopg z\n"};
  for (const Passed& passed : kPassed) {
    for (const char* after : kAfter) {
      const std::string program = Passing(passed.push, after);
      SCOPED_TRACE(program);
      const Outcome cold = OutcomeOf(program, kColdAndFresh, {"z", "whole", "n"});
      EXPECT_EQ(cold.result, 1);
      if (passed.shown) {
        EXPECT_EQ(cold.output.substr(0, strlen(passed.shown)), passed.shown);
      }
      for (const Way& way : kWays) {
        SCOPED_TRACE(way.label);
        EXPECT_EQ(OutcomeOf(program, way, {"z", "whole", "n"}), cold);
      }
    }
  }
}

// An array that is passed by value is a copy of its own, whichever place it has among arguments by
// reference to it or to its elements.
TEST(FrameReuse, AnArrayByValueIsApartFromArgumentsByReference) {
  const std::string program =
      "storegi n, 0\nagain: incg n, 1\npushg n\npushg row\npushi 1\nelem\nstore\n"
      "pushc \"t\"\npushg row\npushi 2\nelem\nstore\n"
      "pushg row\npushg row\npushg n\npushg row\npushi 1\nelem\npushc \"k\"\ncall mixed\nout\n"
      "pushg row\npushg row\npushg n\npushi 1\nadd\npushg row\npushi 2\nelem\npushg row\n"
      "call mixed\nout\n"
      "pushg row\npushi 1\nelem_readonly\nout\ncmpgi n, " +
      std::to_string(4 * Segment::Repeats) +
      "\njmp_lt again\nexit\n"
      ".function mixed(copy, all var, number, one var, last)\n"
      "pushi 1000\npopl one\npushc \"new\"\npushl all\npushi 1\nelem\nstore\n"
      "pushl copy\npushi 1\nelem_readonly\npushc \"/\"\ncat\npushl copy\npushi 2\nelem_readonly\n"
      "cat\npushc \"/\"\ncat\npushl all\npushi 1\nelem_readonly\ncat\npushl number\ncat\n"
      "pushl last\ncat\nret\n.end\n";
  SCOPED_TRACE(program);
  const Outcome cold = OutcomeOf(program, kColdAndFresh, {"n"});
  EXPECT_EQ(cold.result, 1);
  EXPECT_EQ(cold.output.substr(0, 10), "1/t/new1kn");
  for (const Way& way : kWays) {
    SCOPED_TRACE(way.label);
    EXPECT_EQ(OutcomeOf(program, way, {"n"}), cold);
  }
}

TEST(FrameReuse, RandomProgramsDoTheSameInFreshFramesAndInReusedOnes) {
  int ended = 0;
  for (unsigned seed = 1; MoreRounds(seed, 500); seed++) {
    const std::string program = RandomCalls(seed).Program();
    SCOPED_TRACE(testing::Message() << seed << "\n" << program);
    const std::vector<const char*> globals = {"a", "b", "c", "n", "recno", "ZpIMPORT_Error"};
    const Outcome expected = OutcomeOf(program, kColdAndFresh, globals);
    for (const Way& way : kWays) {
      SCOPED_TRACE(way.label);
      ASSERT_EQ(expected, OutcomeOf(program, way, globals));
    }
    ended += expected.result;
  }
  // Most programs must not fail early.
  EXPECT_GT(ended, Rounds(250));
}

}  // namespace
