// Machine code for elements and members.

#include "base/machine/NativeEmitter.h"

#ifdef __x86_64__

#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>

// rcx <- the elements of the array or structure that the variable in rcx is.
void NativeEmitter::FindTree(int kind) {
  Rare* rare = &AddRare([this, &unusual = Leave()](Rare& self) {
    call(find_plain);
    jc(unusual);
    jmp(self.back);
  });
  test(dword[rcx + OfVariable::state], OfVariable::not_plain);
  jnz(rare->label);
  L(rare->back);
  cmp(dword[rcx + OfVariable::aggregate], kind);
  jne(Leave());
  mov(rcx, Field(rcx, OfVariable::elements));
}

// rsi <- the slot of the element whose index is the record's right operand, rax <- what it holds;
// this is a search.
void NativeEmitter::FindSlot(bool to_write) {
  LoadInteger(edx, op->right, op->second);
  cmp(edx, 1);
  jl(Leave());
  LoadVariable(rcx, op->left, op->first);
  FindTree(AggregateArray);
  if (to_write) {
    cmp(byte[rcx + OfElements::shared], 0);
    jne(Leave());
  }
  SearchSlot();
}

// The same for the index in edx and the elements in rcx.
void NativeEmitter::SearchSlot() {
  mov(edi, edx);
  sub(edi, dword[rcx + OfElements::base]);
  cmp(edi, dword[rcx + OfElements::count]);
  jae(Leave());
  Rare* rare = &AddRare([this](Rare& self) {
    call(touch);
    jnc(self.back);
    mov(ptr[rbx + kHeld], rcx);
    mov(ptr[rbx + kHeld + 8], rdi);
    TellStack();
    mov(rdi, rcx);
    mov(esi, edx);
    mov(rax, AddressOf(&NativeRun::Search));
    call(rax);
    mov(rcx, ptr[rbx + kHeld]);
    mov(rdi, ptr[rbx + kHeld + 8]);
    jmp(self.back);
  });
  lea(eax, ptr[rdi + 1]);
  cmp(eax, dword[rcx + OfElements::top]);
  jne(rare->label);
  L(rare->back);
  mov(rsi, Field(rcx, OfElements::slots));
  lea(rsi, ptr[rsi + rdi * 8]);
  mov(rax, ptr[rsi]);
}

// The same for the member whose name is the record's.
void NativeEmitter::FindMember(bool to_write) {
  LoadVariable(rcx, op->left, op->first);
  FindTree(AggregateStructure);
  if (to_write) {
    cmp(byte[rcx + OfMembers::shared], 0);
    jne(Leave());
  }
  mov(rdx, Field(rcx, OfMembers::layout));
  test(rdx, rdx);
  jz(Leave());
  mov(rsi, reinterpret_cast<uint64_t>(&op->hint));
  mov(rax, ptr[rsi + static_cast<int>(offsetof(MemberHint, layout))]);
  cmp(rax, Field(rdx, OfMembers::serial));
  jne(Leave());
  Rare* rare = &AddRare([this](Rare& self) {
    // The search is noted, if there is room for the note.
    Label grows;
    mov(rax, Field(rcx, OfMembers::notes));
    test(rax, rax);
    jz(grows);
    movsx(rdi, word[rax + OfMembers::notes_count]);
    cmp(di, word[rax + OfMembers::notes_capacity]);
    jge(grows);
    mov(word[rax + rdi * 2 + OfMembers::first_note], dx);
    inc(word[rax + OfMembers::notes_count]);
    mov(word[rcx + OfMembers::top], dx);
    jmp(self.back);
    L(grows);
    mov(ptr[rbx + kHeld], rcx);
    mov(ptr[rbx + kHeld + 8], rdx);
    TellStack();
    mov(rdi, rcx);  // the hint is in rsi
    mov(rax, AddressOf(&NativeRun::SearchMember));
    call(rax);
    mov(rcx, ptr[rbx + kHeld]);
    mov(rdx, ptr[rbx + kHeld + 8]);
    jmp(self.back);
  });
  movsxd(rdx, dword[rsi + static_cast<int>(offsetof(MemberHint, slot))]);
  cmp(word[rcx + OfMembers::top], dx);
  jne(rare->label);
  L(rare->back);
  mov(rsi, Field(rcx, OfMembers::slots));
  lea(rsi, ptr[rsi + rdx * 8]);
  mov(rax, ptr[rsi]);
}

// rax <- the variable of the member whose name is the record's, which may be written to.
void NativeEmitter::FindMemberVariable() {
  FindMember(true);
  mov(byte[rcx + OfElements::isolated], 0);
  mov(rdx, rax);
  shr(rdx, 49);
  jnz(Leave());
}

// What was found is loaded into the record's temporary, or moved to its target.
void NativeEmitter::UseSlot(bool is_loaded) {
  Label is_integer;
  // It has a variable.
  Rare* rare = &AddRare(
      [this, record = op, is_loaded, &next = labels[at + 1], &unusual_goal = Leave()](Rare& self) {
        Label no_double, other;
        cmp(dword[rax + OfVariable::state], OfVariable::double_alone);
        jne(no_double);
        cmp(dword[rax + OfVariable::primary], PrimaryDouble);
        jne(other);
        movsd(xmm0, Field(rax, OfVariable::number));
        if (is_loaded) mov(qword[rbx + kTemporaries + record->third], 0);
        jmp(self.others[0]);
        L(no_double);
        cmp(dword[rax + OfVariable::state], OfVariable::integer_alone);
        jne(other);
        cmp(dword[rax + OfVariable::primary], PrimaryInteger);
        jne(other);
        mov(edx, dword[rax + OfVariable::integer]);
        jmp(self.others[1]);
        L(other);
        UseText(record, is_loaded, next);
        mov(ptr[rbx + kTop], rbp);
        mov(rdi, rbx);
        mov(rsi, reinterpret_cast<uint64_t>(record));
        mov(rdx, rax);
        mov(rax, is_loaded ? AddressOf(&NativeRun::LoadFrom) : AddressOf(&NativeRun::MoveFrom));
        call(rax);
        test(al, al);
        jz(unusual_goal);
        jmp(next);
      });
  mov(rdx, rax);
  shr(rdx, 49);
  jz(rare->label);
  cmp(edx, static_cast<int>(OfSlot::integer_tag >> 49));
  je(is_integer);
  sub(rax, Constant(OfSlot::double_offset));
  movq(xmm0, rax);
  L(rare->others[0]);
  if (is_loaded) {
    movsd(NumberAt(op->third), xmm0);
    mov(FormAt(op->third), kDoubleForm);
  } else {
    StoreNumber();
  }
  jmp(rare->back);
  L(is_integer);
  mov(edx, eax);
  L(rare->others[1]);
  if (is_loaded) {
    xorps(xmm0, xmm0);
    cvtsi2sd(xmm0, edx);
    movsd(NumberAt(op->third), xmm0);
    mov(FormAt(op->third), kIntegerForm);
    left_behind = op->third;
  } else {
    StoreInteger();
  }
  L(rare->back);
}

// The same for a short text of the variable in rax, after which the code goes on at done. Goes on
// here, with rax as it is, if it has none or that takes more.
void NativeEmitter::UseText(const HotOp* record, bool is_loaded, Label& done) {
  Label other;
  if (is_loaded) {
    if (record->load < HotLoad::NumberOrText) return;
    cmp(dword[rax + OfVariable::state], OfVariable::text_alone);
    jne(other);
    cmp(dword[rax + OfVariable::primary], PrimaryText);
    jne(other);
    mov(PlaceAt(record->third), rax);
    mov(FormAt(record->third), static_cast<int>(HotForm::AsLoaded));
    mov(rax, std::bit_cast<uint64_t>(std::numeric_limits<double>::quiet_NaN()));
    mov(NumberAt(record->third), rax);
  } else {
    mov(rcx, RowAt(record->into, record->third));
    test(rcx, rcx);
    jz(other);
    mov(rsi, rax);
    call(copy_word);
    mov(rax, rsi);
    jc(other);
  }
  jmp(done);
  L(other);
}

// A step of a loop over an array: the element at the position on top is stored in a variable.
void NativeEmitter::EachElement() {
  const HotOp& array = op[3];
  const auto count = static_cast<size_t>(op->second) + 5;
  const HotOp& pop = op[count - 1];
  SetFallback(&NativeRun::EachElement, count);
  NeedRoom();
  NeedEntries(1, ZephVM_Stack::KindDouble);
  LoadConstant(xmm0, op->number);
  addsd(xmm0, ptr[rbp - kEntry + kEntryValue]);
  cvttsd2si(edx, xmm0);
  cmp(edx, 1);
  jl(Leave());
  LoadRow(array.left, array.first);
  FindTree(AggregateArray);
  SearchSlot();
  LoadRow(pop.left, pop.first);
  Label is_integer;
  Rare* rare = &AddRare([this, &unusual = Leave()](Rare& self) {
    Label no_double, other;
    cmp(dword[rax + OfVariable::state], OfVariable::double_alone);
    jne(no_double);
    cmp(dword[rax + OfVariable::primary], PrimaryDouble);
    jne(unusual);
    movsd(xmm0, Field(rax, OfVariable::number));
    jmp(self.others[0]);
    L(no_double);
    cmp(dword[rax + OfVariable::state], OfVariable::integer_alone);
    jne(other);
    cmp(dword[rax + OfVariable::primary], PrimaryInteger);
    jne(unusual);
    mov(eax, dword[rax + OfVariable::integer]);
    jmp(self.others[1]);
    L(other);
    // An empty text has no value.
    cmp(dword[rax + OfVariable::length], 0);
    je(unusual);
    mov(rsi, rax);
    call(copy_word);
    jc(unusual);
    jmp(self.back);
  });
  mov(rdx, rax);
  shr(rdx, 49);
  jz(rare->label);
  cmp(edx, static_cast<int>(OfSlot::integer_tag >> 49));
  je(is_integer);
  mov(rdx, OfSlot::double_offset);
  sub(rax, rdx);
  movq(xmm0, rax);
  L(rare->others[0]);
  // A variable that gets a number alone has no elements, so it is not the array.
  NeedForm(OfVariable::double_alone);
  movsd(Field(rcx, OfVariable::number), xmm0);
  mov(dword[rcx + OfVariable::primary], PrimaryDouble);
  jmp(rare->back);
  L(is_integer);
  L(rare->others[1]);
  NeedForm(OfVariable::integer_alone);
  mov(dword[rcx + OfVariable::integer], eax);
  mov(dword[rcx + OfVariable::primary], PrimaryInteger);
  L(rare->back);
  LoadConstant(xmm0, op->number);
  addsd(xmm0, ptr[rbp - kEntry + kEntryValue]);
  movsd(ptr[rbp - kEntry + kEntryValue], xmm0);
  if (op->second > 6) WriteSource(op[5].first);
  const HotOp& line = op[op->second - 1];
  if (op->second > 5 && line.single == HotAction::Line) {
    mov(dword[r15 + OfMachine::current_line], line.first);
  }
  Continue(count);
}

// The variable in rcx gets that form alone; its number is stored next.
void NativeEmitter::NeedForm(int form) {
  Rare* const other = &AddRare([this, form, &unusual = Leave()](Rare& self) {
    MakeForm(form, unusual);
    jmp(self.back);
  });
  cmp(dword[rcx + OfVariable::state], form);
  jne(other->label);
  L(other->back);
}

// Stores an operand in the slot at rsi. A number is stored as such only if it is all of its value.
void NativeEmitter::WriteSlot(HotOperand kind, int offset) {
  Label as_integer, done;
  bool may_be_double = true, may_be_integer = true;
  if (kind <= HotOperand::Local) {
    mov(rcx, RowAt(kind, offset));
    test(rcx, rcx);
    jz(Leave());
    mov(edx, dword[rcx + OfVariable::state]);
    cmp(edx, OfVariable::integer_alone);
    mov(edx, dword[rcx + OfVariable::integer]);
    je(as_integer);
    cmp(dword[rcx + OfVariable::state], OfVariable::double_alone);
    jne(Leave());
    movsd(xmm0, Field(rcx, OfVariable::number));
  } else if (kind == HotOperand::Temporary) {
    movsd(xmm0, NumberAt(offset));
    if (op->form == HotForm::AsLoaded) {
      cvttsd2si(edx, xmm0);
      cmp(FormAt(offset), kIntegerForm);
      je(as_integer);
      cmp(FormAt(offset), kDoubleForm);
      jne(Leave());
    } else {
      may_be_double = op->form == HotForm::Double;
      may_be_integer = !may_be_double;
      if (may_be_integer) cvttsd2si(edx, xmm0);
    }
  } else {
    may_be_double = op->form == HotForm::Double;
    may_be_integer = !may_be_double;
    if (may_be_double) {
      mov(rdi, rax);
      LoadConstant(xmm0, op->number);
      mov(rax, rdi);
    } else {
      mov(edx, static_cast<int>(op->number));
    }
  }
  // rax is what the slot holds.
  if (may_be_double) {
    Label bare;
    mov(rdi, rax);
    shr(rdi, 49);
    jnz(bare);
    cmp(dword[rax + OfVariable::state], OfVariable::double_alone);
    jne(Leave());
    movsd(Field(rax, OfVariable::number), xmm0);
    mov(dword[rax + OfVariable::primary], PrimaryDouble);
    jmp(done);
    L(bare);
    ucomisd(xmm0, xmm0);
    jp(Leave());
    movq(rax, xmm0);
    mov(rdi, OfSlot::double_offset);
    add(rax, rdi);
    mov(ptr[rsi], rax);
    if (may_be_integer) jmp(done);
  }
  if (may_be_integer) {
    Label bare;
    L(as_integer);
    mov(rdi, rax);
    shr(rdi, 49);
    jnz(bare);
    cmp(dword[rax + OfVariable::state], OfVariable::integer_alone);
    jne(Leave());
    mov(dword[rax + OfVariable::integer], edx);
    mov(dword[rax + OfVariable::primary], PrimaryInteger);
    jmp(done);
    L(bare);
    mov(edx, edx);
    mov(rax, OfSlot::integer_tag);
    or_(rax, rdx);
    mov(ptr[rsi], rax);
  }
  L(done);
}

#endif
