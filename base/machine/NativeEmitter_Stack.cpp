// Machine code for the records of single instructions, which work on the entries of the stack, and
// of sequences of these.

#include "base/machine/NativeEmitter.h"

#ifdef __x86_64__

#include <cstddef>
#include <cstdint>

// Leaves unless the stack has that many entries, which are then of these kinds.
void NativeEmitter::NeedEntries(int count, int kind) {
  mov(rax, Field(r15, OfMachine::stack));
  if (count == 1) {
    cmp(rbp, Field(rax, OfStack::entries));
  } else {
    lea(rcx, ptr[rbp - (count - 1) * kEntry]);
    cmp(rcx, Field(rax, OfStack::entries));
  }
  jbe(Leave());
  for (int i = 1; i <= count; i++) {
    cmp(dword[rbp - i * kEntry], kind);
    jne(Leave());
  }
}

void NativeEmitter::NeedRoom() {
  mov(rax, Field(r15, OfMachine::stack));
  lea(rcx, ptr[rbp + HotCode::kRoom * kEntry]);
  cmp(rcx, Field(rax, OfStack::limit));
  jae(Leave());
}

// Sets the head and the lengths of an entry at a distance from the end of the stack. Changes rax.
void NativeEmitter::SetEntry(int distance, uint64_t head, uint64_t lengths) {
  mov(rax, head);
  mov(ptr[rbp + distance], rax);
  if (lengths != head) mov(rax, lengths);
  mov(ptr[rbp + distance + kEntryLengths], rax);
}

// Pushes xmm0, or edx as an integer.
void NativeEmitter::PushNumber(HotForm form) {
  if (form == HotForm::Integer) {
    mov(edx, edx);
    mov(ptr[rbp + kEntryValue], rdx);
    SetEntry(0, ZephVM_Stack::KindInteger, kIntegerLengths);
  } else {
    movsd(ptr[rbp + kEntryValue], xmm0);
    SetEntry(0, ZephVM_Stack::KindDouble, kDoubleLengths);
  }
  add(rbp, kEntry);
}

// rcx <- the variable of a record that is a single instruction, at a position of a table.
void NativeEmitter::LoadRow(HotOperand kind, int position) {
  const int table = static_cast<int>(kind);
  cmp(dword[rbx + kCounts + 4L * table], position);
  jbe(Leave());
  LoadVariable(rcx, kind, HotOp::Offset(position));
}

// The records of single instructions, which work on the entries of the stack, and of sequences of
// these. Returns false for others, and for those that are left to the loop.
bool NativeEmitter::EmitOnStack() {
  const HotAction action = op->action;
  const int integer = ZephVM_Stack::KindInteger, number = ZephVM_Stack::KindDouble;
  const auto distance = [action](HotAction first) {
    return static_cast<int>(action) - static_cast<int>(first);
  };
  const auto is_between = [action](HotAction first, HotAction last) {
    return action >= first && action <= last;
  };
  if (is_between(HotAction::Add, HotAction::Div)) {
    SetFallback(&NativeRun::CalculateOnStack);
    NeedEntries(2, number);
    movsd(xmm0, ptr[rbp - 2 * kEntry + kEntryValue]);
    movsd(xmm1, ptr[rbp - kEntry + kEntryValue]);
    Calculate(distance(HotAction::Add));
    sub(rbp, kEntry);
    movsd(ptr[rbp - kEntry + kEntryValue], xmm0);
    return true;
  }
  if (is_between(HotAction::AddConstant, HotAction::DivConstant) ||
      is_between(HotAction::AddVariable, HotAction::DivVariable)) {
    const bool is_constant = action <= HotAction::DivConstant;
    NeedRoom();
    NeedEntries(1, number);
    if (is_constant) {
      LoadConstant(xmm1, op->number);
    } else {
      cmp(dword[rbx + kCounts + 4L * static_cast<int>(op->left)], op->first);
      jbe(Leave());
      LoadNumber(xmm1, op->left, HotOp::Offset(op->first));
    }
    movsd(xmm0, ptr[rbp - kEntry + kEntryValue]);
    Calculate(distance(is_constant ? HotAction::AddConstant : HotAction::AddVariable));
    movsd(ptr[rbp - kEntry + kEntryValue], xmm0);
    Continue(2);
    return true;
  }
  if (is_between(HotAction::Equal, HotAction::GreaterEqual)) {
    NeedEntries(2, number);
    movsd(xmm0, ptr[rbp - 2 * kEntry + kEntryValue]);
    movsd(xmm1, ptr[rbp - kEntry + kEntryValue]);
    Compare(HotGroup::OrdersOf(action));
    cvttsd2si(edx, xmm0);
    sub(rbp, 2 * kEntry);
    PushNumber(HotForm::Integer);
    return true;
  }
  if (is_between(HotAction::EqualConstantJump, HotAction::GreaterEqualConstantJump)) {
    const HotAction comparison = static_cast<HotAction>(static_cast<int>(HotAction::Equal) +
                                                        distance(HotAction::EqualConstantJump));
    const unsigned char orders = HotGroup::JumpOrders(HotGroup::OrdersOf(comparison), op[2].orders);
    if (orders == 0 || orders > 6) return false;
    NeedRoom();
    NeedEntries(1, number);
    LoadConstant(xmm1, op->number);
    sub(rbp, kEntry);
    movsd(xmm0, ptr[rbp + kEntryValue]);
    JumpIf(orders, false, op[2].target);
    Continue(3);
    return true;
  }
  if (is_between(HotAction::JumpEqual, HotAction::JumpGreaterEqual)) {
    NeedEntries(1, integer);
    sub(rbp, kEntry);
    cmp(dword[rbp + kEntryValue], 0);
    JumpIfInteger(op->orders, op->target);
    return true;
  }
  switch (action) {
    case HotAction::PushNumber:
      NeedRoom();
      if (op->form == HotForm::Integer) {
        cvttsd2si(edx, NumberAt(op->first));
      } else {
        movsd(xmm0, NumberAt(op->first));
      }
      PushNumber(op->form);
      return true;
    case HotAction::PushInteger:
      NeedRoom();
      mov(edx, op->first);
      PushNumber(HotForm::Integer);
      return true;
    case HotAction::PushDouble:
      NeedRoom();
      LoadConstant(xmm0, op->number);
      PushNumber(HotForm::Double);
      return true;
    case HotAction::PushText:
      NeedRoom();
      mov(rax, reinterpret_cast<uint64_t>(op->text));
      mov(ptr[rbp + kEntryValue], rax);
      SetEntry(0, ZephVM_Stack::KindString,
               static_cast<uint32_t>(op->length) | static_cast<uint64_t>(op->length) << 32);
      add(rbp, kEntry);
      return true;
    case HotAction::PushVariable: Call(&NativeRun::PushVariable); return true;
    case HotAction::PopVariable:
      SetFallback<&NativeRun::PopVariable>();
      NeedEntries(1, number);
      LoadRow(op->left, op->first);
      cmp(dword[rcx + OfVariable::state], OfVariable::double_alone);
      jne(Leave());
      sub(rbp, kEntry);
      mov(rax, ptr[rbp + kEntryValue]);
      mov(Field(rcx, OfVariable::number), rax);
      mov(dword[rcx + OfVariable::primary], PrimaryDouble);
      return true;
    case HotAction::Pop:
      SetFallback(&NativeRun::Pop);
      mov(rax, Field(r15, OfMachine::stack));
      cmp(rbp, Field(rax, OfStack::entries));
      jbe(Leave());
      cmp(word[rbp - kEntry + kEntryOwned], 0);
      jne(Leave());
      sub(rbp, kEntry);
      return true;
    case HotAction::Dup: Call(&NativeRun::Dup); return true;
    case HotAction::Swap: Call(&NativeRun::Swap); return true;
    case HotAction::Mod: Call(&NativeRun::Mod); return true;
    case HotAction::CompareTopJump: {
      if (op->orders == 0 || op->orders > 6) return false;
      Rare* other = &AddRare([this, &unusual = Leave()](Rare& self) {
        cmp(dword[rbp - kEntry], ZephVM_Stack::KindInteger);
        jne(unusual);
        xorps(xmm0, xmm0);
        cvtsi2sd(xmm0, dword[rbp - kEntry + kEntryValue]);
        jmp(self.back);
      });
      mov(rax, Field(r15, OfMachine::stack));
      cmp(rbp, Field(rax, OfStack::entries));
      jbe(Leave());
      cmp(dword[rbp - kEntry], number);
      jne(other->label);
      movsd(xmm0, ptr[rbp - kEntry + kEntryValue]);
      L(other->back);
      LoadNumber(xmm1, op->right, op->second);
      JumpIf(op->orders, false, op[3].target);
      Continue(4);
      return true;
    }
    case HotAction::CompareConstantJump: {
      const unsigned char orders = op[1].orders;
      if (orders == 0 || orders > 6) return false;
      LoadNumber(xmm0, HotOperand::Global, HotOp::Offset(op->first));
      LoadConstant(xmm1, op->second);
      JumpIf(orders, false, op[1].target);
      Continue(2);
      return true;
    }
    case HotAction::CompareGlobalsJump: {
      const unsigned char orders = op[1].orders;
      if (orders == 0 || orders > 6) return false;
      SetFallback(&NativeRun::CompareGlobals, op[1].target, 2);
      LoadNumber(xmm0, HotOperand::Global, HotOp::Offset(op->first));
      LoadNumber(xmm1, HotOperand::Global, HotOp::Offset(op->second));
      JumpIf(orders, false, op[1].target);
      Continue(2);
      return true;
    }
    case HotAction::ModGlobalsJump: {
      const unsigned char orders = op[1].orders;
      if (orders == 0 || orders > 6) return false;
      LoadInteger(edx, HotOperand::Global, HotOp::Offset(op->first));
      LoadInteger(esi, HotOperand::Global, HotOp::Offset(op->second));
      // 0 is an error, and -1 traps.
      lea(ecx, ptr[rsi + 1]);
      cmp(ecx, 1);
      jbe(Leave());
      mov(eax, edx);
      cdq();
      idiv(esi);
      cmp(edx, 0);
      JumpIfInteger(orders, op[1].target);
      Continue(2);
      return true;
    }
    case HotAction::Increment:
      LoadVariable(rcx, HotOperand::Global, HotOp::Offset(op->first));
      cmp(dword[rcx + OfVariable::state], OfVariable::integer_alone);
      jne(Leave());
      add(dword[rcx + OfVariable::integer], op->second);
      mov(dword[rcx + OfVariable::primary], PrimaryInteger);
      return true;
    case HotAction::StoreConstant:
      LoadVariable(rcx, HotOperand::Global, HotOp::Offset(op->first));
      MakeForm(OfVariable::integer_alone, Leave());
      mov(dword[rcx + OfVariable::integer], op->second);
      mov(dword[rcx + OfVariable::primary], PrimaryInteger);
      return true;
    case HotAction::EachElement:
      CallWith(reinterpret_cast<const void*>(&NativeRun::EachElement));
      test(al, al);
      jz(Leave());
      Continue(static_cast<size_t>(op->second) + 5);
      return true;
    case HotAction::NextElement:
      Call(&NativeRun::NextElement);
      Continue(5);
      return true;
    default: return false;
  }
}

#endif
