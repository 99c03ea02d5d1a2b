// Header fields and the end of a page. Tested in tests/develop/PageFilterTest.cpp.

#include "develop/PageFilter.h"

#include <utility>

#include "compiler/Tags.h"

namespace {

// Bytes of a body that are kept for a look at its messages.
constexpr size_t kMostKept = size_t{4} << 20;

// Bytes of header fields; a response with more passes unchanged.
constexpr size_t kMostHead = size_t{256} << 10;

std::string_view Trimmed(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\r')) text.remove_suffix(1);
  return text;
}

// Fields about the bytes of the page, which are others with an addition. The web server counts what
// it sends. A browser that were told that its copy is still good would show it with the script of
// an old version, which reloads it at once, and so for ever.
bool IsOfTheWholePage(const std::string& name) {
  return name == "content-length" || name == "etag" || name == "last-modified";
}

// Whether a content type in lower case is HTML to which ASCII can be added.
bool IsPlainHTML(std::string_view type) {
  if (type.rfind("text/html", 0) != 0) return false;
  const std::string_view word = "charset=";
  const size_t at = type.find(word);
  if (at == std::string_view::npos) return true;
  std::string_view charset = type.substr(at + word.size());
  while (!charset.empty() && (charset[0] == '"' || charset[0] == ' ')) charset.remove_prefix(1);
  for (const std::string_view other : {"utf-16", "utf16", "utf-32", "utf32", "utf-7", "ucs",
                                       "csucs", "iso-10646", "unicode", "ebcdic", "ibm", "cp037"}) {
    if (charset.rfind(other, 0) == 0) {
      // Code pages of IBM's for the PC have ASCII.
      return other == "ibm" && (charset.rfind("ibm8", 0) == 0 || charset.rfind("ibm4", 0) == 0);
    }
  }
  return true;
}

bool IsStatusWithPage(std::string_view status) {
  return status.substr(0, 3) != "204" && status.substr(0, 3) != "304" && status.substr(0, 1) != "3";
}

}  // namespace

bool IsVisit(const std::string& method, const std::string& destination, const std::string& accept) {
  if (method != "GET" && method != "POST") return false;
  if (!destination.empty()) {
    return destination == "document" || destination == "iframe" || destination == "frame";
  }
  return accept.find("text/html") != std::string::npos;
}

std::string ClosingOf(std::string_view page) {
  // Elements whose content is text up to their end.
  static constexpr std::string_view kTexts[] = {"textarea", "script", "title", "style"};
  if (page.size() >= kMostKept) return "";
  const std::string lower = LowerCase(page);
  const std::string_view text = lower;
  for (size_t at = 0; (at = text.find('<', at)) != std::string_view::npos;) {
    if (text.compare(at, 4, "<!--") == 0) {
      // "<!-->" is a whole comment.
      at = text.find("-->", at + 2);
      if (at == std::string_view::npos) return "-->";
      continue;
    }
    at++;
    for (const std::string_view name : kTexts) {
      const size_t end = at + name.size();
      if (text.compare(at, name.size(), name) != 0) continue;
      if (end < text.size() && std::string_view(" \t\r\n\f/>").find(text[end]) == text.npos)
        continue;
      const std::string closing = "</" + std::string(name);
      at = text.find(closing, end);
      if (at == std::string_view::npos) return closing + ">";
      break;
    }
  }
  return "";
}

std::string PageFilter::Take(std::string_view piece) {
  if (piece.empty()) return "";
  begun = true;
  if (!is_visit) return std::string(piece);
  if (!head_done) {
    head += piece;
    return TakeHead();
  }
  if (adds && body.size() < kMostKept) body += piece.substr(0, kMostKept - body.size());
  return std::string(piece);
}

std::string PageFilter::TakeHead() {
  std::string kept;
  bool is_html = false;
  bool is_plain = true;
  for (size_t at = 0; at < head.size();) {
    const size_t end = head.find('\n', at);
    if (end == std::string::npos) break;
    const std::string_view line = std::string_view(head).substr(at, end + 1 - at);
    at = end + 1;
    if (Trimmed(line.substr(0, line.size() - 1)).empty()) {
      head_done = true;
      adds = is_html && is_plain;
      const std::string rest = head.substr(at);
      std::string passed = adds ? kept + std::string(line) : head.substr(0, at);
      head.clear();
      return passed + Take(rest);
    }
    const size_t colon = line.find(':');
    const std::string name = LowerCase(line.substr(0, colon));
    const std::string_view value = colon == std::string_view::npos
                                       ? ""
                                       : Trimmed(line.substr(colon + 1, line.size() - colon - 2));
    if (name == "content-type") is_html = IsPlainHTML(LowerCase(value));
    if (name == "content-encoding" || name == "content-disposition") is_plain = false;
    if (name == "status" && !IsStatusWithPage(value)) is_plain = false;
    if (!IsOfTheWholePage(name)) kept += line;
  }
  if (head.size() < kMostHead) return "";
  head_done = true;
  return std::exchange(head, "");
}

std::string PageFilter::Finish() {
  if (!head_done) return std::exchange(head, "");
  return adds ? addition(body) : "";
}
