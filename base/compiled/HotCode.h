// HotCode, code that runs often, decoded once. The machine first runs the bytes of a segment
// directly. When it has come back to them a few times it decodes them into one record for each
// instruction. A common sequence of instructions, such as a comparison followed by a jump, gets a
// single action that does them all.
//
// A script cannot observe the difference. An action handles the cases that cannot fail, on ordinary
// variables; in all other cases the machine's loop runs the instructions one by one.

#ifndef ZEPH_BASE_HOTCODE_H
#define ZEPH_BASE_HOTCODE_H

#include <cstddef>
#include <vector>

#include "base/compiled/Instructions.h"

class Dictionary;
class FunctionManager;

// The actions of the hot loop (base/machine/ZephVM_Hot.cpp), each for one instruction or several. A
// file that uses the list defines ACTION first.
//
//   Leave                         nothing: the machine's loop runs it
//   Handler                       one instruction, by the machine's own handler: the rows of the
//                                 list of instructions that are run by a HotHandler
//   Push..., Pop, ..., Return     one instruction
//   ReturnNothing                 the return without a value
//   ReturnVariable                the value of a local variable, and the return of it
//   ...VariableConstant           a variable, a constant, and an operation on the two
//   ...VariableConstantJump       the same, with a jump on the outcome
//   ...VariableConstantCall       the same, with a call of a function that takes the outcome
//   ...Variables, ...VariablesJump  the same with two variables
//   ...Constant, ...Variable      a constant or variable, and an operation on the top and it
//   ...ConstantJump               a constant, a comparison of the top with it, and a jump on it
//   Out...                        a constant text or a variable, written to the output
//   OutRounded                    a constant, and the top rounded to so many decimals and written
//   Concatenate...                a constant text or a variable, appended to the text on top
//   ConcatenateTextVariable       a constant text, a variable, and the two together
//   ConcatenateVariableText       the same in the other order, if the variable has a long text
//   ...Element                    an element of an array, and an operation on the top and it
//   ...Pop                        an operation, and its outcome stored in a variable
//   ...Return                     an operation, and the return of its outcome
//   Update...Constant/Variable    an operation on the variable on top and something else, and its
//                                 outcome stored in the variable
//   Compare...Jump, ModGlobalsJump  a comparison or a division of globals, and a jump on it
//   IncrementCompareJump          the end of a counting loop: all three of one global
//   Element...OfVariable          an array and a position, both variables, and the element
//   ElementOfVariableStore        the same, with the value on the stack stored in the element
//   ElementStore                  the same, of an array and a position on the stack
//   Member...OfVariable           a structure in a variable, a constant name, and the member
//   ...OfVariableUpdate           the same, with an update of the element or member
//
// Operations on doubles, and comparisons, are in the same order in every group: see Shifted in
// HotCode.cpp.
// clang-format off
#define ZEPH_HOT_UPDATES                                                                             \
  ACTION(UpdateAddConstant) ACTION(UpdateSubConstant)                                                \
  ACTION(UpdateMulConstant) ACTION(UpdateDivConstant)                                                \
  ACTION(UpdateAddVariable) ACTION(UpdateSubVariable)                                                \
  ACTION(UpdateMulVariable) ACTION(UpdateDivVariable)
#define ZEPH_HOT_ACTIONS                                                                             \
  ACTION(Leave) ACTION(Handler)                                                                      \
  ACTION(PushInteger) ACTION(PushDouble) ACTION(PushText) ACTION(PushVariable) ACTION(PopVariable)   \
  ACTION(Pop) ACTION(Dup) ACTION(Swap) ACTION(Store) ACTION(Concatenate)                             \
  ACTION(Add) ACTION(Sub) ACTION(Mul) ACTION(Div) ACTION(Mod)                                        \
  ACTION(Equal) ACTION(NotEqual) ACTION(Less) ACTION(LessEqual) ACTION(Greater) ACTION(GreaterEqual) \
  ACTION(Jump) ACTION(JumpEqual) ACTION(JumpNotEqual) ACTION(JumpLess)                               \
  ACTION(JumpLessEqual) ACTION(JumpGreater) ACTION(JumpGreaterEqual)                                 \
  ACTION(CompareConstant) ACTION(CompareGlobals) ACTION(ModGlobals)                                  \
  ACTION(Increment) ACTION(StoreConstant) ACTION(Line) ACTION(SourceFile)                            \
  ACTION(And) ACTION(Or) ACTION(Not)                                                                 \
  ACTION(BitAnd) ACTION(BitOr) ACTION(BitXor) ACTION(BitNot) ACTION(ShiftLeft) ACTION(ShiftRight)    \
  ACTION(Element) ACTION(ElementReadOnly) ACTION(Member) ACTION(MemberReadOnly)                      \
  ACTION(Call) ACTION(Return) ACTION(ReturnNothing) ACTION(ReturnVariable)                           \
  ACTION(ConcatenateText) ACTION(ConcatenateVariable) ACTION(OutText) ACTION(OutVariable)            \
  ACTION(OutRounded) ACTION(ConcatenateTextVariable) ACTION(ConcatenateVariableText)                 \
  ACTION(AddVariableConstant) ACTION(SubVariableConstant)                                            \
  ACTION(MulVariableConstant) ACTION(DivVariableConstant)                                            \
  ACTION(AddVariables) ACTION(SubVariables) ACTION(MulVariables) ACTION(DivVariables)                \
  ACTION(AddVariableConstantCall) ACTION(SubVariableConstantCall)                                    \
  ACTION(MulVariableConstantCall) ACTION(DivVariableConstantCall)                                    \
  ACTION(ModVariableConstant) ACTION(ModVariableConstantJump) ACTION(ModConstant)                    \
  ACTION(EqualVariableConstantJump) ACTION(NotEqualVariableConstantJump)                             \
  ACTION(LessVariableConstantJump) ACTION(LessEqualVariableConstantJump)                             \
  ACTION(GreaterVariableConstantJump) ACTION(GreaterEqualVariableConstantJump)                       \
  ACTION(EqualConstantJump) ACTION(NotEqualConstantJump)                                             \
  ACTION(LessConstantJump) ACTION(LessEqualConstantJump)                                             \
  ACTION(GreaterConstantJump) ACTION(GreaterEqualConstantJump)                                       \
  ACTION(EqualVariablesJump) ACTION(NotEqualVariablesJump)                                           \
  ACTION(LessVariablesJump) ACTION(LessEqualVariablesJump)                                           \
  ACTION(GreaterVariablesJump) ACTION(GreaterEqualVariablesJump)                                     \
  ACTION(AddConstant) ACTION(SubConstant) ACTION(MulConstant) ACTION(DivConstant)                    \
  ACTION(AddVariable) ACTION(SubVariable) ACTION(MulVariable) ACTION(DivVariable)                    \
  ACTION(AddElement) ACTION(SubElement) ACTION(MulElement) ACTION(DivElement)                        \
  ACTION(AddPop) ACTION(SubPop) ACTION(MulPop) ACTION(DivPop)                                        \
  ACTION(AddReturn) ACTION(SubReturn) ACTION(MulReturn) ACTION(DivReturn)                            \
  ZEPH_HOT_UPDATES                                                                                   \
  ACTION(CompareConstantJump) ACTION(CompareGlobalsJump) ACTION(ModGlobalsJump)                      \
  ACTION(IncrementCompareJump)                                                                       \
  ACTION(ElementOfVariable) ACTION(ElementReadOnlyOfVariable) ACTION(ElementOfVariableStore)         \
  ACTION(ElementStore)                                                                               \
  ACTION(MemberOfVariable) ACTION(MemberReadOnlyOfVariable)                                          \
  ACTION(ElementOfVariableUpdate) ACTION(MemberOfVariableUpdate)
// clang-format on

enum class HotAction : unsigned char {
#define ACTION(name) name,
  ZEPH_HOT_ACTIONS
#undef ACTION
};

// One instruction.
struct HotOp {
  HotAction action = HotAction::Leave;
  HotAction single = HotAction::Leave;  // the action for this instruction alone
  bool local = false;                   // whether a variable's position is one of the locals
  // Of the result of the call or the element read before this instruction: whether it is used only
  // as a number, or only for its value, by an operation that is certain to be reached. Then nothing
  // can tell a number or a text from the variable that has it.
  bool after_number = false;
  bool after_value = false;
  // The orders on which a jump is made: bit 0 for less, 1 for equal, 2 for greater.
  unsigned char orders = 0;
  unsigned short code = 0;  // the instruction's number, see base/compiled/Instructions.h
  int start = 0;            // offset of the instruction in the segment
  int first = 0;            // its integer operands; a constant as an integer
  int second = 0;
  int length = 0;  // of a text
  union {
    double number = 0.0;  // a constant as a double
    const char* text;
    const HotOp* target;  // of a jump
  };
};

class HotCode {
 public:
  // Decodes that many bytes of code. Borrows the texts of constants from the dictionary. The
  // functions may be null; calls are then left to the machine's loop. REQUIRES: 16 more bytes after
  // the code may be read.
  HotCode(const unsigned char* code, int length, const Dictionary& dictionary,
          const FunctionManager* functions);

  // A number above 0 that no other HotCode has or had, so that a cache can tell deleted code from
  // code at the same address.
  long serial() const { return code_serial; }

  // The record of the instruction at an offset; null if none begins there.
  const HotOp* At(int offset) const {
    if (static_cast<unsigned>(offset) >= static_cast<unsigned>(records.size())) return nullptr;
    const int record = records[static_cast<size_t>(offset)];
    return record < 0 ? nullptr : &ops[static_cast<size_t>(record)];
  }

 private:
  void Decode(const unsigned char* code, int length, const Dictionary& dictionary);
  void FindTargets(int length);
  void LeaveBadCalls(const FunctionManager* functions);
  enum class Use { Any, Value, Number };
  Use UseOfTop(size_t i, bool held, const FunctionManager* functions) const;
  HotAction Idiom(size_t i) const;
  HotAction IdiomOfVariableAndConstant(size_t i) const;
  HotAction IdiomOfVariables(size_t i) const;
  HotAction Update(size_t i) const;
  bool IsUpdate(size_t i) const { return Is(i, HotAction::Dup) && Update(i) != HotAction::Dup; }
  bool Is(size_t i, HotAction action) const { return ops[i].single == action; }
  bool IsHandler(size_t i, int code) const {
    return Is(i, HotAction::Handler) && ops[i].code == code;
  }
  bool IsOut(size_t i) const { return IsHandler(i, Instruction::code_out); }

  long code_serial;
  std::vector<HotOp> ops;    // the last ones, after the code, are Leave
  std::vector<int> records;  // by offset, -1 where no instruction begins
};

#endif
