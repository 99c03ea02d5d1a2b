#include "develop/Problem.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::HasSubstr;
using testing::Not;

Problem At(int line, int column, int length, std::string_view source) {
  Problem problem;
  problem.file = "page.zeph";
  problem.line = line;
  problem.column = column;
  problem.length = length;
  problem.text = "wrong";
  problem.Quote(source);
  return problem;
}

TEST(Problem, IsALineForEditors) {
  Problem problem = At(2, 3, 1, "a\nb\n");
  EXPECT_EQ(problem.Text("site/"), "site/page.zeph:2:3: error: wrong");
  problem.is_error = false;
  problem.column = 0;
  EXPECT_EQ(problem.Text(""), "page.zeph:2: warning: wrong");
  problem.line = 0;
  EXPECT_EQ(problem.Text(""), "page.zeph: warning: wrong");
}

TEST(Problem, HasTheLinesAroundItsPlace) {
  const Problem problem = At(5, 1, 1, "1\n2\n3\n4\n5\r\n6\n7\n8\n9\n");
  ASSERT_EQ(problem.lines.size(), 7u);
  EXPECT_EQ(problem.lines[0].number, 2);
  EXPECT_EQ(problem.lines[3].number, 5);
  EXPECT_EQ(problem.lines[3].text, "5");
  EXPECT_EQ(problem.lines[6].text, "8");
  EXPECT_EQ(At(1, 1, 1, "").lines.size(), 1u);
  EXPECT_EQ(At(2, 1, 1, "a\n").lines.size(), 2u);
  EXPECT_EQ(At(9, 1, 1, "a\nb").lines.size(), 0u);
}

TEST(Problem, NamesTheTagAroundItsPlace) {
  EXPECT_EQ(At(1, 11, 1, "<ZpASSIGN x = 1 1>").tag, "<ZpASSIGN>");
  EXPECT_EQ(At(1, 1, 5, "<ZpIF>").tag, "<ZpIF>");
  EXPECT_EQ(At(1, 1, 5, "</zpif>").tag, "</zpif>");
  EXPECT_EQ(At(1, 10, 1, "<p>{{ a b }}</p>").tag, "{{ }}");
  EXPECT_EQ(At(1, 8, 1, "<ZpIF a {{ b }}>").tag, "<ZpIF>");
  EXPECT_EQ(At(1, 12, 1, "<ZpIF a>{{ b c }}").tag, "{{ }}");
  EXPECT_EQ(At(1, 1, 2, "{{ b").tag, "{{ }}");
  EXPECT_EQ(At(2, 3, 1, "<ZpLOCALIZED-TEXT\n  x>").tag, "<ZpLOCALIZED-TEXT>");
  EXPECT_EQ(At(1, 3, 1, "<p>text").tag, "");
}

TEST(Problem, IsShownWithItsPlaceMarkedAndEverythingEncoded) {
  const std::string html = ProblemsAsHTML({At(1, 5, 3, "<p> a<b & \"c\"")});
  EXPECT_THAT(html, HasSubstr("<code>page.zeph:1:5</code>"));
  EXPECT_THAT(html, HasSubstr("&lt;p&gt; <mark>a&lt;b</mark> &amp; &quot;c&quot;"));
  EXPECT_THAT(ProblemPage("<h1><!-- problems --></h1>", {At(1, 1, 1, "x")}),
              HasSubstr("<h1><section"));
}

TEST(Problem, ALongLineIsCutAroundThePlace) {
  const std::string source = std::string(5000, 'a') + "HERE" + std::string(5000, 'b');
  const std::string html = ProblemsAsHTML({At(1, 5001, 4, source)});
  EXPECT_THAT(html, HasSubstr("aaa<mark>HERE</mark>bbb"));
  EXPECT_LT(html.size(), 1000u);
}

TEST(Problem, NoPlaceIsOutOfBounds) {
  for (const int column : {0, 1, 2, 3, 4, 1000000}) {
    for (const int length : {0, 1, 3, 1000000}) {
      const std::string html = ProblemsAsHTML({At(1, column, length, "\xC3\xA4x")});
      EXPECT_THAT(html, HasSubstr("</section>"));
      EXPECT_THAT(html, Not(HasSubstr("\xC3<"))) << column << " " << length;
    }
    if (column > 3) break;
  }
}

}  // namespace
