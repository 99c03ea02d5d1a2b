// A memo field: its text lies in the table's .dbt file, and the record holds only the number of the
// text's first block there. A text is read when it is first asked for, since most walks over a
// table never look at it.

#ifndef ZEPH_BASE_XBASEMEMOFIELD_H
#define ZEPH_BASE_XBASEMEMOFIELD_H

#include "base/database/XBaseField.h"

// Of type XBaseField_Memo. The texts of the base class are those of the block number. A memo ends
// at its first NUL, and in the file at its first 0x1A. The lengths belong to the texts as they were
// read or set, and stay in place when SwapOriginal exchanges the texts, so that nothing is measured
// by them.
class XBaseMemoField : public XBaseField {
 public:
  // As for XBaseField; the length is that of the block number, in digits.
  XBaseMemoField(XBaseTable* table, const char* name, int length, int decimalcount);
  XBaseMemoField(XBaseTable* table, const char* name, int name_length, int length,
                 int decimalcount);
  ~XBaseMemoField() override;

  // Takes the block number, and forgets the memo of the record before.
  void Read(unsigned char* bytes) override;
  // Puts a changed memo into new blocks of the file first; an empty one has no block. False, with
  // the table's error stored, leaves bytes and block number as they were, and the memo to be
  // written by the next call.
  bool Write(unsigned char* bytes) override;
  // Replaces the memo in memory. Any length is taken.
  void Set(const char* text, int length) override;
  // The memo's text, read from the file if it wasn't yet; null with the table's error stored.
  const char* data() override;
  // Exchanges the memos alone; the block number stays.
  void SwapOriginal() override;
  void SetOriginal() override;

 private:
  bool Load();
  bool WriteBlocks();

  int dirty = 0;                  // set, and not written yet
  char* memo = nullptr;           // null until it is read or set
  int memo_length = 0;            // without the NUL
  char* original_memo = nullptr;  // null as long as none was read or written
  int original_memo_length = 0;
};

#endif
