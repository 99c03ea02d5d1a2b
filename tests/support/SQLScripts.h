// Scripts for the types of databases that the libraries of extensions/zephsqlite and
// extensions/zephpostgres bring, as program text.

#ifndef ZEPH_TESTS_SUPPORT_SQLSCRIPTS_H
#define ZEPH_TESTS_SUPPORT_SQLSCRIPTS_H

#include <gtest/gtest.h>

#include <filesystem>
#include <initializer_list>
#include <string>
#include <vector>

#include "tests/support/Command.h"
#include "tests/support/DatabaseMachine.h"
#include "tests/support/EngineProcess.h"
#include "tests/support/Paths.h"

// The sections of both libraries, with the connection of a PostgreSQL server.
inline std::string SQLLibraries(const std::string& connection = "") {
  std::string text = "timeout_global = 30\n";
  for (const char* name : {"sqlite", "postgres"}) {
    text += std::string("[[library]]\nkind = \"database\"\nname = \"") + name + "\"\npath = \"" +
            InBuild("lib/zeph" + std::string(name) + ".so") + "\"\n";
  }
  return text + "[variables.system]\nzephpostgres_connection = \"" + connection + "\"\n";
}

// Runs a page with zprun.
inline std::string RunPage(EngineProcess& engine, const std::string& code) {
  engine.Script("page.zpc", code);
  engine.WriteConfiguration();
  Command command({InBuild("bin/zprun"), "--errors-in-page", "--config", engine.Path("zeph.toml"),
                   engine.Path("scripts/page.zpc")});
  EXPECT_EQ(command.Run(), 0) << command.output;
  EXPECT_EQ(command.errors, "");
  return command.output;
}

// The same, with an empty data directory.
inline std::string RunFirstPage(EngineProcess& engine, const std::string& code) {
  std::filesystem::remove_all(engine.Path("data"));
  engine.Folder("data");
  return RunPage(engine, code);
}

inline std::string SetType(const std::string& type) {
  return Push(type) + "pops zeph_defaultdatabase\n";
}
// Errors of databases are not shown, and end nothing.
inline std::string Silent() {
  std::string code;
  for (int tag = 28; tag <= 58; tag++) code += "tagerror " + std::to_string(tag) + ", 0\n";
  return code;
}
inline std::string ShowError(const std::string& tag) {
  return ShowGlobal("Zp" + tag + "_Error");
}
inline std::string OpenView(const std::string& database, const std::string& view,
                            const std::string& query, const std::string& variables = "") {
  return Op("dbopenview", {database, view, query, variables});
}
inline std::string RunQuery(const std::string& database, const std::string& query,
                            const std::string& variables = "") {
  return Op("dbquery", {database, query, variables});
}
// Every record of a view from the current one on, its fields each with a bar, records with a
// semicolon.
inline std::string ShowAll(const std::string& database, const std::string& view,
                           std::initializer_list<std::string> fields) {
  static int labels = 0;
  const std::string label = std::to_string(++labels);
  const std::string name = view.empty() ? database : view;
  std::string code = "jmp test" + label + "\nbody" + label + ":\n";
  for (const std::string& field : fields)
    code += Op("pushd", {name, field}) + "out\n" + Push("|") + "out\n";
  code += Push("; ") + "out\n" + Push(database) + Push(view) + Push(1) + "dbskip\ntest" + label +
          ":\n" + Op("pushd", {name, "eof"}) + "jmp_eq body" + label + "\n";
  return code;
}

// Makes a table with a field of each type, and does with it all that scripts do.
inline std::string PeopleScript() {
  const auto person = [](const char* name, const char* age, const char* paid, const char* born,
                         const char* member, const char* note) {
    return SetField("t", "name", name) + SetField("t", "age", age) + SetField("t", "paid", paid) +
           SetField("t", "born", born) + SetField("t", "member", member) +
           SetField("t", "note", note) + OnView("dbadd", "t");
  };
  const std::initializer_list<std::string> all = {"name", "age",   "paid",   "born",   "member",
                                                  "note", "recno", "totrec", "deleted"};
  std::string code =
      Silent() +
      CreateDatabase(
          "t", "people.dbf",
          "name char(20), age number(3), paid number(5.2), born date, member bool, note memo") +
      person("Tom", "41", "12.5", "19800102", "1", "the first\nand \"only\"") +
      person("Ann", "37", "3", "19840229", "0", "it's") +
      person("Zo\xC3\xAB", "7", "0", "20190401", "1", "") +
      person("Bob", "62", "-1.25", "19630405", "0", "b");
  // In the order of the table, forwards and backwards, and past both ends.
  code += Go("t", -1) + ShowAll("t", "", all) + Show("t", "name") + Skip("t", -1) +
          Show("t", "name") + Go("t", -2) + Show("t", "name") + Skip("t", -3) + Show("t", "name") +
          Skip("t", -1) + Show("t", "eof") + Show("t", "name") + Go("t", 3) + Show("t", "name") +
          Go("t", 9) + Show("t", "eof") + Show("t", "name");
  // With indexes.
  code += Op("dbmakeindex", {"t", "age.zix", "d.age", "descending"}) +
          Op("dbmakeindex", {"t", "name.zix", "t.d.name", "string, unique"}) +
          ShowAll("t", "", {"name"}) + Show("t", "eof") + Find("t", "Bob") + Show("t", "age") +
          Skip("t", 1) + Show("t", "name") + Find("t", "T", 0) + Show("t", "age") +
          Find("t", "T", 1) + Show("t", "eof") + Show("t", "name") + Find("t", "Tom") +
          Op("dbprimary", {"t", "", "age.zix"}) + Skip("t", 1) + Show("t", "name") + Go("t", -1) +
          ShowAll("t", "", {"name", "age"}) + Find("t", "37") + Show("t", "name") + Skip("t", -1) +
          Show("t", "name");
  // Changes.
  code += SetField("t", "age", "90") + Show("t", "age") + Skip("t", 0) + Show("t", "age") +
          SetField("t", "age", "1") + SetField("t", "note", "changed") + OnView("dbupdate", "t") +
          Show("t", "age") + Go("t", -1) + ShowAll("t", "", {"name", "age", "note"}) + Go("t", 2) +
          OnView("dbdelete", "t") + Show("t", "deleted") + Show("t", "name") +
          OnView("dbundelete", "t") + Show("t", "deleted") + Go("t", 2) + Show("t", "name") +
          OnView("dbdelete", "t") + Push("t") + "dbpack\n" +
          Op("dbsetindex", {"t", "", "name.zix"}) + ShowAll("t", "", {"name"}) + Push("t") +
          "dbreindex\n";
  // What is not stored for a new record is that of the current one.
  code += Find("t", "Tom") + SetField("t", "name", "Tim") + OnView("dbadd", "t") +
          Show("t", "paid") + Find("t", "Tim") + Show("t", "note");
  // A filter.
  code += Op("dbfilter", {"t", "", "d.age GT 40"}) + ShowAll("t", "", {"name"}) + Go("t", -2) +
          Show("t", "name") + Find("t", "Zo", 0) + Show("t", "eof") +
          Op("dbfilter", {"t", "", ""}) + ShowAll("t", "", {"name"});
  // Nothing of these is an error in any type.
  for (const char* tag : {"CREATE", "ADD", "GO", "SKIP", "FIND", "MAKEINDEX", "PRIMARY", "UPDATE",
                          "DELETE", "UNDELETE", "PACK", "SETINDEX", "REINDEX", "FILTER"}) {
    code += ShowError(tag);
  }
  // The description; and the table is there when it is opened again.
  code += Push("t") + Push("") + "pushg f\ndbrevealstructureagg\n";
  for (int i = 1; i <= 6; i++) {
    for (const char* name : {"NAME", "TYPE", "LEN", "DEC"}) {
      code +=
          "pushnc \"f[" + std::to_string(i) + "]:FIELD_" + name + "\"\nout\n" + Push(" ") + "out\n";
    }
  }
  return code + Op("dbclose", {"t"}) + OpenDatabase("u", "people.dbf", "name.zix,age.zix") +
         ShowError("OPEN") + ShowAll("u", "", {"name", "age"});
}

// --- Claims that hold for both types
// --------------------------------------------------------------

// A script and the output that each type gives it. PersonsScript goes before it: a table t with the
// records ann of 30, bob of 20 and cat without an age.
struct SQLCase {
  const char* name;
  std::string code;
  std::string output;
};

inline std::string PersonsScript() {
  return Silent() + CreateDatabase("t", "t.dbf", "name char(20), age number(5)") +
         SetField("t", "name", "ann") + SetField("t", "age", "30") + OnView("dbadd", "t") +
         SetField("t", "name", "bob") + SetField("t", "age", "20") + OnView("dbadd", "t") +
         RunQuery("t", "insert into t (name) values ('cat')") + Go("t", -1);
}
// Writes 0 if the tag has failed.
inline std::string ShowDone(const std::string& tag) {
  return "pushg Zp" + tag + "_Error\nisnull\nout\n" + Push("|") + "out\n";
}
inline std::string SetGlobal(const std::string& name, const std::string& text) {
  return Push(text) + "popg " + name + "\n";
}
inline std::string SkipIn(const std::string& database, const std::string& view, int count) {
  return Push(database) + Push(view) + Push(count) + "dbskip\n";
}
inline std::string GoIn(const std::string& database, const std::string& view, int position) {
  return Push(database) + Push(view) + Push(position) + "dbgo\n";
}

// Single steps of a view of the database t, without reading a field.
inline std::string SkipEach(const std::string& view, int count) {
  std::string code;
  for (int i = 0; i < count; i++) code += SkipIn("t", view, 1);
  return code;
}

// Changes the record that the view q of the database t is at, so that its query finds it no more.
inline std::string ChangeEach() {
  return Op("pushd", {"q", "id"}) + "popg id\n" + ShowGlobal("id") +
         RunQuery("t", "update t set age = -1 where recno = ?", "id") + SkipIn("t", "q", 1);
}

// Reads that many records of the view m of the database t, whose field s is "row " and the number
// n: adds the numbers to the variable sum, and counts in wrong the records whose s is another.
inline std::string ReadMany(int count) {
  static int labels = 0;
  const std::string next = "many" + std::to_string(++labels);
  return "storegi i, 0\n" + next +
         ":\npushg sum\npushdc \"m\", \"n\"\nadd\npopg sum\npushg wrong\npushdc \"m\", \"s\"\n" +
         Push("row ") + "pushdc \"m\", \"n\"\ncat\nne\nadd\npopg wrong\n" + SkipIn("t", "m", 1) +
         "incg i, 1\ncmpgi i, " + std::to_string(count) + "\njmp_lt " + next + "\n";
}

// Adds p1 to p300 of the ages 999 down to 700, and goes far in the order of the ages: cat, bob,
// ann, p300, p299 and so on, to p203.
inline std::string GoFar() {
  return RunQuery("t",
                  "insert into t (name, age) with recursive c(n) as (select 1 union all select n + "
                  "1 from c where n < 300) select 'p' || n, 1000 - n from c order by n") +
         Op("dbmakeindex", {"t", "age.zix", "d.age", ""}) + Go("t", -1) + Show("t", "name") +
         SkipEach("", 100);
}

inline std::vector<SQLCase> SQLCases() {
  return {
      {"a view of a query reads its rows in both directions",
       OpenView("t", "q", "select name, age * 2 as twice from t order by name desc") +
           ShowAll("t", "q", {"name", "twice", "recno", "totrec"}) + Show("q", "eof") +
           SkipIn("t", "q", -1) + Show("q", "name") + GoIn("t", "q", 1) + Show("q", "name") +
           GoIn("t", "q", -2) + Show("q", "name") + SkipIn("t", "q", -2) + Show("q", "name") +
           Op("dbcloseview", {"t", "q"}) + ShowError("CLOSEVIEW"),
       "cat||1|3|; bob|40|2|3|; ann|60|3|3|; 1|bob|cat|ann|cat||"},
      {"parameters are values, whatever is in them",
       SetGlobal("who", "x' or '1'='1") + "pushi 25\npopg limit\n" +
           OpenView("t", "a", "select name from t where name = ?", "who") +
           ShowAll("t", "a", {"name"}) +
           OpenView("t", "b", "select name from t where age > :limit and age < ?2 + 100",
                    "who,limit") +
           ShowAll("t", "b", {"name"}) +
           OpenView("t", "c", "select '?', ':who', name from t -- ? :no\nwhere age < ?", "limit") +
           ShowAll("t", "c", {"name"}) + RunQuery("t", "insert into t (name) values (?)", "who") +
           Go("t", -2) + Show("t", "name"),
       "ann|; bob|; x' or '1'='1|"},
      {"a parameter that is not given is an error",
       OpenView("t", "a", "select name from t where name = ?") + ShowError("OPENVIEW") +
           OpenView("t", "a", "select name from t where name = :nobody") + ShowError("OPENVIEW"),
       "Cannot open the view 'a': the query has more parameters than there are variables|"
       "Cannot open the view 'a': no variable 'nobody' is given to the query|"},
      {"a view of some records of a table can be changed",
       "pushi 25\npopg limit\n" + OpenView("t", "young", "t where age < ?", "limit") +
           Show("young", "name") + SetField("young", "age", "5") + Op("dbupdate", {"t", "young"}) +
           ShowError("UPDATE") + ShowAll("t", "young", {"age"}) + Op("dbdelete", {"t", "young"}) +
           ShowError("DELETE") + Go("t", -1) + ShowAll("t", "", {"name"}),
       "bob||5|; |ann|; cat|; "},
      {"NULL is a field without a value",
       Go("t", 3) + Show("t", "age") + Op("pushd", {"t", "age"}) + "isnull\nout\n" + Go("t", 1) +
           Op("pushd", {"t", "age"}) + "pushi 1\nadd\nout\n" + Push("|") + "out\n" +
           SetField("t", "age", "") + OnView("dbupdate", "t") +
           OpenView("t", "n", "select count(*) as n from t where age is null") + Show("n", "n"),
       "|131|2|"},
      {"a transaction is undone in all views",
       OpenView("t", "v", "t") + Push("t") + "dbtransaction\n" + SetField("t", "name", "dan") +
           OnView("dbadd", "t") + RunQuery("t", "delete from t where name = 'ann'") + Push("t") +
           "dbtransaction\n" + ShowError("TRANSACT") + GoIn("t", "v", -1) +
           ShowAll("t", "v", {"name"}) + Push("t") + "dbrollback\n" + GoIn("t", "v", -1) +
           ShowAll("t", "v", {"name"}) + Push("t") + "dbtransaction\n" +
           RunQuery("t", "delete from t where name = 'bob'") + Push("t") + "dbcommit\n" +
           Push("t") + "dbrollback\n" + Go("t", -1) + ShowAll("t", "", {"name"}),
       "Cannot begin a transaction: a transaction is open already|"
       "bob|; cat|; dan|; ann|; bob|; cat|; ann|; cat|; "},
      {"a view that is read while its table changes goes on after its place",
       Go("t", 1) + RunQuery("t", "delete from t where name = 'bob'") +
           RunQuery("t", "insert into t (name) values ('eve')") + ShowAll("t", "", {"name"}),
       "ann|; cat|; eve|; "},
      {"records without a value are first in the order of an index",
       Op("dbmakeindex", {"t", "age.zix", "d.age", ""}) + ShowAll("t", "", {"name"}) + Go("t", -2) +
           Show("t", "name") + Skip("t", -2) + Show("t", "name") + Skip("t", 1) + Show("t", "name"),
       "cat|; bob|; ann|; ann|cat|bob|"},
      {"a duplicate in a unique index is refused",
       Op("dbmakeindex", {"t", "name.zix", "d.name", "unique"}) + Find("t", "bob") +
           SetField("t", "name", "ann") + OnView("dbupdate", "t") + ShowDone("UPDATE") +
           OnView("dbadd", "t") + ShowDone("ADD") + Skip("t", 0) + Show("t", "name"),
       "0|0|bob|"},
      {"what cannot be done says so",
       OpenView("t", "q", "select 1 as one") + Op("dbadd", {"t", "q"}) + ShowError("ADD") +
           Push("t") + Push("q") + Push("k") + Push(1) + "dbfind\n" + ShowError("FIND") +
           Find("t", "k") + ShowError("FIND") + Op("dbmakeindex", {"t", "x.zix", "d.nothing", ""}) +
           ShowError("MAKEINDEX") + OpenView("t", "w", "nothing") + ShowError("OPENVIEW") +
           RunQuery("t", "") + ShowError("QUERY"),
       "A view of a query cannot be changed|A view of a query cannot be searched|"
       "Database has no open indexes|"
       "Cannot make the index 'x.zix': its key has to be a field, such as d.name|"
       "There is no table 'nothing'|Cannot run the query: it is empty|"},
      {"a copy of a number has its decimals in each record",
       CreateDatabase("m", "m.dbf", "a number(5.2)") + SetField("m", "a", "1.5") +
           OnView("dbadd", "m") + SetField("m", "a", "3") + OnView("dbadd", "m") +
           SetField("m", "a", "-20") + OnView("dbadd", "m") + Go("m", -1) +
           Op("pushd", {"m", "a"}) + "popg a\n" + ShowGlobal("a") + Skip("m", 1) +
           Op("pushd", {"m", "a"}) + "popg a\n" + ShowGlobal("a") + Skip("m", 1) +
           Op("pushd", {"m", "a"}) + "popg a\n" + ShowGlobal("a") + Op("pushd", {"m", "a"}) +
           "pushi 1\nadd\nout\n",
       "1.50|3.00|-20.00|-19"},
      {"what was stored and not written is gone with the record, also in a field that was not read",
       SetField("t", "name", "gone") + SetField("t", "age", "1") + Skip("t", 1) +
           Show("t", "name") + Show("t", "age") + SetField("t", "age", "2") + Skip("t", 0) +
           OnView("dbupdate", "t") + Show("t", "age") + SetField("t", "eof", "5") +
           Show("t", "eof") + Skip("t", 0) + Show("t", "eof"),
       "bob|20|20|5|0|"},
      {"what is stored before a field of the first record is read is written",
       OpenDatabase("u", "t.dbf") + SetField("u", "name", "new") + Show("u", "age") +
           Show("u", "name") + OnView("dbupdate", "u") + Skip("u", 0) + Show("u", "name"),
       "30|new|new|"},
      {"a view of a query goes on with the rows of before a change",
       OpenView("t", "q", "select recno as id from t where coalesce(age, 0) >= 0 order by recno") +
           ChangeEach() + ChangeEach() + ChangeEach() + Show("q", "eof") + GoIn("t", "q", -2) +
           Show("q", "id") + SkipIn("t", "q", 1) + Show("q", "eof") +
           OpenView("t", "n", "select count(*) as n from t where age = -1") + Show("n", "n"),
       "1|2|3|1|3|1|3|"},
      {"a view of a statement that changes something runs it once",
       OpenView("t", "q", "insert into t (name) values ('dan'), ('eve') returning name") +
           Show("q", "name") + GoIn("t", "q", -2) + Show("q", "name") + GoIn("t", "q", 1) +
           SkipIn("t", "q", 1) + SkipIn("t", "q", -1) + Show("q", "name") + Show("q", "totrec") +
           Show("t", "totrec"),
       "dan|eve|dan|2|5|"},
      {"the last row of a query is found from past the end",
       OpenView("t", "q", "select name from t order by name") + GoIn("t", "q", 500) +
           Show("q", "eof") + GoIn("t", "q", -2) + Show("q", "name") + Show("q", "recno"),
       "1|cat|3|"},
      {"a comment at the end hides nothing",
       OpenView("t", "q", "select name from t -- all") + Show("q", "totrec") + Show("q", "name") +
           OpenView("t", "c", "t where age > 0 -- known") + Show("c", "totrec") +
           ShowAll("t", "c", {"name"}),
       "3|ann|2|ann|; bob|; "},
      {"an index of another table is not replaced, nor one whose new form is refused",
       RunQuery("t", "create table other (x integer)") +
           RunQuery("t", "create index t_age on other (x)") +
           Op("dbmakeindex", {"t", "age.zix", "d.age", ""}) + ShowDone("MAKEINDEX") +
           Op("dbmakeindex", {"t", "name.zix", "d.name", ""}) + ShowDone("MAKEINDEX") +
           RunQuery("t", "insert into t (name) values ('ann')") +
           Op("dbmakeindex", {"t", "name.zix", "d.name", "unique"}) + ShowDone("MAKEINDEX") +
           Op("dbsetindex", {"t", "", "name.zix"}) + ShowDone("SETINDEX") + Push("t") +
           "dbtransaction\n" + Op("dbmakeindex", {"t", "name.zix", "d.name", "unique"}) +
           RunQuery("t", "delete from t where name = 'bob'") + Push("t") + "dbcommit\n" +
           ShowDone("COMMIT") + Go("t", -1) + ShowAll("t", "", {"name"}) +
           RunQuery("t", "drop table other"),
       "0|1|0|1|1|ann|; ann|; cat|; "},
      // Fields that are read get their values with each move, until they are not read any more.
      {"a field that is read again after many records has the value of its record",
       RunQuery("t", "create table many (n integer primary key, x numeric(6,2), s varchar(9))") +
           RunQuery("t",
                    "insert into many with recursive c(n) as (select 1 union all select n + 1 "
                    "from c where n < 200) select n, n + 0.5, 'row ' || n from c") +
           OpenView("t", "m", "many") + Show("m", "s") + Show("m", "x") + SkipEach("m", 100) +
           Show("m", "s") + SkipEach("m", 40) + Show("m", "x") + Show("m", "n") + Show("m", "s") +
           SkipEach("m", 58) + Show("m", "eof") + SkipEach("m", 2) + Show("m", "eof") +
           SkipIn("t", "m", -1) + Show("m", "eof") + Show("m", "s"),
       "row 1|1.50|row 101|141.50|141|row 141|0|1|0|row 199|"},
      {"a field that is read of many records and then of few has the value of each",
       RunQuery("t", "create table lots (n integer primary key, s varchar(9))") +
           RunQuery("t",
                    "insert into lots with recursive c(n) as (select 1 union all select n + 1 "
                    "from c where n < 900) select n, 'row ' || n from c") +
           OpenView("t", "m", "lots") + "pushf 0\npopg sum\npushi 0\npopg wrong\n" + ReadMany(300) +
           SkipEach("m", 7) + ReadMany(3) + SkipEach("m", 200) + ReadMany(100) + ShowGlobal("sum") +
           ShowGlobal("wrong") + Show("m", "s"),
       "102127|0|row 611|"},
      {"the number of a record is known far into a scan",
       GoFar() + Show("t", "name") + Show("t", "recno") + Skip("t", 1) + Show("t", "name") +
           Show("t", "recno") + SkipEach("", 100) + Show("t", "name") + Show("t", "recno") +
           Skip("t", -1) + Show("t", "name"),
       "cat|p203|206|p202|205|p102|105|p103|"},
      {"a scan turns round far from its start",
       GoFar() + Skip("t", -1) + Show("t", "name") + Skip("t", -70) + Show("t", "name") +
           Skip("t", 71) + Show("t", "name"),
       "cat|p204|p274|p203|"},
      {"a record far into a scan can be changed",
       GoFar() + SetField("t", "name", "x") + OnView("dbupdate", "t") + ShowError("UPDATE") +
           Show("t", "name") + Show("t", "age") + SkipEach("", 80) + Show("t", "name") +
           OnView("dbdelete", "t") + Show("t", "deleted") + Skip("t", 1) + Show("t", "name") +
           RunQuery("t", "delete from t where name in ('p121', 'p120')") + Skip("t", 1) +
           Show("t", "name") +
           OpenView("t", "c", "select count(*) as n from t where name like 'p%' or name = 'x'") +
           Show("c", "n"),
       "cat||x|797|p123|1|p122|p119|297|"},
      {"a record far into a scan can be removed and added again",
       GoFar() + OnView("dbdelete", "t") + Show("t", "name") + Show("t", "deleted") +
           OnView("dbundelete", "t") + Show("t", "deleted") + Show("t", "recno") + Skip("t", 1) +
           Show("t", "name"),
       "cat|p203|1|0|206|p202|"},
      {"what is not stored for a new record is that of one far into a scan",
       GoFar() + SetField("t", "name", "new") + OnView("dbadd", "t") + Show("t", "age") +
           Skip("t", 1) + Show("t", "age"),
       "cat|797|798|"},
      {"a scan goes on after a change that comes from elsewhere",
       GoFar() + RunQuery("t", "delete from t where age between 790 and 800") + Skip("t", 1) +
           Show("t", "name") + Skip("t", -1) + Show("t", "name"),
       "cat|p199|p211|"},
      {"a search that finds nothing far into a scan stays there",
       GoFar() + Find("t", "5") + Show("t", "eof") + Show("t", "name") + Go("t", 5000) +
           Show("t", "eof") + Show("t", "name") + Go("t", -1) + SkipEach("", 250) +
           Show("t", "name"),
       "cat|1|p203|1|p203|p53|"},
      {"the last record of a long scan is the current one after its end",
       GoFar() + SkipEach("", 250) + Show("t", "eof") + Show("t", "name") + Show("t", "recno") +
           SetField("t", "name", "last") + OnView("dbupdate", "t") +
           OpenView("t", "c", "select age from t where name = 'last'") + Show("c", "age") +
           Go("t", -2) + SkipIn("t", "", -100) + Show("t", "name") + SkipEach("", 100) +
           Show("t", "name"),
       "cat|1|p1|4|999|p101|last|"},
      {"the records without a value end, and others follow",
       GoFar() + RunQuery("t", "update t set age = null where age > 800") + Go("t", -1) +
           SkipEach("", 199) + Show("t", "age") + Show("t", "name") + Skip("t", 1) +
           Show("t", "name") + SkipEach("", 90) + Show("t", "name") + SkipEach("", 50) +
           Show("t", "name") + Show("t", "eof"),
       "cat||p199|bob|p212|p200|1|"},
      {"a search is followed by a long scan",
       GoFar() + Find("t", "750") + Show("t", "name") + SkipEach("", 200) + Show("t", "name") +
           Skip("t", -1) + Show("t", "name") + Skip("t", 2) + Show("t", "recno"),
       "cat|p250|p50|p51|52|"},
      {"a record's number may be large",
       RunQuery("t", "insert into t (recno, name) values (5000000000, 'far')") + Go("t", -2) +
           Show("t", "recno") + Show("t", "name") + Op("pushd", {"t", "recno"}) +
           "pushf 0.5\nadd\nout\n",
       "5000000000|far|5000000000.5"},
      {"a statement is not cut",
       Push("t") + "pushc \"delete from t\\x00 where 1 = 0\"\n" + Push("") + "dbquery\n" +
           ShowError("QUERY") + Push("t") + Push("q") +
           "pushc \"select name from t\\x00 where 1 = 0\"\n" + Push("") + "dbopenview\n" +
           ShowDone("OPENVIEW") + Show("t", "totrec"),
       "Cannot run the query: it has a NUL byte|0|3|"},
      {"a table's name may have a point",
       CreateDatabase("d", "a.b.dbf", "x char(5)") + SetField("d", "x", "in") +
           OnView("dbadd", "d") + ShowError("CREATE") + Show("d", "x") +
           OpenView("d", "v", "\"a.b\"") + Show("v", "x") + OpenDatabase("e", "a.b.dbf") +
           ShowError("OPEN") + Show("e", "x"),
       "|in|in||in|"},
      {"a key that is no value of the index is not found",
       Op("dbmakeindex", {"t", "age.zix", "d.age", ""}) + Push("t") + "dbtransaction\n" +
           Find("t", "abc") + ShowError("FIND") + Show("t", "eof") + Find("t", "2e1") +
           Show("t", "name") + Push("t") + "dbcommit\n" + ShowError("COMMIT"),
       "|1|bob||"},
      {"a column that the database calculates is not copied",
       RunQuery("t",
                "create table m (id integer primary key, a integer, "
                "b integer generated always as (a * 2) stored)") +
           RunQuery("t", "insert into m (id, a) values (1, 4)") + OpenView("t", "m", "m") +
           Op("dbdelete", {"t", "m"}) + Op("dbundelete", {"t", "m"}) + ShowError("UNDELETE") +
           Show("m", "b") + SetField("m", "id", "2") + Op("dbadd", {"t", "m"}) + ShowError("ADD") +
           Show("m", "id") + Show("m", "b"),
       "|8||2|8|"},
  };
}

// Serves one page with many limits of memory, each of which lets it come a step further. The table
// t is there. Returns how many requests had too little. The first step is what the engine itself
// needs.
inline int SweepMemory(EngineProcess* engine, const std::string& set_type) {
  constexpr int kSteps = 1000, kStep = 128;
  // A connection whose settings a script has changed is not kept, so each script has a new one.
  const std::string begin =
      set_type + Silent() + OpenDatabase("t", "t.dbf") +
      RunQuery("t", set_type.find("sqlite") != std::string::npos ? "pragma foreign_keys = on"
                                                                 : "select 1");
  const std::string code =
      begin + Show("t", "name") +
      OpenView("t", "q", "select name from t where age > 0 order by 1") + SkipIn("t", "q", 1) +
      SetField("t", "age", "31") + OnView("dbupdate", "t") + Skip("t", 1) + Show("t", "name") +
      OpenView("t", "v", "t where age > 1") + Show("v", "totrec") + Op("dbcloseview", {"t", "q"}) +
      Op("dbcloseview", {"t", "v"}) + Op("dbclose", {"t"});
  for (int i = 0; i < kSteps; i++) {
    const std::string name = "m" + std::to_string(i) + ".zpc";
    engine->Script(name, code);
    engine->settings += "[[script]]\nmatch = \"" + name +
                        "\"\nmemory_limit = " + std::to_string((i + 1) * kStep) + "\n";
  }
  engine->Script("whole.zpc", code);
  EXPECT_TRUE(engine->Start());
  EXPECT_EQ(engine->Get("/whole.zpc").Body(), "ann|bob|2|");
  int failures = 0;
  for (int i = 0; i < kSteps && engine->Running(); i++) {
    const std::string body = engine->Get(("/m" + std::to_string(i) + ".zpc").c_str()).Body();
    failures += body.find("Out of memory") != std::string::npos;
    // Each second time the connection is a new one, because the failure has ended the last one.
    if (i % 2 == 0) {
      EXPECT_EQ(engine->Get("/whole.zpc").Body(), "ann|bob|2|") << i;
    }
  }
  EXPECT_TRUE(engine->Running());
  EXPECT_EQ(engine->Get("/whole.zpc").Body(), "ann|bob|2|");
  return failures;
}

#endif
