// Tables and memo files of any bytes: every operation ends, reports why it failed and releases its
// locks, and a record that could be appended can be read back. The files are either the input
// itself, or a whole table that the input damages, which gets past the header far more often.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/core/LittleEndian.h"
#include "base/database/XBaseMemoField.h"
#include "base/database/XBaseTable.h"
#include "fuzz/Input.h"
#include "fuzz/Require.h"
#include "tests/support/FaultyFile.h"
#include "tests/support/TestApplication.h"

namespace {

struct Files {
  std::string table, memos;
};

Files WholeTable() {
  TestApplication application;
  FaultyFileManager files;
  application.SetFileManager(&files);
  {
    List<XBaseField> columns(1);
    columns.Insert(new XBaseField(nullptr, "NAME", XBaseField_Character, 10, 0), ListTail);
    columns.Insert(new XBaseField(nullptr, "AMOUNT", XBaseField_Numeric, 8, 2), ListTail);
    columns.Insert(new XBaseField(nullptr, "DAY", XBaseField_Date, 8, 0), ListTail);
    columns.Insert(new XBaseField(nullptr, "PAID", XBaseField_Logical, 1, 0), ListTail);
    columns.Insert(new XBaseMemoField(nullptr, "NOTE", 10, 0), ListTail);
    XBaseTable table(&application);
    Require(table.Create(ZephPath_Data, "t.dbf", "", 0, columns));
    for (int i = 0; i < 4; i++) {
      for (XBaseField* field = table.fields().First(); field; field = table.fields().Next())
        field->Set(std::string(static_cast<size_t>(1 + i * 300), '1').c_str(), -1);
      Require(table.Append());
    }
  }
  return {files.files["t.dbf"], files.files["t.dbt"]};
}

Files Damaged(Input* input) {
  static const Files whole = WholeTable();
  Files files = whole;
  const unsigned table_cut = input->Word(), memo_cut = input->Word();
  if (table_cut < files.table.size()) files.table.resize(table_cut);
  if (memo_cut < files.memos.size()) files.memos.resize(memo_cut);
  for (unsigned patches = input->Byte() % 16; patches > 0; patches--) {
    const unsigned place = input->Word();
    std::string& bytes = place & 0x8000 ? files.memos : files.table;
    const char value = static_cast<char>(input->Byte());
    if (!bytes.empty()) bytes[(place & 0x7FFF) % bytes.size()] = value;
  }
  return files;
}

Files Raw(Input* input) {
  Files files;
  files.table = input->Bytes(input->Word());
  files.memos = input->Bytes(input->Word());
  return files;
}

class Session {
 public:
  Session(Files content, Input* rest) : input(rest) {
    application.SetFileManager(&files);
    // A damaged header may hold offsets of gigabytes.
    files.size_limit = 1 << 18;
    files.files["t.dbf"] = std::move(content.table);
    files.files["t.dbt"] = std::move(content.memos);
  }

  void Run() {
    if (!Told(table.Open(ZephPath_Data, "t.dbf", -1, FileMode_Read | FileMode_Write))) return;
    while (input->size() > 0) {
      Step(input->Byte());
      Require(files.held.empty());
    }
  }

 private:
  bool Told(bool done) {
    Require(done || table.error().length > 0);
    return done;
  }

  void Step(unsigned operation) {
    switch (operation % 8) {
      case 0: Told(table.Goto(static_cast<int>(input->Byte()))); break;
      case 1: Told(table.Goto(table.record_count())); break;
      case 2: ReadAll(); break;
      case 3: SetOne(); break;
      case 4: Append(); break;
      case 5: Told(table.Update()); break;
      case 6: Told(table.UpdateDeleted(static_cast<int>(input->Byte()))); break;
      default: table.SwapOriginal(); break;
    }
  }

  void ReadAll() {
    for (XBaseField* field = table.fields().First(); field; field = table.fields().Next())
      if (const char* text = field->data(); Told(text != nullptr)) (void)strlen(text);
  }

  void SetOne() {
    unsigned skipped = input->Byte();
    const std::string text = input->Bytes(input->Word() % 1500);
    for (XBaseField* field = table.fields().First(); field; field = table.fields().Next())
      if (skipped-- == 0) field->Set(text.data(), static_cast<int>(text.size()));
  }

  void Append() {
    const int before = table.record_count();
    if (!Told(table.Append())) return;
    Require(table.record_number() == table.record_count() && table.record_count() > 0);
    Require(before >= 0 && table.Goto(table.record_number()));
    Require(!table.deleted());
  }

  TestApplication application;
  FaultyFileManager files;
  XBaseTable table{&application};
  Input* input;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(data, size);
  const bool raw = input.Byte() % 8 == 0;
  Files files = raw ? Raw(&input) : Damaged(&input);
  Session(std::move(files), &input).Run();
  return 0;
}
