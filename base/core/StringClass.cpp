// String, the byte string of the engine. Tested in tests/base/core/StringClassTest.cpp.

#include "base/core/StringClass.h"

#include <cassert>
#include <climits>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <new>

#include "base/core/BufferRoom.h"
#include "base/core/MeasuredLength.h"
#include "base/core/SameBytes.h"
#include "base/core/ascii.h"
#include "base/core/base64.h"

namespace {

// The size of a buffer for that many bytes, terminator included. Lengths are signed 32-bit
// everywhere, so a text beyond that cannot exist: it fails as an allocation.
int BufferSize(int64_t bytes) {
  int64_t size = (bytes + 23) / 24 * 24;
  if (size > INT_MAX) throw std::bad_alloc();
  return static_cast<int>(size);
}

// memmem that returns a position at or after start, or -1.
int Position(const String& text, const char* pattern, int pattern_length, int start) {
  if (start < 0) start = 0;
  if (pattern_length == 0 || pattern_length > text.length || start >= text.length) return -1;
  auto found = static_cast<const char*>(
      memmem(text.data + start, text.length - start, pattern, pattern_length));
  return found ? static_cast<int>(found - text.data) : -1;
}

// The text from a position to the first NUL, which after chop may be past the length.
String ToNUL(const String& text, int position) {
  const char* start = text.data + position;
  return String(start, static_cast<int>(strnlen(start, text.allocated - position)));
}

// The content ends at its first NUL for the operations on white space.
int LengthToNUL(const String& text) {
  return static_cast<int>(strnlen(text.data, text.length));
}

// Sets the length and writes the terminator. There is room for it, because a length is always less
// than the size of the buffer.
void Terminate(String& text, int length) {
  assert(text.data);
  text.length = length;
  text.data[length] = 0;
}

}  // namespace

void String::assign(const char* text, int text_length) {
  int n = MeasuredLength(text, text_length);
  if (n >= allocated) {
    int size = BufferSize(static_cast<int64_t>(n) + 1);
    // The heap gives the smallest buffers more than they were made with. An adopted one, which was
    // made for a few bytes, may be large enough.
    if (data && n < 24 && BufferRoom(data) >= static_cast<size_t>(size)) {
      CopyBytes(data, text, static_cast<size_t>(n));
    } else {
      char* buffer = new char[size];
      if (n > 0) memcpy(buffer, text, n);
      // The old buffer is deleted last, because the text may be part of it.
      delete[] data;
      data = buffer;
    }
    allocated = size;
  } else if (n > 0) {
    assert(data);
    CopyBytes(data, text, static_cast<size_t>(n));
  }
  Terminate(*this, n);
}

void String::assign(char c) {
  char text[1] = {c};
  assign(text, 1);
}

void String::assign_nocopy(char* buffer, int text_length, int buffer_size) {
  if (!buffer) {
    destroy();
    return;
  }
  int size = buffer_size > 0 ? buffer_size : 0;
  int n = text_length == -1 ? static_cast<int>(strnlen(buffer, size))
                            : MeasuredLength(buffer, text_length);
  if (data != buffer) delete[] data;
  if (size <= n) {
    data = nullptr;
    allocated = length = 0;
    const std::unique_ptr<char[]> owned(buffer);
    size = BufferSize(static_cast<int64_t>(n) + 1);
    buffer = new char[size];
    memcpy(buffer, owned.get(), n);
  }
  data = buffer;
  allocated = size;
  Terminate(*this, n);
}

void String::cat(const char* text, int text_length) {
  if (!data) {
    assign(text, text_length);
    return;
  }
  int n = MeasuredLength(text, text_length);
  int64_t total = static_cast<int64_t>(length) + n;
  if (total >= allocated) {
    const std::less<const char*> before;
    const bool is_own = !before(text, data) && before(text, data + allocated);
    const ptrdiff_t place = is_own ? text - data : 0;
    Grow(BufferSize(total + 1));
    if (is_own) text = data + place;
  }
  if (n > 0) memmove(data + length, text, n);
  Terminate(*this, static_cast<int>(total));
}

void String::GrowForByte() {
  Grow(BufferSize(static_cast<int64_t>(allocated) + 1));
}

// A short text gets exactly `told` bytes, because most texts do not grow further. A long one gets
// twice as much, so that appending byte by byte stays linear.
void String::Grow(int told) {
  constexpr int LongText = 2048;
  const auto size = static_cast<size_t>(told);
  if (told >= LongText && data) {
    if (BufferRoom(data) < size) {
      const auto used = static_cast<size_t>(allocated);
      try {
        data = GrowBuffer(data, used, size * 2);
      } catch (const std::bad_alloc&) {
        // Room to spare is a wish.
        data = GrowBuffer(data, used, size);
      }
    }
  } else {
    char* buffer = new char[size];
    if (data) memcpy(buffer, data, allocated);
    delete[] data;
    data = buffer;
  }
  allocated = told;
}

void String::prepend(char c) {
  char text[2] = {c, 0};
  prepend(text, -1);
}

void String::prepend(const char* text, int text_length) {
  int n = MeasuredLength(text, text_length);
  int64_t total = static_cast<int64_t>(length) + n;
  int size = total >= allocated ? BufferSize(total + 1) : allocated;
  char* buffer = new char[size];
  if (n > 0) memcpy(buffer, text, n);
  if (length > 0) memcpy(buffer + n, data, length);
  delete[] data;
  data = buffer;
  allocated = size;
  Terminate(*this, static_cast<int>(total));
}

String String::before(int position) const {
  if (position < 0) return String();
  return String(data, position < length ? position : length);
}

String String::before(const char* pattern) const {
  int found = search(pattern, 0);
  return String(data, found >= 0 ? found : length);
}

String String::after(int position) const {
  if (length <= position) return String("", 0);
  return ToNUL(*this, position < 0 ? 0 : position + 1);
}

String String::after(const char* pattern, int start) const {
  int n = MeasuredLength(pattern, -1);
  int found = Position(*this, pattern, n, start);
  if (found < 0 || found + n >= length) return String("", 0);
  return ToNUL(*this, found + n);
}

String String::from(int position) const {
  if (position < 0) position = 0;
  if (length <= position) return String("", 0);
  return ToNUL(*this, position);
}

String String::from(const char* pattern, int start) const {
  int found = search(pattern, start);
  if (found < 0) return String("", 0);
  return ToNUL(*this, found);
}

String String::at(int start, int end) const {
  if (start < 0) start = 0;
  if (end > length) end = length;
  return start < end ? String(data + start, end - start) : String("", 0);
}

int String::search(const char* pattern, int start) const {
  return Position(*this, pattern, MeasuredLength(pattern, -1), start);
}

int String::contains(char c, int start) const {
  if (start < 0) start = 0;
  return start < length && memchr(data + start, c, length - start) != nullptr;
}

int String::freq(const char* pattern) const {
  int n = MeasuredLength(pattern, -1);
  int count = 0;
  for (int i = Position(*this, pattern, n, 0); i >= 0; i = Position(*this, pattern, n, i + 1)) {
    ++count;
  }
  return count;
}

int String::matches(char c, int position) const {
  if (!data || position < 0 || length < position) return 0;
  return data[position] == c;
}

int String::matches(const char* text, int position) const {
  int n = MeasuredLength(text, -1);
  if (position < 0) position = 0;
  if (n > static_cast<int64_t>(length) - position) return 0;
  for (int i = position, j = 0; i < length; ++i, ++j) {
    // The text's terminator takes part in the comparison and equals a NUL in the string. The bytes
    // after it are not text.
    if (j > n) return 0;
    unsigned char other = j < n ? text[j] : 0;
    if (zp_toupper(data[i]) != zp_toupper(other)) return 0;
  }
  return 1;
}

void String::gsub(const char* pattern, const char* replacement) {
  int n = MeasuredLength(pattern, -1);
  int found = Position(*this, pattern, n, 0);
  if (found < 0) return;
  int added = MeasuredLength(replacement, -1);
  int64_t total = length;
  int position = 0;
  // The result is measured first, because growing by steps of 24 would copy a long text over and
  // over.
  for (int i = found; i >= 0; i = Position(*this, pattern, n, i + n)) {
    total += added - n;
    position = i + n;
  }
  String rest = from(position);
  total += rest.length - (length - position);
  int size = BufferSize(total + 1);
  std::unique_ptr<char[]> result(new char[size]);
  char* out = result.get();
  position = 0;
  for (int i = found; i >= 0; i = Position(*this, pattern, n, i + n)) {
    memcpy(out, data + position, i - position);
    out += i - position;
    if (added > 0) memcpy(out, replacement, added);
    out += added;
    position = i + n;
  }
  memcpy(out, rest.data, rest.length + 1);
  assign(result.get(), -1);
}

void String::StripWhitespace() {
  if (!data) return;
  int n = LengthToNUL(*this);
  while (n > 0 && zp_iswhite(data[n - 1])) --n;
  Terminate(*this, n);
  ltrim();
}

void String::ltrim() {
  if (!data) return;
  int n = LengthToNUL(*this);
  int start = 0;
  while (start < n && zp_iswhite(data[start])) ++start;
  if (start > 0) memmove(data, data + start, n - start);
  Terminate(*this, n - start);
}

void String::CompressWhitespace() {
  if (!data) return;
  int n = LengthToNUL(*this);
  int kept = 0;
  for (int i = 0; i < n; ++i) {
    if (i > 0 && zp_iswhite(data[i]) && zp_iswhite(data[i - 1])) continue;
    data[kept++] = data[i];
  }
  Terminate(*this, kept);
}

void String::upcase() {
  for (int i = 0; i < length; ++i) data[i] = static_cast<char>(zp_toupper(data[i]));
}

void String::lowcase() {
  for (int i = 0; i < length; ++i) data[i] = static_cast<char>(zp_tolower(data[i]));
}

String String::upper() const {
  String result(*this);
  result.upcase();
  return result;
}

String String::lower() const {
  String result(*this);
  result.lowcase();
  return result;
}

String String::padl(int width, char c) const {
  String result(*this);
  if (width <= length || c == 0) return result;
  int size = BufferSize(static_cast<int64_t>(width) + 1);
  std::unique_ptr<char[]> padded(new char[size]);
  memset(padded.get(), c, width - length);
  if (length > 0) memcpy(padded.get() + width - length, data, length);
  result.assign_nocopy(padded.release(), width, size);
  return result;
}

String String::padr(int width, char c) const {
  String result(*this);
  if (width <= length) return result;
  // One byte more than the text needs, as repeated cat(char) would reserve.
  int size = BufferSize(static_cast<int64_t>(width) + 2);
  std::unique_ptr<char[]> padded(new char[size]);
  if (length > 0) memcpy(padded.get(), data, length);
  memset(padded.get() + length, c, width - length);
  result.assign_nocopy(padded.release(), width, size);
  return result;
}

String String::Base64_Encode() const {
  if (length == 0) return String("", 0);
  int64_t size = 4 * (static_cast<int64_t>(length) / 3) + 5;
  if (size > INT_MAX) throw std::bad_alloc();
  std::unique_ptr<char[]> buffer(new char[size]);
  int n = zp_base64_encode(reinterpret_cast<const uchar*>(data),
                           reinterpret_cast<uchar*>(buffer.get()), length);
  return String(buffer.release(), n, static_cast<int>(size));
}

String String::Base64_Decode() const {
  if (length == 0) return String("", 0);
  if (length == INT_MAX) throw std::bad_alloc();
  std::unique_ptr<char[]> buffer(new char[length + 1]);
  int n = zp_base64_decode(reinterpret_cast<const uchar*>(data),
                           reinterpret_cast<uchar*>(buffer.get()), length);
  return String(buffer.release(), n, length + 1);
}

int split(const String& text, String* parts, int max, const char* separator) {
  if (max < 1) return 0;
  int n = MeasuredLength(separator, -1);
  if (n == 0) {
    if (text.data) parts[0] = text;
    return 1;
  }
  int count = 0;
  int position = 0;
  for (int found; (found = Position(text, separator, n, position)) >= 0; position = found + n) {
    parts[count++].assign(text.data + position, found - position);
    if (count == max) return count;
  }
  int rest = text.length - position;
  parts[count].assign(rest > 0 ? text.data + position : nullptr, rest);
  return rest > 0 ? count + 1 : count;
}

char* zeph_strdup(const char* text) {
  if (!text) return nullptr;
  size_t size = strlen(text) + 1;
  char* copy = new char[size];
  memcpy(copy, text, size);
  return copy;
}
