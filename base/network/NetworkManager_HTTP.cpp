// The HTTP client's side of the manager: it splits a URL, connects, and sends one request. The
// response is read by HTTPResponseStream. Tested in tests/base/network/NetworkManager_HTTPTest.cpp.

#include <cstdio>
#include <cstring>
#include <memory>

#include "base/core/CLocale.h"
#include "base/core/MeasuredLength.h"
#include "base/core/memcmpi.h"
#include "base/host/ZephApplication.h"
#include "base/network/NetworkConnection.h"
#include "base/network/NetworkManager.h"

namespace {

const int kHTTPPort = 80;
const int kHTTPSPort = 443;

// A text with a position, for the parts of a URL.
class Scanner {
 public:
  Scanner(const char* text, int length) : at(text), end(text + length) {}

  bool AtEnd() const { return at == end; }
  bool Is(char c) const { return at < end && *at == c; }
  const char* place() const { return at; }
  int left() const { return static_cast<int>(end - at); }

  bool Skip(char c) {
    if (!Is(c)) return false;
    ++at;
    return true;
  }
  // Moves to the first of those bytes or to the end, and returns how many bytes it has passed. A
  // NUL in the text is one of the bytes if `stops` counts it.
  int SkipTo(const char* stops, int count) {
    const char* start = at;
    while (at < end && !memchr(stops, *at, static_cast<size_t>(count))) ++at;
    return static_cast<int>(at - start);
  }

 private:
  const char* at;
  const char* end;
};

bool IsScheme(const char* scheme, int length, const char* name) {
  return static_cast<size_t>(length) == strlen(name) &&
         memcmpi(scheme, name, static_cast<size_t>(length)) == 0;
}

// The host as the look-up wants it: an IPv6 address has no brackets there.
String WithoutBrackets(const char* host, int length) {
  if (length >= 2 && host[0] == '[' && host[length - 1] == ']') return String(host + 1, length - 2);
  return String(host, length);
}

// A version as it is in a request line, with a point in any locale.
void AddVersion(String& head, double version) {
  const locale_t before = uselocale(CLocale());
  char text[16];
  snprintf(text, sizeof text, "%.1f", version);
  uselocale(before);
  head.cat(text);
}

void AddNumber(String& head, int number) {
  char text[16];
  head.cat(text, snprintf(text, sizeof text, "%d", number));
}

void AddField(String& head, const char* name, const char* value) {
  head.cat(name);
  head.cat(": ", 2);
  head.cat(value);
  head.cat("\r\n", 2);
}

}  // namespace

bool NetworkManager::CheckURL(const char* url, int length) {
  length = MeasuredLength(url, length);
  for (int i = 0; i < length; i++) {
    if (url[i] != '\r' && url[i] != '\n' && url[i] != '\0') continue;
    Error(String("A URL must not contain line breaks or NUL bytes"));
    return false;
  }
  return true;
}

int NetworkManager::SplitURL(const char* url, int length, const char** scheme, int* scheme_length,
                             const char** host, int* host_length, const char** port,
                             int* port_length, const char** path, int* path_length) {
  Scanner rest(url, MeasuredLength(url, length));
  *scheme = rest.place();
  *scheme_length = rest.SkipTo(":", 1);
  if (!rest.Skip(':') || !rest.Skip('/') || !rest.Skip('/')) return 0;

  *host = rest.place();
  if (rest.Is('[')) {
    *host_length = rest.SkipTo("]", 1) + 1;
    if (!rest.Skip(']')) return 0;
  } else {
    *host_length = rest.SkipTo("\0/:", 3);
  }
  const bool has_port = rest.Skip(':');
  *port = rest.place();
  *port_length = has_port ? rest.SkipTo("/?", 2) : 0;

  if (!rest.AtEnd() && !rest.Is('?') && !rest.Skip('/')) return 0;
  *path = rest.place();
  *path_length = rest.left();
  return 1;
}

NetworkConnection* NetworkManager::OpenURL(const char* method, const char* url, const char* body,
                                           const char* content_type, int body_length,
                                           const char* certificate_file,
                                           const char* certificate_data,
                                           const char* certificate_type, const char* password,
                                           const char* extra_headers, int extra_headers_length,
                                           double http_version, int timeout) {
  return OpenURL_Decorated(method, url, body, content_type, body_length, certificate_file,
                           certificate_data, certificate_type, password, extra_headers,
                           extra_headers_length, http_version, timeout, nullptr, nullptr);
}

NetworkConnection* NetworkManager::OpenURL_Decorated(
    const char* method, const char* url, const char* body, const char* content_type,
    int body_length, const char* certificate_file, const char* certificate_data,
    const char* certificate_type, const char* password, const char* extra_headers,
    int extra_headers_length, double http_version, int timeout, Decorate decorate, void* data) {
  if (!CheckURL(url, -1)) return nullptr;
  const char* scheme;
  const char* host;
  const char* port;
  const char* path;
  int scheme_length, host_length, port_length, path_length, port_number;
  if (!SplitURL(url, -1, &scheme, &scheme_length, &host, &host_length, &port, &port_length, &path,
                &path_length)) {
    Error(String("Malformed URL"));
    return nullptr;
  }
  std::unique_ptr<NetworkConnection> connection(
      OpenURL_Connect(scheme, scheme_length, host, host_length, port, port_length, &port_number,
                      certificate_file, certificate_data, certificate_type, password, timeout));
  if (!connection) return nullptr;
  if (decorate) {
    const String hostname(host, host_length);
    connection.reset(decorate(hostname, port_number, connection, data));
  }
  if (!OpenURL_SendRequest(connection.get(), method, path, path_length, host, host_length, port,
                           port_length, port_number, body, content_type, body_length, extra_headers,
                           extra_headers_length, http_version, timeout)) {
    return nullptr;
  }
  return connection.release();
}

NetworkConnection* NetworkManager::OpenURL_Connect(
    const char* scheme, int scheme_length, const char* host, int host_length, const char* port,
    int port_length, int* port_number, const char* certificate_file, const char* certificate_data,
    const char* certificate_type, const char* password, int timeout) {
  const bool tls = IsScheme(scheme, scheme_length, "https");
  if (!tls && !IsScheme(scheme, scheme_length, "http")) {
    String text("Unsupported protocol '");
    text.cat(scheme, scheme_length);
    text.cat('\'');
    Error(text);
    return nullptr;
  }
  const String hostname = WithoutBrackets(host, host_length);
  *port_number = tls ? kHTTPSPort : kHTTPPort;
  if (port && port_length > 0) *port_number = application->stoi(port, port_length, nullptr);

  std::unique_ptr<NetworkConnection> connection(Connect(hostname.data, *port_number, timeout));
  if (!connection) return nullptr;
  if (tls && !SSL_Connect(connection.get(), hostname.data, certificate_file, certificate_data,
                          certificate_type, password, timeout)) {
    return nullptr;
  }
  return connection.release();
}

bool NetworkManager::OpenURL_SendRequest(NetworkConnection* connection, const char* method,
                                         const char* path, int path_length, const char* host,
                                         int host_length, const char* port, int port_length,
                                         int port_number, const char* body,
                                         const char* content_type, int body_length,
                                         const char* extra_headers, int extra_headers_length,
                                         double http_version, int timeout) {
  // Without a body the length is that of one which the caller writes afterwards.
  if (body) body_length = MeasuredLength(body, body_length);
  if (http_version > 9.0) http_version = 1.1;
  if (http_version < 0.0) http_version = 1.0;

  String head(method);
  head.cat(" /", 2);
  head.cat(path, path_length);
  head.cat(" HTTP/");
  AddVersion(head, http_version);
  head.cat("\r\n", 2);
  if (http_version >= 1.0) {
    head.cat("Host: ");
    head.cat(host, host_length);
    if (port && port_length > 0) {
      head.cat(':');
      AddNumber(head, port_number);
    }
    head.cat("\r\n", 2);
  }
  if (body_length > 0) {
    AddField(head, "Content-Type", content_type);
    head.cat("Content-Length: ");
    AddNumber(head, body_length);
    head.cat("\r\n", 2);
  }
  head.cat(extra_headers, extra_headers_length);
  head.cat(http_version >= 1.1 ? "Connection: close\r\n\r\n" : "\r\n");

  if (connection->Write(head, timeout) != head.length ||
      (body && body_length > 0 && connection->Write(body, body_length, timeout) != body_length)) {
    Error(connection->error());
    return false;
  }
  return true;
}
