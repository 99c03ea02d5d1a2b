#include "base/host/TagErrors.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <thread>

namespace {

TEST(TagErrors, EveryTagIsNumberedByItsPlace) {
  for (int tag = 0; tag < 76; tag++) {
    SCOPED_TRACE(tag);
    EXPECT_EQ(original_tag_default_errorsettings[tag].tag, tag);
    ASSERT_NE(original_tag_default_errorsettings[tag].name, nullptr);
    ASSERT_NE(original_tag_default_errorsettings[tag].variable, nullptr);
  }
}

TEST(TagErrors, ErrorVariableIsNameWithErrorAfterIt) {
  for (int tag = 0; tag < 76; tag++) {
    if (tag == 62) continue;
    const TagErrorSetting& entry = original_tag_default_errorsettings[tag];
    EXPECT_EQ(std::string(entry.name) + "_Error", entry.variable);
  }
}

TEST(TagErrors, ErrorsInExpressionsHaveNamesOfTheirOwn) {
  EXPECT_STREQ(original_tag_default_errorsettings[62].name, "(in expression)");
  EXPECT_STREQ(original_tag_default_errorsettings[62].variable, "ZpEXPRESSION_Error");
  EXPECT_EQ(original_tag_default_errorsettings[62].settings, 3);
}

TEST(TagErrors, LastSlotIsEmpty) {
  EXPECT_EQ(original_tag_default_errorsettings[76].name, nullptr);
  EXPECT_EQ(original_tag_default_errorsettings[76].variable, nullptr);
  EXPECT_EQ(original_tag_default_errorsettings[76].settings, 0);
}

// The shipped settings in the order of the tags: the text has one digit for each tag.
TEST(TagErrors, ShippedSettings) {
  const std::string settings =
      "3313133313113333333"
      "3333333331111311111"
      "1311111111333311011"
      "1110033333333333301";
  ASSERT_EQ(settings.size(), 76u);
  for (int tag = 0; tag < 76; tag++) {
    SCOPED_TRACE(tag);
    EXPECT_EQ(original_tag_default_errorsettings[tag].settings, settings[size_t(tag)] - '0');
    EXPECT_EQ(DefaultErrorSetting(tag), settings[size_t(tag)] - '0');
  }
}

TEST(TagErrors, ChangeReachesCopiesMadeLater) {
  int before[tag_count];
  CopyDefaultErrorSettings(before);
  SetDefaultErrorSetting(28, 2);
  int after[tag_count];
  CopyDefaultErrorSettings(after);
  SetDefaultErrorSetting(28, 1);
  EXPECT_EQ(before[28], 1);
  EXPECT_EQ(after[28], 2);
  EXPECT_STREQ(original_tag_default_errorsettings[28].name, "ZpOPEN");
  EXPECT_STREQ(original_tag_default_errorsettings[28].variable, "ZpOPEN_Error");
  EXPECT_EQ(original_tag_default_errorsettings[28].settings, 1);
}

// Two settings are stored in one word.
TEST(TagErrors, EachChangeIsOfOneTag) {
  int expected[tag_count];
  CopyDefaultErrorSettings(expected);
  for (int tag = 0; tag < tag_count; tag++) {
    SCOPED_TRACE(tag);
    EXPECT_EQ(expected[tag], original_tag_default_errorsettings[tag].settings);
    const int before = expected[tag];
    for (const int value : {-7 - tag, before}) {
      SetDefaultErrorSetting(tag, value);
      expected[tag] = value;
      int copy[tag_count];
      CopyDefaultErrorSettings(copy);
      EXPECT_TRUE(std::equal(copy, copy + tag_count, expected));
      EXPECT_EQ(DefaultErrorSetting(tag), value);
    }
  }
}

TEST(TagErrors, NumbersThatAreNoTagAreIgnored) {
  for (int tag : {-1, 77, 1 << 30}) {
    SetDefaultErrorSetting(tag, 3);
    EXPECT_EQ(DefaultErrorSetting(tag), 0);
  }
}

TEST(TagErrors, TableMayBeSetWhileOthersCopyIt) {
  std::thread writer([] {
    for (int i = 0; i < 1000; i++) SetDefaultErrorSetting(8, i % 4);
    SetDefaultErrorSetting(8, 1);
  });
  for (int i = 0; i < 1000; i++) {
    int copy[tag_count];
    CopyDefaultErrorSettings(copy);
    ASSERT_GE(copy[8], 0);
    ASSERT_LE(copy[8], 3);
  }
  writer.join();
}

}  // namespace
