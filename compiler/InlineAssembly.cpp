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

// Reads the lines of one tag.
class InlineAssembly {
 public:
  InlineAssembly(Generator* generator, const Statement& statement)
      : generator(generator), statement(statement) {
    line_starts.push_back(statement.place.offset);
    for (size_t i = 0; i < statement.text.size(); i++) {
      if (statement.text[i] != '\n') continue;
      line_starts.push_back(statement.place.offset + static_cast<int>(i) + 1);
    }
  }

  void Run() {
    std::vector<AssemblyError> errors;
    const std::vector<AssemblyLine> lines = ReadAssemblySource(statement.text, &errors);
    for (const AssemblyError& error : errors) {
      generator->diagnostics->Error(PlaceOf(error.line, error.column), error.text);
    }
    for (const AssemblyLine& line : lines) {
      if (generator->diagnostics->full()) return;
      current = &line;
      next = 0;
      if (DefineLabel() && Next().kind != Token::End) Instruct();
    }
    for (const auto& [name, place] : uses) {
      if (labels[name].offset >= 0) continue;
      generator->diagnostics->Error(place, "there is no label '" + name + "'");
    }
  }

 private:
  // The operands of one instruction.
  struct Operands {
    int values[2] = {0, 0};
    double number = 0;
    CodeLabel* label = nullptr;
  };

  const Token& Next() const { return current->tokens[next]; }

  Place PlaceOf(int line, int column) const {
    return {statement.place.file, line_starts[static_cast<size_t>(line) - 1] + column - 1, 1};
  }
  Place Here() const { return PlaceOf(current->number, Next().column); }

  bool Fail(const std::string& expected, const std::string& hint = "") {
    return generator->diagnostics->Error(
        Here(), "expected " + expected + ", found " + DescribeToken(Next()) + hint);
  }

  // A label at the beginning of the line, if there is one.
  bool DefineLabel() {
    const std::vector<Token>& tokens = current->tokens;
    if (tokens[0].kind != Token::Name || tokens.size() < 2 || !IsMark(tokens[1], ':')) return true;
    CodeLabel& label = labels[tokens[0].text];
    if (label.offset >= 0) return Fail("a new label");
    generator->code.PlaceLabel(&label);
    next = 2;
    return true;
  }

  void Instruct() {
    const std::string& word = Next().text;
    const Instruction::Row* row =
        Next().kind == Token::Name ? Instruction::Find(word.data(), static_cast<int>(word.size()))
                                   : nullptr;
    if (!row) {
      std::vector<std::string_view> known;
      known.reserve(static_cast<size_t>(Instruction::RowCount));
      for (int i = 0; i < Instruction::RowCount; i++) known.push_back(Instruction::Rows[i].name);
      Fail("an instruction", DidYouMean(word, known));
      return;
    }
    next++;
    Operands operands;
    if (row->first != Operand::None && !ReadOperand(*row, 0, &operands)) return;
    if (row->second != Operand::None) {
      if (!IsMark(Next(), ',')) {
        Fail("',' and a second operand");
        return;
      }
      next++;
      if (!ReadOperand(*row, 1, &operands)) return;
    }
    if (Next().kind != Token::End) {
      Fail("the end of the line");
      return;
    }
    Emit(*row, operands);
  }

  bool ReadOperand(const Instruction::Row& row, int index, Operands* operands) {
    const Operand kind = index == 0 ? row.first : row.second;
    const Token& token = Next();
    const bool named = token.kind == Token::Name || token.kind == Token::Text;
    int* value = &operands->values[index];
    bool read = false;
    switch (kind) {
      case Operand::Double:
        read = (token.kind == Token::Number || token.kind == Token::Name) &&
               ParseDouble(token.text, &operands->number);
        break;
      case Operand::Text:
        // As in zpasm: after pushc a plain name probably is a variable that was meant.
        read = token.kind == Token::Text || (named && row.word != Instruction::pushc);
        if (read) *value = generator->program->Intern(token.text);
        break;
      case Operand::System:
        read = named;
        if (read) {
          *value = generator->program->Variable(generator->program->system.get(), token.text);
        }
        break;
      case Operand::Global:
        read = named;
        if (read) *value = Slot("g." + token.text);
        break;
      case Operand::Local:
        read = named;
        if (read) *value = Slot("l." + token.text);
        break;
      case Operand::Function: read = named && ReadFunction(value); break;
      case Operand::Distance:
        if (token.kind == Token::Name) {
          operands->label = &labels[token.text];
          uses.emplace(token.text, Here());
          read = true;
          break;
        }
        [[fallthrough]];
      default: read = token.kind == Token::Number && ParseInteger(token.text, value);
    }
    if (read) {
      next++;
      return true;
    }
    return Fail(kind == Operand::Text ? "a text in quotes"
                                      : "an operand of '" + std::string(row.name) + "'");
  }

  // The position of a variable. What the instructions do with it is not looked at.
  int Slot(const std::string& name) {
    Symbol* symbol = generator->names.Find(name, Here());
    symbol->read = symbol->assigned = true;
    return symbol->slot;
  }

  bool ReadFunction(int* index) {
    Generator::CalledFunction* function = generator->FindFunction(Next().text);
    if (!function) return false;
    function->called = true;
    *index = function->index;
    return true;
  }

  void Emit(const Instruction::Row& row, const Operands& operands) {
    CodeWriter& code = generator->code;
    const Place place = PlaceOf(current->number, 1);
    code.SetPlace(place.file, place.offset);
    if (operands.label && row.second != Operand::None) {
      code.Jump(row.word, operands.label, operands.values[1]);
    } else if (operands.label) {
      code.Jump(row.word, operands.label);
    } else if (row.first == Operand::Double) {
      code.EmitDouble(row.word, operands.number);
    } else if (row.second != Operand::None) {
      code.Emit(row.word, operands.values[0], operands.values[1]);
    } else if (row.first != Operand::None) {
      code.Emit(row.word, operands.values[0]);
    } else {
      code.Emit(row.word);
    }
  }

  Generator* generator;
  const Statement& statement;
  std::vector<int> line_starts;  // offsets in the file
  std::map<std::string, CodeLabel, std::less<>> labels;
  std::map<std::string, Place, std::less<>> uses;  // of labels, by name
  const AssemblyLine* current = nullptr;
  size_t next = 0;
};

void Generator::GenerateAssembly(const Statement& statement) {
  InlineAssembly(this, statement).Run();
}
