// Accept, read, write and close of a connection, with an end to each wait.
// Tested in tests/fastcgi/FastCGIConnectionTest.cpp and tests/e2e/ShutdownTest.cpp.

#include "fastcgi/FastCGIConnection.h"

#include <arpa/inet.h>
#include <fcgiapp.h>
#include <fcgios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>

#include "base/core/Sanitizers.h"
#include "base/host/ErrorLog.h"
#include "base/host/FileDescriptor.h"
#include "fastcgi/FastCGIThreads.h"
#include "fastcgi/OperatorSettings.h"
#include "fastcgi/ProcessStatus.h"

namespace {

using Clock = FastCGIConnection::Clock;

// Seconds, until the settings of the first request are read.
const int kWriteLimit = 90;
// How long a client on a UNIX socket may take to send its first byte. A client that closed its
// connection before it was accepted looks the same as a slow one until then.
const std::chrono::seconds kFirstByte(2);
const std::chrono::seconds kLingering(2);
// A connection that is to be closed is read this often without a wait; then it lingers.
const int kReadsBeforeClose = 8;
// A waiting write checks the flags this often.
const int kWriteSlice = 500;  // milliseconds

thread_local FastCGIConnection* current = nullptr;
thread_local bool accepting = false;

union Address {
  sockaddr any;
  sockaddr_in internet;
  sockaddr_in6 internet6;
  sockaddr_un local;
  sockaddr_storage room;
};

// Whether accept failed because of the connection and not because of the socket.
bool IsOfConnection(int error) {
  return error == EPROTO || error == ECONNABORTED || error == ECONNRESET || error == ETIMEDOUT ||
         error == EHOSTUNREACH || error == ENETUNREACH || error == EHOSTDOWN || error == ENETDOWN ||
         error == ENONET || error == ENOPROTOOPT || error == EPERM;
}

// The IPv4 address of a peer. A socket of both families shows such a peer with a mapped address.
// Returns false if the peer has another IPv6 address.
bool InternetAddress(const Address& peer, in_addr_t* address) {
  if (peer.any.sa_family == AF_INET) {
    *address = peer.internet.sin_addr.s_addr;
    return true;
  }
  const in6_addr& longer = peer.internet6.sin6_addr;
  if (!IN6_IS_ADDR_V4MAPPED(&longer)) return false;
  memcpy(address, longer.s6_addr + 12, sizeof *address);
  return true;
}

// Whether the list, separated by commas, contains the address of a peer from a network. An empty
// list allows all; another one has only IPv4 addresses.
bool IsAllowed(const Address& peer, const char* clients) {
  if (!clients || !*clients) return true;
  in_addr_t address;
  if (!InternetAddress(peer, &address)) return false;
  const std::string list(clients);
  for (size_t start = 0; start <= list.size();) {
    const size_t end = std::min(list.find(',', start), list.size());
    if (inet_addr(list.substr(start, end - start).c_str()) == address) return true;
    start = end + 1;
  }
  return false;
}

// The time left until `end`, for ppoll; null if there is no end.
const timespec* TimeUntil(Clock::time_point end, timespec* room) {
  if (end == Clock::time_point::max()) return nullptr;
  const auto left = std::max(std::chrono::nanoseconds(end - Clock::now()).count(), int64_t{0});
  room->tv_sec = left / 1000000000;
  room->tv_nsec = left % 1000000000;
  return room;
}

}  // namespace

FastCGIConnection::FastCGIConnection(FastCGIThreadManager* manager)
    : manager(manager), write_limit(kWriteLimit) {
  pthread_sigmask(SIG_BLOCK, nullptr, &while_waiting);
  sigdelset(&while_waiting, SIGUSR2);
  records.Start();
  current = this;
}

FastCGIConnection::~FastCGIConnection() {
  current = nullptr;
}

FastCGIConnection* FastCGIConnection::Current() {
  return current;
}

int FastCGIConnection::AcceptRequest(FCGX_Request* request) {
  accepting = true;
  is_fresh = false;
  // The last bytes of a request may have come together with the first ones of the next.
  request_begun = next != last;
  waits_for_next = !request_begun;
  write_limit = kWriteLimit;
  if (request->ipcFd >= 0 && !request_begun) AwaitAnyKept(request);
  int result;
  try {
    result = FCGX_Accept_r(request);
  } catch (const std::bad_alloc&) {
    FCGX_Free(request, 1);
    // With what the interrupted function has left.
    request_room.Clear();
    result = -ENOMEM;
  }
  accepting = false;
  ClearInputLimit();
  return result;
}

// Between two requests a connection has no other state than its descriptor, if all of its bytes
// have been taken.
void FastCGIConnection::AwaitAnyKept(FCGX_Request* request) {
  KeptConnections& kept = manager->kept_connections();
  if (!records.InputHasEnded() || !kept.Put(request->ipcFd)) return;
  request->ipcFd = kept.Wait(
      &while_waiting, [this] { return manager->ShuttingDown() || FastCGIDrainPending.load(); });
  records.Start();
  // It is read before it is waited for.
  next = last = received;
}

int FastCGIConnection::Accept(int listening, const char* clients) {
  waits_for_next = false;
  for (;;) {
    // The connection before may have ended with half a request.
    OwnStatus::Enter(ThreadPhase::Idle);
    if (FastCGIEndsAccepting()) {
      errno = EINTR;
      return -1;
    }
    Address address;
    socklen_t length = sizeof address;
    int accepted;
    {
      AcceptInterruptible interruptible;
      accepted = accept4(listening, &address.any, &length, SOCK_CLOEXEC);
    }
    if (accepted < 0) {
      if (IsOfConnection(errno)) continue;
      return -1;
    }
    // The list of clients is looked through in memory that may not be there.
    FileDescriptor owned(accepted);
    const int family = address.any.sa_family;
    const bool is_remote = family == AF_INET || family == AF_INET6;
    if (is_remote) {
      const int set = 1;
      setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &set, sizeof set);
    }
    records.Start();
    next = last = received;
    request_begun = false;
    is_fresh = true;
    ClearInputLimit();
    if ((is_remote && !IsAllowed(address, clients)) ||
        (family == AF_UNIX && !ReceiveFirst(accepted))) {
      continue;
    }
    return owned.release();
  }
}

// A result of 0 makes libfcgi close the connection, as if the peer had left.
ssize_t FastCGIConnection::Read(int descriptor, char* buffer, size_t room) {
  for (;;) {
    while (next < last || records.Refused()) {
      const int passed = records.Pass(&next, last, reinterpret_cast<unsigned char*>(buffer),
                                      static_cast<int>(room));
      if (passed != 0) return passed < 0 ? 0 : passed;
    }
    const ssize_t count = Refill(descriptor);
    if (count <= 0) return count;
  }
}

// Returns the result of recv.
ssize_t FastCGIConnection::Receive(int descriptor) {
  const ssize_t count = recv(descriptor, received, sizeof received, MSG_DONTWAIT);
  if (count >= 0) {
    request_begun = true;
    waits_for_next = false;
    next = received;
    last = received + count;
  }
  return count;
}

// Returns whether the client has sent something in time. It mostly has before it is accepted.
bool FastCGIConnection::ReceiveFirst(int descriptor) {
  const ssize_t count = Receive(descriptor);
  if (count >= 0) return count > 0;
  return errno == EAGAIN && WaitForInput(descriptor, Clock::now() + kFirstByte);
}

// Fills the buffer. Returns the result of recv.
ssize_t FastCGIConnection::Refill(int descriptor) {
  // A client that has just got its response sends its next request later.
  const bool is_kept = last > received && records.InputHasEnded();
  for (bool wait = is_kept && !manager->ShuttingDown();; wait = true) {
    if (manager->PeersAreGivenUp()) return GiveUp(descriptor);
    if (accepting && request_begun) StartRequestClock();
    // A peer that never stops sending keeps no wait going.
    if (input_end != Clock::time_point::max() && Clock::now() >= input_end) return InputIsLate();
    if (wait) {
      if (accepting && is_fresh) StartRequestClock();
      if (!WaitForInput(descriptor, input_end)) return InputIsLate();
    }
    const ssize_t count = Receive(descriptor);
    if (count >= 0 || (errno != EAGAIN && errno != EINTR)) return count;
  }
}

// Most requests come with one read and without a wait; only the others need the clock.
void FastCGIConnection::StartRequestClock() {
  const int seconds = OperatorSettings::RequestTimeout();
  if (seconds > 0 && input_end == Clock::time_point::max()) {
    LimitInput(std::chrono::seconds(seconds));
  }
}

ssize_t FastCGIConnection::InputIsLate() {
  if (accepting && input_end != Clock::time_point::max() && Clock::now() >= input_end) {
    LogLine line;
    line.Text("A web server has not sent the parameters of its request within ");
    line.Number(OperatorSettings::RequestTimeout()).Text(" seconds; the connection is closed");
    ErrorLog::OfProcess().Write(ErrorLog::Level::Warning, line);
  }
  errno = ETIMEDOUT;
  return -1;
}

// Returns whether the peer ended the wait. SIGUSR2 is unblocked only inside ppoll, so that a signal
// between the check of the flag and the wait is not lost.
bool FastCGIConnection::WaitForInput(int descriptor, Clock::time_point end) {
  if (accepting && (request_begun || is_fresh)) OwnStatus::AwaitRequest();
  for (;;) {
    if (manager->ShuttingDown()) return false;
    timespec left;
    pollfd waiting{descriptor, POLLIN, 0};
    // A request that has come is still served by a process that leaves.
    if (waits_for_next && FastCGIDrainPending.load()) return poll(&waiting, 1, 0) > 0;
    const int ready = ppoll(&waiting, 1, TimeUntil(end, &left), &while_waiting);
    if (ready >= 0) return ready > 0;
    if (errno != EINTR) return false;
  }
}

// Returns false, and holds nothing, if there is no room. The memory is the thread's and not the
// request's.
bool FastCGIConnection::Hold(const char* bytes, size_t length) {
  if (!held) held.reset(static_cast<char*>(malloc(kMostHeld)));
  if (!held || length > kMostHeld - held_end) return false;
  memcpy(held.get() + held_end, bytes, length);
  held_end += length;
  return true;
}

// Sends what is held and then the bytes, without a wait. Returns how many of the bytes were sent,
// -1 after an error, in which case all may be tried again.
ssize_t FastCGIConnection::Send(int descriptor, const char* bytes, size_t length) {
  if (held_end == 0) return send(descriptor, bytes, length, MSG_DONTWAIT | MSG_NOSIGNAL);
  iovec parts[2] = {{held.get() + held_begin, held_end - held_begin},
                    {const_cast<char*>(bytes), length}};
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = 2;
  const ssize_t count = sendmsg(descriptor, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
  if (count < 0) return count;
  const size_t of_held = std::min(static_cast<size_t>(count), parts[0].iov_len);
  held_begin += of_held;
  if (held_begin == held_end) held_begin = held_end = 0;
  return count - static_cast<ssize_t>(of_held);
}

ssize_t FastCGIConnection::Write(int descriptor, const char* bytes, size_t length) {
  if (holds && Hold(bytes, length)) return static_cast<ssize_t>(length);
  Clock::time_point end = Clock::time_point::max();
  for (bool waited = false;;) {
    if (manager->PeersAreGivenUp()) return GiveUp(descriptor);
    const ssize_t count = Send(descriptor, bytes, length);
    if (count > 0 || (count == 0 && length == 0)) return count;
    if (count == 0) {
      // The client has taken some of what was held, so its time begins again.
      waited = false;
      end = Clock::time_point::max();
      continue;
    }
    if (errno != EAGAIN && errno != EINTR) return -1;
    if (!waited && write_limit > 0) end = Clock::now() + std::chrono::seconds(write_limit);
    waited = true;
    if (Clock::now() >= end) return GiveUp(descriptor);
    // The kernel reports a socket as writable only when a good part of its buffer is free, so each
    // slice ends with another attempt to send.
    pollfd waiting{descriptor, POLLOUT, 0};
    poll(&waiting, 1, kWriteSlice);
  }
}

ssize_t FastCGIConnection::GiveUp(int descriptor) {
  shutdown(descriptor, SHUT_RDWR);
  errno = ETIMEDOUT;
  return -1;
}

int FastCGIConnection::Close(int descriptor) {
  // There is something left only after an error.
  held_begin = held_end = 0;
  if (!AllInputHasCome(descriptor)) Linger(descriptor);
  return close(descriptor);
}

// Reads the bytes that have come, without a wait. Returns whether the peer has nothing more to
// send: a close that finds unread bytes, or is followed by some, resets the connection, and the
// peer may then lose the end of the response.
bool FastCGIConnection::AllInputHasCome(int descriptor) {
  unsigned char ignored[1024];
  for (int reads = 0; reads < kReadsBeforeClose; reads++) {
    while (next < last && !records.InputHasEnded()) {
      if (records.Pass(&next, last, ignored, sizeof ignored) < 0) return false;
    }
    if (next < last) return false;
    const ssize_t count = Receive(descriptor);
    if (count == 0) return true;
    if (count < 0) return errno == EAGAIN && records.InputHasEnded();
  }
  return false;
}

void FastCGIConnection::Linger(int descriptor) {
  const Clock::time_point end = Clock::now() + kLingering;
  if (manager->PeersAreGivenUp() || shutdown(descriptor, SHUT_WR) != 0) return;
  char ignored[1024];
  pollfd waiting{descriptor, POLLIN, 0};
  timespec left;
  while (Clock::now() < end && ppoll(&waiting, 1, TimeUntil(end, &left), nullptr) > 0 &&
         recv(descriptor, ignored, sizeof ignored, MSG_DONTWAIT) > 0) {
  }
}

namespace {

// Out of line, so that nearly every call of libfcgi needs no frame.
[[gnu::noinline]] void* BlockOfHeap(size_t size) {
  void* const memory = malloc(size);
  if (!memory && accepting) throw std::bad_alloc();
  return memory;
}

}  // namespace

// --- Replacements that the linker puts in place of libfcgi's functions ---------------------------

// libfcgi declares these names without the prefix. __real_ is the replaced function, for a thread
// without a FastCGIConnection.
extern "C" {
int __real_OS_Accept(int listening, int fail_on_intr, const char* clients);
int __real_OS_Read(int descriptor, char* buffer, size_t room);
int __real_OS_Write(int descriptor, char* bytes, size_t length);
int __real_OS_IpcClose(int descriptor, int shutdown);

int __wrap_OS_Accept(int listening, int fail_on_intr, const char* clients) {
  if (!current) return __real_OS_Accept(listening, fail_on_intr, clients);
  return current->Accept(listening, clients);
}

int __wrap_OS_Read(int descriptor, char* buffer, size_t room) {
  if (!current) return __real_OS_Read(descriptor, buffer, room);
  return static_cast<int>(current->Read(descriptor, buffer, room));
}

int __wrap_OS_Write(int descriptor, char* bytes, size_t length) {
  if (!current) return __real_OS_Write(descriptor, bytes, length);
  return static_cast<int>(current->Write(descriptor, bytes, length));
}

int __wrap_OS_IpcClose(int descriptor, int shutdown) {
  if (!current || descriptor < 0) return __real_OS_IpcClose(descriptor, shutdown);
  return current->Close(descriptor);
}

// libfcgi's copy in this program calls these (fastcgi/CMakeLists.txt). The address sanitizer sees
// an overrun only if each block is one of the heap.

void* request_malloc(size_t size) {
  FastCGIConnection* const connection = current;
  if (connection && !kAddressSanitizer) [[likely]] {
    void* const block = connection->room().Take(size);
    if (block) [[likely]]
      return block;
  }
  return BlockOfHeap(size);
}

void request_free(void* memory) {
  FastCGIConnection* const connection = current;
  if (connection && connection->room().Has(memory)) {
    connection->room().Return();
  } else {
    free(memory);
  }
}

void* request_realloc(void* memory, size_t size) {
  if (!current || !current->room().Has(memory)) {
    void* const larger = realloc(memory, size);
    if (!larger && accepting) throw std::bad_alloc();
    return larger;
  }
  void* const larger = request_malloc(size);
  if (!larger) return nullptr;
  // The old size is not known. The two may overlap if bytes after the old block are copied too.
  memmove(larger, memory, std::min(size, current->room().SizeFrom(memory)));
  request_free(memory);
  return larger;
}
}
