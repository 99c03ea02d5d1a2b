// Claims about the lockfile and lockfile_end instructions, on real files.

#include "base/machine/Lockfile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/host/Config.h"
#include "base/host/File.h"
#include "tests/base/systems/unix/FileFixture.h"
#include "tests/support/Machine.h"

namespace {

// A machine whose scripts see the data directory of the test.
class LockMachine : public Machine {
 public:
  LockMachine(const TemporaryDirectory& tree, int thread) : lock_files(&application) {
    EXPECT_TRUE(lock_files.InitializeDataDirectory(tree.path("data").c_str()));
    application.SetFileManager(&lock_files);
    application.SetProcessID(getpid());
    application.SetThreadID(thread);
    application.config()->SetValue_Integer(Config_delay_file, 1);
  }
  ~LockMachine() { Close(); }

  UNIXReentrantFileManager lock_files;
};

class Lockfiles : public testing::Test {
 protected:
  Lockfiles() {
    for (const char* name : {"data", "data/orders", "outside"}) tree.Directory(name);
  }

  // Runs the code; returns the failure's message, empty on success.
  std::string Run(const std::string& code, int thread = 2) {
    LockMachine machine(tree, thread);
    machine.Assemble(code);
    machine.Go();
    return machine.Failure();
  }

  TemporaryDirectory tree;
};

const char take[] = "pushc \"orders\"\nlockfile\n";
const char end[] = "lockfile_end\n";

TEST_F(Lockfiles, ANameIsTheFileWithLckAfterIt) {
  LockMachine machine(tree, 2);
  machine.Assemble(std::string(take) + end);
  ASSERT_EQ(machine.Go(), 1) << machine.Error();
  EXPECT_FALSE(tree.Exists("data/orders.lck"));
  LockMachine open(tree, 3);
  open.Assemble(take);
  ASSERT_EQ(open.Go(), 1) << open.Error();
  EXPECT_EQ(tree.Content("data/orders.lck"), std::to_string(getpid()) + "!3:testhost");
}

TEST_F(Lockfiles, NamesLieInFoldersAndEndAtANul) {
  LockMachine machine(tree, 2);
  machine.Assemble("pushc \"orders/new\\0x\"\nlockfile\npushi 5\nlockfile");
  ASSERT_EQ(machine.Go(), 1) << machine.Error();
  EXPECT_TRUE(tree.Exists("data/orders/new.lck"));
  EXPECT_TRUE(tree.Exists("data/5.lck"));
}

TEST_F(Lockfiles, ANameOutsideOfTheDirectoryIsRefused) {
  const std::string failure = Run("pushc \"../outside/<a>\"\nlockfile\npushc \"on\"\nout");
  EXPECT_EQ(failure,
            "ZpLOCKFILE: Error creating lockfile '../outside/&lt;a&gt;.lck': The specified path "
            "references a path outside the configured data directory");
  EXPECT_FALSE(tree.Exists("outside/<a>.lck"));
}

TEST_F(Lockfiles, AFailureStopsTheScriptOnlyIfTheTagSaysSo) {
  LockMachine machine(tree, 2);
  machine.Assemble("tagerror 23, 0\npushc \"none/x\"\nlockfile\npushg ZpLOCKFILE_Error\nout\n" +
                   std::string(end));
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.Output().substr(0, 47), "Error creating lockfile 'none/x.lck': The speci");
  EXPECT_EQ(machine.Failure(), "Invalid instruction");
}

TEST_F(Lockfiles, NestedBlocksOnOneNameFailAtTheInnerOne) {
  EXPECT_EQ(Run(std::string(take) + take),
            "ZpLOCKFILE: Error creating lockfile 'orders.lck': Possible deadlock detected");
  // The outer lock was released.
  EXPECT_EQ(Run(take), "");
}

TEST_F(Lockfiles, AnEndWithoutALockIsFatal) {
  for (const std::string& code : {std::string(end), std::string(take) + end + end}) {
    EXPECT_EQ(Run(code), "Invalid instruction");
  }
  EXPECT_EQ(Run("lockfile"), "Stack underflow");
}

TEST_F(Lockfiles, AnEndGivesTheNewestBack) {
  LockMachine machine(tree, 2);
  machine.Assemble(std::string(take) + "pushc \"b\"\nlockfile\n" + end);
  ASSERT_EQ(machine.Go(), 1) << machine.Error();
  EXPECT_TRUE(tree.Exists("data/orders.lck"));
  EXPECT_FALSE(tree.Exists("data/b.lck"));
}

// If a function leaves several features open, only the lowest ends with it.
TEST_F(Lockfiles, ALockThatAFunctionLeavesOpenAboveACapture) {
  LockMachine machine(tree, 2);
  machine.Assemble("call f\npop\npushc \"b\"\nout\n.segment 1\n.function f()\npushg x\ncapture\n" +
                   std::string(take) + "pushc \"a\"\nout\nretn");
  ASSERT_EQ(machine.Go(), 1) << machine.Error();
  EXPECT_EQ(machine.Output(), "b");
  EXPECT_TRUE(tree.Exists("data/orders.lck"));
  machine.Close();
  EXPECT_FALSE(tree.Exists("data/orders.lck"));
}

TEST_F(Lockfiles, ALockThatAFunctionLeavesOpenBelowACapture) {
  LockMachine machine(tree, 2);
  machine.Assemble("call f\npop\npushc \"b\"\nout\n.segment 1\n.function f()\n" +
                   std::string(take) + "pushg x\ncapture\npushc \"a\"\nout\nretn");
  ASSERT_EQ(machine.Go(), 1) << machine.Error();
  EXPECT_FALSE(tree.Exists("data/orders.lck"));
  // The capture stays the output until the machine ends.
  EXPECT_EQ(machine.Output(), "");
  machine.Close();
  EXPECT_EQ(machine.application.output(), &machine.output);
}

TEST_F(Lockfiles, EveryEndOfAScriptGivesItBack) {
  const struct {
    const char* label;
    const char* code;
    int result;
  } cases[] = {
      {"the end of the code", "", 1},
      {"exit", "exit\n", 1},
      {"a fatal error", "pop\n", 0},
      {"a runtime error", "pushg a\npushi -1\nelem\n", 0},
      {"a function that is not left", "call f\nexit\n.function f()\nexit\n.end\n", 1},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.label);
    LockMachine machine(tree, 2);
    machine.Assemble(std::string(take) + each.code);
    EXPECT_EQ(machine.Go(), each.result);
    EXPECT_TRUE(tree.Exists("data/orders.lck"));
    machine.Close();
    EXPECT_FALSE(tree.Exists("data/orders.lck"));
  }
}

TEST_F(Lockfiles, AFunctionThatIsLeftGivesItsLocksBack) {
  LockMachine machine(tree, 2);
  machine.Assemble("call f\nexit\n.function f()\npushc \"orders\"\nlockfile\npushi 1\nret\n.end\n");
  ASSERT_EQ(machine.Go(), 1) << machine.Error();
  EXPECT_FALSE(tree.Exists("data/orders.lck"));
}

TEST_F(Lockfiles, ATimeOutInsideOfTheBlockGivesItBackWithOneDelete) {
  LockMachine machine(tree, 2);
  machine.Assemble(std::string(take) + "again: jmp again\n");
  machine.vm();
  std::thread other([&] {
    while (!tree.Exists("data/orders.lck")) std::this_thread::yield();
    std::atomic_ref<int>(*machine.application.timedoutflag()).store(1);
  });
  EXPECT_EQ(machine.Go(), 0);
  other.join();
  machine.Close();
  EXPECT_FALSE(tree.Exists("data/orders.lck"));
  EXPECT_EQ(machine.application.slept, 0);
}

TEST_F(Lockfiles, ABeatTouchesTheFile) {
  LockMachine machine(tree, 2);
  machine.Assemble(take);
  ASSERT_EQ(machine.Go(), 1) << machine.Error();
  const timespec old[2] = {{1000, 0}, {1000, 0}};
  const std::string path = tree.path("data/orders.lck");
  ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), old, 0));
  machine.vm().Heartbeat();
  struct stat status;
  ASSERT_EQ(0, stat(path.c_str(), &status));
  EXPECT_GT(status.st_mtime, 1000000);
}

// --- The owner of a lock -------------------------------------------------------------------------

TEST_F(Lockfiles, ThreadsTakeTurns) {
  // Reads, waits a little, writes: without the lock increments are lost.
  const int rounds = 20;
  int value = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; t++) {
    threads.emplace_back([&, t] {
      LockMachine machine(tree, 10 + t);
      machine.vm();
      for (int i = 0; i < rounds; i++) {
        Lockfile lock(&machine.application, &machine.vm(), "value", 5);
        ASSERT_TRUE(lock.Lock()) << Text(lock.error());
        const int before = std::atomic_ref<int>(value).load();
        std::this_thread::yield();
        std::atomic_ref<int>(value).store(before + 1);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(value, 4 * rounds);
}

TEST_F(Lockfiles, ProcessesTakeTurns) {
  tree.File("data/value", "0");
  const std::string path = tree.path("data/value");
  const int rounds = 20, processes = 3;
  std::vector<pid_t> children;
  for (int p = 0; p < processes; p++) {
    const pid_t child = fork();
    if (child == 0) {
      bool good = true;
      LockMachine machine(tree, 2);
      machine.vm();
      for (int i = 0; good && i < rounds; i++) {
        Lockfile lock(&machine.application, &machine.vm(), "value", 5);
        good = lock.Lock();
        const int value = std::stoi(tree.Content("data/value"));
        tree.File("data/value", std::to_string(value + 1));
      }
      machine.Close();
      _exit(good ? 0 : 1);
    }
    children.push_back(child);
  }
  for (pid_t child : children) {
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
  }
  EXPECT_EQ(tree.Content("data/value"), std::to_string(rounds * processes));
}

TEST_F(Lockfiles, ADeadOwnersLockIsTaken) {
  const pid_t child = fork();
  if (child == 0) {
    LockMachine machine(tree, 2);
    machine.Assemble(take);
    _exit(machine.Go() == 1 ? 0 : 1);  // with the lock held
  }
  int status = -1;
  waitpid(child, &status, 0);
  ASSERT_EQ(status, 0);
  ASSERT_EQ(tree.Content("data/orders.lck"), std::to_string(child) + "!2:testhost");
  EXPECT_EQ(Run(take), "");
}

TEST_F(Lockfiles, AnotherHostsLockIsTakenWhenItHasNotBeenTouchedForLong) {
  tree.File("data/orders.lck", "1!2:elsewhere");
  const timespec old[2] = {{time(nullptr) - 100, 0}, {time(nullptr) - 100, 0}};
  ASSERT_EQ(0, utimensat(AT_FDCWD, tree.path("data/orders.lck").c_str(), old, 0));
  LockMachine machine(tree, 2);
  machine.application.SetLockExpiration(90);
  machine.Assemble(take);
  EXPECT_EQ(machine.Go(), 1) << machine.Error();
  EXPECT_EQ(tree.Content("data/orders.lck"), std::to_string(getpid()) + "!2:testhost");
}

// Counts the heartbeats that reach it.
class Beats : public Feature {
 public:
  Beats(Machine* machine, int* counter)
      : Feature(&machine->application, &machine->vm(), Type_Call), count(counter) {}
  void Heartbeat() override { ++*count; }

 private:
  int* count;
};

TEST_F(Lockfiles, AWaitEndsWhenTheScriptIsCancelledAndRunsNoBeats) {
  tree.File("data/orders.lck", "1!2:elsewhere");  // never expires
  LockMachine machine(tree, 2);
  machine.Assemble(take);
  int beats = 0;
  machine.vm().Push_Feature(new Beats(&machine, &beats));
  static int system_calls_seen;
  system_calls_seen = 0;
  RestoredSystemCalls restored;
  static LockMachine* waiting;
  waiting = &machine;
  static int* passed_on;
  passed_on = &beats;
  system_calls.poll = [](pollfd*, nfds_t, int) {
    std::atomic_ref<int>(*waiting->application.heartbeatcounter())++;
    EXPECT_EQ(*passed_on, 0);
    if (++system_calls_seen == 5) waiting->application.SetCancelled(1);
    return 0;
  };
  EXPECT_EQ(machine.Go(), 0);
  EXPECT_EQ(machine.Failure(),
            "ZpLOCKFILE: Error creating lockfile 'orders.lck': Timed out waiting for lock");
  EXPECT_EQ(system_calls_seen, 5);
  // One heartbeat, passed on after the wait.
  EXPECT_EQ(beats, 1);
  EXPECT_EQ(tree.Content("data/orders.lck"), "1!2:elsewhere");
}

// --- A lock that does not go away ----------------------------------------------------------------

// Refuses to delete until it was called so many times.
class StubbornFiles : public UNIXReentrantFileManager {
 public:
  using UNIXReentrantFileManager::Delete;
  using UNIXReentrantFileManager::UNIXReentrantFileManager;
  bool Delete(Zeph_PathType type, const char* path) override {
    return ++asked > refusals && UNIXReentrantFileManager::Delete(type, path);
  }
  int asked = 0;
  int refusals = 1000000;
};

class StubbornLock : public Lockfiles {
 protected:
  StubbornLock() : machine(tree, 2), files(&machine.application) {
    EXPECT_TRUE(files.InitializeDataDirectory(tree.path("data").c_str()));
    machine.application.SetFileManager(&files);
    machine.Assemble(take);
    EXPECT_EQ(machine.Go(), 1) << machine.Error();
  }

  ~StubbornLock() { machine.Close(); }

  void Settings(int timeout, int delay) {
    machine.application.config()->SetValue_Integer(Config_timeout_file, timeout);
    machine.application.config()->SetValue_Integer(Config_delay_file, delay);
  }

  LockMachine machine;
  StubbornFiles files;
};

TEST_F(StubbornLock, IsTriedAgainForTheTimeOutOfFiles) {
  const struct {
    int timeout, delay, tries;
    long slept;
  } cases[] = {
      // One try more than pauses fit into the time; pauses that do not divide a second lose the
      // fraction.
      {30, 100, 301, 30100}, {1, 300, 4, 1200}, {0, 100, 1, 100}, {-1, 100, 0, 0},
      {1, -100, 0, 0},       {1, 0, 0, 0},      {0, 0, 0, 0},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(std::to_string(each.timeout) + " " + std::to_string(each.delay));
    Settings(each.timeout, each.delay);
    files.asked = 0;
    machine.application.slept = 0;
    LockMachine fresh(tree, 2);
    fresh.application.SetFileManager(&files);
    fresh.application.config()->SetValue_Integer(Config_timeout_file, each.timeout);
    fresh.application.config()->SetValue_Integer(Config_delay_file, each.delay);
    fresh.Assemble("pushc \"a" + std::to_string(each.timeout) + "_" + std::to_string(each.delay) +
                   "\"\nlockfile");
    ASSERT_EQ(fresh.Go(), 1) << fresh.Error();
    files.asked = 0;
    fresh.Close();
    EXPECT_EQ(files.asked, each.tries + 1);
    EXPECT_EQ(fresh.application.slept, each.slept);
  }
}

TEST_F(StubbornLock, IsNotTriedAgainWhenItHasGoneOrTheScriptIsCancelled) {
  Settings(30, 100);
  files.refusals = 3;
  machine.Close();
  EXPECT_EQ(files.asked, 4);
  EXPECT_EQ(machine.application.slept, 200);
  EXPECT_FALSE(tree.Exists("data/orders.lck"));
}

TEST_F(StubbornLock, IsTriedOnceByACancelledScript) {
  Settings(30, 100);
  machine.application.SetCancelled(1);
  machine.Close();
  EXPECT_EQ(files.asked, 1);
  EXPECT_EQ(machine.application.slept, 0);
  EXPECT_TRUE(tree.Exists("data/orders.lck"));
}

}  // namespace
