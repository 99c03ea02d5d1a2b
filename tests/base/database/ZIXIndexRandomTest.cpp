// Random changes of an index and of a std::multimap. After each change the checker examines the
// file, all entries are compared, and a cursor of another object takes a step.

#include <gtest/gtest.h>

#include <cstdlib>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "base/database/ZIXIndexFile.h"
#include "tests/support/Rounds.h"
#include "tests/support/ZIXIndexFixture.h"

namespace {

struct Order {
  unsigned flags;
  bool operator()(const std::string& a, const std::string& b) const {
    const std::string& left = flags & ZIXIndex_Descending ? b : a;
    const std::string& right = flags & ZIXIndex_Descending ? a : b;
    if (flags & ZIXIndex_Text) return left < right;
    return strtod(left.c_str(), nullptr) < strtod(right.c_str(), nullptr);
  }
};
using Model = std::multimap<std::string, unsigned, Order>;

class RandomIndex {
 public:
  RandomIndex(const ZIXIndexShape& shape, int key_range, int most_entries, unsigned seed)
      : flags(shape.flags),
        range(key_range),
        most(most_entries),
        random(seed),
        model(Order{shape.flags}) {
    application.SetFileManager(&files);
    files.files["i.zix"] = EmptyZIXIndex(shape);
    EXPECT_TRUE(index.Open(ZephPath_Data, "i.zix", 3));
    EXPECT_TRUE(walker.Open(ZephPath_Data, "i.zix", 3));
  }

  void Run(int operations) {
    for (int i = 0; i < operations && !testing::Test::HasFailure(); i++) {
      SCOPED_TRACE("operation " + std::to_string(i));
      Change();
      Compare();
      Walk();
    }
  }

 private:
  int Below(int limit) { return static_cast<int>(random() % static_cast<unsigned>(limit)); }

  // A number has several spellings that are equal.
  std::string Key() {
    const std::string number = std::to_string(Below(range));
    if (flags & ZIXIndex_Text) return "key " + number;
    switch (Below(3)) {
      case 0: return number + ".0";
      case 1: return "0" + number;
      default: return number;
    }
  }

  void Change() {
    const int entries = static_cast<int>(model.size());
    if (entries == 0) growing = true;
    if (entries >= most) growing = false;
    if (Below(20) == 0)
      DeleteMissing();
    else if (Below(10) < (growing ? 7 : 3) || entries == 0)
      InsertOne();
    else
      DeleteOne();
  }

  void InsertOne() {
    const std::string key = Key();
    const bool refused = (flags & ZIXIndex_Unique) && model.count(key) > 0;
    const unsigned record = ++last_record;
    EXPECT_EQ(!refused, Insert(index, key, record)) << ErrorText(index);
    if (!refused) model.emplace_hint(model.lower_bound(key), key, record);
  }

  void DeleteOne() {
    auto entry = std::next(model.begin(), Below(static_cast<int>(model.size())));
    const std::string key = entry->first;
    if (Below(4) == 0) {
      ASSERT_TRUE(index._Seek(KeyBytes(key), -1, entry->second, 1));
      EXPECT_TRUE(index.Delete_Current(entry->second)) << ErrorText(index);
      forgotten = true;
    } else {
      EXPECT_TRUE(Delete(index, key, entry->second)) << key << ": " << ErrorText(index);
    }
    model.erase(entry);
  }

  void DeleteMissing() {
    EXPECT_FALSE(Delete(index, Key(), last_record + 1));
    EXPECT_EQ("Record is not in index", ErrorText(index));
  }

  void Compare() {
    ZIXIndexChecker checker(files.files["i.zix"]);
    ASSERT_EQ("", checker.Check());
    ASSERT_EQ(model.size(), checker.entries.size());
    size_t i = 0;
    for (const auto& entry : model) {
      ASSERT_EQ(entry.second, checker.entries[i].second) << "entry " << i;
      ASSERT_EQ(entry.first, checker.entries[i].first) << "entry " << i;
      i++;
    }
    ASSERT_TRUE(files.held.empty());
  }

  // A step from the entry that the last walk ended on, or a search for a place to begin.
  // updatecount does not show a deletion at a cursor, so after one the walk begins again.
  void Walk() {
    if (current == 0 || forgotten) {
      Search();
      return;
    }
    auto place = model.begin();
    while (place != model.end() && place->second != current) ++place;
    const bool forward = Below(2) == 0;
    unsigned expected = 0;
    if (place != model.end()) {
      if (forward && std::next(place) != model.end()) expected = std::next(place)->second;
      if (!forward && place != model.begin()) expected = std::prev(place)->second;
    }
    current = forward ? Next(walker) : Prev(walker);
    ASSERT_EQ(expected, current) << ErrorText(walker);
  }

  void Search() {
    forgotten = false;
    const std::string key = Key();
    const auto place = model.lower_bound(key);
    const bool hit = model.count(key) > 0;
    unsigned expected = 0;
    if (hit)
      expected = place->second;
    else if (place != model.begin())
      expected = std::prev(place)->second;
    ASSERT_EQ((ZIXIndexFound{true, hit ? 1 : 0, expected}), Find(walker, key)) << key;
    current = hit ? expected : 0;
  }

  TestApplication application;
  FaultyFileManager files{&application};
  ZIXIndexFile index{&application};
  ZIXIndexFile walker{&application};
  unsigned flags;
  int range;
  int most;
  std::mt19937 random;
  Model model;
  bool growing = true;
  bool forgotten = false;
  unsigned last_record = 0;
  unsigned current = 0;  // the record that the walker is on
};

// Runs all kinds of indexes in turn, with pages of 4 (which keep 1), of 7 and of 8 entries.
void RunAll(int key_range, int operations) {
  const unsigned kinds[] = {0, 1, 2, 3, 4, 5, 6, 7};
  const int most = std::min(2 * key_range, 160);
  for (unsigned kind : kinds) {
    for (int order : {4, 7, 8}) {
      const unsigned seed = kind * 1000 + static_cast<unsigned>(key_range * 10 + order);
      SCOPED_TRACE("flags " + std::to_string(kind) + " order " + std::to_string(order) + " seed " +
                   std::to_string(seed));
      ZIXIndexShape shape{kind, order, 432, 24};
      RandomIndex(shape, key_range, most, seed).Run(operations / 24 + 1);
      if (testing::Test::HasFailure()) return;
    }
  }
}

TEST(ZIXIndexRandom, ShortRunsOfEachKindAgreeWithAMultimap) {
  for (int range : {3, 60}) RunAll(range, Rounds(6000));
}

// 100,000 operations each in a plain build.
TEST(SlowZIXIndexRandom, FewKeysAgreeWithAMultimap) {
  RunAll(7, Rounds(100000));
}
TEST(SlowZIXIndexRandom, SomeKeysAgreeWithAMultimap) {
  RunAll(50, Rounds(100000));
}
TEST(SlowZIXIndexRandom, ManyKeysAgreeWithAMultimap) {
  RunAll(1000, Rounds(100000));
}

}  // namespace
