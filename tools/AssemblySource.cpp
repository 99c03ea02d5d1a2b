// Splits program text into tokens and parses numbers and texts. Tested in
// tests/tools/AssemblySourceTest.cpp.

#include "tools/AssemblySource.h"

#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>

#include "base/core/ascii.h"

namespace {

bool IsLetter(char c) {
  return zp_isalpha(c) || c == '_';
}

// True if bytes are UTF-8, which an editor can show. Checks only lead and continuation bytes.
bool IsUTF8(std::string_view bytes) {
  int left = 0;
  for (char c : bytes) {
    int byte = c & 0xFF;
    bool continuation = byte >= 0x80 && byte < 0xC0;
    if (continuation != (left > 0)) return false;
    if (continuation) {
      left--;
    } else if (byte >= 0x80) {
      left = byte < 0xE0 ? 1 : byte < 0xF0 ? 2 : 3;
    }
  }
  return left == 0;
}

// Reads one line. position is an offset in the text; columns are position + 1.
class LineReader {
 public:
  LineReader(std::string_view line, int line_number, std::vector<AssemblyError>* reports)
      : text(line), number(line_number), errors(reports) {}

  AssemblyLine Read() {
    AssemblyLine line{number, {}};
    AssemblyToken token;
    while (NextToken(&token)) line.tokens.push_back(token);
    line.tokens.push_back({AssemblyToken::End, "", static_cast<int>(position) + 1});
    return line;
  }

 private:
  // Returns false at the end of the line, at a comment, and after an error.
  bool NextToken(AssemblyToken* token) {
    while (position < text.size() &&
           (text[position] == ' ' || text[position] == '\t' || text[position] == '\r')) {
      position++;
    }
    if (failed || position >= text.size() || text[position] == ';') return false;
    token->column = static_cast<int>(position) + 1;
    token->text.clear();
    char c = text[position];
    if (IsLetter(c)) return ReadName(token, AssemblyToken::Name);
    if (c == '.' && IsLetter(Peek(1))) return ReadName(token, AssemblyToken::Directive);
    if (zp_isdigit(c) || c == '-' || c == '+' || c == '.') return ReadNumber(token);
    if (c == '"') return ReadText(token);
    if (std::string_view("(),:#").find(c) != std::string_view::npos) {
      token->kind = AssemblyToken::Punctuation;
      token->text = c;
      position++;
      return true;
    }
    return Fail(position, "expected an instruction, a directive or an operand, found " +
                              (c > ' ' && c < 127 ? "'" + std::string(1, c) + "'"
                                                  : "byte " + std::to_string(c & 0xFF)));
  }

  bool ReadName(AssemblyToken* token, AssemblyToken::Kind kind) {
    token->kind = kind;
    do {
      token->text += text[position++];
    } while (position < text.size() && (IsLetter(text[position]) || zp_isdigit(text[position])));
    return true;
  }

  // Reads all characters that a number of any form may have; a later parse decides if it is valid.
  // A sign belongs to the number at its start and after the letter of an exponent, which a
  // hexadecimal number does not have. "-inf" is a number, "inf" a name that a double accepts.
  bool ReadNumber(AssemblyToken* token) {
    token->kind = AssemblyToken::Number;
    bool hexadecimal = false;
    while (position < text.size()) {
      char c = text[position];
      char last = token->text.empty() ? 0 : token->text.back();
      bool sign =
          (c == '-' || c == '+') && (last == 0 || (!hexadecimal && (last == 'e' || last == 'E')));
      if (!sign && !IsLetter(c) && !zp_isdigit(c) && c != '.') break;
      if ((c == 'x' || c == 'X') && last == '0') hexadecimal = true;
      token->text += c;
      position++;
    }
    return true;
  }

  bool ReadText(AssemblyToken* token) {
    size_t start = position++;
    token->kind = AssemblyToken::Text;
    while (position < text.size() && text[position] != '"') {
      if (text[position] != '\\') {
        token->text += text[position++];
      } else if (!ReadEscape(token)) {
        return false;
      }
    }
    if (position >= text.size()) return Fail(start, "expected a closing '\"' on the same line");
    position++;
    return true;
  }

  bool ReadEscape(AssemblyToken* token) {
    char c = Peek(1);
    switch (c) {
      case 'n': token->text += '\n'; break;
      case 'r': token->text += '\r'; break;
      case 't': token->text += '\t'; break;
      case '0': token->text += '\0'; break;
      case '\\':
      case '"': token->text += c; break;
      case 'x': {
        int high = zp_hexvalue(Peek(2));
        int low = zp_hexvalue(Peek(3));
        if (high < 0 || low < 0) return Fail(position, "expected two hexadecimal digits after \\x");
        token->text += static_cast<char>(high * 16 + low);
        position += 2;
        break;
      }
      default: return Fail(position, "expected one of \\n \\r \\t \\0 \\\\ \\\" \\xHH");
    }
    position += 2;
    return true;
  }

  char Peek(size_t distance) const {
    return position + distance < text.size() ? text[position + distance] : '\0';
  }

  bool Fail(size_t at, const std::string& message) {
    errors->push_back({number, static_cast<int>(at) + 1, message});
    failed = true;
    return false;
  }

  std::string_view text;
  int number;
  std::vector<AssemblyError>* errors;
  size_t position = 0;
  bool failed = false;
};

}  // namespace

std::vector<AssemblyLine> ReadAssemblySource(std::string_view source,
                                             std::vector<AssemblyError>* errors) {
  std::vector<AssemblyLine> lines;
  int number = 0;
  while (!source.empty()) {
    size_t end = source.find('\n');
    size_t known = errors->size();
    AssemblyLine line = LineReader(source.substr(0, end), ++number, errors).Read();
    // A line that failed is skipped: one mistake gives one error.
    if (line.tokens.size() > 1 && errors->size() == known) lines.push_back(std::move(line));
    source = end == std::string_view::npos ? std::string_view() : source.substr(end + 1);
  }
  return lines;
}

std::string DescribeToken(const AssemblyToken& token) {
  switch (token.kind) {
    case AssemblyToken::End: return "the end of the line";
    case AssemblyToken::Text: return "the text " + QuoteText(token.text);
    default: return "'" + token.text + "'";
  }
}

bool ParseInteger(const std::string& spelling, int* value) {
  const char* first = spelling.data();
  const char* last = first + spelling.size();
  bool negative = first < last && *first == '-';
  if (first < last && (*first == '-' || *first == '+')) first++;
  int base = 10;
  if (last - first > 2 && first[0] == '0' && (first[1] == 'x' || first[1] == 'X')) {
    base = 16;
    first += 2;
  }
  uint64_t magnitude = 0;
  auto [end, problem] = std::from_chars(first, last, magnitude, base);
  if (problem != std::errc() || end != last) return false;
  if (magnitude > (negative ? 0x80000000u : 0xFFFFFFFFu)) return false;
  uint32_t bits = static_cast<uint32_t>(magnitude);
  *value = static_cast<int>(negative ? 0 - bits : bits);
  return true;
}

bool ParseDouble(const std::string& spelling, double* value) {
  const char* first = spelling.data();
  const char* last = first + spelling.size();
  if (last - first > 2 && first[0] == '0' && (first[1] == 'x' || first[1] == 'X')) {
    uint64_t bits = 0;
    auto [end, problem] = std::from_chars(first + 2, last, bits, 16);
    if (problem != std::errc() || end != last) return false;
    *value = std::bit_cast<double>(bits);
    return true;
  }
  if (first < last && *first == '+') first++;
  double number = 0;
  auto [end, problem] = std::from_chars(first, last, number);
  if (problem != std::errc() || end != last) return false;
  *value = number;
  return true;
}

std::string QuoteText(std::string_view bytes) {
  std::string quoted = "\"";
  int highest = IsUTF8(bytes) ? 255 : 126;
  for (char c : bytes) {
    switch (c) {
      case '\n': quoted += "\\n"; break;
      case '\r': quoted += "\\r"; break;
      case '\t': quoted += "\\t"; break;
      case '\\': quoted += "\\\\"; break;
      case '"': quoted += "\\\""; break;
      default:
        if ((c & 0xFF) < ' ' || (c & 0xFF) > highest || c == 127) {
          char escape[8];
          std::snprintf(escape, sizeof escape, "\\x%02X", c & 0xFF);
          quoted += escape;
        } else {
          quoted += c;
        }
    }
  }
  return quoted + "\"";
}

std::string SpellDouble(double value) {
  char buffer[32];
  if (std::isnan(value)) {
    // A NaN has bits that no decimal spelling can express.
    std::snprintf(buffer, sizeof buffer, "0x%016llX",
                  static_cast<unsigned long long>(std::bit_cast<uint64_t>(value)));
    return buffer;
  }
  auto [end, problem] = std::to_chars(buffer, buffer + sizeof buffer, value);
  return std::string(buffer, end);
}

bool IsPlainName(std::string_view bytes) {
  if (bytes.empty() || !IsLetter(bytes[0])) return false;
  for (char c : bytes) {
    if (!IsLetter(c) && !zp_isdigit(c)) return false;
  }
  return true;
}
