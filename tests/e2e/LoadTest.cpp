// The command of docs/load.md.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "base/core/Sanitizers.h"
#include "tests/support/Command.h"
#include "tests/support/Paths.h"
#include "tests/support/PrivateNetwork.h"

namespace {

using testing::HasSubstr;

// With one number of connections in place of four, and a second for each figure.
TEST(SlowLoad, TheCommandMakesTheTableOfThePage) {
  if (kAddressSanitizer || kThreadSanitizer) GTEST_SKIP() << "a sanitizer takes most of the time";
  {
    const PrivateNetwork network;
    if (!network.why_not().empty()) GTEST_SKIP() << network.why_not();
  }
  for (const char* program : {"/usr/sbin/nginx", "/usr/bin/spawn-fcgi", "/usr/sbin/php-fpm8.2",
                              "/usr/bin/wrk", "/usr/bin/curl"}) {
    if (access(program, X_OK) != 0) GTEST_SKIP() << program << " is not installed";
  }
  Command load({InSource("bench/http/connections"), InBuild(""), "1", "10"});
  ASSERT_EQ(load.Run(), 0) << load.output << load.errors;
  std::ifstream file(InSource("docs/load.md"));
  std::stringstream page;
  page << file.rdbuf();
  const std::string head = load.output.substr(0, load.output.find("| hello "));
  EXPECT_THAT(head, testing::StartsWith("| Page |"));
  EXPECT_THAT(page.str(), HasSubstr(head));
  for (const char* row : {"\n| hello | 10 | ", "\n| table | 10 | ", "\nfailed requests: 0;"}) {
    EXPECT_THAT(load.output, HasSubstr(row));
  }
}

}  // namespace
