// Tables in memory, for tests of the classes that read and write them.

#ifndef ZEPH_TESTS_SUPPORT_TABLEFILES_H
#define ZEPH_TESTS_SUPPORT_TABLEFILES_H

#include <gtest/gtest.h>

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "base/core/LittleEndian.h"
#include "base/database/XBaseMemoField.h"
#include "base/database/XBaseTable.h"
#include "tests/support/FaultyFile.h"
#include "tests/support/TestApplication.h"

struct Column {
  const char* name;
  XBaseFieldType type;
  int length;
  int decimals;
};

// The list that XBaseTable::Create takes.
inline std::unique_ptr<List<XBaseField>> ColumnList(const std::vector<Column>& columns) {
  auto list = std::make_unique<List<XBaseField>>(1);
  for (const Column& c : columns) {
    XBaseField* field = c.type == XBaseField_Memo
                            ? new XBaseMemoField(nullptr, c.name, c.length, c.decimals)
                            : new XBaseField(nullptr, c.name, c.type, c.length, c.decimals);
    list->Insert(field, ListTail);
  }
  return list;
}

// One of each type.
inline const std::vector<Column>& AllTypes() {
  static const std::vector<Column> columns = {{"NAME", XBaseField_Character, 10, 0},
                                              {"AMOUNT", XBaseField_Numeric, 8, 2},
                                              {"DAY", XBaseField_Date, 8, 0},
                                              {"PAID", XBaseField_Logical, 1, 0},
                                              {"NOTE", XBaseField_Memo, 10, 0}};
  return columns;
}

constexpr int kOpenTable = FileMode_Read | FileMode_Write;

inline std::string ErrorOf(const XBaseTable& table) {
  const String& text = table.error();
  return text.data ? std::string(text.data, static_cast<size_t>(text.length)) : "";
}

// By position, counted from 0.
inline XBaseField* FieldOf(XBaseTable& table, int position) {
  XBaseField* field = table.fields().First();
  while (field && position-- > 0) field = table.fields().Next();
  return field;
}

inline void SetField(XBaseTable& table, int position, const std::string& value) {
  FieldOf(table, position)->Set(value.data(), static_cast<int>(value.size()));
}

inline std::string ValueOf(XBaseTable& table, int position) {
  const char* value = FieldOf(table, position)->data();
  return value ? value : "(null)";
}

inline std::vector<std::string> ValuesOf(XBaseTable& table) {
  std::vector<std::string> values;
  for (XBaseField* field = table.fields().First(); field; field = table.fields().Next())
    values.push_back(field->data() ? field->data() : "(null)");
  return values;
}

[[nodiscard]] inline bool AppendRow(XBaseTable& table, const std::vector<std::string>& values) {
  for (size_t i = 0; i < values.size(); i++) SetField(table, static_cast<int>(i), values[i]);
  return table.Append();
}

// The three bytes of today's date in a header. No test runs long enough to mind the change of the
// day.
inline std::string DateBytes() {
  const time_t now = time(nullptr);
  struct tm date = {};
  gmtime_r(&now, &date);
  return {static_cast<char>(date.tm_year), static_cast<char>(date.tm_mon + 1),
          static_cast<char>(date.tm_mday)};
}

// A header and its descriptors as another program might write them.
struct TableHeader {
  int version = 0x03;
  std::string date = DateBytes();
  unsigned record_count = 0;
  int header_length = -1;  // -1 means the size of the columns
  int record_length = -1;

  std::string Bytes(const std::vector<Column>& columns) const {
    int length = 1;
    for (const Column& c : columns) length += c.length;
    std::string bytes(1, static_cast<char>(version));
    bytes += date;
    LittleEndian::Append32(&bytes, static_cast<int32_t>(record_count));
    const int own = 33 + 32 * static_cast<int>(columns.size());
    LittleEndian::Append16(&bytes, static_cast<uint16_t>(header_length < 0 ? own : header_length));
    LittleEndian::Append16(&bytes,
                           static_cast<uint16_t>(record_length < 0 ? length : record_length));
    bytes += std::string(20, '\0');
    for (const Column& c : columns) {
      std::string name(c.name);
      name.resize(11);
      bytes += name + "CNDLM"[c.type] + std::string(4, '\0') + static_cast<char>(c.length) +
               static_cast<char>(c.decimals) + std::string(14, '\0');
    }
    return bytes + '\r';
  }
};

// A .dbt with nothing but its header.
inline std::string MemoHeader(int next_block) {
  std::string bytes;
  LittleEndian::Append32(&bytes, next_block);
  bytes.resize(512);
  return bytes;
}

// Tables "t.dbf" and "t.dbt" in memory.
class TableFiles : public ::testing::Test {
 protected:
  TableFiles() { application.SetFileManager(&files); }

  std::unique_ptr<XBaseTable> Make() { return std::make_unique<XBaseTable>(&application); }
  void Create(XBaseTable& table, const std::vector<Column>& columns) {
    auto list = ColumnList(columns);
    ASSERT_TRUE(table.Create(ZephPath_Data, "t.dbf", "", 0, *list)) << ErrorOf(table);
  }
  void Open(XBaseTable& table) {
    ASSERT_TRUE(table.Open(ZephPath_Data, "t.dbf", -1, kOpenTable)) << ErrorOf(table);
  }
  std::string& Table() { return files.files["t.dbf"]; }
  std::string& Memos() { return files.files["t.dbt"]; }

  TestApplication application;
  FaultyFileManager files;
};

#endif
