// What decoded code leaves in variables, on the stack and of the frames: forms that a read keeps,
// arguments that have something in common, and the ends of a stack and of a frame.

#include <gtest/gtest.h>

#include <string>

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

// A jump on the comparison of a text of more bytes than are compared without a look at the flags.
TEST(HotValues, ALongTextIsComparedWithAConstant) {
  ExpectTheSameHotAndCold("pushc \"" + std::string(5000, 'q') + "\"\npopg a\n" +
                          Loop("pushg a\npushc \"x\"\neq\njmp_eq no\npushc \"equal\"\nout\n"
                               "no: pushg a\npushc \"x\"\nne\njmp_ne on\npushc \"equal\"\nout\n"
                               "on: noop\n"));
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
