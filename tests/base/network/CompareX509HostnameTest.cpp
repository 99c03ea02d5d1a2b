// Which host names the names of a certificate stand for.

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "base/systems/unix/UNIXNetworkManager.h"
#include "tests/support/TestApplication.h"

namespace {

bool Matches(const std::string& hostname, const std::string& pattern) {
  TestApplication application;
  UNIXNetworkManager manager(&application);
  return manager.CompareX509Hostname(hostname.c_str(), pattern.data(),
                                     static_cast<int>(pattern.size()));
}

TEST(CompareX509Hostname, FollowsTheTable) {
  const struct {
    const char* hostname;
    const char* pattern;
    bool matches;
  } cases[] = {
      {"example.org", "example.org", true},
      {"EXAMPLE.org", "example.ORG", true},
      {"localhost", "localhost", true},
      {"localhost", "localhos", false},
      {"localhost", "localhost.", false},
      {"", "", true},
      {"example.org", "", false},
      {"", "*.example.org", false},
      // One label, and only one.
      {"a.example.org", "*.example.org", true},
      {"A.EXAMPLE.ORG", "*.example.org", true},
      {"b.a.example.org", "*.example.org", false},
      {"example.org", "*.example.org", false},
      {"aexample.org", "*.example.org", false},
      {"a.example.orgx", "*.example.org", false},
      {"a.example.net", "*.example.org", false},
      {"a.b.example.org", "*.b.example.org", true},
      {"xn--a.example.org", "*.example.org", true},
      // Two more labels are needed.
      {"example.org", "*.org", false},
      {"org", "*", false},
      {"a.", "*.", false},
      {"a..org", "*..org", false},
      {"a.org.", "*.org.", false},
      {"a.b.org.", "*.b.org.", true},
      // A prefix, but nothing after the '*'.
      {"abc.example.org", "a*.example.org", true},
      {"ABC.example.org", "a*.example.org", true},
      {"a.example.org", "a*.example.org", true},
      {"b.example.org", "a*.example.org", false},
      {"ab.example.org", "abc*.example.org", false},
      {"xn--abc.example.org", "a*.example.org", false},
      {"xn--abc.example.org", "x*.example.org", false},
      {"XN--abc.example.org", "x*.example.org", false},
      {"xn-.example.org", "x*.example.org", true},
      {"foo.example.org", "f*o.example.org", false},
      {"foo.example.org", "*o.example.org", false},
      // Nowhere but in the first label, and only once.
      {"a.b.example.org", "a.*.example.org", false},
      {"a.b.example.org", "*.*.example.org", false},
      {"a.example.org", "**.example.org", false},
      {"a.example.org", "a.example.*", false},
      {"a.example.org", "a.*.org", false},
      // Itself a name.
      {"*.org", "*.org", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.hostname) + " as " + c.pattern);
    EXPECT_EQ(Matches(c.hostname, c.pattern), c.matches);
  }
}

// An authority may sign a name that ends for one reader where it goes on for another.
TEST(CompareX509Hostname, ANULIsAByteLikeAnyOther) {
  EXPECT_FALSE(Matches("example.org", std::string("example.org\0.evil.net", 21)));
  EXPECT_FALSE(Matches("a.example.org", std::string("*.example.org\0x", 15)));
  EXPECT_FALSE(Matches("example.org", std::string("example.org\0", 12)));
}

TEST(CompareX509Hostname, ANegativeLengthMatchesNothing) {
  TestApplication application;
  UNIXNetworkManager manager(&application);
  EXPECT_FALSE(manager.CompareX509Hostname("a", "a", -1));
}

}  // namespace
