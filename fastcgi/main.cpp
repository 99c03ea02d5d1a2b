// Entry of the engine: arguments, threads, and the wait for their end.

#include <fcgiapp.h>
#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>

#include "base/systems/unix/UNIXOpenSSL.h"
#include "fastcgi/Arguments.h"
#include "fastcgi/FastCGIExternalLibrary.h"
#include "fastcgi/FastCGIThreads.h"
#include "fastcgi/OperatorSettings.h"
#include "fastcgi/ProcessSettings.h"
#include "fastcgi/ProcessStatus.h"
#include "fastcgi/ServiceManager.h"
#include "fastcgi/ShellOptions.h"
#include "fastcgi/StatusServer.h"
#include "fastcgi/Supervisor.h"

namespace {

const int kListeningSocket = 0;

// Request threads wait in accept. On a non-blocking socket accept would fail and all threads would
// leave at once.
void MakeBlocking(int descriptor) {
  int flags = fcntl(descriptor, F_GETFL);
  if (flags >= 0 && (flags & O_NONBLOCK)) fcntl(descriptor, F_SETFL, flags & ~O_NONBLOCK);
}

// Without a listening socket every thread, and so the process, leaves at once; this message is the
// only sign of the reason.
void CheckListening(int descriptor) {
  if (IsListening(descriptor)) return;
  OperatorSettings::Report("descriptor 0 is no listening socket: ",
                           errno != 0 ? strerror(errno) : "not listening");
}

// Runs until a signal ends the process. Without a heartbeat no script would have a time limit and
// no signal an effect, so nothing is served.
void Serve(FastCGIThreadManager* threads, _FastCGIMainArgs* arguments) {
  if (const int error = threads->StartHeartbeat()) {
    OperatorSettings::Report("no heartbeat thread: ", strerror(error));
    return;
  }
  if (threads->StartRequestThreads(arguments) > 0) {
    OwnStatus::Ready();
    ServiceManager::Ready();
  }
  threads->Run();
}

// A page of status that cannot be served keeps no site from being served.
void StartStatus(StatusThread* status, const std::string& address, int threads) {
  const int descriptor = ServiceManager::TakeStatusSocket();
  std::string problem;
  if ((descriptor >= 0 || !address.empty()) &&
      !status->Start(address, descriptor, threads, &problem)) {
    OperatorSettings::Report("status_listen: ", problem.c_str());
  }
}

// Returns false in the supervisor when it has ended, and true in a process that is to serve.
bool BecomeWorker(int workers, int threads, const ProcessSettings& settings) {
  Supervisor supervisor(workers, threads, settings.status_listen,
                        ServiceManager::TakeStatusSocket());
  return supervisor.Run();
}

}  // namespace

int main(int argc, char** argv) {
  int status = 0;
  ServiceManager::Begin();
  if (RunShellOption(argc, argv, &status)) return status;
  OperatorSettings::Start();
  FastCGIThreadManager threads;
  _FastCGIMainArgs arguments{};
  arguments.argument_count = arguments.copied_argument_count = argc;
  arguments.arguments = argv;
  arguments.copied_arguments = CopyArgs(argc, argv);
  FastCGIExternalLibraryManager libraries;
  arguments.library_manager = &libraries;
  arguments.thread_count = 10;
  Process_CommandLine_Args(&arguments);
  tzset();
  const int workers = WorkersOf(argc, arguments.copied_arguments);
  ProcessSettings settings = ReadProcessSettings();
  const bool is_listening = IsListening(kListeningSocket);
  // Requests set the log again, but the first one may be long in coming, and a supervisor has none.
  // Without a socket there is nothing to serve, and the person at the shell has to see why.
  if (is_listening && (workers > 0 || !settings.error_log.empty())) {
    OperatorSettings::UseLog(settings.error_log.c_str());
  }
  if (workers > 0 && is_listening) {
    if (!BecomeWorker(workers, arguments.thread_count, settings)) {
      FreeArgs(argc, arguments.copied_arguments);
      return 0;
    }
    // A reload starts workers of which the settings may be others.
    settings = ReadProcessSettings();
  }
  threads.SetMaxRequests(settings.max_requests);
  // Before FCGX_Init, because libfcgi installs handlers of its own, which would swallow a signal of
  // shutdown.
  FastCGIThreadManager::BlockSignals();
  FCGX_Init();
  FastCGIApplication_OpenSSL_Initialize();
  CheckListening(kListeningSocket);
  MakeBlocking(kListeningSocket);
  StatusThread status_thread;
  if (!OwnStatus::IsWorker()) {
    StartStatus(&status_thread, settings.status_listen, arguments.thread_count);
  }
  Serve(&threads, &arguments);
  FastCGIApplication_OpenSSL_Cleanup();
  FreeArgs(argc, arguments.copied_arguments);
  return 0;
}
