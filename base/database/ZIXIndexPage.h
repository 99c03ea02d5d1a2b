// One page of an index file, and the stack of pages from the root to a cursor's page.
//
// Page of `pagesize` bytes, `n` entries, with `size` for keyrecordsize. Integers little-endian:
//
//   offset         bytes      meaning
//   0              4          n
//   4 + i * size   4          child page i, for i from 0 to n: the keys before entry i; the last
//                             one holds the keys after all entries; 0 for none
//   8 + i * size   4          record number of entry i
//   12 + i * size  size - 8   key of entry i, ended by a NUL
//
// The bytes after the last child page are undefined. A page without child pages is a leaf.

#ifndef ZEPH_BASE_ZIXINDEXPAGE_H
#define ZEPH_BASE_ZIXINDEXPAGE_H

#include <cstdint>
#include <memory>

#include "base/core/BaseTemplates.h"
#include "base/core/LittleEndian.h"

class File;

// Works on the page's bytes. No operation checks an index against n, which Read has bounded. The
// buffer has room for one entry more than the page, so that a full page can be split in it.
class ZIXIndexPage {
 public:
  uint32_t pagenum;        // where it belongs in the file
  uint16_t keyrecordsize;  // bytes of an entry with its child page; more than 8
  uint16_t pagesize;       // at least 12
  std::unique_ptr<unsigned char[]> data;
  int32_t position = 0;  // a cursor's entry within the page

  // All bytes 0.
  ZIXIndexPage(uint32_t pagenum, uint16_t keyrecordsize, uint16_t pagesize);

  int numentries() const { return static_cast<int>(LittleEndian::Get32(data.get())); }
  uint32_t childpage(int i) const { return LittleEndian::Get32(at(4, i)); }
  uint32_t recordnum(int i) const { return LittleEndian::Get32(at(8, i)); }
  const unsigned char* key(int i) const { return at(12, i); }
  int keysize() const { return keyrecordsize - 8; }
  bool HasGeometryOf(const ZIXIndexPage& other) const {
    return pagesize == other.pagesize && keyrecordsize == other.keyrecordsize;
  }
  bool IsLeaf() const;
  // The index of a child page, -1 if it is none.
  int ChildIndex(uint32_t child) const;

  void SetNumentries(int n) { LittleEndian::Put32(data.get(), static_cast<uint32_t>(n)); }
  void SetChildpage(int i, uint32_t child) { LittleEndian::Put32(at(4, i), child); }
  void SetRecordnum(int i, uint32_t record) { LittleEndian::Put32(at(8, i), record); }
  // Cuts the key to the room of an entry and fills the rest with NULs.
  void SetKey(int i, const unsigned char* text);

  // Makes entry i and moves the entries from i on up; the new child page follows the entry.
  void Insert(int i, uint32_t child, uint32_t record, const unsigned char* key);
  // The same, with the new child page before the entry.
  void InsertBefore(int i, uint32_t child, uint32_t record, const unsigned char* key);
  // Removes entry i and the child page before it.
  void Delete(int i);
  // Removes the last entry and the child page before it.
  void DeleteLast();
  void CopyEntry(int i, const ZIXIndexPage& from, int j);
  // True if entry i has the same record and key here and in another page of this geometry.
  bool SameEntry(int i, const ZIXIndexPage& other) const;

  // Inserts as Insert does into a full page, then distributes the entries: the first ones stay in
  // left, one is handed up, the others go to right. REQUIRES: key_up has room for keysize bytes.
  static void Split(int i, ZIXIndexPage& left, ZIXIndexPage& right, uint32_t child, uint32_t record,
                    const unsigned char* key, uint32_t* record_up, unsigned char* key_up);

  // Reads the page and ends every key with a NUL in its last byte at the latest. If the file ends
  // within the page, the rest is zeros. Returns false if there is no count, or if the count is more
  // than the bytes read can hold: the file then has the error text. REQUIRES: the file's position
  // is at the page.
  bool Read(File* file);
  bool Write(File* file) const;
  // Copies the bytes of another page of this geometry.
  void CopyImage(const unsigned char* image);

 private:
  const unsigned char* at(int offset, int i) const { return &data[Offset(offset, i)]; }
  unsigned char* at(int offset, int i) { return &data[Offset(offset, i)]; }
  size_t Offset(int offset, int i) const {
    return static_cast<size_t>(offset) + static_cast<size_t>(i) * keyrecordsize;
  }
  size_t Room() const { return size_t{pagesize} + keyrecordsize + 4; }
};

// The pages from the root to the current page, which is on top.
class ZIXIndexPageStack : public Stack<ZIXIndexPage> {
 public:
  ZIXIndexPageStack() : Stack<ZIXIndexPage>(1) {}
  // Returns 1 if a page of that number is on the stack. Moves the stack's cursor.
  int CheckForRecursion(unsigned page);
};

#endif
