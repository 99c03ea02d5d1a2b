// xBase tables: a .dbf file of records of one length and, for tables with memo fields, a .dbt file
// of texts in blocks of 512 bytes. docs/formats/xbase-tables.md draws both. Database views work on
// this class; it knows nothing of filters, indexes and variables.
//
// Any number of threads and processes work on one table, each through an object of its own. Short
// locks on byte ranges of the files protect them, so an object trusts its copy of the header only
// until it has a reason not to:
//
//   range                        lock            for
//   a record's bytes             exclusive       changing that record
//   the .dbf's header            exclusive       appending, writing the header, counting again
//   bytes 0 to 511 of the .dbt   exclusive       appending a memo; shared for reading its header
//
// The order is record, then header, never both at once. The .dbt's lock is taken while one of them
// is held, never the other way round. Reading a record takes no lock: the system writes one record
// in one piece, which keeps it whole.

#ifndef ZEPH_BASE_XBASETABLE_H
#define ZEPH_BASE_XBASETABLE_H

#include <memory>
#include <string_view>

#include "base/core/BaseTemplates.h"
#include "base/core/StringClass.h"
#include "base/database/XBaseField.h"
#include "base/host/File.h"

class ZephApplication;

// One open table with one record in memory, used by one thread. On failure an operation returns
// false, or a negative block number, and leaves its text in error(). The record in memory is then
// as it was, so that the caller can try again. Without open files every operation on them fails.
class XBaseTable {
 public:
  // Borrows the application, whose file manager opens the files. No file is open yet.
  explicit XBaseTable(ZephApplication* application);
  virtual ~XBaseTable();
  XBaseTable(const XBaseTable&) = delete;
  XBaseTable& operator=(const XBaseTable&) = delete;

  // Opens the .dbf and, if the header or a memo field calls for it, the .dbt next to it. Closes the
  // files that were open before. A length of -1 means strlen; mode has bits of FileMode. Afterwards
  // no record is in memory. After a failure no file is open.
  [[nodiscard]] bool Open(Zeph_PathType type, const char* path, int length, int mode);
  // Makes an empty table with fields like the given ones and overwrites what the files held. A
  // memo_length of 0 means the path that SetMemoPath derives, -1 means strlen. Too many fields and
  // too long records are refused before a file is touched. After a failure no file is open.
  [[nodiscard]] bool Create(Zeph_PathType type, const String& path, const char* memo_path,
                            int memo_length, List<XBaseField>& fields);
  // The same on files that the caller has opened. REQUIRES: the files are open for writing and
  // empty. On success adopts them, the memo file only if there is a memo field; after a failure
  // they still belong to the caller. The header gets the count of records that this object has,
  // which is 0 if it had no table.
  [[nodiscard]] bool Create(File* file, const String& path, File* memo, const String& memo_path,
                            List<XBaseField>& fields);
  // Closes the files and empties the paths. The fields stay until the next Open or Create.
  void Close();
  // Gives up the file descriptors; the next operation opens them again.
  void Deactivate();

  // The path of the .dbt: the path with its last extension replaced. Empty for an empty path.
  void SetMemoPath(const String& path, String& memo_path) const;

  // Loads a record, counted from 1. For one past the last known record it reads the header again,
  // because another process may have appended it.
  [[nodiscard]] bool Goto(int number);
  // Writes the record in memory back, changed memos into new blocks first. A memo that can't be
  // written keeps its old block; that does not make Update fail. A failure to update the header's
  // date after the write does.
  [[nodiscard]] bool Update();
  // Appends the record in memory after the last one; the new record is then the current one. A memo
  // that can't be written has no block in the new record. Originals stay as they are.
  [[nodiscard]] bool Append();
  // Rewrites the deletion flag alone; 0 is not deleted.
  [[nodiscard]] bool UpdateDeleted(int deleted);

  // Call the operation of that name of every field, in order.
  void SetOriginal();
  void SwapOriginal();

  // Reads the memo that begins in a block. *text receives the bytes and a NUL, made with new[] and
  // owned by the caller. After a failure *text is null or holds the bytes read by then, which the
  // caller deletes too. *length receives the number of bytes without the NUL; a failure leaves it
  // untouched.
  [[nodiscard]] bool ReadMemoBlock(int block, char** text, int* length);
  // Appends a memo, up to its NUL. Returns the number of its first block, or a negative number on
  // failure: -1, or the negative next free block that a damaged file has.
  [[nodiscard]] int WriteMemoBlock(char* text);
  // Stores the error that a memo's number is too long for its field.
  void MemoNumberError();

  // Stores the text, unless it is a null String.
  void Error(const String& text);
  const String& error() const { return error_text; }

  const String& path() const { return table_path; }
  const String& memo_path() const { return memo_file_path; }
  // The header as this object last read or wrote it: the version byte (0x83 with memo fields), the
  // UTC date of the latest change with the year counted from 1900, counts and lengths.
  int version() const { return header.version; }
  int year() const { return header.year; }
  int month() const { return header.month; }
  int day() const { return header.day; }
  int record_count() const { return header.record_count; }
  int header_length() const { return header.header_length; }
  int record_length() const { return header.record_length; }
  // The number of the record in memory, 0 for none. deleted() is non-zero if it has the deletion
  // flag.
  int record_number() const { return current_record; }
  int deleted() const { return is_deleted; }
  // In the order of the descriptors; owned by the table.
  List<XBaseField>& fields() { return field_list; }
  // The next free block, as last read or written.
  int next_memo_block() const { return next_block; }

 private:
  struct Header {
    int version = 0;
    int year = 0;
    int month = 0;
    int day = 0;
    int record_count = 0;
    int header_length = 0;
    int record_length = 0;
  };

  bool OpenMemoFile(Zeph_PathType type, int mode);
  bool CheckSize(const String& path, List<XBaseField>& fields);
  File* CreateFile(Zeph_PathType type, const String& path);
  bool WriteNewFiles(File* file, File* memo);
  void CloseFiles();

  bool ReadTableHeader();
  bool ReadTableFields();
  bool ReadMemoHeader();
  bool WriteTableHeader();
  bool WriteTableFields();
  bool WriteMemoHeader();
  bool RefreshHeader();

  long RecordOffset(int record) const;
  unsigned char* BlankRecord();
  void BuildRecord(unsigned char* bytes, bool keep_old_memos);
  int WriteMemoText(const char* text);

  bool ReadAll(File* file, const String& path, unsigned char* bytes, int length);
  bool WriteAll(File* file, const String& path, const unsigned char* bytes, int length);
  bool ReadError(File* file, const String& path);
  bool WriteError(File* file, const String& path);
  bool LockError(File* file, const String& path, const char* purpose);
  bool FileError(const char* what, const String& path, std::string_view middle,
                 const String* reason);

  ZephApplication* application;
  File* table_file = nullptr;
  File* memo_file = nullptr;  // null without memo fields
  String table_path;
  String memo_file_path;
  String error_text;
  Header header;
  int current_record = 0;
  int is_deleted = 0;
  List<XBaseField> field_list{1};
  int next_block = 0;

  // A record on its way from or to the file, and one more byte for the end mark. Large enough for
  // the header's record length and for the fields, whichever is more.
  std::unique_ptr<unsigned char[]> record;
  int record_room = 0;
  int fields_length = 0;  // sum over all fields
};

#endif
