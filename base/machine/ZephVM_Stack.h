// The operand stack of one frame. Entries carry their own type and ownership, so that a text
// travels from the dictionary or a variable to the output without being copied.

#ifndef ZEPH_BASE_ZEPHVM_STACK_H
#define ZEPH_BASE_ZEPHVM_STACK_H

#include <bit>
#include <cstdint>
#include <cstring>
#include <memory>

#include "base/core/FreeList.h"
#include "base/core/Numbers.h"
#include "base/values/DeferredText.h"
#include "base/values/Variable.h"

class LinkBuffer;
class ZephApplication;
class ZephVM;

// Belongs to one machine and its thread. A stack has 512 entries for good: that limits the depth of
// one expression, not of the script.
//
// "Deletable" says that the entry owns its value: dropping it frees a String (delete[]), deletes a
// LinkBuffer, or gives back one count of a Variable. An operation that fails reports through
// ZephVM::FatalError, does nothing further, and answers 0, 0.0 or null; values that were handed to
// it are freed.
class ZephVM_Stack {
 public:
  ZEPH_FREE_LIST_OPERATORS(ZephVM_Stack)

  enum Kind : int {
    KindInteger = 0,
    KindDouble = 1,
    KindString = 2,
    KindVariable = 3,
    KindLinkBuffer = 4,
  };
  static const int Capacity = 512;
  // Longer texts are chained sooner than copied.
  static const int ShortText = 256;

  struct Stack_Entry {
    int kind;
    unsigned char deletable;
    // Set on the copy that Dupe makes of an entry: it owns what it holds, so that the two can be
    // consumed in any order, yet counts as not deletable wherever that makes a difference.
    unsigned char private_copy;
    // The value, a String or a LinkBuffer by its kind, is still to be put together: pending has it.
    unsigned char deferred;
    union {
      int integer;
      double number;
      char* text;
      Variable* variable;
      LinkBuffer* buffer;
      DeferredText* pending;
    } value;
    int length;  // bytes of a String; 4 for an Integer, 8 otherwise
    int size;    // capacity of a String's buffer, otherwise as length

    // Entries are written and copied in words: a processor forwards a word that it has just stored
    // to whoever reads it or a part of it, but makes wait who reads more than was stored at once.
    void CopyFrom(const Stack_Entry& other) {
      const auto* from = reinterpret_cast<const uint64_t*>(&other);
      Set(from[0], from[1], from[2]);
    }
    void SetInteger(int number) { Set(KindInteger, static_cast<uint32_t>(number), Lengths(4, 4)); }
    void SetDouble(double number) {
      Set(KindDouble, std::bit_cast<uint64_t>(number), Lengths(8, 8));
    }
    // Text that is not the entry's; the pointer is kept.
    void SetText(const char* bytes, int count) {
      Set(KindString, reinterpret_cast<uintptr_t>(bytes), Lengths(count, count));
    }
    // Adopts a count on the variable.
    void SetOwned(Variable* held) {
      Set(KindVariable | OwnedMark, reinterpret_cast<uintptr_t>(held), Lengths(8, 8));
    }
    // Takes one.
    void SetVariable(Variable* held) {
      held->Hold();
      SetOwned(held);
    }
    void MarkChained() {
      kind = KindLinkBuffer;
      length = size = 8;
    }
    // A constant text and a variable's value behind it, as cat leaves them.
    template <typename Value>
    void SetDeferred(const char* bytes, int count, Value added) {
      auto text = std::make_unique<DeferredText>();
      text->Append(bytes, count);
      text->Append(added);
      SetDeferred(text.release());
    }
    // A deferred text that begins with a variable's, which cat takes for one that is owned.
    void SetDeferred(DeferredText* text) {
      Set(KindLinkBuffer | OwnedMark | DeferredMark, reinterpret_cast<uintptr_t>(text),
          Lengths(8, 8));
    }
    // Puts more behind a deferred text. What comes of two cats is a LinkBuffer.
    template <typename Value>
    void AppendDeferred(Value added) {
      value.pending->Append(added);
      MarkChained();
    }
    void AppendDeferred(const char* bytes, int count) {
      value.pending->Append(bytes, count);
      MarkChained();
    }
    // Whether the entry has something to free.
    bool Owns() const {
      uint16_t owned;
      memcpy(&owned, &deletable, sizeof owned);
      return owned != 0;
    }

   private:
    static constexpr uint64_t OwnedMark = uint64_t{1} << 32;     // deletable
    static constexpr uint64_t DeferredMark = uint64_t{1} << 48;  // deferred
    static constexpr uint64_t Lengths(int length, int size) {
      return static_cast<uint32_t>(length) | static_cast<uint64_t>(size) << 32;
    }
    void Set(uint64_t head, uint64_t word, uint64_t lengths) {
      auto* to = reinterpret_cast<uint64_t*>(this);
      to[0] = head;
      to[1] = word;
      to[2] = lengths;
    }
  };

  // The machine is borrowed; it hears of underflows and overflows.
  explicit ZephVM_Stack(ZephVM* vm);
  ~ZephVM_Stack();
  ZephVM_Stack(const ZephVM_Stack&) = delete;
  ZephVM_Stack& operator=(const ZephVM_Stack&) = delete;

  int Entries() const { return static_cast<int>(top - entries); }

  void PushI(int value) {
    if (Stack_Entry* entry = Room()) entry->SetInteger(value);
  }
  void PushD(double value) {
    if (Stack_Entry* entry = Room()) entry->SetDouble(value);
  }
  // The pointer is kept, not copied; a deletable text was made with new[].
  void PushS(const char* data, int length, int size, int deletable);
  void PushLinkBuffer(LinkBuffer* buffer, int deletable);
  // With addref a count is taken. Null is the fatal error "Invalid variable reference".
  void PushV(Variable* variable, int addref, int deletable);
  // PushV(variable, 1, 1) for a variable that is there.
  void PushHeld(Variable* variable) {
    if (Stack_Entry* entry = Room()) entry->SetVariable(variable);
  }
  // Moves count entries, one at a time from the top of the other stack to this one's, so that their
  // order is reversed. A Variable that was borrowed is owned from then on: the other stack may die
  // first. Serves to hand a function's result to its caller, with a count of 1.
  void Push(ZephVM_Stack* from, int count);
  // Pushes copies of all entries of another machine's stack, for a task of that application: what
  // they hold is the copies' own.
  void CopyEntries(ZephApplication* application, ZephVM_Stack& source);

  // The top entry, null on an empty stack.
  Stack_Entry* Peek() { return top > entries ? Settled(top - 1) : nullptr; }
  void Pop() {
    if (top > entries) {
      Free(--top);
    } else {
      Underflow();
    }
  }
  // A double is truncated; one that does not fit in 32 bits, and NaN, give -2147483648.
  int PopI() {
    if (top > entries) {
      Stack_Entry* entry = top - 1;
      if (entry->kind == KindInteger) return (--top)->value.integer;
      if (entry->kind == KindDouble) return DoubleToInteger((--top)->value.number);
      if (entry->kind == KindVariable) {
        const int number = entry->value.variable->Read_Integer();
        Free(--top);
        return number;
      }
    }
    return PopConvertedI();
  }
  double PopD() {
    if (top > entries) {
      Stack_Entry* entry = top - 1;
      if (entry->kind == KindDouble) return (--top)->value.number;
      if (entry->kind == KindInteger) return (--top)->value.integer;
      if (entry->kind == KindVariable) {
        const double number = entry->value.variable->Read_Double();
        Free(--top);
        return number;
      }
    }
    return PopConvertedD();
  }
  // A text is false if empty or if it has nothing but "0" and at most one ".".
  bool PopBool();
  // Whether the text is empty or the variable is NULL; numbers never are.
  bool PopNull();
  // As PopI, but a text "top" gives -1 and "bottom" -2, whatever the case.
  int PopDBPosition();
  // The top as text, never null. *deletable tells whether the caller must delete[] it; else it
  // stays valid until the end of the instruction. A text is NUL-terminated only where its size
  // exceeds its length and its maker wrote one. *size may be less than length for a text that is
  // not deletable.
  char* PopS(int* length, int* size, int* deletable);
  // PopS without the NUL bytes; always deletable and terminated.
  char* PopS_NS(int* length, int* size, int* deletable);
  // Assigns the top to the target, which is borrowed.
  void PopV(Variable* target) {
    if (target && top > entries) {
      if (top[-1].kind == KindDouble) {
        target->Write_Double((--top)->value.number);
        return;
      }
      if (top[-1].kind == KindInteger) {
        target->Write_Integer((--top)->value.integer);
        return;
      }
    }
    PopConvertedV(target);
  }
  // Takes out a Variable with its count, if *deletable is set then; answers 1. Anything else is
  // dropped with the fatal error "Expected variable, found constant"; then *out is null, *deletable
  // 0 and the answer 0.
  int PopV(Variable** out, int* deletable);

  // Takes two entries off and compares the lower with the top: as numbers when both are, else as
  // text byte by byte. Below 0, 0 or above 0.
  int Compare() {
    if (top - entries >= 2) {
      Stack_Entry* left = top - 2;
      Stack_Entry* right = top - 1;
      double a, b;
      if (IsNumber(left, &a) && IsNumber(right, &b)) {
        top -= 2;
        Free(right);
        Free(left);
        return a == b ? 0 : a < b ? -1 : 1;
      }
    }
    return CompareConverted();
  }
  static int Compare(const Stack_Entry* left, const Stack_Entry* right);
  void Dupe();
  // Takes a text off that is still to be put together, as the caller's; null for anything else.
  DeferredText* PopDeferred() {
    return top > entries && top[-1].deferred ? (--top)->value.pending : nullptr;
  }
  // Exchanges the entries at two depths; 0 is the top.
  void Swap(int a, int b);
  // Takes two entries off and pushes the lower followed by the top. A run of these builds one
  // LinkBuffer in place.
  void Concatenate();

  // --- Runs that work on somebody's stack --------------------------------------------------------
  // Hides all entries, whose count it answers: until they are back, the stack is an empty one with
  // so much less room, and whatever takes more than it has pushed underflows.
  int HideEntries() {
    const int hidden = Entries();
    entries += hidden;
    SS -= hidden;
    return hidden;
  }
  void ShowEntries(int hidden) {
    entries -= hidden;
    SS += hidden;
  }
  // Drops all entries but the top.
  void KeepTop();
  // Makes the top own what it holds, if it does not: a text of a dictionary may go before it.
  void OwnTop();

  // The conversions behind the above, for code that handles entries itself. Both consume what the
  // entry owns; the entry must not be used again.
  char* ConvertEntryToString(Stack_Entry* entry, int* length, int* size, int* deletable);
  LinkBuffer* ConvertEntryToDeletableLinkBuffer(Stack_Entry* entry);

  // Prints all entries to standard output.
  void Dump_Stack();

  // --- For the hot loop, which makes the tests itself (base/machine/ZephVM_Hot.cpp) --------------
  // Behind the last entry, the first one, and behind the last that there is room for.
  Stack_Entry* End() const { return top; }
  Stack_Entry* Begin() const { return entries; }
  Stack_Entry* Limit() const { return limit; }
  void SetEnd(Stack_Entry* end) { top = end; }
  // Whether that many entries fit behind the last.
  bool HasRoom(int count) const { return limit - top >= count; }
  static void Swap(Stack_Entry* a, Stack_Entry* b) {
    Stack_Entry held;
    held.CopyFrom(*a);
    a->CopyFrom(*b);
    b->CopyFrom(held);
  }
  // Frees what an entry owns. The entry stays as it is.
  static void Free(Stack_Entry* entry) {
    if (!entry->Owns()) return;
    if (entry->kind == KindVariable) {
      entry->value.variable->Release();
    } else {
      FreeText(entry);
    }
  }

 private:
  // Deep enough for almost all expressions. Functions call one another by the thousand, so a stack
  // takes the room for all of its entries only when it needs it.
  static const int FirstEntries = 16;

  // Room for an entry on top, to be filled; null after an overflow, and where there is no memory.
  Stack_Entry* Room() { return top < limit || Grow() ? top++ : nullptr; }
  // The value as a number, if it is one without being converted.
  static bool IsNumber(const Stack_Entry* entry, double* number) {
    if (entry->kind == KindInteger) {
      *number = entry->value.integer;
    } else if (entry->kind == KindDouble) {
      *number = entry->value.number;
    } else if (entry->kind == KindVariable) {
      const unsigned forms = entry->value.variable->plain_forms();
      if (forms == 0 || (forms & Variable::TextForm)) return false;
      *number = entry->value.variable->Read_Double();
    } else {
      return false;
    }
    return true;
  }
  Stack_Entry* Settled(Stack_Entry* entry) {
    if (entry->deferred) Settle(entry);
    return entry;
  }

  bool Grow();
  void Underflow();
  Stack_Entry* Top();
  void Drop();
  static void Disown(Stack_Entry* entry);
  static void FreeText(Stack_Entry* entry);
  void Settle(Stack_Entry* entry);
  int PopConvertedI();
  double PopConvertedD();
  void PopConvertedV(Variable* target);
  int CompareConverted();
  bool KeptElsewhere(const Stack_Entry* entry) const;
  void MakeLinkBuffer(Stack_Entry* entry);
  bool Defer(Stack_Entry* left, Stack_Entry* right);
  void AppendDeferred(DeferredText* text, Stack_Entry* right);
  void ConcatenateTexts(Stack_Entry* left, Stack_Entry* right);
  void AppendEntry(LinkBuffer* buffer, Stack_Entry* entry);
  void PrependEntry(LinkBuffer* buffer, Stack_Entry* entry);
  static double NumericValue(const Stack_Entry* entry, int* not_numeric);
  static int CompareTexts(const Stack_Entry* left, const Stack_Entry* right);

  ZephVM* vm;
  Stack_Entry* entries = first_entries;
  Stack_Entry* top = first_entries;  // behind the last entry
  int SS = Capacity;
  Stack_Entry* limit = first_entries + FirstEntries;  // of the room that there is now
  Stack_Entry first_entries[FirstEntries];
};

#endif
