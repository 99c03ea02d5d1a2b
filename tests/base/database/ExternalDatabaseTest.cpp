// What an external database does without its library's help. With a library:
// tests/api/zpDatabaseTest.cpp.

#include "base/database/ExternalDatabase.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "tests/support/LibraryFixture.h"
#include "tests/support/Machine.h"

namespace {

class ExternalDatabaseTest : public testing::Test {
 protected:
  ExternalDatabaseTest() {
    table.version = 6;
    database = std::make_unique<ExternalDatabase>(&machine.vm(), "shop", -1, 0, nullptr, &table);
  }
  ~ExternalDatabaseTest() override {
    database.reset();
    machine.Close();
  }
  bool Open() {
    return database->Open("p", 1, 0, nullptr, "n", 1, 0, nullptr, "3", 1, 0, nullptr, "4", 1, 0,
                          nullptr, "5", 1, 0, nullptr);
  }
  std::string Error() { return Text(database->error()); }

  Machine machine;
  _ZP_EL_Database table = {};
  std::unique_ptr<ExternalDatabase> database;
};

TEST_F(ExternalDatabaseTest, WhatTheLibraryDoesNotHaveFailsWithATextThatNamesTheTag) {
  const auto failed = [this](bool done) { return done ? "(done)" : Error(); };
  EXPECT_EQ(failed(database->Create("p", 1, 0, nullptr, "n", 1, 0, nullptr, "s", 1, 0, nullptr)),
            "ZpCREATE is an Unsupported Operation");
  EXPECT_EQ(failed(Open()), "ZpOPEN is an Unsupported Operation");
  EXPECT_EQ(failed(database->Close()), "ZpCLOSE is an Unsupported Operation");
  EXPECT_EQ(failed(database->OpenIndexes(&machine.vm(), "i", 1, 0, nullptr)),
            "ZpOPEN with INDEXES attribute is an Unsupported Operation");
  EXPECT_EQ(failed(database->SetPrimaryIndex("i", 1, 0, nullptr)),
            "ZpPRIMARY with INDEXES attribute is an Unsupported Operation");
  EXPECT_EQ(failed(database->CreateIndex(&machine.vm(), "p", 1, 0, nullptr, "e", 1, 0, nullptr, "",
                                         0, 0, nullptr)),
            "ZpMAKEINDEX is an Unsupported Operation");
  EXPECT_EQ(failed(database->Pack()), "ZpPACK is an Unsupported Operation");
  EXPECT_EQ(failed(database->Reindex()), "ZpREINDEX is an Unsupported Operation");
  VariableList variables;
  EXPECT_EQ(failed(database->OpenView("v", 1, 0, nullptr, "q", 1, 0, nullptr, &variables, 0)),
            "ZpOPENVIEW is an Unsupported Operation");
  EXPECT_EQ(failed(database->RunQuery("q", 1, 0, nullptr, &variables, 0)),
            "ZpRUNQUERY is an Unsupported Operation");
  EXPECT_EQ(failed(database->Command("c", 1, 0, nullptr, "a", 1, 0, nullptr)),
            "ZpDBCOMMAND is an unsupported operation");
  EXPECT_TRUE(database->Commit());
  EXPECT_TRUE(database->Rollback());
  EXPECT_TRUE(database->Transaction());
}

TEST_F(ExternalDatabaseTest, ViewsOfSuchALibraryFailInTheSameWay) {
  ExternalDatabaseView* view = database->Add_View("v", -1, nullptr);
  const auto failed = [view](bool done) { return done ? "(done)" : Text(view->error()); };
  EXPECT_EQ(failed(view->Skip_NoFilter(1)), "ZpSKIP is an Unsupported Operation");
  EXPECT_EQ(failed(view->Go_NoFilter(1)), "ZpGO is an Unsupported Operation");
  EXPECT_EQ(failed(view->Find_NoFilter("k", 1, 0, nullptr, 1)),
            "ZpFIND is an Unsupported Operation");
  EXPECT_EQ(failed(view->Add()), "ZpADD is an Unsupported Operation");
  EXPECT_EQ(failed(view->Delete()), "ZpDELETE is an Unsupported Operation");
  EXPECT_EQ(failed(view->UnDelete()), "ZpUNDELETE is an Unsupported Operation");
  EXPECT_EQ(failed(view->Update()), "ZpUPDATE is an Unsupported Operation");
  EXPECT_EQ(failed(view->Filter(&machine.vm(), "1", 1, 0, nullptr)),
            "ZpFILTER is an Unsupported Operation");
  EXPECT_EQ(failed(view->RevealStructure_Table("p", 1, 0, nullptr)),
            "ZpREVEALSTRUCTURE is an Unsupported Operation");
  Variable* variable = nullptr;
  EXPECT_EQ(failed(view->RevealStructure_Aggregate(&variable)),
            "ZpREVEALSTRUCTURE is an Unsupported Operation");
  EXPECT_TRUE(view->Close());
}

TEST_F(ExternalDatabaseTest, ALibraryWithOpenAndCloseCanDoThese) {
  table.open = [](ZPDATABASE handle, const char*, int, const char*, int, const char*, int,
                  const char*, int, const char*, int) {
    handle->Add_View("v", -1, nullptr);
    return 1;
  };
  table.close = [](ZPDATABASE) { return 1; };
  EXPECT_TRUE(Open());
  EXPECT_FALSE(database->PrimaryView()->Add());
  EXPECT_EQ(Text(database->PrimaryView()->error()), "ZpADD is an Unsupported Operation");
  EXPECT_TRUE(database->Transaction());
  EXPECT_TRUE(database->CloseView("V", 1, 0, nullptr));
  EXPECT_EQ(database->PrimaryView(), nullptr);
  EXPECT_TRUE(database->Close());
}

TEST_F(ExternalDatabaseTest, FiltersOfTheEngineAreUnsupported) {
  ExternalDatabaseView* view = database->Add_View("v", -1, nullptr);
  EXPECT_FALSE(view->IsFiltered());
  EXPECT_FALSE(view->Skip_Filter(1));
  EXPECT_EQ(Text(view->error()), "Database type 'external' does not support Filters");
  EXPECT_FALSE(view->Go_Filter(1));
  EXPECT_EQ(Text(view->error()), "Database type 'external' does not support Filters");
  EXPECT_FALSE(view->Find_Filter("k", 1, 0, nullptr, 1));
  EXPECT_EQ(Text(view->error()), "Database type 'external' does not support Indexes & Filters");
}

// A text from the stack ends without a NUL, and the library gets one.
TEST_F(ExternalDatabaseTest, TextsAreTerminatedAndStayTheCallers) {
  table.pack = [](ZPDATABASE) { return 0; };
  table.runquery = [](ZPDATABASE, const char* query, int length, ZPVARIABLELIST, int count) {
    EXPECT_STREQ(query, "query");
    EXPECT_EQ(length, 5);
    EXPECT_EQ(count, 7);
    return 1;
  };
  int deletable = 1;
  VariableList variables;
  EXPECT_TRUE(database->RunQuery("query and more", 5, 15, &deletable, &variables, 7));
  EXPECT_EQ(deletable, 1);
  // Without a function for it, an error has no text.
  database->Error("old");
  EXPECT_FALSE(database->Pack());
  EXPECT_EQ(Error(), "");
}

TEST_F(ExternalDatabaseTest, EachDataWordIsFreedOnceFromVersionSixOn) {
  static std::string freed;
  table.free_data = [](ZPDATABASE, void* data) { freed += static_cast<const char*>(data); };
  for (const int version : {6, 5}) {
    freed.clear();
    table.version = version;
    {
      ExternalDatabase other(&machine.vm(), "o", -1, 0, nullptr, &table);
      EXPECT_EQ(other.data(), nullptr);
      other.SetData(const_cast<char*>("a"));
      other.SetData(const_cast<char*>("b"));
      EXPECT_STREQ(static_cast<const char*>(other.data()), "b");
      other.SetData(nullptr);
      other.SetData(const_cast<char*>("c"));
    }
    EXPECT_EQ(freed, version == 6 ? "abc" : "");
  }
}

// Views that the library adds while it closes others do not keep the engine busy for ever.
TEST_F(ExternalDatabaseTest, ClosingEnds) {
  table.close = [](ZPDATABASE) { return 1; };
  table.view_close = [](ZPDATABASEVIEW view) {
    view->external_database()->Add_View("again", -1, nullptr);
    return 1;
  };
  database->Add_View("a", -1, nullptr);
  database->Add_View("b", -1, nullptr);
  EXPECT_TRUE(database->Close());
}

TEST_F(ExternalDatabaseTest, TheObjectsKnowOneAnotherAndTheirProgram) {
  int word = 0;
  ExternalDatabaseView* view = database->Add_View("view and more", 4, &word);
  EXPECT_EQ(Text(view->name()), "view");
  EXPECT_EQ(view->data(), &word);
  EXPECT_EQ(view->external_database(), database.get());
  EXPECT_EQ(view->program(), &machine.vm());
  EXPECT_EQ(database->program(), &machine.vm());
  ExternalDatabaseVariable* variable = view->Add_Variable("field and more", 5, &word);
  EXPECT_EQ(view->FindField("FIELD", -1), variable);
  EXPECT_EQ(variable->view(), view);
  EXPECT_EQ(variable->data(), &word);
  variable->SetData(nullptr);
  view->SetData(nullptr);
  EXPECT_EQ(variable->data(), nullptr);
  EXPECT_EQ(view->data(), nullptr);
  database->Release_VM();
  EXPECT_EQ(database->program(), nullptr);
}

}  // namespace
