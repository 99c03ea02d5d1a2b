// Words of headers: their case and the blanks around them have no meaning.

#ifndef ZEPH_EXTENSIONS_ZEPHSTD_WORDS_H
#define ZEPH_EXTENSIONS_ZEPHSTD_WORDS_H

#include <cstddef>
#include <string_view>

namespace zephstd {

inline char Lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
}

inline bool SameText(std::string_view text, std::string_view other) {
  if (text.size() != other.size()) return false;
  for (size_t i = 0; i < text.size(); i++) {
    if (Lower(text[i]) != Lower(other[i])) return false;
  }
  return true;
}

// Without blanks and tabs at both ends.
inline std::string_view Trimmed(std::string_view text) {
  const size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

}  // namespace zephstd

#endif
