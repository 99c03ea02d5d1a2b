// The loop for decoded code: what it does at each record of base/compiled/HotCode.h. Tested in
// tests/base/machine/HotCodeTest.cpp and FrameReuseTest.cpp.
//
// The actions written here cannot fail and run no code but their own. If one does not apply, the
// instruction goes back to the machine's loop, with everything as it was before it. The host's
// flags, which other threads set, are polled only at jumps and calls, one in kPatience of them; a
// script cannot observe the delay. Handlers of the machine, external functions and the output may
// set any flag, so all flags are checked after these. The host's flags are also checked after an
// action whose time grows with the size of a value, such as the copy of an array.
//
// The file is longer than others because HotLoop is one function: every action ends with a jump of
// its own to the next, and all share the variables below in registers. Its divisions:
//
//   tests and numbers         what an operand has, and its number: Has..., Find..., Make..., ...In
//   RunHot                    prepares the machine for the loop
//   HotLoop: state            its variables, and the addresses of the actions
//   HotLoop: macros           how an action ends, the stack, tests of operands
//   HotLoop: forms            all actions of one operation: ARITHMETIC, UPDATE, COMPARISON, ...
//   HotLoop: values           pushes, pops, store, texts, swap
//   HotLoop: operations       arithmetic, comparisons, jumps, and the fused ones on globals
//   HotLoop: elements         elements and members, with their updates
//   HotLoop: handlers         instructions that a handler runs, and the output
//   HotLoop: calls            call, return, and the way back into the loop

#include <atomic>
#include <cassert>
#include <charconv>

#include "base/compiled/Function.h"
#include "base/compiled/HotCode.h"
#include "base/compiled/Instructions.h"
#include "base/compiled/Segment.h"
#include "base/compiled/VariableHash.h"
#include "base/core/Output.h"
#include "base/host/ZephApplication.h"
#include "base/machine/InstructionCheck.h"
#include "base/machine/ZephVM.h"
#include "base/values/Aggregate.h"
#include "base/values/Variable.h"

namespace {

using Entry = ZephVM_Stack::Stack_Entry;

inline int Read(int* shared) {
  return std::atomic_ref<int>(*shared).load(std::memory_order_relaxed);
}

// Whether a variable has a number in a form that value_double() returns. These are the rare cases
// of Has. The function is slow because it is out of line, and it is out of line so that the fast
// test keeps its registers. Numbers are read only after all operands have been tested, so that none
// has to be saved across this call.
[[gnu::noinline]] bool HasNumberSlow(const Variable* variable) {
  const unsigned forms = variable->plain_forms();
  return (forms & Variable::DoubleForm) || forms == Variable::IntegerForm;
}

// The same for a comparison, which uses the text if there is one.
[[gnu::noinline]] bool IsComparableSlow(const Variable* variable) {
  return HasNumberSlow(variable) && !(variable->plain_forms() & Variable::TextForm);
}

using Suitable = bool (*)(const Variable*);

template <Suitable Slow>
[[gnu::always_inline]] inline bool Has(const Variable* variable) {
  return variable->HoldsDouble() || variable->HoldsInteger() || Slow(variable);
}

// The number of a variable. REQUIRES: it has one.
[[gnu::always_inline]] inline double NumberOf(const Variable* variable) {
  return variable->has_double() ? variable->plain_double() : variable->plain_integer();
}

// Has and NumberOf in one, for the operand that is tested last.
template <Suitable Slow>
[[gnu::always_inline]] inline bool Find(const Variable* variable, double* number) {
  if (variable->HoldsDouble()) [[likely]] {
    *number = variable->plain_double();
  } else if (variable->HoldsInteger()) {
    *number = variable->plain_integer();
  } else {
    if (!Slow(variable)) return false;
    *number = NumberOf(variable);
  }
  return true;
}

// The number of a variable that has no other form. Only such a number can replace its variable,
// because every form that is read later follows from it. The forms of a text may disagree:
// "99999999999" is 191 when it is read as an integer first.
[[gnu::always_inline]] inline bool FindAlone(const Variable* variable, double* number) {
  if (variable->HoldsDouble()) {
    *number = variable->plain_double();
    return true;
  }
  *number = variable->plain_integer();
  return variable->HoldsInteger();
}

// The integer that value_integer() returns.
[[gnu::always_inline]] inline bool IntegerOf(const Variable* variable, int* number) {
  if (!variable) return false;
  const unsigned forms = variable->plain_forms();
  *number = variable->plain_integer();
  if (forms & Variable::IntegerForm) return true;
  *number = DoubleToInteger(variable->plain_double());
  return (forms & Variable::DoubleForm) != 0;
}

template <Suitable Slow>
bool IsNumber(const Entry* entry) {
  return entry->kind <= ZephVM_Stack::KindDouble ||
         (entry->kind == ZephVM_Stack::KindVariable && Has<Slow>(entry->value.variable->Real()));
}

double NumberIn(const Entry* entry) {
  if (entry->kind == ZephVM_Stack::KindDouble) return entry->value.number;
  if (entry->kind == ZephVM_Stack::KindInteger) return entry->value.integer;
  return NumberOf(entry->value.variable->Real());
}

inline bool IsDouble(const Entry* entry) {
  return entry->kind == ZephVM_Stack::KindDouble;
}

// Turns the two entries on top into doubles, for an operation that pops both as numbers. Returns
// false and changes nothing if either is not a number.
template <Suitable Slow>
[[gnu::noinline]] bool MakeTwoDoubles(Entry* top) {
  if (!IsNumber<Slow>(top - 1) || !IsNumber<Slow>(top - 2)) return false;
  const double right = NumberIn(top - 1);
  const double left = NumberIn(top - 2);
  ZephVM_Stack::Free(top - 1);
  ZephVM_Stack::Free(top - 2);
  top[-1].SetDouble(right);
  top[-2].SetDouble(left);
  return true;
}

// The same for one.
template <Suitable Slow>
[[gnu::noinline]] bool MakeDouble(Entry* top) {
  if (!IsNumber<Slow>(top - 1)) return false;
  const double number = NumberIn(top - 1);
  ZephVM_Stack::Free(top - 1);
  top[-1].SetDouble(number);
  return true;
}

[[gnu::always_inline]] inline bool IntegerIn(const Entry* entry, int* number) {
  if (entry->kind == ZephVM_Stack::KindInteger) {
    *number = entry->value.integer;
    return true;
  }
  if (entry->kind == ZephVM_Stack::KindVariable) {
    return IntegerOf(entry->value.variable->Real(), number);
  }
  *number = DoubleToInteger(entry->value.number);
  return entry->kind == ZephVM_Stack::KindDouble;
}

// Whether the entries on top of a stack can be the arguments of a function without an error and
// without running any code but the machine's own.
[[gnu::noinline]] bool AreArguments(uint64_t references, int count, const Entry* top) {
  for (int i = count; i-- > 0;) {
    --top;
    if (references >> i & 1) {
      if (top->kind != ZephVM_Stack::KindVariable) return false;
    } else if (top->kind == ZephVM_Stack::KindVariable &&
               !top->value.variable->Real()->IsOrdinary()) {
      return false;
    }
  }
  return true;
}

// Moves the arguments on top of a stack into the first variables of a function. Returns where the
// stack then ends. *patience is 1 afterwards if the time depended on the size of a value.
// REQUIRES: AreArguments; the variables that exist are as a new call needs them.
[[gnu::noinline]] Entry* MoveArguments(VariableHash* table, uint64_t references, int count,
                                       ZephVM_Stack* stack, int* patience) {
  for (int i = count; i-- > 0;) {
    Entry* const argument = stack->End() - 1;
    if (references >> i & 1) {
      table->SetVariable_Reference(i, argument->value.variable);
      stack->SetEnd(argument);
      ZephVM_Stack::Free(argument);
      continue;
    }
    Variable* const variable = table->At(i, 1);
    if (argument->kind == ZephVM_Stack::KindVariable &&
        variable->CopyNumber(*argument->value.variable->Real())) {
      stack->SetEnd(argument);
      ZephVM_Stack::Free(argument);
    } else {
      if (argument->kind > ZephVM_Stack::KindDouble) *patience = 1;
      stack->PopV(variable);
    }
  }
  return stack->End();
}

// Jumps and calls between two polls of the host's flags. Each takes nanoseconds.
const int kPatience = 32;

// The most entries that an idiom, or its instructions run one by one, can push before popping any.
const int kMostPushed = 3;

// Whether reading the entry as text runs only the machine's own code.
inline bool IsOrdinary(const Entry* entry) {
  return entry->kind != ZephVM_Stack::KindVariable || entry->value.variable->Real()->IsOrdinary();
}

inline bool IsNumberOrPlain(const Entry* entry) {
  return entry->kind <= ZephVM_Stack::KindDouble ||
         (entry->kind == ZephVM_Stack::KindVariable && entry->value.variable->Real()->IsPlain());
}

// The text of an entry that is the name of a member, if it is there without a conversion. The text
// of the structure itself would go with its conversion.
inline bool FindName(const Entry* entry, const Variable* structure, const char** text,
                     int* length) {
  if (entry->kind == ZephVM_Stack::KindString) {
    *text = entry->value.text;
    *length = entry->length;
    return !entry->deferred;
  }
  if (entry->kind != ZephVM_Stack::KindVariable) return false;
  const Variable* const variable = entry->value.variable->Real();
  if (!(variable->plain_forms() & Variable::TextForm) || variable == structure) return false;
  *text = variable->plain_text().data;
  *length = variable->plain_text().length;
  return *text != nullptr;
}

// The end of a chain of references. Out of line, so that the usual case keeps its registers.
[[gnu::noinline]] Variable* EndOf(Variable* variable) {
  return variable->Real();
}

// The variable that has the value: that of a parameter by reference is the caller's.
[[gnu::always_inline]] inline Variable* Referred(Variable* variable) {
  return !variable || variable->IsPlain() ? variable : EndOf(variable);
}

// Whether a variable of a table, which may not exist yet, is a plain one.
inline bool IsPlainRow(const Variable* variable) {
  return !variable || variable->IsPlain();
}

// Whether an instruction after a call pops the result into a plain variable.
inline bool IsPlainTarget(const HotOp* pop, const VariableHash* locals, const _VH_Entry* globals,
                          unsigned count) {
  if (pop->single != HotAction::PopVariable) return false;
  if (pop->local) globals = locals->Rows(&count);
  const auto position = static_cast<unsigned>(pop->first);
  return position < count && IsPlainRow(Referred(globals[position].variable));
}

// Whether the value of an entry is true, if that is a number.
inline bool FindTruth(const Entry* entry, bool* truth) {
  if (!IsNumber<IsComparableSlow>(entry)) return false;
  *truth = NumberIn(entry) != 0.0;
  return true;
}

// The order of two numbers, as the number of its bit in HotOp::orders: 0 for less, 1 for equal, 2
// for greater. NaN on either side counts as greater.
template <typename Number>
[[gnu::always_inline]] inline int OrderOf(Number left, Number right) {
  return !(left < right) + !(left <= right);
}

[[gnu::always_inline]] inline bool FindOrder(const Variable* left, int right, int* order) {
  if (!left) return false;
  if (left->HoldsInteger()) [[likely]] {
    *order = OrderOf(left->plain_integer(), right);
    return true;
  }
  double number;
  if (!Find<IsComparableSlow>(left, &number)) return false;
  *order = OrderOf<double>(number, right);
  return true;
}

[[gnu::always_inline]] inline bool FindOrder(const Variable* left, const Variable* right,
                                             int* order) {
  if (!left || !right || !Has<IsComparableSlow>(left)) return false;
  double number;
  if (!Find<IsComparableSlow>(right, &number)) return false;
  *order = OrderOf(NumberOf(left), number);
  return true;
}

// Whether the jump is made on this order.
[[gnu::always_inline]] inline bool Jumps(const HotOp* jump, int order) {
  return (jump->orders >> order & 1) != 0;
}

}  // namespace

void ZephVM::RunHot(const HotCode* hot, const HotOp* op) {
  const auto all = static_cast<size_t>(functions ? functions->Functions() : 0);
  if (idle_frames.size() < all) idle_frames.resize(all);
  const bool outer = in_hot;
  in_hot = true;
  HotLoop(hot, op);
  in_hot = outer;
  hot_mode = NoMode;
}

void ZephVM::HotLoop(const HotCode* hot, const HotOp* op) {
  int* const timedout = timedout_flag;
  int* const ended = exit_flag;
  int* const beats = heartbeat_counter;
  // Of the current frame: its stack, the end and the beginning of its entries, and the last end at
  // which any action has room to push; and the rows of both tables of variables, the globals first.
  ZephVM_Stack* s;
  Entry* top;
  const _VH_Entry* rows[2];
  unsigned counts[2];
  Entry* bottom;
  Entry* limit;
  Variable* variable = nullptr;
  const Variable* other = nullptr;
  // For a call or a return.
  ZephVM_FunctionFrame* called;
  const _VH_Entry* locals;
  double number_passed;
  const long code_serial = hot->serial();
  int patience = kPatience;  // jumps and calls until the next poll of the host's flags

// The address of each action. Each action ends with a jump of its own to the next one, because
// processors predict these better than one jump that all share.
#define ACTION(name) &&on_##name,
  __extension__ static const void* const places[] = {ZEPH_HOT_ACTIONS};
#undef ACTION
// The same for updates of a variable that is not on the stack.
#define ACTION(name) &&found_##name,
  __extension__ static const void* const updates[] = {ZEPH_HOT_UPDATES};
#undef ACTION

// In a build with assertions, STARTED notes where an action begins, and RAN checks the stack after
// the records from there up to end. RAN_UP_TO does so when the record at end, a call, has consumed
// that many entries.
#ifdef NDEBUG
#define STARTED
#define RAN_UP_TO(end, consumed)
#else
  const HotOp* started = op;
  long started_with = 0;
#define STARTED                                     \
  {                                                 \
    assert(stack == s && frame->stack == s);        \
    started = op;                                   \
    started_with = static_cast<long>(top - bottom); \
  }
#define RAN_UP_TO(end, consumed)                             \
  assert(InstructionCheck::Agree(started, end, started_with, \
                                 static_cast<long>(top - bottom) + (consumed)));
#endif
#define RAN(end) RAN_UP_TO(end, 0)

// clang-format off
#define GO_TO(action) __extension__({ STARTED goto *places[static_cast<int>(action)]; })
// Each action ends with one of these. NEXT continues after count instructions. NEXT_AFTER_WORK does
// the same after work of any length, and polls the host's flags. SINGLE_UNLESS runs the first
// instruction alone if the idiom does not apply. LEAVE_UNLESS returns to the machine's loop. JUMP
// polls the host's flags once in kPatience times.
#define NEXT(count) { op += (count); RAN(op) GO_TO(op->action); }
#define RAISED (Read(timedout) | Read(ended) | (Read(beats) ^ last_heartbeat))
#define NEXT_AFTER_WORK(count) { \
  op += (count); \
  RAN(op) \
  if (RAISED) [[unlikely]] goto on_Leave; \
  GO_TO(op->action); }
#define SINGLE_UNLESS(condition) if (!(condition)) [[unlikely]] { RAN(op) GO_TO(op->single); }
#define LEAVE_UNLESS(condition) if (!(condition)) [[unlikely]] { goto on_Leave; }
#define JUMP(jump) { \
  RAN((jump) + 1) \
  op = (jump)->target; \
  STARTED \
  if (--patience == 0) [[unlikely]] goto look; \
  GO_TO(op->action); }
#define JUMP_IF(condition, jump, count) \
  if (condition) JUMP(jump) \
  NEXT(count)
// The variable at a record's position, or the one that it refers to; null if it does not exist yet.
// ROW_OF gives the variable itself.
#define ROW_AT(table, position) \
  (static_cast<unsigned>(position) < counts[table] ? rows[table][position].variable : nullptr)
#define ROW_OF(record) ROW_AT((record)->local, (record)->first)
// Makes the variable that a row does not have yet; null if there is no such row.
#define MADE_AT(record) ((record)->local ? frame->variables : global_variables)->At((record)->first, 1)
#define VARIABLE_AT(table, position) Referred(ROW_AT(table, position))
#define VARIABLE(record) Referred(ROW_OF(record))
// A local variable that no instruction of this call has touched is asleep in its row. It has no
// forms and is not an array, so only an action that uses a variable without testing these has to
// wake it. Storing a number wakes it too.
#define WAKE(variable) if ((variable)->IsAsleep()) [[unlikely]] (variable)->Wake();
// For the instructions on globals, which hardly ever are references: those go another way.
#define SECOND_ROW(record) ROW_AT(0, (record)->second)
// Store the end in the stack before its own operations, and reload what they may have changed. The
// end is also stored before anything that allocates: if that throws, the stack frees the entries up
// to there.
#define TELL_STACK s->SetEnd(top);
#define ASK_STACK { \
  top = s->End(); \
  bottom = s->Begin(); \
  limit = s->Limit() - kMostPushed; }
#define PUSH(set) { top->set; ++top; }
// Replace the entry on top, or the two on top.
#define REPLACE_ONE(set) { \
  ZephVM_Stack::Free(top - 1); \
  top[-1].set; }
#define REPLACE_TWO(set) { \
  ZephVM_Stack::Free(top - 1); \
  ZephVM_Stack::Free(top - 2); \
  --top; \
  top[-1].set; }
#define HOLDS_ONE (top > bottom)
#define HOLDS_TWO (top - 1 > bottom)
#define HAS_ROOM (top <= limit)
// Whether the operands on top are numbers; they are doubles afterwards. This may change the
// entries, so it is the last test of a condition.
#define ONE_NUMBER (HOLDS_ONE && (IsDouble(top - 1) || MakeDouble<HasNumberSlow>(top)))
#define ONE_COMPARABLE (HOLDS_ONE && (IsDouble(top - 1) || MakeDouble<IsComparableSlow>(top)))
#define TWO_DOUBLES (IsDouble(top - 1) && IsDouble(top - 2))
#define TWO_NUMBERS (HOLDS_TWO && (TWO_DOUBLES || MakeTwoDoubles<HasNumberSlow>(top)))
#define TWO_COMPARABLE (HOLDS_TWO && (TWO_DOUBLES || MakeTwoDoubles<IsComparableSlow>(top)))
#define IS_NUMBER(variable) ((variable) && Has<HasNumberSlow>(variable))
#define IS_COMPARABLE(variable) ((variable) && Has<IsComparableSlow>(variable))
// The same; *number receives the number.
#define FIND_NUMBER(variable, number) ((variable) && Find<HasNumberSlow>(variable, number))
#define FIND_COMPARABLE(variable, number) ((variable) && Find<IsComparableSlow>(variable, number))
// Whether a frame is kept for the called function and is prepared for calls from this code. If so,
// called is the frame and locals are its variables; those that exist are as a new call needs them.
#define KNOWS_CALLED \
  (called = idle_frames[static_cast<unsigned>(op->first)], \
   called && called->return_code == code_serial && frame_count < MostFrames && \
   (locals = called->variables->Rows(&counts[1]), true))

// Whether the instruction at a record uses only the value of the entry on top. The field of a
// database, to which a variable may refer, takes a number and a variable in different ways.
#define VALUE_SUFFICES(record) \
  ((record)->after_value || ((record)->single == HotAction::PopVariable && \
                             IsPlainRow(VARIABLE(record))))

// All forms of an operation on the doubles a and b. An operand that is a double entry already is
// overwritten in place.
#define ARITHMETIC(name, result)                                                           \
  on_##name: {                                                                             \
    LEAVE_UNLESS(TWO_NUMBERS)                                                              \
    const double a = top[-2].value.number, b = top[-1].value.number;                       \
    --top;                                                                                 \
    top[-1].value.number = result;                                                         \
    NEXT(1)                                                                                \
  }                                                                                        \
  on_##name##Pop: {                                                                        \
    variable = VARIABLE(op + 1);                                                           \
    SINGLE_UNLESS(variable && variable->IsPlain() && TWO_NUMBERS)                          \
    const double a = top[-2].value.number, b = top[-1].value.number;                       \
    top -= 2;                                                                              \
    variable->Write_Double(result);                                                        \
    NEXT(2)                                                                                \
  }                                                                                        \
  on_##name##Return: {                                                                     \
    SINGLE_UNLESS(frame->return_code == code_serial && TWO_NUMBERS)                        \
    const double a = top[-2].value.number, b = top[-1].value.number;                       \
    top -= 2;                                                                              \
    number_passed = result;                                                                \
    goto return_number;                                                                    \
  }                                                                                        \
  on_##name##Constant: {                                                                   \
    SINGLE_UNLESS(HAS_ROOM && ONE_NUMBER)                                                  \
    const double a = top[-1].value.number, b = op->number;                                 \
    top[-1].value.number = result;                                                         \
    NEXT(2)                                                                                \
  }                                                                                        \
  on_##name##Variable: {                                                                   \
    variable = VARIABLE(op);                                                               \
    SINGLE_UNLESS(HAS_ROOM && IS_NUMBER(variable) && ONE_NUMBER)                           \
    const double a = top[-1].value.number, b = NumberOf(variable);                         \
    top[-1].value.number = result;                                                         \
    NEXT(2)                                                                                \
  }                                                                                        \
  on_##name##Element: {                                                                    \
    double b; int number;                                                                  \
    variable = VARIABLE(op);                                                               \
    TELL_STACK                                                                             \
    SINGLE_UNLESS(HAS_ROOM && HOLDS_ONE && IsNumber<HasNumberSlow>(top - 1) && variable && \
                  IntegerOf(VARIABLE(op + 1), &number) && number >= 1 &&                   \
                  variable->ReadElement(number, &b))                                       \
    if (!IsDouble(top - 1)) MakeDouble<HasNumberSlow>(top);                              \
    const double a = top[-1].value.number;                                                 \
    top[-1].value.number = result;                                                         \
    NEXT(4)                                                                                \
  }                                                                                        \
  on_##name##Variables: {                                                                  \
    variable = VARIABLE(op);                                                               \
    other = VARIABLE(op + 1);                                                              \
    double b;                                                                              \
    SINGLE_UNLESS(HAS_ROOM && IS_NUMBER(variable) && FIND_NUMBER(other, &b))               \
    const double a = NumberOf(variable);                                                   \
    PUSH(SetDouble(result))                                                                \
    NEXT(3)                                                                                \
  }                                                                                        \
  on_##name##VariableConstant: {                                                           \
    variable = VARIABLE(op);                                                               \
    double a;                                                                              \
    SINGLE_UNLESS(HAS_ROOM && FIND_NUMBER(variable, &a))                                   \
    const double b = op[1].number;                                                         \
    PUSH(SetDouble(result))                                                                \
    NEXT(3)                                                                                \
  }                                                                                        \
  on_##name##VariableConstantCall: {                                                       \
    variable = VARIABLE(op);                                                               \
    double a;                                                                              \
    SINGLE_UNLESS(HAS_ROOM && FIND_NUMBER(variable, &a))                                   \
    const double b = op[1].number;                                                         \
    number_passed = result;                                                                \
    op += 3;                                                                               \
    goto call_with_number;                                                                 \
  }                                                                                        \
  UPDATE(Update##name##Constant, true, op[1].number, result)                               \
  UPDATE(Update##name##Variable, (other = VARIABLE(op + 1), IS_NUMBER(other)),             \
         NumberOf(other), result)
// An operation on the variable on top, or on the one that was just found and is not on the stack.
// The other operand may be the same variable, so it is read before the result is written.
#define UPDATE(name, condition, operand, result)                                           \
  on_##name: {                                                                             \
    SINGLE_UNLESS(HAS_ROOM && HOLDS_ONE && top[-1].kind == ZephVM_Stack::KindVariable)     \
    variable = top[-1].value.variable->Real();                                             \
    double a;                                                                              \
    SINGLE_UNLESS((condition) && Find<HasNumberSlow>(variable, &a))                      \
    const double b = operand;                                                              \
    variable->Write_Double(result);                                                        \
    --top;                                                                                 \
    ZephVM_Stack::Free(top);                                                               \
    NEXT(5)                                                                                \
  }                                                                                        \
  found_##name: {                                                                          \
    double a;                                                                              \
    if (!((condition) && Find<HasNumberSlow>(variable, &a))) [[unlikely]] goto push_found; \
    const double b = operand;                                                              \
    variable->Write_Double(result);                                                        \
    NEXT(5)                                                                                \
  }
// A comparison of a and b. If either is NaN, their order counts as above 0. Texts are compared by the
// stack.
#define COMPARISON(name, holds, ordered)                                                   \
  on_##name: {                                                                             \
    if (!TWO_COMPARABLE) [[unlikely]] {                                                    \
      LEAVE_UNLESS(HOLDS_TWO && IsOrdinary(top - 1) && IsOrdinary(top - 2))                \
      int order;                                                                           \
      if (ZephVM_Stack::CompareWords(top - 2, top - 1, &order)) {                          \
        REPLACE_TWO(SetInteger(ordered))                                                   \
        NEXT_AFTER_WORK(1)                                                                 \
      }                                                                                    \
      TELL_STACK                                                                           \
      order = s->Compare();                                                                \
      ASK_STACK                                                                            \
      PUSH(SetInteger(ordered))                                                            \
      NEXT_AFTER_WORK(1)                                                                   \
    }                                                                                      \
    const double a = top[-2].value.number, b = top[-1].value.number;                       \
    --top;                                                                                 \
    top[-1].SetInteger(holds);                                                             \
    NEXT(1)                                                                                \
  }                                                                                        \
  on_##name##ConstantJump: {                                                               \
    SINGLE_UNLESS(HAS_ROOM && ONE_COMPARABLE)                                              \
    --top;                                                                                 \
    const double a = top->value.number, b = op->number;                                    \
    JUMP_IF((holds) == (op[2].single == HotAction::JumpNotEqual), op + 2, 3)               \
  }                                                                                        \
  on_##name##VariableConstantJump: {                                                       \
    variable = VARIABLE(op);                                                               \
    double a;                                                                              \
    SINGLE_UNLESS(HAS_ROOM && FIND_COMPARABLE(variable, &a))                               \
    const double b = op[1].number;                                                         \
    JUMP_IF((holds) == (op[3].single == HotAction::JumpNotEqual), op + 3, 4)               \
  }                                                                                        \
  on_##name##VariablesJump: {                                                              \
    variable = VARIABLE(op);                                                               \
    other = VARIABLE(op + 1);                                                              \
    double b;                                                                              \
    SINGLE_UNLESS(HAS_ROOM && IS_COMPARABLE(variable) && FIND_COMPARABLE(other, &b))       \
    const double a = NumberOf(variable);                                                   \
    JUMP_IF((holds) == (op[3].single == HotAction::JumpNotEqual), op + 3, 4)               \
  }
// An operation on the bits of two integers, and one on two truths. The handler does what is slow.
#define BITS(name, result)                                                                 \
  on_##name: {                                                                             \
    int a, b;                                                                              \
    if (!(HOLDS_TWO && IntegerIn(top - 2, &a) && IntegerIn(top - 1, &b))) goto on_Handler; \
    REPLACE_TWO(SetInteger(result))                                                        \
    NEXT(1)                                                                                \
  }
#define LOGIC(name, result)                                                                \
  on_##name: {                                                                             \
    bool a, b;                                                                             \
    if (!(HOLDS_TWO && FindTruth(top - 2, &a) && FindTruth(top - 1, &b))) goto on_Handler; \
    REPLACE_TWO(SetInteger(result))                                                        \
    NEXT(1)                                                                                \
  }
#define JUMP_ON(name, holds)                                                               \
  on_##name: {                                                                             \
    int order;                                                                             \
    LEAVE_UNLESS(HOLDS_ONE && top[-1].kind == ZephVM_Stack::KindInteger)                   \
    --top;                                                                                 \
    order = top->value.integer;                                                            \
    JUMP_IF(holds, op, 1)                                                                  \
  }
#define ELEMENT(name, create)                                                              \
  on_##name: {                                                                             \
    int number;                                                                            \
    LEAVE_UNLESS(HOLDS_TWO && top[-2].kind == ZephVM_Stack::KindVariable)                  \
    variable = top[-2].value.variable->Real();                                             \
    LEAVE_UNLESS(variable->IsPlain() && IntegerIn(top - 1, &number) && number >= 1)        \
    TELL_STACK                                                                             \
    DenseSlot bare;                                                                        \
    if (!(create) && VALUE_SUFFICES(op + 1) && variable->FindBare(number, &bare)) {        \
      if (bare.IsInteger()) REPLACE_TWO(SetInteger(bare.integer()))                        \
      else REPLACE_TWO(SetDouble(bare.number()))                                           \
      NEXT(1)                                                                              \
    }                                                                                      \
    variable = variable->At(number, create);                                               \
    if (!variable) variable = null_variable;                                               \
    variable->Hold();                                                                      \
    REPLACE_TWO(SetOwned(variable))                                                        \
    NEXT(1)                                                                                \
  }                                                                                        \
  on_##name##OfVariable: {                                                                 \
    int number;                                                                            \
    variable = VARIABLE(op);                                                               \
    SINGLE_UNLESS(HAS_ROOM && variable && variable->IsPlain() &&                           \
                  IntegerOf(VARIABLE(op + 1), &number) && number >= 1)                     \
    WAKE(variable)                                                                         \
    TELL_STACK                                                                             \
    DenseSlot bare;                                                                        \
    if (!(create) && VALUE_SUFFICES(op + 3) && variable->FindBare(number, &bare)) {        \
      if (bare.IsInteger()) PUSH(SetInteger(bare.integer()))                               \
      else PUSH(SetDouble(bare.number()))                                                  \
      NEXT(3)                                                                              \
    }                                                                                      \
    variable = variable->At(number, create);                                               \
    PUSH(SetVariable(variable ? variable : null_variable))                                 \
    NEXT(3)                                                                                \
  }
#define MEMBER(name, create)                                                               \
  on_##name: {                                                                             \
    LEAVE_UNLESS(HOLDS_TWO && top[-2].kind == ZephVM_Stack::KindVariable)                  \
    const char* text;                                                                      \
    int length;                                                                            \
    variable = top[-2].value.variable->Real();                                             \
    LEAVE_UNLESS(variable->IsPlain() && FindName(top - 1, variable, &text, &length))       \
    TELL_STACK                                                                             \
    variable = variable->Member(text, length, create);                                     \
    if (!variable) variable = null_variable;                                               \
    variable->Hold();                                                                      \
    REPLACE_TWO(SetOwned(variable))                                                        \
    NEXT(1)                                                                                \
  }                                                                                        \
  on_##name##OfVariable: {                                                                 \
    variable = VARIABLE(op);                                                               \
    SINGLE_UNLESS(HAS_ROOM && variable && variable->IsPlain())                             \
    WAKE(variable)                                                                         \
    TELL_STACK                                                                             \
    variable = variable->Member(op[1].text, op[1].length, create);                         \
    PUSH(SetVariable(variable ? variable : null_variable))                                 \
    NEXT(3)                                                                                \
  }
// Runs the update at the current record on the variable that was found.
#define UPDATE_FOUND __extension__({ \
  goto *updates[static_cast<int>(op->action) - static_cast<int>(HotAction::UpdateAddConstant)]; });
  // clang-format on

  goto entered;

on_PushInteger:
  LEAVE_UNLESS(HAS_ROOM)
  PUSH(SetInteger(op->first))
  NEXT(1)
on_PushDouble:
  LEAVE_UNLESS(HAS_ROOM)
  PUSH(SetDouble(op->number))
  NEXT(1)
on_PushText:
  LEAVE_UNLESS(HAS_ROOM)
  PUSH(SetText(op->text, op->length))
  NEXT(1)
on_PushVariable:
  variable = ROW_OF(op);
  LEAVE_UNLESS(HAS_ROOM)
  if (!variable) [[unlikely]] {
    TELL_STACK
    variable = MADE_AT(op);
    LEAVE_UNLESS(variable)
  }
  WAKE(variable)
  PUSH(SetVariable(variable))
  NEXT(1)
on_PopVariable:
  variable = VARIABLE(op);
  LEAVE_UNLESS(HOLDS_ONE)
  if (!variable) [[unlikely]] {
    TELL_STACK
    variable = MADE_AT(op);
    LEAVE_UNLESS(variable)
  }
  if (variable->IsPlain() && top[-1].kind <= ZephVM_Stack::KindDouble) {
    --top;
    if (top->kind == ZephVM_Stack::KindDouble) {
      variable->Write_Double(top->value.number);
    } else {
      variable->Write_Integer(top->value.integer);
    }
    NEXT(1)
  }
  LEAVE_UNLESS(variable->IsOrdinary())
  WAKE(variable)
  if (top[-1].kind == ZephVM_Stack::KindVariable &&
      variable->CopyNumber(*top[-1].value.variable->Real())) {
    --top;
    ZephVM_Stack::Free(top);
    NEXT(1)
  }
  if (!IsOrdinary(top - 1)) goto pop_computed;
  if (top[-1].deferred) {
    --top;
    TELL_STACK
    top->value.pending->Assign(variable, top->kind == ZephVM_Stack::KindLinkBuffer);
    NEXT_AFTER_WORK(1)
  }
  TELL_STACK
  s->PopV(variable);
  ASK_STACK
  NEXT_AFTER_WORK(1)
// The source computes its value, as the variables of databases do: as after a handler, any flag may
// be set.
pop_computed:
  TELL_STACK
  instruction_start = op->start;
  program_counter = op[1].start;
  s->PopV(variable);
  if (stop_flag | RAISED) return;
  ASK_STACK
  NEXT(1)
on_Pop:
  LEAVE_UNLESS(HOLDS_ONE)
  --top;
  ZephVM_Stack::Free(top);
  NEXT(1)
on_Dup:
  LEAVE_UNLESS(HOLDS_ONE && HAS_ROOM)
  TELL_STACK
  s->Dupe();
  ASK_STACK
  NEXT(1)
on_Store:
  LEAVE_UNLESS(HOLDS_TWO && top[-1].kind == ZephVM_Stack::KindVariable)
  variable = top[-1].value.variable->Real();
  LEAVE_UNLESS(variable->IsPlain() && IsNumberOrPlain(top - 2))
  if (top[-2].kind == ZephVM_Stack::KindVariable) {
    TELL_STACK
    variable->SetValue(*top[-2].value.variable);
    top -= 2;
    ZephVM_Stack::Free(top + 1);
    ZephVM_Stack::Free(top);
    NEXT_AFTER_WORK(1)
  }
  if (top[-2].kind == ZephVM_Stack::KindDouble) {
    variable->Write_Double(top[-2].value.number);
  } else {
    variable->Write_Integer(top[-2].value.integer);
  }
  top -= 2;
  ZephVM_Stack::Free(top + 1);
  NEXT(1)
on_Concatenate:
  LEAVE_UNLESS(HOLDS_TWO && IsOrdinary(top - 1) && IsOrdinary(top - 2))
  TELL_STACK
  s->Concatenate();
  ASK_STACK
  NEXT_AFTER_WORK(1)
on_ConcatenateText:
  SINGLE_UNLESS(HAS_ROOM && HOLDS_ONE && top[-1].deferred)
  TELL_STACK
  top[-1].AppendDeferred(op->text, op->length);
  NEXT(2)
on_ConcatenateVariable:
  variable = VARIABLE(op);
  SINGLE_UNLESS(HAS_ROOM && HOLDS_ONE && top[-1].deferred && variable && variable->IsOrdinary())
  WAKE(variable)
  TELL_STACK
  if (variable->plain_forms() == Variable::IntegerForm) {
    top[-1].AppendDeferred(variable->plain_integer());
  } else {
    top[-1].AppendDeferred(variable);
  }
  NEXT(2)
on_ConcatenateTextVariable : {
  variable = VARIABLE(op + 1);
  SINGLE_UNLESS(HAS_ROOM && variable && op->length <= ZephVM_Stack::ShortText)
  TELL_STACK
  const unsigned forms = variable->plain_forms();
  if (forms == Variable::IntegerForm) {
    PUSH(SetDeferred(op->text, op->length, variable->plain_integer()))
  } else {
    SINGLE_UNLESS((forms & Variable::TextForm) != 0 &&
                  variable->plain_text().length <= ZephVM_Stack::ShortText)
    PUSH(SetDeferred(op->text, op->length, variable))
  }
  NEXT(3)
}
on_ConcatenateVariableText : {
  variable = VARIABLE(op);
  SINGLE_UNLESS(HAS_ROOM && variable && (variable->plain_forms() & Variable::TextForm) != 0)
  TELL_STACK
  DeferredText* const text = DeferredText::Begin(variable);
  SINGLE_UNLESS(text)
  top->SetDeferred(text);
  ++top;
  TELL_STACK
  text->Append(op[1].text, op[1].length);
  NEXT(3)
}
on_Swap:
  LEAVE_UNLESS(HOLDS_TWO)
  s->Swap(top - 1, top - 2);
  NEXT(1)
  ARITHMETIC(Add, a + b)
  ARITHMETIC(Sub, a - b)
  ARITHMETIC(Mul, a * b)
  ARITHMETIC(Div, a == 0.0 ? 0.0 : a / b)
on_Mod : {
  int order, number;
  LEAVE_UNLESS(HOLDS_TWO && IntegerIn(top - 2, &order) && IntegerIn(top - 1, &number))
  REPLACE_TWO(SetInteger(Remainder(order, number)))
  NEXT(1)
}
on_ModConstant : {
  int order;
  SINGLE_UNLESS(HAS_ROOM && HOLDS_ONE && IntegerIn(top - 1, &order))
  REPLACE_ONE(SetInteger(Remainder(order, op->first)))
  NEXT(2)
}
on_ModVariableConstant : {
  int order;
  SINGLE_UNLESS(HAS_ROOM && IntegerOf(VARIABLE(op), &order))
  PUSH(SetInteger(Remainder(order, op[1].first)))
  NEXT(3)
}
on_ModVariableConstantJump : {
  int order;
  SINGLE_UNLESS(HAS_ROOM && IntegerOf(VARIABLE(op), &order))
  order = Remainder(order, op[1].first);
  JUMP_IF((order != 0) == (op[3].single == HotAction::JumpNotEqual), op + 3, 4)
}
  COMPARISON(Equal, a == b, order == 0)
  COMPARISON(NotEqual, !(a == b), order != 0)
  COMPARISON(Less, a < b, order < 0)
  COMPARISON(LessEqual, a <= b, order <= 0)
  COMPARISON(Greater, !(a <= b), order > 0)
  COMPARISON(GreaterEqual, !(a < b), order >= 0)
  BITS(BitAnd, a & b)
  BITS(BitOr, a | b)
  BITS(BitXor, a ^ b)
  BITS(ShiftLeft, static_cast<int>(static_cast<unsigned>(a) << (b & 31)))
  BITS(ShiftRight, a >> (b & 31))
on_BitNot : {
  int number;
  if (!(HOLDS_ONE && IntegerIn(top - 1, &number))) goto on_Handler;
  REPLACE_ONE(SetInteger(~number))
  NEXT(1)
}
  LOGIC(And, a && b)
  LOGIC(Or, a || b)
on_Not : {
  bool truth;
  if (!(HOLDS_ONE && FindTruth(top - 1, &truth))) goto on_Handler;
  REPLACE_ONE(SetInteger(!truth))
  NEXT(1)
}

on_Jump:
  JUMP(op)
  JUMP_ON(JumpEqual, order == 0)
  JUMP_ON(JumpNotEqual, order != 0)
  JUMP_ON(JumpLess, order < 0)
  JUMP_ON(JumpLessEqual, order <= 0)
  JUMP_ON(JumpGreater, order > 0)
  JUMP_ON(JumpGreaterEqual, order >= 0)

on_CompareConstant : {
  int order;
  LEAVE_UNLESS(HAS_ROOM && FindOrder(ROW_OF(op), op->second, &order))
  PUSH(SetInteger(order - 1))
  NEXT(1)
}
on_CompareConstantJump : {
  int order;
  LEAVE_UNLESS(HAS_ROOM && FindOrder(ROW_OF(op), op->second, &order))
  JUMP_IF(Jumps(op + 1, order), op + 1, 2)
}
on_CompareGlobals : {
  int order;
  LEAVE_UNLESS(HAS_ROOM)
  if (!FindOrder(ROW_OF(op), SECOND_ROW(op), &order)) goto on_Handler;
  PUSH(SetInteger(order - 1))
  NEXT(1)
}
on_CompareGlobalsJump : {
  int order;
  LEAVE_UNLESS(HAS_ROOM)
  if (!FindOrder(ROW_OF(op), SECOND_ROW(op), &order)) goto on_Handler;
  JUMP_IF(Jumps(op + 1, order), op + 1, 2)
}
on_ModGlobals : {
  int order, number;
  LEAVE_UNLESS(HAS_ROOM && IntegerOf(ROW_OF(op), &order) && IntegerOf(SECOND_ROW(op), &number) &&
               number != 0)
  PUSH(SetInteger(Remainder(order, number)))
  NEXT(1)
}
on_ModGlobalsJump : {
  int order, number;
  LEAVE_UNLESS(HAS_ROOM && IntegerOf(ROW_OF(op), &order) && IntegerOf(SECOND_ROW(op), &number) &&
               number != 0)
  JUMP_IF(Jumps(op + 1, OrderOf(Remainder(order, number), 0)), op + 1, 2)
}
on_Increment : {
  int number;
  variable = ROW_OF(op);
  LEAVE_UNLESS(IntegerOf(variable, &number))
  variable->Write_Integer(WrapAdd(number, op->second));
  NEXT(1)
}
on_IncrementCompareJump : {
  variable = ROW_OF(op);
  SINGLE_UNLESS(HAS_ROOM && variable && variable->HoldsInteger())
  const int number = WrapAdd(variable->plain_integer(), op->second);
  variable->Write_Integer(number);
  JUMP_IF(Jumps(op + 2, OrderOf(number, op[1].second)), op + 2, 3)
}
on_StoreConstant:
  variable = ROW_OF(op);
  LEAVE_UNLESS(variable && variable->IsPlain())
  variable->Write_Integer(op->second);
  NEXT(1)
on_Line:
  LEAVE_UNLESS(!log_gate.Wants(Log_Trace))
  current_line = op->first;
  NEXT(1)
on_SourceFile:
  if (source_file != op->first) {
    traced_line = 0;
    source_file = op->first;
    source_name = nullptr;
  }
  NEXT(1)
  ELEMENT(Element, 1)
  ELEMENT(ElementReadOnly, 0)
  MEMBER(Member, 1)
  MEMBER(MemberReadOnly, 0)
on_ElementOfVariableUpdate : {
  int number;
  variable = VARIABLE(op);
  SINGLE_UNLESS(HAS_ROOM && variable && variable->IsPlain() &&
                IntegerOf(VARIABLE(op + 1), &number) && number >= 1)
  WAKE(variable)
  TELL_STACK
  variable = variable->At(number, 1);
  op += 3;
  UPDATE_FOUND
}
on_MemberOfVariableUpdate:
  variable = VARIABLE(op);
  SINGLE_UNLESS(HAS_ROOM && variable && variable->IsPlain())
  WAKE(variable)
  TELL_STACK
  variable = variable->Member(op[1].text, op[1].length, 1);
  op += 3;
  if (!variable) [[unlikely]]
    variable = null_variable;
  UPDATE_FOUND
push_found:
  PUSH(SetVariable(variable))
  RAN(op)
  GO_TO(op->single);
on_ElementOfVariableStore : {
  int number;
  SINGLE_UNLESS(HAS_ROOM && HOLDS_ONE)
  variable = VARIABLE(op);
  SINGLE_UNLESS(variable && IntegerOf(VARIABLE(op + 1), &number) && number >= 1)
  TELL_STACK
  if (top[-1].kind == ZephVM_Stack::KindDouble) {
    SINGLE_UNLESS(variable->WriteElement(number, top[-1].value.number))
  } else if (top[-1].kind == ZephVM_Stack::KindInteger) {
    SINGLE_UNLESS(variable->WriteElement(number, top[-1].value.integer))
  } else {
    SINGLE_UNLESS(top[-1].kind == ZephVM_Stack::KindVariable)
    const Variable* source = top[-1].value.variable;
    const unsigned forms = source->plain_forms();
    if (forms == Variable::IntegerForm) {
      SINGLE_UNLESS(variable->WriteElement(number, source->plain_integer()))
    } else {
      SINGLE_UNLESS(forms == Variable::DoubleForm &&
                    variable->WriteElement(number, source->plain_double()))
    }
  }
  --top;
  ZephVM_Stack::Free(top);
  NEXT(4)
}
on_ElementStore : {
  int number;
  SINGLE_UNLESS(top - 2 > bottom && top[-2].kind == ZephVM_Stack::KindVariable &&
                top[-3].kind <= ZephVM_Stack::KindDouble && IntegerIn(top - 1, &number) &&
                number >= 1)
  variable = top[-2].value.variable->Real();
  TELL_STACK
  if (top[-3].kind == ZephVM_Stack::KindDouble) {
    SINGLE_UNLESS(variable->WriteElement(number, top[-3].value.number))
  } else {
    SINGLE_UNLESS(variable->WriteElement(number, top[-3].value.integer))
  }
  ZephVM_Stack::Free(top - 1);
  ZephVM_Stack::Free(top - 2);
  top -= 3;
  NEXT(2)
}
on_Handler:
  TELL_STACK
  instruction_start = op->start;
  first_integer = op->first;
  second_integer = op->second;
  program_counter = op[1].start;
  switch (op->code) {
#define CALL_InLine(name)
#define CALL_Handler(name)
#define CALL_HotHandler(name)    \
  case Instruction::code_##name: \
    name();                      \
    break;
#define CALL_Absent(name)
#define INSTRUCTION(word, identifier, name, first, second, run, listed, effect) \
  CALL_##run(identifier)
#include "base/compiled/Instructions.def"
#undef INSTRUCTION
#undef CALL_Absent
#undef CALL_HotHandler
#undef CALL_Handler
#undef CALL_InLine
  }
  if (stop_flag | RAISED) return;
  ASK_STACK
  NEXT(1)
on_OutText:
  SINGLE_UNLESS(HAS_ROOM)
  TELL_STACK
  if (application->output()->Put(op->text, op->length)) NEXT(2)
  goto written;
on_OutVariable : {
  variable = VARIABLE(op);
  SINGLE_UNLESS(HAS_ROOM && variable)
  TELL_STACK
  const unsigned forms = variable->plain_forms();
  if (forms & Variable::TextForm) {
    const String& text = variable->plain_text();
    SINGLE_UNLESS(text.data)
    if (application->output()->Put(text.data, text.length)) NEXT(2)
  } else {
    SINGLE_UNLESS(forms == Variable::IntegerForm)
    char digits[20];
    const char* const end =
        std::to_chars(digits, digits + sizeof digits, variable->plain_integer()).ptr;
    if (application->output()->Put(digits, static_cast<int>(end - digits))) NEXT(2)
  }
  goto written;
}
on_OutRounded : {
  char text[MostRounded];
  SINGLE_UNLESS(HAS_ROOM && HOLDS_ONE && IsNumber<HasNumberSlow>(top - 1))
  const int length = WriteRounded(NumberIn(top - 1), op->first, text);
  SINGLE_UNLESS(length > 0)
  --top;
  ZephVM_Stack::Free(top);
  TELL_STACK
  if (application->output()->Put(text, length)) NEXT(3)
  op++;
}
// The output may set a flag, for example because the client has gone.
written:
  op += 2;
  if (stop_flag | RAISED) goto on_Leave;
  RAN(op)
  GO_TO(op->action);

// Most calls are of functions in this code, with numbers as arguments and a kept frame. HAS_ROOM
// also ensures that the result fits on the caller's stack, so return_number need not test that.
on_Call:
  if (!(KNOWS_CALLED && HAS_ROOM)) [[unlikely]]
    goto unknown_called;
  if (called->simple_parameters == 1 && HOLDS_ONE && IsDouble(top - 1) && locals->variable &&
      called->references == 0) {
    --top;
    locals->variable->Begin(top->value.number);
  } else {
    const int count = called->simple_parameters;
    if (top - count < bottom || !AreArguments(called->references, count, top)) goto call;
    TELL_STACK
    top = MoveArguments(called->variables, called->references, count, s, &patience);
  }
enter : {
  ZephVM_Frame* const caller = frame;
  RAN_UP_TO(op, called->simple_parameters)
  TELL_STACK
  idle_frames[static_cast<unsigned>(op->first)] = called->next_idle;
  called->return_offset = op[1].start;
  called->return_op = op + 1;
  called->error_output = caller->error_output;
  called->output_mode = called->simple_mode;
  called->previous = caller;
  if (hot_mode != called->simple_mode) [[unlikely]]
    SetOutputMode(called->simple_mode);
  frame_count++;
  op = called->entry;
  rows[1] = locals;
  EnterFrame(called);
  s = called->stack;
  ASK_STACK
  STARTED
  if (--patience == 0) [[unlikely]]
    goto look;
  GO_TO(op->action);
}
// In most cases the number is the only argument and goes straight into its variable. Otherwise it
// is pushed.
call_with_number:
  if (KNOWS_CALLED && called->simple_parameters == 1 && locals->variable && called->references == 0)
      [[likely]] {
    locals->variable->Begin(number_passed);
    goto enter;
  }
  PUSH(SetDouble(number_passed))
  goto on_Call;
unknown_called:
  if (called && called->simple_parameters >= 0 && called->return_code != code_serial &&
      called->entry_segment == loaded_segment) {
    called->entry = hot->At(called->entry_offset);
    if (called->entry) {
      called->return_segment = loaded_segment;
      called->return_code = code_serial;
      called->returns_hot = true;
      goto on_Call;
    }
  }
call : {
  RAN(op)
  TELL_STACK
  Function* function = functions ? functions->Lookup(op->first) : nullptr;
  LEAVE_UNLESS(function && !log_gate.Wants(Log_OfCalls))
  instruction_start = op->start;
  program_counter = op[1].start;
#ifndef NDEBUG
  const InstructionCheck check(this, Instruction::code_call, op->first);
#endif
  if (function->flags() & Function_External) {
    CallExternalFunction(function);
    hot_mode = NoMode;
  } else {
    CallFunction(function);
  }
  goto moved;
}

on_ReturnNothing : {
  LEAVE_UNLESS(frame->returns_hot)
  ZephVM_Stack* const callers = frame->previous->stack;
  Entry* const value = callers->End();
  LEAVE_UNLESS(callers->HasRoom(1))
  value->SetText("", 0);
  callers->SetEnd(value + 1);
  goto returned;
}
on_Return : {
  LEAVE_UNLESS(frame->returns_hot && HOLDS_ONE)
  ZephVM_Stack* const callers = frame->previous->stack;
  Entry* const value = callers->End();
  LEAVE_UNLESS(callers->HasRoom(1))
  // A borrowed variable may be a local one, which does not outlive the call.
  LEAVE_UNLESS(top[-1].kind != ZephVM_Stack::KindVariable || top[-1].deletable)
  --top;
  value->CopyFrom(*top);
  callers->SetEnd(value + 1);
  goto returned;
}
// If the caller uses only the value of the result, pass that and leave the variable. The variable
// must have no other form and no other holder.
on_ReturnVariable : {
  variable = ROW_OF(op);
  SINGLE_UNLESS(HAS_ROOM && variable && frame->return_code == code_serial)
  const HotOp* const use = static_cast<ZephVM_FunctionFrame*>(frame)->return_op;
  SINGLE_UNLESS(
      (use->after_value || IsPlainTarget(use, frame->previous->variables, rows[0], counts[0])) &&
      variable->IsPlain() && variable->plain_count() == 1)
  if (FindAlone(variable, &number_passed)) {
    if (use->after_number || variable->HoldsDouble()) goto return_number;
    Entry* const value = frame->previous->stack->End();
    value->SetInteger(variable->plain_integer());
    frame->previous->stack->SetEnd(value + 1);
    goto returned;
  }
  char* text;
  int length, allocated;
  // As a number, a text on the stack may be another one than the variable that had it.
  SINGLE_UNLESS(!use->after_number && variable->TakeText(&text, &length, &allocated))
  Entry* const value = frame->previous->stack->End();
  value->SetOwnedText(text, length, allocated);
  frame->previous->stack->SetEnd(value + 1);
  goto returned;
}
return_number : {
  ZephVM_Stack* const callers = frame->previous->stack;
  Entry* const value = callers->End();
  value->SetDouble(number_passed);
  callers->SetEnd(value + 1);
}
// The value is on the caller's stack. Whatever else the function left on its own stack is freed,
// and the frame is kept.
returned : {
  while (HOLDS_ONE) [[unlikely]] ZephVM_Stack::Free(--top);
  TELL_STACK
  called = static_cast<ZephVM_FunctionFrame*>(frame);
  ZephVM_Frame* const caller = called->previous;
  frame = caller;
  stack = s = caller->stack;
  frame_count--;
  if (called->return_code == code_serial && called->variables->Renew(*called->locals)) [[likely]] {
    op = called->return_op;
    ZephVM_FunctionFrame** const idle = &idle_frames[called->place];
    called->next_idle = *idle;
    *idle = called;
  } else {
    wanted_segment = called->return_segment;
    program_counter = called->return_offset;
    op = wanted_segment == loaded_segment ? hot->At(program_counter) : nullptr;
    KeepFrame(called);
  }
  if (hot_mode != caller->output_mode) [[unlikely]]
    SetOutputMode(caller->output_mode);
  if (!op) [[unlikely]]
    return;
  ASK_STACK
  rows[1] = caller->variables->Rows(&counts[1]);
  GO_TO(op->action);
}

look:
  patience = kPatience;
  if (RAISED) goto on_Leave;
  GO_TO(op->action);

// The called code may have written to this segment, which drops its decoded form.
moved:
  if (stop_flag || wanted_segment != loaded_segment || segment->hot() != hot || RAISED) return;
  op = hot->At(program_counter);
  if (!op) return;
entered:
  s = stack;
  ASK_STACK
  rows[0] = global_variables->Rows(&counts[0]);
  rows[1] = frame->variables->Rows(&counts[1]);
  GO_TO(op->action);

on_Leave:
  if (!stop_flag) {
    RAN(op)
  }
  TELL_STACK
  program_counter = op->start;
#undef GO_TO
#undef STARTED
#undef RAN
#undef RAN_UP_TO
#undef NEXT
#undef RAISED
#undef NEXT_AFTER_WORK
#undef SINGLE_UNLESS
#undef LEAVE_UNLESS
#undef JUMP
#undef JUMP_IF
#undef ROW_AT
#undef ROW_OF
#undef MADE_AT
#undef VARIABLE_AT
#undef VARIABLE
#undef SECOND_ROW
#undef WAKE
#undef TELL_STACK
#undef ASK_STACK
#undef PUSH
#undef REPLACE_ONE
#undef REPLACE_TWO
#undef HOLDS_ONE
#undef HOLDS_TWO
#undef HAS_ROOM
#undef ONE_NUMBER
#undef ONE_COMPARABLE
#undef TWO_DOUBLES
#undef TWO_NUMBERS
#undef TWO_COMPARABLE
#undef IS_NUMBER
#undef IS_COMPARABLE
#undef FIND_NUMBER
#undef FIND_COMPARABLE
#undef KNOWS_CALLED
#undef VALUE_SUFFICES
#undef ARITHMETIC
#undef UPDATE
#undef UPDATE_FOUND
#undef COMPARISON
#undef BITS
#undef LOGIC
#undef JUMP_ON
#undef ELEMENT
#undef MEMBER
}
