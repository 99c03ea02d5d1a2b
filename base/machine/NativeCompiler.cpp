// Tested in tests/base/machine/NativeCodeTest.cpp.

#include "base/machine/NativeCompiler.h"

#include "base/machine/NativeEmitter.h"

#ifdef __x86_64__

#include <cstdint>
#include <iterator>
#include <memory>
#include <new>
#include <utility>
#include <vector>

bool NativeEmitter::Make() {
  Xbyak::ClearError();
  setDefaultJmpNEAR(true);
  EmitEntrance();
  EmitRenew();
  EmitLeft();
  EmitSubroutines();
  EmitAppend();
  EmitTextSubroutines();
  NoteStoredDoubles();
  NoteGoals();
  std::vector<bool> known(list.size());
  const auto emit = [this, &known](size_t place) {
    at = place;
    op = &list[at];
    leave = nullptr;
    fallback = Fallback::None;
    passed = 0;
    keeps = !is_aside && Keeps(*op);
    if (is_aside || goals[at]) kept = {};
    EnterRecord(std::exchange(left_behind, -1));
    known[at] = Emit();
    if (!known[at]) jmp(Leave());
    if (keeps && known[at]) {
      DropUnread();
    } else {
      kept = {};
    }
  };
  // What records do together with those before them comes after all that, so that the usual code
  // has no jumps over it.
  std::vector<size_t> later;
  for (size_t place = 0; place < list.size(); place++) {
    emit(place);
    for (; passed > 0; passed--) later.push_back(++place);
  }
  is_aside = true;
  for (size_t i = 0; i < later.size(); i++) {
    emit(later[i]);
    if (i + 1 == later.size() || later[i + 1] != later[i] + 1) jmp(labels[later[i] + 1]);
  }
  kept = {};
  keeps = false;
  EmitRares();
  EmitConstants();
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
void NativeEmitter::DescribeFrame() {
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
void NativeEmitter::EmitEntrance() {
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

void NativeEmitter::EmitRares() {
  // One may add others.
  for (size_t i = 0; i < rares.size(); i++) {
    L(rares[i].label);
    rares[i].emit(rares[i]);
  }
}

NativeEmitter::Label& NativeEmitter::Leave() {
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
        case Fallback::Result:
          mov(rbp, ptr[rbx + kTop]);
          test(al, al);
          jnz(left);
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

// Makes the code of one record. Returns false if it is left to the loop.
bool NativeEmitter::Emit() {
  // A group that is set aside at the moment has its action in single.
  const HotAction action = ActionOf(*op);
  const bool has_place = op->left == HotOperand::Place || op->right == HotOperand::Place;
  int family = FamilyOf(action, HotAction::AddOfGlobalGlobal, 4);
  if (family >= 0) {
    SetFallback(&NativeRun::CalculateUnusual);
    CalculateOperands(family);
    SetTemporary();
    return true;
  }
  family = FamilyOf(action, HotAction::AddToGlobalGlobal, 4);
  if (family >= 0) {
    SetFallback(&NativeRun::CalculateUnusual);
    if (op->into == op->left && op->third == op->first && !HoldsInteger(op->left, op->first)) {
      Accumulate(family);
      return true;
    }
    CalculateOperands(family);
    StoreNumber();
    return true;
  }
  const bool compares = op->orders > 0 && op->orders < 7;
  if (compares && FamilyOf(action, HotAction::JumpIfLessGlobalGlobal, 6) >= 0) {
    const auto is_temporary = [](HotOperand kind) {
      return kind == HotOperand::Temporary || kind == HotOperand::Place;
    };
    SetFallback(&NativeRun::Compare<&NativeRun::OrderOfUnusual>, op->target);
    Rare* const words = TryWords(op->left, op->first, op->right, op->second, op->orders);
    LoadNumber(xmm0, op->left, op->first);
    LoadNumber(xmm1, op->right, op->second);
    JumpIf(op->orders, is_temporary(op->left) || is_temporary(op->right), op->target);
    if (words) L(words->back);
    return true;
  }
  if (compares && FamilyOf(action, HotAction::CompareOfGlobalGlobal, 1) >= 0) {
    SetFallback(&NativeRun::Compare<&NativeRun::OrderOfUnusual>, false);
    TryWords(op->left, op->first, op->right, op->second, op->orders);
    LoadNumber(xmm0, op->left, op->first);
    LoadNumber(xmm1, op->right, op->second);
    Compare(op->orders);
    SetTemporary();
    return true;
  }
  if (EmitTruths(action) || EmitOnStack()) return true;
  if (CalculateIntegers(action)) {
    xorps(xmm0, xmm0);
    cvtsi2sd(xmm0, edx);
    SetTemporary();
    return true;
  }
  const int to_of = static_cast<int>(HotAction::ModTo) - static_cast<int>(HotAction::ModOf);
  if (CalculateIntegers(static_cast<HotAction>(static_cast<int>(action) - to_of))) {
    StoreInteger();
    return true;
  }
  if (action == HotAction::Handler && op->code == Instruction::code_poprl) {
    Do(&NativeRun::Do<&NativeRun::BindLocal>);
    return true;
  }
  if (EmitValues()) return true;
  if (IsAt(action, HotAction::LoadElementAtGlobal)) {
    SetFallback<&NativeRun::LoadElement>();
    FindSlot();
    UseSlot(true);
    return true;
  }
  if (IsAt(action, HotAction::MoveElementAtGlobal)) {
    SetFallback<&NativeRun::MoveElement>();
    FindSlot();
    UseSlot(false);
    return true;
  }
  if (IsAt(action, HotAction::FindElementAtGlobal)) {
    SetFallback<&NativeRun::FindElement>();
    LoadOwnArray();
    SearchSlot(Leave());
    mov(byte[rcx + OfElements::isolated], 0);
    mov(PlaceAt(op->third), rax);
    shr(rax, 49);
    jnz(Leave());
    return true;
  }
  if (IsAt(action, HotAction::StoreElementAtGlobal)) {
    if (op->into == HotOperand::Text || op->into == HotOperand::Place) {
      Do(&NativeRun::Do<&NativeRun::StoreElement>);
      return true;
    }
    SetFallback<&NativeRun::StoreElement>();
    WriteElement();
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
      LoadSlot(op->right, op->second, Leave());
      FindMember(true);
      WriteSlot();
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
      SetTemporary();
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
      const bool may_be_kept = KeepsNumbers(op->third);
      Rare* const word =
          &AddRare([this, may_be_kept, &next = labels[at + 1], &unusual = Leave()](Rare& self) {
            call(copy_word);
            jc(unusual);
            if (may_be_kept) {
              cmp(dword[rcx + OfVariable::holders], 1);
              jne(next);
            }
            jmp(self.back);
          });
      mov(eax, dword[rsi + OfVariable::state]);
      cmp(eax, dword[rcx + OfVariable::state]);
      jne(word->label);
      if (may_be_kept) {
        // Another name of the variable may be kept.
        cmp(dword[rcx + OfVariable::holders], 1);
        jne(Leave());
      }
      cmp(eax, OfVariable::integer_alone);
      je(as_integer);
      cmp(eax, OfVariable::double_alone);
      jne(word->label);
      mov(rax, Field(rsi, OfVariable::number));
      mov(Field(rcx, OfVariable::number), rax);
      mov(dword[rcx + OfVariable::primary], PrimaryDouble);
      jmp(done);
      L(as_integer);
      mov(eax, dword[rsi + OfVariable::integer]);
      mov(dword[rcx + OfVariable::integer], eax);
      mov(dword[rcx + OfVariable::primary], PrimaryInteger);
      L(done);
      L(word->back);
      DropNumbers(op->third);
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
    case HotAction::ReturnNumber: ReturnNumber(); return true;
    case HotAction::ReturnVariable: ReturnVariable(); return true;
    case HotAction::Return: ReturnTop(); return true;
    case HotAction::ReturnNothing: PassResult(&NativeRun::ReturnNothing); return true;
    case HotAction::ReturnText: PassResult(&NativeRun::ReturnText); return true;
    case HotAction::Call: CallOnStack(); return true;
    default: return false;
  }
}

bool NativeCompiler::Compile(const HotCode* hot, const NativeRun* run) {
  try {
    auto made = std::make_unique<NativeEmitter>(hot, run);
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
