// What writes machine code: one object for each HotCode, which keeps it afterwards. See
// base/machine/NativeCompiler.h for what the code does. Its members are in NativeCompiler.cpp and
// in the NativeEmitter files, each of which has one kind of records.
//
// The registers of machine code. All of them keep their values in calls of the operations of
// NativeRun; all others are free between two records, but see TakeResult() for a return.
//
//   rbx  the NativeRun            rbp  the end of the current stack's entries
//   r12  the rows of globals      r13  the rows of locals
//   r14  the rows of the parameters of the call that is prepared
//   r15  the machine
//
// Between two records of straight code, xmm4 to xmm15 may keep what was read of a variable; see
// KeptAs.
//
// The temporaries of a group are in the NativeRun, as they are for the loop.

#ifndef ZEPH_BASE_NATIVEEMITTER_H
#define ZEPH_BASE_NATIVEEMITTER_H

#ifdef __x86_64__

#define XBYAK_NO_EXCEPTION
#include <xbyak/xbyak.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <new>
#include <utility>
#include <vector>

#include "base/compiled/HotCode.h"
#include "base/compiled/HotGroup.h"
#include "base/machine/NativeLayout.h"
#include "base/machine/NativeRun.h"

// Of the runtime's unwinder: adds and removes descriptions of how to unwind code. The room is for
// its own notes, and lasts as long; it takes 6 words of it.
extern "C" void __register_frame_info(const void* frames, void* room);
extern "C" void* __deregister_frame_info(const void* frames);

// The assembler goes on writing where it has got no memory, so that has to end the compilation.
class NativeCodeMemory : public Xbyak::MmapAllocator {
 public:
  uint8_t* alloc(size_t size) override {
    uint8_t* const memory = MmapAllocator::alloc(size);
    if (!memory) throw std::bad_alloc();
    return memory;
  }
};

// A base that lives longer than the assembler.
struct HasNativeCodeMemory {
  NativeCodeMemory memory;
};

class NativeEmitter : public NativeCode, private HasNativeCodeMemory, private Xbyak::CodeGenerator {
 public:
  NativeEmitter(const HotCode* hot, const NativeRun* current)
      : CodeGenerator(Xbyak::DEFAULT_MAX_CODE_SIZE, Xbyak::AutoGrow, &memory),
        code(hot),
        run(current),
        list(hot->FastList()),
        labels(list.size() + 1) {}

  ~NativeEmitter() override {
    if (is_described) __deregister_frame_info(frames.data());
  }

  // Makes the code. Returns false if there is no memory that it could be in.
  bool Make();

 private:
  using Label = Xbyak::Label;
  using Reg32 = Xbyak::Reg32;
  using Reg64 = Xbyak::Reg64;
  using Xmm = Xbyak::Xmm;
  using OfElements = NativeLayout::OfElements;
  using OfEntry = NativeLayout::OfEntry;
  using OfFrame = NativeLayout::OfFrame;
  using OfMachine = NativeLayout::OfMachine;
  using OfOutput = NativeLayout::OfOutput;
  using OfMembers = NativeLayout::OfMembers;
  using OfRecord = NativeLayout::OfRecord;
  using OfSlot = NativeLayout::OfSlot;
  using OfSegment = NativeLayout::OfSegment;
  using OfStack = NativeLayout::OfStack;
  using OfTable = NativeLayout::OfTable;
  using OfVariable = NativeLayout::OfVariable;

  static constexpr int kDoubleForm = static_cast<int>(HotForm::Double);
  static constexpr int kIntegerForm = static_cast<int>(HotForm::Integer);
  static constexpr int kRows = offsetof(NativeRun, rows);
  static constexpr int kPatience = offsetof(NativeRun, patience);
  static constexpr int kTop = offsetof(NativeRun, top);
  static constexpr int kCounts = offsetof(NativeRun, counts);
  static constexpr long kEntry = sizeof(hot::Entry);
  static constexpr int kEntryValue = offsetof(hot::Entry, value);
  static constexpr int kEntryLengths = offsetof(hot::Entry, length);
  static constexpr int kEntryOwned = offsetof(hot::Entry, deletable);
  static constexpr uint64_t kIntegerLengths = 4 | uint64_t{4} << 32;
  static constexpr uint64_t kDoubleLengths = 8 | uint64_t{8} << 32;
  static constexpr int kTextResult = 5;  // a jump, see TakeResult()
  static constexpr int kCalledRows = offsetof(NativeRun, called_rows);
  static constexpr int kOp = offsetof(NativeRun, op);
  static constexpr int kHeld = offsetof(NativeRun, held);
  static constexpr int kKept = offsetof(NativeRun, kept);
  static constexpr int kJoined = offsetof(NativeRun, joined);
  static constexpr int kTemporaries = offsetof(NativeRun, temporaries);
  static constexpr int kForms = kTemporaries + static_cast<int>(offsetof(hot::Temporaries, forms));

  // What is tried where the usual code does not apply, by the type of the function.
  enum class Fallback { None, Operation, Result, Work, Comparison, Truth, Transfer };

  // What a register keeps of a variable, so that the records after it need not look at the
  // variable: its number, its integer, or the tree of the array or structure that it is, if it is a
  // reference of what it refers to. A number is dropped where the variable may change. A tree lasts
  // longer: code that runs no operation in C++ only stores numbers, and a variable with elements
  // takes none.
  enum class KeptAs : uint8_t { Number, Integer, Array, Structure };
  struct Kept {
    KeptAs as = KeptAs::Number;
    HotOperand kind = HotOperand::Global;  // of a row
    int offset = -1;                       // -1 for a register that is free
  };
  static constexpr int kFirstKept = 4;
  static constexpr int kMostKept = 12;
  using KeptRegisters = std::array<Kept, kMostKept>;  // of xmm4 and those after it

  // A piece of code that is seldom run. They come after all others, so that what is usual is in a
  // row.
  struct Rare {
    Label label;
    std::function<void(Rare&)> emit;
    Label back;
    Label others[2];  // other places in the usual code to go back to
  };

  // The family of an action that has one member for each pair of operands, counted from the first
  // family of its operation; -1 if it is of no such family.
  static int FamilyOf(HotAction action, HotAction first, int families) {
    const int pairs = static_cast<int>(HotAction::SubOfGlobalGlobal) -
                      static_cast<int>(HotAction::AddOfGlobalGlobal);
    const int distance = static_cast<int>(action) - static_cast<int>(first);
    return distance >= 0 && distance < families * pairs ? distance / pairs : -1;
  }
  // Whether the action is one of four, one for each kind of index.
  static bool IsAt(HotAction action, HotAction first) {
    const int distance = static_cast<int>(action) - static_cast<int>(first);
    return distance >= 0 && distance < 4;
  }

  template <typename Function>
  static uint64_t AddressOf(Function* function) {
    return reinterpret_cast<uint64_t>(function);
  }

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
  Xbyak::Address Constant(uint64_t bits);
  void EmitConstants();
  void LoadVariable(const Reg64& variable, HotOperand kind, int offset);
  void LoadNumber(const Xmm& number, HotOperand kind, int offset);
  bool HoldsInteger(HotOperand kind, int offset) const;
  void NoteStoredDoubles();
  void LoadInteger(const Reg32& integer, HotOperand kind, int offset);
  void StoreNumber(bool is_last = true);
  void StoreInTarget(const void* operation, int form, bool is_last);
  void WriteNumber(int form);
  void MakeForm(int form, Label& unusual);
  void StoreInteger(bool is_last = true);
  void SetTemporary();
  bool BeginsWith(int temporary) const;
  void EnterRecord(int arriving);
  static HotAction ActionOf(const HotOp& record) {
    return record.action == HotAction::Rest ? record.single : record.action;
  }
  void NoteGoals();
  static bool Keeps(const HotOp& record);
  static size_t LengthOf(const HotOp& record);
  static bool Reads(const HotOp& record, Kept what);
  static bool Changes(const HotOp& record, Kept what);
  bool IsReadAgain(Kept what) const;
  int FindKept(KeptAs as, HotOperand kind, int offset) const;
  int Keep(KeptAs as, HotOperand kind, int offset, bool alone = false);
  bool HoldsText(HotOperand kind, int offset) const;
  void DropUnread();
  bool KeepsAny() const;
  bool KeepsNumbers(int but = -1) const;
  void DropNumbers(int offset);
  void SaveKept(const KeptRegisters& saved);
  void RestoreKept(const KeptRegisters& saved);
  void LoadKept(Label& fails);
  void LoadTree(KeptAs kind);
  void Accumulate(int operation);
  void Calculate(int operation, const Xbyak::Operand& right);
  void Calculate(int operation) { Calculate(operation, xmm1); }
  void CalculateOperands(int operation);
  bool CalculateIntegers(HotAction action);
  void TakeRemainder(int divisor);
  void Compare(unsigned char orders);
  void JumpIf(unsigned char orders, bool may_be_text, const HotOp* goal);
  bool IsAhead(const HotOp* goal) const { return goal > &list[at]; }
  Label& LabelOf(const HotOp* record) { return labels[static_cast<size_t>(record - list.data())]; }
  void GoTo(const HotOp* goal);
  void Continue(size_t count);
  void Continue();
  void Do(NativeRun::Work work, size_t count = 1);
  void CallComparison(NativeRun::Comparison comparison);
  void StoreCompared(bool is_stored);
  Label& CompareWord();
  void NeedLetter(const Reg32& length, Label& unusual);
  Rare* TryWords(HotOperand left, int first, HotOperand right, int second, unsigned char orders);
  void LoadText(const Reg64& variable, HotOperand kind, int offset);
  void EmitTextSubroutines();
  void SendWord(const HotOp* record, Label& done);
  void OutText();
  static bool CanJoin(const HotOp* operand);
  void Join(const HotOp* operand);
  void EmitJoin();
  void PushHeld(const Reg64& variable);
  void CopyConstant(const Reg64& to, const char* text, int length);
  void CopyText(const Reg64& to);
  bool EmitValues();
  void FindTree(int kind);
  void FindSlot();
  void LoadArray();
  void LoadOwnArray();
  void SearchSlot(Label& missing);
  bool HoldsIntegers(HotOperand kind, int offset) const;
  void ReadSlot(bool is_integer, Label& as_double, Label& as_integer, Label& has_variable);
  void FindMember(bool to_write);
  void FindMemberVariable();
  void UseSlot(bool is_loaded);
  void UseText(const HotOp* record, bool is_loaded, Label& done);
  void EachElement();
  void NeedForm(int form);
  void LoadSlot(HotOperand kind, int offset, Label& other);
  void WriteSlot();
  void WriteElement();
  void EmitAppend();
  void WriteSource(int file);
  void CompareSerial(const Reg64& frame, int field = OfFrame::return_code);
  void PrepareKept(bool is_here, Label& unprepared);
  void FindKept(Label& unprepared, Label& unusual);
  void NeedEntry(Label& unusual);
  void BeginCall();
  void CallOnStack();
  void SendText();
  void SendVariable();
  void Send();
  void SendNumber(HotForm form, Label& unusual);
  void Call(NativeRun::Operation operation);
  void NeedStack(int count);
  void NeedEntries(int count, int kind);
  void LoadEntries(int count);
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
  void TakeResult(Label& numbers);
  void TakeText(const HotOp* use, bool is_stored, Label& unusual);
  void CheckCaller(Label& unusual);
  void LoadTarget(const HotOp* pop, Label& unusual);
  void UseSegment(const Reg64& used, int number);
  void RenewScalar(Label& other, Label& unusual);
  void CheckNames(int variables, Label& unusual);
  void Renew(int variables, int parameters, Label& unusual);
  void EmitRenew();
  void LeaveFrame(bool is_told);
  bool IsReadable(HotOperand kind, int position) const;
  void UseCaller();
  void EmitLeft();
  void CheckReturn(Label& unusual);
  void EmitSubroutines();
  void PassResult(NativeRun::Operation operation);
  Rare* AddReturn(NativeRun::Operation operation);
  void Return(Rare* other, bool is_text = false);
  void ReturnNumber();
  void ReturnVariable();
  void ReturnTop();
  void MoveTop(Label& unusual);

  const HotCode* code;
  const NativeRun* run;  // only while the code is made
  const std::vector<HotOp>& list;
  std::vector<Label> labels;  // by record
  std::deque<Rare> rares;
  // A number in memory, with 8 bytes of 0 after it.
  struct PoolNumber {
    uint64_t bits;
    Label label;
  };
  std::deque<PoolNumber> constants;
  // The variables, by table and position, that records of the code store doubles in.
  std::vector<bool> stored_doubles[2];
  size_t at = 0;          // the record that is made
  size_t passed = 0;      // the records after it that the usual code has done with it
  bool is_aside = false;  // the code that is made is not in the row of the usual code
  // A temporary may be in xmm0, too, on the way from a record to the next one: the offset of that
  // which the last record has left there, and of those that are in xmm0 and xmm1 while the current
  // record has not changed these. -1 for none.
  int left_behind = -1;
  int in_register[2] = {-1, -1};
  KeptRegisters kept;
  bool keeps = false;       // whether the current record leaves them as they are
  std::vector<bool> goals;  // by record: whether the code jumps to it
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
  Label renew;  // see EmitRenew(), EmitLeft(), and for the others EmitSubroutines()
  Label renew_other;
  Label left;
  Label left_unusual;
  Label find_number[2];
  Label read_entry[2];
  Label drop_entry;
  Label find_integer;
  Label find_plain;
  Label find_end;
  Label follow;
  Label append;
  Label copy_word;  // see EmitTextSubroutines() for these
  Label same_words;
  Label append_text;
  Label append_integer;
  Label write_integer;
  Label real;
  Label ends;  // an operation has told where the loop goes on
};

#endif
#endif
