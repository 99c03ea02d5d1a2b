// The memory of rows and structures, and how copies share it. Tested in
// tests/base/values/SharedElementsTest.cpp.

#include "base/values/SlotTable.h"

#include <new>

#include "base/core/FreeList.h"
#include "base/values/Variable.h"
#include "base/values/VariableRef.h"

namespace {
// The capacities of small tables: with the head they are 32, 64 and 128 bytes.
constexpr int kTiny = 3;
constexpr int kSmall = 7;
constexpr int kMedium = 15;

size_t BytesOf(int capacity) {
  return sizeof(DenseSlot) * (static_cast<size_t>(capacity) + 1);
}
}  // namespace

DenseSlot* SlotTable::Make(int least) {
  static_assert(sizeof(Head) == sizeof(DenseSlot));
  int capacity = least;
  void* memory;
  if (least <= kTiny) {
    capacity = kTiny;
    memory = FreeList<sizeof(DenseSlot) * (kTiny + 1)>::Allocate();
  } else if (least <= kSmall) {
    capacity = kSmall;
    memory = FreeList<sizeof(DenseSlot) * (kSmall + 1)>::Allocate();
  } else if (least <= kMedium) {
    capacity = kMedium;
    memory = FreeList<sizeof(DenseSlot) * (kMedium + 1)>::Allocate();
  } else {
    memory = ::operator new(BytesOf(capacity));
  }
  auto* head = static_cast<Head*>(memory);
  head->holders = 1;
  head->capacity = capacity;
  return reinterpret_cast<DenseSlot*>(head + 1);
}

void SlotTable::Free(DenseSlot* slots) {
  Head* const head = HeadOf(slots);
  switch (head->capacity) {
    case kTiny: FreeList<sizeof(DenseSlot) * (kTiny + 1)>::Free(head); return;
    case kSmall: FreeList<sizeof(DenseSlot) * (kSmall + 1)>::Free(head); return;
    case kMedium: FreeList<sizeof(DenseSlot) * (kMedium + 1)>::Free(head); return;
    default: ::operator delete(head);
  }
}

void SlotTable::Release(DenseSlot* slots, int count) {
  if (--HeadOf(slots)->holders > 0) return;
  for (int i = 0; i < count; i++) {
    if (slots[i].IsVariable() && slots[i].variable()) slots[i].variable()->Release();
  }
  Free(slots);
}

DenseSlot* SlotTable::Part(DenseSlot* slots, int count) {
  struct Guard {
    DenseSlot* table;
    int made = 0;
    ~Guard() {
      if (table) Release(table, made);
    }
  } guard{Make(Capacity(slots))};
  for (int i = 0; i < count; i++) {
    const DenseSlot slot = slots[i];
    guard.table[i] = slot.IsVariable() ? slot.variable()->CopyIsolated() : slot;
    guard.made++;
  }
  HeadOf(slots)->holders--;
  DenseSlot* const own = guard.table;
  guard.table = nullptr;
  return own;
}

Variable* SlotTable::NewVariable() {
  auto* const made = new Variable();
  made->state &= ~Variable::Unproved;
  return made;
}

Variable* SlotTable::MakeVariable(DenseSlot* slot) {
  VariableRef made(NewVariable());
  if (slot->IsInteger()) {
    made->Write_Integer(slot->integer());
  } else {
    made->Write_Double(slot->number());
  }
  *slot = DenseSlot(made.get());
  return made.release();
}
