// A network of a test's own: a name space in which only the loopback device exists and all ports
// are free, those below 1024 too.

#ifndef ZEPH_TESTS_SUPPORT_PRIVATENETWORK_H
#define ZEPH_TESTS_SUPPORT_PRIVATENETWORK_H

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "base/host/FileDescriptor.h"

// The calling thread, and the threads and programs that it starts, are in the network until the
// object is deleted. Sockets stay in the network that they were made in. The network ends with its
// last program and socket.
class PrivateNetwork {
 public:
  PrivateNetwork() : outer(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) {
    if (outer.get() < 0 || unshare(CLONE_NEWNET) != 0) {
      Fail("unshare");
      return;
    }
    inside = true;
    const FileDescriptor any(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq loopback = {};
    memcpy(loopback.ifr_name, "lo", 3);
    loopback.ifr_flags = IFF_UP;
    if (ioctl(any.get(), SIOCSIFFLAGS, &loopback) != 0) Fail("SIOCSIFFLAGS");
  }
  ~PrivateNetwork() {
    if (inside) static_cast<void>(setns(outer.get(), CLONE_NEWNET));
  }
  PrivateNetwork(const PrivateNetwork&) = delete;
  PrivateNetwork& operator=(const PrivateNetwork&) = delete;

  // Why there is no such network, usually because that takes the rights of root; empty if there is.
  const std::string& why_not() const { return failure; }

 private:
  void Fail(const char* call) {
    failure = std::string("no network name space of its own: ") + call + ": " + strerror(errno);
  }

  FileDescriptor outer;
  bool inside = false;
  std::string failure;
};

#endif
