#include "commandline/CommandLineOutput.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "commandline/CommandLineApplication.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

// Redirects standard output to another file for the life of the object.
class Redirected {
 public:
  explicit Redirected(const char* path) : saved(dup(STDOUT_FILENO)) {
    fflush(stdout);
    int file = open(path, O_WRONLY | O_CREAT, 0644);
    dup2(file, STDOUT_FILENO);
    close(file);
  }
  ~Redirected() {
    dup2(saved, STDOUT_FILENO);
    close(saved);
  }

 private:
  int saved;
};

class CommandLineOutputTest : public testing::Test {
 protected:
  CommandLineApplication application{0, nullptr, nullptr};
};

TEST_F(CommandLineOutputTest, WritesWhatItIsGiven) {
  TemporaryDirectory directory;
  {
    Redirected redirected(directory.path("out").c_str());
    CommandLineOutput output(&application, 1, 4);
    EXPECT_EQ(output.Write("twelve bytes", -1), 12);
    EXPECT_EQ(output.Header("Content-Type", "text/html"), 0);
    output.Flush();
    EXPECT_EQ(output.failure(), 0);
  }
  EXPECT_EQ(directory.Content("out"), "twelve bytes");
  EXPECT_FALSE(application.cancelled());
}

TEST_F(CommandLineOutputTest, AFailedWriteCancelsTheScriptAndIsKept) {
  Redirected redirected("/dev/full");
  CommandLineOutput output(&application, 1, 16);
  output.Write("buffered", -1);
  EXPECT_FALSE(application.cancelled());
  output.Flush();
  EXPECT_TRUE(application.cancelled());
  EXPECT_EQ(output.failure(), ENOSPC);
}

TEST_F(CommandLineOutputTest, HeaderFieldsComeBeforeThePageIfTheyAreShown) {
  TemporaryDirectory directory;
  {
    Redirected redirected(directory.path("out").c_str());
    CommandLineOutput output(&application, 1, 4);
    output.ShowHeaders();
    EXPECT_EQ(output.Header("Content-Type", "text/html"), 1);
    EXPECT_EQ(output.Header("X", "1"), 1);
    EXPECT_EQ(output.Header("CONTENT-TYPE", "text/csv"), 1);
    output.Write("a page", -1);
    EXPECT_EQ(output.Header("Late", "1"), 0);
    output.Flush();
  }
  EXPECT_EQ(directory.Content("out"), "Content-Type: text/csv\nX: 1\n\na page");
}

TEST_F(CommandLineOutputTest, APageWithoutAByteHasHeaderFields) {
  TemporaryDirectory directory;
  {
    Redirected redirected(directory.path("out").c_str());
    CommandLineOutput output(&application, 1, 4);
    output.ShowHeaders();
    char* name = new char[2]{'X', '\0'};
    char* value = new char[2]{'1', '\0'};
    EXPECT_EQ(output.Header(name, 1, 1, value, -1, 1), 1);
    output.Flush();
  }
  EXPECT_EQ(directory.Content("out"), "X: 1\n\n");
}

TEST_F(CommandLineOutputTest, SeparateErrorsAreNoPartOfThePageAndEndALine) {
  TemporaryDirectory directory;
  testing::internal::CaptureStderr();
  {
    Redirected redirected(directory.path("out").c_str());
    CommandLineOutput output(&application, 1, 100);
    output.SeparateErrors();
    EXPECT_FALSE(output.has_errors());
    output.Write("page", -1);
    EXPECT_EQ(output.Write_Error("one", -1), 3);
    EXPECT_TRUE(output.has_errors());
    // What was written before the message is there before it.
    EXPECT_EQ(directory.Content("out"), "page");
    output.Write_Error("two\nmore", 4);
    output.Write(" end", -1);
    output.Flush();
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "one\ntwo\n");
  EXPECT_EQ(directory.Content("out"), "page end");
}

TEST_F(CommandLineOutputTest, ASeparateErrorLeavesHeaderFieldsOpen) {
  TemporaryDirectory directory;
  testing::internal::CaptureStderr();
  {
    Redirected redirected(directory.path("out").c_str());
    CommandLineOutput output(&application, 1, 100);
    output.SeparateErrors();
    output.ShowHeaders();
    output.Write_Error("error", -1);
    EXPECT_EQ(output.Header("X-A", "1"), 1);
    output.Flush();
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "error\n");
  EXPECT_EQ(directory.Content("out"), "X-A: 1\n\n");
}

TEST_F(CommandLineOutputTest, ErrorsInThePageAreWrittenThere) {
  TemporaryDirectory directory;
  {
    Redirected redirected(directory.path("out").c_str());
    CommandLineOutput output(&application, 1, 100);
    output.Write("page ", -1);
    output.Write_Error("error", -1);
    EXPECT_TRUE(output.has_errors());
  }
  EXPECT_EQ(directory.Content("out"), "page error");
}

}  // namespace
