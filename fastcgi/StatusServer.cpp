// The HTTP server of the status. Tested in tests/fastcgi/StatusServerTest.cpp and
// tests/e2e/SupervisorTest.cpp.

#include "fastcgi/StatusServer.h"

#include <fcntl.h>
#include <netdb.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <string_view>

namespace {

constexpr std::chrono::seconds kPatience(5);
constexpr size_t kMostClients = 16;
constexpr size_t kLongestRequest = 8192;
constexpr int kBacklog = 64;
// After a failure that lasts for a while, such as a lack of descriptors or of memory.
constexpr std::chrono::milliseconds kPause(100);
// A thread that only formats some text.
constexpr size_t kStackSize = 512 << 10;

bool IsWhole(const std::string& request) {
  return request.find("\r\n\r\n") != std::string::npos || request.find("\n\n") != std::string::npos;
}

std::string Response(const char* status, const char* type, const std::string& body, bool has_body) {
  return std::string("HTTP/1.1 ") + status + "\r\nContent-Type: " + type +
         "\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n" + (has_body ? body : "");
}

// Whether a file is a socket on which no process listens any more. One whose queue is full would
// make a blocking connect wait.
bool IsLeftOver(const StatusAddress& address) {
  struct stat status;
  if (lstat(address.path.c_str(), &status) != 0 || !S_ISSOCK(status.st_mode)) return false;
  const FileDescriptor tried(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  return connect(tried.get(), reinterpret_cast<const sockaddr*>(&address.storage),
                 address.length) != 0 &&
         errno == ECONNREFUSED;
}

}  // namespace

bool StatusAddress::Parse(const std::string& text, StatusAddress* address, std::string* problem) {
  const auto wrong = [&] {
    *problem =
        "expected an address and a port, or the absolute path of a socket, found \"" + text + "\"";
    return false;
  };
  if (!text.empty() && text[0] == '/') {
    auto* local = reinterpret_cast<sockaddr_un*>(&address->storage);
    if (text.size() >= sizeof local->sun_path) {
      *problem = "the path of a socket has at most " + std::to_string(sizeof local->sun_path - 1) +
                 " bytes: \"" + text + "\"";
      return false;
    }
    local->sun_family = AF_UNIX;
    memcpy(local->sun_path, text.c_str(), text.size() + 1);
    address->length = sizeof *local;
    address->path = text;
    return true;
  }
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) return wrong();
  std::string host = text.substr(0, colon);
  const std::string port = text.substr(colon + 1);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  } else if (host.find(':') != std::string::npos) {
    return wrong();
  }
  if (port.empty() || port.size() > 5 ||
      port.find_first_not_of("0123456789") != std::string::npos || std::stoi(port) > 65535) {
    return wrong();
  }
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0) return wrong();
  memcpy(&address->storage, found->ai_addr, found->ai_addrlen);
  address->length = found->ai_addrlen;
  freeaddrinfo(found);
  return true;
}

bool StatusServer::Listen(const std::string& text, std::string* problem) {
  StatusAddress address;
  if (!StatusAddress::Parse(text, &address, problem)) return false;
  FileDescriptor made(
      socket(address.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  const int on = 1;
  // A port whose last connections are still in their final wait can be used again.
  setsockopt(made.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (!address.path.empty() && IsLeftOver(address)) unlink(address.path.c_str());
  if (bind(made.get(), reinterpret_cast<sockaddr*>(&address.storage), address.length) != 0 ||
      listen(made.get(), kBacklog) != 0) {
    *problem = "cannot listen on \"" + text + "\": " + strerror(errno);
    return false;
  }
  listening = std::move(made);
  path = address.path;
  return true;
}

void StatusServer::Adopt(int descriptor) {
  const int flags = fcntl(descriptor, F_GETFL);
  if (flags >= 0) fcntl(descriptor, F_SETFL, flags | O_NONBLOCK);
  listening.reset(descriptor);
  path.clear();
}

void StatusServer::Close(bool removes) {
  if (removes && !path.empty()) unlink(path.c_str());
  path.clear();
  listening.reset();
  clients.clear();
}

void StatusServer::Turn(std::vector<pollfd>* others, int timeout) {
  try {
    TurnOnce(others, timeout);
  } catch (const std::bad_alloc&) {
    // The clients have to wait; the others need no memory.
    const int pause = static_cast<int>(kPause.count());
    poll(others->data(), others->size(), timeout < 0 ? pause : std::min(timeout, pause));
  }
}

void StatusServer::TurnOnce(std::vector<pollfd>* others, int timeout) {
  std::vector<pollfd> all(*others);
  const size_t first = all.size();
  const Clock::time_point now = Clock::now();
  const auto until = [&timeout, now](Clock::time_point end) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - now).count() + 1;
    const int wait = static_cast<int>(std::max<int64_t>(left, 0));
    timeout = timeout < 0 ? wait : std::min(timeout, wait);
  };
  // A connection that cannot be accepted stays in the queue, and would end each wait at once.
  if (listening.is_open()) {
    const bool pauses = now < accept_time;
    all.push_back({listening.get(), static_cast<short>(pauses ? 0 : POLLIN), 0});
    if (pauses) until(accept_time);
  }
  for (const Client& client : clients) {
    const short events = client.output.empty() ? POLLIN : POLLOUT;
    all.push_back({client.descriptor.get(), events, 0});
    until(client.end);
  }
  const int ready = poll(all.data(), all.size(), timeout);
  for (size_t i = 0; i < first; i++) (*others)[i].revents = ready > 0 ? all[i].revents : short{0};
  size_t at = first + (listening.is_open() ? 1 : 0);
  for (auto client = clients.begin(); client != clients.end(); at++) {
    bool goes_on = Clock::now() < client->end;
    if (goes_on && ready > 0 && all[at].revents != 0) goes_on = Serve(&*client);
    client = goes_on ? std::next(client) : clients.erase(client);
  }
  if (listening.is_open() && ready > 0 && all[first].revents != 0) Accept();
}

void StatusServer::Accept() {
  FileDescriptor accepted(accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!accepted.is_open()) {
    const bool is_gone = errno == EAGAIN || errno == ECONNABORTED || errno == EINTR;
    if (!is_gone) accept_time = Clock::now() + kPause;
    return;
  }
  // The oldest has had the most time.
  if (clients.size() >= kMostClients) clients.pop_front();
  clients.push_back({std::move(accepted), Clock::now() + kPatience, "", ""});
}

// Returns false if the connection is over. A lack of memory costs this connection only.
bool StatusServer::Serve(Client* client) {
  try {
    if (client->output.empty() && !Read(client)) return false;
    return client->output.empty() || Write(client);
  } catch (const std::bad_alloc&) {
    return false;
  }
}

bool StatusServer::Read(Client* client) {
  char buffer[2048];
  const ssize_t count = recv(client->descriptor.get(), buffer, sizeof buffer, 0);
  if (count < 0) return errno == EAGAIN || errno == EINTR;
  if (count == 0) return false;
  client->input.append(buffer, static_cast<size_t>(count));
  if (IsWhole(client->input)) {
    client->output = Respond(client->input);
  } else if (client->input.size() > kLongestRequest) {
    client->output = Response("431 Request Header Fields Too Large", "text/plain", "", true);
  }
  return true;
}

bool StatusServer::Write(Client* client) {
  while (client->sent < client->output.size()) {
    const ssize_t count = send(client->descriptor.get(), client->output.data() + client->sent,
                               client->output.size() - client->sent, MSG_NOSIGNAL);
    if (count < 0) return errno == EAGAIN || errno == EINTR;
    client->sent += static_cast<size_t>(count);
    client->end = Clock::now() + kPatience;
  }
  shutdown(client->descriptor.get(), SHUT_WR);
  return false;
}

std::string StatusServer::Respond(const std::string& request) const {
  const std::string_view line(request.data(),
                              std::min(request.find_first_of("\r\n"), request.size()));
  const size_t space = line.find(' ');
  const size_t end = line.rfind(' ');
  if (space == std::string_view::npos || end == space || line.substr(end + 1, 5) != "HTTP/") {
    return Response("400 Bad Request", "text/plain", "bad request\n", true);
  }
  const std::string_view method = line.substr(0, space);
  std::string_view target = line.substr(space + 1, end - space - 1);
  target = target.substr(0, target.find('?'));
  const bool has_body = method != "HEAD";
  if (method != "GET" && method != "HEAD") {
    return Response("405 Method Not Allowed\r\nAllow: GET, HEAD", "text/plain", "GET only\n", true);
  }
  if (target == "/ping") {
    const bool serving = report().IsServing();
    return Response(serving ? "200 OK" : "503 Service Unavailable", "text/plain",
                    serving ? "ok\n" : "not serving\n", has_body);
  }
  if (target == "/status") {
    return Response("200 OK", "text/plain; charset=utf-8", report().Text(), has_body);
  }
  if (target == "/status.json") {
    return Response("200 OK", "application/json", report().JSON(), has_body);
  }
  if (target == "/metrics") {
    return Response("200 OK", "text/plain; version=0.0.4; charset=utf-8", report().Metrics(),
                    has_body);
  }
  return Response("404 Not Found", "text/plain",
                  "not found: there are /ping, /status, /status.json and /metrics\n", has_body);
}

// --- StatusThread --------------------------------------------------------------------------------

bool StatusThread::Start(const std::string& address, int descriptor, int threads,
                         std::string* problem) {
  board = StatusBoard(threads);
  stop.reset(eventfd(0, EFD_CLOEXEC));
  if (!board.get() || !stop.is_open()) {
    *problem = strerror(errno);
    return false;
  }
  const ProcessStatus* status = board.get();
  server = std::make_unique<StatusServer>([status] {
    StatusReport report;
    report.processes.push_back(ProcessView::Of(*status));
    report.age = report.processes[0].age;
    return report;
  });
  if (descriptor >= 0) {
    server->Adopt(descriptor);
  } else if (!server->Listen(address, problem)) {
    return false;
  }
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, kStackSize);
  const int error = pthread_create(&thread, &attributes, Run, this);
  pthread_attr_destroy(&attributes);
  if (error != 0) {
    server->Close(true);
    *problem = strerror(error);
    return false;
  }
  started = true;
  OwnStatus::Use(board.get(), -1);
  return true;
}

StatusThread::~StatusThread() {
  if (!started) return;
  OwnStatus::Use(nullptr, -1);
  const uint64_t one = 1;
  if (write(stop.get(), &one, sizeof one) == sizeof one) pthread_join(thread, nullptr);
  server->Close(true);
}

void* StatusThread::Run(void* argument) {
  auto* self = static_cast<StatusThread*>(argument);
  std::vector<pollfd> stop{{self->stop.get(), POLLIN, 0}};
  do {
    self->server->Turn(&stop, -1);
  } while (stop[0].revents == 0);
  return nullptr;
}
