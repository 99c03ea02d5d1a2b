// The table of tags, and the names of system variables. Tested in tests/compiler/LanguageTest.cpp.

#include "compiler/Tags.h"

#include <algorithm>
#include <iterator>
#include <unordered_map>

#include "base/core/ascii.h"
#include "base/core/memcmpi.h"

namespace {

std::vector<TagAttribute> ReadAttributes(std::string_view list) {
  std::vector<TagAttribute> attributes;
  for (size_t at = 0; at < list.size();) {
    const size_t end = std::min(list.find(' ', at), list.size());
    TagAttribute attribute;
    attribute.name = list.substr(at, end - at);
    const char mark = attribute.name.back();
    attribute.required = mark == '!';
    attribute.is_word = mark == '?';
    attribute.is_variable = mark == '=';
    if (!zp_isalpha(static_cast<unsigned char>(mark))) attribute.name.pop_back();
    attributes.push_back(attribute);
    at = end + 1;
  }
  return attributes;
}

const std::vector<TagRow>& Rows() {
  static const std::vector<TagRow> rows = {
#define TAG(identifier, number, name, form, body, attributes) \
  {TagId::identifier, number, name, TagForm::form, TagBody::body, ReadAttributes(attributes)},
#include "compiler/Tags.def"
#undef TAG
  };
  return rows;
}

// docs/variables.md has the same names. Those of the web server and of the configuration are not
// known before a page runs.
constexpr std::string_view kSystemNames[] = {
    "time_t",
    "tm_usec",
    "tm_sec",
    "tm_min",
    "tm_hour",
    "tm_mday",
    "tm_mon",
    "stm_mon",
    "tm_year",
    "tm_wday",
    "stm_wday",
    "tm_yday",
    "tm_isdst",
    "stm_zone",
    "globaltimeout",
    "zephversion",
    "dyn_time_t",
    "dyn_tm_usec",
    "dyn_tm_sec",
    "dyn_tm_min",
    "dyn_tm_hour",
    "dyn_tm_mday",
    "dyn_tm_mon",
    "dyn_tm_year",
    "dyn_stm_mon",
    "dyn_tm_wday",
    "dyn_stm_wday",
    "dyn_tm_yday",
    "dyn_tm_isdst",
    "dyn_stm_zone",
    "dyn_time_remaining",
    "zeph_language",
    "zeph_defaultlanguage",
    "zeph_defaultdatabase",
    "zeph_charset",
    "zeph_sslavailable",
    "process_name",
    "zeph_config",
};
constexpr std::string_view kAssignable[] = {"zeph_language", "zeph_defaultlanguage",
                                            "zeph_defaultdatabase", "zeph_charset"};

bool Contains(const std::string_view* first, const std::string_view* last, std::string_view name) {
  return std::any_of(first, last, [name](std::string_view known) { return SameName(known, name); });
}

}  // namespace

std::string LowerCase(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = static_cast<char>(zp_tolower(static_cast<unsigned char>(c)));
  return lower;
}

bool SameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && memcmpi(a.data(), b.data(), a.size()) == 0;
}

int TagRow::Find(std::string_view attribute) const {
  for (size_t i = 0; i < attributes.size(); i++) {
    if (SameName(attributes[i].name, attribute)) return static_cast<int>(i);
  }
  return -1;
}

const TagRow* FindTag(std::string_view name) {
  static const auto table = [] {
    std::unordered_map<std::string, const TagRow*> rows;
    for (const TagRow& row : Rows()) rows.emplace(LowerCase(row.name), &row);
    return rows;
  }();
  auto found = table.find(LowerCase(name));
  return found == table.end() ? nullptr : found->second;
}

const TagRow& Tag(TagId id) {
  return Rows()[static_cast<size_t>(id)];
}

std::vector<std::string_view> TagNames() {
  std::vector<std::string_view> names;
  for (const TagRow& row : Rows()) names.push_back(row.name);
  return names;
}

bool IsSystemVariable(std::string_view name, bool* assignable) {
  if (!Contains(std::begin(kSystemNames), std::end(kSystemNames), name)) return false;
  *assignable = Contains(std::begin(kAssignable), std::end(kAssignable), name);
  return true;
}
