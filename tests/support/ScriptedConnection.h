// Network connections without a network: the peer's bytes are given by a test, and what is written
// to the peer is kept.

#ifndef ZEPH_TESTS_SUPPORT_SCRIPTEDCONNECTION_H
#define ZEPH_TESTS_SUPPORT_SCRIPTEDCONNECTION_H

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "base/network/NetworkConnection.h"
#include "base/network/NetworkManager.h"

// The texts of a real connection.
inline constexpr char kReadTimeout[] = "Read Timeout";
inline constexpr char kReadClosed[] = "Read Error: Connection closed by remote host";
inline constexpr char kWriteTimeout[] = "Write Timeout";

// What a peer does. It outlives the connection, so that a test can look at it afterwards.
struct ScriptedPeer {
  std::string bytes;      // what it sends
  std::set<size_t> cuts;  // positions in them at which a piece ends: no read gets bytes of both
  bool stays = false;     // after them it is silent instead of closing
  int write_room = -1;    // bytes that it takes before it stops reading; -1 is all

  size_t at = 0;             // bytes that were read
  std::string written;       // what it got
  int writes = 0;            // calls of Write
  int deleted = 0;           // connections to it that were deleted
  std::vector<int> waits;    // the timeout of each read, line and write
  std::vector<int> buffers;  // buffer_size of each line
};

class ScriptedConnection : public NetworkConnection {
 public:
  explicit ScriptedConnection(ScriptedPeer* peer, ZephApplication* application = nullptr)
      : NetworkConnection(application), peer(peer) {}
  ~ScriptedConnection() override { peer->deleted++; }

  bool EstablishTLSConnection(const char*, x509_st*, evp_pkey_st*, int) override { return false; }
  x509_st* Server_Certificate() override { return nullptr; }

  int Read(char* buffer, int length, int timeout) override {
    peer->waits.push_back(timeout);
    size_t end = std::min(peer->bytes.size(), peer->at + static_cast<size_t>(length));
    auto cut = peer->cuts.upper_bound(peer->at);
    if (cut != peer->cuts.end()) end = std::min(end, *cut);
    const size_t count = end - peer->at;
    if (count == 0 && length > 0 && peer->stays) return Fail(kReadTimeout);
    memcpy(buffer, peer->bytes.data() + peer->at, count);
    peer->at = end;
    return static_cast<int>(count);
  }

  int ReadLine(String& line, int timeout, int buffer_size) override {
    peer->waits.push_back(timeout);
    peer->buffers.push_back(buffer_size);
    line.assign("", 0);
    const size_t end = peer->bytes.find('\n', peer->at);
    if (end == std::string::npos) {
      peer->at = peer->bytes.size();
      return Fail(peer->stays ? kReadTimeout : kReadClosed);
    }
    line.assign(peer->bytes.data() + peer->at, static_cast<int>(end + 1 - peer->at));
    peer->at = end + 1;
    return line.length;
  }

  int Write(const char* bytes, int length, int timeout) override {
    peer->waits.push_back(timeout);
    peer->writes++;
    const int room = peer->write_room < 0 ? length : std::min(length, peer->write_room);
    peer->written.append(bytes, static_cast<size_t>(room));
    if (peer->write_room >= 0) peer->write_room -= room;
    return room == length ? length : Fail(kWriteTimeout);
  }
  using NetworkConnection::Write;

 private:
  int Fail(const char* text) {
    Error(String(text));
    return -1;
  }

  ScriptedPeer* peer;
};

// A manager whose connections all lead to one peer.
class ScriptedNetworkManager : public NetworkManager {
 public:
  explicit ScriptedNetworkManager(ZephApplication* application, ScriptedPeer* peer)
      : NetworkManager(application), peer(peer) {}

  bool refuses = false;      // no connection can be made
  bool refuses_tls = false;  // no connection becomes a TLS connection
  // The calls so far, such as "connect ::1 8080 30" and "tls ::1 file data type password 30".
  std::vector<std::string> calls;

  NetworkConnection* Connect(const char* host, int port, int timeout) override {
    calls.push_back(std::string("connect ") + host + " " + std::to_string(port) + " " +
                    std::to_string(timeout));
    if (!refuses) return new ScriptedConnection(peer, application);
    Error(String("No connection"));
    return nullptr;
  }
  bool SSL_Connect(NetworkConnection*, const char* hostname, const char* certificate_file,
                   const char* certificate_data, const char* certificate_type, const char* password,
                   int timeout) override {
    std::string call = "tls";
    for (const char* text :
         {hostname, certificate_file, certificate_data, certificate_type, password}) {
      call += std::string(" ") + (text ? text : "null");
    }
    calls.push_back(call + " " + std::to_string(timeout));
    if (refuses_tls) Error(String("No TLS"));
    return !refuses_tls;
  }

  bool IsIPv4Address(const char*) override { return false; }
  bool IsIPv6Address(const char*) override { return false; }
  int GetHostAddress(const char*, String&) override { return -1; }
  bool CompareIPv6Addresses(const char*, const char*) override { return false; }
  bool ConvertIPv4ToString(void*, char*, int) override { return false; }
  bool ConvertIPv6ToString(void*, char*, int) override { return false; }

 private:
  ScriptedPeer* peer;
};

#endif
