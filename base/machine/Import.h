// Delimited text files, record by record: the reader of ZpIMPORT, and the form in which ZpEXPORT
// writes. An import is on the machine's feature stack between its opening instruction and the end
// of its loop.
//
// A record is a line that ends with LF, CR LF or CR. In a file
//
//   \r \n \\       mean CR, LF and a backslash
//   \ and another  mean that byte
//
// Fields are separated by a delimiter of any length. They are neither trimmed nor unquoted, and a
// delimiter cannot be written within one.

#ifndef ZEPH_BASE_IMPORT_H
#define ZEPH_BASE_IMPORT_H

#include <memory>

#include "base/host/File.h"
#include "base/machine/Feature.h"
#include "base/values/Variable.h"
#include "base/values/VariableKinds.h"
#include "base/values/VariableRef.h"

class Segment;

// One run of the loop. Made by the opening instruction; owns its file, and holds a count on each
// variable that it sets.
class Import : public Feature {
 public:
  // In bytes. A longer record ends the import.
  static constexpr int LongestRecord = 1 << 30;

  Import(ZephApplication* application, ZephVM* vm);
  ~Import() override;

  // Sets the text between two fields; without one, or with an empty one, a record is one field. If
  // *deletable is set, adopts the text, which was made with new[], and clears the flag; otherwise
  // copies it.
  void SetDelimiter(const char* text, int length, int* deletable);
  // Sets the variables that receive a record, a comma-separated list of names. A bad name is a
  // fatal error of the machine.
  void SetFields(const char* names, int length);
  // With a filter, Next does not count records: the machine does so for those that pass. Borrowed;
  // null means none.
  void SetFilter(Segment* segment) { filter_segment = segment; }
  Segment* filter() const { return filter_segment; }

  // Opens the file in the data directory and reads its first block. The name is terminated; size is
  // that of its buffer, which is adopted in the same way as a delimiter. Returns false with the
  // text in error().
  [[nodiscard]] bool Start(const char* name, int length, int size, int* deletable);
  // Reads a record and sets the variables. Returns 0, or 1 at the end of the file; a failed read
  // counts as the end, too.
  [[nodiscard]] int Next();
  // Counts the record that was read, and stores the count in the global variable recno.
  void CountRecord();

 private:
  // Returns 1 for a whole record and 0 at the end of the file; what is after the last line end, if
  // anything, is a record too. A failed read is an end with a text in error().
  int ReadRecord();
  int DecodeRecord();
  bool Refill();
  bool Append(const char* bytes, int count);
  void DealOut();
  const char* FindDelimiter(const char* from, const char* end) const;
  void NoteReadError();

  int record_number = 0;  // number of records that the script was given
  VariableRef recno;      // null if the script does not know the name
  VariableList fields;
  String file_name;
  std::unique_ptr<char[]> delimiter;
  int delimiter_length = 0;
  std::unique_ptr<char[]> input;  // the current block of the file
  int input_size;                 // in bytes: the setting bufsz_import
  int input_length = 0;
  int input_position = 0;
  // A record with escapes, or one that spans blocks, is decoded here. Any other record is used
  // where it is in the block.
  std::unique_ptr<char[]> decoded;
  int decoded_capacity = 0;
  const char* record = nullptr;
  int record_length = 0;
  Segment* filter_segment = nullptr;
  std::unique_ptr<File> file;
};

// A record to be written to a file: fields, with the three special bytes written as escapes, and a
// newline.
class ExportRecord {
 public:
  // In bytes. For a longer record whole() is false.
  static constexpr int Longest = 1 << 30;

  ExportRecord() = default;
  ExportRecord(const ExportRecord&) = delete;
  ExportRecord& operator=(const ExportRecord&) = delete;

  void AppendField(const char* text, int length);
  // Appends without escapes: delimiters, and the newline at the end.
  void AppendPlain(const char* text, int length);

  const char* data() const { return bytes; }
  int length() const { return count; }
  bool whole() const { return !overflown; }

 private:
  static constexpr int FirstRoom = 8192;

  bool Reserve(int more);

  char first[FirstRoom];
  std::unique_ptr<char[]> larger;
  char* bytes = first;
  int room = FirstRoom;
  int count = 0;
  bool overflown = false;
};

#endif
