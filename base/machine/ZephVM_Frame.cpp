// The frames, which own a table and a stack if they are told to. Tested in
// tests/base/machine/FunctionCallTest.cpp.

#include "base/machine/ZephVM_Frame.h"

#include "base/compiled/VariableHash.h"
#include "base/machine/ZephVM_Stack.h"

ZephVM_Frame::ZephVM_Frame(int return_segment, int return_offset)
    : return_segment(return_segment), return_offset(return_offset) {}

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

ZephVM_FunctionFrame::ZephVM_FunctionFrame(int return_segment, int return_offset,
                                           ::Function* function)
    : ZephVM_Frame(return_segment, return_offset), function(function) {}

int ZephVM_FunctionFrame::type() {
  return Function;
}

ZephVM_FilterFrame::ZephVM_FilterFrame(int return_segment, int return_offset, int saved_segment,
                                       int saved_offset, Completion completion)
    : ZephVM_Frame(return_segment, return_offset),
      completion(completion),
      saved_offset(saved_offset),
      saved_segment(saved_segment) {}

int ZephVM_FilterFrame::type() {
  return Filter;
}
