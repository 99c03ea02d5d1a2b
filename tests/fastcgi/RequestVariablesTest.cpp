#include "fastcgi/RequestVariables.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/Dictionary.h"
#include "base/SpecialVariable.h"
#include "tests/support/TestApplication.h"

namespace {

// A table with the parameters of a request, which may go before the table does.
class RequestTable {
 public:
  explicit RequestTable(std::vector<std::string> parameters) : texts(std::move(parameters)) {
    for (std::string& text : texts) entries.push_back(text.data());
    entries.push_back(nullptr);
    table.SetLateVariables(new RequestVariables(entries.data(), NewSystemVariables(&application)));
  }

  // The text of a variable, "(none)" for a name that is not there.
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
  auto* known =
      new RequestVariables(request.entries.data(), NewSystemVariables(&request.application));
  known->AddText("arg1", -1, "first", -1);
  known->AddText("arg1", -1, "second", 6);
  known->AddText("empty", 5, "", 0);
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
  Dictionary dictionary;
  SystemVariableHash copy(&request.application, &dictionary, request.table);
  EXPECT_EQ(RequestTable::Value(&copy, "arg1"), "second");
  EXPECT_EQ(RequestTable::Value(&copy, "nargs"), "2");
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
