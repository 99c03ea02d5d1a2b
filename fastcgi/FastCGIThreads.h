// The threads of the process: a fixed pool of request threads, one thread for each background task,
// and the heartbeat thread, which passes the time to all of them.
//
// Lock order: the manager's mutex, then a thread's application mutex, then the application's own.

#ifndef ZEPH_FASTCGI_FASTCGITHREADS_H
#define ZEPH_FASTCGI_FASTCGITHREADS_H

#include <pthread.h>

#include <atomic>
#include <cstddef>

#include "base/core/BaseTemplates.h"
#include "base/core/Mutex.h"
#include "fastcgi/KeptConnections.h"

class FastCGIAsynchronousApplication;
class FastCGIBaseApplication;
class FastCGIExternalLibraryManager;
class FastCGIThread;
class FastCGIThreadManager;

// What all request threads share. Written before the first of them starts.
struct _FastCGIMainArgs {
  int argument_count;         // as received; 1 when -p is present
  int copied_argument_count;  // as received
  char** arguments;           // the process's own argv, whose text -p overwrites
  char** copied_arguments;    // what scripts and the configuration library see
  FastCGIExternalLibraryManager* library_manager;
  int thread_count;
};

// Set by the signal handler, read by the heartbeat and the request threads.
extern std::atomic<char> FastCGICancelPending;    // SIGHUP: cancel running scripts
extern std::atomic<char> FastCGIShutdownPending;  // any other signal: end the process in order
// A worker gets this one from its supervisor: no request is accepted any more.
extern std::atomic<char> FastCGIDrainPending;
int FastCGIDrainSignal();
// Whether a thread must not accept another request.
inline bool FastCGIEndsAccepting() {
  return FastCGIShutdownPending.load() || FastCGIDrainPending.load();
}

// One thread. The manager makes, joins and deletes it.
class FastCGIThread {
 public:
  using StartRoutine = void* (*)(void*);

  // The body gets the thread object as its argument; argument() is for the body.
  FastCGIThread(unsigned number, FastCGIThreadManager* manager, StartRoutine routine,
                void* argument);
  virtual ~FastCGIThread();
  FastCGIThread(const FastCGIThread&) = delete;
  FastCGIThread& operator=(const FastCGIThread&) = delete;

  // The heartbeat thread calls these under the manager's mutex: Heartbeat passes the time, in
  // seconds since 1970; Cancelled ends the script that runs here. A plain thread does nothing.
  virtual void Heartbeat(long now);
  virtual void Cancelled();

  // Starts the thread, with a stack of at least 8 MB. Returns the result of pthread_create, 0 on
  // success.
  int Start();
  // Sets the stop flag: the thread leaves when it is between requests. Any thread may call it.
  void Stop();
  bool Stopped();
  // Waits for Stop, at most until that time. Returns whether Stop was called.
  bool WaitForStop(Condition::Time until);
  // The last call of the thread's body. The manager then joins and deletes the thread.
  void Exit();

  unsigned number() const { return thread_number; }
  FastCGIThreadManager* Manager() const { return manager; }
  void* argument() const { return start_argument; }
  pthread_t handle() const { return thread; }

 private:
  unsigned thread_number;
  FastCGIThreadManager* manager;
  StartRoutine start_routine;
  void* start_argument;
  pthread_t thread{};
  Mutex stop_mutex;
  Condition stop_condition;
  bool stop GUARDED_BY(stop_mutex) = false;
  bool exited = false;  // guarded by the manager's mutex

  friend class FastCGIThreadManager;
};

// What one thread writes often has cache lines of its own: two threads that write to one line wait
// for each other.
inline constexpr size_t kCacheLine = 64;

// A thread that runs scripts. Its application is set and cleared under the application mutex, so
// that the heartbeat never uses one that is being destroyed.
class alignas(kCacheLine) FastCGITaskThread : public FastCGIThread {
 public:
  using FastCGIThread::FastCGIThread;

  void SetApplication(FastCGIBaseApplication* application);
  void Heartbeat(long now) override;
  void Cancelled() override;

 private:
  Mutex application_mutex;
  FastCGIBaseApplication* current_application GUARDED_BY(application_mutex) = nullptr;
};

// Makes an application the thread's current one for a scope.
class CurrentApplication {
 public:
  CurrentApplication(FastCGITaskThread* owner, FastCGIBaseApplication* application)
      : thread(owner) {
    thread->SetApplication(application);
  }
  ~CurrentApplication() { thread->SetApplication(nullptr); }
  CurrentApplication(const CurrentApplication&) = delete;
  CurrentApplication& operator=(const CurrentApplication&) = delete;

 private:
  FastCGITaskThread* thread;
};

// Starts the threads, passes heartbeats to them and ends them. One per process, on the stack of
// main.
class FastCGIThreadManager {
 public:
  FastCGIThreadManager();
  ~FastCGIThreadManager();
  FastCGIThreadManager(const FastCGIThreadManager&) = delete;
  FastCGIThreadManager& operator=(const FastCGIThreadManager&) = delete;

  // Blocks the signals that only the main thread handles, in the calling thread and in all threads
  // that it starts. REQUIRES: no other thread exists.
  static void BlockSignals();

  // Starts the heartbeat thread, on which all others depend. Returns the result of pthread_create,
  // 0 on success.
  int StartHeartbeat();
  // Returns the result of pthread_create. A thread that could not be started is removed from the
  // list.
  int StartRequestThread(_FastCGIMainArgs* arguments);
  // Starts as many threads as the arguments say. If one cannot be started, that is reported and no
  // further one is tried. A pending signal of shutdown also ends the start;
  // it stays pending until Run. Returns how many were started.
  int StartRequestThreads(_FastCGIMainArgs* arguments);
  // Takes ownership of the task, and deletes it if the thread cannot be started. The thread blocks
  // the signals that the calling thread blocks. Returns the result of pthread_create, 0 on success.
  int StartAsynchronousThread(FastCGIAsynchronousApplication* task);

  // How many descriptors scripts must leave for the requests of all threads. Set before the first
  // thread starts.
  int DescriptorReserve() const { return descriptor_reserve; }

  // The process leaves when it has served so many requests; 0 is no limit. A process without a
  // supervisor stays until no background task runs. Set before the first thread starts.
  void SetMaxRequests(int count) {
    max_requests = count;
    requests_left.store(count, std::memory_order_relaxed);
  }
  // Called by a request thread after each request, and by the thread of a task after its end.
  void CountRequest();
  void TaskEnded();

  // The body of the main thread. Handles signals from here on and returns when no task thread is
  // left. REQUIRES: the heartbeat thread was started.
  void Run();
  // Sets the shutdown flag, cancels running scripts, and interrupts accept and waits for input in
  // all threads.
  void Shutdown();
  // Ends the process without a hurry: no request is accepted any more, those in progress and tasks
  // go on to their end. Any thread may call it.
  void Drain();
  bool ShuttingDown() const { return shutdown.load(std::memory_order_relaxed); }
  // Called two beats after Shutdown: from then on nothing more is sent to peers.
  void GiveUpPeers() { peers_given_up.store(true, std::memory_order_relaxed); }
  bool PeersAreGivenUp() const { return peers_given_up.load(std::memory_order_relaxed); }
  KeptConnections& kept_connections() { return kept; }
  // Both are passed to every thread.
  void Cancelled();
  void Heartbeat(long now);
  void ThreadExited(FastCGIThread* thread);

 private:
  int StartTaskThread(FastCGIThread::StartRoutine routine, void* argument);
  void LeaveIfDue();
  FastCGIThread* NextExited() REQUIRES(manager_mutex);
  void WaitForExit() REQUIRES(manager_mutex);
  void CancelAll() REQUIRES(manager_mutex);
  void InterruptWaits() REQUIRES(manager_mutex);

  Mutex manager_mutex;
  Condition condition;
  List<FastCGIThread> threads GUARDED_BY(manager_mutex);
  FastCGIThread heartbeat_thread;
  KeptConnections kept;
  // Every wait of a thread reads these, so nothing that changes is beside them.
  alignas(kCacheLine) std::atomic<bool> shutdown{false};
  std::atomic<bool> peers_given_up{false};
  std::atomic<bool> draining{false};
  int descriptor_reserve = 0;
  int max_requests = 0;
  alignas(kCacheLine) unsigned last_number GUARDED_BY(manager_mutex) = 1;
  bool handles_signals GUARDED_BY(manager_mutex) = false;
  std::atomic<int> requests_left{0};
  std::atomic<int> tasks{0};  // that have been started and have not ended
};

// Lets Shutdown interrupt the calling thread for a scope: around accept. A wait for input unblocks
// the same signal by itself. It stays blocked everywhere else, because an interrupted write would
// cut a response short.
class AcceptInterruptible {
 public:
  AcceptInterruptible();
  ~AcceptInterruptible();
  AcceptInterruptible(const AcceptInterruptible&) = delete;
  AcceptInterruptible& operator=(const AcceptInterruptible&) = delete;
};

// The handler of all signals. It sets a flag.
void FastCGISignalHandler(int signal);

#endif
