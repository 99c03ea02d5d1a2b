// A mail server without a network: a test gives its replies, and the whole dialogue is kept in the
// order in which it happened.

#ifndef ZEPH_TESTS_SUPPORT_MAILDIALOGUE_H
#define ZEPH_TESTS_SUPPORT_MAILDIALOGUE_H

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "base/network/NetworkConnection.h"
#include "base/network/NetworkManager.h"

using MailTranscript = std::vector<std::string>;

// What a server does. It outlives the connections.
struct MailServer {
  // The lines that it sends, without their ends. A read without one fails.
  std::deque<std::string> replies;
  // "connect HOST PORT TIMEOUT", "tls HOST", "S: " and a line of the server without its end, "C: "
  // and the bytes of a write, "close".
  MailTranscript transcript;
  // If set, gives each line in place of replies, endlessly.
  std::function<std::string()> talk;
  // The read or write of that number, counted from 1, fails; 0 is none.
  int failing_operation = 0;
  bool refuses = false;      // no connection can be made
  bool refuses_tls = false;  // no connection becomes a TLS connection

  int operations = 0;
  std::vector<int> waits;    // the timeout of each read and write
  std::vector<int> buffers;  // the hint of each read

  void Says(const std::vector<std::string>& lines) { replies = {lines.begin(), lines.end()}; }
  // The bytes of all writes.
  std::string Written() const {
    std::string all;
    for (const std::string& entry : transcript) {
      if (entry.starts_with("C: ")) all += entry.substr(3);
    }
    return all;
  }
};

class MailServerConnection : public NetworkConnection {
 public:
  MailServerConnection(MailServer* server, ZephApplication* application)
      : NetworkConnection(application), server(server) {}
  ~MailServerConnection() override { server->transcript.push_back("close"); }

  bool EstablishTLSConnection(const char*, x509_st*, evp_pkey_st*, int) override { return false; }
  x509_st* Server_Certificate() override { return nullptr; }
  int Read(char*, int, int) override { return 0; }

  int ReadLine(String& line, int timeout, int buffer_size) override {
    server->waits.push_back(timeout);
    server->buffers.push_back(buffer_size);
    line.assign("", 0);
    if (++server->operations == server->failing_operation ||
        (server->replies.empty() && !server->talk)) {
      server->transcript.push_back("S: (nothing)");
      Error("Read Timeout");
      return -1;
    }
    std::string text;
    if (server->talk) {
      text = server->talk();
    } else {
      text = server->replies.front();
      server->replies.pop_front();
      server->transcript.push_back("S: " + text);
    }
    text += "\r\n";
    line.assign(text.data(), static_cast<int>(text.size()));
    return line.length;
  }

  int Write(const char* bytes, int length, int timeout) override {
    server->waits.push_back(timeout);
    if (++server->operations == server->failing_operation) {
      server->transcript.push_back("C: ");
      Error("Write Timeout");
      return -1;
    }
    server->transcript.push_back("C: " + std::string(bytes, static_cast<size_t>(length)));
    return length;
  }
  using NetworkConnection::Write;

 private:
  MailServer* server;
};

// A manager whose connections all lead to one server.
class MailServerManager : public NetworkManager {
 public:
  MailServerManager(ZephApplication* application, MailServer* server)
      : NetworkManager(application), server(server) {}

  NetworkConnection* Connect(const char* host, int port, int timeout) override {
    server->transcript.push_back("connect " + std::string(host) + " " + std::to_string(port) + " " +
                                 std::to_string(timeout));
    if (!server->refuses) return new MailServerConnection(server, application);
    Error("No connection");
    return nullptr;
  }
  bool SSL_Connect(NetworkConnection*, const char* hostname, const char* certificate_file,
                   const char* certificate_data, const char* certificate_type, const char* password,
                   int timeout) override {
    std::string entry = "tls " + std::string(hostname) + " " + std::to_string(timeout);
    for (const char* text : {certificate_file, certificate_data, certificate_type, password}) {
      if (text) entry += std::string(" ") + text;
    }
    server->transcript.push_back(entry);
    if (server->refuses_tls) Error("No TLS");
    return !server->refuses_tls;
  }

  bool IsIPv4Address(const char*) override { return false; }
  bool IsIPv6Address(const char*) override { return false; }
  int GetHostAddress(const char*, String&) override { return -1; }
  bool CompareIPv6Addresses(const char*, const char*) override { return false; }
  bool ConvertIPv4ToString(void*, char*, int) override { return false; }
  bool ConvertIPv6ToString(void*, char*, int) override { return false; }

 private:
  MailServer* server;
};

#endif
