// The moves of a view: steps, jumps and searches, with and without a filter. Tested in
// tests/base/database/XBaseMovesTest.cpp and XBaseFindTest.cpp.

#include <cstdint>

#include "base/core/RunLimit.h"
#include "base/database/XBaseDatabaseView.h"
#include "base/database/XBaseTable.h"
#include "base/database/XBaseVariable.h"
#include "base/machine/ZephVM.h"

namespace {

constexpr int kRecords = 256;  // to read between two checks of the time limit

}  // namespace

// --- What moves are made of ----------------------------------------------------------------------

// REQUIRES: *record is the present record. It becomes the next one of the order, or 0 at the end.
bool XBaseDatabaseView::Step(bool forward, unsigned* record) {
  if (XBaseIndex* index = PrimaryIndex()) {
    const bool stepped = forward ? index->Next(record, nullptr) : index->Prev(record);
    return stepped || Fail(index->error());
  }
  if (forward) {
    *record = *record < Count() ? *record + 1 : 0;
  } else {
    *record = *record > 1 ? *record - 1 : 0;
  }
  return true;
}

bool XBaseDatabaseView::GoToEnd(bool first, unsigned* record) {
  if (XBaseIndex* index = PrimaryIndex())
    return (first ? index->First(record) : index->Last(record)) || Fail(index->error());
  *record = first ? 1 : Count();
  return true;
}

// An index of a damaged file may have any number.
bool XBaseDatabaseView::Read(unsigned record) {
  if (!table->Goto(static_cast<int>(record))) return Fail(table->error());
  SetDirty(1);
  return true;
}

bool XBaseDatabaseView::IsRecord(unsigned record) const {
  return record != 0 && record <= Count();
}

unsigned XBaseDatabaseView::Count() const {
  return static_cast<unsigned>(table->record_count());
}

// Always true, for the ends of moves.
bool XBaseDatabaseView::End(bool at_record) {
  eof->SetEOF(!at_record);
  return true;
}

bool XBaseDatabaseView::Passes(bool* passes) {
  int result = 1;
  if (filter) {
    const Database::Evaluation running(database);
    if (!filter_vm->Execute_Dynamic_Expression(filter, nullptr, nullptr, &result))
      return Fail(filter_vm->error());
  }
  *passes = result != 0;
  return true;
}

// Reads records, from the given one on, until one passes the filter. Next gives the record after
// one, 0 at the end, and returns false after a failure. The filter may add records, so the last one
// is that of the beginning; the walk would not end otherwise.
template <class Next>
XBaseDatabaseView::Walk XBaseDatabaseView::WalkToPassing(unsigned* record, Next next) {
  const unsigned last = Count();
  RunWatch watch(kRecords);
  for (;;) {
    if (*record == 0 || *record > last || watch.Over()) return Walk::Ended;
    bool passes = false;
    if (!Read(*record) || !Passes(&passes)) return Walk::Failed;
    if (passes) return Walk::Passed;
    if (!next(record)) return Walk::Failed;
  }
}

// Moves the index to the entry of the record in memory.
bool XBaseDatabaseView::SeekCurrent(XBaseIndex* index) {
  const auto record = static_cast<unsigned>(table->record_number());
  XBaseKey key;
  if (!index->ComputeKey(&key)) return Fail(index->error());
  return index->Seek(key.text(), key.length(), record) || Fail("Record is not in index");
}

bool XBaseDatabaseView::SetPrimaryIndex(XBaseIndex* index) {
  return SeekCurrent(index);
}

// --- Steps ---------------------------------------------------------------------------------------

bool XBaseDatabaseView::Skip_NoFilter(int count) {
  if (count == 0) SetDirty(1);
  RunWatch watch(kRecords);
  for (int64_t left = count < 0 ? -int64_t{count} : count; left > 0 && !watch.Over(); left--) {
    auto record = static_cast<unsigned>(table->record_number());
    if (!Step(count > 0, &record)) return false;
    if (record == 0) return End(false);
    if (!Read(record)) return false;
  }
  return End(true);
}

bool XBaseDatabaseView::Skip_Filter(int count) {
  if (count == 0) return true;
  const auto step = [&](unsigned* record) { return Step(count > 0, record); };
  auto record = static_cast<unsigned>(table->record_number());
  for (int64_t left = count < 0 ? -int64_t{count} : count; left > 0; left--) {
    if (!step(&record)) return false;
    const Walk walked = WalkToPassing(&record, step);
    if (walked == Walk::Failed) return false;
    if (walked == Walk::Ended) return End(false);
  }
  return End(true);
}

// --- Jumps ---------------------------------------------------------------------------------------

// The last comparison is also for an index with a record that this process has not seen counted.
bool XBaseDatabaseView::Go_NoFilter(long position) {
  unsigned record = 0;
  if (position == kFirst || position == kLast) {
    if (!GoToEnd(position == kFirst, &record)) return false;
  } else if (position >= 1 && position <= table->record_count()) {
    record = static_cast<unsigned>(position);
  }
  if (!IsRecord(record)) return End(false);
  return Read(record) && End(true);
}

bool XBaseDatabaseView::Go_Filter(long position) {
  if (position == kFirst || position == kLast) {
    const bool forward = position == kFirst;
    unsigned record = 0;
    if (!GoToEnd(forward, &record)) return false;
    const Walk walked = WalkToPassing(&record, [&](unsigned* next) { return Step(forward, next); });
    return walked != Walk::Failed && End(walked == Walk::Passed);
  }
  if (position < 1 || position > table->record_count()) return End(false);
  bool passes = false;
  if (!Read(static_cast<unsigned>(position)) || !Passes(&passes)) return false;
  if (!passes) return End(false);
  XBaseIndex* const index = PrimaryIndex();
  return (!index || SeekCurrent(index)) && End(true);
}

// --- Searches ------------------------------------------------------------------------------------

bool XBaseDatabaseView::Find_NoFilter(const char* key, int length, int, int*, int exact) {
  XBaseIndex* const index = PrimaryIndex();
  if (!index) return Fail("Database has no open indexes");
  unsigned record = 0;
  int found = 0;
  if (!index->Find(reinterpret_cast<const unsigned char*>(key), length, exact, &record, &found))
    return Fail(index->error());
  if (!found && !(index->flags() & ZIXIndex_Range)) return End(false);
  if (!IsRecord(record)) return End(false);
  return Read(record) && End(found != 0);
}

// The search text is copied before the first record is read: it may be a variable's of this view.
bool XBaseDatabaseView::Find_Filter(const char* key, int length, int, int*, int exact) {
  XBaseIndex* const index = PrimaryIndex();
  if (!index) return Fail("Database has no open indexes");
  const auto* text = reinterpret_cast<const unsigned char*>(key);
  unsigned record = 0;
  int found = 0;
  if (!index->Find(text, length, exact, &record, &found)) return Fail(index->error());
  if (!found) return End(false);
  const ZIXIndexKey search(text, length, index->keysize(), index->flags());
  const Walk walked = WalkToPassing(&record, [&](unsigned* next) {
    const unsigned char* entry = nullptr;
    if (!index->Next(next, &entry)) return Fail(index->error());
    if (*next != 0 && (exact ? search.Compare(entry) : search.ComparePrefix(entry)) != 0) *next = 0;
    return true;
  });
  return walked != Walk::Failed && End(walked == Walk::Passed);
}
