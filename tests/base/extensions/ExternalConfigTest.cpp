#include "base/extensions/ExternalConfig.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "base/compiled/Dictionary.h"
#include "base/compiled/SystemVariableHash.h"
#include "base/compiled/VariableHash.h"
#include "base/extensions/CommerceLibrary.h"
#include "base/extensions/ExternalCall.h"
#include "base/extensions/ExternalDatabaseLibrary.h"
#include "base/extensions/SystemLibrary.h"
#include "base/host/TagErrors.h"
#include "base/values/Variable.h"
#include "tests/support/LibraryFixture.h"

namespace {

// What the table's functions below return and receive; each test starts with a new one.
struct Script {
  int initialize_result = 0;
  int load_result = 0;
  int integer_result = 0;
  int string_result = 0;
  const char* error_text = "the library's own words";
  const char* answer = "answer";
  int answer_owned = 0;
  // Received:
  std::vector<std::string> calls;
  std::map<int, int> asked;
  void** data_address = nullptr;
  void* data_at_shutdown = nullptr;
  void* arguments = nullptr;
  int argument_count = 0;
  int zero = -1;
  std::string path;
  File* file = nullptr;
};
Script script;
int data_word = 0;

int Initialize(ExternalConfig*, void** data, int zero, void* arguments, int count) {
  script.calls.push_back("initialize");
  EXPECT_EQ(*data, nullptr);
  *data = &data_word;
  script.data_address = data;
  script.zero = zero;
  script.arguments = arguments;
  script.argument_count = count;
  return script.initialize_result;
}

int GetInteger(ExternalConfig*, void** data, int id, int* value) {
  EXPECT_EQ(*data, &data_word);
  script.asked[id]++;
  if (script.integer_result != 0) return script.integer_result;
  *value = 1234;
  return 0;
}

int GetString(ExternalConfig*, void** data, int id, const char** text, int* length, int* owned) {
  EXPECT_EQ(*data, &data_word);
  script.asked[id]++;
  if (script.string_result != 0) return script.string_result;
  *length = int(strlen(script.answer));
  *text = script.answer;
  *owned = script.answer_owned;
  if (script.answer_owned) *text = strcpy(new char[strlen(script.answer) + 1], script.answer);
  return 0;
}

const char* GetError(ExternalConfig*, void**) {
  return script.error_text;
}

void Shutdown(ExternalConfig*, void** data) {
  script.calls.push_back("shutdown");
  script.data_at_shutdown = *data;
}

int LoadScript(ExternalConfig* config, void**, const char* path, File* file) {
  script.calls.push_back("load");
  script.path = path;
  script.file = file;
  config->SetValue_Integer(Config_timeout_global, 7);
  return script.load_result;
}

class ExternalConfigTest : public LibraryFixture {
 protected:
  ExternalConfigTest()
      : system(&dictionary, 12, 512),
        global(&dictionary, 12, 512),
        calls(&application),
        commerce(&application),
        databases(&application),
        systems(&application) {
    script = Script();
    table = {2, Initialize, nullptr, GetInteger, GetString, GetError, Shutdown, LoadScript};
    Exported<void*>("fake_config_table") = &table;
  }

  std::unique_ptr<ExternalConfig> Make() {
    return std::make_unique<ExternalConfig>(&application, &calls, &commerce, &databases, &systems,
                                            &system, &global);
  }
  std::unique_ptr<ExternalConfig> MakeLoaded() {
    auto config = Make();
    EXPECT_TRUE(config->Load(fake.c_str(), 0, nullptr, 0)) << Text(config->error());
    return config;
  }

  _ZP_EL_Config table;
  Dictionary dictionary;
  SystemVariableHash system;
  VariableHash global;
  ExternalCallManager calls;
  CommerceLibraryManager commerce;
  ExternalDatabaseLibraryManager databases;
  SystemLibraryManager systems;
};

TEST_F(ExternalConfigTest, LoadPassesTheArgumentsOfTheProcess) {
  auto config = Make();
  char program[] = "zeph";
  char* arguments[] = {program, nullptr};
  EXPECT_TRUE(config->Load(fake.c_str(), 0, arguments, 1));
  EXPECT_EQ(script.zero, 0);
  EXPECT_EQ(script.arguments, arguments);
  EXPECT_EQ(script.argument_count, 1);
}

TEST_F(ExternalConfigTest, MissingFileGivesTheManagersText) {
  auto config = Make();
  EXPECT_FALSE(config->Load("/nonexistent/config.so", 0, nullptr, 0));
  EXPECT_TRUE(NamesMissingFile(config->error(), "/nonexistent/config.so"));
}

TEST_F(ExternalConfigTest, MissingEntryGivesTheLibrarysText) {
  auto config = Make();
  EXPECT_FALSE(config->Load(TestLibraryPath("FakeEmpty").c_str(), 0, nullptr, 0));
  EXPECT_EQ(Text(config->error()), "Unknown symbol 'zeph_config_library'");
}

TEST_F(ExternalConfigTest, NullTableIsAnError) {
  Exported<void*>("fake_config_table") = nullptr;
  auto config = Make();
  EXPECT_FALSE(config->Load(fake.c_str(), 0, nullptr, 0));
  EXPECT_EQ(Text(config->error()), "Unable to retrieve configuration descriptor table");
  EXPECT_EQ(config->value_integer(Config_timeout_global), 90);
  EXPECT_FALSE(config->LoadScriptConfig("a.zpc", nullptr));
}

TEST_F(ExternalConfigTest, FailedInitializeGivesTheLibrarysWords) {
  script.initialize_result = 1;
  auto config = Make();
  EXPECT_FALSE(config->Load(fake.c_str(), 0, nullptr, 0));
  EXPECT_EQ(Text(config->error()), "the library's own words");
}

TEST_F(ExternalConfigTest, FailedInitializeWithoutWordsHasFixedOnes) {
  script.initialize_result = -1;
  table.get_error = nullptr;
  auto config = Make();
  EXPECT_FALSE(config->Load(fake.c_str(), 0, nullptr, 0));
  EXPECT_EQ(Text(config->error()), "Error initializing configuration library");
}

TEST_F(ExternalConfigTest, NullTextOfTheLibraryCountsAsNone) {
  script.initialize_result = 1;
  script.error_text = nullptr;
  auto config = Make();
  EXPECT_FALSE(config->Load(fake.c_str(), 0, nullptr, 0));
  EXPECT_EQ(Text(config->error()), "Error initializing configuration library");
}

TEST_F(ExternalConfigTest, TableOfNullsLeavesTheDefaults) {
  table = {};
  {
    auto config = MakeLoaded();
    EXPECT_TRUE(config->LoadScriptConfig("a.zpc", nullptr));
    EXPECT_EQ(config->value_integer(Config_timeout_global), 90);
    EXPECT_STREQ(config->value_string(Config_dir_user), "public_zix");
    EXPECT_EQ(config->value_string(Config_dir_zeph), nullptr);
  }
  EXPECT_TRUE(script.calls.empty());
}

TEST_F(ExternalConfigTest, WithoutALibraryTheDefaultsHold) {
  auto config = Make();
  EXPECT_EQ(config->value_integer(Config_timeout_global), 90);
  EXPECT_FALSE(config->LoadScriptConfig("a.zpc", nullptr));
  EXPECT_EQ(config->error().data, nullptr);
}

TEST_F(ExternalConfigTest, LibraryAnswersBeforeTheDefaults) {
  auto config = MakeLoaded();
  EXPECT_EQ(config->value_integer(Config_timeout_global), 1234);
  EXPECT_EQ(config->value_integer(0x1000099), 1234);
  EXPECT_STREQ(config->value_string(Config_dir_zeph), "answer");
}

TEST_F(ExternalConfigTest, WrongKindNeverReachesTheLibrary) {
  auto config = MakeLoaded();
  EXPECT_EQ(config->value_integer(Config_dir_zeph), -1);
  EXPECT_EQ(config->value_string(Config_timeout_global), nullptr);
  EXPECT_EQ(config->value_integer(0x3000005), -1);
  EXPECT_TRUE(script.asked.empty());
}

TEST_F(ExternalConfigTest, UnknownSettingIsAskedForOnceAndItsDefaultCached) {
  script.integer_result = 1;
  script.string_result = 1;
  auto config = MakeLoaded();
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(config->value_integer(Config_timeout_global), 90);
    EXPECT_STREQ(config->value_string(Config_dir_user), "public_zix");
  }
  EXPECT_EQ(script.asked[Config_timeout_global], 1);
  EXPECT_EQ(script.asked[Config_dir_user], 1);
}

TEST_F(ExternalConfigTest, ValueStaysAsItWasReadForTheRequest) {
  auto config = MakeLoaded();
  EXPECT_STREQ(config->value_string(Config_dir_data), "answer");
  script.answer = "another";
  EXPECT_STREQ(config->value_string(Config_dir_data), "answer");
}

// Under the address sanitizer a text that is not freed fails the test.
TEST_F(ExternalConfigTest, OwnedTextOfTheLibraryIsFreed) {
  script.answer_owned = 1;
  auto config = MakeLoaded();
  EXPECT_STREQ(config->value_string(Config_dir_data), "answer");
  EXPECT_EQ(config->SetValue(Config_dir_data, "x", 1, 0), 1);
  EXPECT_STREQ(config->value_string(Config_dir_temp), "answer");
}

TEST_F(ExternalConfigTest, ScriptConfigGetsPathAndFileAndOverridesWhatWasRead) {
  auto config = MakeLoaded();
  EXPECT_EQ(config->value_integer(Config_timeout_global), 1234);
  File* file = reinterpret_cast<File*>(&data_word);
  EXPECT_TRUE(config->LoadScriptConfig("shop/cart.zpc", file));
  EXPECT_EQ(script.path, "shop/cart.zpc");
  EXPECT_EQ(script.file, file);
  EXPECT_EQ(config->value_integer(Config_timeout_global), 7);
}

TEST_F(ExternalConfigTest, FailedScriptConfigGivesTheLibrarysWordsOrFixedOnes) {
  script.load_result = 1;
  auto config = MakeLoaded();
  EXPECT_FALSE(config->LoadScriptConfig("a.zpc", nullptr));
  EXPECT_EQ(Text(config->error()), "the library's own words");
  table.get_error = nullptr;
  EXPECT_FALSE(config->LoadScriptConfig("a.zpc", nullptr));
  EXPECT_EQ(Text(config->error()), "Error loading script-specific configuration");
}

TEST_F(ExternalConfigTest, OldLibraryWithItsOwnLoadFunctionFailsEveryRequest) {
  table.version = 1;
  table.load_script_v1 = &table;
  for (int request = 0; request < 2; request++) {
    auto config = MakeLoaded();
    EXPECT_FALSE(config->LoadScriptConfig("a.zpc", nullptr));
    EXPECT_EQ(Text(config->error()),
              "Configuration library uses no longer supported v1 API script-specific configuration "
              "load method");
  }
  EXPECT_EQ(script.calls,
            (std::vector<std::string>{"initialize", "shutdown", "initialize", "shutdown"}));
}

TEST_F(ExternalConfigTest, OldLibraryWithoutThatFunctionWorks) {
  table.version = 1;
  auto config = MakeLoaded();
  EXPECT_TRUE(config->LoadScriptConfig("a.zpc", nullptr));
}

TEST_F(ExternalConfigTest, NewLibraryMayHaveAnythingInTheOldWord) {
  table.load_script_v1 = &table;
  auto config = MakeLoaded();
  EXPECT_TRUE(config->LoadScriptConfig("a.zpc", nullptr));
}

TEST_F(ExternalConfigTest, ShutdownGetsTheDataWordAlsoAfterAFailure) {
  script.initialize_result = 1;
  auto config = Make();
  EXPECT_FALSE(config->Load(fake.c_str(), 0, nullptr, 0));
  config.reset();
  EXPECT_EQ(script.calls, (std::vector<std::string>{"initialize", "shutdown"}));
  EXPECT_EQ(script.data_at_shutdown, &data_word);
}

TEST_F(ExternalConfigTest, RegistrationsInShutdownAreNotHeard) {
  table.shutdown = [](ExternalConfig* config, void**) {
    EXPECT_FALSE(config->Register_Library_Commerce("a", "b"));
    EXPECT_FALSE(config->Register_Library_Database("a", "b"));
    EXPECT_FALSE(config->Register_Library_System("a", "b"));
    EXPECT_FALSE(config->Register_Library_Builtin("b"));
    script.calls.push_back("shutdown");
  };
  MakeLoaded();
  EXPECT_EQ(script.calls.back(), "shutdown");
}

TEST_F(ExternalConfigTest, RegistrationsReachTheirManagers) {
  auto config = MakeLoaded();
  EXPECT_TRUE(config->Register_Library_Commerce("pay", "/a.so"));
  EXPECT_TRUE(config->Register_Library_Database("sql", "/b.so"));
  EXPECT_TRUE(config->Register_Library_System("tools", "/c.so"));
  EXPECT_FALSE(config->Register_Library_Builtin("/nonexistent/d.so"));
  EXPECT_STREQ(commerce.libraries().First()->path(), "/a.so");
  EXPECT_STREQ(databases.libraries().First()->path(), "/b.so");
  EXPECT_STREQ(systems.libraries().First()->path(), "/c.so");
  EXPECT_TRUE(NamesMissingFile(calls.error(), "/nonexistent/d.so"));
}

std::string ValueOf(VariableHash& table, const char* name) {
  Variable* variable = nullptr;
  if (!table.Find(&variable, name, -1, 0) || variable == nullptr) return "(none)";
  return Text(variable->value());
}

TEST_F(ExternalConfigTest, VariablesWaitForAddVariables) {
  auto config = MakeLoaded();
  config->SetVariable_System("site", -1, "shop", 4);
  config->SetVariable_Global("limit", 5, "10", -1);
  EXPECT_EQ(ValueOf(system, "site"), "(none)");
  config->AddVariables();
  EXPECT_EQ(ValueOf(system, "SITE"), "shop");
  EXPECT_EQ(ValueOf(global, "limit"), "10");
  EXPECT_EQ(ValueOf(global, "site"), "(none)");
}

TEST_F(ExternalConfigTest, SystemVariableCannotBeWrittenAndGlobalOneCan) {
  auto config = MakeLoaded();
  config->SetVariable_System("site", -1, "shop", -1);
  config->SetVariable_Global("limit", -1, "10", -1);
  config->AddVariables();
  Variable* variable = nullptr;
  ASSERT_TRUE(system.Find(&variable, "site", -1, 0));
  variable->SetValue("changed", -1);
  EXPECT_EQ(ValueOf(system, "site"), "shop");
  ASSERT_TRUE(global.Find(&variable, "limit", -1, 0));
  variable->SetValue("changed", -1);
  EXPECT_EQ(ValueOf(global, "limit"), "changed");
}

TEST_F(ExternalConfigTest, LaterVariableOfANameStays) {
  auto config = MakeLoaded();
  config->SetVariable_Global("a", -1, "1", -1);
  config->SetVariable_Global("b", -1, "2", -1);
  config->SetVariable_Global("A", -1, "3", -1);
  config->AddVariables();
  EXPECT_EQ(ValueOf(global, "a"), "3");
  EXPECT_EQ(global.Entries(), 2);
}

// Under the address sanitizer a count too many or too few fails the test.
TEST_F(ExternalConfigTest, CountsPassToTheTablesOnce) {
  auto config = MakeLoaded();
  config->SetVariable_Global("a", -1, "1", -1);
  config->AddVariables();
  config->AddVariables();
  Variable* variable = nullptr;
  ASSERT_TRUE(global.Find(&variable, "a", -1, 0));
  EXPECT_EQ(variable->refcount(), 1);
  config->SetVariable_System("never added", -1, "1", -1);
}

TEST_F(ExternalConfigTest, DefaultErrorSettingIsTheProcesss) {
  auto config = MakeLoaded();
  config->Set_DefaultErrorSetting("ZPOPEN", -1, 2);
  EXPECT_EQ(DefaultErrorSetting(28), 2);
  config->Set_DefaultErrorSetting("zpopenX", 6, 1);
  EXPECT_EQ(DefaultErrorSetting(28), 1);
}

TEST_F(ExternalConfigTest, UnknownTagChangesNothing) {
  auto config = MakeLoaded();
  config->Set_DefaultErrorSetting("zpnothing", -1, 0);
  for (int tag = 0; tag < tag_count; tag++) {
    EXPECT_EQ(DefaultErrorSetting(tag), original_tag_default_errorsettings[tag].settings);
  }
  EXPECT_EQ(config->error().data, nullptr);
}

TEST_F(ExternalConfigTest, NullTextKeepsTheOlderError) {
  auto config = Make();
  config->Error("first");
  config->Error(String());
  EXPECT_EQ(Text(config->error()), "first");
}

}  // namespace
