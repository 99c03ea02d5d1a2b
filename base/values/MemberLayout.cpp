// The names of structures. Tested in tests/base/values/MemberLayoutTest.cpp.

#include "base/values/MemberLayout.h"

#include <atomic>
#include <cstring>
#include <memory>

namespace {

std::atomic<uint64_t> layouts_made = 0;

// The order of names in structures: without regard to case, a name before its continuations.
int OrderOf(const char* text, int length, const SharedName* name) {
  const int common = length < name->length() ? length : name->length();
  const int order = common > 0 ? memcmpi(text, name->text(), static_cast<size_t>(common)) : 0;
  return order != 0 ? order : length - name->length();
}

// The layouts of structures that were made lately, by the layout without the last name and that
// name. A new pair replaces the one at its place.
struct CommonLayouts {
  static constexpr size_t kPlaces = 256;
  struct Pair {
    MemberLayout* from = nullptr;  // null for no names
    MemberLayout* to = nullptr;    // null for no pair
  };

  CommonLayouts() = default;
  ~CommonLayouts() { Forget(); }
  CommonLayouts(const CommonLayouts&) = delete;
  CommonLayouts& operator=(const CommonLayouts&) = delete;

  // Notes a place that is about to get its first pair.
  void Take(size_t place) { taken[count++] = static_cast<uint8_t>(place); }

  // Looks only at the places that are taken: a request that makes no structure would otherwise read
  // all of this memory at its end, which is not in the processor's cache then.
  void Forget() {
    while (count > 0) {
      Pair& pair = pairs[taken[--count]];
      if (pair.from) pair.from->Release();
      if (pair.to) pair.to->Release();
      pair = {};
    }
  }

  size_t count = 0;
  uint8_t taken[kPlaces];  // the first `count` are the places of pairs, each once
  Pair pairs[kPlaces];
};

CommonLayouts& Common() {
  thread_local CommonLayouts common;
  return common;
}

}  // namespace

MemberLayout::MemberLayout() : serial_(layouts_made.fetch_add(1, std::memory_order_relaxed) + 1) {}

// A chain of these is not longer than kMostCommon.
MemberLayout::~MemberLayout() {
  for (SharedName* name : names) name->Release();
  if (next) next->Release();
}

bool MemberLayout::EndsWith(const char* text, int length) const {
  const SharedName* const last = names.back();
  return last->length() == length && SameBytes(last->text(), text, static_cast<size_t>(length));
}

void MemberLayout::SetNext(MemberLayout* longer) {
  longer->Hold();
  if (next) next->Release();
  next = longer;
}

// The bit 0x20 makes letters of both cases equal, and some other bytes too, which does no harm.
unsigned MemberLayout::Hash(const char* text, int length) {
  constexpr uint64_t kFold = 0x2020202020202020u;
  constexpr uint64_t kMix = 0x9E3779B97F4A7C15u;
  auto hash = static_cast<uint64_t>(length);
  while (length > 8) {
    uint64_t word;
    memcpy(&word, text, sizeof word);
    hash = (hash ^ (word | kFold)) * kMix;
    hash ^= hash >> 29;
    text += 8;
    length -= 8;
  }
  uint64_t word = 0;
  if (length >= 4) {
    uint32_t first, last;
    memcpy(&first, text, sizeof first);
    memcpy(&last, text + length - 4, sizeof last);
    word = static_cast<uint64_t>(first) << 32 | last;
  } else if (length > 0) {
    word = static_cast<uint64_t>(static_cast<unsigned char>(text[0])) << 16 |
           static_cast<uint64_t>(static_cast<unsigned char>(text[length / 2])) << 8 |
           static_cast<unsigned char>(text[length - 1]);
  }
  return static_cast<unsigned>((hash ^ (word | kFold)) * kMix >> 32);
}

int MemberLayout::Before(const char* text, int length) const {
  int low = 0;
  int high = count();
  while (low < high) {
    const int middle = (low + high) / 2;
    if (OrderOf(text, length, name(InOrder(middle))) > 0) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return low;
}

// Adopts the count on the name, also if it throws.
void MemberLayout::Add(SharedName* name) {
  const auto release = [](SharedName* dropped) { dropped->Release(); };
  std::unique_ptr<SharedName, decltype(release)> adopted(name, release);
  const size_t all = names.size() + 1;
  names.reserve(all <= 4 ? 4 : all * 2);
  order.reserve(names.capacity());
  // At most half of the places are taken.
  if (places.size() < all * 2) {
    std::vector<uint8_t> larger(all <= 4 ? 8 : all * 4 <= 64 ? 64 : 256);
    mask = static_cast<unsigned>(larger.size()) - 1;
    for (size_t slot = 0; slot < names.size(); slot++) {
      unsigned place = Hash(names[slot]->text(), names[slot]->length());
      while (larger[place & mask] != 0) place++;
      larger[place & mask] = static_cast<uint8_t>(slot + 1);
    }
    places.swap(larger);
  }
  const int rank = Before(name->text(), name->length());
  unsigned place = Hash(name->text(), name->length());
  while (places[place & mask] != 0) place++;
  order.insert(order.begin() + rank, static_cast<uint8_t>(names.size()));
  names.push_back(adopted.release());
  places[place & mask] = static_cast<uint8_t>(all);
}

MemberLayout* MemberLayout::With(MemberLayout* layout, const char* name, int length) {
  const int count = layout ? layout->count() : 0;
  if (count >= kMostCommon && layout->holders == 1) {
    layout->Add(SharedName::Make(name, length));
    return layout;
  }
  if (layout && layout->next && layout->next->EndsWith(name, length)) {
    MemberLayout* const longer = layout->next;
    longer->Hold();
    layout->Release();
    return longer;
  }
  size_t place = 0;
  CommonLayouts::Pair* pair = nullptr;
  if (count < kMostCommon) {
    const uint64_t from = layout ? layout->serial_ : 0;
    place = ((from * 0x9E3779B97F4A7C15u >> 32) ^ Hash(name, length)) % CommonLayouts::kPlaces;
    pair = &Common().pairs[place];
    if (pair->from == layout && pair->to && pair->to->EndsWith(name, length)) {
      pair->to->Hold();
      if (layout) {
        layout->SetNext(pair->to);
        layout->Release();
      }
      return pair->to;
    }
  }
  const auto release = [](MemberLayout* dropped) { dropped->Release(); };
  std::unique_ptr<MemberLayout, decltype(release)> made(new MemberLayout(), release);
  for (int slot = 0; slot < count; slot++) {
    layout->name(slot)->Hold();
    made->Add(layout->name(slot));
  }
  made->Add(SharedName::Make(name, length));
  if (layout && pair) layout->SetNext(made.get());
  if (pair) {
    if (!pair->to) Common().Take(place);
    if (pair->from) pair->from->Release();
    if (pair->to) pair->to->Release();
    // The caller's count on the given layout becomes the pair's.
    *pair = {layout, made.get()};
    made->Hold();
  } else if (layout) {
    layout->Release();
  }
  return made.release();
}

MemberLayout* MemberLayout::Apart() const {
  const auto release = [](MemberLayout* dropped) { dropped->Release(); };
  std::unique_ptr<MemberLayout, decltype(release)> made(new MemberLayout(), release);
  for (const SharedName* name : names) {
    made->Add(SharedName::Make(name->text(), name->length()));
  }
  return made.release();
}

void MemberLayout::ForgetCommon() {
  Common().Forget();
}
