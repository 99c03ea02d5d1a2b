// Tables of the documents that a list of the engine has too: every setting, every tag and every
// type of a log record has its row.

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "base/host/Settings.h"
#include "base/host/TagErrors.h"
#include "base/host/TagLookup.h"
#include "base/host/ZephApplication.h"
#include "tests/support/Paths.h"
#include "tests/support/TestApplication.h"

namespace {

std::string Document(const std::string& name) {
  std::ifstream file(InSource("docs/" + name));
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

bool HasRow(const std::string& document, const std::string& beginning) {
  return document.find("\n" + beginning) != std::string::npos;
}

std::string DefaultOf(const ConfigSetting& setting) {
  if ((setting.id & ConfigKind_Text) == 0) return std::to_string(setting.default_integer);
  return setting.default_text ? "`" + std::string(setting.default_text) + "`" : "none";
}

TEST(Documents, EverySettingHasARowWithItsKindAndDefault) {
  const std::string document = Document("configuration.md");
  for (const ConfigSetting& setting : config_settings) {
    const std::string beginning = "| `" + std::string(setting.name) + "` | ";
    const char* kind = (setting.id & ConfigKind_Text) != 0 ? "text | " : "integer | ";
    const char* as_switch = setting.default_integer ? "switch | true" : "switch | false";
    EXPECT_TRUE(HasRow(document, beginning + kind + DefaultOf(setting)) ||
                HasRow(document, beginning + as_switch))
        << setting.name;
  }
}

TEST(Documents, EveryTagHasARowWithItsNumberAndDefault) {
  const std::string document = Document("configuration.md");
  int rows = 0;
#define ZEPH_TAG(number, name, value)                                                           \
  EXPECT_TRUE(HasRow(document, "| " #number " | `" + std::string(name) + "` | " #value " |\n")) \
      << (name);                                                                                \
  rows++;
#define ZEPH_TAG_EXPRESSION(number, name, variable, value)                                  \
  EXPECT_TRUE(HasRow(document, "| " #number " | `expression` | " #value " |\n")) << (name); \
  rows++;
#include "base/host/TagErrors.def"
#undef ZEPH_TAG
#undef ZEPH_TAG_EXPRESSION
  // The last slot of the table is no tag's.
  EXPECT_EQ(rows, tag_count - 1);
}

TEST(Documents, EveryTypeOfALogRecordHasARow) {
  const std::string document = Document("log.md");
  TestApplication application;
  int rows = 0;
  for (unsigned bit = 1; bit != 0; bit <<= 1) {
    const std::string name = application.Log_Description(bit);
    if (name == "Unknown") continue;
    rows++;
    // One row is for the four of external functions.
    if (name.rfind("External Function ", 0) == 0) continue;
    EXPECT_TRUE(HasRow(document, "| " + name + " | " + std::to_string(bit) + " |")) << name;
  }
  EXPECT_EQ(rows, 16);
}

}  // namespace
