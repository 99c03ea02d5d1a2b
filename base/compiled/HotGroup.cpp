// Groups of decoded code. See HotGroup.h.

#include "base/compiled/HotGroup.h"

#include <algorithm>

#include "base/compiled/Function.h"
#include "base/host/ZephApplication.h"

namespace {

// Whether a comparison takes a text as no number.
bool IsWord(const char* text, int length) {
  int not_numeric;
  ZephApplication::stod(text, length, length, &not_numeric);
  return not_numeric != 0;
}

// The records that a group may have, so that what has to be done again after a misfit is bounded.
const size_t kMostRecords = 64;

bool IsVariable(HotOperand kind) {
  return kind == HotOperand::Global || kind == HotOperand::Local;
}

// Whether the variable of a push or pop is one that groups may use.
bool HasRow(const HotOp& op) {
  return op.first >= 0 && op.first < HotCode::kMostRows;
}

HotAction Shifted(HotAction action, HotAction from, HotAction to) {
  return static_cast<HotAction>(static_cast<int>(to) + static_cast<int>(action) -
                                static_cast<int>(from));
}

bool IsIn(HotAction action, HotAction first, HotAction last) {
  return action >= first && action <= last;
}

// The action for a pair of operands, in the group of actions that begins with `first`.
HotAction PairAction(HotAction first, HotOperand left, HotOperand right) {
  return static_cast<HotAction>(static_cast<int>(first) + 4 * static_cast<int>(left) +
                                static_cast<int>(right));
}

// The kind of an operand that is read as a number.
HotOperand NumberKind(HotOperand kind) {
  return kind == HotOperand::Place ? HotOperand::Temporary : kind;
}

// The number of pairs, which is the distance between two such groups of actions.
const int kPairs =
    static_cast<int>(HotAction::SubOfGlobalGlobal) - static_cast<int>(HotAction::AddOfGlobalGlobal);

// The action for the kinds of operands that a record has; its own if there is none for these alone.
HotAction ForOperands(const HotOp& record) {
  HotAction first;
  switch (record.action) {
    case HotAction::CompareOf:
      return PairAction(HotAction::CompareOfGlobalGlobal, record.left, record.right);
    case HotAction::LoadElement: first = HotAction::LoadElementAtGlobal; break;
    case HotAction::FindElement: first = HotAction::FindElementAtGlobal; break;
    case HotAction::MoveElement: first = HotAction::MoveElementAtGlobal; break;
    case HotAction::StoreElement: first = HotAction::StoreElementAtGlobal; break;
    default: return record.action;
  }
  return static_cast<HotAction>(static_cast<int>(first) + static_cast<int>(record.right));
}

// Turns the positions of operands into offsets.
void SetOffsets(HotOp* record) {
  const auto set = [](HotOperand kind, int* position) {
    if (kind != HotOperand::Constant && kind != HotOperand::Text) {
      *position = HotOp::Offset(*position);
    }
  };
  set(record->left, &record->first);
  set(record->right, &record->second);
  set(record->into, &record->third);
}

// The first action of the group of an operation that is so many places after the first operation.
HotAction NthPairs(HotAction first, int place) {
  return static_cast<HotAction>(static_cast<int>(first) + kPairs * place);
}

// The first action of the comparisons with a jump on these orders; Leave if that jump is made
// always or never.
HotAction JumpIf(unsigned char orders) {
  switch (orders) {
    case 1: return HotAction::JumpIfLessGlobalGlobal;
    case 2: return HotAction::JumpIfEqualGlobalGlobal;
    case 3: return HotAction::JumpIfLessEqualGlobalGlobal;
    case 4: return HotAction::JumpIfGreaterGlobalGlobal;
    case 5: return HotAction::JumpIfNotEqualGlobalGlobal;
    case 6: return HotAction::JumpIfGreaterEqualGlobalGlobal;
    default: return HotAction::Leave;
  }
}

}  // namespace

unsigned char HotGroup::OrdersOf(HotAction action) {
  switch (action) {
    case HotAction::Equal:
    case HotAction::JumpEqual: return 2;
    case HotAction::NotEqual:
    case HotAction::JumpNotEqual: return 5;
    case HotAction::Less:
    case HotAction::JumpLess: return 1;
    case HotAction::LessEqual:
    case HotAction::JumpLessEqual: return 3;
    case HotAction::Greater:
    case HotAction::JumpGreater: return 4;
    case HotAction::GreaterEqual:
    case HotAction::JumpGreaterEqual: return 6;
    default: return 7;
  }
}

unsigned char HotGroup::JumpOrders(unsigned char comparison, unsigned char jump) {
  unsigned char orders = 0;
  if (jump & 4) orders = comparison;  // it jumps on an outcome of 1
  if (jump & 2) orders = static_cast<unsigned char>(orders | (7 & ~comparison));
  return orders;
}

HotGroup::HotGroup(const std::vector<HotOp>& instructions, const std::vector<bool>& targets,
                   const FunctionManager* functions)
    : ops(instructions), targets(targets), functions(functions), real(instructions.size(), false) {}

size_t HotGroup::Make(size_t begin) {
  // Each round marks another instruction, so the rounds come to an end.
  while (!real[begin]) {
    first = begin;
    values.clear();
    made.clear();
    accesses.clear();
    temporaries = 0;
    changed = false;
    size_t deepest = 0;
    Step step = Step::Goes;
    size_t i = begin;
    for (; step == Step::Goes; i++) {
      // A jump goes only to where all is on the stack.
      step = i > begin && targets[i] ? Step::Apart : Take(i);
      deepest = std::max(deepest, values.size());
      if (step == Step::Goes && real[i]) step = PushForReal();
      if (made.size() >= kMostRecords || temporaries >= HotCode::kTemporaries) step = Step::Apart;
    }
    if (step == Step::Ends) {
      if (deepest > HotCode::kRoom) {
        HotOp check = New(HotAction::CheckRoom);
        check.first = static_cast<int>(deepest);
        made.insert(made.begin(), check);
      }
      for (HotOp& record : made) {
        record.action = ForOperands(record);
        SetOffsets(&record);
      }
      return i - begin;
    }
    if (step == Step::Apart) MarkBelow(0);
    if (!changed) return 0;
  }
  return 0;
}

// Marks the makers of all values but so many on top.
HotGroup::Step HotGroup::MarkBelow(size_t kept) {
  for (size_t i = 0; i + kept < values.size(); i++) {
    if (real[values[i].maker]) continue;
    real[values[i].maker] = true;
    changed = true;
  }
  return Step::Again;
}

HotGroup::Step HotGroup::Take(size_t i) {
  const HotAction action = ops[i].single;
  switch (action) {
    case HotAction::PushInteger:
    case HotAction::PushDouble:
    case HotAction::PushText:
    case HotAction::PushVariable: return Push(i);
    case HotAction::Line:
    case HotAction::SourceFile: return Note(i);
    case HotAction::Add:
    case HotAction::Sub:
    case HotAction::Mul:
    case HotAction::Div: return Arithmetic(i);
    case HotAction::Mod:
    case HotAction::BitAnd:
    case HotAction::BitOr:
    case HotAction::BitXor:
    case HotAction::ShiftLeft:
    case HotAction::ShiftRight:
    case HotAction::BitNot: return OfIntegers(i);
    case HotAction::Equal:
    case HotAction::NotEqual:
    case HotAction::Less:
    case HotAction::LessEqual:
    case HotAction::Greater:
    case HotAction::GreaterEqual:
    case HotAction::Order: return Comparison(i);
    case HotAction::And:
    case HotAction::Or:
    case HotAction::Not: return Logic(i);
    case HotAction::Concatenate: return Concatenate(i);
    case HotAction::Handler: return Match(i);
    case HotAction::Element:
    case HotAction::ElementReadOnly: return LookUpElement(i);
    case HotAction::Member:
    case HotAction::MemberReadOnly: return LookUpMember(i);
    case HotAction::Dup:
      if (values.empty() || values.back().kind == HotOperand::Joined) return Step::Apart;
      values.push_back(values.back());
      values.back().maker = i;
      return Step::Goes;
    case HotAction::Swap:
      if (values.size() < 2) return Step::Apart;
      std::swap(values.back(), values[values.size() - 2]);
      return Step::Goes;
    case HotAction::PopVariable: return Pop(i);
    case HotAction::Store: return Store(i);
    case HotAction::JumpEqual:
    case HotAction::JumpNotEqual:
    case HotAction::JumpLess:
    case HotAction::JumpLessEqual:
    case HotAction::JumpGreater:
    case HotAction::JumpGreaterEqual: return Jump(i);
    case HotAction::Return: return Return(i);
    case HotAction::Call: return Call(i);
    default: return Step::Apart;
  }
}

HotGroup::Step HotGroup::Push(size_t i) {
  const HotOp& op = ops[i];
  Value value;
  value.maker = i;
  if (op.single == HotAction::PushVariable) {
    if (!HasRow(op)) return Step::Apart;
    value.kind = op.left;
    value.index = op.first;
  } else {
    value.kind = op.single == HotAction::PushText ? HotOperand::Text : HotOperand::Constant;
    value.form = op.single == HotAction::PushInteger ? HotForm::Integer : HotForm::Double;
    value.constant = &op;
  }
  values.push_back(value);
  return Step::Goes;
}

// The place in the source within an expression.
HotGroup::Step HotGroup::Note(size_t i) {
  // A concatenation has no record yet, and the texts are joined on the line where it began.
  const auto is_joined = [](const Value& value) { return value.kind == HotOperand::Joined; };
  if (values.empty() || std::any_of(values.begin(), values.end(), is_joined)) return Step::Apart;
  HotOp record =
      New(ops[i].single == HotAction::Line ? HotAction::NoteLine : HotAction::NoteSourceFile);
  record.first = ops[i].first;
  made.push_back(record);
  accesses.push_back(Access::Unused);
  return Step::Goes;
}

HotGroup::Step HotGroup::Arithmetic(size_t i) {
  HotOp record = New(HotAction::Leave);
  if (!TakeNumbers(2, HotLoad::Number, &record)) return Step::Apart;
  const int place = static_cast<int>(ops[i].single) - static_cast<int>(HotAction::Add);
  record.action =
      PairAction(NthPairs(HotAction::AddOfGlobalGlobal, place), record.left, record.right);
  AddTemporary(record, i, HotForm::Double);
  return Step::Goes;
}

// An operation of one operand has it at the right.
HotGroup::Step HotGroup::OfIntegers(size_t i) {
  const size_t count = ops[i].single == HotAction::BitNot ? 1 : 2;
  HotOp record = New(ops[i].single == HotAction::Mod
                         ? HotAction::ModOf
                         : Shifted(ops[i].single, HotAction::BitAnd, HotAction::BitAndOf));
  if (!TakeNumbers(count, HotLoad::NumberAlone, &record)) return Step::Apart;
  AddTemporary(record, i, HotForm::Integer);
  return Step::Goes;
}

HotGroup::Step HotGroup::Comparison(size_t i) {
  const HotAction next = ops[i + 1].single;
  // The outcome of cmp is not one of two, so only a jump may take it.
  if (ops[i].single == HotAction::Order &&
      (!IsIn(next, HotAction::JumpEqual, HotAction::JumpGreaterEqual) || targets[i + 1] ||
       real[i])) {
    return Step::Apart;
  }
  HotOp record = New(HotAction::CompareOf);
  record.orders = OrdersOf(ops[i].single);
  if (values.size() >= 2 && values.back().kind == HotOperand::Text) {
    // Of a variable, or of an element that is looked up as such.
    Value left = values[values.size() - 2];
    if (!IsVariable(left.kind) && !AsPlace(&left)) return Step::Apart;
    record.action = HotAction::CompareTextOf;
    record.text = values.back().constant->text;
    record.length = values.back().constant->length;
    record.word = IsWord(record.text, record.length);
    SetLeft(&record, left);
    values.resize(values.size() - 2);
  } else {
    if (values.size() < 2) return Step::Apart;
    const bool left_is_loaded = values[values.size() - 2].kind == HotOperand::Place;
    const bool right_is_loaded = values.back().kind == HotOperand::Place;
    if (!TakeNumbers(2, HotLoad::NumberOrText, &record)) return Step::Apart;
    if (left_is_loaded || right_is_loaded) record.action = HotAction::CompareLoadedOf;
    if (left_is_loaded) record.left = HotOperand::Place;
    if (right_is_loaded) record.right = HotOperand::Place;
  }
  AddTemporary(record, i, HotForm::Integer);
  return Step::Goes;
}

HotGroup::Step HotGroup::Logic(size_t i) {
  HotOp record = New(Shifted(ops[i].single, HotAction::And, HotAction::AndOf));
  const size_t count = ops[i].single == HotAction::Not ? 1 : 2;
  if (!TakeNumbers(count, HotLoad::NumberAlone, &record)) return Step::Apart;
  AddTemporary(record, i, HotForm::Integer);
  return Step::Goes;
}

// A concatenation makes no record until something is done with its result.
HotGroup::Step HotGroup::Concatenate(size_t i) {
  if (values.size() < 2) return Step::Apart;
  Value left = values[values.size() - 2], right = values.back();
  Value result;
  result.kind = HotOperand::Joined;
  result.maker = i;
  if (!AppendJoined(&left, &result.joined, &result.adopt) ||
      !AppendJoined(&right, &result.joined, &result.adopt) ||
      result.joined.size() > static_cast<size_t>(HotCode::kMostJoined)) {
    return Step::Apart;
  }
  values.resize(values.size() - 2);
  values.push_back(result);
  return Step::Goes;
}

// Adds the records of what a value appends to a concatenation. *owned is set if the entry that the
// stack would have for it owns something, as that of a variable or of a text that was put together.
// Returns false if it cannot be appended.
bool HotGroup::AppendJoined(Value* value, std::vector<HotOp>* operands, bool* owned) {
  if (value->kind == HotOperand::Joined) {
    operands->insert(operands->end(), value->joined.begin(), value->joined.end());
    *owned = true;
    return true;
  }
  HotOp operand = New(HotAction::Leave);
  if (IsVariable(value->kind) || value->kind == HotOperand::Place) *owned = true;
  if (value->kind == HotOperand::Text) {
    operand.text = value->constant->text;
    operand.length = value->constant->length;
  } else if (!AsNumber(value, HotLoad::NumberOrText)) {
    return false;
  }
  SetLeft(&operand, *value);
  operand.form = value->form;
  operands->push_back(operand);
  return true;
}

// Ends a group with the records of a concatenation.
void HotGroup::AddJoined(HotOp record, const Value& value) {
  record.refer = value.adopt;
  record.second = static_cast<int>(value.joined.size());
  made.push_back(record);
  made.insert(made.end(), value.joined.begin(), value.joined.end());
}

// The search for a text in another.
HotGroup::Step HotGroup::Match(size_t i) {
  const int code = ops[i].code;
  const bool last_byte = code == Instruction::code_ein || code == Instruction::code_ecin;
  const bool any_case = code == Instruction::code_cin || code == Instruction::code_ecin;
  if ((code != Instruction::code_in && !last_byte && !any_case) || values.size() < 2) {
    return Step::Apart;
  }
  Value needle = values[values.size() - 2], text = values.back();
  if (needle.kind == HotOperand::Text && text.kind == HotOperand::Text) return Step::Apart;
  if (!AsText(&needle) || !AsText(&text)) return Step::Apart;
  HotOp record = New(HotAction::MatchOf);
  record.create = last_byte;
  record.word = any_case;
  SetLeft(&record, needle);
  SetRight(&record, text);
  const HotOp* const constant = needle.kind == HotOperand::Text ? needle.constant
                                : text.kind == HotOperand::Text ? text.constant
                                                                : nullptr;
  if (constant) {
    record.text = constant->text;
    record.length = constant->length;
  }
  values.resize(values.size() - 2);
  AddTemporary(record, i, HotForm::Integer);
  return Step::Goes;
}

// Whether the value can be an operand that has a text: a constant text, a variable, or what is
// loaded of an element or member.
bool HotGroup::AsText(Value* value) {
  if (value->kind == HotOperand::Text || IsVariable(value->kind)) return true;
  return value->kind == HotOperand::Place && AsNumber(value, HotLoad::NumberOrText);
}

HotGroup::Step HotGroup::LookUpElement(size_t i) {
  if (values.size() < 2) return Step::Apart;
  Value base = values[values.size() - 2], index = values.back();
  if (!IsVariable(base.kind) && !AsPlace(&base)) return Step::Apart;
  if (!AsNumber(&index, HotLoad::NumberAlone)) return Step::Apart;
  HotOp record = New(HotAction::LoadElement);
  record.create = ops[i].single == HotAction::Element;
  SetLeft(&record, base);
  record.right = index.kind;
  record.second = index.kind == HotOperand::Constant ? index.constant->first : index.index;
  values.resize(values.size() - 2);
  AddTemporary(record, i, HotForm::AsLoaded);
  values.back().kind = HotOperand::Place;
  return Step::Goes;
}

HotGroup::Step HotGroup::LookUpMember(size_t i) {
  if (values.size() < 2 || values.back().kind != HotOperand::Text) return Step::Apart;
  Value base = values[values.size() - 2];
  if (!IsVariable(base.kind) && !AsPlace(&base)) return Step::Apart;
  HotOp record = New(HotAction::LoadMember);
  record.create = ops[i].single == HotAction::Member;
  record.text = values.back().constant->text;
  record.length = values.back().constant->length;
  SetLeft(&record, base);
  values.resize(values.size() - 2);
  AddTemporary(record, i, HotForm::AsLoaded);
  values.back().kind = HotOperand::Place;
  return Step::Goes;
}

HotGroup::Step HotGroup::Pop(size_t i) {
  if (values.size() > 1) return MarkBelow(1);
  if (values.empty() || !HasRow(ops[i])) return Step::Apart;
  const Value value = values.back();
  HotOp record = New(HotAction::MoveVariable);
  if (value.kind == HotOperand::Joined) {
    record.action = HotAction::JoinTo;
    record.into = ops[i].left;
    record.third = ops[i].first;
    AddJoined(record, value);
    return Step::Ends;
  }
  if (value.kind == HotOperand::Temporary && value.record + 1 == made.size() &&
      accesses.back() == Access::Unused) {
    // The last record computes it, and nothing else uses it.
    record = made.back();
    made.pop_back();
    record.action =
        record.action < HotAction::ModOf
            ? Shifted(record.action, HotAction::AddOfGlobalGlobal, HotAction::AddToGlobalGlobal)
            : Shifted(record.action, HotAction::ModOf, HotAction::ModTo);
  } else if (value.kind == HotOperand::Place) {
    if (!IsUnusedLast(value)) return Step::Apart;
    record = made.back();
    made.pop_back();
    record.action = Shifted(record.action, HotAction::LoadElement, HotAction::MoveElement);
  } else if (value.kind == HotOperand::Text) {
    record.action = HotAction::MoveText;
    record.text = value.constant->text;
    record.length = value.constant->length;
  } else {
    if (!IsVariable(value.kind)) record.action = HotAction::MoveNumber;
    SetLeft(&record, value);
    record.form = value.form;
  }
  record.into = ops[i].left;
  record.third = ops[i].first;
  made.push_back(record);
  return Step::Ends;
}

HotGroup::Step HotGroup::Store(size_t) {
  if (values.size() > 2) return MarkBelow(2);
  if (values.size() < 2) return Step::Apart;
  const Value target = values.back();
  Value value = values.front();
  if (target.kind != HotOperand::Place) return Step::Apart;
  // A store of an element to itself, as dup makes it, has but one record for both.
  if (value.kind == HotOperand::Place && value.record == target.record) return Step::Apart;
  HotOp record = made[target.record];
  if (accesses[target.record] == Access::Unused) {
    if (!IsUnusedLast(target)) return Step::Apart;
    made.pop_back();
    accesses.pop_back();
  } else if (accesses[target.record] == Access::Found) {
    return Step::Apart;
  }
  if (value.kind == HotOperand::Text) {
    if (record.action != HotAction::LoadElement) return Step::Apart;
    record.text = value.constant->text;
    record.length = value.constant->length;
  } else if (!AsNumber(&value, HotLoad::Any)) {
    return Step::Apart;
  }
  if (record.action == HotAction::LoadElement) {
    record.action = HotAction::StoreElement;
    record.into = value.kind;
    record.third = value.index;
  } else {
    record.action = HotAction::StoreMember;
    record.right = value.kind;
    record.second = value.index;
  }
  if (value.kind == HotOperand::Constant) record.number = value.constant->number;
  record.form = value.form;
  made.push_back(record);
  return Step::Ends;
}

HotGroup::Step HotGroup::Jump(size_t i) {
  if (values.size() > 1) return MarkBelow(1);
  if (values.empty() || values.back().kind != HotOperand::Temporary) return Step::Apart;
  const Value value = values.back();
  HotOp record = New(HotAction::JumpIfNumber);
  record.left = HotOperand::Temporary;
  record.first = value.index;
  record.orders = OrdersOf(ops[i].single);
  record.target = ops[i].target;
  HotOp& last = made.back();
  const bool ordered = ops[i - 1].single == HotAction::Order;
  if (value.record + 1 == made.size() &&
      (last.action == HotAction::CompareOf || last.action == HotAction::CompareLoadedOf ||
       last.action == HotAction::CompareTextOf)) {
    const unsigned char orders = ordered ? record.orders : JumpOrders(last.orders, record.orders);
    const HotAction action = JumpIf(orders);
    if (action == HotAction::Leave) {
      // It is made always or never, and the outcome of cmp is not in a temporary.
      if (ordered) return Step::Apart;
    } else if (last.action == HotAction::CompareTextOf) {
      // The record after it has the target.
      last.action = HotAction::JumpIfText;
      last.orders = orders;
    } else {
      // What was loaded is a temporary, until it turns out to be a text.
      last.action = PairAction(action, NumberKind(last.left), NumberKind(last.right));
      last.orders = orders;
      last.target = record.target;
      return Step::Ends;
    }
  } else if (ordered) {
    return Step::Apart;
  }
  // A jump on a number is one on its comparison with 0.
  const bool is_not = value.record + 1 == made.size() && last.action == HotAction::NotOf;
  const unsigned char orders = is_not ? JumpOrders(2, record.orders) : record.orders;
  const HotAction action = JumpIf(orders);
  if (action != HotAction::Leave && last.action != HotAction::JumpIfText &&
      (is_not || value.form == HotForm::Integer)) {
    if (is_not) {
      record.left = last.right;
      record.first = last.second;
      record.word = IsVariable(last.right);
      made.pop_back();
    }
    record.right = HotOperand::Constant;
    record.orders = orders;
    record.action = PairAction(action, record.left, record.right);
  }
  made.push_back(record);
  return Step::Ends;
}

HotGroup::Step HotGroup::Return(size_t) {
  if (values.size() != 1) return Step::Apart;
  const Value value = values.back();
  if (value.kind == HotOperand::Joined) {
    AddJoined(New(HotAction::JoinReturn), value);
    return Step::Ends;
  }
  if (value.kind == HotOperand::Text) {
    HotOp record = New(HotAction::ReturnText);
    record.text = value.constant->text;
    record.length = value.constant->length;
    made.push_back(record);
    return Step::Ends;
  }
  if (value.kind != HotOperand::Temporary && value.kind != HotOperand::Constant) {
    return Step::Apart;
  }
  HotOp record = New(HotAction::ReturnNumber);
  SetLeft(&record, value);
  record.form = value.form;
  made.push_back(record);
  return Step::Ends;
}

namespace {

// The record that passes an operand of that kind by value.
HotAction Send(HotOperand kind) {
  switch (kind) {
    case HotOperand::Global: return HotAction::SendGlobal;
    case HotOperand::Local: return HotAction::SendLocal;
    case HotOperand::Constant: return HotAction::SendConstant;
    case HotOperand::Text: return HotAction::SendText;
    default: return HotAction::SendTemporary;
  }
}

}  // namespace

HotGroup::Step HotGroup::Call(size_t i) {
  Function* const function = functions ? functions->Lookup(ops[i].first) : nullptr;
  if (!function || (function->flags() & Function_External)) return Step::Apart;
  const std::vector<FunctionParameter*>& parameters = function->slots();
  const size_t count = parameters.size();
  if (count == 0 || count > 64 || values.size() < count) return Step::Apart;
  if (values.size() > count) return MarkBelow(count);
  std::vector<HotOp> arguments;
  for (size_t k = 0; k < count; k++) {
    Value value = values[k];
    if (parameters[k]->byreference()) {
      if (!IsVariable(value.kind) && !AsPlace(&value)) return Step::Apart;
    } else if (value.kind != HotOperand::Text && !AsNumber(&value, HotLoad::Any)) {
      return Step::Apart;
    }
    HotOp argument =
        New(parameters[k]->byreference() ? HotAction::SendReference : Send(value.kind));
    SetLeft(&argument, value);
    argument.third = HotOp::Offset(static_cast<int>(k));
    argument.form = value.form;
    argument.refer = parameters[k]->byreference();
    if (value.kind == HotOperand::Text) {
      argument.text = value.constant->text;
      argument.length = value.constant->length;
    }
    arguments.push_back(argument);
  }
  HotOp record = New(HotAction::CallWith);
  record.first = ops[i].first;
  record.second = static_cast<int>(count);
  made.push_back(record);
  made.insert(made.end(), arguments.begin(), arguments.end());
  record.action = HotAction::Enter;
  made.push_back(record);
  return Step::Ends;
}

// Ends the group with a push of the only value. What is below is marked instead.
HotGroup::Step HotGroup::PushForReal() {
  if (values.size() > 1) return MarkBelow(1);
  const Value value = values.back();
  HotOp record = New(HotAction::PushNumber);
  if (value.kind == HotOperand::Joined) {
    AddJoined(New(HotAction::JoinPush), value);
    return Step::Ends;
  }
  if (value.kind == HotOperand::Temporary) {
    SetLeft(&record, value);
    record.form = value.form;
  } else if (value.kind == HotOperand::Place && IsUnusedLast(value)) {
    record = made.back();
    made.pop_back();
    record.action = Shifted(record.action, HotAction::LoadElement, HotAction::PushElement);
  } else {
    return Step::Apart;
  }
  made.push_back(record);
  return Step::Ends;
}

HotOp HotGroup::New(HotAction action) const {
  HotOp record;
  record.action = action;
  // Until it gets an operand, it has none that is told by an offset.
  record.left = record.right = record.into = HotOperand::Constant;
  record.start = ops[first].start;
  record.plain = &ops[first];
  return record;
}

// Adds a record whose outcome goes into a new temporary, and pushes that.
void HotGroup::AddTemporary(HotOp record, size_t maker, HotForm form) {
  record.into = HotOperand::Temporary;
  record.third = temporaries;
  Value value;
  value.kind = HotOperand::Temporary;
  value.index = temporaries++;
  value.maker = maker;
  value.record = made.size();
  value.form = form;
  made.push_back(record);
  accesses.push_back(Access::Unused);
  values.push_back(value);
}

// Takes the operands of a record that works on numbers; a single one is the right one. Returns
// false and takes nothing if they are not there, cannot be numbers, or are all constants.
bool HotGroup::TakeNumbers(size_t count, HotLoad load, HotOp* record) {
  if (values.size() < count) return false;
  Value right = values.back();
  Value left = values[values.size() - count];
  if (!AsNumber(&right, load) || !AsNumber(&left, load)) return false;
  if (left.kind == HotOperand::Constant && right.kind == HotOperand::Constant) return false;
  if (count == 2) SetLeft(record, left);
  SetRight(record, right);
  values.resize(values.size() - count);
  return true;
}

// Makes an operand of the value, for an operation that takes a number. Returns false if it cannot
// be one.
bool HotGroup::AsNumber(Value* value, HotLoad load) {
  if (value->kind == HotOperand::Text || value->kind == HotOperand::Joined) return false;
  if (value->kind != HotOperand::Place) return true;
  if (accesses[value->record] == Access::Found) return false;
  // A number without a text is right for all of several uses.
  const bool first_use = accesses[value->record] == Access::Unused;
  HotOp& record = made[value->record];
  record.load = first_use || record.load == load ? load : HotLoad::NumberAlone;
  accesses[value->record] = Access::Loaded;
  value->kind = HotOperand::Temporary;
  return true;
}

// The same for an operation that takes the element or member itself.
bool HotGroup::AsPlace(Value* value) {
  if (value->kind != HotOperand::Place || accesses[value->record] == Access::Loaded) return false;
  if (accesses[value->record] == Access::Unused) {
    HotOp& record = made[value->record];
    record.action = Shifted(record.action, HotAction::LoadElement, HotAction::FindElement);
    accesses[value->record] = Access::Found;
  }
  return true;
}

// Whether the last record looks the value up, and nothing has used that yet.
bool HotGroup::IsUnusedLast(const Value& value) const {
  return value.record + 1 == made.size() && accesses[value.record] == Access::Unused;
}

void HotGroup::SetLeft(HotOp* record, const Value& value) {
  record->left = value.kind;
  record->first = value.kind == HotOperand::Constant ? value.constant->first : value.index;
  if (value.kind == HotOperand::Constant) record->number = value.constant->number;
}

void HotGroup::SetRight(HotOp* record, const Value& value) {
  record->right = value.kind;
  record->second = value.kind == HotOperand::Constant ? value.constant->first : value.index;
  if (value.kind == HotOperand::Constant) record->number = value.constant->number;
}
