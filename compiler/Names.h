// What the names of a page mean: local, global and system variables, fields, and names that are
// looked for at run time. docs/language.md has the rules.

#ifndef ZEPH_COMPILER_NAMES_H
#define ZEPH_COMPILER_NAMES_H

#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "compiler/Tree.h"
#include "tools/AssemblyProgram.h"

struct Symbol {
  enum class Where {
    Local,   // slot is the position in the function's table
    Global,  // in the table of the page
    System,
    Field,   // of the database alias, which may be empty
    ByName,  // looked for at run time
  };
  Where where = Where::ByName;
  int slot = 0;
  std::string name;  // without scope; of ByName as it is written
  std::string alias;
  bool assigned = false;
  bool read = false;
  Place place;  // of the first use
};

class Names {
 public:
  Names(Diagnostics* diagnostics, AssemblyProgram* program)
      : diagnostics(diagnostics), program(program) {}

  // Finds the names that the page assigns outside of functions. Called once, before the others.
  void ReadPage(const Tree& tree) { Collect(tree.body, &page_names); }
  // Begins a function, with its parameters; null is the code outside of all.
  void BeginFunction(const FunctionNode* node, Function* new_function);

  // The symbol of a name with its scope. Stays valid. A scope that does not exist is an error.
  Symbol* Find(std::string_view name, const Place& place);

  // A list of names, with the scope written before those that are local or global here. stores says
  // whether the variables are stored in or read.
  std::string ScopedList(std::string_view list, const Place& place, bool stores);

  // Warns of variables that are assigned and never read, unless their names are among the words.
  // Globals are left out if others may read them.
  void WarnOfUnread(const std::unordered_set<std::string>& words, bool globals_too, int file);

 private:
  using NameSet = std::unordered_set<std::string>;

  void Collect(const Body& body, NameSet* names);
  void CollectStatement(const Statement& statement, NameSet* names);
  void CollectSteps(const Expression& expression, NameSet* names);
  void CollectTarget(const Expression& target, NameSet* names);
  void CollectList(const Expression* list, NameSet* names);
  Symbol* Make(std::string_view name, const Place& place);
  Symbol* LocalSymbol(std::string_view name, const Place& place);
  Symbol* GlobalSymbol(std::string_view name, const Place& place);
  Symbol* SystemSymbol(std::string_view name, const Place& place);
  Symbol* New(Symbol::Where where, std::string_view name, const Place& place);

  Diagnostics* diagnostics;
  AssemblyProgram* program;
  NameSet page_names;
  NameSet local_names;
  Function* function = nullptr;
  std::deque<Symbol> symbols;
  std::unordered_map<std::string, Symbol*> found;  // by the name as it is written, in lower case
  std::unordered_map<std::string, Symbol*> locals;
  std::unordered_map<std::string, Symbol*> globals;
};

// The part of a path before its first element or member.
std::string_view PathBase(std::string_view path);

#endif
