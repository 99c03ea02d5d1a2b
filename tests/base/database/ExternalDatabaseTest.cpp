// What an external database does without its library's help. With a library:
// tests/api/zpDatabaseTest.cpp.

#include "base/database/ExternalDatabase.h"

#include <gtest/gtest.h>

#include <climits>
#include <initializer_list>
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

// --- Versions ------------------------------------------------------------------------------------

// The texts that open and create were called with.
std::string texts;

int Note(std::initializer_list<const char*> all) {
  texts.clear();
  for (const char* text : all) texts += text;
  return 1;
}

template <class Function>
auto Older(Function* function) {
  return reinterpret_cast<void (*)()>(function);
}

// A library that says nothing of its version, or something senseless, gets what the oldest one
// gets.
TEST_F(ExternalDatabaseTest, VersionsBelowOneAreTheOldestOne) {
  int (*open)(ZPDATABASE, const char*, int, const char*, int, const char*, int) =
      [](ZPDATABASE, const char* path, int, const char* third, int, const char* fourth, int) {
        return Note({path, third, fourth});
      };
  int (*create)(ZPDATABASE, const char*, int, const char*,
                int) = [](ZPDATABASE, const char* path, int, const char* specification, int) {
    return Note({path, specification});
  };
  table.open = reinterpret_cast<decltype(table.open)>(Older(open));
  table.create = reinterpret_cast<decltype(table.create)>(Older(create));
  const auto unread = [](ZPDATABASE) {
    ADD_FAILURE();
    return 0;
  };
  table.commit = table.rollback = table.transaction = unread;
  table.command = [](ZPDATABASE, const char*, int, const char*, int) {
    ADD_FAILURE();
    return 0;
  };
  table.variable_type = [](ZPDATABASEVARIABLE) {
    ADD_FAILURE();
    return 2;
  };
  table.free_data = [](ZPDATABASE, void*) { ADD_FAILURE(); };
  for (const int version : {1, 0, -1, INT_MIN}) {
    SCOPED_TRACE(version);
    table.version = version;
    EXPECT_TRUE(Open());
    EXPECT_EQ(texts, "p34");
    EXPECT_TRUE(database->Create("p", 1, 0, nullptr, "n", 1, 0, nullptr, "s", 1, 0, nullptr));
    EXPECT_EQ(texts, "ps");
    EXPECT_TRUE(database->Commit());
    EXPECT_TRUE(database->Rollback());
    EXPECT_TRUE(database->Transaction());
    EXPECT_FALSE(database->Command("c", 1, 0, nullptr, "a", 1, 0, nullptr));
    EXPECT_EQ(Error(), "ZpDBCOMMAND is an unsupported operation");
    EXPECT_EQ(
        database->Add_View("v", -1, nullptr)->Add_Variable("f", -1, nullptr)->preferred_type(), 1);
    database->SetData(&table);
    database->SetData(nullptr);
  }
}

// What a later engine's library has more is not known here.
TEST_F(ExternalDatabaseTest, AVersionAboveTheLastIsTheLastOne) {
  static int calls;
  calls = 0;
  table.version = 7;
  table.open = [](ZPDATABASE, const char* path, int, const char* name, int, const char* third, int,
                  const char* fourth, int, const char* fifth, int) {
    return Note({path, name, third, fourth, fifth});
  };
  table.commit = table.rollback = table.transaction = [](ZPDATABASE) { return ++calls; };
  table.command = [](ZPDATABASE, const char*, int, const char*, int) { return ++calls; };
  table.free_data = [](ZPDATABASE, void*) { calls++; };
  EXPECT_TRUE(Open());
  EXPECT_EQ(texts, "pn345");
  EXPECT_TRUE(database->Commit());
  EXPECT_TRUE(database->Rollback());
  EXPECT_TRUE(database->Transaction());
  EXPECT_TRUE(database->Command("c", 1, 0, nullptr, "a", 1, 0, nullptr));
  database->SetData(&table);
  database.reset();
  EXPECT_EQ(calls, 5);
}

// --- The data word -------------------------------------------------------------------------------

TEST_F(ExternalDatabaseTest, TheOldDataWordIsThereUntilItIsFreed) {
  static std::string freed;
  freed.clear();
  table.free_data = [](ZPDATABASE handle, void* data) {
    EXPECT_EQ(handle->data(), data);
    freed += static_cast<const char*>(data);
  };
  database->SetData(const_cast<char*>("a"));
  database->SetData(const_cast<char*>("b"));
  database.reset();
  EXPECT_EQ(freed, "ab");
}

TEST_F(ExternalDatabaseTest, ADataWordThatIsSetAgainIsFreedAgain) {
  static int freed;
  freed = 0;
  table.free_data = [](ZPDATABASE, void*) { freed++; };
  database->SetData(&table);
  EXPECT_EQ(freed, 0);
  database->SetData(&table);
  EXPECT_EQ(freed, 1);
  EXPECT_EQ(database->data(), &table);
  database.reset();
  EXPECT_EQ(freed, 2);
}

TEST_F(ExternalDatabaseTest, AFreeDataThatSetsTheWordToNullIsCalledOnceForEach) {
  static std::string freed;
  freed.clear();
  table.free_data = [](ZPDATABASE handle, void* data) {
    freed += static_cast<const char*>(data);
    handle->SetData(nullptr);
  };
  database->SetData(const_cast<char*>("a"));
  database->SetData(const_cast<char*>("b"));
  EXPECT_STREQ(static_cast<const char*>(database->data()), "b");
  database.reset();
  EXPECT_EQ(freed, "ab");
}

// A word that free_data leaves is freed too, but a library cannot go on with that for ever.
TEST_F(ExternalDatabaseTest, AFreeDataThatSetsAnotherWordIsCalledAHundredTimes) {
  static int freed, words[2];
  freed = 0;
  table.free_data = [](ZPDATABASE handle, void* data) {
    freed++;
    handle->SetData(data == &words[0] ? &words[1] : &words[0]);
  };
  database->SetData(&words[0]);
  database->SetData(&words[1]);
  EXPECT_EQ(freed, 100);
  EXPECT_EQ(database->data(), &words[1]);
  freed = 0;
  database.reset();
  EXPECT_EQ(freed, 100);
}

// --- Views ---------------------------------------------------------------------------------------

TEST_F(ExternalDatabaseTest, AViewThatCannotBeClosedKeepsThoseAfterIt) {
  static std::string closed;
  closed.clear();
  table.close = [](ZPDATABASE) {
    closed += "close";
    return 1;
  };
  table.view_close = [](ZPDATABASEVIEW view) {
    closed += Text(view->name());
    return Text(view->name()) == "b" ? 0 : 1;
  };
  table.view_error = [](ZPDATABASEVIEW) -> const char* { return "it is in use"; };
  for (const char* name : {"a", "b", "c"}) database->Add_View(name, -1, nullptr);
  EXPECT_FALSE(database->Close());
  EXPECT_EQ(closed, "ab");
  EXPECT_EQ(Error(), "it is in use");
  EXPECT_EQ(database->FindView("a", -1), nullptr);
  ASSERT_NE(database->FindView("b", -1), nullptr);
  EXPECT_NE(database->FindView("c", -1), nullptr);
  EXPECT_EQ(database->PrimaryView(), database->FindView("b", -1));
}

// Fields without a view's name are those of the first view that has them.
TEST_F(ExternalDatabaseTest, ThePrimaryViewIsTheFirstOfTheViews) {
  static std::string closed;
  closed.clear();
  table.close = [](ZPDATABASE) { return 1; };
  table.view_close = [](ZPDATABASEVIEW view) {
    closed += Text(view->name());
    return 1;
  };
  ExternalDatabaseView* views[3];
  Variable* fields[3];
  for (int i = 0; i < 3; i++) {
    const char name[] = {static_cast<char>('a' + i), '\0'};
    views[i] = database->Add_View(name, -1, nullptr);
    fields[i] = views[i]->Add_Variable("f", -1, nullptr);
  }
  EXPECT_EQ(database->PrimaryView(), views[0]);
  EXPECT_EQ(database->Find("f", -1), fields[0]);
  database->SetPrimaryView(views[2]);
  EXPECT_EQ(database->PrimaryView(), views[2]);
  EXPECT_EQ(database->Find("f", -1), fields[2]);
  database->SetPrimaryView(views[1]);
  EXPECT_EQ(database->Find("f", -1), fields[1]);
  EXPECT_TRUE(database->Close());
  EXPECT_EQ(closed, "bca");
}

TEST_F(ExternalDatabaseTest, AViewThatIsAddedAfterTheLastWasClosedIsThePrimaryOne) {
  database->Add_View("a", -1, nullptr);
  EXPECT_TRUE(database->CloseView("a", 1, 0, nullptr));
  EXPECT_EQ(database->PrimaryView(), nullptr);
  DatabaseView* const added = database->Add_View("b", -1, nullptr);
  EXPECT_EQ(database->PrimaryView(), added);
  database->Add_View("c", -1, nullptr);
  EXPECT_EQ(database->PrimaryView(), added);
}

// --- What the library adds while it is taken away ------------------------------------------------

TEST_F(ExternalDatabaseTest, FieldsThatAreAddedWhileFieldsAreFreedAreFreedUpToAHundred) {
  static int freed, added;
  freed = added = 0;
  table.variable_free = [](ZPDATABASEVARIABLE variable) {
    freed++;
    for (int i = 0; i < 2; i++) {
      if (variable->view()->Add_Variable("again", -1, nullptr)) added++;
    }
  };
  ExternalDatabaseView* const view = database->Add_View("v", -1, nullptr);
  view->Add_Variable("f", -1, nullptr);
  view->Add_Variable("g", -1, nullptr);
  view->Clear();
  EXPECT_EQ(added, 100);
  EXPECT_EQ(freed, 102);
  EXPECT_EQ(view->FindField("again", -1), nullptr);
  EXPECT_NE(view->Add_Variable("h", -1, nullptr), nullptr);
  freed = added = 0;
  database.reset();
  EXPECT_EQ(added, 100);
  EXPECT_EQ(freed, 101);
}

TEST_F(ExternalDatabaseTest, ViewsThatAreAddedWhileViewsGoAreDeletedUpToAHundred) {
  static int freed, added;
  freed = added = 0;
  table.variable_free = [](ZPDATABASEVARIABLE variable) {
    freed++;
    ExternalDatabaseView* const view =
        variable->view()->external_database()->Add_View("again", -1, nullptr);
    if (!view) return;
    added++;
    view->Add_Variable("f", -1, nullptr);
  };
  database->Add_View("v", -1, nullptr)->Add_Variable("f", -1, nullptr);
  database.reset();
  EXPECT_EQ(added, 100);
  EXPECT_EQ(freed, 101);
}

// The destructor has deleted the views before it frees the word.
TEST_F(ExternalDatabaseTest, AViewThatFreeDataAddsIsDeletedWithItsFields) {
  static int freed;
  freed = 0;
  table.variable_free = [](ZPDATABASEVARIABLE variable) {
    EXPECT_EQ(variable->view()->external_database()->data(), nullptr);
    freed++;
  };
  table.free_data = [](ZPDATABASE handle, void*) {
    if (auto* const view = handle->Add_View("late", -1, nullptr)) {
      view->Add_Variable("f", -1, nullptr);
    }
  };
  database->SetData(&table);
  database.reset();
  EXPECT_EQ(freed, 1);
}

// A library may run code of the script, which may change it.
TEST(ExternalDatabaseMoves, MayDropTheDecodedFormOfTheScript) {
  static Segment* code;
  static int dropped;
  dropped = 0;
  _ZP_EL_Database table = {};
  table.version = 6;
  table.view_skip = [](ZPDATABASEVIEW, int) {
    if (code->hot()) {
      dropped++;
      code->Write_Byte(0, code->code()[0]);
    }
    return 1;
  };
  table.variable_get_integer = [](ZPDATABASEVARIABLE, int* value) {
    *value = 3;
    return 1;
  };
  Machine machine;
  machine.Assemble(
      "storegi i, 0\nstoregi sum, 0\n"
      "next: pushc \"shop\"\npushc \"\"\npushi 1\ndbskip\n"
      "pushg sum\npushdc \"shop\", \"n\"\nadd\npopg sum\n"
      "incg i, 1\ncmpgi i, 200\njmp_lt next\nexit\n");
  code = machine.segments.Start();
  auto database = std::make_unique<ExternalDatabase>(&machine.vm(), "shop", -1, 0, nullptr, &table);
  database->Add_View("shop", -1, nullptr)->Add_Variable("n", -1, nullptr);
  MachineDatabases& open = machine.vm().Databases();
  open.databases.Insert(database.get(), ListHead);
  open.databases_by_name.Insert(database.release());
  EXPECT_EQ(machine.Go(), 1) << machine.Error();
  EXPECT_EQ(machine.Value("sum"), "600");
  EXPECT_GT(dropped, 1);
  machine.Close();
}

}  // namespace
