// The operand stack of one frame. Entries carry their own type and ownership, so that a text
// travels from the dictionary or a variable to the output without being copied.

#ifndef ZEPH_BASE_ZEPHVM_STACK_H
#define ZEPH_BASE_ZEPHVM_STACK_H

class LinkBuffer;
class Variable;
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
  enum Kind : int {
    KindInteger = 0,
    KindDouble = 1,
    KindString = 2,
    KindVariable = 3,
    KindLinkBuffer = 4,
  };
  static const int Capacity = 512;

  struct Stack_Entry {
    int kind;
    unsigned deletable : 1;
    // Set on the copy that Dupe makes of an entry: it owns what it holds, so that the two can be
    // consumed in any order, yet counts as not deletable wherever that makes a difference.
    unsigned private_copy : 1;
    union {
      int integer;
      double number;
      char* text;
      Variable* variable;
      LinkBuffer* buffer;
    } value;
    int length;  // bytes of a String; 4 for an Integer, 8 otherwise
    int size;    // capacity of a String's buffer, otherwise as length
  };

  // The machine is borrowed; it hears of underflows and overflows.
  explicit ZephVM_Stack(ZephVM* vm);
  ~ZephVM_Stack();
  ZephVM_Stack(const ZephVM_Stack&) = delete;
  ZephVM_Stack& operator=(const ZephVM_Stack&) = delete;

  int Entries() const { return SP; }

  void PushI(int value);
  void PushD(double value);
  // The pointer is kept, not copied; a deletable text was made with new[].
  void PushS(const char* data, int length, int size, int deletable);
  void PushLinkBuffer(LinkBuffer* buffer, int deletable);
  // With addref a count is taken. Null is the fatal error "Invalid variable reference".
  void PushV(Variable* variable, int addref, int deletable);
  // Moves count entries, one at a time from the top of the other stack to this one's, so that their
  // order is reversed. A Variable that was borrowed is owned from then on: the other stack may die
  // first. Serves to hand a function's result to its caller, with a count of 1.
  void Push(ZephVM_Stack* from, int count);

  // The top entry, null on an empty stack.
  Stack_Entry* Peek() { return SP > 0 ? &entries[SP - 1] : nullptr; }
  void Pop();
  // A double is truncated; one that does not fit in 32 bits, and NaN, give -2147483648.
  int PopI();
  double PopD();
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
  void PopV(Variable* target);
  // Takes out a Variable with its count, if *deletable is set then; answers 1. Anything else is
  // dropped with the fatal error "Expected variable, found constant"; then *out is null, *deletable
  // 0 and the answer 0.
  int PopV(Variable** out, int* deletable);

  // Takes two entries off and compares the lower with the top: as numbers when both are, else as
  // text byte by byte. Below 0, 0 or above 0.
  int Compare();
  static int Compare(const Stack_Entry* left, const Stack_Entry* right);
  void Dupe();
  // Exchanges the entries at two depths; 0 is the top.
  void Swap(int a, int b);
  // Takes two entries off and pushes the lower followed by the top. A run of these builds one
  // LinkBuffer in place.
  void Concatenate();

  // The conversions behind the above, for code that handles entries itself. Both consume what the
  // entry owns; the entry must not be used again.
  char* ConvertEntryToString(Stack_Entry* entry, int* length, int* size, int* deletable);
  LinkBuffer* ConvertEntryToDeletableLinkBuffer(Stack_Entry* entry);

  // Prints all entries to standard output.
  void Dump_Stack();

 private:
  Stack_Entry* Room();
  Stack_Entry* Top();
  void Drop();
  static void Disown(Stack_Entry* entry);
  static void Free(Stack_Entry* entry);
  bool KeptElsewhere(const Stack_Entry* entry) const;
  void MakeLinkBuffer(Stack_Entry* entry);
  void ConcatenateTexts(Stack_Entry* left, Stack_Entry* right);
  void AppendEntry(LinkBuffer* buffer, Stack_Entry* entry);
  void PrependEntry(LinkBuffer* buffer, Stack_Entry* entry);
  static double NumericValue(const Stack_Entry* entry, int* not_numeric);
  static int CompareTexts(const Stack_Entry* left, const Stack_Entry* right);

  ZephVM* vm;
  Stack_Entry* entries;
  int SP = 0;
  int SS = Capacity;
};

#endif
