#include "fastcgi/ServiceManager.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <string>

#include "base/host/FileDescriptor.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using testing::MatchesRegex;

// The side of the service manager: a socket that takes datagrams.
class Manager {
 public:
  explicit Manager(const std::string& name) {
    descriptor.reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, sizeof address.sun_path - 1);
    if (name[0] == '@') address.sun_path[0] = '\0';
    EXPECT_EQ(bind(descriptor.get(), reinterpret_cast<sockaddr*>(&address),
                   static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size())),
              0);
  }
  std::string Next() {
    char buffer[256];
    const ssize_t count = recv(descriptor.get(), buffer, sizeof buffer, MSG_DONTWAIT);
    return count < 0 ? "nothing" : std::string(buffer, static_cast<size_t>(count));
  }

 private:
  FileDescriptor descriptor;
};

TEST(ServiceManager, IsToldOfTheStates) {
  const TemporaryDirectory directory;
  for (const std::string& name : {directory.path() + "/notify", "@zeph-" + directory.path()}) {
    SCOPED_TRACE(name);
    Manager manager(name);
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
    ServiceManager::Begin();
    EXPECT_EQ(getenv("NOTIFY_SOCKET"), nullptr);
    ServiceManager::Ready();
    EXPECT_EQ(manager.Next(), "READY=1");
    ServiceManager::Reloading();
    EXPECT_THAT(manager.Next(), MatchesRegex("RELOADING=1\nMONOTONIC_USEC=[0-9]+"));
    ServiceManager::Stopping();
    EXPECT_EQ(manager.Next(), "STOPPING=1");
    ServiceManager::Forget();
    ServiceManager::Ready();
    EXPECT_EQ(manager.Next(), "nothing");
  }
}

TEST(ServiceManager, SocketsOfAnotherProcessAreLeft) {
  setenv("LISTEN_PID", std::to_string(getppid()).c_str(), 1);
  setenv("LISTEN_FDS", "1", 1);
  const FileDescriptor other(dup(1));
  ServiceManager::Begin();
  EXPECT_EQ(getenv("LISTEN_FDS"), nullptr);
  EXPECT_GE(fcntl(other.get(), F_GETFD), 0);
  EXPECT_EQ(ServiceManager::TakeStatusSocket(), -1);
}

}  // namespace
