// The instructions on databases, on the built-in engine: targets, messages, error variables, and
// what happens to a script's variables when a database goes away.

#include <gtest/gtest.h>

#include <string>

#include "base/database/Database.h"
#include "tests/support/DatabaseMachine.h"
#include "tests/support/HotAndCold.h"

namespace {

class DatabaseInstructions : public testing::Test {
 protected:
  // Two tables of three records: a has n = 1, 2, 3 and b has n = 10, 20, 30.
  void SetUp() override {
    std::string code;
    for (const char* name : {"a", "b"}) {
      code += CreateDatabase(name, std::string(name) + ".dbf", "n number(5), t char(10)");
      for (int i = 1; i <= 3; i++) {
        code += SetField(name, "n", std::to_string(*name == 'a' ? i : 10 * i)) +
                SetField(name, "t", "row" + std::to_string(i)) + OnView("dbadd", name);
      }
      code += Op("dbclose", {name});
    }
    DatabaseMachine maker(directory);
    maker.Run(code);
    ASSERT_EQ(maker.machine.Error(), "");
  }

  // What a script of its own writes.
  std::string Page(const std::string& code) {
    DatabaseMachine script(directory);
    script.Run(code);
    return script.Output();
  }
  // The error variable that a script of its own leaves.
  std::string ErrorAfter(const std::string& code, const char* variable) {
    DatabaseMachine script(directory);
    script.Run(code);
    return script.Value(variable);
  }

  TemporaryDirectory directory;
};

const std::string kOpenBoth = OpenDatabase("a", "a.dbf") + OpenDatabase("b", "b.dbf");

// --- Targets -------------------------------------------------------------------------------------

TEST_F(DatabaseInstructions, WithoutADatabaseThereIsNoPrimaryOne) {
  const std::string no_primary = "There is no primary database, and no database was specified";
  EXPECT_EQ(ErrorAfter(Skip("", 1), "ZpSKIP_Error"), no_primary);
  EXPECT_EQ(ErrorAfter(Go("", 1), "ZpGO_Error"), no_primary);
  EXPECT_EQ(ErrorAfter(Find("", "x"), "ZpFIND_Error"), no_primary);
  const struct {
    const char* instruction;
    std::initializer_list<std::string> operands;
    const char* variable;
  } cases[] = {
      {"dbclose", {""}, "ZpCLOSE_Error"},
      {"dbadd", {"", ""}, "ZpADD_Error"},
      {"dbupdate", {"", ""}, "ZpUPDATE_Error"},
      {"dbdelete", {"", ""}, "ZpDELETE_Error"},
      {"dbundelete", {"", ""}, "ZpUNDELETE_Error"},
      {"dbpack", {""}, "ZpPACK_Error"},
      {"dbreindex", {""}, "ZpREINDEX_Error"},
      {"dbsetindex", {"", "", "x.zix"}, "ZpSETINDEX_Error"},
      {"dbrevealstructuredb", {"", "", "s.dbf"}, "ZpREVEALSTRUCTURE_Error"},
      {"dbopenview", {"", "v", "q", ""}, "ZpOPENVIEW_Error"},
      {"dbcloseview", {"", "v"}, "ZpCLOSEVIEW_Error"},
      {"dbquery", {"", "q", ""}, "ZpQUERY_Error"},
      {"dbfilter", {"", "", "n > 1"}, "ZpFILTER_Error"},
      {"dbcommit", {""}, "ZpCOMMIT_Error"},
      {"dbrollback", {""}, "ZpROLLBACK_Error"},
      {"dbtransaction", {""}, "ZpTRANSACT_Error"},
      {"dbcommand", {"", "c", "a"}, "ZpDBCOMMAND_Error"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.instruction);
    EXPECT_EQ(ErrorAfter(Op(c.instruction, c.operands), c.variable), no_primary);
  }
}

TEST_F(DatabaseInstructions, TheNewestDatabaseIsThePrimaryOne) {
  EXPECT_EQ(Page(kOpenBoth + Skip("", 1) + Show("a", "n") + Show("b", "n")), "1|20|");
}

TEST_F(DatabaseInstructions, PrimaryMovesADatabaseToTheFront) {
  EXPECT_EQ(Page(kOpenBoth + Op("dbprimary", {"a", "", ""}) + Skip("", 1) + Show("a", "n") +
                 Show("b", "n")),
            "2|10|");
}

TEST_F(DatabaseInstructions, PrimaryNeedsTheNameOfAnOpenDatabase) {
  for (const char* name : {"", "c"}) {
    DatabaseMachine script(directory);
    script.machine.Assemble(kOpenBoth + Op("dbprimary", {name, "", ""}));
    EXPECT_EQ(script.machine.Go(), 0);
    EXPECT_EQ(script.machine.Failure(),
              "ZpPRIMARY: Database '" + std::string(name) + "' is not open");
  }
}

TEST_F(DatabaseInstructions, PrimaryReportsAMissingViewOrIndexAfterItHasMovedTheDatabase) {
  const struct {
    std::string code;
    const char* message;
  } cases[] = {{Op("dbprimary", {"a", "v", ""}), "Database 'a' has no view named 'v'"},
               {Op("dbprimary", {"a", "a", "none.zix"}), "Database has no index with that name"}};
  for (const auto& c : cases) {
    DatabaseMachine script(directory);
    script.machine.Assemble(kOpenBoth + c.code);
    EXPECT_EQ(script.machine.Go(), 0);
    EXPECT_EQ(script.machine.Failure(), std::string("ZpPRIMARY: ") + c.message);
    Database* first = script.machine.vm().Databases().databases.First();
    EXPECT_STREQ(first->name().data, "a");
  }
}

TEST_F(DatabaseInstructions, AFieldWithoutADatabaseIsTheFirstThatHasOne) {
  EXPECT_EQ(Page(kOpenBoth + Push("d.n") + "pushn\nout\n" + Push("|") + "out\n" +
                 Op("dbprimary", {"a", "", ""}) + Push("d.n") + "pushn\nout\n"),
            "10|1");
}

TEST_F(DatabaseInstructions, NamesOfDatabasesFieldsAndViewsHaveNoCase) {
  EXPECT_EQ(Page(OpenDatabase("Table", "a.dbf") + Push("TABLE") + Push("table") + Push(2) +
                 "dbskip\n" + Show("tABLE", "N")),
            "3|");
}

// Code that runs often is decoded, and look-ups are remembered. Neither outlives the database.
TEST_F(DatabaseInstructions, FieldsInALoopAreThoseOfTheDatabaseThatIsOpen) {
  constexpr int kRounds = 50;
  std::string code = "storegi i, 0\nnext:\n", expected;
  for (const char* path : {"a.dbf", "b.dbf"}) {
    code += OpenDatabase("p", path) + "pushdc \"p\", \"n\"\npopg v\npushg v\nout\n" + Push("/") +
            "out\n" + Push(7) + "popdc \"P\", \"N\"\n" + Show("p", "n") +
            "pushdc \"p\", \"none\"\nout\n" + Skip("p", 1) + Show("p", "n") + Op("dbclose", {"p"}) +
            Show("p", "n");
  }
  code += "incg i, 1\ncmpgi i, " + std::to_string(kRounds) + "\njmp_lt next\n";
  for (int i = 0; i < kRounds; i++) expected += "1/7|2||10/7|20||";
  EXPECT_EQ(Page(code), expected);
}

// Copies of fields, arithmetic and jumps on them, moves and changes, with a filter in every third
// round.
TEST_F(DatabaseInstructions, RecordsInDecodedCodeAreThoseOfThePlainLoop) {
  const std::string code =
      OpenDatabase("p", "a.dbf") + "storegi i, 0\nstoregi hash, 0\nagain:\n" +
      "pushg i\npushi 3\nmod\njmp_ne all\n" + Op("dbfilter", {"p", "", "n NE 2"}) +
      "jmp filtered\nall:\n" + Op("dbfilter", {"p", "", ""}) + "filtered:\n" + Go("p", -1) +
      "jmp read\nnext:\npushdc \"p\", \"n\"\npopg n\npushdc \"p\", \"t\"\npopg t\n" +
      "pushg hash\npushi 31\nmul\npushdc \"p\", \"n\"\nadd\npushi 10007\nmod\npopg hash\n" +
      "pushdc \"p\", \"n\"\npushdc \"p\", \"recno\"\nsub\nout\n" + ShowGlobal("n") +
      ShowGlobal("t") + "pushg i\npopdc \"p\", \"n\"\n" + OnView("dbupdate", "p") +
      OnView("dbdelete", "p") + Show("p", "deleted") + OnView("dbundelete", "p") +
      "pushdc \"p\", \"deleted\"\njmp_ne wrong\n" + Skip("p", 1) +
      "read: pushdc \"p\", \"eof\"\njmp_eq next\n" + ShowGlobal("hash") +
      "pushg i\npopdc \"p\", \"n\"\n" + OnView("dbadd", "p") + "incg i, 1\ncmpgi i, 20\n" +
      "jmp_lt again\nwrong:\n";
  DatabaseMachine hot(directory);
  hot.Run(code);
  EXPECT_NE(hot.machine.segments.Start()->hot(), nullptr);
  const std::string output = hot.Output();
  hot.machine.Close();
  EXPECT_TRUE(output.starts_with("01|row1|1|03|row3|1|34|")) << output;
  SetUp();
  DatabaseMachine cold(directory);
  cold.machine.Assemble(code);
  KeepCold(&cold.machine);
  EXPECT_EQ(cold.machine.Go(), 1);
  EXPECT_EQ(cold.machine.segments.Start()->hot(), nullptr);
  EXPECT_EQ(cold.Output(), output);
}

// More fields than are remembered, each read twice in one record and once in the next.
TEST_F(DatabaseInstructions, EachOfManyConstantNamesMeansItsOwnField) {
  constexpr int kFields = 90;
  std::string fields, stores, reads, expected;
  for (int i = 0; i < kFields; i++) {
    const std::string name = "f" + std::to_string(i);
    fields += (i > 0 ? ", " : "") + name + " number(5)";
    stores += SetField("m", name, std::to_string(100 + i));
    reads += "pushdc \"m\", \"" + name + "\"\nout\n" + Push("|") + "out\n";
    expected += std::to_string(100 + i) + "|";
  }
  const std::string row = stores + OnView("dbadd", "m");
  EXPECT_EQ(Page(CreateDatabase("m", "m.dbf", fields) + row + row + Go("m", -1) + reads + reads +
                 Skip("m", 1) + reads),
            expected + expected + expected);
}

// The numbers of names are those of the dictionary, from 0 on; others are in damaged code.
TEST_F(DatabaseInstructions, ANameThatWasNotReadYetIsNotTakenForAnother) {
  EXPECT_EQ(Page(Push("p") + "pop\n" + OpenDatabase("p", "a.dbf") + "pushdc \"p\", \"n\"\nout\n" +
                 "pushdc \"p\", \"p\"\nisnull\nout\n"),
            "11");
  for (const int id : {-1, -2, 1 << 20}) {
    DatabaseMachine script(directory);
    script.machine.Assemble(OpenDatabase("p", "a.dbf") + "pushdc \"p\", \"n\"\npop\n");
    script.machine.Op(Instruction::pushdc, id, id);
    EXPECT_EQ(script.machine.Go(), 0);
    EXPECT_EQ(script.machine.Failure(), "Invalid dictionary reference");
  }
}

// The empty alias is the first database where a value is assigned, and a view's name where one is
// read.
TEST_F(DatabaseInstructions, AConstantAliasThatIsEmptyMeansTheDatabaseThatIsFirstAtThatTime) {
  const std::string store = Push(7) + "popdc \"\", \"n\"\n";
  EXPECT_EQ(
      Page(kOpenBoth + store + Show("a", "n") + Show("b", "n") + Op("dbprimary", {"a", "", ""}) +
           store + Show("a", "n") + "pushdc \"\", \"n\"\nisnull\nout\n"),
      "1|7|7|1");
}

TEST_F(DatabaseInstructions, UnknownDatabasesAndViewsAreNamed) {
  EXPECT_EQ(ErrorAfter(kOpenBoth + Skip("c", 1), "ZpSKIP_Error"), "Database 'c' is not open");
  EXPECT_EQ(ErrorAfter(kOpenBoth + Push("a") + Push("v") + Push(1) + "dbskip\n", "ZpSKIP_Error"),
            "Database 'a' has no view named 'v'");
  // Names come from outside.
  EXPECT_EQ(ErrorAfter(kOpenBoth + Skip("<c>", 1), "ZpSKIP_Error"),
            "Database '&lt;c&gt;' is not open");
}

TEST_F(DatabaseInstructions, ASuccessClearsTheErrorVariable) {
  EXPECT_EQ(ErrorAfter(kOpenBoth + Skip("c", 1) + Skip("a", 1), "ZpSKIP_Error"), "");
}

// --- Opening and closing -------------------------------------------------------------------------

TEST_F(DatabaseInstructions, ANameIsOpenOnce) {
  const std::string message = "A database with the name 'A' is already open";
  EXPECT_EQ(ErrorAfter(kOpenBoth + OpenDatabase("A", "b.dbf"), "ZpOPEN_Error"), message);
  EXPECT_EQ(ErrorAfter(kOpenBoth + CreateDatabase("A", "c.dbf", "n number"), "ZpCREATE_Error"),
            message);
  EXPECT_FALSE(std::filesystem::exists(directory.path("c.dbf")));
}

TEST_F(DatabaseInstructions, NothingIsOpenAfterAFailedOpen) {
  DatabaseMachine script(directory);
  script.Run(OpenDatabase("a", "none.dbf") + Skip("a", 1));
  EXPECT_NE(script.Value("ZpOPEN_Error"), "");
  EXPECT_EQ(script.Value("ZpSKIP_Error"), "Database 'a' is not open");
}

TEST_F(DatabaseInstructions, ADatabaseWhoseIndexesCannotBeOpenedIsNotOpen) {
  DatabaseMachine script(directory);
  script.Run(OpenDatabase("a", "a.dbf", "none.zix") + Skip("a", 1));
  EXPECT_NE(script.Value("ZpOPEN_Error"), "");
  EXPECT_EQ(script.Value("ZpSKIP_Error"), "Database 'a' is not open");
}

TEST_F(DatabaseInstructions, TheTypeOfTheBuiltInEngineHasNoCase) {
  EXPECT_EQ(Page(OpenDatabase("a", "a.dbf", "", "XBASE3") + Show("a", "n")), "1|");
  for (const char* type : {"xbase", "xbase33", "other"}) {
    SCOPED_TRACE(type);
    DatabaseMachine script(directory);
    script.Run(OpenDatabase("a", "a.dbf", "", type));
    const String& miss = script.machine.database_libraries.error();
    EXPECT_GT(miss.length, 0);
    EXPECT_EQ(script.Value("ZpOPEN_Error"), std::string(miss.data));
  }
}

TEST_F(DatabaseInstructions, AnEmptyTypeIsTheDefaultDatabases) {
  for (const char* setting : {"", "xBase3", "nosuch"}) {
    SCOPED_TRACE(setting);
    DatabaseMachine script(directory);
    script.machine.Assemble(OpenDatabase("a", "a.dbf") + Show("a", "n"));
    script.machine.system.SetVariable(new Variable("zeph_defaultdatabase", -1, setting, -1));
    EXPECT_EQ(script.machine.Go(), 1) << script.machine.Error();
    EXPECT_EQ(script.Output() == "1|", std::string(setting) != "nosuch") << script.Output();
  }
}

TEST_F(DatabaseInstructions, TheExtendedFormTakesOneMoreText) {
  EXPECT_EQ(Page(Op("dbopen1", {"a", "a.dbf", "", "", "x", "y", "z"}) + Show("a", "n")), "1|");
}

TEST_F(DatabaseInstructions, ClosingThePrimaryDatabaseLeavesTheOneBefore) {
  EXPECT_EQ(Page(kOpenBoth + Op("dbclose", {""}) + Skip("", 2) + Show("a", "n")), "3|");
  EXPECT_EQ(ErrorAfter(kOpenBoth + Op("dbclose", {"b"}) + Skip("b", 1), "ZpSKIP_Error"),
            "Database 'b' is not open");
}

TEST_F(DatabaseInstructions, ANameThatIsMadeAtRunTimeIsAdoptedOnce) {
  // The text of a sum belongs to the stack; what is not adopted is freed there.
  const std::string sum = Push("a") + Push("x") + "cat\n";
  EXPECT_EQ(Page(sum + Push("a.dbf") + Push("") + Push("") + Push("") + Push("") + "dbopen\n" +
                 Show("ax", "n") + sum + Push("") + Push(1) + "dbskip\n" + Show("ax", "n") + sum +
                 "dbclose\n"),
            "1|2|");
}

TEST_F(DatabaseInstructions, ANameMayBeInAFieldOfTheDatabaseThatIsClosed) {
  EXPECT_EQ(ErrorAfter(CreateDatabase("ax", "c.dbf", "t char(5)") + SetField("ax", "t", "ax") +
                           Op("pushd", {"ax", "t"}) + "dbclose\n" + Skip("ax", 1),
                       "ZpSKIP_Error"),
            "Database 'ax' is not open");
}

TEST_F(DatabaseInstructions, WhatIsOpenAtTheEndIsClosed) {
  DatabaseMachine script(directory);
  script.Run(kOpenBoth);
  EXPECT_EQ(script.machine.vm().Children(), 2);
  script.machine.Close();
  // Another one may now replace the file.
  EXPECT_EQ(Page(kOpenBoth + Show("a", "n")), "1|");
}

// --- Variables of a database that goes away ------------------------------------------------------

TEST_F(DatabaseInstructions, AReferenceToAFieldOfAClosedDatabaseIsNull) {
  EXPECT_EQ(
      Page(OpenDatabase("a", "a.dbf") + Op("pushd", {"a", "n"}) + "poprg r\n" + ShowGlobal("r") +
           Op("dbclose", {"a"}) + ShowGlobal("r") + "pushg r\nisnull\nout\n" + Push("|") + "out\n" +
           "pushi 5\npopg r\n" + ShowGlobal("r")),
      "1||1||");
}

TEST_F(DatabaseInstructions, AFieldThatIsAReferenceKeepsItsTarget) {
  EXPECT_EQ(Page(OpenDatabase("a", "a.dbf") + "pushi 7\npopg g\npushg g\n" +
                 Op("pushd", {"a", "n"}) + "refer\n" + Show("a", "n") + Skip("a", 1) +
                 Show("a", "n") + Op("dbclose", {"a"}) + ShowGlobal("g")),
            "7|7|7|");
}

// --- The rest ------------------------------------------------------------------------------------

TEST_F(DatabaseInstructions, TransactionsSucceedAndDoNothing) {
  DatabaseMachine script(directory);
  script.Run(kOpenBoth + Op("dbtransaction", {"a"}) + SetField("a", "n", "9") +
             OnView("dbupdate", "a") + Op("dbrollback", {"a"}) + Go("a", 1) + Show("a", "n") +
             Op("dbcommit", {"a"}));
  EXPECT_EQ(script.Output(), "9|");
  // A success makes no error variable.
  for (const char* variable : {"ZpTRANSACT_Error", "ZpROLLBACK_Error", "ZpCOMMIT_Error"}) {
    EXPECT_EQ(script.Value(variable), "(none)") << variable;
  }
}

TEST_F(DatabaseInstructions, TheBuiltInEngineHasNoQueries) {
  const std::string not_supported = " is not currently supported for databases of type 'xbase3'";
  EXPECT_EQ(ErrorAfter(kOpenBoth + Op("dbopenview", {"a", "v", "q", ""}), "ZpOPENVIEW_Error"),
            "ZpOPENVIEW" + not_supported);
  EXPECT_EQ(ErrorAfter(kOpenBoth + Op("dbcloseview", {"a", "a"}), "ZpCLOSEVIEW_Error"),
            "ZpCLOSEVIEW" + not_supported);
  EXPECT_EQ(ErrorAfter(kOpenBoth + Op("dbquery", {"a", "q", ""}), "ZpQUERY_Error"),
            "ZpQUERY" + not_supported);
  EXPECT_EQ(ErrorAfter(kOpenBoth + Op("dbcommand", {"a", "c", "x"}), "ZpDBCOMMAND_Error"),
            "ZpDBCOMMAND" + not_supported);
  EXPECT_EQ(ErrorAfter(kOpenBoth + Op("dbopenview", {"a", "A", "q", ""}), "ZpOPENVIEW_Error"),
            "Database 'a' already has a view named 'A'");
}

TEST_F(DatabaseInstructions, BothFormsOfTheStructureReportUnderOneTag) {
  const std::string broken = Op("dbrevealstructuredb", {"a", "", "no/such/dir/s.dbf"});
  EXPECT_NE(ErrorAfter(kOpenBoth + broken, "ZpREVEALSTRUCTURE_Error"), "");
  EXPECT_EQ(
      ErrorAfter(kOpenBoth + broken + Push("a") + Push("") + "pushg s\n" + "dbrevealstructureagg\n",
                 "ZpREVEALSTRUCTURE_Error"),
      "");
  EXPECT_EQ(Page(kOpenBoth + Push("a") + Push("") + "pushg s\ndbrevealstructureagg\n" +
                 Push("s[2]:FIELD_NAME") + "pushn\nout\n"),
            "T");
}

TEST_F(DatabaseInstructions, PositionsMayBeWords) {
  EXPECT_EQ(Page(OpenDatabase("a", "a.dbf") + Push("a") + Push("") + Push("Bottom") + "dbgo\n" +
                 Show("a", "n") + Push("a") + Push("") + Push("TOP") + "dbgo\n" + Show("a", "n") +
                 Push("a") + Push("") + Push("2") + "dbgo\n" + Show("a", "n")),
            "3|1|2|");
}

// --- Code that runs within an operation ----------------------------------------------------------

TEST_F(DatabaseInstructions, AFilterCannotCloseItsDatabase) {
  for (const std::string& instruction :
       {Op("dbclose", {"a"}), Op("dbpack", {"a"}), Op("dbreindex", {"a"}),
        Op("dbsetindex", {"a", "", ""}), Op("dbfilter", {"a", "", ""})}) {
    SCOPED_TRACE(instruction);
    DatabaseMachine script(directory);
    script.Run(OpenDatabase("a", "a.dbf") + Op("dbfilter", {"a", "", "check()"}) + Skip("a", 1) +
               Show("a", "n") + "exit\n.function check()\n" + instruction + "pushi 1\nret\n.end\n");
    EXPECT_NE(script.Output(), "");
    std::string errors;
    for (const char* variable : {"ZpCLOSE_Error", "ZpPACK_Error", "ZpREINDEX_Error",
                                 "ZpSETINDEX_Error", "ZpFILTER_Error"}) {
      const std::string text = script.Value(variable);
      if (text != "(none)") errors += text;
    }
    EXPECT_EQ(errors, Database::kInUse);
  }
}

}  // namespace
