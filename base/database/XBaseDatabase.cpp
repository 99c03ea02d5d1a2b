// Opening and making a table and its indexes. Pack and reindex are in XBaseDatabase_Rebuild.cpp.
// Tested in tests/base/database/XBaseDatabaseTest.cpp.

#include "base/database/XBaseDatabase.h"

#include <climits>
#include <cstring>

#include "base/core/RunLimit.h"
#include "base/core/memcmpi.h"
#include "base/database/XBaseFieldSpecification.h"
#include "base/database/XBaseList.h"
#include "base/database/XBaseTable.h"
#include "base/machine/ExpressionCompiler.h"
#include "base/machine/ZephVM.h"

namespace {

constexpr int kRecords = 256;  // to read between two checks of the time limit

// The word of an index's flags, and what it clears and sets.
const struct {
  std::string_view word;
  long clears;
  long sets;
} kFlagWords[] = {
    {"ascending", ZIXIndex_Descending, 0}, {"descending", 0, ZIXIndex_Descending},
    {"unique", 0, ZIXIndex_Unique},        {"nounique", ZIXIndex_Unique, 0},
    {"string", 0, ZIXIndex_Text},          {"range", 0, ZIXIndex_Range},
};

}  // namespace

// --- Life ----------------------------------------------------------------------------------------

XBaseDatabase::XBaseDatabase(ZephVM* vm, const char* name, int length, int allocated,
                             int* deletable)
    : Database(vm, name, length, allocated, deletable) {}

XBaseDatabase::~XBaseDatabase() {
  Drop();
}

// The view comes first: its variables belong to the table.
void XBaseDatabase::Drop() {
  while (DatabaseView* view = views.First()) View_Del(view);
  indexes.Dump();
  delete std::exchange(table, nullptr);
}

void XBaseDatabase::Release_VM() {
  Database::Release_VM();
  for (XBaseIndex* index = indexes.First(); index; index = indexes.Next()) index->Release_VM();
}

bool XBaseDatabase::Fail(const String& text) {
  Error(text);
  return false;
}

XBaseDatabaseView* XBaseDatabase::View() {
  return static_cast<XBaseDatabaseView*>(primary_view);
}

bool XBaseDatabase::GoToFirst() {
  return View()->Go_NoFilter(-1) || Fail(View()->error());
}

// --- Tables --------------------------------------------------------------------------------------

void XBaseDatabase::Adopt(std::unique_ptr<XBaseTable> opened) {
  table = opened.release();
  auto* const view = new XBaseDatabaseView(vm, this, name_, table, indexes);
  View_Add(view);
  primary_view = view;
}

bool XBaseDatabase::Open(const char* path, int pathlength, int, int*, const char*, int, int, int*,
                         const char*, int, int, int*, const char*, int, int, int*, const char*, int,
                         int, int*) {
  if (IsEvaluating()) return RefuseInUse();
  Drop();
  table_path.assign(path, pathlength);
  auto opened = std::make_unique<XBaseTable>(application);
  if (!opened->Open(ZephPath_Data, table_path.data, -1, FileMode_Read | FileMode_Write))
    return Fail(opened->error());
  Adopt(std::move(opened));
  return true;
}

bool XBaseDatabase::Create(const char* path, int pathlength, int, int*, const char*, int, int, int*,
                           const char* specification, int specificationlength, int, int*) {
  if (IsEvaluating()) return RefuseInUse();
  List<XBaseField> fields(1);
  if (!XBaseFieldSpecification::Parse(specification, specificationlength, fields, &error_))
    return false;
  Drop();
  table_path.assign(path, pathlength);
  auto created = std::make_unique<XBaseTable>(application);
  if (!created->Create(ZephPath_Data, table_path, "", 0, fields)) return Fail(created->error());
  Adopt(std::move(created));
  return true;
}

bool XBaseDatabase::Close() {
  if (IsEvaluating()) return RefuseInUse();
  if (table) table->Close();
  return true;
}

// --- Indexes -------------------------------------------------------------------------------------

bool XBaseDatabase::OpenIndexes(ZephVM* vm, const char* list, int length, int, int*) {
  if (IsEvaluating()) return RefuseInUse();
  indexes.Dump();
  if (ExpressionCompiler::Expression_Empty(list, length)) return true;
  const bool done = XBaseList::ForEach(
      KeyText(list, length), [&](std::string_view entry) { return OpenIndex(vm, entry); });
  return GoToFirst() && done;
}

bool XBaseDatabase::OpenIndex(ZephVM* vm, std::string_view entry) {
  if (entry.empty()) return Fail("Dangling comma in index list");
  const String name(entry.data(), static_cast<int>(entry.size()));
  if (indexes.Find(name.data)) return true;
  auto index = std::make_unique<XBaseIndex>(vm, this, name.data, name.length);
  if (!index->Open(name)) return Fail(index->error());
  InsertOwned(indexes, std::move(index), ListTail);
  return true;
}

// Instructions report the error of the view or of the database, so both have it.
bool XBaseDatabase::PrimaryIndexFailed(const String& text) {
  if (View()) View()->Error(text);
  return Fail(text);
}

bool XBaseDatabase::SetPrimaryIndex(const char* name, int length, int, int*) {
  if (IsEvaluating()) return PrimaryIndexFailed(kInUse);
  const String wanted(name, length);
  XBaseIndex* const index = indexes.Find(wanted.data);
  if (!index) return PrimaryIndexFailed("Database has no index with that name");
  MoveToFront<XBaseIndex>(indexes, index);
  return View()->SetPrimaryIndex(index) || Fail(View()->error());
}

bool XBaseDatabase::ReadIndexFlags(std::string_view text, long* flags) {
  return XBaseList::ForEach(text, [&](std::string_view entry) {
    if (entry.empty()) return Fail("Dangling comma in field\tspecification");
    for (const auto& known : kFlagWords) {
      if (entry.size() == known.word.size() &&
          memcmpi(entry.data(), known.word.data(), entry.size()) == 0)
        *flags = (*flags & ~known.clears) | known.sets;
    }
    return true;
  });
}

bool XBaseDatabase::CreateIndex(ZephVM* vm, const char* path, int pathlength, int, int*,
                                const char* expression, int expressionlength, int, int*,
                                const char* flags, int flagslength, int, int*) {
  if (IsEvaluating()) return RefuseInUse();
  long bits = 0;
  if (!ReadIndexFlags(KeyText(flags, flagslength), &bits)) return false;
  // Copies, because these texts may be variables' that the key expression changes.
  const String file_path(path, pathlength);
  const String text(expression, expressionlength);
  auto index = std::make_unique<XBaseIndex>(vm, this, file_path.data, file_path.length);
  if (!index->Create(file_path, reinterpret_cast<const unsigned char*>(text.data), bits) ||
      !index->GetSegment())
    return Fail(index->error());
  if (!FillIndex(*index)) return false;
  InsertOwned(indexes, std::move(index), ListHead);
  return GoToFirst();
}

// Makes the table read its header again. Work on all records needs that: a pack would lose those
// that other processes have added since this object last looked, and all of them if the table is
// not open.
bool XBaseDatabase::CountRecords() {
  return table->Goto(INT_MAX) || strcmp(table->error().data, "Invalid record number") == 0 ||
         Fail(table->error());
}

// The key expression may add records; they are not visited here, so that this ends.
bool XBaseDatabase::FillIndex(XBaseIndex& index) {
  if (!CountRecords()) return false;
  const int last = table->record_count();
  RunWatch watch(kRecords);
  for (int record = 1; record <= last; record++) {
    if (watch.Over()) return Fail(kTimeIsOver);
    if (!table->Goto(record)) return Fail(table->error());
    View()->SetDirty(1);
    XBaseKey key;
    if (!index.ComputeKey(&key) ||
        !index.Insert(static_cast<unsigned>(record), key.text(), key.length()))
      return Fail(index.error());
  }
  return true;
}

// --- What this engine does not have --------------------------------------------------------------

bool XBaseDatabase::OpenView(const char*, int, int, int*, const char*, int, int, int*,
                             VariableList*, int) {
  return Fail("ZpOPENVIEW is not currently supported for databases of type 'xbase3'");
}

bool XBaseDatabase::CloseView(const char*, int, int, int*) {
  return Fail("ZpCLOSEVIEW is not currently supported for databases of type 'xbase3'");
}

bool XBaseDatabase::RunQuery(const char*, int, int, int*, VariableList*, int) {
  return Fail("ZpQUERY is not currently supported for databases of type 'xbase3'");
}

bool XBaseDatabase::Command(const char*, int, int, int*, const char*, int, int, int*) {
  return Fail("ZpDBCOMMAND is not currently supported for databases of type 'xbase3'");
}
