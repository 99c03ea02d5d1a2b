// Administrators start from config/zeph.toml, so its comments have to be true.

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include "base/host/Config.h"
#include "config/Snapshot.h"
#include "tests/support/Paths.h"

namespace {

std::string ExampleText() {
  std::ifstream in(InSource("config/zeph.toml"));
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// The file with all commented-out settings enabled. Prose must not begin with "word = value".
Snapshot WithAllExamples() {
  std::istringstream in(ExampleText());
  std::ostringstream out;
  const std::regex example(R"(# (\w+ = .*|\[.*\]))");
  for (std::string line; std::getline(in, line);) {
    std::smatch match;
    out << (std::regex_match(line, match, example) ? match[1].str() : line) << '\n';
  }
  return Snapshot::Parse("zeph.toml", out.str());
}

TEST(ExampleFile, IsInOrderAsItStands) {
  Snapshot snapshot = Snapshot::Parse("zeph.toml", ExampleText());
  EXPECT_EQ(snapshot.error, "");
  EXPECT_EQ(snapshot.settings.size(), 5u);
  EXPECT_NE(snapshot.Find(Config_dir_zeph), nullptr);
  EXPECT_NE(snapshot.Find(Config_dir_data), nullptr);
  // Without authorities no secure server would be accepted.
  ASSERT_NE(snapshot.Find(Config_dir_ca), nullptr);
  EXPECT_EQ(snapshot.Find(Config_dir_ca)->text, "/etc/ssl/certs");
  // A runaway script takes all memory within seconds, which a service should not allow.
  ASSERT_NE(snapshot.Find(Config_memory_limit), nullptr);
  EXPECT_EQ(snapshot.Find(Config_memory_limit)->integer, 512 << 20);
  // Nor a web server that sends half of a request.
  ASSERT_NE(snapshot.Find(Config_timeout_request), nullptr);
  EXPECT_EQ(snapshot.Find(Config_timeout_request)->integer, 60);
  EXPECT_EQ(snapshot.error_settings, ShippedErrorSettings());
}

TEST(ExampleFile, ShowsEverySettingWithItsDefault) {
  Snapshot snapshot = WithAllExamples();
  ASSERT_EQ(snapshot.error, "");
  Config defaults;
  for (const ConfigSetting& setting : config_settings) {
    SCOPED_TRACE(setting.name);
    const Setting* shown = snapshot.Find(setting.id);
    ASSERT_NE(shown, nullptr);
    if (setting.id == Config_memory_limit || setting.id == Config_timeout_request) continue;
    if ((setting.id & ConfigKind_Integer) != 0) {
      EXPECT_EQ(shown->integer, defaults.value_integer(setting.id));
    } else if (const char* text = defaults.value_string(setting.id)) {
      EXPECT_EQ(shown->text, text);
    }
  }
}

TEST(ExampleFile, ShowsEverySection) {
  Snapshot snapshot = WithAllExamples();
  ASSERT_EQ(snapshot.error, "");
  EXPECT_EQ(snapshot.process.status_listen, "127.0.0.1:8081");
  EXPECT_EQ(snapshot.process.max_requests, 0);
  EXPECT_EQ(snapshot.error_settings, ShippedErrorSettings());
  EXPECT_EQ(snapshot.system_variables.size(), 1u);
  EXPECT_EQ(snapshot.global_variables.size(), 1u);
  EXPECT_EQ(snapshot.libraries.size(), 3u);
  EXPECT_EQ(snapshot.scripts.size(), 1u);
}

}  // namespace
