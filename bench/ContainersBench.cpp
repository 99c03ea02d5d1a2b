// Strings, buffers and containers, as a request uses them: it makes many that stay empty, fills a
// few, looks names up, and builds a page out of small writes.

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "base/core/BaseTemplates.h"
#include "base/core/LinkBuffer.h"
#include "base/core/StringClass.h"

namespace {

struct Entry {
  std::string name;
};

struct EntryName {
  static std::string_view Key(Entry* entry) { return entry->name; }
};

using Table = NamedHashTable<Entry, EntryName>;

std::vector<Entry> Entries(int count) {
  std::vector<Entry> entries;
  for (int i = 0; i < count; ++i) entries.push_back({"variable_" + std::to_string(i * 7919)});
  return entries;
}

struct Numbered {
  int key;
};

class Tree : public SplayTree<Numbered, const int&> {
 public:
  Tree() : SplayTree(0) {}
  const int& Key(Numbered* item) override { return item->key; }
  int Compare(const int& key, Numbered* item) override {
    return key < item->key ? -1 : key > item->key;
  }
};

void FifteenUnusedTables(benchmark::State& state) {
  for (auto _ : state) {
    for (int i = 0; i < 15; ++i) {
      Table table(1, 1, 12, 512);
      benchmark::DoNotOptimize(&table);
    }
  }
}
BENCHMARK(FifteenUnusedTables);

void TableOfOneElement(benchmark::State& state) {
  std::vector<Entry> entries = Entries(1);
  for (auto _ : state) {
    Table table(0, 1, 12, 512);
    table.Insert(&entries[0]);
    benchmark::DoNotOptimize(&table);
  }
}
BENCHMARK(TableOfOneElement);

void FillTable(benchmark::State& state) {
  std::vector<Entry> entries = Entries(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    Table table(0, 1, 12, 512);
    for (Entry& entry : entries) table.Insert(&entry);
    benchmark::DoNotOptimize(&table);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(FillTable)->Arg(50)->Arg(1000)->Arg(20000);

void FindNamed(benchmark::State& state) {
  std::vector<Entry> entries = Entries(static_cast<int>(state.range(0)));
  Table table(0, 1, 12, 512);
  for (Entry& entry : entries) table.Insert(&entry);
  size_t i = 0;
  for (auto _ : state) {
    const std::string& name = entries[i].name;
    benchmark::DoNotOptimize(table.Find(name.data(), static_cast<int>(name.size())));
    if (++i == entries.size()) i = 0;
  }
}
BENCHMARK(FindNamed)->Arg(50)->Arg(1000)->Arg(20000);

// With the virtual comparison of the base class.
void FindInBase(benchmark::State& state) {
  std::vector<Entry> entries = Entries(static_cast<int>(state.range(0)));
  Table table(0, 1, 12, 512);
  for (Entry& entry : entries) table.Insert(&entry);
  HashTable<Entry>* base = &table;
  size_t i = 0;
  for (auto _ : state) {
    const std::string& name = entries[i].name;
    benchmark::DoNotOptimize(base->Find(name.data(), static_cast<int>(name.size())));
    if (++i == entries.size()) i = 0;
  }
}
BENCHMARK(FindInBase)->Arg(50)->Arg(1000)->Arg(20000);

void SplaySequential(benchmark::State& state) {
  std::vector<Numbered> items(state.range(0));
  Tree tree;
  for (size_t i = 0; i < items.size(); ++i) {
    items[i].key = static_cast<int>(i);
    tree.Insert(&items[i]);
  }
  int key = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(tree.Find(key));
    if (++key == static_cast<int>(items.size())) key = 0;
  }
}
BENCHMARK(SplaySequential)->Arg(100)->Arg(100000);

void SplayRandom(benchmark::State& state) {
  std::vector<Numbered> items(state.range(0));
  Tree tree;
  for (size_t i = 0; i < items.size(); ++i) {
    items[i].key = static_cast<int>(i);
    tree.Insert(&items[i]);
  }
  unsigned random = 1;
  for (auto _ : state) {
    random = random * 1664525u + 1013904223u;
    benchmark::DoNotOptimize(tree.Find(static_cast<int>((random >> 8) % items.size())));
  }
}
BENCHMARK(SplayRandom)->Arg(100)->Arg(100000);

void SplaySame(benchmark::State& state) {
  std::vector<Numbered> items(1000);
  Tree tree;
  for (size_t i = 0; i < items.size(); ++i) {
    items[i].key = static_cast<int>(i);
    tree.Insert(&items[i]);
  }
  for (auto _ : state) benchmark::DoNotOptimize(tree.Find(500));
}
BENCHMARK(SplaySame);

void ListWalk(benchmark::State& state) {
  std::vector<Numbered> items(100);
  List<Numbered> list(0);
  for (Numbered& item : items) list.Insert(&item, ListTail);
  for (auto _ : state) {
    for (Numbered* item = list.First(); item; item = list.Next()) benchmark::DoNotOptimize(item);
  }
  state.SetItemsProcessed(state.iterations() * 100);
}
BENCHMARK(ListWalk);

void StringUnused(benchmark::State& state) {
  for (auto _ : state) {
    String s;
    benchmark::DoNotOptimize(&s);
  }
}
BENCHMARK(StringUnused);

void StringOfText(benchmark::State& state) {
  std::string text(state.range(0), 'x');
  for (auto _ : state) {
    String s(text.data(), static_cast<int>(text.size()));
    benchmark::DoNotOptimize(&s);
  }
}
BENCHMARK(StringOfText)->Arg(10)->Arg(100);

void StringBytes(benchmark::State& state) {
  for (auto _ : state) {
    String s;
    for (int i = 0; i < 100; ++i) s.cat('x');
    benchmark::DoNotOptimize(&s);
  }
  state.SetItemsProcessed(state.iterations() * 100);
}
BENCHMARK(StringBytes);

void PageInALinkBuffer(benchmark::State& state) {
  for (auto _ : state) {
    LinkBuffer buffer(512, 4096);
    for (int i = 0; i < 500; ++i) buffer.cat("<td>some cell</td>", 18);
    int length;
    benchmark::DoNotOptimize(buffer.data(&length, nullptr));
  }
  state.SetItemsProcessed(state.iterations() * 500);
}
BENCHMARK(PageInALinkBuffer);

}  // namespace
