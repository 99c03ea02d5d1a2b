#include "fastcgi/FastCGIThreads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/host/Config.h"
#include "fastcgi/FastCGIBaseApplication.h"

namespace {

using Clock = std::chrono::system_clock;

class BaseApplication : public FastCGIBaseApplication {
 public:
  explicit BaseApplication(FastCGIThreadManager* manager = nullptr)
      : FastCGIBaseApplication(0, nullptr, 0, nullptr, manager, nullptr) {
    configuration = new Config;
  }
};

TEST(FastCGIThread, WaitForStopEndsWithTheTimeOrTheStop) {
  FastCGIThread thread(1, nullptr, nullptr, nullptr);
  EXPECT_FALSE(thread.Stopped());
  EXPECT_FALSE(thread.WaitForStop(Clock::now()));
  std::thread stopper([&thread] { thread.Stop(); });
  EXPECT_TRUE(thread.WaitForStop(Clock::now() + std::chrono::hours(1)));
  stopper.join();
  EXPECT_TRUE(thread.Stopped());
}

TEST(FastCGIThread, RunsItsBodyOnAStackOfAtLeastEightMegabytes) {
  FastCGIThread thread(
      1, nullptr,
      [](void* argument) -> void* {
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        size_t size = 0;
        pthread_attr_getstacksize(&attributes, &size);
        pthread_attr_destroy(&attributes);
        *static_cast<size_t*>(static_cast<FastCGIThread*>(argument)->argument()) = size;
        return nullptr;
      },
      new size_t(0));
  ASSERT_EQ(thread.Start(), 0);
  pthread_join(thread.handle(), nullptr);
  std::unique_ptr<size_t> size(static_cast<size_t*>(thread.argument()));
  EXPECT_GE(*size, 8u << 20);
}

TEST(FastCGITaskThread, PassesBeatsAndCancelsToItsApplicationAlone) {
  FastCGITaskThread thread(1, nullptr, nullptr, nullptr);
  thread.Heartbeat(1);
  thread.Cancelled();
  BaseApplication application;
  {
    CurrentApplication current(&thread, &application);
    thread.Heartbeat(1);
    EXPECT_EQ(*application.heartbeatcounter(), 1);
    EXPECT_FALSE(application.cancelled());
    thread.Cancelled();
    EXPECT_TRUE(application.cancelled());
  }
  thread.Heartbeat(1);
  EXPECT_EQ(*application.heartbeatcounter(), 1);
}

TEST(FastCGIBaseApplication, DeadlineIsStrictlyBeforeTheBeatThatRaisesTheFlag) {
  BaseApplication application;
  application.config()->SetValue_Integer(Config_timeout_global, 100);
  application.ResetGlobalTimeout();
  const long deadline = time(nullptr) + application.TimeRemaining();
  application.Heartbeat(deadline - 1);
  application.Heartbeat(deadline - 50);
  EXPECT_FALSE(application.cancelled());
  application.Heartbeat(deadline + 2);
  EXPECT_TRUE(application.cancelled());
  application.ResetGlobalTimeout();
  EXPECT_FALSE(application.cancelled());
}

TEST(FastCGIBaseApplication, NoGlobalTimeoutMeansNoDeadline) {
  BaseApplication application;
  application.config()->SetValue_Integer(Config_timeout_global, 0);
  application.ResetGlobalTimeout();
  EXPECT_EQ(application.TimeRemaining(), -1);
  application.Heartbeat(1L << 40);
  EXPECT_FALSE(application.cancelled());
}

TEST(FastCGIBaseApplication, UploadHasAClockOfItsOwn) {
  BaseApplication application;
  application.config()->SetValue_Integer(Config_timeout_post, 5);
  application.ResetPOSTTimeout();
  application.Heartbeat(time(nullptr) + 100);
  EXPECT_TRUE(application.posttimedout());
  EXPECT_FALSE(application.cancelled());
  application.ClearPOSTTimeout();
  EXPECT_FALSE(application.posttimedout());
  application.Heartbeat(time(nullptr) + 1000);
  EXPECT_FALSE(application.posttimedout());
}

TEST(FastCGIBaseApplication, SleepLastsItsTimeAlsoWithBeats) {
  BaseApplication application;
  std::atomic<bool> done{false};
  std::thread beats([&] {
    while (!done) {
      application.Heartbeat(time(nullptr));
      std::this_thread::yield();
    }
  });
  Clock::time_point start = Clock::now();
  application.Sleep(100);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(99));
  done = true;
  beats.join();
}

TEST(FastCGIBaseApplication, CancelWakesASleeper) {
  BaseApplication application;
  std::thread canceller([&application] { application.Cancelled(); });
  Clock::time_point start = Clock::now();
  application.Sleep(3600 * 1000);
  EXPECT_LT(Clock::now() - start, std::chrono::minutes(10));
  canceller.join();
  application.Sleep(3600 * 1000);  // a cancelled script does not sleep at all
}

TEST(FastCGIBaseApplication, NoScriptGetsNewTimeInAShutdown) {
  FastCGIThreadManager manager;
  BaseApplication application(&manager);
  application.Cancelled();
  application.ResetGlobalTimeout();
  EXPECT_FALSE(application.cancelled());
  application.Cancelled();
  manager.Shutdown();
  application.ResetGlobalTimeout();
  EXPECT_TRUE(application.cancelled());
}

// Settings whose reading lasts until a heartbeat has passed.
class PatientConfig : public Config {
 public:
  explicit PatientConfig(FastCGIBaseApplication* owner) : application(owner) {}
  int value_integer(int id) override {
    auto beat = std::async(std::launch::async, [this] { application->Heartbeat(1); });
    if (beat.wait_for(std::chrono::seconds(10)) != std::future_status::ready) held_up = true;
    late.push_back(std::move(beat));
    return Config::value_integer(id);
  }

  bool held_up = false;

 private:
  FastCGIBaseApplication* application;
  std::vector<std::future<void>> late;
};

TEST(FastCGIBaseApplication, ALibraryThatTakesItsTimeDoesNotHoldTheHeartbeatUp) {
  class Application : public BaseApplication {
   public:
    Application() {
      delete configuration;
      configuration = settings = new PatientConfig(this);
    }
    PatientConfig* settings;
  };
  auto application = std::make_unique<Application>();
  application->ResetGlobalTimeout();
  application->ResetPOSTTimeout();
  EXPECT_FALSE(application->settings->held_up);
}

TEST(FastCGIBaseApplication, LockHostNameIsTheSettingOrTheHost) {
  BaseApplication application;
  std::string host = application.hostname();
  EXPECT_EQ(application.lockhostname(), host);
  EXPECT_EQ(application.config()->value_string(Config_lock_hostname), host);
  application.config()->SetValue(Config_lock_hostname, "shared", -1, 0);
  EXPECT_STREQ(application.lockhostname(), "shared");
}

// The numbers after Seed are those of srand with the second, whatever was drawn before.
TEST(FastCGIBaseApplication, EachRunBeginsTheSequenceOfItsSecond) {
  class Application : public BaseApplication {
   public:
    using BaseApplication::SeedRandom;
  };
  const auto numbers = [](int count) {
    std::vector<int> drawn;
    for (int i = 0; i < count; i++) drawn.push_back(rand());
    return drawn;
  };
  int tried = 0;
  for (int drawn : {0, 1, 0, 31, 310, 0, 1, 2, 3, 1000}) {
    SCOPED_TRACE(drawn);
    const time_t second = time(nullptr);
    Application::SeedRandom();
    const std::vector<int> first = numbers(40);
    Application::SeedRandom();
    numbers(drawn);
    Application::SeedRandom();
    const std::vector<int> again = numbers(40);
    Application::SeedRandom();
    std::thread([&] { Application::SeedRandom(); }).join();
    const std::vector<int> of_thread = numbers(40);
    if (time(nullptr) != second) continue;
    tried++;
    srand(static_cast<unsigned>(second));
    const std::vector<int> expected = numbers(40);
    EXPECT_EQ(first, expected);
    EXPECT_EQ(again, expected);
    EXPECT_EQ(of_thread, expected);
  }
  EXPECT_GT(tried, 0);
}

TEST(FastCGIBaseApplication, SessionIdsAre32DigitsAndDiffer) {
  BaseApplication application;
  std::set<std::string> seen;
  for (int i = 0; i < 1000; i++) {
    int length;
    std::unique_ptr<char[]> id(application.MakeSessionID(&length));
    EXPECT_EQ(length, 32);
    EXPECT_EQ(strspn(id.get(), "0123456789abcdef"), 32u);
    seen.insert(id.get());
  }
  EXPECT_EQ(seen.size(), 1000u);
}

TEST(FastCGIBaseApplication, CurrentDateHasWholeHoursOfTheZone) {
  struct Case {
    const char* zone;
    const char* suffix;
  };
  const Case cases[] = {{"UTC0", " -0000"},  {"XST-5:30", " +0500"}, {"XST5", " -0500"},
                        {"XST-1", " +0100"}, {"XST3:30", " -0300"},  {"XST-14", " +1400"}};
  BaseApplication application;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.zone);
    setenv("TZ", c.zone, 1);
    tzset();
    String date = application.currentdate();
    EXPECT_STREQ(date.data + date.length - 6, c.suffix);
    EXPECT_EQ(date.data[3], ',');
  }
  unsetenv("TZ");
  tzset();
}

TEST(FastCGIBaseApplication, LastErrorIsTheSystemsText) {
  BaseApplication application;
  errno = ENOENT;
  EXPECT_STREQ(application.lasterror().data, "No such file or directory");
}

}  // namespace
