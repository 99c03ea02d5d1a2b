// Expressions that a script has compiled at run time, by their text. A compiled expression stays in
// the machine's segments as long as the machine exists, so code that may evaluate the same text
// again keeps its segment here instead of compiling it again.

#ifndef ZEPH_BASE_DOEXPRESSION_H
#define ZEPH_BASE_DOEXPRESSION_H

#include "base/core/BaseTemplates.h"
#include "base/core/StringClass.h"

class Segment;

// One entry: a private copy of the text, and its code.
class DoExpression {
 public:
  // A length of -1 means strlen. The segment is borrowed from its manager.
  DoExpression(const char* text, int length, Segment* segment)
      : expression(text, length), code(segment) {}
  DoExpression(const DoExpression&) = delete;
  DoExpression& operator=(const DoExpression&) = delete;

  const String& text() const { return expression; }
  Segment* segment() const { return code; }

 private:
  String expression;
  Segment* code;
};

struct DoExpressionText {
  static std::string_view Key(const DoExpression* item) {
    return {item->text().data, static_cast<size_t>(item->text().length)};
  }
};
using DoExpressionTable = NamedHashTable<DoExpression, DoExpressionText>;

#endif
