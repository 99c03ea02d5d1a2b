#include "config/Suggestion.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(EditDistance, Table) {
  const struct {
    const char* a;
    const char* b;
    int expected;
  } cases[] = {
      {"", "", 0},
      {"", "abc", 3},
      {"abc", "", 3},
      {"kitten", "sitting", 3},
      {"Saturday", "Sunday", 3},
      {"abcd", "acbd", 1},
      {"ab", "ba", 1},
      {"ABC", "abc", 0},
      {"timout_global", "timeout_global", 1},
      {"dir-zeph", "dir_zeph", 1},
      {"ca", "abc", 3},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.a) + " " + c.b);
    EXPECT_EQ(EditDistance(c.a, c.b), c.expected);
    EXPECT_EQ(EditDistance(c.b, c.a), c.expected);
  }
}

TEST(NearestWord, TakesTheFirstOfTheNearest) {
  EXPECT_EQ(NearestWord("cat", {"dog", "car", "cap"}), "car");
  EXPECT_EQ(NearestWord("cap", {"dog", "car", "cap"}), "cap");
  EXPECT_EQ(NearestWord("anything", {"only"}), "only");
  EXPECT_EQ(NearestWord("anything", {}), "");
}

}  // namespace
