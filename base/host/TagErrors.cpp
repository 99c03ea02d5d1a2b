// The tables of tag errors and their access by several threads. Tested in
// tests/base/host/TagErrorsTest.cpp.
#include "base/host/TagErrors.h"

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#define ZEPH_TAG(number, name, settings) {number, name, name "_Error", settings},
#define ZEPH_TAG_EXPRESSION(number, name, variable, settings) {number, name, variable, settings},
TagErrorSetting tag_default_errorsettings[tag_count] = {
#include "base/host/TagErrors.def"
    {tag_count - 1, nullptr, nullptr, 0},
};
// constexpr for the check below; the header makes it extern.
constexpr TagErrorSetting original_tag_default_errorsettings[tag_count] = {
#include "base/host/TagErrors.def"
    {tag_count - 1, nullptr, nullptr, 0},
};
#undef ZEPH_TAG
#undef ZEPH_TAG_EXPRESSION

namespace {

constexpr bool NumbersAreIndexes() {
  for (int i = 0; i < tag_count; i++) {
    if (original_tag_default_errorsettings[i].tag != i) return false;
  }
  return true;
}
static_assert(NumbersAreIndexes());

bool IsIndex(int tag) {
  return tag >= 0 && tag < tag_count;
}

// The one word of an entry that changes. The order of writes from two requests does not matter, so
// relaxed access is enough.
std::atomic_ref<int> Settings(int tag) {
  return std::atomic_ref<int>(tag_default_errorsettings[tag].settings);
}

// The same settings side by side, because every request copies them: two in each word.
struct Pair {
  int settings[2];
};

struct CurrentSettings {
  static constexpr size_t kWords = (tag_count + 1) / 2;

  static constexpr uint64_t Shipped(size_t i) {
    const size_t second = 2 * i + 1;
    const Pair pair = {
        {original_tag_default_errorsettings[2 * i].settings,
         second < tag_count ? original_tag_default_errorsettings[second].settings : 0}};
    return std::bit_cast<uint64_t>(pair);
  }
  template <size_t... i>
  explicit constexpr CurrentSettings(std::index_sequence<i...>) : words{Shipped(i)...} {}

  Pair Load(size_t i) const {
    return std::bit_cast<Pair>(words[i].load(std::memory_order_relaxed));
  }
  void Store(size_t tag, int value) {
    std::atomic<uint64_t>& word = words[tag / 2];
    uint64_t before = word.load(std::memory_order_relaxed);
    uint64_t after;
    do {
      Pair pair = std::bit_cast<Pair>(before);
      pair.settings[tag % 2] = value;
      after = std::bit_cast<uint64_t>(pair);
    } while (!word.compare_exchange_weak(before, after, std::memory_order_relaxed));
  }

  std::atomic<uint64_t> words[kWords];
};
constinit CurrentSettings current(std::make_index_sequence<CurrentSettings::kWords>{});

}  // namespace

void CopyDefaultErrorSettings(int* table) {
#pragma GCC unroll 8
  for (size_t i = 0; i < tag_count / 2; i++) {
    const Pair pair = current.Load(i);
    memcpy(table + 2 * i, &pair, sizeof pair);
  }
  if (tag_count % 2 != 0) table[tag_count - 1] = current.Load(tag_count / 2).settings[0];
}

int DefaultErrorSetting(int tag) {
  return IsIndex(tag) ? Settings(tag).load(std::memory_order_relaxed) : 0;
}

void SetDefaultErrorSetting(int tag, int settings) {
  if (!IsIndex(tag)) return;
  Settings(tag).store(settings, std::memory_order_relaxed);
  current.Store(static_cast<size_t>(tag), settings);
}
