// Compiles expressions into instructions. Tested in tests/base/machine/ExpressionCompilerTest.cpp
// and ExpressionValuesTest.cpp.
//
//   scanning    finds operators, quotes and brackets
//   operators   orders them by precedence
//   values      constants, variables and their elements
//   functions   calls and their arguments
//   emitting    words, operands, lines and error texts

#include "base/machine/ExpressionCompiler.h"

#include <cstring>
#include <memory>
#include <string>

#include "base/compiled/Dictionary.h"
#include "base/compiled/Function.h"
#include "base/compiled/Instructions.h"
#include "base/compiled/Segment.h"
#include "base/compiled/VariableHash.h"
#include "base/core/MeasuredLength.h"
#include "base/core/ascii.h"
#include "base/core/memcmpi.h"
#include "base/extensions/ExternalCall.h"
#include "base/host/ZephApplication.h"

namespace {

// Ids of the operators that are not one instruction.
enum : int { OperatorGroup = 32, OperatorIncrement = 33, OperatorDecrement = 34 };

constexpr _OperatorInfo Operators[] = {
    {"+", 1, 3, 0, 1, Instruction::add},
    {"-", 1, 3, 1, 1, Instruction::sub},
    {"$", 1, 3, 2, 1, Instruction::cat},
    {"BITAND", 6, 3, 3, 1, Instruction::op_bitand},
    {"BITOR", 5, 3, 4, 1, Instruction::op_bitor},
    {"BITXOR", 6, 3, 5, 1, Instruction::bitxor},
    {"BITOC", 5, 3, 6, 0, Instruction::bitoc},
    {"BITSL", 5, 3, 7, 1, Instruction::bitsl},
    {"BITSR", 5, 3, 8, 1, Instruction::bitsr},
    {"/", 1, 4, 9, 1, Instruction::div},
    {"*", 1, 4, 10, 1, Instruction::mul},
    {"MOD", 3, 4, 28, 1, Instruction::mod},
    {"AND", 3, 1, 11, 1, Instruction::op_and},
    {"OR", 2, 1, 12, 1, Instruction::op_or},
    {"IN", 2, 2, 13, 1, Instruction::in},
    {"CIN", 3, 2, 14, 1, Instruction::cin},
    {"EIN", 3, 2, 15, 1, Instruction::ein},
    {"ECIN", 4, 2, 16, 1, Instruction::ecin},
    {"EQ", 2, 2, 17, 1, Instruction::eq},
    {"NE", 2, 2, 18, 1, Instruction::ne},
    {"GE", 2, 2, 19, 1, Instruction::ge},
    {"LE", 2, 2, 20, 1, Instruction::le},
    {"LT", 2, 2, 21, 1, Instruction::lt},
    {"GT", 2, 2, 22, 1, Instruction::gt},
    {"ROUNDS", 6, 5, 25, 1, Instruction::rounds},
    {"ROUNDF", 6, 5, 26, 1, Instruction::roundf},
    {"CRYPT", 5, 5, 27, 1, Instruction::crypt},
    {"POW", 3, 5, 30, 1, Instruction::pow},
    {"NOT", 3, 6, 23, 0, Instruction::op_not},
    {"ISNULL", 6, 6, 31, 0, Instruction::isnull},
    {"(", 1, 7, OperatorGroup, 0, 0},
    {"++", 2, 8, OperatorIncrement, 0, 0},
    {"--", 2, 8, OperatorDecrement, 0, 0},
    {"", 0, 0, 35, 0, 0},
};

constexpr int LongestOperator = 6;
constexpr int NoLimit = -1;

// The time for adding a text to the dictionary, or for finding a function, as the number of bytes
// that take as long to scan: one searches a block, the other a chain of a table.
constexpr int EntryCost = 1 << 17;

bool IsHexDigit(char c) {
  return zp_hexvalue(c) >= 0;
}
bool IsNameByte(char c) {
  return zp_isalpha(c) || zp_isdigit(c) || c == '_';
}
bool IsQuote(char c) {
  return c == '"' || c == '\'';
}

}  // namespace

// Counts one level of nesting as long as the object exists.
class ExpressionCompiler::Nesting {
 public:
  explicit Nesting(int* counted) : level(counted) { ++*level; }
  ~Nesting() { --*level; }
  Nesting(const Nesting&) = delete;
  Nesting& operator=(const Nesting&) = delete;
  bool too_deep() const { return *level > MostNested; }

 private:
  int* level;
};

ExpressionCompiler::ExpressionCompiler(ExternalCallManager* external_calls,
                                       SegmentManager* segments, Dictionary* dictionary,
                                       FunctionManager* functions, FunctionManager* parent,
                                       const char* text, int length, const char* alias,
                                       Segment* segment, int position, const char* sourcefile,
                                       int sourcefilelength, int line, int version)
    : external_calls(external_calls),
      segments(segments),
      dictionary(dictionary),
      functions(functions),
      parent_functions(parent),
      target(segment ? segment : this->segments->Segment_Add()),
      write_position(position),
      text(text),
      text_length(MeasuredLength(text, length)),
      default_alias(alias),
      current_line(line),
      format_version(version) {
  if (default_alias) alias_id = Add(default_alias, -1);
  if (sourcefile) source_id = Add(sourcefile, sourcefilelength);
}

ExpressionCompiler::~ExpressionCompiler() = default;

int ExpressionCompiler::Run() {
  if (error_text.data) return 0;
  if (source_id != -1) Emit(Instruction::sourcefile, source_id);
  if (!Parse(0, text_length)) return 0;
  // The segment was full, so code is missing.
  if (write_position < 0) Fail("Unable to store variable");
  return error_text.data ? 0 : 1;
}

bool ExpressionCompiler::Expression_Empty(const char* text, int length) {
  length = MeasuredLength(text, length);
  for (int i = 0; i < length; i++) {
    if (!zp_iswhite(text[i])) return false;
  }
  return true;
}

// --- Scanning ------------------------------------------------------------------------------------

const _OperatorInfo* ExpressionCompiler::IsOperator(const char* word, int length) {
  if (length < 1 || length > LongestOperator) return nullptr;
  for (const _OperatorInfo& row : Operators) {
    if (row.length == length && memcmpi(row.name, word, static_cast<size_t>(length)) == 0) {
      return &row;
    }
  }
  return nullptr;
}

int ExpressionCompiler::SkipWhitespace(int start, int end) const {
  while (start < end && zp_iswhite(text[start])) start++;
  return start;
}

int ExpressionCompiler::SkipName(int start, int end) const {
  while (start < end && IsNameByte(text[start])) start++;
  return start;
}

// Finds the closing quote of the text that begins at start.
bool ExpressionCompiler::FindQuoteEnd(int start, int end, int* position) {
  for (int i = start + 1; i < end; i++) {
    if (text[i] == text[start] && text[i - 1] != '\\') {
      *position = i;
      return Scanned(i - start);
    }
  }
  return Fail("Mismatched Quotes found in Expression");
}

// Finds the end of the bracket at start.
bool ExpressionCompiler::FindEnd(int start, int end, char open, char close, const char* message,
                                 int* position) {
  int level = 0;
  for (int i = start; i < end; i++) {
    if (IsQuote(text[i])) {
      if (!FindQuoteEnd(i, end, &i)) return false;
    } else if (text[i] == open) {
      level++;
    } else if (text[i] == close && --level == 0) {
      *position = i;
      return Scanned(i - start);
    }
  }
  return Fail(message);
}

namespace {
const char* const MismatchedInside = "Mismatched Parentheses found in Expression";
const char* const MismatchedGroup = "Mismatched Parentheses in Expression";
}  // namespace

// The operator at one of the bytes "$(*+-/"; null for the sign of a number. A sign is possible only
// where a value may begin: after a value, such as a group, "-5" subtracts.
const _OperatorInfo* ExpressionCompiler::OperatorOfByte(int position, int end, bool sign) const {
  const char c = text[position];
  const char next = position + 1 < end ? text[position + 1] : '\0';
  const bool plus_or_minus = c == '+' || c == '-';
  if (plus_or_minus && next == c) return IsOperator(text + position, 2);
  if (plus_or_minus && sign && (next == '.' || zp_isdigit(next))) return nullptr;
  return IsOperator(text + position, 1);
}

// Finds the next operator outside of parentheses, brackets and quotes. sign says whether the first
// byte may be the sign of a number.
bool ExpressionCompiler::NextOperator(int start, int end, bool sign, FoundOperator* found) {
  found->info = nullptr;
  const int first = SkipWhitespace(start, end);
  int i = first;
  while (i < end && !found->info) {
    const char c = text[i];
    if (zp_isalpha(c)) {
      if (!ScanWord(&i, end, found)) return false;
      continue;
    }
    if (IsQuote(c)) {
      if (!FindQuoteEnd(i, end, &i)) return false;
    } else if (c != '\0' && strchr("$(*+-/", c)) {
      found->info = OperatorOfByte(i, end, sign && i == first);
      found->start = i;
      found->end = found->info ? i + found->info->length : i;
    }
    i++;
  }
  return Scanned(i - start);
}

// Reads the word at *position: an operator, or the name of a function or variable, whose arguments
// or subscripts are skipped.
bool ExpressionCompiler::ScanWord(int* position, int end, FoundOperator* found) {
  const int start = *position;
  int i = SkipName(start, end);
  *position = i;
  found->info = IsOperator(text + start, i - start);
  found->start = start;
  found->end = i;
  if (found->info || i == end) return true;
  if (text[i] == '(') {
    if (!FindEnd(i, end, '(', ')', MismatchedInside, &i)) return false;
    *position = i + 1;
    return true;
  }
  for (; i < end && text[i] == '['; *position = ++i) {
    if (!FindEnd(i, end, '[', ']', MismatchedInside, &i)) return false;
  }
  return true;
}

// --- Operators -----------------------------------------------------------------------------------

bool ExpressionCompiler::Parse(int start, int end) {
  Nesting level(&nesting);
  if (level.too_deep()) return Fail(MismatchedGroup);
  FoundOperator next;
  if (!NextOperator(start, end, true, &next)) return false;
  if (!next.info) return CompileValue(start, end);
  return ParseOperators(start, end, NoLimit, &next);
}

// Compiles from start on, where *next is the first operator, until no operator is left or one binds
// no tighter than limit; *next is then that operator.
bool ExpressionCompiler::ParseOperators(int start, int end, int limit, FoundOperator* next) {
  bool has_left = SkipWhitespace(start, next->start) < next->start;
  if (next->info->infix && !has_left) return Fail("Argument expected in Expression");
  if (!CompileValue(start, next->start)) return false;
  for (;;) {
    FoundOperator current = *next;
    bool complete = false;
    if (!CompleteOperand(has_left, end, &current, &complete)) return false;
    if (!NextOperator(current.end, end, !complete, next)) return false;
    if (!next->info) {
      return CompileValue(current.end, end) && (complete || EmitOperator(current));
    }
    const int precedence = current.info->precedence;
    const bool empty = SkipWhitespace(current.end, next->start) == next->start;
    if (empty && !complete && next->info->infix) return Fail("Argument expected in Expression");
    const bool ready = current.info->infix ? next->info->precedence <= precedence
                                           : next->info->precedence < precedence;
    if (complete || ready) {
      if (!CompileValue(current.end, next->start)) return false;
    } else {
      Nesting level(&nesting);
      if (level.too_deep()) return Fail(MismatchedGroup);
      if (!ParseOperators(current.end, end, precedence, next)) return false;
    }
    if (!complete && !EmitOperator(current)) return false;
    if (!next->info || limit >= next->info->precedence) return true;
    has_left = true;
  }
}

// A group, and a "++" or "--" after a value, are compiled at once, and are then the value in front
// of the next operator.
bool ExpressionCompiler::CompleteOperand(bool has_left, int end, FoundOperator* current,
                                         bool* complete) {
  const int id = current->info->id;
  if (id == OperatorGroup) {
    *complete = true;
    return CompileParentheses(current->start, end, &current->end);
  }
  if (has_left && (id == OperatorIncrement || id == OperatorDecrement)) {
    *complete = true;
    return CompileIncrementDecrement(false,
                                     id == OperatorIncrement ? Instruction::add : Instruction::sub);
  }
  return true;
}

bool ExpressionCompiler::EmitOperator(const FoundOperator& found) {
  switch (found.info->id) {
    case OperatorIncrement: return CompileIncrementDecrement(true, Instruction::add);
    case OperatorDecrement: return CompileIncrementDecrement(true, Instruction::sub);
    default: return CompileOperator(found.info);
  }
}

bool ExpressionCompiler::CompileOperator(const _OperatorInfo* info) {
  EmitLine();
  operator_count++;
  if (!info->instruction) {
    return Fail("Invalid Operator '", info->name, info->length, "' Found in Expression");
  }
  Emit(info->instruction);
  return true;
}

// The operand is a variable, on top of the stack. The prefix form leaves the new value, the postfix
// form the old one as a number.
bool ExpressionCompiler::CompileIncrementDecrement(bool prefix, unsigned short instruction) {
  if (format_version < IncrementVersion) return Fail("Invalid operator found in expression");
  Emit(Instruction::dup);
  if (!prefix) {
    Emit(Instruction::pushi, 0);
    Emit(Instruction::add);
    Emit(Instruction::swap);
    Emit(Instruction::dup);
  }
  Emit(Instruction::pushi, 1);
  Emit(instruction);
  if (prefix) {
    Emit(Instruction::dup);
    Emit(Instruction::swapn, 0);
    write_position = target->Write_Dword(write_position, 2);
  } else {
    Emit(Instruction::swap);
  }
  Emit(Instruction::store);
  return true;
}

// Compiles the group that begins at start; *position receives the place after it.
bool ExpressionCompiler::CompileParentheses(int start, int end, int* position) {
  int close;
  if (!FindEnd(start, end, '(', ')', MismatchedGroup, &close)) return false;
  *position = close + 1;
  return Parse(start + 1, close);
}

// --- Values --------------------------------------------------------------------------------------

bool ExpressionCompiler::CompileValue(int start, int end) {
  start = SkipWhitespace(start, end);
  if (start == end) return true;
  const char c = text[start];
  int i;
  if (zp_isalpha(c) || c == '_') {
    if (!CompileWord(start, end, &i)) return false;
  } else if (zp_isdigit(c) || c == '-' || c == '.') {
    if (!CompileNumber(start, end, &i)) return false;
  } else if (IsQuote(c)) {
    if (!FindQuoteEnd(start, end, &i)) return false;
    i++;
    if (!CompileConstant(text + start, i - start)) return false;
  } else {
    return Fail("Invalid Argument '", &c, 1, "' Found in expression");
  }
  for (; i < end; i++) {
    if (zp_iswhite(text[i]) || text[i] == '\0') continue;
    return Fail("Found additional argument '", text + i, 1, "' while looking for operator");
  }
  return true;
}

// Compiles a variable or a function call; *position receives the place after it.
bool ExpressionCompiler::CompileWord(int start, int end, int* position) {
  int i = SkipName(start, end);
  if (i < end && text[i] == '(') return CompileFunction(start, i - start, end, position);
  for (; i < end; i++) {
    if (text[i] == '[') {
      if (!FindEnd(i, end, '[', ']', MismatchedInside, &i)) return false;
    } else if (!IsNameByte(text[i]) && text[i] != '.' && text[i] != ':') {
      break;
    }
  }
  if (i < end && !zp_iswhite(text[i])) {
    return Fail("Invalid Argument '", text + i, 1, "' in Expression");
  }
  *position = i;
  return CompileVariable(i, start);
}

// Compiles a number; *position receives the place after it. Negative hexadecimal numbers do not
// exist: such a text, like any other that is not a number, becomes a text constant.
bool ExpressionCompiler::CompileNumber(int start, int end, int* position) {
  int i = text[start] == '-' ? start + 1 : start;
  const bool hexadecimal = i + 2 < end && text[i] == '0' &&
                           (text[i + 1] == 'x' || text[i + 1] == 'X') && IsHexDigit(text[i + 2]);
  if (hexadecimal) i += 2;
  bool point = false;
  for (; i < end; i++) {
    if (text[i] == '.' && !point) {
      point = true;
    } else if (!(hexadecimal ? IsHexDigit(text[i]) : zp_isdigit(text[i]))) {
      break;
    }
  }
  *position = i;
  const int length = i - start;
  int failed = 0;
  if (!point) {
    const int value = ZephApplication::stoi(text + start, length, &failed);
    if (failed) return CompileConstant(text + start, length);
    Emit(Instruction::pushi, value);
    return true;
  }
  const double value = ZephApplication::stod(text + start, length, length, &failed);
  if (failed && text[start] != '.') return CompileConstant(text + start, length);
  Emit(Instruction::pushf);
  write_position = target->Write_Double(write_position, value);
  return true;
}

// Compiles a text constant. One that begins with a quote loses its first and last byte.
bool ExpressionCompiler::CompileConstant(const char* constant, int length) {
  if (length >= 2 && IsQuote(constant[0])) {
    constant++;
    length -= 2;
  }
  auto copy = std::make_unique_for_overwrite<char[]>(static_cast<size_t>(length) + 1);
  int copied = 0;
  for (int i = 0; i < length; i++) {
    if (constant[i] == '\\' && i + 1 < length && IsQuote(constant[i + 1])) continue;
    copy[static_cast<size_t>(copied++)] = constant[i];
  }
  if (!Scanned(EntryCost)) return false;
  const int id = dictionary->Entry_Add(copy.get(), copied);
  if (id == -1) return Fail("Unable to find variable");
  Emit(Instruction::pushc, id);
  return true;
}

// Compiles a reference to a variable. Expressions reach every variable by its name, because they
// are compiled long after positions were assigned.
bool ExpressionCompiler::CompileVariable(int end, int start) {
  EmitLine();
  int i = start;
  while (i < end && (IsNameByte(text[i]) || text[i] == '.')) i++;
  const char* field;
  int field_length, database_length;
  if (Scope(text + start, i - start, &field, &field_length, &database_length)) {
    const int id = Add(field, field_length);
    const int database = database_length > 0 ? Add(text + start, database_length) : alias_id;
    if (id == -1 || database == -1) return false;
    Emit(Instruction::pushdc, database);
    write_position = target->Write_Dword(write_position, static_cast<unsigned>(id));
  } else {
    const int id = Add(text + start, i - start);
    if (id == -1) return false;
    Emit(Instruction::pushnc, id);
  }
  return CompileElements(i, end);
}

// Whether a name is that of a database field whose database is known. The alias at its beginning
// has *aliaslength bytes; if that is 0, the default alias is used.
bool ExpressionCompiler::Scope(const char* name, int length, const char** field, int* fieldlength,
                               int* aliaslength) {
  const char* alias;
  return VariableHash::Scope(name, length, field, fieldlength, &alias, aliaslength) ==
             ScopeDatabase &&
         (*aliaslength > 0 || default_alias);
}

// Compiles the subscripts and members of a reference, up to the first byte that begins neither.
bool ExpressionCompiler::CompileElements(int start, int end) {
  int i = start;
  while (i < end && (text[i] == '[' || text[i] == ':')) {
    if (text[i] == '[') {
      int close;
      if (!FindEnd(i, end, '[', ']', MismatchedInside, &close)) return false;
      if (!Parse(i + 1, close)) return false;
      Emit(Instruction::elem);
      i = close + 1;
    } else {
      const int name = i + 1;
      i = SkipName(name, end);
      const int id = Add(text + name, i - name);
      if (id == -1) return false;
      Emit(Instruction::pushc, id);
      Emit(Instruction::memb);
    }
  }
  return true;
}

// --- Functions -----------------------------------------------------------------------------------

// Compiles a call, whose parentheses directly follow the name; *position receives the place after
// them.
bool ExpressionCompiler::CompileFunction(int namestart, int namelength, int end, int* position) {
  EmitLine();
  if (!Scanned(EntryCost)) return false;
  const char* name = text + namestart;
  Function* function = FindFunction(name, namelength);
  if (!function) return Fail("Unable to find function '", name, namelength, "'");
  const int open = namestart + namelength;
  int close, count;
  if (!FindEnd(open, end, '(', ')', MismatchedInside, &close)) return false;
  if (!CompileArguments(open + 1, close, &count)) return false;
  const int declared = function->parameters().Entries();
  if (count != declared) {
    const std::string counts = "' is defined with " + std::to_string(declared) +
                               " parameters and was called with " + std::to_string(count);
    return Fail("Function '", name, namelength, counts.c_str());
  }
  *position = close + 1;
  Emit(Instruction::call, function->index());
  if (source_id != -1) {
    // The function has lines, and perhaps a file, of its own.
    Emit(Instruction::sourcefile, source_id);
    last_line = -1;
  }
  return true;
}

// Compiles the texts between commas. Only a text that gives code counts as an argument, so that a
// call never takes entries from the stack that its expression has not pushed.
bool ExpressionCompiler::CompileArguments(int start, int end, int* count) {
  *count = 0;
  int argument = start;
  for (int i = start; i <= end; i++) {
    if (i < end && IsQuote(text[i])) {
      if (!FindQuoteEnd(i, end, &i)) return false;
    } else if (i < end && text[i] == '(') {
      if (!FindEnd(i, end, '(', ')', MismatchedInside, &i)) return false;
    } else if (i == end || text[i] == ',') {
      if (SkipWhitespace(argument, i) < i) {
        if (!Parse(argument, i)) return false;
        ++*count;
      }
      argument = i + 1;
    }
  }
  return true;
}

Function* ExpressionCompiler::FindFunction(const char* name, int length) {
  if (!functions) return nullptr;
  if (Function* own = functions->Function_Get(name, length)) return own;
  if (parent_functions) {
    Function* other = parent_functions->Function_Get(name, length);
    if (other && (other->flags() & Function_External)) return functions->Function_Add(other);
  }
  return BindExternal(name, length);
}

// A function of a library that no script has declared. It is entered when it has all of its
// parameters: memory may run out before that, and a later expression would find it with too few.
Function* ExpressionCompiler::BindExternal(const char* name, int length) {
  ExternalCall* call = external_calls ? external_calls->Lookup_External(name, length) : nullptr;
  if (!call) return nullptr;
  auto made = std::make_unique<Function>(functions->Functions(), Function_External,
                                         dictionary->Entry_Add(name, length), name, length, -1, -1,
                                         dictionary);
  made->calldata = call;
  const _ZP_EL_Function* row = call->descriptor();
  for (int i = 0; i < row->parametercount; i++) {
    const _ZP_EL_Parameter& parameter = row->parameters[i];
    made->AddParameter(parameter.flags, parameter.name, parameter.namelength);
  }
  Function* const function = functions->Function_Add(made.release(), name, length);
  if (parent_functions) parent_functions->Function_Add(function);
  return function;
}

// --- Emitting ------------------------------------------------------------------------------------

int ExpressionCompiler::Add(const char* entry, int length) {
  if (!Scanned(EntryCost)) return -1;
  const int id = dictionary->Entry_Add(entry, length);
  if (id == -1) Fail("Unable to store variable");
  return id;
}

// Counts scanned bytes, at least one. False past the time limit.
bool ExpressionCompiler::Scanned(int bytes) {
  return !watch.Over(bytes + 1) || Fail("Application timed out");
}

bool ExpressionCompiler::Fail(const char* message) {
  error_text.assign(message);
  return false;
}

bool ExpressionCompiler::Fail(const char* before, const char* middle, int length,
                              const char* after) {
  error_text.assign(before);
  // Byte by byte, because the byte from the expression may be a NUL.
  for (int i = 0; i < length; i++) error_text.cat(middle[i]);
  error_text.cat(after);
  return false;
}

void ExpressionCompiler::Emit(unsigned short word) {
  write_position = target->Write_Word(write_position, word);
}

void ExpressionCompiler::Emit(unsigned short word, int operand) {
  Emit(word);
  write_position = target->Write_Dword(write_position, static_cast<unsigned>(operand));
}

void ExpressionCompiler::EmitLine() {
  if (source_id == -1 || current_line == last_line) return;
  Emit(Instruction::lineno, current_line);
  last_line = current_line;
}
