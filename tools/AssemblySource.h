// Program text as tokens. A line has one statement; a semicolon outside of quotes begins a comment.

#ifndef ZEPH_TOOLS_ASSEMBLYSOURCE_H
#define ZEPH_TOOLS_ASSEMBLYSOURCE_H

#include <string>
#include <string_view>
#include <vector>

struct AssemblyToken {
  enum Kind {
    Name,         // letters, digits and underscores, not beginning with a digit
    Directive,    // a name with a dot before it; the text includes the dot
    Number,       // as spelled, with its sign; the operand decides which numbers are valid
    Text,         // the text between the quotes, escapes resolved
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

// Returns the name of a token in an error: "'pushc'", "the text", "the end of the line".
std::string DescribeToken(const AssemblyToken& token);

// Numbers. An integer is decimal or, after 0x, hexadecimal, and fits 32 bits signed or unsigned. A
// double is decimal, inf, -inf or nan; hexadecimal gives its 64 bits as they are. Each returns
// false and leaves *value unchanged for any other spelling.
bool ParseInteger(const std::string& spelling, int* value);
bool ParseDouble(const std::string& spelling, double* value);

// Return the quoted text that reads back as bytes, and the number that reads back as value.
std::string QuoteText(std::string_view bytes);
std::string SpellDouble(double value);

// True if bytes are valid without quotes as a Name.
bool IsPlainName(std::string_view bytes);

#endif
