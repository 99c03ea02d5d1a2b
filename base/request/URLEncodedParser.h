// Fields as query strings and plain forms have them: name=value&name=value, with "+" for a blank
// and %XX for any byte.

#ifndef ZEPH_BASE_URLENCODEDPARSER_H
#define ZEPH_BASE_URLENCODEDPARSER_H

#include "base/core/GrowingBuffer.h"
#include "base/request/HTTPContentParser.h"

// Stores each field under its name, which may be a path (VariableHash::SetVariable_Fancy); a name
// that comes again makes an array.
//
// No text fails: two bytes behind a "%" make a byte whatever they are, so that "%zz" is as good as
// "%41", and "%&x" is one byte too.
class URLEncodedParser : public HTTPContentParser {
 public:
  // At most limit fields are stored; 0 is no limit, a negative one admits none.
  URLEncodedParser(VariableHash* target, int limit);

  // Both fail only at one field too many, with "Maximum number of POST variables exceeded".
  bool Parse(const char* data, int length) override;
  // Stores the last field. What has no "=" counts only if the field before it has set a length:
  // "a=1&abc" has two fields, "abc" alone none. An escape that the end cuts off is dropped, and if
  // it stood in a name, that name is cut to the length of the last one.
  bool Finalize() override;

 protected:
  enum State : int { InName = 0, InValue = 1, EscapeInName = 2, EscapeInValue = 3 };

  // Stores a field of the last lengths and begins the next one.
  bool SetVariable();
  // Takes bytes up to the next one that means something, or the end; answers where.
  const char* TakePlain(const char* from, const char* end, GrowingBuffer* text);
  void TakeDigit(char c);
  bool EndOfPart(char c);

  int limit;
  int variable_count = 0;
  GrowingBuffer name{512};
  int name_length = 0;  // of the last name that a "=" or "&" ended
  GrowingBuffer value{512};
  int value_length = 0;
  unsigned char digits[2] = {};
  int digit_count = 0;
  int state = InName;
};

#endif
