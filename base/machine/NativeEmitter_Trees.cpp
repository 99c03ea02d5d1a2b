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
    Label longer;
    mov(rax, Field(rcx, OfVariable::reference));
    test(rax, rax);
    jz(unusual);
    test(dword[rax + OfVariable::state], OfVariable::not_plain);
    jnz(longer);
    mov(rcx, rax);
    jmp(self.back);
    L(longer);
    call(find_end);
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

// The same for the variable that is the record's left operand.
void NativeEmitter::LoadTree(KeptAs kind) {
  const int found = FindKept(kind, op->left, op->first);
  if (found >= 0) {
    movq(rcx, Xmm(found));
    return;
  }
  LoadVariable(rcx, op->left, op->first);
  FindTree(kind == KeptAs::Array ? AggregateArray : AggregateStructure);
  const int keeper = Keep(kind, op->left, op->first);
  if (keeper >= 0) movq(Xmm(keeper), rcx);
}

// rdx <- the place in the row of the element whose index is the record's right operand, rsi <- the
// row's slots, rax <- what the element's slot holds; this is a search.
void NativeEmitter::FindSlot() {
  LoadArray();
  SearchSlot(Leave());
}

// edx <- that index, rcx <- the array's elements.
void NativeEmitter::LoadArray() {
  LoadInteger(edx, op->right, op->second);
  if (op->right != HotOperand::Constant || op->second < 1) {
    cmp(edx, 1);
    jl(Leave());
  }
  LoadTree(KeptAs::Array);
}

// The same to write to it.
void NativeEmitter::LoadOwnArray() {
  LoadArray();
  cmp(byte[rcx + OfElements::shared], 0);
  jne(Leave());
}

// FindSlot() for the index in edx and the elements in rcx. Without such an element, goes to missing
// before anything is changed, with the index less that of the first element in edx.
void NativeEmitter::SearchSlot(Label& missing) {
  sub(edx, dword[rcx + OfElements::base]);
  cmp(edx, dword[rcx + OfElements::count]);
  jae(missing);
  // The element was not found last: see DenseElements::Touch().
  Rare* rare = &AddRare([this, saved = kept](Rare& self) {
    Label elsewhere;
    cmp(eax, dword[rcx + OfElements::expected]);
    jne(elsewhere);
    cmp(eax, dword[rcx + OfElements::goal]);
    je(elsewhere);
    mov(dword[rcx + OfElements::top], eax);
    add(eax, dword[rcx + OfElements::step]);
    mov(dword[rcx + OfElements::expected], eax);
    jmp(self.back);
    L(elsewhere);
    cmp(byte[rcx + OfElements::forgetful], 0);
    jne(self.back);
    mov(ptr[rbx + kHeld], rcx);
    mov(ptr[rbx + kHeld + 8], rdx);
    mov(ptr[rbx + kHeld + 16], r8);
    SaveKept(saved);
    TellStack();
    mov(rdi, rcx);
    mov(esi, edx);
    add(esi, dword[rcx + OfElements::base]);
    mov(rax, AddressOf(&NativeRun::Search));
    call(rax);
    mov(rcx, ptr[rbx + kHeld]);
    mov(rdx, ptr[rbx + kHeld + 8]);
    mov(r8, ptr[rbx + kHeld + 16]);
    RestoreKept(saved);
    jmp(self.back);
  });
  lea(eax, ptr[rdx + 1]);
  cmp(eax, dword[rcx + OfElements::top]);
  jne(rare->label);
  L(rare->back);
  mov(rsi, Field(rcx, OfElements::slots));
  mov(rax, ptr[rsi + rdx * 8]);
}

// rdx <- the place of the member whose name is the record's, rsi <- the slots of its structure, rax
// <- what the member's slot holds; this is a search.
void NativeEmitter::FindMember(bool to_write) {
  LoadTree(KeptAs::Structure);
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
  Rare* rare = &AddRare([this, saved = kept](Rare& self) {
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
    mov(ptr[rbx + kHeld + 16], r8);
    SaveKept(saved);
    TellStack();
    mov(rdi, rcx);  // the hint is in rsi
    mov(rax, AddressOf(&NativeRun::SearchMember));
    call(rax);
    mov(rcx, ptr[rbx + kHeld]);
    mov(rdx, ptr[rbx + kHeld + 8]);
    mov(r8, ptr[rbx + kHeld + 16]);
    RestoreKept(saved);
    jmp(self.back);
  });
  movsxd(rdx, dword[rsi + static_cast<int>(offsetof(MemberHint, slot))]);
  cmp(word[rcx + OfMembers::top], dx);
  jne(rare->label);
  L(rare->back);
  mov(rsi, Field(rcx, OfMembers::slots));
  mov(rax, ptr[rsi + rdx * 8]);
}

// rax <- the variable of the member whose name is the record's, which may be written to.
void NativeEmitter::FindMemberVariable() {
  FindMember(true);
  mov(byte[rcx + OfElements::isolated], 0);
  mov(rdx, rax);
  shr(rdx, 49);
  jnz(Leave());
}

// Whether the elements of the array that is read are integers, by its first one.
bool NativeEmitter::HoldsIntegers(HotOperand kind, int offset) const {
  const auto table = static_cast<size_t>(kind);
  if (kind > HotOperand::Local ||
      static_cast<size_t>(HotOp::PositionOf(offset)) >= run->counts[table]) {
    return false;
  }
  Variable* const variable = hot::Referred(hot::VariableIn(run->rows[table], offset));
  return variable && variable->IsPlain() && variable->HoldsArray() &&
         variable->plain_elements()->BeginsWithInteger();
}

// The number of the slot in rax, which is expected to be one or the other: xmm0 <- a double, edx <-
// an integer. Goes to has_variable, with rax as it is, if the slot has a variable.
void NativeEmitter::ReadSlot(bool is_integer, Label& as_double, Label& as_integer,
                             Label& has_variable) {
  if (is_integer) {
    Rare* other = &AddRare([this, &as_double, &has_variable](Rare&) {
      test(edx, edx);
      jz(has_variable);
      sub(rax, Constant(OfSlot::double_offset));
      movq(xmm0, rax);
      jmp(as_double);
    });
    mov(rdx, rax);
    shr(rdx, 49);
    cmp(edx, static_cast<int>(OfSlot::integer_tag >> 49));
    jne(other->label);
    mov(edx, eax);
    L(as_integer);
    return;
  }
  // What is left of an integer is NaN.
  Rare* other = &AddRare([this, &as_integer, &has_variable](Rare& self) {
    add(rax, Constant(OfSlot::double_offset));
    jmp(has_variable);
    L(self.others[0]);
    mov(edx, eax);
    jmp(as_integer);
  });
  sub(rax, Constant(OfSlot::double_offset));
  jb(other->label);
  movq(xmm0, rax);
  ucomisd(xmm0, xmm0);
  jp(other->others[0]);
  L(as_double);
}

// What was found is loaded into the record's temporary, or moved to its target.
void NativeEmitter::UseSlot(bool is_loaded) {
  const bool is_integer = HoldsIntegers(op->left, op->first);
  const auto use = [this, is_loaded](bool integer) {
    if (!is_loaded) {
      if (integer) return StoreInteger(false);
      return StoreNumber(false);
    }
    if (integer) {
      xorps(xmm0, xmm0);
      cvtsi2sd(xmm0, edx);
    }
    movsd(NumberAt(op->third), xmm0);
    // Of a number that is only calculated with, nothing asks for the form.
    if (op->load != HotLoad::Number) {
      mov(FormAt(op->third), integer ? kIntegerForm : kDoubleForm);
    }
  };
  Leave();
  Rare* rare = &AddRare([this, record = op, place = at, leaves = leave, before = kept,
                         keeps_now = keeps, may_be_kept = !is_loaded && KeepsNumbers(op->third),
                         is_loaded, is_integer, use, &next = labels[at + 1]](Rare& self) {
    op = record;
    at = place;
    leave = leaves;
    // The slot has a variable.
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
    UseText(record, is_loaded, may_be_kept ? next : self.back);
    mov(ptr[rbx + kTop], rbp);
    mov(rdi, rbx);
    mov(rsi, reinterpret_cast<uint64_t>(record));
    mov(rdx, rax);
    mov(rax, is_loaded ? AddressOf(&NativeRun::LoadFrom) : AddressOf(&NativeRun::MoveFrom));
    call(rax);
    test(al, al);
    jz(Leave());
    jmp(next);
    // The number is of the kind that was not expected.
    L(self.others[is_integer ? 0 : 1]);
    kept = before;
    keeps = keeps_now;
    use(!is_integer);
    kept = {};
    keeps = false;
    jmp(self.back);
  });
  ReadSlot(is_integer, rare->others[0], rare->others[1], rare->label);
  use(is_integer);
  L(rare->back);
  if (is_loaded) left_behind = op->third;
}

// The same for a short text of the variable in rax, after which the code goes on at done. Goes on
// here, with rax as it is, if it has none or that takes more.
void NativeEmitter::UseText(const HotOp* record, bool is_loaded, Label& done) {
  Label other;
  if (is_loaded) {
    if (record->load < HotLoad::NumberOrText) return;
    Label found;
    if (record->load == HotLoad::Any) {
      // One that has elements, or nothing.
      cmp(dword[rax + OfVariable::state], 0);
      je(found);
    }
    cmp(dword[rax + OfVariable::state], OfVariable::text_alone);
    jne(other);
    cmp(dword[rax + OfVariable::primary], PrimaryText);
    jne(other);
    L(found);
    mov(PlaceAt(record->third), rax);
    mov(FormAt(record->third), static_cast<int>(HotForm::AsLoaded));
    mov(rax, std::bit_cast<uint64_t>(std::numeric_limits<double>::quiet_NaN()));
    mov(NumberAt(record->third), rax);
    movq(xmm0, rax);
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
  SearchSlot(Leave());
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

// r8 <- an operand as a slot has it: a number, if that is all of its value. Otherwise goes to
// other, with its variable in r8.
void NativeEmitter::LoadSlot(HotOperand kind, int offset, Label& other) {
  const auto from_double = [this](const Xmm& number) {
    ucomisd(number, number);
    jp(Leave());
    movq(r8, number);
    add(r8, Constant(OfSlot::double_offset));
  };
  const auto tag_integer = [this] { or_(r8, Constant(OfSlot::integer_tag)); };
  if (kind == HotOperand::Constant && op->form == HotForm::Double) {
    LoadConstant(xmm2, op->number);
    return from_double(xmm2);
  }
  if (kind == HotOperand::Constant) {
    mov(r8, OfSlot::integer_tag | static_cast<uint32_t>(static_cast<int>(op->number)));
    return;
  }
  if (kind == HotOperand::Temporary) {
    const bool is_there = in_register[0] == offset;
    const auto load_integer = [this, is_there, offset] {
      if (is_there) {
        cvttsd2si(r8d, xmm0);
      } else {
        cvttsd2si(r8d, NumberAt(offset));
      }
    };
    if (op->form == HotForm::Integer) {
      load_integer();
      tag_integer();
      return;
    }
    if (op->form == HotForm::AsLoaded) {
      Rare* const no_double = &AddRare(
          [this, offset, load_integer, tag_integer, &other, &unusual = Leave()](Rare& self) {
            Label integer;
            cmp(FormAt(offset), kIntegerForm);
            je(integer);
            mov(r8, PlaceAt(offset));
            test(r8, r8);
            jnz(other);
            jmp(unusual);
            L(integer);
            load_integer();
            tag_integer();
            jmp(self.back);
          });
      cmp(FormAt(offset), kDoubleForm);
      jne(no_double->label);
      if (!is_there) movsd(xmm2, NumberAt(offset));
      from_double(is_there ? xmm0 : xmm2);
      L(no_double->back);
      return;
    }
    if (!is_there) movsd(xmm2, NumberAt(offset));
    return from_double(is_there ? xmm0 : xmm2);
  }
  LoadVariable(rcx, kind, offset);
  const auto load = [this, from_double, tag_integer](bool is_integer) {
    if (is_integer) {
      mov(r8d, dword[rcx + OfVariable::integer]);
      tag_integer();
    } else {
      movsd(xmm2, Field(rcx, OfVariable::number));
      from_double(xmm2);
    }
  };
  const auto state_of = [](bool is_integer) {
    return is_integer ? OfVariable::integer_alone : OfVariable::double_alone;
  };
  const bool is_integer = HoldsInteger(kind, offset);
  Leave();
  Rare* const unexpected =
      &AddRare([this, load, state_of, is_other = !is_integer, &other, leaves = leave](Rare& self) {
        Label number;
        leave = leaves;
        cmp(dword[rcx + OfVariable::state], state_of(is_other));
        je(number);
        mov(r8, rcx);
        jmp(other);
        L(number);
        load(is_other);
        jmp(self.back);
      });
  cmp(dword[rcx + OfVariable::state], state_of(is_integer));
  jne(unexpected->label);
  load(is_integer);
  L(unexpected->back);
}

// Stores the number in r8 in the slot that was found.
void NativeEmitter::WriteSlot() {
  Rare* const other =
      &AddRare([this, may_be_kept = KeepsNumbers(), &unusual = Leave()](Rare& self) {
        // The slot has a variable. If others hold it, registers may keep its number by another
        // name.
        Label as_integer;
        mov(rax, ptr[rsi + rdx * 8]);
        if (may_be_kept) {
          cmp(dword[rax + OfVariable::holders], 1);
          jne(unusual);
        }
        mov(rdi, r8);
        shr(rdi, 49);
        cmp(edi, static_cast<int>(OfSlot::integer_tag >> 49));
        je(as_integer);
        cmp(dword[rax + OfVariable::state], OfVariable::double_alone);
        jne(unusual);
        sub(r8, Constant(OfSlot::double_offset));
        mov(Field(rax, OfVariable::number), r8);
        mov(dword[rax + OfVariable::primary], PrimaryDouble);
        jmp(self.back);
        L(as_integer);
        cmp(dword[rax + OfVariable::state], OfVariable::integer_alone);
        jne(unusual);
        mov(dword[rax + OfVariable::integer], r8d);
        mov(dword[rax + OfVariable::primary], PrimaryInteger);
        jmp(self.back);
      });
  shr(rax, 49);
  jz(other->label);
  mov(ptr[rsi + rdx * 8], r8);
  L(other->back);
}

// A subroutine that adds the number in r8 to the row of the tree in rcx, as the element at the
// place in edx, if the row ends there, has room and is a falling chain, so that it takes no note:
// see DenseElements::Append(). Sets the carry, and does nothing, if that is not so. Changes rdx and
// rsi.
void NativeEmitter::EmitAppend() {
  Label fails;
  L(append);
  test(edx, edx);
  jz(fails);
  for (const int last : {OfElements::count, OfElements::top, OfElements::run_first}) {
    cmp(edx, dword[rcx + last]);
    jne(fails);
  }
  cmp(edx, dword[rcx + OfElements::capacity]);
  jge(fails);
  cmp(dword[rcx + OfElements::flags], OfElements::falling_alone);
  jne(fails);
  cmp(qword[rcx + OfElements::history], 0);
  jne(fails);
  mov(rsi, Field(rcx, OfElements::slots));
  mov(ptr[rsi + rdx * 8], r8);
  inc(edx);
  // A run of one rank expects none.
  for (const int last : {OfElements::count, OfElements::top, OfElements::run_first,
                         OfElements::chain_count, OfElements::entries}) {
    mov(dword[rcx + last], edx);
  }
  clc();
  ret();
  L(fails);
  stc();
  ret();
}

// Stores the record's operand in the element of the array that is its left one. After the last
// element, a number is added as another one.
void NativeEmitter::WriteElement() {
  Leave();
  Rare* const no_number = &AddRare([this, record = op, place = at, leaves = leave](Rare&) {
    op = record;
    at = place;
    leave = leaves;
    in_register[0] = in_register[1] = -1;
    LoadOwnArray();
    SearchSlot(Leave());
    mov(byte[rcx + OfElements::isolated], 0);
    mov(rdx, rax);
    shr(rdx, 49);
    jnz(Leave());
    mov(ptr[rbx + kTop], rbp);
    mov(rdi, rbx);
    mov(rsi, rax);
    mov(rdx, r8);
    mov(rcx, reinterpret_cast<uint64_t>(record));
    mov(rax, AddressOf(&NativeRun::StoreFrom));
    call(rax);
    test(al, al);
    jz(labels[place + 1]);
    jmp(ends);
  });
  LoadSlot(op->into, op->third, no_number->label);
  LoadOwnArray();
  Rare* const missing = &AddRare([this, &next = labels[at + 1], &unusual = Leave()](Rare& self) {
    call(append);
    jnc(self.back);
    TellStack();
    mov(rdi, rcx);
    mov(esi, edx);
    mov(rdx, r8);
    mov(rax, AddressOf(&NativeRun::Append));
    call(rax);
    test(al, al);
    jz(unusual);
    jmp(next);
  });
  SearchSlot(missing->label);
  WriteSlot();
  L(missing->back);
}

#endif
