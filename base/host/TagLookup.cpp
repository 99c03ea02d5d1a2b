// The sorted table of tag names. Tested in tests/base/host/TagLookupTest.cpp.
#include "base/host/TagLookup.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr char LowerCase(char c) {
  return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c;
}

constexpr TagKeyword Keyword(int tag, const char* name) {
  TagKeyword keyword = {tag, 0, {}};
  while (name[keyword.length] != 0) {
    keyword.text[keyword.length] = LowerCase(name[keyword.length]);
    keyword.length++;
  }
  return keyword;
}

constexpr bool Before(const TagKeyword& a, const TagKeyword& b) {
  if (a.length != b.length) return a.length < b.length;
  return std::lexicographical_compare(a.text, a.text + a.length, b.text, b.text + b.length);
}

constexpr std::array<TagKeyword, tag_keyword_count> SortedKeywords() {
  std::array<TagKeyword, tag_keyword_count> keywords = {{
#define ZEPH_TAG(number, name, settings) Keyword(number, name),
#define ZEPH_TAG_EXPRESSION(number, name, variable, settings) Keyword(number, "expression"),
#include "base/host/TagErrors.def"
#undef ZEPH_TAG
#undef ZEPH_TAG_EXPRESSION
      Keyword(75, "zpasync"),
      Keyword(17, "zpfuncreturn"),
  }};
  std::sort(keywords.begin(), keywords.end(), Before);
  return keywords;
}

}  // namespace

constexpr std::array<TagKeyword, tag_keyword_count> tag_keywords = SortedKeywords();
static_assert(tag_keywords.front().length > 0 && tag_keywords.back().length == tag_keyword_length);

const TagKeyword* TagLookup::Lookup(const char* name, int length) const {
  if (name == nullptr) return nullptr;
  size_t bytes = length < 0 ? strnlen(name, tag_keyword_length + 1) : size_t(length);
  if (bytes > tag_keyword_length) return nullptr;
  TagKeyword wanted = {0, int(bytes), {}};
  std::transform(name, name + bytes, wanted.text, LowerCase);
  auto found = std::lower_bound(tag_keywords.begin(), tag_keywords.end(), wanted, Before);
  if (found == tag_keywords.end() || Before(wanted, *found)) return nullptr;
  return &*found;
}
