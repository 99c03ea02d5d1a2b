// Finds a tag's number by its name, for configuration of the settings of tag errors.

#ifndef ZEPH_BASE_TAGLOOKUP_H
#define ZEPH_BASE_TAGLOOKUP_H

#include <array>

// A name that configuration may use. Two tags have a second, shorter name: zpasync and
// zpfuncreturn; errors inside expressions have the name "expression".
struct TagKeyword {
  int tag;
  int length;
  char text[20];  // lower case, NUL-terminated
};

inline constexpr int tag_keyword_count = 78;
// Length of the longest keyword.
inline constexpr int tag_keyword_length = 18;
// All keywords, sorted by length, then by bytes.
extern const std::array<TagKeyword, tag_keyword_count> tag_keywords;

// Stateless; any thread.
class TagLookup {
 public:
  // The keyword that equals name without regard to case, or null; it lives for ever. A length of -1
  // means strlen.
  const TagKeyword* Lookup(const char* name, int length) const;
};

#endif
