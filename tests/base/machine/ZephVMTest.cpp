// The machine's loop, its errors, variables, output, captures and features.

#include "base/machine/ZephVM.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "base/host/Config.h"
#include "base/machine/Feature.h"
#include "tests/support/GrowthOfTime.h"
#include "tests/support/Machine.h"

namespace {

using namespace Instruction;

TEST(ZephVM, EmptySegmentEndsAtOnce) {
  Machine machine;
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Output(), "");
}

TEST(ZephVM, ConstantsGoToTheOutput) {
  Machine machine;
  machine.Text("Hello, ").Op(out).Op(pushi, 42).Op(out).OpDouble(pushf, -0.5).Op(out);
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Output(), "Hello, 42-0.5");
}

TEST(ZephVM, TrailingByteIsNoInstruction) {
  Machine machine;
  machine.Text("x").Op(out);
  machine.segments.Start()->Write_Byte(machine.end, 0xFF);
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Output(), "x");
  Machine single;
  single.segments.Start()->Write_Byte(0, 0xFF);
  EXPECT_EQ(single.Go(), 1);
}

TEST(ZephVM, OperandsBeyondTheEndReadAsZero) {
  Machine machine;
  machine.Id("first");
  machine.Text("x").Op(out).Op(pushc);
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.stack().Entries(), 1);
  EXPECT_EQ(PopText(machine.stack()), "first");
}

TEST(ZephVM, UnknownWordsAreIllegal) {
  for (int word : {0x0001, 0x0002, 527, 0x2000, 0xFFFF, 0xC001, 0x3015}) {
    SCOPED_TRACE(word);
    Machine machine;
    machine.Text("before").Op(out).Op(static_cast<unsigned short>(word)).Text("after").Op(out);
    EXPECT_EQ(machine.Go(), 0);
    EXPECT_EQ(machine.Output(),
              "beforeFatal error in dir/page.zpc @ [00000000:00000008]: Illegal Instruction\n");
  }
}

TEST(ZephVM, WordsDeclareTheirOperandsAlsoWhenUnknown) {
  Machine machine;
  // Bits 15-14 and 13-12 both declare a double, so 16 bytes are skipped before the error ends the
  // run.
  machine.Op(0xA123);
  machine.end += 16;
  machine.Text("x").Op(out);
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_NE(machine.Output().find("[00000000:00000000]"), std::string::npos);
}

TEST(ZephVM, BadDictionaryIdIsFatal) {
  for (int id : {-1, 1, 1 << 30}) {
    Machine machine;
    machine.Id("only");
    machine.Op(pushc, id);
    EXPECT_EQ(machine.Go(), 0);
    EXPECT_NE(machine.Output().find("Invalid dictionary reference"), std::string::npos);
  }
}

TEST(ZephVM, StackOverflowEndsTheRun) {
  Machine machine;
  for (int i = 0; i < 513; i++) machine.Op(pushi, i);
  machine.Text("never").Op(out);
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.stack().Entries(), 512);
  EXPECT_EQ(machine.Output().find("never"), std::string::npos);
}

TEST(ZephVM, ExitEndsTheRunInOrder) {
  for (Word word : {Instruction::exit, exit2}) {
    Machine machine;
    machine.Text("a").Op(out).Op(word).Text("b").Op(out);
    EXPECT_EQ(machine.Go(), 1);
    EXPECT_EQ(machine.Output(), "a");
    EXPECT_EQ(*machine.application.exitflag(), 1);
  }
}

TEST(ZephVM, ErrorBeatsExit) {
  Machine machine;
  machine.Op(pop).Op(Instruction::exit);
  EXPECT_EQ(machine.Go(), 0);
}

TEST(ZephVM, TimeOutFlagEndsTheRunWithItsWords) {
  Machine before;
  before.Text("x").Op(out);
  *before.application.timedoutflag() = 1;
  EXPECT_EQ(before.Go(), 0);
  EXPECT_EQ(before.Output(), "Application timed out");
  EXPECT_EQ(before.Go(), 0);
  EXPECT_EQ(before.Output(), "Application timed out");
}

// Cancels the application when it is written to.
class CancellingOutput : public RecordingOutput {
 public:
  int Write(const char* bytes, int length) override {
    int written = RecordingOutput::Write(bytes, length);
    if (flag) std::atomic_ref<int>(*flag).store(1, std::memory_order_relaxed);
    flag = nullptr;
    return written;
  }
  int* flag = nullptr;
};

TEST(ZephVM, TimeOutIsSeenAfterTheInstruction) {
  Machine machine;
  CancellingOutput output;
  output.flag = machine.application.timedoutflag();
  machine.application.SetOutput(&output);
  machine.Text("x").Op(out).Text("y").Op(out);
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(output.text, "xApplication timed out");
}

TEST(ZephVM, LogMaskComesFromTheSettingUnlessTheScriptForbids) {
  for (int flags : {0, 1}) {
    Machine machine;
    machine.application.config()->SetValue_Integer(Config_log_level, Log_FatalError);
    machine.dictionary.SetFlags(flags);
    EXPECT_EQ(machine.vm().WantsLog(Log_FatalError), flags == 0);
    EXPECT_FALSE(machine.vm().WantsLog(Log_Trace));
  }
}

TEST(ZephVM, LogFilterChoosesByFileAndLine) {
  struct Case {
    const char* filter;
    const char* file;
    int line;
    bool wanted;
  };
  const Case cases[] = {
      {"", "a.zp", 1, true},
      {"  ", "a.zp", 1, true},
      {"!a.zp", "a.zp", 1, false},
      {"!a.zp", "b.zp", 1, true},
      {"!a.zp", "", 1, true},
      {"a.zp", "b.zp", 1, false},
      {"a.zp", "A.ZP", 1, false},
      {"a.zp:10-20, !a.zp:15", "a.zp", 14, true},
      {"a.zp:10-20, !a.zp:15", "a.zp", 15, false},
      {"a.zp:10-20, !a.zp:15", "a.zp", 16, true},
      {"a.zp:10-20, !a.zp:15", "a.zp", 21, false},
      {"a.zp:10-20, !a.zp:15", "a.zp", 9, false},
      {"a.zp:10-20, !a.zp:15", "b.zp", 12, false},
      {"a.zp:5-", "a.zp", 1000, true},
      {"a.zp:5-", "a.zp", 4, false},
      {"a.zp : 5 - 6 junk , b.zp", "a.zp", 6, true},
      {"a.zp:", "a.zp", 1, true},  // makes no entry, so there is no filter
      {",,a.zp,,", "a.zp", 1, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.filter) + " " + c.file + ":" + std::to_string(c.line));
    Machine machine;
    machine.application.config()->SetValue_Integer(Config_log_level, Log_Trace);
    machine.application.ParseLogFilter(c.filter);
    machine.Op(sourcefile, *c.file ? machine.Id(c.file) : -1).Op(lineno, c.line);
    EXPECT_EQ(machine.Go(), 1);
    EXPECT_EQ(machine.vm().WantsLog(Log_Trace), c.wanted);
  }
}

// --- Errors --------------------------------------------------------------------------------------

TEST(ZephVMError, FatalErrorNamesPlaceFileAndLine) {
  Machine machine;
  machine.Op(sourcefile, machine.Id("page.zp")).Op(lineno, 17).Op(pop);
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.Output(),
            "Fatal error in dir/page.zpc @ [00000000:0000000c]: page.zp: Line 17: "
            "Stack underflow\n");
}

TEST(ZephVMError, AfterAFatalErrorNothingRuns) {
  Machine machine;
  machine.Text("never").Op(out);
  machine.vm().FatalError("from outside");
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.Output(), "Fatal error in dir/page.zpc @ [00000000:00000000]: from outside\n");
}

TEST(ZephVMError, NoFileAndNoLineLeaveNoTrace) {
  Machine machine;
  machine.Op(sourcefile, -1).Op(lineno, 0).Op(pop);
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.Output(),
            "Fatal error in dir/page.zpc @ [00000000:0000000c]: Stack underflow\n");
}

TEST(ZephVMError, PrefixOfTheScriptIsInFront) {
  Machine machine;
  machine.Text("<b>Oops</b> ").Op(op_errmsg).Op(pop);
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.Output(),
            "<b>Oops</b> Fatal error in dir/page.zpc @ [00000000:00000008]: Stack underflow\n");
}

TEST(ZephVMError, RuntimeErrorFollowsTheSettingsOfItsTag) {
  struct Case {
    const char* label;
    int tag;
    int settings;  // -1 leaves the default
    bool shown;
    bool stopped;
    const char* variable;
  };
  const Case cases[] = {
      {"displayed, not fatal", 75, -1, true, false, "ZpASYNCHRONOUS_Error"},
      {"displayed and fatal", 14, -1, true, true, "ZpCALL_Error"},
      {"silent", 28, 0, false, false, "ZpOPEN_Error"},
      {"fatal and silent", 28, 2, false, true, "ZpOPEN_Error"},
      {"in an expression", 62, -1, true, true, "ZpEXPRESSION_Error"},
      {"no tag's number", 76, -1, false, false, nullptr},
      {"out of the table", 80, -1, true, true, nullptr},
      {"negative", -1, -1, true, true, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    Machine machine;
    if (c.settings >= 0) machine.Op(tagerror, c.tag, c.settings);
    EXPECT_EQ(machine.Go(), 1);
    machine.vm().RuntimeError(c.tag, "it failed");
    EXPECT_EQ(machine.Output().empty(), !c.shown);
    EXPECT_EQ(machine.vm().stopped(), c.stopped);
    EXPECT_EQ(machine.Error().substr(0, 33), "Runtime error in dir/page.zpc @ [");
    EXPECT_NE(machine.Error().find("it failed\n"), std::string::npos);
    if (c.variable) {
      EXPECT_EQ(machine.Value(c.variable), "it failed");
    } else {
      EXPECT_EQ(machine.global.Entries(), 0);
    }
  }
}

TEST(ZephVMError, RuntimeErrorNamesItsTag) {
  Machine machine;
  machine.Op(lineno, 3);
  machine.Go();
  machine.vm().RuntimeError(28, "no such table");
  EXPECT_EQ(machine.Output(),
            "Runtime error in dir/page.zpc @ [00000000:00000006]: Line 3: ZpOPEN: "
            "no such table\n");
}

TEST(ZephVMError, DisplayIsOffWhereTheFrameSaysSo) {
  Machine machine;
  machine.Op(erroutput, 3);
  EXPECT_EQ(machine.Go(), 1);
  machine.vm().RuntimeError(14, "it failed");
  EXPECT_EQ(machine.Output(), "");
  EXPECT_TRUE(machine.vm().stopped());
}

TEST(ZephVMError, NonFatalRuntimeErrorClearsTheStopFlag) {
  Machine machine;
  machine.vm().FatalError("first");
  EXPECT_TRUE(machine.vm().stopped());
  machine.vm().RuntimeError(28, "second");
  EXPECT_FALSE(machine.vm().stopped());
}

TEST(ZephVMError, EncodedRuntimeErrorEscapesTheMessage) {
  Machine machine;
  machine.vm().EncodedRuntimeError(28, "<b>");
  EXPECT_EQ(machine.Value("ZpOPEN_Error"), "&lt;b&gt;");
}

TEST(ZephVMError, ClearErrorVariableMakesItNull) {
  Machine machine;
  machine.vm().RuntimeError(28, "it failed");
  machine.vm().ClearErrorVariable(28);
  EXPECT_EQ(machine.Value("ZpOPEN_Error"), "");
  machine.vm().ClearErrorVariable(76);
  machine.vm().ClearErrorVariable(-5);
}

// 30 and 38 are dbskip and dbadd. Nothing is made by a look-up, and what is made later is found.
TEST(ZephVMError, ClearErrorVariableFindsAVariableThatWasMadeAfterTheFirstCall) {
  Machine machine;
  machine.vm().ClearErrorVariable(30);
  EXPECT_EQ(machine.GlobalVariable("ZpSKIP_Error"), nullptr);
  for (int i = 0; i < 3; i++) {
    for (const int tag : {30, 38}) {
      const char* const name = tag == 30 ? "ZpSKIP_Error" : "ZpADD_Error";
      machine.vm().RuntimeError(tag, "it failed");
      EXPECT_EQ(machine.Value(name), "it failed");
      machine.vm().ClearErrorVariable(tag);
      machine.vm().ClearErrorVariable(tag);
      EXPECT_EQ(machine.GlobalVariable(name)->IsNULL(), 1);
    }
  }
}

TEST(ZephVMError, TagNumbersOutsideTheTableAreIgnored) {
  Machine machine;
  machine.Op(tagerror, 77, 3).Op(tagerror, -1, 3).Op(tagerror, 0, 1);
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.vm().TagError(0).settings, 1);
}

// --- Variables and output ------------------------------------------------------------------------

TEST(ZephVM, GlobalsAreMadeAtFirstUse) {
  Machine machine;
  int x = machine.Global("x");
  machine.Op(pushg, x).Op(out).Text("abc").Op(popg, x).Op(pushg, x).Op(out);
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Output(), "abc");
  EXPECT_EQ(machine.Value("x"), "abc");
}

TEST(ZephVM, PositionOutsideTheTableIsFatal) {
  for (Word word : {pushg, popg, pushl, popl}) {
    Machine machine;
    machine.Op(pushi, 1).Op(word, 7);
    EXPECT_EQ(machine.Go(), 0);
    EXPECT_NE(machine.Output().find("Invalid variable reference"), std::string::npos);
  }
}

TEST(ZephVM, AbsentSystemVariableReadsAsNullAndDropsWrites) {
  Machine machine;
  machine.system.SetVariable(new ImmutableVariable("known", -1, "fixed", -1));
  machine.Op(pushs, 0).Op(out).Op(pushs, 5).Op(out);
  machine.Text("a").Op(pops, 0).Text("b").Op(pops, 5).Op(pushs, 0).Op(out);
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Output(), "fixedfixed");
  EXPECT_EQ(machine.stack().Entries(), 0);
}

TEST(ZephVM, ChainedTextGoesOutBlockByBlock) {
  Machine machine;
  int x = machine.Global("x");
  machine.Text("a").Op(pushi, 1).Op(cat).Op(pushi, 2).Op(cat).Op(popg, x);
  machine.Text("b").Text("c").Op(cat).Op(pushg, x).Op(cat).Op(out);
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Output(), "bca12");
  EXPECT_EQ(machine.stack().Entries(), 0);
}

TEST(ZephVM, OutputModeCompressesWhiteSpace) {
  Machine machine;
  machine.Op(stdoutput, Output::CompressFull).Text("  a  b").Op(out_comp).Text("  c").Op(out_comp);
  machine.Text("  d").Op(out);
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Output(), "a b c  d");
  EXPECT_EQ(machine.vm().CurrentFrame()->output_mode, Output::CompressFull);
}

TEST(ZephVM, ScriptDirectoryEndsInItsSeparator) {
  EXPECT_STREQ(Machine("a/b/c.zpc").vm().ScriptDirectory().data, "a/b/");
  EXPECT_STREQ(Machine("c.zpc").vm().ScriptDirectory().data, "");
  EXPECT_STREQ(Machine("/c.zpc").vm().ScriptDirectory().data, "/");
}

// --- Captures and features -----------------------------------------------------------------------

TEST(Capture, CollectsOutputForAVariable) {
  Machine machine;
  int x = machine.Global("x");
  machine.Text("1").Op(out).Op(pushg, x).Op(capture).Text("2").Op(out).Op(capture_end);
  machine.Text("3").Op(out);
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Output(), "13");
  EXPECT_EQ(machine.Value("x"), "2");
}

TEST(Capture, InnerOneGivesTheOuterOneBack) {
  Machine machine;
  int x = machine.Global("x"), y = machine.Global("y");
  machine.Op(pushg, x).Op(capture).Text("a").Op(out).Op(pushg, y).Op(capture).Text("b").Op(out);
  machine.Op(capture_end).Text("c").Op(out).Op(capture_end).Text("d").Op(out);
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(machine.Output(), "d");
  EXPECT_EQ(machine.Value("x"), "ac");
  EXPECT_EQ(machine.Value("y"), "b");
}

TEST(Capture, EndWithoutACaptureIsFatal) {
  Machine machine;
  machine.Op(capture_end);
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_NE(machine.Output().find("Invalid instruction"), std::string::npos);
}

TEST(Capture, OfAConstantIsFatal) {
  Machine machine;
  machine.Text("x").Op(capture).Text("y").Op(out);
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_NE(machine.Output().find("Expected variable, found constant"), std::string::npos);
}

TEST(Capture, ErrorsReachTheClientPastIt) {
  Machine machine;
  int x = machine.Global("x");
  machine.Op(pushg, x).Op(capture).Text("lost").Op(out).Op(pop).Op(pop);
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_NE(machine.output.text.find("Stack underflow"), std::string::npos);
  EXPECT_EQ(machine.output.text.find("lost"), std::string::npos);
}

TEST(Capture, LeftOpenGivesTheOutputBackWithTheMachine) {
  TestApplication* application;
  {
    auto machine = std::make_unique<Machine>();
    application = &machine->application;
    int x = machine->Global("x");
    machine->Op(pushg, x).Op(capture).Text("lost").Op(out);
    EXPECT_EQ(machine->Go(), 1);
    EXPECT_NE(application->output(), &machine->output);
    machine->Close();
    EXPECT_EQ(application->output(), &machine->output);
  }
}

class CountingFeature : public Feature {
 public:
  CountingFeature(Machine& machine, int type, int name, std::vector<int>* log)
      : Feature(&machine.application, &machine.vm(), type), number(name), deleted(log) {}
  ~CountingFeature() override { deleted->push_back(number); }
  void Heartbeat() override { beats++; }
  int number;
  int beats = 0;

 private:
  std::vector<int>* deleted;
};

TEST(Feature, BeatsReachAllOfThem) {
  std::vector<int> deleted;
  Machine machine;
  auto* a = new CountingFeature(machine, 1, 1, &deleted);
  auto* b = new CountingFeature(machine, 7, 2, &deleted);
  machine.vm().Push_Feature(a);
  machine.vm().Push_Feature(b);
  machine.Op(noop).Op(noop);
  *machine.application.heartbeatcounter() = 4;
  EXPECT_EQ(machine.Go(), 1);
  EXPECT_EQ(a->beats, 1);
  EXPECT_EQ(b->beats, 1);
}

TEST(Feature, LookupFindsTheNewestOfItsType) {
  std::vector<int> deleted;
  Machine machine;
  auto* a = new CountingFeature(machine, 1, 1, &deleted);
  auto* b = new CountingFeature(machine, 7, 2, &deleted);
  auto* c = new CountingFeature(machine, 1, 3, &deleted);
  for (Feature* feature : {a, b, c}) machine.vm().Push_Feature(feature);
  EXPECT_EQ(machine.vm().Lookup_Feature(1), c);
  EXPECT_EQ(machine.vm().Lookup_Feature(7), b);
  EXPECT_EQ(machine.vm().Lookup_Feature(5), nullptr);
}

TEST(Feature, PopTakesThoseAboveOffAndKeepsThemUntilTheEnd) {
  std::vector<int> deleted;
  {
    Machine machine;
    CountingFeature* features[6];
    for (int i = 1; i <= 4; i++) {
      features[i] = new CountingFeature(machine, i, i, &deleted);
      machine.vm().Push_Feature(features[i]);
    }
    machine.vm().Pop_Feature(features[3]);
    EXPECT_EQ(deleted, std::vector<int>{3});
    EXPECT_EQ(machine.vm().Lookup_Feature(4), nullptr);
    features[5] = new CountingFeature(machine, 5, 5, &deleted);
    machine.vm().Push_Feature(features[5]);
    machine.vm().Pop_Feature(features[1]);
    EXPECT_EQ(deleted, (std::vector<int>{3, 1}));
    machine.vm().Heartbeat();
    EXPECT_EQ(features[4]->beats, 0);
    // It is no longer on the stack, so nothing happens.
    machine.vm().Pop_Feature(features[5]);
    EXPECT_EQ(deleted.size(), 2u);
  }
  EXPECT_EQ(deleted, (std::vector<int>{3, 1, 5, 4, 2}));
}

// A feature that looks at the stack when it ends, as a capture does.
class LookingFeature : public Feature {
 public:
  LookingFeature(Machine& machine, int type, std::vector<bool>* seen)
      : Feature(&machine.application, &machine.vm(), type), vm(&machine.vm()), found(seen) {}
  ~LookingFeature() override {
    found->push_back(vm->Lookup_Feature(type()) == this);
    vm->Pop_Feature(this);
  }

 private:
  ZephVM* vm;
  std::vector<bool>* found;
};

TEST(Feature, IsOffTheStackWhenItIsDeleted) {
  std::vector<bool> found;
  {
    Machine machine;
    for (int type = 1; type <= 5; type++) {
      machine.vm().Push_Feature(new LookingFeature(machine, type, &found));
    }
    machine.vm().Pop_Feature(nullptr);
    machine.vm().Pop_Feature(machine.vm().Lookup_Feature(3));
    EXPECT_EQ(found.size(), 2u);
  }
  EXPECT_EQ(found, std::vector<bool>(5, false));
}

// Pops features, itself and others, while the beat is passed on to those below.
class PoppingFeature : public CountingFeature {
 public:
  using CountingFeature::CountingFeature;
  void Heartbeat() override {
    for (Feature* feature : pops) vm->Pop_Feature(feature);
  }
  std::vector<Feature*> pops;
};

TEST(Feature, MayPopFeaturesAtABeat) {
  std::vector<int> deleted;
  Machine machine;
  auto* last = new CountingFeature(machine, 1, 1, &deleted);
  auto* below = new CountingFeature(machine, 2, 2, &deleted);
  auto* popping = new PoppingFeature(machine, 3, 3, &deleted);
  auto* above = new CountingFeature(machine, 4, 4, &deleted);
  for (Feature* feature : std::initializer_list<Feature*>{last, below, popping, above}) {
    machine.vm().Push_Feature(feature);
  }
  popping->pops = {above, below};
  machine.vm().Heartbeat();
  EXPECT_EQ(deleted, (std::vector<int>{4, 2}));
  EXPECT_EQ(last->beats, 1);
  machine.vm().Heartbeat();
  EXPECT_EQ(last->beats, 2);
}

std::unique_ptr<Machine> MachineWithFeatures(int count, std::vector<int>* deleted) {
  auto machine = std::make_unique<Machine>();
  machine->vm().Push_Feature(new CountingFeature(*machine, 1, 0, deleted));
  for (int i = 0; i < count; i++) {
    machine->vm().Push_Feature(new CountingFeature(*machine, 2, 0, deleted));
  }
  return machine;
}

TEST(Feature, ManyAreDroppedAndDeletedInTimeByTheirNumber) {
  std::vector<int> deleted;
  for (const bool dropped : {false, true}) {
    ExpectNearLinear(
        8000, [&](int count) { return MachineWithFeatures(count, &deleted); },
        [dropped](std::unique_ptr<Machine>* machine) {
          if (dropped) {
            (*machine)->vm().Pop_Feature((*machine)->vm().Lookup_Feature(1));
          }
          (*machine)->Close();
        });
  }
}

TEST(Feature, PopOfNothingTakesTheTop) {
  std::vector<int> deleted;
  {
    Machine machine;
    machine.vm().Push_Feature(new CountingFeature(machine, 1, 1, &deleted));
    machine.vm().Push_Feature(new CountingFeature(machine, 2, 2, &deleted));
    machine.vm().Pop_Feature(nullptr);
    EXPECT_EQ(deleted, std::vector<int>{2});
    // A look-up has found another feature; the pop still takes the top.
    machine.vm().Push_Feature(new CountingFeature(machine, 3, 3, &deleted));
    machine.vm().Lookup_Feature(1);
    machine.vm().Pop_Feature(nullptr);
    EXPECT_EQ(deleted, (std::vector<int>{2, 3}));
  }
  EXPECT_EQ(deleted, (std::vector<int>{2, 3, 1}));
}

}  // namespace
