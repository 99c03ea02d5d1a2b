#include "base/systems/unix/ScriptThread.h"

#include <cstddef>

namespace {

const size_t kStackSize = 8 << 20;

}  // namespace

int StartScriptThread(pthread_t* thread, void* (*body)(void*), void* argument) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  size_t size = 0;
  pthread_attr_getstacksize(&attributes, &size);
  if (size < kStackSize) pthread_attr_setstacksize(&attributes, kStackSize);
  int result = pthread_create(thread, &attributes, body, argument);
  pthread_attr_destroy(&attributes);
  return result;
}
