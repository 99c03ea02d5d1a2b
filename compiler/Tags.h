// The table of tags: names, syntax and attributes. Made from Tags.def.

#ifndef ZEPH_COMPILER_TAGS_H
#define ZEPH_COMPILER_TAGS_H

#include <string>
#include <string_view>
#include <vector>

enum class TagForm {
  Nothing,        // only the name
  Value,          // one expression
  OptionalValue,  // one or none
  Name,           // a word
  Names,          // variables with commas between
  Assignments,    // variable = expression, several
  List,           // variable = expression, expression, ...
  Members,        // variable, then name = expression, several
  Attributes,     // name = expression, in any order
  For,            // variable = expression to expression step number
  Foreach,        // variable = expression, then attributes
  Function,       // name(parameters) words
};

enum class TagBody {
  None,
  Block,  // up to the closing tag
  Part,   // a part of the tag around it: ZpELSE
  Raw,    // up to the closing tag, and nothing in it is looked at
};

enum class TagId {
#define TAG(identifier, number, name, form, body, attributes) identifier,
#include "compiler/Tags.def"
#undef TAG
};

struct TagAttribute {
  std::string name;
  bool required = false;
  bool is_word = false;      // has no value
  bool is_variable = false;  // its value is a variable
};

struct TagRow {
  TagId id;
  int number;
  std::string_view name;
  TagForm form;
  TagBody body;
  std::vector<TagAttribute> attributes;

  // The position of an attribute, -1 if the tag has none of that name; case does not count.
  int Find(std::string_view attribute) const;
};

// The tag of a name, without regard to case; null for an unknown one. Lives for ever.
const TagRow* FindTag(std::string_view name);
const TagRow& Tag(TagId id);
std::vector<std::string_view> TagNames();

// The system variables that hosts always have, see docs/variables.md. *assignable says whether a
// script can set it.
bool IsSystemVariable(std::string_view name, bool* assignable);

std::string LowerCase(std::string_view text);
bool SameName(std::string_view a, std::string_view b);

#endif
