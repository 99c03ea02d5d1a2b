// The application of a background task without its thread: what it copies, its clock, and its
// sleep. The tests call the heartbeats.

#include "fastcgi/FastCGIAsynchronousApplication.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "base/host/BufferedOutput.h"
#include "base/host/Config.h"
#include "base/machine/Feature.h"
#include "base/machine/ZephVM.h"
#include "base/systems/unix/UNIXReentrantFile.h"
#include "tests/support/LoadedScript.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

// The application of a request that has just made its machine.
class RequestApplication : public FastCGIBaseApplication {
 public:
  explicit RequestApplication(const TemporaryDirectory& directory)
      : FastCGIBaseApplication(0, nullptr, 0, nullptr, nullptr, nullptr) {
    configuration = new Config;
    current_output = new NullOutput(nullptr);
    file_manager = new UNIXReentrantFileManager(this);
    EXPECT_TRUE(file_manager->InitializeDataDirectory(directory.path().c_str()));
  }
};

class TaskApplication : public FastCGIAsynchronousApplication {
 public:
  using FastCGIAsynchronousApplication::FastCGIAsynchronousApplication;
  ZephVM* machine() { return vm; }
  // When the limit of sleeps, a day, is in force, the file's time has been read.
  bool Asleep() {
    MutexGuard guard(application_mutex);
    return TimeRemaining() > 50000;
  }
};

// Counts the beats that reach the features of a machine.
class BeatCounter : public Feature {
 public:
  BeatCounter(ZephApplication* host, ZephVM* machine, std::atomic<int>* counted)
      : Feature(host, machine, Type_Call), beats(counted) {}
  void Heartbeat() override { ++*beats; }

 private:
  std::atomic<int>* beats;
};

class TaskSleep : public testing::Test {
 protected:
  TaskSleep()
      : request(directory),
        script(&request, request.filemanager()),
        machine("page.zpc", -1, &request, &script.dictionary, &script.system, &script.globals,
                &script.segments, &script.functions, nullptr, nullptr, nullptr, &script.languages,
                &script.pieces, request.heartbeatcounter(), request.timedoutflag(),
                request.exitflag(), nullptr) {}
  ~TaskSleep() override { Join(); }

  void Set(int setting, int value) { request.config()->SetValue_Integer(setting, value); }
  // The task after its start.
  TaskApplication& Task() {
    if (!task) {
      task = std::make_unique<TaskApplication>(&request, &machine);
      task->machine()->Push_Feature(new BeatCounter(task.get(), task->machine(), &beats));
      task->ResetGlobalTimeout();
    }
    return *task;
  }

  static long InAnHour() { return time(nullptr) + 3600; }
  void Sleeps(long until, const char* path) {
    Task();
    sleeper = std::thread([this, until, path] {
      task->AsynchronousSleep(until, ZephPath_Data, path);
      awake = true;
    });
  }
  void Join() {
    if (!sleeper.joinable()) return;
    if (!awake) task->Cancelled();
    sleeper.join();
  }
  // Sends beats of that time until the sleep has passed on so many of them or has ended. Returns
  // false if it has not after a long while.
  bool Beat(int count, long now = time(nullptr)) {
    const int wanted = beats + count;
    return Beats(now, [&] { return beats >= wanted || awake; });
  }
  bool BeatUntilAwake(long now = time(nullptr)) {
    return Beats(now, [&] { return awake.load(); });
  }
  template <typename Test>
  bool Beats(long now, Test test) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!test()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      task->Heartbeat(now);
      std::this_thread::yield();
    }
    return true;
  }
  // Sets the file's modification time to so many seconds from now. An existing file is not written
  // again, because its time would be the present one for a moment.
  void Modify(const char* name, int seconds) {
    if (!directory.Exists(name)) directory.File(name);
    const auto now = std::filesystem::file_time_type::clock::now();
    std::filesystem::last_write_time(directory.path(name), now + std::chrono::seconds(seconds));
  }

  TemporaryDirectory directory;
  RequestApplication request;
  LoadedScript script;
  ZephVM machine;
  std::unique_ptr<TaskApplication> task;
  std::thread sleeper;
  std::atomic<int> beats{0};
  std::atomic<bool> awake{false};
};

TEST_F(TaskSleep, EndsAtItsTime) {
  Task().AsynchronousSleep(time(nullptr) - 1, ZephPath_Data, nullptr);
  Task().AsynchronousSleep(-1, ZephPath_Data, "");
  EXPECT_FALSE(Task().cancelled());
}

TEST_F(TaskSleep, EndsAtTheBeatAfterAChangeOfItsFile) {
  Modify("flag", -100);
  Sleeps(InAnHour(), "flag");
  ASSERT_TRUE(Beat(3));
  EXPECT_FALSE(awake);
  Modify("flag", 100);
  EXPECT_TRUE(BeatUntilAwake());
  EXPECT_FALSE(Task().cancelled());
}

// The task checks the file only when a beat wakes it, so without a beat it sleeps on.
TEST_F(TaskSleep, DoesNotSeeAChangeWithoutABeat) {
  Modify("flag", -100);
  const long until = time(nullptr) + 2;
  Sleeps(until, "flag");
  while (!Task().Asleep() && !awake) std::this_thread::yield();
  Modify("flag", 100);
  sleeper.join();
  EXPECT_GE(std::chrono::system_clock::now(), std::chrono::system_clock::from_time_t(until));
}

TEST_F(TaskSleep, EndsWhenItsFileAppears) {
  Sleeps(InAnHour(), "flag");
  ASSERT_TRUE(Beat(3));
  EXPECT_FALSE(awake);
  Modify("flag", -100);
  EXPECT_TRUE(BeatUntilAwake());
}

TEST_F(TaskSleep, GoesOnWhenItsFileGoesOrGrowsOlder) {
  Modify("flag", 0);
  Sleeps(InAnHour(), "flag");
  ASSERT_TRUE(Beat(2));
  Modify("flag", -100);
  ASSERT_TRUE(Beat(2));
  EXPECT_FALSE(awake);
  std::filesystem::remove(directory.path("flag"));
  ASSERT_TRUE(Beat(2));
  EXPECT_FALSE(awake);
}

TEST_F(TaskSleep, LooksForNoFileOutsideOfTheDirectory) {
  Sleeps(InAnHour(), "../flag");
  ASSERT_TRUE(Beat(3));
  EXPECT_FALSE(awake);
}

TEST_F(TaskSleep, CostsOneSecondOfTheTasksTime) {
  Set(Config_timeout_async, 1000);
  EXPECT_GE(Task().TimeRemaining(), 998);
  for (int i = 0; i < 200; i++) Task().AsynchronousSleep(0, ZephPath_Data, nullptr);
  EXPECT_LE(Task().TimeRemaining(), 800);
  EXPECT_GE(Task().TimeRemaining(), 740);
}

TEST_F(TaskSleep, OfATaskWhoseTimeIsUpEndsItAtTheNextBeat) {
  Set(Config_timeout_async, 1);
  Task().AsynchronousSleep(0, ZephPath_Data, nullptr);
  Task().AsynchronousSleep(0, ZephPath_Data, nullptr);
  EXPECT_FALSE(Task().cancelled());
  Task().Heartbeat(time(nullptr) + 1);
  EXPECT_TRUE(Task().cancelled());
}

TEST_F(TaskSleep, IsHeldToItsOwnLimitAndNotToTheTasks) {
  Set(Config_timeout_async, 10);
  Set(Config_timeout_async_sleep, 1000);
  const long start = time(nullptr);
  Sleeps(InAnHour(), nullptr);
  ASSERT_TRUE(Beat(1));
  EXPECT_GE(Task().TimeRemaining(), 990 - (time(nullptr) - start));
  ASSERT_TRUE(Beat(2, start + 500));
  EXPECT_FALSE(awake);
  EXPECT_TRUE(BeatUntilAwake(time(nullptr) + 1002));
  EXPECT_TRUE(Task().cancelled());
  // A sleep that has lasted too long ends the task, and the task's own time is not restored.
  EXPECT_GE(Task().TimeRemaining(), 900);
}

TEST_F(TaskSleep, HasNoLimitIfTheSettingIsZero) {
  Set(Config_timeout_async, 10);
  Set(Config_timeout_async_sleep, 0);
  Sleeps(InAnHour(), "flag");
  ASSERT_TRUE(Beat(2, time(nullptr) + 1000000));
  EXPECT_FALSE(awake);
  EXPECT_EQ(Task().TimeRemaining(), -1);
  Modify("flag", 0);
  EXPECT_TRUE(BeatUntilAwake());
  sleeper.join();
  EXPECT_GE(Task().TimeRemaining(), 0);
  EXPECT_LE(Task().TimeRemaining(), 9);
}

TEST_F(TaskSleep, OfATaskWithoutALimitLeavesItWithoutOne) {
  Set(Config_timeout_async, 0);
  EXPECT_EQ(Task().TimeRemaining(), -1);
  Task().AsynchronousSleep(0, ZephPath_Data, nullptr);
  EXPECT_EQ(Task().TimeRemaining(), -1);
}

TEST_F(TaskSleep, EndsWithTheTask) {
  Sleeps(InAnHour(), nullptr);
  ASSERT_TRUE(Beat(1));
  Task().Cancelled();
  sleeper.join();
  EXPECT_TRUE(Task().cancelled());
}

TEST_F(TaskSleep, OfARequestIsOverAtOnce) {
  request.AsynchronousSleep(InAnHour(), ZephPath_Data, nullptr);
  SUCCEED();
}

// --- What a task has -----------------------------------------------------------------------------

class TaskServices : public TaskSleep {};

TEST_F(TaskServices, SettingsAreThoseThatTheRequestHasReadAndElseTheDefaults) {
  EXPECT_GE(Task().TimeRemaining(), 3590);
  EXPECT_LE(Task().TimeRemaining(), 3600);
  task.reset();
  Set(Config_timeout_async, 50);
  EXPECT_LE(Task().TimeRemaining(), 50);
  // The request's later changes do not reach the task.
  Set(Config_timeout_async, 5000);
  Task().ResetGlobalTimeout();
  EXPECT_LE(Task().TimeRemaining(), 50);
}

TEST_F(TaskServices, OutputTakesEverythingAndHasNoHeader) {
  Output* const output = Task().output();
  EXPECT_NE(output, request.output());
  EXPECT_EQ(output->type(), Output::Null);
  EXPECT_EQ(output->Write("text", 4), 4);
  EXPECT_EQ(output->Header("X-Task", "value"), 0);
  char* const name = new char[2]{'X', 0};
  char* const value = new char[2]{'y', 0};
  EXPECT_EQ(output->Header(name, 1, 1, value, 1, 1), 0);
  EXPECT_NE(output->Flush(1), -1);
}

TEST_F(TaskServices, ATaskStartsNoTasks) {
  EXPECT_EQ(Task().BeginAsynchronousTask(Task().machine()), AsynchronousTask_InTask);
}

}  // namespace
