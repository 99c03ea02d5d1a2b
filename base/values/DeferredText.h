// A concatenation that is still going on. As long as its bytes stand only on the operand stack,
// nobody can tell how they are kept, so a short one is gathered in a buffer that comes with the
// object; and of one that begins with the text of a variable, as where scripts build long texts by
// s = s cat x, that text is not copied: when the result goes to the variable that it began with,
// only the new bytes are written, behind the old ones.

#ifndef ZEPH_BASE_DEFERREDTEXT_H
#define ZEPH_BASE_DEFERREDTEXT_H

#include "base/core/CopyText.h"
#include "base/core/FreeList.h"

class Output;
class Variable;

// The text of a variable, or none, followed by bytes of its own. Made by Begin, ended by Release,
// Assign or delete. Belongs to the variable's thread.
//
// The variable is borrowed, and watched: just before its text changes, or it goes, whoever changes
// it, the object takes a copy and is on its own from then on. Reading it changes nothing.
class DeferredText {
 public:
  ZEPH_FREE_LIST_OPERATORS(DeferredText)

  // Shorter texts are copied sooner than watched.
  static constexpr int ShortestPrefix = 128;

  // Begins with nothing.
  DeferredText() = default;

  // Begins with the present text of the variable, which is read if it is not there yet, or of what
  // it refers to. Null where that can't be watched or isn't worth it: the text of a derived class,
  // of an aggregate, a short one.
  [[nodiscard]] static DeferredText* Begin(Variable* variable);
  ~DeferredText();
  DeferredText(const DeferredText&) = delete;
  DeferredText& operator=(const DeferredText&) = delete;

  // Append copies of what is given. A sum of lengths that no text can have fails as an allocation,
  // with std::bad_alloc, and leaves the object as it was.
  void Append(const char* text, int count) {
    if (count <= 0) return;
    CopyText(count <= room - used ? bytes + used : Room(count), text, static_cast<size_t>(count));
    used += count;
  }
  void Append(int value);
  void Append(double value);
  void Append(Variable* variable);
  void Append(const DeferredText& text);

  // All bytes.
  int length() const { return prefix_length + used; }

  // The whole text in a buffer of length + 1 bytes, NUL-terminated, which the caller frees with
  // delete[]. Deletes the object, unless it fails with std::bad_alloc.
  [[nodiscard]] char* Release(int* length);
  // Stores the text in the variable and deletes the object. With adopt the outcome is that of
  // SetValue_Nocopy with a buffer of length + 1 bytes, else of SetValue.
  void Assign(Variable* target, bool adopt);

  void Write(Output* output) const;

  // For the variable, which is about to change.
  static void Settle(Variable* variable);
  // For the variable, which is about to go. Never fails: where there is no memory for the copy, the
  // text is lost, and whoever asks for it next gets the std::bad_alloc.
  static void SettleLast(Variable* variable);

 private:
  DeferredText(Variable* variable, int length);
  char* Room(int length);
  static DeferredText* FirstOf(Variable* variable);
  DeferredText* NextOfVariable() const;
  void CopyPrefix();
  void Lose();
  void ThrowIfLost() const;
  void StopWatching();
  void Flatten(char* destination) const;

  static constexpr int Small = 200;

  Variable* prefix = nullptr;  // null without one: all text is in bytes
  int prefix_length = 0;       // bytes of the variable's text
  int used = 0;
  int room = Small;  // of bytes, less if the whole text would get too long
  char* bytes = small;
  // Of those that watch on this thread. All that watch one variable stand side by side.
  DeferredText* next = nullptr;
  DeferredText* previous = nullptr;
  bool is_lost = false;
  char small[Small];
};

#endif
