// Databases of the type "sqlite", whose library is extensions/zephsqlite, as scripts see them. What
// is in the files is checked with the sqlite3 program, where it is installed.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "tests/e2e/Pages.h"
#include "tests/support/Command.h"
#include "tests/support/DatabaseMachine.h"
#include "tests/support/Paths.h"
#include "tests/support/SQLScripts.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class SQLite : public testing::Test {
 protected:
  SQLite() { engine.settings = SQLLibraries(); }

  static void SetUpTestSuite() {
    if (access(InBuild("lib/zephsqlite.so").c_str(), R_OK) != 0) {
      GTEST_SKIP() << "zephsqlite is not built; script/setup installs libsqlite3-dev";
    }
  }

  std::string Page(const std::string& code) { return RunPage(engine, code); }
  // Runs SQL with the program of SQLite's makers.
  std::string Program(const std::string& file, const std::string& sql) {
    Command command({"/usr/bin/sqlite3", engine.Path("data/" + file), sql});
    EXPECT_EQ(command.Run(), 0) << command.errors;
    return command.output;
  }

  EngineProcess engine;
};

TEST_F(SQLite, ATableIsMadeAndReadAsOneOfTheBuiltInEngine) {
  const std::string code = PeopleScript();
  const std::string built_in = RunFirstPage(engine, SetType("xbase3") + code);
  EXPECT_THAT(built_in, HasSubstr("Tom|41|12.50|"));
  EXPECT_EQ(RunFirstPage(engine, SetType("sqlite") + code), built_in);
}

TEST_F(SQLite, ValuesComeBackAsTheyWere) {
  const std::string text = "quote ' \" \\ and \xC3\xA9\xE2\x82\xAC";
  EXPECT_EQ(
      Page(SetType("sqlite") + CreateDatabase("t", "v.db", "a memo, n number(10), x number(4.2)") +
           SetField("t", "a", text) + "pushi -2147483648\n" + Op("popd", {"t", "n"}) +
           "pushf -0.25\n" + Op("popd", {"t", "x"}) + OnView("dbadd", "t") + Skip("t", 0) +
           Show("t", "a") + Show("t", "n") + Show("t", "x")),
      text + "|-2147483648|-0.25|");
}

TEST_F(SQLite, PathsStayInTheDataDirectory) {
  for (const char* path : {"../out.db", "/tmp/out.db/x", "a/../../out.db", "", "link.db"}) {
    engine.Write("out.db", "");
    engine.Folder("data");
    (void)!symlink(engine.Path("out.db").c_str(), engine.Path("data/link.db").c_str());
    EXPECT_THAT(Page(SetType("sqlite") + Silent() + CreateDatabase("t", path, "a memo") +
                     ShowGlobal("ZpCREATE_Error")),
                HasSubstr("Cannot create"))
        << path;
  }
}

}  // namespace
