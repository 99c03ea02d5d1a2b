// Numbers to text and back, and the encoders of ZephApplication. Their exact rules are the number
// and text semantics of the script language; variables and instructions have no other conversions.
// Tested in tests/base/host/ConversionsTest.cpp.

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include <cerrno>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include "base/core/CLocale.h"
#include "base/core/CopyText.h"
#include "base/core/MeasuredLength.h"
#include "base/core/RunLimit.h"
#include "base/core/SpareText.h"
#include "base/core/ascii.h"
#include "base/core/dtoa.h"
#include "base/host/ZephApplication.h"

namespace {

// The most decimals of a double for which the caller gives no count.
constexpr int OpenPlaces = 20;
constexpr int DigitRoom = 512;

constexpr char UpperHex[] = "0123456789ABCDEF";

// Calls step(from, to) for each part of a text in turn. A step returns where the next part begins,
// at `to` or later. Returns where the work ended: the end of the text, or the point at which the
// time limit had passed.
template <class Step>
int ByParts(int length, Step step) {
  int done = 0;
  while (done < length) {
    if (done > 0 && RunLimit::Over()) break;
    done = step(done, length - done > RunLimit::Bytes ? done + RunLimit::Bytes : length);
  }
  return done;
}

// The buffer of a result. Lengths have 32 bits, so a longer result cannot be returned and fails as
// an allocation.
char* NewText(int64_t size) {
  if (size > INT_MAX) throw std::bad_alloc();
  return SpareText::Take(static_cast<size_t>(size));
}

void Report(int64_t length, int64_t size, int* length_out, int* size_out) {
  if (length_out) *length_out = static_cast<int>(length);
  if (size_out) *size_out = static_cast<int>(size);
}

// The two passes of the encoders. An encoder is a function for one unit, the bytes that are
// converted together: it gets the place of the unit, and returns the place after it.

// Adds up the bytes of the result: measure(i, &needed) adds those of the unit at i. Returns the
// place where the count ended, by the end of the text or by the time limit.
template <class Measure>
int MeasureUnits(int textlength, int64_t* needed, Measure measure) {
  return ByParts(textlength, [needed, &measure](int i, int to) {
    int64_t sum = *needed;  // a local is kept in a register
    while (i < to) i = measure(i, &sum);
    *needed = sum;
    return i;
  });
}

// Converts the first `through` bytes of a text into a buffer of that size, which the caller gets:
// convert(i, &out) writes the unit at i and moves out past it. A text that the time limit has cut
// short is empty, because a part of it may mean something else.
template <class Convert>
char* ConvertUnits(int textlength, int through, int64_t allocated, int* length, int* size,
                   Convert convert) {
  char* const buffer = NewText(allocated);
  char* out = buffer;
  const int done = ByParts(through, [&out, &convert](int i, int to) {
    char* end = out;
    while (i < to) i = convert(i, &end);
    out = end;
    return i;
  });
  if (done != textlength) out = buffer;
  *out = 0;
  Report(out - buffer, allocated, length, size);
  return buffer;
}

// ConvertUnits for a result that is at most as long as the text.
template <class Convert>
char* ShrinkUnits(int textlength, int* length, int* size, Convert convert) {
  return ConvertUnits(textlength, textlength, int64_t{textlength} + 1, length, size, convert);
}

char* Constant(const char* text, int* length, int* size) {
  const int count = MeasuredLength(text, -1);
  char* buffer = NewTextCopy(text, count);
  Report(count, count + 1, length, size);
  return buffer;
}

// Significant digits of a finite double, without trailing zeros; point counts from the first one.
struct Digits {
  char text[DigitRoom];
  int count;
  int point;
  int sign;
};

// Writes the digits as text and returns its end, or its beginning if the time limit has cut it
// short. There is a point only if decimals are requested or present.
char* WriteDigits(char* out, const Digits& digits, int precision) {
  char* const begin = out;
  int64_t countdown = precision;
  int used = 0;
  if (digits.sign) *out++ = '-';
  if (digits.point > 0) {
    used = digits.count < digits.point ? digits.count : digits.point;
    memcpy(out, digits.text, static_cast<size_t>(used));
    memset(out + used, '0', static_cast<size_t>(digits.point - used));
    out += digits.point;
  } else {
    *out++ = '0';
  }
  if (precision > 0 || used < digits.count) {
    *out++ = '.';
    for (int zeros = digits.point; zeros < 0; zeros++, countdown--) *out++ = '0';
    const int rest = digits.count - used;
    memcpy(out, digits.text + used, static_cast<size_t>(rest));
    out += rest;
    countdown -= rest;
  }
  const int zeros = countdown > 0 ? static_cast<int>(countdown) : 0;
  const int written = ByParts(zeros, [&out](int from, int to) {
    memset(out, '0', static_cast<size_t>(to - from));
    out += to - from;
    return to;
  });
  return written == zeros ? out : begin;
}

// Whole numbers below 10^15 are most of what scripts print; they need no digit generation.
char* WholeToText(double value, int* length, int* size) {
  char reversed[20];
  int count = 0;
  uint64_t rest = static_cast<uint64_t>(std::fabs(value));
  do {
    reversed[count++] = static_cast<char>('0' + rest % 10);
    rest /= 10;
  } while (rest);
  const int allocated = OpenPlaces + count + 3;
  char* buffer = NewText(allocated);
  char* out = buffer;
  if (std::signbit(value)) *out++ = '-';
  while (count > 0) *out++ = reversed[--count];
  *out = 0;
  Report(out - buffer, allocated, length, size);
  return buffer;
}

char* NotFiniteToText(double value, int* length, int* size) {
  const bool negative = std::signbit(value);
  if (std::isnan(value)) return Constant(negative ? "-NaN" : "NaN", length, size);
  return Constant(negative ? "-Infinity" : "Infinity", length, size);
}

// Hexadecimal text after its "0x".
int HexToInteger(const char* text, int length, int* error) {
  unsigned result = 0;
  for (int i = 0; i < length; i++) {
    const int digit = zp_hexvalue(text[i]);
    if (digit < 0) {
      *error = 1;
      return 0;
    }
    result = result * 16 + static_cast<unsigned>(digit);
  }
  return static_cast<int>(result);
}

// strtod of the "C" locale. It reads signs, leading white space, hexadecimal forms, "inf" and
// "nan". REQUIRES: the text is terminated.
double TerminatedToDouble(const char* text, int length, int* error) {
  char* end = nullptr;
  errno = 0;
  const double value = strtod_l(text, &end, CLocale());
  if (end - text != length) {
    *error = 1;
    return 0.0;
  }
  if (std::isinf(value) && errno == ERANGE) *error = 1;
  return value;
}

double PlainToDouble(const char* text, int length, int size, int* error) {
  if (size > length && text[length] == 0) return TerminatedToDouble(text, length, error);
  char local[106];
  std::unique_ptr<char[]> heap;
  char* copy = local;
  if (length > 105) {
    heap.reset(new char[static_cast<size_t>(length) + 1]);
    copy = heap.get();
  }
  memcpy(copy, text, static_cast<size_t>(length));
  copy[length] = 0;
  return TerminatedToDouble(copy, length, error);
}

// Bytes that URL encoding leaves as they are.
struct AttributeTable {
  bool plain[256] = {};
  constexpr AttributeTable() {
    for (int c = 'A'; c <= 'Z'; c++) plain[c] = plain[c - 'A' + 'a'] = true;
    for (int c = '0'; c <= '9'; c++) plain[c] = true;
    for (unsigned char c : {'*', '-', '.', '@', '_'}) plain[c] = true;
  }
};
constexpr AttributeTable attribute_table;

// What a byte becomes: one of six becomes an entity, each other one stays. The parentheses are
// among the six, the apostrophe is not.
struct EntityTable {
  // Written as one word: the bytes after the text are written over by the next unit.
  struct Unit {
    char text[7];
    unsigned char length;
  };
  Unit units[256] = {};
  constexpr EntityTable() {
    for (int byte = 0; byte < 256; byte++) {
      units[byte].length = 1;
      units[byte].text[0] = static_cast<char>(byte);
    }
    Set('"', "&quot;");
    Set('&', "&amp;");
    Set('(', "&#40;");
    Set(')', "&#41;");
    Set('<', "&lt;");
    Set('>', "&gt;");
  }
  constexpr void Set(char byte, std::string_view entity) {
    Unit& unit = units[static_cast<unsigned char>(byte)];
    unit.length = static_cast<unsigned char>(entity.size());
    for (size_t k = 0; k < entity.size(); k++) unit.text[k] = entity[k];
  }
  const Unit& Of(char byte) const { return units[static_cast<unsigned char>(byte)]; }
};
static_assert(sizeof(EntityTable::Unit) == 8);
constexpr int kLongestEntity = 6;
constexpr EntityTable entity_table;

bool EqualName(const char* text, const char* lower, int length) {
  for (int i = 0; i < length; i++) {
    if (zp_tolower(static_cast<unsigned char>(text[i])) != static_cast<unsigned char>(lower[i])) {
      return false;
    }
  }
  return true;
}

// The byte of an entity, -1 if there is no such entity. name is the text between "&" and the stop.
int EntityByte(const char* name, int length) {
  switch (length) {
    case 2:
      if (EqualName(name, "lt", 2)) return '<';
      if (EqualName(name, "gt", 2)) return '>';
      return -1;
    case 3:
      if (EqualName(name, "amp", 3)) return '&';
      if (memcmp(name, "#40", 3) == 0) return '(';
      if (memcmp(name, "#41", 3) == 0) return ')';
      return -1;
    case 4: return EqualName(name, "quot", 4) ? '"' : -1;
    default: return -1;
  }
}

// Decodes the entity that may begin with the "&" at i, and returns the place after the text that it
// has read.
//
// One scan forward to the stop: a second "&" on the way is ignored. The end of the text counts as a
// semicolon; if white space comes first, the text is not an entity.
int DecodeEntity(const char* text, int length, int i, char** out) {
  int stop = i + 1;
  while (stop < length && text[stop] != ';' && !zp_isspace(text[stop])) {
    stop++;
  }
  const bool candidate = stop == length || text[stop] == ';';
  const int byte = candidate ? EntityByte(text + i + 1, stop - i - 1) : -1;
  const int after = stop < length ? stop + 1 : length;
  if (byte >= 0) {
    *(*out)++ = static_cast<char>(byte);
  } else {
    memcpy(*out, text + i, static_cast<size_t>(after - i));
    *out += after - i;
  }
  return after;
}

// Bytes of a script literal: kind 1 is unchanged, 2 becomes a backslash and the letter, 0 depends
// on the character set.
struct ScriptTable {
  uint8_t kind[256] = {};
  char letter[256] = {};
  constexpr ScriptTable() {
    for (int c = 'A'; c <= 'Z'; c++) kind[c] = kind[c - 'A' + 'a'] = 1;
    for (int c = '0'; c <= '9'; c++) kind[c] = 1;
    for (unsigned char c : {' ', '$', '+', ',', '-', '.', ':', '@', '_'}) kind[c] = 1;
    Escape(7, 'b');  // the bell has the short form, the backspace does not
    Escape('\t', 't');
    Escape('\n', 'n');
    Escape('\f', 'f');
    Escape('\r', 'r');
    Escape('"', '"');
    Escape('/', '/');
    Escape('\\', '\\');
  }
  constexpr void Escape(unsigned char byte, char with) {
    kind[byte] = 2;
    letter[byte] = with;
  }
};
constexpr ScriptTable script_table;

char* WriteCode(char* out, unsigned high, unsigned low) {
  *out++ = '\\';
  *out++ = 'u';
  *out++ = UpperHex[high >> 4 & 15];
  *out++ = UpperHex[high & 15];
  *out++ = UpperHex[low >> 4 & 15];
  *out++ = UpperHex[low & 15];
  return out;
}

// Encodes the character at the start of the text and returns how many bytes it had. Writes at most
// six bytes to *out and moves it past them.
int EncodeScriptByte(const unsigned char* text, int length, bool utf8, char** out) {
  const unsigned c = text[0];
  switch (script_table.kind[c]) {
    case 1: *(*out)++ = static_cast<char>(c); return 1;
    case 2:
      *(*out)++ = '\\';
      *(*out)++ = script_table.letter[c];
      return 1;
    default: break;
  }
  if (!utf8 && c >= 160) {
    *(*out)++ = static_cast<char>(c);
    return 1;
  }
  if (utf8 && c >= 194 && c <= 223 && length > 1) {
    *out = WriteCode(*out, c >> 2 & 7, (text[1] & 63u) | (c & 3) << 6);
    return 2;
  }
  if (utf8 && c >> 4 == 0xE && length > 2) {
    *out = WriteCode(*out, (text[1] >> 2 & 15u) | (c & 15) << 4,
                     (text[1] & 3u) << 6 | (text[2] & 63u));
    return 3;
  }
  *out = WriteCode(*out, 0, c);
  return 1;
}

}  // namespace

char* ZephApplication::itos(int value, int* length, int* size) {
  char text[12];
  const auto end = std::to_chars(text, text + sizeof text, value);
  const int count = static_cast<int>(end.ptr - text);
  char* buffer = NewTextCopy(text, count);
  Report(count, count + 1, length, size);
  return buffer;
}

char* ZephApplication::dtos(double value, int* length, int* size, int precision) {
  if (!std::isfinite(value)) return NotFiniteToText(value, length, size);
  if (precision == -1 && std::fabs(value) < 1e15 && value == std::trunc(value)) {
    return WholeToText(value, length, size);
  }
  const int places = precision == -1 ? OpenPlaces : precision;
  Digits digits;
  digits.count = dtoa(digits.text, DigitRoom, 5, places, &digits.point, &digits.sign, value);
  const int larger = digits.point > digits.count ? digits.point : digits.count;
  int64_t allocated = int64_t{places} + larger + (digits.point == 0) + 3;
  // The sum is one too small for a negative number that rounds to nothing, and meaningless for a
  // precision below 0. In these cases the buffer needs this upper bound of what is written.
  const int64_t fraction = places > 0 ? places : 0;
  const int64_t whole = digits.point > 0 ? digits.point : 1;
  const int64_t needed = digits.sign + whole + 1 + fraction + 1;
  if (allocated < needed) allocated = needed;
  char* buffer = NewText(allocated);
  char* end = WriteDigits(buffer, digits, precision);
  *end = 0;
  Report(end - buffer, allocated, length, size);
  return buffer;
}

int ZephApplication::stoi(const char* text, int length, int* error) {
  int ignored;
  if (!error) error = &ignored;
  *error = 0;
  length = MeasuredLength(text, length);
  if (length >= 3 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X') &&
      zp_hexvalue(text[2]) >= 0) {
    return HexToInteger(text + 2, length - 2, error);
  }
  const bool negative = length > 0 && text[0] == '-';
  if (!negative && (length == 0 || !zp_isdigit(text[0]))) {
    *error = 1;
    return 0;
  }
  unsigned result = 0;
  for (int i = negative; i < length; i++) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (!zp_isdigit(c)) {
      *error = 1;
      return 0;
    }
    result = result * 10 + (c - '0');
  }
  return static_cast<int>(negative ? 0u - result : result);
}

// After white space and a sign, strtod reads what begins with a digit, a point and a digit, "inf"
// or "nan".
bool ZephApplication::MayBeNumber(const char* text, int length) {
  if (length < 1) return true;
  const auto first = static_cast<unsigned char>(text[0]);
  const int letter = first | 0x20;
  if (letter == 'i' || letter == 'n') {
    return length > 2 && (text[1] | 0x20) == (letter == 'i' ? 'n' : 'a');
  }
  if (first == '+' || first == '-' || first == '.') {
    const auto second = static_cast<unsigned char>(length > 1 ? text[1] : 0);
    if (zp_isdigit(second)) return true;
    return first != '.' && (second == '.' || (second | 0x20) == 'i' || (second | 0x20) == 'n');
  }
  return first <= '9' && (first >= '0' || first == ' ' || (first >= '\t' && first <= '\r'));
}

double ZephApplication::stod(const char* text, int length, int size, int* error) {
  int ignored;
  if (!error) error = &ignored;
  *error = 0;
  if (length == -1 && text) {
    length = MeasuredLength(text, -1);
    size = length < INT_MAX ? length + 1 : length;
  }
  length = MeasuredLength(text, length);
  if (length == 0) return 0.0;
  // Nearly all numbers are plain decimal text, for which from_chars is faster and rounds as strtod
  // does. Text that it does not read to the end, or finds out of range, goes to strtod.
  const unsigned char first = static_cast<unsigned char>(text[text[0] == '-' && length > 1]);
  if (zp_isdigit(first) || first == '.') {
    double value = 0.0;
    const auto result = std::from_chars(text, text + length, value);
    if (result.ec == std::errc() && result.ptr == text + length) return value;
  }
  if (!MayBeNumber(text, length)) {
    *error = 1;
    return 0.0;
  }
  return PlainToDouble(text, length, size, error);
}

char* ZephApplication::EncodeAttribute(const char* text, int textlength, int* length, int* size) {
  textlength = MeasuredLength(text, textlength);
  int64_t needed = 0;
  const int counted = MeasureUnits(textlength, &needed, [text](int i, int64_t* sum) {
    const auto c = static_cast<unsigned char>(text[i]);
    *sum += attribute_table.plain[c] || c == ' ' ? 1 : 3;
    return i + 1;
  });
  return ConvertUnits(textlength, counted, needed + 1, length, size, [text](int i, char** out) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (attribute_table.plain[c]) {
      *(*out)++ = static_cast<char>(c);
    } else if (c == ' ') {
      *(*out)++ = '+';
    } else {
      *(*out)++ = '%';
      *(*out)++ = UpperHex[c >> 4];
      *(*out)++ = UpperHex[c & 15];
    }
    return i + 1;
  });
}

char* ZephApplication::DecodeAttribute(const char* text, int textlength, int* length, int* size) {
  textlength = MeasuredLength(text, textlength);
  return ShrinkUnits(textlength, length, size, [text, textlength](int i, char** out) {
    const char c = text[i];
    if (c == '%' && textlength - i > 2) {
      const int high = zp_hexvalue(text[i + 1]);
      const int low = zp_hexvalue(text[i + 2]);
      if (high >= 0 && low >= 0) {
        *(*out)++ = static_cast<char>(high << 4 | low);
        return i + 3;
      }
    }
    *(*out)++ = c == '+' ? ' ' : c;
    return i + 1;
  });
}

// Whether any of 16 bytes becomes an entity.
static bool HasEntity(const char* text) {
#ifdef __SSE2__
  // The six bytes are 0x22 and 0x26, 0x28 and 0x29, 0x3C and 0x3E. The two of each pair differ in
  // one bit, so three comparisons are enough.
  const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text));
  const auto is = [&bytes](char with, char both) {
    return _mm_cmpeq_epi8(_mm_or_si128(bytes, _mm_set1_epi8(with)), _mm_set1_epi8(both));
  };
  const __m128i found = _mm_or_si128(_mm_or_si128(is(4, 0x26), is(1, 0x29)), is(2, 0x3E));
  return _mm_movemask_epi8(found) != 0;
#else
  bool found = false;
  for (int i = 0; i < 16; i++) found |= entity_table.Of(text[i]).length != 1;
  return found;
#endif
}

// Writes the units of count bytes without a branch for each, and returns their end. Up to 7 bytes
// after it are written too.
static char* WriteEntities(const char* text, int count, char* out) {
  const char* const end = text + count;
  const auto write = [&out, &text](const char* part) {
    for (; text != part; text++) {
      const EntityTable::Unit& unit = entity_table.Of(*text);
      memcpy(out, &unit, sizeof unit);
      out += unit.length;
    }
  };
  while (end - text >= 16) {
    if (HasEntity(text)) {
      write(text + 16);
    } else {
      memcpy(out, text, 16);
      text += 16;
      out += 16;
    }
  }
  write(end);
  return out;
}

// Out of line, so that short texts need fewer registers.
[[gnu::noinline]] static char* EncodeLongText(const char* text, int textlength, int* length,
                                              int* size) {
  int64_t needed = 0;
  const int counted = MeasureUnits(textlength, &needed, [text](int i, int64_t* sum) {
    *sum += entity_table.Of(text[i]).length;
    return i + 1;
  });
  // Most texts have nothing to encode.
  if (counted == textlength && needed == textlength) {
    char* const copy = NewTextCopy(text, textlength);
    Report(textlength, int64_t{textlength} + 1, length, size);
    return copy;
  }
  return ConvertUnits(textlength, counted, needed + 1, length, size, [text](int i, char** out) {
    const EntityTable::Unit& unit = entity_table.Of(text[i]);
    CopyText(*out, unit.text, unit.length);
    *out += unit.length;
    return i + 1;
  });
}

char* ZephApplication::EncodeEntities(const char* text, int textlength, int* length, int* size) {
  textlength = MeasuredLength(text, textlength);
  // The cells of a table are short. The longest result of those fits here, so they need no pass
  // that measures.
  constexpr int kShort = 128;
  if (textlength <= kShort) {
    char encoded[kShort * kLongestEntity + sizeof(EntityTable::Unit)];
    const auto count = static_cast<int>(WriteEntities(text, textlength, encoded) - encoded);
    char* const copy = SpareText::Take(static_cast<size_t>(count) + 1);
    CopyText(copy, encoded, static_cast<size_t>(count));
    copy[count] = 0;
    Report(count, count + 1, length, size);
    return copy;
  }
  return EncodeLongText(text, textlength, length, size);
}

char* ZephApplication::DecodeEntities(const char* text, int textlength, int* length, int* size) {
  textlength = MeasuredLength(text, textlength);
  return ShrinkUnits(textlength, length, size, [text, textlength](int i, char** out) {
    if (text[i] == '&') return DecodeEntity(text, textlength, i, out);
    *(*out)++ = text[i];
    return i + 1;
  });
}

char* ZephApplication::StripNULLs(const char* text, int textlength, int* length, int* size) {
  textlength = MeasuredLength(text, textlength);
  return ShrinkUnits(textlength, length, size, [text](int i, char** out) {
    if (text[i]) *(*out)++ = text[i];
    return i + 1;
  });
}

char* ZephApplication::EncodeJavaScriptString(const char* text, int textlength, int* length,
                                              int* size) {
  textlength = MeasuredLength(text, textlength);
  const bool utf8 = CharacterSetIsUTF8() != 0;
  const auto* bytes = reinterpret_cast<const unsigned char*>(text);
  int64_t needed = 0;
  const int counted = MeasureUnits(textlength, &needed, [=](int i, int64_t* sum) {
    char piece[8];
    char* out = piece;
    const int taken = EncodeScriptByte(bytes + i, textlength - i, utf8, &out);
    *sum += out - piece;
    return i + taken;
  });
  // Callers see the size of a text built in blocks: 512 bytes of slack as long as that is enough,
  // then none.
  int64_t allocated = needed + 1;
  if (needed > 0 && allocated < int64_t{textlength} + 512) allocated = int64_t{textlength} + 512;
  return ConvertUnits(textlength, counted, allocated, length, size, [=](int i, char** out) {
    return i + EncodeScriptByte(bytes + i, textlength - i, utf8, out);
  });
}
