// The names of a structure's members, shared by all structures that got the same names in the same
// order. A program makes thousands of structures of a few kinds, so most structures need no memory
// for names, and a name that was found once in a layout is at the same place in each structure that
// has it.

#ifndef ZEPH_BASE_MEMBERLAYOUT_H
#define ZEPH_BASE_MEMBERLAYOUT_H

#include <cstdint>
#include <vector>

#include "base/core/SameBytes.h"
#include "base/core/memcmpi.h"
#include "base/values/SharedName.h"

// Where the code that looks a name up again and again found it last. One for each place in the code
// and each name; it starts as made by the constructor.
struct MemberHint {
  uint64_t layout = 0;  // serial of the layout, 0 for none
  int slot = 0;
};

// Up to kMost names. The slot of a name is the number of names that were added before it. Names
// that differ only in case are one name, in the spelling of the first.
//
// Belongs to one thread and is deleted with its last count. A layout that others may hold never
// changes; one with a single holder may get more names, at its end.
class MemberLayout {
 public:
  // Structures with more members are trees.
  static constexpr int kMost = 99;
  // Larger layouts are not shared by structures that were made one by one: these are tables that a
  // script fills with any names.
  static constexpr int kMostCommon = 16;

  MemberLayout(const MemberLayout&) = delete;
  MemberLayout& operator=(const MemberLayout&) = delete;

  // Returns the layout that has one more name than the given one, which may be null for no names.
  // Adopts the caller's count on that one and returns the result with one; it may be the same
  // object. If it throws, the count is still the caller's. REQUIRES: the layout does not have the
  // name, and has fewer than kMost.
  [[nodiscard]] static MemberLayout* With(MemberLayout* layout, const char* name, int length);
  // Returns a layout with the same names that shares no memory with this one, for another thread.
  [[nodiscard]] MemberLayout* Apart() const;
  // Drops the layouts of this thread that are kept for structures to come.
  static void ForgetCommon();

  void Hold() { ++holders; }
  void Release() {
    if (--holders == 0) delete this;
  }

  // A number above 0 that no other layout of the process has or had.
  uint64_t serial() const { return serial_; }
  int count() const { return static_cast<int>(names.size()); }
  SharedName* name(int slot) const { return names[static_cast<size_t>(slot)]; }
  // The slot of the name with that rank; ranks count from 0 in the order of names.
  int InOrder(int rank) const { return order[static_cast<size_t>(rank)]; }
  // The slot of a name, or -1. The text may be null if length is 0.
  int Find(const char* text, int length) const {
    for (unsigned place = Hash(text, length);; place++) {
      const int found = places[place & mask];
      if (found == 0) return -1;
      const SharedName* const present = names[static_cast<size_t>(found) - 1];
      if (present->length() != length) continue;
      const auto bytes = static_cast<size_t>(length);
      if (SameBytes(present->text(), text, bytes) || memcmpi(present->text(), text, bytes) == 0) {
        return found - 1;
      }
    }
  }
  // The same with a hint for that name.
  int Find(const char* text, int length, MemberHint* hint) const {
    if (hint->layout == serial_) return hint->slot;
    const int found = Find(text, length);
    if (found >= 0) *hint = {serial_, found};
    return found;
  }
  // The number of names that sort before a name which the layout does not have.
  int Before(const char* text, int length) const;

 private:
  friend struct NativeLayout;

  MemberLayout();
  ~MemberLayout();

  // Equal for names that differ only in case.
  static unsigned Hash(const char* text, int length);
  void Add(SharedName* name);

  bool EndsWith(const char* text, int length) const;
  void SetNext(MemberLayout* longer);

  int holders = 1;
  unsigned mask = 0;
  MemberLayout* next = nullptr;  // one with another name, made from this lately; with a count on it
  uint64_t serial_;
  std::vector<SharedName*> names;  // with a count on each
  std::vector<uint8_t> order;      // slots by rank
  std::vector<uint8_t> places;     // a hash table of slots, counted from 1; 0 is an empty place
};

#endif
