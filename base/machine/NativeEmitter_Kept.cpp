// What registers hold on the way from a record to the next one: a temporary in xmm0, and in xmm4 to
// xmm15 what was read of variables and is read again.
//
// Only straight code is entered with that. A record's label, where all code goes that comes from
// elsewhere, is that of a piece of code that reads these variables first.

#include "base/machine/NativeEmitter.h"

#ifdef __x86_64__

#include <cstddef>
#include <cstdint>
#include <functional>

// --- Entering a record ---------------------------------------------------------------------------

// Binds the label of the record. Those that come from elsewhere first load what is kept, and the
// temporary that the last record has left in xmm0, if this record begins with it.
void NativeEmitter::EnterRecord(int arriving) {
  in_register[0] = in_register[1] = -1;
  if (is_aside || arriving < 0 || !BeginsWith(arriving)) arriving = -1;
  if (arriving < 0 && !KeepsAny()) {
    L(labels[at]);
    return;
  }
  Rare* load = &AddRare([this, place = at, arriving, arrives = kept](Rare& self) {
    L(labels[place]);
    Label fails;
    kept = arrives;
    LoadKept(fails);
    kept = {};
    if (arriving >= 0) movsd(xmm0, NumberAt(arriving));
    jmp(self.back);
    L(fails);
    // The loop runs the record.
    mov(rax, reinterpret_cast<uint64_t>(&list[place]));
    jmp(exit);
  });
  L(load->back);
  in_register[0] = arriving;
}

// Whether the current record reads a temporary before it changes xmm0.
bool NativeEmitter::BeginsWith(int temporary) const {
  const HotAction action = op->action;
  const auto is_of = [action](HotAction first, int families) {
    return FamilyOf(action, first, families) >= 0;
  };
  const auto is_between = [action](HotAction first, HotAction last) {
    return action >= first && action <= last;
  };
  const auto is_number = [temporary](HotOperand kind, int offset) {
    return (kind == HotOperand::Temporary || kind == HotOperand::Place) && offset == temporary;
  };
  const bool is_left = is_number(op->left, op->first);
  const bool is_right = is_number(op->right, op->second);
  if (IsAt(action, HotAction::LoadElementAtGlobal) ||
      IsAt(action, HotAction::MoveElementAtGlobal) ||
      IsAt(action, HotAction::FindElementAtGlobal)) {
    return is_right;
  }
  if (IsAt(action, HotAction::StoreElementAtGlobal)) {
    return is_right || (op->into == HotOperand::Temporary && op->third == temporary);
  }
  const bool has_pair =
      is_of(HotAction::AddOfGlobalGlobal, 4) || is_of(HotAction::AddToGlobalGlobal, 4) ||
      is_of(HotAction::JumpIfLessGlobalGlobal, 6) || is_of(HotAction::CompareOfGlobalGlobal, 1) ||
      is_between(HotAction::ModOf, HotAction::ShiftRightOf) ||
      is_between(HotAction::ModTo, HotAction::ShiftRightTo) || action == HotAction::AndOf ||
      action == HotAction::OrOf || action == HotAction::AndTo || action == HotAction::OrTo ||
      action == HotAction::CompareTo || action == HotAction::CompareOf;
  return has_pair && (is_left || is_right);
}

// --- What is kept --------------------------------------------------------------------------------

// Notes which records the code jumps to. Nothing arrives there in registers, because what jumps has
// none of it to give. A record that is not noted has a label all the same.
void NativeEmitter::NoteGoals() {
  goals.assign(list.size(), false);
  for (const HotOp& record : list) {
    // In a record without a target, this is a text that is elsewhere.
    const HotOp* const goal = record.target;
    const std::less<const HotOp*> precedes;
    if (!precedes(goal, list.data()) && precedes(goal, list.data() + list.size())) {
      goals[static_cast<size_t>(goal - list.data())] = true;
    }
  }
}

// Whether the usual code of a record runs no operation, and stores in no variable but its target
// without a look at who holds it.
bool NativeEmitter::Keeps(const HotOp& record) {
  const HotAction action = ActionOf(record);
  const auto is_of = [action](HotAction first, int families) {
    return FamilyOf(action, first, families) >= 0;
  };
  const auto is_between = [action](HotAction first, HotAction last) {
    return action >= first && action <= last;
  };
  const bool has_place = record.left == HotOperand::Place || record.right == HotOperand::Place;
  const bool compares = record.orders > 0 && record.orders < 7;
  if (is_of(HotAction::AddOfGlobalGlobal, 4) || is_of(HotAction::AddToGlobalGlobal, 4) ||
      is_between(HotAction::ModOf, HotAction::BitNotOf) ||
      is_between(HotAction::ModTo, HotAction::BitNotTo) ||
      IsAt(action, HotAction::LoadElementAtGlobal) ||
      IsAt(action, HotAction::MoveElementAtGlobal) ||
      IsAt(action, HotAction::FindElementAtGlobal)) {
    return true;
  }
  if (is_of(HotAction::JumpIfLessGlobalGlobal, 6) || is_of(HotAction::CompareOfGlobalGlobal, 1)) {
    return compares;
  }
  if (IsAt(action, HotAction::StoreElementAtGlobal)) {
    return record.into != HotOperand::Text && record.into != HotOperand::Place;
  }
  switch (action) {
    case HotAction::CompareOf:
    case HotAction::CompareTo: return compares && !has_place;
    case HotAction::AndOf:
    case HotAction::OrOf:
    case HotAction::NotOf:
    case HotAction::AndTo:
    case HotAction::OrTo:
    case HotAction::NotTo: return !has_place;
    case HotAction::JumpIfNumber:
    case HotAction::CompareTopJump: return compares;
    case HotAction::StoreMember: return record.right != HotOperand::Place;
    case HotAction::LoadMember:
    case HotAction::MoveMember:
    case HotAction::FindMember:
    case HotAction::MoveVariable:
    case HotAction::MoveNumber:
    case HotAction::NoteLine:
    case HotAction::Line:
    case HotAction::NoteSourceFile:
    case HotAction::SourceFile:
    case HotAction::SourceLine:
    case HotAction::CheckRoom: return true;
    default: return false;
  }
}

// The number of records that the usual code of one that keeps registers does the work of.
size_t NativeEmitter::LengthOf(const HotOp& record) {
  switch (ActionOf(record)) {
    case HotAction::CompareTopJump: return 4;
    case HotAction::SourceLine: return 2;
    default: return 1;
  }
}

// Whether a record that keeps registers as they are takes that from one, if one has it.
bool NativeEmitter::Reads(const HotOp& record, Kept what) {
  const HotAction action = ActionOf(record);
  const auto is_of = [action](HotAction first, int families) {
    return FamilyOf(action, first, families) >= 0;
  };
  const auto is_between = [action](HotAction first, HotAction last) {
    return action >= first && action <= last;
  };
  const bool is_left = record.left == what.kind && record.first == what.offset;
  const bool is_right = record.right == what.kind && record.second == what.offset;
  const bool is_element = IsAt(action, HotAction::LoadElementAtGlobal) ||
                          IsAt(action, HotAction::MoveElementAtGlobal) ||
                          IsAt(action, HotAction::FindElementAtGlobal) ||
                          IsAt(action, HotAction::StoreElementAtGlobal);
  const bool is_member = action == HotAction::LoadMember || action == HotAction::MoveMember ||
                         action == HotAction::FindMember || action == HotAction::StoreMember;
  const bool is_of_integers = is_between(HotAction::ModOf, HotAction::BitNotOf) ||
                              is_between(HotAction::ModTo, HotAction::BitNotTo);
  switch (what.as) {
    case KeptAs::Array: return is_element && is_left;
    case KeptAs::Structure: return is_member && is_left;
    case KeptAs::Integer:
      return (is_element && is_right) || (is_of_integers && (is_left || is_right));
    case KeptAs::Number: break;
  }
  const bool has_numbers =
      is_of(HotAction::AddOfGlobalGlobal, 4) || is_of(HotAction::AddToGlobalGlobal, 4) ||
      is_of(HotAction::JumpIfLessGlobalGlobal, 6) || is_of(HotAction::CompareOfGlobalGlobal, 1) ||
      is_between(HotAction::AndOf, HotAction::NotOf) ||
      is_between(HotAction::AndTo, HotAction::NotTo) || action == HotAction::CompareOf ||
      action == HotAction::CompareTo || action == HotAction::CompareTopJump;
  return has_numbers && (is_left || is_right);
}

// Whether a record stores in the variable of that row.
bool NativeEmitter::Changes(const HotOp& record, Kept what) {
  const HotAction action = ActionOf(record);
  const bool is_stored = FamilyOf(action, HotAction::AddToGlobalGlobal, 4) >= 0 ||
                         (action >= HotAction::ModTo && action <= HotAction::NotTo) ||
                         IsAt(action, HotAction::MoveElementAtGlobal) ||
                         action == HotAction::MoveMember || action == HotAction::MoveVariable ||
                         action == HotAction::MoveNumber;
  return is_stored && record.third == what.offset;
}

// Whether a record after the current one takes that from a register, if it is kept from here on.
bool NativeEmitter::IsReadAgain(Kept what) const {
  constexpr size_t kFar = 24;
  for (size_t place = at + LengthOf(*op); place < list.size() && place <= at + kFar;
       place += LengthOf(list[place])) {
    const HotOp& record = list[place];
    if (goals[place] || !Keeps(record)) return false;
    if (Reads(record, what)) return true;
    if (what.as <= KeptAs::Integer && Changes(record, what)) return false;
  }
  return false;
}

// The number of the register that has it, or -1.
int NativeEmitter::FindKept(KeptAs as, HotOperand kind, int offset) const {
  if (!keeps) return -1;
  for (int i = 0; i < kMostKept; i++) {
    const Kept& known = kept[static_cast<size_t>(i)];
    if (known.offset == offset && known.kind == kind && known.as == as) return kFirstKept + i;
  }
  return -1;
}

// The number of a register that is to have it from here on, or -1 if none is. A number also serves
// where an integer is read; with alone, that is not what it is kept for.
int NativeEmitter::Keep(KeptAs as, HotOperand kind, int offset, bool alone) {
  const Kept what{as, kind, offset};
  if (!keeps || kind > HotOperand::Local || (as <= KeptAs::Integer && HoldsText(kind, offset))) {
    return -1;
  }
  if (!IsReadAgain(what) &&
      (alone || as != KeptAs::Number || !IsReadAgain({KeptAs::Integer, kind, offset}))) {
    return -1;
  }
  for (int i = 0; i < kMostKept; i++) {
    Kept& place = kept[static_cast<size_t>(i)];
    if (place.offset >= 0) continue;
    place = what;
    return kFirstKept + i;
  }
  return -1;
}

// Whether the operand is a text now. Then it will often be one that is read as a number, which only
// an operation does.
bool NativeEmitter::HoldsText(HotOperand kind, int offset) const {
  const auto table = static_cast<size_t>(kind);
  if (static_cast<size_t>(HotOp::PositionOf(offset)) >= run->counts[table]) return false;
  Variable* const variable = hot::Referred(hot::VariableIn(run->rows[table], offset));
  return variable && variable->HoldsText();
}

// Frees the registers that no record after the current one reads.
void NativeEmitter::DropUnread() {
  for (Kept& known : kept) {
    if (known.offset < 0 || IsReadAgain(known)) continue;
    if (known.as == KeptAs::Number && IsReadAgain({KeptAs::Integer, known.kind, known.offset})) {
      continue;
    }
    known = {};
  }
}

bool NativeEmitter::KeepsAny() const {
  for (const Kept& known : kept) {
    if (known.offset >= 0) return true;
  }
  return false;
}

// Whether a register that the current record leaves has a number or an integer of a variable, other
// than those at an offset.
bool NativeEmitter::KeepsNumbers(int but) const {
  if (!keeps) return false;
  for (const Kept& known : kept) {
    if (known.offset >= 0 && known.offset != but && known.as <= KeptAs::Integer) return true;
  }
  return false;
}

// The main code has its variables in both tables.
void NativeEmitter::DropNumbers(int offset) {
  for (Kept& known : kept) {
    if (known.offset == offset && known.as <= KeptAs::Integer) known = {};
  }
}

void NativeEmitter::SaveKept(const KeptRegisters& saved) {
  static_assert(sizeof(NativeRun::kept) == kMostKept * sizeof(double));
  for (int i = 0; i < kMostKept; i++) {
    if (saved[static_cast<size_t>(i)].offset < 0) continue;
    movsd(ptr[rbx + kKept + 8L * i], Xmm(kFirstKept + i));
  }
}

void NativeEmitter::RestoreKept(const KeptRegisters& saved) {
  for (int i = 0; i < kMostKept; i++) {
    if (saved[static_cast<size_t>(i)].offset < 0) continue;
    movsd(Xmm(kFirstKept + i), ptr[rbx + kKept + 8L * i]);
  }
}

// Loads all that is kept from the variables.
void NativeEmitter::LoadKept(Label& fails) {
  for (int i = 0; i < kMostKept; i++) {
    const Kept& what = kept[static_cast<size_t>(i)];
    if (what.offset < 0) continue;
    const Xmm keeper(kFirstKept + i);
    mov(rcx, RowAt(what.kind, what.offset));
    test(rcx, rcx);
    jz(fails);
    switch (what.as) {
      case KeptAs::Number: {
        Label other, done;
        cmp(dword[rcx + OfVariable::state], OfVariable::double_alone);
        jne(other);
        movsd(keeper, Field(rcx, OfVariable::number));
        jmp(done);
        L(other);
        call(find_number[0]);
        jc(fails);
        movaps(keeper, xmm0);
        L(done);
        break;
      }
      case KeptAs::Integer: {
        Label other, done;
        cmp(dword[rcx + OfVariable::state], OfVariable::integer_alone);
        jne(other);
        movd(keeper, dword[rcx + OfVariable::integer]);
        jmp(done);
        L(other);
        call(find_integer);
        jc(fails);
        movd(keeper, eax);
        L(done);
        break;
      }
      case KeptAs::Array:
      case KeptAs::Structure: {
        Label is_plain;
        test(dword[rcx + OfVariable::state], OfVariable::not_plain);
        jz(is_plain);
        call(find_plain);
        jc(fails);
        L(is_plain);
        cmp(dword[rcx + OfVariable::aggregate],
            what.as == KeptAs::Array ? AggregateArray : AggregateStructure);
        jne(fails);
        mov(rcx, Field(rcx, OfVariable::elements));
        movq(keeper, rcx);
      }
    }
  }
}

#endif
