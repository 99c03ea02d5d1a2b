// The parts that all connections share. Tested in tests/base/network/NetworkConnectionTest.cpp.

#include "base/network/NetworkConnection.h"

#include <cstdarg>
#include <cstdio>
#include <memory>

NetworkConnection::NetworkConnection(ZephApplication* application) : application(application) {}

NetworkConnection::~NetworkConnection() = default;

const String& NetworkConnection::error() {
  return error_text;
}

void NetworkConnection::Error(const String& text) {
  if (text.data && &text != &error_text) error_text = text;
}

int NetworkConnection::Write(const String& text, int timeout) {
  return Write(text.data ? text.data : "", text.length, timeout);
}

bool NetworkConnection::Write(int timeout, const char* format, ...) {
  char buffer[8192];
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(buffer, sizeof buffer, format, arguments);
  va_end(arguments);
  if (length < 0) {
    Error("Write Error");
    return false;
  }
  if (static_cast<size_t>(length) < sizeof buffer) return Write(buffer, length, timeout) == length;
  const size_t size = static_cast<size_t>(length) + 1;
  const std::unique_ptr<char[]> longer(new char[size]);
  va_start(arguments, format);
  vsnprintf(longer.get(), size, format, arguments);
  va_end(arguments);
  return Write(longer.get(), length, timeout) == length;
}
