// One field of an xBase table, with its value in the table's current record. Values are text, as
// the file has them. This unit does not know what they mean to a script.

#ifndef ZEPH_BASE_XBASEFIELD_H
#define ZEPH_BASE_XBASEFIELD_H

class XBaseTable;

// In the order of the type letters "C", "N", "D", "L" and "M" in a file.
enum XBaseFieldType : int {
  XBaseField_Character = 0,
  XBaseField_Numeric = 1,
  XBaseField_Date = 2,
  XBaseField_Logical = 3,
  XBaseField_Memo = 4,
};

// Describes one column of a table. The table makes it and deletes it with its list of fields. It
// holds two texts: the value as it is now, and the value as it was last read or written, which is
// the one that an index still has a key for. Both are NUL-terminated, so bytes of a record after a
// NUL are not seen. The order of the virtual operations must not change.
class XBaseField {
 public:
  // Copies the name: name_length bytes of it, or up to its NUL (-1 means strlen). The length is the
  // field's bytes in a record; less than 0 counts as 0. The table is borrowed. It is null in a
  // field that only describes a column for XBaseTable::Create. The value is empty at first.
  XBaseField(XBaseTable* table, const char* name, XBaseFieldType type, int length,
             int decimalcount);
  XBaseField(XBaseTable* table, const char* name, int name_length, XBaseFieldType type, int length,
             int decimalcount);
  virtual ~XBaseField();
  XBaseField(const XBaseField&) = delete;
  XBaseField& operator=(const XBaseField&) = delete;

  // Sets both texts from the field's length() bytes in a record: for a character field without the
  // blanks after the text, for a numeric or memo field without those before it, for other types all
  // of the bytes.
  virtual void Read(unsigned char* bytes);
  // Writes the value into the field's length() bytes in a record, padded with blanks: numeric and
  // memo fields to the right, all other types to the left. Only memo fields can fail; then it
  // returns false and leaves the bytes as they were.
  virtual bool Write(unsigned char* bytes);
  // Replaces the value by the first length() bytes of the text. A length of -1 means strlen; a null
  // text counts as an empty one. The text may be part of the value itself.
  virtual void Set(const char* text, int length);
  virtual const char* name();
  virtual XBaseFieldType type();
  virtual int length();
  virtual int decimalcount();
  // The value, NUL-terminated, valid until the next change. Null only for a memo that can't be
  // read.
  virtual const char* data();
  // Exchanges the value and the original. An index computes its old keys between two such calls.
  virtual void SwapOriginal();
  // Makes the value the original too, because the file now has it.
  virtual void SetOriginal();

 protected:
  char* field_name;
  XBaseFieldType field_type;
  int field_length;
  int decimals;
  char* current;   // field_length + 1 bytes
  char* original;  // also field_length + 1 bytes
  XBaseTable* table;
};

#endif
