// Reads what is inside of a tag, by the form of the tag. Tested in tests/compiler/LanguageTest.cpp
// and ErrorTest.cpp.

#include "compiler/Parser.h"

void Parser::ParseContent(ExpressionParser* source, Statement* statement) {
  bool parsed = true;
  const TagRow& row = *statement->tag;
  switch (row.form) {
    case TagForm::Nothing: break;
    case TagForm::OptionalValue:
      if (source->AtEnd()) break;
      [[fallthrough]];
    case TagForm::Value:
      statement->values.emplace_back();
      parsed = row.id == TagId::Capture ? source->ParseVariable(&statement->values[0])
                                        : source->Parse(&statement->values[0]);
      if (!parsed) statement->values.clear();
      break;
    case TagForm::Name: {
      std::string_view word;
      parsed = source->ParseWord(&word, "a name");
      if (!parsed) break;
      Expression name;
      ExpressionItem item;
      item.kind = ExpressionItem::Kind::Variable;
      item.text = word;
      name.items.push_back(item);
      statement->values.push_back(std::move(name));
      break;
    }
    case TagForm::Names: parsed = ParseNames(source, statement); break;
    case TagForm::Assignments: parsed = ParseAssignments(source, statement); break;
    case TagForm::List: parsed = ParseList(source, statement); break;
    case TagForm::Members: parsed = ParseMembers(source, statement); break;
    case TagForm::Attributes: parsed = ParseAttributes(source, statement); break;
    case TagForm::For: parsed = ParseFor(source, statement); break;
    case TagForm::Foreach: parsed = ParseForeach(source, statement); break;
    case TagForm::Function: break;
  }
  if (!parsed || source->AtEnd()) return;
  const bool takes_value = row.form == TagForm::Value || row.form == TagForm::OptionalValue;
  source->Expected(takes_value ? "an operator or '>'" : "'>'");
}

bool Parser::ParseAssignments(ExpressionParser* source, Statement* statement) {
  do {
    Assignment assignment;
    if (!source->ParseVariable(&assignment.target)) return false;
    if (!source->Take('=')) return source->Expected("'='");
    const bool is_reference = statement->tag->id == TagId::Reference;
    if (!source->Parse(&assignment.value)) return false;
    if (is_reference && !assignment.value.IsVariable()) {
      return diagnostics->Error(assignment.value.place, "expected a variable to refer to");
    }
    statement->assignments.push_back(std::move(assignment));
    if (!source->AtEnd() && !source->AtWord()) {
      return source->Expected("an operator, a variable or '>'");
    }
  } while (!source->AtEnd());
  return true;
}

// variable = e, e, ...
bool Parser::ParseList(ExpressionParser* source, Statement* statement) {
  Assignment first;
  if (!source->ParseVariable(&first.target)) return false;
  if (!source->Take('=')) return source->Expected("'='");
  statement->assignments.push_back(std::move(first));
  if (source->AtEnd() && statement->tag->id == TagId::AssignArray) return true;
  do {
    Expression value;
    if (!source->Parse(&value)) return false;
    if (statement->tag->id == TagId::ReferenceArray && !value.IsVariable()) {
      return diagnostics->Error(value.place, "expected a variable to refer to");
    }
    statement->values.push_back(std::move(value));
  } while (source->Take(','));
  return source->AtEnd() || source->Expected("an operator, ',' or '>'");
}

// variable name = e ...
bool Parser::ParseMembers(ExpressionParser* source, Statement* statement) {
  statement->assignments.emplace_back();
  if (!source->ParseVariable(&statement->assignments[0].target)) return false;
  do {
    Attribute member;
    member.place = source->Here();
    if (!source->ParseWord(&member.name, "a member's name")) return false;
    if (!source->Take('=')) return source->Expected("'='");
    if (!source->Parse(&member.value)) return false;
    statement->attributes.push_back(std::move(member));
  } while (source->AtWord());
  return true;
}

bool Parser::ParseNames(ExpressionParser* source, Statement* statement) {
  do {
    Expression name;
    if (!source->ParseVariable(&name)) return false;
    statement->values.push_back(std::move(name));
  } while (source->Take(','));
  return source->AtEnd() || source->Expected("',' or '>'");
}

// variable = e to e step n
bool Parser::ParseFor(ExpressionParser* source, Statement* statement) {
  statement->assignments.emplace_back();
  Assignment& range = statement->assignments[0];
  if (!source->ParseVariable(&range.target)) return false;
  if (!range.target.IsName()) {
    return diagnostics->Error(range.target.place, "the variable of a loop cannot have elements");
  }
  if (!source->Take('=')) return source->Expected("'='");
  if (!source->Parse(&range.value)) return false;
  if (!source->TakeWord("to")) return source->Expected("an operator or 'to'");
  statement->values.emplace_back();
  if (!source->Parse(&statement->values[0])) return false;
  if (!source->TakeWord("step")) return true;
  statement->values.emplace_back();
  if (!source->Parse(&statement->values[1])) return false;
  const Expression& step = statement->values[1];
  if (step.IsInteger() && step.items[0].number != 0) return true;
  return diagnostics->Error(step.place, "the step has to be a whole number that is not 0");
}

// variable = array, then attributes and the word "reference"
bool Parser::ParseForeach(ExpressionParser* source, Statement* statement) {
  statement->assignments.emplace_back();
  Assignment& range = statement->assignments[0];
  if (!source->ParseVariable(&range.target)) return false;
  if (!range.target.IsName()) {
    return diagnostics->Error(range.target.place, "the variable of a loop cannot have elements");
  }
  if (!source->Take('=')) return source->Expected("'='");
  if (!source->Parse(&range.value)) return false;
  if (!range.value.IsVariable()) {
    return diagnostics->Error(range.value.place, "expected a variable with an array");
  }
  while (source->AtWord()) {
    if (source->TakeWord("reference")) {
      statement->flag = true;
    } else if (!ParseAttribute(source, statement)) {
      return false;
    }
  }
  return true;
}

bool Parser::ParseAttributes(ExpressionParser* source, Statement* statement) {
  while (source->AtWord()) {
    if (!ParseAttribute(source, statement)) return false;
  }
  if (!source->AtEnd()) return source->Expected("an operator, an attribute or '>'");
  return CheckRequired(statement);
}

bool Parser::ParseAttribute(ExpressionParser* source, Statement* statement) {
  const TagRow& row = *statement->tag;
  Attribute attribute;
  attribute.place = source->Here();
  if (!source->ParseWord(&attribute.name, "an attribute")) return false;
  attribute.index = row.Find(attribute.name);
  // The parameters of a message have names of their own.
  if (attribute.index < 0 && row.id != TagId::LocalizedToken) {
    std::vector<std::string_view> names;
    for (const TagAttribute& known : row.attributes) names.push_back(known.name);
    return diagnostics->Error(
        attribute.place, "'" + std::string(row.name) + "' has no attribute '" +
                             std::string(attribute.name) + "'" + DidYouMean(attribute.name, names));
  }
  if (statement->attributes.size() >= kMostAttributes) {
    return diagnostics->Error(attribute.place, "a tag has at most 255 attributes");
  }
  for (const Attribute& other : statement->attributes) {
    if (SameName(other.name, attribute.name)) {
      return diagnostics->Error(
          attribute.place, "the attribute '" + std::string(attribute.name) + "' is given twice");
    }
  }
  const TagAttribute* known =
      attribute.index < 0 ? nullptr : &row.attributes[static_cast<size_t>(attribute.index)];
  const bool has_value = source->Take('=');
  if (!has_value && !(known && known->is_word)) {
    return source->Expected("'=' and a value for '" + std::string(attribute.name) + "'");
  }
  if (has_value) {
    const bool parsed = known && known->is_variable ? source->ParseVariable(&attribute.value)
                                                    : source->Parse(&attribute.value);
    if (!parsed) return false;
  } else {
    ExpressionItem item;
    item.kind = ExpressionItem::Kind::Integer;
    item.number = 1;
    item.offset = attribute.place.offset;
    attribute.value.items.push_back(item);
    attribute.value.place = attribute.place;
  }
  statement->attributes.push_back(std::move(attribute));
  return true;
}

bool Parser::CheckRequired(Statement* statement) {
  const TagRow& row = *statement->tag;
  for (size_t i = 0; i < row.attributes.size(); i++) {
    if (!row.attributes[i].required || statement->Find(static_cast<int>(i))) continue;
    return diagnostics->Error(
        statement->place,
        "'" + std::string(row.name) + "' needs the attribute '" + row.attributes[i].name + "'");
  }
  return true;
}
