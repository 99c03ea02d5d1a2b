// A machine with one database in memory, for tests of the engine: rows go in and come out as texts.

#ifndef ZEPH_TESTS_SUPPORT_XBASEMACHINE_H
#define ZEPH_TESTS_SUPPORT_XBASEMACHINE_H

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/database/XBaseDatabase.h"
#include "base/database/XBaseTable.h"
#include "tests/support/Machine.h"
#include "tests/support/RebuildFiles.h"
#include "tests/support/ZIXIndexChecker.h"

// A variable that runs code of the test when an expression reads it. It stands for a function of
// the script that uses the database. Its value is what the code returns.
class HookVariable : public Variable {
 public:
  explicit HookVariable(const char* name) : Variable(name, -1) {}
  int type() override { return VariableComputedText; }
  int IsTrue() override { return Run() != "0"; }
  double value_compare(int* not_numeric) override {
    *not_numeric = 0;
    return strtod(Run().c_str(), nullptr);
  }
  String& value() override {
    const std::string text = Run();
    result.assign(text.data(), static_cast<int>(text.size()));
    return result;
  }

  std::function<std::string()> code;

 private:
  std::string Run() { return code ? code() : ""; }
  String result;
};

class XBaseMachine : public testing::Test {
 protected:
  XBaseMachine() { machine.application.SetFileManager(&files); }

  ZephVM* vm() { return &machine.vm(); }
  std::unique_ptr<XBaseDatabase> Make(const char* name = "people") {
    return std::make_unique<XBaseDatabase>(vm(), name, -1, 0, nullptr);
  }
  bool CreateTable(const std::string& specification, const char* path = "t.dbf") {
    database = Make();
    return database->Create(path, -1, 0, nullptr, "people", -1, 0, nullptr, specification.data(),
                            static_cast<int>(specification.size()), 0, nullptr);
  }
  bool OpenTable(const char* path = "t.dbf") {
    database = Make();
    return database->Open(path, -1, 0, nullptr, "people", -1, 0, nullptr, "", 0, 0, nullptr, "", 0,
                          0, nullptr, "", 0, 0, nullptr);
  }
  bool OpenIndexes(const std::string& list) {
    return database->OpenIndexes(vm(), list.data(), static_cast<int>(list.size()), 0, nullptr);
  }
  bool CreateIndex(const char* path, const std::string& expression, const std::string& flags = "") {
    return database->CreateIndex(vm(), path, -1, 0, nullptr, expression.data(),
                                 static_cast<int>(expression.size()), 0, nullptr, flags.data(),
                                 static_cast<int>(flags.size()), 0, nullptr);
  }
  bool SetPrimary(const std::string& name) {
    return database->SetPrimaryIndex(name.data(), static_cast<int>(name.size()), 0, nullptr);
  }
  bool Filter(const std::string& expression) {
    return view().Filter(vm(), expression.data(), static_cast<int>(expression.size()), 0, nullptr);
  }

  // The moves as the instructions choose them.
  bool Skip(int count) {
    return view().IsFiltered() ? view().Skip_Filter(count) : view().Skip_NoFilter(count);
  }
  bool Go(long position) {
    return view().IsFiltered() ? view().Go_Filter(position) : view().Go_NoFilter(position);
  }
  bool Find(const std::string& key, int exact = 1) {
    const int length = static_cast<int>(key.size());
    return view().IsFiltered() ? view().Find_Filter(key.data(), length, 0, nullptr, exact)
                               : view().Find_NoFilter(key.data(), length, 0, nullptr, exact);
  }

  DatabaseView& view() { return *database->PrimaryView(); }
  Variable* Field(const char* name) {
    Variable* variable = view().FindField(name, -1);
    if (!variable) {
      ADD_FAILURE() << "no field " << name;
      abort();
    }
    return variable;
  }
  std::string Value(const char* name) { return Machine::Text(*Field(name)); }
  void Set(const char* name, const std::string& text) {
    Field(name)->SetValue(text.data(), static_cast<int>(text.size()));
  }
  using Row = std::vector<std::pair<const char*, std::string>>;
  bool Add(const Row& row) {
    for (const auto& [name, text] : row) Set(name, text);
    return view().Add();
  }
  int Record() { return Field("recno")->value_integer(); }
  bool AtEnd() { return Field("eof")->value_integer() != 0; }
  // "record" or "eof/record".
  std::string Place() { return (AtEnd() ? "eof/" : "") + std::to_string(Record()); }
  static std::string TextOf(const String& text) {
    return text.data ? std::string(text.data, static_cast<size_t>(text.length)) : "";
  }
  std::string Error() { return TextOf(database->error()); }
  std::string ViewError() { return TextOf(view().error()); }

  HookVariable* Hook(const char* name) {
    vm();
    auto* hook = new HookVariable(name);
    machine.global.SetVariable(hook);
    return hook;
  }
  // The entries of an index file, which has to be a valid tree.
  std::vector<ZIXIndexEntry> Entries(const std::string& path) {
    ZIXIndexChecker checker(files.files[path]);
    EXPECT_EQ(checker.Check(), "") << path;
    return checker.entries;
  }
  static std::string Pairs(const std::vector<ZIXIndexEntry>& entries) {
    std::string text;
    for (const auto& [key, record] : entries)
      text += (text.empty() ? "" : " ") + key + ":" + std::to_string(record);
    return text;
  }

  RebuildFiles files;
  Machine machine;
  std::unique_ptr<XBaseDatabase> database;  // goes before the machine
};

#endif
