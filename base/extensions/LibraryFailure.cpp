// Reports libraries that cannot be used. Tested in tests/base/extensions/LibraryFailureTest.cpp.

#include "base/extensions/LibraryFailure.h"

#include <string_view>

#include "base/host/ErrorLog.h"

namespace {

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
  ReportOnce(program, failure.data ? failure.data : "", failure.length);
}
