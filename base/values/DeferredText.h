// The result of a concatenation that is still in progress. While its bytes are only on the operand
// stack, a script cannot observe how they are stored. So a short one is gathered in a buffer inside
// the object. If it begins with the text of a variable, as in s = s cat x, by which scripts build
// long texts, that text is not copied: when the result is stored in the same variable, only the new
// bytes are appended.

#ifndef ZEPH_BASE_DEFERREDTEXT_H
#define ZEPH_BASE_DEFERREDTEXT_H

#include "base/core/CopyText.h"
#include "base/core/FreeList.h"
#include "base/core/NumberText.h"

class Output;
class Variable;

// The text of a variable, or none, followed by bytes of the object's own. Made by Begin or new,
// ended by Release, Assign or delete. Belongs to the variable's thread.
//
// The variable is borrowed and watched: just before its text changes or it is deleted, the object
// copies the text and no longer depends on the variable. Reading the variable has no effect on it.
class DeferredText {
 public:
  ZEPH_FREE_LIST_OPERATORS(DeferredText)

  // Shorter texts, in bytes, are cheaper to copy than to watch.
  static constexpr int ShortestPrefix = 128;

  // Begins with no text. Not defaulted, because then std::make_unique would fill the buffer with
  // zeros first.
  DeferredText() {}

  // Returns an object, the caller's, that begins with the present text of the variable or of the
  // target it refers to. The text is converted if that form is not valid yet. Returns null if the
  // text can't be watched or isn't worth it: the text of a derived class or of an aggregate, or a
  // short one.
  [[nodiscard]] static DeferredText* Begin(Variable* variable);
  ~DeferredText();
  DeferredText(const DeferredText&) = delete;
  DeferredText& operator=(const DeferredText&) = delete;

  // Append copies of their arguments. If the total length would exceed the maximum of a text, they
  // throw std::bad_alloc and leave the object unchanged.
  void Append(const char* text, int count) {
    if (count <= 0) return;
    CopyText(count <= room - used ? bytes + used : Room(count), text, static_cast<size_t>(count));
    used += count;
  }
  void Append(int value) {
    if (room - used < kLongestInteger) return AppendLarge(value);
    used = static_cast<int>(WriteInteger(bytes + used, value) - bytes);
  }
  void Append(double value);
  void Append(Variable* variable);
  void Append(const DeferredText& text);

  // The length of the whole text in bytes.
  int length() const { return prefix_length + used; }
  // The text in place, length() bytes without a NUL; null if a part of it is somewhere else. Valid
  // until the next operation.
  const char* InPlace() const { return prefix || is_lost ? nullptr : bytes; }

  // Returns the whole text, NUL-terminated, in a buffer of length() + 1 bytes, which the caller
  // frees with delete[]. *all receives the length without the NUL. Deletes the object, unless it
  // throws std::bad_alloc.
  [[nodiscard]] char* Release(int* all);
  // Stores the text in the variable and deletes the object. With adopt the outcome is that of
  // SetValue_Nocopy with a buffer of length + 1 bytes, otherwise that of SetValue.
  void Assign(Variable* target, bool adopt);

  void Write(Output* output) const;

  // Called by a watched variable before its text changes.
  static void Settle(Variable* variable);
  // Called by a watched variable before it is deleted. Never fails: without memory for the copy the
  // text is lost, and the next operation that needs it throws the std::bad_alloc.
  static void SettleLast(Variable* variable);

 private:
  DeferredText(Variable* variable, int length);
  char* Room(int count);
  void AppendLarge(int value);
  static DeferredText* FirstOf(Variable* variable);
  DeferredText* NextOfVariable() const;
  void CopyPrefix();
  void Lose();
  void ThrowIfLost() const;
  void StopWatching();
  void Flatten(char* destination) const;

  static constexpr int Small = 200;

  Variable* prefix = nullptr;  // null if all text is in bytes
  int prefix_length = 0;       // bytes of the variable's text
  int used = 0;
  int room = Small;  // size of bytes; less if the whole text would get too long
  char* bytes = small;
  // The list of objects that watch on this thread. All that watch one variable are adjacent.
  DeferredText* next = nullptr;
  DeferredText* previous = nullptr;
  bool is_lost = false;
  char small[Small];
};

#endif
