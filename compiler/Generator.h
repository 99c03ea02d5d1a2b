// Turns the tree of a page into the program of a compiled file. The page's own code is segment 0,
// its functions are segment 1.

#ifndef ZEPH_COMPILER_GENERATOR_H
#define ZEPH_COMPILER_GENERATOR_H

#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "compiler/CodeWriter.h"
#include "compiler/Names.h"
#include "compiler/Tree.h"

// The function that encodes a value for HTML, one parameter by value.
inline constexpr std::string_view kEncodeFunction = "htmlencode";

class Generator {
 public:
  // library has the functions that extension libraries offer; it is borrowed like all the rest.
  Generator(Diagnostics* diagnostics, Tree* tree, AssemblyProgram* program,
            const std::vector<FunctionNode>& library, bool every_line);

  // Generates the whole page. file is its number; several_files says whether it includes others.
  // What went wrong is in the diagnostics.
  void Run(int file, bool several_files);

 private:
  friend class InlineAssembly;

  // A tag whose body is being generated.
  struct Construct {
    TagId tag;
    CodeLabel* stop = nullptr;
    CodeLabel* next = nullptr;
    int entries = 0;  // that the loop has on the stack
  };
  // How the texts of a message use a parameter.
  struct MessageParameter {
    bool encoded = false;
    bool plain = false;
  };
  using MessageParameters = std::map<std::string, MessageParameter>;
  struct CalledFunction {
    const FunctionNode* node;
    int index;
    bool called = false;
  };
  using Where = Symbol::Where;

  // --- Generator.cpp: functions and control
  void DeclareFunctions();
  void DefineFunction(const FunctionNode& node);
  void DefineMessages();
  void WarnOfFunctions(int file);
  void GenerateBody(const Body& body);
  void GenerateStatement(Statement* statement);
  void GenerateIf(Statement* statement);
  void GenerateWhile(Statement* statement);
  void GenerateFor(Statement* statement);
  void GenerateForeach(Statement* statement);
  void GenerateReturn(Statement* statement);
  void GenerateJump(Statement* statement, TagId loop, bool stop);
  bool CloseInner(size_t first, const Place& place, bool with_entries);
  void GenerateLoopBody(Statement* statement, TagId tag, CodeLabel* stop, CodeLabel* next,
                        int entries);

  // --- Generator_Values.cpp
  void Value(Expression* expression);
  void Prepare(Expression* expression);
  void NoteFirst(const Expression& expression, size_t first, size_t end);
  void Range(const Expression& expression, size_t first, size_t end);
  void Item(const Expression& expression, const ExpressionItem& item);
  void Step(const ExpressionItem& item);
  bool StepAlone(Expression* expression);
  bool Update(Assignment* assignment);
  void PushVariable(const ExpressionItem& item, int file);
  void PushSymbol(const Symbol& symbol);
  // Pops the value into a variable. The path's own items are evaluated after the value.
  void Assign(Expression* target);
  void AssignInteger(Expression* target, int value);
  void PopSymbol(Symbol* symbol, const Place& place);
  void PushTarget(Expression* target);
  void JumpIf(const Expression& expression, size_t first, size_t end, bool wanted, CodeLabel* to);
  void JumpIf(Expression* expression, bool wanted, CodeLabel* to);
  bool FusedJump(const Expression& expression, size_t first, size_t end, bool wanted,
                 CodeLabel* to);
  void Encode();
  Symbol* Find(const ExpressionItem& item, int file);
  Symbol* FindTarget(const ExpressionItem& item, int file);
  CalledFunction* FindFunction(std::string_view name);
  void CallFunction(CalledFunction* function);

  // --- Generator_Tags.cpp
  void GenerateTag(Statement* statement);
  void GenerateAssign(Statement* statement);
  void GenerateArray(Statement* statement);
  void GenerateMembers(Statement* statement);
  void GenerateDimension(Statement* statement);
  void GenerateReferences(Statement* statement);
  void GenerateCapture(Statement* statement);
  void GenerateDo(Statement* statement);
  void GenerateZeph(Statement* statement);
  void GenerateToken(Statement* statement);
  void GenerateCall(Statement* statement);
  void GenerateSmtp(Statement* statement);
  void GenerateTask(Statement* statement);
  void GenerateFeatureLoop(Statement* statement, unsigned short open_word, unsigned short again);
  void GenerateReveal(Statement* statement);
  void Operands(Statement* statement, size_t count);
  void PushAttribute(Statement* statement, size_t index);
  bool IsNameList(TagId tag, std::string_view attribute) const;
  void CheckExpressionText(TagId tag, std::string_view attribute, const Expression& value);
  bool Constant(const Expression* value, int lowest, int highest, int* number);

  // --- InlineAssembly.cpp
  void GenerateAssembly(const Statement& statement);

  Diagnostics* diagnostics;
  Tree* tree;
  AssemblyProgram* program;
  const std::vector<FunctionNode>& library;
  CodeWriter code;
  Names names;
  std::unordered_map<std::string, CalledFunction> functions;  // by name in lower case
  std::vector<const FunctionNode*> late_functions;  // those of libraries, in order of first use
  std::unordered_map<std::string, const FunctionNode*> library_names;
  FunctionNode encode_function;
  std::unordered_map<std::string, MessageParameters> messages;  // by token in lower case
  std::vector<Construct> open;
  const FunctionNode* current = nullptr;  // null outside of functions
  Function* current_function = nullptr;
  std::vector<std::string_view> texts;  // all constants, for the warnings
  bool has_do = false;
  bool includes_files = false;
};

#endif
