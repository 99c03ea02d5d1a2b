// The memory for the elements of a row and for the members of a structure. Copies of a value share
// one table until one of them needs it for itself.

#ifndef ZEPH_BASE_SLOTTABLE_H
#define ZEPH_BASE_SLOTTABLE_H

#include <bit>
#include <cmath>
#include <cstdint>

class Variable;

// An element of a row: a variable, or only the number that would be its value. The ranges of the
// 64-bit word distinguish them: addresses are below 2^49; the bits of a double that is not NaN have
// that offset added; an integer is in the lower half, below the tag 0xFFFE in the upper 16 bits.
class DenseSlot {
 public:
  DenseSlot() = default;
  explicit DenseSlot(Variable* variable) : word(reinterpret_cast<uintptr_t>(variable)) {}
  explicit DenseSlot(int number) : word(IntegerTag | static_cast<uint32_t>(number)) {}
  explicit DenseSlot(double number) : word(std::bit_cast<uint64_t>(number) + DoubleOffset) {}
  // Whether a slot can hold that number.
  static bool Takes(int) { return true; }
  static bool Takes(double number) { return !std::isnan(number); }

  bool IsVariable() const { return word < DoubleOffset; }
  bool IsInteger() const { return word >= IntegerTag; }
  Variable* variable() const { return reinterpret_cast<Variable*>(word); }
  int integer() const { return static_cast<int>(static_cast<uint32_t>(word)); }
  double number() const { return std::bit_cast<double>(word - DoubleOffset); }
  // Replaces a number, also that of a variable that has it alone and in the same form. Returns
  // false and does nothing for others. In base/values/Aggregate.h.
  inline bool Overwrite(int number);
  inline bool Overwrite(double number);

 private:
  friend struct NativeLayout;

  static constexpr uint64_t DoubleOffset = uint64_t{1} << 49;
  static constexpr uint64_t IntegerTag = uint64_t{0xFFFE} << 48;
  uint64_t word = 0;
};

// A table is the address of its first slot; the count of its holders and its capacity are in memory
// before that. The holders belong to one thread, and all use the same number of slots. A table that
// is shared is not written to, and none of its variables is handed out: a holder that needs either
// makes a copy first.
class SlotTable {
 public:
  // Returns a table with at least that capacity, whose slots are undefined. The count is the
  // caller's. REQUIRES: least is 1 or more.
  [[nodiscard]] static DenseSlot* Make(int least);
  static int Capacity(const DenseSlot* slots) { return HeadOf(slots)->capacity; }
  static bool IsShared(const DenseSlot* slots) { return HeadOf(slots)->holders > 1; }
  // Takes a count, for another holder.
  static DenseSlot* Share(DenseSlot* slots) {
    HeadOf(slots)->holders++;
    return slots;
  }
  // Gives a count back. The last one releases the variables in the first count slots, null ones
  // excepted, and frees the memory. Releasing a variable may run code that uses the same value, so
  // the caller no longer refers to the table.
  static void Release(DenseSlot* slots, int count);
  // Frees the memory alone. REQUIRES: there is one holder.
  static void Free(DenseSlot* slots);
  // Returns a new NULL variable with the caller's count. Its class is known to be Variable.
  [[nodiscard]] static Variable* NewVariable();
  // The variable of a slot, which is made if the slot has only a number; null if it is null.
  // REQUIRES: the table has one holder.
  static Variable* VariableOf(DenseSlot* slot) {
    return slot->IsVariable() ? slot->variable() : MakeVariable(slot);
  }
  // Gives a count back and returns a table of the caller's own with the same values in the first
  // count slots, with new variables. If that throws, the count is still taken. REQUIRES: the table
  // is shared; its values are isolated (see AggregateElementTree::IsIsolated).
  [[nodiscard]] static DenseSlot* Part(DenseSlot* slots, int count);

 private:
  struct Head {
    int holders;
    int capacity;
  };
  static Variable* MakeVariable(DenseSlot* slot);
  static Head* HeadOf(DenseSlot* slots) { return reinterpret_cast<Head*>(slots) - 1; }
  static const Head* HeadOf(const DenseSlot* slots) {
    return reinterpret_cast<const Head*>(slots) - 1;
  }
};

#endif
