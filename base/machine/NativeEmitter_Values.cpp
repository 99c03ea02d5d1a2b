// Machine code for records that operations in C++ do most of.

#include "base/core/NumberText.h"
#include "base/machine/NativeEmitter.h"

#ifdef __x86_64__

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace {

// The longest constant text that is compared or copied in line.
constexpr int kLongestWord = 64;

// The longest text of a variable that is copied in line.
constexpr int kLongestCopy = 256;

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
      if (op->create && op[1].action == HotAction::Store) {
        SetFallback(Fallback::Work,
                    reinterpret_cast<const void*>(&NativeRun::Do<&NativeRun::StoreInMember, 2>), 2);
      } else {
        SetFallback<&NativeRun::PushMember>();
      }
      NeedRoom();
      FindMemberVariable();
      PushHeld(rax);
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
    case HotAction::OutText: OutText(); return true;
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
    case HotAction::JoinPush:
    case HotAction::JoinReturn: EmitJoin(); return true;
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
    call(real);
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

// Gives a parameter, which is as a new call needs it, the text of an argument, if its buffer has
// the room; goes on at done then.
void NativeEmitter::SendWord(const HotOp* record, Label& done) {
  Label other, found;
  const auto parameter = [this, record, &other] {
    mov(rcx, ptr[r14 + record->third]);
    test(rcx, rcx);
    jz(other);
  };
  if (record->refer) return;
  if (record->left == HotOperand::Temporary) {
    if (record->form != HotForm::AsLoaded) return;
    cmp(FormAt(record->first), static_cast<int>(HotForm::AsLoaded));
    jne(other);
    mov(rsi, PlaceAt(record->first));
    test(rsi, rsi);
    jz(other);
  } else if (record->left <= HotOperand::Local) {
    mov(rcx, RowAt(record->left, record->first));
    test(rcx, rcx);
    jz(other);
    cmp(dword[rcx + OfVariable::state], OfVariable::reference_alone);
    jne(found);
    call(real);
    jc(other);
    L(found);
    mov(rsi, rcx);
  } else {
    return;
  }
  parameter();
  call(copy_word);
  jnc(done);
  L(other);
}

// A concatenation of texts and integers.
void NativeEmitter::EmitJoin() {
  const auto count = static_cast<size_t>(op->second) + 1;
  const HotOp* operand = op + 1;
  const HotOp* const end = op + count;
  const void* joined;
  if (op->action == HotAction::JoinReturn) {
    SetFallback(Fallback::Result, reinterpret_cast<const void*>(&NativeRun::JoinReturn), 1);
    joined = reinterpret_cast<const void*>(&NativeRun::ReturnJoined);
  } else {
    const bool is_stored = op->action == HotAction::JoinTo;
    const void* const whole = is_stored ? reinterpret_cast<const void*>(&NativeRun::DoJoinTo)
                                        : reinterpret_cast<const void*>(&NativeRun::DoJoinPush);
    SetFallback(Fallback::Work, whole, count);
    joined = is_stored ? reinterpret_cast<const void*>(&NativeRun::StoreJoined)
                       : reinterpret_cast<const void*>(&NativeRun::PushJoined);
    // The others are appended to the first one.
    if (is_stored && operand->left == op->into && operand->first == op->third) operand++;
  }
  if (!std::all_of(operand, end, [](const HotOp& part) { return CanJoin(&part); })) {
    jmp(Leave());
    return;
  }
  if (op->action == HotAction::JoinPush) NeedRoom();
  lea(rdx, ptr[rbx + kJoined]);
  for (; operand != end; operand++) Join(operand);
  sub(rdx, rbx);
  sub(edx, kJoined);
  CallWith(joined);
  mov(rbp, ptr[rbx + kTop]);
  test(al, al);
  jz(Leave());
  if (op->action == HotAction::JoinReturn) {
    jmp(left);
  } else {
    Continue(count);
  }
}

// Whether an operand of a concatenation may be a text or integer that is put together in line.
bool NativeEmitter::CanJoin(const HotOp* operand) {
  switch (operand->left) {
    case HotOperand::Text: return operand->length <= kLongestWord;
    case HotOperand::Constant: return operand->form == HotForm::Integer;
    case HotOperand::Global:
    case HotOperand::Local:
    case HotOperand::Temporary: return true;
    default: return false;
  }
}

// Appends the text of an operand at rdx.
void NativeEmitter::Join(const HotOp* operand) {
  const auto need_room = [this](int bytes) {
    lea(rax, ptr[rbx + kJoined + hot::kMostJoinedBytes - bytes]);
    cmp(rdx, rax);
    ja(Leave());
  };
  const auto append_constant = [this, need_room](const char* text, int length) {
    if (length == 0) return;
    need_room(length);
    CopyConstant(rdx, text, length);
    add(rdx, length);
  };
  if (operand->left == HotOperand::Text) return append_constant(operand->text, operand->length);
  if (operand->left == HotOperand::Constant) {
    char digits[kLongestInteger];
    return append_constant(digits, static_cast<int>(WriteInteger(digits, operand->first) - digits));
  }
  if (operand->left <= HotOperand::Local) {
    LoadVariable(rcx, operand->left, operand->first);
    call(append_text);
    jc(Leave());
    return;
  }
  Label as_integer, done;
  if (operand->form == HotForm::AsLoaded) {
    cmp(FormAt(operand->first), kIntegerForm);
    je(as_integer);
    cmp(FormAt(operand->first), static_cast<int>(HotForm::AsLoaded));
    jne(Leave());
    mov(rcx, PlaceAt(operand->first));
    test(rcx, rcx);
    jz(Leave());
    call(append_text);
    jc(Leave());
    jmp(done);
  }
  L(as_integer);
  if (operand->form == HotForm::Double) {
    // A whole number is written as an integer, but 0 may have a sign.
    movsd(xmm0, NumberAt(operand->first));
    cvttsd2si(eax, xmm0);
    xorps(xmm1, xmm1);
    cvtsi2sd(xmm1, eax);
    ucomisd(xmm0, xmm1);
    jp(Leave());
    jne(Leave());
    test(eax, eax);
    jz(Leave());
  } else {
    cvttsd2si(eax, NumberAt(operand->first));
  }
  call(append_integer);
  jc(Leave());
  L(done);
}

// Writes a constant text: in line if the output holds room open for it.
void NativeEmitter::OutText() {
  if (op->length < 1 || op->length > kLongestWord) {
    Do(&NativeRun::Do<&NativeRun::OutText, 2>, 2);
    return;
  }
  SetFallback(Fallback::Work, reinterpret_cast<const void*>(&NativeRun::Do<&NativeRun::OutText, 2>),
              2);
  NeedRoom();
  mov(rax, Field(r15, OfMachine::application));
  mov(rax, Field(rax, OfMachine::current_output));
  test(rax, rax);
  jz(Leave());
  mov(rcx, Field(rax, OfOutput::room));
  lea(rdx, ptr[rcx + op->length]);
  cmp(rdx, Field(rax, OfOutput::room_end));
  ja(Leave());
  CopyConstant(rcx, op->text, op->length);
  mov(Field(rax, OfOutput::room), rdx);
  Continue(2);
}

// Copies a constant text of 1 to kLongestWord bytes, without a NUL. Changes rdi and xmm0.
void NativeEmitter::CopyConstant(const Reg64& to, const char* text, int length) {
  const auto bytes = [text](int from, auto part) {
    memcpy(&part, text + from, sizeof part);
    return part;
  };
  if (length > 16) mov(rdi, reinterpret_cast<uint64_t>(text));
  for (int from = 0; from < length;) {
    const int rest = length - from;
    if (length > 16) {
      from = std::min(from, length - 16);
      movups(xmm0, ptr[rdi + from]);
      movups(ptr[to + from], xmm0);
      from += 16;
    } else if (length >= 8) {
      from = std::min(from, length - 8);
      mov(rdi, bytes(from, uint64_t{}));
      mov(ptr[to + from], rdi);
      from += 8;
    } else if (length >= 4) {
      from = std::min(from, length - 4);
      mov(dword[to + from], bytes(from, uint32_t{}));
      from += 4;
    } else if (rest >= 2) {
      mov(word[to + from], bytes(from, uint16_t{}));
      from += 2;
    } else {
      mov(byte[to + from], bytes(from, uint8_t{}));
      from++;
    }
  }
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
// finds that they are no numbers. The code at the result's back, if there is a result, is what the
// record's usual code goes on with. REQUIRES: a fallback that compares; nothing has asked for
// Leave() so far.
NativeEmitter::Rare* NativeEmitter::TryWords(HotOperand left, int first, HotOperand right,
                                             int second, unsigned char orders) {
  const auto may_be_text = [](HotOperand kind) {
    return kind <= HotOperand::Local || kind == HotOperand::Place;
  };
  if ((orders != 2 && orders != 5) || op->word || !may_be_text(left) || !may_be_text(right)) {
    return nullptr;
  }
  // What a record has read of variables is kept only where its code comes that far.
  const bool is_direct = left == HotOperand::Place && right == HotOperand::Place;
  leave = &AddRare([=, this, record = op, place = at, kind = fallback, count = fallback_count,
                    function = fallback_function, goal = fallback_goal](Rare& self) {
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
      Label& next = is_direct ? self.back : labels[at + count];
      test(eax, eax);
      if (orders == 2) {
        jz(next);
      } else {
        jnz(next);
      }
      GoTo(goal);
    }
  });
  return leave;
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
  call(real);
  jc(Leave());
  L(found);
  mov(variable, rcx);
}

// Copies the edi bytes at r8 to another address, or to the same one. Changes rax, r8, r10 and r11.
void NativeEmitter::CopyText(const Reg64& to) {
  Label next, below_8, below_4, done;
  cmp(edi, 8);
  jb(below_8);
  lea(r11, ptr[rdi - 8]);
  L(next);
  mov(rax, ptr[r8 + r11]);
  mov(ptr[to + r11], rax);
  sub(r11, 8);
  jg(next);
  mov(rax, ptr[r8]);
  mov(ptr[to], rax);
  jmp(done);
  L(below_8);
  cmp(edi, 4);
  jb(below_4);
  mov(eax, dword[r8]);
  mov(r10d, dword[r8 + rdi - 4]);
  mov(dword[to], eax);
  mov(dword[to + rdi - 4], r10d);
  jmp(done);
  L(below_4);
  test(edi, edi);
  jz(done);
  mov(r11d, edi);
  shr(r11d, 1);
  movzx(eax, byte[r8]);
  movzx(r10d, byte[r8 + r11]);
  movzx(r8d, byte[r8 + rdi - 1]);
  mov(byte[to], al);
  mov(byte[to + r11], r10b);
  mov(byte[to + rdi - 1], r8b);
  L(done);
}

// Subroutines for short texts. They set the carry, and change nothing, if that takes more.
void NativeEmitter::EmitTextSubroutines() {
  {
    // The plain scalar in rcx gets the text of the variable in rsi, which may be the same one: see
    // Variable::CopyWord(), which takes shorter ones. Changes rax, rdi and r8 to r11.
    Label fails;
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
    cmp(edi, kLongestCopy);
    ja(fails);
    cmp(edi, dword[rcx + OfVariable::allocated]);
    jge(fails);
    mov(r8, Field(rsi, OfVariable::text));
    test(r8, r8);
    jz(fails);
    mov(r9, Field(rcx, OfVariable::text));
    CopyText(r9);
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
  {
    // rcx <- the end of the chain of the reference in rcx. As `follow`, from the usual code.
    L(real);
    call(follow);
    ret();
  }
  {
    // The text of the variable in rcx, or its integer, is appended at rdx. Changes rax, rcx, rdi
    // and r8 to r11.
    Label retry, no_text, fails;
    L(append_text);
    L(retry);
    cmp(dword[rcx + OfVariable::state], OfVariable::text_alone);
    jne(no_text);
    cmp(dword[rcx + OfVariable::primary], PrimaryText);
    jne(fails);
    mov(edi, dword[rcx + OfVariable::length]);
    mov(r8, Field(rcx, OfVariable::text));
    cmp(edi, kLongestCopy);
    ja(fails);
    lea(r9, ptr[rdx + rdi]);
    lea(rax, ptr[rbx + kJoined + hot::kMostJoinedBytes]);
    cmp(r9, rax);
    ja(fails);
    CopyText(rdx);
    mov(rdx, r9);
    clc();
    ret();
    L(no_text);
    mov(eax, dword[rcx + OfVariable::integer]);
    cmp(dword[rcx + OfVariable::state], OfVariable::integer_alone);
    je(append_integer);
    cmp(dword[rcx + OfVariable::state], OfVariable::reference_alone);
    jne(fails);
    call(follow);
    jnc(retry);
    L(fails);
    stc();
    ret();
  }
  {
    // The same for the integer in eax.
    Label one_digit, three_digits, large, low, fails;
    L(append_integer);
    lea(r8, ptr[rbx + kJoined + hot::kMostJoinedBytes - kLongestInteger]);
    cmp(rdx, r8);
    ja(fails);
    mov(r8, reinterpret_cast<uint64_t>(kDigitPairs.text));
    cmp(eax, 10);
    jb(one_digit);
    cmp(eax, 100);
    jb(low);
    cmp(eax, 10000);
    jae(large);
    imul(edi, eax, 5243);  // edi <- eax / 100
    shr(edi, 19);
    imul(ecx, edi, 100);
    sub(eax, ecx);
    cmp(edi, 10);
    jb(three_digits);
    movzx(ecx, word[r8 + rdi * 2]);
    mov(word[rdx], cx);
    add(rdx, 2);
    L(low);
    movzx(eax, word[r8 + rax * 2]);
    mov(word[rdx], ax);
    add(rdx, 2);
    clc();
    ret();
    L(three_digits);
    add(edi, '0');
    mov(byte[rdx], dil);
    inc(rdx);
    jmp(low);
    L(one_digit);
    add(eax, '0');
    mov(byte[rdx], al);
    inc(rdx);
    clc();
    ret();
    L(large);
    call(write_integer);
    clc();
    ret();
    L(fails);
    stc();
    ret();
    // A step away from the usual code, as `follow` is, so that the stack is as C++ code needs it.
    L(write_integer);
    mov(rdi, rdx);
    mov(esi, eax);
    mov(rax, AddressOf(&WriteInteger));
    call(rax);
    mov(rdx, rax);
    ret();
  }
}

#endif
