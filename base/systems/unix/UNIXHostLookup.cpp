// Look-ups on threads that may outlive the wait for them.
// Tested in tests/base/systems/unix/UNIXHostLookupTest.cpp.

#include "base/systems/unix/UNIXHostLookup.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include "base/core/Mutex.h"
#include "base/host/Config.h"
#include "base/host/ZephApplication.h"
#include "base/systems/unix/UNIXNetworkConnection.h"

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

// The longest sleep between two looks at cancelled().
constexpr Milliseconds kSlice(250);

// Threads at a time in the whole process. Scripts that give up on silent name servers leave them
// faster than the system ends them.
constexpr int kMostThreads = 64;
constexpr Milliseconds kPauseForThread(20);

constexpr size_t kStackSize = 1 << 20;

std::atomic<int> threads{0};

// The end of a wait.
class Deadline {
 public:
  Deadline(ZephApplication* application, int timeout) : application(application) {
    const long seconds =
        timeout != 0 ? timeout : application->config()->value_integer(Config_timeout_global);
    limited = seconds > 0;
    end = Clock::now() + std::chrono::seconds(std::max(seconds, 0L));
  }
  // The next sleep, which is 0 if the wait is over.
  Milliseconds Slice(Milliseconds most) const {
    if (application->cancelled()) return Milliseconds(0);
    if (!limited) return most;
    return std::clamp(std::chrono::ceil<Milliseconds>(end - Clock::now()), Milliseconds(0), most);
  }

 private:
  ZephApplication* application;
  bool limited;
  Clock::time_point end;
};

// One look-up, shared by the thread that wants it and the one that makes it. The latter allocates
// nothing of its own, because it has no one to tell that there was no memory.
class Lookup {
 public:
  Lookup(const char* name, const addrinfo& hints)
      : name(name), hints(hints), calls(network_calls) {}
  ~Lookup() {
    if (found) calls.freeaddrinfo(found);
  }
  Lookup(const Lookup&) = delete;
  Lookup& operator=(const Lookup&) = delete;

  void Make() {
    addrinfo* result = nullptr;
    if (calls.getaddrinfo(name.c_str(), nullptr, &hints, &result) != 0) result = nullptr;
    MutexGuard guard(mutex);
    found = result;
    done = true;
    changed.Signal();
  }
  // The result, which the caller owns; null if the time is over first.
  addrinfo* Await(const Deadline& deadline) {
    MutexGuard guard(mutex);
    while (!done) {
      const Milliseconds slice = deadline.Slice(kSlice);
      if (slice.count() == 0) return nullptr;
      changed.WaitUntil(mutex, std::chrono::system_clock::now() + slice);
    }
    return std::exchange(found, nullptr);
  }

 private:
  const std::string name;
  const addrinfo hints;
  // Those at the beginning: a test may have replaced them when the result comes.
  const NetworkCalls calls;
  Mutex mutex;
  Condition changed;
  addrinfo* found GUARDED_BY(mutex) = nullptr;
  bool done GUARDED_BY(mutex) = false;
};

void* Run(void* argument) {
  const std::unique_ptr<std::shared_ptr<Lookup>> lookup(
      static_cast<std::shared_ptr<Lookup>*>(argument));
  (*lookup)->Make();
  threads.fetch_sub(1);
  return nullptr;
}

// Starts a thread that no signal is delivered to. False if the system has none.
bool Start(std::unique_ptr<std::shared_ptr<Lookup>> lookup) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&attributes, kStackSize);
  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, &before);
  pthread_t thread;
  const int result = pthread_create(&thread, &attributes, Run, lookup.get());
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  pthread_attr_destroy(&attributes);
  if (result == 0) static_cast<void>(lookup.release());
  return result == 0;
}

// Takes the place of one thread.
bool TakePlace(const Deadline& deadline) {
  while (threads.fetch_add(1) >= kMostThreads) {
    threads.fetch_sub(1);
    const Milliseconds pause = deadline.Slice(kPauseForThread);
    if (pause.count() == 0) return false;
    timespec left = {0, static_cast<long>(std::chrono::nanoseconds(pause).count())};
    nanosleep(&left, nullptr);
  }
  return true;
}

}  // namespace

addrinfo* LookUpHost(ZephApplication* application, const char* name, const addrinfo& hints,
                     int timeout) {
  addrinfo* found = nullptr;
  addrinfo numeric = hints;
  numeric.ai_flags |= AI_NUMERICHOST;
  if (network_calls.getaddrinfo(name, nullptr, &numeric, &found) == 0) return found;
  const Deadline deadline(application, timeout);
  const auto lookup = std::make_shared<Lookup>(name, hints);
  auto of_thread = std::make_unique<std::shared_ptr<Lookup>>(lookup);
  if (!TakePlace(deadline)) return nullptr;
  if (!Start(std::move(of_thread))) {
    threads.fetch_sub(1);
    return nullptr;
  }
  return lookup->Await(deadline);
}
