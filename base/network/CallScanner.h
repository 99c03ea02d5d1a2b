// CallScanner, which cuts a body into elements, runs of text and tags, without regard to how they
// nest. It takes HTML, XML and plain text, and whatever looks like one of them.
// Tested in tests/base/network/CallScannerTest.cpp.

#ifndef ZEPH_BASE_CALLSCANNER_H
#define ZEPH_BASE_CALLSCANNER_H

#include "base/core/StringClass.h"
#include "base/network/CallBuffer.h"

// What a tag is whose name begins with '!'.
enum CallCommentType : int {
  CallComment_HTML = 0,     // "!--"
  CallComment_CDATA = 1,    // "![CDATA["
  CallComment_DOCTYPE = 2,  // "!D0CTYPE", with a zero; read in the same way as the others
  CallComment_Other = 3,
};

// Reads from a CallBuffer, which it borrows. White space is tab, line feed, carriage return and
// blank. Every operation appends all bytes that it uses to `value`, so that in the end `value` is
// the element as it was received. An operation that fails leaves its text in error(); scanning ends
// there.
class CallScanner {
 public:
  enum Result : int { Found = 0, Pair = 1, End = 2, Failed = 3 };

  // In bytes. A longer element is a failure.
  static constexpr int kLongest = 1 << 30;

  explicit CallScanner(CallBuffer* buffer) : buffer(buffer) {}

  // Reads up to and without the next '<'. Found if there is one, or if there is some text; End if
  // there is neither.
  [[nodiscard]] Result ReadText(String* value);
  // Reads a '<', white space, and the tag's name, which ends before white space or '>'. REQUIRES:
  // ReadText has just found no text and a '<'.
  [[nodiscard]] Result ReadName(String* value, String* name);
  // Reads the rest of a tag whose name begins with '!'.
  [[nodiscard]] Result ReadComment(String* value, const String& name);
  // Reads an attribute of any other tag. Pair if there is one; its value is without quotes, or the
  // same as its name if it has none. Found at the end of the tag.
  [[nodiscard]] Result GetNextNameValuePair(String* value, String* name, String* attribute);

  static CallCommentType CommentType(const String& name);
  const String& error() const { return error_text; }

 private:
  static constexpr int kEnd = -1;
  static constexpr int kFailed = -2;

  int Peek();
  Result Fail(const char* text);
  bool Append(String* value, const char* bytes, int count);
  bool TakeByte(String* value);
  bool TakeUntil(unsigned stops, String* value, String* copy);
  bool EatWhitespace(String* value);
  Result EndOfTag(String* value);
  Result ReadAttribute(String* value, String* attribute);
  Result EatHTMLCommentEntity(String* value, CallCommentType type);
  Result EatMarked(String* value, char mark);
  Result EatNested(String* value);

  CallBuffer* buffer;
  String error_text;
};

#endif
