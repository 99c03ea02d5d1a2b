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

// True if there is an entry to step from.
bool ZIXIndexFile::StartStep(const HeaderLock& lock, int direction) {
  if (!StartReading(lock) || !OnEntry()) return false;
  if (updatecount() != cursor_updatecount && !FindPlace()) return false;
  if (direction != last_direction) descents = 0;
  last_direction = direction;
  return true;
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
  HeaderLock held(file, FileLock_Shared, lock);
  if (!StartStep(held, 1)) return true;
  if (!StepForward(record)) return false;
  if (key && pages.Top()) *key = pages.Top()->key(pages.Top()->position);
  return true;
}

bool ZIXIndexFile::_Prev(unsigned* record, int lock) {
  *record = 0;
  HeaderLock held(file, FileLock_Shared, lock);
  return !StartStep(held, -1) || StepBackward(record);
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
