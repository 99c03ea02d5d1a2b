// The tables of tag errors and their access by several threads. Tested in
// tests/base/host/TagErrorsTest.cpp.
#include "base/host/TagErrors.h"

#include <atomic>

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

}  // namespace

void CopyDefaultErrorSettings(int* table) {
  for (int tag = 0; tag < tag_count; tag++) {
    table[tag] = Settings(tag).load(std::memory_order_relaxed);
  }
}

int DefaultErrorSetting(int tag) {
  return IsIndex(tag) ? Settings(tag).load(std::memory_order_relaxed) : 0;
}

void SetDefaultErrorSetting(int tag, int settings) {
  if (IsIndex(tag)) Settings(tag).store(settings, std::memory_order_relaxed);
}
