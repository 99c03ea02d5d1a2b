// Pack and reindex: new files are written beside the old ones and then take their names. Until the
// first of them does, a failure leaves everything as it was. Tested in
// tests/base/database/XBasePackTest.cpp.

#include <new>
#include <utility>
#include <vector>

#include "base/core/RunLimit.h"
#include "base/database/XBaseDatabase.h"
#include "base/database/XBaseTable.h"
#include "base/database/XBaseTemporaryFile.h"
#include "base/host/ZephApplication.h"

namespace {

constexpr int kRecords = 256;       // to copy between two checks of the time limit
constexpr int kMemoVersion = 0x83;  // XBaseTable::version() of a table with a memo file

}  // namespace

// The work of one pack or reindex. The database's own table and indexes stay as they are until
// Replace. Their pointers are safe meanwhile, although keys run code of the script: what would
// delete them is refused then.
class XBaseDatabase::Rebuild {
 public:
  explicit Rebuild(XBaseDatabase* database)
      : of(database), files(database->application->filemanager()) {}
  // Deletes the temporary files that have not replaced their originals, and puts the view's
  // variables of the old table back. Needs no memory for that: there may be none left.
  ~Rebuild() {
    if (before) PutBack();
    made.clear();
    copy.reset();
    for (const XBaseTemporaryFile& file : temporaries) DeleteIfAny(file);
  }
  Rebuild(const Rebuild&) = delete;
  Rebuild& operator=(const Rebuild&) = delete;

  bool MakeTable();
  bool MakeIndexes();
  // Copies the records that are not deleted, and their memos, and adds their keys.
  bool CopyRecords();
  // Adds the keys of all records of the old table.
  bool AddAllKeys();
  // Gives the new files their names, and opens everything again, also after a failure.
  bool Replace();

 private:
  struct NewIndex {
    XBaseIndex* old;
    std::unique_ptr<XBaseIndex> index;
  };

  std::unique_ptr<File> MakeTemporary(const String& original, String* name);
  bool CopyFields(XBaseTable& from);
  bool AddKeys(int record);
  void PutBack() noexcept;
  void DeleteIfAny(const XBaseTemporaryFile& file) noexcept;
  void TakeNames();
  void OpenAgain();
  // Keeps the first reason, because later failures follow from it.
  bool Note(const String& text) {
    if (!failure.data) failure = text;
    return false;
  }

  XBaseDatabase* const of;
  FileManager* const files;
  std::vector<XBaseTemporaryFile> temporaries;
  std::unique_ptr<XBaseTable> copy;  // null for a reindex
  // Variables of the old table for the view, until a pack has replaced that table.
  std::unique_ptr<XBaseDatabaseView::Record> before;
  std::vector<NewIndex> made;
  String failure;
};

// --- New files -----------------------------------------------------------------------------------

// Returns null after a failure.
std::unique_ptr<File> XBaseDatabase::Rebuild::MakeTemporary(const String& original, String* name) {
  temporaries.emplace_back();
  XBaseTemporaryFile& pair = temporaries.back();
  pair.original = original;
  char* made_name = nullptr;
  std::unique_ptr<File> file(files->MakeTemporaryLike(ZephPath_Data, pair.original.data, &made_name,
                                                      FileMode_Read | FileMode_Write));
  if (!file) {
    of->Fail(files->error());
    return nullptr;
  }
  const int length = static_cast<int>(strlen(made_name));
  pair.temporary.assign_nocopy(made_name, length, length + 1);
  *name = pair.temporary;
  return file;
}

// Without memory for the path the file stays.
void XBaseDatabase::Rebuild::DeleteIfAny(const XBaseTemporaryFile& file) noexcept {
  try {
    if (file.temporary.length > 0) files->Delete(ZephPath_Data, file.temporary.data);
  } catch (const std::bad_alloc&) {
  }
}

// Like every change of the view's table, this goes to record 1. Without memory for that, the record
// stays.
void XBaseDatabase::Rebuild::PutBack() noexcept {
  of->View()->SetupCurrentRecord(std::move(before));
  try {
    (void)of->table->Goto(1);
  } catch (const std::bad_alloc&) {
  }
}

bool XBaseDatabase::Rebuild::MakeTable() {
  XBaseTable& old = *of->table;
  before = std::make_unique<XBaseDatabaseView::Record>(old, true);
  String path, memo_path;
  std::unique_ptr<File> file = MakeTemporary(of->table_path, &path);
  if (!file) return false;
  std::unique_ptr<File> memo;
  if (old.version() == kMemoVersion) {
    memo = MakeTemporary(old.memo_path(), &memo_path);
    if (!memo) return false;
  }
  copy = std::make_unique<XBaseTable>(of->application);
  if (!copy->Create(file.get(), path, memo.get(), memo_path, old.fields()))
    return of->Fail(copy->error());
  (void)file.release();
  // A header may have the version without a memo field. The new one does not, and leaves the memo
  // file empty.
  if (copy->version() == kMemoVersion) (void)memo.release();
  return true;
}

bool XBaseDatabase::Rebuild::MakeIndexes() {
  for (XBaseIndex* old = of->indexes.First(); old; old = of->indexes.Next()) {
    String path;
    std::unique_ptr<File> file = MakeTemporary(old->path(), &path);
    if (!file) return false;
    const String& name = old->name();
    auto index = std::make_unique<XBaseIndex>(of->vm, of, name.data, name.length);
    if (!index->Create(file.get(), path.data, old->keyexpression(), old->flags()))
      return of->Fail(index->error());
    (void)file.release();
    made.push_back({old, std::move(index)});
  }
  return true;
}

// --- Records and keys ----------------------------------------------------------------------------

// A key is computed by the old index, which has compiled its expression.
bool XBaseDatabase::Rebuild::AddKeys(int record) {
  for (const NewIndex& one : made) {
    XBaseKey key;
    if (!one.old->ComputeKey(&key)) return of->Fail(one.old->error());
    if (!one.index->Insert(static_cast<unsigned>(record), key.text(), key.length()))
      return of->Fail(one.index->error());
  }
  return true;
}

bool XBaseDatabase::Rebuild::CopyFields(XBaseTable& from) {
  XBaseField* target = copy->fields().First();
  for (XBaseField* source = from.fields().First(); source && target;
       source = from.fields().Next(), target = copy->fields().Next()) {
    const char* text = source->data();
    if (!text) return of->Fail(from.error());
    target->Set(text, -1);
  }
  return true;
}

// Append succeeds without a memo that could not be written, and only the table's error shows it.
bool XBaseDatabase::Rebuild::CopyRecords() {
  const String no_error("");
  XBaseTable& from = *of->table;
  of->View()->SetupCurrentRecord(*copy);
  const int last = from.record_count();
  RunWatch watch(kRecords);
  for (int record = 1; record <= last; record++) {
    if (watch.Over()) return of->Fail(kTimeIsOver);
    if (!from.Goto(record)) return of->Fail(from.error());
    if (from.deleted()) continue;
    if (!CopyFields(from)) return false;
    copy->Error(no_error);
    if (!copy->Append() || copy->error().length > 0) return of->Fail(copy->error());
    if (!AddKeys(copy->record_number())) return false;
    of->View()->SetDirty(1);
  }
  return true;
}

bool XBaseDatabase::Rebuild::AddAllKeys() {
  XBaseTable& from = *of->table;
  const int last = from.record_count();
  RunWatch watch(kRecords);
  for (int record = 1; record <= last; record++) {
    if (watch.Over()) return of->Fail(kTimeIsOver);
    if (!from.Goto(record)) return of->Fail(from.error());
    of->View()->SetDirty(1);
    if (!AddKeys(record)) return false;
  }
  return true;
}

// --- The end -------------------------------------------------------------------------------------

void XBaseDatabase::Rebuild::TakeNames() {
  if (copy) of->table->Deactivate();
  for (const NewIndex& one : made) {
    one.old->Deactivate();
    one.index->Close();
  }
  for (XBaseTemporaryFile& file : temporaries) {
    if (!files->Rename(ZephPath_Data, file.temporary.data, ZephPath_Data, file.original.data)) {
      Note(files->error());
      return;
    }
    file.temporary.Empty();
  }
}

// The view's variables belong to the new table until they are made again; that table and the old
// one live until then. A table that cannot be opened has no records.
void XBaseDatabase::Rebuild::OpenAgain() {
  std::unique_ptr<XBaseTable> opened;
  if (copy) {
    opened = std::make_unique<XBaseTable>(of->application);
    if (!opened->Open(ZephPath_Data, of->table_path.data, -1, FileMode_Read | FileMode_Write))
      Note(opened->error());
  }
  of->View()->SetupCurrentRecord(copy ? *opened : *of->table);
  if (copy) {
    before.reset();
    opened.reset(std::exchange(of->table, opened.release()));
    of->View()->SetTable(of->table);
  }
  for (const NewIndex& one : made)
    if (!one.old->Open(one.old->path())) Note(one.old->error());
  if (!of->View()->Go_NoFilter(-1)) Note(of->View()->error());
}

bool XBaseDatabase::Rebuild::Replace() {
  TakeNames();
  OpenAgain();
  return !failure.data || of->Fail(failure);
}

bool XBaseDatabase::Pack() {
  if (IsEvaluating()) return RefuseInUse();
  if (!CountRecords()) return false;
  Rebuild work(this);
  return work.MakeTable() && work.MakeIndexes() && work.CopyRecords() && work.Replace();
}

bool XBaseDatabase::Reindex() {
  if (IsEvaluating()) return RefuseInUse();
  if (!indexes.First()) return true;
  if (!CountRecords()) return false;
  Rebuild work(this);
  return work.MakeIndexes() && work.AddAllKeys() && work.Replace();
}
