// Mutex and condition variable of the standard library, with the annotations by which clang checks
// that guarded fields are accessed only under their mutex (-Wthread-safety).

#ifndef ZEPH_BASE_MUTEX_H
#define ZEPH_BASE_MUTEX_H

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define ZEPH_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ZEPH_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) ZEPH_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY ZEPH_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) ZEPH_THREAD_ANNOTATION(guarded_by(x))
#define REQUIRES(...) ZEPH_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) ZEPH_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) ZEPH_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define EXCLUDES(...) ZEPH_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

class CAPABILITY("mutex") Mutex {
 public:
  void Lock() ACQUIRE() { mutex.lock(); }
  void Unlock() RELEASE() { mutex.unlock(); }

 private:
  friend class Condition;
  std::mutex mutex;
};

// Holds a mutex for a scope.
class SCOPED_CAPABILITY MutexGuard {
 public:
  explicit MutexGuard(Mutex& guarded) ACQUIRE(guarded) : mutex(guarded) { mutex.Lock(); }
  ~MutexGuard() RELEASE() { mutex.Unlock(); }
  MutexGuard(const MutexGuard&) = delete;
  MutexGuard& operator=(const MutexGuard&) = delete;

 private:
  Mutex& mutex;
};

// A condition to wait for under a mutex. A wait may end spuriously: check the condition again.
class Condition {
 public:
  using Time = std::chrono::system_clock::time_point;

  void Signal() { condition.notify_one(); }
  void Broadcast() { condition.notify_all(); }

  void Wait(Mutex& mutex) REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex, std::adopt_lock);
    condition.wait(lock);
    lock.release();
  }

  // False if the time (of the system clock) was reached before a signal.
  bool WaitUntil(Mutex& mutex, Time time) REQUIRES(mutex) {
    std::unique_lock<std::mutex> lock(mutex.mutex, std::adopt_lock);
    bool woken = condition.wait_until(lock, time) == std::cv_status::no_timeout;
    lock.release();
    return woken;
  }

 private:
  std::condition_variable condition;
};

#endif
