// Reads expressions. Tested in tests/compiler/ExpressionTest.cpp, which compares their values with
// those of the same texts at run time.

#include "compiler/ExpressionParser.h"

#include <cmath>
#include <cstdint>
#include <string>

#include "base/compiled/Instructions.h"
#include "base/core/ascii.h"
#include "base/host/ZephApplication.h"

namespace {

using Kind = ExpressionItem::Kind;

constexpr int kNoLimit = -1;

constexpr OperatorRow kOperators[] = {
    {"+", 3, true, Instruction::add},
    {"-", 3, true, Instruction::sub},
    {"$", 3, true, Instruction::cat},
    {"BITAND", 3, true, Instruction::op_bitand},
    {"BITOR", 3, true, Instruction::op_bitor},
    {"BITXOR", 3, true, Instruction::bitxor},
    {"BITOC", 3, false, Instruction::bitoc},
    {"BITSL", 3, true, Instruction::bitsl},
    {"BITSR", 3, true, Instruction::bitsr},
    {"/", 4, true, Instruction::div},
    {"*", 4, true, Instruction::mul},
    {"MOD", 4, true, Instruction::mod},
    {"AND", 1, true, Instruction::op_and},
    {"OR", 1, true, Instruction::op_or},
    {"IN", 2, true, Instruction::in},
    {"CIN", 2, true, Instruction::cin},
    {"EIN", 2, true, Instruction::ein},
    {"ECIN", 2, true, Instruction::ecin},
    {"EQ", 2, true, Instruction::eq},
    {"NE", 2, true, Instruction::ne},
    {"GE", 2, true, Instruction::ge},
    {"LE", 2, true, Instruction::le},
    {"LT", 2, true, Instruction::lt},
    {"GT", 2, true, Instruction::gt},
    {"ROUNDS", 5, true, Instruction::rounds},
    {"ROUNDF", 5, true, Instruction::roundf},
    {"CRYPT", 5, true, Instruction::crypt},
    {"POW", 5, true, Instruction::pow},
    {"NOT", 6, false, Instruction::op_not},
    {"ISNULL", 6, false, Instruction::isnull},
    {"(", 7, false, 0, true, false},
    {"++", 8, false, Instruction::add, false, true},
    {"--", 8, false, Instruction::sub, false, true},
};
constexpr size_t kLongestOperator = 6;

// What authors may write for an operator, the longer ones first.
struct ForeignOperator {
  std::string_view written;
  std::string_view meant;
};
constexpr ForeignOperator kForeign[] = {
    {"===", "EQ"}, {"!==", "NE"},   {"==", "EQ"},    {"!=", "NE"},    {"<=", "LE"},   {"=<", "LE"},
    {"&&", "AND"}, {"||", "OR"},    {"<<", "BITSL"}, {"**", "POW"},   {"<", "LT"},    {"!", "NOT"},
    {"%", "MOD"},  {"&", "BITAND"}, {"|", "BITOR"},  {"^", "BITXOR"}, {"~", "BITOC"},
};

bool IsNameByte(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return zp_isalpha(byte) || zp_isdigit(byte) || c == '_';
}
bool IsDigit(char c) {
  return zp_isdigit(static_cast<unsigned char>(c));
}
bool IsWordStart(char c) {
  return zp_isalpha(static_cast<unsigned char>(c)) || c == '_';
}

const OperatorRow* FindOperator(std::string_view word) {
  if (word.empty() || word.size() > kLongestOperator) return nullptr;
  for (const OperatorRow& row : kOperators) {
    if (SameName(row.name, word)) return &row;
  }
  return nullptr;
}

// Whether an integer, with its sign or "0x", loses digits when it is read. A hexadecimal one may
// use all 32 bits.
bool IsWrapped(std::string_view number) {
  const bool hexadecimal = number.size() > 2 && (number[1] | 0x20) == 'x';
  const bool negative = number[0] == '-';
  const uint64_t most = hexadecimal ? 0xFFFFFFFF : negative ? 0x80000000 : 0x7FFFFFFF;
  uint64_t value = 0;
  for (const char c : number.substr(hexadecimal ? 2 : negative ? 1 : 0)) {
    const auto digit = static_cast<uint64_t>(zp_hexvalue(static_cast<unsigned char>(c)));
    value = value * (hexadecimal ? 16 : 10) + digit;
    if (value > most) return true;
  }
  return false;
}

}  // namespace

std::vector<std::string_view> OperatorWords() {
  std::vector<std::string_view> words;
  for (const OperatorRow& row : kOperators) {
    if (zp_isalpha(static_cast<unsigned char>(row.name[0]))) words.push_back(row.name);
  }
  return words;
}

// Counts one level of nesting as long as the object exists.
class ExpressionParser::Nesting {
 public:
  explicit Nesting(int* counted) : level(counted) { ++*level; }
  ~Nesting() { --*level; }
  Nesting(const Nesting&) = delete;
  Nesting& operator=(const Nesting&) = delete;

 private:
  int* level;
};

ExpressionParser::ExpressionParser(Diagnostics* diagnostics, Tree* tree, int file, int begin,
                                   int end)
    : diagnostics(diagnostics),
      tree(tree),
      file(file),
      position(begin),
      end(end),
      text(diagnostics->file(file).text()) {}

// --- Words and places ----------------------------------------------------------------------------

void ExpressionParser::SkipWhite() {
  while (position < end && zp_iswhite(static_cast<unsigned char>(Peek()))) position++;
}

int ExpressionParser::WordEnd(int at) const {
  while (at < end && IsNameByte(text[static_cast<size_t>(at)])) at++;
  return at;
}

bool ExpressionParser::AtEnd() {
  SkipWhite();
  return position >= end;
}

bool ExpressionParser::Take(char c) {
  SkipWhite();
  if (position >= end || Peek() != c) return false;
  position++;
  return true;
}

bool ExpressionParser::AtWord() {
  SkipWhite();
  return position < end && IsWordStart(Peek());
}

bool ExpressionParser::TakeWord(std::string_view word) {
  if (!AtWord()) return false;
  const int after = WordEnd(position);
  const auto length = static_cast<size_t>(after - position);
  if (!SameName(text.substr(static_cast<size_t>(position), length), word)) return false;
  position = after;
  return true;
}

bool ExpressionParser::ParseWord(std::string_view* word, const std::string& what) {
  if (!AtWord()) return Expected(what);
  const int start = position;
  position = WordEnd(start);
  *word = text.substr(static_cast<size_t>(start), static_cast<size_t>(position - start));
  return true;
}

Place ExpressionParser::Here() {
  SkipWhite();
  if (position >= end) return {file, end, 1};
  int after = position + 1;
  if (IsNameByte(Peek())) after = WordEnd(position);
  return {file, position, after - position};
}

std::string ExpressionParser::Found() {
  if (AtEnd()) return "the end";
  return "'" + std::string(diagnostics->Text(Here())) + "'";
}

bool ExpressionParser::Expected(const std::string& what) {
  SkipWhite();
  const std::string_view rest =
      text.substr(static_cast<size_t>(position), static_cast<size_t>(end - position));
  for (const ForeignOperator& foreign : kForeign) {
    if (rest.substr(0, foreign.written.size()) != foreign.written) continue;
    return diagnostics->Error({file, position, static_cast<int>(foreign.written.size())},
                              "'" + std::string(foreign.written) +
                                  "' is no operator; did you mean '" + std::string(foreign.meant) +
                                  "'?");
  }
  return diagnostics->Error(Here(), "expected " + what + ", found " + Found());
}

bool ExpressionParser::TooDeep() {
  if (nesting <= kMostNested) return false;
  diagnostics->Error(Here(), "this is nested too deep");
  return true;
}

// --- Operators -----------------------------------------------------------------------------------

bool ExpressionParser::Parse(Expression* expression) {
  Expression* outer = into;
  into = expression;
  const int start = Position();
  const bool parsed = ParseFirst();
  into = outer;
  expression->place = Since(start);
  return parsed;
}

// One expression, appended to the items.
bool ExpressionParser::ParseFirst() {
  Nesting level(&nesting);
  if (TooDeep()) return false;
  const bool has_left = AtValue();
  if (has_left && !ParseValue()) return false;
  int length = 0;
  const OperatorRow* row = PeekOperator(has_left, &length);
  if (row && !has_left && row->infix) {
    const Place place = {file, position, length};
    if (row->name == "-") {
      return diagnostics->Error(place,
                                "a '-' before anything but a number needs a value on its left; "
                                "write 0 - and the value");
    }
    return diagnostics->Error(
        place, "'" + std::string(diagnostics->Text(place)) + "' needs a value on its left");
  }
  if (row) return ParseOperators(has_left, kNoLimit);
  return has_left || Expected("a value");
}

// The operator at the position. After a value these are the infix ones, ++ and --; otherwise all.
const OperatorRow* ExpressionParser::PeekOperator(bool after_value, int* length) {
  SkipWhite();
  if (position >= end) return nullptr;
  const char c = Peek();
  const OperatorRow* row = nullptr;
  if (zp_isalpha(static_cast<unsigned char>(c))) {
    *length = WordEnd(position) - position;
    row = FindOperator(text.substr(static_cast<size_t>(position), static_cast<size_t>(*length)));
  } else {
    *length = (c == '+' || c == '-') && Peek(1) == c ? 2 : 1;
    row = FindOperator(text.substr(static_cast<size_t>(position), static_cast<size_t>(*length)));
  }
  if (row && after_value && !row->infix && !row->is_step) return nullptr;
  return row;
}

// Goes on from the operator at the position until none is left or one binds no tighter than limit.
// The shape is that of ExpressionCompiler::ParseOperators, because both have to give the same code.
bool ExpressionParser::ParseOperators(bool has_left, int limit) {
  for (;;) {
    int length = 0;
    const OperatorRow& current = *PeekOperator(has_left, &length);
    const int offset = position;
    position += length;
    // A group, and a ++ after a variable, are values now.
    bool complete = false;
    if (current.is_group) {
      complete = true;
      if (!ParseGroup()) return false;
    } else if (has_left && current.is_step) {
      complete = true;
      if (!EmitStep(current, false, offset)) return false;
    }
    const bool has_value = !complete && AtValue();
    if (has_value && !ParseValue()) return false;
    const OperatorRow* next = PeekOperator(complete || has_value, &length);
    if (!next) {
      if (!complete && !has_value) {
        return Expected("a value after '" + std::string(current.name) + "'");
      }
      return complete || EmitOperator(current, offset, position - offset);
    }
    const bool empty = !complete && !has_value;
    if (empty && next->infix) return Expected("a value after '" + std::string(current.name) + "'");
    const bool ready = current.infix ? next->precedence <= current.precedence
                                     : next->precedence < current.precedence;
    if (complete || ready) {
      if (empty) {
        return diagnostics->Error({file, position, length},
                                  "'" + std::string(next->name) + "' after '" +
                                      std::string(current.name) +
                                      "' needs parentheses around it and its value");
      }
    } else {
      Nesting level(&nesting);
      if (TooDeep()) return false;
      if (!ParseOperators(has_value, current.precedence)) return false;
    }
    if (!complete && !EmitOperator(current, offset, static_cast<int>(current.name.size()))) {
      return false;
    }
    next = PeekOperator(true, &length);
    if (!next || limit >= next->precedence) return true;
    has_left = true;
  }
}

bool ExpressionParser::ParseGroup() {
  const int start = position - 1;
  if (!ParseFirst()) return false;
  if (Take(')')) return true;
  if (AtEnd()) return diagnostics->Error({file, start, 1}, "this parenthesis is not closed");
  return Expected("an operator or ')'");
}

bool ExpressionParser::EmitOperator(const OperatorRow& row, int offset, int length) {
  if (row.is_step) return EmitStep(row, true, offset);
  ExpressionItem& item = Add(Kind::Operator, offset, length);
  item.word = row.word;
  const int last = static_cast<int>(into->items.size()) - 2;
  item.base = into->items[static_cast<size_t>(last)].base;
  if (row.infix) item.base = into->items[static_cast<size_t>(item.base) - 1].base;
  return true;
}

bool ExpressionParser::EmitStep(const OperatorRow& row, bool prefix, int offset) {
  const size_t count = into->items.size();
  const auto base = count == 0 ? size_t{0} : static_cast<size_t>(into->items.back().base);
  if (count == 0 || !into->IsVariable(base, count)) {
    return diagnostics->Error({file, offset, 2},
                              "'" + std::string(row.name) + "' needs a variable");
  }
  into->MarkStored(count);
  ExpressionItem& item = Add(prefix ? Kind::Prefix : Kind::Postfix, offset, 2);
  item.word = row.word;
  item.base = static_cast<int>(base);
  return true;
}

// --- Values --------------------------------------------------------------------------------------

ExpressionItem& ExpressionParser::Add(Kind kind, int offset, int length) {
  ExpressionItem item;
  item.kind = kind;
  item.offset = offset;
  item.length = length;
  item.base = static_cast<int>(into->items.size());
  into->items.push_back(item);
  return into->items.back();
}

// Whether a value begins here that is no operator.
bool ExpressionParser::AtValue() {
  SkipWhite();
  if (position >= end) return false;
  const char c = Peek();
  if (IsDigit(c) || c == '"' || c == '\'' || c == '_') return true;
  if (c == '.') return IsDigit(Peek(1));
  if (c == '-') return IsDigit(Peek(1)) || Peek(1) == '.';
  if (!IsWordStart(c)) return false;
  const int length = WordEnd(position) - position;
  return !FindOperator(text.substr(static_cast<size_t>(position), static_cast<size_t>(length)));
}

bool ExpressionParser::ParseValue() {
  const char c = Peek();
  if (IsWordStart(c)) return ParseName();
  if (c == '"' || c == '\'') return ParseText();
  return ParseNumber();
}

bool ExpressionParser::ParseVariable(Expression* expression) {
  SkipWhite();
  const int start = position;
  if (position >= end || !IsWordStart(Peek()) || !AtValue()) return Expected("a variable");
  Expression* outer = into;
  into = expression;
  bool parsed = ParseName();
  into = outer;
  expression->place = Since(start);
  if (parsed && !expression->IsVariable()) {
    return diagnostics->Error(expression->place, "expected a variable, found a call");
  }
  return parsed;
}

// A variable with its elements, or a call.
bool ExpressionParser::ParseName() {
  const int start = position;
  int after = WordEnd(start);
  if (after < end && text[static_cast<size_t>(after)] == '(') return ParseCall(start, after);
  while (after < end && text[static_cast<size_t>(after)] == '.') {
    const int word = after + 1;
    after = WordEnd(word);
    const Place place = {file, word, after - word};
    if (place.length == 0) {
      position = word;
      return Expected("a name after '.'");
    }
    if (FindOperator(diagnostics->Text(place))) {
      return diagnostics->Error(place, "'" + std::string(diagnostics->Text(place)) +
                                           "' is an operator and cannot be a name");
    }
  }
  ExpressionItem& item = Add(Kind::Variable, start, after - start);
  item.text = text.substr(static_cast<size_t>(start), static_cast<size_t>(after - start));
  const int base = item.base;
  position = after;
  return ParseElements(base);
}

// Indexes and members, which directly follow the name.
bool ExpressionParser::ParseElements(int base) {
  int count = 0;
  while (position < end && (Peek() == '[' || Peek() == ':')) {
    const int start = position++;
    // Some tags evaluate a path once for each of their values.
    if (++count > kMostElements) {
      return diagnostics->Error({file, start, 1}, "this path has more than 100 elements");
    }
    if (text[static_cast<size_t>(start)] == '[') {
      if (!ParseFirst()) return false;
      if (!Take(']')) {
        if (AtEnd()) return diagnostics->Error({file, start, 1}, "this bracket is not closed");
        return Expected("an operator or ']'");
      }
      Add(Kind::Element, start, position - start).base = base;
      continue;
    }
    const int after = WordEnd(position);
    const Place place = {file, position, after - position};
    if (place.length == 0) return Expected("a member's name after ':'");
    const std::string_view name = diagnostics->Text(place);
    if (FindOperator(name)) {
      return diagnostics->Error(
          place, "'" + std::string(name) + "' is an operator and cannot be a member's name");
    }
    ExpressionItem& item = Add(Kind::Member, place.offset, place.length);
    item.base = base;
    item.text = name;
    position = after;
  }
  if (position < end && (IsNameByte(Peek()) || Peek() == '.')) {
    return Expected("an operator after the element");
  }
  return true;
}

bool ExpressionParser::ParseCall(int start, int name_end) {
  position = name_end + 1;
  CallArguments arguments;
  arguments.first = static_cast<int>(into->items.size());
  // An argument that is left out does not count, here as in an expression at run time.
  while (!Take(')')) {
    if (AtEnd()) return diagnostics->Error({file, name_end, 1}, "this parenthesis is not closed");
    if (Take(',')) continue;
    if (!ParseFirst()) return false;
    arguments.ends.push_back(static_cast<int>(into->items.size()));
    SkipWhite();
    if (position < end && Peek() != ',' && Peek() != ')') {
      return Expected("an operator, ',' or ')'");
    }
  }
  const int first = arguments.first;
  into->calls.push_back(std::move(arguments));
  ExpressionItem& item = Add(Kind::Call, start, name_end - start);
  item.text = text.substr(static_cast<size_t>(start), static_cast<size_t>(name_end - start));
  item.number = static_cast<int>(into->calls.size()) - 1;
  item.base = first;
  return true;
}

// Numbers are read as at run time: one that does not fit is a text.
bool ExpressionParser::ParseNumber() {
  const int start = position;
  int i = Peek() == '-' ? start + 1 : start;
  auto at = [this](int place) { return place < end ? text[static_cast<size_t>(place)] : '\0'; };
  auto is_hex = [&at](int place) {
    return zp_hexvalue(static_cast<unsigned char>(at(place))) >= 0;
  };
  const bool hexadecimal = at(i) == '0' && (at(i + 1) | 0x20) == 'x' && is_hex(i + 2);
  if (hexadecimal) i += 2;
  bool point = false;
  for (; i < end; i++) {
    if (at(i) == '.' && !point) {
      point = true;
    } else if (!(hexadecimal ? is_hex(i) : IsDigit(at(i)))) {
      break;
    }
  }
  position = i;
  const int length = i - start;
  const char* digits = text.data() + start;
  int failed = 0;
  if (!point) {
    const int value = ZephApplication::stoi(digits, length, &failed);
    if (!failed) {
      if (IsWrapped(std::string_view(digits, static_cast<size_t>(length)))) {
        const std::string number(digits, static_cast<size_t>(length));
        diagnostics->Warning({file, start, length},
                             number + " does not fit into 32 bits and becomes " +
                                 std::to_string(value) +
                                 (hexadecimal ? "" : "; " + number + ".0 is kept as it is"));
      }
      Add(Kind::Integer, start, length).number = value;
      return true;
    }
  } else {
    const double value = ZephApplication::stod(digits, length, length, &failed);
    if (!failed || *digits == '.') {
      Add(Kind::Double, start, length).value = value;
      return true;
    }
  }
  Add(Kind::Text, start, length).text =
      text.substr(static_cast<size_t>(start), static_cast<size_t>(length));
  return true;
}

// A backslash before a quote of either kind is dropped; every other one is part of the text.
bool ExpressionParser::ParseText() {
  const int start = position;
  const char quote = Peek();
  bool escaped = false;
  int i = start + 1;
  for (; i < end; i++) {
    const char c = text[static_cast<size_t>(i)];
    const bool after_backslash = text[static_cast<size_t>(i) - 1] == '\\';
    if (c == quote && !after_backslash) break;
    escaped = escaped || ((c == '"' || c == '\'') && after_backslash);
  }
  if (i >= end) return diagnostics->Error({file, start, 1}, "this text has no closing quote");
  std::string_view value =
      text.substr(static_cast<size_t>(start) + 1, static_cast<size_t>(i - start - 1));
  if (escaped) {
    std::string copy;
    for (size_t k = 0; k < value.size(); k++) {
      const bool before_quote =
          k + 1 < value.size() && (value[k + 1] == '"' || value[k + 1] == '\'');
      if (value[k] != '\\' || !before_quote) copy += value[k];
    }
    value = tree->Keep(std::move(copy));
  }
  position = i + 1;
  Add(Kind::Text, start, position - start).text = value;
  return true;
}
