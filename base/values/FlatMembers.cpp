// The members of structures. Tested in tests/base/values/FlatMembersTest.cpp, against a real splay
// tree.

#include "base/values/FlatMembers.h"

#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "base/values/Variable.h"

// --- Searches ------------------------------------------------------------------------------------

void FlatMembers::GrowNotes(int more) {
  if (notes && notes->capacity == kMostNotes) {
    TakeShapeOfCopy();
    return;
  }
  const int count = notes ? notes->count : 0;
  const bool few = count + more <= kFewNotes;
  void* const memory = few ? FreeList<sizeof(Notes) + 2 * kFewNotes>::Allocate()
                           : FreeList<sizeof(Notes) + 2 * kMostNotes>::Allocate();
  auto* const larger = new (memory) Notes;
  larger->count = static_cast<int16_t>(count);
  larger->capacity = few ? kFewNotes : kMostNotes;
  if (count > 0) memcpy(larger->first(), notes->first(), 2 * static_cast<size_t>(count));
  DropNotes();
  notes = larger;
}

void FlatMembers::DropNotes() {
  if (!notes) return;
  if (notes->capacity == kFewNotes) {
    FreeList<sizeof(Notes) + 2 * kFewNotes>::Free(notes);
  } else {
    FreeList<sizeof(Notes) + 2 * kMostNotes>::Free(notes);
  }
  notes = nullptr;
}

int FlatMembers::MissOf(const char* name, int length) const {
  const int before = layout->Before(name, length);
  return kMissed | (before == 0 ? 0 : layout->InOrder(before - 1) + 1);
}

// Which neighbour of the missing name is at the root depends on the shape.
void FlatMembers::TouchMissing(const char* name, int length) {
  if (!layout) return;
  Note(MissOf(name, length));
  top = -1;
}

// Everything that may fail comes before the first change, but for memory that is only larger and
// notes that are only forgotten.
void FlatMembers::Add(const char* name, int length, DenseSlot value) {
  const int slot = count();
  if (is_shared) Part();
  if (!slots) {
    slots = SlotTable::Make(1);
  } else if (slot == SlotTable::Capacity(slots)) {
    DenseSlot* const larger = SlotTable::Make(slot * 2 + 1);
    memcpy(larger, slots, sizeof(DenseSlot) * static_cast<size_t>(slot));
    SlotTable::Free(std::exchange(slots, larger));
  }
  const bool follows_made = !is_chain && known == slot && (!notes || notes->count == 0);
  if (follows_made) {
    layout = MemberLayout::With(layout, name, length);
    known++;
  } else {
    MakeRoom(2);
    const int miss = MissOf(name, length);
    layout = MemberLayout::With(layout, name, length);
    Note(miss);
    Note(kAdded | slot);
  }
  slots[slot] = value;
  top = static_cast<int16_t>(slot);
}

void FlatMembers::TakeShapeOfCopy() {
  is_chain = true;
  const int members = count();
  known = static_cast<int16_t>(members);
  top = static_cast<int16_t>(members == 0 ? -1 : layout->InOrder(members - 1));
  if (notes) notes->count = 0;
}

// --- Copies --------------------------------------------------------------------------------------

void FlatMembers::Part() {
  if (SlotTable::IsShared(slots)) slots = SlotTable::Part(slots, count());
  is_shared = false;
}

void FlatMembers::ShareWith(FlatMembers* other) {
  if (other->IsEmpty()) return;
  layout = other->layout;
  layout->Hold();
  slots = SlotTable::Share(other->slots);
  is_shared = other->is_shared = true;
  TakeShapeOfCopy();
}

// Releasing the old variables may run code that uses the structure, or delete the other one, so it
// comes last.
void FlatMembers::BecomeShareOf(FlatMembers* other) {
  const int members = count();
  MemberLayout* const old_layout = layout;
  DenseSlot* const old = slots;
  layout = other->layout;
  layout->Hold();
  slots = SlotTable::Share(other->slots);
  is_shared = other->is_shared = true;
  TakeShapeOfCopy();
  old_layout->Release();
  SlotTable::Release(old, members);
}

void FlatMembers::BecomeCopyOf(const FlatMembers& other, bool apart) {
  if (other.IsEmpty()) return;
  const int members = other.count();
  slots = SlotTable::Make(members);
  if (apart) {
    try {
      layout = other.layout->Apart();
    } catch (...) {
      SlotTable::Free(std::exchange(slots, nullptr));
      throw;
    }
  } else {
    layout = other.layout;
    layout->Hold();
  }
  for (int slot = 0; slot < members; slot++) slots[slot] = DenseSlot();
  TakeShapeOfCopy();
}

// --- The shape -----------------------------------------------------------------------------------

void FlatMembers::MakeShape(SplayShape* shape) const {
  const int members = count();
  shape->Clear(2 * members + 1);
  std::vector<int> nodes(static_cast<size_t>(members));  // by slot
  for (int rank = 0; rank < members; rank++) {
    nodes[static_cast<size_t>(layout->InOrder(rank))] = 2 * rank + 2;
  }
  const auto node = [&nodes](int slot) { return nodes[static_cast<size_t>(slot)]; };
  if (is_chain) {
    for (int rank = 0; rank < members; rank++) {
      if (layout->InOrder(rank) < known) shape->Insert(2 * rank + 2);
    }
  } else {
    for (int slot = 0; slot < known; slot++) {
      shape->Splay(node(slot));
      shape->Insert(node(slot));
    }
  }
  for (int i = 0; notes && i < notes->count; i++) {
    const int note = notes->first()[i];
    if (note & kAdded) {
      shape->Insert(node(note & ~kAdded));
    } else if (note & kMissed) {
      const int before = note & ~kMissed;
      shape->Splay(before == 0 ? 1 : node(before - 1) + 1);
    } else {
      shape->Splay(node(note));
    }
  }
}

// --- Memory --------------------------------------------------------------------------------------

void FlatMembers::Leave() {
  if (slots) SlotTable::Free(std::exchange(slots, nullptr));
  if (layout) std::exchange(layout, nullptr)->Release();
  DropNotes();
  top = -1;
  known = 0;
  is_chain = is_shared = false;
}

// Releasing a variable may run code that uses the structure, so it is made empty first.
void FlatMembers::Drop() {
  const int members = count();
  DenseSlot* const dropped = std::exchange(slots, nullptr);
  Leave();
  if (dropped) SlotTable::Release(dropped, members);
}
