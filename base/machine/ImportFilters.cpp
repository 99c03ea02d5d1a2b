// Compiles the filters of imports, each once. Tested in tests/base/machine/ImportTest.cpp.

#include "base/machine/ImportFilters.h"

#include <string_view>

#include "base/core/RunLimit.h"
#include "base/machine/ZephVM.h"

Segment* ImportFilters::Find(ZephVM* vm, const char* text, int length, String* error) {
  const std::string_view key(text, static_cast<size_t>(length));
  auto known = filters.find(key);
  if (known == filters.end()) {
    Filter compiled;
    compiled.segment = vm->Compile_Dynamic_Expression(text, length, nullptr, nullptr,
                                                      &compiled.error, nullptr, 0, 1);
    if (!compiled.segment && RunLimit::WasCut()) return nullptr;
    known = filters.emplace(key, compiled).first;
  }
  if (!known->second.segment) *error = known->second.error;
  return known->second.segment;
}
