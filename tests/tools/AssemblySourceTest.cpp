#include "tools/AssemblySource.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>

namespace {

std::vector<AssemblyToken> TokensOf(const std::string& line) {
  std::vector<AssemblyError> errors;
  std::vector<AssemblyLine> lines = ReadAssemblySource(line, &errors);
  EXPECT_TRUE(errors.empty()) << line;
  return lines.empty() ? std::vector<AssemblyToken>() : lines[0].tokens;
}

TEST(AssemblySource, SplitsALineIntoTokensWithTheirColumns) {
  std::vector<AssemblyToken> tokens = TokensOf("  again: pushc \"a;b\", -1 ; note");
  ASSERT_EQ(tokens.size(), 7u);
  EXPECT_EQ(tokens[0].kind, AssemblyToken::Name);
  EXPECT_EQ(tokens[0].text, "again");
  EXPECT_EQ(tokens[0].column, 3);
  EXPECT_EQ(tokens[1].kind, AssemblyToken::Punctuation);
  EXPECT_EQ(tokens[2].text, "pushc");
  EXPECT_EQ(tokens[3].kind, AssemblyToken::Text);
  EXPECT_EQ(tokens[3].text, "a;b");
  EXPECT_EQ(tokens[3].column, 16);
  EXPECT_EQ(tokens[5].kind, AssemblyToken::Number);
  EXPECT_EQ(tokens[5].text, "-1");
  EXPECT_EQ(tokens[6].kind, AssemblyToken::End);
}

TEST(AssemblySource, CountsLinesFromOneAndPassesOverEmptyOnes) {
  std::vector<AssemblyError> errors;
  std::vector<AssemblyLine> lines = ReadAssemblySource("\n; only a note\r\nout\r\n\nnoop", &errors);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].number, 3);
  EXPECT_EQ(lines[1].number, 5);
}

TEST(AssemblySource, ResolvesEscapes) {
  std::vector<AssemblyToken> tokens = TokensOf(R"("\n\r\t\0\\\"\x41\xff")");
  ASSERT_EQ(tokens.size(), 2u);
  EXPECT_EQ(tokens[0].text, std::string("\n\r\t\0\\\"A\xff", 8));
}

TEST(AssemblySource, TakesASignAsPartOfANumberOnlyWhereOneBelongs) {
  EXPECT_EQ(TokensOf("1e-5")[0].text, "1e-5");
  EXPECT_EQ(TokensOf("0x1e-5")[0].text, "0x1e");
  EXPECT_EQ(TokensOf("-inf")[0].text, "-inf");
}

TEST(AssemblySource, ReportsWhatItDoesNotKnowAndDropsTheLine) {
  struct Case {
    const char* line;
    int column;
    const char* text;
  };
  const Case cases[] = {
      {"pushc \"open", 7, "expected a closing '\"' on the same line"},
      {"pushc \"a\\q\"", 9, "expected one of \\n \\r \\t \\0 \\\\ \\\" \\xHH"},
      {"pushc \"\\x4\"", 8, "expected two hexadecimal digits after \\x"},
      {"out %", 5, "expected an instruction, a directive or an operand, found '%'"},
      {"out \x01", 5, "expected an instruction, a directive or an operand, found byte 1"},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.line);
    std::vector<AssemblyError> errors;
    EXPECT_TRUE(ReadAssemblySource(each.line, &errors).empty());
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].line, 1);
    EXPECT_EQ(errors[0].column, each.column);
    EXPECT_EQ(errors[0].text, each.text);
  }
}

TEST(AssemblySource, ReadsIntegersOfThirtyTwoBits) {
  struct Case {
    const char* spelling;
    bool valid;
    int value;
  };
  const Case cases[] = {
      {"0", true, 0},
      {"010", true, 10},
      {"-1", true, -1},
      {"+7", true, 7},
      {"2147483647", true, 2147483647},
      {"4294967295", true, -1},
      {"4294967296", false, 0},
      {"-2147483648", true, -2147483647 - 1},
      {"-2147483649", false, 0},
      {"0xFF", true, 255},
      {"0xffffffff", true, -1},
      {"-0x10", true, -16},
      {"0x", false, 0},
      {"1.5", false, 0},
      {"12a", false, 0},
      {"-", false, 0},
      {"", false, 0},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.spelling);
    int value = 0;
    EXPECT_EQ(ParseInteger(each.spelling, &value), each.valid);
    EXPECT_EQ(value, each.value);
  }
}

TEST(AssemblySource, ReadsDoublesAndTheirBits) {
  struct Case {
    const char* spelling;
    bool valid;
    double value;
  };
  const Case cases[] = {
      {"0", true, 0},          {"-0", true, -0.0},        {"1.5", true, 1.5},
      {".5", true, 0.5},       {"1e300", true, 1e300},    {"+2", true, 2},
      {"inf", true, HUGE_VAL}, {"-inf", true, -HUGE_VAL}, {"0x3ff8000000000000", true, 1.5},
      {"one", false, 0},       {"1.5x", false, 0},        {"0x10000000000000000", false, 0},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.spelling);
    double value = 0;
    EXPECT_EQ(ParseDouble(each.spelling, &value), each.valid);
    EXPECT_EQ(std::bit_cast<uint64_t>(value), std::bit_cast<uint64_t>(each.value));
  }
}

TEST(AssemblySource, SpelledDoublesReadBackBitByBit) {
  for (uint64_t bits : {0ull, 0x8000000000000000ull, 0x3FB999999999999Aull, 0x7FF0000000000000ull,
                        0xFFF0000000000000ull, 0x7FF8000000000000ull, 0xFFF4000000000001ull, 1ull,
                        0x7FEFFFFFFFFFFFFFull}) {
    double value = 0;
    std::string spelling = SpellDouble(std::bit_cast<double>(bits));
    EXPECT_TRUE(ParseDouble(spelling, &value)) << spelling;
    EXPECT_EQ(std::bit_cast<uint64_t>(value), bits) << spelling;
  }
}

TEST(AssemblySource, QuotedTextReadsBackByteByByte) {
  std::string all;
  for (int i = 0; i < 256; i++) all += static_cast<char>(i);
  for (const std::string& bytes : {all, std::string("gr\xC3\xBC\xC3\x9F"), std::string()}) {
    std::vector<AssemblyToken> tokens = TokensOf(QuoteText(bytes));
    ASSERT_EQ(tokens.size(), 2u);
    EXPECT_EQ(tokens[0].text, bytes);
  }
}

TEST(AssemblySource, QuotesUTF8AsItIsAndOtherHighBytesAsEscapes) {
  EXPECT_EQ(QuoteText("gr\xC3\xBCn"), "\"gr\xC3\xBCn\"");
  EXPECT_EQ(QuoteText("gr\xFCn"), "\"gr\\xFCn\"");
}

}  // namespace
