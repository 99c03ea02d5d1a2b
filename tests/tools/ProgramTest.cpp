// zpasm as a program: files, standard streams, exit statuses.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>

#include "tests/support/Paths.h"
#include "tests/support/TemporaryDirectory.h"
#include "tools/Assembler.h"

namespace {

using testing::HasSubstr;
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

TEST_F(Program, HelpIsNoErrorAndAWrongCommandLineIsOne) {
  Result help = Run("--help");
  EXPECT_EQ(help.status, 0);
  EXPECT_THAT(help.output, StartsWith("usage: zpasm page.zpa -o page.zpc"));
  for (const char* arguments :
       {"", "page.zpa", "-o page.zpc", "page.zpa -o", "a.zpa b.zpa -o c", "--lists page.zpc",
        "--list page.zpc -o page.zpa", "page.zpa -o a -o b"}) {
    SCOPED_TRACE(arguments);
    Result result = Run(arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_THAT(result.output, HasSubstr("usage: zpasm page.zpa -o page.zpc"));
  }
}

}  // namespace
