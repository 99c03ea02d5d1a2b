#include "base/systems/unix/UNIXFilePath.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

std::string CollapsedText(const UNIXFilePath& path) {
  std::unique_ptr<char[]> text(path.Collapsed_Path(nullptr, nullptr));
  return text.get();
}

TEST(UNIXFilePath, SplitsAtRunsOfSlashes) {
  struct Case {
    const char* path;
    bool absolute;
    std::vector<std::string> elements;
  } cases[] = {
      {"a", false, {"a"}},
      {"a/b", false, {"a", "b"}},
      {"a//b///c", false, {"a", "b", "c"}},
      {"a/b/", false, {"a", "b"}},
      {"/a//b/", true, {"/", "a", "b"}},
      {"/", true, {"/"}},
      {"///", true, {"/"}},
      {"//a", true, {"/", "a"}},
      {"", false, {""}},
      {"./../a", false, {".", "..", "a"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    UNIXFilePath path(c.path);
    EXPECT_EQ(c.absolute, path.is_absolute());
    ASSERT_EQ(static_cast<int>(c.elements.size()), path.elements());
    for (int i = 0; i < path.elements(); i++)
      EXPECT_EQ(c.elements[static_cast<size_t>(i)], path.Element(i));
  }
}

TEST(UNIXFilePath, NullIsTheEmptyPath) {
  UNIXFilePath path(nullptr);
  EXPECT_EQ(1, path.elements());
  EXPECT_STREQ("", path.Element(0));
}

TEST(UNIXFilePath, HasNoElementOutOfRange) {
  UNIXFilePath path("a/b");
  EXPECT_EQ(nullptr, path.Element(-1));
  EXPECT_EQ(nullptr, path.Element(2));
}

TEST(UNIXFilePath, SpanJoinsElementsInPlace) {
  struct Case {
    const char* path;
    int first;
    int last;
    const char* expected;
  } cases[] = {
      {"a/b/c", 0, 0, "a"},     {"a/b/c", 0, 1, "a/b"},   {"a/b/c", 1, 2, "b/c"},
      {"a//b/c", 0, 1, "a//b"}, {"/a/b", 0, 0, "/"},      {"/a/b", 0, 1, "/a"},
      {"/a/b", 1, 2, "a/b"},    {"a/b/c", 1, 0, nullptr}, {"a/b/c", -1, 1, nullptr},
      {"a/b/c", 1, 3, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.path) + " " + std::to_string(c.first));
    UNIXFilePath path(c.path);
    EXPECT_STREQ(c.expected, path.Span(c.first, c.last));
  }
}

TEST(UNIXFilePath, SpanTurnsBackWhatElementCut) {
  UNIXFilePath path("a//b/c");
  for (int i = 0; i < 3; i++) (void)path.Element(i);
  EXPECT_STREQ("a//b/c", path.Span(0, 2));
  EXPECT_STREQ("a", path.Span(0, 0));
  EXPECT_STREQ("b/c", path.Span(1, 2));
}

TEST(UNIXFilePath, CollapsesByTextAlone) {
  struct Case {
    const char* path;
    const char* whole;
    const char* directory;
    const char* filename;
  } cases[] = {
      {"a", "a", ".", "a"},
      {"a/b", "a/b", "a", "b"},
      {"a/b/c", "a/b/c", "a/b", "c"},
      {"./a", "a", ".", "a"},
      {"a/./b", "a/b", "a", "b"},
      {"a/../b", "b", ".", "b"},
      {"a/../../b", "../b", "..", "b"},
      {"..", "..", "..", "."},
      {"../..", "../..", "../..", "."},
      {"a/..", ".", ".", "."},
      {".", ".", ".", "."},
      {"./.", ".", ".", "."},
      {"", "", ".", ""},
      {"/", "/", "/", "."},
      {"/a", "/a", "/", "a"},
      {"/a/b", "/a/b", "/a", "b"},
      {"/a/b/", "/a/b", "/a", "b"},
      {"//a//b", "/a/b", "//a", "b"},
      {"/..", "/", "/", "."},
      {"/../../a", "/a", "/", "a"},
      {"/a/..", "/", "/", "."},
      {"/.", "/", "/", "."},
      // The dropped elements are between kept ones.
      {"a/x/../b/c", "a/b/c", "a/b", "c"},
      {"/a/x/../b/c", "/a/b/c", "/a/b", "c"},
      {"a/./b/c", "a/b/c", "a/b", "c"},
      {"a/x/../b/y/../c/.", "a/b/c", "a/b", "c"},
      {"/x/../a/b/c", "/a/b/c", "/a/b", "c"},
      {"../a/x/../b/c", "../a/b/c", "../a/b", "c"},
      {".././..", "../..", "../..", "."},
      {"a/b/.", "a/b", "a", "b"},
      {"...", "...", ".", "..."},
      {"a/.b/..c", "a/.b/..c", "a/.b", "..c"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    UNIXFilePath path(c.path);
    EXPECT_EQ(c.whole, CollapsedText(path));
    // Both are used at the same time, in either order.
    const char* directory = path.Collapsed_Directory();
    const char* filename = path.Collapsed_Filename();
    EXPECT_STREQ(c.directory, directory);
    EXPECT_STREQ(c.filename, filename);
    UNIXFilePath again(c.path);
    filename = again.Collapsed_Filename();
    directory = again.Collapsed_Directory();
    EXPECT_STREQ(c.filename, filename);
    EXPECT_STREQ(c.directory, directory);
    EXPECT_EQ(c.whole, CollapsedText(again));
  }
}

TEST(UNIXFilePath, CollapsedPathTellsLengthAndSize) {
  int length = 0;
  int allocated = 0;
  UNIXFilePath path("a/../bcd/");
  std::unique_ptr<char[]> text(path.Collapsed_Path(&length, &allocated));
  EXPECT_STREQ("bcd", text.get());
  EXPECT_EQ(3, length);
  EXPECT_EQ(9, allocated);  // of the text that it was made from, without the slash at its end
  text.reset(UNIXFilePath("a/..").Collapsed_Path(&length, &allocated));
  EXPECT_EQ(1, length);
  EXPECT_EQ(2, allocated);
  text.reset(UNIXFilePath("/").Collapsed_Path(&length, &allocated));
  EXPECT_STREQ("/", text.get());
  EXPECT_EQ(2, allocated);
}

TEST(UNIXFilePath, JoinsTwoTextsWithASlash) {
  EXPECT_EQ("/base/a/b", CollapsedText(UNIXFilePath("/base/", "a/b")));
  EXPECT_EQ("/a", CollapsedText(UNIXFilePath("/base", "../a")));
}

TEST(UNIXFilePath, AdoptsABufferOnRequest) {
  char* buffer = new char[4];
  memcpy(buffer, "a/b", 4);
  UNIXFilePath path(buffer, false);
  EXPECT_EQ(buffer, path.Element(0));
  char copied[] = "c/d";
  UNIXFilePath copy(copied, true);
  EXPECT_STREQ("c", copy.Element(0));
  EXPECT_STREQ("c/d", copied);
}

TEST(UNIXFilePath, CopyStartsFromTheCollapsedForm) {
  UNIXFilePath path("/a/../b//c/");
  (void)path.Element(2);
  UNIXFilePath copy(path);
  EXPECT_STREQ("/b/c", copy.value());
  EXPECT_EQ(3, copy.elements());
}

TEST(UNIXFilePath, ContainsWhatIsBelowByText) {
  struct Case {
    const char* base;
    const char* other;
    bool expected;
  } cases[] = {
      {"/a/b", "/a/b", true},
      {"/a/b", "/a/b/c", true},
      {"/a/b/", "/a/b/c", true},
      {"/a/b", "/a/bc", false},
      {"/a/b", "/a", false},
      {"/a/b", "/a/b/../c", false},
      {"/a/b", "/a/x/../b/c", true},
      {"/a/b", "a/b/c", false},
      {"/", "/a", true},
      {"/", "a", false},
      {".", "/a/b", true},
      {".", "a", true},
      {"/a/b", "/A/b/c", false},
      {"/a/b", "/a/B/c", false},
      {"a", "a/b", true},
      {"/a/./b", "/a//b/c", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.base) + " and " + c.other);
    EXPECT_EQ(c.expected, UNIXFilePath(c.base).Contains(UNIXFilePath(c.other)));
  }
}

TEST(UNIXFilePath, MatchesUpToTheLastElements) {
  EXPECT_TRUE(UNIXFilePath("/a/b").Matches(UNIXFilePath("/a//x/../b/"), 0));
  EXPECT_FALSE(UNIXFilePath("/a/b").Matches(UNIXFilePath("/a/c"), 0));
  EXPECT_TRUE(UNIXFilePath("/a/b").Matches(UNIXFilePath("/a/c"), 1));
  EXPECT_FALSE(UNIXFilePath("/a/b").Matches(UNIXFilePath("/a/b/c"), 1));
  EXPECT_TRUE(UNIXFilePath("/a/b").Matches(UNIXFilePath("c/d/e"), 3));
}

TEST(UNIXFilePath, ReleaseRestoresTheText) {
  UNIXFilePath path("a//b/c/");
  (void)path.Element(0);
  (void)path.Element(1);
  std::unique_ptr<char[]> text(path.Release());
  EXPECT_STREQ("a//b/c", text.get());
  EXPECT_EQ(0, path.elements());
}

TEST(UNIXFilePath, HoldsAnyNumberOfElements) {
  for (int count : {15, 16, 17, 32, 33, 1000}) {
    SCOPED_TRACE(count);
    std::string text = "e0";
    for (int i = 1; i < count; i++) text += "/e" + std::to_string(i);
    UNIXFilePath path(text.c_str());
    EXPECT_EQ(count, path.elements());
    EXPECT_EQ(text, CollapsedText(path));
    EXPECT_EQ("e" + std::to_string(count - 1), path.Collapsed_Filename());
  }
}

TEST(UNIXFilePath, KnowsPathsThatStartAboveTheirBase) {
  EXPECT_TRUE(UNIXFilePath("../a").StartsAboveBase());
  EXPECT_TRUE(UNIXFilePath("a/../../b").StartsAboveBase());
  EXPECT_FALSE(UNIXFilePath("a/../b").StartsAboveBase());
  EXPECT_FALSE(UNIXFilePath("..a").StartsAboveBase());
  EXPECT_FALSE(UNIXFilePath("/..").StartsAboveBase());
}

}  // namespace
