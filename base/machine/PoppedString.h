// Guards that free a text popped from a stack.

#ifndef ZEPH_BASE_POPPEDSTRING_H
#define ZEPH_BASE_POPPEDSTRING_H

#include <cstring>

#include "base/machine/ZephVM_Stack.h"

// Pops the top as text and frees it at the end of the scope if it is deletable. After a stack error
// the text is empty and the machine's stop flag is set.
class PoppedString {
 public:
  explicit PoppedString(ZephVM_Stack* stack) : text(stack->PopS(&bytes, &room, &deletable)) {}
  ~PoppedString() {
    if (deletable) delete[] text;
  }
  PoppedString(const PoppedString&) = delete;
  PoppedString& operator=(const PoppedString&) = delete;

  // Never null. Usually not NUL-terminated.
  const char* data() const { return text; }
  int length() const { return bytes; }
  int size() const { return room; }
  bool owned() const { return deletable != 0; }
  // For an operation that adopts an owned text and clears the flag.
  int* ownership() { return &deletable; }
  // Hands an owned text to the caller, who frees it with delete[].
  char* release() {
    deletable = 0;
    return text;
  }

 protected:
  PoppedString() = default;

  int bytes = 0;
  int room = 0;
  int deletable = 0;
  char* text = nullptr;
};

// The name of a file: its NUL bytes are removed, and it is terminated and always owned.
class PoppedPath : public PoppedString {
 public:
  explicit PoppedPath(ZephVM_Stack* stack) { text = stack->PopS_NS(&bytes, &room, &deletable); }
};

// A text that stays valid while other variables are popped, looked up and read, and while code
// runs. A variable's text is copied, because for example that of an array is rebuilt at each read.
class KeptString : public PoppedString {
 public:
  explicit KeptString(ZephVM_Stack* stack) {
    // Most names in a script are constants.
    if (stack->PopBorrowed(&text, &bytes, &room)) return;
    const ZephVM_Stack::Stack_Entry* top = stack->Peek();
    const bool of_variable = top && top->kind == ZephVM_Stack::KindVariable;
    text = stack->PopS(&bytes, &room, &deletable);
    if (deletable || !of_variable) return;
    auto* copy = new char[static_cast<size_t>(bytes) + 1];
    memcpy(copy, text, static_cast<size_t>(bytes));
    text = copy;
    room = bytes + 1;
    deletable = 1;
  }
};

#endif
