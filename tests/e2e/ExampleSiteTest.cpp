// The pages of the example site, as zprun writes them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/Command.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

std::string Page(const std::string& name) {
  Command command({ZEPH_BINARY_DIR "/bin/zprun", ZEPH_BINARY_DIR "/site/" + name});
  command.environment = {{"ZEPH_CONFIG", ""}, {"ZpCONFIG_LIBRARY", ""}};
  EXPECT_EQ(command.Run(), name == "mistake.zpc" ? 1 : 0) << command.errors;
  return command.output;
}

TEST(ExampleSite, EveryPageIsWrittenToItsEnd) {
  for (const char* name : {"index.zpc", "language.zpc"}) {
    SCOPED_TRACE(name);
    std::string page = Page(name);
    EXPECT_THAT(page, StartsWith("<!DOCTYPE html>"));
    EXPECT_THAT(page, HasSubstr("</html>\n"));
    EXPECT_THAT(page, Not(HasSubstr("error in ")));
  }
  EXPECT_EQ(Page("hello.zpc"), "Hello, world\n");
  EXPECT_THAT(Page("mistake.zpc"), HasSubstr("mistake.zpa: Line 11: Stack underflow"));
}

TEST(ExampleSite, WhatThePageOfTheLanguageShowsIsWhatComesOut) {
  std::string page = Page("language.zpc");
  for (const char* output :
       {"1 4 9 16 25 36 49 64 81 100 121 144 ", "la la la la la la la la la!",
        "AC AB CB AC BA BC AC ", "right, left", "first,seventh", "Darjeeling for 3.50", "42",
        "It says: Array index must be positive integer"}) {
    EXPECT_THAT(page, HasSubstr("<output>" + std::string(output) + "</output>"));
  }
}

}  // namespace
