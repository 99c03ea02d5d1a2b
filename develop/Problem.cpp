// Problems as text and as HTML. Tested in tests/develop/ProblemTest.cpp.

#include "develop/Problem.h"

#include <algorithm>

#include "base/core/ascii.h"
#include "compiler/Tags.h"

namespace {

// Lines before and after the place that are shown.
constexpr int kLinesAround = 3;

// Bytes of a line that are shown; a longer one is cut around the place.
constexpr size_t kShownLine = 300;

// The tag that is open at an offset: the last one that begins before it and does not end before it.
std::string TagAt(std::string_view source, size_t offset) {
  const size_t farthest = 4096;
  const size_t lowest = offset > farthest ? offset - farthest : 0;
  bool braces = false;
  bool tag_ends = false;
  for (size_t at = std::min(offset + 1, source.size()); at-- > lowest;) {
    if (source[at] == '>' && at < offset) tag_ends = true;
    // Braces within a tag are what is wrong there.
    if (!braces && source.substr(at, 2) == "{{") braces = true;
    if (source[at] != '<') continue;
    size_t end = at + 1;
    if (end < source.size() && source[end] == '/') end++;
    while (end < source.size() && (zp_isalpha(source[end]) || source[end] == '-')) end++;
    const std::string name = LowerCase(source.substr(at + 1, end - at - 1));
    const bool is_tag = name.rfind("zp", 0) == 0 || name.rfind("/zp", 0) == 0 || name == "zeph";
    if (is_tag && braces && tag_ends) break;
    if (is_tag) return std::string(source.substr(at, end - at)) + ">";
  }
  return braces ? "{{ }}" : "";
}

bool IsContinuation(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// The line of the place, with the place marked.
std::string MarkedLine(const Problem& problem, std::string_view text) {
  size_t begin = std::min(static_cast<size_t>(std::max(problem.column - 1, 0)), text.size());
  size_t end = std::min(begin + static_cast<size_t>(std::max(problem.length, 1)), text.size());
  std::string before, after;
  if (text.size() > kShownLine) {
    const size_t from = begin > kShownLine / 2 ? begin - kShownLine / 2 : 0;
    const size_t length = std::min(kShownLine, text.size() - from);
    if (from > 0) before = "…";
    if (from + length < text.size()) after = "…";
    text = text.substr(from, length);
    begin = std::min(begin - from, text.size());
    end = std::min(std::max(end, from) - from, text.size());
  }
  // A character is marked as a whole.
  while (begin > 0 && begin < text.size() && IsContinuation(text[begin])) begin--;
  while (end < text.size() && IsContinuation(text[end])) end++;
  std::string marked = EncodedForHTML(text.substr(begin, end - begin));
  if (marked.empty()) marked = " ";
  return before + EncodedForHTML(text.substr(0, begin)) + "<mark>" + marked + "</mark>" +
         EncodedForHTML(text.substr(end)) + after;
}

std::string AsHTML(const Problem& problem) {
  std::string place = EncodedForHTML(problem.file);
  if (problem.line > 0) place += ":" + std::to_string(problem.line);
  if (problem.column > 0) place += ":" + std::to_string(problem.column);
  std::string html = "<section class=\"" + std::string(problem.is_error ? "error" : "warning") +
                     "\">\n<h2>" + EncodedForHTML(problem.text) + "</h2>\n<p><code>" + place +
                     "</code>";
  if (!problem.tag.empty()) html += " in <code>" + EncodedForHTML(problem.tag) + "</code>";
  html += "</p>\n";
  if (problem.lines.empty()) return html + "</section>\n";
  html += "<pre>";
  for (const Problem::Line& line : problem.lines) {
    const bool is_place = line.number == problem.line;
    std::string shown = EncodedForHTML(std::string_view(line.text).substr(0, kShownLine));
    if (is_place && problem.column > 0) shown = MarkedLine(problem, line.text);
    html += "<span class=\"" + std::string(is_place ? "place" : "near") + "\"><i>" +
            std::to_string(line.number) + "</i>" + shown + "\n</span>";
  }
  return html + "</pre>\n</section>\n";
}

}  // namespace

void Problem::Quote(std::string_view source) {
  if (line < 1) return;
  int number = 1;
  for (size_t at = 0; at <= source.size() && number <= line + kLinesAround; number++) {
    const size_t end = std::min(source.find('\n', at), source.size());
    if (number == line && column > 0) {
      tag = TagAt(source, std::min(at + static_cast<size_t>(column) - 1, source.size()));
    }
    const bool is_end = at == source.size() && number > line;
    if (number >= line - kLinesAround && !is_end) {
      std::string_view content = source.substr(at, end - at);
      if (!content.empty() && content.back() == '\r') content.remove_suffix(1);
      lines.push_back({number, std::string(content)});
    }
    at = end + 1;
  }
}

std::string Problem::Text(const std::string& folder) const {
  std::string where = folder + file;
  if (line > 0) where += ":" + std::to_string(line);
  if (column > 0) where += ":" + std::to_string(column);
  return where + (is_error ? ": error: " : ": warning: ") + text;
}

std::string EncodedForHTML(std::string_view text) {
  std::string html;
  for (const char c : text) {
    switch (c) {
      case '<': html += "&lt;"; break;
      case '>': html += "&gt;"; break;
      case '&': html += "&amp;"; break;
      case '"': html += "&quot;"; break;
      case '\t':
      case '\n': html += c; break;
      default: html += static_cast<unsigned char>(c) < ' ' ? '?' : c;
    }
  }
  return html;
}

std::string ProblemsAsHTML(const std::vector<Problem>& problems) {
  std::string html;
  for (const Problem& problem : problems) html += AsHTML(problem);
  return html;
}

std::string ProblemPage(const std::string& shape, const std::vector<Problem>& problems) {
  const std::string_view mark = "<!-- problems -->";
  const std::string html = ProblemsAsHTML(problems);
  const size_t at = shape.find(mark);
  if (at == std::string::npos) return "<!DOCTYPE html>\n" + html;
  return shape.substr(0, at) + html + shape.substr(at + mark.size());
}
