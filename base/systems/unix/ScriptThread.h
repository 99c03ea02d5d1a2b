// Threads that run scripts.

#ifndef ZEPH_BASE_SYSTEMS_UNIX_SCRIPTTHREAD_H
#define ZEPH_BASE_SYSTEMS_UNIX_SCRIPTTHREAD_H

#include <pthread.h>

// Starts a thread with a stack of at least 8 MB, whatever the limits that the process was started
// with: the machine's limit for nested runs counts on it. When it returns, the thread has what it
// needs for its life (ThreadMemory::Prepare). Answers 0 for success, else what pthread_create
// answered, or ENOMEM where the thread has found too little memory; then the body is not run.
int StartScriptThread(pthread_t* thread, void* (*body)(void*), void* argument);

#endif
