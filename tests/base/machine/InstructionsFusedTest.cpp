// Fused instructions on global variables. Each does the same as the instructions that it replaces.

#include <gtest/gtest.h>

#include "tests/support/Machine.h"

namespace {

// Program text that leaves the top of the stack in the global x, or makes x an array.
const char* const values[] = {
    "pushi 5\npopg x\n",
    "pushi -2147483648\npopg x\n",
    "pushi 2147483647\npopg x\n",
    "pushf 5\npopg x\n",
    "pushf 5.5\npopg x\n",
    "pushf 3e9\npopg x\n",
    "pushf nan\npopg x\n",
    "pushf -inf\npopg x\n",
    "pushc \"5\"\npopg x\n",
    "pushc \"5.0\"\npopg x\n",
    "pushc \"abc\"\npopg x\n",
    "pushc \"\"\npopg x\n",
    "pushc \"1e1\"\npopg x\n",
    "pushc \"0x10\"\npopg x\n",
    "",
    "pushi 5\npushg x\npushi 1\nelem\nstore\n",
    "pushg x\npushc \"m\"\nmemb\npop\n",
    "pushi 5\npopg r\npushg r\npoprg x\n",
};
const int numbers[] = {0, 1, -1, 5, 10, 2147483647, -2147483647 - 1};

// Runs a script and returns what it leaves on the stack and in x.
std::string Outcome(const std::string& code) {
  Machine machine;
  machine.Assemble(code);
  EXPECT_EQ(machine.Go(), 1) << machine.Error();
  return machine.StackText() + " x=" + machine.Value("x");
}

std::string AsY(std::string code) {
  for (size_t at = 0; (at = code.find("g x", at)) != std::string::npos;) code[at + 2] = 'y';
  return code;
}

TEST(InstructionsFused, CmpggIsCmpOfTheTwo) {
  for (const char* left : values) {
    for (const char* right : values) {
      SCOPED_TRACE(testing::Message() << left << AsY(right));
      std::string setup = std::string(left) + AsY(right);
      EXPECT_EQ(Outcome(setup + "cmpgg x, y"), Outcome(setup + "pushg x\npushg y\ncmp"));
    }
  }
}

TEST(InstructionsFused, CmpgiIsCmpWithTheConstant) {
  for (const char* value : values) {
    for (int number : numbers) {
      SCOPED_TRACE(testing::Message() << value << number);
      std::string n = std::to_string(number);
      EXPECT_EQ(Outcome(value + ("cmpgi x, " + n)),
                Outcome(value + ("pushg x\npushi " + n + "\ncmp")));
    }
  }
  ExpectStacks({
      {"pushi 4\npopg x\ncmpgi x, 5", "-1"},
      {"pushc \"abc\"\npopg x\ncmpgi x, 5", "44"},
      {"cmpgi x, 0", "0"},
  });
}

TEST(InstructionsFused, IncgAddsToTheInteger) {
  const struct {
    const char* value;
    int add;
    const char* sum;
  } cases[] = {
      {"pushi 5", 1, "6"},
      {"pushi 5", -7, "-2"},
      {"pushf 5.9", 1, "6"},
      {"pushc \"12\"", 3, "15"},
      {"pushc \"12.9\"", 3, "15"},
      {"pushc \"abc\"", 3, "3"},
      // Integers wrap.
      {"pushi 2147483647", 1, "-2147483648"},
      {"pushi -2147483648", -1, "2147483647"},
      {"pushf 3e9", 0, "-2147483648"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.value << " + " << c.add);
    Machine machine;
    machine.Assemble(c.value + ("\npopg x\nincg x, " + std::to_string(c.add)));
    EXPECT_EQ(machine.Go(), 1);
    EXPECT_EQ(machine.Value("x"), c.sum);
    EXPECT_EQ(machine.GlobalVariable("x")->primary_type(), PrimaryInteger);
    EXPECT_EQ(machine.StackText(), "");
  }
}

TEST(InstructionsFused, ModggIsTheRemainder) {
  ExpectStacks({
      {"pushi 7\npopg x\npushi 3\npopg y\nmodgg x, y", "1"},
      {"pushi -7\npopg x\npushi 3\npopg y\nmodgg x, y", "-1"},
      {"pushi 7\npopg x\npushi -3\npopg y\nmodgg x, y", "1"},
      {"pushf 7.9\npopg x\npushc \"4\"\npopg y\nmodgg x, y", "3"},
      {"pushi -2147483648\npopg x\npushi -1\npopg y\nmodgg x, y", "0"},
      {"pushi 5\npopg x\npushi -1\npopg y\nmodgg x, y", "0"},
      {"pushi 5\npopg x\nmodgg x, x", "0"},
  });
}

// Only the script fails; the process does not trap.
TEST(InstructionsFused, ModggByZeroIsFatal) {
  ExpectFailures({
      {"pushi 7\npopg x\npushi 0\npopg y\nmodgg x, y", "Illegal Instruction"},
      {"pushi 7\npopg x\nmodgg x, y", "Illegal Instruction"},
      {"pushi 7\npopg x\npushc \"abc\"\npopg y\nmodgg x, y", "Illegal Instruction"},
  });
}

TEST(InstructionsFused, StoregiStoresAnInteger) {
  for (const char* value : values) {
    SCOPED_TRACE(value);
    Machine machine;
    machine.Assemble(std::string(value) + "storegi x, -42");
    EXPECT_EQ(machine.Go(), 1);
    EXPECT_EQ(machine.Value("x"), "-42");
    EXPECT_EQ(machine.GlobalVariable("x")->primary_type(), PrimaryInteger);
    EXPECT_EQ(machine.GlobalVariable("x")->aggregatetype(), AggregateNone);
  }
}

TEST(InstructionsFused, SlotsNotYetInUseAreMade) {
  for (const char* code : {"cmpgg x, y", "cmpgi x, 1", "incg x, 1", "storegi x, 1"}) {
    SCOPED_TRACE(code);
    Machine machine;
    machine.Assemble(code);
    EXPECT_EQ(machine.Go(), 1);
    EXPECT_NE(machine.GlobalVariable("x"), nullptr);
  }
}

TEST(InstructionsFused, ReferencesAreFollowed) {
  ExpectStacks({
      {"pushi 5\npopg v\npushg v\npoprg x\nincg x, 2\npushg v", "(7)"},
      {"pushi 5\npopg v\npushg v\npoprg x\nstoregi x, 2\npushg v", "(2)"},
      {"pushi 5\npopg v\npushg v\npoprg x\ncmpgg x, v", "0"},
  });
}

TEST(InstructionsFused, PositionsOutsideTheTableAreFatal) {
  for (const char* code : {"cmpgg 99, 0", "cmpgg 0, 99", "cmpgi 99, 1", "incg -1, 1", "modgg 99, 0",
                           "modgg 0, 99", "storegi 99, 1"}) {
    SCOPED_TRACE(code);
    Machine machine;
    machine.Assemble(std::string(".global x\nstoregi x, 3\n") + code);
    EXPECT_EQ(machine.Go(), 0);
    EXPECT_EQ(machine.Failure(), "Invalid variable reference");
    EXPECT_EQ(machine.Value("x"), "3");
  }
}

}  // namespace
