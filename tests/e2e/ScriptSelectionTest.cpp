// The script that a request names, and the fields that every response has.

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <filesystem>

#include "tests/e2e/Pages.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

class ScriptSelection : public testing::Test {
 protected:
  ScriptSelection() {
    engine.Script("index.zpc", Writes("the index"));
    engine.Script("a.zpc", Writes("a"));
    engine.Script("a/b.zpc", Writes("a/b"));
    engine.Script("a/index.zpc", Writes("the index of a"));
  }

  EngineProcess engine;
};

TEST_F(ScriptSelection, ThePathOfTheRequestWithoutItsFirstSlash) {
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/a/b.zpc"), "a/b");
  ExpectPage(engine.Get("a/b.zpc"), "a/b");
}

TEST_F(ScriptSelection, ThePathIsNotDecoded) {
  engine.Script("a%20b+c.zpc", Writes("as it stands"));
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/a%20b+c.zpc"), "as it stands");
}

TEST_F(ScriptSelection, WithoutAPathTheQueryUpToItsFirstPlus) {
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get(nullptr, {{"QUERY_STRING", "a.zpc+x=1+y"}}), "a");
  ExpectPage(engine.Get(nullptr, {{"QUERY_STRING", "a/b.zpc"}}), "a/b");
}

TEST_F(ScriptSelection, WithAPathTheQueryNamesNoScript) {
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/a.zpc", {{"QUERY_STRING", "a/b.zpc"}}), "a");
}

TEST_F(ScriptSelection, WithoutPathAndQueryTheDefaultFile) {
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get(nullptr), "the index");
}

TEST_F(ScriptSelection, AnEmptyQueryIsTheScriptRootAndRunsTheDefaultFile) {
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get(nullptr, {{"QUERY_STRING", ""}}), "the index");
  ExpectPage(engine.Get(nullptr, {{"QUERY_STRING", "+x=1"}}), "the index");
}

TEST_F(ScriptSelection, AnEmptyPathAndASlashRunTheDefaultFile) {
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get(""), "the index");
  ExpectPage(engine.Get("/"), "the index");
}

TEST_F(ScriptSelection, AFolderRunsItsDefaultFileWithAndWithoutASlash) {
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/a"), "the index of a");
  ExpectPage(engine.Get("/a/"), "the index of a");
}

// As Apache's mod_proxy_fcgi sends its requests.
TEST_F(ScriptSelection, TheScriptsNameMayServeAsThePath) {
  engine.settings = "path_from_script_name = true\n";
  engine.Script("shows.zpc",
                "pushs arg1\nout\npushc \"|\"\nout\npushs apitype\nout\npushc \"|\"\nout\n"
                "pushs documenturl\nout\npushc \"|\"\nout\npushg x\nout\n");
  ASSERT_TRUE(engine.Start());
  const FastCGIParameters more = {
      {"SCRIPT_NAME", "/shows.zpc"}, {"SERVER_NAME", "host"}, {"QUERY_STRING", "x=1"}};
  const char* const shown = "/shows.zpc|Redirect|http://host/shows.zpc?|1";
  ExpectPage(engine.Get(nullptr, more), shown);
  ExpectPage(engine.Get("", more), shown);
  ExpectPage(engine.Get("/a.zpc", more), "a");
  // Without either the query names the script.
  ExpectPage(engine.Get(nullptr, {{"QUERY_STRING", "a.zpc+x=1"}}), "a");
  ExpectPage(engine.Get(nullptr, {{"SCRIPT_NAME", ""}, {"QUERY_STRING", "a.zpc"}}), "a");
}

TEST_F(ScriptSelection, TheScriptsNameIsNoPathByDefault) {
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get(nullptr, {{"SCRIPT_NAME", "/a/b.zpc"}, {"QUERY_STRING", "a.zpc"}}), "a");
  ExpectPage(engine.Get("", {{"SCRIPT_NAME", "/a/b.zpc"}}), "the index");
}

TEST_F(ScriptSelection, TheDefaultFileIsASetting) {
  engine.settings = "default_file = \"b.zpc\"\n";
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/a"), "a/b");
}

TEST_F(ScriptSelection, ADefaultFileMayLieInAFolderFurtherDown) {
  engine.settings = "default_file = \"a/b.zpc\"\n";
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/"), "a/b");
}

TEST_F(ScriptSelection, AFolderWithoutTheDefaultFileIsToldByTheWholePath) {
  engine.Folder("scripts/empty");
  ASSERT_TRUE(engine.Start());
  ExpectFailure(engine.Get("/empty"),
                "Unable to execute 'empty/index.zpc': No such file or directory");
}

TEST_F(ScriptSelection, ADefaultFileThatIsAFolderGrowsUntilThePathIsTooLong) {
  // "." is the folder itself, without end.
  engine.settings = "default_file = \".\"\n";
  ASSERT_TRUE(engine.Start());
  FastCGIResponse response = engine.Get("/a");
  EXPECT_TRUE(response.ended) << response.problem;
  EXPECT_THAT(response.Body(), StartsWith("Unable to execute 'a/./././"));
  EXPECT_THAT(response.Body(), testing::EndsWith("': File name too long"));
}

TEST_F(ScriptSelection, AUsersScriptsLieBelowTheHomeDirectory) {
  // The setting leads from the home directory up to the root and down to the test's folder.
  passwd* user = getpwuid(geteuid());
  ASSERT_NE(user, nullptr);
  std::string home = user->pw_dir;
  std::string up;
  for (size_t i = 0; i < home.size(); i++) {
    if (home[i] == '/' && i + 1 < home.size()) up += "../";
  }
  engine.settings = "dir_user = \"" + up + engine.Path("users").substr(1) + "\"\n";
  engine.Script("../users/page.zpc", Writes("the user's"));
  engine.Script("../users/index.zpc", Writes("the user's index"));
  ASSERT_TRUE(engine.Start());
  std::string name = std::string("/~") + user->pw_name;
  ExpectPage(engine.Get((name + "/page.zpc").c_str()), "the user's");
  ExpectPage(engine.Get((name + "/").c_str()), "the user's index");
  ExpectPage(engine.Get("/a.zpc"), "a");
}

TEST_F(ScriptSelection, ATildeAloneIsAnOrdinaryName) {
  engine.Script("~", Writes("tilde"));
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/~"), "tilde");
}

TEST_F(ScriptSelection, SettingsForSomeScriptsHoldForThemOnly) {
  engine.settings = "[[script]]\nmatch = \"a/**\"\ncookies = 0\n";
  ASSERT_TRUE(engine.Start());
  EXPECT_FALSE(engine.Get("/a/b.zpc").HasHeader("Set-Cookie"));
  EXPECT_TRUE(engine.Get("/a.zpc").HasHeader("Set-Cookie"));
}

TEST_F(ScriptSelection, AChangedConfigurationHoldsFromTheNextRequestOn) {
  ASSERT_TRUE(engine.Start());
  EXPECT_TRUE(engine.Get("/a.zpc").HasHeader("Set-Cookie"));
  engine.settings = "cookies = 0\n";
  engine.WriteConfiguration();
  EXPECT_FALSE(engine.Get("/a.zpc").HasHeader("Set-Cookie"));
}

TEST_F(ScriptSelection, ABrokenChangeLeavesTheGoodConfigurationInForceAndIsToldOnce) {
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/a.zpc"), "a");
  engine.settings = "cookeys = 0\n";
  engine.WriteConfiguration();
  ExpectPage(engine.Get("/a.zpc"), "a");
  ExpectPage(engine.Get("/a.zpc"), "a");
  std::string log = engine.Log();
  EXPECT_THAT(log, HasSubstr("zeph.toml:4: cookeys: "));
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
}

// The value of the visitor's cookie in a response.
std::string CallerID(const FastCGIResponse& response) {
  std::string cookie = response.Header("Set-Cookie");
  const std::string name = "zixcallerid=";
  if (cookie.substr(0, name.size()) != name) return "(" + cookie + ")";
  return cookie.substr(name.size(), cookie.find(';') - name.size());
}

TEST_F(ScriptSelection, FieldsStandInTheirOrder) {
  ASSERT_TRUE(engine.Start());
  EXPECT_THAT(engine.Get("/a.zpc").Headers(),
              MatchesRegex("Content-Type: text/html\r\n"
                           "Set-Cookie: zixcallerid=[0-9a-f]{32}; expires=[^;]*; path=/\r\n"
                           "Content-Length: 1"));
}

TEST_F(ScriptSelection, ANewVisitorGetsAnIdOfThirtyTwoDigitsForAYear) {
  ASSERT_TRUE(engine.Start());
  time_t before = time(nullptr);
  FastCGIResponse response = engine.Get("/a.zpc");
  time_t after = time(nullptr);
  EXPECT_THAT(CallerID(response), MatchesRegex("[0-9a-f]{32}"));
  EXPECT_NE(CallerID(response), CallerID(engine.Get("/a.zpc")));

  std::string cookie = response.Header("Set-Cookie");
  size_t start = cookie.find("expires=");
  ASSERT_NE(start, std::string::npos);
  tm fields{};
  const char* end = strptime(cookie.c_str() + start + 8, "%a, %d-%b-%Y %H:%M:%S GMT", &fields);
  ASSERT_NE(end, nullptr) << cookie;
  EXPECT_STREQ(end, "; path=/");
  constexpr time_t year = 31536000;
  EXPECT_GE(timegm(&fields), before + year);
  EXPECT_LE(timegm(&fields), after + year);
}

TEST_F(ScriptSelection, AKnownVisitorKeepsTheId) {
  struct Case {
    const char* cookies;
    const char* id;
  };
  const Case cases[] = {
      {"zixcallerid=0123abc", "0123abc"},
      {"other=1; zixcallerid=0123abc; more=2", "0123abc"},
      {"xzixcallerid=letters in front", "letters in front"},
      {"zixcallerid=first; zixcallerid=second", "first"},
  };
  ASSERT_TRUE(engine.Start());
  for (const Case& each : cases) {
    SCOPED_TRACE(each.cookies);
    EXPECT_EQ(CallerID(engine.Get("/a.zpc", {{"HTTP_COOKIE", each.cookies}})), each.id);
  }
  // Others may have set a cookie of that name, of any length.
  for (const size_t length : {1, 100, 101, 102, 5000}) {
    SCOPED_TRACE(length);
    const std::string id(length, 'x');
    EXPECT_EQ(CallerID(engine.Get("/a.zpc", {{"HTTP_COOKIE", "zixcallerid=" + id}})), id);
  }
}

TEST_F(ScriptSelection, AnEmptyOrForeignCookieCountsAsNone) {
  ASSERT_TRUE(engine.Start());
  for (const char* cookies : {"zixcallerid=; other=1", "zixcallerid=", "other=1", ""}) {
    SCOPED_TRACE(cookies);
    EXPECT_THAT(CallerID(engine.Get("/a.zpc", {{"HTTP_COOKIE", cookies}})),
                MatchesRegex("[0-9a-f]{32}"));
  }
}

TEST_F(ScriptSelection, NoCookieWhenTheyAreTurnedOff) {
  engine.settings = "cookies = 0\n";
  ASSERT_TRUE(engine.Start());
  EXPECT_EQ(engine.Get("/a.zpc", {{"HTTP_COOKIE", "zixcallerid=abc"}}).Headers(),
            "Content-Type: text/html\r\nContent-Length: 1");
}

}  // namespace
