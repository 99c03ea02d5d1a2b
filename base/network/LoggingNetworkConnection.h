// Connections that write their traffic to the trace log: decorators around another connection.

#ifndef ZEPH_BASE_LOGGINGNETWORKCONNECTION_H
#define ZEPH_BASE_LOGGINGNETWORKCONNECTION_H

#include "base/network/NetworkConnection.h"

class ZephVM;

// Forwards every operation to the connection inside, and reports the traffic to its subclass. The
// order of the fields and of the virtual operations is fixed.
class LoggingNetworkConnection : public NetworkConnection {
 public:
  // Owns the connection and deletes it. Copies the host name. The port is the peer's.
  LoggingNetworkConnection(ZephApplication* application, const String& hostname, int port,
                           NetworkConnection* connection);
  ~LoggingNetworkConnection() override;

  bool EstablishTLSConnection(const char* hostname, x509_st* client_certificate,
                              evp_pkey_st* client_key, int timeout) override;
  x509_st* Server_Certificate() override;
  int Read(char* buffer, int length, int timeout) override;
  int ReadLine(String& line, int timeout, int buffer_size) override;
  int Write(const char* bytes, int length, int timeout) override;
  using NetworkConnection::Write;
  const String& error() override;
  void Error(const String& text) override;

  // Called after an operation on the connection inside: with the bytes that it has moved, or after
  // a negative result. A result of 0 is not reported.
  virtual void Log_Read_Data(const char* bytes, int length) = 0;
  virtual void Log_Read_Error() = 0;
  virtual void Log_Write_Data(const char* bytes, int length) = 0;
  virtual void Log_Write_Error() = 0;

 protected:
  String hostname;
  int port;
  NetworkConnection* connection;
};

// What a ZephVMLoggingNetworkConnection is made from. The machine is borrowed; log_type is Log_Call
// or Log_SMTP.
struct ZephVMLoggingNetworkConnectionData {
  ZephVM* vm;
  unsigned log_type;
};

// Writes one record for each read and each write, under the place of the script at which the
// connection was made. Its user decides, before it makes one, whether the machine's log wants such
// records.
class ZephVMLoggingNetworkConnection : public LoggingNetworkConnection {
 public:
  // data is a ZephVMLoggingNetworkConnectionData, which is read here and not kept.
  ZephVMLoggingNetworkConnection(const String& hostname, int port, NetworkConnection* connection,
                                 void* data);

  void Log_Read_Data(const char* bytes, int length) override;
  void Log_Read_Error() override;
  void Log_Write_Data(const char* bytes, int length) override;
  void Log_Write_Error() override;

 private:
  void Log(const char* word, const String& text);

  unsigned log_type;
  String file;
  String function;
  int line;
};

#endif
