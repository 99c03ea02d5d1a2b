// String, the byte string of the whole engine: an owned buffer and its length. A request makes
// hundreds of them, so an unused one allocates nothing and the class has 16 bytes.

#ifndef ZEPH_BASE_STRINGCLASS_H
#define ZEPH_BASE_STRINGCLASS_H

#include <utility>

// Bytes with a length. The buffer is made with new[]; a caller that takes it with release() frees
// it with delete[]. One thread at a time.
//
// The null string and an empty string differ: the null string has no buffer (data is null), an
// empty string has a buffer that holds a NUL. Code that reads data tests it for null first. A copy
// of a null string is an empty one; a move keeps it null. The source of a move is the null string
// afterwards.
//
// Invariants:
// 1. If data is null, allocated and length are 0.
// 2. Otherwise the buffer has a NUL at data[length] or later. It is exactly at data[length] after
//    assign, assign_nocopy, cat and prepend. chop and truncate lower only the length, so code that
//    reads data as terminated text still sees the old text.
// 3. Buffers that the class makes have a size that is a multiple of 24.
//
// In all arguments a length of -1 means strlen, other negative counts and positions count as 0, and
// a null text is an empty one. Positions count from 0. Text arguments may be part of the string's
// own buffer. A result that goes "to the first NUL" ends there, even if that is past the length.
class String {
 public:
  char* data = nullptr;
  int allocated = 0;  // bytes of the buffer
  int length = 0;     // bytes in use, without the terminator

  String() = default;
  String(const char* text, int text_length = -1) { assign(text, text_length); }
  // Adopts the buffer, see assign_nocopy.
  String(char* buffer, int text_length, int buffer_size) {
    assign_nocopy(buffer, text_length, buffer_size);
  }
  String(const String& other) { assign(other.data, other.length); }
  String(String&& other) noexcept
      : data(std::exchange(other.data, nullptr)),
        allocated(std::exchange(other.allocated, 0)),
        length(std::exchange(other.length, 0)) {}
  ~String() { delete[] data; }

  String& operator=(const String& other) {
    if (this != &other) assign(other.data, other.length);
    return *this;
  }
  String& operator=(String&& other) noexcept {
    if (this != &other) {
      delete[] data;
      data = std::exchange(other.data, nullptr);
      allocated = std::exchange(other.allocated, 0);
      length = std::exchange(other.length, 0);
    }
    return *this;
  }

  // Replaces the content. Afterwards there is a buffer, also for an empty or null text. A buffer
  // that is large enough is used again; it never shrinks.
  void assign(const char* text, int text_length = -1);
  void assign(char c);
  // Adopts a buffer made with new[]. If buffer_size leaves no room for the terminator the text is
  // copied and the buffer freed. A null buffer makes this the null string.
  void assign_nocopy(char* buffer, int text_length, int buffer_size);

  // Appending one byte grows the buffer one byte earlier than appending a text does, and raises
  // allocated by one step of 24. In a long text the memory doubles although allocated does not show
  // it, so that a text of any length is built in linear time.
  void cat(char c) {
    if (length + 2 >= allocated) GrowForByte();
    data[length++] = c;
    data[length] = 0;
  }
  void cat(const char* text, int text_length = -1);
  // Prepending a NUL byte prepends nothing.
  void prepend(char c);
  void prepend(const char* text, int text_length = -1);

  // Hands the buffer to the caller, who frees it with delete[]; null for the null string. After
  // release and destroy this is the null string.
  [[nodiscard]] char* release() {
    allocated = 0;
    length = 0;
    return std::exchange(data, nullptr);
  }
  void destroy() { delete[] release(); }
  // assign("", 0)
  void Empty() {
    if (allocated > 0) {
      length = 0;
      data[0] = '\0';
    } else {
      assign("", 0);
    }
  }

  // Removes n bytes from the end; does nothing if there are fewer.
  void chop(int n) {
    if (n > 0 && n <= length) length -= n;
  }
  // Keeps at most the first n bytes.
  void truncate(unsigned n) {
    if (static_cast<unsigned>(length) > n) length = static_cast<int>(n);
  }

  // The first position bytes; the null string for a negative position.
  String before(int position) const;
  // The text before the first occurrence; all of it if there is none.
  String before(const char* pattern) const;
  // From position + 1, or from the end of the first occurrence at or after start, to the first NUL.
  // Empty if there is no such text.
  String after(int position) const;
  String after(const char* pattern, int start = 0) const;
  // From the position, or from the first occurrence at or after start, to the first NUL.
  String from(int position) const;
  String from(const char* pattern, int start = 0) const;
  // The bytes from start up to but not including end, which is a position, not a count.
  String at(int start, int end) const;

  // The position of the first occurrence at or after start, or -1. Bytes are compared exactly, and
  // the text may hold NULs. An empty pattern is never found.
  int search(const char* pattern, int start = 0) const;
  int index(const char* pattern) const { return search(pattern, 0); }
  int contains(char c, int start = 0) const;
  int contains(const char* pattern, int start = 0) const { return search(pattern, start) >= 0; }
  // The count of occurrences, overlapping ones included.
  int freq(const char* pattern) const;
  // Whether the byte at the position is c. The position may equal length: the byte there is the
  // terminator, or a byte that chop cut off.
  int matches(char c, int position = 0) const;
  // Whether the whole rest from the position on equals the text, ignoring case; this is not a
  // prefix test. At position length an empty text matches.
  int matches(const char* text, int position = 0) const;

  // Replaces all occurrences that do not overlap; a null replacement removes them. A string without
  // an occurrence is not changed; any other ends at its first NUL afterwards.
  void gsub(const char* pattern, const char* replacement);

  // White space is tab, line feed, carriage return and blank. These cut the text at its first NUL
  // and leave the null string alone. CompressWhitespace keeps the first byte of every run.
  void StripWhitespace();
  void ltrim();
  void CompressWhitespace();

  // ASCII letters only.
  void upcase();
  void lowcase();
  String upper() const;
  String lower() const;

  // A copy filled up with c to at least that many bytes: padl in front, padr at the end. padl with
  // a NUL adds nothing, as prepend does.
  String padl(int width, char c) const;
  String padr(int width, char c) const;

  // Through base/core/base64.h; a source of length 0 gives an empty string.
  String Base64_Encode() const;
  String Base64_Decode() const;

 private:
  void GrowForByte();
  // Raises allocated to told and makes sure that there is memory for it. Keeps the buffer's bytes.
  void Grow(int told);
};

static_assert(sizeof(String) <= 24);

// Cuts the text at each separator, stores at most max pieces in parts and returns how many. The
// text after the last of max pieces is dropped. Empty pieces count, except an empty last one, which
// is assigned but not counted. With an empty separator the text is one piece; a null text then
// returns 1 but assigns nothing.
int split(const String& text, String* parts, int max, const char* separator);

// A copy with its NUL, made with new[] and owned by the caller; null for null.
[[nodiscard]] char* zeph_strdup(const char* text);

#endif
