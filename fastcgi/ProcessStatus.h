// What a process and its request threads do, written down for those who watch it: the page of
// status (fastcgi/StatusReport.h) and the supervisor of several processes (fastcgi/Supervisor.h).
//
// The records are in shared memory, so that another process can read them. A process that nothing
// watches has none; each operation is then one test of a pointer.

#ifndef ZEPH_FASTCGI_PROCESSSTATUS_H
#define ZEPH_FASTCGI_PROCESSSTATUS_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

class String;

// Idle is also the wait for the next request on a kept connection. Receiving is the wait for the
// rest of a request: its parameters or its body. Sending is the end of its response.
enum class ThreadPhase : uint32_t { None, Idle, Loading, Receiving, Running, Sending };
constexpr int kThreadPhases = 6;

// One request thread, which alone writes here, by relaxed stores into cache lines of its own. Times
// are nanoseconds of the monotonic clock.
struct alignas(64) ThreadStatus {
  static constexpr int kScriptWords = 8;

  std::atomic<uint32_t> phase{0};   // a ThreadPhase
  std::atomic<uint32_t> number{0};  // what scripts see as thread_id
  std::atomic<uint64_t> requests{0};
  std::atomic<int64_t> began{0};    // of the request in progress
  std::atomic<int64_t> busy{0};     // of all finished requests together
  std::atomic<int64_t> longest{0};  // of one of them
  std::atomic<int64_t> memory{0};   // bytes; the most that one of them has had
  // Odd while the script's path is written, so that a reader notices a torn one.
  std::atomic<uint32_t> version{0};
  std::atomic<uint64_t> script[kScriptWords]{};

  // Stores the path; of one that is too long, the end.
  void SetScript(const char* path, int length);
  // The path; empty if it changes all the time.
  std::string Script() const;
};

enum class ProcessPhase : uint32_t { Starting, Serving, Leaving };

// One process. The threads' records follow it in memory.
struct alignas(64) ProcessStatus {
  std::atomic<int32_t> pid{0};
  std::atomic<uint32_t> phase{0};    // a ProcessPhase
  std::atomic<uint32_t> slots{0};    // how many records of threads there are
  std::atomic<uint32_t> threads{0};  // request threads that have started; some may have left
  std::atomic<int64_t> started{0};   // nanoseconds of the monotonic clock
  std::atomic<uint32_t> tasks{0};    // background tasks that run
  std::atomic<uint64_t> tasks_started{0};
  // Without a record of their own: the requests of threads beyond the last slot.
  std::atomic<uint64_t> other_requests{0};

  ThreadStatus* thread(uint32_t i) { return reinterpret_cast<ThreadStatus*>(this + 1) + i; }
  const ThreadStatus* thread(uint32_t i) const {
    return reinterpret_cast<const ThreadStatus*>(this + 1) + i;
  }
  // Nanoseconds of the monotonic clock, which all processes share.
  static int64_t Now();
};
static_assert(sizeof(ProcessStatus) == 64);

// Owns the memory of one ProcessStatus, which processes that are forked later share.
class StatusBoard {
 public:
  StatusBoard() = default;
  // Makes a record of a process with that many request threads; at most 4096 get one of their own.
  // Empty if there is no memory.
  explicit StatusBoard(int threads);
  ~StatusBoard();
  StatusBoard(StatusBoard&& other) noexcept;
  StatusBoard& operator=(StatusBoard&& other) noexcept;
  StatusBoard(const StatusBoard&) = delete;
  StatusBoard& operator=(const StatusBoard&) = delete;

  ProcessStatus* get() const { return process; }
  // Leaves the memory mapped to the end of the process.
  ProcessStatus* release();

 private:
  ProcessStatus* process = nullptr;
  size_t size = 0;
};

// The record of this process. Everything but Use may be called by any thread.
class OwnStatus {
 public:
  // Writes into that record from here on. `notify` is an eventfd that gets a count with each change
  // of the phase; -1 for none. REQUIRES: no other thread exists.
  static void Use(ProcessStatus* status, int notify);
  // Whether a supervisor watches.
  static bool IsWorker() { return notified >= 0; }
  static void Ready() { SetPhase(ProcessPhase::Serving); }
  static void Leaving() { SetPhase(ProcessPhase::Leaving); }

  // A task counts while an object of this class lives.
  class Task {
   public:
    Task();
    ~Task();
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;
  };

  // The calling thread has a record while an object of this class lives.
  class Thread {
   public:
    explicit Thread(unsigned number);
    ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;
  };

  // A request of the calling thread, from its parameters to the end of its response.
  class Request {
   public:
    Request();
    ~Request();
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;
  };
  // The calling thread waits for the rest of a request's parameters, until Enter is called or a
  // Request begins.
  static void AwaitRequest();
  static void Enter(ThreadPhase phase) {
    if (current) current->phase.store(static_cast<uint32_t>(phase), std::memory_order_relaxed);
  }
  static void SetScript(const String& path);
  // Takes note of the memory of the run. Called before the run ends.
  static void NoteMemory() {
    if (current) NotePeak();
  }

 private:
  static void SetPhase(ProcessPhase phase);
  static void NotePeak();
  // A request of the calling thread begins, which has a record.
  static void Begin(ThreadPhase phase);

  static ProcessStatus* process;
  static int notified;
  static constinit inline thread_local ThreadStatus* current = nullptr;
};

#endif
