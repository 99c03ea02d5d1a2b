#include "base/compiled/StoredNameTable.h"

#include <gtest/gtest.h>

#include <new>
#include <random>
#include <string>
#include <vector>

#include "base/core/ThreadMemory.h"
#include "tests/support/CompiledFileBytes.h"
#include "tests/support/FailingAllocator.h"
#include "tests/support/GrowthOfTime.h"

using CompiledFileBytes::LE;
using CompiledFileBytes::LE16;
using CompiledFileBytes::LE32;

namespace {

// A table and its names, as an owner holds them.
struct NamedTable {
  explicit NamedTable(int bits, int capacity = 4) : table(bits, capacity) {}

  auto NameOf() const {
    return [this](int i, int* length) {
      const std::string& name = names[static_cast<size_t>(i)];
      *length = static_cast<int>(name.size());
      return name.data();
    };
  }

  int Find(const std::string& name) const {
    return table.Find(name.data(), static_cast<int>(name.size()), NameOf());
  }
  int Insert(const std::string& name) {
    names.push_back(name);
    table.MakeRoom(4);
    return table.Insert(name.data(), static_cast<int>(name.size()), NameOf());
  }
  // Reads a table in the form in which a file states it.
  void Read(const std::vector<std::string>& stored_names, int bits, int occupied,
            const std::string& buckets, const std::vector<int>& links) {
    names = stored_names;
    std::string bytes;
    for (int link : links) bytes += LE32(link);
    StoredNameTable::Head head{occupied, bits, static_cast<int>(names.size())};
    table.Read(head, Bytes(buckets), Bytes(bytes), 4);
  }
  std::string Written(int reserved = 0) const {
    std::string bytes;
    table.Write(&bytes, reserved);
    return bytes;
  }

  static const unsigned char* Bytes(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
  }

  std::vector<std::string> names;
  StoredNameTable table;
};

TEST(StoredNameTable, AnEmptyTableFindsNothing) {
  NamedTable names(8);
  EXPECT_EQ(names.Find("a"), -1);
  EXPECT_EQ(names.Find(""), -1);
  EXPECT_EQ(names.table.bucket_count(), 256);
  EXPECT_EQ(names.table.capacity(), 4);
  EXPECT_EQ(names.table.buckets_used(), 0);
  EXPECT_EQ(names.Written(), LE16(0) + LE(8, 1) + LE32(0));
}

TEST(StoredNameTable, NamesAreFoundWithoutRegardToCase) {
  NamedTable names(8);
  EXPECT_EQ(names.Insert("Width"), 0);
  EXPECT_EQ(names.Insert("height"), 1);
  EXPECT_EQ(names.Insert(""), 2);
  EXPECT_EQ(names.Find("WIDTH"), 0);
  EXPECT_EQ(names.Find("Height"), 1);
  EXPECT_EQ(names.Find(""), 2);
  EXPECT_EQ(names.Find("widt"), -1);
}

TEST(StoredNameTable, OfEqualNamesTheFirstIsFound) {
  NamedTable names(0);
  names.Insert("name");
  names.Insert("NAME");
  EXPECT_EQ(names.Find("Name"), 0);
  EXPECT_EQ(names.table.next(0), 1);
}

TEST(StoredNameTable, ChainsAreSortedByLengthThenText) {
  NamedTable names(0);  // one bucket
  for (const char* name : {"dd", "a", "ccc", "B", "aa", "bb"}) names.Insert(name);
  std::vector<std::string> order;
  for (int i = names.table.first(0); i != -1; i = names.table.next(i))
    order.push_back(names.names[static_cast<size_t>(i)]);
  EXPECT_EQ(order, (std::vector<std::string>{"a", "B", "aa", "bb", "dd", "ccc"}));
  EXPECT_EQ(names.table.buckets_used(), 1);
}

TEST(StoredNameTable, ASearchEndsAtTheFirstNameThatSortsLater) {
  // The chain is out of order: "b" follows "cc", so no search reaches it.
  NamedTable names(0);
  names.Read({"cc", "b"}, 0, 1, LE16(0) + LE32(0), {1, -1});
  EXPECT_EQ(names.Find("cc"), 0);
  EXPECT_EQ(names.Find("b"), -1);
}

TEST(StoredNameTable, ManyNamesAllKeepTheirEntries) {
  for (int bits : {0, 3, 12, 16}) {
    SCOPED_TRACE(bits);
    NamedTable names(bits);
    for (int i = 0; i < 500; i++) ASSERT_EQ(names.Insert("name" + std::to_string(i)), i);
    for (int i = 0; i < 500; i++) ASSERT_EQ(names.Find("NAME" + std::to_string(i)), i);
    EXPECT_EQ(names.Find("name500"), -1);
    EXPECT_EQ(names.table.count(), 500);
    EXPECT_EQ(names.table.capacity(), 500);
  }
}

TEST(StoredNameTable, RoomThatThereIsNoMemoryForIsMadeLater) {
  if (!ThreadMemory::NewIsHere()) GTEST_SKIP() << "the operators are the sanitizer's";
  NamedTable names(8);
  int refused = 0;
  for (int i = 0; i < 300; i++) {
    const int capacity = names.table.capacity();
    bool failed = false;
    {
      const FailingAllocator allocator(1, FailingAllocator::Once);
      try {
        names.table.MakeRoom(4);
      } catch (const std::bad_alloc&) {
        failed = true;
      }
    }
    if (failed) {
      refused++;
      EXPECT_EQ(names.table.capacity(), capacity);
      EXPECT_EQ(names.table.count(), i);
    }
    EXPECT_EQ(names.Insert("name" + std::to_string(i)), i);
    ASSERT_LT(i, names.table.capacity());
  }
  EXPECT_GT(refused, 3);
  for (int i = 0; i < 300; i++) EXPECT_EQ(names.Find("name" + std::to_string(i)), i);
}

// Long chains are searched by halving; their links stay what a file would have.
TEST(StoredNameTable, ALongChainIsSortedAndFindsTheFirstOfEqualNames) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  NamedTable names(1);
  std::vector<int> first(3000, -1);
  for (int i = 0; i < 6000; i++) {
    const size_t number = random() % first.size();
    const int entry = names.Insert((random() % 2 ? "n" : "N") + std::to_string(number));
    ASSERT_EQ(entry, i);
    if (first[number] < 0) first[number] = entry;
    const size_t other = random() % first.size();
    ASSERT_EQ(names.Find("n" + std::to_string(other)), first[other]);
  }
  for (int bucket = 0; bucket < 2; bucket++) {
    int before = -1;
    for (int i = names.table.first(bucket); i != -1; before = i, i = names.table.next(i)) {
      if (before < 0) continue;
      const std::string& a = names.names[static_cast<size_t>(before)];
      const std::string& b = names.names[static_cast<size_t>(i)];
      const int order =
          CompareNames(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()));
      ASSERT_TRUE(order < 0 || (order == 0 && before < i)) << a << " " << b;
    }
  }
  EXPECT_EQ(names.Find("n3000"), -1);
  EXPECT_EQ(names.Find("a"), -1);
  EXPECT_EQ(names.Find("z99999999"), -1);
  // A copy has the same names.
  NamedTable copy(0);
  copy.names = names.names;
  const StoredNameTable second(names.table);
  for (size_t number = 0; number < first.size(); number++) {
    const std::string name = "n" + std::to_string(number);
    ASSERT_EQ(second.Find(name.data(), static_cast<int>(name.size()), copy.NameOf()),
              first[number]);
  }
}

TEST(StoredNameTable, ManyNamesInFewBucketsTakeNearlyLinearTime) {
  ExpectNearLinear(10000, [](int count) {
    NamedTable names(8);
    for (int i = 0; i < count; i++) names.Insert("name" + std::to_string(i));
    for (int i = 0; i < count; i++) ASSERT_EQ(names.Find("name" + std::to_string(i)), i);
  });
}

TEST(StoredNameTable, AWrittenTableIsTheFormats) {
  std::vector<std::string> texts;
  NamedTable names(4);
  for (int i = 0; i < 60; i++) {
    texts.push_back("n" + std::to_string(i * i));
    names.Insert(texts.back());
  }
  CompiledFileBytes::NameTable expected(texts, 4);
  EXPECT_EQ(names.Written(), expected.head + expected.buckets);
  EXPECT_EQ(names.Written(4), expected.head + LE32(0) + expected.buckets);
  for (int i = 0; i < 60; i++)
    EXPECT_EQ(names.table.next(i), expected.links[static_cast<size_t>(i)]);
}

TEST(StoredNameTable, AStoredTableIsTakenAsItIs) {
  std::vector<std::string> texts = {"alpha", "beta", "gamma", "delta"};
  CompiledFileBytes::NameTable stored(texts, 12);
  NamedTable names(8);
  int occupied = static_cast<int>(stored.buckets.size() / 6);
  names.Read(texts, 12, occupied, stored.buckets, stored.links);
  EXPECT_EQ(names.table.bits(), 12);
  EXPECT_EQ(names.table.bucket_count(), 4096);
  EXPECT_EQ(names.table.buckets_used(), occupied);
  for (int i = 0; i < 4; i++) EXPECT_EQ(names.Find(texts[static_cast<size_t>(i)]), i);
  EXPECT_EQ(names.Find("epsilon"), -1);
  EXPECT_EQ(names.Written(), stored.head + stored.buckets);
}

TEST(StoredNameTable, AStoredTableTakesFurtherNames) {
  std::vector<std::string> texts = {"alpha", "beta"};
  CompiledFileBytes::NameTable stored(texts, 4);
  NamedTable names(8);
  names.Read(texts, 4, static_cast<int>(stored.buckets.size() / 6), stored.buckets, stored.links);
  for (int i = 0; i < 100; i++) ASSERT_EQ(names.Insert("x" + std::to_string(i)), i + 2);
  EXPECT_EQ(names.Find("ALPHA"), 0);
  EXPECT_EQ(names.Find("beta"), 1);
  EXPECT_EQ(names.Find("x99"), 101);
}

TEST(StoredNameTable, BucketsInAnyOrderAreTakenAndTheLastOfOneRemains) {
  std::vector<std::string> texts = {"alpha", "beta", "gamma"};
  CompiledFileBytes::NameTable stored(texts, 12);
  ASSERT_EQ(stored.buckets.size(), 18U);
  std::string reversed =
      stored.buckets.substr(12, 6) + stored.buckets.substr(6, 6) + stored.buckets.substr(0, 6);
  NamedTable names(8);
  names.Read(texts, 12, 3, reversed, stored.links);
  for (int i = 0; i < 3; i++) EXPECT_EQ(names.Find(texts[static_cast<size_t>(i)]), i);

  std::string twice = LE16(0) + LE32(1) + LE16(0) + LE32(0);
  names.Read({"a", "b"}, 0, 2, twice, {-1, -1});
  EXPECT_EQ(names.Find("a"), 0);
  EXPECT_EQ(names.Find("b"), -1);
  EXPECT_EQ(names.table.buckets_used(), 2) << "as the file states it";
}

TEST(StoredNameTable, BucketsBeyondTheCountAreIgnored) {
  NamedTable names(8);
  names.Read({"a"}, 0, 2, LE16(0) + LE32(0) + LE16(0xFFFF) + LE32(0), {-1});
  EXPECT_EQ(names.Find("a"), 0);
}

TEST(StoredNameTable, HeadsAndLinksOutOfRangeEndTheLookup) {
  for (long bad : {1L, 2L, -1L, -2L, 0x7FFFFFFFL, -0x80000000L}) {
    SCOPED_TRACE(bad);
    NamedTable names(8);
    names.Read({"b"}, 0, 1, LE16(0) + LE32(bad), {-1});
    EXPECT_EQ(names.Find("b"), -1);
    names.Read({"b"}, 0, 1, LE16(0) + LE32(0), {static_cast<int>(bad)});
    EXPECT_EQ(names.Find("b"), 0);
    EXPECT_EQ(names.Find("c"), -1);
  }
}

TEST(StoredNameTable, ChainsWithoutAnEndEndTheLookup) {
  NamedTable names(8);
  names.Read({"a", "b"}, 0, 1, LE16(0) + LE32(0), {0, 0});
  EXPECT_EQ(names.Find("z"), -1);
  names.Read({"a", "b"}, 0, 1, LE16(0) + LE32(0), {1, 0});
  EXPECT_EQ(names.Find("z"), -1);
  EXPECT_EQ(names.Find("b"), 1);
}

TEST(StoredNameTable, NamesEnterADamagedTableWithoutHarm) {
  const std::vector<std::vector<int>> damaged = {{0, 0}, {1, 0}, {2, -1}, {-7, 1}, {1, 1000000}};
  for (int head : {0, 1, 2, -9}) {
    for (const auto& links : damaged) {
      NamedTable names(8);
      names.Read({"a", "b"}, 0, 1, LE16(0) + LE32(head), links);
      for (int i = 0; i < 20; i++) {
        std::string name = "n" + std::to_string(i);
        names.Insert(name);
        names.Find(name);
        names.Find("zzzz");
      }
      EXPECT_EQ(names.table.count(), 22);
    }
  }
}

TEST(StoredNameTable, ACopyIsIndependent) {
  NamedTable names(8);
  names.Insert("one");
  StoredNameTable copy(names.table);
  names.Insert("two");
  EXPECT_EQ(copy.count(), 1);
  EXPECT_EQ(names.table.count(), 2);

  NamedTable stored(8);
  stored.Read({"a"}, 0, 1, LE16(0) + LE32(0), {-1});
  StoredNameTable other(stored.table);
  EXPECT_EQ(other.first(0), 0);
  EXPECT_EQ(other.next(0), -1);
}

TEST(StoredNameTable, HeadsAreDecodedAndJudged) {
  const struct {
    const char* label;
    std::string bytes;
    int occupied, bits, count;
    bool valid;
  } cases[] = {
      {"plain", LE16(3) + LE(8, 1) + LE32(5), 3, 8, 5, true},
      {"sixteen bits", LE16(0xFFFF) + LE(16, 1) + LE32(0), 0xFFFF, 16, 0, true},
      {"seventeen bits", LE16(0) + LE(17, 1) + LE32(0), 0, 17, 0, false},
      {"most bits", LE16(0) + LE(255, 1) + LE32(0), 0, 255, 0, false},
      {"negative count", LE16(0) + LE(8, 1) + LE32(-1), 0, 8, -1, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    auto head = StoredNameTable::Head::Decode(NamedTable::Bytes(c.bytes));
    EXPECT_EQ(head.occupied, c.occupied);
    EXPECT_EQ(head.bits, c.bits);
    EXPECT_EQ(head.count, c.count);
    EXPECT_EQ(head.valid(), c.valid);
  }
}

}  // namespace
