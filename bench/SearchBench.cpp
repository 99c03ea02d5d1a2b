// The searches that the script operators use, in a text of words with the pattern at its end. The
// argument is the length of the text. The operators change the method at 300 bytes.

#include <benchmark/benchmark.h>

#include <string>

#include "base/core/string_search.h"

namespace {

using Search = int (*)(const char*, int, const char*, int);

template <Search search>
void Words(benchmark::State& state) {
  const std::string pattern = "the Needle";
  std::string text;
  while (text.size() + pattern.size() < static_cast<size_t>(state.range(0))) text += "the Words ";
  text += pattern;
  for (auto _ : state) {
    benchmark::DoNotOptimize(search(pattern.data(), static_cast<int>(pattern.size()), text.data(),
                                    static_cast<int>(text.size())));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}

// The shift table alone would need quadratic time for this text.
template <Search search>
void Repetition(benchmark::State& state) {
  std::string text(state.range(0), 'a');
  std::string pattern = 'b' + std::string(state.range(0) / 4, 'a');
  for (auto _ : state) {
    benchmark::DoNotOptimize(search(pattern.data(), static_cast<int>(pattern.size()), text.data(),
                                    static_cast<int>(text.size())));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}

}  // namespace

BENCHMARK(Words<bf_search>)->Name("bf_search")->Arg(30)->Arg(299)->Arg(10000);
BENCHMARK(Words<bm_search>)->Name("bm_search")->Arg(30)->Arg(299)->Arg(10000);
BENCHMARK(Words<bf_searchi>)->Name("bf_searchi")->Arg(30)->Arg(299)->Arg(10000);
BENCHMARK(Words<bm_searchi>)->Name("bm_searchi")->Arg(30)->Arg(299)->Arg(10000);
BENCHMARK(Words<bf_search_reverse>)->Name("bf_search_reverse")->Arg(299)->Arg(10000);
BENCHMARK(Words<bm_search_reverse>)->Name("bm_search_reverse")->Arg(299)->Arg(10000);
BENCHMARK(Words<rk_search>)->Name("rk_search")->Arg(299)->Arg(10000);
BENCHMARK(Repetition<bm_search>)->Name("bm_search/repetition")->Arg(100000);
BENCHMARK(Repetition<bm_searchi>)->Name("bm_searchi/repetition")->Arg(100000);
