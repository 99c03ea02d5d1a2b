// Reads expressions, names and words inside of a tag. The operators, their precedence and the order
// of evaluation are those of expressions that are compiled at run time
// (base/machine/ExpressionCompiler.h): the same text gives the same instructions, except that names
// may be positions.

#ifndef ZEPH_COMPILER_EXPRESSIONPARSER_H
#define ZEPH_COMPILER_EXPRESSIONPARSER_H

#include <string>
#include <string_view>
#include <vector>

#include "compiler/Tree.h"

// A row of the table of operators.
struct OperatorRow {
  std::string_view name;
  int precedence;
  bool infix;
  unsigned short word;
  bool is_group = false;
  bool is_step = false;  // ++ and --
};

// The operators that are words.
std::vector<std::string_view> OperatorWords();

class ExpressionParser {
 public:
  // How deep parentheses, indexes, arguments and operands may nest.
  static constexpr int kMostNested = 200;
  // How many elements and members a path may have.
  static constexpr int kMostElements = 100;

  // Reads the bytes from begin to end of a file.
  ExpressionParser(Diagnostics* diagnostics, Tree* tree, int file, int begin, int end);

  // Reads an expression up to the first thing that cannot continue it. False after an error, which
  // has been added to the diagnostics; so do the others.
  [[nodiscard]] bool Parse(Expression* expression);
  // Reads a variable with its elements and members.
  [[nodiscard]] bool ParseVariable(Expression* expression);
  // Reads a word; what says what it should be, for the error.
  [[nodiscard]] bool ParseWord(std::string_view* word, const std::string& what);

  // Whether the next thing is a word; whether it is that one, which is then taken.
  bool AtWord();
  bool TakeWord(std::string_view word);
  // Takes a byte if it is the next one.
  bool Take(char c);
  bool AtEnd();

  // Adds "expected ..., found ..." at the next thing. Names what other languages write for an
  // operator.
  bool Expected(const std::string& what);
  // The next thing, or the stretch from begin to the position.
  Place Here();
  Place Since(int begin) const { return {file, begin, position - begin}; }
  int Position() {
    SkipWhite();
    return position;
  }

 private:
  class Nesting;

  void SkipWhite();
  char Peek(int ahead = 0) const {
    const int at = position + ahead;
    return at < end ? text[static_cast<size_t>(at)] : '\0';
  }
  int WordEnd(int at) const;
  std::string Found();

  bool ParseOperators(bool has_left, int limit);
  bool ParseFirst();
  bool AtValue();
  bool ParseValue();
  bool ParseName();
  bool ParseElements(int base);
  bool ParseCall(int start, int name_end);
  bool ParseNumber();
  bool ParseText();
  bool ParseGroup();
  const OperatorRow* PeekOperator(bool after_value, int* length);
  bool EmitOperator(const OperatorRow& row, int offset, int length);
  bool EmitStep(const OperatorRow& row, bool prefix, int offset);
  bool TooDeep();

  ExpressionItem& Add(ExpressionItem::Kind kind, int offset, int length);

  Diagnostics* diagnostics;
  Tree* tree;
  int file;
  int position;
  int end;
  std::string_view text;
  Expression* into = nullptr;
  int nesting = 0;
};

#endif
