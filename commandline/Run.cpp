// The two threads of zprun, and the signals between them.
// Tested in tests/e2e/CommandLineTest.cpp and tests/e2e/ZprunTest.cpp.

#include "commandline/Run.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <new>

#include "base/core/Mutex.h"
#include "base/core/ThreadMemory.h"
#include "base/systems/unix/ScriptThread.h"
#include "base/systems/unix/UNIXExternalLibrary.h"
#include "base/systems/unix/UNIXOpenSSL.h"
#include "base/values/Variable.h"
#include "commandline/CommandLineApplication.h"

namespace {

const time_t kBeatSeconds = 1;
// Sent by the script's thread when it has finished; other processes have no reason to send it.
const int kFinished = SIGUSR1;

// The state that the two threads share.
class ScriptRun {
 public:
  ScriptRun(int count, char** texts, const Options& asked)
      : argc(count), argv(texts), options(asked), waiting(pthread_self()) {}

  // The body of the script's thread, on which all values are made and deleted.
  void Body();
  void Heartbeat() {
    MutexGuard guard(mutex);
    if (current) current->Heartbeat(time(nullptr));
  }
  void Interrupt() {
    MutexGuard guard(mutex);
    interrupted = true;
    if (current) current->Interrupt();
  }
  bool finished() const { return has_finished.load(); }
  int status() const { return exit_status; }

 private:
  void SetCurrent(CommandLineApplication* application) {
    MutexGuard guard(mutex);
    current = application;
    if (current && interrupted) current->Interrupt();
  }

  // Makes an application the current one for a scope, so that Heartbeat and Interrupt never use one
  // that is being deleted.
  class Current {
   public:
    Current(ScriptRun* owner, CommandLineApplication* application) : run(owner) {
      run->SetCurrent(application);
    }
    ~Current() { run->SetCurrent(nullptr); }
    Current(const Current&) = delete;
    Current& operator=(const Current&) = delete;

   private:
    ScriptRun* run;
  };

  int argc;
  char** argv;
  const Options& options;
  pthread_t waiting;
  Mutex mutex;
  CommandLineApplication* current GUARDED_BY(mutex) = nullptr;
  bool interrupted GUARDED_BY(mutex) = false;
  int exit_status = 1;
  std::atomic<bool> has_finished{false};
};

void ScriptRun::Body() {
  UNIXExternalLibraryManager libraries;
  const ThreadMemory::Run run;
  try {
    CommandLineApplication application(argc, argv, &libraries);
    Current scope(this, &application);
    exit_status = application.Go(options);
  } catch (const std::bad_alloc&) {
    fprintf(stderr, "zprun: out of memory\n");
  }
  // Values that refer to each other in a circle have no other holder now.
  Variable::FreeCycles();
  FastCGIApplication_OpenSSL_Thread_Cleanup();
  has_finished.store(true);
  pthread_kill(waiting, kFinished);
}

void* Run(void* run) {
  static_cast<ScriptRun*>(run)->Body();
  return nullptr;
}

bool IsIgnored(int number) {
  struct sigaction action {};
  return sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

// Blocks the signals in all threads that are started from here on; the waiting thread takes them.
sigset_t BlockSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
    if (!IsIgnored(number)) sigaddset(&set, number);
  }
  sigaddset(&set, kFinished);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  // A write to a closed pipe fails with EPIPE instead.
  signal(SIGPIPE, SIG_IGN);
  return set;
}

[[noreturn]] void EndAtOnce(int number) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, number);
  signal(number, SIG_DFL);
  raise(number);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
  abort();
}

}  // namespace

int RunScript(int argc, char** argv, const Options& options) {
  FastCGIApplication_OpenSSL_Initialize();
  const sigset_t signals = BlockSignals();
  ScriptRun run(argc, argv, options);
  pthread_t thread;
  if (int error = StartScriptThread(&thread, Run, &run)) {
    errno = error;
    perror("zprun: cannot start a thread");
    return 1;
  }
  const timespec beat = {kBeatSeconds, 0};
  bool interrupted = false;
  while (!run.finished()) {
    const int number = sigtimedwait(&signals, nullptr, &beat);
    if (number < 0 || number == kFinished) {
      run.Heartbeat();
      continue;
    }
    if (interrupted) EndAtOnce(number);
    interrupted = true;
    run.Interrupt();
  }
  pthread_join(thread, nullptr);
  FastCGIApplication_OpenSSL_Cleanup();
  return run.status();
}
