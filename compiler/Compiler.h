// The compiler of pages: source text in, a compiled file out. docs/language.md describes the
// language. A program that compiles pages, and tests, use only this header.
//
// Stateless; any thread may compile.

#ifndef ZEPH_COMPILER_COMPILER_H
#define ZEPH_COMPILER_COMPILER_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

// A file of declarations of library functions, with its name in messages.
struct FunctionsFile {
  std::string name;
  std::string text;
  bool operator==(const FunctionsFile& other) const = default;
};

struct CompileOptions {
  // Names that ZpIFDEF finds defined; case does not count.
  std::vector<std::string> defines;
  // Declarations of library functions, one a line: name(a, b var). Empty lines and those that
  // begin with ';' are skipped. functions_name is for messages about them.
  std::string functions;
  std::string functions_name = "functions";
  // More of them.
  std::vector<FunctionsFile> functions_files;
  // Finds an included file. name is what the tag has, from the name of the file that has the tag.
  // Returns true with the text, and with the name that messages and the list of files use. Without
  // a reader there are no included files.
  std::function<bool(const std::string& name, const std::string& from, std::string* found,
                     std::string* text)>
      reader;
  // Every instruction notes its line, not only those that can fail.
  bool every_line = false;
};

struct CompileMessage {
  std::string file;
  int line;    // from 1
  int column;  // in bytes, from 1
  int length;  // of the marked place, in bytes
  bool is_error;
  std::string text;
};

struct CompileResult {
  bool succeeded = false;
  std::string image;                     // the compiled file; empty after an error
  std::vector<CompileMessage> messages;  // errors and warnings in the order of the sources
  std::string formatted;                 // the same with the source lines, for people
  std::vector<std::string> files;        // the page and all included files, each once
};

// Compiles a page. name is the page's name in messages, here and at run time.
CompileResult CompilePage(std::string_view source, const std::string& name,
                          const CompileOptions& options = {});

#endif
