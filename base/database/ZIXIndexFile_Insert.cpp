// Insertion. A full page is split in two, and the entry between them moves up. Tested in
// tests/base/database/ZIXIndexFileTest.cpp and ZIXIndexFaultTest.cpp.

#include <cstring>

#include "base/database/ZIXIndexFile.h"

bool ZIXIndexFile::StartChange(const HeaderLock& lock) {
  return lock.failed() ? LockError("write") : ReadHeader();
}

bool ZIXIndexFile::EndChange(bool done) {
  if (!done) return false;
  SetUpdatecount(updatecount() + 1);
  return WriteHeader();
}

bool ZIXIndexFile::Insert(unsigned record, const unsigned char* key, int length) {
  if (record == 0) return Fail({"Invalid record number"});
  HeaderLock held(file, FileLock_Exclusive);
  if (!StartChange(held)) return false;
  const ZIXIndexKey wanted(key, length, keysize(), flags());
  const size_t size = static_cast<size_t>(keysize());
  Insertion work = {wanted, record, std::make_unique<unsigned char[]>(size)};
  memcpy(work.promoted.get(), wanted.text(), strlen(reinterpret_cast<const char*>(wanted.text())));
  const int result = DoInsert(startingpage(), nullptr, &work);
  return EndChange(result == Insert_Done || (result == Insert_Promoted && GrowRoot(work)));
}

int ZIXIndexFile::DoInsert(uint32_t pagenum, const Way* above, Insertion* work) {
  // Below a leaf: the entry goes into the page above, with no child page after it.
  if (pagenum == 0) return Insert_Promoted;
  ZIXIndexPage page = BlankPage(pagenum);
  if (!ReadBelow(page, above)) return Insert_Failed;
  const int n = page.numentries();
  int i = 0;
  int difference = 1;
  for (; i < n; i++) {
    difference = work->key.Compare(page.key(i));
    if (difference <= 0) break;
  }
  if (i < n && difference == 0 && (flags() & ZIXIndex_Unique)) {
    Fail({"Index '", View(file_path), "' was created with the UNIQUE flag and the key '",
          reinterpret_cast<const char*>(work->key.text()), "' already exists in the index file"});
    return Insert_Failed;
  }
  const Way way = {&page, above, above ? above->depth + 1 : 1};
  const int result = DoInsert(page.childpage(i), &way, work);
  if (result != Insert_Promoted) return result;
  if (n >= order()) return SplitPage(page, i, way.depth, work) ? Insert_Promoted : Insert_Failed;
  page.Insert(i, work->child, work->record, work->promoted.get());
  return WritePage(page) ? Insert_Done : Insert_Failed;
}

// The header is written first: if the process ends here, the page is lost, but its number is never
// used twice. The new page is written before the old one, which is intact until then.
bool ZIXIndexFile::SplitPage(ZIXIndexPage& page, int i, int depth, Insertion* work) {
  // Do not begin a tree that can't be finished: all pages on the way up may split, and a new root
  // may be added. The file layer refuses positions beyond 2^31.
  const long last = static_cast<long>(numpages()) + depth;
  if (!work->has_split && file->Seek(last * pagesize()) < 0) return WriteError();
  work->has_split = true;
  ZIXIndexPage right = BlankPage(numpages());
  SetNumpages(numpages() + 1);
  if (!WriteHeader()) return false;
  ZIXIndexPage::Split(i, page, right, work->child, work->record, work->promoted.get(),
                      &work->record, work->promoted.get());
  work->child = right.pagenum;
  return WritePage(right) && WritePage(page);
}

bool ZIXIndexFile::GrowRoot(const Insertion& work) {
  ZIXIndexPage root = BlankPage(numpages());
  root.SetChildpage(0, startingpage());
  root.Insert(0, work.child, work.record, work.promoted.get());
  SetNumpages(numpages() + 1);
  SetStartingpage(root.pagenum);
  return WritePage(root);
}
