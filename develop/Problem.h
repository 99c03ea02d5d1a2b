// An error or a warning in a file of a site, with the lines around it, for the terminal, for
// editors and for the browser.

#ifndef ZEPH_DEVELOP_PROBLEM_H
#define ZEPH_DEVELOP_PROBLEM_H

#include <string>
#include <string_view>
#include <vector>

struct Problem {
  std::string file;  // from the site's folder
  int line = 0;      // from 1; 0 if the problem is the whole file's
  int column = 0;    // in bytes, from 1
  int length = 0;    // of the marked place, in bytes
  bool is_error = true;
  std::string text;
  std::string tag;  // the tag or braces around the place; empty if it is in none
  struct Line {
    int number;
    std::string text;
  };
  std::vector<Line> lines;

  // Takes the lines around the place and the tag from the file's text.
  void Quote(std::string_view source);
  // "file:line:column: error: text" without a line end; folder is put before the file.
  std::string Text(const std::string& folder) const;
};

// A page that shows the problems. shape is the page with "<!-- problems -->" at their place.
std::string ProblemPage(const std::string& shape, const std::vector<Problem>& problems);

// The problems as a part of a page, as ProblemPage has them.
std::string ProblemsAsHTML(const std::vector<Problem>& problems);

// A text with entities for the bytes that mean something in HTML, and with "?" for control bytes.
std::string EncodedForHTML(std::string_view text);

#endif
