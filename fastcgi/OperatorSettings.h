// What holds for the whole process although it is set in the configuration of requests: where
// errors are reported, what visitors see of them, and how long a request may take to arrive.
//
// A request must not pay for this. So one request in five seconds reads these settings, the first
// after each heartbeat, and all others use what it has found. If requests have different
// configurations, the latest counts.

#ifndef ZEPH_FASTCGI_OPERATORSETTINGS_H
#define ZEPH_FASTCGI_OPERATORSETTINGS_H

#include <atomic>

class Config;
class LogLine;

// Any thread may call the functions.
class OperatorSettings {
 public:
  // Opens the log of the process, before anything is configured. Called once, first of all.
  static void Start();
  // Marks the settings as due and looks after the log's files. Called by the heartbeat.
  static void Beat();

  static bool AreDue() { return due.load(std::memory_order_relaxed); }
  // Reads the settings of a request and applies them. If its configuration could not be loaded,
  // only a log that it names counts, because it has nothing else but defaults then.
  static void Read(Config* config, bool loaded);

  // Seconds in which the parameters of a request have to come; 0 means no limit.
  static int RequestTimeout() { return request_timeout.load(std::memory_order_relaxed); }
  // For a request without a configuration: what the last one with a configuration did.
  static bool ShowsErrors() { return shows_errors.load(std::memory_order_relaxed); }
  static bool SendsStatusCodes() { return sends_status_codes.load(std::memory_order_relaxed); }

  // Sends the lines of the process to the log that the setting error_log names; null or empty means
  // that it is not set. If a file cannot be opened the log stays as it was, and says so once.
  static void UseLog(const char* name);

  // Reports a problem of the process itself, as distinct from one of a request; on standard error,
  // if it has no log yet, as in a test. The second form reports "zeph-fcgi: ", `what` and `why`.
  static void Report(const LogLine& problem);
  static void Report(const char* what, const char* why = nullptr);

 private:
  static std::atomic<bool> due;
  static std::atomic<int> request_timeout;
  static std::atomic<bool> shows_errors;
  static std::atomic<bool> sends_status_codes;
};

#endif
