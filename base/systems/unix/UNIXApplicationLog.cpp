// The trace log of a run: decides if there is one and writes its records. Tested in
// tests/base/systems/unix/UNIXApplicationLogTest.cpp and tests/e2e/LogTest.cpp.

#include <cstring>

#include "base/core/zptime.h"
#include "base/host/Config.h"
#include "base/host/ErrorLog.h"
#include "base/host/File.h"
#include "base/systems/unix/UNIXApplication.h"
#include "base/systems/unix/UNIXReentrantFile.h"
#include "base/values/LogRecord.h"

namespace {

bool IsSet(const char* text) {
  return text && *text;
}

// A script runs as well without its log, so only the operator learns of it.
void ReportMissingLog(const char* program, const char* path, const String& reason) {
  String text("log_file: ", -1);
  text.cat(path, -1);
  text.cat(": ", 2);
  if (reason.length > 0) text.cat(reason.data, reason.length);
  ReportOnce(program, text.data, text.length);
}

}  // namespace

void UNIXApplication::ProcessLogSettings() {
  const char* path = configuration->value_string(Config_log_file);
  const char* filter = configuration->value_string(Config_log_filter);
  const char* visitor = configuration->value_string(Config_log_cookie);
  if (IsSet(filter)) ParseLogFilter(filter);
  if (IsSet(visitor)) ProcessLogCookie(visitor);
  if (IsSet(path)) {
    log_file.reset(file_manager->Open(ZephPath_Data, path,
                                      FileMode_Write | FileMode_Create | FileMode_Append));
    if (!log_file) ReportMissingLog(base_name, path, file_manager->error());
  }
  // Without a log the machine does not have to build records, no matter what its level is.
  if (!log_file) log_suppressed = 1;
}

void UNIXApplication::ProcessLogCookie(const char* text) {
  static const char kName[] = "zephlogcookie=";
  log_suppressed = 1;
  const char* value = cookie ? strstr(cookie.get(), kName) : nullptr;
  if (!value) return;
  value += sizeof kName - 1;
  const size_t length = strcspn(value, ";");
  if (length == strlen(text) && memcmp(value, text, length) == 0) log_suppressed = 0;
}

// One write for each record: what other threads and processes append to the file is then before or
// after it, never within it.
void UNIXApplication::Log(unsigned type, LogParameter* parameters) {
  if (!log_file) return;
  ZPTIME now;
  zp_gettimevalues(&now);
  LogRecord record(now, process_id, thread_id, Log_Description(type));
  record.Append(this, parameters);
  const std::string& line = record.Finish();
  log_file->Write(line.data(), static_cast<int>(line.size()));
}
