// The fields of a view's current record as variables of the script, and the four variables that say
// where the view is: recno, totrec, deleted and eof. A read takes the value from the field when it
// is first needed, a store stays in the variable until Commit, and each type of field refuses what
// it cannot hold.
// Tested in tests/base/database/XBaseVariableTest.cpp and the other XBase...VariableTest.cpp there.

#ifndef ZEPH_BASE_XBASEVARIABLE_H
#define ZEPH_BASE_XBASEVARIABLE_H

#include <cstdint>

#include "base/core/StringClass.h"
#include "base/values/Variable.h"

class XBaseField;
class XBaseTable;

// The part that all of them share. The view makes the objects with new, keeps one count on each in
// its table of fields, and calls the four operations below on every one:
//
//   operation        the view calls it when
//   SetDirty         the record in the fields is another one
//   Commit           a record is about to be written
//   SetOriginal      the fields have exchanged their texts for those that the file has
//   SwapOriginal     the fields have exchanged them back
//
// Field and table are borrowed. REQUIRES: they live until the variable is deleted, or until
// Make_NULL() or Make_Reference() was called on it; after either of them no operation uses them.
// The four operations do nothing to such a variable, and never reach a reference's target.
//
// A store that is refused returns 0 and leaves the old value; there is no text in error(). A script
// does not see the result. As everywhere, SetValue_Nocopy owns the buffer also if it returns 0.
//
// IsTrue, IsNULL, SetNULL, Clone and everything about elements are the base class's:
// - A field that was not read since SetDirty has no valid form, so IsNULL() is 1 until it is read.
// - SetNULL discards a store, and the next read takes the value from the field again.
// - An array or structure that a script made of the variable stays until the next store that is
//   not refused, also over SetDirty. Its elements never get into the field; the operations say what
//   Commit does with it.
//
// The order of fields and virtual operations must not change.
class XBaseVariable : public Variable {
 public:
  XBaseVariable(const XBaseVariable&) = delete;
  XBaseVariable& operator=(const XBaseVariable&) = delete;

  // VariableComputed, as long as the variable is no reference and not NULL for good.
  int type() override;

  // Drops the value, so that the next read takes it from the field. A store that was not committed
  // is lost, but still counts as a change.
  virtual void SetDirty();
  // Puts the stored value into the field, if there was a store since the last call. The record and
  // the file do not change.
  virtual void Commit();
  // Saves the value and drops it, so that the next read takes it from the field. Afterwards nothing
  // counts as changed.
  virtual void SetOriginal();
  // Restores the value that SetOriginal saved. REQUIRES: SetOriginal was called before, and this
  // was not called since.
  virtual void SwapOriginal();

 protected:
  // Copies the name. The field is null for variables that keep it elsewhere or have none.
  XBaseVariable(const char* name, XBaseField* field);

  // The bytes of a text that SetValue_Nocopy adopts, with -1 resolved: its NUL, or the end of the
  // buffer if it has none.
  static int AdoptedLength(const char* buffer, int length, int allocated);
  // The text of a field; empty for a memo that cannot be read.
  static const char* TextOf(XBaseField* source);
  // Makes the text of a field the valid text form. The other forms stay as they are.
  void ReadText(XBaseField* source);
  // Convert_Integer() and Convert_Double() of number and date fields: from the valid forms,
  // otherwise straight from the field's text, which does not become a form.
  void ConvertToInteger(XBaseField* source);
  void ConvertToDouble(XBaseField* source);
  // The number of the valid text. *not_numeric as for value_compare(); the number is cached as the
  // double form only if there is one.
  double CompareText(int* not_numeric);

  int changed = 0;  // there was a store since the last Commit
  String original_string;
  int original_integer = 0;
  double original_double = 0.0;
  uint8_t original_forms = 0;
  int original_primary = PrimaryNone;
  XBaseField* field;
};

// A character or memo field. White space at the end of a character field's text is not kept, and
// text that is longer than the field is cut; a memo keeps every text as it is.
class XBaseStringVariable : public XBaseVariable {
 public:
  // Has the field's name. REQUIRES: the field is not null.
  explicit XBaseStringVariable(XBaseField* field);

  int SetValue(const char* text, int length) override;
  // Stores the source's text.
  int SetValue(Variable& source) override;
  int SetValue_Nocopy(char* buffer, int length, int allocated) override;
  // Store the number's text; a memo keeps the number.
  int SetValue_Integer(int value) override;
  int SetValue_Double(double value) override;
  // A text that is no whole number has the integer 0.
  void Convert_Integer() override;
  void Convert_Double() override;
  void Convert_String() override;
  // Compares as the text of the field does: a number that was stored in a memo and has not become a
  // text yet is replaced by the memo's text.
  double value_compare(int* not_numeric) override;
  // An array or structure changes nothing in the field.
  void Commit() override;

 protected:
  bool is_memo() const { return max_length == -1; }
  // The bytes of the text that the field keeps. A length of -1 means strlen.
  int KeptLength(const char* text, int length) const;

  int max_length;  // the field's length; -1 for a memo
};

// A logical field. The letters T, t, Y and y are true; anything else, blanks too, is false. Stores
// keep only the truth of the value.
class XBaseBooleanVariable : public XBaseVariable {
 public:
  // Has the field's name. REQUIRES: the field is not null.
  explicit XBaseBooleanVariable(XBaseField* field);

  int SetValue(const char* text, int length) override;
  int SetValue(Variable& source) override;
  int SetValue_Nocopy(char* buffer, int length, int allocated) override;
  int SetValue_Integer(int value) override;
  int SetValue_Double(double value) override;
  void Convert_String() override;
  void Convert_Integer() override;
  void Convert_Double() override;
  double value_compare(int* not_numeric) override;
  // Sets "T" or "F"; for an array or structure by the truth of its text.
  void Commit() override;

 private:
  bool IsFieldTrue() const;
};

// A numeric field. A text that is stored gets as many decimals as the field has; excess ones are
// cut, not rounded.
class XBaseNumberVariable : public XBaseVariable {
 public:
  // Has the field's name. REQUIRES: the field is not null.
  explicit XBaseNumberVariable(XBaseField* field);

  // Whether the text is a number for a field: digits with at most one point, after at most one
  // minus sign. There may be no digit at all. Counts the digits before and after the point; the
  // counts stay untouched if it is no number. A length of -1 means strlen.
  static bool Validate(const char* text, int length, int* integer_digits, int* decimal_digits);

  // Refuse a text that is no number. Do not measure it: Commit cuts a text that is longer than the
  // field.
  int SetValue(const char* text, int length) override;
  int SetValue_Nocopy(char* buffer, int length, int allocated) override;
  // Stores the source's double. Refuses a source whose text before the first point is longer, sign
  // included, than the field's room for it. A text that is no number is stored as 0.
  int SetValue(Variable& source) override;
  int SetValue_Integer(int value) override;
  // Cuts the excess decimals off. A field without decimals holds a 32-bit integer.
  int SetValue_Double(double value) override;
  void Convert_String() override;
  // A text that is no whole number has the integer 0: one with a point, for example.
  void Convert_Integer() override;
  void Convert_Double() override;
  // Always a number; text that is none compares as 0.
  double value_compare(int* not_numeric) override;
  // An array or structure changes nothing in the field.
  void Commit() override;

 protected:
  // Gives the valid text the field's number of decimals; an empty text counts as 0. A count of -1
  // means that the digits are counted here.
  void Cleanup_String(int integer_digits, int decimal_digits);
  double Truncate(double value) const;
};

// A date field: eight digits, the year first.
class XBaseDateVariable : public XBaseVariable {
 public:
  // Has the field's name. REQUIRES: the field is not null.
  explicit XBaseDateVariable(XBaseField* field);

  // Whether the text has eight digits, of which the fifth and sixth are at most 12 and the last two
  // at most 31. There are no lower limits. A length of -1 means strlen.
  static bool Validate(const char* text, int length);

  // Refuse a text that is no date.
  int SetValue(const char* text, int length) override;
  int SetValue(Variable& source) override;
  // Stores any text, cut to the field's length.
  int SetValue_Nocopy(char* buffer, int length, int allocated) override;
  // Store the number's text. A number that is no date is refused, but counts as a change: Commit
  // puts the old value into the field again.
  int SetValue_Integer(int value) override;
  int SetValue_Double(double value) override;
  void Convert_String() override;
  // The date as a number: 20040229.
  void Convert_Integer() override;
  void Convert_Double() override;
  double value_compare(int* not_numeric) override;
  // A change without a value, as after SetDirty, empties the field; so does an array or structure.
  void Commit() override;

 protected:
  bool is_memo() const { return max_length == -1; }
  // The bytes of the text that the field keeps. A length of -1 means strlen.
  int KeptLength(const char* text, int length) const;
  // Stores the text of a number and adopts it. Returns 0 if it is no date.
  int StoreNumber(char* text, int length, int allocated);

  XBaseField* date_field;  // field is null
  int max_length;          // the field's length; -1 for a memo
};

// A number that says where a view is. Scripts cannot store in it: stores return 0 and change
// nothing. The engine has to call SetDirty when the number changes.
class XBaseRecordVariable : public XBaseVariable {
 public:
  int preferred_type() override;
  int SetValue(const char* text, int length) override;
  int SetValue(Variable& source) override;
  int SetValue_Nocopy(char* buffer, int length, int allocated) override;
  int SetValue_Integer(int value) override;
  int SetValue_Double(double value) override;
  void Convert_String() override;
  void Convert_Integer() override;
  void Convert_Double() override;
  double value_compare(int* not_numeric) override;
  // Leaves the primary type, which is that of an integer from construction on.
  void SetDirty() override;

 protected:
  explicit XBaseRecordVariable(const char* name);

  // Makes the number the stored value. REQUIRES: the variable is no reference and not NULL for
  // good.
  void StoreNumber(int number);
  // The present number. Not called for a reference or a variable that is NULL for good.
  virtual int Number() const = 0;
};

// "totrec", the number of records of the table. REQUIRES, as for the next two: the table is not
// null.
class XBaseTotalRecordsVariable : public XBaseRecordVariable {
 public:
  explicit XBaseTotalRecordsVariable(XBaseTable* table);

 protected:
  int Number() const override;

  XBaseTable* table;
};

// "recno", the number of the current record, counted from 1; 0 for none.
class XBaseRecordNumberVariable : public XBaseRecordVariable {
 public:
  explicit XBaseRecordNumberVariable(XBaseTable* table);

 protected:
  int Number() const override;

  XBaseTable* table;
};

// "deleted", 1 if the current record has the deletion flag, else 0.
class XBaseDeletedVariable : public XBaseRecordVariable {
 public:
  explicit XBaseDeletedVariable(XBaseTable* table);

 protected:
  int Number() const override;

  XBaseTable* table;
};

// "eof", 1 if the last move found no record, else 0. It starts with 0.
class XBaseEOFVariable : public XBaseRecordVariable {
 public:
  XBaseEOFVariable();

  // Stores 1, or 0 for 0. Does nothing to a reference or a variable that is NULL for good.
  void SetEOF(int eof);
  // Does nothing: the number is only in this variable.
  void SetDirty() override;

 protected:
  int Number() const override;
};

#endif
