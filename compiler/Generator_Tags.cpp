// The tags that are neither decisions nor loops of their own. Tested in
// tests/compiler/LanguageTest.cpp and CodeTest.cpp.

#include <algorithm>

#include "base/compiled/Instructions.h"
#include "base/host/TagErrors.h"
#include "base/host/TagLookup.h"
#include "compiler/ExpressionParser.h"
#include "compiler/Generator.h"

namespace {

// The instruction of a tag that pushes its attributes, in their order, and does one thing; 0 for
// the others.
unsigned short InstructionOf(TagId tag) {
  switch (tag) {
    case TagId::Export: return Instruction::op_export;
    case TagId::Hide: return Instruction::hide;
    case TagId::Close: return Instruction::dbclose;
    case TagId::Skip: return Instruction::dbskip;
    case TagId::Go: return Instruction::dbgo;
    case TagId::Primary: return Instruction::dbprimary;
    case TagId::Find: return Instruction::dbfind;
    case TagId::SetIndex: return Instruction::dbsetindex;
    case TagId::Update: return Instruction::dbupdate;
    case TagId::Delete: return Instruction::dbdelete;
    case TagId::Undelete: return Instruction::dbundelete;
    case TagId::Add: return Instruction::dbadd;
    case TagId::MakeIndex: return Instruction::dbmakeindex;
    case TagId::Pack: return Instruction::dbpack;
    case TagId::Reindex: return Instruction::dbreindex;
    case TagId::Create: return Instruction::dbcreate;
    case TagId::OpenView: return Instruction::dbopenview;
    case TagId::CloseView: return Instruction::dbcloseview;
    case TagId::Query: return Instruction::dbquery;
    case TagId::Filter: return Instruction::dbfilter;
    case TagId::Commit: return Instruction::dbcommit;
    case TagId::Rollback: return Instruction::dbrollback;
    case TagId::Transact: return Instruction::dbtransaction;
    case TagId::DBCommand: return Instruction::dbcommand;
    default: return 0;
  }
}

// What an attribute is if it is left out: an integer, or else a text.
struct DefaultRow {
  TagId tag;
  std::string_view attribute;
  bool is_integer;
  int number;
  std::string_view text;
};
constexpr DefaultRow kDefaults[] = {
    {TagId::Skip, "count", true, 1, ""},         {TagId::Find, "exact", true, 0, ""},
    {TagId::Smtp, "port", true, 25, ""},         {TagId::Call, "timeout", true, 0, ""},
    {TagId::Call, "method", false, 0, "GET"},    {TagId::Import, "delimiter", false, 0, ","},
    {TagId::Export, "delimiter", false, 0, ","},
};

// The numbers of arguments that requests can have.
constexpr size_t kCallCounts[] = {5, 8, 9, 10, 11};
constexpr size_t kFewMailArguments = 5;

}  // namespace

void Generator::GenerateTag(Statement* statement) {
  const TagId tag = statement->tag->id;
  if (const unsigned short word = InstructionOf(tag)) {
    Operands(statement, statement->tag->attributes.size());
    code.Emit(word);
    return;
  }
  switch (tag) {
    case TagId::Assign: GenerateAssign(statement); break;
    case TagId::Eval:
      if (statement->values.empty() || StepAlone(&statement->values[0])) break;
      Value(&statement->values[0]);
      code.Emit(Instruction::pop);
      break;
    case TagId::AssignArray:
    case TagId::ReferenceArray: GenerateArray(statement); break;
    case TagId::Member: GenerateMembers(statement); break;
    case TagId::Dimension: GenerateDimension(statement); break;
    case TagId::Reference: GenerateReferences(statement); break;
    case TagId::Capture: GenerateCapture(statement); break;
    case TagId::Exit: code.Emit(Instruction::exit); break;
    case TagId::Do: GenerateDo(statement); break;
    case TagId::Zeph: GenerateZeph(statement); break;
    case TagId::LocalizedToken: GenerateToken(statement); break;
    case TagId::Call: GenerateCall(statement); break;
    case TagId::Smtp: GenerateSmtp(statement); break;
    case TagId::Asynchronous:
    case TagId::Asynchronous2: GenerateTask(statement); break;
    case TagId::RevealStructure: GenerateReveal(statement); break;
    case TagId::Assembly: GenerateAssembly(*statement); break;
    case TagId::Import: {
      const bool filtered = statement->Find(3) != nullptr;
      names.Find("g.recno", statement->place)->read = true;
      Operands(statement, filtered ? 4 : 3);
      GenerateFeatureLoop(statement, filtered ? Instruction::importf : Instruction::import,
                          Instruction::import_loop);
      break;
    }
    case TagId::Pop:
      Operands(statement, statement->tag->attributes.size());
      GenerateFeatureLoop(statement, Instruction::pop3, Instruction::pop3loop);
      break;
    case TagId::Commerce:
      Operands(statement, statement->tag->attributes.size());
      GenerateFeatureLoop(statement, Instruction::op_commerce, Instruction::op_commerce_loop);
      break;
    case TagId::PopDelete: {
      const bool inside = std::any_of(open.begin(), open.end(), [](const Construct& construct) {
        return construct.tag == TagId::Pop;
      });
      if (inside) {
        code.Emit(Instruction::pop3delete);
      } else {
        diagnostics->Error(statement->place, "'<ZpPOPDELETE>' is outside of a '<ZpPOP>'");
      }
      break;
    }
    case TagId::Lockfile:
      Operands(statement, 1);
      code.Emit(Instruction::lockfile);
      GenerateLoopBody(statement, tag, nullptr, nullptr, 0);
      code.Emit(Instruction::lockfile_end);
      break;
    case TagId::Open: {
      const bool extended = statement->Find(6) != nullptr;
      Operands(statement, extended ? 7 : 6);
      code.Emit(extended ? Instruction::dbopen1 : Instruction::dbopen);
      break;
    }
    default: break;
  }
}

// --- Attributes ----------------------------------------------------------------------------------

// Pushes the first attributes, in the order of the tag.
void Generator::Operands(Statement* statement, size_t count) {
  for (size_t i = 0; i < count; i++) PushAttribute(statement, i);
}

// Whether an attribute is a list of variables.
bool Generator::IsNameList(TagId tag, std::string_view attribute) const {
  return tag != TagId::Create && (attribute == "fields" || attribute == "files");
}

void Generator::PushAttribute(Statement* statement, size_t index) {
  const TagRow& row = *statement->tag;
  const std::string& name = row.attributes[index].name;
  Expression* value = statement->Find(static_cast<int>(index));
  if (value && value->IsText() && IsNameList(row.id, name)) {
    code.SetPlace(value->place.file, value->place.offset);
    code.PushText(names.ScopedList(value->items[0].text, value->place, row.id == TagId::Import));
    return;
  }
  if (value) {
    CheckExpressionText(row.id, name, *value);
    Value(value);
    return;
  }
  for (const DefaultRow& missing : kDefaults) {
    if (missing.tag != row.id || missing.attribute != name) continue;
    if (missing.is_integer) {
      code.Emit(Instruction::pushi, missing.number);
    } else {
      code.PushText(missing.text);
    }
    return;
  }
  code.PushText("");
}

// An attribute whose text is an expression is read now, so that a mistake in it is found before the
// page runs. Its names and functions are those of the run. A text with a backslash before a quote
// is left out: its bytes are not at their places in the source.
void Generator::CheckExpressionText(TagId tag, std::string_view attribute,
                                    const Expression& value) {
  const bool is_expression = attribute == "filter" || attribute == "call" ||
                             (attribute == "key" && tag == TagId::MakeIndex);
  if (!is_expression || !value.IsText()) return;
  const ExpressionItem& text = value.items[0];
  if (text.length != static_cast<int>(text.text.size()) + 2) return;
  ExpressionParser source(diagnostics, tree, value.place.file, text.offset + 1,
                          text.offset + 1 + static_cast<int>(text.text.size()));
  if (source.AtEnd()) return;
  Expression expression;
  if (source.Parse(&expression) && !source.AtEnd()) source.Expected("an operator");
}

// The value of an attribute that has to be an integer; -1 is left for one that is not there.
bool Generator::Constant(const Expression* value, int lowest, int highest, int* number) {
  if (!value) return true;
  const bool fits =
      value->IsInteger() && value->items[0].number >= lowest && value->items[0].number <= highest;
  if (!fits) {
    return diagnostics->Error(value->place, "this has to be a number from " +
                                                std::to_string(lowest) + " to " +
                                                std::to_string(highest));
  }
  *number = value->items[0].number;
  return true;
}

// --- Variables -----------------------------------------------------------------------------------

void Generator::GenerateAssign(Statement* statement) {
  for (Assignment& assignment : statement->assignments) {
    if (Update(&assignment)) continue;
    const Expression& target = assignment.target;
    NoteFirst(target, 0, target.items.size());
    if (assignment.value.IsInteger()) {
      AssignInteger(&assignment.target, assignment.value.items[0].number);
    } else {
      Value(&assignment.value);
      Assign(&assignment.target);
    }
  }
}

void Generator::GenerateArray(Statement* statement) {
  if (statement->assignments.empty()) return;
  Expression& target = statement->assignments[0].target;
  const bool references = statement->tag->id == TagId::ReferenceArray;
  code.PushText("");
  Assign(&target);
  int position = 0;
  for (Expression& value : statement->values) {
    if (references) {
      Prepare(&value);
      value.MarkStored(value.items.size());
    }
    Value(&value);
    PushTarget(&target);
    code.Emit(Instruction::pushi, ++position);
    code.Emit(Instruction::elem);
    code.Emit(references ? Instruction::refer : Instruction::store);
  }
}

void Generator::GenerateMembers(Statement* statement) {
  if (statement->assignments.empty()) return;
  for (Attribute& member : statement->attributes) {
    Value(&member.value);
    PushTarget(&statement->assignments[0].target);
    code.PushText(member.name);
    code.Emit(Instruction::memb);
    code.Emit(Instruction::store);
  }
}

void Generator::GenerateDimension(Statement* statement) {
  for (Expression& name : statement->values) {
    if (name.IsName()) {
      // The declaration itself is neither a read nor a write.
      Find(name.items[0], name.place.file);
      continue;
    }
    PushTarget(&name);
    code.Emit(Instruction::pop);
  }
}

void Generator::GenerateReferences(Statement* statement) {
  for (Assignment& assignment : statement->assignments) {
    assignment.value.MarkStored(assignment.value.items.size());
    Value(&assignment.value);
    Expression& target = assignment.target;
    if (!target.IsName()) {
      PushTarget(&target);
      code.Emit(Instruction::refer);
      continue;
    }
    Symbol* symbol = FindTarget(target.items[0], target.place.file);
    // What it refers to may be read instead.
    symbol->read = true;
    switch (symbol->where) {
      case Where::Local: code.Emit(Instruction::poprl, symbol->slot); break;
      case Where::Global: code.Emit(Instruction::poprg, symbol->slot); break;
      default:
        diagnostics->Error(target.place, "only a local or global variable can be a reference");
    }
  }
}

void Generator::GenerateCapture(Statement* statement) {
  if (statement->values.empty()) return;
  PushTarget(&statement->values[0]);
  code.Emit(Instruction::capture);
  GenerateLoopBody(statement, TagId::Capture, nullptr, nullptr, 0);
  code.Emit(Instruction::capture_end);
}

// --- Other files, settings, messages -------------------------------------------------------------

void Generator::GenerateDo(Statement* statement) {
  has_do = true;
  PushAttribute(statement, 0);
  Expression* into = statement->Find(2);
  if (!statement->Find(1)) {
    if (into) diagnostics->Error(into->place, "'into' needs the attribute 'call'");
    code.Emit(Instruction::op_do_file);
    return;
  }
  PushAttribute(statement, 1);
  code.Emit(Instruction::op_do_function);
  if (into) {
    Assign(into);
  } else {
    code.Emit(Instruction::pop);
  }
}

void Generator::GenerateZeph(Statement* statement) {
  const Expression* tag = statement->Find(0);
  int show = -1, stop = -1, errors = -1, compress = -1;
  if (!Constant(statement->Find(1), 0, 1, &show) || !Constant(statement->Find(2), 0, 1, &stop) ||
      !Constant(statement->Find(3), 0, 1, &errors) ||
      !Constant(statement->Find(5), 0, 2, &compress)) {
    return;
  }
  if (tag) {
    const std::string name(tag->IsText() ? tag->items[0].text : std::string_view());
    const TagKeyword* keyword = TagLookup().Lookup(name.data(), static_cast<int>(name.size()));
    if (!keyword) {
      diagnostics->Error(tag->place,
                         "there is no tag '" + name + "'" + DidYouMean(name, TagNames()));
      return;
    }
    int settings = original_tag_default_errorsettings[keyword->tag].settings;
    if (show >= 0) settings = (settings & ~TagError_Display) | (show ? TagError_Display : 0);
    if (stop >= 0) settings = (settings & ~TagError_Fatal) | (stop ? TagError_Fatal : 0);
    code.Emit(Instruction::tagerror, keyword->tag, settings);
  } else if (show >= 0 || stop >= 0) {
    diagnostics->Error(statement->place, "'show' and 'stop' need the attribute 'tag'");
  }
  // Bit 2 is the one that lets messages of tags through.
  if (errors >= 0) code.Emit(Instruction::erroutput, errors ? 7 : 3);
  if (Expression* prefix = statement->Find(4)) {
    Value(prefix);
    code.Emit(Instruction::op_errmsg);
  }
  if (compress < 0) return;
  code.SetCompressed(compress > 0);
  code.Emit(Instruction::stdoutput, compress);
}

void Generator::GenerateToken(Statement* statement) {
  Expression* token = statement->Find(0);
  if (!token) return;
  const std::string name(token->IsText() ? token->items[0].text : std::string_view());
  auto found = messages.find(LowerCase(name));
  if (found == messages.end()) {
    std::vector<std::string_view> known;
    for (const MessageNode& message : tree->messages) known.push_back(message.token);
    diagnostics->Error(token->place,
                       "there is no message '" + name + "'" + DidYouMean(name, known));
    return;
  }
  for (Attribute& attribute : statement->attributes) {
    if (attribute.index >= 0) continue;
    auto parameter = found->second.find(LowerCase(attribute.name));
    if (parameter == found->second.end()) {
      std::vector<std::string_view> known;
      for (const auto& [spelled, use] : found->second) known.push_back(spelled);
      diagnostics->Error(attribute.place, "the message '" + name + "' has no parameter '" +
                                              std::string(attribute.name) + "'" +
                                              DidYouMean(attribute.name, known));
      continue;
    }
    Value(&attribute.value);
    const bool safe = attribute.value.IsSafe();
    const auto [encoded, plain] = parameter->second;
    if (encoded && plain) code.Emit(Instruction::dup);
    if (encoded) {
      if (!safe) Encode();
      code.Emit(Instruction::poplvnc, program->Intern(std::string(attribute.name) + "&"));
    }
    if (plain) code.Emit(Instruction::poplvnc, program->Intern(attribute.name));
  }
  const int id = program->Intern(name);
  code.SetPlace(statement->place.file, statement->place.offset);
  if (Expression* into = statement->Find(1)) {
    code.Emit(Instruction::localizev, id);
    Assign(into);
  } else {
    code.Emit(Instruction::localize, id);
  }
}

void Generator::GenerateReveal(Statement* statement) {
  const bool to_table = statement->Find(2) != nullptr;
  Expression* into = statement->Find(3);
  if (to_table == (into != nullptr)) {
    diagnostics->Error(statement->place, "'ZpREVEALSTRUCTURE' needs either 'path' or 'into'");
    return;
  }
  Operands(statement, to_table ? 3 : 2);
  if (into) PushTarget(into);
  code.Emit(to_table ? Instruction::dbrevealstructuredb : Instruction::dbrevealstructureagg);
}

// --- Network, mail, tasks ------------------------------------------------------------------------

// A loop whose state the machine keeps: opening it skips the body if there is nothing to do.
void Generator::GenerateFeatureLoop(Statement* statement, unsigned short open_word,
                                    unsigned short again) {
  CodeLabel body, next, stop;
  code.SetPlace(statement->place.file, statement->place.offset);
  code.Jump(open_word, &stop);
  code.PlaceLabel(&body);
  GenerateLoopBody(statement, statement->tag->id, &stop, &next, 0);
  code.PlaceLabel(&next);
  code.SetPlace(statement->place.file, statement->place.offset);
  code.Jump(again, &body);
  code.PlaceLabel(&stop);
}

void Generator::GenerateCall(Statement* statement) {
  size_t count = 0;
  for (const Attribute& attribute : statement->attributes) {
    count = std::max(count, static_cast<size_t>(attribute.index) + 1);
  }
  count = *std::lower_bound(std::begin(kCallCounts), std::end(kCallCounts), count);
  Operands(statement, count);
  if (count == 5 || count == 8) {
    GenerateFeatureLoop(statement, count == 5 ? Instruction::op_http : Instruction::op_http8,
                        Instruction::op_http_loop);
    return;
  }
  CodeLabel body, next, stop;
  code.SetPlace(statement->place.file, statement->place.offset);
  code.Jump(Instruction::op_httpn, &stop, static_cast<int>(count));
  code.PlaceLabel(&body);
  GenerateLoopBody(statement, TagId::Call, &stop, &next, 0);
  code.PlaceLabel(&next);
  code.Jump(Instruction::op_http_loop, &body);
  code.PlaceLabel(&stop);
}

void Generator::GenerateSmtp(Statement* statement) {
  size_t count = kFewMailArguments;
  for (const Attribute& attribute : statement->attributes) {
    count = std::max(count, static_cast<size_t>(attribute.index) + 1);
  }
  Operands(statement, count);
  CodeLabel end;
  code.SetPlace(statement->place.file, statement->place.offset);
  if (count == kFewMailArguments) {
    code.Jump(Instruction::op_smtp, &end);
  } else {
    code.Jump(Instruction::op_smtpn, &end, static_cast<int>(count));
  }
  GenerateLoopBody(statement, TagId::Smtp, nullptr, nullptr, 0);
  code.Emit(Instruction::op_smtp_end);
  code.PlaceLabel(&end);
}

void Generator::GenerateTask(Statement* statement) {
  CodeLabel after;
  code.Jump(Instruction::async, &after);
  GenerateLoopBody(statement, TagId::Asynchronous, nullptr, nullptr, 0);
  code.Emit(Instruction::exit);
  code.PlaceLabel(&after);
}
