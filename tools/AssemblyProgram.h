// A compiled script under construction, made of the engine's own classes, so that zpasm writes the
// same bytes as the engine's writers.

#ifndef ZEPH_TOOLS_ASSEMBLYPROGRAM_H
#define ZEPH_TOOLS_ASSEMBLYPROGRAM_H

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/compiled/Dictionary.h"
#include "base/compiled/Function.h"
#include "base/compiled/LocalizedDictionary.h"
#include "base/compiled/LocalizedLanguages.h"
#include "base/compiled/Segment.h"
#include "base/compiled/TaggedFile.h"
#include "base/compiled/VariableHash.h"

// The tags of the sections. An index of tokens has the language's number in its upper half. A file
// older than separate_indexes has only one of them, with tag 0.
constexpr int tag_dictionary = MakeTag("dict");
constexpr int tag_system = MakeTag("syst");
constexpr int tag_global = MakeTag("glbl");
constexpr int tag_languages = MakeTag("locl");
constexpr int tag_pieces = MakeTag("locd");
constexpr int tag_segments = MakeTag("segs");
constexpr int tag_functions = MakeTag("func");
constexpr unsigned separate_indexes = 0x10008;
constexpr int IndexTag(int language) {
  return static_cast<int>(static_cast<unsigned>(language) << 16 | 0x584C);
}

// Sizes of the tables. Each request fills the buckets of its own tables again, so the tables of
// variables have no more buckets than a page with its environment needs.
constexpr int variable_bits = 8;
constexpr int variable_capacity = 512;
constexpr int function_bits = 8;
constexpr int function_capacity = 64;
constexpr int language_bits = 12;
constexpr int language_capacity = 8;
constexpr size_t stamp_size = 16;

// A piece of a message: the dictionary id of its text. A piece is either literal or a parameter's
// name.
struct MessagePiece {
  int text;
  bool literal;
};

// A parameter of a function: the dictionary id of its name, and the way it is passed.
struct ParameterDeclaration {
  int name;
  bool by_reference;
};

class AssemblyProgram {
 public:
  AssemblyProgram();
  AssemblyProgram(const AssemblyProgram&) = delete;
  AssemblyProgram& operator=(const AssemblyProgram&) = delete;

  // Returns the id of the first entry with exactly this text, and adds one when there is none.
  int Intern(std::string_view text);
  // Adds an entry, even if another has its text, and returns its id.
  int AddEntry(std::string_view text);

  // Returns the position of a name in a table, ignoring case, and adds the name when it is missing.
  int Variable(VariableHash* table, std::string_view name);

  // Adds a function at the next index. name and the parameters' names are dictionary ids.
  Function* AddFunction(int name, const std::vector<ParameterDeclaration>& parameters, int flags,
                        int segment, int offset);

  // Returns the segment of a number, and makes it if the number is the next one.
  Segment* SegmentAt(int number);

  // Adds a message of a language; both arguments are dictionary ids. Its pieces follow one another.
  void AddMessage(int language, int token, const std::vector<MessagePiece>& message);

  // Writes the whole compiled file into *image. Returns false with a text when it cannot be
  // written.
  [[nodiscard]] bool Write(std::string* image, std::string* error);

  Dictionary dictionary;
  std::unique_ptr<VariableHash> system;
  std::unique_ptr<VariableHash> globals;
  std::unique_ptr<FunctionManager> functions;
  std::unique_ptr<LocalizedLanguages> languages;
  SegmentManager segments;
  LocalizedDictionary pieces;

  int version = 0;  // 0 is the newest
  std::string stamp = std::string(stamp_size, '\0');
  // Sections given as bytes: they replace those of the same tag, or come last.
  std::vector<std::pair<int, std::string>> given_sections;
  // The sections to write, in order; empty for the usual ones.
  std::vector<int> section_order;
  // The whole file, if it is given as bytes.
  std::string given_image;
  bool has_given_image = false;

 private:
  const std::string* GivenSection(int tag) const;
  std::vector<int> SectionsToWrite() const;
  bool WriteSections(TaggedFile* file);
  bool WriteSection(TaggedFile* file, int tag);

  std::map<std::string, int, std::less<>> ids;
};

#endif
