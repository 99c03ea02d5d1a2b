// Searches: in and ein, and their forms without regard to case.

#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>

#include "tests/support/Machine.h"

namespace {

// Runs a search instruction and returns its result.
int Search(const char* instruction, const std::string& needle, const std::string& text) {
  Machine machine;
  machine.Text(needle).Text(text).Op(Instruction::Find(instruction, -1)->word);
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.stack().Entries(), 1);
  EXPECT_EQ(machine.stack().Peek()->kind, ZephVM_Stack::KindInteger);
  return machine.stack().PopI();
}

TEST(InstructionsSearch, PositionsOfFirstAndLastByte) {
  using namespace std::string_literals;
  const struct {
    std::string needle, text;
    int in, cin, ein, ecin;
  } cases[] = {
      {"bc", "abc", 2, 2, 3, 3},
      {"a", "abc", 1, 1, 1, 1},
      {"abc", "abc", 1, 1, 3, 3},
      {"BC", "abc", 0, 2, 0, 3},
      {"bc", "aBcbc", 4, 2, 5, 3},
      {"abcd", "abc", 0, 0, 0, 0},
      {"x", "abc", 0, 0, 0, 0},
      {"aab", "aaaab", 3, 3, 5, 5},
      // An empty needle is found at once by in, and never by ein.
      {"", "abc", 1, 1, 0, 0},
      {"", "", 1, 1, 0, 0},
      {"a", "", 0, 0, 0, 0},
      // Bytes of any value, NUL included.
      {"\0b"s, "a\0b"s, 2, 2, 3, 3},
      {"\xe4", "\xc4\xe4", 2, 2, 2, 2},
      // Only letters have a counterpart of the other case 32 places away.
      {"[", "{[", 2, 2, 2, 2},
      {"@", "`@", 2, 2, 2, 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.needle + " in " + c.text);
    EXPECT_EQ(Search("in", c.needle, c.text), c.in);
    EXPECT_EQ(Search("cin", c.needle, c.text), c.cin);
    EXPECT_EQ(Search("ein", c.needle, c.text), c.ein);
    EXPECT_EQ(Search("ecin", c.needle, c.text), c.ecin);
  }
}

std::string RandomText(size_t length) {
  std::string text(length, ' ');
  for (char& c : text) c = "abAB"[rand() % 4];
  return text;
}

std::string Lower(std::string text) {
  for (char& c : text) c = static_cast<char>(tolower(c));
  return text;
}

// Texts shorter and longer than the length at which another search takes over.
TEST(InstructionsSearch, AgreesWithAPlainSearch) {
  srand(11);
  for (int i = 0; i < 1500; i++) {
    std::string text = RandomText(static_cast<size_t>(i % 2 ? 280 + rand() % 40 : rand() % 700));
    std::string needle = RandomText(static_cast<size_t>(1 + rand() % 9));
    SCOPED_TRACE(needle + " in " + text);
    size_t exact = text.find(needle);
    size_t folded = Lower(text).find(Lower(needle));
    int length = static_cast<int>(needle.size());
    int first = exact == std::string::npos ? 0 : static_cast<int>(exact) + 1;
    int first_folded = folded == std::string::npos ? 0 : static_cast<int>(folded) + 1;
    ASSERT_EQ(Search("in", needle, text), first);
    ASSERT_EQ(Search("cin", needle, text), first_folded);
    ASSERT_EQ(Search("ein", needle, text), first ? first + length - 1 : 0);
    ASSERT_EQ(Search("ecin", needle, text), first_folded ? first_folded + length - 1 : 0);
  }
}

TEST(InstructionsSearch, OperandsOfEveryKindAreReadAsText) {
  ExpectStacks({
      {"pushi 34\npushi 12345\nin", "3"},
      {"pushf 0.5\npushf 10.5\nein", "4"},
      {"pushc \"b\"\npopg x\npushg x\npushc \"a\"\npushc \"b\"\ncat\nin", "2"},
      {"pushc \"a\"\npushi 1\ncat\npushc \"x\"\npushc \"a\"\ncat\npushi 1\ncat\nein", "3"},
      {"pushg nothing\npushc \"abc\"\nin", "1"},
      {"pushc \"a\"\npushs unknown\nin", "0"},
      {"pushc \"abc\"\npopg x\npushg x\npushg x\nein", "3"},
  });
}

TEST(InstructionsSearch, MissingOperandsAreUnderflows) {
  for (const char* name : {"in", "cin", "ein", "ecin"}) {
    ExpectFailure({name, "Stack underflow"});
    ExpectFailure({(std::string("pushc \"a\"\n") + name).c_str(), "Stack underflow"});
  }
}

}  // namespace
