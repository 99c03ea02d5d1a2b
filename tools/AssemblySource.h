// Program text as tokens. One statement stands on one line; a semicolon outside of quotes begins a
// comment.

#ifndef ZEPH_TOOLS_ASSEMBLYSOURCE_H
#define ZEPH_TOOLS_ASSEMBLYSOURCE_H

#include <string>
#include <string_view>
#include <vector>

struct AssemblyToken {
  enum Kind {
    Name,         // letters, digits and underscores, not beginning with a digit
    Directive,    // a name with a dot in front, which stays in the text
    Number,       // as spelled, with its sign; what it may be depends on the operand
    Text,         // what stood between the quotes, escapes resolved
    Punctuation,  // one of ( ) , : #
    End,          // the end of the line; every line has one
  };

  Kind kind;
  std::string text;
  int column;  // in bytes, from 1
};

// The tokens of one line, the last of them End. A line without tokens is not kept.
struct AssemblyLine {
  int number;  // from 1
  std::vector<AssemblyToken> tokens;
};

struct AssemblyError {
  int line;
  int column;
  std::string text;
};

// Splits source into lines of tokens. A byte or an escape that the language does not know is added
// to errors, and the rest of its line is dropped.
std::vector<AssemblyLine> ReadAssemblySource(std::string_view source,
                                             std::vector<AssemblyError>* errors);

// How an error names a token: "'pushc'", "the text", "the end of the line".
std::string DescribeToken(const AssemblyToken& token);

// Numbers. An integer is decimal or, behind 0x, hexadecimal, and fits 32 bits signed or unsigned.
// A double is decimal, inf, -inf or nan; hexadecimal gives its 64 bits as they are. Each answers
// false, leaving *value alone, when the spelling is anything else.
bool ParseInteger(const std::string& spelling, int* value);
bool ParseDouble(const std::string& spelling, double* value);

// The text between quotes that reads back as bytes, and the number that reads back as value.
std::string QuoteText(std::string_view bytes);
std::string SpellDouble(double value);

// Whether bytes can stand without quotes as a Name.
bool IsPlainName(std::string_view bytes);

#endif
