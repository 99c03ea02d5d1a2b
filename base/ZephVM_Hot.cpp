// The loop for code that runs often: what it does at each record of base/HotCode.h.
//
// Nothing here fails, and nothing is called that could raise a flag or run other code, but for the
// calls and returns of script functions. Whatever does not fit goes back to the machine's loop with
// everything as it was before the instruction. So the flags of the host need a look only where the
// code may go round: at jumps, calls and returns. No script can tell that from a look at each
// instruction.

#include <atomic>

#include "base/Function.h"
#include "base/HotCode.h"
#include "base/Variable.h"
#include "base/VariableHash.h"
#include "base/ZephApplication.h"
#include "base/ZephVM.h"

namespace {

using Entry = ZephVM_Stack::Stack_Entry;

inline int Read(int* shared) {
  return std::atomic_ref<int>(*shared).load(std::memory_order_relaxed);
}

// The value of an ordinary variable that has a form of a number, as value_double() gives it.
[[gnu::always_inline]] inline bool NumberOf(const Variable* variable, double* number) {
  if (!variable) return false;
  const unsigned forms = variable->plain_forms();
  if (forms & Variable::DoubleForm) {
    *number = variable->plain_double();
    return true;
  }
  *number = variable->plain_integer();
  return forms == Variable::IntegerForm;
}

// The same for a comparison, which goes by the text first.
[[gnu::always_inline]] inline bool ComparableOf(const Variable* variable, double* number) {
  return NumberOf(variable, number) && !(variable->plain_forms() & Variable::TextForm);
}

// As value_integer() gives it.
[[gnu::always_inline]] inline bool IntegerOf(const Variable* variable, int* number) {
  if (!variable) return false;
  const unsigned forms = variable->plain_forms();
  *number = variable->plain_integer();
  if (forms & Variable::IntegerForm) return true;
  *number = DoubleToInteger(variable->plain_double());
  return (forms & Variable::DoubleForm) != 0;
}

template <bool (*OfVariable)(const Variable*, double*)>
[[gnu::always_inline]] inline bool NumberIn(const Entry* entry, double* number) {
  if (entry->kind == ZephVM_Stack::KindDouble) {
    *number = entry->value.number;
    return true;
  }
  if (entry->kind == ZephVM_Stack::KindVariable) return OfVariable(entry->value.variable, number);
  *number = entry->value.integer;
  return entry->kind == ZephVM_Stack::KindInteger;
}

[[gnu::always_inline]] inline bool IntegerIn(const Entry* entry, int* number) {
  if (entry->kind == ZephVM_Stack::KindInteger) {
    *number = entry->value.integer;
    return true;
  }
  if (entry->kind == ZephVM_Stack::KindVariable) return IntegerOf(entry->value.variable, number);
  *number = DoubleToInteger(entry->value.number);
  return entry->kind == ZephVM_Stack::KindDouble;
}

[[gnu::always_inline]] inline Entry OfInteger(int value) {
  return {ZephVM_Stack::KindInteger, 0, 0, 0, {.integer = value}, 4, 4};
}
[[gnu::always_inline]] inline Entry OfDouble(double value) {
  return {ZephVM_Stack::KindDouble, 0, 0, 0, {.number = value}, 8, 8};
}
// Takes a count.
[[gnu::always_inline]] inline Entry OfVariable(Variable* variable) {
  variable->Hold();
  return {ZephVM_Stack::KindVariable, 1, 0, 0, {.variable = variable}, 8, 8};
}

// Replaces the two entries on top, which are numbers, variables or constants, by one. The result is
// complete by then, so it may come of one of the two.
[[gnu::always_inline]] inline void ReplaceTwo(ZephVM_Stack* stack, const Entry& result) {
  Entry* end = stack->End();
  ZephVM_Stack::Free(end - 1);
  ZephVM_Stack::Free(end - 2);
  end[-2] = result;
  stack->SetEnd(end - 1);
}

[[gnu::always_inline]] inline bool TwoNumbers(ZephVM_Stack* stack, double* a, double* b) {
  return stack->Holds(2) && NumberIn<NumberOf>(stack->End() - 2, a) &&
         NumberIn<NumberOf>(stack->End() - 1, b);
}

[[gnu::always_inline]] inline bool TwoComparable(ZephVM_Stack* stack, double* a, double* b) {
  return stack->Holds(2) && NumberIn<ComparableOf>(stack->End() - 2, a) &&
         NumberIn<ComparableOf>(stack->End() - 1, b);
}

// Whether nothing but the machine's own code runs when the entry is read as text.
inline bool IsOrdinary(const Entry* entry) {
  return entry->kind != ZephVM_Stack::KindVariable || entry->value.variable->IsOrdinary();
}

inline bool IsNumberOrPlain(const Entry* entry) {
  return entry->kind <= ZephVM_Stack::KindDouble ||
         (entry->kind == ZephVM_Stack::KindVariable && entry->value.variable->IsPlain());
}

// The order of a variable and a constant integer.
[[gnu::always_inline]] inline bool OrderOf(const Variable* variable, int constant, int* order) {
  if (!variable) return false;
  if (variable->plain_forms() == Variable::IntegerForm) {
    const int number = variable->plain_integer();
    *order = (number > constant) - (number < constant);
    return true;
  }
  double number;
  if (!ComparableOf(variable, &number)) return false;
  *order = number == constant ? 0 : number < constant ? -1 : 1;
  return true;
}

[[gnu::always_inline]] inline bool OrderOf(const Variable* left, const Variable* right,
                                           int* order) {
  double a, b;
  if (!ComparableOf(left, &a) || !ComparableOf(right, &b)) return false;
  *order = a == b ? 0 : a < b ? -1 : 1;
  return true;
}

// How an order answers to the jump behind it.
[[gnu::always_inline]] inline bool Jumps(HotAction jump, int order) {
  switch (jump) {
    case HotAction::JumpEqual: return order == 0;
    case HotAction::JumpNotEqual: return order != 0;
    case HotAction::JumpLess: return order < 0;
    case HotAction::JumpLessEqual: return order <= 0;
    case HotAction::JumpGreater: return order > 0;
    default: return order >= 0;
  }
}

}  // namespace

void ZephVM::RunHot(const HotCode* hot, const HotOp* op) {
  in_hot = true;
  HotLoop(hot, op);
  in_hot = hot_mode_known = false;
}

void ZephVM::HotLoop(const HotCode* hot, const HotOp* op) {
  int* const over = timed_out;
  int* const ended = exit_flag;
  int* const beats = heartbeat_counter;
  ZephVM_Stack* s = stack;
  VariableHash* tables[2] = {global_variables, frame->variables};
  double a, b;
  int order, number;
  Variable* variable;

// Where each action stands. The jump from one to the next is made at the end of each: processors
// foresee it better than one jump for all.
#define ACTION(name) &&on_##name,
  __extension__ static const void* const places[] = {ZEPH_HOT_ACTIONS};
#undef ACTION

// clang-format off
#define GO_TO(action) __extension__({ goto *places[static_cast<int>(action)]; })
// Each action ends with one of these: on behind so many instructions; to the first instruction
// alone, where the idiom does not fit; to the machine's loop; or by a jump.
#define NEXT(count) { op += (count); GO_TO(op->action); }
#define SINGLE_UNLESS(condition) if (!(condition)) { GO_TO(op->single); }
#define LEAVE_UNLESS(condition) if (!(condition)) { goto on_Leave; }
#define JUMP_IF(condition, jump, count) \
  if (condition) { op = hot->Target(jump); goto jumped; } \
  NEXT(count)
// The variable at a record's position, null if it was not made yet.
#define VARIABLE(record) tables[(record)->local]->At((record)->first, 0)
#define SECOND(record) tables[0]->At((record)->second, 0)

// All forms of an operation on the doubles a and b.
#define ARITHMETIC(name, result)                                                           \
  on_##name: {                                                                             \
    LEAVE_UNLESS(TwoNumbers(s, &a, &b))                                                    \
    ReplaceTwo(s, OfDouble(result));                                                       \
    NEXT(1)                                                                                \
  }                                                                                        \
  on_##name##Pop: {                                                                        \
    variable = VARIABLE(op + 1);                                                           \
    SINGLE_UNLESS(TwoNumbers(s, &a, &b) && variable && variable->IsPlain())                \
    ReplaceTwo(s, OfDouble(result));                                                       \
    s->SetEnd(s->End() - 1);                                                               \
    variable->Write_Double(s->End()->value.number);                                        \
    NEXT(2)                                                                                \
  }                                                                                        \
  on_##name##Constant: {                                                                   \
    SINGLE_UNLESS(s->HasRoom(1) && s->Holds(1) && NumberIn<NumberOf>(s->End() - 1, &a))    \
    b = op->number;                                                                        \
    ZephVM_Stack::Free(s->End() - 1);                                                      \
    s->End()[-1] = OfDouble(result);                                                       \
    NEXT(2)                                                                                \
  }                                                                                        \
  on_##name##Variable: {                                                                   \
    SINGLE_UNLESS(s->HasRoom(1) && s->Holds(1) && NumberIn<NumberOf>(s->End() - 1, &a) &&  \
                  NumberOf(VARIABLE(op), &b))                                              \
    ZephVM_Stack::Free(s->End() - 1);                                                      \
    s->End()[-1] = OfDouble(result);                                                       \
    NEXT(2)                                                                                \
  }                                                                                        \
  on_##name##VariableConstant: {                                                           \
    SINGLE_UNLESS(s->HasRoom(2) && NumberOf(VARIABLE(op), &a))                             \
    b = op[1].number;                                                                      \
    *s->End() = OfDouble(result);                                                          \
    s->SetEnd(s->End() + 1);                                                               \
    NEXT(3)                                                                                \
  }
// A comparison of a and b. With NaN on either side their order counts as above 0.
#define COMPARISON(name, holds)                                                            \
  on_##name: {                                                                             \
    LEAVE_UNLESS(TwoComparable(s, &a, &b))                                                 \
    ReplaceTwo(s, OfInteger(holds));                                                       \
    NEXT(1)                                                                                \
  }                                                                                        \
  on_##name##VariableConstantJump: {                                                       \
    SINGLE_UNLESS(s->HasRoom(2) && ComparableOf(VARIABLE(op), &a))                         \
    b = op[1].number;                                                                      \
    JUMP_IF((holds) == (op[3].single == HotAction::JumpNotEqual), op + 3, 4)               \
  }
#define JUMP_ON(name, holds)                                                               \
  on_##name: {                                                                             \
    LEAVE_UNLESS(s->Holds(1) && s->End()[-1].kind == ZephVM_Stack::KindInteger)            \
    s->SetEnd(s->End() - 1);                                                               \
    order = s->End()->value.integer;                                                       \
    JUMP_IF(holds, op, 1)                                                                  \
  }
#define ELEMENT(name, create)                                                              \
  on_##name: {                                                                             \
    LEAVE_UNLESS(s->Holds(2) && s->End()[-2].kind == ZephVM_Stack::KindVariable)           \
    variable = s->End()[-2].value.variable;                                                \
    LEAVE_UNLESS(variable->IsPlain() && IntegerIn(s->End() - 1, &number) && number >= 1)   \
    variable = variable->At(number, create);                                               \
    ReplaceTwo(s, OfVariable(variable ? variable : null_variable));                        \
    NEXT(1)                                                                                \
  }                                                                                        \
  on_##name##OfVariable: {                                                                 \
    variable = VARIABLE(op);                                                               \
    SINGLE_UNLESS(s->HasRoom(2) && variable && variable->IsPlain() &&                      \
                  IntegerOf(VARIABLE(op + 1), &number) && number >= 1)                     \
    variable = variable->At(number, create);                                               \
    *s->End() = OfVariable(variable ? variable : null_variable);                           \
    s->SetEnd(s->End() + 1);                                                               \
    NEXT(3)                                                                                \
  }
#define MEMBER(name, create)                                                               \
  on_##name: {                                                                             \
    LEAVE_UNLESS(s->Holds(2) && s->End()[-2].kind == ZephVM_Stack::KindVariable)           \
    LEAVE_UNLESS(s->End()[-1].kind == ZephVM_Stack::KindString && !s->End()[-1].deferred)  \
    variable = s->End()[-2].value.variable;                                                \
    LEAVE_UNLESS(variable->IsPlain())                                                      \
    variable = variable->Member(s->End()[-1].value.text, s->End()[-1].length, create);     \
    ReplaceTwo(s, OfVariable(variable ? variable : null_variable));                        \
    NEXT(1)                                                                                \
  }                                                                                        \
  on_##name##OfVariable: {                                                                 \
    variable = VARIABLE(op);                                                               \
    SINGLE_UNLESS(s->HasRoom(2) && variable && variable->IsPlain())                        \
    variable = variable->Member(op[1].text, op[1].length, create);                         \
    *s->End() = OfVariable(variable ? variable : null_variable);                           \
    s->SetEnd(s->End() + 1);                                                               \
    NEXT(3)                                                                                \
  }
  // clang-format on

  GO_TO(op->action);

on_PushInteger:
  LEAVE_UNLESS(s->HasRoom(1))
  *s->End() = OfInteger(op->first);
  s->SetEnd(s->End() + 1);
  NEXT(1)
on_PushDouble:
  LEAVE_UNLESS(s->HasRoom(1))
  *s->End() = OfDouble(op->number);
  s->SetEnd(s->End() + 1);
  NEXT(1)
on_PushText:
  LEAVE_UNLESS(s->HasRoom(1))
  s->PushS(op->text, op->length, op->length, 0);
  NEXT(1)
on_PushVariable:
  variable = VARIABLE(op);
  LEAVE_UNLESS(variable && s->HasRoom(1))
  *s->End() = OfVariable(variable);
  s->SetEnd(s->End() + 1);
  NEXT(1)
on_PopVariable:
  variable = VARIABLE(op);
  LEAVE_UNLESS(variable && variable->IsOrdinary() && s->Holds(1) && IsOrdinary(s->End() - 1))
  s->PopV(variable);
  NEXT(1)
on_Pop:
  LEAVE_UNLESS(s->Holds(1))
  s->Pop();
  NEXT(1)
on_Dup:
  LEAVE_UNLESS(s->Holds(1) && s->HasRoom(1))
  LEAVE_UNLESS(
      s->End()[-1].kind <= ZephVM_Stack::KindDouble ||
      (s->End()[-1].kind == ZephVM_Stack::KindVariable && s->End()[-1].value.variable->IsPlain()))
  s->Dupe();
  NEXT(1)
on_Store:
  LEAVE_UNLESS(s->Holds(2) && s->End()[-1].kind == ZephVM_Stack::KindVariable)
  variable = s->End()[-1].value.variable;
  LEAVE_UNLESS(variable->IsPlain() && IsNumberOrPlain(s->End() - 2))
  if (s->End()[-2].kind == ZephVM_Stack::KindDouble) {
    variable->Write_Double(s->End()[-2].value.number);
  } else if (s->End()[-2].kind == ZephVM_Stack::KindInteger) {
    variable->Write_Integer(s->End()[-2].value.integer);
  } else {
    variable->SetValue(*s->End()[-2].value.variable);
  }
  ZephVM_Stack::Free(s->End() - 1);
  ZephVM_Stack::Free(s->End() - 2);
  s->SetEnd(s->End() - 2);
  NEXT(1)
on_Concatenate:
  LEAVE_UNLESS(s->Holds(2) && IsOrdinary(s->End() - 1) && IsOrdinary(s->End() - 2))
  s->Concatenate();
  NEXT(1)
on_Swap:
  LEAVE_UNLESS(s->Holds(2))
  s->Swap(0, 1);
  NEXT(1)

  ARITHMETIC(Add, a + b)
  ARITHMETIC(Sub, a - b)
  ARITHMETIC(Mul, a * b)
  ARITHMETIC(Div, a == 0.0 ? 0.0 : a / b)
on_Mod:
  LEAVE_UNLESS(s->Holds(2) && IntegerIn(s->End() - 2, &order) && IntegerIn(s->End() - 1, &number))
  ReplaceTwo(s, OfInteger(Remainder(order, number)));
  NEXT(1)
on_ModVariableConstant:
  SINGLE_UNLESS(s->HasRoom(2) && IntegerOf(VARIABLE(op), &order))
  *s->End() = OfInteger(Remainder(order, DoubleToInteger(op[1].number)));
  s->SetEnd(s->End() + 1);
  NEXT(3)
on_ModVariableConstantJump:
  SINGLE_UNLESS(s->HasRoom(2) && IntegerOf(VARIABLE(op), &order))
  order = Remainder(order, DoubleToInteger(op[1].number));
  JUMP_IF((order != 0) == (op[3].single == HotAction::JumpNotEqual), op + 3, 4)

  COMPARISON(Equal, a == b)
  COMPARISON(NotEqual, !(a == b))
  COMPARISON(Less, a < b)
  COMPARISON(LessEqual, a <= b)
  COMPARISON(Greater, !(a <= b))
  COMPARISON(GreaterEqual, !(a < b))

on_Jump:
  op = hot->Target(op);
  goto jumped;
  JUMP_ON(JumpEqual, order == 0)
  JUMP_ON(JumpNotEqual, order != 0)
  JUMP_ON(JumpLess, order < 0)
  JUMP_ON(JumpLessEqual, order <= 0)
  JUMP_ON(JumpGreater, order > 0)
  JUMP_ON(JumpGreaterEqual, order >= 0)

on_CompareConstant:
  LEAVE_UNLESS(s->HasRoom(1) && OrderOf(VARIABLE(op), op->second, &order))
  *s->End() = OfInteger(order);
  s->SetEnd(s->End() + 1);
  NEXT(1)
on_CompareConstantJump:
  LEAVE_UNLESS(s->HasRoom(1) && OrderOf(VARIABLE(op), op->second, &order))
  JUMP_IF(Jumps(op[1].single, order), op + 1, 2)
on_CompareGlobals:
  LEAVE_UNLESS(s->HasRoom(1) && OrderOf(VARIABLE(op), SECOND(op), &order))
  *s->End() = OfInteger(order);
  s->SetEnd(s->End() + 1);
  NEXT(1)
on_CompareGlobalsJump:
  LEAVE_UNLESS(s->HasRoom(1) && OrderOf(VARIABLE(op), SECOND(op), &order))
  JUMP_IF(Jumps(op[1].single, order), op + 1, 2)
on_ModGlobals:
  LEAVE_UNLESS(s->HasRoom(1) && IntegerOf(VARIABLE(op), &order) && IntegerOf(SECOND(op), &number) &&
               number != 0)
  *s->End() = OfInteger(Remainder(order, number));
  s->SetEnd(s->End() + 1);
  NEXT(1)
on_ModGlobalsJump:
  LEAVE_UNLESS(s->HasRoom(1) && IntegerOf(VARIABLE(op), &order) && IntegerOf(SECOND(op), &number) &&
               number != 0)
  JUMP_IF(Jumps(op[1].single, Remainder(order, number)), op + 1, 2)
on_Increment:
  variable = VARIABLE(op);
  LEAVE_UNLESS(IntegerOf(variable, &number))
  variable->Write_Integer(WrapAdd(number, op->second));
  NEXT(1)
on_StoreConstant:
  variable = VARIABLE(op);
  LEAVE_UNLESS(variable && variable->IsPlain())
  variable->Write_Integer(op->second);
  NEXT(1)
on_Line:
  LEAVE_UNLESS((log_mask & Log_Trace) == 0)
  current_line = op->first;
  NEXT(1)

  ELEMENT(Element, 1)
  ELEMENT(ElementReadOnly, 0)
  MEMBER(Member, 1)
  MEMBER(MemberReadOnly, 0)

on_Call : {
  Function* function = functions ? functions->Lookup(op->first) : nullptr;
  LEAVE_UNLESS(function && !(function->flags() & Function_External) &&
               (log_mask & Log_OfCalls) == 0)
  instruction_start = op->start;
  program_counter = op[1].start;
  CallFunction(function);
  goto moved;
}
on_Return : {
  ZephVM_Frame* caller = frame->previous;
  LEAVE_UNLESS((log_mask & Log_OfCalls) == 0 && open_features == 0 && caller && frame->is_function)
  LEAVE_UNLESS(s->Holds(1) && caller->stack->HasRoom(1))
  // A borrowed variable may be a local one, which goes with the frame.
  const Entry& result = s->End()[-1];
  LEAVE_UNLESS(result.kind != ZephVM_Stack::KindVariable || result.deletable)
  caller->stack->End()->CopyFrom(result);
  caller->stack->SetEnd(caller->stack->End() + 1);
  s->SetEnd(s->End() - 1);
  wanted_segment = frame->return_segment;
  program_counter = frame->return_offset;
  LeaveFrame();
  goto moved;
}

jumped:
  if (Read(over) | Read(ended) | (Read(beats) ^ last_heartbeat)) goto on_Leave;
  GO_TO(op->action);

moved:
  if (stop_flag || wanted_segment != loaded_segment || Read(over) || Read(ended) ||
      Read(beats) != last_heartbeat) {
    return;
  }
  op = hot->At(program_counter);
  if (!op) return;
  s = stack;
  tables[1] = frame->variables;
  GO_TO(op->action);

on_Leave:
  program_counter = op->start;
#undef GO_TO
#undef NEXT
#undef SINGLE_UNLESS
#undef LEAVE_UNLESS
#undef JUMP_IF
#undef VARIABLE
#undef SECOND
#undef ARITHMETIC
#undef COMPARISON
#undef JUMP_ON
#undef ELEMENT
#undef MEMBER
}
