// Finds the groups of decoded code (base/compiled/HotCode.h) and makes their records.
//
// It runs straight code on a stack of its own, on which entries are not values but operands: where
// a value is, or which record computes it. A push of a variable or constant makes no record; an
// operation makes one that takes its operands from where they are and puts its outcome into a
// temporary; a store, a conditional jump, a call or a return with all that is on that stack ends
// the group. The outcome of the record before a store goes straight into the variable.
//
//   push a, push 2, mul, push b, add, pop c        T0 <- a * 2;  c <- T0 + b
//   push x, push i, elem, push j, elem, ...        P0 <- x[i];  T1 <- P0[j]; ...
//
// A variable is read by the record that uses it and not where it was pushed. This is the same,
// because nothing in a group but its last record changes a variable, and the instructions do the
// same: they push the variable itself and read it at its use.
//
// Where an instruction is met that no group can have, or that leaves values below, what is on the
// stack then has to be there for real. The instructions that made these values are marked, and the
// group is made again: it ends where the first of them is pushed.
//
// Tested in tests/base/machine/HotCodeTest.cpp and tests/base/compiled/HotGroupTest.cpp.

#ifndef ZEPH_BASE_HOTGROUP_H
#define ZEPH_BASE_HOTGROUP_H

#include <cstddef>
#include <vector>

#include "base/compiled/HotCode.h"

class HotGroup {
 public:
  // Borrows the plain list and the marks of the instructions that jumps go to. The last record is
  // that of the end of the code. The functions may be null.
  HotGroup(const std::vector<HotOp>& instructions, const std::vector<bool>& targets,
           const FunctionManager* functions);

  // Makes the group that begins with an instruction. Returns the number of its instructions; 0 if
  // none begins there. records() has the records until the next call; a jump's target is a plain
  // record. REQUIRES: calls are made with rising numbers, because the marks are kept.
  size_t Make(size_t begin);
  const std::vector<HotOp>& records() const { return made; }

  // The orders on which a comparison holds or a conditional jump is made, as in HotOp::orders, and
  // those of two values on which a jump on the outcome of their comparison is made. NaN counts as
  // greater.
  static unsigned char OrdersOf(HotAction action);
  static unsigned char JumpOrders(unsigned char comparison, unsigned char jump);
  // Whether a group's record has a target.
  static bool Jumps(const HotOp& record) {
    return record.action >= HotAction::JumpIfLessGlobalGlobal &&
           record.action <= HotAction::JumpIfNumber && record.action != HotAction::JumpIfText;
  }

 private:
  // What one instruction does to the group.
  enum class Step {
    Goes,
    Ends,
    Apart,  // it cannot be in this group
    Again   // other values have been marked for it
  };
  // How the record that looks up an element or member is used.
  enum class Access : unsigned char { Unused, Loaded, Found };

  // An entry of the stack.
  struct Value {
    HotOperand kind;
    int index = 0;      // of a row or a temporary
    size_t maker = 0;   // the instruction that pushed it
    size_t record = 0;  // of a temporary or place: the record that makes it
    HotForm form = HotForm::Double;
    const HotOp* constant = nullptr;  // of a constant or text: the instruction's record
    std::vector<HotOp> joined;        // of Joined: the operands, as records
    bool adopt = false;               // and whether the result is chained
  };

  Step Take(size_t i);
  Step Push(size_t i);
  Step Note(size_t i);
  Step Arithmetic(size_t i);
  Step OfIntegers(size_t i);
  Step Comparison(size_t i);
  Step Logic(size_t i);
  Step Concatenate(size_t i);
  Step Match(size_t i);
  Step LookUpElement(size_t i);
  Step LookUpMember(size_t i);
  Step Pop(size_t i);
  Step Store(size_t i);
  Step Jump(size_t i);
  Step Return(size_t i);
  Step Call(size_t i);
  Step PushForReal();
  Step MarkBelow(size_t kept);

  HotOp New(HotAction action) const;
  bool AppendJoined(Value* value, std::vector<HotOp>* operands, bool* owned);
  void AddJoined(HotOp record, const Value& value);
  bool AsText(Value* value);
  void AddTemporary(HotOp record, size_t maker, HotForm form);
  bool TakeNumbers(size_t count, HotLoad load, HotOp* record);
  bool AsNumber(Value* value, HotLoad load);
  bool AsPlace(Value* value);
  bool IsUnusedLast(const Value& value) const;
  static void SetLeft(HotOp* record, const Value& value);
  static void SetRight(HotOp* record, const Value& value);

  const std::vector<HotOp>& ops;
  const std::vector<bool>& targets;
  const FunctionManager* functions;
  std::vector<bool> real;  // by instruction: what it pushes has to be on the stack for real

  size_t first = 0;  // the group's first instruction
  std::vector<Value> values;
  std::vector<HotOp> made;
  std::vector<Access> accesses;  // of each record
  int temporaries = 0;
  bool changed = false;  // whether this round has marked an instruction
};

#endif
