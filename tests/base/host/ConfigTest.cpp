#include "base/host/Config.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>

namespace {

char* Owned(const char* text) {
  char* copy = new char[strlen(text) + 1];
  return strcpy(copy, text);
}

// Counts the calls of default_value for each identifier.
class CountingConfig : public Config {
 public:
  ConfigValue* default_value(int id) override {
    asked[id]++;
    return Config::default_value(id);
  }
  std::map<int, int> asked;
};

TEST(Config, HasTheStatedDefaults) {
  Config config;
  const struct {
    int id;
    int expected;
  } integers[] = {
      {0x1000005, 0},       {0x1000007, 90},   {0x1000008, 30},   {0x1000009, 30},
      {0x100000A, 30},      {0x1000026, 30},   {0x1000031, 3600}, {0x1000032, 86400},
      {0x100000B, 100},     {0x100000C, 1},    {0x100000D, 8192}, {0x100000E, 8192},
      {0x100000F, 8192},    {0x1000010, 8192}, {0x1000011, 8192}, {0x1000012, 8192},
      {0x100001D, 1048576}, {0x1000013, 0},    {0x1000021, 0},    {0x1000027, 2000},
      {0x1000028, 1048576}, {0x1000030, 0},    {0x1000014, 90},   {0x1000018, 0},
      {0x1000029, -1},
  };
  for (const auto& c : integers) {
    SCOPED_TRACE(c.id);
    EXPECT_EQ(config.value_integer(c.id), c.expected);
  }
  const struct {
    int id;
    const char* expected;
  } texts[] = {
      {0x2000001, nullptr},
      {0x2000002, nullptr},
      {0x2000003, nullptr},
      {0x2000004, nullptr},
      {0x2000016, nullptr},
      {0x2000019, "public_zix"},
      {0x200001E, nullptr},
      {0x2000006, nullptr},
      {0x2000025, nullptr},
      {0x2000028, nullptr},
      {0x2000015, nullptr},
      {0x2000017, "index.zpc"},
      {0x200001A, "webmaster@localhost"},
      {0x200001D, nullptr},
      {0x200001B, "libssl.so"},
      {0x200001C, "libcrypto.so"},
  };
  for (const auto& c : texts) {
    SCOPED_TRACE(c.id);
    EXPECT_STREQ(config.value_string(c.id), c.expected);
  }
}

TEST(Config, EverySettingHasOneKindBitAndAnIdentifierOfItsOwn) {
  std::set<int> identifiers;
  for (const ConfigSetting& setting : config_settings) {
    SCOPED_TRACE(setting.name);
    int kind = setting.id & ConfigKind_Mask;
    EXPECT_TRUE(kind == ConfigKind_Integer || kind == ConfigKind_Text);
    EXPECT_TRUE(identifiers.insert(setting.id).second);
  }
  EXPECT_EQ(identifiers.size(), 49u);
}

// The identifiers of the two kinds are independent: the same low bits are two settings.
TEST(Config, KindsDoNotMix) {
  CountingConfig config;
  EXPECT_EQ(config.value_integer(Config_dir_zeph), -1);
  EXPECT_EQ(config.value_string(Config_log_level), nullptr);
  EXPECT_EQ(config.SetValue(Config_log_level, "x", 1, 0), 0);
  EXPECT_EQ(config.SetValue_Integer(Config_dir_zeph, 1), 0);
  EXPECT_TRUE(config.asked.empty());
  config.SetValue_Integer(0x100001A, 7);
  EXPECT_STREQ(config.value_string(0x200001A), "webmaster@localhost");
  EXPECT_EQ(config.value_integer(0x100001A), 7);
}

TEST(Config, UnknownIdentifiersReadAsMinusOneAndNull) {
  Config config;
  EXPECT_EQ(config.value_integer(0x1000099), -1);
  EXPECT_EQ(config.value_string(0x2000099), nullptr);
  EXPECT_EQ(config.value_integer(0), -1);
  EXPECT_EQ(config.value_integer(-1), -1);
}

TEST(Config, DefaultsAreCachedAndAbsenceIsNot) {
  CountingConfig config;
  for (int i = 0; i < 3; i++) {
    config.value_integer(Config_cookies);
    config.value_string(Config_dir_user);
    config.value_string(Config_dir_data);
  }
  EXPECT_EQ(config.asked[Config_cookies], 1);
  EXPECT_EQ(config.asked[Config_dir_user], 1);
  EXPECT_EQ(config.asked[Config_dir_data], 3);
}

TEST(Config, SetValueReplacesWhatWasRead) {
  Config config;
  EXPECT_EQ(config.value_integer(Config_timeout_call), 30);
  EXPECT_EQ(config.SetValue_Integer(Config_timeout_call, 5), 1);
  EXPECT_EQ(config.value_integer(Config_timeout_call), 5);
  EXPECT_EQ(config.SetValue(Config_default_file, "home.zpc", 8, 0), 1);
  EXPECT_STREQ(config.value_string(Config_default_file), "home.zpc");
  EXPECT_EQ(config.SetValue(Config_default_file, "start.zpc", -1, 0), 1);
  EXPECT_STREQ(config.value_string(Config_default_file), "start.zpc");
}

TEST(Config, KeepsTheTextPointerItself) {
  Config config;
  const char text[] = "/srv/data";
  config.SetValue(Config_dir_data, text, -1, 0);
  EXPECT_EQ(config.value_string(Config_dir_data), text);
}

// Under the address sanitizer a text that is not freed, or freed twice, fails the test.
TEST(Config, OwnedTextGoesWithTheConfiguration) {
  Config config;
  config.SetValue(Config_lock_hostname, Owned("first"), -1, 1);
  config.SetValue(Config_lock_hostname, Owned("second"), 6, 1);
  EXPECT_STREQ(config.value_string(Config_lock_hostname), "second");
}

TEST(Config, EmptyTextIsSetAndNullTextIsNot) {
  Config config;
  config.SetValue(Config_dir_user, "", 0, 0);
  EXPECT_STREQ(config.value_string(Config_dir_user), "");
  config.SetValue(Config_dir_user, nullptr, -1, 0);
  EXPECT_EQ(config.value_string(Config_dir_user), nullptr);
}

TEST(Config, CopyHasWhatTheSourceHasReadAndNoMore) {
  auto source = std::make_unique<CountingConfig>();
  source->SetValue(Config_dir_data, Owned("/srv/data"), 9, 1);
  source->SetValue_Integer(Config_timeout_async, 60);
  source->SetValue(Config_dir_temp, nullptr, 0, 0);
  Config copy(*source);
  const char* before = source->value_string(Config_dir_data);
  EXPECT_NE(copy.value_string(Config_dir_data), before);
  source.reset();
  EXPECT_STREQ(copy.value_string(Config_dir_data), "/srv/data");
  EXPECT_EQ(copy.value_integer(Config_timeout_async), 60);
  EXPECT_EQ(copy.value_string(Config_dir_temp), nullptr);
  EXPECT_EQ(copy.value_integer(Config_timeout_global), 90);
}

TEST(Config, CopiedTextIsTerminated) {
  Config source;
  source.SetValue(Config_dir_data, "/srv/data/more", 9, 0);
  Config copy(source);
  EXPECT_STREQ(copy.value_string(Config_dir_data), "/srv/data");
}

TEST(Config, BufferSizesOfZeroAndLessCountAs8192) {
  Config config;
  EXPECT_EQ(config.buffer_size(Config_bufsz_output), 8192);
  const struct {
    int value;
    int expected;
  } cases[] = {{1, 1}, {0, 8192}, {-1, 8192}, {-2147483647 - 1, 8192}, {2147483647, 2147483647}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value);
    config.SetValue_Integer(Config_bufsz_output, c.value);
    EXPECT_EQ(config.buffer_size(Config_bufsz_output), c.expected);
    EXPECT_EQ(config.value_integer(Config_bufsz_output), c.value);
  }
}

TEST(Config, AllSettingsCanBeReadSetAndCopied) {
  Config config;
  const auto text = [](const ConfigSetting& setting) { return std::string("x") + setting.name; };
  const auto is_text = [](const ConfigSetting& setting) {
    return (setting.id & ConfigKind_Text) != 0;
  };
  const auto expect_set = [&](Config& store) {
    for (const ConfigSetting& setting : config_settings) {
      SCOPED_TRACE(setting.name);
      if (is_text(setting)) {
        EXPECT_EQ(store.value_string(setting.id), text(setting));
      } else {
        EXPECT_EQ(store.value_integer(setting.id), setting.id - 5);
      }
    }
  };
  for (int round = 0; round < 2; round++) {
    for (const ConfigSetting& setting : config_settings) {
      if (is_text(setting)) {
        config.SetValue(setting.id, Owned(text(setting).c_str()), -1, 1);
      } else {
        config.SetValue_Integer(setting.id, setting.id - 5);
      }
    }
    expect_set(config);
  }
  Config copy(config);
  expect_set(copy);
}

// A configuration library may set a value while it is asked for it.
TEST(Config, AValueThatIsSetWhileItIsReadStays) {
  class SettingConfig : public Config {
   public:
    ConfigValue* default_value(int id) override {
      SetValue(id, Owned("set"), -1, 1);
      return new ConfigValue(id, Owned("read"), -1, 1);
    }
  };
  SettingConfig config;
  for (int id : {int(Config_dir_data), 0x2000099}) {
    EXPECT_STREQ(config.value_string(id), "set");
    EXPECT_STREQ(config.value_string(id), "set");
  }
}

TEST(Config, HoldsMoreValuesThanItsFirstSlots) {
  Config config;
  for (int i = 0; i < 2000; i++) config.SetValue_Integer(0x1010000 + i, i);
  for (int i = 0; i < 2000; i++) ASSERT_EQ(config.value_integer(0x1010000 + i), i);
}

}  // namespace
