// One open index of a database: an index file, and the expression that gives a record's key. Views
// search and step through it; XBaseDatabase.h owns the list of them.

#ifndef ZEPH_BASE_XBASEINDEX_H
#define ZEPH_BASE_XBASEINDEX_H

#include <cstring>

#include "base/core/BaseTemplates.h"
#include "base/core/StringClass.h"
#include "base/database/ZIXIndexFile.h"

class Database;
class Segment;
class ZephApplication;
class ZephVM;

// A key as an expression has left it. The text may belong to a variable: it is valid only until the
// next code runs or a field changes. It need not end in NUL.
class XBaseKey {
 public:
  XBaseKey() = default;
  ~XBaseKey() { Free(); }
  XBaseKey(const XBaseKey&) = delete;
  XBaseKey& operator=(const XBaseKey&) = delete;

  const unsigned char* text() const { return reinterpret_cast<const unsigned char*>(bytes); }
  int length() const { return count; }
  // A text of its own that ends at the first NUL, because an entry's key ends there.
  String Copy() const {
    return String(bytes, static_cast<int>(strnlen(bytes, static_cast<size_t>(count))));
  }

 private:
  friend class XBaseIndex;
  void Free() {
    if (deletable) delete[] bytes;
    bytes = "";
    count = deletable = 0;
  }

  const char* bytes = "";
  int count = 0;
  int deletable = 0;
};

// Made and owned by the database, used on its thread. Operations return false after a failure, with
// the text in error(). Those on the file take its lock; ZIXIndexFile.h describes their arguments.
class XBaseIndex {
 public:
  // Takes one count on the machine, which compiles and runs the key expression. The database is
  // borrowed. Copies the name; a length of -1 means strlen.
  XBaseIndex(ZephVM* vm, Database* database, const char* name, int length);
  virtual ~XBaseIndex();
  XBaseIndex(const XBaseIndex&) = delete;
  XBaseIndex& operator=(const XBaseIndex&) = delete;

  // Gives back the count on the machine, at the end of that machine. Afterwards keys that are not
  // compiled cannot be computed.
  void Release_VM();

  // Opens a file of the data directory for reading and writing. Also opens again after Close.
  [[nodiscard]] bool Open(const String& path);
  // Make an empty index. flags has bits of ZIXIndexFlag. An expression of more than 400 bytes is
  // refused before the file is touched. The second form adopts the file when it succeeds.
  [[nodiscard]] bool Create(const String& path, const unsigned char* expression, long flags);
  [[nodiscard]] bool Create(File* created, const char* path, const unsigned char* expression,
                            long flags);
  bool Close();
  void Deactivate() { file.Deactivate(); }

  [[nodiscard]] bool First(unsigned* record) { return Done(file._First(record, 1)); }
  [[nodiscard]] bool Next(unsigned* record, const unsigned char** key) {
    return Done(file._Next(record, key, 1));
  }
  [[nodiscard]] bool Prev(unsigned* record) { return Done(file._Prev(record, 1)); }
  [[nodiscard]] bool Last(unsigned* record) { return Done(file._Last(record, 1)); }
  [[nodiscard]] bool Find(const unsigned char* key, int length, int exact, unsigned* record,
                          int* found) {
    return Done(file._Find(key, length, exact, record, found, 1));
  }
  [[nodiscard]] bool Seek(const unsigned char* key, int length, unsigned record) {
    return Done(file._Seek(key, length, record, 1));
  }
  [[nodiscard]] bool Insert(unsigned record, const unsigned char* key, int length) {
    return Done(file.Insert(record, key, length));
  }
  [[nodiscard]] bool Delete(unsigned record, const unsigned char* key, int length) {
    return Done(file.Delete(record, key, length));
  }

  // The compiled key expression, borrowed from the machine; null after a failure. Compiles at the
  // first call. Fields without an alias are those of the database.
  Segment* GetSegment();
  // Runs the expression over the current values of the fields. It may call functions of the script,
  // which may use the database; see Database::Evaluation.
  [[nodiscard]] bool ComputeKey(XBaseKey* key);

  const unsigned char* keyexpression() const { return file.keyexpression(); }
  unsigned flags() const { return file.flags(); }
  // Bytes that an entry has for its key, the NUL included.
  int keysize() const { return file.keysize(); }
  String& name() { return name_; }
  const String& path() const { return path_; }
  const String& error() const { return error_; }

 private:
  bool Done(bool done) {
    if (!done) error_ = file.error();
    return done;
  }
  bool Accepts(const char* path, const unsigned char* expression);

  ZephVM* vm;  // this holds one count on it; null after Release_VM
  ZephApplication* application;
  Database* database;
  String name_;
  String path_;
  String error_;
  Segment* segment = nullptr;
  ZIXIndexFile file;
};

// The open indexes of a database; the first is the primary one.
class XBaseIndexList : public SearchableList<XBaseIndex, const char*> {
 public:
  XBaseIndexList() : SearchableList(1) {}
  int Compare(const char* name, XBaseIndex* index) override {
    const String& own_name = index->name();
    return strcmp(name, own_name.data ? own_name.data : "");
  }
  // The index after that one; null at the end. For walks that run code between two steps: such code
  // may move the list's cursor, but the list itself does not change meanwhile.
  XBaseIndex* After(XBaseIndex* index) { return Seek(index) ? Next() : nullptr; }
};

#endif
