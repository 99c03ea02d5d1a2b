// Functions, messages, decisions and loops. Tested in tests/compiler/LanguageTest.cpp and
// CodeTest.cpp.

#include "compiler/Generator.h"

#include <algorithm>

#include "base/compiled/Function.h"
#include "base/compiled/Instructions.h"
#include "base/core/ascii.h"

namespace {

// The machine finds functions and variables in chains, which have to stay short.
constexpr int kMostFunctions = 65535;

// The host calls these by name.
constexpr std::string_view kCallbacks[] = {"Zeph_ValidateFileUpload", "Zeph_ProcessFileUpload"};

bool IsWhite(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return zp_iswhite(static_cast<unsigned char>(c)); });
}

// Whether nothing after a statement in the same body is reached.
bool EndsFlow(const Statement& statement) {
  if (!statement.tag) return false;
  switch (statement.tag->id) {
    case TagId::Exit:
    case TagId::FunctionReturn:
    case TagId::FunctionReturn2:
    case TagId::WhileStop:
    case TagId::WhileContinue:
    case TagId::ForStop:
    case TagId::ForContinue:
    case TagId::ForeachStop:
    case TagId::ForeachContinue:
    case TagId::ImportStop:
    case TagId::ImportContinue:
    case TagId::CallStop:
    case TagId::CallContinue:
    case TagId::PopStop:
    case TagId::PopContinue:
    case TagId::CommerceStop:
    case TagId::CommerceContinue: return true;
    default: return false;
  }
}

}  // namespace

Generator::Generator(Diagnostics* diagnostics, Tree* tree, AssemblyProgram* program,
                     const std::vector<FunctionNode>& library, bool every_line)
    : diagnostics(diagnostics),
      tree(tree),
      program(program),
      library(library),
      code(diagnostics, program, every_line),
      names(diagnostics, program) {
  encode_function.name = kEncodeFunction;
  encode_function.parameters.push_back({"text", false});
  encode_function.flags = Function_External;
  library_names.emplace(LowerCase(kEncodeFunction), &encode_function);
  for (const FunctionNode& node : library) library_names[LowerCase(node.name)] = &node;
}

void Generator::Run(int file, bool several_files) {
  includes_files = several_files;
  names.ReadPage(*tree);
  DeclareFunctions();
  DefineMessages();
  if (!diagnostics->full() && functions.size() == tree->functions.size()) {
    for (const auto& node : tree->functions) DefineFunction(*node);
  }
  current = nullptr;
  current_function = nullptr;
  names.BeginFunction(nullptr, nullptr);
  code.Begin(0);
  code.NoteFile(file);
  GenerateBody(tree->body);
  code.End();
  for (const FunctionNode* node : late_functions) {
    std::vector<ParameterDeclaration> parameters;
    for (const Parameter& parameter : node->parameters) {
      parameters.push_back({program->Intern(parameter.name), parameter.by_reference});
    }
    program->AddFunction(program->Intern(node->name), parameters, node->flags, -1, -1);
  }
  if (diagnostics->failed()) return;
  WarnOfFunctions(file);
  std::unordered_set<std::string> words;
  for (std::string_view text : texts) {
    std::string word;
    for (const char c : text) {
      const auto byte = static_cast<unsigned char>(c);
      if (zp_isalpha(byte) || zp_isdigit(byte) || c == '_') {
        word += static_cast<char>(zp_tolower(byte));
      } else if (!word.empty()) {
        words.insert(std::move(word));
        word.clear();
      }
    }
    if (!word.empty()) words.insert(std::move(word));
  }
  names.WarnOfUnread(words, !has_do, file);
}

// --- Functions and messages ----------------------------------------------------------------------

// A function's index is its place in the tree, so that calls above it know it.
void Generator::DeclareFunctions() {
  int index = 0;
  for (const auto& node : tree->functions) {
    if (index >= kMostFunctions) {
      diagnostics->Error(node->place, "there are more than 65535 functions");
      return;
    }
    CalledFunction function{node.get(), index++, false};
    if (!functions.emplace(LowerCase(node->name), function).second) {
      diagnostics->Error(node->place,
                         "there is another function '" + std::string(node->name) + "' already");
    }
  }
}

void Generator::DefineFunction(const FunctionNode& node) {
  std::vector<ParameterDeclaration> parameters;
  for (const Parameter& parameter : node.parameters) {
    parameters.push_back({program->Intern(parameter.name), parameter.by_reference});
  }
  const int name = program->Intern(node.name);
  if (node.flags & Function_External) {
    program->AddFunction(name, parameters, node.flags, -1, -1);
    return;
  }
  // The number of the segment is the next one only after the page's own segment exists.
  program->SegmentAt(0);
  code.Begin(1);
  current = &node;
  current_function = program->AddFunction(name, parameters, node.flags, 1, code.Position());
  names.BeginFunction(&node, current_function);
  code.SetCompressed((node.flags & (Function_OutputMode1 | Function_InheritOutputMode)) != 0);
  code.SetPlace(node.place.file, node.place.offset);
  GenerateBody(node.body);
  const bool returns = !node.body.empty() && node.body.back()->tag &&
                       (node.body.back()->tag->id == TagId::FunctionReturn ||
                        node.body.back()->tag->id == TagId::FunctionReturn2);
  if (!returns) code.Emit(Instruction::retn);
  code.End();
}

void Generator::DefineMessages() {
  for (const MessageNode& message : tree->messages) {
    MessageParameters& parameters = messages[LowerCase(message.token)];
    const int token = program->Intern(message.token);
    for (const MessageText& text : message.texts) {
      const int language = program->Intern(text.language);
      if (!program->languages->Get_Language_Entry(language)) {
        program->languages->Add_Entry(language);
      }
      std::vector<MessagePiece> pieces;
      for (const MessagePieceNode& piece : text.pieces) {
        // The encoded form of a parameter has a name that no plain one can have.
        const std::string spelled = std::string(piece.text) + (piece.encoded ? "&" : "");
        if (!piece.literal) {
          MessageParameter& parameter = parameters[LowerCase(piece.text)];
          (piece.encoded ? parameter.encoded : parameter.plain) = true;
        }
        pieces.push_back({program->Intern(piece.literal ? piece.text : std::string_view(spelled)),
                          piece.literal});
      }
      program->AddMessage(language, token, pieces);
    }
  }
}

void Generator::WarnOfFunctions(int file) {
  const bool only_functions =
      std::all_of(tree->body.begin(), tree->body.end(), [](const auto& statement) {
        return statement->kind == Statement::Kind::Text && IsWhite(statement->text);
      });
  if (only_functions) return;
  for (const auto& node : tree->functions) {
    const CalledFunction& function = functions.at(LowerCase(node->name));
    const bool callback =
        std::any_of(std::begin(kCallbacks), std::end(kCallbacks),
                    [&node](std::string_view name) { return SameName(name, node->name); });
    if (function.called || callback || node->place.file != file) continue;
    if (node->flags & Function_External) continue;
    diagnostics->Warning(node->place, "function '" + std::string(node->name) + "' is never called");
  }
}

// --- Statements ----------------------------------------------------------------------------------

void Generator::GenerateBody(const Body& body) {
  bool reached = true;
  for (const auto& statement : body) {
    if (diagnostics->full()) return;
    const bool is_white = statement->kind == Statement::Kind::Text && IsWhite(statement->text);
    if (!reached && !is_white) {
      diagnostics->Warning(statement->place, "this is never reached");
      reached = true;  // one warning is enough
    }
    GenerateStatement(statement.get());
    if (EndsFlow(*statement)) reached = false;
  }
}

void Generator::GenerateStatement(Statement* statement) {
  code.SetPlace(statement->place.file, statement->place.offset);
  switch (statement->kind) {
    case Statement::Kind::Text: code.OutText(statement->text); return;
    case Statement::Kind::Encoded:
    case Statement::Kind::Plain: {
      Expression& value = statement->values[0];
      const bool encodes = statement->kind == Statement::Kind::Encoded;
      if (value.IsText()) {
        texts.push_back(value.items[0].text);
        if (!encodes) {
          code.OutText(value.items[0].text);
          return;
        }
        for (const char c : value.items[0].text) {
          code.OutText(c == '&'    ? "&amp;"
                       : c == '<'  ? "&lt;"
                       : c == '>'  ? "&gt;"
                       : c == '"'  ? "&quot;"
                       : c == '\'' ? "&#39;"
                                   : std::string_view(&c, 1));
        }
        return;
      }
      Value(&value);
      if (encodes && !value.IsSafe()) Encode();
      code.Emit(Instruction::out);
      return;
    }
    case Statement::Kind::Tag: break;
  }
  switch (statement->tag->id) {
    case TagId::If: GenerateIf(statement); return;
    case TagId::While: GenerateWhile(statement); return;
    case TagId::For: GenerateFor(statement); return;
    case TagId::Foreach: GenerateForeach(statement); return;
    case TagId::FunctionReturn:
    case TagId::FunctionReturn2: GenerateReturn(statement); return;
    case TagId::WhileStop: GenerateJump(statement, TagId::While, true); return;
    case TagId::WhileContinue: GenerateJump(statement, TagId::While, false); return;
    case TagId::ForStop: GenerateJump(statement, TagId::For, true); return;
    case TagId::ForContinue: GenerateJump(statement, TagId::For, false); return;
    case TagId::ForeachStop: GenerateJump(statement, TagId::Foreach, true); return;
    case TagId::ForeachContinue: GenerateJump(statement, TagId::Foreach, false); return;
    case TagId::ImportStop: GenerateJump(statement, TagId::Import, true); return;
    case TagId::ImportContinue: GenerateJump(statement, TagId::Import, false); return;
    case TagId::CallStop: GenerateJump(statement, TagId::Call, true); return;
    case TagId::CallContinue: GenerateJump(statement, TagId::Call, false); return;
    case TagId::PopStop: GenerateJump(statement, TagId::Pop, true); return;
    case TagId::PopContinue: GenerateJump(statement, TagId::Pop, false); return;
    case TagId::CommerceStop: GenerateJump(statement, TagId::Commerce, true); return;
    case TagId::CommerceContinue: GenerateJump(statement, TagId::Commerce, false); return;
    default: GenerateTag(statement);
  }
}

void Generator::GenerateIf(Statement* statement) {
  CodeLabel end;
  for (size_t i = 0; i < statement->branches.size(); i++) {
    Branch& branch = statement->branches[i];
    const bool last = i + 1 == statement->branches.size();
    CodeLabel next;
    if (!branch.condition.empty()) JumpIf(&branch.condition, false, &next);
    code.Enter();
    GenerateBody(branch.body);
    if (!last) code.Jump(Instruction::jmp, &end);
    code.Leave();
    code.PlaceLabel(&next);
  }
  code.PlaceLabel(&end);
}

// --- Loops ---------------------------------------------------------------------------------------

void Generator::GenerateLoopBody(Statement* statement, TagId tag, CodeLabel* stop, CodeLabel* next,
                                 int entries) {
  open.push_back({tag, stop, next, entries});
  code.Enter();
  GenerateBody(statement->branches[0].body);
  code.Leave();
  open.pop_back();
}

// The test is at the end, so that each pass jumps once.
void Generator::GenerateWhile(Statement* statement) {
  if (statement->values.empty()) return;
  CodeLabel body, next, stop;
  code.Jump(Instruction::jmp, &next);
  code.PlaceLabel(&body);
  GenerateLoopBody(statement, TagId::While, &stop, &next, 0);
  code.PlaceLabel(&next);
  code.SetPlace(statement->place.file, statement->place.offset);
  JumpIf(&statement->values[0], true, &body);
  code.PlaceLabel(&stop);
}

void Generator::GenerateFor(Statement* statement) {
  // After an error the tag may be read in part.
  if (statement->assignments.empty() || statement->values.empty()) return;
  if (statement->values.size() > 1 && !statement->values[1].IsInteger()) return;
  Assignment& range = statement->assignments[0];
  Symbol* symbol = FindTarget(range.target.items[0], range.target.place.file);
  const int step = statement->values.size() > 1 ? statement->values[1].items[0].number : 1;
  Expression& limit = statement->values[0];
  const bool is_global = symbol->where == Where::Global;
  symbol->assigned = symbol->read = true;
  if (range.value.IsInteger()) {
    AssignInteger(&range.target, range.value.items[0].number);
  } else {
    Value(&range.value);
    if (!range.value.IsWhole()) {
      code.Emit(Instruction::pushi, 0);
      code.Emit(Instruction::op_bitor);
    }
    PopSymbol(symbol, range.target.place);
  }
  const int entries = limit.IsInteger() ? 0 : 1;
  if (entries) {
    Value(&limit);
    code.Emit(Instruction::pushi, 0);
    code.Emit(Instruction::add);
  }
  CodeLabel body, next, test, stop;
  code.Jump(Instruction::jmp, &test);
  code.PlaceLabel(&body);
  GenerateLoopBody(statement, TagId::For, &stop, &next, entries);
  code.PlaceLabel(&next);
  if (is_global) {
    code.Emit(Instruction::incg, symbol->slot, step);
  } else {
    PushSymbol(*symbol);
    code.Emit(Instruction::pushi, step);
    code.Emit(Instruction::add);
    PopSymbol(symbol, range.target.place);
  }
  code.PlaceLabel(&test);
  if (entries) {
    code.Emit(Instruction::dup);
    PushSymbol(*symbol);
    code.Emit(step > 0 ? Instruction::ge : Instruction::le);
    code.Jump(Instruction::jmp_ne, &body);
  } else if (is_global) {
    code.Emit(Instruction::cmpgi, symbol->slot, limit.items[0].number);
    code.Jump(step > 0 ? Instruction::jmp_le : Instruction::jmp_ge, &body);
  } else {
    PushSymbol(*symbol);
    code.Emit(Instruction::pushi, limit.items[0].number);
    code.Emit(step > 0 ? Instruction::le : Instruction::ge);
    code.Jump(Instruction::jmp_ne, &body);
  }
  code.PlaceLabel(&stop);
  if (entries) code.Emit(Instruction::pop);
}

// The stack has the position of the element, and below it the number of passes left if the tag has
// a count.
void Generator::GenerateForeach(Statement* statement) {
  if (statement->assignments.empty() || statement->assignments[0].value.empty()) return;
  Assignment& range = statement->assignments[0];
  Expression* count = statement->Find(0);
  Expression* at = statement->Find(1);
  Symbol* symbol = FindTarget(range.target.items[0], range.target.place.file);
  symbol->assigned = true;
  if (count) {
    Value(count);
    code.Emit(Instruction::pushi, 0);
    code.Emit(Instruction::add);
  }
  code.Emit(Instruction::pushi, 0);
  CodeLabel next, end, stop;
  code.PlaceLabel(&next);
  code.SetPlace(statement->place.file, statement->place.offset);
  code.Enter();
  if (count) {
    code.Emit(Instruction::swap);
    code.Emit(Instruction::dup);
    code.Jump(Instruction::jmp_le, &stop);
    code.Emit(Instruction::pushi, 1);
    code.Emit(Instruction::sub);
    code.Emit(Instruction::swap);
  }
  code.Emit(Instruction::pushi, 1);
  code.Emit(Instruction::add);
  code.Emit(Instruction::dup);
  const bool creates = statement->flag && count;
  Prepare(&range.value);
  Range(range.value, 0, range.value.items.size());
  code.Emit(Instruction::swap);
  code.Emit(creates ? Instruction::elem : Instruction::elem_readonly);
  if (!count) {
    code.Emit(Instruction::dup);
    code.Emit(Instruction::isnull);
    code.Jump(Instruction::jmp_ne, &end);
  }
  if (!statement->flag) {
    PopSymbol(symbol, range.target.place);
  } else if (symbol->where == Where::Local) {
    code.Emit(Instruction::poprl, symbol->slot);
  } else if (symbol->where == Where::Global) {
    code.Emit(Instruction::poprg, symbol->slot);
  } else {
    diagnostics->Error(range.target.place, "only a local or global variable can be a reference");
  }
  if (at) {
    code.Emit(Instruction::dup);
    Assign(at);
  }
  GenerateLoopBody(statement, TagId::Foreach, &stop, &next, count ? 2 : 1);
  code.Jump(Instruction::jmp, &next);
  code.Leave();
  code.PlaceLabel(&end);
  if (!count) code.Emit(Instruction::pop);
  code.PlaceLabel(&stop);
  code.Emit(Instruction::pop);
  if (count) code.Emit(Instruction::pop);
}

// --- Leaving bodies ------------------------------------------------------------------------------

// Closes the tags around the present place, from the innermost to the one at first. False if one of
// them cannot be left.
bool Generator::CloseInner(size_t first, const Place& place, bool with_entries) {
  for (size_t i = open.size(); i-- > first;) {
    CodeLabel here;
    switch (open[i].tag) {
      case TagId::Import: code.Jump(Instruction::import_stop, &here); break;
      case TagId::Call: code.Jump(Instruction::op_http_stop, &here); break;
      case TagId::Pop: code.Jump(Instruction::pop3stop, &here); break;
      case TagId::Commerce: code.Jump(Instruction::op_commerce_stop, &here); break;
      case TagId::Capture: code.Emit(Instruction::capture_end); break;
      case TagId::Lockfile: code.Emit(Instruction::lockfile_end); break;
      case TagId::Smtp:
      case TagId::Asynchronous:
        return diagnostics->Error(place, "this cannot leave the '<" +
                                             std::string(Tag(open[i].tag).name) + ">' around it");
      default: break;
    }
    code.PlaceLabel(&here);
    for (int entry = 0; with_entries && entry < open[i].entries; entry++) {
      code.Emit(Instruction::pop);
    }
  }
  return true;
}

void Generator::GenerateJump(Statement* statement, TagId loop, bool stop) {
  size_t index = open.size();
  while (index > 0 && open[index - 1].tag != loop) index--;
  if (index == 0) {
    diagnostics->Error(statement->place, "'<" + std::string(statement->tag->name) +
                                             ">' is outside of a '<" + std::string(Tag(loop).name) +
                                             ">'");
    return;
  }
  if (!CloseInner(index, statement->place, true)) return;
  const Construct& target = open[index - 1];
  CodeLabel* label = stop ? target.stop : target.next;
  unsigned short word = Instruction::jmp;
  if (stop && loop == TagId::Import) word = Instruction::import_stop;
  if (stop && loop == TagId::Call) word = Instruction::op_http_stop;
  if (stop && loop == TagId::Pop) word = Instruction::pop3stop;
  if (stop && loop == TagId::Commerce) word = Instruction::op_commerce_stop;
  code.Jump(word, label);
}

void Generator::GenerateReturn(Statement* statement) {
  if (!current) {
    diagnostics->Error(statement->place, "'<" + std::string(statement->tag->name) +
                                             ">' is outside of a '<ZpFUNCTION>'");
    return;
  }
  if (!statement->values.empty()) Value(&statement->values[0]);
  if (!CloseInner(0, statement->place, false)) return;
  code.Emit(statement->values.empty() ? Instruction::retn : Instruction::ret);
}
