// Functions that encode and decode texts. Tested in tests/extensions/zephstd/EncodingTest.cpp.

#ifdef __SSE2__
#include <emmintrin.h>
#endif
#include <sodium.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstring>

#include "extensions/zephstd/Call.h"
#include "extensions/zephstd/Encoding.h"
#include "extensions/zephstd/UTF8.h"

namespace zephstd {

namespace {

constexpr char kDigits[] = "0123456789abcdef";
constexpr char kCapitalDigits[] = "0123456789ABCDEF";

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Bytes that a set has.
struct ByteSet {
  bool has[256] = {};
  constexpr explicit ByteSet(std::string_view bytes) {
    for (const char c : bytes) has[static_cast<unsigned char>(c)] = true;
  }
  constexpr bool Has(char c) const { return has[static_cast<unsigned char>(c)]; }
};

constexpr ByteSet kOfHTML("<>&\"'");
constexpr ByteSet kOfURL("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~");
constexpr ByteSet kOfWholeURL(
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~!#$%&'()*+,/:;=?@[]");
// What a string of JavaScript may have as it is, wherever the page has it. "/" could end a script
// element after "<", which is not in the set either.
constexpr ByteSet kOfScript(
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789 -._~!#%()*+,:;=?@[]^{|}/");

// What a byte becomes in HTML, as one word: the bytes after the text are written over by the next.
struct Unit {
  char text[7] = {};
  unsigned char length = 1;
};
struct UnitsOfHTML {
  Unit units[256];
  constexpr UnitsOfHTML() {
    for (int c = 0; c < 256; c++) units[c].text[0] = static_cast<char>(c);
    Set('<', "&lt;");
    Set('>', "&gt;");
    Set('&', "&amp;");
    Set('"', "&quot;");
    Set('\'', "&#39;");
  }
  constexpr void Set(char c, std::string_view entity) {
    Unit& unit = units[static_cast<unsigned char>(c)];
    entity.copy(unit.text, entity.size());
    unit.length = static_cast<unsigned char>(entity.size());
  }
  const Unit& Of(char c) const { return units[static_cast<unsigned char>(c)]; }
  std::string_view EntityOf(char c) const { return {Of(c).text, Of(c).length}; }
};
constexpr UnitsOfHTML kUnits;

// Whether any of 16 bytes becomes an entity.
bool HasEntity(const char* text) {
#ifdef __SSE2__
  // 0x22 and 0x26, and 0x3C and 0x3E, differ in one bit, so one comparison finds both.
  const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text));
  const auto is = [&bytes](char with, char both) {
    return _mm_cmpeq_epi8(_mm_or_si128(bytes, _mm_set1_epi8(with)), _mm_set1_epi8(both));
  };
  const __m128i found = _mm_or_si128(_mm_or_si128(is(4, 0x26), is(2, 0x3E)), is(0, '\''));
  return _mm_movemask_epi8(found) != 0;
#else
  return std::any_of(text, text + 16, [](char c) { return kOfHTML.Has(c); });
#endif
}

// Where the first byte is that becomes an entity, or a place before it in the same 16 bytes.
size_t PlainParts(std::string_view text) {
  size_t plain = 0;
  while (text.size() - plain >= 16 && !HasEntity(text.data() + plain)) plain += 16;
  return plain;
}

// Writes each byte as a word, without a branch. In a short text the places of the entities cannot
// be foreseen, and copies of the parts between them cost more. Parts of 16 bytes without any are
// copied.
void EncodeShortHTML(std::string_view text, Builder* to) {
  constexpr size_t kWord = sizeof(Unit);
  static_assert(kWord == 8);
  char* const begin = to->Room(text.size() * kWord);
  if (begin == nullptr) return;
  char* end = begin;
  for (size_t i = 0; i < text.size();) {
    size_t part = text.size();
    if (part - i >= 16) {
      if (!HasEntity(text.data() + i)) {
        memcpy(end, text.data() + i, 16);
        end += 16;
        i += 16;
        continue;
      }
      part = i + 16;
    }
    for (; i < part; i++) {
      const Unit& unit = kUnits.Of(text[i]);
      memcpy(end, &unit, kWord);
      end += unit.length;
    }
  }
  to->Drop(static_cast<size_t>(begin + text.size() * kWord - end));
}

void EncodeHTML(std::string_view text, bool with_breaks, Builder* to) {
  size_t begin = 0;  // of what stays as it is
  for (size_t i = 0; i < text.size(); i++) {
    const bool breaks = with_breaks && (text[i] == '\n' || text[i] == '\r');
    if (!kOfHTML.Has(text[i]) && !breaks) continue;
    to->Add(text.substr(begin, i - begin));
    if (breaks) {
      to->Add("<br>");
      // CR LF is one line end.
      if (text[i] == '\r' && i + 1 < text.size() && text[i + 1] == '\n') to->Add(text[i++]);
      to->Add(text[i]);
    } else {
      to->Add(kUnits.EntityOf(text[i]));
    }
    begin = i + 1;
  }
  to->Add(text.substr(begin));
}

// --- Entities ------------------------------------------------------------------------------------

struct Entity {
  std::string_view name;
  int code;
};

constexpr Entity kEntities[] = {
#define ENTITY(name, code) {name, code},
#include "extensions/zephstd/Entities.def"
};

constexpr size_t kLongestEntity = 10;

// The code of a name without & and ;, or -1. Names of HTML have a case.
int CodeOfEntity(std::string_view name) {
  if (name == "apos") return '\'';
  if (name.size() > 1 && name[0] == '#') {
    const bool hex = (name[1] | 0x20) == 'x';
    const std::string_view digits = name.substr(hex ? 2 : 1);
    unsigned code = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, problem] = std::from_chars(digits.data(), end, code, hex ? 16 : 10);
    if (problem != std::errc() || stop != end) return -1;
    // As browsers do with what is no character.
    if (code == 0 || code > 0x10FFFF || (code >= 0xD800 && code < 0xE000)) return 0xFFFD;
    return static_cast<int>(code);
  }
  const auto* const found = std::lower_bound(
      std::begin(kEntities), std::end(kEntities), name,
      [](const Entity& entity, std::string_view wanted) { return entity.name < wanted; });
  return found != std::end(kEntities) && found->name == name ? found->code : -1;
}

void DecodeHTML(std::string_view text, Builder* to) {
  while (!text.empty()) {
    const size_t amp = text.find('&');
    to->Add(text.substr(0, amp));
    if (amp == std::string_view::npos) return;
    text.remove_prefix(amp);
    const size_t end = text.substr(0, kLongestEntity + 2).find(';');
    const int code = end == std::string_view::npos ? -1 : CodeOfEntity(text.substr(1, end - 1));
    if (code < 0) {
      to->Add('&');
      text.remove_prefix(1);
      continue;
    }
    if (char* room = to->Room(4)) to->Drop(4 - static_cast<size_t>(WriteCharacter(code, room)));
    text.remove_prefix(end + 1);
  }
}

// --- JavaScript ----------------------------------------------------------------------------------

void AddUnit(Builder* to, int unit) {
  char* const room = to->Room(6);
  if (room == nullptr) return;
  room[0] = '\\';
  room[1] = 'u';
  for (int i = 0; i < 4; i++) room[2 + i] = kDigits[unit >> (12 - 4 * i) & 15];
}

void EncodeScript(std::string_view text, Builder* to) {
  while (!text.empty()) {
    const char c = text[0];
    if (kOfScript.Has(c)) {
      to->Add(c);
      text.remove_prefix(1);
      continue;
    }
    const Character character = FirstCharacter(text);
    const std::string_view bytes = text.substr(0, static_cast<size_t>(character.length));
    text.remove_prefix(bytes.size());
    switch (character.code) {
      case '\n': to->Add("\\n"); continue;
      case '\r': to->Add("\\r"); continue;
      case '\t': to->Add("\\t"); continue;
      case '\\': to->Add("\\\\"); continue;
      // Line ends of older JavaScript, which are no white space for an editor.
      case 0x2028:
      case 0x2029: AddUnit(to, character.code); continue;
      case -1: AddUnit(to, 0xFFFD); continue;
      default: break;
    }
    if (character.code < 0x80) {
      AddUnit(to, character.code);
    } else {
      to->Add(bytes);
    }
  }
}

// Reads up to so many hexadecimal digits; -1 if there are fewer.
int ReadHex(std::string_view text, size_t digits) {
  if (text.size() < digits) return -1;
  int value = 0;
  for (size_t i = 0; i < digits; i++) {
    const int digit = HexDigit(text[i]);
    if (digit < 0) return -1;
    value = value << 4 | digit;
  }
  return value;
}

// What an escape without its backslash says, and its length; 0 if it is none.
size_t ReadEscape(std::string_view text, int* code) {
  if (text.empty()) return 0;
  switch (text[0]) {
    case 'n': *code = '\n'; return 1;
    case 'r': *code = '\r'; return 1;
    case 't': *code = '\t'; return 1;
    case 'b': *code = '\b'; return 1;
    case 'f': *code = '\f'; return 1;
    case 'v': *code = '\v'; return 1;
    case '0': *code = 0; return 1;
    case '\\':
    case '/':
    case '"':
    case '\'':
    case '`': *code = static_cast<unsigned char>(text[0]); return 1;
    case 'x': *code = ReadHex(text.substr(1), 2); return *code < 0 ? 0 : 3;
    case 'u': break;
    default: return 0;
  }
  const int unit = ReadHex(text.substr(1), 4);
  if (unit < 0) return 0;
  *code = unit;
  if (unit < 0xD800 || unit > 0xDFFF) return 5;
  const bool pairs = unit < 0xDC00 && text.substr(5).starts_with("\\u");
  const int low = pairs ? ReadHex(text.substr(7), 4) : -1;
  if (low < 0xDC00 || low > 0xDFFF) {
    *code = 0xFFFD;
    return 5;
  }
  *code = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
  return 11;
}

// --- Base64 and hexadecimal digits ---------------------------------------------------------------

void EncodeBase64(Call& call, int variant) {
  const std::string_view text = call.text(0);
  Builder to(call);
  const size_t length = sodium_base64_ENCODED_LEN(text.size(), variant);
  char* const room = to.Room(length);
  if (room == nullptr) return;
  sodium_bin2base64(room, length, reinterpret_cast<const unsigned char*>(text.data()), text.size(),
                    variant);
  to.Drop(length - strlen(room));
  to.Return();
}

// = at the end does not matter, nor does white space.
void DecodeBase64(Call& call, int variant) {
  const std::string_view text = call.text(0);
  size_t end = text.size();
  while (end > 0 && strchr("= \t\r\n", text[end - 1]) != nullptr && text[end - 1] != '\0') end--;
  Builder to(call);
  const size_t most = end / 4 * 3 + 3;
  auto* const room = reinterpret_cast<unsigned char*>(to.Room(most));
  size_t length = 0;
  if (room == nullptr ||
      sodium_base642bin(room, most, text.data(), end, " \t\r\n", &length, nullptr, variant) != 0) {
    return;
  }
  to.Drop(most - length);
  to.Return();
}

// --- CSV -----------------------------------------------------------------------------------------

bool ReadDelimiter(Call& call, char* delimiter) {
  *delimiter = ',';
  if (!call.given(1)) return true;
  const std::string_view text = call.text(1);
  if (text.size() != 1 || text[0] == '"' || text[0] == '\n' || text[0] == '\r' || text[0] == '\0') {
    return call.Fail(1, "is not one byte, or is a quote, a line end or NUL");
  }
  *delimiter = text[0];
  return true;
}

void AddField(std::string_view field, char delimiter, Builder* to) {
  const char special[] = {delimiter, '"', '\r', '\n'};
  const bool blank = !field.empty() && (field.front() == ' ' || field.back() == ' ');
  if (!blank && field.find_first_of({special, sizeof special}) == std::string_view::npos) {
    return to->Add(field);
  }
  to->Add('"');
  for (size_t quote; (quote = field.find('"')) != std::string_view::npos;) {
    to->Add(field.substr(0, quote + 1));
    to->Add('"');
    field.remove_prefix(quote + 1);
  }
  to->Add(field);
  to->Add('"');
}

// Takes a field and what ends it, which is returned: the delimiter, '\n', or 0 at the end.
char TakeField(std::string_view* text, char delimiter, std::string* field) {
  field->clear();
  if (text->starts_with('"')) {
    text->remove_prefix(1);
    while (!text->empty()) {
      const size_t quote = text->find('"');
      field->append(text->substr(0, quote));
      if (quote == std::string_view::npos) {
        *text = {};
        break;
      }
      text->remove_prefix(quote + 1);
      if (!text->starts_with('"')) break;
      *field += '"';
      text->remove_prefix(1);
    }
  }
  // Also what follows the closing quote.
  const char special[] = {delimiter, '\r', '\n'};
  const size_t end = text->find_first_of({special, sizeof special});
  field->append(text->substr(0, end));
  if (end == std::string_view::npos) {
    *text = {};
    return 0;
  }
  const char c = (*text)[end];
  text->remove_prefix(end + (text->substr(end).starts_with("\r\n") ? 2 : 1));
  return c == delimiter ? c : '\n';
}

}  // namespace

static void EncodeOthers(std::string_view text, const ByteSet& kept, Builder* to) {
  size_t begin = 0;
  for (size_t i = 0; i < text.size(); i++) {
    if (kept.Has(text[i])) continue;
    to->Add(text.substr(begin, i - begin));
    const auto byte = static_cast<unsigned char>(text[i]);
    const char escape[] = {'%', kCapitalDigits[byte >> 4], kCapitalDigits[byte & 15]};
    to->Add({escape, sizeof escape});
    begin = i + 1;
  }
  to->Add(text.substr(begin));
}

void EncodeURL(std::string_view text, Builder* to) {
  EncodeOthers(text, kOfURL, to);
}

void EncodeWholeURL(std::string_view text, Builder* to) {
  EncodeOthers(text, kOfWholeURL, to);
}

void DecodeURL(std::string_view text, bool plus_is_blank, Builder* to) {
  for (size_t i = 0; i < text.size(); i++) {
    if (text[i] == '%') {
      const int byte = ReadHex(text.substr(i + 1), 2);
      if (byte >= 0) {
        to->Add(static_cast<char>(byte));
        i += 2;
        continue;
      }
    }
    to->Add(plus_is_blank && text[i] == '+' ? ' ' : text[i]);
  }
}

namespace functions {

// Of any value, because {{ }} calls it, and a visitor who sends a field twice makes it an array.
void htmlencode(Call& call) {
  const std::string_view text = TextOf(call.variable(0));
  size_t plain = PlainParts(text);
  while (plain < text.size() && !kOfHTML.Has(text[plain])) plain++;
  if (plain == text.size()) return call.Return(text);
  Builder to(call);
  // So that the room for the words is in the builder itself.
  constexpr size_t kShort = 64;
  if (text.size() <= kShort) {
    EncodeShortHTML(text, &to);
  } else {
    to.Add(text.substr(0, plain));
    EncodeHTML(text.substr(plain), false, &to);
  }
  to.Return();
}

void htmldecode(Call& call) {
  Builder to(call);
  DecodeHTML(call.text(0), &to);
  to.Return();
}

void htmllines(Call& call) {
  Builder to(call);
  EncodeHTML(call.text(0), true, &to);
  to.Return();
}

void urlencode(Call& call) {
  Builder to(call);
  EncodeURL(call.text(0), &to);
  to.Return();
}

void urldecode(Call& call) {
  Builder to(call);
  DecodeURL(call.text(0), true, &to);
  to.Return();
}

void urlquery(Call& call) {
  Builder to(call);
  EachElement(call.variable(0), [&](ZPVARIABLE element, int position, std::string_view name) {
    if (to.size() > 0) to.Add('&');
    EncodeURL(position > 0 ? std::string_view(std::to_string(position)) : name, &to);
    to.Add('=');
    EncodeURL(TextOf(element), &to);
    return !call.failed();
  });
  to.Return();
}

void jsencode(Call& call) {
  Builder to(call);
  EncodeScript(call.text(0), &to);
  to.Return();
}

void jsdecode(Call& call) {
  std::string_view text = call.text(0);
  Builder to(call);
  for (;;) {
    const size_t backslash = text.find('\\');
    to.Add(text.substr(0, backslash));
    if (backslash == std::string_view::npos) break;
    text.remove_prefix(backslash + 1);
    int code = 0;
    const size_t length = ReadEscape(text, &code);
    if (length == 0) {
      to.Add('\\');
      continue;
    }
    if (char* room = to.Room(4)) to.Drop(4 - static_cast<size_t>(WriteCharacter(code, room)));
    text.remove_prefix(length);
  }
  to.Return();
}

void base64encode(Call& call) {
  EncodeBase64(call, sodium_base64_VARIANT_ORIGINAL);
}

void base64decode(Call& call) {
  DecodeBase64(call, sodium_base64_VARIANT_ORIGINAL_NO_PADDING);
}

void base64urlencode(Call& call) {
  EncodeBase64(call, sodium_base64_VARIANT_URLSAFE_NO_PADDING);
}

void base64urldecode(Call& call) {
  DecodeBase64(call, sodium_base64_VARIANT_URLSAFE_NO_PADDING);
}

void hexencode(Call& call) {
  Builder to(call);
  AddHex(call.text(0), &to);
  to.Return();
}

void hexdecode(Call& call) {
  const std::string_view text = call.text(0);
  if (text.size() % 2 != 0) return;
  Builder to(call);
  for (size_t i = 0; i < text.size(); i += 2) {
    const int byte = ReadHex(text.substr(i), 2);
    if (byte < 0) return;
    to.Add(static_cast<char>(byte));
  }
  to.Return();
}

void csvencode(Call& call) {
  char delimiter;
  if (!ReadDelimiter(call, &delimiter)) return;
  Builder to(call);
  bool first = true;
  EachElement(call.variable(0), [&](ZPVARIABLE element, int, std::string_view) {
    if (!first) to.Add(delimiter);
    first = false;
    AddField(TextOf(element), delimiter, &to);
    return !call.failed();
  });
  to.Return();
}

void csvdecode(Call& call) {
  char delimiter;
  if (!ReadDelimiter(call, &delimiter)) return;
  std::string_view text = call.text(0);
  ArrayBuilder records(call, call.result());
  std::string field;
  int fields = 0;  // of all records: an array has room for so many
  while (!text.empty() && !call.failed()) {
    ZPVARIABLE const record = records.Next();
    if (record == nullptr) return;
    ArrayBuilder to(call, record);
    char end = delimiter;
    while (end == delimiter && !call.failed()) {
      end = TakeField(&text, delimiter, &field);
      to.Add(field);
      if (++fields > kMostElements) {
        call.Fail("the result has more than 1,000,000 elements");
        return;
      }
    }
  }
}

}  // namespace functions

void AddHex(std::string_view bytes, Builder* to) {
  if (bytes.size() > kMostBytes / 2) {
    to->Room(bytes.size() * 2);
    return;
  }
  char* room = to->Room(bytes.size() * 2);
  if (room == nullptr) return;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    *room++ = kDigits[byte >> 4];
    *room++ = kDigits[byte & 15];
  }
}

}  // namespace zephstd
