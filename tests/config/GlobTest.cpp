#include "config/Glob.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct Case {
  const char* pattern;
  const char* text;
  bool matches;
};

TEST(Glob, Table) {
  const Case cases[] = {
      {"", "", true},
      {"", "a", false},
      {"a", "", false},
      {"index.zpc", "index.zpc", true},
      {"index.zpc", "index.zpcx", false},
      {"index.zpc", "indexxzpc", false},
      {"index.zpc", "Index.zpc", false},
      {"*", "", true},
      {"*", "shop/cart.zpc", true},
      {"**", "shop/cart.zpc", true},
      {"shop/*", "shop/a/b.zpc", true},
      {"shop/*", "shop", false},
      {"*.zpc", "shop/cart.zpc", true},
      {"*.zpc", ".zpc", true},
      {"*a*b*c", "xxaxbbxc", true},
      {"*a*b*c", "xxaxcxb", false},
      {"a*b", "ab", true},
      {"a*b", "abc", false},
      {"?", "", false},
      {"?", "/", true},
      {"a?c", "abc", true},
      {"a?c", "ac", false},
      {"[abc].zpc", "b.zpc", true},
      {"[abc].zpc", "d.zpc", false},
      {"[a-c]x", "bx", true},
      {"[a-c]x", "dx", false},
      {"[!a-c]x", "dx", true},
      {"[!a-c]x", "ax", false},
      {"[]]", "]", true},
      {"[!]]", "]", false},
      {"[!]]", "a", true},
      {"[a-]", "-", true},
      {"[a-]", "b", false},
      {"[\xc0-\xff]", "\xe9", true},
      {"[abc", "[abc", true},
      {"[abc", "a", false},
      {"*[0-9]", "page12", true},
      {"\\*", "*", true},
      {"\\*", "a", false},
      {"\\[a]", "[a]", true},
      {"\\", "\\", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.pattern) + " on " + c.text);
    EXPECT_EQ(MatchesGlob(c.pattern, c.text), c.matches);
  }
}

TEST(Glob, ManyStarsTakeNoExponentialTime) {
  std::string pattern;
  for (int i = 0; i < 50; i++) pattern += "*a";
  EXPECT_FALSE(MatchesGlob(pattern + "b", std::string(20000, 'a')));
}

TEST(NormalizedPath, Table) {
  const struct {
    const char* path;
    const char* expected;
  } cases[] = {
      {"", ""},
      {"/", ""},
      {"a.zpc", "a.zpc"},
      {"/a.zpc", "a.zpc"},
      {"shop//cart.zpc", "shop/cart.zpc"},
      {"shop/./cart.zpc", "shop/cart.zpc"},
      {"./shop/cart.zpc", "shop/cart.zpc"},
      {"x/../shop/cart.zpc", "shop/cart.zpc"},
      {"../../shop/cart.zpc", "shop/cart.zpc"},
      {"shop/", "shop"},
      {"shop/..", ""},
      {"...", "..."},
      {"a/.b/..c", "a/.b/..c"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    EXPECT_EQ(NormalizedPath(c.path), c.expected);
  }
}

}  // namespace
