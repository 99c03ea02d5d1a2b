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

}  // namespace
