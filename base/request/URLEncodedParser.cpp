// Reads URL-encoded fields, 16 bytes at a time between special characters. Tested in
// tests/base/request/URLEncodedParserTest.cpp, measured in bench/FormBench.cpp.

#include "base/request/URLEncodedParser.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include <array>
#include <cstring>

#include "base/compiled/VariableHash.h"
#include "base/core/RunLimit.h"
#include "base/core/ascii.h"

namespace {

// The value of each byte as a hexadecimal digit after "%". Only 0-9, A-F and a-f are valid there,
// but the same two rules give the others a value too.
constexpr std::array<unsigned char, 256> DigitValues() {
  std::array<unsigned char, 256> values{};
  for (unsigned i = 0; i < 256; i++) {
    const unsigned c = zp_toupper(static_cast<unsigned char>(i));
    values[i] = static_cast<unsigned char>(c < 'A' ? c - '0' : (c & 0xDF) - 55);
  }
  return values;
}
constexpr std::array<unsigned char, 256> digit_values = DigitValues();

inline char Escaped(unsigned char high, unsigned char low) {
  return static_cast<char>(digit_values[high] * 16 | digit_values[low]);
}

// "=" ends a name and is an ordinary byte in a value.
inline bool Stops(char c, bool in_name) {
  return c == '%' || c == '&' || (in_name && c == '=');
}

#ifdef __SSE2__
const int kStep = 16;

// Copies the bytes before the first one that stops, at most 16, with blanks in place of "+". Leaves
// the memory after them unchanged. Returns their number.
inline int CopyStep(const char* from, char* to, bool in_name) {
  const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
  const __m128i plus = _mm_cmpeq_epi8(bytes, _mm_set1_epi8('+'));
  const __m128i shown = _mm_sub_epi8(bytes, _mm_and_si128(plus, _mm_set1_epi8('+' - ' ')));
  __m128i stops = _mm_or_si128(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('%')),
                               _mm_cmpeq_epi8(bytes, _mm_set1_epi8('&')));
  if (in_name) stops = _mm_or_si128(stops, _mm_cmpeq_epi8(bytes, _mm_set1_epi8('=')));
  const int mask = _mm_movemask_epi8(stops);
  if (mask == 0) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to), shown);
    return kStep;
  }
  alignas(kStep) char step[kStep];
  _mm_store_si128(reinterpret_cast<__m128i*>(step), shown);
  const int plain = __builtin_ctz(static_cast<unsigned>(mask));
  memcpy(to, step, static_cast<size_t>(plain));
  return plain;
}
#endif

}  // namespace

URLEncodedParser::URLEncodedParser(VariableHash* target, int limit)
    : HTTPContentParser(target), limit(limit) {}

bool URLEncodedParser::SetVariable() {
  // Names with the same hash are searched one after the other, so even few fields may take long.
  if (RunLimit::Over()) {
    Error("Timeout processing POST data");
    return false;
  }
  if (limit != 0 && variable_count >= limit) {
    variable_count++;
    Error("Maximum number of POST variables exceeded");
    return false;
  }
  variable_count++;
  target->SetVariable_Fancy(name.data(), name_length, value.data(), value_length, 1);
  name.Clear();
  value.Clear();
  return true;
}

const char* URLEncodedParser::TakePlain(const char* from, const char* end, GrowingBuffer* text) {
  const bool in_name = state == InName;
#ifdef __SSE2__
  while (end - from >= kStep) {
    const int plain = CopyStep(from, text->Room(kStep), in_name);
    text->Advance(plain);
    from += plain;
    if (plain < kStep) return from;
  }
#endif
  for (; from < end && !Stops(*from, in_name); from++) text->Append(*from == '+' ? ' ' : *from);
  return from;
}

// Takes one of the two bytes after "%"; the second completes the escape.
void URLEncodedParser::TakeDigit(char c) {
  digits[digit_count++] = static_cast<unsigned char>(c);
  if (digit_count < 2) return;
  digit_count = 0;
  (state == EscapeInName ? name : value).Append(Escaped(digits[0], digits[1]));
  state -= 2;
}

// Takes the byte at which TakePlain stopped. REQUIRES: it is not "%".
bool URLEncodedParser::EndOfPart(char c) {
  if (state == InName) name_length = name.used();
  if (c == '=') {
    state = InValue;
    return true;
  }
  value_length = value.used();
  state = InName;
  return SetVariable();
}

bool URLEncodedParser::Parse(const char* data, int length) {
  const char* end = data + length;
  while (data < end) {
    if (state >= EscapeInName) {
      TakeDigit(*data++);
      continue;
    }
    GrowingBuffer* text = state == InName ? &name : &value;
    data = TakePlain(data, end, text);
    // An escape that is complete in this block needs no state.
    while (end - data >= 3 && *data == '%') {
      text->Append(
          Escaped(static_cast<unsigned char>(data[1]), static_cast<unsigned char>(data[2])));
      data += 3;
    }
    if (data == end || !Stops(*data, state == InName)) continue;
    const char c = *data++;
    if (c == '%') {
      state += 2;
    } else if (!EndOfPart(c)) {
      return false;
    }
  }
  return true;
}

bool URLEncodedParser::Finalize() {
  value_length = value.used();
  if (state == InName) {
    if (name_length < 1) return true;
    name_length = name.used();
    value_length = 0;
  }
  return SetVariable();
}
