// Checks the machine after each instruction, in builds with assertions. Every test that runs a
// script tests it; tests/base/machine/InstructionCheckTest.cpp shows that it finds what is wrong.

#include "base/machine/InstructionCheck.h"

#ifndef NDEBUG

#include <cassert>
#include <exception>

#include "base/compiled/Function.h"
#include "base/compiled/HotCode.h"
#include "base/core/RunLimit.h"

ZephVM::InstructionCheck::InstructionCheck(ZephVM* machine, Instruction::Code code, int operand)
    : vm(machine),
      row(code == Instruction::code_none ? nullptr : &Instruction::Rows[code - 1]),
      taken(row ? row->stack.taken : 0),
      stack(vm->stack),
      frame(vm->frame),
      caller(frame->previous),
      entries(stack->Entries()),
      caller_entries(caller ? caller->stack->Entries() : 0),
      exceptions(std::uncaught_exceptions()) {
  if (!row || !row->stack.takes_more) return;
  Function* function =
      code == Instruction::code_call && vm->functions ? vm->functions->Lookup(operand) : nullptr;
  taken = function ? static_cast<int>(function->slots().size()) : -1;
}

ZephVM::InstructionCheck::~InstructionCheck() {
  if (vm->stop_flag || RunLimit::WasCut() || std::uncaught_exceptions() > exceptions) return;
  assert(row && "a word that is no instruction is an error");
  assert(vm->frame && vm->stack == vm->frame->stack && vm->frame->variables);
  assert(vm->frame->depth >= 0 && vm->frame->depth <= MostFrames);
  assert(vm->stack->IsSound());
  // elem reports a bad index before it asks for the variable below, and the script may go on.
  if (entries < taken && row == &Instruction::Rows[Instruction::code_elem - 1]) return;
  assert(entries >= taken && "an instruction without its operands is an error");
  if (taken >= 0) CheckStack();
}

// A call and a filter enter a frame, and only their operands are gone then. A return leaves one,
// and whatever it was that the function had on its stack, its caller has one value more.
void ZephVM::InstructionCheck::CheckStack() const {
  if (vm->frame == frame) {
    const int kept = entries - taken;
    const int now = stack->Entries();
    assert(now >= kept + row->stack.least_put && now <= kept + row->stack.most_put);
  } else if (vm->frame == caller) {
    assert(vm->stack->Entries() == caller_entries + 1);
  } else {
    assert(vm->frame->previous == frame && vm->stack->Entries() == 0);
    assert(stack->Entries() == entries - taken);
  }
}

bool ZephVM::InstructionCheck::Agree(const HotOp* begin, const HotOp* end, long before,
                                     long after) {
  long least = before, most = before;
  for (const HotOp* op = begin; op < end; op++) {
    if (op->code == Instruction::code_none) return false;
    const Instruction::StackEffect& effect = Instruction::Rows[op->code - 1].stack;
    if (least < effect.taken || effect.takes_more) return false;
    least += effect.least_put - effect.taken;
    most += effect.most_put - effect.taken;
  }
  return after >= least && after <= most;
}

#endif
