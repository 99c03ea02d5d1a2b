// Threads that run scripts.

#ifndef ZEPH_BASE_SYSTEMS_UNIX_SCRIPTTHREAD_H
#define ZEPH_BASE_SYSTEMS_UNIX_SCRIPTTHREAD_H

#include <pthread.h>

// Starts a thread with a stack of at least 8 MB, no matter which limits the process was started
// with, because the machine's limit for nested runs relies on it. When it returns, the thread has
// the memory that it needs for its life (ThreadMemory::Prepare). Returns 0 for success, else the
// error of pthread_create, or ENOMEM if the thread found too little memory; then the body is not
// run.
int StartScriptThread(pthread_t* thread, void* (*body)(void*), void* argument);

#endif
