// What error messages quote from arguments, for the libraries zephstd and zephregex. Tested in
// tests/extensions/zephstd/ArgumentsTest.cpp and tests/extensions/zephregex/RegexTest.cpp.

#ifndef ZEPH_EXTENSIONS_QUOTE_H
#define ZEPH_EXTENSIONS_QUOTE_H

#include <string>
#include <string_view>

// Returns at most 60 bytes of a text, encoded for HTML, because messages are on pages and the text
// may come from a visitor. A character that the end would cut is left out.
inline std::string EncodedQuote(std::string_view text) {
  constexpr size_t kMostQuoted = 60;
  if (text.size() > kMostQuoted) {
    size_t end = kMostQuoted;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) end--;
    text = text.substr(0, end);
  }
  std::string encoded;
  for (const char c : text) {
    switch (c) {
      case '<': encoded += "&lt;"; break;
      case '>': encoded += "&gt;"; break;
      case '&': encoded += "&amp;"; break;
      case '"': encoded += "&quot;"; break;
      case '\'': encoded += "&#39;"; break;
      default: encoded += c;
    }
  }
  return encoded;
}

#endif
