// A view's variables, its filter, and changes of records with their indexes. The moves are in
// XBaseDatabaseView_Moves.cpp. Tested in tests/base/database/XBaseDatabaseTest.cpp,
// XBaseChangesTest.cpp and XBaseEvaluationTest.cpp.

#include "base/database/XBaseDatabaseView.h"

#include <cstdio>
#include <memory>
#include <utility>

#include "base/database/XBaseTable.h"
#include "base/database/XBaseVariable.h"
#include "base/machine/ExpressionCompiler.h"
#include "base/machine/ZephVM.h"
#include "base/values/Aggregate.h"

namespace {

constexpr size_t kRecordVariables = 4;
constexpr char kTypeLetters[] = "CNDLM";  // the index is an XBaseFieldType

// What a description of a table says of one field.
struct FieldText {
  explicit FieldText(XBaseField* field) : name(field->name()), type{kTypeLetters[field->type()]} {
    snprintf(length, sizeof(length), "%d", field->length());
    snprintf(decimals, sizeof(decimals), "%d", field->decimalcount());
  }
  const char* name;
  char type[2];
  char length[12];
  char decimals[12];
};

}  // namespace

XBaseDatabaseView::XBaseDatabaseView(ZephVM* vm, Database* database, const String& name,
                                     XBaseTable* table, XBaseIndexList& indexes)
    : DatabaseView(vm, database, name.data, name.length), table(table), indexes(indexes) {
  Init();
}

bool XBaseDatabaseView::Fail(const String& text) {
  Error(text);
  return false;
}

// --- Variables -----------------------------------------------------------------------------------

// A table without records leaves the fields empty.
void XBaseDatabaseView::Init() {
  (void)table->Goto(1);
  SetupCurrentRecord(std::make_unique<Record>(*table, false));
}

void XBaseDatabaseView::SetupCurrentRecord(XBaseTable& of_table) {
  (void)of_table.Goto(1);
  SetupCurrentRecord(std::make_unique<Record>(of_table, true));
}

// The old variables go with the record that held the new ones.
void XBaseDatabaseView::SetupCurrentRecord(std::unique_ptr<Record> record) noexcept {
  fields.Swap(record->by_name);
  variables.swap(record->all);
  totrec = record->totrec;
  recno = record->recno;
  deleted = record->deleted;
  eof = record->eof;
}

// A field that has the name of one of the first four is not found by its name, because the table of
// names finds the earliest one.
XBaseDatabaseView::Record::Record(XBaseTable& table, bool check_dates) {
  Add(totrec = new XBaseTotalRecordsVariable(&table));
  Add(recno = new XBaseRecordNumberVariable(&table));
  Add(deleted = new XBaseDeletedVariable(&table));
  Add(eof = new XBaseEOFVariable);
  for (XBaseField* field = table.fields().First(); field; field = table.fields().Next()) {
    if (field->type() == XBaseField_Numeric) {
      Add(new XBaseNumberVariable(field));
    } else if (field->type() == XBaseField_Logical) {
      Add(new XBaseBooleanVariable(field));
    } else if (field->type() == XBaseField_Date && check_dates) {
      Add(new XBaseDateVariable(field));
    } else {
      Add(new XBaseStringVariable(field));
    }
  }
}

// The table of names takes over the count that the new variable has.
void XBaseDatabaseView::Record::Add(XBaseVariable* variable) {
  InsertOwned(by_name, std::unique_ptr<Variable>(variable));
  all.push_back(variable);
}

void XBaseDatabaseView::SetTable(XBaseTable* replacement) {
  table = replacement;
}

void XBaseDatabaseView::SetDirty(int all) {
  const size_t count = all ? variables.size() : kRecordVariables;
  for (size_t i = 0; i < count; i++) variables[i]->SetDirty();
}

void XBaseDatabaseView::Commit() {
  for (XBaseVariable* variable : variables) variable->Commit();
}

void XBaseDatabaseView::SetOriginal() {
  for (XBaseVariable* variable : variables) variable->SetOriginal();
}

void XBaseDatabaseView::SwapOriginal() {
  for (XBaseVariable* variable : variables) variable->SwapOriginal();
}

// --- The filter ----------------------------------------------------------------------------------

bool XBaseDatabaseView::Filter(ZephVM* vm, const char* expression, int length, int, int*) {
  if (database->IsEvaluating()) return Fail(Database::kInUse);
  if (ExpressionCompiler::Expression_Empty(expression, length)) {
    SetFilter(nullptr, nullptr);
    return true;
  }
  String reason;
  Segment* const segment = vm->Compile_Dynamic_Expression(expression, length, database->name().data,
                                                          nullptr, &reason, nullptr, 0, 0);
  if (!segment) {
    reason.prepend("Syntax error in filter: ");
    return Fail(reason);
  }
  SetFilter(vm, segment);
  return true;
}

void XBaseDatabaseView::SetFilter(ZephVM* machine, Segment* segment) {
  if (database->IsEvaluating()) {
    Error(Database::kInUse);
    return;
  }
  DatabaseView::SetFilter(machine, segment);
  if (segment) {
    Go_Filter(kFirst);
  } else {
    Go_NoFilter(kFirst);
  }
}

// --- Changes -------------------------------------------------------------------------------------

bool XBaseDatabaseView::Add() {
  Commit();
  if (!table->Append()) return Fail(table->error());
  const int record = table->record_number();
  if (!PrimaryIndex()) SetDirty(0);
  for (XBaseIndex* index = PrimaryIndex(); index; index = indexes.After(index)) {
    if (!AddToIndex(index, record)) return false;
    SetDirty(0);
  }
  return true;
}

bool XBaseDatabaseView::AddToIndex(XBaseIndex* index, int record) {
  XBaseKey key;
  if (!index->ComputeKey(&key) ||
      !index->Insert(static_cast<unsigned>(record), key.text(), key.length()))
    return Fail(index->error());
  return Go_NoFilter(record);
}

// Without a record no index is asked: it would report a missing entry instead.
bool XBaseDatabaseView::Update() {
  const int record = table->record_number();
  if (record < 1) return Fail("Invalid record number");
  Commit();
  bool done = true;
  if (!PrimaryIndex()) SetDirty(0);
  for (XBaseIndex* index = PrimaryIndex(); index && done; index = indexes.After(index)) {
    done = UpdateIndex(index, record);
    SetDirty(0);
  }
  if (!table->Update()) return Fail(table->error());
  return done;
}

// While it exists, fields and variables have the values that the file has.
class XBaseDatabaseView::OldValues {
 public:
  explicit OldValues(XBaseDatabaseView* view) : view(view) {
    view->table->SwapOriginal();
    view->SetOriginal();
  }
  ~OldValues() {
    view->table->SwapOriginal();
    view->SwapOriginal();
  }
  OldValues(const OldValues&) = delete;
  OldValues& operator=(const OldValues&) = delete;

 private:
  XBaseDatabaseView* const view;
};

// Both keys are copies: the text of the first may be in a variable, and the second computation
// gives that variable another value.
bool XBaseDatabaseView::ComputeKeys(XBaseIndex* index, Keys* keys) {
  XBaseKey key;
  if (!index->ComputeKey(&key)) return false;
  keys->after = key.Copy();
  const OldValues old(this);
  if (!index->ComputeKey(&key)) return false;
  keys->before = key.Copy();
  return true;
}

// If the new key is refused, the old one is gone from the index all the same.
bool XBaseDatabaseView::UpdateIndex(XBaseIndex* index, int record) {
  Keys keys;
  if (!ComputeKeys(index, &keys)) return Fail(index->error());
  const auto* before = reinterpret_cast<const unsigned char*>(keys.before.data);
  const auto* after = reinterpret_cast<const unsigned char*>(keys.after.data);
  const auto number = static_cast<unsigned>(record);
  if (strcmp(keys.before.data, keys.after.data) == 0) return true;
  return (index->Delete(number, before, keys.before.length) &&
          index->Insert(number, after, keys.after.length) &&
          index->Seek(after, keys.after.length, number)) ||
         Fail(index->error());
}

bool XBaseDatabaseView::Delete() {
  return UpdateFlag(1);
}

bool XBaseDatabaseView::UnDelete() {
  return UpdateFlag(0);
}

bool XBaseDatabaseView::UpdateFlag(int is_deleted) {
  if (!table->UpdateDeleted(is_deleted)) return Fail(table->error());
  SetDirty(0);
  return true;
}

// --- The structure -------------------------------------------------------------------------------

bool XBaseDatabaseView::RevealStructure_Table(const char* path, int length, int, int*) {
  List<XBaseField> columns(1);
  InsertOwned(columns,
              std::make_unique<XBaseField>(nullptr, "FIELD_NAME", XBaseField_Character, 10, 0),
              ListTail);
  InsertOwned(columns,
              std::make_unique<XBaseField>(nullptr, "FIELD_TYPE", XBaseField_Character, 1, 0),
              ListTail);
  InsertOwned(columns, std::make_unique<XBaseField>(nullptr, "FIELD_LEN", XBaseField_Numeric, 4, 0),
              ListTail);
  InsertOwned(columns, std::make_unique<XBaseField>(nullptr, "FIELD_DEC", XBaseField_Numeric, 4, 0),
              ListTail);
  XBaseTable structure(application);
  if (!structure.Create(ZephPath_Data, String(path, length), "", 0, columns))
    return Fail(structure.error());
  for (XBaseField* field = table->fields().First(); field; field = table->fields().Next()) {
    const FieldText text(field);
    structure.fields().First()->Set(text.name, -1);
    for (const char* value :
         {static_cast<const char*>(text.type), static_cast<const char*>(text.length),
          static_cast<const char*>(text.decimals)})
      structure.fields().Next()->Set(value, -1);
    if (!structure.Append()) return Fail(structure.error());
  }
  return true;
}

bool XBaseDatabaseView::RevealStructure_Aggregate(Variable** variable) {
  int position = 0;
  for (XBaseField* field = table->fields().First(); field; field = table->fields().Next()) {
    const FieldText text(field);
    const struct {
      const char* name;
      const char* value;
    } members[] = {{"FIELD_NAME", text.name},
                   {"FIELD_TYPE", text.type},
                   {"FIELD_LEN", text.length},
                   {"FIELD_DEC", text.decimals}};
    Variable* const element = (*variable)->Element(AggregateIndex(++position), 1);
    for (const auto& member : members) {
      Variable* const value =
          element ? element->Element(AggregateIndex(member.name, -1), 1) : nullptr;
      if (value) value->SetValue(member.value, -1);
    }
  }
  return true;
}
