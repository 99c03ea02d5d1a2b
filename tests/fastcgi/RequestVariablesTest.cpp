#include "fastcgi/RequestVariables.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "base/compiled/Dictionary.h"
#include "base/compiled/SystemVariableHash.h"
#include "base/request/SpecialVariable.h"
#include "base/values/VariableKinds.h"
#include "tests/support/TestApplication.h"

namespace {

// A table with the parameters of a request. The parameters may be freed before the table.
class RequestTable {
 public:
  explicit RequestTable(std::vector<std::string> parameters) : texts(std::move(parameters)) {
    for (std::string& text : texts) entries.push_back(text.data());
    entries.push_back(nullptr);
    table.SetLateVariables(new RequestVariables(
        entries.data(), std::unique_ptr<LateVariables>(NewSystemVariables(&application))));
  }

  // The text of a variable; "(none)" if there is none of that name.
  static std::string Value(SystemVariableHash* table, const char* name) {
    Variable* found = nullptr;
    if (!table->Find(&found, name, -1, 0) || !found) return "(none)";
    const String& text = found->value();
    return text.data ? std::string(text.data, static_cast<size_t>(text.length)) : "";
  }
  std::string Value(const char* name) { return Value(&table, name); }

  TestApplication application;
  Dictionary dictionary;
  std::vector<std::string> texts;
  std::vector<char*> entries;
  SystemVariableHash table{&dictionary, 12, 512};
};

TEST(RequestVariables, HaveTheNamesAndValuesThatTheServerSends) {
  RequestTable request({"SERVER_NAME=here", "A=b=c", "EMPTY=", "NOTHING", "Mixed=Case"});
  EXPECT_EQ(request.Value("SERVER_NAME"), "here");
  EXPECT_EQ(request.Value("server_name"), "here");
  EXPECT_EQ(request.Value("A"), "b=c");
  EXPECT_EQ(request.Value("EMPTY"), "");
  EXPECT_EQ(request.Value("NOTHING"), "");
  EXPECT_EQ(request.Value("mixed"), "Case");
  EXPECT_EQ(request.Value("SERVER"), "(none)");
  Variable* found = nullptr;
  ASSERT_TRUE(request.table.Find(&found, "MIXED", -1, 0));
  EXPECT_EQ(std::string(found->name().data), "Mixed");
  EXPECT_EQ(found->SetValue("other", 5), 1);
  EXPECT_EQ(request.Value("Mixed"), "Case");
}

TEST(RequestVariables, LeaveOutWhatAProcessInherits) {
  RequestTable request({"PATH=/bin", "Mail=x", "LOGNAME=y", "termcap=z", "PATHS=kept", "MAI=kept"});
  for (const char* name : {"PATH", "mail", "logname", "TERMCAP"}) {
    EXPECT_EQ(request.Value(name), "(none)") << name;
  }
  EXPECT_EQ(request.Value("PATHS"), "kept");
  EXPECT_EQ(request.Value("MAI"), "kept");
}

TEST(RequestVariables, ALaterOneAndASystemVariableStandInPlace) {
  RequestTable request({"X=1", "x=2", "zephversion=mine", "PROCESS_NAME=mine"});
  EXPECT_EQ(request.Value("X"), "2");
  EXPECT_EQ(request.Value("zephversion"), "5.29");
  EXPECT_NE(request.Value("process_name"), "mine");
}

TEST(RequestVariables, WhatTheHostKnowsComesBeforeAll) {
  RequestTable request({"arg1=sent", "other=sent"});
  auto* known = new RequestVariables(
      request.entries.data(),
      std::unique_ptr<LateVariables>(NewSystemVariables(&request.application)));
  known->AddText("arg1", "first");
  known->AddText("arg1", "second");
  known->AddText("empty", "");
  known->AddNumber("nargs", 2);
  known->AddNumber("zephversion", 7);
  request.table.SetLateVariables(known);
  EXPECT_EQ(request.Value("ARG1"), "second");
  EXPECT_EQ(request.Value("empty"), "");
  EXPECT_EQ(request.Value("nargs"), "2");
  EXPECT_EQ(request.Value("zephversion"), "7");
  EXPECT_EQ(request.Value("other"), "sent");
  Variable* found = nullptr;
  ASSERT_TRUE(request.table.Find(&found, "nargs", -1, 0));
  EXPECT_EQ(found->primary_type(), PrimaryInteger);
  ASSERT_TRUE(request.table.Find(&found, "empty", -1, 0));
  EXPECT_EQ(found->primary_type(), PrimaryText);
  Dictionary dictionary(request.dictionary);
  SystemVariableHash copy(&request.application, &dictionary, request.table);
  EXPECT_EQ(RequestTable::Value(&copy, "arg1"), "second");
  EXPECT_EQ(RequestTable::Value(&copy, "nargs"), "2");
}

TEST(RequestVariables, HaveAnyCountOfFacts) {
  RequestTable request({"X=1"});
  auto* known = new RequestVariables(
      request.entries.data(),
      std::unique_ptr<LateVariables>(NewSystemVariables(&request.application)));
  const int before = known->Count();
  const int facts = 100;
  for (int i = 1; i <= facts; i++) {
    known->AddText("arg" + std::to_string(i), String(std::to_string(i * i).c_str()));
  }
  EXPECT_EQ(known->Count(), before + facts);
  int length = 0;
  EXPECT_EQ(std::string(known->Name(before + 99, &length)), "arg100");
  EXPECT_EQ(length, 6);
  request.table.SetLateVariables(known);
  Dictionary dictionary(request.dictionary);
  SystemVariableHash copy(&request.application, &dictionary, request.table);
  for (int i = 1; i <= facts; i++) {
    const std::string name = "ARG" + std::to_string(i);
    EXPECT_EQ(request.Value(name.c_str()), std::to_string(i * i));
    EXPECT_EQ(RequestTable::Value(&copy, name.c_str()), std::to_string(i * i));
  }
  EXPECT_EQ(request.Value("arg101"), "(none)");
}

TEST(RequestVariables, AFactMayBeBorrowedOrMadeWhenItIsLookedUp) {
  RequestTable request({"X=1"});
  char text[] = "borrowed and more";
  int made = 0;
  auto* known = new RequestVariables(
      request.entries.data(),
      std::unique_ptr<LateVariables>(NewSystemVariables(&request.application)));
  known->AddBorrowed("whole", text, -1);
  known->AddBorrowed("part", text, 8);
  known->AddMade(
      "made",
      [](const void* maker) {
        int* const count = static_cast<int*>(const_cast<void*>(maker));
        return String(std::to_string(++*count).c_str());
      },
      &made);
  request.table.SetLateVariables(known);
  EXPECT_EQ(request.Value("X"), "1");
  EXPECT_EQ(made, 0);
  EXPECT_EQ(request.Value("whole"), "borrowed and more");
  EXPECT_EQ(request.Value("part"), "borrowed");
  EXPECT_EQ(request.Value("made"), "1");
  EXPECT_EQ(request.Value("made"), "1");
  // A copy owns the texts.
  Dictionary dictionary(request.dictionary);
  SystemVariableHash copy(&request.application, &dictionary, request.table);
  memset(text, '?', sizeof text - 1);
  EXPECT_EQ(RequestTable::Value(&copy, "part"), "borrowed");
  EXPECT_EQ(RequestTable::Value(&copy, "made"), "1");
  SystemVariableHash second(&request.application, &dictionary, copy);
  EXPECT_EQ(RequestTable::Value(&second, "whole"), "borrowed and more");
}

TEST(RequestVariables, AllAreListedOnce) {
  RequestTable request({"X=1", "x=2", "Y=3"});
  EXPECT_EQ(request.Value("Y"), "3");
  VariableList list;
  request.table.AllocatedVars(&list);
  int of_request = 0;
  for (Variable* v = list.First(); v; v = list.Next()) of_request += v->name().length == 1;
  EXPECT_EQ(of_request, 2);
  EXPECT_EQ(list.Entries(), request.table.Entries());
}

std::vector<std::string> Names(SystemVariableHash* table) {
  VariableList list;
  table->AllocatedVars(&list);
  std::vector<std::string> names;
  for (Variable* v = list.First(); v; v = list.Next()) names.emplace_back(v->name().data);
  return names;
}

// The order of the names: those of the file, the server's parameters as they came, the system
// variables, the facts of the host.
TEST(RequestVariables, AreListedInOneOrder) {
  TestApplication application;
  Dictionary of_system;
  SystemVariableHash system(&of_system, 12, 512);
  system.SetLateVariables(NewSystemVariables(&application));
  std::vector<std::string> expected = {"tm_mon", "z", "A", "nargs", "M"};
  for (const std::string& name : Names(&system)) {
    if (name != "tm_mon") expected.push_back(name);
  }
  expected.insert(expected.end(), {"arg1", "documenturl"});
  for (const char* first : {"", "nargs", "Z", "tm_mon", "nobody"}) {
    SCOPED_TRACE(first);
    RequestTable request({"Z=1", "A=2", "z=3", "TM_MON=4", "nargs=5", "M=6"});
    auto* known = new RequestVariables(
        request.entries.data(),
        std::unique_ptr<LateVariables>(NewSystemVariables(&request.application)));
    known->AddText("arg1", "first");
    known->AddNumber("nargs", 1);
    known->AddText("documenturl", "here");
    Dictionary dictionary;
    SystemVariableHash table(&dictionary, 12, 512);
    const int declared = table.Insert("declared", -1);
    const int month = table.Insert("Tm_Mon", -1);
    table.SetLateVariables(known);
    RequestTable::Value(&table, first);
    EXPECT_EQ(Names(&table), expected);
    EXPECT_EQ(RequestTable::Value(&table, "Z"), "3");
    EXPECT_EQ(RequestTable::Value(&table, "nargs"), "1");
    EXPECT_EQ(table.Index(declared, 0), nullptr);
    EXPECT_NE(table.Index(month, 0), nullptr);
    EXPECT_EQ(table.Seek(-1, "Z", -1, nullptr), 2);
    EXPECT_EQ(table.Seek(-1, "arg1", -1, nullptr), table.Entries() - 2);
  }
}

// Every plain name of a script is looked up here. The bound is a hundred times the time of these
// look-ups, and a fraction of the time that comparisons with all parameters would take.
TEST(RequestVariables, ANameThatIsNoneOfThemIsNotComparedWithAll) {
  std::vector<std::string> many;
  for (int i = 0; i < 30000; i++) many.push_back("HTTP_" + std::to_string(100000 + i) + "=x");
  RequestTable request(many);
  const clock_t begin = clock();
  for (int i = 0; i < 100000; i++) {
    const std::string name = "NONE_" + std::to_string(100000 + i);
    Variable* found = nullptr;
    ASSERT_FALSE(request.table.Find(&found, name.data(), static_cast<int>(name.size()), 0));
  }
  EXPECT_LT(clock() - begin, 2 * CLOCKS_PER_SEC);
  EXPECT_EQ(request.Value("HTTP_100000"), "x");
  EXPECT_EQ(request.Value("http_129999"), "x");
}

TEST(RequestVariables, ACopyOutlivesTheRequest) {
  TestApplication task;
  Dictionary dictionary;
  std::unique_ptr<SystemVariableHash> copy;
  {
    RequestTable request({"SERVER_NAME=here", "PATH=/bin"});
    copy = std::make_unique<SystemVariableHash>(&task, &dictionary, request.table);
    for (std::string& text : request.texts) text.assign(text.size(), '?');
  }
  EXPECT_EQ(RequestTable::Value(copy.get(), "server_name"), "here");
  EXPECT_EQ(RequestTable::Value(copy.get(), "PATH"), "(none)");
  EXPECT_EQ(RequestTable::Value(copy.get(), "zephversion"), "5.29");
}

}  // namespace
