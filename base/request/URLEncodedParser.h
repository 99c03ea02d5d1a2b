// Fields of query strings and plain forms: name=value&name=value, with "+" for a blank and %XX for
// any byte.

#ifndef ZEPH_BASE_URLENCODEDPARSER_H
#define ZEPH_BASE_URLENCODEDPARSER_H

#include "base/core/GrowingBuffer.h"
#include "base/request/HTTPContentParser.h"

// Stores each field under its name, which may be a path (VariableHash::SetVariable_Fancy); a name
// that occurs again makes an array.
//
// No text is invalid: any two bytes after a "%" make one byte, so "%zz" is accepted like "%41", and
// "%&x" is one byte too.
class URLEncodedParser : public HTTPContentParser {
 public:
  // At most limit fields are stored; 0 means no limit, a negative limit admits none.
  URLEncodedParser(VariableHash* target, int limit);

  // Both fail at one field too many, with "Maximum number of POST variables exceeded", and when the
  // time limit has passed, with "Timeout processing POST data".
  bool Parse(const char* data, int length) override;
  // Stores the last field. A field without "=" counts only if an earlier field has set a name
  // length: "a=1&abc" has two fields, "abc" alone none. An escape that the end cuts off is dropped;
  // if it was in a name, that name is cut to the length of the previous one.
  bool Finalize() override;

 protected:
  enum State : int { InName = 0, InValue = 1, EscapeInName = 2, EscapeInValue = 3 };

  // Stores the field with the last lengths and begins the next one.
  bool SetVariable();
  // Takes bytes up to the next special one, or the end. Returns its position.
  const char* TakePlain(const char* from, const char* end, GrowingBuffer* text);
  void TakeDigit(char c);
  bool EndOfPart(char c);

  int limit;
  int variable_count = 0;
  GrowingBuffer name{512};
  int name_length = 0;  // of the last name ended by "=" or "&"
  GrowingBuffer value{512};
  int value_length = 0;
  unsigned char digits[2] = {};
  int digit_count = 0;
  int state = InName;
};

#endif
