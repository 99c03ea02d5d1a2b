#include "config/Snapshot.h"

#include <gtest/gtest.h>

#include <string>

#include "base/host/Settings.h"

namespace {

Snapshot Parse(std::string_view text) {
  return Snapshot::Parse("zeph.toml", text);
}

TEST(Snapshot, EmptyFileSetsNothing) {
  Snapshot snapshot = Parse("");
  EXPECT_EQ(snapshot.error, "");
  EXPECT_TRUE(snapshot.settings.empty());
  EXPECT_EQ(snapshot.error_settings, ShippedErrorSettings());
}

// A value of each setting that none of the others has; a switch has only two.
std::string SampleText(const ConfigSetting& setting) {
  return "/t" + std::to_string(setting.id & 0xFFFF);
}
int SampleNumber(const ConfigSetting& setting) {
  const bool is_switch = setting.id == Config_show_errors || setting.id == Config_status_codes ||
                         setting.id == Config_path_from_script_name;
  return is_switch ? 1 - setting.default_integer : setting.id & 0xFFFF;
}

TEST(Snapshot, TakesEverySettingOfTheTable) {
  std::string text;
  for (const ConfigSetting& setting : config_settings) {
    bool is_text = (setting.id & ConfigKind_Text) != 0;
    text += std::string(setting.name) + " = " +
            (is_text ? "\"" + SampleText(setting) + "\"" : std::to_string(SampleNumber(setting))) +
            "\n";
  }
  Snapshot snapshot = Parse(text);
  ASSERT_EQ(snapshot.error, "");
  for (const ConfigSetting& setting : config_settings) {
    SCOPED_TRACE(setting.name);
    const Setting* found = snapshot.Find(setting.id);
    ASSERT_NE(found, nullptr);
    if ((setting.id & ConfigKind_Text) != 0) {
      EXPECT_EQ(found->text, SampleText(setting));
    } else {
      EXPECT_EQ(found->integer, SampleNumber(setting));
    }
  }
  EXPECT_EQ(snapshot.Find(0x1000099), nullptr);
  EXPECT_EQ(snapshot.Find(0), nullptr);
}

TEST(Snapshot, TextMayBeEmptyAndIntegersHave32Bits) {
  Snapshot snapshot = Parse("dir_ca = ''\nssl_sni = -2147483648\nlog_level = 0x7fffffff\n");
  ASSERT_EQ(snapshot.error, "");
  EXPECT_EQ(snapshot.Find(Config_dir_ca)->text, "");
  EXPECT_EQ(snapshot.Find(Config_ssl_sni)->integer, -2147483647 - 1);
  EXPECT_EQ(snapshot.Find(Config_log_level)->integer, 2147483647);
}

TEST(Snapshot, SwitchesAreTrueOrFalse) {
  Snapshot snapshot = Parse("show_errors = false\nstatus_codes = true\n");
  ASSERT_EQ(snapshot.error, "");
  EXPECT_EQ(snapshot.Find(Config_show_errors)->integer, 0);
  EXPECT_EQ(snapshot.Find(Config_status_codes)->integer, 1);
}

TEST(Snapshot, ANumberBelowZeroIsTakenWhereItMeansSomething) {
  Snapshot snapshot = Parse(
      "timeout_file = -1\nmax_post_vars = -1\nmax_unknown_content_length = -1\nlog_level = -1\n");
  EXPECT_EQ(snapshot.error, "");
}

// A typo in a new file must still reach the log that the file names, and must not be shown to
// visitors when the file says so.
TEST(Snapshot, AFileWithAMistakeStillSaysWhatBecomesOfErrors) {
  Snapshot snapshot = Parse(
      "cookeys = 0\nerror_log = '/var/log/zeph.log'\nshow_errors = false\nstatus_codes = 1\n"
      "slow_time = 5\n");
  EXPECT_EQ(snapshot.error,
            "zeph.toml:1: cookeys: unknown key, the nearest known one is \"cookies\"");
  ASSERT_EQ(snapshot.settings.size(), 3u);
  EXPECT_EQ(snapshot.Find(Config_error_log)->text, "/var/log/zeph.log");
  EXPECT_EQ(snapshot.Find(Config_show_errors)->integer, 0);
  EXPECT_EQ(snapshot.Find(Config_status_codes)->integer, 1);
}

TEST(Snapshot, TheProcessHasASectionOfItsOwn) {
  EXPECT_EQ(Parse("").process.status_listen, "");
  EXPECT_EQ(Parse("").process.max_requests, 0);
  Snapshot snapshot = Parse("[process]\nstatus_listen = '127.0.0.1:8081'\nmax_requests = 1000\n");
  EXPECT_EQ(snapshot.error, "");
  EXPECT_EQ(snapshot.process.status_listen, "127.0.0.1:8081");
  EXPECT_EQ(snapshot.process.max_requests, 1000);
  // The section is read once, so a mistake elsewhere must not cost it, nor one in another key.
  snapshot =
      Parse("cookeys = 1\n[process]\nstatus_listen = '127.0.0.1:8081'\nmax_requests = 1000\n");
  EXPECT_EQ(snapshot.process.status_listen, "127.0.0.1:8081");
  EXPECT_EQ(snapshot.process.max_requests, 1000);
  snapshot = Parse("[process]\nstatus_listen = '127.0.0.1:8081'\nmax_requests = -1\n");
  EXPECT_EQ(snapshot.process.status_listen, "127.0.0.1:8081");
  EXPECT_EQ(snapshot.process.max_requests, 0);
}

TEST(Snapshot, ErrorSettingsAreThoseShippedButForTheOnesNamed) {
  Snapshot snapshot = Parse("[errors]\nZpOPEN = 3\n'zplocalized-token' = 0\nzpasync = 2\n");
  ASSERT_EQ(snapshot.error, "");
  ErrorSettings expected = ShippedErrorSettings();
  EXPECT_EQ(expected[28], 1);
  expected[28] = 3;
  expected[25] = 0;
  expected[75] = 2;
  EXPECT_EQ(snapshot.error_settings, expected);
}

TEST(Snapshot, VariablesKeepTheOrderOfTheFile) {
  Snapshot snapshot = Parse(
      "[variables.system]\nzebra = 'z'\nant = 7\n"
      "[variables.global]\nhalf = 0.5\nlong = -9223372036854775808\nempty = ''\n");
  ASSERT_EQ(snapshot.error, "");
  ASSERT_EQ(snapshot.system_variables.size(), 2u);
  EXPECT_EQ(snapshot.system_variables[0].name, "zebra");
  EXPECT_EQ(snapshot.system_variables[0].value, "z");
  EXPECT_EQ(snapshot.system_variables[1].name, "ant");
  EXPECT_EQ(snapshot.system_variables[1].value, "7");
  ASSERT_EQ(snapshot.global_variables.size(), 3u);
  EXPECT_EQ(snapshot.global_variables[0].value, "0.5");
  EXPECT_EQ(snapshot.global_variables[1].value, "-9223372036854775808");
  EXPECT_EQ(snapshot.global_variables[2].value, "");
}

TEST(Snapshot, LibrariesOfAllKinds) {
  Snapshot snapshot = Parse(
      "[[library]]\nkind = 'builtin'\npath = '/lib/a.so'\n"
      "[[library]]\nkind = 'commerce'\nname = 'pay'\npath = '/lib/b.so'\n"
      "[[library]]\nkind = 'database'\nname = 'pay'\npath = '/lib/c.so'\n"
      "[[library]]\nkind = 'system'\nname = 'tools'\npath = '/lib/d.so'\n");
  ASSERT_EQ(snapshot.error, "");
  ASSERT_EQ(snapshot.libraries.size(), 4u);
  EXPECT_EQ(snapshot.libraries[0].kind, LibraryKind::Builtin);
  EXPECT_EQ(snapshot.libraries[0].path, "/lib/a.so");
  EXPECT_EQ(snapshot.libraries[1].kind, LibraryKind::Commerce);
  EXPECT_EQ(snapshot.libraries[1].name, "pay");
  EXPECT_EQ(snapshot.libraries[2].kind, LibraryKind::Database);
  EXPECT_EQ(snapshot.libraries[3].kind, LibraryKind::System);
}

TEST(Snapshot, ScriptSections) {
  Snapshot snapshot = Parse(
      "timeout_global = 10\n"
      "[[script]]\nmatch = '/reports/*'\ntimeout_global = 600\ndir_data = '/srv/reports'\n"
      "[[script]]\nmatch = '*.zpc'\n");
  ASSERT_EQ(snapshot.error, "");
  ASSERT_EQ(snapshot.scripts.size(), 2u);
  EXPECT_EQ(snapshot.scripts[0].match, "reports/*");
  ASSERT_EQ(snapshot.scripts[0].settings.size(), 2u);
  EXPECT_EQ(snapshot.scripts[0].settings[0].id, Config_timeout_global);
  EXPECT_EQ(snapshot.scripts[0].settings[0].integer, 600);
  EXPECT_EQ(snapshot.scripts[0].settings[1].text, "/srv/reports");
  EXPECT_EQ(snapshot.scripts[1].match, "*.zpc");
  EXPECT_EQ(snapshot.Find(Config_timeout_global)->integer, 10);
}

struct ErrorCase {
  const char* label;
  const char* text;
  const char* error;
};

TEST(Snapshot, EveryComplaintNamesFileLineAndKey) {
  const ErrorCase cases[] = {
      {"unknown setting", "cookies = 1\ntimout_global = 5\n",
       "zeph.toml:2: timout_global: unknown key, the nearest known one is \"timeout_global\""},
      {"case counts in settings", "Dir_Zeph = '/x'\n",
       "zeph.toml:1: Dir_Zeph: unknown key, the nearest known one is \"dir_zeph\""},
      {"unknown section", "\n[error]\nZpOPEN = 1\n",
       "zeph.toml:2: error: unknown key, the nearest known one is \"errors\""},
      {"number for text", "dir_zeph = 5\n",
       "zeph.toml:1: dir_zeph: expected text in quotes, found an integer"},
      {"text for number", "cookies = '1'\n",
       "zeph.toml:1: cookies: expected an integer, found text"},
      {"fraction", "cookies = 1.0\n",
       "zeph.toml:1: cookies: expected an integer, found a number with a fraction"},
      {"boolean", "cookies = true\n",
       "zeph.toml:1: cookies: expected an integer, found true or false"},
      {"date", "log_file = 2026-11-21\n",
       "zeph.toml:1: log_file: expected text in quotes, found a date or time"},
      {"array", "dir_data = ['/a']\n",
       "zeph.toml:1: dir_data: expected text in quotes, found an array"},
      {"section", "[dir_data]\n",
       "zeph.toml:1: dir_data: expected text in quotes, found a section"},
      {"too large", "log_level = 2147483648\n",
       "zeph.toml:1: log_level: 2147483648 does not fit into 32 bits"},
      {"too small", "log_level = -2147483649\n",
       "zeph.toml:1: log_level: -2147483649 does not fit into 32 bits"},
      {"a time below 0", "timeout_post = -1\n",
       "zeph.toml:1: timeout_post: expected 0 or more, found -1"},
      {"a size below 0", "bufsz_output = -8192\n",
       "zeph.toml:1: bufsz_output: expected 0 or more, found -8192"},
      {"a time below 0 of a script", "[[script]]\nmatch = '*'\ntimeout_global = -5\n",
       "zeph.toml:3: script.timeout_global: expected 0 or more, found -5"},
      {"a key that is near to none", "frobnication = 1\n",
       "zeph.toml:1: frobnication: unknown key"},
      {"NUL", "dir_data = \"/a\\u0000b\"\n",
       "zeph.toml:1: dir_data: a NUL byte cannot be part of a text"},
      {"errors is no section", "errors = 3\n",
       "zeph.toml:1: errors: expected a section [errors], found an integer"},
      {"unknown tag", "[errors]\nZpOPEM = 1\n",
       "zeph.toml:2: errors.ZpOPEM: unknown key, the nearest known one is \"zpopen\""},
      {"setting below a section", "[errors]\nZpOPEN = 1\ncookies = 0\n",
       "zeph.toml:3: errors.cookies: unknown key; it is a setting, and settings stand above the "
       "first section"},
      {"tag setting below 0", "[errors]\nZpOPEN = -1\n",
       "zeph.toml:2: errors.ZpOPEN: expected 0 to 3, found -1"},
      {"tag setting above 3", "[errors]\nZpOPEN = 4\n",
       "zeph.toml:2: errors.ZpOPEN: expected 0 to 3, found 4"},
      {"tag setting as text", "[errors]\nZpOPEN = 'on'\n",
       "zeph.toml:2: errors.ZpOPEN: expected an integer, found text"},
      {"one tag by two names", "[errors]\nzpasync = 1\nZpASYNCHRONOUS = 2\n",
       "zeph.toml:3: errors.ZpASYNCHRONOUS: the same tag as \"zpasync\""},
      {"unknown kind of variables", "[variables.globals]\na = 1\n",
       "zeph.toml:1: variables.globals: unknown key, the nearest known one is \"global\""},
      {"variables is no section", "variables = 1\n",
       "zeph.toml:1: variables: expected a section [variables], found an integer"},
      {"variables.system is no section", "[variables]\nsystem = 'x'\n",
       "zeph.toml:2: variables.system: expected a section [variables.system], found text"},
      {"variable of a wrong type", "[variables.global]\na = true\n",
       "zeph.toml:2: variables.global.a: expected text in quotes or a number"},
      {"variable that is no number", "[variables.global]\na = nan\n",
       "zeph.toml:2: variables.global.a: expected text in quotes or a number"},
      {"variable with a dot", "[variables.global]\na.b = 1\n",
       "zeph.toml:2: variables.global.a: expected text in quotes or a number"},
      {"variable without a name", "[variables.global]\n'' = 1\n",
       "zeph.toml:2: variables.global.: not a name that a variable can have"},
      {"variable twice", "[variables.system]\nName = 1\nNAME = 2\n",
       "zeph.toml:3: variables.system.NAME: the same variable as \"Name\""},
      {"library is no array", "[library]\nkind = 'builtin'\n",
       "zeph.toml:1: library: expected sections [[library]], found a section"},
      {"library element", "library = [1]\n",
       "zeph.toml:1: library: expected a section [[library]], found an integer"},
      {"library without kind", "\n[[library]]\npath = '/a.so'\n",
       "zeph.toml:2: library.kind: missing"},
      {"unknown library kind", "[[library]]\nkind = 'databases'\npath = '/a.so'\n",
       "zeph.toml:2: library.kind: unknown kind \"databases\", the nearest known one is "
       "\"database\""},
      {"library kind of a wrong type", "[[library]]\nkind = 3\npath = '/a.so'\n",
       "zeph.toml:2: library.kind: expected text in quotes, found an integer"},
      {"library without path", "[[library]]\nkind = 'builtin'\n",
       "zeph.toml:1: library.path: missing or empty"},
      {"library without name", "[[library]]\nkind = 'system'\npath = '/a.so'\n",
       "zeph.toml:1: library.name: missing or empty"},
      {"library twice",
       "[[library]]\nkind = 'system'\nname = 'a'\npath = '/a.so'\n"
       "[[library]]\nkind = 'system'\nname = 'A'\npath = '/b.so'\n",
       "zeph.toml:5: library.name: a library of this kind and name is in line 1"},
      {"unknown library key", "[[library]]\nkind = 'builtin'\npath = '/a.so'\npaths = 1\n",
       "zeph.toml:4: library.paths: unknown key, the nearest known one is \"path\""},
      {"script is no array", "script = 'a'\n",
       "zeph.toml:1: script: expected sections [[script]], found text"},
      {"script without match", "[[script]]\ncookies = 0\n", "zeph.toml:1: script.match: missing"},
      {"script with an empty match", "[[script]]\nmatch = '//'\n",
       "zeph.toml:2: script.match: matches no script"},
      {"unknown script key", "[[script]]\nmatch = '*'\ncookie = 0\n",
       "zeph.toml:3: script.cookie: unknown key, the nearest known one is \"cookies\""},
      {"script setting of a wrong type", "[[script]]\nmatch = '*'\ncookies = '0'\n",
       "zeph.toml:3: script.cookies: expected an integer, found text"},
      {"script setting that comes too late", "[[script]]\nmatch = '*'\ndir_zeph = '/x'\n",
       "zeph.toml:3: script.dir_zeph: is used to find the script, so it cannot differ between "
       "scripts"},
      {"another one that comes too late", "[[script]]\nmatch = '*'\npath_from_script_name = true\n",
       "zeph.toml:3: script.path_from_script_name: is used to find the script, so it cannot differ "
       "between scripts"},
      {"a time below 0", "timeout_global = -1\n",
       "zeph.toml:1: timeout_global: expected 0 or more, found -1"},
      {"another one", "cookies = 1\ntimeout_request = -30\n",
       "zeph.toml:2: timeout_request: expected 0 or more, found -30"},
      {"memory below 0", "memory_limit = -5\n",
       "zeph.toml:1: memory_limit: expected 0 or more, found -5"},
      {"a time below 0 for some scripts", "[[script]]\nmatch = '*'\nslow_time = -2\n",
       "zeph.toml:3: script.slow_time: expected 0 or more, found -2"},
      {"a switch with a third value", "show_errors = 2\n",
       "zeph.toml:1: show_errors: expected true or false, found 2"},
      {"a log without a place", "error_log = 'zeph.log'\n",
       "zeph.toml:1: error_log: expected \"stderr\", \"syslog\" or an absolute path, found "
       "\"zeph.log\""},
      {"an empty log", "error_log = ''\n",
       "zeph.toml:1: error_log: expected \"stderr\", \"syslog\" or an absolute path, found \"\""},
      {"a slow log without a place", "slow_log = 'syslog'\n",
       "zeph.toml:1: slow_log: expected an absolute path, found \"syslog\""},
      {"a setting of the process", "[[script]]\nmatch = '*'\nerror_log = '/a'\n",
       "zeph.toml:3: script.error_log: belongs to the process, so it cannot differ between "
       "scripts"},
      {"unknown process key", "[process]\nstatus_listens = ''\n",
       "zeph.toml:2: process.status_listens: unknown key, the nearest known one is "
       "\"status_listen\""},
      {"process setting of a wrong type", "[process]\nstatus_listen = 8081\n",
       "zeph.toml:2: process.status_listen: expected text in quotes, found an integer"},
      {"process setting out of range", "[process]\nmax_requests = -1\n",
       "zeph.toml:2: process.max_requests: expected 0 or more, found -1"},
      {"process setting outside of its section",
       "[process]\n[[script]]\nmatch = '*'\n"
       "max_requests = 1\n",
       "zeph.toml:4: script.max_requests: unknown key"},
      {"process is no section", "process = 1\n",
       "zeph.toml:1: process: expected a section [process], found an integer"},
      {"the first line wins", "[errors]\nZpIFF = 1\nZpIF = 9\n[[library]]\n[script]\n",
       "zeph.toml:2: errors.ZpIFF: unknown key, the nearest known one is \"zpif\""},
  };
  for (const ErrorCase& c : cases) {
    SCOPED_TRACE(c.label);
    Snapshot snapshot = Parse(c.text);
    EXPECT_EQ(snapshot.error, c.error);
    EXPECT_TRUE(snapshot.settings.empty());
    EXPECT_TRUE(snapshot.libraries.empty());
  }
}

TEST(Snapshot, ANegativeNumberIsTakenWhereItHasAMeaning) {
  const std::string text =
      "timeout_file = -1\nmax_post_vars = -1\nmax_unknown_content_length = -1\nssl_sni = -1\n"
      "flags_security = -1\nlog_level = -1\ncookies = -1\n";
  EXPECT_EQ(Parse(text).error, "");
  // All others refuse it.
  int taken = 0;
  for (const ConfigSetting& setting : config_settings) {
    if ((setting.id & ConfigKind_Text) != 0) continue;
    if (Parse(setting.name + std::string(" = -1\n")).error.empty()) taken++;
  }
  EXPECT_EQ(taken, 7);
}

TEST(Snapshot, AllMistakesAreToldInTheOrderOfTheFile) {
  const Snapshot snapshot = Parse(
      "timeout_post = -1\n[variables.global]\ncookies = 1\n[errors]\nZpIF = 9\n"
      "[[library]]\npath = '/a.so'\n[[script]]\ncookies = 0\n");
  const std::vector<std::string> expected = {
      "zeph.toml:1: timeout_post: expected 0 or more, found -1",
      "zeph.toml:5: errors.ZpIF: expected 0 to 3, found 9",
      "zeph.toml:6: library.kind: missing",
      "zeph.toml:8: script.match: missing",
  };
  EXPECT_EQ(snapshot.errors, expected);
  EXPECT_EQ(snapshot.error, expected[0]);
  EXPECT_EQ(snapshot.warnings.size(), 1u);
  EXPECT_EQ(Parse("a =\n").errors.size(), 1u);
  EXPECT_TRUE(Parse("cookies = 1\n").errors.empty());
}

// "timeout_global = 5" after "[variables.global]" makes a variable and leaves the limit as it was.
TEST(Snapshot, AVariableWithTheNameOfASettingIsWarnedOf) {
  for (const std::string section : {"variables.global", "variables.system"}) {
    const Snapshot snapshot = Parse("[" + section + "]\nname = 'x'\ntimeout_global = 5\n");
    EXPECT_EQ(snapshot.error, "");
    ASSERT_EQ(snapshot.warnings.size(), 1u);
    EXPECT_EQ(snapshot.warnings[0],
              "zeph.toml:3: " + section +
                  ".timeout_global: here it is a variable; the setting of this name belongs above "
                  "the first section");
  }
}

TEST(Snapshot, BrokenTextNamesFileAndLine) {
  for (const char* text :
       {"cookies = 1\ndir_zeph = \n", "cookies = 1\ndir_zeph = 'a\n", "cookies = 1\ncookies = 2\n",
        "cookies = 1\n[errors\n", "cookies = 1\ndir_zeph = '\xff'\n", "cookies = 1\n\x01\n"}) {
    SCOPED_TRACE(text);
    std::string error = Parse(text).error;
    EXPECT_EQ(error.substr(0, 13), "zeph.toml:2: ");
    EXPECT_GT(error.size(), 20u);
    EXPECT_EQ(error.find('\n'), std::string::npos);
  }
}

}  // namespace
