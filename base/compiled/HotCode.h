// HotCode, code that runs often, decoded once. The machine first runs the bytes of a segment
// directly. When it has come back to them a few times it decodes them into records, which the loop
// in base/machine/ZephVM_Hot.cpp runs.
//
// There are two lists of records. The plain list has one for each instruction. The fast list is
// what usually runs:
//
// - A group is a piece of straight code that begins and ends with nothing of its own on the stack:
// an
//   expression and what is done with its value. Its records compute with operands instead of a
//   stack: "push a, push b, add, pop c" is one record, c <- a + b. HotGroup.h tells how groups are
//   found. All records of a group but the last have no effect except on temporaries (a number, or a
//   place that a variable was found at). So if one of them does not apply, because a variable is
//   not a number, say, the group's instructions are run one by one from its first, by the plain
//   list, and nothing has to be taken back.
// - The other instructions have a copy of their record, and some common sequences of these, an
// idiom,
//   have one action together. If that does not apply, its first instruction is run alone.
//
// A script cannot observe the difference. An action handles the cases that cannot fail, on ordinary
// variables; in all other cases the machine's loop runs the instructions one by one.

#ifndef ZEPH_BASE_HOTCODE_H
#define ZEPH_BASE_HOTCODE_H

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "base/compiled/HotActions.h"
#include "base/compiled/Instructions.h"
#include "base/values/MemberLayout.h"

class Dictionary;
class FunctionManager;

// One record. Of a plain record, that of one instruction, left says whether a variable is global or
// local, and first is its position.
struct HotOp {
  // The action, and that of the first instruction alone. They differ for an idiom. While a group is
  // set aside, its first record has the action Rest, and single is the group's own.
  mutable HotAction action = HotAction::Leave;
  HotAction single = HotAction::Leave;
  // The operands of a group's record, and where its outcome goes: into a temporary or a variable.
  HotOperand left = HotOperand::Global;
  HotOperand right = HotOperand::Global;
  HotOperand into = HotOperand::Temporary;
  // How the result of the call or the element read before this instruction is used: bits of Use.
  // Also those that apply to what a call of this function is used for, if this is a return of such
  // a result.
  unsigned char uses = 0;
  unsigned char passed_uses = 0;
  // The orders on which a jump is made or a comparison holds: bit 0 for less, 1 for equal, 2 for
  // greater.
  unsigned char orders = 0;
  // Whether a constant text is no number, so that it is compared as a text. Of a comparison with 0:
  // whether it is the test of a truth, for which texts have rules of their own. Of MatchOf: whether
  // the case of letters makes no difference.
  bool word = false;
  // Whether an element or member is created if it is missing. Of MatchOf: whether the position is
  // that of the last byte.
  bool create = false;
  // Of an argument: whether it is taken by reference. Of a concatenation: whether its result is a
  // chained text. Of a call of a library's function: whether the next instruction writes the
  // result.
  bool refer = false;
  HotLoad load = HotLoad::Number;  // of a record that loads
  HotForm form = HotForm::Double;  // of a temporary or constant that is stored, pushed or returned
  // Of a group's first plain record: how often the group has not applied.
  mutable unsigned char misfits = 0;
  unsigned short code = 0;  // the instruction's number, see base/compiled/Instructions.h
  mutable unsigned short misfit_time = 0;  // and when the last time was
  int start = 0;   // offset of the instruction, or of a group's first, in the segment
  int first = 0;   // integer operands; a constant as an integer. In a group: where the left
  int second = 0;  // operand is, the right one, and where the outcome goes, see Offset()
  int third = 0;
  int length = 0;       // of a text
  double number = 0.0;  // a constant as a double
  union {
    const char* text = nullptr;
    const HotOp* target;  // of a jump
  };
  mutable MemberHint hint;              // of a record that looks up a member
  mutable const void* place = nullptr;  // the address of the action in the loop, see SetPlaces()
  // Where the machine code for this record begins, null if there is none; see NativeCode.
  mutable const void* native = nullptr;
  // The plain record of the instruction; in a group, of the group's first instruction. Never null.
  const HotOp* plain = nullptr;
  // Of a plain record: the one to go on with in the fast list; null inside a group.
  const HotOp* fast = nullptr;

  // Whether a value is used only as a number, or only for its value, by an operation that is
  // certain to be reached. Then nothing can tell a number or a text from the variable that has it.
  // Or a call's result is popped into a variable at once.
  enum Use : unsigned char { UsedAsValue = 1, UsedAsNumber = 2, Stored = 4 };

  // In a group, an operand that is a row, a temporary or a place is told by its distance in bytes
  // from the beginning of the table: that of the variable in the row. Temporaries and places have
  // the layout of rows.
  static constexpr int kRowSize = 16;
  static constexpr int kVariableInRow = 8;
  static constexpr int Offset(int position) { return position * kRowSize + kVariableInRow; }
  static constexpr int PositionOf(int offset) { return offset / kRowSize; }
};

// Machine code for the fast list of a HotCode, which base/machine/NativeCompiler.h makes. Deleting
// it frees the memory of the code.
struct NativeCode {
  virtual ~NativeCode() = default;
  const void* entrance = nullptr;  // the code that the loop calls
};

class HotCode {
 public:
  // The temporaries that a group may have.
  static const int kTemporaries = 32;
  // The entries that the stack has room for between two actions of the loop. An idiom, or its
  // instructions run one by one, never push more before they pop any.
  static const int kRoom = 6;
  // Jumps and calls until machine code is made, and how many more for each record: making it takes
  // about as long as these. With 1 and 0 it is made when the code begins to run. Only a test
  // changes them.
  static inline int jumps_until_native = 1000;
  static inline int jumps_a_record = 40;
  // The operands that a concatenation of a group may have.
  static const int kMostJoined = 32;
  // The variables of a table that groups may use. Those at later positions are left to the
  // instructions one by one.
  static const int kMostRows = 4096;

  // Decodes that many bytes of code. Borrows the texts of constants from the dictionary. The
  // functions may be null; calls are then left to the machine's loop. REQUIRES: 16 more bytes after
  // the code may be read.
  HotCode(const unsigned char* code, int length, const Dictionary& dictionary,
          const FunctionManager* functions);
  HotCode(const HotCode&) = delete;
  HotCode& operator=(const HotCode&) = delete;

  // A number above 0 that no other HotCode has or had, so that a cache can tell deleted code from
  // code at the same address.
  long serial() const { return code_serial; }

  // How many variables of each table the records of groups name. These do not test whether a table
  // has a row, so the loop makes so many readable before it runs them.
  int globals() const { return named[0]; }
  int locals() const { return named[1]; }

  // Gives all records the address of their action, from the loop's table of addresses by action.
  // Returns whether it was the first time; later nothing is done.
  bool SetPlaces(const void* const* places) const {
    if (has_places) [[likely]]
      return false;
    FindPlaces(places);
    return true;
  }

  // Machine code. It is made when the code has run so often that this takes less time than the runs
  // before it took: the count of jumps and calls is compared with the number of records. Repeated
  // adds to the count and returns whether it is time; it returns true once.
  bool Repeated(int jumps) const {
    if (wanted_jumps <= 0) return false;
    wanted_jumps -= jumps;
    return wanted_jumps <= 0;
  }
  const std::vector<HotOp>& FastList() const { return fast; }
  // Gives the records that have machine code the address in the loop that runs it.
  void SetNativePlaces(const void* place) const;
  // Keeps the machine code, whose addresses the records have, as long as this.
  void Keep(std::unique_ptr<NativeCode> made) const { native_code = std::move(made); }
  const NativeCode* native() const { return native_code.get(); }

  // The record of the instruction at an offset; null if none begins there.
  const HotOp* At(int offset) const {
    if (static_cast<unsigned>(offset) >= static_cast<unsigned>(records.size())) return nullptr;
    const int record = records[static_cast<size_t>(offset)];
    if (record < 0) return nullptr;
    const HotOp* const op = &ops[static_cast<size_t>(record)];
    return op->fast ? op->fast : op;
  }

 private:
  friend struct NativeLayout;

  void FindPlaces(const void* const* places) const;
  void Decode(const unsigned char* code, int length, const Dictionary& dictionary);
  void FindTargets(int length);
  void LeaveBadCalls(const FunctionManager* functions);
  void NoteUses(const FunctionManager* functions);
  void CountRows();
  void MakeFastList(const FunctionManager* functions);
  unsigned char UsesOfTop(size_t i, bool held, const FunctionManager* functions) const;
  void SetCompareTop(size_t i, HotOp* record) const;
  HotAction Idiom(size_t i) const;
  HotAction IdiomOfText(size_t i) const;
  bool IsExternalCall(size_t i, const FunctionManager* functions) const;
  void MarkExternalCall(size_t i, const FunctionManager* functions);
  bool TakesTop(size_t i, const FunctionManager* functions) const;
  void PassJoined();
  bool IsNextElement(size_t i) const;
  size_t LookUpOfEach(size_t i) const;
  HotAction Update(size_t i) const;
  bool Is(size_t i, HotAction action) const { return ops[i].single == action; }
  bool IsHandler(size_t i, int code) const {
    return Is(i, HotAction::Handler) && ops[i].code == code;
  }
  bool IsOut(size_t i) const { return IsHandler(i, Instruction::code_out); }

  long code_serial;
  mutable bool has_places = false;
  int named[2] = {0, 0};
  std::vector<HotOp> ops;        // the plain list; the last ones, after the code, are Leave
  std::vector<HotOp> fast;       // the fast list, which ends in the same way
  std::vector<int> records;      // by offset, -1 where no instruction begins
  mutable int wanted_jumps = 0;  // until machine code is made; 0 or less if it was
  mutable std::unique_ptr<NativeCode> native_code;
};

#endif
