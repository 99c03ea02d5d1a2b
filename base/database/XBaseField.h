// One field of an xBase table, with its value in the table's current record. Values are text, as
// the file has them; what they mean to a script is not this unit's matter.

#ifndef ZEPH_BASE_XBASEFIELD_H
#define ZEPH_BASE_XBASEFIELD_H

class XBaseTable;

// In the order of the letters "C", "N", "D", "L" and "M" in a file.
enum XBaseFieldType : int {
  XBaseField_Character = 0,
  XBaseField_Numeric = 1,
  XBaseField_Date = 2,
  XBaseField_Logical = 3,
  XBaseField_Memo = 4,
};

// Made with a table, for one column of it, and deleted with the table's list. Holds two texts: the
// value as it is now, and the value as it was last read or written, which is what an index still
// has a key for. Both are NUL-terminated: what stands behind a NUL byte in a record is not seen.
// The order of the virtual operations stays.
class XBaseField {
 public:
  // Copies the name, up to its NUL, respectively name_length bytes (-1 means strlen). The length is
  // the field's bytes in a record; less than 0 is 0. The table is borrowed, and null in a field
  // that only describes a column for XBaseTable::Create. The value is empty at first.
  XBaseField(XBaseTable* table, const char* name, XBaseFieldType type, int length,
             int decimalcount);
  XBaseField(XBaseTable* table, const char* name, int name_length, XBaseFieldType type, int length,
             int decimalcount);
  virtual ~XBaseField();
  XBaseField(const XBaseField&) = delete;
  XBaseField& operator=(const XBaseField&) = delete;

  // Takes both texts from the field's length() bytes in a record: of a character field without the
  // blanks behind the text, of a numeric or memo field without those in front, of others whole.
  virtual void Read(unsigned char* bytes);
  // Puts the value into the field's length() bytes in a record, numbers to the right and all other
  // types to the left, with blanks around. False leaves the bytes as they were; only memos fail.
  virtual bool Write(unsigned char* bytes);
  // Replaces the value by that text, of which length() bytes at most are taken. A length of -1
  // means strlen; a null text is an empty one. The text may lie in the value itself.
  virtual void Set(const char* text, int length);
  virtual const char* name();
  virtual XBaseFieldType type();
  virtual int length();
  virtual int decimalcount();
  // The value, NUL-terminated, good until the next change. Null only for a memo that can't be read.
  virtual const char* data();
  // Exchanges the value and the original. Indexes compute their old keys between two calls.
  virtual void SwapOriginal();
  // Makes the value the original too, since the file has it.
  virtual void SetOriginal();

 protected:
  char* field_name;
  XBaseFieldType field_type;
  int field_length;
  int decimals;
  char* current;   // field_length + 1 bytes
  char* original;  // likewise
  XBaseTable* table;
};

#endif
