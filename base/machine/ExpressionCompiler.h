// Compiles expressions that exist only as text while a script runs, such as the filter of an
// import, into a segment of the script, with their constants and names in its dictionary.
//
// There is neither a token stream nor a syntax tree. The compiler scans the text for the next
// operator, compiles what is between two of them, and emits instructions in postfix order as it
// goes.

#ifndef ZEPH_BASE_EXPRESSIONCOMPILER_H
#define ZEPH_BASE_EXPRESSIONCOMPILER_H

#include "base/core/RunLimit.h"
#include "base/core/StringClass.h"

class Dictionary;
class ExternalCallManager;
class Function;
class FunctionManager;
class Segment;
class SegmentManager;

// A row of the operator table.
struct _OperatorInfo {
  const char* name;  // in upper case
  int length;
  int precedence;  // the higher binds tighter
  int id;
  int infix;  // 1 infix, 0 prefix
  // The instruction; 0 for operators that are more than one.
  unsigned short instruction;
};

// Compiles one text, once. All arguments are borrowed; the segment and what was added to the
// dictionary outlive the compiler. Used on the machine's thread.
//
// An infix operator with nothing before it is an error, but nothing need follow an operator: "1 +"
// compiles, and finds the stack empty when it runs. In the same way "a (b)" leaves both values, so
// the code that runs an expression has to check what it has left.
//
// The order of the fields stays.
class ExpressionCompiler {
 public:
  // How deep parentheses, subscripts, arguments and operands may nest. The machine's stack has as
  // many entries, and a thread's stack has room for the recursion.
  static constexpr int MostNested = 512;
  // The first version of the compiled format that has "++" and "--".
  static constexpr int IncrementVersion = 0x10009;

  // text has length bytes; -1 means strlen. parent, which may be null, is where functions of an
  // enclosing machine are looked up. alias, null or terminated, is the database of fields that name
  // none. Code goes to the segment from position on; if segment is null, to a new one of the
  // manager. sourcefile may be null; otherwise the code records the file and, where it changes, the
  // line. version is the compiled format's.
  ExpressionCompiler(ExternalCallManager* external_calls, SegmentManager* segments,
                     Dictionary* dictionary, FunctionManager* functions, FunctionManager* parent,
                     const char* text, int length, const char* alias, Segment* segment,
                     int position, const char* sourcefile, int sourcefilelength, int line,
                     int version);
  ExpressionCompiler(const ExpressionCompiler&) = delete;
  ExpressionCompiler& operator=(const ExpressionCompiler&) = delete;
  virtual ~ExpressionCompiler();

  // Compiles the text. Returns 1, or 0 with the reason in error(); what was emitted before a
  // failure stays in the segment. An empty text is not a failure. The time limit
  // (base/core/RunLimit.h) applies, because nested text is scanned once for each level.
  int Run();

  const String& error() const { return error_text; }
  Segment* segment() const { return target; }
  // Where the next instruction would go.
  int position() const { return write_position; }
  // How many operators were emitted.
  int operators() const { return operator_count; }

  // Whether the text has only tabs, newlines, carriage returns and blanks. A length of -1 means
  // strlen.
  static bool Expression_Empty(const char* text, int length);
  // Returns the row of an operator's name, in any case; null if it is not an operator.
  static const _OperatorInfo* IsOperator(const char* word, int length);
  // Emits the operator's instruction. Returns false for an operator that has none of its own.
  bool CompileOperator(const _OperatorInfo* info);

 private:
  // An operator with its place in the text; info is null if there is no further one.
  struct FoundOperator {
    const _OperatorInfo* info = nullptr;
    int start = 0;
    int end = 0;
  };
  class Nesting;

  // In all of these, positions are offsets in the text; start is the first byte and end the one
  // after the last. False means that the error is set.
  bool NextOperator(int start, int end, bool sign, FoundOperator* found);
  bool ScanWord(int* position, int end, FoundOperator* found);
  const _OperatorInfo* OperatorOfByte(int position, int end, bool sign) const;
  bool FindEnd(int start, int end, char open, char close, const char* message, int* position);
  bool FindQuoteEnd(int start, int end, int* position);

  bool Parse(int start, int end);
  bool ParseOperators(int start, int end, int limit, FoundOperator* next);
  bool CompleteOperand(bool has_left, int end, FoundOperator* current, bool* complete);
  bool EmitOperator(const FoundOperator& found);

  bool CompileParentheses(int start, int end, int* position);
  bool CompileValue(int start, int end);
  bool CompileWord(int start, int end, int* position);
  bool CompileNumber(int start, int end, int* position);
  bool CompileConstant(const char* constant, int length);
  bool CompileVariable(int end, int start);
  bool CompileElements(int start, int end);
  bool CompileFunction(int namestart, int namelength, int end, int* position);
  bool CompileArguments(int start, int end, int* count);
  bool CompileIncrementDecrement(bool prefix, unsigned short instruction);
  bool Scope(const char* name, int length, const char** field, int* fieldlength, int* aliaslength);
  Function* FindFunction(const char* name, int length);
  Function* BindExternal(const char* name, int length);

  int SkipWhitespace(int start, int end) const;
  int SkipName(int start, int end) const;
  int Add(const char* entry, int length);
  bool Fail(const char* message);
  bool Scanned(int bytes);
  bool Fail(const char* before, const char* middle, int length, const char* after);
  void Emit(unsigned short word);
  void Emit(unsigned short word, int operand);
  void EmitLine();

  ExternalCallManager* external_calls;
  SegmentManager* segments;
  Dictionary* dictionary;
  FunctionManager* functions;
  FunctionManager* parent_functions;
  Segment* target;
  int write_position;
  const char* text;
  int text_length;
  const char* default_alias;
  int alias_id = -1;
  int operator_count = 0;
  int source_id = -1;
  int current_line;
  int last_line = -1;  // -1 while no line is in force
  int format_version;
  String error_text;
  int nesting = 0;
  RunWatch watch{1 << 20};  // counts scanned bytes
};

#endif
