#include "develop/LiveSite.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "tests/support/TemporaryDirectory.h"

namespace {

using testing::HasSubstr;

class LiveSiteTest : public testing::Test {
 protected:
  LiveSiteTest()
      : site(directory.Directory("site"), {directory.path("out"), "/d", "/t"}, places, {}) {}

  TemporaryDirectory directory;
  Places places;
  LiveSite site;
};

TEST_F(LiveSiteTest, AChangeIsAnotherVersion) {
  directory.File("site/a.zeph", "x");
  const uint64_t first = site.version();
  site.Refresh({});
  const uint64_t second = site.version();
  EXPECT_NE(first, second);
  site.Refresh({});
  EXPECT_EQ(site.version(), second);
  directory.File("site/style.css", "x");
  site.Refresh({});
  EXPECT_NE(site.version(), second);
}

TEST_F(LiveSiteTest, ThoseWhoWaitAreWokenByAChangeAndByTheEnd) {
  directory.File("site/a.zeph", "x");
  const std::chrono::minutes long_time(5);
  const uint64_t first = site.version();
  std::thread waiting([&] { EXPECT_TRUE(site.WaitForChange(first, long_time)); });
  site.Refresh({});
  waiting.join();
  const uint64_t second = site.version();
  EXPECT_TRUE(site.WaitForChange(second, std::chrono::milliseconds(1)));
  std::thread last([&] { EXPECT_FALSE(site.WaitForChange(second, long_time)); });
  site.Stop();
  last.join();
}

TEST_F(LiveSiteTest, ErrorsBelongToTheCompiledFilesOfPages) {
  directory.File("site/a.zeph", "<ZpX>");
  directory.File("site/b.zeph", "x");
  EXPECT_THAT(site.Refresh({}).messages, HasSubstr("a.zeph:1:1: error: there is no tag 'ZpX'"));
  EXPECT_EQ(site.Errors("a.zpc").size(), 1u);
  EXPECT_EQ(site.Errors("b.zpc").size(), 0u);
  EXPECT_EQ(site.Errors("a.zeph").size(), 0u);
  EXPECT_EQ(site.Errors("").size(), 0u);
  EXPECT_TRUE(site.HasPage("a.zpc"));
  EXPECT_FALSE(site.HasPage("c.zpc"));
}

TEST_F(LiveSiteTest, TheTerminalShowsTheLineOfAMistakeInTheSettings) {
  directory.File("site/zeph.toml", "max_files = 7\nnothing = \"here\"\n");
  EXPECT_THAT(site.Refresh({}).messages, testing::EndsWith("\nnothing = \"here\"\n"));
}

TEST_F(LiveSiteTest, AWarningOfTheSettingsIsShownAndLeavesThemAndThePagesInOrder) {
  directory.File("site/a.zeph", "x");
  directory.File("site/zeph.toml", "[variables.global]\ncookies = 1\n");
  const LiveSite::Report report = site.Refresh({});
  EXPECT_THAT(report.messages, HasSubstr("zeph.toml:2:1: warning: variables.global.cookies: "));
  EXPECT_TRUE(report.settings_ok);
  EXPECT_EQ(site.Errors("a.zpc").size(), 0u);
}

TEST_F(LiveSiteTest, ARunTimeErrorIsShownInItsSource) {
  directory.File("site/deep/a.zeph", "one\n<ZpGO to=1>\nthree\n");
  site.Refresh({});
  const std::string page =
      "text\nRuntime error in deep/a.zpc @ [00000000:0000001e]: deep/a.zeph: Line 2: ZpGO: "
      "no &lt;&quot;&amp;&#39;\nmore";
  const std::vector<Problem> problems = site.RunErrors(page);
  ASSERT_EQ(problems.size(), 1u);
  EXPECT_EQ(problems[0].Text(""), "deep/a.zeph:2: error: ZpGO: no <\"&'");
  ASSERT_EQ(problems[0].lines.size(), 3u);
  EXPECT_EQ(problems[0].lines[1].text, "<ZpGO to=1>");
}

// A page may write anything, for example what a visitor has sent.
TEST_F(LiveSiteTest, NoOtherFileIsEverShown) {
  directory.File("site/a.zeph", "x");
  directory.File("site/.secret", "x");
  directory.File("site/zeph.toml", "max_files = 1");
  directory.File("outside.zeph", "x");
  site.Refresh({});
  for (const char* file :
       {"../outside.zeph", ".secret", "zeph.toml", "/etc/passwd", "", "b.zeph"}) {
    EXPECT_EQ(
        site.RunErrors("Fatal error in x @ [1:2]: " + std::string(file) + ": Line 1: y").size(), 0u)
        << file;
  }
  for (const char* text :
       {" error in ", " error in  @ [", " error in  @ []: ", " error in  @ []: a.zeph",
        " error in  @ []: a.zeph: Line ",
        " error in  @ []: a.zeph: Line x: ", " error in  @ []: a.zeph: Line 99999999999: "}) {
    EXPECT_EQ(site.RunErrors(text).size(), 0u) << text;
  }
  std::string many;
  for (int i = 0; i < 1000; i++) many += "Fatal error in x @ [1:2]: a.zeph: Line 1: y\n";
  EXPECT_EQ(site.RunErrors(many).size(), 10u);
}

}  // namespace
