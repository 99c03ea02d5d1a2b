// Look-ups of names while the name servers are slow or silent.

#include "base/systems/unix/UNIXHostLookup.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/host/Config.h"
#include "base/systems/unix/UNIXNetworkConnection.h"
#include "base/systems/unix/UNIXNetworkManager.h"
#include "tests/support/Lateness.h"
#include "tests/support/TestApplication.h"

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

// Name servers that keep silent until a test lets them speak, and then know every name.
class SilentServers {
 public:
  static SilentServers& Get() {
    static SilentServers servers;
    return servers;
  }
  void Install() {
    speaking = false;
    network_calls.getaddrinfo = [](const char* name, const char* service, const addrinfo* hints,
                                   addrinfo** found) {
      if (hints->ai_flags & AI_NUMERICHOST) return ::getaddrinfo(name, service, hints, found);
      return Get().Find(service, hints, found);
    };
    network_calls.freeaddrinfo = [](addrinfo* list) {
      freed++;
      ::freeaddrinfo(list);
    };
    freed = 0;
  }
  // Lets all go on, and waits until they have.
  void Speak() {
    {
      std::lock_guard<std::mutex> guard(mutex);
      speaking = true;
    }
    changed.notify_all();
    while (waiting > 0) std::this_thread::sleep_for(Milliseconds(1));
  }
  void WaitFor(int count) {
    while (waiting < count) std::this_thread::sleep_for(Milliseconds(1));
  }

  std::atomic<int> waiting{0};
  std::atomic<int> most{0};
  static inline std::atomic<int> freed{0};
  static inline std::atomic<bool> blocks_signals{false};

 private:
  int Find(const char* service, const addrinfo* hints, addrinfo** found) {
    waiting++;
    most = std::max(most.load(), waiting.load());
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    blocks_signals = sigismember(&blocked, SIGTERM) && sigismember(&blocked, SIGHUP);
    {
      std::unique_lock<std::mutex> lock(mutex);
      changed.wait(lock, [this] { return speaking; });
    }
    const int result = ::getaddrinfo("127.0.0.1", service, hints, found);
    waiting--;
    return result;
  }

  std::mutex mutex;
  std::condition_variable changed;
  bool speaking = false;
};

std::string Text(const String& text) {
  return text.data ? std::string(text.data, static_cast<size_t>(text.length)) : "(null)";
}

class SlowHostLookup : public testing::Test {
 protected:
  SlowHostLookup() : manager(&application) { servers.Install(); }
  ~SlowHostLookup() override {
    servers.Speak();
    network_calls = NetworkCalls();
  }
  template <class Function>
  static double Seconds(Function function) {
    const auto start = Clock::now();
    function();
    return std::chrono::duration<double>(Clock::now() - start).count();
  }
  std::string Connect(int timeout) {
    const std::unique_ptr<NetworkConnection> connection(manager.Connect("silent", 9, timeout));
    return connection ? "connected" : Text(manager.error());
  }

  SilentServers& servers = SilentServers::Get();
  TestApplication application;
  UNIXNetworkManager manager;
};

TEST_F(SlowHostLookup, ASilentServerCostsNoMoreThanTheTime) {
  EXPECT_THAT(Seconds([&] { EXPECT_EQ(Connect(1), "Error looking up 'silent'"); }),
              EndsAtItsTime(1.0));
  application.config()->SetValue_Integer(Config_timeout_global, 1);
  EXPECT_THAT(Seconds([&] { EXPECT_EQ(Connect(0), "Error looking up 'silent'"); }),
              EndsAtItsTime(1.0));
  String address("old", -1);
  EXPECT_THAT(Seconds([&] { EXPECT_EQ(manager.GetHostAddress("silent", address), -1); }),
              EndsAtItsTime(1.0));
  EXPECT_EQ(Text(manager.error()), "Error looking up 'silent'");
  EXPECT_EQ(Text(address), "old");
}

TEST_F(SlowHostLookup, CancellationEndsIt) {
  std::thread canceller([&] {
    servers.WaitFor(1);
    application.SetCancelled(1);
  });
  EXPECT_LT(Seconds([&] { EXPECT_EQ(Connect(-1), "Error looking up 'silent'"); }), 1.4 + kLateness);
  canceller.join();
}

TEST_F(SlowHostLookup, AResultThatComesLateIsFreed) {
  EXPECT_EQ(Connect(1), "Error looking up 'silent'");
  const int before = SilentServers::freed;
  servers.Speak();
  const auto end = Clock::now() + std::chrono::seconds(10);
  while (SilentServers::freed == before && Clock::now() < end) {
    std::this_thread::sleep_for(Milliseconds(1));
  }
  EXPECT_EQ(SilentServers::freed, before + 1);
}

TEST_F(SlowHostLookup, AResultThatComesInTimeIsTheOneOfTheCaller) {
  std::thread speaker([&] {
    servers.WaitFor(1);
    std::this_thread::sleep_for(Milliseconds(400));
    servers.Speak();
  });
  String address;
  EXPECT_EQ(manager.GetHostAddress("silent", address), 1);
  EXPECT_EQ(Text(address), "127.0.0.1");
  speaker.join();
  EXPECT_TRUE(SilentServers::blocks_signals) << "a signal would end on a thread without a handler";
}

TEST_F(SlowHostLookup, AnAddressNeedsNoServer) {
  String address;
  EXPECT_EQ(manager.GetHostAddress("127.0.0.1", address), 1);
  EXPECT_EQ(manager.GetHostAddress("::1", address), 1);
  EXPECT_TRUE(manager.IsIPv6Address("::1"));
  EXPECT_FALSE(manager.IsIPAddress("silent"));
  EXPECT_EQ(servers.waiting, 0);
}

// Scripts that give up must not fill the process with threads.
TEST_F(SlowHostLookup, TheThreadsThatAreLeftBehindAreLimited) {
  servers.most = 0;
  std::vector<std::thread> scripts;
  for (int i = 0; i < 100; i++) {
    scripts.emplace_back([] {
      TestApplication own;
      UNIXNetworkManager its_manager(&own);
      String address;
      own.config()->SetValue_Integer(Config_timeout_global, 1);
      EXPECT_EQ(its_manager.GetHostAddress("silent", address), -1);
    });
  }
  for (std::thread& script : scripts) script.join();
  EXPECT_EQ(servers.most, 64);
  servers.Speak();
  String address;
  EXPECT_EQ(manager.GetHostAddress("silent", address), 1);
}

}  // namespace
