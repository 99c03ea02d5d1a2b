// The variables that a script gets from its request: parameters, arguments, fields of the query
// string, its own address, the time, the visitor.

#include <unistd.h>

#include <cstdlib>
#include <ctime>

#include "tests/e2e/Pages.h"
#include "tests/support/Rounds.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

// Program text that looks up each variable by name at run time and writes it, with a line end.
std::string Shows(const std::vector<std::string>& names) {
  std::string source;
  for (const std::string& name : names) {
    source += "pushnc \"" + name + "\"\nout\npushc \"\\n\"\nout\n";
  }
  return source;
}

// The same for a variable of the system's table.
std::string ShowsSystem(const std::vector<std::string>& names) {
  std::string source;
  for (const std::string& name : names) {
    source += "pushs \"" + name + "\"\nout\npushc \"\\n\"\nout\n";
  }
  return source;
}

std::string Lines(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

class Environment : public testing::Test {
 protected:
  void Start(const std::string& source) {
    engine.Script("a.zpc", source);
    engine.Script("a/b.zpc", source);
    engine.Script("index.zpc", source);
    ASSERT_TRUE(engine.Start());
  }
  std::string Page(const char* path, const FastCGIParameters& parameters) {
    FastCGIResponse response = engine.Get(path, parameters);
    EXPECT_TRUE(response.ended) << response.problem;
    return response.Body();
  }

  EngineProcess engine;
};

const std::vector<std::string> kRequest = {"arg1", "arg2", "nargs", "apitype", "documenturl"};
const FastCGIParameters kServer = {{"SERVER_NAME", "www.example.org"}, {"SERVER_PORT", "80"}};

FastCGIParameters ServerAnd(const FastCGIParameters& more) {
  FastCGIParameters all = kServer;
  all.insert(all.end(), more.begin(), more.end());
  return all;
}

// --- Arguments, fields and the address -----------------------------------------------------------

TEST_F(Environment, WithAPathItIsTheFirstArgument) {
  Start(ShowsSystem(kRequest));
  EXPECT_EQ(Page("/a/b.zpc", kServer),
            Lines({"/a/b.zpc", "", "1", "Redirect", "http://www.example.org/a/b.zpc?"}));
}

TEST_F(Environment, WithAPathAllOfTheQueryAreFields) {
  Start(ShowsSystem(kRequest) + Shows({"x", "y"}));
  EXPECT_EQ(Page("/a/b.zpc", ServerAnd({{"QUERY_STRING", "x=1&y=2+3"}})),
            // A "+" is a blank in the field, and also separates arguments.
            Lines({"/a/b.zpc", "x=1&y=2", "3", "Redirect", "http://www.example.org/a/b.zpc?", "1",
                   "2 3"}));
}

TEST_F(Environment, ThePathArgumentIsNotDecoded) {
  Start("");
  engine.Script("a%20b.zpc", ShowsSystem({"arg1", "documenturl"}));
  EXPECT_EQ(Page("/a%20b.zpc", kServer),
            Lines({"/a%20b.zpc", "http://www.example.org/a%20b.zpc?"}));
}

TEST_F(Environment, WithoutAPathTheQueryNamesTheScriptAndHoldsArgumentsAndFields) {
  Start(ShowsSystem(kRequest) + "pushg x\nout\n");
  EXPECT_EQ(
      Page(nullptr, ServerAnd({{"QUERY_STRING", "a.zpc+x=1"}, {"SCRIPT_NAME", "/cgi-bin/zeph"}})),
      Lines({"a.zpc", "x=1", "2", "CGI", "http://www.example.org/cgi-bin/zeph?a.zpc+"}) + "1");
}

TEST_F(Environment, AnEmptyQueryHasNoArguments) {
  Start(ShowsSystem(kRequest));
  EXPECT_EQ(Page(nullptr, ServerAnd({{"QUERY_STRING", ""}})),
            Lines({"", "", "0", "CGI", "http://www.example.org?+"}));
}

TEST_F(Environment, ArgumentsAreDecodedAndEmptyOnesTakeNoNumber) {
  Start(ShowsSystem({"arg1", "arg2", "arg3", "nargs", "documenturl"}));
  EXPECT_EQ(Page(nullptr, ServerAnd({{"QUERY_STRING", "a%2Ezpc++b%20c+%zz++"}})),
            "Unable to execute 'a%2Ezpc': No such file or directory");
  EXPECT_EQ(Page(nullptr, ServerAnd({{"QUERY_STRING", "a.zpc++b%20%3Cc%3e+%zz++"}})),
            Lines({"a.zpc", "b <c>", "%zz", "3", "http://www.example.org?a.zpc+"}));
  // The first argument is the first nonempty one, at any position.
  EXPECT_EQ(Page(nullptr, ServerAnd({{"QUERY_STRING", "+%41"}})),
            Lines({"A", "", "", "1", "http://www.example.org?A+"}));
}

TEST_F(Environment, ArgumentsOfTheProcessTakeThePlaceOfTheQuerys) {
  engine.arguments = {"a.zpc", "b%20c", "", "d"};
  Start(ShowsSystem({"arg1", "arg2", "arg3", "nargs"}) + Shows({"x"}));
  EXPECT_EQ(Page(nullptr, {{"QUERY_STRING", "other.zpc+x=1"}}),
            Lines({"a.zpc", "b c", "d", "3", "1"}));
  // After a path they are counted from 2.
  EXPECT_EQ(Page("/a.zpc", {{"QUERY_STRING", "x=1"}}), Lines({"/a.zpc", "a.zpc", "b c", "4", "1"}));
}

TEST_F(Environment, WithoutAPlusTheQueryHasNoFields) {
  Start("pushg x\nout\npushg \"a.zpc\"\nout\n");
  EXPECT_EQ(Page(nullptr, {{"QUERY_STRING", "a.zpc"}}), "");
}

TEST_F(Environment, FieldsOfTheQueryAreGlobalsAndHaveNoLimit) {
  engine.settings = "max_post_vars = 1\n";
  Start("pushg x\nout\npushg y\nout\npushnc \"list[2]\"\nout\npushnc \"tea:name\"\nout\n");
  EXPECT_EQ(Page("/a.zpc", {{"QUERY_STRING", "x=%31&y=+2&list=a&list=b&tea:name=Assam"}}),
            "1 2bAssam");
}

TEST_F(Environment, DocumentURLByServerPortAndScheme) {
  struct Case {
    FastCGIParameters parameters;
    const char* url;
  };
  const Case cases[] = {
      {{{"SERVER_NAME", "host"}}, "http://host/a.zpc?"},
      {{{"SERVER_NAME", "host"}, {"SERVER_PORT", "80"}}, "http://host/a.zpc?"},
      {{{"SERVER_NAME", "host"}, {"SERVER_PORT", "8080"}}, "http://host:8080/a.zpc?"},
      {{{"SERVER_NAME", "host"}, {"SERVER_PORT", "443"}}, "http://host:443/a.zpc?"},
      {{{"SERVER_NAME", "host"}, {"SERVER_PORT", ""}}, "http://host:0/a.zpc?"},
      {{{"SERVER_NAME", "host"}, {"SERVER_PORT", "81x"}}, "http://host:81/a.zpc?"},
      {{{"SERVER_NAME", "host"}, {"SERVER_PORT", "8443"}, {"HTTPS", "on"}},
       "https://host:8443/a.zpc?"},
      {{{"SERVER_NAME", "host"}, {"SERVER_PORT", "443"}, {"HTTPS", "on"}}, "https://host/a.zpc?"},
      {{{"SERVER_NAME", "host"}, {"SERVER_PORT", "80"}, {"HTTPS", "on"}}, "https://host:80/a.zpc?"},
      {{{"SERVER_NAME", "host"}, {"HTTPS", "1"}}, "https://host/a.zpc?"},
      // Any value is enough.
      {{{"SERVER_NAME", "host"}, {"HTTPS", "off"}}, "https://host/a.zpc?"},
      {{{"SERVER_NAME", "host"}, {"HTTPS", ""}}, "https://host/a.zpc?"},
      {{{"SERVER_NAME", "::1"}, {"SERVER_PORT", "8080"}}, "http://[::1]:8080/a.zpc?"},
      {{{"SERVER_NAME", "2001:db8::7"}, {"HTTPS", "on"}}, "https://[2001:db8::7]/a.zpc?"},
      {{{"SERVER_NAME", "[::1]"}}, "http://[::1]/a.zpc?"},
      {{{"SERVER_NAME", "127.0.0.1"}}, "http://127.0.0.1/a.zpc?"},
      {{{"SERVER_NAME", "not:an:address"}}, "http://not:an:address/a.zpc?"},
      {{{"SERVER_NAME", ""}}, "http:///a.zpc?"},
      // Without a server name there is no address.
      {{{"SERVER_PORT", "80"}}, ""},
  };
  Start(ShowsSystem({"documenturl"}));
  for (const Case& each : cases) {
    SCOPED_TRACE(each.url);
    EXPECT_EQ(Page("/a.zpc", each.parameters), Lines({each.url}));
  }
}

// --- Parameters of the web server ----------------------------------------------------------------

TEST_F(Environment, EveryParameterIsASystemVariableUnderTheNameAsSent) {
  Start(ShowsSystem({"REMOTE_ADDR", "http_x_odd-name", "EMPTY", "REQUEST_METHOD"}));
  EXPECT_EQ(Page("/a.zpc", {{"REMOTE_ADDR", "10.0.0.1"},
                            {"HTTP_X_Odd-Name", "a=b=c"},
                            {"EMPTY", ""},
                            {"REQUEST_METHOD", "BREW"}}),
            Lines({"10.0.0.1", "a=b=c", "", "BREW"}));
}

TEST_F(Environment, OneThatComesAgainReplacesTheFirst) {
  Start(ShowsSystem({"TWICE"}));
  EXPECT_EQ(Page("/a.zpc", {{"TWICE", "1"}, {"twice", "2"}}), Lines({"2"}));
}

TEST_F(Environment, TheRoleThatTheProtocolAddsIsThereToo) {
  Start(ShowsSystem({"FCGI_ROLE"}));
  EXPECT_EQ(Page("/a.zpc", {}), Lines({"RESPONDER"}));
}

TEST_F(Environment, FourNamesAreKeptBackWhateverTheirCase) {
  Start(ShowsSystem({"termcap", "logname", "mail", "path", "pathx", "xpath", "ZpCONFIG_LIBRARY"}));
  EXPECT_EQ(Page("/a.zpc", {{"TERMCAP", "1"},
                            {"LogName", "2"},
                            {"mail", "3"},
                            {"PATH", "4"},
                            {"PATHX", "5"},
                            {"XPATH", "6"}}),
            Lines({"", "", "", "", "5", "6", EngineProcess::ConfigurationLibrary()}));
}

TEST_F(Environment, ThePrivateEnvironmentOfTheProcessIsNobodysBusiness) {
  engine.environment["ZEPH_TEST_SECRET"] = "secret";
  Start(ShowsSystem({"ZEPH_TEST_SECRET"}));
  EXPECT_EQ(Page("/a.zpc", {}), Lines({""}));
}

TEST_F(Environment, AScriptCannotAssignASystemVariable) {
  Start("pushc \"mine\"\npops REMOTE_ADDR\npushc \"mine\"\npops arg1\n" +
        ShowsSystem({"REMOTE_ADDR", "arg1"}));
  EXPECT_EQ(Page("/a.zpc", {{"REMOTE_ADDR", "10.0.0.1"}}), Lines({"10.0.0.1", "/a.zpc"}));
}

TEST_F(Environment, AFieldOfTheVisitorsDoesNotHideASystemVariable) {
  Start(Shows({"REMOTE_ADDR", "zephversion"}));
  EXPECT_EQ(Page("/a.zpc",
                 {{"REMOTE_ADDR", "10.0.0.1"}, {"QUERY_STRING", "REMOTE_ADDR=x&zephversion=x"}}),
            Lines({"10.0.0.1", "5.29"}));
}

// The engine's variables are made after the parameters, so they count.
TEST_F(Environment, TheEnginesOwnVariablesReplaceParametersOfTheirNames) {
  Start(ShowsSystem({"nargs", "arg1", "apitype", "zephversion", "documenturl", "globaltimeout"}));
  EXPECT_EQ(Page("/a.zpc", ServerAnd({{"nargs", "9"},
                                      {"ARG1", "x"},
                                      {"apitype", "x"},
                                      {"zephversion", "x"},
                                      {"globaltimeout", "x"},
                                      {"documenturl", "x"}})),
            Lines({"1", "/a.zpc", "Redirect", "5.29", "http://www.example.org/a.zpc?", "90"}));
}

// --- The time, the process, the visitor ----------------------------------------------------------

TEST_F(Environment, TheMomentOfTheRequest) {
  engine.environment["TZ"] = "EST5EDT";
  Start(ShowsSystem({"time_t", "tm_usec", "tm_sec", "tm_min", "tm_hour", "tm_mday", "tm_mon",
                     "stm_mon", "tm_year", "tm_wday", "stm_wday", "tm_yday", "tm_isdst",
                     "stm_zone"}));
  const time_t before = time(nullptr);
  const std::string page = Page("/a.zpc", {});
  const time_t after = time(nullptr);
  std::vector<std::string> lines;
  for (size_t at = 0, end; (end = page.find('\n', at)) != std::string::npos; at = end + 1) {
    lines.push_back(page.substr(at, end - at));
  }
  ASSERT_EQ(lines.size(), 14u) << page;
  const time_t now = std::stol(lines[0]);
  EXPECT_GE(now, before);
  EXPECT_LE(now, after);
  EXPECT_THAT(lines[1], MatchesRegex("[0-9]{1,6}"));

  setenv("TZ", "EST5EDT", 1);
  tzset();
  tm local{};
  localtime_r(&now, &local);
  char month[8], weekday[8];
  strftime(month, sizeof month, "%b", &local);
  strftime(weekday, sizeof weekday, "%a", &local);
  const std::vector<std::string> expected = {std::to_string(local.tm_sec),
                                             std::to_string(local.tm_min),
                                             std::to_string(local.tm_hour),
                                             std::to_string(local.tm_mday),
                                             std::to_string(local.tm_mon + 1),
                                             month,
                                             std::to_string(local.tm_year + 1900),
                                             std::to_string(local.tm_wday + 1),
                                             weekday,
                                             std::to_string(local.tm_yday + 1),
                                             std::to_string(local.tm_isdst),
                                             local.tm_zone};
  EXPECT_EQ(std::vector<std::string>(lines.begin() + 2, lines.end()), expected);
  unsetenv("TZ");
  tzset();
}

TEST_F(Environment, TheTimeLimitAndTheVersion) {
  engine.settings = "timeout_global = 17\n";
  Start(ShowsSystem({"globaltimeout", "zephversion"}));
  EXPECT_EQ(Page("/a.zpc", {}), Lines({"17", "5.29"}));
}

TEST_F(Environment, ProcessAndThread) {
  engine.arguments = {"-t", "1"};
  Start(ShowsSystem({"process_id", "thread_id"}));
  EXPECT_EQ(Page("/a.zpc", {}), Lines({std::to_string(engine.pid()), "2"}));
}

TEST_F(Environment, TheVisitorsIdIsTheOneOfTheCookie) {
  Start(ShowsSystem({"callerid"}));
  EXPECT_EQ(Page("/a.zpc", {{"HTTP_COOKIE", "a=b; zixcallerid=0123abc; c=d"}}), Lines({"0123abc"}));
  FastCGIResponse made = engine.Get("/a.zpc", {{"HTTP_COOKIE", "zixcallerid=; other=1"}});
  EXPECT_THAT(made.Body(), MatchesRegex("[0-9a-f]{32}\n"));
  EXPECT_THAT(made.Header("Set-Cookie"),
              HasSubstr("zixcallerid=" + made.Body().substr(0, 32) + ";"));
}

TEST_F(Environment, WithoutCookiesThereIsNoVisitorsId) {
  engine.settings = "cookies = 0\n";
  Start(ShowsSystem({"callerid"}));
  EXPECT_EQ(Page("/a.zpc", {{"HTTP_COOKIE", "zixcallerid=0123abc"}}), Lines({""}));
}

// --- Hostile input -------------------------------------------------------------------------------

TEST_F(Environment, LongAndManyParameters) {
  FastCGIParameters parameters;
  for (int i = 0; i < 3000; i++) {
    parameters.emplace_back("P" + std::to_string(i), "v" + std::to_string(i));
  }
  parameters.emplace_back(std::string(70000, 'N'), "long name");
  parameters.emplace_back("LONG", std::string(300000, 'v'));
  Start(ShowsSystem({"P0", "P2999"}) + "pushs LONG\nout\n");
  EXPECT_EQ(Page("/a.zpc", parameters), Lines({"v0", "v2999"}) + std::string(300000, 'v'));
}

TEST_F(Environment, AQueryOfPlusSignsAndOneThatNests) {
  Start(ShowsSystem({"nargs"}));
  EXPECT_EQ(Page("/a.zpc", {{"QUERY_STRING", std::string(200000, '+')}}), Lines({"1"}));
  std::string nested = "x";
  for (int i = 0; i < Rounds(50000); i++) nested += ":a";
  EXPECT_EQ(Page("/a.zpc", {{"QUERY_STRING", nested + "=1"}}), Lines({"2"}));
  std::string many;
  for (int i = 0; i < 50000; i++) many += "a+";
  EXPECT_EQ(Page("/a.zpc", {{"QUERY_STRING", many}}), Lines({"50001"}));
}

TEST_F(Environment, ABrokenTailOfTheQueryIsReadAsFarAsItGoes) {
  Start("pushg x\nout\n");
  EXPECT_EQ(Page("/a.zpc", {{"QUERY_STRING", "x=1&y=%"}}), "1");
  // A name that is cut off gets the length of the name before it, whose bytes are still in the
  // buffer.
  EXPECT_EQ(Page("/a.zpc", {{"QUERY_STRING", "x=1&%4"}}), "1,");
}

}  // namespace
