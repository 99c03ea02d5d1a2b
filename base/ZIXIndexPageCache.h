// Images of pages that an index file has read, as long as they are those of the file.

#ifndef ZEPH_BASE_ZIXINDEXPAGECACHE_H
#define ZEPH_BASE_ZIXINDEXPAGECACHE_H

#include <cstdint>
#include <memory>
#include <vector>

#include "base/ZIXIndexPage.h"

// Each page has one slot that it can be in. Inner pages are few and on every way, so a leaf never
// takes the slot of one. Grows with use up to 4 MB. It knows nothing of what others write: its
// owner empties it.
class ZIXIndexPageCache {
 public:
  // The image of the page, null if it is not here. Good until the next Store or Clear.
  const unsigned char* Find(uint32_t pagenum) const {
    if (slots.empty()) return nullptr;
    const Slot& slot = slots[pagenum & (slots.size() - 1)];
    return slot.image && slot.pagenum == pagenum ? slot.image.get() : nullptr;
  }
  // All pages until the next Clear have one size.
  void Store(const ZIXIndexPage& page);
  void Clear();

 private:
  struct Slot {
    uint32_t pagenum = 0;
    bool leaf = false;
    std::unique_ptr<unsigned char[]> image;
  };

  static constexpr size_t kFirstSlots = 64;
  static constexpr size_t kMostBytes = size_t{4} << 20;

  Slot& SlotFor(const ZIXIndexPage& page);
  void Grow();

  std::vector<Slot> slots;  // a power of two, or none
};

#endif
