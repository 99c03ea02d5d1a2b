// Tests: tests/base/systems/unix/GuardedCopyTest.cpp

#include "base/systems/unix/GuardedCopy.h"

#include <setjmp.h>
#include <signal.h>
#include <ucontext.h>

#include <atomic>
#include <cstdint>
#include <cstring>

#include "base/core/Mutex.h"

namespace {

constexpr uintptr_t smallest_page = 4096;

// A copy that is under way, and where its thread goes on when it fails.
struct Copying {
  sigjmp_buf landing;
  uintptr_t start;  // of the bytes copied from
  size_t length;
};

thread_local Copying* volatile copying = nullptr;

// A handler that was found in place of ours, and those found before it. They stay for the life of
// the process, since a handler may be running with one.
struct EarlierHandler {
  struct sigaction action;
  const EarlierHandler* older;
};

// Handlers that take turns in front of ours are left alone after so many times.
constexpr size_t most_handlers = 16;

Mutex handlers_mutex;
EarlierHandler handlers[most_handlers];  // written under the mutex, before it is the newest
size_t handler_count GUARDED_BY(handlers_mutex) = 0;
std::atomic<const EarlierHandler*> newest_handler{nullptr};

// A signal that this thread is passing on. The handler that gets it may pass it on itself, to the
// one that it found when it was installed. If that is ours, it is the next older one's turn.
struct Passing {
  const EarlierHandler* handler = nullptr;
  const siginfo_t* info = nullptr;
  uintptr_t frame = 0;
};

thread_local Passing passing;

// The same signal further down on the stack: a handler may also have jumped out of an earlier one.
bool IsPassedBack(const siginfo_t* info, uintptr_t frame) {
  return passing.handler && passing.info == info && frame < passing.frame;
}

// Whether no instruction of this thread has caused the signal: it was sent, or tells of memory that
// went bad without being touched.
bool IsFromElsewhere(const siginfo_t* info) {
  return info->si_code <= 0 || info->si_code == BUS_MCEERR_AO;
}

// The default kills: by the instruction that has caused the signal, which runs again, or by another
// signal.
void TakeDefault(int signal, const siginfo_t* info) {
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  sigaction(signal, &action, nullptr);
  if (IsFromElsewhere(info)) raise(signal);
}

// An earlier handler gets what no copy has caused.
[[gnu::noinline]] void PassOn(int signal, siginfo_t* info, void* context) {
  const auto frame = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  const Passing before = passing;
  const EarlierHandler* const next =
      IsPassedBack(info, frame) ? passing.handler->older : newest_handler.load();
  if (!next) return TakeDefault(signal, info);
  const struct sigaction& action = next->action;
  passing = {next, info, frame};
  if (action.sa_flags & SA_SIGINFO) {
    action.sa_sigaction(signal, info, context);
  } else if (action.sa_handler == SIG_DFL ||
             (action.sa_handler == SIG_IGN && !IsFromElsewhere(info))) {
    TakeDefault(signal, info);
  } else if (action.sa_handler != SIG_IGN) {
    action.sa_handler(signal);
  }
  passing = before;
}

// Whether the copy that is under way has touched a page that is gone. A signal from elsewhere may
// come in the middle of a copy as well, and so may the fault of a handler that has interrupted it.
bool IsOfCopy(const Copying* copy, const siginfo_t* info) {
  if (!copy || IsFromElsewhere(info)) return false;
  // Of some faults only the page is told.
  const uintptr_t page = reinterpret_cast<uintptr_t>(info->si_addr) / smallest_page;
  return page >= copy->start / smallest_page &&
         page <= (copy->start + copy->length - 1) / smallest_page;
}

// The signal is the thread's own doing, so the jump leaves nothing but memcpy. Which signals are
// blocked is put right here, as by a return: to have the jump do it takes a call for each copy.
void LeaveCopy(int signal, siginfo_t* info, void* context) {
  if (IsOfCopy(copying, info)) {
    pthread_sigmask(SIG_SETMASK, &static_cast<ucontext_t*>(context)->uc_sigmask, nullptr);
    siglongjmp(copying->landing, 1);
  }
  PassOn(signal, info, context);
}

// What the signal is given to: a function, SIG_DFL or SIG_IGN.
const void* HandlerOf(const struct sigaction& action) {
  if (action.sa_flags & SA_SIGINFO) return reinterpret_cast<const void*>(action.sa_sigaction);
  return reinterpret_cast<const void*>(action.sa_handler);
}

// Puts our handler in front of the one that is there, unless it is ours.
bool InstallHandler() {
  const MutexGuard guard(handlers_mutex);
  struct sigaction present;
  if (sigaction(SIGBUS, nullptr, &present) != 0) return false;
  if (HandlerOf(present) == reinterpret_cast<const void*>(LeaveCopy)) return true;
  const EarlierHandler* const newest = newest_handler;
  if (!newest || HandlerOf(newest->action) != HandlerOf(present)) {
    if (handler_count == most_handlers) return false;
    handlers[handler_count] = {present, newest};
    newest_handler = &handlers[handler_count++];
  }
  struct sigaction action = {};
  action.sa_sigaction = LeaveCopy;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  sigemptyset(&action.sa_mask);
  return sigaction(SIGBUS, &action, nullptr) == 0;
}

}  // namespace

bool CanGuardCopies() {
  sigset_t blocked;
  return InstallHandler() && pthread_sigmask(SIG_BLOCK, nullptr, &blocked) == 0 &&
         sigismember(&blocked, SIGBUS) == 0;
}

bool GuardedCopy(void* to, const void* from, size_t length) {
  Copying copy;
  copy.start = reinterpret_cast<uintptr_t>(from);
  copy.length = length;
  if (sigsetjmp(copy.landing, 0) != 0) {
    copying = nullptr;
    return false;
  }
  copying = &copy;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  memcpy(to, from, length);
  std::atomic_signal_fence(std::memory_order_seq_cst);
  copying = nullptr;
  return true;
}
