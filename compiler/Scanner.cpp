// Finds the pieces of a page. Every byte is looked at a bounded number of times. Tested in
// tests/compiler/LanguageTest.cpp and ErrorTest.cpp.

#include "compiler/Scanner.h"

#include "base/core/ascii.h"

namespace {

using Kind = PagePiece::Kind;

bool IsLetter(char c) {
  return zp_isalpha(static_cast<unsigned char>(c));
}

bool IsTagByte(char c) {
  return IsLetter(c) || zp_isdigit(static_cast<unsigned char>(c)) || c == '-' || c == '_';
}

bool IsBlank(char c) {
  return c == ' ' || c == '\t';
}

class Scanner {
 public:
  Scanner(int file, Diagnostics* diagnostics)
      : file(file), diagnostics(diagnostics), text(diagnostics->file(file).text()) {}

  std::vector<PagePiece> Run() {
    while (position < text.size() && !diagnostics->full()) {
      // Most of a page is text: the search for the next byte that may begin something is quick.
      const size_t found = text.find_first_of("<{\\", position);
      if (found == std::string_view::npos) break;
      position = found;
      if (text[found] == '\\') {
        Escape();
      } else if (text[found] == '{') {
        Braces();
      } else {
        Tag();
      }
    }
    AddText(text.size());
    DropTagLines();
    DropBodyLines();
    return std::move(pieces);
  }

 private:
  Place At(size_t begin, size_t end) const {
    return {file, static_cast<int>(begin), static_cast<int>(end - begin)};
  }

  void Add(Kind kind, const TagRow* tag, size_t begin, size_t end, size_t inner_begin,
           size_t inner_end) {
    AddText(begin);
    pieces.push_back({kind, tag, static_cast<int>(begin), static_cast<int>(end),
                      static_cast<int>(inner_begin), static_cast<int>(inner_end)});
    text_start = position = end;
  }

  void AddText(size_t end) {
    if (end <= text_start) return;
    const int from = static_cast<int>(text_start);
    const int to = static_cast<int>(end);
    pieces.push_back({Kind::Text, nullptr, from, to, from, to});
    text_start = end;
  }

  // The length of "<Zp", "</Zp", "<ZEPH" or "</ZEPH" at a place where a tag begins, without the
  // slash and the "<"; 0 if none does.
  size_t TagName(size_t at) const {
    if (at >= text.size() || text[at] != '<') return 0;
    at++;
    if (at < text.size() && text[at] == '/') at++;
    size_t end = at;
    while (end < text.size() && end - at < 64 && IsTagByte(text[end])) end++;
    const std::string_view name = text.substr(at, end - at);
    const bool is_tag = SameName(name, "ZEPH") ||
                        (name.size() > 2 && SameName(name.substr(0, 2), "Zp") && IsLetter(name[2]));
    return is_tag ? name.size() : 0;
  }

  // A backslash before "{{" or a tag makes it text.
  void Escape() {
    const size_t next = position + 1;
    const bool braces = text.substr(next, 2) == "{{";
    if (!braces && TagName(next) == 0) {
      position = next;
      return;
    }
    AddText(position);
    text_start = next;
    position = next + 1;
    while (position < text.size() && braces && text[position] == '{') position++;
  }

  void Braces() {
    if (text.substr(position, 2) != "{{") {
      position++;
      return;
    }
    const bool plain = text.substr(position, 3) == "{{{";
    const size_t inner = position + (plain ? 3 : 2);
    const std::string_view close = plain ? "}}}" : "}}";
    size_t end = inner;
    bool quotes_close = true;
    while (quotes_close && end < text.size() && text.substr(end, close.size()) != close) {
      quotes_close = SkipQuoted(&end);
    }
    if (!quotes_close) {
      position = inner;
      return;
    }
    if (end >= text.size()) {
      diagnostics->Error(At(position, inner),
                         "there is no '" + std::string(close) + "' that ends this");
      position = inner;
      return;
    }
    Add(plain ? Kind::Plain : Kind::Encoded, nullptr, position, end + close.size(), inner, end);
  }

  // Goes past one byte, or past a whole text in quotes. False after an error: its end is missing.
  bool SkipQuoted(size_t* at) {
    const char quote = text[*at];
    if (quote != '"' && quote != '\'') {
      ++*at;
      return true;
    }
    for (size_t i = *at + 1; i < text.size(); i++) {
      if (text[i] == quote && text[i - 1] != '\\') {
        *at = i + 1;
        return true;
      }
    }
    return diagnostics->Error(At(*at, *at + 1), "this text has no closing quote");
  }

  void Tag() {
    const size_t length = TagName(position);
    if (length == 0) {
      position++;
      return;
    }
    const bool closing = text[position + 1] == '/';
    const size_t name_start = position + (closing ? 2 : 1);
    const std::string_view name = text.substr(name_start, length);
    const size_t inner = name_start + length;
    const TagRow* row = FindTag(name);
    if (!row) {
      diagnostics->Error(At(position, inner), "there is no tag '" + std::string(name) + "'" +
                                                  DidYouMean(name, TagNames()));
    }
    size_t end = inner;
    bool quotes_close = true;
    while (quotes_close && end < text.size() && text[end] != '>') quotes_close = SkipQuoted(&end);
    if (!quotes_close) {
      position = inner;
      return;
    }
    if (end >= text.size()) {
      diagnostics->Error(At(position, inner), "there is no '>' that ends this tag");
      position = inner;
      return;
    }
    if (!row) {
      AddText(position);
      text_start = position = end + 1;
    } else if (closing) {
      Add(Kind::Close, row, position, end + 1, inner, end);
    } else if (row->body == TagBody::Raw) {
      RawTag(row, end + 1);
    } else {
      Add(Kind::Open, row, position, end + 1, inner, end);
    }
  }

  // A comment or instructions: everything up to the closing tag, with those of the same name inside
  // of it.
  void RawTag(const TagRow* row, size_t body) {
    int depth = 1;
    for (size_t at = body; (at = text.find('<', at)) != std::string_view::npos; at++) {
      const size_t length = TagName(at);
      const bool closing = length > 0 && text[at + 1] == '/';
      const size_t name = at + (closing ? 2 : 1);
      if (length == 0 || FindTag(text.substr(name, length)) != row) continue;
      depth += closing ? -1 : 1;
      if (depth > 0) continue;
      size_t end = text.find('>', name);
      if (end == std::string_view::npos) break;
      Add(Kind::Open, row, position, end + 1, body, at);
      return;
    }
    diagnostics->Error(At(position, body),
                       "there is no closing '</" + std::string(row->name) + ">'");
    AddText(position);
    text_start = position = text.size();
  }

  // --- Lines with nothing but tags ---------------------------------------------------------------

  // Whether a tag writes something itself, so that its line is kept.
  static bool Writes(const PagePiece& piece) {
    if (piece.kind == Kind::Encoded || piece.kind == Kind::Plain) return true;
    if (piece.kind != Kind::Open) return false;
    return piece.tag->id == TagId::Hide || piece.tag->id == TagId::LocalizedToken;
  }

  bool IsBlankText(const PagePiece& piece) const {
    for (int i = piece.begin; i < piece.end; i++) {
      if (!IsBlank(text[static_cast<size_t>(i)])) return false;
    }
    return true;
  }

  // The number of blanks at the end of a text that is before a tag, if they begin a line; -1 if
  // something else is on that line.
  int BlanksBefore(size_t index) const {
    if (index == 0) return 0;
    const PagePiece& before = pieces[index - 1];
    if (before.kind != Kind::Text) return -1;
    int i = before.end;
    while (i > before.begin && IsBlank(text[static_cast<size_t>(i) - 1])) i--;
    return i == 0 || text[static_cast<size_t>(i) - 1] == '\n' ? before.end - i : -1;
  }

  // The number of bytes at the beginning of a text after a tag that end its line; -1 if something
  // else is on that line.
  int RestOfLine(size_t index) const {
    if (index == pieces.size()) return 0;
    const PagePiece& after = pieces[index];
    if (after.kind != Kind::Text) return -1;
    int i = after.begin;
    while (i < after.end && IsBlank(text[static_cast<size_t>(i)])) i++;
    if (i < after.end && text[static_cast<size_t>(i)] == '\r') i++;
    if (i < after.end && text[static_cast<size_t>(i)] == '\n') return i + 1 - after.begin;
    return i == after.end && index + 1 == pieces.size() ? i - after.begin : -1;
  }

  void DropTagLines() {
    for (size_t first = 0; first < pieces.size(); first++) {
      if (pieces[first].kind != Kind::Open && pieces[first].kind != Kind::Close) continue;
      // The tags of one line, with nothing but blanks between them.
      size_t end = first;
      bool writes = false;
      while (end < pieces.size()) {
        const PagePiece& piece = pieces[end];
        const bool blank = piece.kind == Kind::Text && end + 1 < pieces.size() &&
                           pieces[end + 1].kind != Kind::Text && IsBlankText(piece);
        if (piece.kind == Kind::Text && !blank) break;
        writes = writes || Writes(piece);
        end++;
      }
      const int before = BlanksBefore(first);
      const int after = RestOfLine(end);
      if (!writes && before >= 0 && after >= 0) {
        if (first > 0) pieces[first - 1].end -= before;
        for (size_t i = first; i < end; i++) {
          if (pieces[i].kind == Kind::Text) pieces[i].end = pieces[i].begin;
        }
        if (end < pieces.size()) pieces[end].begin += after;
      }
      first = end;
    }
  }

  // Whether what a tag's body writes does not go to the page at this place.
  static bool TakesBody(TagId tag) {
    return tag == TagId::Function || tag == TagId::Capture || tag == TagId::Localized ||
           tag == TagId::Smtp || tag == TagId::Asynchronous || tag == TagId::Asynchronous2;
  }

  // Such a tag ends its line, whatever is in its body, if nothing else is on its lines.
  void DropBodyLines() {
    std::vector<size_t> opened;
    for (size_t i = 0; i < pieces.size(); i++) {
      const PagePiece& piece = pieces[i];
      if (!piece.tag || !TakesBody(piece.tag->id)) continue;
      if (piece.kind == Kind::Open) {
        opened.push_back(i);
        continue;
      }
      if (opened.empty()) continue;
      const size_t open = opened.back();
      opened.pop_back();
      // The line of the closing tag may be dropped already.
      const bool whole = i + 1 < pieces.size() && pieces[i + 1].begin == piece.end;
      if (pieces[open].tag->number != piece.tag->number || !whole) continue;
      const int before = BlanksBefore(open);
      const int after = RestOfLine(i + 1);
      if (before < 0 || after < 0) continue;
      if (open > 0) pieces[open - 1].end -= before;
      pieces[i + 1].begin += after;
    }
  }

  int file;
  Diagnostics* diagnostics;
  std::string_view text;
  size_t position = 0;
  size_t text_start = 0;
  std::vector<PagePiece> pieces;
};

}  // namespace

std::vector<PagePiece> ScanPage(int file, Diagnostics* diagnostics) {
  return Scanner(file, diagnostics).Run();
}
