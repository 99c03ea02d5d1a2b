// The files for editors know the tags and the operators of the compiler.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <sstream>

#include "compiler/ExpressionParser.h"
#include "compiler/Tags.h"
#include "tests/support/Command.h"
#include "tests/support/Paths.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using testing::HasSubstr;

const char kGrammar[] = "editors/vscode/syntaxes/zeph.tmLanguage.json";
const char kSyntax[] = "editors/vim/syntax/zeph.vim";

std::string Content(const std::string& path) {
  std::ifstream file(InSource(path));
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// The words between two texts, of which the first one is in the file once.
std::set<std::string> Words(const std::string& file, const std::string& begin,
                            const std::string& end, const std::string& separator) {
  const std::string text = Content(file);
  size_t at = text.find(begin);
  EXPECT_NE(at, std::string::npos) << file << " has no " << begin;
  if (at == std::string::npos) return {};
  at += begin.size();
  const std::string list = text.substr(at, text.find(end, at) - at);
  std::set<std::string> words;
  for (size_t from = 0; from <= list.size();) {
    const size_t to = std::min(list.find(separator, from), list.size());
    words.insert(list.substr(from, to - from));
    from = to + separator.size();
  }
  return words;
}

std::set<std::string> AllTags() {
  std::set<std::string> tags;
  for (const std::string_view name : TagNames()) tags.emplace(name);
  return tags;
}

std::set<std::string> TagsWithBodies() {
  std::set<std::string> tags;
  for (const std::string_view name : TagNames()) {
    const TagBody body = FindTag(name)->body;
    if (body == TagBody::Block || body == TagBody::Raw) tags.emplace(name);
  }
  return tags;
}

TEST(Editors, KnowTheTagsOfTheCompiler) {
  std::set<std::string> opening = Words(kGrammar, "\"(?i)(<)(ZEPH|", ")(?!", "|");
  opening.insert("ZEPH");
  EXPECT_EQ(opening, AllTags());
  std::set<std::string> closing = Words(kGrammar, "\"(?i)(</)(ZpASSEMBLY|", ")\\\\s*(>)", "|");
  closing.insert("ZpASSEMBLY");
  EXPECT_EQ(closing, TagsWithBodies());
  EXPECT_EQ(Words(kSyntax, "start=+<\\%(", "\\)[a-z", "\\|"), AllTags());
  EXPECT_EQ(Words(kSyntax, "zephClose +</\\%(", "\\)\\s*>", "\\|"), TagsWithBodies());
}

TEST(Editors, KnowTheOperatorsOfTheCompiler) {
  std::set<std::string> operators;
  for (const std::string_view word : OperatorWords()) operators.emplace(word);
  EXPECT_GT(operators.size(), 20u);
  EXPECT_EQ(Words(kGrammar, "(?i)(?<![.:\\\\w])(?:AND|", ")\\\\b", "|").size() + 1,
            operators.size());
  for (const std::string& word : operators) {
    EXPECT_THAT(Content(kGrammar), testing::ContainsRegex("[|:]" + word + "[|)]"));
    EXPECT_THAT(Content(kSyntax), testing::ContainsRegex(" " + word + "[ \n]"));
  }
}

TEST(Editors, TheGrammarReadsTheExamplesOfTheLanguage) {
  Command command({"/usr/bin/python3", InSource("tests/support/grammar.py"), InSource(kGrammar),
                   InSource("docs/language.md")});
  EXPECT_EQ(command.Run(), 0) << command.output << command.errors;
}

TEST(Editors, TheExtensionIsWholeJSON) {
  for (const char* file : {"package.json", "language-configuration.json"}) {
    Command command({"/usr/bin/python3", "-m", "json.tool",
                     InSource("editors/vscode/" + std::string(file)), "/dev/null"});
    EXPECT_EQ(command.Run(), 0) << command.errors;
  }
  EXPECT_THAT(Content("editors/vscode/package.json"),
              HasSubstr("\"./syntaxes/zeph.tmLanguage.json\""));
}

// Vim itself, where it is installed, with nothing of the user's.
TEST(Editors, VimColoursPagesAndFindsErrors) {
  if (access("/usr/bin/vim", X_OK) != 0) GTEST_SKIP() << "/usr/bin/vim is not installed";
  TemporaryDirectory directory;
  directory.File("page.zeph",
                 "<p title=\"{{ name }}\">\n<ZpASSIGN x = \"a\" $ 1>\n<ZpASIGN>\n</ZpIF>\n"
                 "<ZpCOMMENT> <ZpIF 1> </ZpCOMMENT>\n");
  directory.File("errors",
                 "page.zeph:2:5: warning: first\nnoise\npage.zeph:3:1: error: second\n"
                 "zeph.toml:4: error: third\n");
  directory.File(
      "script.vim",
      "set nocompatible\n"
      "set runtimepath^=" +
          InSource("editors/vim") +
          "\n"
          "filetype plugin on\nsyntax on\n"
          "edit page.zeph\n"
          "let out = [&filetype, &makeprg]\n"
          "for [l, c] in [[1,11],[1,14],[2,2],[2,11],[2,15],[2,19],[2,21],[3,2],[4,3],[5,15]]\n"
          "  call add(out, synIDattr(synID(l, c, 1), 'name'))\n"
          "endfor\n"
          "cgetfile errors\n"
          "for e in filter(getqflist(), 'v:val.valid')\n"
          "  call add(out, bufname(e.bufnr) . '|' . e.lnum . '|' . e.col . '|' . e.type . '|' . "
          "e.text)\n"
          "endfor\n"
          "call writefile(out, 'out')\nquitall!\n");
  Command command({"/usr/bin/vim", "-N", "-u", "NONE", "-i", "NONE", "-es", "-S", "script.vim"});
  command.directory = directory.path();
  command.Run();
  EXPECT_EQ(directory.Content("out"),
            "zeph\nzeph check\nzephTagName\nzephValue\nzephTagName\nzephAttribute\nzephText\n"
            "zephOperator\nzephNumber\nzephUnknown\nzephClose\nzephComment\n"
            "page.zeph|2|5|w|first\npage.zeph|3|1|e|second\nzeph.toml|4|0|e|third\n")
      << command.errors;
}

}  // namespace
