// Threads, heartbeat, signals and shutdown.
// Tested in tests/fastcgi/FastCGIThreadsTest.cpp and tests/e2e/ShutdownTest.cpp.
//
// A shutdown takes at most 20 seconds from the signal, whatever the peers do:
// 1. The signal handler sets a flag. The heartbeat sees it at its next beat, within five seconds,
//    and calls Shutdown.
// 2. Each request thread ends its script, finishes its response and leaves; Run joins it.
// 3. Two beats later the remaining peers are given up, so that the last threads can leave.
// 4. When the last thread has left, Run stops the heartbeat.

#include "fastcgi/FastCGIThreads.h"

#include <fcgiapp.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>

#include "base/core/ThreadMemory.h"
#include "base/host/ErrorLog.h"
#include "base/systems/unix/ScriptThread.h"
#include "fastcgi/FastCGIAsynchronousApplication.h"
#include "fastcgi/FastCGIRequestThread.h"
#include "fastcgi/OperatorSettings.h"
#include "fastcgi/ProcessStatus.h"
#include "fastcgi/ServiceManager.h"

std::atomic<char> FastCGICancelPending{0};
std::atomic<char> FastCGIShutdownPending{0};
std::atomic<char> FastCGIDrainPending{0};

int FastCGIDrainSignal() {
  return SIGRTMIN;
}

namespace {

const std::chrono::seconds kBeat(5);
const std::chrono::seconds kInterruptRetry(1);
const int kBeatsForPeers = 2;
// Descriptors that a request holds before its script runs: the connection, three base directories,
// the script, the log, and those that a walk along a path and a configuration library open for a
// moment.
const int kDescriptorsPerRequest = 9;
const int kThreadsInReserve = 1000;

const int kSignals[] = {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGTERM, SIGUSR1, SIGUSR2};

sigset_t HandledSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (int signal : kSignals) sigaddset(&set, signal);
  if (OwnStatus::IsWorker()) sigaddset(&set, FastCGIDrainSignal());
  return set;
}

sigset_t AcceptSignal() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGUSR2);
  return set;
}

// Whether a signal that ends the process is pending until the main thread handles it.
bool ShutdownSignalIsPending() {
  sigset_t pending;
  sigpending(&pending);
  for (int signal : kSignals) {
    if (signal != SIGHUP && sigismember(&pending, signal) == 1) return true;
  }
  return false;
}

// SIGUSR2 has to interrupt accept and waits for input, so it does not restart system calls. All
// other signals do.
void InstallHandler(int signal) {
  struct sigaction action {};
  action.sa_handler = FastCGISignalHandler;
  action.sa_flags = signal == SIGUSR2 ? 0 : SA_RESTART;
  sigaction(signal, &action, nullptr);
}

// Beats until it is stopped. A shutdown does not end it, because a script that a thread starts at
// that moment has to be cancelled as well.
void* FastCGIHeartbeatThread(void* argument) {
  auto* thread = static_cast<FastCGIThread*>(argument);
  auto* manager = static_cast<FastCGIThreadManager*>(thread->argument());
  Condition::Time next = std::chrono::system_clock::now() + kBeat;
  int beats_for_peers = kBeatsForPeers;
  while (!thread->WaitForStop(next)) {
    if (FastCGIShutdownPending.load()) {
      if (!manager->ShuttingDown()) {
        OwnStatus::Leaving();
        ServiceManager::Stopping();
        manager->Shutdown();
      } else {
        manager->Cancelled();
        if (--beats_for_peers == 0) manager->GiveUpPeers();
      }
    } else if (FastCGICancelPending.exchange(0)) {
      manager->Cancelled();
    }
    if (FastCGIDrainPending.load()) manager->Drain();
    manager->Heartbeat(time(nullptr));
    OperatorSettings::Beat();
    GiveUnusedMemoryBack();
    next += kBeat;
  }
  manager->Cancelled();
  return nullptr;
}

}  // namespace

void FastCGISignalHandler(int signal) {
  if (signal == SIGHUP) {
    FastCGICancelPending.store(1);
    return;
  }
  if (FastCGIShutdownPending.load()) return;
  if (signal == FastCGIDrainSignal()) {
    FastCGIDrainPending.store(1);
    return;
  }
  // It only interrupts the waits of a process that leaves already.
  if (signal == SIGUSR2 && FastCGIDrainPending.load()) return;
  FCGX_ShutdownPending();
  FastCGIShutdownPending.store(1);
}

AcceptInterruptible::AcceptInterruptible() {
  static const sigset_t set = AcceptSignal();
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

AcceptInterruptible::~AcceptInterruptible() {
  static const sigset_t set = AcceptSignal();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

// --- FastCGIThread -------------------------------------------------------------------------------

FastCGIThread::FastCGIThread(unsigned number, FastCGIThreadManager* manager, StartRoutine routine,
                             void* argument)
    : thread_number(number), manager(manager), start_routine(routine), start_argument(argument) {}

FastCGIThread::~FastCGIThread() = default;

void FastCGIThread::Heartbeat(long) {}
void FastCGIThread::Cancelled() {}

int FastCGIThread::Start() {
  return StartScriptThread(&thread, start_routine, this);
}

void FastCGIThread::Stop() {
  MutexGuard guard(stop_mutex);
  stop = true;
  stop_condition.Broadcast();
}

bool FastCGIThread::Stopped() {
  MutexGuard guard(stop_mutex);
  return stop;
}

bool FastCGIThread::WaitForStop(Condition::Time until) {
  MutexGuard guard(stop_mutex);
  while (!stop) {
    if (!stop_condition.WaitUntil(stop_mutex, until)) break;
  }
  return stop;
}

void FastCGIThread::Exit() {
  manager->ThreadExited(this);
}

// --- FastCGITaskThread ---------------------------------------------------------------------------

void FastCGITaskThread::SetApplication(FastCGIBaseApplication* application) {
  MutexGuard guard(application_mutex);
  current_application = application;
}

void FastCGITaskThread::Heartbeat(long now) {
  MutexGuard guard(application_mutex);
  if (current_application) current_application->Heartbeat(now);
}

void FastCGITaskThread::Cancelled() {
  MutexGuard guard(application_mutex);
  if (current_application) current_application->Cancelled();
}

// --- FastCGIThreadManager ------------------------------------------------------------------------

FastCGIThreadManager::FastCGIThreadManager()
    : threads(1), heartbeat_thread(0, this, FastCGIHeartbeatThread, this) {}

FastCGIThreadManager::~FastCGIThreadManager() = default;

void FastCGIThreadManager::BlockSignals() {
  sigset_t set = HandledSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

int FastCGIThreadManager::StartHeartbeat() {
  return heartbeat_thread.Start();
}

int FastCGIThreadManager::StartRequestThreads(_FastCGIMainArgs* arguments) {
  const int wanted = arguments->thread_count;
  descriptor_reserve = std::min(wanted, kThreadsInReserve) * kDescriptorsPerRequest;
  kept.Open();
  for (int started = 0; started < wanted; started++) {
    if (ShutdownSignalIsPending()) return started;
    const int error = StartRequestThread(arguments);
    if (error == 0) continue;
    char buffer[256];
    LogLine problem;
    problem.Text("zeph-fcgi: ").Number(started).Text(" of ").Number(wanted);
    problem.Text(" request threads started: ").Text(strerror_r(error, buffer, sizeof buffer));
    OperatorSettings::Report(problem);
    return started;
  }
  return wanted;
}

int FastCGIThreadManager::StartRequestThread(_FastCGIMainArgs* arguments) {
  return StartTaskThread(FastCGIRequestThread, arguments);
}

int FastCGIThreadManager::StartAsynchronousThread(FastCGIAsynchronousApplication* task) {
  std::unique_ptr<FastCGIAsynchronousApplication> owned(task);
  tasks++;
  int result = ENOMEM;
  try {
    result = StartTaskThread(FastCGIAsynchronousThread, task);
  } catch (const std::bad_alloc&) {
    TaskEnded();
    throw;
  }
  if (result == 0) {
    (void)owned.release();
  } else {
    TaskEnded();
  }
  return result;
}

int FastCGIThreadManager::StartTaskThread(FastCGIThread::StartRoutine routine, void* argument) {
  // Held until the thread exists: the list must not be walked while it contains a thread without a
  // handle.
  MutexGuard guard(manager_mutex);
  auto made = std::make_unique<FastCGITaskThread>(++last_number, this, routine, argument);
  threads.Insert(made.get(), ListTail);
  FastCGITaskThread* thread = made.release();
  int result = thread->Start();
  if (result != 0) delete threads.Remove(ListTail);
  return result;
}

void FastCGIThreadManager::Run() {
  // libfcgi has installed handlers of its own; these replace them.
  for (int number : kSignals) InstallHandler(number);
  if (OwnStatus::IsWorker()) InstallHandler(FastCGIDrainSignal());
  sigset_t set = HandledSignals();
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  {
    MutexGuard guard(manager_mutex);
    handles_signals = true;
    for (;;) {
      if (FastCGIThread* thread = NextExited()) {
        pthread_join(thread->handle(), nullptr);
        threads.Seek(thread);
        delete threads.Remove(ListCurrent);
      } else if (!threads.First()) {
        break;
      } else {
        WaitForExit();
      }
    }
  }
  heartbeat_thread.Stop();
  pthread_join(heartbeat_thread.handle(), nullptr);
}

// An exited thread that is still in the list, or null.
FastCGIThread* FastCGIThreadManager::NextExited() {
  FastCGIThread* thread = threads.First();
  while (thread && !thread->exited) thread = threads.Next();
  return thread;
}

void FastCGIThreadManager::WaitForExit() {
  if (!ShuttingDown() && !FastCGIDrainPending.load()) {
    condition.Wait(manager_mutex);
    return;
  }
  for (FastCGIThread* thread = threads.First(); thread; thread = threads.Next()) thread->Stop();
  // The signal may come between a thread's check of the flag and its accept, so it is sent again.
  if (!condition.WaitUntil(manager_mutex, std::chrono::system_clock::now() + kInterruptRetry)) {
    InterruptWaits();
  }
}

void FastCGIThreadManager::InterruptWaits() {
  for (FastCGIThread* thread = threads.First(); thread; thread = threads.Next()) {
    pthread_kill(thread->handle(), SIGUSR2);
  }
}

void FastCGIThreadManager::Shutdown() {
  MutexGuard guard(manager_mutex);
  shutdown.store(true, std::memory_order_relaxed);
  // Before the waits for input end, so that no script begins with half of a body.
  CancelAll();
  InterruptWaits();
  condition.Signal();
}

// Each call interrupts the waits again.
void FastCGIThreadManager::Drain() {
  FastCGIDrainPending.store(1);
  if (!draining.exchange(true)) {
    OwnStatus::Leaving();
    ServiceManager::Stopping();
  }
  MutexGuard guard(manager_mutex);
  // Before that the signal would end the process. Run interrupts the waits itself then.
  if (handles_signals) InterruptWaits();
  condition.Signal();
}

void FastCGIThreadManager::CountRequest() {
  if (max_requests == 0) return;
  if (requests_left.load() > 0) requests_left--;
  LeaveIfDue();
}

void FastCGIThreadManager::TaskEnded() {
  tasks--;
  LeaveIfDue();
}

// A supervisor starts another worker at once. Without one, nothing would serve while this process
// waits for its tasks, which may take hours; so it leaves when there is none.
//
// The last request and the last task may end at the same time. Each counts before it looks at the
// other's count, in one order for all threads, so one of the two begins the end.
void FastCGIThreadManager::LeaveIfDue() {
  if (max_requests == 0 || draining.load() || requests_left.load() > 0) return;
  if (OwnStatus::IsWorker() || tasks.load() == 0) Drain();
}

void FastCGIThreadManager::Cancelled() {
  MutexGuard guard(manager_mutex);
  CancelAll();
}

void FastCGIThreadManager::CancelAll() {
  for (FastCGIThread* thread = threads.First(); thread; thread = threads.Next()) {
    thread->Cancelled();
  }
}

void FastCGIThreadManager::Heartbeat(long now) {
  MutexGuard guard(manager_mutex);
  for (FastCGIThread* thread = threads.First(); thread; thread = threads.Next()) {
    thread->Heartbeat(now);
  }
}

void FastCGIThreadManager::ThreadExited(FastCGIThread* thread) {
  MutexGuard guard(manager_mutex);
  thread->exited = true;
  condition.Signal();
}
