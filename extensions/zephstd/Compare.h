// The orders of texts, for sort and compare. Tested in tests/extensions/zephstd/ArrayTest.cpp.

#ifndef ZEPH_EXTENSIONS_ZEPHSTD_COMPARE_H
#define ZEPH_EXTENSIONS_ZEPHSTD_COMPARE_H

#include <string>
#include <string_view>

#include "extensions/zephstd/Call.h"

namespace zephstd {

struct TextOrder {
  bool number = false;   // by their values as numbers; what is none counts as 0
  bool nocase = false;   // without regard to case
  bool natural = false;  // digits in them by the value of the number
  bool descending = false;
};

// Reads an order, such as "nocase natural desc", from an argument. False if the script has its
// error.
bool ReadOrder(Call& call, int i, TextOrder* order);

// -1, 0 or 1. Ignores number and descending.
int CompareTexts(std::string_view left, std::string_view right, const TextOrder& order);

// The text in a form in which texts that differ only in case are equal. Bytes that are no UTF-8
// stay.
std::string FoldedCase(std::string_view text);

}  // namespace zephstd

#endif
