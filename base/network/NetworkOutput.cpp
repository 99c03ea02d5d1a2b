// The output to a connection. Tested in tests/base/network/NetworkConnectionTest.cpp.

#include "base/network/NetworkOutput.h"

#include "base/network/NetworkConnection.h"

NetworkOutput::NetworkOutput(Output* parent, NetworkConnection* connection, int buffer_size,
                             int timeout)
    : BufferedOutput(buffer_size), parent(parent), timeout(timeout), connection(connection) {}

NetworkOutput::~NetworkOutput() {
  NetworkOutput::Flush();
}

int NetworkOutput::Header(const char* name, const char* value) {
  return parent->Header(name, value);
}

int NetworkOutput::Header(const char* name, int namelength, int nameowned, const char* value,
                          int valuelength, int valueowned) {
  return parent->Header(name, namelength, nameowned, value, valuelength, valueowned);
}

int NetworkOutput::DoWrite(const char* text, int length) {
  return connection->Write(text, length, timeout);
}

const String& NetworkOutput::error() {
  return connection->error();
}
