// Deletion. A page that falls below the minimum takes entries from a sibling, or merges with one;
// the page above then has one entry less, and so on up. A function that returns Delete_Underflow
// leaves the page for its caller to write. Tested in tests/base/database/ZIXIndexDeleteTest.cpp and
// ZIXIndexFaultTest.cpp.

#include <cstring>
#include <vector>

#include "base/database/ZIXIndexFile.h"

bool ZIXIndexFile::Delete(unsigned record, const unsigned char* key, int length) {
  HeaderLock held(file, FileLock_Exclusive);
  if (!StartChange(held)) return false;
  const ZIXIndexKey wanted(key, length, keysize(), flags());
  Deletion work = {wanted, record};
  ZIXIndexPage root = BlankPage(startingpage());
  if (!ReadBelow(root, nullptr)) return false;
  const int result = DoDelete(Delete_Search, nullptr, root, nullptr, &work);
  if (result == Delete_NotFound) Fail({"Record is not in index"});
  return EndChange(result == Delete_Done);
}

// updatecount counts Insert and Delete, but not this operation, which another cursor may have used.
// So even with an equal count the place is good only if the pages above still lead to the entry.
// They are read again, because the pages that are written back must be those of the file.
bool ZIXIndexFile::Delete_Current(unsigned record) {
  HeaderLock held(file, FileLock_Exclusive);
  if (!StartChange(held)) return false;
  if (!OnEntry()) return true;
  const bool same_count = updatecount() == cursor_updatecount;
  if (!(same_count && ReadPlaceAgain()) && !FindPlace()) return true;
  const ZIXIndexPage* page = pages.Top();
  if (page->recordnum(page->position) != record) return true;
  const ZIXIndexKey key(page->key(page->position), -1, page->keysize(), flags());
  Deletion work = {key, record};
  const uint32_t root = startingpage();
  if (DeleteAtCursor(&work) != Delete_Done) return false;
  return startingpage() == root || WriteHeader();
}

// Reads the cursor's pages again, from the current one to the root. Returns false, with the current
// page as it was, if they no longer lead to its entry.
bool ZIXIndexFile::ReadPlaceAgain() {
  ZIXIndexPage* const top = pages.Top();
  ZIXIndexPage current = BlankPage(top->pagenum);
  if (!current.HasGeometryOf(*top) || !LoadPage(current) || !current.SameEntry(top->position, *top))
    return false;
  const ZIXIndexPage* below = top;
  for (ZIXIndexPage* page = pages.Peek(); page; page = pages.Peek()) {
    if (!page->HasGeometryOf(*top) || !LoadPage(*page) || page->position > page->numentries() ||
        page->childpage(page->position) != below->pagenum)
      return false;
    below = page;
  }
  if (!IsRoot(*below)) return false;
  top->CopyImage(current.data.get());
  return true;
}

int ZIXIndexFile::DeleteAtCursor(Deletion* work) {
  std::vector<std::unique_ptr<ZIXIndexPage>> path;  // the current page first, the root last
  while (pages.Top()) path.push_back(PopPage());
  ClearPages();
  std::vector<Way> ways(path.size());
  for (size_t i = path.size(); i-- > 0;) {
    const Way* above = i + 1 < path.size() ? &ways[i + 1] : nullptr;
    ways[i] = {path[i].get(), above, above ? above->depth + 1 : 1};
  }
  int result = DoDelete(Delete_Position, nullptr, *path[0], ways[0].above, work);
  for (size_t i = 1; i < path.size() && result == Delete_Underflow; i++)
    result = HandleUnderflow(*path[i], *path[i - 1]);
  return result;
}

int ZIXIndexFile::DoDelete(DeleteState state, ZIXIndexPage* parent, ZIXIndexPage& page,
                           const Way* above, Deletion* work) {
  const Way way = {&page, above, above ? above->depth + 1 : 1};
  switch (state) {
    case Delete_Position: return DeleteEntry(page, way, work);
    case Delete_Successor: return TakeSuccessor(*parent, page, way, work);
    case Delete_Search: break;
  }
  return SearchAndDelete(page, way, work);
}

// Entries with equal keys are in any of the pages between them, so each is tried. The pages after
// the key are tried too: where numbers and texts are mixed, the order may have put the entry there.
int ZIXIndexFile::SearchAndDelete(ZIXIndexPage& page, const Way& way, Deletion* work) {
  const int n = page.numentries();
  for (page.position = 0; page.position <= n; page.position++) {
    if (page.position < n) {
      const int difference = work->key.Compare(page.key(page.position));
      if (difference > 0) continue;
      if (difference == 0 && page.recordnum(page.position) == work->record)
        return DeleteEntry(page, way, work);
    }
    const uint32_t child = page.childpage(page.position);
    if (child == 0) continue;
    const int result = DeleteBelow(Delete_Search, nullptr, page, child, way, work);
    if (result != Delete_NotFound) return result;
  }
  return Delete_NotFound;
}

// Deletes the entry at the page's position. In an inner page its successor, which is the first
// entry of a leaf, replaces it.
int ZIXIndexFile::DeleteEntry(ZIXIndexPage& page, const Way& way, Deletion* work) {
  if (page.IsLeaf()) return RemoveFromLeaf(page, page.position);
  const uint32_t child = page.childpage(page.position + 1);
  if (child) return DeleteBelow(Delete_Successor, &page, page, child, way, work);
  CorruptTree();
  return Delete_Failed;
}

int ZIXIndexFile::TakeSuccessor(ZIXIndexPage& parent, ZIXIndexPage& page, const Way& way,
                                Deletion* work) {
  page.position = 0;
  if (const uint32_t child = page.childpage(0))
    return DeleteBelow(Delete_Successor, &parent, page, child, way, work);
  if (page.numentries() == 0) {
    CorruptTree();
    return Delete_Failed;
  }
  parent.CopyEntry(parent.position, page, 0);
  return WritePage(parent) ? RemoveFromLeaf(page, 0) : Delete_Failed;
}

// Continues in a child page of `page`, and repairs an underflow of that child afterwards.
int ZIXIndexFile::DeleteBelow(DeleteState state, ZIXIndexPage* parent, ZIXIndexPage& page,
                              uint32_t child, const Way& way, Deletion* work) {
  if (TooManyPages(++work->pages_read)) {
    CorruptTree();
    return Delete_Failed;
  }
  ZIXIndexPage below = BlankPage(child);
  if (!ReadBelow(below, &way)) return Delete_Failed;
  const int result = DoDelete(state, parent, below, &way, work);
  return result == Delete_Underflow ? HandleUnderflow(page, below) : result;
}

int ZIXIndexFile::RemoveFromLeaf(ZIXIndexPage& page, int i) {
  page.Delete(i);
  if (!IsRoot(page) && page.numentries() < Minimum()) return Delete_Underflow;
  return WritePage(page) ? Delete_Done : Delete_Failed;
}

// --- Underflow -----------------------------------------------------------------------------------

int ZIXIndexFile::HandleUnderflow(ZIXIndexPage& parent, ZIXIndexPage& child) {
  const int n = parent.numentries();
  int p = parent.position;
  if (p > n || parent.childpage(p) != child.pagenum) p = parent.ChildIndex(child.pagenum);
  if (p < 0 || n == 0) {
    CorruptTree();
    return Delete_Failed;
  }
  const bool has_left = p > 0;
  const bool has_right = p < n;
  ZIXIndexPage left = BlankPage(has_left ? parent.childpage(p - 1) : 0);
  ZIXIndexPage right = BlankPage(has_right ? parent.childpage(p + 1) : 0);
  if ((has_left && !ReadSibling(left, parent, child)) ||
      (has_right && !ReadSibling(right, parent, child)))
    return Delete_Failed;
  if (has_left && left.numentries() > Minimum())
    return Redistribute(left, parent, child) ? Delete_Done : Delete_Failed;
  if (has_right && right.numentries() > Minimum())
    return Redistribute(child, parent, right) ? Delete_Done : Delete_Failed;
  if (!(has_left ? Concatenate(left, parent, child) : Concatenate(child, parent, right)))
    return Delete_Failed;
  if (!IsRoot(parent)) {
    if (parent.numentries() < Minimum()) return Delete_Underflow;
  } else if (parent.numentries() == 0) {
    // The old root stays in the file, unused.
    if (!WritePage(parent)) return Delete_Failed;
    SetStartingpage(has_left ? left.pagenum : child.pagenum);
    return Delete_Done;
  }
  return WritePage(parent) ? Delete_Done : Delete_Failed;
}

bool ZIXIndexFile::ReadSibling(ZIXIndexPage& sibling, const ZIXIndexPage& parent,
                               const ZIXIndexPage& child) {
  if (sibling.pagenum == parent.pagenum || sibling.pagenum == child.pagenum) return CorruptTree();
  return ReadPage(sibling);
}

// Evens out two siblings. One has more entries than the minimum and the other less.
bool ZIXIndexFile::Redistribute(ZIXIndexPage& left, ZIXIndexPage& parent, ZIXIndexPage& right) {
  const int separator = parent.ChildIndex(left.pagenum);
  if (separator < 0 || separator >= parent.numentries()) return CorruptTree();
  if (left.numentries() <= right.numentries())
    MoveLeft(left, parent, separator, right);
  else if (!MoveRight(left, parent, separator, right))
    return false;
  return WritePage(left) && WritePage(right) && WritePage(parent);
}

void ZIXIndexFile::MoveLeft(ZIXIndexPage& left, ZIXIndexPage& parent, int separator,
                            ZIXIndexPage& right) {
  const int nl = left.numentries();
  const int nr = right.numentries();
  const int k = nr - (nl + nr) / 2 - 1;
  left.Insert(nl, right.childpage(k), parent.recordnum(separator), parent.key(separator));
  parent.CopyEntry(separator, right, k);
  right.Delete(k);
  for (int i = 0; i < k; i++) {
    left.InsertBefore(left.numentries(), right.childpage(0), right.recordnum(0), right.key(0));
    right.Delete(0);
  }
}

bool ZIXIndexFile::MoveRight(ZIXIndexPage& left, ZIXIndexPage& parent, int separator,
                             ZIXIndexPage& right) {
  const int nl = left.numentries();
  const int j = nl - (nl + right.numentries()) / 2;
  // Write the page first, so that the deleted entry leaves the file before another one moves.
  if (!WritePage(right)) return false;
  right.InsertBefore(0, left.childpage(nl), parent.recordnum(separator), parent.key(separator));
  parent.CopyEntry(separator, left, nl - j);
  left.SetChildpage(nl, left.childpage(nl - j));
  left.Delete(nl - j);
  for (int i = 1; i < j; i++) {
    const int last = left.numentries() - 1;
    right.InsertBefore(0, left.childpage(last), left.recordnum(last), left.key(last));
    left.DeleteLast();
  }
  return true;
}

// Merges right into left. The caller writes the parent.
bool ZIXIndexFile::Concatenate(ZIXIndexPage& left, ZIXIndexPage& parent, ZIXIndexPage& right) {
  const int separator = parent.ChildIndex(left.pagenum);
  if (separator < 0 || separator >= parent.numentries()) return CorruptTree();
  left.Insert(left.numentries(), 0, parent.recordnum(separator), parent.key(separator));
  parent.Delete(separator);
  parent.SetChildpage(separator, left.pagenum);
  while (right.numentries() > 0) {
    left.InsertBefore(left.numentries(), right.childpage(0), right.recordnum(0), right.key(0));
    right.Delete(0);
  }
  left.SetChildpage(left.numentries(), right.childpage(0));
  return WritePage(left) && WritePage(right);
}
