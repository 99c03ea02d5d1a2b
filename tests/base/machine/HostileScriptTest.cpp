// Scripts that no compiler would write. Whatever they do, they end and leave nothing allocated.

#include <gtest/gtest.h>

#include <new>

#include "base/host/Config.h"
#include "base/values/Aggregate.h"
#include "tests/support/Machine.h"

namespace {

using namespace Instruction;

// Runs the machine and ends the request. Returns what Go returned.
int RunToTheEnd(Machine* machine) {
  int result = machine->Go();
  machine->Close();
  machine->global.Dump();
  Variable::FreeCycles();
  EXPECT_EQ(machine->application.output(), &machine->output);
  return result;
}

int RunToTheEnd(const std::string& source) {
  Machine machine;
  machine.Assemble(source);
  return RunToTheEnd(&machine);
}

// --- Words and stacks ----------------------------------------------------------------------------

// Every instruction on stacks of all kinds, with operands that are valid and invalid.
TEST(HostileScript, AnyInstructionOnAnyStack) {
  const char* const stacks[] = {
      "",
      "pushi 1\n",
      "pushi -1\npushf nan\n",
      "pushc \"a\"\npushc \"\"\npushc \"x[1]\"\n",
      "pushg x\npushg x\npushg y\n",
      "pushg x\npushi 1\npushi 2\ncat\n",
      "pushi 1\npushi 2\ncat\ndup\n",
      "pushg x\ndup\ndup\n",
      "pushi 1\npushi 2\ncat\npushi 3\ncat\ndup\ndup\n",
      "pushs unknown\npushs unknown\npushs unknown\n",
      "pushi 5\npushg x\npushi 1\nelem\nstore\npushg x\npushg x\npushi 1\n",
  };
  for (const char* stack : stacks) {
    for (int i = 0; i < Instruction::RowCount; i++) {
      const Row& row = Instruction::Rows[i];
      SCOPED_TRACE(std::string(stack) + row.name);
      for (int operand : {0, 1, -1, 1 << 30}) {
        Machine machine;
        machine.Assemble(std::string(".global x, y\n") + stack + ".function f(a)\n");
        machine.Op(row.word);
        for (int b = 0; b < FirstOperandSize(row.word) + SecondOperandSize(row.word); b++) {
          machine.end = machine.segments.Start()->Write_Byte(
              machine.end, static_cast<unsigned char>(operand >> b % 4 * 8));
        }
        // A backward jump would never end.
        if (row.first == Operand::Distance && operand < 0) continue;
        machine.Op(out);
        RunToTheEnd(&machine);
      }
    }
  }
}

// A variable whose text is rebuilt at each read, in another buffer.
class FleetingVariable : public Variable {
 public:
  FleetingVariable() : Variable("fleeting", 8) {}
  int type() override { return VariableComputed; }
  int preferred_type() override { return PrimaryText; }
  double value_compare(int* not_numeric) override {
    *not_numeric = 1;
    return 0;
  }
  String& value() override {
    auto made = std::make_unique<String>("x");
    for (int i = 0; i < 40 + reads; i++) made->cat('x');
    reads++;
    text = std::move(made);
    return *text;
  }

 private:
  int reads = 0;
  std::unique_ptr<String> text;
};

TEST(HostileScript, AComputedVariableOnAllSides) {
  for (int i = 0; i < Instruction::RowCount; i++) {
    const Row& row = Instruction::Rows[i];
    SCOPED_TRACE(row.name);
    Machine machine;
    machine.Assemble(
        ".global x, y\npushs fleeting\npushs fleeting\npushs fleeting\npushs fleeting\n"
        ".function f(a)\n");
    machine.system.SetVariable(new FleetingVariable);
    machine.Op(row.word);
    for (int b = 0; b < FirstOperandSize(row.word) + SecondOperandSize(row.word); b++) {
      machine.end = machine.segments.Start()->Write_Byte(machine.end, 0);
    }
    machine.Op(out);
    RunToTheEnd(&machine);
  }
}

// Operands that are instructions when a jump leads to them.
TEST(HostileScript, JumpsIntoTheMiddleOfInstructions) {
  for (int distance = 0; distance < 40; distance++) {
    SCOPED_TRACE(distance);
    Machine machine;
    machine.Assemble(".global x");
    machine.Op(pushg, 0).Op(jmp, distance);
    machine.Op(pushi, out << 16 | Instruction::dup)
        .Op(pushi, Instruction::pop << 16 | cat)
        .OpDouble(pushf, 1e300);
    machine.Op(swapn, 1, add << 16 | Instruction::dup).Op(out).Op(pushi, 0x3A003A).Op(pop);
    RunToTheEnd(&machine);
  }
}

TEST(HostileScript, PrecisionsThatNoTextCanHave) {
  Machine machine;
  machine.Assemble("pushf 0.5\npushi 2147483647\nrounds");
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.Failure(), "Out of memory");
}

// --- Values --------------------------------------------------------------------------------------

// A chain of elements, each inside the previous one.
TEST(HostileScript, NestingAsDeepAsAScriptLikes) {
  for (const char* step : {"pushi 1\nelem\n", "pushc \"m\"\nmemb\n"}) {
    SCOPED_TRACE(step);
    EXPECT_EQ(RunToTheEnd(std::string("pushg root\npoprg cur\n"
                                      "again: pushg cur\n") +
                          step +
                          "poprg cur\nincg i, 1\ncmpgi i, 100000\njmp_lt again\n"
                          "pushi 5\npopg cur\npushg root\nout\npushg root\npopg copy\n"
                          "pushg copy\npushg root\neq\nout\npushc \"root\"\nhide\n"
                          "pushg copy\ncall f\npop\npushi 0\npopg root\n"
                          "exit\n.function f(a)\npushl a\nret"),
              1);
  }
}

TEST(HostileScript, CirclesOfReferences) {
  const char* const circles[] = {
      // An element that refers to its array, to another array that refers back, and to itself.
      "pushg a\npushg a\npushi 1\nelem\nrefer\n",
      "pushg a\npushg b\npushi 1\nelem\nrefer\npushg b\npushg a\npushi 1\nelem\nrefer\n",
      "pushg a\npushi 1\nelem\npushg a\npushi 1\nelem\nrefer\n",
      "pushg a\npushg a\npushc \"m\"\nmemb\nrefer\npushg a\npoprg b\npushg b\npoprg a\n",
      "pushg a\npoprnc \"a[1]\"\npushg a\npoprnc \"a[1][2]\"\npushg a\npoprnc \"b:c\"\n",
  };
  for (const char* circle : circles) {
    SCOPED_TRACE(circle);
    EXPECT_EQ(RunToTheEnd(std::string(circle) +
                          "pushi 7\npushg a\npushi 2\nelem\nstore\npushg a\nout\npushg a\npopg c\n"
                          "pushg c\nout\npushg a\npushg b\ncmp\nout\npushg a\npushg a\ncat\nout\n"
                          "pushc \"a,b,c\"\nhide\npushg b\npopg a\npushg a\npopg a\n"
                          "pushg a\ncall f\nout\npushg a\ncall g\nout\n"
                          "exit\n.function f(x)\npushl x\nret\n.function g(y var)\npushl y\nret"),
              1);
  }
}

TEST(HostileScript, ChainsOfReferences) {
  EXPECT_EQ(RunToTheEnd("pushi 7\npushg a\npushi 1\nelem\nstore\nstoregi i, 1\n"
                        "again: pushg a\npushg i\nelem\npushg a\npushg i\npushi 1\nadd\nelem\n"
                        "refer\nincg i, 1\ncmpgi i, 2000\njmp_lt again\n"
                        "pushg a\npushi 2000\nelem\nout\npushi 8\npushg a\npushi 2000\nelem\n"
                        "store\npushg a\npushi 1\nelem\nout\npushg a\npopg b\npushi 0\npopg a"),
            1);
}

// Elements are created and deleted while they are on the stack.
TEST(HostileScript, OperandsThatGoWhileTheyAreUsed) {
  const char* const codes[] = {
      "pushg a\npushi 1\nelem\npushi 0\npopg a\nout\n",
      "pushg a\npushi 1\nelem\npushg a\nstore\npushg a\nout\n",
      "pushg a\npushg a\npushi 1\nelem\nstore\npushg a\nout\n",
      "pushg a\npushi 1\nelem\ndup\npushi 0\npopg a\ncat\nout\n",
      "pushg a\npushi 1\nelem\npushi 0\npopg a\npushi 2\nelem\npushc \"m\"\nmemb\nout\n",
      "pushg a\npushi 1\nelem\ncapture\npushi 0\npopg a\npushi 5\nout\ncapture_end\n",
      "pushg a\npushi 1\nelem\npoprg a\npushg a\nout\n",
      "pushg a\npushi 1\nelem\ndup\nswap\nrefer\npushg a\nout\n",
      "pushg a\npushi 1\nelem\npushg a\nrefer\npushg a\nout\n",
      ("pushg a\npushi 1\nelem\ncall f\nout\nexit\n.function f(x var)\npushi 0\npopg a\npushl "
       "x\nret"),
  };
  for (const char* code : codes) {
    SCOPED_TRACE(code);
    EXPECT_EQ(RunToTheEnd(std::string("pushc \"value\"\npushg a\npushi 1\nelem\nstore\n") + code),
              1);
  }
}

TEST(HostileScript, NamesThatNobodyWouldGive) {
  const char* const names[] = {"",
                               ".",
                               "..",
                               "l.",
                               "g.",
                               "s.",
                               "d.",
                               "a.d.",
                               ":",
                               "[",
                               "]",
                               "[]",
                               "a[]",
                               "a:",
                               "a::b",
                               "a[1]:",
                               "a[1][",
                               "a[99999999999999999999]",
                               "a[4294967297]",
                               "local.",
                               "database.",
                               "x.database.",
                               "\\0",
                               "a\\0b",
                               "g.l.s.a",
                               "a[1]:b[2]:c",
                               " a ",
                               "a,b"};
  for (const char* name : names) {
    SCOPED_TRACE(name);
    std::string quoted = "\"" + std::string(name) + "\"";
    for (const std::string& code :
         {"pushnc " + quoted + "\nout", "pushi 1\npopnc " + quoted, "pushg v\npoprnc " + quoted,
          "pushc " + quoted + "\npushn\nout", "pushc " + quoted + "\nhide",
          "pushg v\npushc " + quoted + "\nmemb\nout"}) {
      RunToTheEnd(code);
    }
  }
}

// --- Features and frames -------------------------------------------------------------------------

// The upper capture stayed in front of the output and had the lower one, already deleted, as its
// parent.
TEST(HostileScript, CapturesLeftOpenByFunctions) {
  const char* const functions[] = {
      "pushg x\ncapture\npushg y\ncapture\nretn",
      "pushg x\ncapture\npushl y\ncapture\npushg s\nout\npushl y\nret",
      ("pushg x\ncapture\ncall g\npop\npushg x\ncapture\nretn\n.function g()\npushg x\ncapture\n"
       "pushg y\ncapture\nretn"),
      ("pushg x\ncapture\ncapture_end\npushg x\ncapture\npushg y\ncapture\ncapture_end\npushg z\n"
       "capture\nretn"),
  };
  const char* const mains[] = {
      "call f\npop\npop",
      "call f\npop\ncall f\npop\npushi 1\nout\npop",
      "pushg w\ncapture\ncall f\npop\ncapture_end\npop",
      "call f\npop\npushg w\ncapture\ncapture_end\ncapture_end",
      "pushg w\ncapture\ncall f\npop\npushg w\ncapture\ncall f\npop\ncapture_end\ncapture_end\npop",
  };
  for (const char* function : functions) {
    for (const char* main : mains) {
      SCOPED_TRACE(std::string(main) + "\n" + function);
      EXPECT_EQ(RunToTheEnd(std::string(main) + "\n.segment 1\n.function f()\n" + function), 0);
    }
  }
}

TEST(HostileScript, CapturesWithoutAnEnd) {
  EXPECT_EQ(RunToTheEnd("again: pushg x\ncapture\npushi 1\nout\nincg i, 1\ncmpgi i, 2000\n"
                        "jmp_lt again\npushi 2\nout"),
            1);
}

TEST(HostileScript, DeepCallsThatFailAtTheirEnd) {
  for (const char* end : {"pop", "exit", "pushnc \"x[a]\"", "jmp 1000"}) {
    SCOPED_TRACE(end);
    RunToTheEnd(std::string("pushi 300\npushg v\ncall f\n.segment 1\n.function f(n, v var)\n"
                            "pushl n\njmp_ne more\n") +
                end +
                "\nmore: pushl n\npushi 1\nsub\npushl v\npushl n\npushg x\ncall g\ncat\nret\n"
                ".function g(n, v var, x, y)\npushl n\npushl v\ncall f\nret");
  }
}

// The last argument is a variable with no other holder than the stack.
TEST(HostileScript, ParametersOutsideOfTheTable) {
  for (int log : {0, static_cast<int>(Log_FunctionParameter)}) {
    for (int by_reference : {0, 1}) {
      for (int index : {1, 99, -1, 1 << 30}) {
        SCOPED_TRACE(testing::Message() << log << " " << by_reference << " " << index);
        Machine machine;
        machine.application.config()->SetValue_Integer(Config_log_level, log);
        machine.Assemble(
            "pushg v\ncall g\ncall f\npop\n.segment 1\n.function f(a)\npushl a\nret\n"
            ".function g()\n.local x\npushi 5\npopl x\npushl x\nret");
        machine.functions.Lookup(0)->parameters().Insert(
            new FunctionParameter(0, "b", 1, by_reference, index), ListTail);
        EXPECT_EQ(machine.Go(), by_reference);
        if (!by_reference) {
          EXPECT_EQ(machine.Failure(), "Invalid parameter reference");
        }
        EXPECT_EQ(machine.application.log.size(), log && by_reference ? 2u : 0u);
      }
    }
  }
}

}  // namespace
