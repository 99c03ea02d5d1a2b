// The connection between libfcgi and a peer. The linker leads libfcgi's accept, read, write and
// close here, and its allocations.
//
// libfcgi waits for its peers without limit. Here each wait ends at a moment that no peer can
// delay: the shutdown of the process, or, while a client takes nothing of a response, the script's
// time limit. Input passes FastCGIRecords before libfcgi sees it.
//
// libfcgi asserts that its allocations succeed. While it accepts a request, a failed allocation
// throws std::bad_alloc through its frames instead. Those frames own nothing that its request does
// not also own, except a few bytes of a stream that is half made. Most of its allocations are of a
// RequestRoom.

#ifndef ZEPH_FASTCGI_FASTCGICONNECTION_H
#define ZEPH_FASTCGI_FASTCGICONNECTION_H

#include <sys/types.h>
#include <csignal>

#include <chrono>
#include <cstdlib>
#include <memory>

#include "fastcgi/FastCGIRecords.h"
#include "fastcgi/RequestRoom.h"

class FastCGIThreadManager;
struct FCGX_Request;

// Serves the calls that libfcgi makes on one request thread. It is made and deleted on that thread,
// and a thread has at most one. libfcgi owns the descriptor; this class stores none.
//
// How a shutdown ends waits, by the state of the manager:
//   ShuttingDown()      no wait for input; bytes that have already come are read.
//   PeersAreGivenUp()   no read and no write: the connection is shut down.
class FastCGIConnection {
 public:
  using Clock = std::chrono::steady_clock;

  explicit FastCGIConnection(FastCGIThreadManager* manager);
  ~FastCGIConnection();
  FastCGIConnection(const FastCGIConnection&) = delete;
  FastCGIConnection& operator=(const FastCGIConnection&) = delete;

  // The connection of the calling thread, or null.
  static FastCGIConnection* Current();

  // Gives up a write when the client has taken nothing for that many seconds; 0 means no limit.
  void LimitWrites(int seconds) { write_limit = seconds; }
  // From `time` after this call on, every read fails with ETIMEDOUT, even if bytes have come.
  // ClearInputLimit removes the limit.
  void LimitInput(Clock::duration time) { input_end = Clock::now() + time; }
  void ClearInputLimit() { input_end = Clock::time_point::max(); }

  // Calls FCGX_Accept_r on this thread. If the request has a kept connection, the thread waits for
  // all connections of manager->kept_connections(), and the request gets another one of them. A
  // connection on which a request has begun and whose
  // parameters do not all come within OperatorSettings::RequestTimeout() is given up. Returns 0, or
  // a negative errno: -ENOMEM if there is no memory for a request, whose connection is then closed.
  int AcceptRequest(FCGX_Request* request);

  // Results are those of the system calls, errno included. `clients` is libfcgi's list of allowed
  // clients: IPv4 addresses separated by commas; null or empty allows all. A list refuses all IPv6
  // addresses that are not mapped from IPv4, and allows every peer on a UNIX socket.
  int Accept(int listening, const char* clients);
  ssize_t Read(int descriptor, char* buffer, size_t room);
  ssize_t Write(int descriptor, const char* bytes, size_t length);
  // Until SendWithNext(), writes are held back up to kMostHeld bytes and are then sent with the
  // next one: libfcgi writes the end of a response in several pieces, each of which would wake the
  // peer. The caller lets a last write follow. A write that is held counts as done, so an error of
  // the connection is the result of a later one.
  void HoldWrites() { holds = true; }
  void SendWithNext() { holds = false; }
  static constexpr size_t kMostHeld = 32 << 10;
  // Closes at once if the input of the last request has ended and no more has come. Otherwise a
  // reset could lose the end of the response: the sending side is shut down first, and the client
  // has at most two seconds to close its own.
  int Close(int descriptor);

  // Memory for libfcgi.
  RequestRoom& room() { return request_room; }

 private:
  void AwaitAnyKept(FCGX_Request* request);
  ssize_t Receive(int descriptor);
  bool ReceiveFirst(int descriptor);
  ssize_t Refill(int descriptor);
  void StartRequestClock();
  ssize_t InputIsLate();
  bool WaitForInput(int descriptor, Clock::time_point end);
  bool Hold(const char* bytes, size_t length);
  ssize_t Send(int descriptor, const char* bytes, size_t length);
  ssize_t GiveUp(int descriptor);
  bool AllInputHasCome(int descriptor);
  void Linger(int descriptor);

  FastCGIThreadManager* manager;
  int write_limit;
  Clock::time_point input_end = Clock::time_point::max();
  // For the request that is being accepted: some of its bytes have come; its connection is a new
  // one. In both cases the rest has to follow in time. A kept connection may be idle before.
  bool request_begun = false;
  bool is_fresh = false;
  sigset_t while_waiting;  // signals blocked in a wait for input: the thread's own but SIGUSR2
  // The wait is for the first byte of the next request on a kept connection.
  bool waits_for_next = false;
  FastCGIRecords records;
  const unsigned char* next = nullptr;  // bytes received that have not passed yet
  const unsigned char* last = nullptr;
  unsigned char received[8192];
  bool holds = false;
  // The bytes that are held back, from held_begin to held_end; made when some are.
  std::unique_ptr<char, void (*)(void*)> held{nullptr, free};
  size_t held_begin = 0;
  size_t held_end = 0;
  RequestRoom request_room;
};

#endif
