// A text on its way to a library.

#ifndef ZEPH_BASE_PASSEDTEXT_H
#define ZEPH_BASE_PASSEDTEXT_H

#include <cstring>

#include "base/core/MeasuredLength.h"
#include "base/core/StringClass.h"

// A copy of a text with a NUL at its end, which texts from the stack need not have. It is a copy
// also because the library may run code that changes the variable it comes from. Keys and values
// are short and passed for each record, so a short copy needs no memory of the heap.
class PassedText {
 public:
  // A length of -1 means strlen; a null text is an empty one.
  PassedText(const char* bytes, int length) : size(MeasuredLength(bytes, length)) {
    if (size >= kShort) {
      further.assign(bytes, size);
      return;
    }
    if (size > 0) memcpy(near, bytes, static_cast<size_t>(size));
    near[size] = '\0';
  }
  PassedText(const PassedText&) = delete;
  PassedText& operator=(const PassedText&) = delete;

  const char* data() const { return size >= kShort ? further.data : near; }
  int length() const { return size; }

 private:
  static constexpr int kShort = 200;  // bytes

  const int size;
  String further;
  char near[kShort];
};

#endif
