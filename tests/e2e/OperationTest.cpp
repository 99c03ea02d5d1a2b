// What an operator sees of the engine: the error log and the slow log, and what visitors see of
// errors. Tests that wait for a heartbeat are labelled as slow.

#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "base/core/Sanitizers.h"
#include "tests/e2e/Pages.h"
#include "tests/support/Paths.h"
#include "tests/support/UploadMachine.h"

namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using Milliseconds = FastCGIClient::Milliseconds;

const FastCGIParameters kVisitor = {
    {"REQUEST_METHOD", "GET"}, {"QUERY_STRING", "id=7"}, {"REMOTE_ADDR", "192.0.2.1"}};

// A reference, as lines of the log and pages have it.
std::string ReferenceIn(const std::string& text, const std::string& before) {
  std::smatch match;
  const bool found = std::regex_search(text, match, std::regex(before + "([0-9a-f]{10})"));
  EXPECT_TRUE(found) << text;
  return found ? match[1].str() : "";
}
std::string ReferenceOf(const std::string& line) {
  return ReferenceIn(line, "reference \"");
}

// A script that sets header fields, with the library that has the function.
const char kHeaderFunction[] = ".function header(name, value) external\n.end\n";
std::string SetsHeader(const std::string& name, const std::string& value) {
  return "pushc \"" + name + "\"\npushc \"" + value + "\"\ncall header\npop\n";
}
std::string LibraryWithHeader() {
  return "[[library]]\nkind = \"builtin\"\npath = \"" + InBuild("lib/test/TaskFunctions.so") +
         "\"\n";
}

class Operation : public testing::Test {
 protected:
  Operation() {
    engine.settings = Settings("");
    engine.Script("page.zpc", Writes("page"));
    engine.Script("fatal.zpc", Writes("before") + "sourcefile \"fatal.zeph\"\nlineno 8\npop\n");
    engine.Script("runtime.zpc", Writes("before") + "tagerror 62, 1\nlineno 7\npushg x\npushi 0\n" +
                                     "elem\npop\n" + Writes("after"));
  }
  // The log goes to a file, because the engine's standard error may have lines of a sanitizer.
  std::string Settings(const std::string& more) const {
    return "error_log = \"" + engine.Path("error.log") + "\"\n" + more;
  }
  static std::string Content(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
  }
  // The lines of the log, each without the time, which has to be there.
  std::vector<std::string> Lines(const std::string& name = "error.log") const {
    std::vector<std::string> lines;
    std::istringstream content(Content(engine.Path(name)));
    const std::regex time("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ");
    for (std::string line; std::getline(content, line);) {
      std::smatch match;
      EXPECT_TRUE(std::regex_search(line, match, time) && match.position() == 0) << line;
      lines.push_back(line.substr(static_cast<size_t>(match.length())));
    }
    return lines;
  }
  // The one line of the log.
  std::string Line() const {
    const auto lines = Lines();
    EXPECT_EQ(lines.size(), 1u) << Content(engine.Path("error.log"));
    return lines.empty() ? "" : lines[0];
  }
  // The latest line of the log; empty without one.
  std::string LastLine() const {
    const auto lines = Lines();
    return lines.empty() ? "" : lines.back();
  }
  // A request whose body comes so many milliseconds after its parameters.
  FastCGIResponse SlowUpload(const char* path, int time) {
    FastCGIClient client;
    EXPECT_TRUE(client.Connect(engine.socket()));
    EXPECT_TRUE(client.Begin() &&
                client.Parameters(
                    engine.Parameters(path, {{"CONTENT_TYPE", "application/x-www-form-urlencoded"},
                                             {"CONTENT_LENGTH", "3"}})) &&
                client.EndParameters());
    std::this_thread::sleep_for(Milliseconds(time));
    EXPECT_TRUE(client.Input("a=1") && client.EndInput());
    return client.Read();
  }
  std::string WaitForLine(const std::string& part) const {
    for (int i = 0; i < 2000; i++) {
      for (const std::string& line : Lines()) {
        if (line.find(part) != std::string::npos) return line;
      }
      std::this_thread::sleep_for(Milliseconds(10));
    }
    ADD_FAILURE() << part << " is missing in\n" << Content(engine.Path("error.log"));
    return "";
  }

  EngineProcess engine;
};

using SlowOperation = Operation;

// --- Lines ---------------------------------------------------------------------------------------

TEST_F(Operation, AFatalErrorHasALineWithItsPlaceAndItsRequest) {
  ASSERT_TRUE(engine.Start());
  FastCGIResponse response = engine.Get("/fatal.zpc", kVisitor);
  EXPECT_THAT(response.Body(), StartsWith("beforeFatal error in fatal.zpc @ ["));
  const std::string line = Line();
  EXPECT_THAT(line, StartsWith("error " + std::to_string(engine.pid()) + "."));
  EXPECT_THAT(line, HasSubstr(": Fatal error in fatal.zpc @ [00000000:"));
  EXPECT_THAT(line, HasSubstr("]: fatal.zeph: Line 8: Stack underflow; reference \""));
  EXPECT_THAT(line, testing::EndsWith("\", script \"fatal.zpc\", at \"fatal.zeph:8\", client "
                                      "\"192.0.2.1\", request \"GET /fatal.zpc?id=7\""));
  EXPECT_EQ(ReferenceOf(line).size(), 10u);
}

TEST_F(Operation, ARuntimeErrorThatIsShownIsAWarning) {
  ASSERT_TRUE(engine.Start());
  EXPECT_THAT(engine.Get("/runtime.zpc").Body(), HasSubstr("\nafter"));
  EXPECT_THAT(Line(), AllOf(StartsWith("warning "), HasSubstr("Runtime error in runtime.zpc @ ["),
                            HasSubstr("Array index must be positive"), HasSubstr("at \":7\"")));
}

TEST_F(Operation, ARuntimeErrorThatIsNotShownIsReportedIfItEndsTheScript) {
  engine.Script("hidden.zpc", "tagerror 62, 0\npushg x\npushi 0\nelem\npop\n");
  engine.Script("ends.zpc", "tagerror 62, 2\npushg x\npushi 0\nelem\npop\n");
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/hidden.zpc"), "");
  ExpectPage(engine.Get("/ends.zpc"), "");
  EXPECT_THAT(Line(), AllOf(StartsWith("error "), HasSubstr("script \"ends.zpc\"")));
}

TEST_F(Operation, AScriptThatFailsInALoopDoesNotFillTheLog) {
  engine.Script("loop.zpc",
                "tagerror 62, 1\nstoregi i, 0\nagain: pushg x\npushi 0\nelem\npop\nincg i, 1\n"
                "cmpgi i, 1000\njmp_lt again\n");
  ASSERT_TRUE(engine.Start());
  engine.Get("/loop.zpc");
  const auto lines = Lines();
  ASSERT_EQ(lines.size(), 21u);
  EXPECT_THAT(lines.back(), HasSubstr("Further errors of this request are not reported"));
  EXPECT_EQ(ReferenceOf(lines.front()), ReferenceOf(lines.back()));
}

TEST_F(Operation, AMissingScriptHasALine) {
  ASSERT_TRUE(engine.Start());
  ExpectFailure(engine.Get("/nowhere.zpc", kVisitor),
                "Unable to execute 'nowhere.zpc': No such file or directory");
  EXPECT_THAT(Line(),
              AllOf(StartsWith("warning "),
                    HasSubstr(": Unable to execute 'nowhere.zpc': No such file or directory; "
                              "reference \""),
                    HasSubstr("request \"GET /nowhere.zpc?id=7\"")));
}

TEST_F(Operation, ACorruptScriptHasALine) {
  engine.Write("scripts/corrupt.zpc", "no script");
  ASSERT_TRUE(engine.Start());
  engine.Get("/corrupt.zpc");
  EXPECT_THAT(Line(),
              AllOf(StartsWith("error "),
                    HasSubstr("Unable to execute 'corrupt.zpc': File is either corrupt or "),
                    HasSubstr("script \"corrupt.zpc\"")));
}

TEST_F(Operation, AFormThatIsRefusedHasALine) {
  engine.settings = Settings("max_post_vars = -1\n");
  ASSERT_TRUE(engine.Start());
  FastCGIResponse response = engine.Get(
      "/page.zpc", {{"CONTENT_TYPE", "application/x-www-form-urlencoded"}, {"CONTENT_LENGTH", "3"}},
      "a=1");
  EXPECT_THAT(Line(), AllOf(StartsWith("warning "), HasSubstr(response.Body())));
}

// A visitor's text must not look like a line of its own, or like another field.
TEST_F(Operation, ARequestCannotForgeALine) {
  ASSERT_TRUE(engine.Start());
  engine.Get("/a\n2026-11-22 10:00:00.000 error 1: forged\x1b[31m\".zpc",
             {{"REQUEST_METHOD", "GET\r\nX"},
              {"REMOTE_ADDR", "1.2.3.4\", request \"GET /"},
              {"QUERY_STRING", std::string(100000, '\n')}});
  const std::string line = Line();
  EXPECT_THAT(line, Not(ContainsRegex("[^ -~]")));
  EXPECT_THAT(line, HasSubstr("a\\x0a2026-11-22"));
  EXPECT_THAT(line, HasSubstr("client \"1.2.3.4\\x22, request \\x22GET /\""));
  EXPECT_THAT(line, HasSubstr("request \"GET\\x0d\\x0aX /a\\x0a2026"));
  EXPECT_LT(line.size(), 4096u);
}

TEST_F(Operation, TheAddressThatTheWebServerGivesIsTheRequestLine) {
  ASSERT_TRUE(engine.Start());
  engine.Get("/nowhere.zpc", {{"REQUEST_METHOD", "POST"}, {"REQUEST_URI", "/nowhere?a=%0A"}});
  EXPECT_THAT(Line(), HasSubstr("request \"POST /nowhere?a=%0A\""));
}

TEST_F(Operation, APageThatIsWellHasNoLine) {
  ASSERT_TRUE(engine.Start());
  for (int i = 0; i < 5; i++) ExpectPage(engine.Get("/page.zpc"), "page");
  EXPECT_EQ(Content(engine.Path("error.log")), "");
  EXPECT_EQ(engine.Log(), "");
}

// --- Configuration -------------------------------------------------------------------------------

TEST_F(Operation, ATypoInTheFirstConfigurationHasALineInTheLogThatItNames) {
  engine.settings = Settings("cookeys = 0\n");
  ASSERT_TRUE(engine.Start());
  engine.Get("/page.zpc", kVisitor);
  const auto lines = Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_THAT(lines[0], HasSubstr(": zeph-fcgi: " + engine.Path("zeph.toml") + ":5: cookeys: "));
  EXPECT_THAT(lines[1],
              AllOf(StartsWith("error "), HasSubstr("Configuration Error: Error loading "),
                    HasSubstr("zeph.toml:5: cookeys: unknown key, the nearest known one is "),
                    HasSubstr("\"cookies\""), HasSubstr("client \"192.0.2.1\"")));
}

TEST_F(Operation, ATypoInALaterConfigurationHasOneLine) {
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/page.zpc"), "page");
  engine.settings = Settings("cookeys = 0\n");
  engine.WriteConfiguration();
  for (int i = 0; i < 3; i++) ExpectPage(engine.Get("/page.zpc"), "page");
  EXPECT_THAT(Line(), AllOf(StartsWith("error "), HasSubstr(": libzephconfig: "),
                            HasSubstr("zeph.toml:5: cookeys: "),
                            testing::EndsWith("; the last good configuration stays in force")));
}

TEST_F(Operation, ALibraryThatCannotBeLoadedHasOneLineWithTheLoadersReason) {
  engine.settings = Settings("[[library]]\nkind = \"builtin\"\npath = \"/nowhere/tools.so\"\n");
  ASSERT_TRUE(engine.Start());
  for (int i = 0; i < 3; i++) ExpectPage(engine.Get("/page.zpc"), "page");
  EXPECT_THAT(Line(), AllOf(StartsWith("error "),
                            HasSubstr("/nowhere/tools.so: cannot open shared object file: No such "
                                      "file or directory")));
}

TEST_F(Operation, ADirectoryThatIsMissingHasALine) {
  engine.configuration = Settings("dir_zeph = \"/nowhere\"\ndir_data = \"/tmp\"\n");
  ASSERT_TRUE(engine.Start());
  engine.Get("/page.zpc");
  EXPECT_THAT(Line(),
              HasSubstr("Configuration Error: The configured script directory does not exist; "));
}

TEST_F(Operation, ADirectoryThatIsNotSetIsNamedAsInTheSettings) {
  engine.configuration = Settings("dir_data = \"/tmp\"\n");
  ASSERT_TRUE(engine.Start());
  EXPECT_THAT(engine.Get("/page.zpc").Body(),
              StartsWith("Configuration Error: zephroot is not defined<br>"));
  EXPECT_THAT(LastLine(), HasSubstr("Configuration Error: zephroot is not defined, because "
                                    "dir_zeph is not set; reference "));
  engine.configuration = Settings("dir_zeph = \"" + engine.Path("scripts") + "\"\n");
  engine.WriteConfiguration();
  EXPECT_THAT(engine.Get("/page.zpc").Body(),
              StartsWith("Configuration Error: No data directory is defined<br>"));
  EXPECT_THAT(LastLine(), HasSubstr("Configuration Error: No data directory is defined, because "
                                    "dir_data is not set; reference "));
  EXPECT_EQ(Lines().size(), 2u);
}

TEST_F(Operation, ATraceLogThatCannotBeOpenedHasOneLine) {
  engine.settings = Settings("log_file = \"no/such/trace.log\"\nlog_level = 16\n");
  ASSERT_TRUE(engine.Start());
  for (int i = 0; i < 3; i++) ExpectPage(engine.Get("/page.zpc"), "page");
  EXPECT_THAT(Line(),
              AllOf(StartsWith("error "), HasSubstr(": log_file: no/such/trace.log: The ")));
}

TEST_F(Operation, AnErrorLogThatCannotBeOpenedIsReportedInTheOneBefore) {
  engine.settings = "error_log = \"/nowhere/error.log\"\n";
  ASSERT_TRUE(engine.Start());
  engine.Get("/fatal.zpc");
  engine.Get("/fatal.zpc");
  const std::string log = engine.Log();
  EXPECT_THAT(log, HasSubstr("error_log: /nowhere/error.log: No such file or directory; "));
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 3) << log;
}

// --- Where the lines go --------------------------------------------------------------------------

TEST_F(Operation, TheLogIsOpenBeforeTheFirstRequest) {
  ASSERT_TRUE(engine.Start());
  ASSERT_TRUE(engine.WaitUntilReady());
  EXPECT_TRUE(std::filesystem::exists(engine.Path("error.log")));
  EngineProcess other;
  other.settings = "error_log = \"/nowhere/error.log\"\n";
  ASSERT_TRUE(other.Start());
  ASSERT_TRUE(other.WaitUntilReady());
  EXPECT_THAT(other.Log(), HasSubstr(": error_log: /nowhere/error.log: No such file or directory; "
                                     "the log stays as it was\n"));
}

TEST_F(Operation, WithoutASettingLinesGoToStandardError) {
  engine.settings = "";
  ASSERT_TRUE(engine.Start());
  engine.Get("/fatal.zpc");
  EXPECT_THAT(engine.Log(), ContainsRegex(" error [0-9]+\\.[0-9]+: Fatal error in fatal.zpc"));
}

TEST_F(Operation, ALackOfMemoryHasOneLineWithWhatWasShort) {
  if (kThreadSanitizer) GTEST_SKIP() << "the operators are the sanitizer's";
  engine.Script("greedy.zpc",
                "pushc \"x\"\npopg t\nagain: pushg t\npushg t\ncat\npopg t\njmp again\n");
  engine.settings = Settings("memory_limit = 33554432\n");
  ASSERT_TRUE(engine.Start());
  EXPECT_THAT(engine.Get("/greedy.zpc", kVisitor).Body(), testing::EndsWith("]: Out of memory\n"));
  EXPECT_THAT(Line(), AllOf(StartsWith("error "), HasSubstr("Fatal error in greedy.zpc @ ["),
                            HasSubstr("]: Out of memory: memory_limit is 33554432 bytes; "
                                      "reference \""),
                            HasSubstr("request \"GET /greedy.zpc?id=7\"")));
  EXPECT_EQ(engine.Log(), "");
}

TEST_F(Operation, ARotatedLogGoesOnUnderItsName) {
  ASSERT_TRUE(engine.Start());
  engine.Get("/fatal.zpc");
  std::filesystem::rename(engine.Path("error.log"), engine.Path("error.log.1"));
  engine.Get("/runtime.zpc");
  EXPECT_THAT(Line(), HasSubstr("runtime.zpc"));
  EXPECT_EQ(Lines("error.log.1").size(), 1u);
  EXPECT_THAT(Lines("error.log.1")[0], HasSubstr("fatal.zpc"));
}

TEST_F(Operation, AFullDiskStopsNoRequestAndTheLossIsTold) {
  std::filesystem::create_symlink("/dev/full", engine.Path("error.log"));
  ASSERT_TRUE(engine.Start());
  for (int i = 0; i < 3; i++) {
    EXPECT_THAT(engine.Get("/fatal.zpc").Body(), HasSubstr("Stack underflow"));
  }
  std::filesystem::remove(engine.Path("error.log"));
  engine.Get("/fatal.zpc");
  const auto lines = Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_THAT(lines[0], HasSubstr(": 3 lines could not be written"));
  EXPECT_THAT(lines[1], HasSubstr("fatal.zpc"));
}

TEST_F(Operation, ManyRequestsAtOnceLeaveWholeLines) {
  engine.arguments = {"-t", "8"};
  ASSERT_TRUE(engine.Start());
  std::vector<std::thread> clients;
  for (int i = 0; i < 8; i++) {
    clients.emplace_back([this] {
      for (int n = 0; n < 25; n++) EXPECT_TRUE(engine.Get("/fatal.zpc").ended);
    });
  }
  for (std::thread& client : clients) client.join();
  const auto lines = Lines();
  EXPECT_EQ(lines.size(), 200u);
  for (const std::string& line : lines) EXPECT_THAT(line, HasSubstr("request \"/fatal.zpc\""));
}

// --- What visitors see ---------------------------------------------------------------------------

TEST_F(Operation, WithoutMessagesAPageHasTheReferenceOfItsLine) {
  engine.settings = Settings("show_errors = false\n");
  ASSERT_TRUE(engine.Start());
  FastCGIResponse response = engine.Get("/fatal.zpc");
  const std::string body = response.Body();
  EXPECT_THAT(body, AllOf(StartsWith("<!DOCTYPE html>"), HasSubstr("An error has occurred"),
                          Not(HasSubstr("before")), Not(HasSubstr("Stack"))));
  EXPECT_EQ(ReferenceIn(body, "Reference: "), ReferenceOf(Line()));
  EXPECT_EQ(response.Header("Content-Type"), "text/html");
  EXPECT_FALSE(response.HasHeader("Status"));
  EXPECT_EQ(response.CountOfHeader("Set-Cookie"), 1);
}

TEST_F(Operation, HeaderFieldsOfTheLostPageAreLostWithIt) {
  engine.Script("typed.zpc", SetsHeader("Content-Length", "5") +
                                 SetsHeader("Content-Type", "text/plain") + Writes("12345") +
                                 "pop\nexit\n" + kHeaderFunction);
  engine.settings = Settings("show_errors = false\n" + LibraryWithHeader());
  ASSERT_TRUE(engine.Start());
  FastCGIResponse response = engine.Get("/typed.zpc");
  EXPECT_EQ(response.Header("Content-Type"), "text/html");
  EXPECT_FALSE(response.HasHeader("Content-Length"));
  EXPECT_THAT(response.Body(), StartsWith("<!DOCTYPE html>"));
}

TEST_F(Operation, WhatWasSentStaysBeforeThePageOfTheError) {
  engine.settings = Settings("show_errors = false\nstatus_codes = true\nbufsz_output_flush = 1\n");
  ASSERT_TRUE(engine.Start());
  FastCGIResponse response = engine.Get("/fatal.zpc");
  EXPECT_THAT(response.Body(), StartsWith("before<!DOCTYPE html>"));
  EXPECT_FALSE(response.HasHeader("Status"));
}

TEST_F(Operation, AnErrorThatDoesNotEndTheScriptLeavesNoTraceOnThePage) {
  engine.settings = Settings("show_errors = false\nstatus_codes = true\n");
  ASSERT_TRUE(engine.Start());
  FastCGIResponse response = engine.Get("/runtime.zpc");
  ExpectPage(response, "beforeafter");
  EXPECT_FALSE(response.HasHeader("Status"));
  EXPECT_THAT(Line(), HasSubstr("runtime.zpc"));
}

TEST_F(Operation, StatusCodesGoWithTheMessagesAndWithoutACookie) {
  engine.Write("scripts/corrupt.zpc", "no script");
  engine.settings = Settings("status_codes = true\nmax_post_vars = -1\n");
  ASSERT_TRUE(engine.Start());
  const struct {
    const char* path;
    FastCGIParameters parameters;
    const char* status;
    const char* text;
  } cases[] = {
      {"/nowhere.zpc", {}, "404 Not Found", "Unable to execute 'nowhere.zpc': No such file"},
      {"/no/where.zpc", {}, "404 Not Found", "Unable to execute 'no/where.zpc': "},
      {"/../x.zpc", {}, "404 Not Found", "Unable to execute '../x.zpc': "},
      {"/~nobodyhere/x.zpc", {}, "404 Not Found", "Configuration Error: Invalid user"},
      {"/corrupt.zpc", {}, "500 Internal Server Error", "Unable to execute 'corrupt.zpc': File"},
      {"/fatal.zpc", {}, "500 Internal Server Error", "beforeFatal error in fatal.zpc"},
      {"/page.zpc",
       {{"CONTENT_TYPE", "application/x-www-form-urlencoded"}, {"CONTENT_LENGTH", "3"}},
       "400 Bad Request",
       ""},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.path);
    FastCGIResponse response = engine.Get(each.path, each.parameters, "a=1");
    EXPECT_EQ(response.Header("Status"), each.status);
    EXPECT_EQ(response.Header("Content-Type"), "text/html");
    EXPECT_FALSE(response.HasHeader("Set-Cookie"));
    EXPECT_THAT(response.Body(), StartsWith(each.text));
    EXPECT_FALSE(response.Body().empty());
  }
  FastCGIResponse page = engine.Get("/page.zpc");
  ExpectPage(page, "page");
  EXPECT_FALSE(page.HasHeader("Status"));
  EXPECT_EQ(page.CountOfHeader("Set-Cookie"), 1);
}

// The message is not shown because the script, or its tag, does not want that.
TEST_F(Operation, AnErrorThatEndsTheScriptSilentlyHasAStatusToo) {
  engine.settings = Settings(
      "[[script]]\nmatch = \"coded*\"\nstatus_codes = true\n"
      "[[script]]\nmatch = \"coded_plain*\"\nshow_errors = false\n");
  const std::string fails = "tagerror 62, 2\npushg x\npushi 0\nelem\npop\n" + Writes("never");
  for (const char* name : {"coded.zpc", "coded_plain.zpc", "usual.zpc"}) {
    engine.Script(name, Writes("before") + fails);
  }
  ASSERT_TRUE(engine.Start());
  for (const char* path : {"/coded.zpc", "/coded_plain.zpc"}) {
    SCOPED_TRACE(path);
    FastCGIResponse response = engine.Get(path);
    EXPECT_EQ(response.Header("Status"), "500 Internal Server Error");
    EXPECT_FALSE(response.HasHeader("Set-Cookie"));
    EXPECT_EQ(response.Body(), "before");
  }
  FastCGIResponse usual = engine.Get("/usual.zpc");
  EXPECT_FALSE(usual.HasHeader("Status"));
  EXPECT_EQ(usual.CountOfHeader("Set-Cookie"), 1);
  ExpectPage(usual, "before");
  EXPECT_EQ(Lines().size(), 3u);
}

TEST_F(Operation, ASilentErrorAfterAPartWasSentChangesNothing) {
  engine.settings = Settings("status_codes = true\nbufsz_output_flush = 1\n");
  engine.Script("ends.zpc", Writes("before") + "tagerror 62, 2\npushg x\npushi 0\nelem\npop\n");
  ASSERT_TRUE(engine.Start());
  FastCGIResponse response = engine.Get("/ends.zpc");
  EXPECT_EQ(response.Body(), "before");
  EXPECT_FALSE(response.HasHeader("Status"));
}

// In a folder in which no file can be made, and with functions that fail.
TEST_F(Operation, AnUploadThatCannotBeStoredIsNotTheClientsFault) {
  const std::string body = FilePart("f", "x", "t", "content") + EndOfBody();
  const FastCGIParameters post = {{"REQUEST_METHOD", "POST"},
                                  {"CONTENT_TYPE", "multipart/form-data; boundary=B"},
                                  {"CONTENT_LENGTH", std::to_string(body.size())}};
  engine.Script("upload.zpc", "exit\n" + ValidatesWith("0") + Processes());
  engine.Script("validate.zpc", "exit\n.function Zeph_ValidateFileUpload(a)\nretn\n.end\n");
  engine.Script("process.zpc", "exit\n" + ValidatesWith("0") +
                                   ".function Zeph_ProcessFileUpload(a)\nretn\n.end\n");
  engine.settings = Settings(
      "status_codes = true\nshow_errors = false\n"
      "[[script]]\nmatch = \"upload*\"\ndir_data = \"/proc\"\n");
  ASSERT_TRUE(engine.Start());
  const struct {
    const char* path;
    const char* text;
  } cases[] = {{"upload.zpc", "Failed to create temporary file"},
               {"validate.zpc", "Failed call to ValidateFileUpload"},
               {"process.zpc", "Failed call to ProcessFileUpload"}};
  for (const auto& each : cases) {
    SCOPED_TRACE(each.path);
    FastCGIResponse response = engine.Get(each.path, post, body);
    EXPECT_EQ(response.Header("Status"), "500 Internal Server Error");
    EXPECT_THAT(response.Body(), HasSubstr("An error has occurred"));
    EXPECT_THAT(LastLine(), AllOf(StartsWith("error "),
                                  HasSubstr(std::string(": ") + each.text + "; reference"),
                                  HasSubstr(std::string("script \"") + each.path + "\"")));
  }
  FastCGIResponse wrong = engine.Get("process.zpc", post, "--B\r\n:\r\n" + EndOfBody());
  EXPECT_EQ(wrong.Header("Status"), "400 Bad Request");
  EXPECT_THAT(LastLine(), StartsWith("warning "));
}

TEST_F(Operation, AScriptsOwnCookieStaysOnItsError) {
  engine.settings = Settings("status_codes = true\n" + LibraryWithHeader());
  engine.Script("own.zpc", SetsHeader("Set-Cookie", "a=1") + "pop\nexit\n" + kHeaderFunction);
  ASSERT_TRUE(engine.Start());
  FastCGIResponse response = engine.Get("/own.zpc");
  EXPECT_EQ(response.Header("Status"), "500 Internal Server Error");
  EXPECT_EQ(response.Header("Set-Cookie"), "a=1");
}

TEST_F(Operation, AConfigurationWithATypoStillKeepsItsMessagesFromVisitors) {
  engine.settings = Settings("cookeys = 0\nshow_errors = false\nstatus_codes = true\n");
  ASSERT_TRUE(engine.Start());
  FastCGIResponse response = engine.Get("/page.zpc");
  EXPECT_EQ(response.Header("Status"), "500 Internal Server Error");
  EXPECT_FALSE(response.HasHeader("Set-Cookie"));
  EXPECT_THAT(response.Body(), AllOf(HasSubstr("An error has occurred"), Not(HasSubstr("zeph"))));
  EXPECT_THAT(LastLine(), HasSubstr("cookeys"));
}

// A library that is gone takes its settings with it.
TEST_F(Operation, ALostConfigurationShowsNoMoreThanTheLastOneDid) {
  engine.name_library = false;
  const std::string library = engine.Path("config.so");
  std::filesystem::copy_file(EngineProcess::ConfigurationLibrary(), library);
  engine.settings = Settings("show_errors = false\nstatus_codes = true\n");
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/page.zpc", {{"ZpCONFIG_LIBRARY", library}}), "page");
  std::filesystem::remove(library);
  FastCGIResponse response = engine.Get("/page.zpc", {{"ZpCONFIG_LIBRARY", library}});
  EXPECT_EQ(response.Header("Status"), "500 Internal Server Error");
  EXPECT_THAT(response.Body(), Not(HasSubstr("library")));
  EXPECT_THAT(Line(), HasSubstr("Unable to locate/load libzephconfig.so"));
}

// --- Time ----------------------------------------------------------------------------------------

TEST_F(SlowOperation, ATimeOutAndACancelHaveLinesThatSayWhichItWas) {
  engine.settings = Settings(
      "timeout_global = 1\nbufsz_output_flush = 1\n"
      "[[script]]\nmatch = \"long*\"\ntimeout_global = 90\n");
  engine.Script("endless.zpc", "lineno 4\nagain: jmp again\n");
  // More than libfcgi collects before it sends.
  const std::string sent(20000, 'x');
  engine.Script("long.zpc", Writes(sent) + "again: jmp again\n");
  ASSERT_TRUE(engine.Start());
  EXPECT_EQ(engine.Get("/endless.zpc").Body(), "Application timed out");
  EXPECT_THAT(Line(), AllOf(StartsWith("error "), HasSubstr(": Application timed out; reference"),
                            HasSubstr("at \":4\"")));
  FastCGIClient client;
  ASSERT_TRUE(client.Connect(engine.socket()));
  ASSERT_TRUE(client.Begin() && client.Parameters(engine.Parameters("/long.zpc")) &&
              client.EndParameters() && client.EndInput());
  EXPECT_GE(client.ReadOutput(1).size(), 1u);
  engine.Signal(SIGHUP);
  EXPECT_EQ(client.Read().Body(), sent + "Application timed out");
  EXPECT_THAT(WaitForLine("SIGHUP"),
              AllOf(StartsWith("notice "), HasSubstr(": Application cancelled by SIGHUP; ")));
}

TEST_F(SlowOperation, WithStatusCodesACancelSaysSo) {
  engine.settings = Settings("status_codes = true\ntimeout_global = 90\n");
  // Writes nothing before it is cancelled, but it has the lock as soon as it runs.
  engine.Script("long.zpc", "pushc \"runs\"\nlockfile\nagain: jmp again\n");
  ASSERT_TRUE(engine.Start());
  ASSERT_TRUE(engine.WaitUntilReady());
  std::thread operator_thread([this] {
    const auto end = std::chrono::steady_clock::now() + Milliseconds(30000);
    while (!std::filesystem::exists(engine.Path("data/runs.lck")) &&
           std::chrono::steady_clock::now() < end) {
      std::this_thread::sleep_for(Milliseconds(5));
    }
    engine.Signal(SIGHUP);
  });
  FastCGIResponse response = engine.Get("/long.zpc");
  operator_thread.join();
  EXPECT_EQ(response.Body(), "Application cancelled");
  EXPECT_EQ(response.Header("Status"), "503 Service Unavailable");
}

TEST_F(SlowOperation, AnotherLogIsTakenWithinABeat) {
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/page.zpc"), "page");
  engine.settings = "error_log = \"" + engine.Path("other.log") + "\"\n";
  engine.WriteConfiguration();
  const auto end = std::chrono::steady_clock::now() + Milliseconds(20000);
  while (Lines("other.log").empty() && std::chrono::steady_clock::now() < end) {
    engine.Get("/fatal.zpc");
    std::this_thread::sleep_for(Milliseconds(50));
  }
  EXPECT_FALSE(Lines("other.log").empty());
  const size_t before = Lines().size();
  engine.Get("/fatal.zpc");
  EXPECT_EQ(Lines().size(), before);
}

TEST_F(SlowOperation, AFailingTaskHasALine) {
  engine.Script("task.zpc", "async after\nlineno 12\npop\nexit\nafter: " + Writes("page"));
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/task.zpc", kVisitor), "page");
  EXPECT_THAT(WaitForLine("Background task"),
              AllOf(StartsWith("error "), HasSubstr("Background task: Fatal error in task.zpc @ ["),
                    HasSubstr("at \":12\""), HasSubstr("client \"192.0.2.1\""),
                    HasSubstr("task of \"GET /task.zpc?id=7\"")));
}

TEST_F(SlowOperation, ASlowRequestIsReportedWhileItRunsAndAtItsEnd) {
  engine.settings = Settings("slow_time = 1000\ntimeout_global = 9\n");
  engine.Script("slow.zpc",
                "sourcefile \"slow.zeph\"\nlineno 3\npushc \"xxxxxxxxxx\"\npopg t\nstoregi i, 0\n"
                "double: pushg t\npushg t\ncat\npopg t\nincg i, 1\ncmpgi i, 20\njmp_lt double\n"
                "call wait\npop\nexit\n"
                ".function wait()\nlineno 17\nagain: jmp again\n.end\n");
  ASSERT_TRUE(engine.Start());
  engine.Get("/slow.zpc", kVisitor);
  const auto lines = Lines();
  ASSERT_EQ(lines.size(), 3u) << Content(engine.Path("error.log"));
  EXPECT_THAT(lines[0],
              AllOf(StartsWith("notice "), ContainsRegex(": Slow: running for [1-9]"),
                    HasSubstr("at \"slow.zeph:17 in wait, slow.zeph:3\""),
                    HasSubstr("script \"slow.zpc\""), HasSubstr("request \"GET /slow.zpc?id=7\"")));
  EXPECT_THAT(lines[1], HasSubstr("Application timed out"));
  EXPECT_THAT(lines[2], ContainsRegex(": Slow: took [1-9][0-9]*\\.[0-9]{3} s; "));
  EXPECT_EQ(ReferenceOf(lines[0]), ReferenceOf(lines[1]));
  EXPECT_EQ(ReferenceOf(lines[0]), ReferenceOf(lines[2]));
  // The text of 10 MB. The thread sanitizer has its own operators, which are not counted.
  if (!kThreadSanitizer) {
    EXPECT_THAT(lines[2], ContainsRegex("memory \"[0-9]{8,}\""));
  }
}

// Its time begins with its parameters, so a slow upload counts.
TEST_F(Operation, ARequestThatEndsBeforeABeatIsReportedAtItsEnd) {
  engine.settings = Settings("slow_time = 150\nslow_log = \"" + engine.Path("slow.log") + "\"\n");
  ASSERT_TRUE(engine.Start());
  ExpectPage(SlowUpload("/page.zpc", 300), "page");
  EXPECT_EQ(Content(engine.Path("error.log")), "");
  const auto lines = Lines("slow.log");
  ASSERT_GE(lines.size(), 1u);
  EXPECT_THAT(lines.back(), AllOf(HasSubstr(": Slow: took "), HasSubstr("script \"page.zpc\"")));
}

TEST_F(Operation, ScriptsMayHaveSlowLogsOfTheirOwn) {
  std::string settings = "slow_time = 100\n";
  for (const char* name : {"one", "two"}) {
    settings += std::string("[[script]]\nmatch = \"") + name + "*\"\nslow_log = \"" +
                engine.Path(name) + "\"\n";
    engine.Script(std::string(name) + ".zpc", Writes(name));
  }
  engine.settings = Settings(settings);
  ASSERT_TRUE(engine.Start());
  std::vector<std::thread> clients;
  for (int i = 0; i < 8; i++) {
    clients.emplace_back([this, i] {
      for (int n = 0; n < 5; n++) SlowUpload(i % 2 == 0 ? "/one.zpc" : "/two.zpc", 150);
    });
  }
  for (std::thread& client : clients) client.join();
  for (const char* name : {"one", "two"}) {
    const auto lines = Lines(name);
    EXPECT_GE(lines.size(), 1u);
    for (const std::string& line : lines) {
      EXPECT_THAT(line, HasSubstr(std::string("script \"") + name + ".zpc\""));
    }
  }
  EXPECT_EQ(Content(engine.Path("error.log")), "");
}

TEST_F(SlowOperation, HalfARequestIsGivenUpAfterItsTime) {
  engine.arguments = {"-t", "1"};
  engine.settings = Settings("timeout_request = 1\n");
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/page.zpc"), "page");
  FastCGIClient half;
  ASSERT_TRUE(half.Connect(engine.socket()));
  ASSERT_TRUE(half.Begin() && half.Parameters(engine.Parameters("/page.zpc")));
  // The one thread is free again for others.
  ExpectPage(engine.Get("/page.zpc"), "page");
  EXPECT_TRUE(half.WaitForClose());
  EXPECT_THAT(Line(), AllOf(StartsWith("warning "),
                            HasSubstr(": A web server has not sent the parameters of its request "
                                      "within 1 seconds; the connection is closed")));
}

TEST_F(SlowOperation, ATrickleOfBytesDoesNotLengthenTheTime) {
  engine.arguments = {"-t", "1"};
  engine.settings = Settings("timeout_request = 1\n");
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/page.zpc"), "page");
  FastCGIClient half;
  ASSERT_TRUE(half.Connect(engine.socket()));
  ASSERT_TRUE(half.Begin());
  int sent = 0;
  // Records of another request are dropped, and so could go on for ever.
  while (sent < 100 && half.Send(FastCGIClient::Record(5, 99, "x"))) {
    std::this_thread::sleep_for(Milliseconds(50));
    sent++;
  }
  EXPECT_LT(sent, 100);
}

TEST_F(SlowOperation, AKeptConnectionMayBeIdleAndStartsTheTimeWithItsNextRequest) {
  engine.settings = Settings("timeout_request = 1\n");
  ASSERT_TRUE(engine.Start());
  FastCGIClient kept;
  ASSERT_TRUE(kept.Connect(engine.socket()));
  EXPECT_EQ(kept.Request(engine.Parameters("/page.zpc"), "", true).Body(), "page");
  std::this_thread::sleep_for(Milliseconds(2500));
  EXPECT_EQ(kept.Request(engine.Parameters("/page.zpc"), "", true).Body(), "page");
  ASSERT_TRUE(kept.Begin(true));
  EXPECT_TRUE(kept.WaitForClose(Milliseconds(20000)));
}

// A web server may send two requests in one packet, and of the second only the beginning.
bool SendsOneAndAHalf(FastCGIClient* client, EngineProcess& engine) {
  if (!client->Connect(engine.socket())) return false;
  client->Hold();
  return client->Begin(true) && client->Parameters(engine.Parameters("/page.zpc")) &&
         client->EndParameters() && client->EndInput() && client->Begin(true) && client->Release();
}

TEST_F(SlowOperation, BytesThatCameWithTheRequestBeforeStartTheTime) {
  engine.arguments = {"-t", "1"};
  engine.settings = Settings("timeout_request = 1\n");
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/page.zpc"), "page");
  FastCGIClient kept;
  ASSERT_TRUE(SendsOneAndAHalf(&kept, engine));
  EXPECT_EQ(kept.Read().Body(), "page");
  EXPECT_TRUE(kept.WaitForClose(Milliseconds(20000)));
  ExpectPage(engine.Get("/page.zpc"), "page");
}

TEST_F(SlowOperation, AWorkerWithHalfARequestLeavesInItsTime) {
  engine.arguments = {"--workers", "1", "-t", "2"};
  engine.settings = Settings("timeout_request = 1\n");
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/page.zpc"), "page");
  FastCGIClient kept;
  ASSERT_TRUE(SendsOneAndAHalf(&kept, engine));
  EXPECT_EQ(kept.Read().Body(), "page");
  engine.Signal(SIGHUP);
  EXPECT_TRUE(kept.WaitForClose(Milliseconds(20000)));
}

TEST_F(SlowOperation, ByDefaultARequestMayTakeItsTimeToCome) {
  engine.arguments = {"-t", "1"};
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/page.zpc"), "page");
  FastCGIClient half;
  ASSERT_TRUE(half.Connect(engine.socket()));
  ASSERT_TRUE(half.Begin());
  EXPECT_FALSE(half.WaitForClose(Milliseconds(3000)));
  ASSERT_TRUE(half.Parameters(engine.Parameters("/page.zpc")) && half.EndParameters() &&
              half.EndInput());
  ExpectPage(half.Read(), "page");
}

}  // namespace
