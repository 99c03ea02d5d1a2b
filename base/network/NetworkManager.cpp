// What the managers of all systems share, without TLS and HTTP, which have units of their own.
// Tested in tests/base/network/NetworkConnectionTest.cpp.

#include "base/network/NetworkManager.h"

#include <cstring>

NetworkManager::NetworkManager(ZephApplication* application) : application(application) {}

NetworkManager::~NetworkManager() = default;

bool NetworkManager::IsIPAddress(const char* text) {
  return text[strspn(text, "0123456789.")] == '\0';
}

const String& NetworkManager::error() {
  return error_text;
}

void NetworkManager::Error(const String& text) {
  if (text.data && &text != &error_text) error_text = text;
}
