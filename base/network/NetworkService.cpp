// The connection of a mail client. Tested in tests/base/network/SMTPServiceTest.cpp.

#include "base/network/NetworkService.h"

#include "base/host/ZephApplication.h"
#include "base/network/NetworkConnection.h"
#include "base/network/NetworkManager.h"

NetworkService::NetworkService(ZephApplication* application, char* host, int length, int allocated,
                               int* own, int port, int timeout)
    : application(application), port(port), timeout(timeout) {
  if (own && *own) {
    *own = 0;
    this->host.assign_nocopy(host, length, allocated);
  } else {
    this->host.assign(host, length);
  }
}

NetworkService::~NetworkService() {
  CloseConnection();
}

NetworkConnection* NetworkService::Connection() {
  return connection;
}

bool NetworkService::Connect() {
  return OpenConnection() && Read_Status();
}

bool NetworkService::OpenConnection() {
  CloseConnection();
  NetworkManager* const manager = application->networkmanager();
  String reason;
  if (!manager) {
    reason = "No network";
  } else if (port < 0 || port > 65535) {
    // Checked here, so that the text is short, and before the host is looked up.
    reason = "Invalid port";
  } else {
    connection = manager->Connect(HostName(), port, timeout);
    if (connection) return true;
    reason = manager->error();
  }
  String text("Error connecting to '");
  text.cat(host.data, host.length);
  text.cat("': ");
  text.cat(reason.data, reason.length);
  Error(text);
  return false;
}

void NetworkService::CloseConnection() {
  delete connection;
  connection = nullptr;
}

const String& NetworkService::error() {
  return error_text;
}

void NetworkService::Error(const String& text) {
  if (text.data && &text != &error_text) error_text = text;
}
