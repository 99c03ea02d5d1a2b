// Scripts that use other compiled files, in the engine and on the command line.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/e2e/Pages.h"
#include "tests/support/Command.h"
#include "tests/support/Paths.h"

namespace {

using testing::HasSubstr;
using testing::Not;

class DoFiles : public testing::Test {
 protected:
  static std::string Runs(const std::string& name) {
    return "pushc \"" + name + "\"\nop_do_file\n";
  }
  std::string Body(const char* path) { return engine.Get(path, {}).Body(); }

  EngineProcess engine;
};

TEST_F(DoFiles, NamesAreRelativeToTheFileThatHasThem) {
  engine.Script("page.zpc", Runs("shop/part.zpc") + Writes("page"));
  engine.Script("shop/part.zpc", Runs("more.zpc") + Runs("../more.zpc") + Runs("/more.zpc"));
  engine.Script("shop/more.zpc", Writes("shop "));
  engine.Script("more.zpc", Writes("root "));
  engine.Script("shop/page.zpc", Runs("part.zpc"));
  ASSERT_TRUE(engine.Start());
  EXPECT_EQ(Body("/page.zpc"), "shop root root page");
  EXPECT_EQ(Body("/shop/page.zpc"), "shop root root ");
}

TEST_F(DoFiles, AFileOutsideOfTheScriptsIsRefused) {
  engine.Script("page.zpc", Runs("../outside.zpc") + Writes("never"));
  engine.Script("../outside.zpc", Writes("outside"));
  ASSERT_TRUE(engine.Start());
  const std::string body = Body("/page.zpc");
  EXPECT_THAT(body, HasSubstr("ZpDO: "));
  EXPECT_THAT(body, Not(HasSubstr("outside\n")));
  EXPECT_THAT(body, Not(HasSubstr("never")));
}

TEST_F(DoFiles, AFileIsReadAgainByTheNextRequest) {
  engine.Script("page.zpc", Runs("part.zpc"));
  engine.Script("part.zpc", Writes("first"));
  ASSERT_TRUE(engine.Start());
  EXPECT_EQ(Body("/page.zpc"), "first");
  engine.Script("part.zpc", Writes("second"));
  EXPECT_EQ(Body("/page.zpc"), "second");
}

TEST_F(DoFiles, AFileThatRunsItselfWithoutEndIsAnError) {
  engine.Script("page.zpc", "pushc \"page.zpc\"\nop_do_file\n");
  engine.Script("call.zpc",
                "pushc \"call.zpc\"\npushc \"f()\"\nop_do_function\nout\nexit\n"
                ".function f()\npushc \"call.zpc\"\npushc \"f()\"\nop_do_function\nret\n");
  engine.Script("good.zpc", Writes("good"));
  ASSERT_TRUE(engine.Start());
  EXPECT_THAT(Body("/page.zpc"), HasSubstr("Stack overflow"));
  EXPECT_THAT(Body("/call.zpc"), HasSubstr("Stack overflow"));
  EXPECT_EQ(Body("/good.zpc"), "good");
}

TEST_F(DoFiles, ACaptureThatAFileLeavesOpenEndsWithTheRequest) {
  engine.settings = "max_docache = 1\n";
  engine.Script("page.zpc", "pushg a\ncapture\n" + Runs("part.zpc") + "pushg b\ncapture\n" +
                                Runs("other.zpc") + Runs("third.zpc") + Writes("lost"));
  engine.Script("part.zpc", "pushg c\ncapture\n");
  engine.Script("other.zpc", "noop\n");
  engine.Script("third.zpc", "noop\n");
  ASSERT_TRUE(engine.Start());
  EXPECT_EQ(Body("/page.zpc"), "");
  EXPECT_EQ(Body("/page.zpc"), "");
}

TEST_F(DoFiles, TheCommandLineRunsThemToo) {
  engine.Script("page.zpc", Runs("part.zpc") + Writes("page"));
  engine.Script("part.zpc", Writes("part "));
  engine.WriteConfiguration();
  for (const bool configured : {false, true}) {
    std::vector<std::string> arguments = {InBuild("bin/zprun")};
    if (configured) {
      arguments.push_back("--config");
      arguments.push_back(engine.Path("zeph.toml"));
    }
    arguments.push_back(engine.Path("scripts/page.zpc"));
    Command command(arguments);
    EXPECT_EQ(command.Run(), 0) << command.errors;
    EXPECT_EQ(command.output, "part page");
  }
}

}  // namespace
