// Tested in tests/base/machine/NativeCodeTest.cpp.
//
// The registers of machine code. All of them keep their values in calls of the operations of
// NativeRun; all others are free between two records, but see Emitter::TakeResult for a return.
//
//   rbx  the NativeRun            rbp  the end of the current stack's entries
//   r12  the rows of globals      r13  the rows of locals
//   r14  the rows of the parameters of the call that is prepared
//   r15  the machine
//
// The temporaries of a group are in the NativeRun, as they are for the loop.

#include "base/machine/NativeCompiler.h"

#include "base/compiled/HotCode.h"
#include "base/compiled/HotGroup.h"
#include "base/machine/NativeRun.h"

#ifdef __x86_64__

#define XBYAK_NO_EXCEPTION
#include <xbyak/xbyak.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "base/machine/NativeLayout.h"

// Of the runtime's unwinder: adds and removes descriptions of how to unwind code. The room is for
// its own notes, and lasts as long; it takes 6 words of it.
extern "C" void __register_frame_info(const void* frames, void* room);
extern "C" void* __deregister_frame_info(const void* frames);

namespace {

using Xbyak::Label;
using Xbyak::Reg32;
using Xbyak::Reg64;
using Xbyak::Xmm;
using OfElements = NativeLayout::OfElements;
using OfFrame = NativeLayout::OfFrame;
using OfMachine = NativeLayout::OfMachine;
using OfMembers = NativeLayout::OfMembers;
using OfSlot = NativeLayout::OfSlot;
using OfSegment = NativeLayout::OfSegment;
using OfStack = NativeLayout::OfStack;
using OfTable = NativeLayout::OfTable;
using OfVariable = NativeLayout::OfVariable;

constexpr int kDoubleForm = static_cast<int>(HotForm::Double);
constexpr int kIntegerForm = static_cast<int>(HotForm::Integer);
constexpr int kRows = offsetof(NativeRun, rows);
constexpr int kPatience = offsetof(NativeRun, patience);
constexpr int kTop = offsetof(NativeRun, top);
constexpr int kCounts = offsetof(NativeRun, counts);
constexpr long kEntry = sizeof(hot::Entry);
constexpr int kEntryValue = offsetof(hot::Entry, value);
constexpr int kEntryLengths = offsetof(hot::Entry, length);
constexpr int kEntryOwned = offsetof(hot::Entry, deletable);
constexpr uint64_t kIntegerLengths = 4 | uint64_t{4} << 32;
constexpr uint64_t kDoubleLengths = 8 | uint64_t{8} << 32;
constexpr int kCalledRows = offsetof(NativeRun, called_rows);
constexpr int kOp = offsetof(NativeRun, op);
constexpr int kHeld = offsetof(NativeRun, held);
constexpr int kTemporaries = offsetof(NativeRun, temporaries);
constexpr int kForms = kTemporaries + static_cast<int>(offsetof(hot::Temporaries, forms));

// The family of an action that has one member for each pair of operands, counted from the first
// family of its operation; -1 if it is of no such family.
int FamilyOf(HotAction action, HotAction first, int families) {
  const int pairs = static_cast<int>(HotAction::SubOfGlobalGlobal) -
                    static_cast<int>(HotAction::AddOfGlobalGlobal);
  const int distance = static_cast<int>(action) - static_cast<int>(first);
  return distance >= 0 && distance < families * pairs ? distance / pairs : -1;
}

// Whether the action is one of four, one for each kind of index.
bool IsAt(HotAction action, HotAction first) {
  const int distance = static_cast<int>(action) - static_cast<int>(first);
  return distance >= 0 && distance < 4;
}

template <typename Function>
uint64_t AddressOf(Function* function) {
  return reinterpret_cast<uint64_t>(function);
}

// The assembler goes on writing where it has got no memory, so that has to end the compilation.
class CodeMemory : public Xbyak::MmapAllocator {
 public:
  uint8_t* alloc(size_t size) override {
    uint8_t* const memory = MmapAllocator::alloc(size);
    if (!memory) throw std::bad_alloc();
    return memory;
  }
};

// A base that lives longer than the assembler.
struct HasCodeMemory {
  CodeMemory memory;
};

class Emitter : public NativeCode, private HasCodeMemory, private Xbyak::CodeGenerator {
 public:
  Emitter(const HotCode* hot, const NativeRun* current)
      : CodeGenerator(Xbyak::DEFAULT_MAX_CODE_SIZE, Xbyak::AutoGrow, &memory),
        code(hot),
        run(current),
        list(hot->FastList()),
        labels(list.size() + 1) {}

  ~Emitter() override {
    if (is_described) __deregister_frame_info(frames.data());
  }

  // Makes the code. Returns false if there is no memory that it could be in.
  bool Make();

 private:
  // What is tried where the usual code does not apply, by the type of the function.
  enum class Fallback { None, Operation, Work, Comparison, Truth, Transfer };

  // A piece of code that is seldom run. They come after all others, so that what is usual is in a
  // row.
  struct Rare {
    Label label;
    std::function<void(Rare&)> emit;
    Label back;
    Label others[2];  // other places in the usual code to go back to
  };

  bool Emit();
  void DescribeFrame();
  void EmitEntrance();
  void EmitRares();

  // The labels to go to from the usual code; made when first asked for.
  Label& Leave();
  Rare& AddRare(std::function<void(Rare&)> emit) {
    rares.push_back({{}, std::move(emit), {}, {}});
    return rares.back();
  }

  void SetFallback(Fallback kind, const void* function, size_t count) {
    fallback = kind;
    fallback_function = function;
    fallback_count = count;
  }
  void SetFallback(NativeRun::Operation operation, size_t count = 1) {
    SetFallback(Fallback::Operation, reinterpret_cast<const void*>(operation), count);
  }
  template <NativeRun::Effort effort>
  void SetFallback() {
    SetFallback(Fallback::Work, reinterpret_cast<const void*>(&NativeRun::Do<effort>), 1);
  }
  // A comparison that decides on a jump.
  void SetFallback(NativeRun::Comparison comparison, const HotOp* goal, size_t count = 1) {
    SetFallback(Fallback::Comparison, reinterpret_cast<const void*>(comparison), count);
    fallback_goal = goal;
  }
  // One whose outcome is stored in the record's temporary or, if there is a goal, in its target.
  void SetFallback(NativeRun::Comparison comparison, bool is_stored) {
    SetFallback(Fallback::Truth, reinterpret_cast<const void*>(comparison), 1);
    fallback_goal = is_stored ? op : nullptr;
  }
  void SetFallback(NativeRun::Transfer transfer) {
    SetFallback(Fallback::Transfer, reinterpret_cast<const void*>(transfer), 1);
  }

  // Where an operand is. REQUIRES: a row, a temporary or a place; for NumberAt a temporary.
  Xbyak::Address RowAt(HotOperand kind, int offset);
  Xbyak::Address NumberAt(int offset) {
    return ptr[rbx + kTemporaries + offset - HotOp::kVariableInRow];
  }
  Xbyak::Address PlaceAt(int offset) { return ptr[rbx + kTemporaries + offset]; }
  Xbyak::Address FormAt(int offset) { return byte[rbx + kForms + offset]; }
  Xbyak::Address Field(const Reg64& object, int distance) { return ptr[object + distance]; }

  void LoadConstant(const Xmm& number, double value);
  void LoadVariable(const Reg64& variable, HotOperand kind, int offset);
  void LoadNumber(const Xmm& number, HotOperand kind, int offset);
  bool HoldsInteger(HotOperand kind, int offset) const;
  void LoadInteger(const Reg32& integer, HotOperand kind, int offset);
  void StoreNumber();
  Rare* StoreInTarget(const void* operation, int form);
  void MakeForm(int form, Label& unusual);
  void StoreInteger();
  void SetTemporary(HotForm form);
  void Calculate(int operation);
  bool CalculateIntegers(HotAction action);
  void Compare(unsigned char orders);
  void JumpIf(unsigned char orders, bool may_be_text, const HotOp* goal);
  void GoTo(const HotOp* goal);
  void Continue(size_t count);
  void Continue();
  void Do(NativeRun::Work work, size_t count = 1);
  void CallComparison(NativeRun::Comparison comparison);
  void StoreCompared(bool is_stored);
  void CompareWord(Label& differs);
  bool EmitValues();
  void FindTree(int kind);
  void FindSlot(bool to_write);
  void FindMember(bool to_write);
  void UseSlot(bool is_loaded);
  void WriteSlot(HotOperand kind, int offset);
  void WriteSource(int file);
  void BeginCall();
  void Send();
  void SendNumber(HotForm form);
  void Call(NativeRun::Operation operation);
  void NeedEntries(int count, int kind);
  void NeedRoom();
  void SetEntry(int distance, uint64_t head, uint64_t lengths);
  void PushNumber(HotForm form);
  void LoadRow(HotOperand kind, int position);
  void JumpIfInteger(unsigned char orders, const HotOp* goal);
  bool EmitOnStack();
  bool EmitTruths(HotAction action);
  void TellStack();
  void CallWith(const void* operation);
  void Transfer(NativeRun::Transfer transfer);
  void Enter();
  void TakeResult();
  void UseSegment(const Reg64& used, int number);
  void EmitRenew();
  void EmitSubroutines();
  void Return(NativeRun::Transfer transfer, Label* slow);

  const HotCode* code;
  const NativeRun* run;  // only while the code is made
  const std::vector<HotOp>& list;
  std::vector<Label> labels;  // by record
  std::deque<Rare> rares;
  size_t at = 0;  // the record that is made
  const HotOp* op = nullptr;
  Rare* leave = nullptr;  // where the loop runs the record
  // What is tried before that. It does all the work of the record again, whatever was done.
  Fallback fallback = Fallback::None;
  const void* fallback_function = nullptr;
  size_t fallback_count = 1;  // the records that it does
  const HotOp* fallback_goal = nullptr;
  std::vector<uint8_t> frames;  // what the unwinder knows of the code
  void* frame_room[8] = {};
  bool is_described = false;
  Label exit;
  Label renew;  // see EmitRenew(), and for the others EmitSubroutines()
  Label find_number[2];
  Label find_integer;
  Label find_plain;
  Label follow;
  Label touch;
  Label ends;  // an operation has told where the loop goes on
};

bool Emitter::Make() {
  Xbyak::ClearError();
  setDefaultJmpNEAR(true);
  EmitEntrance();
  EmitRenew();
  EmitSubroutines();
  std::vector<bool> known(list.size());
  for (at = 0; at < list.size(); at++) {
    op = &list[at];
    leave = nullptr;
    fallback = Fallback::None;
    L(labels[at]);
    known[at] = Emit();
    if (!known[at]) jmp(Leave());
  }
  EmitRares();
  ready(PROTECT_RE);
  if (Xbyak::GetError() != Xbyak::ERR_NONE) return false;
  DescribeFrame();
  entrance = getCode();
  for (size_t i = 0; i < list.size(); i++) {
    list[i].native = known[i] ? labels[i].getAddress() : nullptr;
  }
  rares.clear();
  labels.clear();
  return true;
}

// An operation may run out of memory, and the exception passes through the code. Its frame is the
// same in all of it but the entrance: six registers, and 8 bytes to align it. This is the format of
// the section .eh_frame: a description that is common to all functions, that of the code, and the
// end, which is a length of 0.
void Emitter::DescribeFrame() {
  const auto add = [this](auto value) {
    const auto* const bytes = reinterpret_cast<const uint8_t*>(&value);
    frames.insert(frames.end(), bytes, bytes + sizeof value);
  };
  static constexpr uint8_t kCommon[] = {
      0,    0,    0,    0, 0,    0, 0,    0,  // length, which is set below; kind
      1,    'z',  'R',  0,                    // version, what there is: the encoding of addresses
      1,    0x78, 16,                         // units of code and of data (-8), return address
      1,    0,                                // plain addresses
      0x0c, 7,    64,                         // the frame begins at rsp + 64
      0x90, 1,    0x83, 2, 0x86, 3,           // return address, rbx, rbp, at units below that
      0x8c, 4,    0x8d, 5, 0x8e, 6, 0x8f, 7 /* r12 to r15 */};
  frames.assign(std::begin(kCommon), std::end(kCommon));
  while (frames.size() % 8 != 0) frames.push_back(0);
  frames[0] = static_cast<uint8_t>(frames.size() - 4);
  const auto begin = static_cast<uint32_t>(frames.size());
  add(uint32_t{4 + 8 + 8 + 8});  // length
  add(begin + 4);                // to the common description
  add(reinterpret_cast<uint64_t>(getCode()));
  add(static_cast<uint64_t>(getSize()));
  add(uint64_t{0});  // nothing else
  add(uint32_t{0});
  __register_frame_info(frames.data(), frame_room);
  is_described = true;
}

// The code begins with what the loop calls, a function of the run and of the address to begin at.
void Emitter::EmitEntrance() {
  for (const Reg64& saved : {rbx, rbp, r12, r13, r14, r15}) push(saved);
  sub(rsp, 8);
  mov(rbx, rdi);
  mov(r12, ptr[rbx + kRows]);
  mov(r13, ptr[rbx + kRows + 8]);
  mov(r14, ptr[rbx + kCalledRows]);
  mov(r15, ptr[rbx + static_cast<int>(offsetof(NativeRun, vm))]);
  mov(rbp, ptr[rbx + kTop]);
  jmp(rsi);
  L(ends);
  mov(rax, ptr[rbx + kOp]);
  L(exit);
  mov(ptr[rbx + kTop], rbp);
  mov(ptr[rbx + kCalledRows], r14);
  add(rsp, 8);
  for (const Reg64& saved : {r15, r14, r13, r12, rbp, rbx}) pop(saved);
  ret();
}

// A subroutine that makes the variables of the called frame, in rcx, ready for the next call. On
// return edi is 0 if that takes more than the usual. Changes rax, rdi, r8 and r11.
void Emitter::EmitRenew() {
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

void Emitter::EmitRares() {
  // One may add others.
  for (size_t i = 0; i < rares.size(); i++) {
    L(rares[i].label);
    rares[i].emit(rares[i]);
  }
}

Label& Emitter::Leave() {
  if (!leave) {
    leave = &AddRare([this, record = op, place = at, next = at + fallback_count, kind = fallback,
                      function = fallback_function, goal = fallback_goal](Rare&) {
      at = place;
      op = record;
      if (kind != Fallback::None) CallWith(function);
      switch (kind) {
        case Fallback::None: break;
        case Fallback::Operation:
          mov(rbp, ptr[rbx + kTop]);
          test(al, al);
          jnz(labels[next]);
          break;
        case Fallback::Work:
          mov(rbp, ptr[rbx + kTop]);
          test(al, al);
          jz(labels[next]);
          jmp(ends);
          return;
        case Fallback::Comparison: {
          Label unknown;
          test(eax, eax);
          jz(labels[next]);
          js(unknown);
          GoTo(goal);
          L(unknown);
          break;
        }
        case Fallback::Truth:
          // The outcome may have to be stored by the loop.
          leave = nullptr;
          fallback = Fallback::None;
          test(eax, eax);
          js(Leave());
          StoreCompared(goal != nullptr);
          jmp(labels[next]);
          return;
        case Fallback::Transfer: Continue(); return;
      }
      mov(rax, reinterpret_cast<uint64_t>(record));
      jmp(exit);
    });
  }
  return leave->label;
}

Xbyak::Address Emitter::RowAt(HotOperand kind, int offset) {
  if (kind == HotOperand::Global) return ptr[r12 + offset];
  if (kind == HotOperand::Local) return ptr[r13 + offset];
  return PlaceAt(offset);
}

void Emitter::LoadConstant(const Xmm& number, double value) {
  if (std::bit_cast<uint64_t>(value) == 0) {
    xorps(number, number);
    return;
  }
  mov(rax, std::bit_cast<uint64_t>(value));
  movq(number, rax);
}

// A variable that is there.
void Emitter::LoadVariable(const Reg64& variable, HotOperand kind, int offset) {
  mov(variable, RowAt(kind, offset));
  test(variable, variable);
  jz(Leave());
}

void Emitter::LoadNumber(const Xmm& number, HotOperand kind, int offset) {
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
bool Emitter::HoldsInteger(HotOperand kind, int offset) const {
  const auto table = static_cast<size_t>(kind);
  if (kind > HotOperand::Local ||
      static_cast<unsigned>(HotOp::PositionOf(offset)) >= run->counts[table]) {
    return false;
  }
  const Variable* const variable = hot::VariableIn(run->rows[table], offset);
  return variable && variable->HoldsInteger();
}

void Emitter::LoadInteger(const Reg32& integer, HotOperand kind, int offset) {
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
void Emitter::EmitSubroutines() {
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
void Emitter::StoreNumber() {
  Rare* const stored = StoreInTarget(reinterpret_cast<const void*>(&NativeRun::StoreDouble),
                                     OfVariable::double_alone);
  movsd(Field(rcx, OfVariable::number), xmm0);
  mov(dword[rcx + OfVariable::primary], PrimaryDouble);
  L(stored->back);
}

// The same with edx.
void Emitter::StoreInteger() {
  Rare* const stored = StoreInTarget(reinterpret_cast<const void*>(&NativeRun::StoreInteger),
                                     OfVariable::integer_alone);
  mov(dword[rcx + OfVariable::integer], edx);
  mov(dword[rcx + OfVariable::primary], PrimaryInteger);
  L(stored->back);
}

// rcx <- the variable of the record's target, which has a number in that form alone from here on.
// If that takes more, the operation stores the number. The code that does it here is to end at the
// result's back.
Emitter::Rare* Emitter::StoreInTarget(const void* operation, int form) {
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
void Emitter::MakeForm(int form, Label& unusual) {
  test(dword[rcx + OfVariable::state], ~OfVariable::all_forms);
  jnz(unusual);
  cmp(qword[rcx + OfVariable::elements], 0);
  jne(unusual);
  mov(dword[rcx + OfVariable::state], form);
}

// xmm0 <- xmm0 and xmm1, by the place of the operation in the list of actions.
void Emitter::Calculate(int operation) {
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
bool Emitter::CalculateIntegers(HotAction action) {
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

// Continues at another record.
void Emitter::GoTo(const HotOp* goal) {
  const auto place = static_cast<size_t>(goal - list.data());
  if (place > at) {
    jmp(labels[place]);
    return;
  }
  // The host's flags are polled at jumps back.
  dec(dword[rbx + kPatience]);
  jnz(labels[place]);
  mov(rax, reinterpret_cast<uint64_t>(goal));
  jmp(exit);
}

void Emitter::Continue(size_t count) {
  if (count > 1) jmp(labels[at + count]);
}

// A jump to the goal if the order of xmm0 and xmm1 is one of these.
void Emitter::JumpIf(unsigned char orders, bool may_be_text, const HotOp* goal) {
  // With NaN all flags are set. It counts as greater; what may be a text is looked at elsewhere.
  Label next;
  const bool is_equality = orders == 2 || orders == 5;
  if (is_equality) {
    ucomisd(xmm0, xmm1);
  } else {
    ucomisd(xmm1, xmm0);
  }
  if (may_be_text) jp(Leave());
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

// xmm0 <- 1 or 0: whether the order of xmm0 and xmm1 is one of these.
void Emitter::Compare(unsigned char orders) {
  static constexpr uint8_t kPredicates[] = {0, 1, 0, 2, 6, 4, 5, 0};
  cmpsd(xmm0, xmm1, kPredicates[orders & 7]);
  mov(rax, std::bit_cast<uint64_t>(1.0));
  movq(xmm1, rax);
  andpd(xmm0, xmm1);
}

// rcx <- the elements of the array or structure at the left.
void Emitter::FindTree(int kind) {
  LoadVariable(rcx, op->left, op->first);
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
void Emitter::FindSlot(bool to_write) {
  LoadInteger(edx, op->right, op->second);
  cmp(edx, 1);
  jl(Leave());
  FindTree(AggregateArray);
  if (to_write) {
    cmp(byte[rcx + OfElements::shared], 0);
    jne(Leave());
  }
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
void Emitter::FindMember(bool to_write) {
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

// What was found is loaded into the record's temporary, or moved to its target.
void Emitter::UseSlot(bool is_loaded) {
  Label is_integer;
  // It has a variable.
  Rare* rare = &AddRare([this, record = op, is_loaded, &unusual_goal = Leave()](Rare& self) {
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
    mov(ptr[rbx + kTop], rbp);
    mov(rdi, rbx);
    mov(rsi, reinterpret_cast<uint64_t>(record));
    mov(rdx, rax);
    mov(rax, is_loaded ? AddressOf(&NativeRun::LoadFrom) : AddressOf(&NativeRun::MoveFrom));
    call(rax);
    test(al, al);
    jz(unusual_goal);
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
  } else {
    StoreInteger();
  }
  L(rare->back);
}

// Stores an operand in the slot at rsi. A number is stored as such only if it is all of its value.
void Emitter::WriteSlot(HotOperand kind, int offset) {
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

void Emitter::WriteSource(int file) {
  Label same;
  cmp(dword[r15 + OfMachine::source_file], file);
  je(same);
  mov(dword[r15 + OfMachine::traced_line], 0);
  mov(dword[r15 + OfMachine::source_file], file);
  mov(qword[r15 + OfMachine::source_name], 0);
  L(same);
}

// Before an operation that may allocate and does not do so itself. Changes rax.
void Emitter::TellStack() {
  mov(rax, Field(r15, OfMachine::stack));
  mov(Field(rax, OfStack::top), rbp);
}

void Emitter::CallWith(const void* operation) {
  mov(ptr[rbx + kTop], rbp);
  mov(rdi, rbx);
  mov(rsi, reinterpret_cast<uint64_t>(op));
  mov(rax, reinterpret_cast<uint64_t>(operation));
  call(rax);
}

// Lets an operation do the work of the record.
void Emitter::Call(NativeRun::Operation operation) {
  CallWith(reinterpret_cast<const void*>(operation));
  mov(rbp, ptr[rbx + kTop]);
  test(al, al);
  jz(Leave());
}

// Leaves unless the stack has that many entries, which are then of these kinds.
void Emitter::NeedEntries(int count, int kind) {
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

void Emitter::NeedRoom() {
  mov(rax, Field(r15, OfMachine::stack));
  lea(rcx, ptr[rbp + HotCode::kRoom * kEntry]);
  cmp(rcx, Field(rax, OfStack::limit));
  jae(Leave());
}

// Sets the head and the lengths of an entry at a distance from the end of the stack. Changes rax.
void Emitter::SetEntry(int distance, uint64_t head, uint64_t lengths) {
  mov(rax, head);
  mov(ptr[rbp + distance], rax);
  if (lengths != head) mov(rax, lengths);
  mov(ptr[rbp + distance + kEntryLengths], rax);
}

// Pushes xmm0, or edx as an integer.
void Emitter::PushNumber(HotForm form) {
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
void Emitter::LoadRow(HotOperand kind, int position) {
  const int table = static_cast<int>(kind);
  cmp(dword[rbx + kCounts + 4L * table], position);
  jbe(Leave());
  LoadVariable(rcx, kind, HotOp::Offset(position));
}

// A jump to the goal if eax or edx, which was compared, has one of these orders to what it was
// compared with.
void Emitter::JumpIfInteger(unsigned char orders, const HotOp* goal) {
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

// Lets an operation do it that goes on elsewhere, in another frame.
void Emitter::Transfer(NativeRun::Transfer transfer) {
  CallWith(reinterpret_cast<const void*>(transfer));
  Continue();
}

// Continues at the machine code in rax.
void Emitter::Continue() {
  mov(r13, ptr[rbx + kRows + 8]);
  mov(rbp, ptr[rbx + kTop]);
  test(rax, rax);
  jz(ends);
  jmp(rax);
}

// Makes a segment, whose number is in a field of the frame in rcx, the current one. Changes rax.
void Emitter::UseSegment(const Reg64& used, int number) {
  mov(Field(r15, OfMachine::segment), used);
  mov(rax, Field(used, OfSegment::data));
  mov(Field(r15, OfMachine::code), rax);
  mov(eax, dword[used + OfSegment::length]);
  mov(dword[r15 + OfMachine::code_length], eax);
  mov(eax, dword[rcx + number]);
  mov(dword[r15 + OfMachine::loaded_segment], eax);
  mov(dword[r15 + OfMachine::wanted_segment], eax);
}

// What NativeRun::Enter does, if the function has machine code. The number that it returns comes to
// TakeResult.
void Emitter::Enter() {
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
void Emitter::TakeResult() {
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
void Emitter::Return(NativeRun::Transfer transfer, Label* slow) {
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

// Lets an operation do the work of the record, and of those after it that belong to it.
void Emitter::Do(NativeRun::Work work, size_t count) {
  CallWith(reinterpret_cast<const void*>(work));
  mov(rbp, ptr[rbx + kTop]);
  test(al, al);
  jnz(ends);
  Continue(count);
}

// eax <- 1 or 0: whether the comparison of the record holds.
void Emitter::CallComparison(NativeRun::Comparison comparison) {
  CallWith(reinterpret_cast<const void*>(comparison));
  test(eax, eax);
  js(Leave());
}

// edx or a temporary <- 1 or 0, if a comparison was called or a text was searched for.
void Emitter::StoreCompared(bool is_stored) {
  if (is_stored) {
    mov(edx, eax);
    StoreInteger();
  } else {
    xorps(xmm0, xmm0);
    cvtsi2sd(xmm0, eax);
    movsd(NumberAt(op->third), xmm0);
  }
}

// Whether the left operand, a variable, has the text of the record: goes on here if so. Others than
// short texts that are no numbers are left to the fallback.
void Emitter::CompareWord(Label& differs) {
  LoadVariable(rcx, op->left, op->first);
  cmp(dword[rcx + OfVariable::state], OfVariable::text_alone);
  jne(Leave());
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
  je(Leave());
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
}

// Whether a frame is kept for the called function and is prepared for calls from this code; then
// r14 is the rows of its variables.
void Emitter::BeginCall() {
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
void Emitter::SendNumber(HotForm form) {
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

void Emitter::Send() {
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

// The operations on truths. Returns false for other records.
bool Emitter::EmitTruths(HotAction action) {
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

// The records of single instructions, which work on the entries of the stack, and of sequences of
// these. Returns false for others, and for those that are left to the loop.
bool Emitter::EmitOnStack() {
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

// The records for texts, and for what is found or stored by an operation. Returns false for others.
bool Emitter::EmitValues() {
  const HotAction action = op->action;
  const bool is_equality = op->orders == 2 || op->orders == 5;
  switch (action) {
    case HotAction::JumpIfText: {
      Label differs, next;
      SetFallback(&NativeRun::Compare<&NativeRun::OrderOfText>, op[1].target, 2);
      if (!is_equality || op->length > 64) {
        jmp(Leave());
        return true;
      }
      CompareWord(differs);
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
    case HotAction::FindMember: Do(&NativeRun::Do<&NativeRun::FindMember>); return true;
    case HotAction::MoveElement: Do(&NativeRun::Do<&NativeRun::MoveElement>); return true;
    case HotAction::StoreElement: Do(&NativeRun::Do<&NativeRun::StoreElement>); return true;
    case HotAction::PushElement: Do(&NativeRun::Do<&NativeRun::PushElement>); return true;
    case HotAction::PushMember: Do(&NativeRun::Do<&NativeRun::PushMember>); return true;
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

// Makes the code of one record. Returns false if it is left to the loop.
bool Emitter::Emit() {
  // A group that is set aside at the moment has its action in single.
  const HotAction action = op->action == HotAction::Rest ? op->single : op->action;
  const bool has_place = op->left == HotOperand::Place || op->right == HotOperand::Place;
  int family = FamilyOf(action, HotAction::AddOfGlobalGlobal, 4);
  if (family >= 0) {
    SetFallback(&NativeRun::CalculateUnusual);
    LoadNumber(xmm0, op->left, op->first);
    LoadNumber(xmm1, op->right, op->second);
    Calculate(family);
    movsd(NumberAt(op->third), xmm0);
    return true;
  }
  family = FamilyOf(action, HotAction::AddToGlobalGlobal, 4);
  if (family >= 0) {
    SetFallback(&NativeRun::CalculateUnusual);
    LoadNumber(xmm0, op->left, op->first);
    LoadNumber(xmm1, op->right, op->second);
    Calculate(family);
    StoreNumber();
    return true;
  }
  const bool compares = op->orders > 0 && op->orders < 7;
  if (compares && FamilyOf(action, HotAction::JumpIfLessGlobalGlobal, 6) >= 0) {
    const auto is_temporary = [](HotOperand kind) {
      return kind == HotOperand::Temporary || kind == HotOperand::Place;
    };
    SetFallback(&NativeRun::Compare<&NativeRun::OrderOfUnusual>, op->target);
    LoadNumber(xmm0, op->left, op->first);
    LoadNumber(xmm1, op->right, op->second);
    JumpIf(op->orders, is_temporary(op->left) || is_temporary(op->right), op->target);
    return true;
  }
  if (compares && FamilyOf(action, HotAction::CompareOfGlobalGlobal, 1) >= 0) {
    SetFallback(&NativeRun::Compare<&NativeRun::OrderOfUnusual>, false);
    LoadNumber(xmm0, op->left, op->first);
    LoadNumber(xmm1, op->right, op->second);
    Compare(op->orders);
    movsd(NumberAt(op->third), xmm0);
    return true;
  }
  if (EmitTruths(action) || EmitOnStack()) return true;
  if (CalculateIntegers(action)) {
    xorps(xmm0, xmm0);
    cvtsi2sd(xmm0, edx);
    movsd(NumberAt(op->third), xmm0);
    return true;
  }
  const int to_of = static_cast<int>(HotAction::ModTo) - static_cast<int>(HotAction::ModOf);
  if (CalculateIntegers(static_cast<HotAction>(static_cast<int>(action) - to_of))) {
    StoreInteger();
    return true;
  }
  if (EmitValues()) return true;
  if (IsAt(action, HotAction::LoadElementAtGlobal)) {
    SetFallback<&NativeRun::LoadElement>();
    FindSlot(false);
    UseSlot(true);
    return true;
  }
  if (IsAt(action, HotAction::MoveElementAtGlobal)) {
    SetFallback<&NativeRun::MoveElement>();
    FindSlot(false);
    UseSlot(false);
    return true;
  }
  if (IsAt(action, HotAction::FindElementAtGlobal)) {
    SetFallback<&NativeRun::FindElement>();
    FindSlot(true);
    mov(byte[rcx + OfElements::isolated], 0);
    mov(rdx, rax);
    shr(rdx, 49);
    jnz(Leave());
    mov(PlaceAt(op->third), rax);
    return true;
  }
  if (IsAt(action, HotAction::StoreElementAtGlobal)) {
    if (op->into == HotOperand::Text || op->into == HotOperand::Place) {
      Do(&NativeRun::Do<&NativeRun::StoreElement>);
      return true;
    }
    SetFallback<&NativeRun::StoreElement>();
    FindSlot(true);
    WriteSlot(op->into, op->third);
    return true;
  }
  switch (action) {
    case HotAction::LoadMember:
      SetFallback<&NativeRun::LoadMember>();
      FindMember(false);
      UseSlot(true);
      return true;
    case HotAction::MoveMember:
      SetFallback<&NativeRun::MoveMember>();
      FindMember(false);
      UseSlot(false);
      return true;
    case HotAction::StoreMember:
      SetFallback<&NativeRun::StoreMember>();
      if (op->right == HotOperand::Place) {
        jmp(Leave());
        return true;
      }
      FindMember(true);
      WriteSlot(op->right, op->second);
      return true;
    case HotAction::CompareTo:
      if (!compares || has_place) return false;
      SetFallback(&NativeRun::Compare<&NativeRun::OrderOfUnusual>, true);
      LoadNumber(xmm0, op->left, op->first);
      LoadNumber(xmm1, op->right, op->second);
      Compare(op->orders);
      cvttsd2si(edx, xmm0);
      StoreInteger();
      return true;
    case HotAction::CompareOf:
      if (!compares || has_place) return false;
      SetFallback(&NativeRun::Compare<&NativeRun::OrderOfUnusual>, false);
      LoadNumber(xmm0, op->left, op->first);
      LoadNumber(xmm1, op->right, op->second);
      Compare(op->orders);
      movsd(NumberAt(op->third), xmm0);
      return true;
    case HotAction::JumpIfNumber:
      if (!compares) return false;
      cvttsd2si(eax, NumberAt(op->first));
      cmp(eax, 0);
      JumpIfInteger(op->orders, op->target);
      return true;
    case HotAction::MoveVariable: {
      Label as_integer, done;
      SetFallback<&NativeRun::MoveVariable>();
      LoadVariable(rsi, op->left, op->first);
      mov(rcx, RowAt(op->into, op->third));
      test(rcx, rcx);
      jz(Leave());
      mov(eax, dword[rsi + OfVariable::state]);
      cmp(eax, dword[rcx + OfVariable::state]);
      jne(Leave());
      cmp(eax, OfVariable::integer_alone);
      je(as_integer);
      cmp(eax, OfVariable::double_alone);
      jne(Leave());
      mov(rax, Field(rsi, OfVariable::number));
      mov(Field(rcx, OfVariable::number), rax);
      mov(dword[rcx + OfVariable::primary], PrimaryDouble);
      jmp(done);
      L(as_integer);
      mov(eax, dword[rsi + OfVariable::integer]);
      mov(dword[rcx + OfVariable::integer], eax);
      mov(dword[rcx + OfVariable::primary], PrimaryInteger);
      L(done);
      return true;
    }
    case HotAction::MoveNumber:
      if (op->form == HotForm::Integer) {
        if (op->left == HotOperand::Constant) {
          mov(edx, op->first);
        } else {
          cvttsd2si(edx, NumberAt(op->first));
        }
        StoreInteger();
      } else {
        LoadNumber(xmm0, op->left, op->first);
        StoreNumber();
      }
      return true;
    case HotAction::MoveText: Do(&NativeRun::Do<&NativeRun::MoveText>); return true;
    case HotAction::NoteLine:
    case HotAction::Line: mov(dword[r15 + OfMachine::current_line], op->first); return true;
    case HotAction::NoteSourceFile:
    case HotAction::SourceFile: WriteSource(op->first); return true;
    case HotAction::SourceLine:
      mov(dword[r15 + OfMachine::current_line], op[1].first);
      WriteSource(op->first);
      Continue(2);
      return true;
    case HotAction::Jump: GoTo(op->target); return true;
    case HotAction::IncrementCompareJump: {
      LoadVariable(rcx, HotOperand::Global, HotOp::Offset(op->first));
      cmp(dword[rcx + OfVariable::state], OfVariable::integer_alone);
      jne(Leave());
      const unsigned char orders = op[2].orders;
      if (orders == 0 || orders > 6) return false;
      mov(eax, dword[rcx + OfVariable::integer]);
      add(eax, op->second);
      mov(dword[rcx + OfVariable::integer], eax);
      mov(dword[rcx + OfVariable::primary], PrimaryInteger);
      cmp(eax, op[1].second);
      JumpIfInteger(orders, op[2].target);
      Continue(3);
      return true;
    }
    case HotAction::CheckRoom:
      mov(rax, Field(r15, OfMachine::stack));
      mov(rax, Field(rax, OfStack::limit));
      sub(rax, rbp);
      cmp(rax, op->first * kEntry);
      jl(Leave());
      return true;
    case HotAction::CallWith: BeginCall(); return true;
    case HotAction::SendGlobal:
    case HotAction::SendLocal:
    case HotAction::SendTemporary:
    case HotAction::SendConstant:
    case HotAction::SendText:
    case HotAction::SendReference: Send(); return true;
    case HotAction::Enter: Enter(); return true;
    case HotAction::ReturnNumber:
      LoadNumber(xmm0, op->left, op->first);
      mov(edx, op->form == HotForm::Integer);
      xor_(r10d, r10d);
      Return(&NativeRun::ReturnNumber, nullptr);
      return true;
    case HotAction::ReturnVariable: {
      Label slow, is_double;
      cmp(dword[rbx + kCounts + 4L * static_cast<int>(op->left)], op->first);
      jbe(slow);
      mov(rcx, RowAt(op->left, HotOp::Offset(op->first)));
      test(rcx, rcx);
      jz(slow);
      cmp(dword[rcx + OfVariable::holders], 1);
      jne(slow);
      movsd(xmm0, Field(rcx, OfVariable::number));
      xor_(edx, edx);
      cmp(dword[rcx + OfVariable::state], OfVariable::double_alone);
      je(is_double);
      cmp(dword[rcx + OfVariable::state], OfVariable::integer_alone);
      jne(slow);
      cvtsi2sd(xmm0, dword[rcx + OfVariable::integer]);
      mov(edx, 1);
      L(is_double);
      mov(r10d, 1);
      Return(&NativeRun::ReturnVariable, &slow);
      return true;
    }
    case HotAction::Return: {
      Label slow, is_double;
      mov(rax, Field(r15, OfMachine::stack));
      cmp(rbp, Field(rax, OfStack::entries));
      jbe(slow);
      movsd(xmm0, ptr[rbp - kEntry + kEntryValue]);
      xor_(edx, edx);
      cmp(dword[rbp - kEntry], ZephVM_Stack::KindDouble);
      je(is_double);
      cmp(dword[rbp - kEntry], ZephVM_Stack::KindInteger);
      jne(slow);
      cvtsi2sd(xmm0, dword[rbp - kEntry + kEntryValue]);
      mov(edx, 1);
      L(is_double);
      xor_(r10d, r10d);
      sub(rbp, kEntry);
      Return(&NativeRun::Return, &slow);
      return true;
    }
    case HotAction::ReturnNothing: Transfer(&NativeRun::ReturnNothing); return true;
    case HotAction::ReturnText: Transfer(&NativeRun::ReturnText); return true;
    case HotAction::JoinReturn: Transfer(&NativeRun::JoinReturn); return true;
    case HotAction::Call: Transfer(&NativeRun::Call); return true;
    default: return false;
  }
}

}  // namespace

bool NativeCompiler::Compile(const HotCode* hot, const NativeRun* run) {
  try {
    auto made = std::make_unique<Emitter>(hot, run);
    if (!made->Make()) return false;
    hot->Keep(std::move(made));
    return true;
  } catch (const std::bad_alloc&) {
    return false;  // a script that needs the memory itself does without machine code
  }
}

const HotOp* NativeCompiler::Run(const HotCode* hot, NativeRun* run, const HotOp* op) {
  using Entrance = const HotOp* (*)(NativeRun*, const void*);
  const auto entrance = reinterpret_cast<Entrance>(const_cast<void*>(hot->native()->entrance));
  return entrance(run, op->native);
}

#else

bool NativeCompiler::Compile(const HotCode*, const NativeRun*) {
  return false;
}
const HotOp* NativeCompiler::Run(const HotCode*, NativeRun*, const HotOp* op) {
  return op;
}

#endif
