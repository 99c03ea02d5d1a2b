// xBase tables: a .dbf file of records of one length and, for tables with memo fields, a .dbt file
// of texts in blocks of 512 bytes. docs/formats/xbase-tables.md draws both. Database views work on
// this class; it knows nothing of filters, indexes and variables.
//
// Any number of threads and processes work on one table, each through an object of its own. What
// protects them is short locks on byte ranges of the files, so an object trusts its picture of the
// header only until it has a reason not to:
//
//   range                        lock            for
//   a record's bytes             exclusive       changing that record
//   the .dbf's header            exclusive       appending, writing the header, counting again
//   bytes 0 to 511 of the .dbt   exclusive       appending a memo; shared for reading its header
//
// The order is record, then header, never both at once. The .dbt's lock is taken with one of them
// held, never the other way round. Reading a record takes no lock: the system's write of one record
// is what keeps it whole.

#ifndef ZEPH_BASE_XBASETABLE_H
#define ZEPH_BASE_XBASETABLE_H

#include <memory>
#include <string_view>

#include "base/core/BaseTemplates.h"
#include "base/core/StringClass.h"
#include "base/database/XBaseField.h"
#include "base/host/File.h"

class ZephApplication;

// One open table with one record in memory, used by one thread. An operation that fails answers
// false, or a negative block, and leaves its text in error(); the record in memory is then as it
// was, so that the operation can be tried again. Without files every operation on them fails.
class XBaseTable {
 public:
  // Borrows the application, whose file manager opens the files. The object has no files yet.
  explicit XBaseTable(ZephApplication* application);
  virtual ~XBaseTable();
  XBaseTable(const XBaseTable&) = delete;
  XBaseTable& operator=(const XBaseTable&) = delete;

  // Opens the .dbf and, where the header or a memo field asks for it, the .dbt beside it. Whatever
  // was open is closed. A length of -1 means strlen; mode has bits of FileMode. No record is in
  // memory afterwards. After a failure no file is open.
  [[nodiscard]] bool Open(Zeph_PathType type, const char* path, int length, int mode);
  // Makes an empty table of fields like the given ones, over whatever the files held. A memo_length
  // of 0 means the path that SetMemoPath derives, -1 strlen. Too many fields and too long records
  // are refused before a file is touched. After a failure no file is open.
  [[nodiscard]] bool Create(Zeph_PathType type, const String& path, const char* memo_path,
                            int memo_length, List<XBaseField>& fields);
  // The same on files that are open for writing and empty. Adopts them when it succeeds, the memo
  // file only if there is a memo field; after a failure they stay the caller's. The header takes
  // over the count of records that this object has, 0 in one that had no table.
  [[nodiscard]] bool Create(File* file, const String& path, File* memo, const String& memo_path,
                            List<XBaseField>& fields);
  // Closes the files and empties the paths. The fields stay until the next Open or Create.
  void Close();
  // Gives up the descriptors until the next operation.
  void Deactivate();

  // The path of the .dbt: the path with its last extension replaced. Empty for an empty path.
  void SetMemoPath(const String& path, String& memo_path) const;

  // Loads a record, counted from 1. One behind the last known record is looked for in the header
  // again, since another process may have appended it.
  [[nodiscard]] bool Goto(int record);
  // Writes the record in memory back, changed memos into new blocks first. A memo that can't be
  // written keeps its old block, and that is no failure of the record. A failure behind the write,
  // of the header's date, is one.
  [[nodiscard]] bool Update();
  // Writes the record in memory as a new one behind the last, which it then is. A memo that can't
  // be written has no block in the new record. Originals stay as they are.
  [[nodiscard]] bool Append();
  // Rewrites the deletion flag alone; 0 is not deleted.
  [[nodiscard]] bool UpdateDeleted(int deleted);

  // Calls the operation of that name of every field, in order.
  void SetOriginal();
  void SwapOriginal();

  // Reads the memo that begins in a block. *text receives the bytes with a NUL behind them, made
  // with new[] and owned by the caller; after a failure it is null, or what had been read by then,
  // to be deleted too. *length receives the bytes without the NUL, and is untouched after a
  // failure.
  [[nodiscard]] bool ReadMemoBlock(int block, char** text, int* length);
  // Appends a memo, up to its NUL. Answers its first block's number, or a negative one: -1, or the
  // next free block's as a damaged file has it.
  [[nodiscard]] int WriteMemoBlock(char* text);
  // Stores that a memo's number is too long for its field.
  void MemoNumberError();

  // Stores the text, unless it is a null String.
  void Error(const String& text);
  const String& error() const { return error_text; }

  const String& path() const { return table_path; }
  const String& memo_path() const { return memo_file_path; }
  // The header as this object last read or wrote it: the version byte (0x83 with memo fields), the
  // UTC date of the latest change with the year from 1900 on, counts and lengths.
  int version() const { return header.version; }
  int year() const { return header.year; }
  int month() const { return header.month; }
  int day() const { return header.day; }
  int record_count() const { return header.record_count; }
  int header_length() const { return header.header_length; }
  int record_length() const { return header.record_length; }
  // The record in memory, 0 for none; non-zero if it carries the deletion flag.
  int record_number() const { return current_record; }
  int deleted() const { return is_deleted; }
  // In the order of the descriptors; owned by the table.
  List<XBaseField>& fields() { return field_list; }
  // As last read or written.
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

  // A record on its way from or to the file, with the byte behind it: the larger of what the header
  // says and what the fields take.
  std::unique_ptr<unsigned char[]> record;
  int record_room = 0;
  int fields_length = 0;  // of the fields together
};

#endif
