#include "base/host/TagLookup.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <set>
#include <string>

#include "base/host/TagErrors.h"

namespace {

struct Expected {
  const char* keyword;
  int tag;
};

// All keywords with their tags, written out by hand.
const Expected all_keywords[] = {
    {"zpcomment", 21},
    {"zpforeachcontinue", 70},
    {"zpprimary", 32},
    {"zppopdelete", 10},
    {"zpsetindex", 34},
    {"zppopcontinue", 64},
    {"zpexport", 4},
    {"zppop", 8},
    {"zpsmtp", 11},
    {"zphide", 7},
    {"zpwhilestop", 13},
    {"zpforstop", 72},
    {"zplocalized", 24},
    {"zpimport", 2},
    {"zpcommerce", 19},
    {"zpgo", 31},
    {"zpforeach", 68},
    {"zpdo", 22},
    {"zpupdate", 35},
    {"zpassignarray", 49},
    {"zpclose", 29},
    {"zplocalized-text", 26},
    {"zpasynchronous", 75},
    {"zpcloseview", 45},
    {"zprollback", 53},
    {"zpassembly", 74},
    {"zpelseif", 18},
    {"zprevealstructure", 43},
    {"zpcallstop", 15},
    {"zpadd", 38},
    {"zpdimension", 50},
    {"zpdbcommand", 58},
    {"zpcommercecontinue", 67},
    {"zptransact", 55},
    {"zpopenview", 44},
    {"zpwhilecontinue", 65},
    {"zpimportcontinue", 63},
    {"zpfor", 71},
    {"zpcapture", 59},
    {"zpasync", 75},
    {"zpcommit", 52},
    {"zpeval", 6},
    {"zpcallcontinue", 66},
    {"zpelse", 1},
    {"zpforcontinue", 73},
    {"zpfuncreturn", 17},
    {"zpfunction", 16},
    {"zpreference", 56},
    {"zpskip", 30},
    {"zpquery", 46},
    {"zpimportstop", 3},
    {"zpcreate", 42},
    {"expression", 62},
    {"zpifdef", 60},
    {"zpopen", 28},
    {"zpdelete", 36},
    {"zpif", 0},
    {"zpreferencearray", 57},
    {"zpmember", 51},
    {"zpifndef", 61},
    {"zppack", 40},
    {"zpreindex", 41},
    {"zpcall", 14},
    {"zppopstop", 9},
    {"zpfunctionreturn", 17},
    {"zpforeachstop", 69},
    {"zplocalized-token", 25},
    {"zpassign", 5},
    {"zpfind", 33},
    {"zplockfile", 23},
    {"zeph", 48},
    {"zpundelete", 37},
    {"zpcommercestop", 20},
    {"zpfilter", 47},
    {"zpwhile", 12},
    {"zpexit", 27},
    {"zpmakeindex", 39},
    {"zpinclude", 54},
};

std::string UpperCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return toupper(c); });
  return text;
}

TEST(TagLookup, KnowsAll78Keywords) {
  ASSERT_EQ(std::size(all_keywords), 78u);
  TagLookup lookup;
  for (const Expected& expected : all_keywords) {
    SCOPED_TRACE(expected.keyword);
    const TagKeyword* found = lookup.Lookup(expected.keyword, -1);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->tag, expected.tag);
    EXPECT_STREQ(found->text, expected.keyword);
    EXPECT_EQ(found->length, int(strlen(expected.keyword)));
  }
}

TEST(TagLookup, CoversEveryTag) {
  std::set<int> tags;
  for (const TagKeyword& keyword : tag_keywords) tags.insert(keyword.tag);
  EXPECT_EQ(tags.size(), 76u);
  EXPECT_EQ(*tags.begin(), 0);
  EXPECT_EQ(*tags.rbegin(), 75);
}

TEST(TagLookup, CaseDoesNotCount) {
  TagLookup lookup;
  for (const Expected& expected : all_keywords) {
    SCOPED_TRACE(expected.keyword);
    const TagKeyword* found = lookup.Lookup(UpperCase(expected.keyword).c_str(), -1);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->tag, expected.tag);
  }
}

TEST(TagLookup, LengthBoundsTheName) {
  TagLookup lookup;
  const TagKeyword* found = lookup.Lookup("zpifdef", 4);
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found->tag, 0);
  EXPECT_EQ(lookup.Lookup("zpif\0", 5), nullptr);
}

TEST(TagLookup, EighteenBytesAreLookedUpAndNineteenAreNot) {
  TagLookup lookup;
  EXPECT_NE(lookup.Lookup("zpcommercecontinue", 18), nullptr);
  EXPECT_EQ(lookup.Lookup("zpcommercecontinuex", 18)->tag, 67);
  EXPECT_EQ(lookup.Lookup("zpcommercecontinuex", 19), nullptr);
  EXPECT_EQ(lookup.Lookup("zpcommercecontinuex", -1), nullptr);
  EXPECT_EQ(lookup.Lookup("zpcommercecontinux", 18), nullptr);
  EXPECT_EQ(lookup.Lookup(std::string(100000, 'z').c_str(), -1), nullptr);
}

TEST(TagLookup, UnknownNamesGiveNull) {
  TagLookup lookup;
  for (const char* name : {"", "z", "zpiff", "zpi", "if", "(in expression)", "zpif_error",
                           "\xda\xd0if", "zzzzzzzzzzzzzzzzzz"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(lookup.Lookup(name, -1), nullptr);
  }
  EXPECT_EQ(lookup.Lookup(nullptr, 0), nullptr);
}

}  // namespace
