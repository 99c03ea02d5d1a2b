// The frames, which own a table and a stack if they are told to. Tested in
// tests/base/machine/FunctionCallTest.cpp.

#include "base/machine/ZephVM_Frame.h"

#include "base/compiled/VariableHash.h"
#include "base/machine/ZephVM_Stack.h"

ZephVM_Frame::ZephVM_Frame(int segment, int offset)
    : return_segment(segment), return_offset(offset) {}

ZephVM_Frame::~ZephVM_Frame() {
  // The stack first: deferred texts on it may watch the variables, and would get copies of their
  // texts if the variables were deleted before.
  if (owns_stack) delete stack;
  if (owns_variables) delete variables;
}

int ZephVM_Frame::type() {
  return Plain;
}

void ZephVM_Frame::Set_LocalVariable_Hash(VariableHash* table, bool owned) {
  if (owns_variables) delete variables;
  variables = table;
  owns_variables = owned;
}

void ZephVM_Frame::Set_Stack(ZephVM_Stack* new_stack, bool owned) {
  if (owns_stack) delete stack;
  stack = new_stack;
  owns_stack = owned;
}

ZephVM_FunctionFrame::ZephVM_FunctionFrame(int segment, int offset, ::Function* called)
    : ZephVM_Frame(segment, offset), function(called) {}

int ZephVM_FunctionFrame::type() {
  return Function;
}

ZephVM_FilterFrame::ZephVM_FilterFrame(int segment, int offset, int segment_behind,
                                       int offset_behind, Completion routine)
    : ZephVM_Frame(segment, offset),
      completion(routine),
      saved_offset(offset_behind),
      saved_segment(segment_behind) {}

int ZephVM_FilterFrame::type() {
  return Filter;
}
