// The machine: the cost of building it, and of one pass of its loop for the simplest instructions.

#include <benchmark/benchmark.h>

#include "base/compiled/Dictionary.h"
#include "base/compiled/Instructions.h"
#include "base/compiled/Segment.h"
#include "base/compiled/SystemVariableHash.h"
#include "base/compiled/VariableHash.h"
#include "base/host/BufferedOutput.h"
#include "base/host/Config.h"
#include "base/machine/ZephVM.h"
#include "base/values/Variable.h"
#include "tests/support/TestApplication.h"

namespace {

// A script that repeats the same instructions `repeats` times, and everything that a machine needs.
class Script {
 public:
  Script() { application.SetOutput(&output); }

  Script& Op(Instruction::Word word) {
    end = segments.Start()->Write_Word(end, word);
    return *this;
  }
  Script& Op(Instruction::Word word, int operand) {
    Op(word);
    end = segments.Start()->Write_Dword(end, static_cast<unsigned>(operand));
    return *this;
  }

  int Run() {
    ZephVM vm("bench.zpc", -1, &application, &dictionary, &system, &global, &segments, nullptr,
              nullptr, nullptr, nullptr, nullptr, nullptr, application.heartbeatcounter(),
              application.timedoutflag(), application.exitflag(), nullptr);
    return vm.Go();
  }

  TestApplication application;
  NullOutput output{nullptr};
  Dictionary dictionary;
  SystemVariableHash system{&dictionary, 12, 512};
  VariableHash global{&dictionary, 12, 512};
  SegmentManager segments;
  int end = 0;
};

constexpr int kRepeats = 10000;

void EmptyScript(benchmark::State& state) {
  Script script;
  for (auto _ : state) benchmark::DoNotOptimize(script.Run());
}
BENCHMARK(EmptyScript);

void PushAndPop(benchmark::State& state) {
  Script script;
  for (int i = 0; i < kRepeats; i++) script.Op(Instruction::pushi, i).Op(Instruction::pop);
  for (auto _ : state) benchmark::DoNotOptimize(script.Run());
  state.SetItemsProcessed(state.iterations() * kRepeats * 2);
}
BENCHMARK(PushAndPop);

void PushConstantAndOut(benchmark::State& state) {
  Script script;
  int id = script.dictionary.Entry_Add("some text for the page", -1);
  for (int i = 0; i < kRepeats; i++) script.Op(Instruction::pushc, id).Op(Instruction::out);
  for (auto _ : state) benchmark::DoNotOptimize(script.Run());
  state.SetItemsProcessed(state.iterations() * kRepeats * 2);
}
BENCHMARK(PushConstantAndOut);

void GlobalsByPosition(benchmark::State& state) {
  Script script;
  int x = script.global.Insert("x", -1);
  for (int i = 0; i < kRepeats; i++) {
    script.Op(Instruction::pushi, i).Op(Instruction::popg, x).Op(Instruction::pushg, x);
    script.Op(Instruction::pop);
  }
  for (auto _ : state) benchmark::DoNotOptimize(script.Run());
  state.SetItemsProcessed(state.iterations() * kRepeats * 4);
}
BENCHMARK(GlobalsByPosition);

// A text that grows by one number each time, as a script builds a page in a variable.
void ConcatenateInPlace(benchmark::State& state) {
  Script script;
  int id = script.dictionary.Entry_Add("line ", -1);
  script.Op(Instruction::pushc, id).Op(Instruction::pushi, 0).Op(Instruction::cat);
  for (int i = 0; i < kRepeats; i++) {
    script.Op(Instruction::pushc, id).Op(Instruction::cat);
    script.Op(Instruction::pushi, i).Op(Instruction::cat);
  }
  script.Op(Instruction::pop);
  for (auto _ : state) benchmark::DoNotOptimize(script.Run());
  state.SetItemsProcessed(state.iterations() * kRepeats * 4);
}
BENCHMARK(ConcatenateInPlace);

}  // namespace
