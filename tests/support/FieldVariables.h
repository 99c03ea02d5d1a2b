// Variables of the fields of real tables, for tests.

#ifndef ZEPH_TESTS_SUPPORT_FIELDVARIABLES_H
#define ZEPH_TESTS_SUPPORT_FIELDVARIABLES_H

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "base/database/XBaseVariable.h"
#include "base/values/VariableRef.h"
#include "tests/support/TableOnDisk.h"

// A class of variables with its state in the open.
template <typename Kind>
class Opened : public Kind {
 public:
  using Kind::changed;
  using Kind::Kind;
  using Kind::primary;
  unsigned forms() const { return this->valid_forms(); }
};

constexpr unsigned kText = Variable::TextForm;
constexpr unsigned kInteger = Variable::IntegerForm;
constexpr unsigned kDouble = Variable::DoubleForm;

inline std::string TextOf(const String& text) {
  return text.data ? std::string(text.data, static_cast<size_t>(text.length)) : "";
}
inline std::string ValueOf(Variable* variable) {
  return TextOf(variable->value());
}
inline int Store(Variable* variable, const std::string& text) {
  return variable->SetValue(text.data(), static_cast<int>(text.size()));
}
// SetValue_Nocopy with a buffer that has just the room.
inline int Adopt(Variable* variable, const std::string& text) {
  auto* buffer = new char[text.size() + 1];
  memcpy(buffer, text.c_str(), text.size() + 1);
  const auto length = static_cast<int>(text.size());
  return variable->SetValue_Nocopy(buffer, length, length + 1);
}
// SetValue with a variable that holds the text, or the number.
inline int StoreVariable(Variable* variable, const std::string& text) {
  Variable source("source", -1, text.data(), static_cast<int>(text.size()));
  return variable->SetValue(source);
}
template <typename Number>
int StoreVariable(Variable* variable, Number number) {
  Variable source("source", -1, number);
  return variable->SetValue(source);
}

// Tables on disk, with variables of their fields that live as long as the test.
class FieldVariables : public ::testing::Test {
 protected:
  // A new table with these columns and one record with these values, which is the current one.
  XBaseTable& MakeTable(const std::vector<Column>& columns, const std::vector<std::string>& row) {
    tables.push_back(std::make_unique<TableOnDisk>(directory));
    XBaseTable& table = tables.back()->table;
    last_path = "t" + std::to_string(tables.size()) + ".dbf";
    auto list = ColumnList(columns);
    EXPECT_TRUE(table.Create(ZephPath_Data, last_path.c_str(), "", 0, *list)) << ErrorOf(table);
    EXPECT_TRUE(AppendRow(table, row)) << ErrorOf(table);
    EXPECT_TRUE(table.Goto(1)) << ErrorOf(table);
    return table;
  }
  template <typename Kind, typename Argument>
  Opened<Kind>* Make(Argument* argument) {
    auto* variable = new Opened<Kind>(argument);
    variables.emplace_back(variable);
    return variable;
  }
  // The variable of the only field of a new table.
  template <typename Kind>
  Opened<Kind>* Field(XBaseFieldType type, int length, int decimals, const std::string& value) {
    return Make<Kind>(FieldOf(MakeTable({{"F", type, length, decimals}}, {value}), 0));
  }
  // What the field of the last table holds.
  std::string Held() { return ::ValueOf(tables.back()->table, 0); }
  XBaseTable& table() { return tables.back()->table; }

  TemporaryDirectory directory;
  std::vector<std::unique_ptr<TableOnDisk>> tables;
  std::vector<VariableRef> variables;
  std::string last_path;
};

#endif
