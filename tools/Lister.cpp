// Lists compiled scripts: reads the file, tries ever more explicit forms, and checks each result.
// Tested in tests/tools/ListerTest.cpp.

#include "tools/Lister.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "base/compiled/Instructions.h"
#include "tools/Assembler.h"
#include "tools/AssemblyProgram.h"
#include "tools/AssemblySource.h"
#include "tools/FunctionFlagNames.h"
#include "tools/MemoryFile.h"

namespace {

constexpr char file_name[] = "image";
constexpr size_t header_size = 32;
constexpr size_t hex_bytes_per_line = 32;

// Reads rows of a table. The engine itself has no use for them, so they are protected there.
struct TableRows : VariableHash {
  static int NameIndex(VariableHash& table, int index) {
    return (table.*(&TableRows::entries))[index].name_index;
  }
  static int Bits(VariableHash& table) { return table.*(&TableRows::bits); }
};

unsigned Integer(std::string_view bytes, size_t offset) {
  unsigned value = 0;
  for (size_t i = 0; i < 4; i++)
    value |= static_cast<unsigned>(bytes[offset + i] & 0xFF) << (8 * i);
  return value;
}

struct StoredSection {
  int tag;
  std::string bytes;
};

// The directory's sections with their bytes; bytes outside of the image are cut off.
std::vector<StoredSection> ReadSections(std::string_view image) {
  std::vector<StoredSection> sections;
  if (image.size() < header_size) return sections;
  size_t offset = Integer(image, 24);
  for (unsigned left = Integer(image, 28); left > 0; left--, offset += 12) {
    if (offset > image.size() || image.size() - offset < 12) break;
    size_t start = std::min<size_t>(Integer(image, offset + 4), image.size());
    sections.push_back({static_cast<int>(Integer(image, offset)),
                        std::string(image.substr(start, Integer(image, offset + 8)))});
  }
  return sections;
}

std::string TagText(int tag) {
  std::string letters;
  for (int i = 0; i < 4; i++) letters += static_cast<char>(static_cast<unsigned>(tag) >> (8 * i));
  return QuoteText(letters);
}

std::string HexLines(std::string_view bytes) {
  std::string lines;
  for (size_t start = 0; start < bytes.size(); start += hex_bytes_per_line) {
    lines += "        .hex \"";
    for (char byte : bytes.substr(start, hex_bytes_per_line)) {
      char digits[3];
      std::snprintf(digits, sizeof digits, "%02x", byte & 0xFF);
      lines += digits;
    }
    lines += "\"\n";
  }
  return lines;
}

// How explicit a listing has to be. Each field is for something that the assembler would do by
// itself, but that is different in this file.
struct Form {
  bool tables = false;   // the names of all tables, in order
  bool entries = false;  // the dictionary's entries, in order
  bool placed = false;   // where functions begin, instead of listing them there
  std::set<int> given;   // sections whose bytes are given
};

// The compiled file, read with the engine's own readers as far as they accept it.
class StoredProgram {
 public:
  explicit StoredProgram(std::string_view bytes) : image(bytes), file(&manager) {
    manager.files[file_name] = bytes;
  }

  // Returns false when it is not a compiled file; the text is in file.error().
  bool Open() {
    if (!file.Open(file_name, FileMode_Read)) return false;
    sections = ReadSections(image);
    ReadContents();
    return true;
  }

  bool Has(int tag) const {
    return std::any_of(sections.begin(), sections.end(),
                       [tag](const StoredSection& section) { return section.tag == tag; });
  }
  bool Unreadable(int tag) const { return unreadable.count(tag) > 0; }
  const std::string& Bytes(int tag) const {
    return std::find_if(sections.begin(), sections.end(),
                        [tag](const StoredSection& section) { return section.tag == tag; })
        ->bytes;
  }

  std::string_view TextOf(int id) const {
    int length = 0;
    const char* text = dictionary.Entry(id, &length);
    return text ? std::string_view(text, static_cast<size_t>(length)) : std::string_view();
  }
  bool IsEntry(int id) const { return id >= 0 && id < dictionary.Entries(); }
  // True if this id can be written as its text, which means the first entry with that text.
  bool IsFirst(int id) const {
    auto found = first_ids.find(TextOf(id));
    return IsEntry(id) && found != first_ids.end() && found->second == id;
  }

  // The tags of the indexes in the order in which they are written after "locl".
  std::vector<int> IndexTags() {
    std::vector<int> tags;
    int count = languages ? languages->Entries() : 0;
    if (file.version() < separate_indexes) count = std::min(count, 1);
    for (int i = 0; i < count; i++)
      tags.push_back(file.version() < separate_indexes ? 0 : IndexTag(i));
    return tags;
  }

  std::string_view image;
  MemoryFileManager manager;
  TaggedFile file;
  std::vector<StoredSection> sections;
  Dictionary dictionary;
  VariableHash system{&dictionary, variable_bits, variable_capacity};
  VariableHash globals{&dictionary, variable_bits, variable_capacity};
  FunctionManager functions{&dictionary, function_bits, function_capacity};
  SegmentManager segments;
  LocalizedDictionary pieces;
  std::unique_ptr<LocalizedLanguages> languages;
  std::vector<std::unique_ptr<LocalizedIndex>> indexes;

 private:
  // Reads one section. A section that its reader refuses is listed as bytes and counts as empty.
  // Any section that is still selected is ended first, because the reader would otherwise continue
  // in it.
  template <typename Read>
  void ReadSection(int tag, Read read) {
    file.Section_Read_End();
    if (!Has(tag) || !read()) unreadable.insert(tag);
  }

  void ReadContents() {
    ReadSection(tag_dictionary, [&] { return dictionary.Read(&file); });
    for (int id = 0; id < dictionary.Entries(); id++) first_ids.emplace(TextOf(id), id);
    ReadSection(tag_system, [&] { return system.Read(&file, tag_system); });
    ReadSection(tag_global, [&] { return globals.Read(&file, tag_global); });
    languages = std::make_unique<LocalizedLanguages>(nullptr, &dictionary, &file, language_bits,
                                                     language_capacity);
    ReadSection(tag_languages, [&] { return languages->Read(); });
    ReadSection(tag_pieces, [&] { return pieces.Read(&file); });
    ReadSection(tag_segments, [&] { return segments.Read(&file); });
    ReadSection(tag_functions, [&] { return functions.Read(&file); });
    if (Unreadable(tag_languages)) return;
    for (int tag : IndexTags()) {
      indexes.push_back(
          std::make_unique<LocalizedIndex>(static_cast<int>(indexes.size()), &dictionary));
      ReadSection(tag, [&] { return indexes.back()->Read(&file, tag); });
    }
  }

  std::map<std::string_view, int> first_ids;
  std::set<int> unreadable;
};

// Prints one program in one form.
class Printer {
 public:
  Printer(StoredProgram& stored, const Form& wanted) : program(stored), form(wanted) {}

  std::string Print() {
    PrintHeader();
    PrintDictionary();
    PrintTables();
    PrintMessages();
    if (!program.Unreadable(tag_functions)) PrintFunctionsUpTo(FirstInPlace());
    PrintCode();
    PrintSections();
    // Every part begins with an empty line. Remove the first one.
    text.erase(0, text.find_first_not_of('\n'));
    return std::move(text);
  }

 private:
  // --- Lines -------------------------------------------------------------------------------------

  void Line(const std::string& line) { text += line + "\n"; }
  void Statement(const std::string& statement) { Line("        " + statement); }

  static std::string Hex(unsigned value, int digits) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "0x%0*X", digits, value);
    return buffer;
  }

  static std::string Name(std::string_view name) {
    return IsPlainName(name) ? std::string(name) : QuoteText(name);
  }

  // A declared name: its text if that leads to this id, else its number.
  std::string DeclaredName(int id) const {
    return program.IsFirst(id) ? Name(program.TextOf(id)) : "#" + std::to_string(id);
  }

  // --- Header and tables -------------------------------------------------------------------------

  void PrintHeader() {
    if (program.file.version() != TaggedFile::NewestVersion)
      Line(".version " + Hex(program.file.version(), 5));
    std::string_view stamp(program.file.stamp(), stamp_size);
    size_t last = stamp.find_last_not_of('\0');
    if (last != std::string_view::npos) Line(".stamp " + QuoteText(stamp.substr(0, last + 1)));
    if (program.dictionary.flags()) Line(".flags " + Hex(Unsigned(program.dictionary.flags()), 1));
    if (program.segments.start()) Line(".start " + std::to_string(program.segments.start()));
    PrintBits("system", program.Unreadable(tag_system), TableRows::Bits(program.system),
              variable_bits);
    PrintBits("global", program.Unreadable(tag_global), TableRows::Bits(program.globals),
              variable_bits);
    PrintBits("function", program.Unreadable(tag_functions), StoredBits(tag_functions),
              function_bits);
    PrintBits("language", program.Unreadable(tag_languages), StoredBits(tag_languages),
              language_bits);
  }

  static unsigned Unsigned(int value) { return static_cast<unsigned>(value); }

  // The bits are in the third byte of these sections.
  int StoredBits(int tag) const {
    return program.Unreadable(tag) ? 0 : program.Bytes(tag)[2] & 0xFF;
  }

  void PrintBits(const char* table, bool unreadable, int bits, int usual) {
    if (!unreadable && bits != usual)
      Line(std::string(".bits ") + table + " " + std::to_string(bits));
  }

  void PrintDictionary() {
    if (!form.entries) return;
    Line("");
    Line("; The dictionary: entry 0, 1, 2 and so on.");
    for (int id = 0; id < program.dictionary.Entries(); id++)
      Line(".entry " + QuoteText(program.TextOf(id)));
  }

  void PrintTables() {
    if (!form.tables) return;
    Line("");
    PrintTable(".system ", tag_system, program.system);
    PrintTable(".global ", tag_global, program.globals);
  }

  void PrintTable(const std::string& directive, int tag, VariableHash& table) {
    if (program.Unreadable(tag)) return;
    for (int i = 0; i < table.Entries(); i++) Line(directive + DeclaredRow(table, i));
  }

  // If the table already has the name, it cannot be declared by its text.
  std::string DeclaredRow(VariableHash& table, int index) {
    int id = TableRows::NameIndex(table, index);
    return Reaches(table, index) ? DeclaredName(id) : "#" + std::to_string(id);
  }

  // True if a lookup by name gives this position.
  bool Reaches(VariableHash& table, int index) {
    int id = TableRows::NameIndex(table, index);
    if (!program.IsEntry(id)) return false;
    std::string_view name = program.TextOf(id);
    return table.Seek(-1, name.data(), static_cast<int>(name.size()), nullptr) == index;
  }

  // --- Localized texts ---------------------------------------------------------------------------

  void PrintMessages() {
    if (form.given.count(tag_languages) || form.given.count(tag_pieces)) return;
    for (size_t i = 0; i < program.indexes.size(); i++) {
      Line("");
      Line(".language " + DeclaredName(program.languages->Index(static_cast<int>(i))->language));
      LocalizedIndex& index = *program.indexes[i];
      for (int entry = 0; entry < index.Entries(); entry++) PrintMessage(*index.Index(entry));
    }
  }

  void PrintMessage(const LocalizedIndex::TokenEntry& entry) {
    std::string line = ".message " + DeclaredName(entry.token);
    LocalizedDictionary::Piece* piece = program.pieces.Entry(entry.first);
    // A damaged chain may be a circle; no sound one is longer than the table.
    for (int left = program.pieces.Entries(); piece && left > 0; left--) {
      line += " " + PieceText(*piece);
      piece = program.pieces.Entry(piece->next);
    }
    Line(line);
  }

  std::string PieceText(const LocalizedDictionary::Piece& piece) {
    bool by_text = program.IsFirst(piece.text);
    std::string_view bytes = program.TextOf(piece.text);
    if (piece.literal) return by_text ? QuoteText(bytes) : "#" + std::to_string(piece.text);
    if (by_text && IsPlainName(bytes) && bytes != "param") return std::string(bytes);
    return "param " + (by_text ? QuoteText(bytes) : "#" + std::to_string(piece.text));
  }

  // --- Functions ---------------------------------------------------------------------------------

  bool IsExternal(Function& function) const {
    return (function.flags() & Function_External) && function.segment() == -1 &&
           function.offset() == -1;
  }

  // The index of the first function, from next_function on, that is listed at the place where it
  // begins.
  int FirstInPlace() {
    int index = next_function;
    while (index < program.functions.Functions() &&
           (form.placed || IsExternal(*program.functions.Lookup(index)))) {
      index++;
    }
    return index;
  }

  void PrintFunctionsUpTo(int end) {
    bool printed = next_function < end;
    if (printed) Line("");
    for (; next_function < end; next_function++) PrintFunction(next_function);
    if (printed && form.placed) Line(".end");
  }

  void PrintFunction(int index) {
    Function& function = *program.functions.Lookup(index);
    std::string line = ".function " + FunctionName(function, "#");
    if (function.parameters().Entries() > 0) line += ParameterList(function);
    line += FlagWords(function.flags());
    if (form.placed && !IsExternal(function)) {
      line += " at " + std::to_string(function.segment()) + ":" + std::to_string(function.offset());
    }
    Line(line);
    if (IsExternal(function)) return;
    if (!form.placed) scope = &function;
    if (!form.tables) return;
    for (int i = function.parameters().Entries(); i < function.variables().Entries(); i++)
      Statement(".local " + DeclaredRow(function.variables(), i));
  }

  // The function's name if it leads to this function; else the mark and the number of its entry in
  // the dictionary.
  std::string FunctionName(Function& function, const std::string& mark) {
    return LeadsTo(function) && program.IsFirst(function.nameid())
               ? Name(program.TextOf(function.nameid()))
               : mark + std::to_string(function.nameid());
  }

  bool LeadsTo(Function& function) {
    std::string_view name = program.TextOf(function.nameid());
    return program.IsEntry(function.nameid()) &&
           program.functions.Function_Get(name.data(), static_cast<int>(name.size())) == &function;
  }

  std::string ParameterList(Function& function) {
    std::string list;
    List<FunctionParameter>& parameters = function.parameters();
    for (auto* parameter = parameters.First(); parameter; parameter = parameters.Next()) {
      list += (list.empty() ? "(" : ", ") + DeclaredName(parameter->nameid());
      if (parameter->byreference()) list += " var";
    }
    return list + ")";
  }

  static std::string FlagWords(int flags) {
    std::string words;
    for (const FunctionFlagName& flag : function_flag_names) {
      if (flags & flag.bit) words += std::string(" ") + flag.name;
      flags &= ~flag.bit;
    }
    return flags ? words + " " + Hex(Unsigned(flags), 1) : words;
  }

  // --- Code --------------------------------------------------------------------------------------

  void PrintCode() {
    if (program.Unreadable(tag_segments)) return;
    for (int number = 0; number < program.segments.Segments(); number++) {
      Segment* segment = program.segments.Lookup(number);
      if (!segment) continue;
      Line("");
      if (number > 0) Line(".segment " + std::to_string(number));
      PrintSegment(*segment);
    }
    if (!program.Unreadable(tag_functions)) PrintFunctionsUpTo(program.functions.Functions());
  }

  // An instruction with all its operands, or a word that is not an instruction, at an offset in the
  // code.
  struct Decoded {
    const Instruction::Row* row = nullptr;
    unsigned short word = 0;
    int end = 0;  // offset after it, or 0 when it is cut off
  };

  static Decoded Decode(const Segment& segment, int offset) {
    Decoded decoded;
    if (segment.Read_Word(offset, &decoded.word) < 0) return decoded;
    int end = offset + 2 + Instruction::FirstOperandSize(decoded.word) +
              Instruction::SecondOperandSize(decoded.word);
    if (end > segment.length()) return decoded;
    decoded.end = end;
    decoded.row = Instruction::Find(decoded.word);
    return decoded;
  }

  void PrintSegment(const Segment& segment) {
    scope = nullptr;
    FindTargets(segment);
    int offset = 0;
    while (offset < segment.length()) {
      PrintFunctionsAt(segment.number(), offset);
      if (targets.count(offset)) Line(LabelName(segment, offset) + ":");
      Decoded decoded = Decode(segment, offset);
      if (decoded.end == 0) break;
      if (decoded.row) {
        PrintInstruction(segment, offset, decoded);
      } else {
        PrintUnknown(segment, offset, decoded);
      }
      offset = decoded.end;
    }
    if (offset < segment.length()) PrintRest(segment, offset);
    PrintFunctionsAt(segment.number(), segment.length());
    if (targets.count(segment.length())) Line(LabelName(segment, segment.length()) + ":");
  }

  // Finds the starts of instructions that jumps lead to. The end of the segment counts as one.
  void FindTargets(const Segment& segment) {
    std::set<int> starts = {segment.length()};
    std::set<int> wanted;
    for (int offset = 0; offset < segment.length();) {
      Decoded decoded = Decode(segment, offset);
      if (decoded.end == 0) break;
      starts.insert(offset);
      if (decoded.row && decoded.row->first == Instruction::Operand::Distance)
        wanted.insert(Target(segment, offset, decoded));
      offset = decoded.end;
    }
    targets.clear();
    std::set_intersection(starts.begin(), starts.end(), wanted.begin(), wanted.end(),
                          std::inserter(targets, targets.end()));
  }

  static int Target(const Segment& segment, int offset, const Decoded& decoded) {
    return static_cast<int>(Unsigned(decoded.end) + Unsigned(Operand(segment, offset + 2)));
  }

  static int Operand(const Segment& segment, int position) {
    unsigned value = 0;
    segment.Read_Dword(position, &value);
    return static_cast<int>(value);
  }

  std::string LabelName(const Segment& segment, int offset) const {
    std::string name = "L" + std::to_string(offset);
    return segment.number() == 0 ? name : "S" + std::to_string(segment.number()) + "_" + name;
  }

  void PrintFunctionsAt(int segment, int offset) {
    if (form.placed || program.Unreadable(tag_functions)) return;
    for (;;) {
      int index = FirstInPlace();
      if (index >= program.functions.Functions()) return;
      Function& function = *program.functions.Lookup(index);
      if (function.segment() != segment || function.offset() != offset) return;
      PrintFunctionsUpTo(index + 1);
    }
  }

  void PrintInstruction(const Segment& segment, int offset, const Decoded& decoded) {
    const Instruction::Row& row = *decoded.row;
    std::string line = row.name;
    int position = offset + 2;
    if (row.first != Instruction::Operand::None) {
      line += " " + OperandText(segment, row, row.first, position, decoded.end);
      position += Instruction::FirstOperandSize(row.word);
    }
    if (row.second != Instruction::Operand::None)
      line += ", " + OperandText(segment, row, row.second, position, decoded.end);
    Statement(line);
  }

  std::string OperandText(const Segment& segment, const Instruction::Row& row,
                          Instruction::Operand kind, int position, int end) {
    if (kind == Instruction::Operand::Double) {
      double value = 0;
      segment.Read_Double(position, &value);
      return SpellDouble(value);
    }
    int value = Operand(segment, position);
    switch (kind) {
      case Instruction::Operand::Text:
        if (!program.IsFirst(value)) break;
        return row.word == Instruction::pushc ? QuoteText(program.TextOf(value))
                                              : Name(program.TextOf(value));
      case Instruction::Operand::System: return RowName(tag_system, program.system, value);
      case Instruction::Operand::Global: return RowName(tag_global, program.globals, value);
      case Instruction::Operand::Local:
        if (form.placed) break;
        return scope ? RowName(tag_functions, scope->variables(), value)
                     : RowName(tag_global, program.globals, value);
      case Instruction::Operand::Function: {
        Function* function = program.functions.Lookup(value);
        if (program.Unreadable(tag_functions) || !function || !LeadsTo(*function)) break;
        return Name(program.TextOf(function->nameid()));
      }
      case Instruction::Operand::Distance: {
        int target = static_cast<int>(Unsigned(end) + Unsigned(value));
        if (targets.count(target)) return LabelName(segment, target);
        break;
      }
      default: break;
    }
    return std::to_string(value);
  }

  std::string RowName(int tag, VariableHash& table, int index) {
    bool named =
        !program.Unreadable(tag) && index >= 0 && index < table.Entries() && Reaches(table, index);
    return named ? Name(program.TextOf(TableRows::NameIndex(table, index))) : std::to_string(index);
  }

  void PrintUnknown(const Segment& segment, int offset, const Decoded& decoded) {
    Statement(".word " + Hex(decoded.word, 4) + "  ; no instruction");
    int position = offset + 2;
    for (int size : {Instruction::FirstOperandSize(decoded.word),
                     Instruction::SecondOperandSize(decoded.word)}) {
      double value = 0;
      segment.Read_Double(position, &value);
      if (size == 4) Statement(".dword " + std::to_string(Operand(segment, position)));
      if (size == 8) Statement(".double " + SpellDouble(value));
      position += size;
    }
  }

  void PrintRest(const Segment& segment, int offset) {
    text += HexLines(std::string_view(reinterpret_cast<const char*>(segment.code()) + offset,
                                      static_cast<size_t>(segment.length() - offset)));
  }

  // --- Sections as bytes -------------------------------------------------------------------------

  void PrintSections() {
    std::set<int> printed;
    for (const StoredSection& section : program.sections) {
      if (!form.given.count(section.tag) || !printed.insert(section.tag).second) continue;
      Line("");
      Line(".section " + TagText(section.tag));
      text += HexLines(section.bytes);
    }
    std::vector<int> order = Order();
    if (order.empty()) return;
    Line("");
    Line("; The sections in their order in the file.");
    for (int tag : order) Line(".sections " + TagText(tag));
  }

  // The tags for .sections lines; none if they are the usual ones in the usual order. The indexes
  // are written with "locl".
  std::vector<int> Order() {
    std::vector<int> usual = {tag_dictionary, tag_system, tag_global, tag_languages};
    std::vector<int> indexes;
    if (!form.given.count(tag_languages)) indexes = program.IndexTags();
    usual.insert(usual.end(), indexes.begin(), indexes.end());
    for (int tag : {tag_pieces, tag_segments, tag_functions}) usual.push_back(tag);
    for (const StoredSection& section : program.sections) {
      if (std::find(usual.begin(), usual.end(), section.tag) == usual.end())
        usual.push_back(section.tag);
    }
    std::vector<int> tags;
    std::vector<int> told;
    for (const StoredSection& section : program.sections) {
      tags.push_back(section.tag);
      bool with_languages = std::find(indexes.begin(), indexes.end(), section.tag) != indexes.end();
      if (!with_languages) told.push_back(section.tag);
    }
    return tags == usual ? std::vector<int>() : told;
  }

  StoredProgram& program;
  const Form& form;
  std::string text;
  std::set<int> targets;
  Function* scope = nullptr;
  int next_function = 0;
};

// Finds the plainest form in which a program can be listed.
class Lister {
 public:
  explicit Lister(std::string_view bytes) : image(bytes), program(bytes) {}

  bool Run(std::string* text, std::string* error) {
    if (!program.Open()) {
      const String& problem = program.file.error();
      error->assign(problem.data ? problem.data : "", static_cast<size_t>(problem.length));
      return false;
    }
    if (TryForms() || TryGivenSections()) {
      *text = std::move(listing);
      return true;
    }
    *text =
        "; A file whose sections do not follow one another: no more than bytes is known of it.\n"
        ".image\n" +
        HexLines(image);
    return Reproduces(*text);
  }

 private:
  // Tries the forms from the plainest on; each is more explicit than the one before.
  bool TryForms() {
    form.given = SectionsWithoutForm();
    form.placed = FunctionsOutOfPlace();
    if (Try()) return true;
    form.tables = true;
    if (Try()) return true;
    form.entries = true;
    if (Try()) return true;
    form.placed = true;
    return Try();
  }

  // Sections that no statement describes, or whose reader fails.
  std::set<int> SectionsWithoutForm() {
    std::set<int> known = {tag_dictionary, tag_system,   tag_global,   tag_languages,
                           tag_pieces,     tag_segments, tag_functions};
    for (int tag : program.IndexTags()) known.insert(tag);
    std::set<int> given;
    for (const StoredSection& section : program.sections) {
      if (!known.count(section.tag) || program.Unreadable(section.tag)) given.insert(section.tag);
    }
    return WithIndexes(given);
  }

  // "locl" and the indexes are written together, so they are also given together.
  std::set<int> WithIndexes(std::set<int> given) {
    std::set<int> languages = {tag_languages};
    for (int tag : program.IndexTags()) languages.insert(tag);
    bool any = std::any_of(languages.begin(), languages.end(),
                           [&](int tag) { return given.count(tag) > 0 || !program.Has(tag); });
    if (any) given.insert(languages.begin(), languages.end());
    return given;
  }

  // True if functions do not begin in the order of their indexes.
  bool FunctionsOutOfPlace() {
    if (program.Unreadable(tag_functions)) return false;
    std::pair<int, int> last = {0, 0};
    for (int i = 0; i < program.functions.Functions(); i++) {
      Function& function = *program.functions.Lookup(i);
      if ((function.flags() & Function_External) && function.segment() == -1) continue;
      std::pair<int, int> place = {function.segment(), function.offset()};
      if (place < last || (function.flags() & Function_External)) return true;
      last = place;
    }
    return false;
  }

  bool Try() {
    listing = Printer(program, form).Print();
    return Reproduces(listing);
  }

  bool Reproduces(const std::string& text) {
    std::string errors;
    return AssembleScript(text, "listing", &assembled, &errors) && assembled == image;
  }

  // Gives the sections that the last form did not reproduce as bytes.
  bool TryGivenSections() {
    std::vector<StoredSection> made = ReadSections(assembled);
    for (const StoredSection& section : program.sections) {
      bool same = std::any_of(made.begin(), made.end(), [&](const StoredSection& other) {
        return other.tag == section.tag && other.bytes == section.bytes;
      });
      if (!same) form.given.insert(section.tag);
    }
    form.given = WithIndexes(form.given);
    return Try();
  }

  std::string_view image;
  StoredProgram program;
  Form form;
  std::string listing;
  std::string assembled;
};

}  // namespace

bool ListScript(std::string_view image, std::string* text, std::string* error) {
  text->clear();
  error->clear();
  return Lister(image).Run(text, error);
}
