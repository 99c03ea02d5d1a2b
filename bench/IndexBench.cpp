// An index file on a disk: the cost of an insertion, a search and a step with their locks, in an
// index of 100,000 keys that were inserted in random order.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "base/database/ZIXIndexFile.h"
#include "base/systems/unix/UNIXReentrantFile.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TestApplication.h"

namespace {

constexpr unsigned kKeys = 100000;

std::string Key(unsigned i) {
  char text[32];
  snprintf(text, sizeof(text), "customer %06u", (i * 7919u + 12345u) % 100003u);
  return text;
}

void Require(bool good) {
  if (!good) abort();
}

struct Index {
  explicit Index(unsigned flags) {
    application.SetFileManager(&files);
    Require(files.InitializeDataDirectory(directory.path().c_str()));
    const std::string expression = "name";
    Require(file.Create(ZephPath_Data, "i.zix",
                        reinterpret_cast<const unsigned char*>(expression.c_str()), flags));
  }
  void Insert(unsigned i) {
    const std::string key = Key(i);
    Require(file.Insert(i + 1, reinterpret_cast<const unsigned char*>(key.c_str()),
                        static_cast<int>(key.size())));
  }

  TemporaryDirectory directory;
  TestApplication application;
  UNIXReentrantFileManager files{&application};
  ZIXIndexFile file{&application};
};

Index& Filled() {
  static Index index(ZIXIndex_Text);
  if (index.file.updatecount() == 0)
    for (unsigned i = 0; i < kKeys; i++) index.Insert(i);
  return index;
}

void BM_Insert(benchmark::State& state) {
  Index index(static_cast<unsigned>(state.range(0)));
  unsigned i = 0;
  for (auto _ : state) index.Insert(i++);
}
BENCHMARK(BM_Insert)->ArgName("flags")->Arg(0)->Arg(ZIXIndex_Text)->Iterations(kKeys);

void BM_Find(benchmark::State& state) {
  Index& index = Filled();
  uint32_t random = 12345;
  for (auto _ : state) {
    random = random * 1103515245u + 12345u;
    const unsigned i = (random >> 8) % kKeys;
    const std::string key = Key(i);
    unsigned record = 0;
    int found = 0;
    Require(index.file._Find(reinterpret_cast<const unsigned char*>(key.c_str()),
                             static_cast<int>(key.size()), 1, &record, &found, 1));
    Require(found && record == i + 1);
  }
}
BENCHMARK(BM_Find);

void BM_Next(benchmark::State& state) {
  Index& index = Filled();
  unsigned record = 0;
  for (auto _ : state)
    Require(record ? index.file._Next(&record, nullptr, 1) : index.file._First(&record, 1));
}
BENCHMARK(BM_Next)->Iterations(kKeys + 1);

// Deletes an entry and inserts it again.
void BM_DeleteAndInsert(benchmark::State& state) {
  Index& index = Filled();
  unsigned i = 0;
  for (auto _ : state) {
    const std::string key = Key(i);
    Require(index.file.Delete(i + 1, reinterpret_cast<const unsigned char*>(key.c_str()),
                              static_cast<int>(key.size())));
    index.Insert(i);
    i = (i + 7919) % kKeys;
  }
}
BENCHMARK(BM_DeleteAndInsert);

}  // namespace
