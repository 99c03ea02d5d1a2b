#include "develop/Arguments.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class ArgumentsTest : public testing::Test {
 protected:
  bool Parse(const std::vector<std::string>& words) {
    arguments = ZephArguments();
    problem.clear();
    return ParseZephArguments(words, &arguments, &problem);
  }
  std::string Problem(const std::vector<std::string>& words) {
    EXPECT_FALSE(Parse(words));
    return problem;
  }

  ZephArguments arguments;
  std::string problem;
};

TEST_F(ArgumentsTest, DevTakesAFolderAndAPort) {
  ASSERT_TRUE(Parse({"dev"}));
  EXPECT_EQ(arguments.command, ZephCommand::Dev);
  EXPECT_EQ(arguments.place, ".");
  EXPECT_EQ(arguments.port, 8080);
  ASSERT_TRUE(Parse({"dev", "site", "0"}));
  EXPECT_EQ(arguments.place, "site");
  EXPECT_EQ(arguments.port, 0);
  ASSERT_TRUE(Parse({"dev", "8000"}));
  EXPECT_EQ(arguments.place, ".");
  EXPECT_EQ(arguments.port, 8000);
  ASSERT_TRUE(Parse({"dev", "8000", "65535"}));
  EXPECT_EQ(arguments.place, "8000");
  EXPECT_EQ(arguments.port, 65535);
}

TEST_F(ArgumentsTest, OptionsBelongToTheirCommands) {
  ASSERT_TRUE(Parse({"build", "--werror", "-D", "LIVE", "site", "out"}));
  EXPECT_TRUE(arguments.warnings_fail);
  EXPECT_THAT(arguments.defines, ElementsAre("LIVE"));
  EXPECT_EQ(arguments.place, "site");
  EXPECT_EQ(arguments.output, "out");
  ASSERT_TRUE(Parse(
      {"run", "page.zeph", "--get", "a=--help", "--post", "b=", "--cookie", "c=3=4", "--headers"}));
  EXPECT_EQ(arguments.place, "page.zeph");
  EXPECT_THAT(arguments.request,
              ElementsAre("--get=a=--help", "--post=b=", "--cookie=c=3=4", "--headers"));
  ASSERT_TRUE(Parse({"new", "--", "-site"}));
  EXPECT_EQ(arguments.place, "-site");
}

TEST_F(ArgumentsTest, WrongUsageHasAReason) {
  EXPECT_EQ(Problem({}), "no command");
  EXPECT_EQ(Problem({"biuld"}), "there is no command 'biuld'; did you mean 'build'?");
  EXPECT_EQ(Problem({"something"}), "there is no command 'something'");
  EXPECT_EQ(Problem({"new"}), "no folder");
  EXPECT_EQ(Problem({"run"}), "no page");
  EXPECT_EQ(Problem({"new", "a", "b"}), "unexpected 'b'");
  EXPECT_EQ(Problem({"new", "a", "-D", "x"}), "zeph new has no option '-D'");
  EXPECT_EQ(Problem({"dev", "--werror"}), "zeph dev has no option '--werror'");
  EXPECT_EQ(Problem({"build", "-D"}), "-D needs a name");
  EXPECT_EQ(Problem({"dev", "site", "http"}), "'http' is no port: a number from 0 to 65535");
  EXPECT_EQ(Problem({"dev", "65536"}), "'65536' is no port: a number from 0 to 65535");
  EXPECT_EQ(Problem({"dev", "99999999999999999999"}),
            "'99999999999999999999' is no port: a number from 0 to 65535");
  EXPECT_EQ(Problem({"run", "x", "--get"}), "--get needs NAME=VALUE");
  EXPECT_EQ(Problem({"run", "x", "--get", "=1"}), "--get needs NAME=VALUE, found '=1'");
  EXPECT_EQ(Problem({"help", "nothing"}), "there is no command 'nothing'");
}

TEST_F(ArgumentsTest, EveryCommandHasHelp) {
  for (const char* command : {"new", "dev", "build", "check", "run"}) {
    SCOPED_TRACE(command);
    EXPECT_THAT(ZephHelp(""), HasSubstr(std::string("zeph ") + command + " "));
    EXPECT_THAT(ZephHelp(command), HasSubstr(std::string("usage: zeph ") + command + " "));
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{command, "--help"}, {"help", command}, {"--help", command}}) {
      ASSERT_TRUE(Parse(words));
      EXPECT_EQ(arguments.command, ZephCommand::Help);
      EXPECT_EQ(arguments.topic, command);
    }
  }
  ASSERT_TRUE(Parse({"--help"}));
  EXPECT_EQ(arguments.command, ZephCommand::Help);
  ASSERT_TRUE(Parse({"--version"}));
  EXPECT_EQ(arguments.command, ZephCommand::Version);
}

}  // namespace
