// Which records straight code becomes.

#include "base/compiled/HotGroup.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/Machine.h"

namespace {

const char* NameOf(HotAction action) {
  static const char* const kNames[] = {
#define ACTION(name) #name,
      ZEPH_HOT_ACTIONS
#undef ACTION
  };
  return kNames[static_cast<size_t>(action)];
}

// The actions of the fast list of a program's first segment, up to its end.
std::string Records(const std::string& program) {
  Machine machine;
  machine.Assemble(program + "exit\n");
  const Segment& segment = *machine.segments.Start();
  const HotCode hot(segment.code(), segment.length(), machine.dictionary, &machine.functions);
  std::string text;
  for (const HotOp* op = hot.At(0); op->action != HotAction::Leave; op++) {
    text += std::string(text.empty() ? "" : " ") + NameOf(op->action);
    if (op->action == HotAction::CallWith) op += op->second + 1;
    const bool joins = op->action == HotAction::JoinTo || op->action == HotAction::JoinPush ||
                       op->action == HotAction::JoinCall;
    if (joins) op += op->second;
    if (op->action == HotAction::JoinReturn) break;
  }
  return text;
}

TEST(HotGroup, FieldsAndMovesStayInDecodedCode) {
  EXPECT_EQ(Records("pushdc \"t\", \"a\"\npopg x\npushdc \"t\", \"b\"\nadd\n"),
            "MoveField PopVariable PushField Add");
  for (const char* move :
       {"dbskip", "dbgo", "dbfind", "dbadd", "dbupdate", "dbdelete", "dbundelete"}) {
    EXPECT_EQ(Records(std::string(move) + "\n"), "Records") << move;
  }
}

TEST(HotGroup, AnExpressionNamesItsOperands) {
  EXPECT_EQ(Records("pushg a\npushi 2\nmul\npushg b\nadd\npopg c\n"),
            "MulOfGlobalConstant AddToTemporaryGlobal");
  EXPECT_EQ(Records("pushg a\npushg b\nmod\npopg c\n"), "ModTo");
  EXPECT_EQ(Records("pushi 5\npopg c\npushg a\npopg b\npushc \"t\"\npopg b\n"),
            "MoveNumber MoveVariable MoveText");
}

TEST(HotGroup, AConcatenationIsPassedToALibrarysFunctionThatTakesItByValue) {
  const std::string call = "pushc \"a\"\npushg b\ncat\npushc \"c\"\ncat\ncall f\nout\n";
  EXPECT_EQ(Records(".function f(text) external\n" + call), "JoinCall CallExternal Handler");
  EXPECT_EQ(Records(".function f(first, text) external\npushg a\n" + call),
            "PushVariable JoinCall CallExternal Handler");
  EXPECT_EQ(Records(".function f(text var) external\n" + call), "JoinPush CallExternal Handler");
}

TEST(HotGroup, AComparisonAndItsJumpAreOneRecord) {
  EXPECT_EQ(Records("pushg a\npushg b\nlt\njmp_eq x\nx: "), "JumpIfGreaterEqualGlobalGlobal");
  EXPECT_EQ(Records("pushg a\npushg b\nlt\njmp_ne x\nx: "), "JumpIfLessGlobalGlobal");
  EXPECT_EQ(Records("pushg a\npushi 1\ncmp\njmp_gt x\nx: "), "JumpIfGreaterGlobalConstant");
  EXPECT_EQ(Records("pushg a\npushc \"w\"\neq\njmp_eq x\nx: "), "JumpIfText JumpIfNumber");
  EXPECT_EQ(Records("pushg a\npushg b\nlt\npushg c\nand\njmp_eq x\nx: "),
            "CompareOfGlobalGlobal AndOf JumpIfEqualTemporaryConstant");
}

TEST(HotGroup, AJumpOnANumberIsAComparisonWithZero) {
  EXPECT_EQ(Records("pushg a\npushi 3\nmod\njmp_gt x\nx: "),
            "ModOf JumpIfGreaterTemporaryConstant");
  EXPECT_EQ(Records("pushg a\nnot\njmp_ne x\nx: "), "JumpIfEqualGlobalConstant");
  EXPECT_EQ(Records("pushg a\nnot\njmp_eq x\nx: "), "JumpIfNotEqualGlobalConstant");
  EXPECT_EQ(Records("pushg a\npushg b\nadd\njmp_eq x\nx: "), "AddOfGlobalGlobal JumpIfNumber");
}

TEST(HotGroup, ElementsAndMembersAreFoundOnTheWay) {
  EXPECT_EQ(Records("pushg a\npushg i\nelem_readonly\npushi 1\nadd\npopg b\n"),
            "LoadElementAtGlobal AddToTemporaryConstant");
  EXPECT_EQ(Records("pushg v\npushg a\npushg i\nelem\npushc \"m\"\nmemb\nstore\n"),
            "FindElementAtGlobal StoreMember");
  EXPECT_EQ(Records("pushg a\npushi 1\nelem\ndup\npushg x\nadd\nswap\nstore\n"),
            "LoadElementAtConstant AddOfTemporaryGlobal StoreElementAtConstant");
  EXPECT_EQ(Records("pushg a\npushi 1\nelem_readonly\npushg a\npushi 2\nelem_readonly\ngt\n"
                    "jmp_eq x\nx: "),
            "LoadElementAtConstant LoadElementAtConstant JumpIfLessEqualTemporaryTemporary");
}

TEST(HotGroup, ACallTakesItsArgumentsFromWhereTheyAre) {
  const std::string function = ".function f(p, q var)\nretn\n.end\n";
  EXPECT_EQ(Records("pushg a\npushi 1\nsub\npushg b\ncall f\npop\nexit\n" + function),
            "SubOfGlobalConstant CallWith Pop");
  // What is below the arguments is pushed before.
  EXPECT_EQ(Records("pushg s\npushg a\npushg b\ncall f\nadd\npopg s\nexit\n" + function),
            "PushVariable CallWith Add PopVariable");
}

TEST(HotGroup, AJumpIntoAnExpressionFindsItsStack) {
  EXPECT_EQ(Records("pushg a\npushi 1\nadd\nx: pushi 2\nmul\npopg b\njmp x\n"),
            "AddOfGlobalConstant PushNumber MulConstant Mul PopVariable Jump");
}

TEST(HotGroup, ALineWithinAnExpressionIsNoted) {
  EXPECT_EQ(Records("pushg a\nlineno 7\npushi 1\nadd\npopg b\n"), "NoteLine AddToGlobalConstant");
}

TEST(HotGroup, TheEndOfACountingLoopIsOneRecordThoughItsFirstEntryJumpsIntoIt) {
  EXPECT_EQ(Records("storegi i, 1\njmp x\ny: lineno 2\nincg i, 1\nx: cmpgi i, 9\njmp_le y\n"),
            "StoreConstant Jump Line IncrementCompareJump CompareConstant JumpLessEqual");
}

TEST(HotGroup, OperandsThatAreNoConstantsAreToldByTheirOffset) {
  Machine machine;
  machine.Assemble("pushg a\npushi 5\nadd\npushg b\nmul\npopg c\nexit\n");
  const Segment& segment = *machine.segments.Start();
  const HotCode hot(segment.code(), segment.length(), machine.dictionary, &machine.functions);
  const auto offset = [&machine](const char* name) {
    return HotOp::Offset(machine.global.Seek(-1, name, -1, nullptr));
  };
  const HotOp* const sum = hot.At(0);
  ASSERT_EQ(sum->action, HotAction::AddOfGlobalConstant);
  EXPECT_EQ(sum->first, offset("a"));
  EXPECT_EQ(sum->second, 5);
  EXPECT_EQ(sum->third, HotOp::Offset(0));
  EXPECT_EQ(sum[1].first, HotOp::Offset(0));
  EXPECT_EQ(sum[1].second, offset("b"));
  EXPECT_EQ(sum[1].third, offset("c"));
  EXPECT_EQ(HotOp::PositionOf(HotOp::Offset(17)), 17);
}

TEST(HotGroup, AStepOfALoopOverAnArrayIsOneRecord) {
  EXPECT_EQ(Records("pushg a\nswap\nelem_readonly\ndup\nisnull\njmp_ne x\npopg v\nx: "),
            "PushVariable Swap NextElement Dup Handler JumpNotEqual PopVariable");
}

TEST(HotGroup, OtherInstructionsFindTheirOperandsOnTheStack) {
  EXPECT_EQ(Records("pushg a\npushi 1\nadd\nout\n"), "AddOfGlobalConstant PushNumber Handler");
  EXPECT_EQ(Records("pushg a\npushg i\nelem_readonly\nout\n"), "PushElement Handler");
  EXPECT_EQ(Records("pushg a\npushg b\npow\npopg c\n"),
            "PushVariable PushVariable Handler PopVariable");
}

TEST(HotGroup, AConcatenationIsOneRecord) {
  EXPECT_EQ(Records("pushg a\npushg b\ncat\npopg c\n"), "JoinTo");
  EXPECT_EQ(Records("pushg a\npushc \"t\"\npushg b\npushi 1\nadd\ncat\ncat\npopg c\n"),
            "AddOfGlobalConstant JoinTo");
  EXPECT_EQ(Records("pushg a\npushi 1\nelem_readonly\npushi 3\ncat\npopg c\n"),
            "LoadElementAtConstant JoinTo");
  EXPECT_EQ(Records("pushg a\npushc \"t\"\ncat\nout\n"), "JoinPush Handler");
  EXPECT_EQ(Records("pushg a\npushc \"t\"\ncat\nret\n"), "JoinReturn");
  EXPECT_EQ(Records("pushc \"t\"\nret\n"), "ReturnText");
  // A comparison takes numbers and texts that are there.
  EXPECT_EQ(Records("pushg a\npushg b\ncat\npushc \"t\"\neq\npopg c\n"),
            "JoinPush PushText Equal PopVariable");
}

// An error of the first concatenation names the line that it is on.
TEST(HotGroup, ALineAfterAConcatenationEndsTheGroup) {
  EXPECT_EQ(Records("pushg a\npushg b\ncat\nlineno 6\npushg c\ncat\npopg d\n"),
            "JoinPush Line ConcatenateVariable Concatenate PopVariable");
}

TEST(HotGroup, AConcatenationOfTooManyOperandsGoesOnOnTheStack) {
  std::string program = "pushg a\n";
  for (int i = 0; i < HotCode::kMostJoined; i++) program += "pushg b\ncat\n";
  EXPECT_EQ(Records(program + "popg c\n"), "JoinPush ConcatenateVariable Concatenate PopVariable");
}

TEST(HotGroup, ASearchForATextIsARecordThatAJumpMayFollow) {
  EXPECT_EQ(Records("pushc \"t\"\npushg a\nin\npopg c\n"), "MatchTo");
  EXPECT_EQ(Records("pushg b\npushg a\necin\njmp_eq x\nx: "),
            "MatchOf JumpIfEqualTemporaryConstant");
  EXPECT_EQ(Records("pushc \"t\"\npushc \"u\"\nin\npopg c\n"),
            "PushText PushText Handler PopVariable");
}

}  // namespace
