// Matches patterns and normalizes paths. Tested in tests/config/GlobTest.cpp.

#include "config/Glob.h"

#include <vector>

namespace {

unsigned char Byte(std::string_view text, size_t at) {
  return static_cast<unsigned char>(text[at]);
}

// Matches one byte against the set that begins at pattern[at], a "[". Returns the position after
// the set, or 0 when it has no end.
size_t MatchSet(std::string_view pattern, size_t at, unsigned char byte, bool* matches) {
  size_t p = at + 1;
  bool inverted = p < pattern.size() && pattern[p] == '!';
  if (inverted) p++;
  bool found = false;
  // A "]" in the first position is a member.
  for (bool first = true; p < pattern.size() && (first || pattern[p] != ']'); first = false) {
    unsigned char low = Byte(pattern, p);
    unsigned char high = low;
    if (p + 2 < pattern.size() && pattern[p + 1] == '-' && pattern[p + 2] != ']') {
      high = Byte(pattern, p + 2);
      p += 2;
    }
    if (byte >= low && byte <= high) found = true;
    p++;
  }
  if (p >= pattern.size()) return 0;
  *matches = found != inverted;
  return p + 1;
}

// Matches one byte against the element at pattern[at], which is not a "*". Returns the position
// after the element when it matches, else 0.
size_t MatchOne(std::string_view pattern, size_t at, unsigned char byte) {
  switch (pattern[at]) {
    case '?': return at + 1;
    case '[': {
      bool matches = false;
      size_t after = MatchSet(pattern, at, byte, &matches);
      if (after == 0) return byte == '[' ? at + 1 : 0;
      return matches ? after : 0;
    }
    case '\\':
      if (at + 1 < pattern.size()) at++;
      break;
    default: break;
  }
  return Byte(pattern, at) == byte ? at + 1 : 0;
}

}  // namespace

bool MatchesGlob(std::string_view pattern, std::string_view text) {
  constexpr size_t none = std::string_view::npos;
  size_t p = 0;
  size_t t = 0;
  // The last "*" seen, and where its run ends so far. Only the last one needs another try: any
  // bytes that an earlier one could leave, the last one can match.
  size_t star = none;
  size_t star_end = 0;
  while (t < text.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      star_end = t;
      continue;
    }
    size_t after = p < pattern.size() ? MatchOne(pattern, p, Byte(text, t)) : 0;
    if (after != 0) {
      p = after;
      t++;
    } else if (star != none) {
      p = star + 1;
      t = ++star_end;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') p++;
  return p == pattern.size();
}

std::string NormalizedPath(std::string_view path) {
  std::vector<std::string_view> parts;
  for (size_t at = 0; at <= path.size();) {
    size_t end = path.find('/', at);
    if (end == std::string_view::npos) end = path.size();
    std::string_view part = path.substr(at, end - at);
    at = end + 1;
    if (part.empty() || part == ".") continue;
    if (part != "..") {
      parts.push_back(part);
    } else if (!parts.empty()) {
      parts.pop_back();
    }
  }
  std::string result;
  for (std::string_view part : parts) {
    if (!result.empty()) result += '/';
    result += part;
  }
  return result;
}
