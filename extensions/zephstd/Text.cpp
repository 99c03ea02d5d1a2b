// Functions for texts. Tested in tests/extensions/zephstd/TextTest.cpp.

#include <utf8proc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "extensions/zephstd/Call.h"
#include "extensions/zephstd/Compare.h"
#include "extensions/zephstd/UTF8.h"

namespace zephstd {

namespace {

using Position = size_t;
constexpr Position kNowhere = std::string_view::npos;

// As string_view's find, but in linear time for every text: visitors can send a text and a part
// that have the other one take minutes.
Position Find(std::string_view text, std::string_view part, Position from = 0) {
  if (part.empty()) return from;
  const void* const found =
      memmem(text.data() + from, text.size() - from, part.data(), part.size());
  if (found == nullptr) return kNowhere;
  return static_cast<Position>(static_cast<const char*>(found) - text.data());
}

// As string_view's rfind, in linear time. The text is turned round in blocks, from its end.
Position FindLast(std::string_view text, std::string_view part) {
  constexpr size_t kBlock = 64 << 10;
  if (part.empty() || part.size() > text.size()) return part.empty() ? text.size() : kNowhere;
  const std::string wanted(part.rbegin(), part.rend());
  const size_t most = std::max(kBlock, 4 * part.size());
  std::string block;
  for (size_t end = text.size();;) {
    const size_t begin = end > most ? end - most : 0;
    block.assign(text.rend() - static_cast<ptrdiff_t>(end),
                 text.rend() - static_cast<ptrdiff_t>(begin));
    const Position found = Find(block, wanted);
    if (found != kNowhere) return end - found - part.size();
    if (begin == 0) return kNowhere;
    // The next block has the part's beginning where this one has the rest of it.
    end = begin + part.size() - 1;
  }
}

// Calls each(bytes, code) for the characters, in their order.
template <class Each>
void EachCharacter(std::string_view text, Each each) {
  while (!text.empty()) {
    const Character character = FirstCharacter(text);
    const auto length = static_cast<size_t>(character.length);
    each(text.substr(0, length), character.code);
    text.remove_prefix(length);
  }
}

// Appends a character, or the byte that is none.
void AddCharacter(Builder* to, std::string_view bytes, int code, int changed) {
  if (code < 0 || changed == code) {
    to->Add(bytes);
  } else if (char* room = to->Room(4)) {
    to->Drop(4 - static_cast<size_t>(WriteCharacter(changed, room)));
  }
}

int Upper(int code) {
  if (code < 0x80) return code >= 'a' && code <= 'z' ? code - 0x20 : code;
  // utf8proc has the German capital here, and Unicode no simple mapping.
  return code == 0xDF ? code : utf8proc_toupper(code);
}

int Lower(int code) {
  if (code < 0x80) return code >= 'A' && code <= 'Z' ? code + 0x20 : code;
  return utf8proc_tolower(code);
}

bool IsLetter(int code) {
  if (code < 0) return false;
  if (code < 0x80) return (code | 0x20) >= 'a' && (code | 0x20) <= 'z';
  switch (utf8proc_category(code)) {
    case UTF8PROC_CATEGORY_LU:
    case UTF8PROC_CATEGORY_LL:
    case UTF8PROC_CATEGORY_LT:
    case UTF8PROC_CATEGORY_LM:
    case UTF8PROC_CATEGORY_LO:
    case UTF8PROC_CATEGORY_MN: return true;
    default: return false;
  }
}

bool IsDigit(int code) {
  return code >= '0' && code <= '9';
}

template <int (*Change)(int)>
void ChangeCase(Call& call) {
  Builder to(call);
  const std::string_view text = call.text(0);
  for (size_t at = 0; at < text.size() && !call.failed();) {
    const auto byte = static_cast<unsigned char>(text[at]);
    if (byte < 0x80) {
      to.Add(static_cast<char>(Change(byte)));
      at++;
      continue;
    }
    const Character character = FirstCharacter(text.substr(at));
    const auto length = static_cast<size_t>(character.length);
    AddCharacter(&to, text.substr(at, length), character.code,
                 character.code < 0 ? -1 : Change(character.code));
    at += length;
  }
  to.Return();
}

// Where the part of a text begins and ends, in bytes. start and count are those of substr.
std::string_view Part(std::string_view text, long long start, long long count, bool has_count) {
  size_t begin = 0;
  if (start > 1) begin = ByteOfCharacter(text, start - 1);
  if (start < 0) {
    // A start before the text: what is before it is not there.
    const long long characters = CountCharacters(text);
    const long long first = characters + start;
    if (first < 0 && has_count && count > 0) count = std::max(0LL, count + first);
    begin = first > 0 ? ByteOfCharacter(text, first) : 0;
  }
  if (start == 0 && has_count && count > 0) count--;
  text.remove_prefix(begin);
  if (!has_count) return text;
  return text.substr(0, count < 0 ? ByteOfLast(text, -count) : ByteOfCharacter(text, count));
}

std::string_view SpaceAtStart(std::string_view text) {
  while (!text.empty()) {
    const Character character = FirstCharacter(text);
    if (!IsSpace(character.code)) break;
    text.remove_prefix(static_cast<size_t>(character.length));
  }
  return text;
}

std::string_view SpaceAtEnd(std::string_view text) {
  while (!text.empty()) {
    const size_t last = LastCharacter(text);
    if (!IsSpace(FirstCharacter(text.substr(last)).code)) break;
    text = text.substr(0, last);
  }
  return text;
}

void Replace(Call& call, size_t most) {
  const std::string_view text = call.text(0), find = call.text(1), with = call.text(2);
  Builder to(call);
  Position begin = 0;
  for (size_t n = 0; n < most && !find.empty() && !call.failed(); n++) {
    const Position found = Find(text, find, begin);
    if (found == kNowhere) break;
    to.Add(text.substr(begin, found - begin));
    to.Add(with);
    begin = found + find.size();
  }
  to.Add(text.substr(begin));
  to.Return();
}

// Appends so many characters of a text that is repeated.
void Fill(Builder* to, std::string_view with, long long characters, long long in_with) {
  const long long whole = characters / in_with;
  if (with.size() == 1) {
    to->Add(static_cast<size_t>(std::min<long long>(whole, kMostBytes + 1LL)), with[0]);
    return;
  }
  for (long long i = 0; i < whole && !to->failed(); i++) to->Add(with);
  to->Add(with.substr(0, ByteOfCharacter(with, characters % in_with)));
}

void Pad(Call& call, int parts_before, int parts) {
  const std::string_view text = call.text(0);
  const std::string_view with = call.given(2) ? call.text(2) : std::string_view(" ");
  const long long missing = call.integer(1) - CountCharacters(text);
  if (missing <= 0) return call.Return(text);
  const long long in_with = CountCharacters(with);
  Builder to(call);
  const long long before = missing * parts_before / parts;
  Fill(&to, with, before, in_with);
  to.Add(text);
  Fill(&to, with, missing - before, in_with);
  to.Return();
}

// The character at the end of a shortened text.
constexpr std::string_view kEllipsis = "\xE2\x80\xA6";

// Calls each(part) for the parts of a text in one of the normal forms. The form takes many times
// the memory of the text while it is made, so it is made in pieces. They begin with ASCII, which no
// character before it joins; a text with a longer piece is refused. REQUIRES: it is UTF-8.
template <class Each>
void EachMapped(Call& call, std::string_view text, int options, Each each) {
  constexpr size_t kPiece = 16 << 10, kMostPiece = 1 << 20;
  while (!text.empty() && !call.failed()) {
    size_t end = std::min(kPiece, text.size());
    while (end < text.size() && static_cast<unsigned char>(text[end]) >= 0x80) end++;
    if (end > kMostPiece) {
      call.Fail(0, "has more than 1 MB without a character of ASCII");
      return;
    }
    utf8proc_uint8_t* mapped = nullptr;
    const auto length = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                                     static_cast<utf8proc_ssize_t>(end), &mapped,
                                     static_cast<utf8proc_option_t>(options));
    if (length < 0) throw std::bad_alloc();
    const std::unique_ptr<utf8proc_uint8_t, decltype(&free)> owned(mapped, &free);
    each(std::string_view(reinterpret_cast<const char*>(mapped), static_cast<size_t>(length)));
    text.remove_prefix(end);
  }
}

}  // namespace

void ReverseText(Call& call, std::string_view text) {
  Builder to(call);
  while (!text.empty() && !call.failed()) {
    const size_t last = LastCharacter(text);
    to.Add(text.substr(last));
    text = text.substr(0, last);
  }
  to.Return();
}

namespace functions {

void length(Call& call) {
  call.ReturnInteger(CountCharacters(call.text(0)));
}

void bytes(Call& call) {
  call.ReturnInteger(static_cast<long long>(call.text(0).size()));
}

void substr(Call& call) {
  call.Return(Part(call.text(0), call.integer(1), call.integer(2), call.given(2)));
}

void left(Call& call) {
  const std::string_view text = call.text(0);
  call.Return(text.substr(0, ByteOfCharacter(text, call.integer(1))));
}

void right(Call& call) {
  const std::string_view text = call.text(0);
  call.Return(text.substr(ByteOfLast(text, call.integer(1))));
}

void position(Call& call) {
  const std::string_view text = call.text(0);
  const std::string_view rest = Part(text, call.given(2) ? call.integer(2) : 1, 0, false);
  const Position found = Find(rest, call.text(1));
  if (found == kNowhere) return call.ReturnInteger(0);
  const size_t before = static_cast<size_t>(rest.data() - text.data()) + found;
  call.ReturnInteger(CountCharacters(text.substr(0, before)) + 1);
}

void lastposition(Call& call) {
  const Position found = FindLast(call.text(0), call.text(1));
  call.ReturnInteger(found == kNowhere ? 0 : CountCharacters(call.text(0).substr(0, found)) + 1);
}

void contains(Call& call) {
  call.ReturnInteger(Find(call.text(0), call.text(1)) != kNowhere);
}

void starts(Call& call) {
  call.ReturnInteger(call.text(0).starts_with(call.text(1)));
}

void ends(Call& call) {
  call.ReturnInteger(call.text(0).ends_with(call.text(1)));
}

void occurrences(Call& call) {
  const std::string_view text = call.text(0), find = call.text(1);
  long long count = 0;
  for (Position at = 0; !find.empty() && (at = Find(text, find, at)) != kNowhere;
       at += find.size()) {
    count++;
  }
  call.ReturnInteger(count);
}

void replace(Call& call) {
  Replace(call, SIZE_MAX);
}

void replacefirst(Call& call) {
  Replace(call, 1);
}

void split(Call& call) {
  std::string_view text = call.text(0);
  const std::string_view separator = call.text(1);
  ArrayBuilder parts(call, call.result());
  if (text.empty()) return;
  if (separator.empty()) {
    while (!text.empty() && !call.failed()) {
      const auto length = static_cast<size_t>(FirstCharacter(text).length);
      parts.Add(text.substr(0, length));
      text.remove_prefix(length);
    }
    return;
  }
  while (!call.failed()) {
    const Position found = Find(text, separator);
    parts.Add(text.substr(0, found));
    if (found == kNowhere) break;
    text.remove_prefix(found + separator.size());
  }
}

void lines(Call& call) {
  std::string_view text = call.text(0);
  ArrayBuilder parts(call, call.result());
  while (!text.empty() && !call.failed()) {
    const Position end = text.find_first_of("\r\n");
    parts.Add(text.substr(0, end));
    if (end == kNowhere) break;
    text.remove_prefix(end + (text.substr(end).starts_with("\r\n") ? 2 : 1));
  }
}

void words(Call& call) {
  std::string_view text = SpaceAtStart(call.text(0));
  ArrayBuilder parts(call, call.result());
  while (!text.empty() && !call.failed()) {
    size_t end = 0;
    while (end < text.size()) {
      const Character character = FirstCharacter(text.substr(end));
      if (IsSpace(character.code)) break;
      end += static_cast<size_t>(character.length);
    }
    parts.Add(text.substr(0, end));
    text = SpaceAtStart(text.substr(end));
  }
}

void join(Call& call) {
  Builder to(call);
  bool first = true;
  EachElement(call.variable(0), [&](ZPVARIABLE element, int, std::string_view) {
    if (!first) to.Add(call.text(1));
    first = false;
    to.Add(TextOf(element));
    return !call.failed();
  });
  to.Return();
}

void upper(Call& call) {
  ChangeCase<Upper>(call);
}

void lower(Call& call) {
  ChangeCase<Lower>(call);
}

void capitalise(Call& call) {
  const std::string_view text = call.text(0);
  if (text.empty()) return call.Return(text);
  const Character first = FirstCharacter(text);
  const auto length = static_cast<size_t>(first.length);
  Builder to(call);
  AddCharacter(&to, text.substr(0, length), first.code,
               first.code < 0 ? -1 : utf8proc_totitle(first.code));
  to.Add(text.substr(length));
  to.Return();
}

void title(Call& call) {
  Builder to(call);
  bool in_word = false;
  EachCharacter(call.text(0), [&](std::string_view bytes, int code) {
    // An apostrophe does not part a word: "don't" has one capital.
    const bool joins = in_word && (code == '\'' || code == 0x2019);
    const bool is_letter = IsLetter(code) || IsDigit(code);
    AddCharacter(&to, bytes, code, code < 0 ? -1 : in_word ? Lower(code) : utf8proc_totitle(code));
    in_word = is_letter || joins;
  });
  to.Return();
}

void trim(Call& call) {
  call.Return(SpaceAtEnd(SpaceAtStart(call.text(0))));
}

void trimleft(Call& call) {
  call.Return(SpaceAtStart(call.text(0)));
}

void trimright(Call& call) {
  call.Return(SpaceAtEnd(call.text(0)));
}

void padleft(Call& call) {
  Pad(call, 1, 1);
}

void padright(Call& call) {
  Pad(call, 0, 1);
}

void padboth(Call& call) {
  Pad(call, 1, 2);
}

void repeat(Call& call) {
  const std::string_view text = call.text(0);
  const long long count = text.empty() ? 0 : call.integer(1);
  // More than fit would be as wrong, and the product would not fit into 64 bits.
  if (count > kMostBytes) {
    call.FailTooLarge();
    return;
  }
  Builder to(call);
  if (count > 0) Fill(&to, text, count, 1);
  to.Return();
}

void compare(Call& call) {
  TextOrder order;
  if (!ReadOrder(call, 2, &order)) return;
  const int result = CompareTexts(call.text(0), call.text(1), order);
  call.ReturnInteger(order.descending ? -result : result);
}

void wrap(Call& call) {
  const long long width = call.integer(1);
  if (width < 1) {
    call.Fail(1, "is below 1");
    return;
  }
  const std::string_view end = call.given(2) ? call.text(2) : std::string_view("\n");
  const std::string_view text = call.text(0);
  Builder to(call);
  // The line that is not written yet, its characters, and the last blank in it with the characters
  // before it.
  size_t line = 0, blank = kNowhere;
  long long used = 0, before_blank = 0;
  for (size_t at = 0; at < text.size() && !call.failed();) {
    const Character character = FirstCharacter(text.substr(at));
    const auto length = static_cast<size_t>(character.length);
    if (character.code == '\n') {
      to.Add(text.substr(line, at + 1 - line));
      line = at + 1;
      used = 0;
      blank = kNowhere;
    } else if (used == width && character.code == ' ') {
      to.Add(text.substr(line, at - line));
      to.Add(end);
      line = at + 1;
      used = 0;
      blank = kNowhere;
    } else if (used == width) {
      const size_t cut = blank == kNowhere ? at : blank;
      to.Add(text.substr(line, cut - line));
      to.Add(end);
      line = blank == kNowhere ? at : blank + 1;
      used = blank == kNowhere ? 1 : width - before_blank;
      blank = kNowhere;
    } else {
      if (character.code == ' ') {
        blank = at;
        before_blank = used;
      }
      used++;
    }
    at += length;
  }
  to.Add(text.substr(line));
  to.Return();
}

void shorten(Call& call) {
  const std::string_view text = call.text(0);
  const std::string_view end = call.given(2) ? call.text(2) : kEllipsis;
  const long long width = std::max(0LL, call.integer(1));
  if (ByteOfCharacter(text, width) == text.size()) return call.Return(text);
  const long long kept = width - CountCharacters(end);
  Builder to(call);
  to.Add(text.substr(0, ByteOfCharacter(text, kept)));
  to.Add(end.substr(0, ByteOfCharacter(end, width)));
  to.Return();
}

void slugify(Call& call) {
  const std::string_view text = call.text(0);
  Builder to(call);
  bool parted = false;
  const auto add = [&](std::string_view bytes, int code) {
    if (code >= 0x300 && code < 0x370) return;
    if (!IsLetter(code) && !IsDigit(code)) {
      parted = true;
      return;
    }
    if (parted && to.size() > 0) to.Add('-');
    parted = false;
    if (Lower(code) == 0xDF) return to.Add("ss");  // in German
    AddCharacter(&to, bytes, code, Lower(code));
  };
  if (IsUTF8(text)) {
    // Accents become characters of their own, which are then left out.
    EachMapped(call, text, UTF8PROC_STABLE | UTF8PROC_COMPAT | UTF8PROC_DECOMPOSE,
               [&](std::string_view part) { EachCharacter(part, add); });
  } else {
    EachCharacter(text, add);
  }
  to.Return();
}

void isutf8(Call& call) {
  call.ReturnInteger(IsUTF8(call.text(0)));
}

void cleanutf8(Call& call) {
  const std::string_view text = call.text(0);
  if (IsUTF8(text)) return call.Return(text);
  Builder to(call);
  EachCharacter(text, [&](std::string_view bytes, int code) {
    to.Add(code < 0 ? std::string_view("\xEF\xBF\xBD") : bytes);
  });
  to.Return();
}

void normalise(Call& call) {
  const std::string_view text = call.text(0);
  if (!IsUTF8(text)) return call.Return(text);
  Builder to(call);
  EachMapped(call, text, UTF8PROC_STABLE | UTF8PROC_COMPOSE,
             [&](std::string_view part) { to.Add(part); });
  to.Return();
}

void codeof(Call& call) {
  const std::string_view text = call.text(0);
  if (text.empty()) return call.ReturnInteger(-1);
  const Character first = FirstCharacter(text);
  call.ReturnInteger(first.code < 0 ? static_cast<unsigned char>(text[0]) : first.code);
}

void character(Call& call) {
  const long long code = call.integer(0);
  if (code < 0 || code > 0x10FFFF || (code >= 0xD800 && code < 0xE000)) {
    call.Fail(0, "is no character of Unicode");
    return;
  }
  char bytes[4];
  const int length = WriteCharacter(static_cast<int>(code), bytes);
  call.Return(std::string_view(bytes, static_cast<size_t>(length)));
}

}  // namespace functions

}  // namespace zephstd
