// Code that runs often, decoded once. The machine runs a segment's bytes as they stand; when it has
// come back to them a few times, it makes this of them: one record for each instruction, and where
// some instructions in a row are a usual idiom, such as a comparison with a jump behind it, an
// action that does them all at once.
//
// Nothing that a script can observe depends on it. An action does only what can be done without an
// error, without calling anything outside of the machine, and on ordinary variables; in any other
// case the instruction is left to the machine's loop, one by one.

#ifndef ZEPH_BASE_HOTCODE_H
#define ZEPH_BASE_HOTCODE_H

#include <cstddef>
#include <vector>

class Dictionary;

// What the hot loop (base/ZephVM_Hot.cpp) does at an instruction.
enum class HotAction : unsigned char {
  Leave,  // nothing: the machine's loop does it
  // One instruction.
  PushInteger,
  PushDouble,
  PushText,
  PushVariable,
  PopVariable,
  Pop,
  Store,
  Swap,
  Add,
  Sub,
  Mul,
  Div,
  Mod,
  Equal,
  NotEqual,
  Less,
  LessEqual,
  Greater,
  GreaterEqual,
  Jump,
  JumpEqual,
  JumpNotEqual,
  JumpLess,
  JumpLessEqual,
  JumpGreater,
  JumpGreaterEqual,
  CompareConstant,
  Increment,
  StoreConstant,
  Line,
  Element,
  Member,
  Call,
  Return,
  // A variable, a constant, and an operation on the two.
  AddVariableConstant,
  SubVariableConstant,
  MulVariableConstant,
  DivVariableConstant,
  ModVariableConstant,
  // The same, with a jump on the outcome.
  ModVariableConstantJump,
  EqualVariableConstantJump,
  NotEqualVariableConstantJump,
  LessVariableConstantJump,
  LessEqualVariableConstantJump,
  GreaterVariableConstantJump,
  GreaterEqualVariableConstantJump,
  // A constant or a variable, and an operation on it and the top of the stack.
  AddConstant,
  SubConstant,
  MulConstant,
  DivConstant,
  AddVariable,
  SubVariable,
  MulVariable,
  DivVariable,
  // An operation, and its outcome stored in a variable.
  AddPop,
  SubPop,
  MulPop,
  DivPop,
  // A comparison of a global with a constant, and a jump on it.
  CompareConstantJump,
  // An array and a position that are both variables, and the element; the same with one variable.
  ElementOfVariable,
  MemberOfVariable,
};

// One instruction.
struct HotOp {
  HotAction action = HotAction::Leave;
  HotAction single = HotAction::Leave;  // the action for this instruction alone
  bool local = false;                   // whether a variable's position is one of the locals
  int start = 0;                        // offset of the instruction in the segment
  int first = 0;                        // its integer operands
  int second = 0;
  int target = -1;      // of a jump: the record that it leads to
  int length = 0;       // of a text
  double number = 0.0;  // its double operand; a constant integer stands here, too
  const char* text = nullptr;
};

class HotCode {
 public:
  // Decodes that many bytes of code, which have 16 further bytes behind them. The texts of
  // constants stay the dictionary's.
  HotCode(const unsigned char* code, int length, const Dictionary& dictionary);

  // The record of the instruction at an offset; null where none begins.
  const HotOp* At(int offset) const {
    if (static_cast<unsigned>(offset) >= static_cast<unsigned>(records.size())) return nullptr;
    const int record = records[static_cast<size_t>(offset)];
    return record < 0 ? nullptr : &ops[static_cast<size_t>(record)];
  }
  const HotOp* Target(const HotOp* jump) const { return &ops[static_cast<size_t>(jump->target)]; }

 private:
  void Decode(const unsigned char* code, int length, const Dictionary& dictionary);
  void FindTargets(int length);
  HotAction Idiom(size_t i) const;
  HotAction IdiomOfVariableAndConstant(size_t i) const;
  bool Is(size_t i, HotAction action) const { return ops[i].single == action; }

  std::vector<HotOp> ops;    // the last ones, behind the code, leave
  std::vector<int> records;  // by offset, -1 where no instruction begins
};

#endif
