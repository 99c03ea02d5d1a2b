// Look-ups of hosts and connections over the sockets of a POSIX system.

#ifndef ZEPH_BASE_SYSTEMS_UNIX_UNIXNETWORKMANAGER_H
#define ZEPH_BASE_SYSTEMS_UNIX_UNIXNETWORKMANAGER_H

#include "base/network/NetworkManager.h"

// Names are looked up by the system, within its own time limits.
class UNIXNetworkManager : public NetworkManager {
 public:
  // The application is borrowed.
  explicit UNIXNetworkManager(ZephApplication* application);

  bool IsIPAddress(const char* text) override;
  bool IsIPv4Address(const char* text) override;
  bool IsIPv6Address(const char* text) override;
  int GetHostAddress(const char* name, String& address) override;
  NetworkConnection* Connect(const char* host, int port, int timeout) override;
  bool CompareIPv6Addresses(const char* a, const char* b) override;
  bool ConvertIPv4ToString(void* address, char* text, int length) override;
  bool ConvertIPv6ToString(void* address, char* text, int length) override;

 private:
  bool ConvertToString(int family, const void* address, char* text, int length);
  void LookUpFailed(const char* name, const char* more);
};

#endif
