// Doubles to digits, by the kinds of numbers that scripts write. The second group measures the way
// through big integers alone.

#include <benchmark/benchmark.h>

#include <vector>

#include "base/core/dtoa.h"

namespace {

std::vector<double> Integers() {
  std::vector<double> values;
  for (int i = 0; i < 1000; ++i) values.push_back(i * 7919);
  return values;
}

std::vector<double> Prices() {
  std::vector<double> values;
  for (int i = 0; i < 1000; ++i) values.push_back((i * 7919 % 100000) / 100.0);
  return values;
}

std::vector<double> Thirds() {
  std::vector<double> values;
  for (int i = 1; i <= 1000; ++i) values.push_back(i / 3.0);
  return values;
}

// Values exactly between two results, so that rounding to two places needs a closer look.
std::vector<double> Halves() {
  std::vector<double> values;
  for (int i = 0; i < 1000; ++i) values.push_back((i * 10 + 5) / 1000.0);
  return values;
}

std::vector<double> Extremes() {
  std::vector<double> values;
  for (int i = 1; i <= 1000; ++i) values.push_back(i % 2 ? i * 1.1e-300 : i * 1.1e300);
  return values;
}

void Convert(benchmark::State& state, std::vector<double> (*make)(), int mode, int digits) {
  std::vector<double> values = make();
  size_t i = 0;
  char buffer[512];
  for (auto _ : state) {
    int point;
    int sign;
    benchmark::DoNotOptimize(dtoa(buffer, sizeof buffer, mode, digits, &point, &sign, values[i]));
    benchmark::ClobberMemory();
    if (++i == values.size()) i = 0;
  }
}

BENCHMARK_CAPTURE(Convert, integers, Integers, 5, 20);
BENCHMARK_CAPTURE(Convert, prices, Prices, 5, 20);
BENCHMARK_CAPTURE(Convert, thirds, Thirds, 5, 20);
BENCHMARK_CAPTURE(Convert, thirds_to_two_places, Thirds, 5, 2);
BENCHMARK_CAPTURE(Convert, halves_to_two_places, Halves, 5, 2);
BENCHMARK_CAPTURE(Convert, extremes, Extremes, 5, 20);
BENCHMARK_CAPTURE(Convert, exactly_integers, Integers, 9, 20);
BENCHMARK_CAPTURE(Convert, exactly_prices, Prices, 9, 20);
BENCHMARK_CAPTURE(Convert, exactly_thirds, Thirds, 9, 20);
BENCHMARK_CAPTURE(Convert, exactly_extremes, Extremes, 9, 400);

}  // namespace
