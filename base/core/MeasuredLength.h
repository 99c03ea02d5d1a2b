// The length of a text argument, where -1 stands for strlen. Tested in
// tests/base/core/MeasuredLengthTest.cpp.

#ifndef ZEPH_BASE_MEASUREDLENGTH_H
#define ZEPH_BASE_MEASUREDLENGTH_H

#include <climits>
#include <cstring>
#include <new>

// The bytes of a text argument: strlen for a length of -1, 0 for any other negative length, else
// the given length; then the text needs no NUL. A null text has no bytes, whatever its length.
// Lengths have 32 bits, so a text of 2 GB or more fails as an allocation, with std::bad_alloc.
//
// A place that treats a length otherwise does so because a caller can tell the difference, and says
// so there:
//   LinkBuffer                     -1 counts as 0 like the other negative lengths
//   Config, KeyText, ZIXIndexKey,  every negative length means strlen
//   ZephVM's look-ups by name
//   compressed writes, NullOutput  other negative lengths stay as they are, as the result
//   zpVariableList_Find            other negative lengths match no name
inline int MeasuredLength(const char* text, int length) {
  if (!text) return 0;
  if (length >= 0) return length;
  if (length != -1) return 0;
  const size_t measured = strlen(text);
  if (measured > INT_MAX) throw std::bad_alloc();
  return static_cast<int>(measured);
}

#endif
