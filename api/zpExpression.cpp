// The functions for expressions that are texts. Tested in tests/api/zpExpressionTest.cpp.

#include <cstring>
#include <memory>

#include "api/zeph.h"
#include "base/compiled/Segment.h"
#include "base/machine/ZephVM.h"
#include "base/values/Variable.h"
#include "base/values/VariableRef.h"

namespace {

const char kStackName[] = "__zephvm_dynamic_stack";

// The stack of one machine's expressions; a request has one for each machine of its family that
// evaluates some. A stack reports to its machine, so another machine cannot use it. The stack of a
// machine that has ended stays here without a use, unless a later machine has the same address: the
// stack is empty then, and as good as a new one.
struct DynamicStack {
  explicit DynamicStack(ZephVM* machine) : vm(machine), stack(machine) {}

  ZephVM* vm;
  ZephVM_Stack stack;
  std::unique_ptr<DynamicStack> next;
};

char* Copy(const String& text) {
  auto* const copy = new char[static_cast<size_t>(text.length) + 1];
  if (text.length > 0) memcpy(copy, text.data, static_cast<size_t>(text.length));
  copy[text.length] = '\0';
  return copy;
}

}  // namespace

// Deletes the stacks at the end of the request.
void _zpProgram_Dynamic_Stack_Cleanup(void*, void* data) {
  // One by one, because a task may have had any number of machines.
  std::unique_ptr<DynamicStack> stacks(static_cast<DynamicStack*>(data));
  while (stacks) stacks = std::move(stacks->next);
}

// Returns the stack of the machine's expressions, made by the first call.
ZephVM_Stack* _zpProgram_Dynamic_Stack(ZPPROGRAM program) {
  auto* const first =
      static_cast<DynamicStack*>(zpProgram_Lookup_Persistent(program, kStackName, -1));
  for (DynamicStack* found = first; found; found = found->next.get()) {
    if (found->vm == program) return &found->stack;
  }
  auto made = std::make_unique<DynamicStack>(program);
  if (first) {
    made->next = std::move(first->next);
    first->next = std::move(made);
    return &first->next->stack;
  }
  DynamicStack* const stack = made.get();
  zpProgram_Register_Persistent(program, kStackName, -1, stack, _zpProgram_Dynamic_Stack_Cleanup);
  (void)made.release();
  return &stack->stack;
}

ZPEXPRESSION zpProgram_Compile_Dynamic_Expression(ZPPROGRAM program, const char* text, int length,
                                                  char** error, int* errorlength) {
  String message;
  Segment* const expression =
      program->Compile_Dynamic_Expression(text, length, nullptr, nullptr, &message, nullptr, 0, 0);
  if (error) *error = expression ? nullptr : Copy(message);
  if (errorlength) *errorlength = expression ? 0 : message.length;
  return expression;
}

int zpProgram_Execute_Dynamic_Expression(ZPPROGRAM program, ZPEXPRESSION expression,
                                         ZPVARIABLE result) {
  ZephVM_Stack* const stack = _zpProgram_Dynamic_Stack(program);
  const int before = stack->Entries();
  // The expression may drop what holds the result.
  const VariableRef held = VariableRef::Share(result);
  if (!program->Execute_Dynamic_Expression(expression, stack, nullptr)) return 0;
  if (stack->Entries() <= before) return 0;
  stack->PopV(result);
  return 1;
}

int zpProgram_Execute_Dynamic_Expression_Boolean(ZPPROGRAM program, ZPEXPRESSION expression,
                                                 int* result) {
  ZephVM_Stack* const stack = _zpProgram_Dynamic_Stack(program);
  const int before = stack->Entries();
  if (!program->Execute_Dynamic_Expression(expression, stack, nullptr)) return 0;
  if (stack->Entries() <= before) return 0;
  const int truth = stack->PopBool();
  if (result) *result = truth;
  return 1;
}
