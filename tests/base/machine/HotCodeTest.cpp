// Decoded code does what the plain loop does: idioms, random programs, calls, and long work.

#include "base/compiled/HotCode.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "base/host/Config.h"
#include "base/host/HTTPOutput.h"
#include "base/machine/Feature.h"
#include "base/values/Aggregate.h"
#include "tests/support/GrowthOfTime.h"
#include "tests/support/HotAndCold.h"
#include "tests/support/Machine.h"
#include "tests/support/Rounds.h"

namespace {

using namespace Instruction;

// Writes a loop that runs a body the given number of times, counted in a global of its own.
template <typename Body>
void Loop(Machine* machine, int rounds, Body body) {
  const int counter = machine->Global("rounds");
  machine->Op(storegi, counter, 0);
  const int start = machine->end;
  body();
  machine->Op(incg, counter, 1);
  machine->Op(cmpgi, counter, rounds);
  machine->Op(jmp_lt, start - (machine->end + 6));
}

const int kRounds = kRoundsUntilHot;

TEST(HotCode, OfALongSegmentIsMadeLater) {
  Machine machine;
  machine.segments.Start()->Write_Byte(100 * Segment::BytesARepeat - 1, 0);
  for (int i = 1; i < Segment::Repeats + 100; i++) {
    machine.segments.Start()->NoteRepeat(machine.dictionary, nullptr);
    ASSERT_EQ(machine.segments.Start()->hot(), nullptr) << i;
  }
  machine.segments.Start()->NoteRepeat(machine.dictionary, nullptr);
  EXPECT_NE(machine.segments.Start()->hot(), nullptr);
}

TEST(HotCode, IsMadeWhenALoopComesRoundAndDroppedByAWrite) {
  Machine machine;
  Loop(&machine, kRounds, [] {});
  EXPECT_EQ(machine.segments.Start()->hot(), nullptr);
  EXPECT_EQ(machine.Go(), 1);
  ASSERT_NE(machine.segments.Start()->hot(), nullptr);
  EXPECT_EQ(machine.Value("rounds"), std::to_string(kRounds));
  machine.Op(noop);
  EXPECT_EQ(machine.segments.Start()->hot(), nullptr);
}

TEST(HotCode, KnowsWhereInstructionsBegin) {
  Dictionary dictionary;
  Segment segment(0);
  int end = segment.Write_Word(0, pushi);
  end = segment.Write_Dword(end, 7);
  end = segment.Write_Word(end, add);
  const HotCode hot(segment.code(), segment.length(), dictionary, nullptr);
  ASSERT_NE(hot.At(0), nullptr);
  EXPECT_EQ(hot.At(0)->first, 7);
  EXPECT_EQ(hot.At(0)->action, HotAction::AddConstant);
  EXPECT_EQ(hot.At(0)->single, HotAction::PushInteger);
  EXPECT_EQ(hot.At(1), nullptr);
  ASSERT_NE(hot.At(6), nullptr);
  EXPECT_EQ(hot.At(6)->action, HotAction::Add);
  ASSERT_NE(hot.At(8), nullptr);
  EXPECT_EQ(hot.At(8)->action, HotAction::Leave);
  EXPECT_EQ(hot.At(9), nullptr);
  EXPECT_EQ(hot.At(-1), nullptr);
}

TEST(HotCode, AJumpBetweenInstructionsIsLeftToTheLoop) {
  Dictionary dictionary;
  Segment segment(0);
  int end = segment.Write_Word(0, jmp);
  end = segment.Write_Dword(end, static_cast<unsigned>(-5));
  const HotCode hot(segment.code(), segment.length(), dictionary, nullptr);
  EXPECT_EQ(hot.At(0)->action, HotAction::Leave);
}

TEST(HotCode, AnErrorInsideHotCodeTellsItsOwnPlace) {
  Machine machine;
  const int counter = machine.Global("counter");
  const int start = machine.end;
  machine.Op(incg, counter, 1);
  machine.Op(cmpgi, counter, kRounds);
  machine.Op(jmp_lt, start - (machine.end + 6));
  char place[40];
  snprintf(place, sizeof place, "[00000000:%08x]: ", static_cast<unsigned>(machine.end));
  machine.Op(add);
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_NE(machine.Error().find(std::string(place) + "Stack underflow"), std::string::npos)
      << machine.Error();
}

// Texts, and variables that have both a text and a number.
TEST(HotCode, CalculatesAndJumpsWithTextsAsThePlainLoopDoes) {
  const char* const values[] = {"pushc \"0\"",    "pushc \"-3\"", "pushc \"12.9\"",
                                "pushc \"word\"", "pushc \"\"",   "pushf 0.4",
                                "pushf -1.5",     "pushg t",      "pushi 2"};
  for (const std::string left : values) {
    SCOPED_TRACE(left);
    std::string program =
        "storegi i, 0\nnext:\npushc \"7.5\"\npopg t\npushg t\npushi 0\nadd\npop\n";
    for (const char* right : values) {
      for (const char* operation : {"add", "sub", "mul", "div"}) {
        program += left + "\n" + right + "\n" + operation + "\nout\npushc \" \"\nout\n";
      }
    }
    for (const std::string jump : {"eq", "ne", "lt", "le", "gt", "ge"}) {
      program += left + "\njmp_" + jump + " " + jump + "\npushc \"-\"\nout\n" + jump +
                 ":\npushc \"|\"\nout\n";
    }
    program += "incg i, 1\ncmpgi i, " + std::to_string(3 * kRounds) + "\njmp_lt next\nexit\n";
    ExpectTheSameHotAndCold(program);
  }
}

TEST(HotCode, AValueThatCannotBeReadEndsTheRunAtItsInstruction) {
  for (const char* last : {"add", "jmp_eq next"}) {
    ExpectTheSameEndHotAndCold("storegi i, 0\nnext: incg i, 1\ncmpgi i, " +
                               std::to_string(kRounds) + "\njmp_lt next\npushc \"1\"\npop\n" +
                               last + "\nexit\n");
  }
}

TEST(HotCode, TheStackOverflowsAtItsLastEntryAlsoInALoop) {
  Machine machine;
  const int counter = machine.Global("counter");
  machine.Op(storegi, counter, 0);
  const int start = machine.end;
  machine.Op(pushg, counter);
  machine.Op(pushi, 1);
  machine.Op(add);
  machine.Op(incg, counter, 1);
  machine.Op(jmp, start - (machine.end + 6));
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_NE(machine.Error().find("Stack overflow"), std::string::npos);
  EXPECT_EQ(machine.stack().Entries(), 512);
  // The 512th round has no room for the constant after the variable.
  EXPECT_EQ(machine.Value("counter"), "511");
}

TEST(HotCode, AnExitFromOutsideEndsALoopWithoutCalls) {
  Machine machine;
  const int start = machine.end;
  machine.Op(jmp, start - (machine.end + 6));
  ZephVM& vm = machine.vm();
  class Exits : public Feature {
   public:
    Exits(Machine* m, ZephVM* v) : Feature(&m->application, v, Type_Lockfile), machine(m) {}
    void Heartbeat() override { *machine->application.exitflag() = 1; }
    Machine* machine;
  };
  vm.Push_Feature(new Exits(&machine, &vm));
  std::thread beat([&] { std::atomic_ref<int>(*machine.application.heartbeatcounter()).store(1); });
  EXPECT_EQ(machine.Go(), 1);
  beat.join();
}

// Random instructions. Hot or not, a program gives the same globals, stack and errors.
struct RandomProgram {
  explicit RandomProgram(unsigned seed) : random(seed) {}

  int Below(int bound) { return static_cast<int>(random() % static_cast<unsigned>(bound)); }

  void Write(Machine* machine) {
    for (const char* name : {"a", "b", "c", "d"}) globals.push_back(machine->Global(name));
    Start(machine);
    Loop(machine, kRounds, [&] {
      const int statements = 1 + Below(6);
      for (int i = 0; i < statements; i++) Statement(machine);
    });
    machine->Op(Instruction::exit);
  }

  // Sets the initial globals: integers, doubles, texts, nothing, an array.
  void Start(Machine* machine) {
    for (int global : globals) {
      switch (Below(6)) {
        case 0: machine->Op(storegi, global, Below(100) - 50); break;
        case 1: machine->OpDouble(pushf, Below(1000) / 8.0).Op(popg, global); break;
        case 2: machine->Text(std::to_string(Below(50))).Op(popg, global); break;
        case 3: machine->Text("text").Op(popg, global); break;
        case 4: machine->Op(pushg, global).Op(pushi, 2).Op(elem).Op(pop); break;
        default: break;
      }
    }
  }

  int Any() { return globals[static_cast<size_t>(Below(4))]; }
  void Operand(Machine* machine) {
    switch (Below(4)) {
      case 0: machine->Op(pushi, Below(9) - 4); break;
      case 1: machine->OpDouble(pushf, Below(64) / 4.0 - 4); break;
      default: machine->Op(pushg, Any());
    }
  }
  void Operation(Machine* machine) {
    static const unsigned short operations[] = {
        add, sub, mul, Instruction::div, mod, eq, ne, lt, le, gt, ge, add, sub, mod};
    machine->Op(operations[Below(14)]);
  }
  void Expression(Machine* machine) {
    Operand(machine);
    for (int i = Below(3); i >= 0; i--) {
      Operand(machine);
      Operation(machine);
    }
  }
  void Statement(Machine* machine) {
    static const unsigned short jumps[] = {jmp_eq, jmp_ne, jmp_lt, jmp_le, jmp_gt, jmp_ge};
    switch (Below(12)) {
      case 0: machine->Op(incg, Any(), Below(5) - 2); break;
      case 1: machine->Op(storegi, Any(), Below(9)); break;
      case 2: {
        const int compared = Any();
        if (Below(2)) machine->Op(incg, Below(3) ? compared : Any(), Below(5) - 2);
        machine->Op(cmpgi, compared, Below(9)).Op(jumps[Below(6)], 10).Op(incg, Any(), 1);
        break;
      }
      case 9: machine->Op(cmpgg, Any(), Any()).Op(jumps[Below(6)], 10).Op(incg, Any(), 1); break;
      case 10:
        machine->Op(modgg, Any(), Any());
        if (Below(2)) {
          machine->Op(jumps[Below(6)], 10).Op(incg, Any(), 1);
        } else {
          machine->Op(popg, Any());
        }
        break;
      case 3:
        Expression(machine);
        machine->Op(jumps[Below(6)], 10).Op(storegi, Any(), Below(9));
        break;
      case 4:
        Expression(machine);
        machine->Op(pushg, Any()).Op(pushi, 1 + Below(3)).Op(elem).Op(store);
        break;
      case 5:
        Expression(machine);
        machine->Op(pushg, Any()).Text("m").Op(memb).Op(store);
        break;
      case 6: machine->Op(pushg, Any()).Op(pushi, 1 + Below(3)).Op(elem).Op(popg, Any()); break;
      case 7: machine->Op(pushg, Any()).Text("m").Op(memb_readonly).Op(popg, Any()); break;
      default: Expression(machine); machine->Op(popg, Any());
    }
  }

  std::mt19937 random;
  std::vector<int> globals;
};

struct Outcome {
  int result;
  std::string values;
  std::string error;
  int entries;
  bool ran_short;  // see GoWithin64Megabytes()
};

Outcome OutcomeOf(unsigned seed, Pace pace) {
  Machine machine;
  RandomProgram(seed).Write(&machine);
  const RunsAt runs(pace, &machine);
  Outcome outcome;
  outcome.result = GoWithin64Megabytes(&machine, &outcome.ran_short);
  if (pace == Pace::Cold) {
    EXPECT_EQ(machine.segments.Start()->hot(), nullptr);
  }
  for (const char* name : {"a", "b", "c", "d", "rounds"}) {
    outcome.values += machine.Value(name) + "|";
  }
  outcome.error = machine.Error();
  outcome.entries = machine.stack().Entries();
  return outcome;
}

TEST(HotCode, RandomProgramsDoTheSameHotAndCold) {
  for (unsigned seed = 1; MoreRounds(seed, 1000); seed++) {
    SCOPED_TRACE(seed);
    const Outcome cold = OutcomeOf(seed, Pace::Cold);
    for (const Pace pace : kQuickPaces) {
      SCOPED_TRACE(pace);
      const Outcome hot = OutcomeOf(seed, pace);
      ASSERT_EQ(hot.values, cold.values);
      ASSERT_EQ(hot.result, cold.result);
      ASSERT_EQ(hot.error, cold.error);
      ASSERT_EQ(hot.entries, cold.entries);
    }
  }
}

// The same as program text: with functions, arrays that grow, texts, and instructions that the hot
// loop runs by the machine's handlers.
class RandomText {
 public:
  explicit RandomText(unsigned seed) : random(seed) {}

  std::string Program() {
    text = "storegi n, 0\n";
    for (const char* name : {"a", "b", "c", "d"}) Start(name);
    text += "pushc \"" + std::string(static_cast<size_t>(120 + Below(20)), 's') + "\"\npopg s\n";
    text += "storegi i, 0\nagain: incg i, 1\n";
    const int statements = 2 + Below(6);
    for (int k = 0; k < statements; k++) Statement();
    text += "cmpgi i, " + std::to_string(Segment::Repeats + 12) + "\njmp_lt again\n";
    text += "pushg a\nout\npushg b\nout\npushg c\nout\npushg d\nout\npushg s\nout\nexit\n";
    Functions();
    return text;
  }

 private:
  int Below(int bound) { return static_cast<int>(random() % static_cast<unsigned>(bound)); }
  std::string OneOf(std::initializer_list<const char*> words) {
    return words.begin()[Below(static_cast<int>(words.size()))];
  }
  std::string Label() { return "label" + std::to_string(labels++); }
  std::string Global() { return OneOf({"a", "b", "c", "d"}); }
  std::string PushGlobal() { return "pushg " + Global() + "\n"; }
  std::string Number() {
    return Below(2) ? "pushi " + std::to_string(Below(9) - 3) + "\n"
                    : "pushf " + std::to_string(Below(40) / 8.0 - 2) + "\n";
  }
  std::string Constant() { return "pushc \"" + OneOf({"", "x", "7"}) + "\"\n"; }
  std::string Member() { return OneOf({"m", "m", "M", "k", "longer than a word", ""}); }
  std::string Operation() { return OneOf({"add\n", "sub\n", "mul\n", "div\n", "mod\n"}); }

  void Start(const std::string& name) {
    switch (Below(6)) {
      case 0: text += "storegi " + name + ", " + std::to_string(Below(50)) + "\n"; break;
      case 1: text += "pushf 1.75\npopg " + name + "\n"; break;
      case 2: text += "pushc \"12\"\npopg " + name + "\n"; break;
      case 3: text += "pushc \"word\"\npopg " + name + "\n"; break;
      default: text += "pushi 5\npushg " + name + "\npushi 1\nelem\nstore\n"; break;
    }
  }
  std::string Operand() {
    switch (Below(9)) {
      case 0: return PushGlobal() + "pushg i\nelem_readonly\n";
      case 1: return PushGlobal() + "pushi 1\nelem_readonly\n";
      case 2: return PushGlobal() + "pushc \"" + Member() + "\"\nmemb_readonly\n";
      case 3: return Operand() + "call " + OneOf({"twice", "sum", "echo"}) + "\n";
      case 4: return Constant();
      case 5: return "pushg i\n";
      default: return Below(2) ? Number() : PushGlobal();
    }
  }
  std::string Expression() {
    std::string result = Operand();
    for (int k = Below(3); k > 0; k--) result += Operand() + (Below(4) ? Operation() : "cat\n");
    return result;
  }
  std::string Target() {
    switch (Below(5)) {
      case 0: return "pushg a\npushg i\nelem\n";
      case 1: return PushGlobal() + "pushg i\nelem\n";
      case 2: return PushGlobal() + "pushi " + std::to_string(1 + Below(3)) + "\nelem\n";
      case 3: return PushGlobal() + "pushc \"" + Member() + "\"\nmemb\n";
      default: return PushGlobal();
    }
  }
  // A text that is long enough to grow in place, and actions that may interrupt that.
  std::string LongText() {
    std::string result = "pushg s\n" + Constant() + "cat\n";
    for (int k = Below(4); k > 0; k--) {
      result += OneOf({"pushg i\n", "pushg n\n", "pushc \", \"\n", "pushf 0.5\n"}) + "cat\n";
    }
    if (Below(4) == 0) result += "pushg a\npopg s\n";
    return result + OneOf({"popg s\n", "popg s\n", "popg d\n", "out\n", "call echo\npopg s\n"});
  }
  void Statement() {
    switch (Below(15)) {
      case 0: text += Target() + "dup\n" + Operand() + Operation() + "swap\nstore\n"; break;
      case 1: text += Target() + "dup\n" + Number() + Operation() + "swap\nstore\n"; break;
      case 2: text += Expression() + "popg " + Global() + "\n"; break;
      case 3:
        text += "pushg " + OneOf({"i", "n"}) + "\npushg " + Global() + "\npushg i\nelem\nstore\n";
        break;
      case 4: {
        const std::string label = Label();
        text += Expression() + Operand() + OneOf({"lt\n", "eq\n", "ge\n", "ne\n"}) +
                OneOf({"jmp_eq ", "jmp_ne "}) + label + "\nincg n, 1\n" + label + ": noop\n";
        break;
      }
      case 5: text += Number() + "pushi 2\nrounds\npopg " + Global() + "\n"; break;
      case 6: text += Operand() + Operand() + "in\npopg n\n"; break;
      case 7: text += Operand() + "isnull\npopg n\n" + Operand() + "out\n"; break;
      case 8: text += "pushi " + std::to_string(Below(6)) + "\ncall down\n" + "popg n\n"; break;
      case 9:
        text += Operand() + "pushi " + std::to_string(Below(12) - 1) + "\nrounds\nout\n";
        break;
      case 10: text += Constant() + PushGlobal() + "cat\n" + OneOf({"out\n", "popg d\n"}); break;
      case 11:
        text += Constant() + "pushg i\ncat\n" +
                OneOf({"out\n", "popg b\n", "call echo\npopg c\n", "pushg a\ncat\nout\n"});
        break;
      case 12:
      case 13: text += LongText(); break;
      // A whole array, or its text, in one of its elements would double with each round.
      default: text += Expression() + Number() + Operation() + Target() + "store\n"; break;
    }
    if (Below(3) == 0) text += "pushc \"\"\npopg b\n";
  }
  void Functions() {
    text += ".function twice(x)\npushl x\npushi 2\nmul\nret\n.end\n";
    text += ".function echo(x)\n" + std::string(Below(2) ? "pushi 3\npushl x\nadd\npopl x\n" : "") +
            "pushl x\nret\n.end\n";
    text += ".function sum(x)\n.local t\npushl x\npopl t\npushl t\npushl x\n" + Operation() +
            "popl t\npushl t\nret\n.end\n";
    text += ".function down(k)\npushl k\npushi 1\nlt\njmp_eq more\n" +
            OneOf({"pushl k\n", "pushc \"end\"\n", "pushl k\npushc \"e\"\ncat\n"}) +
            "ret\nmore: pushl k\npushi 1\nsub\ncall down\npushl k\n" + OneOf({"add\n", "cat\n"}) +
            "ret\n.end\n";
  }

  std::mt19937 random;
  std::string text;
  int labels = 0;
};

// A page in small blocks, some of which go out early.
class Page : public HTTPOutput {
 public:
  Page() : HTTPOutput(64, 150) {}
  void OutputHeaders() override {}
  int DoWrite(const char* text, int length) override {
    body.append(text, static_cast<size_t>(length));
    return length;
  }
  std::string body;
};

Outcome OutcomeOf(const std::string& program, Pace pace) {
  Page page;
  Machine machine;
  if (pace != Pace::Cold) machine.application.SetOutput(&page);
  machine.Assemble(program);
  const RunsAt runs(pace, &machine);
  Outcome outcome;
  outcome.result = GoWithin64Megabytes(&machine, &outcome.ran_short);
  ExpectCodeOf(pace, &machine);
  for (const char* name : {"a", "b", "c", "d", "i", "n"}) {
    outcome.values += machine.Value(name) + "|";
  }
  page.Flush();
  outcome.values += page.body + machine.Output();
  outcome.error = machine.Error();
  outcome.entries = machine.stack().Entries();
  return outcome;
}

// Where two texts begin to differ.
std::string Difference(const std::string& one, const std::string& other) {
  size_t at = 0;
  while (at < one.size() && at < other.size() && one[at] == other[at]) at++;
  const size_t from = at < 40 ? 0 : at - 40;
  return "at " + std::to_string(at) + ": ..." + one.substr(from, 80) + "\nand: ..." +
         other.substr(from, 80);
}

TEST(HotCode, RandomProgramTextsDoTheSameHotAndCold) {
  for (unsigned seed = 1; MoreRounds(seed, 1000); seed++) {
    const std::string program = RandomText(seed).Program();
    SCOPED_TRACE(testing::Message() << seed << "\n" << program);
    const Outcome cold = OutcomeOf(program, Pace::Cold);
    if (cold.ran_short) continue;
    for (const Pace pace : kQuickPaces) {
      SCOPED_TRACE(pace);
      const Outcome hot = OutcomeOf(program, pace);
      if (hot.ran_short) continue;
      ASSERT_TRUE(hot.values == cold.values) << Difference(hot.values, cold.values);
      ASSERT_EQ(hot.result, cold.result);
      ASSERT_EQ(hot.error, cold.error);
      ASSERT_EQ(hot.entries, cold.entries);
    }
  }
}

// Programs of functions that call one another with arguments of all kinds, by value and by
// reference, and return all kinds of results, which are used in all ways.
class RandomCalls {
 public:
  explicit RandomCalls(unsigned seed) : random(seed) {}

  std::string Program() {
    std::string text = "storegi n, 0\n";
    for (const char* name : kGlobals) text += Value() + "popg " + name + "\n";
    text += "again: incg n, 1\n";
    for (int i = 0; i < 4; i++) text += Statement(0);
    for (const char* name : kGlobals) text += std::string("pushg ") + name + "\nout\n";
    text += "cmpgi n, " + std::to_string(kRounds) + "\njmp_lt again\nexit\n";
    const bool apart = Below(2) != 0;
    for (level = 1; level <= 3; level++) {
      if (apart && level > 1) text += ".segment " + std::to_string(level - 1) + "\n";
      text += ".function f" + std::to_string(level) + "(p";
      text += std::string(Below(2) ? " var" : "") + ", q" + (Below(2) ? " var" : "") + ", r)\n";
      text += ".local k\n.local m\n";
      const int statements = 2 + Below(4);
      for (int i = 0; i < statements; i++) text += Statement(level);
      text += Below(5) ? Any() + "ret\n" : "retn\n";
      text += ".end\n";
    }
    return text;
  }

 private:
  static constexpr const char* kGlobals[] = {"a", "b", "c", "d"};

  int Below(int limit) { return static_cast<int>(random() % static_cast<unsigned>(limit)); }
  std::string Name() {
    static const char* const kLocals[] = {"p", "q", "r", "k", "m"};
    if (level == 0 || Below(6) == 0) return std::string("g ") + kGlobals[Below(4)];
    return std::string("l ") + kLocals[Below(5)];
  }
  std::string Value() {
    static const char* const kValues[] = {"pushi 0",
                                          "pushi 1",
                                          "pushi 3",
                                          "pushi -7",
                                          "pushf 2.5",
                                          "pushf 4",
                                          "pushc \"word\"",
                                          "pushc \"12\"",
                                          "pushc \"\"",
                                          "pushc \"n\"",
                                          "pushi 2000",
                                          "pushf 1e10",
                                          "pushc \"99999999999\"",
                                          "pushc \"nan\"",
                                          "pushc \"infinite\""};
    return std::string(kValues[Below(15)]) + "\n";
  }
  std::string Variable() { return "push" + Name() + "\n"; }
  std::string Place() {
    switch (Below(4)) {
      case 0: return Variable() + "pushi " + std::to_string(1 + Below(4)) + "\nelem\n";
      case 1: return Variable() + Variable() + "memb\n";
      case 2: return Variable() + "pushc \"m\"\nmemb\n";
      default: return Variable();
    }
  }
  std::string Operand() {
    switch (Below(5)) {
      case 0: return Value();
      case 1: return Variable() + "pushi " + std::to_string(1 + Below(4)) + "\nelem_readonly\n";
      case 2: return Variable() + "pushc \"m\"\nmemb_readonly\n";
      default: return Variable();
    }
  }
  std::string Call() {
    if (level >= 3) return Value();
    const std::string name = "f" + std::to_string(level + 1 + Below(3 - level));
    return Place() + Place() + Any() + "call " + name + "\n";
  }
  std::string Any() {
    static const char* const kOperations[] = {
        "add", "sub", "mul", "div", "mod", "cat",    "eq",    "ne",     "lt",    "le",
        "gt",  "ge",  "and", "or",  "cmp", "bitand", "bitor", "bitxor", "bitsl", "bitsr"};
    switch (Below(11)) {
      case 9:
      case 10: return Nested(0);
      case 0:
      case 1: return Operand() + Operand() + kOperations[Below(20)] + "\n";
      case 2: return Operand() + (Below(2) ? "not\n" : "bitoc\n");
      case 3: return depth++ < 6 ? Call() : Value();
      case 4: return depth++ < 6 ? Call() + Operand() + kOperations[Below(20)] + "\n" : Value();
      case 5: return depth++ < 6 ? Operand() + Call() + kOperations[Below(20)] + "\n" : Value();
      default: return Operand();
    }
  }
  // An expression of several operations, some of them on a line of their own.
  std::string Nested(int deep) {
    static const char* const kOperations[] = {"add", "sub", "mul", "div", "mod", "lt",     "eq",
                                              "gt",  "ne",  "and", "or",  "cat", "bitand", "cmp"};
    std::string text = deep < 2 && Below(3) ? Nested(deep + 1) : Operand();
    text += deep < 2 && Below(3) == 0 ? Nested(deep + 1) : Operand();
    if (Below(4) == 0) text += "lineno " + std::to_string(Below(50)) + "\n";
    if (Below(8) == 0) text += "dup\npop\n";
    if (Below(8) == 0) text += "swap\n";
    text += std::string(kOperations[Below(14)]) + "\n";
    return Below(8) == 0 ? text + "not\n" : text;
  }
  std::string Statement(int at) {
    level = at;
    depth = 0;
    switch (Below(15)) {
      case 10: {
        static const char* const kJumps[] = {"jmp_eq", "jmp_ne", "jmp_lt",
                                             "jmp_le", "jmp_gt", "jmp_ge"};
        const std::string label = "x" + std::to_string(labels++);
        return Nested(0) + Nested(1) + "cmp\n" + kJumps[Below(6)] + " " + label + "\n" + Any() +
               Place() + "store\n" + label + ": lineno 4\n";
      }
      case 11: return Nested(0) + Place() + "store\n";
      case 13: {
        // A loop over what may be an array, with or without places in the source.
        const std::string label = "x" + std::to_string(labels++);
        static const char* const kPlaces[] = {"", "lineno 5\n", "sourcefile \"f\"\nlineno 6\n"};
        return "pushi 0\n" + label + ": pushi 1\nadd\ndup\npush" + Name() + "\nswap\n" +
               kPlaces[Below(3)] + "elem_readonly\ndup\nisnull\njmp_ne " + label + "e\npop" +
               Name() + "\nincg loop, 1\ncmpgi loop, 40\njmp_lt " + label +
               "\nstoregi loop, 0\npushi 0\n" + "pushi 0\n" + label + "e: pop\npop\n";
      }
      case 14: {
        static const char* const kTests[] = {"not\n", "pushi 3\nmod\n", "pushi 1\nbitand\nnot\n"};
        const std::string label = "x" + std::to_string(labels++);
        return Operand() + kTests[Below(3)] + (Below(2) ? "jmp_eq " : "jmp_gt ") + label + "\n" +
               Any() + "pop" + Name() + "\n" + label + ": lineno 8\n";
      }
      case 12: {
        // A loop whose limit is on the stack.
        const std::string label = "x" + std::to_string(labels++);
        return "pushi 3\nstoregi loop, 0\n" + label + ": " + Nested(1) + "pop" + Name() +
               "\nincg loop, 1\ndup\npushg loop\nge\njmp_ne " + label + "\npop\n";
      }
      case 0: return Any() + Place() + "store\n";
      case 1: return Any() + "out\n";
      case 2: return Any() + "pop\n";
      case 3: {
        const std::string label = "x" + std::to_string(labels++);
        return Any() + Any() + "eq\njmp_eq " + label + "\n" + Any() + "pop" + Name() + "\n" +
               label + ": lineno 3\n";
      }
      case 4: return Place() + "dup\n" + Operand() + "add\nswap\nstore\n";
      case 5: return Value() + "pop" + Name() + "\n";
      case 6: return Variable() + "popr" + Name() + "\n";
      default: return Any() + "pop" + Name() + "\n";
    }
  }

  std::mt19937 random;
  int level = 0;
  int depth = 0;
  int labels = 0;
};

TEST(HotCode, RandomCallsDoTheSameHotAndColdInFreshFramesAndInReusedOnes) {
  int finished = 0;
  for (unsigned seed = 1; MoreRounds(seed, 200); seed++) {
    const std::string program = RandomCalls(seed).Program();
    SCOPED_TRACE(testing::Message() << seed << "\n" << program);
    const struct {
      Pace pace;
      bool reuse;
      bool at_once;  // decoded code from the first instruction on
    } ways[] = {{Pace::Cold, true, false},    {Pace::Cold, false, false},
                {Pace::Decoded, true, false}, {Pace::Decoded, false, false},
                {Pace::Decoded, true, true},  {Pace::Native, true, false},
                {Pace::Native, false, false}, {Pace::Native, true, true}};
    Outcome outcomes[std::size(ways)];
    for (size_t way = 0; way < std::size(ways); way++) {
      Machine machine;
      machine.Assemble(program);
      const RunsAt runs(ways[way].pace, &machine);
      if (ways[way].at_once) DecodeAtOnce(&machine);
      machine.vm().SetFrameReuse(ways[way].reuse);
      outcomes[way].result = GoWithin64Megabytes(&machine, &outcomes[way].ran_short);
      outcomes[way].values = machine.Output();
      outcomes[way].error = machine.Error();
      outcomes[way].entries = machine.stack().Entries();
    }
    if (std::any_of(std::begin(outcomes), std::end(outcomes),
                    [](const Outcome& outcome) { return outcome.ran_short; })) {
      continue;
    }
    finished += outcomes[0].result;
    for (const Outcome& other : outcomes) {
      ASSERT_TRUE(outcomes[0].values == other.values)
          << Difference(outcomes[0].values, other.values);
      ASSERT_EQ(outcomes[0].result, other.result);
      ASSERT_EQ(outcomes[0].error, other.error);
      ASSERT_EQ(outcomes[0].entries, other.entries);
    }
  }
  EXPECT_GT(finished, Rounds(60));
}

TEST(HotCode, AVariableMayBeStoredInItself) {
  ExpectTheSameHotAndCold(
      "storegi n, 0\npushi 3\npopg d\n"
      "again: incg n, 1\npushg d\npushg d\npushc \"m\"\nmemb\nstore\npushg d\nout\n"
      "pushg n\npushg a\npushi 1\nelem\nstore\npushg a\npushg a\npushi 2\nelem\nstore\npushg "
      "a\nout\n"
      "cmpgi n, 12\njmp_lt again\nexit\n");
}

TEST(HotCode, ALoopOverAnArrayTakesEachKindOfElement) {
  const std::string loop =
      "pushi 0\nnext: pushi 1\nadd\ndup\npushg a\nswap\nelem_readonly\ndup\nisnull\n"
      "jmp_ne over\npopg v\npushg v\nout\npushc \",\"\nout\njmp next\nover: pop\npop\n";
  for (const char* const other :
       {"pushc \"word\"", "pushc \"\"", "pushf 2.5", "pushi 0", "pushg b", "pushg missing"}) {
    SCOPED_TRACE(other);
    std::string fill = "pushi 1\npushg b\npushi 1\nelem\nstore\n";
    for (int i = 1; i <= 12; i++) {
      fill += (i == 7 ? std::string(other) : "pushi " + std::to_string(i)) + "\npushg a\npushi " +
              std::to_string(i) + "\nelem\nstore\n";
    }
    ExpectTheSameHotAndCold("storegi n, 0\n" + fill + "again: incg n, 1\n" + loop +
                            "cmpgi n, 12\njmp_lt again\nexit\n");
  }
}

// The same with places in the source between, as pages have them, with other positions, and with
// the array or its position as the variable of the loop. The lines are those of each moment.
TEST(HotCode, ALoopOverAnArrayNotesItsPlace) {
  const std::string fill = [] {
    std::string text;
    for (int i = 1; i <= 9; i++) {
      const std::string number = std::to_string(i);
      text += "pushc \"e" + number + "\"\npushg a\npushi " + number + "\nelem\nstore\n";
    }
    return text;
  }();
  for (const char* const place :
       {"", "lineno 7\n", "sourcefile \"f\"\n", "sourcefile \"f\"\nlineno 7\n"}) {
    for (const char* const begin : {"pushi 0", "pushf 0.75", "pushc \"0\""}) {
      for (const char* const target : {"v", "a"}) {
        SCOPED_TRACE(std::string(place) + begin + target);
        const std::string loop = std::string(begin) + "\nnext: pushi 1\nadd\ndup\npushg a\nswap\n" +
                                 place + "elem_readonly\ndup\nisnull\njmp_ne over\npopg " + target +
                                 "\npushg " + target + "\nout\nlineno 9\njmp next\nover: pop\n";
        // The position is out with the last look-up; then an error, which says its place.
        ExpectTheSameEndHotAndCold("storegi n, 0\nsourcefile \"g\"\nagain: incg n, 1\n" + fill +
                                   loop + "out\ncmpgi n, 12\njmp_lt again\npop\nexit\n");
      }
    }
  }
}

// A jump on a value, and on what is not true, for values of all kinds.
TEST(HotCode, AJumpOnWhatIsNotTrueIsTheSame) {
  const std::vector<std::string> values = {
      "pushi 0",       "pushi 3",       "pushf 0.5",        "pushf 0",        "pushf -0.25",
      "pushc \"\"",    "pushc \"0\"",   "pushc \"0.0\"",    "pushc \"word\"", "pushc \"0.5\"",
      "pushc \"nan\"", "pushg missing", "pushi -2147483648"};
  for (const std::string& value : values) {
    std::string program = "storegi n, 0\nagain: incg n, 1\n" + value + "\npopg v\n";
    int label = 0;
    for (const char* const jump : {"jmp_eq", "jmp_ne", "jmp_lt", "jmp_le", "jmp_gt", "jmp_ge"}) {
      for (const char* const test : {"pushg v\nnot\n", "pushg v\npushi 1\nbitand\n",
                                     "pushg v\npushg v\nand\n", "pushg v\npushi 2\ngt\nnot\n"}) {
        const std::string target = "l" + std::to_string(label++);
        program += std::string(test) + jump + " " + target + "\npushc \"-\"\nout\n" + target + ": ";
      }
    }
    SCOPED_TRACE(value);
    ExpectTheSameHotAndCold(program + "pushc \",\"\nout\ncmpgi n, " + std::to_string(kRounds) +
                            "\njmp_lt again\nexit\n");
  }
}

// Functions of one segment may have any number of variables, and the main code has none of its own:
// groups read rows that some of these tables do not have, and names are added while code runs.
TEST(HotCode, TablesOfAllSizesServeTheCodeOfASegment) {
  ExpectTheSameHotAndCold(
      "storegi n, 0\nagain: incg n, 1\npushg n\ncall few\nout\npushg n\npushi 2\ncall many\nout\n"
      "pushc \"made\"\npushg n\ncat\npopg name\npushg n\npushnc \"name\"\nstore\n"
      "cmpgi n, " +
      std::to_string(2 * kRounds) +
      "\njmp_lt again\nexit\n"
      ".function few(a)\npushl a\npushi 1\nadd\nret\n.end\n"
      ".function many(a, b)\npushl a\npushl b\nmul\npopl c\npushl c\npushl b\nadd\npopl d\n"
      "pushl d\npushl c\nsub\npopl e\npushl e\npushl g\nadd\npopl f\npushl f\ncall few\nret\n");
}

// Groups fail to apply for a text, are set aside, and apply again.
TEST(HotCode, ValuesOfOtherKindsComeAndGo) {
  ExpectTheSameHotAndCold(
      "storegi n, 0\npushc \"12\"\npopg text\npushi 0\npopg sum\n"
      "again: incg n, 1\n"
      "pushg n\npushi 400\nmod\npushi 200\nlt\njmp_eq other\npushi 5\npopg v\njmp go\n"
      "other: pushg text\npopg v\n"
      "go: pushg v\npushi 3\nmul\npushg sum\nadd\npopg sum\n"
      "pushg v\npushg s\npushi 1\nelem\nstore\n"
      "pushg s\npushi 1\nelem_readonly\npushg v\neq\njmp_ne same\npushc \"!\"\nout\n"
      "same: pushg v\nout\n"
      "cmpgi n, 2000\njmp_lt again\npushg sum\nout\nexit\n");
}

TEST(HotCode, FunctionsOfOtherSegmentsDoTheSame) {
  for (const char* const apart : {"", ".segment 1\n"}) {
    SCOPED_TRACE(apart);
    const std::string program =
        "storegi n, 0\nagain: incg n, 1\n"
        "pushg n\npushc \"x\"\ncall f\nout\npushg n\npushi 4\nmod\npushg n\ncall g\nout\n"
        "pushi 7\npushg n\ncall h\npopg last\npushg last\nout\n"
        "cmpgi n, 40\njmp_lt again\nexit\n"
        ".function h(p, q)\npushl p\nret\n.end\n" +
        std::string(apart) +
        ".function f(p, q)\npushl q\npushl p\ncat\npopl q\npushl q\nret\n.end\n"
        ".function g(p, q var)\npushl p\npushi 1\nlt\njmp_ne done\n"
        "pushl p\npushi 1\nsub\npushl q\ncall g\npushl p\npushl q\ncall h\nadd\nret\n"
        "done: pushl q\nret\n.end\n";
    ExpectTheSameHotAndCold(program);
  }
}

TEST(HotCode, ALongExpressionHasTheSameValue) {
  std::string sum = "pushg n\n";
  for (int i = 0; i < 100; i++) sum += "pushg n\npushi " + std::to_string(i) + "\nmul\n";
  for (int i = 0; i < 100; i++) sum += i % 3 ? "add\n" : "sub\n";
  ExpectTheSameHotAndCold("storegi n, 0\nagain: incg n, 1\n" + sum + "out\n" + sum +
                          "popg x\npushg x\nout\ncmpgi n, 40\njmp_lt again\nexit\n");
}

TEST(HotCode, AStructureMayBeNamedByItself) {
  ExpectTheSameHotAndCold(
      "storegi n, 0\nagain: incg n, 1\npushc \"self\"\npopg x\npushi 5\npushg x\npushg "
      "x\nmemb\nstore\n"
      "pushg x\nout\ncmpgi n, " +
      std::to_string(kRounds) + "\njmp_lt again\nexit\n");
}

// Its comparison is followed by a look at the host's flags, and then by the jump.
TEST(HotCode, ALongTextIsComparedWithAConstant) {
  std::string text = "pushc \"abcdefgh\"\npopg t\n";
  for (int i = 0; i < 11; i++) text += "pushg t\npushg t\ncat\npopg t\n";
  for (const char* jump : {"eq\njmp_eq", "eq\njmp_ne", "ne\njmp_eq", "ne\njmp_ne", "lt\njmp_ne"}) {
    ExpectTheSameHotAndCold(text + "storegi n, 0\nagain: incg n, 1\npushg t\npushc \"word\"\n" +
                            jump + " skip\npushc \"x\"\nout\nskip: cmpgi n, " +
                            std::to_string(kRounds) + "\njmp_lt again\nexit\n");
  }
}

// A comparison reads the left text as a number, which an element keeps. The copy that has the same
// element as long as nobody writes to it does not get the number: as an integer its text is
// another.
TEST(HotCode, AComparisonLeavesTheCopyOfAnArrayAsItIs) {
  const std::string rounds = std::to_string(kRounds);
  for (const bool members : {false, true}) {
    const std::string key = members ? "pushc \"m\"\nmemb" : "pushi 1\nelem";
    ExpectTheSameHotAndCold(
        "storegi n, 0\npushc \"abc\"\npopg w\n"
        "again: pushc \"99999999999\"\npushg a\n" +
        key +
        "\nstore\n"
        "pushg a\npopg b\npushg a\n" +
        key +
        "_readonly\npushg w\nlt\n"
        "jmp_ne next\nincg m, 1\nnext: pushg b\n" +
        key + "_readonly\npushi 0\nbitor\nout\nincg n, 1\ncmpgi n, " + rounds +
        "\njmp_lt again\nexit\n");
  }
}

// A local variable without a value that is read as an integer has nothing of the last call, in
// which it had a double.
TEST(HotCode, AValueThatIsMissingIsZeroInAnElement) {
  for (const char* place : {"pushi 1\nelem", "pushc \"m\"\nmemb"}) {
    const std::string store = std::string("pushg a\n") + place + "\nstore\n";
    ExpectTheSameHotAndCold(
        "storegi n, 0\nagain: pushi 1\ncall f\npop\npushi 0\ncall f\npop\npushg a\n" +
        std::string(place) + "_readonly\nout\nincg n, 1\ncmpgi n, " + std::to_string(kRounds) +
        "\njmp_lt again\nexit\n.function f(p)\npushl p\njmp_eq zero\npushf 3.5\npopl t\n"
        "pushc \"\"\nret\nzero: pushl t\npushi 0\nbitor\npop\npushc \"x\"\n" +
        store + "pushl t\n" + store + "pushc \"\"\nret\n.end\n");
  }
}

// Texts among the elements are compared as texts, and a number may be NaN.
TEST(HotCode, ElementsOfAllKindsAreComparedWithEachOtherAndWithVariables) {
  const char* const values[] = {"pushi 3\n",       "pushf 2.5\n",   "pushc \"abc\"\n",
                                "pushc \"abd\"\n", "pushc \"3\"\n", "pushc \"nan\"\npushi 1\nmul\n",
                                "pushc \"\"\n"};
  for (const char* compare : {"lt", "le", "gt", "ge", "eq", "ne", "cmp"}) {
    std::string fill, tests;
    int label = 0;
    const auto test = [&](const std::string& left, const std::string& right) {
      const std::string skip = "s" + std::to_string(label++);
      tests += left + right + compare +
               (std::string(compare) == "cmp" ? "\njmp_lt " : "\njmp_ne ") + skip +
               "\npushc \"-\"\nout\n" + skip + ": pushc \"+\"\nout\n";
    };
    for (int i = 1; i <= 7; i++) {
      const std::string here = "pushg a\npushi " + std::to_string(i) + "\n";
      const std::string member = "pushg s\npushc \"m" + std::to_string(i) + "\"\n";
      const std::string variable = "v" + std::to_string(i);
      fill += values[i - 1] + here + "elem\nstore\n" + values[i - 1] + member + "memb\nstore\n" +
              values[i - 1] + "popg " + variable + "\n";
      for (int k = 1; k <= 7; k++) {
        const std::string other = "pushg a\npushi " + std::to_string(k) + "\nelem_readonly\n";
        test(here + "elem_readonly\n", other);
        test(member + "memb_readonly\n", other);
        test("pushg " + variable + "\n", other);
        test(other, "pushg " + variable + "\n");
      }
      test(here + "elem_readonly\n", "pushi 3\n");
      test(here + "elem_readonly\n", "pushf 2.5\n");
    }
    SCOPED_TRACE(compare);
    // Long code is decoded later.
    ExpectTheSameHotAndCold(fill + "storegi n, 0\nagain: incg n, 1\n" + tests + "cmpgi n, " +
                            std::to_string(4 * kRounds) + "\njmp_lt again\nexit\n");
  }
}

// Numbers in elements and members that have variables, and those without, are stored and moved
// alike; what is no number in one form goes another way.
TEST(HotCode, NumbersOfAllFormsAreStoredInElementsAndMoved) {
  const char* const values[] = {"pushi 7\n",
                                "pushf 0.5\n",
                                "pushg i\n",
                                "pushg d\n",
                                "pushg both\n",
                                "pushg text\n",
                                "pushg none\n",
                                "pushg i\npushi 1\nadd\n",
                                "pushg i\npushi 3\nmod\n",
                                "pushg nan\n",
                                "pushg a\npushi 2\nelem_readonly\n",
                                "pushg s\npushc \"y\"\nmemb_readonly\n"};
  const char* const places[] = {"pushg a\npushi 1\n", "pushg a\npushg i\n", "pushg a\npushg d\n",
                                "pushg a\npushg both\n", "pushg a\npushg i\npushi 1\nadd\n"};
  for (const char* value : values) {
    std::string body;
    const auto show = [&body](const std::string& look_up) {
      body += look_up + "popg x\npushg x\nout\npushc \" \"\nout\n";
    };
    for (const char* place : places) {
      body += value + std::string(place) + "elem\nstore\n";
      show(place + std::string("elem_readonly\n"));
    }
    body += value + std::string("pushg s\npushc \"x\"\nmemb\nstore\n");
    show("pushg s\npushc \"x\"\nmemb_readonly\n");
    SCOPED_TRACE(value);
    for (const char* held :
         {"", "pushg a\npushi 1\nelem\npoprg r\npushg s\npushc \"x\"\nmemb\npoprg q\n",
          "pushg a\npopg b\npushg s\npopg t\n"}) {
      ExpectTheSameHotAndCold(
          "storegi i, 1\npushf 2.5\npopg d\npushi 3\npopg both\npushg both\npushf 0.5\nadd\npop\n"
          "pushc \"12x\"\npopg text\npushc \"nan\"\npushi 1\nmul\npopg nan\n"
          "pushi 1\npushg a\npushi 1\nelem\nstore\npushi 2\npushg a\npushi 2\nelem\nstore\n"
          "pushi 3\npushg a\npushi 3\nelem\nstore\npushi 4\npushg s\npushc \"x\"\nmemb\nstore\n"
          "pushi 5\npushg s\npushc \"y\"\nmemb\nstore\nstoregi n, 0\nagain: incg n, 1\n" +
          std::string(held) + body +
          "pushg a\nout\npushg s\nout\npushg b\nout\npushg t\nout\ncmpgi n, " +
          std::to_string(kRounds) + "\njmp_lt again\nexit\n");
    }
  }
}

TEST(HotCode, StructuresThatReplaceStructuresAreCopies) {
  ExpectTheSameHotAndCold(
      "storegi n, 0\n"
      "fill: incg n, 1\npushg n\npushg a\npushg n\nelem\npushc \"x\"\nmemb\nstore\n"
      "pushc \"t\"\npushg n\ncat\npushg a\npushg n\nelem\npushc \"y\"\nmemb\nstore\n"
      "cmpgi n, 5\njmp_lt fill\nstoregi n, 0\n"
      "again: incg n, 1\n"
      "pushg n\npushi 4\nmod\npushi 1\nadd\npopg i\n"
      "pushg a\npushg i\nelem\npopg kept\n"
      "pushg a\npushi 5\nelem\npushg a\npushg i\nelem\nstore\n"
      "pushg kept\npushg a\npushi 5\nelem\nstore\n"
      "pushg n\npushg kept\npushc \"x\"\nmemb\nstore\n"
      "pushg n\npushg a\npushi 2\nelem\npushc \"x\"\nmemb\nstore\n"
      "pushg kept\npushg kept\npushc \"in\"\nmemb\nstore\n"
      "pushg kept\npushc \"in\"\nmemb\npopg kept\n"
      "pushg a\npushi 3\nelem\npushg a\npushi 3\nelem\nstore\n"
      "pushg a\nout\npushg kept\nout\ncmpgi n, " +
      std::to_string(kRounds) + "\njmp_lt again\nexit\n");
}

// A call between the read of an element and its use may store to that element.
TEST(HotCode, AnElementIsReadWhenItIsUsed) {
  ExpectTheSameHotAndCold(
      "storegi n, 0\nagain: incg n, 1\npushi 1\npushg a\npushi 1\nelem\nstore\n"
      "pushg a\npushi 1\nelem_readonly\ncall change\nadd\nout\ncmpgi n, " +
      std::to_string(kRounds) +
      "\njmp_lt again\nexit\n.function change()\npushi 100\npushg a\npushi 1\nelem\nstore\n"
      "pushi 1000\nret\n");
}

// Each call refers to the parameter of the one before, so that the chain is as long as the calls
// are deep.
TEST(HotCode, ReferencesOfReferencesTakeTimeByTheNumberOfCalls) {
  ExpectNearLinear(
      2000,
      [](int depth) {
        auto machine = std::make_unique<Machine>();
        machine->Assemble(
            "storegi n, 0\nstoregi sum, 0\nagain: incg n, 1\npushg sum\npushi " +
            std::to_string(depth) +
            "\ncall down\npop\ncmpgi n, 5\njmp_lt again\npushg sum\nout\nexit\n"
            ".function down(total var, depth)\npushl total\npushi 1\nadd\npopl total\n"
            "pushl depth\npushi 1\nle\njmp_ne end\npushl total\npushl depth\npushi 1\nsub\n"
            "call down\npop\nend: pushl total\nret\n");
        return machine;
      },
      [](std::unique_ptr<Machine>* machine) { EXPECT_EQ((*machine)->Go(), 1); });
}

// Idioms require the room that their instructions would require, on a stack that grows once and has
// a limit.
TEST(HotCode, AnyDepthOfTheStackDoesTheSameHotAndCold) {
  for (int depth = 0; depth <= 514; depth += depth == 20 ? 485 : 1) {
    SCOPED_TRACE(depth);
    std::string program = "storegi n, 0\nagain: incg n, 1\n";
    for (int i = 0; i < depth; i++) program += "pushi 1\n";
    program +=
        "pushg n\npushi 2\nadd\npopg sum\npushg n\npushg n\nmul\npopg square\n"
        "pushg s\npushc \"m\"\nmemb\ndup\npushi 1\nadd\nswap\nstore\n"
        "pushg a\npushg n\nelem\ndup\npushg n\nadd\nswap\nstore\n"
        "pushg n\npushi 2\nmul\ncall less\npopg odd\ncall seven\npopg seven\n";
    for (int i = 0; i < depth; i++) program += "pop\n";
    program +=
        "cmpgi n, " + std::to_string(kRounds) +
        "\njmp_lt again\npushg s\nout\npushg a\nout\nexit\n"
        ".function less(x)\npushl x\npushi 1\nsub\nret\n.end\n.function seven()\npushi 7\nret\n";
    Machine hot, cold;
    hot.Assemble(program);
    cold.Assemble(program);
    KeepCold(&cold);
    EXPECT_EQ(hot.Go(), cold.Go());
    EXPECT_EQ(hot.Output(), cold.Output());
    EXPECT_EQ(hot.Error(), cold.Error());
    for (const char* name : {"n", "sum", "square", "odd", "seven"})
      EXPECT_EQ(hot.Value(name), cold.Value(name));
  }
}

TEST(HotCode, RoundedValuesAreWrittenAsRoundsMakesThem) {
  const char* const values[] = {"0",    "0.0006", "0.5",   "1",        "-1",        "1.005",
                                "2.5",  "2.345",  "-9.99", "9.995",    "99.999",    "123456.789",
                                "1e10", "1e14",   "1e15",  "-4.5e15",  "1e300",     "inf",
                                "-inf", "nan",    "-0.0",  "1.999999", "7.0000001", "-1234.5678"};
  for (const char* value : values) {
    for (int decimals = -1; decimals <= 21; decimals++) {
      SCOPED_TRACE(testing::Message() << value << " to " << decimals);
      ExpectTheSameHotAndCold("storegi n, 0\nagain: incg n, 1\npushf " + std::string(value) +
                              "\npushi " + std::to_string(decimals) +
                              "\nrounds\nout\npushc \" \"\nout\ncmpgi n, " +
                              std::to_string(kRounds) + "\njmp_lt again\nexit\n");
    }
  }
}

// By the instructions one by one, and by what is kept of them in decoded code, of a variable and of
// a value on the stack.
TEST(HotCode, RandomValuesAreWrittenAsRoundsMakesThem) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(testing::Message() << "seed " << seed);
  std::mt19937_64 random(seed);
  for (int batch = 0; batch < 40; batch++) {
    std::string values, reads;
    for (int i = 0; i < 40; i++) {
      const int decimals = static_cast<int>(random() % 11);
      const int exponent = static_cast<int>(random() % 24) - 6;
      double value = std::ldexp(static_cast<double>(random() >> 11), exponent - 50);
      // Few decimals, so that there are halves and values that need no rounding.
      if (random() % 2) value = static_cast<double>(random() % 4000) / (random() % 2 ? 8 : 1000);
      if (random() % 4 == 0) value = -value;
      char text[64];
      snprintf(text, sizeof text, "%.17g", value);
      const std::string name = "v" + std::to_string(i);
      values += "pushf " + std::string(text) + "\npopg " + name + "\n";
      for (const std::string& push : {"pushg " + name, "pushf " + std::string(text)}) {
        reads += push + "\npushi " + std::to_string(decimals) + "\nrounds\nout\npushc \" \"\nout\n";
      }
    }
    const std::string program = values + "storegi n, 0\nagain: incg n, 1\n" + reads + "cmpgi n, " +
                                std::to_string(kRounds) + "\njmp_lt again\nexit\n";
    ExpectTheSameHotAndCold(program);
    const std::string cold = OutcomeOf(program, Pace::Cold).values;
    for (const Pace pace : kQuickPaces) ASSERT_EQ(OutcomeOf(program, pace).values, cold) << pace;
  }
}

TEST(HotCode, AKeptFrameHasTheOutputModeOfItsFunction) {
  const std::string program =
      "storegi n, 0\nagain: incg n, 1\npushg n\ncall f\npop\npushc \"a  b\"\nout_comp\n"
      "cmpgi n, " +
      std::to_string(kRounds) +
      "\njmp_lt again\nexit\n.function f(x)\npushc \"<   >\"\nout_comp\nstdoutput 2\n"
      "pushl x\nret\n";
  ExpectTheSameHotAndCold(program);
}

// A sum that is the argument of a call goes straight into the function's variable if there is only
// one parameter, by value.
TEST(HotCode, ASumIsTheArgumentOfAnyFunction) {
  const char* const kFunctions[] = {
      ".function f(x)\npushl x\nret\n",
      ".function f(x)\npushl x\npushl x\nmul\nret\n",
      ".function f(x)\npushc \"<\"\npushl x\ncat\nret\n",
      ".function f(x)\npushc \"text\"\npopl x\npushl x\nret\n",
      ".function f(x)\npushc \"a\"\npushl x\npushc \"m\"\nmemb\nstore\npushl x\nret\n",
      (".function f(x)\npushi 2\npushl x\nlt\njmp_eq no\npushl x\npushi 1\nsub\ncall f\nret\n"
       "no: pushl x\nret\n"),
      ".function f(x var)\npushi 7\npopl x\npushi 3\nret\n",
      ".function f()\npushi 4\nret\n",
  };
  for (const char* function : kFunctions) {
    SCOPED_TRACE(function);
    const std::string program =
        "storegi n, 0\nagain: pushc \"x\"\npushg n\npushi 3\nadd\ncall f\nout\n"
        "pushg n\npushf 0.5\nmul\ncall f\nout\nout\nincg n, 1\ncmpgi n, " +
        std::to_string(kRounds) + "\njmp_lt again\nexit\n";
    Machine hot, cold;
    hot.Assemble(program + function);
    cold.Assemble(program + function);
    KeepCold(&cold);
    EXPECT_EQ(hot.Go(), cold.Go());
    EXPECT_EQ(hot.Output(), cold.Output());
    EXPECT_EQ(hot.Error(), cold.Error());
  }
}

TEST(HotCode, ASumBelowTwoParametersIsTheLast) {
  const std::string program =
      "storegi n, 0\nagain: pushc \"a\"\npushg n\npushi 3\nsub\ncall f\nout\nincg n, 1\ncmpgi n, " +
      std::to_string(kRounds) + "\njmp_lt again\nexit\n" +
      ".function f(x, y)\npushl x\npushl y\ncat\nret\n";
  ExpectTheSameHotAndCold(program);
}

// A frame's features end with its return, even if frames of the function have returned often
// before; its callers' features stay.
TEST(HotCode, AReturnEndsTheFeaturesOfItsFunction) {
  ExpectTheSameHotAndCold(
      "storegi n, 0\npushg all\ncapture\nagain: incg n, 1\n"
      "pushg n\npushi 1\nadd\ncall plain\nout\npushg n\ncall caught\nout\n"
      "pushg n\npushi 3\nmul\ncall plain\nout\ncmpgi n, " +
      std::to_string(2 * kRounds) +
      "\njmp_lt again\ncapture_end\npushg all\nout\npushg text\nout\nexit\n"
      ".function plain(x)\npushl x\npushi 2\nmul\nret\n.end\n"
      ".function caught(x)\npushl x\npushi 9\nmod\njmp_ne no\npushg text\ncapture\npushl x\nout\n"
      "no: pushl x\npushl x\nadd\nret\n");
}

// Calls of one function with arguments of all kinds alternate, so that both loops enter its frames.
TEST(HotCode, AFrameServesCallsOfEitherLoop) {
  ExpectTheSameHotAndCold(
      "storegi n, 0\nagain: incg n, 1\npushg n\npushg n\ncall pair\nout\n"
      "pushg n\npushc \"b\"\ncall pair\nout\npushc \"a\"\npushg n\ncall pair\nout\n"
      "pushf 0.5\npushi 3\ncall pair\nout\npushg n\npushi 1\nadd\ncall one\nout\n"
      "pushc \"c\"\ncall one\nout\npushg n\npushi 2\nmul\ncall one\nout\ncmpgi n, " +
      std::to_string(kRounds) +
      "\njmp_lt again\nexit\n"
      ".function pair(x, y)\n.local t\npushl x\npushl y\ncat\npopl t\npushl t\nret\n.end\n"
      ".function one(x)\n.local t\npushl t\nout\npushl x\npopl t\npushl x\npushl t\nadd\nret\n");
}

TEST(HotCode, ACallOfNoFunctionTellsItsOwnPlace) {
  for (int index : {-1, 1, 1 << 30}) {
    SCOPED_TRACE(index);
    Machine hot, cold;
    for (Machine* machine : {&hot, &cold}) {
      Loop(machine, kRounds, [] {});
      machine->Op(pushi, 1).Op(call, index);
    }
    KeepCold(&cold);
    EXPECT_EQ(hot.Go(), 0);
    EXPECT_EQ(cold.Go(), 0);
    EXPECT_NE(hot.Error().find("Invalid function call"), std::string::npos);
    EXPECT_EQ(hot.Error(), cold.Error());
  }
}

// --- Numbers of which there are two forms --------------------------------------------------------

// Reads a value in each way that converts it to an integer, and writes the results.
std::string ReadAsIntegers(const std::string& push) {
  static const char* const kReads[] = {
      "pushi 1000\nmod\n",   "pushg thousand\nmod\n",
      "pushi 255\nbitand\n", "pushi 255\nbitor\n",
      "pushi 255\nbitxor\n", "bitoc\n",
      "pushi 3\nbitsl\n",    "pushi 3\nbitsr\n",
      "pushi 0\nadd\n",      "pushi 0\nadd\npushi 1000\nmod\n",
      "pushi 7\neq\n",
  };
  std::string code;
  for (const char* read : kReads) code += push + read + "out\npushc \" \"\nout\n";
  // As the right operand, as a position, and as a count of decimals.
  code += "pushi 123456\n" + push + "mod\nout\npushc \" \"\nout\n";
  code += "pushg row\n" + push + "pushi 5\nbitand\npushi 1\nadd\nelem_readonly\nout\n";
  code += "pushf 2.125\n" + push + "pushi 7\nbitand\nrounds\nout\n";
  return code;
}

const char* const kValues[] = {"pushc \"99999999999\"\n",
                               "pushc \"1e11\"\n",
                               "pushc \"3.9\"\n",
                               "pushc \"0x10\"\n",
                               "pushc \"1e3\"\n",
                               "pushc \"12ab\"\n",
                               "pushf 1e11\n",
                               "pushf -3.9\n",
                               "pushi -7\n",
                               "pushc \"\"\n",
                               "pushf nan\n"};

const struct {
  const char* label;
  const char* reads;  // of the variable on top; results are dropped
} kReadsBefore[] = {
    {"nothing", "pop\n"},
    {"integer", "pushi 1\nmod\npop\n"},
    {"double", "pushi 1\nadd\npop\n"},
    {"integer, double", "dup\npushi 1\nmod\npop\npushi 1\nadd\npop\n"},
    {"double, integer", "dup\npushi 1\nadd\npop\npushi 1\nmod\npop\n"},
    {"text", "pushc \"\"\ncat\npop\n"},
    {"comparison", "pushi 1\neq\npop\n"},
};

// The reads get the value directly, from a local variable of a function, as an argument, and from
// an element.
TEST(HotCode, AnIntegerIsTheSameHotAndColdWhateverWasReadBefore) {
  for (const char* value : kValues) {
    for (const auto& b : kReadsBefore) {
      SCOPED_TRACE(testing::Message() << value << " after " << b.label);
      const std::string prepare = value + std::string("popg v\npushg v\n") + b.reads;
      std::string program =
          "storegi thousand, 1000\npushi 9\npushg row\npushi 1\nelem\nstore\n"
          "pushi 8\npushg row\npushi 5\nelem\nstore\nstoregi n, 0\nstoregi one, 1\n"
          "again: incg n, 1\n" +
          prepare;
      program += ReadAsIntegers("pushg v\n");
      program += prepare + ReadAsIntegers("pushi 0\ncall local\n");
      program += prepare + ReadAsIntegers("pushg v\ncall echo\n");
      program += prepare + ReadAsIntegers("pushg v\ncall same\n");
      program += prepare + "pushg v\npushg a\npushg one\nelem\nstore\n";
      program += ReadAsIntegers("pushg a\npushg one\nelem_readonly\n");
      program += prepare + "pushg v\npushg s\npushc \"m\"\nmemb\nstore\n";
      program += ReadAsIntegers("pushg s\npushc \"m\"\nmemb_readonly\n");
      program += prepare + "modgg v, thousand\nout\n";
      program += prepare + "incg v, 1\npushg v\nout\n";
      program += prepare + "cmpgi v, 191\nout\n";
      program += "cmpgi n, " + std::to_string(kRounds) + "\njmp_lt again\nexit\n";
      program += ".function local(x)\n.local t\n" + std::string(value) + "popl t\npushl t\n" +
                 std::string(b.reads) + "pushl t\nret\n.end\n";
      program += ".function echo(x)\npushl x\nret\n.end\n";
      program += ".function same(x var)\npushl x\nret\n.end\n";
      ExpectTheSameHotAndCold(program);
    }
  }
}

// A position may be invalid, which ends the program with the same message, even if the loop is
// decoded by then.
TEST(HotCode, APositionIsTheSameHotAndColdWhateverWasReadBefore) {
  for (const char* value : kValues) {
    for (const auto& b : kReadsBefore) {
      for (const char* element :
           {"elem", "elem_readonly", "elem\ndup\npushi 1\nadd\nswap\nstore\npushi 1"}) {
        SCOPED_TRACE(testing::Message() << value << " after " << b.label << ": " << element);
        const std::string program =
            "again: incg n, 1\nstoregi v, 2\ncmpgi n, " + std::to_string(kRounds) +
            "\njmp_lt use\n" + value + "popg v\npushg v\n" + b.reads +
            "use: pushg n\npushg row\npushg v\n" + element + "\nout\npop\n" +
            "pushg n\npushg row\npushg v\nelem\nstore\n" + "cmpgi n, " +
            std::to_string(kRounds + 3) + "\njmp_lt again\npushg row\nout\n";
        Machine hot, cold;
        hot.Assemble(program);
        cold.Assemble(program);
        KeepCold(&cold);
        EXPECT_EQ(hot.Go(), cold.Go());
        EXPECT_EQ(hot.Output(), cold.Output());
        EXPECT_EQ(hot.Error(), cold.Error());
        EXPECT_NE(hot.segments.Start()->hot(), nullptr);
      }
    }
  }
}

// --- Long work -----------------------------------------------------------------------------------

// An element that sets the time-out flag at its last read, which a copy of its array makes.
class Raises : public ImmutableVariable {
 public:
  Raises(Machine* m, int last_read) : machine(m), reads(last_read) {}
  int type() override { return VariableComputedText; }
  String& value() override {
    if (--reads == 0) std::atomic_ref<int>(*machine->application.timedoutflag()).store(1);
    return ImmutableVariable::value();
  }

 private:
  Machine* machine;
  int reads;
};

TEST(HotCode, WorkThatMayBeLongIsTheLastBeforeATimeOut) {
  const char* const works[] = {
      "pushg a\npopg b\n",
      "pushg a\npushg b\nstore\n",
      "pushg a\npushg b\npushi 1\nelem\nstore\n",
      "pushg a\npushc \"x\"\ncat\npop\n",
      "pushg a\ncall f\npop\n",
      "pushg a\nout\n",
  };
  for (const char* work : works) {
    for (int last : {2, 20, 21, 50, 51, 52, 70}) {
      SCOPED_TRACE(testing::Message() << work << last);
      Machine machine;
      machine.Assemble("again: incg n, 1\n" + std::string(work) +
                       "incg done, 1\ncmpgi n, 100\njmp_lt again\nexit\n"
                       ".function f(x)\nretn\n");
      auto* element = new Raises(&machine, last);
      Variable* array = machine.global.Index(machine.global.Seek(-1, "a", -1, nullptr), 1);
      array->SetElement(AggregateIndex(1), element);
      element->DecRefCount();
      EXPECT_EQ(machine.Go(), 0);
      EXPECT_EQ(machine.Value("n"), std::to_string(last));
      EXPECT_EQ(machine.Value("done"), std::to_string(last - 1));
    }
  }
}

// --- The log -------------------------------------------------------------------------------------

// Runs a loop that sets its lines and calls a function. Returns the records of a level, and whether
// the run was in hot code at its end.
std::vector<std::string> LogOfLoop(unsigned level, bool hot) {
  Machine machine;
  machine.application.config()->SetValue_Integer(Config_log_level, static_cast<int>(level));
  machine.Assemble(
      "storegi n, 0\nagain: lineno 5\npushg n\ncall twice\npopg sum\nlineno 6\nincg n, 1\n"
      "cmpgi n, " +
      std::to_string(kRounds) +
      "\njmp_lt again\npop\nexit\n"
      ".function twice(x)\nlineno 20\npushl x\npushi 2\nmul\nret\n");
  if (!hot) KeepCold(&machine);
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.segments.Start()->hot() != nullptr, hot);
  EXPECT_EQ(machine.Value("sum"), std::to_string(2 * (kRounds - 1)));
  return machine.application.log;
}

TEST(HotCode, LeavesOutNoRecordOfTheLog) {
  const struct {
    const char* label;
    unsigned level;
    size_t records;
  } cases[] = {
      {"none", 0, 0},
      {"errors", Log_FatalError | Log_RuntimeError | Log_TimedOut, 1},
      {"lines", Log_Trace, 3 * kRounds},
      {"calls", Log_FunctionCall, kRounds},
      {"parameters", Log_FunctionParameter, kRounds},
      {"values", Log_FunctionReturnValue, kRounds},
      {"returns", Log_FunctionReturn, kRounds},
      {"libraries", Log_ExternalFunctionCall, 0},
      {"all", ~0u, 7 * kRounds + 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    const std::vector<std::string> cold = LogOfLoop(c.level, false);
    EXPECT_EQ(cold.size(), c.records);
    EXPECT_EQ(LogOfLoop(c.level, true), cold);
  }
}

}  // namespace
