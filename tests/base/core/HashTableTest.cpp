#include <algorithm>
#include <deque>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "base/core/HashTable.h"
#include "gtest/gtest.h"

namespace {

struct Item {
  explicit Item(std::string key, int number = 0) : name(std::move(key)), id(number) { ++alive; }
  ~Item() { --alive; }
  Item(const Item&) = delete;
  std::string name;
  int id;
  static int alive;
};

int Item::alive = 0;

struct ItemName {
  static std::string_view Key(Item* item) { return item->name; }
};

// Gives the tests access to protected fields.
class Table : public NamedHashTable<Item, ItemName> {
 public:
  using NamedHashTable::NamedHashTable;
  using HashTable<Item>::bucket_count;
  using HashTable<Item>::buckets;
  using HashTable<Item>::buckets_used;
  using HashTable<Item>::capacity;
  using HashTable<Item>::chain;
  using HashTable<Item>::high_water;
  using HashTable<Item>::iterator;

  int ChainLength(const char* key) const {
    int length = 0;
    for (int slot = buckets[hash(key, -1)]; slot >= 0; slot = chain[slot]) ++length;
    return length;
  }
};

// An instance whose keys are numbers instead of texts.
struct Setting {
  int id;
};

class SettingTable : public HashTable<Setting> {
 public:
  SettingTable() : HashTable(1, 0, 4, 8) {}
  using HashTable::hash;
  int hash(Setting* item) override {
    return hash(reinterpret_cast<const char*>(&item->id), sizeof item->id);
  }
  int Compare(Setting* a, Setting* b) override { return a->id < b->id ? -1 : a->id > b->id; }
  int Compare(Setting* item, const char* key, int) override {
    Setting wanted;
    memcpy(&wanted.id, key, sizeof wanted.id);
    return Compare(item, &wanted);
  }
  Setting* Lookup(int id) { return Find(reinterpret_cast<const char*>(&id), sizeof id); }
};

std::string Walk(HashTable<Item>& table) {
  std::string names;
  for (Item* item = table.First(); item; item = table.Next()) names += item->name;
  return names;
}

std::string WalkBack(HashTable<Item>& table) {
  std::string names;
  for (Item* item = table.Last(); item; item = table.Previous()) names += item->name;
  return names;
}

void Fill(Table& table, const char* letters) {
  for (; *letters; ++letters) table.Insert(new Item(std::string(1, *letters)));
}

TEST(HashTable, BucketsAreMadeWhenScanningNoLongerPays) {
  Table table(1, 1, 12, 512);
  EXPECT_EQ(table.buckets, nullptr);
  EXPECT_EQ(table.capacity, 512);
  EXPECT_EQ(table.bucket_count, 4096);
  EXPECT_EQ(table.Find("a", -1), nullptr);
  EXPECT_EQ(table.Remove("a", -1), nullptr);
  EXPECT_EQ(table.First(), nullptr);
  EXPECT_EQ(table.Last(), nullptr);
  EXPECT_EQ(table.Index(0), nullptr);
  table.Dump();
  EXPECT_EQ(table.buckets, nullptr);
  Fill(table, "abcdefghijklmnopqrstuvwx");
  EXPECT_EQ(table.buckets, nullptr);
  delete table.Remove("c", -1);
  EXPECT_EQ(table.Find("X", -1)->name, "x");
  Fill(table, "y");
  EXPECT_NE(table.buckets, nullptr);
  EXPECT_EQ(table.Entries(), 25);
  EXPECT_EQ(Walk(table), "abdefghijklmnopqrstuvwxy");
  EXPECT_EQ(table.Find("A", -1)->name, "a");
  EXPECT_EQ(table.Find("c", -1), nullptr);
}

TEST(HashTable, EqualKeysKeepTheirOrderWhenBucketsAreMade) {
  Table table(0, 1, 12, 512);
  std::deque<Item> items;
  for (int i = 0; i < 30; i++) {
    items.emplace_back("same", i);
    table.Insert(&items.back());
  }
  for (Item& item : items) EXPECT_EQ(table.Remove("SAME", -1), &item);
  EXPECT_EQ(table.Find("same", -1), nullptr);
}

TEST(HashTable, FindsWhatWasInserted) {
  Table table(1, 0, 12, 512);
  Fill(table, "abc");
  ASSERT_NE(table.Find("b", -1), nullptr);
  EXPECT_EQ(table.Find("b", -1)->name, "b");
  EXPECT_EQ(table.Find("bxx", 1)->name, "b");
  EXPECT_EQ(table.Find("d", -1), nullptr);
  EXPECT_EQ(table.Find(nullptr, 5), nullptr);
  Item same("c");
  EXPECT_EQ(table.Find(&same), table.Find("c", -1));
}

TEST(HashTable, NullElementIsIgnored) {
  Table table(1, 0, 12, 512);
  table.Insert(nullptr);
  EXPECT_EQ(table.Entries(), 0);
}

TEST(HashTable, EmptyKeysAreKeys) {
  Table table(1, 1, 12, 512);
  table.Insert(new Item(""));
  EXPECT_NE(table.Find("", -1), nullptr);
  EXPECT_NE(table.Find(nullptr, 0), nullptr);
  Item* removed = table.Remove("", 0);
  EXPECT_NE(removed, nullptr);
  delete removed;
}

TEST(HashTable, CaseCountsOnlyWithoutNocase) {
  Table exact(1, 0, 12, 512);
  Table nocase(1, 1, 12, 512);
  exact.Insert(new Item("Name"));
  nocase.Insert(new Item("Name"));
  EXPECT_EQ(exact.Find("NAME", -1), nullptr);
  EXPECT_NE(nocase.Find("NAME", -1), nullptr);
  EXPECT_EQ(nocase.Find("NAME", 3), nullptr);
  EXPECT_EQ(nocase.hash("NAME", -1), nocase.hash("name", 4));
}

TEST(HashTable, KeysOfDifferentLengthNeverCompareEqual) {
  // One bucket, so that only the comparison can tell the keys apart.
  Table table(1, 1, 0, 8);
  table.Insert(new Item("namespace"));
  EXPECT_EQ(table.Find("name", -1), nullptr);
  table.Insert(new Item("name"));
  EXPECT_EQ(table.Find("name", -1)->name, "name");
  EXPECT_EQ(table.Find("namespaces", -1), nullptr);
}

TEST(HashTable, CompareOrdersByLengthAndThenByBytes) {
  Table exact(0, 0, 12, 512);
  Table nocase(0, 1, 12, 512);
  Item b("b"), c("C"), aa("aa"), none(""), high("\xff");
  EXPECT_LT(exact.Compare(&b, &aa), 0);
  EXPECT_GT(exact.Compare(&aa, &b), 0);
  EXPECT_LT(exact.Compare(&none, &b), 0);
  EXPECT_EQ(exact.Compare(&none, &none), 0);
  EXPECT_GT(exact.Compare(&b, &c), 0);
  EXPECT_LT(nocase.Compare(&b, &c), 0);
  EXPECT_GT(exact.Compare(&high, &b), 0);
  EXPECT_EQ(nocase.Compare(&c, "c", 1), 0);
  EXPECT_LT(exact.Compare(&c, "c", 1), 0);
  EXPECT_LT(exact.Compare(&c, "Cc", 2), 0);
}

TEST(HashTable, GrowsBy512SlotsAndNoBuckets) {
  Table table(1, 0, 12, 512);
  for (int i = 0; i < 512; ++i) table.Insert(new Item("key" + std::to_string(i)));
  EXPECT_EQ(table.capacity, 512);
  table.Insert(new Item("key512"));
  EXPECT_EQ(table.capacity, 1024);
  EXPECT_EQ(table.bucket_count, 4096);
  for (int i = 0; i <= 512; ++i) {
    std::string key = "key" + std::to_string(i);
    ASSERT_NE(table.Find(key.c_str(), -1), nullptr) << key;
  }
  EXPECT_EQ(table.Index(512)->name, "key512");
}

TEST(HashTable, GrowsFromNoSlotsAtAll) {
  Table table(1, 0, 2, 0);
  Fill(table, "ab");
  EXPECT_EQ(table.capacity, 512);
  EXPECT_EQ(Walk(table), "ab");
}

TEST(HashTable, RemovedSlotsAreGapsForEver) {
  Table table(0, 0, 12, 512);
  Item a("a"), b("b"), c("c"), d("d");
  for (Item* item : {&a, &b, &c}) table.Insert(item);
  EXPECT_EQ(table.Remove("b", -1), &b);
  EXPECT_EQ(table.Entries(), 3);
  EXPECT_EQ(table.Index(1), nullptr);
  EXPECT_EQ(Walk(table), "ac");
  EXPECT_EQ(WalkBack(table), "ca");
  table.Insert(&d);
  EXPECT_EQ(table.Index(1), nullptr);
  EXPECT_EQ(table.Index(3), &d);
  EXPECT_EQ(table.Remove("b", -1), nullptr);
}

TEST(HashTable, IndexOutsideIsNull) {
  Table table(1, 0, 12, 512);
  Fill(table, "a");
  EXPECT_EQ(table.Index(-1), nullptr);
  EXPECT_EQ(table.Index(1), nullptr);
  EXPECT_EQ(table.Index(511), nullptr);
}

TEST(HashTable, EqualKeysAreFoundInTheOrderOfInsertion) {
  Table table(0, 1, 12, 512);
  Item first("name", 1), second("NAME", 2), third("Name", 3);
  for (Item* item : {&first, &second, &third}) table.Insert(item);
  EXPECT_EQ(table.Find("name", -1), &first);
  EXPECT_EQ(table.Remove("name", -1), &first);
  EXPECT_EQ(table.Find("name", -1), &second);
  EXPECT_EQ(table.Remove("name", -1), &second);
  EXPECT_EQ(table.Remove("name", -1), &third);
  EXPECT_EQ(table.Remove("name", -1), nullptr);
}

TEST(HashTable, BucketsUsedDropsWithEveryRemoval) {
  Table table(0, 0, 0, 8);
  Item a("a"), b("b");
  table.Insert(&a);
  table.Insert(&b);
  EXPECT_EQ(table.buckets_used, 1);
  table.Remove("a", -1);
  table.Remove("b", -1);
  EXPECT_EQ(table.buckets_used, -1);
}

TEST(HashTable, WalkIsAtTheEndsWhenItIsOver) {
  Table table(1, 0, 12, 512);
  Fill(table, "abc");
  EXPECT_EQ(table.First()->name, "a");
  EXPECT_EQ(table.Next()->name, "b");
  EXPECT_EQ(table.Current()->name, "b");
  EXPECT_EQ(table.Previous()->name, "a");
  EXPECT_EQ(table.Previous(), nullptr);
  EXPECT_EQ(table.iterator, -1);
  EXPECT_EQ(table.Current(), nullptr);
  EXPECT_EQ(table.Next()->name, "a");
  table.Next();
  table.Next();
  EXPECT_EQ(table.Next(), nullptr);
  EXPECT_EQ(table.iterator, 3);
  EXPECT_EQ(table.Next(), nullptr);
  EXPECT_EQ(table.iterator, 3);
  EXPECT_EQ(table.Current(), nullptr);
  EXPECT_EQ(table.Previous()->name, "c");
}

TEST(HashTable, RemovingDuringAWalkIsSafe) {
  Table table(1, 0, 12, 512);
  Fill(table, "abcdef");
  std::string seen;
  for (Item* item = table.First(); item; item = table.Next()) {
    seen += item->name;
    if (item->id++ == 0 && (item->name[0] - 'a') % 2 == 0) {
      delete table.Remove(item->name.c_str(), -1);
    }
  }
  EXPECT_EQ(seen, "abcdef");
  EXPECT_EQ(Walk(table), "bdf");
}

TEST(HashTable, DumpKeepsTheCapacityAndTheWalk) {
  {
    Table table(1, 0, 12, 1);
    Fill(table, "abc");
    EXPECT_EQ(table.capacity, 513);
    table.First();
    table.Next();
    table.Next();
    table.Dump();
    EXPECT_EQ(Item::alive, 0);
    EXPECT_EQ(table.Entries(), 0);
    EXPECT_EQ(table.buckets_used, 0);
    EXPECT_EQ(table.capacity, 513);
    EXPECT_EQ(table.iterator, 2);
    EXPECT_EQ(table.Current(), nullptr);
    EXPECT_EQ(table.Previous(), nullptr);
    EXPECT_EQ(table.Find("a", -1), nullptr);
    Fill(table, "d");
    EXPECT_EQ(Walk(table), "d");
  }
  EXPECT_EQ(Item::alive, 0);
}

TEST(HashTable, WalkLeftBehindADumpIsSafe) {
  Table table(1, 0, 12, 512);
  Fill(table, "abcdef");
  table.Last();
  table.Dump();
  EXPECT_EQ(table.Next(), nullptr);
  EXPECT_EQ(table.iterator, 0);
  table.Dump();
  Fill(table, "xy");
  EXPECT_EQ(table.Previous(), nullptr);
}

TEST(HashTable, OwningTableDeletesWhatIsLeft) {
  {
    Table table(1, 0, 12, 512);
    Fill(table, "abc");
    delete table.Remove("b", -1);
    EXPECT_EQ(Item::alive, 2);
  }
  EXPECT_EQ(Item::alive, 0);
}

TEST(HashTable, CopySharesTheElements) {
  Table table(0, 1, 12, 4);
  std::vector<Item*> items;
  for (char letter : std::string("abcdef")) {
    items.push_back(new Item(std::string(1, letter)));
    table.Insert(items.back());
  }
  table.Remove("c", -1);
  table.First();
  table.Next();
  Table copy(table);
  EXPECT_EQ(copy.iterator, 0);
  EXPECT_EQ(copy.capacity, 516);
  EXPECT_EQ(Walk(copy), "abdef");
  EXPECT_EQ(copy.Find("A", -1), items[0]);
  copy.Remove("a", -1);
  EXPECT_EQ(table.Find("a", -1), items[0]);
  EXPECT_EQ(copy.Find("a", -1), nullptr);
  for (Item* item : items) delete item;
}

TEST(HashTable, CopyOfAnEmptyTableIsUsable) {
  Table table(1, 1, 12, 4);
  Table copy(table);
  EXPECT_EQ(copy.buckets, nullptr);
  Fill(copy, "a");
  EXPECT_EQ(Walk(copy), "a");
  EXPECT_EQ(Walk(table), "");
}

TEST(HashTable, BaseFindsWhatTheNamedTableFinds) {
  Table table(0, 1, 2, 8);
  HashTable<Item>& base = table;
  std::deque<Item> items;
  for (int i = 0; i < 40; ++i) {
    items.emplace_back(std::string(1 + i % 5, 'k') + std::to_string(i * 7 % 10));
    if (i % 2) {
      base.Insert(&items.back());
    } else {
      table.Insert(&items.back());
    }
  }
  for (Item& item : items) {
    EXPECT_EQ(base.Find(item.name.c_str(), -1), table.Find(item.name.c_str(), -1));
    EXPECT_EQ(base.Find(&item), table.Find(&item));
    EXPECT_EQ(base.hash(&item), table.hash(item.name.c_str(), -1));
  }
  while (Item* item = table.First()) {
    EXPECT_NE(base.Remove(item->name.c_str(), -1), nullptr);
  }
}

TEST(HashTable, InstanceWithNumbersAsKeys) {
  SettingTable table;
  for (int id = 1; id <= 100; ++id) table.Insert(new Setting{id * 3});
  EXPECT_EQ(table.Lookup(150)->id, 150);
  EXPECT_EQ(table.Lookup(151), nullptr);
  Setting same = {33};
  EXPECT_EQ(table.Find(&same)->id, 33);
  int id = 33;
  delete table.Remove(reinterpret_cast<const char*>(&id), sizeof id);
  EXPECT_EQ(table.Lookup(33), nullptr);
}

TEST(HashTable, AgreesWithAModelUnderRandomOperations) {
  std::mt19937 random(20261121);
  for (int round = 0; round < 20; ++round) {
    int nocase = round & 1;
    Table table(1, nocase, static_cast<int>(random() % 4), 4);
    // For each key in lower case, the elements in the order of insertion.
    std::multimap<std::string, Item*> model;
    std::vector<Item*> slots;
    for (int step = 0; step < 3000; ++step) {
      std::string key(random() % 4, 0);
      for (char& c : key) c = "aAbB"[random() % 4];
      std::string folded = key;
      if (nocase) {
        for (char& c : folded) c = static_cast<char>(c | 32);
      }
      auto found = model.lower_bound(folded);
      Item* expected = found != model.end() && found->first == folded ? found->second : nullptr;
      switch (random() % 4) {
        case 0:
        case 1: {
          auto item = new Item(key, step);
          table.Insert(item);
          model.emplace(folded, item);
          slots.push_back(item);
          break;
        }
        case 2: ASSERT_EQ(table.Find(key.data(), static_cast<int>(key.size())), expected); break;
        default: {
          Item* removed = table.Remove(key.data(), static_cast<int>(key.size()));
          ASSERT_EQ(removed, expected);
          if (!removed) break;
          model.erase(found);
          *std::find(slots.begin(), slots.end(), removed) = nullptr;
          delete removed;
        }
      }
    }
    ASSERT_EQ(table.Entries(), static_cast<int>(slots.size()));
    Item* walked = table.First();
    for (size_t i = 0; i < slots.size(); ++i) {
      ASSERT_EQ(table.Index(static_cast<int>(i)), slots[i]);
      if (!slots[i]) continue;
      ASSERT_EQ(walked, slots[i]);
      walked = table.Next();
    }
    EXPECT_EQ(walked, nullptr);
  }
  EXPECT_EQ(Item::alive, 0);
}

TEST(KeyText, ResolvesNullAndUnmeasuredKeys) {
  EXPECT_EQ(KeyText("name"), "name");
  EXPECT_EQ(KeyText("name", -1), "name");
  EXPECT_EQ(KeyText("name", 2), "na");
  EXPECT_EQ(KeyText(nullptr), "");
}

}  // namespace
