// Machine code that reads, calculates and stores numbers.

#include "base/machine/NativeEmitter.h"

#ifdef __x86_64__

#include <bit>
#include <cstddef>
#include <cstdint>
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
  mov(rax, std::bit_cast<uint64_t>(value));
  movq(number, rax);
}

// A variable that is there.
void NativeEmitter::LoadVariable(const Reg64& variable, HotOperand kind, int offset) {
  mov(variable, RowAt(kind, offset));
  test(variable, variable);
  jz(Leave());
}

void NativeEmitter::LoadNumber(const Xmm& number, HotOperand kind, int offset) {
  if (kind == HotOperand::Temporary || kind == HotOperand::Place) {
    movsd(number, NumberAt(offset));
    return;
  }
  if (kind == HotOperand::Constant) {
    LoadConstant(number, op->number);
    return;
  }
  LoadVariable(rcx, kind, offset);
  Rare* rare = &AddRare([this, index = number.getIdx(), &unusual = Leave()](Rare& self) {
    call(find_number[index]);
    jc(unusual);
    jmp(self.back);
  });
  if (HoldsInteger(kind, offset)) {
    cmp(dword[rcx + OfVariable::state], OfVariable::integer_alone);
    jne(rare->label);
    xorps(number, number);
    cvtsi2sd(number, dword[rcx + OfVariable::integer]);
  } else {
    cmp(dword[rcx + OfVariable::state], OfVariable::double_alone);
    jne(rare->label);
    movsd(number, Field(rcx, OfVariable::number));
  }
  L(rare->back);
}

// Whether the operand is an integer now, so that it will be one often.
bool NativeEmitter::HoldsInteger(HotOperand kind, int offset) const {
  const auto table = static_cast<size_t>(kind);
  if (kind > HotOperand::Local ||
      static_cast<unsigned>(HotOp::PositionOf(offset)) >= run->counts[table]) {
    return false;
  }
  const Variable* const variable = hot::VariableIn(run->rows[table], offset);
  return variable && variable->HoldsInteger();
}

void NativeEmitter::LoadInteger(const Reg32& integer, HotOperand kind, int offset) {
  if (kind == HotOperand::Temporary) {
    cvttsd2si(integer, NumberAt(offset));
    return;
  }
  if (kind == HotOperand::Constant) {
    mov(integer, offset);
    return;
  }
  LoadVariable(rcx, kind, offset);
  Rare* rare = &AddRare([this, integer, &unusual = Leave()](Rare& self) {
    call(find_integer);
    jc(unusual);
    mov(integer, eax);
    jmp(self.back);
  });
  if (HoldsInteger(kind, offset) || kind > HotOperand::Local) {
    cmp(dword[rcx + OfVariable::state], OfVariable::integer_alone);
    jne(rare->label);
    mov(integer, dword[rcx + OfVariable::integer]);
  } else {
    cmp(dword[rcx + OfVariable::state], OfVariable::double_alone);
    jne(rare->label);
    cvttsd2si(integer, Field(rcx, OfVariable::number));
  }
  L(rare->back);
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
    Label chain, longer, walk, found, look, fails;
    L(find_plain);
    mov(rax, Field(rcx, OfVariable::reference));
    test(rax, rax);
    jz(fails);
    cmp(qword[rax + OfVariable::reference], 0);
    jne(chain);
    L(found);
    mov(rcx, rax);
    L(look);
    test(dword[rcx + OfVariable::state], OfVariable::not_plain);  // clears the carry
    jnz(fails);
    ret();
    // Where a chain of more than two ends is remembered, see Variable::Final().
    L(chain);
    mov(rdi, Field(rax, OfVariable::reference));
    cmp(qword[rdi + OfVariable::reference], 0);
    jne(longer);
    mov(rcx, rdi);
    jmp(look);
    L(longer);
    mov(rdi, ptr[rbx + static_cast<int>(offsetof(NativeRun, reference_changes))]);
    mov(edi, dword[rdi]);
    cmp(edi, dword[rcx + OfVariable::integer]);
    jne(walk);
    test(dword[rcx + OfVariable::state], OfVariable::reached);
    jnz(walk);
    mov(rax, Field(rcx, OfVariable::number));
    test(rax, rax);
    jz(walk);
    cmp(qword[rax + OfVariable::reference], 0);
    je(found);
    L(walk);
    call(follow);
    jnc(look);
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
    mov(ptr[rbx + kHeld + 8], rdx);
    mov(ptr[rbx + kHeld + 16], rsi);
    mov(rdi, rcx);
    mov(rax, AddressOf(&NativeRun::Real));
    call(rax);
    mov(rcx, rax);
    movsd(xmm0, ptr[rbx + kHeld]);
    mov(rdx, ptr[rbx + kHeld + 8]);
    mov(rsi, ptr[rbx + kHeld + 16]);
    clc();
    ret();
    L(fails);
    stc();
    ret();
  }
  {
    // A search of the rank in eax in the row of the tree in rcx, which is not the one that was
    // found last. If the carry is set, the row has to note it.
    Label elsewhere, done;
    L(touch);
    cmp(byte[rcx + OfElements::forgetful], 0);  // clears the carry
    jne(done);
    cmp(eax, dword[rcx + OfElements::expected]);
    jne(elsewhere);
    cmp(eax, dword[rcx + OfElements::goal]);
    je(elsewhere);
    mov(dword[rcx + OfElements::top], eax);
    add(eax, dword[rcx + OfElements::step]);
    mov(dword[rcx + OfElements::expected], eax);
    clc();
    L(done);
    ret();
    L(elsewhere);
    stc();
    ret();
  }
}

// Stores xmm0 in the variable that is the record's target.
void NativeEmitter::StoreNumber() {
  Rare* const stored = StoreInTarget(reinterpret_cast<const void*>(&NativeRun::StoreDouble),
                                     OfVariable::double_alone);
  movsd(Field(rcx, OfVariable::number), xmm0);
  mov(dword[rcx + OfVariable::primary], PrimaryDouble);
  L(stored->back);
}

// The same with edx.
void NativeEmitter::StoreInteger() {
  Rare* const stored = StoreInTarget(reinterpret_cast<const void*>(&NativeRun::StoreInteger),
                                     OfVariable::integer_alone);
  mov(dword[rcx + OfVariable::integer], edx);
  mov(dword[rcx + OfVariable::primary], PrimaryInteger);
  L(stored->back);
}

// rcx <- the variable of the record's target, which has a number in that form alone from here on.
// If that takes more, the operation stores the number. The code that does it here is to end at the
// result's back.
NativeEmitter::Rare* NativeEmitter::StoreInTarget(const void* operation, int form) {
  Rare* const rare = &AddRare([this, record = op, operation, form, &unusual = Leave()](Rare& self) {
    Label other;
    test(rcx, rcx);
    jz(other);
    MakeForm(form, other);
    jmp(self.others[0]);
    L(other);
    const HotOp* const current = std::exchange(op, record);
    CallWith(operation);
    op = current;
    test(al, al);
    jz(unusual);
    jmp(self.back);
  });
  mov(rcx, RowAt(op->into, op->third));
  test(rcx, rcx);
  jz(rare->label);
  cmp(dword[rcx + OfVariable::state], form);
  jne(rare->label);
  L(rare->others[0]);
  return rare;
}

// The variable in rcx gets that form alone, if it is a plain scalar; its number is stored next.
void NativeEmitter::MakeForm(int form, Label& unusual) {
  test(dword[rcx + OfVariable::state], ~OfVariable::all_forms);
  jnz(unusual);
  cmp(qword[rcx + OfVariable::elements], 0);
  jne(unusual);
  mov(dword[rcx + OfVariable::state], form);
}

// xmm0 <- xmm0 and xmm1, by the place of the operation in the list of actions.
void NativeEmitter::Calculate(int operation) {
  switch (operation) {
    case 0: addsd(xmm0, xmm1); break;
    case 1: subsd(xmm0, xmm1); break;
    case 2: mulsd(xmm0, xmm1); break;
    default: {
      // 0 divided by anything is 0.
      Label divide, done;
      xorps(xmm2, xmm2);
      ucomisd(xmm0, xmm2);
      jne(divide);
      jp(divide);
      xorps(xmm0, xmm0);
      jmp(done);
      L(divide);
      divsd(xmm0, xmm1);
      L(done);
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
  mov(rax, std::bit_cast<uint64_t>(1.0));
  movq(xmm1, rax);
  andpd(xmm0, xmm1);
  if (is_stored) {
    cvttsd2si(edx, xmm0);
    StoreInteger();
  } else {
    movsd(NumberAt(op->third), xmm0);
  }
  return true;
}

#endif
