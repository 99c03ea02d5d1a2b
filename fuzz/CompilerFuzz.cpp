// Pages that anyone may have written. For any source there are errors at places in it, or a
// compiled file whose every instruction can be listed; the same source gives the same result.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "compiler/Compiler.h"
#include "tools/Lister.h"

namespace {

[[noreturn]] void Wrong(const char* what) {
  fprintf(stderr, "%s\n", what);
  abort();
}

void CheckMessages(const CompileResult& result) {
  bool failed = false;
  for (const CompileMessage& message : result.messages) {
    failed = failed || message.is_error;
    if (message.line < 1 || message.column < 1) Wrong("a message without a place");
    if (message.text.empty()) Wrong("a message without a text");
  }
  if (failed == result.succeeded) Wrong("a result without its messages");
  if (result.succeeded == result.image.empty()) Wrong("a result without its file");
  if (result.messages.empty() != result.formatted.empty()) Wrong("messages without their lines");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 16384) return 0;
  const std::string_view all(reinterpret_cast<const char*>(data), size);
  // What follows the first byte 0xFF is a file that the page may include as "a".
  const size_t end = all.find('\xFF');
  const std::string_view source = all.substr(0, end);
  CompileOptions options;
  options.defines = {"DEFINED"};
  options.functions = "length(text var)\nlower(text)\n";
  options.every_line = size % 2 != 0;
  options.reader = [&](const std::string& name, const std::string&, std::string* found,
                       std::string* text) {
    if (name != "a" || end == std::string_view::npos) return false;
    *found = name;
    *text = all.substr(end + 1);
    return true;
  };
  const CompileResult result = CompilePage(source, "page.zeph", options);
  CheckMessages(result);
  if (size % 8 == 0 && CompilePage(source, "page.zeph", options).image != result.image) {
    Wrong("another file for the same source");
  }
  std::string text, error;
  if (result.succeeded && !ListScript(result.image, &text, &error)) Wrong(error.c_str());
  return 0;
}
