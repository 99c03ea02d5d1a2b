// Starts, replaces and ends the workers. Tested in tests/e2e/SupervisorTest.cpp.

#include "fastcgi/Supervisor.h"

#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "base/host/ErrorLog.h"
#include "fastcgi/FastCGIThreads.h"
#include "fastcgi/OperatorSettings.h"
#include "fastcgi/ProcessSettings.h"
#include "fastcgi/ServiceManager.h"

namespace {

constexpr int kEnding[] = {SIGINT, SIGQUIT, SIGPIPE, SIGTERM, SIGUSR1, SIGUSR2};
constexpr std::chrono::seconds kLongLife(10);
constexpr std::chrono::milliseconds kFirstDelay(100);
constexpr std::chrono::milliseconds kLongestDelay(10000);
constexpr std::chrono::seconds kTimeToLeave(18);
// As often as a heartbeat looks in the workers.
constexpr std::chrono::milliseconds kLook(5000);

bool IsServing(const StatusBoard& board) {
  return board.get()->phase.load() == static_cast<uint32_t>(ProcessPhase::Serving);
}

bool IsLeaving(const StatusBoard& board) {
  return board.get()->phase.load() == static_cast<uint32_t>(ProcessPhase::Leaving);
}

}  // namespace

Supervisor::Supervisor(int workers, int threads, const std::string& status_address,
                       int status_socket)
    : threads(threads),
      has_status(!status_address.empty() || status_socket >= 0),
      server([this] { return Report(); }),
      seats(static_cast<size_t>(workers)),
      started(ProcessStatus::Now()) {
  std::string problem;
  if (status_socket >= 0) {
    server.Adopt(status_socket);
  } else if (has_status && !server.Listen(status_address, &problem)) {
    OperatorSettings::Report("status_listen: ", problem.c_str());
  }
}

Supervisor::~Supervisor() = default;

bool Supervisor::Run() {
  sigset_t set;
  sigemptyset(&set);
  for (int number : kEnding) sigaddset(&set, number);
  sigaddset(&set, SIGHUP);
  sigaddset(&set, SIGCHLD);
  pthread_sigmask(SIG_BLOCK, &set, &mask_before);
  signals.reset(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
  changes.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!signals.is_open() || !changes.is_open()) {
    OperatorSettings::Report("no workers: ", strerror(errno));
    return false;
  }
  others = {{signals.get(), POLLIN, 0}, {changes.get(), POLLIN, 0}};
  for (;;) {
    if (!ends && StartWorkers()) return true;
    if (ends && workers.empty()) break;
    Wait();
    HandleSignals();
    Reap();
    LookAtPhases();
    LookAtLog();
    if (ends && !killed && Clock::now() >= kill_time) {
      for (const Worker& worker : workers) kill(worker.pid, SIGKILL);
      killed = true;
    }
  }
  server.Close(true);
  return false;
}

// Returns true in a worker.
bool Supervisor::StartWorkers() {
  for (Seat& seat : seats) {
    if (!seat.current && Clock::now() >= seat.next_start && StartWorker(&seat)) return true;
  }
  return false;
}

bool Supervisor::StartWorker(Seat* seat) {
  // Made before the fork, because a worker without its place here would be lost.
  std::list<Worker> made;
  try {
    made.push_back({0, StatusBoard(has_status ? threads : 0), Clock::now()});
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
  }
  const pid_t supervisor = getpid();
  const pid_t pid = !made.empty() && made.back().board.get() ? fork() : -1;
  if (pid == 0) {
    // Workers whose supervisor was killed leave too: the next one starts its own.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != supervisor) _exit(0);
    BecomeWorker(std::move(made.back().board));
    return true;
  }
  if (pid < 0) {
    OperatorSettings::Report("a worker cannot be started: ", strerror(errno));
    seat->next_start = Clock::now() + std::chrono::seconds(1);
    return false;
  }
  past.workers_started++;
  made.back().pid = pid;
  workers.splice(workers.end(), made);
  seat->current = &workers.back();
  return false;
}

// The rest of the supervisor's descriptors and memory is given up.
void Supervisor::BecomeWorker(StatusBoard board) {
  workers.clear();
  server.Close(false);
  signals.reset();
  // The ending signals stay blocked, as the engine wants them until it handles them.
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGCHLD);
  if (!sigismember(&mask_before, SIGCHLD)) pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  ServiceManager::Forget();
  OwnStatus::Use(board.release(), changes.release());
}

void Supervisor::Wait() {
  int timeout = static_cast<int>(kLook.count());
  const auto until = [&timeout](Clock::time_point time) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(time - Clock::now()).count() + 1;
    timeout = static_cast<int>(std::clamp<int64_t>(left, 0, timeout));
  };
  until(next_look);
  if (ends && !killed) until(kill_time);
  for (const Seat& seat : seats) {
    if (!ends && !seat.current) until(seat.next_start);
  }
  server.Turn(&others, timeout);
  uint64_t count;
  if (others[1].revents != 0 && read(changes.get(), &count, sizeof count) < 0) {
    // Another look at the phases does no harm.
  }
}

void Supervisor::HandleSignals() {
  signalfd_siginfo info;
  while (read(signals.get(), &info, sizeof info) == sizeof info) {
    const int number = static_cast<int>(info.ssi_signo);
    if (number == SIGCHLD) continue;
    if (number == SIGHUP) {
      if (!ends) BeginReload();
    } else if (!ends) {
      BeginEnd();
    }
  }
}

void Supervisor::BeginEnd() {
  ServiceManager::Stopping();
  ends = true;
  kill_time = Clock::now() + kTimeToLeave;
  for (const Worker& worker : workers) kill(worker.pid, SIGTERM);
}

// A reload that comes during another one begins after it, because the workers that are just being
// started may have read what has changed since.
void Supervisor::BeginReload() {
  if (reloads) {
    reloads_again = true;
    return;
  }
  reloads = true;
  reloads_again = false;
  past.reloads++;
  ServiceManager::Reloading();
  try {
    OperatorSettings::UseLog(ReadProcessSettings().error_log.c_str());
  } catch (const std::bad_alloc&) {
    // The log stays as it is. The end of this process would be the end of all workers.
  }
  for (Seat& seat : seats) {
    // A worker that does not serve yet is told to leave as soon as it can.
    seat.previous = std::exchange(seat.current, nullptr);
    seat.next_start = Clock::now();
    seat.delay = std::chrono::milliseconds(0);
  }
}

void Supervisor::Reap() {
  int status;
  while (const pid_t pid = waitpid(-1, &status, WNOHANG)) {
    if (pid < 0) return;
    const auto found = std::find_if(workers.begin(), workers.end(),
                                    [pid](const Worker& worker) { return worker.pid == pid; });
    if (found == workers.end()) continue;
    Bury(*found, status);
    workers.erase(found);
  }
}

// A worker that was told to leave, or that leaves by itself, is in no seat any more.
void Supervisor::Bury(const Worker& worker, int status) {
  try {
    past.Bury(ProcessView::Of(*worker.board.get()));
  } catch (const std::bad_alloc&) {
    // Its counts are lost.
  }
  const auto seat = std::find_if(seats.begin(), seats.end(), [&worker](const Seat& each) {
    return each.current == &worker || each.previous == &worker;
  });
  const bool is_failure = WIFSIGNALED(status) || (WIFEXITED(status) && WEXITSTATUS(status) != 0) ||
                          (!ends && seat != seats.end() && !IsLeaving(worker.board));
  if (is_failure) {
    past.workers_failed++;
    const bool by_signal = WIFSIGNALED(status);
    LogLine line;
    line.Text("zeph-fcgi: worker ").Number(worker.pid);
    line.Text(by_signal ? " was ended by signal " : " ended with status ");
    line.Number(by_signal ? WTERMSIG(status) : WEXITSTATUS(status));
    OperatorSettings::Report(line);
  }
  if (seat == seats.end()) return;
  if (seat->previous == &worker) {
    seat->previous = nullptr;
    return;
  }
  seat->current = nullptr;
  const bool lived_long = Clock::now() - worker.started >= kLongLife;
  if (lived_long || IsLeaving(worker.board)) {
    seat->delay = std::chrono::milliseconds(0);
  } else {
    seat->delay = seat->delay.count() == 0 ? kFirstDelay : std::min(seat->delay * 2, kLongestDelay);
  }
  seat->next_start = Clock::now() + seat->delay;
}

void Supervisor::LookAtPhases() {
  if (ends) return;
  bool all_serve = true;
  bool all_replaced = true;
  for (Seat& seat : seats) {
    if (seat.current && IsLeaving(seat.current->board)) {
      seat.current = nullptr;
      seat.next_start = Clock::now();
    }
    if (!seat.current || !IsServing(seat.current->board)) {
      all_serve = false;
    } else if (seat.previous &&
               (IsServing(seat.previous->board) || IsLeaving(seat.previous->board))) {
      kill(seat.previous->pid, FastCGIDrainSignal());
      seat.previous = nullptr;
    }
    if (seat.previous) all_replaced = false;
  }
  if (all_serve && all_replaced) TellState();
}

// It rarely has a line to write, and would keep a renamed log open until then.
void Supervisor::LookAtLog() {
  if (Clock::now() < next_look) return;
  next_look = Clock::now() + kLook;
  ErrorLog::OfProcess().Look();
}

void Supervisor::TellState() {
  if (!is_ready || reloads) ServiceManager::Ready();
  is_ready = true;
  reloads = false;
  if (reloads_again) BeginReload();
}

StatusReport Supervisor::Report() const {
  StatusReport report = past;
  for (const Worker& worker : workers) {
    report.processes.push_back(ProcessView::Of(*worker.board.get()));
    // It learns of that at its next heartbeat.
    if (ends) report.processes.back().phase = ProcessPhase::Leaving;
  }
  report.age = static_cast<double>(ProcessStatus::Now() - started) / 1e9;
  return report;
}
