// The actions of the hot loop (base/machine/ZephVM_Hot.cpp): the list of operand kinds and the list
// of operations, from which the enumeration here and the labels there are made. A file that uses a
// list defines ACTION first. HotCode.h tells how code becomes records that have these actions.

#ifndef ZEPH_BASE_HOTACTIONS_H
#define ZEPH_BASE_HOTACTIONS_H

// Where an operand of a record is. The names of the first four are part of the names of actions.
//
//   Global, Local   a row of a table of variables
//   Temporary       a number that an earlier record of the same group has made
//   Constant        a number in the record itself
//   Place           a variable that an earlier record of the group has found
//   Text            a text in the record itself
//   Joined          a text that several operands make, one after the other; never in a record
enum class HotOperand : unsigned char { Global, Local, Temporary, Constant, Place, Text, Joined };

// The type that a number has when it leaves a group. In a group all numbers are doubles, which hold
// every integer exactly. As loaded: that of the element or member that the temporary was read from.
enum class HotForm : unsigned char { Double, Integer, AsLoaded };

// What a record may load from an element or member: a number, also one that its text was read as; a
// number without a text, which comparisons, truths and operations on integers need, because these
// have other rules for texts; the latter or a text; or a value of any kind.
enum class HotLoad : unsigned char { Number, NumberAlone, NumberOrText, Any };

// The pairs of operands that an action of its own serves, a left and a right one; two constants are
// never a pair. The order is that of HotOperand, see PairAction in HotGroup.cpp.
// clang-format off
#define ZEPH_HOT_PAIRS(PAIR, name)                                                                     \
  PAIR(name, Global, Global) PAIR(name, Global, Local) PAIR(name, Global, Temporary)                   \
  PAIR(name, Global, Constant)                                                                         \
  PAIR(name, Local, Global) PAIR(name, Local, Local) PAIR(name, Local, Temporary)                      \
  PAIR(name, Local, Constant)                                                                          \
  PAIR(name, Temporary, Global) PAIR(name, Temporary, Local) PAIR(name, Temporary, Temporary)          \
  PAIR(name, Temporary, Constant)                                                                      \
  PAIR(name, Constant, Global) PAIR(name, Constant, Local) PAIR(name, Constant, Temporary)
#define ZEPH_HOT_ACTION_OF(name, left, right) ACTION(name##left##right)
// The same for the index of an element.
#define ZEPH_HOT_INDICES(name) \
  ACTION(name##Global) ACTION(name##Local) ACTION(name##Temporary) ACTION(name##Constant)

// Records of groups. Those that only make or find a temporary come first; the others end a group.
//
//   Add, Sub, Mul, Div            a temporary <- two numbers, an action for each pair
//   Mod ... ShiftRightOf          a temporary <- two integers
//   CompareOf, AndOf, OrOf, ...   a temporary, 0 or 1
//   MatchOf                       a temporary <- the position of a text in another
//   CheckRoom                     the first record of a group whose instructions push many entries
//   NoteLine, NoteSourceFile      lineno and sourcefile; these do no harm if they are run twice
//   LoadElement, LoadMember       a temporary <- the number of an element or member
//   FindElement, FindMember       a place <- the element or member itself
//   AddTo ... CompareTo ...       the same as above, but stored in a variable
//   JumpIf...                     a comparison and a jump on its outcome, an action for each pair;
//                                 a temporary may be an element or member that is a text
//   JumpIfText, JumpIfNumber      a comparison with a constant text, a temporary; and a jump
//   Move...                       a variable <- an operand, an element or a member
//   StoreElement, StoreMember     an element or member <- an operand
//   Push...                       an operand to the stack
//   ReturnNumber                  the return of a temporary or a constant
//   ReturnText                    the return of a constant text
//   JoinTo, JoinPush, JoinReturn  a concatenation that is stored in a variable, pushed or returned;
//                                 its operands are those of the records after it
//   JoinCall                      JoinPush before a call of a library's function, which takes the text
//                                 by value; the record of the call comes after the operands
//   CallWith                      the beginning of a call
//   Send...                       an argument of it: a row, a temporary, a constant or a text by value,
//                                 or a row or place by reference
//   Enter                         the end of the call
//   CompareOf...                  CompareOf of two numbers, an action for each pair
//   ...ElementAt...               what is usual of LoadElement, FindElement, MoveElement and
//                                 StoreElement, an action for each kind of index
#define ZEPH_HOT_GROUP_ACTIONS                                                                         \
  ZEPH_HOT_PAIRS(ZEPH_HOT_ACTION_OF, AddOf) ZEPH_HOT_PAIRS(ZEPH_HOT_ACTION_OF, SubOf)                  \
  ZEPH_HOT_PAIRS(ZEPH_HOT_ACTION_OF, MulOf) ZEPH_HOT_PAIRS(ZEPH_HOT_ACTION_OF, DivOf)                  \
  ACTION(ModOf) ACTION(BitAndOf) ACTION(BitOrOf) ACTION(BitXorOf)                                      \
  ACTION(ShiftLeftOf) ACTION(ShiftRightOf) ACTION(BitNotOf)                                            \
  ACTION(CompareOf) ACTION(CompareLoadedOf) ACTION(CompareTextOf) ACTION(AndOf) ACTION(OrOf) ACTION(NotOf) ACTION(MatchOf)     \
  ACTION(CheckRoom) ACTION(NoteLine) ACTION(NoteSourceFile)                                                              \
  ACTION(LoadElement) ACTION(LoadMember) ACTION(FindElement) ACTION(FindMember)                        \
  ZEPH_HOT_PAIRS(ZEPH_HOT_ACTION_OF, AddTo) ZEPH_HOT_PAIRS(ZEPH_HOT_ACTION_OF, SubTo)                  \
  ZEPH_HOT_PAIRS(ZEPH_HOT_ACTION_OF, MulTo) ZEPH_HOT_PAIRS(ZEPH_HOT_ACTION_OF, DivTo)                  \
  ACTION(ModTo) ACTION(BitAndTo) ACTION(BitOrTo) ACTION(BitXorTo)                                      \
  ACTION(ShiftLeftTo) ACTION(ShiftRightTo) ACTION(BitNotTo)                                            \
  ACTION(CompareTo) ACTION(CompareLoadedTo) ACTION(CompareTextTo) ACTION(AndTo) ACTION(OrTo) ACTION(NotTo) ACTION(MatchTo)     \
  ZEPH_HOT_PAIRS(ZEPH_HOT_ACTION_OF, JumpIfLess) ZEPH_HOT_PAIRS(ZEPH_HOT_ACTION_OF, JumpIfEqual)       \
  ZEPH_HOT_PAIRS(ZEPH_HOT_ACTION_OF, JumpIfLessEqual) ZEPH_HOT_PAIRS(ZEPH_HOT_ACTION_OF, JumpIfGreater) \
  ZEPH_HOT_PAIRS(ZEPH_HOT_ACTION_OF, JumpIfNotEqual)                                                   \
  ZEPH_HOT_PAIRS(ZEPH_HOT_ACTION_OF, JumpIfGreaterEqual)                                               \
  ACTION(JumpIfText) ACTION(JumpIfNumber)                                                              \
  ACTION(MoveVariable) ACTION(MoveNumber) ACTION(MoveText) ACTION(MoveElement) ACTION(MoveMember)                       \
  ACTION(StoreElement) ACTION(StoreMember)                                                             \
  ACTION(PushNumber) ACTION(PushElement) ACTION(PushMember)                                            \
  ACTION(ReturnNumber) ACTION(ReturnText) ACTION(JoinTo) ACTION(JoinPush) ACTION(JoinReturn)           \
  ACTION(JoinCall)                                                                                     \
  ACTION(CallWith) ACTION(SendGlobal) ACTION(SendLocal) ACTION(SendTemporary)                          \
  ACTION(SendConstant) ACTION(SendText) ACTION(SendReference) ACTION(Enter)                            \
  ZEPH_HOT_PAIRS(ZEPH_HOT_ACTION_OF, CompareOf)                                                        \
  ZEPH_HOT_INDICES(LoadElementAt) ZEPH_HOT_INDICES(FindElementAt)                                      \
  ZEPH_HOT_INDICES(MoveElementAt) ZEPH_HOT_INDICES(StoreElementAt)

// Records of single instructions, and of the sequences that work on the entries of the stack.
//
//   Leave                         nothing: the machine's loop runs it
//   Handler                       one instruction, by the machine's own handler: the rows of the
//                                 list of instructions that are run by a HotHandler
//   Records                       a move or a change of records, by the machine's own handler, which
//                                 may run code of a script
//   PushField                     a field of a database; MoveField also pops it into a variable
//   Resume, Rest                  the way from one instruction to the next group, and from a group to
//                                 its instructions while it is set aside
//   PushInteger ... Return        one instruction
//   ReturnNothing                 the return without a value
//   ReturnVariable                the value of a local variable, and the return of it
//   ...Constant, ...Variable      a constant or variable, and an operation on the top and it
//   ...ConstantJump               a constant, a comparison of the top with it, and a jump on it
//   CompareTopJump                the top, which stays, compared with a variable or constant, and a jump
//   NextElement                   a step of a loop over an array: the element at a position, both on
//                                 the stack, is stored in a variable unless it has no value
//   EachElement                   the same with what comes before it: the position on top is raised by
//                                 a constant, and the array is a variable
//   Out...                        a constant text or a variable, written to the output
//   OutRounded                    a constant, and the top rounded to so many decimals and written
//   OutVariableRounded            the same of a variable
//   CallExternal                  a call of a library's function
//   Concatenate...                a constant text or a variable, appended to the text on top
//   ConcatenateTextVariable       a constant text, a variable, and the two together
//   ConcatenateVariableText       the same in the other order, if the variable has a long text
//   Update...Constant/Variable    an operation on the variable on top and something else, and its
//                                 outcome stored in the variable
//   Compare...Jump, ModGlobalsJump  a comparison or a division of globals, and a jump on it
//   IncrementCompareJump          the end of a counting loop: all three of one global
//
// Operations on doubles, and comparisons, are in the same order in every group: see Shifted in
// HotCode.cpp.
#define ZEPH_HOT_ACTIONS                                                                             \
  ACTION(Leave) ACTION(Handler) ACTION(Resume) ACTION(Rest)                                          \
  ACTION(Records) ACTION(PushField) ACTION(MoveField)                                                \
  ACTION(PushInteger) ACTION(PushDouble) ACTION(PushText) ACTION(PushVariable) ACTION(PopVariable)   \
  ACTION(Pop) ACTION(Dup) ACTION(Swap) ACTION(Store) ACTION(Concatenate)                             \
  ACTION(Add) ACTION(Sub) ACTION(Mul) ACTION(Div) ACTION(Mod)                                        \
  ACTION(Equal) ACTION(NotEqual) ACTION(Less) ACTION(LessEqual) ACTION(Greater) ACTION(GreaterEqual) \
  ACTION(Order)                                                                                      \
  ACTION(Jump) ACTION(JumpEqual) ACTION(JumpNotEqual) ACTION(JumpLess)                               \
  ACTION(JumpLessEqual) ACTION(JumpGreater) ACTION(JumpGreaterEqual)                                 \
  ACTION(CompareConstant) ACTION(CompareGlobals) ACTION(ModGlobals)                                  \
  ACTION(Increment) ACTION(StoreConstant) ACTION(Line) ACTION(SourceFile) ACTION(SourceLine)         \
  ACTION(BitAnd) ACTION(BitOr) ACTION(BitXor) ACTION(ShiftLeft) ACTION(ShiftRight) ACTION(BitNot)    \
  ACTION(And) ACTION(Or) ACTION(Not)                                                                 \
  ACTION(Element) ACTION(ElementReadOnly) ACTION(Member) ACTION(MemberReadOnly)                      \
  ACTION(Call) ACTION(Return) ACTION(ReturnNothing) ACTION(ReturnVariable)                           \
  ACTION(ConcatenateText) ACTION(ConcatenateVariable) ACTION(OutText) ACTION(OutVariable)            \
  ACTION(OutVariableRounded) ACTION(CallExternal)                                                    \
  ACTION(EachElement) ACTION(OutRounded) ACTION(ConcatenateTextVariable) ACTION(ConcatenateVariableText)                 \
  ACTION(EqualConstantJump) ACTION(NotEqualConstantJump)                                             \
  ACTION(LessConstantJump) ACTION(LessEqualConstantJump)                                             \
  ACTION(GreaterConstantJump) ACTION(GreaterEqualConstantJump)                                       \
  ACTION(AddConstant) ACTION(SubConstant) ACTION(MulConstant) ACTION(DivConstant) ACTION(ModConstant) \
  ACTION(AddVariable) ACTION(SubVariable) ACTION(MulVariable) ACTION(DivVariable)                    \
  ACTION(UpdateAddConstant) ACTION(UpdateSubConstant)                                                \
  ACTION(UpdateMulConstant) ACTION(UpdateDivConstant)                                                \
  ACTION(UpdateAddVariable) ACTION(UpdateSubVariable)                                                \
  ACTION(UpdateMulVariable) ACTION(UpdateDivVariable)                                                \
  ACTION(CompareTopJump) ACTION(NextElement)                                                                             \
  ACTION(CompareConstantJump) ACTION(CompareGlobalsJump) ACTION(ModGlobalsJump)                      \
  ACTION(IncrementCompareJump)                                                                       \
  ZEPH_HOT_GROUP_ACTIONS
// clang-format on

enum class HotAction : unsigned short {
#define ACTION(name) name,
  ZEPH_HOT_ACTIONS
#undef ACTION
};

#endif
