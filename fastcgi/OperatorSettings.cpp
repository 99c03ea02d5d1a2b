// The settings of the process and its log. Tested in tests/e2e/OperationTest.cpp.

#include "fastcgi/OperatorSettings.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/host/Config.h"
#include "base/host/ErrorLog.h"

std::atomic<bool> OperatorSettings::due{true};
std::atomic<int> OperatorSettings::request_timeout{0};
std::atomic<bool> OperatorSettings::shows_errors{true};
std::atomic<bool> OperatorSettings::sends_status_codes{false};

// A closed descriptor 2 would be given to the next file or connection, which would then get the
// messages of libraries.
void OperatorSettings::Start() {
  if (fcntl(STDERR_FILENO, F_GETFD) < 0) {
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null >= 0 && null != STDERR_FILENO) {
      dup2(null, STDERR_FILENO);
      close(null);
    }
  }
  ErrorLog::OfProcess().Open(nullptr);
}

void OperatorSettings::Beat() {
  due.store(true, std::memory_order_relaxed);
  ErrorLog::OfProcess().Look();
  ErrorLog::OfSlowRequests().Look();
}

void OperatorSettings::Read(Config* config, bool loaded) {
  const char* log = config->value_string(Config_error_log);
  if (log || loaded) UseLog(log);
  if (!loaded) return;
  due.store(false, std::memory_order_relaxed);
  request_timeout.store(std::max(config->value_integer(Config_timeout_request), 0),
                        std::memory_order_relaxed);
  shows_errors.store(config->value_integer(Config_show_errors) != 0, std::memory_order_relaxed);
  sends_status_codes.store(config->value_integer(Config_status_codes) != 0,
                           std::memory_order_relaxed);
}

void OperatorSettings::UseLog(const char* name) {
  if (name && !*name) name = nullptr;
  if (ErrorLog::OfProcess().Open(name)) return;
  char reason[256];
  char text[1024];
  const int length = snprintf(text, sizeof text, "error_log: %.600s: %s; the log stays as it was",
                              name ? name : "", strerror_r(errno, reason, sizeof reason));
  ReportOnce("zeph-fcgi", text, std::min(length, static_cast<int>(sizeof text) - 1));
}

void OperatorSettings::Report(const char* what, const char* why) {
  LogLine line;
  line.Text("zeph-fcgi: ").Text(what).Text(why);
  Report(line);
}

void OperatorSettings::Report(const LogLine& problem) {
  if (ErrorLog::OfProcess().Write(ErrorLog::Level::Error, problem)) return;
  fprintf(stderr, "%.*s\n", problem.length(), problem.data());
}
