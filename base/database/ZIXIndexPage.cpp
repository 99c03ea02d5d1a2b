// The layout of one page of an index. Tested in tests/base/database/ZIXIndexPageTest.cpp.

#include "base/database/ZIXIndexPage.h"

#include <algorithm>
#include <cstring>

#include "base/host/File.h"

ZIXIndexPage::ZIXIndexPage(uint32_t pagenum, uint16_t keyrecordsize, uint16_t pagesize)
    : pagenum(pagenum),
      keyrecordsize(keyrecordsize),
      pagesize(pagesize),
      data(new unsigned char[Room()]()) {}

bool ZIXIndexPage::IsLeaf() const {
  const int n = numentries();
  for (int i = 0; i <= n; i++)
    if (childpage(i) != 0) return false;
  return true;
}

int ZIXIndexPage::ChildIndex(uint32_t child) const {
  const int n = numentries();
  for (int i = 0; i <= n; i++)
    if (childpage(i) == child) return i;
  return -1;
}

void ZIXIndexPage::SetKey(int i, const unsigned char* text) {
  const size_t size = static_cast<size_t>(keysize());
  const size_t length = strnlen(reinterpret_cast<const char*>(text), size - 1);
  memcpy(at(12, i), text, length);
  memset(at(12, i) + length, 0, size - length);
}

void ZIXIndexPage::Insert(int i, uint32_t child, uint32_t record, const unsigned char* key) {
  const int n = numentries();
  memmove(at(8, i + 1), at(8, i), static_cast<size_t>(n - i) * keyrecordsize);
  SetRecordnum(i, record);
  SetKey(i, key);
  SetChildpage(i + 1, child);
  SetNumentries(n + 1);
}

void ZIXIndexPage::InsertBefore(int i, uint32_t child, uint32_t record, const unsigned char* key) {
  const int n = numentries();
  memmove(at(4, i + 1), at(4, i), static_cast<size_t>(n - i) * keyrecordsize + 4);
  SetChildpage(i, child);
  SetRecordnum(i, record);
  SetKey(i, key);
  SetNumentries(n + 1);
}

void ZIXIndexPage::Delete(int i) {
  const int n = numentries();
  memmove(at(4, i), at(4, i + 1), static_cast<size_t>(n - i - 1) * keyrecordsize + 4);
  SetNumentries(n - 1);
}

void ZIXIndexPage::DeleteLast() {
  Delete(numentries() - 1);
}

void ZIXIndexPage::CopyEntry(int i, const ZIXIndexPage& from, int j) {
  memcpy(at(8, i), from.at(8, j), static_cast<size_t>(keyrecordsize) - 4);
}

bool ZIXIndexPage::SameEntry(int i, const ZIXIndexPage& other) const {
  return i < numentries() && recordnum(i) == other.recordnum(i) &&
         strcmp(reinterpret_cast<const char*>(key(i)),
                reinterpret_cast<const char*>(other.key(i))) == 0;
}

void ZIXIndexPage::Split(int i, ZIXIndexPage& left, ZIXIndexPage& right, uint32_t child,
                         uint32_t record, const unsigned char* key, uint32_t* record_up,
                         unsigned char* key_up) {
  ZIXIndexPage all(left.pagenum, left.keyrecordsize, left.pagesize);
  all.CopyImage(left.data.get());
  all.Insert(i, child, record, key);
  const int m = all.numentries();
  const int r = m / 2;
  const int kept = m - r - 1;
  const size_t size = left.keyrecordsize;
  memcpy(&left.data[4], &all.data[4], static_cast<size_t>(kept) * size + 4);
  left.SetNumentries(kept);
  *record_up = all.recordnum(kept);
  memcpy(key_up, all.key(kept), static_cast<size_t>(all.keysize()));
  memcpy(&right.data[4], all.at(4, kept + 1), static_cast<size_t>(r) * size + 4);
  right.SetNumentries(r);
}

bool ZIXIndexPage::Read(File* file) {
  int count = 0;
  while (count < pagesize) {
    const int more = file->Read(&data[static_cast<size_t>(count)], pagesize - count);
    if (more < 0) return false;
    if (more == 0) break;
    count += more;
  }
  memset(&data[static_cast<size_t>(count)], 0, Room() - static_cast<size_t>(count));
  if (count < 4) return false;
  const uint32_t n = LittleEndian::Get32(data.get());
  if (n > static_cast<uint32_t>((count - 4) / keyrecordsize)) {
    file->Error(
        "File is corrupt (the number of entries is larger than the maximum entries possible).");
    return false;
  }
  for (int i = 0; i < static_cast<int>(n); i++) at(12, i)[keysize() - 1] = 0;
  return true;
}

bool ZIXIndexPage::Write(File* file) const {
  return file->Write(data.get(), pagesize) == pagesize;
}

void ZIXIndexPage::CopyImage(const unsigned char* image) {
  memcpy(data.get(), image, pagesize);
  memset(&data[pagesize], 0, Room() - pagesize);
}

int ZIXIndexPageStack::CheckForRecursion(unsigned page) {
  for (ZIXIndexPage* above = Top(); above; above = Peek())
    if (above->pagenum == page) return 1;
  return 0;
}
