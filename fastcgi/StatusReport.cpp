// The three forms of the status. Tested in tests/fastcgi/StatusReportTest.cpp.

#include "fastcgi/StatusReport.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>

namespace {

const char* const kPhases[kThreadPhases] = {"gone",      "idle",    "loading",
                                            "receiving", "running", "sending"};
const char* const kProcessPhases[] = {"starting", "serving", "leaving"};

const char* Name(ThreadPhase phase) {
  return kPhases[std::min(static_cast<int>(phase), kThreadPhases - 1)];
}

const char* Name(ProcessPhase phase) {
  return kProcessPhases[std::min(static_cast<int>(phase), 2)];
}

bool IsBusy(ThreadPhase phase) {
  return phase != ThreadPhase::None && phase != ThreadPhase::Idle;
}

double Seconds(int64_t nanoseconds) {
  return static_cast<double>(nanoseconds) / 1e9;
}

__attribute__((format(printf, 2, 3))) void Add(std::string* text, const char* format, ...) {
  char line[512];
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  text->append(line, static_cast<size_t>(std::clamp(length, 0, static_cast<int>(sizeof line) - 1)));
}

// A path as an address has it, so that each form can hold it as it is: a client has chosen it, and
// it may have any byte.
std::string Harmless(const std::string& path) {
  std::string result;
  for (const char c : path) {
    if (c > ' ' && c < 0x7f && c != '"' && c != '\\' && c != '%') {
      result += c;
    } else {
      Add(&result, "%%%02X", static_cast<unsigned>(static_cast<unsigned char>(c)));
    }
  }
  return result;
}

int64_t ResidentBytes(int pid) {
  char path[64];
  snprintf(path, sizeof path, "/proc/%d/statm", pid);
  FILE* file = fopen(path, "re");
  if (!file) return 0;
  long all = 0;
  long resident = 0;
  const int found = fscanf(file, "%ld %ld", &all, &resident);
  fclose(file);
  return found == 2 ? static_cast<int64_t>(resident) * sysconf(_SC_PAGESIZE) : 0;
}

struct Sums {
  explicit Sums(const StatusReport& report)
      : requests(report.past_requests),
        busy(report.past_busy),
        tasks_started(report.past_tasks),
        memory(report.past_memory) {
    for (const ProcessView& process : report.processes) {
      requests += process.requests;
      busy += process.busy;
      tasks += process.tasks;
      tasks_started += process.tasks_started;
      resident += process.resident;
      for (const ThreadView& thread : process.threads) {
        threads[static_cast<size_t>(thread.phase)]++;
        memory = std::max(memory, thread.memory);
        if (IsBusy(thread.phase)) oldest = std::max(oldest, thread.age);
      }
    }
  }

  std::array<unsigned, kThreadPhases> threads{};
  uint64_t requests;
  double busy;
  unsigned tasks = 0;
  uint64_t tasks_started;
  int64_t resident = 0;
  double oldest = 0;
  int64_t memory;  // of the request that has had most
};

}  // namespace

ProcessView ProcessView::Of(const ProcessStatus& status) {
  const auto relaxed = std::memory_order_relaxed;
  const int64_t now = ProcessStatus::Now();
  ProcessView view;
  view.pid = status.pid.load();
  view.phase = static_cast<ProcessPhase>(std::min(status.phase.load(), 2u));
  view.age = Seconds(now - status.started.load());
  view.resident = ResidentBytes(view.pid);
  view.tasks = status.tasks.load(relaxed);
  view.tasks_started = status.tasks_started.load(relaxed);
  view.requests = status.other_requests.load(relaxed);
  const uint32_t count = std::min(status.slots.load(), status.threads.load());
  for (uint32_t i = 0; i < count; i++) {
    const ThreadStatus& thread = *status.thread(i);
    ThreadView seen;
    seen.number = thread.number.load(relaxed);
    seen.phase = static_cast<ThreadPhase>(
        std::min(thread.phase.load(relaxed), static_cast<uint32_t>(kThreadPhases - 1)));
    seen.requests = thread.requests.load(relaxed);
    seen.busy = Seconds(thread.busy.load(relaxed));
    seen.longest = Seconds(thread.longest.load(relaxed));
    seen.memory = thread.memory.load(relaxed);
    seen.script = thread.Script();
    // The request may have begun after the clock was read.
    if (IsBusy(seen.phase)) seen.age = std::max(Seconds(now - thread.began.load(relaxed)), 0.0);
    view.requests += seen.requests;
    view.busy += seen.busy;
    view.threads.push_back(std::move(seen));
  }
  return view;
}

void StatusReport::Bury(const ProcessView& process) {
  past_requests += process.requests;
  past_busy += process.busy;
  past_tasks += process.tasks_started;
  for (const ThreadView& thread : process.threads) {
    past_memory = std::max(past_memory, thread.memory);
  }
}

bool StatusReport::IsServing() const {
  return std::any_of(processes.begin(), processes.end(), [](const ProcessView& process) {
    return process.phase == ProcessPhase::Serving;
  });
}

std::string StatusReport::Text() const {
  const Sums sums(*this);
  std::string text;
  Add(&text, "up          %.0f s\n", age);
  Add(&text, "requests    %llu, %.3f s together\n", static_cast<unsigned long long>(sums.requests),
      sums.busy);
  Add(&text, "threads    ");
  const char* separator = " ";
  for (int i = 1; i < kThreadPhases; i++) {
    Add(&text, "%s%u %s", separator, sums.threads[static_cast<size_t>(i)], kPhases[i]);
    separator = ", ";
  }
  Add(&text, "\ntasks       %u, %llu started\n", sums.tasks,
      static_cast<unsigned long long>(sums.tasks_started));
  Add(&text, "memory      %.1f MB, %.1f MB for one request at most\n",
      static_cast<double>(sums.resident) / 1e6, static_cast<double>(sums.memory) / 1e6);
  if (workers_started > 0) {
    Add(&text, "workers     %llu started, %llu failed, %llu reloads\n",
        static_cast<unsigned long long>(workers_started),
        static_cast<unsigned long long>(workers_failed), static_cast<unsigned long long>(reloads));
  }
  for (const ProcessView& process : processes) {
    Add(&text, "\nprocess %d, %s, up %.0f s, %llu requests, %u tasks, %.1f MB\n", process.pid,
        Name(process.phase), process.age, static_cast<unsigned long long>(process.requests),
        process.tasks, static_cast<double>(process.resident) / 1e6);
    Add(&text, "%8s  %-9s  %10s  %10s  %10s  %8s  %s\n", "thread", "state", "age s", "requests",
        "longest s", "most MB", "script");
    for (const ThreadView& thread : process.threads) {
      Add(&text, "%8u  %-9s  %10.3f  %10llu  %10.3f  %8.1f  ", thread.number, Name(thread.phase),
          thread.age, static_cast<unsigned long long>(thread.requests), thread.longest,
          static_cast<double>(thread.memory) / 1e6);
      text += (IsBusy(thread.phase) ? Harmless(thread.script) : "") + "\n";
    }
  }
  return text;
}

std::string StatusReport::JSON() const {
  const Sums sums(*this);
  std::string text;
  Add(&text,
      "{\"serving\":%s,\"uptime_seconds\":%.3f,\"requests\":%llu,\"request_seconds\":%.6f,"
      "\"tasks\":%u,\"tasks_started\":%llu,\"resident_bytes\":%lld,"
      "\"most_memory_bytes\":%lld,\"workers_started\":%llu,"
      "\"workers_failed\":%llu,\"reloads\":%llu,\"processes\":[",
      IsServing() ? "true" : "false", age, static_cast<unsigned long long>(sums.requests),
      sums.busy, sums.tasks, static_cast<unsigned long long>(sums.tasks_started),
      static_cast<long long>(sums.resident), static_cast<long long>(sums.memory),
      static_cast<unsigned long long>(workers_started),
      static_cast<unsigned long long>(workers_failed), static_cast<unsigned long long>(reloads));
  const char* next = "";
  for (const ProcessView& process : processes) {
    Add(&text,
        "%s{\"pid\":%d,\"state\":\"%s\",\"uptime_seconds\":%.3f,\"requests\":%llu,"
        "\"tasks\":%u,\"resident_bytes\":%lld,\"threads\":[",
        next, process.pid, Name(process.phase), process.age,
        static_cast<unsigned long long>(process.requests), process.tasks,
        static_cast<long long>(process.resident));
    next = ",";
    const char* next_thread = "";
    for (const ThreadView& thread : process.threads) {
      Add(&text,
          "%s{\"thread\":%u,\"state\":\"%s\",\"age_seconds\":%.6f,\"requests\":%llu,"
          "\"request_seconds\":%.6f,\"longest_seconds\":%.6f,\"most_memory_bytes\":%lld,"
          "\"script\":\"",
          next_thread, thread.number, Name(thread.phase), thread.age,
          static_cast<unsigned long long>(thread.requests), thread.busy, thread.longest,
          static_cast<long long>(thread.memory));
      text += (IsBusy(thread.phase) ? Harmless(thread.script) : "") + "\"}";
      next_thread = ",";
    }
    text += "]}";
  }
  return text + "]}\n";
}

std::string StatusReport::Metrics() const {
  const Sums sums(*this);
  std::string text;
  const auto describe = [&text](const char* name, const char* type, const char* help) {
    Add(&text, "# HELP %s %s\n# TYPE %s %s\n", name, help, name, type);
  };
  const auto whole = [&](const char* name, const char* type, uint64_t value, const char* help) {
    describe(name, type, help);
    Add(&text, "%s %llu\n", name, static_cast<unsigned long long>(value));
  };
  const auto seconds = [&](const char* name, const char* type, double value, const char* help) {
    describe(name, type, help);
    Add(&text, "%s %.6f\n", name, value);
  };
  whole("zeph_serving", "gauge", IsServing() ? 1 : 0, "1 if a request that comes now is served.");
  seconds("zeph_uptime_seconds", "gauge", age, "Time since the start of the engine.");
  whole("zeph_processes", "gauge", processes.size(), "Processes that serve requests or leave.");
  describe("zeph_threads", "gauge", "Request threads by what they do.");
  for (int i = 1; i < kThreadPhases; i++) {
    Add(&text, "zeph_threads{state=\"%s\"} %u\n", kPhases[i], sums.threads[static_cast<size_t>(i)]);
  }
  whole("zeph_requests_total", "counter", sums.requests, "Finished requests.");
  seconds("zeph_request_seconds_total", "counter", sums.busy, "Time of all finished requests.");
  seconds("zeph_oldest_request_seconds", "gauge", sums.oldest,
          "Age of the oldest request in progress, 0 without one.");
  whole("zeph_tasks", "gauge", sums.tasks, "Background tasks that run.");
  whole("zeph_tasks_total", "counter", sums.tasks_started, "Background tasks that have started.");
  whole("zeph_resident_memory_bytes", "gauge", static_cast<uint64_t>(sums.resident),
        "Memory of all processes.");
  whole("zeph_request_memory_max_bytes", "gauge", static_cast<uint64_t>(sums.memory),
        "The most memory that one finished request has had.");
  whole("zeph_workers_started_total", "counter", workers_started, "Workers that were started.");
  whole("zeph_workers_failed_total", "counter", workers_failed,
        "Workers that ended without being told to.");
  whole("zeph_reloads_total", "counter", reloads, "Reloads.");
  return text;
}
