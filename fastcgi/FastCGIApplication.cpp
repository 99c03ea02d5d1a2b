// The request cycle: the objects that a request needs, the order of its stages, and the messages
// that end it.

#include "fastcgi/FastCGIApplication.h"

#include <fcgiapp.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

#include "base/compiled/TaggedFile.h"
#include "base/compiled/VariableHash.h"
#include "base/core/CLocale.h"
#include "base/core/RunLimit.h"
#include "base/core/ThreadMemory.h"
#include "base/extensions/ExternalConfig.h"
#include "base/machine/ZephVM.h"
#include "base/systems/unix/UNIXNetworkManager.h"
#include "base/systems/unix/UNIXReentrantFile.h"
#include "base/values/Variable.h"
#include "fastcgi/FastCGIAsynchronousApplication.h"
#include "fastcgi/FastCGIOutput.h"
#include "fastcgi/FastCGIThreads.h"
#include "fastcgi/ProcessStatus.h"

namespace {

// The process never changes its working directory, so one call of getcwd is enough.
const char* WorkingDirectory() {
  static char path[512];
  static const bool known = getcwd(path, sizeof path) != nullptr;
  return known ? path : ".";
}

// The date of a cookie that expires in a year. Formatted once a second in each thread; valid until
// the thread's next call.
std::string_view DateInAYear() {
  const long kYear = 31536000;
  struct Formatted {
    time_t second;
    size_t length;
    char text[64];
  };
  static constinit thread_local Formatted date{};
  const time_t now = time(nullptr);
  if (date.second != now) {
    const time_t expiry = now + kYear;
    tm utc{};
    gmtime_r(&expiry, &utc);
    date.length =
        strftime_l(date.text, sizeof date.text, "%a, %d-%b-%Y %H:%M:%S GMT", &utc, CLocale());
    date.second = now;
  }
  return {date.text, date.length};
}

}  // namespace

FastCGIApplication::FastCGIApplication(int argc, char** argv, int copied_argc, char** copied_argv,
                                       FastCGIThreadManager* thread_manager,
                                       ExternalLibraryManager* library_manager,
                                       FCGX_Request* request)
    : FastCGIBaseApplication(argc, argv, copied_argc, copied_argv, thread_manager, library_manager),
      request(request),
      parameters(request->envp),
      working_directory(WorkingDirectory()) {
  network_manager = new UNIXNetworkManager(this);
  file_manager = new UNIXReentrantFileManager(this);
  current_output = response = new FastCGIOutput(this, request);
  watch.Begin(request);
  if (parameters.cookie) cookie.reset(zeph_strdup(parameters.cookie));
}

int FastCGIApplication::Go(FastCGIThread* thread) {
  thread_id = static_cast<int>(thread->number());
  TaggedFile tagged(file_manager);
  SeedRandom();
  BuildTables(&tables, &tagged);
  MachineScope scope(this);
  return Run(&tagged);
}

// The machine reports a lack of memory in its own script. The other stages, which read the script
// file or a form, are covered here.
int FastCGIApplication::Run(TaggedFile* tagged) {
  String path;
  int result = 1;
  try {
    result = RunStages(tagged, &path);
  } catch (const std::bad_alloc&) {
    ThreadMemory::Exhausted();
    watch.StageFails(RequestWatch::Cause::Script, path, "Out of memory");
    Error("Out of memory");
  }
  watch.End(path);
  return result;
}

int FastCGIApplication::RunStages(TaggedFile* tagged, String* path) {
  response->SetConfig(configuration);
  if (!Prepare(tagged, path)) return 1;
  MakeMachine(&tables, tagged, *path);
  if (!AddVariables()) return 1;
  OutputHeaders();
  tables.system_variables->SetLateVariables(request_variables.release());
  OwnStatus::Enter(ThreadPhase::Receiving);
  if (!ProcessPOSTedData()) return 1;
  OwnStatus::Enter(ThreadPhase::Running);
  // The script's time starts here: loading and the upload do not count against it.
  ResetGlobalTimeout();
  vm->Go();
  if (const char* status = watch.SilentStatus()) response->SetStatus(status);
  // The machine ends first, because a mail that the script left open is sent then. The response
  // itself is flushed: its text of before a capture that was left open is sent, the captured text
  // is lost.
  DeleteMachine();
  response->Flush(1);
  return 0;
}

// The stages from the settings to a loaded script.
bool FastCGIApplication::Prepare(TaggedFile* tagged, String* path) {
  if (!LoadConfiguration() || !CheckConfiguration()) return false;
  TakeScriptName();
  file_manager->MaxFiles(configuration->value_integer(Config_max_files));
  file_manager->SecurityOptions(configuration->value_integer(Config_flags_security));
  File* file = nullptr;
  if (!GetScriptInformation(&file, tagged, *path)) return false;
  OwnStatus::SetScript(*path);
  return LoadScript(file, tagged, *path) && ProcessConfiguration();
}

void FastCGIApplication::OutputError(const char* text, int length) {
  const RequestWatch::Reply reply = watch.ReplyTo(text, length);
  if (reply.is_changed && reply.page.empty()) return;
  if (reply.status) {
    BeginHeaders();
    response->SetStatus(reply.status);
  } else {
    OutputHeaders();
  }
  if (!reply.is_changed) {
    current_output->Write_Error(reply.text.data(), static_cast<int>(reply.text.size()));
    return;
  }
  // Bytes that were sent cannot be taken back; the page then ends with the other one.
  (void)response->BeginErrorPage();
  response->Write_Error(reply.page.data(), static_cast<int>(reply.page.size()));
}

void FastCGIApplication::ConfigurationError(const String& text) {
  String message("Configuration Error: ", -1);
  if (text.length > 0) message.cat(text.data, text.length);
  watch.StageFails(RequestWatch::Cause::Configuration, String(), message);
  message.cat("<br>", -1);
  const char* admin = configuration->value_string(Config_info_serveradmin);
  if (admin) {
    message.cat("Please contact the server administrator: ", -1);
    message.cat(admin, -1);
  }
  Error(message);
}

int FastCGIApplication::BeginAsynchronousTask(ZephVM* machine) {
  const int most = configuration->value_integer(Config_max_async_tasks);
  if (most != 0 && started_tasks >= most) return AsynchronousTask_LimitReached;
  const int64_t before = ThreadMemory::Used();
  auto task = std::make_unique<FastCGIAsynchronousApplication>(this, machine);
  const int64_t given = ThreadMemory::Used() - before;
  // If the time limit passed while the copies were made, they are incomplete.
  if (RunLimit::WasCut()) return AsynchronousTask_Failed;
  started_tasks++;
  task->SetMemory(given);
  if (thread_manager->StartAsynchronousThread(task.release()) == 0) ThreadMemory::HandOver(given);
  return AsynchronousTask_Started;
}

bool FastCGIApplication::BeginHeaders() {
  if (header_stage_done) return false;
  header_stage_done = 1;
  current_output->Header("Content-Type", "text/html");
  return true;
}

void FastCGIApplication::OutputHeaders() {
  if (BeginHeaders() && configuration->value_integer(Config_cookies) != 0) OutputCookie();
}

// Every response carries the visitor's id, so that the cookie of a returning visitor is good for
// another year.
void FastCGIApplication::OutputCookie() {
  static const std::string_view kName = "zixcallerid=";
  static const std::string_view kExpires = "; expires=";
  static const std::string_view kPath = "; path=/";
  std::string_view id;
  if (const char* found = cookie ? strstr(cookie.get(), kName.data()) : nullptr) {
    found += kName.size();
    id = {found, strcspn(found, ";")};
  }
  String made;
  if (id.empty()) {
    int length;
    char* text = MakeSessionID(&length);
    made.assign_nocopy(text, length, length + 1);
    id = {made.data, static_cast<size_t>(made.length)};
  }
  const std::string_view date = DateInAYear();
  const std::string_view pieces[] = {kName, id, kExpires, date, kPath};
  size_t length = 0;
  for (const std::string_view piece : pieces) length += piece.size();
  std::unique_ptr<char[]> larger(length > sizeof cookie_room ? new char[length] : nullptr);
  char* const field = larger ? larger.get() : cookie_room;
  char* end = field;
  for (const std::string_view piece : pieces) end = std::copy(piece.begin(), piece.end(), end);
  const int owned = larger ? 1 : 0;
  (void)larger.release();
  current_output->Header("Set-Cookie", -1, 0, field, static_cast<int>(length), owned);
  // request_variables is null if an error page comes before the variables are made.
  if (!request_variables) return;
  if (made.data) {
    request_variables->AddText("callerid", std::move(made));
  } else {
    request_variables->AddBorrowed("callerid", id.data(), static_cast<int>(id.size()));
  }
}
