// What the engine does for a person at a shell: help, version, and the check of an installation.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/e2e/Pages.h"
#include "tests/support/OtherUser.h"
#include "tests/support/ProgramFixture.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

class ShellOptions : public ProgramFixture {
 protected:
  ShellOptions() : ProgramFixture("zeph-fcgi") {
    directory.Directory("site");
    directory.Directory("data");
    base = "dir_zeph = \"" + directory.path("site") + "\"\ndir_data = \"" + directory.path("data") +
           "\"\n";
  }

  // Checks a file of settings that begins with the two directories.
  int Check(const std::string& settings) {
    directory.File("zeph.toml", base + settings);
    return Run({"--check"});
  }

  std::string base;
};

TEST_F(ShellOptions, HelpAndVersionAreToldWithoutASocket) {
  for (const char* option : {"--help", "-h"}) {
    EXPECT_EQ(Run({option}), 0);
    EXPECT_THAT(output, StartsWith("usage: zeph-fcgi [-t COUNT] [-p TITLE] [--workers COUNT]\n"));
    EXPECT_EQ(errors, "");
  }
  EXPECT_EQ(Run({"--version"}), 0);
  EXPECT_THAT(output, MatchesRegex("zeph-fcgi [0-9]+\\.[0-9]+\\.[0-9]+\n"));
  EXPECT_EQ(errors, "");
}

// An argument of an engine is the path of a script.
TEST_F(ShellOptions, AreArgumentsOfAnEngineThatListens) {
  for (const char* option : {"--help", "--version", "--check"}) {
    EngineProcess engine;
    engine.arguments = {option};
    engine.Script(option, Writes("a page"));
    ASSERT_TRUE(engine.Start());
    ExpectPage(engine.Get(nullptr), "a page");
  }
}

TEST_F(ShellOptions, AnInstallationInOrderIsOk) {
  EXPECT_EQ(Check("log_file = \"trace.log\"\n[[library]]\nkind = \"builtin\"\npath = \"" +
                  InBuild("lib/test/HtmlEncode.so") + "\"\n"),
            0)
      << output;
  EXPECT_THAT(output, HasSubstr("\nsettings  zeph.toml\n"));
  EXPECT_THAT(output, HasSubstr("\ndir_zeph  " + directory.path("site") + "\n"));
  EXPECT_THAT(output, HasSubstr("\nlog_file  " + directory.path("data/trace.log") + "\n"));
  EXPECT_THAT(output, HasSubstr("\nlibrary   " + InBuild("lib/test/HtmlEncode.so") + "\n"));
  EXPECT_THAT(output, Not(HasSubstr("problem")));
  EXPECT_THAT(output, EndsWith("\nok\n"));
  // Nothing was written.
  EXPECT_FALSE(directory.Exists("data/trace.log"));
}

TEST_F(ShellOptions, TheFileIsTheNamedOneOrTheOneThatTheEngineWouldRead) {
  directory.File("other.toml", base);
  EXPECT_EQ(Run({"--check", "other.toml"}), 0);
  EXPECT_THAT(output, HasSubstr("settings  other.toml\n"));
  EXPECT_EQ(Run({"--check", "none.toml"}), 1);
  EXPECT_THAT(output, HasSubstr("problem: none.toml: No such file or directory\n"));
  EXPECT_EQ(Run({"--check", "site"}), 1);
  EXPECT_THAT(output, HasSubstr("problem: site: Not a regular file\n"));
  EXPECT_EQ(Run({"--check", "a", "b"}), 2);
  EXPECT_THAT(errors, StartsWith("zeph-fcgi: --check takes one file\nusage: zeph-fcgi "));
  if (access("/etc/zeph/zeph.toml", F_OK) == 0) return;
  EXPECT_EQ(Run({"--check"}), 1);
  EXPECT_THAT(output, HasSubstr("problem: no settings: ZEPH_CONFIG is not set, and neither "
                                "zeph.toml nor /etc/zeph/zeph.toml exists\n"));
}

TEST_F(ShellOptions, AllMistakesOfTheFileAreTold) {
  EXPECT_EQ(Check("timout_global = 5\nbufsz_output = -1\n[variables.global]\ncookies = 1\n"), 1);
  EXPECT_THAT(output, HasSubstr("problem: zeph.toml:3: timout_global: unknown key, the nearest "
                                "known one is \"timeout_global\"\n"));
  EXPECT_THAT(output, HasSubstr("problem: zeph.toml:4: bufsz_output: expected 0 or more, found "
                                "-1\n"));
  EXPECT_THAT(output, HasSubstr("note: zeph.toml:6: variables.global.cookies: "));
  EXPECT_THAT(output, EndsWith("\n2 problems\n"));
}

TEST_F(ShellOptions, AnAddressOfTheStatusThatIsNoneIsTold) {
  EXPECT_EQ(Check("[process]\nstatus_listen = \"127.0.0.1:8081\"\n"), 0) << output;
  EXPECT_EQ(Check("[process]\nstatus_listen = \"8081\"\n"), 1);
  EXPECT_THAT(output,
              HasSubstr("problem: process.status_listen: expected an address and a port, or "
                        "the absolute path of a socket, found \"8081\"\n"));
}

TEST_F(ShellOptions, AMissingDirectorySettingIsToldByItsName) {
  directory.File("zeph.toml", "cookies = 1\n");
  EXPECT_EQ(Run({"--check"}), 1);
  EXPECT_THAT(output, HasSubstr("problem: dir_zeph: missing\n"));
  EXPECT_THAT(output, HasSubstr("problem: dir_data: missing\n"));
  EXPECT_THAT(output, EndsWith("\n2 problems\n"));
}

TEST_F(ShellOptions, DirectoriesAreLookedAtAsTheEngineDoes) {
  directory.File("file");
  directory.Link("link", "data");
  const struct {
    std::string path;
    const char* text;
  } rows[] = {
      {directory.path("gone"), "The configured temporary directory does not exist"},
      {directory.path("file"), "is no directory"},
      {"data", "is not an absolute path"},
      {directory.path("link"), "references a symbolic link"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.path);
    EXPECT_EQ(Check("dir_temp = \"" + row.path + "\"\n"), 1);
    EXPECT_THAT(output, HasSubstr("problem: dir_temp: " + row.path + ": "));
    EXPECT_THAT(output, HasSubstr(row.text));
  }
  EXPECT_EQ(Check("dir_temp = \"" + directory.path("link") + "\"\nflags_security = 256\n"), 0)
      << output;
}

TEST_F(ShellOptions, LibrariesAreLoadedWithAllTheirFunctions) {
  const auto library = [](const std::string& kind, const std::string& path) {
    return "[[library]]\nkind = \"" + kind + "\"\nname = \"x\"\npath = \"" + path + "\"\n";
  };
  EXPECT_EQ(Check(library("builtin", "/nowhere/none.so")), 1);
  EXPECT_THAT(output, HasSubstr("problem: library /nowhere/none.so: cannot open"));
  EXPECT_EQ(Check(library("builtin", directory.File("text.so", "text"))), 1);
  EXPECT_THAT(output, HasSubstr("problem: library " + directory.path("text.so") + ": "));
  EXPECT_EQ(Check(library("builtin", directory.path("data"))), 1);
  EXPECT_THAT(output, HasSubstr(": is no regular file\n"));
  EXPECT_EQ(Check(library("database", InBuild("lib/test/HtmlEncode.so"))), 1);
  EXPECT_THAT(output, HasSubstr("has no function 'zeph_database_library', so it is none of this "
                                "kind\n"));
}

TEST_F(ShellOptions, TheConfigurationLibraryOfTheWorkingDirectoryIsLookedAt) {
  EXPECT_EQ(Check(""), 0);
  EXPECT_THAT(output, HasSubstr("note: libzephconfig.so is not in the working directory: the web "
                                "server has to send ZpCONFIG_LIBRARY\n"));
  directory.Link("libzephconfig.so", EngineProcess::ConfigurationLibrary());
  EXPECT_EQ(Check(""), 0);
  EXPECT_THAT(output, Not(HasSubstr("libzephconfig")));
  std::filesystem::remove(directory.path("libzephconfig.so"));
  directory.Link("libzephconfig.so", InBuild("lib/test/FakeEmpty.so"));
  EXPECT_EQ(Check(""), 1);
  EXPECT_THAT(output, HasSubstr("library ./libzephconfig.so: has no function "
                                "'zeph_config_library'"));
}

TEST_F(ShellOptions, ALogThatCannotBeWrittenIsTold) {
  directory.Directory("data/folder");
  EXPECT_EQ(Check("log_file = \"folder\"\n"), 1);
  EXPECT_THAT(output, HasSubstr("problem: log_file: " + directory.path("data/folder") +
                                ": is no regular file\n"));
  EXPECT_EQ(Check("log_file = \"gone/trace.log\"\n"), 1);
  EXPECT_THAT(output, HasSubstr("problem: log_file: " + directory.path("data/gone") +
                                ": No such file or directory\n"));
  EXPECT_EQ(Check("[[script]]\nmatch = \"a/*\"\nlog_file = \"folder\"\n"), 1);
  EXPECT_THAT(output, HasSubstr("is no regular file\n"));
}

TEST_F(ShellOptions, AnOperatorsLogThatCannotBeWrittenIsTold) {
  directory.Directory("data/folder");
  const std::string folder = directory.path("data/folder");
  EXPECT_EQ(Check("error_log = \"" + folder + "\"\n"), 1);
  EXPECT_THAT(output, HasSubstr("problem: error_log: " + folder + ": is no regular file\n"));
  const std::string gone = directory.path("gone");
  EXPECT_EQ(Check("slow_log = \"" + gone + "/slow.log\"\n"), 1);
  EXPECT_THAT(output, HasSubstr("problem: slow_log: " + gone + ": No such file or directory\n"));
  EXPECT_EQ(Check("[[script]]\nmatch = \"a/*\"\nslow_log = \"" + folder + "\"\n"), 1);
  EXPECT_THAT(output, HasSubstr("problem: script.slow_log: " + folder));
  // One that is not there yet, a device, and names that are no paths.
  EXPECT_EQ(Check("error_log = \"" + folder + "/error.log\"\nslow_log = \"/dev/null\"\n"), 0);
  EXPECT_FALSE(directory.Exists("data/folder/error.log"));
  EXPECT_EQ(Check("error_log = \"syslog\"\n"), 0);
}

TEST_F(ShellOptions, AFileThatCannotBeReachedIsNotReplacedByTheNext) {
  directory.Link("zeph.toml", "zeph.toml");
  EXPECT_EQ(Run({"--check"}), 1);
  EXPECT_THAT(output, HasSubstr("settings  zeph.toml\nproblem: zeph.toml: Too many levels of "));
}

TEST_F(ShellOptions, RightsAreThoseOfTheUserWhoAsks) {
  ASSERT_EQ(chmod(directory.path().c_str(), 0755), 0);
  ASSERT_EQ(chmod(directory.path("site").c_str(), 0755), 0);
  ASSERT_EQ(chmod(directory.path("data").c_str(), 0555), 0);
  directory.File("data.toml", base + "log_file = \"trace.log\"\n");
  const OtherUser other;
  EXPECT_EQ(Run({"--check", "data.toml"}), 1);
  EXPECT_THAT(output, HasSubstr("problem: dir_data: " + directory.path("data") +
                                ": this user has no right to write\n"));
  EXPECT_THAT(output, EndsWith("\n1 problem\n"));
}

}  // namespace
