// Machine code for records that operations in C++ do most of.

#include "base/machine/NativeEmitter.h"

#ifdef __x86_64__

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

// The longest constant text that is compared in line.
constexpr int kLongestWord = 64;

}  // namespace

// The records for texts, and for what is found or stored by an operation. Returns false for others.
bool NativeEmitter::EmitValues() {
  const HotAction action = op->action;
  const bool is_equality = op->orders == 2 || op->orders == 5;
  switch (action) {
    case HotAction::JumpIfText: {
      SetFallback(&NativeRun::Compare<&NativeRun::OrderOfText>, op[1].target, 2);
      if (!is_equality || op->length > kLongestWord) {
        jmp(Leave());
        return true;
      }
      Label next;
      Label& differs = CompareWord();
      if (op->orders == 2) {
        GoTo(op[1].target);
        L(differs);
      } else {
        jmp(next);
        L(differs);
        GoTo(op[1].target);
        L(next);
      }
      Continue(2);
      return true;
    }
    case HotAction::CompareTextOf:
    case HotAction::CompareTextTo:
      if (is_equality && op->length <= kLongestWord) {
        const bool is_stored = action == HotAction::CompareTextTo;
        Label compared;
        SetFallback(&NativeRun::Compare<&NativeRun::OrderOfText>, is_stored);
        Label& differs = CompareWord();
        mov(eax, static_cast<int>(op->orders == 2));
        jmp(compared);
        L(differs);
        mov(eax, static_cast<int>(op->orders != 2));
        L(compared);
        StoreCompared(is_stored);
        return true;
      }
      CallComparison(&NativeRun::Compare<&NativeRun::OrderOfText>);
      StoreCompared(action == HotAction::CompareTextTo);
      return true;
    case HotAction::CompareLoadedOf:
    case HotAction::CompareLoadedTo:
      CallComparison(&NativeRun::Compare<&NativeRun::OrderOfLoaded>);
      StoreCompared(action == HotAction::CompareLoadedTo);
      return true;
    case HotAction::MatchOf:
    case HotAction::MatchTo:
      CallComparison(&NativeRun::Match);
      StoreCompared(action == HotAction::MatchTo);
      return true;
    case HotAction::LoadElement: Do(&NativeRun::Do<&NativeRun::LoadElement>); return true;
    case HotAction::FindElement: Do(&NativeRun::Do<&NativeRun::FindElement>); return true;
    case HotAction::FindMember:
      SetFallback<&NativeRun::FindMember>();
      FindMemberVariable();
      mov(PlaceAt(op->third), rax);
      return true;
    case HotAction::MoveElement: Do(&NativeRun::Do<&NativeRun::MoveElement>); return true;
    case HotAction::StoreElement: Do(&NativeRun::Do<&NativeRun::StoreElement>); return true;
    case HotAction::PushElement: Do(&NativeRun::Do<&NativeRun::PushElement>); return true;
    case HotAction::PushMember:
      SetFallback<&NativeRun::PushMember>();
      NeedRoom();
      FindMemberVariable();
      inc(dword[rax + OfVariable::holders]);
      mov(ptr[rbp + kEntryValue], rax);
      SetEntry(0, kVariableHead, kDoubleLengths);
      add(rbp, kEntry);
      return true;
    case HotAction::Element:
    case HotAction::ElementReadOnly: Do(&NativeRun::Do<&NativeRun::Element>); return true;
    case HotAction::Member:
    case HotAction::MemberReadOnly: Do(&NativeRun::Do<&NativeRun::Member>); return true;
    case HotAction::Store: Do(&NativeRun::Do<&NativeRun::StoreOnStack>); return true;
    case HotAction::Concatenate: Do(&NativeRun::Do<&NativeRun::Concatenate>); return true;
    case HotAction::ConcatenateText:
      Do(&NativeRun::Do<&NativeRun::ConcatenateText, 2>, 2);
      return true;
    case HotAction::ConcatenateVariable:
      Do(&NativeRun::Do<&NativeRun::ConcatenateVariable, 2>, 2);
      return true;
    case HotAction::ConcatenateTextVariable:
      Do(&NativeRun::Do<&NativeRun::ConcatenateTextVariable, 3>, 3);
      return true;
    case HotAction::ConcatenateVariableText:
      Do(&NativeRun::Do<&NativeRun::ConcatenateVariableText, 3>, 3);
      return true;
    case HotAction::OutText: Do(&NativeRun::Do<&NativeRun::OutText, 2>, 2); return true;
    case HotAction::OutVariable: Do(&NativeRun::Do<&NativeRun::OutVariable, 2>, 2); return true;
    case HotAction::OutRounded: Do(&NativeRun::Do<&NativeRun::OutRounded, 3>, 3); return true;
    case HotAction::OutVariableRounded:
      Do(&NativeRun::Do<&NativeRun::OutVariableRounded, 4>, 4);
      return true;
    case HotAction::Handler:
      CallWith(reinterpret_cast<const void*>(&NativeRun::Handler));
      mov(r12, ptr[rbx + kRows]);
      mov(r13, ptr[rbx + kRows + 8]);
      mov(rbp, ptr[rbx + kTop]);
      test(al, al);
      jnz(ends);
      return true;
    case HotAction::JoinTo:
      Do(&NativeRun::DoJoinTo, static_cast<size_t>(op->second) + 1);
      return true;
    case HotAction::JoinPush:
      Do(&NativeRun::DoJoinPush, static_cast<size_t>(op->second) + 1);
      return true;
    default: return false;
  }
}

// Whether the left operand, a variable, has the text of the record: goes on here if so, and at the
// result's place if not. Others than short texts that are no numbers, and integers, which are no
// words, are left to the fallback.
NativeEmitter::Label& NativeEmitter::CompareWord() {
  LoadVariable(rcx, op->left, op->first);
  Rare* const other = &AddRare([this, word = op->word, &unusual = Leave()](Rare& self) {
    Label no_reference;
    cmp(dword[rcx + OfVariable::state], OfVariable::reference_alone);
    jne(no_reference);
    call(follow);
    jc(unusual);
    jmp(self.back);
    L(no_reference);
    if (word) {
      mov(eax, dword[rcx + OfVariable::state]);
      or_(eax, OfVariable::double_alone);
      cmp(eax, OfVariable::both_numbers);
      jne(unusual);
      cmp(dword[rcx + OfVariable::primary], PrimaryInteger);
      je(self.others[0]);
    }
    jmp(unusual);
  });
  Rare* const mark = &AddRare([this, &unusual = Leave()](Rare& self) {
    NeedLetter(esi, unusual);
    jmp(self.back);
  });
  Label& differs = other->others[0];
  L(other->back);
  cmp(dword[rcx + OfVariable::state], OfVariable::text_alone);
  jne(other->label);
  cmp(dword[rcx + OfVariable::primary], PrimaryText);
  jne(Leave());
  mov(esi, dword[rcx + OfVariable::length]);
  mov(rdx, Field(rcx, OfVariable::text));
  lea(eax, ptr[rsi - 1]);
  cmp(eax, hot::kShort);
  jae(Leave());
  movzx(eax, byte[rdx]);
  mov(rdi, reinterpret_cast<uint64_t>(hot::kWords.begins));
  cmp(byte[rdi + rax], 0);
  je(mark->label);
  L(mark->back);
  cmp(esi, op->length);
  jne(differs);
  const auto bytes = [this](int from, auto* part) { memcpy(part, op->text + from, sizeof *part); };
  const int length = op->length;
  for (int from = 0; from < length;) {
    const int rest = length - from;
    if (rest >= 8 || (rest > 4 && length >= 8)) {
      uint64_t part;
      from = std::min(from, length - 8);
      bytes(from, &part);
      mov(rax, part);
      cmp(ptr[rdx + from], rax);
      from += 8;
    } else if (rest >= 4 || (rest > 2 && length >= 4)) {
      uint32_t part;
      from = std::min(from, length - 4);
      bytes(from, &part);
      cmp(dword[rdx + from], part);
      from += 4;
    } else {
      cmp(byte[rdx + from], static_cast<unsigned char>(op->text[from]));
      from++;
    }
    jne(differs);
  }
  return differs;
}

// A text of that length which begins with the byte in eax, as numbers do, is none only if it is
// this byte alone and no digit. Changes rdi.
void NativeEmitter::NeedLetter(const Reg32& length, Label& unusual) {
  cmp(length, 1);
  jne(unusual);
  mov(rdi, reinterpret_cast<uint64_t>(hot::kWords.alone));
  cmp(byte[rdi + rax], 0);
  je(unusual);
}

// Lets texts be compared before the record's fallback is called, where a comparison of two operands
// finds that they are no numbers. REQUIRES: a fallback that compares; nothing has asked for Leave()
// so far.
void NativeEmitter::TryWords(HotOperand left, int first, HotOperand right, int second,
                             unsigned char orders) {
  const auto may_be_text = [](HotOperand kind) {
    return kind <= HotOperand::Local || kind == HotOperand::Place;
  };
  if ((orders != 2 && orders != 5) || op->word || !may_be_text(left) || !may_be_text(right)) return;
  leave = &AddRare([=, this, record = op, place = at, kind = fallback, count = fallback_count,
                    function = fallback_function, goal = fallback_goal](Rare&) {
    at = place;
    op = record;
    leave = nullptr;
    SetFallback(kind, function, count);
    fallback_goal = goal;
    LoadText(rsi, left, first);
    LoadText(rdi, right, second);
    call(same_words);
    jc(Leave());
    if (kind == Fallback::Truth) {
      if (orders == 5) xor_(eax, 1);
      Label& next = labels[at + count];
      StoreCompared(goal != nullptr);
      jmp(next);
    } else {
      test(eax, eax);
      if (orders == 2) {
        jz(labels[at + count]);
      } else {
        jnz(labels[at + count]);
      }
      GoTo(goal);
    }
  });
}

// The variable of an operand that may be a text. Changes rax, rcx and rdi.
void NativeEmitter::LoadText(const Reg64& variable, HotOperand kind, int offset) {
  if (kind == HotOperand::Place) {
    // Of what was loaded as a number, the variable has no meaning.
    movsd(xmm0, NumberAt(offset));
    ucomisd(xmm0, xmm0);
    jnp(Leave());
    mov(variable, PlaceAt(offset));
    test(variable, variable);
    jz(Leave());
    return;
  }
  Label found;
  LoadVariable(rcx, kind, offset);
  cmp(dword[rcx + OfVariable::state], OfVariable::reference_alone);
  jne(found);
  call(follow);
  jc(Leave());
  L(found);
  mov(variable, rcx);
}

// Subroutines for short texts. They set the carry, and change nothing, if that takes more.
void NativeEmitter::EmitTextSubroutines() {
  {
    // The plain scalar in rcx gets the text of up to 16 bytes of the variable in rsi, which may be
    // the same one: see Variable::CopyWord(). Changes rax, rdi and r8 to r11.
    Label below_8, below_4, done, fails;
    L(copy_word);
    cmp(dword[rsi + OfVariable::state], OfVariable::text_alone);
    jne(fails);
    cmp(dword[rsi + OfVariable::primary], PrimaryText);
    jne(fails);
    test(dword[rcx + OfVariable::state], ~(OfVariable::all_forms | OfVariable::asleep));
    jnz(fails);
    cmp(qword[rcx + OfVariable::elements], 0);
    jne(fails);
    mov(edi, dword[rsi + OfVariable::length]);
    cmp(edi, 16);
    ja(fails);
    cmp(edi, dword[rcx + OfVariable::allocated]);
    jge(fails);
    mov(r8, Field(rsi, OfVariable::text));
    test(r8, r8);
    jz(fails);
    mov(r9, Field(rcx, OfVariable::text));
    cmp(edi, 8);
    jb(below_8);
    mov(rax, ptr[r8]);
    mov(r10, ptr[r8 + rdi - 8]);
    mov(ptr[r9], rax);
    mov(ptr[r9 + rdi - 8], r10);
    jmp(done);
    L(below_8);
    cmp(edi, 4);
    jb(below_4);
    mov(eax, dword[r8]);
    mov(r10d, dword[r8 + rdi - 4]);
    mov(dword[r9], eax);
    mov(dword[r9 + rdi - 4], r10d);
    jmp(done);
    L(below_4);
    test(edi, edi);
    jz(done);
    mov(r11d, edi);
    shr(r11d, 1);
    movzx(eax, byte[r8]);
    movzx(r10d, byte[r8 + r11]);
    movzx(r8d, byte[r8 + rdi - 1]);
    mov(byte[r9], al);
    mov(byte[r9 + r11], r10b);
    mov(byte[r9 + rdi - 1], r8b);
    L(done);
    mov(byte[r9 + rdi], 0);
    mov(dword[rcx + OfVariable::length], edi);
    mov(dword[rcx + OfVariable::primary], PrimaryText);
    mov(dword[rcx + OfVariable::state], OfVariable::text_alone);
    clc();
    ret();
    L(fails);
    stc();
    ret();
  }
  {
    // eax <- 1 or 0: whether the variables in rsi and rdi have the same text, see
    // hot::OrderOfWords(). Changes rcx, rdx, rsi, rdi, r8 and r9.
    Label is_word, next, below_8, below_4, same, differs, fails;
    L(same_words);
    for (const Reg64& variable : {rsi, rdi}) {
      cmp(dword[variable + OfVariable::state], OfVariable::text_alone);
      jne(fails);
      cmp(dword[variable + OfVariable::primary], PrimaryText);
      jne(fails);
    }
    mov(ecx, dword[rsi + OfVariable::length]);
    mov(rdx, Field(rsi, OfVariable::text));
    lea(eax, ptr[rcx - 1]);
    cmp(eax, hot::kShort);
    jae(fails);
    mov(rsi, rdi);
    movzx(eax, byte[rdx]);
    mov(rdi, reinterpret_cast<uint64_t>(hot::kWords.begins));
    cmp(byte[rdi + rax], 0);
    jne(is_word);
    NeedLetter(ecx, fails);
    L(is_word);
    cmp(ecx, dword[rsi + OfVariable::length]);
    jne(differs);
    mov(rsi, Field(rsi, OfVariable::text));
    cmp(ecx, 8);
    jb(below_8);
    lea(r8, ptr[rcx - 8]);
    xor_(r9d, r9d);
    L(next);
    mov(rax, ptr[rdx + r9]);
    cmp(rax, ptr[rsi + r9]);
    jne(differs);
    add(r9, 8);
    cmp(r9, r8);
    jb(next);
    mov(rax, ptr[rdx + r8]);
    cmp(rax, ptr[rsi + r8]);
    jne(differs);
    jmp(same);
    L(below_8);
    cmp(ecx, 4);
    jb(below_4);
    mov(eax, dword[rdx]);
    cmp(eax, dword[rsi]);
    jne(differs);
    mov(eax, dword[rdx + rcx - 4]);
    cmp(eax, dword[rsi + rcx - 4]);
    jne(differs);
    jmp(same);
    L(below_4);
    cmp(al, byte[rsi]);
    jne(differs);
    cmp(ecx, 2);
    jb(same);
    movzx(eax, word[rdx + rcx - 2]);
    cmp(ax, word[rsi + rcx - 2]);
    jne(differs);
    L(same);
    mov(eax, 1);
    clc();
    ret();
    L(differs);
    xor_(eax, eax);  // clears the carry
    ret();
    L(fails);
    stc();
    ret();
  }
}

#endif
