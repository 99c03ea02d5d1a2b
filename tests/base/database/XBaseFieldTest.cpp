#include "base/database/XBaseField.h"

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/TableFiles.h"

namespace {

void Read(XBaseField& field, std::string bytes) {
  field.Read(reinterpret_cast<unsigned char*>(bytes.data()));
}

std::string Written(XBaseField& field) {
  std::string bytes(static_cast<size_t>(field.length()) + 1, '#');
  EXPECT_TRUE(field.Write(reinterpret_cast<unsigned char*>(bytes.data())));
  EXPECT_EQ(bytes.back(), '#') << "wrote beyond the field";
  bytes.pop_back();
  return bytes;
}

TEST(XBaseField, TellsWhatItWasMadeWith) {
  XBaseField field(nullptr, "AMOUNT", XBaseField_Numeric, 8, 2);
  EXPECT_STREQ(field.name(), "AMOUNT");
  EXPECT_EQ(field.type(), XBaseField_Numeric);
  EXPECT_EQ(field.length(), 8);
  EXPECT_EQ(field.decimalcount(), 2);
  EXPECT_STREQ(field.data(), "");
}

TEST(XBaseField, TakesANameThatIsNotTerminated) {
  XBaseField field(nullptr, "AMOUNTS", 6, XBaseField_Numeric, 8, 2);
  EXPECT_STREQ(field.name(), "AMOUNT");
}

TEST(XBaseField, AnEmptyValueIsWrittenAsBlanks) {
  XBaseField field(nullptr, "A", XBaseField_Numeric, 4, 0);
  EXPECT_EQ(Written(field), "    ");
}

TEST(XBaseField, OneWithoutBytesHasAnEmptyValue) {
  for (int length : {0, -1, -1000}) {
    XBaseField field(nullptr, "A", XBaseField_Character, length, 0);
    field.Set("text", -1);
    EXPECT_STREQ(field.data(), "");
    EXPECT_EQ(field.length(), 0);
    EXPECT_EQ(Written(field), "");
  }
}

TEST(XBaseField, ReadTakesTheValueByTheRulesOfItsType) {
  const struct {
    const char* label;
    XBaseFieldType type;
    const char* bytes;
    const char* value;
  } cases[] = {
      {"text loses blanks after", XBaseField_Character, "Ann     ", "Ann"},
      {"and keeps those in front", XBaseField_Character, "  Ann   ", "  Ann"},
      {"text without blanks", XBaseField_Character, "Magdalen", "Magdalen"},
      {"text of blanks is empty", XBaseField_Character, "        ", ""},
      {"a tab is no blank", XBaseField_Character, "Ann\t    ", "Ann\t"},
      {"a number loses blanks in front", XBaseField_Numeric, "   12.50", "12.50"},
      {"and keeps those after", XBaseField_Numeric, "12.50   ", "12.50   "},
      {"both", XBaseField_Numeric, " 12.50  ", "12.50  "},
      {"a number of blanks is empty", XBaseField_Numeric, "        ", ""},
      {"a date stays", XBaseField_Date, "20240131", "20240131"},
      {"a date of blanks keeps them", XBaseField_Date, "        ", "        "},
      {"so does a logical", XBaseField_Logical, "        ", "        "},
      {"a logical stays", XBaseField_Logical, " T      ", " T      "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    XBaseField field(nullptr, "A", c.type, 8, 0);
    Read(field, c.bytes);
    EXPECT_STREQ(field.data(), c.value);
    field.SwapOriginal();
    EXPECT_STREQ(field.data(), c.value) << "as the original";
  }
}

TEST(XBaseField, WriteAlignsByTheRulesOfItsType) {
  const struct {
    const char* label;
    XBaseFieldType type;
    const char* value;
    const char* bytes;
  } cases[] = {
      {"text to the left", XBaseField_Character, "Ann", "Ann     "},
      {"full text", XBaseField_Character, "Magdalen", "Magdalen"},
      {"numbers to the right", XBaseField_Numeric, "12.50", "   12.50"},
      {"full number", XBaseField_Numeric, "12345.67", "12345.67"},
      {"empty number", XBaseField_Numeric, "", "        "},
      {"dates to the left", XBaseField_Date, "2024", "2024    "},
      {"logicals to the left", XBaseField_Logical, "T", "T       "},
      {"block numbers to the right", XBaseField_Memo, "17", "      17"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    XBaseField field(nullptr, "A", c.type, 8, 0);
    field.Set(c.value, -1);
    EXPECT_EQ(Written(field), c.bytes);
  }
}

TEST(XBaseField, ANulEndsTheValueInARecord) {
  XBaseField field(nullptr, "A", XBaseField_Character, 6, 0);
  Read(field, std::string("ab\0cd ", 6));
  EXPECT_STREQ(field.data(), "ab");
  EXPECT_EQ(Written(field), "ab    ");
}

TEST(XBaseField, SetCutsAtTheFieldsLength) {
  XBaseField field(nullptr, "A", XBaseField_Character, 4, 0);
  const struct {
    const char* text;
    int length;
    const char* value;
  } cases[] = {{"abc", 3, "abc"},     {"abcd", 4, "abcd"}, {"abcde", 5, "abcd"},
               {"abcde", -1, "abcd"}, {"abcde", 2, "ab"},  {"abc", 0, ""},
               {"abc", -2, ""},       {nullptr, 4, ""},    {nullptr, -1, ""}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.length);
    field.Set("zzzz", 4);
    field.Set(c.text, c.length);
    EXPECT_STREQ(field.data(), c.value);
  }
}

TEST(XBaseField, SetTakesAPartOfItsOwnValue) {
  XBaseField field(nullptr, "A", XBaseField_Character, 8, 0);
  field.Set("Magdalen", -1);
  field.Set(field.data() + 3, 5);
  EXPECT_STREQ(field.data(), "dalen");
}

TEST(XBaseField, SetLeavesTheOriginal) {
  XBaseField field(nullptr, "A", XBaseField_Character, 4, 0);
  Read(field, "old ");
  field.Set("new", 3);
  field.SwapOriginal();
  EXPECT_STREQ(field.data(), "old");
  field.SwapOriginal();
  EXPECT_STREQ(field.data(), "new");
}

TEST(XBaseField, SetOriginalTakesTheValueOver) {
  XBaseField field(nullptr, "A", XBaseField_Character, 4, 0);
  Read(field, "long");
  field.Set("ab", 2);
  field.SetOriginal();
  field.Set("zz", 2);
  field.SwapOriginal();
  EXPECT_STREQ(field.data(), "ab");
}

}  // namespace
