// Index files: one B-tree of text keys in one file, each key with the number of a table's record.
// docs/formats/index-file.md draws the file. XBaseIndex works on this class: it computes the keys.
//
// The file is an array of pages; page 0 holds the header. Entries are in inner pages as well as in
// leaves. Any number of threads and processes share a file, each through an object of its own:
//
//   range            lock       for
//   bytes 0 to 426   shared     an operation that reads
//   bytes 0 to 426   exclusive  an operation that changes
//
// An operation takes the lock, reads the header, and releases the lock at its end, so that two
// changes never overlap. Between operations a cursor keeps copies of its page and the pages above,
// and holds no lock. Others may then change the tree. The header's updatecount shows that, and the
// cursor finds its place again by key and record.
//
// A step that needs no other page takes no lock if that would change nothing. At a moment in which
// no one holds the exclusive lock, the file's header has to be the one in memory, under which the
// cursor's pages were read. Then the step is the one that a shared lock at that moment would have
// given. IsCurrent in ZIXIndexFile_Cursor.cpp has the argument.
//
// Units: ZIXIndexFile.cpp (life, header and pages), ZIXIndexFile_Cursor.cpp (search and steps),
// ZIXIndexFile_Insert.cpp, ZIXIndexFile_Delete.cpp.

#ifndef ZEPH_BASE_ZIXINDEXFILE_H
#define ZEPH_BASE_ZIXINDEXFILE_H

#include <initializer_list>
#include <memory>
#include <string_view>
#include <vector>

#include "base/core/LittleEndian.h"
#include "base/core/StringClass.h"
#include "base/database/ZIXIndexKey.h"
#include "base/database/ZIXIndexPage.h"
#include "base/host/File.h"

class ZephApplication;

// The header in the file: offset, with the bytes in the comment.
enum ZIXIndexHeader : int {
  ZIXHeader_Identifier = 0,      // 4, "ZIXI"
  ZIXHeader_Version = 4,         // 1
  ZIXHeader_UpdateCount = 5,     // 4, raised by every completed insert or delete
  ZIXHeader_NumPages = 9,        // 4, page 0 included
  ZIXHeader_StartingPage = 13,   // 4, the root
  ZIXHeader_Order = 17,          // 2, the most entries that a page keeps
  ZIXHeader_PageSize = 19,       // 2
  ZIXHeader_KeyRecordSize = 21,  // 2
  ZIXHeader_Flags = 23,          // 4, bits of ZIXIndexFlag
  ZIXHeader_KeyExpression = 27,  // 400, NUL-padded
  ZIXHeader_Length = 427,
};

// One open index file with one cursor, used by one thread. Operations return false after a failure,
// with the text in error(). There is no journal: the writes of a failed change stay in the file.
//
// Record numbers count from 1; 0 means no record. Both ends of the index give record 0 too, which
// is no failure. In all operations a key length of -1 means strlen, and a key longer than keysize()
// - 1 bytes is cut. `lock` is 0 only for a caller that already holds the header's lock, or whose
// file is unknown to every other process and thread.
//
// If the lock fails or the header can't be read, _First, _Last, _Next and _Prev return true with
// record 0, as at an end, and the text is in error() all the same. They return false when a page
// can't be read.
class ZIXIndexFile {
 public:
  // Borrows the application, whose file manager opens the file.
  explicit ZIXIndexFile(ZephApplication* application);
  ~ZIXIndexFile();
  ZIXIndexFile(const ZIXIndexFile&) = delete;
  ZIXIndexFile& operator=(const ZIXIndexFile&) = delete;

  // mode has bits of FileMode. Closes the file that was open before; after a failure no file is
  // open.
  [[nodiscard]] bool Open(Zeph_PathType type, const char* path, int mode);
  // Makes an empty index and overwrites what the file held. At most 400 bytes of the expression are
  // kept: the caller refuses longer ones. flags has bits of ZIXIndexFlag. The second form adopts
  // created when it succeeds. REQUIRES: created is open for reading and writing.
  [[nodiscard]] bool Create(Zeph_PathType type, const char* path,
                            const unsigned char* keyexpression, unsigned flags);
  [[nodiscard]] bool Create(File* created, const char* path, const unsigned char* keyexpression,
                            unsigned flags);
  // Deletes the file object. Always returns true.
  bool Close();
  // Gives up the descriptor; the next operation opens it again. The cursor stays.
  void Deactivate();

  // Go to an end of the index.
  [[nodiscard]] bool _First(unsigned* record, int lock);
  [[nodiscard]] bool _Last(unsigned* record, int lock);
  // Go to the next or previous entry. *key, if key is not null, receives the entry's key, valid
  // until the next operation; at the end of the index it is untouched. A cursor that is on no entry
  // steps to record 0, and so does one whose entry others have deleted.
  [[nodiscard]] bool _Next(unsigned* record, const unsigned char** key, int lock);
  [[nodiscard]] bool _Prev(unsigned* record, int lock);
  // Looks for the first entry with the key or, with exact 0, the first whose bytes begin with it.
  // Without a match *found is 0 and *record is that of the entry just before the key's place, 0 if
  // there is none. The cursor is then in the page of that entry, just after it. If no entry is
  // before the key, the cursor is at the end of the way down, on the first entry.
  [[nodiscard]] bool _Find(const unsigned char* key, int length, int exact, unsigned* record,
                           int* found, int lock);
  // Positions on the entry with that record, searched from the first entry with the key on. Returns
  // false if there is none.
  [[nodiscard]] bool _Seek(const unsigned char* key, int length, unsigned record, int lock);

  // The key of the cursor's entry, valid until the next operation; null when the cursor is on no
  // entry.
  const unsigned char* current_key();

  // Adds an entry before those with an equal key. After Insert and Delete the cursor finds its
  // place again at its next step.
  [[nodiscard]] bool Insert(unsigned record, const unsigned char* key, int length);
  // Removes an entry. Fails if the entry is not there.
  [[nodiscard]] bool Delete(unsigned record, const unsigned char* key, int length);
  // Removes the cursor's entry if it is still there and has that record; otherwise does nothing and
  // returns true. Afterwards the cursor is on no entry. updatecount stays, so cursors of other
  // objects do not notice.
  [[nodiscard]] bool Delete_Current(unsigned record);

  // The order of a against b: negative, 0 or positive. With exact 0 the result is 0 if b begins
  // with a.
  static int Compare(const unsigned char* a, const unsigned char* b, int exact, int flags);
  // Returns -1, 0 or 1, and -2 for texts that are not both numbers.
  static int NumberCompare(const unsigned char* a, const unsigned char* b);

  // The header as this object last read or wrote it.
  std::string_view identifier() const { return {reinterpret_cast<const char*>(header.get()), 4}; }
  unsigned version() const { return header[ZIXHeader_Version]; }
  uint32_t updatecount() const { return Get32(ZIXHeader_UpdateCount); }
  uint32_t numpages() const { return Get32(ZIXHeader_NumPages); }
  uint32_t startingpage() const { return Get32(ZIXHeader_StartingPage); }
  int order() const { return Get16(ZIXHeader_Order); }
  int pagesize() const { return Get16(ZIXHeader_PageSize); }
  int keyrecordsize() const { return Get16(ZIXHeader_KeyRecordSize); }
  // Bytes that an entry has for its key, the NUL included.
  int keysize() const { return keyrecordsize() - 8; }
  unsigned flags() const { return Get32(ZIXHeader_Flags); }
  // NUL-terminated, at most 400 bytes.
  const unsigned char* keyexpression() const { return &header[ZIXHeader_KeyExpression]; }

  // These change only the header in memory; the next operation reads it from the file again.
  void SetIdentifier(std::string_view four_bytes);
  void SetVersion(unsigned value) { header[ZIXHeader_Version] = static_cast<unsigned char>(value); }
  void SetUpdatecount(uint32_t value) { Put32(ZIXHeader_UpdateCount, value); }
  void SetNumpages(uint32_t value) { Put32(ZIXHeader_NumPages, value); }
  void SetStartingpage(uint32_t value) { Put32(ZIXHeader_StartingPage, value); }
  void SetOrder(int value) { Put16(ZIXHeader_Order, value); }
  void SetPagesize(int value) { Put16(ZIXHeader_PageSize, value); }
  void SetKeyrecordsize(int value) { Put16(ZIXHeader_KeyRecordSize, value); }
  void SetKeysize(int value) { SetKeyrecordsize(value + 8); }

  const String& path() const { return file_path; }
  const String& error() const { return error_text; }
  bool is_open() const { return file != nullptr; }

 private:
  // Holds the header's lock during an operation.
  class HeaderLock {
   public:
    // With lock 0, or without a file, takes no lock.
    HeaderLock(File* locked, FileLockType type, int lock = 1);
    ~HeaderLock();
    HeaderLock(const HeaderLock&) = delete;
    HeaderLock& operator=(const HeaderLock&) = delete;
    bool failed() const { return has_failed; }

   private:
    File* file;  // null unless it is locked
    bool has_failed = false;
  };

  // A page that a recursion is in, linked to those above it.
  struct Way {
    const ZIXIndexPage* page;
    const Way* above;
    int depth;  // the root's is 1
  };

  enum InsertResult { Insert_Promoted = 0, Insert_Failed = 1, Insert_Done = 2 };
  // The state that an insertion carries through the tree.
  struct Insertion {
    const ZIXIndexKey& key;
    // The entry that the page above has to add, and the child page after it.
    uint32_t record;
    std::unique_ptr<unsigned char[]> promoted;
    uint32_t child = 0;
    bool has_split = false;
  };

  enum DeleteState { Delete_Search = 0, Delete_Position = 1, Delete_Successor = 2 };
  enum DeleteResult {
    Delete_Done = 0,
    Delete_Underflow = 1,
    Delete_NotFound = 2,
    Delete_Failed = 3
  };
  struct Deletion {
    const ZIXIndexKey& key;
    uint32_t record;
    long pages_read = 0;
  };

  uint16_t Get16(int at) const { return LittleEndian::Get16(&header[static_cast<size_t>(at)]); }
  uint32_t Get32(int at) const { return LittleEndian::Get32(&header[static_cast<size_t>(at)]); }
  void Put16(int at, int value) {
    LittleEndian::Put16(&header[static_cast<size_t>(at)], static_cast<uint16_t>(value));
  }
  void Put32(int at, uint32_t value) {
    LittleEndian::Put32(&header[static_cast<size_t>(at)], value);
  }
  bool IsRoot(const ZIXIndexPage& page) const { return page.pagenum == startingpage(); }
  // The fewest entries of a page but the root; at least 1.
  int Minimum() const { return order() / 2 - 1; }
  ZIXIndexPage BlankPage(uint32_t pagenum) const {
    return ZIXIndexPage(pagenum, Get16(ZIXHeader_KeyRecordSize), Get16(ZIXHeader_PageSize));
  }

  static std::string_view View(const String& text);

  // Failures; all return false.
  bool Fail(std::initializer_list<std::string_view> parts);
  bool ReadError();
  bool WriteError();
  bool LockError(const char* purpose);
  bool CorruptTree();

  // Header and pages.
  void CloseFile();
  bool ReadHeader();
  bool CheckHeader(const unsigned char* bytes);
  bool WriteHeader();
  bool WriteNewFile(const unsigned char* keyexpression, unsigned flags);
  bool LoadPage(ZIXIndexPage& page);
  bool ReadPage(ZIXIndexPage& page);
  bool ReadBelow(ZIXIndexPage& page, const Way* above);
  bool WritePage(const ZIXIndexPage& page);
  bool TooManyPages(long count);

  // The cursor.
  bool StartReading(const HeaderLock& lock);
  bool PushPage(uint32_t pagenum);
  std::unique_ptr<ZIXIndexPage> PopPage();
  void DropPage();
  void ClearPages();
  bool OnEntry();
  bool Search(const ZIXIndexKey& key, int exact, unsigned* record, int* found);
  bool NeedsNoPage(int direction);
  bool IsCurrent();
  bool HasHeaderOfFile();
  bool NoteDirection(int direction);
  bool StartStep(const HeaderLock& lock, int direction);
  bool FindPlace();
  bool StepForward(unsigned* record);
  bool StepBackward(unsigned* record);
  bool DescendLeft(uint32_t child, unsigned* record);
  bool DescendRight(uint32_t child, unsigned* record);
  bool AnswerEntry(int position, unsigned* record);

  // Changes.
  bool StartChange(const HeaderLock& lock);
  bool EndChange(bool done);
  int DoInsert(uint32_t pagenum, const Way* above, Insertion* work);
  bool SplitPage(ZIXIndexPage& page, int i, int depth, Insertion* work);
  bool GrowRoot(const Insertion& work);
  int DoDelete(DeleteState state, ZIXIndexPage* parent, ZIXIndexPage& page, const Way* above,
               Deletion* work);
  int SearchAndDelete(ZIXIndexPage& page, const Way& way, Deletion* work);
  int DeleteEntry(ZIXIndexPage& page, const Way& way, Deletion* work);
  int TakeSuccessor(ZIXIndexPage& parent, ZIXIndexPage& page, const Way& way, Deletion* work);
  int DeleteBelow(DeleteState state, ZIXIndexPage* parent, ZIXIndexPage& page, uint32_t child,
                  const Way& way, Deletion* work);
  int RemoveFromLeaf(ZIXIndexPage& page, int i);
  int DeleteAtCursor(Deletion* work);
  bool ReadPlaceAgain();
  int HandleUnderflow(ZIXIndexPage& parent, ZIXIndexPage& child);
  bool ReadSibling(ZIXIndexPage& sibling, const ZIXIndexPage& parent, const ZIXIndexPage& child);
  bool Redistribute(ZIXIndexPage& left, ZIXIndexPage& parent, ZIXIndexPage& right);
  void MoveLeft(ZIXIndexPage& left, ZIXIndexPage& parent, int separator, ZIXIndexPage& right);
  bool MoveRight(ZIXIndexPage& left, ZIXIndexPage& parent, int separator, ZIXIndexPage& right);
  bool Concatenate(ZIXIndexPage& left, ZIXIndexPage& parent, ZIXIndexPage& right);

  ZephApplication* application;
  File* file = nullptr;
  std::unique_ptr<unsigned char[]> header;  // with a NUL after it, for the expression
  ZIXIndexPageStack pages;
  String file_path;
  String error_text;

  // The updatecount when the cursor's pages were read. Changes by this object count as those of
  // others.
  uint32_t cursor_updatecount = 0;
  int depth = 0;      // of the stack
  long descents = 0;  // pages pushed since the cursor was placed or changed direction
  int last_direction = 0;
  std::vector<std::unique_ptr<ZIXIndexPage>> spare_pages;
};

#endif
