// A second scanner of response bodies, which has the whole body at once and searches in it. The
// product's is compared with it.

#ifndef ZEPH_TESTS_SUPPORT_CALLMODEL_H
#define ZEPH_TESTS_SUPPORT_CALLMODEL_H

#include <string>

#include "tests/support/CallHost.h"

class CallModel {
 public:
  explicit CallModel(const std::string& body) : all(body.substr(0, body.find('\xFF'))) {}

  CallLoopSeen Read() {
    if (all.empty()) seen.passes.push_back({"(none)", "(none)", "(none)", "(none)", {}});
    while (at < all.size() && seen.error.empty()) {
      if (all[at] == '<') {
        Tag();
      } else {
        Text();
      }
    }
    return seen;
  }

 private:
  static constexpr char kWhite[] = " \t\r\n";
  static constexpr char kEndInTag[] = "Unexpected EOF in tag";

  size_t OrEnd(size_t found) const { return std::min(found, all.size()); }
  size_t NotWhite(size_t from) const { return OrEnd(all.find_first_not_of(kWhite, from)); }
  size_t AnyOf(const std::string& stops, size_t from) const {
    return OrEnd(all.find_first_of(stops, from));
  }
  std::string Between(size_t from, size_t to) const { return all.substr(from, to - from); }
  bool Fail(const std::string& text) {
    seen.error = text;
    return false;
  }

  void Text() {
    const size_t end = OrEnd(all.find('<', at));
    ClearAttributes();
    Add("text", end, "", "0");
  }

  void Tag() {
    const size_t begin = NotWhite(at + 1);
    const size_t end = AnyOf(std::string(kWhite) + ">", begin);
    if (end == all.size()) {
      Fail(kEndInTag);
      return;
    }
    const std::string name = Between(begin, end);
    size_t after = end;
    if (name.starts_with('!')) {
      if (Comment(name, &after)) Add("tag", after, name, "0");
      return;
    }
    ClearAttributes();
    count = 0;
    while (Attribute(&after)) count++;
    if (seen.error.empty()) Add("tag", after, name, std::to_string(count));
  }

  // Whether the end was found; *end is then past it.
  bool Comment(const std::string& name, size_t* end) {
    const bool html = name.starts_with("!--");
    const bool section = name.starts_with("![CDATA[");
    const size_t begin = *end;
    if (html || section) {
      const char mark = html ? '-' : ']';
      if (all[begin] == '>' && name.ends_with(std::string(2, mark))) {
        *end = begin + 1;
        return true;
      }
      for (size_t stop = all.find('>', begin); stop != std::string::npos;
           stop = all.find('>', stop + 1)) {
        const std::string inside = Between(begin, stop);
        const size_t other = inside.find_last_not_of("-]>");
        const std::string tail = other == std::string::npos ? inside : inside.substr(other + 1);
        if (std::count(tail.begin(), tail.end(), mark) < 2) continue;
        *end = stop + 1;
        return true;
      }
      return Fail("Unexpected EOF in HTML comment or CDATA section");
    }
    std::string open = "<";
    size_t stop = begin;
    for (; stop < all.size() && !open.empty(); stop++) {
      if (all[stop] == '<') open += '<';
      if (all[stop] == '>') open.pop_back();
    }
    *end = stop;
    return open.empty() || Fail("Unexpected EOF in DOCTYPE or other XML tag");
  }

  // Whether there is one. Otherwise *from is past the end of the tag, or there is an error.
  bool Attribute(size_t* from) {
    const size_t begin = NotWhite(*from);
    if (begin == all.size()) return Fail(kEndInTag);
    if (all[begin] == '>' || all[begin] == '/') {
      if (all[begin] == '/' && !SlashIsLast(begin)) return false;
      *from = begin + (all[begin] == '/' ? 2 : 1);
      return false;
    }
    const size_t end = AnyOf(std::string(kWhite) + "=>", begin);
    const std::string name = Between(begin, end);
    const size_t next = NotWhite(end);
    std::string value = name;
    *from = next;
    if (next < all.size() && all[next] == '=') {
      if (!Value(NotWhite(next + 1), &value, from)) return Fail(kEndInTag);
    } else if (next < all.size() && all[next] == '/') {
      if (!SlashIsLast(next)) return false;
      *from = next + 1;
    }
    Number(count) = {name, value};
    return true;
  }

  bool Value(size_t begin, std::string* value, size_t* from) const {
    const size_t stop = AnyOf(std::string(kWhite) + ">'\"", begin);
    if (stop == all.size()) return false;
    if (all[stop] == '>' || strchr(kWhite, all[stop])) {
      *value = Between(begin, stop);
      *from = all[stop] == '>' ? stop : stop + 1;
      return true;
    }
    const size_t closing = all.find(all[stop], stop + 1);
    if (closing == std::string::npos) return false;
    *value = stop == begin ? Between(begin + 1, closing) : Between(begin, closing + 1);
    *from = closing + 1;
    return true;
  }

  bool SlashIsLast(size_t slash) {
    if (slash + 1 == all.size()) return Fail(kEndInTag);
    if (all[slash + 1] == '>') return true;
    return Fail("Found &quot;" + all.substr(slash + 1, 1) + "&quot; in tag following /");
  }

  // Numbers that were used keep empty variables.
  std::pair<std::string, std::string>& Number(size_t index) {
    if (numbers.size() <= index) numbers.resize(index + 1);
    return numbers[index];
  }
  void ClearAttributes() {
    for (auto& number : numbers) number = {"", ""};
  }
  void Add(const std::string& type, size_t end, const std::string& name,
           const std::string& number) {
    seen.passes.push_back({type, Between(at, end), name, number, numbers});
    at = end;
  }

  std::string all;
  size_t at = 0;
  size_t count = 0;
  std::vector<std::pair<std::string, std::string>> numbers;
  CallLoopSeen seen;
};

#endif
