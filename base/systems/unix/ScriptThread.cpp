// Starts threads and waits until they have the memory they need.

#include "base/systems/unix/ScriptThread.h"

#include <semaphore.h>

#include <cerrno>
#include <cstddef>

#include "base/core/ThreadMemory.h"

namespace {

const size_t kStackSize = 8 << 20;

// Is on the stack of the thread that calls StartScriptThread and waits there.
struct Start {
  void* (*body)(void*);
  void* argument;
  bool prepared;
  sem_t done;
};

void* Begin(void* argument) {
  auto* start = static_cast<Start*>(argument);
  void* (*const body)(void*) = start->body;
  void* const of_body = start->argument;
  const bool prepared = start->prepared = ThreadMemory::Prepare();
  // After this call *start is gone.
  sem_post(&start->done);
  return prepared ? body(of_body) : nullptr;
}

}  // namespace

int StartScriptThread(pthread_t* thread, void* (*body)(void*), void* argument) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  size_t size = 0;
  pthread_attr_getstacksize(&attributes, &size);
  if (size < kStackSize) pthread_attr_setstacksize(&attributes, kStackSize);
  Start start = {body, argument, false, {}};
  sem_init(&start.done, 0, 0);
  const int result = pthread_create(thread, &attributes, Begin, &start);
  pthread_attr_destroy(&attributes);
  if (result == 0) {
    while (sem_wait(&start.done) != 0) {
    }
    if (!start.prepared) pthread_join(*thread, nullptr);
  }
  sem_destroy(&start.done);
  return result == 0 && !start.prepared ? ENOMEM : result;
}
