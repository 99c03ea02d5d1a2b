// What the SQL libraries share of texts and values: a value on its way to or from a database, names
// in quotes, and the markers of a query's parameters.

#ifndef ZEPH_EXTENSIONS_SQL_VALUES_H
#define ZEPH_EXTENSIONS_SQL_VALUES_H

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "api/zeph.h"

namespace zephsql {

enum class Kind : unsigned char { Null, Integer, Real, Text, Blob };

// Text and Blob have their bytes in text, which keeps its memory when the value changes.
struct Value {
  Kind kind = Kind::Null;
  int64_t integer = 0;
  double real = 0;
  std::string text;

  void SetNull() { kind = Kind::Null; }
  void SetInteger(int64_t value) {
    kind = Kind::Integer;
    integer = value;
  }
  void SetReal(double value) {
    kind = Kind::Real;
    real = value;
  }
  void SetText(std::string_view value) {
    kind = Kind::Text;
    text.assign(value);
  }
  // A text with a NUL byte is a blob: databases cut such a text, or refuse it.
  void SetBytes(std::string_view value) {
    kind = value.find('\0') == std::string_view::npos ? Kind::Text : Kind::Blob;
    text.assign(value);
  }
};
using Values = std::vector<Value>;

// The bytes of a text, which may be null.
inline std::string_view Bytes(const char* text, int length) {
  return {text ? text : "", static_cast<size_t>(std::max(length, 0))};
}

inline char Lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}
inline bool SameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                            [](char x, char y) { return Lower(x) == Lower(y); });
}
inline std::string Lowered(std::string_view text) {
  std::string lowered(text);
  for (char& c : lowered) c = Lower(c);
  return lowered;
}
// Names that are shown are in capitals, as those of a table of the built-in engine.
inline std::string Uppered(std::string_view text) {
  std::string uppered(text);
  for (char& c : uppered) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return uppered;
}
inline bool IsSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}
inline std::string_view Trimmed(std::string_view text) {
  while (!text.empty() && IsSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsSpace(text.back())) text.remove_suffix(1);
  return text;
}
inline bool IsWordByte(char c) {
  return (Lower(c) >= 'a' && Lower(c) <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
         static_cast<unsigned char>(c) >= 0x80;
}

// A name as SQL writes it in any case.
inline std::string Quoted(std::string_view name) {
  std::string quoted = "\"";
  for (const char c : name) {
    if (c == '"') quoted += '"';
    quoted += c;
  }
  return quoted + '"';
}

// The name of a file without its folders and its extension: "shop/people.dbf" is "people".
inline std::string BaseName(std::string_view path) {
  path.remove_prefix(path.rfind('/') + 1);  // npos + 1 is 0
  const size_t point = path.rfind('.');
  if (point != std::string_view::npos && point > 0) path = path.substr(0, point);
  return std::string(path);
}

// The words of a list, separated by commas, without the blanks around them.
inline std::vector<std::string_view> SplitList(std::string_view list) {
  std::vector<std::string_view> words;
  if (Trimmed(list).empty()) return words;
  for (;;) {
    const size_t comma = list.find(',');
    words.push_back(Trimmed(list.substr(0, comma)));
    if (comma == std::string_view::npos) return words;
    list.remove_prefix(comma + 1);
  }
}

// What a script has in a variable. A field of a database may be of no type, but have a value.
inline void FromVariable(ZPVARIABLE variable, Value* value) {
  switch (zpVariable_Type(variable)) {
    case 1: value->SetInteger(zpVariable_Value_Integer(variable)); break;
    case 2: value->SetReal(zpVariable_Value_Double(variable)); break;
    default: {
      int length = 0;
      const char* const text = zpVariable_Value(variable, &length);
      value->SetBytes(Bytes(text, length));
      if (length <= 0 && zpVariable_Type(variable) == 0) value->SetNull();
    }
  }
}

// As scripts decide it: empty, and nothing but zeros, is false.
inline bool IsTrue(const Value& value) {
  switch (value.kind) {
    case Kind::Null: return false;
    case Kind::Integer: return value.integer != 0;
    case Kind::Real: return value.real != 0;
    default: return value.text.find_first_not_of('0') != std::string::npos;
  }
}

inline bool ReadNumber(std::string_view text, double* number) {
  text = Trimmed(text);
  if (text.starts_with('+')) text.remove_prefix(1);
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *number);
  return error == std::errc() && end == text.data() + text.size();
}

// Whether a text is a day that there is: 20260131 or 2026-01-31.
inline bool IsDate(std::string_view text) {
  text = Trimmed(text);
  const bool has_signs = text.size() == 10 && text[4] == '-' && text[7] == '-';
  if (!has_signs && text.size() != 8) return false;
  int numbers[3] = {0, 0, 0};
  size_t at = 0;
  for (int i = 0; i < 3; i++) {
    for (const size_t end = at + (i == 0 ? 4 : 2); at < end; at++) {
      if (text[at] < '0' || text[at] > '9') return false;
      numbers[i] = numbers[i] * 10 + (text[at] - '0');
    }
    at += has_signs;
  }
  const auto [year, month, day] = numbers;
  if (year < 1 || month < 1 || month > 12) return false;
  const bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
  const int days = month == 2 ? 28 + leap : 30 + (month + (month > 7)) % 2;
  return day >= 1 && day <= days;
}

// 00 to 99.
inline constexpr auto kPairs = [] {
  std::array<char, 200> pairs{};
  for (size_t i = 0; i < 100; i++) {
    pairs[2 * i] = static_cast<char>('0' + i / 10);
    pairs[2 * i + 1] = static_cast<char>('0' + i % 10);
  }
  return pairs;
}();

// The text of a number with that many decimals, up to 30. It is in the buffer, which has room for
// kRealText bytes.
constexpr size_t kRealText = 400;
inline std::string_view RealText(double value, int decimals, char* buffer) {
  static constexpr int64_t kPowers[] = {1,      10,      100,      1000,      10000,
                                        100000, 1000000, 10000000, 100000000, 1000000000};
  // Most numbers of such a column have no more decimals than it. Then the digits are those of a
  // whole number, which are found much sooner.
  if (decimals < 10 && value > -1e6 && value < 1e6) {
    const int64_t power = kPowers[decimals];
    const double scaled = value * static_cast<double>(power);
    const auto whole = static_cast<int64_t>(scaled < 0 ? scaled - 0.5 : scaled + 0.5);
    const bool is_zero = value == 0 && !std::signbit(value);
    if (is_zero ||
        (whole != 0 && static_cast<double>(whole) / static_cast<double>(power) == value)) {
      char* const end = buffer + kRealText;
      char* at = end;
      auto left = static_cast<uint64_t>(whole < 0 ? -whole : whole);
      const auto write_digit = [&at, &left] {
        *--at = static_cast<char>('0' + left % 10);
        left /= 10;
      };
      const auto write_pair = [&at, &left] {
        at -= 2;
        memcpy(at, &kPairs[left % 100 * 2], 2);
        left /= 100;
      };
      for (int i = 0; i + 2 <= decimals; i += 2) write_pair();
      if (decimals % 2 != 0) write_digit();
      if (decimals > 0) *--at = '.';
      while (left >= 100) write_pair();
      if (left >= 10) {
        write_pair();
      } else {
        write_digit();
      }
      if (whole < 0) *--at = '-';
      return {at, static_cast<size_t>(end - at)};
    }
  }
  const int length = snprintf(buffer, kRealText, "%.*f", decimals, value);
  return {buffer, static_cast<size_t>(std::clamp(length, 0, static_cast<int>(kRealText) - 1))};
}
inline void SetRealText(double value, int decimals, std::string* text) {
  char buffer[kRealText];
  text->assign(RealText(value, decimals, buffer));
}

// A query of a script with the parameters that it names.
//
//   ?      the next variable of the list     ?2     the second one
//   :name  the variable of that name         ??     a question mark
//
// In texts, quoted names and comments these are what they are. The database gets numbered markers,
// and the values beside the query. SQLite has further markers, which would get the numbers of
// these, so they are errors.
class Query {
 public:
  // mark is what the database's own numbered markers begin with: '?' or '$'.
  Query(std::string_view text, ZPVARIABLELIST variables, char mark) : mark(mark) {
    for (ZPVARIABLE each = variables ? zpVariableList_First(variables) : nullptr; each;
         each = zpVariableList_Next(variables)) {
      FromVariable(each, &given.emplace_back());
      int length = 0;
      const char* const name = zpVariable_Name(each, &length);
      names.emplace_back(Bytes(name, length));
    }
    Read(text);
    values.resize(used.size());
    for (size_t i = 0; i < used.size(); i++) values[i] = given[used[i]];
  }

  std::string text;  // with the markers of the database
  Values values;
  std::string error;  // empty if all is well

 private:
  void Read(std::string_view from) {
    size_t next = 0;
    const bool is_sqlite = mark == '?';
    bool is_in_word = false;
    for (size_t at = 0; at < from.size() && error.empty();) {
      const char c = from[at];
      const bool follows_word = std::exchange(is_in_word, false);
      const char after = at + 1 < from.size() ? from[at + 1] : '\0';
      if (c == '\'' || c == '"' || c == '`') {
        at = Copy(from, at, EndOfQuotes(from, at));
      } else if (c == '[' && is_sqlite) {
        at = Copy(from, at, std::min(from.find(']', at), from.size() - 1) + 1);
      } else if (c == '-' && after == '-') {
        at = Copy(from, at, std::min(from.find('\n', at), from.size()));
      } else if (c == '/' && after == '*') {
        at = Copy(from, at, EndOfComment(from, at));
      } else if (c == '$' && mark == '$' && (after == '$' || IsWordByte(after)) &&
                 (at == 0 || !IsWordByte(from[at - 1]))) {
        at = Copy(from, at, EndOfDollars(from, at));
      } else if (c == '?' && after == '?') {
        text += '?';
        at += 2;
      } else if (c == '?') {
        size_t end = at + 1;
        while (end < from.size() && from[end] >= '0' && from[end] <= '9') end++;
        size_t number = next;
        if (end > at + 1) {
          number = strtoul(std::string(from.substr(at + 1, end - at - 1)).c_str(), nullptr, 10) - 1;
        }
        next = number + 1;
        Use(number, "the query has more parameters than there are variables");
        at = end;
      } else if (c == ':' && after == ':' && !is_sqlite) {
        at = Copy(from, at, at + 2);
      } else if (c == ':' && IsWordByte(after) && !(after >= '0' && after <= '9')) {
        size_t end = at + 1;
        while (end < from.size() && IsWordByte(from[end])) end++;
        const std::string_view name = from.substr(at + 1, end - at - 1);
        size_t number = 0;
        while (number < names.size() && !SameName(names[number], name)) number++;
        Use(number, "no variable '" + std::string(name) + "' is given to the query");
        at = end;
      } else if (is_sqlite && (c == '@' || c == '#' || c == ':' || (c == '$' && !follows_word))) {
        error = std::string("'") + c + "' does not begin a parameter; these are ?, ?2 and :name";
      } else {
        is_in_word = IsWordByte(c) || c == '$';
        text += c;
        at++;
      }
    }
  }

  size_t Copy(std::string_view from, size_t at, size_t end) {
    text += from.substr(at, end - at);
    return end;
  }
  // A quote in the text is doubled, so it looks like the end of one text and the start of another.
  // In PostgreSQL's E'...' a backslash quotes it, too.
  size_t EndOfQuotes(std::string_view from, size_t at) const {
    const bool escapes = mark == '$' && from[at] == '\'' && at > 0 && Lower(from[at - 1]) == 'e' &&
                         (at == 1 || !IsWordByte(from[at - 2]));
    for (size_t i = at + 1; i < from.size(); i++) {
      if (escapes && from[i] == '\\') {
        i++;
      } else if (from[i] == from[at]) {
        return i + 1;
      }
    }
    return from.size();
  }
  // Comments nest in PostgreSQL only.
  size_t EndOfComment(std::string_view from, size_t at) const {
    int depth = 0;
    for (size_t i = at; i + 1 < from.size(); i++) {
      if (from[i] == '/' && from[i + 1] == '*' && (depth == 0 || mark == '$')) {
        depth++;
        i++;
      } else if (from[i] == '*' && from[i + 1] == '/') {
        i++;
        if (--depth == 0) return i + 1;
      }
    }
    return from.size();
  }
  // $tag$ ... $tag$, or $1 as it is.
  static size_t EndOfDollars(std::string_view from, size_t at) {
    size_t end = at + 1;
    while (end < from.size() && IsWordByte(from[end])) end++;
    if (end == from.size() || from[end] != '$' || (from[at + 1] >= '0' && from[at + 1] <= '9')) {
      return end;
    }
    const std::string_view tag = from.substr(at, end + 1 - at);
    const size_t close = from.find(tag, end + 1);
    return close == std::string_view::npos ? from.size() : close + tag.size();
  }

  void Use(size_t number, const std::string& problem) {
    if (number >= given.size()) {
      error = problem;
      return;
    }
    size_t place = 0;
    while (place < used.size() && used[place] != number) place++;
    if (place == used.size()) used.push_back(number);
    text += mark;
    text += std::to_string(place + 1);
  }

  const char mark;
  Values given;
  std::vector<std::string> names;
  std::vector<size_t> used;  // the variables that the query refers to, in the order of its markers
};

}  // namespace zephsql

#endif
