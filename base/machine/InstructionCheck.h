// Assertions on what instructions do, for builds that have assertions; others compile none of this.
// An instruction that has not failed has changed the stack as its row of the list says
// (base/compiled/Instructions.def), and has left frame and stack as the machine needs them.

#ifndef ZEPH_BASE_INSTRUCTIONCHECK_H
#define ZEPH_BASE_INSTRUCTIONCHECK_H

#ifndef NDEBUG

#include "base/compiled/Instructions.h"
#include "base/machine/ZephVM.h"

// Made before an instruction; its end is the check. Nothing is checked after an error, because a
// handler that fails leaves the stack as it is, nor after work that the time limit has cut short.
class ZephVM::InstructionCheck {
 public:
  // operand is the instruction's first; that of a call tells how many arguments it takes.
  InstructionCheck(ZephVM* machine, Instruction::Code code, int operand);
  ~InstructionCheck();
  InstructionCheck(const InstructionCheck&) = delete;
  InstructionCheck& operator=(const InstructionCheck&) = delete;

  // Whether the entries of a stack can have become from `before` to `after` by the instructions of
  // decoded code from begin up to end, none of which is a call or a return.
  static bool Agree(const HotOp* begin, const HotOp* end, long before, long after);

 private:
  void CheckStack() const;

  ZephVM* vm;
  const Instruction::Row* row;  // null for a word that is no instruction
  int taken;                    // -1 if only the instruction itself knows
  ZephVM_Stack* stack;
  ZephVM_Frame* frame;
  ZephVM_Frame* caller;
  int entries;         // before the instruction
  int caller_entries;  // the same of the caller's stack
  int exceptions;
};

#endif

#endif
