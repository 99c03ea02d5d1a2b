// The system calls of libfcgi, which the linker leads here: accept, read, write and close of a
// connection; and its allocations.
//
// libfcgi waits without limit for its peers. Here each wait has an end that no peer can put off:
// the end of the process, and for a client that has stopped reading also the script's limit of
// time. What is read passes FastCGIRecords first.
//
// libfcgi asserts that it gets the memory that it asks for. While it accepts a request, a failure
// throws std::bad_alloc instead, through its frames: they hold nothing that its request does not
// know, but a few bytes of a stream that is half made.

#ifndef ZEPH_FASTCGI_FASTCGICONNECTION_H
#define ZEPH_FASTCGI_FASTCGICONNECTION_H

#include <sys/types.h>
#include <csignal>

#include <chrono>

#include "fastcgi/FastCGIRecords.h"

class FastCGIThreadManager;
struct FCGX_Request;

// Serves the calls that libfcgi makes on one request thread, from its construction to its
// destruction on that thread; a thread has one. It keeps no descriptor: libfcgi does.
//
// Ends of waits, by what the manager says:
//   ShuttingDown()      no wait for input. What has come is read.
//   PeersAreGivenUp()   neither reads nor writes: the connection is shut down.
class FastCGIConnection {
 public:
  using Clock = std::chrono::steady_clock;

  explicit FastCGIConnection(FastCGIThreadManager* manager);
  ~FastCGIConnection();
  FastCGIConnection(const FastCGIConnection&) = delete;
  FastCGIConnection& operator=(const FastCGIConnection&) = delete;

  // The one of the calling thread, or null.
  static FastCGIConnection* Current();

  // Ends a write during which the client has taken nothing for that many seconds; 0 is no limit.
  void LimitWrites(int seconds) { write_limit = seconds; }
  // Ends every wait for input from that long on; ClearInputLimit takes the limit away.
  void LimitInput(Clock::duration time) { input_end = Clock::now() + time; }
  void ClearInputLimit() { input_end = Clock::time_point::max(); }

  // FCGX_Accept_r, for this thread. -ENOMEM when there is no memory for a request: its connection
  // is closed.
  int AcceptRequest(FCGX_Request* request);

  // With the results of the system's calls, errno included. The list of clients is libfcgi's: IPv4
  // addresses with commas between them, null or empty for all.
  int Accept(int listening, const char* clients);
  ssize_t Read(int descriptor, char* buffer, size_t room);
  ssize_t Write(int descriptor, const char* bytes, size_t length);
  // Tells the client that nothing more comes, waits a moment for it to close, so that the last of
  // the response is not lost to a reset, and closes.
  int Close(int descriptor);

 private:
  ssize_t Refill(int descriptor);
  bool WaitForInput(int descriptor, Clock::time_point end);
  ssize_t GiveUp(int descriptor);

  FastCGIThreadManager* manager;
  int write_limit;
  Clock::time_point input_end = Clock::time_point::max();
  sigset_t while_waiting;  // blocked in a wait for input: all that the thread blocks but SIGUSR2
  FastCGIRecords records;
  const unsigned char* next = nullptr;  // of what was read and has not passed
  const unsigned char* last = nullptr;
  unsigned char received[8192];
};

#endif
