#include "tools/Lister.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "base/compiled/Dictionary.h"
#include "base/compiled/Function.h"
#include "base/compiled/Instructions.h"
#include "base/compiled/LocalizedDictionary.h"
#include "base/compiled/LocalizedLanguages.h"
#include "base/compiled/Segment.h"
#include "base/compiled/TaggedFile.h"
#include "base/compiled/VariableHash.h"
#include "tools/Assembler.h"
#include "tools/MemoryFile.h"

namespace {

using testing::HasSubstr;
using testing::Not;

std::string Assembled(const std::string& source) {
  std::string image, errors;
  EXPECT_TRUE(AssembleScript(source, "test.zpa", &image, &errors)) << errors;
  return image;
}

// Returns the listing of an image, and checks that it assembles to the image again.
std::string Listed(const std::string& image) {
  std::string text, error, again, errors;
  EXPECT_TRUE(ListScript(image, &text, &error)) << error;
  EXPECT_TRUE(AssembleScript(text, "listing", &again, &errors)) << errors << text;
  EXPECT_EQ(again, image) << text;
  return text;
}

constexpr char every_kind[] =
    ".version 0x1000A\n"
    ".stamp \"0123456789abcdef\"\n"
    ".flags 5\n"
    ".start 1\n"
    ".system callerid\n"
    ".global unused, a\n"
    ".function remote(x, y var) external\n"
    ".language \"en-US\"\n"
    ".message hello \"Hello \" who\n"
    ".message empty\n"
    ".language de\n"
    ".message hello \"Hallo \" who \"!\" param \"odd name\"\n"
    "noop\n"
    ".segment\n"
    "pushs callerid\n"
    "pushg a\n"
    "pushl a\n"
    "pushf 0.1\n"
    "pushf -inf\n"
    "call remote\n"
    "call twice\n"
    "pop\n"
    "back: pushi 1\n"
    "jmp_eq ahead\n"
    "jmp back\n"
    "ahead: poplvnc who\n"
    "localize hello\n"
    "tagerror 62, 0\n"
    "pushdc \"\", field\n"
    ".word 0x4FFF\n"
    ".dword 7\n"
    "exit\n"
    ".function twice(v) compress erroroff\n"
    "pushl v\npushl v\nadd\npopl w\npushl w\nret\n"
    ".function \"odd name\"\n"
    "retn\n";

TEST(Lister, TheSmallestPageIsListedAsItWasWritten) {
  EXPECT_EQ(Listed(Assembled("pushc \"Hello, world\\n\"\nout\n")),
            "        pushc \"Hello, world\\n\"\n"
            "        out\n");
}

TEST(Lister, ListsEveryInstructionByItsName) {
  for (int i = 0; i < Instruction::RowCount; i++) {
    const Instruction::Row& row = Instruction::Rows[i];
    SCOPED_TRACE(row.name);
    std::string line = row.name;
    if (row.first != Instruction::Operand::None) line += " -7";
    if (row.second != Instruction::Operand::None) line += ", 9";
    EXPECT_EQ(Listed(Assembled(line)), "        " + line + "\n");
  }
}

TEST(Lister, KeepsNamesLabelsAndFunctionsOfAWrittenScript) {
  std::string text = Listed(
      Assembled(".function remote external\npushg a\nagain: call f\ncall remote\njmp again\nexit\n"
                ".function f(x, y var) inherit\npopl z\nretn\n"));
  EXPECT_THAT(text, HasSubstr("pushg a\n"));
  EXPECT_THAT(text, HasSubstr("L6:\n        call f\n"));
  EXPECT_THAT(text, HasSubstr("call remote\n"));
  EXPECT_THAT(text, HasSubstr("jmp L6\n"));
  EXPECT_THAT(text, HasSubstr(".function f(x, y var) inherit\n        popl z\n"));
  EXPECT_THAT(text, Not(HasSubstr(".section")));
}

TEST(Lister, CarriesEverythingThatAScriptCanSay) {
  std::string text = Listed(Assembled(every_kind));
  EXPECT_THAT(text, Not(HasSubstr(".section")));
  EXPECT_THAT(text, Not(HasSubstr(".image")));
  EXPECT_THAT(text, HasSubstr(".stamp \"0123456789abcdef\"\n"));
  EXPECT_THAT(text, HasSubstr(".message hello \"Hallo \" who \"!\" param \"odd name\"\n"));
}

TEST(Lister, TellsOfDictionaryTablesAndOrderOnlyWhereTheyDepart) {
  EXPECT_THAT(Listed(Assembled("pushg b\npushg a\npushc \"c\"\n")),
              testing::AllOf(Not(HasSubstr(".entry")), Not(HasSubstr(".global"))));
  EXPECT_THAT(Listed(Assembled(".global a, b\npushg b\npushg a\n")),
              testing::AllOf(Not(HasSubstr(".entry")), HasSubstr(".global a\n.global b\n")));
  EXPECT_THAT(Listed(Assembled(".entry c, a\npushg a\n")),
              HasSubstr(".entry \"c\"\n.entry \"a\"\n"));
}

TEST(Lister, ListsTablesOfOtherSizes) {
  std::string text = Listed(
      Assembled(".bits global 3\n.bits system 0\n.bits function 5\n.bits language 4\npushg a\n"));
  EXPECT_THAT(text,
              HasSubstr(".bits system 0\n.bits global 3\n.bits function 5\n.bits language 4\n"));
}

TEST(Lister, ListsDuplicateTextsNamesAndFunctionsByNumber) {
  std::string text = Listed(
      Assembled(".entry a, a, f\n.global a\n.global #1\npushc \"a\"\npushc 1\npushg 1\nexit\n"
                ".function #2\nretn\n.function #2\nretn\n"));
  EXPECT_THAT(text, HasSubstr(".global a\n.global #1\n"));
  EXPECT_THAT(text, HasSubstr("pushc 1\n        pushg 1\n"));
  EXPECT_THAT(text, HasSubstr(".function #2\n"));
}

TEST(Lister, ListsFunctionsInAnotherOrderThanTheirCodeByPlace) {
  std::string text = Listed(Assembled(
      ".function late at 0:4\n.function early(x) at 0:2\n.local y\n.function odd at 5:-3\n"
      ".end\nexit\nretn\nretn\n"));
  EXPECT_THAT(text, HasSubstr(".function late at 0:4\n"));
  EXPECT_THAT(text, HasSubstr(".function early(x) at 0:2\n        .local y\n"));
  EXPECT_THAT(text, HasSubstr(".function odd at 5:-3\n"));
}

TEST(Lister, ListsIdsAndJumpsToNowhereByNumber) {
  std::string text =
      Listed(Assembled("pushc 99\npushg -1\npushl 4\ncall 12\njmp 1\njmp -1000000\n"));
  EXPECT_THAT(text, HasSubstr("pushc 99\n        pushg -1\n        pushl 4\n        call 12\n"
                              "        jmp 1\n        jmp -1000000\n"));
}

TEST(Lister, ListsUnknownWordsAndCutOperandsAsData) {
  std::string text =
      Listed(Assembled("noop\n.word 1\n.word 0x6FFF\n.dword 3\n.double 0.5\n"
                       ".word 0x4002\n.byte 1, 2\n"));
  EXPECT_THAT(text, HasSubstr(".word 0x0001"));
  EXPECT_THAT(text, HasSubstr(".double 0.5\n"));
  EXPECT_THAT(text, HasSubstr(".hex \"02400102\"\n"));
}

TEST(Lister, ListsAnOldFileWithItsSingleIndex) {
  std::string text = Listed(
      Assembled(".version 0x10007\n.language en\n.message hello \"Hello\"\nlocalize hello\n"));
  EXPECT_THAT(text, HasSubstr(".version 0x10007\n"));
  EXPECT_THAT(text, HasSubstr(".message hello \"Hello\"\n"));
}

TEST(Lister, ListsOtherSectionsOrdersAndGapsInTheDirectory) {
  std::string text =
      Listed(Assembled(".sections \"segs\", \"dict\", \"glbl\", \"abcd\", \"locd\"\n.section "
                       "\"abcd\"\n.text \"x\"\n"));
  EXPECT_THAT(text, HasSubstr(".section \"abcd\"\n        .hex \"78\"\n"));
  EXPECT_THAT(text, HasSubstr(".sections \"segs\"\n.sections \"dict\"\n"));
}

TEST(Lister, GivesADictionaryLaidOutInAnotherWayAsBytes) {
  // Two entries whose texts are in another order than their ids.
  std::string image = Assembled(
      ".section \"dict\"\n.dword 2, 2, 0, 1, 1, 0, 1\n.text \"ba\"\n.segment 0\npushc 0\nout\n");
  std::string text = Listed(image);
  EXPECT_THAT(text, HasSubstr(".entry \"a\"\n.entry \"b\"\n"));
  EXPECT_THAT(text, HasSubstr("pushc \"a\"\n"));
  EXPECT_THAT(text, HasSubstr(".section \"dict\"\n"));
}

TEST(Lister, GivesWhatNoReaderTakesAsBytes) {
  for (const char* tag : {"dict", "syst", "glbl", "locl", "locd", "segs", "func"}) {
    SCOPED_TRACE(tag);
    std::string text =
        Listed(Assembled(std::string("pushi 1\n.section \"") + tag + "\"\n.hex \"ffffff7f\"\n"));
    EXPECT_THAT(text,
                HasSubstr(std::string(".section \"") + tag + "\"\n        .hex \"ffffff7f\"\n"));
  }
}

TEST(Lister, GivesAFileWithBytesBetweenItsSectionsAsAnImage) {
  std::string image = Assembled("noop\n") + "after the directory";
  EXPECT_THAT(Listed(image), HasSubstr(".image\n"));
}

TEST(Lister, RefusesWhatIsNoCompiledFile) {
  struct Case {
    const char* label;
    std::string image;
    const char* error;
  };
  std::string old = Assembled("noop\n");
  old[4] = 0;
  const Case cases[] = {
      {"empty", "", "File is either corrupt or not a valid compiled Zeph Script file"},
      {"text", std::string(100, 'x'),
       "File is either corrupt or not a valid compiled Zeph Script file"},
      {"version", old, "File was generated by an incompatible version of the Zeph Script Compiler"},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.label);
    std::string text = "left over", error;
    EXPECT_FALSE(ListScript(each.image, &text, &error));
    EXPECT_EQ(error, each.error);
    EXPECT_EQ(text, "");
  }
}

TEST(Lister, GivesEveryDamagedFileBackByteByByte) {
  const std::string whole = Assembled(every_kind);
  for (size_t i = 32; i < whole.size(); i++) {
    for (char value : {'\0', '\x7F', '\xFF'}) {
      std::string image = whole;
      image[i] = value;
      std::string text, error, again, errors;
      if (!ListScript(image, &text, &error)) continue;
      ASSERT_TRUE(AssembleScript(text, "listing", &again, &errors)) << "byte " << i << errors;
      ASSERT_EQ(again, image) << "byte " << i;
    }
  }
}

TEST(Lister, GivesEveryCutFileBackByteByByteOrRefusesIt) {
  const std::string whole = Assembled(every_kind);
  for (size_t length = 0; length < whole.size(); length++) {
    std::string text, error, again, errors;
    if (!ListScript(whole.substr(0, length), &text, &error)) {
      EXPECT_NE(error, "");
      continue;
    }
    ASSERT_TRUE(AssembleScript(text, "listing", &again, &errors)) << errors;
    ASSERT_EQ(again, whole.substr(0, length));
  }
}

TEST(Lister, GivesRandomCodeBackByteByByte) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (int round = 0; round < 200; round++) {
    std::string source = ".text \"x\"\n.function f(a)\n.hex \"";
    const char digits[] = "0123456789abcdef";
    for (unsigned left = random() % 200 * 2; left > 0; left--) source += digits[random() % 16];
    Listed(Assembled(source + "\"\n.global b\n"));
  }
}

}  // namespace
