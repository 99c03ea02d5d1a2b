// Reads pieces into statements: bodies and the tags that form them. Parser_Content.cpp reads what
// is inside of a tag. Tested in tests/compiler/LanguageTest.cpp and ErrorTest.cpp.

#include "compiler/Parser.h"

#include <algorithm>

#include "base/compiled/Function.h"
#include "base/core/ascii.h"

namespace {

using PieceKind = PagePiece::Kind;

bool IsWhite(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return zp_iswhite(static_cast<unsigned char>(c)); });
}

struct FunctionWord {
  std::string_view word;
  int flag;
};
constexpr FunctionWord kFunctionWords[] = {
    {"external", Function_External},         {"compress", Function_OutputMode1},
    {"erroron", Function_ErrorOutputOn},     {"erroroff", Function_ErrorOutputOff},
    {"inherit", Function_InheritOutputMode},
};

}  // namespace

void Parser::Run(int file) {
  ParseFile(file, nullptr, &tree->body);
}

void Parser::ParseFile(int file, const Input* outer, Body* body) {
  bytes += diagnostics->file(file).text().size();
  if (bytes > kMostSource) {
    diagnostics->Error({file, 0, 1}, "the sources of this page are larger than 64 MB");
    return;
  }
  Input input{file, ScanPage(file, diagnostics), 0, outer};
  ParseBody(&input, nullptr, body);
}

// --- Bodies --------------------------------------------------------------------------------------

// Reads statements up to the closing tag of around, which is left for the caller; null for a whole
// file.
void Parser::ParseBody(Input* input, const TagRow* around, Body* body) {
  while (input->next < input->pieces.size() && !diagnostics->full()) {
    if (EndsBody(*input, around)) return;
    const PagePiece& piece = input->pieces[input->next];
    if (piece.kind == PieceKind::Close) {
      diagnostics->Error(NameOf(*input, piece),
                         "'</" + std::string(piece.tag->name) + ">' closes no tag");
      input->next++;
      continue;
    }
    if (piece.kind == PieceKind::Open) {
      ParseTag(input, piece, body);
      continue;
    }
    input->next++;
    if (piece.kind == PieceKind::Text && piece.begin == piece.end) continue;
    auto statement = std::make_unique<Statement>();
    statement->place = PlaceOf(*input, piece);
    if (piece.kind == PieceKind::Text) {
      statement->text = TextOf(*input, piece);
    } else {
      statement->kind =
          piece.kind == PieceKind::Encoded ? Statement::Kind::Encoded : Statement::Kind::Plain;
      ExpressionParser source = Content(*input, piece);
      statement->values.emplace_back();
      if (!source.Parse(&statement->values[0])) continue;
      if (!source.AtEnd()) {
        source.Expected("an operator or the closing braces");
        continue;
      }
    }
    body->push_back(std::move(statement));
  }
}

// Whether the next piece ends the body: a closing tag, or a part of a ZpIF. The closing tag of a
// tag further out ends it too, so that one closing tag that is missing gives one error.
bool Parser::EndsBody(const Input& input, const TagRow* around) {
  const PagePiece& piece = input.pieces[input.next];
  if (!around) return false;
  if (piece.kind == PieceKind::Close) return IsOpen(*piece.tag);
  const bool has_parts =
      around->id == TagId::If || around->id == TagId::IfDef || around->id == TagId::IfNDef;
  return has_parts && piece.kind == PieceKind::Open && piece.tag->body == TagBody::Part;
}

// Whether a closing tag closes one of the tags around the present place. A tag with two names may
// be closed with either.
bool Parser::IsOpen(const TagRow& closing) const {
  return std::any_of(open_tags.begin(), open_tags.end(),
                     [&closing](const TagRow* tag) { return tag->number == closing.number; });
}

// Takes the closing tag of a statement.
void Parser::CloseTag(Input* input, const Statement& statement) {
  if (input->next < input->pieces.size()) {
    const PagePiece& piece = input->pieces[input->next];
    if (piece.kind == PieceKind::Close && piece.tag->number == statement.tag->number) {
      input->next++;
      return;
    }
  }
  if (diagnostics->full()) return;
  diagnostics->Error(statement.place,
                     "there is no closing '</" + std::string(statement.tag->name) + ">'");
}

// Counts one more tag around what follows. If there are too many, the rest of the file is skipped.
bool Parser::Enter(Input* input, const Statement& statement) {
  open_tags.push_back(statement.tag);
  const bool conditional = statement.tag->form == TagForm::Name;
  if (!conditional) blocks++;
  if (++nesting <= kMostNestedTags) return true;
  input->next = input->pieces.size();
  return diagnostics->Error(statement.place, "tags are nested too deep");
}

void Parser::Leave(const Statement& statement) {
  open_tags.pop_back();
  nesting--;
  if (statement.tag->form != TagForm::Name) blocks--;
}

void Parser::ParseTag(Input* input, const PagePiece& piece, Body* body) {
  input->next++;
  const TagRow& row = *piece.tag;
  if (row.id == TagId::Comment) return;
  if (row.body == TagBody::Part) {
    diagnostics->Error(NameOf(*input, piece),
                       "'<" + std::string(row.name) + ">' is outside of a '<ZpIF>'");
    return;
  }
  if (row.id == TagId::Function) {
    ParseFunction(input, piece);
    return;
  }
  auto statement = std::make_unique<Statement>();
  statement->kind = Statement::Kind::Tag;
  statement->tag = &row;
  statement->place = NameOf(*input, piece);
  if (row.id == TagId::Assembly) {
    statement->place = {input->file, piece.inner_begin, piece.inner_end - piece.inner_begin};
    statement->text = diagnostics->Text(statement->place);
    body->push_back(std::move(statement));
    return;
  }
  WarnOfComparison(*input, piece);
  ExpressionParser source = Content(*input, piece);
  ParseContent(&source, statement.get());
  switch (row.id) {
    case TagId::IfDef:
    case TagId::IfNDef: ParseConditional(input, statement.get(), body); return;
    case TagId::Include: ParseInclude(input, statement.get(), body); return;
    case TagId::Localized: ParseMessage(input, statement.get()); return;
    case TagId::If: ParseParts(input, statement.get(), kAllParts); break;
    case TagId::LocalizedText:
      diagnostics->Error(statement->place, "'<ZpLOCALIZED-TEXT>' is outside of a '<ZpLOCALIZED>'");
      [[fallthrough]];
    default:
      if (row.body == TagBody::Block) ParseBlock(input, statement.get());
  }
  body->push_back(std::move(statement));
}

// Reads the body of a tag, and its closing tag.
void Parser::ParseBlock(Input* input, Statement* statement) {
  statement->branches.emplace_back();
  if (Enter(input, *statement)) {
    ParseBody(input, statement->tag, &statement->branches.back().body);
    CloseTag(input, *statement);
  }
  Leave(*statement);
}

// The parts of a ZpIF. Those of a ZpIFDEF are read the same way; all but the kept one are dropped
// with the functions and messages in them.
void Parser::ParseParts(Input* input, Statement* statement, size_t kept) {
  const bool is_if = statement->tag->id == TagId::If;
  statement->branches.emplace_back();
  if (is_if && !statement->values.empty()) {
    statement->branches[0].condition = std::move(statement->values[0]);
  }
  bool after_else = false;
  bool more = Enter(input, *statement);
  while (more) {
    const bool drops = kept != kAllParts && statement->branches.size() - 1 != kept;
    if (drops) dropped++;
    ParseBody(input, statement->tag, &statement->branches.back().body);
    if (drops) dropped--;
    more = input->next < input->pieces.size() && !diagnostics->full() &&
           input->pieces[input->next].kind == PieceKind::Open;
    if (!more) {
      CloseTag(input, *statement);
      break;
    }
    const PagePiece& piece = input->pieces[input->next++];
    const bool is_else = piece.tag->id == TagId::Else;
    if (!is_else && !is_if) {
      diagnostics->Error(NameOf(*input, piece),
                         "'<" + std::string(statement->tag->name) + ">' has no '<ZpELSEIF>'");
    }
    if (after_else) {
      diagnostics->Error(NameOf(*input, piece),
                         "'<" + std::string(piece.tag->name) + ">' comes after the '<ZpELSE>'");
    }
    after_else = after_else || is_else;
    WarnOfComparison(*input, piece);
    Statement part;
    part.tag = piece.tag;
    ExpressionParser source = Content(*input, piece);
    ParseContent(&source, &part);
    statement->branches.emplace_back();
    if (!part.values.empty()) statement->branches.back().condition = std::move(part.values[0]);
  }
  Leave(*statement);
}

// The part that is not compiled is read too, so that its tags are checked.
void Parser::ParseConditional(Input* input, Statement* statement, Body* body) {
  const bool defined = !statement->values.empty() &&
                       defines.count(LowerCase(statement->values[0].items[0].text)) > 0;
  const size_t kept = defined == (statement->tag->id == TagId::IfDef) ? 0 : 1;
  ParseParts(input, statement, kept);
  if (statement->branches.size() <= kept) return;
  for (auto& inner : statement->branches[kept].body) body->push_back(std::move(inner));
}

void Parser::WarnOfComparison(const Input& input, const PagePiece& piece) {
  const bool has_value = piece.tag->form == TagForm::Value;
  if (!has_value || piece.inner_end <= piece.inner_begin) return;
  const std::string_view text = diagnostics->file(input.file).text();
  const auto end = static_cast<size_t>(piece.end);
  const bool blank = zp_iswhite(static_cast<unsigned char>(text[end - 2]));
  const Place place = {input.file, piece.end - 1, 1};
  if (end < text.size() && text[end] == '=') {
    diagnostics->Warning(place, "'>' ends the tag; did you mean 'GE'?");
    return;
  }
  const size_t next = text.find_first_of("<>\n", end);
  if (blank && next != std::string_view::npos && text[next] == '>') {
    diagnostics->Warning(place, "'>' ends the tag; did you mean 'GT'?");
  }
}

// --- Functions, messages and included files ------------------------------------------------------

bool Parser::ParseDeclaration(ExpressionParser* source, FunctionNode* function) {
  function->place = source->Here();
  if (!source->ParseWord(&function->name, "the function's name")) return false;
  if (!source->Take('(')) return source->Expected("'(' and the parameters");
  if (!source->Take(')')) {
    do {
      Parameter parameter;
      const Place place = source->Here();
      if (!source->ParseWord(&parameter.name, "a parameter's name")) return false;
      parameter.by_reference = source->TakeWord("var");
      for (const Parameter& other : function->parameters) {
        if (!SameName(other.name, parameter.name)) continue;
        return diagnostics->Error(place,
                                  "there are two parameters '" + std::string(parameter.name) + "'");
      }
      function->parameters.push_back(parameter);
      if (function->parameters.size() > 255) {
        return diagnostics->Error(place, "a function has at most 255 parameters");
      }
    } while (source->Take(','));
    if (!source->Take(')')) return source->Expected("'var', ',' or ')'");
  }
  while (!source->AtEnd()) {
    int flag = 0;
    for (const FunctionWord& word : kFunctionWords) {
      if (flag == 0 && source->TakeWord(word.word)) flag = word.flag;
    }
    if (flag == 0) {
      std::vector<std::string_view> words;
      for (const FunctionWord& word : kFunctionWords) words.push_back(word.word);
      const Place place = source->Here();
      const std::string found(diagnostics->Text(place));
      return diagnostics->Error(
          place, "a function has no word '" + found + "'" + DidYouMean(found, words));
    }
    function->flags |= flag;
  }
  return true;
}

void Parser::ParseFunction(Input* input, const PagePiece& piece) {
  auto function = std::make_unique<FunctionNode>();
  const Place place = NameOf(*input, piece);
  ExpressionParser source = Content(*input, piece);
  const bool declared = ParseDeclaration(&source, function.get());
  if (blocks > 0) diagnostics->Error(place, "a function has to be outside of all other tags");
  if (function->flags & Function_External) {
    if (declared && dropped == 0) tree->functions.push_back(std::move(function));
    return;
  }
  Statement statement;
  statement.tag = piece.tag;
  statement.place = place;
  ParseBlock(input, &statement);
  function->body = std::move(statement.branches[0].body);
  if (declared && dropped == 0) tree->functions.push_back(std::move(function));
}

void Parser::ParseMessage(Input* input, Statement* statement) {
  MessageNode message;
  const Expression* token = statement->Find(0);
  if (token && !token->IsText()) {
    diagnostics->Error(token->place, "the token has to be a text in quotes");
  } else if (token) {
    message.token = token->items[0].text;
    message.place = token->place;
  }
  bool closed = false;
  while (input->next < input->pieces.size() && !closed) {
    const PagePiece& piece = input->pieces[input->next++];
    if (piece.kind == PieceKind::Close && piece.tag->id == TagId::Localized) {
      closed = true;
    } else if (piece.kind == PieceKind::Close && IsOpen(*piece.tag)) {
      input->next--;
      break;
    } else if (piece.kind == PieceKind::Open && piece.tag->id == TagId::LocalizedText) {
      input->next--;
      ParseMessageText(input, &message);
    } else if (piece.kind == PieceKind::Open && piece.tag->id == TagId::Comment) {
      continue;
    } else if (piece.kind != PieceKind::Text || !IsWhite(TextOf(*input, piece))) {
      diagnostics->Error(PlaceOf(*input, piece), "a '<ZpLOCALIZED>' has only '<ZpLOCALIZED-TEXT>'");
    }
  }
  if (!closed) diagnostics->Error(statement->place, "there is no closing '</ZpLOCALIZED>'");
  if (!token || !token->IsText() || dropped > 0) return;
  if (!tokens.insert(LowerCase(message.token)).second) {
    diagnostics->Error(message.place,
                       "there is another message '" + std::string(message.token) + "' already");
  }
  tree->messages.push_back(std::move(message));
}

void Parser::ParseMessageText(Input* input, MessageNode* message) {
  const PagePiece& tag = input->pieces[input->next++];
  Statement statement;
  statement.tag = tag.tag;
  statement.place = NameOf(*input, tag);
  ExpressionParser source = Content(*input, tag);
  ParseContent(&source, &statement);
  MessageText text;
  text.place = statement.place;
  const Expression* language = statement.Find(0);
  if (language && !language->IsText()) {
    diagnostics->Error(language->place, "the language has to be a text in quotes");
  } else if (language) {
    text.language = language->items[0].text;
  }
  if (message->texts.size() >= kMostLanguages) {
    diagnostics->Error(text.place, "a message has at most 1000 texts");
    return;
  }
  for (const MessageText& other : message->texts) {
    if (SameName(other.language, text.language)) {
      diagnostics->Error(text.place,
                         "there is another text in '" + std::string(text.language) + "' already");
    }
  }
  Body body;
  Statement block;
  block.tag = tag.tag;
  block.place = statement.place;
  ParseBlock(input, &block);
  for (const auto& inner : block.branches[0].body) {
    MessagePieceNode piece;
    if (inner->kind == Statement::Kind::Text) {
      piece.text = inner->text;
    } else if (inner->kind != Statement::Kind::Tag && inner->values[0].IsName()) {
      piece = {inner->values[0].items[0].text, false, inner->kind == Statement::Kind::Encoded};
    } else {
      diagnostics->Error(inner->place, "a message has only text and names of parameters in braces");
      continue;
    }
    text.pieces.push_back(piece);
  }
  message->texts.push_back(std::move(text));
}

void Parser::ParseInclude(Input* input, Statement* statement, Body* body) {
  if (statement->values.empty() || dropped > 0) return;
  const Expression& path = statement->values[0];
  if (!path.IsText()) {
    diagnostics->Error(path.place, "the file has to be a text in quotes");
    return;
  }
  const std::string name(path.items[0].text);
  const std::string& from = diagnostics->file(input->file).name();
  std::string found, text;
  if (++includes > kMostIncludes) {
    diagnostics->Error(path.place, "more than 1000 files are included");
    return;
  }
  if (!reader || !reader(name, from, &found, &text)) {
    diagnostics->Error(path.place, "there is no file '" + name + "'");
    return;
  }
  int depth = 0;
  for (const Input* other = input; other; other = other->outer, depth++) {
    if (diagnostics->file(other->file).name() != found) continue;
    diagnostics->Error(path.place, "'" + name + "' includes itself");
    return;
  }
  if (depth >= kMostNestedIncludes) {
    diagnostics->Error(path.place, "files are included more than 32 deep");
    return;
  }
  ParseFile(diagnostics->AddFile(found, std::move(text)), input, body);
}
