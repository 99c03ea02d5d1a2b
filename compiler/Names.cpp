// Resolves names. Tested in tests/compiler/NamesTest.cpp.

#include "compiler/Names.h"

#include <algorithm>
#include <functional>
#include <vector>

#include "base/compiled/VariableHash.h"
#include "base/core/ascii.h"

namespace {

// The machine finds variables in chains, which have to stay short.
constexpr size_t kMostNames = 65535;

bool IsPlain(std::string_view name) {
  return name.find('.') == std::string_view::npos;
}

std::string_view Trimmed(std::string_view text) {
  auto white = [](char c) { return zp_iswhite(static_cast<unsigned char>(c)); };
  while (!text.empty() && white(text.front())) text.remove_prefix(1);
  while (!text.empty() && white(text.back())) text.remove_suffix(1);
  return text;
}

// Calls a function with each name of a list that is not empty.
void ForEachName(std::string_view list, const std::function<void(std::string_view)>& use) {
  for (size_t at = 0; at <= list.size();) {
    const size_t end = std::min(list.find(',', at), list.size());
    const std::string_view name = Trimmed(list.substr(at, end - at));
    if (!name.empty()) use(name);
    at = end + 1;
  }
}

bool IsName(std::string_view name) {
  if (name.empty() || zp_isdigit(static_cast<unsigned char>(name[0]))) return false;
  return std::all_of(name.begin(), name.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return zp_isalpha(byte) || zp_isdigit(byte) || c == '_';
  });
}

}  // namespace

std::string_view PathBase(std::string_view path) {
  return path.substr(0, std::min(path.find_first_of(":["), path.size()));
}

// --- Assigned names ------------------------------------------------------------------------------

void Names::Collect(const Body& body, NameSet* names) {
  for (const auto& statement : body) CollectStatement(*statement, names);
}

void Names::CollectStatement(const Statement& statement, NameSet* names) {
  for (const Assignment& assignment : statement.assignments) {
    CollectTarget(assignment.target, names);
    CollectSteps(assignment.target, names);
    CollectSteps(assignment.value, names);
  }
  for (const Expression& value : statement.values) CollectSteps(value, names);
  for (const Attribute& attribute : statement.attributes) {
    const bool is_variable =
        attribute.index >= 0 && statement.tag &&
        statement.tag->attributes[static_cast<size_t>(attribute.index)].is_variable;
    if (is_variable) CollectTarget(attribute.value, names);
    CollectSteps(attribute.value, names);
  }
  if (statement.tag) {
    switch (statement.tag->id) {
      case TagId::Capture:
      case TagId::Dimension:
        for (const Expression& value : statement.values) CollectTarget(value, names);
        break;
      case TagId::Import:
        CollectList(statement.Find(2), names);
        // The machine counts in this one only if the page knows it.
        page_names.insert("recno");
        break;
      default: break;
    }
  }
  for (const Branch& branch : statement.branches) {
    CollectSteps(branch.condition, names);
    Collect(branch.body, names);
  }
}

// ++ and -- assign, too.
void Names::CollectSteps(const Expression& expression, NameSet* names) {
  using Kind = ExpressionItem::Kind;
  for (const ExpressionItem& item : expression.items) {
    if (item.kind != Kind::Prefix && item.kind != Kind::Postfix) continue;
    const std::string_view name = expression.items[static_cast<size_t>(item.base)].text;
    if (IsPlain(name)) names->insert(LowerCase(name));
  }
}

void Names::CollectTarget(const Expression& target, NameSet* names) {
  if (target.empty()) return;
  const std::string_view name = target.items[0].text;
  if (IsPlain(name)) names->insert(LowerCase(name));
}

void Names::CollectList(const Expression* list, NameSet* names) {
  if (!list || !list->IsText()) return;
  ForEachName(list->items[0].text, [names](std::string_view path) {
    const std::string_view name = PathBase(path);
    if (IsName(name)) names->insert(LowerCase(name));
  });
}

// --- Symbols -------------------------------------------------------------------------------------

void Names::BeginFunction(const FunctionNode* node, Function* new_function) {
  function = new_function;
  found.clear();
  locals.clear();
  local_names.clear();
  if (!node) return;
  Collect(node->body, &local_names);
  bool assignable = false;
  for (auto name = local_names.begin(); name != local_names.end();) {
    name = IsSystemVariable(*name, &assignable) ? local_names.erase(name) : std::next(name);
  }
  for (const Parameter& parameter : node->parameters) {
    local_names.insert(LowerCase(parameter.name));
    Symbol* symbol = LocalSymbol(parameter.name, node->place);
    // A parameter belongs to the function's callers, who need not know whether it is used.
    symbol->read = true;
  }
}

Symbol* Names::Find(std::string_view name, const Place& place) {
  std::string key = LowerCase(name);
  auto known = found.find(key);
  if (known != found.end()) return known->second;
  Symbol* symbol = Make(name, place);
  found.emplace(std::move(key), symbol);
  return symbol;
}

Symbol* Names::Make(std::string_view name, const Place& place) {
  const char* rest = nullptr;
  const char* database = nullptr;
  int rest_length = 0;
  int database_length = 0;
  const int scope = VariableHash::Scope(name.data(), static_cast<int>(name.size()), &rest,
                                        &rest_length, &database, &database_length);
  const std::string_view bare(rest, static_cast<size_t>(rest_length));
  if (scope != ScopeNone && !IsName(bare)) {
    diagnostics->Error(place, "'" + std::string(name) + "' is no name of a variable");
    return New(Symbol::Where::ByName, name, place);
  }
  switch (scope) {
    case ScopeLocal: return function ? LocalSymbol(bare, place) : GlobalSymbol(bare, place);
    case ScopeGlobal: return GlobalSymbol(bare, place);
    case ScopeSystem: return SystemSymbol(bare, place);
    case ScopeDatabase: {
      Symbol* symbol = New(Symbol::Where::Field, bare, place);
      symbol->alias.assign(database ? database : "", static_cast<size_t>(database_length));
      return symbol;
    }
    default: break;
  }
  if (!IsPlain(name)) {
    const std::string_view word = name.substr(0, name.find('.'));
    diagnostics->Error(place, "there is no scope '" + std::string(word) + "'" +
                                  DidYouMean(word, {"local", "global", "system", "database"}));
    return New(Symbol::Where::ByName, name, place);
  }
  const std::string key = LowerCase(name);
  bool assignable = false;
  if (function && local_names.count(key) > 0) return LocalSymbol(name, place);
  if (IsSystemVariable(name, &assignable)) return SystemSymbol(name, place);
  if (page_names.count(key) > 0) return GlobalSymbol(name, place);
  return New(Symbol::Where::ByName, name, place);
}

Symbol* Names::New(Symbol::Where where, std::string_view name, const Place& place) {
  if (symbols.size() >= kMostNames && !diagnostics->full()) {
    diagnostics->Error(place, "there are more than 65535 names of variables");
  }
  Symbol symbol;
  symbol.where = where;
  symbol.name = name;
  symbol.place = place;
  return &symbols.emplace_back(std::move(symbol));
}

Symbol* Names::LocalSymbol(std::string_view name, const Place& place) {
  Symbol*& symbol = locals[LowerCase(name)];
  if (!symbol) {
    symbol = New(Symbol::Where::Local, name, place);
    symbol->slot = program->Variable(&function->variables(), name);
  }
  return symbol;
}

Symbol* Names::GlobalSymbol(std::string_view name, const Place& place) {
  Symbol*& symbol = globals[LowerCase(name)];
  if (!symbol) {
    symbol = New(Symbol::Where::Global, name, place);
    symbol->slot = program->Variable(program->globals.get(), name);
  }
  return symbol;
}

Symbol* Names::SystemSymbol(std::string_view name, const Place& place) {
  Symbol* symbol = New(Symbol::Where::System, name, place);
  symbol->slot = program->Variable(program->system.get(), name);
  return symbol;
}

std::string Names::ScopedList(std::string_view list, const Place& place, bool stores) {
  std::string scoped;
  ForEachName(list, [this, &scoped, &place, stores](std::string_view path) {
    if (!scoped.empty()) scoped += ", ";
    const std::string_view name = PathBase(path);
    if (IsName(name)) {
      Symbol* symbol = Find(name, place);
      if (stores) {
        symbol->assigned = true;
      } else {
        symbol->read = true;
      }
      if (symbol->where == Symbol::Where::Local) scoped += "l.";
      if (symbol->where == Symbol::Where::Global) scoped += "g.";
    }
    scoped += path;
  });
  return scoped;
}

void Names::WarnOfUnread(const std::unordered_set<std::string>& words, bool globals_too, int file) {
  for (const Symbol& symbol : symbols) {
    const bool is_local = symbol.where == Symbol::Where::Local;
    const bool is_global = symbol.where == Symbol::Where::Global && globals_too;
    if ((!is_local && !is_global) || !symbol.assigned || symbol.read) continue;
    if (symbol.place.file != file || words.count(LowerCase(symbol.name)) > 0) continue;
    diagnostics->Warning(symbol.place, "'" + symbol.name + "' is assigned and never read");
  }
}
