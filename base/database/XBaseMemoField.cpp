// Memo fields: reads their texts when they are needed and writes changed ones. Tested in
// tests/base/database/XBaseMemoFieldTest.cpp.

#include "base/database/XBaseMemoField.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <utility>

#include "base/core/CLocale.h"
#include "base/core/CopyText.h"
#include "base/core/MeasuredLength.h"
#include "base/database/XBaseTable.h"

namespace {

// The block number in a record. One that does not fit an int becomes INT_MAX or INT_MIN, which no
// file has either.
int BlockNumber(const char* text) {
  return static_cast<int>(std::clamp<long>(LeadingNumber(text), INT_MIN, INT_MAX));
}

}  // namespace

XBaseMemoField::XBaseMemoField(XBaseTable* table, const char* name, int length, int decimalcount)
    : XBaseField(table, name, XBaseField_Memo, length, decimalcount) {}

XBaseMemoField::XBaseMemoField(XBaseTable* table, const char* name, int name_length, int length,
                               int decimalcount)
    : XBaseField(table, name, name_length, XBaseField_Memo, length, decimalcount) {}

XBaseMemoField::~XBaseMemoField() {
  delete[] memo;
  delete[] original_memo;
}

void XBaseMemoField::Read(unsigned char* bytes) {
  dirty = 0;
  delete[] std::exchange(memo, nullptr);
  delete[] std::exchange(original_memo, nullptr);
  memo_length = original_memo_length = 0;
  XBaseField::Read(bytes);
}

bool XBaseMemoField::Write(unsigned char* bytes) {
  // While SwapOriginal has moved a changed memo away, it is not written; a later call does that.
  if (dirty && memo && !WriteBlocks()) return false;
  return XBaseField::Write(bytes);
}

bool XBaseMemoField::WriteBlocks() {
  if (*memo == 0) {
    XBaseField::Set("", 0);
    dirty = 0;
    return true;
  }
  const int block = table ? table->WriteMemoBlock(memo) : -1;
  if (block < 0) return false;
  char number[16];
  const int digits = snprintf(number, sizeof(number), "%d", block);
  // Cut to the field's length, the number would be that of another record's memo.
  if (digits > field_length) {
    table->MemoNumberError();
    return false;
  }
  XBaseField::Set(number, digits);
  dirty = 0;
  return true;
}

void XBaseMemoField::Set(const char* text, int length) {
  length = MeasuredLength(text, length);
  char* copy = NewTextCopy(text, length);
  delete[] std::exchange(memo, copy);
  memo_length = length;
  dirty = 1;
}

const char* XBaseMemoField::data() {
  return memo || Load() ? memo : nullptr;
}

bool XBaseMemoField::Load() {
  char* text = nullptr;
  int count = 0;
  if (const int block = BlockNumber(current); block == 0) {
    text = NewTextCopy("", 0);
  } else if (!table || !table->ReadMemoBlock(block, &text, &count)) {
    delete[] text;
    return false;
  }
  memo = text;
  memo_length = count;
  // If SwapOriginal has exchanged the texts, a changed memo is here: keep it.
  if (!original_memo) {
    original_memo = NewTextCopy(memo, count);
    original_memo_length = count;
  }
  return true;
}

void XBaseMemoField::SwapOriginal() {
  std::swap(memo, original_memo);
}

void XBaseMemoField::SetOriginal() {
  if (!memo) return;
  const int count = static_cast<int>(strlen(memo));
  delete[] std::exchange(original_memo, nullptr);
  original_memo = NewTextCopy(memo, count);
  original_memo_length = count;
}
