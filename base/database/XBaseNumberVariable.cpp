// The variable of a numeric field. Tested in tests/base/database/XBaseNumberVariableTest.cpp.

#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>

#include "base/core/Numbers.h"
#include "base/database/XBaseField.h"
#include "base/database/XBaseVariable.h"
#include "base/host/ZephApplication.h"

XBaseNumberVariable::XBaseNumberVariable(XBaseField* field) : XBaseVariable(field->name(), field) {}

bool XBaseNumberVariable::Validate(const char* text, int length, int* integer_digits,
                                   int* decimal_digits) {
  if (!text) length = 0;
  if (length == -1) length = static_cast<int>(strlen(text));
  int before = 0;
  int after = 0;
  bool point = false;
  for (int i = length > 0 && text[0] == '-' ? 1 : 0; i < length; i++) {
    if (text[i] == '.' && !point) {
      point = true;
    } else if (text[i] < '0' || text[i] > '9') {
      return false;
    } else {
      (point ? after : before)++;
    }
  }
  *integer_digits = before;
  *decimal_digits = after;
  return true;
}

void XBaseNumberVariable::Cleanup_String(int integer_digits, int decimal_digits) {
  if (string_value.length == 0) string_value.assign("0", 1);
  const auto* point = static_cast<const char*>(
      memchr(string_value.data, '.', static_cast<size_t>(string_value.length)));
  if (integer_digits == -1 || decimal_digits == -1) {
    decimal_digits =
        point ? string_value.length - 1 - static_cast<int>(point - string_value.data) : 0;
  }
  const int wanted = field->decimalcount();
  if (wanted > 0 && decimal_digits < wanted) {
    if (!point) string_value.cat('.');
    for (int i = decimal_digits; i < wanted; i++) string_value.cat('0');
    return;
  }
  string_value.chop(wanted > 0 ? decimal_digits - wanted : decimal_digits + (point ? 1 : 0));
  // An extension may read the text up to its NUL, and shall not see what was cut off.
  string_value.data[string_value.length] = '\0';
}

int XBaseNumberVariable::SetValue(const char* text, int length) {
  if (redirected()) return Variable::SetValue(text, length);
  int integer_digits, decimal_digits;
  if (!Validate(text, length, &integer_digits, &decimal_digits)) return 0;
  changed = 1;
  Variable::SetValue(text, length);
  Cleanup_String(integer_digits, decimal_digits);
  return 1;
}

int XBaseNumberVariable::SetValue_Nocopy(char* buffer, int length, int allocated) {
  if (redirected()) return Variable::SetValue_Nocopy(buffer, length, allocated);
  // No caller looks at the result, so a text that is refused has to be freed here.
  std::unique_ptr<char[]> owned(buffer);
  length = AdoptedLength(buffer, length, allocated);
  int integer_digits, decimal_digits;
  if (!Validate(buffer, length, &integer_digits, &decimal_digits)) return 0;
  changed = 1;
  Variable::SetValue_Nocopy(owned.release(), length, allocated);
  Cleanup_String(integer_digits, decimal_digits);
  return 1;
}

int XBaseNumberVariable::SetValue(Variable& source) {
  if (redirected()) return Variable::SetValue(source);
  const String& text = source.value();
  const void* point =
      text.data ? memchr(text.data, '.', static_cast<size_t>(text.length)) : nullptr;
  const int places =
      point ? static_cast<int>(static_cast<const char*>(point) - text.data) : text.length;
  const int decimals = field->decimalcount();
  const int room = decimals > 0 ? field->length() - 1 - decimals : field->length();
  if (places > room) return 0;
  const double value = source.value_double();
  changed = 1;
  return Variable::SetValue_Double(value);
}

int XBaseNumberVariable::SetValue_Integer(int value) {
  if (redirected()) return Variable::SetValue_Integer(value);
  changed = 1;
  return Variable::SetValue_Integer(value);
}

int XBaseNumberVariable::SetValue_Double(double value) {
  if (redirected()) return Variable::SetValue_Double(value);
  changed = 1;
  return Variable::SetValue_Double(Truncate(value));
}

// The power of ten is a 32-bit integer that wraps. It becomes 0 with 32 decimals, which only a
// damaged table has, and then there is no fraction.
double XBaseNumberVariable::Truncate(double value) const {
  const int decimals = field->decimalcount();
  if (decimals <= 0) return DoubleToInteger(value);
  uint32_t wrapped = 1;
  for (int i = 0; i < decimals && wrapped != 0; i++) wrapped *= 10;
  const auto power = static_cast<int32_t>(wrapped);
  double whole;
  const double fraction = modf(value, &whole);
  if (power == 0) return whole;
  return whole + DoubleToInteger(fraction * power) / static_cast<double>(power);
}

void XBaseNumberVariable::Convert_String() {
  if (redirected() || elements) return Variable::Convert_String();
  if (valid_forms() & (DoubleForm | IntegerForm)) {
    Variable::Convert_String();
    Cleanup_String(-1, -1);
  } else {
    ReadText(field);
  }
}

void XBaseNumberVariable::Convert_Integer() {
  ConvertToInteger(field);
}

void XBaseNumberVariable::Convert_Double() {
  ConvertToDouble(field);
}

double XBaseNumberVariable::value_compare(int* not_numeric) {
  if (redirected() || elements) return Variable::value_compare(not_numeric);
  *not_numeric = 0;
  if (!(valid_forms() & DoubleForm)) Convert_Double();
  return double_value;
}

void XBaseNumberVariable::Commit() {
  if (redirected()) return;
  if (!elements) {
    if (!(valid_forms() & TextForm)) Convert_String();
    if (changed) field->Set(string_value.data, string_value.length);
  }
  changed = 0;
}
