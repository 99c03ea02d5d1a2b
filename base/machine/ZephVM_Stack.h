// The operand stack of one frame. Entries carry their own type and ownership, so that a text gets
// from the dictionary or a variable to the output without being copied.

#ifndef ZEPH_BASE_ZEPHVM_STACK_H
#define ZEPH_BASE_ZEPHVM_STACK_H

#include <bit>
#include <cstdint>
#include <cstring>
#include <memory>

#include "base/core/FreeList.h"
#include "base/core/Limits.h"
#include "base/core/Numbers.h"
#include "base/values/DeferredText.h"
#include "base/values/Variable.h"

class LinkBuffer;
class ZephApplication;
class ZephVM;

// Belongs to one machine and its thread. A stack has at most 512 entries: that limits the depth of
// one expression, not of the script.
//
// "Deletable" means that the entry owns its value: dropping it frees a String (delete[]), deletes a
// LinkBuffer, or gives back one count of a Variable. An operation that fails reports through
// ZephVM::FatalError, does nothing further, and returns 0, 0.0 or null; values that were handed to
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
  // Longer texts are chained instead of copied.
  static const int ShortText = 256;

  struct Stack_Entry {
    int kind;
    unsigned char deletable;
    // Set on the copy that Dupe makes of an entry. The copy owns its value, so that the two can be
    // consumed in any order, but counts as not deletable wherever that makes a difference.
    unsigned char private_copy;
    // The value, a String or a LinkBuffer according to kind, is not put together yet; see pending.
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

    // Entries are written and copied in 8-byte words: a load wider than the last store misses store
    // forwarding and stalls.
    void CopyFrom(const Stack_Entry& other) {
      const auto* from = reinterpret_cast<const uint64_t*>(&other);
      Set(from[0], from[1], from[2]);
    }
    void SetInteger(int number) { Set(KindInteger, static_cast<uint32_t>(number), Lengths(4, 4)); }
    void SetDouble(double number) {
      Set(KindDouble, std::bit_cast<uint64_t>(number), Lengths(8, 8));
    }
    // A text that the entry does not own; the pointer is kept.
    void SetText(const char* bytes, int count) {
      Set(KindString, reinterpret_cast<uintptr_t>(bytes), Lengths(count, count));
    }
    // Adopts a text made with new[].
    void SetOwnedText(char* bytes, int count, int allocated) {
      Set(KindString | OwnedMark, reinterpret_cast<uintptr_t>(bytes), Lengths(count, allocated));
    }
    // Adopts a count on the variable.
    void SetOwned(Variable* held) {
      Set(KindVariable | OwnedMark, reinterpret_cast<uintptr_t>(held), Lengths(8, 8));
    }
    // Takes a count on the variable.
    void SetVariable(Variable* held) {
      held->Hold();
      SetOwned(held);
    }
    void MarkChained() {
      kind = KindLinkBuffer;
      length = size = 8;
    }
    // A constant text followed by a variable's value, as cat leaves them.
    template <typename Value>
    void SetDeferred(const char* bytes, int count, Value added) {
      auto text = std::make_unique<DeferredText>();
      text->Append(bytes, count);
      text->Append(added);
      SetDeferred(text.release());
    }
    // A deferred text that begins with a variable's text; cat treats the variable as owned, so the
    // result is chained.
    void SetDeferred(DeferredText* text) {
      Set(KindLinkBuffer | OwnedMark | DeferredMark, reinterpret_cast<uintptr_t>(text),
          Lengths(8, 8));
    }
    // A deferred text that one cat or more have made. The result is chained if it is of more than
    // one cat, or if an operand of the only one was owned.
    void SetDeferred(DeferredText* text, bool chained) {
      const int count = text->length();
      Set((chained ? KindLinkBuffer : KindString) | OwnedMark | DeferredMark,
          reinterpret_cast<uintptr_t>(text), chained ? Lengths(8, 8) : Lengths(count, count + 1));
    }
    // Appends to a deferred text. The result of two cats is a LinkBuffer.
    template <typename Value>
    void AppendDeferred(Value added) {
      value.pending->Append(added);
      MarkChained();
    }
    void AppendDeferred(const char* bytes, int count) {
      value.pending->Append(bytes, count);
      MarkChained();
    }
    // Becomes the copy that Dupe makes of a number or a variable. Returns false and does nothing
    // for others.
    bool DupeSimple(const Stack_Entry& source) {
      if (source.kind == KindVariable && source.Owns()) {
        source.value.variable->Hold();
        Set(KindVariable | PrivateMark, reinterpret_cast<uintptr_t>(source.value.variable),
            Lengths(8, 8));
        return true;
      }
      if (source.kind > KindDouble) return false;
      CopyFrom(source);
      return true;
    }
    // Whether the entry owns something. Reads deletable and private_copy in one load.
    bool Owns() const {
      uint16_t owned;
      memcpy(&owned, &deletable, sizeof owned);
      return owned != 0;
    }

    // Whether it is a String that owns nothing and is not deferred. Reads the four in one load; the
    // byte after them has no meaning.
    bool IsBorrowedText() const {
      uint64_t head;
      memcpy(&head, this, sizeof head);
      return head << 8 == uint64_t{KindString} << 8;
    }

   private:
    friend struct NativeLayout;
    static constexpr uint64_t OwnedMark = uint64_t{1} << 32;     // deletable
    static constexpr uint64_t PrivateMark = uint64_t{1} << 40;   // private_copy
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

  // The machine is borrowed; underflows and overflows are reported to it.
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
  // Keeps the pointer, without a copy. REQUIRES: a deletable text was made with new[].
  void PushS(const char* data, int length, int size, int deletable);
  void PushLinkBuffer(LinkBuffer* buffer, int deletable);
  // With addref a count is taken. Null is the fatal error "Invalid variable reference".
  void PushV(Variable* variable, int addref, int deletable);
  // PushV(variable, 1, 1). REQUIRES: the variable is not null.
  void PushHeld(Variable* variable) {
    if (Stack_Entry* entry = Room()) entry->SetVariable(variable);
  }
  // Moves count entries, one at a time from the top of the other stack to the top of this one, so
  // their order is reversed. A borrowed Variable becomes owned, because the other stack may be
  // deleted first. With a count of 1 it hands a function's result to the caller.
  void Push(ZephVM_Stack* from, int count);
  // Pushes copies of all entries of another machine's stack, for a task of that application. The
  // copies share nothing with the originals.
  void CopyEntries(ZephApplication* application, ZephVM_Stack& source);

  // Returns the top entry; null on an empty stack. A deferred text is put together first.
  Stack_Entry* Peek() { return top > entries ? Settled(top - 1) : nullptr; }
  void Pop() {
    if (top > entries) {
      Free(--top);
    } else {
      Underflow();
    }
  }
  // Pops an integer. A double is truncated; NaN and one that does not fit in 32 bits give
  // -2147483648.
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
  // True for an empty text and a NULL variable; numbers are never null.
  bool PopNull();
  // As PopI, but the text "top" gives -1 and "bottom" -2, in any case.
  int PopDBPosition();
  // Pops the top as text, never null. *deletable is set if the caller must delete[] it; otherwise
  // it stays valid until the end of the instruction. A text is NUL-terminated only if its size
  // exceeds its length and its maker wrote one. *size may be less than length for a text that is
  // not deletable.
  char* PopS(int* length, int* size, int* deletable);
  // Pops a text that the entry does not own, as PopS does. Returns false and pops nothing if the
  // top is anything else.
  bool PopBorrowed(char** data, int* length, int* size) {
    if (top == entries || !top[-1].IsBorrowedText()) return false;
    top--;
    *data = top->value.text;
    *length = top->length;
    *size = top->size;
    return true;
  }
  // PopS without the NUL bytes; always deletable and terminated.
  char* PopS_NS(int* length, int* size, int* deletable);
  // Pops the top and assigns it to the target, which is borrowed.
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
  // Pops a Variable and returns 1; if *deletable is set, the caller gets its count. Anything else
  // is dropped with the fatal error "Expected variable, found constant": *out is null, *deletable
  // 0, and 0 is returned.
  int PopV(Variable** out, int* deletable);

  // Pops two entries and compares the lower with the top: as numbers if both are, else as text byte
  // by byte. Returns below 0, 0 or above 0.
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
  // The same for two texts of which one is no number, as a look at its beginning shows, without a
  // conversion. Returns false for others.
  static bool CompareWords(const Stack_Entry* left, const Stack_Entry* right, int* order);
  void Dupe();
  // Pops a deferred text, which then belongs to the caller; returns null and pops nothing if the
  // top is anything else.
  DeferredText* PopDeferred() {
    return top > entries && top[-1].deferred ? (--top)->value.pending : nullptr;
  }
  // Exchanges the entries at two depths; 0 is the top.
  void Swap(int a, int b);
  // Pops two entries and pushes the lower followed by the top. A sequence of these builds one
  // LinkBuffer in place.
  void Concatenate();

  // --- Runs on a stack that has entries ----------------------------------------------------------
  // Hides all entries and returns their number. Until ShowEntries, the stack behaves as an empty
  // one with that much less room, and code that pops more than it has pushed underflows.
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
  // Makes the top own what it holds, because a text in a dictionary may be freed first.
  void OwnTop();

  // The conversions that the above use, for code that handles entries itself. Both consume what the
  // entry owns; the entry must not be used afterwards.
  char* ConvertEntryToString(Stack_Entry* entry, int* length, int* size, int* deletable);
  LinkBuffer* ConvertEntryToDeletableLinkBuffer(Stack_Entry* entry);

  // Prints all entries to standard output.
  void Dump_Stack();
  // Whether the entries are within their room and the top is one that this class makes. Always
  // true; for assertions.
  bool IsSound() const;

  // --- For the hot loop, which makes the tests itself (base/machine/ZephVM_Hot.cpp) --------------
  // The place after the last entry, the first entry, and the place after the last that there is
  // room for.
  Stack_Entry* End() const { return top; }
  Stack_Entry* Begin() const { return entries; }
  Stack_Entry* Limit() const { return limit; }
  void SetEnd(Stack_Entry* end) { top = end; }
  // Whether that many more entries fit.
  bool HasRoom(int count) const { return limit - top >= count; }
  static void Swap(Stack_Entry* a, Stack_Entry* b) {
    Stack_Entry held;
    held.CopyFrom(*a);
    a->CopyFrom(*b);
    b->CopyFrom(held);
  }
  // Frees what an entry owns. The entry's bytes stay as they are.
  static void Free(Stack_Entry* entry) {
    if (!entry->Owns()) return;
    if (entry->kind == KindVariable) {
      entry->value.variable->Release();
    } else {
      FreeText(entry);
    }
  }

 private:
  friend struct NativeLayout;

  // Deep enough for almost all expressions. Functions call one another by the thousand, so a stack
  // allocates room for all 512 entries only when it needs them.
  static const int FirstEntries = kFirstStackEntries;

  // Returns room for an entry on top, which the caller fills; null after an overflow, or without
  // memory.
  Stack_Entry* Room() { return top < limit || Grow() ? top++ : nullptr; }
  // Whether the value is a number without a conversion; *number receives it.
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
  Stack_Entry* top = first_entries;  // after the last entry
  int SS = Capacity;
  Stack_Entry* limit = first_entries + FirstEntries;  // end of the current room
  Stack_Entry first_entries[FirstEntries];
};

#endif
