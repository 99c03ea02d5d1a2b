// Numbers to text and back, the encoders, and the password hash.

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "base/core/UFCrypt.h"
#include "base/host/ZephApplication.h"

namespace {

using App = ZephApplication;

void Itos(benchmark::State& state) {
  int value = 1;
  for (auto _ : state) {
    int length;
    int size;
    char* text = App::itos(value, &length, &size);
    benchmark::DoNotOptimize(text);
    delete[] text;
    value = value * 1103515245 + 12345;
  }
}
BENCHMARK(Itos);

// The values that scripts print: whole numbers, amounts with two decimals, quotients.
std::vector<double> Values(int kind) {
  std::mt19937_64 random(1);
  std::vector<double> values;
  for (int i = 0; i < 1024; i++) {
    const double whole = static_cast<double>(random() % 1000000);
    values.push_back(kind == 0 ? whole : kind == 1 ? whole / 100 : whole / 7);
  }
  return values;
}

void Dtos(benchmark::State& state) {
  const std::vector<double> values = Values(static_cast<int>(state.range(0)));
  size_t i = 0;
  for (auto _ : state) {
    int length;
    int size;
    char* text = App::dtos(values[i++ % 1024], &length, &size, -1);
    benchmark::DoNotOptimize(text);
    delete[] text;
  }
}
BENCHMARK(Dtos)->ArgName("whole, cents, quotients")->DenseRange(0, 2);

void DtosTwoDecimals(benchmark::State& state) {
  const std::vector<double> values = Values(2);
  size_t i = 0;
  for (auto _ : state) {
    int length;
    int size;
    char* text = App::dtos(values[i++ % 1024], &length, &size, 2);
    benchmark::DoNotOptimize(text);
    delete[] text;
  }
}
BENCHMARK(DtosTwoDecimals);

void Stod(benchmark::State& state) {
  std::vector<std::string> texts;
  for (double value : Values(static_cast<int>(state.range(0)))) {
    const std::unique_ptr<char[]> text(App::dtos(value, nullptr, nullptr, -1));
    texts.emplace_back(text.get());
  }
  size_t i = 0;
  for (auto _ : state) {
    const std::string& text = texts[i++ % 1024];
    const int length = static_cast<int>(text.size());
    benchmark::DoNotOptimize(App::stod(text.data(), length, length + 1, nullptr));
  }
}
BENCHMARK(Stod)->ArgName("whole, cents, quotients")->DenseRange(0, 2);

// A text that is no number: each comparison of texts first tries to read both as numbers.
void StodOfAWord(benchmark::State& state) {
  int error;
  for (auto _ : state) benchmark::DoNotOptimize(App::stod("customer", 8, 9, &error));
}
BENCHMARK(StodOfAWord);

void Stoi(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(App::stoi("123456", 6, nullptr));
}
BENCHMARK(Stoi);

template <char* (*Encoder)(const char*, int, int*, int*)>
void Encode(benchmark::State& state) {
  std::string text;
  while (text.size() < 1000) text += "Some text <b>with</b> a few & signs (and more). ";
  for (auto _ : state) {
    int length;
    int size;
    char* encoded = Encoder(text.data(), static_cast<int>(text.size()), &length, &size);
    benchmark::DoNotOptimize(encoded);
    delete[] encoded;
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(Encode<App::EncodeAttribute>);
BENCHMARK(Encode<App::DecodeAttribute>);
BENCHMARK(Encode<App::EncodeEntities>);
BENCHMARK(Encode<App::DecodeEntities>);
BENCHMARK(Encode<App::StripNULLs>);

void CryptConstruction(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(std::make_unique<UFCrypt>());
}
BENCHMARK(CryptConstruction);

void CryptHash(benchmark::State& state) {
  const auto crypt = std::make_unique<UFCrypt>();
  const bool other_salts = state.range(0) != 0;
  char result[14];
  int i = 0;
  for (auto _ : state) {
    crypt->crypt("password", 8, other_salts && i++ % 2 ? "zz" : "ab", result);
    benchmark::DoNotOptimize(result);
  }
}
BENCHMARK(CryptHash)->ArgName("salts change")->Arg(0)->Arg(1);

}  // namespace
