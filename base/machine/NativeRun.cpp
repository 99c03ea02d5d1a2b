// The operations that machine code calls. Tested in tests/base/machine/NativeCodeTest.cpp.

#include "base/machine/NativeRun.h"

#include "base/compiled/Function.h"
#include "base/compiled/HotGroup.h"
#include "base/core/NumberText.h"
#include "base/core/Output.h"
#include "base/values/VariableRef.h"

using namespace hot;

const void* NativeRun::GoTo(const HotOp* next) {
  op = next;
  return next->native;
}

Variable* NativeRun::MakeOperand(HotOperand table, int offset) {
  if (Variable* const found = operand(table, offset)) [[likely]]
    return found;
  TellStack();
  VariableHash* const variables =
      table == HotOperand::Local ? vm->frame->variables : vm->global_variables;
  return variables->At(HotOp::PositionOf(offset), 1);
}

Variable* NativeRun::target(const HotOp* record) {
  Variable* const found = MakeOperand(record->into, record->third);
  return found && found->IsPlain() ? found : nullptr;
}

bool NativeRun::StoreDouble(NativeRun* run, const HotOp* op, double number) {
  Variable* const found = run->target(op);
  if (!found) return false;
  found->Write_Double(number);
  return true;
}

bool NativeRun::StoreInteger(NativeRun* run, const HotOp* op, int number) {
  Variable* const found = run->target(op);
  if (!found) return false;
  found->Write_Integer(number);
  return true;
}

bool NativeRun::CalculateUnusual(NativeRun* run, const HotOp* op) {
  double a, b;
  if (!ReadOperand<HasNumberSlow>(op->left, op->first, op, run->rows, run->temporaries, &a) ||
      !ReadOperand<HasNumberSlow>(op->right, op->second, op, run->rows, run->temporaries, &b)) {
    return false;
  }
  const HotAction first_to = HotAction::AddToGlobalGlobal;
  // While the group is set aside, the action is another one.
  const bool stored = op->single >= first_to;
  const double result =
      Calculate(op->single, stored ? first_to : HotAction::AddOfGlobalGlobal, a, b);
  if (stored) return StoreDouble(run, op, result);
  run->temporaries.number(op->third) = result;
  return true;
}

bool NativeRun::CalculateOnStack(NativeRun* run, const HotOp* op) {
  if (run->top - 2 < run->bottom() || !MakeTwoDoubles<HasNumberSlow>(run->top)) return false;
  const double b = (--run->top)->value.number;
  double* const a = &run->top[-1].value.number;
  switch (op->single) {
    case HotAction::Add: *a += b; break;
    case HotAction::Sub: *a -= b; break;
    case HotAction::Mul: *a *= b; break;
    default: *a = *a == 0.0 ? 0.0 : *a / b; break;
  }
  return true;
}

Variable* NativeRun::row(HotOperand kind, int position) const {
  const auto table = static_cast<size_t>(kind);
  return static_cast<unsigned>(position) < counts[table] ? rows[table][position].variable : nullptr;
}

NativeRun::Outcome NativeRun::CompareOnStack(NativeRun* run, const HotOp* op) {
  Entry* const left = run->top - 2;
  // Numbers are left to the loop.
  if (left < run->bottom() || !IsOrdinary(left) || !IsOrdinary(left + 1) ||
      (IsNumber<IsComparableSlow>(left) && IsNumber<IsComparableSlow>(left + 1))) {
    return Outcome::Unable;
  }
  int difference;
  if (ZephVM_Stack::CompareWords(left, left + 1, &difference)) {
    ZephVM_Stack::Free(left + 1);
    ZephVM_Stack::Free(left);
  } else {
    run->TellStack();
    difference = run->vm->stack->Compare();
  }
  const int order = difference < 0 ? 0 : difference == 0 ? 1 : 2;
  left->SetInteger(HotGroup::OrdersOf(op->single) >> order & 1);
  run->top = left + 1;
  return Outcome::Worked;
}

bool NativeRun::PushVariable(NativeRun* run, const HotOp* op) {
  Variable* const variable = run->row(op->left, op->first);
  if (!variable || run->top >= run->limit()) return false;
  WakeIfAsleep(variable);
  (run->top++)->SetVariable(variable);
  return true;
}

NativeRun::Outcome NativeRun::PopVariable(NativeRun* run, const HotOp* op) {
  Variable* const variable = Referred(run->row(op->left, op->first));
  Entry* const value = run->top - 1;
  if (!variable || value < run->bottom() || !variable->IsOrdinary()) return Outcome::Unable;
  WakeIfAsleep(variable);
  if (value->kind == ZephVM_Stack::KindDouble) {
    variable->Write_Double(value->value.number);
  } else if (value->kind == ZephVM_Stack::KindInteger) {
    variable->Write_Integer(value->value.integer);
  } else if (value->kind == ZephVM_Stack::KindVariable
                 ? variable->CopyNumber(*value->value.variable->Real())
                 : value->kind == ZephVM_Stack::KindString && !value->deferred &&
                       variable->WriteShort(value->value.text, value->length)) {
    ZephVM_Stack::Free(value);
  } else if (!IsOrdinary(value)) {
    return Outcome::Unable;
  } else if (value->deferred) {
    run->top = value;
    run->TellStack();
    value->value.pending->Assign(variable, value->kind == ZephVM_Stack::KindLinkBuffer);
    return Outcome::Worked;
  } else {
    run->TellStack();
    run->vm->stack->PopV(variable);
    run->top = run->vm->stack->End();
    return Outcome::Worked;
  }
  run->top = value;
  return Outcome::Done;
}

NativeRun::Outcome NativeRun::BindLocal(NativeRun* run, const HotOp* op) {
  Entry* const value = run->top - 1;
  if (value < run->bottom() || value->kind != ZephVM_Stack::KindVariable) return Outcome::Unable;
  run->TellStack();
  const VariableRef held = VariableRef::Share(value->value.variable);
  run->top = value;
  ZephVM_Stack::Free(value);
  run->TellStack();
  // What the position held before may be a large value.
  const Variable* const old = run->row(HotOperand::Local, op->first);
  const bool is_new = !old || old->IsAsleep();
  run->vm->frame->variables->SetVariable_Reference(op->first, held.get());
  return is_new ? Outcome::Done : Outcome::Worked;
}

bool NativeRun::Pop(NativeRun* run, const HotOp*) {
  if (run->top <= run->bottom()) return false;
  ZephVM_Stack::Free(--run->top);
  return true;
}

bool NativeRun::Dup(NativeRun* run, const HotOp*) {
  if (run->top <= run->bottom() || run->top >= run->limit() ||
      !run->top->DupeSimple(run->top[-1])) {
    return false;
  }
  run->top++;
  return true;
}

bool NativeRun::Swap(NativeRun* run, const HotOp*) {
  if (run->top - 2 < run->bottom()) return false;
  ZephVM_Stack::Swap(run->top - 1, run->top - 2);
  return true;
}

bool NativeRun::Mod(NativeRun* run, const HotOp*) {
  Entry* const left = run->top - 2;
  int dividend, divisor;
  if (left < run->bottom() || !IntegerIn(left, &dividend) || !IntegerIn(left + 1, &divisor)) {
    return false;
  }
  ZephVM_Stack::Free(left + 1);
  ZephVM_Stack::Free(left);
  left->SetInteger(Remainder(dividend, divisor));
  run->top = left + 1;
  return true;
}

bool NativeRun::EachElement(NativeRun* run, const HotOp* op) {
  Entry* const value = run->top - 1;
  if (run->top >= run->limit() || value < run->bottom() || value->kind > ZephVM_Stack::KindDouble) {
    return false;
  }
  const double position =
      op->number + (IsDouble(value) ? value->value.number : value->value.integer);
  Variable* const array = Referred(run->row(op[3].left, op[3].first));
  const int number = DoubleToInteger(position);
  const HotOp& pop = op[op->second + 4];
  if (!array || number < 1) return false;
  run->TellStack();
  const Stepped stepped = StepTo(array, number, Referred(run->row(pop.left, pop.first)));
  if (stepped == Stepped::No) return false;
  if (stepped == Stepped::ToValue) run->NoteWork();
  value->SetDouble(position);
  if (op->second > 5) {
    if (op->second > 6 && run->vm->source_file != op[5].first) {
      run->vm->traced_line = 0;
      run->vm->source_file = op[5].first;
      run->vm->source_name = nullptr;
    }
    const HotOp& line = op[op->second - 1];
    if (line.single == HotAction::Line) run->vm->current_line = line.first;
  }
  return true;
}

bool NativeRun::NextElement(NativeRun* run, const HotOp* op) {
  int number;
  Entry* const value = run->top - 2;
  if (value < run->bottom() || value->kind != ZephVM_Stack::KindVariable ||
      !IntegerIn(value + 1, &number) || number < 1) {
    return false;
  }
  run->TellStack();
  const Stepped stepped =
      StepTo(value->value.variable->Real(), number, Referred(run->row(op[4].left, op[4].first)));
  if (stepped == Stepped::No) return false;
  if (stepped == Stepped::ToValue) run->NoteWork();
  ZephVM_Stack::Free(value + 1);
  ZephVM_Stack::Free(value);
  run->top = value;
  return true;
}

bool NativeRun::PrepareCall(ZephVM* vm, ZephVM_FunctionFrame* called) {
  const HotCode* const hot = vm->segment->hot();
  if (called->simple_parameters < 0 || called->return_code == hot->serial()) return false;
  // The code of another segment is found when it is entered, because it may have changed by then.
  if (called->entry_segment == vm->loaded_segment) {
    unsigned count;
    (void)called->variables->Rows(hot->locals(), &count);
    called->entry = hot->At(called->entry_offset);
    // A damaged file may have a function that begins within an instruction. Then no call enters it.
    called->entry_serial = called->entry ? hot->serial() : 0;
    if (!called->entry) return false;
  } else {
    called->entry_code = vm->segments->Lookup(called->entry_segment);
    if (!called->entry_code) return false;
  }
  called->return_segment = vm->loaded_segment;
  called->return_to = vm->segment;
  called->return_code = hot->serial();
  called->returns_hot = true;
  called->serial = 0;
  return true;
}

bool NativeRun::CallWith(NativeRun* run, const HotOp* op) {
  run->TellStack();
  ZephVM_FunctionFrame* const called = run->idle_frames[op->first];
  if (run->vm->frame->depth >= ZephVM::MostFrames || run->top >= run->limit() ||
      called->simple_parameters != op->second || !PrepareCall(run->vm, called)) {
    return false;
  }
  run->called = called;
  run->called_rows = called->variables->Rows(&run->called_count);
  return true;
}

bool NativeRun::SendValue(NativeRun* run, const HotOp* op) {
  run->called_rows = run->called->variables->Rows(&run->called_count);
  Variable* const parameter = VariableIn(run->called_rows, op->third);
  if (!parameter) return false;
  run->TellStack();
  if (op->left == HotOperand::Text) {
    parameter->Begin(op->text, op->length);
    return true;
  }
  const bool is_temporary = op->left == HotOperand::Temporary;
  if (is_temporary || op->left == HotOperand::Constant) {
    const HotForm form =
        is_temporary && op->form == HotForm::AsLoaded ? run->temporaries.form(op->first) : op->form;
    const double number = is_temporary ? run->temporaries.number(op->first) : op->number;
    if (form == HotForm::Double) {
      parameter->Begin(number);
      return true;
    }
    if (form == HotForm::Integer) {
      parameter->Begin(static_cast<int>(number));
      return true;
    }
  }
  Variable* const variable =
      is_temporary ? run->temporaries.place(op->first) : run->operand_row(op->left, op->first);
  if (!variable) return false;
  if (op->refer) {
    WakeIfAsleep(variable);
    parameter->Begin(variable);
    return true;
  }
  return BeginWithScalar(parameter, variable, &run->patience);
}

void NativeRun::BeginText(Variable* parameter, const char* text, int length) {
  parameter->Begin(text, length);
}

bool NativeRun::LoadFrom(NativeRun* run, const HotOp* op, Variable* found) {
  if (found->HoldsNumber()) {
    run->temporaries.Set(op->third, found);
    return true;
  }
  if (op->load >= HotLoad::NumberOrText && found->HoldsText()) {
    run->temporaries.SetText(op->third, found);
    return true;
  }
  return Load(found, op, &run->temporaries);
}

bool NativeRun::MoveFrom(NativeRun* run, const HotOp* op, Variable* found) {
  found = found->Real();
  Variable* const goal = run->target(op);
  if (!goal || goal == found || goal == run->operand(op->left, op->first) || !found->IsPlain()) {
    return false;
  }
  if (!goal->CopyNumber(*found) && !goal->CopyShort(*found)) {
    run->TellStack();
    WakeIfAsleep(goal);
    Assign(goal, found);
    run->NoteWork();
  }
  return true;
}

bool NativeRun::FindInteger(HotOperand kind, int offset, int* number) const {
  if (kind == HotOperand::Temporary) {
    *number = DoubleToInteger(temporaries.number(offset));
  } else if (kind == HotOperand::Constant) {
    *number = offset;
  } else {
    return IntegerOf(operand(kind, offset), number);
  }
  return true;
}

NativeRun::Outcome NativeRun::LoadElement(NativeRun* run, const HotOp* op) {
  int number;
  Variable* const array = run->operand(op->left, op->first);
  if (!run->FindInteger(op->right, op->second, &number) || !array || number < 1) {
    return Outcome::Unable;
  }
  run->TellStack();
  if (const DenseSlot* const slot = array->SearchSlot(number)) [[likely]] {
    if (slot->IsVariable()) {
      return LoadFrom(run, op, slot->variable()) ? Outcome::Done : Outcome::Unable;
    }
    run->temporaries.Set(op->third, *slot);
    return Outcome::Done;
  }
  if (!array->IsPlain() || !array->HoldsArray()) return Outcome::Unable;
  Variable* const found = array->At(number, 0);
  return found && Load(found, op, &run->temporaries) ? Outcome::Done : Outcome::Unable;
}

NativeRun::Outcome NativeRun::LoadMember(NativeRun* run, const HotOp* op) {
  DenseSlot bare;
  Variable* const structure = run->operand(op->left, op->first);
  if (!structure) return Outcome::Unable;
  run->TellStack();
  if (structure->FindNumberMember(op->text, op->length, &op->hint, &bare)) {
    run->temporaries.Set(op->third, bare);
    return Outcome::Done;
  }
  if (!structure->IsPlain() || !structure->HoldsStructure()) return Outcome::Unable;
  Variable* const found = structure->Member(op->text, op->length, 0, &op->hint);
  return found && Load(found, op, &run->temporaries) ? Outcome::Done : Outcome::Unable;
}

// An element that is created stays if the group does not apply: its instructions create it again,
// in the same order.
NativeRun::Outcome NativeRun::FindElement(NativeRun* run, const HotOp* op) {
  int number;
  Variable* const array = run->operand(op->left, op->first);
  if (!run->FindInteger(op->right, op->second, &number) || !array || number < 1 ||
      !array->IsPlain() || !array->HoldsArray()) {
    return Outcome::Unable;
  }
  run->TellStack();
  Variable* found = array->SearchMade(number);
  if (!found) found = array->At(number, op->create);
  if (!found) return Outcome::Unable;
  run->temporaries.place(op->third) = found;
  return Outcome::Done;
}

NativeRun::Outcome NativeRun::FindMember(NativeRun* run, const HotOp* op) {
  Variable* const structure = run->operand(op->left, op->first);
  if (!structure || !structure->IsPlain() || !structure->HoldsStructure()) return Outcome::Unable;
  run->TellStack();
  Variable* const found = structure->Member(op->text, op->length, op->create, &op->hint);
  if (!found) return Outcome::Unable;
  run->temporaries.place(op->third) = found;
  return Outcome::Done;
}

NativeRun::Outcome NativeRun::MoveVariable(NativeRun* run, const HotOp* op) {
  Variable* source = run->operand_row(op->left, op->first);
  Variable* goal = run->operand_row(op->into, op->third);
  if (source && goal && goal->CopyWord(*source)) return Outcome::Done;
  goal = run->target(op);
  source = Referred(source);
  if (!goal || !source || !source->IsPlain()) return Outcome::Unable;
  if (goal->CopyNumber(*source) || goal->CopyShort(*source)) return Outcome::Done;
  run->TellStack();
  WakeIfAsleep(source);
  WakeIfAsleep(goal);
  Assign(goal, source);
  return Outcome::Worked;
}

NativeRun::Outcome NativeRun::MoveText(NativeRun* run, const HotOp* op) {
  Variable* goal = run->operand_row(op->into, op->third);
  if (goal && goal->WriteWord(op->text, op->length)) return Outcome::Done;
  goal = run->target(op);
  if (!goal) return Outcome::Unable;
  if (goal->WriteShort(op->text, op->length)) return Outcome::Done;
  run->TellStack();
  goal->SetValue(op->text, op->length);
  return Outcome::Worked;
}

NativeRun::Outcome NativeRun::MoveValue(Variable* found, Variable* goal) {
  found = found->Real();
  if (found == goal || !found->IsPlain()) return Outcome::Unable;
  if (goal->CopyNumber(*found) || goal->CopyShort(*found)) return Outcome::Done;
  WakeIfAsleep(goal);
  Assign(goal, found);
  return Outcome::Worked;
}

NativeRun::Outcome NativeRun::MoveElement(NativeRun* run, const HotOp* op) {
  int number;
  Variable* const goal = run->target(op);
  Variable* const array = run->operand(op->left, op->first);
  if (!goal || !run->FindInteger(op->right, op->second, &number) || !array || number < 1 ||
      array == goal) {
    return Outcome::Unable;
  }
  run->TellStack();
  if (const DenseSlot* const slot = array->SearchSlot(number)) [[likely]] {
    if (slot->IsVariable()) return MoveValue(slot->variable(), goal);
    if (slot->IsInteger()) {
      goal->Write_Integer(slot->integer());
    } else {
      goal->Write_Double(slot->number());
    }
    return Outcome::Done;
  }
  if (!array->IsPlain() || !array->HoldsArray()) return Outcome::Unable;
  Variable* const found = array->At(number, op->create);
  return found ? MoveValue(found, goal) : Outcome::Unable;
}

NativeRun::Outcome NativeRun::MoveMember(NativeRun* run, const HotOp* op) {
  Variable* const goal = run->target(op);
  Variable* const structure = run->operand(op->left, op->first);
  if (!goal || !structure || structure == goal) return Outcome::Unable;
  run->TellStack();
  DenseSlot bare;
  if (structure->FindNumberMember(op->text, op->length, &op->hint, &bare)) [[likely]] {
    if (bare.IsInteger()) {
      goal->Write_Integer(bare.integer());
    } else {
      goal->Write_Double(bare.number());
    }
    return Outcome::Done;
  }
  if (!structure->IsPlain() || !structure->HoldsStructure()) return Outcome::Unable;
  Variable* const found = structure->Member(op->text, op->length, op->create, &op->hint);
  return found ? MoveValue(found, goal) : Outcome::Unable;
}

// A number is stored as such only if it is all of its value.
bool NativeRun::FindStored(HotOperand kind, int offset, const HotOp* op, Variable** source,
                           double* number, HotForm* form) const {
  *source = nullptr;
  *form = op->form;
  if (kind == HotOperand::Constant) {
    *number = op->number;
  } else if (kind == HotOperand::Temporary) {
    *number = temporaries.number(offset);
    if (*form == HotForm::AsLoaded) {
      *form = temporaries.form(offset);
      *source = temporaries.Loaded(offset);
    }
  } else {
    Variable* const variable = operand(kind, offset);
    if (!variable || !variable->IsPlain()) return false;
    if (variable->HoldsText() || !FindAlone(variable, number, form)) *source = variable;
  }
  return true;
}

// A text, or a value with elements.
NativeRun::Outcome NativeRun::Store(Variable* target, Variable* source) {
  if (!target) return Outcome::Unable;
  if (target->CopyWord(*source)) return Outcome::Done;
  if (!target->IsPlain()) return Outcome::Unable;
  WakeIfAsleep(source);
  Assign(target, source);
  return Outcome::Worked;
}

NativeRun::Way NativeRun::StoreFrom(NativeRun* run, Variable* element, Variable* source,
                                    const HotOp* op) {
  source = source->Real();
  Outcome outcome = Outcome::Unable;
  if (source->HoldsText() || (source->IsPlain() && source->plain_elements())) {
    run->TellStack();
    outcome = Store(element, source);
  }
  return run->WayAfter(outcome, op, op + 1);
}

NativeRun::Outcome NativeRun::StoreElement(NativeRun* run, const HotOp* op) {
  int number;
  Variable* const array = run->operand(op->left, op->first);
  if (!run->FindInteger(op->right, op->second, &number) || !array || number < 1) {
    return Outcome::Unable;
  }
  Variable* source = nullptr;
  double value;
  HotForm form;
  const bool is_text = op->into == HotOperand::Text;
  if (!is_text && !run->FindStored(op->into, op->third, op, &source, &value, &form)) {
    return Outcome::Unable;
  }
  run->TellStack();
  if (is_text || source) {
    if (!array->IsPlain() || !array->HoldsArray()) return Outcome::Unable;
    Variable* const element = ElementToStore(array, number);
    if (source) return Store(element, source);
    if (element && element->WriteWord(op->text, op->length)) return Outcome::Done;
    if (!element || !element->IsPlain()) return Outcome::Unable;
    element->SetValue(op->text, op->length);
    return Outcome::Worked;
  }
  const bool is_stored =
      form == HotForm::Double
          ? array->WriteElement(number, value)
          : form == HotForm::Integer && array->WriteElement(number, static_cast<int>(value));
  return is_stored ? Outcome::Done : Outcome::Unable;
}

NativeRun::Outcome NativeRun::StoreMember(NativeRun* run, const HotOp* op) {
  Variable* const structure = op->create && op->left <= HotOperand::Local
                                  ? run->MakeOperand(op->left, op->first)
                                  : run->operand(op->left, op->first);
  Variable* source;
  double value;
  HotForm form;
  if (!structure || !run->FindStored(op->right, op->second, op, &source, &value, &form)) {
    return Outcome::Unable;
  }
  if (!structure->HoldsStructure()) {
    // One that has no value becomes a structure before the value that is stored is read.
    if (!op->create || !structure->IsPlain() || structure->plain_forms() != 0 ||
        structure->HoldsArray() || source == structure) {
      return Outcome::Unable;
    }
    WakeIfAsleep(structure);
  }
  run->TellStack();
  if (source) {
    if (!structure->IsPlain()) return Outcome::Unable;
    return Store(structure->Member(op->text, op->length, 1, &op->hint), source);
  }
  const bool is_stored =
      form == HotForm::Double
          ? structure->WriteMember(op->text, op->length, &op->hint, value)
          : form == HotForm::Integer &&
                structure->WriteMember(op->text, op->length, &op->hint, static_cast<int>(value));
  return is_stored ? Outcome::Done : Outcome::Unable;
}

// The instruction at a record must use only the value of the entry on top. The field of a database,
// to which a variable may refer, takes a number and a variable in different ways. And it must not
// tell an element that is only a number from its variable. It cannot if that is an integer; of a
// double, a read as text would leave a text that comparisons use from then on.
bool NativeRun::FindSufficient(Variable* array, int number, const HotOp* use,
                               DenseSlot* bare) const {
  const bool is_popped = use->single == HotAction::PopVariable;
  if (!(use->uses & HotOp::UsedAsValue) &&
      !(is_popped && IsPlainRow(Referred(row(use->left, use->first))))) {
    return false;
  }
  return array->FindBare(number, bare) &&
         (bare->IsInteger() || (use->uses & HotOp::UsedAsNumber) || is_popped);
}

NativeRun::Outcome NativeRun::PushElement(NativeRun* run, const HotOp* op) {
  int number;
  Variable* const array = run->operand(op->left, op->first);
  if (!run->FindInteger(op->right, op->second, &number) || run->top >= run->limit() || !array ||
      !array->IsPlain() || number < 1) {
    return Outcome::Unable;
  }
  WakeIfAsleep(array);
  run->TellStack();
  DenseSlot bare;
  if (!op->create && run->FindSufficient(array, number, op[1].plain, &bare)) {
    if (bare.IsInteger()) {
      (run->top++)->SetInteger(bare.integer());
    } else {
      (run->top++)->SetDouble(bare.number());
    }
    return Outcome::Done;
  }
  Variable* const found = array->At(number, op->create);
  (run->top++)->SetVariable(found ? found : run->vm->null_variable);
  return Outcome::Done;
}

NativeRun::Outcome NativeRun::PushMember(NativeRun* run, const HotOp* op) {
  Variable* const structure = run->operand(op->left, op->first);
  if (run->top >= run->limit() || !structure || !structure->IsPlain()) return Outcome::Unable;
  WakeIfAsleep(structure);
  run->TellStack();
  Variable* const found = structure->Member(op->text, op->length, op->create, &op->hint);
  (run->top++)->SetVariable(found ? found : run->vm->null_variable);
  return Outcome::Done;
}

void NativeRun::ReplaceTwo(Variable* variable) {
  if (!variable) variable = vm->null_variable;
  variable->Hold();
  ZephVM_Stack::Free(--top);
  ZephVM_Stack::Free(top - 1);
  top[-1].SetOwned(variable);
}

NativeRun::Outcome NativeRun::Element(NativeRun* run, const HotOp* op) {
  Entry* const entry = run->top - 2;
  int number;
  if (entry < run->bottom() || entry->kind != ZephVM_Stack::KindVariable) return Outcome::Unable;
  Variable* const array = entry->value.variable->Real();
  if (!array->IsPlain() || !IntegerIn(entry + 1, &number) || number < 1) return Outcome::Unable;
  run->TellStack();
  const bool create = op->single == HotAction::Element;
  DenseSlot bare;
  if (!create && run->FindSufficient(array, number, op->plain + 1, &bare)) {
    ZephVM_Stack::Free(entry + 1);
    ZephVM_Stack::Free(entry);
    if (bare.IsInteger()) {
      entry->SetInteger(bare.integer());
    } else {
      entry->SetDouble(bare.number());
    }
    run->top = entry + 1;
    return Outcome::Done;
  }
  run->ReplaceTwo(array->At(number, create));
  return Outcome::Done;
}

NativeRun::Outcome NativeRun::Member(NativeRun* run, const HotOp* op) {
  Entry* const entry = run->top - 2;
  const char* text;
  int length;
  if (entry < run->bottom() || entry->kind != ZephVM_Stack::KindVariable) return Outcome::Unable;
  Variable* const structure = entry->value.variable->Real();
  if (!structure->IsPlain() || !FindName(entry + 1, structure, &text, &length)) {
    return Outcome::Unable;
  }
  run->TellStack();
  const int create = op->single == HotAction::Member;
  run->ReplaceTwo(structure->HoldsStructure()
                      ? structure->plain_elements()->Member(text, length, create, nullptr)
                      : structure->Member(text, length, create));
  return Outcome::Done;
}

NativeRun::Outcome NativeRun::StoreOnStack(NativeRun* run, const HotOp*) {
  Entry* const value = run->top - 2;
  if (value < run->bottom() || value[1].kind != ZephVM_Stack::KindVariable) return Outcome::Unable;
  Variable* const target = value[1].value.variable->Real();
  if (!target->IsPlain()) return Outcome::Unable;
  if (value->kind == ZephVM_Stack::KindString || value->kind == ZephVM_Stack::KindLinkBuffer) {
    run->top = StoreText(run->vm->stack, run->top);
    return Outcome::Worked;
  }
  if (!IsNumberOrPlain(value)) return Outcome::Unable;
  Outcome outcome = Outcome::Done;
  if (value->kind == ZephVM_Stack::KindVariable) {
    run->TellStack();
    if (!value->Owns() || !target->TakeValue(value->value.variable)) {
      target->SetValue(*value->value.variable);
    }
    outcome = Outcome::Worked;
  } else if (value->kind == ZephVM_Stack::KindDouble) {
    target->Write_Double(value->value.number);
  } else {
    target->Write_Integer(value->value.integer);
  }
  run->top = value;
  ZephVM_Stack::Free(value + 1);
  ZephVM_Stack::Free(value);
  return outcome;
}

// A result that only the stack holds becomes the member itself, if that is new.
NativeRun::Outcome NativeRun::StoreInMember(NativeRun* run, const HotOp* op) {
  Variable* const structure = run->operand(op->left, op->first);
  Entry* const value = run->top - 1;
  run->TellStack();
  if (structure && run->top < run->limit() && value >= run->bottom() &&
      value->kind == ZephVM_Stack::KindVariable && value->Owns() && !structure->IsAsleep() &&
      structure->AdoptMember(op->text, op->length, value->value.variable)) {
    run->top = value;
    return Outcome::Worked;
  }
  const Outcome outcome = PushMember(run, op);
  if (outcome == Outcome::Unable) return outcome;
  const Outcome stored = StoreOnStack(run, op + 1);
  if (stored == Outcome::Unable) ZephVM_Stack::Free(--run->top);
  return stored;
}

NativeRun::Outcome NativeRun::Concatenate(NativeRun* run, const HotOp*) {
  Entry* const left = run->top - 2;
  if (left >= run->bottom() && left->deferred && left[1].deferred) {
    // As for the results of two functions. Both stay on the stack until memory was found.
    DeferredText* const added = left[1].value.pending;
    if (const char* const bytes = added->InPlace()) {
      run->TellStack();
      left->AppendDeferred(bytes, added->length());
      delete added;
      run->top--;
      run->TellStack();
      return Outcome::Worked;
    }
  }
  if (run->top - 2 < run->bottom() || !IsOrdinary(run->top - 1) || !IsOrdinary(run->top - 2)) {
    return Outcome::Unable;
  }
  run->TellStack();
  run->vm->stack->Concatenate();
  run->top = run->vm->stack->End();
  return Outcome::Worked;
}

NativeRun::Outcome NativeRun::ConcatenateText(NativeRun* run, const HotOp* op) {
  if (run->top >= run->limit() || run->top <= run->bottom() || !run->top[-1].deferred) {
    return Outcome::Unable;
  }
  run->TellStack();
  run->top[-1].AppendDeferred(op->text, op->length);
  return Outcome::Done;
}

NativeRun::Outcome NativeRun::ConcatenateVariable(NativeRun* run, const HotOp* op) {
  Variable* const variable = Referred(run->row(op->left, op->first));
  if (run->top >= run->limit() || run->top <= run->bottom() || !run->top[-1].deferred ||
      !variable || !variable->IsOrdinary()) {
    return Outcome::Unable;
  }
  WakeIfAsleep(variable);
  run->TellStack();
  if (variable->plain_forms() == Variable::IntegerForm) {
    run->top[-1].AppendDeferred(variable->plain_integer());
  } else {
    run->top[-1].AppendDeferred(variable);
  }
  return Outcome::Done;
}

NativeRun::Outcome NativeRun::ConcatenateTextVariable(NativeRun* run, const HotOp* op) {
  Variable* const variable = Referred(run->row(op[1].left, op[1].first));
  if (run->top >= run->limit() || !variable || op->length > ZephVM_Stack::ShortText) {
    return Outcome::Unable;
  }
  run->TellStack();
  const unsigned forms = variable->plain_forms();
  if (forms == Variable::IntegerForm) {
    run->top->SetDeferred(op->text, op->length, variable->plain_integer());
  } else if ((forms & Variable::TextForm) &&
             variable->plain_text().length <= ZephVM_Stack::ShortText) {
    run->top->SetDeferred(op->text, op->length, variable);
  } else {
    return Outcome::Unable;
  }
  run->top++;
  return Outcome::Done;
}

NativeRun::Outcome NativeRun::ConcatenateVariableText(NativeRun* run, const HotOp* op) {
  Variable* const variable = Referred(run->row(op->left, op->first));
  if (run->top >= run->limit() || !variable || !(variable->plain_forms() & Variable::TextForm)) {
    return Outcome::Unable;
  }
  run->TellStack();
  DeferredText* const text = DeferredText::Begin(variable);
  if (!text) return Outcome::Unable;
  (run->top++)->SetDeferred(text);
  run->TellStack();
  text->Append(op[1].text, op[1].length);
  return Outcome::Done;
}

NativeRun::Outcome NativeRun::OutText(NativeRun* run, const HotOp* op) {
  if (run->top >= run->limit()) return Outcome::Unable;
  run->TellStack();
  return run->vm->application->CurrentOutput()->Put(op->text, op->length) ? Outcome::Done
                                                                          : Outcome::Outside;
}

NativeRun::Outcome NativeRun::OutVariable(NativeRun* run, const HotOp* op) {
  Variable* const variable = Referred(run->row(op->left, op->first));
  if (run->top >= run->limit() || !variable) return Outcome::Unable;
  run->TellStack();
  Output* const page = run->vm->application->CurrentOutput();
  if (variable->HoldsInteger()) {
    // Numbers are made in the output's own room, if it has some.
    if (char* const room = page->Room(kLongestInteger)) [[likely]] {
      page->Took(WriteInteger(room, variable->plain_integer()));
      return Outcome::Done;
    }
    char digits[kLongestInteger];
    page->Write(digits, static_cast<int>(WriteInteger(digits, variable->plain_integer()) - digits));
    return Outcome::Outside;
  }
  if (!(variable->plain_forms() & Variable::TextForm)) return Outcome::Unable;
  const String& text = variable->plain_text();
  if (!text.data) return Outcome::Unable;
  return page->Put(text.data, text.length) ? Outcome::Done : Outcome::Outside;
}

NativeRun::Outcome NativeRun::WriteRounded(double number, int decimals, Entry* end) {
  char text[ZephVM::MostRounded];
  Output* const page = vm->application->CurrentOutput();
  char* const room = page->Room(ZephVM::MostRounded);
  const int length = ZephVM::WriteRounded(number, decimals, room ? room : text);
  if (length <= 0) return Outcome::Unable;
  while (top > end) ZephVM_Stack::Free(--top);
  TellStack();
  if (!room) {
    page->Write(text, length);
    return Outcome::Outside;
  }
  page->Took(room + length);
  return Outcome::Done;
}

NativeRun::Outcome NativeRun::OutRounded(NativeRun* run, const HotOp* op) {
  Entry* const value = run->top - 1;
  if (run->top >= run->limit() || value < run->bottom() || !IsNumber<HasNumberSlow>(value)) {
    return Outcome::Unable;
  }
  return run->WriteRounded(NumberIn(value), op->first, value);
}

NativeRun::Outcome NativeRun::OutVariableRounded(NativeRun* run, const HotOp* op) {
  double number;
  Variable* const variable = Referred(run->row(op->left, op->first));
  if (run->top >= run->limit() || !variable || !Find<HasNumberSlow>(variable, &number)) {
    return Outcome::Unable;
  }
  return run->WriteRounded(number, op[1].first, run->top);
}

NativeRun::Way NativeRun::Handler(NativeRun* run, const HotOp* op) {
  ZephVM* const vm = run->vm;
  run->TellStack();
  vm->instruction_start = op->start;
  vm->first_integer = op->first;
  vm->second_integer = op->second;
  vm->program_counter = op[1].start;
  vm->RunHandler(op->code);
  const Way way = run->WayOutside(op + 1);
  if (way == Way::Ends) return way;
  run->top = run->vm->stack->End();
  const HotCode* const hot = vm->segment->hot();
  // The main code has the globals as its locals, too.
  (void)vm->frame->variables->Rows(hot->locals(), &run->counts[1]);
  run->rows[0] = vm->global_variables->Rows(hot->globals(), &run->counts[0]);
  run->rows[1] = vm->frame->variables->Rows(&run->counts[1]);
  if (run->top <= run->limit()) return Way::On;
  run->op = nullptr;
  return Way::Ends;
}

NativeRun::Outcome NativeRun::JoinTo(NativeRun* run, const HotOp* op) {
  Variable* const goal = run->target(op);
  if (!goal) return Outcome::Unable;
  run->TellStack();
  return JoinInVariable(op, run->rows, run->temporaries, goal) ? Outcome::Worked : Outcome::Unable;
}

NativeRun::Outcome NativeRun::JoinPush(NativeRun* run, const HotOp* op) {
  if (run->top >= run->limit()) return Outcome::Unable;
  run->TellStack();
  if (!JoinOnStack(op, run->rows, run->temporaries, run->top)) return Outcome::Unable;
  run->top++;
  return Outcome::Done;
}

// If the first operand is the target, it is not in the bytes.
bool NativeRun::StoreJoined(NativeRun* run, const HotOp* op, int length) {
  Variable* const goal = run->target(op);
  if (!goal) return false;
  run->TellStack();
  if (op[1].left == op->into && op[1].first == op->third) {
    if (!(goal->plain_forms() & Variable::TextForm) || !goal->plain_text().data ||
        goal->plain_text().length >= INT_MAX - 1 - kMostJoinedBytes) {
      return false;
    }
    goal->AppendText(run->joined, length, op->refer);
    run->NoteWork();
  } else {
    goal->WriteJoined(run->joined, length, op->refer);
  }
  return true;
}

bool NativeRun::PushJoined(NativeRun* run, const HotOp* op, int length) {
  run->TellStack();
  SetJoined(run->top, run->joined, length, op->refer);
  run->top++;
  return true;
}

bool NativeRun::ReturnJoined(NativeRun* run, const HotOp* op, int length) {
  auto* const called = static_cast<ZephVM_FunctionFrame*>(run->vm->frame);
  if (!called->returns_hot || !called->previous->stack->HasRoom(1)) return false;
  run->TellStack();
  PassBytes(called, run->joined, length, op->refer, run->rows[0], run->counts[0],
            ReturnsToDecoded(called));
  return true;
}

// The left text may be a number, which is then kept with it. That needs an element of its own: the
// one that was loaded may be shared by copies of the array.
int NativeRun::OrderOfLoaded(NativeRun* run, const HotOp* op, bool* worked) {
  const auto find = [run, op](HotOperand kind, int offset, Variable** text, double* number) {
    *text = nullptr;
    *number = 0.0;
    if (kind == HotOperand::Constant) {
      *number = op->number;
    } else if (kind <= HotOperand::Local) {
      *text = run->operand(kind, offset);
      return *text != nullptr;
    } else {
      *number = run->temporaries.number(offset);
      if (kind == HotOperand::Place) *text = run->temporaries.text(offset);
    }
    return true;
  };
  Variable* left;
  Variable* right;
  double left_number, right_number;
  int order;
  bool texts;
  if (!find(op->left, op->first, &left, &left_number) ||
      !find(op->right, op->second, &right, &right_number)) {
    return -1;
  }
  if (left && right) {
    order = OrderOfWords(left, right, op->orders);
    if (order >= 0) return order;
  }
  if ((op->left == HotOperand::Place && left && !HoldsWord(left)) ||
      !FindLoadedOrder(left, left_number, right, right_number, &order, &texts)) {
    return -1;
  }
  *worked = texts && !IsShort(left) && !IsShort(right);
  return order;
}

// Texts are only compared with each other.
int NativeRun::OrderOfUnusual(NativeRun* run, const HotOp* op, bool* worked) {
  if (op->left == HotOperand::Place || op->right == HotOperand::Place) {
    return OrderOfLoaded(run, op, worked);
  }
  Variable* const left =
      op->left <= HotOperand::Local ? run->operand(op->left, op->first) : nullptr;
  Variable* const right =
      op->right <= HotOperand::Local ? run->operand(op->right, op->second) : nullptr;
  int order;
  if (left && left->HoldsText()) {
    if (op->word) {
      // The test of a truth, which is a comparison with 0 of a number only.
      const String& text = left->plain_text();
      if (text.length > kShort) return -1;
      return Variable::IsTrue(text.data, text.length) ? 2 : 1;
    }
    if (right) {
      order = OrderOfWords(left, right, op->orders);
      if (order >= 0) return order;
    }
  }
  double a, b;
  if (ReadOperand<IsComparableSlow>(op->left, op->first, op, run->rows, run->temporaries, &a) &&
      ReadOperand<IsComparableSlow>(op->right, op->second, op, run->rows, run->temporaries, &b)) {
    return OrderOf(a, b);
  }
  *worked = true;
  return FindOrderOfVariables(left, right, &order) ? order : -1;
}

int NativeRun::CompareGlobals(NativeRun* run, const HotOp* op) {
  Variable* const left = run->row(HotOperand::Global, op->first);
  Variable* const right = run->row(HotOperand::Global, op->second);
  int order = -1;
  if (left && right && left->HoldsText()) order = OrderOfWords(left, right, op[1].orders);
  if (order < 0 && !FindOrder(left, right, &order) &&
      (!FindOrderOfVariables(left, right, &order) || run->Raised())) {
    return -1;
  }
  return op[1].orders >> order & 1;
}

int NativeRun::OrderOfText(NativeRun* run, const HotOp* op, bool* worked) {
  int order;
  Variable* const left = run->operand(op->left, op->first);
  if (left && HoldsWord(left) && (op->orders == 2 || op->orders == 5)) return IsSameWord(left, op);
  if (!FindOrderOfText(left, op, &order)) return -1;
  *worked = op->length > kShort || !IsShort(left);
  return order;
}

int NativeRun::Match(NativeRun* run, const HotOp* op) {
  int position;
  return FindMatch(op, run->rows, run->temporaries, &position) ? position : -1;
}

Variable* NativeRun::Real(Variable* variable) {
  return variable->Real();
}

void NativeRun::Search(AggregateElementTree* tree, int position) {
  tree->SearchSlot(position);
}

bool NativeRun::Append(AggregateElementTree* tree, int place, DenseSlot number) {
  return tree->AppendNumber(place, number);
}

void NativeRun::SearchMember(AggregateElementTree* tree, const MemberHint* hint) {
  tree->SearchMember(*hint);
}

const void* NativeRun::SendOther(NativeRun* run, const HotOp* op) {
  ZephVM_FunctionFrame* const called = run->called;
  if (SendValue(run, op)) return run->GoTo(op + 1);
  run->TellStack();
  const int place = HotOp::PositionOf(op->third);
  const HotOp* const end = op + (called->simple_parameters - place);
  int wanted_patience = 0;
  if (BeginArguments(op, end, run->called_rows + place, run->rows, run->temporaries,
                     &wanted_patience)) {
    if (wanted_patience == 1) run->NoteWork();
    return run->GoTo(end);
  }
  // The machine's call makes the arguments again.
  if (!called->variables->Renew(*called->locals)) {
    run->idle_frames[called->place] = called->next_idle;
    delete called;
  }
  run->is_misfit = true;
  run->op = op;
  return nullptr;
}

// The decoded code of a function in another segment may have been dropped, or be new. The loop
// finds that out, and has to be asked before the arguments leave the stack.
static bool IsEnterable(const ZephVM_FunctionFrame* called, bool is_here) {
  return is_here ||
         (called->entry_code->hot() && called->entry_code->hot()->serial() == called->entry_serial);
}

const void* NativeRun::Enter(NativeRun* run, const HotOp* op) {
  ZephVM* const vm = run->vm;
  ZephVM_FunctionFrame* const called = run->called;
  run->op = op;
  const bool is_here = called->entry_segment == vm->loaded_segment;
  // The loop may be what enters the frame.
  run->called_rows = called->variables->Rows(&run->called_count);
  if (!IsEnterable(called, is_here)) return nullptr;
  run->TellStack();
  BeginCall(vm, called, op + 1);
  run->rows[1] = run->called_rows;
  run->counts[1] = run->called_count;
  run->top = vm->stack->End();
  if (!is_here) UseSegment(vm, called->entry_code, called->entry_segment);
  const void* const code = run->GoTo(called->entry);
  return --run->patience == 0 ? nullptr : code;
}

const void* NativeRun::AfterResult(NativeRun* run, const HotOp*) {
  ZephVM* const vm = run->vm;
  auto* const called = static_cast<ZephVM_FunctionFrame*>(vm->frame);
  const HotOp* const next =
      EndCall(vm, called, vm->stack->Begin(), run->top, vm->segment->hot()->serial());
  run->op = next;
  if (!next) return nullptr;
  run->top = vm->stack->End();
  run->rows[1] = vm->frame->variables->Rows(&run->counts[1]);
  return next->native;
}

bool NativeRun::ReturnNumber(NativeRun* run, const HotOp* op) {
  auto* const called = static_cast<ZephVM_FunctionFrame*>(run->vm->frame);
  if (!ReturnsToDecoded(called)) return false;
  const double number =
      op->left == HotOperand::Constant ? op->number : run->temporaries.number(op->first);
  PassNumber(called, run->rows[0], run->counts[0], number, op->form);
  return true;
}

bool NativeRun::ReturnVariable(NativeRun* run, const HotOp* op) {
  auto* const called = static_cast<ZephVM_FunctionFrame*>(run->vm->frame);
  int wanted_patience = 0;
  Variable* const variable = run->row(op->left, op->first);
  run->TellStack();
  if (!PassVariable(called, variable, run->rows[0], run->counts[0],
                    run->vm->segment->hot()->serial(), run->top < run->limit(), &wanted_patience)) {
    if (run->top >= run->limit() || !PassHeld(called, variable)) return false;
    // The frame could not use it again. Parameters are made when a frame is, so they stay.
    if (called->simple_parameters >= 0 && op->left == HotOperand::Local &&
        op->first >= called->simple_parameters) {
      called->variables->Drop(op->first);
    }
  }
  if (wanted_patience == 1) run->NoteWork();
  return true;
}

bool NativeRun::Return(NativeRun* run, const HotOp*) {
  Entry* const value = run->top - 1;
  if (value < run->bottom() ||
      !PassEntry(static_cast<ZephVM_FunctionFrame*>(run->vm->frame), value, run->rows[0],
                 run->counts[0], run->vm->segment->hot()->serial())) {
    return false;
  }
  run->top = value;
  return true;
}

bool NativeRun::ReturnNothing(NativeRun* run, const HotOp*) {
  return PassNothing(static_cast<ZephVM_FunctionFrame*>(run->vm->frame));
}

bool NativeRun::ReturnText(NativeRun* run, const HotOp* op) {
  return PassText(static_cast<ZephVM_FunctionFrame*>(run->vm->frame), op, run->rows[0],
                  run->counts[0]);
}

bool NativeRun::JoinReturn(NativeRun* run, const HotOp* op) {
  auto* const called = static_cast<ZephVM_FunctionFrame*>(run->vm->frame);
  run->TellStack();
  if (!PassJoined(called, op, run->rows, run->counts[0], run->temporaries)) return false;
  run->NoteWork();
  return true;
}

int NativeRun::CountVariables(const NativeRun* run, int function, int* parameters) {
  FunctionManager* const functions = run->vm->functions;
  Function* const found = functions ? functions->Lookup(function) : nullptr;
  if (!found) return -1;
  *parameters = static_cast<int>(found->slots().size());
  return found->variables().Entries();
}

// Functions do not change while code runs, and every frame that is prepared for calls from the code
// was prepared with the same outcome.
int NativeRun::FindCalled(const NativeRun* run, const HotCode* code, int function,
                          const HotOp** entry, uint64_t* references) {
  const ZephVM* const vm = run->vm;
  Function* const found = vm->functions ? vm->functions->Lookup(function) : nullptr;
  if (!found) return -1;
  // The code of a caller is compiled while that of another segment runs, too.
  if (vm->segment->hot() == code && found->segment() == vm->loaded_segment) {
    const HotOp* const begin = code->At(found->offset());
    const std::vector<HotOp>& list = code->FastList();
    if (begin && begin >= list.data() && begin < list.data() + list.size()) *entry = begin;
  }
  const std::vector<FunctionParameter*>& parameters = found->slots();
  if (parameters.size() > 64) return -1;
  for (size_t i = 0; references && i < parameters.size(); i++) {
    if (parameters[i]->byreference()) *references |= uint64_t{1} << i;
  }
  return static_cast<int>(parameters.size());
}

bool NativeRun::TakeArguments(NativeRun* run, const HotOp* op) {
  run->TellStack();
  ZephVM* const vm = run->vm;
  ZephVM_FunctionFrame* const called = run->idle_frames[op->first];
  if (!called || vm->frame->depth >= ZephVM::MostFrames || run->top >= run->limit() ||
      (called->return_code != vm->segment->hot()->serial() && !PrepareCall(vm, called)) ||
      !IsEnterable(called, called->entry_segment == vm->loaded_segment)) {
    return false;
  }
  run->called = called;
  return TakeOthers(run, op);
}

bool NativeRun::TakeOthers(NativeRun* run, const HotOp*) {
  run->TellStack();
  ZephVM_FunctionFrame* const called = run->called;
  const int count = called->simple_parameters;
  // The first parameters may have numbers already.
  const _VH_Entry* const rows = called->variables->Rows(&run->called_count);
  for (const _VH_Entry* row = rows; row != rows + count; row++) {
    if (row->variable && !row->variable->IsAsleep()) row->variable->RenewScalar();
  }
  if (run->top - count < run->bottom() || !AreArguments(called->references, count, run->top)) {
    return false;
  }
  int wanted_patience = 0;
  run->top = MoveArguments(called->variables, rows, called->references, count, run->vm->stack,
                           &wanted_patience);
  if (wanted_patience == 1) run->NoteWork();
  run->called_rows = rows;
  return true;
}
