// What a machine says of the place of its script, and of the calls that lead there.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/host/ErrorLog.h"
#include "base/host/RunObserver.h"
#include "tests/support/Machine.h"

namespace {

// Notes each error with its place, and the calls at each beat.
class Observer : public RunObserver {
 public:
  void Fails(const RunFailure& failure) override {
    const char* const kinds[] = {"fatal", "runtime", "time"};
    noted.push_back(std::string(kinds[failure.kind]) + (failure.ends_run ? " ends" : "") +
                    (failure.is_shown ? " shown" : "") + " " + failure.script.data + " " +
                    std::string(failure.file, static_cast<size_t>(failure.file_length)) + ":" +
                    std::to_string(failure.line));
  }
  void Beats(ZephVM* machine) override {
    LogLine line;
    machine->WriteCalls(&line);
    noted.emplace_back(line.data(), static_cast<size_t>(line.length()));
  }

  std::vector<std::string> noted;
};

using Noted = std::vector<std::string>;

class CallTrace : public testing::Test {
 protected:
  // Runs a script and returns what was noted.
  Noted Run(const std::string& source) {
    Machine machine;
    machine.application.SetObserver(&observer);
    machine.Assemble(source);
    machine.Go();
    return observer.noted;
  }

  // Each start of a task raises a beat.
  static void BeatAtTasks(Machine* machine) {
    machine->application.begin_task = [machine](ZephVM*) {
      ++*machine->application.heartbeatcounter();
      return AsynchronousTask_Started;
    };
  }

  Observer observer;
};

TEST_F(CallTrace, ErrorsAreToldWithTheirPlace) {
  EXPECT_EQ(Run("sourcefile \"a.zeph\"\nlineno 7\npop\n"),
            Noted{"fatal ends shown dir/page.zpc a.zeph:7"});
}

TEST_F(CallTrace, RuntimeErrorsSayWhetherTheyAreShownAndWhetherTheyEnd) {
  const char kFailing[] = "\nlineno 3\npushg x\npushi 0\nelem\npop\n";
  const struct {
    int settings;
    const char* noted;
  } cases[] = {{0, "runtime dir/page.zpc :3"},
               {1, "runtime shown dir/page.zpc :3"},
               {2, "runtime ends dir/page.zpc :3"},
               {3, "runtime ends shown dir/page.zpc :3"}};
  for (const auto& each : cases) {
    SCOPED_TRACE(each.settings);
    observer.noted.clear();
    EXPECT_EQ(Run("tagerror 62, " + std::to_string(each.settings) + kFailing), Noted{each.noted});
  }
}

TEST_F(CallTrace, ATimeOutHasAPlaceToo) {
  Machine machine;
  machine.application.SetObserver(&observer);
  machine.Assemble("lineno 3\nagain: jmp again\n");
  *machine.application.timedoutflag() = 1;
  machine.Go();
  EXPECT_EQ(observer.noted, Noted{"time ends shown dir/page.zpc :0"});
  EXPECT_EQ(machine.Output(), "Application timed out");
}

// The start of a task is where the test gets control: it raises a beat there.
TEST_F(CallTrace, CallsAreListedFromTheInnermostOne) {
  Machine machine;
  machine.application.SetObserver(&observer);
  BeatAtTasks(&machine);
  machine.Assemble(
      "sourcefile \"index.zeph\"\nlineno 3\npushi 1\ncall show\npop\nlineno 4\nexit\n"
      ".function show(n)\nsourcefile \"cart.zeph\"\nlineno 40\ncall total\npop\nlineno 41\npushi "
      "0\n"
      "ret\n.end\n"
      ".function total()\nlineno 17\nasync after\nexit\nafter: lineno 18\npushi 0\nret\n.end\n");
  EXPECT_EQ(machine.Go(), 1) << machine.Error();
  EXPECT_EQ(observer.noted, Noted{"cart.zeph:17 in total, cart.zeph:40 in show, index.zeph:3"});
}

TEST_F(CallTrace, DeepCallsAreCut) {
  Machine machine;
  machine.application.SetObserver(&observer);
  BeatAtTasks(&machine);
  machine.Assemble(
      "pushi 500\ncall down\npop\nexit\n"
      ".function down(n)\npushl n\njmp_eq bottom\npushl n\npushi 1\nsub\ncall down\nret\n"
      "bottom: async after\nexit\nafter: pushi 0\nret\n.end\n");
  EXPECT_EQ(machine.Go(), 1) << machine.Error();
  ASSERT_EQ(observer.noted.size(), 1u);
  const std::string& calls = observer.noted[0];
  int count = 0;
  for (size_t at = calls.find(" in down"); at != std::string::npos;
       at = calls.find(" in down", at + 1))
    count++;
  EXPECT_EQ(count, 40);
}

// Code that repeats is decoded, and calls from there note less.
TEST_F(CallTrace, DecodedCodeHasTheSamePlaces) {
  Machine machine;
  machine.application.SetObserver(&observer);
  BeatAtTasks(&machine);
  machine.Assemble(
      "sourcefile \"a.zeph\"\nstoregi i, 0\nagain: lineno 5\npushg i\ncall f\npop\nincg i, 1\n"
      "cmpgi i, 100\njmp_lt again\nexit\n"
      ".function f(n)\nlineno 9\npushl n\npushi 99\ncmp\njmp_ne out\nasync out\nexit\n"
      "out: pushi 0\nret\n.end\n");
  EXPECT_EQ(machine.Go(), 1) << machine.Error();
  EXPECT_EQ(observer.noted, Noted{"a.zeph:9 in f, a.zeph:5"});
}

}  // namespace
