// Searches and steps of the cursor. Each sets the cursor's updatecount to the one under which its
// pages were read. Tested in tests/base/database/ZIXIndexFileTest.cpp and ZIXIndexCursorTest.cpp.

#include <cstring>

#include "base/database/ZIXIndexFile.h"

int ZIXIndexFile::NumberCompare(const unsigned char* a, const unsigned char* b) {
  return ZIXIndexOrder::NumberCompare(ZIXIndexOrder::Read(a), b);
}

int ZIXIndexFile::Compare(const unsigned char* a, const unsigned char* b, int exact, int flags) {
  const char* search = reinterpret_cast<const char*>(a);
  const char* entry = reinterpret_cast<const char*>(b);
  int order = ZIXIndexOrder::kNotNumbers;
  if (exact && !(flags & ZIXIndex_Text)) order = NumberCompare(a, b);
  if (order == ZIXIndexOrder::kNotNumbers)
    order = exact ? strcmp(search, entry) : strncmp(search, entry, strlen(search));
  return flags & ZIXIndex_Descending ? -order : order;
}

bool ZIXIndexFile::StartReading(const HeaderLock& lock) {
  return lock.failed() ? LockError("read") : ReadHeader();
}

// --- The ends ------------------------------------------------------------------------------------

bool ZIXIndexFile::_First(unsigned* record, int lock) {
  *record = 0;
  ClearPages();
  HeaderLock held(file, FileLock_Shared, lock);
  if (!StartReading(held)) return true;
  cursor_updatecount = updatecount();
  if (!PushPage(startingpage())) return false;
  const ZIXIndexPage* root = pages.Top();
  if (root->numentries() == 0) return true;
  return root->childpage(0) ? DescendLeft(root->childpage(0), record) : AnswerEntry(0, record);
}

bool ZIXIndexFile::_Last(unsigned* record, int lock) {
  *record = 0;
  ClearPages();
  HeaderLock held(file, FileLock_Shared, lock);
  if (!StartReading(held)) return true;
  cursor_updatecount = updatecount();
  if (!PushPage(startingpage())) return false;
  ZIXIndexPage* root = pages.Top();
  const int n = root->numentries();
  if (n == 0) return true;
  root->position = n;
  return root->childpage(n) ? DescendRight(root->childpage(n), record) : AnswerEntry(n - 1, record);
}

// Goes to the first entry below a child page. A failed descent drops all pages: the cursor is then
// on no entry.
bool ZIXIndexFile::DescendLeft(uint32_t child, unsigned* record) {
  while (child) {
    if (!PushPage(child)) {
      ClearPages();
      return false;
    }
    child = pages.Top()->childpage(0);
  }
  return AnswerEntry(0, record);
}

bool ZIXIndexFile::DescendRight(uint32_t child, unsigned* record) {
  while (child) {
    if (!PushPage(child)) {
      ClearPages();
      return false;
    }
    ZIXIndexPage* page = pages.Top();
    page->position = page->numentries();
    child = page->childpage(page->position);
  }
  return AnswerEntry(pages.Top()->numentries() - 1, record);
}

// Puts the cursor on an entry of the top page. Only a damaged tree has a page without entries here.
bool ZIXIndexFile::AnswerEntry(int position, unsigned* record) {
  ZIXIndexPage* page = pages.Top();
  if (page->numentries() == 0) {
    ClearPages();
    return CorruptTree();
  }
  page->position = position;
  *record = page->recordnum(position);
  return true;
}

// --- Steps ---------------------------------------------------------------------------------------

bool ZIXIndexFile::OnEntry() {
  const ZIXIndexPage* page = pages.Top();
  return page && page->position >= 0 && page->position < page->numentries();
}

const unsigned char* ZIXIndexFile::current_key() {
  return OnEntry() ? pages.Top()->key(pages.Top()->position) : nullptr;
}

// True if there is an entry to step from, and the step stays in the pages of the stack: within the
// page or up to one above.
bool ZIXIndexFile::NeedsNoPage(int direction) {
  if (!OnEntry()) return false;
  const ZIXIndexPage* page = pages.Top();
  return page->childpage(page->position + (direction > 0)) == 0;
}

// Returns true if the step that NeedsNoPage allows would be the same under a shared lock: the steps
// of a scan then cost one query of the lock instead of taking and releasing it. Returns false if it
// might not be; the step then takes the lock, waits for it, and reports its failure.
//
// A change holds the exclusive lock from before its first read until after its last write, which is
// the raised updatecount. So at the moment t of the query, at which no one holds that lock, the
// file is between two changes. Let c be the updatecount in memory, under which the pages of the
// stack were read.
//
// - The header is read after t and has c. Counts only rise, so at t it was not above c; and it was
//   not below, because a file that has had c never has less. The file had c at t, and a step that
//   locks and unlocks at t sees the header in memory and uses the same pages of the stack.
// - A change that begins after t may be half written when the header is read. It does not matter:
//   no page is read, and its count is not raised yet, or the header differs.
// - A change that is complete before this call has released the lock and raised the count, so it is
//   seen. One that is going on at t is waited for, because false is returned.
// - Changes that do not raise the count, such as one that failed, are not seen in the pages of the
//   stack; nor are they by a step that takes the lock, which trusts the count in the same way.
//
// The header may be read while it is written, and the bytes of two counts may mix. Only the carry
// into a higher byte can make that a wrong count: then the low byte was 0xFF and becomes 0, and
// every mix has one of the two. With a count in memory that ends so, no step does without the lock.
bool ZIXIndexFile::IsCurrent() {
  const unsigned char low = header[ZIXHeader_UpdateCount];
  return file && updatecount() == cursor_updatecount && low != 0 && low != 0xFF &&
         file->IsLockable(FileLock_Shared, 0, ZIXHeader_Length) && HasHeaderOfFile();
}

// The bytes after the expression mean nothing and are left out: the file layer reads a piece that
// ends in zeros more slowly.
bool ZIXIndexFile::HasHeaderOfFile() {
  unsigned char bytes[ZIXHeader_Length];
  const int length = ZIXHeader_KeyExpression +
                     static_cast<int>(strlen(reinterpret_cast<const char*>(keyexpression())));
  return file->Seek(0) == 0 && file->Read(bytes, length) == length &&
         memcmp(bytes, header.get(), static_cast<size_t>(length)) == 0;
}

// Always true.
bool ZIXIndexFile::NoteDirection(int direction) {
  if (direction != last_direction) descents = 0;
  last_direction = direction;
  return true;
}

// True if there is an entry to step from.
bool ZIXIndexFile::StartStep(const HeaderLock& lock, int direction) {
  if (!StartReading(lock) || !OnEntry()) return false;
  if (updatecount() != cursor_updatecount && !FindPlace()) return false;
  return NoteDirection(direction);
}

// Goes to the entry with the key and record of the current one, in a tree that others may have
// changed. If it is gone, the cursor is on no entry.
bool ZIXIndexFile::FindPlace() {
  const ZIXIndexPage* page = pages.Top();
  const uint32_t wanted = page->recordnum(page->position);
  const ZIXIndexKey key(page->key(page->position), -1, page->keysize(), flags());
  unsigned record = 0;
  int found = 0;
  ClearPages();
  bool there = Search(key, 1, &record, &found) && found;
  while (there && record != wanted) {
    there = StepForward(&record) && record != 0;
    if (there) {
      page = pages.Top();
      there = key.Compare(page->key(page->position)) == 0;
    }
  }
  if (!there) ClearPages();
  cursor_updatecount = updatecount();
  return there;
}

bool ZIXIndexFile::_Next(unsigned* record, const unsigned char** key, int lock) {
  *record = 0;
  const bool is_certain = lock && NeedsNoPage(1) && IsCurrent();
  HeaderLock held(file, FileLock_Shared, lock && !is_certain);
  if (!(is_certain ? NoteDirection(1) : StartStep(held, 1))) return true;
  if (!StepForward(record)) return false;
  if (key && pages.Top()) *key = pages.Top()->key(pages.Top()->position);
  return true;
}

bool ZIXIndexFile::_Prev(unsigned* record, int lock) {
  *record = 0;
  const bool is_certain = lock && NeedsNoPage(-1) && IsCurrent();
  HeaderLock held(file, FileLock_Shared, lock && !is_certain);
  return !(is_certain ? NoteDirection(-1) : StartStep(held, -1)) || StepBackward(record);
}

bool ZIXIndexFile::StepForward(unsigned* record) {
  *record = 0;
  ZIXIndexPage* page = pages.Top();
  const int next = ++page->position;
  if (uint32_t child = page->childpage(next)) return DescendLeft(child, record);
  if (next < page->numentries()) return AnswerEntry(next, record);
  do {
    DropPage();
    page = pages.Top();
  } while (page && page->position >= page->numentries());
  return !page || AnswerEntry(page->position, record);
}

bool ZIXIndexFile::StepBackward(unsigned* record) {
  *record = 0;
  ZIXIndexPage* page = pages.Top();
  if (uint32_t child = page->childpage(page->position)) return DescendRight(child, record);
  while (page && page->position < 1) {
    DropPage();
    page = pages.Top();
  }
  return !page || AnswerEntry(page->position - 1, record);
}

// --- Searches ------------------------------------------------------------------------------------

bool ZIXIndexFile::_Find(const unsigned char* key, int length, int exact, unsigned* record,
                         int* found, int lock) {
  *record = 0;
  *found = 0;
  ClearPages();
  HeaderLock held(file, FileLock_Shared, lock);
  if (!StartReading(held)) return false;
  cursor_updatecount = updatecount();
  return Search(ZIXIndexKey(key, length, keysize(), flags()), exact, record, found);
}

// REQUIRES: the stack is empty. Afterwards the top page is the one of the first equal entry or,
// without one, of the last entry before the key; its position is where the scan stopped. If there
// is neither, the whole way down stays on the stack.
bool ZIXIndexFile::Search(const ZIXIndexKey& key, int exact, unsigned* record, int* found) {
  const ZIXIndexPage* remembered = nullptr;
  const bool first_is_only = exact && (flags() & ZIXIndex_Unique);
  uint32_t child = startingpage();
  while (child && !(*found && first_is_only)) {
    if (!PushPage(child)) {
      ClearPages();
      *record = 0;
      *found = 0;
      return false;
    }
    ZIXIndexPage* page = pages.Top();
    const int n = page->numentries();
    int order = 1;
    for (; page->position < n; page->position++) {
      const unsigned char* entry = page->key(page->position);
      order = exact ? key.Compare(entry) : key.ComparePrefix(entry);
      if (order <= 0) break;
      if (*found) continue;
      *record = page->recordnum(page->position);
      remembered = page;
    }
    if (page->position < n && order == 0) {
      *found = 1;
      *record = page->recordnum(page->position);
      remembered = page;
    }
    child = page->childpage(page->position);
  }
  while (remembered && pages.Top() != remembered) DropPage();
  descents = 0;
  return true;
}

bool ZIXIndexFile::_Seek(const unsigned char* key, int length, unsigned record, int lock) {
  unsigned current = 0;
  int found = 0;
  if (!_Find(key, length, 1, &current, &found, lock) || !found) return false;
  while (current != record && current != 0)
    if (!_Next(&current, nullptr, lock)) return false;
  return current == record && current != 0;
}
