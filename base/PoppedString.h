// Guard of a text that was popped from a stack.

#ifndef ZEPH_BASE_POPPEDSTRING_H
#define ZEPH_BASE_POPPEDSTRING_H

#include "base/ZephVM_Stack.h"

// Pops the top as text and frees it at the end of the scope, if the stack says so. After a stack
// error the text is empty and the machine's stop flag is set.
class PoppedString {
 public:
  explicit PoppedString(ZephVM_Stack* stack) : text(stack->PopS(&bytes, &room, &deletable)) {}
  ~PoppedString() {
    if (deletable) delete[] text;
  }
  PoppedString(const PoppedString&) = delete;
  PoppedString& operator=(const PoppedString&) = delete;

  // Never null; not NUL-terminated as a rule.
  const char* data() const { return text; }
  int length() const { return bytes; }
  int size() const { return room; }
  bool owned() const { return deletable != 0; }
  // Hands an owned text to the caller, who frees it with delete[].
  char* release() {
    deletable = 0;
    return text;
  }

 private:
  int bytes;
  int room;
  int deletable;
  char* text;
};

#endif
