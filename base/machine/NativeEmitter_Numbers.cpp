// Machine code that reads, calculates and stores numbers.

#include "base/machine/NativeEmitter.h"

#ifdef __x86_64__

#include <bit>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <utility>

Xbyak::Address NativeEmitter::RowAt(HotOperand kind, int offset) {
  if (kind == HotOperand::Global) return ptr[r12 + offset];
  if (kind == HotOperand::Local) return ptr[r13 + offset];
  return PlaceAt(offset);
}

void NativeEmitter::LoadConstant(const Xmm& number, double value) {
  if (std::bit_cast<uint64_t>(value) == 0) {
    xorps(number, number);
    return;
  }
  movsd(number, Constant(std::bit_cast<uint64_t>(value)));
}

// Where the code finds a number.
Xbyak::Address NativeEmitter::Constant(uint64_t bits) {
  for (PoolNumber& known : constants) {
    if (known.bits == bits) return ptr[rip + known.label];
  }
  constants.push_back({bits, {}});
  return ptr[rip + constants.back().label];
}

void NativeEmitter::EmitConstants() {
  align(16);
  for (PoolNumber& constant : constants) {
    L(constant.label);
    dq(constant.bits);
    dq(0);
  }
}

// A variable that is there.
void NativeEmitter::LoadVariable(const Reg64& variable, HotOperand kind, int offset) {
  mov(variable, RowAt(kind, offset));
  test(variable, variable);
  jz(Leave());
}

void NativeEmitter::LoadNumber(const Xmm& number, HotOperand kind, int offset) {
  const bool is_there = (kind == HotOperand::Temporary || kind == HotOperand::Place) &&
                        in_register[number.getIdx()] == offset;
  // The left operand of a record is loaded first.
  if (number.getIdx() == 0 && in_register[0] >= 0 && !is_there) {
    movaps(xmm1, xmm0);
    in_register[1] = in_register[0];
  }
  if (number.getIdx() == 0) in_register[0] = -1;
  if (is_there) return;
  if (kind == HotOperand::Temporary || kind == HotOperand::Place) {
    movsd(number, NumberAt(offset));
    return;
  }
  if (kind == HotOperand::Constant) {
    LoadConstant(number, op->number);
    return;
  }
  const int found = FindKept(KeptAs::Number, kind, offset);
  if (found >= 0) {
    movaps(number, Xmm(found));
    return;
  }
  LoadVariable(rcx, kind, offset);
  const bool is_integer = HoldsInteger(kind, offset);
  const auto read = [this, number](bool as_integer) {
    if (as_integer) {
      xorps(number, number);
      cvtsi2sd(number, dword[rcx + OfVariable::integer]);
    } else {
      movsd(number, Field(rcx, OfVariable::number));
    }
  };
  const auto state_of = [](bool as_integer) {
    return as_integer ? OfVariable::integer_alone : OfVariable::double_alone;
  };
  Rare* rare = &AddRare([this, number, read, other = !is_integer,
                         other_state = state_of(!is_integer), &unusual = Leave()](Rare& self) {
    Label neither;
    cmp(dword[rcx + OfVariable::state], other_state);
    jne(neither);
    read(other);
    jmp(self.back);
    L(neither);
    call(find_number[number.getIdx()]);
    jc(unusual);
    jmp(self.back);
  });
  cmp(dword[rcx + OfVariable::state], state_of(is_integer));
  jne(rare->label);
  read(is_integer);
  L(rare->back);
  const int keeper = Keep(KeptAs::Number, kind, offset);
  if (keeper >= 0) movaps(Xmm(keeper), number);
}

// Whether the operand will often be an integer: because it is one now, and the code does not
// calculate it.
bool NativeEmitter::HoldsInteger(HotOperand kind, int offset) const {
  const auto table = static_cast<size_t>(kind);
  if (kind > HotOperand::Local) return false;
  const auto position = static_cast<size_t>(HotOp::PositionOf(offset));
  if (position >= run->counts[table] || stored_doubles[table][position]) return false;
  const Variable* const variable = hot::VariableIn(run->rows[table], offset);
  return variable && variable->HoldsInteger();
}

void NativeEmitter::NoteStoredDoubles() {
  for (size_t table = 0; table < 2; table++) stored_doubles[table].resize(run->counts[table]);
  for (const HotOp& record : list) {
    if (FamilyOf(record.action, HotAction::AddToGlobalGlobal, 4) < 0) continue;
    const auto position = static_cast<size_t>(HotOp::PositionOf(record.third));
    std::vector<bool>& stored = stored_doubles[static_cast<size_t>(record.into)];
    if (position < stored.size()) stored[position] = true;
  }
}

void NativeEmitter::LoadInteger(const Reg32& integer, HotOperand kind, int offset) {
  if (kind == HotOperand::Temporary) {
    if (in_register[0] == offset) {
      cvttsd2si(integer, xmm0);
    } else {
      cvttsd2si(integer, NumberAt(offset));
    }
    return;
  }
  if (kind == HotOperand::Constant) {
    mov(integer, offset);
    return;
  }
  int found = FindKept(KeptAs::Integer, kind, offset);
  if (found >= 0) {
    movd(integer, Xmm(found));
    return;
  }
  found = FindKept(KeptAs::Number, kind, offset);
  if (found >= 0) {
    cvttsd2si(integer, Xmm(found));
    return;
  }
  LoadVariable(rcx, kind, offset);
  const bool is_integer = HoldsInteger(kind, offset) || kind > HotOperand::Local;
  const int number = is_integer ? -1 : Keep(KeptAs::Number, kind, offset);
  Rare* rare = &AddRare([this, integer, number, &unusual = Leave()](Rare& self) {
    call(find_integer);
    jc(unusual);
    mov(integer, eax);
    if (number >= 0) {
      Label has_double;
      cmp(dword[rcx + OfVariable::state], OfVariable::integer_alone);
      jne(has_double);
      cvtsi2sd(Xmm(number), eax);
      jmp(self.back);
      L(has_double);
      movsd(Xmm(number), Field(rcx, OfVariable::number));
    }
    jmp(self.back);
  });
  if (is_integer) {
    cmp(dword[rcx + OfVariable::state], OfVariable::integer_alone);
    jne(rare->label);
    mov(integer, dword[rcx + OfVariable::integer]);
  } else {
    cmp(dword[rcx + OfVariable::state], OfVariable::double_alone);
    jne(rare->label);
    if (number >= 0) {
      movsd(Xmm(number), Field(rcx, OfVariable::number));
      cvttsd2si(integer, Xmm(number));
    } else {
      cvttsd2si(integer, Field(rcx, OfVariable::number));
    }
  }
  L(rare->back);
  const int keeper = is_integer ? Keep(KeptAs::Integer, kind, offset) : -1;
  if (keeper >= 0) movd(Xmm(keeper), integer);
}

// Subroutines for what is less usual of an operand. They set the carry if that is for the loop.
// What they call cannot throw, because the table for unwinding knows the stack of the usual code
// only.
void NativeEmitter::EmitSubroutines() {
  // xmm0 or xmm1 <- the number of the variable in rcx.
  for (int i = 0; i < 2; i++) {
    const Xmm number(i);
    Label retry, as_double, as_integer, fails;
    L(find_number[i]);
    mov(eax, dword[rcx + OfVariable::state]);
    L(retry);
    cmp(eax, OfVariable::integer_alone);
    je(as_integer);
    cmp(eax, OfVariable::double_alone);
    je(as_double);
    cmp(eax, OfVariable::both_numbers);
    je(as_double);
    cmp(eax, OfVariable::reference_alone);
    jne(fails);
    call(follow);
    jc(fails);
    mov(eax, dword[rcx + OfVariable::state]);
    jmp(retry);
    L(as_integer);
    xorps(number, number);
    cvtsi2sd(number, dword[rcx + OfVariable::integer]);
    clc();
    ret();
    L(as_double);
    movsd(number, Field(rcx, OfVariable::number));
    clc();
    ret();
    L(fails);
    stc();
    ret();
  }
  // xmm0 or xmm1 <- the number of the entry in rdi, which is an integer, a double or a variable
  // that others hold, too.
  for (int i = 0; i < 2; i++) {
    const Xmm number(i);
    Label is_double, is_variable, fails;
    L(read_entry[i]);
    mov(rax, ptr[rdi]);
    cmp(eax, ZephVM_Stack::KindDouble);
    je(is_double);
    cmp(eax, ZephVM_Stack::KindInteger);
    jne(is_variable);
    xorps(number, number);
    cvtsi2sd(number, dword[rdi + kEntryValue]);
    clc();
    ret();
    L(is_double);
    movsd(number, ptr[rdi + kEntryValue]);
    clc();
    ret();
    L(is_variable);
    mov(rcx, OfEntry::owned_variable);
    cmp(rax, rcx);
    jne(fails);
    mov(rcx, ptr[rdi + kEntryValue]);
    cmp(dword[rcx + OfVariable::holders], 1);
    jg(find_number[i]);
    L(fails);
    stc();
    ret();
  }
  {
    // Frees what an entry that was read holds.
    Label done;
    L(drop_entry);
    cmp(dword[rdi], ZephVM_Stack::KindVariable);
    jne(done);
    mov(rcx, ptr[rdi + kEntryValue]);
    dec(dword[rcx + OfVariable::holders]);
    L(done);
    ret();
  }
  {
    // eax <- the integer of the variable in rcx.
    Label retry, as_double, as_integer, fails;
    L(find_integer);
    mov(eax, dword[rcx + OfVariable::state]);
    L(retry);
    cmp(eax, OfVariable::double_alone);
    je(as_double);
    cmp(eax, OfVariable::integer_alone);
    je(as_integer);
    cmp(eax, OfVariable::both_numbers);
    je(as_integer);
    cmp(eax, OfVariable::reference_alone);
    jne(fails);
    call(follow);
    jc(fails);
    mov(eax, dword[rcx + OfVariable::state]);
    jmp(retry);
    L(as_double);
    cvttsd2si(eax, Field(rcx, OfVariable::number));
    clc();
    ret();
    L(as_integer);
    mov(eax, dword[rcx + OfVariable::integer]);
    clc();
    ret();
    L(fails);
    stc();
    ret();
  }
  {
    // rcx <- the plain variable that the reference in rcx refers to.
    Label two, found, search, fails;
    L(find_plain);
    mov(rax, Field(rcx, OfVariable::reference));
    test(rax, rax);
    jz(fails);
    test(dword[rax + OfVariable::state], OfVariable::not_plain);  // clears the carry
    jnz(find_end);
    mov(rcx, rax);
    ret();
    // The same if that is not the variable in rax, to which the reference refers. Where a chain
    // ends is remembered, see Variable::Final(), but not if it has two references.
    L(find_end);
    mov(rdi, ptr[rbx + static_cast<int>(offsetof(NativeRun, reference_changes))]);
    mov(edi, dword[rdi]);
    cmp(edi, dword[rcx + OfVariable::integer]);
    jne(two);
    cmp(dword[rcx + OfVariable::state], OfVariable::reference_alone);
    jne(search);
    mov(rax, Field(rcx, OfVariable::number));
    L(found);
    test(rax, rax);
    jz(search);
    test(dword[rax + OfVariable::state], OfVariable::not_plain);
    jnz(search);
    mov(rcx, rax);
    ret();
    L(two);
    mov(rax, Field(rax, OfVariable::reference));
    jmp(found);
    L(search);
    call(follow);
    jc(fails);
    test(dword[rcx + OfVariable::state], OfVariable::not_plain);
    jnz(fails);
    ret();
    L(fails);
    stc();
    ret();
  }
  {
    // rcx <- the end of the chain of the reference in rcx. The subroutines above call it, so the
    // stack is as C++ code needs it.
    Label chain, longer, fails;
    L(follow);
    mov(rax, Field(rcx, OfVariable::reference));
    test(rax, rax);
    jz(fails);
    cmp(qword[rax + OfVariable::reference], 0);
    jne(chain);
    mov(rcx, rax);
    clc();
    ret();
    L(chain);
    mov(rdi, Field(rax, OfVariable::reference));
    cmp(qword[rdi + OfVariable::reference], 0);
    jne(longer);
    mov(rcx, rdi);
    clc();
    ret();
    L(longer);
    movsd(ptr[rbx + kHeld], xmm0);
    movsd(ptr[rbx + kHeld + 24], xmm1);
    mov(ptr[rbx + kHeld + 8], rdx);
    mov(ptr[rbx + kHeld + 16], rsi);
    mov(ptr[rbx + kHeld + 32], r8);
    for (int i = 0; i < kMostKept; i++) movsd(ptr[rbx + kKept + 8L * i], Xmm(kFirstKept + i));
    mov(rdi, rcx);
    mov(rax, AddressOf(&NativeRun::Real));
    call(rax);
    mov(rcx, rax);
    movsd(xmm0, ptr[rbx + kHeld]);
    movsd(xmm1, ptr[rbx + kHeld + 24]);
    mov(rdx, ptr[rbx + kHeld + 8]);
    mov(rsi, ptr[rbx + kHeld + 16]);
    mov(r8, ptr[rbx + kHeld + 32]);
    for (int i = 0; i < kMostKept; i++) movsd(Xmm(kFirstKept + i), ptr[rbx + kKept + 8L * i]);
    clc();
    ret();
    L(fails);
    stc();
    ret();
  }
}

// Stores xmm0 in the variable that is the record's target. The record ends after that; with
// is_last, the code of the next one follows.
void NativeEmitter::StoreNumber(bool is_last) {
  StoreInTarget(reinterpret_cast<const void*>(&NativeRun::StoreDouble), OfVariable::double_alone,
                is_last);
}

// The same with edx.
void NativeEmitter::StoreInteger(bool is_last) {
  StoreInTarget(reinterpret_cast<const void*>(&NativeRun::StoreInteger), OfVariable::integer_alone,
                is_last);
}

// The number of the variable in rcx is xmm0 or edx, by its form.
void NativeEmitter::WriteNumber(int form) {
  if (form == OfVariable::double_alone) {
    movsd(Field(rcx, OfVariable::number), xmm0);
    mov(dword[rcx + OfVariable::primary], PrimaryDouble);
  } else {
    mov(dword[rcx + OfVariable::integer], edx);
    mov(dword[rcx + OfVariable::primary], PrimaryInteger);
  }
}

// The variable of the record's target gets xmm0 or edx as its only form. If that takes more, the
// operation stores the number. A variable that others hold, too, may be one that registers keep the
// number of, by another name: after that they are read again.
void NativeEmitter::StoreInTarget(const void* operation, int form, bool is_last) {
  const HotOperand kind = op->into;
  const int offset = op->third;
  const bool is_double = form == OfVariable::double_alone;
  const bool may_be_kept = KeepsNumbers(offset);
  DropNumbers(offset);
  const int number = is_last ? Keep(KeptAs::Number, kind, offset, !is_double) : -1;
  const int integer = is_double || !is_last ? -1 : Keep(KeptAs::Integer, kind, offset);
  Rare* const rare =
      &AddRare([this, record = op, operation, form, may_be_kept, keeps_any = KeepsAny(),
                &next = labels[at + 1], &unusual = Leave()](Rare& self) {
        Label plain, other;
        test(rcx, rcx);
        jz(other);
        cmp(dword[rcx + OfVariable::state], OfVariable::reference_alone);
        jne(plain);
        call(find_plain);
        jc(other);
        L(plain);
        MakeForm(form, other);
        if (may_be_kept) {
          L(self.others[1]);
          WriteNumber(form);
          jmp(next);
        } else {
          jmp(self.others[0]);
        }
        L(other);
        const HotOp* const current = std::exchange(op, record);
        CallWith(operation);
        op = current;
        test(al, al);
        jz(unusual);
        if (keeps_any) {
          jmp(next);
        } else {
          jmp(self.back);
        }
      });
  mov(rcx, RowAt(kind, offset));
  test(rcx, rcx);
  jz(rare->label);
  cmp(dword[rcx + OfVariable::state], form);
  jne(rare->label);
  if (may_be_kept) {
    cmp(dword[rcx + OfVariable::holders], 1);
    jne(rare->others[1]);
  }
  L(rare->others[0]);
  WriteNumber(form);
  L(rare->back);
  if (number >= 0 && is_double) movaps(Xmm(number), xmm0);
  if (number >= 0 && !is_double) cvtsi2sd(Xmm(number), edx);
  if (integer >= 0) movd(Xmm(integer), edx);
}

// The variable in rcx gets that form alone, if it is a plain scalar; its number is stored next.
void NativeEmitter::MakeForm(int form, Label& unusual) {
  test(dword[rcx + OfVariable::state], ~OfVariable::all_forms);
  jnz(unusual);
  cmp(qword[rcx + OfVariable::elements], 0);
  jne(unusual);
  mov(dword[rcx + OfVariable::state], form);
}

// The temporary of the record, and xmm0 at the next record, have the number in xmm0.
void NativeEmitter::SetTemporary() {
  movsd(NumberAt(op->third), xmm0);
  left_behind = op->third;
}

// The record's calculation if its target is its left operand, too, which is expected to have a
// double: that is written where it was read.
void NativeEmitter::Accumulate(int operation) {
  const auto calculate = [this, operation] {
    if (op->right == HotOperand::Constant) {
      Calculate(operation, Constant(std::bit_cast<uint64_t>(op->number)));
    } else {
      Calculate(operation);
    }
  };
  if (in_register[0] >= 0) {
    movaps(xmm1, xmm0);
    in_register[0] = -1;
  } else if (op->right != HotOperand::Constant) {
    LoadNumber(xmm1, op->right, op->second);
  }
  const KeptRegisters before = kept;
  const bool may_be_kept = KeepsNumbers(op->third);
  DropNumbers(op->third);
  const int number = Keep(KeptAs::Number, op->into, op->third);
  Rare* rare = &AddRare([this, calculate, before, keeps_now = keeps, record = op, place = at,
                         &unusual = Leave(), leaves = leave](Rare& self) {
    op = record;
    at = place;
    leave = leaves;
    kept = before;
    keeps = keeps_now;
    call(find_number[0]);
    jc(unusual);
    calculate();
    StoreNumber();
    kept = {};
    keeps = false;
    jmp(self.back);
  });
  LoadVariable(rcx, op->left, op->first);
  cmp(dword[rcx + OfVariable::state], OfVariable::double_alone);
  jne(rare->label);
  if (may_be_kept) {
    cmp(dword[rcx + OfVariable::holders], 1);
    jne(rare->label);
  }
  movsd(xmm0, Field(rcx, OfVariable::number));
  calculate();
  WriteNumber(OfVariable::double_alone);
  L(rare->back);
  if (number >= 0) movaps(Xmm(number), xmm0);
}

// xmm0 <- the calculation of the record with its operands.
void NativeEmitter::CalculateOperands(int operation) {
  LoadNumber(xmm0, op->left, op->first);
  if (op->right == HotOperand::Constant) {
    return Calculate(operation, Constant(std::bit_cast<uint64_t>(op->number)));
  }
  const int found = FindKept(KeptAs::Number, op->right, op->second);
  if (found >= 0) return Calculate(operation, Xmm(found));
  LoadNumber(xmm1, op->right, op->second);
  Calculate(operation);
}

// xmm0 <- xmm0 and another number, by the place of the operation in the list of actions.
void NativeEmitter::Calculate(int operation, const Xbyak::Operand& right) {
  switch (operation) {
    case 0: addsd(xmm0, right); break;
    case 1: subsd(xmm0, right); break;
    case 2: mulsd(xmm0, right); break;
    default: {
      // 0 divided by anything is 0. NaN counts as equal.
      Rare* const zero = &AddRare([this](Rare& self) {
        jp(self.others[0]);
        xorps(xmm0, xmm0);
        jmp(self.back);
      });
      xorps(xmm2, xmm2);
      ucomisd(xmm0, xmm2);
      je(zero->label);
      L(zero->others[0]);
      divsd(xmm0, right);
      L(zero->back);
    }
  }
}

// edx <- the operation of the record on its integers. Returns false for other records.
bool NativeEmitter::CalculateIntegers(HotAction action) {
  const bool one = action == HotAction::BitNotOf;
  switch (action) {
    case HotAction::ModOf:
    case HotAction::BitAndOf:
    case HotAction::BitOrOf:
    case HotAction::BitXorOf:
    case HotAction::ShiftLeftOf:
    case HotAction::ShiftRightOf:
    case HotAction::BitNotOf: break;
    default: return false;
  }
  if (!one) LoadInteger(edx, op->left, op->first);
  if (action == HotAction::ModOf && op->right == HotOperand::Constant &&
      (op->second > 1 || (op->second < -1 && op->second > INT_MIN))) {
    TakeRemainder(std::abs(op->second));
    return true;
  }
  LoadInteger(esi, op->right, op->second);
  switch (action) {
    case HotAction::ModOf: {
      Label divide, done;
      // 0 for a divisor of 0 or -1: with which a division traps.
      lea(ecx, ptr[rsi + 1]);
      cmp(ecx, 1);
      ja(divide);
      xor_(edx, edx);
      jmp(done);
      L(divide);
      mov(eax, edx);
      cdq();
      idiv(esi);
      L(done);
      break;
    }
    case HotAction::BitAndOf: and_(edx, esi); break;
    case HotAction::BitOrOf: or_(edx, esi); break;
    case HotAction::BitXorOf: xor_(edx, esi); break;
    case HotAction::ShiftLeftOf:
      mov(ecx, esi);
      shl(edx, cl);
      break;
    case HotAction::ShiftRightOf:
      mov(ecx, esi);
      sar(edx, cl);
      break;
    default:
      mov(edx, esi);
      not_(edx);
      break;
  }
  return true;
}

// edx <- its remainder, which has its sign, in a division by 2 or more. The quotient is the product
// with 2^shift / divisor, which is rounded up, less the fraction, where 2^shift is 2^31 times the
// divisor or more: so what the rounding adds to the product of a number of 31 bits is less than
// 1 / divisor. Of a negative number, the fraction that is dropped is dropped downwards.
void NativeEmitter::TakeRemainder(int divisor) {
  const int shift = 31 + std::bit_width(static_cast<unsigned>(divisor) - 1);
  const uint64_t factor = (uint64_t{1} << shift) / static_cast<unsigned>(divisor) + 1;
  movsxd(rdx, edx);
  mov(rax, factor);
  imul(rax, rdx);
  sar(rax, shift);
  mov(ecx, edx);
  sar(ecx, 31);
  sub(eax, ecx);
  imul(eax, eax, divisor);
  sub(edx, eax);
}

// The operations on truths. Returns false for other records.
bool NativeEmitter::EmitTruths(HotAction action) {
  bool is_stored = false;
  switch (action) {
    case HotAction::AndOf:
    case HotAction::OrOf:
    case HotAction::NotOf: break;
    case HotAction::AndTo:
    case HotAction::OrTo:
    case HotAction::NotTo: is_stored = true; break;
    default: return false;
  }
  if (op->left == HotOperand::Place || op->right == HotOperand::Place) return false;
  if (action == HotAction::NotOf || action == HotAction::NotTo) {
    LoadNumber(xmm0, op->right, op->second);
    xorps(xmm2, xmm2);
    cmpeqsd(xmm0, xmm2);
  } else {
    LoadNumber(xmm0, op->left, op->first);
    LoadNumber(xmm1, op->right, op->second);
    xorps(xmm2, xmm2);
    cmpneqsd(xmm0, xmm2);
    cmpneqsd(xmm1, xmm2);
    if (action == HotAction::AndOf || action == HotAction::AndTo) {
      andpd(xmm0, xmm1);
    } else {
      orpd(xmm0, xmm1);
    }
  }
  andpd(xmm0, Constant(std::bit_cast<uint64_t>(1.0)));
  if (is_stored) {
    cvttsd2si(edx, xmm0);
    StoreInteger();
  } else {
    SetTemporary();
  }
  return true;
}

#endif
