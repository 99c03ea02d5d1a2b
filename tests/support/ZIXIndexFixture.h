// Index files in memory, for tests: made, filled and read back in a line each.

#ifndef ZEPH_TESTS_SUPPORT_ZIXINDEXFIXTURE_H
#define ZEPH_TESTS_SUPPORT_ZIXINDEXFIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/LittleEndian.h"
#include "base/ZIXIndexFile.h"
#include "tests/support/FaultyFile.h"
#include "tests/support/TestApplication.h"
#include "tests/support/ZIXIndexChecker.h"

// Numbers of a header; the default ones are those of a new file.
struct ZIXIndexShape {
  unsigned flags = 0;
  int order = 8;
  int pagesize = 1024;
  int keyrecordsize = 108;
};

// The bytes of a header, written by hand.
inline std::string ZIXIndexHeaderBytes(const ZIXIndexShape& shape, uint32_t updatecount,
                                       uint32_t numpages, uint32_t startingpage,
                                       const std::string& expression) {
  std::string bytes = std::string("ZIXI") + '\3';
  LittleEndian::Append32(&bytes, static_cast<int32_t>(updatecount));
  LittleEndian::Append32(&bytes, static_cast<int32_t>(numpages));
  LittleEndian::Append32(&bytes, static_cast<int32_t>(startingpage));
  LittleEndian::Append16(&bytes, static_cast<uint16_t>(shape.order));
  LittleEndian::Append16(&bytes, static_cast<uint16_t>(shape.pagesize));
  LittleEndian::Append16(&bytes, static_cast<uint16_t>(shape.keyrecordsize));
  LittleEndian::Append32(&bytes, static_cast<int32_t>(shape.flags));
  bytes += expression;
  bytes.resize(427);
  return bytes;
}

// A page of leaf entries, or, with child pages, of inner ones.
inline std::string ZIXIndexPageBytes(const ZIXIndexShape& shape,
                                     const std::vector<ZIXIndexEntry>& entries,
                                     const std::vector<uint32_t>& children = {}) {
  std::string bytes;
  LittleEndian::Append32(&bytes, static_cast<int32_t>(entries.size()));
  for (size_t i = 0; i <= entries.size(); i++) {
    LittleEndian::Append32(&bytes, static_cast<int32_t>(i < children.size() ? children[i] : 0));
    if (i == entries.size()) break;
    LittleEndian::Append32(&bytes, static_cast<int32_t>(entries[i].second));
    std::string key = entries[i].first;
    key.resize(static_cast<size_t>(shape.keyrecordsize) - 8);
    bytes += key;
  }
  bytes.resize(static_cast<size_t>(shape.pagesize));
  return bytes;
}

inline std::string EmptyZIXIndex(const ZIXIndexShape& shape) {
  std::string bytes = ZIXIndexHeaderBytes(shape, 0, 2, 1, "key");
  bytes.resize(2 * static_cast<size_t>(shape.pagesize));
  return bytes;
}

inline const unsigned char* KeyBytes(const std::string& key) {
  return reinterpret_cast<const unsigned char*>(key.c_str());
}

inline bool Insert(ZIXIndexFile& index, const std::string& key, unsigned record) {
  return index.Insert(record, KeyBytes(key), static_cast<int>(key.size()));
}

inline bool Delete(ZIXIndexFile& index, const std::string& key, unsigned record) {
  return index.Delete(record, KeyBytes(key), static_cast<int>(key.size()));
}

// Where a search ended.
struct ZIXIndexFound {
  bool good;
  int found;
  unsigned record;
  bool operator==(const ZIXIndexFound&) const = default;
};

inline ZIXIndexFound Find(ZIXIndexFile& index, const std::string& key, int exact = 1) {
  ZIXIndexFound result = {false, -1, 99999};
  result.good = index._Find(KeyBytes(key), static_cast<int>(key.size()), exact, &result.record,
                            &result.found, 1);
  return result;
}

// The record of a step; 99999 if it failed.
inline unsigned First(ZIXIndexFile& index) {
  unsigned record = 0;
  return index._First(&record, 1) ? record : 99999;
}
inline unsigned Last(ZIXIndexFile& index) {
  unsigned record = 0;
  return index._Last(&record, 1) ? record : 99999;
}
inline unsigned Next(ZIXIndexFile& index) {
  unsigned record = 0;
  return index._Next(&record, nullptr, 1) ? record : 99999;
}
inline unsigned Prev(ZIXIndexFile& index) {
  unsigned record = 0;
  return index._Prev(&record, 1) ? record : 99999;
}

// The records from end to end.
inline std::vector<unsigned> Forward(ZIXIndexFile& index) {
  std::vector<unsigned> records;
  for (unsigned record = First(index); record != 0 && record != 99999; record = Next(index))
    records.push_back(record);
  return records;
}
inline std::vector<unsigned> Backward(ZIXIndexFile& index) {
  std::vector<unsigned> records;
  for (unsigned record = Last(index); record != 0 && record != 99999; record = Prev(index))
    records.push_back(record);
  return records;
}

inline std::string ErrorText(const ZIXIndexFile& index) {
  return index.error().data ? std::string(index.error().data) : "";
}

// One file "i.zix" and an object on it.
class ZIXIndexFixture : public testing::Test {
 protected:
  ZIXIndexFixture() { application.SetFileManager(&files); }

  void Create(unsigned flags = 0) {
    ASSERT_TRUE(index.Create(ZephPath_Data, "i.zix", KeyBytes("key"), flags)) << ErrorText(index);
  }
  void OpenBytes(const std::string& content) {
    bytes() = content;
    Open(index);
  }
  void Open(ZIXIndexFile& other) {
    ASSERT_TRUE(other.Open(ZephPath_Data, "i.zix", 3)) << ErrorText(other);
  }
  // Keys "a", "b", "c" and so on, with records 1, 2, 3.
  void InsertLetters(int count) {
    for (int i = 0; i < count; i++)
      ASSERT_TRUE(
          Insert(index, std::string(1, static_cast<char>('a' + i)), static_cast<unsigned>(i) + 1))
          << ErrorText(index);
  }
  std::string& bytes() { return files.files["i.zix"]; }
  std::string Check() { return ZIXIndexChecker(bytes()).Check(); }
  std::vector<ZIXIndexEntry> Entries() {
    ZIXIndexChecker checker(bytes());
    EXPECT_EQ("", checker.Check());
    return checker.entries;
  }

  TestApplication application;
  FaultyFileManager files{&application};
  ZIXIndexFile index{&application};
};

#endif
