// Tests: tests/base/systems/unix/GuardedCopyTest.cpp

#include "base/systems/unix/GuardedCopy.h"

#include <setjmp.h>
#include <signal.h>
#include <ucontext.h>

#include <atomic>
#include <cstring>

namespace {

// Where a copy of this thread goes on when it fails; null while there is none.
thread_local sigjmp_buf* volatile landing = nullptr;

struct sigaction earlier_action;

// The handler of before gets what no copy has caused. Its default kills: by the instruction, which
// runs again, or anew if somebody sent the signal.
void PassOn(int signal, siginfo_t* info, void* context) {
  const bool was_sent = info->si_code <= 0;
  if (earlier_action.sa_flags & SA_SIGINFO) {
    earlier_action.sa_sigaction(signal, info, context);
  } else if (earlier_action.sa_handler == SIG_DFL) {
    sigaction(signal, &earlier_action, nullptr);
    if (was_sent) raise(signal);
  } else if (earlier_action.sa_handler != SIG_IGN) {
    earlier_action.sa_handler(signal);
  } else if (!was_sent) {
    sigaction(signal, &earlier_action, nullptr);
  }
}

// The signal is the thread's own doing, so the jump leaves nothing but memcpy. Which signals are
// blocked is put right here, as by a return: to have the jump do it takes a call for each copy.
void LeaveCopy(int signal, siginfo_t* info, void* context) {
  if (landing) {
    pthread_sigmask(SIG_SETMASK, &static_cast<ucontext_t*>(context)->uc_sigmask, nullptr);
    siglongjmp(*landing, 1);
  }
  PassOn(signal, info, context);
}

bool InstallHandler() {
  if (sigaction(SIGBUS, nullptr, &earlier_action) != 0) return false;
  struct sigaction action = {};
  action.sa_sigaction = LeaveCopy;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  return sigaction(SIGBUS, &action, nullptr) == 0;
}

}  // namespace

bool CanGuardCopies() {
  static const bool installed = InstallHandler();
  sigset_t blocked;
  return installed && pthread_sigmask(SIG_BLOCK, nullptr, &blocked) == 0 &&
         sigismember(&blocked, SIGBUS) == 0;
}

bool GuardedCopy(void* to, const void* from, size_t length) {
  sigjmp_buf here;
  if (sigsetjmp(here, 0) != 0) {
    landing = nullptr;
    return false;
  }
  landing = &here;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  memcpy(to, from, length);
  std::atomic_signal_fence(std::memory_order_seq_cst);
  landing = nullptr;
  return true;
}
