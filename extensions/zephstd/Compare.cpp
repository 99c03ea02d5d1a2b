// Tested in tests/extensions/zephstd/ArrayTest.cpp.

#include "extensions/zephstd/Compare.h"

#include <utf8proc.h>

#include "extensions/zephstd/UTF8.h"

namespace zephstd {

namespace {

int Sign(int value) {
  return (value > 0) - (value < 0);
}

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

// Takes the digits at the start of a text, without zeros in front.
std::string_view TakeNumber(std::string_view* text) {
  size_t end = 0;
  while (end < text->size() && IsDigit((*text)[end])) end++;
  std::string_view digits = text->substr(0, end);
  text->remove_prefix(end);
  while (digits.size() > 1 && digits[0] == '0') digits.remove_prefix(1);
  return digits;
}

int CompareNaturally(std::string_view left, std::string_view right) {
  const std::string_view whole_left = left, whole_right = right;
  while (!left.empty() && !right.empty()) {
    if (IsDigit(left[0]) && IsDigit(right[0])) {
      const std::string_view a = TakeNumber(&left), b = TakeNumber(&right);
      if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
      if (const int result = a.compare(b)) return Sign(result);
      continue;
    }
    if (left[0] != right[0]) {
      return static_cast<unsigned char>(left[0]) < static_cast<unsigned char>(right[0]) ? -1 : 1;
    }
    left.remove_prefix(1);
    right.remove_prefix(1);
  }
  if (left.empty() != right.empty()) return left.empty() ? -1 : 1;
  // Equal but for zeros in front.
  return Sign(whole_left.compare(whole_right));
}

}  // namespace

bool ReadOrder(Call& call, int i, TextOrder* order) {
  std::string_view words = call.text(i);
  while (!words.empty()) {
    const size_t end = words.find(' ');
    const std::string_view word = words.substr(0, end);
    words.remove_prefix(end == std::string_view::npos ? words.size() : end + 1);
    if (word == "number") {
      order->number = true;
    } else if (word == "nocase") {
      order->nocase = true;
    } else if (word == "natural") {
      order->natural = true;
    } else if (word == "desc") {
      order->descending = true;
    } else if (!word.empty() && word != "text" && word != "asc") {
      return call.Fail(i, "has an unknown word", word);
    }
  }
  return true;
}

std::string FoldedCase(std::string_view text) {
  std::string folded;
  folded.reserve(text.size());
  while (!text.empty()) {
    const Character character = FirstCharacter(text);
    const auto length = static_cast<size_t>(character.length);
    if (character.code < 0) {
      folded += text[0];
    } else if (character.code < 0x80) {
      const bool capital = text[0] >= 'A' && text[0] <= 'Z';
      folded += capital ? static_cast<char>(text[0] + 0x20) : text[0];
    } else {
      utf8proc_int32_t codes[8];
      int boundary = 0;
      const auto count =
          utf8proc_decompose_char(character.code, codes, 8, UTF8PROC_CASEFOLD, &boundary);
      for (int n = 0; n < count && n < 8; n++) {
        char bytes[4];
        folded.append(bytes, static_cast<size_t>(WriteCharacter(codes[n], bytes)));
      }
    }
    text.remove_prefix(length);
  }
  return folded;
}

int CompareTexts(std::string_view left, std::string_view right, const TextOrder& order) {
  if (order.number) {
    // As in sort, what is no number is 0.
    double a = 0, b = 0;
    ReadNumber(left, &a);
    ReadNumber(right, &b);
    return (a > b) - (a < b);
  }
  if (order.nocase) {
    TextOrder without = order;
    without.nocase = false;
    return CompareTexts(FoldedCase(left), FoldedCase(right), without);
  }
  if (order.natural) return CompareNaturally(left, right);
  return Sign(left.compare(right));
}

}  // namespace zephstd
