// Machine code that compares and jumps, and that calls operations.

#include "base/machine/NativeEmitter.h"

#ifdef __x86_64__

#include <bit>
#include <cstddef>
#include <cstdint>

// Continues at another record.
void NativeEmitter::GoTo(const HotOp* goal) {
  if (IsAhead(goal)) {
    jmp(LabelOf(goal));
    return;
  }
  // The host's flags are polled at jumps back.
  dec(dword[rbx + kPatience]);
  jnz(LabelOf(goal));
  mov(rax, reinterpret_cast<uint64_t>(goal));
  jmp(exit);
}

void NativeEmitter::Continue(size_t count) {
  if (is_aside) {
    jmp(labels[at + count]);
  } else {
    passed = count - 1;
  }
}

// Continues at the machine code in rax.
void NativeEmitter::Continue() {
  mov(r13, ptr[rbx + kRows + 8]);
  mov(rbp, ptr[rbx + kTop]);
  test(rax, rax);
  jz(ends);
  jmp(rax);
}

// A jump to the goal if the order of xmm0 and xmm1 is one of these.
void NativeEmitter::JumpIf(unsigned char orders, bool may_be_text, const HotOp* goal) {
  // With NaN all flags are set. It counts as greater; what may be a text is looked at elsewhere.
  Label next;
  const bool is_equality = orders == 2 || orders == 5;
  if (is_equality) {
    ucomisd(xmm0, xmm1);
  } else {
    ucomisd(xmm1, xmm0);
  }
  if (may_be_text) jp(Leave());
  if (IsAhead(goal)) {
    Label& there = LabelOf(goal);
    switch (orders) {
      case 1: ja(there); break;
      case 3: jae(there); break;
      case 4: jb(there); break;
      case 6: jbe(there); break;
      case 2:
        if (!may_be_text) jp(next);
        je(there);
        break;
      default:
        if (!may_be_text) jp(there);
        jne(there);
    }
    L(next);
    return;
  }
  switch (orders) {
    case 1: jbe(next); break;
    case 3: jb(next); break;
    case 4: jae(next); break;
    case 6: ja(next); break;
    case 2:
      jne(next);
      if (!may_be_text) jp(next);
      break;
    default: {
      Label jumps;
      if (!may_be_text) jp(jumps);
      je(next);
      L(jumps);
    }
  }
  GoTo(goal);
  L(next);
}

// A jump to the goal if eax or edx, which was compared, has one of these orders to what it was
// compared with.
void NativeEmitter::JumpIfInteger(unsigned char orders, const HotOp* goal) {
  if (IsAhead(goal)) {
    Label& there = LabelOf(goal);
    switch (orders) {
      case 1: jl(there); break;
      case 2: je(there); break;
      case 3: jle(there); break;
      case 4: jg(there); break;
      case 5: jne(there); break;
      default: jge(there); break;
    }
    return;
  }
  Label next;
  switch (orders) {
    case 1: jge(next); break;
    case 2: jne(next); break;
    case 3: jg(next); break;
    case 4: jle(next); break;
    case 5: je(next); break;
    default: jl(next); break;
  }
  GoTo(goal);
  L(next);
}

// xmm0 <- 1 or 0: whether the order of xmm0 and xmm1 is one of these.
void NativeEmitter::Compare(unsigned char orders) {
  static constexpr uint8_t kPredicates[] = {0, 1, 0, 2, 6, 4, 5, 0};
  cmpsd(xmm0, xmm1, kPredicates[orders & 7]);
  andpd(xmm0, Constant(std::bit_cast<uint64_t>(1.0)));
}

void NativeEmitter::WriteSource(int file) {
  Label same;
  cmp(dword[r15 + OfMachine::source_file], file);
  je(same);
  mov(dword[r15 + OfMachine::traced_line], 0);
  mov(dword[r15 + OfMachine::source_file], file);
  mov(qword[r15 + OfMachine::source_name], 0);
  L(same);
}

// Before an operation that may allocate and does not do so itself. Changes rax.
void NativeEmitter::TellStack() {
  mov(rax, Field(r15, OfMachine::stack));
  mov(Field(rax, OfStack::top), rbp);
}

void NativeEmitter::CallWith(const void* operation) {
  mov(ptr[rbx + kTop], rbp);
  mov(rdi, rbx);
  mov(rsi, reinterpret_cast<uint64_t>(op));
  mov(rax, reinterpret_cast<uint64_t>(operation));
  call(rax);
}

// Lets an operation do the work of the record.
void NativeEmitter::Call(NativeRun::Operation operation) {
  CallWith(reinterpret_cast<const void*>(operation));
  mov(rbp, ptr[rbx + kTop]);
  test(al, al);
  jz(Leave());
}

// Lets an operation do it that goes on elsewhere, in another frame.
void NativeEmitter::Transfer(NativeRun::Transfer transfer) {
  CallWith(reinterpret_cast<const void*>(transfer));
  Continue();
}

// Lets an operation do the work of the record, and of those after it that belong to it.
void NativeEmitter::Do(NativeRun::Work work, size_t count) {
  CallWith(reinterpret_cast<const void*>(work));
  mov(rbp, ptr[rbx + kTop]);
  test(al, al);
  jnz(ends);
  Continue(count);
}

// eax <- 1 or 0: whether the comparison of the record holds.
void NativeEmitter::CallComparison(NativeRun::Comparison comparison) {
  CallWith(reinterpret_cast<const void*>(comparison));
  test(eax, eax);
  js(Leave());
}

// edx or a temporary <- 1 or 0, if a comparison was called or a text was searched for.
void NativeEmitter::StoreCompared(bool is_stored) {
  if (is_stored) {
    mov(edx, eax);
    StoreInteger();
  } else {
    xorps(xmm0, xmm0);
    cvtsi2sd(xmm0, eax);
    movsd(NumberAt(op->third), xmm0);
  }
}

#endif
