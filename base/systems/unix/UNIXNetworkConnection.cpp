// TCP connections, and TLS on them.
// Tested in tests/base/systems/unix/UNIXNetworkConnectionTest.cpp and UNIXTLSTest.cpp.

#include "base/systems/unix/UNIXNetworkConnection.h"

#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/host/Config.h"
#include "base/host/ZephApplication.h"
#include "base/network/OpenSSL.h"

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

// The longest sleep between two looks at cancelled().
constexpr Milliseconds kSlice(250);

// A line that comes without a pause looks at cancelled() each time it has grown by so many bytes.
constexpr int kLinePatience = 65536;

// A large stream that is read in pieces of a few kilobytes costs more for the system calls than for
// its bytes. So it is received in pieces of kAhead bytes once a Read of at least kBulk was filled.
// Replies of a line, and the bytes before a TLS handshake, are never received early.
constexpr int kBulk = 4096;
constexpr int kAhead = 32768;

}  // namespace

UNIXNetworkConnection::UNIXNetworkConnection(ZephApplication* application)
    : NetworkConnection(application) {}

UNIXNetworkConnection::~UNIXNetworkConnection() {
  FreeTLS();
  CloseSocket();
}

void UNIXNetworkConnection::CloseSocket() {
  if (socket >= 0) close(socket);
  socket = -1;
  ahead_begin = ahead_end = 0;
  bulk = false;
}

const OpenSSLFunctions& UNIXNetworkConnection::TLS() const {
  return *application->sslfunctions();
}

void UNIXNetworkConnection::FreeTLS() {
  if (ssl) TLS().SSL_free(ssl);
  if (server_certificate) TLS().X509_free(server_certificate);
  if (client_certificate) TLS().X509_free(client_certificate);
  if (client_key) TLS().EVP_PKEY_free(client_key);
  ssl = nullptr;
  server_certificate = client_certificate = nullptr;
  client_key = nullptr;
}

// Stores the prefix with the system's reason, and returns -1.
int UNIXNetworkConnection::FailWith(const char* prefix) {
  String text(prefix);
  const String reason = application->lasterror();
  text.cat(reason.data, reason.length);
  Error(text);
  return -1;
}

// --- Waiting -------------------------------------------------------------------------------------

UNIXNetworkConnection::Wait UNIXNetworkConnection::WaitFor(short events, int timeout) {
  const long limit =
      timeout != 0 ? timeout : application->config()->value_integer(Config_timeout_global);
  const Clock::time_point end = Clock::now() + std::chrono::seconds(std::max(limit, 0L));
  for (;;) {
    if (application->cancelled()) return Wait::TimedOut;
    Milliseconds slice = kSlice;
    if (limit > 0) {
      slice = std::min(slice, std::chrono::ceil<Milliseconds>(end - Clock::now()));
      if (slice.count() <= 0) return Wait::TimedOut;
    }
    pollfd entry = {socket, events, 0};
    const int count = network_calls.poll(&entry, 1, static_cast<int>(slice.count()));
    if (count < 0 && errno != EINTR) return Wait::Failed;
    if (count <= 0) continue;
    if (entry.revents & POLLNVAL) {
      errno = EBADF;
      return Wait::Failed;
    }
    return entry.revents & (events | POLLERR | POLLHUP) ? Wait::Ready : Wait::NotReady;
  }
}

bool UNIXNetworkConnection::WaitOrFail(short events, int timeout, const WaitTexts& texts) {
  switch (WaitFor(events, timeout)) {
    case Wait::Ready: return true;
    case Wait::NotReady: Error(texts.not_ready); break;
    case Wait::TimedOut: Error(texts.timed_out); break;
    case Wait::Failed: FailWith(texts.failed); break;
  }
  return false;
}

// --- TCP -----------------------------------------------------------------------------------------

bool UNIXNetworkConnection::EstablishTCPConnection(addrinfo* address, int port, int timeout) {
  FreeTLS();
  CloseSocket();
  // Cut to 16 bits it would be another port, perhaps one that the script has meant to avoid.
  if (port < 0 || port > 65535) {
    Error("Invalid port");
    return false;
  }
  socket = network_calls.socket(address->ai_family, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  if (socket < 0 || network_calls.make_non_blocking(socket) < 0) {
    Error(application->lasterror());
    return false;
  }
  sockaddr_storage target = {};
  const in_port_t network_port = htons(static_cast<in_port_t>(port));
  const socklen_t length = std::min<socklen_t>(address->ai_addrlen, sizeof target);
  memcpy(&target, address->ai_addr, length);
  if (address->ai_family == AF_INET) {
    reinterpret_cast<sockaddr_in*>(&target)->sin_port = network_port;
  } else if (address->ai_family == AF_INET6) {
    reinterpret_cast<sockaddr_in6*>(&target)->sin6_port = network_port;
  } else {
    String text("Unsupported address family ");
    int digits, size;
    const std::unique_ptr<char[]> number(ZephApplication::itos(address->ai_family, &digits, &size));
    text.cat(number.get(), digits);
    Error(text);
    return false;
  }
  if (network_calls.connect(socket, reinterpret_cast<sockaddr*>(&target), length) == 0) return true;
  if (errno != EINPROGRESS) {
    Error(application->lasterror());
    return false;
  }
  static const WaitTexts texts = {"", "Connection timed out", "Unknown error"};
  return WaitOrFail(POLLOUT, timeout, texts) && CheckConnected();
}

// Asks how the attempt has ended.
bool UNIXNetworkConnection::CheckConnected() {
  int error = 0;
  socklen_t length = sizeof error;
  if (network_calls.getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &length) < 0) {
    Error(application->lasterror());
    return false;
  }
  switch (error) {
    case 0: return true;
    case ENETUNREACH: Error("Network unreachable"); break;
    case ETIMEDOUT: Error("Connection timed out"); break;
    case ECONNREFUSED: Error("Connection refused"); break;
    default: {
      String text("Unknown error ");
      int digits, size;
      const std::unique_ptr<char[]> number(ZephApplication::itos(error, &digits, &size));
      text.cat(number.get(), digits);
      Error(text);
    }
  }
  return false;
}

int UNIXNetworkConnection::Read(char* buffer, int length, int timeout) {
  if (ssl) return SSL_Read(buffer, length, timeout);
  if (ahead_begin < ahead_end) return TakeAhead(buffer, length);
  if (bulk && length >= kBulk && length < kAhead) {
    if (!ahead) ahead.reset(new char[kAhead]);
    const int count = Receive(ahead.get(), kAhead, timeout);
    if (count <= 0) return count;
    ahead_begin = 0;
    ahead_end = count;
    return TakeAhead(buffer, length);
  }
  const int count = Receive(buffer, length, timeout);
  if (length >= kBulk) bulk = count == length;
  return count;
}

int UNIXNetworkConnection::TakeAhead(char* buffer, int length) {
  const int count = std::max(std::min(length, ahead_end - ahead_begin), 0);
  if (count > 0) memcpy(buffer, ahead.get() + ahead_begin, static_cast<size_t>(count));
  ahead_begin += count;
  return count;
}

int UNIXNetworkConnection::Receive(char* buffer, int length, int timeout) {
  static const WaitTexts texts = {"Read Error: ", "Read Timeout", "Read Error"};
  const size_t size = static_cast<size_t>(std::max(length, 0));
  for (;;) {
    const ssize_t count = network_calls.recv(socket, buffer, size, 0);
    if (count >= 0) return static_cast<int>(count);
    if (errno != EAGAIN) return FailWith(texts.failed);
    if (!WaitOrFail(POLLIN, timeout, texts)) return -1;
  }
}

// Bytes are first looked at and then taken, so that those after the line stay in the socket.
int UNIXNetworkConnection::ReadLine(String& line, int timeout, int buffer_size) {
  if (ssl) return SSL_ReadLine(line, timeout, buffer_size);
  static const WaitTexts texts = {"Read Error: ", "Read Timeout", "Read Error"};
  const int size = std::max(buffer_size, 1);
  String collected;
  line.Empty();
  if (ahead_begin < ahead_end) {
    const char* const begin = ahead.get() + ahead_begin;
    const void* const feed = memchr(begin, '\n', static_cast<size_t>(ahead_end - ahead_begin));
    const int length = feed ? static_cast<int>(static_cast<const char*>(feed) - begin) + 1
                            : ahead_end - ahead_begin;
    collected.cat(begin, length);
    ahead_begin += length;
    if (feed) {
      line = std::move(collected);
      return line.length;
    }
  }
  std::unique_ptr<char[]> buffer(new char[static_cast<size_t>(size)]);
  for (int unlooked = 0;;) {
    ssize_t count = network_calls.recv(socket, buffer.get(), static_cast<size_t>(size), MSG_PEEK);
    if (count == 0) {
      Error("Read Error: Connection closed by remote host");
      return -1;
    }
    if (count > 0) {
      const void* const feed = memchr(buffer.get(), '\n', static_cast<size_t>(count));
      if (feed) count = static_cast<const char*>(feed) - buffer.get() + 1;
      count = network_calls.recv(socket, buffer.get(), static_cast<size_t>(count), 0);
    }
    if (count < 0) {
      if (errno != EAGAIN) return FailWith(texts.failed);
      if (!WaitOrFail(POLLIN, timeout, texts)) return -1;
      continue;
    }
    const int taken = static_cast<int>(count);
    const bool whole = taken > 0 && buffer[static_cast<size_t>(taken) - 1] == '\n';
    if (whole && collected.length == 0) {
      line.destroy();
      line.assign_nocopy(buffer.release(), taken, size);
      return line.length;
    }
    collected.cat(buffer.get(), taken);
    if (whole) {
      line = std::move(collected);
      return line.length;
    }
    unlooked += taken;
    if (unlooked < kLinePatience) continue;
    unlooked = 0;
    if (application->cancelled()) {
      Error(texts.timed_out);
      return -1;
    }
  }
}

int UNIXNetworkConnection::Write(const char* bytes, int length, int timeout) {
  if (ssl) return SSL_Write(bytes, length, timeout);
  static const WaitTexts texts = {"Write Error: ", "Write Timeout", "Write Error"};
  int done = 0;
  while (done < length) {
    const ssize_t count =
        network_calls.send(socket, bytes + done, static_cast<size_t>(length - done), MSG_NOSIGNAL);
    if (count > 0) {
      done += static_cast<int>(count);
      continue;
    }
    if (count < 0 && errno != EAGAIN) return FailWith(texts.failed);
    if (!WaitOrFail(POLLOUT, timeout, texts)) return -1;
  }
  return done;
}

// --- TLS -----------------------------------------------------------------------------------------

bool UNIXNetworkConnection::EstablishTLSConnection(const char* hostname,
                                                   x509_st* client_certificate,
                                                   evp_pkey_st* client_key, int timeout) {
  FreeTLS();
  this->client_certificate = client_certificate;
  this->client_key = client_key;
  if (socket < 0) {
    Error("TCP connection not established");
    return false;
  }
  // No handshake begins with what the peer has sent before it.
  if (ahead_begin < ahead_end) {
    Error("Error establishing SSL connection: Unexpected data");
    return false;
  }
  String text;
  if (!application->SSL_Available(&text)) {
    Error(text);
    return false;
  }
  const OpenSSLFunctions& tls = TLS();
  tls.ClearErrors();
  ssl = tls.SSL_new(application->sslcontext());
  if (!ssl) {
    Error(tls.Reason("Error allocating SSL handle: "));
    return false;
  }
  if (hostname) {
    tls.SSL_ctrl(ssl, OpenSSL_ControlHostName, 0, const_cast<char*>(hostname));
  }
  if (client_certificate && client_key) {
    tls.ClearErrors();
    if (tls.SSL_use_certificate(ssl, client_certificate) != 1) {
      Error(tls.Reason("Error assigning client certificate: "));
      return false;
    }
    tls.ClearErrors();
    if (tls.SSL_use_PrivateKey(ssl, client_key) != 1) {
      Error(tls.Reason("Error assigning client key: "));
      return false;
    }
  }
  tls.SSL_set_fd(ssl, socket);
  static const char prefix[] = "Error establishing SSL connection: ";
  static const WaitTexts texts = {prefix, "Error establishing SSL connection: Connection timed out",
                                  "Error establishing SSL connection"};
  for (;;) {
    tls.ClearErrors();
    const int result = tls.SSL_connect(ssl);
    if (result == 1) return true;
    if (!WaitForTLS(result, timeout, prefix, texts)) return false;
  }
}

bool UNIXNetworkConnection::WaitForTLS(int result, int timeout, const char* prefix,
                                       const WaitTexts& texts) {
  const OpenSSLFunctions& tls = TLS();
  const char* reason = "Unknown error";
  switch (tls.SSL_get_error(ssl, result)) {
    case OpenSSL_ErrorWantRead: return WaitOrFail(POLLIN, timeout, texts);
    case OpenSSL_ErrorWantWrite: return WaitOrFail(POLLOUT, timeout, texts);
    case OpenSSL_ErrorSSL:
    case OpenSSL_ErrorSystem: Error(tls.Reason(prefix)); return false;
    case OpenSSL_ErrorClosed: reason = "The remote server closed the connection"; break;
    default: break;
  }
  String text(prefix);
  text.cat(reason);
  Error(text);
  return false;
}

x509_st* UNIXNetworkConnection::Server_Certificate() {
  if (!ssl) return nullptr;
  if (!server_certificate) server_certificate = TLS().SSL_get_peer_certificate(ssl);
  return server_certificate;
}

namespace {
const char kReadPrefix[] = "SSL Read Error: ";
}

int UNIXNetworkConnection::SSL_Read(char* buffer, int length, int timeout) {
  static const WaitTexts texts = {kReadPrefix, "SSL Read Timeout", "SSL Read Error"};
  // The library takes a read of no bytes for a failure.
  if (length < 1) return 0;
  const OpenSSLFunctions& tls = TLS();
  for (;;) {
    tls.ClearErrors();
    const int count = tls.SSL_read(ssl, buffer, length);
    if (count > 0) return count;
    if (!WaitForTLS(count, timeout, kReadPrefix, texts)) return -1;
  }
}

// Byte by byte, because the library has no way to look at bytes without taking them in all of its
// versions. It has them in memory, so this costs no system calls.
int UNIXNetworkConnection::SSL_ReadLine(String& line, int timeout, int) {
  line.Empty();
  for (;;) {
    char c;
    if (SSL_Read(&c, 1, timeout) < 0) break;
    line.cat(c);
    if (c == '\n') return line.length;
    if (line.length % kLinePatience == 0 && application->cancelled()) {
      Error("SSL Read Timeout");
      break;
    }
  }
  line.destroy();
  line.Empty();
  return -1;
}

// Scripts know the failures of a write by the words of a read.
int UNIXNetworkConnection::SSL_Write(const char* bytes, int length, int timeout) {
  static const WaitTexts texts = {"Write Error: ", "Write Timeout", "Write Error"};
  const OpenSSLFunctions& tls = TLS();
  int done = 0;
  while (done < length) {
    tls.ClearErrors();
    const int count = tls.SSL_write(ssl, bytes + done, length - done);
    if (count > 0) {
      done += count;
    } else if (!WaitForTLS(count, timeout, kReadPrefix, texts)) {
      return -1;
    }
  }
  return done;
}
