// The program zephc, seen from outside.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>

#include "tests/support/CompiledPages.h"
#include "tests/support/ProgramFixture.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

class Zephc : public ProgramFixture {
 protected:
  Zephc() : ProgramFixture("zephc") {}
};

TEST_F(Zephc, CompilesAPage) {
  directory.File("page.zeph", "Hello");
  EXPECT_EQ(Run({"page.zeph", "-o", "page.zpc"}), 0);
  EXPECT_EQ(output + errors, "");
  EXPECT_EQ(directory.Content("page.zpc"), CompilePage("Hello", "page.zeph").image);
}

TEST_F(Zephc, CompilesThePagesOfAFolder) {
  directory.File("site/index.zeph", "<ZpINCLUDE \"parts/_head.zeph\">");
  directory.File("site/parts/_head.zeph", "<ZpINCLUDE \"_inner.zeph\">");
  directory.File("site/parts/_inner.zeph", "x");
  directory.File("site/deep/er/page.zeph", "y");
  directory.File("site/style.css", "z");
  EXPECT_EQ(Run({"site", "-o", "out", "--depend", "out/site.d"}), 0) << errors;
  EXPECT_TRUE(directory.Exists("out/index.zpc"));
  EXPECT_EQ(directory.Content("out/deep/er/page.zpc"), CompilePage("y", "deep/er/page.zeph").image);
  EXPECT_FALSE(directory.Exists("out/parts/_head.zpc"));
  EXPECT_FALSE(directory.Exists("out/style.css"));
  EXPECT_EQ(directory.Content("out/site.d"),
            "out/deep/er/page.zpc: site/deep/er/page.zeph\n"
            "out/index.zpc: site/index.zeph site/parts/_head.zeph site/parts/_inner.zeph\n");
}

// make itself reads the list of files, with every byte in their names that means something there.
TEST_F(Zephc, MakeCompilesAgainWhatAChangedFileIsIn) {
  if (access("/usr/bin/make", X_OK) != 0) GTEST_SKIP() << "/usr/bin/make is not installed";
  const std::vector<std::string> names = {"plain", "a b", "c#d",  "e$f",
                                          "g:h",   "i%j", "k\\l", "m\\ n"};
  for (const std::string& name : names) {
    directory.File("si te/" + name + "/page.zeph", "<ZpINCLUDE \"_" + name + ".zeph\">");
    directory.File("si te/" + name + "/_" + name + ".zeph", "x");
  }
  ASSERT_EQ(Run({"si te", "-o", "out", "--depend", "site.d"}), 0) << errors;
  directory.File("Makefile", "include site.d\n%.zpc:\n\t@echo '$@'\n");
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    std::string target = "out/" + name + "/page.zpc";
    Command before({"/usr/bin/make", "-s", target});
    before.directory = directory.path();
    EXPECT_EQ(before.Run(), 0) << before.errors;
    EXPECT_EQ(before.output, "");
    const auto later = std::filesystem::file_time_type::clock::now() + std::chrono::hours(1);
    std::filesystem::last_write_time(directory.path("si te/" + name + "/_" + name + ".zeph"),
                                     later);
    Command after({"/usr/bin/make", "-s", target});
    after.directory = directory.path();
    EXPECT_EQ(after.Run(), 0) << after.errors;
    EXPECT_EQ(after.output, target + "\n");
  }
}

TEST_F(Zephc, FindsIncludedFilesInOtherFolders) {
  directory.File("pages/page.zeph", "<ZpINCLUDE \"common.zeph\">");
  directory.File("shared/common.zeph", "x");
  EXPECT_EQ(Run({"pages/page.zeph", "-o", "page.zpc"}), 1);
  EXPECT_THAT(errors, HasSubstr("pages/page.zeph:1:12: error: there is no file 'common.zeph'"));
  EXPECT_EQ(Run({"-I", "shared", "pages/page.zeph", "-o", "page.zpc"}), 0) << errors;
}

TEST_F(Zephc, ChangesNoFileAfterAnError) {
  directory.File("site/a.zeph", "new");
  directory.File("site/b.zeph", "{{ + }}");
  directory.File("out/a.zpc", "old");
  EXPECT_EQ(Run({"site", "-o", "out"}), 1);
  EXPECT_THAT(errors, HasSubstr("b.zeph:1:4: error: '+' needs a value on its left"));
  EXPECT_EQ(directory.Content("out/a.zpc"), "old");
}

TEST_F(Zephc, ChecksWithoutWriting) {
  directory.File("page.zeph", "<ZpASSIGN x = 1>");
  EXPECT_EQ(Run({"--check", "page.zeph"}), 0);
  EXPECT_THAT(errors, HasSubstr("page.zeph:1:11: warning: 'x' is assigned and never read"));
  EXPECT_EQ(Run({"--check", "--werror", "page.zeph"}), 1);
}

TEST_F(Zephc, KnowsDefinedNamesAndLibraryFunctions) {
  directory.File("page.zeph",
                 "<ZpIFDEF LIVE>{{{ length(text) }}}<ZpELSE>{{{ other() }}}</ZpIFDEF>");
  directory.File("functions", "; of the library\n\nlength(text var)\n");
  EXPECT_EQ(Run({"-D", "live", "--functions", "functions", "page.zeph", "-o", "page.zpc"}), 0)
      << errors;
  EXPECT_EQ(Run({"-D", "live", "page.zeph", "-o", "page.zpc"}), 1);
  directory.File("functions", "length(text var\n");
  EXPECT_EQ(Run({"--functions", "functions", "page.zeph", "-o", "page.zpc"}), 1);
  EXPECT_THAT(errors,
              HasSubstr("functions:1:16: error: expected 'var', ',' or ')', found the end"));
}

TEST_F(Zephc, TakesSeveralListsOfFunctions) {
  directory.File("page.zeph", "{{{ one() }}}{{{ two() }}}");
  directory.File("a.functions", "one()\n");
  directory.File("b.functions", "two()\n");
  EXPECT_EQ(
      Run({"--functions", "a.functions", "--functions", "b.functions", "--check", "page.zeph"}), 0)
      << errors;
  EXPECT_EQ(Run({"--functions", "a.functions", "--check", "page.zeph"}), 1);
  EXPECT_EQ(
      Run({"--functions", "a.functions", "--functions", "c.functions", "--check", "page.zeph"}), 1);
  EXPECT_EQ(errors, "zephc: cannot read c.functions: No such file or directory\n");
}

TEST_F(Zephc, HelpAndVersionAreNoErrors) {
  for (const char* option : {"--help", "-h"}) {
    EXPECT_EQ(Run({option}), 0);
    EXPECT_THAT(output, StartsWith("usage: zephc "));
  }
  EXPECT_EQ(Run({"--version"}), 0);
  EXPECT_THAT(output, MatchesRegex("zephc [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST_F(Zephc, TellsWhatIsWrongWithACommandLine) {
  const struct {
    std::vector<std::string> arguments;
    const char* reason;
  } rows[] = {
      {{}, "no page"},
      {{"page.zeph"}, "no -o for the compiled file"},
      {{"page.zeph", "-o"}, "-o needs a value"},
      {{"page.zeph", "-o", ""}, "-o needs a value"},
      {{"page.zeph", "-o", "a", "-o", "b"}, "-o is there twice"},
      {{"-D"}, "-D needs a value"},
      {{"--check", "page.zeph", "-o", "x"}, "--check writes nothing, so it has no -o"},
      {{"a.zeph", "b.zeph", "-o", "x"},
       "one page or folder at a time, found 'b.zeph' after 'a.zeph'"},
      {{"--wrong", "page.zeph"}, "unknown option '--wrong'"},
      {{""}, "an empty name of a page"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Run(row.arguments), 2);
    EXPECT_THAT(errors, StartsWith("zephc: " + std::string(row.reason) + "\nusage: zephc "));
  }
  EXPECT_EQ(Run({"none.zeph", "-o", "x"}), 1);
  EXPECT_THAT(errors, HasSubstr("zephc: cannot read none.zeph: No such file"));
}

}  // namespace
