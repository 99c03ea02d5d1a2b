// NetworkService, the base of a client that keeps one connection to a mail server.

#ifndef ZEPH_BASE_NETWORKSERVICE_H
#define ZEPH_BASE_NETWORKSERVICE_H

#include "base/core/StringClass.h"

class NetworkConnection;
class ZephApplication;

// Used on the application's thread only. An operation that fails leaves its text in error(). The
// order of the fields and of the virtual operations is fixed.
class NetworkService {
 public:
  // The application is borrowed. The host is adopted if *own is set, which is cleared then, and
  // copied otherwise; allocated is the size of its buffer. The timeout is in seconds, with the
  // special values that NetworkConnection states.
  NetworkService(ZephApplication* application, char* host, int length, int allocated, int* own,
                 int port, int timeout);
  virtual ~NetworkService();
  NetworkService(const NetworkService&) = delete;
  NetworkService& operator=(const NetworkService&) = delete;

  // Borrowed; null without one.
  virtual NetworkConnection* Connection();
  // Reads one reply of the server. Returns whether it is a good one.
  [[nodiscard]] virtual bool Read_Status() = 0;
  // Connects, after it has closed an older connection, and reads the server's greeting.
  [[nodiscard]] virtual bool Connect();

  // Text of the last failure. Storing a null String keeps the older text.
  virtual const String& error();
  virtual void Error(const String& text);

 protected:
  // The first step of Connect.
  [[nodiscard]] bool OpenConnection();
  void CloseConnection();
  // The host as the network manager takes it, up to its first NUL.
  const char* HostName() const { return host.data ? host.data : ""; }

  ZephApplication* application;
  NetworkConnection* connection = nullptr;  // owned
  String host;
  int port;
  int timeout;
  String error_text;
};

#endif
