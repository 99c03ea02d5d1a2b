// A store of a short text in a String without a call. Tested in
// tests/base/core/StringClassTest.cpp.

#ifndef ZEPH_BASE_SHORTASSIGN_H
#define ZEPH_BASE_SHORTASSIGN_H

#include "base/core/SameBytes.h"
#include "base/core/StringClass.h"

// to->assign(text, length), in line for up to 16 bytes that have room in the buffer, as most values
// of records are when they replace one another.
inline void AssignShort(String* to, const char* text, int length) {
  if (static_cast<unsigned>(length) > 16 || length >= to->allocated) {
    to->assign(text, length);
    return;
  }
  CopyBytes(to->data, text, static_cast<size_t>(length));
  to->data[length] = '\0';
  to->length = length;
}

#endif
