// Tests: tests/base/ZIXIndexCacheTest.cpp

#include "base/ZIXIndexPageCache.h"

#include <cstring>
#include <utility>

void ZIXIndexPageCache::Store(const ZIXIndexPage& page) {
  Slot& slot = SlotFor(page);
  const bool same = slot.image && slot.pagenum == page.pagenum;
  const bool leaf = page.IsLeaf();
  if (slot.image && !same && leaf && !slot.leaf) return;
  if (!slot.image) slot.image.reset(new unsigned char[page.pagesize]);
  slot.pagenum = page.pagenum;
  slot.leaf = leaf;
  memcpy(slot.image.get(), page.data.get(), page.pagesize);
}

void ZIXIndexPageCache::Clear() {
  slots.clear();
}

ZIXIndexPageCache::Slot& ZIXIndexPageCache::SlotFor(const ZIXIndexPage& page) {
  if (slots.empty()) slots.resize(kFirstSlots);
  for (;;) {
    Slot& slot = slots[page.pagenum & (slots.size() - 1)];
    const bool taken = slot.image && slot.pagenum != page.pagenum;
    if (!taken || slots.size() * 2 * page.pagesize > kMostBytes) return slot;
    Grow();
  }
}

// Two pages that met in a slot part, or meet again in a larger table.
void ZIXIndexPageCache::Grow() {
  std::vector<Slot> larger(slots.size() * 2);
  for (Slot& slot : slots)
    if (slot.image) larger[slot.pagenum & (larger.size() - 1)] = std::move(slot);
  slots = std::move(larger);
}
