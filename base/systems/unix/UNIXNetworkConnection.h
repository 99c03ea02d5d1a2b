// Connections over the sockets of a POSIX system.

#ifndef ZEPH_BASE_SYSTEMS_UNIX_UNIXNETWORKCONNECTION_H
#define ZEPH_BASE_SYSTEMS_UNIX_UNIXNETWORKCONNECTION_H

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <memory>

#include "base/network/NetworkConnection.h"

struct OpenSSLFunctions;
struct ssl_st;

// The system calls of look-ups and connections. They go through a table, in which a test replaces
// an entry, because a test cannot provoke most of their results. Only a test writes to it, while no
// other thread uses the network.
struct NetworkCalls {
  static int MakeNonBlocking(int descriptor) { return ::fcntl(descriptor, F_SETFL, O_NONBLOCK); }

  int (*getaddrinfo)(const char*, const char*, const addrinfo*, addrinfo**) = ::getaddrinfo;
  void (*freeaddrinfo)(addrinfo*) = ::freeaddrinfo;
  int (*socket)(int, int, int) = ::socket;
  int (*make_non_blocking)(int) = MakeNonBlocking;
  int (*connect)(int, const sockaddr*, socklen_t) = ::connect;
  int (*poll)(pollfd*, nfds_t, int) = ::poll;
  int (*getsockopt)(int, int, int, void*, socklen_t*) = ::getsockopt;
  ssize_t (*recv)(int, void*, size_t, int) = ::recv;
  ssize_t (*send)(int, const void*, size_t, int) = ::send;
};

inline NetworkCalls network_calls;

// A non-blocking socket and what TLS needs on top of it. All waits are made by one poll, in slices,
// so that a script that is cancelled leaves soon: a wait then ends as if its time were over.
class UNIXNetworkConnection : public NetworkConnection {
 public:
  // Without a socket: EstablishTCPConnection has to be first.
  explicit UNIXNetworkConnection(ZephApplication* application);
  ~UNIXNetworkConnection() override;

  bool EstablishTLSConnection(const char* hostname, x509_st* client_certificate,
                              evp_pkey_st* client_key, int timeout) override;
  x509_st* Server_Certificate() override;
  int Read(char* buffer, int length, int timeout) override;
  int ReadLine(String& line, int timeout, int buffer_size) override;
  int Write(const char* bytes, int length, int timeout) override;
  using NetworkConnection::Write;

  // Connects to the first address of the list, which is borrowed, with this port in place of the
  // one in it; fails unless it is from 0 to 65535. What an earlier attempt left is freed, so it may
  // be called again after a failure.
  [[nodiscard]] virtual bool EstablishTCPConnection(addrinfo* address, int port, int timeout);
  // Read, ReadLine and Write of a TLS connection. The end of the stream is a failure of SSL_Read.
  [[nodiscard]] virtual int SSL_Read(char* buffer, int length, int timeout);
  [[nodiscard]] virtual int SSL_ReadLine(String& line, int timeout, int buffer_size);
  [[nodiscard]] virtual int SSL_Write(const char* bytes, int length, int timeout);

 private:
  enum class Wait { Ready, NotReady, TimedOut, Failed };
  // The three texts of an operation whose wait did not end well; the first is followed by the
  // system's reason.
  struct WaitTexts {
    const char* failed;
    const char* timed_out;
    const char* not_ready;
  };

  // Waits for POLLIN or POLLOUT. An error or a hang-up counts as ready: the next call reports it.
  // On Failed the reason is in errno.
  Wait WaitFor(short events, int timeout);
  // The same; stores the text and returns false unless the socket is ready.
  bool WaitOrFail(short events, int timeout, const WaitTexts& texts);
  // Acts on the result of a TLS call that did not succeed: waits for what it needs, or stores the
  // text and returns false.
  bool WaitForTLS(int result, int timeout, const char* prefix, const WaitTexts& texts);
  bool CheckConnected();
  int FailWith(const char* prefix);
  const OpenSSLFunctions& TLS() const;
  void FreeTLS();
  void CloseSocket();
  // recv with the waits of Read and its failures: the count of bytes, 0 at the end, or -1.
  int Receive(char* buffer, int length, int timeout);
  // Moves up to length of the bytes that were read ahead; returns how many.
  int TakeAhead(char* buffer, int length);

  int socket = -1;
  ssl_st* ssl = nullptr;
  x509_st* server_certificate = nullptr;
  x509_st* client_certificate = nullptr;
  evp_pkey_st* client_key = nullptr;
  // Bytes that were received and not read yet: those of the buffer from ahead_begin to ahead_end.
  // Read alone reads ahead, and only while a caller takes the stream in large pieces.
  std::unique_ptr<char[]> ahead;
  int ahead_begin = 0;
  int ahead_end = 0;
  bool bulk = false;  // the last large Read got all that it asked for
};

#endif
