// NetworkConnection, one outbound TCP connection, which turns into a TLS connection in place. The
// clients of HTTP, mail and extension libraries read and write through it.

#ifndef ZEPH_BASE_NETWORKCONNECTION_H
#define ZEPH_BASE_NETWORKCONNECTION_H

#include "base/core/StringClass.h"

class ZephApplication;
// The objects of the TLS library, which the engine knows by their addresses only.
struct x509_st;
struct evp_pkey_st;

// Made by NetworkManager::Connect and deleted by the caller; used on the application's thread only.
// Operations look as if they blocked, but the waits in them have time limits and end when the
// application is cancelled.
//
// A timeout is in seconds. 0 means the setting timeout_global; if that is 0 too, and for every
// negative value, there is no limit. Each wait gets the whole of it, so an operation that moves a
// few bytes at a time may take longer.
//
// An operation that fails leaves its text in error(). After that the connection may only be
// deleted. The order of the fields and of the virtual operations is fixed.
class NetworkConnection {
 public:
  // The application is borrowed.
  explicit NetworkConnection(ZephApplication* application);
  virtual ~NetworkConnection();
  NetworkConnection(const NetworkConnection&) = delete;
  NetworkConnection& operator=(const NetworkConnection&) = delete;

  // Makes the TLS handshake on the open connection. The host name is the one to ask the server for,
  // null for none. The connection takes ownership of the certificate and the key, both of which may
  // be null, also when it fails. The server's certificate is not compared with any name here; see
  // NetworkManager::SSL_Connect.
  [[nodiscard]] virtual bool EstablishTLSConnection(const char* hostname,
                                                    x509_st* client_certificate,
                                                    evp_pkey_st* client_key, int timeout) = 0;
  // The certificate that the server has sent; null on a plain connection. The connection owns it.
  virtual x509_st* Server_Certificate() = 0;
  // The count of bytes read, which may be less than length; 0 at the end of the stream, which is no
  // error; -1 on failure.
  [[nodiscard]] virtual int Read(char* buffer, int length, int timeout) = 0;
  // Reads up to and including the next line feed, and nothing after it. Returns the length of the
  // line, -1 on failure, which the end of the stream is. Then the line is the empty string, and
  // what was read of it is lost. buffer_size is a hint in bytes and no limit: a line may be longer.
  [[nodiscard]] virtual int ReadLine(String& line, int timeout, int buffer_size) = 0;
  // Writes all bytes. Returns length, or -1 on failure, when some may have been sent.
  [[nodiscard]] virtual int Write(const char* bytes, int length, int timeout) = 0;

  // Text of the last failure. Storing a null String keeps the older text.
  virtual const String& error();
  virtual void Error(const String& text);

  // The same as Write(text.data, text.length, timeout).
  [[nodiscard]] int Write(const String& text, int timeout);
  // Writes formatted text of any length. True if all of it was sent.
  [[nodiscard]] __attribute__((format(printf, 3, 4))) bool Write(int timeout, const char* format,
                                                                 ...);

 protected:
  ZephApplication* application;
  String error_text;
};

#endif
