// Signals for processes whose number a test has looked up. Such a number may be 0 because the
// process was not there, and to kill() that means the whole group of the test, with whatever has
// started it.

#ifndef ZEPH_TESTS_SUPPORT_SIGNALPROCESS_H
#define ZEPH_TESTS_SUPPORT_SIGNALPROCESS_H

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/types.h>

// Sends a signal to one process. The test fails if `process` is no number of one.
inline void SignalProcess(pid_t process, int signal) {
  ASSERT_GT(process, 0) << "no process for signal " << signal;
  kill(process, signal);
}

// The same to a group of processes, told by the number of the one that leads it.
inline void SignalGroup(pid_t leader, int signal) {
  ASSERT_GT(leader, 1) << "no group for signal " << signal;
  kill(-leader, signal);
}

#endif
