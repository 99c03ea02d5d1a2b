// Several processes on one listening socket, so that a fault in a library ends one of them only.
// The supervisor starts the workers, replaces those that end, and replaces all of them for a
// reload. It serves no requests itself and has no thread but the main one, so that it can fork at
// any time.

#ifndef ZEPH_FASTCGI_SUPERVISOR_H
#define ZEPH_FASTCGI_SUPERVISOR_H

#include <chrono>
#include <csignal>
#include <list>
#include <string>
#include <vector>

#include "base/host/FileDescriptor.h"
#include "fastcgi/ProcessStatus.h"
#include "fastcgi/StatusServer.h"

// How a worker lives, in a seat of which there are as many as workers were asked for:
//   1. It is started for an empty seat. When it serves, it tells so by its record.
//   2. It leaves the seat when it ends, or when its record says that it is about to. The seat then
//      gets another one: at once, but with a growing delay if workers end soon after their start.
//   3. For a reload each worker stays beside its seat until the next one in the seat serves. Then
//      it is told to finish its requests and to leave.
//
// SIGHUP reloads. Each other signal by which an engine ends is passed to all workers; what is left
// of them 18 seconds later is killed, because the engine promises to be gone after 20.
class Supervisor {
 public:
  // `threads` is the number of request threads of a worker. The status is served on that address
  // unless it is empty, or on the socket if it is not -1, which the supervisor then owns.
  Supervisor(int workers, int threads, const std::string& status_address, int status_socket);
  ~Supervisor();
  Supervisor(const Supervisor&) = delete;
  Supervisor& operator=(const Supervisor&) = delete;

  // Returns true in each worker, which then serves, and false in the supervisor when the last
  // worker has ended. A worker finds its record in OwnStatus. REQUIRES: there is no other thread.
  [[nodiscard]] bool Run();

 private:
  using Clock = std::chrono::steady_clock;

  struct Worker {
    pid_t pid;
    StatusBoard board;
    Clock::time_point started;
  };
  struct Seat {
    Worker* current = nullptr;   // in `workers`, as the next one
    Worker* previous = nullptr;  // serves until the current one does
    Clock::time_point next_start;
    std::chrono::milliseconds delay{0};
  };

  bool StartWorkers();
  bool StartWorker(Seat* seat);
  void BecomeWorker(StatusBoard board);
  void Wait();
  void HandleSignals();
  void BeginEnd();
  void BeginReload();
  void Reap();
  void Bury(const Worker& worker, int status);
  void LookAtPhases();
  void LookAtLog();
  void TellState();
  StatusReport Report() const;

  const int threads;
  const bool has_status;
  StatusServer server;
  FileDescriptor signals;
  FileDescriptor changes;      // counts changes of the workers' phases
  std::vector<pollfd> others;  // both, for the wait
  sigset_t mask_before;
  std::list<Worker> workers;
  std::vector<Seat> seats;
  Clock::time_point kill_time;
  Clock::time_point next_look;  // at the log
  bool ends = false;
  bool killed = false;
  bool is_ready = false;  // all workers have served at the same time, once
  bool reloads = false;
  bool reloads_again = false;
  int64_t started = 0;
  StatusReport past;  // without processes
};

#endif
