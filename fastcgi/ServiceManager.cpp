// The engine as a service. Tested in tests/fastcgi/ServiceManagerTest.cpp and
// tests/e2e/SupervisorTest.cpp.

#include "fastcgi/ServiceManager.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fastcgi/ProcessStatus.h"
#include "fastcgi/ShellOptions.h"

namespace {

constexpr int kFirstDescriptor = 3;
constexpr int kMostDescriptors = 1000;

// Written before the first thread starts.
sockaddr_un notified{};
socklen_t notified_length = 0;
int status_socket = -1;

std::string TakeVariable(const char* name) {
  const char* value = getenv(name);
  std::string text = value ? value : "";
  unsetenv(name);
  return text;
}

// The word before the next colon, which is removed with it.
std::string NextName(std::string* names) {
  const size_t colon = std::min(names->find(':'), names->size());
  std::string name = names->substr(0, colon);
  names->erase(0, colon + 1);
  return name;
}

void TakeSockets(int count, std::string names) {
  bool has_listening = IsListening(STDIN_FILENO);
  for (int i = 0; i < count; i++) {
    const int descriptor = kFirstDescriptor + i;
    const std::string name = NextName(&names);
    if (name == "status" && status_socket < 0) {
      status_socket = descriptor;
      fcntl(descriptor, F_SETFD, FD_CLOEXEC);
      continue;
    }
    if (!has_listening && dup2(descriptor, STDIN_FILENO) == STDIN_FILENO) has_listening = true;
    close(descriptor);
  }
}

// A name that begins with "@" is one of the abstract space, which begins with a NUL byte.
void SetAddress(const std::string& name) {
  if (name.size() < 2 || name.size() >= sizeof notified.sun_path) return;
  if (name[0] != '/' && name[0] != '@') return;
  notified.sun_family = AF_UNIX;
  memcpy(notified.sun_path, name.data(), name.size());
  if (name[0] == '@') notified.sun_path[0] = '\0';
  notified_length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
}

}  // namespace

void ServiceManager::Begin() {
  const std::string pid = TakeVariable("LISTEN_PID");
  const std::string count = TakeVariable("LISTEN_FDS");
  const std::string names = TakeVariable("LISTEN_FDNAMES");
  SetAddress(TakeVariable("NOTIFY_SOCKET"));
  // The variables may be those of a process that has started this one and forgot to remove them.
  if (pid != std::to_string(getpid())) return;
  int passed = 0;
  std::from_chars(count.data(), count.data() + count.size(), passed);
  TakeSockets(std::clamp(passed, 0, kMostDescriptors), names);
}

int ServiceManager::TakeStatusSocket() {
  const int taken = status_socket;
  status_socket = -1;
  return taken;
}

void ServiceManager::Ready() {
  Send("READY=1");
}

void ServiceManager::Stopping() {
  Send("STOPPING=1");
}

// The time, in microseconds, tells the manager which request to reload this belongs to.
void ServiceManager::Reloading() {
  char text[64];
  snprintf(text, sizeof text, "RELOADING=1\nMONOTONIC_USEC=%lld",
           static_cast<long long>(ProcessStatus::Now() / 1000));
  Send(text);
}

void ServiceManager::Forget() {
  notified_length = 0;
}

// Does not wait: a manager that takes nothing must not stop the service.
void ServiceManager::Send(const char* state) {
  if (notified_length == 0) return;
  const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) return;
  (void)sendto(descriptor, state, strlen(state), MSG_DONTWAIT | MSG_NOSIGNAL,
               reinterpret_cast<sockaddr*>(&notified), notified_length);
  close(descriptor);
}
