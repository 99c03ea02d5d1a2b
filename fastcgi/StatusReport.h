// The pages of status: what the processes and their request threads do, as text for a person, as
// JSON, and as metrics in the text format that collectors of metrics read.

#ifndef ZEPH_FASTCGI_STATUSREPORT_H
#define ZEPH_FASTCGI_STATUSREPORT_H

#include <cstdint>
#include <string>
#include <vector>

#include "fastcgi/ProcessStatus.h"

// Times are seconds.
struct ThreadView {
  unsigned number = 0;
  ThreadPhase phase = ThreadPhase::None;
  uint64_t requests = 0;
  double busy = 0;     // of all finished requests
  double longest = 0;  // of one of them
  int64_t memory = 0;  // bytes; the most that one of them has had
  double age = 0;      // of the request in progress
  std::string script;  // of it, or else of the last one
};

struct ProcessView {
  // Copies what the record holds now, and asks the system for the memory of the process.
  static ProcessView Of(const ProcessStatus& status);

  int pid = 0;
  ProcessPhase phase = ProcessPhase::Starting;
  double age = 0;
  int64_t resident = 0;  // bytes of memory
  unsigned tasks = 0;
  uint64_t tasks_started = 0;
  uint64_t requests = 0;  // of all threads, like the next ones
  double busy = 0;
  std::vector<ThreadView> threads;
};

struct StatusReport {
  std::vector<ProcessView> processes;
  double age = 0;  // of the engine, in seconds
  // Of workers that have ended.
  uint64_t past_requests = 0;
  double past_busy = 0;
  uint64_t past_tasks = 0;
  int64_t past_memory = 0;  // bytes; the most that one of their requests has had
  // Without a supervisor the last three are 0.
  uint64_t workers_started = 0;
  uint64_t workers_failed = 0;
  uint64_t reloads = 0;

  // Adds what a worker has done to the past.
  void Bury(const ProcessView& process);

  // Whether a request that comes now is served.
  bool IsServing() const;
  std::string Text() const;
  std::string JSON() const;
  std::string Metrics() const;
};

#endif
