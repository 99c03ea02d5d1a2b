// Claims about base/database/ZIXIndexPage.h: the bytes of a page and how entries move in it.

#include "base/database/ZIXIndexPage.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/ZIXIndexOperations.h"

namespace {

const ZIXIndexShape kShape{0, 4, 432, 24};

ZIXIndexPage Page(const std::vector<ZIXIndexEntry>& entries,
                  const std::vector<uint32_t>& children = {}) {
  ZIXIndexPage page(7, 24, 432);
  page.CopyImage(KeyBytes(ZIXIndexPageBytes(kShape, entries, children)));
  return page;
}

// Child pages and records in alternation, as "(1) 10 (2)".
std::string Text(const ZIXIndexPage& page) {
  std::string text;
  for (int i = 0; i < page.numentries(); i++) {
    text += "(" + std::to_string(page.childpage(i)) + ") ";
    text += reinterpret_cast<const char*>(page.key(i));
    text += "=" + std::to_string(page.recordnum(i)) + " ";
  }
  return text + "(" + std::to_string(page.childpage(page.numentries())) + ")";
}

TEST(ZIXIndexPage, ANewOneIsEmpty) {
  const ZIXIndexPage page(7, 108, 1024);
  EXPECT_EQ("(0)", Text(page));
  EXPECT_EQ(7u, page.pagenum);
  EXPECT_EQ(100, page.keysize());
  EXPECT_TRUE(page.IsLeaf());
}

TEST(ZIXIndexPage, InsertPutsTheNewChildAfterTheEntry) {
  for (int i = 0; i <= 2; i++) {
    ZIXIndexPage page = Page({{"a", 1}, {"b", 2}}, {11, 12, 13});
    page.Insert(i, 99, 9, KeyBytes("x"));
    EXPECT_EQ(std::vector<std::string>({"(11) x=9 (99) a=1 (12) b=2 (13)",
                                        "(11) a=1 (12) x=9 (99) b=2 (13)",
                                        "(11) a=1 (12) b=2 (13) x=9 (99)"})[static_cast<size_t>(i)],
              Text(page));
  }
}

TEST(ZIXIndexPage, InsertBeforePutsItInFront) {
  for (int i = 0; i <= 2; i++) {
    ZIXIndexPage page = Page({{"a", 1}, {"b", 2}}, {11, 12, 13});
    page.InsertBefore(i, 99, 9, KeyBytes("x"));
    EXPECT_EQ(std::vector<std::string>({"(99) x=9 (11) a=1 (12) b=2 (13)",
                                        "(11) a=1 (99) x=9 (12) b=2 (13)",
                                        "(11) a=1 (12) b=2 (99) x=9 (13)"})[static_cast<size_t>(i)],
              Text(page));
  }
}

TEST(ZIXIndexPage, DeleteTakesTheChildInFrontAlong) {
  ZIXIndexPage page = Page({{"a", 1}, {"b", 2}, {"c", 3}}, {11, 12, 13, 14});
  page.Delete(1);
  EXPECT_EQ("(11) a=1 (13) c=3 (14)", Text(page));
  page.DeleteLast();
  EXPECT_EQ("(11) a=1 (14)", Text(page));
  page.Delete(0);
  EXPECT_EQ("(14)", Text(page));
  EXPECT_FALSE(page.IsLeaf());
}

TEST(ZIXIndexPage, SetKeyCutsAndFillsUp) {
  ZIXIndexPage page = Page({{"a long old key", 1}});
  page.SetKey(0, KeyBytes("short"));
  EXPECT_EQ(std::string("short") + std::string(11, '\0'),
            std::string(reinterpret_cast<const char*>(page.key(0)), 16));
  page.SetKey(0, KeyBytes("0123456789abcdefghi"));
  EXPECT_STREQ("0123456789abcde", reinterpret_cast<const char*>(page.key(0)));
}

TEST(ZIXIndexPage, SplitHandsUpTheMiddleOfWhatThereIsThen) {
  ZIXIndexPage left = Page({{"a", 1}, {"b", 2}, {"c", 3}, {"d", 4}}, {11, 12, 13, 14, 15});
  ZIXIndexPage right(8, 24, 432);
  uint32_t record = 0;
  unsigned char key[16];
  ZIXIndexPage::Split(2, left, right, 99, 9, KeyBytes("x"), &record, key);
  EXPECT_EQ("(11) a=1 (12) b=2 (13)", Text(left));
  EXPECT_EQ(9u, record);
  EXPECT_STREQ("x", reinterpret_cast<char*>(key));
  EXPECT_EQ("(99) c=3 (14) d=4 (15)", Text(right));
}

TEST(ZIXIndexPage, SplitOfAnEvenCountLeavesTheRightOneLarger) {
  ZIXIndexPage left = Page({{"a", 1}, {"b", 2}, {"c", 3}}, {11, 12, 13, 14});
  ZIXIndexPage right(8, 24, 432);
  uint32_t record = 0;
  unsigned char key[16];
  ZIXIndexPage::Split(3, left, right, 99, 9, KeyBytes("x"), &record, key);
  EXPECT_EQ("(11) a=1 (12)", Text(left));
  EXPECT_STREQ("b", reinterpret_cast<char*>(key));
  EXPECT_EQ("(13) c=3 (14) x=9 (99)", Text(right));
}

TEST(ZIXIndexPage, TheStackKnowsItsPages) {
  ZIXIndexPageStack stack;
  EXPECT_EQ(0, stack.CheckForRecursion(1));
  for (uint32_t number : {1u, 5u, 9u}) stack.Push(new ZIXIndexPage(number, 24, 432));
  for (uint32_t number : {1u, 5u, 9u}) EXPECT_EQ(1, stack.CheckForRecursion(number));
  EXPECT_EQ(0, stack.CheckForRecursion(2));
  EXPECT_EQ(9u, stack.Top()->pagenum);
}

}  // namespace
