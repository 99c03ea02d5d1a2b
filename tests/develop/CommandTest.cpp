// The program zeph, seen from outside: the commands that need no server.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "compiler/Compiler.h"
#include "compiler/PageFiles.h"
#include "tests/support/NewSite.h"
#include "tests/support/ProgramFixture.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

class ZephTest : public ProgramFixture {
 protected:
  ZephTest() : ProgramFixture("zeph") {}
  uint64_t Inode(const std::string& name) {
    struct stat facts {};
    stat(directory.path(name).c_str(), &facts);
    return facts.st_ino;
  }
};

TEST_F(ZephTest, HelpAndVersion) {
  EXPECT_EQ(Run({"--help"}), 0);
  EXPECT_THAT(output, StartsWith("usage: zeph new DIR"));
  EXPECT_EQ(Run({"build", "--help"}), 0);
  EXPECT_THAT(output, StartsWith("usage: zeph build"));
  EXPECT_EQ(Run({"--version"}), 0);
  EXPECT_THAT(output, testing::MatchesRegex("zeph [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST_F(ZephTest, WrongUsageIsStatus2WithAReasonAndTheHelpOfTheCommand) {
  EXPECT_EQ(Run({}), 2);
  EXPECT_THAT(errors, StartsWith("zeph: no command\nusage: zeph new"));
  EXPECT_EQ(Run({"run"}), 2);
  EXPECT_THAT(errors, StartsWith("zeph: no page\nusage: zeph run"));
  EXPECT_EQ(output, "");
}

// A page is shown as a visitor gets it, and the status tells what a script needs to know.
TEST_F(ZephTest, RunTellsByItsStatusThatAPageHasErrors) {
  directory.File("site/zeph.toml", "");
  directory.File("site/error.zeph", "a<ZpGO to=1>b");
  EXPECT_EQ(Run({"run", "site/error.zeph"}), 3);
  EXPECT_THAT(output, testing::MatchesRegex("aRuntime error in error.zpc .*\nb"));
  EXPECT_EQ(errors, "");
  directory.File("site/fatal.zeph", "a<ZEPH tag=\"ZpGO\" stop=1><ZpGO to=1>b");
  EXPECT_EQ(Run({"run", "site/fatal.zeph"}), 1);
  directory.File("site/good.zeph", "a");
  EXPECT_EQ(Run({"run", "site/good.zeph"}), 0);
}

// A script's variable that is not set must not become the working directory.
TEST_F(ZephTest, AnEmptyWordIsRefused) {
  directory.File("index.zeph", "mine");
  for (const char* command : {"new", "dev", "build", "check", "run"}) {
    EXPECT_EQ(Run({command, ""}), 2) << command;
    EXPECT_THAT(errors, StartsWith("zeph: an empty word is neither a folder nor a page\n"));
  }
  EXPECT_EQ(Run({"build", ".", ""}), 2);
  EXPECT_EQ(Run({"check", "-D", "", "."}), 2);
  EXPECT_EQ(directory.Content("index.zeph"), "mine");
  EXPECT_FALSE(directory.Exists("style.css"));
}

// --- new -----------------------------------------------------------------------------------------

TEST_F(ZephTest, ANewSiteCompilesWithoutAWarningAndRuns) {
  ASSERT_EQ(Run({"new", "a/site"}), 0) << errors;
  ProvideLibrary(directory.path("a/site"));
  for (const char* file : {"index.zeph", "_head.zeph", "style.css", "zeph.toml", "README.md"}) {
    EXPECT_TRUE(directory.Exists(std::string("a/site/") + file)) << file;
  }
  EXPECT_EQ(Run({"check", "--werror", "a/site"}), 0);
  EXPECT_EQ(output + errors, "");
  EXPECT_EQ(Run({"run", "a/site/index.zeph"}), 0) << errors;
  EXPECT_THAT(output, HasSubstr("<form method=\"post\">"));
  EXPECT_THAT(output, Not(HasSubstr("Hello")));
  EXPECT_EQ(
      Run({"run", "a/site/index.zeph", "--post", "name=<Ann> & \xC3\x84", "--post", "cups=2"}), 0);
  EXPECT_THAT(output, HasSubstr("<h2>Hello, &lt;Ann&gt; &amp; \xC3\x84!</h2>\n<ul>\n"
                                "<li>Cup 1 of 2\n<li>Cup 2 of 2\n</ul>"));
  EXPECT_THAT(output, HasSubstr("<title>Welcome \xE2\x80\x93 My site</title>"));
  EXPECT_EQ(Run({"build", "a/site"}), 0) << errors;
}

TEST_F(ZephTest, ANewSiteTakesAnEmptyFolderAndNoOther) {
  directory.Directory("empty");
  EXPECT_EQ(Run({"new", "empty"}), 0);
  const std::string before = directory.Content("empty/index.zeph");
  directory.File("empty/index.zeph", "mine");
  EXPECT_EQ(Run({"new", "empty"}), 1);
  EXPECT_EQ(errors, "zeph: empty is there already and not an empty folder\n");
  EXPECT_EQ(directory.Content("empty/index.zeph"), "mine");
  directory.File("file", "x");
  EXPECT_EQ(Run({"new", "file"}), 1);
  EXPECT_EQ(directory.Content("file"), "x");
  directory.Link("dangling", "nowhere");
  EXPECT_EQ(Run({"new", "dangling"}), 1);
  EXPECT_FALSE(directory.Exists("nowhere"));
}

// --- build ---------------------------------------------------------------------------------------

TEST_F(ZephTest, ABuildHasCompiledPagesAndStaticFilesOnly) {
  directory.File("site/index.zeph", "<ZpINCLUDE \"_head.zeph\">x");
  directory.File("site/_head.zeph", "head");
  directory.File("site/deep/page.zeph", "y");
  directory.File("site/deep/style.css", "css");
  directory.File("site/zeph.toml", "");
  directory.File("site/README.md", "x");
  directory.File("site/.hidden/x", "x");
  ASSERT_EQ(Run({"build", "site", "out"}), 0) << errors;
  EXPECT_EQ(output, "2 pages and 1 file; 3 written, 0 removed\n");
  EXPECT_EQ(directory.Content("out/deep/style.css"), "css");
  EXPECT_EQ(directory.Content("out/deep/page.zpc"), CompilePage("y", "deep/page.zeph").image);
  size_t files = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory.path("out"))) {
    if (entry.is_regular_file()) files++;
  }
  EXPECT_EQ(files, 4u) << "three files, and the list of them";
}

TEST_F(ZephTest, ASecondBuildWritesOnlyWhatHasChanged) {
  directory.File("site/a.zeph", "<ZpINCLUDE \"_x.zeph\">");
  directory.File("site/b.zeph", "b");
  directory.File("site/c.css", "c");
  directory.File("site/_x.zeph", "1");
  ASSERT_EQ(Run({"build", "site", "out"}), 0) << errors;
  const uint64_t a = Inode("out/a.zpc"), b = Inode("out/b.zpc"), c = Inode("out/c.css");
  directory.File("site/_x.zeph", "2");
  ASSERT_EQ(Run({"build", "site", "out"}), 0) << errors;
  EXPECT_EQ(output, "2 pages and 1 file; 1 written, 0 removed\n");
  EXPECT_NE(Inode("out/a.zpc"), a);
  EXPECT_EQ(Inode("out/b.zpc"), b);
  EXPECT_EQ(Inode("out/c.css"), c);
}

TEST_F(ZephTest, TheSameSourcesGiveTheSameBytesFromAnyPlace) {
  for (const char* site : {"one", "two/deep"}) {
    directory.File(std::string(site) + "/a.zeph", "{{ 1 / x }}\n<ZpGO to=1>");
    directory.File(std::string(site) + "/b/c.zeph", "<ZpINCLUDE \"../_d.zeph\">");
    directory.File(std::string(site) + "/_d.zeph", "<ZpGO to=1>");
    ASSERT_EQ(Run({"build", site}), 0) << errors;
  }
  for (const char* file : {"a.zpc", "b/c.zpc", ".zeph-build"}) {
    const std::string one = directory.Content("one/.zeph/build/" + std::string(file));
    EXPECT_NE(one, "");
    EXPECT_EQ(one, directory.Content("two/deep/.zeph/build/" + std::string(file)));
  }
}

TEST_F(ZephTest, WhatIsGoneFromTheSiteGoesFromTheBuild) {
  directory.File("site/a.zeph", "a");
  directory.File("site/old/deep/b.zeph", "b");
  directory.File("site/old/c.css", "c");
  ASSERT_EQ(Run({"build", "site", "out"}), 0) << errors;
  std::filesystem::remove_all(directory.path("site/old"));
  directory.File("out/data", "of another program");
  ASSERT_EQ(Run({"build", "site", "out"}), 0) << errors;
  EXPECT_EQ(output, "1 page and 0 files; 0 written, 2 removed\n");
  EXPECT_FALSE(directory.Exists("out/old"));
  EXPECT_TRUE(directory.Exists("out/a.zpc"));
  EXPECT_TRUE(directory.Exists("out/data"));
}

TEST_F(ZephTest, AFolderWithOtherFilesIsNoOutput) {
  directory.File("site/a.zeph", "a");
  directory.File("out/precious", "x");
  EXPECT_EQ(Run({"build", "site", "out"}), 1);
  EXPECT_THAT(errors, HasSubstr("out has files that zeph build has not made"));
  for (const char* output_folder : {"site", ".", "site/../site"}) {
    EXPECT_EQ(Run({"build", "site", output_folder}), 1) << output_folder;
    EXPECT_THAT(errors, HasSubstr("cannot be the site itself"));
  }
  EXPECT_EQ(Run({"build", "nowhere"}), 1);
  EXPECT_EQ(errors, "zeph: there is no folder nowhere\n");
}

// The list of an output could have come with it.
TEST_F(ZephTest, AListOfFilesElsewhereRemovesNothing) {
  directory.File("site/a.zeph", "a");
  directory.File("precious", "x");
  directory.File("out/.zeph-build",
                 "../precious\n" + directory.path("precious") + "\nb/../../precious\n..\n\n");
  ASSERT_EQ(Run({"build", "site", "out"}), 0) << errors;
  EXPECT_TRUE(directory.Exists("precious"));
}

TEST_F(ZephTest, AnErrorBuildsNothing) {
  directory.File("site/a.zeph", "a");
  ASSERT_EQ(Run({"build", "site", "out"}), 0) << errors;
  const std::string before = directory.Content("out/a.zpc");
  directory.File("site/a.zeph", "changed");
  directory.File("site/b.zeph", "<ZpIF>");
  EXPECT_EQ(Run({"build", "site", "out"}), 1);
  EXPECT_THAT(errors, HasSubstr("b.zeph:1:"));
  EXPECT_EQ(directory.Content("out/a.zpc"), before);
  directory.File("site/b.zeph", "<ZpASSIGN x = 1>");
  EXPECT_EQ(Run({"build", "--werror", "site", "out"}), 1);
  EXPECT_EQ(directory.Content("out/a.zpc"), before);
  EXPECT_EQ(Run({"build", "site", "out"}), 0);
  EXPECT_THAT(errors, HasSubstr("'x' is assigned and never read"));
}

TEST_F(ZephTest, AnOutputInTheSiteIsNoPartOfIt) {
  directory.File("site/a.zeph", "a");
  directory.File("site/b.css", "b");
  for (int i = 0; i < 2; i++) {
    ASSERT_EQ(Run({"build", "site", "site/out"}), 0) << errors;
    EXPECT_THAT(output, StartsWith("1 page and 1 file;"));
  }
  EXPECT_FALSE(directory.Exists("site/out/out"));
}

TEST_F(ZephTest, ALinkInTheOutputIsNeverFollowed) {
  directory.File("site/a.zeph", "a");
  directory.File("home/precious", "x");
  directory.Directory("out");
  directory.Link("out/l", "../home");
  directory.File("out/.zeph-build", "l/precious\n");
  EXPECT_EQ(Run({"build", "site", "out"}), 1);
  EXPECT_THAT(errors, HasSubstr("out/l is a link"));
  EXPECT_TRUE(directory.Exists("home/precious"));
  directory.File("out/.zeph-build", "");
  directory.File("site/l/precious", "y");
  EXPECT_EQ(Run({"build", "site", "out"}), 1);
  EXPECT_EQ(directory.Content("home/precious"), "x");
  // A link that a build has made a file of before is no way out either.
  std::filesystem::remove(directory.path("out/l"));
  directory.Directory("out/l");
  directory.Link("out/l/precious", "../../home/precious");
  directory.File("out/.zeph-build", "l/precious\n");
  EXPECT_EQ(Run({"build", "site", "out"}), 0) << errors;
  EXPECT_EQ(directory.Content("home/precious"), "x");
  EXPECT_EQ(directory.Content("out/l/precious"), "y");
}

TEST_F(ZephTest, AFileThatNoBuildHasMadeIsNotReplaced) {
  directory.File("site/a.zeph", "a");
  ASSERT_EQ(Run({"build", "site", "out"}), 0) << errors;
  directory.File("out/data", "of another program");
  directory.File("out/deep", "of another program");
  directory.File("site/data", "x");
  directory.File("site/a.zeph", "changed");
  const std::string before = directory.Content("out/a.zpc");
  EXPECT_EQ(Run({"build", "site", "out"}), 1);
  EXPECT_THAT(errors, HasSubstr("out/data is a file that zeph build has not made"));
  std::filesystem::remove(directory.path("site/data"));
  directory.File("site/deep/x.css", "x");
  EXPECT_EQ(Run({"build", "site", "out"}), 1);
  EXPECT_THAT(errors, HasSubstr("out/deep is a file that zeph build has not made"));
  EXPECT_EQ(directory.Content("out/data") + directory.Content("out/deep"),
            "of another programof another program");
  EXPECT_EQ(directory.Content("out/a.zpc"), before);
}

TEST_F(ZephTest, AFolderThatCannotBeReadRemovesNothing) {
  if (!std::filesystem::exists("/usr/bin/setpriv") && geteuid() == 0) GTEST_SKIP();
  directory.File("site/a.zeph", "a");
  directory.File("site/deep/b.zeph", "b");
  ASSERT_EQ(Run({"build", "site", "out"}), 0) << errors;
  namespace fs = std::filesystem;
  for (const char* folder : {"", "site", "out", "out/deep"}) {
    fs::permissions(directory.path(folder), fs::perms::all);
  }
  fs::permissions(directory.path("out/.zeph-build"), fs::perms::all);
  fs::permissions(directory.path("site/deep"), fs::perms::none);
  std::vector<std::string> words = {InBuild("bin/zeph"), "build", "site", "out"};
  if (geteuid() == 0) {
    words.insert(words.begin(), {"/usr/bin/setpriv", "--reuid=65534", "--clear-groups"});
  }
  Command command(words);
  command.directory = directory.path();
  EXPECT_EQ(command.Run(), 1);
  EXPECT_THAT(command.errors, HasSubstr("/site/deep: Permission denied\n"));
  EXPECT_TRUE(directory.Exists("out/deep/b.zpc"));
  fs::permissions(directory.path("site/deep"), fs::perms::all);
}

TEST_F(ZephTest, AnInterruptedBuildIsCompletedByTheNext) {
  if (!std::filesystem::exists("/usr/bin/prlimit")) GTEST_SKIP();
  directory.File("site/a.zeph", "a");
  directory.File("site/z.css", std::string(100000, 'z'));
  // The system ends it at the large file.
  Command command({"/usr/bin/prlimit", "--fsize=10000", "--core=0", InBuild("bin/zeph"), "build",
                   "site", "out"});
  command.directory = directory.path();
  EXPECT_GT(command.Run(), 128);
  EXPECT_TRUE(directory.Exists("out/a.zpc"));
  EXPECT_FALSE(directory.Exists("out/z.css"));
  std::filesystem::remove(directory.path("site/a.zeph"));
  EXPECT_EQ(Run({"build", "site", "out"}), 0) << errors;
  EXPECT_FALSE(directory.Exists("out/a.zpc"));
  EXPECT_EQ(directory.Content("out/z.css").size(), 100000u);
  EXPECT_EQ(directory.Content("out/.zeph-build"), "z.css\n");
}

TEST_F(ZephTest, AFileMayBecomeAFolderAndTheReverse) {
  directory.File("site/a/b.css", "b");
  directory.File("site/c", "c");
  ASSERT_EQ(Run({"build", "site", "out"}), 0) << errors;
  std::filesystem::remove_all(directory.path("site/a"));
  std::filesystem::remove(directory.path("site/c"));
  directory.File("site/a", "file");
  directory.File("site/c/d/e.css", "e");
  EXPECT_EQ(Run({"build", "site", "out"}), 0) << errors;
  EXPECT_EQ(output, "0 pages and 2 files; 2 written, 2 removed\n");
  EXPECT_EQ(directory.Content("out/a"), "file");
  EXPECT_EQ(directory.Content("out/c/d/e.css"), "e");
  // What another program has in that folder stays.
  directory.File("out/c/other", "x");
  std::filesystem::remove_all(directory.path("site/c"));
  directory.File("site/c", "c");
  EXPECT_EQ(Run({"build", "site", "out"}), 1);
  EXPECT_TRUE(directory.Exists("out/c/other"));
  EXPECT_TRUE(directory.Exists("out/c/d/e.css"));
}

TEST_F(ZephTest, AStaticFileThatIsALinkIsNotCopied) {
  directory.File("secret", "x");
  directory.File("site/a.css", "a");
  directory.Link("site/link.css", "../secret");
  EXPECT_EQ(Run({"build", "site", "out"}), 0);
  EXPECT_EQ(output, "0 pages and 1 file; 1 written, 0 removed\n");
  EXPECT_THAT(errors, HasSubstr("site/link.css is a link and is not copied\n"));
  EXPECT_FALSE(directory.Exists("out/link.css"));
}

TEST_F(ZephTest, NamesOfAnyBytesAreListed) {
  const std::string odd = "site/a\nprecious\\n.css";
  directory.File(odd, "x");
  ASSERT_EQ(Run({"build", "site", "out"}), 0) << errors;
  ASSERT_EQ(Run({"build", "site", "out"}), 0) << errors;
  EXPECT_EQ(output, "0 pages and 1 file; 0 written, 0 removed\n");
  directory.File("out/precious\\n.css", "mine");
  std::filesystem::remove(directory.path(odd));
  ASSERT_EQ(Run({"build", "site", "out"}), 0) << errors;
  EXPECT_EQ(output, "0 pages and 0 files; 0 written, 1 removed\n");
  EXPECT_TRUE(directory.Exists("out/precious\\n.css"));
}

// A source has to be in memory; any other file is copied in pieces.
TEST_F(ZephTest, ALargeFileIsCopiedAndALargeSourceRefused) {
  const size_t large = kLargestFile + 1;
  std::filesystem::resize_file(directory.File("site/a.bin", "a"), large);
  ASSERT_EQ(Run({"build", "site", "out"}), 0) << errors;
  EXPECT_EQ(std::filesystem::file_size(directory.path("out/a.bin")), large);
  std::filesystem::resize_file(directory.File("site/a.zeph", "a"), size_t{1} << 40);
  EXPECT_EQ(Run({"check", "site"}), 1);
  EXPECT_EQ(output, "site/a.zeph: error: File too large\n");
}

TEST_F(ZephTest, LinksInThePlaceOfItsOwnFoldersAreRefused) {
  directory.File("site/a.zeph", "a");
  directory.File("home/precious.zpc", "x");
  directory.Directory("site/.zeph");
  for (const char* folder : {"build", "run"}) {
    directory.Link("site/.zeph/" + std::string(folder), "../../home");
  }
  EXPECT_EQ(Run({"build", "site"}), 1);
  EXPECT_THAT(errors, HasSubstr("site/.zeph/build is a link"));
  EXPECT_EQ(Run({"run", "site/a.zeph"}), 1);
  EXPECT_THAT(errors, HasSubstr("site/.zeph/run is a link"));
  std::filesystem::remove(directory.path("site/.zeph/run"));
  directory.Directory("site/.zeph/run");
  directory.Link("site/.zeph/run/deep", "../../../home");
  EXPECT_EQ(Run({"run", "site/a.zeph"}), 1);
  EXPECT_THAT(errors, HasSubstr("site/.zeph/run/deep is a link"));
  std::filesystem::remove_all(directory.path("site/.zeph"));
  directory.Link("site/.zeph", "../home");
  EXPECT_EQ(Run({"build", "site"}), 1);
  EXPECT_EQ(Run({"run", "site/a.zeph"}), 1);
  EXPECT_TRUE(directory.Exists("home/precious.zpc"));
  EXPECT_FALSE(directory.Exists("home/a.zpc"));
}

TEST_F(ZephTest, NamesAreDefinedForABuild) {
  directory.File("site/a.zeph", "<ZpIFDEF LIVE>live<ZpELSE>test</ZpIFDEF>");
  ASSERT_EQ(Run({"build", "-D", "LIVE", "site", "out"}), 0) << errors;
  EXPECT_THAT(directory.Content("out/a.zpc"), HasSubstr("live"));
}

// --- check ---------------------------------------------------------------------------------------

TEST_F(ZephTest, ACheckIsALineForEachMessage) {
  directory.File("site/a.zeph", "<ZpASSIGN x = 1>");
  directory.File("site/b.zeph", "{{ 1 + }}\n");
  directory.File("site/deep/b.zeph", "<ZpINCLUDE \"../_c.zeph\">");
  directory.File("site/deep/d.zeph", "<ZpINCLUDE \"../_c.zeph\">");
  directory.File("site/_c.zeph", "<ZpX>");
  EXPECT_EQ(Run({"check", "site"}), 1);
  EXPECT_EQ(errors, "");
  EXPECT_THAT(output, HasSubstr("site/a.zeph:1:11: warning: 'x' is assigned and never read\n"));
  EXPECT_THAT(output,
              testing::MatchesRegex("(site/[a-z_./]+:[0-9]+:[0-9]+: (error|warning): [^\n]+\n)+"));
  // The included file is compiled twice and told of once.
  const std::string line = "site/_c.zeph:1:1: error: there is no tag 'ZpX'";
  EXPECT_THAT(output, HasSubstr(line));
  EXPECT_EQ(output.find(line), output.rfind(line));
}

TEST_F(ZephTest, ACheckOfAFolderOrAPageNamesFilesFromTheWorkingDirectory) {
  directory.File("a.zeph", "<ZpX>");
  directory.File("deep/site/zeph.toml", "");
  directory.File("deep/site/pages/b.zeph", "<ZpINCLUDE \"_c.zeph\">");
  directory.File("deep/site/pages/_c.zeph", "<ZpX>");
  EXPECT_EQ(Run({"check", "a.zeph"}), 1);
  EXPECT_THAT(output, StartsWith("a.zeph:1:1: error: "));
  EXPECT_EQ(Run({"check"}), 1);
  EXPECT_THAT(output, HasSubstr("\ndeep/site/pages/_c.zeph:1:1: error: "));
  EXPECT_EQ(Run({"check", "deep/site/pages/b.zeph"}), 1);
  EXPECT_THAT(output, StartsWith("deep/site/pages/_c.zeph:1:1: error: "));
  EXPECT_EQ(Run({"check", "nothing"}), 1);
  EXPECT_EQ(errors, "zeph: there is no folder or page nothing\n");
}

TEST_F(ZephTest, WarningsAloneAreNoFailureUnlessTheyShallBe) {
  directory.File("site/a.zeph", "<ZpASSIGN x = 1>");
  EXPECT_EQ(Run({"check", "site"}), 0);
  EXPECT_EQ(output, "site/a.zeph:1:11: warning: 'x' is assigned and never read\n");
  EXPECT_EQ(Run({"check", "--werror", "site"}), 1);
}

TEST_F(ZephTest, ACheckWritesNothing) {
  directory.File("site/a.zeph", "a");
  EXPECT_EQ(Run({"check", "site"}), 0);
  EXPECT_FALSE(directory.Exists("site/.zeph"));
}

// --- run -----------------------------------------------------------------------------------------

TEST_F(ZephTest, ARunFindsARequest) {
  directory.File(
      "a.zeph",
      "{{{ REQUEST_METHOD }}}|{{{ QUERY_STRING }}}|{{{ HTTP_COOKIE }}}|{{{ a }}}|{{{ b:c }}}|"
      "{{{ list }}}|{{{ callerid }}}|{{{ documenturl }}}");
  ASSERT_EQ(Run({"run", "a.zeph", "--get", "a=1 &\xC3\xA4", "--get", "list=x", "--get", "list=y",
                 "--cookie", "zixcallerid=me", "--cookie", "k=v"}),
            0)
      << errors;
  EXPECT_EQ(output,
            "GET|a=1%20%26%C3%A4&list=x&list=y|zixcallerid=me; k=v|1 &\xC3\xA4||x,y|me|"
            "http://localhost/a.zpc?");
  ASSERT_EQ(Run({"run", "a.zeph", "--post", "b:c=2", "--cookie", "zixcallerid=me"}), 0) << errors;
  EXPECT_EQ(output, "POST||zixcallerid=me||2||me|http://localhost/a.zpc?");
}

TEST_F(ZephTest, ARunShowsTheHeaderFieldsIfItIsAskedTo) {
  directory.File("a.zeph", "x");
  ASSERT_EQ(Run({"run", "--headers", "a.zeph"}), 0) << errors;
  EXPECT_EQ(output, "Content-Type: text/html\n\nx");
  ASSERT_EQ(Run({"run", "a.zeph"}), 0) << errors;
  EXPECT_EQ(output, "x");
}

TEST_F(ZephTest, ARunsStatusIsThatOfThePage) {
  directory.File("a.zeph", "before<ZpDO file=\"nowhere.zpc\">after");
  EXPECT_EQ(Run({"run", "a.zeph"}), 1);
  EXPECT_THAT(output, StartsWith("before"));
  EXPECT_THAT(output, HasSubstr("a.zeph: Line 1: "));
  directory.File("b.zeph", "x<ZpX>");
  EXPECT_EQ(Run({"run", "b.zeph"}), 1);
  EXPECT_EQ(output, "");
  EXPECT_THAT(
      errors,
      StartsWith("b.zeph:1:2: error: there is no tag 'ZpX'; did you mean 'ZpIF'?\nx<ZpX>\n ^"));
  EXPECT_EQ(Run({"run", "c.zeph"}), 1);
  EXPECT_EQ(errors, "zeph: there is no page c.zeph\n");
}

TEST_F(ZephTest, ARunTakesPagesOnlyAndForgetsThoseThatAreGone) {
  directory.File("site/zeph.toml", "");
  directory.File("site/a.zeph", "a<ZpDO file=\"b.zpc\">");
  directory.File("site/b.zeph", "b");
  directory.File("site/b.txt", "x");
  directory.File("site/_part.zeph", "x");
  ASSERT_EQ(Run({"run", "site/a.zeph"}), 0) << errors;
  EXPECT_EQ(output, "ab");
  for (const char* name : {"site/b.txt", "site/_part.zeph"}) {
    EXPECT_EQ(Run({"run", name}), 1) << name;
    EXPECT_THAT(errors, HasSubstr(" is no page: its name "));
  }
  std::filesystem::remove(directory.path("site/b.zeph"));
  directory.File("site/.zeph/run/notes", "mine");
  EXPECT_EQ(Run({"run", "site/a.zeph"}), 1);
  EXPECT_FALSE(directory.Exists("site/.zeph/run/b.zpc"));
  EXPECT_TRUE(directory.Exists("site/.zeph/run/notes"));
}

TEST_F(ZephTest, APageRunsOtherPagesOfItsSite) {
  directory.File("site/zeph.toml", "");
  directory.File("site/parts/tea.zeph",
                 "<ZpFUNCTION tea()><ZpFUNCTIONRETURN \"Assam\"></ZpFUNCTION>");
  directory.File("site/broken.zeph", "<ZpX>");
  directory.File("site/pages/a.zeph",
                 "<ZpDO file=\"../parts/tea.zpc\" call=\"tea()\" into=x>{{{ x }}}");
  ASSERT_EQ(Run({"run", "site/pages/a.zeph"}), 0) << output << errors;
  EXPECT_EQ(output, "Assam");
}

}  // namespace
