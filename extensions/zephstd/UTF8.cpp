// Tested in tests/extensions/zephstd/TextTest.cpp.

#include "extensions/zephstd/UTF8.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace zephstd {

namespace {

// Whether eight bytes are all ASCII.
bool IsPlain(const char* bytes) {
  uint64_t word;
  memcpy(&word, bytes, sizeof word);
  return (word & 0x8080808080808080u) == 0;
}

// Goes over at most so many characters from a byte on; returns where it is then, and counts down.
size_t Skip(std::string_view text, size_t at, long long* count) {
  while (*count > 0 && at < text.size()) {
    if (*count >= 8 && text.size() - at >= 8 && IsPlain(text.data() + at)) {
      at += 8;
      *count -= 8;
    } else {
      at += static_cast<size_t>(FirstCharacter(text.substr(at)).length);
      --*count;
    }
  }
  return at;
}

}  // namespace

int WriteCharacter(int code, char* to) {
  if (code < 0x80) {
    to[0] = static_cast<char>(code);
    return 1;
  }
  const int length = code < 0x800 ? 2 : code < 0x10000 ? 3 : 4;
  for (int i = length - 1; i > 0; i--) {
    to[i] = static_cast<char>(0x80 | (code & 0x3F));
    code >>= 6;
  }
  to[0] = static_cast<char>((0xF00 >> length & 0xFF) | code);
  return length;
}

long long CountCharacters(std::string_view text) {
  const auto most = static_cast<long long>(text.size());
  long long left = most;
  Skip(text, 0, &left);
  return most - left;
}

size_t ByteOfCharacter(std::string_view text, long long number) {
  return Skip(text, 0, &number);
}

// A character ends here if no longer one that begins before does: the bytes before the end are
// tried as the beginning of one that reaches it.
size_t LastCharacter(std::string_view text) {
  const size_t end = text.size();
  for (size_t length = 2; length <= 4 && length <= end; length++) {
    const Character character = FirstCharacter(text.substr(end - length));
    if (character.code >= 0 && static_cast<size_t>(character.length) == length) return end - length;
  }
  return end - 1;
}

size_t ByteOfLast(std::string_view text, long long count) {
  while (count > 0 && !text.empty()) {
    text = text.substr(0, LastCharacter(text));
    count--;
  }
  return text.size();
}

bool IsUTF8(std::string_view text) {
  for (size_t at = 0; at < text.size();) {
    if (text.size() - at >= 8 && IsPlain(text.data() + at)) {
      at += 8;
      continue;
    }
    const Character character = FirstCharacter(text.substr(at));
    if (character.code < 0) return false;
    at += static_cast<size_t>(character.length);
  }
  return true;
}

bool IsSpace(int code) {
  return (code >= 9 && code <= 13) || code == ' ' || code == 0x85 || code == 0xA0 ||
         code == 0x1680 || (code >= 0x2000 && code <= 0x200A) || code == 0x2028 || code == 0x2029 ||
         code == 0x202F || code == 0x205F || code == 0x3000;
}

}  // namespace zephstd
