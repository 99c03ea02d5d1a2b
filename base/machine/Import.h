// Delimited text files, record by record: the reader behind ZpIMPORT, and the form in which
// ZpEXPORT writes. An import lies on the machine's feature stack between its opening instruction
// and the end of its loop.
//
// A record is a line that ends with LF, CR LF or CR. In a file
//
//   \r \n \\       stand for CR, LF and a backslash
//   \ and another  stands for that byte
//
// A delimiter, of any length, stands between two fields. Fields are neither trimmed nor unquoted,
// and there is no way to write a delimiter within one.

#ifndef ZEPH_BASE_IMPORT_H
#define ZEPH_BASE_IMPORT_H

#include <memory>

#include "base/host/File.h"
#include "base/machine/Feature.h"
#include "base/values/Variable.h"
#include "base/values/VariableRef.h"

class Segment;

// One run of the loop. Made by the opening instruction; owns its file, and has a count on all
// variables that it sets.
class Import : public Feature {
 public:
  // A record of more bytes than this ends the import.
  static constexpr int LongestRecord = 1 << 30;

  Import(ZephApplication* application, ZephVM* vm);
  ~Import() override;

  // The text between two fields; without one, or with an empty one, a record is one field. Adopts
  // the text, which then was made with new[], if *deletable is set, and clears it; otherwise
  // copies.
  void SetDelimiter(const char* text, int length, int* deletable);
  // The variables that a record sets, as a comma-separated list of names. A bad name is a fatal
  // error of the machine.
  void SetFields(const char* names, int length);
  // Records that do not pass the filter are not counted. Borrowed; null is none.
  void SetFilter(Segment* segment) { filter_segment = segment; }
  Segment* filter() const { return filter_segment; }

  // Opens the file in the data directory and reads its first block. The name is terminated; size is
  // that of its buffer, which is adopted as a delimiter is. False with the text in error().
  [[nodiscard]] bool Start(const char* name, int length, int size, int* deletable);
  // Reads a record and sets the variables: 0, or 1 at the end of the file, which is also where a
  // read that fails leads to.
  [[nodiscard]] int Next();
  // Counts the record that was read, and shows the count in the global variable recno.
  void CountRecord();

 private:
  // 1 with a whole record; 0 where the file ends, and what it ended with, if anything, is a record
  // all the same. A read that fails is an end with a text.
  int ReadRecord();
  int DecodeRecord();
  bool Refill();
  bool Append(const char* bytes, int count);
  void DealOut();
  const char* FindDelimiter(const char* from, const char* end) const;
  void NoteReadError();

  int record_number = 0;  // of the records that the script was given
  VariableRef recno;      // null where the script does not know the name
  VariableList fields;
  String file_name;
  std::unique_ptr<char[]> delimiter;
  int delimiter_length = 0;
  std::unique_ptr<char[]> input;  // the block that is read from
  int input_size;                 // bytes, of the setting bufsz_import
  int input_length = 0;
  int input_position = 0;
  // A record that is decoded, or has come in pieces. One that stands in the block as it is, is
  // dealt out from there.
  std::unique_ptr<char[]> decoded;
  int decoded_capacity = 0;
  const char* record = nullptr;
  int record_length = 0;
  Segment* filter_segment = nullptr;
  std::unique_ptr<File> file;
};

// A record on its way to a file: fields with the three bytes written as escapes, and a newline.
class ExportRecord {
 public:
  // Beyond this there is no record: whole() is false.
  static constexpr int Longest = 1 << 30;

  ExportRecord() = default;
  ExportRecord(const ExportRecord&) = delete;
  ExportRecord& operator=(const ExportRecord&) = delete;

  void AppendField(const char* text, int length);
  // As it stands: delimiters, and the newline at the end.
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
