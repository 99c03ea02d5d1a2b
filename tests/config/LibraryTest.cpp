// The configuration library as the engine uses it: loaded, called for a request, and dropped.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "api/zeph.h"
#include "base/compiled/Dictionary.h"
#include "base/compiled/SystemVariableHash.h"
#include "base/compiled/VariableHash.h"
#include "base/extensions/CommerceLibrary.h"
#include "base/extensions/ExternalCall.h"
#include "base/extensions/ExternalConfig.h"
#include "base/extensions/ExternalDatabaseLibrary.h"
#include "base/extensions/SystemLibrary.h"
#include "base/host/TagErrors.h"
#include "base/values/Variable.h"
#include "tests/support/LibraryFixture.h"
#include "tests/support/Paths.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

// The objects that a request gives to its configuration.
struct Request {
  explicit Request(ExternalLibraryManager* libraries)
      : system(&dictionary, 12, 512),
        global(&dictionary, 12, 512),
        calls(&application),
        commerce(&application),
        databases(&application),
        systems(&application),
        config(std::make_unique<ExternalConfig>(&application, &calls, &commerce, &databases,
                                                &systems, &system, &global)) {
    application.SetLibraryManager(libraries);
  }

  std::string ValueOf(VariableHash& table, const char* name) {
    Variable* variable = nullptr;
    if (!table.Find(&variable, name, -1, 0) || variable == nullptr) return "(none)";
    return Text(variable->value());
  }

  TestApplication application;
  Dictionary dictionary;
  SystemVariableHash system;
  VariableHash global;
  ExternalCallManager calls;
  CommerceLibraryManager commerce;
  ExternalDatabaseLibraryManager databases;
  SystemLibraryManager systems;
  std::unique_ptr<ExternalConfig> config;
};

// Each test loads its own copy of the library, which therefore begins without a configuration. The
// actions on tag errors belong to the process, so they are restored.
class LibraryTest : public testing::Test {
 protected:
  LibraryTest() : library(directory.path("libzephconfig.so")), file(directory.path("test.toml")) {
    std::filesystem::copy_file(InBuild("lib/libzephconfig.so"), library);
    setenv("ZEPH_CONFIG", file.c_str(), 1);
  }
  ~LibraryTest() override {
    unsetenv("ZEPH_CONFIG");
    for (int tag = 0; tag < tag_count; tag++) {
      SetDefaultErrorSetting(tag, original_tag_default_errorsettings[tag].settings);
    }
  }

  void Write(const std::string& text) {
    std::filesystem::rename(directory.File("new", text), file);
  }
  std::unique_ptr<Request> Make() { return std::make_unique<Request>(&libraries); }
  bool Load(Request& request) { return request.config->Load(library.c_str(), 0, nullptr, 0); }
  std::unique_ptr<Request> MakeLoaded() {
    auto request = Make();
    EXPECT_TRUE(Load(*request)) << Text(request->config->error());
    return request;
  }

  TemporaryDirectory directory;
  std::string library;
  std::string file;
  UNIXExternalLibraryManager libraries;
};

TEST_F(LibraryTest, AnswersFromTheFileAndLeavesTheRestToTheDefaults) {
  Write("dir_zeph = '/srv/site'\ntimeout_global = 5\ndir_user = ''\n");
  auto request = MakeLoaded();
  EXPECT_STREQ(request->config->value_string(Config_dir_zeph), "/srv/site");
  EXPECT_EQ(request->config->value_integer(Config_timeout_global), 5);
  EXPECT_STREQ(request->config->value_string(Config_dir_user), "");
  EXPECT_EQ(request->config->value_integer(Config_timeout_call), 30);
  EXPECT_EQ(request->config->value_string(Config_dir_data), nullptr);
  EXPECT_TRUE(request->config->LoadScriptConfig("index.zpc", nullptr));
}

TEST_F(LibraryTest, BadFileIsTheErrorOfTheRequest) {
  Write("dir_zeph = '/srv/site'\ntimout_global = 5\n");
  auto request = Make();
  EXPECT_FALSE(Load(*request));
  EXPECT_EQ(Text(request->config->error()),
            file + ":2: timout_global: unknown key, the nearest known one is \"timeout_global\"");
}

TEST_F(LibraryTest, MissingFileIsTheErrorOfTheRequest) {
  auto request = Make();
  EXPECT_FALSE(Load(*request));
  EXPECT_EQ(Text(request->config->error()), file + ": No such file or directory");
}

TEST_F(LibraryTest, ChangedFileHoldsFromTheNextRequestOn) {
  Write("dir_zeph = '/srv/old'\ntimeout_global = 5\n");
  auto before = MakeLoaded();
  EXPECT_EQ(before->config->value_integer(Config_timeout_global), 5);
  Write("dir_zeph = '/srv/new'\ntimeout_global = 6\n");
  auto after = MakeLoaded();
  EXPECT_STREQ(after->config->value_string(Config_dir_zeph), "/srv/new");
  // This value had not been read before the change.
  EXPECT_STREQ(before->config->value_string(Config_dir_zeph), "/srv/old");
}

TEST_F(LibraryTest, BrokenFileAfterAGoodOneFailsNoRequest) {
  Write("dir_zeph = '/srv/site'\n");
  MakeLoaded();
  Write("dir_zeph = \n");
  testing::internal::CaptureStderr();
  for (int i = 0; i < 3; i++) {
    auto request = MakeLoaded();
    EXPECT_STREQ(request->config->value_string(Config_dir_zeph), "/srv/site");
  }
  std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(said.substr(0, 15 + file.size() + 4), "libzephconfig: " + file + ":1: ");
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1);
}

TEST_F(LibraryTest, ErrorSettingsOfTheFileHoldForTheProcess) {
  Write("[errors]\nZpOPEN = 3\nexpression = 0\n");
  MakeLoaded();
  EXPECT_EQ(DefaultErrorSetting(28), 3);
  EXPECT_EQ(DefaultErrorSetting(62), 0);
  EXPECT_EQ(DefaultErrorSetting(0), 3);
}

TEST_F(LibraryTest, ErrorSettingThatIsTakenOutGoesBackToTheShippedOne) {
  Write("[errors]\nZpOPEN = 3\nZpCLOSE = 2\n");
  MakeLoaded();
  Write("[errors]\nZpCLOSE = 0\n");
  MakeLoaded();
  EXPECT_EQ(DefaultErrorSetting(28), 1);
  EXPECT_EQ(DefaultErrorSetting(29), 0);
  Write("");
  MakeLoaded();
  EXPECT_EQ(DefaultErrorSetting(29), 1);
}

// If each request applied them, it would undo what other code in the process has set since.
TEST_F(LibraryTest, ErrorSettingsAreAppliedOncePerState) {
  Write("[errors]\nZpOPEN = 3\n");
  MakeLoaded();
  SetDefaultErrorSetting(28, 0);
  MakeLoaded();
  EXPECT_EQ(DefaultErrorSetting(28), 0);
}

TEST_F(LibraryTest, BothNamesOfATagSetIt) {
  Write("[errors]\nzpasync = 3\nzpfuncreturn = 1\n");
  MakeLoaded();
  EXPECT_EQ(DefaultErrorSetting(75), 3);
  EXPECT_EQ(DefaultErrorSetting(17), 1);
}

TEST_F(LibraryTest, VariablesReachTheTables) {
  Write("[variables.system]\nsite = 'Example'\n[variables.global]\npage_size = 20\n");
  auto request = MakeLoaded();
  request->config->AddVariables();
  EXPECT_EQ(request->ValueOf(request->system, "site"), "Example");
  EXPECT_EQ(request->ValueOf(request->global, "page_size"), "20");
}

TEST_F(LibraryTest, LibrariesReachTheirManagers) {
  _ZP_EL_Function rows[] = {{nullptr, 0, 0, nullptr, nullptr}};
  _ZP_EL_FunctionTable table = {0, rows};
  std::string fake = TestLibraryPath("FakeLibrary");
  ExternalLibrary* opened = libraries.Lookup(fake.c_str());
  ASSERT_NE(opened, nullptr);
  *static_cast<void**>(opened->Get_Function("fake_function_table")) = &table;
  int& calls = *static_cast<int*>(opened->Get_Function("fake_calls"));
  calls = 0;
  Write("[[library]]\nkind = 'builtin'\npath = '" + fake +
        "'\n"
        "[[library]]\nkind = 'commerce'\nname = 'pay'\npath = '/pay.so'\n"
        "[[library]]\nkind = 'database'\nname = 'sql'\npath = '/sql.so'\n"
        "[[library]]\nkind = 'system'\nname = 'tools'\npath = '/tools.so'\n");
  auto request = MakeLoaded();
  EXPECT_EQ(calls, 1);
  EXPECT_STREQ(request->commerce.libraries().First()->path(), "/pay.so");
  EXPECT_STREQ(request->databases.libraries().First()->path(), "/sql.so");
  EXPECT_STREQ(request->systems.libraries().First()->name(), "tools");
}

TEST_F(LibraryTest, BuiltinLibraryThatCannotBeLoadedFailsNoRequest) {
  Write("[[library]]\nkind = 'builtin'\npath = '/nonexistent/a.so'\n");
  auto request = MakeLoaded();
  EXPECT_TRUE(NamesMissingFile(request->calls.error(), "/nonexistent/a.so"));
}

TEST_F(LibraryTest, ScriptSectionHoldsForMatchingScriptsOnly) {
  Write(
      "timeout_global = 5\ndir_data = '/srv/data'\n"
      "[[script]]\nmatch = 'reports/*'\ntimeout_global = 600\ndir_data = '/srv/reports'\n"
      "[[script]]\nmatch = 'reports/quick*'\ntimeout_global = 60\n");
  const struct {
    const char* path;
    int timeout;
    const char* data;
  } cases[] = {
      {"index.zpc", 5, "/srv/data"},
      {"reports/year.zpc", 600, "/srv/reports"},
      {"reports/quick.zpc", 60, "/srv/reports"},
      {"/reports//year.zpc", 600, "/srv/reports"},
      {"x/../reports/./year.zpc", 600, "/srv/reports"},
      {"other/reports/year.zpc", 5, "/srv/data"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    auto request = MakeLoaded();
    // Read before the script is known, but replaced all the same.
    EXPECT_EQ(request->config->value_integer(Config_timeout_global), 5);
    ASSERT_TRUE(request->config->LoadScriptConfig(c.path, nullptr));
    EXPECT_EQ(request->config->value_integer(Config_timeout_global), c.timeout);
    EXPECT_STREQ(request->config->value_string(Config_dir_data), c.data);
  }
}

TEST_F(LibraryTest, RequestsOnManyThreadsWhileTheFileChanges) {
  Write("timeout_global = 1\n[errors]\nZpOPEN = 1\n");
  // Loaded before the threads start, because a plain library manager is not made for several
  // threads.
  ASSERT_NE(libraries.Lookup(library.c_str()), nullptr);
  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; i++) {
    threads.emplace_back([this, &done] {
      do {
        auto request = MakeLoaded();
        EXPECT_TRUE(request->config->LoadScriptConfig("index.zpc", nullptr));
        EXPECT_GE(request->config->value_integer(Config_timeout_global), 1);
        EXPECT_STREQ(request->config->value_string(Config_dir_user), "public_zix");
        int table[tag_count];
        CopyDefaultErrorSettings(table);
        EXPECT_LE(table[28], 3);
      } while (!done);
    });
  }
  for (int i = 2; i <= 30; i++) {
    Write("timeout_global = " + std::to_string(i) +
          "\n[errors]\nZpOPEN = " + std::to_string(i % 4) + "\n");
  }
  done = true;
  for (std::thread& thread : threads) thread.join();
  MakeLoaded();
  EXPECT_EQ(DefaultErrorSetting(28), 30 % 4);
}

// --- The functions that a configuration library calls --------------------------------------------

TEST(zpConfig, SetValueAnswersZeroForSuccess) {
  Request request(nullptr);
  ZPCONFIG config = request.config.get();
  EXPECT_EQ(zpConfig_SetValue(config, Config_dir_data, "/data", -1, 0), 0);
  EXPECT_EQ(zpConfig_SetValue_Integer(config, Config_cookies, 0), 0);
  EXPECT_STREQ(config->value_string(Config_dir_data), "/data");
  EXPECT_EQ(config->value_integer(Config_cookies), 0);
}

TEST(zpConfig, SetValueOfTheOtherKindIsRefused) {
  Request request(nullptr);
  ZPCONFIG config = request.config.get();
  EXPECT_NE(zpConfig_SetValue(config, Config_cookies, "1", 1, 0), 0);
  EXPECT_NE(zpConfig_SetValue_Integer(config, Config_dir_data, 1), 0);
}

TEST(zpConfig, RegistrationsAnswerZeroWhateverHappens) {
  UNIXExternalLibraryManager libraries;
  Request request(&libraries);
  ZPCONFIG config = request.config.get();
  EXPECT_EQ(zpConfig_Register_Library_Commerce(config, "a", "/a.so"), 0);
  EXPECT_EQ(zpConfig_Register_Library_Database(config, "b", "/b.so"), 0);
  EXPECT_EQ(zpConfig_Register_Library_System(config, "c", "/c.so"), 0);
  EXPECT_EQ(zpConfig_Register_Library_Builtin(config, "/nonexistent/d.so"), 0);
  EXPECT_EQ(request.commerce.libraries().Entries(), 1);
  EXPECT_EQ(request.databases.libraries().Entries(), 1);
  EXPECT_EQ(request.systems.libraries().Entries(), 1);
}

TEST(zpConfig, VariablesAndErrorSettings) {
  Request request(nullptr);
  ZPCONFIG config = request.config.get();
  zpConfig_SetVariable_System(config, "name and more", 4, "value", -1);
  zpConfig_SetVariable_Global(config, "limit", -1, "100", 2);
  request.config->AddVariables();
  EXPECT_EQ(request.ValueOf(request.system, "name"), "value");
  EXPECT_EQ(request.ValueOf(request.global, "limit"), "10");
  zpConfig_Set_DefaultErrorSetting(config, "ZpGO", -1, 3);
  EXPECT_EQ(DefaultErrorSetting(31), 3);
  zpConfig_Set_DefaultErrorSetting(config, "zpgo", 4, 1);
  EXPECT_EQ(DefaultErrorSetting(31), 1);
}

}  // namespace
