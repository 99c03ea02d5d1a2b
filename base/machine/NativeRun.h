// What machine code and the loop for decoded code (base/machine/ZephVM_Hot.cpp) share: the state of
// the loop that both work on, and the operations that machine code calls because they are too long
// to be part of it.

#ifndef ZEPH_BASE_NATIVERUN_H
#define ZEPH_BASE_NATIVERUN_H

#include "base/machine/HotOperations.h"
#include "base/machine/ZephVM.h"

// The loop's variables of the same names; see there. Machine code keeps some of them in registers
// (base/machine/NativeCompiler.h), and the others are here only.
struct NativeRun {
  const _VH_Entry* rows[static_cast<int>(HotOperand::Place) + 1];
  unsigned counts[2];
  int patience;
  hot::Entry* top;
  ZephVM* vm;
  const unsigned* reference_changes;  // Variable::ReferenceChanges()
  ZephVM_FunctionFrame** idle_frames;
  ZephVM_FunctionFrame* called;
  const _VH_Entry* called_rows;
  unsigned called_count;
  const HotOp*
      op;  // set by an operation that ends the run: where the loop goes on, null if elsewhere
  // Set by an operation that ends the run, too: the loop is to run the group of op by its
  // instructions.
  bool is_misfit = false;
  void* held[5];    // registers during the call of an operation
  double kept[12];  // and those that keep something of variables, see NativeEmitter.h
  hot::Temporaries temporaries;
  char joined[hot::kMostJoinedBytes];  // a concatenation that machine code has put together

  // --- Calls, also of the loop -------------------------------------------------------------------
  // Prepares a kept frame for calls from the current code, which is decoded, if it was last called
  // from other code. Returns false and does nothing if that is not so or cannot be. The end of the
  // stack has to be told before, because this may allocate.
  static bool PrepareCall(ZephVM* vm, ZephVM_FunctionFrame* called);
  // Makes a kept frame, whose parameters have their arguments, the current one.
  static void BeginCall(ZephVM* vm, ZephVM_FunctionFrame* called, const HotOp* returns_to);
  // Makes a segment whose code is decoded the current one.
  static void UseSegment(ZephVM* vm, Segment* used, int number);
  // Puts a number in its form on the stack of the caller, which has room for it.
  static void PushNumber(ZephVM_FunctionFrame* called, double number, HotForm form);
  // Passes a number in its form to the decoded code that a frame returns to: in the variable that
  // it stores the result in, or on its stack, which has room for it.
  static void PassNumber(ZephVM_FunctionFrame* called, const _VH_Entry* globals, unsigned count,
                         double number, HotForm form);
  // Passes the value of a local variable, if nothing can tell it from the variable. Returns false
  // and does nothing otherwise. has_room: whether a text may be put on the caller's stack.
  static bool PassVariable(ZephVM_FunctionFrame* called, Variable* variable,
                           const _VH_Entry* globals, unsigned count, long code_serial,
                           bool has_room, int* patience);
  // Passes a local variable itself, whatever value it has: the caller's stack holds it. Returns
  // false and does nothing where that takes more work.
  static bool PassHeld(ZephVM_FunctionFrame* called, Variable* variable);
  // Passes the value of an entry of the current frame's stack, its last one, which then has moved.
  // Returns false and does nothing where that takes more work.
  static bool PassEntry(ZephVM_FunctionFrame* called, hot::Entry* value, const _VH_Entry* globals,
                        unsigned count, long code_serial);
  // The same with an empty text, for a function that returns nothing.
  static bool PassNothing(ZephVM_FunctionFrame* called);
  // The same with the constant text of a record, and with its concatenation.
  static bool PassText(ZephVM_FunctionFrame* called, const HotOp* op, const _VH_Entry* globals,
                       unsigned count);
  static bool PassJoined(ZephVM_FunctionFrame* called, const HotOp* op,
                         const _VH_Entry* const* rows, unsigned count,
                         const hot::Temporaries& temporaries);
  // Ends the call of the current frame, whose result was passed: frees what else is on its stack
  // and keeps the frame. Returns the record to go on with, whose segment is the current one then;
  // null if that is not decoded, and then the machine's place is where to go on.
  static const HotOp* EndCall(ZephVM* vm, ZephVM_FunctionFrame* called, hot::Entry* bottom,
                              hot::Entry* top, long code_serial);

  // --- Operations that machine code calls --------------------------------------------------------
  // Each of the first does the work of a record, as the loop does, and returns whether it could; if
  // not, nothing was changed, and the loop runs the record.
  using Operation = bool (*)(NativeRun* run, const HotOp* op);
  static bool CalculateUnusual(NativeRun* run, const HotOp* op);
  static bool CalculateOnStack(NativeRun* run, const HotOp* op);
  static bool PushVariable(NativeRun* run, const HotOp* op);
  static bool Pop(NativeRun* run, const HotOp* op);
  static bool Dup(NativeRun* run, const HotOp* op);
  static bool Swap(NativeRun* run, const HotOp* op);
  static bool Mod(NativeRun* run, const HotOp* op);
  static bool EachElement(NativeRun* run, const HotOp* op);
  static bool NextElement(NativeRun* run, const HotOp* op);
  static bool CallWith(NativeRun* run, const HotOp* op);
  static bool SendValue(NativeRun* run, const HotOp* op);
  // A sleeping parameter begins with a constant text. The end of the stack has to be told before,
  // because this may allocate.
  static void BeginText(Variable* parameter, const char* text, int length);
  // The same with the number that is stored.
  static bool StoreDouble(NativeRun* run, const HotOp* op, double number);
  static bool StoreInteger(NativeRun* run, const HotOp* op, int number);
  // The same with the slot of an element or member that was found, whose value is loaded or moved.
  // REQUIRES: it has a variable.
  static bool LoadFrom(NativeRun* run, const HotOp* op, Variable* found);
  static bool MoveFrom(NativeRun* run, const HotOp* op, Variable* found);
  static Variable* Real(Variable* variable);
  // Searches that only change the shape of a tree. REQUIRES: the row has the position; the hint is
  // that of the tree's names.
  static void Search(AggregateElementTree* tree, int position);
  static void SearchMember(AggregateElementTree* tree, const MemberHint* hint);
  // Adds a number to a row, as the element at that place, counted from the first one. Returns false
  // and does nothing if that is not where the row ends. REQUIRES: no other row has the slots. The
  // end of the stack has to be told before, because this may allocate.
  static bool Append(AggregateElementTree* tree, int place, DenseSlot number);
  // The work of records with values of any kind, also of the loop's. Worked if the time depended on
  // the size of a value: then the host's flags are to be polled. If unable, nothing was changed but
  // what the record's instructions, run one by one, change again.
  // Outside: code outside of the loop was run, such as the output, which may set any flag.
  enum class Outcome { Unable, Done, Worked, Outside };
  using Effort = Outcome (*)(NativeRun* run, const HotOp* op);
  static Outcome LoadElement(NativeRun* run, const HotOp* op);
  static Outcome LoadMember(NativeRun* run, const HotOp* op);
  static Outcome FindElement(NativeRun* run, const HotOp* op);
  static Outcome FindMember(NativeRun* run, const HotOp* op);
  static Outcome MoveVariable(NativeRun* run, const HotOp* op);
  static Outcome MoveText(NativeRun* run, const HotOp* op);
  static Outcome MoveElement(NativeRun* run, const HotOp* op);
  static Outcome MoveMember(NativeRun* run, const HotOp* op);
  static Outcome StoreElement(NativeRun* run, const HotOp* op);
  static Outcome StoreMember(NativeRun* run, const HotOp* op);
  static Outcome PushElement(NativeRun* run, const HotOp* op);
  static Outcome PushMember(NativeRun* run, const HotOp* op);
  static Outcome Element(NativeRun* run, const HotOp* op);  // of the stack, as those below
  static Outcome Member(NativeRun* run, const HotOp* op);
  static Outcome PopVariable(NativeRun* run, const HotOp* op);
  static Outcome BindLocal(NativeRun* run, const HotOp* op);  // poprl
  static Outcome CompareOnStack(NativeRun* run, const HotOp* op);
  static Outcome StoreOnStack(NativeRun* run, const HotOp* op);
  // PushMember and Store, of which the record is the first.
  static Outcome StoreInMember(NativeRun* run, const HotOp* op);
  static Outcome Concatenate(NativeRun* run, const HotOp* op);
  static Outcome ConcatenateText(NativeRun* run, const HotOp* op);
  static Outcome ConcatenateVariable(NativeRun* run, const HotOp* op);
  static Outcome ConcatenateTextVariable(NativeRun* run, const HotOp* op);
  static Outcome ConcatenateVariableText(NativeRun* run, const HotOp* op);
  static Outcome OutText(NativeRun* run, const HotOp* op);
  static Outcome OutVariable(NativeRun* run, const HotOp* op);
  static Outcome OutRounded(NativeRun* run, const HotOp* op);
  static Outcome OutVariableRounded(NativeRun* run, const HotOp* op);
  static Outcome JoinTo(NativeRun* run, const HotOp* op);
  static Outcome JoinPush(NativeRun* run, const HotOp* op);
  // The order of the operands of a jump, or of a comparison with a constant text, that are not just
  // numbers, as the number of its bit in HotOp::orders; -1 if they can't be compared here. *worked
  // receives whether the flags are to be polled.
  static int OrderOfUnusual(NativeRun* run, const HotOp* op, bool* worked);
  static int OrderOfText(NativeRun* run, const HotOp* op, bool* worked);
  static int OrderOfLoaded(NativeRun* run, const HotOp* op, bool* worked);
  // The same for machine code: 1 if the order is one of the record's, 0 if not, -1 if the loop is
  // to find it.
  using Comparison = int (*)(NativeRun* run, const HotOp* op);
  template <int (*order)(NativeRun*, const HotOp*, bool*)>
  static int Compare(NativeRun* run, const HotOp* op) {
    bool worked = false;
    const int found = order(run, op, &worked);
    if (found < 0 || (worked && run->Raised())) return -1;
    return op->orders >> found & 1;
  }
  static int CompareGlobals(NativeRun* run, const HotOp* op);
  // The position that a search for a text finds; -1 if the loop is to find it.
  static int Match(NativeRun* run, const HotOp* op);
  // The work for machine code, which goes on with the next record, or ends and the loop goes on at
  // op.
  enum class Way : unsigned char { On, Ends };
  using Work = Way (*)(NativeRun* run, const HotOp* op);
  template <Effort effort, int count = 1>
  static Way Do(NativeRun* run, const HotOp* op) {
    return run->WayAfter(effort(run, op), op, op + count);
  }
  // The work of a record that stores a variable with more than a number in an element, which was
  // found.
  static Way StoreFrom(NativeRun* run, Variable* element, Variable* source, const HotOp* op);
  // An instruction that the machine's own handler runs. The rows may be others afterwards.
  static Way Handler(NativeRun* run, const HotOp* op);
  static Way DoJoinPush(NativeRun* run, const HotOp* op) {
    return run->WayAfter(JoinPush(run, op), op, op + 1 + op->second);
  }
  static Way DoJoinTo(NativeRun* run, const HotOp* op) {
    return run->WayAfter(JoinTo(run, op), op, op + 1 + op->second);
  }
  // These store, push and return the concatenation in joined, which has so many bytes. They return
  // whether they could.
  static bool StoreJoined(NativeRun* run, const HotOp* op, int length);
  static bool PushJoined(NativeRun* run, const HotOp* op, int length);
  static bool ReturnJoined(NativeRun* run, const HotOp* op, int length);
  // These go on elsewhere. They return the machine code there; null if the loop is to go on at op,
  // which is the record itself if nothing was changed.
  using Transfer = const void* (*)(NativeRun* run, const HotOp* op);
  // An argument that is more than a number, or all that are left. The machine code is that of the
  // next argument or of the end of the call.
  static const void* SendOther(NativeRun* run, const HotOp* op);
  static const void* Enter(NativeRun* run, const HotOp* op);
  // After the result was passed.
  static const void* AfterResult(NativeRun* run, const HotOp* op);
  // Moves the arguments on the stack into the parameters of a kept frame, which can be entered
  // then. Machine code may have begun some of the parameters with numbers.
  static bool TakeArguments(NativeRun* run, const HotOp* op);
  // The same for the frame in called, which was found to be ready for them.
  static bool TakeOthers(NativeRun* run, const HotOp* op);
  // These pass the result of the current frame, which the call of it can be ended with then. They
  // return false, and have done nothing, if the loop is to run the record.
  static bool ReturnNumber(NativeRun* run, const HotOp* op);
  static bool ReturnVariable(NativeRun* run, const HotOp* op);
  static bool Return(NativeRun* run, const HotOp* op);
  static bool ReturnNothing(NativeRun* run, const HotOp* op);
  static bool ReturnText(NativeRun* run, const HotOp* op);
  static bool JoinReturn(NativeRun* run, const HotOp* op);
  // For the compiler: how many variables a call of a function has, -1 if that is not known; and how
  // many parameters.
  static int CountVariables(const NativeRun* run, int function, int* parameters);
  // If calls of a function from some code stay in that code, *entry receives the record that they
  // begin at. Returns the number of the function's parameters, and *references, if not null, has a
  // bit for each that is by reference; -1 if that is not known or there are more than 64.
  static int FindCalled(const NativeRun* run, const HotCode* code, int function,
                        const HotOp** entry, uint64_t* references = nullptr);

 private:
  // The variable of an operand that is a row or a place; null if there is none.
  Variable* operand_row(HotOperand kind, int offset) const {
    return hot::VariableIn(rows[static_cast<int>(kind)], offset);
  }
  Variable* operand(HotOperand kind, int offset) const {
    return hot::Referred(operand_row(kind, offset));
  }
  Variable* target(const HotOp* record);
  // The variable that has the value of a row, which gets one if it has none.
  Variable* MakeOperand(HotOperand table, int offset);
  // Reads an operand as an integer; false if it has none.
  bool FindInteger(HotOperand kind, int offset, int* number) const;
  // Finds what a record stores: the value of a variable, or, if *source is null, a number in a
  // form. Returns false if there is neither.
  bool FindStored(HotOperand kind, int offset, const HotOp* op, Variable** source, double* number,
                  HotForm* form) const;
  // Stores the value of a variable in another; false and does nothing if that is not plain.
  static Outcome Store(Variable* target, Variable* source);
  // The variable of an element or member that is the source of a record's move.
  static Outcome MoveValue(Variable* found, Variable* goal);
  // Finds an element that is only a number, if the instruction at a record can't tell that from the
  // element itself.
  bool FindSufficient(Variable* array, int number, const HotOp* use, DenseSlot* bare) const;
  // Writes a number with so many decimals and frees the entries from an end of the stack on.
  Outcome WriteRounded(double number, int decimals, hot::Entry* end);
  // Whether one of the host's flags is set.
  bool Raised() const {
    return (hot::Read(vm->timedout_flag) | hot::Read(vm->exit_flag) |
            (hot::Read(vm->heartbeat_counter) ^ vm->last_heartbeat)) != 0;
  }
  // After work of any length: if a flag is set, the next jump leaves machine code.
  void NoteWork() {
    if (Raised()) patience = 1;
  }
  // Where to go on after the work of a record: at the record if that could not be done, or before
  // the next one if flags are set.
  Way WayAfter(Outcome outcome, const HotOp* record, const HotOp* next) {
    if (outcome == Outcome::Done) [[likely]]
      return Way::On;
    if (outcome == Outcome::Outside) return WayOutside(next);
    if (outcome == Outcome::Worked) {
      if (!Raised()) [[likely]]
        return Way::On;
      record = next;
      patience = 0;
    }
    op = record;
    return Way::Ends;
  }
  Way WayOutside(const HotOp* next) {
    if (!vm->stop_flag && !Raised()) [[likely]]
      return Way::On;
    vm->program_counter = next->start;
    op = nullptr;
    return Way::Ends;
  }
  // Replaces the two entries on top by a variable, by which the loop's null one is meant too.
  void ReplaceTwo(Variable* variable);
  // The variable at a position of a table; null if there is none.
  Variable* row(HotOperand kind, int position) const;
  // Of the current stack, as in the loop.
  hot::Entry* bottom() const { return vm->stack->Begin(); }
  hot::Entry* limit() const { return vm->stack->Limit() - HotCode::kRoom; }
  void TellStack() { vm->stack->SetEnd(top); }
  const void* GoTo(const HotOp* next);
};

HOT_INLINE void NativeRun::BeginCall(ZephVM* vm, ZephVM_FunctionFrame* called,
                                     const HotOp* returns_to) {
  ZephVM_Frame* const caller = vm->frame;
  vm->idle_frames[called->place] = called->next_idle;
  called->return_offset = returns_to->start;
  called->return_op = returns_to;
  called->native_return = nullptr;
  // What is returned at once has the use of the caller's own result.
  const HotOp* const use = returns_to->plain;
  called->uses = static_cast<unsigned char>(use->uses | (use->passed_uses & caller->uses));
  called->error_output = caller->error_output;
  called->output_mode = called->simple_mode;
  called->previous = caller;
  called->depth = caller->depth + 1;
  if (vm->hot_mode != called->simple_mode) [[unlikely]]
    vm->SetOutputMode(called->simple_mode);
  vm->frame = called;
  vm->stack = called->stack;
}

HOT_INLINE void NativeRun::UseSegment(ZephVM* vm, Segment* used, int number) {
  vm->segment = used;
  vm->code = used->code();
  vm->code_length = used->length();
  vm->loaded_segment = vm->wanted_segment = number;
}

HOT_INLINE void NativeRun::PushNumber(ZephVM_FunctionFrame* called, double number, HotForm form) {
  ZephVM_Stack* const callers = called->previous->stack;
  hot::Entry* const value = callers->End();
  if (form == HotForm::Double) {
    value->SetDouble(number);
  } else {
    value->SetInteger(static_cast<int>(number));
  }
  callers->SetEnd(value + 1);
}

HOT_INLINE void NativeRun::PassNumber(ZephVM_FunctionFrame* called, const _VH_Entry* globals,
                                      unsigned count, double number, HotForm form) {
  if (called->uses & HotOp::Stored) {
    if (Variable* const target = hot::FindTargetOfResult(called, globals, count)) {
      if (form == HotForm::Double) {
        target->Write_Double(number);
      } else {
        target->Write_Integer(static_cast<int>(number));
      }
      hot::PassStore(called);
      return;
    }
  }
  PushNumber(called, number, form);
}

// A caller that uses only the value of the result gets that. The variable must have no other form
// and no other holder. A caller that only stores the result gets a number, a short text or an array
// in its variable, and goes on after its pop. So it does if the variable is a reference, whose
// value may change until it is used otherwise.
HOT_INLINE bool NativeRun::PassVariable(ZephVM_FunctionFrame* called, Variable* variable,
                                        const _VH_Entry* globals, unsigned count, long code_serial,
                                        bool has_room, int* patience) {
  HotForm form = HotForm::Double;
  double number;
  if (called->return_code == code_serial && variable && variable->HoldsNumberAlone() &&
      (called->uses & (HotOp::UsedAsValue | HotOp::Stored)) == HotOp::UsedAsValue &&
      variable->plain_count() == 1) {
    if (variable->HoldsDouble()) {
      number = variable->plain_double();
    } else {
      number = variable->plain_integer();
      if (!(called->uses & HotOp::UsedAsNumber)) form = HotForm::Integer;
    }
    PassNumber(called, globals, count, number, form);
    return true;
  }
  if (!(has_room && called->returns_hot && variable)) return false;
  Variable* target = nullptr;
  const bool is_stored = (called->uses & HotOp::Stored) &&
                         (called->return_code == code_serial || hot::ReturnsToDecoded(called)) &&
                         hot::FindTarget(called->return_op->plain, called->previous->variables,
                                         globals, count, &target);
  if (!is_stored) target = nullptr;
  if (target) {
    const Variable* const real = variable->Real();
    if (target->CopyShort(*real) || target->CopyNumber(*real)) {
      hot::PassStore(called);
      return true;
    }
  }
  if (!variable->IsPlain() || variable->plain_count() != 1) return false;
  if (target && target->TakeValue(variable)) {
    *patience = 1;
    hot::PassStore(called);
    return true;
  }
  if (!is_stored && !(called->uses & HotOp::UsedAsValue) &&
      !hot::PassesToTarget(called, globals, count)) {
    return false;
  }
  ZephVM_Stack* const callers = called->previous->stack;
  hot::Entry* const value = callers->End();
  if (hot::FindAlone(variable, &number, &form)) {
    if ((called->uses & HotOp::UsedAsNumber) || form == HotForm::Double) {
      value->SetDouble(number);
    } else {
      value->SetInteger(static_cast<int>(number));
    }
    callers->SetEnd(value + 1);
    return true;
  }
  char* text;
  int length, allocated;
  // As a number, a text on the stack may be another one than the variable that had it.
  if ((called->uses & HotOp::UsedAsNumber) || !variable->TakeText(&text, &length, &allocated)) {
    return false;
  }
  value->SetOwnedText(text, length, allocated);
  callers->SetEnd(value + 1);
  return true;
}

HOT_INLINE bool NativeRun::PassHeld(ZephVM_FunctionFrame* called, Variable* variable) {
  ZephVM_Stack* const callers = called->previous->stack;
  if (!called->returns_hot || !variable || !variable->IsPlain() || variable->IsAsleep() ||
      !callers->HasRoom(1)) {
    return false;
  }
  hot::Entry* const value = callers->End();
  value->SetVariable(variable);
  callers->SetEnd(value + 1);
  return true;
}

HOT_INLINE bool NativeRun::PassEntry(ZephVM_FunctionFrame* called, hot::Entry* value,
                                     const _VH_Entry* globals, unsigned count, long code_serial) {
  if (!called->returns_hot) return false;
  if (value->kind <= ZephVM_Stack::KindDouble &&
      (called->return_code == code_serial || hot::ReturnsToDecoded(called))) {
    const bool is_double = hot::IsDouble(value);
    PassNumber(called, globals, count, is_double ? value->value.number : value->value.integer,
               is_double ? HotForm::Double : HotForm::Integer);
    return true;
  }
  ZephVM_Stack* const callers = called->previous->stack;
  // A borrowed variable may be a local one, which does not outlive the call.
  if (!callers->HasRoom(1) || (value->kind == ZephVM_Stack::KindVariable && !value->deletable)) {
    return false;
  }
  callers->End()->CopyFrom(*value);
  callers->SetEnd(callers->End() + 1);
  return true;
}

HOT_INLINE bool NativeRun::PassNothing(ZephVM_FunctionFrame* called) {
  if (!called->returns_hot || !called->previous->stack->HasRoom(1)) return false;
  hot::Entry* const value = called->previous->stack->End();
  value->SetText("", 0);
  called->previous->stack->SetEnd(value + 1);
  return true;
}

inline bool NativeRun::PassText(ZephVM_FunctionFrame* called, const HotOp* op,
                                const _VH_Entry* globals, unsigned count) {
  if (!called->returns_hot || !called->previous->stack->HasRoom(1)) return false;
  if (!hot::ReturnsText(called, op, globals, count, hot::ReturnsToDecoded(called))) {
    hot::Entry* const value = called->previous->stack->End();
    value->SetText(op->text, op->length);
    called->previous->stack->SetEnd(value + 1);
  }
  return true;
}

inline bool NativeRun::PassJoined(ZephVM_FunctionFrame* called, const HotOp* op,
                                  const _VH_Entry* const* rows, unsigned count,
                                  const hot::Temporaries& temporaries) {
  if (!called->returns_hot || !called->previous->stack->HasRoom(1) ||
      !hot::JoinResult(called, op, rows, count, temporaries, hot::ReturnsToDecoded(called))) {
    return false;
  }
  return true;
}

HOT_INLINE const HotOp* NativeRun::EndCall(ZephVM* vm, ZephVM_FunctionFrame* called,
                                           hot::Entry* bottom, hot::Entry* top, long code_serial) {
  while (top > bottom) [[unlikely]] ZephVM_Stack::Free(--top);
  vm->stack->SetEnd(top);
  ZephVM_Frame* const caller = called->previous;
  vm->frame = caller;
  vm->stack = caller->stack;
  const HotOp* op = nullptr;
  // With a return_code it came from the frames that are kept.
  if (called->return_code != 0 && called->variables->Renew(*called->locals)) [[likely]] {
    ZephVM_FunctionFrame** const idle = &vm->idle_frames[called->place];
    called->next_idle = *idle;
    *idle = called;
    op = called->return_op;
    if (called->return_code != code_serial) {
      if (hot::ReturnsToDecoded(called)) [[likely]] {
        UseSegment(vm, called->return_to, called->return_segment);
      } else {
        vm->wanted_segment = called->return_segment;
        vm->program_counter = called->return_offset;
        op = nullptr;
      }
    }
  } else {
    vm->wanted_segment = called->return_segment;
    vm->program_counter = called->return_offset;
    vm->KeepFrame(called);
  }
  if (vm->hot_mode != caller->output_mode) [[unlikely]]
    vm->SetOutputMode(caller->output_mode);
  return op;
}

#endif
