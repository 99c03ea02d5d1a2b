// Runs one program in the plain loop, in decoded code and in machine code, which must do the same.

#ifndef ZEPH_TESTS_SUPPORT_HOTANDCOLD_H
#define ZEPH_TESTS_SUPPORT_HOTANDCOLD_H

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>

#include "base/compiled/HotCode.h"
#include "base/compiled/Segment.h"
#include "base/core/ThreadMemory.h"
#include "tests/support/Machine.h"
#include "tests/support/NativeAtOnce.h"

// Code is decoded after so many rounds of a loop, and not many later.
inline constexpr int kRoundsUntilHot = 3 * Segment::Repeats;

// A segment of more bytes is never decoded. The added ones are a million instructions that do
// nothing, so code that has no end of its own gets one.
inline void KeepCold(Machine* machine) {
  for (int i = 0; Segment* const segment = machine->segments.Lookup(i); i++) {
    segment->Write_Word(segment->length(), Instruction::exit);
    segment->Write_Byte(Segment::LongestHot, 0);
  }
}

// Decodes all code before it runs for the first time.
inline void DecodeAtOnce(Machine* machine) {
  for (int i = 0; Segment* const segment = machine->segments.Lookup(i); i++) {
    const int most = Segment::Repeats + segment->length() / Segment::BytesARepeat;
    for (int k = 0; k <= most && !segment->hot(); k++) {
      segment->NoteRepeat(machine->dictionary, &machine->functions);
    }
  }
}

// How a program is run: by the plain loop, which is what the others are compared with, in decoded
// code, or in machine code as soon as it is decoded.
enum class Pace { Cold, Decoded, Native };
inline constexpr Pace kPaces[] = {Pace::Cold, Pace::Decoded, Pace::Native};
inline constexpr Pace kQuickPaces[] = {Pace::Decoded, Pace::Native};

inline std::ostream& operator<<(std::ostream& out, Pace pace) {
  static const char* const names[] = {"cold", "decoded", "machine code"};
  return out << names[static_cast<int>(pace)];
}

// Makes the machine, whose code is complete, run so as long as this exists.
class RunsAt {
 public:
  RunsAt(Pace pace, Machine* machine) {
    if (pace == Pace::Cold) KeepCold(machine);
    if (pace == Pace::Decoded) never.emplace();
    if (pace == Pace::Native) at_once.emplace();
  }

 private:
  std::optional<NativeNever> never;
  std::optional<NativeAtOnce> at_once;
};

// Runs a machine that may use 64 MB: random programs may double a value again and again. Where that
// ends depends on copies, of which decoded code makes fewer, so *ran_short tells whether it did.
// There may be no memory left for the error's text then.
inline int GoWithin64Megabytes(Machine* machine, bool* ran_short) {
  constexpr int64_t kMost = 64 << 20;
  ThreadMemory::Begin();
  ThreadMemory::SetLimit(kMost);
  const int result = machine->Go();
  const int64_t peak = ThreadMemory::Peak();
  ThreadMemory::End();
  const std::string error = machine->Error();
  *ran_short = error.find("Out of memory") != std::string::npos ||
               (result == 0 && error.empty() && peak > kMost - (1 << 20));
  return result;
}

// The start segment has the code that this way of running makes.
inline void ExpectCodeOf(Pace pace, Machine* machine) {
  const HotCode* const hot = machine->segments.Start()->hot();
  EXPECT_EQ(hot != nullptr, pace != Pace::Cold) << pace;
  if (hot) {
    EXPECT_EQ(hot->native() != nullptr, pace == Pace::Native && kHasNative) << pace;
  }
}

// A program writes the same and ends with the same error at the same place, with the same entries
// on the stack. Returns what it writes.
inline std::string ExpectTheSameEndHotAndCold(const std::string& program) {
  std::string output, error, stack;
  int result = 0;
  for (const Pace pace : kPaces) {
    SCOPED_TRACE(pace);
    Machine machine;
    machine.Assemble(program);
    const RunsAt runs(pace, &machine);
    const int ended = machine.Go();
    ExpectCodeOf(pace, &machine);
    const std::string left = machine.StackText();
    if (pace == Pace::Cold) {
      result = ended;
      output = machine.Output();
      error = machine.Error();
      stack = left;
    }
    EXPECT_EQ(ended, result);
    EXPECT_EQ(machine.Output(), output);
    EXPECT_EQ(machine.Error(), error);
    EXPECT_EQ(left, stack);
  }
  return output;
}

// The same of a program without an error.
inline std::string ExpectTheSameHotAndCold(const std::string& program) {
  std::string output;
  for (const Pace pace : kPaces) {
    SCOPED_TRACE(pace);
    Machine machine;
    machine.Assemble(program);
    const RunsAt runs(pace, &machine);
    EXPECT_EQ(machine.Go(), 1) << machine.Error();
    ExpectCodeOf(pace, &machine);
    if (pace == Pace::Cold) output = machine.Output();
    EXPECT_EQ(machine.Output(), output);
  }
  return output;
}

#endif
