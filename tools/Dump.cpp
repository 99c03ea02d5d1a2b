// Writes texts as CSV and JSON. Tested in tests/tools/DumpTableTest.cpp.

#include "tools/Dump.h"

namespace {

// The number of bytes of the UTF-8 character that the text begins with; 0 if it begins with none.
size_t CharacterLength(std::string_view text) {
  const unsigned char first = static_cast<unsigned char>(text[0]);
  if (first < 0x80) return 1;
  const size_t length = first >= 0xC2 && first < 0xE0   ? 2
                        : first >= 0xE0 && first < 0xF0 ? 3
                        : first >= 0xF0 && first < 0xF5 ? 4
                                                        : 0;
  if (length == 0 || text.size() < length) return 0;
  unsigned code = first & (0x7F >> length);
  for (size_t i = 1; i < length; i++) {
    const unsigned char next = static_cast<unsigned char>(text[i]);
    if ((next & 0xC0) != 0x80) return 0;
    code = code << 6 | (next & 0x3F);
  }
  const bool surrogate = code >= 0xD800 && code < 0xE000;
  const unsigned least = length == 2 ? 0x80 : length == 3 ? 0x800 : 0x10000;
  return code < least || code > 0x10FFFF || surrogate ? 0 : length;
}

void WriteJsonEscape(std::ostream& out, unsigned char c) {
  constexpr char digits[] = "0123456789abcdef";
  out << "\\u00" << digits[c >> 4] << digits[c & 15];
}

}  // namespace

std::string ErrorWithReason(const String& error) {
  std::string text(error.data ? error.data : "", static_cast<size_t>(error.length));
  if (text.ends_with("': ")) text += "the file is too short";
  return text;
}

void WriteCsvCell(std::ostream& out, std::string_view text) {
  if (text.find_first_of(",\"\r\n") == std::string_view::npos) {
    out << text;
    return;
  }
  out << '"';
  for (char c : text) {
    if (c == '"') out << '"';
    out << c;
  }
  out << '"';
}

void WriteJsonText(std::ostream& out, std::string_view text) {
  out << '"';
  while (!text.empty()) {
    const char c = text[0];
    const size_t length = CharacterLength(text);
    if (c == '"' || c == '\\') {
      out << '\\' << c;
    } else if (c == '\n') {
      out << "\\n";
    } else if (length == 0 || static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
      WriteJsonEscape(out, static_cast<unsigned char>(c));
    } else {
      out << text.substr(0, length);
    }
    text.remove_prefix(length > 0 ? length : 1);
  }
  out << '"';
}
