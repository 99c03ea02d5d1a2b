// Databases of the type "sqlite", whose library is extensions/zephsqlite, as scripts see them. What
// is in the files is checked with the sqlite3 program, where it is installed.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "base/core/Sanitizers.h"
#include "tests/e2e/Pages.h"
#include "tests/support/Command.h"
#include "tests/support/DatabaseMachine.h"
#include "tests/support/Paths.h"
#include "tests/support/SQLScripts.h"

namespace {

using testing::HasSubstr;

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

  // How many files of the database the engine has open, also those that are removed.
  int OpenFiles() {
    int count = 0;
    for (const auto& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(engine.pid()) + "/fd")) {
      std::error_code error;
      const std::string file = std::filesystem::read_symlink(entry.path(), error).string();
      count += file.find("/data/t.dbf") != std::string::npos;
    }
    return count;
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

TEST_F(SQLite, ScriptsGetWhatTheyAskFor) {
  for (const SQLCase& each : SQLCases()) {
    EXPECT_EQ(RunFirstPage(engine, SetType("sqlite") + PersonsScript() + each.code), each.output)
        << each.name;
  }
}

// A scan sees its table as it was when it began, whatever other connections do.
TEST_F(SQLite, AScanIsNotLedAstrayByOthers) {
  const std::string begin = SetType("sqlite") + PersonsScript() + GoFar();
  const std::string other =
      OpenDatabase("u", "t.dbf") + RunQuery("u", "delete from t where age between 900 and 990") +
      RunQuery("u", "delete from t where age = 20") +
      RunQuery("u", "insert into t (name, age) values ('z', 5000)") + ShowError("QUERY");
  EXPECT_EQ(RunFirstPage(engine, begin + other + Show("t", "recno") + Show("t", "name") +
                                     Skip("t", 1) + Show("t", "recno")),
            "cat||206|p203|205|");
  EXPECT_EQ(RunFirstPage(
                engine,
                begin + SkipEach("", 201) + other + Show("t", "name") + Skip("t", 1) +
                    Skip("t", 1) + Show("t", "eof") + Show("t", "recno") + Show("t", "name") +
                    SetField("t", "name", "last") + OnView("dbupdate", "t") + ShowError("UPDATE") +
                    OpenView("u", "c", "select name from t where recno = 4") + Show("c", "name")),
            "cat||p2|1|4|p1||last|");
}

TEST_F(SQLite, TheFileIsOneOfSQLite) {
  RunFirstPage(engine, SetType("sqlite") + PersonsScript() +
                           Op("dbmakeindex", {"t", "age.zix", "d.age", "descending"}));
  if (access("/usr/bin/sqlite3", X_OK) != 0) GTEST_SKIP() << "sqlite3 is not installed";
  EXPECT_EQ(
      Program("t.dbf", "select *, typeof(age) from t; pragma integrity_check; pragma journal_mode"),
      "1|ann|30|integer\n2|bob|20|integer\n3|cat||null\nok\nwal\n");
  EXPECT_THAT(Program("t.dbf", ".schema"), HasSubstr("ON \"t\" (\"age\" DESC)"));
}

TEST_F(SQLite, TablesOfOtherMakersAreReadAndChanged) {
  if (access("/usr/bin/sqlite3", X_OK) != 0) GTEST_SKIP() << "sqlite3 is not installed";
  engine.Folder("data");
  Program(
      "shop.db",
      "create table shop(code text primary key, price decimal(8,2), stock int, big integer, "
      "raw blob);"
      "insert into shop values('tea', 3.5, 7, 12345678901, x'00ff'), ('jam', 2, null, -1, null);"
      "create table people(id integer primary key, name);"
      "insert into people values(7, 'ann'), (70, 'bob');"
      "create table pairs(a, b, primary key(a, b)) without rowid; insert into pairs values(1, 2);"
      "create view cheap as select code from shop where price < 3;");
  EXPECT_EQ(Page(SetType("sqlite") + Silent() + OpenDatabase("s", "shop.db") +
                 ShowAll("s", "", {"code", "price", "stock", "big", "recno"}) +
                 OpenView("s", "p", "people") + ShowAll("s", "p", {"id", "name", "recno"}) +
                 SetField("p", "name", "cat") + Op("dbadd", {"s", "p"}) + Show("p", "id") +
                 OpenView("s", "w", "PAIRS") + ShowAll("s", "w", {"a", "b"}) +
                 OpenView("s", "c", "cheap") + Show("c", "code") + Op("dbdelete", {"s", "c"}) +
                 ShowError("DELETE") + OpenView("s", "b", "select hex(raw) as h, raw from shop") +
                 Show("b", "h") + Show("b", "raw")),
            "tea|3.50|7|12345678901|1|; jam|2.00||-1|2|; 7|ann|7|; 70|bob|70|; 71|1|2|; "
            "jam|A view of a query cannot be changed|00FF|" +
                std::string("\0\xFF|", 3));
}

TEST_F(SQLite, AScriptCannotLeaveItsFile) {
  const std::string outside = engine.Path("data/other.db");
  const std::string page = RunFirstPage(
      engine, SetType("sqlite") + PersonsScript() + RunQuery("t", "attach '" + outside + "' as o") +
                  ShowDone("QUERY") + SetGlobal("x", outside) +
                  RunQuery("t", "attach ? as o", "x") + ShowDone("QUERY") +
                  RunQuery("t", "attach '' as o") + ShowDone("QUERY") +
                  RunQuery("t", "vacuum into '" + outside + "'") + ShowDone("QUERY") +
                  RunQuery("t", "select load_extension('/tmp/x.so')") + ShowDone("QUERY") +
                  Op("dbcommand", {"t", "vacuum", ""}) + ShowDone("DBCOMMAND") +
                  RunQuery("t", "delete from t; delete from t") + ShowError("QUERY"));
  EXPECT_EQ(page, "0|0|0|0|0|1|Cannot run the query: only one statement is run at a time|");
  EXPECT_NE(access(outside.c_str(), F_OK), 0);
}

TEST_F(SQLite, MarkersThatAreNotOursAreRefused) {
  const std::string query = "select count(*) as n from t where name ";
  std::string code = SetGlobal("x", "ann") + SetGlobal("y", "bob");
  std::string expected;
  for (const char* marker : {"@x", "$x", "#x", ":1", "@::x", "?1$x"}) {
    code += OpenView("t", "v", query + "in (" + marker + ", ?)", "x,y") + ShowError("OPENVIEW");
    expected += "Cannot open the view 'v': '" +
                std::string(1, std::string(marker).find('$') == std::string::npos ? *marker : '$') +
                "' does not begin a parameter; these are ?, ?2 and :name|";
  }
  // In names and texts they are what they are.
  code += OpenView("t", "w", "select name as [a?@b], '@x $x' as b, 1 as c$d from t where name = ?",
                   "y") +
          ShowAll("t", "w", {"a?@b", "b", "c$d"});
  EXPECT_EQ(RunFirstPage(engine, SetType("sqlite") + PersonsScript() + code),
            expected + "bob|@x $x|1|; ");
}

TEST_F(SQLite, RowsOfAnyStatementAreCounted) {
  EXPECT_EQ(RunFirstPage(engine, SetType("sqlite") + PersonsScript() +
                                     OpenView("t", "p", "pragma table_info(t)") +
                                     Show("p", "totrec") + SkipIn("t", "p", 1) + Show("p", "name")),
            "3|name|");
}

// What follows in a view of a query is stored as it was, whatever it is.
TEST_F(SQLite, StoredRowsHaveAllKindsOfValues) {
  EXPECT_EQ(
      RunFirstPage(
          engine,
          SetType("sqlite") + PersonsScript() +
              OpenView("t", "q",
                       "with recursive c(n) as (select 1 union all select n + 1 from c where n < "
                       "1000) select n, n * 0.5 as r, 'text ' || n as t, nullif(n, 3) as x, "
                       "cast('b' || n as blob) as b from c, t where t.name = 'ann'") +
              SkipIn("t", "q", 1) + RunQuery("t", "delete from t") + SkipIn("t", "q", -0) +
              Show("q", "n") + SkipIn("t", "q", 1) + Show("q", "n") + Show("q", "r") +
              Show("q", "t") + Show("q", "x") + Show("q", "b") + SkipIn("t", "q", 1) +
              Show("q", "x") + GoIn("t", "q", -2) + Show("q", "n") + SkipIn("t", "q", 1) +
              Show("q", "eof") + GoIn("t", "q", 2) + Show("q", "t") + GoIn("t", "q", 1) +
              Show("q", "eof")),
      "2|3|1.5|text 3||b3|4|1000|1|text 2|1|");
}

TEST_F(SQLite, AValueHasAGreatestLength) {
  EXPECT_EQ(
      RunFirstPage(engine, SetType("sqlite") + Silent() + PersonsScript() +
                               RunQuery("t", "select zeroblob(200000000)") + ShowError("QUERY")),
      "Cannot run the query: string or blob too big|");
}

// Each request adds a record in a transaction that reads first, and changes another record.
TEST_F(SQLite, RequestsAtTheSameTimeWaitForOneAnother) {
  constexpr int kClients = 8, kRequests = 20;
  engine.arguments = {"-t", "8"};
  RunFirstPage(engine, SetType("sqlite") + PersonsScript());
  engine.Script("add.zpc", SetType("sqlite") + Silent() + OpenDatabase("t", "t.dbf") + Push("t") +
                               "dbtransaction\n" + Go("t", -2) + SetField("t", "name", "new") +
                               OnView("dbadd", "t") + Push("t") + "dbcommit\n" + Go("t", 2) +
                               SetField("t", "age", "5") + OnView("dbupdate", "t") +
                               ShowError("OPEN") + ShowError("TRANSACT") + ShowError("ADD") +
                               ShowError("COMMIT") + ShowError("UPDATE"));
  ASSERT_TRUE(engine.Start());
  std::vector<std::thread> clients;
  for (int i = 0; i < kClients; i++) {
    clients.emplace_back([&] {
      for (int k = 0; k < kRequests; k++) EXPECT_EQ(engine.Get("/add.zpc").Body(), "|||||");
    });
  }
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(Page(SetType("sqlite") + OpenDatabase("t", "t.dbf") + Show("t", "totrec")),
            std::to_string(3 + kClients * kRequests) + "|");
}

// What a request leaves open is undone, and holds no lock for the next one on another thread.
TEST_F(SQLite, NothingOfARequestIsLeft) {
  engine.arguments = {"-t", "2"};
  RunFirstPage(engine, SetType("sqlite") + PersonsScript());
  const std::string open = SetType("sqlite") + Silent() + OpenDatabase("t", "t.dbf");
  engine.Script("leave.zpc", open + RunQuery("t", "pragma foreign_keys = on") + Push("t") +
                                 "dbtransaction\n" + RunQuery("t", "delete from t") +
                                 RunQuery("t", "create temp table secret(x)") + ShowError("QUERY"));
  engine.Script("look.zpc", open + Op("dbcommand", {"t", "timeout", "0"}) +
                                RunQuery("t", "update t set age = 1") + ShowError("QUERY") +
                                Show("t", "totrec") +
                                OpenView("t", "f", "select * from pragma_foreign_keys") +
                                Show("f", "foreign_keys") +
                                OpenView("t", "s", "select * from secret") + ShowDone("OPENVIEW"));
  ASSERT_TRUE(engine.Start());
  for (int i = 0; i < 6; i++) {
    EXPECT_EQ(engine.Get("/leave.zpc").Body(), "|");
    EXPECT_EQ(engine.Get("/look.zpc").Body(), "|3|0|0|");
  }
}

TEST_F(SQLite, AFileThatWasRemovedIsNotUsedAnyMore) {
  RunFirstPage(engine, SetType("sqlite") + PersonsScript());
  engine.arguments = {"-t", "1"};
  engine.Script("look.zpc", SetType("sqlite") + Silent() + OpenDatabase("t", "t.dbf") +
                                ShowError("OPEN") + Show("t", "totrec"));
  ASSERT_TRUE(engine.Start());
  EXPECT_EQ(engine.Get("/look.zpc").Body(), "|3|");
  for (const char* end : {"", "-wal", "-shm"}) {
    std::filesystem::remove(engine.Path("data/t.dbf") + end);
  }
  EXPECT_EQ(engine.Get("/look.zpc").Body(), "Cannot open 't.dbf': unable to open database file||");
  EXPECT_EQ(OpenFiles(), 0);
}

// A text of a megabyte takes a megabyte and more in SQLite.
TEST_F(SQLite, LongStatementsAreNotKept) {
  if (kAddressSanitizer || kThreadSanitizer) GTEST_SKIP() << "they keep what was freed";
  RunFirstPage(engine, SetType("sqlite") + PersonsScript());
  engine.arguments = {"-t", "1"};
  engine.Script("long.zpc", SetType("sqlite") + Silent() + OpenDatabase("t", "t.dbf") +
                                "pushi 0\npopg i\n" + Push(std::string(900000, ' ')) +
                                "popg blanks\nagain: " + Push("t") + Push("select ") +
                                "pushg i\ncat\npushg blanks\ncat\n" + Push("") +
                                "dbquery\nincg i, 1\npushg i\npushi 90\nlt\njmp_ne again\n" +
                                ShowGlobal("i") + ShowError("QUERY"));
  ASSERT_TRUE(engine.Start());
  EXPECT_EQ(engine.Get("/long.zpc").Body(), "90||");
  EXPECT_LT(engine.ResidentBytes(), 60L << 20);
}

// Between the requests the kept connection gives back its cache of pages, which is then larger than
// that of a connection that waits.
TEST_F(SQLite, AConnectionThatHasReadALargeTableServesTheNextScript) {
  RunFirstPage(engine, SetType("sqlite") + PersonsScript() +
                           RunQuery("t",
                                    "insert into t (name, age) with recursive c(n) as (select 1 "
                                    "union all select n + 1 from c where n < 20000) select "
                                    "printf('%0200d', n), n from c") +
                           Op("dbmakeindex", {"t", "age.zix", "d.age", ""}));
  engine.arguments = {"-t", "1"};
  engine.Script("large.zpc",
                SetType("sqlite") + Silent() + OpenDatabase("t", "t.dbf", "age.zix") +
                    OpenView("t", "c", "select sum(length(name)) as n from t where age > 100") +
                    Show("c", "n") + Find("t", "19000") + Show("t", "age") + Skip("t", 1) +
                    SetField("t", "name", "x") + OnView("dbupdate", "t") + Show("t", "age"));
  ASSERT_TRUE(engine.Start());
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(engine.Get("/large.zpc").Body(),
              std::to_string(i == 0 ? 19900 * 200 : 19899 * 200 + 1) + "|19000|19001|");
  }
}

// At each limit of memory another step fails. The process goes on, and no connection is lost.
TEST_F(SQLite, MemoryThatIsRefusedEndsOnlyTheScript) {
  if (kThreadSanitizer) GTEST_SKIP() << "there is no limit";
  RunFirstPage(engine, SetType("sqlite") + PersonsScript());
  engine.arguments = {"-t", "1"};
  const int count = SweepMemory(&engine, SetType("sqlite"));
  EXPECT_GT(count, 20);
  EXPECT_LE(OpenFiles(), 3);
}

// It waits for a heartbeat.
class SlowSQLite : public SQLite {};

TEST_F(SlowSQLite, ALongStatementEndsWithTheScript) {
  RunFirstPage(engine, SetType("sqlite") + PersonsScript());
  const std::string libraries = SQLLibraries();
  engine.settings = "timeout_global = 1\n" + libraries.substr(libraries.find('\n') + 1);
  engine.Script("long.zpc", SetType("sqlite") + OpenDatabase("t", "t.dbf") +
                                RunQuery("t",
                                         "with recursive c(x) as (select 1 union all select x + 1 "
                                         "from c) select count(*) from c"));
  ASSERT_TRUE(engine.Start());
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_THAT(engine.Get("/long.zpc").Body(), HasSubstr("timed out"));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30));
}

}  // namespace
