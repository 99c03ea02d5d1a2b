// The assembler: reads statements, and writes code, tables and sections into a program. Tested in
// tests/tools/AssemblerTest.cpp.

#include "tools/Assembler.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "base/compiled/Instructions.h"
#include "tools/AssemblyProgram.h"
#include "tools/AssemblySource.h"
#include "tools/FunctionFlagNames.h"

namespace {

using Kind = AssemblyToken::Kind;

// Reports stop after this many: for a file that is not program text, more errors are no help.
constexpr size_t error_limit = 20;

// The number of single-byte edits that turn one name into another, for "did you mean".
size_t EditDistance(std::string_view from, std::string_view to) {
  std::vector<size_t> row(to.size() + 1);
  for (size_t j = 0; j <= to.size(); j++) row[j] = j;
  for (size_t i = 1; i <= from.size(); i++) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= to.size(); j++) {
      size_t change = diagonal + (from[i - 1] != to[j - 1]);
      diagonal = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, change});
    }
  }
  return row[to.size()];
}

int HexDigit(char c) {
  const std::string_view digits = "0123456789abcdefABCDEF";
  size_t found = digits.find(c);
  if (c == '\0' || found == std::string_view::npos) return -1;
  return static_cast<int>(found < 16 ? found : found - 6);
}

bool DecodeHex(std::string_view digits, std::string* bytes) {
  if (digits.size() % 2 != 0) return false;
  for (size_t i = 0; i < digits.size(); i += 2) {
    int high = HexDigit(digits[i]);
    int low = HexDigit(digits[i + 1]);
    if (high < 0 || low < 0) return false;
    *bytes += static_cast<char>(high * 16 + low);
  }
  return true;
}

// Reads statements one by one into a program. Operands that may name something further down, labels
// and functions, are written as zero and filled in at the end.
class Assembler {
 public:
  Assembler(std::string_view source, std::string_view source_name, const AssemblyOptions& options)
      : name(source_name), notes_lines(options.lines) {
    lines = ReadAssemblySource(source, &errors);
  }

  bool Run(std::string* image, std::string* problem) {
    program.SegmentAt(0);
    for (const AssemblyLine& line : lines) {
      if (errors.size() >= error_limit) break;
      Statement(line);
    }
    ResolveReferences();
    if (!errors.empty()) return false;
    return program.Write(image, problem);
  }

  const std::vector<AssemblyError>& reports() const { return errors; }

 private:
  // A position in the code to be filled with the address of a name.
  struct Reference {
    int segment;
    int position;  // of the four bytes to fill
    int base;      // the offset that a distance counts from
    AssemblyToken name;
    int line;
  };
  struct Label {
    int segment;
    int offset;
  };
  using Directive = bool (Assembler::*)();

  static const std::map<std::string, Directive, std::less<>>& Directives();

  // --- Tokens ------------------------------------------------------------------------------------

  const AssemblyToken& Token() const { return current->tokens[position]; }
  bool At(Kind kind) const { return Token().kind == kind; }
  bool AtMark(char mark) const { return At(Kind::Punctuation) && Token().text[0] == mark; }
  AssemblyToken Take() { return current->tokens[position++]; }
  bool TakeMark(char mark) {
    if (!AtMark(mark)) return false;
    position++;
    return true;
  }
  bool TakeWord(std::string_view word) {
    if (!At(Kind::Name) || Token().text != word) return false;
    position++;
    return true;
  }

  bool Fail(const std::string& text) { return FailAt(current->number, Token().column, text); }
  bool FailAt(int line, int column, const std::string& text) {
    errors.push_back({line, column, text});
    return false;
  }
  // Every error says what would have been valid at the token where the statement stopped.
  bool Expected(const std::string& what) {
    return Fail("expected " + what + ", found " + DescribeToken(Token()));
  }

  // --- Statements --------------------------------------------------------------------------------

  void Statement(const AssemblyLine& line) {
    current = &line;
    position = 0;
    if (At(Kind::Name) && line.tokens[1].kind == Kind::Punctuation && line.tokens[1].text == ":") {
      if (!DefineLabel()) return;
    }
    if (At(Kind::End)) return;
    bool done = At(Kind::Name)        ? Instruction()
                : At(Kind::Directive) ? RunDirective()
                                      : Expected("an instruction or a directive");
    if (done && !At(Kind::End)) Expected("the end of the line");
  }

  bool DefineLabel() {
    AssemblyToken name = Token();
    if (!InCode()) return Expected("a label only in code: '.segment' leads back to it");
    Label label{segment->number(), segment->length()};
    if (!labels.emplace(name.text, label).second)
      return Fail("expected a new label: '" + name.text + "' exists already");
    position += 2;
    return true;
  }

  bool Instruction() {
    const Instruction::Row* row =
        Instruction::Find(Token().text.data(), static_cast<int>(Token().text.size()));
    if (!row) return UnknownWord();
    if (!InCode()) return Expected("a data directive in a section: '.segment' leads back to code");
    Take();
    NoteLine(*row);
    int start = segment->length();
    int end = segment->Write_Word(start, row->word);
    end += Instruction::FirstOperandSize(row->word) + Instruction::SecondOperandSize(row->word);
    if (row->first != Instruction::Operand::None && !Operand(*row, row->first, end)) return false;
    if (row->second == Instruction::Operand::None) return true;
    if (!TakeMark(','))
      return Expected("',' and the second operand of '" + std::string(row->name) + "'");
    return Operand(*row, row->second, end);
  }

  // Notes the line before the instruction. The file is noted again where code can begin to run: at
  // the start of a segment and of a function. A label is in front of the note, so jumps reach it.
  void NoteLine(const Instruction::Row& row) {
    const bool is_note = row.word == Instruction::lineno || row.word == Instruction::sourcefile;
    if (!notes_lines || is_note) return;
    if (!file_is_noted || segment->length() == 0) {
      segment->Write_Word(segment->length(), Instruction::sourcefile);
      segment->Write_Dword(segment->length(), static_cast<unsigned>(program.Intern(name)));
      file_is_noted = true;
    }
    segment->Write_Word(segment->length(), Instruction::lineno);
    segment->Write_Dword(segment->length(), static_cast<unsigned>(current->number));
  }

  bool UnknownWord() {
    const std::string& word = Token().text;
    const char* nearest = nullptr;
    size_t distance = 3;  // a word farther away is not a misspelling of this one
    for (int i = 0; i < Instruction::RowCount; i++) {
      size_t edits = EditDistance(word, Instruction::Rows[i].name);
      if (edits < distance && edits < word.size()) {
        distance = edits;
        nearest = Instruction::Rows[i].name;
      }
    }
    std::string hint = nearest ? " (did you mean '" + std::string(nearest) + "'?)" : "";
    return Fail("expected an instruction or a directive, found '" + word + "'" + hint);
  }

  // --- Operands ----------------------------------------------------------------------------------

  // Reads one operand and appends it to the code. end is the offset after all operands.
  bool Operand(const Instruction::Row& row, Instruction::Operand kind, int end) {
    if (kind == Instruction::Operand::Double) {
      double value = 0;
      if ((!At(Kind::Number) && !At(Kind::Name)) || !ParseDouble(Token().text, &value))
        return Expected("a number");
      segment->Write_Double(segment->length(), value);
      position++;
      return true;
    }
    int value = 0;
    if (!IntegerOperand(row, kind, end, &value)) return false;
    segment->Write_Dword(segment->length(), static_cast<unsigned>(value));
    return true;
  }

  bool IntegerOperand(const Instruction::Row& row, Instruction::Operand kind, int end, int* value) {
    bool named = At(Kind::Name) || At(Kind::Text);
    switch (kind) {
      case Instruction::Operand::Text:
        // pushc takes only quoted texts: an unquoted word is probably the name of a variable, which
        // needs another instruction.
        if (row.word == Instruction::pushc && At(Kind::Name)) return Expected("a quoted text");
        if (At(Kind::Number)) return Integer("a text or the number of an entry", value);
        return DictionaryName("a text", value);
      case Instruction::Operand::System:
        if (!named) return Integer("a system variable", value);
        *value = program.Variable(program.system.get(), Take().text);
        return true;
      case Instruction::Operand::Global:
        if (!named) return Integer("a global variable", value);
        *value = program.Variable(program.globals.get(), Take().text);
        return true;
      case Instruction::Operand::Local:
        if (!named) return Integer("a local variable", value);
        *value = program.Variable(locals(), Take().text);
        return true;
      case Instruction::Operand::Function:
        if (!named) return Integer("a function", value);
        calls.push_back(MakeReference(end));
        return true;
      case Instruction::Operand::Distance:
        if (!At(Kind::Name)) return Integer("a label or a distance", value);
        jumps.push_back(MakeReference(end));
        return true;
      default: return Integer("an integer", value);
    }
  }

  Reference MakeReference(int end) {
    return {segment->number(), segment->length(), end, Take(), current->number};
  }

  bool Integer(const std::string& what, int* value) {
    if (!At(Kind::Number) || !ParseInteger(Token().text, value)) return Expected(what);
    position++;
    return true;
  }

  bool IntegerFrom(int lowest, int highest, const std::string& what, int* value) {
    int number = 0;
    if (!At(Kind::Number) || !ParseInteger(Token().text, &number) || number < lowest ||
        number > highest) {
      return Expected(what);
    }
    position++;
    *value = number;
    return true;
  }

  // A name, a quoted text, or # and the number of an entry of the dictionary.
  bool DictionaryName(const std::string& what, int* id) {
    if (TakeMark('#')) {
      int number = 0;
      if (!IntegerFrom(0, 0x7FFFFFFF, "the number of an entry", &number)) return false;
      if (program.dictionary.Entry(number, nullptr)) {
        *id = number;
        return true;
      }
      position--;
      return Expected("the number of an entry that exists");
    }
    if (!At(Kind::Name) && !At(Kind::Text)) return Expected(what);
    *id = program.Intern(Take().text);
    return true;
  }

  // Outside of functions the machine's local variables are the global ones.
  VariableHash* locals() { return function ? &function->variables() : program.globals.get(); }

  // --- Directives --------------------------------------------------------------------------------

  bool RunDirective() {
    auto found = Directives().find(Token().text);
    if (found == Directives().end()) return Expected("a directive");
    position++;
    return (this->*found->second)();
  }

  bool VersionDirective() {
    return IntegerFrom(TaggedFile::OldestVersion, TaggedFile::NewestVersion,
                       "a version, 0x10001 to 0x1000B", &program.version);
  }

  bool StampDirective() {
    if (!At(Kind::Text) || Token().text.size() > stamp_size)
      return Expected("a text of at most 16 bytes");
    program.stamp = Take().text;
    program.stamp.resize(stamp_size, '\0');
    return true;
  }

  bool FlagsDirective() {
    int flags = 0;
    if (!Integer("the dictionary's flag word", &flags)) return false;
    program.dictionary.SetFlags(flags);
    return true;
  }

  bool StartDirective() {
    if (!At(Kind::Number) || !ParseInteger(Token().text, &start_segment))
      return Expected("the number of the start segment");
    starts.push_back({0, 0, 0, Take(), current->number});
    return true;
  }

  bool SegmentDirective() {
    int number = program.segments.Segments();
    if (!At(Kind::End) &&
        !IntegerFrom(0, number, "the number of a segment or the next one", &number)) {
      return false;
    }
    segment = program.SegmentAt(number);
    section = nullptr;
    function = nullptr;
    is_function_open = false;
    file_is_noted = false;
    return true;
  }

  bool EndDirective() {
    if (!is_function_open) {
      return FailAt(current->number, current->tokens[position - 1].column,
                    "expected a .function above, found '.end'");
    }
    is_function_open = false;
    function = nullptr;
    file_is_noted = false;
    return true;
  }

  bool EntryDirective() {
    do {
      if (!At(Kind::Text) && !At(Kind::Name)) return Expected("a text");
      program.AddEntry(Take().text);
    } while (TakeMark(','));
    return true;
  }

  bool SystemDirective() { return DeclareVariables(program.system.get()); }
  bool GlobalDirective() { return DeclareVariables(program.globals.get()); }
  bool LocalDirective() {
    if (!function) return Expected("a .function above");
    return DeclareVariables(&function->variables());
  }

  // A plain name is declared once, even if it is given several times. A name given by number is
  // always inserted; a listing uses that for tables that hold a name twice.
  bool DeclareVariables(VariableHash* table) {
    do {
      int id = 0;
      if (AtMark('#')) {
        if (!DictionaryName("a name", &id)) return false;
        table->Insert(id);
      } else if (At(Kind::Name) || At(Kind::Text)) {
        program.Variable(table, Take().text);
      } else {
        return Expected("a name");
      }
    } while (TakeMark(','));
    return true;
  }

  bool FunctionDirective() {
    int column = Token().column;
    std::string spelling = Token().text;
    bool by_number = AtMark('#');
    int name = 0;
    std::vector<ParameterDeclaration> parameters;
    int flags = 0;
    if (!DictionaryName("the function's name", &name)) return false;
    if (!by_number &&
        program.functions->Function_Get(spelling.data(), static_cast<int>(spelling.size()))) {
      return FailAt(current->number, column,
                    "expected a new function: '" + spelling + "' exists already");
    }
    is_function_open = true;
    if (TakeMark('(') && !Parameters(&parameters)) return false;
    if (!FunctionFlags(&flags)) return false;
    if (TakeWord("at")) return PlacedFunction(name, parameters, flags);
    if (flags & Function_External) {
      program.AddFunction(name, parameters, flags, -1, -1);
      return true;
    }
    if (!InCode()) return Fail("expected a function only in code: '.segment' leads back to it");
    function = program.AddFunction(name, parameters, flags, segment->number(), segment->length());
    file_is_noted = false;
    return true;
  }

  bool Parameters(std::vector<ParameterDeclaration>* parameters) {
    if (TakeMark(')')) return true;
    do {
      int name = 0;
      if (!DictionaryName("a parameter's name", &name)) return false;
      parameters->push_back({name, TakeWord("var")});
    } while (TakeMark(','));
    return TakeMark(')') || Expected("'var', ',' or ')'");
  }

  bool FunctionFlags(int* flags) {
    while (!At(Kind::End) && !(At(Kind::Name) && Token().text == "at")) {
      int bits = 0;
      for (const FunctionFlagName& flag : function_flag_names) {
        if (At(Kind::Name) && Token().text == flag.name) bits = flag.bit;
      }
      if (bits) {
        position++;
      } else if (!Integer("external, compress, erroron, erroroff, inherit, a number or 'at'",
                          &bits)) {
        return false;
      }
      *flags |= bits;
    }
    return true;
  }

  // "at segment:offset" says where the function begins, independent of the place of the line. Its
  // locals are its parameters and those of the .local lines that follow.
  bool PlacedFunction(int name, const std::vector<ParameterDeclaration>& parameters, int flags) {
    int number = 0;
    int offset = 0;
    if (!Integer("a segment and an offset, as 0:12", &number)) return false;
    if (!TakeMark(':')) return Expected("':' and an offset");
    if (!Integer("an offset", &offset)) return false;
    function = program.AddFunction(name, parameters, flags, number, offset);
    return true;
  }

  bool LanguageDirective() {
    if (!DictionaryName("a language, as \"en-US\"", &language)) return false;
    if (!program.languages->Get_Language_Entry(language)) program.languages->Add_Entry(language);
    return true;
  }

  bool MessageDirective() {
    if (language < 0) return Expected("a .language above");
    int token = 0;
    if (!DictionaryName("the message's token", &token)) return false;
    std::vector<MessagePiece> pieces;
    while (!At(Kind::End)) {
      bool literal = !TakeWord("param") && !At(Kind::Name);
      int id = 0;
      if (!DictionaryName("a quoted text or a parameter's name", &id)) return false;
      pieces.push_back({id, literal});
    }
    program.AddMessage(language, token, pieces);
    return true;
  }

  bool BitsDirective() {
    static const char* const what = "system, global, function or language, before its first use";
    bool is_system = TakeWord("system");
    bool is_global = !is_system && TakeWord("global");
    bool is_function = !is_system && !is_global && TakeWord("function");
    bool is_language = !is_system && !is_global && !is_function && TakeWord("language");
    if (!is_system && !is_global && !is_function && !is_language) return Expected(what);
    bool used = is_system     ? program.system->Entries() > 0
                : is_global   ? program.globals->Entries() > 0
                : is_function ? program.functions->Functions() > 0
                              : program.languages->Entries() > 0;
    if (used) return Expected(what);
    int bits = 0;
    if (!IntegerFrom(0, 16, "a number of bits, 0 to 16", &bits)) return false;
    Dictionary* names = &program.dictionary;
    if (is_system) program.system = std::make_unique<VariableHash>(names, bits, variable_capacity);
    if (is_global) program.globals = std::make_unique<VariableHash>(names, bits, variable_capacity);
    if (is_function)
      program.functions = std::make_unique<FunctionManager>(names, bits, function_capacity);
    if (is_language) {
      program.languages =
          std::make_unique<LocalizedLanguages>(nullptr, names, nullptr, bits, language_capacity);
    }
    return true;
  }

  // --- Bytes as they are -------------------------------------------------------------------------

  bool InCode() const { return section == nullptr; }

  void Append(std::string_view bytes) {
    if (section) {
      section->append(bytes);
      return;
    }
    for (char byte : bytes)
      segment->Write_Byte(segment->length(), static_cast<unsigned char>(byte));
  }

  void AppendInteger(uint64_t value, int size) {
    std::string bytes;
    for (int i = 0; i < size; i++) bytes += static_cast<char>(value >> (8 * i));
    Append(bytes);
  }

  bool Integers(int size, int lowest, int highest, const std::string& what) {
    do {
      int value = 0;
      if (!IntegerFrom(lowest, highest, what, &value)) return false;
      AppendInteger(static_cast<unsigned>(value), size);
    } while (TakeMark(','));
    return true;
  }

  bool ByteDirective() { return Integers(1, -128, 255, "a byte, -128 to 255"); }
  bool WordDirective() { return Integers(2, -32768, 65535, "a word, -32768 to 65535"); }
  bool DwordDirective() { return Integers(4, -0x7FFFFFFF - 1, 0x7FFFFFFF, "an integer"); }

  bool DoubleDirective() {
    do {
      double value = 0;
      if ((!At(Kind::Number) && !At(Kind::Name)) || !ParseDouble(Token().text, &value))
        return Expected("a number");
      position++;
      AppendInteger(std::bit_cast<uint64_t>(value), 8);
    } while (TakeMark(','));
    return true;
  }

  bool TextDirective() {
    do {
      if (!At(Kind::Text)) return Expected("a quoted text");
      Append(Take().text);
    } while (TakeMark(','));
    return true;
  }

  bool HexDirective() {
    do {
      std::string bytes;
      if (!At(Kind::Text) || !DecodeHex(Token().text, &bytes))
        return Expected("a quoted text of pairs of hexadecimal digits");
      position++;
      Append(bytes);
    } while (TakeMark(','));
    return true;
  }

  bool SectionDirective() {
    int tag = 0;
    if (!TakeTag(&tag)) return false;
    program.given_sections.emplace_back(tag, std::string());
    section = &program.given_sections.back().second;
    return true;
  }

  bool SectionsDirective() {
    do {
      int tag = 0;
      if (!TakeTag(&tag)) return false;
      program.section_order.push_back(tag);
    } while (TakeMark(','));
    return true;
  }

  bool TakeTag(int* tag) {
    if (!At(Kind::Text) || Token().text.size() != 4) return Expected("a quoted tag of four bytes");
    char letters[5] = {};
    Token().text.copy(letters, 4);
    *tag = MakeTag(letters);
    position++;
    return true;
  }

  bool ImageDirective() {
    program.has_given_image = true;
    section = &program.given_image;
    return true;
  }

  // --- References --------------------------------------------------------------------------------

  void ResolveReferences() {
    // Checked at the end, because a segment may be made after the line that makes it the start
    // segment.
    for (const Reference& start : starts) {
      if (start_segment < 0 || start_segment >= program.segments.Segments()) {
        FailAt(start.line, start.name.column,
               "expected the number of a segment, found '" + start.name.text + "'");
      }
    }
    program.segments.SetStart(start_segment);
    for (const Reference& jump : jumps) {
      auto found = labels.find(jump.name.text);
      if (found == labels.end() || found->second.segment != jump.segment) {
        FailAt(jump.line, jump.name.column,
               "expected a label of this segment, found '" + jump.name.text + "'");
        continue;
      }
      Fill(jump, found->second.offset - jump.base);
    }
    for (const Reference& call : calls) {
      const std::string& name = call.name.text;
      Function* called =
          program.functions->Function_Get(name.data(), static_cast<int>(name.size()));
      if (!called) {
        FailAt(call.line, call.name.column,
               "expected a function that a .function declares, found '" + name + "'");
        continue;
      }
      Fill(call, called->index());
    }
    std::stable_sort(
        errors.begin(), errors.end(),
        [](const AssemblyError& a, const AssemblyError& b) { return a.line < b.line; });
    if (errors.size() > error_limit) errors.resize(error_limit);
  }

  void Fill(const Reference& reference, int value) {
    program.SegmentAt(reference.segment)
        ->Write_Dword(reference.position, static_cast<unsigned>(value));
  }

  std::vector<AssemblyError> errors;
  std::vector<AssemblyLine> lines;
  const AssemblyLine* current = nullptr;
  size_t position = 0;

  std::string name;  // of the source
  bool notes_lines;
  bool file_is_noted = false;     // for the code that follows
  bool is_function_open = false;  // for .end; also of a function without code

  AssemblyProgram program;
  Segment* segment = program.SegmentAt(0);
  Function* function = nullptr;    // its locals are in scope; null outside of functions
  std::string* section = nullptr;  // the section that bytes go to; null for the segment
  int language = -1;               // dictionary id; -1 before the first
  std::map<std::string, Label, std::less<>> labels;
  std::vector<Reference> jumps;
  std::vector<Reference> calls;
  std::vector<Reference> starts;
  int start_segment = 0;
};

const std::map<std::string, Assembler::Directive, std::less<>>& Assembler::Directives() {
  static const std::map<std::string, Directive, std::less<>> directives = {
      {".version", &Assembler::VersionDirective}, {".stamp", &Assembler::StampDirective},
      {".flags", &Assembler::FlagsDirective},     {".start", &Assembler::StartDirective},
      {".segment", &Assembler::SegmentDirective}, {".function", &Assembler::FunctionDirective},
      {".end", &Assembler::EndDirective},         {".entry", &Assembler::EntryDirective},
      {".system", &Assembler::SystemDirective},   {".global", &Assembler::GlobalDirective},
      {".local", &Assembler::LocalDirective},     {".language", &Assembler::LanguageDirective},
      {".message", &Assembler::MessageDirective}, {".bits", &Assembler::BitsDirective},
      {".byte", &Assembler::ByteDirective},       {".word", &Assembler::WordDirective},
      {".dword", &Assembler::DwordDirective},     {".double", &Assembler::DoubleDirective},
      {".text", &Assembler::TextDirective},       {".hex", &Assembler::HexDirective},
      {".section", &Assembler::SectionDirective}, {".sections", &Assembler::SectionsDirective},
      {".image", &Assembler::ImageDirective},
  };
  return directives;
}

}  // namespace

bool AssembleScript(std::string_view source, std::string_view name, const AssemblyOptions& options,
                    std::string* image, std::string* errors) {
  image->clear();
  errors->clear();
  Assembler assembler(source, name, options);
  std::string problem;
  if (assembler.Run(image, &problem)) return true;
  std::string prefix(name);
  for (const AssemblyError& error : assembler.reports()) {
    *errors += prefix + ":" + std::to_string(error.line) + ":" + std::to_string(error.column) +
               ": " + error.text + "\n";
  }
  if (!problem.empty()) *errors += prefix + ": " + problem + "\n";
  image->clear();
  return false;
}

bool AssembleScript(std::string_view source, std::string_view name, std::string* image,
                    std::string* errors) {
  return AssembleScript(source, name, {}, image, errors);
}
