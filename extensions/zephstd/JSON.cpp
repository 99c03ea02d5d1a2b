// Functions for JSON texts. Tested in tests/extensions/zephstd/JSONTest.cpp and, as those of
// zephjson, in tests/e2e/JsonTest.cpp.

#include "extensions/json.h"

#include "extensions/zephstd/Call.h"

namespace zephstd::functions {

void jsonencode(Call& call) {
  json_write(call.variable(0), call.result());
}

void jsondecode(Call& call) {
  const std::string_view text = call.text(0);
  char message[json_longest_message];
  if (json_read(call.program(), text.data(), static_cast<int>(text.size()), call.result(),
                message) == 0) {
    zpVariable_SetValue(call.result(), "", 0);
  }
}

void jsonproblem(Call& call) {
  const std::string_view text = call.text(0);
  char message[json_longest_message];
  // The argument is a copy, so that the value can take its place.
  json_read(call.program(), text.data(), static_cast<int>(text.size()), call.variable(0), message);
  zpVariable_SetValue(call.result(), message, -1);
}

}  // namespace zephstd::functions
