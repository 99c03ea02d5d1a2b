// What the system variables cost a request that does not use them, and what a log record costs.

#include <benchmark/benchmark.h>

#include "base/compiled/Dictionary.h"
#include "base/compiled/SystemVariableHash.h"
#include "base/host/Config.h"
#include "base/request/SpecialVariable.h"
#include "base/values/Aggregate.h"
#include "base/values/LogRecord.h"
#include "base/values/VariableKinds.h"
#include "tests/support/TestApplication.h"

namespace {

void TableWithoutThem(benchmark::State& state) {
  TestApplication application;
  for (auto _ : state) {
    Dictionary dictionary;
    SystemVariableHash table(&dictionary, 12, 512);
    table.SetVariable(new ImmutableVariable("SERVER_NAME", -1, 1));
    benchmark::DoNotOptimize(table.Index(0, 0));
  }
}
BENCHMARK(TableWithoutThem);

void TableWithThem(benchmark::State& state) {
  TestApplication application;
  for (auto _ : state) {
    Dictionary dictionary;
    SystemVariableHash table(&dictionary, 12, 512);
    table.SetVariable(new ImmutableVariable("SERVER_NAME", -1, 1));
    table.SetLateVariables(NewSystemVariables(&application));
    benchmark::DoNotOptimize(table.Index(0, 0));
  }
}
BENCHMARK(TableWithThem);

void ReadsOfTheLanguage(benchmark::State& state) {
  TestApplication application;
  LanguageVariable language("zeph_language", &application);
  for (auto _ : state) benchmark::DoNotOptimize(language.value().length);
}
BENCHMARK(ReadsOfTheLanguage);

void ASettingByItsName(benchmark::State& state) {
  TestApplication application;
  ConfigurationAggregateVariable settings("zeph_config", &application);
  for (auto _ : state) {
    benchmark::DoNotOptimize(settings.Member("timeout_global", 14, 0)->value_integer());
  }
}
BENCHMARK(ASettingByItsName);

void ARecord(benchmark::State& state) {
  TestApplication application;
  const LogParameter parameters[] = {
      LogParameter::OfText("shop/cart.zpc", -1), LogParameter::OfText("cart.zpa", -1),
      LogParameter::OfInteger(17), LogParameter::OfText("add", -1), LogParameter::OfEnd()};
  for (auto _ : state) {
    ZPTIME now;
    zp_gettimevalues(&now);
    LogRecord record(now, 4711, 3, "Function Call");
    record.Append(&application, parameters);
    benchmark::DoNotOptimize(record.Finish().data());
  }
}
BENCHMARK(ARecord);

}  // namespace
