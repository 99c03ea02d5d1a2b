// Reads a page and the files that it includes into a tree.

#ifndef ZEPH_COMPILER_PARSER_H
#define ZEPH_COMPILER_PARSER_H

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "compiler/ExpressionParser.h"
#include "compiler/Scanner.h"
#include "compiler/Tree.h"

// Finds an included file: the name in the tag, and the name of the file that has the tag. Returns
// true with the text, and with the name that messages use.
using IncludeReader = std::function<bool(const std::string& name, const std::string& from,
                                         std::string* found, std::string* text)>;

class Parser {
 public:
  static constexpr int kMostNestedTags = 100;
  static constexpr int kMostNestedIncludes = 32;
  static constexpr int kMostIncludes = 1000;
  static constexpr size_t kMostSource = size_t{64} << 20;

  // defines are the names for ZpIFDEF, in lower case. All is borrowed.
  Parser(Diagnostics* diagnostics, Tree* tree, const IncludeReader& reader,
         const std::set<std::string>& defines)
      : diagnostics(diagnostics), tree(tree), reader(reader), defines(defines) {}

  // Reads a file of the diagnostics into the tree. Errors are in the diagnostics.
  void Run(int file);

  // Reads a declaration such as "name(a, b var)", as in ZpFUNCTION.
  bool ParseDeclaration(ExpressionParser* source, FunctionNode* function);

 private:
  // The pieces of one file and the next one to read.
  struct Input {
    int file;
    std::vector<PagePiece> pieces;
    size_t next = 0;
    const Input* outer = nullptr;
  };

  // For ParseParts: no part is dropped.
  static constexpr size_t kAllParts = ~size_t{0};
  static constexpr size_t kMostAttributes = 255;
  static constexpr size_t kMostLanguages = 1000;

  void ParseFile(int file, const Input* outer, Body* body);
  void ParseBody(Input* input, const TagRow* around, Body* body);
  bool EndsBody(const Input& input, const TagRow* around);
  bool IsOpen(const TagRow& closing) const;
  void CloseTag(Input* input, const Statement& statement);
  bool Enter(Input* input, const Statement& statement);
  void Leave(const Statement& statement);
  void ParseTag(Input* input, const PagePiece& piece, Body* body);
  void ParseContent(ExpressionParser* source, Statement* statement);
  void ParseBlock(Input* input, Statement* statement);
  void ParseParts(Input* input, Statement* statement, size_t kept);
  void ParseConditional(Input* input, Statement* statement, Body* body);
  void ParseFunction(Input* input, const PagePiece& piece);
  void ParseMessage(Input* input, Statement* statement);
  void ParseMessageText(Input* input, MessageNode* message);
  void ParseInclude(Input* input, Statement* statement, Body* body);

  bool ParseAssignments(ExpressionParser* source, Statement* statement);
  bool ParseList(ExpressionParser* source, Statement* statement);
  bool ParseMembers(ExpressionParser* source, Statement* statement);
  bool ParseNames(ExpressionParser* source, Statement* statement);
  bool ParseFor(ExpressionParser* source, Statement* statement);
  bool ParseForeach(ExpressionParser* source, Statement* statement);
  bool ParseAttributes(ExpressionParser* source, Statement* statement);
  bool ParseAttribute(ExpressionParser* source, Statement* statement);
  bool CheckRequired(Statement* statement);

  ExpressionParser Content(const Input& input, const PagePiece& piece) {
    return ExpressionParser(diagnostics, tree, input.file, piece.inner_begin, piece.inner_end);
  }
  static Place PlaceOf(const Input& input, const PagePiece& piece) {
    return {input.file, piece.begin, piece.end - piece.begin};
  }
  // The begin of a tag up to the end of its name.
  static Place NameOf(const Input& input, const PagePiece& piece) {
    const bool raw = piece.tag && piece.tag->body == TagBody::Raw;
    const int length =
        raw ? static_cast<int>(piece.tag->name.size()) + 1 : piece.inner_begin - piece.begin;
    return {input.file, piece.begin, length};
  }
  std::string_view TextOf(const Input& input, const PagePiece& piece) const {
    return diagnostics->Text(PlaceOf(input, piece));
  }
  void WarnOfComparison(const Input& input, const PagePiece& piece);

  Diagnostics* diagnostics;
  Tree* tree;
  const IncludeReader& reader;
  const std::set<std::string>& defines;
  // The tags around the present place that have a closing tag, across included files.
  std::vector<const TagRow*> open_tags;
  int nesting = 0;
  int blocks = 0;   // of them, those that are no conditional compilation
  int dropped = 0;  // parts around the present place that are not compiled
  int includes = 0;
  size_t bytes = 0;
  std::set<std::string> tokens;  // of the messages so far
};

#endif
