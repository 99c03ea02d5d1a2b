// Sets the time-out flag of a run that takes long, for targets that run scripts.

#ifndef ZEPH_FUZZ_WATCHDOG_H
#define ZEPH_FUZZ_WATCHDOG_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

// Ends a run that takes long, as the heartbeat of a host does. Has a thread of its own, which never
// ends: make one for the whole process.
class Watchdog {
 public:
  Watchdog() : thread([this] { Watch(); }) { thread.detach(); }

  // Watches a run from now on. Both integers are borrowed until End.
  void Begin(int* heartbeat, int* timedout) {
    std::lock_guard<std::mutex> guard(mutex);
    beat = heartbeat;
    flag = timedout;
    changed.notify_one();
  }
  void End() {
    std::lock_guard<std::mutex> guard(mutex);
    beat = flag = nullptr;
    changed.notify_one();
  }

 private:
  void Watch() {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
      changed.wait(lock, [this] { return flag != nullptr; });
      int* watched = flag;
      for (int beats = 0; beats < 3 && flag == watched; beats++) {
        if (changed.wait_for(lock, std::chrono::milliseconds(4)) == std::cv_status::timeout && beat)
          std::atomic_ref<int>(*beat).fetch_add(1, std::memory_order_relaxed);
      }
      if (flag && flag == watched) {
        std::atomic_ref<int>(*flag).store(1, std::memory_order_relaxed);
        flag = nullptr;
      }
    }
  }

  std::mutex mutex;
  std::condition_variable changed;
  int* beat = nullptr;
  int* flag = nullptr;
  std::thread thread;
};

#endif
