// Copies that survive SIGBUS, and the chain of its handlers. Tested in
// tests/base/systems/unix/GuardedCopyTest.cpp.

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

// A copy in progress, and the point to which its thread jumps when it fails.
struct Copying {
  sigjmp_buf landing;
  uintptr_t start;  // of the source
  size_t length;
};

thread_local Copying* volatile copying = nullptr;

// A handler that was installed in place of ours, with those found before it. Entries stay for the
// life of the process, because a handler may be running with one.
struct EarlierHandler {
  struct sigaction action;
  const EarlierHandler* older;
};

// If several handlers keep replacing ours in turn, ours is no longer put back after this many
// times.
constexpr size_t most_handlers = 16;

Mutex handlers_mutex;
EarlierHandler handlers[most_handlers];  // written under the mutex, before it is the newest
size_t handler_count GUARDED_BY(handlers_mutex) = 0;
std::atomic<const EarlierHandler*> newest_handler{nullptr};

// A signal that this thread is passing on. The handler that receives it may pass it on to the one
// that it replaced. If that is ours, the next older handler gets it.
struct Passing {
  const EarlierHandler* handler = nullptr;
  const siginfo_t* info = nullptr;
  uintptr_t frame = 0;
};

thread_local Passing passing;

// True if this is the same signal, deeper in the stack. The depth is compared because a handler may
// have left an earlier signal with a jump.
bool IsPassedBack(const siginfo_t* info, uintptr_t frame) {
  return passing.handler && passing.info == info && frame < passing.frame;
}

// True if no instruction of this thread has caused the signal: it was sent, or it reports memory
// that failed without being touched.
bool IsFromElsewhere(const siginfo_t* info) {
  return info->si_code <= 0 || info->si_code == BUS_MCEERR_AO;
}

// The default action kills the process: either the instruction that caused the signal runs again,
// or the signal is raised again.
void TakeDefault(int signal, const siginfo_t* info) {
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  sigaction(signal, &action, nullptr);
  if (IsFromElsewhere(info)) raise(signal);
}

// Not caused by a copy: call the earlier handler.
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

// True if the copy in progress has touched a page that is gone. A signal from elsewhere may also
// come in the middle of a copy, and so may the fault of a handler that has interrupted it.
bool IsOfCopy(const Copying* copy, const siginfo_t* info) {
  if (!copy || IsFromElsewhere(info)) return false;
  // For some faults the address is only that of the page.
  const uintptr_t page = reinterpret_cast<uintptr_t>(info->si_addr) / smallest_page;
  return page >= copy->start / smallest_page &&
         page <= (copy->start + copy->length - 1) / smallest_page;
}

// The thread itself raised the signal, so the jump interrupts nothing but memcpy. The signal mask
// is restored here, as a return would do it; if the jump did it, each copy would cost a system call
// to save the mask.
void LeaveCopy(int signal, siginfo_t* info, void* context) {
  if (IsOfCopy(copying, info)) {
    pthread_sigmask(SIG_SETMASK, &static_cast<ucontext_t*>(context)->uc_sigmask, nullptr);
    siglongjmp(copying->landing, 1);
  }
  PassOn(signal, info, context);
}

// Returns the handler of an action: a function, SIG_DFL or SIG_IGN.
const void* HandlerOf(const struct sigaction& action) {
  if (action.sa_flags & SA_SIGINFO) return reinterpret_cast<const void*>(action.sa_sigaction);
  return reinterpret_cast<const void*>(action.sa_handler);
}

// Installs our handler in front of the present one, unless that is ours.
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
