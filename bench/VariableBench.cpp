// Values, arrays and tables, as a request makes and drops them.

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "base/compiled/Dictionary.h"
#include "base/compiled/SystemVariableHash.h"
#include "base/compiled/VariableHash.h"
#include "base/values/Aggregate.h"
#include "base/values/Variable.h"
#include "base/values/VariableKinds.h"
#include "base/values/VariableRef.h"

namespace {

void MakeAndDropScalar(benchmark::State& state) {
  for (auto _ : state) {
    Variable* variable = new Variable();
    variable->SetValue_Integer(1);
    benchmark::DoNotOptimize(variable);
    variable->DecRefCount();
  }
}
BENCHMARK(MakeAndDropScalar);

void StoreAndReadNumber(benchmark::State& state) {
  const VariableRef variable(new Variable());
  double number = 0;
  for (auto _ : state) {
    variable->SetValue_Double(number);
    number = variable->value_double() + 1;
  }
  benchmark::DoNotOptimize(number);
}
BENCHMARK(StoreAndReadNumber);

void FillArray(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  for (auto _ : state) {
    const VariableRef array(new Variable());
    for (int i = 1; i <= count; i++) array->At(i, 1)->SetValue_Integer(i);
  }
  state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(FillArray)->Arg(10)->Arg(1000)->Arg(300000);

VariableRef FilledArray(int count) {
  VariableRef array(new Variable());
  for (int i = 1; i <= count; i++) array->At(i, 1)->SetValue_Integer(i);
  return array;
}

void ReadArrayInOrder(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  const VariableRef array = FilledArray(count);
  int sum = 0;
  for (auto _ : state) {
    for (int i = 1; i <= count; i++) {
      sum += array->At(i, 0)->value_integer();
    }
  }
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(ReadArrayInOrder)->Arg(10)->Arg(1000)->Arg(300000);

void ReadArrayAtRandom(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  const VariableRef array = FilledArray(count);
  unsigned place = 1;
  int sum = 0;
  for (auto _ : state) {
    place = place * 1664525u + 1013904223u;
    const int position = static_cast<int>(place >> 8) % count + 1;
    sum += array->At(position, 0)->value_integer();
  }
  benchmark::DoNotOptimize(sum);
}
BENCHMARK(ReadArrayAtRandom)->Arg(1000)->Arg(100000);

void LoopWithNext(benchmark::State& state) {
  const VariableRef array = FilledArray(1000);
  int sum = 0;
  for (auto _ : state) {
    for (int i = array->Next(0); i > 0; i = array->Next(i)) sum += i;
  }
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(state.iterations() * 1000);
}
BENCHMARK(LoopWithNext);

void ReadMembers(benchmark::State& state) {
  const VariableRef structure(new Variable());
  const char* names[] = {"name", "street", "city", "country", "telephone"};
  for (const char* name : names) structure->Element(AggregateIndex(name, -1), 1);
  size_t i = 0;
  for (auto _ : state) {
    const char* name = names[i++ % 5];
    benchmark::DoNotOptimize(structure->Member(name, static_cast<int>(strlen(name)), 0));
  }
}
BENCHMARK(ReadMembers);

void CopyArray(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  const VariableRef array = FilledArray(count);
  for (auto _ : state) {
    const VariableRef copy(new Variable(*array));
    benchmark::DoNotOptimize(copy.get());
  }
  state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(CopyArray)->Arg(10)->Arg(1000);

void FlattenArray(benchmark::State& state) {
  const VariableRef array = FilledArray(static_cast<int>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(array->value().length);
}
BENCHMARK(FlattenArray)->Arg(3)->Arg(1000);

void MakeAndDropEmptyTable(benchmark::State& state) {
  Dictionary dictionary;
  for (auto _ : state) {
    VariableHash table(&dictionary, 12, 512);
    benchmark::DoNotOptimize(&table);
  }
}
BENCHMARK(MakeAndDropEmptyTable);

// The environment of a request: 40 read-only variables by name.
void FillSystemTable(benchmark::State& state) {
  std::vector<std::string> names;
  for (int i = 0; i < 40; i++) names.push_back("HTTP_HEADER_NUMBER_" + std::to_string(i));
  for (auto _ : state) {
    Dictionary dictionary;
    SystemVariableHash table(&dictionary, 12, 512);
    for (const std::string& name : names) {
      table.SetVariable(new ImmutableVariable(name.data(), static_cast<int>(name.size()),
                                              "a value of some length", 22));
    }
  }
  state.SetItemsProcessed(state.iterations() * 40);
}
BENCHMARK(FillSystemTable);

void FindByName(benchmark::State& state) {
  Dictionary dictionary;
  VariableHash table(&dictionary, 12, 512);
  for (int i = 0; i < 100; i++) {
    table.SetVariable(("variable" + std::to_string(i)).c_str(), -1, "x", 1);
  }
  for (auto _ : state) {
    Variable* variable = nullptr;
    table.Find(&variable, "variable57", 10, 0);
    benchmark::DoNotOptimize(variable);
  }
}
BENCHMARK(FindByName);

void LookupPath(benchmark::State& state) {
  Dictionary dictionary;
  VariableHash table(&dictionary, 12, 512);
  for (auto _ : state) {
    Variable* variable = nullptr;
    table.LookupVariable_Fancy(&variable, "order:line[3]:price", 19, 1);
    benchmark::DoNotOptimize(variable);
  }
}
BENCHMARK(LookupPath);

// The locals of a call: a twin of the template is made, two of its variables are made, all are
// deleted.
void Locals(benchmark::State& state) {
  Dictionary dictionary;
  VariableHash locals(&dictionary, 8, 64);
  for (const char* name : {"a", "b", "i", "result", "text"}) locals.Insert(name, -1);
  for (auto _ : state) {
    VariableHash twin(locals);
    twin.Index(0, 1)->SetValue_Integer(1);
    twin.Index(1, 1)->SetValue_Integer(2);
  }
}
BENCHMARK(Locals);

}  // namespace
