// Connections of which the next request has not begun. Web servers keep many that are seldom used,
// and the engine has a thread for each. The next request on any of them goes to the thread that has
// served last: its stack and its heap are in the processor's caches, while those of a thread that
// has slept long are not.

#ifndef ZEPH_FASTCGI_KEPTCONNECTIONS_H
#define ZEPH_FASTCGI_KEPTCONNECTIONS_H

#include <atomic>
#include <csignal>
#include <memory>

#include "base/host/FileDescriptor.h"

// Shared by the request threads. Invariant: as many threads are in Wait as there are connections
// here, because a thread puts one in before it waits and takes one out in the end. So a thread that
// has to leave can always take one with it, and none is forgotten.
//
// Descriptors are borrowed. One that is here must not be closed.
class KeptConnections {
 public:
  KeptConnections() = default;
  KeptConnections(const KeptConnections&) = delete;
  KeptConnections& operator=(const KeptConnections&) = delete;

  // Without it, and if it fails, Put returns false. REQUIRES: no other thread uses the object.
  void Open();

  // Puts a connection in. Returns false if that is not possible; the calling thread then has to
  // wait for that connection itself.
  [[nodiscard]] bool Put(int descriptor);
  // Takes out a connection that has something to read or that the peer has closed. Waits for one
  // with the given signals blocked; is_over() is asked before each wait, and after a signal, and
  // ends them: the connection is then any one. REQUIRES: the thread's last Put returned true.
  template <class IsOver>
  int Wait(const sigset_t* signals, IsOver is_over) {
    for (;;) {
      const int taken = is_over() ? TakeAny() : WaitOnce(signals);
      if (taken >= 0) return taken;
    }
  }

 private:
  // Descriptors from here on are never put in.
  static constexpr int kMost = 1 << 16;

  // Of a descriptor: a State in the two lowest bits, and above them a count of its Puts, so that
  // one that is interrupted for long does not mistake a later one for itself.
  //
  //   Away    another thread or none has the connection
  //   Coming  Put is about to have it watched, or has just done so: its event may take it, TakeAny
  //           may not, because the descriptor would be closed while Put uses it
  //   Here    it waits
  using Place = std::atomic<unsigned char>;
  enum State : unsigned char { Away, Coming, Here, kStates = 3, kStep };

  bool Watch(int descriptor);
  // Returns -1 after a signal, and if another thread has taken the connection.
  int WaitOnce(const sigset_t* signals);
  // Returns -1 if there is none.
  int TakeAny();

  FileDescriptor events;            // an epoll instance
  std::unique_ptr<Place[]> places;  // by the descriptor; null until Open
  std::atomic<int> end{0};          // above all descriptors that have been here
};

#endif
