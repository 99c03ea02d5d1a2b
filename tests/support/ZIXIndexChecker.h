// Reads the bytes of an index file without the engine's class, and checks that they are a tree as
// the format requires.

#ifndef ZEPH_TESTS_SUPPORT_ZIXINDEXCHECKER_H
#define ZEPH_TESTS_SUPPORT_ZIXINDEXCHECKER_H

#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

// Key and record number.
using ZIXIndexEntry = std::pair<std::string, uint32_t>;

// One walk over one file.
class ZIXIndexChecker {
 public:
  // Borrows the file's bytes.
  explicit ZIXIndexChecker(const std::string& file) : bytes(file) {}

  // Returns the first fault, empty for a valid index: in the header's numbers, pages out of range
  // or reached twice, too many or too few entries, leaves at different depths, keys without an end
  // or out of order, equal keys in a UNIQUE index, record number 0.
  std::string Check();

  // Found by Check: all entries in order, the pages in use, and the depth, 1 for a root alone.
  std::vector<ZIXIndexEntry> entries;
  std::set<uint32_t> pages;
  int depth = 0;

  uint32_t updatecount() const { return Get(5, 4); }
  uint32_t numpages() const { return Get(9, 4); }
  uint32_t startingpage() const { return Get(13, 4); }
  uint32_t order() const { return Get(17, 2); }
  uint32_t pagesize() const { return Get(19, 2); }
  uint32_t keyrecordsize() const { return Get(21, 2); }
  uint32_t flags() const { return Get(23, 4); }

  // Entries of a page.
  uint32_t Count(uint32_t page) const { return Get(size_t{page} * pagesize(), 4); }
  uint32_t Child(uint32_t page, uint32_t i) const { return Get(At(page, i, 4), 4); }
  uint32_t Record(uint32_t page, uint32_t i) const { return Get(At(page, i, 8), 4); }
  std::string Key(uint32_t page, uint32_t i) const;

 private:
  uint32_t Get(size_t at, int width) const;
  size_t At(uint32_t page, uint32_t i, size_t offset) const {
    return size_t{page} * pagesize() + offset + size_t{i} * keyrecordsize();
  }
  std::string Walk(uint32_t page, int level);
  std::string CheckOrder() const;

  const std::string& bytes;
};

#endif
