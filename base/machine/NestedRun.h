// A run of the machine inside another one, started by native code. It runs on a plain frame with
// nothing below it, so that no return crosses into the run around it.

#ifndef ZEPH_BASE_NESTEDRUN_H
#define ZEPH_BASE_NESTEDRUN_H

#include "base/machine/ZephVM.h"

class VariableHash;
class ZephVM_Stack;

// Made where the run begins. The destructor restores frame, stack, output mode and program counter
// of the machine, however the run has ended. REQUIRES: ZephVM::MayNest has returned true.
class ZephVM::NestedRun {
 public:
  explicit NestedRun(ZephVM* machine);
  ~NestedRun();
  NestedRun(const NestedRun&) = delete;
  NestedRun& operator=(const NestedRun&) = delete;

  // Makes the run's frame and enters it. Variables and stack are borrowed; if the stack is null,
  // the frame gets its own.
  void Enter(VariableHash* variables, ZephVM_Stack* entries);
  // Makes the segment current, at its beginning.
  void Begin(Segment* start);

 private:
  void LeaveFrames();

  ZephVM* vm;
  ZephVM_Frame* outer;
  int program_counter;
  int wanted_segment;
  bool in_hot;
};

#endif
