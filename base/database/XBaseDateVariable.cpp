// The variable of a date field. Tested in tests/base/database/XBaseDateVariableTest.cpp.

#include <algorithm>
#include <cstring>
#include <memory>

#include "base/core/Numbers.h"
#include "base/database/XBaseField.h"
#include "base/database/XBaseVariable.h"
#include "base/host/ZephApplication.h"

XBaseDateVariable::XBaseDateVariable(XBaseField* field)
    : XBaseVariable(field->name(), nullptr),
      date_field(field),
      max_length(field->type() == XBaseField_Memo ? -1 : field->length()) {}

bool XBaseDateVariable::Validate(const char* text, int length) {
  constexpr int digits = 8;
  if (!text) return false;
  // One byte more than a date is enough to see that the text is too long.
  if (length == -1) length = static_cast<int>(strnlen(text, digits + 1));
  if (length != digits) return false;
  for (int i = 0; i < digits; i++) {
    if (text[i] < '0' || text[i] > '9') return false;
  }
  const auto two_digits = [text](int at) { return (text[at] - '0') * 10 + (text[at + 1] - '0'); };
  return two_digits(4) <= 12 && two_digits(6) <= 31;
}

int XBaseDateVariable::KeptLength(const char* text, int length) const {
  if (!text) return 0;
  if (is_memo()) return length;
  const auto room = static_cast<size_t>(max_length);
  if (length == -1) return static_cast<int>(strnlen(text, room));
  return std::clamp(length, 0, max_length);
}

// Stores of text leave the primary type, which a read does not set either.
int XBaseDateVariable::SetValue(const char* text, int length) {
  if (redirected()) return Variable::SetValue(text, length);
  if (!Validate(text, length)) return 0;
  changed = 1;
  const int kept_primary = primary;
  Variable::SetValue(text, KeptLength(text, length));
  if (!is_memo()) primary = kept_primary;
  return 1;
}

int XBaseDateVariable::SetValue(Variable& source) {
  if (redirected()) return Variable::SetValue(source);
  const String& text = source.value();
  return Validate(text.data, text.length) ? SetValue(text.data, text.length) : 0;
}

int XBaseDateVariable::SetValue_Nocopy(char* buffer, int length, int allocated) {
  if (redirected()) return Variable::SetValue_Nocopy(buffer, length, allocated);
  changed = 1;
  const int kept_primary = primary;
  const int kept = KeptLength(buffer, AdoptedLength(buffer, length, allocated));
  Variable::SetValue_Nocopy(buffer, kept, allocated);
  if (!is_memo()) primary = kept_primary;
  return 1;
}

// A number that is refused counts as a change. A value that was not read yet is read then, because
// Commit would take a change without a value as the order to empty the field.
int XBaseDateVariable::StoreNumber(char* text, int length, int allocated) {
  std::unique_ptr<char[]> owned(text);
  changed = 1;
  if (Validate(text, length)) return SetValue_Nocopy(owned.release(), length, allocated);
  if (valid_forms() == 0 && !elements) ReadText(date_field);
  return 0;
}

int XBaseDateVariable::SetValue_Integer(int value) {
  if (redirected()) return Variable::SetValue_Integer(value);
  if (is_memo()) Variable::SetValue_Integer(value);
  int length, size;
  char* text = ZephApplication::itos(value, &length, &size);
  return StoreNumber(text, length, size);
}

int XBaseDateVariable::SetValue_Double(double value) {
  if (redirected()) return Variable::SetValue_Double(value);
  if (is_memo()) Variable::SetValue_Double(value);
  int length, size;
  char* text = ZephApplication::dtos(value, &length, &size, -1);
  return StoreNumber(text, length, size);
}

void XBaseDateVariable::Convert_String() {
  if (redirected() || elements || (valid_forms() & (DoubleForm | IntegerForm))) {
    return Variable::Convert_String();
  }
  ReadText(date_field);
}

void XBaseDateVariable::Convert_Integer() {
  ConvertToInteger(date_field);
}

void XBaseDateVariable::Convert_Double() {
  ConvertToDouble(date_field);
}

double XBaseDateVariable::value_compare(int* not_numeric) {
  if (redirected() || elements) return Variable::value_compare(not_numeric);
  if (!(valid_forms() & TextForm)) ReadText(date_field);
  return CompareText(not_numeric);
}

void XBaseDateVariable::Commit() {
  if (redirected() || !changed) return;
  changed = 0;
  if (valid_forms() == 0) {
    date_field->Set("", 0);
    return;
  }
  if (!(valid_forms() & TextForm)) Variable::Convert_String();
  date_field->Set(string_value.data, string_value.length);
}
