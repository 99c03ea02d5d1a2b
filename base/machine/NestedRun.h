// A run of the machine inside of another one, which native code starts: on a plain frame with
// nothing below it, so that no return crosses into the run around it.

#ifndef ZEPH_BASE_NESTEDRUN_H
#define ZEPH_BASE_NESTEDRUN_H

#include "base/machine/ZephVM.h"

class VariableHash;
class ZephVM_Stack;

// Made where the run begins, after ZephVM::MayNest; its end puts frame, stack, output mode and
// place of the machine back, however the run has ended.
class ZephVM::NestedRun {
 public:
  explicit NestedRun(ZephVM* machine);
  ~NestedRun();
  NestedRun(const NestedRun&) = delete;
  NestedRun& operator=(const NestedRun&) = delete;

  // Makes the run's frame and enters it. Variables and stack are borrowed; without a stack it gets
  // a new one.
  void Enter(VariableHash* variables, ZephVM_Stack* entries);
  // Makes the code current, at its beginning.
  void Begin(Segment* start);

 private:
  void LeaveFrames();

  ZephVM* vm;
  ZephVM_Frame* outer;
  int program_counter;
  int wanted_segment;
};

#endif
