// The loop of a request thread: accept a request, run it, finish it.
// Tested in tests/e2e/ConnectionTest.cpp and tests/e2e/HostilePeerTest.cpp.

#include "fastcgi/FastCGIRequestThread.h"

#include <fcgiapp.h>

#include <cerrno>
#include <cstdlib>
#include <new>

#include "base/core/ThreadMemory.h"
#include "base/systems/unix/UNIXOpenSSL.h"
#include "base/values/Variable.h"
#include "fastcgi/FastCGIApplication.h"
#include "fastcgi/FastCGIConnection.h"
#include "fastcgi/FastCGIExternalLibrary.h"
#include "fastcgi/FastCGIThreads.h"
#include "fastcgi/ProcessStatus.h"

namespace {

// Whether an error of accept means a shortage that passes.
bool IsPassing(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM ||
         error == ECONNABORTED;
}

const std::chrono::milliseconds kShortage(100);
const int kDrained = 1 << 20;
const std::chrono::seconds kDrainTime(2);

// Allocates and frees blocks of the sizes that libfcgi uses for a request whose parameters do not
// fit into the RequestRoom, because libfcgi does not check its allocations. The blocks stay in the
// thread's own store: a request takes them from there and returns them at its end. So they are
// needed only before the first request, and after a run that has used up the memory. Returns false
// if there is not enough memory.
bool KeepBlocks() {
  static const struct {
    size_t size;
    int count;
  } sizes[] = {{16, 16},  {32, 64},  {48, 64},  {64, 32},  {80, 16},  {96, 16},
               {112, 16}, {128, 16}, {192, 8},  {256, 8},  {512, 4},  {1024, 4},
               {2048, 2}, {4096, 2}, {8192, 4}, {8256, 4}, {10240, 4}};
  const int kMost = 64;
  void* blocks[kMost];
  for (const auto& row : sizes) {
    int taken = 0;
    while (taken < row.count && (blocks[taken] = malloc(row.size))) taken++;
    for (int i = 0; i < taken; i++) free(blocks[i]);
    if (taken < row.count) return false;
  }
  return true;
}

// Reads the rest of the request's input, at least the record that ends it, because the next request
// begins after it. A connection with much input left, or on which it does not come in time, is
// given up: a new connection costs less than the wait. libfcgi closes a connection whose input has
// failed.
void DrainInput(FCGX_Request* request, FastCGIConnection* connection) {
  if (!request->keepConnection) return;
  connection->LimitInput(kDrainTime);
  char buffer[8192];
  int left = kDrained;
  while (left > 0) {
    int count = FCGX_GetStr(buffer, sizeof buffer, request->in);
    if (count < static_cast<int>(sizeof buffer)) break;
    left -= count;
  }
  connection->ClearInputLimit();
  if (left <= 0) request->keepConnection = 0;
}

// Sends the response before the rest of the input is read: a client may wait for the response
// before it sends that rest.
void Finish(FCGX_Request* request, FastCGIConnection* connection) {
  connection->SendWithNext();
  const bool failed = FCGX_FClose(request->err) != 0 || FCGX_FClose(request->out) != 0;
  if (failed) {
    request->keepConnection = 0;
  } else {
    DrainInput(request, connection);
  }
  FCGX_Finish_r(request);
}

// Whether all parameters have come. If a connection fails between two of them, libfcgi ends the
// list there without an error; only its input stream shows the failure.
bool IsWhole(const FCGX_Request& request) {
  return FCGX_GetError(request.in) == 0;
}

}  // namespace

void AnswerRequest(FastCGITaskThread* thread, _FastCGIMainArgs* arguments, FCGX_Request* request) {
  const ThreadMemory::Run run;
  try {
    FastCGIApplication application(arguments->argument_count, arguments->arguments,
                                   arguments->copied_argument_count, arguments->copied_arguments,
                                   thread->Manager(), arguments->library_manager, request);
    // Declared after the application, so that the thread forgets the application before it is
    // deleted, also after an exception.
    CurrentApplication current(thread, &application);
    application.Go(thread);
  } catch (const std::bad_alloc&) {
    ThreadMemory::Exhausted("request", 7);
  }
  OwnStatus::NoteMemory();
  // Values that refer to each other in a circle have no other holder now.
  Variable::FreeCycles();
}

void* FastCGIRequestThread(void* argument) {
  auto* thread = static_cast<FastCGITaskThread*>(argument);
  auto* arguments = static_cast<_FastCGIMainArgs*>(thread->argument());
  FastCGIConnection connection(thread->Manager());
  FCGX_Request request;
  FCGX_InitRequest(&request, 0, FCGI_FAIL_ACCEPT_ON_INTR);
  const OwnStatus::Thread status(thread->number());
  bool first = true;
  while (!FastCGIEndsAccepting()) {
    if (first || ThreadMemory::RanShort()) {
      if (!KeepBlocks()) {
        thread->WaitForStop(std::chrono::system_clock::now() + kShortage);
        if (thread->Stopped()) break;
        continue;
      }
      first = false;
    }
    int result = connection.AcceptRequest(&request);
    if (result == -EINTR) continue;
    if (IsPassing(-result) && !FastCGIEndsAccepting()) {
      thread->WaitForStop(std::chrono::system_clock::now() + kShortage);
      continue;
    }
    if (result < 0) break;
    if (!IsWhole(request)) {
      FCGX_Free(&request, 1);
      continue;
    }
    {
      const OwnStatus::Request in_progress;
      AnswerRequest(thread, arguments, &request);
      OwnStatus::Enter(ThreadPhase::Sending);
      Finish(&request, &connection);
    }
    thread->Manager()->CountRequest();
    if (thread->Stopped()) break;
  }
  // A connection that was kept ends here, so that its client sends its next request elsewhere.
  FCGX_Free(&request, 1);
  FastCGIApplication_OpenSSL_Thread_Cleanup();
  thread->Exit();
  return nullptr;
}
