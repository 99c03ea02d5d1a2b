// Searches in the primary index, with and without a filter.

#include <algorithm>
#include <cstring>
#include <random>

#include "base/database/XBaseDatabaseView.h"
#include "tests/support/XBaseMachine.h"

namespace {

class XBaseFindTest : public XBaseMachine {
 protected:
  void Fill(const std::vector<std::string>& names) {
    ASSERT_TRUE(CreateTable("name char(10), n number(5)")) << Error();
    for (size_t i = 0; i < names.size(); i++)
      ASSERT_TRUE(Add({{"name", names[i]}, {"n", std::to_string(i + 1)}})) << ViewError();
  }
  std::string Found(const std::string& key, int exact = 1) {
    return Find(key, exact) ? Place() : ViewError();
  }
};

TEST_F(XBaseFindTest, NeedsAnIndex) {
  Fill({"a"});
  EXPECT_EQ(Found("a"), "Database has no open indexes");
  ASSERT_TRUE(Filter("1"));
  EXPECT_EQ(Found("a"), "Database has no open indexes");
}

TEST_F(XBaseFindTest, FindsAKeyOrItsBeginning) {
  Fill({"dora", "bert", "bernd", "anna"});
  ASSERT_TRUE(CreateIndex("i.zix", "d.name"));
  EXPECT_EQ(Found("bert"), "2");
  EXPECT_EQ(Found("ber"), "eof/2");
  EXPECT_EQ(Found("ber", 0), "3");
  ASSERT_TRUE(Skip(1));
  EXPECT_EQ(Place(), "2");
  EXPECT_EQ(Found("dorax", 0), "eof/2");
  EXPECT_EQ(Found("", 0), "4");
  EXPECT_EQ(Found("anna"), "4");
}

TEST_F(XBaseFindTest, AKeyEndsAtItsLengthOrAtItsNUL) {
  Fill({"a", "ab"});
  ASSERT_TRUE(CreateIndex("i.zix", "d.name"));
  ASSERT_TRUE(view().Find_NoFilter("abc", 2, 0, nullptr, 1));
  EXPECT_EQ(Place(), "2");
  ASSERT_TRUE(view().Find_NoFilter("abc", 1, 0, nullptr, 1));
  EXPECT_EQ(Place(), "1");
  EXPECT_EQ(Found(std::string("ab\0c", 4)), "2");
  ASSERT_TRUE(Filter("1"));
  ASSERT_TRUE(view().Find_Filter("abc", 2, 0, nullptr, 1));
  EXPECT_EQ(Place(), "2");
  EXPECT_EQ(Found(std::string("ab\0c", 4)), "2");
}

TEST_F(XBaseFindTest, NumbersAreComparedAsNumbersUnlessTheIndexIsOfTexts) {
  Fill({"10", "9", "100"});
  ASSERT_TRUE(CreateIndex("i.zix", "d.name"));
  EXPECT_EQ(Place(), "2");
  EXPECT_EQ(Found("9.0"), "2");
  ASSERT_TRUE(CreateIndex("s.zix", "d.name", "string"));
  EXPECT_EQ(Place(), "1");
  EXPECT_EQ(Found("9.0"), "eof/1");
  EXPECT_EQ(Found("9"), "2");
}

TEST_F(XBaseFindTest, ARangeIndexLandsBeforeAMissingKey) {
  Fill({"d", "b", "f"});
  ASSERT_TRUE(CreateIndex("i.zix", "d.name", "range"));
  EXPECT_EQ(Found("c"), "eof/2");
  EXPECT_EQ(Value("name"), "b");
  EXPECT_EQ(Found("d"), "1");
  EXPECT_EQ(Found("z"), "eof/3");
  EXPECT_EQ(Value("name"), "f");
  // No record is before the first.
  EXPECT_EQ(Found("a"), "eof/3");
  // A filter has no use for the neighbour.
  ASSERT_TRUE(Filter("1"));
  ASSERT_TRUE(Go(1));
  EXPECT_EQ(Found("c"), "eof/1");
}

TEST_F(XBaseFindTest, ADescendingRangeIndexLandsOnTheNextHigherKey) {
  Fill({"d", "b", "f"});
  ASSERT_TRUE(CreateIndex("i.zix", "d.name", "range,descending"));
  EXPECT_EQ(Found("c"), "eof/1");
  EXPECT_EQ(Found("e"), "eof/3");
}

TEST_F(XBaseFindTest, AFilterTakesTheFirstOfTheMatchesThatPasses) {
  Fill({"x", "ab", "ac", "ab", "ab", "b"});
  ASSERT_TRUE(CreateIndex("i.zix", "d.name $ ''"));
  ASSERT_TRUE(Filter("d.n LT 4"));
  EXPECT_EQ(Found("ab"), "2");
  EXPECT_EQ(Found("a", 0), "2");
  ASSERT_TRUE(Filter("d.n EQ 3"));
  EXPECT_EQ(Found("a", 0), "3");
  EXPECT_TRUE(Find("ab"));
  EXPECT_TRUE(AtEnd());
  EXPECT_EQ(Value("name"), "ab");  // the last one that was tried
  EXPECT_TRUE(Find("zz"));
  EXPECT_TRUE(AtEnd());
  ASSERT_TRUE(Filter("0"));
  EXPECT_TRUE(Find("b"));
  EXPECT_EQ(Place(), "eof/6");  // and not beyond the last entry
}

TEST_F(XBaseFindTest, TheKeyMayBeAFieldOfTheView) {
  Fill({"ab", "b", "ab", "ab"});
  ASSERT_TRUE(CreateIndex("i.zix", "d.name"));
  ASSERT_TRUE(Filter("d.n LE 1"));
  ASSERT_TRUE(Go(1));
  // The text is the variable's own buffer, which each record that is tried replaces.
  String& text = Field("name")->value();
  ASSERT_TRUE(view().Find_Filter(text.data, text.length, text.allocated, nullptr, 1));
  EXPECT_EQ(Place(), "1");
  ASSERT_TRUE(Filter(""));
  ASSERT_TRUE(Go(2));
  String& other = Field("name")->value();
  ASSERT_TRUE(view().Find_NoFilter(other.data, other.length, other.allocated, nullptr, 1));
  EXPECT_EQ(Place(), "2");
}

TEST_F(XBaseFindTest, LongKeysAreCutAsInTheFile) {
  ASSERT_TRUE(CreateTable("name char(200), n number(5)"));
  const std::string name(150, 'x');
  for (const char* n : {"1", "2", "3"}) {
    ASSERT_TRUE(Add({{"name", name}, {"n", n}}));
  }
  ASSERT_TRUE(CreateIndex("i.zix", "d.name"));
  EXPECT_FALSE(AtEnd());
  ASSERT_TRUE(Filter("d.n EQ 1"));
  EXPECT_EQ(Found(name), "1");
  EXPECT_EQ(Found(name, 0), "1");
}

TEST_F(XBaseFindTest, HasTheErrorOfTheIndex) {
  Fill({"a", "a"});
  ASSERT_TRUE(CreateIndex("i.zix", "d.name"));
  files.fail_read = 1;
  EXPECT_EQ(Found("a"), "Error reading from 'i.zix': Injected failure");
  ASSERT_TRUE(Filter("d.n EQ 9"));
  files.fail_read = 1;
  EXPECT_EQ(Found("a"), "Error reading from 'i.zix': Injected failure");
}

TEST_F(XBaseFindTest, CostsOneDescentAndOneRecord) {
  Fill(std::vector<std::string>(60, "a"));
  ASSERT_TRUE(CreateIndex("i.zix", "d.n"));
  files.ResetCounts();
  ASSERT_TRUE(Find("37"));
  EXPECT_EQ(Place(), "37");
  ZIXIndexChecker checker(files.files["i.zix"]);
  ASSERT_EQ(checker.Check(), "");
  // The header, a page of each level, and the record.
  EXPECT_LE(files.reads, 1 + checker.depth + 1);
}

// Against a model: the matches in a sorted list.
struct FindCase {
  const char* flags;
  bool filtered;
};

class XBaseFindModelTest : public XBaseFindTest, public testing::WithParamInterface<FindCase> {};

TEST_P(XBaseFindModelTest, FindsWhatIsInTheList) {
  std::mt19937 random(7);
  const auto below = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
  const auto word = [&](int most) {
    std::string text;
    for (int i = 1 + below(most); i > 0; i--) text += static_cast<char>('a' + below(3));
    return text;
  };
  const std::string flags = GetParam().flags;
  const bool down = flags.find("descending") != std::string::npos;
  const bool range = flags.find("range") != std::string::npos;
  struct Entry {
    std::string key;
    int record;
    bool passes;
  };
  std::vector<Entry> order;
  ASSERT_TRUE(CreateTable("name char(8), n number(5)"));
  for (int record = 1; record <= 150; record++) {
    const int n = below(10);
    order.push_back({word(6), record, !GetParam().filtered || n < 6});
    ASSERT_TRUE(Add({{"name", order.back().key}, {"n", std::to_string(n)}}));
  }
  ASSERT_TRUE(CreateIndex("i.zix", "d.name", flags)) << Error();
  // A new entry goes before those with an equal key.
  std::stable_sort(order.begin(), order.end(), [&](const Entry& a, const Entry& b) {
    if (a.key != b.key) return down ? b.key < a.key : a.key < b.key;
    return a.record > b.record;
  });
  if (GetParam().filtered) {
    ASSERT_TRUE(Filter("d.n LT 6"));
  }
  for (int i = 0; i < 1000; i++) {
    const std::string key = word(7);
    const int exact = below(2);
    SCOPED_TRACE(key + (exact ? " exactly" : " as a beginning"));
    const auto matches = [&](const Entry& e) {
      return exact ? e.key == key : e.key.compare(0, key.size(), key) == 0;
    };
    const auto hit = std::find_if(order.begin(), order.end(),
                                  [&](const Entry& e) { return matches(e) && e.passes; });
    ASSERT_TRUE(Find(key, exact)) << ViewError();
    if (hit != order.end()) {
      ASSERT_EQ(Place(), std::to_string(hit->record));
      ASSERT_EQ(Value("name"), hit->key);
      continue;
    }
    ASSERT_TRUE(AtEnd());
    const bool any = std::any_of(order.begin(), order.end(), matches);
    if (!range || GetParam().filtered || any) continue;
    const Entry* before = nullptr;
    for (const Entry& e : order)
      if (down ? e.key > key : e.key < key) before = &e;
    if (before) {
      ASSERT_EQ(Value("name"), before->key);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(, XBaseFindModelTest,
                         testing::Values(FindCase{"string", false}, FindCase{"string", true},
                                         FindCase{"descending", false},
                                         FindCase{"descending", true}, FindCase{"range", false},
                                         FindCase{"range,descending", false},
                                         FindCase{"range", true}));

}  // namespace
