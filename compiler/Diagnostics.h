// The sources of a page, and what the compiler has to say about places in them. Each message names
// file, line and column, and shows the line with the place marked.

#ifndef ZEPH_COMPILER_DIAGNOSTICS_H
#define ZEPH_COMPILER_DIAGNOSTICS_H

#include <deque>
#include <string>
#include <string_view>
#include <vector>

// A stretch of a source: the file's number, and offset and length in bytes.
struct Place {
  int file = 0;
  int offset = 0;
  int length = 0;
};

// One source file. Its text does not change, so that the tree may hold views of it.
class SourceFile {
 public:
  SourceFile(std::string name, std::string text);
  SourceFile(const SourceFile&) = delete;
  SourceFile& operator=(const SourceFile&) = delete;

  const std::string& name() const { return file_name; }
  std::string_view text() const { return file_text; }
  // The line of an offset, from 1.
  int Line(int offset) const;
  // The column of an offset in bytes, from 1.
  int Column(int offset) const;
  // The text of a line without its end.
  std::string_view LineText(int line) const;

 private:
  std::string file_name;
  std::string file_text;
  std::vector<int> line_starts;
};

struct Diagnostic {
  Place place;
  bool is_error;
  std::string text;
};

// All files of a compilation, and the messages so far.
class Diagnostics {
 public:
  // Messages end after this many errors: more are no help.
  static constexpr size_t kMostErrors = 20;
  static constexpr size_t kMostWarnings = 100;

  // Adds a file and returns its number. The reference from file() stays valid.
  int AddFile(std::string name, std::string text);
  const SourceFile& file(int number) const { return files[static_cast<size_t>(number)]; }
  int count() const { return static_cast<int>(files.size()); }
  std::string_view Text(const Place& place) const;

  // Always false, so that a parser may return it. Errors after the kMostErrors-th are dropped, and
  // so is a second one at the same place, which as a rule follows from the first.
  bool Error(const Place& place, const std::string& text);
  void Warning(const Place& place, const std::string& text);

  bool failed() const { return errors > 0; }
  bool full() const { return errors >= kMostErrors; }
  size_t warnings() const { return list.size() - errors; }
  // In the order of the sources.
  std::vector<Diagnostic> Sorted() const;

  // All messages as text, three lines for each: "name:line:column: error: text", the source line,
  // and marks below the place. A long line is cut around the place.
  std::string Format() const;

 private:
  std::string Format(const Diagnostic& diagnostic) const;

  std::deque<SourceFile> files;
  std::vector<Diagnostic> list;
  size_t errors = 0;
};

// " ; did you mean 'x'?" with the nearest of the known words, empty if none is near.
std::string DidYouMean(std::string_view word, const std::vector<std::string_view>& known);

#endif
