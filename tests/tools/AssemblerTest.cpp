#include "tools/Assembler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "base/compiled/Dictionary.h"
#include "base/compiled/Function.h"
#include "base/compiled/Instructions.h"
#include "base/compiled/LocalizedDictionary.h"
#include "base/compiled/LocalizedLanguages.h"
#include "base/compiled/Segment.h"
#include "base/compiled/TaggedFile.h"
#include "base/compiled/VariableHash.h"
#include "tools/MemoryFile.h"

namespace {

std::string Text(const String& text) {
  return text.data ? std::string(text.data, static_cast<size_t>(text.length)) : "(null)";
}

// An assembled script, read with the engine's own readers.
class Script {
 public:
  explicit Script(const std::string& source) {
    EXPECT_TRUE(AssembleScript(source, "test.zpa", &image, &errors)) << errors;
    manager.files["test.zpc"] = image;
    EXPECT_TRUE(file.Open("test.zpc", FileMode_Read)) << Text(file.error());
    EXPECT_TRUE(dictionary.Read(&file));
    EXPECT_TRUE(system.Read(&file, MakeTag("syst")));
    EXPECT_TRUE(globals.Read(&file, MakeTag("glbl")));
    EXPECT_TRUE(languages.Read());
    EXPECT_TRUE(pieces.Read(&file));
    EXPECT_TRUE(segments.Read(&file));
    EXPECT_TRUE(functions.Read(&file));
  }

  std::string Entry(int id) {
    int length = 0;
    const char* text = dictionary.Entry(id, &length);
    return text ? std::string(text, static_cast<size_t>(length)) : "(none)";
  }

  std::string Code(int number = 0) {
    Segment* segment = segments.Lookup(number);
    if (!segment) return "(none)";
    return std::string(reinterpret_cast<const char*>(segment->code()),
                       static_cast<size_t>(segment->length()));
  }

  // The four bytes of an operand.
  int Dword(int position, int number = 0) {
    unsigned value = 0;
    EXPECT_GE(segments.Lookup(number)->Read_Dword(position, &value), 0);
    return static_cast<int>(value);
  }

  std::string image, errors;
  MemoryFileManager manager;
  TaggedFile file{&manager};
  Dictionary dictionary;
  VariableHash system{&dictionary, 12, 512};
  VariableHash globals{&dictionary, 12, 512};
  LocalizedLanguages languages{nullptr, &dictionary, &file, 12, 8};
  LocalizedDictionary pieces;
  SegmentManager segments;
  FunctionManager functions{&dictionary, 8, 64};
};

std::string Bytes(std::initializer_list<int> values) {
  std::string bytes;
  for (int value : values) bytes += static_cast<char>(value);
  return bytes;
}

TEST(Assembler, TheSmallestPageIsTwoLines) {
  Script script("pushc \"Hello, world\\n\"\nout\n");
  EXPECT_EQ(script.Entry(0), "Hello, world\n");
  EXPECT_EQ(script.Code(), Bytes({0x01, 0x40, 0, 0, 0, 0, 21, 0}));
  EXPECT_EQ(script.file.version(), TaggedFile::NewestVersion);
  EXPECT_EQ(script.segments.start(), 0);
}

TEST(Assembler, EmptyTextIsAScriptWithOneEmptySegment) {
  Script script("");
  EXPECT_EQ(script.segments.Segments(), 1);
  EXPECT_EQ(script.Code(), "");
  EXPECT_EQ(script.dictionary.Entries(), 0);
}

TEST(Assembler, AssemblesEveryInstructionOfTheList) {
  for (int i = 0; i < Instruction::RowCount; i++) {
    const Instruction::Row& row = Instruction::Rows[i];
    SCOPED_TRACE(row.name);
    std::string line = row.name;
    if (row.first != Instruction::Operand::None) line += " 1";
    if (row.second != Instruction::Operand::None) line += ", 2";
    Script script(line);
    unsigned short word = 0;
    int operands =
        Instruction::FirstOperandSize(row.word) + Instruction::SecondOperandSize(row.word);
    EXPECT_EQ(script.segments.Lookup(0)->Read_Word(0, &word), 2);
    EXPECT_EQ(word, row.word);
    EXPECT_EQ(script.segments.Lookup(0)->length(), 2 + operands);
    if (row.second != Instruction::Operand::None) {
      EXPECT_EQ(script.Dword(6), 2);
    }
  }
}

// A word that this build does not run would deserve a warning.
TEST(Assembler, EveryInstructionOfTheListIsRun) {
  for (int i = 0; i < Instruction::RowCount; i++) {
    EXPECT_NE(Instruction::Rows[i].run, Instruction::Run::Absent) << Instruction::Rows[i].name;
  }
}

TEST(Assembler, OneTextHasOneEntry) {
  Script script("pushc \"a\"\npushc \"b\"\npushc \"a\"\npushnc a\n");
  EXPECT_EQ(script.dictionary.Entries(), 2);
  EXPECT_EQ(script.Dword(14), 0);
  EXPECT_EQ(script.Dword(20), 0);
}

TEST(Assembler, EntryAddsATextAgain) {
  Script script(".entry \"a\", \"a\"\npushc \"a\"\npushc #1\npushc 1\n");
  EXPECT_EQ(script.dictionary.Entries(), 2);
  EXPECT_EQ(script.Dword(2), 0);
  EXPECT_EQ(script.Dword(8), 1);
  EXPECT_EQ(script.Dword(14), 1);
}

TEST(Assembler, NumbersStandAsTheyAre) {
  Script script("pushi -2\npushf 1.5\ntagerror 62, 3\n");
  EXPECT_EQ(script.Dword(2), -2);
  double value = 0;
  script.segments.Lookup(0)->Read_Double(8, &value);
  EXPECT_EQ(value, 1.5);
  EXPECT_EQ(script.Dword(18), 62);
  EXPECT_EQ(script.Dword(22), 3);
}

TEST(Assembler, AVariableGetsItsPlaceAtItsFirstUseWhateverTheCase) {
  Script script("pushg Count\npushg other\npushg COUNT\npushs \"a name\"\n");
  EXPECT_EQ(script.globals.Entries(), 2);
  EXPECT_EQ(script.Dword(2), 0);
  EXPECT_EQ(script.Dword(8), 1);
  EXPECT_EQ(script.Dword(14), 0);
  EXPECT_EQ(script.system.Seek(-1, "a name", -1, nullptr), 0);
}

TEST(Assembler, DeclaredVariablesKeepTheOrderOfTheirDeclaration) {
  Script script(".global b, a\n.global b\npushg a\n");
  EXPECT_EQ(script.globals.Entries(), 2);
  EXPECT_EQ(script.Dword(2), 1);
}

TEST(Assembler, LabelsGiveDistancesFromAfterTheOperand) {
  Script script("again: noop\njmp again\njmp ahead\nnoop\nahead:\n");
  EXPECT_EQ(script.Dword(4), -8);
  EXPECT_EQ(script.Dword(10), 2);
}

TEST(Assembler, ADistanceWithASecondOperandCountsFromAfterBoth) {
  Script script("op_httpn done, 5\nnoop\ndone: noop\n");
  EXPECT_EQ(script.Dword(2), 2);
  EXPECT_EQ(script.Dword(6), 5);
}

TEST(Assembler, AFunctionHasItsParametersFlagsAndPlace) {
  Script script(
      "exit\n.function Add(a, b var, \"odd name\") compress inherit 0x100\npushl b\nret\n");
  ASSERT_EQ(script.functions.Functions(), 1);
  Function* function = script.functions.Function_Get("ADD", -1);
  ASSERT_NE(function, nullptr);
  EXPECT_EQ(Text(function->name()), "Add");
  EXPECT_EQ(function->flags(), 2 | 16 | 0x100);
  EXPECT_EQ(function->segment(), 0);
  EXPECT_EQ(function->offset(), 2);
  ASSERT_EQ(function->parameters().Entries(), 3);
  FunctionParameter* parameter = function->parameters().First();
  EXPECT_EQ(Text(parameter->name()), "a");
  EXPECT_FALSE(parameter->byreference());
  parameter = function->parameters().Next();
  EXPECT_TRUE(parameter->byreference());
  EXPECT_EQ(parameter->index(), 1);
  parameter = function->parameters().Next();
  EXPECT_EQ(Text(parameter->name()), "odd name");
  EXPECT_EQ(script.Dword(4), 1);
}

TEST(Assembler, CallsReachFunctionsFurtherDown) {
  Script script("call second\nexit\n.function first\nretn\n.function second\nretn\n");
  EXPECT_EQ(script.Dword(2), 1);
}

TEST(Assembler, AnExternalFunctionHasNoPlace) {
  Script script(".function Remote(a) external\ncall Remote\n");
  Function* function = script.functions.Lookup(0);
  ASSERT_NE(function, nullptr);
  EXPECT_EQ(function->flags(), 1);
  EXPECT_EQ(function->segment(), -1);
  EXPECT_EQ(function->offset(), -1);
  EXPECT_EQ(function->parameters().Entries(), 1);
}

TEST(Assembler, LocalNamesBelongToTheirFunctionAndAreGlobalOutside) {
  Script script(
      "pushl x\nexit\n"
      ".function f(y)\n.local z\npushl z\npushl x\nretn\n"
      ".end\npushl x\n");
  EXPECT_EQ(script.globals.Entries(), 1);
  Function* function = script.functions.Lookup(0);
  ASSERT_NE(function, nullptr);
  EXPECT_EQ(function->variables().Entries(), 3);
  EXPECT_EQ(script.Dword(10), 1);
  EXPECT_EQ(script.Dword(16), 2);
  EXPECT_EQ(script.Dword(24), 0);
}

TEST(Assembler, SegmentsAreNumberedAndCanBeContinued) {
  Script script(".start 1\nnoop\n.segment\nexit\n.segment 0\npop\n.segment 2\nout\n");
  EXPECT_EQ(script.segments.Segments(), 3);
  EXPECT_EQ(script.segments.start(), 1);
  EXPECT_EQ(script.Code(0), Bytes({0, 0, 11, 0}));
  EXPECT_EQ(script.Code(1), Bytes({67, 0}));
  EXPECT_EQ(script.Code(2), Bytes({21, 0}));
}

TEST(Assembler, HeaderDirectivesReachTheHeader) {
  Script script(".version 0x10009\n.stamp \"build 7\"\n.flags 1\n");
  EXPECT_EQ(script.file.version(), 0x10009u);
  EXPECT_EQ(std::string(script.file.stamp(), 16), std::string("build 7\0\0\0\0\0\0\0\0\0", 16));
  EXPECT_EQ(script.dictionary.flags(), 1);
}

TEST(Assembler, DataDirectivesWriteBytesIntoTheCode) {
  Script script(".byte 1, -1\n.word 0x1234\n.dword -2\n.double 1.5\n.text \"ab\"\n.hex \"00ff\"\n");
  EXPECT_EQ(script.Code(), Bytes({1, 0xFF, 0x34, 0x12, 0xFE, 0xFF, 0xFF, 0xFF, 0, 0,
                                  0, 0,    0,    0,    0xF8, 0x3F, 'a',  'b',  0, 0xFF}));
}

TEST(Assembler, MessagesAreChainsOfPiecesInTheirLanguage) {
  Script script(
      ".language \"en-US\"\n"
      ".message greeting \"Hello, \" name \"!\"\n"
      ".message nothing\n"
      ".language de\n"
      ".message greeting \"Hallo\"\n"
      "localize greeting\n");
  ASSERT_EQ(script.languages.Entries(), 2);
  LocalizedLanguages::LanguageEntry* english = script.languages.Get_Language_Entry("EN-us", -1);
  ASSERT_NE(english, nullptr);
  ASSERT_NE(english->index, nullptr);
  ASSERT_EQ(english->index->Entries(), 2);
  EXPECT_EQ(english->index->Index(1)->first, -1);
  LocalizedDictionary::Piece* piece = script.pieces.Entry(english->index->Index(0)->first);
  ASSERT_NE(piece, nullptr);
  EXPECT_NE(piece->literal, 0);
  EXPECT_EQ(script.Entry(piece->text), "Hello, ");
  piece = script.pieces.Entry(piece->next);
  ASSERT_NE(piece, nullptr);
  EXPECT_EQ(piece->literal, 0);
  EXPECT_EQ(script.Entry(piece->text), "name");
  piece = script.pieces.Entry(piece->next);
  ASSERT_NE(piece, nullptr);
  EXPECT_EQ(script.Entry(piece->text), "!");
  EXPECT_EQ(piece->next, -1);
}

TEST(Assembler, GivenSectionsReplaceMadeOnesAndNewOnesComeLast) {
  Script script(
      "pushi 1\n.section \"extr\"\n.text \"more\"\n.section \"locd\"\n.dword 0\n.segment 0\nout\n");
  EXPECT_EQ(script.Code(), Bytes({2, 0x40, 1, 0, 0, 0, 21, 0}));
  int tag = 0, length = 0;
  ASSERT_TRUE(script.file.Section(script.file.Sections() - 1, &tag, &length));
  EXPECT_EQ(tag, MakeTag("extr"));
  EXPECT_EQ(length, 4);
}

TEST(Assembler, SectionsStateTheOrderAndWhatIsLeftOut) {
  std::string image, errors;
  ASSERT_TRUE(AssembleScript(".sections \"segs\", \"dict\"\n", "x", &image, &errors)) << errors;
  MemoryFileManager manager;
  manager.files["x"] = image;
  TaggedFile file(&manager);
  ASSERT_TRUE(file.Open("x", FileMode_Read));
  int tag = 0, length = 0;
  ASSERT_EQ(file.Sections(), 2);
  ASSERT_TRUE(file.Section(0, &tag, &length));
  EXPECT_EQ(tag, MakeTag("segs"));
}

TEST(Assembler, AnImageIsTheWholeFile) {
  std::string image, errors;
  ASSERT_TRUE(AssembleScript(".image\n.text \"anything\"\n.byte 0\n", "x", &image, &errors));
  EXPECT_EQ(image, std::string("anything\0", 9));
}

TEST(Assembler, ErrorsNameFileLineColumnAndWhatWasExpected) {
  struct Case {
    const char* source;
    const char* error;
  };
  const Case cases[] = {
      {"push 1",
       "t:1:1: expected an instruction or a directive, found 'push' (did you mean 'pushc'?)"},
      {"frobnicate", "t:1:1: expected an instruction or a directive, found 'frobnicate'"},
      {"\n  .globl x", "t:2:3: expected a directive, found '.globl'"},
      {"pushi", "t:1:6: expected an integer, found the end of the line"},
      {"pushi \"1\"", "t:1:7: expected an integer, found the text \"1\""},
      {"pushi 99999999999", "t:1:7: expected an integer, found '99999999999'"},
      {"pushf x", "t:1:7: expected a number, found 'x'"},
      {"pushc name", "t:1:7: expected a quoted text, found 'name'"},
      {"pushc #7", "t:1:8: expected the number of an entry that exists, found '7'"},
      {"pushg ,", "t:1:7: expected a global variable, found ','"},
      {"out 1", "t:1:5: expected the end of the line, found '1'"},
      {"tagerror 1",
       "t:1:11: expected ',' and the second operand of 'tagerror', found the end of the line"},
      {"jmp nowhere", "t:1:5: expected a label of this segment, found 'nowhere'"},
      {"a: noop\n.segment\njmp a", "t:3:5: expected a label of this segment, found 'a'"},
      {"call f", "t:1:6: expected a function that a .function declares, found 'f'"},
      {"a: noop\na: noop", "t:2:1: expected a new label: 'a' exists already"},
      {".function f\n.function F", "t:2:11: expected a new function: 'F' exists already"},
      {".function f(a", "t:1:14: expected 'var', ',' or ')', found the end of the line"},
      {".function f(a) loud",
       "t:1:16: expected external, compress, erroron, erroroff, inherit, a "
       "number or 'at', found 'loud'"},
      {".local x", "t:1:8: expected a .function above, found 'x'"},
      {"out\n  .end", "t:2:3: expected a .function above, found '.end'"},
      {".function f\nret\n.end\n.end", "t:4:1: expected a .function above, found '.end'"},
      {".function f\n.segment\n.end", "t:3:1: expected a .function above, found '.end'"},
      {".message m", "t:1:10: expected a .language above, found 'm'"},
      {".start 1", "t:1:8: expected the number of a segment, found '1'"},
      {".segment 2", "t:1:10: expected the number of a segment or the next one, found '2'"},
      {".byte 256", "t:1:7: expected a byte, -128 to 255, found '256'"},
      {".hex \"0g\"",
       "t:1:6: expected a quoted text of pairs of hexadecimal digits, found the "
       "text \"0g\""},
      {".stamp \"12345678901234567\"",
       "t:1:8: expected a text of at most 16 bytes, found the text \"12345678901234567\""},
      {".version 3", "t:1:10: expected a version, 0x10001 to 0x1000B, found '3'"},
      {".section \"abc\"", "t:1:10: expected a quoted tag of four bytes, found the text \"abc\""},
      {".bits global 17", "t:1:14: expected a number of bits, 0 to 16, found '17'"},
      {"pushg x\n.bits global 8",
       "t:2:14: expected system, global, function or language, before "
       "its first use, found '8'"},
      {"\"text\"", "t:1:1: expected an instruction or a directive, found the text \"text\""},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.source);
    std::string image = "left over", errors;
    EXPECT_FALSE(AssembleScript(each.source, "t", &image, &errors));
    EXPECT_EQ(errors, std::string(each.error) + "\n");
    EXPECT_EQ(image, "");
  }
}

TEST(Assembler, ReportsSeveralErrorsInTheOrderOfTheirLines) {
  std::string image, errors;
  EXPECT_FALSE(AssembleScript("jmp a\nnonsense\npushi\n", "t", &image, &errors));
  EXPECT_EQ(errors,
            "t:1:5: expected a label of this segment, found 'a'\n"
            "t:2:1: expected an instruction or a directive, found 'nonsense'\n"
            "t:3:6: expected an integer, found the end of the line\n");
}

TEST(Assembler, StopsReportingAfterTwentyErrors) {
  std::string source, image, errors;
  source = "jmp nowhere\ncall nobody\n";
  for (int i = 0; i < 100; i++) source += "wrong\n";
  EXPECT_FALSE(AssembleScript(source, "t", &image, &errors));
  EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 20);
}

}  // namespace
