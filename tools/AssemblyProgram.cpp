// Builds and writes a compiled script. Tested in tests/tools/AssemblerTest.cpp.

#include "tools/AssemblyProgram.h"

#include <algorithm>

#include "tools/MemoryFile.h"

namespace {

int Length(std::string_view text) {
  return static_cast<int>(text.size());
}

}  // namespace

AssemblyProgram::AssemblyProgram()
    : system(std::make_unique<VariableHash>(&dictionary, variable_bits, variable_capacity)),
      globals(std::make_unique<VariableHash>(&dictionary, variable_bits, variable_capacity)),
      functions(std::make_unique<FunctionManager>(&dictionary, function_bits, function_capacity)),
      languages(std::make_unique<LocalizedLanguages>(nullptr, &dictionary, nullptr, language_bits,
                                                     language_capacity)) {}

int AssemblyProgram::Intern(std::string_view text) {
  auto found = ids.find(text);
  return found != ids.end() ? found->second : AddEntry(text);
}

int AssemblyProgram::AddEntry(std::string_view text) {
  int id = dictionary.Entry_Add(text.data(), Length(text));
  ids.emplace(text, id);  // keeps the first id of a text
  return id;
}

int AssemblyProgram::Variable(VariableHash* table, std::string_view name) {
  int index = table->Seek(-1, name.data(), Length(name), nullptr);
  return index >= 0 ? index : table->Insert(Intern(name));
}

Function* AssemblyProgram::AddFunction(int name,
                                       const std::vector<ParameterDeclaration>& parameters,
                                       int flags, int segment, int offset) {
  int length = 0;
  const char* text = dictionary.Entry(name, &length);
  auto* function =
      new Function(functions->Functions(), flags, name, text, length, segment, offset, &dictionary);
  functions->Function_Add(function, text, length);
  for (const ParameterDeclaration& parameter : parameters) {
    int index = function->variables().Insert(parameter.name);
    const char* parameter_text = dictionary.Entry(parameter.name, &length);
    function->parameters().Insert(new FunctionParameter(parameter.name, parameter_text, length,
                                                        parameter.by_reference, index),
                                  ListTail);
  }
  return function;
}

Segment* AssemblyProgram::SegmentAt(int number) {
  if (Segment* segment = segments.Lookup(number)) return segment;
  // The entry of the first segment exists from the beginning; Start() makes its segment.
  return number == 0 ? segments.Start() : segments.Segment_Add();
}

void AssemblyProgram::AddMessage(int language, int token,
                                 const std::vector<MessagePiece>& message) {
  languages->Add_Entry(language, token, message.empty() ? -1 : pieces.Entries());
  for (const MessagePiece& piece : message) {
    bool last = &piece == &message.back();
    pieces.Entry_Add(piece.literal, piece.text, last ? -1 : pieces.Entries() + 1);
  }
}

bool AssemblyProgram::Write(std::string* image, std::string* error) {
  if (has_given_image) {
    *image = given_image;
    return true;
  }
  MemoryFileManager manager;
  {
    TaggedFile file(&manager);
    if (!file.Create("image", stamp.data(), version) || !WriteSections(&file) ||
        !file.Section_Flush()) {
      *error = "the compiled file cannot be written";
      return false;
    }
  }
  *image = manager.Contents("image");
  return true;
}

const std::string* AssemblyProgram::GivenSection(int tag) const {
  for (const auto& [given_tag, bytes] : given_sections) {
    if (given_tag == tag) return &bytes;
  }
  return nullptr;
}

std::vector<int> AssemblyProgram::SectionsToWrite() const {
  if (!section_order.empty()) return section_order;
  std::vector<int> tags = {tag_dictionary, tag_system,   tag_global,   tag_languages,
                           tag_pieces,     tag_segments, tag_functions};
  for (const auto& [tag, bytes] : given_sections) {
    if (std::find(tags.begin(), tags.end(), tag) == tags.end()) tags.push_back(tag);
  }
  return tags;
}

bool AssemblyProgram::WriteSections(TaggedFile* file) {
  for (int tag : SectionsToWrite()) {
    const std::string* given = GivenSection(tag);
    if (!given) {
      if (!WriteSection(file, tag)) return false;
      continue;
    }
    file->Section_Start(tag);
    if (file->Section_Write(given->data(), Length(*given)) != Length(*given)) return false;
    file->Section_End();
  }
  return true;
}

bool AssemblyProgram::WriteSection(TaggedFile* file, int tag) {
  switch (tag) {
    case tag_dictionary: return dictionary.Write(file);
    case tag_system: return system->Write(file, tag);
    case tag_global: return globals->Write(file, tag);
    case tag_languages: return languages->Write(file);  // and the indexes after it
    case tag_pieces: return pieces.Write(file);
    case tag_segments: return segments.Write(file);
    case tag_functions: {
      // As a rule the functions are the last section, so Write leaves it for the caller to end.
      bool written = functions->Write(file);
      file->Section_End();
      return written;
    }
    default: return true;  // a tag without bytes has no section
  }
}
