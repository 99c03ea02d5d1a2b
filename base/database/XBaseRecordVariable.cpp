// The variables recno, totrec, deleted and eof. Tested in
// tests/base/database/XBaseRecordVariableTest.cpp.

#include "base/database/XBaseTable.h"
#include "base/database/XBaseVariable.h"
#include "base/host/ZephApplication.h"

XBaseRecordVariable::XBaseRecordVariable(const char* name) : XBaseVariable(name, nullptr) {
  primary = PrimaryInteger;
}

int XBaseRecordVariable::preferred_type() {
  return redirected() ? Variable::preferred_type() : PrimaryInteger;
}

// The base class's store also drops elements.
void XBaseRecordVariable::StoreNumber(int number) {
  Variable::SetValue_Integer(number);
}

int XBaseRecordVariable::SetValue(const char* text, int length) {
  return redirected() ? Variable::SetValue(text, length) : 0;
}

int XBaseRecordVariable::SetValue(Variable& source) {
  return redirected() ? Variable::SetValue(source) : 0;
}

int XBaseRecordVariable::SetValue_Nocopy(char* buffer, int length, int allocated) {
  if (redirected()) return Variable::SetValue_Nocopy(buffer, length, allocated);
  delete[] buffer;
  return 0;
}

int XBaseRecordVariable::SetValue_Integer(int value) {
  return redirected() ? Variable::SetValue_Integer(value) : 0;
}

int XBaseRecordVariable::SetValue_Double(double value) {
  return redirected() ? Variable::SetValue_Double(value) : 0;
}

void XBaseRecordVariable::Convert_String() {
  if (redirected() || elements) return Variable::Convert_String();
  int length, size;
  char* text = ZephApplication::itos(Number(), &length, &size);
  string_value.assign_nocopy(text, length, size);
  AddForm(TextForm);
}

void XBaseRecordVariable::Convert_Integer() {
  if (redirected() || elements) return Variable::Convert_Integer();
  integer_value = Number();
  AddForm(IntegerForm);
}

void XBaseRecordVariable::Convert_Double() {
  if (redirected() || elements) return Variable::Convert_Double();
  double_value = Number();
  AddForm(DoubleForm);
}

double XBaseRecordVariable::value_compare(int* not_numeric) {
  if (redirected() || elements) return Variable::value_compare(not_numeric);
  *not_numeric = 0;
  return value_double();
}

void XBaseRecordVariable::SetDirty() {
  if (redirected()) return;
  SetForms(0);
}

XBaseTotalRecordsVariable::XBaseTotalRecordsVariable(XBaseTable* table)
    : XBaseRecordVariable("totrec"), table(table) {}

int XBaseTotalRecordsVariable::Number() const {
  return table->record_count();
}

XBaseRecordNumberVariable::XBaseRecordNumberVariable(XBaseTable* table)
    : XBaseRecordVariable("recno"), table(table) {}

int XBaseRecordNumberVariable::Number() const {
  return table->record_number();
}

XBaseDeletedVariable::XBaseDeletedVariable(XBaseTable* table)
    : XBaseRecordVariable("deleted"), table(table) {}

int XBaseDeletedVariable::Number() const {
  return table->deleted();
}

XBaseEOFVariable::XBaseEOFVariable() : XBaseRecordVariable("eof") {
  SetForms(IntegerForm);
}

void XBaseEOFVariable::SetEOF(int eof) {
  if (!redirected()) StoreNumber(eof != 0);
}

void XBaseEOFVariable::SetDirty() {}

int XBaseEOFVariable::Number() const {
  return integer_value;
}
