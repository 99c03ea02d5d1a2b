// Decodes a segment into its two lists of records, and finds idioms. Tested in
// tests/base/machine/HotCodeTest.cpp.
#include "base/compiled/HotCode.h"

#include <atomic>

#include "base/compiled/Dictionary.h"
#include "base/compiled/Function.h"
#include "base/compiled/HotGroup.h"
#include "base/compiled/Instructions.h"
#include "base/core/LittleEndian.h"
#include "base/core/Numbers.h"

namespace {

// The instructions of the longest idiom. That many records end the list, so that looking ahead
// needs no bounds check.
const int kLongestIdiom = 12;

HotAction SingleAction(Instruction::Code code) {
  using namespace Instruction;
  switch (code) {
    case code_pushc: return HotAction::PushText;
    case code_pushi: return HotAction::PushInteger;
    case code_pushf: return HotAction::PushDouble;
    case code_pushg:
    case code_pushl: return HotAction::PushVariable;
    case code_popg:
    case code_popl: return HotAction::PopVariable;
    case code_pop: return HotAction::Pop;
    case code_dup: return HotAction::Dup;
    case code_cat: return HotAction::Concatenate;
    case code_store: return HotAction::Store;
    case code_swap: return HotAction::Swap;
    case code_add: return HotAction::Add;
    case code_sub: return HotAction::Sub;
    case code_mul: return HotAction::Mul;
    case code_div: return HotAction::Div;
    case code_mod: return HotAction::Mod;
    case code_eq: return HotAction::Equal;
    case code_ne: return HotAction::NotEqual;
    case code_lt: return HotAction::Less;
    case code_le: return HotAction::LessEqual;
    case code_gt: return HotAction::Greater;
    case code_ge: return HotAction::GreaterEqual;
    case code_cmp: return HotAction::Order;
    case code_jmp: return HotAction::Jump;
    case code_jmp_eq: return HotAction::JumpEqual;
    case code_jmp_ne: return HotAction::JumpNotEqual;
    case code_jmp_lt: return HotAction::JumpLess;
    case code_jmp_le: return HotAction::JumpLessEqual;
    case code_jmp_gt: return HotAction::JumpGreater;
    case code_jmp_ge: return HotAction::JumpGreaterEqual;
    case code_cmpgi: return HotAction::CompareConstant;
    case code_cmpgg: return HotAction::CompareGlobals;
    case code_modgg: return HotAction::ModGlobals;
    case code_incg: return HotAction::Increment;
    case code_storegi: return HotAction::StoreConstant;
    case code_lineno: return HotAction::Line;
    case code_sourcefile: return HotAction::SourceFile;
    case code_op_and: return HotAction::And;
    case code_op_or: return HotAction::Or;
    case code_op_not: return HotAction::Not;
    case code_op_bitand: return HotAction::BitAnd;
    case code_op_bitor: return HotAction::BitOr;
    case code_bitxor: return HotAction::BitXor;
    case code_bitoc: return HotAction::BitNot;
    case code_bitsl: return HotAction::ShiftLeft;
    case code_bitsr: return HotAction::ShiftRight;
    case code_elem: return HotAction::Element;
    case code_elem_readonly: return HotAction::ElementReadOnly;
    case code_memb: return HotAction::Member;
    case code_memb_readonly: return HotAction::MemberReadOnly;
    case code_call: return HotAction::Call;
    case code_ret: return HotAction::Return;
    case code_retn: return HotAction::ReturnNothing;
    case code_pushdc: return HotAction::PushField;
    case code_dbskip:
    case code_dbgo:
    case code_dbfind:
    case code_dbadd:
    case code_dbupdate:
    case code_dbdelete:
    case code_dbundelete: return HotAction::Records;
    default: break;
  }
  const bool has_handler = code != code_none && Rows[code - 1].run == Run::HotHandler;
  return has_handler ? HotAction::Handler : HotAction::Leave;
}

bool IsJump(HotAction action) {
  return action >= HotAction::Jump && action <= HotAction::JumpGreaterEqual;
}

bool IsConditional(HotAction action) {
  return IsJump(action) && action != HotAction::Jump;
}

bool IsConstant(HotAction action) {
  return action == HotAction::PushInteger || action == HotAction::PushDouble;
}

// Maps an action of the group that begins with `from` to the one at the same place of the group
// that begins with `to`.
HotAction Shifted(HotAction action, HotAction from, HotAction to) {
  return static_cast<HotAction>(static_cast<int>(to) + static_cast<int>(action) -
                                static_cast<int>(from));
}

bool IsArithmetic(HotAction action) {
  return action >= HotAction::Add && action <= HotAction::Div;
}

bool IsComparison(HotAction action) {
  return action >= HotAction::Equal && action <= HotAction::GreaterEqual;
}

// Whether it is a jump on the truth value of a comparison.
bool IsTest(HotAction action) {
  return action == HotAction::JumpEqual || action == HotAction::JumpNotEqual;
}

long NextSerial() {
  static std::atomic<long> last{0};
  return ++last;
}

bool IsBitOperation(HotAction action) {
  return action >= HotAction::BitAnd && action <= HotAction::ShiftRight;
}

// Whether an instruction's operands are one or two positions of globals.
bool NamesTwoGlobals(HotAction action) {
  return action == HotAction::CompareGlobals || action == HotAction::ModGlobals;
}
bool NamesGlobals(HotAction action) {
  return NamesTwoGlobals(action) || action == HotAction::CompareConstant ||
         action == HotAction::Increment || action == HotAction::StoreConstant;
}

bool IsNear(int position) {
  return position >= 0 && position < HotCode::kMostRows;
}

// Whether an operation reads its operands as numbers, whatever their types.
bool IsNumeric(HotAction action) {
  return (action >= HotAction::Add && action <= HotAction::Mod) || IsBitOperation(action);
}

// Whether an operation reads the values of its operands, and nothing else of them.
bool ReadsValues(HotAction action) {
  return IsNumeric(action) || IsComparison(action) || action == HotAction::Concatenate ||
         action == HotAction::And || action == HotAction::Or || action == HotAction::Not;
}

}  // namespace

HotCode::HotCode(const unsigned char* code, int length, const Dictionary& dictionary,
                 const FunctionManager* functions)
    : code_serial(NextSerial()) {
  Decode(code, length, dictionary);
  FindTargets(length);
  LeaveBadCalls(functions);
  NoteUses(functions);
  CountRows();
  MakeFastList(functions);
  wanted_jumps = jumps_until_native + jumps_a_record * static_cast<int>(fast.size());
}

void HotCode::FindPlaces(const void* const* places) const {
  has_places = true;
  for (const std::vector<HotOp>* const list : {&ops, &fast}) {
    for (const HotOp& op : *list) op.place = places[static_cast<size_t>(op.action)];
  }
}

void HotCode::SetNativePlaces(const void* place) const {
  for (const HotOp& op : fast) {
    if (op.native) op.place = place;
  }
}

void HotCode::Decode(const unsigned char* code, int length, const Dictionary& dictionary) {
  records.assign(static_cast<size_t>(length) + 1, -1);
  ops.reserve(static_cast<size_t>(length) / 5 + size_t{2} * kLongestIdiom);
  int at = 0;
  // A single last byte counts as the end of the code, as in the machine's loop.
  while (at < length - 1) {
    const auto place = static_cast<int>(ops.size());
    HotOp& op = ops.emplace_back();
    op.start = at;
    records[static_cast<size_t>(at)] = place;
    const unsigned short word = LittleEndian::Get16(code + at);
    const unsigned char* operands = code + at + 2;
    const int first_size = Instruction::FirstOperandSize(word);
    if (first_size == 4) op.first = LittleEndian::GetInt32(operands);
    if (first_size == 8) op.number = LittleEndian::GetDouble(operands);
    if (Instruction::SecondOperandSize(word) == 4) {
      op.second = LittleEndian::GetInt32(operands + first_size);
    }
    const Instruction::Code number = Instruction::CodeOf(word);
    op.code = static_cast<unsigned short>(number);
    op.single = SingleAction(number);
    const bool local = number == Instruction::code_pushl || number == Instruction::code_popl;
    op.left = local ? HotOperand::Local : HotOperand::Global;
    if (op.single == HotAction::PushInteger) op.number = op.first;
    if (op.single == HotAction::PushDouble) op.first = DoubleToInteger(op.number);
    if (op.single == HotAction::PushText) {
      op.text = dictionary.Entry(op.first, &op.length);
      if (!op.text) op.single = HotAction::Leave;
    }
    if ((NamesGlobals(op.single) && !IsNear(op.first)) ||
        (NamesTwoGlobals(op.single) && !IsNear(op.second))) {
      op.single = HotAction::Leave;
    }
    at += 2 + Instruction::OperandSize(word);
  }
  HotOp end;
  end.start = at;
  if (at <= length) records[static_cast<size_t>(at)] = static_cast<int>(ops.size());
  ops.insert(ops.end(), kLongestIdiom, end);
}

// Resolves the targets of jumps. A jump to an offset at which this decoding has no instruction is
// left to the machine's loop.
void HotCode::FindTargets(int length) {
  for (size_t i = 0; i + kLongestIdiom < ops.size(); i++) {
    HotOp& op = ops[i];
    if (!IsJump(op.single)) continue;
    const int goal = WrapAdd(ops[i + 1].start, op.first);
    const int record = goal < 0 || goal > length ? -1 : records[static_cast<size_t>(goal)];
    if (record < 0) {
      op.single = HotAction::Leave;
    } else {
      op.target = &ops[static_cast<size_t>(record)];
      op.orders = HotGroup::OrdersOf(op.single);
    }
  }
}

// Leaves calls of invalid function numbers to the machine's loop, so that Call needs no check.
void HotCode::LeaveBadCalls(const FunctionManager* functions) {
  const int count = functions ? functions->Functions() : 0;
  for (HotOp& op : ops) {
    if (op.single == HotAction::Call && (op.first < 0 || op.first >= count)) {
      op.single = HotAction::Leave;
    }
  }
}

// Finds out what becomes of the results of calls and of elements that are only read.
void HotCode::NoteUses(const FunctionManager* functions) {
  for (size_t i = 1; i + kLongestIdiom <= ops.size(); i++) {
    const bool element = Is(i - 1, HotAction::ElementReadOnly);
    if (!Is(i - 1, HotAction::Call) && !element) continue;
    ops[i].uses = UsesOfTop(i, element, functions);
    if (!element && Is(i, HotAction::PopVariable)) ops[i].uses |= HotOp::Stored;
    if (!element && Is(i, HotAction::Return)) {
      ops[i].passed_uses = HotOp::UsedAsValue | HotOp::UsedAsNumber;
    }
  }
}

void HotCode::CountRows() {
  const auto name = [this](HotOperand table, int position) {
    int& count = named[static_cast<int>(table)];
    if (position >= count && position < kMostRows) count = position + 1;
  };
  for (const HotOp& op : ops) {
    if (op.single == HotAction::PushVariable || op.single == HotAction::PopVariable) {
      name(op.left, op.first);
    }
    if (NamesGlobals(op.single)) name(HotOperand::Global, op.first);
    if (NamesTwoGlobals(op.single)) name(HotOperand::Global, op.second);
  }
}

namespace {

// How many entries an instruction takes off the stack and puts on it; false if that is not known
// here.
bool StackEffect(const HotOp& op, const FunctionManager* functions, int* taken, int* put) {
  *put = 1;
  *taken = 0;
  switch (op.single) {
    case HotAction::PushInteger:
    case HotAction::PushDouble:
    case HotAction::PushText:
    case HotAction::PushVariable: return true;
    case HotAction::Line:
    case HotAction::SourceFile: *put = 0; return true;
    case HotAction::PopVariable:
    case HotAction::Pop:
      *put = 0;
      *taken = 1;
      return true;
    case HotAction::Not:
    case HotAction::BitNot: *taken = 1; return true;
    case HotAction::Element:
    case HotAction::ElementReadOnly:
    case HotAction::Member:
    case HotAction::MemberReadOnly:
    case HotAction::Concatenate: *taken = 2; return true;
    case HotAction::Call: {
      Function* function = functions->Lookup(op.first);
      if (!function) return false;
      *taken = static_cast<int>(function->slots().size());
      return true;
    }
    default: *taken = 2; return ReadsValues(op.single);
  }
}

// Whether a call takes the argument that is so many entries below the top by value.
bool TakesByValue(const HotOp& call, int below, const FunctionManager* functions) {
  Function* function = functions->Lookup(call.first);
  if (!function || (function->flags() & Function_External)) return false;
  const std::vector<FunctionParameter*>& parameters = function->slots();
  const size_t index = parameters.size() - 1 - static_cast<size_t>(below);
  return index < parameters.size() && !parameters[index]->byreference();
}

}  // namespace

// Follows the value on top of the stack before instruction i to the instruction that takes it.
// If others hold it too, it must not be stored to before that instruction reads it.
unsigned char HotCode::UsesOfTop(size_t i, bool held, const FunctionManager* functions) const {
  int above = 0;  // entries above the value
  for (; i + kLongestIdiom <= ops.size(); i++) {
    int taken, put;
    const HotAction action = ops[i].single;
    if (IsOut(i) && above == 0) return HotOp::UsedAsValue;
    if (!StackEffect(ops[i], functions, &taken, &put)) return 0;
    if (taken > above) {
      if (IsNumeric(action)) return HotOp::UsedAsValue | HotOp::UsedAsNumber;
      if (ReadsValues(action) || action == HotAction::Pop) return HotOp::UsedAsValue;
      return action == HotAction::Call && TakesByValue(ops[i], above, functions)
                 ? HotOp::UsedAsValue
                 : 0;
    }
    if (held && (action == HotAction::Call || action == HotAction::PopVariable)) return 0;
    above += put - taken;
  }
  return 0;
}

namespace {

// The number of instructions that an action does together. Of EachElement, which may have lines in
// it, those before NextElement are added.
size_t LengthOf(HotAction action) {
  switch (action) {
    case HotAction::EachElement:
    case HotAction::UpdateAddConstant:
    case HotAction::UpdateSubConstant:
    case HotAction::UpdateMulConstant:
    case HotAction::UpdateDivConstant:
    case HotAction::UpdateAddVariable:
    case HotAction::UpdateSubVariable:
    case HotAction::UpdateMulVariable:
    case HotAction::UpdateDivVariable:
    case HotAction::NextElement: return 5;
    case HotAction::OutVariableRounded:
    case HotAction::CompareTopJump: return 4;
    case HotAction::IncrementCompareJump:
    case HotAction::EqualConstantJump:
    case HotAction::NotEqualConstantJump:
    case HotAction::LessConstantJump:
    case HotAction::LessEqualConstantJump:
    case HotAction::GreaterConstantJump:
    case HotAction::GreaterEqualConstantJump:
    case HotAction::OutRounded:
    case HotAction::ConcatenateTextVariable:
    case HotAction::ConcatenateVariableText: return 3;
    default: return 2;
  }
}

}  // namespace

// Makes the fast list: groups where there are some, otherwise idioms and single instructions.
void HotCode::MakeFastList(const FunctionManager* functions) {
  const size_t end = ops.size() - kLongestIdiom;
  std::vector<bool> targets(ops.size(), false);
  for (HotOp& op : ops) {
    op.plain = &op;
    op.action = op.single;
    if (IsJump(op.single)) targets[static_cast<size_t>(op.target - ops.data())] = true;
  }
  HotGroup group(ops, targets, functions);
  fast.reserve(ops.size() + kLongestIdiom);
  std::vector<size_t> places(ops.size(), 0);  // in the fast list, plus 1
  for (size_t i = 0; i < end;) {
    places[i] = fast.size() + 1;
    // Most of a page are texts and variables that are written, of which no group is made.
    const bool is_written =
        IsOut(i + 1) && (Is(i, HotAction::PushText) || Is(i, HotAction::PushVariable));
    if (const size_t count = is_written ? 0 : group.Make(i)) {
      fast.insert(fast.end(), group.records().begin(), group.records().end());
      i += count;
      if (TakesTop(i, functions)) PassJoined();
      continue;
    }
    fast.push_back(ops[i]);
    const HotAction idiom = Idiom(i);
    size_t left = idiom == ops[i].single ? 0 : LengthOf(idiom) - 1;
    if (idiom == HotAction::EachElement) left += LookUpOfEach(i);
    // The first entry of a counting loop jumps to its comparison, which is also run alone.
    for (size_t k = 1; k <= left && idiom != HotAction::IncrementCompareJump; k++) {
      if (targets[i + k]) left = 0;
    }
    if (left > 0) fast.back().action = idiom;
    MarkExternalCall(i, functions);
    if (idiom == HotAction::EachElement) fast.back().second = static_cast<int>(LookUpOfEach(i));
    if (fast.back().action == HotAction::CompareTopJump) SetCompareTop(i, &fast.back());
    for (i++; left > 0; left--, i++) {
      places[i] = fast.size() + 1;
      fast.push_back(ops[i]);
      MarkExternalCall(i, functions);
    }
  }
  fast.insert(fast.end(), ops.end() - kLongestIdiom, ops.end());
  places[end] = fast.size() - kLongestIdiom + 1;
  for (size_t i = 0; i <= end; i++) {
    if (places[i] == 0) continue;
    ops[i].fast = &fast[places[i] - 1];
    ops[i].action = HotAction::Resume;
  }
  for (HotOp& op : ops) {
    if (IsJump(op.single)) op.target = op.target->fast;
  }
  for (HotOp& op : fast) {
    if (IsJump(op.single) || HotGroup::Jumps(op)) op.target = op.target->fast;
    if (op.action >= HotAction::AddOfGlobalGlobal) op.single = op.action;
  }
}

// The other side, as an operand of a group.
void HotCode::SetCompareTop(size_t i, HotOp* record) const {
  const HotOp& other = ops[i + 1];
  record->orders = HotGroup::JumpOrders(HotGroup::OrdersOf(ops[i + 2].single), ops[i + 3].orders);
  const bool is_variable = other.single == HotAction::PushVariable;
  record->right = is_variable ? other.left : HotOperand::Constant;
  record->second = is_variable ? HotOp::Offset(other.first) : 0;
  record->number = other.number;
}

// Whether it is a call of a library's function.
bool HotCode::IsExternalCall(size_t i, const FunctionManager* functions) const {
  if (!Is(i, HotAction::Call)) return false;
  Function* const function = functions->Lookup(ops[i].first);
  return function && (function->flags() & Function_External);
}

// Gives the last record of the fast list, that of instruction i, the action of such a call. The
// result may be written by the next instruction even if jumps go there.
void HotCode::MarkExternalCall(size_t i, const FunctionManager* functions) {
  if (!IsExternalCall(i, functions)) return;
  fast.back().action = HotAction::CallExternal;
  fast.back().refer = IsOut(i + 1);
}

// Whether it is such a call, and the function takes the entry on top by value.
bool HotCode::TakesTop(size_t i, const FunctionManager* functions) const {
  if (!IsExternalCall(i, functions)) return false;
  const std::vector<FunctionParameter*>& parameters = functions->Lookup(ops[i].first)->slots();
  return !parameters.empty() && !parameters.back()->byreference();
}

// Lets a group at the end of the fast list that pushes a concatenation pass it to such a call.
void HotCode::PassJoined() {
  HotOp* record = &fast.back();
  while (record != fast.data() && record->action == HotAction::Leave) record--;  // its operands
  if (record->action == HotAction::JoinPush) record->action = HotAction::JoinCall;
}

HotAction HotCode::Idiom(size_t i) const {
  const HotAction action = ops[i].single;
  const HotAction next = ops[i + 1].single;
  if (IsConditional(next)) {
    if (action == HotAction::CompareConstant) return HotAction::CompareConstantJump;
    if (action == HotAction::CompareGlobals) return HotAction::CompareGlobalsJump;
    if (action == HotAction::ModGlobals) return HotAction::ModGlobalsJump;
  }
  if (action == HotAction::Increment && next == HotAction::CompareConstant &&
      ops[i + 1].first == ops[i].first && IsConditional(ops[i + 2].single)) {
    return HotAction::IncrementCompareJump;
  }
  if (action == HotAction::SourceFile && next == HotAction::Line) return HotAction::SourceLine;
  if (action == HotAction::PushField && next == HotAction::PopVariable) return HotAction::MoveField;
  if (action == HotAction::Dup) {
    if ((IsConstant(next) || (next == HotAction::PushVariable && IsNear(ops[i + 1].first))) &&
        IsComparison(ops[i + 2].single) && IsTest(ops[i + 3].single)) {
      return HotAction::CompareTopJump;
    }
    return Update(i);
  }
  if (IsNextElement(i)) return HotAction::NextElement;
  if (LookUpOfEach(i) > 0) return HotAction::EachElement;
  if (IsConstant(action)) {
    if (IsArithmetic(next)) return Shifted(next, HotAction::Add, HotAction::AddConstant);
    if (next == HotAction::Mod) return HotAction::ModConstant;
    if (IsComparison(next) && IsTest(ops[i + 2].single)) {
      return Shifted(next, HotAction::Equal, HotAction::EqualConstantJump);
    }
  }
  if (action == HotAction::PushVariable) {
    if (IsArithmetic(next)) return Shifted(next, HotAction::Add, HotAction::AddVariable);
    if (next == HotAction::Return && ops[i].left == HotOperand::Local) {
      return HotAction::ReturnVariable;
    }
  }
  return IdiomOfText(i);
}

bool HotCode::IsNextElement(size_t i) const {
  return Is(i, HotAction::ElementReadOnly) && Is(i + 1, HotAction::Dup) &&
         IsHandler(i + 2, Instruction::code_isnull) && Is(i + 3, HotAction::JumpNotEqual) &&
         Is(i + 4, HotAction::PopVariable);
}

// The head of a loop over an array raises the position on the stack, keeps a copy of it, and looks
// the element up. Returns how many instructions after the first the look-up is; 0 if this is none.
size_t HotCode::LookUpOfEach(size_t i) const {
  if (!Is(i, HotAction::PushInteger) || !Is(i + 1, HotAction::Add) || !Is(i + 2, HotAction::Dup) ||
      !Is(i + 3, HotAction::PushVariable) || !Is(i + 4, HotAction::Swap)) {
    return 0;
  }
  size_t at = i + 5;
  if (Is(at, HotAction::SourceFile)) at++;
  if (Is(at, HotAction::Line)) at++;
  return IsNextElement(at) ? at - i : 0;
}

// Idioms that make and write texts.
HotAction HotCode::IdiomOfText(size_t i) const {
  const HotAction action = ops[i].single;
  const HotAction next = ops[i + 1].single;
  const bool joined = Is(i + 2, HotAction::Concatenate);
  if (action == HotAction::PushInteger && IsHandler(i + 1, Instruction::code_rounds) &&
      IsOut(i + 2)) {
    return HotAction::OutRounded;
  }
  if (action == HotAction::PushText) {
    if (next == HotAction::Concatenate) return HotAction::ConcatenateText;
    if (next == HotAction::PushVariable && joined) return HotAction::ConcatenateTextVariable;
    if (IsOut(i + 1)) return HotAction::OutText;
  }
  if (action == HotAction::PushVariable) {
    if (next == HotAction::Concatenate) return HotAction::ConcatenateVariable;
    if (IsOut(i + 1)) return HotAction::OutVariable;
    if (next == HotAction::PushInteger && IsHandler(i + 2, Instruction::code_rounds) &&
        IsOut(i + 3)) {
      return HotAction::OutVariableRounded;
    }
    if (next == HotAction::PushText && joined) return HotAction::ConcatenateVariableText;
  }
  return action;
}

// An update of the variable on top is "dup", another operand, an operation, "swap", "store".
HotAction HotCode::Update(size_t i) const {
  const HotAction operation = ops[i + 2].single;
  if (!IsArithmetic(operation) || !Is(i + 3, HotAction::Swap) || !Is(i + 4, HotAction::Store)) {
    return HotAction::Dup;
  }
  if (IsConstant(ops[i + 1].single)) {
    return Shifted(operation, HotAction::Add, HotAction::UpdateAddConstant);
  }
  return Is(i + 1, HotAction::PushVariable)
             ? Shifted(operation, HotAction::Add, HotAction::UpdateAddVariable)
             : HotAction::Dup;
}
