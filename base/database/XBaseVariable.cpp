// What the variables of a view's record share, and those of character, memo and logical fields. The
// base class's operations do the storing, because they also drop the elements that a script may
// have given the variable. No DeferredText watches the text of a derived class, so the text may
// change here without notice. Tested in tests/base/database/XBaseVariableTest.cpp,
// XBaseStringVariableTest.cpp and XBaseBooleanVariableTest.cpp.

#include "base/database/XBaseVariable.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <utility>

#include "base/core/Numbers.h"
#include "base/core/ascii.h"
#include "base/database/XBaseField.h"
#include "base/host/ZephApplication.h"

// --- All variables -------------------------------------------------------------------------------

XBaseVariable::XBaseVariable(const char* name, XBaseField* field)
    : Variable(name, -1), field(field) {}

int XBaseVariable::type() {
  return redirected() ? Variable::type() : VariableComputed;
}

void XBaseVariable::SetDirty() {
  if (redirected()) return;
  SetForms(0);
  primary = PrimaryNone;
}

void XBaseVariable::Commit() {
  if (redirected()) return;
  changed = 0;
}

// This and SwapOriginal move the text, so that they need no memory.
void XBaseVariable::SetOriginal() {
  if (redirected()) return;
  original_forms = static_cast<uint8_t>(valid_forms());
  original_primary = primary;
  original_integer = integer_value;
  original_double = double_value;
  original_string.destroy();
  if (valid_forms() & TextForm) original_string = std::move(string_value);
  changed = 0;
  SetForms(0);
  primary = PrimaryNone;
}

// The code of a key, which runs between the two calls, may have given the variable elements. They
// give way to a saved value, because an aggregate has no valid form.
void XBaseVariable::SwapOriginal() {
  if (redirected()) return;
  if (elements) {
    if (original_forms == 0) return;
    Variable::SetNULL();
  }
  if (original_string.data) string_value = std::move(original_string);
  integer_value = original_integer;
  double_value = original_double;
  SetForms(original_forms);
  primary = original_primary;
}

int XBaseVariable::AdoptedLength(const char* buffer, int length, int allocated) {
  if (!buffer || allocated < 0 || length < -1) return 0;
  if (length != -1) return length;
  return static_cast<int>(strnlen(buffer, static_cast<size_t>(allocated)));
}

const char* XBaseVariable::TextOf(XBaseField* source) {
  const char* text = source->data();
  return text ? text : "";
}

void XBaseVariable::ReadText(XBaseField* source) {
  string_value.assign(TextOf(source), -1);
  AddForm(TextForm);
}

void XBaseVariable::ConvertToInteger(XBaseField* source) {
  if (redirected() || elements) return Variable::Convert_Integer();
  if (valid_forms() & DoubleForm) {
    integer_value = DoubleToInteger(double_value);
  } else if (valid_forms() & TextForm) {
    integer_value = ZephApplication::stoi(string_value.data, string_value.length, nullptr);
  } else {
    integer_value = ZephApplication::stoi(TextOf(source), -1, nullptr);
  }
  AddForm(IntegerForm);
}

void XBaseVariable::ConvertToDouble(XBaseField* source) {
  if (redirected() || elements || (valid_forms() & (TextForm | IntegerForm))) {
    return Variable::Convert_Double();
  }
  double_value = ZephApplication::stod(TextOf(source), -1, 0, nullptr);
  AddForm(DoubleForm);
}

double XBaseVariable::CompareText(int* not_numeric) {
  double_value = ZephApplication::stod(string_value.data, string_value.length,
                                       string_value.allocated, not_numeric);
  if (!*not_numeric) AddForm(DoubleForm);
  return double_value;
}

// --- Character and memo fields -------------------------------------------------------------------

XBaseStringVariable::XBaseStringVariable(XBaseField* field)
    : XBaseVariable(field->name(), field),
      max_length(field->type() == XBaseField_Memo ? -1 : field->length()) {}

int XBaseStringVariable::KeptLength(const char* text, int length) const {
  if (!text) return 0;
  if (is_memo()) return length;
  const auto room = static_cast<size_t>(max_length);
  int kept = length == -1 ? static_cast<int>(strnlen(text, room)) : std::min(length, max_length);
  while (kept > 0 && zp_isspace(static_cast<unsigned char>(text[kept - 1]))) kept--;
  return std::max(kept, 0);
}

int XBaseStringVariable::SetValue(const char* text, int length) {
  if (redirected()) return Variable::SetValue(text, length);
  changed = 1;
  return Variable::SetValue(text, KeptLength(text, length));
}

int XBaseStringVariable::SetValue(Variable& source) {
  if (redirected()) return Variable::SetValue(source);
  changed = 1;
  const String& text = source.value();
  return SetValue(text.data, text.length);
}

int XBaseStringVariable::SetValue_Nocopy(char* buffer, int length, int allocated) {
  if (redirected()) return Variable::SetValue_Nocopy(buffer, length, allocated);
  changed = 1;
  const int kept = KeptLength(buffer, AdoptedLength(buffer, length, allocated));
  return Variable::SetValue_Nocopy(buffer, kept, allocated);
}

int XBaseStringVariable::SetValue_Integer(int value) {
  if (redirected()) return Variable::SetValue_Integer(value);
  changed = 1;
  if (is_memo()) return Variable::SetValue_Integer(value);
  int length, size;
  char* text = ZephApplication::itos(value, &length, &size);
  return SetValue_Nocopy(text, length, size);
}

int XBaseStringVariable::SetValue_Double(double value) {
  if (redirected()) return Variable::SetValue_Double(value);
  changed = 1;
  if (is_memo()) return Variable::SetValue_Double(value);
  int length, size;
  char* text = ZephApplication::dtos(value, &length, &size, -1);
  return SetValue_Nocopy(text, length, size);
}

void XBaseStringVariable::Convert_String() {
  if (redirected() || elements || (valid_forms() & (DoubleForm | IntegerForm))) {
    return Variable::Convert_String();
  }
  ReadText(field);
  primary = PrimaryText;
}

void XBaseStringVariable::Convert_Integer() {
  if (redirected() || elements) return Variable::Convert_Integer();
  if (!(valid_forms() & TextForm) && (valid_forms() & DoubleForm)) {
    integer_value = DoubleToInteger(double_value);
  } else {
    if (!(valid_forms() & TextForm)) {
      ReadText(field);
      primary = PrimaryText;
    }
    integer_value = ZephApplication::stoi(string_value.data, string_value.length, nullptr);
  }
  AddForm(IntegerForm);
}

void XBaseStringVariable::Convert_Double() {
  if (redirected() || elements) return Variable::Convert_Double();
  if (!(valid_forms() & (TextForm | IntegerForm))) {
    ReadText(field);
    primary = PrimaryText;
  }
  Variable::Convert_Double();
}

// A memo with a stored number is compared by the text that it has in the table, but the store is
// not lost by that.
double XBaseStringVariable::value_compare(int* not_numeric) {
  if (redirected() || elements) return Variable::value_compare(not_numeric);
  if (!(valid_forms() & TextForm)) {
    if (valid_forms()) return ZephApplication::stod(TextOf(field), -1, 0, not_numeric);
    ReadText(field);
    primary = PrimaryText;
  }
  return CompareText(not_numeric);
}

void XBaseStringVariable::Commit() {
  if (redirected() || !changed) return;
  changed = 0;
  if (valid_forms() == 0) return;
  if (!(valid_forms() & TextForm)) Variable::Convert_String();
  field->Set(string_value.data, string_value.length);
}

// --- Logical fields ------------------------------------------------------------------------------

XBaseBooleanVariable::XBaseBooleanVariable(XBaseField* field)
    : XBaseVariable(field->name(), field) {}

bool XBaseBooleanVariable::IsFieldTrue() const {
  const char letter = *TextOf(field);
  return letter == 'T' || letter == 't' || letter == 'Y' || letter == 'y';
}

int XBaseBooleanVariable::SetValue(const char* text, int length) {
  if (redirected()) return Variable::SetValue(text, length);
  if (text && length == -1) length = static_cast<int>(strlen(text));
  changed = 1;
  return Variable::SetValue_Integer(text ? IsTrue(text, length) : 0);
}

int XBaseBooleanVariable::SetValue(Variable& source) {
  if (redirected()) return Variable::SetValue(source);
  const int truth = source.IsTrue();
  changed = 1;
  return Variable::SetValue_Integer(truth);
}

int XBaseBooleanVariable::SetValue_Nocopy(char* buffer, int length, int allocated) {
  if (redirected()) return Variable::SetValue_Nocopy(buffer, length, allocated);
  const std::unique_ptr<char[]> owned(buffer);
  return SetValue(buffer, AdoptedLength(buffer, length, allocated));
}

int XBaseBooleanVariable::SetValue_Integer(int value) {
  if (redirected()) return Variable::SetValue_Integer(value);
  changed = 1;
  return Variable::SetValue_Integer(value != 0);
}

int XBaseBooleanVariable::SetValue_Double(double value) {
  if (redirected()) return Variable::SetValue_Double(value);
  changed = 1;
  return Variable::SetValue_Double(value != 0.0 ? 1.0 : 0.0);
}

void XBaseBooleanVariable::Convert_String() {
  if (redirected() || elements || (valid_forms() & (DoubleForm | IntegerForm))) {
    return Variable::Convert_String();
  }
  string_value.assign(IsFieldTrue() ? "1" : "0", 1);
  AddForm(TextForm);
  primary = PrimaryText;
}

void XBaseBooleanVariable::Convert_Integer() {
  if (redirected() || elements) return Variable::Convert_Integer();
  if (valid_forms() & TextForm) {
    integer_value = ZephApplication::stoi(string_value.data, string_value.length, nullptr);
  } else if (valid_forms() & DoubleForm) {
    integer_value = DoubleToInteger(double_value);
  } else {
    integer_value = IsFieldTrue();
    primary = PrimaryInteger;
  }
  AddForm(IntegerForm);
}

void XBaseBooleanVariable::Convert_Double() {
  if (redirected() || elements || (valid_forms() & (TextForm | IntegerForm))) {
    return Variable::Convert_Double();
  }
  double_value = IsFieldTrue();
  primary = PrimaryDouble;
  AddForm(DoubleForm);
}

double XBaseBooleanVariable::value_compare(int* not_numeric) {
  if (redirected() || elements) return Variable::value_compare(not_numeric);
  if (!(valid_forms() & TextForm)) Convert_String();
  return CompareText(not_numeric);
}

void XBaseBooleanVariable::Commit() {
  if (redirected() || !changed) return;
  field->Set(IsTrue() ? "T" : "F", 1);
  changed = 0;
}
