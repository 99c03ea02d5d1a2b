// Accept, answer, finish, again.

#include "fastcgi/FastCGIRequestThread.h"

#include <fcgiapp.h>

#include <cerrno>
#include <new>

#include "base/Variable.h"
#include "fastcgi/FastCGIApplication.h"
#include "fastcgi/FastCGIExternalLibrary.h"
#include "fastcgi/FastCGIThreads.h"

namespace {

// What accept gets when the process or the machine is short of something for a moment.
bool IsPassing(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM ||
         error == ECONNABORTED;
}

const std::chrono::milliseconds kShortage(100);
const int kDrained = 1 << 20;

int Accept(FCGX_Request* request) {
  AcceptInterruptible interruptible;
  return FCGX_Accept_r(request);
}

// What the script has not read of the request's input, and at least the record that ends it, would
// be met where the next request is to begin. A connection with much of it left is given up: to open
// another one is cheaper than to read on.
void DrainInput(FCGX_Request* request) {
  if (!request->keepConnection) return;
  char buffer[8192];
  int left = kDrained;
  while (left > 0) {
    int count = FCGX_GetStr(buffer, sizeof buffer, request->in);
    if (count < static_cast<int>(sizeof buffer)) return;
    left -= count;
  }
  request->keepConnection = 0;
}

// Runs one request. Memory that a hostile length asked for and that is not to be had ends the
// request, not the process.
void Answer(FastCGITaskThread* thread, _FastCGIMainArgs* arguments, FastCGIThreadManager* manager,
            FCGX_Request* request) {
  try {
    FastCGIApplication application(arguments->argument_count, arguments->arguments,
                                   arguments->copied_argument_count, arguments->copied_arguments,
                                   manager, arguments->library_manager, request);
    // Declared behind the application, so that the thread forgets it first, however it ends.
    CurrentApplication current(thread, &application);
    application.Go(thread);
  } catch (const std::bad_alloc&) {
  }
  // Values that the script tied into circles are held by nobody now.
  Variable::FreeCycles();
}

}  // namespace

void* FastCGIRequestThread(void* argument) {
  auto* thread = static_cast<FastCGITaskThread*>(argument);
  auto* arguments = static_cast<_FastCGIMainArgs*>(thread->argument());
  FCGX_Request request;
  FCGX_InitRequest(&request, 0, FCGI_FAIL_ACCEPT_ON_INTR);
  while (!FastCGIShutdownPending.load()) {
    int result = Accept(&request);
    if (result == -EINTR) continue;
    if (IsPassing(-result) && !FastCGIShutdownPending.load()) {
      thread->WaitForStop(std::chrono::system_clock::now() + kShortage);
      continue;
    }
    if (result < 0) break;
    Answer(thread, arguments, thread->Manager(), &request);
    DrainInput(&request);
    FCGX_Finish_r(&request);
    if (thread->Stopped()) break;
  }
  thread->Exit();
  return nullptr;
}
