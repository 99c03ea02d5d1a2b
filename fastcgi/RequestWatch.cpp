// Lines of the error log and the slow log, and the pages that replace messages. Tested in
// tests/e2e/OperationTest.cpp.

#include "fastcgi/RequestWatch.h"

#include <fcgiapp.h>
#include <sys/random.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/core/ThreadMemory.h"
#include "base/host/Config.h"
#include "base/machine/ZephVM.h"
#include "fastcgi/FastCGIBaseApplication.h"
#include "fastcgi/OperatorSettings.h"

namespace {

// Requests that take less than this many seconds are not even compared with the setting.
const double kNeverSlow = 0.1;
// This clock advances in steps of some milliseconds, and is read without a system call everywhere.
const clockid_t kClock = CLOCK_MONOTONIC_COARSE;
const int kMostLines = 20;

const char* Parameter(const FCGX_Request* request, const char* name) {
  return request ? FCGX_GetParam(name, request->envp) : nullptr;
}

// Calls add(text) for each piece of the request line, as in "GET /page.zpc?id=7".
template <typename Add>
void ForRequestLine(const FCGX_Request* request, Add add) {
  if (const char* method = Parameter(request, "REQUEST_METHOD")) {
    add(method);
    add(" ");
  }
  if (const char* address = Parameter(request, "REQUEST_URI")) {
    add(address);
    return;
  }
  if (const char* path = Parameter(request, "PATH_INFO")) add(path);
  const char* query = Parameter(request, "QUERY_STRING");
  if (query && *query) {
    add("?");
    add(query);
  }
}

const char* StatusOf(RequestWatch::Cause cause) {
  switch (cause) {
    case RequestWatch::Cause::Missing: return "404 Not Found";
    case RequestWatch::Cause::Client: return "400 Bad Request";
    case RequestWatch::Cause::LateClient: return "408 Request Timeout";
    case RequestWatch::Cause::TimedOut: return "503 Service Unavailable";
    default: return "500 Internal Server Error";
  }
}

ErrorLog::Level LevelOf(RequestWatch::Cause cause) {
  switch (cause) {
    case RequestWatch::Cause::Missing:
    case RequestWatch::Cause::Client:
    case RequestWatch::Cause::LateClient: return ErrorLog::Level::Warning;
    default: return ErrorLog::Level::Error;
  }
}

// Messages of the machine end with a newline. A lack of memory is told with what was short, which
// the visitor does not see.
void AddMessage(LogLine* line, const char* text, int length) {
  while (length > 0 && text[length - 1] == '\n') length--;
  line->Text(text, length, 2000);
  if (const char* shortage = ThreadMemory::TakeShortage()) line->Text(": ").Text(shortage);
}

}  // namespace

RequestWatch::RequestWatch(FastCGIBaseApplication* application) : application(application) {
  clock_gettime(kClock, &began);
}

RequestWatch::RequestWatch(FastCGIBaseApplication* application, const RequestWatch& source)
    : RequestWatch(application) {
  is_configured = source.is_configured;
  ForRequestLine(source.request, [this](const char* piece) { task_request.append(piece); });
  if (const char* client = Parameter(source.request, "REMOTE_ADDR")) task_client = client;
}

// --- Lines ---------------------------------------------------------------------------------------

// A reference only serves to find the line, so it need not be secret.
const char* RequestWatch::Reference() {
  if (reference[0] != '\0') return reference;
  unsigned char bytes[5] = {};
  if (getrandom(bytes, sizeof bytes, GRND_NONBLOCK) != sizeof bytes) {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    memcpy(bytes, &now.tv_nsec, 4);
    bytes[4] = static_cast<unsigned char>(application->threadid());
  }
  char* to = reference;
  for (const unsigned char byte : bytes) to += snprintf(to, 3, "%02x", byte);
  return reference;
}

void RequestWatch::AddOrigin(LogLine* line) {
  if (request) {
    line->Field("client", Parameter(request, "REMOTE_ADDR"), -1, 64);
    line->BeginField("request");
    ForRequestLine(request, [line](const char* piece) { line->Quoted(piece); });
    line->EndField();
  } else {
    line->Field("client", task_client.data(), static_cast<int>(task_client.size()), 64);
    line->Field("task of", task_request.data(), static_cast<int>(task_request.size()));
  }
}

bool RequestWatch::MayReport() {
  if (++lines <= kMostLines) return true;
  if (lines == kMostLines + 1) {
    LogLine line;
    line.Text("Further errors of this request are not reported");
    Write(ErrorLog::Level::Warning, line.Field("reference", Reference()));
  }
  return false;
}

void RequestWatch::Write(ErrorLog::Level level, const LogLine& line) {
  ErrorLog::OfProcess().Write(level, line, application->threadid());
}

bool RequestWatch::ClientIsGone() const {
  return request && FCGX_GetError(request->out) != 0;
}

// --- Errors --------------------------------------------------------------------------------------

std::string_view RequestWatch::CancelText() {
  switch (application->WhyCancelled()) {
    case FastCGIBaseApplication::Cancel::Hangup: return "Application cancelled by SIGHUP";
    case FastCGIBaseApplication::Cancel::Shutdown:
      return "Application cancelled because the process ends";
    default: return "Application timed out";
  }
}

// An error that neither is shown nor ends the script is the script's own business: it can read its
// error variable.
void RequestWatch::Fails(const RunFailure& failure) {
  const bool timed_out = failure.kind == RunFailure::TimedOut;
  if (failure.is_shown) {
    pending = {timed_out ? Cause::TimedOut : Cause::Script, failure.ends_run};
    has_pending = true;
  }
  if (!failure.is_shown && !failure.ends_run) return;
  if (!failure.is_shown) has_failed_silently = true;
  // The machines of other files that run within this one see the same end of the time. A client
  // that has left has ended its own script.
  if (timed_out && (has_timed_out || ClientIsGone())) return;
  has_timed_out = has_timed_out || timed_out;
  if (!MayReport()) return;
  LogLine line;
  if (!request) line.Text("Background task: ");
  ErrorLog::Level level = failure.ends_run ? ErrorLog::Level::Error : ErrorLog::Level::Warning;
  if (timed_out) {
    const std::string_view text = CancelText();
    line.Text(text.data(), static_cast<int>(text.size()));
    if (application->WhyCancelled() != FastCGIBaseApplication::Cancel::TimeOut) {
      level = ErrorLog::Level::Notice;
    }
  } else {
    AddMessage(&line, failure.text, failure.text_length);
  }
  line.Field("reference", Reference());
  line.Field("script", failure.script.data, failure.script.length, 300);
  if (failure.file_length > 0 || failure.line != 0) {
    line.BeginField("at").Quoted(failure.file, failure.file_length, 200).Text(":");
    line.Number(failure.line).EndField();
  }
  AddOrigin(&line);
  Write(level, line);
}

void RequestWatch::StageFails(Cause cause, const String& path, const String& text) {
  if (has_pending) return;
  pending = {cause, true};
  has_pending = true;
  if (!MayReport()) return;
  LogLine line;
  AddMessage(&line, text.data, text.length);
  line.Field("reference", Reference());
  line.Field("script", path.data, path.length, 300);
  AddOrigin(&line);
  Write(LevelOf(cause), line);
}

// --- What visitors see ---------------------------------------------------------------------------

// Without its own configuration a request does what the others do, unless its file says so itself.
int RequestWatch::Setting(int id) {
  const int value = application->config()->value_integer(id);
  if (is_configured) return value;
  if (id == Config_show_errors) return value != 0 && OperatorSettings::ShowsErrors();
  return value != 0 || OperatorSettings::SendsStatusCodes();
}

void RequestWatch::MakePage(const char* title, const char* what) {
  snprintf(page, sizeof page,
           "<!DOCTYPE html>\n<html><head><title>%s</title></head><body>\n<h1>%s</h1>\n<p>%s</p>\n"
           "<p>Reference: %s</p>\n</body></html>\n",
           title, title, what, Reference());
}

const char* RequestWatch::SilentStatus() {
  const bool told = has_failed_silently && Setting(Config_status_codes) != 0;
  return told ? StatusOf(Cause::Script) : nullptr;
}

RequestWatch::Reply RequestWatch::ReplyTo(const char* text, int length) {
  if (!has_pending) {
    StageFails(application->posttimedout() ? Cause::LateClient : Cause::Client, String(),
               String(text, length));
  }
  const Pending told = pending;
  has_pending = false;
  Reply reply{nullptr, false, {text, static_cast<size_t>(length)}, {}};
  const bool shown = Setting(Config_show_errors) != 0;
  if (!told.ends_request) {
    reply.is_changed = !shown;
    return reply;
  }
  if (Setting(Config_status_codes) != 0) reply.status = StatusOf(told.cause);
  const bool cancelled = told.cause == Cause::TimedOut &&
                         application->WhyCancelled() != FastCGIBaseApplication::Cancel::TimeOut;
  if (shown) {
    // The words of a time-out are fixed for pages with the usual status.
    if (cancelled && reply.status) reply.text = "Application cancelled";
    return reply;
  }
  reply.is_changed = true;
  reply.text = page;
  if (told.cause == Cause::Missing) {
    MakePage("Not found", "There is no such page.");
  } else if (cancelled) {
    MakePage("Cancelled", "The server has cancelled this request. Please try again.");
  } else if (told.cause == Cause::TimedOut) {
    MakePage("Too slow", "This page took too long.");
  } else if (told.cause == Cause::Client || told.cause == Cause::LateClient) {
    MakePage("Bad request", "The server could not read what was sent.");
  } else {
    MakePage("Error", "An error has occurred, and has been reported.");
  }
  reply.page = page;
  return reply;
}

// --- Slow requests -------------------------------------------------------------------------------

double RequestWatch::Elapsed() const {
  timespec now;
  clock_gettime(kClock, &now);
  return static_cast<double>(now.tv_sec - began.tv_sec) +
         static_cast<double>(now.tv_nsec - began.tv_nsec) / 1e9;
}

bool RequestWatch::IsSlow() const {
  const double elapsed = Elapsed();
  if (elapsed < kNeverSlow || !is_configured) return false;
  const int limit = application->config()->value_integer(Config_slow_time);
  return limit > 0 && elapsed * 1000 >= limit;
}

void RequestWatch::ReportSlow(const char* what, const String& path, ZephVM* machine) {
  char seconds[32];
  snprintf(seconds, sizeof seconds, "%.3f s", Elapsed());
  LogLine line;
  line.Text("Slow: ").Text(what).Text(seconds);
  line.Field("reference", Reference()).Field("script", path.data, path.length, 300);
  if (machine) {
    line.BeginField("at");
    machine->WriteCalls(&line);
    line.EndField();
  }
  line.BeginField("memory").Number(ThreadMemory::Peak()).EndField();
  AddOrigin(&line);
  WriteSlow(line);
}

// All threads share one slow log, and scripts may have different files.
void RequestWatch::WriteSlow(const LogLine& line) {
  const auto level = ErrorLog::Level::Notice;
  if (const char* path = application->config()->value_string(Config_slow_log)) {
    if (ErrorLog::OfSlowRequests().WriteTo(path, level, line, application->threadid())) return;
    char reason[256];
    const char* const why = strerror_r(errno, reason, sizeof reason);
    String problem("slow_log: ", -1);
    problem.cat(path, -1);
    problem.cat(": ", 2);
    problem.cat(why, -1);
    ReportOnce("zeph-fcgi", problem.data, problem.length);
  }
  Write(level, line);
}

// Tasks are meant to take long.
void RequestWatch::Beats(ZephVM* machine) {
  if (has_calls || !request || !IsSlow()) return;
  has_calls = true;
  ReportSlow("running for ", machine->ScriptPath(), machine);
}

void RequestWatch::End(const String& path) {
  if (IsSlow()) ReportSlow("took ", path, nullptr);
}
