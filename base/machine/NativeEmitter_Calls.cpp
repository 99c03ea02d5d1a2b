// Machine code for calls of functions and their returns.

#include "base/machine/NativeEmitter.h"

#ifdef __x86_64__

#include <cassert>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

// A variable of a called frame, in r8, is made ready for the next call; goes to other, with its
// state less 1 in eax, if it is no scalar. Changes eax.
void NativeEmitter::RenewScalar(Label& other, Label& unusual) {
  mov(eax, dword[r8 + OfVariable::state]);
  dec(eax);
  cmp(eax, OfVariable::all_forms);
  jae(other);
  cmp(dword[r8 + OfVariable::holders], 1);
  jne(unusual);
  cmp(dword[r8 + OfVariable::name_mark], OfVariable::shared_name);
  jne(unusual);
  cmp(dword[r8 + OfVariable::allocated], OfVariable::most_kept);
  jg(unusual);
  mov(dword[r8 + OfVariable::state], OfVariable::asleep);
}

// The table of the called frame, in rcx, still has the names of all calls, and no others: names are
// only added. They are so many, or as many as the function has if the number is negative. rdi is
// the table then. Changes rax.
void NativeEmitter::CheckNames(int variables, Label& unusual) {
  mov(rdi, Field(rcx, OfFrame::variables));
  if (variables < 0) {
    mov(rax, Field(rcx, OfFrame::locals));
    mov(eax, dword[rax + OfTable::count]);
    cmp(eax, dword[rdi + OfTable::count]);
  } else {
    cmp(dword[rdi + OfTable::count], variables);
  }
  jne(unusual);
  cmp(qword[rdi + OfTable::error], 0);
  jne(unusual);
}

// Makes the variables of the called frame, in rcx, ready for the next call; they are so many, or
// any number if it is negative; the first of them are parameters, which every call makes. Goes to
// unusual, with some of them made ready, if that takes more than the usual. Changes rax, rdi, r8
// and r11.
void NativeEmitter::Renew(int variables, int parameters, Label& unusual) {
  static constexpr int kMostInLine = 8;
  if (variables < 0 || variables > kMostInLine) {
    call(renew);
    jc(unusual);
    return;
  }
  CheckNames(variables, unusual);
  if (variables > 0) mov(r11, Field(rdi, OfTable::entries));
  for (int i = 0; i < variables; i++) {
    Rare* other = &AddRare([this, &unusual](Rare& self) {
      call(renew_other);
      jc(unusual);
      jmp(self.back);
    });
    mov(r8, ptr[r11 + HotOp::Offset(i)]);
    if (i >= parameters) {
      test(r8, r8);
      jz(other->back);
    }
    RenewScalar(other->label, unusual);
    L(other->back);
  }
}

// Subroutines for that, which set the carry if it takes more than the usual: for all variables,
// and for one, see RenewScalar.
void NativeEmitter::EmitRenew() {
  Label next, row, other, unusual, end, sleeps, is_null, is_renewed, differs;
  L(renew);
  CheckNames(-1, unusual);
  mov(r11d, eax);
  mov(rdi, Field(rdi, OfTable::entries));
  shl(r11, 4);
  add(r11, rdi);
  jmp(end);
  L(row);
  mov(r8, ptr[rdi + HotOp::kVariableInRow]);
  add(rdi, HotOp::kRowSize);
  test(r8, r8);
  jz(end);
  RenewScalar(other, unusual);
  L(end);
  cmp(rdi, r11);
  jne(row);
  clc();
  ret();
  L(other);
  call(renew_other);
  jnc(end);
  L(unusual);
  stc();
  ret();

  L(renew_other);
  cmp(eax, OfVariable::asleep - 1);
  je(sleeps);
  cmp(dword[r8 + OfVariable::holders], 1);
  jne(differs);
  cmp(dword[r8 + OfVariable::name_mark], OfVariable::shared_name);
  jne(differs);
  cmp(eax, -1);
  je(is_null);
  // A parameter by reference, whose variable has other holders.
  cmp(eax, OfVariable::reference_alone - 1);
  jne(differs);
  mov(rax, Field(r8, OfVariable::reference));
  test(rax, rax);
  jz(differs);
  cmp(dword[rax + OfVariable::holders], 1);
  jle(differs);
  dec(dword[rax + OfVariable::holders]);
  xor_(eax, eax);
  mov(Field(r8, OfVariable::reference), rax);
  mov(dword[r8 + OfVariable::integer], eax);
  mov(Field(r8, OfVariable::number), rax);
  jmp(is_renewed);
  // One that has given its text away, as a result.
  L(is_null);
  mov(rax, Field(r8, OfVariable::elements));
  or_(rax, Field(r8, OfVariable::text));
  or_(rax, Field(r8, OfVariable::error));
  jnz(differs);
  L(is_renewed);
  mov(dword[r8 + OfVariable::state], OfVariable::asleep);
  L(sleeps);
  clc();
  ret();
  L(differs);
  stc();
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

// Whether a field of a frame, by default the code that it returns to, has the serial of this code.
// Changes r8.
void NativeEmitter::CompareSerial(const Reg64& frame, int field) {
  if (code->serial() <= INT_MAX) {
    cmp(qword[frame + field], static_cast<int>(code->serial()));
  } else {
    mov(r8, code->serial());
    cmp(Field(frame, field), r8);
  }
}

// NativeRun::PrepareCall for the kept frame in rax, which was prepared for calls from other code.
// Goes to unprepared if it was not. Changes rcx.
void NativeEmitter::PrepareKept(bool is_here, Label& unprepared) {
  cmp(qword[rax + OfFrame::return_code], 0);
  je(unprepared);
  mov(ecx, dword[r15 + OfMachine::loaded_segment]);
  if (is_here) {
    CompareSerial(rax, OfFrame::entry_serial);
    jne(unprepared);
  } else {
    cmp(ecx, dword[rax + OfFrame::entry_segment]);
    je(unprepared);
    cmp(qword[rax + OfFrame::entry_code], 0);
    je(unprepared);
  }
  mov(dword[rax + OfFrame::return_segment], ecx);
  mov(rcx, Field(r15, OfMachine::segment));
  mov(Field(rax, OfFrame::return_to), rcx);
  mov(rcx, code->serial());
  mov(Field(rax, OfFrame::return_code), rcx);
}

// Finds the frame that is kept for the called function and prepares it for calls from this code.
// r14 is the rows of its variables then, and rdx the current stack. Changes rax and rcx.
void NativeEmitter::FindKept(Label& unprepared, Label& unusual) {
  const HotOp* entry = nullptr;
  NativeRun::FindCalled(run, code, op->first, &entry);
  Rare* elsewhere = &AddRare([this, is_here = entry != nullptr, &unprepared](Rare& self) {
    PrepareKept(is_here, unprepared);
    jmp(self.back);
  });
  mov(rax, ptr[rbx + static_cast<int>(offsetof(NativeRun, idle_frames))]);
  mov(rax, ptr[rax + op->first * 8L]);
  test(rax, rax);
  jz(unusual);
  CompareSerial(rax);
  jne(elsewhere->label);
  L(elsewhere->back);
  mov(rcx, Field(r15, OfMachine::frame));
  cmp(dword[rcx + OfFrame::depth], OfMachine::most_frames);
  jge(unusual);
  mov(rdx, Field(r15, OfMachine::stack));
  lea(rcx, ptr[rbp + HotCode::kRoom * kEntry]);
  cmp(rcx, Field(rdx, OfStack::limit));
  jae(unusual);
  mov(rcx, Field(rax, OfFrame::variables));
  mov(ptr[rbx + static_cast<int>(offsetof(NativeRun, called))], rax);
  mov(r14, Field(rcx, OfTable::entries));
}

void NativeEmitter::BeginCall() {
  Rare* prepare = &AddRare([this, record = op, &unusual = Leave()](Rare& self) {
    const HotOp* const current = std::exchange(op, record);
    CallWith(reinterpret_cast<const void*>(&NativeRun::CallWith));
    op = current;
    test(al, al);
    jz(unusual);
    mov(r14, ptr[rbx + kCalledRows]);
    jmp(self.back);
  });
  FindKept(prepare->label, Leave());
  L(prepare->back);
}

// Goes to unusual unless Enter() can enter the function of the frame in rax, whatever the frame is
// like: once the arguments have left the stack, the loop can't make the call again. Changes rcx.
void NativeEmitter::NeedEntry(Label& unusual) {
  Label is_here;
  mov(ecx, dword[rax + OfFrame::entry_segment]);
  cmp(ecx, dword[r15 + OfMachine::loaded_segment]);
  je(is_here);
  mov(rcx, Field(rax, OfFrame::entry_code));
  mov(rcx, Field(rcx, OfSegment::hot));
  test(rcx, rcx);
  jz(unusual);
  mov(rcx, Field(rcx, OfSegment::serial));
  cmp(rcx, Field(rax, OfFrame::entry_serial));
  jne(unusual);
  L(is_here);
}

// A call whose arguments are on the stack. In line they are numbers, and variables for parameters
// by reference. The variables are checked first and taken last, because the operation that is
// called for all other arguments begins again, and it can't tell that a count was taken.
void NativeEmitter::CallOnStack() {
  const HotOp* entry = nullptr;
  uint64_t references = 0;
  const int count = NativeRun::FindCalled(run, code, op->first, &entry, &references);
  const auto is_reference = [references](int argument) {
    return (references >> argument & 1) != 0;
  };
  const auto place = [count](int argument) { return (argument - count) * kEntry; };
  const auto add_take = [this](NativeRun::Operation take, Label* done) {
    return &AddRare([this, take, done, record = op, &unusual = Leave()](Rare& self) {
      const HotOp* const current = std::exchange(op, record);
      CallWith(reinterpret_cast<const void*>(take));
      op = current;
      mov(rbp, ptr[rbx + kTop]);
      test(al, al);
      jz(unusual);
      mov(r14, ptr[rbx + kCalledRows]);
      jmp(done ? *done : self.back);
    });
  };
  Rare* unknown = add_take(&NativeRun::TakeArguments, nullptr);
  Rare* other = add_take(&NativeRun::TakeOthers, &unknown->back);
  if (count < 0) {
    jmp(unknown->label);
  } else {
    FindKept(unknown->label, unknown->label);
    if (!entry) NeedEntry(unknown->label);
    if (count > 0) {
      lea(rcx, ptr[rbp - count * kEntry]);
      cmp(rcx, Field(rdx, OfStack::entries));
      jb(other->label);
    }
    const auto load_parameter = [this, other](int i) {
      mov(rdx, ptr[r14 + HotOp::Offset(i)]);
      test(rdx, rdx);
      jz(other->label);
    };
    if (references != 0) mov(rax, OfEntry::owned_variable);
    for (int i = 0; i < count; i++) {
      if (!is_reference(i)) continue;
      cmp(ptr[rbp + place(i)], rax);
      jne(other->label);
      load_parameter(i);
      cmp(qword[rdx + OfVariable::text], 0);
      jne(other->label);
    }
    for (int i = 0; i < count; i++) {
      if (is_reference(i)) continue;
      const long argument = place(i);
      Rare* integer = &AddRare([this, argument, other](Rare& self) {
        cmp(dword[rbp + argument], ZephVM_Stack::KindInteger);
        jne(other->label);
        mov(esi, dword[rbp + argument + kEntryValue]);
        SendNumber(HotForm::Integer, other->label);
        jmp(self.back);
      });
      load_parameter(i);
      cmp(dword[rbp + argument], ZephVM_Stack::KindDouble);
      jne(integer->label);
      movsd(xmm0, ptr[rbp + argument + kEntryValue]);
      SendNumber(HotForm::Double, other->label);
      L(integer->back);
    }
    for (int i = 0; i < count; i++) {
      if (!is_reference(i)) continue;
      // The parameter gets the entry's count on the variable.
      mov(rdx, ptr[r14 + HotOp::Offset(i)]);
      mov(rcx, ptr[rbp + place(i) + kEntryValue]);
      SendVariable();
    }
    if (count > 0) sub(rbp, count * kEntry);
  }
  L(unknown->back);
  Enter();
}

// The parameter in rdx begins as a reference to the variable in rcx, with a count on it. Changes
// rax.
void NativeEmitter::SendVariable() {
  mov(Field(rdx, OfVariable::reference), rcx);
  xor_(eax, eax);
  mov(dword[rdx + OfVariable::state], OfVariable::reference_alone);
  mov(dword[rdx + OfVariable::primary], eax);
  mov(dword[rdx + OfVariable::integer], eax);
  mov(Field(rdx, OfVariable::number), rax);
}

// The parameter in rdx, which sleeps, begins with the number in xmm0 or esi. Goes to unusual if it
// has kept the memory of a text.
void NativeEmitter::SendNumber(HotForm form, Label& unusual) {
  const bool is_double = form == HotForm::Double;
  cmp(qword[rdx + OfVariable::text], 0);
  jne(unusual);
  mov(dword[rdx + OfVariable::state],
      is_double ? OfVariable::double_alone : OfVariable::integer_alone);
  if (is_double) {
    movsd(Field(rdx, OfVariable::number), xmm0);
  } else {
    mov(dword[rdx + OfVariable::integer], esi);
  }
  mov(dword[rdx + OfVariable::primary], is_double ? PrimaryDouble : PrimaryInteger);
}

// The parameter in rdx begins with the constant text of the record.
void NativeEmitter::SendText() {
  static constexpr int kMostInLine = 64;
  const int length = op->length;
  Rare* other = &AddRare([this, text = op->text, length](Rare& self) {
    TellStack();
    mov(rdi, rdx);
    mov(rsi, reinterpret_cast<uint64_t>(text));
    mov(edx, length);
    mov(rax, AddressOf(&NativeRun::BeginText));
    call(rax);
    jmp(self.back);
  });
  if (length > kMostInLine) {
    jmp(other->label);
  } else {
    cmp(dword[rdx + OfVariable::allocated], length);
    jle(other->label);
    mov(rcx, Field(rdx, OfVariable::text));
    CopyConstant(rcx, op->text, length);
    mov(byte[rcx + length], 0);
    mov(dword[rdx + OfVariable::length], length);
    mov(dword[rdx + OfVariable::primary], PrimaryText);
    mov(dword[rdx + OfVariable::state], OfVariable::text_alone);
  }
  L(other->back);
}

void NativeEmitter::Send() {
  SetFallback(&NativeRun::SendOther);
  // A short text is copied, and all others are looked at.
  Rare* value = &AddRare([this, record = op, &unusual_goal = Leave()](Rare& self) {
    SendWord(record, self.back);
    mov(ptr[rbx + kTop], rbp);
    mov(rdi, rbx);
    mov(rsi, reinterpret_cast<uint64_t>(record));
    mov(rax, AddressOf(&NativeRun::SendValue));
    call(rax);
    test(al, al);
    jz(unusual_goal);
    jmp(self.back);
  });
  mov(rdx, ptr[r14 + op->third]);
  test(rdx, rdx);
  jz(Leave());
  if (op->action == HotAction::SendText) {
    SendText();
    L(value->back);
    return;
  }
  if (op->action == HotAction::SendReference) {
    LoadVariable(rcx, op->left, op->first);
    test(dword[rcx + OfVariable::state], OfVariable::asleep);
    jnz(Leave());
    cmp(qword[rdx + OfVariable::text], 0);
    jne(Leave());
    inc(dword[rcx + OfVariable::holders]);
    SendVariable();
    L(value->back);
    return;
  }
  if (op->action == HotAction::SendConstant) {
    if (op->form == HotForm::Integer) {
      mov(esi, op->first);
    } else {
      LoadConstant(xmm0, op->number);
    }
    SendNumber(op->form, Leave());
    L(value->back);
    return;
  }
  Label as_integer;
  if (op->action == HotAction::SendTemporary) {
    movsd(xmm0, NumberAt(op->first));
    if (op->form != HotForm::AsLoaded) {
      if (op->form == HotForm::Integer) cvttsd2si(esi, xmm0);
      SendNumber(op->form, Leave());
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
  SendNumber(HotForm::Double, Leave());
  jmp(value->back);
  L(as_integer);
  SendNumber(HotForm::Integer, Leave());
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
  Rare* result = &AddRare([this, record = op, next = at + 1](Rare& self) {
    const HotOp* const current = std::exchange(op, record);
    const size_t place = std::exchange(at, next);
    TakeResult(self.others[0]);
    op = current;
    at = place;
  });
  const HotOp* entry = nullptr;
  NativeRun::FindCalled(run, code, op->first, &entry);
  Label is_current;
  mov(rcx, ptr[rbx + static_cast<int>(offsetof(NativeRun, called))]);
  if (!entry) {
    Label same_segment;
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
    mov(rdx, Field(rdx, OfRecord::native));
    test(rdx, rdx);
    jz(slow->label);
  }
  movsxd(rax, dword[rcx + OfFrame::simple_mode]);
  cmp(rax, Field(r15, OfMachine::hot_mode));
  jne(slow->label);
  mov(dword[rcx + OfFrame::output_mode], eax);
  if (!entry) {
    mov(eax, dword[rcx + OfFrame::entry_segment]);
    cmp(eax, dword[r15 + OfMachine::loaded_segment]);
    je(is_current);
    UseSegment(rdi, OfFrame::entry_segment);
    L(is_current);
  }
  mov(rsi, Field(r15, OfMachine::stack));
  mov(Field(rsi, OfStack::top), rbp);
  mov(rsi, Field(r15, OfMachine::frame));
  mov(rax, Field(rcx, OfFrame::next_idle));
  mov(rdi, ptr[rbx + static_cast<int>(offsetof(NativeRun, idle_frames))]);
  mov(ptr[rdi + op->first * 8L], rax);
  mov(dword[rcx + OfFrame::return_offset], op[1].start);
  mov(rax, reinterpret_cast<uint64_t>(op + 1));
  mov(Field(rcx, OfFrame::return_op), rax);
  lea(rax, ptr[rip + result->others[0]]);
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
  // A kept frame has as many variables as the function.
  int parameters = 0;
  const int variables = NativeRun::CountVariables(run, op->first, &parameters);
  if (variables >= 0) {
    mov(dword[rbx + kCounts + 4], variables);
  } else {
    mov(rax, Field(rcx, OfFrame::variables));
    mov(eax, dword[rax + OfTable::count]);
    mov(dword[rbx + kCounts + 4], eax);
  }
  // The host's flags are polled at calls, too.
  Rare* spent = &AddRare([this, entry](Rare&) {
    if (entry) {
      mov(rax, reinterpret_cast<uint64_t>(entry));
    } else {
      mov(rax, Field(rcx, OfFrame::entry));
    }
    jmp(exit);
  });
  dec(dword[rbx + kPatience]);
  jz(spent->label);
  if (entry) {
    jmp(labels[static_cast<size_t>(entry - list.data())]);
  } else {
    jmp(rdx);
  }
}

// Whether a row of the current table may be read although the table may have less rows.
bool NativeEmitter::IsReadable(HotOperand kind, int position) const {
  return position < (kind == HotOperand::Global ? code->globals() : code->locals());
}

// Takes the result of the call that the record has made. The called frame, in rcx, is still the
// current one. If anything is unusual, the code at r9 does all of the return. There are two places
// to come to. At numbers, the result is the number in xmm0, as an integer if edx is 1, and r10d is
// 1 if it is the value of a variable, otherwise 0. kTextResult bytes before that it is the text of
// the local variable in r10, which has that form alone and no other holder.
void NativeEmitter::TakeResult(Label& numbers) {
  const HotOp* const use = op[1].plain;
  int parameters = 0;
  const int variables = NativeRun::CountVariables(run, op->first, &parameters);
  const bool is_stored = (use->uses & HotOp::Stored) && use->single == HotAction::PopVariable;
  Label unusual, text, taken;
  // The result was passed, and the rest is done elsewhere.
  Rare* slow = &AddRare([this, use, is_stored](Rare&) {
    if (is_stored) {
      mov(dword[rcx + OfFrame::return_offset], use[1].start);
      mov(rax, reinterpret_cast<uint64_t>(use[1].fast ? use[1].fast : use + 1));
      mov(Field(rcx, OfFrame::return_op), rax);
    } else {
      mov(rdi, Field(rsi, OfFrame::stack));
      mov(Field(rdi, OfStack::top), rbp);
      mov(rax, Field(r15, OfMachine::stack));
      mov(rbp, Field(rax, OfStack::entries));
    }
    jmp(left_unusual);
  });
  const size_t begin = getSize();
  jmp(text);
  assert(getSize() == begin + kTextResult);
  (void)begin;
  L(numbers);
  CheckCaller(unusual);
  if (is_stored) {
    LoadTarget(use, unusual);
    test(dword[rax + OfVariable::state], ~OfVariable::all_forms);
    jnz(unusual);
    cmp(qword[rax + OfVariable::elements], 0);
    jne(unusual);
    Label as_integer;
    test(edx, edx);
    jnz(as_integer);
    movsd(Field(rax, OfVariable::number), xmm0);
    mov(dword[rax + OfVariable::state], OfVariable::double_alone);
    mov(dword[rax + OfVariable::primary], PrimaryDouble);
    jmp(taken);
    L(as_integer);
    cvttsd2si(edx, xmm0);
    mov(dword[rax + OfVariable::integer], edx);
    mov(dword[rax + OfVariable::state], OfVariable::integer_alone);
    mov(dword[rax + OfVariable::primary], PrimaryInteger);
  } else {
    Label any, push_integer;
    if (use->passed_uses == 0) {
      // All of it is known here.
      if (!(use->uses & HotOp::UsedAsValue)) {
        test(r10d, r10d);
        jnz(unusual);
      } else if (use->uses & HotOp::UsedAsNumber) {
        dec(r10d);
        and_(edx, r10d);
      }
    } else {
      test(r10d, r10d);
      jz(any);
      movzx(eax, byte[rcx + OfFrame::uses]);
      test(al, HotOp::UsedAsValue);
      jz(unusual);
      test(al, HotOp::UsedAsNumber);
      jz(any);
      xor_(edx, edx);
      L(any);
    }
    mov(rdi, Field(rsi, OfFrame::stack));
    mov(rbp, Field(rdi, OfStack::top));
    test(edx, edx);
    jnz(push_integer);
    PushNumber(HotForm::Double);
    jmp(taken);
    L(push_integer);
    cvttsd2si(edx, xmm0);
    PushNumber(HotForm::Integer);
  }
  L(taken);
  Renew(variables, parameters, slow->label);
  LeaveFrame(is_stored);
  mov(rax, ptr[rdi + op->first * 8L]);
  mov(Field(rcx, OfFrame::next_idle), rax);
  mov(ptr[rdi + op->first * 8L], rcx);
  UseCaller();
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
  L(text);
  TakeText(use, is_stored, unusual);
  jmp(taken);
  L(unusual);
  jmp(r9);
}

// What is checked before a result is taken: the stack of the called frame, in rcx, is empty, and
// the caller, which is in rsi then, has the output's mode. Changes rax.
void NativeEmitter::CheckCaller(Label& unusual) {
  mov(rax, Field(r15, OfMachine::stack));
  cmp(rbp, Field(rax, OfStack::entries));
  jne(unusual);
  mov(Field(rax, OfStack::top), rbp);
  mov(rsi, Field(rcx, OfFrame::previous));
  movsxd(rax, dword[rsi + OfFrame::output_mode]);
  cmp(rax, Field(r15, OfMachine::hot_mode));
  jne(unusual);
}

// rax <- the variable that the caller, the frame in rsi, pops the result into. Changes rdi and r11.
void NativeEmitter::LoadTarget(const HotOp* pop, Label& unusual) {
  const int offset = HotOp::Offset(pop->first);
  if (pop->left == HotOperand::Global) {
    if (!IsReadable(pop->left, pop->first)) {
      cmp(dword[rbx + kCounts], pop->first);
      jbe(unusual);
    }
    mov(rax, ptr[r12 + offset]);
  } else {
    mov(rdi, Field(rsi, OfFrame::variables));
    mov(r11, Field(rdi, OfTable::entries));
    if (!IsReadable(pop->left, pop->first)) {
      cmp(dword[rdi + OfTable::count], pop->first);
      jbe(unusual);
    }
    mov(rax, ptr[r11 + offset]);
  }
  test(rax, rax);
  jz(unusual);
}

// The result is the text of the variable in r10, see TakeResult() and NativeRun::PassVariable(). A
// short one is copied to where it is stored, and one that is used otherwise moves to the caller's
// stack. That leaves a variable without a value, which sleeps.
void NativeEmitter::TakeText(const HotOp* use, bool is_stored, Label& unusual) {
  if (!is_stored && use->passed_uses == 0 &&
      (use->uses & (HotOp::UsedAsValue | HotOp::UsedAsNumber)) != HotOp::UsedAsValue) {
    jmp(unusual);
    return;
  }
  CheckCaller(unusual);
  if (is_stored) {
    LoadTarget(use, unusual);
    mov(rdx, r9);
    mov(rcx, rax);
    mov(rsi, r10);
    call(copy_word);
    mov(r9, rdx);
    mov(rcx, Field(r15, OfMachine::frame));
    mov(rsi, Field(rcx, OfFrame::previous));
    jc(unusual);
    return;
  }
  if (use->passed_uses != 0) {
    mov(al, byte[rcx + OfFrame::uses]);
    and_(al, HotOp::UsedAsValue | HotOp::UsedAsNumber);
    cmp(al, HotOp::UsedAsValue);
    jne(unusual);
  }
  mov(r8, Field(r10, OfVariable::text));
  test(r8, r8);
  jz(unusual);
  cmp(qword[r10 + OfVariable::elements], 0);
  jne(unusual);
  cmp(dword[r10 + OfVariable::name_mark], OfVariable::shared_name);
  jne(unusual);
  mov(rdi, Field(rsi, OfFrame::stack));
  mov(rbp, Field(rdi, OfStack::top));
  mov(ptr[rbp + kEntryValue], r8);
  mov(eax, dword[r10 + OfVariable::allocated]);
  shl(rax, 32);
  mov(r8d, dword[r10 + OfVariable::length]);
  or_(rax, r8);
  mov(ptr[rbp + kEntryLengths], rax);
  mov(rax, OfEntry::owned_text);
  mov(ptr[rbp], rax);
  add(rbp, kEntry);
  xor_(eax, eax);
  mov(Field(r10, OfVariable::text), rax);
  mov(dword[r10 + OfVariable::allocated], eax);
  mov(dword[r10 + OfVariable::length], eax);
  mov(dword[r10 + OfVariable::primary], PrimaryNone);
  mov(dword[r10 + OfVariable::state], OfVariable::asleep);
}

// Makes the frame in rsi, the caller of the one in rcx, the current one. Its stack knows its end,
// or rbp is it already. Then rdi is the table of the frames that are kept. Changes rax.
void NativeEmitter::LeaveFrame(bool is_told) {
  mov(Field(r15, OfMachine::frame), rsi);
  mov(rdi, Field(rsi, OfFrame::stack));
  mov(Field(r15, OfMachine::stack), rdi);
  if (is_told) mov(rbp, Field(rdi, OfStack::top));
  mov(rdi, ptr[rbx + static_cast<int>(offsetof(NativeRun, idle_frames))]);
}

// Makes its segment and its variables the current ones. Changes rax and rdi.
void NativeEmitter::UseCaller() {
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
}

// What comes after a result that an operation has passed: NativeRun::EndCall for a call that
// decoded code has made, and the way on in that.
void NativeEmitter::EmitLeft() {
  L(left);
  mov(rcx, Field(r15, OfMachine::frame));
  mov(rax, Field(r15, OfMachine::stack));
  cmp(rbp, Field(rax, OfStack::entries));
  jne(left_unusual);
  mov(Field(rax, OfStack::top), rbp);
  mov(rsi, Field(rcx, OfFrame::previous));
  movsxd(rax, dword[rsi + OfFrame::output_mode]);
  cmp(rax, Field(r15, OfMachine::hot_mode));
  jne(left_unusual);
  Rare* elsewhere = &AddRare([this](Rare& self) {
    CheckReturn(left_unusual);
    jmp(self.back);
  });
  CompareSerial(rcx);
  jne(elsewhere->label);
  L(elsewhere->back);
  Renew(-1, 0, left_unusual);
  LeaveFrame(true);
  mov(rax, Field(rcx, OfFrame::place));
  lea(rdi, ptr[rdi + rax * 8]);
  mov(rax, ptr[rdi]);
  mov(Field(rcx, OfFrame::next_idle), rax);
  mov(ptr[rdi], rcx);
  UseCaller();
  mov(rax, Field(rcx, OfFrame::return_op));
  mov(rdx, Field(rax, OfRecord::native));
  test(rdx, rdx);
  jz(exit);
  jmp(rdx);
  L(left_unusual);
  CallWith(reinterpret_cast<const void*>(&NativeRun::AfterResult));
  Continue();
}

// Whether the code that the frame in rcx, a function's, returns to is decoded and is what it was at
// the call. Changes rdi.
void NativeEmitter::CheckReturn(Label& unusual) {
  // Only a function's frame has one, and the fields after that.
  cmp(qword[rcx + OfFrame::return_code], 0);
  je(unusual);
  mov(rdi, Field(rcx, OfFrame::return_to));
  mov(rdi, Field(rdi, OfSegment::hot));
  test(rdi, rdi);
  jz(unusual);
  mov(rdi, Field(rdi, OfSegment::serial));
  cmp(rdi, Field(rcx, OfFrame::return_code));
  jne(unusual);
}

// An operation passes the result of the function.
void NativeEmitter::PassResult(NativeRun::Operation operation) {
  Call(operation);
  jmp(left);
}

// A return that an operation does; back is where no entry was taken off the stack for it.
NativeEmitter::Rare* NativeEmitter::AddReturn(NativeRun::Operation operation) {
  return &AddRare([this, operation, record = op, &unusual = Leave()](Rare& self) {
    const HotOp* const current = std::exchange(op, record);
    if (record->action == HotAction::Return) add(rbp, kEntry);
    L(self.back);
    CallWith(reinterpret_cast<const void*>(operation));
    mov(rbp, ptr[rbx + kTop]);
    test(al, al);
    jz(unusual);
    jmp(left);
    op = current;
  });
}

// A return with the number in xmm0, or with the text of the variable in r10, see TakeResult(). If
// anything is unusual, it goes to other.
void NativeEmitter::Return(Rare* other, bool is_text) {
  Rare* elsewhere = &AddRare([this, other](Rare& self) {
    CheckReturn(other->label);
    jmp(self.back);
  });
  mov(rcx, Field(r15, OfMachine::frame));
  lea(r9, ptr[rip + other->label]);
  CompareSerial(rcx);
  jne(elsewhere->label);
  L(elsewhere->back);
  mov(rax, Field(rcx, OfFrame::native_return));
  test(rax, rax);
  jz(other->label);
  if (is_text) sub(rax, kTextResult);
  jmp(rax);
}

void NativeEmitter::ReturnNumber() {
  Rare* other = AddReturn(&NativeRun::ReturnNumber);
  LoadNumber(xmm0, op->left, op->first);
  mov(edx, op->form == HotForm::Integer);
  xor_(r10d, r10d);
  Return(other);
}

void NativeEmitter::ReturnVariable() {
  Rare* other = AddReturn(&NativeRun::ReturnVariable);
  // A text, or the value of a reference, if that is stored at once.
  Rare* reference = &AddRare([this, other](Rare& self) {
    Label no_text;
    cmp(dword[rcx + OfVariable::state], OfVariable::text_alone);
    jne(no_text);
    cmp(dword[rcx + OfVariable::primary], PrimaryText);
    jne(other->back);
    mov(r10, rcx);
    Return(other, true);
    L(no_text);
    cmp(dword[rcx + OfVariable::state], OfVariable::reference_alone);
    jne(other->back);
    mov(rax, Field(r15, OfMachine::frame));
    test(byte[rax + OfFrame::uses], HotOp::Stored);
    jz(other->back);
    mov(rcx, Field(rcx, OfVariable::reference));
    test(rcx, rcx);
    jz(other->back);
    movsd(xmm0, Field(rcx, OfVariable::number));
    cmp(dword[rcx + OfVariable::state], OfVariable::double_alone);
    je(self.others[0]);
    cmp(dword[rcx + OfVariable::state], OfVariable::integer_alone);
    je(self.back);
    jmp(other->back);
  });
  if (!IsReadable(op->left, op->first)) {
    cmp(dword[rbx + kCounts + 4L * static_cast<int>(op->left)], op->first);
    jbe(other->back);
  }
  mov(rcx, RowAt(op->left, HotOp::Offset(op->first)));
  test(rcx, rcx);
  jz(other->back);
  cmp(dword[rcx + OfVariable::holders], 1);
  jne(other->back);
  movsd(xmm0, Field(rcx, OfVariable::number));
  xor_(edx, edx);
  cmp(dword[rcx + OfVariable::state], OfVariable::double_alone);
  je(reference->others[0]);
  cmp(dword[rcx + OfVariable::state], OfVariable::integer_alone);
  jne(reference->label);
  L(reference->back);
  cvtsi2sd(xmm0, dword[rcx + OfVariable::integer]);
  mov(edx, 1);
  L(reference->others[0]);
  mov(r10d, 1);
  Return(other);
}

// NativeRun::PassEntry for an entry that is no number.
void NativeEmitter::MoveTop(Label& unusual) {
  Label is_text, returns;
  Rare* elsewhere = &AddRare([this, &unusual](Rare& self) {
    CheckReturn(unusual);
    jmp(self.back);
  });
  mov(rcx, Field(r15, OfMachine::frame));
  CompareSerial(rcx);
  jne(elsewhere->label);
  L(elsewhere->back);
  cmp(dword[rbp - kEntry], ZephVM_Stack::KindVariable);
  jne(is_text);
  // A borrowed variable may be a local one, which does not outlive the call.
  cmp(byte[rbp - kEntry + kEntryOwned], 0);
  je(unusual);
  L(is_text);
  sub(rbp, kEntry);
  mov(rsi, Field(rcx, OfFrame::previous));
  mov(rsi, Field(rsi, OfFrame::stack));
  mov(rdi, Field(rsi, OfStack::top));
  for (int part = 0; part < kEntry; part += 8) {
    mov(rax, ptr[rbp + part]);
    mov(ptr[rdi + part], rax);
  }
  add(rdi, kEntry);
  mov(Field(rsi, OfStack::top), rdi);
  jmp(left);
}

void NativeEmitter::ReturnTop() {
  Label is_double;
  Rare* other = AddReturn(&NativeRun::Return);
  Rare* moved = &AddRare([this, other](Rare&) { MoveTop(other->back); });
  mov(rax, Field(r15, OfMachine::stack));
  cmp(rbp, Field(rax, OfStack::entries));
  jbe(other->back);
  movsd(xmm0, ptr[rbp - kEntry + kEntryValue]);
  xor_(edx, edx);
  cmp(dword[rbp - kEntry], ZephVM_Stack::KindDouble);
  je(is_double);
  cmp(dword[rbp - kEntry], ZephVM_Stack::KindInteger);
  jne(moved->label);
  cvtsi2sd(xmm0, dword[rbp - kEntry + kEntryValue]);
  mov(edx, 1);
  L(is_double);
  xor_(r10d, r10d);
  sub(rbp, kEntry);
  Return(other);
}

#endif
