// The threads of the process: a fixed pool of request threads, one thread for each background task,
// and the heartbeat that gives all of them the time.
//
// Lock order: the manager's mutex, then a thread's application mutex, then the application's own.

#ifndef ZEPH_FASTCGI_FASTCGITHREADS_H
#define ZEPH_FASTCGI_FASTCGITHREADS_H

#include <pthread.h>

#include <atomic>

#include "base/core/BaseTemplates.h"
#include "base/core/Mutex.h"

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

// Set by the signal handler and looked at by the heartbeat and the request threads.
extern std::atomic<char> FastCGICancelPending;    // SIGHUP: cancel the scripts that run
extern std::atomic<char> FastCGIShutdownPending;  // any other: end the process in order

// One thread. Made, joined and deleted by the manager.
class FastCGIThread {
 public:
  using StartRoutine = void* (*)(void*);

  // The body is given the thread object; argument() is for the body.
  FastCGIThread(unsigned number, FastCGIThreadManager* manager, StartRoutine routine,
                void* argument);
  virtual ~FastCGIThread();
  FastCGIThread(const FastCGIThread&) = delete;
  FastCGIThread& operator=(const FastCGIThread&) = delete;

  // Called by the heartbeat thread under the manager's mutex: the time, and the word that whatever
  // runs here is to end. A plain thread does nothing.
  virtual void Heartbeat(long now);
  virtual void Cancelled();

  // Answers what pthread_create answered, 0 for success. The stack has at least 8 MB.
  int Start();
  // Tells the thread that it may leave when it is between requests. Any thread.
  void Stop();
  bool Stopped();
  // Waits for Stop until the time; false when that came first.
  bool WaitForStop(Condition::Time until);
  // The thread's last act: the manager joins and deletes it.
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
  bool exited = false;  // the manager's, under its mutex

  friend class FastCGIThreadManager;
};

// A thread that runs scripts. Its application comes and goes under the application mutex, so that
// the heartbeat never meets one that is being destroyed.
class FastCGITaskThread : public FastCGIThread {
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

// Starts threads, beats, and takes them down. One per process, on the stack of main.
class FastCGIThreadManager {
 public:
  FastCGIThreadManager();
  ~FastCGIThreadManager();
  FastCGIThreadManager(const FastCGIThreadManager&) = delete;
  FastCGIThreadManager& operator=(const FastCGIThreadManager&) = delete;

  // Blocks in the calling thread, and so in all that it starts, the signals that only the main
  // thread is to see. Called before any other thread exists.
  static void BlockSignals();

  // Starts the heartbeat, before any thread that depends on it. Returns what pthread_create
  // returned, 0 for success.
  int StartHeartbeat();
  // Returns what pthread_create returned; a thread that could not be made is forgotten.
  int StartRequestThread(_FastCGIMainArgs* arguments);
  // Starts as many as the arguments say, or as the system gives: when one cannot be made it says so
  // on standard error and starts no further one. A signal of shutdown ends the start as well; it
  // stays pending until Run. Returns how many there are.
  int StartRequestThreads(_FastCGIMainArgs* arguments);
  // Takes the task over; without a thread it is deleted. The thread blocks the signals that the
  // calling one blocks.
  int StartAsynchronousThread(FastCGIAsynchronousApplication* task);

  // How many descriptors scripts have to leave to the requests of all threads. Known before the
  // first thread starts.
  int DescriptorReserve() const { return descriptor_reserve; }

  // The body of the main thread: handles signals from here on and returns when no task thread is
  // left. REQUIRES: a heartbeat.
  void Run();
  // Sets the shutdown flag, cancels what runs, and shakes the threads out of accept and out of
  // waits for input.
  void Shutdown();
  bool ShuttingDown() const { return shutdown.load(std::memory_order_relaxed); }
  // Two beats after that: whatever a peer has not taken by then it does not get.
  void GiveUpPeers() { peers_given_up.store(true, std::memory_order_relaxed); }
  bool PeersAreGivenUp() const { return peers_given_up.load(std::memory_order_relaxed); }
  // Passed on to every thread.
  void Cancelled();
  void Heartbeat(long now);
  void ThreadExited(FastCGIThread* thread);

 private:
  int StartTaskThread(FastCGIThread::StartRoutine routine, void* argument);
  FastCGIThread* NextExited() REQUIRES(manager_mutex);
  void WaitForExit() REQUIRES(manager_mutex);
  void CancelAll() REQUIRES(manager_mutex);
  void InterruptWaits() REQUIRES(manager_mutex);

  Mutex manager_mutex;
  Condition condition;
  List<FastCGIThread> threads GUARDED_BY(manager_mutex);
  FastCGIThread heartbeat_thread;
  std::atomic<bool> shutdown{false};
  std::atomic<bool> peers_given_up{false};
  unsigned last_number GUARDED_BY(manager_mutex) = 1;
  int descriptor_reserve = 0;
};

// Lets the calling thread be interrupted by Shutdown for a scope: around accept. A wait for input
// lets the same signal through by itself; a write inside a response that is interrupted would cut
// the page short.
class AcceptInterruptible {
 public:
  AcceptInterruptible();
  ~AcceptInterruptible();
  AcceptInterruptible(const AcceptInterruptible&) = delete;
  AcceptInterruptible& operator=(const AcceptInterruptible&) = delete;
};

// The handler of all signals: sets a flag.
void FastCGISignalHandler(int signal);

#endif
