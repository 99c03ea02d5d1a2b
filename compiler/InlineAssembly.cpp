// Instructions of the machine in a page: the content of ZpASSEMBLY, in the language of zpasm
// (docs/zpasm.md) without its directives. Tested in tests/compiler/LanguageTest.cpp and
// ErrorTest.cpp.

#include <map>

#include "base/compiled/Instructions.h"
#include "compiler/Generator.h"
#include "tools/AssemblySource.h"

namespace {

using Token = AssemblyToken;
using Operand = Instruction::Operand;

bool IsMark(const Token& token, char mark) {
  return token.kind == Token::Punctuation && token.text[0] == mark;
}

}  // namespace

void Generator::GenerateAssembly(const Statement& statement) {
  std::vector<AssemblyError> errors;
  const std::vector<AssemblyLine> lines = ReadAssemblySource(statement.text, &errors);
  const SourceFile& source = diagnostics->file(statement.place.file);
  // Lines and columns of the text are those of the file, but for the column of the first line.
  auto place_of = [&](int line, int column) {
    int offset = statement.place.offset;
    for (int i = 1; i < line; i++) {
      offset = static_cast<int>(source.text().find('\n', static_cast<size_t>(offset))) + 1;
    }
    return Place{statement.place.file, offset + column - 1, 1};
  };
  for (const AssemblyError& error : errors) {
    diagnostics->Error(place_of(error.line, error.column), error.text);
  }
  std::map<std::string, CodeLabel, std::less<>> labels;
  std::map<std::string, Place, std::less<>> uses;
  for (const AssemblyLine& line : lines) {
    if (diagnostics->full()) return;
    const std::vector<Token>& tokens = line.tokens;
    size_t next = 0;
    auto fail = [&](const std::string& expected, const std::string& hint = "") {
      diagnostics->Error(place_of(line.number, tokens[next].column),
                         "expected " + expected + ", found " + DescribeToken(tokens[next]) + hint);
    };
    if (tokens[0].kind == Token::Name && tokens.size() > 1 && IsMark(tokens[1], ':')) {
      CodeLabel& label = labels[tokens[0].text];
      if (label.offset >= 0) {
        fail("a new label");
        continue;
      }
      code.PlaceLabel(&label);
      next = 2;
    }
    if (tokens[next].kind == Token::End) continue;
    const Instruction::Row* row =
        tokens[next].kind == Token::Name
            ? Instruction::Find(tokens[next].text.data(),
                                static_cast<int>(tokens[next].text.size()))
            : nullptr;
    if (!row) {
      std::vector<std::string_view> known;
      for (int i = 0; i < Instruction::RowCount; i++) known.push_back(Instruction::Rows[i].name);
      fail("an instruction", DidYouMean(tokens[next].text, known));
      continue;
    }
    next++;
    code.SetPlace(statement.place.file, place_of(line.number, 1).offset);
    int values[2] = {0, 0};
    double number = 0;
    CodeLabel* label = nullptr;
    const Operand kinds[2] = {row->first, row->second};
    bool good = true;
    for (int i = 0; i < 2 && good && kinds[i] != Operand::None; i++) {
      if (i == 1 && !IsMark(tokens[next++], ',')) {
        next--;
        fail("',' and a second operand");
        good = false;
        break;
      }
      const Token& token = tokens[next];
      const bool named = token.kind == Token::Name || token.kind == Token::Text;
      if (kinds[i] == Operand::Double) {
        good = (token.kind == Token::Number || token.kind == Token::Name) &&
               ParseDouble(token.text, &number);
        if (!good) fail("a number");
      } else if (token.kind == Token::Number && ParseInteger(token.text, &values[i])) {
        good = kinds[i] == Operand::Number || kinds[i] == Operand::Distance;
        if (!good) fail("a name");
      } else if (kinds[i] == Operand::Text &&
                 (token.kind == Token::Text || (named && row->word != Instruction::pushc))) {
        values[i] = program->Intern(token.text);
      } else if (kinds[i] == Operand::System && named) {
        values[i] = program->Variable(program->system.get(), token.text);
      } else if (kinds[i] == Operand::Global && named) {
        const Place place = place_of(line.number, token.column);
        Symbol* symbol = names.Find("g." + token.text, place);
        symbol->read = symbol->assigned = true;
        values[i] = symbol->slot;
      } else if (kinds[i] == Operand::Local && named) {
        const Place place = place_of(line.number, token.column);
        Symbol* symbol = names.Find("l." + token.text, place);
        symbol->read = symbol->assigned = true;
        values[i] = symbol->slot;
      } else if (kinds[i] == Operand::Function && named) {
        CalledFunction* function = FindFunction(token.text);
        good = function != nullptr;
        if (good) {
          function->called = true;
          values[i] = function->index;
        } else {
          fail("a function");
        }
      } else if (kinds[i] == Operand::Distance && token.kind == Token::Name) {
        label = &labels[token.text];
        uses.emplace(token.text, place_of(line.number, token.column));
      } else {
        good = false;
        fail(kinds[i] == Operand::Text ? "a text in quotes"
                                       : "an operand of '" + std::string(row->name) + "'");
      }
      if (good) next++;
    }
    if (!good) continue;
    if (tokens[next].kind != Token::End) {
      fail("the end of the line");
      continue;
    }
    if (label && row->second != Operand::None) {
      code.Jump(row->word, label, values[1]);
    } else if (label) {
      code.Jump(row->word, label);
    } else if (row->first == Operand::Double) {
      code.EmitDouble(row->word, number);
    } else if (row->second != Operand::None) {
      code.Emit(row->word, values[0], values[1]);
    } else if (row->first != Operand::None) {
      code.Emit(row->word, values[0]);
    } else {
      code.Emit(row->word);
    }
  }
  for (const auto& [name, place] : uses) {
    if (labels[name].offset < 0) diagnostics->Error(place, "there is no label '" + name + "'");
  }
}
