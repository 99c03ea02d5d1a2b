#include "base/database/XBaseFieldSpecification.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// The fields as "NAME type length.decimals", or the message.
std::string Parsed(const std::string& text) {
  List<XBaseField> fields(1);
  String error;
  if (!XBaseFieldSpecification::Parse(text.data(), static_cast<int>(text.size()), fields, &error))
    return error.data ? error.data : "(no message)";
  EXPECT_FALSE(error.data);
  std::string all;
  for (XBaseField* field = fields.First(); field; field = fields.Next()) {
    all += all.empty() ? "" : ", ";
    all += std::string(field->name()) + " " + "CNDLM"[field->type()] + " " +
           std::to_string(field->length()) + "." + std::to_string(field->decimalcount());
  }
  return all;
}

constexpr char kDangling[] = "Dangling comma in field\tspecification";
constexpr char kNoFields[] = "Field specification does not define any\tfields";
constexpr char kLongName[] = "Field name is longer than the XBase limit of 10 characters";
constexpr char kUsedName[] = "Field name is used more than once in the field specification";
constexpr char kNoType[] = "Empty field type in field specification";
constexpr char kUnknown[] = "Unknown field type in field specification";
constexpr char kNoLength[] = "Error in field specification: CHAR datatypes require a length";
constexpr char kLongChar[] = "CHAR fields may\tonly be\t254 characters long, field is too long";
constexpr char kLongNumber[] = "NUMERIC\tfields may only\tbe 19 digits, field is too many digits";
constexpr char kUnexpected[] = "Unexpected character following field declaration";

TEST(XBaseFieldSpecification, TextsHaveTheseResults) {
  const struct {
    std::string text;
    const char* result;
  } cases[] = {
      {"a char(10), b number(8.2), c date, d bool, e memo",
       "A C 10.0, B N 11.2, C D 8.0, D L 1.0, E M 10.0"},
      {" \t\r\na\tchar(10)\n,\rb\tdate ", "A C 10.0, B D 8.0"},
      {"a CHAR(1),b Number,c DaTe,d BOOL,e Memo", "A C 1.0, B N 19.0, C D 8.0, D L 1.0, E M 10.0"},
      {"", kNoFields},
      {" ", kDangling},
      {"name char(3),", kDangling},
      {",name char(3)", kDangling},
      {"a date,,b date", kDangling},
      {"a date, \t,b date", kDangling},
      // Names.
      {"abcdefghij date", "ABCDEFGHIJ D 8.0"},
      {"abcdefghijk date", kLongName},
      {"abc date, ABC date", kUsedName},
      {"abc date, abcd date", "ABC D 8.0, ABCD D 8.0"},
      {"abc", kNoType},
      {"abc  ", kNoType},
      {std::string("\0x date", 7), "Empty field name in field specification"},
      {std::string("a\0x date, a date", 16), kUsedName},
      {"gr\xc3\xb6sse date", "GR\xc3\xb6SSE D 8.0"},
      // Character fields.
      {"a char(254)", "A C 254.0"},
      {"a char(255)", kLongChar},
      {"a char(99999999999999999999)", kLongChar},
      {"a char(1)", "A C 1.0"},
      {"a char(0)", kNoLength},
      {"a char()", kNoLength},
      {"a char(-3)", kNoLength},
      {"a char", kNoLength},
      {"a char 10", kNoLength},
      {"a character (10)", "A C 10.0"},
      {"a char varying(10)", "A C 10.0"},
      {"a char( \t12 )  ", "A C 12.0"},
      {"a char(12x)", "A C 12.0"},
      {"a char(+12)", "A C 12.0"},
      {"a char(10) x", kUnexpected},
      {"a char(10))", kUnexpected},
      {"a char(10", "A C 10.0"},
      // Nineteen bytes of a number are read.
      {"a char(0000000000000000012)", "A C 12.0"},
      {"a char(00000000000000000012)", "A C 1.0"},
      // Numeric fields.
      {"a number", "A N 19.0"},
      {"a number(8)", "A N 8.0"},
      {"a number (8)", "A N 8.0"},
      {"a number(8.0)", "A N 8.0"},
      {"a number(8.)", "A N 8.0"},
      {"a number( 8.2 )", "A N 11.2"},
      {"a number(19)", "A N 19.0"},
      {"a number(20)", kLongNumber},
      {"a number(16.2)", "A N 19.2"},
      {"a number(17.2)", kLongNumber},
      {"a number(19.1)", kLongNumber},
      {"a number(1)", "A N 1.0"},
      {"a number(0)", kLongNumber},
      {"a number()", kLongNumber},
      {"a number(-1)", kLongNumber},
      {"a number(-1.5)", kLongNumber},
      {"a number(8.-2)", kLongNumber},
      {"a number(0.2)", "A N 3.2"},
      {"a number(99999999999.99999999999)", kLongNumber},
      {"a number(8) x", kUnexpected},
      // A comma ends an item wherever it is.
      {"a number(8,2)", kNoType},
      // The other types have nothing more to say.
      {"a datetime", "A D 8.0"},
      {"a boolean", "A L 1.0"},
      {"a memo text", "A M 10.0"},
      {"a text", kUnknown},
      {"a cha", kUnknown},
      {"a numeric(8)", kUnknown},
      {"a (10)", kUnknown},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(Parsed(c.text), c.result);
  }
}

TEST(XBaseFieldSpecification, ALengthOfMinusOneMeasures) {
  List<XBaseField> fields(1);
  String error;
  ASSERT_TRUE(XBaseFieldSpecification::Parse("a date, b date", -1, fields, &error));
  EXPECT_EQ(fields.Entries(), 2);
}

}  // namespace
