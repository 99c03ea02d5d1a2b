// The language as its page describes it: every example of docs/language.md is compiled and run, and
// every tag of the machine has one.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "base/host/TagLookup.h"
#include "compiler/Tags.h"
#include "tests/support/CompiledPages.h"

namespace {

using testing::HasSubstr;

struct Example {
  int line = 0;
  std::string information;  // the words after "zeph"
  std::string source;
  std::map<std::string, std::string> files;
  std::string output;
  bool has_output = false;
};

std::string Document() {
  std::ifstream file(InSource("docs/language.md"));
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// The blocks of the document between lines of three backquotes.
std::vector<Example> Examples() {
  std::vector<Example> examples;
  std::istringstream text(Document());
  std::string line;
  for (int number = 1; std::getline(text, line); number++) {
    if (line.rfind("```", 0) != 0) continue;
    const std::string head = line.substr(3);
    std::string block;
    const int start = number;
    while (std::getline(text, line) && line != "```") {
      block += line + "\n";
      number++;
    }
    number++;
    std::istringstream words(head);
    std::string kind, rest;
    words >> kind;
    std::getline(words >> std::ws, rest);
    if (kind == "zeph") {
      examples.push_back({start, rest, block, {}, "", false});
    } else if (kind == "file") {
      examples.back().files[rest] = block;
    } else if (kind == "output") {
      examples.back().output = block;
      examples.back().has_output = true;
    }
  }
  return examples;
}

std::string RunExample(const Example& example) {
  const CompileResult result = CompileText(example.source, example.files);
  if (example.information == "error") return result.formatted;
  EXPECT_TRUE(result.succeeded) << result.formatted;
  if (!result.succeeded || !example.has_output) return "";
  PageFolder folder;
  std::string page = "page.zpc";
  folder.Add(page, result.image);
  for (const auto& [name, text] : example.files) {
    if (name[0] == '_') continue;
    const CompileResult other = CompilePage(text, name);
    EXPECT_TRUE(other.succeeded) << other.formatted;
    folder.Add(name.substr(0, name.rfind('.')) + ".zpc", other.image);
  }
  if (example.information.rfind("get ", 0) == 0) {
    // The field of the request is a global variable that another page sets before it runs this one.
    const std::string field = example.information.substr(4);
    const size_t equals = field.find('=');
    const CompileResult request =
        CompileText("<ZpASSIGN g." + field.substr(0, equals) + " = \"" + field.substr(equals + 1) +
                    "\"><ZpDO file=\"page.zpc\">");
    EXPECT_TRUE(request.succeeded) << request.formatted;
    page = "request.zpc";
    folder.Add(page, request.image);
  }
  return folder.Run(page);
}

TEST(Language, TheExamplesOfItsPageWriteWhatThePageSays) {
  const std::vector<Example> examples = Examples();
  EXPECT_GT(examples.size(), 30u);
  for (const Example& example : examples) {
    SCOPED_TRACE("docs/language.md:" + std::to_string(example.line));
    std::string output = RunExample(example);
    // A block ends with a line end, which the output may not have.
    if (!output.empty() && output.back() != '\n') output += "\n";
    if (example.has_output) {
      EXPECT_EQ(output, example.output);
    }
  }
}

TEST(Language, EveryTagOfTheMachineIsOneOfTheLanguageAndIsInAnExample) {
  std::string sources;
  for (const Example& example : Examples()) sources += LowerCase(example.source);
  const std::string document = LowerCase(Document());
  for (const TagKeyword& keyword : tag_keywords) {
    const std::string name = keyword.text;
    SCOPED_TRACE(name);
    if (name == "expression") continue;
    const TagRow* row = FindTag(name);
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->number, keyword.tag);
    EXPECT_THAT(document, HasSubstr(name));
    EXPECT_THAT(sources, HasSubstr("<" + name));
  }
}

struct PageCase {
  const char* label;
  const char* source;
  const char* output;
};

void ExpectPages(const std::vector<PageCase>& cases) {
  PageFolder folder;
  for (const PageCase& c : cases) {
    SCOPED_TRACE(c.label);
    const CompileResult result = CompileText(c.source);
    ASSERT_TRUE(result.succeeded) << result.formatted;
    folder.Add("page.zpc", result.image);
    EXPECT_EQ(folder.Run("page.zpc"), c.output);
  }
}

TEST(Language, LinesWithNothingButTagsWriteNothing) {
  ExpectPages({
      {"a tag at the beginning", "<ZpASSIGN x = 1>\nb\n", "b\n"},
      {"a tag at the end", "a\n<ZpASSIGN x = 1>", "a\n"},
      {"a tag at the end with a line end", "a\n<ZpASSIGN x = 1>\n", "a\n"},
      {"blanks around it", "a\n \t<ZpASSIGN x = 1> \t\nb", "a\nb"},
      {"several on a line", "a\n <ZpASSIGN x = 1> <ZpASSIGN x = 2>\nb", "a\nb"},
      {"several lines", "a\n<ZpASSIGN x = 1>\n  <ZpASSIGN x = 2>\n\t<ZpASSIGN x = 3>\nb", "a\nb"},
      {"an empty line stays", "a\n<ZpASSIGN x = 1>\n\nb", "a\n\nb"},
      {"a tag of several lines", "a\n<ZpASSIGN\n x = 1\n>\nb", "a\nb"},
      {"text on the line", "a\n<ZpASSIGN x = 1>b\nc", "a\nb\nc"},
      {"text before it", "a <ZpASSIGN x = 1>\nc", "a \nc"},
      {"a value on the line", "a\n<ZpASSIGN x = 1>{{{ x }}}\nc", "a\n1\nc"},
      {"a carriage return", "a\r\n<ZpASSIGN x = 1>\r\nb\r\n", "a\r\nb\r\n"},
      {"a comment", "a\n<ZpCOMMENT>\nx\n</ZpCOMMENT>\nb", "a\nb"},
      {"a function on one line", "a\n <ZpFUNCTION f()>x</ZpFUNCTION> \n{{{ f() }}}\n", "a\nx\n"},
      {"a function with text on its first and last line",
       "<ZpFUNCTION f()>x\ny</ZpFUNCTION>\n\n{{{ f() }}}\n", "\nx\ny\n"},
      {"a capture with text after it", "<ZpCAPTURE c>x</ZpCAPTURE>.\n{{{ c }}}", ".\nx"},
      {"an empty line after a function", "<ZpFUNCTION f()>\n</ZpFUNCTION>\n\nx{{{ f() }}}", "\nx"},
      {"only white space", " \n\t", " \n\t"},
      {"nothing", "", ""},
  });
}

TEST(Language, BracesAndTagsCanBeText) {
  ExpectPages({
      {"one brace", "{ x } {a}", "{ x } {a}"},
      {"an escaped value", "\\{{ x }} \\{{{ x }}}", "{{ x }} {{{ x }}}"},
      {"an escaped tag", "\\<ZpIF x> \\</ZpIF>", "<ZpIF x> </ZpIF>"},
      {"a backslash before anything else", "\\a \\\\ \\<b>", "\\a \\\\ \\<b>"},
      {"other tags", "<p><zp><Z><ZEPHYR x>", "<p><zp><Z><ZEPHYR x>"},
      {"braces in a text", "{{{ \"}}\" }}}{{ '}}' }}", "}}}}"},
      {"a tag's end in a text", "<ZpASSIGN x = \">\">{{ x }}", "&gt;"},
      {"bytes as they are", "\xC3\xA4\xFF\x01", "\xC3\xA4\xFF\x01"},
  });
}

TEST(Language, StopAndContinueMeanTheInnermostLoopOfTheirKind) {
  ExpectPages({
      {"for in for",
       "<ZpFOR i = 1 to 3><ZpFOR j = 1 to 9><ZpIF j EQ 2><ZpFORSTOP></ZpIF>{{{ i $ j }}} </ZpFOR>"
       "</ZpFOR>",
       "11 21 31 "},
      {"while around for with an end on the stack",
       "<ZpASSIGN n = 0 m = 3><ZpWHILE n LT 2><ZpEVAL n++><ZpFOR i = 1 to m><ZpIF i EQ 2>"
       "<ZpWHILECONTINUE></ZpIF>{{{ n $ i }}} </ZpFOR></ZpWHILE>",
       "11 21 "},
      {"for around foreach",
       "<ZpASSIGNARRAY a = 7, 8><ZpFOR i = 1 to 3><ZpFOREACH x = a><ZpIF i EQ 2><ZpFORCONTINUE>"
       "</ZpIF><ZpIF i EQ 3><ZpFORSTOP></ZpIF>{{{ i $ x }}} </ZpFOREACH></ZpFOR>",
       "17 18 "},
      {"foreach",
       "<ZpASSIGNARRAY a = 1, 2, 3, 4><ZpFOREACH x = a><ZpIF x EQ 2><ZpFOREACHCONTINUE></ZpIF>"
       "<ZpIF x EQ 4><ZpFOREACHSTOP></ZpIF>{{{ x }}}</ZpFOREACH>.",
       "13."},
      {"out of a capture",
       "<ZpFOR i = 1 to 2><ZpCAPTURE c>x<ZpFORCONTINUE></ZpCAPTURE></ZpFOR>{{{ c }}}.", "x."},
  });
}

TEST(Language, LoopsOverArrays) {
  ExpectPages({
      {"an end at the first empty element",
       "<ZpASSIGN a[1] = 1 a[3] = 3><ZpFOREACH x = a>{{{ x }}}</ZpFOREACH>.", "1."},
      {"a count",
       "<ZpASSIGN a[1] = 1 a[3] = 3><ZpFOREACH x = a count=4 at=n>{{{ n }}}={{{ x }}} </ZpFOREACH>",
       "1=1 2= 3=3 4= "},
      {"no element", "<ZpFOREACH x = nothing>x</ZpFOREACH>.", "."},
      {"a count below 1", "<ZpFOREACH x = a count=0>x</ZpFOREACH>.", "."},
      {"by reference",
       "<ZpASSIGNARRAY a = 1, 2><ZpFOREACH x = a reference><ZpASSIGN x = x * 10></ZpFOREACH>"
       "{{{ a }}}",
       "10,20"},
      {"a copy", "<ZpASSIGNARRAY a = 1, 2><ZpFOREACH x = a><ZpASSIGN x = 5></ZpFOREACH>{{{ a }}}",
       "1,2"},
      {"structures",
       "<ZpASSIGN a[1]:n = \"p\" a[2]:n = \"q\"><ZpFOREACH x = a>{{{ x:n }}}</ZpFOREACH>", "pq"},
      {"reading makes no elements", "<ZpASSIGN a[1] = 1><ZpEVAL a[5]>{{{ a }}}", "1"},
  });
}

TEST(Language, CountingLoops) {
  ExpectPages({
      {"an end that is computed",
       "<ZpASSIGN n = 3><ZpFOR i = 1 to n * 1>{{{ i }}}</ZpFOR>{{{ i }}}", "1234"},
      {"an end that changes in the loop",
       "<ZpASSIGN n = 2><ZpFOR i = 1 to n><ZpASSIGN n = 9>{{{ i }}}</ZpFOR>", "12"},
      {"no pass", "<ZpFOR i = 3 to 1>{{{ i }}}</ZpFOR>.", "."},
      {"a start that is no whole number", "<ZpFOR i = 1.9 to 3>{{{ i }}}</ZpFOR>", "123"},
      {"local variables",
       "<ZpFUNCTION f(n)><ZpFOR i = 1 to 3>{{{ i }}}</ZpFOR><ZpFOR i = n to 1 step -2>{{{ i }}}"
       "</ZpFOR></ZpFUNCTION><ZpEVAL f(5)>",
       "123531"},
  });
}

TEST(Language, ReturnsCloseWhatTheFunctionHasOpen) {
  ExpectPages({
      {"a capture",
       "<ZpFUNCTION f()><ZpCAPTURE l.c>x<ZpFUNCTIONRETURN 5></ZpCAPTURE></ZpFUNCTION>"
       "{{{ f() }}}y",
       "5y"},
      {"a loop with entries on the stack",
       "<ZpFUNCTION f(n)><ZpFOR i = 1 to n><ZpIF i EQ 3><ZpFUNCTIONRETURN i * 2></ZpIF></ZpFOR>"
       "</ZpFUNCTION>{{{ 1 + f(9) }}}",
       "7"},
      {"without a value", "<ZpFUNCTION f()>a<ZpFUNCRETURN>b</ZpFUNCTION>{{{ f() }}}c", "ac"},
      {"a recursive one",
       "<ZpFUNCTION fib(n)><ZpIF n LT 2><ZpFUNCTIONRETURN n></ZpIF>"
       "<ZpFUNCTIONRETURN fib(n - 1) + fib(n - 2)></ZpFUNCTION>{{{ fib(15) }}}",
       "610"},
  });
}

TEST(Language, TextsLoseWhiteSpaceWhereTheyAreToldTo) {
  ExpectPages({
      {"a page", "<ZEPH compress=2>a   \n\n  b<ZEPH compress=0>c   d", "a bc   d"},
      {"a function", "<ZpFUNCTION f() compress>a\n   b</ZpFUNCTION>x   y<ZpEVAL f()>x   y",
       "x   ya\n   bx   y"},
  });
}

TEST(Language, ListsOfNamesReachLocalVariables) {
  ExpectPages({
      {"import and export",
       "<ZpFUNCTION f(file)><ZpASSIGN a = 1 b = \"x,y\"><ZpEXPORT file=file fields=\"a, b\" "
       "delimiter=\";\"><ZpIMPORT file=file fields=\"c, a\" delimiter=\";\">{{{ recno $ c $ a }}}"
       "</ZpIMPORT></ZpFUNCTION><ZpEVAL f(\"t.txt\")>[{{{ c }}}{{{ a }}}]",
       "11x,y[]"},
  });
}

TEST(Language, ErrorSettingsAreOfTheirTag) {
  ExpectPages({
      {"shown and not stopping", "<ZEPH tag=\"ZpGO\" show=0><ZpGO to=1>a{{{ ISNULL ZpGO_Error }}}",
       "a0"},
      {"no messages at all", "<ZEPH errors=0><ZpGO to=1>a", "a"},
      {"an expression", "<ZEPH tag=\"expression\" show=0 stop=0><ZpEVAL a[0]>b", "b"},
  });
}

TEST(Language, InstructionsReachTheNamesOfThePage) {
  ExpectPages({
      {"a loop with labels",
       "<ZpASSIGN n = 3><ZpASSEMBLY>\nagain: pushg n\n out\n incg n, -1\n cmpgi n, 0\n jmp_gt "
       "again\n"
       "</ZpASSEMBLY>.{{{ n }}}",
       "321.0"},
      {"a function, its local variable and a number",
       "<ZpFUNCTION f(a)><ZpASSEMBLY> pushl a\n pushf 1.5\n add\n ret</ZpASSEMBLY></ZpFUNCTION>"
       "<ZpASSEMBLY>pushi 2\ncall f\nout</ZpASSEMBLY>",
       "3.5"},
      {"a jump of another tag's instruction",
       "<ZpASSEMBLY>pushc \"x\"\njmp end\nout\nend: pop</ZpASSEMBLY>y", "y"},
  });
}

TEST(Language, ThePageCanDefineTheFunctionThatEncodes) {
  ExpectPages({{"its own",
                "<ZpFUNCTION htmlencode(text)><ZpFUNCTIONRETURN \"[\" $ text $ \"]\"></ZpFUNCTION>"
                "<ZpASSIGN x = \"<\">{{ x }}{{{ x }}}",
                "[<]<"}});
}

TEST(Language, ErrorsAtRunTimeNameFileAndLine) {
  PageFolder folder;
  const CompileResult result = CompileText("a\n<ZpIF 1>\n  <ZpASSIGN list[0] = 1>\n</ZpIF>");
  ASSERT_TRUE(result.succeeded) << result.formatted;
  folder.Add("page.zpc", result.image);
  EXPECT_THAT(folder.Run("page.zpc"), HasSubstr("page.zeph: Line 3: (in expression): Array index"));
  const CompileResult including = CompileText("<ZpINCLUDE \"_part.zeph\">\n<ZpEVAL a[0]>",
                                              {{"_part.zeph", "\n<ZpEVAL a[1]>\n\n<ZpEVAL a[0]>"}});
  ASSERT_TRUE(including.succeeded) << including.formatted;
  folder.Add("page.zpc", including.image);
  EXPECT_THAT(folder.Run("page.zpc"), HasSubstr("_part.zeph: Line 4: (in expression): Array"));
}

}  // namespace
