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
//   HotLoop: elements         elements and members on the stack
//   HotLoop: handlers         instructions that a handler runs, and the output
//   HotLoop: groups           the records of groups, which work on operands
//   HotLoop: calls            call, return, and the way back into the loop

#include <atomic>
#include <bit>
#include <cassert>
#include <climits>
#include <cstddef>
#include <cstring>
#include <memory>

#include "base/compiled/Function.h"
#include "base/compiled/HotCode.h"
#include "base/compiled/Instructions.h"
#include "base/compiled/Segment.h"
#include "base/compiled/VariableHash.h"
#include "base/core/CopyText.h"
#include "base/core/NumberText.h"
#include "base/core/Output.h"
#include "base/core/SameBytes.h"
#include "base/core/string_search.h"
#include "base/host/ZephApplication.h"
#include "base/machine/HotOperations.h"
#include "base/machine/InstructionCheck.h"
#include "base/machine/NativeCompiler.h"
#include "base/machine/NativeRun.h"
#include "base/machine/ZephVM.h"
#include "base/values/Aggregate.h"
#include "base/values/Variable.h"
#include "base/values/VariableRef.h"

using namespace hot;

inline bool ZephVM::IsBound(int index) const {
  const ExternalParameters* const next = idle_parameters.Next(index);
  return next && next->is_regular() && functions->Lookup(index) == next->function() &&
         !log_gate.Wants(Log_OfCalls);
}

void ZephVM::RunHot(const HotCode* hot, const HotOp* op) {
  const auto all = static_cast<size_t>(functions ? functions->Functions() : 0);
  if (idle_frames.size() < all) idle_frames.resize(all);
  const bool outer = in_hot;
  in_hot = true;
  HotLoop(hot, op);
  in_hot = outer;
  hot_mode = NoMode;
}

void ZephVM::RunHandler(int number) {
  switch (number) {
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
}

void ZephVM::HotLoop(const HotCode* hot, const HotOp* op) {
  int* const timedout = timedout_flag;
  int* const ended = exit_flag;
  int* const beats = heartbeat_counter;
  // Of the current frame: its stack, the end and the beginning of its entries, and the last end at
  // which any action has room to push; and the rows of both tables of variables, the globals first.
  // All rows that the groups of the code name can be read, whether the table has them or not.
  ZephVM_Stack* s;
  Entry* top;
  // The third, by the number of HotOperand::Place, has the places of a group.
  NativeRun run;
  const _VH_Entry** const rows = run.rows;
  unsigned* const counts = run.counts;
  Entry* bottom;
  Entry* limit;
  Variable* variable = nullptr;
  const Variable* other = nullptr;
  // For a call or a return.
  ZephVM_FunctionFrame* called = nullptr;
  const _VH_Entry* locals = nullptr;
  unsigned local_count = 0;
  double number_passed = 0.0;
  // For groups.
  Variable* first_row;
  Variable* second_row;
  Temporaries& temporaries = run.temporaries;
  long code_serial = hot->serial();
  int& patience = run.patience;  // jumps and calls until the next poll of the host's flags
  unsigned elapsed = 0;          // and how many there were until the last poll

// The address of each action. Each action ends with a jump of its own to the next one, because
// processors predict these better than one jump that all share.
#define ACTION(name) &&on_##name,
  __extension__ static const void* const places[] = {ZEPH_HOT_ACTIONS};
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
#define RAN_UP_TO(end, consumed)                                             \
  assert(InstructionCheck::Agree(started->plain, (end)->plain, started_with, \
                                 static_cast<long>(top - bottom) + (consumed)));
#endif
#define RAN(end) RAN_UP_TO(end, 0)

// clang takes minutes for a function in which hundreds of jumps may go to hundreds of places, so
// its builds, which are for tests, have one such jump.
#ifdef __clang__
  const void* place;
#define GO_TO_PLACE(address) \
  {                          \
    place = address;         \
    goto dispatch;           \
  }
#else
#define GO_TO_PLACE(address) __extension__({ goto*(address); });
#endif
// Of a record that has another action from here on.
#define SET_ACTION(record, other)                                    \
  {                                                                  \
    (record)->action = other;                                        \
    (record)->place = (record)->native && (other) != HotAction::Rest \
                          ? __extension__ && in_machine_code         \
                          : places[static_cast<int>(other)];         \
  }

// clang-format off
#define GO { STARTED GO_TO_PLACE(op->place) }
#define GO_ALONE { STARTED GO_TO_PLACE(places[static_cast<int>(op->single)]) }
// Each action ends with one of these. NEXT continues after count instructions. NEXT_AFTER_WORK does
// the same after work of any length, and polls the host's flags. SINGLE_UNLESS runs the first
// instruction alone if the idiom does not apply. LEAVE_UNLESS returns to the machine's loop. JUMP
// polls the host's flags once in kPatience times.
#define NEXT(count) { op += (count); RAN(op) GO }
#define RAISED (Read(timedout) | Read(ended) | (Read(beats) ^ last_heartbeat))
#define NEXT_AFTER_WORK(count) { \
  op += (count); \
  RAN(op) \
  if (RAISED) [[unlikely]] goto on_Leave; \
  GO }
#define SINGLE_UNLESS(condition) if (!(condition)) [[unlikely]] { RAN(op) GO_ALONE }
#define LEAVE_AFTER_UNLESS(condition, count) \
  if (!(condition)) [[unlikely]] { op += (count); goto on_Leave; }
#define LEAVE_UNLESS(condition) if (!(condition)) [[unlikely]] { goto on_Leave; }
#define JUMP(jump) { \
  RAN((jump) + 1) \
  op = (jump)->target; \
  STARTED \
  if (--patience == 0) [[unlikely]] goto look; \
  GO }
#define JUMP_IF(condition, jump, count) { \
  if (condition) JUMP(jump) \
  NEXT(count) }
// The same after work of any length.
#define JUMP_IF_AFTER_WORK(condition, jump, count) { \
  const bool jumps = condition; \
  RAN(jumps ? (jump) + 1 : op + (count)) \
  op = jumps ? (jump)->target : op + (count); \
  STARTED \
  if (RAISED) [[unlikely]] goto on_Leave; \
  GO }
// The variable at a record's position, or the one that it refers to; null if it does not exist yet.
// ROW_OF gives the variable itself.
#define ROW_AT(table, position) \
  (static_cast<unsigned>(position) < counts[table] ? rows[table][position].variable : nullptr)
#define ROW_OF(record) ROW_AT(static_cast<int>((record)->left), (record)->first)
// Makes the variable that a row does not have yet; null if there is no such row.
#define MADE_AT(record) \
  ((record)->left == HotOperand::Local ? frame->variables : global_variables)->At((record)->first, 1)
#define VARIABLE(record) Referred(ROW_OF(record))
// A local variable that no instruction of this call has touched is asleep in its row. It has no
// forms and is not an array, so only an action that uses a variable without testing these has to
// wake it. Storing a number wakes it too.
#define WAKE(variable) WakeIfAsleep(variable);
// After anything that may have added names to a table, such as a library that computes a field.
// The main code has the globals as its locals, too, so making room for the one may move the other.
#define ASK_ROWS { \
  (void)frame->variables->Rows(hot->locals(), &counts[1]); \
  rows[0] = global_variables->Rows(hot->globals(), &counts[0]); \
  rows[1] = frame->variables->Rows(&counts[1]); }
// For the instructions on globals, which hardly ever are references: those go another way. Each row
// that they name can be read.
#define GLOBAL(position) rows[0][position].variable
// Store the end in the stack before its own operations, and reload what they may have changed. The
// end is also stored before anything that allocates: if that throws, the stack frees the entries up
// to there.
#define TELL_STACK s->SetEnd(top);
#define ASK_STACK { \
  top = s->End(); \
  bottom = s->Begin(); \
  limit = s->Limit() - HotCode::kRoom; }
#define TOP_OF_RUN { \
  top = run.top; \
  bottom = s->Begin(); \
  limit = s->Limit() - HotCode::kRoom; }
#define PUSH(set) { top->set; ++top; }
// Begins an instruction that runs code outside of the loop, whose errors name the place.
#define BEGIN_OUTSIDE(record) { \
  TELL_STACK \
  instruction_start = (record)->start; \
  program_counter = (record)[1].start; }
// The field that the record's two names mean, if it was found before and is there; null otherwise.
#define FIND_KNOWN_FIELD(found) { \
  first_integer = op->first; \
  second_integer = op->second; \
  (found) = nullptr; \
  if (recent_fields) { \
    const RecentField& recent = recent_fields[RecentPlace()]; \
    if (recent.alias == op->first && recent.field == op->second && \
        recent.views_gone == family->ViewsGone() && recent.fields_gone == *recent.fields_count) { \
      (found) = recent.variable; \
    } \
  } }
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
// Between two actions the stack has room for HotCode::kRoom entries, so that what a group computes
// would fit there; an action that leaves an entry more needs the room for that too.
#define HAS_ROOM (top < limit)
// Whether the operands on top are numbers; they are doubles afterwards. This may change the
// entries, so it is the last test of a condition.
#define ONE_NUMBER (HOLDS_ONE && (IsDouble(top - 1) || MakeDouble<HasNumberSlow>(top)))
#define ONE_COMPARABLE (HOLDS_ONE && (IsDouble(top - 1) || MakeDouble<IsComparableSlow>(top)))
#define TWO_DOUBLES (IsDouble(top - 1) && IsDouble(top - 2))
#define TWO_NUMBERS (HOLDS_TWO && (TWO_DOUBLES || MakeTwoDoubles<HasNumberSlow>(top)))
#define TWO_COMPARABLE (HOLDS_TWO && (TWO_DOUBLES || MakeTwoDoubles<IsComparableSlow>(top)))
#define IS_NUMBER(variable) ((variable) && Has<HasNumberSlow>(variable))
// The same; *number receives the number.
#define FIND_NUMBER(variable, number) ((variable) && Find<HasNumberSlow>(variable, number))
#define FIND_COMPARABLE(variable, number) ((variable) && Find<IsComparableSlow>(variable, number))
// Whether a frame is kept for the called function and is prepared for calls from this code. If so,
// called is the frame and locals are its variables; those that exist are as a new call needs them.
#define KNOWS_CALLED \
  (called = idle_frames[static_cast<unsigned>(op->first)], \
   called && called->return_code == code_serial && frame->depth < MostFrames && \
   (locals = called->variables->Rows(&local_count), true))

// Whether the code that the frame returns to is decoded and is what it was at the call.
#define RETURNS_TO_DECODED \
  (called->return_code == code_serial || ReturnsToDecoded(called))
// After a change of the segment to one that is decoded.
#define USE_CODE { \
  hot = segment->hot(); \
  BEGIN_CODE \
  code_serial = hot->serial(); }
// Code that is entered by a call or a return for the first time: that counts as one jump.
#define BEGIN_CODE \
  if (hot->SetPlaces(places)) [[unlikely]] { \
    ASK_ROWS \
    if (hot->Repeated(1)) MAKE_NATIVE(hot) \
  }
#define MAKE_NATIVE(code) { \
  if (NativeCompiler::Compile(code, &run)) (code)->SetNativePlaces(__extension__ &&in_machine_code); }

// All forms of an operation on the doubles a and b. An operand that is a double entry already is
// overwritten in place.
#define ARITHMETIC(name, result)                                                           \
  on_##name: {                                                                             \
    if (!TWO_NUMBERS) [[unlikely]] goto calculate_values;                                  \
    const double a = top[-2].value.number, b = top[-1].value.number;                       \
    --top;                                                                                 \
    top[-1].value.number = result;                                                         \
    NEXT(1)                                                                                \
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
  UPDATE(Update##name##Constant, true, op[1].number, result)                               \
  UPDATE(Update##name##Variable, (other = VARIABLE(op + 1), IS_NUMBER(other)),             \
         NumberOf(other), result)
// An operation on the variable on top. The other operand may be the same variable, so it is read before
// the result is written.
#define UPDATE(name, condition, operand, result)                                           \
  on_##name: {                                                                             \
    SINGLE_UNLESS(HAS_ROOM && HOLDS_ONE && top[-1].kind == ZephVM_Stack::KindVariable)     \
    variable = top[-1].value.variable->Real();                                             \
    double a;                                                                              \
    SINGLE_UNLESS((condition) && Find<HasNumberSlow>(variable, &a))                        \
    const double b = operand;                                                              \
    variable->Write_Double(result);                                                        \
    --top;                                                                                 \
    ZephVM_Stack::Free(top);                                                               \
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
    if (!(HOLDS_ONE && top[-1].kind == ZephVM_Stack::KindInteger)) [[unlikely]]            \
      goto jump_on_value;                                                                  \
    --top;                                                                                 \
    order = top->value.integer;                                                            \
    JUMP_IF(holds, op, 1)                                                                  \
  }
// Lets an operation that machine code calls too do the work of a record; *outcome receives what came
// of it.
#define RUN(operation) \
  run.top = top; \
  const NativeRun::Outcome outcome = NativeRun::operation(&run, op); \
  top = run.top;
// The same for an instruction of the stack, which is left to the machine's loop if that is unable.
#define ON_STACK(name, operation) \
  on_##name: { \
    RUN(operation) \
    LEAVE_UNLESS(outcome != NativeRun::Outcome::Unable) \
    if (outcome == NativeRun::Outcome::Worked) NEXT_AFTER_WORK(1) \
    NEXT(1) \
  }
// For an idiom of so many instructions.
#define RUN_IDIOM(name, count) { \
  RUN(name) \
  SINGLE_UNLESS(outcome != NativeRun::Outcome::Unable) \
  op += (count); \
  if (outcome == NativeRun::Outcome::Outside) goto written; \
  RAN(op) \
  GO }
#define IDIOM(name, count) on_##name: RUN_IDIOM(name, count)
// --- For groups. STEP continues after a record that is not the group's last. MISFIT_UNLESS runs the
// group's instructions one by one.
#define STEP { op++; GO_TO_PLACE(op->place) }
#define MISFIT_UNLESS(condition) if (!(condition)) [[unlikely]] goto misfit;
// The variable of an operand that is a row, or a place; null if there is none.
// Each row that a group names is there, see HotCode::globals().
#define OPERAND_ROW(kind, offset) VariableIn(rows[static_cast<int>(kind)], offset)
#define OPERAND(kind, offset) Referred(OPERAND_ROW(kind, offset))
// Lets an operation do the work of a record, the last of its group or another one.
#define END_BY(operation) { \
  RUN(operation) \
  MISFIT_UNLESS(outcome != NativeRun::Outcome::Unable) \
  if (outcome == NativeRun::Outcome::Worked) NEXT_AFTER_WORK(1) \
  NEXT(1) }
#define STEP_BY(operation) { \
  run.top = top; \
  MISFIT_UNLESS(NativeRun::operation(&run, op) == NativeRun::Outcome::Done) \
  STEP }
#define BASE_OF(record) OPERAND((record)->left, (record)->first)
// Read a row as a number. If its variable has more or something else than a number, or there is
// none, the shared and slower way of all operands is taken.
#define ROW_NUMBER(kind, offset, out, unusual) { \
  const Variable* const row = OPERAND_ROW(kind, offset); \
  if (!row) [[unlikely]] goto unusual; \
  if (row->HoldsDouble()) [[likely]] { \
    (out) = row->plain_double(); \
  } else if (row->HoldsInteger()) { \
    (out) = row->plain_integer(); \
  } else { \
    if (!row->HoldsNumber()) goto unusual; \
    (out) = row->plain_double(); \
  } }
// The same of the operand first or second of a pair.
#define NUMBER_Global(side, out, unusual) ROW_NUMBER(HotOperand::Global, op->side, out, unusual)
#define NUMBER_Local(side, out, unusual) ROW_NUMBER(HotOperand::Local, op->side, out, unusual)
#define NUMBER_Temporary(side, out, unusual) out = temporaries.number(op->side);
#define NUMBER_Constant(side, out, unusual) out = op->number;
// The parameter that an argument goes to, and a row's value as the argument.
#define PARAMETER VariableIn(locals, op->third)
#define SEND_ROW(kind) { \
  Variable* const parameter = PARAMETER; \
  variable = OPERAND_ROW(kind, op->first); \
  if (!parameter || !variable) [[unlikely]] goto not_begun; \
  if (variable->HoldsDouble()) [[likely]] { \
    parameter->Begin(variable->plain_double()); \
  } else if (variable->HoldsInteger()) { \
    parameter->Begin(variable->plain_integer()); \
  } else { \
    goto send_value; \
  } \
  STEP }
// The plain variable that a group's last record stores to. It is made if there is none yet.
#define FIND_TARGET \
  variable = OPERAND(op->into, op->third); \
  if (!variable) [[unlikely]] { \
    TELL_STACK \
    variable = (op->into == HotOperand::Local ? frame->variables : global_variables)->At(HotOp::PositionOf(op->third), 1); \
  } \
  MISFIT_UNLESS(variable && variable->IsPlain())
#define GROUP_ARITHMETIC(name, result, left, right) \
  on_##name##Of##left##right: { \
    double a, b; \
    NUMBER_##left(first, a, unusual_pair) \
    NUMBER_##right(second, b, unusual_pair) \
    temporaries.number(op->third) = result; \
    STEP \
  } \
  on_##name##To##left##right: { \
    double a, b; \
    NUMBER_##left(first, a, unusual_pair) \
    NUMBER_##right(second, b, unusual_pair) \
    STORE_DOUBLE(result) \
    NEXT(1) \
  }
#define GROUP_ADD(name, left, right) GROUP_ARITHMETIC(Add, a + b, left, right)
#define GROUP_SUB(name, left, right) GROUP_ARITHMETIC(Sub, a - b, left, right)
#define GROUP_MUL(name, left, right) GROUP_ARITHMETIC(Mul, a * b, left, right)
#define GROUP_DIV(name, left, right) GROUP_ARITHMETIC(Div, (a == 0.0 ? 0.0 : a / b), left, right)
// A text that was loaded is NaN as a number.
#define NO_TEXT_Global(number)
#define NO_TEXT_Local(number)
#define NO_TEXT_Temporary(number) if (std::isnan(number)) [[unlikely]] goto unusual_comparison;
#define NO_TEXT_Constant(number)
#define GROUP_JUMP(name, holds, left, right) \
  on_JumpIf##name##left##right: { \
    double a, b; \
    NUMBER_##left(first, a, unusual_comparison) \
    NUMBER_##right(second, b, unusual_comparison) \
    NO_TEXT_##left(a) \
    NO_TEXT_##right(b) \
    JUMP_IF(holds, op, 1) \
  }
#define GROUP_COMPARE(name, left, right) \
  on_CompareOf##left##right: { \
    double a, b; \
    NUMBER_##left(first, a, on_CompareOf) \
    NUMBER_##right(second, b, on_CompareOf) \
    temporaries.number(op->third) = Jumps(op, OrderOf(a, b)); \
    STEP \
  }
#define GROUP_LESS(name, left, right) GROUP_JUMP(Less, a < b, left, right)
#define GROUP_EQUAL(name, left, right) GROUP_JUMP(Equal, a == b, left, right)
#define GROUP_LESS_EQUAL(name, left, right) GROUP_JUMP(LessEqual, a <= b, left, right)
#define GROUP_GREATER(name, left, right) GROUP_JUMP(Greater, !(a <= b), left, right)
#define GROUP_NOT_EQUAL(name, left, right) GROUP_JUMP(NotEqual, !(a == b), left, right)
#define GROUP_GREATER_EQUAL(name, left, right) GROUP_JUMP(GreaterEqual, !(a < b), left, right)
// Read a row as an integer.
#define ROW_INTEGER(kind, offset, out, unusual) { \
  const Variable* const row = OPERAND_ROW(kind, offset); \
  if (!row) [[unlikely]] goto unusual; \
  if (row->HoldsInteger()) { \
    (out) = row->plain_integer(); \
  } else if (row->HoldsDouble()) { \
    (out) = DoubleToInteger(row->plain_double()); \
  } else { \
    if (!row->HoldsNumber()) goto unusual; \
    (out) = row->plain_integer(); \
  } }
// Read an operand of any kind: as an integer, and as a number to compare by.
#define INTEGER_OF(kind, offset, out) \
  if ((kind) == HotOperand::Temporary) { \
    *(out) = DoubleToInteger(temporaries.number(offset)); \
  } else if ((kind) == HotOperand::Constant) { \
    *(out) = (offset); \
  } else { \
    first_row = OPERAND_ROW(kind, offset); \
    if (first_row && first_row->HoldsInteger()) { \
      *(out) = first_row->plain_integer(); \
    } else if (first_row && first_row->HoldsDouble()) { \
      *(out) = DoubleToInteger(first_row->plain_double()); \
    } else { \
      MISFIT_UNLESS(IntegerOf(Referred(first_row), out)) \
    } \
  }
#define COMPARABLE_OF(kind, offset, result, missing) \
  if ((kind) == HotOperand::Temporary) { \
    *(result) = temporaries.number(offset); \
  } else if ((kind) == HotOperand::Constant) { \
    *(result) = op->number; \
  } else { \
    other = OPERAND_ROW(kind, offset); \
    if (other && other->HoldsDouble()) { \
      *(result) = other->plain_double(); \
    } else if (other && other->HoldsInteger()) { \
      *(result) = other->plain_integer(); \
    } else { \
      variable = OPERAND(kind, offset); \
      if (!FIND_COMPARABLE(variable, result)) [[unlikely]] goto missing; \
    } \
  }
// Read the index of an element. If it is not a plain number, the action for all kinds is taken.
#define INDEX_Global(number, unusual) ROW_INTEGER(HotOperand::Global, op->second, number, unusual)
#define INDEX_Local(number, unusual) ROW_INTEGER(HotOperand::Local, op->second, number, unusual)
#define INDEX_Temporary(number, unusual) number = DoubleToInteger(temporaries.number(op->second));
#define INDEX_Constant(number, unusual) number = op->second;
// Finds the elements or members of the array or structure at the left in tree.
#define FIND_TREE(holds, unusual) \
  variable = OPERAND_ROW(op->left, op->first); \
  if (!variable) [[unlikely]] goto unusual; \
  if (!variable->IsProvedPlain()) [[unlikely]] { \
    variable = variable->Real(); \
    if (!variable->IsPlain()) goto unusual; \
  } \
  if (!variable->holds()) [[unlikely]] goto unusual; \
  AggregateElementTree* const tree = variable->plain_elements(); \
  TELL_STACK
// The same, and the index in number.
#define FIND_ELEMENT(kind, unusual) \
  int number; \
  INDEX_##kind(number, unusual) \
  if (number < 1) [[unlikely]] goto unusual; \
  FIND_TREE(HoldsArray, unusual)
// Stores a number in a variable that has a number in that form alone, or on the way of all others.
#define STORE_DOUBLE(result) \
  number_passed = result; \
  variable = OPERAND_ROW(op->into, op->third); \
  if (!variable || !variable->HoldsDouble()) [[unlikely]] goto store_double; \
  variable->Rewrite(number_passed);
#define STORE_INTEGER(result) \
  const int stored = result; \
  variable = OPERAND_ROW(op->into, op->third); \
  if (!variable || !variable->HoldsInteger()) [[unlikely]] { \
    number_passed = stored; \
    goto store_integer; \
  } \
  variable->Rewrite(stored);
// Stores the number of an element or member in a variable, the end of a group.
#define STORE_SLOT(slot, unusual) { \
  if ((slot)->IsVariable()) { \
    other = (slot)->variable(); \
    if (other->HoldsDouble()) { \
      STORE_DOUBLE(other->plain_double()) \
    } else { \
      if (!other->HoldsInteger() || !other->is_stored_integer()) { \
        variable = OPERAND_ROW(op->into, op->third); \
        if (variable && variable->CopyWord(*other)) NEXT(1) \
        goto unusual; \
      } \
      STORE_INTEGER(other->plain_integer()) \
    } \
  } else if ((slot)->IsInteger()) { \
    STORE_INTEGER((slot)->integer()) \
  } else { \
    STORE_DOUBLE((slot)->number()) \
  } \
  NEXT(1) }
// Stores a number in the element or member that was found.
#define WRITE_SLOT(slot, number, unusual) { \
  if (!(slot) || !(slot)->Overwrite(number)) [[unlikely]] goto unusual; \
  NEXT(1) }
// Stores an operand, whose kind and offset are told, in the slot. A number is stored as such only if
// it is all of its value.
#define STORE_IN_SLOT(slot, kind, offset, unusual) \
  if ((kind) <= HotOperand::Local) { \
    other = OPERAND_ROW(kind, offset); \
    if (!other) [[unlikely]] goto unusual; \
    if (other->HoldsDouble()) WRITE_SLOT(slot, other->plain_double(), unusual) \
    if (!other->HoldsInteger()) goto unusual; \
    WRITE_SLOT(slot, other->plain_integer(), unusual) \
  } \
  if ((kind) == HotOperand::Temporary) { \
    const HotForm form = op->form == HotForm::AsLoaded ? temporaries.form(offset) : op->form; \
    if (form == HotForm::Double) WRITE_SLOT(slot, temporaries.number(offset), unusual) \
    if (form != HotForm::Integer) goto unusual; \
    WRITE_SLOT(slot, static_cast<int>(temporaries.number(offset)), unusual) \
  } \
  if ((kind) != HotOperand::Constant) goto unusual; \
  if (op->form == HotForm::Double) WRITE_SLOT(slot, op->number, unusual) \
  WRITE_SLOT(slot, static_cast<int>(op->number), unusual)
#define ELEMENT_AT(kind) \
  on_LoadElementAt##kind: { \
    FIND_ELEMENT(kind, on_LoadElement) \
    const DenseSlot* const slot = tree->SearchSlot(number); \
    if (!slot) [[unlikely]] goto on_LoadElement; \
    if (slot->IsVariable()) { \
      variable = slot->variable(); \
      goto load_variable; \
    } \
    temporaries.Set(op->third, *slot); \
    STEP \
  } \
  on_FindElementAt##kind: { \
    FIND_ELEMENT(kind, on_FindElement) \
    variable = tree->SearchMade(number); \
    if (!variable) [[unlikely]] goto on_FindElement; \
    temporaries.place(op->third) = variable; \
    STEP \
  } \
  on_MoveElementAt##kind: { \
    FIND_ELEMENT(kind, on_MoveElement) \
    const DenseSlot* const slot = tree->SearchSlot(number); \
    if (!slot) [[unlikely]] goto on_MoveElement; \
    STORE_SLOT(slot, on_MoveElement) \
  } \
  on_StoreElementAt##kind: { \
    FIND_ELEMENT(kind, on_StoreElement) \
    DenseSlot* const slot = tree->SearchOwnSlot(number); \
    STORE_IN_SLOT(slot, op->into, op->third, on_StoreElement) \
  }
// An operation on one or two integers, and one on one or two truths.
#define GROUP_INTEGERS(name, result) \
  on_##name##Of: { \
    int a, b; \
    INTEGER_OF(op->left, op->first, &a) \
    INTEGER_OF(op->right, op->second, &b) \
    temporaries.number(op->third) = result; \
    STEP \
  } \
  on_##name##To: { \
    int a, b; \
    INTEGER_OF(op->left, op->first, &a) \
    INTEGER_OF(op->right, op->second, &b) \
    STORE_INTEGER(result) \
    NEXT(1) \
  }
#define GROUP_TRUTHS(name, result) \
  on_##name##Of: { \
    double a, b; \
    COMPARABLE_OF(op->left, op->first, &a, misfit) \
    COMPARABLE_OF(op->right, op->second, &b, misfit) \
    temporaries.number(op->third) = result; \
    STEP \
  } \
  on_##name##To: { \
    double a, b; \
    COMPARABLE_OF(op->left, op->first, &a, misfit) \
    COMPARABLE_OF(op->right, op->second, &b, misfit) \
    STORE_INTEGER(result) \
    NEXT(1) \
  }
  // clang-format on

  run.vm = this;
  hot->SetPlaces(places);
  if (hot->Repeated(1)) {
    ASK_ROWS
    MAKE_NATIVE(hot)
  }
  patience = kPatience;
  run.reference_changes = Variable::ReferenceChanges();
  rows[static_cast<int>(HotOperand::Place)] = reinterpret_cast<const _VH_Entry*>(temporaries.rows);
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
  if (top[-1].kind == ZephVM_Stack::KindVariable
          ? variable->CopyNumber(*top[-1].value.variable->Real())
          : top[-1].kind == ZephVM_Stack::KindString && !top[-1].deferred &&
                variable->WriteShort(top[-1].value.text, top[-1].length)) {
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
  ASK_ROWS
  NEXT(1)
on_PushField:
  LEAVE_UNLESS(HAS_ROOM)
  FIND_KNOWN_FIELD(variable)
  if (!variable) goto on_Handler;
  PUSH(SetVariable(variable))
  NEXT(1)
// As with pop_computed, any flag may be set.
on_MoveField:
  SINGLE_UNLESS(HAS_ROOM)
  first_row = VARIABLE(op + 1);
  SINGLE_UNLESS(first_row && first_row->IsPlain())
  FIND_KNOWN_FIELD(variable)
  SINGLE_UNLESS(variable)
  WAKE(first_row)
  BEGIN_OUTSIDE(op + 1)
  Assign(first_row, variable);
  if (stop_flag | RAISED) return;
  ASK_STACK
  ASK_ROWS
  NEXT(2)
on_Pop:
  LEAVE_UNLESS(HOLDS_ONE)
  --top;
  ZephVM_Stack::Free(top);
  NEXT(1)
on_Dup:
  LEAVE_UNLESS(HOLDS_ONE && HAS_ROOM)
  if (top->DupeSimple(top[-1])) {
    ++top;
    NEXT(1)
  }
  TELL_STACK
  s->Dupe();
  ASK_STACK
  NEXT(1)
  ON_STACK(Store, StoreOnStack)
  ON_STACK(Concatenate, Concatenate)
  IDIOM(ConcatenateText, 2)
  IDIOM(ConcatenateVariable, 2)
  IDIOM(ConcatenateTextVariable, 3)
  IDIOM(ConcatenateVariableText, 3)
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
  COMPARISON(Equal, a == b, order == 0)
  COMPARISON(NotEqual, !(a == b), order != 0)
  COMPARISON(Less, a < b, order < 0)
  COMPARISON(LessEqual, a <= b, order <= 0)
  COMPARISON(Greater, !(a <= b), order > 0)
  COMPARISON(GreaterEqual, !(a < b), order >= 0)
on_Order : {
  int order;
  LEAVE_UNLESS(HOLDS_TWO && IsOrdinary(top - 1) && IsOrdinary(top - 2))
  TELL_STACK
  order = s->Compare();
  ASK_STACK
  PUSH(SetInteger(order))
  NEXT_AFTER_WORK(1)
}
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
// Operands that are texts, or that compute their values. To read these, like a field, runs no code
// of a script, so the records stay.
calculate_values : {
  LEAVE_UNLESS(HOLDS_TWO)
  BEGIN_OUTSIDE(op)
  const double b = s->PopD();
  const double a = s->PopD();
  if (stop_flag) return;
  double result;
  switch (op->single) {
    case HotAction::Add: result = a + b; break;
    case HotAction::Sub: result = a - b; break;
    case HotAction::Mul: result = a * b; break;
    default: result = a == 0.0 ? 0.0 : a / b; break;
  }
  s->PushD(result);
  if (RAISED) return;
  ASK_STACK
  ASK_ROWS
  NEXT(1)
}
jump_on_value : {
  LEAVE_UNLESS(HOLDS_ONE)
  BEGIN_OUTSIDE(op)
  const int value = s->PopI();
  if (stop_flag) return;
  ASK_STACK
  ASK_ROWS
  JUMP_IF_AFTER_WORK(Jumps(op, OrderOf(value, 0)), op, 1)
}

on_CompareTopJump : {
  double a, b;
  SINGLE_UNLESS(HOLDS_ONE)
  if (IsDouble(top - 1)) [[likely]] {
    a = top[-1].value.number;
  } else if (top[-1].kind == ZephVM_Stack::KindVariable) {
    SINGLE_UNLESS(Find<IsComparableSlow>(top[-1].value.variable->Real(), &a))
  } else {
    SINGLE_UNLESS(top[-1].kind == ZephVM_Stack::KindInteger)
    a = top[-1].value.integer;
  }
  if (op->right == HotOperand::Constant) {
    b = op->number;
  } else {
    ROW_NUMBER(op->right, op->second, b, unusual_top)
  }
  JUMP_IF(Jumps(op, OrderOf(a, b)), op + 3, 4)
unusual_top:
  other = OPERAND(op->right, op->second);
  SINGLE_UNLESS(FIND_COMPARABLE(other, &b))
  JUMP_IF(Jumps(op, OrderOf(a, b)), op + 3, 4)
}
on_CompareConstant : {
  int order;
  LEAVE_UNLESS(HAS_ROOM && FindOrder(GLOBAL(op->first), op->second, &order))
  PUSH(SetInteger(order - 1))
  NEXT(1)
}
on_CompareConstantJump : {
  int order;
  LEAVE_UNLESS(FindOrder(GLOBAL(op->first), op->second, &order))
  JUMP_IF(Jumps(op + 1, order), op + 1, 2)
}
on_CompareGlobals : {
  int order;
  LEAVE_UNLESS(HAS_ROOM)
  if (!FindOrder(GLOBAL(op->first), GLOBAL(op->second), &order)) goto on_Handler;
  PUSH(SetInteger(order - 1))
  NEXT(1)
}
on_CompareGlobalsJump : {
  int order;
  variable = GLOBAL(op->first);
  if (variable && variable->HoldsText()) {
    second_row = GLOBAL(op->second);
    if (second_row) {
      order = OrderOfWords(variable, second_row, op[1].orders);
      if (order >= 0) JUMP_IF(Jumps(op + 1, order), op + 1, 2)
    }
  }
  if (!FindOrder(variable, GLOBAL(op->second), &order)) {
    if (!FindOrderOfVariables(GLOBAL(op->first), GLOBAL(op->second), &order)) goto on_Handler;
    JUMP_IF_AFTER_WORK(Jumps(op + 1, order), op + 1, 2)
  }
  JUMP_IF(Jumps(op + 1, order), op + 1, 2)
}
on_ModGlobals : {
  int order, number;
  LEAVE_UNLESS(HAS_ROOM && IntegerOf(GLOBAL(op->first), &order) &&
               IntegerOf(GLOBAL(op->second), &number) && number != 0)
  PUSH(SetInteger(Remainder(order, number)))
  NEXT(1)
}
on_ModGlobalsJump : {
  int order, number;
  LEAVE_UNLESS(IntegerOf(GLOBAL(op->first), &order) && IntegerOf(GLOBAL(op->second), &number) &&
               number != 0)
  JUMP_IF(Jumps(op + 1, OrderOf(Remainder(order, number), 0)), op + 1, 2)
}
on_Increment : {
  int number;
  variable = GLOBAL(op->first);
  LEAVE_UNLESS(IntegerOf(variable, &number))
  variable->Write_Integer(WrapAdd(number, op->second));
  NEXT(1)
}
on_IncrementCompareJump : {
  variable = GLOBAL(op->first);
  SINGLE_UNLESS(variable && variable->HoldsInteger())
  const int number = WrapAdd(variable->plain_integer(), op->second);
  const int end = op[1].second;
  variable->Write_Integer(number);
  if (op[2].single == HotAction::JumpLessEqual) [[likely]]
    JUMP_IF(number <= end, op + 2, 3)
  JUMP_IF(Jumps(op + 2, OrderOf(number, end)), op + 2, 3)
}
on_StoreConstant:
  variable = GLOBAL(op->first);
  LEAVE_UNLESS(variable && variable->IsPlain())
  variable->Write_Integer(op->second);
  NEXT(1)
on_Line:
  current_line = op->first;
  NEXT(1)
on_SourceLine:
  current_line = op[1].first;
  if (source_file == op->first) [[likely]]
    NEXT(2)
  traced_line = 0;
  source_file = op->first;
  source_name = nullptr;
  NEXT(2)
on_SourceFile:
  if (source_file != op->first) {
    traced_line = 0;
    source_file = op->first;
    source_name = nullptr;
  }
  NEXT(1)
  ON_STACK(Element, Element)
  ON_STACK(ElementReadOnly, Element)
  ON_STACK(Member, Member)
  ON_STACK(MemberReadOnly, Member)
on_NextElement : {
  int number;
  SINGLE_UNLESS(HOLDS_TWO && top[-2].kind == ZephVM_Stack::KindVariable &&
                IntegerIn(top - 1, &number) && number >= 1)
  first_row = top[-2].value.variable->Real();
  TELL_STACK
  const Stepped stepped = StepTo(first_row, number, VARIABLE(op + 4));
  SINGLE_UNLESS(stepped != Stepped::No)
  ZephVM_Stack::Free(top - 1);
  ZephVM_Stack::Free(top - 2);
  top -= 2;
  if (stepped == Stepped::ToNumber) NEXT(5)
  NEXT_AFTER_WORK(5)
}
on_EachElement : {
  double position;
  SINGLE_UNLESS(HAS_ROOM && HOLDS_ONE && top[-1].kind <= ZephVM_Stack::KindDouble)
  position = op->number + (IsDouble(top - 1) ? top[-1].value.number : top[-1].value.integer);
  first_row = VARIABLE(op + 3);
  const int number = DoubleToInteger(position);
  SINGLE_UNLESS(first_row && number >= 1)
  TELL_STACK
  const Stepped stepped = StepTo(first_row, number, VARIABLE(op + op->second + 4));
  SINGLE_UNLESS(stepped != Stepped::No)
  top[-1].SetDouble(position);
  if (op->second > 5) {
    if (op->second > 6 && source_file != op[5].first) {
      traced_line = 0;
      source_file = op[5].first;
      source_name = nullptr;
    }
    if (op[op->second - 1].single == HotAction::Line) current_line = op[op->second - 1].first;
  }
  const int count = op->second + 5;
  if (stepped == Stepped::ToNumber) NEXT(count)
  NEXT_AFTER_WORK(count)
}
on_Handler:
  TELL_STACK
  instruction_start = op->start;
  first_integer = op->first;
  second_integer = op->second;
  program_counter = op[1].start;
  RunHandler(op->code);
  if (stop_flag | RAISED) return;
  ASK_STACK
  ASK_ROWS
  LEAVE_AFTER_UNLESS(top <= limit, 1)
  NEXT(1)
// A filter, an index's expression or a library may run code of the script, so the way on is that
// after a call.
on_Records : {
  BEGIN_OUTSIDE(op)
#ifndef NDEBUG
  const InstructionCheck check(this, static_cast<Instruction::Code>(op->code), op->first);
#endif
  switch (op->code) {
    case Instruction::code_dbskip: dbskip(); break;
    case Instruction::code_dbgo: dbgo(); break;
    case Instruction::code_dbfind: dbfind(); break;
    case Instruction::code_dbadd: dbadd(); break;
    case Instruction::code_dbupdate: dbupdate(); break;
    case Instruction::code_dbdelete: dbdelete(); break;
    default: dbundelete(); break;
  }
  goto moved;
}
on_OutText : {
  Output* const page = application->CurrentOutput();
  if (page->PutInRoom(op->text, op->length)) [[likely]]
    NEXT(2)
  SINGLE_UNLESS(HAS_ROOM)
  TELL_STACK
  page->Write(op->text, op->length);
  op += 2;
  goto written;
}
// What most pages write goes into the output's room here; the operations do the same and the rest.
on_OutVariable:
  variable = ROW_OF(op);
  if (variable && HAS_ROOM) [[likely]] {
    Output* const page = application->CurrentOutput();
    if (variable->HoldsInteger()) {
      if (char* const room = page->Room(kLongestInteger)) [[likely]] {
        page->Took(WriteInteger(room, variable->plain_integer()));
        NEXT(2)
      }
    } else if (variable->HoldsText() && variable->plain_text().data &&
               page->PutInRoom(variable->plain_text().data, variable->plain_text().length)) {
      NEXT(2)
    }
  }
  RUN_IDIOM(OutVariable, 2)
  IDIOM(OutRounded, 3)
on_OutVariableRounded:
  variable = ROW_OF(op);
  if (variable && variable->HoldsDouble() && HAS_ROOM) [[likely]] {
    Output* const page = application->CurrentOutput();
    char* const room = page->Room(MostRounded);
    const int length = room ? WriteRounded(variable->plain_double(), op[1].first, room) : 0;
    if (length > 0) [[likely]] {
      page->Took(room + length);
      NEXT(4)
    }
  }
  RUN_IDIOM(OutVariableRounded, 4)
// The output may set a flag, for example because the client has gone.
written:
  if (stop_flag | RAISED) goto on_Leave;
  RAN(op)
  GO;

  ZEPH_HOT_PAIRS(GROUP_ADD, )
  ZEPH_HOT_PAIRS(GROUP_SUB, )
  ZEPH_HOT_PAIRS(GROUP_MUL, )
  ZEPH_HOT_PAIRS(GROUP_DIV, )
  ZEPH_HOT_PAIRS(GROUP_LESS, )
  ZEPH_HOT_PAIRS(GROUP_EQUAL, )
  ZEPH_HOT_PAIRS(GROUP_LESS_EQUAL, )
  ZEPH_HOT_PAIRS(GROUP_GREATER, )
  ZEPH_HOT_PAIRS(GROUP_NOT_EQUAL, )
  ZEPH_HOT_PAIRS(GROUP_GREATER_EQUAL, )
  GROUP_INTEGERS(Mod, Remainder(a, b))
  GROUP_INTEGERS(BitAnd, a & b)
  GROUP_INTEGERS(BitOr, a | b)
  GROUP_INTEGERS(BitXor, a ^ b)
  GROUP_INTEGERS(ShiftLeft, static_cast<int>(static_cast<unsigned>(a) << (b & 31)))
  GROUP_INTEGERS(ShiftRight, a >> (b & 31))
  GROUP_TRUTHS(And, (a != 0.0) & (b != 0.0))
  GROUP_TRUTHS(Or, (a != 0.0) | (b != 0.0))
on_BitNotOf : {
  int b;
  INTEGER_OF(op->right, op->second, &b)
  temporaries.number(op->third) = ~b;
  STEP
}
on_BitNotTo : {
  int b;
  INTEGER_OF(op->right, op->second, &b)
  FIND_TARGET
  variable->Write_Integer(~b);
  NEXT(1)
}
on_NotOf : {
  double b;
  COMPARABLE_OF(op->right, op->second, &b, misfit)
  temporaries.number(op->third) = b == 0.0;
  STEP
}
on_NotTo : {
  double b;
  COMPARABLE_OF(op->right, op->second, &b, misfit)
  FIND_TARGET
  variable->Write_Integer(b == 0.0);
  NEXT(1)
}
on_MatchOf : {
  int position;
  MISFIT_UNLESS(FindMatch(op, rows, temporaries, &position))
  temporaries.number(op->third) = position;
  STEP
}
on_MatchTo : {
  int position;
  MISFIT_UNLESS(FindMatch(op, rows, temporaries, &position))
  FIND_TARGET
  variable->Write_Integer(position);
  NEXT(1)
}
on_CompareOf : {
  bool worked = false;
  const int order = NativeRun::OrderOfUnusual(&run, op, &worked);
  MISFIT_UNLESS(order >= 0 && !worked)
  temporaries.number(op->third) = Jumps(op, order);
  STEP
}
  ZEPH_HOT_PAIRS(GROUP_COMPARE, )
on_CompareTo : {
  bool worked = false;
  const int order = NativeRun::OrderOfUnusual(&run, op, &worked);
  MISFIT_UNLESS(order >= 0)
  FIND_TARGET
  variable->Write_Integer(Jumps(op, order));
  NEXT_AFTER_WORK(1)
}
on_CompareLoadedOf : {
  bool worked = false;
  const int order = NativeRun::OrderOfLoaded(&run, op, &worked);
  MISFIT_UNLESS(order >= 0 && !worked)
  temporaries.number(op->third) = Jumps(op, order);
  STEP
}
on_CompareLoadedTo : {
  bool worked = false;
  const int order = NativeRun::OrderOfLoaded(&run, op, &worked);
  MISFIT_UNLESS(order >= 0)
  FIND_TARGET
  variable->Write_Integer(Jumps(op, order));
  NEXT_AFTER_WORK(1)
}
on_CompareTextOf : {
  int order;
  variable = BASE_OF(op);
  if (variable && HoldsWord(variable) && (op->orders == 2 || op->orders == 5)) {
    temporaries.number(op->third) = IsSameWord(variable, op) == (op->orders == 2);
    STEP
  }
  MISFIT_UNLESS(op->length <= kShort && FindOrderOfText(variable, op, &order))
  temporaries.number(op->third) = Jumps(op, order);
  STEP
}
on_CompareTextTo : {
  int order;
  variable = BASE_OF(op);
  MISFIT_UNLESS(FindOrderOfText(variable, op, &order))
  FIND_TARGET
  variable->Write_Integer(Jumps(op, order));
  NEXT_AFTER_WORK(1)
}
on_JumpIfText : {
  int order;
  variable = BASE_OF(op);
  if (variable && HoldsWord(variable)) [[likely]] {
    if (op->orders == 2) JUMP_IF(IsSameWord(variable, op), op + 1, 2)
    if (op->orders == 5) JUMP_IF(!IsSameWord(variable, op), op + 1, 2)
  }
  MISFIT_UNLESS(FindOrderOfText(variable, op, &order))
  if (op->length <= kShort && IsShort(variable)) JUMP_IF(Jumps(op, order), op + 1, 2)
  JUMP_IF_AFTER_WORK(Jumps(op, order), op + 1, 2)
}
// Pairs of which one is a variable that is more than a number, or none.
unusual_comparison : {
  bool worked = false;
  const int order = NativeRun::OrderOfUnusual(&run, op, &worked);
  MISFIT_UNLESS(order >= 0)
  if (worked) JUMP_IF_AFTER_WORK(Jumps(op, order), op, 1)
  JUMP_IF(Jumps(op, order), op, 1)
}
unusual_pair : {
  double a, b;
  MISFIT_UNLESS(ReadOperand<HasNumberSlow>(op->left, op->first, op, rows, temporaries, &a) &&
                ReadOperand<HasNumberSlow>(op->right, op->second, op, rows, temporaries, &b))
  const HotAction first_to = HotAction::AddToGlobalGlobal;
  const bool stored = op->action >= first_to;
  number_passed = Calculate(op->action, stored ? first_to : HotAction::AddOfGlobalGlobal, a, b);
  if (stored) goto store_double;
  temporaries.number(op->third) = number_passed;
  STEP
}
store_double:
  FIND_TARGET
  variable->Write_Double(number_passed);
  NEXT(1)
store_integer:
  FIND_TARGET
  variable->Write_Integer(static_cast<int>(number_passed));
  NEXT(1)
on_JumpIfNumber:
  JUMP_IF(Jumps(op, OrderOf(DoubleToInteger(temporaries.number(op->first)), 0)), op, 1)
on_CheckRoom:
  MISFIT_UNLESS(s->Limit() - top >= op->first)
  STEP on_NoteLine : current_line = op->first;
  STEP on_NoteSourceFile : if (source_file != op->first) {
    traced_line = 0;
    source_file = op->first;
    source_name = nullptr;
  }
  STEP

  ELEMENT_AT(Global) ELEMENT_AT(Local) ELEMENT_AT(Temporary) ELEMENT_AT(Constant)
      // The element is a variable, of which a number or text is loaded.
      load_variable : if (variable->HoldsNumber()) {
    temporaries.Set(op->third, variable);
  }
  else if (op->load >= HotLoad::NumberOrText && variable->HoldsText()) {
    temporaries.SetText(op->third, variable);
  }
  else {MISFIT_UNLESS(Load(variable, op, &temporaries))} STEP on_LoadElement : STEP_BY(LoadElement)
                                                                                   on_LoadMember : {
    FIND_TREE(HoldsStructure, load_member_slowly)
    if (const DenseSlot* const slot = tree->SearchMember(op->hint)) [[likely]] {
      if (slot->IsVariable()) {
        variable = slot->variable();
        goto load_variable;
      }
      temporaries.Set(op->third, *slot);
      STEP
    }
  }
load_member_slowly:
  STEP_BY(LoadMember)
on_FindElement:
  STEP_BY(FindElement)
on_FindMember:
  STEP_BY(FindMember)
on_MoveVariable:
  first_row = OPERAND_ROW(op->left, op->first);
  variable = OPERAND_ROW(op->into, op->third);
  if (first_row && first_row->HoldsDouble()) {
    number_passed = first_row->plain_double();
    if (!variable || !variable->HoldsDouble()) [[unlikely]]
      goto store_double;
    variable->Rewrite(number_passed);
    NEXT(1)
  }
  if (first_row && first_row->HoldsInteger()) {
    number_passed = first_row->plain_integer();
    if (!variable || !variable->HoldsInteger()) [[unlikely]]
      goto store_integer;
    variable->Rewrite(first_row->plain_integer());
    NEXT(1)
  }
  END_BY(MoveVariable)
on_MoveText:
  variable = OPERAND_ROW(op->into, op->third);
  if (variable && variable->WriteWord(op->text, op->length)) NEXT(1)
  END_BY(MoveText)
on_MoveNumber : {
  FIND_TARGET
  if (op->form == HotForm::Integer) {
    variable->Write_Integer(op->left == HotOperand::Constant
                                ? op->first
                                : static_cast<int>(temporaries.number(op->first)));
  } else {
    variable->Write_Double(op->left == HotOperand::Constant ? op->number
                                                            : temporaries.number(op->first));
  }
  NEXT(1)
}
on_MoveElement:
  END_BY(MoveElement)
on_MoveMember : {
  FIND_TREE(HoldsStructure, move_member_slowly)
  if (const DenseSlot* const slot = tree->SearchMember(op->hint)) [[likely]]
    STORE_SLOT(slot, move_member_slowly)
}
move_member_slowly:
  END_BY(MoveMember)
on_StoreElement:
  END_BY(StoreElement)
on_StoreMember : {
  FIND_TREE(HoldsStructure, store_member_slowly)
  DenseSlot* const slot = tree->SearchOwnMember(op->hint);
  STORE_IN_SLOT(slot, op->right, op->second, store_member_slowly)
}
store_member_slowly:
  END_BY(StoreMember)
on_PushNumber : {
  const double number = temporaries.number(op->first);
  MISFIT_UNLESS(HAS_ROOM)
  if (op->form == HotForm::Integer) {
    PUSH(SetInteger(static_cast<int>(number)))
  } else {
    PUSH(SetDouble(number))
  }
  NEXT(1)
}
on_PushElement:
  END_BY(PushElement)
on_PushMember:
  END_BY(PushMember)
// A group that keeps failing to apply is set aside for a while, because its beginning is run twice.
misfit : {
  op = op->plain;
  const auto now = static_cast<unsigned short>(elapsed - static_cast<unsigned>(patience));
  if (static_cast<unsigned short>(now - op->misfit_time) > kSeldom) op->misfits = 0;
  op->misfit_time = now;
  if (++op->misfits == kMostMisfits) {
    op->misfits = kRest;
    SET_ACTION(op->fast, HotAction::Rest)
  }
  GO_ALONE;
}
on_Rest:
  op = op->plain;
  if (--op->misfits == 0) SET_ACTION(op->fast, op->fast->single)
  GO_ALONE;
on_Resume:
  op = op->fast;
  GO;
on_ReturnNumber:
  called = static_cast<ZephVM_FunctionFrame*>(frame);
  number_passed = op->left == HotOperand::Constant ? op->number : temporaries.number(op->first);
  if (RETURNS_TO_DECODED) [[likely]] {
    NativeRun::PassNumber(called, rows[0], counts[0], number_passed, op->form);
    goto returned;
  }
  MISFIT_UNLESS(frame->returns_hot && frame->previous->stack->HasRoom(1))
  NativeRun::PushNumber(called, number_passed, op->form);
  goto returned;
on_ReturnText:
  MISFIT_UNLESS(
      NativeRun::PassText(static_cast<ZephVM_FunctionFrame*>(frame), op, rows[0], counts[0]))
  goto returned;
on_JoinTo : {
  RUN(JoinTo)
  MISFIT_UNLESS(outcome != NativeRun::Outcome::Unable)
  op += op->second;
  NEXT_AFTER_WORK(1)
}
on_JoinPush : {
  RUN(JoinPush)
  MISFIT_UNLESS(outcome != NativeRun::Outcome::Unable)
  op += op->second;
  NEXT(1)
}
on_JoinReturn:
  TELL_STACK
  MISFIT_UNLESS(NativeRun::PassJoined(static_cast<ZephVM_FunctionFrame*>(frame), op, rows,
                                      counts[0], temporaries))
  patience = 1;
  goto returned;
on_CallWith : {
  if (!KNOWS_CALLED) [[unlikely]] {
    TELL_STACK
    MISFIT_UNLESS(called && frame->depth < MostFrames && NativeRun::PrepareCall(this, called))
    locals = called->variables->Rows(&local_count);
  }
  MISFIT_UNLESS(HAS_ROOM && called->simple_parameters == op->second)
  STEP
}
// The arguments go straight into the parameters of the kept frame, which no code can see before it
// is entered.
on_SendLocal : { SEND_ROW(HotOperand::Local) }
on_SendGlobal : { SEND_ROW(HotOperand::Global) }
on_SendTemporary : {
  Variable* const parameter = PARAMETER;
  if (!parameter) [[unlikely]]
    goto not_begun;
  const HotForm form = op->form == HotForm::AsLoaded ? temporaries.form(op->first) : op->form;
  if (form == HotForm::Double) {
    parameter->Begin(temporaries.number(op->first));
    STEP
  }
  if (form == HotForm::Integer) {
    parameter->Begin(static_cast<int>(temporaries.number(op->first)));
    STEP
  }
  variable = temporaries.place(op->first);
  goto send_value;
}
on_SendConstant : {
  Variable* const parameter = PARAMETER;
  if (!parameter) [[unlikely]]
    goto not_begun;
  if (op->form == HotForm::Integer) {
    parameter->Begin(op->first);
  } else {
    parameter->Begin(op->number);
  }
  STEP
}
on_SendText : {
  Variable* const parameter = PARAMETER;
  if (!parameter) [[unlikely]]
    goto not_begun;
  TELL_STACK
  parameter->Begin(op->text, op->length);
  STEP
}
// The variable itself and not what it refers to, because it may be made to refer to another.
on_SendReference : {
  Variable* const parameter = PARAMETER;
  variable = OPERAND_ROW(op->left, op->first);
  if (!parameter || !variable) [[unlikely]]
    goto not_begun;
  WAKE(variable)
  parameter->Begin(variable);
  STEP
}
// A value that is no number. Arrays are passed after all other arguments.
send_value : {
  TELL_STACK
  if (BeginWithScalar(PARAMETER, variable, &patience)) {
    STEP
  }
  const int place = HotOp::PositionOf(op->third);
  const HotOp* const end = op + (called->simple_parameters - place);
  if (BeginArguments(op, end, locals + place, rows, temporaries, &patience)) {
    op = end;
    goto on_Enter;
  }
}
// The machine's call makes the arguments again.
not_begun:
  if (!called->variables->Renew(*called->locals)) {
    idle_frames[called->place] = called->next_idle;
    delete called;
  }
  goto misfit;

// Most calls are of functions in this code, with numbers as arguments and a kept frame. HAS_ROOM
// also ensures that the result fits on the caller's stack, so a return to decoded code need not
// test that.
on_Call:
  if (!(KNOWS_CALLED && HAS_ROOM)) [[unlikely]]
    goto unknown_called;
  if (AreNumbers(called->references, locals, called->simple_parameters, bottom, top)) [[likely]] {
    const _VH_Entry* row = locals + called->simple_parameters;
    while (row != locals) {
      Variable* const parameter = (--row)->variable;
      --top;
      if (IsDouble(top)) {
        parameter->Begin(top->value.number);
      } else {
        parameter->Begin(top->value.integer);
      }
    }
  } else {
    const int count = called->simple_parameters;
    if (top - count < bottom || !AreArguments(called->references, count, top)) goto call;
    TELL_STACK
    top = MoveArguments(called->variables, locals, called->references, count, s, &patience);
  }
  RAN_UP_TO(op, called->simple_parameters)
  goto enter;
on_Enter:
  RAN_UP_TO((op + 1)->plain - 1, op->second)
enter:
  TELL_STACK
  NativeRun::BeginCall(this, called, op + 1);
  rows[1] = locals;
  counts[1] = local_count;
  s = stack;
  ASK_STACK
  if (called->entry_segment != loaded_segment) {
    const HotCode* const entered = called->entry_code->hot();
    if (!entered || entered->serial() != called->entry_serial) [[unlikely]]
      goto enter_segment;
    NativeRun::UseSegment(this, called->entry_code, called->entry_segment);
    USE_CODE
  }
  op = called->entry;
  STARTED
  if (--patience == 0) [[unlikely]]
    goto look;
  GO;
// The code of the function is not decoded, or has been decoded since the last call.
enter_segment:
  program_counter = called->entry_offset;
  wanted_segment = called->entry_segment;
  called->entry_code->NoteRepeat(*dictionary, functions);
  if (const HotCode* const entered = called->entry_code->hot()) {
    called->entry = entered->At(program_counter);
    if (called->entry) called->entry_serial = entered->serial();
  }
  goto moved;
unknown_called:
  TELL_STACK
  if (called && NativeRun::PrepareCall(this, called)) goto on_Call;
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

// A concatenation is the last argument of the library's function. It goes straight into its
// parameter.
on_JoinCall : {
  const HotOp* const call_record = op + 1 + op->second;
  if (!IsBound(call_record->first)) goto on_JoinPush;
  MISFIT_UNLESS(HAS_ROOM)
  TELL_STACK
  char joined[kMostJoinedBytes];
  const int length = Join(op + 1, call_record, rows, temporaries, joined);
  MISFIT_UNLESS(length >= 0)
  op = call_record;
  RAN_UP_TO(op, 1)
  instruction_start = op->start;
  program_counter = op[1].start;
  variable = CallBoundFunction(op->first, joined, length);
  goto called_library;
}
on_CallExternal:
  if (!(HAS_ROOM && IsBound(op->first))) [[unlikely]]
    goto call;
  RAN(op)
  TELL_STACK
  instruction_start = op->start;
  program_counter = op[1].start;
  variable = CallBoundFunction(op->first, nullptr, 0);
// The function has returned this variable, or failed. The code may be another one now.
called_library:
  if (!variable || stop_flag || RAISED || wanted_segment != loaded_segment ||
      segment->hot() != hot || hot->serial() != code_serial || program_counter != op[1].start)
      [[unlikely]] {
    if (variable) stack->PushHeld(variable);
    hot_mode = NoMode;
    goto moved;
  }
  hot_mode = NoMode;
  s = stack;
  ASK_STACK
  ASK_ROWS
  // A result that the next instruction writes does not become an entry in between.
  if (op->refer && (variable->plain_forms() & Variable::TextForm)) {
    const String& text = variable->plain_text();
    if (char* const room =
            text.length > 0 ? application->CurrentOutput()->Room(text.length) : nullptr) {
      CopyText(room, text.data, static_cast<size_t>(text.length));
      application->CurrentOutput()->Took(room + text.length);
      op += 2;
      GO
    }
  }
  PUSH(SetVariable(variable))
  op++;
  GO

      on_ReturnNothing : LEAVE_UNLESS(NativeRun::PassNothing(
                             static_cast<ZephVM_FunctionFrame*>(frame))) goto returned;
on_Return:
  called = static_cast<ZephVM_FunctionFrame*>(frame);
  LEAVE_UNLESS(HOLDS_ONE && NativeRun::PassEntry(called, top - 1, rows[0], counts[0], code_serial))
  --top;
  goto returned;
on_ReturnVariable:
  called = static_cast<ZephVM_FunctionFrame*>(frame);
  SINGLE_UNLESS(NativeRun::PassVariable(called, ROW_OF(op), rows[0], counts[0], code_serial,
                                        HAS_ROOM, &patience) ||
                (HAS_ROOM && NativeRun::PassHeld(called, ROW_OF(op))))
// The value is on the caller's stack, or in its variable.
returned:
  op =
      NativeRun::EndCall(this, static_cast<ZephVM_FunctionFrame*>(frame), bottom, top, code_serial);
  if (!op) [[unlikely]]
    goto moved;
  if (segment->hot() != hot) USE_CODE
  s = stack;
  ASK_STACK
  rows[1] = frame->variables->Rows(&counts[1]);
  GO;

#ifdef __clang__
dispatch:
  __extension__({ goto* place; });
#endif

look:
  elapsed += kPatience;
  patience = kPatience;
  if (RAISED) goto on_Leave;
  if (hot->Repeated(kPatience)) MAKE_NATIVE(hot)
  // They count for the code that called this one, too. Where two codes alternate, the patience may
  // always run out in the same one.
  if (frame->return_code != 0 && frame->return_code != code_serial) {
    const auto* const ran = static_cast<ZephVM_FunctionFrame*>(frame);
    const HotCode* const callers = ReturnsToDecoded(ran) ? ran->return_to->hot() : nullptr;
    if (callers && callers->Repeated(kPatience)) MAKE_NATIVE(callers)
  }
  GO;

// The record has machine code. That leaves the loop one record that it does not do itself.
in_machine_code:
  run.top = top;
  run.idle_frames = idle_frames.data();
  run.called = called;
  run.called_rows = locals;
  run.called_count = local_count;
  op = NativeCompiler::Run(hot, &run, op);
  called = run.called;
  locals = run.called_rows;
  local_count = run.called_count;
  if (!op) [[unlikely]]
    goto moved;
  if (segment->hot() != hot) USE_CODE
  s = stack;
  TOP_OF_RUN
  STARTED
  if (run.is_misfit) [[unlikely]] {
    run.is_misfit = false;
    goto misfit;
  }
  if (patience == 0) goto look;
  GO_TO_PLACE(places[static_cast<int>(op->action)])

// The called code may have written to this segment, which drops its decoded form, or be in another
// one.
moved:
  if (stop_flag || RAISED) return;
  if (wanted_segment != loaded_segment) {
    if (!segments->Lookup(wanted_segment)) return;
    LoadSegment();
  }
  if (segment->hot() != hot) {
    hot = segment->hot();
    if (!hot) return;
  }
  BEGIN_CODE
  code_serial = hot->serial();
  op = hot->At(program_counter);
  if (!op) return;
entered:
  s = stack;
  ASK_STACK
  ASK_ROWS
  STARTED
  LEAVE_UNLESS(top <= limit)
  GO;

on_Leave:
  if (!stop_flag) {
    RAN(op)
  }
  TELL_STACK
  program_counter = op->start;
#undef GO_TO_PLACE
#undef SET_ACTION
#undef GO
#undef GO_ALONE
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
#undef JUMP_IF_AFTER_WORK
#undef ROW_AT
#undef ROW_OF
#undef MADE_AT
#undef VARIABLE
#undef GLOBAL
#undef WAKE
#undef TELL_STACK
#undef ASK_STACK
#undef TOP_OF_RUN
#undef ASK_ROWS
#undef LEAVE_AFTER_UNLESS
#undef PUSH
#undef BEGIN_OUTSIDE
#undef FIND_KNOWN_FIELD
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
#undef FIND_NUMBER
#undef FIND_COMPARABLE
#undef KNOWS_CALLED
#undef RETURNS_TO_DECODED
#undef USE_CODE
#undef BEGIN_CODE
#undef MAKE_NATIVE
#undef ARITHMETIC
#undef UPDATE
#undef COMPARISON
#undef BITS
#undef LOGIC
#undef JUMP_ON
#undef RUN
#undef ON_STACK
#undef IDIOM
#undef RUN_IDIOM
#undef MISFIT_UNLESS
#undef STEP
#undef NUMBER_Global
#undef NUMBER_Local
#undef NUMBER_Temporary
#undef NUMBER_Constant
#undef ROW_NUMBER
#undef OPERAND_ROW
#undef ROW_INTEGER
#undef FIND_TREE
#undef STORE_DOUBLE
#undef STORE_SLOT
#undef WRITE_SLOT
#undef STORE_IN_SLOT
#undef NO_TEXT_Global
#undef NO_TEXT_Local
#undef NO_TEXT_Temporary
#undef NO_TEXT_Constant
#undef INDEX_Global
#undef INDEX_Local
#undef INDEX_Temporary
#undef INDEX_Constant
#undef FIND_ELEMENT
#undef ELEMENT_AT
#undef BASE_OF
#undef END_BY
#undef STEP_BY
#undef GROUP_ARITHMETIC
#undef GROUP_ADD
#undef GROUP_SUB
#undef GROUP_MUL
#undef GROUP_DIV
#undef GROUP_COMPARE
#undef GROUP_LESS
#undef GROUP_EQUAL
#undef GROUP_LESS_EQUAL
#undef GROUP_GREATER
#undef GROUP_NOT_EQUAL
#undef GROUP_GREATER_EQUAL
#undef GROUP_JUMP
#undef STORE_INTEGER
#undef GROUP_INTEGERS
#undef GROUP_TRUTHS
#undef OPERAND
#undef INTEGER_OF
#undef COMPARABLE_OF
#undef SEND_ROW
#undef PARAMETER
#undef FIND_TARGET
}
