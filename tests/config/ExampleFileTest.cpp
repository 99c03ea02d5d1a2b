// Administrators start from config/zeph.toml, or from the file of the packages, so their comments
// have to be true.

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include "base/host/Config.h"
#include "config/Snapshot.h"
#include "tests/support/Paths.h"

namespace {

constexpr char kExample[] = "config/zeph.toml";
constexpr char kPackaged[] = "packaging/zeph.toml";

std::string TextOf(const char* path) {
  std::ifstream in(InSource(path));
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// A file with all commented-out settings enabled. Prose must not begin with "word = value".
Snapshot WithAllExamples(const char* path) {
  std::istringstream in(TextOf(path));
  std::ostringstream out;
  const std::regex example(R"(# (\w+ = .*|\[.*\]))");
  for (std::string line; std::getline(in, line);) {
    std::smatch match;
    out << (std::regex_match(line, match, example) ? match[1].str() : line) << '\n';
  }
  return Snapshot::Parse("zeph.toml", out.str());
}

// What the built-in defaults do not limit, but a service should.
void ExpectLimits(const Snapshot& snapshot) {
  // A runaway script takes all memory within seconds.
  ASSERT_NE(snapshot.Find(Config_memory_limit), nullptr);
  EXPECT_EQ(snapshot.Find(Config_memory_limit)->integer, 512 << 20);
  // A web server that sends half of a request holds a thread.
  ASSERT_NE(snapshot.Find(Config_timeout_request), nullptr);
  EXPECT_EQ(snapshot.Find(Config_timeout_request)->integer, 60);
}

TEST(ExampleFile, IsInOrderAsItIs) {
  Snapshot snapshot = Snapshot::Parse("zeph.toml", TextOf(kExample));
  EXPECT_EQ(snapshot.error, "");
  EXPECT_EQ(snapshot.settings.size(), 5u);
  EXPECT_NE(snapshot.Find(Config_dir_zeph), nullptr);
  EXPECT_NE(snapshot.Find(Config_dir_data), nullptr);
  // Without authorities no secure server would be accepted.
  ASSERT_NE(snapshot.Find(Config_dir_ca), nullptr);
  EXPECT_EQ(snapshot.Find(Config_dir_ca)->text, "/etc/ssl/certs");
  ExpectLimits(snapshot);
  EXPECT_EQ(snapshot.error_settings, ShippedErrorSettings());
}

TEST(ExampleFile, ShowsEverySettingWithItsDefault) {
  Snapshot snapshot = WithAllExamples(kExample);
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
  Snapshot snapshot = WithAllExamples(kExample);
  ASSERT_EQ(snapshot.error, "");
  EXPECT_EQ(snapshot.process.status_listen, "127.0.0.1:8081");
  EXPECT_EQ(snapshot.process.max_requests, 0);
  EXPECT_EQ(snapshot.error_settings, ShippedErrorSettings());
  EXPECT_EQ(snapshot.system_variables.size(), 1u);
  EXPECT_EQ(snapshot.global_variables.size(), 1u);
  EXPECT_EQ(snapshot.libraries.size(), 3u);
  EXPECT_EQ(snapshot.scripts.size(), 1u);
}

TEST(PackagedFile, IsInOrderWithTheLimitsOfAService) {
  const Snapshot snapshot = Snapshot::Parse("zeph.toml", TextOf(kPackaged));
  EXPECT_EQ(snapshot.error, "");
  EXPECT_TRUE(snapshot.warnings.empty());
  ExpectLimits(snapshot);
}

TEST(PackagedFile, ShowsWhatOperatorsChangeFirst) {
  const Snapshot snapshot = WithAllExamples(kPackaged);
  ASSERT_EQ(snapshot.error, "");
  ASSERT_NE(snapshot.Find(Config_error_log), nullptr);
  EXPECT_EQ(snapshot.Find(Config_error_log)->text, "/var/log/zeph/error.log");
  EXPECT_EQ(snapshot.process.status_listen, "/run/zeph/engine/status.sock");
  EXPECT_GT(snapshot.process.max_requests, 0);
}

}  // namespace
