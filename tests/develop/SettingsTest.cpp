#include "develop/Settings.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "config/Snapshot.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class SettingsTest : public testing::Test {
 protected:
  SettingsTest() {
    places.libraries = {directory.Directory("lib"), directory.Directory("lib/zeph")};
    directory.Directory("site");
  }
  SiteSettings Read() { return ReadSettings(directory.path("site"), {"/p", "/d", "/t"}, places); }
  // What the engine's reader makes of the text.
  static std::string TextOf(const SiteSettings& settings, int index) {
    const Snapshot snapshot = Snapshot::Parse("zeph.toml", settings.text);
    EXPECT_EQ(snapshot.error, "") << settings.text;
    const auto at = static_cast<size_t>(index);
    return at < snapshot.libraries.size() ? snapshot.libraries[at].path : "(none)";
  }

  TemporaryDirectory directory;
  Places places;
};

TEST_F(SettingsTest, WithoutAFileThereIsTheStandardLibrary) {
  SiteSettings settings = Read();
  EXPECT_EQ(settings.text, "dir_zeph = \"/p\"\ndir_data = \"/d\"\ndir_temp = \"/t\"\n");
  EXPECT_TRUE(settings.problems.empty());
  const std::string library = directory.File("lib/zeph/zephstd.so");
  directory.File("lib/zeph/zephstd.functions", "htmlencode(text)");
  settings = Read();
  EXPECT_EQ(TextOf(settings, 0), library);
  EXPECT_THAT(
      settings.functions,
      ElementsAre(FunctionsFile{directory.path("lib/zeph/zephstd.functions"), "htmlencode(text)"}));
  ASSERT_EQ(settings.files.size(), 1u);
  EXPECT_EQ(settings.files[0], directory.path("lib/zeph/zephstd.functions"));
}

// An installation has libraries in lib/zeph, and their functions in share/zeph.
TEST_F(SettingsTest, FunctionsOfAShippedLibraryMayBeWithTheSharedFiles) {
  places.shared = directory.Directory("share/zeph");
  directory.File("lib/zeph/zephstd.so");
  const std::string shared = directory.File("share/zeph/zephstd.functions", "upper(text)");
  EXPECT_THAT(Read().functions, ElementsAre(FunctionsFile{shared, "upper(text)"}));
  // A library of the site has none of those.
  directory.File("site/zephstd.so");
  directory.File("site/zeph.toml", "[[library]]\nkind = \"builtin\"\npath = \"zephstd.so\"\n");
  EXPECT_TRUE(Read().functions.empty());
  const std::string beside = directory.File("lib/zeph/zephstd.functions", "lower(text)");
  directory.File("site/zeph.toml",
                 "[[library]]\nkind = \"builtin\"\npath = \"/usr/lib/else/zephstd.so\"\n");
  EXPECT_THAT(Read().functions, ElementsAre(FunctionsFile{beside, "lower(text)"}));
}

TEST_F(SettingsTest, TheServersDirectoriesAreReplaced) {
  directory.File("site/zeph.toml",
                 "timeout_global = 5\ndir_zeph = \"/srv/site\"\n  dir_data = '''\n/srv/data'''\n"
                 "max_files = 7\n[variables.system]\ndir_data = \"a name\"\n");
  const SiteSettings settings = Read();
  EXPECT_FALSE(settings.failed());
  EXPECT_EQ(settings.text,
            "dir_zeph = \"/p\"\ndir_data = \"/d\"\ndir_temp = \"/t\"\n"
            "timeout_global = 5\n\n\n\nmax_files = 7\n[variables.system]\ndir_data = \"a name\"\n");
  EXPECT_EQ(Snapshot::Parse("", settings.text).error, "");
}

TEST_F(SettingsTest, LibrariesAreFoundInTheSiteThenWithZeph) {
  const std::string own = directory.File("site/lib/own.so");
  directory.File("site/lib/own.functions", "mine()\n");
  const std::string shipped = directory.File("lib/shipped.so");
  const std::string other = directory.File("else where/\"other\".so");
  directory.File(
      "site/zeph.toml",
      "# \xC3\xA4\xC3\xA4\n[[library]]\nkind = \"builtin\"\npath = 'lib/own.so' # \xC3\xA4\n"
      "[[library]]\nkind = \"builtin\"\n\"path\"=\"shipped.so\"\n"
      "[[library]]\nkind = \"builtin\"\npath = '" +
          other + "'\n");
  const SiteSettings settings = Read();
  EXPECT_TRUE(settings.problems.empty());
  EXPECT_EQ(TextOf(settings, 0), own);
  EXPECT_EQ(TextOf(settings, 1), shipped);
  EXPECT_EQ(TextOf(settings, 2), other);
  EXPECT_THAT(settings.text, HasSubstr("own.so\" # \xC3\xA4\n"));
  EXPECT_THAT(settings.functions, ElementsAre(FunctionsFile{"lib/own.functions", "mine()\n"}));
}

TEST_F(SettingsTest, ALibraryOfTheServerIsTheOneOfThatNameHere) {
  const std::string shipped = directory.File("lib/zeph/shipped.so");
  directory.File("site/zeph.toml",
                 "[[library]]\nkind = \"builtin\"\npath = \"/no/such/folder/shipped.so\"\n");
  const SiteSettings settings = Read();
  EXPECT_TRUE(settings.problems.empty());
  EXPECT_EQ(TextOf(settings, 0), shipped);
}

TEST_F(SettingsTest, LibrariesMayBeInOneLine) {
  const std::string own = directory.File("site/own.so");
  directory.File("site/zeph.toml",
                 "library = [{ name = \"\xC3\xA4\", kind = \"database\", path = \"own.so\" }, "
                 "{ kind = \"builtin\", path = '" +
                     own + "' }]\n");
  const SiteSettings settings = Read();
  EXPECT_TRUE(settings.problems.empty());
  EXPECT_EQ(TextOf(settings, 0), own);
  EXPECT_EQ(TextOf(settings, 1), own);
}

TEST_F(SettingsTest, MistakesHaveTheLineOfTheSitesFile) {
  directory.File("site/zeph.toml", "max_files = 7\ntimout_global = 5\n");
  SiteSettings settings = Read();
  ASSERT_EQ(settings.problems.size(), 1u);
  EXPECT_EQ(settings.problems[0].Text(""),
            "zeph.toml:2:1: error: timout_global: unknown key, the nearest known one is "
            "\"timeout_global\"");
  EXPECT_EQ(settings.problems[0].lines.size(), 2u);

  directory.File("site/zeph.toml", "\n\n= 5\n");
  settings = Read();
  ASSERT_EQ(settings.problems.size(), 1u);
  EXPECT_THAT(settings.problems[0].Text(""), HasSubstr("zeph.toml:3:1: error: "));
  EXPECT_THAT(settings.problems[0].text, Not(HasSubstr("zeph.toml")));

  directory.File("site/zeph.toml", "[[library]]\nkind = \"builtin\"\npath = \"none.so\"\n");
  settings = Read();
  ASSERT_EQ(settings.problems.size(), 1u);
  EXPECT_EQ(settings.problems[0].Text(""),
            "zeph.toml:3:1: error: there is no library 'none.so', neither here nor with zeph");
}

TEST_F(SettingsTest, AllMistakesAndWarningsAreTold) {
  directory.File("site/zeph.toml",
                 "timeout_post = -1\n[variables.global]\ncookies = 1\n[errors]\nZpIF = 9\n");
  const SiteSettings settings = Read();
  ASSERT_EQ(settings.problems.size(), 3u);
  EXPECT_EQ(settings.problems[0].Text(""),
            "zeph.toml:1:1: error: timeout_post: expected 0 or more, found -1");
  EXPECT_EQ(settings.problems[1].Text(""),
            "zeph.toml:5:1: error: errors.ZpIF: expected 0 to 3, found 9");
  EXPECT_THAT(settings.problems[2].Text(""),
              HasSubstr("zeph.toml:3:1: warning: variables.global.cookies: "));
}

TEST_F(SettingsTest, ATextThatIsNoFileIsAProblem) {
  directory.Directory("site/zeph.toml");
  const SiteSettings settings = Read();
  ASSERT_EQ(settings.problems.size(), 1u);
  EXPECT_EQ(settings.problems[0].Text(""), "zeph.toml: error: Is a directory");
}

}  // namespace
