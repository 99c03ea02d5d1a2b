// Waits for the next request on any of the kept connections.
// Tested in tests/fastcgi/KeptConnectionsTest.cpp.

#include "fastcgi/KeptConnections.h"

#include <sys/epoll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <new>

namespace {

// An event orders the call that asked for it before all that is done because of it. The thread
// sanitizer does not know that, and reports the descriptor's close by another thread; it overlooks
// a call by number.
int Control(int events, int operation, int descriptor, epoll_event* event) {
  return static_cast<int>(syscall(SYS_epoll_ctl, events, operation, descriptor, event));
}

}  // namespace

void KeptConnections::Open() {
  places.reset(new (std::nothrow) Place[kMost]{});
  events.reset(epoll_create1(EPOLL_CLOEXEC));
}

bool KeptConnections::Put(int descriptor) {
  if (!places || !events.is_open() || descriptor >= kMost) return false;
  int before = end.load();
  while (before <= descriptor && !end.compare_exchange_weak(before, descriptor + 1)) {
  }
  Place& place = places[descriptor];
  // No other thread changes the place now.
  const auto away = static_cast<unsigned char>((place.load() & ~kStates) + kStep);
  unsigned char coming = away | Coming;
  place.store(coming);
  if (!Watch(descriptor)) {
    place.store(away);
    return false;
  }
  // Fails if its event has come already.
  place.compare_exchange_strong(coming, static_cast<unsigned char>(away | Here));
  return true;
}

// A connection is watched until its next event and no longer, so that only one thread gets it. The
// system forgets it when it is closed.
bool KeptConnections::Watch(int descriptor) {
  epoll_event event{};
  event.events = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;
  event.data.fd = descriptor;
  if (Control(events.get(), EPOLL_CTL_MOD, descriptor, &event) == 0) return true;
  return errno == ENOENT && Control(events.get(), EPOLL_CTL_ADD, descriptor, &event) == 0;
}

// The system wakes the thread that has begun to wait last.
int KeptConnections::WaitOnce(const sigset_t* signals) {
  epoll_event event;
  if (epoll_pwait(events.get(), &event, 1, -1, signals) != 1) return -1;
  Place& place = places[event.data.fd];
  unsigned char before = place.load();
  while ((before & kStates) != Away) {
    const auto away = static_cast<unsigned char>(before & ~kStates);
    if (place.compare_exchange_weak(before, away)) return event.data.fd;
  }
  return -1;
}

int KeptConnections::TakeAny() {
  const int last = end.load();
  for (int descriptor = 0; descriptor < last; descriptor++) {
    unsigned char before = places[descriptor].load();
    if ((before & kStates) != Here) continue;
    const auto away = static_cast<unsigned char>(before & ~kStates);
    if (places[descriptor].compare_exchange_strong(before, away)) return descriptor;
  }
  return -1;
}
