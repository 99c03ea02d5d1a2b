// A server of one connection that does what a test says.

#ifndef ZEPH_TESTS_SUPPORT_LISTENINGPEER_H
#define ZEPH_TESTS_SUPPORT_LISTENINGPEER_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "base/host/FileDescriptor.h"

// Listens on 127.0.0.1, takes one connection on a thread of its own, and gives it to the script.
// The connection is closed after the script, and the destructor waits for that. A port of 0 is any
// that is free.
class ListeningPeer {
 public:
  class Connection {
   public:
    explicit Connection(int taken) : descriptor(taken) {}

    void Send(const std::string& bytes) {
      EXPECT_EQ(send(descriptor.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                static_cast<ssize_t>(bytes.size()));
    }
    // Reads exactly that many bytes, or up to the end.
    std::string Receive(size_t length) {
      std::string bytes(length, '\0');
      const ssize_t count = recv(descriptor.get(), bytes.data(), length, MSG_WAITALL);
      bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
      return bytes;
    }
    // Everything up to the end.
    std::string ReceiveAll() {
      std::string all;
      for (std::string part = Receive(65536); !part.empty(); part = Receive(65536)) all += part;
      return all;
    }
    // Returns once the client has closed the connection.
    void WaitForEnd() { ReceiveAll(); }
    void Pause(int milliseconds) {
      std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
    }
    // Ends the connection with a reset in place of an orderly end.
    void Reset() {
      const linger at_once = {1, 0};
      setsockopt(descriptor.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
      descriptor.reset();
    }
    int get() const { return descriptor.get(); }

   private:
    FileDescriptor descriptor;
  };

  explicit ListeningPeer(std::function<void(Connection&)> script, int port = 0) {
    listening.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(listening.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(listen(listening.get(), 5), 0);
    EXPECT_EQ(getsockname(listening.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    bound = ntohs(address.sin_port);
    thread = std::thread([this, script = std::move(script)] {
      Connection connection(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (connection.get() >= 0) script(connection);
    });
  }
  ~ListeningPeer() {
    // Wakes an accept that still waits.
    shutdown(listening.get(), SHUT_RDWR);
    thread.join();
  }
  ListeningPeer(const ListeningPeer&) = delete;
  ListeningPeer& operator=(const ListeningPeer&) = delete;

  int port() const { return bound; }

 private:
  FileDescriptor listening;
  int bound = 0;
  std::thread thread;
};

#endif
