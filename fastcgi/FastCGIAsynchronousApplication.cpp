// A background task: its clock, its sleep, and the body of its thread.
// Tested in tests/fastcgi/FastCGIAsynchronousApplicationTest.cpp and tests/e2e/TaskTest.cpp.

#include "fastcgi/FastCGIAsynchronousApplication.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <memory>
#include <new>

#include "base/compiled/VariableHash.h"
#include "base/core/ThreadMemory.h"
#include "base/host/Config.h"
#include "base/machine/ZephVM.h"
#include "base/systems/unix/UNIXOpenSSL.h"
#include "base/systems/unix/UNIXReentrantFile.h"
#include "base/values/Variable.h"
#include "base/values/VariableKinds.h"
#include "fastcgi/FastCGIThreads.h"
#include "fastcgi/ProcessStatus.h"

namespace {

// A deadline that is so many seconds away. 0 means no deadline, so the result is 1 at least.
long After(long seconds) {
  const long deadline = time(nullptr) + seconds;
  return deadline > 0 ? deadline : 1;
}

// Later times are cut to this one, because the clock cannot represent all of them.
constexpr long kLatest = 9000000000;

}  // namespace

FastCGIAsynchronousApplication::FastCGIAsynchronousApplication(FastCGIBaseApplication* source,
                                                               ZephVM* machine)
    : FastCGIBaseApplication(*source) {
  vm = new ZephVM(this, *machine, heartbeatcounter(), timedoutflag(), exitflag());
  ProcessLogSettings();
}

FastCGIAsynchronousApplication::~FastCGIAsynchronousApplication() {
  DeleteMachine();
}

int FastCGIAsynchronousApplication::Go(FastCGIThread* thread) {
  thread_id = static_cast<int>(thread->number());
  vm->SystemVariables()->SetVariable(new ImmutableVariable("thread_id", -1, thread_id));
  LimitMemory();
  ResetGlobalTimeout();
  return vm->Go();
}

void FastCGIAsynchronousApplication::ResetGlobalTimeout() {
  const int seconds = configuration->value_integer(Config_timeout_async);
  MutexGuard guard(application_mutex);
  SetDeadline(seconds);
}

// A task that a shutdown has cancelled gets no more time, because no script may outlive the
// shutdown.
void FastCGIAsynchronousApplication::SetDeadline(long seconds) {
  global_deadline = seconds == 0 ? 0 : After(seconds);
  const int timedout = thread_manager && thread_manager->ShuttingDown() ? cancelled() : 0;
  std::atomic_ref<int>(timedout_flag).store(timedout, std::memory_order_relaxed);
}

int FastCGIAsynchronousApplication::BeginAsynchronousTask(ZephVM*) {
  return AsynchronousTask_InTask;
}

void FastCGIAsynchronousApplication::AsynchronousSleep(long wakeat, Zeph_PathType type,
                                                       const char* path) {
  const int limit = configuration->value_integer(Config_timeout_async_sleep);
  long remaining = -1;
  {
    MutexGuard guard(application_mutex);
    if (global_deadline != 0) remaining = std::max(TimeRemaining(), 0L);
  }
  // Read before the sleep begins: the sleep ends when the file has a later time than this.
  const long before = ModifiedTime(type, path);
  {
    MutexGuard guard(application_mutex);
    SetDeadline(limit);
  }
  if (!SleepUntil(wakeat, type, path, before)) return;
  MutexGuard guard(application_mutex);
  global_deadline = remaining < 0 ? 0 : After(remaining - 1);
}

// The time of the file's last modification; 0 if there is no file.
long FastCGIAsynchronousApplication::ModifiedTime(Zeph_PathType type, const char* path) {
  long time = 0;
  return path && *path && file_manager->ModifiedTime(type, path, &time) ? time : 0;
}

// Returns false if the sleep was cancelled or has lasted too long.
bool FastCGIAsynchronousApplication::SleepUntil(long wakeat, Zeph_PathType type, const char* path,
                                                long before) {
  const Condition::Time end =
      std::chrono::system_clock::from_time_t(std::clamp(wakeat, 0L, kLatest));
  for (;;) {
    {
      MutexGuard guard(application_mutex);
      if (cancelled()) return false;
      if (!application_condition.WaitUntil(application_mutex, end)) return true;
    }
    if (ModifiedTime(type, path) > before) return true;
    // Not under the mutex, because the heartbeat of a feature may take long.
    vm->Heartbeat();
  }
}

// --- The thread ----------------------------------------------------------------------------------

void* FastCGIAsynchronousThread(void* argument) {
  auto* thread = static_cast<FastCGITaskThread*>(argument);
  std::unique_ptr<FastCGIAsynchronousApplication> application(
      static_cast<FastCGIAsynchronousApplication*>(thread->argument()));
  {
    const OwnStatus::Task status;
    const ThreadMemory::Run run(application->memory());
    try {
      CurrentApplication current(thread, application.get());
      application->Go(thread);
    } catch (const std::bad_alloc&) {
      ThreadMemory::Exhausted("task", 4);
    }
    application.reset();
    Variable::FreeCycles();
  }
  FastCGIApplication_OpenSSL_Thread_Cleanup();
  thread->Manager()->TaskEnded();
  thread->Exit();
  return nullptr;
}
