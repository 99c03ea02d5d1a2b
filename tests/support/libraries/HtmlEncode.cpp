// A builtin library with the function that {{ }} of pages calls.
//
//   htmlencode(text)   the text with entities for the five bytes that have a meaning in HTML

#include <string>

#include "api/zeph.h"

namespace {

void Encode(ZPPROGRAM, ZPVARIABLEHASH parameters, ZPVARIABLE result, void**) {
  // The last call of all, which has nothing to free.
  if (!parameters) return;
  int length = 0;
  const char* text = zpVariable_Value(zpVariableHash_Find(parameters, "text", -1), &length);
  std::string encoded;
  for (int i = 0; i < length; i++) {
    switch (text[i]) {
      case '&': encoded += "&amp;"; break;
      case '<': encoded += "&lt;"; break;
      case '>': encoded += "&gt;"; break;
      case '"': encoded += "&quot;"; break;
      case '\'': encoded += "&#39;"; break;
      default: encoded += text[i];
    }
  }
  zpVariable_SetValue(result, encoded.data(), static_cast<int>(encoded.size()));
}

_ZP_EL_Parameter parameters[] = {{"text", 4, 0}};
_ZP_EL_Function functions[] = {
    {"htmlencode", 10, 1, parameters, Encode},
    {nullptr, 0, 0, nullptr, nullptr},
};
_ZP_EL_FunctionTable table = {nullptr, functions};

}  // namespace

extern "C" __attribute__((visibility("default"))) _ZP_EL_FunctionTable* zeph_function_table() {
  return &table;
}
