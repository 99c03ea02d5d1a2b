// The members of a structure, as nearly all structures of scripts have them: a shared layout of
// names, and a table of variables, or of bare numbers as long as no one needs a variable.
//
// As a row (DenseElements.h) is, so are these to scripts a splay tree, whose shape shows only when
// a member is removed. So the searches are noted, and the tree is made from the notes when an
// operation needs it. The known shape, which the notes follow, is one of two:
//
// - Made: the tree that results when each member is searched, not found, and inserted, in the order
//   of the slots. A structure that is being filled needs no notes.
// - Chain: the greatest name is the root and all others are left children. A copy has this shape,
//   because its members are inserted in the order of their names. After kMostNotes the members take
//   it too, as a row does, as if all names had then been searched in that order.

#ifndef ZEPH_BASE_FLATMEMBERS_H
#define ZEPH_BASE_FLATMEMBERS_H

#include <cstdint>

#include "base/core/FreeList.h"
#include "base/values/DenseElements.h"
#include "base/values/MemberLayout.h"
#include "base/values/SlotTable.h"

// Holds one count on each of its variables, none of which is null. Belongs to the thread of its
// structure.
class FlatMembers {
 public:
  static constexpr int kMostNotes = 64;

  FlatMembers() = default;
  ~FlatMembers() { Drop(); }
  FlatMembers(const FlatMembers&) = delete;
  FlatMembers& operator=(const FlatMembers&) = delete;

  bool IsEmpty() const { return !layout; }
  int count() const { return layout ? layout->count() : 0; }
  bool IsFull() const { return count() >= MemberLayout::kMost; }
  const MemberLayout* names() const { return layout; }

  // The slot of a name, or -1. This is not a search: Touch or TouchMissing makes it one.
  int Locate(const char* name, int length) const {
    return layout ? layout->Find(name, length) : -1;
  }
  int Locate(const char* name, int length, MemberHint* hint) const {
    return layout ? layout->Find(name, length, hint) : -1;
  }
  // A search that ends at a slot.
  void Touch(int slot) {
    if (slot == top) return;
    Note(slot);
    top = static_cast<int16_t>(slot);
  }
  // The slot that a hint has, by a search; null and no search if the hint is out of date. It may be
  // shared.
  DenseSlot* Search(const MemberHint& hint) {
    if (!layout || hint.layout != layout->serial()) return nullptr;
    Touch(hint.slot);
    return &slots[hint.slot];
  }
  // The same to write to, if no other structure may have it.
  DenseSlot* SearchOwn(const MemberHint& hint) { return is_shared ? nullptr : Search(hint); }
  // A search for a name that is missing.
  void TouchMissing(const char* name, int length);
  // The value of a slot, which may be read. REQUIRES: the slot is below count().
  const DenseSlot& at(int slot) const { return slots[slot]; }
  // The slot itself, to write to it or hand out its variable. The table belongs to this structure
  // alone from here on, until it is shared again.
  DenseSlot* Own(int slot) {
    if (is_shared) Part();
    return &slots[slot];
  }
  // Adds a member, adopting a count on a variable; if it throws, the count is still the caller's.
  // The search for the name, which precedes an insertion, is included. REQUIRES: there is no such
  // name, and IsFull() is false.
  void Add(const char* name, int length, DenseSlot value);

  // Whether another structure has the same table.
  bool IsShared() const { return is_shared && SlotTable::IsShared(slots); }
  // Makes this, which is empty, a copy of other members that shares their table. REQUIRES: their
  // values are isolated.
  void ShareWith(FlatMembers* other);
  // The same for members that are not empty, and are released: what is in them is only used before.
  void BecomeShareOf(FlatMembers* other);
  // Gives this, which is empty, the names of other members and as many null variables, which the
  // caller replaces. With apart, nothing of it is shared with them.
  void BecomeCopyOf(const FlatMembers& other, bool apart);
  // Takes the shape of a copy.
  void TakeShapeOfCopy();

  // Makes the shape of the tree. The node of the member with rank r, from 0 on, is 2 * r + 2.
  void MakeShape(SplayShape* shape) const;
  // Empties this without releasing the variables. REQUIRES: IsShared() is false.
  void Leave();
  // Releases all variables.
  void Drop();

 private:
  friend struct NativeLayout;

  // What was done since the known shape, each in 16 bits: the slot that was found; or that one was
  // added; or with kMissed the number of slots in order before the place of a name that was missed:
  // the slot before it, plus 1.
  struct Notes {
    uint16_t* first() { return reinterpret_cast<uint16_t*>(this + 1); }
    int16_t count;
    int16_t capacity;
  };
  // Most structures have few notes: with these a block has 32 bytes.
  static constexpr int kFewNotes = 14;
  static constexpr int kAdded = 0x4000;
  static constexpr int kMissed = 0x8000;

  void Note(int note) {
    MakeRoom(1);
    notes->first()[notes->count++] = static_cast<uint16_t>(note);
  }
  // Makes room for that many more notes; if need be, by forgetting all.
  void MakeRoom(int more) {
    if (!notes || notes->count + more > notes->capacity) [[unlikely]]
      GrowNotes(more);
  }
  void GrowNotes(int more);
  void DropNotes();
  int MissOf(const char* name, int length) const;
  void Part();

  MemberLayout* layout = nullptr;  // null if there are no members
  DenseSlot* slots = nullptr;
  Notes* notes = nullptr;
  int16_t top = -1;        // slot at the root, or -1 if it is not known
  int16_t known = 0;       // number of members in the known shape; they have the first slots
  bool is_chain = false;   // which shape it is
  bool is_shared = false;  // another structure may have the table
};

#endif
