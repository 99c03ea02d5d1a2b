// The program zprun, seen from outside.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "tests/e2e/Pages.h"
#include "tests/support/ProgramFixture.h"
#include "tools/Assembler.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

const std::string shipped_library = InBuild("lib/libzephconfig.so");

class Zprun : public ProgramFixture {
 protected:
  Zprun() : ProgramFixture("zprun") {}

  // Assembles a script into the test's directory.
  void Script(const std::string& name, const std::string& source) {
    std::string image, problems;
    ASSERT_TRUE(AssembleScript(source, name, &image, &problems)) << problems;
    directory.File(name, image);
  }

  void ExpectFailure(const std::vector<std::string>& arguments, const std::string& message) {
    EXPECT_EQ(Run(arguments), 1);
    EXPECT_EQ(output, "");
    EXPECT_EQ(errors, "zprun: " + message + "\n");
  }
};

TEST_F(Zprun, WritesWhatTheScriptWritesAndNothingElse) {
  Script("page.zpc", Writes("Hello\\n"));
  EXPECT_EQ(Run({"page.zpc"}), 0);
  EXPECT_EQ(output, "Hello\n");
  EXPECT_EQ(errors, "");
}

TEST_F(Zprun, ArgumentsAreVariables) {
  Script("page.zpc",
         "pushg arg1\nout\npushc \"|\"\nout\npushg arg2\nout\npushc \"|\"\nout\n"
         "pushg arg3\nout\npushc \"|\"\nout\npushg arg4\nout\npushg nargs\nout\n");
  EXPECT_EQ(Run({"page.zpc", "one", "", "--config=%41+b\\"}), 0);
  EXPECT_EQ(output, "one||--config=%41+b\\|3");
  EXPECT_EQ(Run({"page.zpc"}), 0);
  EXPECT_EQ(output, "|||0");
}

TEST_F(Zprun, AnErrorThatEndsTheScriptIsOnStandardErrorAndTheStatusIsOne) {
  Script("page.zpc", Writes("before") + "out\n" + Writes("after"));
  const std::string message = "Fatal error in page.zpc @ [00000000:00000008]: Stack underflow\n";
  EXPECT_EQ(Run({"page.zpc"}), 1);
  EXPECT_EQ(output, "before");
  EXPECT_EQ(errors, message);
  EXPECT_EQ(Run({"--errors-in-page", "page.zpc"}), 1);
  EXPECT_EQ(output, "before" + message);
  EXPECT_EQ(errors, "");
}

TEST_F(Zprun, ErrorsThatEndNothingGiveTheStatusThree) {
  // ZpGO without a database shows a message and goes on.
  const std::string page = "a<ZpGO to=1>b";
  EXPECT_EQ(Run({"-e", page}), 3);
  EXPECT_EQ(output, "ab");
  EXPECT_THAT(errors, StartsWith("Runtime error in -e @ ["));
  EXPECT_THAT(errors, HasSubstr("-e: Line 1: ZpGO: "));
  EXPECT_EQ(Run({"--errors-in-page", "-e", page}), 3);
  EXPECT_THAT(output, testing::MatchesRegex("aRuntime error in -e .*: ZpGO: .*\nb"));
  EXPECT_EQ(errors, "");
  // What is not shown is not counted.
  EXPECT_EQ(Run({"-e", "<ZEPH tag=\"ZpGO\" show=0 stop=0>" + page}), 0);
  EXPECT_EQ(output, "ab");
  EXPECT_EQ(errors, "");
  EXPECT_EQ(Run({"-e", "<ZEPH tag=\"ZpGO\" show=1 stop=1>" + page}), 1);
}

TEST_F(Zprun, AMessageIsAfterWhatTheScriptHasWrittenAndOutsideOfCaptures) {
  Command command(
      {"/bin/sh", "-c",
       "exec " + program + " -e 'a<ZpCAPTURE x>b<ZpGO to=1>c</ZpCAPTURE>d{{{ x }}}' 2>&1"});
  command.directory = directory.path();
  command.environment = environment;
  EXPECT_EQ(command.Run(), 3);
  EXPECT_THAT(command.output, testing::MatchesRegex("aRuntime error [^\n]*\ndbc"));
}

TEST_F(Zprun, AScriptWithoutMemoryIsTold) {
  directory.File("small.toml", "memory_limit = 2000000\n");
  const std::string page =
      "before<ZpASSIGN x = \"0123456789abcdef\"><ZpWHILE 1><ZpASSIGN x = x $ x></ZpWHILE>";
  EXPECT_EQ(Run({"--config", "small.toml", "-e", page}), 1);
  EXPECT_EQ(output, "before");
  EXPECT_THAT(errors, HasSubstr("Fatal error in -e @ ["));
  EXPECT_THAT(errors, HasSubstr("Out of memory\n"));
}

TEST_F(Zprun, RunsAScriptOfStandardInput) {
  Script("page.zpc", Writes("Hello ") + "pushg arg1\nout\n");
  Command command({"/bin/sh", "-c", "cat page.zpc | " + program + " - you"});
  command.directory = directory.path();
  command.environment = environment;
  EXPECT_EQ(command.Run(), 0);
  EXPECT_EQ(command.output, "Hello you");
  EXPECT_EQ(command.errors, "");
  command.arguments = {"/bin/sh", "-c", "echo text | " + program + " -"};
  EXPECT_EQ(command.Run(), 1);
  EXPECT_EQ(command.errors,
            "zprun: -: File is either corrupt or not a valid compiled Zeph Script file\n");
}

TEST_F(Zprun, RunsTheTextOfAPage) {
  directory.File("_part.zeph", "[{{{ arg1 }}}]");
  EXPECT_EQ(Run({"-e", "{{{ 1 + 2 }}} <ZpINCLUDE \"_part.zeph\">", "x"}), 0);
  EXPECT_EQ(output, "3 [x]");
  EXPECT_EQ(errors, "");
  EXPECT_EQ(Run({"-e", "{{{ 1 + }}}"}), 1);
  EXPECT_EQ(output, "");
  EXPECT_THAT(errors, HasSubstr("-e:1:"));
  EXPECT_EQ(Run({"-e", ""}), 0);
  EXPECT_EQ(output, "");
  // Other pages are found in the working directory.
  Script("other.zpc", Writes("other"));
  EXPECT_EQ(Run({"-e", "<ZpDO file=\"other.zpc\">"}), 0) << errors;
  EXPECT_EQ(output, "other");
}

TEST_F(Zprun, AScriptThatExitsHasRun) {
  Script("page.zpc", Writes("before") + "exit\n" + Writes("after"));
  EXPECT_EQ(Run({"page.zpc"}), 0);
  EXPECT_EQ(output, "before");
}

TEST_F(Zprun, ACaptureThatIsLeftOpenIsLost) {
  Script("page.zpc", Writes("before") + "pushg x\ncapture\n" + Writes("captured"));
  EXPECT_EQ(Run({"page.zpc"}), 0);
  EXPECT_EQ(output, "before");
}

TEST_F(Zprun, WhatCannotBeRunIsTold) {
  directory.File("text.zpc", "no compiled script");
  directory.Directory("folder");
  ExpectFailure({"nowhere.zpc"}, "nowhere.zpc: No such file or directory");
  ExpectFailure({"folder"}, "folder: Is a directory");
  ExpectFailure({"text.zpc/page.zpc"}, "text.zpc/page.zpc: Not a directory");
  ExpectFailure({"text.zpc"},
                "text.zpc: File is either corrupt or not a valid compiled Zeph Script file");
}

TEST_F(Zprun, HelpIsNoErrorAndAWrongCommandLineIsOne) {
  EXPECT_EQ(Run({"--version"}), 0);
  EXPECT_THAT(output, testing::MatchesRegex("zprun [0-9]+\\.[0-9]+\\.[0-9]+\n"));
  EXPECT_EQ(Run({"-h"}), 0);
  EXPECT_THAT(output, StartsWith("usage: zprun "));
  EXPECT_EQ(Run({"--help"}), 0);
  EXPECT_THAT(output, StartsWith("usage: zprun [option ...] page.zpc [argument ...]\n"));
  EXPECT_EQ(errors, "");
  EXPECT_EQ(Run({}), 2);
  EXPECT_EQ(output, "");
  EXPECT_THAT(errors, StartsWith("zprun: no script\nusage: zprun [option ...]"));
  EXPECT_EQ(Run({"--wrong", "page.zpc"}), 2);
  EXPECT_THAT(errors, StartsWith("zprun: unknown option '--wrong'\nusage: "));
}

// --- Configuration -------------------------------------------------------------------------------

constexpr char named[] = "pushs site\nout\npushg page\nout\n";
constexpr char names[] = "[variables.system]\nsite = \"S\"\n[variables.global]\npage = \"G\"\n";

TEST_F(Zprun, AConfigurationFileMayBeNamed) {
  Script("page.zpc", named);
  directory.File("settings.toml", names);
  EXPECT_EQ(Run({"--config", "settings.toml", "page.zpc"}), 0);
  EXPECT_EQ(output, "SG");
  EXPECT_EQ(Run({"page.zpc"}), 0);
  EXPECT_EQ(output, "");
}

TEST_F(Zprun, TheConfigurationOfTheEngineIsFound) {
  Script("page.zpc", named);
  directory.File("zeph.toml", names);
  EXPECT_EQ(Run({"page.zpc"}), 0);
  EXPECT_EQ(output, "SG");
  directory.File("other.toml", "[variables.system]\nsite = \"other\"\n");
  environment["ZEPH_CONFIG"] = "other.toml";
  EXPECT_EQ(Run({"page.zpc"}), 0);
  EXPECT_EQ(output, "other");
  directory.File("third.toml", "[variables.system]\nsite = \"third\"\n");
  EXPECT_EQ(Run({"--config", "third.toml", "page.zpc"}), 0);
  EXPECT_EQ(output, "third");
}

TEST_F(Zprun, AFileThatIsNotInOrderIsTold) {
  Script("page.zpc", Writes("page"));
  ExpectFailure({"--config", "nowhere.toml", "page.zpc"},
                "Error loading configuration library: nowhere.toml: No such file or directory");
  directory.File("wrong.toml", "timeout_global = \"long\"\n");
  EXPECT_EQ(Run({"--config", "wrong.toml", "page.zpc"}), 1);
  EXPECT_EQ(output, "");
  EXPECT_THAT(errors, HasSubstr("wrong.toml:1: timeout_global: expected an integer, found text"));
}

TEST_F(Zprun, TheLibraryOfTheWorkingDirectoryComesFirstThenTheNamedOne) {
  Script("page.zpc", named);
  directory.File("zeph.toml", names);
  environment["ZpCONFIG_LIBRARY"] = InBuild("lib/test/FakeEmpty.so");
  ExpectFailure({"page.zpc"},
                "Error loading configuration library: Unknown symbol 'zeph_config_library'");
  directory.Link("libzephconfig.so", shipped_library);
  EXPECT_EQ(Run({"page.zpc"}), 0);
  EXPECT_EQ(output, "SG");
}

TEST_F(Zprun, ALibraryThatIsNotThereOrOfSomebodyElseIsRefused) {
  Script("page.zpc", Writes("page"));
  environment["ZpCONFIG_LIBRARY"] = directory.path("library.so");
  ExpectFailure({"page.zpc"}, "Error loading configuration library: " +
                                  directory.path("library.so") + ": No such file or directory");
  if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  directory.File("library.so", "");
  ASSERT_EQ(chown(directory.path("library.so").c_str(), 12345, 12345), 0);
  ExpectFailure({"page.zpc"}, "Error loading configuration library: UID mismatch");
}

TEST_F(Zprun, AScriptBelowTheScriptDirectoryHasItsPlaceThere) {
  directory.File("settings.toml", "dir_zeph = \"" + directory.path("site") +
                                      "\"\n[[script]]\nmatch = \"shop/*\"\nbufsz_output = 1\n");
  // Messages name the script by its path on the command line.
  Script("site/shop/page.zpc", "out\n");
  EXPECT_EQ(Run({"--config", "settings.toml", "site/shop/page.zpc"}), 1);
  EXPECT_THAT(errors, StartsWith("Fatal error in shop/page.zpc @"));
  Script("elsewhere/page.zpc", "out\n");
  EXPECT_EQ(Run({"--config", "settings.toml", "elsewhere/page.zpc"}), 1);
  EXPECT_THAT(errors, StartsWith("Fatal error in page.zpc @"));
  // A folder whose name only begins with that text is another one.
  Script("site2/page.zpc", "out\n");
  EXPECT_EQ(Run({"--config", "settings.toml", "site2/page.zpc"}), 1);
  EXPECT_THAT(errors, StartsWith("Fatal error in page.zpc @"));
}

TEST_F(Zprun, LinksToAScriptAreFollowed) {
  Script("real/page.zpc", Writes("real"));
  directory.Link("link.zpc", "real/page.zpc");
  EXPECT_EQ(Run({"link.zpc"}), 0);
  EXPECT_EQ(output, "real");
}

TEST_F(Zprun, DirectoriesThatCannotBeUsedAreTold) {
  Script("page.zpc", Writes("page"));
  directory.File("data.toml", "dir_data = \"/nowhere\"\n");
  ExpectFailure({"--config", "data.toml", "page.zpc"},
                "The configured data directory does not exist");
  directory.File("temp.toml", "dir_temp = \"/nowhere\"\n");
  ExpectFailure({"--config", "temp.toml", "page.zpc"},
                "The configured temporary directory does not exist");
}

TEST_F(Zprun, ACheckDoesAllButTheRun) {
  Script("page.zpc", Writes("page"));
  directory.File("text.zpc", "no compiled script");
  const std::string site = "dir_zeph = \"" + directory.Directory("site") + "\"\n";
  directory.File("good.toml", site);
  directory.File("wrong.toml", "cookeys = 1\n");
  directory.File("root.toml", "dir_zeph = \"/nowhere\"\n");
  directory.File("data.toml", site + "dir_data = \"/nowhere\"\n");
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"--check"}, std::vector<std::string>{"--check", "page.zpc"},
        std::vector<std::string>{"--check", "-e", "{{{ 1 }}}"},
        std::vector<std::string>{"--check", "--config", "good.toml"}}) {
    SCOPED_TRACE(words.back());
    EXPECT_EQ(Run(words), 0);
    EXPECT_EQ(output, "");
    EXPECT_EQ(errors, "");
  }
  ExpectFailure({"--check", "text.zpc"},
                "text.zpc: File is either corrupt or not a valid compiled Zeph Script file");
  ExpectFailure({"--check", "--config", "root.toml"},
                "The configured script directory does not exist");
  const std::string no_data = "The configured data directory does not exist";
  ExpectFailure({"--check", "--config", "data.toml"}, no_data);
  ExpectFailure({"--check", "--config", "data.toml", "page.zpc"}, no_data);
  EXPECT_EQ(Run({"--check", "--config", "wrong.toml"}), 1);
  EXPECT_THAT(errors, HasSubstr("wrong.toml:1: cookeys: unknown key"));
}

TEST_F(Zprun, AWorkingDirectoryThatIsGoneDoesNotMatter) {
  Script("page.zpc", Writes("page"));
  Command command({"/bin/sh", "-c",
                   "mkdir gone && cd gone && rmdir ../gone && exec " + program + " " +
                       directory.path("page.zpc")});
  command.directory = directory.path();
  command.environment = environment;
  EXPECT_EQ(command.Run(), 0);
  EXPECT_EQ(command.output, "page");
  EXPECT_EQ(command.errors, "");
}

// --- Output --------------------------------------------------------------------------------------

TEST_F(Zprun, OutputThatCannotBeWrittenIsAnError) {
  Script("page.zpc", Writes("page"));
  output_file = "/dev/full";
  EXPECT_EQ(Run({"page.zpc"}), 1);
  EXPECT_EQ(errors, "zprun: standard output: No space left on device\n");
}

TEST_F(Zprun, AReaderThatLeavesEndsTheScriptWithoutAWord) {
  Script("long.zpc", Floods(1000));
  Command command({program, "long.zpc"});
  command.directory = directory.path();
  command.Start();
  command.WaitForOutput();
  command.StopReading();
  EXPECT_EQ(command.Finish(), 1);
  EXPECT_EQ(command.errors, "");
}

// --- Time and signals ----------------------------------------------------------------------------

constexpr char endless[] = "pushc \"running\"\nout\nagain: jmp again\n";
constexpr char timed_out[] = "Application timed out\n";

TEST_F(Zprun, AScriptThatTakesTooLongIsEnded) {
  Script("endless.zpc", endless);
  directory.File("settings.toml", "timeout_global = 1\n");
  EXPECT_EQ(Run({"--config", "settings.toml", "endless.zpc"}), 1);
  EXPECT_EQ(output, "running");
  EXPECT_EQ(errors, timed_out);
}

class ZprunSignal : public Zprun {
 protected:
  ZprunSignal() : command({program, "--config", "settings.toml", "endless.zpc"}) {
    // Each write appears at once.
    directory.File("settings.toml", "bufsz_output = 1\n");
    Script("endless.zpc", endless);
    command.directory = directory.path();
    command.environment = environment;
  }

  Command command;
};

TEST_F(ZprunSignal, EndsTheScriptInOrder) {
  for (int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
    SCOPED_TRACE(number);
    Command one({program, "--config", "settings.toml", "endless.zpc"});
    one.directory = directory.path();
    one.Start();
    one.WaitForOutput();
    one.Signal(number);
    EXPECT_EQ(one.Finish(), 1);
    EXPECT_EQ(one.output, "running");
    EXPECT_EQ(one.errors, timed_out);
  }
}

TEST_F(ZprunSignal, ThatWasIgnoredStaysIgnored) {
  command.ignored_signals = {SIGHUP, SIGINT};
  command.Start();
  command.WaitForOutput();
  command.Signal(SIGHUP);
  command.Signal(SIGINT);
  command.Signal(SIGTERM);
  // If an ignored signal counted, SIGTERM would be the second one and end the process at once.
  EXPECT_EQ(command.Finish(), 1);
  EXPECT_EQ(command.output, "running");
  EXPECT_EQ(command.errors, timed_out);
}

TEST_F(ZprunSignal, ASecondOneEndsTheProcessAtOnce) {
  Script("long.zpc", Floods(1000));
  command.arguments = {program, "long.zpc"};
  command.Start();
  // The program waits for a reader, so the first signal has no effect.
  command.WaitForOutput();
  command.WaitUntilAsleep();
  command.Signal(SIGINT);
  command.Signal(SIGTERM);
  command.WaitForEnd();
  EXPECT_EQ(command.Finish(), 128 + SIGTERM);
}

TEST_F(ZprunSignal, ThatNobodyElseSendsEndsNothing) {
  command.Start();
  command.WaitForOutput();
  command.Signal(SIGUSR1);
  command.Signal(SIGTERM);
  EXPECT_EQ(command.Finish(), 1);
  EXPECT_EQ(command.output, "running");
  EXPECT_EQ(command.errors, timed_out);
}

}  // namespace
