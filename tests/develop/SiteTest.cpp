#include "develop/Site.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "compiler/Compiler.h"
#include "tests/support/OtherUser.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class SiteTest : public testing::Test {
 protected:
  SiteTest()
      : root(directory.Directory("site")),
        site(root, {directory.path("out"), "/d", "/t"}, places, {}) {}

  Site::Changes Refresh(const std::set<std::string>& touched = {}) { return site.Refresh(touched); }
  void Write(const std::string& name, const std::string& text) {
    directory.File("site/" + name, text);
  }
  void Delete(const std::string& name) {
    std::filesystem::remove_all(directory.path("site/" + name));
  }

  TemporaryDirectory directory;
  Places places;
  std::string root;
  Site site;
};

TEST_F(SiteTest, CompilesAllPagesFirstAndThenNothing) {
  Write("index.zeph", "a");
  Write("deep/page.zeph", "b");
  Write("_part.zeph", "c");
  Write("style.css", "d");
  Write(".hidden/page.zeph", "e");
  EXPECT_THAT(Refresh().compiled, ElementsAre("deep/page.zeph", "index.zeph"));
  EXPECT_EQ(directory.Content("out/deep/page.zpc"), CompilePage("b", "deep/page.zeph").image);
  EXPECT_FALSE(directory.Exists("out/_part.zpc"));
  const Site::Changes none = Refresh();
  EXPECT_THAT(none.compiled, IsEmpty());
  EXPECT_FALSE(none.files);
}

TEST_F(SiteTest, AChangedFileCompilesThePagesThatAreMadeFromIt) {
  Write("one.zeph", "<ZpINCLUDE \"parts/_a.zeph\">");
  Write("two.zeph", "two");
  Write("parts/_a.zeph", "<ZpINCLUDE \"_b.zeph\">");
  Write("parts/_b.zeph", "b");
  Refresh();
  Write("parts/_b.zeph", "longer");
  EXPECT_THAT(Refresh().compiled, ElementsAre("one.zeph"));
  Write("two.zeph", "longer");
  EXPECT_THAT(Refresh().compiled, ElementsAre("two.zeph"));
  Write("style.css", "x");
  const Site::Changes changes = Refresh();
  EXPECT_THAT(changes.compiled, IsEmpty());
  EXPECT_TRUE(changes.files);
}

// An editor may write a text of the same length within the clock's resolution.
TEST_F(SiteTest, AFileThatWasToldOfCountsAsChanged) {
  Write("one.zeph", "1");
  Refresh();
  EXPECT_THAT(Refresh({root + "/one.zeph"}).compiled, ElementsAre("one.zeph"));
  EXPECT_FALSE(Refresh({root + "/.zeph/x"}).files);
}

TEST_F(SiteTest, AnIncludedFileOutsideOfTheSiteCounts) {
  directory.File("shared/_x.zeph", "1");
  Write("one.zeph", "<ZpINCLUDE \"../shared/_x.zeph\">");
  Refresh();
  EXPECT_THAT(site.OutsideFolders(), ElementsAre(directory.path("shared")));
  directory.File("shared/_x.zeph", "longer");
  EXPECT_THAT(Refresh().compiled, ElementsAre("one.zeph"));
}

TEST_F(SiteTest, AMissingFileThatComesRepairsThePage) {
  Write("one.zeph", "<ZpINCLUDE \"_later.zeph\">");
  Refresh();
  ASSERT_EQ(site.Errors("one.zeph").size(), 1u);
  EXPECT_EQ(site.Errors("one.zeph")[0].tag, "<ZpINCLUDE>");
  EXPECT_FALSE(directory.Exists("out/one.zpc"));
  Write("_later.zeph", "x");
  EXPECT_THAT(Refresh().compiled, ElementsAre("one.zeph"));
  EXPECT_THAT(site.Errors("one.zeph"), IsEmpty());
  EXPECT_TRUE(directory.Exists("out/one.zpc"));
}

TEST_F(SiteTest, ABrokenPageHasNoCompiledFile) {
  Write("one.zeph", "x");
  Refresh();
  EXPECT_TRUE(directory.Exists("out/one.zpc"));
  Write("one.zeph", "<ZpIF 1>\n<ZpASIGN>\n{{ 1 + }}");
  Refresh();
  EXPECT_FALSE(directory.Exists("out/one.zpc"));
  const std::vector<Problem> errors = site.Errors("one.zeph");
  ASSERT_EQ(errors.size(), 3u);
  EXPECT_EQ(errors[1].Text(""),
            "one.zeph:2:1: error: there is no tag 'ZpASIGN'; did you mean 'ZpASSIGN'?");
  EXPECT_EQ(errors[2].tag, "{{ }}");
}

TEST_F(SiteTest, APageThatIsGoneLeavesNoCompiledFile) {
  Write("one.zeph", "x");
  Write("deep/two.zeph", "x");
  Refresh();
  Delete("deep");
  EXPECT_THAT(Refresh().removed, ElementsAre("deep/two.zeph"));
  EXPECT_FALSE(directory.Exists("out/deep/two.zpc"));
  EXPECT_TRUE(directory.Exists("out/one.zpc"));
}

TEST_F(SiteTest, ACompiledFileThatIsTheSameIsLeftAlone) {
  Write("one.zeph", "x");
  Refresh();
  struct stat before {
  }, after{};
  ASSERT_EQ(stat(directory.path("out/one.zpc").c_str(), &before), 0);
  Write("one.zeph", "<ZpCOMMENT>longer</ZpCOMMENT>x");
  EXPECT_THAT(Refresh().compiled, ElementsAre("one.zeph"));
  ASSERT_EQ(stat(directory.path("out/one.zpc").c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
}

TEST_F(SiteTest, ALibrarysFunctionsAreKnownWhenItIsConfigured) {
  Write("one.zeph", "<ZpEVAL mine(1)>");
  Refresh();
  EXPECT_EQ(site.Errors("one.zeph").size(), 1u);
  Write("own.so", "");
  Write("own.functions", "mine(a)");
  Write("zeph.toml", "[[library]]\nkind = \"builtin\"\npath = \"own.so\"\n");
  const Site::Changes changes = Refresh();
  EXPECT_TRUE(changes.settings);
  EXPECT_THAT(site.Errors("one.zeph"), IsEmpty());
  Write("own.functions", "mine(a, b)");
  Refresh();
  EXPECT_EQ(site.Errors("one.zeph").size(), 1u);
}

TEST_F(SiteTest, DeclarationsThatAreMadeLaterCount) {
  Write("one.zeph", "<ZpEVAL mine(1)>");
  Write("own.so", "");
  Write("zeph.toml", "[[library]]\nkind = \"builtin\"\npath = \"own.so\"\n");
  Refresh();
  EXPECT_EQ(site.Errors("one.zeph").size(), 1u);
  Write("own.functions", "mine(a)");
  EXPECT_TRUE(Refresh().settings);
  EXPECT_THAT(site.Errors("one.zeph"), IsEmpty());
}

TEST_F(SiteTest, AMistakeInDeclarationsHasItsFileAndLine) {
  Write("one.zeph", "x");
  std::string settings;
  for (const char* name : {"a", "b"}) {
    Write("lib/" + std::string(name) + ".so", "");
    Write("lib/" + std::string(name) + ".functions", "; first\n" + std::string(name) + "one(x)\n");
    settings += "[[library]]\nkind = \"builtin\"\npath = \"lib/" + std::string(name) + ".so\"\n";
  }
  Write("lib/b.functions", "; first\nbone(\n");
  Write("zeph.toml", settings);
  Refresh();
  const std::vector<Problem> errors = site.Errors("one.zeph");
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_THAT(errors[0].Text(""), testing::StartsWith("lib/b.functions:2:"));
  ASSERT_EQ(errors[0].lines.size(), 2u);
  EXPECT_EQ(errors[0].lines[1].text, "bone(");
}

TEST_F(SiteTest, AFolderThatCannotBeReadCountsAsItWas) {
  Write("one.zeph", "<ZpINCLUDE \"deep/_x.zeph\">");
  Write("deep/two.zeph", "x");
  Write("deep/_x.zeph", "x");
  Write("three.zeph", "x");
  std::filesystem::permissions(directory.path(), std::filesystem::perms::all);
  std::filesystem::permissions(root, std::filesystem::perms::all);
  Refresh();
  std::filesystem::permissions(root + "/deep", std::filesystem::perms::none);
  Delete("three.zeph");
  Site::Changes changes;
  {
    const OtherUser user;
    changes = Refresh();
    EXPECT_THAT(Refresh().unread, IsEmpty()) << "told once";
  }
  EXPECT_THAT(changes.unread, ElementsAre(UnreadFolder{"deep", EACCES}));
  EXPECT_THAT(changes.removed, ElementsAre("three.zeph"));
  EXPECT_THAT(changes.compiled, IsEmpty());
  EXPECT_TRUE(directory.Exists("out/deep/two.zpc"));
  std::filesystem::permissions(root + "/deep", std::filesystem::perms::all);
  Refresh();
  EXPECT_TRUE(directory.Exists("out/deep/two.zpc"));
  EXPECT_THAT(site.Errors("one.zeph"), IsEmpty());
}

TEST_F(SiteTest, AMissingFileOutsideOfTheSiteIsWaitedFor) {
  Write("one.zeph", "<ZpINCLUDE \"../shared/deep/_x.zeph\">");
  Refresh();
  EXPECT_THAT(site.OutsideFolders(), ElementsAre(directory.path()));
  directory.File("shared/deep/_x.zeph", "x");
  EXPECT_THAT(Refresh().compiled, ElementsAre("one.zeph"));
  EXPECT_THAT(site.Errors("one.zeph"), IsEmpty());
  EXPECT_THAT(site.OutsideFolders(), ElementsAre(directory.path("shared/deep")));
}

TEST_F(SiteTest, LinesOfTheSettingsAreNotForVisitors) {
  Write("zeph.toml", "password = \"secret\"\nnothing = 1\n");
  Refresh();
  ASSERT_FALSE(site.Errors("one.zeph").empty());
  EXPECT_TRUE(site.Errors("one.zeph")[0].lines.empty());
  EXPECT_FALSE(site.settings().problems[0].lines.empty());
}

TEST_F(SiteTest, MistakesInTheSettingsAreErrorsOfAllPages) {
  Write("one.zeph", "x");
  Write("zeph.toml", "nothing = 1\n");
  Refresh();
  ASSERT_EQ(site.Errors("one.zeph").size(), 1u);
  EXPECT_EQ(site.Errors("one.zeph")[0].file, "zeph.toml");
  EXPECT_EQ(site.Errors("other.zeph").size(), 1u);
  Write("zeph.toml", "max_files = 1\n");
  Refresh();
  EXPECT_THAT(site.Errors("one.zeph"), IsEmpty());
  EXPECT_THAT(site.settings().text, HasSubstr("max_files = 1\n"));
}

TEST(Site, StaticFilesAreNeitherSourcesNorTheMakers) {
  for (const char* name : {"style.css", "deep/a.html", "deep/README.md", "zeph", "a.zeph.txt"}) {
    EXPECT_TRUE(IsStaticFile(name)) << name;
  }
  for (const char* name : {"index.zeph",  "_a.zeph",     "A.ZEPH",         "a.zpa",
                           "a.zpc",       "zeph.toml",   "deep/zeph.toml", "README.md",
                           ".hidden",     ".git/config", "a/.b/c.css",     "lib/own.functions",
                           "a.zeph~",     "#a.zeph#",    "a.zeph.bak",     "b/a.zeph.orig",
                           "a.rej",       "a.zeph.SWP",  "a.swo",          "zeph.toml.old",
                           "ZEPH.TOML.x", "zeph.toml~",  "a.zeph.save",    "#x/a.css"}) {
    EXPECT_FALSE(IsStaticFile(name)) << name;
  }
}

}  // namespace
