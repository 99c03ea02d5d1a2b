// A memo field: its text is in the table's .dbt file, and the record holds only the number of the
// text's first block there. A text is read only when a caller first needs it, because most walks
// over a table never look at it.

#ifndef ZEPH_BASE_XBASEMEMOFIELD_H
#define ZEPH_BASE_XBASEMEMOFIELD_H

#include "base/database/XBaseField.h"

// Of type XBaseField_Memo. The texts of the base class hold the block number. A memo ends at its
// first NUL, and in the file at its first 0x1A. The lengths are those of the texts as they were
// read or set. SwapOriginal exchanges only the texts, so do not use the lengths to measure a text.
class XBaseMemoField : public XBaseField {
 public:
  // As for XBaseField; the length is that of the block number, in digits.
  XBaseMemoField(XBaseTable* table, const char* name, int length, int decimalcount);
  XBaseMemoField(XBaseTable* table, const char* name, int name_length, int length,
                 int decimalcount);
  ~XBaseMemoField() override;

  // Reads the block number and drops the memo of the previous record.
  void Read(unsigned char* bytes) override;
  // Writes a changed memo into new blocks of the file first; an empty memo has no block. On failure
  // it returns false with the table's error stored, leaves the bytes and the block number as they
  // were, and the next call tries to write the memo again.
  bool Write(unsigned char* bytes) override;
  // Replaces the memo in memory. There is no limit on the length.
  void Set(const char* text, int length) override;
  // The memo's text, read from the file on the first call. Null with the table's error stored if it
  // cannot be read.
  const char* data() override;
  // Exchanges only the memos; the block number stays.
  void SwapOriginal() override;
  void SetOriginal() override;

 private:
  bool Load();
  bool WriteBlocks();

  int dirty = 0;                  // the memo was set and is not written yet
  char* memo = nullptr;           // null until it is read or set
  int memo_length = 0;            // without the NUL
  char* original_memo = nullptr;  // null until a memo was read or written
  int original_memo_length = 0;
};

#endif
