// zpasm as a program: files, standard streams, exit statuses.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <string>

#include "tests/support/Command.h"
#include "tests/support/Paths.h"
#include "tests/support/TemporaryDirectory.h"
#include "tools/Assembler.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

struct Result {
  int status;
  std::string output;  // both streams
};

class Program : public testing::Test {
 protected:
  // Runs zpasm in the test's directory; the arguments may have redirections of the shell.
  Result Run(const std::string& arguments) {
    std::string command =
        "cd '" + directory.path() + "' && '" + InBuild("bin/zpasm") + "' " + arguments;
    FILE* pipe = popen(("(" + command + ") 2>&1").c_str(), "r");
    if (!pipe) return {-1, "popen failed"};
    Result result{0, ""};
    std::array<char, 4096> buffer;
    while (size_t count = fread(buffer.data(), 1, buffer.size(), pipe))
      result.output.append(buffer.data(), count);
    result.status = WEXITSTATUS(pclose(pipe));
    return result;
  }

  TemporaryDirectory directory;
};

constexpr char page[] = "        pushc \"Hello\"\n        out\n";

TEST_F(Program, AssemblesAndListsFiles) {
  directory.File("page.zpa", page);
  Result assembled = Run("page.zpa -o page.zpc");
  EXPECT_EQ(assembled.status, 0);
  EXPECT_EQ(assembled.output, "");
  std::string image, errors;
  ASSERT_TRUE(AssembleScript(page, "page.zpa", &image, &errors)) << errors;
  EXPECT_EQ(directory.Content("page.zpc"), image);
  Result listed = Run("--list page.zpc");
  EXPECT_EQ(listed.status, 0);
  EXPECT_EQ(listed.output, page);
}

TEST_F(Program, ReadsAndWritesStandardStreams) {
  directory.File("page.zpa", page);
  EXPECT_EQ(Run("-o - - < page.zpa > page.zpc").status, 0);
  EXPECT_EQ(Run("--list - < page.zpc").output, page);
}

TEST_F(Program, AnEmptyFileIsAScript) {
  directory.File("page.zpa", "");
  EXPECT_EQ(Run("page.zpa -o page.zpc").status, 0);
  EXPECT_THAT(directory.Content("page.zpc"), StartsWith("Zeph"));
}

TEST_F(Program, AnErrorIsToldAndTheOldFileStays) {
  directory.File("page.zpa", "wrong\n");
  directory.File("page.zpc", "the old one");
  Result result = Run("page.zpa -o page.zpc");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, "page.zpa:1:1: expected an instruction or a directive, found 'wrong'\n");
  EXPECT_EQ(directory.Content("page.zpc"), "the old one");
}

TEST_F(Program, FilesThatCannotBeReadOrWrittenAreTold) {
  directory.File("page.zpa", page);
  Result result = Run("nowhere.zpa -o page.zpc");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, "zpasm: cannot read nowhere.zpa: No such file or directory\n");
  result = Run("page.zpa -o nowhere/page.zpc");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, "zpasm: cannot write nowhere/page.zpc: No such file or directory\n");
  result = Run("--list page.zpa");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output,
            "page.zpa: File is either corrupt or not a valid compiled Zeph Script file\n");
}

TEST_F(Program, AFolderIsNoSource) {
  directory.Directory("folder");
  Result result = Run("folder -o page.zpc");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, "zpasm: cannot read folder: Is a directory\n");
  EXPECT_FALSE(std::filesystem::exists(directory.path("page.zpc")));
  result = Run("--list folder");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, "zpasm: cannot read folder: Is a directory\n");
}

TEST_F(Program, SeveralFilesAreAssembledIntoAFolder) {
  directory.File("a.zpa", page);
  directory.File("sub/b.zpa", "");
  directory.File("wrong.zpa", "wrong\n");
  directory.Directory("out");
  EXPECT_EQ(Run("a.zpa sub/b.zpa -o out").output, "");
  EXPECT_EQ(Run("--list out/a.zpc").output, page);
  EXPECT_THAT(directory.Content("out/b.zpc"), StartsWith("Zeph"));
  // What can be assembled is, and the status tells that something could not.
  std::filesystem::remove(directory.path("out/a.zpc"));
  EXPECT_EQ(Run("wrong.zpa a.zpa -o out").status, 1);
  EXPECT_EQ(Run("--list out/a.zpc").output, page);
  EXPECT_FALSE(std::filesystem::exists(directory.path("out/wrong.zpc")));
  EXPECT_EQ(Run("--list out/a.zpc out/b.zpc").output,
            "; out/a.zpc\n" + std::string(page) + "; out/b.zpc\n");
}

TEST_F(Program, ErrorsAtRunTimeNameTheLinesOfTheTextOnRequest) {
  directory.File("page.zpa",
                 "        jmp there\n"
                 "; a comment\n"
                 "there:\n"
                 "        call broken\n"
                 "        exit\n"
                 "        .function broken\n"
                 "        out\n"
                 "        ret\n"
                 "        .end\n");
  ASSERT_EQ(Run("page.zpa -o plain.zpc").status, 0);
  ASSERT_EQ(Run("--lines page.zpa -o lines.zpc").status, 0);
  const std::string zprun = InBuild("bin/zprun");
  const auto run = [&](const std::string& name) {
    Command command({zprun, directory.path(name)});
    command.Run();
    return command.output + command.errors;
  };
  EXPECT_THAT(run("lines.zpc"), HasSubstr("]: page.zpa: Line 7: Stack underflow"));
  EXPECT_THAT(run("plain.zpc"), HasSubstr("]: Stack underflow"));
}

TEST_F(Program, ACheckWritesNothingButErrors) {
  directory.File("a.zpa", page);
  directory.File("wrong.zpa", "wrong\n");
  Result good = Run("--check a.zpa");
  EXPECT_EQ(good.status, 0);
  EXPECT_EQ(good.output, "");
  Result both = Run("--check wrong.zpa a.zpa");
  EXPECT_EQ(both.status, 1);
  EXPECT_EQ(both.output, "wrong.zpa:1:1: expected an instruction or a directive, found 'wrong'\n");
  EXPECT_FALSE(directory.Exists("a.zpc"));
}

TEST_F(Program, HelpAndVersionAreNoErrors) {
  for (const char* arguments : {"--help", "-h", "page.zpa --help"}) {
    Result help = Run(arguments);
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.output, StartsWith("usage: zpasm [--lines] page.zpa -o page.zpc"));
  }
  Result version = Run("--version");
  EXPECT_EQ(version.status, 0);
  EXPECT_THAT(version.output, MatchesRegex("zpasm [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST_F(Program, AWrongCommandLineIsToldWithItsReason) {
  directory.Directory("out");
  const struct {
    const char* arguments;
    const char* reason;
  } rows[] = {
      {"", "no file"},
      {"page.zpa", "no -o for the compiled file"},
      {"-o page.zpc", "no file"},
      {"page.zpa -o", "-o needs a file or a folder"},
      {"page.zpa -o ''", "-o needs a file or a folder"},
      {"a.zpa b.zpa -o c", "several files need a folder, and 'c' is none"},
      {"a.zpa sub/a.zpa -o out", "'a.zpa' and 'sub/a.zpa' would both become 'out/a.zpc'"},
      {"- -o out", "standard input has no name for a file of a folder"},
      {"--lists page.zpc", "unknown option '--lists'"},
      {"--list", "no file"},
      {"--list page.zpc -o page.zpa", "--list writes to standard output, without -o"},
      {"--list --lines page.zpc", "--list takes the file as it is, without --lines"},
      {"--check page.zpa -o page.zpc", "--check writes nothing, so it has no -o"},
      {"--check --list page.zpc", "--check is for text, --list for compiled files"},
      {"page.zpa -o a -o b", "-o is there twice"},
      {"'' -o a", "an empty name of a file"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.arguments);
    Result result = Run(row.arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.output, StartsWith("zpasm: " + std::string(row.reason) + "\nusage: zpasm "));
  }
}

}  // namespace
