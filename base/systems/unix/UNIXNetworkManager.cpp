// Look-ups of hosts, and the walk through their addresses.
// Tested in tests/base/systems/unix/UNIXNetworkManagerTest.cpp.

#include "base/systems/unix/UNIXNetworkManager.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>
#include <memory>

#include "base/host/ZephApplication.h"
#include "base/systems/unix/UNIXHostLookup.h"
#include "base/systems/unix/UNIXNetworkConnection.h"

namespace {

struct FreeAddresses {
  void operator()(addrinfo* list) const { network_calls.freeaddrinfo(list); }
};
using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

// Null if the text is no address.
Addresses LookUpAddress(const char* text, int family) {
  addrinfo hints = {};
  hints.ai_flags = AI_NUMERICHOST;
  hints.ai_family = family;
  addrinfo* found = nullptr;
  if (network_calls.getaddrinfo(text, nullptr, &hints, &found) != 0) return nullptr;
  return Addresses(found);
}

// The binary address within a result; null for a family that has none here.
const void* AddressOf(const addrinfo* found) {
  if (found->ai_family == AF_INET) {
    return &reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr;
  }
  if (found->ai_family == AF_INET6) {
    return &reinterpret_cast<const sockaddr_in6*>(found->ai_addr)->sin6_addr;
  }
  return nullptr;
}

}  // namespace

UNIXNetworkManager::UNIXNetworkManager(ZephApplication* application)
    : NetworkManager(application) {}

bool UNIXNetworkManager::IsIPAddress(const char* text) {
  return LookUpAddress(text, AF_UNSPEC) != nullptr;
}

bool UNIXNetworkManager::IsIPv4Address(const char* text) {
  return LookUpAddress(text, AF_INET) != nullptr;
}

bool UNIXNetworkManager::IsIPv6Address(const char* text) {
  return LookUpAddress(text, AF_INET6) != nullptr;
}

void UNIXNetworkManager::LookUpFailed(const char* name, const char* more) {
  String text("Error looking up '");
  text.cat(name);
  text.cat("'");
  text.cat(more);
  Error(text);
}

int UNIXNetworkManager::GetHostAddress(const char* name, String& address) {
  const Addresses list(LookUpHost(application, name, {}, 0));
  if (!list) {
    LookUpFailed(name, "");
    return -1;
  }
  for (const addrinfo* found = list.get(); found; found = found->ai_next) {
    char text[INET6_ADDRSTRLEN];
    const void* const binary = AddressOf(found);
    if (!binary || !inet_ntop(found->ai_family, binary, text, sizeof text)) continue;
    address.assign(text);
    return 1;
  }
  LookUpFailed(name, ": No supported address families found");
  return -1;
}

NetworkConnection* UNIXNetworkManager::Connect(const char* host, int port, int timeout) {
  addrinfo hints = {};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  const Addresses list(LookUpHost(application, host, hints, timeout));
  if (!list) {
    LookUpFailed(host, "");
    return nullptr;
  }
  auto connection = std::make_unique<UNIXNetworkConnection>(application);
  for (addrinfo* found = list.get(); found; found = found->ai_next) {
    if (connection->EstablishTCPConnection(found, port, timeout)) return connection.release();
  }
  int length, size;
  const std::unique_ptr<char[]> number(ZephApplication::itos(port, &length, &size));
  String text("Error connecting to ");
  text.cat(host);
  text.cat(" on port ");
  text.cat(number.get(), length);
  text.cat(": ");
  text.cat(connection->error().data, connection->error().length);
  Error(text);
  return nullptr;
}

bool UNIXNetworkManager::CompareIPv6Addresses(const char* a, const char* b) {
  const Addresses first = LookUpAddress(a, AF_INET6);
  const Addresses second = LookUpAddress(b, AF_INET6);
  return first && second &&
         memcmp(AddressOf(first.get()), AddressOf(second.get()), sizeof(in6_addr)) == 0;
}

bool UNIXNetworkManager::ConvertToString(int family, const void* address, char* text, int length) {
  if (inet_ntop(family, address, text, length > 0 ? static_cast<socklen_t>(length) : 0)) {
    return true;
  }
  Error(application->lasterror());
  return false;
}

bool UNIXNetworkManager::ConvertIPv4ToString(void* address, char* text, int length) {
  return ConvertToString(AF_INET, address, text, length);
}

bool UNIXNetworkManager::ConvertIPv6ToString(void* address, char* text, int length) {
  return ConvertToString(AF_INET6, address, text, length);
}
