// Places in sources, and messages about them. Tested in tests/compiler/ErrorTest.cpp.

#include "compiler/Diagnostics.h"

#include <algorithm>

#include "config/Suggestion.h"

namespace {

// Bytes of a source line that a message shows.
constexpr size_t kShownLine = 120;

// Words that are compared for "did you mean".
constexpr size_t kLongestWord = 64;
constexpr size_t kMostCompared = 1000;

bool IsControl(char c) {
  return static_cast<unsigned char>(c) < ' ' || c == 0x7F;
}

}  // namespace

SourceFile::SourceFile(std::string name, std::string text)
    : file_name(std::move(name)), file_text(std::move(text)) {
  line_starts.push_back(0);
  for (size_t i = 0; i < file_text.size(); i++) {
    if (file_text[i] == '\n') line_starts.push_back(static_cast<int>(i) + 1);
  }
}

int SourceFile::Line(int offset) const {
  auto after = std::upper_bound(line_starts.begin(), line_starts.end(), offset);
  return static_cast<int>(after - line_starts.begin());
}

int SourceFile::Column(int offset) const {
  return offset - line_starts[static_cast<size_t>(Line(offset) - 1)] + 1;
}

std::string_view SourceFile::LineText(int line) const {
  const auto index = static_cast<size_t>(line - 1);
  const auto start = static_cast<size_t>(line_starts[index]);
  size_t end = index + 1 < line_starts.size() ? static_cast<size_t>(line_starts[index + 1]) - 1
                                              : file_text.size();
  if (end > start && file_text[end - 1] == '\r') end--;
  return std::string_view(file_text).substr(start, end - start);
}

int Diagnostics::AddFile(std::string name, std::string text) {
  files.emplace_back(std::move(name), std::move(text));
  return count() - 1;
}

std::string_view Diagnostics::Text(const Place& place) const {
  return file(place.file)
      .text()
      .substr(static_cast<size_t>(place.offset), static_cast<size_t>(place.length));
}

bool Diagnostics::Error(const Place& place, const std::string& text) {
  if (full()) return false;
  for (const Diagnostic& other : list) {
    if (other.is_error && other.place.file == place.file && other.place.offset == place.offset) {
      return false;
    }
  }
  list.push_back({place, true, text});
  errors++;
  return false;
}

void Diagnostics::Warning(const Place& place, const std::string& text) {
  if (warnings() < kMostWarnings) list.push_back({place, false, text});
}

std::vector<Diagnostic> Diagnostics::Sorted() const {
  std::vector<Diagnostic> sorted = list;
  std::stable_sort(sorted.begin(), sorted.end(), [](const Diagnostic& a, const Diagnostic& b) {
    return a.place.file != b.place.file ? a.place.file < b.place.file
                                        : a.place.offset < b.place.offset;
  });
  return sorted;
}

std::string Diagnostics::Format() const {
  std::string all;
  for (const Diagnostic& diagnostic : Sorted()) all += Format(diagnostic);
  return all;
}

std::string Diagnostics::Format(const Diagnostic& diagnostic) const {
  const SourceFile& source = file(diagnostic.place.file);
  const int line = source.Line(diagnostic.place.offset);
  const int column = source.Column(diagnostic.place.offset);
  std::string text = source.name() + ":" + std::to_string(line) + ":" + std::to_string(column) +
                     (diagnostic.is_error ? ": error: " : ": warning: ") + diagnostic.text + "\n";
  std::string_view shown = source.LineText(line);
  size_t mark = std::min(static_cast<size_t>(column - 1), shown.size());
  if (shown.size() > kShownLine) {
    const size_t cut =
        std::min(mark > kShownLine / 2 ? mark - kShownLine / 2 : 0, shown.size() - kShownLine);
    shown = shown.substr(cut, kShownLine);
    mark -= cut;
  }
  // A terminal never gets control bytes of a source; tabs keep the marks below their place.
  std::string marks;
  for (size_t i = 0; i < shown.size(); i++) {
    const char c = shown[i];
    text += c == '\t' || !IsControl(c) ? c : '?';
    // The later bytes of a UTF-8 character take no room of their own.
    const bool continues = (static_cast<unsigned char>(c) & 0xC0) == 0x80;
    if (i < mark && !continues) marks += c == '\t' ? '\t' : ' ';
  }
  const size_t room = shown.size() - std::min(mark, shown.size());
  const size_t wanted = std::max<size_t>(1, static_cast<size_t>(diagnostic.place.length));
  size_t count = 0;
  for (size_t i = mark; i < mark + std::min(room, wanted); i++) {
    if ((static_cast<unsigned char>(shown[i]) & 0xC0) != 0x80) count++;
  }
  return text + "\n" + marks + "^" + std::string(std::max<size_t>(count, 1) - 1, '~') + "\n";
}

std::string DidYouMean(std::string_view word, const std::vector<std::string_view>& known) {
  // The distance takes the product of the lengths, and a source may have words of any length.
  if (word.size() > kLongestWord) return "";
  std::vector<std::string_view> compared;
  for (std::string_view other : known) {
    if (compared.size() >= kMostCompared) break;
    if (other.size() <= kLongestWord) compared.push_back(other);
  }
  const std::string_view nearest = NearestWord(word, compared);
  if (nearest.empty()) return "";
  const auto distance = static_cast<size_t>(EditDistance(word, nearest));
  if (distance > 1 + nearest.size() / 3 || distance >= nearest.size()) return "";
  return "; did you mean '" + std::string(nearest) + "'?";
}
