// Fields of every type but memo: a value and its form in a record. Tested in
// tests/base/database/XBaseFieldTest.cpp.

#include "base/database/XBaseField.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "base/core/CopyText.h"
#include "base/core/MeasuredLength.h"

namespace {

constexpr char blank = ' ';

bool IsRightAligned(XBaseFieldType type) {
  return type == XBaseField_Numeric || type == XBaseField_Memo;
}

}  // namespace

XBaseField::XBaseField(XBaseTable* table, const char* name, XBaseFieldType type, int length,
                       int decimalcount)
    : XBaseField(table, name, -1, type, length, decimalcount) {}

XBaseField::XBaseField(XBaseTable* table, const char* name, int name_length, XBaseFieldType type,
                       int length, int decimalcount)
    : field_type(type), field_length(std::max(length, 0)), decimals(decimalcount), table(table) {
  const int count = MeasuredLength(name, name_length);
  const size_t size = static_cast<size_t>(field_length) + 1;
  std::unique_ptr<char[]> name_copy(NewTextCopy(name, count));
  std::unique_ptr<char[]> blank_text(new char[size]());
  original = new char[size]();
  current = blank_text.release();
  field_name = name_copy.release();
}

XBaseField::~XBaseField() {
  delete[] field_name;
  delete[] current;
  delete[] original;
}

void XBaseField::Read(unsigned char* bytes) {
  const char* text = reinterpret_cast<const char*>(bytes);
  int count = field_length;
  if (field_type == XBaseField_Character) {
    while (count > 0 && text[count - 1] == blank) count--;
  } else if (IsRightAligned(field_type)) {
    for (; count > 0 && *text == blank; text++) count--;
  }
  const size_t size = static_cast<size_t>(count);
  CopyText(current, text, size);
  CopyText(original, text, size);
  current[count] = original[count] = 0;
}

bool XBaseField::Write(unsigned char* bytes) {
  const size_t size = static_cast<size_t>(field_length);
  const size_t count = strlen(current);
  memset(bytes, blank, size);
  memcpy(IsRightAligned(field_type) ? bytes + size - count : bytes, current, count);
  return true;
}

void XBaseField::Set(const char* text, int length) {
  const int count = std::min(MeasuredLength(text, length), field_length);
  if (count > 0) memmove(current, text, static_cast<size_t>(count));
  current[count] = 0;
}

const char* XBaseField::name() {
  return field_name;
}

XBaseFieldType XBaseField::type() {
  return field_type;
}

int XBaseField::length() {
  return field_length;
}

int XBaseField::decimalcount() {
  return decimals;
}

const char* XBaseField::data() {
  return current;
}

void XBaseField::SwapOriginal() {
  std::swap(current, original);
}

void XBaseField::SetOriginal() {
  memcpy(original, current, static_cast<size_t>(field_length));
}
