// Values, variables and conditions. Tested in tests/compiler/ExpressionTest.cpp and CodeTest.cpp.

#include <utility>

#include "base/compiled/Function.h"
#include "base/compiled/Instructions.h"
#include "compiler/Generator.h"

namespace {

using Kind = ExpressionItem::Kind;

// A comparison: the jumps after cmpgg or cmpgi that are taken if it is true and if it is false.
struct ComparisonRow {
  unsigned short word;
  unsigned short if_true;
  unsigned short if_false;
};
constexpr ComparisonRow kComparisons[] = {
    {Instruction::eq, Instruction::jmp_eq, Instruction::jmp_ne},
    {Instruction::ne, Instruction::jmp_ne, Instruction::jmp_eq},
    {Instruction::lt, Instruction::jmp_lt, Instruction::jmp_ge},
    {Instruction::ge, Instruction::jmp_ge, Instruction::jmp_lt},
    {Instruction::le, Instruction::jmp_le, Instruction::jmp_gt},
    {Instruction::gt, Instruction::jmp_gt, Instruction::jmp_le},
};

const ComparisonRow* FindComparison(unsigned short word) {
  for (const ComparisonRow& row : kComparisons) {
    if (row.word == word) return &row;
  }
  return nullptr;
}

bool GivesInteger(unsigned short word) {
  switch (word) {
    case Instruction::op_bitand:
    case Instruction::op_bitor:
    case Instruction::bitxor:
    case Instruction::bitoc:
    case Instruction::bitsl:
    case Instruction::bitsr:
    case Instruction::mod:
    case Instruction::op_and:
    case Instruction::op_or:
    case Instruction::op_not:
    case Instruction::isnull:
    case Instruction::in:
    case Instruction::cin:
    case Instruction::ein:
    case Instruction::ecin: return true;
    default: return FindComparison(word) != nullptr;
  }
}

Place PlaceOf(const ExpressionItem& item, int file) {
  return {file, item.offset, item.length};
}

}  // namespace

bool Expression::IsWhole(size_t first, size_t end) const {
  const ExpressionItem& last = items[end - 1];
  if (static_cast<size_t>(last.base) != first) return false;
  return last.kind == Kind::Integer || (last.kind == Kind::Operator && GivesInteger(last.word));
}

bool Expression::IsSafe() const {
  const ExpressionItem& last = items.back();
  if (last.base != 0) return false;
  switch (last.kind) {
    case Kind::Integer:
    case Kind::Double:
    case Kind::Prefix:
    case Kind::Postfix: return true;
    case Kind::Operator: return last.word != Instruction::cat;
    default: return false;
  }
}

// --- Names and functions -------------------------------------------------------------------------

Symbol* Generator::Find(const ExpressionItem& item, int file) {
  return names.Find(item.text, PlaceOf(item, file));
}

// The symbol of a variable that is stored in.
Symbol* Generator::FindTarget(const ExpressionItem& item, int file) {
  Symbol* symbol = Find(item, file);
  bool assignable = false;
  if (symbol->where == Where::System && IsSystemVariable(symbol->name, &assignable) &&
      !assignable) {
    diagnostics->Error(PlaceOf(item, file),
                       "the system variable '" + symbol->name + "' cannot be assigned");
  }
  return symbol;
}

Generator::CalledFunction* Generator::FindFunction(std::string_view name) {
  const std::string key = LowerCase(name);
  auto found = functions.find(key);
  if (found != functions.end()) return &found->second;
  auto library_function = library_names.find(key);
  if (library_function == library_names.end()) return nullptr;
  const int index = static_cast<int>(tree->functions.size() + late_functions.size());
  late_functions.push_back(library_function->second);
  return &functions.emplace(key, CalledFunction{library_function->second, index, false})
              .first->second;
}

void Generator::CallFunction(CalledFunction* function) {
  function->called = true;
  const bool external = (function->node->flags & Function_External) != 0;
  // A library's function may fail. The one that encodes does not, and is in every loop.
  if (external && !SameName(function->node->name, kEncodeFunction)) code.NotePlace();
  code.Emit(Instruction::call, function->index);
  if (!external) code.ForgetPlace(includes_files);
}

void Generator::Encode() {
  CalledFunction* function = FindFunction(kEncodeFunction);
  const std::vector<Parameter>& parameters = function->node->parameters;
  if (parameters.size() != 1 || parameters[0].by_reference) {
    diagnostics->Error(function->node->place, "'" + std::string(kEncodeFunction) +
                                                  "' has to have one parameter, by value");
    return;
  }
  CallFunction(function);
}

// --- Values --------------------------------------------------------------------------------------

void Generator::Value(Expression* expression) {
  Prepare(expression);
  NoteFirst(*expression, 0, expression->items.size());
  Range(*expression, 0, expression->items.size());
}

// Notes the place before the first item if any item can fail. The machine runs common sequences of
// instructions as one, and a line between them would part them.
void Generator::NoteFirst(const Expression& expression, size_t first, size_t end) {
  const int file = expression.place.file;
  for (size_t i = first; i < end; i++) {
    const ExpressionItem& item = expression.items[i];
    bool notes = item.kind == Kind::Element || item.kind == Kind::Member;
    if (item.kind == Kind::Variable) {
      const Where where = Find(item, file)->where;
      notes = where == Where::ByName || where == Where::Field;
    } else if (item.kind == Kind::Call) {
      const CalledFunction* function = FindFunction(item.text);
      notes = function && (function->node->flags & Function_External) != 0;
    }
    if (!notes) continue;
    code.SetPlace(file, expression.items[first].offset);
    code.NotePlace();
    return;
  }
}

// Checks the calls of an expression, whose arguments come before them.
void Generator::Prepare(Expression* expression) {
  for (const ExpressionItem& item : expression->items) {
    if (item.kind != Kind::Call) continue;
    if (diagnostics->full()) return;
    const Place place = PlaceOf(item, expression->place.file);
    const std::string name(item.text);
    CalledFunction* function = FindFunction(item.text);
    if (!function) {
      std::vector<std::string_view> known;
      for (const auto& node : tree->functions) known.push_back(node->name);
      for (const FunctionNode& node : library) known.push_back(node.name);
      diagnostics->Error(place, "there is no function '" + name + "'" + DidYouMean(name, known));
      continue;
    }
    const CallArguments& arguments = expression->calls[static_cast<size_t>(item.number)];
    const std::vector<Parameter>& parameters = function->node->parameters;
    if (arguments.ends.size() != parameters.size()) {
      diagnostics->Error(place, "function '" + name + "' has " + std::to_string(parameters.size()) +
                                    (parameters.size() == 1 ? " parameter" : " parameters") +
                                    ", this call has " + std::to_string(arguments.ends.size()));
      continue;
    }
    auto first = static_cast<size_t>(arguments.first);
    for (size_t i = 0; i < parameters.size(); i++) {
      const auto end = static_cast<size_t>(arguments.ends[i]);
      if (parameters[i].by_reference) {
        if (expression->IsVariable(first, end)) {
          expression->MarkStored(end);
        } else {
          diagnostics->Error(PlaceOf(expression->items[first], expression->place.file),
                             "the parameter '" + std::string(parameters[i].name) + "' of '" + name +
                                 "' needs a variable");
        }
      }
      first = end;
    }
  }
}

void Generator::Range(const Expression& expression, size_t first, size_t end) {
  for (size_t i = first; i < end; i++) Item(expression, expression.items[i]);
}

void Generator::Item(const Expression& expression, const ExpressionItem& item) {
  const int file = expression.place.file;
  code.SetPlace(file, item.offset);
  switch (item.kind) {
    case Kind::Integer: code.Emit(Instruction::pushi, item.number); break;
    case Kind::Double: code.EmitDouble(Instruction::pushf, item.value); break;
    case Kind::Text:
      texts.push_back(item.text);
      code.PushText(item.text);
      break;
    case Kind::Variable: PushVariable(item, file); break;
    case Kind::Element:
      code.Emit(item.creates ? Instruction::elem : Instruction::elem_readonly);
      break;
    case Kind::Member:
      code.PushText(item.text);
      code.Emit(item.creates ? Instruction::memb : Instruction::memb_readonly);
      break;
    case Kind::Call:
      if (CalledFunction* function = FindFunction(item.text)) CallFunction(function);
      break;
    case Kind::Operator: code.Emit(item.word); break;
    case Kind::Prefix:
    case Kind::Postfix: Step(item); break;
  }
}

// ++ and --, as expressions at run time have them: the new value, or the old one as a number.
void Generator::Step(const ExpressionItem& item) {
  code.Emit(Instruction::dup);
  if (item.kind == Kind::Postfix) {
    code.Emit(Instruction::pushi, 0);
    code.Emit(Instruction::add);
    code.Emit(Instruction::swap);
    code.Emit(Instruction::dup);
  }
  code.Emit(Instruction::pushi, 1);
  code.Emit(item.word);
  if (item.kind == Kind::Prefix) {
    code.Emit(Instruction::dup);
    code.Emit(Instruction::swapn, 0, 2);
  } else {
    code.Emit(Instruction::swap);
  }
  code.Emit(Instruction::store);
}

// ++ or -- whose value no one needs. False, with nothing done, if the expression is another one.
bool Generator::StepAlone(Expression* expression) {
  const ExpressionItem step = expression->items.back();
  const bool is_step = step.kind == Kind::Prefix || step.kind == Kind::Postfix;
  if (!is_step || step.base != 0) return false;
  expression->items.pop_back();
  const bool name = expression->IsName();
  Symbol* symbol = FindTarget(expression->items[0], expression->place.file);
  symbol->assigned = true;
  Value(expression);
  if (!name) code.Emit(Instruction::dup);
  code.Emit(Instruction::pushi, 1);
  code.Emit(step.word);
  if (name) {
    PopSymbol(symbol, expression->place);
  } else {
    code.Emit(Instruction::swap);
    code.Emit(Instruction::store);
  }
  return true;
}

// A path that is set to an operation on itself, such as a:b = a:b + 1, is looked up once. False,
// with nothing done, if the assignment is another one.
bool Generator::Update(Assignment* assignment) {
  const std::vector<ExpressionItem>& path = assignment->target.items;
  const std::vector<ExpressionItem>& value = assignment->value.items;
  const size_t length = path.size();
  if (length < 2 || value.size() < length + 2 || value.back().kind != Kind::Operator) return false;
  // The right side of the operator has to be all that is between the path and the operator.
  if (value.back().base != 0 || value[value.size() - 2].base != static_cast<int>(length)) {
    return false;
  }
  for (size_t i = 0; i + 1 < value.size(); i++) {
    const ExpressionItem& item = value[i];
    // What these do must not happen before the path is looked up, or only once.
    if (item.kind == Kind::Call || item.kind == Kind::Prefix || item.kind == Kind::Postfix) {
      return false;
    }
    if (i >= length) continue;
    const ExpressionItem& other = path[i];
    if (item.kind != other.kind || item.word != other.word || item.number != other.number ||
        item.value != other.value || !SameName(item.text, other.text)) {
      return false;
    }
    if (item.kind == Kind::Text && item.text != other.text) return false;
  }
  NoteFirst(assignment->target, 0, length);
  PushTarget(&assignment->target);
  FindTarget(path[0], assignment->target.place.file)->read = true;
  code.Emit(Instruction::dup);
  Range(assignment->value, length, value.size());
  code.Emit(Instruction::swap);
  code.Emit(Instruction::store);
  return true;
}

void Generator::PushVariable(const ExpressionItem& item, int file) {
  Symbol* symbol = Find(item, file);
  symbol->read = true;
  PushSymbol(*symbol);
}

void Generator::PushSymbol(const Symbol& symbol) {
  switch (symbol.where) {
    case Where::Local: code.Emit(Instruction::pushl, symbol.slot); break;
    case Where::Global: code.Emit(Instruction::pushg, symbol.slot); break;
    case Where::System: code.Emit(Instruction::pushs, symbol.slot); break;
    case Where::Field:
      if (symbol.alias.empty()) {
        code.Emit(Instruction::pushnc, program->Intern("d." + symbol.name));
      } else {
        code.Emit(Instruction::pushdc, program->Intern(symbol.alias), program->Intern(symbol.name));
      }
      break;
    case Where::ByName: code.Emit(Instruction::pushnc, program->Intern(symbol.name)); break;
  }
}

void Generator::PopSymbol(Symbol* symbol, const Place& place) {
  code.SetPlace(place.file, place.offset);
  symbol->assigned = true;
  switch (symbol->where) {
    case Where::Local: code.Emit(Instruction::popl, symbol->slot); break;
    case Where::Global: code.Emit(Instruction::popg, symbol->slot); break;
    case Where::System: code.Emit(Instruction::pops, symbol->slot); break;
    case Where::Field:
      code.Emit(Instruction::popdc, program->Intern(symbol->alias), program->Intern(symbol->name));
      break;
    case Where::ByName: code.Emit(Instruction::popnc, program->Intern(symbol->name)); break;
  }
}

// Pushes a variable that is to be stored in, or bound.
void Generator::PushTarget(Expression* target) {
  Prepare(target);
  target->MarkStored(target->items.size());
  Symbol* symbol = FindTarget(target->items[0], target->place.file);
  symbol->assigned = true;
  const bool was_read = symbol->read;
  Range(*target, 0, target->items.size());
  symbol->read = was_read;
}

// Sets a variable to an integer, which may be one instruction.
void Generator::AssignInteger(Expression* target, int value) {
  if (target->IsName()) {
    Symbol* symbol = FindTarget(target->items[0], target->place.file);
    if (symbol->where == Where::Global) {
      symbol->assigned = true;
      code.Emit(Instruction::storegi, symbol->slot, value);
      return;
    }
  }
  code.Emit(Instruction::pushi, value);
  Assign(target);
}

void Generator::Assign(Expression* target) {
  if (target->IsName()) {
    PopSymbol(FindTarget(target->items[0], target->place.file), target->place);
    return;
  }
  PushTarget(target);
  code.Emit(Instruction::store);
}

// --- Conditions ----------------------------------------------------------------------------------

void Generator::JumpIf(Expression* expression, bool wanted, CodeLabel* to) {
  Prepare(expression);
  NoteFirst(*expression, 0, expression->items.size());
  JumpIf(*expression, 0, expression->items.size(), wanted, to);
}

// Jumps if the truth of the items is the wanted one.
void Generator::JumpIf(const Expression& expression, size_t first, size_t end, bool wanted,
                       CodeLabel* to) {
  // NOT exchanges the jumps.
  while (end - first > 1 && expression.items[end - 1].kind == Kind::Operator &&
         expression.items[end - 1].word == Instruction::op_not &&
         static_cast<size_t>(expression.items[end - 1].base) == first) {
    wanted = !wanted;
    end--;
  }
  if (FusedJump(expression, first, end, wanted, to)) return;
  Range(expression, first, end);
  // The jumps look at an integer, and "0.5" or "yes" are true.
  if (!expression.IsWhole(first, end)) {
    code.Emit(Instruction::op_not);
    wanted = !wanted;
  }
  code.Jump(wanted ? Instruction::jmp_ne : Instruction::jmp_eq, to);
}

// A comparison of a global variable with an integer or another global variable.
bool Generator::FusedJump(const Expression& expression, size_t first, size_t end, bool wanted,
                          CodeLabel* to) {
  if (end - first != 3 || expression.items[first + 2].kind != Kind::Operator) return false;
  const ExpressionItem* left = &expression.items[first];
  const ExpressionItem* right = &expression.items[first + 1];
  const ComparisonRow* row = FindComparison(expression.items[first + 2].word);
  if (!row) return false;
  // Only these two are the same with their sides exchanged: everything else is false or true for a
  // number that is none, whichever side it is on.
  const bool symmetric = row->word == Instruction::eq || row->word == Instruction::ne;
  if (left->kind == Kind::Integer && symmetric) std::swap(left, right);
  if (left->kind != Kind::Variable) return false;
  const int file = expression.place.file;
  Symbol* variable = Find(*left, file);
  if (variable->where != Where::Global) return false;
  code.SetPlace(file, left->offset);
  if (right->kind == Kind::Integer) {
    code.Emit(Instruction::cmpgi, variable->slot, right->number);
  } else {
    if (right->kind != Kind::Variable) return false;
    Symbol* other = Find(*right, file);
    if (other->where != Where::Global) return false;
    other->read = true;
    code.Emit(Instruction::cmpgg, variable->slot, other->slot);
  }
  variable->read = true;
  code.Jump(wanted ? row->if_true : row->if_false, to);
  return true;
}
