// Machine code for calls of functions and their returns.

#include "base/machine/NativeEmitter.h"

#ifdef __x86_64__

#include <cstddef>
#include <cstdint>
#include <utility>

// A subroutine that makes the variables of the called frame, in rcx, ready for the next call. On
// return edi is 0 if that takes more than the usual. Changes rax, rdi, r8 and r11.
void NativeEmitter::EmitRenew() {
  Label next, row, unusual, end;
  L(renew);
  mov(rdi, Field(rcx, OfFrame::variables));
  mov(r8, Field(rcx, OfFrame::locals));
  mov(eax, dword[rdi + OfTable::count]);
  cmp(eax, dword[r8 + OfTable::count]);
  jne(unusual);
  mov(r11, Field(r8, OfTable::index));
  cmp(r11, Field(rdi, OfTable::index));
  jne(unusual);
  cmp(qword[rdi + OfTable::error], 0);
  jne(unusual);
  mov(rdi, Field(rdi, OfTable::entries));
  shl(rax, 4);
  add(rax, rdi);
  jmp(end);
  L(row);
  mov(r8, ptr[rdi + HotOp::kVariableInRow]);
  add(rdi, HotOp::kRowSize);
  test(r8, r8);
  jz(end);
  mov(r11d, dword[r8 + OfVariable::state]);
  cmp(r11d, OfVariable::asleep);
  je(end);
  dec(r11d);
  cmp(r11d, OfVariable::all_forms);
  jae(unusual);
  cmp(dword[r8 + OfVariable::holders], 1);
  jne(unusual);
  cmp(dword[r8 + OfVariable::name_mark], OfVariable::shared_name);
  jne(unusual);
  cmp(dword[r8 + OfVariable::allocated], OfVariable::most_kept);
  jg(unusual);
  mov(dword[r8 + OfVariable::state], OfVariable::asleep);
  L(end);
  cmp(rdi, rax);
  jne(row);
  mov(edi, 1);
  ret();
  L(unusual);
  xor_(edi, edi);
  ret();
}

// Makes a segment, whose number is in a field of the frame in rcx, the current one. Changes rax.
void NativeEmitter::UseSegment(const Reg64& used, int number) {
  mov(Field(r15, OfMachine::segment), used);
  mov(rax, Field(used, OfSegment::data));
  mov(Field(r15, OfMachine::code), rax);
  mov(eax, dword[used + OfSegment::length]);
  mov(dword[r15 + OfMachine::code_length], eax);
  mov(eax, dword[rcx + number]);
  mov(dword[r15 + OfMachine::loaded_segment], eax);
  mov(dword[r15 + OfMachine::wanted_segment], eax);
}

// Whether a frame is kept for the called function and is prepared for calls from this code; then
// r14 is the rows of its variables.
void NativeEmitter::BeginCall() {
  mov(rax, ptr[rbx + static_cast<int>(offsetof(NativeRun, idle_frames))]);
  mov(rax, ptr[rax + op->first * 8L]);
  test(rax, rax);
  jz(Leave());
  mov(rcx, code->serial());
  Rare* prepare = &AddRare([this, record = op, &unusual = Leave()](Rare& self) {
    const HotOp* const current = std::exchange(op, record);
    CallWith(reinterpret_cast<const void*>(&NativeRun::CallWith));
    op = current;
    test(al, al);
    jz(unusual);
    mov(r14, ptr[rbx + kCalledRows]);
    jmp(self.back);
  });
  cmp(Field(rax, OfFrame::return_code), rcx);
  jne(prepare->label);
  mov(rcx, Field(r15, OfMachine::frame));
  cmp(dword[rcx + OfFrame::depth], OfMachine::most_frames);
  jge(Leave());
  cmp(dword[rax + OfFrame::simple_parameters], op->second);
  jne(Leave());
  mov(rdx, rax);
  NeedRoom();
  mov(rax, rdx);
  mov(rcx, Field(rax, OfFrame::variables));
  mov(ptr[rbx + static_cast<int>(offsetof(NativeRun, called))], rax);
  mov(eax, dword[rcx + OfTable::count]);
  mov(r14, Field(rcx, OfTable::entries));
  mov(dword[rbx + static_cast<int>(offsetof(NativeRun, called_count))], eax);
  mov(ptr[rbx + kCalledRows], r14);
  L(prepare->back);
}

// The parameter in rdx begins with the number in xmm0 or esi.
void NativeEmitter::SendNumber(HotForm form) {
  const bool is_double = form == HotForm::Double;
  cmp(qword[rdx + OfVariable::text], 0);
  jne(Leave());
  mov(dword[rdx + OfVariable::state],
      is_double ? OfVariable::double_alone : OfVariable::integer_alone);
  if (is_double) {
    movsd(Field(rdx, OfVariable::number), xmm0);
  } else {
    mov(dword[rdx + OfVariable::integer], esi);
  }
  mov(dword[rdx + OfVariable::primary], is_double ? PrimaryDouble : PrimaryInteger);
}

void NativeEmitter::Send() {
  SetFallback(&NativeRun::SendOther);
  Rare* value = &AddRare([this, record = op, &unusual_goal = Leave()](Rare& self) {
    mov(ptr[rbx + kTop], rbp);
    mov(rdi, rbx);
    mov(rsi, reinterpret_cast<uint64_t>(record));
    mov(rax, AddressOf(&NativeRun::SendValue));
    call(rax);
    test(al, al);
    jz(unusual_goal);
    jmp(self.back);
  });
  if (op->action == HotAction::SendText || op->action == HotAction::SendReference) {
    jmp(value->label);
    L(value->back);
    return;
  }
  mov(rdx, ptr[r14 + op->third]);
  test(rdx, rdx);
  jz(Leave());
  if (op->action == HotAction::SendConstant) {
    if (op->form == HotForm::Integer) {
      mov(esi, op->first);
    } else {
      LoadConstant(xmm0, op->number);
    }
    SendNumber(op->form);
    L(value->back);
    return;
  }
  Label as_integer;
  if (op->action == HotAction::SendTemporary) {
    movsd(xmm0, NumberAt(op->first));
    if (op->form != HotForm::AsLoaded) {
      if (op->form == HotForm::Integer) cvttsd2si(esi, xmm0);
      SendNumber(op->form);
      L(value->back);
      return;
    }
    cvttsd2si(esi, xmm0);
    cmp(FormAt(op->first), kIntegerForm);
    je(as_integer);
    cmp(FormAt(op->first), kDoubleForm);
    jne(value->label);
  } else {
    LoadVariable(rcx, op->left, op->first);
    mov(esi, dword[rcx + OfVariable::integer]);
    cmp(dword[rcx + OfVariable::state], OfVariable::integer_alone);
    je(as_integer);
    cmp(dword[rcx + OfVariable::state], OfVariable::double_alone);
    jne(value->label);
    movsd(xmm0, Field(rcx, OfVariable::number));
  }
  SendNumber(HotForm::Double);
  jmp(value->back);
  L(as_integer);
  SendNumber(HotForm::Integer);
  L(value->back);
}

// What NativeRun::Enter does, if the function has machine code. The number that it returns comes to
// TakeResult.
void NativeEmitter::Enter() {
  Rare* slow = &AddRare([this, record = op](Rare&) {
    const HotOp* const current = std::exchange(op, record);
    Transfer(&NativeRun::Enter);
    op = current;
  });
  Rare* result = &AddRare([this, record = op, next = at + 1](Rare&) {
    const HotOp* const current = std::exchange(op, record);
    const size_t place = std::exchange(at, next);
    TakeResult();
    op = current;
    at = place;
  });
  Label same_segment, is_current;
  mov(rcx, ptr[rbx + static_cast<int>(offsetof(NativeRun, called))]);
  mov(rdx, Field(rcx, OfFrame::entry));
  test(rdx, rdx);
  jz(slow->label);
  mov(rdi, Field(rcx, OfFrame::entry_code));
  mov(eax, dword[rcx + OfFrame::entry_segment]);
  cmp(eax, dword[r15 + OfMachine::loaded_segment]);
  je(same_segment);
  mov(rax, Field(rdi, OfSegment::hot));
  test(rax, rax);
  jz(slow->label);
  mov(rax, Field(rax, OfSegment::serial));
  cmp(rax, Field(rcx, OfFrame::entry_serial));
  jne(slow->label);
  L(same_segment);
  mov(rdx, ptr[rdx + static_cast<int>(offsetof(HotOp, native))]);
  test(rdx, rdx);
  jz(slow->label);
  movsxd(rax, dword[rcx + OfFrame::simple_mode]);
  cmp(rax, Field(r15, OfMachine::hot_mode));
  jne(slow->label);
  cmp(dword[rbx + kPatience], 1);
  je(slow->label);
  dec(dword[rbx + kPatience]);
  mov(dword[rcx + OfFrame::output_mode], eax);
  mov(eax, dword[rcx + OfFrame::entry_segment]);
  cmp(eax, dword[r15 + OfMachine::loaded_segment]);
  je(is_current);
  UseSegment(rdi, OfFrame::entry_segment);
  L(is_current);
  mov(rsi, Field(r15, OfMachine::stack));
  mov(Field(rsi, OfStack::top), rbp);
  mov(rsi, Field(r15, OfMachine::frame));
  mov(rax, Field(rcx, OfFrame::next_idle));
  mov(rdi, ptr[rbx + static_cast<int>(offsetof(NativeRun, idle_frames))]);
  mov(ptr[rdi + op->first * 8L], rax);
  mov(dword[rcx + OfFrame::return_offset], op[1].start);
  mov(rax, reinterpret_cast<uint64_t>(op + 1));
  mov(Field(rcx, OfFrame::return_op), rax);
  lea(rax, ptr[rip + result->label]);
  mov(Field(rcx, OfFrame::native_return), rax);
  const HotOp* const use = op[1].plain;
  if (use->passed_uses == 0) {
    mov(byte[rcx + OfFrame::uses], use->uses);
  } else {
    mov(al, byte[rsi + OfFrame::uses]);
    and_(al, use->passed_uses);
    or_(al, use->uses);
    mov(byte[rcx + OfFrame::uses], al);
  }
  mov(eax, dword[rsi + OfFrame::error_output]);
  mov(dword[rcx + OfFrame::error_output], eax);
  mov(Field(rcx, OfFrame::previous), rsi);
  mov(eax, dword[rsi + OfFrame::depth]);
  inc(eax);
  mov(dword[rcx + OfFrame::depth], eax);
  mov(Field(r15, OfMachine::frame), rcx);
  mov(rdi, Field(rcx, OfFrame::stack));
  mov(Field(r15, OfMachine::stack), rdi);
  mov(rbp, Field(rdi, OfStack::top));
  mov(r13, r14);
  mov(ptr[rbx + kRows + 8], r13);
  mov(eax, dword[rbx + static_cast<int>(offsetof(NativeRun, called_count))]);
  mov(dword[rbx + kCounts + 4], eax);
  jmp(rdx);
}

// The number in xmm0, as an integer if edx is not 0, is the result of the call that the record has
// made, and r10d tells whether it is the value of a variable. The called frame, in rcx, is still
// the current one. If anything is unusual, the code at r9 does all of the return.
void NativeEmitter::TakeResult() {
  const HotOp* const use = op[1].plain;
  const bool is_stored = (use->uses & HotOp::Stored) && use->single == HotAction::PopVariable;
  Label unusual, slow;
  // What is checked before anything is changed.
  mov(rax, Field(r15, OfMachine::stack));
  cmp(rbp, Field(rax, OfStack::entries));
  jne(unusual);
  mov(rsi, Field(rcx, OfFrame::previous));
  movsxd(rax, dword[rsi + OfFrame::output_mode]);
  cmp(rax, Field(r15, OfMachine::hot_mode));
  jne(unusual);
  mov(rdi, Field(rsi, OfFrame::variables));
  mov(r11, Field(rdi, OfTable::entries));
  if (is_stored) {
    const int offset = HotOp::Offset(use->first);
    if (use->left == HotOperand::Global) {
      cmp(dword[rbx + kCounts], use->first);
      jbe(unusual);
      mov(rax, ptr[r12 + offset]);
    } else {
      cmp(dword[rdi + OfTable::count], use->first);
      jbe(unusual);
      mov(rax, ptr[r11 + offset]);
    }
    test(rax, rax);
    jz(unusual);
    test(dword[rax + OfVariable::state], ~OfVariable::all_forms);
    jnz(unusual);
    cmp(qword[rax + OfVariable::elements], 0);
    jne(unusual);
    Label as_integer, done;
    test(edx, edx);
    jnz(as_integer);
    movsd(Field(rax, OfVariable::number), xmm0);
    mov(dword[rax + OfVariable::state], OfVariable::double_alone);
    mov(dword[rax + OfVariable::primary], PrimaryDouble);
    jmp(done);
    L(as_integer);
    cvttsd2si(edx, xmm0);
    mov(dword[rax + OfVariable::integer], edx);
    mov(dword[rax + OfVariable::state], OfVariable::integer_alone);
    mov(dword[rax + OfVariable::primary], PrimaryInteger);
    L(done);
    mov(dword[rcx + OfFrame::return_offset], use[1].start);
    mov(rax, reinterpret_cast<uint64_t>(use[1].fast ? use[1].fast : use + 1));
    mov(Field(rcx, OfFrame::return_op), rax);
  } else {
    Label any, push_integer, pushed;
    test(r10d, r10d);
    jz(any);
    movzx(eax, byte[rcx + OfFrame::uses]);
    test(al, HotOp::UsedAsValue);
    jz(unusual);
    test(al, HotOp::UsedAsNumber);
    jz(any);
    xor_(edx, edx);
    L(any);
    mov(r10, rbp);
    mov(rdi, Field(rsi, OfFrame::stack));
    mov(rbp, Field(rdi, OfStack::top));
    test(edx, edx);
    jnz(push_integer);
    PushNumber(HotForm::Double);
    jmp(pushed);
    L(push_integer);
    cvttsd2si(edx, xmm0);
    PushNumber(HotForm::Integer);
    L(pushed);
    mov(Field(rdi, OfStack::top), rbp);
    mov(rbp, r10);
  }
  call(renew);
  test(edi, edi);
  jz(slow);
  mov(rax, Field(r15, OfMachine::stack));
  mov(Field(rax, OfStack::top), rbp);
  mov(Field(r15, OfMachine::frame), rsi);
  mov(rdi, Field(rsi, OfFrame::stack));
  mov(Field(r15, OfMachine::stack), rdi);
  mov(rbp, Field(rdi, OfStack::top));
  mov(rdi, ptr[rbx + static_cast<int>(offsetof(NativeRun, idle_frames))]);
  mov(rax, ptr[rdi + op->first * 8L]);
  mov(Field(rcx, OfFrame::next_idle), rax);
  mov(ptr[rdi + op->first * 8L], rcx);
  Label same_segment;
  mov(rdi, Field(rcx, OfFrame::return_to));
  cmp(rdi, Field(r15, OfMachine::segment));
  je(same_segment);
  UseSegment(rdi, OfFrame::return_segment);
  L(same_segment);
  mov(rdi, Field(rsi, OfFrame::variables));
  mov(r13, Field(rdi, OfTable::entries));
  mov(eax, dword[rdi + OfTable::count]);
  mov(ptr[rbx + kRows + 8], r13);
  mov(dword[rbx + kCounts + 4], eax);
  if (is_stored) {
    const HotOp* const next = use[1].fast;
    if (next) {
      jmp(labels[static_cast<size_t>(next - list.data())]);
    } else {
      mov(rax, reinterpret_cast<uint64_t>(use + 1));
      jmp(exit);
    }
  } else {
    jmp(labels[at]);
  }
  L(unusual);
  jmp(r9);
  // The result was passed, and the rest is done elsewhere.
  L(slow);
  Transfer(&NativeRun::AfterResult);
}

// A return with the number in xmm0, see TakeResult.
void NativeEmitter::Return(NativeRun::Transfer transfer, Label* slow) {
  Rare* other = &AddRare([this, transfer, record = op](Rare& self) {
    const HotOp* const current = std::exchange(op, record);
    // The entry of a result is on the stack again.
    if (record->action == HotAction::Return) add(rbp, kEntry);
    L(self.back);
    Transfer(transfer);
    op = current;
  });
  mov(rcx, Field(r15, OfMachine::frame));
  lea(r9, ptr[rip + other->label]);
  // Only a function's frame has one, and the fields after that.
  cmp(qword[rcx + OfFrame::return_code], 0);
  je(other->label);
  mov(rax, Field(rcx, OfFrame::native_return));
  test(rax, rax);
  jz(other->label);
  mov(rdi, Field(rcx, OfFrame::return_to));
  mov(rdi, Field(rdi, OfSegment::hot));
  test(rdi, rdi);
  jz(other->label);
  mov(rdi, Field(rdi, OfSegment::serial));
  cmp(rdi, Field(rcx, OfFrame::return_code));
  jne(other->label);
  jmp(rax);
  if (slow) {
    L(*slow);
    jmp(other->back);
  }
}

#endif
