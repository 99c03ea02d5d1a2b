// Reports libraries that cannot be used. Tested in tests/base/extensions/LibraryFailureTest.cpp.

#include "base/extensions/LibraryFailure.h"

#include <cstdio>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <string_view>

namespace {

constexpr size_t kMostLines = 100;

std::string_view View(const String& text) {
  return {text.data ? text.data : "", static_cast<size_t>(text.length)};
}

}  // namespace

String LibraryFailure(const char* path, const String& reason) {
  String text(reason);
  if (!path || View(reason).find(path) != std::string_view::npos) return text;
  text.prepend(": ");
  text.prepend(path);
  return text;
}

void ReportLibraryFailure(const char* program, const String& failure) {
  static std::mutex mutex;
  static std::set<std::string, std::less<>> written;
  const std::lock_guard<std::mutex> lock(mutex);
  if (written.size() == kMostLines || written.contains(View(failure))) return;
  written.emplace(View(failure));
  fprintf(stderr, "%s: %s\n", program, failure.data);
}
