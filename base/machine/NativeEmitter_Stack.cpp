// Machine code for the records of single instructions, which work on the entries of the stack, and
// of sequences of these.

#include "base/machine/NativeEmitter.h"

#ifdef __x86_64__

#include <cstddef>
#include <cstdint>

// Leaves unless the stack has that many entries.
void NativeEmitter::NeedStack(int count) {
  mov(rax, Field(r15, OfMachine::stack));
  if (count == 1) {
    cmp(rbp, Field(rax, OfStack::entries));
  } else {
    lea(rcx, ptr[rbp - (count - 1) * kEntry]);
    cmp(rcx, Field(rax, OfStack::entries));
  }
  jbe(Leave());
}

// The same, and unless these are of a kind.
void NativeEmitter::NeedEntries(int count, int kind) {
  NeedStack(count);
  for (int i = 1; i <= count; i++) {
    cmp(dword[rbp - i * kEntry], kind);
    jne(Leave());
  }
}

// xmm0 <- the number of the last entry, or xmm0 and xmm1 <- those of the last two, which have
// nothing to free afterwards. The lower one is a double then.
void NativeEmitter::LoadEntries(int count) {
  NeedStack(count);
  Rare* rare = &AddRare([this, count, &unusual = Leave()](Rare& self) {
    if (count == 2) {
      // The same variable twice may have no other holder.
      mov(rax, ptr[rbp - kEntry + kEntryValue]);
      cmp(rax, ptr[rbp - 2 * kEntry + kEntryValue]);
      je(unusual);
    }
    for (int i = 0; i < count; i++) {
      lea(rdi, ptr[rbp - (count - i) * kEntry]);
      call(read_entry[i]);
      jc(unusual);
    }
    for (int i = 0; i < count; i++) {
      lea(rdi, ptr[rbp - (count - i) * kEntry]);
      call(drop_entry);
    }
    SetEntry(static_cast<int>(-count * kEntry), ZephVM_Stack::KindDouble, kDoubleLengths);
    movsd(ptr[rbp - count * kEntry + kEntryValue], xmm0);
    jmp(self.back);
  });
  for (int i = 0; i < count; i++) {
    cmp(dword[rbp - (count - i) * kEntry], ZephVM_Stack::KindDouble);
    jne(rare->label);
    movsd(Xmm(i), ptr[rbp - (count - i) * kEntry + kEntryValue]);
  }
  L(rare->back);
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

// Pushes a variable, with a count on it. Changes rax.
void NativeEmitter::PushHeld(const Reg64& variable) {
  inc(dword[variable + OfVariable::holders]);
  mov(ptr[rbp + kEntryValue], variable);
  SetEntry(0, OfEntry::owned_variable, kDoubleLengths);
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
    LoadEntries(2);
    Calculate(distance(HotAction::Add));
    sub(rbp, kEntry);
    movsd(ptr[rbp - kEntry + kEntryValue], xmm0);
    return true;
  }
  if (is_between(HotAction::AddConstant, HotAction::DivConstant) ||
      is_between(HotAction::AddVariable, HotAction::DivVariable)) {
    const bool is_constant = action <= HotAction::DivConstant;
    NeedRoom();
    if (is_constant) {
      LoadConstant(xmm1, op->number);
    } else {
      cmp(dword[rbx + kCounts + 4L * static_cast<int>(op->left)], op->first);
      jbe(Leave());
      LoadNumber(xmm1, op->left, HotOp::Offset(op->first));
    }
    LoadEntries(1);
    Calculate(distance(is_constant ? HotAction::AddConstant : HotAction::AddVariable));
    movsd(ptr[rbp - kEntry + kEntryValue], xmm0);
    Continue(2);
    return true;
  }
  if (is_between(HotAction::Equal, HotAction::GreaterEqual)) {
    SetFallback<&NativeRun::CompareOnStack>();
    LoadEntries(2);
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
    LoadConstant(xmm1, op->number);
    LoadEntries(1);
    sub(rbp, kEntry);
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
    case HotAction::PushVariable:
      SetFallback(&NativeRun::PushVariable);
      NeedRoom();
      LoadRow(op->left, op->first);
      test(dword[rcx + OfVariable::state], OfVariable::asleep);
      jnz(Leave());
      PushHeld(rcx);
      return true;
    case HotAction::PopVariable: {
      SetFallback<&NativeRun::PopVariable>();
      Rare* other = &AddRare([this, &unusual = Leave()](Rare& self) {
        Label as_integer;
        cmp(dword[rbp - kEntry], ZephVM_Stack::KindInteger);
        je(as_integer);
        cmp(dword[rbp - kEntry], ZephVM_Stack::KindDouble);
        jne(unusual);
        MakeForm(OfVariable::double_alone, unusual);
        jmp(self.others[0]);
        L(as_integer);
        MakeForm(OfVariable::integer_alone, unusual);
        sub(rbp, kEntry);
        mov(eax, ptr[rbp + kEntryValue]);
        mov(dword[rcx + OfVariable::integer], eax);
        mov(dword[rcx + OfVariable::primary], PrimaryInteger);
        jmp(self.back);
      });
      NeedStack(1);
      LoadRow(op->left, op->first);
      cmp(dword[rbp - kEntry], number);
      jne(other->label);
      cmp(dword[rcx + OfVariable::state], OfVariable::double_alone);
      jne(other->label);
      L(other->others[0]);
      sub(rbp, kEntry);
      mov(rax, ptr[rbp + kEntryValue]);
      mov(Field(rcx, OfVariable::number), rax);
      mov(dword[rcx + OfVariable::primary], PrimaryDouble);
      L(other->back);
      return true;
    }
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
    case HotAction::CompareConstant:
      // The order as -1, 0 or 1.
      NeedRoom();
      LoadNumber(xmm0, HotOperand::Global, HotOp::Offset(op->first));
      LoadConstant(xmm1, op->second);
      xor_(edx, edx);
      xor_(eax, eax);
      ucomisd(xmm0, xmm1);
      jp(Leave());
      seta(dl);
      setb(al);
      sub(edx, eax);
      PushNumber(HotForm::Integer);
      return true;
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
      TryWords(HotOperand::Global, HotOp::Offset(op->first), HotOperand::Global,
               HotOp::Offset(op->second), orders);
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
    case HotAction::EachElement: EachElement(); return true;
    case HotAction::NextElement:
      Call(&NativeRun::NextElement);
      Continue(5);
      return true;
    default: return false;
  }
}

#endif
