// The key hash and the comparison after it: the inner loop of every name look-up. The argument is
// the length of the name.

#include <benchmark/benchmark.h>

#include <string>

#include "base/core/hash.h"
#include "base/core/memcmpi.h"

namespace {

std::string Name(size_t length) {
  static const char letters[] = "Content_Type_Of_A_Variable_That_Is_Rather_Long_0123456789abcdef";
  return std::string(letters, length);
}

template <unsigned (*function)(const void*, unsigned, unsigned)>
void HashName(benchmark::State& state) {
  std::string name = Name(state.range(0));
  for (auto _ : state) {
    benchmark::DoNotOptimize(name.data());
    benchmark::DoNotOptimize(function(name.data(), static_cast<unsigned>(name.size()), 0));
  }
}

void CompareNames(benchmark::State& state) {
  std::string a = Name(state.range(0));
  std::string b = a;
  for (char& c : b) c = static_cast<char>(c & 0x40 ? c | 0x20 : c);
  b.back() = a.back();
  for (auto _ : state) {
    benchmark::DoNotOptimize(a.data());
    benchmark::DoNotOptimize(memcmpi(a.data(), b.data(), a.size()));
  }
}

}  // namespace

BENCHMARK(HashName<hash>)->Name("hash")->Arg(4)->Arg(8)->Arg(12)->Arg(20)->Arg(60);
BENCHMARK(HashName<hashi>)->Name("hashi")->Arg(4)->Arg(8)->Arg(12)->Arg(20)->Arg(60);
BENCHMARK(CompareNames)->Name("memcmpi")->Arg(4)->Arg(8)->Arg(12)->Arg(20)->Arg(60);
