// Finds the elements of a body. Tested in tests/base/network/CallScannerTest.cpp.
//
// Bytes are looked at in the buffer's runs, and appended a run at a time. Nothing is ever given
// back to the buffer: a byte that ends something is only looked at, and taken by what it begins.

#include "base/network/CallScanner.h"

#include <array>
#include <cstring>

#include "base/core/ascii.h"

namespace {

// Classes of bytes, as bits.
enum : unsigned char { White = 1, Greater = 2, Equals = 4, Quote = 8, Double = 16, NotWhite = 32 };

constexpr std::array<unsigned char, 256> MakeClasses() {
  std::array<unsigned char, 256> classes{};
  for (size_t i = 0; i < classes.size(); i++) {
    classes[i] = zp_iswhite(static_cast<unsigned char>(i)) ? White : NotWhite;
  }
  classes['>'] |= Greater;
  classes['='] |= Equals;
  classes['\''] |= Quote;
  classes['"'] |= Double;
  return classes;
}
constexpr std::array<unsigned char, 256> kClasses = MakeClasses();

bool IsIn(unsigned stops, int byte) {
  return (kClasses[static_cast<unsigned char>(byte)] & stops) != 0;
}

bool BeginsWith(const String& text, const char* prefix, int length) {
  return text.length >= length && memcmp(text.data, prefix, static_cast<size_t>(length)) == 0;
}

bool EndsWith(const String& text, const char (&tail)[3]) {
  return text.length >= 2 && memcmp(text.data + text.length - 2, tail, 2) == 0;
}

const char kEndInTag[] = "Unexpected EOF in tag";

}  // namespace

// --- Bytes ---------------------------------------------------------------------------------------

// The next byte, from 0 to 255, kEnd or kFailed.
int CallScanner::Peek() {
  const char *begin, *end;
  if (!buffer->Run(&begin, &end)) {
    error_text = buffer->error();
    return kFailed;
  }
  return begin == end ? kEnd : static_cast<unsigned char>(*begin);
}

CallScanner::Result CallScanner::Fail(const char* text) {
  error_text.assign(text, -1);
  return Failed;
}

bool CallScanner::Append(String* value, const char* bytes, int count) {
  if (count > kLongest - value->length) {
    Fail("Element too long");
    return false;
  }
  value->cat(bytes, count);
  return true;
}

// REQUIRES: Peek() has returned a byte.
bool CallScanner::TakeByte(String* value) {
  const char *begin, *end;
  if (!buffer->Run(&begin, &end) || !Append(value, begin, 1)) return false;
  buffer->Take(1);
  return true;
}

// Takes bytes up to one of the classes or the end of the data, also to `copy` if that is not null.
bool CallScanner::TakeUntil(unsigned stops, String* value, String* copy) {
  for (;;) {
    const char *begin, *end;
    if (!buffer->Run(&begin, &end)) {
      error_text = buffer->error();
      return false;
    }
    const char* p = begin;
    while (p != end && !IsIn(stops, *p)) p++;
    const bool stopped = p != end || begin == end;
    if (p != begin) {
      const int count = static_cast<int>(p - begin);
      if (!Append(value, begin, count)) return false;
      if (copy) copy->cat(begin, count);
      buffer->Take(count);
    }
    if (stopped) return true;
  }
}

bool CallScanner::EatWhitespace(String* value) {
  return TakeUntil(NotWhite, value, nullptr);
}

// --- Elements ------------------------------------------------------------------------------------

CallScanner::Result CallScanner::ReadText(String* value) {
  for (;;) {
    const char *begin, *end;
    if (!buffer->Run(&begin, &end)) {
      error_text = buffer->error();
      return Failed;
    }
    if (begin == end) return value->length > 0 ? Found : End;
    const auto* tag =
        static_cast<const char*>(memchr(begin, '<', static_cast<size_t>(end - begin)));
    const int count = static_cast<int>((tag ? tag : end) - begin);
    if (count > 0) {
      if (!Append(value, begin, count)) return Failed;
      buffer->Take(count);
    }
    if (tag) return Found;
  }
}

CallScanner::Result CallScanner::ReadName(String* value, String* name) {
  if (!TakeByte(value) || !EatWhitespace(value)) return Failed;
  if (!TakeUntil(White | Greater, value, name)) return Failed;
  const int next = Peek();
  if (next == kFailed) return Failed;
  return next == kEnd ? Fail(kEndInTag) : Found;
}

CallCommentType CallScanner::CommentType(const String& name) {
  if (BeginsWith(name, "!--", 3)) return CallComment_HTML;
  if (BeginsWith(name, "![CDATA[", 8)) return CallComment_CDATA;
  if (BeginsWith(name, "!D0CTYPE", 8)) return CallComment_DOCTYPE;
  return CallComment_Other;
}

// A '>' that ends the name ends the tag as well, but a comment or a section only if the name has
// their closing bytes.
CallScanner::Result CallScanner::ReadComment(String* value, const String& name) {
  const CallCommentType type = CommentType(name);
  const int next = Peek();
  if (next == kFailed) return Failed;
  if (next == '>') {
    const bool closed = type == CallComment_HTML    ? EndsWith(name, "--")
                        : type == CallComment_CDATA ? EndsWith(name, "]]")
                                                    : true;
    if (closed) return TakeByte(value) ? Found : Failed;
  }
  return EatHTMLCommentEntity(value, type);
}

CallScanner::Result CallScanner::EatHTMLCommentEntity(String* value, CallCommentType type) {
  if (type == CallComment_HTML) return EatMarked(value, '-');
  if (type == CallComment_CDATA) return EatMarked(value, ']');
  return EatNested(value);
}

// Up to a '>' with two marks in front. Of the other bytes '-', ']' and '>' do not part the marks,
// so "-]->" ends a comment.
CallScanner::Result CallScanner::EatMarked(String* value, char mark) {
  int marks = 0;
  for (;;) {
    const char *begin, *end;
    if (!buffer->Run(&begin, &end)) {
      error_text = buffer->error();
      return Failed;
    }
    if (begin == end) return Fail("Unexpected EOF in HTML comment or CDATA section");
    const char* p = begin;
    bool closed = false;
    while (p != end && !closed) {
      const char c = *p++;
      if (c == mark) {
        marks++;
      } else if (c == '>') {
        closed = marks >= 2;
      } else if (c != '-' && c != ']') {
        marks = 0;
      }
    }
    const int count = static_cast<int>(p - begin);
    if (!Append(value, begin, count)) return Failed;
    buffer->Take(count);
    if (closed) return Found;
  }
}

// Up to the '>' that belongs to the tag's own '<'.
CallScanner::Result CallScanner::EatNested(String* value) {
  int depth = 1;
  for (;;) {
    const char *begin, *end;
    if (!buffer->Run(&begin, &end)) {
      error_text = buffer->error();
      return Failed;
    }
    if (begin == end) return Fail("Unexpected EOF in DOCTYPE or other XML tag");
    const char* p = begin;
    while (p != end && depth > 0) {
      const char c = *p++;
      depth += (c == '<') - (c == '>');
    }
    const int count = static_cast<int>(p - begin);
    if (!Append(value, begin, count)) return Failed;
    buffer->Take(count);
    if (depth == 0) return Found;
  }
}

// --- Attributes ----------------------------------------------------------------------------------

// Looks at the byte after a '/', which must be a '>'. It is not taken.
CallScanner::Result CallScanner::EndOfTag(String* value) {
  if (!TakeByte(value)) return Failed;
  const int next = Peek();
  if (next == kFailed) return Failed;
  if (next == kEnd) return Fail(kEndInTag);
  if (next == '>') return Found;
  error_text.assign("Found &quot;", -1);
  error_text.cat(static_cast<char>(next));
  error_text.cat("&quot; in tag following /", -1);
  return Failed;
}

CallScanner::Result CallScanner::GetNextNameValuePair(String* value, String* name,
                                                      String* attribute) {
  name->Empty();
  attribute->Empty();
  if (!EatWhitespace(value)) return Failed;
  int next = Peek();
  if (next == kFailed) return Failed;
  if (next == kEnd) return Fail(kEndInTag);
  if (next == '/' && EndOfTag(value) == Failed) return Failed;
  if (next == '/' || next == '>') return TakeByte(value) ? Found : Failed;

  if (!TakeUntil(White | Greater | Equals, value, name) || !EatWhitespace(value)) return Failed;
  next = Peek();
  if (next == kFailed) return Failed;
  if (next == '=') {
    if (!TakeByte(value) || !EatWhitespace(value)) return Failed;
    return ReadAttribute(value, attribute);
  }
  *attribute = *name;
  if (next == '/' && EndOfTag(value) == Failed) return Failed;
  return Pair;
}

// A quote may open in the middle of a value. Where it closes, the value ends.
CallScanner::Result CallScanner::ReadAttribute(String* value, String* attribute) {
  if (!TakeUntil(White | Greater | Quote | Double, value, attribute)) return Failed;
  const int next = Peek();
  if (next == kFailed) return Failed;
  if (next == kEnd) return Fail(kEndInTag);
  if (next == '>') return Pair;
  if (IsIn(White, next)) return TakeByte(value) ? Pair : Failed;

  const bool quoted = attribute->length == 0;
  attribute->cat(static_cast<char>(next));
  if (!TakeByte(value)) return Failed;
  if (!TakeUntil(next == '"' ? Double : Quote, value, attribute)) return Failed;
  const int closing = Peek();
  if (closing == kFailed) return Failed;
  if (closing == kEnd) return Fail(kEndInTag);
  attribute->cat(static_cast<char>(closing));
  if (!TakeByte(value)) return Failed;
  if (quoted) attribute->assign(attribute->data + 1, attribute->length - 2);
  return Pair;
}
