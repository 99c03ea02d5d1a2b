// Opening and making databases and their indexes.

#include "base/database/XBaseDatabase.h"

#include "base/values/Aggregate.h"
#include "tests/support/TableFiles.h"
#include "tests/support/XBaseMachine.h"

namespace {

class XBaseDatabaseTest : public XBaseMachine {
 protected:
  // Records 1 to 5: "d", "b", "e", "a", "c", with numbers 10 to 50.
  void Fill() {
    ASSERT_TRUE(CreateTable("name char(10), n number(5)")) << Error();
    int n = 0;
    for (const char* name : {"d", "b", "e", "a", "c"})
      ASSERT_TRUE(Add({{"name", name}, {"n", std::to_string(n += 10)}})) << ViewError();
  }
};

// --- Tables --------------------------------------------------------------------------------------

TEST_F(XBaseDatabaseTest, CreatesATableFromASpecification) {
  ASSERT_TRUE(CreateTable("a char(10), b number(8.2), c date, d bool, e memo")) << Error();
  XBaseTable table(&machine.application);
  ASSERT_TRUE(table.Open(ZephPath_Data, "t.dbf", -1, kOpenTable));
  EXPECT_EQ(table.version(), 0x83);
  std::string shape;
  for (XBaseField* field = table.fields().First(); field; field = table.fields().Next())
    shape += std::string(field->name()) + std::to_string(field->length()) + "." +
             std::to_string(field->decimalcount()) + " ";
  EXPECT_EQ(shape, "A10.0 B11.2 C8.0 D1.0 E10.0 ");
  EXPECT_EQ(files.files["t.dbt"].size(), 513u);
}

TEST_F(XBaseDatabaseTest, AWrongSpecificationTouchesNoFile) {
  EXPECT_FALSE(CreateTable("a char"));
  EXPECT_EQ(Error(), "Error in field specification: CHAR datatypes require a length");
  EXPECT_EQ(database->PrimaryView(), nullptr);
  EXPECT_EQ(files.opens, 0);
}

TEST_F(XBaseDatabaseTest, HasTheErrorOfItsTable) {
  EXPECT_FALSE(OpenTable("none.dbf"));
  EXPECT_EQ(Error(), "Error opening 'none.dbf': No such file or directory");
  EXPECT_EQ(database->PrimaryView(), nullptr);
  files.fail_open = 1;
  EXPECT_FALSE(CreateTable("a date"));
  EXPECT_EQ(Error(), "Error creating 't.dbf': Injected failure");
  std::string wide = "f0 char(254)";
  for (int i = 1; i < 259; i++) wide += ", f" + std::to_string(i) + " char(254)";
  EXPECT_FALSE(CreateTable(wide));
  EXPECT_EQ(Error(), "Error creating 't.dbf': record too long, 65787 (maximum 65535)");
}

TEST_F(XBaseDatabaseTest, TheViewHasTheNameOfTheDatabase) {
  ASSERT_TRUE(CreateTable("a char(3)"));
  EXPECT_EQ(TextOf(view().name()), "people");
  EXPECT_EQ(database->FindView("PEOPLE", -1), &view());
  EXPECT_EQ(vm()->Databases().views_by_name.Find("people", -1), &view());
  database.reset();
  EXPECT_EQ(vm()->Databases().views_by_name.Find("people", -1), nullptr);
}

TEST_F(XBaseDatabaseTest, OpensAtTheFirstRecord) {
  Fill();
  ASSERT_TRUE(OpenTable());
  EXPECT_EQ(Place(), "1");
  EXPECT_EQ(Value("name"), "d");
  EXPECT_EQ(Value("totrec"), "5");
  EXPECT_EQ(Value("deleted"), "0");
}

TEST_F(XBaseDatabaseTest, AnEmptyTableOpensWithoutARecord) {
  ASSERT_TRUE(CreateTable("name char(10), n number(5)"));
  EXPECT_EQ(Place(), "0");
  EXPECT_EQ(Value("name"), "");
  EXPECT_EQ(Value("totrec"), "0");
}

TEST_F(XBaseDatabaseTest, OpeningAgainReplacesViewAndIndexes) {
  Fill();
  ASSERT_TRUE(CreateIndex("i.zix", "d.name"));
  Variable* held = Field("name");
  held->IncRefCount();
  ASSERT_TRUE(database->Open("t.dbf", -1, 0, nullptr, "people", -1, 0, nullptr, "", 0, 0, nullptr,
                             "", 0, 0, nullptr, "", 0, 0, nullptr));
  EXPECT_FALSE(Find("a"));
  EXPECT_EQ(ViewError(), "Database has no open indexes");
  EXPECT_EQ(held->IsNULL(), 1);
  held->DecRefCount();
}

TEST_F(XBaseDatabaseTest, AClosedDatabaseHasNoFiles) {
  Fill();
  ASSERT_TRUE(database->Close());
  EXPECT_EQ(files.open_now, 0);
  EXPECT_FALSE(Go(1));
  database = Make();
  EXPECT_TRUE(database->Close());
}

TEST_F(XBaseDatabaseTest, TheRecordsVariablesComeBeforeFieldsOfTheirNames) {
  ASSERT_TRUE(
      CreateTable("recno char(5), totrec char(5), deleted char(5), eof char(5), a char(3)"));
  ASSERT_TRUE(Add({{"a", "x"}}));
  EXPECT_EQ(Value("recno"), "1");
  EXPECT_EQ(Value("totrec"), "1");
  EXPECT_EQ(Value("deleted"), "0");
  EXPECT_EQ(Value("eof"), "0");
  EXPECT_EQ(Field("RECNO")->preferred_type(), PrimaryInteger);
}

TEST_F(XBaseDatabaseTest, TheRecordsVariablesComeFirstAmongManyFields) {
  std::string specification = "a0 char(1)";
  for (int i = 1; i < 100; i++) specification += ", a" + std::to_string(i) + " char(1)";
  ASSERT_TRUE(CreateTable(specification + ", eof char(5)"));
  ASSERT_TRUE(view().Add());
  EXPECT_EQ(Field("eof")->preferred_type(), PrimaryInteger);
  EXPECT_EQ(Value("a99"), "");
}

TEST_F(XBaseDatabaseTest, AFieldIsFoundUnderEverySpellingAgainAndAgain) {
  std::string specification = "a0 char(1)";
  for (int i = 1; i < 40; i++) specification += ", a" + std::to_string(i) + " char(1)";
  ASSERT_TRUE(CreateTable(specification));
  for (const char* when : {"at first", "again", "after a pack"}) {
    SCOPED_TRACE(when);
    for (int i = 0; i < 40; i++) {
      const std::string number = std::to_string(i);
      Variable* const field = Field(("a" + number).c_str());
      EXPECT_EQ(TextOf(field->name()), "A" + number);
      EXPECT_EQ(Field(("A" + number).c_str()), field);
      EXPECT_EQ(view().FindField(("a" + number + "x").c_str(), static_cast<int>(number.size()) + 1),
                field);
      EXPECT_EQ(view().FindField(("a" + number + "x").c_str(), -1), nullptr);
    }
    if (*when == 'a' && when[1] == 'g') {
      ASSERT_TRUE(database->Pack()) << Error();
    }
  }
  EXPECT_EQ(view().FindField("", 0), nullptr);
  EXPECT_EQ(view().FindField("a_name_that_is_longer_than_any_field", -1), nullptr);
}

TEST_F(XBaseDatabaseTest, ADateIsCheckedOnlyAfterAPackOrReindex) {
  ASSERT_TRUE(CreateTable("day date"));
  ASSERT_TRUE(Add({{"day", "20240229"}}));
  Set("day", "nonsense");
  EXPECT_EQ(Value("day"), "nonsense");
  ASSERT_TRUE(database->Pack()) << Error();
  Set("day", "nonsense");
  EXPECT_EQ(Value("day"), "20240229");
  ASSERT_TRUE(OpenTable());
  Set("day", "nonsense");
  EXPECT_EQ(Value("day"), "nonsense");
}

TEST_F(XBaseDatabaseTest, RefusesWhatItDoesNotHave) {
  Fill();
  EXPECT_FALSE(database->OpenView("v", -1, 0, nullptr, "q", -1, 0, nullptr, nullptr, 0));
  EXPECT_EQ(Error(), "ZpOPENVIEW is not currently supported for databases of type 'xbase3'");
  EXPECT_FALSE(database->CloseView("v", -1, 0, nullptr));
  EXPECT_EQ(Error(), "ZpCLOSEVIEW is not currently supported for databases of type 'xbase3'");
  EXPECT_FALSE(database->RunQuery("q", -1, 0, nullptr, nullptr, 0));
  EXPECT_EQ(Error(), "ZpQUERY is not currently supported for databases of type 'xbase3'");
  EXPECT_FALSE(database->Command("c", -1, 0, nullptr, "a", -1, 0, nullptr));
  EXPECT_EQ(Error(), "ZpDBCOMMAND is not currently supported for databases of type 'xbase3'");
  EXPECT_TRUE(database->Commit());
  EXPECT_TRUE(database->Rollback());
  EXPECT_TRUE(database->Transaction());
}

// --- Indexes -------------------------------------------------------------------------------------

TEST_F(XBaseDatabaseTest, AnIndexHasEveryRecordAndIsPrimary) {
  Fill();
  ASSERT_TRUE(Go(2));
  ASSERT_TRUE(view().Delete());
  ASSERT_TRUE(CreateIndex("i.zix", "d.name")) << Error();
  EXPECT_EQ(Pairs(Entries("i.zix")), "a:4 b:2 c:5 d:1 e:3");
  EXPECT_EQ(Place(), "4");
}

TEST_F(XBaseDatabaseTest, IndexFlagsAreAListOfWords) {
  Fill();
  const struct {
    const char* flags;
    unsigned bits;
  } cases[] = {{"", 0},
               {"ascending", 0},
               {"descending", 2},
               {" DESCENDING\t", 2},
               {"descending,ascending", 0},
               {"unique", 1},
               {"unique, nounique", 0},
               {"string", 4},
               {"range", 8},
               {"Unique,descending , String,RANGE", 15},
               {"other,unique,uniques", 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.flags);
    ASSERT_TRUE(CreateIndex("i.zix", "d.name", c.flags)) << Error();
    EXPECT_EQ(ZIXIndexChecker(files.files["i.zix"]).flags(), c.bits);
    ASSERT_TRUE(OpenIndexes(""));
  }
}

TEST_F(XBaseDatabaseTest, WrongFlagsTouchNoFile) {
  Fill();
  for (const char* flags : {"unique,", ",unique", "unique,,string", " ", "unique, "}) {
    SCOPED_TRACE(flags);
    EXPECT_FALSE(CreateIndex("i.zix", "d.name", flags));
    EXPECT_EQ(Error(), "Dangling comma in field\tspecification");
  }
  EXPECT_FALSE(CreateIndex("i.zix", std::string(401, ' ')));
  EXPECT_EQ(Error(), "Error creating 'i.zix': key expression is too long (maximum 400)");
  EXPECT_EQ(files.files.count("i.zix"), 0u);
}

// The file is that of the later one, and both write to it: a script has to close an index before it
// makes it again.
TEST_F(XBaseDatabaseTest, AnIndexOfANameThatIsOpenIsOpenTwice) {
  ASSERT_TRUE(CreateTable("a char(3), b char(3)"));
  ASSERT_TRUE(Add({{"a", "x"}, {"b", "u"}}));
  ASSERT_TRUE(CreateIndex("i.zix", "d.a"));
  ASSERT_TRUE(CreateIndex("i.zix", "d.b"));
  EXPECT_EQ(Pairs(Entries("i.zix")), "u:1");
  ASSERT_TRUE(Add({{"a", "y"}, {"b", "v"}}));
  EXPECT_EQ(Pairs(Entries("i.zix")), "u:1 v:2 y:2");
}

TEST_F(XBaseDatabaseTest, AnIndexThatCannotBeMadeIsNotOpen) {
  Fill();
  EXPECT_FALSE(CreateIndex("i.zix", "d.name +* 1"));
  EXPECT_EQ(Error(), "Argument expected in Expression");
  EXPECT_EQ(files.files.count("i.zix"), 1u);
  EXPECT_FALSE(CreateIndex("j.zix", "'same'", "unique"));
  EXPECT_NE(Error(), "");
  EXPECT_EQ(Entries("j.zix").size(), 1u);
  EXPECT_FALSE(Find("same"));
  EXPECT_EQ(ViewError(), "Database has no open indexes");
}

TEST_F(XBaseDatabaseTest, TheFirstIndexOfAListIsPrimary) {
  Fill();
  ASSERT_TRUE(CreateIndex("name.zix", "d.name"));
  ASSERT_TRUE(CreateIndex("n.zix", "0 - d.n"));
  ASSERT_TRUE(OpenIndexes(" \tname.zix\n, n.zix,name.zix ")) << Error();
  EXPECT_EQ(Place(), "4");
  ASSERT_TRUE(SetPrimary("n.zix")) << Error();
  EXPECT_EQ(Place(), "4");
  ASSERT_TRUE(Skip(1));
  EXPECT_EQ(Place(), "3");
  ASSERT_TRUE(SetPrimary("name.zix"));
  ASSERT_TRUE(Skip(1));
  EXPECT_EQ(Place(), "eof/3");
  ASSERT_TRUE(OpenIndexes("n.zix"));
  EXPECT_EQ(Place(), "5");
  ASSERT_TRUE(OpenIndexes("  "));
  EXPECT_EQ(Place(), "5");
  EXPECT_FALSE(Find("a"));
}

TEST_F(XBaseDatabaseTest, AFailedListLeavesTheIndexesBefore) {
  Fill();
  ASSERT_TRUE(CreateIndex("name.zix", "d.name"));
  ASSERT_TRUE(Go(1));
  EXPECT_FALSE(OpenIndexes("name.zix,none.zix,name.zix"));
  EXPECT_EQ(Error(), "Error opening 'none.zix': No such file or directory");
  EXPECT_EQ(Place(), "4");
  ASSERT_TRUE(Find("c"));
  EXPECT_EQ(Place(), "5");
  EXPECT_FALSE(SetPrimary("none.zix"));
  for (const char* list : {"name.zix,", "name.zix, ,none.zix"}) {
    EXPECT_FALSE(OpenIndexes(list));
    EXPECT_EQ(Error(), "Dangling comma in index list");
    EXPECT_TRUE(Find("c"));
  }
  EXPECT_FALSE(OpenIndexes(",name.zix"));
  EXPECT_EQ(Error(), "Dangling comma in index list");
  EXPECT_FALSE(Find("c"));
}

TEST_F(XBaseDatabaseTest, AMoveThatFailsAfterwardsReplacesTheError) {
  Fill();
  ASSERT_TRUE(CreateIndex("name.zix", "d.name"));
  ASSERT_TRUE(OpenIndexes(""));
  // The root's child, not the header: an end is no failure.
  files.files["name.zix"].resize(1024);
  EXPECT_FALSE(OpenIndexes("name.zix,none.zix"));
  EXPECT_EQ(Error(), ViewError());
  EXPECT_NE(Error().find("name.zix"), std::string::npos);
}

TEST_F(XBaseDatabaseTest, APrimaryIndexNeedsTheCurrentRecord) {
  Fill();
  ASSERT_TRUE(CreateIndex("name.zix", "d.name"));
  EXPECT_FALSE(SetPrimary("NAME.ZIX"));
  EXPECT_EQ(Error(), "Database has no index with that name");
  EXPECT_EQ(ViewError(), "Database has no index with that name");
  ASSERT_TRUE(Go(1));
  Set("name", "zzz");  // the key is computed from what the variables hold
  EXPECT_FALSE(SetPrimary("name.zix"));
  EXPECT_EQ(Error(), "Record is not in index");
  EXPECT_EQ(ViewError(), "Record is not in index");
}

TEST_F(XBaseDatabaseTest, EndsTheMachinesCountsOfAll) {
  const int before = vm()->Children();
  Fill();
  ASSERT_TRUE(CreateIndex("name.zix", "d.name"));
  ASSERT_TRUE(Filter("d.n GT 10"));
  EXPECT_EQ(vm()->Children(), before + 3);
  database->Release_VM();
  EXPECT_EQ(vm()->Children(), before);
  vm()->Databases().views_by_name.Remove("people", -1);
  database.reset();
  EXPECT_EQ(vm()->Children(), before);
}

// --- Structure -----------------------------------------------------------------------------------

TEST_F(XBaseDatabaseTest, TheStructureIsATable) {
  ASSERT_TRUE(CreateTable("a char(10), b number(8.2), c date, d bool, e memo"));
  ASSERT_TRUE(view().RevealStructure_Table("s.dbf", -1, 0, nullptr)) << ViewError();
  XBaseTable table(&machine.application);
  ASSERT_TRUE(table.Open(ZephPath_Data, "s.dbf", -1, kOpenTable));
  std::string shape;
  for (XBaseField* field = table.fields().First(); field; field = table.fields().Next())
    shape += std::string(field->name()) + "," + "CNDLM"[field->type()] + "," +
             std::to_string(field->length()) + "." + std::to_string(field->decimalcount()) + " ";
  EXPECT_EQ(shape, "FIELD_NAME,C,10.0 FIELD_TYPE,C,1.0 FIELD_LEN,N,4.0 FIELD_DEC,N,4.0 ");
  std::string rows;
  for (int record = 1; record <= table.record_count(); record++) {
    ASSERT_TRUE(table.Goto(record));
    for (const std::string& value : ValuesOf(table)) rows += value + " ";
  }
  EXPECT_EQ(rows, "A C 10 0 B N 11 2 C D 8 0 D L 1 0 E M 10 0 ");
  files.fail_write = 4;
  EXPECT_FALSE(view().RevealStructure_Table("s.dbf", -1, 0, nullptr));
  EXPECT_EQ(ViewError(), "Error writing to 's.dbf': Injected failure");
}

TEST_F(XBaseDatabaseTest, TheStructureIsAnAggregate) {
  ASSERT_TRUE(CreateTable("a char(10), b number(8.2)"));
  auto* variable = new Variable("v", 1);
  ASSERT_TRUE(view().RevealStructure_Aggregate(&variable));
  EXPECT_EQ(variable->Max(), 2);
  const auto member = [&](int n, const char* name) {
    return Machine::Text(
        *variable->Element(AggregateIndex(n), 1)->Element(AggregateIndex(name, -1), 1));
  };
  EXPECT_EQ(member(1, "FIELD_NAME") + member(1, "FIELD_TYPE") + member(1, "FIELD_LEN") +
                member(1, "FIELD_DEC"),
            "AC100");
  EXPECT_EQ(member(2, "FIELD_NAME") + member(2, "FIELD_TYPE") + member(2, "FIELD_LEN") +
                member(2, "FIELD_DEC"),
            "BN112");
  variable->DecRefCount();
}

}  // namespace
