// The trace log of both hosts: the content of its file after a request and after a run.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "tests/e2e/Pages.h"
#include "tests/support/Command.h"
#include "tests/support/Paths.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char begin[] =
    "[A-Z][a-z]{2} ([0-9]{2}|[0-9] ) [0-9]{4} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}\t"
    "[0-9]+\\.[0-9]+\t";

class TraceLog : public testing::Test {
 protected:
  // level is the sum of the records' bits.
  void LogTo(const std::string& file, long level, const std::string& more = "") {
    engine.settings =
        "log_file = \"" + file + "\"\nlog_level = " + std::to_string(level) + "\n" + more;
  }
  void Zprun(const std::string& name) {
    engine.WriteConfiguration();
    Command command({InBuild("bin/zprun"), "--errors-in-page", "--config", engine.Path("zeph.toml"),
                     engine.Path("scripts/" + name)});
    command.Run();
    EXPECT_EQ(command.errors, "");
  }
  // The lines of the log, without time, process and thread. Empties the log.
  std::vector<std::string> Records(const std::string& name = "data/trace.log") {
    const std::string path = engine.Path(name);
    std::vector<std::string> records;
    std::ifstream file(path);
    const std::regex start(begin);
    for (std::string line; std::getline(file, line);) {
      std::smatch match;
      EXPECT_TRUE(std::regex_search(line, match, start) && match.position() == 0) << line;
      records.push_back(line.substr(static_cast<size_t>(match.length())));
    }
    file.close();
    std::ofstream(path, std::ios::trunc);
    return records;
  }

  EngineProcess engine;
};

TEST_F(TraceLog, CallsOfFunctionsInBothHosts) {
  engine.Script("page.zpc",
                "sourcefile \"page.zpa\"\nlineno 3\n"
                "pushc \"a\\tb\\n\"\npushg list\npushi 2\nelem\nstore\n"
                "pushi 7\npushg list\ncall f\npop\ncall g\npop\nexit\n"
                ".function f(number, list var)\nlineno 10\npushf 0.5\nret\n"
                ".function g()\nlineno 20\nretn\n");
  LogTo("trace.log", 16 + 32 + 64 + 128 + 1073741824);
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/page.zpc"), "");
  const auto expected = ElementsAre("Trace\tpage.zpc\tpage.zpa\t3",             //
                                    "Function Call\tpage.zpc\tpage.zpa\t3\tf",  //
                                    "Function Parameter\tpage.zpc\tpage.zpa\t3\tf\tlist\t"
                                    "[2] = [ a\\x09b\\x0a ]",                                   //
                                    "Function Parameter\tpage.zpc\tpage.zpa\t3\tf\tnumber\t7",  //
                                    "Trace\tpage.zpc\tpage.zpa\t10",                            //
                                    "Function Return Value\tpage.zpc\tpage.zpa\t10\tf\t0.5",    //
                                    "Function Return\tpage.zpc\tpage.zpa\t10\tf",               //
                                    "Function Call\tpage.zpc\tpage.zpa\t10\tg",                 //
                                    "Trace\tpage.zpc\tpage.zpa\t20",                            //
                                    "Function Return\tpage.zpc\tpage.zpa\t20\tg");
  EXPECT_THAT(Records(), expected);
  Zprun("page.zpc");
  EXPECT_THAT(Records(), expected);
}

TEST_F(TraceLog, CallsOfLibrariesInBothHosts) {
  engine.Script("page.zpc",
                ".function slug(title) external\n.end\n"
                "lineno 5\npushc \"Green Tea\"\ncall slug\nout\n");
  LogTo("trace.log", 256 + 512 + 1024 + 2048,
        "[[library]]\nkind = \"builtin\"\npath = \"" + InBuild("lib/libtextstat.so") + "\"\n");
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/page.zpc"), "green-tea");
  const auto expected =
      ElementsAre("External Function Call\tpage.zpc\t\t5\tslug",
                  "External Function Parameter\tpage.zpc\t\t5\tslug\ttitle\tGreen Tea",
                  "External Function Return Value\tpage.zpc\t\t5\tslug\tgreen-tea",
                  "External Function Return\tpage.zpc\t\t5\tslug");
  EXPECT_THAT(Records(), expected);
  Zprun("page.zpc");
  EXPECT_THAT(Records(), expected);
}

TEST_F(TraceLog, ErrorsInBothHosts) {
  engine.Script("runtime.zpc", "tagerror 62, 0\nlineno 7\npushg x\npushi 0\nelem\npop\n");
  engine.Script("fatal.zpc", "lineno 8\npop\n");
  LogTo("trace.log", 268435456 + 536870912);
  ASSERT_TRUE(engine.Start());
  engine.Get("/runtime.zpc");
  engine.Get("/fatal.zpc");
  const auto expected = ElementsAre(
      "Runtime Error\truntime.zpc\t\t7\t(in expression)\tArray index must be positive "
      "integer",
      "Fatal Error\tfatal.zpc\t\t8\tFatal error in fatal.zpc @ [00000000:00000006]: "
      "Line 8: Stack underflow\\x0a");
  EXPECT_THAT(Records(), expected);
  Zprun("runtime.zpc");
  Zprun("fatal.zpc");
  EXPECT_THAT(Records(), expected);
}

TEST_F(TraceLog, TheFilterChoosesFilesAndLines) {
  engine.Script("page.zpc",
                "sourcefile \"a.zp\"\nlineno 9\nlineno 10\nlineno 14\nlineno 15\nlineno 16\n"
                "lineno 20\nlineno 21\nsourcefile \"b.zp\"\nlineno 12\n");
  LogTo("trace.log", 1073741824, "log_filter = \"a.zp:10-20, !a.zp:15\"\n");
  ASSERT_TRUE(engine.Start());
  engine.Get("/page.zpc");
  EXPECT_THAT(Records(), ElementsAre("Trace\tpage.zpc\ta.zp\t10", "Trace\tpage.zpc\ta.zp\t14",
                                     "Trace\tpage.zpc\ta.zp\t16", "Trace\tpage.zpc\ta.zp\t20"));
}

TEST_F(TraceLog, OnlyTheClientWithTheCookieIsLogged) {
  engine.Script("page.zpc", "lineno 1\n");
  LogTo("trace.log", 1073741824, "log_cookie = \"secret\"\n");
  ASSERT_TRUE(engine.Start());
  const auto lines_of = [&](const char* cookies) {
    engine.Get("/page.zpc",
               cookies ? FastCGIParameters{{"HTTP_COOKIE", cookies}} : FastCGIParameters{});
    return Records().size();
  };
  EXPECT_EQ(lines_of(nullptr), 0u);
  EXPECT_EQ(lines_of("zixcallerid=1; zephlogcookie=secret"), 1u);
  EXPECT_EQ(lines_of("zephlogcookie=secrets"), 0u);
  EXPECT_EQ(lines_of("zephlogcookie=secret; zixcallerid=1"), 1u);
  Zprun("page.zpc");
  EXPECT_THAT(Records(), IsEmpty()) << "the cookie was not shown";
}

TEST_F(TraceLog, AScriptCanKeepItselfOutOfTheLog) {
  engine.Script("page.zpc", ".flags 1\nlineno 1\npop\n");
  LogTo("trace.log", -1);
  ASSERT_TRUE(engine.Start());
  engine.Get("/page.zpc");
  EXPECT_THAT(Records(), IsEmpty());
}

TEST_F(TraceLog, ALogThatCannotBeOpenedIsNoneAndPagesGoOn) {
  engine.Script("page.zpc", "lineno 1\n" + Writes("page"));
  LogTo("no/such/folder/trace.log", -1);
  ASSERT_TRUE(engine.Start());
  ExpectPage(engine.Get("/page.zpc"), "page");
}

// Eight request threads with many records each, too long for any one buffer.
TEST_F(TraceLog, RequestsAtTheSameTimeLeaveWholeLines) {
  const int kClients = 8;
  const int kCalls = 100;
  std::set<std::string> wanted;
  for (int i = 0; i < kClients; i++) {
    const std::string name = "page" + std::to_string(i) + ".zpc";
    const std::string text(5000, static_cast<char>('a' + i));
    engine.Script(name, "storegi n, 0\nagain: pushc \"" + text +
                            "\"\ncall f\npop\nincg n, 1\ncmpgi n, " + std::to_string(kCalls) +
                            "\njmp_lt again\nexit\n.function f(text)\nretn\n");
    wanted.insert("Function Parameter\t" + name + "\t\t0\tf\ttext\t" + text);
  }
  LogTo("trace.log", 32);
  engine.arguments = {"-t", "8"};
  ASSERT_TRUE(engine.Start());
  std::vector<std::thread> clients;
  for (int i = 0; i < kClients; i++) {
    clients.emplace_back([this, i] {
      const std::string path = "/page" + std::to_string(i) + ".zpc";
      EXPECT_TRUE(engine.Get(path.c_str()).ended);
    });
  }
  for (std::thread& client : clients) client.join();
  const std::vector<std::string> records = Records();
  EXPECT_EQ(records.size(), static_cast<size_t>(kClients * kCalls));
  for (const std::string& record : records) {
    EXPECT_TRUE(wanted.count(record)) << record.substr(0, 100) << " " << record.size();
  }
}

}  // namespace
