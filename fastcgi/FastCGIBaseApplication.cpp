// The time limit of a script while the process shuts down.
// Tested in tests/fastcgi/FastCGIThreadsTest.cpp and tests/e2e/ShutdownTest.cpp.

#include "fastcgi/FastCGIBaseApplication.h"

#include <atomic>
#include <ctime>

#include "base/host/Config.h"
#include "fastcgi/FastCGIThreads.h"

FastCGIBaseApplication::FastCGIBaseApplication(int argc, char** argv, int copied_argc,
                                               char** copied_argv,
                                               FastCGIThreadManager* thread_manager,
                                               ExternalLibraryManager* library_manager)
    : UNIXApplication(argc, argv, copied_argc, copied_argv, library_manager),
      thread_manager(thread_manager),
      watch(this) {
  run_observer = &watch;
}

FastCGIBaseApplication::FastCGIBaseApplication(FastCGIBaseApplication& other)
    : UNIXApplication(other), thread_manager(other.thread_manager), watch(this, other.watch) {
  run_observer = &watch;
}

// Only this thread sets the deadline, so it may read it without the mutex.
FastCGIBaseApplication::Cancel FastCGIBaseApplication::WhyCancelled() {
  if (thread_manager && thread_manager->ShuttingDown()) return Cancel::Shutdown;
  return global_deadline > 0 && global_deadline < time(nullptr) ? Cancel::TimeOut : Cancel::Hangup;
}

void FastCGIBaseApplication::ResetGlobalTimeout() {
  const int seconds = config()->value_integer(Config_timeout_global);
  MutexGuard guard(application_mutex);
  const int timedout = cancelled();
  StartGlobalClock(seconds);
  // A script that a shutdown has cancelled gets no more time, because no script may outlive the
  // shutdown.
  if (timedout && thread_manager && thread_manager->ShuttingDown()) {
    std::atomic_ref<int>(timedout_flag).store(1, std::memory_order_relaxed);
  }
}
