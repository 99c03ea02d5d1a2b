// The assertions on instructions find what is wrong. Builds without assertions have none of them.

#include "base/machine/InstructionCheck.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/Machine.h"
#include "tests/support/NativeAtOnce.h"

namespace {

#ifndef NDEBUG

// Leaves an entry on the stack that the instruction does not leave, the nth time that it is
// written to.
class CarelessOutput : public RecordingOutput {
 public:
  using RecordingOutput::Write;
  CarelessOutput(Machine* machine, int nth) : machine(machine), left(nth) {}
  int Write(const char* bytes, int length) override {
    if (--left == 0) machine->stack().PushI(1);
    return RecordingOutput::Write(bytes, length);
  }

 private:
  Machine* machine;
  int left;
};

void WriteTwentyTimes(int wrong) {
  Machine machine;
  CarelessOutput output(&machine, wrong);
  machine.application.SetOutput(&output);
  machine.Assemble(".global i\nagain: pushi 1\nout\nincg i, 1\ncmpgi i, 20\njmp_lt again\n");
  machine.Go();
}

TEST(InstructionCheck, AnInstructionThatLeavesTooMuchEndsTheProcess) {
  WriteTwentyTimes(0);
  EXPECT_DEATH(WriteTwentyTimes(1), "most_put");
}

// Machine code has no checks of its own.
TEST(InstructionCheck, DecodedCodeIsCheckedToo) {
  const NativeNever decoded;
  EXPECT_DEATH(WriteTwentyTimes(20), "InstructionCheck::Agree");
}

// The message of a bad index, and the script goes on without the array that was missing.
TEST(InstructionCheck, ABadIndexIsReportedBeforeTheArrayIsMissed) {
  Machine machine;
  machine.Assemble("tagerror 62, 0\npushi 0\nelem\npushc \"on\"\nout\n");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Value("ZpEXPRESSION_Error"), "Array index must be positive integer");
  EXPECT_EQ(machine.Output(), "on");
}

#endif

}  // namespace
