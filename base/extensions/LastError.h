// The error text that a library, a manager or a configuration keeps for its caller.

#ifndef ZEPH_BASE_LASTERROR_H
#define ZEPH_BASE_LASTERROR_H

#include "base/core/StringClass.h"

// The text of the last failure of a library or a manager. Null until the first.
class LastError {
 public:
  // Keeps the older text if the given one is null, because then it is the more exact one.
  void Set(const String& text) {
    if (text.data != nullptr) last_text = text;
  }
  const String& text() const { return last_text; }

 private:
  String last_text;
};

#endif
