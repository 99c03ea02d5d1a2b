// NetworkManager, through which all outbound connections of a script are made: look-ups of names,
// TCP, TLS with the check of the server's identity, and the opening of URLs.

#ifndef ZEPH_BASE_NETWORKMANAGER_H
#define ZEPH_BASE_NETWORKMANAGER_H

#include <memory>

#include "base/core/StringClass.h"
#include "base/network/NetworkConnection.h"

// Bits of flags_security that govern TLS.
enum TLSSecurity : int {
  TLSSecurity_NoChain = 0x1000,         // accept a certificate that no known authority has signed
  TLSSecurity_NoHostname = 0x2000,      // do not compare the certificate with the host name
  TLSSecurity_CompareAddress = 0x4000,  // compare it with the address of a server named by that
};

// One for each application, which owns it; used on the application's thread only. An operation that
// fails leaves its text in error(). A timeout is in seconds, with the special values that
// NetworkConnection states. The order of the virtual operations is fixed.
class NetworkManager {
 public:
  // The application is borrowed.
  explicit NetworkManager(ZephApplication* application);
  virtual ~NetworkManager();
  NetworkManager(const NetworkManager&) = delete;
  NetworkManager& operator=(const NetworkManager&) = delete;

  // Whether the text is an address and no name. An IPv6 address has no brackets. This class's
  // IsIPAddress accepts every text of digits and dots.
  virtual bool IsIPAddress(const char* text);
  virtual bool IsIPv4Address(const char* text) = 0;
  virtual bool IsIPv6Address(const char* text) = 0;
  // Looks up a host and stores its first address as text. Returns 1, or -1 on failure, which leaves
  // `address` alone. Waits as long as the setting timeout_global allows.
  virtual int GetHostAddress(const char* name, String& address) = 0;
  // Connects to the first address of the host that accepts. The look-up of the host and each
  // attempt get the whole of the timeout. The caller owns the connection; null on failure, which a
  // port that is not from 0 to 65535 is too.
  [[nodiscard]] virtual NetworkConnection* Connect(const char* host, int port, int timeout) = 0;

  // --- TLS (base/network/NetworkManager_TLS.cpp) -------------------------------------------------
  // Turns the connection into a TLS connection and checks that the server is the one that hostname
  // names; that is a name or an address. A client certificate is sent if certificate_type is given:
  // "ASN1" or "PEM", of which the first letter counts. The file is a path in the data directory;
  // certificate_data is NUL-terminated PEM text. Null or empty means not given; if both are given
  // the data is used. The password is for a PEM key and may be null. On failure the connection may
  // only be deleted.
  [[nodiscard]] virtual bool SSL_Connect(NetworkConnection* connection, const char* hostname,
                                         const char* certificate_file, const char* certificate_data,
                                         const char* certificate_type, const char* password,
                                         int timeout);

  // --- HTTP (base/network/NetworkManager_HTTP.cpp) -----------------------------------------------
  // Splits the URL, connects, with TLS for "https", and sends the request. Returns the connection,
  // from which the response is to be read and which the caller owns; null on failure. The
  // certificate arguments are those of SSL_Connect, the others those of OpenURL_SendRequest.
  [[nodiscard]] virtual NetworkConnection* OpenURL(
      const char* method, const char* url, const char* body, const char* content_type,
      int body_length, const char* certificate_file, const char* certificate_data,
      const char* certificate_type, const char* password, const char* extra_headers,
      int extra_headers_length, double http_version, int timeout);
  // Connects to the host of a URL that was split. The scheme is "http" or "https", in any case. A
  // host in brackets is an IPv6 address. Without a port (length 0) that of the scheme is used.
  // *port_number receives the number. The caller owns the connection; null on failure.
  [[nodiscard]] virtual NetworkConnection* OpenURL_Connect(
      const char* scheme, int scheme_length, const char* host, int host_length, const char* port,
      int port_length, int* port_number, const char* certificate_file, const char* certificate_data,
      const char* certificate_type, const char* password, int timeout);
  // Writes the head of a request and its body. The path has no slash in front. A body_length of -1
  // means strlen; a null body is none. extra_headers is null, or whole lines with their CR LF. An
  // http_version above 9.0 means 1.1, one below 0.0 means 1.0. A null body with a body_length above
  // 0 announces a body that the caller writes afterwards. An extra_headers_length of -1 means
  // strlen.
  [[nodiscard]] virtual bool OpenURL_SendRequest(
      NetworkConnection* connection, const char* method, const char* path, int path_length,
      const char* host, int host_length, const char* port, int port_length, int port_number,
      const char* body, const char* content_type, int body_length, const char* extra_headers,
      int extra_headers_length, double http_version, int timeout);

  // --- Certificates (base/network/NetworkManager_TLS.cpp) ----------------------------------------
  // REQUIRES, of all that take a certificate and of both that make one: the application's
  // SSL_Available has returned 1.
  //
  // Reads a certificate and its key from one buffer of `length` bytes. The first letter of the
  // type, in any case, is 'a' for DER or 'p' for PEM. The password is for a PEM key and may be
  // null. The caller owns both objects; on failure they are null.
  [[nodiscard]] virtual bool Populate_Client_Certificate(const char* data, int length,
                                                         const char* type, const char* password,
                                                         x509_st** certificate, evp_pkey_st** key);
  // The same from a file of the data directory.
  [[nodiscard]] virtual bool Load_Client_Certificate(const char* file, const char* type,
                                                     const char* password, x509_st** certificate,
                                                     evp_pkey_st** key);
  // Whether the certificate is one for the host name, or for the address. The certificate is
  // borrowed and may be null. Store no text.
  [[nodiscard]] virtual bool Verify_Certificate_Hostname(x509_st* certificate,
                                                         const char* hostname);
  [[nodiscard]] virtual bool Verify_Certificate_IP(x509_st* certificate, const char* address);
  // Whether the host name matches a name of a certificate, ignoring case. The pattern has
  // pattern_length bytes. It may have one '*', at the end of its first label and with two more
  // labels after it; that stands for the rest of one label.
  virtual bool CompareX509Hostname(const char* hostname, const char* pattern, int pattern_length);

  // Whether two texts are the same IPv6 address. False if one is none.
  virtual bool CompareIPv6Addresses(const char* a, const char* b) = 0;
  // Write the text of the 4 or 16 bytes at `address` to `text`, which has room for `length` bytes
  // with the NUL. False if that is not enough.
  virtual bool ConvertIPv4ToString(void* address, char* text, int length) = 0;
  virtual bool ConvertIPv6ToString(void* address, char* text, int length) = 0;

  // Cuts a URL of `length` bytes (-1 means strlen) into parts, which point into it. An absent part
  // has length 0. A host in brackets keeps them; the path has no slash in front. Returns 1, or 0
  // for a malformed URL. Stores no text. (base/network/NetworkManager_HTTP.cpp)
  virtual int SplitURL(const char* url, int length, const char** scheme, int* scheme_length,
                       const char** host, int* host_length, const char** port, int* port_length,
                       const char** path, int* path_length);

  // Text of the last failure. Storing a null String keeps the older text.
  virtual const String& error();
  virtual void Error(const String& text);

  // Whether a URL of `length` bytes (-1 means strlen) has no CR, LF and NUL, so that nothing in it
  // can become a line of the request. Stores a text if not. OpenURL makes the same check, but there
  // a NUL is the end of the URL: a caller that has a length checks first.
  [[nodiscard]] bool CheckURL(const char* url, int length);

  // OpenURL with a decorator around the connection, so that the request is seen by it as well. The
  // Decorator has a constructor (const String& hostname, int port, NetworkConnection*, void* data),
  // which takes ownership of the connection.
  template <class Decorator>
  [[nodiscard]] NetworkConnection* OpenURL(const char* method, const char* url, const char* body,
                                           const char* content_type, int body_length,
                                           const char* certificate_file,
                                           const char* certificate_data,
                                           const char* certificate_type, const char* password,
                                           const char* extra_headers, int extra_headers_length,
                                           double http_version, int timeout, void* data) {
    // The connection is released only once there is memory for the decorator.
    const Decorate decorate = [](const String& hostname, int port,
                                 std::unique_ptr<NetworkConnection>& connection,
                                 void* made_from) -> NetworkConnection* {
      return new Decorator(hostname, port, connection.release(), made_from);
    };
    return OpenURL_Decorated(method, url, body, content_type, body_length, certificate_file,
                             certificate_data, certificate_type, password, extra_headers,
                             extra_headers_length, http_version, timeout, decorate, data);
  }

 protected:
  // Makes a decorator, which takes the connection; the host name is as written in the URL.
  using Decorate = NetworkConnection* (*)(const String& hostname, int port,
                                          std::unique_ptr<NetworkConnection>& connection,
                                          void* data);
  // Both forms of OpenURL; decorate is null for the plain one.
  [[nodiscard]] NetworkConnection* OpenURL_Decorated(
      const char* method, const char* url, const char* body, const char* content_type,
      int body_length, const char* certificate_file, const char* certificate_data,
      const char* certificate_type, const char* password, const char* extra_headers,
      int extra_headers_length, double http_version, int timeout, Decorate decorate, void* data);

  String error_text;
  ZephApplication* application;
};

#endif
