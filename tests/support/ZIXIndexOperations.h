// Index files made in one line each: their bytes written by hand, and their operations with keys
// that are strings. It does not use the test framework, so that fuzzers can include it.

#ifndef ZEPH_TESTS_SUPPORT_ZIXINDEXOPERATIONS_H
#define ZEPH_TESTS_SUPPORT_ZIXINDEXOPERATIONS_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "base/core/LittleEndian.h"
#include "base/database/ZIXIndexFile.h"
#include "tests/support/ZIXIndexChecker.h"

// The numbers of a header; the defaults are those of a new file.
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

// The result of a search.
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

// All records, from one end to the other.
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

// Runs every operation on an index that may be damaged in any way. Returns an empty text, or a
// fault: a failure without one of the defined texts, or a walk without an end. Changes are left out
// if they would make a file of more than 16 MB.
inline std::string ExerciseZIXIndex(ZIXIndexFile& index, const std::string& path,
                                    size_t file_length) {
  const auto judged = [&](bool good, const char* operation) -> std::string {
    const std::string text = ErrorText(index);
    if (good) return "";
    for (const std::string& start :
         {"Error reading from '" + path + "': ", "Error writing to '" + path + "': ",
          "'" + path + "' is either corrupt or is not a valid index file",
          "'" + path + "' was created by a newer version of the software",
          "Index '" + path + "' was created with the UNIQUE flag and the key '",
          std::string("Record is not in index")})
      if (text.compare(0, start.size(), start) == 0) return "";
    return std::string(operation) + ": " + text;
  };
  std::string fault;
  const auto note = [&](bool good, const char* operation) {
    if (fault.empty()) fault = judged(good, operation);
    return good;
  };
  // A walk reaches each page of the file once, or 1024 pages before it reads the file's length.
  const size_t pages = file_length / static_cast<size_t>(index.pagesize()) + 2048;
  const size_t most = pages * static_cast<size_t>(index.pagesize() / index.keyrecordsize() + 1);
  std::vector<std::string> keys = {"", "0", "5", "key", "m", "~"};
  unsigned record = 0;
  size_t steps = 0;
  bool good = note(index._First(&record, 1), "_First");
  for (const unsigned char* key = nullptr; good && record != 0;) {
    good = note(index._Next(&record, &key, 1), "_Next");
    if (good && record != 0 && keys.size() < 40) {
      keys.emplace_back(reinterpret_cast<const char*>(key));
      if (keys.back().size() >= static_cast<size_t>(index.keysize())) return "a key is too long";
    }
    if (++steps > most) return "_Next finds no end";
  }
  good = note(index._Last(&record, 1), "_Last");
  for (steps = 0; good && record != 0;) {
    good = note(index._Prev(&record, 1), "_Prev");
    if (++steps > most) return "_Prev finds no end";
  }
  int found = 0;
  unsigned number = 0;
  for (const std::string& key : keys) {
    const unsigned char* const text = KeyBytes(key);
    for (int exact : {0, 1}) {
      note(index._Find(text, -1, exact, &record, &found, 1), "_Find");
      note(index._Next(&record, nullptr, 1), "_Next");
      note(index._Find(text, -1, exact, &record, &found, 1), "_Find");
      note(index._Prev(&record, 1), "_Prev");
    }
    if (++number <= 8) (void)index._Seek(text, -1, number, 1);
    if (static_cast<size_t>(index.numpages()) * static_cast<size_t>(index.pagesize()) >> 24)
      continue;
    note(Insert(index, key, 1000 + number), "Insert");
    note(Delete(index, key, number), "Delete");
    note(Delete(index, key, 1000 + number), "Delete");
    note(index._Find(text, -1, 1, &record, &found, 1), "_Find");
    note(index.Delete_Current(record), "Delete_Current");
  }
  return fault;
}

#endif
