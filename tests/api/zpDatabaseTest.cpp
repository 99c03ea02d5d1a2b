// Scripts on databases of a library, in each version of the table. The library is
// tests/support/libraries/MemoryDatabase.cpp.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "api/zeph.h"
#include "base/database/Database.h"
#include "base/database/ExternalDatabase.h"
#include "tests/support/DatabaseMachine.h"
#include "tests/support/LibraryFixture.h"
#include "tests/support/Machine.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

// Shows a field of the primary database.
std::string ShowField(const std::string& name) {
  return "pushnc \"d." + name + "\"\nout\n" + Push("|") + "out\n";
}

// A machine on which the library is the type "memory".
class Script {
 public:
  explicit Script(ExternalLibraryManager* libraries, const std::string& path) {
    machine.application.SetLibraryManager(libraries);
    machine.database_libraries.RegisterDSO("memory", path.c_str());
  }
  ~Script() { machine.Close(); }

  void Run(const std::string& code, int result = 1) {
    machine.Assemble(code);
    EXPECT_EQ(machine.Go(), result) << machine.Error();
    if (result) {
      EXPECT_EQ(machine.StackText(), "");
    }
  }

  Machine machine;
};

class MemoryLibrary : public LibraryFixture {
 protected:
  explicit MemoryLibrary(const std::string& name = "MemoryDatabase") : path(TestLibraryPath(name)) {
    Function<int()>("memory_database_reset")();
  }
  ~MemoryLibrary() override { EXPECT_EQ(Function<int()>("memory_database_reset")(), 0); }

  template <class Type>
  Type* Function(const char* name) {
    void* function = access.Lookup(path.c_str())->Get_Function(name);
    if (!function) abort();
    return reinterpret_cast<Type*>(function);
  }
  std::string Calls() { return Function<const char*()>("memory_database_calls")(); }
  void Fail(const char* function) { Function<void(const char*)>("memory_database_fail")(function); }
  void CallBack(const char* function, const char* script) {
    Function<void(const char*, const char*)>("memory_database_call_back")(function, script);
  }
  // What a script of its own writes.
  std::string Page(const std::string& code) {
    Script script(&libraries, path);
    script.Run(code);
    return script.machine.Output();
  }
  // The error variable that a script of its own leaves.
  std::string ErrorAfter(const std::string& code, const char* variable) {
    Script script(&libraries, path);
    script.Run(code);
    return script.machine.Value(variable);
  }

  std::string path;
};

// A database "m" with the records (1, 1.5, one), (2, 2.5, two) and (3, 3.5, three), open.
std::string Filled() {
  std::string code = CreateDatabase("m", "numbers", "n int x double t text", "memory");
  const char* const words[] = {"one", "two", "three"};
  for (int i = 1; i <= 3; i++) {
    code += Push(i) + "popnc \"d.n\"\n" + Push(i) + "pushf 0.5\nadd\npopnc \"d.x\"\n" +
            Push(words[i - 1]) + "popnc \"d.t\"\n" + OnView("dbadd", "m");
  }
  return code;
}
std::string Row() {
  return ShowField("n") + ShowField("x") + ShowField("t");
}

// --- Types ---------------------------------------------------------------------------------------

// A field may have no type, because nothing was stored in it. A copy is a value of its own, and
// always has one.
TEST_F(MemoryLibrary, ACopyOfAFieldThatWasNotReadHasAType) {
  Script script(&libraries, path);
  script.Run(Filled() + CreateDatabase("x", "x.dbf", "n number(5), t char(5)") +
             SetField("x", "n", "7") + SetField("x", "t", "seven") + OnView("dbadd", "x") +
             Push("m") + Push("") + Push(1) + "dbgo\n" + Push("x") + Push("") + Push(1) + "dbgo\n");
  const struct {
    const char* view;
    const char* field;
    int type;
    const char* text;
  } cases[] = {{"m", "n", 1, "1"}, {"m", "x", 2, "1.5"},   {"m", "t", 3, "one"},
               {"x", "n", 3, "7"}, {"x", "t", 3, "seven"}, {"x", "recno", 1, "1"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.view) + "." + c.field);
    // Each way to copy begins with a field that was not read.
    for (int way = 0; way < 4; way++) {
      SCOPED_TRACE(way);
      DatabaseView* const view = script.machine.vm().Databases().views_by_name.Find(c.view, 1);
      ASSERT_NE(view, nullptr);
      ASSERT_TRUE(view->Go_NoFilter(1));
      ZPVARIABLE field = view->FindField(c.field, -1);
      ASSERT_NE(field, nullptr);
      ZPVARIABLE copy = zpVariable_Allocate("copy", -1, nullptr, 0);
      if (way == 0) {
        zpVariable_Free(copy);
        copy = zpVariable_Allocate_Copy(field);
      } else if (way == 1) {
        zpVariable_SetValue_Variable(copy, field);
      } else if (way == 2) {
        zpVariable_SetValue_Variable(zpVariable_Array_Element(1, copy, 1), field);
      } else {
        ZPVARIABLE of_field = zpVariable_Allocate("reference", -1, nullptr, 0);
        ZPVARIABLE array = zpVariable_Allocate("array", -1, nullptr, 0);
        zpVariable_Make_Reference(of_field, field);
        zpVariable_Set_Array_Element(1, of_field, array);
        zpVariable_SetValue_Variable(copy, array);
        zpVariable_Free(array);
        zpVariable_Free(of_field);
      }
      ZPVARIABLE value = way < 2 ? copy : zpVariable_Array_Element(1, copy, 0);
      ASSERT_NE(value, nullptr);
      EXPECT_EQ(zpVariable_Type(value), c.type);
      EXPECT_STREQ(zpVariable_Value(value, nullptr), c.text);
      zpVariable_Free(copy);
    }
  }
}

// --- Versions ------------------------------------------------------------------------------------

class Versions : public MemoryLibrary, public testing::WithParamInterface<int> {
 protected:
  Versions()
      : MemoryLibrary(GetParam() == 6 ? "MemoryDatabase"
                                      : "MemoryDatabase" + std::to_string(GetParam())) {}
};

TEST_P(Versions, RecordsAreAddedMovedToAndChanged) {
  EXPECT_EQ(Page(Filled() + Go("m", -1) + Row() + Skip("m", 1) + Row() + Go("m", -2) + Row() +
                 Skip("m", -2) + Row() + Find("m", "2") + Row() + Push("deux") + "popnc \"d.t\"\n" +
                 OnView("dbupdate", "m") + Go("m", 1) + Go("m", 2) + Row() +
                 OnView("dbdelete", "m") + Row() + Go("m", 2) + Row()),
            "1|1.5|one|2|2.5|two|3|3.5|three|1|1.5|one|2|2.5|two|2|2.5|deux|3|3.5|three|"
            "3|3.5|three|");
}

TEST_P(Versions, OpenGetsTheTextsOfItsVersion) {
  Page(CreateDatabase("m", "numbers", "n int", "memory"));
  EXPECT_THAT(Calls(),
              StartsWith(GetParam() > 2 ? "create(numbers;m;n int) " : "create(numbers;n int) "));
  Page(Op("dbopen1", {"alias", "numbers", "", "memory", "third", "fourth", "fifth"}));
  EXPECT_THAT(Calls(), StartsWith(GetParam() > 2    ? "open(numbers;alias;third;fourth;fifth) "
                                  : GetParam() == 2 ? "open(numbers;third;fourth;fifth) "
                                                    : "open(numbers;third;fourth) "));
}

TEST_P(Versions, TransactionsAreCalledFromTheirVersionOn) {
  Script script(&libraries, path);
  script.Run(Filled());
  Calls();
  MachineDatabases& open = script.machine.vm().Databases();
  Database* database = open.databases.First();
  EXPECT_TRUE(database->Transaction());
  EXPECT_EQ(Calls(), GetParam() >= 5 ? "transaction " : "");
  EXPECT_TRUE(database->Commit());
  EXPECT_EQ(Calls(), GetParam() >= 2 ? "commit " : "");
  EXPECT_TRUE(database->Rollback());
  EXPECT_EQ(Calls(), GetParam() >= 2 ? "rollback " : "");
  EXPECT_EQ(database->Command("c", 1, 0, nullptr, "a", 1, 0, nullptr), GetParam() >= 5);
  EXPECT_EQ(Calls(), GetParam() >= 5 ? "command(c;a) " : "");
  if (GetParam() < 5) {
    EXPECT_EQ(Text(database->error()), "ZpDBCOMMAND is an unsupported operation");
  }
}

TEST_P(Versions, DatabasesLeftOpenAreClosedAndTheirDataFreed) {
  {
    Script script(&libraries, path);
    script.Run(Filled());
    Calls();
  }
  EXPECT_EQ(Calls(), GetParam() >= 6 ? "view_close close free_data " : "view_close close ");
}

TEST_P(Versions, TheLibrarySaysTheTypeOfAFieldFromVersionFour) {
  Script script(&libraries, path);
  script.Run(Filled());
  DatabaseView* view = script.machine.vm().Databases().databases.First()->PrimaryView();
  EXPECT_EQ(view->FindField("n", -1)->preferred_type(), GetParam() >= 4 ? 2 : 1);
  EXPECT_EQ(view->FindField("x", -1)->preferred_type(), GetParam() >= 4 ? 3 : 1);
  EXPECT_EQ(view->FindField("t", -1)->preferred_type(), 1);
  Fail("variable_type");
  EXPECT_EQ(view->FindField("n", -1)->preferred_type(), 1);
  Fail("");
}

INSTANTIATE_TEST_SUITE_P(AllOfThem, Versions, testing::Range(1, 7));

// --- Operations ----------------------------------------------------------------------------------

class zpDatabase : public MemoryLibrary {};

TEST_F(zpDatabase, TheTypeMayComeFromTheSetting) {
  Script script(&libraries, path);
  script.machine.Assemble(CreateDatabase("m", "numbers", "n int"));
  script.machine.system.SetVariable("zeph_defaultdatabase", -1, "Memory", -1);
  EXPECT_EQ(script.machine.Go(), 1);
  EXPECT_THAT(Calls(), StartsWith("create(numbers;m;n int)"));
}

TEST_F(zpDatabase, AnUnknownTypeIsAnErrorOfTheTag) {
  EXPECT_EQ(ErrorAfter(OpenDatabase("m", "numbers", "", "other"), "ZpOPEN_Error"),
            "Database type 'other' is unsupported or not configured");
}

TEST_F(zpDatabase, WhatCannotBeOpenedIsNotRegistered) {
  const std::string failed = OpenDatabase("m", "nowhere", "", "memory");
  EXPECT_EQ(ErrorAfter(failed, "ZpOPEN_Error"), "no table 'nowhere'");
  EXPECT_EQ(ErrorAfter(failed + Skip("m", 1), "ZpSKIP_Error"), "Database 'm' is not open");
  Calls();
  // Its data word is freed all the same.
  Page(failed);
  EXPECT_EQ(Calls(), "open(nowhere;m;;;) free_data ");
}

TEST_F(zpDatabase, IndexesThatCannotBeOpenedEndTheOpening) {
  Page(Filled());
  Fail("openindexes");
  Calls();
  EXPECT_EQ(ErrorAfter(OpenDatabase("m", "numbers", "a.zix, b.zix", "memory"), "ZpOPEN_Error"),
            "the database fails");
  EXPECT_EQ(Calls(), "open(numbers;m;;;) openindexes(a.zix, b.zix) free_data ");
}

TEST_F(zpDatabase, EachOperationReachesItsFunction) {
  const struct {
    std::string code;
    const char* call;
  } cases[] = {
      {Op("dbclose", {"m"}), "view_close close free_data "},
      {Skip("m", -1), "view_skip(-1) "},
      {Go("m", -2), "view_go(-2) "},
      {Find("m", "2", 0), "view_find(2;0) "},
      {OnView("dbadd", "m"), "view_add "},
      {OnView("dbupdate", "m"), "view_update "},
      {OnView("dbdelete", "m"), "view_delete "},
      {OnView("dbundelete", "m"), "view_undelete "},
      {Op("dbfilter", {"m", "", "1"}), "view_filter(1) "},
      {Op("dbprimary", {"m", "", "index"}), "setprimaryindex(index) "},
      {Op("dbsetindex", {"m", "", "a,b"}), "openindexes(a,b) "},
      {Op("dbmakeindex", {"m", "path", "d.n", "unique"}), "createindex(path;d.n;unique) "},
      {Op("dbpack", {"m"}), "pack "},
      {Op("dbreindex", {"m"}), "reindex "},
      {Op("dbrevealstructuredb", {"m", "", "s"}), "view_revealstructure_table(s) "},
      {Push("m") + Push("") + "pushg v\ndbrevealstructureagg\n", "view_revealstructure_aggregate "},
      {Op("dbopenview", {"m", "v", "n", "g.a,g.b"}), "openview(v;n;2) "},
      {Op("dbquery", {"m", "count", "g.a"}), "runquery(count) "},
      {Op("dbcommit", {"m"}), "commit "},
      {Op("dbrollback", {"m"}), "rollback "},
      {Op("dbtransaction", {"m"}), "transaction "},
      {Op("dbcommand", {"m", "do", "it"}), "command(do;it) "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.call);
    Page(Filled() + "pushg a\npop\npushg b\npop\npushg v\npop\n" +
         Op("dbquery", {"m", "forget", ""}) + c.code);
    EXPECT_THAT(Calls(), StartsWith(c.call));
  }
}

TEST_F(zpDatabase, EachFunctionThatFailsGivesItsTextToTheTag) {
  const struct {
    const char* function;
    std::string code;
    const char* variable;
    const char* text;
  } cases[] = {
      {"create", CreateDatabase("o", "p", "n int", "memory"), "ZpCREATE_Error",
       "the database fails"},
      {"open", OpenDatabase("o", "numbers", "", "memory"), "ZpOPEN_Error", "the database fails"},
      {"view_skip", Skip("m", 1), "ZpSKIP_Error", "the view fails"},
      {"view_go", Go("m", 1), "ZpGO_Error", "the view fails"},
      {"view_find", Find("m", "1"), "ZpFIND_Error", "the view fails"},
      {"view_add", OnView("dbadd", "m"), "ZpADD_Error", "the view fails"},
      {"view_update", OnView("dbupdate", "m"), "ZpUPDATE_Error", "the view fails"},
      {"view_delete", OnView("dbdelete", "m"), "ZpDELETE_Error", "the view fails"},
      {"view_undelete", OnView("dbundelete", "m"), "ZpUNDELETE_Error", "the view fails"},
      {"view_filter", Op("dbfilter", {"m", "", "1"}), "ZpFILTER_Error", "the view fails"},
      {"setprimaryindex", Op("dbprimary", {"m", "", "i"}), "ZpPRIMARY_Error", "the database fails"},
      {"openindexes", Op("dbsetindex", {"m", "", "i"}), "ZpSETINDEX_Error", "the database fails"},
      {"createindex", Op("dbmakeindex", {"m", "p", "n", ""}), "ZpMAKEINDEX_Error",
       "the database fails"},
      {"pack", Op("dbpack", {"m"}), "ZpPACK_Error", "the database fails"},
      {"reindex", Op("dbreindex", {"m"}), "ZpREINDEX_Error", "the database fails"},
      {"view_revealstructure_table", Op("dbrevealstructuredb", {"m", "", "s"}),
       "ZpREVEALSTRUCTURE_Error", "the view fails"},
      {"view_revealstructure_aggregate", Push("m") + Push("") + "pushg v\ndbrevealstructureagg\n",
       "ZpREVEALSTRUCTURE_Error", "the view fails"},
      {"openview", Op("dbopenview", {"m", "v", "n", ""}), "ZpOPENVIEW_Error", "the database fails"},
      {"runquery", Op("dbquery", {"m", "q", ""}), "ZpQUERY_Error", "the database fails"},
      {"view_close", Op("dbcloseview", {"m", "m"}), "ZpCLOSEVIEW_Error", "the view fails"},
      {"commit", Op("dbcommit", {"m"}), "ZpCOMMIT_Error", "the database fails"},
      {"rollback", Op("dbrollback", {"m"}), "ZpROLLBACK_Error", "the database fails"},
      {"transaction", Op("dbtransaction", {"m"}), "ZpTRANSACT_Error", "the database fails"},
      {"command", Op("dbcommand", {"m", "c", ""}), "ZpDBCOMMAND_Error", "the database fails"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.function);
    // Some of the tags end the script.
    Script script(&libraries, path);
    script.machine.Assemble(Filled() + "pushg v\npop\n" +
                            Op("dbquery", {"m", std::string("fail ") + c.function, ""}) + c.code);
    script.machine.Go();
    EXPECT_EQ(script.machine.Value(c.variable), c.text);
    script.machine.Close();
    Fail("");
  }
}

// What cannot be told is an empty text, not an old one.
TEST_F(zpDatabase, AFailureWithoutATextHasAnEmptyOne) {
  const std::string page =
      Page(Filled() + Op("dbopenview", {"m", "v", "none", ""}) +
           Op("dbquery", {"m", "fail error", ""}) + Op("dbopenview", {"m", "v", "none", ""}));
  EXPECT_THAT(page, HasSubstr("ZpOPENVIEW: no field 'none'\n"));
  EXPECT_THAT(page, HasSubstr("ZpOPENVIEW: \n"));
  EXPECT_THAT(Page(Filled() + Op("dbquery", {"m", "fail view_error", ""}) + Skip("m", 9)),
              HasSubstr("ZpSKIP: \n"));
}

// --- Views ---------------------------------------------------------------------------------------

TEST_F(zpDatabase, AViewHasTheRecordsOfItsQuery) {
  EXPECT_EQ(Page(Filled() + Push("two") + "popg wanted\n" +
                 Op("dbopenview", {"m", "twos", "t", "g.wanted"}) + Op("pushd", {"twos", "n"}) +
                 "out\n" + Op("dbcloseview", {"m", "twos"}) + Op("pushd", {"twos", "n"}) + "out\n" +
                 Go("m", 1) + Op("pushd", {"m", "n"}) + "out\n"),
            "21");
}

TEST_F(zpDatabase, AQueryReachesTheScriptsVariables) {
  EXPECT_EQ(
      Page(Filled() + "pushi 0\npopg c\n" + Op("dbquery", {"m", "count", "g.c"}) + ShowGlobal("c")),
      "3|");
}

TEST_F(zpDatabase, TheFirstViewIsThePrimaryOneAndTheNextTakesItsPlace) {
  EXPECT_EQ(Page(Filled() + Push("two") + "popg wanted\n" +
                 Op("dbopenview", {"m", "twos", "t", "g.wanted"}) + Go("m", 1) + ShowField("n") +
                 Op("dbcloseview", {"m", "m"}) + Go("m", 1) + ShowField("n")),
            "1|2|");
}

TEST_F(zpDatabase, AnotherViewCanBeMadeThePrimaryOne) {
  EXPECT_EQ(Page(Filled() + Push("two") + "popg wanted\n" +
                 Op("dbopenview", {"m", "twos", "t", "g.wanted"}) +
                 Op("dbprimary", {"m", "twos", ""}) + Go("m", 1) + ShowField("n")),
            "2|");
  Script script(&libraries, path);
  script.Run(Filled() + Op("dbopenview", {"m", "twos", "t", ""}));
  auto* database =
      static_cast<ExternalDatabase*>(script.machine.vm().Databases().databases.First());
  DatabaseView* second = database->FindView("twos", -1);
  ASSERT_NE(database->PrimaryView(), second);
  zpDatabase_SetPrimaryView(database, static_cast<ExternalDatabaseView*>(second));
  EXPECT_EQ(database->PrimaryView(), second);
}

TEST_F(zpDatabase, AViewThatIsNotThereIsNamedWithItsDatabase) {
  EXPECT_EQ(ErrorAfter(Filled() + Op("dbcloseview", {"m", "none"}), "ZpCLOSEVIEW_Error"),
            "Database 'm' has no view named 'none'");
}

TEST_F(zpDatabase, AViewThatCannotBeClosedIsGoneAllTheSame) {
  const std::string code = Filled() + Op("dbquery", {"m", "fail view_close", ""}) +
                           Op("dbcloseview", {"m", "m"}) + Op("dbquery", {"m", "fail", ""});
  EXPECT_EQ(ErrorAfter(code, "ZpCLOSEVIEW_Error"), "the view fails");
  EXPECT_EQ(ErrorAfter(code + Skip("m", 1), "ZpSKIP_Error"), "Database 'm' has no primary view");
}

// The object goes, with its data, but the library was not told to close.
TEST_F(zpDatabase, AViewThatCannotBeClosedEndsTheClosingOfItsDatabase) {
  Page(Filled() + Op("dbquery", {"m", "fail view_close", ""}) + Op("dbquery", {"m", "forget", ""}) +
       Op("dbclose", {"m"}));
  EXPECT_EQ(Calls(), "view_close free_data ");
}

TEST_F(zpDatabase, AFilterIsTheLibrarysAndItsMovesUseIt) {
  EXPECT_EQ(Page(Filled() + Op("dbfilter", {"m", "", "d.n MOD 2 EQ 1"}) + Go("m", -1) +
                 ShowField("t") + Skip("m", 1) + ShowField("t")),
            "one|three|");
  EXPECT_EQ(ErrorAfter(Filled() + Op("dbfilter", {"m", "", "+ 1"}), "ZpFILTER_Error"),
            "Argument expected in Expression");
}

TEST_F(zpDatabase, TheStructureBecomesAnArray) {
  EXPECT_EQ(Page(Filled() + Push("m") + Push("") + "pushg v\ndbrevealstructureagg\npushg v\nout\n"),
            "n,x,t");
}

TEST_F(zpDatabase, TransactionsAreTakenBack) {
  EXPECT_EQ(
      Page(Filled() + Op("dbtransaction", {"m"}) + Go("m", 1) + OnView("dbdelete", "m") +
           Go("m", 1) + ShowField("n") + Op("dbrollback", {"m"}) + Go("m", 1) + ShowField("n")),
      "2|1|");
}

// --- Fields --------------------------------------------------------------------------------------

TEST_F(zpDatabase, AFieldThatAScriptHoldsIsNullAfterAMoveAndAfterTheEnd) {
  EXPECT_EQ(Page(Filled() + Go("m", 1) + "pushnc \"d.t\"\npushg held\nrefer\n" +
                 ShowGlobal("held") + Go("m", 2) + ShowGlobal("held") + Push("new") +
                 "popg held\n" + ShowGlobal("held") + Op("dbclose", {"m"}) + ShowGlobal("held")),
            "one||||");
}

TEST_F(zpDatabase, AnArrayInAFieldIsStoredAsItsText) {
  EXPECT_EQ(Page(Filled() + Go("m", 1) +
                 "pushc \"b\"\npushnc \"d.t\"\npushi 2\nelem\nstore\n"
                 "pushc \"a\"\npushnc \"d.t\"\npushi 1\nelem\nstore\n" +
                 OnView("dbupdate", "m") + Go("m", 1) + ShowField("t")),
            "a,b|");
}

TEST_F(zpDatabase, AValueThatIsRefusedFailsTheUpdate) {
  EXPECT_EQ(ErrorAfter(Filled() + Go("m", 1) + "pushi 5\npopnc \"d.n\"\n" +
                           Op("dbquery", {"m", "fail set_integer", ""}) + OnView("dbupdate", "m"),
                       "ZpUPDATE_Error"),
            "the view fails");
}

// --- The script that the library calls -----------------------------------------------------------

// Each function, and what a script function then tries with the database that the library works on.
class Callbacks : public MemoryLibrary,
                  public testing::WithParamInterface<std::pair<const char*, std::string>> {};

TEST_P(Callbacks, CannotTakeTheDatabaseAway) {
  const auto& [function, use] = GetParam();
  const std::string tries[] = {
      Op("dbclose", {"m"}),
      Op("dbcloseview", {"m", "m"}),
      Skip("m", 1),
      Go("m", 1),
      OnView("dbupdate", "m"),
      OnView("dbdelete", "m"),
      Op("dbfilter", {"m", "", "1"}),
      Op("dbopenview", {"m", "w", "n", ""}),
      Op("dbquery", {"m", "x", ""}),
      Op("dbsetindex", {"m", "", "x"}),
  };
  std::string all;
  for (const std::string& one : tries) all += one;
  Script script(&libraries, path);
  script.Run(Filled() + Go("m", 1) + "pushnc \"d.t\"\npushg held\nrefer\npushg v\npop\n" +
             Op("dbquery", {"m", std::string("call ") + function + " back", ""}) + use +
             "pushg held\npop\nexit\n.function back()\n" + all +
             "pushnc \"d.n\"\npop\npushc \"new\"\npopnc \"d.t\"\npushc \"called\"\nout\n"
             "pushc \"\"\nret\n.end\n");
  EXPECT_THAT(script.machine.Output(), HasSubstr("called"));
  EXPECT_THAT(script.machine.Output(), HasSubstr("ZpSKIP: "));
  script.machine.Close();
}

const std::pair<const char*, std::string> kUses[] = {
    {"close", Op("dbclose", {"m"})},
    {"view_close", Op("dbclose", {"m"})},
    {"view_close", Op("dbcloseview", {"m", "m"})},
    {"view_skip", Skip("m", 1)},
    {"view_go", Go("m", 2)},
    {"view_find", Find("m", "2")},
    {"view_add", OnView("dbadd", "m")},
    {"view_update", OnView("dbupdate", "m")},
    {"view_delete", OnView("dbdelete", "m")},
    {"view_undelete", OnView("dbundelete", "m")},
    {"view_filter", Op("dbfilter", {"m", "", "1"})},
    {"openview", Op("dbopenview", {"m", "v", "n", ""})},
    {"runquery", Op("dbquery", {"m", "q", ""})},
    {"pack", Op("dbpack", {"m"})},
    {"command", Op("dbcommand", {"m", "c", ""})},
    {"commit", Op("dbcommit", {"m"})},
    {"set_string", Push("x") + "popnc \"d.t\"\n" + OnView("dbupdate", "m")},
    {"set_integer", Push(5) + "popnc \"d.n\"\n" + OnView("dbupdate", "m")},
    {"variable_free", Skip("m", 1)},
    {"variable_free", Op("dbcloseview", {"m", "m"})},
    {"free_data", Op("dbclose", {"m"})},
    {"setprimaryindex", Op("dbprimary", {"m", "", "i"})},
    {"openindexes", Op("dbsetindex", {"m", "", "i"})},
    {"createindex", Op("dbmakeindex", {"m", "p", "n", ""})},
    {"reindex", Op("dbreindex", {"m"})},
    {"rollback", Op("dbrollback", {"m"})},
    {"transaction", Op("dbtransaction", {"m"})},
    {"set_double", "pushf 5.5\npopnc \"d.x\"\n" + OnView("dbupdate", "m")},
    {"view_revealstructure_table", Op("dbrevealstructuredb", {"m", "", "s"})},
    {"view_revealstructure_aggregate",
     Push("m") + Push("") + "pushg v\ndbrevealstructureagg\npushg v\npop\n"},
    {"error", Op("dbopenview", {"m", "v", "none", ""})},
    {"view_error", Skip("m", 9)},
};
INSTANTIATE_TEST_SUITE_P(Functions, Callbacks, testing::ValuesIn(kUses));

// A read, and a script function that takes away what the reader works on: the text of the field
// that the other one is compared with, or joined to.
class Reads : public MemoryLibrary,
              public testing::WithParamInterface<std::pair<const char*, std::string>> {};

TEST_P(Reads, RunNoScript) {
  const auto& [function, use] = GetParam();
  Script script(&libraries, path);
  script.machine.Assemble(Filled() + Go("m", 1) + "pushg other\npop\npushg held\npop\n" +
                          "pushnc \"d.t\"\npushg held\nrefer\n" +
                          Op("dbquery", {"m", std::string("call ") + function + " back", ""}) +
                          use + "pushc \"past\"\nout\nexit\n.function back()\n" +
                          Push(std::string(500, 'x')) +
                          "popnc \"d.t\"\npushg other\npushnc \"d.t\"\nrefer\n" + Go("m", 2) +
                          Op("dbclose", {"m"}) + "pushc \"called\"\nout\npushc \"\"\nret\n.end\n");
  EXPECT_EQ(script.machine.Go(), 0);
  EXPECT_EQ(script.machine.Failure(), "Script code cannot run while a field of a database is read");
  EXPECT_THAT(script.machine.Output(), testing::Not(HasSubstr("called")));
  EXPECT_THAT(script.machine.Output(), testing::Not(HasSubstr("past")));
  script.machine.Close();
}

const std::pair<const char*, std::string> kReads[] = {
    {"get_integer", ShowField("n")},
    {"get_double", ShowField("x")},
    {"get_string", ShowField("t")},
    {"get_string", "pushnc \"d.t\"\npushnc \"d.x\"\ncmp\npop\n"},
    {"get_double", "pushnc \"d.t\"\npushnc \"d.x\"\ncmp\npop\n"},
    {"get_double", "pushnc \"d.t\"\npushnc \"d.x\"\ncat\npop\n"},
    {"get_double", "pushg held\npushnc \"d.x\"\ncat\npop\n"},
    {"get_integer", "pushnc \"d.n\"\npushnc \"d.x\"\nstore\n"},
    {"variable_type", "pushnc \"d.n\"\npushnc \"d.x\"\nstore\n"},
};
INSTANTIATE_TEST_SUITE_P(Functions, Reads, testing::ValuesIn(kReads));

TEST_F(zpDatabase, ALibraryMayCallTheScriptAtTheMachinesEnd) {
  for (const char* function : {"view_close", "close", "variable_free", "free_data"}) {
    SCOPED_TRACE(function);
    Script script(&libraries, path);
    script.Run(Filled() + "pushi 0\npopg times\n" +
               Op("dbquery", {"m", std::string("call ") + function + " back", ""}) +
               "jmp past\n.function back()\npushg times\npushi 1\nadd\npopg times\n" +
               Op("dbclose", {"m"}) + CreateDatabase("other", "o", "n int", "memory") +
               "pushc \"\"\nret\n.end\npast:\npushg times\npop\n");
    script.machine.Close();
    EXPECT_EQ(script.machine.Value("times"), "1");
    Calls();
  }
}

// The second of two that open the same name in one another is not registered.
TEST_F(zpDatabase, AScriptCalledByOpenMayOpenTheSameName) {
  Page(Filled());
  CallBack("open", "back");
  const std::string page =
      Page(OpenDatabase("m", "numbers", "", "memory") + Go("m", 1) + ShowField("n") +
           Op("dbclose", {"m"}) + Skip("m", 1) + "exit\n.function back()\n" +
           OpenDatabase("m", "numbers", "", "memory") + "pushc \"\"\nret\n.end\n");
  EXPECT_THAT(page, HasSubstr("A database with the name 'm' is already open"));
  EXPECT_THAT(page, HasSubstr("1|"));
  EXPECT_THAT(page, HasSubstr("Database 'm' is not open"));
}

}  // namespace
