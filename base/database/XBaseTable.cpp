// The table on its files: headers, records and memos. Tested in
// tests/base/database/XBaseTableTest.cpp, XBaseDamageTest.cpp, XBaseSharedTableTest.cpp and
// XBaseKilledTest.cpp.
//
// Divisions, in this order: texts of failures and whole reads and writes; headers; opening and
// creating; records; memos.

#include "base/database/XBaseTable.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "base/core/LittleEndian.h"
#include "base/database/XBaseMemoField.h"
#include "base/host/ZephApplication.h"

namespace {

constexpr int version_plain = 0x03;
constexpr int version_memo = 0x83;
constexpr int fixed_header_length = 32;
constexpr int descriptor_length = 32;
constexpr int least_header_length = fixed_header_length + 1;
constexpr int name_room = 11;
constexpr int most_fields = 2046;
constexpr long longest_record = 65535;
constexpr int block_length = 512;
constexpr unsigned char header_end = 0x0D;
constexpr unsigned char text_end = 0x1A;
constexpr unsigned char flag_deleted = '*';
constexpr unsigned char flag_kept = ' ';
constexpr char type_letters[] = "CNDLM";  // the index is an XBaseFieldType

// Locks a byte range for as long as this object lives. The range is kept as it was locked, because
// the header that it was computed from may have changed by the time it is released.
class RangeLock {
 public:
  RangeLock(File* locked_file, FileLockType type, long first, long count)
      : file(locked_file), start(first), length(count) {
    held = file && file->Lock(type, start, length);
  }
  ~RangeLock() { Release(); }
  RangeLock(const RangeLock&) = delete;
  RangeLock& operator=(const RangeLock&) = delete;

  explicit operator bool() const { return held; }
  void Release() {
    if (!std::exchange(held, false)) return;
    try {
      file->Release(start, length);
    } catch (const std::bad_alloc&) {
      // There was no memory for the text of a failure, which no one reads.
    }
  }

 private:
  File* file;
  long start;
  long length;
  bool held;
};

XBaseField* MakeField(XBaseTable* table, const char* name, int name_length, XBaseFieldType type,
                      int length, int decimals) {
  if (type == XBaseField_Memo)
    return new XBaseMemoField(table, name, name_length, length, decimals);
  return new XBaseField(table, name, name_length, type, length, decimals);
}

}  // namespace

// --- Failures, whole reads and writes ------------------------------------------------------------

void XBaseTable::Error(const String& text) {
  if (text.data) error_text = text;
}

bool XBaseTable::FileError(const char* what, const String& path, std::string_view middle,
                           const String* reason) {
  String text(what);
  text.cat(path.data, path.length);
  text.cat(middle.data(), static_cast<int>(middle.size()));
  if (reason) text.cat(reason->data, reason->length);
  error_text = std::move(text);
  return false;
}

bool XBaseTable::ReadError(File* file, const String& path) {
  return FileError("Error reading from '", path, "': ", file ? &file->error() : nullptr);
}

bool XBaseTable::WriteError(File* file, const String& path) {
  return FileError("Error writing to '", path, "': ", file ? &file->error() : nullptr);
}

bool XBaseTable::LockError(File* file, const String& path, const char* purpose) {
  return FileError("Error locking '", path, purpose, file ? &file->error() : nullptr);
}

bool XBaseTable::ReadAll(File* file, const String& path, unsigned char* bytes, int length) {
  int done = 0;
  while (done < length) {
    const int count = file->Read(bytes + done, length - done);
    if (count <= 0) return ReadError(file, path);
    done += count;
  }
  return true;
}

// Continues after a short write, which has no error text; the next write reports that the disk is
// full.
bool XBaseTable::WriteAll(File* file, const String& path, const unsigned char* bytes, int length) {
  int done = 0;
  while (done < length) {
    const int count = file->Write(bytes + done, length - done);
    if (count <= 0) return WriteError(file, path);
    done += count;
  }
  return true;
}

// --- Headers -------------------------------------------------------------------------------------

// A refused header changes nothing in this object. A count of 2^31 or more and a header without
// room for its own end are refused with the text of a read error. With such numbers, records would
// be read and written in the wrong places.
bool XBaseTable::ReadTableHeader() {
  unsigned char bytes[fixed_header_length];
  if (!table_file || table_file->Seek(0) != 0) return ReadError(table_file, table_path);
  if (!ReadAll(table_file, table_path, bytes, sizeof(bytes))) return false;
  Header found;
  found.version = bytes[0];
  found.year = bytes[1];
  found.month = bytes[2];
  found.day = bytes[3];
  found.record_count = LittleEndian::GetInt32(bytes + 4);
  found.header_length = LittleEndian::Get16(bytes + 8);
  found.record_length = LittleEndian::Get16(bytes + 10);
  if (found.version != version_plain && found.version != version_memo) {
    char middle[64];
    snprintf(middle, sizeof(middle), "': Unsupported xBase file version (0x%02X)", found.version);
    return FileError("'", table_path, middle, nullptr);
  }
  if (found.header_length < least_header_length || found.record_count < 0)
    return ReadError(table_file, table_path);
  header = found;
  return true;
}

bool XBaseTable::ReadTableFields() {
  field_list.Dump();
  fields_length = 0;
  const int room = header.header_length - fixed_header_length;
  std::unique_ptr<unsigned char[]> block(new unsigned char[static_cast<size_t>(room)]);
  if (table_file->Seek(fixed_header_length) != fixed_header_length)
    return ReadError(table_file, table_path);
  if (!ReadAll(table_file, table_path, block.get(), room)) return false;
  const int count = (room - 1) / descriptor_length;
  for (int i = 0; i < count; i++) {
    const unsigned char* bytes = block.get() + static_cast<size_t>(i) * descriptor_length;
    const char* name = reinterpret_cast<const char*>(bytes);
    const int name_length = static_cast<int>(strnlen(name, name_room));
    const char letter = static_cast<char>(bytes[name_room]);
    const size_t type = std::string_view(type_letters).find(letter);
    if (type == std::string_view::npos) {
      String middle("' contains an unsupported field (");
      middle.cat(name, name_length);
      middle.cat(") of type '");
      middle.cat(&letter, 1);
      middle.cat("'");
      return FileError("'", table_path, std::string_view(middle.data, middle.length), nullptr);
    }
    if (type == XBaseField_Memo) header.version = version_memo;
    InsertOwned(
        field_list,
        std::unique_ptr<XBaseField>(MakeField(
            this, name, name_length, static_cast<XBaseFieldType>(type), bytes[16], bytes[17])),
        ListTail);
    fields_length += bytes[16];
  }
  return true;
}

bool XBaseTable::ReadMemoHeader() {
  unsigned char bytes[block_length];
  if (memo_file->Seek(0) != 0) return ReadError(memo_file, memo_file_path);
  if (!ReadAll(memo_file, memo_file_path, bytes, sizeof(bytes))) return false;
  next_block = LittleEndian::GetInt32(bytes);
  return true;
}

bool XBaseTable::WriteTableHeader() {
  const time_t now = time(nullptr);
  struct tm date = {};
  gmtime_r(&now, &date);
  header.year = date.tm_year & 0xFF;
  header.month = date.tm_mon + 1;
  header.day = date.tm_mday;
  unsigned char bytes[fixed_header_length] = {};
  bytes[0] = static_cast<unsigned char>(header.version);
  bytes[1] = static_cast<unsigned char>(header.year);
  bytes[2] = static_cast<unsigned char>(header.month);
  bytes[3] = static_cast<unsigned char>(header.day);
  LittleEndian::Put32(bytes + 4, static_cast<uint32_t>(header.record_count));
  LittleEndian::Put16(bytes + 8, static_cast<uint16_t>(header.header_length));
  LittleEndian::Put16(bytes + 10, static_cast<uint16_t>(header.record_length));
  if (table_file->Seek(0) != 0) return WriteError(table_file, table_path);
  return WriteAll(table_file, table_path, bytes, sizeof(bytes));
}

bool XBaseTable::WriteTableFields() {
  const int room = header.header_length - fixed_header_length;
  std::unique_ptr<unsigned char[]> block(new unsigned char[static_cast<size_t>(room)]());
  unsigned char* bytes = block.get();
  for (XBaseField* field = field_list.First(); field; field = field_list.Next()) {
    memcpy(bytes, field->name(), strnlen(field->name(), name_room));
    bytes[name_room] = static_cast<unsigned char>(type_letters[field->type()]);
    bytes[16] = static_cast<unsigned char>(field->length());
    bytes[17] = static_cast<unsigned char>(field->decimalcount());
    bytes += descriptor_length;
  }
  *bytes = header_end;
  if (table_file->Seek(fixed_header_length) != fixed_header_length)
    return WriteError(table_file, table_path);
  return WriteAll(table_file, table_path, block.get(), room);
}

bool XBaseTable::WriteMemoHeader() {
  unsigned char bytes[block_length] = {};
  LittleEndian::Put32(bytes, static_cast<uint32_t>(next_block));
  if (memo_file->Seek(0) != 0) return WriteError(memo_file, memo_file_path);
  return WriteAll(memo_file, memo_file_path, bytes, sizeof(bytes));
}

// Reads the header from the file and writes it back with today's date: another process may have
// appended since this object last looked.
bool XBaseTable::RefreshHeader() {
  RangeLock lock(table_file, FileLock_Exclusive, 0, header.header_length);
  if (!lock) return LockError(table_file, table_path, "' for write: ");
  return ReadTableHeader() && WriteTableHeader();
}

// --- Opening and creating ------------------------------------------------------------------------

XBaseTable::XBaseTable(ZephApplication* application) : application(application) {}

XBaseTable::~XBaseTable() {
  field_list.Dump();
  CloseFiles();
}

void XBaseTable::CloseFiles() {
  delete std::exchange(table_file, nullptr);
  delete std::exchange(memo_file, nullptr);
}

void XBaseTable::Close() {
  CloseFiles();
  table_path = "";
  memo_file_path = "";
}

// Goes through the manager, because the manager opens the files again.
void XBaseTable::Deactivate() {
  for (File* file : {table_file, memo_file})
    if (file) file->manager()->DeactivateFile(file);
}

void XBaseTable::SetMemoPath(const String& path, String& memo_path) const {
  if (path.length == 0) {
    memo_path = "";
    return;
  }
  int stop = path.length - 1;
  while (stop > 0 && path.data[stop] != '.' && path.data[stop] != '/') stop--;
  String result(path.data, path.data[stop] == '.' ? stop : path.length);
  result.cat(".dbt");
  memo_path = std::move(result);
}

bool XBaseTable::Open(Zeph_PathType type, const char* path, int length, int mode) {
  // The caller may pass this object's own path, which Close empties.
  String opened(path, length);
  Close();
  current_record = is_deleted = 0;
  table_path = std::move(opened);
  SetMemoPath(table_path, memo_file_path);
  table_file = application->filemanager()->Open(type, table_path.data, mode);
  if (!table_file)
    return FileError("Error opening '", table_path, "': ", &application->filemanager()->error());
  if (ReadTableHeader() && ReadTableFields() &&
      (header.version != version_memo || OpenMemoFile(type, mode)))
    return true;
  CloseFiles();
  return false;
}

bool XBaseTable::OpenMemoFile(Zeph_PathType type, int mode) {
  FileManager* files = application->filemanager();
  memo_file = files->Open(type, memo_file_path.data, mode);
  if (!memo_file) return FileError("Error opening '", memo_file_path, "': ", &files->error());
  RangeLock lock(memo_file, FileLock_Shared, 0, block_length);
  if (!lock) return LockError(memo_file, memo_file_path, "' for read: ");
  return ReadMemoHeader();
}

// The count of fields and the record's length must be small enough for the header's 16-bit lengths.
bool XBaseTable::CheckSize(const String& path, List<XBaseField>& fields) {
  int count = 0;
  long length = 1;
  for (XBaseField* field = fields.First(); field; field = fields.Next()) {
    count++;
    length += field->length();
  }
  char middle[64];
  if (count > most_fields) {
    snprintf(middle, sizeof(middle), "': too many fields (maximum %d)", most_fields);
  } else if (length > longest_record) {
    snprintf(middle, sizeof(middle), "': record too long, %ld (maximum %ld)", length,
             longest_record);
  } else {
    return true;
  }
  return FileError("Error creating '", path, middle, nullptr);
}

File* XBaseTable::CreateFile(Zeph_PathType type, const String& path) {
  FileManager* files = application->filemanager();
  File* file = files->Open(type, path.data ? path.data : "",
                           FileMode_Read | FileMode_Write | FileMode_Create | FileMode_Truncate);
  if (!file) FileError("Error creating '", path, "': ", &files->error());
  return file;
}

bool XBaseTable::Create(Zeph_PathType type, const String& path, const char* memo_path,
                        int memo_length, List<XBaseField>& fields) {
  if (!CheckSize(path, fields)) return false;
  String chosen;
  if (memo_length == 0 || !memo_path || *memo_path == 0)
    SetMemoPath(path, chosen);
  else
    chosen.assign(memo_path, memo_length);
  std::unique_ptr<File> file(CreateFile(type, path));
  if (!file) return false;
  std::unique_ptr<File> blocks;
  XBaseField* field = fields.First();
  while (field && field->type() != XBaseField_Memo) field = fields.Next();
  if (field) {
    blocks.reset(CreateFile(type, chosen));
    if (!blocks) return false;
  }
  if (!Create(file.get(), path, blocks.get(), chosen, fields)) return false;
  (void)file.release();
  (void)blocks.release();
  return true;
}

bool XBaseTable::Create(File* file, const String& path, File* memo, const String& memo_path,
                        List<XBaseField>& fields) {
  if (!CheckSize(path, fields)) return false;
  // The caller may pass this object's own fields and paths, which change before these are used.
  // NOLINTNEXTLINE(performance-unnecessary-copy-initialization)
  const String new_path = path, new_memo_path = memo_path;
  std::vector<std::unique_ptr<XBaseField>> made;
  header.version = version_plain;
  header.record_length = 1;
  for (XBaseField* field = fields.First(); field; field = fields.Next()) {
    // Owned before the vector grows.
    std::unique_ptr<XBaseField> copy(
        MakeField(this, field->name(), -1, field->type(), field->length(), field->decimalcount()));
    made.push_back(std::move(copy));
    header.record_length += field->length();
    if (field->type() == XBaseField_Memo) header.version = version_memo;
  }
  header.header_length = static_cast<int>(made.size()) * descriptor_length + least_header_length;
  fields_length = header.record_length - 1;
  next_block = 1;
  current_record = is_deleted = 0;
  Close();
  table_path = new_path;
  memo_file_path = new_memo_path;
  field_list.Dump();
  for (auto& field : made) InsertOwned(field_list, std::move(field), ListTail);
  return WriteNewFiles(file, memo);
}

// The files belong to the caller until everything is written, also if memory runs out meanwhile.
bool XBaseTable::WriteNewFiles(File* file, File* memo) {
  struct Attempt {
    ~Attempt() {
      if (!written) table->table_file = table->memo_file = nullptr;
    }
    XBaseTable* table;
    bool written = false;
  };
  if (!file) return FileError("Internal error opening '", table_path, "'", nullptr);
  Attempt attempt{this};
  table_file = file;
  bool written =
      WriteTableHeader() && WriteTableFields() && WriteAll(table_file, table_path, &text_end, 1);
  if (written && header.version == version_memo) {
    memo_file = memo;
    written = memo ? WriteMemoHeader() && WriteAll(memo_file, memo_file_path, &text_end, 1)
                   : FileError("Internal errorl opening '", memo_file_path, "'", nullptr);
  }
  attempt.written = written;
  return written;
}

// --- Records -------------------------------------------------------------------------------------

long XBaseTable::RecordOffset(int record) const {
  return (static_cast<long>(record) - 1) * header.record_length + header.header_length;
}

// The buffer, filled with blanks. In a damaged table the fields may be longer than the header's
// record length: the bytes beyond it are then blank.
unsigned char* XBaseTable::BlankRecord() {
  const int room = std::max(header.record_length, fields_length + 1) + 1;
  if (room > record_room) {
    record.reset(new unsigned char[static_cast<size_t>(room)]);
    record_room = room;
  }
  memset(record.get(), ' ', static_cast<size_t>(room));
  return record.get();
}

bool XBaseTable::Goto(int number) {
  if (number < 1) {
    error_text = "Invalid record number";
    return false;
  }
  if (number > header.record_count || !table_file) {
    RangeLock lock(table_file, FileLock_Exclusive, 0, header.header_length);
    if (!lock) return LockError(table_file, table_path, "' for write: ");
    if (!ReadTableHeader()) return false;
    if (number > header.record_count) {
      error_text = "Invalid record number";
      return false;
    }
  }
  const long offset = RecordOffset(number);
  unsigned char* bytes = BlankRecord();
  if (table_file->Seek(offset) != offset) return ReadError(table_file, table_path);
  if (!ReadAll(table_file, table_path, bytes, header.record_length)) return false;
  is_deleted = *bytes++ == flag_deleted;
  for (XBaseField* field = field_list.First(); field; field = field_list.Next()) {
    field->Read(bytes);
    bytes += field->length();
  }
  current_record = number;
  return true;
}

void XBaseTable::BuildRecord(unsigned char* bytes, bool keep_old_memos) {
  *bytes++ = is_deleted ? flag_deleted : flag_kept;
  for (XBaseField* field = field_list.First(); field; field = field_list.Next()) {
    if (!field->Write(bytes) && keep_old_memos) field->XBaseField::Write(bytes);
    bytes += field->length();
  }
}

bool XBaseTable::Update() {
  if (current_record < 1) {
    error_text = "Invalid record number";
    return false;
  }
  const long offset = RecordOffset(current_record);
  {
    RangeLock lock(table_file, FileLock_Exclusive, offset, header.record_length);
    if (!lock) return LockError(table_file, table_path, "' for write: ");
    // Seek before the memos are written: if no file can have this place, no memo is written either.
    if (table_file->Seek(offset) != offset) return WriteError(table_file, table_path);
    unsigned char* bytes = BlankRecord();
    BuildRecord(bytes, true);
    if (!WriteAll(table_file, table_path, bytes, header.record_length)) return false;
    SetOriginal();
  }
  return RefreshHeader();
}

bool XBaseTable::UpdateDeleted(int deleted) {
  if (current_record < 1) {
    error_text = "Invalid record number";
    return false;
  }
  const long offset = RecordOffset(current_record);
  {
    RangeLock lock(table_file, FileLock_Exclusive, offset, 1);
    if (!lock) return LockError(table_file, table_path, "' for write: ");
    if (table_file->Seek(offset) != offset) return WriteError(table_file, table_path);
    const unsigned char flag = deleted ? flag_deleted : flag_kept;
    if (!WriteAll(table_file, table_path, &flag, 1)) return false;
    is_deleted = deleted;
  }
  return RefreshHeader();
}

// The record is written first: no reader sees it until the header counts it, and a process that
// ends in between leaves an intact table.
bool XBaseTable::Append() {
  RangeLock lock(table_file, FileLock_Exclusive, 0, header.header_length);
  if (!lock) return LockError(table_file, table_path, "' for write: ");
  if (!ReadTableHeader()) return false;
  if (header.record_count == INT_MAX) return WriteError(table_file, table_path);
  const long offset = RecordOffset(header.record_count + 1);
  if (table_file->Seek(offset) != offset) return WriteError(table_file, table_path);
  const int deleted_before = std::exchange(is_deleted, 0);
  unsigned char* bytes = BlankRecord();
  BuildRecord(bytes, false);
  bytes[header.record_length] = text_end;
  if (!WriteAll(table_file, table_path, bytes, header.record_length + 1)) {
    is_deleted = deleted_before;
    return false;
  }
  header.record_count++;
  if (!WriteTableHeader()) {
    header.record_count--;
    is_deleted = deleted_before;
    return false;
  }
  current_record = header.record_count;
  return true;
}

void XBaseTable::SetOriginal() {
  for (XBaseField* field = field_list.First(); field; field = field_list.Next())
    field->SetOriginal();
}

void XBaseTable::SwapOriginal() {
  for (XBaseField* field = field_list.First(); field; field = field_list.Next())
    field->SwapOriginal();
}

// --- Memos ---------------------------------------------------------------------------------------

// Most memos are shorter than a block; for the others the room doubles. The end of the file also
// ends a memo, so that a table that was cut off still gives the rest of its text.
bool XBaseTable::ReadMemoBlock(int block, char** text, int* length) {
  *text = nullptr;
  const long offset = static_cast<long>(block) * block_length;
  if (!memo_file || memo_file->Seek(offset) != offset) return ReadError(memo_file, memo_file_path);
  int room = block_length + 1, used = 0;
  std::unique_ptr<char[]> bytes(new char[static_cast<size_t>(room)]);
  for (;;) {
    char* piece = bytes.get() + used;
    const int count = memo_file->Read(piece, room - 1 - used);
    if (count < 0 || room == INT_MAX) {
      bytes[static_cast<size_t>(used)] = 0;
      *text = bytes.release();
      return ReadError(memo_file, memo_file_path);
    }
    const void* end = memchr(piece, text_end, static_cast<size_t>(count));
    used = end ? static_cast<int>(static_cast<const char*>(end) - bytes.get()) : used + count;
    if (end || count == 0) break;
    if (used < room - 1) continue;
    room = static_cast<int>(std::min<long>(2L * room, INT_MAX));
    std::unique_ptr<char[]> larger(new char[static_cast<size_t>(room)]);
    memcpy(larger.get(), bytes.get(), static_cast<size_t>(used));
    bytes = std::move(larger);
  }
  bytes[static_cast<size_t>(used)] = 0;
  *text = bytes.release();
  *length = used;
  return true;
}

int XBaseTable::WriteMemoBlock(char* text) {
  RangeLock lock(memo_file, FileLock_Exclusive, 0, block_length);
  if (!lock) {
    LockError(memo_file, memo_file_path, "' for write: ");
    return -1;
  }
  if (!ReadMemoHeader()) return -1;
  if (next_block < 0) {
    ReadError(memo_file, memo_file_path);
    return next_block;
  }
  // Block 0 is the header, and a record's 0 means no memo. A file has 0 here if no maker ever set
  // its first free block.
  if (next_block == 0) next_block = 1;
  return WriteMemoText(text);
}

// REQUIRES: the lock is held and the header was just read. Blocks count only once the header is
// written, so a process that ends in between leaves only bytes that the next memo overwrites.
int XBaseTable::WriteMemoText(const char* text) {
  const size_t length = strlen(text);
  const long offset = static_cast<long>(next_block) * block_length;
  if (length > INT_MAX - 2 || memo_file->Seek(offset) != offset) {
    WriteError(memo_file, memo_file_path);
    return -1;
  }
  const int count = static_cast<int>(length) + 2;
  std::unique_ptr<unsigned char[]> bytes(new unsigned char[static_cast<size_t>(count)]);
  memcpy(bytes.get(), text, length);
  bytes[length] = bytes[length + 1] = text_end;
  if (!WriteAll(memo_file, memo_file_path, bytes.get(), count)) return -1;
  const int first = next_block;
  next_block += count / block_length + (count % block_length != 0);
  return WriteMemoHeader() ? first : -1;
}

void XBaseTable::MemoNumberError() {
  const String reason("The memo's number does not fit its field");
  FileError("Error writing to '", memo_file_path, "': ", &reason);
}
