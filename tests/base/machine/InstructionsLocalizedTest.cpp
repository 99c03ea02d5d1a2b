// The instructions that write texts in the visitor's language.

#include <gtest/gtest.h>

#include "base/host/Config.h"
#include "tests/support/CompiledFileBytes.h"
#include "tests/support/Machine.h"
#include "tools/Assembler.h"

namespace {

// German has one more message than English, which is the default language.
const std::string texts =
    ".language \"en-US\"\n"
    ".message welcome \"Welcome, \" name \"!\"\n"
    ".message count \"Nothing\"\n"
    ".message only_english \"English\"\n"
    ".language de\n"
    ".message welcome \"Willkommen, \" name \"!\"\n"
    ".message only_german \"Deutsch\"\n"
    ".message both a \" und \" b \" und \" a\n";

// Runs a script to its end in a language and returns its output.
std::string Written(const std::string& code, const char* language = "de") {
  Machine machine;
  machine.Assemble(texts + code);
  if (language) machine.application.SetLanguage(language);
  EXPECT_EQ(machine.Go(), 1) << machine.Error();
  EXPECT_EQ(machine.stack().Entries(), 0);
  return machine.Output();
}

TEST(InstructionsLocalized, ATextIsPutTogetherOfItsPieces) {
  const char* code = "pushc \"Ada\"\npoplvnc name\nlocalize welcome";
  EXPECT_EQ(Written(code), "Willkommen, Ada!");
  EXPECT_EQ(Written(code, "DE"), "Willkommen, Ada!") << "names have no case";
  EXPECT_EQ(Written(code, "en-US"), "Welcome, Ada!");
  EXPECT_EQ(Written("pushc \"Ada\"\npoplvnc NAME\nlocalize WELCOME"), "Willkommen, Ada!");
}

TEST(InstructionsLocalized, ATextIsPutOnTheStackAsWell) {
  EXPECT_EQ(Written("pushc \"Ada\"\npoplvnc name\nlocalizev welcome\nout"), "Willkommen, Ada!");
  Machine machine;
  machine.Assemble(texts + "localizev only_english");
  ASSERT_EQ(machine.Go(), 1);
  const ZephVM_Stack::Stack_Entry* top = machine.stack().Peek();
  ASSERT_EQ(top->kind, ZephVM_Stack::KindString);
  EXPECT_EQ(top->deletable, 1);
  EXPECT_EQ(top->length, 7);
  EXPECT_EQ(top->size, 8);
  EXPECT_STREQ(top->value.text, "English");
}

TEST(InstructionsLocalized, ATokenOfNoLanguageIsAnEmptyText) {
  EXPECT_EQ(Written("localize nowhere\npushc \"|\"\nout\nlocalizev nowhere\nout"), "|");
  Machine machine;
  machine.Assemble(texts + "localizev nowhere");
  ASSERT_EQ(machine.Go(), 1);
  const ZephVM_Stack::Stack_Entry* top = machine.stack().Peek();
  ASSERT_EQ(top->kind, ZephVM_Stack::KindString);
  EXPECT_EQ(top->deletable, 1);
  EXPECT_EQ(top->length, 0);
  EXPECT_EQ(top->size, 1);
}

TEST(InstructionsLocalized, TheDefaultLanguageStepsInTokenByToken) {
  EXPECT_EQ(Written("localize only_german\nlocalize only_english"), "DeutschEnglish");
  EXPECT_EQ(Written("localize only_german\nlocalize only_english", "en-US"), "English");
  EXPECT_EQ(Written("localize only_german\nlocalize only_english", "xx"), "English");
}

TEST(InstructionsLocalized, AParameterThatWasNotSetLeavesNothing) {
  EXPECT_EQ(Written("localize welcome"), "Willkommen, !");
  EXPECT_EQ(Written("pushc \"x\"\npoplvnc other\nlocalize welcome"), "Willkommen, !");
  EXPECT_EQ(Written("pushc \"x\"\npoplvnc b\nlocalizev both\nout"), " und x und ");
}

TEST(InstructionsLocalized, AParameterMayStandInATextAgainAndAgain) {
  EXPECT_EQ(Written("pushi 1\npoplvnc a\npushf 2.5\npoplvnc b\nlocalize both"), "1 und 2.5 und 1");
}

TEST(InstructionsLocalized, TheLastValueOfAParameterCounts) {
  EXPECT_EQ(Written("pushc \"x\"\npoplvnc name\npushc \"y\"\npoplvnc Name\nlocalize welcome"),
            "Willkommen, y!");
}

TEST(InstructionsLocalized, ParametersKeepTheValueThatTheyWereGiven) {
  EXPECT_EQ(Written("pushc \"x\"\npopg g\npushg g\npoplvnc name\npushc \"y\"\npopg g\n"
                    "localize welcome\npushg g\nout"),
            "Willkommen, x!y");
  EXPECT_EQ(Written("pushc \"lo\"\npushc \"ng\"\ncat\npoplvnc name\nlocalize welcome"),
            "Willkommen, long!");
}

// This is so whether or not the text that they were set for was written.
TEST(InstructionsLocalized, ParametersServeForOneTextOnly) {
  const std::string set = "pushc \"Ada\"\npoplvnc name\n";
  for (const char* first : {"localize welcome\n", "localize only_german\n", "localize nowhere\n",
                            "localizev welcome\npop\n", "localizev nowhere\npop\n"}) {
    SCOPED_TRACE(first);
    const std::string before = Written(set + first);
    EXPECT_EQ(Written(set + first + "localize welcome"), before + "Willkommen, !");
    EXPECT_EQ(Written(set + first + set + "localize welcome"), before + "Willkommen, Ada!");
  }
}

TEST(InstructionsLocalized, AnotherLanguageCountsFromTheNextTextOn) {
  class Switching : public RecordingOutput {
   public:
    int Write(const char* bytes, int length) override {
      const int written = RecordingOutput::Write(bytes, length);
      if (length == 1 && *bytes == '|') application->SetLanguage("en-US");
      return written;
    }
    ZephApplication* application = nullptr;
  };
  Machine machine;
  machine.Assemble(texts + "localize welcome\npushc \"|\"\nout\nlocalize welcome");
  machine.application.SetLanguage("de");
  Switching output;
  output.application = &machine.application;
  machine.application.SetOutput(&output);
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(output.text, "Willkommen, !|Welcome, !");
}

TEST(InstructionsLocalized, InAFunctionTheyAreTheSame) {
  EXPECT_EQ(Written("pushc \"Ada\"\npoplvnc name\ncall greet\npop\nexit\n"
                    ".function greet()\nlocalize welcome\nretn"),
            "Willkommen, Ada!");
}

TEST(InstructionsLocalized, AFileWithoutTextsHasEmptyOnes) {
  ExpectStack({"localize hello\npushc \"x\"\npoplvnc a\nlocalizev hello", "\"\""});
}

TEST(InstructionsLocalized, TokensAreTextsSoAnotherEntryOfTheSameTextWillDo) {
  EXPECT_EQ(Written(".entry \"WELCOME\"\nlocalize \"WelCome\""), "Willkommen, !");
}

TEST(InstructionsLocalized, AnOldFileHasOneIndexForAnyLanguage) {
  const std::string code = "localize hello\n";
  const std::string old =
      ".version 0x10007\n.language en\n.message hello \"Hello\"\n.language de\n" + code;
  for (const char* language : {"en", "de"}) {
    Machine machine;
    machine.Assemble(old);
    machine.application.SetLanguage(language);
    EXPECT_EQ(machine.Go(), 1);
    EXPECT_EQ(machine.Output(), "Hello") << language;
  }
  Machine machine;
  machine.Assemble(".version 0x10008\n.language en\n.message hello \"Hello\"\n.language de\n" +
                   code);
  machine.application.SetLanguage("de");
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Output(), "");
}

// --- Errors and hostile files --------------------------------------------------------------------

TEST(InstructionsLocalized, WrongOperands) {
  ExpectFailures({
      {"poplvnc name", "Stack underflow"},
      {"pushi 1\npoplvnc 99", "Invalid dictionary reference"},
      {"pushi 1\npoplvnc -1", "Invalid dictionary reference"},
  });
  ExpectStack({"localize 99\nlocalize -1\nlocalizev -2147483648", "\"\""});
}

// A file whose one message, "t" of the language "en-US", has the given pieces.
std::string FileWithPieces(const std::string& pieces, const std::string& code) {
  std::string image, errors;
  std::string source = ".language \"en-US\"\n.message t \"t\"\n" + code + "\n.section \"locd\"\n";
  static const char digits[] = "0123456789abcdef";
  source += ".hex \"";
  for (unsigned char c : pieces) {
    source += digits[c >> 4];
    source += digits[c & 15];
  }
  EXPECT_TRUE(AssembleScript(source + "\"\n", "pieces", &image, &errors)) << errors;
  return image;
}

std::string Piece(int literal, int text, int next) {
  using CompiledFileBytes::LE32;
  return LE32(literal) + LE32(text) + LE32(next);
}

TEST(InstructionsLocalized, ACircleOfPiecesEndsWithTheirCount) {
  using CompiledFileBytes::LE32;
  // Entry 1 of the dictionary is "t", in whatever order the assembler has made the entries.
  for (int next : {0, 1}) {
    SCOPED_TRACE(next);
    Machine machine;
    machine.Load(FileWithPieces(LE32(2) + Piece(1, 0, 1) + Piece(1, 0, next), "localize t"));
    EXPECT_EQ(machine.Go(), 1);
    EXPECT_EQ(machine.output.pieces.size(), 2u);
  }
}

TEST(InstructionsLocalized, PiecesThatAreNotThereEndTheText) {
  using CompiledFileBytes::LE32;
  for (int next : {1, -1, -2, 77, 2147483647}) {
    SCOPED_TRACE(next);
    Machine machine;
    machine.Load(FileWithPieces(LE32(1) + Piece(1, 0, next), "localize t"));
    EXPECT_EQ(machine.Go(), 1);
    EXPECT_EQ(machine.output.pieces.size(), 1u);
  }
  Machine machine;
  machine.Load(FileWithPieces(LE32(0), "localize t\nlocalizev t"));
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.StackText(), "\"\"");
}

TEST(InstructionsLocalized, APieceWithoutATextIsAFatalErrorAndDropsTheParameters) {
  using CompiledFileBytes::LE32;
  for (const char* word : {"localize t", "localizev t"}) {
    for (int literal : {0, 1}) {
      SCOPED_TRACE(word + std::to_string(literal));
      Machine machine;
      machine.Load(FileWithPieces(LE32(2) + Piece(1, 0, 1) + Piece(literal, 1000, -1),
                                  std::string("pushi 1\npoplvnc x\n") + word));
      EXPECT_EQ(machine.Go(), 0);
      EXPECT_EQ(machine.Failure(), "Invalid dictionary reference");
      EXPECT_EQ(machine.stack().Entries(), 0);
    }
  }
}

TEST(InstructionsLocalized, ALongTextEndsWhenTheTimeIsOver) {
  using CompiledFileBytes::LE32;
  class Ending : public RecordingOutput {
   public:
    int Write(const char* bytes, int length) override {
      if (pieces.size() == 2) *flag = 1;
      return RecordingOutput::Write(bytes, length);
    }
    int* flag = nullptr;
  };
  std::string pieces = LE32(1000);
  for (int i = 0; i < 1000; i++) pieces += Piece(1, 0, i + 1);
  Machine machine;
  machine.Load(FileWithPieces(pieces, "localize t"));
  Ending output;
  output.flag = machine.application.timedoutflag();
  machine.application.SetOutput(&output);
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(output.pieces.size(), 4u) << "three pieces, and the message";
}

TEST(InstructionsLocalized, ATextOfManyPiecesTakesLinearTime) {
  using CompiledFileBytes::LE32;
  const int count = 200000;
  std::string pieces = LE32(count);
  for (int i = 0; i < count; i++) pieces += Piece(1, 0, i + 1);
  std::string image = FileWithPieces(LE32(1) + Piece(1, 0, -1), "localizev t");
  Machine machine;
  machine.Load(image);
  for (int i = 1; i < count; i++) machine.localized.Entry_Add(1, 0, i + 1);
  machine.localized.Entry(0)->next = 1;
  int length = 0;
  machine.dictionary.Entry(0, &length);
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(PopText(machine.stack()).size(), static_cast<size_t>(count * length));
}

}  // namespace
